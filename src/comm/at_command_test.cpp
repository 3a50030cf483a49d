// What may reach the modem from a caller: one command line, or the two-part
// SMS form; never a second command, an SMS ending or an open quote.
#include "comm/at_command.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

TEST(AtCheckCommand, OneCommandLineOrTheSmsFormPassesEverythingElseIsRefused)
{
    const std::string z(1, '\x1a'), esc(1, '\x1b'), nul(1, '\0');
    struct row {
        std::string cmd;
        at_check want;
    } rows[] = {
        {"AT", at_check::ok},
        {"at+csq", at_check::ok},
        {"AT+CSQ\r", at_check::ok},
        {"AT+CSQ\n", at_check::ok},
        {"AT+CSQ\r\n", at_check::ok},
        {"AT+COPS=1,0,\"Telekom.de\"", at_check::ok},
        {"AT+CSQ;+CREG?", at_check::ok},
        {"AT+CMGS=23\r0011000B916407281553F80000AA0AE8329BFD4697D9EC37" + z, at_check::ok},
        {"AT+CMGS=\"+491701234567\"\rHello \"you\"" + z, at_check::ok},
        {"AT+CMGS=5", at_check::ok}, // the modem prompts; a time-out cancels it
        {"ATI", at_check::ok},
        {"", at_check::not_at},
        {"A", at_check::not_at},
        {"+CSQ", at_check::not_at},
        {"\rAT+CSQ", at_check::not_at},
        {"AT\rAT+CFUN=0", at_check::invalid},
        {"AT\nAT+CFUN=0", at_check::invalid},
        {"AT+CSQ\r\r", at_check::invalid},
        {"AT+CSQ\n\n", at_check::invalid},
        {"AT+CMGF=0" + z, at_check::invalid},
        {"AT" + esc, at_check::invalid},
        {"AT" + nul + "+CFUN=0", at_check::invalid},
        {"AT+COPS=1,0,\"Telekom.de", at_check::invalid},
        {"AT+CPIN=\"1234\"\"", at_check::invalid},
        {"AT+CMGS=23\r0011" + z + "\rAT+CFUN=0", at_check::invalid},
        {"AT+CMGS=23\r00\r11" + z, at_check::invalid},
        {"AT+CMGS=23\r0011", at_check::invalid},       // text never ended
        {"AT+CMGS=23\r" + z, at_check::invalid},       // nothing to send
        {"AT+CMGS=23\r00" + esc + "11" + z, at_check::invalid},
        {"AT+CMGS=\"+49\r0011" + z, at_check::invalid}, // open quote on the command line
        {"AT+CSQ\r" + std::string("0011") + z, at_check::invalid}, // only an SMS command has a text part
        {"AT" + std::string(at_command_max - 2, 'E'), at_check::ok},
        {"AT" + std::string(at_command_max - 1, 'E'), at_check::invalid},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.cmd.substr(0, 60)));
        EXPECT_EQ(at_check_command(r.cmd), r.want);
    }
}

TEST(AtCheckArg, ArgumentsCarryNoControlCharacterNoQuoteAndFitTheirField)
{
    struct row {
        std::string arg;
        size_t max;
        bool ok;
    } rows[] = {
        {"1234", 8, true},
        {"", 8, true},
        {"internet.t-mobile", 63, true},
        {"*100#", 160, true},
        {"12345678", 8, true},
        {"123456789", 8, false},
        {"1234\"", 8, false},
        {"12\r34", 8, false},
        {"12\n34", 8, false},
        {std::string("12\0", 3), 8, false},
        {"12\x1a", 8, false},
        {"12\x1b", 8, false},
        {"1234\";+CFUN=0;\"", 63, false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.arg));
        EXPECT_EQ(at_check_arg(r.arg, r.max), r.ok);
    }
}

} // namespace
