#include "broker.h"
#include "broker_server.h"

#include "src/util/root_test_support.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

namespace
{

using bytes = std::vector<uint8_t>;

bytes from_hex(const std::string &hex)
{
    bytes r;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        r.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
    return r;
}

struct sink : ubusd::transport {
    std::map<uint32_t, std::vector<bytes>> out;
    void send(uint32_t client, const uint8_t *msg, size_t len, int fd) override
    {
        out[client].emplace_back(msg, msg + len);
        if (fd >= 0)
            close(fd);
    }
    std::vector<bytes> take(uint32_t client) { return std::exchange(out[client], {}); }
};

// A decoded copy of a sent message.
struct seen {
    bytes raw;
    ubus_wire::msg m;
    explicit seen(const bytes &b) : raw(b) { EXPECT_TRUE(ubus_wire::decode(raw.data(), raw.size(), &m)); }
    seen(const seen &o) : raw(o.raw) { ubus_wire::decode(raw.data(), raw.size(), &m); }
    int status() const { return m.attr[UBUS_ATTR_STATUS] ? (int)ubus_wire::get_u32(m.attr[UBUS_ATTR_STATUS]) : -1; }
    uint32_t u32(int a) const { return m.attr[a] ? ubus_wire::get_u32(m.attr[a]) : 0; }
    std::string str(int a) const { return m.attr[a] ? ubus_wire::get_str(m.attr[a]) : ""; }
};

std::vector<seen> decode_all(const std::vector<bytes> &v)
{
    return std::vector<seen>(v.begin(), v.end());
}

// The attributes of a request; 0 and nullptr are left out.
struct attrs {
    uint32_t obj = 0;
    const char *method = nullptr;
    uint32_t target = 0;
    const char *path = nullptr;
    bool no_reply = false;
    const char *sig_hex = nullptr; // a whole SIGNATURE attribute
};

class BrokerCore : public ::testing::Test
{
  protected:
    sink out;
    ubusd::broker core{out};
    struct blob_buf b = {};
    uint16_t seq = 0;

    ~BrokerCore() override { blob_buf_free(&b); }

    uint32_t connect(const char *user = "alice", uid_t uid = 0, gid_t gid = 0)
    {
        uint32_t id = core.connect({uid, gid, user, user});
        core.hello(id);
        out.take(id);
        return id;
    }

    std::vector<seen> send(uint32_t client, int type, uint32_t peer = 0)
    {
        bytes frame;
        ubus_wire::encode(frame, type, ++seq, peer, b.head);
        core.receive(client, frame.data(), frame.size(), -1);
        return decode_all(out.take(client));
    }

    std::vector<seen> request(uint32_t client, int type, const attrs &a, uint32_t peer = 0)
    {
        blob_buf_init(&b, 0);
        if (a.path)
            blob_put_string(&b, UBUS_ATTR_OBJPATH, a.path);
        if (a.obj)
            blob_put_int32(&b, UBUS_ATTR_OBJID, a.obj);
        if (a.method)
            blob_put_string(&b, UBUS_ATTR_METHOD, a.method);
        if (a.target)
            blob_put_int32(&b, UBUS_ATTR_TARGET, a.target);
        if (a.no_reply)
            blob_put_int8(&b, UBUS_ATTR_NO_REPLY, 1);
        if (a.sig_hex) {
            bytes sig = from_hex(a.sig_hex);
            blob_put_raw(&b, sig.data(), sig.size());
        }
        return send(client, type, peer);
    }

    // Publishes path (nullptr: anonymous) with the given methods, which take
    // no arguments; the new object's id.
    uint32_t add(uint32_t client, const char *path, std::initializer_list<const char *> methods = {"m"})
    {
        blob_buf_init(&b, 0);
        if (path) {
            blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
            void *sig = blob_nest_start(&b, UBUS_ATTR_SIGNATURE);
            for (const char *m : methods)
                blobmsg_close_table(&b, blobmsg_open_table(&b, m));
            blob_nest_end(&b, sig);
        }
        auto r = send(client, UBUS_MSG_ADD_OBJECT);
        EXPECT_EQ(r.back().status(), 0) << (path ? path : "(anonymous)");
        return r.front().u32(UBUS_ATTR_OBJID);
    }

    // A call of the event object: "register" (object, pattern) or "send"
    // (id, a data table).
    int event_call(uint32_t client, const char *method, uint32_t obj, const char *name, bool data = true)
    {
        blob_buf_init(&b, 0);
        blob_put_int32(&b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
        blob_put_string(&b, UBUS_ATTR_METHOD, method);
        void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
        if (obj)
            blobmsg_add_u32(&b, "object", obj);
        if (name)
            blobmsg_add_string(&b, std::string(method) == "send" ? "id" : "pattern", name);
        if (data) {
            void *t = blobmsg_open_table(&b, "data");
            blobmsg_add_string(&b, "k", "v");
            blobmsg_close_table(&b, t);
        }
        blob_nest_end(&b, d);
        auto r = send(client, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT);
        return r.size() == 1 ? r[0].status() : -100;
    }
    int listen(uint32_t client, uint32_t obj, const char *pattern)
    {
        return event_call(client, "register", obj, pattern, false);
    }
};

TEST_F(BrokerCore, HelloAndAddAnswerWithTheRequestSeqAndPeer)
{
    uint32_t id = core.connect({});
    core.hello(id);
    auto h = decode_all(out.take(id));
    ASSERT_EQ(h.size(), 1u);
    EXPECT_EQ(h[0].raw.size(), 12u);
    EXPECT_EQ(h[0].m.type, UBUS_MSG_HELLO);
    EXPECT_EQ(h[0].m.peer, id);
    EXPECT_GE(id, 1024u);

    auto r = request(id, UBUS_MSG_ADD_OBJECT, {});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].m.type, UBUS_MSG_DATA);
    EXPECT_EQ(r[0].m.seq, seq);
    EXPECT_GE(r[0].u32(UBUS_ATTR_OBJID), 1024u);
    EXPECT_EQ(r[0].m.attr[UBUS_ATTR_OBJTYPE], nullptr);
    EXPECT_EQ(r[1].m.type, UBUS_MSG_STATUS);
    EXPECT_EQ(r[1].m.seq, seq);
    EXPECT_EQ(r[1].status(), 0);
    EXPECT_EQ(r[1].raw.size(), 8u + 12) << "STATUS carries only the status";
}

