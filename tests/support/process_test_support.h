// Helpers for tests that run the project's executables as child processes.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "wwan/ubox.h"

namespace test_support
{

// Starts wwan-busd (path busd) on sock and waits until it accepts connections;
// the broker dies with the test process. Returns its pid, or -1.
inline pid_t start_broker(const char *busd, const std::string &sock)
{
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        execl(busd, busd, "-s", sock.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    for (int i = 0; pid > 0 && i < 500; i++) {
        int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
        if (fd >= 0) {
            close(fd);
            return pid;
        }
        usleep(10000);
    }
    return pid;
}

// The CPU time a process used (clock ticks), from /proc; -1 when unreadable.
inline long cpu_ticks(pid_t pid)
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

inline void stop_process(pid_t &pid)
{
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    pid = -1;
}

// The next line read from fd within timeout_ms (buf keeps what follows it),
// or the empty text.
inline std::string read_line(int fd, std::string &buf, int timeout_ms)
{
    size_t nl;
    while ((nl = buf.find('\n')) == std::string::npos) {
        pollfd p = {fd, POLLIN, 0};
        char tmp[512];
        ssize_t n;
        if (poll(&p, 1, timeout_ms) <= 0 || (n = read(fd, tmp, sizeof(tmp))) <= 0)
            return {};
        buf.append(tmp, static_cast<size_t>(n));
    }
    std::string line = buf.substr(0, nl);
    buf.erase(0, nl + 1);
    return line;
}

} // namespace test_support
