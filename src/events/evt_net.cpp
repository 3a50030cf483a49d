// Network events: service mode, access technology, signal values,
// registration state, network reject causes, data and modem state.
#include "events/events.h"

#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"

namespace
{

// A new service mode makes the signal values of other technologies stale;
// losing service makes all of them and the registration stale.
void evt_net_mode_cb(evt_modem &mdm, uint32_t id, void *value)
{
    uint32_t mode = *static_cast<const uint32_t *>(value);
    evt_cache_text(mdm, evt_name_str(id), net_mode_str(mode));
    switch (mode) {
    case NET_MODE_LTE:
    case NET_MODE_5G:
    case NET_MODE_CAT_NB:
        evt_drop(mdm, {"rscp_value", "ecio_value"});
        break;
    case NET_MODE_UNKNOWN:
    case NET_MODE_NO_SERVICE:
        evt_drop(mdm, {"rssi_value", "rscp_value", "ecio_value", "rsrp_value", "sinr_value", "rsrq_value", "ber_value",
                       "reg_lac", "reg_tac", "reg_ci", "reg_act", "reg_act_str", "reg_stat", "reg_stat_str"});
        break;
    case NET_MODE_GSM:
        evt_drop(mdm, {"rscp_value", "ecio_value", "rsrp_value", "sinr_value", "rsrq_value"});
        break;
    default:
        evt_drop(mdm, {"rsrp_value", "sinr_value", "rsrq_value"});
        break;
    }
}

void evt_creg_cb(evt_modem &mdm, uint32_t, void *)
{
    evt_refresh(mdm, ACT_GET_VOLTE_READY);
}

} // namespace

int evt_net_init()
{
    int failed = 0;
    auto reg = [&](uint32_t id, uint32_t type, evt_cb cb) {
        failed |= event_register({id, evt_name_str(id), type, cb});
    };
    reg(EVT_SERVICE_MODE, CACHE_DATA_INT32, evt_net_mode_cb);
    reg(EVT_ACT, CACHE_DATA_INT32, nullptr);
    for (uint32_t id = EVT_RSSI; id <= EVT_BER; id++)
        reg(id, CACHE_DATA_INT32, nullptr);
    reg(EVT_NETWORK_STATE, CACHE_DATA_INT32, evt_creg_cb);
    reg(EVT_NETWORK_STATE_PS, CACHE_DATA_INT32, evt_creg_cb);
    reg(EVT_EMM_ERROR, CACHE_DATA_UJSON, nullptr);
    reg(EVT_ESM_ERROR, CACHE_DATA_UJSON, nullptr);
    reg(EVT_NET_DATA_STATE, CACHE_DATA_INT32, nullptr);
    reg(EVT_MODEM_STATE, CACHE_DATA_INT32, nullptr);
    return failed;
}
