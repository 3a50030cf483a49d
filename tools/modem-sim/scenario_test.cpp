#include "scenario.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace modem_sim {
namespace {

Scenario parse_ok(const std::string &text)
{
	Scenario sc;
	ParseError err;
	EXPECT_TRUE(parse_scenario(text, &sc, &err)) << "line " << err.line << ": " << err.message;
	return sc;
}

ParseError parse_bad(const std::string &text)
{
	Scenario sc;
	ParseError err;
	EXPECT_FALSE(parse_scenario(text, &sc, &err));
	return err;
}

std::string no_vars(std::string_view)
{
	return std::string();
}

// ---------------------------------------------------------------- format

TEST(ScenarioParse, ConsecutiveOnLinesShareOneRule)
{
	Scenario sc = parse_ok("on AT+GMR\n"
			       "on AT+CGMR\n"
			       "  line EC25EFAR06A06M4G\n"
			       "  ok\n"
			       "on AT+CSQ\n"
			       "  ok\n");
	ASSERT_EQ(sc.rules.size(), 2u);
	EXPECT_EQ(sc.rules[0].patterns, (std::vector<std::string>{"AT+GMR", "AT+CGMR"}));
	ASSERT_EQ(sc.rules[0].body.size(), 2u);
	EXPECT_EQ(sc.rules[0].body[0].op, Op::line);
	EXPECT_EQ(sc.rules[0].body[0].text, "EC25EFAR06A06M4G");
	EXPECT_EQ(sc.rules[0].body[1].op, Op::ok);
	EXPECT_EQ(sc.rules[1].patterns, std::vector<std::string>{"AT+CSQ"});
}

TEST(ScenarioParse, WhenConditionsAttachToTheirRule)
{
	Scenario sc = parse_ok("on AT+CPIN?\n"
			       "  when sim = absent\n"
			       "  when cfun != 0\n"
			       "  cme 10\n");
	ASSERT_EQ(sc.rules.size(), 1u);
	ASSERT_EQ(sc.rules[0].when.size(), 2u);
	EXPECT_EQ(sc.rules[0].when[0].var, "sim");
	EXPECT_EQ(sc.rules[0].when[0].cmp, Cmp::eq);
	EXPECT_EQ(sc.rules[0].when[0].value, "absent");
	EXPECT_EQ(sc.rules[0].when[1].cmp, Cmp::ne);
	EXPECT_EQ(sc.rules[0].when[1].value, "0");
	ASSERT_EQ(sc.rules[0].body.size(), 1u);
	EXPECT_EQ(sc.rules[0].body[0].op, Op::cme);
	EXPECT_EQ(sc.rules[0].body[0].num, 10);
}

TEST(ScenarioParse, StatementsCarryTheirNumbers)
{
	Scenario sc = parse_ok("latency 20ms\n"
			       "on AT+X\n"
			       "  delay 2s\n"
			       "  split 7 150\n"
			       "  add mr 1 256\n"
			       "  add n -3\n"
			       "  raw \"\\r\\n> \"\n"
			       "  prompt ok\n");
	EXPECT_EQ(sc.latency_ms, 20);
	const auto &b = sc.rules[0].body;
	ASSERT_EQ(b.size(), 6u);
	EXPECT_EQ(b[0].num, 2000);
	EXPECT_EQ(b[1].num, 7);
	EXPECT_EQ(b[1].num2, 150);
	EXPECT_EQ(b[2].text, "mr");
	EXPECT_EQ(b[2].num, 1);
	EXPECT_EQ(b[2].num2, 256);
	EXPECT_EQ(b[3].num, -3);
	EXPECT_EQ(b[4].op, Op::raw);
	EXPECT_EQ(b[4].text, "\\r\\n> "); // expanded when sent
	EXPECT_EQ(b[5].op, Op::prompt);
	EXPECT_EQ(b[5].text, "ok");
}

TEST(ScenarioParse, BlocksPeriodicAndNextUrcs)
{
	Scenario sc = parse_ok("model Test modem\n"
			       "set echo 1\n"
			       "set echo 0\n"
			       "every 30s +CREG: 1\n"
			       "next RING\n"
			       "boot\n"
			       "  delay 100\n"
			       "  urc RDY\n"
			       "unknown\n"
			       "  cme 4\n");
	EXPECT_EQ(sc.model, "Test modem");
	ASSERT_EQ(sc.initial.size(), 1u); // the later value replaces the earlier
	EXPECT_EQ(sc.initial[0].second, "0");
	ASSERT_EQ(sc.periodic.size(), 1u);
	EXPECT_EQ(sc.periodic[0].interval_ms, 30000);
	EXPECT_EQ(sc.periodic[0].text, "+CREG: 1");
	EXPECT_EQ(sc.next_urcs, std::vector<std::string>{"RING"});
	ASSERT_EQ(sc.boot_block.size(), 2u);
	EXPECT_EQ(sc.boot_block[1].text, "RDY");
	ASSERT_EQ(sc.unknown_block.size(), 1u);
	EXPECT_EQ(sc.unknown_block[0].op, Op::cme);
}

TEST(ScenarioParse, DefaultsForUnknownCommandsAndPowerDown)
{
	Scenario sc = parse_ok("# nothing but a comment\n");
	ASSERT_EQ(sc.unknown_block.size(), 1u);
	EXPECT_EQ(sc.unknown_block[0].op, Op::error);
	ASSERT_EQ(sc.powerdown_block.size(), 1u);
	EXPECT_EQ(sc.powerdown_block[0].op, Op::urc);
	EXPECT_EQ(sc.powerdown_block[0].text, "POWERED DOWN");
}

TEST(ScenarioParse, ErrorsNameTheLine)
{
	struct Case {
		const char *text;
		int line;
	} cases[] = {
		{"on AT\n  ok\nbogus\n", 3},
		{"  ok\n", 1},                                   // statement outside a rule
		{"on AT\n  ok\n  when a = b\n", 3},              // 'when' after statements
		{"on AT\n  line bad \\q escape\n", 2},
		{"on AT\n  line {unterminated\n", 2},
		{"on AT\n  raw no quotes\n", 2},
		{"on AT\n  delay soon\n", 2},
		{"on AT\n  split 0 10\n", 2},
		{"on AT\n  cme ten\n", 2},
		{"on AT\n  prompt maybe\n", 2},
		{"on AT\n  ok extra\n", 2},
		{"on\n", 1},
		{"every 0 RING\n", 1},
		{"set bad*name 1\n", 1},
		{"\n\non AT\n  frobnicate\n", 4},
		{"on AT\n  else\n    ok\n", 2},                        // 'else' without an 'if'
		{"on AT\n  if a = 1\n    ok\n  else\n    ok\n  else\n    ok\n", 6}, // two of them
		{"on AT\n  if a = 1\n  ok\n", 2},                      // 'if' without its block
		{"on AT\n  if a = 1\n", 2},                             // ... at the end of the file
		{"on AT\n  after 1s\non AT+X\n  ok\n", 2},             // ... before the next rule
		{"on AT\n  ok\n    error\n", 3},                       // deeper without an opener
		{"on AT\n    if a = 1\n      ok\n  ok\n", 4},           // back to no level above
		{"on AT\n  if a = 1\n      ok\n    ok\n", 4},           // between two levels
		{"on AT\n  if a\n    ok\n", 2},                         // no comparison
		{"on AT\n  if a ? 1\n    ok\n", 2},
		{"on AT\n  if b@d = 1\n    ok\n", 2},
		{"on AT\n  if a = {x\n    ok\n", 2},
		{"on AT\n  if a = 1\n    when b = 2\n", 3},             // 'when' only at the top
		{"on AT\n  if a = 1\n    prompt\n", 3},                 // prompt only at the top
		{"action a\n  prompt\n", 2},                             // ... of a rule or block
		{"on AT\n  after 0 x\n    ok\n", 2},
		{"on AT\n  after soon\n    ok\n", 2},
		{"on AT\n  after 1s bad*name\n    ok\n", 2},
		{"on AT\n  cancel\n", 2},
		{"on AT\n  do\n", 2},
		{"on AT\n  ok\n\non AT+X\n  do nothing_here\n", 5}, // unknown action
		{"action\n", 1},
		{"keep\n", 1},
		{"keep ok bad*name\n", 1},
		{"include other.scn\n", 1}, // plain text has no directory to include from
		{"on AT\n  sms later\n", 2},
		{"message XX 1 00040000\n", 1},  // no such storage
		{"message ME 4 00040000\n", 1},  // no such status
		{"message ME 1 0004000\n", 1},   // odd hex
		{"message ME 1 07040000\n", 1},  // shorter than its SMSC field
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.text);
		ParseError err = parse_bad(c.text);
		EXPECT_EQ(err.line, c.line);
		EXPECT_FALSE(err.message.empty());
	}
}

