#include "tests/e2e/e2e_bus.h"

#include "tests/bus/bus_harness.h"
#include "wwan/ubox.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

namespace e2e
{

namespace
{

// A message built from JSON text; a test failure when the text is not JSON.
struct json_blob {
    blob_buf b{};
    bool ok;
    explicit json_blob(const std::string &json)
    {
        blob_buf_init(&b, 0);
        ok = blobmsg_add_json_from_string(&b, json.c_str());
        EXPECT_TRUE(ok) << "bad JSON in the test: " << json;
    }
    ~json_blob() { blob_buf_free(&b); }
};

} // namespace

bus_message::bus_message(blob_attr *msg, bool table)
{
    if (!msg)
        return;
    len_ = table ? blobmsg_data_len(msg) : blob_len(msg);
    data_.resize(len_ / sizeof(uint64_t) + 1);
    std::memcpy(data_.data(), table ? blobmsg_data(msg) : blob_data(msg), len_);
    char *s = blobmsg_format_json(msg, !table);
    json_ = s ? s : "";
    std::free(s);
}

blob_attr *bus_message::find(const char *key) const
{
    const blobmsg_policy policy = {key, BLOBMSG_TYPE_UNSPEC};
    blob_attr *found = nullptr;
    blobmsg_parse(&policy, 1, &found, const_cast<uint64_t *>(data_.data()), static_cast<unsigned>(len_));
    return found;
}

std::optional<std::string> bus_message::text(const char *key) const
{
    blob_attr *a = find(key);
    return a && blobmsg_type(a) == BLOBMSG_TYPE_STRING ? std::optional(blobmsg_get_string(a)) : std::nullopt;
}

std::optional<int64_t> bus_message::number(const char *key) const
{
    blob_attr *a = find(key);
    const int type = a ? blobmsg_type(a) : BLOBMSG_TYPE_UNSPEC;
    return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8 ? std::optional(blobmsg_cast_s64(a)) : std::nullopt;
}

std::optional<bus_message> bus_message::table(const char *key) const
{
    blob_attr *a = find(key);
    return a && blobmsg_type(a) == BLOBMSG_TYPE_TABLE ? std::optional(bus_message(a, true)) : std::nullopt;
}

pending_call::~pending_call()
{
    if (ctx_ && !result_.done)
        ubus_abort_request(ctx_, &req_);
}

bus_client::bus_client(const std::string &socket) : ctx_(ubus_connect(socket.c_str()))
{
    if (ctx_)
        ubus_add_uloop(ctx_);
}

bus_client::~bus_client()
{
    if (!ctx_)
        return;
    for (auto &l : listeners_)
        ubus_unregister_event_handler(ctx_, &l->handler);
    if (subscription_)
        ubus_unregister_subscriber(ctx_, &subscription_->sub);
    ubus_free(ctx_);
}

std::optional<uint32_t> bus_client::object_id(const std::string &path)
{
    uint32_t id = 0;
    return ctx_ && ubus_lookup_id(ctx_, path.c_str(), &id) == 0 ? std::optional(id) : std::nullopt;
}

std::vector<std::string> bus_client::objects(const std::string &pattern)
{
    std::vector<std::string> out;
    auto add = [](ubus_context *, ubus_object_data *obj, void *priv) {
        static_cast<std::vector<std::string> *>(priv)->push_back(obj->path);
    };
    ubus_lookup(ctx_, pattern.c_str(), add, &out);
    return out;
}

std::unique_ptr<pending_call> bus_client::call_async(const std::string &path, const std::string &method,
                                                     const std::string &json)
{
    auto id = object_id(path);
    json_blob msg(json);
    auto call = std::make_unique<pending_call>();
    if (!id || !msg.ok || ubus_invoke_async(ctx_, *id, method.c_str(), msg.b.head, &call->req_) != 0)
        return nullptr;
    call->ctx_ = ctx_;
    call->req_.data_cb = [](ubus_request *req, int, blob_attr *m) {
        auto *self = static_cast<pending_call *>(req->priv);
        self->result_.reply = bus_message(m);
        self->result_.replies++;
    };
    call->req_.complete_cb = [](ubus_request *req, int ret) {
        auto *self = static_cast<pending_call *>(req->priv);
        self->result_.status = ret;
        self->result_.done = true;
    };
    call->req_.priv = call.get();
    ubus_complete_request_async(ctx_, &call->req_);
    return call;
}

call_result bus_client::call(const std::string &path, const std::string &method, const std::string &json,
                             int timeout_ms)
{
    auto pending = call_async(path, method, json);
    call_result r;
    if (!pending) {
        r.done = true;
        r.status = object_id(path) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_NOT_FOUND;
    } else if (!bus_test::wait_until(timeout_ms, [&] { return pending->done(); })) {
        r.status = UBUS_STATUS_TIMEOUT;
    } else {
        r = pending->result();
    }
    return r;
}

int bus_client::send_event(const std::string &type, const std::string &json)
{
    json_blob msg(json);
    return msg.ok ? ubus_send_event(ctx_, type.c_str(), msg.b.head) : -1;
}

bool bus_client::listen(const std::string &pattern)
{
    auto l = std::make_unique<listener>();
    l->owner = this;
    l->handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
        reinterpret_cast<listener *>(ev)->owner->events_.push_back({type, bus_message(msg)});
    };
    if (ubus_register_event_handler(ctx_, &l->handler, pattern.c_str()) != 0)
        return false;
    listeners_.push_back(std::move(l));
    return true;
}

bool bus_client::subscribe(const std::string &path)
{
    auto id = object_id(path);
    if (!id)
        return false;
    if (!subscription_) {
        subscription_ = std::make_unique<subscription>();
        subscription_->owner = this;
        subscription_->sub.cb = [](ubus_context *, ubus_object *obj, ubus_request_data *, const char *method,
                                   blob_attr *msg) {
            auto *self = reinterpret_cast<subscription *>(container_of(obj, ubus_subscriber, obj));
            self->owner->notes_.push_back({method, bus_message(msg)});
            return 0;
        };
        if (ubus_register_subscriber(ctx_, &subscription_->sub) != 0) {
            subscription_.reset();
            return false;
        }
    }
    return ubus_subscribe(ctx_, &subscription_->sub, *id) == 0;
}

std::vector<bus_event> bus_client::of(const std::vector<bus_event> &all, const std::string &type)
{
    std::vector<bus_event> out;
    std::copy_if(all.begin(), all.end(), std::back_inserter(out), [&](const bus_event &e) { return e.type == type; });
    return out;
}

} // namespace e2e
