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

blob_attr *bus_message::find(const char *key, int type) const
{
    const blobmsg_policy policy = {key, static_cast<enum blobmsg_type>(type)};
    blob_attr *found = nullptr;
    blobmsg_parse(&policy, 1, &found, const_cast<uint64_t *>(data_.data()), static_cast<unsigned>(len_));
    return found;
}

std::optional<std::string> bus_message::text(const char *key) const
{
    blob_attr *a = find(key, BLOBMSG_TYPE_STRING);
    return a ? std::optional(blobmsg_get_string(a)) : std::nullopt;
}

std::optional<int64_t> bus_message::number(const char *key) const
{
    blob_attr *a = find(key, BLOBMSG_TYPE_UNSPEC);
    const int type = a ? blobmsg_type(a) : BLOBMSG_TYPE_UNSPEC;
    return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8 ? std::optional(blobmsg_cast_s64(a)) : std::nullopt;
}

std::optional<bus_message> bus_message::table(const char *key) const
{
    blob_attr *a = find(key, BLOBMSG_TYPE_TABLE);
    return a ? std::optional(bus_message(a, true)) : std::nullopt;
}

pending_call::~pending_call()
{
    if (ctx && !result.done)
        ubus_abort_request(ctx, &req);
}

bus_client::bus_client(const std::string &socket) : ctx_(ubus_connect(socket.c_str()))
{
    if (ctx_)
        ubus_add_uloop(ctx_);
}

bus_client::~bus_client()
{
    if (ctx_ && hooks_.listening)
        ubus_unregister_event_handler(ctx_, &hooks_.handler);
    if (ctx_ && hooks_.subscribed)
        ubus_unregister_subscriber(ctx_, &hooks_.sub);
    if (ctx_)
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
    if (!id || !msg.ok || ubus_invoke_async(ctx_, *id, method.c_str(), msg.b.head, &call->req) != 0)
        return nullptr;
    call->ctx = ctx_;
    call->req.data_cb = [](ubus_request *req, int, blob_attr *m) {
        auto *self = static_cast<pending_call *>(req->priv);
        self->result.reply = bus_message(m);
        self->result.replies++;
    };
    call->req.complete_cb = [](ubus_request *req, int ret) {
        auto *self = static_cast<pending_call *>(req->priv);
        self->result.status = ret;
        self->result.done = true;
    };
    call->req.priv = call.get();
    ubus_complete_request_async(ctx_, &call->req);
    return call;
}

call_result bus_client::call(const std::string &path, const std::string &method, const std::string &json,
                             int timeout_ms)
{
    auto pending = call_async(path, method, json);
    if (!pending)
        return {true, object_id(path) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_NOT_FOUND, {}, 0};
    if (!bus_test::wait_until(timeout_ms, [&] { return pending->done(); }))
        return {false, UBUS_STATUS_TIMEOUT, {}, 0};
    return pending->result;
}

int bus_client::send_event(const std::string &type, const std::string &json)
{
    json_blob msg(json);
    return msg.ok ? ubus_send_event(ctx_, type.c_str(), msg.b.head) : -1;
}

bool bus_client::listen(const std::string &pattern)
{
    hooks_.handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
        reinterpret_cast<hooks *>(ev)->events.push_back({type, bus_message(msg)});
    };
    const bool ok = ubus_register_event_handler(ctx_, &hooks_.handler, pattern.c_str()) == 0;
    hooks_.listening |= ok;
    return ok;
}

bool bus_client::subscribe(const std::string &path)
{
    auto id = object_id(path);
    hooks_.sub.cb = [](ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *msg) {
        auto *sub = container_of(obj, ubus_subscriber, obj);
        container_of(sub, hooks, sub)->notes.push_back({method, bus_message(msg)});
        return 0;
    };
    if (id && !hooks_.subscribed)
        hooks_.subscribed = ubus_register_subscriber(ctx_, &hooks_.sub) == 0;
    return id && hooks_.subscribed && ubus_subscribe(ctx_, &hooks_.sub, *id) == 0;
}

std::vector<bus_event> bus_client::of(const std::vector<bus_event> &all, const std::string &type)
{
    std::vector<bus_event> out;
    std::copy_if(all.begin(), all.end(), std::back_inserter(out), [&](const bus_event &e) { return e.type == type; });
    return out;
}

} // namespace e2e
