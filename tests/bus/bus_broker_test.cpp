// The broker executable against misbehaving clients, and the client library
// against a misbehaving broker. Fixed seeds, bounded work.
#include "bus_fixture.h"

#include "ubus_wire.h"

#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <thread>

namespace bus_test
{
namespace
{

using bytes = std::vector<uint8_t>;

// A hand-driven connection to the broker; the HELLO is consumed.
int raw_connect(const std::string &sock)
{
    int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
    if (fd < 0)
        return -1;
    uint8_t hello[12];
    if (read(fd, hello, sizeof(hello)) != 12 || hello[1] != UBUS_MSG_HELLO) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the broker closed fd within timeout_ms (anything it still sends
// is read and discarded).
bool closed_by_peer(int fd, int timeout_ms)
{
    for (int waited = 0; waited < timeout_ms; waited += 10) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 10) > 0) {
            char buf[65536];
            ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno == ECONNRESET))
                return true;
        }
    }
    return false;
}

class BrokerRobustness : public BusFixture
{
  protected:
    void expect_others_served()
    {
        uint32_t id;
        EXPECT_EQ(ubus_lookup_id(ctx, "test", &id), 0);
        blob_buf_init(&b, 0);
        EXPECT_EQ(ubus_invoke(ctx, id, "echo", b.head, nullptr, nullptr, 3000), 0);
    }
};

// A header the broker cannot frame drops its sender, and only it.
TEST_F(BrokerRobustness, UnframeableHeaderDropsOnlyTheSender)
{
    const uint8_t oversized[12] = {0, UBUS_MSG_PING, 0, 1, 0, 0, 0, 0, 0x00, 0x10, 0x00, 0x08};
    const uint8_t top_too_short[12] = {0, UBUS_MSG_PING, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2};
    for (const uint8_t *header : {oversized, top_too_short}) {
        int fd = raw_connect(sock);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, header, 12), 12);
        EXPECT_TRUE(closed_by_peer(fd, 3000));
        close(fd);
        expect_others_served();
    }
}

TEST_F(BrokerRobustness, ClientHangingUpRightAfterItsLastMessageIsForgotten)
{
    int fd = raw_connect(sock);
    ASSERT_GE(fd, 0);
    struct blob_buf ab = {};
    blob_buf_init(&ab, 0);
    blob_put_string(&ab, UBUS_ATTR_OBJPATH, "fleeting");
    void *sig = blob_nest_start(&ab, UBUS_ATTR_SIGNATURE);
    blob_nest_end(&ab, sig);
    bytes add;
    ubus_wire::encode(add, UBUS_MSG_ADD_OBJECT, 1, 0, ab.head);
    blob_buf_free(&ab);
    // Message and hang-up reach the broker in one wake-up.
    kill(broker->pid(), SIGSTOP);
    ASSERT_EQ(write(fd, add.data(), add.size()), (ssize_t)add.size());
    close(fd);
    kill(broker->pid(), SIGCONT);
    uint32_t id;
    // Published, then withdrawn when the broker reads the end of stream.
    EXPECT_TRUE(wait_until(3000, [&] { return ubus_lookup_id(ctx, "fleeting", &id) == UBUS_STATUS_NOT_FOUND; }));
    expect_others_served();
}

TEST_F(BrokerRobustness, ClientThatNeverReadsIsCutOff)
{
    int fd = raw_connect(sock);
    ASSERT_GE(fd, 0);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    // Pings of 60 KB: each is echoed back, and nobody reads the echoes.
    struct blob_buf pb = {};
    blob_buf_init(&pb, 0);
    std::string filler(60000, 'p');
    blob_put_string(&pb, UBUS_ATTR_OBJPATH, filler.c_str());
    bytes ping;
    ubus_wire::encode(ping, UBUS_MSG_PING, 1, 0, pb.head);
    blob_buf_free(&pb);

    bool cut = false;
    size_t sent = 0;
    for (int i = 0; i < 2000 && !cut; i++) {
        size_t off = 0;
        while (off < ping.size()) {
            ssize_t n = send(fd, ping.data() + off, ping.size() - off, MSG_NOSIGNAL);
            if (n > 0) {
                off += n;
                continue;
            }
            if (errno == EAGAIN) {
                struct pollfd p = {fd, POLLOUT, 0};
                if (poll(&p, 1, 2000) > 0)
                    continue;
            }
            cut = true;
            break;
        }
        sent += off;
    }
    EXPECT_TRUE(cut) << "still connected after " << sent << " bytes";
    EXPECT_LT(sent, 32u * 1024 * 1024);
    close(fd);
    expect_others_served();
}

