// The modem's AT channel shared through its local socket: a URC right after
// a query reaches the socket's clients, many clients at once are each
// answered (the modem's answer or the error line), none of that looks like a
// hung modem, and an over-long line is refused without spoiling the next.
#include "tests/e2e/e2e_harness.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

namespace e2e
{
namespace
{

const std::string csq_answer = "\r\n+CSQ: 22,99\r\n\r\nOK\r\n";
const std::string cimi_answer = "\r\n262011234567890\r\n\r\nOK\r\n";

class socket_client
{
  public:
    explicit socket_client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
        connected = connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) == 0;
    }
    ~socket_client() { close(fd_); }
    socket_client(const socket_client &) = delete;
    socket_client &operator=(const socket_client &) = delete;

    bool send_text(const std::string &text) const
    {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // Everything received so far, read without waiting.
    const std::string &text()
    {
        char buf[4096];
        for (pollfd p{fd_, POLLIN, 0}; ::poll(&p, 1, 0) > 0 && (p.revents & POLLIN);) {
            ssize_t r = recv(fd_, buf, sizeof(buf), 0);
            if (r <= 0)
                break;
            in_.append(buf, static_cast<size_t>(r));
        }
        return in_;
    }
    bool connected = false;

  private:
    int fd_;
    std::string in_;
};

using Channel = ServedModemTest;

TEST_F(Channel, SocketClientsAreEachAnsweredAndSeeUrcsAfterQueries)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    const std::string path = *root / "/dev/modem0";

    socket_client watcher(path);
    ASSERT_TRUE(watcher.connected);
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
    ASSERT_NE(sim.control("urc +CREG: 5").find("OK"), std::string::npos);
    EXPECT_TRUE(bus->wait_until(call_ms, [&] { return watcher.text().find("\r\n+CREG: 5\r\n") != std::string::npos; }))
        << watcher.text();
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");

    std::vector<std::unique_ptr<socket_client>> clients;
    for (int i = 0; i < 200; i++) {
        clients.push_back(std::make_unique<socket_client>(path));
        ASSERT_TRUE(clients.back()->connected);
        ASSERT_TRUE(clients.back()->send_text("AT+CSQ\r\n"));
    }
    auto answered = [](const std::string &t) { return t == csq_answer || t == "\r\nERROR\r\n"; };
    EXPECT_TRUE(bus->wait_until(watcher_ms + call_ms, [&] {
        return std::all_of(clients.begin(), clients.end(), [&](auto &c) { return answered(c->text()); });
    }));
    size_t ok = 0;
    for (auto &c : clients) {
        ok += c->text() == csq_answer;
        EXPECT_TRUE(answered(c->text())) << testing::PrintToString(c->text());
    }
    EXPECT_GT(ok, 0u);
    clients.clear();

    socket_client one(path);
    ASSERT_TRUE(one.send_text("AT+" + std::string(9000, 'X') + "\r\nAT+CIMI\r\n"));
    EXPECT_TRUE(bus->wait_until(call_ms, [&] { return one.text() == "\r\nERROR\r\n" + cimi_answer; }))
        << testing::PrintToString(one.text());
    EXPECT_TRUE(bus->events_of("gsm.modem.hang").empty());
    EXPECT_EQ(bus->call("gsm.modem0", "info").reply.number("ping_state"), 0);
}

} // namespace
} // namespace e2e
