// An SMS send handed to the event loop: the modem's driver builds it (the
// sending limit decides there), the modem sends it as its own request, and
// the parse reports it with the "snd_sms" event, the only answer an
// asynchronous caller gets.
#include "events/async.h"

#include "util/async_handler.h"
#include "util/cache_manager.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

ujson *async_send_sms_cb(async_item &item)
{
    ujson *args = item.json();
    return args && (args->exists("number") || args->exists("text")) ? args : nullptr;
}

int async_sms_init()
{
    return async_register({0, async_name_str(0), CACHE_DATA_UJSON, async_send_sms_cb});
}
