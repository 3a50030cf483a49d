#include "core/network_manager.h"

#include <libubus.h>

#include <cstdio>

namespace {

constexpr int call_timeout_ms = 10000;
// Object names are built in a buffer of this size; longer ones are cut.
constexpr size_t object_name_size = 128;

enum { DUMP_INTERFACE, __DUMP_MAX };
const blobmsg_policy dump_policy[__DUMP_MAX] = {
    {"interface", BLOBMSG_TYPE_ARRAY},
};

enum { IFACE_NAME, IFACE_UP, IFACE_MODEM, __IFACE_MAX };
const blobmsg_policy iface_policy[__IFACE_MAX] = {
    {"interface", BLOBMSG_TYPE_STRING},
    {"up", BLOBMSG_TYPE_BOOL},
    {"modem", BLOBMSG_TYPE_STRING},
};

const char *method_of(iface_action action)
{
    switch (action) {
    case IFACE_ACTION_UP:
        return "up";
    case IFACE_ACTION_DOWN:
        return "down";
    default:
        return nullptr;
    }
}

int dump_interfaces(ubus_context *ctx, op_scan_storage &list)
{
    uint32_t id;
    if (ubus_lookup_id(ctx, "network.interface", &id))
        return 1;
    blob_buf b{};
    blob_buf_init(&b, 0);
    int ret = ubus_invoke(ctx, id, "dump", b.head, handle_dump, &list, call_timeout_ms);
    blob_buf_free(&b);
    return ret ? 1 : 0;
}

} // namespace

void handle_dump(ubus_request *req, int, blob_attr *msg)
{
    auto *list = static_cast<op_scan_storage *>(req->priv);
    if (!list || !msg)
        return;

    blob_attr *tb[__DUMP_MAX];
    blobmsg_parse(dump_policy, __DUMP_MAX, tb, blob_data(msg), blob_len(msg));
    if (!tb[DUMP_INTERFACE])
        return;

    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, tb[DUMP_INTERFACE], rem) {
        if (blobmsg_type(cur) != BLOBMSG_TYPE_TABLE)
            continue;
        blob_attr *f[__IFACE_MAX];
        blobmsg_parse(iface_policy, __IFACE_MAX, f, blobmsg_data(cur), blobmsg_data_len(cur));
        if (!f[IFACE_NAME] || !f[IFACE_UP] || !f[IFACE_MODEM])
            continue;
        if (list->modem() != blobmsg_get_string(f[IFACE_MODEM]) || !blobmsg_get_bool(f[IFACE_UP]))
            continue;
        list->add(blobmsg_get_string(f[IFACE_NAME]));
    }
}

int modem_interface_action(ubus_context *ctx, op_scan_storage &list, iface_action action)
{
    if (action == IFACE_ACTION_DOWN && dump_interfaces(ctx, list))
        return 1;

    const char *method = method_of(action);
    int result = 0;
    blob_buf b{};
    blob_buf_init(&b, 0);
    for (const std::string &name : list.interfaces()) {
        char path[object_name_size];
        std::snprintf(path, sizeof(path), "network.interface.%s", name.c_str());
        uint32_t id;
        if (ubus_lookup_id(ctx, path, &id)) {
            result |= IFACE_NOT_FOUND;
            continue;
        }
        if (!method || ubus_invoke(ctx, id, method, b.head, nullptr, nullptr, call_timeout_ms))
            result |= IFACE_CALL_FAILED;
    }
    blob_buf_free(&b);
    return result;
}
