// bench_exec: the latency wwanctl adds to a raw AT command.
//
//   bench_exec [-s SOCKET] [-o OBJECT] [-n CALLS] [-w WARMUP] [-c COMMAND] [-t TTY]
//
// Three round trips, timed CALLS times each, one call at a time and the paths
// in turns:
//   exec  OBJECT "exec" {"command":COMMAND}: bus, daemon, serial port, modem
//   bus   the same call to a trivial object that a child process serves on the
//         same broker and answers at once: the bus alone
//   tty   COMMAND written straight to TTY (a simulated modem nobody else has
//         open) and read up to its final result: the modem alone
// What the daemon adds is the median of exec less those of bus and tty
// ("added"), and the median of the same difference taken round by round
// ("paired"). Without -t the tty row is left out.
#include <libubus.h>

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "bench_common.h"
#include "util/root_path.h"

namespace {

constexpr const char *trivial_object = "bench.exec_echo";
constexpr int call_timeout_ms = 15000;
constexpr int tty_timeout_ms = 15000;

struct options {
    std::string socket;
    std::string object = "gsm.modem0";
    std::string command = "AT";
    std::string tty;
    int calls = 1000;
    int warmup = 20;
};

struct latency {
    double median_us = 0;
    double p90_us = 0;
    double p99_us = 0;
    double max_us = 0;
    size_t count = 0; // timed round trips that succeeded
    int failed = 0;
};

double now_us()
{
    return bench::clock_ms() * 1e3;
}

double percentile(const std::vector<double> &sorted, double p)
{
    return bench::nearest_rank(sorted, p);
}

latency summarize(std::vector<double> samples, int failed)
{
    latency l;
    l.failed = failed;
    l.count = samples.size();
    if (samples.empty())
        return l;
    std::sort(samples.begin(), samples.end());
    l.median_us = percentile(samples, 0.5);
    l.p90_us = percentile(samples, 0.9);
    l.p99_us = percentile(samples, 0.99);
    l.max_us = samples.back();
    return l;
}

// A complete final result line ("OK", "ERROR", "+CME ERROR: ...") ends the
// modem's answer.
bool has_final_result(const std::string &text)
{
    if (text.find("OK\r\n") != std::string::npos)
        return true;
    size_t error = text.find("ERROR");
    return error != std::string::npos && text.find("\r\n", error) != std::string::npos;
}

bool is_ok(const std::string &text)
{
    return text.find("OK") != std::string::npos && text.find("ERROR") == std::string::npos;
}

// ---- the bus round trips ----

// Set by the reply handler: the "response" text of the last reply.
struct exec_reply {
    bool received = false;
    std::string response;
};

void exec_reply_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *reply = static_cast<exec_reply *>(req->priv);
    reply->received = true;
    if (!msg)
        return;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem) {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING && !strcmp(blobmsg_name(cur), "response"))
            reply->response = blobmsg_get_string(cur);
    }
}

// One "exec" call; true when it was answered with a final OK.
bool exec_once(ubus_context *ctx, uint32_t id, blob_attr *args)
{
    exec_reply reply;
    int ret = ubus_invoke(ctx, id, "exec", args, exec_reply_cb, &reply, call_timeout_ms);
    return ret == 0 && reply.received && is_ok(reply.response);
}

// The round trips of one path in order; a failed one is kept as NaN so that
// round i of every path stays at index i.
class series {
public:
    explicit series(int calls) { rounds_.reserve(static_cast<size_t>(calls)); }

    template <typename RoundTrip> void time(RoundTrip &&round_trip)
    {
        double t0 = now_us();
        bool ok = round_trip();
        double t1 = now_us();
        rounds_.push_back(ok ? t1 - t0 : std::nan(""));
    }

    const std::vector<double> &rounds() const { return rounds_; }

    latency summary() const
    {
        std::vector<double> samples;
        std::copy_if(rounds_.begin(), rounds_.end(), std::back_inserter(samples),
                     [](double v) { return !std::isnan(v); });
        return summarize(std::move(samples), static_cast<int>(rounds_.size() - samples.size()));
    }

private:
    std::vector<double> rounds_;
};

// exec less the baselines of the same round, over the rounds where every
// path succeeded: paired, so a busy moment of the machine cancels out.
latency paired_difference(const series &exec, const std::vector<const series *> &baselines)
{
    std::vector<double> diffs;
    for (size_t i = 0; i < exec.rounds().size(); i++) {
        double d = exec.rounds()[i];
        for (const series *b : baselines)
            d -= b->rounds()[i];
        if (!std::isnan(d))
            diffs.push_back(d);
    }
    return summarize(std::move(diffs), 0);
}

