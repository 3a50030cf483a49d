// The broker executable against misbehaving clients and at its descriptor
// limit.
#include "bus_fixture.h"
#include "tests/support/process_test_support.h"

#include "ubus_wire.h"

#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bus_test
{
namespace
{

// A hand-driven connection to the broker; the HELLO is consumed.
int raw_connect(const std::string &sock)
{
    int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
    uint8_t hello[12];
    if (fd >= 0 && (read(fd, hello, sizeof(hello)) != 12 || hello[1] != UBUS_MSG_HELLO)) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the broker closed fd within 3 s (what it still sends is dropped).
bool closed_by_peer(int fd)
{
    for (int waited = 0; waited < 3000; waited += 10) {
        struct pollfd p = {fd, POLLIN, 0};
        char buf[65536];
        ssize_t n = poll(&p, 1, 10) > 0 ? recv(fd, buf, sizeof(buf), MSG_DONTWAIT) : 1;
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
    }
    return false;
}

// Whether the broker still answers ctx.
bool served(struct ubus_context *ctx)
{
    uint32_t id;
    return ubus_lookup_id(ctx, "nothere", &id) == UBUS_STATUS_NOT_FOUND;
}

using BrokerRobustness = BusFixture;

// A header the broker cannot frame drops its sender, and only it.
TEST_F(BrokerRobustness, UnframeableHeaderDropsOnlyTheSender)
{
    const uint8_t oversized[12] = {0, UBUS_MSG_PING, 0, 1, 0, 0, 0, 0, 0x00, 0x10, 0x00, 0x08};
    const uint8_t top_too_short[12] = {0, UBUS_MSG_PING, 0, 1, 0, 0, 0, 0, 0, 0, 0, 2};
    for (const uint8_t *header : {oversized, top_too_short}) {
        int fd = raw_connect(sock);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, header, 12), 12);
        EXPECT_TRUE(closed_by_peer(fd));
        close(fd);
        EXPECT_TRUE(served(ctx));
    }
}

TEST_F(BrokerRobustness, ClientThatNeverReadsIsCutOff)
{
    int fd = raw_connect(sock);
    ASSERT_GE(fd, 0);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    // Pings of 60 KB: each is echoed back, and nobody reads the echoes.
    blob_buf_init(&b, 0);
    blob_put_string(&b, UBUS_ATTR_OBJPATH, std::string(60000, 'p').c_str());
    std::vector<uint8_t> ping;
    ubus_wire::encode(ping, UBUS_MSG_PING, 1, 0, b.head);
    size_t sent = 0;
    bool cut = false;
    while (!cut && sent < 2000 * ping.size()) {
        ssize_t n = send(fd, ping.data() + sent % ping.size(), ping.size() - sent % ping.size(), MSG_NOSIGNAL);
        struct pollfd p = {fd, POLLOUT, 0};
        if (n > 0)
            sent += n;
        else
            cut = errno != EAGAIN || poll(&p, 1, 2000) <= 0;
    }
    EXPECT_TRUE(cut) << "still connected after " << sent << " bytes";
    EXPECT_LT(sent, 32u * 1024 * 1024);
    close(fd);
    EXPECT_TRUE(served(ctx));
}

TEST(BrokerLimits, AtItsDescriptorLimitTheBrokerIdlesAndServesItsClients)
{
    temp_root dir;
    std::string sock = dir.path() + "/ubus.sock";
    struct rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit low = {32, old.rlim_max};
    // Inherited by the broker only: restored before this process opens more.
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    auto p = start_broker(sock);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    ASSERT_TRUE(p);
    struct ubus_context *ctx = ubus_connect(sock.c_str());
    ASSERT_NE(ctx, nullptr);

    // Connect until one is not greeted: the broker has no descriptor left.
    std::vector<int> greeted;
    int waiting = -1;
    for (int i = 0; i < 64 && waiting < 0; i++) {
        int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
        ASSERT_GE(fd, 0);
        struct pollfd pf = {fd, POLLIN, 0};
        uint8_t hello[12];
        if (poll(&pf, 1, 500) > 0 && read(fd, hello, sizeof(hello)) == 12)
            greeted.push_back(fd);
        else
            waiting = fd;
    }
    ASSERT_GE(waiting, 0) << "never ran out of descriptors";

    // Idle at the limit: a broker polling the pending connection would use
    // a whole CPU second here.
    long before = test_support::cpu_ticks(p->pid());
    usleep(1000 * 1000);
    long used = test_support::cpu_ticks(p->pid()) - before;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 5) << used << " ticks in one second";
    EXPECT_TRUE(served(ctx)) << "existing clients are served";

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

} // namespace
} // namespace bus_test
