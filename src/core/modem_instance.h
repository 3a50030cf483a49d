// The running modem: owns the modem's parser, command channel, value cache,
// event and async managers, its request queue, its timers and its bus object;
// refers to its driver record and its row of the information table. It
// identifies the model in up to three steps, goes live on the bus, polls the
// modem on timers and reports a modem that stops answering.
//
// Driver functions receive it as the `modem` record it derives from.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "wwan/ubox.h"
#include <libubus.h>

#include "comm/cmm_modem.h"
#include "comm/comm_manager.h"
#include "comm/request.h"
#include "core/modem.h"
#include "ubus/ubus_modem.h"
#include "util/async_handler.h"
#include "util/event_handler.h"

class cache_manager;
class parser;
class sim_config;
class op_scan_storage;

// States reported by get_current_state (modem_state_str).
enum modem_state : uint32_t {
    MODEM_STATE_IDLE = 1,
    MODEM_STATE_SENDING_SMS = 2,
    MODEM_STATE_CONNECTING = 3,
    MODEM_STATE_SCANNING = 4,
    MODEM_STATE_EXECUTING = 5,
    MODEM_STATE_FOTA = 6,
};

enum modem_ping_state : uint32_t {
    MODEM_PING_ANSWERING = 0,
    MODEM_PING_OUTSTANDING = 1,
    MODEM_PING_HUNG = 2,
};

// A bus call taken off the current request so an action can answer it later
// (the answer comes as a URC). The one way to answer is
// modem_instance::finalize_pending_request; a record dropped unanswered
// answers its caller with "Unknown error", so a deferred call is always
// completed exactly once.
class pending_request
{
  public:
    ~pending_request();
    pending_request(const pending_request &) = delete;
    pending_request &operator=(const pending_request &) = delete;

    void *value() const { return value_; }

  private:
    friend class modem_instance;
    pending_request(ubus_context *bus, const ubus_request_data &req, void *value) : bus_(bus), req_(req), value_(value)
    {
    }
    // Hands the call back; it is no longer this record's to answer.
    ubus_request_data release();

    ubus_context *bus_;
    ubus_request_data req_;
    void *value_;
    bool armed_ = true;
};

class modem_instance final : public modem, public cmm_modem, public evt_modem, public async_modem, public ubus_modem
{
  public:
    static constexpr uint32_t periodic_ms = 5000;
    static constexpr uint32_t cache_update_ms = 10000;
    static constexpr uint32_t hang_watchdog_ms = 5000;
    // Time-out of the modem's own queries; a head request with a longer one
    // holds back the periodic work.
    static constexpr uint32_t query_timeout_ms = 10000;
    static constexpr int64_t operator_scan_max_age = 900;

    // The services are created (not started); null when the parser, channel,
    // cache or event manager cannot be had. A missing async manager is only
    // logged. timing is the channel's set-up and dispatch timing.
    static std::unique_ptr<modem_instance> modem_create(const cmm_timing &timing = {});

    // Announces "gsm.modem_gone" when the modem was on the bus, stops the
    // timers, releases the services, the bus object and every queued request.
    ~modem_instance() override;
    modem_instance(const modem_instance &) = delete;
    modem_instance &operator=(const modem_instance &) = delete;

    // Binds the identity, the ports (gps and data ports may be null), the
    // baud rate, the bus and the manager, and starts the channel (with the
    // traffic log when compress is set), the event and async managers.
    // 0, or 1 when a service cannot be started.
    [[nodiscard]] int init(const char *id, const char *vid_pid, const char *port, const char *gps_port,
                           const char *data_port, uint32_t baud, ubus_context *bus, ubus_manager *mgr, bool compress);
    // First identification by USB ids, then asks for the firmware text.
    int driver_init();
    // Runs the channel's set-up again (after a restart or a hang).
    int re_init();

    // ubus_modem: a request for a bus caller; timeout in ms.
    int new_request(uint32_t action, ubus_request_data *req, const char *command, uint32_t length, uint32_t timeout_ms,
                    void *extra, request_source *source = nullptr) override;
    // async_modem: the daemon's own request; cb(ctx) is called once with the
    // result. timeout in ms.
    int new_internal_request(uint32_t action, async_request_cb cb, void *ctx, const char *command, uint32_t length,
                             uint32_t timeout_ms, void *extra) override;
    request *get_request() override;
    size_t get_request_count() const;
    // Unlinks and frees a request (its extra word when free_extra is set),
    // answering a bus caller or callback still waiting on it as failed.
    void clean_request(request *req, int free_extra);
    void notify_error(ubus_request_data *req, int status, ujson &reply) override;
    bool is_busy() const;
    void fill_stats(ujson &out) override;
    void ping();
    void trigger_hang() override;
    void new_event(uint32_t event, const void *data) override;
    void force_event(uint32_t event, const void *data) override;
    // Takes the current request's bus call so an action can answer it later;
    // null without a current request that has one.
    std::unique_ptr<pending_request> set_pending_request(void *value);
    // Answers the saved call with result and releases the record.
    void finalize_pending_request(std::unique_ptr<pending_request> pending, ujson &result);
    uint32_t get_current_state();
    void set_last_active_urc(const char *name) override;
    // The driver's own follow-up requests: nothing while paused or when the
    // driver lacks the action; else the action's command queued with the
    // query time-out.
    int refresh(uint32_t action, const ujson *args) override;
    // Data interfaces around an operator scan: down (2) records and stops
    // the modem's interfaces that are up, up (1) starts the recorded ones.
    int interface_action(int action) override;
    const sim_config *sim_cfg() const override { return sim_.get(); }
    uint32_t sim_slot_count() const override { return sim_slots_; }
    // SIM slot wiring: builtin modems get the board's slots (primary 1,
    // secondary 2), others a single-slot placeholder. 0, or 1.
    int sim_config_init(bool builtin, bool primary);
    void power_down() override;
    int notify_new_modem();

