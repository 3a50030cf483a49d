// The event loop: one epoll set, a sorted list of timeouts, and a self-pipe
// that turns SIGINT/SIGTERM into a clean end of uloop_run().
#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

namespace {

constexpr int max_events = 10;

struct fd_event {
	struct uloop_fd *fd;
	unsigned int events;
};

// Callbacks currently on the stack: an edge-triggered event for one of them
// is buffered and replayed after it returns; a deleted fd is marked gone.
struct fd_stack {
	fd_stack *next;
	struct uloop_fd *fd;
	unsigned int events;
};

int poll_fd = -1;
int waker_pipe[2] = {-1, -1};
struct uloop_fd waker_fd;
LIST_HEAD(timeouts);
fd_event cur_fds[max_events];
int cur_fd;
int cur_nfds;
fd_stack *stack_top;
volatile sig_atomic_t run_depth;
volatile sig_atomic_t loop_status;
// A SIGINT/SIGTERM that arrived while no loop was running (say, between
// uloop_init() and uloop_run()): the next run ends at once with it instead of
// losing it and running on.
volatile sig_atomic_t pending_signal;
bool signals_set;
struct sigaction old_int, old_term, old_pipe;

void now(struct timeval *tv)
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	tv->tv_sec = ts.tv_sec;
	tv->tv_usec = ts.tv_nsec / 1000;
}

int64_t tv_diff_ms(const struct timeval *a, const struct timeval *b)
{
	return (int64_t)(a->tv_sec - b->tv_sec) * 1000 + (a->tv_usec - b->tv_usec) / 1000;
}

bool tv_after(const struct timeval *a, const struct timeval *b)
{
	return a->tv_sec > b->tv_sec || (a->tv_sec == b->tv_sec && a->tv_usec > b->tv_usec);
}

void signal_cb(int signo)
{
	int saved = errno;
	loop_status = signo;
	uloop_cancelled = true;
	if (run_depth == 0)
		pending_signal = signo;
	if (waker_pipe[1] >= 0) {
		ssize_t r = write(waker_pipe[1], "w", 1);
		(void)r;
	}
	errno = saved;
}

// Installs handler for signo unless the program already chose a disposition.
void set_signal(int signo, void (*handler)(int), struct sigaction *old)
{
	struct sigaction s;
	sigaction(signo, nullptr, old);
	if (old->sa_handler != SIG_DFL)
		return;
	memset(&s, 0, sizeof(s));
	s.sa_handler = handler;
	sigemptyset(&s.sa_mask);
	sigaction(signo, &s, nullptr);
}

void restore_signal(int signo, void (*handler)(int), const struct sigaction *old)
{
	struct sigaction cur;
	sigaction(signo, nullptr, &cur);
	if (cur.sa_handler == handler)
		sigaction(signo, old, nullptr);
}

void waker_cb(struct uloop_fd *fd, unsigned int)
{
	char buf[16];
	while (read(fd->fd, buf, sizeof(buf)) > 0) {
	}
}

int init_poll(void)
{
	if (poll_fd >= 0)
		return 0;
	poll_fd = epoll_create1(EPOLL_CLOEXEC);
	return poll_fd < 0 ? -1 : 0;
}

bool stack_event(struct uloop_fd *fd, int events)
{
	// Level-triggered fds keep firing; only edge-triggered ones need buffering.
	if (!(fd->flags & ULOOP_EDGE_TRIGGER))
		return false;
	for (fd_stack *cur = stack_top; cur; cur = cur->next) {
		if (cur->fd != fd)
			continue;
		if (events < 0)
			cur->fd = nullptr;
		else
			cur->events |= events | ULOOP_EVENT_BUFFERED;
		return true;
	}
	return false;
}