// Requests refused, or answered without data: the replies' statuses in order
// (-1: a DATA message). Client a owns "svc", its anonymous object "sub" and
// has a handler; client b owns "theirs".
TEST_F(BrokerCore, RefusedRequestsAnswerWithOneStatus)
{
    uint32_t a = connect("a"), other = connect("b");
    enum who : uint32_t { none, svc, sub, theirs, unknown, monitor };
    std::map<uint32_t, uint32_t> id{{none, 0}, {monitor, UBUS_SYSTEM_OBJECT_MONITOR}};
    id[svc] = add(a, "svc");
    id[sub] = add(a, nullptr);
    id[theirs] = add(other, nullptr);
    id[unknown] = id[svc] ^ 1;
    const int inval = UBUS_STATUS_INVALID_ARGUMENT, denied = UBUS_STATUS_PERMISSION_DENIED,
              notfound = UBUS_STATUS_NOT_FOUND, badcmd = UBUS_STATUS_INVALID_COMMAND,
              nomethod = UBUS_STATUS_METHOD_NOT_FOUND;
    // Signatures with an unnamed method, and with a string argument.
    const char *unnamed = "0600000c8200000800000000", *string_arg = "060000188200001400016d008300000a0001610078000000";
    struct row {
        const char *what;
        int type;
        bool from_other;
        who obj;
        const char *method;
        who target;
        const char *path, *sig_hex;
        bool no_reply;
        std::vector<int> statuses;
    } rows[] = {
        // clang-format off
        {"HELLO is the broker's", UBUS_MSG_HELLO, false, none, nullptr, none, nullptr, nullptr, false, {badcmd}},
        {"MONITOR is the broker's", UBUS_MSG_MONITOR, false, none, nullptr, none, nullptr, nullptr, false, {badcmd}},
        {"unknown type", 200, false, none, nullptr, none, nullptr, nullptr, false, {badcmd}},
        {"ping echoed", UBUS_MSG_PING, false, none, nullptr, none, "x", nullptr, false, {-1, 0}},
        {"duplicate path", UBUS_MSG_ADD_OBJECT, false, none, nullptr, none, "svc", nullptr, false, {inval}},
        {"unnamed method", UBUS_MSG_ADD_OBJECT, false, none, nullptr, none, "bad", unnamed, false, {inval}},
        {"string argument", UBUS_MSG_ADD_OBJECT, false, none, nullptr, none, "bad", string_arg, false, {inval}},
        {"remove without id", UBUS_MSG_REMOVE_OBJECT, false, none, nullptr, none, nullptr, nullptr, false, {inval}},
        {"remove unknown", UBUS_MSG_REMOVE_OBJECT, false, unknown, nullptr, none, nullptr, nullptr, false, {notfound}},
        {"remove another's", UBUS_MSG_REMOVE_OBJECT, true, svc, nullptr, none, nullptr, nullptr, false, {denied}},
        {"invoke without method", UBUS_MSG_INVOKE, false, svc, nullptr, none, nullptr, nullptr, false, {inval}},
        {"invoke unknown object", UBUS_MSG_INVOKE, false, unknown, "m", none, nullptr, nullptr, false, {notfound}},
        {"bad monitor method", UBUS_MSG_INVOKE, false, monitor, "nosuch", none, nullptr, nullptr, false, {nomethod}},
        {"subscribe to itself", UBUS_MSG_SUBSCRIBE, false, sub, nullptr, sub, nullptr, nullptr, false, {inval}},
        {"subscribe without target", UBUS_MSG_SUBSCRIBE, false, sub, nullptr, none, nullptr, nullptr, false, {inval}},
        {"subscribe to unknown", UBUS_MSG_SUBSCRIBE, false, sub, nullptr, unknown, nullptr, nullptr, false, {notfound}},
        {"another's subscriber", UBUS_MSG_SUBSCRIBE, false, theirs, nullptr, svc, nullptr, nullptr, false, {inval}},
        {"anonymous target of b", UBUS_MSG_SUBSCRIBE, false, sub, nullptr, theirs, nullptr, nullptr, false, {notfound}},
        {"notify without method", UBUS_MSG_NOTIFY, false, svc, nullptr, none, nullptr, nullptr, false, {inval}},
        {"notify for another's object", UBUS_MSG_NOTIFY, true, svc, "x", none, nullptr, nullptr, false, {denied}},
        {"notify asking no reply", UBUS_MSG_NOTIFY, false, svc, "x", none, nullptr, nullptr, true, {}},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<int> statuses;
        attrs at{id[r.obj], r.method, id[r.target], r.path, r.no_reply, r.sig_hex};
        for (const seen &s : request(r.from_other ? other : a, r.type, at, 77))
            statuses.push_back(s.m.type == UBUS_MSG_DATA ? -1 : s.status());
        EXPECT_EQ(statuses, r.statuses);
    }
    EXPECT_EQ(core.object_count(), 3u) << "nothing was added or removed";

    // Event registrations: the object must be the caller's, the pattern
    // present and not reserved.
    struct {
        uint32_t obj;
        const char *pattern;
        int status;
    } regs[] = {
        {id[sub], "a.*", 0},          {id[sub], nullptr, inval}, {5, "a", denied},
        {id[unknown], "a", notfound}, {id[theirs], "a", denied}, {id[sub], "", denied},
    };
    for (const auto &r : regs) {
        SCOPED_TRACE(r.pattern ? r.pattern : "(none)");
        EXPECT_EQ(listen(a, r.obj, r.pattern), r.status);
    }
    EXPECT_EQ(event_call(a, "send", 0, "x", false), inval) << "data table missing";
    EXPECT_EQ(event_call(a, "send", 0, "ubus.fake"), denied) << "reserved name";
    EXPECT_EQ(event_call(a, "nosuch", 0, nullptr), badcmd);
}

