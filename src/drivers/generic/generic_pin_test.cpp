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
    // imsi: reply and cache afterwards; "<none>": status 5
    // clang-format off
    const struct { const char *answer; const char *imsi; } rows[] = {
        {"310260000000001\r\n0\r", "310260000000001"}, // ATV0
        {"\r\n+CME ERROR: 10\r\n", "<none>"},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        bool valid = std::string(row.imsi) != "<none>";
        EXPECT_EQ(parse(get_imsi, row.answer), valid ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE);
        EXPECT_EQ(field("imsi"), row.imsi);
        EXPECT_EQ(cached("imsi"), row.imsi);
    }
}

TEST_F(GenericPinTest, CpinUrcRaisesTheStateAndRereadsRegistration)
{
    // state: 0: refused, nothing raised
    // clang-format off
    const struct { const char *line; int32_t state; } rows[] = {
        {"\r\n+CPIN: READY\r\n", PIN_STATE_OK},
        {"\r\n+CPIN: SIM PIN\r\n", PIN_STATE_PIN},
        {"\r\n+CPIN: SOMETHING\r\n", 0},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        mdm.events.clear();
        mdm.refreshed.clear();
        EXPECT_EQ(urc(urc_cpin, row.line), row.state ? ACT_STATUS_OK : ACT_STATUS_INVALID_URC);
        ASSERT_EQ(mdm.events.size(), row.state ? 1u : 0u);
        EXPECT_EQ(mdm.refreshed, row.state ? std::vector<uint32_t>{ACT_GET_NET_REG_STAT_ALL} : std::vector<uint32_t>{});
        if (row.state) {
            EXPECT_EQ(mdm.events[0].number, row.state);
        }
    }
}

} // namespace
