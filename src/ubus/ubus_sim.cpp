// SIM methods: PIN and PUK, SIM state and slots, hot-swap and soft
// hot-plug detection.
// One row per method in registration order: name, action, time-out in
// seconds, arguments.
#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace {

const ubus_catalogue_row sim_methods[] = {
    {"set_pin_code", ACT_SET_PIN_CODE, 10, {{"code", UBUS_TEXT}}},
    {"set_puk_code", ACT_SET_PUK_CODE, 10, {{"puk", UBUS_TEXT}, {"pin", UBUS_TEXT}}},
    {"get_pin_state", ACT_GET_PIN_STATE, 10},
    {"get_pin_count", ACT_GET_PIN_COUNT, 10},
    {"get_imsi", ACT_GET_IMSI, 10},
    {"set_sim_state_rep", ACT_SET_SIM_STATE_REP, 10, {{"enabled", UBUS_BOOL}}},
    {"get_sim_stat", ACT_GET_SIM_STAT, 10},
    {"set_sim_initdelay", ACT_SET_MG_SIM_INITDELAY, 10, {{"value", UBUS_INT32}}},
    {"get_sim_initdelay", ACT_GET_MG_SIM_INITDELAY, 10},
    {"set_sim_hotswap", ACT_SET_MG_SIM_HOTSWAP, 10, {{"enabled", UBUS_BOOL}, {"polarity", UBUS_TEXT}}},
    {"get_sim_hotswap", ACT_GET_MG_SIM_HOTSWAP, 10},
    {"set_sim_slot", ACT_SET_SIM_SLOT, 10, {{"index", UBUS_INT32}}},
    {"get_sim_slot", ACT_GET_SIM_SLOT, 10},
    {"change_sim_slot", ACT_CHANGE_SIM_SLOT, 10},
    {"set_sim_soft_hotplug", ACT_SET_SIM_SOFT_HOTPLUG, 10,
     {{"recovery_count", UBUS_INT32},
      {"detect_period", UBUS_INT32},
      {"detect_count", UBUS_INT32}}},
    {"get_sim_soft_hotplug", ACT_GET_SIM_SOFT_HOTPLUG, 10},
};

} // namespace

int ubus_sim_init()
{
    return ubus_register_catalogue(sim_methods);
}