    uint32_t ping_state() const { return ping_state_; }
    int64_t last_activity() const { return last_activity_; }
    // When the last probe was queued (seconds; 0 for never).
    int64_t last_probe() const { return last_probe_; }
    uint32_t timeout_count() const { return timeout_count_; }
    void set_timeout_count(uint32_t n) { timeout_count_ = n; }
    bool fota() const;
    bool live() const { return live_; }
    comm_manager *cmm() const { return cmm_.get(); }
    sim_config *sim() const { return sim_.get(); }

    // cmm_modem
    const char *id() const override { return modem::id(); }
    const char *vid_pid() const override { return modem::vid_pid(); }
    const char *tty_path() const override { return port_; }
    uint32_t baud_rate() const override { return baud_; }
    const char *object_name() const override { return bus_object_.name ? bus_object_.name : ""; }
    modem *driver_modem() override { return this; }
    const modem_driver *driver() const override { return driver_; }
    parser &response_parser() override { return *parser_; }
    ubus_context *bus() override { return bus_; }
    list_head *request_list() override { return &queue_; }
    void finish_request(request *req, int failed) override;
    void release_pending_request() override;
    void tty_ready() override;
    void input_received() override;
    const char *last_active_urc() const override { return last_urc_.empty() ? nullptr : last_urc_.c_str(); }
    void set_last_response(const char *data, size_t len) override { set_response(data, len); }

    // evt_modem
    cache_manager *cache() override { return cache_.get(); }
    int notify_event(const char *name, ujson &payload, bool hotplug) override;
    // Also the modem's broadcast for its driver.
    int broadcast(const char *name, const ujson &payload) override;

    // async_modem
    bool check_func(uint32_t action) const override;
    int invoke_func(uint32_t action, ujson *args, async_command &cmd) override;

    // ubus_modem
    ubus_modem_object &bus_object() override { return bus_object_; }
    bool paused() const override { return cmm_ && cmm_->paused(); }
    int async_push(uint32_t id, const ujson &args, uint32_t timeout, uint32_t action) override;
    void set_modem_func(uint32_t func) override { modem_func_ = func; }
    uint32_t default_modem_func() const override;

  private:
    modem_instance() = default;

    static modem_instance &of(modem *mdm) { return *static_cast<modem_instance *>(mdm); }

    // Identification and going live.
    void choose_driver();
    int query(uint32_t action, async_request_cb cb, const ujson *args = nullptr);
    int run_queries(const uint32_t *actions, size_t n, async_request_cb cb);
    void handle_data_recv_init();
    static void on_data_recv(modem *mdm, uint32_t action, ujson *reply, void *ctx);
    void on_firmware(ujson *reply);
    void on_serial(ujson *reply);

    // Timers.
    bool long_request_waiting();
    static void __periodic_cb(uloop_timeout *t);
    static void __cache_update_cb(uloop_timeout *t);
    static void __hang_cb(uloop_timeout *t);
    static void on_ping_recv(modem *mdm, uint32_t action, ujson *reply, void *ctx);
    static void on_query_done(modem *mdm, uint32_t action, ujson *reply, void *ctx);

    void __new_request(request *req);
    void answer_failed(request *req);

    std::unique_ptr<parser> parser_;
    std::unique_ptr<comm_manager> cmm_;
    std::unique_ptr<cache_manager> cache_;
    std::unique_ptr<evtmgr> evtmgr_;
    std::unique_ptr<asyncmgr> asyncmgr_;
    std::unique_ptr<sim_config> sim_;
    std::unique_ptr<op_scan_storage> scan_ifaces_; // interfaces an operator scan took down

    char port_[32] = {};
    char gps_port_[32] = {};
    char data_port_[32] = {};
    uint32_t baud_ = 0;
    ubus_context *bus_ = nullptr;
    ubus_manager *mgr_ = nullptr;
    const modem_driver *driver_ = nullptr;
    uint32_t sim_slots_ = 0;
    uint32_t modem_func_ = 0;
    uint32_t live_features_ = 0; // the row's feature word, taken when going live

    list_head queue_ = LIST_HEAD_INIT(queue_);
    uint64_t sequence_ = 0;
    ubus_modem_object bus_object_;
    uint32_t object_id_ = 0;
    bool live_ = false;

    owned_timeout<modem_instance> hang_timer_;
    owned_timeout<modem_instance> periodic_timer_;
    owned_timeout<modem_instance> cache_timer_;
    uint32_t ping_state_ = MODEM_PING_ANSWERING;
    bool probe_queued_ = false; // a probe is in the queue
    int64_t last_activity_ = 0;
    int64_t last_probe_ = 0;
    uint32_t timeout_count_ = 0;
    std::string last_urc_;
};
