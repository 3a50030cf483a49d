#include "tests/e2e/e2e_sms_limit.h"

#include "wwan/ubox.h"

namespace e2e
{
namespace
{

enum { ARG_SIM, ARG_MODEM, ARG_COUNT };
const blobmsg_policy limit_policy[ARG_COUNT] = {{"sim", BLOBMSG_TYPE_INT32}, {"modem", BLOBMSG_TYPE_STRING}};

} // namespace

sms_limit_service::sms_limit_service(bus_client &bus, int max_, int current_) : max(max_), current(current_), bus_(bus)
{
    static const ubus_method methods[] = {
        {"check", on_call, 0, 0, limit_policy, ARG_COUNT},
        {"inc", on_call, 0, 0, limit_policy, ARG_COUNT},
    };
    static ubus_object_type type = {"sms_limit", 0, methods, 2};
    holder_.owner = this;
    holder_.object.name = "sms_limit";
    holder_.object.type = &type;
    holder_.object.methods = methods;
    holder_.object.n_methods = 2;
    registered_ = bus_.context() && ubus_add_object(bus_.context(), &holder_.object) == 0;
}

sms_limit_service::~sms_limit_service()
{
    if (registered_)
        ubus_remove_object(bus_.context(), &holder_.object);
}

int sms_limit_service::on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                               blob_attr *msg)
{
    sms_limit_service *self = reinterpret_cast<object_holder *>(obj)->owner;
    blob_attr *tb[ARG_COUNT] = {};
    blobmsg_parse(limit_policy, ARG_COUNT, tb, blob_data(msg), blob_len(msg));
    self->calls.push_back(std::string(method) + " " +
                          (tb[ARG_SIM] ? std::to_string(blobmsg_get_u32(tb[ARG_SIM])) : std::string("-")) + " " +
                          (tb[ARG_MODEM] ? blobmsg_get_string(tb[ARG_MODEM]) : "-"));
    blob_buf b{};
    blob_buf_init(&b, 0);
    if (std::string(method) == "inc") {
        if (++self->current >= self->max)
            blobmsg_add_string(&b, "limit", "reached");
    } else {
        blobmsg_add_u32(&b, "max", static_cast<uint32_t>(self->max));
        blobmsg_add_u32(&b, "current", static_cast<uint32_t>(self->current));
    }
    ubus_send_reply(ctx, req, b.head);
    blob_buf_free(&b);
    return UBUS_STATUS_OK;
}

} // namespace e2e
