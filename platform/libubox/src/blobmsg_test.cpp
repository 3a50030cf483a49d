#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "blob_test_support.h"

namespace
{

using blob_test::add;
using blob_test::canon;
using blob_test::from_hex;
using blob_test::scoped_buf;
using blob_test::to_hex;

// Members as add() writes them, padding zeroed over dirty storage.
TEST(BlobmsgBuild, ValuesNamesAndPaddingAreByteExact)
{
    struct row {
        const char *what, *tokens, *expect;
    } rows[] = {
        // clang-format off
        {"bool, empty name: raw length 9 in 12 bytes", "b:=1", "87000009 00000000 01000000"},
        {"2-char name takes 8 bytes", "b:up=1", "8700000d 00027570 00000000 01000000"},
        {"int16", "h:ab=0xbeef", "8600000e 00026162 00000000 beef0000"},
        {"int32", "i:num=5", "85000010 00036e75 6d000000 00000005"},
        {"int64", "l:n=0x0102030405060708", "84000010 00016e00 01020304 05060708"},
        {"double", "d:d=1.5", "88000010 00016400 3ff80000 00000000"},
        {"string, 5-char name", "s:abcde=xyz", "83000010 00056162 63646500 78797a00"},
        {"6-char name takes 12 bytes", "s:abcdef=", "83000011 00066162 63646566 00000000 00000000"},
        {"null value", "f0:z=", "80000008 00017a00"},
        {"field is verbatim, no type check", "f5:x=ab", "8500000a 00017800 61620000"},
        {"array elements unnamed, one named", "[:a i=1 i:k=2 ]",
         "81000020 00016100 8500000c 00000000 00000001 8500000c 00016b00 00000002"},
        {"tables nest with padded children", "{:outer {:in b:b=0 } } s:s=v",
         "82000024 00056f75 74657200 82000018 0002696e 00000000 87000009 00016200 00000000 8300000a 00017300 76000000"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        memset(static_cast<char *>(sb.b.buf) + 4, 0xee, 128);
        add(&sb.b, r.tokens);
        EXPECT_EQ(sb.children_hex(), canon(r.expect));
    }
    blob_buf b{};
    ASSERT_EQ(blobmsg_buf_init(&b), 0);
    EXPECT_EQ(to_hex(b.head, 4), "02000004") << "a message is a plain table";
    blob_buf_free(&b);
}

TEST(BlobmsgCheck, AttrValidation)
{
    struct row {
        const char *what;
        const char *bytes;
        bool ok_unnamed; // name not required
        bool ok_named;   // name required
    } rows[] = {
        // clang-format off
        {"named string", "8300000a 00016b00 7600", true, true},
        {"unnamed int32", "8500000c 00000000 00000001", true, false},
        {"plain attribute has no name", "05000008 00000001", true, false},
        {"plain attribute, data checked as INT8", "07000006 0001", false, false},
        {"payload too short for namelen", "83000005 00", false, false},
        {"name header beyond payload", "83000008 00056162", false, false},
        {"name not NUL-terminated", "8300000c 00016162 78000000", false, false},
        {"type id beyond DOUBLE", "89000008 00000000", false, false},
        {"array children not inspected", "8100000c 00000000 ffffffff", true, false},
        {"table children not inspected", "8200000c 00017400 00000001", true, true},
        {"int32 with 3 bytes", "8500000b 00000000 000001", false, false},
        {"int8 with 2 bytes", "8700000a 00000000 0101", false, false},
        {"int32 with 8 bytes", "85000010 00000000 00000000 00000001", false, false},
        {"int64 with 4 bytes", "8400000c 00000000 00000001", false, false},
        {"int16 with 2 bytes", "8600000a 00000000 0101", true, false},
        {"double with 4 bytes", "8800000c 00000000 00000001", false, false},
        {"double with 12 bytes", "88000014 00000000 00000000 00000000 00000000", true, false},
        {"string without NUL", "8300000a 00000000 6162", false, false},
        {"empty string value", "83000008 00000000", false, false},
        {"unspec with any data", "8000000b 00000000 010203", true, false},
        {"raw length below header", "83000002", false, false},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<uint8_t> raw = from_hex(r.bytes);
        raw.resize(raw.size() + 8, 0);
        auto *a = reinterpret_cast<const blob_attr *>(raw.data());
        EXPECT_EQ(blobmsg_check_attr(a, false), r.ok_unnamed);
        EXPECT_EQ(blobmsg_check_attr(a, true), r.ok_named);
        EXPECT_EQ(blobmsg_check_attr_len(a, false, blob_raw_len(a) - 1), false) << "truncated message";
    }
    EXPECT_FALSE(blobmsg_check_attr(nullptr, false));
}

// The first member as a list of the given type: its direct children counted,
// -1 when one does not fit.
TEST(BlobmsgCheck, ArrayCountsDirectChildren)
{
    struct row {
        const char *what, *tokens;
        int type, result;
    } rows[] = {
        // clang-format off
        {"int array, any type", "[:a i=1 i=2 ]", BLOBMSG_TYPE_UNSPEC, 2},
        {"mixed array, int type", "[:a i=1 s=x ]", BLOBMSG_TYPE_INT32, -1},
        {"named array elements allowed", "[:a s:n=x ]", BLOBMSG_TYPE_STRING, 1},
        {"bad child", "[:a f5=ab ]", BLOBMSG_TYPE_UNSPEC, -1},
        {"not recursive", "[:a [ f5=ab ] ]", BLOBMSG_TYPE_ARRAY, 1},
        {"type out of range", "[:a ]", BLOBMSG_CAST_INT64, -1},
        {"table needs named children", "{:t s:n=x s=y }", BLOBMSG_TYPE_UNSPEC, -1},
        {"scalar is no list", "i:x=1", BLOBMSG_TYPE_UNSPEC, -1},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        add(&sb.b, r.tokens);
        EXPECT_EQ(blobmsg_check_array(sb.first(), r.type), r.result);
        EXPECT_EQ(blobmsg_check_attr_list(sb.first(), r.type), r.result >= 0);
    }
    EXPECT_EQ(blobmsg_check_array(nullptr, BLOBMSG_TYPE_UNSPEC), -1);
}

// A member "x" holding `levels` nested containers, tables and arrays by turns
// from the top, with a string at the bottom: a message of depth `levels`.
std::string chain(int levels)
{
    std::string open, close;
    for (int i = 0; i < levels; i++)
        open += i == 0 ? "{:x " : i % 2 ? "[:t " : "{ ", close += " }";
    return open + "s:t=end" + close;
}

TEST(BlobmsgDepth, CountsContainersBelowTheMessageUpToTheLimit)
{
    struct row {
        const char *what;
        std::string tokens;
        int depth;
    } rows[] = {
        // clang-format off
        {"empty message", "", 0},
        {"scalars only", "i:n=1 s:s=v", 0},
        {"empty table", "{:t }", 1},
        {"deepest member first", chain(4) + " {:flat }", 4},
        {"deepest member last", "[:flat ] " + chain(3), 3},
        {"at the limit", chain(WWAN_BLOBMSG_MAX_DEPTH), WWAN_BLOBMSG_MAX_DEPTH},
        {"one beyond", chain(WWAN_BLOBMSG_MAX_DEPTH + 1), -1},
        {"about 1 MB, as an attacker would send it", chain(120000), -1},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        add(&sb.b, r.tokens);
        EXPECT_EQ(wwan_blobmsg_depth(sb.b.head, true, WWAN_BLOBMSG_MAX_DEPTH), r.depth);
        EXPECT_EQ(wwan_blobmsg_check_depth(sb.b.head, true), r.depth >= 0);
        if (r.depth != 0) {
            EXPECT_TRUE(blobmsg_check_attr(sb.first(), true)) << "validation looks at one level only";
        }
        if (r.depth >= 0) {
            // limited to the depth it has, it still passes; one less and it fails
            EXPECT_EQ(wwan_blobmsg_depth(sb.b.head, true, r.depth), r.depth);
            EXPECT_EQ(wwan_blobmsg_depth(sb.b.head, true, r.depth - 1), -1);
        }
    }
    // Taken as a value, a container is a level itself and a scalar none; a
    // limit above the usual one is walked too.
    scoped_buf sb;
    add(&sb.b, chain(1000) + " i:n=1");
    EXPECT_EQ(wwan_blobmsg_depth(sb.first(), false, 5000), 1000);
    EXPECT_EQ(wwan_blobmsg_depth(sb.first(), true, 5000), 999);
    EXPECT_EQ(wwan_blobmsg_depth(blob_next(sb.first()), false, 0), 0);
    EXPECT_EQ(wwan_blobmsg_depth(nullptr, true, 0), 0);
}

TEST(BlobmsgDepth, InvalidContainersAreNotEntered)
{
    // A plain root holding table "a" that holds an empty table "b".
    struct row {
        const char *what;
        const char *hex;
        int depth;
    } rows[] = {
        // clang-format off
        {"valid", "00000014 82000010 00016100 82000008 00016200", 2},
        {"name of a not NUL-terminated", "00000014 82000010 000161ff 82000008 00016200", 0},
        {"a longer than the root holds", "00000014 82000014 00016100 82000008 00016200", 0},
        {"b's header cut short", "00000014 82000010 00016100 82000003 00016200", 1},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<uint8_t> bytes = from_hex(r.hex);
        EXPECT_EQ(wwan_blobmsg_depth(reinterpret_cast<blob_attr *>(bytes.data()), true, WWAN_BLOBMSG_MAX_DEPTH),
                  r.depth);
    }
}

enum { P_NUM, P_NAME, P_ANYINT, P_ANY, P_NAME_AGAIN, P_UNNAMED, P_MAX };

const blobmsg_policy parse_policy[P_MAX] = {
    {"num", BLOBMSG_TYPE_INT32},  {"name", BLOBMSG_TYPE_STRING}, {"id", BLOBMSG_CAST_INT64},
    {"any", BLOBMSG_TYPE_UNSPEC}, {"name", BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_UNSPEC},
};

// Slots filled ('1') and the string in "name", which the first of
// duplicates fills.
TEST(BlobmsgParse, MatchesByNameAndTypeFirstDuplicateWinning)
{
    struct row {
        const char *what, *tokens;
        int ret;
        const char *present, *name;
    } rows[] = {
        // clang-format off
        {"all present, a shared name fills both slots", "i:num=1 s:name=x l:id=7 {:any }", 0, "111110", "x"},
        {"first duplicate wins", "s:name=first s:name=second", 0, "010010", "first"},
        {"wrong type leaves the slot empty", "s:num=1 i:name=1 d:id=1", 0, "000000", ""},
        {"any integer width for cast", "b:id=1", 0, "001000", ""},
        {"prefix or case differences do not match", "i:nu=1 i:numb=1 i:NUM=1", 0, "000000", ""},
        {"unnamed attributes match nothing", "i=1", 0, "000000", ""},
        {"plain attributes are skipped", "p=1 i:num=1", 0, "100000", ""},
        {"nested members are not looked at", "{:outer i:num=5 }", 0, "000000", ""},
        {"malformed attribute aborts, keeping earlier matches", "i:num=1 f5:x=ab s:name=late", -1, "100000", ""},
        {"empty message", "", -EINVAL, "000000", ""},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        add(&sb.b, r.tokens);
        blob_attr *tb[P_MAX];
        memset(tb, 0x5a, sizeof(tb));
        EXPECT_EQ(blobmsg_parse_attr(parse_policy, P_MAX, tb, sb.b.head), r.ret);
        std::string present;
        for (blob_attr *a : tb)
            present += a ? '1' : '0';
        EXPECT_EQ(present, r.present);
        EXPECT_EQ(tb[P_NAME_AGAIN], tb[P_NAME]);
        EXPECT_STREQ(tb[P_NAME] ? blobmsg_get_string(tb[P_NAME]) : "", r.name);
    }
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse(parse_policy, P_MAX, tb, nullptr, 16), -EINVAL);
}

} // namespace
