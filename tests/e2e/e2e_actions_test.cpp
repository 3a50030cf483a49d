// The generic driver's actions through the real processes, one test per
// method group: what a service on the bus asks, what the modem is sent, what
// comes back, and the notifications the modem's own reports turn into.
#include "tests/e2e/e2e_harness.h"

namespace e2e {
namespace {

const char *const rm520n_description = R"({"desc":"RM520N","boudrate":115200,"control":2,"gps":1,"gps_optional":true})";

using Actions = ServedModemTest;

TEST_F(Actions, SystemGroup)
{
    serve();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(ok("get_firmware").text("firmware"), "EC25EFAR06A06M4G");
    EXPECT_NE(ok("get_capabilities").json().find("\"+CGSM\""), std::string::npos);
    EXPECT_EQ(ok("get_func").number("func_id"), 2);
    ok("set_error_msg_fmt", R"({"format":"verbose"})");
    EXPECT_EQ(ok("get_error_msg_fmt").number("format_id"), 3);
    ok("set_clip_mode", R"({"mode":"enable"})");
    EXPECT_EQ(ok("get_clip_mode").number("mode_id"), 2);
    ok("set_crc_fmt", R"({"format":"enable"})");
    EXPECT_EQ(ok("get_crc_fmt").number("format_id"), 2);
    EXPECT_EQ(ok("get_mod_status").number("status_id"), 1);
    EXPECT_EQ(ok("get_fac_lock", R"({"facility":"SC"})").number("state_id"), 1);
    EXPECT_EQ(ok("set_auto_tz_update", R"({"enabled":true})").json().find("\"restart\":true") != std::string::npos,
              true);
    EXPECT_NE(ok("get_auto_tz_update").json().find("\"enabled\":true"), std::string::npos);
    // Quectel's own serial number (AT+EGMR), not the IMEI.
    EXPECT_EQ(ok("get_serial").text("serial"), "MPY22GB0A2345");
}

// A PIN-locked SIM: the state, the unlock, and the report that follows.
TEST_F(Actions, SimGroup)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(ok("get_pin_state").number("pin_state_id"), 1);
    EXPECT_EQ(ok("get_imsi").text("imsi"), "262011234567890");

    sim.control("set cpin SIM PIN");
    EXPECT_EQ(ok("get_pin_state").number("pin_state_id"), 4);
    call_result wrong = bus->call(modem0, "set_pin_code", R"({"code":"0000"})");
    EXPECT_EQ(wrong.reply.number("errno"), 5) << wrong.reply.json();
    ok("set_pin_code", R"({"code":"1234"})");
    EXPECT_TRUE(notified("pin_state", [](const bus_message &m) { return m.number("pin_state") == 1; }))
        << diagnostics();
    EXPECT_EQ(ok("get_sim_slot").number("index"), 1);
}

// Registration reads, a change reported by the modem, the operator and a scan.
TEST_F(Actions, NetworkGroup)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    bus_message all = ok("get_net_reg_stat_all");
    EXPECT_EQ(all.number("status_id"), 1) << all.json();
    EXPECT_TRUE(all.table("cereg").has_value()) << all.json();
    EXPECT_EQ(ok("get_operator_selection").text("operator"), "Telekom.de");

    ok("set_net_reg_stat", R"({"mode":"enable"})");
    EXPECT_EQ(ok("get_net_reg_stat").number("mode_id"), 2);
    sim.control("do network_lost");
    EXPECT_TRUE(notified("network_state", [](const bus_message &m) { return m.number("network_state") != 1; }))
        << diagnostics();
    sim.control("do network_back");
    EXPECT_TRUE(notified("network_state", [](const bus_message &m) { return m.number("network_state") == 1; }))
        << diagnostics();

    // The scan takes seconds; the data interface stays as it is.
    bus_message scan = ok("scan_operators", R"({"block_ifup":true})");
    EXPECT_NE(scan.json().find("\"oper_num\":26202"), std::string::npos) << scan.json();
    EXPECT_NE(scan.json().find("Vodafone.de"), std::string::npos);
}

