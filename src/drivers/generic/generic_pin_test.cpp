#include "drivers/generic/generic_pin.h"

#include <string>

#include <gtest/gtest.h>

#include "drivers/generic/driver_test_support.h"
#include "ubus/vocab.h"

namespace
{

using GenericPinTest = driver_test;

// Codes reach the modem only as digits (refusals: the family's table).
TEST_F(GenericPinTest, Commands)
{
    EXPECT_EQ(built(set_pin_code, R"({"code":"12345678"})"), "0 AT+CPIN=\"12345678\"\r");
    EXPECT_EQ(built(set_puk_code, R"({"puk":"12345678","pin":"0000"})"), "0 AT+CPIN=\"12345678\",\"0000\"\r");
    EXPECT_EQ(built(get_pin_state, "{}"), "0 AT+CFUN?\rAT+CPIN?\r");
    EXPECT_EQ(built(get_imsi, "{}"), "0 AT+CIMI\r");
}

// Answers of an EC25 unless the row says otherwise.
TEST_F(GenericPinTest, PinStateFromFunctionalityAndCpin)
{
    const std::string on = "\r\n+CFUN: 1\r\n\r\nOK\r\n", off = "\r\n+CFUN: 0\r\n\r\nOK\r\n";
    // state: 0: invalid response, nothing raised
    // clang-format off
    const struct { std::string answer; uint32_t state; } rows[] = {
        {on + "\r\n+CPIN: PH-NETSUB PUK\r\n\r\nOK\r\n", PIN_STATE_PH_NETSUB_PUK}, // 3GPP TS 27.007
        {on + "\r\n+CPIN: SIM BUSY\r\n\r\nOK\r\n", PIN_STATE_BUSY},               // RM520N after boot
        {on + "\r\n+CME ERROR: 10\r\n", PIN_STATE_NOT_INSERTED},
        {on + "\r\n+CME ERROR: SIM not inserted\r\n", PIN_STATE_NOT_INSERTED},
        {on + "\r\n+CME ERROR: 13\r\n", PIN_STATE_FAILURE},
        {off + "\r\n+CME ERROR: 13\r\n", PIN_STATE_NOT_READY},
        {"\r\n+CFUN: 7\r\n\r\nOK\r\n\r\n+CME ERROR: SIM failure\r\n", PIN_STATE_NOT_READY}, // RM520N SIM off
        {off + "\r\n+CPIN: READY\r\n\r\nOK\r\n", PIN_STATE_OK},
        {"+CFUN: 1\r\n0\r+CPIN: READY\r\n0\r", PIN_STATE_OK}, // ATV0
        {"\r\n+CPIN: NOT READY\r\n\r\nOK\r\n", PIN_STATE_NOT_READY},
        {on + "\r\nERROR\r\n", 0},
        {on + "\r\n+CPIN: PH-SIM PIN\r\n\r\nOK\r\n", 0},
        {on, 0},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        mdm.events.clear();
        EXPECT_EQ(parse(get_pin_state, row.answer), row.state ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE);
        EXPECT_EQ(number("pin_state_id"), row.state ? static_cast<int32_t>(row.state) : -999);
        EXPECT_EQ(field("pin_state"), row.state ? pin_state_str(row.state) : "<none>");
        ASSERT_EQ(mdm.events.size(), row.state ? 1u : 0u);
        if (row.state) {
            EXPECT_EQ(mdm.events[0].id, EVT_PIN_STATE);
            EXPECT_EQ(mdm.events[0].number, static_cast<int32_t>(row.state));
        }
    }
}

TEST_F(GenericPinTest, ImsiIsCachedAndDroppedWithAFailedAnswer)
{
    EXPECT_EQ(parse(get_imsi, "310260000000001\r\n0\r"), ACT_STATUS_OK); // ATV0
    EXPECT_EQ(field("imsi"), "310260000000001");
    EXPECT_EQ(cached("imsi"), "310260000000001");
    EXPECT_EQ(parse(get_imsi, "\r\n+CME ERROR: 10\r\n"), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(field("imsi"), "<none>");
    EXPECT_EQ(cached("imsi"), "<none>");
}

TEST_F(GenericPinTest, CpinUrcRaisesTheStateAndRereadsRegistration)
{
    // clang-format off
    const struct { const char *line; int status; const char *raised; } rows[] = {
        {"\r\n+CPIN: READY\r\n", 0, "1=1"},
        {"\r\n+CPIN: SIM PIN\r\n", 0, "1=4"},
        {"\r\n+CPIN: SOMETHING\r\n", ACT_STATUS_INVALID_URC, ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.refreshed.clear();
        EXPECT_EQ(urc(urc_cpin, row.line), row.status);
        EXPECT_EQ(raised(), row.raised);
        EXPECT_EQ(mdm.refreshed, std::vector<uint32_t>(*row.raised ? 1 : 0, ACT_GET_NET_REG_STAT_ALL));
    }
}

} // namespace