TEST_F(BrokerCore, LookupListsTypedObjectsInPathOrder)
{
    uint32_t c = connect();
    auto empty = request(c, UBUS_MSG_LOOKUP, {});
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0].status(), 0) << "listing an empty bus is not an error";
    for (const char *p : {"b", "a.x", "ab", "a"})
        add(c, p);
    add(c, nullptr);
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "x");
    blob_put_int32(&b, UBUS_ATTR_OBJTYPE, 0x12345678); // unknown type: not listed
    ASSERT_EQ(send(c, UBUS_MSG_ADD_OBJECT).back().status(), 0);

    struct {
        const char *pattern;
        std::vector<std::string> paths;
        int status;
    } rows[] = {
        {nullptr, {"a", "a.x", "ab", "b"}, 0},
        {"a*", {"a", "a.x", "ab"}, 0},
        {"a.*", {"a.x"}, 0},
        {"ab", {"ab"}, 0},
        {"x", {}, UBUS_STATUS_NOT_FOUND},
        {"", {}, UBUS_STATUS_INVALID_ARGUMENT},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern ? row.pattern : "(all)");
        std::vector<std::string> paths;
        int status = -1;
        for (auto &s : request(c, UBUS_MSG_LOOKUP, {.path = row.pattern})) {
            if (s.m.type != UBUS_MSG_DATA) {
                status = s.status();
                continue;
            }
            paths.push_back(s.str(UBUS_ATTR_OBJPATH));
            EXPECT_NE(s.m.attr[UBUS_ATTR_SIGNATURE], nullptr);
            EXPECT_NE(s.u32(UBUS_ATTR_OBJTYPE), 0u);
        }
        EXPECT_EQ(paths, row.paths);
        EXPECT_EQ(status, row.status);
    }
}

TEST_F(BrokerCore, TypesAreSharedAndReportedGoneWithTheirLastObject)
{
    uint32_t c = connect();
    auto r = request(c, UBUS_MSG_ADD_OBJECT, {.path = "one", .sig_hex = "06000004"});
    uint32_t first = r.front().u32(UBUS_ATTR_OBJID), type = r.front().u32(UBUS_ATTR_OBJTYPE);
    ASSERT_NE(type, 0u);
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "two");
    blob_put_int32(&b, UBUS_ATTR_OBJTYPE, type);
    r = send(c, UBUS_MSG_ADD_OBJECT);
    uint32_t second = r.front().u32(UBUS_ATTR_OBJID);
    EXPECT_EQ(r.front().m.attr[UBUS_ATTR_OBJTYPE], nullptr) << "no type id echoed when none was created";
    EXPECT_EQ(core.type_count(), 1u);

    r = request(c, UBUS_MSG_REMOVE_OBJECT, {.obj = first});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].m.attr[UBUS_ATTR_OBJTYPE], nullptr);
    r = request(c, UBUS_MSG_REMOVE_OBJECT, {.obj = second});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].u32(UBUS_ATTR_OBJTYPE), type);
    EXPECT_EQ(core.type_count(), 0u);
}

