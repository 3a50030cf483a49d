#include "command_line.h"

#include <gtest/gtest.h>

namespace modem_sim
{
namespace
{

TEST(CommandLine, PrefixFoundBehindLineNoise)
{
    // "+++ATE0V1": the daemon's escape and set-up, typed as one line.
    // clang-format off
    const std::pair<std::string_view, size_t> rows[] = {
        {"at", 0},
        {"+++ATE0V1", 3},
        {"\x1a" "aT", 1},
        {"", std::string_view::npos},
        {"+++", std::string_view::npos},
        {"A", std::string_view::npos}};
    // clang-format on
    for (const auto &[line, at] : rows)
        EXPECT_EQ(find_at_prefix(line), at) << line;
}

TEST(CommandLine, SplitIntoCommands)
{
    const struct {
        const char *body;
        std::vector<std::string> cmds;
    } rows[] = {
        // clang-format off
        {"", {"AT"}},
        {"E", {"ATE"}},
        {"S3?", {"ATS3?"}},
        {"+CSQ ", {"AT+CSQ"}},
        {"E0V1", {"ATE0", "ATV1"}},
        {"&FE0", {"AT&F", "ATE0"}},
        {"S0=0Q0", {"ATS0=0", "ATQ0"}},
        {"+CSQ;+CREG?", {"AT+CSQ", "AT+CREG?"}},
        {"E0;+CMEE=2", {"ATE0", "AT+CMEE=2"}},
        {"+COPS=1,0,\"a;b\";+CSQ", {"AT+COPS=1,0,\"a;b\"", "AT+CSQ"}},
        {"+CPMS?AT+CMGF?", {"AT+CPMS?AT+CMGF?"}}, // a command sent without its CR swallows the next
        {"E0D123;", {"ATE0", "ATD123;"}},
        {"$QCRMCALL=1,1", {"AT$QCRMCALL=1,1"}},
        // clang-format on
    };
    std::vector<std::string> out;
    for (const auto &r : rows) {
        out.clear();
        EXPECT_TRUE(split_command_line(r.body, &out)) << r.body;
        EXPECT_EQ(out, r.cmds) << r.body;
    }
    for (const char *refused : {"!", "E0!", "&1", "?"})
        EXPECT_FALSE(split_command_line(refused, &out)) << refused;
}

} // namespace
} // namespace modem_sim
