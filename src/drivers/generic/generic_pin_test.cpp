#include "drivers/generic/generic_pin.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <libubox/blobmsg_json.h>

#include "drivers/generic/driver_test_support.h"
#include "ubus/vocab.h"
#include "util/log.h"

namespace
{

using GenericPinTest = driver_test;

std::unique_ptr<ujson> json_args(const char *text)
{
    auto json = ujson::create();
    EXPECT_TRUE(blobmsg_add_json_from_string(json->buffer(), text)) << text;
    return json;
}

TEST_F(GenericPinTest, ProbeInstallsThePinActionsAndHandler)
{
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    EXPECT_EQ(generic_pin_probe(&drv), 0);
    EXPECT_EQ(drv.funcs[ACT_GET_IMSI], &get_imsi);
    EXPECT_EQ(drv.funcs[ACT_SET_PIN_CODE], &set_pin_code);
    EXPECT_EQ(drv.funcs[ACT_GET_PIN_STATE], &get_pin_state);
    EXPECT_EQ(drv.funcs[ACT_SET_PUK_CODE], &set_puk_code);
    const char line[] = "\r\n+CPIN: READY\r\n";
    EXPECT_EQ(modem_driver_urc_method(&drv, line, sizeof(line) - 1), &urc_cpin);
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

// Codes reach the modem only as digits of the SIM's lengths.
TEST_F(GenericPinTest, PinAndPukCommands)
{
    const struct {
        act_func fn;
        const char *args;
        const char *want; // the command, or null when refused with 2
    } rows[] = {
        {set_pin_code, R"({"code":"1234"})", "AT+CPIN=\"1234\"\r"},
        {set_pin_code, R"({"code":"12345678"})", "AT+CPIN=\"12345678\"\r"},
        {set_pin_code, R"({"code":"123"})", nullptr},
        {set_pin_code, R"({"code":"123456789"})", nullptr},
        {set_pin_code, R"({"code":"12a4"})", nullptr},
        {set_pin_code, R"({"code":"12\"4"})", nullptr},
        {set_pin_code, R"({"code":"1234\r"})", nullptr},
        {set_pin_code, R"({"code":"12\n34"})", nullptr},
        {set_pin_code, R"({"code":"1234\u001a"})", nullptr},
        {set_pin_code, R"({"code":"\u001b1234"})", nullptr},
        {set_pin_code, R"({"code":""})", nullptr},
        {set_pin_code, "{}", nullptr},
        {set_puk_code, R"({"puk":"12345678","pin":"0000"})", "AT+CPIN=\"12345678\",\"0000\"\r"},
        {set_puk_code, R"({"puk":"1234567","pin":"0000"})", nullptr},
        {set_puk_code, R"({"puk":"123456789","pin":"0000"})", nullptr},
        {set_puk_code, R"({"puk":"1234567\"","pin":"0000"})", nullptr},
        {set_puk_code, R"({"puk":"12345678","pin":"00\"0"})", nullptr},
        {set_puk_code, R"({"puk":"12345678","pin":"000"})", nullptr},
        {set_puk_code, R"({"puk":"12345678"})", nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto args = json_args(row.args);
        if (row.want) {
            EXPECT_EQ(build(row.fn, args.get()), ACT_STATUS_OK);
            EXPECT_EQ(command(), row.want);
        } else {
            EXPECT_EQ(build(row.fn, args.get()), ACT_STATUS_INVALID_ARGS);
            EXPECT_EQ(req.command, nullptr);
        }
    }
}

