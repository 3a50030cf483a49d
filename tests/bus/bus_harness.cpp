#include "bus_harness.h"

#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <stdio.h>

namespace bus_test
{

namespace
{

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

pid_t spawn(const std::vector<std::string> &argv, int out_fd, int err_fd)
{
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        // Never outlive the test, even when it is killed.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        if (out_fd >= 0)
            dup2(out_fd, 1);
        if (err_fd >= 0)
            dup2(err_fd, 2);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int decode_status(int st)
{
    if (WIFEXITED(st))
        return WEXITSTATUS(st);
    if (WIFSIGNALED(st))
        return 128 + WTERMSIG(st);
    return -1;
}

} // namespace

process::process(const std::vector<std::string> &argv, bool capture)
{
    int p[2] = {-1, -1};
    if (capture && pipe2(p, O_CLOEXEC) < 0)
        return;
    pid_ = spawn(argv, capture ? p[1] : -1, -1);
    if (capture) {
        close(p[1]);
        out_ = p[0];
    }
}

process::~process()
{
    if (running())
        stop(SIGKILL);
    if (out_ >= 0)
        close(out_);
}

bool process::running()
{
    if (pid_ < 0 || status_ >= 0)
        return false;
    int st;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = decode_status(st);
        return false;
    }
    return true;
}

int process::stop(int sig, int timeout_ms)
{
    if (!running())
        return status_;
    kill(pid_, sig);
    int64_t end = now_ms() + timeout_ms;
    while (now_ms() < end) {
        if (!running())
            return status_;
        usleep(5000);
    }
    kill(pid_, SIGKILL);
    int st;
    waitpid(pid_, &st, 0);
    status_ = decode_status(st);
    return -1;
}

bool process::line(std::string *out, int timeout_ms)
{
    int64_t end = now_ms() + timeout_ms;
    for (;;) {
        size_t nl = buf_.find('\n');
        if (nl != std::string::npos) {
            *out = buf_.substr(0, nl);
            buf_.erase(0, nl + 1);
            return true;
        }
        int left = (int)(end - now_ms());
        if (left <= 0 || out_ < 0)
            return false;
        struct pollfd pfd = {out_, POLLIN, 0};
        if (poll(&pfd, 1, left) <= 0)
            return false;
        char tmp[256];
        ssize_t n = read(out_, tmp, sizeof(tmp));
        if (n <= 0)
            return false;
        buf_.append(tmp, n);
    }
}

cli_result run_cli(const std::vector<std::string> &args, int timeout_ms)
{
    cli_result r{-1, "", ""};
    FILE *out = tmpfile(), *err = tmpfile();
    std::vector<std::string> argv = {WWAN_BUS};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = spawn(argv, fileno(out), fileno(err));
    int st = 0;
    for (int64_t end = now_ms() + timeout_ms; waitpid(pid, &st, WNOHANG) == 0; usleep(2000)) {
        if (now_ms() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
        }
    }
    r.code = decode_status(st);
    for (auto [f, text] : {std::pair{out, &r.out}, std::pair{err, &r.err}}) {
        char buf[4096];
        rewind(f);
        for (size_t n; (n = fread(buf, 1, sizeof(buf), f)) > 0;)
            text->append(buf, n);
        fclose(f);
    }
    return r;
}

std::unique_ptr<process> start_broker(const std::string &socket, const std::vector<std::string> &args)
{
    std::vector<std::string> argv{WWAN_BUSD, "-s", socket};
    argv.insert(argv.end(), args.begin(), args.end());
    auto p = std::make_unique<process>(argv);
    int64_t end = now_ms() + 5000;
    while (now_ms() < end) {
        int fd = usock(USOCK_UNIX, socket.c_str(), nullptr);
        if (fd >= 0) {
            close(fd);
            return p;
        }
        usleep(10000);
    }
    return nullptr;
}

std::unique_ptr<process> start_peer(const std::string &socket)
{
    auto p = std::make_unique<process>(std::vector<std::string>{BUS_PEER, socket}, true);
    std::string l;
    if (!p->line(&l, 5000) || l != "ready")
        return nullptr;
    return p;
}

bool wait_until(int timeout_ms, const std::function<bool()> &fn)
{
    int64_t end = now_ms() + timeout_ms;
    struct uloop_timeout t = {};
    t.cb = [](struct uloop_timeout *) { uloop_end(); };
    while (!fn()) {
        if (now_ms() >= end)
            return false;
        uloop_timeout_set(&t, 10);
        uloop_run();
    }
    uloop_timeout_cancel(&t);
    return true;
}

std::string json_of(struct blob_attr *attr)
{
    char *s = blobmsg_format_json(attr, true);
    std::string r = s ? s : "(null)";
    free(s);
    return r;
}

long cpu_ticks(pid_t pid)
{
    FILE *f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (!f)
        return -1;
    char buf[1024];
    size_t n = fread(buf, 1, sizeof(buf) - 1, f);
    fclose(f);
    buf[n] = 0;
    // Fields after the command name (which may hold spaces): utime is the
    // 14th field, stime the 15th.
    const char *p = strrchr(buf, ')');
    long utime, stime;
    if (!p || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &utime, &stime) != 2)
        return -1;
    return utime + stime;
}

} // namespace bus_test
