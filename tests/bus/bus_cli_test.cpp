// wwan-bus output, error texts and exit codes, against the real broker and
// the peer process.
#include "bus_fixture.h"

#include "ubus_wire.h"

#include "wwan/ubox.h"

#include <stdio.h>
#include <unistd.h>

#include <thread>

namespace bus_test
{
namespace
{

class BusCli : public BusFixture
{
  protected:
    cli_result cli(std::vector<std::string> args, int timeout_ms = 10000)
    {
        args.insert(args.begin(), {"-s", sock});
        return run_cli(args, timeout_ms);
    }
};

TEST_F(BusCli, ListPrintsPathsInOrder)
{
    auto r = cli({"list"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "test\ntest.other\n");
    EXPECT_EQ(r.err, "");
    r = cli({"list", "test.*"});
    EXPECT_EQ(r.out, "test.other\n");
}

TEST_F(BusCli, VerboseListShowsIdAndArgumentTypes)
{
    auto r = cli({"-v", "list", "test"});
    EXPECT_EQ(r.code, 0);
    char head[64];
    snprintf(head, sizeof(head), "'test' @%08x\n", test_id);
    EXPECT_EQ(r.out, std::string(head) + "\t\"echo\":{}\n"
                                         "\t\"typed\":{\"num\":\"Integer\",\"name\":\"String\"}\n"
                                         "\t\"masked\":{\"num\":\"Integer\",\"d\":\"(unknown)\"}\n"
                                         "\t\"whoami\":{}\n"
                                         "\t\"defer\":{}\n"
                                         "\t\"silent\":{}\n"
                                         "\t\"fail\":{}\n"
                                         "\t\"notify\":{}\n"
                                         "\t\"state\":{}\n"
                                         "\t\"event\":{}\n"
                                         "\t\"events\":{}\n"
                                         "\t\"fd\":{}\n");
    EXPECT_EQ(cli({"-v", "-S", "list", "test"}).out, "test\n") << "simple output ignores -v";
}

TEST_F(BusCli, CallPrintsIndentedOrCompactJson)
{
    auto r = cli({"call", "test", "typed", R"({"num":21,"name":"x"})"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "{\n\t\"num\": 42,\n\t\"name\": \"x\"\n}\n");
    EXPECT_EQ(r.err, "");
    r = cli({"-S", "call", "test", "echo", R"({"a":[1,true],"b":{"c":"d"}})"});
    EXPECT_EQ(r.out, "{\"a\":[1,true],\"b\":{\"c\":\"d\"}}\n");
}

// Exit codes and error texts of failing commands. stderr is a pipe here: a
// failed call quotes the whole command and exits with 256-N.
TEST_F(BusCli, ErrorsUseTheStockTextsAndCodes)
{
    struct row {
        std::vector<std::string> args;
        int code;
        const char *err; // nullptr: only the start is checked
    } rows[] = {
        {{"call", "nothere", "echo"}, 4, "Command failed: Not found\n"},
        {{"call", "test", "nomethod", "{}"}, 253, "Command failed: ubus call test nomethod {} (Method not found)\n"},
        {{"call", "test", "fail"}, 248, "Command failed: ubus call test fail (Operation not supported)\n"},
        {{"call", "test", "typed", R"({"num":"x"})"}, 254, nullptr},
        {{"-S", "call", "test", "nomethod"}, 3, ""},
        {{"call", "test", "echo", "[1,2]"}, 12, "Command failed: Parsing message data failed\n"},
        {{"-t", "1", "call", "test", "silent"},
         256 - UBUS_STATUS_TIMEOUT,
         "Command failed: ubus call test silent (Request timed out)\n"},
        {{"-t", "1", "wait_for", "test", "late"}, UBUS_STATUS_TIMEOUT, "Command failed: Request timed out\n"},
        {{"send", "ubus.object.add"}, 6, "Command failed: Permission denied\n"},
        {{"send", "x", "nojson"}, 12, nullptr},
        {{"subscribe", "nothere"}, 255, "Error while registering for event 'nothere': Not found\n"},
        {{"bogus"}, 254, "Usage: "},
        {{"call", "test"}, 254, "Usage: "},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.args[r.args.size() > 2 ? 2 : 0]);
        auto res = cli(r.args);
        EXPECT_EQ(res.code, r.code);
        EXPECT_EQ(res.out, "");
        if (r.err) {
            EXPECT_EQ(res.err.substr(0, std::string(r.err) == "Usage: " ? 7 : std::string::npos), r.err);
        }
    }
    auto r = run_cli({"-s", dir.path() + "/none.sock", "list"});
    EXPECT_EQ(r.code, 255);
    EXPECT_EQ(r.err, "Failed to connect to ubus\n");
}

TEST_F(BusCli, ListenPrintsMatchingEvents)
{
    process listener({WWAN_BUS, "-s", sock, "-t", "3", "listen", "cli.*", "other"}, true);
    // Wait until both patterns are registered: then an event arrives.
    ASSERT_TRUE(wait_until(3000, [&] {
        blob_buf_init(&b, 0);
        blobmsg_add_u8(&b, "probe", 1);
        ubus_send_event(ctx, "other", b.head);
        std::string l;
        return listener.line(&l, 50) && l == "{ \"other\": {\"probe\":true} }";
    }));
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "a", 1);
    blobmsg_add_string(&b, "s", "t\"q");
    ASSERT_EQ(ubus_send_event(ctx, "nomatch", b.head), 0);
    ASSERT_EQ(ubus_send_event(ctx, "cli.x", b.head), 0);
    std::string l;
    do {
        ASSERT_TRUE(listener.line(&l, 3000));
    } while (l == "{ \"other\": {\"probe\":true} }");
    EXPECT_EQ(l, R"({ "cli.x": {"a":1,"s":"t\"q"} })");
    EXPECT_EQ(listener.stop(0, 5000), 0) << "-t ends listen with status 0";
}

