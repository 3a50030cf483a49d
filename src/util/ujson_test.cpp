#include "util/ujson.h"
#include "util/root_test_support.h"
#include "util/services_test_support.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdlib>
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
        doc += levels ? "{}" : "";
        doc += std::string(levels ? levels - 1 : 0, '}') + "}";
        root.write("/deep.json", doc);
        auto file = ujson::create_file((root / "/deep.json").c_str());
        EXPECT_EQ(file != nullptr, accepted);
        if (file) {
            EXPECT_EQ(json_text(*file), json_text(*msg));
        }
    }
}

TEST(UjsonAdd, TypedFieldsAtTheCurrentLevel)
{
    auto j = ujson::create();
    j->add_string("s", "text");
    j->add_string("none", nullptr);
    EXPECT_EQ(j->add_int("i", -2), 0);
    EXPECT_EQ(j->add_long("l", 5000000000LL), 0);
    EXPECT_EQ(j->add_bool("b", true), 0);
    EXPECT_EQ(j->add_double("d", 2.5), 0);
    void *t = j->open_table("t");
    void *a = j->open_array("a");
    j->add_int(nullptr, 1);
    j->add_bool(nullptr, false);
    j->close_array(a);
    j->close_table(t);
    EXPECT_EQ(json_text(*j), R"({"s":"text","i":-2,"l":5000000000,"b":true,"d":2.500000,"t":{"a":[1,false]}})");
    EXPECT_EQ(j->len(), blob_len(j->get_blobmsg()));

    // encodings are blobmsg's: INT32, INT64, INT8, DOUBLE
    std::vector<int> types;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, j->get_blobmsg(), rem) types.push_back(blobmsg_type(pos));
    EXPECT_EQ(types, (std::vector<int>{BLOBMSG_TYPE_STRING, BLOBMSG_TYPE_INT32, BLOBMSG_TYPE_INT64, BLOBMSG_TYPE_INT8,
                                       BLOBMSG_TYPE_DOUBLE, BLOBMSG_TYPE_TABLE}));
}

TEST(UjsonGet, ReadsByNameWithoutTypeChecks)
{
    auto j = ujson::create();
    j->add_string("s", "abcd");
    j->add_string("short", "ab");
    j->add_int("i", 256);
    j->add_int("neg", -1);
    j->add_long("l", 0x0102030405060708LL);
    j->add_bool("t", true);
    j->add_double("d", -1.25);
    j->add_int("dup", 1);
    j->add_int("dup", 2);

    struct row {
        const char *name;
        int32_t i;
        int64_t l;
        bool b;
        bool exists;
    } rows[] = {
        {"s", 0x61626364, 0x6162636400000000LL, true, true}, // text read as numbers
        {"short", 0x61620000, 0x6162000000000000LL, true, true},
        {"i", 256, 256LL << 32, false, true}, // first byte of 00 00 01 00
        {"neg", -1, static_cast<int64_t>(0xffffffff00000000ULL), true, true},
        {"l", 0x01020304, 0x0102030405060708LL, true, true},
        {"t", 0x01000000, 0x0100000000000000LL, true, true},
        {"dup", 1, 1LL << 32, false, true}, // the first of two
        {"absent", 0, 0, false, false},
        {"I", 0, 0, false, false}, // case-sensitive
        {"", 0, 0, false, false},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(j->get_int(r.name), r.i);
        EXPECT_EQ(j->get_long(r.name), r.l);
        EXPECT_EQ(j->get_bool(r.name), r.b);
        EXPECT_EQ(j->exists(r.name), r.exists);
    }
    EXPECT_STREQ(j->get_string("s"), "abcd");
    EXPECT_EQ(j->get_double("d"), -1.25);
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

TEST(UjsonClearName, HidesEveryMatchInPlace)
{
    auto j = from_json(R"({"a":1,"b":2})");
    j->add_int("a", 3);
    size_t before = j->len();
    j->clear_name("a");
    EXPECT_FALSE(j->exists("a"));
    EXPECT_EQ(j->get_int("a"), 0);
    EXPECT_EQ(j->get_int("b"), 2);
    EXPECT_EQ(j->len(), before);
    EXPECT_EQ(json_text(*j), R"({1,"b":2,3})");
}

TEST(UjsonSelect, WalksArrayElementsAndStopsAtTheArrayEnd)
{
    // the array is followed by an unnamed sibling, which next_item must not
    // take for a further element; named reads look inside the selection
    auto j = from_json(R"({"t":{"x":1},"empty":[],"cells":[{"id":1,"rat":"lte"},{"id":2,"rat":"nr"}]})");
    j->add_int(nullptr, 99);
    EXPECT_FALSE(j->select_array("t")); // a table is no array
    EXPECT_FALSE(j->select_array("empty"));
    ASSERT_TRUE(j->select_array("cells"));
    std::string cells;
    do
        cells += std::to_string(j->get_int("id")) + ":" + j->get_string("rat") + " ";
    while (j->next_item());
    EXPECT_EQ(cells, "1:lte 2:nr ");
    EXPECT_EQ(j->get_int("id"), 2); // a failed move leaves the selection
}

TEST(UjsonCopy, AddBlobmsgCloneAndCloneValue)
{
    auto src = from_json(R"({"name":"wwan0","up":true,"info":{"imei":"35"}})");
    auto dst = ujson::create();

    EXPECT_EQ(src->clone_value("name", *dst, "ifname"), 0);
    EXPECT_EQ(src->clone_value("info", *dst, "i"), 0);
    EXPECT_EQ(src->clone_value("absent", *dst, "x"), 0);
    EXPECT_EQ(json_text(*dst), R"({"ifname":"wwan0","i":{"imei":"35"}})");

    // clone_value reads the root even while something is selected
    src->select_attr(static_cast<blob_attr *>(blobmsg_data(src->get_blobmsg())));
    EXPECT_EQ(src->clone_value("up", *dst, "up"), 0);
    EXPECT_TRUE(dst->get_bool("up"));

    // copying values that live in the object's own storage, across growth
    auto self = from_json(R"({"k":"v"})");
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(self->add_blobmsg(static_cast<blob_attr *>(blobmsg_data(self->get_blobmsg()))), 0);
        ASSERT_EQ(self->clone_value("k", *self, self->get_string("k")), 0);
    }
    EXPECT_EQ(self->len(), 201u * 12u);
    EXPECT_STREQ(self->get_string("v"), "v");

    EXPECT_EQ(dst->add_blobmsg(nullptr), -1);
}

} // namespace
