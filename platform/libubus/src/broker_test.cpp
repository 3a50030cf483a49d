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
#include <set>
#include <sstream>

namespace
{

using bytes = std::vector<uint8_t>;
using lines = std::vector<std::string>;

bytes from_hex(const std::string &hex)
{
    bytes r;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        r.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
    return r;
}

const char *const msg_names[] = {"HELLO", "STATUS", "DATA",      "PING",        "LOOKUP", "INVOKE",
                                 "ADD",   "REMOVE", "SUBSCRIBE", "UNSUBSCRIBE", "NOTIFY", "MONITOR"};
const char *const status_names[] = {"ok", "bad-command", "bad-argument", "no-method", "not-found", "no-data", "denied"};

// How each attribute is written in a line, in the order lines show them.
enum kind { ident, text, status, flag, list, json };
const struct field {
    const char *key;
    int attr;
    kind k;
} fields[] = {
    // clang-format off
    {"status", UBUS_ATTR_STATUS, status},
    {"path", UBUS_ATTR_OBJPATH, text},
    {"obj", UBUS_ATTR_OBJID, ident},
    {"method", UBUS_ATTR_METHOD, text},
    {"user", UBUS_ATTR_USER, text},
    {"group", UBUS_ATTR_GROUP, text},
    {"type", UBUS_ATTR_OBJTYPE, ident},
    {"target", UBUS_ATTR_TARGET, ident},
    {"active", UBUS_ATTR_ACTIVE, flag},
    {"no_reply", UBUS_ATTR_NO_REPLY, flag},
    {"sig", UBUS_ATTR_SIGNATURE, list},
    {"subs", UBUS_ATTR_SUBSCRIBERS, list},
    {"data", UBUS_ATTR_DATA, json},
    // clang-format on
};

// The broker driven without sockets. A request and each message the broker
// sends are one line of text: the type, then attributes as key=value, with
// clients and objects by name (ids nobody named print as @1, @2, ...).
class Broker : public ::testing::Test
{
  protected:
    struct sink : ubusd::transport {
        std::vector<std::pair<uint32_t, bytes>> sent;
        void send(uint32_t client, const uint8_t *msg, size_t len, int fd) override
        {
            sent.emplace_back(client, bytes(msg, msg + len));
            if (fd >= 0)
                close(fd);
        }
    } out;
    ubusd::broker core{out};
    struct blob_buf b = {};
    uint16_t seq = 0;
    std::map<std::string, uint32_t> ids;
    std::map<uint32_t, std::string> names;
    std::string new_name; // for the next id not seen yet: the client or object just made
    int anonymous = 0;

    ~Broker() override { blob_buf_free(&b); }

    std::string name_of(uint32_t id)
    {
        if (id < UBUS_SYSTEM_OBJECT_MAX)
            return std::to_string(id);
        if (!names.count(id))
            ids[names[id] = new_name.empty() ? "@" + std::to_string(++anonymous) : std::exchange(new_name, "")] = id;
        return names[id];
    }
    uint32_t id_of(const std::string &n) { return ids.count(n) ? ids[n] : std::stoul(n); }

    void connect(const std::string &who, uid_t uid = 0, gid_t gid = 0)
    {
        uint32_t id = core.connect({uid, gid, who, who});
        new_name = who;
        name_of(id);
        core.hello(id);
        EXPECT_EQ(take(0), lines{who + " HELLO peer=" + who});
    }

