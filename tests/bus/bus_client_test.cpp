// The bus client library against the real broker and a peer process.
#include "bus_fixture.h"

#include "wwan/ubox.h"

#include <fcntl.h>
#include <pwd.h>
#include <time.h>
#include <unistd.h>

#include <map>

namespace bus_test
{
namespace
{

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

struct replies {
    std::vector<std::string> json;
};

void collect_cb(struct ubus_request *req, int type, struct blob_attr *msg)
{
    EXPECT_EQ(type, UBUS_MSG_DATA);
    static_cast<replies *>(req->priv)->json.push_back(json_of(msg));
}

class BusClient : public BusFixture
{
  protected:
    // Calls test.<method> with a JSON message; returns the status.
    int call(const char *method, const char *json, replies *r, int timeout = 3000)
    {
        blob_buf_init(&b, 0);
        if (json) {
            EXPECT_TRUE(blobmsg_add_json_from_string(&b, json));
        }
        return ubus_invoke(ctx, test_id, method, b.head, r ? collect_cb : nullptr, r, timeout);
    }
};

struct lookup_seen {
    std::map<std::string, std::pair<uint32_t, std::string>> objs; // path -> id, signature
};

void lookup_cb(struct ubus_context *, struct ubus_object_data *obj, void *priv)
{
    auto *seen = static_cast<lookup_seen *>(priv);
    seen->objs[obj->path] = {obj->id, obj->signature ? json_of(obj->signature) : ""};
}

TEST_F(BusClient, LookupReportsIdsAndMethodSignatures)
{
    lookup_seen all;
    ASSERT_EQ(ubus_lookup(ctx, nullptr, lookup_cb, &all), 0);
    ASSERT_EQ(all.objs.size(), 2u);
    EXPECT_EQ(all.objs.begin()->first, "test");
    EXPECT_EQ(all.objs["test"].first, test_id);
    EXPECT_GE(test_id, 1024u);
    const std::string &sig = all.objs["test"].second;
    EXPECT_NE(sig.find("\"typed\":{\"num\":5,\"name\":3}"), std::string::npos) << sig;
    EXPECT_NE(sig.find("\"masked\":{\"num\":5,\"d\":8}"), std::string::npos) << "mask drops argument 1: " << sig;
    EXPECT_NE(sig.find("\"echo\":{}"), std::string::npos) << sig;

    lookup_seen prefix;
    ASSERT_EQ(ubus_lookup(ctx, "test.*", lookup_cb, &prefix), 0);
    ASSERT_EQ(prefix.objs.size(), 1u);
    EXPECT_EQ(prefix.objs.begin()->first, "test.other");

    uint32_t id = 12345;
    EXPECT_EQ(ubus_lookup_id(ctx, "nothere", &id), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(id, 12345u);
    EXPECT_EQ(ubus_lookup(ctx, "nothere*", lookup_cb, &prefix), UBUS_STATUS_NOT_FOUND);
}

// Synchronous calls: the reply data and the status the handler chose.
TEST_F(BusClient, InvokeReturnsReplyDataAndStatus)
{
    struct row {
        const char *method, *msg;
        int status;
        std::vector<std::string> replies;
    } rows[] = {
        {"echo", R"({"a":1,"s":"x","t":{"n":[1,2]}})", 0, {R"({"a":1,"s":"x","t":{"n":[1,2]}})"}},
        {"echo", nullptr, 0, {"{}"}},
        {"typed", R"({"num":21,"name":"abc"})", 0, {R"({"num":42,"name":"abc"})"}},
        {"fail", nullptr, UBUS_STATUS_NOT_SUPPORTED, {}},
        {"defer", nullptr, 0, {R"({"deferred":true})"}},
        {"nomethod", nullptr, UBUS_STATUS_METHOD_NOT_FOUND, {}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.method);
        replies got;
        EXPECT_EQ(call(r.method, r.msg, &got), r.status);
        EXPECT_EQ(got.json, r.replies);
    }
    EXPECT_EQ(ubus_invoke(ctx, test_id ^ 0x5a5a5a5a, "echo", nullptr, nullptr, nullptr, 3000), UBUS_STATUS_NOT_FOUND);
}

TEST_F(BusClient, UnansweredCallTimesOut)
{
    int64_t start = now_ms();
    EXPECT_EQ(call("silent", nullptr, nullptr, 300), UBUS_STATUS_TIMEOUT);
    EXPECT_GE(now_ms() - start, 290);
    // The connection stays usable, and a late answer cannot be mistaken
    // for the next call's.
    replies r;
    EXPECT_EQ(call("echo", R"({"after":1})", &r), 0);
    EXPECT_EQ(r.json, std::vector<std::string>{R"({"after":1})"});
}

struct async_state {
    replies r;
    int completed = 0;
    int status = -1;
    int fd_text_len = -1;
    std::string fd_text;
};

void async_complete_cb(struct ubus_request *req, int ret)
{
    auto *s = static_cast<async_state *>(req->priv);
    s->completed++;
    s->status = ret;
}

void async_data_cb(struct ubus_request *req, int, struct blob_attr *msg)
{
    auto *s = static_cast<async_state *>(req->priv);
    EXPECT_EQ(s->completed, 0) << "data after completion";
    s->r.json.push_back(json_of(msg));
}

TEST_F(BusClient, AsyncInvokeCompletesOnceAfterItsData)
{
    ubus_add_uloop(ctx);
    struct ubus_request req;
    async_state s;
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "k", "v");
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "echo", b.head, &req), 0);
    req.data_cb = async_data_cb;
    req.complete_cb = async_complete_cb;
    req.priv = &s;
    ubus_complete_request_async(ctx, &req);
    ASSERT_TRUE(wait_until(3000, [&] { return s.completed > 0; }));
    wait_until(50, [] { return false; });
    EXPECT_EQ(s.completed, 1);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.r.json, std::vector<std::string>{R"({"k":"v"})"});
}

