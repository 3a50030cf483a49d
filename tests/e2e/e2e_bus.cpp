#include "tests/e2e/e2e_bus.h"

#include "wwan/ubox.h"

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

namespace e2e
{

namespace
{

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string json_of(const blob_attr *msg, bool list)
{
    if (!msg)
        return "";
    char *s = blobmsg_format_json(const_cast<blob_attr *>(msg), list);
    std::string out = s ? s : "";
    std::free(s);
    return out;
}

} // namespace

// --- bus messages ------------------------------------------------------------------------

bus_message::bus_message(const blob_attr *msg, bool table) : table_(table)
{
    if (!msg)
        return;
    size_t len = blob_pad_len(msg);
    data_.resize((len + sizeof(uint64_t) - 1) / sizeof(uint64_t));
    std::memcpy(data_.data(), msg, len);
    json_ = json_of(msg, !table);
}

blob_attr *bus_message::find(const char *key) const
{
    if (data_.empty())
        return nullptr;
    auto *head = reinterpret_cast<blob_attr *>(const_cast<uint64_t *>(data_.data()));
    // A message's members follow the container's header; a table's follow
    // its name.
    void *members = table_ ? blobmsg_data(head) : blob_data(head);
    size_t len = table_ ? blobmsg_data_len(head) : blob_len(head);
    blob_attr *cur;
    size_t rem = len;
    __blob_for_each_attr(cur, static_cast<blob_attr *>(members), rem)
    {
        if (blobmsg_check_attr(cur, true) && std::strcmp(blobmsg_name(cur), key) == 0)
            return cur;
    }
    return nullptr;
}

std::optional<std::string> bus_message::text(const char *key) const
{
    blob_attr *a = find(key);
    if (!a || blobmsg_type(a) != BLOBMSG_TYPE_STRING)
        return std::nullopt;
    return std::string(blobmsg_get_string(a));
}

std::optional<int64_t> bus_message::number(const char *key) const
{
    blob_attr *a = find(key);
    if (!a)
        return std::nullopt;
    switch (blobmsg_type(a)) {
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(a);
    case BLOBMSG_TYPE_INT16:
        return static_cast<int16_t>(blobmsg_get_u16(a));
    case BLOBMSG_TYPE_INT32:
        return static_cast<int32_t>(blobmsg_get_u32(a));
    case BLOBMSG_TYPE_INT64:
        return static_cast<int64_t>(blobmsg_get_u64(a));
    default:
        return std::nullopt;
    }
}

std::optional<bus_message> bus_message::table(const char *key) const
{
    blob_attr *a = find(key);
    if (!a || blobmsg_type(a) != BLOBMSG_TYPE_TABLE)
        return std::nullopt;
    return bus_message(a, true);
}

// --- the test's bus client -------------------------------------------------------------

pending_call::~pending_call()
{
    if (started_ && !result_.done && ctx_)
        ubus_abort_request(ctx_, &req_);
}

void pending_call::data_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *self = static_cast<pending_call *>(req->priv);
    self->result_.reply = bus_message(msg);
    self->result_.replies++;
}

void pending_call::complete_cb(ubus_request *req, int ret)
{
    auto *self = static_cast<pending_call *>(req->priv);
    self->result_.status = ret;
    self->result_.done = true;
}

bus_client::bus_client(const std::string &socket)
{
    ctx_ = ubus_connect(socket.c_str());
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

bool bus_client::wait_until(int timeout_ms, const std::function<bool()> &pred)
{
    int64_t deadline = now_ms() + timeout_ms;
    for (;;) {
        if (pred())
            return true;
        if (now_ms() >= deadline)
            return false;
        uloop_run_timeout(10);
    }
}

std::optional<uint32_t> bus_client::object_id(const std::string &path)
{
    uint32_t id = 0;
    if (!ctx_ || ubus_lookup_id(ctx_, path.c_str(), &id) != 0)
        return std::nullopt;
    return id;
}

std::vector<std::string> bus_client::objects(const std::string &pattern)
{
    std::vector<std::string> out;
    if (!ctx_)
        return out;
    ubus_lookup(
        ctx_, pattern.c_str(),
        [](ubus_context *, ubus_object_data *obj, void *priv) {
            static_cast<std::vector<std::string> *>(priv)->push_back(obj->path);
        },
        &out);
    return out;
}

std::unique_ptr<pending_call> bus_client::call_async(const std::string &path, const std::string &method,
                                                     const std::string &json)
{
    auto id = object_id(path);
    if (!id)
        return nullptr;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (!blobmsg_add_json_from_string(&b, json.c_str())) {
        blob_buf_free(&b);
        ADD_FAILURE() << "bad JSON in the test: " << json;
        return nullptr;
    }
    auto call = std::make_unique<pending_call>();
    int ret = ubus_invoke_async(ctx_, *id, method.c_str(), b.head, &call->req_);
    blob_buf_free(&b);
    if (ret != 0)
        return nullptr;
    call->ctx_ = ctx_;
    call->started_ = true;
    call->req_.data_cb = pending_call::data_cb;
    call->req_.complete_cb = pending_call::complete_cb;
    call->req_.priv = call.get();
    ubus_complete_request_async(ctx_, &call->req_);
    return call;
}

call_result bus_client::call(const std::string &path, const std::string &method, const std::string &json,
                             int timeout_ms)
{
    auto pending = call_async(path, method, json);
    if (!pending) {
        call_result r;
        r.done = true;
        r.status = object_id(path) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_NOT_FOUND;
        return r;
    }
    wait_until(timeout_ms, [&] { return pending->done(); });
    if (!pending->done()) {
        call_result r;
        r.status = UBUS_STATUS_TIMEOUT;
        return r;
    }
    return pending->result();
}

int bus_client::send_event(const std::string &type, const std::string &json)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (!blobmsg_add_json_from_string(&b, json.c_str())) {
        blob_buf_free(&b);
        ADD_FAILURE() << "bad JSON in the test: " << json;
        return -1;
    }
    int ret = ubus_send_event(ctx_, type.c_str(), b.head);
    blob_buf_free(&b);
    return ret;
}

bool bus_client::listen(const std::string &pattern)
{
    auto l = std::make_unique<listener>();
    l->owner = this;
    l->handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
        auto *self = reinterpret_cast<listener *>(ev);
        self->owner->events_.push_back({type, bus_message(msg)});
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

std::vector<bus_event> bus_client::events_of(const std::string &type) const
{
    std::vector<bus_event> out;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(out),
                 [&](const bus_event &e) { return e.type == type; });
    return out;
}

std::vector<bus_event> bus_client::notifications_of(const std::string &type) const
{
    std::vector<bus_event> out;
    std::copy_if(notes_.begin(), notes_.end(), std::back_inserter(out),
                 [&](const bus_event &e) { return e.type == type; });
    return out;
}

} // namespace e2e
