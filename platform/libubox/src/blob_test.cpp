#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include "blob_test_support.h"

namespace
{

using namespace blob_test;

TEST(BlobHeader, DecodesIdLengthAndExtendedFlag)
{
    struct row {
        const char *bytes;
        unsigned id;
        size_t raw, len, pad;
        bool extended;
    } rows[] = {
        {"8500000c", 5, 12, 8, 12, true},
        {"07000009", 7, 9, 5, 12, false},
        {"ffffffff", 127, 0xffffff, 0xfffffb, 0x1000000, true},
        {"03000002", 3, 2, 0, 4, false}, // corrupt length reads as no payload
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.bytes);
        const std::vector<uint8_t> raw = from_hex(r.bytes);
        auto *a = reinterpret_cast<const blob_attr *>(raw.data());
        EXPECT_EQ(blob_id(a), r.id);
        EXPECT_EQ(blob_raw_len(a), r.raw);
        EXPECT_EQ(blob_len(a), r.len);
        EXPECT_EQ(blob_pad_len(a), r.pad);
        EXPECT_EQ(blob_is_extended(a), r.extended);
    }
}

// Every writer against the bytes it must produce, padding zeroed even when
// the storage behind the head is dirty.
TEST(BlobBuild, PutWritesBigEndianPayloadsAndZeroPadding)
{
    struct row {
        const char *what, *put, *expect;
    } rows[] = {
        // clang-format off
        {"u8", "@1b=0x7f", "0000000c 01000005 7f000000"},
        {"u32", "@3i=0x11223344", "0000000c 03000008 11223344"},
        {"u64", "@4l=0x0102030405060708", "00000010 0400000c 01020304 05060708"},
        {"string keeps NUL", "@2s=ab", "0000000c 02000007 61620000"},
        {"verbatim bytes", "@127x=0102030405", "00000010 7f000009 01020304 05000000"},
        {"two in a row", "@1b=1 @2h=2", "00000014 01000005 01000000 02000006 00020000"},
        {"raw copy keeps foreign header", "@0r=8500000a00000000abcd", "00000010 8500000a 00000000 abcd0000"},
        {"nesting counts padded children in every level", "@7{ @1h=0xabcd @6{ @2b=1 } } @3s=x",
         "00000024 07000018 01000006 abcd0000 0600000c 02000005 01000000 03000006 78000000"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        memset(static_cast<char *>(sb.b.buf) + 4, 0xee, 64);
        add(&sb.b, r.put);
        EXPECT_EQ(sb.hex(), to_hex(from_hex(r.expect)));
        EXPECT_EQ(static_cast<void *>(sb.b.head), sb.b.buf) << "unbalanced nesting";
    }
}

TEST(BlobBuild, GrowthKeepsCookiesAndContentAndReinitKeepsStorage)
{
    scoped_buf sb;
    void *cookie = blob_nest_start(&sb.b, 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(cookie), uintptr_t{BLOB_COOKIE});
    // 8 used + header 4 + 301 payload = 313 > 256: grows by (57/256+1)*256
    ASSERT_NE(blob_put_string(&sb.b, 2, std::string(300, 'q').c_str()), nullptr);
    EXPECT_EQ(sb.b.buflen, 512);
    for (uint32_t i = 0; i < 200; i++)
        ASSERT_NE(blob_put_u32(&sb.b, 3, i), nullptr);
    blob_nest_end(&sb.b, cookie);
    EXPECT_EQ(blob_raw_len(sb.b.head), 4u + 4 + 308 + 200 * 8);
    uint32_t n = 0; // counts the u32 children that hold their index
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, sb.first(), rem) n += blob_id(pos) == 3 && blob_get_u32(pos) == n;
    EXPECT_EQ(n, 200u);

    void *storage = sb.b.buf;
    ASSERT_EQ(blob_buf_init(&sb.b, 9), 0);
    EXPECT_EQ(sb.b.buf, storage);
    EXPECT_EQ(sb.hex(), "09000004");
}

