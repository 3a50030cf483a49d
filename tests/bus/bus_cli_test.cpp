// wwan-bus output, error texts and exit codes, against the real broker and
// the peer process, and against a fake broker sending what a real one never
// would.
#include "bus_fixture.h"

#include "ubus_wire.h"

#include "platform/libubox/src/blob_test_support.h"

#include "wwan/ubox.h"

#include <unistd.h>

#include <numeric>
#include <thread>

namespace bus_test
{
namespace
{

const char *verbose_list = "\t\"echo\":{}\n"
                           "\t\"typed\":{\"num\":\"Integer\",\"name\":\"String\"}\n"
                           "\t\"whoami\":{}\n\t\"defer\":{}\n\t\"silent\":{}\n\t\"fail\":{}\n\t\"notify\":{}\n"
                           "\t\"state\":{}\n\t\"event\":{}\n\t\"events\":{}\n";

// stderr is a pipe here: a failed call quotes the whole command and exits
// with 256-N. An err not ending in a newline is the start of stderr.
TEST_F(BusFixture, CliPrintsRepliesAndFailsWithTheStockTextsAndCodes)
{
    char head[64];
    snprintf(head, sizeof(head), "'test' @%08x\n", test_id);
    struct row {
        std::vector<std::string> args;
        int code;
        std::string out, err;
    } rows[] = {
        // clang-format off
        {{"list"}, 0, "test\n", ""},
        {{"-v", "list", "test"}, 0, head + std::string(verbose_list), ""},
        {{"-v", "-S", "list", "test"}, 0, "test\n", ""},
        {{"call", "test", "typed", R"({"num":21,"name":"x"})"}, 0, "{\n\t\"num\": 42,\n\t\"name\": \"x\"\n}\n",
         ""},
        {{"-S", "call", "test", "echo", R"({"a":[1,true],"b":{"c":"d"}})"}, 0, R"({"a":[1,true],"b":{"c":"d"}})" "\n",
         ""},
        {{"send", "peer.cli", R"({"x":1})"}, 0, "", ""},
        {{"wait_for", "test"}, 0, "", ""},
        {{"call", "nothere", "echo"}, 4, "", "Command failed: Not found\n"},
        {{"call", "test", "nomethod", "{}"}, 253, "",
         "Command failed: ubus call test nomethod {} (Method not found)\n"},
        {{"call", "test", "fail"}, 248, "", "Command failed: ubus call test fail (Operation not supported)\n"},
        {{"call", "test", "typed", R"({"num":"x"})"}, 254, "",
         "Command failed: ubus call test typed {\"num\":\"x\"} (Invalid argument)\nUsage: "},
        {{"-S", "call", "test", "nomethod"}, 3, "", ""},
        {{"call", "test", "echo", "[1,2]"}, 12, "", "Command failed: Parsing message data failed\n"},
        {{"-t", "1", "call", "test", "silent"}, 249, "", "Command failed: ubus call test silent (Request timed out)\n"},
        {{"-t", "1", "wait_for", "test", "late"}, 7, "", "Command failed: Request timed out\n"},
        {{"send", "ubus.object.add"}, 6, "", "Command failed: Permission denied\n"},
        {{"send", "x", "nojson"}, 12, "", "Command failed: Parsing message data failed\n"},
        {{"subscribe", "nothere"}, 255, "", "Error while registering for event 'nothere': Not found\n"},
        {{"bogus"}, 254, "", "Usage: "},
        {{"call", "test"}, 254, "", "Usage: "},
        {{"-s", "/nonexistent/ubus.sock", "list"}, 255, "", "Failed to connect to ubus\n"},
        // clang-format on
    };
    for (const row &r : rows) {
        std::vector<std::string> args{"-s", sock};
        args.insert(args.end(), r.args.begin(), r.args.end());
        SCOPED_TRACE(std::accumulate(r.args.begin(), r.args.end(), std::string()));
        auto res = run_cli(args);
        EXPECT_EQ(res.code, r.code);
        EXPECT_EQ(res.out, r.out);
        EXPECT_EQ(r.err.ends_with('\n') || r.err.empty() ? res.err : res.err.substr(0, r.err.size()), r.err);
    }
}

TEST_F(BusFixture, CliListenPrintsMatchingEvents)
{
    process listener({WWAN_BUS, "-s", sock, "-t", "3", "listen", "cli.*", "other"}, true);
    const std::string probe = R"({ "other": {"probe":true} })";
    // Once both patterns are registered, an event arrives.
    ASSERT_TRUE(wait_until(3000, [&] {
        blob_buf_init(&b, 0);
        blobmsg_add_u8(&b, "probe", 1);
        ubus_send_event(ctx, "other", b.head);
        std::string l;
        return listener.line(&l, 50) && l == probe;
    }));
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "a", 1);
    blobmsg_add_string(&b, "s", "t\"q");
    ASSERT_EQ(ubus_send_event(ctx, "nomatch", b.head), 0);
    ASSERT_EQ(ubus_send_event(ctx, "cli.x", b.head), 0);
    std::string l = probe;
    while (l == probe)
        ASSERT_TRUE(listener.line(&l, 3000));
    EXPECT_EQ(l, R"({ "cli.x": {"a":1,"s":"t\"q"} })");
    EXPECT_EQ(listener.stop(0, 5000), 0) << "-t ends listen with status 0";
}