    // Sends a request from a client: "TYPE key=value ...", where "as=NAME"
    // names the object an ADD creates (default: its path); or the event
    // object's "listen OBJECT [PATTERN]" and "send NAME [nodata]"; or
    // "connect [UID GID]", "disconnect". What the broker sent, in order.
    lines run(const std::string &from, const std::string &req)
    {
        std::istringstream in(req);
        std::string type, tok, what, arg;
        in >> type >> what >> arg;
        if (type == "connect") {
            connect(from, what.empty() ? 0 : std::stoi(what), arg.empty() ? 0 : std::stoi(arg));
            return {};
        }
        if (type == "disconnect") {
            core.disconnect(ids[from]);
            return take(-1);
        }
        if (type == "listen")
            return run(from,
                       "INVOKE peer=1 obj=1 method=register data={\"object\":" + std::to_string(int32_t(id_of(what))) +
                           (arg.empty() ? "" : ",\"pattern\":\"" + (arg == "''" ? "" : arg) + "\"") + "}");
        if (type == "send")
            return run(from, "INVOKE peer=1 obj=1 method=send data={\"id\":\"" + what +
                                 (arg == "nodata" ? "\"}" : "\",\"data\":{\"k\":\"v\"}}"));
        uint32_t peer = 0;
        uint16_t s = ++seq;
        blob_buf_init(&b, 0);
        new_name.clear();
        in.clear();
        in.seekg(type.size());
        while (in >> tok) {
            size_t eq = tok.find('=');
            std::string k = tok.substr(0, eq), v = eq == std::string::npos ? "" : tok.substr(eq + 1);
            auto f = std::find_if(std::begin(fields), std::end(fields), [&](auto &f) { return k == f.key; });
            if (k == "peer")
                peer = id_of(v);
            else if (k == "seq")
                s = std::stoi(v);
            else if (k == "as")
                new_name = v;
            else if (k == "rawsig")
                blob_put_raw(&b, from_hex(v).data(), v.size() / 2);
            else if (f == std::end(fields))
                ADD_FAILURE() << "unknown attribute " << k;
            else if (f->k == ident || f->k == status)
                blob_put_int32(&b, f->attr,
                               f->k == ident ? id_of(v)
                                             : std::find(status_names, std::end(status_names), v) - status_names);
            else if (f->k == text)
                blob_put_string(&b, f->attr, (k == "path" ? new_name = v : v).c_str());
            else if (f->k == flag)
                blob_put_int8(&b, f->attr, 1);
            else {
                void *d = blob_nest_start(&b, f->attr);
                std::istringstream methods(v); // sig: methods without arguments
                for (std::string m; f->k == list && std::getline(methods, m, ',');)
                    blobmsg_close_table(&b, blobmsg_open_table(&b, m.c_str()));
                EXPECT_TRUE(f->k == list || blobmsg_add_json_from_string(&b, v.c_str())) << v;
                blob_nest_end(&b, d);
            }
        }
        auto t = std::find(std::begin(msg_names), std::end(msg_names), type);
        bytes frame;
        ubus_wire::encode(frame, t != std::end(msg_names) ? t - msg_names : std::stoi(type), s, peer, b.head);
        core.receive(ids[from], frame.data(), frame.size(), -1);
        return take(s);
    }

    // The lines of what was sent since the last call; seq shows where it is
    // not the request's.
    lines take(int s)
    {
        lines r;
        for (auto &[to, raw] : std::exchange(out.sent, {}))
            r.push_back(line(to, raw, s));
        return r;
    }

    std::string line(uint32_t to, bytes raw, int s)
    {
        ubus_wire::msg m;
        if (!ubus_wire::decode(raw.data(), raw.size(), &m))
            return "undecodable";
        std::string l = name_of(to) + " " + (m.type < std::size(msg_names) ? msg_names[m.type] : "?");
        if (m.type == UBUS_MSG_MONITOR) // a copy of another message
            return l;
        if (m.seq != s)
            l += " seq=" + std::to_string(m.seq);
        if (m.peer)
            l += " peer=" + name_of(m.peer);
        for (const field &f : fields) {
            struct blob_attr *a = m.attr[f.attr];
            if (!a)
                continue;
            uint32_t n = f.k == ident || f.k == status ? ubus_wire::get_u32(a) : 0;
            l += std::string(" ") + f.key + "=";
            if (f.k == ident)
                l += name_of(n);
            else if (f.k == status)
                l += n < std::size(status_names) ? status_names[n] : std::to_string(n);
            else if (f.k == text)
                l += ubus_wire::get_str(a);
            else if (f.k == flag)
                l += std::to_string(blob_get_int8(a));
            else if (f.k == list)
                ubus_wire::for_each_child(a, [&](struct blob_attr *c) {
                    l += (l.back() == '=' ? "" : ",") +
                         (f.attr == UBUS_ATTR_SIGNATURE ? blobmsg_name(c) : name_of(blob_get_u32(c)));
                });
            else {
                char *text = blobmsg_format_json(a, true);
                std::string d = text ? text : "?";
                free(text);
                for (size_t i = 0, n; i < d.size(); i += n) {      // ids by name
                    n = d.find_first_not_of("-0123456789", i) - i; // as printed: signed
                    l += n > 3 ? name_of(uint32_t(std::stol(d.substr(i, n)))) : d.substr(i, n ? n : 1);
                    n = n ? n : 1;
                }
            }
        }
        return l;
    }