TEST(BlobIterate, StopsAtFirstElementThatDoesNotFit)
{
    struct row {
        const char *what, *container;
        int visited;
    } rows[] = {
        {"well formed", "00000014 01000005 01000000 02000008 00000002", 2},
        {"zero length ends walk", "00000014 01000005 01000000 02000000 00000002", 1},
        {"short length still occupies one word", "00000014 01000005 01000000 02000003 00000002", 3},
        {"element longer than rest", "00000014 01000005 01000000 0200000c 00000002", 1},
        {"trailing bytes shorter than a header", "0000000f 01000005 01000000", 1},
        {"empty", "00000004", 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<uint8_t> raw = from_hex(r.container);
        raw.resize(raw.size() + 16, 0);
        blob_attr *pos;
        int rem; // callers declare either int or size_t
        int n = 0;
        blob_for_each_attr(pos, reinterpret_cast<blob_attr *>(raw.data()), rem) n++;
        EXPECT_EQ(n, r.visited);
    }
}

// The byte-order macros take any expression, evaluated once, cut to their
// width before swapping.
TEST(ByteOrder, MacrosTakeExpressionsAndEvaluateThemOnce)
{
    int calls = 0;
    auto next = [&calls] { return static_cast<uint32_t>(0x01020300 + ++calls); };
    EXPECT_EQ(cpu_to_be32(next()), 0x01030201u);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(cpu_to_be16(0xabcd1234u), 0x3412u);
    EXPECT_EQ(cpu_to_be16(0x1200 | 0x34), 0x3412u);
    EXPECT_EQ(be32_to_cpu(cpu_to_be32(0x11223344u) ^ 0), 0x11223344u);
    EXPECT_EQ(le32_to_cpu(cpu_to_le32(0x11223344u)), 0x11223344u);
}

// Each value written big-endian by the blob and blobmsg writers and read
// back by the getters from payloads that are only 4-byte aligned, as every
// payload in a message is. The empty attribute first puts them 4 bytes past
// an 8-byte boundary: a plain 64-bit load there is misaligned.
TEST(ByteOrder, GettersReadPayloadsThatAreOnlyFourByteAligned)
{
    struct row {
        const char *put, *be;
        uint64_t value;
        int64_t as_signed;
    } rows[] = {
        {"@1h=0x1234", "1234", 0x1234, 0x1234},
        {"@1h=0xfe01", "fe01", 0xfe01, -511},
        {"@1i=0x80000001", "80000001", 0x80000001, -2147483647},
        {"@1l=0x0102030405060708", "01020304 05060708", 0x0102030405060708ULL, 0x0102030405060708LL},
        {"@1l=0xff00000000000080", "ff000000 00000080", 0xff00000000000080ULL, int64_t(0xff00000000000080ULL)},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.be);
        scoped_buf sb;
        add(&sb.b, std::string("@0x= ") + r.put);
        std::vector<uint8_t> be = from_hex(r.be);
        blob_attr *plain = blob_next(sb.first());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(blob_data(plain)) % 8, 4u);
        size_t w = be.size();
        EXPECT_EQ(w == 2 ? blob_get_u16(plain) : w == 4 ? blob_get_u32(plain) : blob_get_u64(plain), r.value);

        int type = w == 2 ? BLOBMSG_TYPE_INT16 : w == 4 ? BLOBMSG_TYPE_INT32 : BLOBMSG_TYPE_INT64;
        ASSERT_EQ(blobmsg_add_field(&sb.b, type, "v", be.data(), static_cast<unsigned>(w)), 0);
        blob_attr *named = blob_next(plain);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(blobmsg_data(named)) % 8, w == 8 ? 4u : 0u);
        EXPECT_EQ(blobmsg_cast_u64(named), r.value);
        EXPECT_EQ(blobmsg_cast_s64(named), r.as_signed);
    }
}

} // namespace
