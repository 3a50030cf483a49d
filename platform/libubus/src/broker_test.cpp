#include "broker.h"
#include "broker_server.h"

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <ftw.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <random>

namespace
{

using bytes = std::vector<uint8_t>;

struct sink : ubusd::transport {
    std::map<uint32_t, std::vector<bytes>> out;
    void send(uint32_t client, const uint8_t *msg, size_t len, int fd) override
    {
        out[client].emplace_back(msg, msg + len);
        if (fd >= 0)
            close(fd);
    }
    std::vector<bytes> take(uint32_t client)
    {
        auto v = std::move(out[client]);
        out[client].clear();
        return v;
    }
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
    std::vector<seen> r;
    for (auto &b : v)
        r.emplace_back(b);
    return r;
}

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
        ubusd::credentials c;
        c.uid = uid;
        c.gid = gid;
        c.user = user;
        c.group = user;
        uint32_t id = core.connect(c);
        core.hello(id);
        out.take(id);
        return id;
    }

    void start() { blob_buf_init(&b, 0); }

    std::vector<seen> send(uint32_t client, int type, uint32_t peer = 0, int fd = -1)
    {
        bytes frame;
        ubus_wire::encode(frame, type, ++seq, peer, b.head);
        core.receive(client, frame.data(), frame.size(), fd);
        return decode_all(out.take(client));
    }

    // Publishes path (NULL: anonymous) with one method "m" taking "n":INT32.
    uint32_t add(uint32_t client, const char *path, uint32_t *type = nullptr)
    {
        start();
        if (path) {
            blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
            void *sig = blob_nest_start(&b, UBUS_ATTR_SIGNATURE);
            void *t = blobmsg_open_table(&b, "m");
            blobmsg_add_u32(&b, "n", BLOBMSG_TYPE_INT32);
            blobmsg_close_table(&b, t);
            blob_nest_end(&b, sig);
        }
        auto r = send(client, UBUS_MSG_ADD_OBJECT);
        EXPECT_EQ(r.back().status(), 0);
        if (type)
            *type = r.front().u32(UBUS_ATTR_OBJTYPE);
        return r.front().u32(UBUS_ATTR_OBJID);
    }

    std::vector<seen> event_call(uint32_t client, const char *method, const std::function<void()> &fill)
    {
        start();
        blob_put_int32(&b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
        blob_put_string(&b, UBUS_ATTR_METHOD, method);
        void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
        fill();
        blob_nest_end(&b, d);
        return send(client, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT);
    }

    int register_pattern(uint32_t client, uint32_t obj, const char *pattern)
    {
        auto r = event_call(client, "register", [&] {
            blobmsg_add_u32(&b, "object", obj);
            if (pattern)
                blobmsg_add_string(&b, "pattern", pattern);
        });
        return r.size() == 1 ? r[0].status() : -100;
    }
};

TEST_F(BrokerCore, HelloNamesTheNewClient)
{
    uint32_t id = core.connect({});
    core.hello(id);
    auto r = decode_all(out.take(id));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].raw.size(), 12u);
    EXPECT_EQ(r[0].m.type, UBUS_MSG_HELLO);
    EXPECT_EQ(r[0].m.seq, 0);
    EXPECT_EQ(r[0].m.peer, id);
    EXPECT_GE(id, 1024u);
}