    struct step {
        const char *from, *request;
        lines sent;
    };
    // Runs the steps: each request and what the broker sent for it.
    void play(const std::vector<step> &steps)
    {
        for (const step &st : steps) {
            SCOPED_TRACE(std::string(st.from) + ": " + st.request);
            EXPECT_EQ(run(st.from, st.request), st.sent);
        }
    }
};
// clang-format off
TEST_F(Broker, ObjectsAreAddedListedByPathAndRemovedWithTheirType)
{
    connect("A");
    play({
        {"A", "LOOKUP", {"A STATUS status=ok"}},
        {"A", "ADD as=sub", {"A DATA obj=sub", "A STATUS status=ok"}},
        {"A", "ADD path=b sig=m", {"A DATA obj=b type=@1", "A STATUS status=ok"}},
        {"A", "ADD path=a.x sig=m", {"A DATA obj=a.x type=@2", "A STATUS status=ok"}},
        {"A", "ADD path=ab sig=m", {"A DATA obj=ab type=@3", "A STATUS status=ok"}},
        {"A", "ADD path=a sig=m,n", {"A DATA obj=a type=@4", "A STATUS status=ok"}},
        {"A", "ADD path=x type=305419896", {"A DATA obj=x", "A STATUS status=ok"}}, // unknown type: not listed
        {"A", "ADD path=two type=@4", {"A DATA obj=two", "A STATUS status=ok"}},
        {"A", "LOOKUP", {"A DATA path=a obj=a type=@4 sig=m,n", "A DATA path=a.x obj=a.x type=@2 sig=m",
                         "A DATA path=ab obj=ab type=@3 sig=m", "A DATA path=b obj=b type=@1 sig=m",
                         "A DATA path=two obj=two type=@4 sig=m,n", "A STATUS status=ok"}},
        {"A", "LOOKUP path=a*", {"A DATA path=a obj=a type=@4 sig=m,n", "A DATA path=a.x obj=a.x type=@2 sig=m",
                                 "A DATA path=ab obj=ab type=@3 sig=m", "A STATUS status=ok"}},
        {"A", "LOOKUP path=a.*", {"A DATA path=a.x obj=a.x type=@2 sig=m", "A STATUS status=ok"}},
        {"A", "LOOKUP path=ab", {"A DATA path=ab obj=ab type=@3 sig=m", "A STATUS status=ok"}},
        {"A", "LOOKUP path=x", {"A STATUS status=not-found"}},
        {"A", "LOOKUP path=", {"A STATUS status=bad-argument"}},
        {"A", "REMOVE obj=a", {"A DATA obj=a", "A STATUS status=ok"}},
        {"A", "REMOVE obj=two", {"A DATA obj=two type=@4", "A STATUS status=ok"}},
    });
    EXPECT_EQ(core.type_count(), 3u);
}

TEST_F(Broker, RefusedRequestsAnswerWithOneStatus)
{
    connect("A");
    connect("B");
    play({
        {"A", "ADD path=svc sig=m", {"A DATA obj=svc type=@1", "A STATUS status=ok"}},
        {"A", "ADD as=sub", {"A DATA obj=sub", "A STATUS status=ok"}},
        {"B", "ADD as=theirs", {"B DATA obj=theirs", "B STATUS status=ok"}},
        {"A", "HELLO", {"A STATUS status=bad-command"}},
        {"A", "MONITOR", {"A STATUS status=bad-command"}},
        {"A", "200", {"A STATUS status=bad-command"}},
        {"A", "PING path=x", {"A DATA path=x", "A STATUS status=ok"}},
        {"A", "ADD path=svc sig=m", {"A STATUS status=bad-argument"}},
        {"A", "ADD path=bad rawsig=0600000c8200000800000000", {"A STATUS status=bad-argument"}}, // unnamed method
        {"A", "REMOVE", {"A STATUS status=bad-argument"}},
        {"A", "REMOVE obj=4242", {"A STATUS status=not-found"}},
        {"B", "REMOVE obj=svc", {"B STATUS status=denied"}},
        {"A", "INVOKE obj=svc", {"A STATUS status=bad-argument"}},
        {"A", "INVOKE obj=4242 method=m", {"A STATUS status=not-found"}},
        {"A", "INVOKE obj=3 method=nosuch", {"A STATUS status=no-method"}},
        {"A", "SUBSCRIBE obj=sub target=sub", {"A STATUS status=bad-argument"}},
        {"A", "SUBSCRIBE obj=sub", {"A STATUS status=bad-argument"}},
        {"A", "SUBSCRIBE obj=sub target=4242", {"A STATUS status=not-found"}},
        {"A", "SUBSCRIBE obj=theirs target=svc", {"A STATUS status=bad-argument"}},
        {"A", "SUBSCRIBE obj=sub target=theirs", {"A STATUS status=not-found"}}, // anonymous
        {"A", "NOTIFY obj=svc", {"A STATUS status=bad-argument"}},
        {"B", "NOTIFY obj=svc method=x", {"B STATUS status=denied"}},
        {"A", "NOTIFY obj=svc method=x no_reply", {}},
        {"A", "listen sub", {"A STATUS peer=1 status=bad-argument"}},
        {"A", "listen 5 a", {"A STATUS peer=1 status=denied"}},
        {"A", "listen 4242 a", {"A STATUS peer=1 status=not-found"}},
        {"A", "listen theirs a", {"A STATUS peer=1 status=denied"}},
        {"A", "listen sub ''", {"A STATUS peer=1 status=denied"}},
        {"A", "send x nodata", {"A STATUS peer=1 status=bad-argument"}},
        {"A", "send ubus.fake", {"A STATUS peer=1 status=denied"}},
        {"A", "INVOKE obj=1 method=nosuch peer=1 data={}", {"A STATUS peer=1 status=bad-command"}},
        {"A", "listen sub a.*", {"A STATUS peer=1 status=ok"}},
    });
    EXPECT_EQ(core.object_count(), 3u);
}

TEST_F(Broker, InvokeIsForwardedAndRepliesComeBackFromTheObject)
{
    connect("O");
    connect("C");
    play({
        {"O", "ADD path=svc sig=m", {"O DATA obj=svc type=@1", "O STATUS status=ok"}},
        {"C", "INVOKE peer=svc obj=svc method=m data={\"a\":1}",
         {"O INVOKE peer=C obj=svc method=m user=C group=C data={\"a\":1}"}},
        {"O", "DATA seq=2 peer=C obj=svc data={\"r\":2}", {"C DATA peer=svc obj=svc data={\"r\":2}"}},
        {"O", "STATUS seq=2 peer=C status=ok obj=svc", {"C STATUS peer=svc status=ok obj=svc"}},
        {"C", "STATUS seq=2 peer=C status=ok obj=svc", {}}, // not the object's owner
        {"C", "disconnect", {}},
        {"O", "STATUS seq=2 peer=C status=ok obj=svc", {}},
    });
}

TEST_F(Broker, EventsGoToEachMatchingObjectOnceButNeverBackToTheSender)
{
    connect("S");
    connect("R");
    play({
        {"S", "ADD as=own", {"S DATA obj=own", "S STATUS status=ok"}},
        {"R", "ADD as=h1", {"R DATA obj=h1", "R STATUS status=ok"}},
        {"R", "ADD as=h2", {"R DATA obj=h2", "R STATUS status=ok"}},
        {"S", "listen own *", {"S STATUS peer=1 status=ok"}},
        {"R", "listen h1 net.*", {"R STATUS peer=1 status=ok"}},
        {"R", "listen h1 net.up", {"R STATUS peer=1 status=ok"}},
        {"R", "listen h2 net.upx", {"R STATUS peer=1 status=ok"}},
        {"S", "send net.up", {"R INVOKE seq=1 obj=h1 method=net.up data={\"k\":\"v\"}", "S STATUS peer=1 status=ok"}},
        {"S", "send net.down", {"R INVOKE seq=2 obj=h1 method=net.down data={\"k\":\"v\"}",
                                "S STATUS peer=1 status=ok"}},
        {"S", "ADD path=svc", {"S INVOKE seq=3 obj=own method=ubus.object.add data={\"id\":svc,\"path\":\"svc\"}",
                               "S DATA obj=svc", "S STATUS status=ok"}},
    });
}

TEST_F(Broker, SubscriptionActivatesNotifiesAndEnds)
{
    connect("O");
    connect("W");
    connect("V");
    play({
        {"O", "ADD path=svc sig=m", {"O DATA obj=svc type=@1", "O STATUS status=ok"}},
        {"W", "ADD as=sub", {"W DATA obj=sub", "W STATUS status=ok"}},
        {"V", "ADD as=sub2", {"V DATA obj=sub2", "V STATUS status=ok"}},
        {"W", "SUBSCRIBE obj=sub target=svc", {"O NOTIFY seq=1 obj=svc active=1", "W STATUS status=ok"}},
        {"V", "SUBSCRIBE obj=sub2 target=svc", {"V STATUS status=ok"}},
        {"V", "UNSUBSCRIBE obj=sub2 target=svc", {"V STATUS status=ok"}},
        {"V", "UNSUBSCRIBE obj=sub2 target=svc", {"V STATUS status=not-found"}},
        {"O", "NOTIFY peer=svc obj=svc method=changed", {"O STATUS peer=svc status=ok obj=svc subs=sub",
                                                         "W INVOKE peer=O obj=sub method=changed user=O group=O"}},
        {"W", "STATUS seq=8 peer=O status=ok obj=sub", {"O STATUS peer=sub status=ok obj=sub"}},
        {"V", "SUBSCRIBE obj=sub2 target=svc", {"V STATUS status=ok"}},
        {"W", "disconnect", {}}, // still watched
        {"V", "disconnect", {"O NOTIFY seq=2 obj=svc active=0"}},
        {"W", "connect", {}},
        {"W", "ADD as=sub3", {"W DATA obj=sub3", "W STATUS status=ok"}},
        {"W", "SUBSCRIBE obj=sub3 target=svc", {"O NOTIFY seq=3 obj=svc active=1", "W STATUS status=ok"}},
        {"O", "disconnect", {"W UNSUBSCRIBE seq=0 obj=sub3 target=svc"}},
    });
    EXPECT_EQ(core.object_count(), 1u);
    EXPECT_EQ(core.type_count(), 0u);
}
// clang-format on
TEST(EventMatch, TrailingStarIsAPrefixAnythingElseIsExact)
{
    struct {
        const char *pattern, *name;
        bool match;
    } cases[] = {
        {"*", "anything", true}, {"*", "", true},         {"net.*", "net.up", true},  {"net.*", "net.", true},
        {"net*", "net", true},   {"net.*", "net", false}, {"net.up", "net.up", true}, {"net.up", "net.upx", false},
        {"n*t", "nxt", false},   {"n*t", "n*t", true},
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
        {"typed arguments", "0600002c82000020000161008500000c00016e00000000058500000c00017300000000038200000800016200", true},
        {"unnamed method", "0600000c8200000800000000", false},
        {"method as a string", "060000108300000a00016d0078000000", false},
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

// Rules matched by group, and name matches the broker table below leaves out.
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
        {guest, op::access, "svc.sub", "m", false},    {guest, op::access, "pub.a", "anything", true},
        {guest, op::access, "pub", "anything", false}, {guest, op::access, "none", "m", false},
        {guest, op::publish, "guest", nullptr, false}, {guest, op::send, "guest.ev2", nullptr, false},
        {bob, op::access, "svc", "n", true},           {bob, op::access, "svc", "m", false},
        {bob, op::send, "anything", nullptr, true},    {both, op::access, "svc", "n", true},
        {both, op::access, "svc", "m", true},          {eve, op::send, "guest.ev", nullptr, false},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.c.user + " " + std::to_string((int)c.o) + " " + c.name + " " + (c.method ? c.method : ""));
        EXPECT_EQ(t.allows(c.c, c.o, c.name, c.method), c.granted);
    }
}

