#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "blob_test_support.h"

namespace
{

using blob_test::add;
using blob_test::canon;
using blob_test::scoped_buf;

// Takes ownership of a formatter result.
std::string text(char *s)
{
    std::string out = s ? s : "(null)";
    free(s);
    return out;
}

// Messages as text, compact (indent -1) or indented with tabs.
TEST(BlobmsgFormat, MessagesAndValues)
{
    struct row {
        const char *what, *tokens;
        int indent;
        const char *expect;
    } rows[] = {
        // clang-format off
        {"compact", "i:a=1 [:b i=1 i=2 ]", -1, R"({"a":1,"b":[1,2]})"},
        {"compact empty", "", -1, "{}"},
        {"indent 0 empty keeps a tab line", "", 0, "{\n\t\n}"},
        {"indent 0 nested", "{:a [:b i=1 ] } s:c=x", 0, "{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\t1\n\t\t]\n\t},\n\t\"c\": \"x\"\n}"},
        {"indent capped at 16 tabs", "i:a=1", 20, "{\n\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\"a\": 1\n\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t}"},
        {"array element names are dropped", "[:l i:k=2 s:=v ]", -1, R"({"l":[2,"v"]})"},
        {"empty name in a table prints a bare value", "i:=1", -1, "{1}"},
        {"invalid element still gets its comma", "i:a=1 f9:bad=x i:c=2", -1, R"({"a":1,,"c":2})"},
        {"invalid first element", "f9:bad=x i:a=1", -1, R"({,"a":1})"},
        {"truncated value is skipped", "f4:n=abcd", -1, "{}"},
        {"null", "f0:v=", -1, R"({"v":null})"},
        {"false", "b:v=0", -1, R"({"v":false})"},
        {"any non-zero byte is true", "b:v=2", -1, R"({"v":true})"},
        {"int16 signed", "h:v=0x8000", -1, R"({"v":-32768})"},
        {"int32 ids above 2^31 print negative", "i:v=0x80000000", -1, R"({"v":-2147483648})"},
        {"int64 max", "l:v=0x7fffffffffffffff", -1, R"({"v":9223372036854775807})"},
        {"int64 negative", "l:v=-5", -1, R"({"v":-5})"},
        {"double", "d:v=0.1", -1, R"({"v":0.100000})"},
        {"negative zero", "d:v=-0.0", -1, R"({"v":-0.000000})"},
        {"largest double", "d:v=1.7976931348623157e308", -1,
         "{\"v\":179769313486231570814527423731704356798070567525844996598917476803157260780028538760589558632766878"
         "171540458953514382464234321326889464182768467546703537516986049910576551282076245490090389328944075"
         "868508455133942304583236903222948165808559332123348274797826204144723168738177180919299881250404026"
         "184124858368.000000}"},
        // JSON has no infinity or NaN: null, which reads back.
        {"infinity is null", "d:v=inf", -1, R"({"v":null})"},
        {"negative infinity is null", "d:v=-inf", -1, R"({"v":null})"},
        {"not a number is null", "d:v=nan", -1, R"({"v":null})"},
        {"string escapes", "s:v=a\"b\\c\b\n\t\r\f\x01\x1f/\x7f\xc3\xa9", -1,
         "{\"v\":\"a\\\"b\\\\c\\b\\n\\t\\r\\u000c\\u0001\\u001f/\x7f\xc3\xa9\"}"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        add(&sb.b, r.tokens);
        EXPECT_EQ(text(blobmsg_format_json_indent(sb.b.head, true, r.indent)), r.expect);
    }
}

TEST(BlobmsgFormat, EachEntryPointFollowsTheAttributeKind)
{
    scoped_buf sb;
    add(&sb.b, "[:arr i=1 ] {:tbl i:x=1 }");
    void *data = blob_nest_start(&sb.b, 7); // plain ubus DATA attribute
    add(&sb.b, "s:k=v");
    blob_nest_end(&sb.b, data);
    add(&sb.b, "s:=bare s:q\"=n f9:bad=x");
    blob_attr *a = sb.first(), *t = blob_next(a), *d = blob_next(t), *bare = blob_next(d);
    blob_attr *quoted = blob_next(bare), *bad = blob_next(quoted);
    struct row {
        const char *what;
        char *out;
        const char *expect;
    } rows[] = {
        // clang-format off
        {"array attr as list", blobmsg_format_json(a, true), "[1]"},
        {"table attr as list", blobmsg_format_json(t, true), R"({"x":1})"},
        {"plain data attr as list", blobmsg_format_json(d, true), R"({"k":"v"})"},
        {"array attr as element", blobmsg_format_json(a, false), R"("arr":[1])"},
        {"table attr as element, indented", blobmsg_format_json_indent(t, false, 0), "\"tbl\": {\n\t\"x\": 1\n}"},
        {"value only", blobmsg_format_json_value(t), R"({"x":1})"},
        {"value only, indented", blobmsg_format_json_value_indent(a, 1), "[\n\t\t1\n\t]"},
        {"unnamed element", blobmsg_format_json(bare, false), R"("bare")"},
        {"name is escaped", blobmsg_format_json(quoted, false), R"("q\"":"n")"},
        {"invalid element", blobmsg_format_json(bad, false), "(null)"},
        {"null attr", blobmsg_format_json(nullptr, true), "(null)"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(text(r.out), r.expect);
    }
}

TEST(BlobmsgJson, ValueMapping)
{
    struct row {
        const char *json;
        const char *bytes;
    } rows[] = {
        // clang-format off
        {R"({"i":2147483647})", "8500000c 00016900 7fffffff"},
        {R"({"i":-2147483648})", "8500000c 00016900 80000000"},
        {R"({"i":2147483648})", "84000010 00016900 00000000 80000000"},
        {R"({"i":-2147483649})", "84000010 00016900 ffffffff 7fffffff"},
        {R"({"i":99999999999999999999})", "84000010 00016900 7fffffff ffffffff"},
        {R"({"i":-99999999999999999999})", "84000010 00016900 80000000 00000000"},
        {R"({"d":1e3})", "88000010 00016400 408f4000 00000000"},
        {R"({"t":true,"f":false})", "87000009 00017400 01000000 87000009 00016600 00000000"},
        {R"({"n":null})", "80000008 00016e00"},
        {R"({"s":"a\u0000b"})", "8300000a 00017300 61000000"},
        {R"({"a":[1,"x"]})", "81000020 00016100 8500000c 00000000 00000001 8300000a 00000000 78000000"},
        {R"({"o":{}})", "82000008 00016f00"},
        {R"({"a":1,"a":2})", "8500000c 00016100 00000002"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.json);
        scoped_buf sb;
        ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, r.json));
        EXPECT_EQ(sb.children_hex(), canon(r.bytes));
    }
}

TEST(BlobmsgJson, OnlyObjectsAreAcceptedAndNothingIsLeftOfARefusal)
{
    for (const char *json : {"[1,2]", "1", "\"x\"", "null", "true", "{\"a\":", "", "nonsense"}) {
        SCOPED_TRACE(json);
        scoped_buf sb;
        EXPECT_FALSE(blobmsg_add_json_from_string(&sb.b, json));
        EXPECT_EQ(blob_len(sb.b.head), 0u);
    }
    scoped_buf sb;
    EXPECT_FALSE(blobmsg_add_json_from_string(&sb.b, nullptr));
    EXPECT_FALSE(blobmsg_add_object(&sb.b, nullptr));
}

TEST(BlobmsgJson, MembersGoToTheCurrentLevel)
{
    scoped_buf sb;
    void *c = blobmsg_open_table(&sb.b, "outer");
    ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, R"({"x":1,"y":"z"})"));
    blobmsg_close_table(&sb.b, c);
    EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), R"({"outer":{"x":1,"y":"z"}})");
}