TEST_F(BrokerCore, AnonymousAddAnswersIdThenStatusWithTheRequestSeqAndPeer)
{
    uint32_t c = connect();
    start();
    auto r = send(c, UBUS_MSG_ADD_OBJECT, 0);
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

// Every kind of request refused, or answered without data: the replies'
// statuses in order (-1: a DATA message). Client a owns "svc" (obj), its
// anonymous object sub and the registered handler; client b owns theirs.
struct ids {
    uint32_t obj, sub, theirs;
};

TEST_F(BrokerCore, RefusedRequestsAnswerWithOneStatus)
{
    uint32_t a = connect("a"), other = connect("b");
    ids id{add(a, "svc"), add(a, nullptr), add(other, nullptr)};
    using fill_fn = void (*)(blob_buf *, const ids &);
    struct row {
        const char *what;
        int type;
        bool from_other;
        fill_fn fill;
        std::vector<int> statuses;
    } rows[] = {
        {"HELLO is the broker's", UBUS_MSG_HELLO, false, nullptr, {UBUS_STATUS_INVALID_COMMAND}},
        {"MONITOR is the broker's", UBUS_MSG_MONITOR, false, nullptr, {UBUS_STATUS_INVALID_COMMAND}},
        {"unknown type", 200, false, nullptr, {UBUS_STATUS_INVALID_COMMAND}},
        {"ping echoed",
         UBUS_MSG_PING,
         false,
         [](blob_buf *b, const ids &) { blob_put_string(b, UBUS_ATTR_OBJPATH, "x"); },
         {-1, 0}},
        {"duplicate path",
         UBUS_MSG_ADD_OBJECT,
         false,
         [](blob_buf *b, const ids &) { blob_put_string(b, UBUS_ATTR_OBJPATH, "svc"); },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"unnamed method in the signature",
         UBUS_MSG_ADD_OBJECT,
         false,
         [](blob_buf *b, const ids &) {
             blob_put_string(b, UBUS_ATTR_OBJPATH, "bad");
             void *sig = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
             blobmsg_close_table(b, blobmsg_open_table(b, nullptr));
             blob_nest_end(b, sig);
         },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"string argument in the signature",
         UBUS_MSG_ADD_OBJECT,
         false,
         [](blob_buf *b, const ids &) {
             blob_put_string(b, UBUS_ATTR_OBJPATH, "bad");
             void *sig = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
             void *t = blobmsg_open_table(b, "m");
             blobmsg_add_string(b, "a", "String");
             blobmsg_close_table(b, t);
             blob_nest_end(b, sig);
         },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"remove without id", UBUS_MSG_REMOVE_OBJECT, false, nullptr, {UBUS_STATUS_INVALID_ARGUMENT}},
        {"remove unknown",
         UBUS_MSG_REMOVE_OBJECT,
         false,
         [](blob_buf *b, const ids &i) { blob_put_int32(b, UBUS_ATTR_OBJID, i.obj ^ 1); },
         {UBUS_STATUS_NOT_FOUND}},
        {"remove another's",
         UBUS_MSG_REMOVE_OBJECT,
         true,
         [](blob_buf *b, const ids &i) { blob_put_int32(b, UBUS_ATTR_OBJID, i.obj); },
         {UBUS_STATUS_PERMISSION_DENIED}},
        {"invoke without method",
         UBUS_MSG_INVOKE,
         false,
         [](blob_buf *b, const ids &i) { blob_put_int32(b, UBUS_ATTR_OBJID, i.obj); },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"invoke unknown object",
         UBUS_MSG_INVOKE,
         false,
         [](blob_buf *b, const ids &) {
             blob_put_int32(b, UBUS_ATTR_OBJID, 5000);
             blob_put_string(b, UBUS_ATTR_METHOD, "m");
         },
         {UBUS_STATUS_NOT_FOUND}},
        {"unknown monitor method",
         UBUS_MSG_INVOKE,
         false,
         [](blob_buf *b, const ids &) {
             blob_put_int32(b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_MONITOR);
             blob_put_string(b, UBUS_ATTR_METHOD, "nosuch");
         },
         {UBUS_STATUS_METHOD_NOT_FOUND}},
        {"subscribe to itself",
         UBUS_MSG_SUBSCRIBE,
         false,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.sub);
             blob_put_int32(b, UBUS_ATTR_TARGET, i.obj);
         },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"subscribe without target",
         UBUS_MSG_SUBSCRIBE,
         false,
         [](blob_buf *b, const ids &i) { blob_put_int32(b, UBUS_ATTR_OBJID, i.sub); },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"subscribe to unknown",
         UBUS_MSG_SUBSCRIBE,
         false,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.sub);
             blob_put_int32(b, UBUS_ATTR_TARGET, 2);
         },
         {UBUS_STATUS_NOT_FOUND}},
        {"subscribe with another's subscriber",
         UBUS_MSG_SUBSCRIBE,
         false,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.theirs);
             blob_put_int32(b, UBUS_ATTR_TARGET, i.obj);
         },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"subscribe to another's anonymous object",
         UBUS_MSG_SUBSCRIBE,
         false,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.sub);
             blob_put_int32(b, UBUS_ATTR_TARGET, i.theirs);
         },
         {UBUS_STATUS_NOT_FOUND}},
        {"notify without method",
         UBUS_MSG_NOTIFY,
         false,
         [](blob_buf *b, const ids &i) { blob_put_int32(b, UBUS_ATTR_OBJID, i.obj); },
         {UBUS_STATUS_INVALID_ARGUMENT}},
        {"notify for another's object",
         UBUS_MSG_NOTIFY,
         true,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.obj);
             blob_put_string(b, UBUS_ATTR_METHOD, "x");
         },
         {UBUS_STATUS_PERMISSION_DENIED}},
        {"notify asking no reply",
         UBUS_MSG_NOTIFY,
         false,
         [](blob_buf *b, const ids &i) {
             blob_put_int32(b, UBUS_ATTR_OBJID, i.obj);
             blob_put_string(b, UBUS_ATTR_METHOD, "x");
             blob_put_int8(b, UBUS_ATTR_NO_REPLY, 1);
         },
         {}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        start();
        if (r.fill)
            r.fill(&b, id);
        std::vector<int> statuses;
        for (const seen &s : send(r.from_other ? other : a, r.type, 77))
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
        {id.sub, "a.*", 0},
        {id.sub, nullptr, UBUS_STATUS_INVALID_ARGUMENT},
        {5, "a", UBUS_STATUS_PERMISSION_DENIED},
        {id.sub ^ 0x10000, "a", UBUS_STATUS_NOT_FOUND},
        {id.theirs, "a", UBUS_STATUS_PERMISSION_DENIED},
        {id.sub, "", UBUS_STATUS_PERMISSION_DENIED},
    };
    for (const auto &r : regs) {
        SCOPED_TRACE(r.pattern ? r.pattern : "(none)");
        EXPECT_EQ(register_pattern(a, r.obj, r.pattern), r.status);
    }
    auto r = event_call(a, "register", [&] {
        blobmsg_add_string(&b, "object", "1234");
        blobmsg_add_string(&b, "pattern", "a");
    });
    EXPECT_EQ(r.back().status(), UBUS_STATUS_INVALID_ARGUMENT) << "object must be an INT32";
    EXPECT_EQ(event_call(a, "nosuch", [] {}).back().status(), UBUS_STATUS_INVALID_COMMAND);
}