TEST_F(BrokerCore, InvokeIsForwardedAndRepliesComeBackFromTheObject)
{
    uint32_t owner = connect("owner"), caller = connect("caller");
    uint32_t obj = add(owner, "svc");
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    blob_put_string(&b, UBUS_ATTR_METHOD, "m");
    blob_nest_end(&b, blob_nest_start(&b, UBUS_ATTR_DATA));
    EXPECT_TRUE(send(caller, UBUS_MSG_INVOKE, obj).empty()) << "no status from the broker";
    uint16_t call_seq = seq;
    auto fwd = decode_all(out.take(owner));
    ASSERT_EQ(fwd.size(), 1u);
    EXPECT_EQ(fwd[0].m.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(fwd[0].m.seq, call_seq);
    EXPECT_EQ(fwd[0].m.peer, caller);
    EXPECT_EQ(fwd[0].u32(UBUS_ATTR_OBJID), obj);
    EXPECT_EQ(fwd[0].str(UBUS_ATTR_METHOD), "m");
    EXPECT_EQ(fwd[0].str(UBUS_ATTR_USER), "caller");
    EXPECT_EQ(fwd[0].str(UBUS_ATTR_GROUP), "caller");
    ASSERT_NE(fwd[0].m.attr[UBUS_ATTR_DATA], nullptr);

    // Owner answers to the caller; the broker names the object instead.
    bytes data, status;
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    blob_put(&b, UBUS_ATTR_DATA, nullptr, 0);
    ubus_wire::encode(data, UBUS_MSG_DATA, call_seq, caller, b.head);
    core.receive(owner, data.data(), data.size(), -1);
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    ubus_wire::encode(status, UBUS_MSG_STATUS, call_seq, caller, b.head);
    core.receive(owner, status.data(), status.size(), -1);
    EXPECT_TRUE(out.take(owner).empty());
    auto back = decode_all(out.take(caller));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].m.type, UBUS_MSG_DATA);
    EXPECT_EQ(back[0].m.peer, obj);
    EXPECT_EQ(back[0].m.seq, call_seq);
    EXPECT_EQ(bytes(back[0].raw.begin() + 8, back[0].raw.end()), bytes(data.begin() + 8, data.end()))
        << "payload forwarded unchanged";
    EXPECT_EQ(back[1].m.type, UBUS_MSG_STATUS);
    EXPECT_EQ(back[1].m.peer, obj);

    // Replies from a non-owner, or to a client that is gone, are dropped.
    core.receive(caller, status.data(), status.size(), -1);
    EXPECT_TRUE(out.take(caller).empty());
    core.disconnect(caller);
    core.receive(owner, status.data(), status.size(), -1);
    EXPECT_TRUE(out.take(caller).empty());
}

TEST_F(BrokerCore, EventsGoToEachMatchingObjectOnceButNeverBackToTheSender)
{
    uint32_t sender = connect(), rx = connect();
    uint32_t own = add(sender, nullptr), h1 = add(rx, nullptr), h2 = add(rx, nullptr);
    ASSERT_EQ(listen(sender, own, "*"), 0);
    ASSERT_EQ(listen(rx, h1, "net.*"), 0);
    ASSERT_EQ(listen(rx, h1, "net.up"), 0);
    ASSERT_EQ(listen(rx, h2, "net.upx"), 0);

    EXPECT_EQ(event_call(sender, "send", 0, "net.up"), 0) << "one reply: nothing for the sender's own handler";
    auto got = decode_all(out.take(rx));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].m.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(got[0].m.peer, 0u);
    EXPECT_EQ(got[0].u32(UBUS_ATTR_OBJID), h1);
    EXPECT_EQ(got[0].str(UBUS_ATTR_METHOD), "net.up");
    EXPECT_EQ(got[0].m.attr[UBUS_ATTR_USER], nullptr);
    ASSERT_NE(got[0].m.attr[UBUS_ATTR_DATA], nullptr);
    EXPECT_STREQ(blobmsg_name(static_cast<const struct blob_attr *>(blob_data(got[0].m.attr[UBUS_ATTR_DATA]))), "k");
    uint16_t first_seq = got[0].m.seq;
    event_call(sender, "send", 0, "net.down");
    got = decode_all(out.take(rx));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].m.seq, (uint16_t)(first_seq + 1)) << "broker-wide delivery counter";

    // Object events reach the publisher too, before its reply.
    ASSERT_EQ(listen(rx, h2, "ubus.object.*"), 0);
    auto r = request(rx, UBUS_MSG_ADD_OBJECT, {.path = "svc"});
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].str(UBUS_ATTR_METHOD), "ubus.object.add");
    EXPECT_EQ(r[1].m.type, UBUS_MSG_DATA);
    EXPECT_EQ(r[2].m.type, UBUS_MSG_STATUS);
}

