// The bus client library against the real broker and a peer process: one
// test per area of the client's API. What the broker does with each message
// is tested in-process (platform/libubus/src/broker_test.cpp).
#include "bus_fixture.h"

#include "wwan/ubox.h"

#include <time.h>

namespace bus_test
{
namespace
{

struct call_state {
    std::vector<std::string> json;
    int completed = 0, status = -1;
};

void data_cb(struct ubus_request *req, int, struct blob_attr *msg)
{
    auto *s = static_cast<call_state *>(req->priv);
    EXPECT_EQ(s->completed, 0) << "data after completion";
    s->json.push_back(json_of(msg));
}

void complete_cb(struct ubus_request *req, int ret)
{
    auto *s = static_cast<call_state *>(req->priv);
    s->completed++;
    s->status = ret;
}

class BusClient : public BusFixture
{
  protected:
    // Calls test.<method> with a JSON message and completes it while the
    // loop runs (so notifications and events to us are handled meanwhile).
    call_state call_async(const char *method, const char *json)
    {
        blob_buf_init(&b, 0);
        if (json) {
            EXPECT_TRUE(blobmsg_add_json_from_string(&b, json));
        }
        ubus_add_uloop(ctx);
        struct ubus_request req;
        call_state s;
        EXPECT_EQ(ubus_invoke_async(ctx, test_id, method, b.head, &req), 0);
        req.data_cb = data_cb;
        req.complete_cb = complete_cb;
        req.priv = &s;
        ubus_complete_request_async(ctx, &req);
        EXPECT_TRUE(wait_until(3000, [&] { return s.completed > 0; }));
        wait_until(50, [] { return false; });
        EXPECT_EQ(s.completed, 1);
        return s;
    }
};

// Synchronous calls: the reply data and the status the handler chose; the
// deferred reply comes later from the peer's loop; an unanswered call times
// out without spoiling the connection.
TEST_F(BusClient, CallsReturnTheReplyDataAndStatus)
{
    struct row {
        uint32_t obj_xor;
        const char *method, *msg;
        int timeout, status;
        std::vector<std::string> replies;
    } rows[] = {
        // clang-format off
        {0, "echo", R"({"a":1,"s":"x","t":{"n":[1,2]}})", 3000, 0, {R"({"a":1,"s":"x","t":{"n":[1,2]}})"}},
        {0, "typed", R"({"num":21,"name":"abc"})", 3000, 0, {R"({"num":42,"name":"abc"})"}},
        {0, "fail", nullptr, 3000, UBUS_STATUS_NOT_SUPPORTED, {}},
        {0, "defer", nullptr, 3000, 0, {R"({"deferred":true})"}},
        {0, "nomethod", nullptr, 3000, UBUS_STATUS_METHOD_NOT_FOUND, {}},
        {0x5a5a5a5a, "echo", nullptr, 3000, UBUS_STATUS_NOT_FOUND, {}},
        {0, "silent", nullptr, 300, UBUS_STATUS_TIMEOUT, {}},
        {0, "echo", R"({"after":1})", 3000, 0, {R"({"after":1})"}},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.method);
        blob_buf_init(&b, 0);
        if (r.msg) {
            ASSERT_TRUE(blobmsg_add_json_from_string(&b, r.msg));
        }
        call_state got;
        int64_t start = now_ms();
        EXPECT_EQ(ubus_invoke(ctx, test_id ^ r.obj_xor, r.method, b.head, data_cb, &got, r.timeout), r.status);
        EXPECT_EQ(got.json, r.replies);
        if (r.status == UBUS_STATUS_TIMEOUT) {
            EXPECT_GE(now_ms() - start, r.timeout - 10);
        }
    }
}

struct sub_state {
    struct ubus_subscriber sub = {};
    std::vector<std::string> got;
    std::vector<uint32_t> removed;
};

TEST_F(BusClient, SubscriberGetsNotificationsAndTargetRemoval)
{
    static_assert(offsetof(sub_state, sub) == 0);
    sub_state s;
    s.sub.cb = [](struct ubus_context *, struct ubus_object *obj, struct ubus_request_data *, const char *method,
                  struct blob_attr *msg) {
        auto *st = reinterpret_cast<sub_state *>(container_of(obj, struct ubus_subscriber, obj));
        st->got.push_back(std::string(method) + " " + json_of(msg));
        return 0;
    };
    s.sub.remove_cb = [](struct ubus_context *, struct ubus_subscriber *sub, uint32_t id) {
        reinterpret_cast<sub_state *>(sub)->removed.push_back(id);
    };
    ASSERT_EQ(ubus_register_subscriber(ctx, &s.sub), 0);
    const std::vector<std::string> off{R"({"has_subscribers":false})"}, on{R"({"has_subscribers":true})"};
    EXPECT_EQ(call_async("state", nullptr).json, off);
    ASSERT_EQ(ubus_subscribe(ctx, &s.sub, test_id), 0);
    EXPECT_EQ(call_async("state", nullptr).json, on);

    // The peer notifies while our call to it is outstanding: our loop
    // answers the notification, and the peer learns the result.
    EXPECT_EQ(call_async("notify", R"({"k":1})").json, std::vector<std::string>{R"({"rc":0})"});
    EXPECT_EQ(s.got, std::vector<std::string>{R"(ping {"k":1})"});

    EXPECT_EQ(ubus_unsubscribe(ctx, &s.sub, test_id), 0);
    EXPECT_EQ(ubus_unsubscribe(ctx, &s.sub, test_id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(call_async("state", nullptr).json, off);

    ASSERT_EQ(ubus_subscribe(ctx, &s.sub, test_id), 0);
    EXPECT_EQ(peer->stop(SIGTERM), 0);
    ASSERT_TRUE(wait_until(3000, [&] { return !s.removed.empty(); }));
    EXPECT_EQ(s.removed, std::vector<uint32_t>{test_id});
}

struct event_log {
    struct ubus_event_handler ev = {};
    std::vector<std::string> got;
};

void event_cb(struct ubus_context *, struct ubus_event_handler *ev, const char *type, struct blob_attr *msg)
{
    reinterpret_cast<event_log *>(ev)->got.push_back(std::string(type) + " " + json_of(msg));
}

TEST_F(BusClient, EventsReachMatchingHandlersOnceButNeverTheSender)
{
    event_log prefix, exact, other, all;
    for (auto *l : {&prefix, &exact, &other, &all})
        l->ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(ctx, &prefix.ev, "test.*"), 0);
    ASSERT_EQ(ubus_register_event_handler(ctx, &exact.ev, "test.event"), 0);
    ASSERT_EQ(ubus_register_event_handler(ctx, &exact.ev, "test.*"), 0) << "a second pattern, same handler";
    ASSERT_EQ(ubus_register_event_handler(ctx, &other.ev, "test.eventx"), 0);
    EXPECT_EQ(call_async("event", R"({"n":7})").status, 0);
    ASSERT_TRUE(wait_until(3000, [&] { return !prefix.got.empty() && !exact.got.empty(); }));
    EXPECT_EQ(prefix.got, std::vector<std::string>{R"(test.event {"n":7})"});
    EXPECT_EQ(exact.got, std::vector<std::string>{R"(test.event {"n":7})"});
    EXPECT_TRUE(other.got.empty());

    // Our own event reaches the peer's "peer.*" handler, not ours.
    ASSERT_EQ(ubus_register_event_handler(ctx, &all.ev, "*"), 0);
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "from", "test");
    EXPECT_EQ(ubus_send_event(ctx, "peer.mine", b.head), 0);
    EXPECT_EQ(call_async("events", nullptr).json, std::vector<std::string>{R"({"events":["peer.mine"]})"});
    EXPECT_TRUE(all.got.empty());
}

struct auto_state {
    struct ubus_auto_conn conn = {};
    int connected = 0;
};

// A plain connection fails its calls once the broker is gone; automatic
// ones (ours and the peer's) come back with their objects and handlers.
TEST_F(BusClient, LostConnectionFailsCallsOrIsRestoredAutomatically)
{
    static_assert(offsetof(auto_state, conn) == 0);
    auto_state as;
    as.conn.path = sock.c_str();
    as.conn.cb = [](struct ubus_context *c) { container_of(c, auto_state, conn.ctx)->connected++; };
    ubus_auto_connect(&as.conn);
    ASSERT_EQ(as.connected, 1);
    static const struct ubus_method methods[] = {{"poke", nullptr, 0, 0, nullptr, 0}};
    static struct ubus_object_type type = UBUS_OBJECT_TYPE("self", methods);
    struct ubus_object self = {};
    self.name = "self";
    self.type = &type;
    self.methods = methods;
    self.n_methods = 1;
    ASSERT_EQ(ubus_add_object(&as.conn.ctx, &self), 0);
    event_log l;
    l.ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(&as.conn.ctx, &l.ev, "mine.*"), 0);
    uint32_t old_id = self.id;

