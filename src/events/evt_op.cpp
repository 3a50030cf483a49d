// Operator changed: the name is read again, in its long form.
#include "events/events.h"

#include "ubus/modem_api.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"
#include "util/ujson.h"

namespace
{

void evt_op_cb(evt_modem &mdm, uint32_t, void *)
{
    auto args = ujson::create();
    if (!args)
        return;
    args->add_string("format", "long");
    if (evt_refresh(mdm, ACT_SET_OPER_SELECTION, args.get()))
        evt_refresh(mdm, ACT_GET_OPER_SELECTION);
}

} // namespace

int evt_op_init()
{
    return event_register({EVT_OPERATOR, evt_name_str(EVT_OPERATOR), CACHE_DATA_INT32, evt_op_cb});
}