// The trivial object answers "exec" at once with a reply shaped like the
// daemon's, so both rows carry the same bytes over the bus.
int trivial_exec_cb(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    std::string request;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem) {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING && !strcmp(blobmsg_name(cur), "command"))
            request = std::string(blobmsg_get_string(cur)) + "\r";
    }
    blobmsg_add_string(&b, "request", request.c_str());
    blobmsg_add_string(&b, "response", "\r\nOK\r\n");
    int ret = ubus_send_reply(ctx, req, b.head);
    blob_buf_free(&b);
    return ret;
}

const ubus_method trivial_methods[] = {UBUS_METHOD_NOARG("exec", trivial_exec_cb)};
ubus_object_type trivial_type = UBUS_OBJECT_TYPE(trivial_object, trivial_methods);

[[noreturn]] void serve_trivial(const std::string &socket, int ready_fd)
{
    uloop_init();
    ubus_context *ctx = ubus_connect(socket.c_str());
    if (!ctx)
        _exit(1);
    ubus_object obj = {};
    obj.name = trivial_object;
    obj.type = &trivial_type;
    obj.methods = trivial_methods;
    obj.n_methods = 1;
    if (ubus_add_object(ctx, &obj))
        _exit(1);
    char c = 'r';
    if (write(ready_fd, &c, 1) != 1)
        _exit(1);
    close(ready_fd);
    ubus_add_uloop(ctx);
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    _exit(0);
}

// The child serving the trivial object; stopped and reaped by the destructor.
class trivial_server {
public:
    explicit trivial_server(const std::string &socket)
    {
        int fds[2];
        if (pipe(fds) < 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            serve_trivial(socket, fds[1]);
        }
        close(fds[1]);
        char c = 0;
        ready_ = pid_ > 0 && read(fds[0], &c, 1) == 1 && c == 'r';
        close(fds[0]);
    }
    ~trivial_server()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    trivial_server(const trivial_server &) = delete;
    trivial_server &operator=(const trivial_server &) = delete;

    bool ready() const { return ready_; }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// ---- the direct serial round trip ----

// The open terminal of a simulated modem, raw, restored on close.
class serial_port {
public:
    explicit serial_port(const std::string &path) : fd_(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        if (fd_ < 0)
            return;
        termios t;
        if (tcgetattr(fd_, &t) == 0) {
            cfmakeraw(&t);
            tcsetattr(fd_, TCSANOW, &t);
        }
        tcflush(fd_, TCIOFLUSH);
    }
    ~serial_port()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    serial_port(const serial_port &) = delete;
    serial_port &operator=(const serial_port &) = delete;

    bool is_open() const { return fd_ >= 0; }

