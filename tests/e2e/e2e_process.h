// The programs around the daemon's tests as child processes: wwanctl itself,
// the simulated modems, and the daemon's log as the test reads it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/e2e/e2e_tree.h"

namespace e2e {

// A child process with WWANCTL_ROOT set, dying with the test (parent death
// signal); stdout and stderr go to files. Killed and reaped on destruction.
class child_process
{
  public:
    child_process(const std::vector<std::string> &argv, const std::string &root, const std::string &out_file,
                  const std::string &err_file);
    ~child_process();
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    bool started() const { return pid_ > 0; }
    bool running();
    // Sends sig (unless it has ended) and waits up to timeout_ms: the exit
    // status, 128 + signal when killed, -1 when it did not end.
    int stop(int sig, int timeout_ms = 15000);
    // Waits up to timeout_ms for it to end by itself; as stop().
    int wait_exit(int timeout_ms);
    // Processor time it used so far (user + system), in seconds; -1 when it
    // is not running.
    double cpu_seconds();

  private:
    void reap(int status);

    pid_t pid_ = -1;
    int status_ = -1;
};

// wwan-modem-sim playing an EC25 on a pty linked at $ROOT/dev/<tty>, with its
// control socket and transcript in the root.
class modem_sim
{
  public:
    // scenario: a file or a name under tools/modem-sim/scenarios.
    modem_sim(const temp_root &root, const std::string &tty, const std::string &scenario = "ec25");
    ~modem_sim();
    modem_sim(const modem_sim &) = delete;
    modem_sim &operator=(const modem_sim &) = delete;

    bool ready() const { return ready_; }
    // Runs an operator command; its reply ends with "OK" or "ERROR ...".
    std::string control(const std::string &command);
    // Everything the simulator sent and received so far.
    std::string transcript() const;
    // Ends it without a chance to clean up, as a modem pulled out would.
    void kill_hard();

  private:
    std::string control_path_;
    std::string transcript_path_;
    std::unique_ptr<child_process> proc_;
    bool ready_ = false;
};

// The daemon's standard output, one message per line with the
// "[function:line] " prefix removed ("debug: [MODEM] ..."); lines that are not
// log lines (the banner, the indented lines of a block) stay as they are.
class daemon_log
{
  public:
    explicit daemon_log(std::string path) : path_(std::move(path)) {}

    std::vector<std::string> messages() const;
    size_t count(const std::string &message) const;
    bool has(const std::string &message) const { return count(message) > 0; }
    // Messages that contain part.
    size_t count_containing(const std::string &part) const;
    // Messages that begin with head and end with one of the tails (for
    // messages with a varying number in the middle).
    size_t count_framed(const std::string &head, const std::vector<std::string> &tails) const;
    // True when one of the forms is logged (texts whose case the daemon may
    // choose, such as the vendor:product of a modem).
    bool has_any(const std::vector<std::string> &forms) const;
    // True when the messages from the one equal to first on include the
    // following lines in order, each right after the previous.
    bool has_block(const std::vector<std::string> &block) const;
    std::string text() const { return read_file(path_); }

  private:
    std::string path_;
};

// Strips the "[function:line] " prefix of a log line.
std::string strip_log_prefix(const std::string &line);

} // namespace e2e
