// bench_load: wwanctl under many concurrent clients of one modem.
//
//   bench_load [-s SOCKET] [-a AT_SOCKET] [-o OBJECT] [-n CLIENTS] [-r ROUNDS]
//              [-w SECONDS] [-c COMMAND] [-p PID] [-B PID]
//
// Each round has two phases, one after the other:
//   socket  CLIENTS connections to the modem's local AT socket; all connect,
//           then all write COMMAND + CR LF, then all are read with poll until
//           each has a final result ("OK", "ERROR", "+CME ERROR: ...") or the
//           wait ends. Answers are counted as the modem's (the command's own
//           result line and OK), the daemon's error line "\r\nERROR\r\n", any
//           other final result, a connection closed unanswered, and never
//           answered.
//   bus     CLIENTS bus connections, each with one asynchronous "exec"
//           {"command":COMMAND} to OBJECT, all sent before any is waited for.
//           Replies are counted as OK, as an error reply (the daemon's "errno"
//           field, e.g. 8 "Request timeout expired"), as a failed call (bus
//           status), and never answered.
// A further connection listens for "gsm.modem.hang" during the whole run. With
// -p the daemon's VmRSS, VmHWM, Private_Dirty and open descriptors are read
// after each round (with -B the broker's VmRSS and descriptors too), and after
// the last round one exec and one socket command check that the daemon still
// answers. Exit status 0 only when every client was answered, no hang event
// came and the daemon answered at the end.
#include <libubus.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_common.h"
#include "util/root_path.h"

namespace
{

constexpr int connect_timeout_s = 5;     // one local socket connect
constexpr int bus_connect_budget_s = 60; // all bus connections of a phase
constexpr int check_timeout_ms = 15000;  // the liveness checks at the end
constexpr int settle_ms = 500;           // before memory is read
constexpr int drain_ms = 1000;           // events still on their way at the end

struct options {
    std::string socket;
    std::string at_socket;
    std::string object = "gsm.modem0";
    std::string command = "AT+CSQ";
    int clients = 1000;
    int rounds = 5;
    int wait_s = 60;
    pid_t daemon = 0;
    pid_t broker = 0;
};

double now_ms()
{
    return bench::clock_ms();
}

// Nearest-rank percentile of unsorted samples; -1 without samples.
double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return -1;
    std::sort(v.begin(), v.end());
    return bench::nearest_rank(v, p);
}

// ---- the final result of an answer ----

enum class final_kind { none, ok, error, other };

// The first final result line of text; "ERROR" alone is the daemon's error
// line (or a modem's plain ERROR), "+CME ERROR:"/"+CMS ERROR:" and the like
// are other finals.
final_kind final_of(const std::string &text, size_t *end = nullptr)
{
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find_first_of("\r\n", pos);
        if (eol == std::string::npos)
            return final_kind::none; // an unfinished line
        std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        final_kind k = final_kind::none;
        if (line == "OK")
            k = final_kind::ok;
        else if (line == "ERROR")
            k = final_kind::error;
        else if (line.find(" ERROR:") != std::string::npos || line == "NO CARRIER")
            k = final_kind::other;
        if (k != final_kind::none) {
            if (end)
                *end = pos;
            return k;
        }
    }
    return final_kind::none;
}

