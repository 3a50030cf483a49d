#include "scenario.h"

#include "control.h"
#include "modem.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
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
		{"$2 in {band$1_all}", "$2", Cmp::within, "{band$1_all}"},
		{"mode in 1:3:255", "mode", Cmp::within, "1:3:255"},
		{"index = in", "index", Cmp::eq, "in"}, // a word after "=" is a value
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

TEST(ScenarioParse, ShippedBg96ScenarioLoadsOnTopOfTheEc25)
{
	Scenario sc;
	std::string err;
	ASSERT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/bg96.scn", &sc, &err))
		<< err;
	EXPECT_EQ(sc.model, "Quectel BG96");
	EXPECT_EQ(sc.rules.front().patterns.front(), "AT+QNWINFO");
	EXPECT_FALSE(sc.boot_block.empty());
	EXPECT_EQ(sc.actions.count("apply_pending"), 1u);
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

// ------------------------------------------------------ subset condition

TEST(ContainedIn, MasksAndLists)
{
	struct Case {
		const char *part;
		const char *whole;
		bool in;
	} cases[] = {
		// Hex masks, bit by bit, either side of any length and case.
		{"0x80000", "0x1a0000800d5", true},
		{"80000", "0x1a0000800d5", true},
		{"0X1A0000800D5", "0x1a0000800d5", true},
		{"0x0", "0x0", true},
		{"0x00000000000000000000001", "0x1", true}, // leading zeros count for nothing
		{"0x2", "0x1a0000800d5", false},             // one bit the whole lacks
		{"0x100000000000", "0x1a0000800d5", false},  // beyond the whole's digits
		{"0x1", "0x0", false},
		{"0x", "0xff", false}, // no digits
		{"0xg1", "0xff", false},
		{"", "0xff", false},
		{"0x20000000000000000", "0x3ffffffffffffffff", true}, // above 64 bits
		// Lists separated by ':', item by item, ignoring case.
		{"1:3:7:20", "1:2:3:4:5:7:8:20:28", true},
		{"20", "1:2:3:4:5:7:8:20:28", true},
		{"2", "1:20", false}, // items, not substrings
		{"1:3:99", "1:3:7", false},
		{"lte:NR5G", "WCDMA:LTE:NR5G", true},
		{"GSM", "WCDMA:LTE:NR5G", false},
		{"1::3", "1:3", false}, // an empty item
		{"1:", "1:3", false},
		{"", "1:3", true}, // the empty list
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(std::string(c.part) + " in " + c.whole);
		EXPECT_EQ(contained_in(c.part, c.whole), c.in);
	}
}

// ------------------------------------------- the shipped Quectel families

// One shipped scenario, started ready (as with -n), echo off; each step sends
// a command line (or an operator command after "ctl "), lets the clock run
// and expects exactly what came meanwhile.
class Family {
public:
	explicit Family(const std::string &name)
	{
		Scenario sc;
		std::string err;
		EXPECT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/" + name + ".scn",
					  &sc, &err))
			<< err;
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(now_, false);
		ask("ATE0", 100);
	}

	std::string ask(const std::string &input, Ms wait)
	{
		std::string out;
		if (input.rfind("ctl ", 0) == 0) {
			std::string reply = run_control(*modem_, input.substr(4), now_).text;
			EXPECT_EQ(reply.substr(reply.size() - 3), "OK\n") << reply;
			out = modem_->take_output();
		} else {
			modem_->receive(input + "\r", now_);
			out = modem_->take_output();
		}
		Ms until = now_ + wait;
		for (;;) {
			Ms due = modem_->next_deadline();
			if (due < 0 || due > until)
				break;
			now_ = std::max(now_, due);
			modem_->advance(now_);
			out += modem_->take_output();
		}
		now_ = until;
		modem_->advance(now_);
		return out + modem_->take_output();
	}

private:
	std::unique_ptr<Modem> modem_;
	Ms now_ = 1000;
};

struct Exchange {
	const char *input;
	std::string answer;
	Ms wait = 100;
};

void play(const char *family, const std::vector<Exchange> &steps)
{
	Family m(family);
	for (const Exchange &st : steps) {
		SCOPED_TRACE(std::string(family) + ": " + st.input);
		EXPECT_EQ(m.ask(st.input, st.wait), st.answer);
	}
}