TEST_F(BrokerCore, LookupListsTypedObjectsInPathOrder)
{
    uint32_t c = connect();
    start();
    auto empty = send(c, UBUS_MSG_LOOKUP);
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0].status(), 0) << "listing an empty bus is not an error";
    for (const char *p : {"b", "a.x", "ab", "a"})
        add(c, p);
    add(c, nullptr);
    start();
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "x");
    blob_put_int32(&b, UBUS_ATTR_OBJTYPE, 0x12345678); // unknown type: no type
    ASSERT_EQ(send(c, UBUS_MSG_ADD_OBJECT).back().status(), 0);

    auto paths = [&](const char *pattern, int *status) {
        start();
        if (pattern)
            blob_put_string(&b, UBUS_ATTR_OBJPATH, pattern);
        std::vector<std::string> r;
        for (auto &s : send(c, UBUS_MSG_LOOKUP)) {
            if (s.m.type == UBUS_MSG_DATA) {
                r.push_back(s.str(UBUS_ATTR_OBJPATH));
                EXPECT_NE(s.m.attr[UBUS_ATTR_SIGNATURE], nullptr);
                EXPECT_NE(s.u32(UBUS_ATTR_OBJTYPE), 0u);
            } else {
                *status = s.status();
            }
        }
        return r;
    };
    int st;
    EXPECT_EQ(paths(nullptr, &st), (std::vector<std::string>{"a", "a.x", "ab", "b"}));
    EXPECT_EQ(st, 0);
    EXPECT_EQ(paths("a*", &st), (std::vector<std::string>{"a", "a.x", "ab"}));
    EXPECT_EQ(paths("a.*", &st), (std::vector<std::string>{"a.x"}));
    EXPECT_EQ(paths("ab", &st), (std::vector<std::string>{"ab"}));
    EXPECT_TRUE(paths("x", &st).empty());
    EXPECT_EQ(st, UBUS_STATUS_NOT_FOUND);
    EXPECT_TRUE(paths("", &st).empty());
    EXPECT_EQ(st, UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(BrokerCore, TypesAreSharedAndReportedGoneWithTheirLastObject)
{
    uint32_t c = connect();
    uint32_t type;
    uint32_t first = add(c, "one", &type);
    ASSERT_NE(type, 0u);
    start();
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "two");
    blob_put_int32(&b, UBUS_ATTR_OBJTYPE, type);
    auto r = send(c, UBUS_MSG_ADD_OBJECT);
    uint32_t second = r.front().u32(UBUS_ATTR_OBJID);
    EXPECT_EQ(r.front().m.attr[UBUS_ATTR_OBJTYPE], nullptr) << "no type id echoed when none was created";
    EXPECT_EQ(core.type_count(), 1u);

    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, first);
    r = send(c, UBUS_MSG_REMOVE_OBJECT);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].m.attr[UBUS_ATTR_OBJTYPE], nullptr);
    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, second);
    r = send(c, UBUS_MSG_REMOVE_OBJECT);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].u32(UBUS_ATTR_OBJTYPE), type);
    EXPECT_EQ(core.type_count(), 0u);
}

TEST_F(BrokerCore, InvokeIsForwardedAndRepliesComeBackFromTheObject)
{
    uint32_t owner = connect("owner"), caller = connect("caller");
    uint32_t obj = add(owner, "svc");
    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    blob_put_string(&b, UBUS_ATTR_METHOD, "m");
    void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
    blobmsg_add_u32(&b, "n", 5);
    blob_nest_end(&b, d);
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
    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    blob_put(&b, UBUS_ATTR_DATA, nullptr, 0);
    bytes data;
    ubus_wire::encode(data, UBUS_MSG_DATA, call_seq, caller, b.head);
    core.receive(owner, data.data(), data.size(), -1);
    start();
    blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
    bytes status;
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
    EXPECT_TRUE(out.out.count(caller) == 0 || out.out[caller].empty());
}

TEST_F(BrokerCore, EventsGoToEachMatchingObjectOnceAndNeverToTheSender)
{
    uint32_t sender = connect(), rx = connect();
    uint32_t own = add(sender, nullptr);
    uint32_t h1 = add(rx, nullptr), h2 = add(rx, nullptr);
    ASSERT_EQ(register_pattern(sender, own, "*"), 0);
    ASSERT_EQ(register_pattern(rx, h1, "net.*"), 0);
    ASSERT_EQ(register_pattern(rx, h1, "net.up"), 0);
    ASSERT_EQ(register_pattern(rx, h2, "net.upx"), 0);

    auto send_event = [&](const char *name) {
        return event_call(sender, "send", [&] {
            blobmsg_add_string(&b, "id", name);
            void *t = blobmsg_open_table(&b, "data");
            blobmsg_add_string(&b, "k", "v");
            blobmsg_close_table(&b, t);
        });
    };
    auto r = send_event("net.up");
    ASSERT_EQ(r.size(), 1u) << "nothing for the sender's own handler";
    EXPECT_EQ(r[0].status(), 0);
    auto got = decode_all(out.take(rx));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].m.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(got[0].m.peer, 0u);
    EXPECT_EQ(got[0].u32(UBUS_ATTR_OBJID), h1);
    EXPECT_EQ(got[0].str(UBUS_ATTR_METHOD), "net.up");
    EXPECT_EQ(got[0].m.attr[UBUS_ATTR_USER], nullptr);
    const struct blob_attr *data = got[0].m.attr[UBUS_ATTR_DATA];
    ASSERT_NE(data, nullptr);
    const auto *kv = static_cast<const struct blob_attr *>(blob_data(data));
    EXPECT_STREQ(blobmsg_name(kv), "k");
    uint16_t first_seq = got[0].m.seq;

    send_event("net.down");
    got = decode_all(out.take(rx));
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].m.seq, (uint16_t)(first_seq + 1)) << "broker-wide delivery counter";

    EXPECT_EQ(send_event("ubus.fake").back().status(), UBUS_STATUS_PERMISSION_DENIED);
    auto bad = event_call(sender, "send", [&] { blobmsg_add_string(&b, "id", "x"); });
    EXPECT_EQ(bad.back().status(), UBUS_STATUS_INVALID_ARGUMENT) << "data table missing";
}