    // Writes "<command>\r" and reads up to the final result code.
    std::optional<std::string> round_trip(const std::string &command)
    {
        std::string line = command + "\r";
        if (write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return std::nullopt;
        std::string answer;
        double deadline = now_us() + tty_timeout_ms * 1e3;
        while (!has_final_result(answer)) {
            int left_ms = static_cast<int>((deadline - now_us()) / 1e3);
            pollfd p = {fd_, POLLIN, 0};
            if (left_ms <= 0 || poll(&p, 1, left_ms) <= 0)
                return std::nullopt;
            char buf[512];
            ssize_t n = read(fd_, buf, sizeof(buf));
            if (n <= 0)
                return std::nullopt;
            answer.append(buf, static_cast<size_t>(n));
        }
        return answer;
    }

private:
    int fd_;
};

// The spare modem's port, ready for timed commands: echo off, as the daemon
// sets it up before its first command.
bool prepare_tty(serial_port &port, const std::string &path)
{
    if (!port.is_open()) {
        fprintf(stderr, "bench_exec: cannot open %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    if (!port.round_trip("ATE0")) {
        fprintf(stderr, "bench_exec: no answer to ATE0 on %s\n", path.c_str());
        return false;
    }
    return true;
}

// ---- report ----

// A figure, or "-" when the path has no successful round trip.
std::string figure(const latency &l, double value)
{
    return l.count ? std::to_string(static_cast<long>(std::lround(value))) : "-";
}

void print_row(const char *name, const std::string &what, const latency &l)
{
    printf("%-6s %-26s %9s %9s %9s %9s %7d\n", name, what.c_str(), figure(l, l.median_us).c_str(),
           figure(l, l.p90_us).c_str(), figure(l, l.p99_us).c_str(), figure(l, l.max_us).c_str(), l.failed);
}

std::string default_socket()
{
    return wwan_path(wwan_ubus_socket);
}

int usage(const char *prog)
{
    fprintf(stderr,
            "Usage: %s [-s SOCKET] [-o OBJECT] [-n CALLS] [-w WARMUP] [-c COMMAND] [-t TTY]\n"
            "  -s SOCKET   bus socket (default $WWANCTL_ROOT/var/run/ubus/ubus.sock)\n"
            "  -o OBJECT   modem object (default gsm.modem0)\n"
            "  -n CALLS    timed round trips per path (default 1000)\n"
            "  -w WARMUP   untimed rounds before the timed ones (default 20)\n"
            "  -c COMMAND  AT command (default AT)\n"
            "  -t TTY      terminal of a spare simulated modem for the direct baseline\n",
            prog);
    return 2;
}

bool parse_options(int argc, char **argv, options &opt)
{
    opt.socket = default_socket();
    int ch;
    while ((ch = getopt(argc, argv, "s:o:n:w:c:t:h")) != -1) {
        switch (ch) {
        case 's':
            opt.socket = optarg;
            break;
        case 'o':
            opt.object = optarg;
            break;
        case 'n':
            opt.calls = atoi(optarg);
            break;
        case 'w':
            opt.warmup = atoi(optarg);
            break;
        case 'c':
            opt.command = optarg;
            break;
        case 't':
            opt.tty = optarg;
            break;
        default:
            return false;
        }
    }
    return optind == argc && opt.calls > 0 && opt.warmup >= 0;
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    options opt;
    if (!parse_options(argc, argv, opt))
        return usage(argv[0]);

    // The server child is forked before this process opens anything.
    trivial_server server(opt.socket);
    if (!server.ready()) {
        fprintf(stderr, "bench_exec: cannot serve %s on %s\n", trivial_object, opt.socket.c_str());
        return 1;
    }
    ubus_context *ctx = ubus_connect(opt.socket.c_str());
    if (!ctx) {
        fprintf(stderr, "bench_exec: cannot connect to %s\n", opt.socket.c_str());
        return 1;
    }
    uint32_t modem_id = 0, trivial_id = 0;
    if (ubus_lookup_id(ctx, opt.object.c_str(), &modem_id) || ubus_lookup_id(ctx, trivial_object, &trivial_id)) {
        fprintf(stderr, "bench_exec: %s is not on the bus\n", opt.object.c_str());
        ubus_free(ctx);
        return 1;
    }

    std::optional<serial_port> port;
    if (!opt.tty.empty() && !prepare_tty(port.emplace(opt.tty), opt.tty)) {
        ubus_free(ctx);
        return 1;
    }

    // The paths take turns, round by round, so that whatever else the machine
    // is doing weighs on all of them alike.
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "command", opt.command.c_str());
    auto tty_round_trip = [&] {
        auto answer = port->round_trip(opt.command);
        return answer && is_ok(*answer);
    };
    for (int i = 0; i < opt.warmup; i++) {
        (void)exec_once(ctx, modem_id, b.head);
        (void)exec_once(ctx, trivial_id, b.head);
        if (port)
            (void)tty_round_trip();
    }
    series exec_series(opt.calls), bus_series(opt.calls), tty_series(opt.calls);
    for (int i = 0; i < opt.calls; i++) {
        exec_series.time([&] { return exec_once(ctx, modem_id, b.head); });
        bus_series.time([&] { return exec_once(ctx, trivial_id, b.head); });
        if (port)
            tty_series.time(tty_round_trip);
    }
    blob_buf_free(&b);
    ubus_free(ctx);

    latency exec = exec_series.summary();
    latency bus = bus_series.summary();
    std::optional<latency> tty;
    if (port)
        tty = tty_series.summary();

    printf("%d round trips of \"%s\" per path, in turns (after %d untimed), latency in microseconds\n", opt.calls,
           opt.command.c_str(), opt.warmup);
    printf("%-6s %-26s %9s %9s %9s %9s %7s\n", "path", "", "median", "p90", "p99", "max", "failed");
    print_row("exec", opt.object + " exec", exec);
    print_row("bus", std::string(trivial_object) + " exec", bus);
    if (tty)
        print_row("tty", opt.tty.substr(opt.tty.rfind('/') + 1) + " direct", *tty);
    // Percentiles of a difference are not differences of percentiles: the
    // first row subtracts only the medians, the second takes the percentiles
    // of the per-round differences.
    if (!exec.count || !bus.count || (tty && !tty->count))
        return 1;
    double base = bus.median_us + (tty ? tty->median_us : 0);
    const char *what = tty ? "exec - bus - tty" : "exec - bus";
    printf("%-6s %-26s %9.0f\n", "added", (std::string("medians ") + what).c_str(), exec.median_us - base);
    std::vector<const series *> baselines{&bus_series};
    if (tty)
        baselines.push_back(&tty_series);
    latency paired = paired_difference(exec_series, baselines);
    printf("%-6s %-26s %9s %9s %9s\n", "paired", (std::string("rounds ") + what).c_str(),
           figure(paired, paired.median_us).c_str(), figure(paired, paired.p90_us).c_str(),
           figure(paired, paired.p99_us).c_str());
    return exec.failed || bus.failed || (tty && tty->failed) ? 1 : 0;
}
