// A stand-in for the router's SMS sending-limit service: the object
// "sms_limit" with the methods "check" and "inc", served on the test's own
// bus connection (it answers while the test waits on the bus).
#pragma once

#include "wwan/ubox.h"
#include <libubus.h>

#include <string>
#include <vector>

#include "tests/e2e/e2e_bus.h"

namespace e2e {

class sms_limit_service
{
  public:
    enum class mode {
        answer,        // "check" answers max and current; "inc" counts, "limit":"reached" at max
        not_supported, // both answer UBUS_STATUS_NOT_SUPPORTED: no limit on this router
        failing,       // both answer UBUS_STATUS_UNKNOWN_ERROR
        slow,          // answers after 1.5 s, later than the daemon waits for "check"
    };

    sms_limit_service(bus_client &bus, int max, int current, mode m = mode::answer);
    ~sms_limit_service();
    sms_limit_service(const sms_limit_service &) = delete;
    sms_limit_service &operator=(const sms_limit_service &) = delete;

    bool registered() const { return registered_; }

    int max;
    int current;
    mode behaviour;
    // Each call as "check 1 gsm.modem0" (method, sim, modem).
    std::vector<std::string> calls;

  private:
    struct deferred : uloop_timeout {
        sms_limit_service *owner = nullptr;
        ubus_request_data req{};
        std::string method;
        bool armed = false;
    };
    static int on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                       blob_attr *msg);
    static void on_late(uloop_timeout *t);
    int reply(ubus_request_data *req, const std::string &method);

    // The handler is given the object; the record leads it back here.
    struct object_holder {
        ubus_object object{};
        sms_limit_service *owner = nullptr;
    };
    static const ubus_method methods_[];
    static ubus_object_type type_;

    bus_client &bus_;
    object_holder holder_;
    bool registered_ = false;
    std::vector<deferred *> late_;
};

} // namespace e2e