// A broker answering the ACL query is alive and serving this client.
int query(struct ubus_context *ctx)
{
    struct blob_buf q = {};
    blob_buf_init(&q, 0);
    int r = ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_ACL, "query", q.head, nullptr, nullptr, 3000);
    blob_buf_free(&q);
    return r;
}

TEST(BrokerLimits, AtItsDescriptorLimitTheBrokerIdlesAndServesItsClients)
{
    temp_dir dir;
    std::string sock = dir.path() + "/ubus.sock";
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit low = {32, old.rlim_max};
    // Inherited by the broker only: restored before this process opens more.
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    auto p = std::make_unique<process>(std::vector<std::string>{WWAN_BUSD, "-s", sock});
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    struct ubus_context *ctx = nullptr;
    for (int i = 0; i < 500 && !ctx; i++) {
        ctx = ubus_connect(sock.c_str());
        if (!ctx)
            usleep(10000);
    }
    ASSERT_NE(ctx, nullptr);

    // Connect until one is not greeted: the broker has no descriptor left.
    std::vector<int> greeted;
    int waiting = -1;
    for (int i = 0; i < 64 && waiting < 0; i++) {
        int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
        ASSERT_GE(fd, 0);
        struct pollfd pf = {fd, POLLIN, 0};
        if (poll(&pf, 1, 500) > 0) {
            uint8_t hello[12];
            ASSERT_EQ(read(fd, hello, sizeof(hello)), 12);
            greeted.push_back(fd);
        } else {
            waiting = fd;
        }
    }
    ASSERT_GE(waiting, 0) << "never ran out of descriptors";

    // Idle at the limit: a broker polling the pending connection would use
    // a whole CPU second here.
    long before = cpu_ticks(p->pid());
    usleep(1000 * 1000);
    long used = cpu_ticks(p->pid()) - before;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 5) << used << " ticks in one second";
    EXPECT_EQ(query(ctx), 0) << "existing clients are served";

    // A client leaving makes room for the one waiting.
    close(greeted.back());
    greeted.pop_back();
    struct pollfd pf = {waiting, POLLIN, 0};
    EXPECT_GT(poll(&pf, 1, 3000), 0) << "greeted once a descriptor is free";
    close(waiting);
    for (int fd : greeted)
        close(fd);
    ubus_free(ctx);
    EXPECT_EQ(p->stop(SIGTERM), 0);
}

