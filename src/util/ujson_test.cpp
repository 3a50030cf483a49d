#include "util/ujson.h"
#include "util/root_test_support.h"
#include "util/services_test_support.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using namespace services_test;

TEST(UjsonCreate, FromFile)
{
    temp_root root;
    const struct {
        const char *what;
        const char *content; // null: no file
        const char *expect;  // null: creation fails
    } rows[] = {
        {"object", "{\"apn\": \"internet\", \"pin\": 1234}", R"({"apn":"internet","pin":1234})"},
        {"empty object", "{}", "{}"},
        {"missing file", nullptr, nullptr},
        {"malformed", "{\"apn\": ", nullptr},
        {"array at top", "[1, 2]", nullptr},
        {"empty file", "", nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        root.remove("/f.json");
        if (r.content)
            root.write("/f.json", r.content);
        auto j = ujson::create_file((root / "/f.json").c_str());
        EXPECT_EQ(j ? json_text(*j) : "(none)", r.expect ? r.expect : "(none)");
    }
    EXPECT_FALSE(ujson::create_file(nullptr));
}

// A message with "cmd":"scan" and a member "deep" of `levels` nested tables.
std::unique_ptr<ujson> nested_message(int levels)
{
    auto j = ujson::create();
    j->add_string("cmd", "scan");
    std::vector<void *> open;
    for (int i = 0; i < levels; i++)
        open.push_back(j->open_table(i ? "n" : "deep"));
    for (auto it = open.rbegin(); it != open.rend(); ++it)
        j->close_table(*it);
    return j;
}

TEST(UjsonCreate, MessagesAndFilesNestedBeyondTheLimitAreRefused)
{
    temp_root root;
    for (int levels : {WWAN_BLOBMSG_MAX_DEPTH, WWAN_BLOBMSG_MAX_DEPTH + 1, 100000}) {
        SCOPED_TRACE(levels);
        bool accepted = levels <= WWAN_BLOBMSG_MAX_DEPTH;
        auto msg = nested_message(levels);
        auto reader = ujson::create_ex(msg->get_blobmsg());
        EXPECT_EQ(reader != nullptr, accepted);
        if (reader) {
            EXPECT_STREQ(reader->get_string("cmd"), "scan");
        }

        std::string doc = R"({"cmd":"scan")";
        for (int i = 0; i < levels; i++)
            doc += i ? R"({"n":)" : R"(,"deep":)";
        doc += "{}" + std::string(levels - 1, '}') + "}";
        root.write("/deep.json", doc);
        auto file = ujson::create_file((root / "/deep.json").c_str());
        EXPECT_EQ(file != nullptr, accepted);
        if (file) {
            EXPECT_EQ(json_text(*file), json_text(*msg));
        }
    }
}

// Documents separated by '|' are appended one after the other, so a name can repeat.
std::unique_ptr<ujson> load(const std::string &docs)
{
    auto j = ujson::create();
    std::istringstream in(docs);
    for (std::string doc; std::getline(in, doc, '|');)
        EXPECT_TRUE(blobmsg_add_json_from_string(j->buffer(), doc.c_str())) << doc;
    return j;
}

// The blobmsg type of the root's last member.
const char *last_type(const ujson &j)
{
    static const char *const names[] = {"none",  "array", "table", "string", "int64",
                                        "int32", "int16", "int8",  "double"};
    unsigned type = 0;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, j.get_blobmsg(), rem) type = blobmsg_type(pos);
    return type < std::size(names) ? names[type] : "?";
}

enum class op { text, i32, i64, flag, real, array, clear, get, get_text, get_real, walk, clone };

