#include "drivers/generic/generic_helpers.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "comm/request.h"
#include "drivers/generic/driver_test_support.h"
#include "core/modem.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

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
    struct {
        std::string value;
        size_t max;
        bool ok;
    } rows[] = {
        {"1234", 8, true},
        {"", 8, true},
        {"12345678", 8, true},
        {"123456789", 8, false},
        {"12\r34", 8, false},
        {"12\n34", 8, false},
        {"12\x1a", 8, false},
        {"\x1b", 8, false},
        {"12\"34", 8, false},
        {"internet.telekom", 63, true},
        {"a\";+CFUN=0;\"", 63, false},
    };
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

    struct {
        const char *what;
        bool (*read)(act_args &);
    } failing[] = {
        {"number above its range", [](act_args &x) { return x.number("cid", 1, 15) == 1; }},
        {"negative number", [](act_args &x) { return x.opt_number("neg", 0, 3, 0) == 0; }},
        {"missing number", [](act_args &x) { return x.number("index", 1, 16) == 1; }},
        {"missing text", [](act_args &x) { return x.text("apn", 63)[0] == '\0'; }},
        {"keyword outside the vocabulary", [](act_args &x) { return x.keyword("format", cell_rc_arg_enum) == 0; }},
        {"missing keyword", [](act_args &x) { return x.keyword("mode", cell_rc_arg_enum) == 0; }},
    };
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
    struct {
        const char *what;
        std::unique_ptr<ujson> json;
        bool optional;
        bool ok;
        size_t count;
    } rows[] = {
        {"two names", make({"LTE_B3", "LTE_B20"}), false, true, 2},
        {"empty array", make({}), false, true, 0},
        {"at the item limit", make({"a", "b", "c", "d"}), false, true, 4},
        {"above the item limit", make({"a", "b", "c", "d", "e"}), false, false, 0},
        {"a quote in one element", make({"LTE_B3", "x\"y"}), false, false, 0},
        {"a line end in one element", make({"LTE_B3\r"}), false, false, 0},
        {"an element too long", make({"0123456789abcdefg"}), false, false, 0},
        {"a number among the texts", make({"LTE_B3"}, true), false, false, 0},
        {"missing, required", ujson::create(), false, false, 0},
        {"missing, optional", ujson::create(), true, true, 0},
        {"a text in place of the array", args_with("bands", "LTE_B3"), true, false, 0},
    };
    for (auto &row : rows) {
        act_args args(row.json.get());
        auto got = args.texts("bands", 4, 16, row.optional);
        EXPECT_EQ(args.ok(), row.ok) << row.what;
        EXPECT_EQ(got.size(), row.count) << row.what;
    }
    auto json = make({"LTE_B3", "LTE_B20"});
    act_args args(json.get());
    auto got = args.texts("bands", 4, 16);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], "LTE_B3");
    EXPECT_EQ(got[1], "LTE_B20");
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
    struct {
        std::string_view line;
        size_t max;
        std::vector<std::string_view> fields;
    } rows[] = {
        {"\"+4917612345678\",145,,,,0", 6, {"+4917612345678", "145", "", "", "", "0"}},
        {"1,5,internet,10.1.2.3.255.0.0.0", 4, {"1", "5", "internet", "10.1.2.3.255.0.0.0"}},
        {"1,5,\"a\",\"b\"", 3, {"1", "5", "a\",\"b"}}, // the last keeps the rest
        {"internet\",\"", 2, {"internet", ""}},       // a quote alone, either one missing
        {"1,2", 0, {}},
    };
    for (const auto &row : rows) {
        std::string_view got[8];
        size_t n = split_fields(row.line, got, row.max);
        EXPECT_EQ(std::vector<std::string_view>(got, got + n), row.fields) << row.line;
    }
    std::vector<std::string_view> lines;
    for_each_line("+CGACT: 1,1\r\nX+CGACT: 2,0\r\n\r\nOK\r\n\r\n+CGACT: 3,1", "+CGACT: ",
                  [&](std::string_view line) { lines.push_back(line); });
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

    struct {
        std::string_view text, line;
    } rows[] = {
        {"\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n", "EC25EFAR06A06M4G"},
        {"\r\nOK\r\n", ""},
        {"\r\n+CME ERROR: 10\r\n", ""},
        {"EC21EUGAR06A04M4G\r\n0\r", "EC21EUGAR06A04M4G"},
        {"0\r", ""},
        {"\r\nEC25", ""},
        {"\r\n262011234567890\r\n\r\nOK\r\n", "262011234567890"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(first_line(row.text), row.line) << row.text;
}

TEST(Scan, ValueAfterAPrefix)
{
    struct {
        std::string_view text, prefix, value;
    } rows[] = {
        {"\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n", "+CPIN: ", "SIM PIN"},
        {"+CFUN: 1\r\n0\r+CPIN: READY\r\n0\r", "+CPIN: ", "READY"}, // ATV0
        {"\r\n+GCAP: +CGSM,+DS \r\n\r\nOK\r\n", "+GCAP: ", "+CGSM,+DS"},
        {"\r\n+CME ERROR: 10\r", "+CME ERROR: ", "10"},
        {"\r\n+CPIN: ", "+CPIN: ", ""},
        {"\r\nOK\r\n", "+CPIN: ", ""},
    };
    for (const auto &row : rows)
        EXPECT_EQ(line_value(row.text, row.prefix), row.value) << row.text;
}

// Two commands sent as two parts of one request answer one after the other;
// the cut is after the first final result, in verbose and numeric form.
TEST(Scan, AnswersOfATwoPartCommand)
{
    struct {
        const char *text, *first, *second;
    } rows[] = {
        {"\r\nA\r\n\r\nOK\r\n\r\nB\r\n\r\nOK\r\n", "\r\nA\r\n\r\nOK\r\n", "\r\nB\r\n\r\nOK\r\n"},
        {"\r\nA\r\n\r\nOK\r\n\r\n+CME ERROR: 516\r\n", "\r\nA\r\n\r\nOK\r\n", "\r\n+CME ERROR: 516\r\n"},
        {"\r\n+CME ERROR: 3\r\n", "\r\n+CME ERROR: 3\r\n", ""},
        {"\r\nERROR\r\n\r\nB\r\n\r\nOK\r\n", "\r\nERROR\r\n", "\r\nB\r\n\r\nOK\r\n"},
        {"A\r\n0\rB\r\n0\r", "A\r\n0\r", "B\r\n0\r"},
        {"A\r\n4\r", "A\r\n4\r", ""},
        {"\r\nA\r\n", "\r\nA\r\n", ""},
    };
    for (const auto &row : rows) {
        std::string_view first, second;
        split_parts(row.text, &first, &second);
        EXPECT_EQ(first, row.first) << row.text;
        EXPECT_EQ(second, row.second) << row.text;
    }
}

TEST(SetCommand, FormattedCommandIsExactlySized)
{
    request req;
    ASSERT_EQ(set_commandf(&req, "AT+CPIN=\"%s\",\"%s\"\r", "12345678", "0000"), ACT_STATUS_OK);
    EXPECT_EQ(std::string(req.command, req.length), "AT+CPIN=\"12345678\",\"0000\"\r");
    EXPECT_EQ(req.command[req.length], '\0');
    ASSERT_EQ(set_command(&req, "AT\r"), ACT_STATUS_OK);
    EXPECT_EQ(std::string(req.command, req.length), "AT\r");
    std::free(req.command);
    EXPECT_EQ(set_command(nullptr, "AT\r"), ACT_STATUS_INVALID_ARGS);
}

// The common shapes over captured answers.
TEST(CommonShapes, QueryAndSetOfOneEnumeratedValue)
{
    modem mdm;
    request req;
    auto parse = [&](auto fn, std::string_view text, ujson *reply) {
        mdm.set_response(text.data(), text.size());
        return fn(&mdm, 1, reply, &req);
    };
    auto get_crc = [](modem *m, int t, ujson *j, request *r) {
        return query_enum(m, t, j, r, "AT+CRC?\r", "\r\n+CRC: %d", "format", cell_rc_str);
    };
    auto reply = ujson::create();
    // 3GPP TS 27.007 +CRC read form; numeric final result after ATV0.
    EXPECT_EQ(parse(get_crc, "\r\n+CRC: 1\r\n\r\nOK\r\n", reply.get()), ACT_STATUS_OK);
    EXPECT_EQ(reply->get_int("format_id"), 2);
    EXPECT_STREQ(reply->get_string("format"), cell_rc_str(2));
    // ATV0 framing: no leading CR LF, numeric result; white space in a
    // pattern matches none as well.
    auto numeric = ujson::create();
    EXPECT_EQ(parse(get_crc, "+CRC: 0\r\n0\r", numeric.get()), ACT_STATUS_OK);
    EXPECT_EQ(numeric->get_int("format_id"), 1);
    auto failed = ujson::create();
    EXPECT_EQ(parse(get_crc, "\r\n+CME ERROR: 3\r\n", failed.get()), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_FALSE(failed->exists("format_id"));
    EXPECT_EQ(parse(get_crc, "\r\n+CRC: 1\r\n", failed.get()), ACT_STATUS_INVALID_RESPONSE) << "truncated";

    auto set_crc = [](modem *m, int t, ujson *j, request *r) {
        return set_keyword(m, t, j, r, "AT+CRC=%u\r", "format", cell_rc_arg_enum);
    };
    auto args = args_with("format", cell_rc_arg_str(2));
    ASSERT_EQ(set_crc(&mdm, 0, args.get(), &req), ACT_STATUS_OK);
    EXPECT_EQ(std::string(req.command, req.length), "AT+CRC=1\r");
    auto bad = args_with("format", "1\r");
    EXPECT_EQ(set_crc(&mdm, 0, bad.get(), &req), ACT_STATUS_INVALID_ARGS);
    EXPECT_EQ(parse(set_crc, "\r\nOK\r\n", nullptr), ACT_STATUS_OK);
    EXPECT_EQ(parse(set_crc, "0\r", nullptr), ACT_STATUS_OK);
    EXPECT_EQ(parse(set_crc, "\r\nERROR\r\n", nullptr), ACT_STATUS_INVALID_RESPONSE);
    std::free(req.command);
}

} // namespace