TEST_F(Actions, PacketDataGroup)
{
    serve();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_NE(ok("get_pdp_ctx_list").json().find("internet.telekom"), std::string::npos);
    ok("set_pdp_ctx", R"({"cid":3,"type":"IP","apn":"m2m.example"})");
    EXPECT_NE(ok("get_pdp_ctx_list").json().find("m2m.example"), std::string::npos);
    ok("set_pdp_ctx", R"({"cid":3})");
    EXPECT_EQ(ok("get_pdp_ctx_list").json().find("m2m.example"), std::string::npos);

    EXPECT_EQ(ok("get_pdp_addr", R"({"index":1})").text("addr"), "10.68.12.34");
    EXPECT_NE(ok("get_active_pdp_ctx_list").json().find("\"state_id\":2"), std::string::npos);
    EXPECT_EQ(ok("get_dns_addr", R"({"cid":1})").text("pri_dns"), "10.74.210.210");
    EXPECT_EQ(ok("get_ps_att_state").number("state_id"), 2);
}

// An incoming call and a USSD session: the answers arrive as notifications.
TEST_F(Actions, CallAndUssd)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    ok("set_clip_mode", R"({"mode":"enable"})");
    sim.control("do call_in +491701234567");
    EXPECT_TRUE(notified("ring", [](const bus_message &) { return true; })) << diagnostics();
    EXPECT_TRUE(notified("clip_value", [](const bus_message &m) { return m.text("number") == "+491701234567"; }))
        << diagnostics();
    EXPECT_NE(ok("get_incoming_voice_calls").json().find("+491701234567"), std::string::npos);
    ok("accept_voice_call");
    ok("reject_voice_call");
    ok("send_voice_call", R"({"number":"+4930123456"})");
    ok("reject_voice_call");

    ok("set_ussd", R"({"mode":"enable","request":"*100#"})");
    EXPECT_TRUE(notified("service_data_value",
                         [](const bus_message &m) { return m.text("response") == "Guthaben: 12,34 EUR"; }))
        << diagnostics();
}

// Nothing a caller puts into an argument reaches the modem as a command of
// its own: refused with "Invalid arguments", and not a byte written.
TEST_F(Actions, ArgumentsThatWouldReachPastTheirCommandAreRefused)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    struct row {
        const char *method, *args;
    } rows[] = {
        {"set_pin_code", R"({"code":"1234\r\nAT+CFUN=0"})"},
        {"set_puk_code", R"({"puk":"12345678","pin":"12\"34"})"},
        {"set_pdp_ctx", R"({"cid":1,"apn":"internet\u001aAT"})"},
        {"set_pdp_ctx", R"({"cid":1,"apn":"a","addr":"10.0.0.1\u001b"})"},
        {"set_pdp_ctx", R"({"cid":99,"apn":"internet"})"},
        {"set_operator_selection", R"({"mode":"manual","format":"numeric","operator":"26201\";+CFUN=0;\""})"},
        {"set_ussd", R"({"mode":"enable","request":"*100#\r"})"},
        {"send_voice_call", R"({"number":"+49301;+CFUN=0"})"},
        {"set_fac_lock", R"({"facility":"SC\r","state":"lock","pass":"1234"})"},
        {"set_new_pass", R"({"facility":"SC","old_pass":"1234","new_pass":"12345678901234567890123456789"})"},
        {"get_pdp_addr", R"({"index":-1})"},
        {"set_net_reg_stat", R"({"mode":"enable\n"})"},
    };
    int64_t received = sim_stat(sim, "received");
    for (const row &r : rows) {
        call_result res = bus->call(modem0, r.method, r.args);
        EXPECT_EQ(res.status, 0) << r.method;
        EXPECT_EQ(res.reply.number("errno"), 2) << r.method << " " << r.args << ": " << res.reply.json();
        EXPECT_EQ(res.reply.text("error"), "Invalid arguments") << r.method;
    }
    EXPECT_EQ(sim_stat(sim, "received"), received) << sim.control("stats");
    ok("get_func");
}

// A 5G modem: the 5GS registration report with its location, on NR.
TEST_F(Actions, FiveGRegistration)
{
    usb_device dev;
    dev.pid = "0801";
    serve(dev, rm520n_description, "rm520n");
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(ok("get_net_5greg_stat").number("status_id"), 1);
    ok("set_net_5greg_stat", R"({"mode":"enable_loc"})");
    bus_message reg = ok("get_net_5greg_stat");
    EXPECT_EQ(reg.number("mode_id"), 3) << reg.json();
    EXPECT_EQ(reg.text("reg_tac"), "41394") << reg.json();
    EXPECT_EQ(reg.text("reg_ci"), "19088839");
    EXPECT_EQ(reg.number("act_id"), 11);
    bus_message all = ok("get_net_reg_stat_all");
    EXPECT_EQ(all.number("act_id"), 11) << all.json();
    EXPECT_EQ(ok("get_operator_selection").number("act_id"), 11);
}

} // namespace
} // namespace e2e