// Text read and printed again is the same text; numbers beyond the double
// range read as infinities and print as null, which reads back.
TEST(BlobmsgJson, RoundTripKeepsOrderAndTypes)
{
    const struct {
        const char *doc, *printed;
    } rows[] = {
        // clang-format off
        {R"({"z":1,"a":[true,false,null],"m":{"d":"e","n":[]},"f":1.500000,"g":5000000000,"h":-7})", nullptr},
        {R"({"esc":"tab\there \"q\" \\ \u0001","utf8":"é/ü"})", nullptr},
        {R"({"e":1e400})", R"({"e":null})"},
        {R"({"n":-214741e349,"d":-0.0})", R"({"n":null,"d":-0.000000})"},
        {R"({"l":[1e999,2]})", R"({"l":[null,2]})"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.doc);
        scoped_buf sb;
        ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, r.doc));
        const std::string first = text(blobmsg_format_json(sb.b.head, true));
        EXPECT_EQ(first, r.printed ? r.printed : r.doc);
        scoped_buf again;
        ASSERT_TRUE(blobmsg_add_json_from_string(&again.b, first.c_str()));
        EXPECT_EQ(text(blobmsg_format_json(again.b.head, true)), first);
    }
}

// `levels` nested tables "n" under member "x", the innermost empty, as
// add() tokens (first) and as JSON text.
std::pair<std::string, std::string> chain(int levels)
{
    std::string open = "{:x", close = " }", head = "{\"x\":", tail;
    for (int i = 1; i < levels; i++)
        open += " {:n", close += " }", head += "{\"n\":", tail += "}";
    return {open + close, head + "{}" + tail + "}"};
}