TEST_F(BrokerCore, SubscriptionActivatesNotifiesAndEnds)
{
    uint32_t owner = connect(), watcher = connect();
    uint32_t target = add(owner, "svc"), sub = add(watcher, nullptr);
    auto active = [&](int seq, int on) {
        auto r = decode_all(out.take(owner));
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].m.type, UBUS_MSG_NOTIFY);
        EXPECT_EQ(r[0].m.seq, seq);
        EXPECT_EQ(r[0].u32(UBUS_ATTR_OBJID), target);
        ASSERT_NE(r[0].m.attr[UBUS_ATTR_ACTIVE], nullptr);
        EXPECT_EQ(blob_get_int8(r[0].m.attr[UBUS_ATTR_ACTIVE]), on);
    };
    ASSERT_EQ(request(watcher, UBUS_MSG_SUBSCRIBE, {.obj = sub, .target = target}).back().status(), 0);
    active(1, 1);

    auto st = request(owner, UBUS_MSG_NOTIFY, {.obj = target, .method = "changed"}, target);
    uint16_t nseq = seq;
    ASSERT_EQ(st.size(), 1u);
    EXPECT_EQ(st[0].status(), 0);
    EXPECT_EQ(st[0].m.peer, target);
    ASSERT_NE(st[0].m.attr[UBUS_ATTR_SUBSCRIBERS], nullptr);
    const auto *entry = static_cast<const struct blob_attr *>(blob_data(st[0].m.attr[UBUS_ATTR_SUBSCRIBERS]));
    EXPECT_EQ(blob_id(entry), 0u);
    EXPECT_EQ(blob_get_u32(entry), sub);
    auto inv = decode_all(out.take(watcher));
    ASSERT_EQ(inv.size(), 1u);
    EXPECT_EQ(inv[0].m.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(inv[0].m.seq, nseq);
    EXPECT_EQ(inv[0].m.peer, owner);
    EXPECT_EQ(inv[0].u32(UBUS_ATTR_OBJID), sub);
    EXPECT_EQ(inv[0].str(UBUS_ATTR_METHOD), "changed");

    // The subscriber's answer reaches the notifier, named by the subscriber.
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, sub);
    bytes ans;
    ubus_wire::encode(ans, UBUS_MSG_STATUS, nseq, owner, b.head);
    core.receive(watcher, ans.data(), ans.size(), -1);
    auto fwd = decode_all(out.take(owner));
    ASSERT_EQ(fwd.size(), 1u);
    EXPECT_EQ(fwd[0].m.peer, sub);

    // The last subscriber leaving deactivates the target; a second watcher
    // is told when the target goes.
    uint32_t w2 = connect(), sub2 = add(w2, nullptr);
    ASSERT_EQ(request(w2, UBUS_MSG_SUBSCRIBE, {.obj = sub2, .target = target}).back().status(), 0);
    core.disconnect(watcher);
    EXPECT_TRUE(out.take(owner).empty()) << "still watched";
    core.disconnect(w2);
    active(2, 0);
    w2 = connect(), sub2 = add(w2, nullptr);
    ASSERT_EQ(request(w2, UBUS_MSG_SUBSCRIBE, {.obj = sub2, .target = target}).back().status(), 0);
    core.disconnect(owner);
    auto gone = decode_all(out.take(w2));
    ASSERT_EQ(gone.size(), 1u);
    EXPECT_EQ(gone[0].m.type, UBUS_MSG_UNSUBSCRIBE);
    EXPECT_EQ(gone[0].u32(UBUS_ATTR_OBJID), sub2);
    EXPECT_EQ(gone[0].u32(UBUS_ATTR_TARGET), target);
    EXPECT_EQ(core.object_count(), 1u);
    EXPECT_EQ(core.type_count(), 0u);
}

TEST(EventMatch, TrailingStarIsAPrefixAnythingElseIsExact)
{
    struct {
        const char *pattern, *name;
        bool match;
    } cases[] = {
        {"*", "anything", true}, {"*", "", true},         {"net.*", "net.up", true},     {"net.*", "net.", true},
        {"net*", "net", true},   {"net.*", "net", false}, {"net.up", "net.up", true},    {"net.up", "net.upx", false},
        {"n*t", "nxt", false},   {"n*t", "n*t", true},    {"net.*.x", "net.a.x", false},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.name);
        EXPECT_EQ(ubusd::event_match(c.pattern, c.name), c.match);
    }
}

TEST(Signature, OnlyTablesOfNamedIntegersAreAccepted)
{
    struct {
        const char *what, *hex;
        bool valid;
    } cases[] = {
        // clang-format off
        {"no methods", "06000004", true},
        {"typed arguments", "0600002c82000020000161008500000c00016e0000000005"
                            "8500000c00017300000000038200000800016200", true},
        {"unnamed method", "0600000c8200000800000000", false},
        {"method as a string", "060000108300000a00016d0078000000", false},
        {"method as an array", "0600000c8100000800016d00", false},
        {"plain attribute", "0600000c0100000800000005", false},
        {"string argument", "060000188200001400016d008300000a0001610078000000", false},
        {"unnamed argument", "060000188200001400016d008500000c0000000000000005", false},
        {"nested argument", "060000208200001c00016d0082000014000174008500000c0001610000000005", false},
        {"argument longer than its method", "060000188200001400016d00850000400001610000000005", false},
        {"method longer than the signature", "0600000c8200004000016d00", false},
        {"name not terminated", "060000108200000c00036d6d6d780000", false},
        {"bytes left over", "060000108200000800016d0000000002", false},
        // clang-format on
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        bytes sig = from_hex(c.hex);
        EXPECT_EQ(ubusd::valid_signature(reinterpret_cast<const struct blob_attr *>(sig.data())), c.valid);
    }
}

// Access lists: one file for the user "guest", one for the group "staff".
const char *guest_acl = R"({
	"user": "guest",
	"access": {"svc": {"methods": ["m", "x"]}, "pub.*": {"methods": ["*"]}, "none": {"methods": []}},
	"publish": ["guest.*"], "subscribe": ["svc"], "listen": ["net.*"], "send": ["guest.ev"]
})";
const char *staff_acl =
    R"({"group": "staff", "access": {"svc": {"methods": ["n"], "priv": {"level": 2}}}, "send": ["*"]})";

