#include "util/converter.h"

#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using u16s = std::vector<uint16_t>;

// Decodes septets packed LSB first after `fill` zero bits, as an SMS user
// data field carries them, into a destination of exactly `room` units on the
// heap; the units decoded, or nothing when the result is -1.
int decode7(const std::vector<uint8_t> &septets, size_t room, u16s *units, unsigned fill = 0, unsigned ls = 0,
            unsigned ss = 0)
{
    const size_t bits = fill + 7 * septets.size();
    std::vector<uint8_t> packed((bits + 7) / 8, 0);
    size_t pos = fill;
    for (uint8_t s : septets)
        for (unsigned b = 0; b < 7; b++, pos++)
            if ((s >> b) & 1)
                packed[pos / 8] |= static_cast<uint8_t>(1u << (pos % 8));
    std::vector<uint8_t> dst(2 * room);
    const int n = gsm_7bit_to_ucs2(packed.data(), (bits + 3) / 4, dst.data(), room, fill, ls, ss);
    units->clear();
    for (int i = 0; i < n; i++)
        units->push_back(static_cast<uint16_t>(dst[2 * i] << 8 | dst[2 * i + 1]));
    return n;
}

TEST(Utf8CharLen, LeadAndContinuationBytes)
{
    const std::pair<const char *, int> rows[] = {
        {"", 0},
        {"A", 1},
        {"\xc3\xa9", 2},
        {"\xc3\x28", -1},
        {"\xe2\x82\xac", 3},
        {"\xe2\x82", -1},
        {"\xf0\x9f\x98\x80", 4},
        {"\x80", -1},
        {"\xf8\x88\x80\x80\x80", -1},
        {"\xc0\x80", 2},
    };
    for (const auto &[in, len] : rows) {
        SCOPED_TRACE(testing::PrintToString(std::string(in)));
        EXPECT_EQ(utf8_char_len(in), len);
    }
    EXPECT_EQ(utf8_char_len(nullptr), 0);
}