TEST(Ujson, Operations)
{
    const char *const R =
        R"({"s":"abcd","short":"ab","i":256,"neg":-1,"l":72623859790382856,"t":true,"d":-1.25,"dup":1}|{"dup":2})";
    const char *const W = R"({"t":{"x":1},"empty":[],"cells":[{"id":1,"rat":"lte"},{"id":2,"rat":"nr"}]})";
    const char *const C = R"({"name":"wwan0","up":true,"info":{"imei":"35"}})";
    const struct {
        const char *what;
        const char *doc;
        op act;
        const char *name;
        const char *arg;
        const char *expect;
    } rows[] = {
        // clang-format off
        // adds and clear: the document, then the type of its last member
        {"text", "{}", op::text, "s", "text", R"({"s":"text"} string)"},
        {"null text adds nothing", "{}", op::text, "none", nullptr, "{} none"},
        {"int", "{}", op::i32, "i", "-2", R"({"i":-2} int32)"},
        {"long", "{}", op::i64, "l", "5000000000", R"({"l":5000000000} int64)"},
        {"small long stays wide", "{}", op::i64, "l", "-5", R"({"l":-5} int64)"},
        {"flag", "{}", op::flag, "b", "1", R"({"b":true} int8)"},
        {"double", "{}", op::real, "d", "2.5", R"({"d":2.500000} double)"},
        {"after existing members", R"({"x":0})", op::array, "a", "1", R"({"x":0,"a":[1,false]} array)"},
        // reads take the value bytes as the type asked for (big-endian): int, long, bool, exists
        {"text as numbers", R, op::get, "s", nullptr, "61626364 6162636400000000 1 1"},
        {"short text", R, op::get, "short", nullptr, "61620000 6162000000000000 1 1"},
        {"int", R, op::get, "i", nullptr, "100 10000000000 0 1"},
        {"negative int", R, op::get, "neg", nullptr, "ffffffff ffffffff00000000 1 1"},
        {"long", R, op::get, "l", nullptr, "1020304 102030405060708 1 1"},
        {"flag", R, op::get, "t", nullptr, "1000000 100000000000000 1 1"},
        {"first of two", R, op::get, "dup", nullptr, "1 100000000 0 1"},
        {"absent", R, op::get, "absent", nullptr, "0 0 0 0"},
        {"case-sensitive", R, op::get, "I", nullptr, "0 0 0 0"},
        {"empty name", R, op::get, "", nullptr, "0 0 0 0"},
        {"text", R, op::get_text, "s", nullptr, "abcd"},
        {"absent text", R, op::get_text, "absent", nullptr, "(null)"},
        {"double", R, op::get_real, "d", nullptr, "-1.25"},
        {"absent double", R, op::get_real, "absent", nullptr, "0"},
        // clearing empties every matching name in place
        {"clear every match", R"({"a":1,"b":2}|{"a":3})", op::clear, "a", nullptr, R"({1,"b":2,3} int32)"},
        {"clear absent", R"({"a":1})", op::clear, "b", nullptr, R"({"a":1} int32)"},
        // walks read `arg` of each element, then again after the failed move
        {"a table is no array", W, op::walk, "t", "rat", "(none)"},
        {"empty array", W, op::walk, "empty", "rat", "(none)"},
        {"elements up to the array end", W, op::walk, "cells", "rat", "lte nr | nr"},
        {"plain elements", R"({"ids":["a","b"]})", op::walk, "ids", nullptr, "a b | b"},
        // clone_value copies from the root while the first member is selected
        {"renamed text", C, op::clone, "name", "ifname", R"({"ifname":"wwan0"})"},
        {"table", C, op::clone, "info", "i", R"({"i":{"imei":"35"}})"},
        {"beside the selection", C, op::clone, "up", "up", R"({"up":true})"},
        {"absent", C, op::clone, "absent", "x", "{}"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.what) + ": " + r.name);
        auto j = load(r.doc);
        size_t before = j->len();
        int rc = 0;
        std::ostringstream out;
        switch (r.act) {
        case op::text:
            j->add_string(r.name, r.arg);
            break;
        case op::i32:
            rc = j->add_int(r.name, std::atoi(r.arg));
            break;
        case op::i64:
            rc = j->add_long(r.name, std::atoll(r.arg));
            break;
        case op::flag:
            rc = j->add_bool(r.name, std::atoi(r.arg));
            break;
        case op::real:
            rc = j->add_double(r.name, std::atof(r.arg));
            break;
        case op::array: {
            void *a = j->open_array(r.name);
            rc = j->add_int(nullptr, std::atoi(r.arg)) | j->add_bool(nullptr, false);
            j->close_array(a);
            break;
        }
        case op::clear:
            j->clear_name(r.name);
            EXPECT_EQ(j->len(), before);
            break;
        case op::get:
            out << std::hex << j->get_int(r.name) << ' ' << j->get_long(r.name) << ' ' << j->get_bool(r.name) << ' '
                << j->exists(r.name);
            break;
        case op::get_text:
            out << (j->get_string(r.name) ? j->get_string(r.name) : "(null)");
            break;
        case op::get_real:
            out << j->get_double(r.name);
            break;
        case op::walk:
            j->add_int(nullptr, 99); // an unnamed sibling after the array, which is no element
            if (!j->select_array(r.name)) {
                out << "(none)";
                break;
            }
            for (int n = 0; n < 8; n++) {
                const char *s = j->get_string(r.arg);
                ASSERT_NE(s, nullptr) << "walked past the array end after \"" << out.str() << "\"";
                out << s << ' ';
                if (!j->next_item())
                    break;
            }
            out << "| " << j->get_string(r.arg);
            break;
        case op::clone: {
            auto dst = ujson::create();
            j->select_attr(static_cast<blob_attr *>(blobmsg_data(j->get_blobmsg())));
            rc = j->clone_value(r.name, *dst, r.arg);
            out << json_text(*dst);
            break;
        }
        }
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(r.act <= op::clear ? json_text(*j) + " " + last_type(*j) : out.str(), r.expect);
        EXPECT_EQ(j->len(), blob_len(j->get_blobmsg()));
    }
}

TEST(UjsonGet, MalformedMessagesAreReadSafely)
{
    auto msg = ujson::create();
    blob_buf *b = msg->buffer();
    blobmsg_add_field(b, BLOBMSG_TYPE_STRING, "open", "abcd", 4); // no NUL, no padding
    blobmsg_add_field(b, BLOBMSG_TYPE_INT16, "pad", "ab", 2);     // ends in zero padding
    blob_put(b, BLOBMSG_TYPE_INT32, "\x00\x09xy", 4);             // name beyond the payload
    blob_attr *broken = static_cast<blob_attr *>(blob_data(b->head));
    broken = blob_next(blob_next(broken));
    broken->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    msg->add_int("n", 5);

    auto reader = ujson::create_ex(msg->get_blobmsg());
    EXPECT_EQ(reader->get_string("open"), nullptr);
    EXPECT_EQ(reader->get_int("open"), 0x61626364);
    EXPECT_STREQ(reader->get_string("pad"), "ab");
    EXPECT_EQ(reader->get_int("n"), 5);
    EXPECT_FALSE(reader->exists("xy"));
}

TEST(UjsonCopy, ValuesFromTheObjectsOwnStorageSurviveGrowth)
{
    auto self = load(R"({"k":"v"})");
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(self->add_blobmsg(static_cast<blob_attr *>(blobmsg_data(self->get_blobmsg()))), 0);
        ASSERT_EQ(self->clone_value("k", *self, self->get_string("k")), 0);
    }
    EXPECT_EQ(self->len(), 201u * 12u);
    EXPECT_STREQ(self->get_string("v"), "v");
    EXPECT_EQ(self->add_blobmsg(nullptr), -1);
}

} // namespace
