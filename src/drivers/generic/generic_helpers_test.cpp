#include "drivers/generic/generic_helpers.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "drivers/generic/driver_test_support.h"
#include "drivers/generic/generic_net.h"
#include "drivers/generic/generic_pin.h"
#include "drivers/generic/generic_sms.h"
#include "drivers/generic/generic_sys.h"
#include "ubus/vocab.h"

namespace
{

// Every way a caller could reach past its argument: each is refused and
// nothing is built.
using ActArgs = driver_test;
TEST_F(ActArgs, TextsThatCouldEndOrStartACommandAreRefused)
{
    // clang-format off
    struct { std::string value; size_t max; bool ok; } rows[] = {
        {"1234", 8, true},
        {"12345678", 8, true},
        {"123456789", 8, false},
        {"12\r34", 8, false},
        {"12\x1a", 8, false},
        {"12\"34", 8, false},
        {"a\";+CFUN=0;\"", 63, false},
    };
    // clang-format on
    for (const auto &row : rows) {
        auto json = ujson::create();
        json->add_string("code", row.value.c_str());
        act_args args(json.get());
        std::string got = args.text("code", row.max);
        EXPECT_EQ(args.ok(), row.ok) << row.value;
        EXPECT_EQ(got, row.ok ? row.value : "") << row.value;
        EXPECT_EQ(args.status(), row.ok ? ACT_STATUS_OK : ACT_STATUS_INVALID_ARGS);
    }
}

TEST_F(ActArgs, RequiredOptionalAndRanges)
{
    auto json = json_of(R"({"cid":16,"neg":-1,"reset":true,"format":"verbose"})");

    act_args a(json.get());
    EXPECT_EQ(a.number("cid", 1, 16), 16);
    EXPECT_EQ(a.opt_number("index", 1, 16, 3), 3);
    EXPECT_STREQ(a.opt_text("apn", 63), "");
    EXPECT_TRUE(a.flag("reset"));
    EXPECT_FALSE(a.flag("missing"));
    EXPECT_EQ(a.keyword("format", err_msg_fmt_arg_enum), 3u);
    EXPECT_EQ(a.opt_keyword("mode", err_msg_fmt_arg_enum), 0u);
    EXPECT_TRUE(a.ok());

    // clang-format off
    struct { const char *what; bool (*read)(act_args &); } failing[] = {
        {"number above its range", [](act_args &x) { return x.number("cid", 1, 15) == 1; }},
        {"negative number", [](act_args &x) { return x.opt_number("neg", 0, 3, 0) == 0; }},
        {"missing number", [](act_args &x) { return x.number("index", 1, 16) == 1; }},
        {"missing text", [](act_args &x) { return x.text("apn", 63)[0] == '\0'; }},
        {"keyword outside the vocabulary", [](act_args &x) { return x.keyword("format", cell_rc_arg_enum) == 0; }},
        {"missing keyword", [](act_args &x) { return x.keyword("mode", cell_rc_arg_enum) == 0; }},
    };
    // clang-format on
    for (const auto &row : failing) {
        act_args b(json.get());
        EXPECT_TRUE(row.read(b)) << row.what;
        EXPECT_FALSE(b.ok()) << row.what;
    }
}

// Array arguments (band lists, sentence types): every element is a checked
// text; one bad element refuses the whole list.
TEST_F(ActArgs, ArraysOfTexts)
{
    // clang-format off
    struct { const char *what, *json; bool optional; bool ok; size_t count; } rows[] = {
        {"empty array", R"({"bands":[]})", false, true, 0},
        {"at the item limit", R"({"bands":["a","b","c","d"]})", false, true, 4},
        {"above the item limit", R"({"bands":["a","b","c","d","e"]})", false, false, 0},
        {"a quote in one element", R"({"bands":["LTE_B3","x\"y"]})", false, false, 0},
        {"an element too long", R"({"bands":["0123456789abcdefg"]})", false, false, 0},
        {"a number among the texts", R"({"bands":["LTE_B3",3]})", false, false, 0},
        {"missing, required", "{}", false, false, 0},
        {"missing, optional", "{}", true, true, 0},
        {"a text in place of the array", R"({"bands":"LTE_B3"})", true, false, 0},
    };
    // clang-format on
    for (auto &row : rows) {
        auto json = json_of(row.json);
        act_args args(json.get());
        auto got = args.texts("bands", 4, 16, row.optional);
        EXPECT_EQ(args.ok(), row.ok) << row.what;
        EXPECT_EQ(got.size(), row.count) << row.what;
    }
    auto json = json_of(R"({"bands":["LTE_B3","LTE_B20"]})");
    act_args args(json.get());
    EXPECT_EQ(args.texts("bands", 4, 16), (std::vector<std::string_view>{"LTE_B3", "LTE_B20"}));
}