// Each sound file grants the user "u" the events "<file name>.*"; note: why
// a file is refused ("": loaded, nullptr: skipped without a note).
TEST(AclTable, OnlySoundFilesOfRootOrTheBrokerUserAreLoaded)
{
    temp_root dir;
    const char *bad = "not an access list (a JSON object naming a user or a group)";
    struct {
        const char *file;
        mode_t mode;
        const char *text, *note;
    } rows[] = {
        {"a.json", 0644, R"({"user":"u","send":["a.*"]})", ""},
        {"both.json", 0644, R"({"user":"u","group":"g","send":["both.*"]})", ""},
        {"b.json", 0664, R"({"user":"u","send":["b.*"]})", "writable by group or others"},
        {"c.json", 0646, R"({"user":"u","send":["c.*"]})", "writable by group or others"},
        {"d.txt", 0644, R"({"user":"u","send":["d.*"]})", nullptr},
        {"e.json", 0644, "not json", bad},
        {"g.json", 0755, nullptr, "not a regular file"},
        {"h.json", 0644, R"({"send":["h.*"]})", bad},
        {"i.json", 0644, R"({"user":"","send":["i.*"]})", bad},
        {"j.json", 0644, R"({"user":5,"send":["j.*"]})", bad},
        {"k.json", 0644, R"([{"user":"u","send":["k.*"]}])", bad},
        {"f.json", 0644, R"({"user":"u","send":["f.*"]})", geteuid() == 0 ? "wrong owner" : ""},
    };
    std::set<std::string> expected;
    for (auto &r : rows) {
        std::string path = dir / ("/" + std::string(r.file));
        r.text ? dir.write("/" + std::string(r.file), r.text) : (void)mkdir(path.c_str(), 0755);
        ASSERT_EQ(chmod(path.c_str(), r.mode), 0);
        if (r.note && *r.note)
            expected.insert(std::string(r.file) + ": " + r.note);
    }
    if (geteuid() == 0) { // and not the broker's user
        ASSERT_EQ(chown((dir / "/f.json").c_str(), 65534, 65534), 0);
    }
    std::vector<std::string> notes;
    auto t = ubusd::acl_table::load(dir.path(), geteuid(), &notes);
    for (auto &r : rows) {
        std::string stem = std::string(r.file).substr(0, std::string(r.file).find('.'));
        EXPECT_EQ(t.allows({1000, 1000, "u", "u"}, ubusd::acl_op::send, (stem + ".x").c_str()), r.note && !*r.note)
            << r.file;
    }
    EXPECT_FALSE(t.allows({6, 6, "v", "g"}, ubusd::acl_op::send, "both.x")) << "a file naming both is about the user";
    std::set<std::string> got; // the notes hold the full path
    for (auto &n : notes)
        got.insert(n.substr(n.rfind('/') + 1));
    EXPECT_EQ(got, expected);
    EXPECT_EQ(ubusd::acl_table::load(dir / "/missing", 0, &notes).size(), 0u);
}

