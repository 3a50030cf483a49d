#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "blob_test_support.h"

namespace {

using blob_test::from_hex;
using blob_test::to_hex;

struct scoped_buf {
	blob_buf b{};
	scoped_buf() { EXPECT_EQ(blob_buf_init(&b, 0), 0); }
	~scoped_buf() { blob_buf_free(&b); }
	blob_attr *first() const { return static_cast<blob_attr *>(blob_data(b.head)); }
	std::string children_hex() const { return to_hex(blob_data(b.head), blob_len(b.head)); }
};

// Takes ownership of a formatter result.
std::string text(char *s)
{
	if (!s)
		return "(null)";
	std::string out(s);
	free(s);
	return out;
}

void add_sample(blob_buf *b)  // {"a":1,"b":[1,2]}
{
	blobmsg_add_u32(b, "a", 1);
	void *c = blobmsg_open_array(b, "b");
	blobmsg_add_u32(b, nullptr, 1);
	blobmsg_add_u32(b, nullptr, 2);
	blobmsg_close_array(b, c);
}

void add_nested(blob_buf *b)  // {"a":{"b":[1]}}
{
	void *t = blobmsg_open_table(b, "a");
	void *c = blobmsg_open_array(b, "b");
	blobmsg_add_u32(b, nullptr, 1);
	blobmsg_close_array(b, c);
	blobmsg_close_table(b, t);
}

void add_bad_type(blob_buf *b)
{
	blobmsg_add_field(b, 9, "bad", "x", 1);
}

TEST(BlobmsgFormat, LayoutCompactAndIndented)
{
	struct row {
		const char *what;
		void (*fill)(blob_buf *);
		int indent;
		const char *expect;
	} rows[] = {
		{"compact", add_sample, -1, R"({"a":1,"b":[1,2]})"},
		{"compact empty", [](blob_buf *) {}, -1, "{}"},
		{"indent 0", [](blob_buf *b) { blobmsg_add_u32(b, "a", 1); }, 0, "{\n\t\"a\": 1\n}"},
		{"indent 0 empty keeps a tab line", [](blob_buf *) {}, 0, "{\n\t\n}"},
		{"indent 0 nested", add_nested, 0, "{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\t1\n\t\t]\n\t}\n}"},
		{"indent 0 two members", [](blob_buf *b) {
			 blobmsg_add_u32(b, "a", 1);
			 blobmsg_add_string(b, "b", "x");
		 }, 0, "{\n\t\"a\": 1,\n\t\"b\": \"x\"\n}"},
		{"indent 2", [](blob_buf *b) { blobmsg_add_u32(b, "a", 1); }, 2, "{\n\t\t\t\"a\": 1\n\t\t}"},
		{"indent capped at 16 tabs", [](blob_buf *b) { blobmsg_add_u32(b, "a", 1); }, 20,
		 "{\n\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\"a\": 1\n\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t}"},
		{"array element names are dropped", [](blob_buf *b) {
			 void *c = blobmsg_open_array(b, "l");
			 blobmsg_add_u32(b, "k", 2);
			 blobmsg_add_string(b, "", "v");
			 blobmsg_close_array(b, c);
		 }, -1, R"({"l":[2,"v"]})"},
		{"empty name in a table prints a bare value", [](blob_buf *b) { blobmsg_add_u32(b, "", 1); }, -1,
		 "{1}"},
		{"invalid element still gets its comma", [](blob_buf *b) {
			 void *c = blobmsg_open_array(b, "arr");
			 blobmsg_add_u32(b, nullptr, 1);
			 blobmsg_add_string(b, nullptr, "x");
			 blobmsg_close_array(b, c);
			 add_bad_type(b);
		 }, -1, R"({"arr":[1,"x"],})"},
		{"invalid first element", [](blob_buf *b) {
			 add_bad_type(b);
			 blobmsg_add_u32(b, "a", 1);
		 }, -1, R"({,"a":1})"},
		{"truncated value is skipped", [](blob_buf *b) {
			 blobmsg_add_field(b, BLOBMSG_TYPE_INT64, "n", "\x01\x02\x03\x04", 4);
		 }, -1, "{}"},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		scoped_buf sb;
		r.fill(&sb.b);
		EXPECT_EQ(text(blobmsg_format_json_indent(sb.b.head, true, r.indent)), r.expect);
	}
}

TEST(BlobmsgFormat, ScalarValues)
{
	struct row {
		const char *what;
		void (*fill)(blob_buf *);
		const char *expect;
	} rows[] = {
		{"null", [](blob_buf *b) { blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, "v", nullptr, 0); }, "null"},
		{"false", [](blob_buf *b) { blobmsg_add_u8(b, "v", 0); }, "false"},
		{"true", [](blob_buf *b) { blobmsg_add_u8(b, "v", 1); }, "true"},
		{"any non-zero byte is true", [](blob_buf *b) { blobmsg_add_u8(b, "v", 2); }, "true"},
		{"int16 signed", [](blob_buf *b) { blobmsg_add_u16(b, "v", 0x8000); }, "-32768"},
		{"int32 ids above 2^31 print negative", [](blob_buf *b) { blobmsg_add_u32(b, "v", 0x80000000u); },
		 "-2147483648"},
		{"int32", [](blob_buf *b) { blobmsg_add_u32(b, "v", 123456); }, "123456"},
		{"int64 max", [](blob_buf *b) { blobmsg_add_u64(b, "v", INT64_MAX); }, "9223372036854775807"},
		{"int64 negative", [](blob_buf *b) { blobmsg_add_u64(b, "v", static_cast<uint64_t>(-5)); }, "-5"},
		{"double", [](blob_buf *b) { blobmsg_add_double(b, "v", 1.5); }, "1.500000"},
		{"double rounding", [](blob_buf *b) { blobmsg_add_double(b, "v", 0.1); }, "0.100000"},
		{"negative zero", [](blob_buf *b) { blobmsg_add_double(b, "v", -0.0); }, "-0.000000"},
		{"large double is fixed notation", [](blob_buf *b) { blobmsg_add_double(b, "v", 1e20); },
		 "100000000000000000000.000000"},
		{"largest double", [](blob_buf *b) { blobmsg_add_double(b, "v", 1.7976931348623157e308); },
		 "179769313486231570814527423731704356798070567525844996598917476803157260780028538760589558632766878"
		 "171540458953514382464234321326889464182768467546703537516986049910576551282076245490090389328944075"
		 "868508455133942304583236903222948165808559332123348274797826204144723168738177180919299881250404026"
		 "184124858368.000000"},
		// A number past the double range reads as infinity; JSON has none.
		{"infinity is null", [](blob_buf *b) { blobmsg_add_double(b, "v", HUGE_VAL); }, "null"},
		{"negative infinity is null", [](blob_buf *b) { blobmsg_add_double(b, "v", -HUGE_VAL); }, "null"},
		{"not a number is null", [](blob_buf *b) { blobmsg_add_double(b, "v", std::nan("")); }, "null"},
		{"string escapes", [](blob_buf *b) {
			 blobmsg_add_string(b, "v", "a\"b\\c\b\n\t\r\f\x01\x1f/\x7f\xc3\xa9");
		 }, "\"a\\\"b\\\\c\\b\\n\\t\\r\\u000c\\u0001\\u001f/\x7f\xc3\xa9\""},
		{"empty string", [](blob_buf *b) { blobmsg_add_string(b, "v", ""); }, "\"\""},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		scoped_buf sb;
		r.fill(&sb.b);
		EXPECT_EQ(text(blobmsg_format_json_value(sb.first())), r.expect);
		EXPECT_EQ(text(blobmsg_format_json(sb.first(), false)), std::string("\"v\":") + r.expect);
	}
}

