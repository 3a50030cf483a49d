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

std::unique_ptr<ujson> args_with(const char *name, const char *value)
{
    auto json = ujson::create();
    json->add_string(name, value);
    return json;
}

// Every way a caller could reach past its argument: each is refused and
// nothing is built.
TEST(ActArgs, TextsThatCouldEndOrStartACommandAreRefused)
{
    // clang-format off
    struct { std::string value; size_t max; bool ok; } rows[] = {
        {"1234", 8, true},    {"12345678", 8, true}, {"123456789", 8, false},       {"12\r34", 8, false},
        {"12\x1a", 8, false}, {"12\"34", 8, false},  {"a\";+CFUN=0;\"", 63, false},
    };
    // clang-format on
    for (const auto &row : rows) {
        auto json = args_with("code", row.value.c_str());
        act_args args(json.get());
        std::string got = args.text("code", row.max);
        EXPECT_EQ(args.ok(), row.ok) << row.value;
        EXPECT_EQ(got, row.ok ? row.value : "") << row.value;
        EXPECT_EQ(args.status(), row.ok ? ACT_STATUS_OK : ACT_STATUS_INVALID_ARGS);
    }
}

TEST(ActArgs, RequiredOptionalAndRanges)
{
    auto json = ujson::create();
    json->add_int("cid", 16);
    json->add_int("neg", -1);
    json->add_bool("reset", true);
    json->add_string("format", "verbose");

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
TEST(ActArgs, ArraysOfTexts)
{
    auto make = [](std::vector<const char *> items, bool with_number = false) {
        auto json = ujson::create();
        void *a = json->open_array("bands");
        for (const char *item : items)
            json->add_string(nullptr, item);
        if (with_number)
            json->add_int(nullptr, 3);
        json->close_array(a);
        return json;
    };
    // clang-format off
    struct { const char *what; std::unique_ptr<ujson> json; bool optional; bool ok; size_t count; } rows[] = {
        {"empty array", make({}), false, true, 0},
        {"at the item limit", make({"a", "b", "c", "d"}), false, true, 4},
        {"above the item limit", make({"a", "b", "c", "d", "e"}), false, false, 0},
        {"a quote in one element", make({"LTE_B3", "x\"y"}), false, false, 0},
        {"an element too long", make({"0123456789abcdefg"}), false, false, 0},
        {"a number among the texts", make({"LTE_B3"}, true), false, false, 0},
        {"missing, required", ujson::create(), false, false, 0},
        {"missing, optional", ujson::create(), true, true, 0},
        {"a text in place of the array", args_with("bands", "LTE_B3"), true, false, 0},
    };
    // clang-format on
    for (auto &row : rows) {
        act_args args(row.json.get());
        auto got = args.texts("bands", 4, 16, row.optional);
        EXPECT_EQ(args.ok(), row.ok) << row.what;
        EXPECT_EQ(got.size(), row.count) << row.what;
    }
    auto json = make({"LTE_B3", "LTE_B20"});
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

// 3GPP TS 27.007 +CLIP, +CGCONTRDP and +CGACT forms.
TEST(Scan, FieldsQuotesAndLines)
{
    // clang-format off
    struct { std::string_view line; size_t max; std::vector<std::string_view> fields; } rows[] = {
        {"\"+4917612345678\",145,,,,0", 6, {"+4917612345678", "145", "", "", "", "0"}},
        {"1,5,internet,10.1.2.3.255.0.0.0", 4, {"1", "5", "internet", "10.1.2.3.255.0.0.0"}},
        {"1,5,\"a\",\"b\"", 3, {"1", "5", "a\",\"b"}}, // the last keeps the rest
        {"internet\",\"", 2, {"internet", ""}},        // a quote alone, either one missing
        {"1,2", 0, {}},
    };
    // clang-format on
    for (const auto &row : rows) {
        std::string_view got[8];
        size_t n = split_fields(row.line, got, row.max);
        EXPECT_EQ(std::vector<std::string_view>(got, got + n), row.fields) << row.line;
    }
    std::vector<std::string_view> lines;
    for_each_line("+CGACT: 1,1\r\nX+CGACT: 2,0\r\n\r\nOK\r\n\r\n+CGACT: 3,1",
                  "+CGACT: ", [&](std::string_view line) { lines.push_back(line); });
    EXPECT_EQ(lines, (std::vector<std::string_view>{"+CGACT: 1,1", "+CGACT: 3,1"}));
}

TEST(Scan, LinesInsideAnAnswer)
{
    // Captured from an EC25-E: one request "AT+CFUN?\rAT+CPIN?\r".
    std::string_view both = "\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: READY\r\n\r\nOK\r\n";
    EXPECT_EQ(from_line(both, "+CPIN: "), "\r\n+CPIN: READY\r\n\r\nOK\r\n");
    EXPECT_EQ(from_line(both, "+CFUN: "), both);
    EXPECT_EQ(from_line(both, "+CREG: "), "");
    // Only at the start of a line.
    EXPECT_EQ(from_line("\r\nX+CPIN: 1\r\n", "+CPIN: "), "");

    // clang-format off
    struct { std::string_view text, line; } rows[] = {
        {"\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n", "EC25EFAR06A06M4G"},
        {"EC21EUGAR06A04M4G\r\n0\r", "EC21EUGAR06A04M4G"},
        {"\r\nOK\r\n", ""},
        {"\r\nEC25", ""},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(first_line(row.text), row.line) << row.text;
}

TEST(Scan, ValueAfterAPrefix)
{
    // clang-format off
    struct { std::string_view text, prefix, value; } rows[] = {
        {"\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n", "+CPIN: ", "SIM PIN"},
        {"+CFUN: 1\r\n0\r+CPIN: READY\r\n0\r", "+CPIN: ", "READY"}, // ATV0
        {"\r\n+GCAP: +CGSM,+DS \r\n\r\nOK\r\n", "+GCAP: ", "+CGSM,+DS"},
        {"\r\n+CME ERROR: 10\r", "+CME ERROR: ", "10"},
        {"\r\nOK\r\n", "+CPIN: ", ""},
    };
    // clang-format on
    for (const auto &row : rows)
        EXPECT_EQ(line_value(row.text, row.prefix), row.value) << row.text;
}

// Two commands sent as two parts of one request answer one after the other;
// the cut is after the first final result, in verbose and numeric form.
TEST(Scan, AnswersOfATwoPartCommand)
{
    // clang-format off
    struct { const char *text, *first, *second; } rows[] = {
        {"\r\nA\r\n\r\nOK\r\n\r\nB\r\n\r\nOK\r\n", "\r\nA\r\n\r\nOK\r\n", "\r\nB\r\n\r\nOK\r\n"},
        {"\r\nA\r\n\r\nOK\r\n\r\n+CME ERROR: 516\r\n", "\r\nA\r\n\r\nOK\r\n", "\r\n+CME ERROR: 516\r\n"},
        {"\r\n+CME ERROR: 3\r\n", "\r\n+CME ERROR: 3\r\n", ""},
        {"\r\nERROR\r\n\r\nB\r\n\r\nOK\r\n", "\r\nERROR\r\n", "\r\nB\r\n\r\nOK\r\n"},
        {"A\r\n0\rB\r\n0\r", "A\r\n0\r", "B\r\n0\r"},
        {"A\r\n4\r", "A\r\n4\r", ""},
    };
    // clang-format on
    for (const auto &row : rows) {
        std::string_view first, second;
        split_parts(row.text, &first, &second);
        EXPECT_EQ(first, row.first) << row.text;
        EXPECT_EQ(second, row.second) << row.text;
    }
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
