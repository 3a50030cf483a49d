// Runs wwan-modem-sim as its own process: what only the process does (the
// terminal and its link, the control socket, signals, the transcript, its
// options and exit status). The modem's answers are the unit tests' matter.
#include "src/util/root_test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using std::chrono::steady_clock;

// Reads from fd until `until` shows up (never, when empty) or timeout_ms pass.
std::string read_until(int fd, const std::string &until, int timeout_ms)
{
    std::string got;
    const auto end = steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while ((until.empty() || got.find(until) == std::string::npos) && steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        char buf[4096];
        ssize_t n = poll(&p, 1, 10) == 1 ? read(fd, buf, sizeof buf) : -1;
        if (n == 0)
            break;
        if (n > 0)
            got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

class SimProcess : public ::testing::Test
{
  protected:
    ~SimProcess() override
    {
        if (tty_ >= 0)
            close(tty_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    // Starts the simulator (on a scenario file of dir_ when `scenario` is set)
    // and reads the terminal path it prints first.
    void start(const std::vector<std::string> &extra, const std::string &scenario = "")
    {
        if (!scenario.empty())
            dir_.write("/test.scn", scenario);
        std::vector<std::string> args = {MODEM_SIM_EXE, "--link",       dir_ / "/tty", "--control",
                                         dir_ / "/ctl", "--transcript", dir_ / "/log"};
        if (!scenario.empty())
            args.insert(args.end(), {"--scenario", dir_ / "/test.scn"});
        args.insert(args.end(), extra.begin(), extra.end());
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive the test
            dup2(out[1], STDOUT_FILENO);
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        first_line_ = read_until(out[0], "\n", 5000);
        close(out[0]);
        if (first_line_.empty())
            return;
        first_line_.pop_back();
        tty_ = open((dir_ / "/tty").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(tty_, 0);
        termios tio{};
        cfmakeraw(&tio);
        tio.c_cflag |= CLOCAL | CREAD;
        ASSERT_EQ(tcsetattr(tty_, TCSANOW, &tio), 0);
    }

    std::string ask(const std::string &cmd, const std::string &until, int timeout_ms = 2000)
    {
        EXPECT_EQ(write(tty_, cmd.data(), cmd.size()), static_cast<ssize_t>(cmd.size()));
        return read_until(tty_, until, timeout_ms);
    }

    // One operator command through the socket; its reply.
    std::string control(const std::string &line)
    {
        int s = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::string path = dir_ / "/ctl";
        path.copy(addr.sun_path, sizeof addr.sun_path - 1);
        std::string reply;
        if (connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
            write(s, (line + "\n").data(), line.size() + 1) == static_cast<ssize_t>(line.size() + 1))
            reply = read_until(s, "OK\n", 2000);
        close(s);
        return reply;
    }

    // The exit status once the process ended within two seconds, else -1.
    int exit_status()
    {
        for (int i = 0; i < 200; i++) {
            int status;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            usleep(10000);
        }
        return -1;
    }

    temp_root dir_;
    std::string first_line_;
    pid_t pid_ = -1;
    int tty_ = -1;
};

// Quit, SIGTERM and SIGINT end it with status 0 and remove the link and the
// socket; a hung-up line leaves it (and its link) running until then.
TEST_F(SimProcess, LinksItsTerminalAndCleansUpWhenStopped)
{
    for (const char *how : {"quit", "TERM", "INT", "hangup"}) {
        SCOPED_TRACE(how);
        start({"--no-boot"});
        EXPECT_EQ(first_line_.rfind("/dev/pts/", 0), 0u);
        EXPECT_EQ(fs::read_symlink(dir_ / "/tty").string(), first_line_);
        EXPECT_EQ(ask("AT\r", "OK\r\n"), "AT\r\r\nOK\r\n"); // ec25 by default, echo on
        if (how == std::string("hangup")) {
            EXPECT_EQ(control("hangup"), "OK\n");
            pollfd p{tty_, POLLIN, 0};
            ASSERT_EQ(poll(&p, 1, 2000), 1);
            EXPECT_TRUE(p.revents & POLLHUP) << p.revents;
            EXPECT_EQ(write(tty_, "AT\r", 3), -1);
            kill(pid_, SIGUSR1);
            EXPECT_EQ(control("mode"), "hungup\nOK\n");
            EXPECT_EQ(fs::read_symlink(dir_ / "/tty").string(), first_line_);
        }
        if (how == std::string("quit") || how == std::string("hangup"))
            EXPECT_EQ(control("quit"), "OK\n");
        else
            kill(pid_, how == std::string("TERM") ? SIGTERM : SIGINT);
        EXPECT_EQ(exit_status(), 0);
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "/tty")));
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "/ctl")));
        close(tty_);
        tty_ = -1;
    }
}

