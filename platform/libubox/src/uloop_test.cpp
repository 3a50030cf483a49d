#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{

class UloopTest : public ::testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override { uloop_done(); }
};

struct uloop_timeout timers[4];
std::vector<int> order;
bool pending_in_cb = false;

// Records which timer fired; timer 1 re-arms itself twice; the run ends after six callbacks.
void record_cb(struct uloop_timeout *t)
{
    order.push_back(int(t - timers));
    pending_in_cb = pending_in_cb || t->pending;
    if (t == &timers[1] && std::count(order.begin(), order.end(), 1) < 3)
        uloop_timeout_set(t, 15);
    if (order.size() == 6)
        uloop_end();
}

TEST_F(UloopTest, TimeoutsFireByExpiryThenInArmingOrderAndMayRearm)
{
    const int delays[4] = {150, 10, 10, 20};
    for (int i = 0; i < 4; i++) {
        timers[i].cb = record_cb;
        ASSERT_EQ(uloop_timeout_set(&timers[i], delays[i]), 0);
    }
    uloop_timeout_cancel(&timers[2]); // the same expiry as 1, armed after it
    timers[2].time = timers[1].time;
    ASSERT_EQ(uloop_timeout_add(&timers[2]), 0);
    EXPECT_EQ(uloop_timeout_add(&timers[0]), -1) << "adding a pending timeout must fail";
    int64_t left = uloop_timeout_remaining64(&timers[0]);
    EXPECT_TRUE(left > 140 && left <= 150) << left;
    uloop_end(); // an earlier end does not stop the next run
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 1, 1, 0}));
    EXPECT_FALSE(pending_in_cb);
    EXPECT_EQ(uloop_timeout_cancel(&timers[0]), -1) << "not pending any more";
    EXPECT_EQ(uloop_timeout_remaining(&timers[0]), -1);
}

struct watch {
    struct uloop_fd fd = {};
    int peer = -1, calls = 0;
    std::string data;
    watch *other = nullptr;
};

void read_cb(struct uloop_fd *u, unsigned int events)
{
    auto *w = container_of(u, watch, fd);
    EXPECT_EQ(events, unsigned{ULOOP_READ});
    char buf[8];
    ssize_t n = read(u->fd, buf, sizeof(buf));
    w->calls++, w->data.append(buf, n > 0 ? size_t(n) : 0);
    if (w->other)
        uloop_fd_delete(&w->other->fd);
}

// One pass runs at most one fd callback; one deleted by an earlier callback is not called; a hang-up sets eof and
// unregisters the fd unless the caller asked for error callbacks.
TEST_F(UloopTest, FdEvents)
{
    struct row {
        const char *what;
        bool delete_other, hangup, error_cb;
    } rows[] = {
        {"both read, one per pass", false, false, false},
        {"deleted by the other's callback", true, false, false},
        {"hang-up unregisters", false, true, false},
        {"hang-up with error callbacks stays registered", false, true, true},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        watch w[2];
        for (int i = 0; i < 2; i++) {
            int sv[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
            w[i].fd.fd = sv[0], w[i].peer = sv[1], w[i].fd.cb = read_cb;
            w[i].other = r.delete_other ? &w[1 - i] : nullptr;
            ASSERT_EQ(uloop_fd_add(&w[i].fd, ULOOP_READ | (r.error_cb ? ULOOP_ERROR_CB : 0)), 0);
            EXPECT_TRUE(fcntl(sv[0], F_GETFL) & O_NONBLOCK) << "added fds are made non-blocking";
            ASSERT_EQ(r.hangup ? close(sv[1]) : write(sv[1], i ? "y" : "x", 1) - 1, 0);
        }
        uloop_run_timeout(100);
        EXPECT_EQ(w[0].calls + w[1].calls, 1);
        uloop_run_timeout(20);
        EXPECT_EQ(w[0].calls + w[1].calls, r.delete_other ? 1 : 2);
        for (int i = 0; i < 2; i++) {
            bool called = w[i].calls > 0;
            EXPECT_EQ(w[i].data, called && !r.hangup ? (i ? "y" : "x") : "");
            EXPECT_EQ(w[i].fd.eof, r.hangup);
            EXPECT_EQ(w[i].fd.registered, called && (!r.hangup || r.error_cb));
            uloop_fd_delete(&w[i].fd);
            close(w[i].fd.fd);
            if (!r.hangup)
                close(w[i].peer);
        }
    }
}

// SIGTERM ends the loop with the signal's number, also when it came before the loop ran (a service manager stopping
// the program right after it set up); a handler the program chose itself is left alone.
TEST_F(UloopTest, SigtermEndsTheRunEvenBeforeItStarts)
{
    struct uloop_timeout t = {};
    t.cb = [](struct uloop_timeout *) { raise(SIGTERM); };
    uloop_timeout_set(&t, 5);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(uloop_cancelled);
    raise(SIGTERM);
    t.cb = [](struct uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&t, 2000);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(t.pending) << "the run must end before the timeout";
    uloop_timeout_set(&t, 5);
    EXPECT_EQ(uloop_run(), 0) << "consumed: the next run is an ordinary one";

    uloop_done();
    struct sigaction ign = {}, cur = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ign, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    sigaction(SIGINT, nullptr, &cur);
    EXPECT_EQ(cur.sa_handler, SIG_IGN);
    signal(SIGINT, SIG_DFL);
}

// Connecting and accepting are used by every bus test; the refusal is not.
TEST(Usock, OverlongUnixPathIsRefused)
{
    errno = 0;
    EXPECT_EQ(usock(USOCK_UNIX, std::string(200, 'a').c_str(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
