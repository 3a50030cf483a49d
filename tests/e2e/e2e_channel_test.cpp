// The AT channel seen from outside: what callers send is checked before it
// reaches the modem, every caller is answered whatever the modem does, and an
// answer never reaches a caller it does not belong to.
#include "tests/e2e/e2e_harness.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace e2e {
namespace {

const char *const board_1_1 = R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})";
const std::string cimi_answer = "\r\n262011234567890\r\n\r\nOK\r\n";

// A client of the modem's local AT socket.
class socket_client
{
  public:
    explicit socket_client(const std::string &path)
    {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
        if (fd_ >= 0 && connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~socket_client()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    socket_client(const socket_client &) = delete;
    socket_client &operator=(const socket_client &) = delete;

    bool connected() const { return fd_ >= 0; }
    bool send_text(const std::string &text) const
    {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // Reads what is there without waiting.
    const std::string &poll_text()
    {
        char buf[4096];
        for (;;) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 0) <= 0 || !(p.revents & POLLIN))
                break;
            ssize_t r = recv(fd_, buf, sizeof(buf), 0);
            if (r <= 0)
                break;
            in_.append(buf, static_cast<size_t>(r));
        }
        return in_;
    }

  private:
    int fd_ = -1;
    std::string in_;
};

class Channel : public DaemonTest
{
  protected:
    modem_sim &serve_one()
    {
        modem_sim &sim = plug_ec25(usb_device{});
        write_board(*root, board_1_1);
        start_daemon();
        EXPECT_NE(wait_modem("gsm.modem0"), 0u);
        EXPECT_TRUE(wait_idle(*bus, "gsm.modem0"));
        return sim;
    }
};

// Whatever a caller puts into exec, the modem gets one command line or
// nothing at all.
TEST_F(Channel, ExecTextThatIsNotOneCommandLineIsRefusedAndNothingIsWritten)
{
    modem_sim &sim = serve_one();
    ASSERT_FALSE(HasFatalFailure());
    struct row {
        const char *what;
        std::string args;
        int status;
    };
    const std::string big(10240, 'A');
    const row rows[] = {
        {"10 KB command", R"({"command":"AT+)" + big + R"("})", UBUS_STATUS_INVALID_ARGUMENT},
        {"second command after CR", R"({"command":"AT\rAT+CFUN=0"})", UBUS_STATUS_INVALID_ARGUMENT},
        {"second command after LF", R"({"command":"AT\nAT+CFUN=0"})", UBUS_STATUS_INVALID_ARGUMENT},
        {"Ctrl-Z", R"({"command":"AT+CMGF=1\u001a"})", UBUS_STATUS_INVALID_ARGUMENT},
        {"ESC", R"({"command":"AT\u001b"})", UBUS_STATUS_INVALID_ARGUMENT},
        {"open quote", R"({"command":"AT+COPS=1,0,\"x"})", UBUS_STATUS_INVALID_ARGUMENT},
        {"time-out -1", R"({"command":"AT+CSQ","timeout":-1})", UBUS_STATUS_INVALID_ARGUMENT},
        {"time-out 0", R"({"command":"AT+CSQ","timeout":0})", UBUS_STATUS_INVALID_ARGUMENT},
        {"time-out over an hour", R"({"command":"AT+CSQ","timeout":3601})", UBUS_STATUS_INVALID_ARGUMENT},
        {"huge time-out", R"({"command":"AT+CSQ","timeout":2147483647})", UBUS_STATUS_INVALID_ARGUMENT},
        {"no AT", R"({"command":"CFUN=0"})", UBUS_STATUS_INVALID_COMMAND},
    };
    int64_t received = sim_stat(sim, "received");
    ASSERT_GE(received, 0);
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        call_result c = bus->call("gsm.modem0", "exec", r.args);
        EXPECT_TRUE(c.done);
        EXPECT_EQ(c.status, r.status);
        EXPECT_EQ(c.replies, 0);
    }
    EXPECT_EQ(sim_stat(sim, "received"), received) << sim.control("stats");

    // A well-formed command still gets its answer, with the line end the
    // daemon adds and nothing else.
    expect_exec(*bus, "gsm.modem0", "AT+CIMI", cimi_answer);
    call_result csq = bus->call("gsm.modem0", "exec", R"({"command":"AT+CSQ\r"})");
    EXPECT_EQ(csq.reply.text("request"), "AT+CSQ\r") << csq.reply.json();
    EXPECT_EQ(csq.reply.text("response"), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n") << csq.reply.json();
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

// The modem stops answering and answers late: the answer to the command that
// timed out never reaches the next caller, try after try.
TEST_F(Channel, LateAnswerOfATimedOutCommandNeverReachesTheNextCaller)
{
    modem_sim &sim = serve_one();
    ASSERT_FALSE(HasFatalFailure());
    for (int attempt = 0; attempt < 3; attempt++) {
        SCOPED_TRACE(attempt);
        ASSERT_EQ(sim.control("hold"), "OK\n");
        auto csq = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":1})");
        ASSERT_TRUE(csq);
        ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return csq->done(); }));
        expect_timeout_reply(csq->result(), "AT+CSQ");

        auto cimi = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CIMI","timeout":20})");
        ASSERT_TRUE(cimi);
        bus->wait_until(500, [] { return false; });
        ASSERT_EQ(sim.control("release"), "OK\n");
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return cimi->done(); }));
        EXPECT_EQ(cimi->result().reply.text("response"), cimi_answer) << cimi->result().reply.json();
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    }
    EXPECT_TRUE(bus->events_of("gsm.modem.hang").empty());
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