TEST_F(BrokerCore, ObjectEventsReachThePublisherToo)
{
    uint32_t c = connect();
    uint32_t h = add(c, nullptr);
    ASSERT_EQ(register_pattern(c, h, "ubus.object.*"), 0);
    start();
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "svc");
    auto r = send(c, UBUS_MSG_ADD_OBJECT);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].m.type, UBUS_MSG_INVOKE) << "event before the reply";
    EXPECT_EQ(r[0].str(UBUS_ATTR_METHOD), "ubus.object.add");
    EXPECT_EQ(r[1].m.type, UBUS_MSG_DATA);
    EXPECT_EQ(r[2].m.type, UBUS_MSG_STATUS);
}

TEST_F(BrokerCore, SubscriptionNotifyAndTargetRemoval)
{
    uint32_t owner = connect(), watcher = connect();
    uint32_t target = add(owner, "svc");
    uint32_t sub = add(watcher, nullptr);

    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, sub);
    blob_put_int32(&b, UBUS_ATTR_TARGET, target);
    ASSERT_EQ(send(watcher, UBUS_MSG_SUBSCRIBE).back().status(), 0);
    auto active = decode_all(out.take(owner));
    ASSERT_EQ(active.size(), 1u);
    EXPECT_EQ(active[0].m.type, UBUS_MSG_NOTIFY);
    EXPECT_EQ(active[0].m.seq, 1);
    EXPECT_EQ(active[0].u32(UBUS_ATTR_OBJID), target);
    ASSERT_NE(active[0].m.attr[UBUS_ATTR_ACTIVE], nullptr);
    EXPECT_EQ(blob_get_int8(active[0].m.attr[UBUS_ATTR_ACTIVE]), 1);

    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, target);
    blob_put_string(&b, UBUS_ATTR_METHOD, "changed");
    blob_put(&b, UBUS_ATTR_DATA, nullptr, 0);
    auto st = send(owner, UBUS_MSG_NOTIFY, target);
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
    start();
    blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, sub);
    bytes ans;
    ubus_wire::encode(ans, UBUS_MSG_STATUS, nseq, owner, b.head);
    core.receive(watcher, ans.data(), ans.size(), -1);
    auto fwd = decode_all(out.take(owner));
    ASSERT_EQ(fwd.size(), 1u);
    EXPECT_EQ(fwd[0].m.peer, sub);

    core.disconnect(owner);
    auto gone = decode_all(out.take(watcher));
    ASSERT_EQ(gone.size(), 1u);
    EXPECT_EQ(gone[0].m.type, UBUS_MSG_UNSUBSCRIBE);
    EXPECT_EQ(gone[0].u32(UBUS_ATTR_OBJID), sub);
    EXPECT_EQ(gone[0].u32(UBUS_ATTR_TARGET), target);
    EXPECT_EQ(core.object_count(), 1u);
    EXPECT_EQ(core.type_count(), 0u);
}

TEST_F(BrokerCore, LastSubscriberLeavingDeactivatesTheTarget)
{
    uint32_t owner = connect(), watcher = connect();
    uint32_t target = add(owner, "svc");
    uint32_t sub = add(watcher, nullptr);
    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, sub);
    blob_put_int32(&b, UBUS_ATTR_TARGET, target);
    ASSERT_EQ(send(watcher, UBUS_MSG_SUBSCRIBE).back().status(), 0);
    out.take(owner);
    core.disconnect(watcher);
    auto r = decode_all(out.take(owner));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].m.type, UBUS_MSG_NOTIFY);
    EXPECT_EQ(r[0].m.seq, 2);
    EXPECT_EQ(blob_get_int8(r[0].m.attr[UBUS_ATTR_ACTIVE]), 0);
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

// Random messages from several clients, built from valid and invalid
// attributes of every kind; afterwards every client leaves and nothing may
// remain.
TEST(BrokerFuzz, RandomMessagesLeaveNothingBehind)
{
    sink out;
    ubusd::broker core(out);
    std::mt19937 rng(20260123);
    std::vector<uint32_t> clients;
    std::vector<uint32_t> ids = {0, 1, 2, 3, 1023, 0xffffffff};
    struct blob_buf b = {};
    for (int i = 0; i < 4; i++) {
        ubusd::credentials c;
        c.user = i % 2 ? "u1" : "u2";
        clients.push_back(core.connect(c));
        core.hello(clients.back());
    }
    const char *names[] = {"a", "a.b", "", "*", "a*", "ubus.x", "register", "send", "add", "remove", "query"};
    auto pick_id = [&] { return ids[rng() % ids.size()] ^ (rng() % 8 == 0 ? 1 : 0); };

    for (int iter = 0; iter < 20000; iter++) {
        uint32_t client = clients[rng() % clients.size()];
        blob_buf_init(&b, 0);
        int nattr = rng() % 6;
        for (int a = 0; a < nattr; a++) {
            int attr = rng() % 16;
            switch (rng() % 5) {
            case 0:
                blob_put_int32(&b, attr, pick_id());
                break;
            case 1:
                blob_put_string(&b, attr, names[rng() % 11]);
                break;
            case 2: {
                void *n = blob_nest_start(&b, attr);
                if (rng() % 2) {
                    blobmsg_add_u32(&b, "object", pick_id());
                    blobmsg_add_string(&b, rng() % 2 ? "pattern" : "id", names[rng() % 11]);
                    void *t = blobmsg_open_table(&b, rng() % 2 ? "data" : nullptr);
                    blobmsg_add_u8(&b, "x", 1);
                    blobmsg_close_table(&b, t);
                } else {
                    blob_put_int32(&b, 0, pick_id());
                }
                blob_nest_end(&b, n);
                break;
            }
            case 3:
                blob_put_u8(&b, attr, rng() % 2);
                break;
            default: {
                uint8_t junk[9];
                for (auto &j : junk)
                    j = rng();
                blob_put(&b, attr, junk, rng() % 10);
                break;
            }
            }
        }
        bytes frame;
        ubus_wire::encode(frame, rng() % 14, rng(), pick_id(), b.head);
        // Occasionally corrupt a byte of the attributes (lengths included).
        if (rng() % 4 == 0 && frame.size() > 12)
            frame[12 + rng() % (frame.size() - 12)] = rng();
        core.receive(client, frame.data(), frame.size(), -1);
        for (auto &[id, msgs] : out.out) {
            for (auto &m : msgs) {
                ubus_wire::msg d;
                ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d)) << "broker sent a bad frame";
                if (rng() % 3 == 0)
                    ids.push_back(d.attr[UBUS_ATTR_OBJID] ? ubus_wire::get_u32(d.attr[UBUS_ATTR_OBJID]) : 0);
            }
            msgs.clear();
        }
        if (ids.size() > 64)
            ids.erase(ids.begin() + 6, ids.begin() + 30);
        if (iter % 5000 == 4999) {
            core.disconnect(clients.front());
            clients.erase(clients.begin());
            clients.push_back(core.connect({}));
        }
    }
    for (uint32_t c : clients)
        core.disconnect(c);
    EXPECT_EQ(core.client_count(), 0u);
    EXPECT_EQ(core.object_count(), 0u);
    EXPECT_EQ(core.type_count(), 0u);
    blob_buf_free(&b);
}