TEST(BlobmsgFormat, ListModeFollowsTheAttributeKind)
{
	scoped_buf sb;
	void *arr = blobmsg_open_array(&sb.b, "arr");
	blobmsg_add_u32(&sb.b, nullptr, 1);
	blobmsg_close_array(&sb.b, arr);
	void *tbl = blobmsg_open_table(&sb.b, "tbl");
	blobmsg_add_u32(&sb.b, "x", 1);
	blobmsg_close_table(&sb.b, tbl);
	void *data = blob_nest_start(&sb.b, 7);  // plain ubus DATA attribute
	blobmsg_add_string(&sb.b, "k", "v");
	blob_nest_end(&sb.b, data);
	blobmsg_add_string(&sb.b, "", "bare");
	blobmsg_add_string(&sb.b, "q\"", "n");

	blob_attr *a = sb.first();
	blob_attr *t = blob_next(a);
	blob_attr *d = blob_next(t);
	blob_attr *bare = blob_next(d);
	blob_attr *quoted = blob_next(bare);
	struct row {
		const char *what;
		char *out;
		const char *expect;
	} rows[] = {
		{"array attr as list", blobmsg_format_json(a, true), "[1]"},
		{"table attr as list", blobmsg_format_json(t, true), R"({"x":1})"},
		{"plain data attr as list", blobmsg_format_json(d, true), R"({"k":"v"})"},
		{"array attr as element", blobmsg_format_json(a, false), R"("arr":[1])"},
		{"table attr as element, indented", blobmsg_format_json_indent(t, false, 0),
		 "\"tbl\": {\n\t\"x\": 1\n}"},
		{"value only", blobmsg_format_json_value(t), R"({"x":1})"},
		{"value only, indented", blobmsg_format_json_value_indent(a, 1), "[\n\t\t1\n\t]"},
		{"unnamed element", blobmsg_format_json(bare, false), R"("bare")"},
		{"name is escaped", blobmsg_format_json(quoted, false), R"("q\"":"n")"},
		{"null attr", blobmsg_format_json(nullptr, true), "(null)"},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		EXPECT_EQ(text(r.out), r.expect);
	}

	scoped_buf bad;
	add_bad_type(&bad.b);
	EXPECT_EQ(text(blobmsg_format_json(bad.first(), false)), "(null)");
}

