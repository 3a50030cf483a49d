// System events: SMS arrival and sending, USSD answers, firmware update,
// calls, SIM status, file upload and band changes.
#include "events/events.h"

#include "wwan/ubox.h"

#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"
#include "util/ujson.h"

namespace
{

// The event's data names cached values it makes stale. A number event
// (the SIM status) names none.
void evt_use_cb(evt_modem &mdm, uint32_t id, void *value)
{
    const evt_desc *desc = event_find(id);
    cache_manager *cache = mdm.cache();
    if (!cache || !value || !desc || desc->type != CACHE_DATA_UJSON)
        return;
    blob_attr *root = static_cast<ujson *>(value)->get_blobmsg();
    if (!root)
        return;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, root, rem) cache->remove_item_name(blobmsg_name(cur));
}

void evt_bcg_cb(evt_modem &mdm, uint32_t, void *)
{
    evt_drop(mdm, {"rssi_value", "rscp_value", "ecio_value", "rsrp_value", "sinr_value", "rsrq_value", "ber_value",
                   "band_str", "band_id"});
}

} // namespace

int evt_sys_init()
{
    int failed = 0;
    auto reg = [&](uint32_t id, uint32_t type, evt_cb cb) {
        failed |= event_register({id, evt_name_str(id), type, cb});
    };
    reg(EVT_SMS_INDEX, CACHE_DATA_INT32, nullptr);
    reg(EVT_SND_SMS, CACHE_DATA_UJSON, nullptr);
    reg(EVT_SERVICE_DATA, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_FOTA_STATE, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_CLIP, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_SIM_STATUS, CACHE_DATA_INT32, evt_use_cb);
    reg(EVT_FILE_UPLOAD, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_RING, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_NO_CARRIER, CACHE_DATA_UJSON, evt_use_cb);
    reg(EVT_BAND_CHANGE, CACHE_DATA_UJSON, evt_bcg_cb);
    return failed;
}
