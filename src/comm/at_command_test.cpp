// What may reach the modem from a caller: one command line, or the two-part
// SMS form; never a second command, an SMS ending or an open quote.
#include "comm/at_command.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

namespace
{

TEST(AtCheck, OneCommandLineOrTheSmsFormPassesEverythingElseIsRefused)
{
    const std::string z(1, '\x1a'), esc(1, '\x1b'), nul(1, '\0');
    const at_check ok = at_check::ok, not_at = at_check::not_at, invalid = at_check::invalid;
    const std::pair<std::string, at_check> rows[] = {
        {"at+csq", ok},
        {"AT+CSQ\r\n", ok},
        {"AT+COPS=1,0,\"Telekom.de\"", ok},
        {"AT+CSQ;+CREG?", ok},
        {"AT+CMGS=23\r0011000B916407281553F80000AA0AE8329BFD4697D9EC37" + z, ok},
        {"AT+CMGS=\"+491701234567\"\rHello \"you\"" + z, ok},
        {"AT+CMGS=5", ok}, // the modem prompts; a time-out cancels it
        {"", not_at},
        {"+CSQ", not_at},
        {"\rAT+CSQ", not_at},
        {"AT\rAT+CFUN=0", invalid},
        {"AT+CSQ\r\r", invalid},
        {"AT+CSQ\n\n", invalid},
        {"AT+CMGF=0" + z, invalid},
        {"AT" + esc, invalid},
        {"AT" + nul + "+CFUN=0", invalid},
        {"AT+COPS=1,0,\"Telekom.de", invalid},
        {"AT+CPIN=\"1234\"\"", invalid},
        {"AT+CMGS=23\r0011" + z + "\rAT+CFUN=0", invalid},
        {"AT+CMGS=23\r00\r11" + z, invalid},
        {"AT+CMGS=23\r0011", invalid}, // text never ended
        {"AT+CMGS=23\r" + z, invalid}, // nothing to send
        {"AT+CMGS=23\r00" + esc + "11" + z, invalid},
        {"AT+CMGS=\"+49\r0011" + z, invalid}, // open quote on the command line
        {"AT+CSQ\r0011" + z, invalid},        // only an SMS command has a text part
        {"AT" + std::string(at_command_max - 2, 'E'), ok},
        {"AT" + std::string(at_command_max - 1, 'E'), invalid},
    };
    for (const auto &[cmd, want] : rows) {
        SCOPED_TRACE(::testing::PrintToString(cmd.substr(0, 60)));
        EXPECT_EQ(at_check_command(cmd), want);
    }
}

TEST(AtCheck, ArgumentsCarryNoControlCharacterNoQuoteAndFitTheirField)
{
    const std::tuple<std::string, size_t, bool> rows[] = {
        {"", 8, true},           {"internet.t-mobile", 63, true},    {"12345678", 8, true},
        {"123456789", 8, false}, {"1234\";+CFUN=0;\"", 63, false},   {"12\r34", 8, false},
        {"12\n34", 8, false},    {std::string("12\0", 3), 8, false}, {"12\x1a", 8, false},
        {"12\x1b", 8, false},
    };
    for (const auto &[arg, max, ok] : rows) {
        SCOPED_TRACE(::testing::PrintToString(arg));
        EXPECT_EQ(at_check_arg(arg, max), ok);
    }
}

} // namespace
