// The modem's AT channel shared through its local socket with the bus: a URC
// right after a query reaches the socket's clients, a client's command is
// answered, an over-long line is refused without spoiling the next, and none
// of that looks like a hung modem.
#include "tests/e2e/e2e_harness.h"
#include "wwan/ubox.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace e2e
{
namespace
{

const std::string cimi_answer = "\r\n262011234567890\r\n\r\nOK\r\n";

class socket_client
{
  public:
    explicit socket_client(const std::string &path) : fd_(usock(USOCK_UNIX, path.c_str(), nullptr)) {}
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
    bool connected() const { return fd_ >= 0; }

  private:
    int fd_;
    std::string in_;
};

using Channel = ServedModemTest;

TEST_F(Channel, SocketClientsAreAnsweredAndSeeUrcsAfterQueries)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    const std::string path = *root / "/dev/modem0";

    socket_client watcher(path);
    ASSERT_TRUE(watcher.connected());
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
    ASSERT_NE(sim.control("urc +CREG: 5").find("OK"), std::string::npos);
    EXPECT_TRUE(wait_until(call_ms, [&] { return watcher.text().find("\r\n+CREG: 5\r\n") != std::string::npos; }))
        << watcher.text();
    expect_exec(*bus, "gsm.modem0", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n");

    socket_client one(path);
    ASSERT_TRUE(one.send_text("AT+" + std::string(9000, 'X') + "\r\nAT+CIMI\r\n"));
    EXPECT_TRUE(wait_until(call_ms, [&] { return one.text() == "\r\nERROR\r\n" + cimi_answer; }))
        << testing::PrintToString(one.text());
    EXPECT_TRUE(bus->events_of("gsm.modem.hang").empty());
    EXPECT_EQ(bus->call("gsm.modem0", "info").reply.number("ping_state"), 0);
}

} // namespace
} // namespace e2e
