// SIM changed (another slot, another card): the operator scan no longer
// applies, and the system hears of it.
#include "events/events.h"

#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

void evt_sim_cb(evt_modem &mdm, uint32_t, void *value)
{
    evt_drop(mdm, {"operator_scan"});
    auto payload = ujson::create();
    if (!payload) {
        LOG_ERROR("uJson memory allocation error!\n");
        return;
    }
    payload->add_int("sim", *static_cast<const int32_t *>(value));
    payload->add_string("id", mdm.id());
    if (mdm.broadcast("sim.changed", *payload))
        LOG_ERROR("Failed to send ubus event for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
}

} // namespace

int evt_sim_init()
{
    return event_register({EVT_SIM_CHANGE, evt_name_str(EVT_SIM_CHANGE), CACHE_DATA_INT32, evt_sim_cb});
}