// A broker for one client: it greets, then answers every message with the object "x" carrying the SIGNATURE
// attribute sig and a DATA attribute of `levels` nested arrays, and a STATUS 0.
void fake_bus(int lfd, std::vector<uint8_t> sig, int levels)
{
    struct blob_buf b = {};
    blob_buf_init(&b, 0);
    blob_put_int32(&b, UBUS_ATTR_OBJID, 0x1000);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, "x");
    blob_put_int32(&b, UBUS_ATTR_OBJTYPE, 0x2000);
    blob_put_raw(&b, sig.data(), sig.size());
    void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
    std::vector<void *> open;
    for (int i = 0; i < levels; i++)
        open.push_back(blobmsg_open_array(&b, "a"));
    for (; !open.empty(); open.pop_back())
        blobmsg_close_array(&b, open.back());
    blob_nest_end(&b, d);
    const std::vector<uint8_t> status = blob_test::from_hex("00000014 01000008 00000000 03000008 00001000");
    int fd = accept(lfd, nullptr, nullptr);
    bool ok = write(fd, blob_test::from_hex("00000000 12345678 00000004").data(), 12) == 12;
    uint8_t hdr[12];
    while (ok && read(fd, hdr, 12) == 12) {
        std::vector<uint8_t> body(ubus_wire::frame_len(hdr) - 12), out;
        if (!body.empty() && read(fd, body.data(), body.size()) != (ssize_t)body.size())
            break;
        uint16_t seq = hdr[2] << 8 | hdr[3];
        uint32_t peer = (uint32_t)hdr[4] << 24 | hdr[5] << 16 | hdr[6] << 8 | hdr[7];
        ubus_wire::encode(out, UBUS_MSG_DATA, seq, peer, b.head);
        ubus_wire::encode(out, UBUS_MSG_STATUS, seq, peer, (const struct blob_attr *)status.data());
        ok = write(fd, out.data(), out.size()) == (ssize_t)out.size();
    }
    close(fd);
    blob_buf_free(&b);
}

// Method "ok" takes "n": INT32; damaged signatures show only what is sound. Replies nested deeper than 32 levels are
// refused. Rows without levels list the signature, the others call a method.
TEST(BusCliReplies, MalformedSignaturesAndDeepRepliesAreRefused)
{
    const std::string ok = "\t\"ok\":{\"n\":\"Integer\"}\n",
                      ok_method = "8200001800026f6b000000008500000c00016e0000000005";
    struct {
        const char *what;
        std::string sig_hex;
        int levels, code;
        std::string out;
    } rows[] = {
        // clang-format off
        {"well formed", "0600001c" + ok_method, 0, 0, ok},
        {"method as a string", "060000288300000a0001730078000000" + ok_method, 0, 0, ok},
        {"second method past the end", "06000024" + ok_method + "82ff000800016d00", 0, 0, ok},
        {"argument longer than its method", "0600001c8200001800026f6b000000008500007800016e0000000005", 0, 0, "\t\"ok\":{}\n"},
        {"method longer than the signature", "0600001c8200101800026f6b000000008500000c00016e0000000005", 0, 0, ""},
        {"plain attributes", "0600000c0300000800000007", 0, 0, ""},
        {"2 levels", "06000004", 2, 0, "{\"a\":[[]]}\n"},
        {"32 levels", "06000004", 32, 0, "{\"a\":" + std::string(32, '[') + std::string(32, ']') + "}\n"},
        {"33 levels", "06000004", 33, UBUS_STATUS_PARSE_ERROR, ""},
        {"5000 levels", "06000004", 5000, UBUS_STATUS_PARSE_ERROR, ""},
        // clang-format on
    };
    for (auto &r : rows) {
        SCOPED_TRACE(r.what);
        temp_root dir;
        std::string sock = dir.path() + "/fake.sock";
        int lfd = usock(USOCK_UNIX | USOCK_SERVER, sock.c_str(), nullptr);
        std::thread bus(fake_bus, lfd, blob_test::from_hex(r.sig_hex.c_str()), r.levels);
        auto res = r.levels ? run_cli({"-s", sock, "-S", "call", "x", "m"}) : run_cli({"-s", sock, "-v", "list"});
        bus.join();
        close(lfd);
        EXPECT_EQ(res.code, r.code) << res.err;
        EXPECT_EQ(res.out, (r.levels ? "" : "'x' @00001000\n") + r.out);
    }
}

} // namespace
} // namespace bus_test
