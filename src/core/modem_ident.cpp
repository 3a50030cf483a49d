// Identification, going live and the periodic polling of a modem.
#include <cstdlib>
#include <ctime>

#include "core/modem_driver.h"
#include "core/modem_info.h"
#include "core/modem_instance.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

// Re-issues of a start-up query that got no answer. One pair for the whole
// process, shared by every modem, reset by a good answer.
uint32_t g_imei_retries = 0;
uint32_t g_capabilities_retries = 0;
constexpr uint32_t max_retries = 3;

const uint32_t startup_queries[] = {ACT_GET_IMEI,      ACT_GET_SN,    ACT_GET_CAPABILITIES,
                                    ACT_GET_PIN_STATE, ACT_GET_BANDS, ACT_GET_NET_MODE_TECH,
                                    ACT_GET_SIM_SLOT};
const uint32_t periodic_queries[] = {ACT_GET_PIN_STATE, ACT_GET_PIN_COUNT, ACT_GET_SIGNAL_QRY, ACT_GET_SERVICE_PROVIDER,
                                     ACT_GET_IMSI};
const uint32_t cache_queries[] = {ACT_GET_NETWORK_INFO, ACT_GET_NET_REG_STAT_ALL, ACT_GET_CA_INFO, ACT_GET_CELL_INFO,
                                  ACT_GET_TEMPERATURE};

const char *text_of(const ujson *reply, const char *key)
{
    return reply && !reply->exists("errno") && reply->exists(key) ? reply->get_string(key) : nullptr;
}

} // namespace

void modem_instance::choose_driver()
{
    driver_ = modem_driver_find(info()->vendor, info()->model, info()->variant);
}

// Builds the action's command and queues it as the modem's own request.
int modem_instance::query(uint32_t action, async_request_cb cb, const ujson *args)
{
    request scratch;
    // Build phases only read their arguments.
    int status = modem_driver_invoke_func(driver_, this, action, 0, const_cast<ujson *>(args), &scratch);
    if (status != ACT_STATUS_OK) {
        LOG_ERROR("[MODEM] An error (%d) occurred: %s for `%s [%s]` modem!\n", status,
                  act_status_str(static_cast<uint32_t>(status)), id(), vid_pid());
        std::free(scratch.command);
        std::free(scratch.extra);
        return 1;
    }
    int failed = new_internal_request(action, cb, cb ? this : nullptr, scratch.command, scratch.length,
                                      query_timeout_ms, scratch.extra);
    std::free(scratch.command);
    if (failed) {
        std::free(scratch.extra);
        LOG_ERROR("[MODEM] Failed to create new internal request for `%s [%s]` modem!\n", id(), vid_pid());
        return 1;
    }
    return 0;
}

// Queues the supported actions in order; stops at the first failure or as
// soon as the modem reports a firmware update.
int modem_instance::run_queries(const uint32_t *actions, size_t n, async_request_cb cb)
{
    for (size_t i = 0; i < n; i++) {
        if (fota())
            return 0;
        if (!check_func(actions[i]))
            continue;
        if (query(actions[i], cb))
            return 1;
    }
    return 0;
}

int modem_instance::driver_init()
{
    const modem_info *row = info();
    modem_info_identify(row, vid_pid());
    set_info(row);
    LOG_DEBUG("[MODEM] Modem %s [%s] 1st identification: %s\n", id(), vid_pid(), modem_info_model_name(row));
    choose_driver();

    if (cmm_->fota()) {
        LOG_DEBUG("[MODEM] Selected driver %s for modem %s [%s]\n", driver_->name, id(), vid_pid());
        if (ubus_init_modem(*mgr_, *this)) {
            LOG_ERROR("[MODEM] Failed to initialize ubus subsystem for `%s [%s]` modem!\n", id(), vid_pid());
            return 1;
        }
        object_id_ = bus_object_.obj.id;
        cmm_->set_paused(true);
        return 0;
    }
    if (check_func(ACT_GET_FIRMWARE))
        return query(ACT_GET_FIRMWARE, on_data_recv);
    return 0;
}

void modem_instance::on_data_recv(modem *mdm, uint32_t action, ujson *reply, void *)
{
    modem_instance &self = of(mdm);
    switch (action) {
    case ACT_GET_FIRMWARE:
        self.on_firmware(reply);
        break;
    case ACT_GET_SN:
        if (!self.live_)
            self.on_serial(reply);
        break;
    case ACT_GET_IMEI:
        if (const char *imei = text_of(reply, "imei")) {
            g_imei_retries = 0;
            self.cache_->update_item("imei", CACHE_DATA_STRING, imei, static_cast<uint32_t>(std::strlen(imei) + 1));
        } else if (g_imei_retries++ < max_retries) {
            self.query(ACT_GET_IMEI, on_data_recv);
        }
        break;
    case ACT_GET_CAPABILITIES:
        if (reply && !reply->exists("errno") && reply->len()) {
            g_capabilities_retries = 0;
            self.cache_->update_item("capabilities", CACHE_DATA_UJSON, reply, 0);
        } else if (g_capabilities_retries++ < max_retries) {
            self.query(ACT_GET_CAPABILITIES, on_data_recv);
        }
        break;
    default:
        break;
    }
}

