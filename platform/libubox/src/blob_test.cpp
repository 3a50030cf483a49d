#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "blob_test_support.h"

namespace
{

using blob_test::from_hex;
using blob_test::scoped_buf;
using blob_test::to_hex;

TEST(BlobHeader, DecodesIdLengthAndExtendedFlag)
{
    struct row {
        const char *bytes;
        unsigned id;
        size_t raw, len, pad;
        bool extended;
    } rows[] = {
        // clang-format off
        {"8500000c", 5, 12, 8, 12, true},
        {"07000009", 7, 9, 5, 12, false},
        {"ffffffff", 127, 0xffffff, 0xfffffb, 0x1000000, true},
        {"03000002", 3, 2, 0, 4, false}, // corrupt length reads as no payload
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.bytes);
        std::vector<uint8_t> raw = from_hex(r.bytes);
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
        const char *what;
        void (*put)(blob_buf *);
        const char *expect;
    } rows[] = {
        // clang-format off
        {"u8", [](blob_buf *b) { blob_put_u8(b, 1, 0x7f); }, "0000000c 01000005 7f000000"},
        {"u32", [](blob_buf *b) { blob_put_u32(b, 3, 0x11223344); }, "0000000c 03000008 11223344"},
        {"u64", [](blob_buf *b) { blob_put_u64(b, 4, 0x0102030405060708ULL); }, "00000010 0400000c 01020304 05060708"},
        {"string keeps NUL", [](blob_buf *b) { blob_put_string(b, 2, "ab"); }, "0000000c 02000007 61620000"},
        {"verbatim bytes", [](blob_buf *b) { blob_put(b, 127, "\x01\x02\x03\x04\x05", 5); },
         "00000010 7f000009 01020304 05000000"},
        {"two in a row", [](blob_buf *b) { blob_put_u8(b, 1, 1), blob_put_u16(b, 2, 2); },
         "00000014 01000005 01000000 02000006 00020000"},
        {"raw copy keeps foreign header",
         [](blob_buf *b) { blob_put_raw(b, from_hex("8500000a 00000000 abcd").data(), 10); },
         "00000010 8500000a 00000000 abcd0000"},
        {"nesting counts padded children in every level",
         [](blob_buf *b) {
             void *outer = blob_nest_start(b, 7);
             blob_put_u16(b, 1, 0xabcd);
             void *inner = blob_nest_start(b, 6);
             blob_put_u8(b, 2, 1);
             blob_nest_end(b, inner);
             blob_nest_end(b, outer);
             blob_put_string(b, 3, "x");
         },
         "00000024 07000018 01000006 abcd0000 0600000c 02000005 01000000"
         " 03000006 78000000"},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        scoped_buf sb;
        memset(static_cast<char *>(sb.b.buf) + 4, 0xee, 64);
        r.put(&sb.b);
        EXPECT_EQ(sb.hex(), to_hex(from_hex(r.expect)));
        EXPECT_EQ(static_cast<void *>(sb.b.head), sb.b.buf) << "unbalanced nesting";
    }
}

TEST(BlobBuild, GrowthKeepsCookiesAndContentAndReinitKeepsStorage)
{
    scoped_buf sb(9);
    EXPECT_EQ(to_hex(sb.b.head, 4), "09000004");
    void *cookie = blob_nest_start(&sb.b, 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(cookie), uintptr_t{BLOB_COOKIE});
    // 8 used + header 4 + 301 payload = 313 > 256: grows by (57/256+1)*256
    ASSERT_NE(blob_put_string(&sb.b, 2, std::string(300, 'q').c_str()), nullptr);
    EXPECT_EQ(sb.b.buflen, 512);
    for (uint32_t i = 0; i < 200; i++)
        ASSERT_NE(blob_put_u32(&sb.b, 3, i), nullptr);
    blob_nest_end(&sb.b, cookie);
    auto *nested = static_cast<blob_attr *>(blob_data(sb.b.head));
    EXPECT_EQ(blob_raw_len(sb.b.head), 4u + blob_raw_len(nested));
    EXPECT_EQ(blob_raw_len(nested), 4u + 308 + 200 * 8);
    uint32_t n = 0;
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, nested, rem)
    {
        if (blob_id(pos) == 3) {
            EXPECT_EQ(blob_get_u32(pos), n++);
        }
    }
    EXPECT_EQ(n, 200u);

    void *storage = sb.b.buf;
    ASSERT_EQ(blob_buf_init(&sb.b, 0), 0);
    EXPECT_EQ(sb.b.buf, storage);
    EXPECT_EQ(sb.hex(), "00000004");
}

TEST(BlobIterate, StopsAtFirstElementThatDoesNotFit)
{
    struct row {
        const char *what;
        const char *container;
        int visited;
    } rows[] = {
        // clang-format off
        {"well formed", "00000014 01000005 01000000 02000008 00000002", 2},
        {"zero length ends walk", "00000014 01000005 01000000 02000000 00000002", 1},
        {"short length still occupies one word", "00000014 01000005 01000000 02000003 00000002", 3},
        {"element longer than rest", "00000014 01000005 01000000 0200000c 00000002", 1},
        {"trailing bytes shorter than a header", "0000000f 01000005 01000000", 1},
        {"empty", "00000004", 0},
        // clang-format on
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
// payload in a message is.
TEST(ByteOrder, GettersReadPayloadsThatAreOnlyFourByteAligned)
{
    struct row {
        uint64_t value;
        const char *be;
        int width;
        int64_t as_signed;
    } rows[] = {
        // clang-format off
        {0x1234, "1234", 16, 0x1234},
        {0xfe01, "fe01", 16, -511},
        {0x80000001, "80000001", 32, -2147483647},
        {0x0102030405060708ULL, "01020304 05060708", 64, 0x0102030405060708LL},
        {0xff00000000000080ULL, "ff000000 00000080", 64, static_cast<int64_t>(0xff00000000000080ULL)},
        // clang-format on
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.be);
        scoped_buf sb(0);
        // An empty attribute first puts the values 4 bytes past an 8-byte
        // boundary: a plain 64-bit load there is misaligned.
        ASSERT_NE(blob_put(&sb.b, 0, "", 0), nullptr);
        blob_attr *plain = r.width == 16   ? blob_put_u16(&sb.b, 1, static_cast<uint16_t>(r.value))
                           : r.width == 32 ? blob_put_u32(&sb.b, 1, static_cast<uint32_t>(r.value))
                                           : blob_put_u64(&sb.b, 1, r.value);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(blob_data(plain)) % 8, 4u);
        EXPECT_EQ(to_hex(blob_data(plain), blob_len(plain)), r.be);
        EXPECT_EQ(r.width == 16   ? blob_get_u16(plain)
                  : r.width == 32 ? blob_get_u32(plain)
                                  : blob_get_u64(plain),
                  r.value);

        int type = r.width == 16 ? BLOBMSG_TYPE_INT16 : r.width == 32 ? BLOBMSG_TYPE_INT32 : BLOBMSG_TYPE_INT64;
        std::vector<uint8_t> be = from_hex(r.be);
        ASSERT_EQ(blobmsg_add_field(&sb.b, type, "v", be.data(), static_cast<unsigned>(be.size())), 0);
        blob_attr *named = blob_next(blob_next(sb.first()));
        if (r.width == 64) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(blobmsg_data(named)) % 8, 4u);
        }
        EXPECT_EQ(blobmsg_cast_u64(named), r.value);
        EXPECT_EQ(blobmsg_cast_s64(named), r.as_signed);
    }
}

} // namespace
