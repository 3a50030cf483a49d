#include "scenario.h"

#include "src/util/root_test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace modem_sim
{
namespace
{

TEST(ScenarioParse, ErrorsNameTheLine)
{
    const struct {
        const char *text;
        int line;
    } rows[] = {
        {"on AT\n  ok\nbogus\n", 3},
        {"  ok\n", 1},                      // statement outside a rule
        {"on AT\n  ok\n  when a = b\n", 3}, // 'when' after statements
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
        {"on AT\n  else\n    ok\n", 2},                                     // 'else' without an 'if'
        {"on AT\n  if a = 1\n    ok\n  else\n    ok\n  else\n    ok\n", 6}, // two of them
        {"on AT\n  if a = 1\n  ok\n", 2},                                   // 'if' without its block
        {"on AT\n  after 1s\non AT+X\n  ok\n", 2},                          // ... before the next rule
        {"on AT\n  ok\n    error\n", 3},                                    // deeper without an opener
        {"on AT\n    if a = 1\n      ok\n  ok\n", 4},                       // back to no level above
        {"on AT\n  if a = 1\n      ok\n    ok\n", 4},                       // between two levels
        {"on AT\n  if a\n    ok\n", 2},                                     // no comparison
        {"on AT\n  if a ? 1\n    ok\n", 2},
        {"on AT\n  if b@d = 1\n    ok\n", 2},
        {"on AT\n  if a = {x\n    ok\n", 2},
        {"on AT\n  if a = 1\n    when b = 2\n", 3}, // 'when' only at the top
        {"on AT\n  if a = 1\n    prompt\n", 3},     // prompt only at the top
        {"action a\n  prompt\n", 2},                // ... of a rule or block
        {"on AT\n  after 0 x\n    ok\n", 2},
        {"on AT\n  after 1s bad*name\n    ok\n", 2},
        {"on AT\n  cancel\n", 2},
        {"on AT\n  do\n", 2},
        {"on AT\n  ok\n\non AT+X\n  do nothing_here\n", 5}, // unknown action
        {"action\n", 1},
        {"keep ok bad*name\n", 1},
        {"include other.scn\n", 1}, // plain text has no directory to include from
        {"on AT\n  sms later\n", 2},
        {"message XX 1 00040000\n", 1}, // no such storage
        {"message ME 4 00040000\n", 1}, // no such status
        {"message ME 1 0004000\n", 1},  // odd hex
        {"message ME 1 07040000\n", 1}, // shorter than its SMSC field
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        Scenario sc;
        ParseError err;
        EXPECT_FALSE(parse_scenario(r.text, &sc, &err));
        EXPECT_EQ(err.line, r.line);
        EXPECT_FALSE(err.message.empty());
    }
}

TEST(ScenarioLoad, IncludesAreReadRelativeToTheIncludingFile)
{
    temp_root dir;
    dir.write("/common/base.scn", "set model_name EC25\non AT+CSQ\n  ok\naction report\n  urc base\n");
    dir.write("/main.scn", "on AT+GMM\n  ok\ninclude common/base.scn\nset model_name RM520N-GL\n"
                           "action report\n  urc main\n");
    Scenario sc;
    std::string err;
    ASSERT_TRUE(load_scenario(dir / "/main.scn", &sc, &err)) << err;
    ASSERT_EQ(sc.rules.size(), 2u);
    EXPECT_EQ(sc.rules[0].patterns[0], "AT+GMM"); // rules before the include are tried first
    EXPECT_EQ(sc.rules[1].patterns[0], "AT+CSQ");
    ASSERT_EQ(sc.initial.size(), 1u);
    EXPECT_EQ(sc.initial[0].second, "RM520N-GL"); // settings after it replace the included ones
    EXPECT_EQ(sc.actions.at("report").at(0).text, "main");

    dir.write("/inner.scn", "on AT\n  ok\n  bogus\n");
    dir.write("/outer.scn", "\ninclude inner.scn\n");
    dir.write("/loop.scn", "include loop.scn\n");
    dir.write("/missing.scn", "include nowhere.scn\n");
    const struct {
        const char *file;
        std::string err;
    } rows[] = {
        {"/outer.scn", dir / "/inner.scn:3: unknown statement 'bogus'"},
        {"/loop.scn", "nested too deeply"},
        {"/missing.scn", dir / "/missing.scn:1: cannot open '" + dir.path() + "/nowhere.scn'"},
        {"/none.scn", dir / "/none.scn"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.file);
        EXPECT_FALSE(load_scenario(dir / r.file, &sc, &err));
        EXPECT_NE(err.find(r.err), std::string::npos) << err;
    }
}

TEST(PatternMatch, Table)
{
    const struct {
        const char *pattern, *text;
        bool match;
        std::vector<std::string> caps;
    } rows[] = {
        {"AT+CSQ", "at+csq", true, {}}, // modems ignore case
        {"AT+CSQ", "AT+CSQ=?", false, {}},
        {"AT+CSQ", "AT+CS", false, {}},
        {"AT+CMGS=*", "AT+CMGS=", true, {""}},
        {"AT+COPS=*,*", "AT+COPS=1,2,\"26201\"", true, {"1", "2,\"26201\""}}, // shortest first
        {"AT+CMEE=[012]", "AT+CMEE=2", true, {"2"}},
        {"AT+CMEE=[012]", "AT+CMEE=3", false, {}},
        {"AT+CMEE=[012]", "AT+CMEE=12", false, {}},
        {"AT+QCFG=\"nwscanmode\",[0-8]", "at+qcfg=\"NWSCANMODE\",3", true, {"3"}},
        {"AT+QCFG=\"nwscanmode\",[0-8]", "AT+QCFG=\"nwscanmode\",9", false, {}},
        {"AT+CPIN=\"*\"", "AT+CPIN=\"1234\"", true, {"1234"}},
        {"AT+CPIN=\"*\"", "AT+CPIN=1234", false, {}},
        {"*", "", true, {""}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.pattern) + " vs " + r.text);
        std::vector<std::string> caps{"stale"};
        EXPECT_EQ(match_pattern(r.pattern, r.text, &caps), r.match);
        if (r.match) {
            EXPECT_EQ(caps, r.caps);
        }
    }
}

TEST(ExpandText, EscapesVariablesAndCaptures)
{
    const struct {
        const char *text;
        const char *out; // null: refused
    } rows[] = {
        {"+CMGS: {mr}\\r\\n$1/$2/$3 \\{x\\} \\x41\\z\\e \\$1 cost $", "+CMGS: 41\r\na/b/ {x} A\x1a\x1b $1 cost $"},
        {"{apn$2}/{apn$3}/[{nothing}]", "ims/?/[]"}, // a missing capture leaves "apn"
        {"\\", nullptr},
        {"\\q", nullptr},
        {"\\x4", nullptr},
        {"\\xZZ", nullptr},
        {"{", nullptr},
        {"{bad name}", nullptr},
        {"{a$}", nullptr},
        {"{$0}", nullptr},
    };
    auto lookup = [](std::string_view n) {
        return n == "mr" ? std::string("41") : n == "apnb" ? std::string("ims") : n == "apn" ? "?" : std::string();
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        std::string out, bad;
        EXPECT_EQ(expand_text(r.text, {"a", "b"}, lookup, &out, &bad), r.out != nullptr) << bad;
        if (r.out) {
            EXPECT_EQ(out, r.out);
        } else {
            EXPECT_FALSE(bad.empty());
        }
    }
    EXPECT_EQ(resolve_name("pdp$1_$2", {"3", "act"}), "pdp3_act");
}

TEST(ContainedIn, MasksAndLists)
{
    const struct {
        const char *part, *whole;
        bool in;
    } rows[] = {
        // Hex masks, bit by bit, either side of any length and case.
        {"0x80000", "0x1a0000800d5", true},
        {"80000", "0x1a0000800d5", true},
        {"0X1A0000800D5", "0x1a0000800d5", true},
        {"0x00000000000000000000001", "0x1", true}, // leading zeros count for nothing
        {"0x2", "0x1a0000800d5", false},            // one bit the whole lacks
        {"0x100000000000", "0x1a0000800d5", false}, // beyond the whole's digits
        {"0x1", "0x0", false},
        {"0x", "0xff", false}, // no digits
        {"0xg1", "0xff", false},
        {"", "0xff", false},
        {"0x20000000000000000", "0x3ffffffffffffffff", true}, // above 64 bits
        // Lists separated by ':', item by item, ignoring case.
        {"1:3:7:20", "1:2:3:4:5:7:8:20:28", true},
        {"2", "1:20", false}, // items, not substrings
        {"1:3:99", "1:3:7", false},
        {"lte:NR5G", "WCDMA:LTE:NR5G", true},
        {"1::3", "1:3", false}, // an empty item
        {"1:", "1:3", false},
        {"", "1:3", true}, // the empty list
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.part) + " in " + r.whole);
        EXPECT_EQ(contained_in(r.part, r.whole), r.in);
    }
}

} // namespace
} // namespace modem_sim
