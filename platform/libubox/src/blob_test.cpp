#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "blob_test_support.h"

namespace {

using blob_test::from_hex;
using blob_test::to_hex;

struct scoped_buf {
	blob_buf b{};
	explicit scoped_buf(int id = 0) { EXPECT_EQ(blob_buf_init(&b, id), 0); }
	~scoped_buf() { blob_buf_free(&b); }
	std::string hex() const { return to_hex(b.head, blob_pad_len(b.head)); }
};

TEST(BlobHeader, DecodesIdLengthAndExtendedFlag)
{
	struct row {
		const char *bytes;
		unsigned id;
		size_t raw, len, pad;
		bool extended;
	} rows[] = {
		{"85 00 00 0c", 5, 12, 8, 12, true},
		{"07 00 00 09", 7, 9, 5, 12, false},
		{"ff ff ff ff", 127, 0xffffff, 0xfffffb, 0x1000000, true},
		{"03 00 00 02", 3, 2, 0, 4, false},  // corrupt length reads as no payload
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

TEST(BlobBuild, PutWritesBigEndianPayloadsAndZeroPadding)
{
	struct row {
		const char *what;
		void (*put)(blob_buf *);
		const char *expect;
	} rows[] = {
		{"u8", [](blob_buf *b) { blob_put_u8(b, 1, 0x7f); },
		 "00 00 00 0c 01 00 00 05 7f 00 00 00"},
		{"u32", [](blob_buf *b) { blob_put_u32(b, 3, 0x11223344); },
		 "00 00 00 0c 03 00 00 08 11 22 33 44"},
		{"u64", [](blob_buf *b) { blob_put_u64(b, 4, 0x0102030405060708ULL); },
		 "00 00 00 10 04 00 00 0c 01 02 03 04 05 06 07 08"},
		{"string keeps NUL", [](blob_buf *b) { blob_put_string(b, 2, "ab"); },
		 "00 00 00 0c 02 00 00 07 61 62 00 00"},
		{"verbatim bytes", [](blob_buf *b) { blob_put(b, 127, "\x01\x02\x03\x04\x05", 5); },
		 "00 00 00 10 7f 00 00 09 01 02 03 04 05 00 00 00"},
		{"two in a row", [](blob_buf *b) { blob_put_u8(b, 1, 1); blob_put_u16(b, 2, 2); },
		 "00 00 00 14 01 00 00 05 01 00 00 00 02 00 00 06 00 02 00 00"},
		{"raw copy keeps foreign header", [](blob_buf *b) {
			 std::vector<uint8_t> a = from_hex("85 00 00 0a 00 00 00 00 ab cd");
			 blob_put_raw(b, a.data(), static_cast<unsigned>(a.size()));
		 },
		 "00 00 00 10 85 00 00 0a 00 00 00 00 ab cd 00 00"},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		scoped_buf sb;
		// dirty storage beyond the head: padding must still come out zero
		memset(static_cast<char *>(sb.b.buf) + 4, 0xee, 64);
		r.put(&sb.b);
		EXPECT_EQ(sb.hex(), to_hex(from_hex(r.expect)));
	}
}

TEST(BlobBuild, InitKeepsIdAndAllocation)
{
	blob_buf b{};
	ASSERT_EQ(blob_buf_init(&b, 7), 0);
	EXPECT_EQ(to_hex(b.head, 4), "07 00 00 04");
	EXPECT_EQ(b.buflen, 256);
	void *storage = b.buf;
	blob_put_u32(&b, 1, 1);
	ASSERT_EQ(blob_buf_init(&b, 0), 0);
	EXPECT_EQ(b.buf, storage);
	EXPECT_EQ(to_hex(b.head, 4), "00 00 00 04");
	blob_buf_free(&b);
	EXPECT_EQ(b.buf, nullptr);
	EXPECT_EQ(b.head, nullptr);
	EXPECT_EQ(b.buflen, 0);
	ASSERT_EQ(blob_buf_init(&b, 0), 0);  // usable again after free
	blob_buf_free(&b);
}

TEST(BlobBuild, NestingCountsPaddedChildrenInEveryLevel)
{
	scoped_buf sb;
	void *outer = blob_nest_start(&sb.b, 7);
	ASSERT_NE(outer, nullptr);
	blob_put_u16(&sb.b, 1, 0xabcd);
	void *inner = blob_nest_start(&sb.b, 6);
	blob_put_u8(&sb.b, 2, 1);
	blob_nest_end(&sb.b, inner);
	blob_nest_end(&sb.b, outer);
	blob_put_string(&sb.b, 3, "x");
	EXPECT_EQ(sb.hex(), to_hex(from_hex("00 00 00 24"
					     " 07 00 00 18"
					     "  01 00 00 06 ab cd 00 00"
					     "  06 00 00 0c"
					     "   02 00 00 05 01 00 00 00"
					     " 03 00 00 06 78 00 00 00")));
	EXPECT_EQ(static_cast<void *>(sb.b.head), sb.b.buf);
}

TEST(BlobBuild, GrowthPreservesCookiesAndFollowsChunkRule)
{
	scoped_buf sb;
	void *cookie = blob_nest_start(&sb.b, 1);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(cookie), uintptr_t{BLOB_COOKIE});
	std::string big(300, 'q');
	// 8 used + header 4 + 301 payload = 313 > 256: grows by (57/256+1)*256
	ASSERT_NE(blob_put_string(&sb.b, 2, big.c_str()), nullptr);
	EXPECT_EQ(sb.b.buflen, 512);
	for (int i = 0; i < 200; i++)
		ASSERT_NE(blob_put_u32(&sb.b, 3, static_cast<uint32_t>(i)), nullptr);
	blob_nest_end(&sb.b, cookie);

	size_t expect_nested = 4 + 308 + 200 * 8;
	EXPECT_EQ(blob_raw_len(sb.b.head), 4 + expect_nested);
	blob_attr *nested = static_cast<blob_attr *>(blob_data(sb.b.head));
	EXPECT_EQ(blob_raw_len(nested), expect_nested);
	int n = 0;
	blob_attr *pos;
	size_t rem;
	blob_for_each_attr(pos, nested, rem) {
		if (blob_id(pos) == 3) {
			EXPECT_EQ(blob_get_u32(pos), static_cast<uint32_t>(n));
			n++;
		}
	}
	EXPECT_EQ(n, 200);
}

TEST(BlobIterate, StopsAtFirstElementThatDoesNotFit)
{
	struct row {
		const char *what;
		const char *container;
		int visited;
	} rows[] = {
		{"well formed", "00 00 00 14 01 00 00 05 01 00 00 00 02 00 00 08 00 00 00 02", 2},
		{"zero length ends walk", "00 00 00 14 01 00 00 05 01 00 00 00 02 00 00 00 00 00 00 02", 1},
		{"short length still occupies one word", "00 00 00 14 01 00 00 05 01 00 00 00 02 00 00 03 00 00 00 02", 3},
		{"element longer than rest", "00 00 00 14 01 00 00 05 01 00 00 00 02 00 00 0c 00 00 00 02", 1},
		{"trailing bytes shorter than a header", "00 00 00 0f 01 00 00 05 01 00 00 00", 1},
		{"empty", "00 00 00 04", 0},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		std::vector<uint8_t> raw = from_hex(r.container);
		raw.resize(raw.size() + 16, 0);
		auto *c = reinterpret_cast<blob_attr *>(raw.data());
		blob_attr *pos;
		int rem;  // callers declare either int or size_t
		int n = 0;
		blob_for_each_attr(pos, c, rem)
			n++;
		EXPECT_EQ(n, r.visited);
	}
	blob_attr *pos;
	size_t rem;
	int n = 0;
	blob_attr *none = nullptr;
	blob_for_each_attr(pos, none, rem)
		n++;
	EXPECT_EQ(n, 0);
}

TEST(BlobCheckType, ExactIntegerSizesAndTerminatedStrings)
{
	struct row {
		int type;
		const char *data;
		unsigned len;
		bool ok;
	} rows[] = {
		{BLOB_ATTR_INT8, "\x01\x02", 2, false},
		{BLOB_ATTR_INT16, "\x01", 1, false},
		{BLOB_ATTR_INT32, "\x01\x02\x03\x04\x05\x06\x07\x08", 8, false},
		{BLOB_ATTR_INT64, "\x01\x02\x03\x04", 4, false},
		{BLOB_ATTR_DOUBLE, "\x01\x02\x03\x04\x05\x06\x07\x08", 8, true},
		{BLOB_ATTR_DOUBLE, "\x01\x02\x03\x04\x05\x06\x07\x08\x09", 9, true},
		{BLOB_ATTR_DOUBLE, "\x01\x02\x03\x04", 4, false},
		{BLOB_ATTR_STRING, "ab", 3, true},
		{BLOB_ATTR_STRING, "ab", 2, false},
		{BLOB_ATTR_STRING, "", 0, false},
		{BLOB_ATTR_UNSPEC, "", 0, true},
		{BLOB_ATTR_BINARY, "xyz", 3, true},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(testing::Message() << "type " << r.type << " len " << r.len);
		EXPECT_EQ(blob_check_type(r.data, r.len, r.type), r.ok);
	}
}

enum { A_INT, A_STR, A_ANY, A_BOUNDED, A_VALIDATED, A_MAX };

bool even_first_byte(const blob_attr_info *, blob_attr *attr)
{
	return blob_get_u8(attr) % 2 == 0;
}

const blob_attr_info parse_info[A_MAX] = {
	{BLOB_ATTR_INT32, 0, 0, nullptr},
	{BLOB_ATTR_STRING, 0, 0, nullptr},
	{BLOB_ATTR_UNSPEC, 0, 0, nullptr},
	{BLOB_ATTR_BINARY, 6, 8, nullptr},  // raw length 6..8
	{BLOB_ATTR_UNSPEC, 0, 0, even_first_byte},
};

TEST(BlobParse, FiltersByInfoAndLastDuplicateWins)
{
	struct row {
		const char *what;
		void (*fill)(blob_buf *);
		int found;
		const char *present;  // one char per id: '1' set, '0' empty
	} rows[] = {
		{"all valid", [](blob_buf *b) {
			 blob_put_u32(b, A_INT, 1);
			 blob_put_string(b, A_STR, "s");
			 blob_put(b, A_ANY, nullptr, 0);
			 blob_put(b, A_BOUNDED, "ab", 2);
			 blob_put_u8(b, A_VALIDATED, 4);
		 }, 5, "11111"},
		{"wrong int width", [](blob_buf *b) { blob_put_u16(b, A_INT, 1); }, 0, "00000"},
		{"string without NUL", [](blob_buf *b) { blob_put(b, A_STR, "abc", 3); }, 0, "00000"},
		{"raw length bounds", [](blob_buf *b) {
			 blob_put(b, A_BOUNDED, "a", 1);
			 blob_put(b, A_BOUNDED, "abcde", 5);
		 }, 0, "00000"},
		{"validator", [](blob_buf *b) { blob_put_u8(b, A_VALIDATED, 3); }, 0, "00000"},
		{"id beyond max ignored", [](blob_buf *b) { blob_put_u8(b, A_MAX, 0); blob_put_u8(b, 120, 0); }, 0, "00000"},
		{"duplicates counted once", [](blob_buf *b) {
			 blob_put_u32(b, A_INT, 1);
			 blob_put_u32(b, A_INT, 2);
		 }, 1, "10000"},
	};
	for (const row &r : rows) {
		SCOPED_TRACE(r.what);
		scoped_buf sb;
		r.fill(&sb.b);
		blob_attr *tb[A_MAX];
		memset(tb, 0xaa, sizeof(tb));
		EXPECT_EQ(blob_parse(sb.b.head, tb, parse_info, A_MAX), r.found);
		std::string present;
		for (blob_attr *a : tb)
			present += a ? '1' : '0';
		EXPECT_EQ(present, r.present);
	}

	scoped_buf sb;
	blob_put_u32(&sb.b, A_INT, 1);
	blob_put_u32(&sb.b, A_INT, 2);
	blob_attr *tb[A_MAX];
	blob_parse(sb.b.head, tb, parse_info, A_MAX);
	ASSERT_NE(tb[A_INT], nullptr);
	EXPECT_EQ(blob_get_u32(tb[A_INT]), 2u);
}

TEST(BlobParse, UntrustedLengthLimitsTheWalk)
{
	scoped_buf sb;
	blob_put_u32(&sb.b, A_INT, 1);
	blob_put_string(&sb.b, A_STR, "abc");
	blob_attr *tb[A_MAX];
	EXPECT_EQ(blob_parse_untrusted(sb.b.head, blob_raw_len(sb.b.head), tb, parse_info, A_MAX), 2);
	// the outer header claims more than the caller trusts
	EXPECT_EQ(blob_parse_untrusted(sb.b.head, 12, tb, parse_info, A_MAX), 0);
	EXPECT_EQ(tb[A_INT], nullptr);
	EXPECT_EQ(blob_parse_untrusted(sb.b.head, 3, tb, parse_info, A_MAX), 0);
	EXPECT_EQ(blob_parse_untrusted(nullptr, 100, tb, parse_info, A_MAX), 0);
}

}  // namespace

namespace {

// The byte-order macros of utils.h against the bytes they must produce, and
// the value getters built on them reading payloads that are 4-byte aligned
// only (as every payload in a message is): each row is one value of one
// width, its big-endian bytes, and its width.
struct order_row {
	uint64_t value;
	const char *be;
	int width;
};

constexpr order_row order_rows[] = {
	{0x1234, "12 34", 16},
	{0xfe01, "fe 01", 16},
	{0x12345678, "12 34 56 78", 32},
	{0x80000001, "80 00 00 01", 32},
	{0x0102030405060708ULL, "01 02 03 04 05 06 07 08", 64},
	{0xff00000000000080ULL, "ff 00 00 00 00 00 00 80", 64},
};

std::vector<uint8_t> to_be(const order_row &r)
{
	std::vector<uint8_t> out(static_cast<size_t>(r.width / 8));
	if (r.width == 16) {
		uint16_t v = cpu_to_be16(r.value);
		std::memcpy(out.data(), &v, sizeof(v));
	} else if (r.width == 32) {
		uint32_t v = cpu_to_be32(r.value);
		std::memcpy(out.data(), &v, sizeof(v));
	} else {
		uint64_t v = cpu_to_be64(r.value);
		std::memcpy(out.data(), &v, sizeof(v));
	}
	return out;
}

uint64_t from_be(const order_row &r, const std::vector<uint8_t> &bytes)
{
	if (r.width == 16) {
		uint16_t v;
		std::memcpy(&v, bytes.data(), sizeof(v));
		return be16_to_cpu(v);
	}
	if (r.width == 32) {
		uint32_t v;
		std::memcpy(&v, bytes.data(), sizeof(v));
		return be32_to_cpu(v);
	}
	uint64_t v;
	std::memcpy(&v, bytes.data(), sizeof(v));
	return be64_to_cpu(v);
}

TEST(ByteOrder, MacrosWriteAndReadBigEndianBytes)
{
	for (const auto &r : order_rows) {
		SCOPED_TRACE(r.be);
		EXPECT_EQ(to_hex(to_be(r)), r.be);
		EXPECT_EQ(from_be(r, from_hex(r.be)), r.value);
	}
}

TEST(ByteOrder, MacrosTakeExpressionsAndEvaluateThemOnce)
{
	int calls = 0;
	auto next = [&calls] { return static_cast<uint32_t>(0x01020300 + ++calls); };
	EXPECT_EQ(cpu_to_be32(next()), 0x01030201u);
	EXPECT_EQ(calls, 1);
	// Wider arguments are cut to the macro's width before swapping, and an
	// operator of low precedence stays inside the conversion.
	EXPECT_EQ(cpu_to_be16(0xabcd1234u), 0x3412u);
	EXPECT_EQ(cpu_to_be16(0x1200 | 0x34), 0x3412u);
	EXPECT_EQ(be32_to_cpu(cpu_to_be32(0x11223344u) ^ 0), 0x11223344u);
	EXPECT_EQ(le32_to_cpu(cpu_to_le32(0x11223344u)), 0x11223344u);
}

TEST(ByteOrder, GettersReadPayloadsThatAreOnlyFourByteAligned)
{
	for (const auto &r : order_rows) {
		SCOPED_TRACE(r.be);
		scoped_buf sb(0);
		// An empty attribute first puts the values 4 bytes past an 8-byte
		// boundary: a plain 64-bit load there is misaligned.
		char none = 0;
		ASSERT_NE(blob_put(&sb.b, 0, &none, 0), nullptr);
		blob_attr *plain = r.width == 16 ? blob_put_u16(&sb.b, 1, static_cast<uint16_t>(r.value))
				 : r.width == 32 ? blob_put_u32(&sb.b, 1, static_cast<uint32_t>(r.value))
						 : blob_put_u64(&sb.b, 1, r.value);
		ASSERT_NE(plain, nullptr);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(blob_data(plain)) % 8, 4u);
		EXPECT_EQ(to_hex(blob_data(plain), blob_len(plain)), r.be);
		uint64_t got = r.width == 16 ? blob_get_u16(plain) : r.width == 32 ? blob_get_u32(plain) : blob_get_u64(plain);
		EXPECT_EQ(got, r.value);

		int type = r.width == 16 ? BLOBMSG_TYPE_INT16 : r.width == 32 ? BLOBMSG_TYPE_INT32 : BLOBMSG_TYPE_INT64;
		std::vector<uint8_t> be = from_hex(r.be);
		ASSERT_EQ(blobmsg_add_field(&sb.b, type, "v", be.data(), static_cast<unsigned int>(be.size())), 0);
		blob_attr *named = nullptr;
		blob_attr *pos;
		size_t rem;
		blob_for_each_attr(pos, sb.b.head, rem)
			named = pos;
		ASSERT_NE(named, nullptr);
		if (r.width == 64) {
			EXPECT_EQ(reinterpret_cast<uintptr_t>(blobmsg_data(named)) % 8, 4u);
		}
		EXPECT_EQ(blobmsg_cast_u64(named), r.value);
		EXPECT_EQ(static_cast<uint64_t>(blobmsg_cast_s64(named)),
			  r.width == 16 ? static_cast<uint64_t>(static_cast<int16_t>(r.value))
			  : r.width == 32 ? static_cast<uint64_t>(static_cast<int32_t>(r.value))
					  : r.value);
	}
}

}  // namespace