// Open descriptors of a process; -1 when it is not watched or gone.
int count_fds(pid_t pid)
{
    if (pid <= 0)
        return -1;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(dir.c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

// ---- the socket phase ----

struct socket_result {
    int connected = 0;
    int connect_failed = 0;
    int write_failed = 0;
    int answered = 0;                          // the command's own result line, then OK
    int ok_other = 0;                          // OK without the command's result line
    int error_line = 0;                        // "\r\nERROR\r\n"
    int other_final = 0;                       // +CME ERROR and the like
    int closed = 0;                            // closed by the daemon before a final result
    int unanswered = 0;                        // nothing final before the wait ended
    int second_final = 0;                      // a further final result after the first
    std::vector<double> answered_ms, error_ms; // from the client's write
    double wall_ms = 0;                        // first connect to last final result
    int daemon_fds = -1;                       // the daemon's descriptors with every client connected
};

struct at_client {
    int fd = -1;
    double sent = 0;
    std::string text;
    final_kind kind = final_kind::none;
    bool closed = false;
};

int connect_at(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // A full backlog blocks connect() at most this long.
    timeval tv = {connect_timeout_s, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    sockaddr_un sun = {};
    sun.sun_family = AF_UNIX;
    if (path.size() >= sizeof(sun.sun_path)) {
        close(fd);
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(sun.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof(sun)) < 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

// Reads what a client has; false once it is closed.
bool read_client(at_client &c)
{
    char buf[4096];
    for (;;) {
        ssize_t n = read(c.fd, buf, sizeof(buf));
        if (n > 0) {
            c.text.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return true;
        return false;
    }
}

bool has_command_result(const std::string &text, const std::string &command)
{
    // "AT+CSQ" answers "+CSQ: ..."; a command without such a line ("AT") is
    // answered by its OK alone.
    size_t plus = command.find('+');
    if (plus == std::string::npos)
        return true;
    std::string name = command.substr(plus);
    size_t stop = name.find_first_of("=?");
    if (stop != std::string::npos)
        name.resize(stop);
    return text.find(name + ":") != std::string::npos;
}

socket_result socket_phase(const options &opt, ubus_context *listener)
{
    socket_result r;
    std::vector<at_client> clients(static_cast<size_t>(opt.clients));
    double t0 = now_ms();
    for (at_client &c : clients) {
        c.fd = connect_at(opt.at_socket);
        if (c.fd < 0) {
            if (!r.connect_failed)
                fprintf(stderr, "bench_load: connect to %s: %s\n", opt.at_socket.c_str(), strerror(errno));
            r.connect_failed++;
        } else {
            r.connected++;
        }
    }
    std::string line = opt.command + "\r\n";
    for (at_client &c : clients) {
        if (c.fd < 0)
            continue;
        c.sent = now_ms();
        if (send(c.fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
            r.write_failed++;
            close(c.fd);
            c.fd = -1;
        }
    }

    // Clients still waiting for their final result, plus the hang listener.
    std::vector<pollfd> fds;
    std::vector<at_client *> owners;
    double deadline = now_ms() + opt.wait_s * 1000.0;
    double last_final = t0;
    size_t waiting = 0;
    for (at_client &c : clients)
        waiting += c.fd >= 0;
    while (waiting > 0) {
        int left = static_cast<int>(deadline - now_ms());
        if (left <= 0)
            break;
        fds.clear();
        owners.clear();
        for (at_client &c : clients) {
            if (c.fd >= 0 && c.kind == final_kind::none && !c.closed) {
                fds.push_back({c.fd, POLLIN, 0});
                owners.push_back(&c);
            }
        }
        fds.push_back({listener->sock.fd, POLLIN, 0});
        int n = poll(fds.data(), fds.size(), std::min(left, 1000));
        if (n < 0 && errno != EINTR) {
            perror("bench_load: poll");
            break;
        }
        if (fds.back().revents)
            ubus_handle_event(listener);
        for (size_t i = 0; i + 1 < fds.size(); i++) {
            if (!fds[i].revents)
                continue;
            at_client &c = *owners[i];
            bool open = read_client(c);
            c.kind = final_of(c.text);
            if (c.kind == final_kind::none && !open)
                c.closed = true;
            if (c.kind != final_kind::none || c.closed) {
                waiting--;
                last_final = now_ms();
                double took = last_final - c.sent;
                if (c.kind == final_kind::ok && has_command_result(c.text, opt.command))
                    r.answered_ms.push_back(took);
                else if (c.kind == final_kind::error)
                    r.error_ms.push_back(took);
            }
        }
    }
    r.wall_ms = last_final - t0;

    // A client answered twice would show a second final result; a short
    // look after the last answer catches one that comes late.
    double look_until = now_ms() + 200;
    for (int left; (left = static_cast<int>(look_until - now_ms())) > 0;) {
        fds.clear();
        owners.clear();
        for (at_client &c : clients) {
            if (c.fd >= 0 && c.kind != final_kind::none && !c.closed) {
                fds.push_back({c.fd, POLLIN, 0});
                owners.push_back(&c);
            }
        }
        if (fds.empty() || poll(fds.data(), fds.size(), left) <= 0)
            break;
        for (size_t i = 0; i < fds.size(); i++) {
            if (fds[i].revents && !read_client(*owners[i]))
                owners[i]->closed = true;
        }
    }

    r.daemon_fds = count_fds(opt.daemon);
    for (at_client &c : clients) {
        if (c.fd < 0)
            continue;
        switch (c.kind) {
        case final_kind::ok:
            (has_command_result(c.text, opt.command) ? r.answered : r.ok_other)++;
            break;
        case final_kind::error:
            r.error_line++;
            break;
        case final_kind::other:
            r.other_final++;
            break;
        case final_kind::none:
            (c.closed ? r.closed : r.unanswered)++;
            break;
        }
        size_t end = 0;
        if (c.kind != final_kind::none && final_of(c.text, &end) != final_kind::none &&
            final_of(c.text.substr(end)) != final_kind::none)
            r.second_final++;
        close(c.fd);
    }
    return r;
}

// ---- the bus phase ----

struct bus_result {
    int connected = 0;
    int connect_failed = 0;
    int invoke_failed = 0;
    int ok = 0;
    int error_reply = 0;         // a reply carrying the daemon's "errno"
    std::map<int, int> errnos;   // its values
    int other_reply = 0;         // status 0, a reply without OK or errno
    std::map<int, int> statuses; // failed calls by bus status
    int unanswered = 0;
    std::vector<double> ok_ms, error_ms;
    double connect_ms = 0; // opening the connections
    double wall_ms = 0;    // first invoke to last completion
    int broker_fds = -1;   // the broker's descriptors with every caller connected
};

struct bus_call {
    ubus_context *ctx = nullptr;
    ubus_request req = {};
    double sent = 0;
    bool replied = false;
    bool completed = false;
    int status = 0;
    int err = -1; // the reply's "errno", -1 when none
    std::string response;
};

struct bus_state {
    bus_result *result;
    size_t pending = 0;
    double last = 0;
};

bus_state *g_bus = nullptr;

void bus_data_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *call = static_cast<bus_call *>(req->priv);
    call->replied = true;
    if (!msg)
        return;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem)
    {
        if (blobmsg_type(cur) == BLOBMSG_TYPE_STRING && !strcmp(blobmsg_name(cur), "response"))
            call->response = blobmsg_get_string(cur);
        else if (blobmsg_type(cur) == BLOBMSG_TYPE_INT32 && !strcmp(blobmsg_name(cur), "errno"))
            call->err = static_cast<int32_t>(blobmsg_get_u32(cur));
    }
}

void bus_complete_cb(ubus_request *req, int status)
{
    auto *call = static_cast<bus_call *>(req->priv);
    if (call->completed)
        return;
    call->completed = true;
    call->status = status;
    g_bus->last = now_ms();
    double took = g_bus->last - call->sent;
    bus_result &r = *g_bus->result;
    if (status != 0) {
        r.statuses[status]++;
    } else if (call->err >= 0) {
        r.error_reply++;
        r.errnos[call->err]++;
        r.error_ms.push_back(took);
    } else if (call->replied && final_of(call->response) == final_kind::ok) {
        r.ok++;
        r.ok_ms.push_back(took);
    } else {
        r.other_reply++;
    }
    if (--g_bus->pending == 0)
        uloop_end();
}

void bus_deadline_cb(uloop_timeout *)
{
    uloop_end();
}

// ubus_connect() waits for the broker's hello without a limit; a broker that
// cannot accept (out of descriptors) would hold this process for ever. The
// guard ends the process with a message instead.
class stall_guard
{
  public:
    stall_guard(int seconds, const char *what) : what_(what)
    {
        thread_ = std::thread([this, seconds] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!cv_.wait_for(lock, std::chrono::seconds(seconds), [this] { return done_; })) {
                fprintf(stderr, "bench_load: %s stalled for %d s after %d; giving up\n", what_, seconds,
                        progress.load());
                fflush(stdout);
                _exit(3);
            }
        });
    }
    ~stall_guard()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }
    stall_guard(const stall_guard &) = delete;
    stall_guard &operator=(const stall_guard &) = delete;

    std::atomic<int> progress{0};

  private:
    const char *what_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

bus_result bus_phase(const options &opt, uint32_t object_id)
{
    bus_result r;
    std::vector<std::unique_ptr<bus_call>> calls;
    calls.reserve(static_cast<size_t>(opt.clients));
    double c0 = now_ms();
    {
        stall_guard guard(bus_connect_budget_s, "connecting to the bus (the broker out of descriptors?)");
        for (int i = 0; i < opt.clients; i++) {
            auto call = std::make_unique<bus_call>();
            call->ctx = ubus_connect(opt.socket.c_str());
            guard.progress = i + 1;
            if (!call->ctx) {
                r.connect_failed++;
                continue;
            }
            r.connected++;
            calls.push_back(std::move(call));
        }
    }
    r.connect_ms = now_ms() - c0;

    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "command", opt.command.c_str());
    bus_state state{&r, 0, 0};
    g_bus = &state;
    double t0 = now_ms();
    for (auto &call : calls) {
        call->sent = now_ms();
        if (ubus_invoke_async(call->ctx, object_id, "exec", b.head, &call->req)) {
            r.invoke_failed++;
            continue;
        }
        call->req.data_cb = bus_data_cb;
        call->req.complete_cb = bus_complete_cb;
        call->req.priv = call.get();
        ubus_complete_request_async(call->ctx, &call->req);
        ubus_add_uloop(call->ctx);
        state.pending++;
    }
    blob_buf_free(&b);

    state.last = t0;
    if (state.pending) {
        uloop_timeout deadline = {};
        deadline.cb = bus_deadline_cb;
        uloop_timeout_set(&deadline, opt.wait_s * 1000);
        uloop_run();
        uloop_timeout_cancel(&deadline);
    }
    r.unanswered = static_cast<int>(state.pending);
    r.wall_ms = state.last - t0;
    g_bus = nullptr;
    r.broker_fds = count_fds(opt.broker);
    for (auto &call : calls) {
        if (!call->completed)
            ubus_abort_request(call->ctx, &call->req);
        ubus_free(call->ctx);
    }
    return r;
}

// ---- observations ----

int g_hang_events = 0;

void hang_cb(ubus_context *, ubus_event_handler *, const char *type, blob_attr *)
{
    g_hang_events++;
    fprintf(stderr, "bench_load: event %s\n", type);
}

// Runs the loop for ms, so the listener takes what came.
void drain(int ms)
{
    uloop_timeout t = {};
    t.cb = bus_deadline_cb;
    uloop_timeout_set(&t, ms);
    uloop_run();
    uloop_timeout_cancel(&t);
}

struct process_figures {
    long rss_kb = -1, hwm_kb = -1, dirty_kb = -1;
    int fds = -1;
};

long proc_kb(const std::string &file, const char *key)
{
    FILE *f = fopen(file.c_str(), "r");
    if (!f)
        return -1;
    char line[256];
    long v = -1;
    size_t klen = strlen(key);
    while (fgets(line, sizeof(line), f)) {
        if (!strncmp(line, key, klen) && line[klen] == ':') {
            v = strtol(line + klen + 1, nullptr, 10);
            break;
        }
    }
    fclose(f);
    return v;
}

process_figures read_process(pid_t pid)
{
    process_figures p;
    if (pid <= 0)
        return p;
    std::string base = "/proc/" + std::to_string(pid);
    p.rss_kb = proc_kb(base + "/status", "VmRSS");
    p.hwm_kb = proc_kb(base + "/status", "VmHWM");
    p.dirty_kb = proc_kb(base + "/smaps_rollup", "Private_Dirty");
    p.fds = count_fds(pid);
    return p;
}

// The modem's "info" counters: hang-detection time-outs and queued requests.
struct info_reply {
    long timeout_count = -1;
    long request_count = -1;
};

void info_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *info = static_cast<info_reply *>(req->priv);
    if (!msg)
        return;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem)
    {
        if (blobmsg_type(cur) != BLOBMSG_TYPE_INT32)
            continue;
        if (!strcmp(blobmsg_name(cur), "timeout_count"))
            info->timeout_count = static_cast<int32_t>(blobmsg_get_u32(cur));
        else if (!strcmp(blobmsg_name(cur), "request_count"))
            info->request_count = static_cast<int32_t>(blobmsg_get_u32(cur));
    }
}