// A fake broker on a thread: greets, publishes the client's object, then
// throws random and truncated messages at the client.
void fake_broker(int listen_fd, uint32_t seed)
{
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0)
        return;
    std::mt19937 rng(seed);
    const uint8_t hello[12] = {0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78, 0, 0, 0, 4};
    if (write(fd, hello, 12) != 12)
        return;
    // Answer ADD_OBJECT.
    uint8_t req[4096];
    ssize_t n = read(fd, req, sizeof(req));
    if (n >= 12) {
        uint16_t seq = req[2] << 8 | req[3];
        struct blob_buf b = {};
        blob_buf_init(&b, 0);
        blob_put_int32(&b, UBUS_ATTR_OBJID, 0x1000);
        bytes out;
        ubus_wire::encode(out, UBUS_MSG_DATA, seq, 0, b.head);
        blob_buf_init(&b, 0);
        blob_put_int32(&b, UBUS_ATTR_STATUS, 0);
        ubus_wire::encode(out, UBUS_MSG_STATUS, seq, 0, b.head);
        if (write(fd, out.data(), out.size()) < 0)
            return;
        const char *methods[] = {"echo", "none", ""};
        for (int i = 0; i < 3000; i++) {
            blob_buf_init(&b, 0);
            for (int a = rng() % 5; a > 0; a--) {
                int attr = rng() % 14;
                switch (rng() % 4) {
                case 0:
                    blob_put_int32(&b, attr, rng() % 3 ? 0x1000 : rng());
                    break;
                case 1:
                    blob_put_string(&b, attr, methods[rng() % 3]);
                    break;
                case 2: {
                    void *d = blob_nest_start(&b, attr);
                    blobmsg_add_u32(&b, "k", rng());
                    blob_nest_end(&b, d);
                    break;
                }
                default:
                    blob_put_u8(&b, attr, rng() % 2);
                }
            }
            int type = rng() % 13;
            if (i % 10 == 0) {
                // A proper call now and then.
                blob_buf_init(&b, 0);
                blob_put_int32(&b, UBUS_ATTR_OBJID, 0x1000);
                blob_put_string(&b, UBUS_ATTR_METHOD, "echo");
                void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
                blobmsg_add_u32(&b, "i", i);
                blob_nest_end(&b, d);
                type = UBUS_MSG_INVOKE;
            }
            out.clear();
            ubus_wire::encode(out, type, rng() % 4, rng() % 2 ? 0x1000 : rng(), b.head);
            if (rng() % 5 == 0 && out.size() > 12)
                out[12 + rng() % (out.size() - 12)] = rng();
            if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0)
                break;
            uint8_t drain[65536];
            while (recv(fd, drain, sizeof(drain), MSG_DONTWAIT) > 0) {
            }
        }
        // A final oversized header: the client must give up on the stream.
        const uint8_t big[12] = {0, 2, 0, 1, 0, 0, 0, 0, 0x00, 0x20, 0x00, 0x00};
        if (send(fd, big, sizeof(big), MSG_NOSIGNAL) < 0) {
        }
        blob_buf_free(&b);
    }
    shutdown(fd, SHUT_WR);
    uint8_t drain[4096];
    while (read(fd, drain, sizeof(drain)) > 0) {
    }
    close(fd);
}

int fuzz_echo_calls;
int fuzz_echo(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *msg)
{
    fuzz_echo_calls++;
    ubus_send_reply(ctx, req, msg);
    return 0;
}

TEST(ClientRobustness, GarbageFromTheBrokerIsSurvived)
{
    temp_dir dir;
    std::string path = dir.path() + "/fake.sock";
    int lfd = usock(USOCK_UNIX | USOCK_SERVER, path.c_str(), nullptr);
    ASSERT_GE(lfd, 0);
    std::thread broker(fake_broker, lfd, 777u);

    struct ubus_context *ctx = ubus_connect(path.c_str());
    ASSERT_NE(ctx, nullptr);
    static const struct ubus_method methods[] = {UBUS_METHOD_NOARG("echo", fuzz_echo)};
    static struct ubus_object_type type = UBUS_OBJECT_TYPE("fuzz", methods);
    struct ubus_object obj = {};
    obj.name = "fuzz";
    obj.type = &type;
    obj.methods = methods;
    obj.n_methods = 1;
    ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
    EXPECT_EQ(obj.id, 0x1000u);

    // Pending requests for stray STATUS/DATA to hit.
    struct ubus_request reqs[3];
    for (auto &r : reqs) {
        ASSERT_EQ(ubus_invoke_async(ctx, 0x1000, "echo", nullptr, &r), 0);
        ubus_complete_request_async(ctx, &r);
    }
    bool lost = false;
    ctx->connection_lost = [](struct ubus_context *c) { c->cancel_poll = true; };
    while (!lost) {
        struct pollfd p = {ctx->sock.fd, POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0)
            break;
        ubus_handle_event(ctx);
        lost = ctx->cancel_poll;
    }
    EXPECT_TRUE(lost) << "the oversized message ends the connection";
    EXPECT_GT(fuzz_echo_calls, 0) << "some well-formed calls got through";
    ubus_free(ctx);
    broker.join();
    close(lfd);
    uloop_done();
}

} // namespace
} // namespace bus_test