TEST(Scan, PatternsOverUnterminatedAndLongTexts)
{
    std::string text = "\r\n+CRC: 1\r\n\r\nOK\r\n";
    int value = -1;
    // A view that stops right after the digit: sscanf must not read past it.
    EXPECT_EQ(scan(std::string_view(text).substr(0, 9), "\r\n+CRC: %d", &value), 1);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(scan("\r\nERROR\r\n", "\r\n+CRC: %d", &value), 0);
    EXPECT_EQ(scan("", "\r\n+CRC: %d", &value), 0);
    EXPECT_EQ(scan(std::string_view(), "%d", &value), 0);
    EXPECT_EQ(scan(from_line(text, "+CGACT: "), "\r\n+CGACT: %d", &value), 0); // no such line
    std::string long_answer = "\r\n+COPS: " + std::string(600, '(') + "\r\n";
    char first[4] = {};
    EXPECT_EQ(scan(long_answer, "\r\n+COPS: %3s", first), 1);
    EXPECT_STREQ(first, "(((");
}

enum text_op { FROM_LINE, FIRST_LINE, LINE_VALUE, SPLIT_PARTS, SPLIT_FIELDS };

// What a text helper makes of a text: a view as it is, pieces as "[piece]" each.
std::string apply(text_op op, std::string_view text, std::string_view arg)
{
    std::string_view got[8];
    size_t n = 0;
    switch (op) {
    case FROM_LINE:
        return std::string(from_line(text, arg));
    case FIRST_LINE:
        return std::string(first_line(text));
    case LINE_VALUE:
        return std::string(line_value(text, arg));
    case SPLIT_PARTS:
        split_parts(text, &got[0], &got[1]);
        n = 2;
        break;
    case SPLIT_FIELDS:
        n = split_fields(text, got, std::stoul(std::string(arg)));
        break;
    }
    std::string out;
    for (size_t i = 0; i < n; i++)
        out += "[" + std::string(got[i]) + "]";
    return out;
}

