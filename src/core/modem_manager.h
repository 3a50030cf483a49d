// The modem manager: the daemon's top-level object. It connects to the bus,
// serves the `gsm` object, finds modems in the USB tree at start and through
// hot-plug events, creates one modem instance per modem, names its bus
// object, watches every modem on a timer (silent modems are probed, expired
// requests are answered) and removes modems that go away.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "wwan/ubox.h"
#include <libubus.h>

#include "comm/comm_manager.h"
#include "core/discovery.h"
#include "ubus/ubus_modem.h"

class modem_instance;
struct request;

// Which of its time-outs a queued request has passed at a given time.
enum class request_expiry { none, execution, queue };

// A request that has been written expires when its execution time-out has
// passed since it was sent, one still waiting when its queue time-out has
// passed since it was queued (milliseconds on request_clock_ms()).
request_expiry check_request_expiry(const request &req, int64_t now_ms);

class modem_manager final : public ubus_manager
{
  public:
    static constexpr uint32_t watcher_ms = 5000;
    // A modem silent this long (seconds) is probed.
    static constexpr int64_t silence_limit = 241;
    // More expired requests than this in a row and the modem is hung.
    static constexpr uint32_t max_timeouts = 14;
    static constexpr const char *added_event = "hotplug.modem_added";
    static constexpr const char *removed_event = "hotplug.modem_removed";

    // Arms the watcher; null without memory. timing is the command channel
    // timing every modem gets (tests shrink it).
    static std::unique_ptr<modem_manager> mdm_create(const cmm_timing &timing = {});
    // Destroys every modem (their callers are answered) and leaves the bus.
    ~modem_manager() override;
    modem_manager(const modem_manager &) = delete;
    modem_manager &operator=(const modem_manager &) = delete;

    // start(), then runs the event loop until it is stopped. 0 when the loop
    // ended, 1 when start-up failed.
    int init(bool compress);
    // Everything init does before the loop: bus, `gsm` object, hot-plug
    // handlers, USB scan. 0, or 1 (logged; the bus is shut down again).
    [[nodiscard]] int start(bool compress);

    // Creates, starts and begins to identify one modem. 0, or 1 when it is
    // refused (duplicate, blocked, board unreadable) or fails.
    int new_modem(const modem_descriptor &desc);
    // Scans the USB tree and creates every supported modem not yet served
    // and not detached. -1 when the tree cannot be read.
    int scan();
    // Removes the live modem with that USB id. 0, or 1 when there is none.
    int remove_modem(std::string_view usb_id);

    // ubus_manager
    ubus_context *bus() override { return &conn_.ctx; }
    ubus_manager_object &bus_object() override { return object_; }
    void fill_stats(ujson &out) override;
    void dump_log_buffer() override;
    int attach(const char *usb_id) override;
    int deattach(const char *usb_id) override;
    std::string get_free_name(ubus_modem &mdm) override;

    // One run of the watcher at time now (seconds) and now_ms (milliseconds
    // on request_clock_ms()): probes modems silent for silence_limit, answers
    // and drops expired requests.
    void watch(int64_t now, int64_t now_ms);

    size_t modem_count() const { return modems_.size(); }

  private:
    struct live_modem {
        std::string usb_id;
        std::string usb_ids;
        board_modem board;
        std::unique_ptr<modem_instance> mdm;
    };
    // What a detached modem leaves behind until it is attached again.
    struct detached_modem {
        std::string usb_id;
        std::string usb_ids;
    };
    struct event_handler {
        ubus_event_handler ev{};
        modem_manager *owner = nullptr;
    };

    explicit modem_manager(const cmm_timing &timing);

    live_modem *find(std::string_view usb_id);
    int register_event(event_handler &h, const char *name, ubus_event_handler_t cb);
    void check_last_activity(live_modem &m, int64_t now);
    void check_req_timeout(live_modem &m, int64_t now_ms);
    void expire_request(live_modem &m, request *req, request_expiry kind);

    static void __watcher_cb(uloop_timeout *t);
    static void __modem_added(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg);
    static void __modem_removed(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg);

    const cmm_timing timing_;
    ubus_auto_conn conn_{};
    std::string socket_path_;
    bool connected_ = false;
    ubus_manager_object object_;
    std::list<live_modem> modems_;
    std::list<detached_modem> detached_;
    owned_timeout<modem_manager> watcher_;
    bool compress_ = false;
    uint32_t blocked_ = 0;
    event_handler added_;
    event_handler removed_;
};