// What a guest (and others) may do with the objects and events of root.
// clang-format off
TEST_F(Broker, RequestsAreCheckedAgainstTheCallersRules)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    core.set_acl(std::move(t));
    connect("root");
    connect("guest", 1000, 1000);
    play({
        {"root", "ADD path=svc sig=m,n,x", {"root DATA obj=svc type=@1", "root STATUS status=ok"}},
        {"root", "ADD path=other sig=m", {"root DATA obj=other type=@2", "root STATUS status=ok"}},
        {"root", "ADD path=empty sig=", {"root DATA obj=empty type=@3", "root STATUS status=ok"}},
        {"root", "ADD path=pub.a sig=q,r", {"root DATA obj=pub.a type=@4", "root STATUS status=ok"}},
        {"root", "ADD as=anon", {"root DATA obj=anon", "root STATUS status=ok"}},
        {"guest", "ADD as=own", {"guest DATA obj=own", "guest STATUS status=ok"}},
        {"guest", "INVOKE peer=svc obj=svc method=m",
         {"root INVOKE peer=guest obj=svc method=m user=guest group=guest"}},
        {"guest", "INVOKE peer=svc obj=svc method=x",
         {"root INVOKE peer=guest obj=svc method=x user=guest group=guest"}},
        {"guest", "INVOKE peer=svc obj=svc method=n", {"guest STATUS peer=svc status=denied"}},
        {"guest", "INVOKE peer=other obj=other method=m", {"guest STATUS peer=other status=denied"}},
        {"guest", "INVOKE peer=anon obj=anon method=any",
         {"root INVOKE peer=guest obj=anon method=any user=guest group=guest"}},
        {"guest", "INVOKE obj=4242 method=m", {"guest STATUS status=not-found"}},
        {"admin", "connect 0 0", {}},
        {"admin", "INVOKE peer=other obj=other method=m",
         {"root INVOKE peer=admin obj=other method=m user=admin group=admin"}},
        {"guest", "LOOKUP", {"guest DATA path=empty obj=empty type=@3 sig=",
                             "guest DATA path=pub.a obj=pub.a type=@4 sig=q,r",
                             "guest DATA path=svc obj=svc type=@1 sig=m,x", "guest STATUS status=ok"}},
        {"root", "LOOKUP path=svc", {"root DATA path=svc obj=svc type=@1 sig=m,n,x", "root STATUS status=ok"}},
        {"guest", "LOOKUP path=other", {"guest STATUS status=ok"}}, // found, but not shown
        {"guest", "LOOKUP path=nothere", {"guest STATUS status=not-found"}},
        {"guest", "ADD path=guest.a sig=", {"guest DATA obj=guest.a type=@5", "guest STATUS status=ok"}},
        {"guest", "ADD path=svc2 sig=", {"guest STATUS status=bad-argument"}},
        {"guest", "SUBSCRIBE obj=own target=svc", {"root NOTIFY seq=1 obj=svc active=1", "guest STATUS status=ok"}},
        {"guest", "SUBSCRIBE obj=own target=other", {"guest STATUS status=not-found"}},
        {"guest", "listen own net.up", {"guest STATUS peer=1 status=ok"}},
        {"guest", "listen own net.*", {"guest STATUS peer=1 status=ok"}},
        {"guest", "listen own *", {"guest STATUS peer=1 status=denied"}},
        {"guest", "listen own ubus.object.add", {"guest STATUS peer=1 status=denied"}},
        {"guest", "send guest.ev", {"guest STATUS peer=1 status=ok"}},
        {"guest", "send net.up", {"guest STATUS peer=1 status=denied"}},
        {"guest", "INVOKE obj=3 method=add", {"guest STATUS status=denied"}},
        {"g5", "connect 0 5", {}},
        {"g5", "INVOKE obj=3 method=add", {"g5 STATUS status=denied"}},
        {"u5", "connect 5 0", {}},
        {"u5", "INVOKE obj=3 method=add", {"u5 STATUS status=denied"}},
        {"admin", "INVOKE obj=3 method=add", {"admin MONITOR", "admin STATUS status=ok"}},
        {"root", "PING path=x", {"admin MONITOR", "admin MONITOR", "root DATA path=x",
                                  "admin MONITOR", "root STATUS status=ok"}},
    });
    core.set_owner(1000, 1000); // the broker's own user; one monitor, as the order among them is not fixed
    play({{"admin", "disconnect", {}}, {"guest", "INVOKE obj=3 method=add", {"guest MONITOR", "guest STATUS status=ok"}}});
}