// "AT+CMGS=5" without its text leaves the modem at its prompt; when the call
// times out the prompt is cancelled and the next command is answered.
TEST_F(Channel, CommandTimingOutAtAPromptLeavesNoPromptBehind)
{
    modem_sim &sim = serve_one();
    ASSERT_FALSE(HasFatalFailure());
    auto cmgs = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CMGS=5","timeout":1})");
    ASSERT_TRUE(cmgs);
    ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return cmgs->done(); }));
    expect_timeout_reply(cmgs->result(), "AT+CMGS=5");
    expect_exec(*bus, "gsm.modem0", "AT+CIMI", cimi_answer);
    EXPECT_EQ(sim.control("mode"), "normal\nOK\n");
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

// The modem dies behind a port that stays (no removal event): every caller
// is answered within its time-out, and the log does not fill up.
TEST_F(Channel, PortThatHungUpAnswersEveryCallerInTime)
{
    modem_sim &sim = serve_one();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(sim.control("hangup"), "OK\n");
    std::vector<std::unique_ptr<pending_call>> calls;
    for (int i = 0; i < 5; i++) {
        calls.push_back(bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":3})"));
        ASSERT_TRUE(calls.back());
    }
    ASSERT_TRUE(bus->wait_until(watcher_ms, [&] {
        return std::all_of(calls.begin(), calls.end(), [](const auto &c) { return c->done(); });
    })) << "callers left waiting";
    for (const auto &c : calls)
        EXPECT_NE(c->result().reply.number("errno").value_or(0), 0) << c->result().reply.json();
    size_t failed_sends = log->count_containing("Failed to send command");
    bus->wait_until(3000, [] { return false; });
    EXPECT_LE(log->count_containing("Failed to send command"), failed_sends) << "retried with nobody waiting";
    EXPECT_LE(failed_sends, calls.size() + 1);
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

// A hot-plug event may only name terminals under /dev: a file elsewhere, or
// a link under /dev to a file, is never opened, let alone written.
TEST_F(Channel, AnnouncedPortThatIsNotATerminalIsNeverOpened)
{
    write_board(*root, R"({"modems":[]})");
    const std::string precious = *root / "/etc/precious";
    std::filesystem::create_directories(*root / "/dev");
    { std::ofstream(precious) << "keep me\n"; }
    ASSERT_EQ(symlink(precious.c_str(), (*root / "/dev/ttyUSB9").c_str()), 0);
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    for (const char *port : {"/etc/precious", "/dev/../etc/precious", "/dev/ttyUSB9"}) {
        SCOPED_TRACE(port);
        size_t parse_errors = log->count_containing("Unable to parse modem added arguments!");
        size_t open_errors = log->count_containing("[CMM] Failed to open modem at");
        ASSERT_EQ(bus->send_event("hotplug.modem_added", std::string(R"({"usb_id":"7-1","cmd_port":")") + port +
                                                             R"(","vidpid":"2c7c:0125"})"),
                  0);
        EXPECT_TRUE(bus->wait_until(start_ms, [&] {
            return log->count_containing("Unable to parse modem added arguments!") > parse_errors ||
                   log->count_containing("[CMM] Failed to open modem at") > open_errors;
        }));
    }
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    std::ifstream in(precious);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "keep me\n");
    EXPECT_EQ(num_modems(), 0);
    expect_clean_exit();
}

// The local AT socket: a URC right after a query reaches its clients, many
// clients at once are each answered (the modem's answer or the error line),
// none of that looks like a hung modem, and an over-long line is refused
// without spoiling the client's next one.
TEST_F(Channel, SocketClientsAreEachAnsweredAndSeeUrcsAfterQueries)
{
    modem_sim &sim = serve_one();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(bus->listen("gsm.modem.hang"));
    const std::string path = *root / "/dev/modem0";

    socket_client watcher(path);
    ASSERT_TRUE(watcher.connected());
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
    ASSERT_NE(sim.control("urc +CREG: 5").find("OK"), std::string::npos);
    EXPECT_TRUE(bus->wait_until(call_ms, [&] { return watcher.poll_text().find("\r\n+CREG: 5\r\n") != std::string::npos; }))
        << watcher.poll_text();
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");

    std::vector<std::unique_ptr<socket_client>> clients;
    for (int i = 0; i < 200; i++) {
        clients.push_back(std::make_unique<socket_client>(path));
        ASSERT_TRUE(clients.back()->connected());
    }
    for (auto &c : clients)
        ASSERT_TRUE(c->send_text("AT+CSQ\r\n"));
    auto answered = [](const std::string &t) {
        return t == "\r\n+CSQ: 22,99\r\n\r\nOK\r\n" || t == "\r\nERROR\r\n";
    };
    EXPECT_TRUE(bus->wait_until(watcher_ms + call_ms, [&] {
        return std::all_of(clients.begin(), clients.end(), [&](auto &c) { return answered(c->poll_text()); });
    }));
    size_t ok = 0, refused = 0;
    for (auto &c : clients) {
        const std::string &t = c->poll_text();
        ok += t.find("+CSQ") != std::string::npos;
        refused += t == "\r\nERROR\r\n";
        EXPECT_TRUE(answered(t)) << testing::PrintToString(t);
    }
    EXPECT_GT(ok, 0u);
    EXPECT_EQ(ok + refused, clients.size());
    clients.clear();

    socket_client one(path);
    ASSERT_TRUE(one.send_text("AT+" + std::string(9000, 'X') + "\r\nAT+CIMI\r\n"));
    EXPECT_TRUE(bus->wait_until(call_ms, [&] { return one.poll_text() == "\r\nERROR\r\n" + cimi_answer; }))
        << testing::PrintToString(one.poll_text());

    EXPECT_TRUE(bus->events_of("gsm.modem.hang").empty());
    EXPECT_EQ(bus->call("gsm.modem0", "info").reply.number("ping_state"), 0);
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