TEST_F(BusClient, AbortedRequestNeverCompletes)
{
    ubus_add_uloop(ctx);
    struct ubus_request req;
    async_state s;
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "defer", nullptr, &req), 0);
    req.data_cb = async_data_cb;
    req.complete_cb = async_complete_cb;
    req.priv = &s;
    ubus_complete_request_async(ctx, &req);
    ubus_abort_request(ctx, &req);
    wait_until(300, [] { return false; });
    EXPECT_EQ(s.completed, 0);
    EXPECT_TRUE(s.r.json.empty());
    // The late answer to the aborted request does not disturb a new call.
    replies r;
    EXPECT_EQ(call("echo", R"({"x":2})", &r), 0);
    EXPECT_EQ(r.json, std::vector<std::string>{R"({"x":2})"});
}

void fd_cb(struct ubus_request *req, int fd)
{
    auto *s = static_cast<async_state *>(req->priv);
    char buf[16] = "";
    s->fd_text_len = read(fd, buf, sizeof(buf) - 1);
    s->fd_text = buf;
    close(fd);
}

TEST_F(BusClient, FileDescriptorsTravelWithCallAndStatus)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(p[1], "ping", 4), 4);
    close(p[1]);

    struct ubus_request req;
    async_state s;
    ASSERT_EQ(ubus_invoke_async_fd(ctx, test_id, "fd", nullptr, &req, p[0]), 0);
    EXPECT_EQ(fcntl(p[0], F_GETFD), -1) << "the sent fd is closed locally";
    req.data_cb = async_data_cb;
    req.fd_cb = fd_cb;
    req.priv = &s;
    EXPECT_EQ(ubus_complete_request(ctx, &req, 3000), 0);
    EXPECT_EQ(s.r.json, std::vector<std::string>{R"({"got":"ping"})"});
    EXPECT_EQ(s.fd_text, "pong");
}