// Lines, values and fields found inside answers (3GPP TS 27.007 forms).
// Two commands sent as two parts of one request answer one after the other:
// the cut is after the first final result, in verbose and numeric form.
TEST(Scan, TextHelpers)
{
    // Captured from an EC25-E: one request "AT+CFUN?\rAT+CPIN?\r".
    const std::string both = "\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: READY\r\n\r\nOK\r\n";
    // clang-format off
    const struct { text_op op; std::string text; std::string_view arg; std::string expect; } rows[] = {
        {FROM_LINE, both, "+CPIN: ", "\r\n+CPIN: READY\r\n\r\nOK\r\n"},
        {FROM_LINE, both, "+CFUN: ", both},
        {FROM_LINE, both, "+CREG: ", ""},
        {FROM_LINE, "\r\nX+CPIN: 1\r\n", "+CPIN: ", ""}, // only at the start of a line
        {FIRST_LINE, "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n", "", "EC25EFAR06A06M4G"},
        {FIRST_LINE, "EC21EUGAR06A04M4G\r\n0\r", "", "EC21EUGAR06A04M4G"},
        {FIRST_LINE, "\r\nOK\r\n", "", ""},
        {FIRST_LINE, "\r\nEC25", "", ""},
        {LINE_VALUE, "\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n", "+CPIN: ", "SIM PIN"},
        {LINE_VALUE, "+CFUN: 1\r\n0\r+CPIN: READY\r\n0\r", "+CPIN: ", "READY"}, // ATV0
        {LINE_VALUE, "\r\n+GCAP: +CGSM,+DS \r\n\r\nOK\r\n", "+GCAP: ", "+CGSM,+DS"},
        {LINE_VALUE, "\r\n+CME ERROR: 10\r", "+CME ERROR: ", "10"},
        {LINE_VALUE, "\r\nOK\r\n", "+CPIN: ", ""},
        {SPLIT_PARTS, "\r\nA\r\n\r\nOK\r\n\r\nB\r\n\r\nOK\r\n", "", "[\r\nA\r\n\r\nOK\r\n][\r\nB\r\n\r\nOK\r\n]"},
        {SPLIT_PARTS, "\r\nA\r\n\r\nOK\r\n\r\n+CME ERROR: 516\r\n", "", "[\r\nA\r\n\r\nOK\r\n][\r\n+CME ERROR: 516\r\n]"},
        {SPLIT_PARTS, "\r\n+CME ERROR: 3\r\n", "", "[\r\n+CME ERROR: 3\r\n][]"},
        {SPLIT_PARTS, "\r\nERROR\r\n\r\nB\r\n\r\nOK\r\n", "", "[\r\nERROR\r\n][\r\nB\r\n\r\nOK\r\n]"},
        {SPLIT_PARTS, "A\r\n0\rB\r\n0\r", "", "[A\r\n0\r][B\r\n0\r]"},
        {SPLIT_PARTS, "A\r\n4\r", "", "[A\r\n4\r][]"},
        {SPLIT_PARTS, "A\r\n4\rB\r\n0\r", "", "[A\r\n4\r][B\r\n0\r]"},
        {SPLIT_FIELDS, "\"+4917612345678\",145,,,,0", "6", "[+4917612345678][145][][][][0]"},
        {SPLIT_FIELDS, "1,5,internet,10.1.2.3.255.0.0.0", "4", "[1][5][internet][10.1.2.3.255.0.0.0]"},
        {SPLIT_FIELDS, "1,5,\"a\",\"b\"", "3", "[1][5][a\",\"b]"}, // the last keeps the rest
        {SPLIT_FIELDS, "internet\",\"", "2", "[internet][]"},        // a quote alone, either one missing
        {SPLIT_FIELDS, "1,2", "0", ""},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(apply(row.op, row.text, row.arg), row.expect) << row.op << " " << row.text;
    std::vector<std::string_view> lines;
    for_each_line("+CGACT: 1,1\r\nX+CGACT: 2,0\r\n\r\nOK\r\n\r\n+CGACT: 3,1",
                  "+CGACT: ", [&](std::string_view line) { lines.push_back(line); });
    EXPECT_EQ(lines, (std::vector<std::string_view>{"+CGACT: 1,1", "+CGACT: 3,1"}));
}

// Every kind of argument the generic actions take, each refused with status 2
// and nothing built for the modem.
using ArgumentRefusal = driver_test;
TEST_F(ArgumentRefusal, NothingIsBuiltFromABadArgument)
{
    const std::string pass17(17, '1'), ussd161(161, '1'), op33(33, '1'), n24 = "+37060000000000000000012";
    // clang-format off
    const struct { act_func fn; std::string args; } rows[] = {
        {set_func, R"({"func":"Full"})"},                      // keyword outside its vocabulary
        {set_net_reg_stat, R"({"mode":"2"})"},                 // a keyword's number
        {set_op_slc, R"({"operator":"26201"})"},               // operator without its mode
        {set_auto_tz_update, "{}"},                            // missing flag
        {set_fac_lock, R"({"facility":"SC","state":"lock"})"}, // missing text
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":"12\"34"})"},
        {set_fac_lock, R"({"facility":"SC","state":"lock","pass":")" + pass17 + "\"}"},   // too long
        {set_new_pass, R"({"facility":"SC","old_pass":"1234","new_pass":"43\u001a21"})"}, // Ctrl-Z
        {set_op_slc, R"({"mode":"manual","operator":")" + op33 + "\"}"},
        {set_ussd, R"({"request":")" + ussd161 + "\"}"},
        {set_ussd, R"({"request":"*100#","coding_scheme":256})"}, // number out of range
        {set_ussd, R"({"coding_scheme":15})"},                    // a value without the text it codes
        {set_pin_code, R"({"code":"123"})"},                      // codes: 4 to 8 digits
        {set_pin_code, R"({"code":"12a4"})"},
        {set_puk_code, R"({"puk":"1234567","pin":"0000"})"},     // PUK: 8 digits
        {send_sms, R"({"number":")" + n24 + R"(","text":"x"})"}, // numbers: 23 characters
        {send_sms, R"({"number":"1\";ATD2","text":"x"})"},
        {send_sms, R"({"number":"1","text":"a\u001aAT+CFUN=0"})"},
    };
    // clang-format on
    int32_t text_mode = 2;
    cache->update_item("sms_mode", CACHE_DATA_INT32, &text_mode, sizeof(text_mode));
    mdm.service = [](const char *, const char *, const ujson &, ujson &answer, uint32_t) {
        answer.add_int("max", 5);
        answer.add_int("current", 0);
        return 0;
    };
    for (const auto &row : rows)
        EXPECT_EQ(built(row.fn, row.args), "2") << row.args;
    EXPECT_EQ(built(send_sms, R"({"number":"1","text":"x"})"), "0 AT+CMGS=\"1\"\rx\x1a") << "the limit lets it out";
}

} // namespace
