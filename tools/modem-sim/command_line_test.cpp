#include "command_line.h"

#include <gtest/gtest.h>

namespace modem_sim {
namespace {

TEST(FindAtPrefix, SkipsLineNoise)
{
	EXPECT_EQ(find_at_prefix("AT+CSQ"), 0u);
	EXPECT_EQ(find_at_prefix("at"), 0u);
	EXPECT_EQ(find_at_prefix("+++ATE0V1"), 3u); // the daemon's escape and set-up, typed as one line
	EXPECT_EQ(find_at_prefix("\x1a" "aT"), 1u);
	EXPECT_EQ(find_at_prefix(""), std::string_view::npos);
	EXPECT_EQ(find_at_prefix("+++"), std::string_view::npos);
	EXPECT_EQ(find_at_prefix("A"), std::string_view::npos);
}

TEST(SplitCommandLine, Table)
{
	struct Case {
		const char *body;
		std::vector<std::string> cmds;
	} cases[] = {
		{"", {"AT"}},
		{"E0V1", {"ATE0", "ATV1"}},
		{"E", {"ATE"}},
		{"I", {"ATI"}},
		{"&FE0", {"AT&F", "ATE0"}},
		{"S0=0Q0", {"ATS0=0", "ATQ0"}},
		{"S3?", {"ATS3?"}},
		{"+CSQ", {"AT+CSQ"}},
		{"+CSQ;+CREG?", {"AT+CSQ", "AT+CREG?"}},
		{"E0;+CMEE=2", {"ATE0", "AT+CMEE=2"}},
		{"+COPS=1,0,\"a;b\";+CSQ", {"AT+COPS=1,0,\"a;b\"", "AT+CSQ"}},
		{"+CPMS?AT+CMGF?", {"AT+CPMS?AT+CMGF?"}}, // a command sent without its CR swallows the next
		{"D+4917012345;", {"ATD+4917012345;"}},
		{"E0D123;", {"ATE0", "ATD123;"}},
		{"+CSQ ", {"AT+CSQ"}},
		{"$QCRMCALL=1,1", {"AT$QCRMCALL=1,1"}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.body);
		std::vector<std::string> out;
		ASSERT_TRUE(split_command_line(c.body, &out));
		EXPECT_EQ(out, c.cmds);
	}
}

TEST(SplitCommandLine, RejectsBytesThatStartNoCommand)
{
	for (const char *body : {"!", "E0!", "&", "&1", "?"}) {
		SCOPED_TRACE(body);
		std::vector<std::string> out;
		EXPECT_FALSE(split_command_line(body, &out));
	}
}

} // namespace
} // namespace modem_sim