TEST_F(BusCli, SendDeliversAndRejectsReservedNames)
{
    auto r = cli({"send", "peer.cli", R"({"x":1})"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out + r.err, "");
    auto ev = cli({"-S", "call", "test", "events"});
    EXPECT_EQ(ev.out, "{\"events\":[\"peer.cli\"]}\n");
}

TEST_F(BusCli, SubscribePrintsNotifications)
{
    process sub({WWAN_BUS, "-s", sock, "-t", "3", "subscribe", "test"}, true);
    ASSERT_TRUE(wait_until(3000, [&] {
        blob_buf_init(&b, 0);
        int has = 0;
        ubus_invoke(
            ctx, test_id, "state", b.head,
            [](struct ubus_request *req, int, struct blob_attr *msg) {
                *static_cast<int *>(req->priv) = json_of(msg) == R"({"has_subscribers":true})";
            },
            &has, 1000);
        return has == 1;
    }));
    auto r = cli({"call", "test", "notify", R"({"n":5})"});
    EXPECT_EQ(r.out, "{\n\t\"rc\": 0\n}\n");
    std::string l;
    ASSERT_TRUE(sub.line(&l, 3000));
    EXPECT_EQ(l, R"({ "ping": {"n":5} })");
}

TEST_F(BusCli, WaitForReturnsWhenObjectsAppearOrTimesOut)
{
    EXPECT_EQ(cli({"wait_for", "test", "test.other"}).code, 0);
    process waiter({WWAN_BUS, "-s", sock, "-t", "5", "wait_for", "late"});
    usleep(300 * 1000);
    EXPECT_TRUE(waiter.running());
    static const struct ubus_method none[] = {{"x", nullptr, 0, 0, nullptr, 0}};
    static struct ubus_object_type late_type = UBUS_OBJECT_TYPE("late", none);
    struct ubus_object late = {};
    late.name = "late";
    late.type = &late_type;
    late.methods = none;
    late.n_methods = 1;
    ASSERT_EQ(ubus_add_object(ctx, &late), 0);
    EXPECT_EQ(waiter.stop(0, 3000), 0);
}

using bytes = std::vector<uint8_t>;

// A broker for one client on a thread: it greets, answers every LOOKUP with
// the object "x" carrying the SIGNATURE attribute sig, and every INVOKE with
// one DATA carrying the DATA attribute data; whatever their content.
class fake_bus
{
  public:
    fake_bus(const std::string &path, bytes sig, bytes data) : sig_(std::move(sig)), data_(std::move(data))
    {
        lfd_ = usock(USOCK_UNIX | USOCK_SERVER, path.c_str(), nullptr);
        if (lfd_ >= 0)
            thread_ = std::thread([this] { serve(); });
    }
    ~fake_bus()
    {
        if (thread_.joinable())
            thread_.join();
        if (lfd_ >= 0)
            close(lfd_);
    }

  private:
    void serve()
    {
        int fd = accept(lfd_, nullptr, nullptr);
        if (fd < 0)
            return;
        const uint8_t hello[12] = {0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78, 0, 0, 0, 4};
        bool ok = write(fd, hello, 12) == 12;
        uint8_t hdr[12];
        while (ok && read(fd, hdr, 12) == 12) {
            size_t rest = ubus_wire::frame_len(hdr) - 12;
            std::vector<uint8_t> body(rest);
            if (rest && read(fd, body.data(), rest) != (ssize_t)rest)
                break;
            uint16_t seq = hdr[2] << 8 | hdr[3];
            uint32_t peer = (uint32_t)hdr[4] << 24 | hdr[5] << 16 | hdr[6] << 8 | hdr[7];
            struct blob_buf b = {};
            blob_buf_init(&b, 0);
            blob_put_int32(&b, UBUS_ATTR_OBJID, 0x1000);
            if (hdr[1] == UBUS_MSG_LOOKUP) {
                blob_put_string(&b, UBUS_ATTR_OBJPATH, "x");
                blob_put_int32(&b, UBUS_ATTR_OBJTYPE, 0x2000);
                blob_put_raw(&b, sig_.data(), sig_.size());
            } else if (hdr[1] == UBUS_MSG_INVOKE) {
                blob_put_raw(&b, data_.data(), data_.size());
            }
            bytes out;
            if (hdr[1] == UBUS_MSG_LOOKUP || hdr[1] == UBUS_MSG_INVOKE)
                ubus_wire::encode(out, UBUS_MSG_DATA, seq, peer, b.head);
            blob_buf_init(&b, 0);
            blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
            blob_put_int32(&b, UBUS_ATTR_OBJID, 0x1000);
            ubus_wire::encode(out, UBUS_MSG_STATUS, seq, peer, b.head);
            blob_buf_free(&b);
            ok = write(fd, out.data(), out.size()) == (ssize_t)out.size();
        }
        close(fd);
    }

    bytes sig_, data_;
    int lfd_ = -1;
    std::thread thread_;
};

// A nested attribute id built by fill, then possibly damaged.
bytes nested(int id, const std::function<void(struct blob_buf *)> &fill,
             const std::function<void(bytes &)> &damage = nullptr)
{
    struct blob_buf b = {};
    blob_buf_init(&b, 0);
    void *n = blob_nest_start(&b, id);
    fill(&b);
    blob_nest_end(&b, n);
    auto *a = static_cast<struct blob_attr *>(blob_data(b.head));
    bytes r(reinterpret_cast<uint8_t *>(a), reinterpret_cast<uint8_t *>(a) + blob_pad_len(a));
    blob_buf_free(&b);
    if (damage)
        damage(r);
    return r;
}

void typed_method(struct blob_buf *b)
{
    void *t = blobmsg_open_table(b, "ok");
    blobmsg_add_u32(b, "n", BLOBMSG_TYPE_INT32);
    blobmsg_close_table(b, t);
}

TEST(BusCliReplies, VerboseListPrintsOnlyWellFormedMethods)
{
    struct {
        const char *what;
        bytes sig;
        const char *methods;
    } cases[] = {
        {"well formed", nested(UBUS_ATTR_SIGNATURE, typed_method), "\t\"ok\":{\"n\":\"Integer\"}\n"},
        {"method as a string",
         nested(UBUS_ATTR_SIGNATURE,
                [](auto *b) {
                    blobmsg_add_string(b, "s", "x");
                    typed_method(b);
                }),
         "\t\"ok\":{\"n\":\"Integer\"}\n"},
        {"method name running past the method",
         nested(
             UBUS_ATTR_SIGNATURE,
             [](auto *b) {
                 typed_method(b);
                 blobmsg_close_table(b, blobmsg_open_table(b, "m"));
             },
             [](bytes &s) { s[s.size() - 8 + 1] = 0xff; }),
         "\t\"ok\":{\"n\":\"Integer\"}\n"},
        {"argument name not terminated",
         nested(UBUS_ATTR_SIGNATURE, typed_method, [](bytes &s) { s[4 + 8 + 4 + 2 + 1] = 'x'; }), "\t\"ok\":{}\n"},
        {"method longer than the signature",
         nested(UBUS_ATTR_SIGNATURE, typed_method, [](bytes &s) { s[4 + 2] = 0x10; }), ""},
        {"plain attributes", nested(UBUS_ATTR_SIGNATURE, [](auto *b) { blob_put_int32(b, 3, 7); }), ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        temp_dir dir;
        std::string sock = dir.path() + "/fake.sock";
        fake_bus bus(sock, c.sig, nested(UBUS_ATTR_DATA, [](auto *) {}));
        auto r = run_cli({"-s", sock, "-v", "list"});
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.out, std::string("'x' @00001000\n") + c.methods);
    }
}

TEST(BusCliReplies, RepliesNestedTooDeeplyAreRefused)
{
    auto deep = [](int levels) {
        return nested(UBUS_ATTR_DATA, [levels](auto *b) {
            std::vector<void *> open;
            for (int i = 0; i < levels; i++)
                open.push_back(blobmsg_open_array(b, "a"));
            while (!open.empty()) {
                blobmsg_close_array(b, open.back());
                open.pop_back();
            }
        });
    };
    struct {
        int levels;
        int code;
        std::string out;
    } cases[] = {
        {2, 0, "{\"a\":[[]]}\n"},
        {32, 0, ""},
        {33, UBUS_STATUS_PARSE_ERROR, ""},
        {5000, UBUS_STATUS_PARSE_ERROR, ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.levels);
        temp_dir dir;
        std::string sock = dir.path() + "/fake.sock";
        fake_bus bus(sock, nested(UBUS_ATTR_SIGNATURE, [](auto *) {}), deep(c.levels));
        auto r = run_cli({"-s", sock, "-S", "call", "x", "m"});
        EXPECT_EQ(r.code, c.code) << r.err;
        if (!c.out.empty()) {
            EXPECT_EQ(r.out, c.out);
        }
        EXPECT_EQ(r.out.empty(), c.code != 0);
    }
}

} // namespace
} // namespace bus_test
