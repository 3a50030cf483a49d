// SIM PIN state: what a new state makes stale, and what is read again once
// the SIM is unlocked.
#include "events/events.h"

#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"

namespace
{

void evt_pin_state_cb(evt_modem &mdm, uint32_t id, void *value)
{
    uint32_t state = *static_cast<const uint32_t *>(value);
    if (state < PIN_STATE_OK || state > PIN_STATE_PUK_BLOCKED)
        state = PIN_STATE_UNKNOWN;
    evt_cache_text(mdm, evt_name_str(id), pin_state_str(state));
    evt_drop(mdm, {"iccid", "op_format", "operator"});
    if (state == PIN_STATE_NOT_READY || state == PIN_STATE_NOT_INSERTED || state == PIN_STATE_FAILURE)
        evt_drop(mdm, {"sim_pin1", "sim_puk1", "operator_scan"});
    if (state != PIN_STATE_OK)
        return;
    for (uint32_t action : {ACT_GET_PIN_COUNT, ACT_GET_IMSI, ACT_GET_SMS_MODE, ACT_GET_ICCID}) {
        if (!evt_refresh(mdm, action))
            return;
    }
    // The operator is read again once the SIM is usable.
    uint32_t none = 0;
    mdm.force_event(EVT_OPERATOR, &none);
}

} // namespace

int evt_pin_init()
{
    return event_register({EVT_PIN_STATE, evt_name_str(EVT_PIN_STATE), CACHE_DATA_INT32, evt_pin_state_cb});
}