TEST_F(BusClient, CallerIdentityAndObjectReachTheHandler)
{
    replies r;
    EXPECT_EQ(call("whoami", nullptr, &r), 0);
    struct passwd *pw = getpwuid(getuid());
    ASSERT_NE(pw, nullptr);
    EXPECT_EQ(r.json, std::vector<std::string>{std::string(R"({"user":")") + pw->pw_name + R"(","object":"test"})"});
}

struct sub_state {
    struct ubus_subscriber sub = {};
    std::vector<std::string> got;
    std::vector<uint32_t> removed;
};

int sub_cb(struct ubus_context *, struct ubus_object *obj, struct ubus_request_data *, const char *method,
           struct blob_attr *msg)
{
    auto *s = reinterpret_cast<sub_state *>(container_of(obj, struct ubus_subscriber, obj));
    s->got.push_back(std::string(method) + " " + json_of(msg));
    return 0;
}

void sub_remove_cb(struct ubus_context *, struct ubus_subscriber *sub, uint32_t id)
{
    reinterpret_cast<sub_state *>(sub)->removed.push_back(id);
}

TEST_F(BusClient, SubscriberGetsNotificationsAndTargetRemoval)
{
    static_assert(offsetof(sub_state, sub) == 0);
    sub_state s;
    s.sub.cb = sub_cb;
    s.sub.remove_cb = sub_remove_cb;
    ASSERT_EQ(ubus_register_subscriber(ctx, &s.sub), 0);
    replies st;
    EXPECT_EQ(call("state", nullptr, &st), 0);
    EXPECT_EQ(st.json, std::vector<std::string>{R"({"has_subscribers":false})"});

    ASSERT_EQ(ubus_subscribe(ctx, &s.sub, test_id), 0);
    replies st2;
    EXPECT_EQ(call("state", nullptr, &st2), 0);
    EXPECT_EQ(st2.json, std::vector<std::string>{R"({"has_subscribers":true})"});

    // The peer notifies while our call to it is outstanding, so the call is
    // asynchronous: our loop must answer the notification.
    ubus_add_uloop(ctx);
    struct ubus_request req;
    async_state as;
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "k", 1);
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "notify", b.head, &req), 0);
    req.data_cb = async_data_cb;
    req.complete_cb = async_complete_cb;
    req.priv = &as;
    ubus_complete_request_async(ctx, &req);
    ASSERT_TRUE(wait_until(3000, [&] { return as.completed > 0; }));
    EXPECT_EQ(as.r.json, std::vector<std::string>{R"({"rc":0})"});
    EXPECT_EQ(s.got, std::vector<std::string>{R"(ping {"k":1})"});

    EXPECT_EQ(ubus_unsubscribe(ctx, &s.sub, test_id), 0);
    EXPECT_EQ(ubus_unsubscribe(ctx, &s.sub, test_id), UBUS_STATUS_NOT_FOUND);
    replies st3;
    EXPECT_EQ(call("state", nullptr, &st3), 0);
    EXPECT_EQ(st3.json, std::vector<std::string>{R"({"has_subscribers":false})"});

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

TEST_F(BusClient, EventsReachMatchingHandlersButNeverTheSender)
{
    event_log prefix, exact, other;
    prefix.ev.cb = exact.ev.cb = other.ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(ctx, &prefix.ev, "test.*"), 0);
    ASSERT_EQ(ubus_register_event_handler(ctx, &exact.ev, "test.event"), 0);
    ASSERT_EQ(ubus_register_event_handler(ctx, &exact.ev, "test.*"), 0) << "a second pattern, same handler";
    ASSERT_EQ(ubus_register_event_handler(ctx, &other.ev, "test.eventx"), 0);
    ubus_add_uloop(ctx);

    struct ubus_request req;
    async_state as;
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "n", 7);
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "event", b.head, &req), 0);
    req.complete_cb = async_complete_cb;
    req.priv = &as;
    ubus_complete_request_async(ctx, &req);
    ASSERT_TRUE(wait_until(3000, [&] { return as.completed && !prefix.got.empty() && !exact.got.empty(); }));
    wait_until(100, [] { return false; });
    EXPECT_EQ(as.status, 0);
    EXPECT_EQ(prefix.got, std::vector<std::string>{R"(test.event {"n":7})"});
    EXPECT_EQ(exact.got, std::vector<std::string>{R"(test.event {"n":7})"}) << "once per event";
    EXPECT_TRUE(other.got.empty());

    // Our own event reaches the peer's "peer.*" handler, not ours.
    event_log all;
    all.ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(ctx, &all.ev, "*"), 0);
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "from", "test");
    EXPECT_EQ(ubus_send_event(ctx, "peer.mine", b.head), 0);
    replies r;
    EXPECT_EQ(call("events", nullptr, &r), 0);
    EXPECT_EQ(r.json, std::vector<std::string>{R"({"events":["peer.mine"]})"});
    wait_until(100, [] { return false; });
    EXPECT_TRUE(all.got.empty());
}