int fetch_events(int timeout)
{
	struct epoll_event events[max_events];
	int nfds = epoll_wait(poll_fd, events, max_events, timeout);
	for (int n = 0; n < nfds; n++) {
		fd_event *cur = &cur_fds[n];
		struct uloop_fd *u = (struct uloop_fd *)events[n].data.ptr;
		unsigned int ev = 0;

		cur->fd = u;
		if (!u)
			continue;
		if (events[n].events & (EPOLLERR | EPOLLHUP)) {
			u->error = true;
			if (!(u->flags & ULOOP_ERROR_CB))
				uloop_fd_delete(u);
		}
		if (!(events[n].events & (EPOLLRDHUP | EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP))) {
			cur->fd = nullptr;
			continue;
		}
		if (events[n].events & EPOLLRDHUP)
			u->eof = true;
		if (events[n].events & EPOLLIN)
			ev |= ULOOP_READ;
		if (events[n].events & EPOLLOUT)
			ev |= ULOOP_WRITE;
		cur->events = ev;
	}
	return nfds;
}

// Dispatches at most one fd callback, fetching new events when none are left.
void run_events(int timeout)
{
	if (!cur_nfds) {
		cur_fd = 0;
		cur_nfds = fetch_events(timeout);
		if (cur_nfds < 0)
			cur_nfds = 0;
	}
	while (cur_nfds > 0) {
		fd_event *cur = &cur_fds[cur_fd++];
		cur_nfds--;
		struct uloop_fd *fd = cur->fd;
		unsigned int events = cur->events;
		if (!fd || !fd->cb)
			continue;
		if (stack_event(fd, events))
			continue;

		fd_stack entry = {stack_top, fd, 0};
		stack_top = &entry;
		do {
			entry.events = 0;
			fd->cb(fd, events);
			events = entry.events & ULOOP_EVENT_MASK;
		} while (entry.fd && events);
		stack_top = entry.next;
		return;
	}
}

void process_timeouts(void)
{
	struct timeval tv;
	if (list_empty(&timeouts))
		return;
	now(&tv);
	while (!list_empty(&timeouts)) {
		struct uloop_timeout *t = list_first_entry(&timeouts, struct uloop_timeout, list);
		if (tv_after(&t->time, &tv))
			break;
		uloop_timeout_cancel(t);
		if (t->cb)
			t->cb(t);
	}
}

int next_timeout(void)
{
	struct timeval tv;
	if (list_empty(&timeouts))
		return -1;
	now(&tv);
	struct uloop_timeout *t = list_first_entry(&timeouts, struct uloop_timeout, list);
	int64_t diff = tv_diff_ms(&t->time, &tv);
	if (diff < 0)
		return 0;
	// Round up so a timer is never polled for just before it is due.
	if (tv_after(&t->time, &tv) && diff == 0)
		return 1;
	return diff > INT32_MAX ? INT32_MAX : (int)diff;
}

} // namespace

int uloop_init(void)
{
	if (init_poll() < 0)
		return -1;
	if (waker_pipe[0] < 0) {
		if (pipe2(waker_pipe, O_CLOEXEC | O_NONBLOCK) < 0)
			return -1;
		memset(&waker_fd, 0, sizeof(waker_fd));
		waker_fd.fd = waker_pipe[0];
		waker_fd.cb = waker_cb;
		uloop_fd_add(&waker_fd, ULOOP_READ);
	}
	if (!signals_set) {
		set_signal(SIGINT, signal_cb, &old_int);
		set_signal(SIGTERM, signal_cb, &old_term);
		set_signal(SIGPIPE, SIG_IGN, &old_pipe);
		signals_set = true;
	}
	return 0;
}