TEST(ScenarioParse, BlocksNestByIndentation)
{
	Scenario sc = parse_ok("on AT+X=[1-3]\n"
			       "  if pdp$1_type != \n"
			       "    if n >= 2\n"
			       "      line deep\n"
			       "    line inner\n"
			       "  else\n"
			       "    stop\n"
			       "  after 3s ring\n"
			       "    do ring +4917\n"
			       "  cancel ring\n"
			       "  ok\n"
			       "action ring\n"
			       "  urc RING\n");
	ASSERT_EQ(sc.rules.size(), 1u);
	const auto &b = sc.rules[0].body;
	ASSERT_EQ(b.size(), 4u);
	EXPECT_EQ(b[0].op, Op::if_);
	EXPECT_EQ(b[0].cond.var, "pdp$1_type");
	EXPECT_EQ(b[0].cond.cmp, Cmp::ne);
	EXPECT_EQ(b[0].cond.value, "");
	ASSERT_EQ(b[0].block.size(), 2u);
	EXPECT_EQ(b[0].block[0].op, Op::if_);
	EXPECT_EQ(b[0].block[0].cond.cmp, Cmp::ge);
	ASSERT_EQ(b[0].block[0].block.size(), 1u);
	EXPECT_EQ(b[0].block[0].block[0].text, "deep");
	EXPECT_EQ(b[0].block[1].text, "inner");
	EXPECT_TRUE(b[0].has_else);
	ASSERT_EQ(b[0].otherwise.size(), 1u);
	EXPECT_EQ(b[0].otherwise[0].op, Op::stop);
	EXPECT_EQ(b[1].op, Op::after);
	EXPECT_EQ(b[1].num, 3000);
	EXPECT_EQ(b[1].text, "ring");
	ASSERT_EQ(b[1].block.size(), 1u);
	EXPECT_EQ(b[1].block[0].op, Op::do_);
	EXPECT_EQ(b[1].block[0].text, "ring");
	EXPECT_EQ(b[1].block[0].value, "+4917");
	EXPECT_EQ(b[2].op, Op::cancel);
	EXPECT_EQ(b[3].op, Op::ok);
}

