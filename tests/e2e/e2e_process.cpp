#include "tests/e2e/e2e_process.h"

#include "wwan/ubox.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

#include "tests/support/process_test_support.h"

namespace e2e {

namespace {

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

// --- processes ------------------------------------------------------------------------

child_process::child_process(const std::vector<std::string> &argv, const std::string &root,
                             const std::string &out_file, const std::string &err_file)
{
    std::vector<std::string> args = argv;
    std::vector<char *> cargs;
    for (auto &a : args)
        cargs.push_back(a.data());
    cargs.push_back(nullptr);

    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127);
    setenv("WWANCTL_ROOT", root.c_str(), 1);
    int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (out < 0 || err < 0 || in < 0)
        _exit(127);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(cargs[0], cargs.data());
    _exit(127);
}

child_process::~child_process()
{
    if (running()) {
        kill(pid_, SIGKILL);
        int status;
        waitpid(pid_, &status, 0);
    }
}

void child_process::reap(int status)
{
    if (WIFEXITED(status))
        status_ = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        status_ = 128 + WTERMSIG(status);
    pid_ = -1;
}

bool child_process::running()
{
    if (pid_ <= 0)
        return false;
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reap(status);
        return false;
    }
    return true;
}

int child_process::wait_exit(int timeout_ms)
{
    int64_t deadline = now_ms() + timeout_ms;
    while (running() && now_ms() < deadline)
        usleep(10000);
    return running() ? -1 : status_;
}

double child_process::cpu_seconds()
{
    if (!running())
        return -1;
    std::string stat = read_file("/proc/" + std::to_string(pid_) + "/stat");
    // Fields after the command name, which is in parentheses: state is the
    // 3rd field, utime and stime the 14th and 15th.
    size_t end = stat.rfind(')');
    if (end == std::string::npos)
        return -1;
    std::istringstream in(stat.substr(end + 2));
    std::string skipped;
    for (int field = 3; field <= 13; field++)
        in >> skipped;
    unsigned long long utime = 0, stime = 0;
    in >> utime >> stime;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int child_process::stop(int sig, int timeout_ms)
{
    if (running())
        kill(pid_, sig);
    return wait_exit(timeout_ms);
}

modem_sim::modem_sim(const temp_root &root, const std::string &tty, const std::string &scenario)
{
    control_path_ = root / ("/sim-" + tty + ".sock");
    transcript_path_ = root / ("/sim-" + tty + ".log");
    std::string out = root / ("/sim-" + tty + ".out");
    std::string link = root / ("/dev/" + tty);
    make_dirs(root / "/dev");
    proc_ = std::make_unique<child_process>(
        std::vector<std::string>{WWAN_MODEM_SIM, "-s", scenario, "-n", "-l", link, "-c", control_path_, "-t",
                                 transcript_path_},
        root.path(), out, root / ("/sim-" + tty + ".err"));
    // Ready once it printed its terminal and answers on its control socket.
    int64_t deadline = now_ms() + 10000;
    while (now_ms() < deadline && proc_->running()) {
        if (read_file(out).find('\n') != std::string::npos && control("mode").find("OK") != std::string::npos) {
            ready_ = true;
            return;
        }
        usleep(20000);
    }
}

modem_sim::~modem_sim()
{
    // Asked first, so that it removes its link and socket.
    proc_->stop(SIGTERM, 3000);
}

std::string modem_sim::control(const std::string &command)
{
    int fd = usock(USOCK_UNIX, control_path_.c_str(), nullptr);
    if (fd < 0)
        return "ERROR no control socket";
    std::string msg = command + "\n";
    if (write(fd, msg.data(), msg.size()) != static_cast<ssize_t>(msg.size())) {
        close(fd);
        return "ERROR write";
    }
    std::string reply, buf;
    for (;;) {
        std::string line = test_support::read_line(fd, buf, 5000);
        if (line.empty() && buf.empty())
            break;
        reply += line + "\n";
        if (line == "OK" || line.rfind("ERROR", 0) == 0)
            break;
    }
    close(fd);
    return reply;
}

std::string modem_sim::transcript() const
{
    return read_file(transcript_path_);
}

void modem_sim::kill_hard()
{
    proc_->stop(SIGKILL);
}

// --- the daemon's log -----------------------------------------------------------------

std::string strip_log_prefix(const std::string &line)
{
    if (line.empty() || line[0] != '[')
        return line;
    size_t end = line.find("] ");
    size_t colon = line.rfind(':', end);
    if (end == std::string::npos || colon == std::string::npos || colon + 1 >= end)
        return line;
    for (size_t i = colon + 1; i < end; i++)
        if (!std::isdigit(static_cast<unsigned char>(line[i])))
            return line;
    return line.substr(end + 2);
}

std::vector<std::string> daemon_log::messages() const
{
    std::vector<std::string> out;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);)
        out.push_back(strip_log_prefix(line));
    return out;
}

size_t daemon_log::count(const std::string &message) const
{
    auto all = messages();
    return static_cast<size_t>(std::count(all.begin(), all.end(), message));
}

size_t daemon_log::count_containing(const std::string &part) const
{
    auto all = messages();
    return static_cast<size_t>(
        std::count_if(all.begin(), all.end(), [&](const std::string &m) { return m.find(part) != std::string::npos; }));
}

size_t daemon_log::count_framed(const std::string &head, const std::vector<std::string> &tails) const
{
    auto framed = [&](const std::string &m) {
        return m.starts_with(head) && std::any_of(tails.begin(), tails.end(), [&](const std::string &t) {
                   return m.size() >= head.size() + t.size() && m.ends_with(t);
               });
    };
    auto all = messages();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), framed));
}

bool daemon_log::has_any(const std::vector<std::string> &forms) const
{
    auto all = messages();
    return std::any_of(forms.begin(), forms.end(),
                       [&](const std::string &f) { return std::find(all.begin(), all.end(), f) != all.end(); });
}

bool daemon_log::has_block(const std::vector<std::string> &block) const
{
    auto all = messages();
    if (block.empty())
        return false;
    for (size_t i = 0; i + block.size() <= all.size(); i++)
        if (std::equal(block.begin(), block.end(), all.begin() + static_cast<std::ptrdiff_t>(i)))
            return true;
    return false;
}

} // namespace e2e
