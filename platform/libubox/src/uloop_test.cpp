#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

class UloopTest : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
	void TearDown() override { uloop_done(); }
};

struct tagged_timeout {
	struct uloop_timeout t = {};
	int tag = 0;
	std::vector<int> *order = nullptr;
};

void record_cb(struct uloop_timeout *t)
{
	auto *tt = container_of(t, tagged_timeout, t);
	tt->order->push_back(tt->tag);
	if (tt->order->size() == 4)
		uloop_end();
}

TEST_F(UloopTest, TimeoutsFireByExpiryThenInArmingOrder)
{
	std::vector<int> order;
	tagged_timeout t[4];
	const int delays[4] = {30, 10, 10, 20};
	for (int i = 0; i < 4; i++) {
		t[i].tag = i;
		t[i].order = &order;
		t[i].t.cb = record_cb;
		ASSERT_EQ(uloop_timeout_set(&t[i].t, delays[i]), 0);
	}
	uloop_run();
	EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 0}));
}

TEST_F(UloopTest, CancelAndRemainingReportPendingState)
{
	struct uloop_timeout t = {};
	EXPECT_EQ(uloop_timeout_cancel(&t), -1);
	EXPECT_EQ(uloop_timeout_remaining64(&t), -1);
	uloop_timeout_set(&t, 5000);
	int64_t left = uloop_timeout_remaining64(&t);
	EXPECT_GT(left, 4900);
	EXPECT_LE(left, 5000);
	EXPECT_EQ(uloop_timeout_add(&t), -1) << "adding a pending timeout must fail";
	EXPECT_EQ(uloop_timeout_cancel(&t), 0);
	EXPECT_FALSE(t.pending);
	EXPECT_EQ(uloop_timeout_remaining(&t), -1);
}

struct rearm_timeout {
	struct uloop_timeout t = {};
	int fired = 0;
	bool pending_in_cb = true;
};

void rearm_cb(struct uloop_timeout *t)
{
	auto *r = container_of(t, rearm_timeout, t);
	r->pending_in_cb = t->pending;
	if (++r->fired < 3)
		uloop_timeout_set(t, 1);
	else
		uloop_end();
}

TEST_F(UloopTest, TimeoutMayRearmItselfFromItsCallback)
{
	rearm_timeout r;
	r.t.cb = rearm_cb;
	uloop_timeout_set(&r.t, 1);
	uloop_run();
	EXPECT_EQ(r.fired, 3);
	EXPECT_FALSE(r.pending_in_cb);
}

struct pipe_watch {
	struct uloop_fd fd = {};
	int wfd = -1;
	int calls = 0;
	unsigned int events = 0;
	std::string data;
	pipe_watch *other = nullptr;
};

void pipe_read_cb(struct uloop_fd *u, unsigned int events)
{
	auto *p = container_of(u, pipe_watch, fd);
	p->calls++;
	p->events = events;
	char buf[64];
	ssize_t n = read(u->fd, buf, sizeof(buf));
	if (n > 0)
		p->data.append(buf, n);
	if (p->other)
		uloop_fd_delete(&p->other->fd);
}

void open_pipe(pipe_watch &p)
{
	int fds[2];
	ASSERT_EQ(pipe(fds), 0);
	p.fd.fd = fds[0];
	p.wfd = fds[1];
	p.fd.cb = pipe_read_cb;
}

void close_pipe(pipe_watch &p)
{
	uloop_fd_delete(&p.fd);
	close(p.fd.fd);
	if (p.wfd >= 0)
		close(p.wfd);
}

TEST_F(UloopTest, OnePassRunsAtMostOneFdCallback)
{
	pipe_watch a, b;
	open_pipe(a);
	open_pipe(b);
	ASSERT_EQ(uloop_fd_add(&a.fd, ULOOP_READ), 0);
	ASSERT_EQ(uloop_fd_add(&b.fd, ULOOP_READ), 0);
	EXPECT_TRUE(fcntl(a.fd.fd, F_GETFL) & O_NONBLOCK) << "first add forces O_NONBLOCK";
	ASSERT_EQ(write(a.wfd, "x", 1), 1);
	ASSERT_EQ(write(b.wfd, "y", 1), 1);
	uloop_run_timeout(100);
	EXPECT_EQ(a.calls + b.calls, 1);
	uloop_run_timeout(100);
	EXPECT_EQ(a.calls, 1);
	EXPECT_EQ(b.calls, 1);
	EXPECT_EQ(a.data + b.data, a.calls ? "xy" : "yx");
	EXPECT_EQ(a.events, (unsigned)ULOOP_READ);
	close_pipe(a);
	close_pipe(b);
}

TEST_F(UloopTest, FdDeletedByAnEarlierCallbackIsNotCalled)
{
	pipe_watch a, b;
	open_pipe(a);
	open_pipe(b);
	a.other = &b;
	b.other = &a;
	uloop_fd_add(&a.fd, ULOOP_READ);
	uloop_fd_add(&b.fd, ULOOP_READ);
	ASSERT_EQ(write(a.wfd, "x", 1), 1);
	ASSERT_EQ(write(b.wfd, "y", 1), 1);
	uloop_run_timeout(100);
	uloop_run_timeout(20);
	EXPECT_EQ(a.calls + b.calls, 1);
	EXPECT_FALSE(a.fd.registered && b.fd.registered);
	close_pipe(a);
	close_pipe(b);
}

