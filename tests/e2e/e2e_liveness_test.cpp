// Modems that stop answering, power down or vanish: every bus caller is
// answered, hangs are announced and left again, the daemon stays up.
#include "tests/e2e/e2e_harness.h"

#include <algorithm>
#include <memory>

namespace e2e {
namespace {

const char *const board_1_1 = R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})";

class Liveness : public DaemonTest
{
  protected:
    std::optional<int64_t> ping_state(const std::string &path)
    {
        return bus->call(path, "info").reply.number("ping_state");
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

TEST_F(Liveness, ExpiredRequestsAreAnsweredAndManyRaiseAHangThatEnds)
{
    usb_device dev;
    modem_sim &sim = plug_ec25(dev);
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NE(wait_modem("gsm.modem0"), 0u);
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0"));
    ASSERT_NE(sim.control("hang").find("OK"), std::string::npos);

    {
        SCOPED_TRACE("one expired request");
        auto call = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":1})");
        ASSERT_TRUE(call);
        ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return call->done(); })) << "left pending";
        expect_timeout_reply(call->result(), "AT+CSQ");
        EXPECT_GE(log->count_framed("debug: [MODEM_MANAGER] Warning: request (",
                                    modem_forms(") reached execution timeout (1s) on ", dev, " modem!")),
                  1u);
        EXPECT_TRUE(bus->events_of("gsm.modem.hang").empty());
    }

    {
        SCOPED_TRACE("many expired requests");
        std::vector<std::unique_ptr<pending_call>> calls;
        for (int i = 0; i < 20; i++) {
            calls.push_back(bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CGMI","timeout":1})"));
            ASSERT_TRUE(calls.back());
        }
        ASSERT_TRUE(bus->wait_until(2 * watcher_ms, [&] {
            return std::all_of(calls.begin(), calls.end(), [](const auto &c) { return c->done(); });
        })) << "some were left pending";
        for (const auto &c : calls)
            expect_timeout_reply(c->result(), "AT+CGMI");

        ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return !bus->events_of("gsm.modem.hang").empty(); }))
            << "no gsm.modem.hang after 21 expired requests";
        bus_message hang = bus->events_of("gsm.modem.hang").front().data;
        EXPECT_EQ(hang.text("modem_id"), "1-1") << hang.json();
        EXPECT_EQ(hang.number("ping_state"), 2) << hang.json();
        EXPECT_TRUE(log->has("error: [MODEM_MANAGER] Multiple request to the modem timeouted, modem may be unresponsive"));
        EXPECT_TRUE(log->has_any(modem_forms("error: [MODEM] Modem ", dev, " is not responsive!")));
    }

    {
        SCOPED_TRACE("the modem answers again");
        ASSERT_NE(sim.control("unhang").find("OK"), std::string::npos);
        EXPECT_TRUE(bus->wait_until(2 * watcher_ms, [&] { return ping_state("gsm.modem0") == 0; }))
            << "ping_state stays " << ping_state("gsm.modem0").value_or(-1);
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    }

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Liveness, PowerDownIsAnnouncedAndAStopWithACallPendingIsClean)
{
    usb_device dev;
    modem_sim &sim = plug_ec25(dev);
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NE(wait_modem("gsm.modem0"), 0u);
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0"));

    ASSERT_NE(sim.control("powerdown").find("OK"), std::string::npos);
    ASSERT_TRUE(bus->wait_until(call_ms, [&] { return !bus->events_of("gsm.modem.powerdown").empty(); }));
    bus_message down = bus->events_of("gsm.modem.powerdown").front().data;
    EXPECT_EQ(down.text("usb_id"), "1-1") << down.json();
    EXPECT_EQ(down.text("ubus_obj"), "gsm.modem0") << down.json();
    EXPECT_TRUE(log->has_any(modem_forms("debug: [MODEM] Modem ", dev, " is Powering down!")));

    // The silent modem holds a caller when the daemon is asked to stop:
    // it still ends cleanly (the sanitizers' leak check is part of that).
    auto call = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":60})");
    ASSERT_TRUE(call);
    ASSERT_TRUE(bus->wait_until(call_ms, [&] {
        return bus->call("gsm.modem0", "info").reply.number("request_count").value_or(0) >= 1;
    }));
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Liveness, ModemGoneMidRequestAnswersTheCallerAndTheOtherModemServes)
{
    usb_device first;
    usb_device second{"2", "1", "2c7c", "0125", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}};
    modem_sim &sim0 = plug_ec25(first);
    modem_sim &sim2 = plug_ec25(second);
    ASSERT_NE(sim2.control("set csq 10").find("OK"), std::string::npos);
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    uint32_t id0 = wait_modem("gsm.modem0");
    ASSERT_NE(id0, 0u);
    ASSERT_NE(wait_modem("gsm.modem2"), 0u);
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0") && wait_idle(*bus, "gsm.modem2"));

    {
        SCOPED_TRACE("removal event while a call waits for the modem");
        ASSERT_NE(sim0.control("hang").find("OK"), std::string::npos);
        // The time-out is far beyond the wait below: only the removal can
        // answer it in time.
        auto call = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":120})");
        ASSERT_TRUE(call);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] {
            return bus->call("gsm.modem0", "info").reply.number("request_count").value_or(0) >= 1;
        }));
        ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"id":"1-1"})"), 0);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return call->done(); })) << "caller left pending";
        expect_error_reply(call->result());
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return !bus->events_of("gsm.modem_gone").empty(); }));
        EXPECT_EQ(bus->events_of("gsm.modem_gone").front().data.text("modem_id"), "1-1");
        EXPECT_TRUE(bus->wait_until(call_ms, [&] { return !bus->object_id("gsm.modem0"); }));
        expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 10,99\r\n\r\nOK\r\n");
    }

    {
        SCOPED_TRACE("the modem is plugged in again");
        ASSERT_NE(sim0.control("unhang").find("OK"), std::string::npos);
        ASSERT_EQ(bus->send_event("hotplug.modem_added",
                                  R"({"usb_id":"1-1","cmd_port":"/dev/ttyUSB2","gps_port":"/dev/ttyUSB1",)"
                                  R"("data_port":"","vidpid":"2c7c:0125","boudrate":115200})"),
                  0);
        ASSERT_NE(wait_modem("gsm.modem0"), 0u);
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    }

    {
        SCOPED_TRACE("simulator killed while a call waits for it");
        ASSERT_NE(sim2.control("hang").find("OK"), std::string::npos);
        auto call = bus->call_async("gsm.modem2", "exec", R"({"command":"AT+CSQ","timeout":3})");
        ASSERT_TRUE(call);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] {
            return bus->call("gsm.modem2", "info").reply.number("request_count").value_or(0) >= 1;
        }));
        sim2.kill_hard();
        ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return call->done(); })) << "caller left pending";
        expect_error_reply(call->result());
        // The other modem is unaffected.
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");

        // A port that hung up must not keep the event loop busy: an idle
        // daemon uses next to no processor time in a few seconds, one that
        // keeps polling the dead tty (readable, hung up, read() gives 0)
        // uses all it is given, even on a loaded machine well over 1 s.
        double before = daemon->cpu_seconds();
        bus->wait_until(3000, [] { return false; });
        EXPECT_LT(daemon->cpu_seconds() - before, 1.0) << "wwanctl busy-loops on the hung-up tty";
    }

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