TEST_F(GenericPinTest, PinStateFromFunctionalityAndCpin)
{
    const std::string on = "\r\n+CFUN: 1\r\n\r\nOK\r\n";
    const std::string off = "\r\n+CFUN: 0\r\n\r\nOK\r\n";
    const struct {
        const char *what;
        std::string answer;
        int status;
        uint32_t state;
    } rows[] = {
        {"EC25 ready", on + "\r\n+CPIN: READY\r\n\r\nOK\r\n", 0, PIN_STATE_OK},
        {"EC25 PIN locked", on + "\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n", 0, PIN_STATE_PIN},
        {"EC25 PUK locked", on + "\r\n+CPIN: SIM PUK\r\n\r\nOK\r\n", 0, PIN_STATE_PUK},
        {"27.007 PH-NET PIN", on + "\r\n+CPIN: PH-NET PIN\r\n\r\nOK\r\n", 0, PIN_STATE_PH_NET_PIN},
        {"27.007 PH-NETSUB PUK", on + "\r\n+CPIN: PH-NETSUB PUK\r\n\r\nOK\r\n", 0, PIN_STATE_PH_NETSUB_PUK},
        {"RM520N SIM busy", on + "\r\n+CPIN: SIM BUSY\r\n\r\nOK\r\n", 0, PIN_STATE_BUSY},
        {"EC25 no SIM, numeric", on + "\r\n+CME ERROR: 10\r\n", 0, PIN_STATE_NOT_INSERTED},
        {"EC25 no SIM, verbose", on + "\r\n+CME ERROR: SIM not inserted\r\n", 0, PIN_STATE_NOT_INSERTED},
        {"EC25 broken SIM", on + "\r\n+CME ERROR: 13\r\n", 0, PIN_STATE_FAILURE},
        {"EC25 radio off", off + "\r\n+CME ERROR: 13\r\n", 0, PIN_STATE_NOT_READY},
        {"radio off, no SIM reported", off + "\r\n+CME ERROR: 10\r\n", 0, PIN_STATE_NOT_READY},
        {"RM520N SIM off", "\r\n+CFUN: 7\r\n\r\nOK\r\n\r\n+CME ERROR: SIM failure\r\n", 0, PIN_STATE_NOT_READY},
        {"radio off, plain error", off + "\r\nERROR\r\n", 0, PIN_STATE_NOT_READY},
        {"radio off, SIM still answers", off + "\r\n+CPIN: READY\r\n\r\nOK\r\n", 0, PIN_STATE_OK},
        {"ATV0", "+CFUN: 1\r\n0\r+CPIN: READY\r\n0\r", 0, PIN_STATE_OK},
        {"ATV0 no SIM", "+CFUN: 1\r\n0\r+CME ERROR: 10\r", 0, PIN_STATE_NOT_INSERTED},
        {"only the +CPIN part", "\r\n+CPIN: NOT READY\r\n\r\nOK\r\n", 0, PIN_STATE_NOT_READY},
        {"radio on, plain error", on + "\r\nERROR\r\n", 5, 0},
        {"radio on, not a SIM error", on + "\r\n+CME ERROR: 3\r\n", 5, 0},
        {"unknown +CPIN text", on + "\r\n+CPIN: PH-SIM PIN\r\n\r\nOK\r\n", 5, 0},
        {"no +CPIN answer", on, 5, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        mdm.events.clear();
        EXPECT_EQ(parse(get_pin_state, row.answer), row.status);
        if (row.status != ACT_STATUS_OK) {
            EXPECT_TRUE(mdm.events.empty());
            EXPECT_EQ(number("pin_state_id"), -999);
            continue;
        }
        EXPECT_EQ(number("pin_state_id"), static_cast<int32_t>(row.state));
        EXPECT_EQ(field("pin_state"), pin_state_str(row.state));
        ASSERT_EQ(mdm.events.size(), 1u);
        EXPECT_EQ(mdm.events[0].id, EVT_PIN_STATE);
        EXPECT_EQ(mdm.events[0].number, static_cast<int32_t>(row.state));
    }
    ASSERT_EQ(build(get_pin_state), ACT_STATUS_OK);
    EXPECT_EQ(command(), "AT+CFUN?\rAT+CPIN?\r");
}

TEST_F(GenericPinTest, ImsiIsCachedAndDroppedWithAFailedAnswer)
{
    const struct {
        const char *what;
        const char *answer;
        int status;
        const char *imsi; // reply and cache afterwards
    } rows[] = {
        {"EC25", "\r\n262011234567890\r\n\r\nOK\r\n", 0, "262011234567890"},
        {"EC25 ATV0", "310260000000001\r\n0\r", 0, "310260000000001"},
        {"EC25 SIM removed", "\r\n+CME ERROR: 10\r\n", 5, "<none>"},
        {"EC25 again", "\r\n262011234567890\r\n\r\nOK\r\n", 0, "262011234567890"},
        {"OK without a number", "\r\nOK\r\n", 5, "<none>"},
    };
    ASSERT_EQ(build(get_imsi), ACT_STATUS_OK);
    EXPECT_EQ(command(), "AT+CIMI\r");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(parse(get_imsi, row.answer), row.status);
        EXPECT_EQ(field("imsi"), row.status == 0 ? row.imsi : "<none>");
        EXPECT_EQ(cached("imsi"), row.imsi);
    }
}

TEST_F(GenericPinTest, CpinUrcRaisesTheStateAndRereadsRegistration)
{
    const struct {
        const char *line;
        int status;
        int32_t state; // -1: nothing raised
        const char *log;
    } rows[] = {
        {"\r\n+CPIN: READY\r\n", 0, PIN_STATE_OK, "debug: Modem `1-1.2 [2C7C:0125]` URC Event: PIN State: OK (1)\n"},
        {"\r\n+CPIN: NOT READY\r\n", 0, PIN_STATE_NOT_READY,
         "debug: Modem `1-1.2 [2C7C:0125]` URC Event: PIN State: Not ready (2)\n"},
        {"\r\n+CPIN: SIM PIN\r\n", 0, PIN_STATE_PIN,
         "debug: Modem `1-1.2 [2C7C:0125]` URC Event: PIN State: Required PIN (4)\n"},
        {"\r\n+CPIN: SOMETHING\r\n", ACT_STATUS_INVALID_URC, -1, ""},
    };
    log_level(1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.refreshed.clear();
        testing::internal::CaptureStdout();
        EXPECT_EQ(urc(urc_cpin, row.line), row.status);
        std::string out = testing::internal::GetCapturedStdout();
        // Without the "[function:line] " the log line begins with.
        EXPECT_EQ(out.empty() ? out : out.substr(out.find("] ") + 2), row.log);
        if (row.state < 0) {
            EXPECT_TRUE(mdm.events.empty());
            EXPECT_TRUE(mdm.refreshed.empty());
            continue;
        }
        ASSERT_EQ(mdm.events.size(), 1u);
        EXPECT_EQ(mdm.events[0].id, EVT_PIN_STATE);
        EXPECT_EQ(mdm.events[0].number, row.state);
        EXPECT_EQ(mdm.refreshed, std::vector<uint32_t>{ACT_GET_NET_REG_STAT_ALL});
    }
    log_level(0);
}

} // namespace