info_reply read_info(ubus_context *ctx, uint32_t id)
{
    info_reply info;
    (void)ubus_invoke(ctx, id, "info", nullptr, info_cb, &info, check_timeout_ms);
    return info;
}

// One exec on the bus and one command on the socket, each alone.
bool exec_answers(ubus_context *ctx, uint32_t id, const std::string &command)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "command", command.c_str());
    bus_call call;
    int ret = ubus_invoke(ctx, id, "exec", b.head, bus_data_cb, &call, check_timeout_ms);
    blob_buf_free(&b);
    return ret == 0 && call.err < 0 && final_of(call.response) == final_kind::ok;
}

bool socket_answers(const std::string &path, const std::string &command)
{
    at_client c;
    c.fd = connect_at(path);
    if (c.fd < 0)
        return false;
    std::string line = command + "\r\n";
    bool ok = send(c.fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
    double deadline = now_ms() + check_timeout_ms;
    while (ok && final_of(c.text) == final_kind::none) {
        int left = static_cast<int>(deadline - now_ms());
        pollfd p = {c.fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0 || !read_client(c))
            ok = false;
    }
    close(c.fd);
    return ok && final_of(c.text) == final_kind::ok && has_command_result(c.text, command);
}

// ---- report ----

std::string ms_text(double v)
{
    if (v < 0)
        return "-";
    char buf[32];
    snprintf(buf, sizeof(buf), "%.0f", v);
    return buf;
}

std::string kb_text(long v)
{
    return v < 0 ? "-" : std::to_string(v);
}

std::string map_text(const std::map<int, int> &m)
{
    std::string s;
    for (auto [k, v] : m)
        s += (s.empty() ? "" : ",") + std::to_string(k) + "x" + std::to_string(v);
    return s.empty() ? "-" : s;
}

struct round_record {
    socket_result sock;
    bus_result bus;
    double wall_ms = 0;
    process_figures daemon, broker;
    info_reply info;
    int hang_events = 0; // seen so far
};

void print_rounds(const options &opt, const round_record &before, const std::vector<round_record> &rounds)
{
    printf("socket phase: %d clients on %s, \"%s\" each; times in ms from the client's write\n", opt.clients,
           opt.at_socket.c_str(), opt.command.c_str());
    printf("%-5s %7s %9s %7s %6s %6s %7s %7s %9s %9s %9s %9s %7s\n", "round", "answer", "ERROR", "other", "closed",
           "never", "twice", "wall", "ans p50", "ans max", "err p50", "err max", "wwanfd");
    for (size_t i = 0; i < rounds.size(); i++) {
        const socket_result &s = rounds[i].sock;
        printf("%-5zu %7d %9d %7d %6d %6d %7d %7.0f %9s %9s %9s %9s %7d\n", i + 1, s.answered, s.error_line,
               s.other_final + s.ok_other + s.connect_failed + s.write_failed, s.closed, s.unanswered, s.second_final,
               s.wall_ms, ms_text(percentile(s.answered_ms, 0.5)).c_str(),
               ms_text(percentile(s.answered_ms, 1)).c_str(), ms_text(percentile(s.error_ms, 0.5)).c_str(),
               ms_text(percentile(s.error_ms, 1)).c_str(), s.daemon_fds);
    }
    printf("\nbus phase: %d connections, one exec {\"command\":\"%s\"} each to %s\n", opt.clients, opt.command.c_str(),
           opt.object.c_str());
    printf("%-5s %7s %9s %7s %6s %6s %7s %7s %9s %9s %9s %9s %7s\n", "round", "OK", "errno", "status", "other", "never",
           "connect", "wall", "ok p50", "ok max", "err p50", "err max", "busfd");
    for (size_t i = 0; i < rounds.size(); i++) {
        const bus_result &b = rounds[i].bus;
        printf("%-5zu %7d %9s %7s %6d %6d %7.0f %7.0f %9s %9s %9s %9s %7d\n", i + 1, b.ok, map_text(b.errnos).c_str(),
               map_text(b.statuses).c_str(), b.other_reply + b.connect_failed + b.invoke_failed, b.unanswered,
               b.connect_ms, b.wall_ms, ms_text(percentile(b.ok_ms, 0.5)).c_str(),
               ms_text(percentile(b.ok_ms, 1)).c_str(), ms_text(percentile(b.error_ms, 0.5)).c_str(),
               ms_text(percentile(b.error_ms, 1)).c_str(), b.broker_fds);
    }
    printf("\nbefore the first round (0) and after each round (daemon%s; kB; \"timeouts\" is the modem's "
           "hang-detection count)\n",
           opt.broker > 0 ? " and broker" : "");
    printf("%-5s %8s %8s %8s %8s %6s %9s %6s %7s", "round", "wall ms", "VmRSS", "VmHWM", "Pr_Dirty", "fds", "timeouts",
           "hangs", "queued");
    if (opt.broker > 0)
        printf("   %9s %6s", "bus RSS", "bus fd");
    printf("\n");
    for (size_t i = 0; i <= rounds.size(); i++) {
        // Row 0: before the first client.
        const round_record &r = i ? rounds[i - 1] : before;
        printf("%-5zu %8.0f %8s %8s %8s %6d %9ld %6d %7ld", i, r.wall_ms, kb_text(r.daemon.rss_kb).c_str(),
               kb_text(r.daemon.hwm_kb).c_str(), kb_text(r.daemon.dirty_kb).c_str(), r.daemon.fds, r.info.timeout_count,
               r.hang_events, r.info.request_count);
        if (opt.broker > 0)
            printf("   %9s %6d", kb_text(r.broker.rss_kb).c_str(), r.broker.fds);
        printf("\n");
    }
    if (rounds.size() > 1 && opt.daemon > 0) {
        const process_figures &a = rounds.front().daemon, &z = rounds.back().daemon;
        printf("growth round 1 to %zu: VmRSS %+ld kB, Private_Dirty %+ld kB, fds %+d\n", rounds.size(),
               z.rss_kb - a.rss_kb, z.dirty_kb - a.dirty_kb, z.fds - a.fds);
    }
}

// Enough descriptors for every client at once, and some to spare.
bool raise_nofile(int clients)
{
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) < 0)
        return false;
    rlim_t want = static_cast<rlim_t>(clients) + 64;
    if (rl.rlim_cur >= want)
        return true;
    rl.rlim_cur = want;
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max < want)
        rl.rlim_max = want; // needs CAP_SYS_RESOURCE
    if (setrlimit(RLIMIT_NOFILE, &rl) < 0) {
        fprintf(stderr, "bench_load: cannot raise RLIMIT_NOFILE to %llu: %s\n", static_cast<unsigned long long>(want),
                strerror(errno));
        return false;
    }
    return true;
}