int self_calls;
int self_cb(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *, struct blob_attr *)
{
    self_calls++;
    return 0;
}

const struct ubus_method self_methods[] = {UBUS_METHOD_NOARG("poke", self_cb)};
struct ubus_object_type self_type = UBUS_OBJECT_TYPE("self", self_methods);

struct ubus_object make_self(const char *name)
{
    struct ubus_object o = {};
    o.name = name;
    o.type = &self_type;
    o.methods = self_methods;
    o.n_methods = ARRAY_SIZE(self_methods);
    return o;
}

TEST_F(BusClient, ObjectAddAndRemoveAreAnnouncedToEveryoneIncludingThePublisher)
{
    event_log l;
    l.ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(ctx, &l.ev, "ubus.object.*"), 0);
    struct ubus_object self = make_self("self");
    self_type.id = 0;
    ASSERT_EQ(ubus_add_object(ctx, &self), 0);
    EXPECT_NE(self.id, 0u);
    EXPECT_NE(self_type.id, 0u);
    char expect[128];
    snprintf(expect, sizeof(expect), R"(ubus.object.add {"id":%d,"path":"self"})", (int)self.id);
    uint32_t id = self.id;
    ASSERT_EQ(ubus_remove_object(ctx, &self), 0);
    EXPECT_EQ(self.id, 0u);
    EXPECT_EQ(self_type.id, 0u) << "last user of the type";
    ubus_add_uloop(ctx);
    ASSERT_TRUE(wait_until(3000, [&] { return l.got.size() >= 2; }));
    EXPECT_EQ(l.got[0], expect);
    snprintf(expect, sizeof(expect), R"(ubus.object.remove {"id":%d,"path":"self"})", (int)id);
    EXPECT_EQ(l.got[1], expect);
}

TEST_F(BusClient, ObjectsShareTypesAndPathsAreUnique)
{
    struct ubus_object a = make_self("self.a"), b2 = make_self("self.b"), dup = make_self("test");
    self_type.id = 0;
    ASSERT_EQ(ubus_add_object(ctx, &a), 0);
    uint32_t type_id = self_type.id;
    ASSERT_EQ(ubus_add_object(ctx, &b2), 0);
    EXPECT_EQ(self_type.id, type_id);
    EXPECT_EQ(ubus_add_object(ctx, &dup), UBUS_STATUS_INVALID_ARGUMENT);
    lookup_seen seen;
    ASSERT_EQ(ubus_lookup(ctx, "self.*", lookup_cb, &seen), 0);
    ASSERT_EQ(seen.objs.size(), 2u);
    EXPECT_EQ(seen.objs["self.b"].second, R"({"poke":{}})") << "signature shared by type id";
    ASSERT_EQ(ubus_remove_object(ctx, &a), 0);
    EXPECT_EQ(self_type.id, type_id) << "still used by self.b";
    EXPECT_EQ(ubus_remove_object(ctx, &a), UBUS_STATUS_NOT_FOUND);
    ASSERT_EQ(ubus_remove_object(ctx, &b2), 0);
    EXPECT_EQ(self_type.id, 0u);
}