const char *ints_as_text(void *priv, blob_attr *attr)
{
	++*static_cast<int *>(priv);
	return blobmsg_type(attr) == BLOBMSG_TYPE_INT32 ? "\"int\"" : nullptr;
}

TEST(BlobmsgFormat, CallbackReplacesValues)
{
	scoped_buf sb;
	add_sample(&sb.b);
	blobmsg_add_string(&sb.b, "s", "x");
	int calls = 0;
	EXPECT_EQ(text(blobmsg_format_json_with_cb(sb.b.head, true, ints_as_text, &calls, -1)),
		  R"({"a":"int","b":["int","int"],"s":"x"})");
	EXPECT_EQ(calls, 5);
	EXPECT_EQ(text(blobmsg_format_json_value_with_cb(sb.first(), ints_as_text, &calls, -1)), R"("int")");
}

TEST(BlobmsgJson, ValueMapping)
{
	struct row {
		const char *json;
		const char *bytes;
	} rows[] = {
		{R"({"i":2147483647})", "85 00 00 0c 00 01 69 00 7f ff ff ff"},
		{R"({"i":-2147483648})", "85 00 00 0c 00 01 69 00 80 00 00 00"},
		{R"({"i":2147483648})", "84 00 00 10 00 01 69 00 00 00 00 00 80 00 00 00"},
		{R"({"i":-2147483649})", "84 00 00 10 00 01 69 00 ff ff ff ff 7f ff ff ff"},
		{R"({"i":99999999999999999999})", "84 00 00 10 00 01 69 00 7f ff ff ff ff ff ff ff"},
		{R"({"i":-99999999999999999999})", "84 00 00 10 00 01 69 00 80 00 00 00 00 00 00 00"},
		{R"({"d":1.5})", "88 00 00 10 00 01 64 00 3f f8 00 00 00 00 00 00"},
		{R"({"d":1e3})", "88 00 00 10 00 01 64 00 40 8f 40 00 00 00 00 00"},
		{R"({"t":true,"f":false})", "87 00 00 09 00 01 74 00 01 00 00 00 87 00 00 09 00 01 66 00 00 00 00 00"},
		{R"({"n":null})", "80 00 00 08 00 01 6e 00"},
		{R"({"s":"a\u0000b"})", "83 00 00 0a 00 01 73 00 61 00 00 00"},
		{R"({"a":[1,"x"]})", "81 00 00 20 00 01 61 00 85 00 00 0c 00 00 00 00 00 00 00 01"
				     " 83 00 00 0a 00 00 00 00 78 00 00 00"},
		{R"({"o":{}})", "82 00 00 08 00 01 6f 00"},
		{R"({"a":1,"a":2})", "85 00 00 0c 00 01 61 00 00 00 00 02"},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.json);
		scoped_buf sb;
		ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, r.json));
		EXPECT_EQ(sb.children_hex(), to_hex(from_hex(r.bytes)));
	}
}

TEST(BlobmsgJson, OnlyObjectsAreAccepted)
{
	const char *rejected[] = {"[1,2]", "1", "\"x\"", "null", "true", "{\"a\":", "", "nonsense"};
	for (const char *json : rejected) {
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

	json_object *v = json_object_new_string("s");
	EXPECT_TRUE(blobmsg_add_json_element(&sb.b, "el", v));
	json_object_put(v);
	EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), R"({"outer":{"x":1,"y":"z"},"el":"s"})");
}

