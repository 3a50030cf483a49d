// Modems that stop answering, power down or vanish: every bus caller is
// answered, hangs are announced and left again, the daemon stays up and the
// other modem keeps being served.
#include "tests/e2e/e2e_harness.h"
#include "tests/support/process_test_support.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace e2e
{
namespace
{

class Liveness : public ServedModemTest
{
  protected:
    // Starts an exec on path and waits until the daemon holds it.
    std::unique_ptr<pending_call> held_call(const std::string &path, int timeout_s)
    {
        auto call =
            bus->call_async(path, "exec", R"({"command":"AT+CSQ","timeout":)" + std::to_string(timeout_s) + "}");
        EXPECT_TRUE(call && wait_until(call_ms, [&] {
                        return bus->call(path, "info").reply.number("request_count").value_or(0) >= 1;
                    }));
        return call;
    }
};

// Whatever answered a caller whose modem went away: a reply with an error.
void expect_error_reply(const call_result &r)
{
    EXPECT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.reply.number("errno").value_or(0), 0) << r.reply.json();
    EXPECT_TRUE(r.reply.text("error")) << r.reply.json();
}

TEST_F(Liveness, ExpiredRequestsRaiseAHangThatEndsAndPowerDownIsAnnounced)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFailure());
    ASSERT_NE(sim.control("hang").find("OK"), std::string::npos);
    // One expired request is answered and is no hang; 21 are.
    for (int n : {1, 20}) {
        SCOPED_TRACE(n);
        std::vector<std::unique_ptr<pending_call>> calls;
        for (int i = 0; i < n; i++)
            calls.push_back(bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CGMI","timeout":1})"));
        ASSERT_TRUE(wait_until(2 * watcher_ms, [&] {
            return std::all_of(calls.begin(), calls.end(), [](const auto &c) { return c && c->done(); });
        })) << "some were left pending";
        for (const auto &c : calls)
            expect_timeout_reply(c->result, "AT+CGMI");
        if (n == 1) {
            EXPECT_FALSE(wait_until(settle_ms, [&] { return !bus->events_of("gsm.modem.hang").empty(); }));
        }
    }
    EXPECT_GE(logged(") reached execution timeout (1s) on `1-1 ["), 1u);
    ASSERT_TRUE(wait_until(watcher_ms, [&] { return !bus->events_of("gsm.modem.hang").empty(); }));
    bus_message hang = bus->events_of("gsm.modem.hang").front().data;
    EXPECT_EQ(hang.text("modem_id"), "1-1") << hang.json();
    EXPECT_EQ(hang.number("ping_state"), 2) << hang.json();
    EXPECT_EQ(logged("Multiple request to the modem timeouted, modem may be unresponsive"), 1u);

    ASSERT_NE(sim.control("unhang").find("OK"), std::string::npos);
    EXPECT_TRUE(
        wait_until(2 * watcher_ms, [&] { return bus->call("gsm.modem0", "info").reply.number("ping_state") == 0; }));
    expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");

    // Powered down, the modem holds a caller when the daemon is asked to
    // stop: it still ends cleanly (the sanitizers' leak check is part of that).
    ASSERT_NE(sim.control("powerdown").find("OK"), std::string::npos);
    ASSERT_TRUE(wait_until(call_ms, [&] { return !bus->events_of("gsm.modem.powerdown").empty(); }));
    bus_message down = bus->events_of("gsm.modem.powerdown").front().data;
    EXPECT_EQ(down.text("usb_id"), "1-1") << down.json();
    EXPECT_EQ(down.text("ubus_obj"), "gsm.modem0") << down.json();
    auto held = held_call("gsm.modem0", 60);
}

TEST_F(Liveness, ModemGoneMidRequestAnswersTheCallerAndTheOtherModemServes)
{
    modem_sim &sim0 = plug(usb_device{});
    modem_sim &sim2 = plug(usb_device{"2", "1", "2c7c", "0125", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}});
    ASSERT_NE(sim2.control("set csq 10").find("OK"), std::string::npos);
    root->write("/etc/board.json", board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_TRUE(wait_modem("gsm.modem0") && wait_modem("gsm.modem2"));
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0") && wait_idle(*bus, "gsm.modem2"));

    // Removed while a call waits for it: the time-out is far beyond the wait
    // below, only the removal can answer it in time.
    ASSERT_NE(sim0.control("hang").find("OK"), std::string::npos);
    auto call = held_call("gsm.modem0", 120);
    expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 10,99\r\n\r\nOK\r\n"); // not held up by the other
    ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"id":"1-1"})"), 0);
    ASSERT_TRUE(wait_until(call_ms, [&] { return call->done(); })) << "caller left pending";
    expect_error_reply(call->result);
    EXPECT_TRUE(wait_until(call_ms, [&] { return !bus->object_id("gsm.modem0"); }));
    expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 10,99\r\n\r\nOK\r\n");

    // Killed while a call waits for it, its port left behind hung up.
    ASSERT_NE(sim2.control("hang").find("OK"), std::string::npos);
    call = held_call("gsm.modem2", 3);
    sim2.kill_hard();
    ASSERT_TRUE(wait_until(watcher_ms, [&] { return call->done(); })) << "caller left pending";
    expect_error_reply(call->result);
    // A port that hung up must not keep the event loop busy: an idle daemon
    // uses next to no processor time in a few seconds, one that keeps
    // polling the dead tty (readable, hung up, read() gives 0) uses all it
    // is given, even on a loaded machine well over 1 s.
    const long before = test_support::cpu_ticks(daemon->pid());
    wait_until(3000, [] { return false; });
    EXPECT_LT(test_support::cpu_ticks(daemon->pid()) - before, sysconf(_SC_CLK_TCK))
        << "wwanctl busy-loops on the hung-up tty";
    EXPECT_LE(logged("Failed to send command"), 2u) << "retried with nobody waiting";
}

} // namespace
} // namespace e2e