// Bad sequences become U+FFFD; a pair never goes out half.
TEST(Utf8ToUtf16, UnitsWrittenWithinTheRoomGiven)
{
    struct row {
        const char *label;
        std::string in;
        size_t room; // 0: as many as needed, plus two
        u16s out;
    };
    const row rows[] = {
        {"ascii and euro", "A\xe2\x82\xac", 0, {0x41, 0x20AC}},
        {"astral pair", "\xf0\x9f\x98\x80", 0, {0xD83D, 0xDE00}},
        {"highest code point", "\xf4\x8f\xbf\xbf", 0, {0xDBFF, 0xDFFF}},
        {"above U+10FFFF", "\xf4\x90\x80\x80", 0, {0xFFFD}},
        {"overlong 2-byte", "\xc0\x80", 0, {0xFFFD}},
        {"overlong 3-byte", "\xe0\x80\xaf", 0, {0xFFFD}},
        {"encoded surrogate", "\xed\xa0\x80", 0, {0xFFFD}},
        {"bad continuation keeps next byte", "\xc3\x28", 0, {0xFFFD, 0x28}},
        {"stray continuation", "\x80\x41", 0, {0xFFFD, 0x41}},
        {"truncated at end", "A\xe2\x82", 0, {0x41, 0xFFFD}},
        {"embedded NUL", std::string("a\0b", 3), 0, {0x61, 0x00, 0x62}},
        {"pair skipped whole when one unit is left", "\xf0\x9f\x98\x80\x41", 1, {0x41}},
        {"stops at the room", "ABC", 2, {0x41, 0x42}},
        {"pair needs two free units", "ABC\xf0\x9f\x98\x80", 4, {0x41, 0x42, 0x43}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        if (!r.room) {
            EXPECT_EQ(utf8_to_utf16(r.in.data(), r.in.size(), nullptr, 0), r.out.size());
        }
        u16s dst(r.room ? r.room : r.out.size() + 2, 0x5555);
        dst.resize(utf8_to_utf16(r.in.data(), r.in.size(), dst.data(), dst.size()));
        EXPECT_EQ(dst, r.out);
    }
}

// A lone low surrogate passes as its three bytes; a high one without its
// partner ends the text. Output is cut to the size given, NUL included.
TEST(Utf16beToUtf8, BytesWrittenWithinTheSizeGiven)
{
    struct row {
        const char *label;
        std::vector<uint8_t> in;
        size_t size;
        std::string out;
    };
    const std::vector<uint8_t> a_euro_b = {0x00, 0x41, 0x20, 0xAC, 0x00, 0x42};
    const row rows[] = {
        {"two-byte", {0x00, 0xE9}, 16, "\xc3\xa9"},
        {"pair", {0xD8, 0x3D, 0xDE, 0x00}, 16, "\xf0\x9f\x98\x80"},
        {"lone low surrogate", {0xDC, 0x00, 0x00, 0x41}, 16, "\xed\xb0\x80\x41"},
        {"high surrogate then text", {0xD8, 0x3D, 0x00, 0x41}, 16, ""},
        {"high surrogate at end", {0x00, 0x41, 0xD8, 0x3D}, 16, ""},
        {"two highs", {0xD8, 0x3D, 0xD8, 0x3D}, 16, ""},
        {"empty", {}, 16, ""},
        {"room for the NUL only", a_euro_b, 1, ""},
        {"cut inside a character", a_euro_b, 3, "A\xe2"},
        {"whole but the last", a_euro_b, 5, "A\xe2\x82\xac"},
        {"exactly enough", a_euro_b, 6, "A\xe2\x82\xac\x42"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        auto dst = std::make_unique<char[]>(r.size);
        const size_t n = utf16be_to_utf8(r.in.data(), r.in.size() / 2, dst.get(), r.size);
        EXPECT_EQ(std::string(dst.get(), n), r.out);
        EXPECT_EQ(dst[n], '\0');
    }
    EXPECT_EQ(utf16be_to_utf8(a_euro_b.data(), 3, nullptr, 8), 0u);
}

TEST(Gsm7ToUcs2, AlphabetsEscapesFillBitsAndRoom)
{
    struct row {
        const char *label;
        std::vector<uint8_t> septets;
        u16s out; // empty: -1 expected
        unsigned fill = 0, ls = 0, ss = 0;
        size_t room = 0; // 0: one more unit than the septets
    };
    // clang-format off
    const row rows[] = {
        {"default and escape", {0x00, 0x02, 0x11, 0x1B, 0x3C, 0x1B, 0x2F, 0x7F, 0x10}, {'@', '$', '_', '[', '\\', 0xE0, 0x394}},
        {"escape applies to one septet", {0x1B, 0x14, 0x14}, {'^', 0x39B}},
        {"euro after a one-bit fill", {'H', 'i', 0x1B, 0x65}, {'H', 'i', 0x20AC}, 1},
        {"six fill bits", {0x41, 0x62, 0x33}, {'A', 'b', '3'}, 6},
        {"turkish locking", {0x07, 0x0B, 0x40, 0x60, 0x04}, {0x131, 0x11E, 0x130, 0xE7, 0x20AC}, 0, 1},
        {"turkish single", {0x1B, 0x47, 0x1B, 0x73, 0x1B, 0x65}, {0x11E, 0x15F, 0x20AC}, 0, 0, 1},
        {"spanish single", {0x1B, 0x41, 0x1B, 0x75, 0x1B, 0x09}, {0xC1, 0xFA, 0xE7}, 0, 0, 2},
        {"portuguese locking", {0x15, 0x18, 0x24, 0x60}, {0x221E, 0x20AC, 0xBA, '~'}, 0, 3},
        {"hindi locking", {0x15, 0x50, 0x60, 0x41, 0x61}, {0x915, 0x93E, 0x950, 0x92D, 'a'}, 0, 6},
        {"hindi single digits", {0x1B, 0x1C, 0x1B, 0x25, 0x1B, 0x19}, {0x966, 0x96F, 0x964}, 0, 0, 6},
        {"urdu locking", {0x00, 0x01, 0x20}, {0x627, 0x622, ' '}, 0, 13},
        {"language 14 and above is default", {0x07, 0x1B, 0x41}, {0xEC, 'A'}, 0, 14, 99},
        {"seven septets fit seven units", {'H', 'E', 'L', 'L', 'O', ' ', 'W'}, {'H', 'E', 'L', 'L', 'O', ' ', 'W'}, 0, 0, 0, 7},
        {"one unit short", {'H', 'E', 'L', 'L', 'O', ' ', 'W'}, {}, 0, 0, 0, 6},
        {"eight septets fill fourteen nibbles", {1, 2, 3, 4, 5, 6, 7, 8}, {0xA3, '$', 0xA5, 0xE8, 0xE9, 0xF9, 0xEC, 0xF2}, 0, 0, 0, 8},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        u16s out;
        EXPECT_EQ(decode7(r.septets, r.room ? r.room : r.septets.size() + 1, &out, r.fill, r.ls, r.ss),
                  r.out.empty() ? -1 : static_cast<int>(r.out.size()));
        EXPECT_EQ(out, r.out);
    }
    // "hello" as a phone packs it; under two nibbles: a single 0 unit.
    const uint8_t hello[] = {0xE8, 0x32, 0x9B, 0xFD, 0x06}, one = 0x41;
    uint8_t dst[10] = {0xAA, 0xAA};
    ASSERT_EQ(gsm_7bit_to_ucs2(hello, 9, dst, 5, 0, 0, 0), 5);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(dst), 10), std::string("\0h\0e\0l\0l\0o", 10));
    EXPECT_EQ(gsm_7bit_to_ucs2(&one, 1, dst, 1, 0, 0, 0), 0);
    EXPECT_EQ(dst[0] | dst[1], 0);
}

