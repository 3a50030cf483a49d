// Helpers for the bus tests (temporary directories are temp_root's): child
// processes that are always reaped, the broker and the test peer as real
// executables, and the CLI run with its output captured.
#pragma once

#include <libubus.h>

#include "src/util/root_test_support.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <time.h>

namespace bus_test
{

// Milliseconds of the monotonic clock.
inline int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// A child process; killed (SIGKILL unless stopped before) and reaped on
// destruction.
class process
{
  public:
    // Starts argv; with capture, the child's stdout is readable by line(),
    // else it goes to out_fd; stderr goes to err_fd (both: -1 inherits).
    process(const std::vector<std::string> &argv, bool capture = false, int out_fd = -1, int err_fd = -1);
    ~process();
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    // Next non-empty stdout line within timeout_ms, or false.
    bool line(std::string *out, int timeout_ms);
    // Sends sig and waits up to timeout_ms; returns the exit status
    // (128+signal if killed), or -1 if it did not end.
    int stop(int sig, int timeout_ms = 5000);
    bool running();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buf_;
    int status_ = -1;
};

struct cli_result {
    int code;
    std::string out;
    std::string err;
};

// Runs wwan-bus with args (argv[0] excluded); stdin is /dev/null, stdout and
// stderr are pipes (so stderr is not a terminal).
cli_result run_cli(const std::vector<std::string> &args, int timeout_ms = 10000);

// Starts a process running in the background and returns it once ready:
// the broker when its socket accepts connections, the peer when it printed
// "ready".
std::unique_ptr<process> start_broker(const std::string &socket, const std::vector<std::string> &args = {});
std::unique_ptr<process> start_peer(const std::string &socket);

// Polls until fn() is true or timeout_ms passed, running uloop meanwhile.
bool wait_until(int timeout_ms, const std::function<bool()> &fn);

std::string json_of(struct blob_attr *attr);

} // namespace bus_test
