#include "events/events.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "util/cache_manager.h"
#include "util/event_handler.h"

int events_init()
{
    int failed = 0;
    failed |= evt_net_init();
    failed |= evt_pin_init();
    failed |= evt_sys_init();
    failed |= evt_op_init();
    failed |= evt_sim_init();
    return failed ? 1 : 0;
}

bool evt_refresh(evt_modem &mdm, uint32_t action, const ujson *args)
{
    return mdm.refresh(action, args) == 0;
}

void evt_cache_text(evt_modem &mdm, const char *event_name, const char *text)
{
    cache_manager *cache = mdm.cache();
    if (!cache)
        return;
    char key[32];
    std::snprintf(key, sizeof(key), "%s_str", event_name);
    cache->update_item(key, CACHE_DATA_STRING, text, static_cast<uint32_t>(std::strlen(text) + 1));
}

void evt_drop(evt_modem &mdm, std::initializer_list<const char *> keys)
{
    cache_manager *cache = mdm.cache();
    if (!cache)
        return;
    for (const char *key : keys)
        cache->remove_item_name(key);
}
