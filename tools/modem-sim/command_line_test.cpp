#include "command_line.h"

#include <gtest/gtest.h>

namespace modem_sim
{
namespace
{

TEST(CommandLine, PrefixFoundBehindLineNoise)
{
    const struct {
        const char *line;
        size_t at;
    } rows[] = {
        {"at", 0},
        {"+++ATE0V1", 3}, // the daemon's escape and set-up, typed as one line
        {"\x1a"
         "aT",
         1},
        {"", std::string_view::npos},
        {"+++", std::string_view::npos},
        {"A", std::string_view::npos},
    };
    for (const auto &r : rows)
        EXPECT_EQ(find_at_prefix(r.line), r.at) << r.line;
}

TEST(CommandLine, SplitIntoCommands)
{
    const struct {
        const char *body;
        std::vector<std::string> cmds; // empty: refused
    } rows[] = {
        {"", {"AT"}},
        {"E0V1", {"ATE0", "ATV1"}},
        {"E", {"ATE"}},
        {"&FE0", {"AT&F", "ATE0"}},
        {"S0=0Q0", {"ATS0=0", "ATQ0"}},
        {"S3?", {"ATS3?"}},
        {"+CSQ;+CREG?", {"AT+CSQ", "AT+CREG?"}},
        {"E0;+CMEE=2", {"ATE0", "AT+CMEE=2"}},
        {"+COPS=1,0,\"a;b\";+CSQ", {"AT+COPS=1,0,\"a;b\"", "AT+CSQ"}},
        {"+CPMS?AT+CMGF?", {"AT+CPMS?AT+CMGF?"}}, // a command sent without its CR swallows the next
        {"E0D123;", {"ATE0", "ATD123;"}},
        {"+CSQ ", {"AT+CSQ"}},
        {"$QCRMCALL=1,1", {"AT$QCRMCALL=1,1"}},
        {"!", {}},
        {"E0!", {}},
        {"&1", {}},
        {"?", {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.body);
        std::vector<std::string> out;
        EXPECT_EQ(split_command_line(r.body, &out), !r.cmds.empty());
        if (!r.cmds.empty()) {
            EXPECT_EQ(out, r.cmds);
        }
    }
}

} // namespace
} // namespace modem_sim