std::string info(std::initializer_list<const char *> lines)
{
	std::string s = "\r\n";
	for (const char *l : lines)
		s += std::string(l) + "\r\n";
	return s + "\r\nOK\r\n";
}

const char ok[] = "\r\nOK\r\n";
const char error[] = "\r\nERROR\r\n";

// The same commands on each family: the answer forms that tell the families
// apart, each as the module prints it.
TEST(QuectelFamilies, AnswerFormsPerFamily)
{
	struct Row {
		const char *cmd;
		std::string ec25, rm520n, bg96;
	} rows[] = {
		// Identity (EG25-G and RM520N-GL captures; BG96 as its ATI reads).
		{"ATI", info({"Quectel", "EC25", "Revision: EC25EFAR06A06M4G"}),
		 info({"Quectel", "RM520N-GL", "Revision: RM520NGLAAR01A07M4G"}),
		 info({"Quectel", "BG96", "Revision: BG96MAR02A07M1G"})},
		// Bands: three hex fields (EG25-G capture; BG96 gsm/catm1/catnb1 per
		// the peer drivers), none on the 5G module.
		{"AT+QCFG=\"band\"", info({"+QCFG: \"band\",0xd3,0x1a0000800d5,0x0"}), error,
		 info({"+QCFG: \"band\",0xf,0x400b0e189f,0xa0e189f"})},
		{"AT+QCFG=\"nwscanseq\"", info({"+QCFG: \"nwscanseq\",04030201"}), info({"+QCFG: \"nwscanseq\",04030201"}),
		 info({"+QCFG: \"nwscanseq\",020301"})},
		{"AT+QCFG=\"nwscanmode\"", info({"+QCFG: \"nwscanmode\",0"}), error, info({"+QCFG: \"nwscanmode\",0"})},
		// 5G network preferences only on the RM520N (RM520N-GL capture).
		{"AT+QNWPREFCFG=\"mode_pref\"", error, info({"+QNWPREFCFG: \"mode_pref\",AUTO"}), error},
		// Radio (EC25 manual form; RM520N capture form; BG96 peer notes).
		{"AT+QNWINFO", info({"+QNWINFO: \"FDD LTE\",\"26201\",\"LTE BAND 3\",1300"}),
		 info({"+QNWINFO: \"TDD NR5G\",\"26201\",\"NR5G BAND 78\",636576"}),
		 info({"+QNWINFO: \"CAT-M1\",\"26201\",\"LTE BAND 8\",3749"})},
		// EC2x manual layout (15 values, SINR dB); RM520N SA capture form with
		// its stray blank; BG96 eMTC.
		{"AT+QENG=\"servingcell\"",
		 info({"+QENG: \"servingcell\",\"NOCONN\",\"LTE\",\"FDD\",262,01,1A2B3C4,123,1300,3,5,5,1A2B,-95,-10,-65,12,40"}),
		 info({"+QENG: \"servingcell\",\"NOCONN\",\"NR5G-SA\",\"TDD\", "
		       "262,01,12345C7,505,A1B2,636576,78,12,-85,-11,18,1,-"}),
		 info({"+QENG: \"servingcell\",\"NOCONN\",\"eMTC\",\"FDD\",262,01,1A2B3C4,123,3749,8,3,3,1A2B,-81,-10,-52,19,40"})},
		// QCSQ: LTE, NR5G-SA and CAT-M1 (peer drivers), SINR in 1/5 dB.
		{"AT+QCSQ", info({"+QCSQ: \"LTE\",-65,-95,160,-10"}), info({"+QCSQ: \"NR5G-SA\",-85,190,-11"}),
		 info({"+QCSQ: \"CAT-M1\",-52,-81,195,-10"})},
		// QTEMP: three numbers (peer notes) / per sensor, no blank (RM520N README).
		{"AT+QTEMP", info({"+QTEMP: 36,35,37"}),
		 info({"+QTEMP:\"modem-lte-sub6-pa1\",\"43\"", "+QTEMP:\"modem-sdr0-pa0\",\"0\"",
		       "+QTEMP:\"modem-mmw0\",\"-273\"", "+QTEMP:\"cpuss-0-usr\",\"45\"",
		       "+QTEMP:\"modem-ambient-usr\",\"41\""}),
		 info({"+QTEMP: 36,35,37"})},
		// QLTS: dst inside the quotes (EC2x manual example), after them (5G manual).
		{"AT+QLTS=2", info({"+QLTS: \"2024/05/17,14:23:05+08,0\""}), info({"+QLTS: \"2024/05/17,14:23:05+08\",0"}),
		 info({"+QLTS: \"2024/05/17,14:23:05+08,0\""})},
		// Registration AcT: LTE 7, NR to 5GCN 11, Cat-M1 8 as the LPWA modules number it.
		{"AT+COPS?", info({"+COPS: 0,0,\"Telekom.de\",7"}), info({"+COPS: 0,0,\"Telekom.de\",11"}),
		 info({"+COPS: 0,0,\"Telekom.de\",8"})},
		// MBN verbs: "List" (EG25-G capture), lower case (BG95 capture).
		{"AT+QMBNCFG=\"AutoSel\"", info({"+QMBNCFG: \"AutoSel\",1"}), info({"+QMBNCFG: \"AutoSel\",1"}),
		 info({"+QMBNCFG: \"autosel\",1"})},
		// Reject causes and per-antenna signal are 5G-manual commands.
		{"AT+QNETRC?", error,
		 info({"+QNETRC: \"emm_cause\",0", "+QNETRC: \"esm_cause\",0", "+QNETRC: \"5gmm_cause\",0"}), error},
		{"AT+QRSRP", error, info({"+QRSRP: -85,-87,-90,-92,NR5G"}), error},
		{"AT+QUIMSLOT?", error, info({"+QUIMSLOT: 1"}), error},
		{"AT+C5GREG?", error, info({"+C5GREG: 0,1"}), error},
	};
	Family ec25("ec25"), rm520n("rm520n"), bg96("bg96");
	for (const Row &r : rows) {
		SCOPED_TRACE(r.cmd);
		EXPECT_EQ(ec25.ask(r.cmd, 100), r.ec25) << "ec25";
		EXPECT_EQ(rm520n.ask(r.cmd, 100), r.rm520n) << "rm520n";
		EXPECT_EQ(bg96.ask(r.cmd, 100), r.bg96) << "bg96";
	}
}