TEST(BlobmsgJson, RoundTripKeepsOrderAndTypes)
{
	const char *docs[] = {
		R"({"z":1,"a":[true,false,null],"m":{"d":"e","n":[]},"f":1.500000,"g":5000000000,"h":-7})",
		R"({"esc":"tab\there \"q\" \\ \u0001","utf8":"é/ü"})",
	};
	for (const char *doc : docs) {
		SCOPED_TRACE(doc);
		scoped_buf sb;
		ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, doc));
		EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), doc);
	}
}

// Numbers beyond the double range parse as infinities; what is printed for
// them must be JSON that reads back, and prints the same again.
TEST(BlobmsgJson, NumbersBeyondTheDoubleRangeGiveTextThatReadsBack)
{
	const struct {
		const char *doc, *first;
	} rows[] = {
		{R"({"e":1e400})", R"({"e":null})"},
		{R"({"n":-214741e349,"d":-0.0})", R"({"n":null,"d":-0.000000})"},
		{R"({"l":[1e999,2]})", R"({"l":[null,2]})"},
	};
	for (const auto &r : rows) {
		SCOPED_TRACE(r.doc);
		scoped_buf sb;
		ASSERT_TRUE(blobmsg_add_json_from_string(&sb.b, r.doc));
		const std::string first = text(blobmsg_format_json(sb.b.head, true));
		EXPECT_EQ(first, r.first);
		scoped_buf again;
		ASSERT_TRUE(blobmsg_add_json_from_string(&again.b, first.c_str()));
		EXPECT_EQ(text(blobmsg_format_json(again.b.head, true)), first);
	}
}

TEST(BlobmsgJson, FromFile)
{
	std::string path = testing::TempDir() + "blobmsg_json_test.json";
	FILE *f = fopen(path.c_str(), "w");
	ASSERT_NE(f, nullptr);
	fputs("{\n  \"name\": \"wwan0\",\n  \"ids\": [1, 2]\n}\n", f);
	fclose(f);

	scoped_buf sb;
	ASSERT_TRUE(blobmsg_add_json_from_file(&sb.b, path.c_str()));
	EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), R"({"name":"wwan0","ids":[1,2]})");

	f = fopen(path.c_str(), "w");
	ASSERT_NE(f, nullptr);
	fputs("{\"name\": ", f);
	fclose(f);
	scoped_buf broken;
	EXPECT_FALSE(blobmsg_add_json_from_file(&broken.b, path.c_str()));
	EXPECT_EQ(blob_len(broken.b.head), 0u);
	remove(path.c_str());
	EXPECT_FALSE(blobmsg_add_json_from_file(&broken.b, path.c_str()));
}

// ---- nesting limit ----

// `levels` nested tables, each with one member "n", the innermost holding
// "v":1, under member "x" of a message; its text goes to json when given.
void add_chain(blob_buf *b, int levels, std::string *json = nullptr)
{
	std::vector<void *> open;
	for (int i = 0; i < levels; i++)
		open.push_back(blobmsg_open_table(b, i ? "n" : "x"));
	blobmsg_add_u32(b, levels ? "v" : "x", 1);
	while (!open.empty()) {
		blobmsg_close_table(b, open.back());
		open.pop_back();
	}
	if (json) {
		std::string head = "{", tail = "}";
		for (int i = 0; i < levels; i++) {
			head += i ? "\"n\":{" : "\"x\":{";
			tail += "}";
		}
		*json = head + (levels ? "\"v\":1" : "\"x\":1") + tail;
	}
}

// The JSON text of a message of depth `levels`: "{" repeated, no members.
std::string nested_text(int levels)
{
	std::string head = "{", tail = "}";
	for (int i = 0; i < levels; i++) {
		head += "\"n\":{";
		tail += "}";
	}
	return head + tail;
}

// A json-c object of depth `levels` (as a message member's value).
json_object *nested_object(int levels)
{
	json_object *obj = json_object_new_int(1);
	for (int i = 0; i < levels; i++) {
		json_object *outer = json_object_new_object();
		json_object_object_add(outer, "n", obj);
		obj = outer;
	}
	return obj;
}