TEST(AclTable, RulesGrantTheirUserOrGroupWhatTheyName)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    ASSERT_TRUE(t.add_json(staff_acl, "staff"));
    const ubusd::credentials guest{1000, 1000, "guest", "users"}, bob{1001, 50, "bob", "staff"},
        both{1000, 50, "guest", "staff"}, eve{1002, 1002, "eve", "eve"};
    using op = ubusd::acl_op;
    struct {
        const ubusd::credentials &c;
        op o;
        const char *name, *method;
        bool granted;
    } cases[] = {
        // clang-format off
        {guest, op::access, "svc", "m", true},          {guest, op::access, "svc", "n", false},
        {guest, op::access, "svc.sub", "m", false},     {guest, op::access, "pub.a", "anything", true},
        {guest, op::access, "pub", "anything", false},  {guest, op::access, "none", "m", false},
        {guest, op::publish, "guest.x", nullptr, true}, {guest, op::publish, "guest", nullptr, false},
        {guest, op::subscribe, "svc", nullptr, true},   {guest, op::subscribe, "pub.a", nullptr, false},
        {guest, op::listen, "net.up", nullptr, true},   {guest, op::listen, "net.*", nullptr, true},
        {guest, op::listen, "*", nullptr, false},       {guest, op::send, "guest.ev", nullptr, true},
        {guest, op::send, "guest.ev2", nullptr, false}, {bob, op::access, "svc", "n", true},
        {bob, op::access, "svc", "m", false},           {bob, op::send, "anything", nullptr, true},
        {bob, op::publish, "guest.x", nullptr, false},  {both, op::access, "svc", "n", true},
        {both, op::access, "svc", "m", true},           {eve, op::access, "svc", "m", false},
        {eve, op::send, "guest.ev", nullptr, false},
        // clang-format on
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.c.user + " " + std::to_string((int)c.o) + " " + c.name + " " + (c.method ? c.method : ""));
        EXPECT_EQ(t.allows(c.c, c.o, c.name, c.method), c.granted);
    }
}

// Each file grants the user "u" the events "<file name>.*" when it is loaded;
// note: why it is refused ("": loaded, nullptr: skipped without a note).
TEST(AclTable, OnlySoundFilesOfRootOrTheBrokerUserAreLoaded)
{
    temp_root dir;
    const char *bad = "not an access list (a JSON object naming a user or a group)";
    struct {
        const char *file;
        mode_t mode;
        const char *text, *note;
    } rows[] = {
        // clang-format off
        {"a.json", 0644, R"({"user":"u","send":["a.*"]})", ""},
        {"both.json", 0644, R"({"user":"u","group":"g","send":["both.*"]})", ""},
        {"b.json", 0664, R"({"user":"u","send":["b.*"]})", "writable by group or others"},
        {"c.json", 0646, R"({"user":"u","send":["c.*"]})", "writable by group or others"},
        {"d.txt", 0644, R"({"user":"u","send":["d.*"]})", nullptr},
        {"e.json", 0644, "not json", bad},
        {"h.json", 0644, R"({"send":["h.*"]})", bad},
        {"i.json", 0644, R"({"user":"","send":["i.*"]})", bad},
        {"j.json", 0644, R"({"user":5,"send":["j.*"]})", bad},
        {"k.json", 0644, R"([{"user":"u","send":["k.*"]}])", bad},
        // clang-format on
    };
    std::vector<std::string> expected{"g.json: not a regular file"};
    for (auto &r : rows) {
        dir.write("/" + std::string(r.file), r.text);
        ASSERT_EQ(chmod((dir / ("/" + std::string(r.file))).c_str(), r.mode), 0);
        if (r.note && *r.note)
            expected.push_back(std::string(r.file) + ": " + r.note);
    }
    mkdir((dir / "/g.json").c_str(), 0755);
    if (geteuid() == 0) {
        dir.write("/f.json", R"({"user":"u","send":["f.*"]})");
        ASSERT_EQ(chown((dir / "/f.json").c_str(), 65534, 65534), 0);
        expected.push_back("f.json: wrong owner");
    }
    std::vector<std::string> notes;
    auto t = ubusd::acl_table::load(dir.path(), geteuid(), &notes);
    for (auto &r : rows) {
        SCOPED_TRACE(r.file);
        std::string name(r.file);
        EXPECT_EQ(
            t.allows({1000, 1000, "u", "u"}, ubusd::acl_op::send, (name.substr(0, name.find('.')) + ".x").c_str()),
            r.note && !*r.note);
    }
    EXPECT_FALSE(t.allows({6, 6, "v", "g"}, ubusd::acl_op::send, "both.x")) << "a file naming both is about the user";
    std::sort(notes.begin(), notes.end());
    std::sort(expected.begin(), expected.end());
    for (auto &n : notes) // the notes hold the full path
        n = n.substr(n.rfind('/') + 1);
    EXPECT_EQ(notes, expected);
    EXPECT_EQ(ubusd::acl_table::load(dir / "/missing", 0, &notes).size(), 0u);
}

class BrokerAcl : public BrokerCore
{
  protected:
    void SetUp() override
    {
        ubusd::acl_table t;
        ASSERT_TRUE(t.add_json(guest_acl, "guest"));
        core.set_acl(std::move(t));
    }
};

