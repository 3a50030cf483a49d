// Modems found in the USB tree at start: naming, identification of the
// simulated EC25, its core methods and the argument checks of the bus
// interface; devices that must not become modems.
#include "tests/e2e/e2e_harness.h"

namespace e2e {
namespace {

const char *const board_1_1 =
    R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}],"blocked_modems":["3-1"]})";

class Discovery : public DaemonTest
{
};

TEST_F(Discovery, BuiltinPrimaryModemBecomesModem0AndAnswers)
{
    usb_device dev;
    modem_sim &sim = plug_ec25(dev);
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    // Subscribed before the modem went live, the notification cannot be
    // missed; on a fast start it may have gone out already.
    bool subscribed_first = bus->subscribe("gsm") && !bus->object_id("gsm.modem0");
    uint32_t id = wait_modem("gsm.modem0");
    ASSERT_NE(id, 0u);

    EXPECT_TRUE(log->has_block({"debug: [MODEM_MANAGER] New modem:", " @USB Port:    1-1", " @USB VID PID: 2c7c:0125",
                                " @Baudrate:    115200"}) ||
                log->has_block({"debug: [MODEM_MANAGER] New modem:", " @USB Port:    1-1", " @USB VID PID: 2C7C:0125",
                                " @Baudrate:    115200"}));
    if (subscribed_first) {
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return !bus->notifications_of("gsm.new_modem").empty(); }));
        bus_message note = bus->notifications_of("gsm.new_modem").front().data;
        EXPECT_EQ(note.text("object_name"), "gsm.modem0") << note.json();
        EXPECT_EQ(static_cast<uint32_t>(note.number("object_id").value_or(0)), id) << note.json();
    }

    {
        SCOPED_TRACE("modem info and identification");
        call_result info = bus->call("gsm.modem0", "info");
        ASSERT_EQ(info.status, 0);
        EXPECT_NE(info.reply.text("model").value_or("").find("EC25"), std::string::npos) << info.reply.json();
        EXPECT_EQ(info.reply.text("modem_id"), "1-1") << info.reply.json();
        EXPECT_EQ(info.reply.text("object_name"), "gsm.modem0") << info.reply.json();
        EXPECT_EQ(info.reply.number("ping_state"), 0) << info.reply.json();
        EXPECT_TRUE(info.reply.text("state")) << info.reply.json();

        call_result id_info = bus->call("gsm.modem0", "get_id_info");
        ASSERT_EQ(id_info.status, 0);
        EXPECT_EQ(id_info.reply.text("manuf"), "Quectel") << id_info.reply.json();
        EXPECT_EQ(id_info.reply.text("firmware"), "EC25EFAR06A06M4G") << id_info.reply.json();
        EXPECT_NE(id_info.reply.text("model").value_or("").find("EC25"), std::string::npos) << id_info.reply.json();
        std::string raw = id_info.reply.text("raw").value_or("");
        EXPECT_NE(raw.find("Revision: EC25EFAR06A06M4G"), std::string::npos) << id_info.reply.json();

        // ATI (any case, anything after it) comes from the identification,
        // never from the modem.
        size_t ati_sent = count_of(sim.transcript(), "in  \"ATI");
        for (const char *command : {"ATI", "ati1"}) {
            call_result ati = bus->call("gsm.modem0", "exec", std::string(R"({"command":")") + command + "\"}");
            ASSERT_EQ(ati.status, 0) << command;
            EXPECT_EQ(ati.reply.text("request"), "ATI\r") << ati.reply.json();
            EXPECT_EQ(ati.reply.text("response"), raw) << ati.reply.json();
        }
        EXPECT_EQ(count_of(sim.transcript(), "in  \"ATI") + count_of(sim.transcript(), "in  \"ati"), ati_sent);
    }

    {
        SCOPED_TRACE("exec goes to the modem");
        expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        ASSERT_NE(sim.control("set csq 9").find("OK"), std::string::npos);
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 9,99\r\n\r\nOK\r\n");
        // The AT prefix is recognised in any case.
        call_result lower = bus->call("gsm.modem0", "exec", R"({"command":"at+gmr","timeout":5})");
        ASSERT_EQ(lower.status, 0);
        EXPECT_EQ(lower.reply.text("request"), "at+gmr\r") << lower.reply.json();
        EXPECT_NE(lower.reply.text("response").value_or("").find("EC25EFAR06A06M4G"), std::string::npos)
            << lower.reply.json();
    }

    {
        SCOPED_TRACE("modem function");
        call_result set = bus->call("gsm.modem0", "update_modem_func", R"({"state_id":3})");
        ASSERT_EQ(set.status, 0);
        EXPECT_EQ(set.reply.text("status"), "OK") << set.reply.json();
        EXPECT_EQ(set.reply.number("status_id"), 0) << set.reply.json();

        call_result def = bus->call("gsm.modem0", "get_default_modem_func");
        ASSERT_EQ(def.status, 0);
        auto func = def.reply.number("id");
        ASSERT_TRUE(func) << def.reply.json();
        EXPECT_EQ(def.reply.text("type"), modem_func_text(*func)) << def.reply.json();
    }

    {
        SCOPED_TRACE("statuses of the bus interface");
        // An action Quectel modems have no command for: not supported, no
        // reply body.
        call_result unsupported = bus->call("gsm.modem0", "get_rat_priority");
        EXPECT_EQ(unsupported.status, UBUS_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(unsupported.replies, 0) << unsupported.reply.json();

        struct bad_call {
            const char *object, *method, *args;
            int status;
        };
        const bad_call bad[] = {
            {"gsm.modem0", "exec", "{}", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm.modem0", "exec", R"({"command":5})", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm.modem0", "exec", R"({"command":"+CGMI"})", UBUS_STATUS_INVALID_COMMAND},
            {"gsm.modem0", "update_modem_func", "{}", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm.modem0", "update_modem_func", R"({"state_id":"1"})", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm.modem0", "set_net_reg_stat", "{}", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm.modem0", "set_net_reg_stat", R"({"mode":1})", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm", "enable_debug", "{}", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm", "attach", "{}", UBUS_STATUS_INVALID_ARGUMENT},
            {"gsm", "deattach", R"({"usbid":7})", UBUS_STATUS_INVALID_ARGUMENT},
        };
        for (const bad_call &c : bad) {
            SCOPED_TRACE(std::string(c.object) + " " + c.method + " " + c.args);
            call_result r = bus->call(c.object, c.method, c.args);
            EXPECT_EQ(r.status, c.status);
            EXPECT_EQ(r.replies, 0) << r.reply.json();
        }
        // None of them reached the modem.
        EXPECT_EQ(count_of(sim.transcript(), "CGMI"), 0u);
    }

    {
        SCOPED_TRACE("debug output switched over the bus");
        const std::string exec_line = R"(debug: Ubus call: exec {"command":"AT","timeout":10})";
        size_t before = log->count(exec_line);
        EXPECT_EQ(bus->call("gsm", "enable_debug", R"({"enabled":false})").status, 0);
        expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
        EXPECT_EQ(log->count(exec_line), before) << "debug line while debug output is off";
        EXPECT_EQ(bus->call("gsm", "enable_debug", R"({"enabled":true})").status, 0);
        expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
        EXPECT_EQ(log->count(exec_line), before + 1);
        EXPECT_EQ(bus->call("gsm", "dump_log").status, 0);
    }

    EXPECT_EQ(num_modems(), 1);
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Discovery, NamesModemsAndLeavesOutUnsupportedAndBlockedDevices)
{
    usb_device builtin;
    usb_device external{"2", "1", "2c7c", "0125", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}};
    usb_device blocked{"3", "1", "2c7c", "0125", {{1, "ttyUSB8"}, {2, "ttyUSB9"}}};
    usb_device unknown{"4", "1", "1234", "5678", {{1, "ttyUSB11"}, {2, "ttyUSB12"}}};
    plug_ec25(builtin);
    plug_ec25(external);
    // A blocked modem and a device nobody described, both with a working
    // modem behind their ports: neither may be touched.
    modem_sim &blocked_sim = plug_ec25(blocked);
    add_usb_device(*root, unknown);
    modem_sim &unknown_sim = start_sim("ttyUSB12");
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    uint32_t id0 = wait_modem("gsm.modem0");
    uint32_t id2 = wait_modem("gsm.modem2");
    ASSERT_TRUE(id0 && id2);
    EXPECT_NE(id0, id2);
    EXPECT_TRUE(log->has_any(modem_forms("error: [MODEM_MANAGER] Modem ", blocked, " is on the black list! Skipping...")));
    // Both live modems answered their identification by now; the others
    // would have been created in the same scan.
    expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
    expect_exec(*bus, "gsm.modem2", "AT", "\r\nOK\r\n");
    EXPECT_EQ(bus->objects("gsm.modem*"), (std::vector<std::string>{"gsm.modem0", "gsm.modem2"}));
    EXPECT_EQ(num_modems(), 2);

    call_result info = bus->call("gsm.modem2", "info");
    EXPECT_EQ(info.reply.text("modem_id"), "2-1") << info.reply.json();
    EXPECT_EQ(blocked_sim.transcript().find(" in  "), std::string::npos) << blocked_sim.transcript();
    EXPECT_EQ(unknown_sim.transcript().find(" in  "), std::string::npos) << unknown_sim.transcript();
    EXPECT_FALSE(log->has_block({"debug: [MODEM_MANAGER] New modem:", " @USB Port:    4-1"}));

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Discovery, TwoModemsServeExecIndependently)
{
    usb_device first;
    usb_device second{"2", "1", "2c7c", "0125", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}};
    modem_sim &sim0 = plug_ec25(first);
    modem_sim &sim2 = plug_ec25(second);
    ASSERT_NE(sim2.control("set csq 10").find("OK"), std::string::npos);
    write_board(*root, board_1_1);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_TRUE(wait_modem("gsm.modem0") && wait_modem("gsm.modem2"));

    // Each object reaches its own modem, also with both calls in flight.
    auto a = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ"})");
    auto b = bus->call_async("gsm.modem2", "exec", R"({"command":"AT+CSQ"})");
    ASSERT_TRUE(a && b);
    ASSERT_TRUE(bus->wait_until(call_ms, [&] { return a->done() && b->done(); }));
    EXPECT_EQ(a->result().reply.text("response"), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n") << a->result().reply.json();
    EXPECT_EQ(b->result().reply.text("response"), "\r\n+CSQ: 10,99\r\n\r\nOK\r\n") << b->result().reply.json();

    // One modem not answering does not hold up the other.
    ASSERT_TRUE(wait_idle(*bus, "gsm.modem0"));
    ASSERT_NE(sim0.control("hang").find("OK"), std::string::npos);
    auto stuck = bus->call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":3})");
    ASSERT_TRUE(stuck);
    expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 10,99\r\n\r\nOK\r\n");
    EXPECT_FALSE(stuck->done());
    ASSERT_NE(sim0.control("unhang").find("OK"), std::string::npos);
    ASSERT_TRUE(bus->wait_until(watcher_ms, [&] { return stuck->done(); }));
    expect_timeout_reply(stuck->result(), "AT+CSQ");
    expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");

    EXPECT_EQ(num_modems(), 2);
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
