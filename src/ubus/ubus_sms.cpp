// SMS methods: reporting, mode, sending, reading, deleting and storage.
// One row per method in registration order: name, action, time-out in
// seconds, arguments.
#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace {

const ubus_catalogue_row sms_methods[] = {
    {"set_sms_evt_rep_cfg", ACT_SET_SMS_EVT_REP_CFG, 10,
     {{"mode", UBUS_INT32},
      {"mt", UBUS_INT32},
      {"bm", UBUS_INT32},
      {"ds", UBUS_INT32},
      {"bfr", UBUS_INT32}}},
    {"get_sms_evt_rep_cfg", ACT_GET_SMS_EVT_REP_CFG, 10},
    {"set_sms_mode", ACT_SET_SMS_MODE, 10, {{"mode", UBUS_TEXT}}},
    {"get_sms_mode", ACT_GET_SMS_MODE, 10},
    {"send_sms", ACT_SEND_SMS, 160,
     {{"number", UBUS_TEXT},
      {"text", UBUS_TEXT},
      {"validate", UBUS_BOOL, UBUS_OPT},
      {"async", UBUS_BOOL, UBUS_OPT}}},
    // Introspection lists only `index`; `single` and `strip` are accepted all the same.
    {"read_sms", ACT_READ_SMS, 10,
     {{"index", UBUS_INT32},
      {"single", UBUS_BOOL, UBUS_OPT},
      {"strip", UBUS_BOOL, UBUS_OPT}}, 1},
    // Introspection lists only `index`; `single` is accepted all the same.
    {"delete_sms", ACT_DELETE_SMS, 15, {{"index", UBUS_INT32}, {"single", UBUS_BOOL, UBUS_OPT}}, 1},
    {"set_ltesms_format", ACT_SET_LTE_SMS_FORMAT, 10, {{"mode", UBUS_TEXT, UBUS_OPT}}},
    {"get_ltesms_format", ACT_GET_LTE_SMS_FORMAT, 10},
    {"set_msg_storage", ACT_SET_MSG_STORAGE_LOC, 10, {{"mem1", UBUS_TEXT}, {"mem2", UBUS_TEXT}, {"mem3", UBUS_TEXT}}},
    // Introspection lists no argument; `full` is accepted all the same.
    {"get_msg_storage", ACT_GET_MSG_STORAGE_LOC, 10, {{"full", UBUS_BOOL, UBUS_OPT}}, 0},
};

} // namespace

int ubus_sms_init()
{
    return ubus_register_catalogue(sms_methods);
}
