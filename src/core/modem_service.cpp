// Synchronous calls from a driver to another service on the bus.
#include "wwan/ubox.h"
#include <libubus.h>

#include "core/modem.h"
#include "util/ujson.h"

namespace
{

void copy_answer(ubus_request *req, int, blob_attr *msg)
{
    auto *answer = static_cast<ujson *>(req->priv);
    if (!msg || !answer)
        return;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem) answer->add_blobmsg(cur);
}

} // namespace

int modem::call_service(const char *object, const char *method, const ujson &args, ujson &answer,
                        uint32_t timeout_ms)
{
    ubus_context *ctx = bus();
    uint32_t id;
    if (!ctx || ubus_lookup_id(ctx, object, &id) != 0)
        return no_service;
    return ubus_invoke(ctx, id, method, args.get_blobmsg(), copy_answer, &answer, static_cast<int>(timeout_ms));
}
