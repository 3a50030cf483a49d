#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

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

struct tagged_timeout {
    struct uloop_timeout t = {};
    int tag = 0, fired = 0;
    bool pending_in_cb = true;
    std::vector<int> *order = nullptr;
};

// Records the order; the timeout tagged 1 re-arms itself twice from its
// callback; the run ends after six callbacks.
void record_cb(struct uloop_timeout *t)
{
    auto *tt = container_of(t, tagged_timeout, t);
    tt->order->push_back(tt->tag);
    tt->pending_in_cb = t->pending;
    if (tt->tag == 1 && ++tt->fired < 3)
        uloop_timeout_set(t, 15);
    if (tt->order->size() == 6)
        uloop_end();
}

TEST_F(UloopTest, TimeoutsFireByExpiryThenInArmingOrderAndMayRearm)
{
    std::vector<int> order;
    tagged_timeout t[4];
    const int delays[4] = {150, 10, 10, 20};
    for (int i = 0; i < 4; i++) {
        t[i].tag = i, t[i].order = &order, t[i].t.cb = record_cb;
        ASSERT_EQ(uloop_timeout_set(&t[i].t, delays[i]), 0);
    }
    // the same expiry as 1, armed after it
    uloop_timeout_cancel(&t[2].t);
    t[2].t.time = t[1].t.time;
    ASSERT_EQ(uloop_timeout_add(&t[2].t), 0);
    EXPECT_EQ(uloop_timeout_add(&t[0].t), -1) << "adding a pending timeout must fail";
    int64_t left = uloop_timeout_remaining64(&t[0].t);
    EXPECT_GT(left, 140);
    EXPECT_LE(left, 150);
    uloop_end(); // an earlier end does not stop the next run
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 1, 1, 0}));
    EXPECT_FALSE(t[1].pending_in_cb);

    EXPECT_EQ(uloop_timeout_cancel(&t[0].t), -1) << "not pending any more";
    EXPECT_EQ(uloop_timeout_remaining(&t[0].t), -1);
}

struct watch {
    struct uloop_fd fd = {};
    int wfd = -1, calls = 0;
    unsigned int events = 0;
    std::string data;
    watch *other = nullptr;
};

void read_cb(struct uloop_fd *u, unsigned int events)
{
    auto *w = container_of(u, watch, fd);
    w->calls++;
    w->events = events;
    char buf[64];
    ssize_t n = read(u->fd, buf, sizeof(buf));
    if (n > 0)
        w->data.append(buf, static_cast<size_t>(n));
    if (w->other)
        uloop_fd_delete(&w->other->fd);
}

// One pass runs at most one fd callback; one deleted by an earlier callback
// is not called; a hang-up sets eof and unregisters the fd unless the
// caller asked for error callbacks.
TEST_F(UloopTest, FdEvents)
{
    struct row {
        const char *what;
        bool delete_other, hangup, error_cb;
        int calls;
    } rows[] = {
        {"both read, one per pass", false, false, false, 2},
        {"deleted by the other's callback", true, false, false, 1},
        {"hang-up unregisters", false, true, false, 2},
        {"hang-up with error callbacks stays registered", false, true, true, 2},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        watch w[2];
        for (int i = 0; i < 2; i++) {
            int sv[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
            w[i].fd.fd = sv[0], w[i].wfd = sv[1], w[i].fd.cb = read_cb;
            w[i].other = r.delete_other ? &w[1 - i] : nullptr;
            ASSERT_EQ(uloop_fd_add(&w[i].fd, ULOOP_READ | (r.error_cb ? ULOOP_ERROR_CB : 0)), 0);
            EXPECT_TRUE(fcntl(w[i].fd.fd, F_GETFL) & O_NONBLOCK) << "added fds are made non-blocking";
            if (r.hangup)
                close(w[i].wfd), w[i].wfd = -1;
            else
                ASSERT_EQ(write(w[i].wfd, i ? "y" : "x", 1), 1);
        }
        uloop_run_timeout(100);
        EXPECT_EQ(w[0].calls + w[1].calls, 1);
        uloop_run_timeout(20);
        EXPECT_EQ(w[0].calls + w[1].calls, r.calls);
        for (int i = 0; i < 2; i++) {
            watch &x = w[i];
            if (x.calls) {
                EXPECT_EQ(x.events, unsigned{ULOOP_READ});
                EXPECT_EQ(x.data, r.hangup ? "" : i ? "y" : "x");
                EXPECT_EQ(x.fd.eof, r.hangup);
                EXPECT_EQ(x.fd.registered, !r.hangup || r.error_cb);
            } else {
                EXPECT_FALSE(x.fd.registered);
            }
            uloop_fd_delete(&x.fd);
            close(x.fd.fd);
            if (x.wfd >= 0)
                close(x.wfd);
        }
    }
}

void end_cb(struct uloop_timeout *)
{
    uloop_end();
}
void raise_term_cb(struct uloop_timeout *)
{
    raise(SIGTERM);
}

// SIGTERM ends the loop with the signal's number, also when it came before
// the loop ran (a service manager stopping the program right after it set
// up); a handler the program chose itself is left alone.
TEST_F(UloopTest, SigtermEndsTheRunEvenBeforeItStarts)
{
    struct uloop_timeout t = {};
    t.cb = raise_term_cb;
    uloop_timeout_set(&t, 5);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(uloop_cancelled);

    raise(SIGTERM);
    t.cb = end_cb;
    uloop_timeout_set(&t, 2000);
    EXPECT_EQ(uloop_run(), SIGTERM);
    EXPECT_TRUE(t.pending) << "the run must end before the timeout";
    uloop_timeout_cancel(&t);
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