TEST_F(SimProcess, BootSequenceUnlessToldNotTo)
{
    start({});
    const auto t0 = steady_clock::now();
    EXPECT_EQ(read_until(tty_, "PB DONE\r\n", 3000), "\r\nRDY\r\n\r\n+CFUN: 1\r\n\r\n+CPIN: READY\r\n\r\n+QUSIM: "
                                                     "1\r\n\r\n+QIND: SMS DONE\r\n\r\n+QIND: PB DONE\r\n");
    EXPECT_GE(steady_clock::now() - t0, std::chrono::milliseconds(600));
}

// A split answer leaves the process in two writes, the pause between them;
// SIGUSR1 sends the next URC; both directions reach the transcript.
TEST_F(SimProcess, SplitAnswersSignalsAndTranscript)
{
    start({"-n"}, "set echo 0\nnext +CREG: 1\non AT+CHUNK\n  line +CHUNK: 0123456789\n  split 7 300\n  ok\n");
    EXPECT_EQ(ask("AT+CHUNK\r", "+CHUN"), "\r\n+CHUN");
    EXPECT_EQ(read_until(tty_, "", 150), "");
    EXPECT_EQ(read_until(tty_, "OK\r\n", 1000), "K: 0123456789\r\n\r\nOK\r\n");
    kill(pid_, SIGUSR1);
    EXPECT_EQ(read_until(tty_, "\r\n+CREG: 1\r\n", 1000), "\r\n+CREG: 1\r\n");
    EXPECT_EQ(control("quit"), "OK\n");
    EXPECT_EQ(exit_status(), 0);
    std::string log = dir_.read("/log");
    EXPECT_NE(log.find(" in  \"AT+CHUNK\\r\""), std::string::npos) << log;
    EXPECT_NE(log.find("\"K: 0123456789\\r\\n\\r\\nOK\\r\\n\""), std::string::npos) << log;
}

// Echo on: the process echoes while the line is still being written, and
// neither side may block the other.
TEST_F(SimProcess, OverlongLinesEchoedAndRefused)
{
    start({"--no-boot"});
    for (size_t size : {64 * 1024, 512 * 1024}) {
        SCOPED_TRACE(size);
        const std::string line = "AT+QCFG=\"" + std::string(size, 'x') + "\"\r";
        std::string got;
        size_t done = 0;
        const auto end = steady_clock::now() + std::chrono::seconds(20);
        while (steady_clock::now() < end && (done < line.size() || got.find("ERROR") == std::string::npos)) {
            if (done < line.size()) {
                ssize_t n = write(tty_, line.data() + done, line.size() - done);
                done += n > 0 ? static_cast<size_t>(n) : 0;
            }
            got += read_until(tty_, "", 10);
        }
        EXPECT_EQ(got, line + "\r\nERROR\r\n");
    }
    EXPECT_NE(control("stats").find("too_long 2\n"), std::string::npos);
}

TEST_F(SimProcess, BadScenarioOrOptionEndsWithItsStatus)
{
    const struct {
        std::vector<std::string> args;
        int status;
    } rows[] = {{{"--no-boot"}, 1}, {{"--bogus"}, 2}, {{"-n", "extra"}, 2}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.args.back());
        start(r.args, "on AT\n  frobnicate\n");
        EXPECT_EQ(first_line_, "");
        EXPECT_EQ(exit_status(), r.status);
    }
}

} // namespace
