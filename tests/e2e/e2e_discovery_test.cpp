// Modems found in the USB tree at start: naming, identification of the
// simulated EC25 and exec reaching its own modem; devices that must not
// become modems.
#include "tests/e2e/e2e_harness.h"

namespace e2e
{
namespace
{

using Discovery = DaemonTest;

TEST_F(Discovery, NamesAndIdentifiesModemsAndLeavesOutBlockedAndUnknownDevices)
{
    usb_device external{"2", "1", "2c7c", "0125", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}};
    usb_device blocked{"3", "1", "2c7c", "0125", {{1, "ttyUSB8"}, {2, "ttyUSB9"}}};
    usb_device unknown{"4", "1", "1234", "5678", {{1, "ttyUSB11"}, {2, "ttyUSB12"}}};
    modem_sim &sim = plug(usb_device{});
    plug(external).control("set csq 10");
    // A blocked modem and a device nobody described, both with a working
    // modem behind their ports: neither may be touched.
    modem_sim &blocked_sim = plug(blocked);
    add_usb_device(*root, unknown);
    modem_sim &unknown_sim = start_sim("ttyUSB12");
    root->write("/etc/board.json",
                R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}],"blocked_modems":["3-1"]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    uint32_t id0 = wait_modem("gsm.modem0"), id2 = wait_modem("gsm.modem2");
    ASSERT_TRUE(id0 && id2);
    EXPECT_NE(id0, id2);
    EXPECT_EQ(logged("`3-1 [2c7c:0125]` is on the black list!") + logged("`3-1 [2C7C:0125]` is on the black list!"),
              1u);
    // Each object reaches its own modem; both answered their identification
    // by now, the others would have been created in the same scan.
    expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 10,99\r\n\r\nOK\r\n");
    EXPECT_EQ(bus->objects("gsm.modem*"), (std::vector<std::string>{"gsm.modem0", "gsm.modem2"}));
    EXPECT_EQ(num_modems(), 2);
    EXPECT_EQ(bus->call("gsm.modem2", "info").reply.text("modem_id"), "2-1");
    EXPECT_EQ(blocked_sim.transcript().find(" in  "), std::string::npos) << blocked_sim.transcript();
    EXPECT_EQ(unknown_sim.transcript().find(" in  "), std::string::npos) << unknown_sim.transcript();

    call_result info = bus->call("gsm.modem0", "info");
    EXPECT_NE(info.reply.text("model").value_or("").find("EC25"), std::string::npos) << info.reply.json();
    EXPECT_EQ(info.reply.text("modem_id"), "1-1") << info.reply.json();
    EXPECT_EQ(info.reply.text("object_name"), "gsm.modem0") << info.reply.json();
    EXPECT_EQ(info.reply.number("ping_state"), 0) << info.reply.json();

    call_result id = bus->call("gsm.modem0", "get_id_info");
    EXPECT_EQ(id.reply.text("manuf"), "Quectel") << id.reply.json();
    EXPECT_EQ(id.reply.text("firmware"), "EC25EFAR06A06M4G") << id.reply.json();
    EXPECT_NE(id.reply.text("raw").value_or("").find("Revision: EC25EFAR06A06M4G"), std::string::npos)
        << id.reply.json();

    // The AT prefix is recognised in any case.
    ASSERT_NE(sim.control("set csq 9").find("OK"), std::string::npos);
    expect_exec(*bus, "gsm.modem0", "at+csq", "\r\n+CSQ: 9,99\r\n\r\nOK\r\n");
}

} // namespace
} // namespace e2e