TEST_F(BusClient, SynchronousCallToOwnObjectTimesOutThenRuns)
{
    struct ubus_object self = make_self("self");
    self_type.id = 0;
    self_calls = 0;
    ASSERT_EQ(ubus_add_object(ctx, &self), 0);
    ubus_add_uloop(ctx);
    EXPECT_EQ(ubus_invoke(ctx, self.id, "poke", nullptr, nullptr, nullptr, 200), UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(self_calls, 0);
    EXPECT_TRUE(wait_until(1000, [] { return self_calls == 1; }));
    // Notifying without subscribers completes, with or without waiting.
    blob_buf_init(&b, 0);
    EXPECT_EQ(ubus_notify(ctx, &self, "x", b.head, 1000), 0);
    EXPECT_EQ(ubus_notify(ctx, &self, "x", b.head, -1), 0);
}

TEST_F(BusClient, LostConnectionFailsCallsAndEndsTheLoop)
{
    ubus_add_uloop(ctx);
    struct ubus_request req;
    async_state s;
    ASSERT_EQ(ubus_invoke_async(ctx, test_id, "silent", nullptr, &req), 0);
    req.complete_cb = async_complete_cb;
    req.priv = &s;
    ubus_complete_request_async(ctx, &req);
    EXPECT_EQ(broker->stop(SIGTERM), 0);
    uloop_run(); // ended by the default connection_lost
    EXPECT_EQ(s.completed, 1);
    EXPECT_EQ(s.status, UBUS_STATUS_TIMEOUT);
    EXPECT_EQ(call("echo", nullptr, nullptr), UBUS_STATUS_CONNECTION_FAILED);
}

struct auto_state {
    struct ubus_auto_conn conn = {};
    int connected = 0;
};

void auto_connected(struct ubus_context *ctx)
{
    container_of(ctx, auto_state, conn.ctx)->connected++;
}

TEST_F(BusClient, AutoReconnectRepublishesObjectsAndEventHandlers)
{
    static_assert(offsetof(auto_state, conn) == 0);
    auto_state as;
    as.conn.path = sock.c_str();
    as.conn.cb = auto_connected;
    ubus_auto_connect(&as.conn);
    ASSERT_EQ(as.connected, 1);
    struct ubus_object self = make_self("self");
    self_type.id = 0;
    ASSERT_EQ(ubus_add_object(&as.conn.ctx, &self), 0);
    event_log l;
    l.ev.cb = event_cb;
    ASSERT_EQ(ubus_register_event_handler(&as.conn.ctx, &l.ev, "mine.*"), 0);
    uint32_t old_id = self.id;

    EXPECT_EQ(broker->stop(SIGTERM), 0);
    broker = start_broker(sock);
    ASSERT_TRUE(broker);

    // Both our automatic connection and the peer's come back by themselves.
    struct ubus_context *probe = nullptr;
    ASSERT_TRUE(wait_until(5000, [&] {
        if (!probe)
            probe = ubus_connect(sock.c_str());
        uint32_t id;
        return probe && ubus_lookup_id(probe, "self", &id) == 0 && ubus_lookup_id(probe, "test", &id) == 0;
    }));
    EXPECT_EQ(as.connected, 1) << "the connect callback runs only the first time";
    EXPECT_NE(self.id, 0u);
    EXPECT_NE(self.id, old_id);

    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "a", 1);
    EXPECT_EQ(ubus_send_event(probe, "mine.x", b.head), 0);
    EXPECT_TRUE(wait_until(3000, [&] { return !l.got.empty(); }));
    EXPECT_EQ(l.got, std::vector<std::string>{R"(mine.x {"a":1})"});

    // The peer's handler for "peer.*" was registered again as well.
    EXPECT_EQ(ubus_send_event(probe, "peer.back", b.head), 0);
    ASSERT_EQ(ubus_lookup_id(probe, "test", &test_id), 0);
    replies r;
    blob_buf_init(&b, 0);
    EXPECT_EQ(ubus_invoke(probe, test_id, "events", b.head, collect_cb, &r, 3000), 0);
    EXPECT_EQ(r.json, std::vector<std::string>{R"({"events":["peer.back"]})"});

    ubus_free(probe);
    ubus_auto_shutdown(&as.conn);
}

} // namespace
} // namespace bus_test