TEST(QuectelFamilies, Ec25BandsScanAndSettingsReadBack)
{
	play("ec25", {
		// Only LTE B20; 0 leaves GSM/WCDMA and TD-SCDMA as they are.
		{"AT+QCFG=\"band\",0,0x80000,0", ok},
		{"AT+QCFG=\"band\"", info({"+QCFG: \"band\",0xd3,0x80000,0x0"})},
		// LTE B2 is not on an EC25-E: refused, nothing changes.
		{"AT+QCFG=\"band\",0,0x82,0", error},
		{"AT+QCFG=\"band\",0x200,0,0", error},
		{"AT+QCFG=\"band\",0,0x80000,0x1", error},
		// "Every band" and the LTE "no change" value.
		{"AT+QCFG=\"band\",0xFFFF,0x40000000,0", ok},
		{"AT+QCFG=\"band\",0x1,0x7fffffffffffffff,0,1;+QCFG=\"band\"",
		 info({"+QCFG: \"band\",0x1,0x1a0000800d5,0x0"})},
		// Without 0x the module still prints hex with it.
		{"AT+QCFG=\"band\",d3,4,0;+QCFG=\"band\"", info({"+QCFG: \"band\",0xd3,0x4,0x0"})},
		// <effect> 0: after the next boot.
		{"AT+QCFG=\"band\",0,0x1,0,0;+QCFG=\"band\"", info({"+QCFG: \"band\",0xd3,0x4,0x0"})},
		{"AT+QCFG=\"nwscanmode\",3,0;+QCFG=\"nwscanmode\"", info({"+QCFG: \"nwscanmode\",0"})},
		{"AT+QCFG=\"nwscanseq\",0403;+QCFG=\"nwscanseq\"", info({"+QCFG: \"nwscanseq\",0403"})},
		{"AT+QCFG=\"nwscanseq\",0406", error},
		{"AT+QCFG=\"nwscanseq\",043", error},
		{"AT+QCFG=\"roamservice\",2;+QCFG=\"roamservice\"", info({"+QCFG: \"roamservice\",2"})},
		{"AT+QCFG=\"roamservice\",3", error},
		{"AT+QCFG=\"usbnet\",1;+QCFG=\"usbnet\"", info({"+QCFG: \"usbnet\",1"})},
		{"AT+QCFG=\"usbnet\",4", error},
		{"AT+QCFG=\"gprsattach\",0", ok},
		{"AT+QCFG=\"sim/recovery\",2,0,0", error},
		{"AT+QCFG=\"sim/recovery\",30,4,0", error},
		{"AT+QCFG=\"sim/recovery\",30,60,300;+QCFG=\"sim/recovery\"", info({"+QCFG: \"sim/recovery\",30,60,300"})},
		{"AT+QCFG=\"nat\"", error}, // not on this module
		{"AT+QURCCFG=\"urcport\",\"uart9\"", error},
		{"AT+QURCCFG=\"urcport\",\"all\";+QURCCFG=\"urcport\"", info({"+QURCCFG: \"urcport\",\"all\""})},
		{"AT+QMBNCFG=\"AutoSel\",0;+QMBNCFG=\"Select\",\"ROW_Generic_3GPP\"", ok},
		{"AT+QMBNCFG=\"Select\",\"Nowhere\"", error},
		{"AT+CGATT?", info({"+CGATT: 1"})}, // the attach mode waits for the boot
		{"ctl boot", "\r\nRDY\r\n\r\n+CFUN: 1\r\n\r\n+CPIN: READY\r\n\r\n+QUSIM: 1\r\n\r\n"
			     "+QIND: SMS DONE\r\n\r\n+QIND: PB DONE\r\n",
		 3000},
		{"ATE0", "ATE0\r\r\nOK\r\n"},
		{"AT+QCFG=\"band\"", info({"+QCFG: \"band\",0xd3,0x1,0x0"})},
		{"AT+QCFG=\"nwscanmode\";+QCFG=\"nwscanseq\";+QCFG=\"roamservice\"",
		 "\r\n+QCFG: \"nwscanmode\",3\r\n\r\n+QCFG: \"nwscanseq\",0403\r\n\r\n+QCFG: \"roamservice\",2\r\n\r\nOK\r\n"},
		{"AT+CGATT?", info({"+CGATT: 0"})},
		{"AT+QMBNCFG=\"List\"", info({"+QMBNCFG: \"List\",0,1,1,\"ROW_Generic_3GPP\",0x05010820,201912041",
					     "+QMBNCFG: \"List\",1,0,0,\"Commercial-DT\",0x05010B11,202002241",
					     "+QMBNCFG: \"List\",2,0,0,\"Commercial-TMO_VoLTE\",0x05010505,202301051"})},
		{"AT+QMBNCFG=\"Deactivate\"", ok},
		{"AT+QMBNCFG=\"Deactivate\"", error}, // none in use any more
	});
}

