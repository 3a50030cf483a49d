#include "bus_harness.h"

#include "tests/support/process_test_support.h"
#include "wwan/ubox.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <stdio.h>

namespace bus_test
{

namespace
{

int decode_status(int st)
{
    if (WIFEXITED(st))
        return WEXITSTATUS(st);
    if (WIFSIGNALED(st))
        return 128 + WTERMSIG(st);
    return -1;
}

} // namespace

process::process(const std::vector<std::string> &argv, bool capture, int out_fd, int err_fd)
{
    int p[2] = {-1, -1};
    if (capture && pipe2(p, O_CLOEXEC) < 0)
        return;
    std::vector<char *> args;
    for (auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    if ((pid_ = fork()) == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive the test, even when it is killed
        dup2(open("/dev/null", O_RDWR), 0);
        dup2(capture ? p[1] : out_fd, 1);
        dup2(err_fd, 2);
        execv(args[0], args.data());
        _exit(127);
    }
    if (capture)
        close(p[1]), out_ = p[0];
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
    *out = out_ < 0 ? "" : test_support::read_line(out_, buf_, timeout_ms);
    return !out->empty();
}

cli_result run_cli(const std::vector<std::string> &args, int timeout_ms)
{
    cli_result r{-1, "", ""};
    FILE *out = tmpfile(), *err = tmpfile();
    std::vector<std::string> argv = {WWAN_BUS};
    argv.insert(argv.end(), args.begin(), args.end());
    r.code = process(argv, false, fileno(out), fileno(err)).stop(0, timeout_ms);
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

} // namespace bus_test
