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
        got.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
    }
    return got;
}

class SimProcess : public ::testing::Test
{
  protected:
    ~SimProcess() override
    {
        if (pid_ > 0)
            kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    }

    // Starts the simulator with its link, socket and transcript in dir_, reads the terminal path it prints first
    // and opens that terminal raw.
    void start(const std::string &args)
    {
        int out[2];
        ASSERT_EQ(pipe(out), 0);
        if ((pid_ = fork()) == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive the test
            dup2(out[1], STDOUT_FILENO);
            const std::string cmd = std::string("exec ") + MODEM_SIM_EXE + " --link " + (dir_ / "/tty") +
                                    " --control " + (dir_ / "/ctl") + " --transcript " + (dir_ / "/log") + " " + args;
            execl("/bin/sh", "sh", "-c", cmd.c_str(), nullptr);
            _exit(127);
        }
        close(out[1]);
        first_line_ = read_until(out[0], "\n", 5000);
        close(out[0]);
        if (first_line_.empty())
            return;
        first_line_.pop_back();
        tty_ = open((dir_ / "/tty").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        termios tio{};
        cfmakeraw(&tio);
        ASSERT_EQ(tcsetattr(tty_, TCSANOW, &tio), 0);
    }

    // One operator command through the socket; its reply.
    std::string control(const std::string &line)
    {
        int s = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{AF_UNIX, {}};
        std::string(dir_ / "/ctl").copy(addr.sun_path, sizeof addr.sun_path - 1);
        std::string reply;
        if (connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
            write(s, (line + "\n").data(), line.size() + 1) > 0)
            reply = read_until(s, "OK\n", 2000);
        close(s);
        return reply;
    }

    // Closes the terminal; the exit status once the process ended within two seconds, else -1.
    int exit_status()
    {
        close(tty_);
        int st = 0, r = 0;
        for (int i = 0; i < 200 && (r = waitpid(pid_, &st, WNOHANG)) == 0; i++)
            usleep(10000);
        pid_ = r == pid_ ? -1 : pid_;
        return r > 0 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    temp_root dir_;
    std::string first_line_;
    pid_t pid_ = -1;
    int tty_ = -1;
};

// SIGTERM and SIGINT (quit below) end it with status 0 and remove the link and the socket; it boots unless told not
// to. A bad option or scenario ends it with its status before any link.
TEST_F(SimProcess, LinksItsTerminalAndExitsWithItsStatus)
{
    dir_.write("/bad.scn", "on AT\n  frobnicate\n");
    const struct {
        std::string args;
        int signal, status;
    } rows[] = {{"--no-boot", SIGTERM, 0},
                {"", SIGINT, 0},
                {"-n --scenario " + (dir_ / "/bad.scn"), 0, 1},
                {"--bogus", 0, 2},
                {"-n extra", 0, 2}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.args);
        start(r.args);
        if (r.signal) {
            EXPECT_EQ(first_line_.rfind("/dev/pts/", 0), 0u);
            EXPECT_EQ(fs::read_symlink(dir_ / "/tty").string(), first_line_);
            const std::string booted = r.args.empty() ? read_until(tty_, "PB DONE\r\n", 3000) : "";
            EXPECT_EQ(booted.substr(0, 8), r.args.empty() ? "\r\nRDY\r\n\r" : "");
            EXPECT_EQ(write(tty_, "AT\r", 3), 3);
            EXPECT_EQ(read_until(tty_, "OK\r\n", 2000), "AT\r\r\nOK\r\n"); // ec25 by default, echo on
            kill(pid_, r.signal);
        }
        EXPECT_EQ(first_line_.empty(), r.signal == 0);
        EXPECT_EQ(exit_status(), r.status);
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "/tty")));
        EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "/ctl")));
    }
}

// A split answer leaves in two writes, the pause between them; SIGUSR1 sends the next URC; a hung-up line keeps
// the process and its link until quit; both directions reach the transcript.
TEST_F(SimProcess, TerminalSignalsHangupAndTranscript)
{
    dir_.write("/test.scn", "set echo 1\nnext +CREG: 1\non AT+CHUNK\n  line +CHUNK: 0123456789\n  split 7 300\n  ok\n");
    start("-n --scenario " + (dir_ / "/test.scn"));
    EXPECT_EQ(write(tty_, "AT+CHUNK\r", 9), 9);
    EXPECT_EQ(read_until(tty_, "+CHUN", 2000), "AT+CHUNK\r\r\n+CHUN");
    EXPECT_EQ(read_until(tty_, "", 150), "");
    EXPECT_EQ(read_until(tty_, "OK\r\n", 1000), "K: 0123456789\r\n\r\nOK\r\n");
    kill(pid_, SIGUSR1);
    EXPECT_EQ(read_until(tty_, "\r\n+CREG: 1\r\n", 1000), "\r\n+CREG: 1\r\n");
    EXPECT_EQ(control("hangup"), "OK\n");
    pollfd p{tty_, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    EXPECT_TRUE(p.revents & POLLHUP) << p.revents;
    EXPECT_EQ(write(tty_, "AT\r", 3), -1);
    kill(pid_, SIGUSR1);
    EXPECT_EQ(control("mode"), "hungup\nOK\n");
    EXPECT_EQ(fs::read_symlink(dir_ / "/tty").string(), first_line_);
    EXPECT_EQ(control("quit"), "OK\n");
    EXPECT_EQ(exit_status(), 0);
    std::string log = dir_.read("/log");
    EXPECT_NE(log.find(" in  \"AT+CHUNK\\r\""), std::string::npos) << log;
    EXPECT_NE(log.find("\"K: 0123456789\\r\\n\\r\\nOK\\r\\n\""), std::string::npos) << log;
}

} // namespace