TEST(QuectelFamilies, Ec25IndicationsGnssAndModuleStack)
{
	play("ec25", {
		{"AT+QINDCFG=\"csq\"", info({"+QINDCFG: \"csq\",0"})},
		{"ctl do signal 18", ""}, // not enabled: no report
		{"AT+QINDCFG=\"csq\",1,1", ok},
		{"ctl do signal 17", "\r\n+QIND: \"csq\",17,99\r\n"},
		{"AT+QINDCFG=\"act\",1", "\r\nOK\r\n\r\n+QIND: \"act\",\"LTE\"\r\n"},
		{"AT+QINDCFG=\"bogus\",1", error},
		// GNSS: no session, no fix yet, a fix 5 s after the start.
		{"AT+QGPSLOC=2", "\r\n+CME ERROR: 505\r\n"},
		{"AT+QGPS=1", ok},
		{"AT+QGPS=1", "\r\n+CME ERROR: 504\r\n"},
		{"AT+QGPSLOC=2", "\r\n+CME ERROR: 516\r\n", 5000},
		{"AT+QGPSLOC=2", info({"+QGPSLOC: 122305.000,52.52000,13.40500,1.2,45.0,3,0.00,0.0,0.0,170524,08"})},
		{"AT+QGPSLOC=0", info({"+QGPSLOC: 122305.000,5231.2000N,01324.3000E,1.2,45.0,3,0.00,0.0,0.0,170524,08"})},
		{"AT+QGPS?", info({"+QGPS: 1"})},
		{"AT+QGPSEND", ok},
		{"AT+QGPSEND", "\r\n+CME ERROR: 505\r\n"},
		{"AT+QGPSCFG=\"gpsnmeatype\",32", "\r\n+CME ERROR: 501\r\n"},
		{"AT+QGPSCFG=\"glonassnmeatype\",7;+QGPSCFG=\"glonassnmeatype\"", info({"+QGPSCFG: \"glonassnmeatype\",7"})},
		{"AT+QGPSCFG=\"dpoenable\",2;+QGPSCFG=\"dpoenable\"", info({"+QGPSCFG: \"dpoenable\",2"})},
		{"AT+QGPSCFG=\"outport\",\"uartdebug\";+QGPSCFG=\"outport\"", info({"+QGPSCFG: \"outport\",\"uartdebug\""})},
		// The module's own stack on the same contexts.
		{"AT+QICSGP=1", info({"+QICSGP: 3,\"internet.telekom\",\"\",\"\",0"})},
		{"AT+QICSGP=7", info({"+QICSGP: 0,\"\",\"\",\"\",0"})},
		{"AT+QICSGP=7,1,\"iot.example\",\"user\",\"secret\",2;+QICSGP=7",
		 info({"+QICSGP: 1,\"iot.example\",\"user\",\"secret\",2"})},
		{"AT+QICSGP=17,1,\"x\",\"\",\"\"", error},
		{"AT+QIACT=8", error}, // not defined
		{"AT+QIACT=7", ok},
		{"AT+QIACT?", info({"+QIACT: 1,1,3,\"10.68.12.34\"", "+QIACT: 7,1,1,\"10.68.13.7\""})},
		{"AT+QIDEACT=1;+QIDEACT=7", ok},
		{"AT+QIACT?", ok},
		{"AT+QIDNSCFG=1", info({"+QIDNSCFG: 1,\"10.74.210.210\",\"10.74.210.211\""})},
		{"AT+QIDNSCFG=1,\"9.9.9.9\",\"1.1.1.1\";+QIDNSCFG=1", info({"+QIDNSCFG: 1,\"9.9.9.9\",\"1.1.1.1\""})},
		{"ctl set nitz 0", ""},
		{"AT+QLTS", info({"+QLTS: \"\""})},
	});
}