// Access lists: one file for the user "guest", one for the group "staff".
const char *guest_acl = R"({
	"user": "guest",
	"access": {"svc": {"methods": ["m", "x"]}, "pub.*": {"methods": ["*"]}, "none": {"methods": []}},
	"publish": ["guest.*"],
	"subscribe": ["svc"],
	"listen": ["net.*"],
	"send": ["guest.ev"]
})";
const char *staff_acl =
    R"({"group": "staff", "access": {"svc": {"methods": ["n"], "priv": {"level": 2}}}, "send": ["*"]})";

TEST(AclTable, RulesGrantTheirUserOrGroupWhatTheyName)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    ASSERT_TRUE(t.add_json(staff_acl, "staff"));
    const ubusd::credentials guest{1000, 1000, "guest", "users"}, bob{1001, 50, "bob", "staff"},
        guest_in_staff{1000, 50, "guest", "staff"}, eve{1002, 1002, "eve", "eve"};
    using op = ubusd::acl_op;
    struct {
        const ubusd::credentials &c;
        op o;
        const char *name, *method;
        bool granted;
    } cases[] = {
        {guest, op::access, "svc", "m", true},          {guest, op::access, "svc", "n", false},
        {guest, op::access, "svc.sub", "m", false},     {guest, op::access, "pub.a", "anything", true},
        {guest, op::access, "pub", "anything", false},  {guest, op::access, "none", "m", false},
        {guest, op::publish, "guest.x", nullptr, true}, {guest, op::publish, "guest", nullptr, false},
        {guest, op::subscribe, "svc", nullptr, true},   {guest, op::subscribe, "pub.a", nullptr, false},
        {guest, op::listen, "net.up", nullptr, true},   {guest, op::listen, "net.*", nullptr, true},
        {guest, op::listen, "*", nullptr, false},       {guest, op::send, "guest.ev", nullptr, true},
        {guest, op::send, "guest.ev2", nullptr, false}, {bob, op::access, "svc", "n", true},
        {bob, op::access, "svc", "m", false},           {bob, op::send, "anything", nullptr, true},
        {bob, op::publish, "guest.x", nullptr, false},  {guest_in_staff, op::access, "svc", "n", true},
        {guest_in_staff, op::access, "svc", "m", true}, {eve, op::access, "svc", "m", false},
        {eve, op::send, "guest.ev", nullptr, false},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.c.user + " " + std::to_string((int)c.o) + " " + c.name + " " + (c.method ? c.method : ""));
        EXPECT_EQ(t.allows(c.c, c.o, c.name, c.method), c.granted);
    }
}

TEST(AclTable, DocumentsMustBeObjectsNamingAUserOrAGroup)
{
    ubusd::acl_table t;
    for (const char *doc : {"", "[1]", "{", R"({"send":["*"]})", R"({"user":""})", R"({"user":5})"}) {
        SCOPED_TRACE(doc);
        EXPECT_FALSE(t.add_json(doc, "x"));
    }
    EXPECT_EQ(t.size(), 0u);
    ASSERT_TRUE(t.add_json(R"({"user":"u","group":"g","send":["*"]})", "x"));
    EXPECT_TRUE(t.allows({5, 5, "u", "other"}, ubusd::acl_op::send, "e"));
    EXPECT_FALSE(t.allows({6, 6, "v", "g"}, ubusd::acl_op::send, "e")) << "a file naming both is about the user";
}

class AclDir : public ::testing::Test
{
  protected:
    std::string dir;
    void SetUp() override
    {
        char tmpl[] = "/tmp/broker-acl.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override
    {
        nftw(
            dir.c_str(), [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 8,
            FTW_DEPTH | FTW_PHYS);
    }
    // A file granting "send" of "<tag>.*" to the user "u".
    std::string grant(const std::string &name, const std::string &tag, mode_t mode)
    {
        std::string path = dir + "/" + name;
        std::ofstream(path) << R"({"user":"u","send":[")" << tag << R"(.*"]})";
        chmod(path.c_str(), mode);
        return path;
    }
};

TEST_F(AclDir, OnlyFilesOfRootOrTheBrokerUserThatOthersCannotWriteAreLoaded)
{
    grant("a.json", "a", 0644);
    grant("b.json", "b", 0664);
    grant("c.json", "c", 0646);
    grant("d.txt", "d", 0644);
    std::ofstream(dir + "/e.json") << "not json";
    mkdir((dir + "/g.json").c_str(), 0755);
    bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(grant("f.json", "f", 0644).c_str(), 65534, 65534), 0);
    }

