#include "tests/e2e/e2e_sms_limit.h"

#include "wwan/ubox.h"


namespace e2e {
namespace {

enum { ARG_SIM, ARG_MODEM, ARG_COUNT };
const blobmsg_policy limit_policy[ARG_COUNT] = {
    {"sim", BLOBMSG_TYPE_INT32},
    {"modem", BLOBMSG_TYPE_STRING},
};

} // namespace

const ubus_method sms_limit_service::methods_[] = {
    {"check", on_call, 0, 0, limit_policy, ARG_COUNT},
    {"inc", on_call, 0, 0, limit_policy, ARG_COUNT},
};
ubus_object_type sms_limit_service::type_ = {"sms_limit", 0, methods_, 2};

sms_limit_service::sms_limit_service(bus_client &bus, int max_, int current_, mode m)
    : max(max_), current(current_), behaviour(m), bus_(bus)
{
    holder_.owner = this;
    holder_.object.name = "sms_limit";
    holder_.object.type = &type_;
    holder_.object.methods = methods_;
    holder_.object.n_methods = 2;
    registered_ = bus_.context() && ubus_add_object(bus_.context(), &holder_.object) == 0;
}

sms_limit_service::~sms_limit_service()
{
    for (deferred *d : late_) {
        uloop_timeout_cancel(d);
        delete d;
    }
    if (registered_)
        ubus_remove_object(bus_.context(), &holder_.object);
}

int sms_limit_service::on_call(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                               blob_attr *msg)
{
    sms_limit_service *self = reinterpret_cast<object_holder *>(obj)->owner;
    blob_attr *tb[ARG_COUNT] = {};
    blobmsg_parse(limit_policy, ARG_COUNT, tb, blob_data(msg), blob_len(msg));
    std::string call = method;
    call += " " + (tb[ARG_SIM] ? std::to_string(blobmsg_get_u32(tb[ARG_SIM])) : std::string("-"));
    call += " " + std::string(tb[ARG_MODEM] ? blobmsg_get_string(tb[ARG_MODEM]) : "-");
    self->calls.push_back(call);

    switch (self->behaviour) {
    case mode::not_supported:
        return UBUS_STATUS_NOT_SUPPORTED;
    case mode::failing:
        return UBUS_STATUS_UNKNOWN_ERROR;
    case mode::slow: {
        auto *d = new deferred();
        d->owner = self;
        d->method = method;
        d->cb = on_late;
        ubus_defer_request(ctx, req, &d->req);
        self->late_.push_back(d);
        uloop_timeout_set(d, 1500);
        return UBUS_STATUS_OK;
    }
    case mode::answer:
        break;
    }
    return self->reply(req, method);
}

void sms_limit_service::on_late(uloop_timeout *t)
{
    auto *d = static_cast<deferred *>(t);
    sms_limit_service *self = d->owner;
    self->reply(&d->req, d->method);
    ubus_complete_deferred_request(self->bus_.context(), &d->req, UBUS_STATUS_OK);
    std::erase(self->late_, d);
    delete d;
}

int sms_limit_service::reply(ubus_request_data *req, const std::string &method)
{
    blob_buf b{};
    blob_buf_init(&b, 0);
    if (method == "inc") {
        current++;
        if (current >= max)
            blobmsg_add_string(&b, "limit", "reached");
    } else {
        blobmsg_add_u32(&b, "max", static_cast<uint32_t>(max));
        blobmsg_add_u32(&b, "current", static_cast<uint32_t>(current));
    }
    ubus_send_reply(bus_.context(), req, b.head);
    blob_buf_free(&b);
    return UBUS_STATUS_OK;
}

} // namespace e2e