TEST(QuectelFamilies, Rm520nPreferencesAndRadios)
{
	play("rm520n", {
		// Band lists: read back; bands outside the capability or none: ERROR.
		{"AT+QNWPREFCFG=\"lte_band\",1:3:7:20;+QNWPREFCFG=\"lte_band\"", info({"+QNWPREFCFG: \"lte_band\",1:3:7:20"})},
		{"AT+QNWPREFCFG=\"lte_band\",1:3:99", error},
		{"AT+QNWPREFCFG=\"nr5g_band\",", error},
		{"AT+QNWPREFCFG=\"nsa_nr5g_band\",78;+QNWPREFCFG=\"nsa_nr5g_band\"", info({"+QNWPREFCFG: \"nsa_nr5g_band\",78"})},
		{"AT+QNWPREFCFG=\"gw_band\",3", error}, // WCDMA band 3 is not on this module
		{"AT+QNWPREFCFG=\"policy_band\",1", error}, // read only
		{"AT+QNWPREFCFG=\"mode_pref\",LTE:NR5G;+QNWPREFCFG=\"mode_pref\"", info({"+QNWPREFCFG: \"mode_pref\",LTE:NR5G"})},
		{"AT+QNWPREFCFG=\"mode_pref\",GSM", error},
		{"AT+QNWPREFCFG=\"roam_pref\",2", error},
		{"AT+QNWPREFCFG=\"nr5g_disable_mode\",1;+QNWPREFCFG=\"nr5g_disable_mode\"",
		 info({"+QNWPREFCFG: \"nr5g_disable_mode\",1"})},
		// Reject causes: the EMM bit on, the ESM one off.
		{"AT+QNETRC=1;+QNETRC", info({"+QNETRC: 1"})},
		{"ctl do reject emm 15", "\r\n+QNETRC: \"emm_cause\",15\r\n"},
		{"ctl do reject esm 27", ""},
		// EN-DC: EPS registered with AcT 13, the three-line cell form (the NR
		// line without a blank, RSRP, SINR, RSRQ; RM520N capture form).
		{"AT+CEREG=1;+C5GREG=1", ok},
		{"ctl do nsa", "\r\n+CEREG: 1\r\n\r\n+C5GREG: 0\r\n"},
		{"AT+QENG=\"servingcell\"",
		 info({"+QENG: \"servingcell\",\"NOCONN\"",
		       "+QENG: \"LTE\",\"FDD\",262,01,1A2B3C4,123,1300,3,5,5,1A2B,-95,-10,-65,16,12,50,-",
		       "+QENG:\"NR5G-NSA\",262,01,505,-85,18,-11,636576,78,12,1"})},
		{"AT+QNWINFO", info({"+QNWINFO: \"FDD LTE\",\"26201\",\"LTE BAND 3\",1300",
				     "+QNWINFO: \"TDD NR5G\",\"26201\",\"NR5G BAND 78\",636576"})},
		{"AT+QCAINFO", info({"+QCAINFO: \"PCC\",1300,100,\"LTE BAND 3\",1,123,-95,-10,-65,12",
				     "+QCAINFO: \"SCC\",6300,50,\"LTE BAND 20\",2,301,-104,-18,-76,3,0,-,-",
				     "+QCAINFO: \"SCC\",636576,12,\"NR5G BAND 78\",505"})},
		{"AT+QCSQ", info({"+QCSQ: \"NR5G-NSA\",-65,-95,160,-10,-85,190,-11"})},
		{"AT+COPS?;+C5GREG?", "\r\n+COPS: 0,0,\"Telekom.de\",13\r\n\r\n+C5GREG: 1,0\r\n\r\nOK\r\n"},
		// LTE alone: the 17-value layout, SINR raw.
		{"ctl do lte", ""},
		{"AT+QENG=\"servingcell\"",
		 info({"+QENG: \"servingcell\",\"NOCONN\",\"LTE\",\"FDD\",262,01,1A2B3C4,123,1300,3,5,5,1A2B,-95,-10,-65,16,12,50,-"})},
		{"AT+QSINR", info({"+QSINR: 12,10,-32768,-32768,LTE"})},
		// Back to standalone: 5GS registered, EPS not.
		{"ctl do sa", "\r\n+C5GREG: 1\r\n\r\n+CEREG: 0\r\n"},
		{"AT+CEREG?", info({"+CEREG: 1,0"})},
		{"AT+QCAINFO", info({"+QCAINFO: \"PCC\",636576,12,\"NR5G BAND 78\",505",
				     "+QCAINFO: \"SCC\",152690,1,\"NR5G BAND 28\",1,612,0,-,-"})},
		{"AT+QUIMSLOT=2;+QUIMSLOT?", info({"+QUIMSLOT: 2"})},
	});
}

