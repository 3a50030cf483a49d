#include "core/modem_instance.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "wwan/ubox.h"

#include "comm/parser_manager.h"
#include "core/modem_driver.h"
#include "core/modem_info.h"
#include "core/network_manager.h"
#include "core/sim_config.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

void copy_port(char *dst, size_t size, const char *src)
{
    std::memset(dst, 0, size);
    if (src)
        std::strncpy(dst, src, size - 1);
}

// Sends reply (or an "Unknown error" answer when reply is null) to a deferred
// call and completes it.
void complete_deferred(ubus_context *bus, ubus_request_data &req, const ujson *reply)
{
    if (!bus)
        return;
    std::unique_ptr<ujson> error;
    if (!reply && (error = ujson::create())) {
        error->add_int("errno", 1);
        error->add_string("error", act_status_str(1));
        reply = error.get();
    }
    if (reply)
        ubus_send_reply(bus, &req, reply->get_blobmsg());
    ubus_complete_deferred_request(bus, &req, 0);
}

} // namespace

// --- pending bus calls ----------------------------------------------------------

pending_request::~pending_request()
{
    if (armed_)
        complete_deferred(bus_, req_, nullptr);
}

ubus_request_data pending_request::release()
{
    armed_ = false;
    return req_;
}

// --- life cycle -----------------------------------------------------------------