TEST_F(UloopTest, PeerHangupSetsEofAndUnregistersWithoutErrorCb)
{
	int sv[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
	pipe_watch p;
	p.fd.fd = sv[0];
	p.fd.cb = pipe_read_cb;
	uloop_fd_add(&p.fd, ULOOP_READ);
	close(sv[1]);
	uloop_run_timeout(100);
	EXPECT_EQ(p.calls, 1);
	EXPECT_TRUE(p.fd.eof);
	EXPECT_TRUE(p.fd.error);
	EXPECT_FALSE(p.fd.registered);
	close(sv[0]);
}

TEST_F(UloopTest, ErrorCbKeepsTheFdRegistered)
{
	int sv[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
	pipe_watch p;
	p.fd.fd = sv[0];
	p.fd.cb = pipe_read_cb;
	uloop_fd_add(&p.fd, ULOOP_READ | ULOOP_ERROR_CB);
	close(sv[1]);
	uloop_run_timeout(100);
	EXPECT_TRUE(p.fd.registered);
	EXPECT_TRUE(p.fd.eof);
	uloop_fd_delete(&p.fd);
	close(sv[0]);
}

void end_cb(struct uloop_timeout *) { uloop_end(); }

TEST_F(UloopTest, RunClearsAnEarlierEndAndStopsOnUloopEnd)
{
	uloop_end();
	struct uloop_timeout t = {};
	t.cb = end_cb;
	uloop_timeout_set(&t, 20);
	EXPECT_EQ(uloop_run(), 0);
	EXPECT_FALSE(t.pending) << "run must not have returned before the timeout";
	EXPECT_FALSE(uloop_cancelling());
}

void raise_term_cb(struct uloop_timeout *) { raise(SIGTERM); }

TEST_F(UloopTest, SigtermEndsTheLoopWithTheSignalNumber)
{
	struct uloop_timeout t = {};
	t.cb = raise_term_cb;
	uloop_timeout_set(&t, 5);
	EXPECT_EQ(uloop_run(), SIGTERM);
	EXPECT_TRUE(uloop_cancelled);
}

TEST_F(UloopTest, SigtermBeforeTheLoopRunsIsNotLost)
{
	// A service manager may stop the program right after it set up, before
	// its loop runs: the run must end at once rather than forget the signal.
	raise(SIGTERM);
	struct uloop_timeout t = {};
	t.cb = end_cb;
	uloop_timeout_set(&t, 2000);
	EXPECT_EQ(uloop_run(), SIGTERM);
	EXPECT_TRUE(t.pending) << "the run must end before the timeout";
	uloop_timeout_cancel(&t);
	// Consumed: the next run is an ordinary one.
	uloop_timeout_set(&t, 5);
	EXPECT_EQ(uloop_run(), 0);
}

TEST(UloopInit, LeavesProgramChosenSignalHandlersAlone)
{
	struct sigaction ign = {}, cur = {};
	ign.sa_handler = SIG_IGN;
	sigaction(SIGINT, &ign, nullptr);
	ASSERT_EQ(uloop_init(), 0);
	sigaction(SIGINT, nullptr, &cur);
	EXPECT_EQ(cur.sa_handler, SIG_IGN);
	uloop_done();
	signal(SIGINT, SIG_DFL);
}

TEST(Usock, UnixServerAcceptsClientAndRejectsOverlongPath)
{
	char dir[] = "/tmp/usock_test.XXXXXX";
	ASSERT_NE(mkdtemp(dir), nullptr);
	std::string path = std::string(dir) + "/s.sock";
	int srv = usock(USOCK_UNIX | USOCK_SERVER, path.c_str(), nullptr);
	ASSERT_GE(srv, 0);
	EXPECT_TRUE(fcntl(srv, F_GETFD) & FD_CLOEXEC);
	int cli = usock(USOCK_UNIX | USOCK_NONBLOCK, path.c_str(), nullptr);
	ASSERT_GE(cli, 0);
	EXPECT_TRUE(fcntl(cli, F_GETFL) & O_NONBLOCK);
	EXPECT_EQ(usock_wait_ready(cli, 1000), 0);
	int acc = accept(srv, nullptr, nullptr);
	ASSERT_GE(acc, 0);
	ASSERT_EQ(write(cli, "hi", 2), 2);
	char buf[4] = {};
	EXPECT_EQ(read(acc, buf, sizeof(buf)), 2);
	EXPECT_STREQ(buf, "hi");
	close(acc);
	close(cli);
	close(srv);

	std::string longpath(200, 'a');
	errno = 0;
	EXPECT_EQ(usock(USOCK_UNIX, longpath.c_str(), nullptr), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(usock(USOCK_UNIX, path.c_str(), nullptr), -1) << "nobody listens any more";
	unlink(path.c_str());
	rmdir(dir);
}

} // namespace