TEST(ScenarioParse, ConditionOperators)
{
	struct Case {
		const char *text;
		const char *var;
		Cmp cmp;
		const char *value;
	} cases[] = {
		{"cpin = SIM PIN", "cpin", Cmp::eq, "SIM PIN"},
		{"reg!={was}", "reg", Cmp::ne, "{was}"},
		{"pin_left < 1", "pin_left", Cmp::lt, "1"},
		{"pin_left <= 1", "pin_left", Cmp::le, "1"},
		{"n > -2", "n", Cmp::gt, "-2"},
		{"n >= 10", "n", Cmp::ge, "10"},
		{"number ~ +*", "number", Cmp::match, "+*"},
		{"apn$2 =", "apn$2", Cmp::eq, ""},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.text);
		Scenario sc = parse_ok(std::string("on AT\n  when ") + c.text + "\n  ok\n");
		ASSERT_EQ(sc.rules.size(), 1u);
		ASSERT_EQ(sc.rules[0].when.size(), 1u);
		EXPECT_EQ(sc.rules[0].when[0].var, c.var);
		EXPECT_EQ(sc.rules[0].when[0].cmp, c.cmp);
		EXPECT_EQ(sc.rules[0].when[0].value, c.value);
	}
}

TEST(ScenarioParse, ActionsKeepAndLaterDefinitionsReplace)
{
	Scenario sc = parse_ok("keep sim pin_left\n"
			       "keep puk_left\n"
			       "action sim_out\n"
			       "  urc +CPIN: NOT READY\n"
			       "  urc extra\n"
			       "on AT\n"
			       "  do sim_out\n"
			       "action sim_out\n"
			       "  urc +CPIN: NOT READY\n");
	EXPECT_EQ(sc.keep, (std::vector<std::string>{"sim", "pin_left", "puk_left"}));
	ASSERT_EQ(sc.actions.size(), 1u);
	EXPECT_EQ(sc.actions.at("sim_out").size(), 1u);
}