// What a guest (and others) may do with the objects and events of root.
// LOOKUP rows: method holds what is listed, "path:method,method path:...".
TEST_F(BrokerAcl, RequestsAreCheckedAgainstTheCallersRules)
{
    uint32_t root = connect("root");
    std::map<std::string, uint32_t> obj{{"svc", add(root, "svc", {"m", "n", "x"})}, {"other", add(root, "other")}};
    add(root, "empty", {});
    add(root, "pub.a", {"q", "r"});
    obj["anon"] = add(root, nullptr);
    obj["gone"] = obj["svc"] ^ 0x4000;
    enum op { invoke, lookup, publish, subscribe, listen, send, monitor };
    const int denied = UBUS_STATUS_PERMISSION_DENIED;
    struct {
        const char *user;
        uid_t uid;
        gid_t gid;
        op o;
        const char *name, *method;
        int status;
    } rows[] = {
        // clang-format off
        {"guest", 1000, 1000, invoke, "svc", "m", 0},
        {"guest", 1000, 1000, invoke, "svc", "x", 0},
        {"guest", 1000, 1000, invoke, "svc", "n", denied},
        {"guest", 1000, 1000, invoke, "other", "m", denied},
        {"guest", 1000, 1000, invoke, "anon", "anything", 0},
        {"guest", 1000, 1000, invoke, "gone", "m", UBUS_STATUS_NOT_FOUND},
        {"admin", 0, 0, invoke, "other", "m", 0},
        {"guest", 1000, 1000, lookup, nullptr, "empty: pub.a:q,r svc:m,x", 0},
        {"root", 0, 0, lookup, "svc", "svc:m,n,x", 0},
        {"guest", 1000, 1000, lookup, "other", "", 0}, // found, but not shown
        {"guest", 1000, 1000, lookup, "nothere", "", UBUS_STATUS_NOT_FOUND},
        {"guest", 1000, 1000, publish, "guest.a", nullptr, 0},
        {"guest", 1000, 1000, publish, "svc2", nullptr, UBUS_STATUS_INVALID_ARGUMENT},
        {"guest", 1000, 1000, subscribe, "svc", nullptr, 0},
        {"guest", 1000, 1000, subscribe, "other", nullptr, UBUS_STATUS_NOT_FOUND},
        {"guest", 1000, 1000, listen, "net.up", nullptr, 0},
        {"guest", 1000, 1000, listen, "net.*", nullptr, 0},
        {"guest", 1000, 1000, listen, "*", nullptr, denied},
        {"guest", 1000, 1000, listen, "ubus.object.add", nullptr, denied},
        {"guest", 1000, 1000, send, "guest.ev", nullptr, 0},
        {"guest", 1000, 1000, send, "net.up", nullptr, denied},
        {"root", 0, 0, monitor, nullptr, nullptr, 0},
        {"guest", 0, 5, monitor, nullptr, nullptr, denied},
        {"guest", 5, 0, monitor, nullptr, nullptr, denied},
        {"guest", 1000, 1000, monitor, nullptr, nullptr, denied},
        // clang-format on
    };
    for (auto &r : rows) {
        SCOPED_TRACE(std::string(r.user) + " " + std::to_string(r.o) + " " + (r.name ? r.name : ""));
        uint32_t c = connect(r.user, r.uid, r.gid), own = add(c, nullptr);
        std::vector<seen> replies;
        switch (r.o) {
        case invoke:
            replies = request(c, UBUS_MSG_INVOKE, {.obj = obj[r.name], .method = r.method}, obj[r.name]);
            // Forwarded: the owner got it and answers itself.
            EXPECT_EQ(replies.empty() ? (int)out.take(root).size() - 1 : replies.back().status(), r.status);
            break;
        case lookup: {
            std::string shown;
            for (auto &s : request(c, UBUS_MSG_LOOKUP, {.path = r.name})) {
                if (s.m.type != UBUS_MSG_DATA) {
                    EXPECT_EQ(s.status(), r.status);
                    continue;
                }
                shown += (shown.empty() ? "" : " ") + s.str(UBUS_ATTR_OBJPATH) + ":";
                std::string sep;
                ubus_wire::for_each_child(s.m.attr[UBUS_ATTR_SIGNATURE], [&](struct blob_attr *m) {
                    shown += std::exchange(sep, ",") + blobmsg_name(m);
                });
            }
            EXPECT_EQ(shown, r.method);
            break;
        }
        case publish:
            replies = request(c, UBUS_MSG_ADD_OBJECT, {.path = r.name, .sig_hex = "06000004"});
            EXPECT_EQ(replies.size(), r.status ? 1u : 2u) << "no DATA before a refusal";
            EXPECT_EQ(replies.back().status(), r.status);
            break;
        case subscribe:
            EXPECT_EQ(request(c, UBUS_MSG_SUBSCRIBE, {.obj = own, .target = obj[r.name]}).back().status(), r.status);
            break;
        case listen:
            EXPECT_EQ(BrokerCore::listen(c, own, r.name), r.status);
            break;
        case send:
            EXPECT_EQ(event_call(c, "send", 0, r.name), r.status);
            break;
        case monitor:
            EXPECT_EQ(request(c, UBUS_MSG_INVOKE, {.obj = UBUS_SYSTEM_OBJECT_MONITOR, .method = "add"}).back().status(),
                      r.status);
            request(root, UBUS_MSG_PING, {.path = "AT+CPIN=\"4321\""});
            EXPECT_EQ(out.take(c).empty(), r.status != 0) << "copies of another client's traffic";
            break;
        }
        out.take(root);
        core.disconnect(c);
    }
    core.set_owner(1000, 1000);
    uint32_t own = connect("guest", 1000, 1000);
    EXPECT_EQ(request(own, UBUS_MSG_INVOKE, {.obj = UBUS_SYSTEM_OBJECT_MONITOR, .method = "add"}).back().status(), 0)
        << "the broker's own user";
}