// Messages nested up to the limit are printed and read (from text, files and
// json-c objects); beyond it nothing is printed and nothing is added. 120000
// levels is about 1 MB: formatting or reading it used to overflow the stack.
TEST(BlobmsgJsonDepth, UpToTheLimitAndNothingBeyond)
{
    std::string path = testing::TempDir() + "blobmsg_json_depth.json";
    for (int levels : {WWAN_BLOBMSG_MAX_DEPTH, WWAN_BLOBMSG_MAX_DEPTH + 1, 120000}) {
        SCOPED_TRACE(levels);
        const bool ok = levels <= WWAN_BLOBMSG_MAX_DEPTH;
        const auto [tokens, doc] = chain(levels);
        const std::string value = doc.substr(5, doc.size() - 6);
        scoped_buf sb;
        add(&sb.b, tokens);
        EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), ok ? doc : "(null)");
        EXPECT_EQ(text(blobmsg_format_json_indent(sb.b.head, true, 0)) == "(null)", !ok);
        EXPECT_EQ(text(blobmsg_format_json_value(sb.first())), ok ? value : "(null)");

        scoped_buf parsed;
        blobmsg_add_u32(&parsed.b, "before", 1);
        EXPECT_EQ(blobmsg_add_json_from_string(&parsed.b, doc.c_str()), ok);
        EXPECT_EQ(text(blobmsg_format_json(parsed.b.head, true)),
                  ok ? "{\"before\":1," + doc.substr(1) : "{\"before\":1}");

        std::ofstream(path) << doc;
        scoped_buf file;
        EXPECT_EQ(blobmsg_add_json_from_file(&file.b, path.c_str()), ok);
        EXPECT_EQ(text(blobmsg_format_json(file.b.head, true)), ok ? doc : "{}");

        // json-c objects built in code: refused after "a" went in, that is
        // taken out again.
        if (levels > 1000)
            continue;
        json_object *x = json_object_new_object();
        for (int i = 1; i < levels; i++) {
            json_object *outer = json_object_new_object();
            json_object_object_add(outer, "n", x);
            x = outer;
        }
        json_object *obj = json_object_new_object();
        json_object_object_add(obj, "a", json_object_new_int(1));
        json_object_object_add(obj, "x", x);
        scoped_buf built;
        EXPECT_EQ(blobmsg_add_object(&built.b, obj), ok);
        EXPECT_EQ(text(blobmsg_format_json(built.b.head, true)), ok ? "{\"a\":1," + doc.substr(1) : "{}");
        json_object_put(obj);
    }
    remove(path.c_str());
    scoped_buf broken;
    EXPECT_FALSE(blobmsg_add_json_from_file(&broken.b, path.c_str())) << "missing file";
}

} // namespace