// Random inputs into exactly sized heap buffers (under ASan any access past
// a length given is fatal); valid UTF-16 survives UTF-8 and back unchanged.
TEST(ConverterFuzz, StaysWithinGivenLengthsAndRoundTrips)
{
    std::mt19937 rng(20260601);
    auto rnd = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    for (int iter = 0; iter < 4000; iter++) {
        const size_t len = rnd(40);
        auto src = std::make_unique<uint8_t[]>(len + 1);
        for (size_t i = 0; i < len; i++)
            src[i] = static_cast<uint8_t>(iter % 3 ? rng() : 0x80 | (rng() & 0x7F));
        src[len] = 0;
        const char *text = reinterpret_cast<const char *>(src.get());
        for (size_t i = 0; i < len; i++)
            ASSERT_LE(utf8_char_len(text + i), 4);

        const size_t need = utf8_to_utf16(text, len, nullptr, 0), room = rnd(need + 2);
        auto u16 = std::make_unique<uint16_t[]>(room);
        const size_t got = utf8_to_utf16(text, len, room ? u16.get() : nullptr, room);
        ASSERT_EQ(got, room >= need ? need : got);
        ASSERT_LE(got, room ? std::min(room, need) : need);

        const size_t out_size = rnd(2 * len + 2) + 1;
        auto out = std::make_unique<char[]>(out_size);
        const size_t w = utf16be_to_utf8(src.get(), len / 2, out.get(), out_size);
        ASSERT_LT(w, out_size);
        ASSERT_EQ(out[w], '\0');

        const size_t dst_units = rnd(2 * len + 2);
        auto ucs = std::make_unique<uint8_t[]>(2 * dst_units);
        const int g = gsm_7bit_to_ucs2(src.get(), rnd(2 * len + 1), ucs.get(), dst_units, static_cast<unsigned>(rnd(8)),
                                       static_cast<unsigned>(rnd(16)), static_cast<unsigned>(rnd(16)));
        ASSERT_LE(g, static_cast<int>(dst_units));

        // code points of every encoded length, surrogates left out
        std::vector<uint8_t> be;
        while (be.size() < 2 * len) {
            const uint32_t cp = static_cast<uint32_t>(rnd(0x110000) >> rnd(21));
            if (cp >= 0x10000)
                be.insert(be.end(), {static_cast<uint8_t>(0xD8 | (cp - 0x10000) >> 18),
                                     static_cast<uint8_t>((cp - 0x10000) >> 10),
                                     static_cast<uint8_t>(0xDC | (cp >> 8 & 3)), static_cast<uint8_t>(cp)});
            else if (cp < 0xD800 || cp > 0xDFFF)
                be.insert(be.end(), {static_cast<uint8_t>(cp >> 8), static_cast<uint8_t>(cp)});
        }
        const size_t units = be.size() / 2, size = 3 * units + 1;
        auto utf8 = std::make_unique<char[]>(size);
        const size_t n = utf16be_to_utf8(be.data(), units, utf8.get(), size);
        ASSERT_LT(n, size);
        u16s back(units);
        ASSERT_EQ(utf8_to_utf16(utf8.get(), n, back.data(), back.size()), units);
        for (size_t i = 0; i < units; i++)
            ASSERT_EQ(back[i], be[2 * i] << 8 | be[2 * i + 1]) << i;
    }
}

} // namespace