void uloop_done(void)
{
	pending_signal = 0;
	if (signals_set) {
		restore_signal(SIGINT, signal_cb, &old_int);
		restore_signal(SIGTERM, signal_cb, &old_term);
		restore_signal(SIGPIPE, SIG_IGN, &old_pipe);
		signals_set = false;
	}
	if (waker_pipe[0] >= 0) {
		uloop_fd_delete(&waker_fd);
		close(waker_pipe[0]);
		close(waker_pipe[1]);
		waker_pipe[0] = waker_pipe[1] = -1;
	}
	if (poll_fd >= 0) {
		close(poll_fd);
		poll_fd = -1;
	}
	while (!list_empty(&timeouts))
		uloop_timeout_cancel(list_first_entry(&timeouts, struct uloop_timeout, list));
	cur_nfds = 0;
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
	if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
		return uloop_fd_delete(sock);
	if (init_poll() < 0)
		return -1;
	if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
		int fl = fcntl(sock->fd, F_GETFL, 0);
		if (fl >= 0)
			fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK);
	}

	struct epoll_event ev;
	memset(&ev, 0, sizeof(ev));
	if (flags & ULOOP_READ)
		ev.events |= EPOLLIN | EPOLLRDHUP;
	if (flags & ULOOP_WRITE)
		ev.events |= EPOLLOUT;
	if (flags & ULOOP_EDGE_TRIGGER)
		ev.events |= EPOLLET;
	ev.data.ptr = sock;
	int ret = epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &ev);
	if (ret < 0)
		return ret;
	sock->flags = flags;
	sock->registered = true;
	sock->eof = false;
	sock->error = false;
	return ret;
}

int uloop_fd_delete(struct uloop_fd *fd)
{
	for (int i = 0; i < cur_nfds; i++) {
		if (cur_fds[cur_fd + i].fd == fd)
			cur_fds[cur_fd + i].fd = nullptr;
	}
	if (!fd->registered)
		return 0;
	fd->registered = false;
	stack_event(fd, -1);
	fd->flags = 0;
	return epoll_ctl(poll_fd, EPOLL_CTL_DEL, fd->fd, nullptr);
}

int uloop_timeout_add(struct uloop_timeout *timeout)
{
	if (timeout->pending)
		return -1;
	struct list_head *h = &timeouts;
	struct uloop_timeout *tmp;
	list_for_each_entry(tmp, &timeouts, list) {
		if (tv_after(&tmp->time, &timeout->time)) {
			h = &tmp->list;
			break;
		}
	}
	list_add_tail(&timeout->list, h);
	timeout->pending = true;
	return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
	struct timeval *time = &timeout->time;
	if (timeout->pending)
		uloop_timeout_cancel(timeout);
	now(time);
	time->tv_sec += msecs / 1000;
	time->tv_usec += (msecs % 1000) * 1000;
	if (time->tv_usec >= 1000000) {
		time->tv_sec++;
		time->tv_usec -= 1000000;
	} else if (time->tv_usec < 0) {
		time->tv_sec--;
		time->tv_usec += 1000000;
	}
	return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;
	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
	struct timeval tv;
	if (!timeout->pending)
		return -1;
	now(&tv);
	return tv_diff_ms(&timeout->time, &tv);
}

int uloop_timeout_remaining(struct uloop_timeout *timeout)
{
	int64_t r = uloop_timeout_remaining64(timeout);
	if (r > INT32_MAX)
		return INT32_MAX;
	if (r < INT32_MIN)
		return INT32_MIN;
	return (int)r;
}

bool uloop_cancelling(void)
{
	return run_depth > 0 && uloop_cancelled;
}

int uloop_run_timeout(int timeout)
{
	// Running without uloop_init() still gets the signal handling.
	uloop_init();
	run_depth = run_depth + 1;
	loop_status = pending_signal;
	uloop_cancelled = pending_signal != 0;
	pending_signal = 0;
	do {
		process_timeouts();
		if (uloop_cancelled)
			break;
		int next = next_timeout();
		if (timeout >= 0 && (next < 0 || timeout < next))
			next = timeout;
		if (poll_fd < 0)
			break;
		run_events(next);
	} while (!uloop_cancelled && timeout < 0);
	run_depth = run_depth - 1;
	return loop_status;
}
