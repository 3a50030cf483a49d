// Voice call methods.
// One row per method in registration order: name, action, time-out in
// seconds, arguments.
#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace {

const ubus_catalogue_row call_methods[] = {
    {"send_voice_call", ACT_SEND_VCALL, 10, {{"number", UBUS_TEXT}}},
    {"get_incoming_voice_calls", ACT_GET_INC_VCALLS, 10},
    {"accept_voice_call", ACT_ACCEPT_VCALL, 90},
    {"reject_voice_call", ACT_REJECT_VCALL, 90},
};

} // namespace

int ubus_call_init()
{
    return ubus_register_catalogue(call_methods);
}