    std::vector<std::string> notes;
    auto t = ubusd::acl_table::load(dir, geteuid(), &notes);
    const ubusd::credentials u{1000, 1000, "u", "u"};
    EXPECT_TRUE(t.allows(u, ubusd::acl_op::send, "a.x"));
    for (const char *ev : {"b.x", "c.x", "d.x", "f.x"}) {
        SCOPED_TRACE(ev);
        EXPECT_FALSE(t.allows(u, ubusd::acl_op::send, ev));
    }
    std::string all;
    for (auto &n : notes)
        all += n + "\n";
    EXPECT_EQ(notes.size(), root ? 5u : 4u) << all;
    EXPECT_NE(all.find("b.json: writable by group or others"), std::string::npos) << all;
    EXPECT_NE(all.find("c.json: writable by group or others"), std::string::npos) << all;
    EXPECT_NE(all.find("e.json: not an access list"), std::string::npos) << all;
    EXPECT_NE(all.find("g.json: not a regular file"), std::string::npos) << all;
    if (root) {
        EXPECT_NE(all.find("f.json: wrong owner"), std::string::npos) << all;
    }
    EXPECT_EQ(ubusd::acl_table::load(dir + "/missing", 0, &notes).size(), 0u);
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

    uint32_t guest() { return connect("guest", 1000, 1000); }

    // Publishes path with the named methods (no arguments); the replies.
    std::vector<seen> publish(uint32_t client, const char *path, std::initializer_list<const char *> methods)
    {
        start();
        blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
        void *sig = blob_nest_start(&b, UBUS_ATTR_SIGNATURE);
        for (const char *m : methods)
            blobmsg_close_table(&b, blobmsg_open_table(&b, m));
        blob_nest_end(&b, sig);
        return send(client, UBUS_MSG_ADD_OBJECT);
    }
    uint32_t publish_ok(uint32_t client, const char *path, std::initializer_list<const char *> methods)
    {
        auto r = publish(client, path, methods);
        EXPECT_EQ(r.back().status(), 0) << path;
        return r.front().u32(UBUS_ATTR_OBJID);
    }

    // path -> method names, as LOOKUP shows them to client; *status gets
    // the final status.
    std::map<std::string, std::vector<std::string>> listing(uint32_t client, const char *path, int *status)
    {
        start();
        if (path)
            blob_put_string(&b, UBUS_ATTR_OBJPATH, path);
        std::map<std::string, std::vector<std::string>> r;
        for (auto &s : send(client, UBUS_MSG_LOOKUP)) {
            if (s.m.type != UBUS_MSG_DATA) {
                *status = s.status();
                continue;
            }
            auto &methods = r[s.str(UBUS_ATTR_OBJPATH)];
            ubus_wire::for_each_child(s.m.attr[UBUS_ATTR_SIGNATURE],
                                      [&](struct blob_attr *m) { methods.push_back(blobmsg_name(m)); });
        }
        return r;
    }

    int invoke(uint32_t client, uint32_t obj, const char *method, uint32_t owner)
    {
        start();
        blob_put_int32(&b, UBUS_ATTR_OBJID, obj);
        blob_put_string(&b, UBUS_ATTR_METHOD, method);
        auto r = send(client, UBUS_MSG_INVOKE, obj);
        if (!r.empty())
            return r.back().status();
        // Forwarded: the owner got it.
        return out.take(owner).size() == 1 ? 0 : -100;
    }
};

using listing_t = std::map<std::string, std::vector<std::string>>;

TEST_F(BrokerAcl, LookupShowsOnlyPermittedMethodsAndHidesObjectsWithoutAny)
{
    uint32_t root = connect("root"), g = guest();
    publish_ok(root, "svc", {"m", "n", "x"});
    publish_ok(root, "other", {"m"});
    publish_ok(root, "empty", {});
    publish_ok(root, "pub.a", {"q", "r"});
    int st = -1;
    EXPECT_EQ(listing(g, nullptr, &st), (listing_t{{"empty", {}}, {"pub.a", {"q", "r"}}, {"svc", {"m", "x"}}}));
    EXPECT_EQ(st, 0);
    EXPECT_EQ(listing(root, nullptr, &st).size(), 4u);
    EXPECT_EQ(listing(root, "svc", &st), (listing_t{{"svc", {"m", "n", "x"}}}));
    EXPECT_TRUE(listing(g, "other", &st).empty());
    EXPECT_EQ(st, 0) << "found, but not shown";
    EXPECT_TRUE(listing(g, "nothere", &st).empty());
    EXPECT_EQ(st, UBUS_STATUS_NOT_FOUND);
}

