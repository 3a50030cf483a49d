#include "drivers/quectel/quectel_answer.h"

#include <string>

#include <gtest/gtest.h>

using namespace quectel;

namespace
{

std::string joined(const fields &f)
{
    std::string out;
    for (size_t i = 0; i < f.size(); i++)
        out += (i ? "|" : "") + std::string(f[i]);
    return out;
}

TEST(QuectelAnswer, TagMatchedInAnyCaseWithOrWithoutBlank)
{
    // clang-format off
    const struct { const char *line, *tag; bool match; const char *rest; } rows[] = {
        // BG95, peer driver notes: lower-case tag
        {"+qmbncfg: \"autosel\",1", "+QMBNCFG", true, "\"autosel\",1"},
        // EG18 through a router log: a stray blank before the tag
        {"  +QCAINFO: \"pcc\",476", "+QCAINFO", true, "\"pcc\",476"},
        // Another command whose name begins the same.
        {"+QENGX: 1", "+QENG", false, ""},
    };
    // clang-format on
    for (const auto &r : rows) {
        std::string_view rest;
        EXPECT_EQ(tagged(r.line, r.tag, &rest), r.match) << r.line;
        EXPECT_EQ(rest, r.rest) << r.line;
    }
}

TEST(QuectelAnswer, CaseBlindComparisonsWeighEveryByte)
{
    using namespace std::string_literals;
    // clang-format off
    const struct { std::string a, b; bool equal; } rows[] = {
        {"servingcell", "SERVINGCELL", true},
        {"gw_band", "gw_bandx", false},
        {"", "", true},
        // A zero byte ends no text: what follows it still counts.
        {"band\0x"s, "band\0y"s, false},
        {"\0\0\0\0\x0b"s, "\0\0\0\0\x05"s, false},
        {"a\0B"s, "A\0b"s, true},
        // Only ASCII letters fold.
        {"\xc9", "\xe9", false},
    };
    // clang-format on
    for (const auto &r : rows) {
        EXPECT_EQ(equal_nocase(r.a, r.b), r.equal) << testing::PrintToString(r.a);
        EXPECT_EQ(starts_nocase(r.a + "rest", r.b), r.equal) << testing::PrintToString(r.a);
    }
}

TEST(QuectelAnswer, FieldsSplitOutsideQuotesTrimmedAndUnquoted)
{
    // clang-format off
    const struct { const char *rest, *fields; } rows[] = {
        // EC25 AT manual example (+QICSGP)
        {"1,\"UNINET\",\"\",\"\",1", "1|UNINET|||1"},
        // Constructed: a password holding a comma and blanks inside its quotes
        {"1,\"internet\",\"user\",\"p, w \",2", "1|internet|user|p, w |2"},

        // EC25 AT manual example: a bare "-" and a quoted one
        {"64,0,0,0,-,-,\"-\"", "64|0|0|0|-|-|-"},
        // Stray blanks around fields and a trailing comma
        {" \"usbnet\" , 1 ,", "usbnet|1|"},
        {"", ""},
    };
    // clang-format on
    for (const auto &r : rows)
        EXPECT_EQ(joined(fields_of(r.rest)), r.fields) << r.rest;
    EXPECT_EQ(fields_of("").size(), 1u);
}

TEST(QuectelAnswer, NumbersAreWholeFieldsInBaseAndRange)
{
    constexpr int64_t max = INT64_MAX, min = INT64_MIN;
    // clang-format off
    const struct { const char *field; int base; int64_t lo, hi; bool ok; int64_t value; } rows[] = {
        {"-113", 10, min, max, true, -113},
        {"82E8C80", 16, min, max, true, 0x82E8C80},
        {"14758f12f", 16, min, max, true, 0x14758F12F},
        {"9223372036854775807", 10, min, max, true, max},
        {"9223372036854775808", 10, min, max, false, 0},
        {"3", 10, 0, 2, false, 0},
        // No value, blanks, partial numbers and prefixes are not numbers.
        {"-", 10, min, max, false, 0},
        {"", 10, min, max, false, 0},
        {" 5", 10, min, max, false, 0},
        {"12a", 10, min, max, false, 0},
        {"0x1F", 16, min, max, false, 0},
        {"82E8C80", 10, min, max, false, 0},
    };
    // clang-format on
    for (const auto &r : rows) {
        int64_t v = 0;
        EXPECT_EQ(parse_number(r.field, r.base, r.lo, r.hi, v), r.ok) << r.field;
        EXPECT_EQ(v, r.value) << r.field;
    }
    // Without a range, the type's.
    int32_t i32 = 0;
    uint8_t byte = 0;
    EXPECT_FALSE(to_number("2147483648", i32));
    EXPECT_TRUE(to_number("4F", byte, 16) && byte == 0x4F);
    EXPECT_FALSE(to_number("100", byte, 16));
}

TEST(QuectelAnswer, CmeErrorCode)
{
    // clang-format off
    const struct { const char *answer; int code; } rows[] = {
        // EC25 GNSS application note: no fix yet, session running
        {"\r\n+CME ERROR: 516\r\n", 516},
        // Numeric result codes end the line with CR alone
        {"+CME ERROR: 505\r", 505},
        {"\r\n+cme error: 405\r\n", 405},
        // Verbose errors (AT+CMEE=2) and other results carry no code
        {"\r\n+CME ERROR: Session is ongoing\r\n", -1},
    };
    // clang-format on
    for (const auto &r : rows)
        EXPECT_EQ(cme_error(r.answer), r.code) << r.answer;
}

} // namespace