TEST(QuectelFamilies, Bg96BandsAndScanCodes)
{
	play("bg96", {
		// Cat-M1 B8 and B20 only; NB-IoT left as it is.
		{"AT+QCFG=\"band\",0,0x80080,0x40000000;+QCFG=\"band\"", info({"+QCFG: \"band\",0xf,0x80080,0xa0e189f"})},
		// B7 is on neither radio of this module.
		{"AT+QCFG=\"band\",0,0x40,0", error},
		{"AT+QCFG=\"band\",0,0,0x40", error},
		{"AT+QCFG=\"band\",0x10,0,0", error}, // no WCDMA
		{"AT+QCFG=\"nwscanseq\",0301;+QCFG=\"nwscanseq\"", info({"+QCFG: \"nwscanseq\",0301"})},
		{"AT+QCFG=\"nwscanseq\",0204", error}, // 04 is LTE on the EC25, nothing here
		{"AT+QCFG=\"nwscanmode\",2", error},
		{"AT+QCFG=\"nwscanmode\",3;+QCFG=\"nwscanmode\"", info({"+QCFG: \"nwscanmode\",3"})},
		{"AT+CEREG=2;+CEREG?", info({"+CEREG: 2,1,\"1A2B\",\"01A2B3C4\",8"})},
		{"AT+QMBNCFG=\"list\"", info({"+QMBNCFG: \"list\",0,0,0,\"ROW_Generic_3GPP\",0x05010820,201912041",
					     "+QMBNCFG: \"list\",1,1,1,\"Commercial-DT\",0x05010B11,202002241",
					     "+QMBNCFG: \"list\",2,0,0,\"Commercial-TMO_VoLTE\",0x05010505,202301051"})},
		{"AT+QNWPREFCFG=\"lte_band\"", error},
		{"AT+QENG=\"neighbourcell\"", ok},
	});
}

} // namespace
} // namespace modem_sim