TEST_F(BrokerAcl, QueryListsRulesOnTheCallersObjectsAndReloadsAreAnnounced)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    ASSERT_TRUE(t.add_json(staff_acl, "staff"));
    core.set_acl(std::move(t));
    uint32_t root = connect("root");
    add(root, "svc");
    add(root, "plain");
    ASSERT_EQ(listen(root, add(root, nullptr), "ubus.acl.*"), 0);

    auto r = request(root, UBUS_MSG_INVOKE, {.obj = UBUS_SYSTEM_OBJECT_ACL, .method = "query"});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1].status(), 0);
    ASSERT_NE(r[0].m.attr[UBUS_ATTR_DATA], nullptr);
    char *text = blobmsg_format_json(r[0].m.attr[UBUS_ATTR_DATA], true);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, R"({"seq":2,"acl":[{"obj":"svc","user":"guest","methods":["m","x"]},)"
                       R"({"obj":"svc","group":"staff","methods":["n"],"priv":{"level":2}}]})");
    free(text);

    core.set_acl(ubusd::acl_table());
    auto ev = decode_all(out.take(root));
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].str(UBUS_ATTR_METHOD), "ubus.acl.sequence");
    auto *seqattr = static_cast<struct blob_attr *>(blob_data(ev[0].m.attr[UBUS_ATTR_DATA]));
    EXPECT_STREQ(blobmsg_name(seqattr), "sequence");
    EXPECT_EQ(blobmsg_get_u32(seqattr), 3u);
    EXPECT_EQ(core.acl_sequence(), 3u);
}

// The socket front end on socket pairs, driven by uloop in this thread.
class ServerBuffers : public ::testing::Test
{
  protected:
    std::unique_ptr<ubusd::server> srv;
    std::vector<int> fds;

    void SetUp() override
    {
        uloop_init();
        srv = std::make_unique<ubusd::server>();
    }
    void TearDown() override
    {
        srv.reset();
        for (int fd : fds)
            close(fd);
        uloop_done();
    }
    // A client's end of a new connection; its HELLO is consumed.
    int client()
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        srv->adopt(sv[0]);
        uint8_t hello[12];
        EXPECT_EQ(read(sv[1], hello, sizeof(hello)), 12);
        fcntl(sv[1], F_SETFL, O_NONBLOCK);
        fds.push_back(sv[1]);
        return sv[1];
    }
    // Lets the server handle whatever is waiting (one callback per pass).
    void pump()
    {
        for (int i = 0; i < 256; i++)
            uloop_run_timeout(0);
    }
    // Writes everything, letting the server read when the socket is full.
    void feed(int fd, const uint8_t *p, size_t len)
    {
        while (len) {
            ssize_t n = write(fd, p, len);
            if (n > 0) {
                p += n;
                len -= n;
            } else if (errno == EAGAIN) {
                pump();
            } else {
                break; // dropped
            }
        }
        pump();
    }
    bool closed(int fd)
    {
        uint8_t buf[256];
        ssize_t n;
        while ((n = read(fd, buf, sizeof(buf))) > 0) {
        }
        return n == 0 || errno == ECONNRESET;
    }
    // Whether fd got the one STATUS that answers a completed big_lookup.
    bool answered(int fd)
    {
        uint8_t status[20];
        return read(fd, status, sizeof(status)) == 20 && status[1] == UBUS_MSG_STATUS;
    }
    // A LOOKUP of everything padded to total bytes with an attribute the
    // broker ignores (id 20); it is answered with one STATUS.
    static bytes big_lookup(uint32_t total)
    {
        bytes m(total, 0);
        uint32_t top = total - 8, pad = top - 4;
        const uint8_t hdr[] = {0,
                               UBUS_MSG_LOOKUP,
                               0,
                               1,
                               0,
                               0,
                               0,
                               0,
                               0,
                               uint8_t(top >> 16),
                               uint8_t(top >> 8),
                               uint8_t(top),
                               20,
                               uint8_t(pad >> 16),
                               uint8_t(pad >> 8),
                               uint8_t(pad)};
        std::copy(std::begin(hdr), std::end(hdr), m.begin());
        return m;
    }
};

// An announced length is held only as it arrives; the client that goes
// beyond the limit on what is held is dropped, and only it.
TEST_F(ServerBuffers, MessagesAreHeldAsTheyArriveUpToTheLimit)
{
    srv->set_max_held(300 * 1024);
    bytes msg = big_lookup(256 * 1024);
    std::vector<int> cl;
    for (int i = 0; i < 50; i++) {
        cl.push_back(client());
        feed(cl.back(), msg.data(), 12);
    }
    EXPECT_LE(srv->held(), 50u * 64) << "headers alone";
    feed(cl[0], msg.data() + 12, 200 * 1024 - 12);
    EXPECT_GE(srv->held(), 200u * 1024);
    EXPECT_FALSE(closed(cl[0]));
    feed(cl[1], msg.data() + 12, 150 * 1024);
    EXPECT_TRUE(closed(cl[1]));
    EXPECT_FALSE(closed(cl[0]));
    EXPECT_EQ(srv->client_count(), 49u);
    EXPECT_LE(srv->held(), 300u * 1024);
    // Others go on being served, and the first message can still be completed.
    bytes small = big_lookup(64);
    int c = client();
    feed(c, small.data(), small.size());
    EXPECT_TRUE(answered(c));
    feed(cl[0], msg.data() + 200 * 1024, msg.size() - 200 * 1024);
    EXPECT_TRUE(answered(cl[0]));
    EXPECT_LE(srv->held(), 48u * 64) << "and no longer held";
    for (int i = 2; i < 50; i++) {
        close(cl[i]);
        std::erase(fds, cl[i]);
    }
    pump();
    EXPECT_EQ(srv->held(), 0u);
    EXPECT_EQ(srv->client_count(), 2u);
}

} // namespace
