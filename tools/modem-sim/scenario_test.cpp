#include "scenario.h"

#include "src/util/root_test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace modem_sim
{
namespace
{

// Each row one refusal: statements outside or out of order in a rule, bad escapes, durations, numbers and names,
// 'else' without or after its 'if', blocks missing or at no level above, unknown actions, includes from plain
// text, stored messages with a bad storage, status or hex.
TEST(ScenarioParse, ErrorsNameTheLine)
{
    const struct {
        int line;
        std::vector<const char *> texts;
    } rows[] = {
        // clang-format off
        {1, {
            "  ok\n", "on\n", "every 0 RING\n", "set bad*name 1\n", "action\n", "keep ok bad*name\n",
            "include other.scn\n", "message XX 1 00040000\n", "message ME 4 00040000\n", "message ME 1 0004000\n",
            "message ME 1 07040000\n"}},
        {2, {
            "on AT\n  line bad \\q escape\n", "on AT\n  line {unterminated\n", "on AT\n  raw no quotes\n",
            "on AT\n  delay soon\n", "on AT\n  split 0 10\n", "on AT\n  cme ten\n", "on AT\n  prompt maybe\n",
            "on AT\n  ok extra\n", "on AT\n  else\n    ok\n", "on AT\n  if a = 1\n  ok\n",
            "on AT\n  after 1s\non AT+X\n  ok\n", "on AT\n  if a\n    ok\n", "on AT\n  if a ? 1\n    ok\n",
            "on AT\n  if b@d = 1\n    ok\n", "on AT\n  if a = {x\n    ok\n", "action a\n  prompt\n",
            "on AT\n  after 0 x\n    ok\n", "on AT\n  after 1s bad*name\n    ok\n", "on AT\n  cancel\n",
            "on AT\n  do\n", "on AT\n  sms later\n"}},
        {3, {
            "on AT\n  ok\nbogus\n", "on AT\n  ok\n  when a = b\n", "on AT\n  ok\n    error\n",
            "on AT\n  if a = 1\n    when b = 2\n", "on AT\n  if a = 1\n    prompt\n"}},
        {4, {
            "\n\non AT\n  frobnicate\n", "on AT\n    if a = 1\n      ok\n  ok\n",
            "on AT\n  if a = 1\n      ok\n    ok\n"}},
        {5, {"on AT\n  ok\n\non AT+X\n  do nothing_here\n"}},
        {6, {"on AT\n  if a = 1\n    ok\n  else\n    ok\n  else\n    ok\n"}},
        // clang-format on
    };
    for (const auto &r : rows) {
        for (const char *text : r.texts) {
            SCOPED_TRACE(text);
            Scenario sc;
            ParseError err;
            EXPECT_FALSE(parse_scenario(text, &sc, &err));
            EXPECT_EQ(err.line, r.line);
            EXPECT_FALSE(err.message.empty());
        }
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
        std::vector<std::string> caps;
    } matches[] = {
        {"AT+CSQ", "at+csq", {}}, // modems ignore case
        {"AT+CMGS=*", "AT+CMGS=", {""}},
        {"AT+COPS=*,*", "AT+COPS=1,2,\"26201\"", {"1", "2,\"26201\""}}, // shortest first
        {"AT+CMEE=[012]", "AT+CMEE=2", {"2"}},
        {"AT+QCFG=\"nwscanmode\",[0-8]", "at+qcfg=\"NWSCANMODE\",3", {"3"}},
        {"AT+CPIN=\"*\"", "AT+CPIN=\"1234\"", {"1234"}},
        {"*", "", {""}},
    };
    for (const auto &r : matches) {
        std::vector<std::string> caps{"stale"};
        EXPECT_TRUE(match_pattern(r.pattern, r.text, &caps)) << r.pattern << " vs " << r.text;
        EXPECT_EQ(caps, r.caps) << r.pattern << " vs " << r.text;
    }
    // clang-format off
    const std::pair<const char *, const char *> misses[] = {
        {"AT+CSQ", "AT+CSQ=?"},
        {"AT+CSQ", "AT+CS"},
        {"AT+CMEE=[012]", "AT+CMEE=3"},
        {"AT+CMEE=[012]", "AT+CMEE=12"},
        {"AT+QCFG=\"nwscanmode\",[0-8]", "AT+QCFG=\"nwscanmode\",9"},
        {"AT+CPIN=\"*\"", "AT+CPIN=1234"}};
    // clang-format on
    for (const auto &[pattern, text] : misses) {
        std::vector<std::string> caps;
        EXPECT_FALSE(match_pattern(pattern, text, &caps)) << pattern << " vs " << text;
    }
}

TEST(ExpandText, EscapesVariablesAndCaptures)
{
    const struct {
        const char *text, *out;
    } rows[] = {
        {"+CMGS: {mr}\\r\\n$1/$2/$3 \\{x\\} \\x41\\z\\e \\$1 cost $", "+CMGS: 41\r\na/b/ {x} A\x1a\x1b $1 cost $"},
        {"{apn$2}/{apn$3}/[{nothing}]", "ims/?/[]"}, // a missing capture leaves "apn"
    };
    auto lookup = [](std::string_view n) {
        return n == "mr" ? std::string("41") : n == "apnb" ? std::string("ims") : n == "apn" ? "?" : std::string();
    };
    std::string out, bad;
    for (const auto &r : rows) {
        EXPECT_TRUE(expand_text(r.text, {"a", "b"}, lookup, &out, &bad)) << bad;
        EXPECT_EQ(out, r.out);
    }
    for (const char *text : {"\\", "\\q", "\\x4", "\\xZZ", "{", "{bad name}", "{a$}", "{$0}"}) {
        bad.clear();
        EXPECT_FALSE(expand_text(text, {"a", "b"}, lookup, &out, &bad)) << text;
        EXPECT_FALSE(bad.empty()) << text;
    }
    EXPECT_EQ(resolve_name("pdp$1_$2", {"3", "act"}), "pdp3_act");
}

TEST(ContainedIn, MasksAndLists)
{
    using Pairs = std::vector<std::pair<const char *, const char *>>;
    // clang-format off
    const Pairs in = {
        {"0x80000", "0x1a0000800d5"},
        {"80000", "0x1a0000800d5"},
        {"0X1A0000800D5", "0x1a0000800d5"},
        {"0x00000000000000000000001", "0x1"},
        {"0x20000000000000000", "0x3ffffffffffffffff"},
        {"1:3:7:20", "1:2:3:4:5:7:8:20:28"},
        {"lte:NR5G", "WCDMA:LTE:NR5G"},
        {"", "1:3"}};
    const Pairs not_in = {
        {"0x2", "0x1a0000800d5"},
        {"0x100000000000", "0x1a0000800d5"},
        {"0x1", "0x0"},
        {"0x", "0xff"},
        {"0xg1", "0xff"},
        {"", "0xff"},
        {"2", "1:20"},
        {"1:3:99", "1:3:7"},
        {"1::3", "1:3"},
        {"1:", "1:3"}};
    // clang-format on
    for (const Pairs *rows : {&in, &not_in}) {
        for (const auto &[part, whole] : *rows)
            EXPECT_EQ(contained_in(part, whole), rows == &in) << part << " in " << whole;
    }
}

} // namespace
} // namespace modem_sim