TEST_F(BrokerAcl, InvokeIsCheckedPerMethodOnObjectsWithAPath)
{
    uint32_t root = connect("root"), g = guest();
    uint32_t svc = publish_ok(root, "svc", {"m", "n"});
    uint32_t other = publish_ok(root, "other", {"m"});
    uint32_t anon = add(root, nullptr);
    struct {
        uint32_t obj;
        const char *method;
        int status;
    } cases[] = {
        {svc, "m", 0},
        {svc, "x", 0}, // granted, though the object lacks it: its owner answers
        {svc, "n", UBUS_STATUS_PERMISSION_DENIED},
        {other, "m", UBUS_STATUS_PERMISSION_DENIED},
        {anon, "anything", 0},
        {svc ^ 0x4000, "m", UBUS_STATUS_NOT_FOUND},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.method);
        EXPECT_EQ(invoke(g, c.obj, c.method, root), c.status);
    }
    EXPECT_EQ(invoke(connect("admin"), other, "m", root), 0) << "root calls anything";
}

TEST_F(BrokerAcl, PublishSubscribeListenAndSendNeedTheirRules)
{
    uint32_t root = connect("root"), g = guest();
    uint32_t svc = publish_ok(root, "svc", {"m"});
    uint32_t other = publish_ok(root, "other", {"m"});

    EXPECT_EQ(publish(g, "guest.a", {"m"}).back().status(), 0);
    auto refused = publish(g, "svc2", {"m"});
    ASSERT_EQ(refused.size(), 1u) << "no DATA before the refusal";
    EXPECT_EQ(refused[0].status(), UBUS_STATUS_INVALID_ARGUMENT);
    uint32_t sub = add(g, nullptr);

    auto subscribe = [&](uint32_t target) {
        start();
        blob_put_int32(&b, UBUS_ATTR_OBJID, sub);
        blob_put_int32(&b, UBUS_ATTR_TARGET, target);
        return send(g, UBUS_MSG_SUBSCRIBE).back().status();
    };
    EXPECT_EQ(subscribe(svc), 0);
    EXPECT_EQ(subscribe(other), UBUS_STATUS_NOT_FOUND);

    EXPECT_EQ(register_pattern(g, sub, "net.up"), 0);
    EXPECT_EQ(register_pattern(g, sub, "net.*"), 0);
    EXPECT_EQ(register_pattern(g, sub, "*"), UBUS_STATUS_PERMISSION_DENIED);
    EXPECT_EQ(register_pattern(g, sub, "ubus.object.add"), UBUS_STATUS_PERMISSION_DENIED);

    auto send_event = [&](const char *name) {
        return event_call(g, "send",
                          [&] {
                              blobmsg_add_string(&b, "id", name);
                              blobmsg_close_table(&b, blobmsg_open_table(&b, "data"));
                          })
            .back()
            .status();
    };
    EXPECT_EQ(send_event("guest.ev"), 0);
    EXPECT_EQ(send_event("net.up"), UBUS_STATUS_PERMISSION_DENIED);
}

TEST_F(BrokerAcl, MonitoringIsForRootOrTheBrokerUserOnly)
{
    uint32_t talker = connect("root");
    auto monitor_add = [&](uint32_t c) {
        start();
        blob_put_int32(&b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_MONITOR);
        blob_put_string(&b, UBUS_ATTR_METHOD, "add");
        return send(c, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_MONITOR).back().status();
    };
    // Whether c now gets copies of another client's traffic.
    auto sees_traffic = [&](uint32_t c) {
        start();
        blob_put_string(&b, UBUS_ATTR_OBJPATH, "AT+CPIN=\"4321\"");
        send(talker, UBUS_MSG_PING);
        return !out.take(c).empty();
    };
    struct {
        uid_t uid;
        gid_t gid;
        int status;
    } cases[] = {{0, 0, 0},
                 {0, 5, UBUS_STATUS_PERMISSION_DENIED},
                 {5, 0, UBUS_STATUS_PERMISSION_DENIED},
                 {1000, 1000, UBUS_STATUS_PERMISSION_DENIED}};
    for (auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.uid) + ":" + std::to_string(c.gid));
        uint32_t id = connect("guest", c.uid, c.gid);
        EXPECT_EQ(monitor_add(id), c.status);
        EXPECT_EQ(sees_traffic(id), c.status == 0);
        core.disconnect(id);
    }
    core.set_owner(1000, 1000);
    uint32_t own = connect("guest", 1000, 1000);
    EXPECT_EQ(monitor_add(own), 0) << "the broker's own user";
    EXPECT_TRUE(sees_traffic(own));
}

TEST_F(BrokerAcl, QueryListsRulesOnTheCallersObjectsAndReloadsAreAnnounced)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    ASSERT_TRUE(t.add_json(staff_acl, "staff"));
    core.set_acl(std::move(t));
    uint32_t root = connect("root");
    publish_ok(root, "svc", {"m"});
    publish_ok(root, "plain", {"m"});
    uint32_t h = add(root, nullptr);
    ASSERT_EQ(register_pattern(root, h, "ubus.acl.*"), 0);

    start();
    blob_put_int32(&b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_ACL);
    blob_put_string(&b, UBUS_ATTR_METHOD, "query");
    auto r = send(root, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_ACL);
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
    const auto *seqattr = static_cast<const struct blob_attr *>(blob_data(ev[0].m.attr[UBUS_ATTR_DATA]));
    EXPECT_STREQ(blobmsg_name(seqattr), "sequence");
    EXPECT_EQ(blobmsg_get_u32(const_cast<struct blob_attr *>(seqattr)), 3u);
    EXPECT_EQ(core.acl_sequence(), 3u);
}

// Signatures: the SIGNATURE attribute built by fill, then possibly damaged.
bytes signature(const std::function<void(struct blob_buf *)> &fill,
                const std::function<void(bytes &)> &damage = nullptr)
{
    struct blob_buf b = {};
    blob_buf_init(&b, 0);
    void *sig = blob_nest_start(&b, UBUS_ATTR_SIGNATURE);
    fill(&b);
    blob_nest_end(&b, sig);
    auto *p = static_cast<uint8_t *>(blob_data(b.head));
    bytes r(p, p + blob_pad_len(static_cast<struct blob_attr *>(blob_data(b.head))));
    blob_buf_free(&b);
    if (damage)
        damage(r);
    return r;
}

