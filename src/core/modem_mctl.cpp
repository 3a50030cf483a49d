// Restart requests to the platform's modem-control service.
#include "wwan/ubox.h"
#include <libubus.h>

#include <cstdlib>

#include "core/modem.h"
#include "core/modem_driver.h"

namespace
{

void reboot_done(ubus_request *req, int)
{
    std::free(req);
}

} // namespace

int modem_invoke_mctl_reboot(modem *mdm)
{
    ubus_context *ctx = mdm ? mdm->bus() : nullptr;
    uint32_t id;
    if (!ctx || ubus_lookup_id(ctx, "mctl", &id))
        return 1;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "id", mdm->id());
    // Not waited for: the request lives until its completion frees it.
    auto *req = static_cast<ubus_request *>(std::calloc(1, sizeof(ubus_request)));
    int ret = req ? ubus_invoke_async(ctx, id, "reboot", b.head, req) : 1;
    blob_buf_free(&b);
    if (ret) {
        std::free(req);
        return 1;
    }
    req->complete_cb = reboot_done;
    ubus_complete_request_async(ctx, req);
    return 0;
}