TEST(BlobmsgFormatDepth, TextUpToTheLimitNothingBeyond)
{
	for (int levels : {WWAN_BLOBMSG_MAX_DEPTH - 1, WWAN_BLOBMSG_MAX_DEPTH}) {
		SCOPED_TRACE(levels);
		scoped_buf sb;
		std::string expect;
		add_chain(&sb.b, levels, &expect);
		EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), expect);
		EXPECT_NE(text(blobmsg_format_json_indent(sb.b.head, true, 0)), "(null)");
		// the member alone, as a value and as "name":value
		EXPECT_EQ(text(blobmsg_format_json_value(sb.first())), expect.substr(5, expect.size() - 6));
		EXPECT_EQ(text(blobmsg_format_json(sb.first(), false)), expect.substr(1, expect.size() - 2));
	}
	// 120000 levels is about 1 MB: formatting it used to overflow the stack.
	for (int levels : {WWAN_BLOBMSG_MAX_DEPTH + 1, 120000}) {
		SCOPED_TRACE(levels);
		scoped_buf sb;
		add_chain(&sb.b, levels);
		EXPECT_EQ(blobmsg_format_json(sb.b.head, true), nullptr);
		EXPECT_EQ(blobmsg_format_json_indent(sb.b.head, true, 0), nullptr);
		EXPECT_EQ(blobmsg_format_json_value(sb.first()), nullptr);
		EXPECT_EQ(blobmsg_format_json(sb.first(), false), nullptr);
	}
}

TEST(BlobmsgJsonDepth, TextAndFilesUpToTheLimit)
{
	std::string path = testing::TempDir() + "blobmsg_json_depth.json";
	struct row {
		int levels;
		bool accepted;
	} rows[] = {
		{WWAN_BLOBMSG_MAX_DEPTH, true},
		{WWAN_BLOBMSG_MAX_DEPTH + 1, false},
		{500000, false},  // 1 MB of brackets
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.levels);
		std::string doc = nested_text(r.levels);
		scoped_buf sb;
		blobmsg_add_u32(&sb.b, "before", 1);
		size_t before = blob_len(sb.b.head);
		EXPECT_EQ(blobmsg_add_json_from_string(&sb.b, doc.c_str()), r.accepted);
		if (r.accepted) {
			EXPECT_EQ(text(blobmsg_format_json(sb.b.head, true)), "{\"before\":1," + doc.substr(1));
		} else {
			EXPECT_EQ(blob_len(sb.b.head), before);
		}

		FILE *f = fopen(path.c_str(), "w");
		ASSERT_NE(f, nullptr);
		fputs(doc.c_str(), f);
		fclose(f);
		scoped_buf file;
		EXPECT_EQ(blobmsg_add_json_from_file(&file.b, path.c_str()), r.accepted);
		if (r.accepted) {
			EXPECT_EQ(text(blobmsg_format_json(file.b.head, true)), doc);
		} else {
			EXPECT_EQ(blob_len(file.b.head), 0u);
		}
	}
	remove(path.c_str());
}

TEST(BlobmsgJsonDepth, ObjectsBuiltInCodeAreBoundedAndLeaveNothingWhenRefused)
{
	for (int levels : {WWAN_BLOBMSG_MAX_DEPTH, WWAN_BLOBMSG_MAX_DEPTH + 1}) {
		SCOPED_TRACE(levels);
		bool accepted = levels <= WWAN_BLOBMSG_MAX_DEPTH;
		json_object *value = nested_object(levels);
		json_object *doc = json_object_new_object();
		json_object_object_add(doc, "a", json_object_new_int(1));
		json_object_object_add(doc, "deep", value);

		scoped_buf sb;
		EXPECT_EQ(blobmsg_add_object(&sb.b, doc), accepted);
		// refused after "a" went in: that is taken out again
		EXPECT_EQ(blob_len(sb.b.head) == 0, !accepted);
		EXPECT_EQ(wwan_blobmsg_check_depth(sb.b.head, true), true);

		scoped_buf el;
		blobmsg_add_u32(&el.b, "before", 1);
		size_t before = blob_len(el.b.head);
		EXPECT_EQ(blobmsg_add_json_element(&el.b, "deep", value), accepted);
		EXPECT_EQ(blob_len(el.b.head) == before, !accepted);
		if (accepted) {
			EXPECT_EQ(wwan_blobmsg_depth(el.b.head, true, WWAN_BLOBMSG_MAX_DEPTH), levels);
		}
		json_object_put(doc);
	}
}

}  // namespace