// A directory of scenario files, removed at the end.
class ScenarioFiles : public ::testing::Test {
protected:
	void SetUp() override
	{
		char tmpl[] = "/tmp/scn-test-XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		dir_ = tmpl;
	}
	void TearDown() override { std::filesystem::remove_all(dir_); }
	std::string write(const std::string &name, const std::string &text)
	{
		std::string path = dir_ + "/" + name;
		std::filesystem::create_directories(std::filesystem::path(path).parent_path());
		std::ofstream(path) << text;
		return path;
	}
	std::string dir_;
};

TEST_F(ScenarioFiles, IncludeReadsRelativeToTheIncludingFile)
{
	write("common/base.scn", "set model_name EC25\nset csq 22\non AT+CSQ\n  line +CSQ: {csq},99\n  ok\n"
				 "action report\n  urc base\n");
	std::string main = write("main.scn", "on AT+GMM\n  line first\n  ok\n"
					     "include common/base.scn\n"
					     "set model_name RM520N-GL\n"
					     "action report\n  urc main\n");
	Scenario sc;
	std::string err;
	ASSERT_TRUE(load_scenario(main, &sc, &err)) << err;
	ASSERT_EQ(sc.rules.size(), 2u);
	EXPECT_EQ(sc.rules[0].patterns[0], "AT+GMM"); // rules before the include are tried first
	EXPECT_EQ(sc.rules[1].patterns[0], "AT+CSQ");
	ASSERT_EQ(sc.initial.size(), 2u);
	EXPECT_EQ(sc.initial[0].second, "RM520N-GL"); // settings after it replace the included ones
	EXPECT_EQ(sc.actions.at("report").at(0).text, "main");
}

TEST_F(ScenarioFiles, ErrorsInIncludedFilesNameThatFile)
{
	std::string inner = write("inner.scn", "on AT\n  ok\n  bogus\n");
	std::string main = write("main.scn", "\ninclude inner.scn\n");
	Scenario sc;
	std::string err;
	EXPECT_FALSE(load_scenario(main, &sc, &err));
	EXPECT_EQ(err, inner + ":3: unknown statement 'bogus'");
	write("loop.scn", "include loop.scn\n");
	EXPECT_FALSE(load_scenario(dir_ + "/loop.scn", &sc, &err));
	EXPECT_NE(err.find("nested too deeply"), std::string::npos) << err;
	write("missing.scn", "include nowhere.scn\n");
	EXPECT_FALSE(load_scenario(dir_ + "/missing.scn", &sc, &err));
	EXPECT_EQ(err, dir_ + "/missing.scn:1: cannot open '" + dir_ + "/nowhere.scn'");
}

TEST(ScenarioParse, ShippedEc25ScenarioLoads)
{
	Scenario sc;
	std::string err;
	ASSERT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/ec25.scn", &sc, &err))
		<< err;
	EXPECT_EQ(sc.model, "Quectel EC25-E");
	EXPECT_GT(sc.rules.size(), 50u);
	EXPECT_FALSE(sc.boot_block.empty());
	EXPECT_FALSE(sc.fota_block.empty());
}

TEST(ScenarioParse, ShippedRm520nScenarioLoadsOnTopOfTheEc25)
{
	Scenario sc;
	std::string err;
	ASSERT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/rm520n.scn", &sc, &err))
		<< err;
	EXPECT_EQ(sc.model, "Quectel RM520N-GL");
	EXPECT_EQ(sc.rules.front().patterns.front(), "AT+C5GREG?");
	EXPECT_FALSE(sc.boot_block.empty());
}