    ubus_add_uloop(ctx);
    struct ubus_request req;
    call_state s;
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "silent", nullptr, &req), 0);
    req.complete_cb = complete_cb;
    req.priv = &s;
    ubus_complete_request_async(ctx, &req);
    EXPECT_EQ(broker->stop(SIGTERM), 0);
    uloop_run(); // ended by the default connection_lost
    EXPECT_EQ(s.completed, 1);
    EXPECT_EQ(s.status, UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(ubus_invoke(ctx, test_id, "echo", nullptr, nullptr, nullptr, 3000), UBUS_STATUS_CONNECTION_FAILED);

    broker = start_broker(sock);
    ASSERT_TRUE(broker);
    struct ubus_context *probe = nullptr;
    ASSERT_TRUE(wait_until(5000, [&] {
        if (!probe)
            probe = ubus_connect(sock.c_str());
        uint32_t id;
        return probe && ubus_lookup_id(probe, "self", &id) == 0 && ubus_lookup_id(probe, "test", &id) == 0;
    }));
    EXPECT_EQ(as.connected, 1) << "the connect callback runs only the first time";
    EXPECT_NE(self.id, old_id);
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "a", 1);
    EXPECT_EQ(ubus_send_event(probe, "mine.x", b.head), 0);
    EXPECT_TRUE(wait_until(3000, [&] { return !l.got.empty(); }));
    EXPECT_EQ(l.got, std::vector<std::string>{R"(mine.x {"a":1})"});
    ubus_free(probe);
    ubus_auto_shutdown(&as.conn);
}

} // namespace
} // namespace bus_test
