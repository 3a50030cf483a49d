#include "drivers/generic/sms_limit.h"

#include "wwan/ubox.h"
#include <libubus.h>

#include <cstring>

#include "core/modem.h"
#include "util/ujson.h"

namespace
{

constexpr uint32_t check_timeout_ms = 1000;
constexpr uint32_t inc_timeout_ms = 5000;

// One call of the service with "sim" and "modem" (the modem's bus object).
int call(modem *mdm, const char *method, uint32_t sim, uint32_t timeout_ms, ujson &answer)
{
    auto args = ujson::create();
    if (!args || args->add_int("sim", static_cast<int32_t>(sim)) != 0)
        return UBUS_STATUS_UNKNOWN_ERROR;
    args->add_string("modem", mdm->object_name());
    return mdm->call_service("sms_limit", method, *args, answer, timeout_ms);
}

// A number member of whatever integer width the service used.
bool read_number(const ujson &answer, const char *name, int64_t &out)
{
    blob_attr *root = answer.get_blobmsg();
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, root, rem)
    {
        if (std::strcmp(blobmsg_name(cur), name) != 0)
            continue;
        switch (blobmsg_type(cur)) {
        case BLOBMSG_TYPE_INT64:
            out = static_cast<int64_t>(blobmsg_get_u64(cur));
            return true;
        case BLOBMSG_TYPE_INT32:
            out = static_cast<int32_t>(blobmsg_get_u32(cur));
            return true;
        case BLOBMSG_TYPE_INT16:
            out = static_cast<int16_t>(blobmsg_get_u16(cur));
            return true;
        default:
            return false;
        }
    }
    return false;
}

} // namespace

sms_lim_state sms_lim_decide(int status, const ujson &answer)
{
    // A service that does not meter this modem lifts the limit; every other
    // failure, and an answer without its numbers, leaves nothing to send.
    if (status == UBUS_STATUS_NOT_SUPPORTED)
        return {-1, false};
    int64_t max, current;
    if (status != 0 || !read_number(answer, "max", max) || !read_number(answer, "current", current))
        return {-1, true};
    int64_t budget = max - current;
    budget = budget > INT32_MAX ? INT32_MAX : budget < INT32_MIN ? INT32_MIN : budget;
    return {static_cast<int32_t>(budget), true};
}

sms_lim_state sms_lim_budget(modem *mdm, uint32_t sim)
{
    auto answer = ujson::create();
    if (!answer)
        return {-1, true};
    return sms_lim_decide(call(mdm, "check", sim, check_timeout_ms, *answer), *answer);
}

int sms_lim_inc(modem *mdm, uint32_t sim, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        auto answer = ujson::create();
        if (!answer || call(mdm, "inc", sim, inc_timeout_ms, *answer) != 0)
            return 1;
        const char *limit = answer->exists("limit") ? answer->get_string("limit") : nullptr;
        if (limit && std::strcmp(limit, "reached") == 0)
            break;
    }
    return 0;
}
