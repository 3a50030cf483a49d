// Bus round-trip benchmark through any broker: method calls (small and 4 KB
// payloads) with latency percentiles, and notifications to N subscribers.
//
//   bench_ubus -s SOCKET [-n CALLS] [-c CALLERS] [-k SUBSCRIBERS] [-m NOTIFICATIONS]
//              [-p BROKER_PID]
// With -p, the broker's CPU time per call is reported from /proc.
#include <libubus.h>

#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

const char *sock_path;

double now_us()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

// ---- the serving process ----

int echo_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req,
	    const char *, struct blob_attr *msg)
{
	ubus_send_reply(ctx, req, msg);
	return 0;
}

const struct ubus_method echo_methods[] = {UBUS_METHOD_NOARG("echo", echo_cb)};
struct ubus_object_type echo_type = UBUS_OBJECT_TYPE("bench", echo_methods);

// A forked child must not share the parent's epoll set.
void fresh_loop()
{
	uloop_done();
	uloop_init();
}

[[noreturn]] void serve(const char *path)
{
	fresh_loop();
	struct ubus_context *ctx = ubus_connect(sock_path);
	if (!ctx)
		_exit(1);
	struct ubus_object obj = {};
	obj.name = path;
	obj.type = &echo_type;
	obj.methods = echo_methods;
	obj.n_methods = 1;
	if (ubus_add_object(ctx, &obj))
		_exit(1);
	ubus_add_uloop(ctx);
	uloop_run();
	ubus_free(ctx);
	_exit(0);
}

// ---- subscriber processes ----

int sub_count;
int sub_expect;
int sub_report_fd;

int sub_cb(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *,
	   struct blob_attr *)
{
	if (++sub_count == sub_expect) {
		char c = 'd';
		if (write(sub_report_fd, &c, 1) < 0)
			_exit(1);
	}
	return 0;
}

[[noreturn]] void subscribe(const char *target, int expect, int report_fd)
{
	fresh_loop();
	sub_expect = expect;
	sub_report_fd = report_fd;
	struct ubus_context *ctx = ubus_connect(sock_path);
	if (!ctx)
		_exit(1);
	struct ubus_subscriber sub = {};
	sub.cb = sub_cb;
	uint32_t id;
	if (ubus_register_subscriber(ctx, &sub) || ubus_lookup_id(ctx, target, &id) ||
	    ubus_subscribe(ctx, &sub, id))
		_exit(1);
	char c = 'r';
	if (write(report_fd, &c, 1) < 0)
		_exit(1);
	ubus_add_uloop(ctx);
	uloop_run();
	ubus_free(ctx);
	_exit(0);
}

std::vector<pid_t> children;

pid_t spawn(const std::function<void()> &fn)
{
	pid_t pid = fork();
	if (pid == 0) {
		fn();
		_exit(0);
	}
	children.push_back(pid);
	return pid;
}

void stop_children()
{
	for (pid_t p : children)
		kill(p, SIGTERM);
	for (pid_t p : children)
		waitpid(p, nullptr, 0);
	children.clear();
}

struct call_stats {
	double elapsed_us;
	double p50_us;
	double p99_us;
	int failed;
};

// n synchronous calls on ctx; latency percentiles and total time.
call_stats time_calls(struct ubus_context *ctx, uint32_t id, size_t payload, int n)
{
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	if (payload)
		blobmsg_add_string(&b, "data", std::string(payload, 'x').c_str());
	else
		blobmsg_add_u32(&b, "a", 1);

	for (int i = 0; i < n / 10; i++)	// warm-up
		ubus_invoke(ctx, id, "echo", b.head, nullptr, nullptr, 5000);

	std::vector<double> lat(n);
	call_stats st = {0, 0, 0, 0};
	double start = now_us();
	for (int i = 0; i < n; i++) {
		double t0 = now_us();
		if (ubus_invoke(ctx, id, "echo", b.head, nullptr, nullptr, 5000))
			st.failed++;
		lat[i] = now_us() - t0;
	}
	st.elapsed_us = now_us() - start;
	std::sort(lat.begin(), lat.end());
	st.p50_us = lat[n / 2];
	st.p99_us = lat[n * 99 / 100];
	blob_buf_free(&b);
	return st;
}

// CPU time (us) the broker process has used so far; 0 if unknown.
double broker_cpu_us(pid_t pid)
{
	if (pid <= 0)
		return 0;
	char path[64];
	snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
	FILE *f = fopen(path, "r");
	if (!f)
		return 0;
	char buf[1024];
	size_t len = fread(buf, 1, sizeof(buf) - 1, f);
	fclose(f);
	buf[len] = 0;
	const char *p = strrchr(buf, ')');
	unsigned long utime = 0, stime = 0;
	// Fields after the command name: state is field 3, utime 14, stime 15.
	if (!p || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2)
		return 0;
	return (utime + stime) * 1e6 / sysconf(_SC_CLK_TCK);
}

