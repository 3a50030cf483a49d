// A stand-in for the router's SMS sending-limit service: the object
// "sms_limit" with the methods "check" (answers max and current) and "inc"
// (counts; "limit":"reached" at max), served on the test's own bus
// connection (it answers while the test waits on the bus).
#pragma once

#include <libubus.h>

#include <string>
#include <vector>

#include "tests/e2e/e2e_bus.h"

namespace e2e
{

class sms_limit_service
{
  public:
    sms_limit_service(bus_client &bus, int max, int current);
    ~sms_limit_service();
    sms_limit_service(const sms_limit_service &) = delete;
    sms_limit_service &operator=(const sms_limit_service &) = delete;

    bool registered() const { return registered_; }

    int max;
    int current;
    // Each call as "check 1 gsm.modem0" (method, sim, modem).
    std::vector<std::string> calls;

  private:
    static int on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg);
    // The handler is given the object; the record leads it back here.
    struct object_holder {
        ubus_object object{};
        sms_limit_service *owner = nullptr;
    };
    bus_client &bus_;
    object_holder holder_;
    bool registered_ = false;
};

} // namespace e2e