TEST(Signature, OnlyTablesOfNamedIntegersAreAccepted)
{
    auto method = [](struct blob_buf *b, const char *name, const std::function<void()> &args) {
        void *t = blobmsg_open_table(b, name);
        args();
        blobmsg_close_table(b, t);
    };
    struct {
        const char *what;
        bytes sig;
        bool valid;
    } cases[] = {
        {"no methods", signature([](auto *) {}), true},
        {"methods with typed arguments", signature([&](auto *b) {
             method(b, "a", [&] {
                 blobmsg_add_u32(b, "n", BLOBMSG_TYPE_INT32);
                 blobmsg_add_u32(b, "s", 3);
             });
             method(b, "b", [] {});
         }),
         true},
        {"unnamed method", signature([&](auto *b) { method(b, nullptr, [] {}); }), false},
        {"method as a string", signature([](auto *b) { blobmsg_add_string(b, "m", "x"); }), false},
        {"method as an array", signature([](auto *b) { blobmsg_close_array(b, blobmsg_open_array(b, "m")); }), false},
        {"plain attribute", signature([](auto *b) { blob_put_int32(b, 1, 5); }), false},
        {"string argument", signature([&](auto *b) { method(b, "m", [&] { blobmsg_add_string(b, "a", "x"); }); }),
         false},
        {"unnamed argument", signature([&](auto *b) { method(b, "m", [&] { blobmsg_add_u32(b, nullptr, 5); }); }),
         false},
        {"nested argument",
         signature([&](auto *b) { method(b, "m", [&] { method(b, "t", [&] { blobmsg_add_u32(b, "a", 5); }); }); }),
         false},
        {"argument longer than its method",
         signature([&](auto *b) { method(b, "m", [&] { blobmsg_add_u32(b, "a", 5); }); },
                   [](bytes &s) { s[4 + 12 + 3] = 0x40; }),
         false},
        {"method longer than the signature",
         signature([&](auto *b) { method(b, "m", [] {}); }, [](bytes &s) { s[4 + 3] = 0x40; }), false},
        {"name not terminated",
         signature([&](auto *b) { method(b, "mmm", [] {}); }, [](bytes &s) { s[4 + 4 + 2 + 3] = 'x'; }), false},
        {"bytes left over",
         signature(
             [&](auto *b) {
                 method(b, "m", [] {});
                 blob_put(b, 0, nullptr, 0);
             },
             [](bytes &s) { s[s.size() - 1] = 2; }),
         false},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ubusd::valid_signature(reinterpret_cast<const struct blob_attr *>(c.sig.data())), c.valid);
    }
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
    // A LOOKUP of everything padded to total bytes with an attribute the
    // broker ignores; it is answered with one STATUS.
    static bytes big_lookup(size_t total)
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
                               (uint8_t)(top >> 24),
                               (uint8_t)(top >> 16),
                               (uint8_t)(top >> 8),
                               (uint8_t)top,
                               20,
                               (uint8_t)(pad >> 16),
                               (uint8_t)(pad >> 8),
                               (uint8_t)pad};
        std::copy(std::begin(hdr), std::end(hdr), m.begin());
        return m;
    }
};

TEST_F(ServerBuffers, AnAnnouncedLengthIsHeldOnlyAsItArrives)
{
    const size_t total = 1024 * 1024;
    bytes msg = big_lookup(total);
    std::vector<int> cl;
    for (int i = 0; i < 50; i++) {
        cl.push_back(client());
        feed(cl.back(), msg.data(), 12);
    }
    EXPECT_LE(srv->held(), 50u * 64) << "headers alone";
    feed(cl[0], msg.data() + 12, 100000);
    EXPECT_GE(srv->held(), 100012u);
    EXPECT_LE(srv->held(), 50u * 64 + 2 * 100012);
    feed(cl[0], msg.data() + 100012, total - 100012);
    uint8_t status[20];
    EXPECT_EQ(read(cl[0], status, sizeof(status)), 20) << "the completed message was answered";
    EXPECT_EQ(status[1], UBUS_MSG_STATUS);
    EXPECT_LE(srv->held(), 49u * 64) << "and no longer held";
    for (int i = 1; i < 50; i++)
        close(cl[i]);
    fds.resize(1);
    pump();
    EXPECT_EQ(srv->held(), 0u);
    EXPECT_EQ(srv->client_count(), 1u);
}

TEST_F(ServerBuffers, TheClientThatGoesBeyondTheHeldLimitIsDropped)
{
    srv->set_max_held(300 * 1024);
    bytes msg = big_lookup(256 * 1024);
    int a = client(), b = client(), c = client();
    feed(a, msg.data(), 200 * 1024);
    EXPECT_FALSE(closed(a));
    feed(b, msg.data(), 150 * 1024);
    EXPECT_TRUE(closed(b));
    EXPECT_FALSE(closed(a));
    EXPECT_EQ(srv->client_count(), 2u);
    EXPECT_LE(srv->held(), 300u * 1024);
    // Others go on being served, and a's message can still be completed.
    bytes small = big_lookup(64);
    feed(c, small.data(), small.size());
    uint8_t status[20];
    EXPECT_EQ(read(c, status, sizeof(status)), 20);
    feed(a, msg.data() + 200 * 1024, msg.size() - 200 * 1024);
    EXPECT_EQ(read(a, status, sizeof(status)), 20);
    EXPECT_EQ(srv->held(), 0u);
}

} // namespace