// Runs the calls from `callers` processes at once (each with its own
// connection); prints aggregate throughput and the callers' latencies.
void run_calls(uint32_t id, size_t payload, int n, int callers, pid_t broker)
{
	int results[2], go[2];
	if (pipe(results) < 0 || pipe(go) < 0)
		return;
	std::vector<pid_t> pids;
	for (int c = 0; c < callers; c++) {
		pid_t pid = fork();
		if (pid == 0) {
			fresh_loop();
			struct ubus_context *ctx = ubus_connect(sock_path);
			char g;
			if (!ctx || read(go[0], &g, 1) != 1)
				_exit(1);
			call_stats st = time_calls(ctx, id, payload, n);
			if (write(results[1], &st, sizeof(st)) != sizeof(st))
				_exit(1);
			ubus_free(ctx);
			_exit(0);
		}
		pids.push_back(pid);
	}
	usleep(200 * 1000);
	double cpu0 = broker_cpu_us(broker);
	std::string start(callers, 'g');
	if (write(go[1], start.data(), start.size()) < 0)
		return;
	double worst = 0, p50 = 0, p99 = 0;
	int failed = 0;
	for (int c = 0; c < callers; c++) {
		call_stats st;
		if (read(results[0], &st, sizeof(st)) != sizeof(st))
			break;
		worst = std::max(worst, st.elapsed_us);
		p50 = std::max(p50, st.p50_us);
		p99 = std::max(p99, st.p99_us);
		failed += st.failed;
	}
	double cpu = broker_cpu_us(broker) - cpu0;
	for (pid_t p : pids)
		waitpid(p, nullptr, 0);
	close(results[0]);
	close(results[1]);
	close(go[0]);
	close(go[1]);
	// Warm-up calls count towards the broker's CPU time, not the rate.
	double total = (double)n * callers;
	printf("calls %-5s payload, %d caller%s: %8.0f calls/s   p50 %6.1f us   p99 %7.1f us   (%d calls, %d failed)",
	       payload ? "4 KB" : "small", callers, callers > 1 ? "s" : " ", total / (worst / 1e6), p50, p99,
	       n * callers, failed);
	if (broker > 0 && cpu > 0)
		printf("   broker %.1f us CPU/call = %.0f calls/s per core", cpu / (total * 1.1), total * 1.1 / (cpu / 1e6));
	printf("\n");
}

void run_notify(struct ubus_context *ctx, int subscribers, int n)
{
	const struct ubus_method none[] = {UBUS_METHOD_NOARG("echo", echo_cb)};
	struct ubus_object_type type = UBUS_OBJECT_TYPE("bench.notify", none);
	struct ubus_object obj = {};
	obj.name = "bench.notify";
	obj.type = &type;
	obj.methods = none;
	obj.n_methods = 1;
	if (ubus_add_object(ctx, &obj)) {
		fprintf(stderr, "cannot publish bench.notify\n");
		return;
	}
	// Each subscriber expects the answered round plus the fire-and-forget
	// round, and reports 'r' when subscribed and 'd' when it saw them all.
	int report[2];
	if (pipe(report) < 0)
		return;
	for (int i = 0; i < subscribers; i++)
		spawn([&] { subscribe("bench.notify", 2 * n, report[1]); });
	for (int i = 0; i < subscribers; i++) {
		char c;
		if (read(report[0], &c, 1) != 1 || c != 'r') {
			fprintf(stderr, "subscriber failed\n");
			return;
		}
	}

	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	blobmsg_add_u32(&b, "seq", 1);
	double start = now_us();
	for (int i = 0; i < n; i++)
		ubus_notify(ctx, &obj, "tick", b.head, 5000);
	double answered = now_us() - start;

	start = now_us();
	for (int i = 0; i < n; i++)
		ubus_notify(ctx, &obj, "tick", b.head, -1);
	for (int i = 0; i < subscribers; i++) {
		char c;
		if (read(report[0], &c, 1) != 1)
			break;
	}
	double oneway = now_us() - start;
	printf("notify to %d subscribers: %8.0f notifications/s answered (%.0f deliveries/s), "
	       "%8.0f/s without replies\n",
	       subscribers, n / (answered / 1e6), n * subscribers / (answered / 1e6), n / (oneway / 1e6));
	blob_buf_free(&b);
	close(report[0]);
	close(report[1]);
	ubus_remove_object(ctx, &obj);
}

} // namespace

int main(int argc, char **argv)
{
	int calls = 20000, subscribers = 4, notifications = 5000, callers = 1;
	pid_t broker = 0;
	int ch;
	while ((ch = getopt(argc, argv, "s:n:k:m:c:p:")) != -1) {
		switch (ch) {
		case 's':
			sock_path = optarg;
			break;
		case 'n':
			calls = atoi(optarg);
			break;
		case 'k':
			subscribers = atoi(optarg);
			break;
		case 'm':
			notifications = atoi(optarg);
			break;
		case 'c':
			callers = atoi(optarg);
			break;
		case 'p':
			broker = atoi(optarg);
			break;
		default:
			fprintf(stderr, "usage: %s -s SOCKET [-n CALLS] [-c CALLERS] [-k SUBSCRIBERS] [-m NOTIFICATIONS] [-p BROKER_PID]\n", argv[0]);
			return 1;
		}
	}
	if (!sock_path || calls < 100) {
		fprintf(stderr, "usage: %s -s SOCKET [-n CALLS>=100] [-c CALLERS] [-k SUBSCRIBERS] [-m NOTIFICATIONS] [-p BROKER_PID]\n", argv[0]);
		return 1;
	}

	spawn([] { serve("bench.echo"); });
	struct ubus_context *ctx = ubus_connect(sock_path);
	if (!ctx) {
		fprintf(stderr, "Failed to connect to ubus\n");
		stop_children();
		return 1;
	}
	uint32_t id = 0;
	for (int i = 0; i < 500 && ubus_lookup_id(ctx, "bench.echo", &id); i++)
		usleep(10000);
	if (!id) {
		fprintf(stderr, "echo server did not appear\n");
		stop_children();
		return 1;
	}
	run_calls(id, 0, calls, 1, broker);
	if (callers > 1)
		run_calls(id, 0, calls / callers, callers, broker);
	run_calls(id, 4096, calls / 4, 1, broker);
	run_notify(ctx, subscribers, notifications);
	ubus_free(ctx);
	stop_children();
	return 0;
}