TEST_F(Broker, QueryListsRulesOnTheCallersObjectsAndReloadsAreAnnounced)
{
    ubusd::acl_table t;
    ASSERT_TRUE(t.add_json(guest_acl, "guest"));
    ASSERT_TRUE(t.add_json(staff_acl, "staff"));
    core.set_acl(std::move(t));
    connect("root");
    play({
        {"root", "ADD path=svc sig=m", {"root DATA obj=svc type=@1", "root STATUS status=ok"}},
        {"root", "ADD path=plain sig=m", {"root DATA obj=plain type=@2", "root STATUS status=ok"}},
        {"root", "ADD as=own", {"root DATA obj=own", "root STATUS status=ok"}},
        {"root", "listen own ubus.acl.*", {"root STATUS peer=1 status=ok"}},
        {"root", "INVOKE obj=2 method=query",
         {"root DATA obj=2 data={\"seq\":1,\"acl\":[{\"obj\":\"svc\",\"user\":\"guest\",\"methods\":[\"m\",\"x\"]},"
          "{\"obj\":\"svc\",\"group\":\"staff\",\"methods\":[\"n\"],\"priv\":{\"level\":2}}]}",
                                              "root STATUS status=ok"}},
    });
    core.set_acl(ubusd::acl_table());
    EXPECT_EQ(take(-1), lines{"root INVOKE seq=1 obj=own method=ubus.acl.sequence data={\"sequence\":2}"});
    EXPECT_EQ(core.acl_sequence(), 2u);
}
// clang-format on

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
        // clang-format off
        const uint8_t hdr[] = {0, UBUS_MSG_LOOKUP, 0, 1, 0, 0, 0, 0,
                               0, uint8_t(top >> 16), uint8_t(top >> 8), uint8_t(top),
                               20, uint8_t(pad >> 16), uint8_t(pad >> 8), uint8_t(pad)};
        // clang-format on
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