std::unique_ptr<modem_instance> modem_instance::modem_create(const cmm_timing &timing)
{
    std::unique_ptr<modem_instance> mdm(new (std::nothrow) modem_instance());
    if (!mdm)
        return nullptr;
    mdm->parser_ = parser::create();
    if (!mdm->parser_) {
        LOG_ERROR("[MODEM] Failed to create parser manager for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
        return nullptr;
    }
    mdm->cmm_ = comm_manager::create(timing);
    if (!mdm->cmm_) {
        LOG_ERROR("[MODEM] Failed to create comm manager for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
        return nullptr;
    }
    mdm->cache_ = cache_manager::create();
    if (!mdm->cache_) {
        LOG_ERROR("[MODEM] Failed to create cache manager for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
        return nullptr;
    }
    mdm->evtmgr_ = evtmgr::create();
    if (!mdm->evtmgr_) {
        LOG_ERROR("[MODEM] Failed to create event manager for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
        return nullptr;
    }
    mdm->asyncmgr_ = asyncmgr::create();
    if (!mdm->asyncmgr_)
        LOG_ERROR("[MODEM] Failed to create async call manager for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());

    mdm->set_cache(mdm->cache_.get());
    mdm->set_info(&g_midata[0]);
    mdm->hang_timer_.owner = mdm.get();
    mdm->hang_timer_.timeout.cb = __hang_cb;
    mdm->periodic_timer_.owner = mdm.get();
    mdm->periodic_timer_.timeout.cb = __periodic_cb;
    mdm->cache_timer_.owner = mdm.get();
    mdm->cache_timer_.timeout.cb = __cache_update_cb;
    return mdm;
}

modem_instance::~modem_instance()
{
    if (bus_object_.name) {
        auto payload = ujson::create();
        if (!payload) {
            LOG_ERROR("[MODEM] uJson memory allocation error!\n");
        } else {
            payload->add_string("object_name", bus_object_.name);
            payload->add_int("object_id", static_cast<int32_t>(object_id_));
            payload->add_string("modem_id", id());
            if (ubus_broadcast_event(*this, "gsm.modem_gone", payload.get(), false))
                LOG_ERROR("[MODEM] Failed to send gone event for `%s [%s]` modem!\n", id(), vid_pid());
        }
    }
    uloop_timeout_cancel(&periodic_timer_.timeout);
    uloop_timeout_cancel(&cache_timer_.timeout);
    uloop_timeout_cancel(&hang_timer_.timeout);

    // The channel goes before the queue: it may still point at a request.
    parser_.reset();
    cmm_.reset();
    cache_.reset();
    set_cache(nullptr);
    evtmgr_.reset();
    asyncmgr_.reset();

    // Callers still queued are answered while the object is on the bus.
    while (request *req = get_request())
        clean_request(req, 1);
    if (bus_object_.name && bus_)
        ubus_remove_object(bus_, &bus_object_.obj);
}

int modem_instance::init(const char *id, const char *vid_pid, const char *port, const char *gps_port,
                         const char *data_port, uint32_t baud, ubus_context *bus, ubus_manager *mgr, bool compress)
{
    set_identity(id ? id : "", vid_pid ? vid_pid : "");
    copy_port(port_, sizeof(port_), port);
    copy_port(gps_port_, sizeof(gps_port_), gps_port);
    copy_port(data_port_, sizeof(data_port_), data_port);
    baud_ = baud;
    bus_ = bus;
    mgr_ = mgr;

    if (cmm_->init(this, compress ? 1 : 0)) {
        LOG_ERROR("[MODEM] Failed to initialize comm manager for `%s [%s]` modem!\n", this->id(), this->vid_pid());
        return 1;
    }
    if (evtmgr_->init(*this)) {
        LOG_ERROR("[MODEM] Failed to initialize event manager for `%s [%s]` modem!\n", this->id(), this->vid_pid());
        return 1;
    }
    if (asyncmgr_ && asyncmgr_->init(*this)) {
        LOG_ERROR("[MODEM] Failed to initialize async manager for `%s [%s]` modem!\n", this->id(), this->vid_pid());
        return 1;
    }
    return 0;
}

int modem_instance::re_init()
{
    return cmm_->re_init();
}

int modem_instance::sim_config_init(bool builtin, bool primary)
{
    if (builtin) {
        sim_slots_ = 0;
        sim_ = sim_config_create(primary ? 1 : 2, sim_slots_);
    } else {
        sim_slots_ = 1;
        sim_ = sim_config_create_placeholder();
    }
    if (!sim_) {
        std::printf("Failed to create sim config for `%s [%s]` modem!\n", id(), vid_pid());
        std::fflush(stdout);
        return 1;
    }
    return 0;
}

// --- request queue ----------------------------------------------------------------

void modem_instance::__new_request(request *req)
{
    req->number = ++sequence_;
    list_add_tail(&req->list, &queue_);
    cmm_->ping();
}

int modem_instance::new_request(uint32_t action, ubus_request_data *req, const char *command, uint32_t length,
                                uint32_t timeout_ms, void *extra, request_source *source)
{
    request *r = create_request(action, nullptr, nullptr, command, length, timeout_ms, extra);
    if (!r || !req || !bus_) {
        ::clean_request(r, 0);
        LOG_ERROR("[MODEM] Failed to create request for `%s [%s]` modem request!\n", id(), vid_pid());
        return 1;
    }
    // From here the queue owns the caller: the answer, an error or the
    // time-out completes it, and cleaning the request answers it if nothing
    // else did.
    ubus_defer_request(bus_, req, &r->req_data);
    r->has_req_data = true;
    if (source)
        r->source = std::move(*source);
    __new_request(r);
    LOG_DEBUG("[MODEM] New request (%s) for `%s [%s]` modem (%llu)\n", "Function", id(), vid_pid(),
              static_cast<unsigned long long>(r->number));
    return 0;
}

int modem_instance::new_internal_request(uint32_t action, async_request_cb cb, void *ctx, const char *command,
                                         uint32_t length, uint32_t timeout_ms, void *extra)
{
    // Callers log the failure in their own words.
    request *r = create_request(action, cb, ctx, command, length, timeout_ms, extra);
    if (!r)
        return 1;
    __new_request(r);
    LOG_DEBUG("[MODEM] New internal request (%s) for `%s [%s]` modem (%llu)\n", "Function", id(), vid_pid(),
              static_cast<unsigned long long>(r->number));
    return 0;
}

request *modem_instance::get_request()
{
    return list_empty(&queue_) ? nullptr : list_first_entry(&queue_, request, list);
}

size_t modem_instance::get_request_count() const
{
    size_t n = 0;
    for (const list_head *p = queue_.next; p != &queue_; p = p->next)
        n++;
    return n;
}

// A bus caller still waiting gets an error; exactly once, since the flag goes
// down with the answer.
void modem_instance::answer_failed(request *req)
{
    if (!req->has_req_data)
        return;
    req->has_req_data = false;
    auto reply = ujson::create();
    if (reply) {
        notify_error(&req->req_data, 1, *reply);
        if (bus_)
            ubus_complete_deferred_request(bus_, &req->req_data, 0);
    } else {
        complete_deferred(bus_, req->req_data, nullptr);
    }
}

void modem_instance::clean_request(request *req, int free_extra)
{
    if (!req)
        return;
    answer_failed(req);
    // A scan that ended without its answer (expired, failed, dropped) still
    // gives the data interfaces back.
    if (req->action == ACT_OPERATOR_SCAN && scan_ifaces_)
        interface_action(IFACE_ACTION_UP);
    ::clean_request(req, free_extra);
}

void modem_instance::finish_request(request *req, int failed)
{
    if (failed && req->callback) {
        // No "response": the callback takes it as no answer.
        if (auto reply = ujson::create()) {
            reply->add_int("errno", 1);
            reply->add_string("error", act_status_str(1));
            request_cb cb = req->callback;
            req->callback = nullptr;
            cb(this, req->action, reply.get(), req->context);
        }
    }
    clean_request(req, 1);
}

void modem_instance::notify_error(ubus_request_data *req, int status, ujson &reply)
{
    reply.add_int("errno", status);
    reply.add_string("error", act_status_str(static_cast<uint32_t>(status)));
    if (bus_ && req)
        ubus_send_reply(bus_, req, reply.get_blobmsg());
}

bool modem_instance::is_busy() const
{
    return cmm_ && cmm_->busy();
}

bool modem_instance::fota() const
{
    return cmm_ && (cmm_->paused() || cmm_->fota());
}

uint32_t modem_instance::get_current_state()
{
    if (fota())
        return MODEM_STATE_FOTA;
    request *head = get_request();
    if (!head)
        return MODEM_STATE_IDLE;
    switch (head->action) {
    case ACT_SEND_SMS:
        return MODEM_STATE_SENDING_SMS;
    case ACT_SET_OPER_SELECTION:
        return MODEM_STATE_CONNECTING;
    case ACT_OPERATOR_SCAN:
        return MODEM_STATE_SCANNING;
    default:
        return MODEM_STATE_EXECUTING;
    }
}

// --- pending answers and URCs ------------------------------------------------------

std::unique_ptr<pending_request> modem_instance::set_pending_request(void *value)
{
    request *current = get_request();
    if (!current || !current->has_req_data) {
        LOG_ERROR("[MODEM] Unable to set pending request because current is invalid for `%s [%s]` modem!\n", id(),
                  vid_pid());
        return nullptr;
    }
    std::unique_ptr<pending_request> pending(new (std::nothrow) pending_request(bus_, current->req_data, value));
    if (!pending) {
        LOG_ERROR("[MODEM] Pending request memory allocation error for`%s [%s]` modem!\n", id(), vid_pid());
        return nullptr;
    }
    // The record answers the call now; the request must not.
    current->has_req_data = false;
    return pending;
}

void modem_instance::finalize_pending_request(std::unique_ptr<pending_request> pending, ujson &result)
{
    if (!pending) {
        LOG_ERROR("[MODEM] Unable to finalize pending request because current is invalid for `%s [%s]` modem!\n", id(),
                  vid_pid());
        return;
    }
    ubus_request_data req = pending->release();
    complete_deferred(bus_, req, &result);
}

int modem_instance::refresh(uint32_t action, const ujson *args)
{
    if (paused() || !check_func(action))
        return 0;
    return query(action, nullptr, args);
}

// One list per modem: a second scan queued behind the first keeps the list
// of the first, so whatever the first took down comes back up.
int modem_instance::interface_action(int action)
{
    if (action == IFACE_ACTION_UP) {
        if (!scan_ifaces_)
            return 0;
        int ret = modem_interface_action(bus_, *scan_ifaces_, IFACE_ACTION_UP);
        scan_ifaces_.reset();
        return ret;
    }
    if (!scan_ifaces_)
        scan_ifaces_ = std::make_unique<op_scan_storage>(id());
    return modem_interface_action(bus_, *scan_ifaces_, static_cast<iface_action>(action));
}

void modem_instance::set_last_active_urc(const char *name)
{
    if (!name) {
        last_urc_.clear();
        return;
    }
    last_urc_ = name;
    last_urc_ += ": ";
}

void modem_instance::release_pending_request()
{
    set_last_active_urc(nullptr);
}

// --- events and the async manager --------------------------------------------------

void modem_instance::new_event(uint32_t event, const void *data)
{
    if (evtmgr_)
        evtmgr_->push(*this, event, data, false);
}

void modem_instance::force_event(uint32_t event, const void *data)
{
    if (evtmgr_)
        evtmgr_->push(*this, event, data, true);
}

int modem_instance::notify_event(const char *name, ujson &payload, bool hotplug)
{
    if (!bus_object_.name)
        return 1;
    return ubus_notify_event(*this, &bus_object_.obj, name, &payload, -1, hotplug);
}

int modem_instance::broadcast(const char *name, const ujson &payload)
{
    if (!bus_)
        return 1;
    return ubus_send_event(bus_, name, payload.get_blobmsg());
}

bool modem_instance::check_func(uint32_t action) const
{
    return driver_ && modem_driver_check_func(driver_, action);
}

int modem_instance::invoke_func(uint32_t action, ujson *args, async_command &cmd)
{
    request scratch;
    int status = modem_driver_invoke_func(driver_, this, action, 0, args, &scratch);
    // A failed build queues nothing: what it left behind goes here.
    if (status == ACT_STATUS_OK && scratch.command)
        cmd.text.assign(scratch.command, scratch.length);
    cmd.extra = status == ACT_STATUS_OK ? scratch.extra : nullptr;
    if (status != ACT_STATUS_OK)
        std::free(scratch.extra);
    std::free(scratch.command);
    return status;
}

int modem_instance::async_push(uint32_t id, const ujson &args, uint32_t timeout, uint32_t action)
{
    return asyncmgr_ ? asyncmgr_->push(*this, id, &args, timeout, action) : 1;
}

uint32_t modem_instance::default_modem_func() const
{
    return info() ? info()->default_func : 0;
}

// --- statistics ----------------------------------------------------------------------

void modem_instance::fill_stats(ujson &out)
{
    out.add_string("modem_id", id());
    out.add_string("vid_pid", vid_pid());
    out.add_string("object_name", object_name());
    out.add_string("model", modem_info_name(info()));
    out.add_string("driver", driver_ ? driver_->name : "");
    out.add_string("port", port_);
    out.add_int("baudrate", static_cast<int32_t>(baud_));
    uint32_t state = get_current_state();
    out.add_int("state_id", static_cast<int32_t>(state));
    out.add_string("state", modem_state_str(state));
    out.add_int("ping_state", static_cast<int32_t>(ping_state_));
    out.add_long("last_activity", last_activity_);
    out.add_int("timeout_count", static_cast<int32_t>(timeout_count_));
    out.add_int("request_count", static_cast<int32_t>(get_request_count()));
    out.add_long("request_seq", static_cast<int64_t>(sequence_));

    parser_stats ps = parser_->stats();
    void *t = out.open_table("parser_stats");
    out.add_int("c_grow_cnt", static_cast<int32_t>(ps.c_grow_cnt));
    out.add_int("c_len", static_cast<int32_t>(ps.c_len));
    out.add_int("c_cap", static_cast<int32_t>(ps.c_cap));
    out.add_int("u_grow_cnt", static_cast<int32_t>(ps.u_grow_cnt));
    out.add_int("u_len", static_cast<int32_t>(ps.u_len));
    out.add_int("u_cap", static_cast<int32_t>(ps.u_cap));
    out.add_int("h_grow_cnt", static_cast<int32_t>(ps.h_grow_cnt));
    out.add_int("h_len", static_cast<int32_t>(ps.h_len));
    out.add_int("h_cap", static_cast<int32_t>(ps.h_cap));
    out.add_int("h_rst_cnt", static_cast<int32_t>(ps.h_rst_cnt));
    std::string preview(ps.h_rst_preview);
    out.add_string("h_rst_preview", preview.c_str());
    out.close_table(t);

    cmm_->fill_stats(out);
    cache_->fill_stats(out);
    evtmgr_->fill_stats(out);
    if (sim_)
        sim_->fill_stats(out, sim_slots_);
}