int usage(const char *prog)
{
    fprintf(stderr,
            "Usage: %s [-s SOCKET] [-a AT_SOCKET] [-o OBJECT] [-n CLIENTS] [-r ROUNDS] [-w SECONDS]\n"
            "          [-c COMMAND] [-p PID] [-B PID]\n"
            "  -s SOCKET     bus socket (default $WWANCTL_ROOT/var/run/ubus/ubus.sock)\n"
            "  -a AT_SOCKET  the modem's local AT socket (default $WWANCTL_ROOT/dev/modem0)\n"
            "  -o OBJECT     modem object (default gsm.modem0)\n"
            "  -n CLIENTS    concurrent clients per phase (default 1000)\n"
            "  -r ROUNDS     rounds of both phases (default 5)\n"
            "  -w SECONDS    longest wait for the answers of one phase (default 60)\n"
            "  -c COMMAND    AT command (default AT+CSQ)\n"
            "  -p PID        the daemon, for its memory and descriptors after each round\n"
            "  -B PID        the broker, likewise\n",
            prog);
    return 2;
}

bool parse_options(int argc, char **argv, options &opt)
{
    opt.socket = wwan_path(wwan_ubus_socket);
    opt.at_socket = wwan_path("/dev/modem0");
    int ch;
    while ((ch = getopt(argc, argv, "s:a:o:n:r:w:c:p:B:h")) != -1) {
        switch (ch) {
        case 's':
            opt.socket = optarg;
            break;
        case 'a':
            opt.at_socket = optarg;
            break;
        case 'o':
            opt.object = optarg;
            break;
        case 'n':
            opt.clients = atoi(optarg);
            break;
        case 'r':
            opt.rounds = atoi(optarg);
            break;
        case 'w':
            opt.wait_s = atoi(optarg);
            break;
        case 'c':
            opt.command = optarg;
            break;
        case 'p':
            opt.daemon = atoi(optarg);
            break;
        case 'B':
            opt.broker = atoi(optarg);
            break;
        default:
            return false;
        }
    }
    return optind == argc && opt.clients > 0 && opt.clients <= 100000 && opt.rounds > 0 && opt.rounds <= 100 &&
           opt.wait_s > 0 && opt.wait_s <= 3600 && !opt.command.empty();
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    options opt;
    if (!parse_options(argc, argv, opt))
        return usage(argv[0]);
    if (!raise_nofile(opt.clients))
        return 1;

    uloop_init();
    ubus_context *listener = ubus_connect(opt.socket.c_str());
    if (!listener) {
        fprintf(stderr, "bench_load: cannot connect to %s\n", opt.socket.c_str());
        return 1;
    }
    ubus_add_uloop(listener);
    ubus_event_handler hang = {};
    hang.cb = hang_cb;
    uint32_t object_id = 0;
    if (ubus_register_event_handler(listener, &hang, "gsm.modem.hang") ||
        ubus_lookup_id(listener, opt.object.c_str(), &object_id)) {
        fprintf(stderr, "bench_load: cannot listen for gsm.modem.hang or find %s\n", opt.object.c_str());
        ubus_free(listener);
        return 1;
    }

    round_record before;
    before.daemon = read_process(opt.daemon);
    before.broker = read_process(opt.broker);
    before.info = read_info(listener, object_id);
    std::vector<round_record> rounds;
    bool all_answered = true;
    for (int i = 0; i < opt.rounds; i++) {
        round_record rec;
        double t0 = now_ms();
        rec.sock = socket_phase(opt, listener);
        rec.bus = bus_phase(opt, object_id);
        rec.wall_ms = now_ms() - t0;
        drain(settle_ms);
        rec.daemon = read_process(opt.daemon);
        rec.broker = read_process(opt.broker);
        rec.info = read_info(listener, object_id);
        rec.hang_events = g_hang_events;
        all_answered = all_answered && rec.sock.unanswered == 0 && rec.sock.closed == 0 &&
                       rec.sock.connect_failed == 0 && rec.bus.unanswered == 0 && rec.bus.connect_failed == 0;
        fprintf(stderr,
                "bench_load: round %d: socket %d answered, %d ERROR, %d never; bus %d OK, %d errno, %d never; "
                "%.1f s\n",
                i + 1, rec.sock.answered, rec.sock.error_line, rec.sock.unanswered, rec.bus.ok, rec.bus.error_reply,
                rec.bus.unanswered, rec.wall_ms / 1000);
        rounds.push_back(std::move(rec));
        if (opt.daemon > 0 && kill(opt.daemon, 0) < 0) {
            fprintf(stderr, "bench_load: the daemon (pid %d) is gone\n", opt.daemon);
            break;
        }
    }

    bool bus_ok = exec_answers(listener, object_id, opt.command);
    bool sock_ok = socket_answers(opt.at_socket, opt.command);
    drain(drain_ms);
    bool alive = opt.daemon <= 0 || kill(opt.daemon, 0) == 0;

    print_rounds(opt, before, rounds);
    printf("\nhang events during the run: %d\n", g_hang_events);
    printf("afterwards: daemon %s, exec %s, socket %s\n", alive ? (opt.daemon > 0 ? "running" : "not watched") : "GONE",
           bus_ok ? "answered" : "NOT ANSWERED", sock_ok ? "answered" : "NOT ANSWERED");
    printf("every client answered: %s\n", all_answered ? "yes" : "NO");

    ubus_free(listener);
    uloop_done();
    return all_answered && g_hang_events == 0 && alive && bus_ok && sock_ok &&
                   static_cast<int>(rounds.size()) == opt.rounds
               ? 0
               : 1;
}
