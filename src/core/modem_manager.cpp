#include "core/modem_manager.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <new>

#include "wwan/ubox.h"

#include "comm/parser_manager.h"
#include "comm/request.h"
#include "core/modem_instance.h"
#include "events/async.h"
#include "events/events.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "util/log.h"
#include "util/root_path.h"
#include "util/ujson.h"

namespace
{

constexpr uint32_t default_baudrate = 115200;

std::string upper(std::string_view text)
{
    std::string out(text);
    for (char &c : out)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

const char *or_null(const std::string &text)
{
    return text.empty() ? nullptr : text.c_str();
}

enum {
    ADDED_USB_ID,
    ADDED_CMD_PORT,
    ADDED_GPS_PORT,
    ADDED_DATA_PORT,
    ADDED_DATA_SECONDARY,
    ADDED_VIDPID,
    ADDED_BAUDRATE,
    __ADDED_MAX,
};

const blobmsg_policy added_policy[__ADDED_MAX] = {
    {"usb_id", BLOBMSG_TYPE_STRING},    {"cmd_port", BLOBMSG_TYPE_STRING},       {"gps_port", BLOBMSG_TYPE_STRING},
    {"data_port", BLOBMSG_TYPE_STRING}, {"data_secondary", BLOBMSG_TYPE_STRING}, {"vidpid", BLOBMSG_TYPE_STRING},
    {"boudrate", BLOBMSG_TYPE_INT32},
};

const blobmsg_policy removed_policy[] = {{"id", BLOBMSG_TYPE_STRING}};

std::string text_of(blob_attr *attr)
{
    return attr ? blobmsg_get_string(attr) : "";
}

} // namespace

request_expiry check_request_expiry(const request &req, int64_t now_ms)
{
    if (req.sent)
        return req.sent_time + req.timeout < now_ms ? request_expiry::execution : request_expiry::none;
    return req.queued_time + req.timeout2 < now_ms ? request_expiry::queue : request_expiry::none;
}

// --- life cycle -------------------------------------------------------------------

modem_manager::modem_manager(const cmm_timing &timing) : timing_(timing)
{
    object_.mgr = this;
    watcher_.owner = this;
    watcher_.timeout.cb = __watcher_cb;
    added_.owner = this;
    removed_.owner = this;
}

std::unique_ptr<modem_manager> modem_manager::mdm_create(const cmm_timing &timing)
{
    std::unique_ptr<modem_manager> mgr(new (std::nothrow) modem_manager(timing));
    if (mgr)
        uloop_timeout_set(&mgr->watcher_.timeout, watcher_ms);
    return mgr;
}

modem_manager::~modem_manager()
{
    uloop_timeout_cancel(&watcher_.timeout);
    // Modems go while the bus is up: their callers are answered and
    // "gsm.modem_gone" is sent.
    modems_.clear();
    detached_.clear();
    if (connected_) {
        ubus_auto_shutdown(&conn_);
        ubus_cleanup();
    }
    uloop_end();
}

int modem_manager::init(bool compress)
{
    if (start(compress))
        return 1;
    uloop_run();
    return 0;
}

int modem_manager::start(bool compress)
{
    uloop_init();
    compress_ = compress;

    // The socket sits under the root like every other path; unset, the
    // library's own default is used.
    if (!wwan_root().empty()) {
        socket_path_ = wwan_path(wwan_ubus_socket);
        conn_.path = socket_path_.c_str();
    }
    ubus_auto_connect(&conn_);
    connected_ = true;

    auto fail = [this] {
        ubus_auto_shutdown(&conn_);
        ubus_cleanup();
        connected_ = false;
        return 1;
    };
    // Without a connection there is nothing to serve: the service manager
    // starts the daemon again once the bus is up.
    if (conn_.ctx.sock.fd < 0 || ubus_init(*this)) {
        LOG_ERROR("[MODEM_MANAGER] Failed to initialize ubus subsystem!\n");
        return fail();
    }
    if (register_event(added_, added_event, __modem_added) || register_event(removed_, removed_event, __modem_removed)) {
        LOG_ERROR("[MODEM_MANAGER] Failed to register ubus event handlers!\n");
        return fail();
    }
    // What the modems' unsolicited changes set off; registered once, before
    // the first modem exists.
    if (events_init()) {
        LOG_ERROR("[MODEM_MANAGER] Failed to register modem events!\n");
        return fail();
    }
    // The calls a bus caller can hand to a modem's async manager (the SMS send).
    if (async_init()) {
        LOG_ERROR("[MODEM_MANAGER] Failed to register async calls!\n");
        return fail();
    }
    if (scan() < 0) {
        LOG_ERROR("[MODEM_MANAGER] Unable to initialize usb subsystem!\n");
        return fail();
    }
    return 0;
}

int modem_manager::register_event(event_handler &h, const char *name, ubus_event_handler_t cb)
{
    h.ev.cb = cb;
    if (ubus_register_event_handler(bus(), &h.ev, name)) {
        LOG_ERROR("[MODEM_MANAGER] Failed to register %s event handler!\n", name);
        return 1;
    }
    return 0;
}

// --- modems ---------------------------------------------------------------------------

modem_manager::live_modem *modem_manager::find(std::string_view usb_id)
{
    for (live_modem &m : modems_)
        if (m.usb_id == usb_id)
            return &m;
    return nullptr;
}

int modem_manager::new_modem(const modem_descriptor &desc)
{
    const char *id = desc.usb_id.c_str();
    const char *ids = desc.usb_ids.c_str();
    LOG_DEBUG("[MODEM_MANAGER] New modem:\n @USB Port:    %s\n @USB VID PID: %s\n @Baudrate:    %d\n @Path:        %s\n"
              " @Port:        %s\n @GPS_Port:    %s\n @Data_Port:   %s\n\n",
              id, ids, desc.baudrate, desc.cmd_port.c_str(), desc.cmd_port.c_str(), desc.gps_port.c_str(),
              desc.data_port.c_str());

    if (find(desc.usb_id)) {
        LOG_ERROR("[MODEM_MANAGER] Modem `%s [%s]` already exists and is registered!\n", id, ids);
        return 1;
    }
    board_modem board;
    switch (check_board(desc.usb_id, desc.usb_ids, board)) {
    case board_verdict::unreadable:
        return 1;
    case board_verdict::blocked:
        blocked_++;
        return 1;
    case board_verdict::serve:
        break;
    }

    std::unique_ptr<modem_instance> mdm = modem_instance::modem_create(timing_);
    if (!mdm) {
        LOG_ERROR("[MODEM_MANAGER] Failed to create `%s [%s]` modem!\n", id, ids);
        return 1;
    }
    uint32_t baud = desc.baudrate > 0 ? static_cast<uint32_t>(desc.baudrate) : default_baudrate;
    if (mdm->init(id, upper(desc.usb_ids).c_str(), desc.cmd_port.c_str(), or_null(desc.gps_port),
                  or_null(desc.data_port), baud, bus(), this, compress_)) {
        LOG_ERROR("[MODEM_MANAGER] Failed to initialize `%s [%s]` modem!\n", id, ids);
        return 1;
    }
    if (mdm->sim_config_init(board.builtin, board.primary)) {
        LOG_ERROR("[MODEM_MANAGER] Failed to initialize sim config for `%s [%s]` modem!\n", id, ids);
        return 1;
    }
    modems_.push_back({desc.usb_id, desc.usb_ids, board, std::move(mdm)});
    modems_.back().mdm->driver_init();
    return 0;
}

int modem_manager::scan()
{
    std::vector<modem_descriptor> found;
    if (scan_usb_subsystem(found) < 0)
        return -1;
    for (const modem_descriptor &desc : found) {
        // A rescan is for the modems not served yet.
        if (find(desc.usb_id))
            continue;
        bool detached = false;
        for (const detached_modem &d : detached_)
            detached |= d.usb_id == desc.usb_id;
        if (detached) {
            LOG_DEBUG("[MODEM_MANAGER] Modem %s is detached, skipping\n", desc.usb_id.c_str());
            continue;
        }
        if (new_modem(desc))
            LOG_ERROR("[MODEM_MANAGER] Unable to initialize `%s [%s]` modem!\n", desc.usb_id.c_str(),
                      desc.usb_ids.c_str());
    }
    return 0;
}

int modem_manager::remove_modem(std::string_view usb_id)
{
    for (auto it = modems_.begin(); it != modems_.end(); ++it) {
        if (it->usb_id != usb_id)
            continue;
        LOG_DEBUG("[MODEM_MANAGER] Removing modem %s...\n", it->usb_id.c_str());
        // Unlinked first: the destructor's events must not find it listed.
        std::unique_ptr<modem_instance> gone = std::move(it->mdm);
        modems_.erase(it);
        gone.reset();
        return 0;
    }
    return 1;
}

int modem_manager::attach(const char *usb_id)
{
    bool known = false;
    for (auto it = detached_.begin(); it != detached_.end(); ++it) {
        if (it->usb_id == usb_id) {
            detached_.erase(it);
            known = true;
            break;
        }
    }
    // A live modem is created afresh.
    if (!known && remove_modem(usb_id))
        return 1;
    if (scan() < 0) {
        LOG_ERROR("[MODEM_MANAGER] Unable to scan usb subsystem!\n");
        return 1;
    }
    return 0;
}

int modem_manager::deattach(const char *usb_id)
{
    live_modem *m = find(usb_id);
    if (!m)
        return 1;
    if (!m->mdm->live()) {
        LOG_DEBUG("[MODEM_MANAGER] Modem %s is still in set-up mode!\n", usb_id);
        return 1;
    }
    detached_.push_back({m->usb_id, m->usb_ids});
    return remove_modem(usb_id);
}

std::string modem_manager::get_free_name(ubus_modem &mdm)
{
    const live_modem *self = nullptr;
    std::vector<std::string_view> in_use;
    for (live_modem &m : modems_) {
        if (static_cast<ubus_modem *>(m.mdm.get()) == &mdm)
            self = &m;
        else if (m.mdm->bus_object().name)
            in_use.emplace_back(m.mdm->bus_object().name);
    }
    board_modem board = self ? self->board : board_modem{};
    return ::get_free_name(in_use, board.builtin, board.primary).value_or("");
}

void modem_manager::fill_stats(ujson &out)
{
    void *t = out.open_table("mdm_stats");
    out.add_int("num_modems", static_cast<int32_t>(modems_.size()));
    out.add_int("blocked_modems", static_cast<int32_t>(blocked_));
    out.close_table(t);
}

void modem_manager::dump_log_buffer()
{
    for (live_modem &m : modems_)
        m.mdm->cmm()->dump_log_buffer();
}

// --- hot-plug -------------------------------------------------------------------------

void modem_manager::__modem_added(ubus_context *, ubus_event_handler *ev, const char *, blob_attr *msg)
{
    modem_manager &self = *reinterpret_cast<event_handler *>(ev)->owner;
    blob_attr *tb[__ADDED_MAX] = {};
    if (msg)
        blobmsg_parse(added_policy, __ADDED_MAX, tb, blob_data(msg), blob_len(msg));
    // Port paths name terminals under /dev and nothing else.
    auto bad_port = [&tb](int i) { return tb[i] && !text_of(tb[i]).empty() && !is_port_path(text_of(tb[i])); };
    if (!tb[ADDED_USB_ID] || !tb[ADDED_CMD_PORT] || !tb[ADDED_VIDPID] || !is_port_path(text_of(tb[ADDED_CMD_PORT])) ||
        bad_port(ADDED_GPS_PORT) || bad_port(ADDED_DATA_PORT) || bad_port(ADDED_DATA_SECONDARY)) {
        LOG_ERROR("[MODEM_MANAGER] Unable to parse modem added arguments!\n");
        return;
    }
    modem_descriptor desc;
    desc.usb_id = text_of(tb[ADDED_USB_ID]);
    desc.usb_ids = text_of(tb[ADDED_VIDPID]);
    desc.cmd_port = text_of(tb[ADDED_CMD_PORT]);
    desc.gps_port = text_of(tb[ADDED_GPS_PORT]);
    desc.data_port = text_of(tb[ADDED_DATA_PORT]);
    if (desc.data_port.empty())
        desc.data_port = text_of(tb[ADDED_DATA_SECONDARY]);
    desc.baudrate = tb[ADDED_BAUDRATE] ? static_cast<int>(blobmsg_get_u32(tb[ADDED_BAUDRATE])) : 0;
    if (self.new_modem(desc))
        LOG_ERROR("[MODEM_MANAGER] Unable to initialize `%s [%s]` modem!\n", desc.usb_id.c_str(),
                  desc.usb_ids.c_str());
}

void modem_manager::__modem_removed(ubus_context *, ubus_event_handler *ev, const char *, blob_attr *msg)
{
    modem_manager &self = *reinterpret_cast<event_handler *>(ev)->owner;
    blob_attr *tb[1] = {};
    if (msg)
        blobmsg_parse(removed_policy, 1, tb, blob_data(msg), blob_len(msg));
    if (!tb[0]) {
        LOG_ERROR("[MODEM_MANAGER] Unable to parse modem removed arguments!\n");
        return;
    }
    // An unplugged modem is no longer detached either.
    std::string id = text_of(tb[0]);
    self.detached_.remove_if([&id](const detached_modem &d) { return d.usb_id == id; });
    (void)self.remove_modem(id);
}

// --- watcher --------------------------------------------------------------------------

void modem_manager::__watcher_cb(uloop_timeout *t)
{
    owned_timeout<modem_manager>::of(t)->watch(time(nullptr), request_clock_ms());
    uloop_timeout_set(t, watcher_ms);
}

void modem_manager::watch(int64_t now, int64_t now_ms)
{
    for (live_modem &m : modems_) {
        check_last_activity(m, now);
        check_req_timeout(m, now_ms);
    }
}

// A modem silent that long is probed; a hung one again only after as long
// again without a word or a probe (a hung modem that speaks is probed at once
// by the modem itself).
void modem_manager::check_last_activity(live_modem &m, int64_t now)
{
    modem_instance &mdm = *m.mdm;
    if (!mdm.bus_object().name)
        return;
    if (now - std::max(mdm.last_activity(), mdm.last_probe()) < silence_limit)
        return;
    LOG_DEBUG("[MODEM_MANAGER] Periodic modem `%s [%s]` check\n", mdm.id(), mdm.vid_pid());
    mdm.ping();
}

// Every request expires on its time-out, whatever the channel is doing:
// nothing waits for ever on a port that cannot be written or a modem that
// does not answer.
void modem_manager::check_req_timeout(live_modem &m, int64_t now_ms)
{
    modem_instance &mdm = *m.mdm;
    if (list_empty(mdm.request_list()))
        return;
    request *req, *next;
    list_for_each_entry_safe(req, next, mdm.request_list(), list)
    {
        request_expiry kind = check_request_expiry(*req, now_ms);
        if (kind != request_expiry::none)
            expire_request(m, req, kind);
    }
    // The channel resynchronises when its command in flight was dropped.
    mdm.cmm()->clear_busy();
}

void modem_manager::expire_request(live_modem &m, request *req, request_expiry kind)
{
    modem_instance &mdm = *m.mdm;
    bool execution = kind == request_expiry::execution;
    LOG_DEBUG("[MODEM_MANAGER] Warning: request (%llu) reached %s timeout (%ds) on `%s [%s]` modem!\n",
              static_cast<unsigned long long>(req->number), execution ? "execution" : "queue",
              static_cast<int>((execution ? req->timeout : req->timeout2) / 1000), mdm.id(), mdm.vid_pid());

    // A local client's command waits behind everyone else's with a short
    // time-out: its expiry says nothing about the modem.
    if (!req->from_avp) {
        mdm.set_timeout_count(mdm.timeout_count() + 1);
        if (mdm.timeout_count() > max_timeouts) {
            mdm.set_timeout_count(0);
            LOG_ERROR("[MODEM_MANAGER] Multiple request to the modem timeouted, modem may be unresponsive\n");
            mdm.trigger_hang();
        }
    } else {
        mdm.cmm()->answer_expired(req);
    }

    auto result = ujson::create();
    if (!result) {
        LOG_ERROR("[MODEM_MANAGER] Failed to allocate memory for `%s [%s]` modem request timeout!\n", mdm.id(),
                  mdm.vid_pid());
    } else {
        std::string command(req->command ? req->command : "", req->command ? req->length : 0);
        result->add_string("request", command.c_str());
        result->add_string("response", "");
        result->add_int("errno", ACT_STATUS_TIMEOUT);
        result->add_string("error", act_status_str(ACT_STATUS_TIMEOUT));
        if (req->has_req_data) {
            req->has_req_data = false;
            ubus_send_reply(bus(), &req->req_data, result->get_blobmsg());
            ubus_complete_deferred_request(bus(), &req->req_data, 0);
        } else if (req->callback) {
            request_cb cb = req->callback;
            req->callback = nullptr;
            cb(&mdm, req->action, result.get(), req->context);
        }
    }
    mdm.clean_request(req, 1);
}