void modem_instance::on_firmware(ujson *reply)
{
    const char *firmware = text_of(reply, "firmware");
    if (!firmware) {
        query(ACT_GET_FIRMWARE, on_data_recv);
        return;
    }
    LOG_DEBUG("[MODEM] Model Firmware => %s\n", firmware);
    const modem_info *row = info();
    modem_info_identify_ex(row, firmware, row->type == MODEM_TYPE_SLM828G ? MODEM_TYPE_SLM828G : 0);
    set_info(row);
    LOG_DEBUG("[MODEM] Modem %s [%s] 2nd identification: %s\n", id(), vid_pid(), modem_info_model_name(row));
    choose_driver();
    cache_->update_item("firmware", CACHE_DATA_STRING, firmware, static_cast<uint32_t>(std::strlen(firmware) + 1));

    if (row->type == MODEM_TYPE_SLM750 || row->type == MODEM_TYPE_SLM770) {
        if (check_func(ACT_GET_SN))
            query(ACT_GET_SN, on_data_recv);
        return;
    }
    LOG_DEBUG("[MODEM] Selected driver %s for modem %s [%s]\n", driver_->name, id(), vid_pid());
    handle_data_recv_init();
}

void modem_instance::on_serial(ujson *reply)
{
    const char *serial = text_of(reply, "serial");
    if (!serial) {
        query(ACT_GET_SN, on_data_recv);
        return;
    }
    LOG_DEBUG("[MODEM] Model Serial => %s\n", serial);
    const modem_info *row = info();
    modem_info_identify_serial(row, serial, row->type);
    set_info(row);
    LOG_DEBUG("[MODEM] Modem %s [%s] 3rd identification: %s\n", id(), vid_pid(), modem_info_model_name(row));
    choose_driver();
    handle_data_recv_init();
}

void modem_instance::handle_data_recv_init()
{
    if (!bus_object_.name) {
        if (!mgr_ || ubus_init_modem(*mgr_, *this)) {
            LOG_ERROR("[MODEM] Failed to initialize ubus subsystem for `%s [%s]` modem!\n", id(), vid_pid());
            // Identification starts over and so retries the registration.
            query(ACT_GET_FIRMWARE, on_data_recv);
            return;
        }
        object_id_ = bus_object_.obj.id;
    }
    if (cmm_->avp_init())
        LOG_ERROR("[MODEM] Failed to initialize auxiliary virtual port for `%s [%s]` modem!\n", id(), vid_pid());
    live_ = true;
    live_features_ = info()->features;
    uloop_timeout_set(&periodic_timer_.timeout, periodic_ms);
    uloop_timeout_set(&cache_timer_.timeout, cache_update_ms);
    if (!fota())
        run_queries(startup_queries, std::size(startup_queries), on_data_recv);
    notify_new_modem();
}

int modem_instance::notify_new_modem()
{
    if (!mgr_ || !bus_object_.name)
        return 1;
    auto payload = ujson::create();
    if (!payload) {
        LOG_ERROR("[MODEM] uJson memory allocation error!\n");
        return 1;
    }
    payload->add_string("object_name", bus_object_.name);
    payload->add_int("object_id", static_cast<int32_t>(object_id_));
    return ubus_notify_event(*this, &mgr_->bus_object().obj, "gsm.new_modem", payload.get(), 2000, true);
}

// --- timers ----------------------------------------------------------------------

// A long-running command (operator scan, file transfer) is waiting or
// executing: polling would only queue up behind it.
bool modem_instance::long_request_waiting()
{
    request *head = get_request();
    return head && head->timeout > query_timeout_ms;
}

void modem_instance::__periodic_cb(uloop_timeout *t)
{
    modem_instance &self = *owned_timeout<modem_instance>::of(t);
    LOG_DEBUG("[MODEM] Running periodic work for `%s [%s]` modem\n", self.id(), self.vid_pid());
    uloop_timeout_set(t, periodic_ms);
    if (self.long_request_waiting() || self.fota())
        return;
    self.run_queries(periodic_queries, std::size(periodic_queries), nullptr);
}

void modem_instance::__cache_update_cb(uloop_timeout *t)
{
    modem_instance &self = *owned_timeout<modem_instance>::of(t);
    LOG_DEBUG("[MODEM] Running cache update work for `%s [%s]` modem\n", self.id(), self.vid_pid());
    uloop_timeout_set(t, cache_update_ms);
    if (self.long_request_waiting())
        return;

    if (self.cache_->get_item("operator_scan")) {
        const cache_item *last = self.cache_->get_item("last_scan");
        int64_t when = last && last->text() ? std::atoll(last->text()) : 0;
        if (time(nullptr) - when > operator_scan_max_age) {
            LOG_DEBUG("[MODEM] Operator cache is older than %ds, resetting\n", static_cast<int>(operator_scan_max_age));
            self.cache_->remove_item_name("operator_scan");
        }
    }
    self.run_queries(cache_queries, std::size(cache_queries), nullptr);
}