TEST(ScenarioParse, MissingFileIsReported)
{
	Scenario sc;
	std::string err;
	EXPECT_FALSE(load_scenario("/nonexistent/x.scn", &sc, &err));
	EXPECT_NE(err.find("/nonexistent/x.scn"), std::string::npos);
}

// --------------------------------------------------------------- patterns

TEST(PatternMatch, Table)
{
	struct Case {
		const char *pattern;
		const char *text;
		bool match;
		std::vector<std::string> caps;
	} cases[] = {
		{"AT+CSQ", "AT+CSQ", true, {}},
		{"AT+CSQ", "at+csq", true, {}},          // modems ignore case
		{"AT+CSQ", "AT+CSQ=?", false, {}},       // exact means exact
		{"AT+CSQ", "AT+CS", false, {}},
		{"AT+CMGS=*", "AT+CMGS=23", true, {"23"}},
		{"AT+CMGS=*", "AT+CMGS=", true, {""}},
		{"AT+CMGL*", "AT+CMGL=\"ALL\"", true, {"=\"ALL\""}},
		{"AT+COPS=*,*", "AT+COPS=1,2,\"26201\"", true, {"1", "2,\"26201\""}}, // shortest first
		{"AT+CMEE=[012]", "AT+CMEE=2", true, {"2"}},
		{"AT+CMEE=[012]", "AT+CMEE=3", false, {}},
		{"AT+CMEE=[012]", "AT+CMEE=12", false, {}},
		{"AT+QCFG=\"nwscanmode\",[0-8]", "at+qcfg=\"NWSCANMODE\",3", true, {"3"}},
		{"AT+QCFG=\"nwscanmode\",[0-8]", "AT+QCFG=\"nwscanmode\",9", false, {}},
		{"ATX[0-4]", "ATX4", true, {"4"}},
		{"AT+CPIN=\"*\"", "AT+CPIN=\"1234\"", true, {"1234"}},
		{"AT+CPIN=\"*\"", "AT+CPIN=1234", false, {}},
		{"*", "", true, {""}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(std::string(c.pattern) + " vs " + c.text);
		std::vector<std::string> caps{"stale"};
		bool m = match_pattern(c.pattern, c.text, &caps);
		EXPECT_EQ(m, c.match);
		if (c.match) {
			EXPECT_EQ(caps, c.caps);
		}
	}
}

// -------------------------------------------------------------- expansion

TEST(ExpandText, EscapesVariablesAndCaptures)
{
	auto lookup = [](std::string_view n) { return n == "mr" ? std::string("41") : std::string(); };
	std::string out, bad;
	ASSERT_TRUE(expand_text("+CMGS: {mr}\\r\\n$1/$2/$3 \\{x\\} \\x41\\z\\e \\$1 cost $", {"a", "b"}, lookup, &out,
				&bad))
		<< bad;
	EXPECT_EQ(out, "+CMGS: 41\r\na/b/ {x} A\x1a\x1b $1 cost $");
}

TEST(ExpandText, CapturesInsideAVariableName)
{
	auto lookup = [](std::string_view n) { return n == "apn2" ? std::string("ims") : std::string("?"); };
	std::string out, bad;
	ASSERT_TRUE(expand_text("{apn$1}/{apn$2}", {"2"}, lookup, &out, &bad)) << bad;
	EXPECT_EQ(out, "ims/?"); // a missing capture leaves "apn"
	EXPECT_EQ(resolve_name("pdp$1_$2", {"3", "act"}), "pdp3_act");
	EXPECT_EQ(resolve_name("plain", {"3"}), "plain");
}

TEST(ExpandText, UnknownVariableIsEmpty)
{
	std::string out, bad;
	ASSERT_TRUE(expand_text("[{nothing}]", {}, no_vars, &out, &bad));
	EXPECT_EQ(out, "[]");
}

TEST(ExpandText, RejectsBrokenEscapes)
{
	for (const char *t : {"\\", "\\q", "\\x4", "\\xZZ", "{", "{bad name}", "{a$}", "{$0}"}) {
		SCOPED_TRACE(t);
		std::string out, bad;
		EXPECT_FALSE(expand_text(t, {}, no_vars, &out, &bad));
		EXPECT_FALSE(bad.empty());
	}
}

} // namespace
} // namespace modem_sim
