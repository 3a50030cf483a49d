#include "util/converter.h"

#include "util/gsm7_tables.h"

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using u16s = std::vector<uint16_t>;

// Packs septets LSB first after fill_bits zero bits, as an SMS user data
// field carries them; returns the bytes and the length in 4-bit units.
std::vector<uint8_t> pack7(const std::vector<uint8_t> &septets, unsigned fill_bits, size_t *nibbles)
{
    const size_t bits = fill_bits + 7 * septets.size();
    std::vector<uint8_t> out((bits + 7) / 8, 0);
    size_t pos = fill_bits;
    for (uint8_t s : septets)
        for (unsigned b = 0; b < 7; b++, pos++)
            if ((s >> b) & 1)
                out[pos / 8] |= static_cast<uint8_t>(1u << (pos % 8));
    *nibbles = (bits + 3) / 4;
    return out;
}

u16s be_units(const std::vector<uint8_t> &bytes, int n)
{
    u16s out;
    for (int i = 0; i < n; i++)
        out.push_back(static_cast<uint16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]));
    return out;
}

// Decodes septets with a destination of exactly `room` units on the heap.
int decode7(const std::vector<uint8_t> &septets, size_t room, u16s *units, unsigned fill = 0, unsigned ls = 0,
            unsigned ss = 0)
{
    size_t nibbles = 0;
    const auto packed = pack7(septets, fill, &nibbles);
    std::vector<uint8_t> dst(2 * room);
    const int n = gsm_7bit_to_ucs2(packed.data(), nibbles, dst.data(), room, fill, ls, ss);
    if (units && n >= 0)
        *units = be_units(dst, n);
    return n;
}

TEST(Utf8CharLen, Table)
{
    struct row {
        const char *in;
        int len;
    };
    const row rows[] = {
        {"", 0},
        {"A", 1},
        {"\x7f", 1},
        {"\xc3\xa9", 2},
        {"\xc3\x28", -1},
        {"\xe2\x82\xac", 3},
        {"\xe2\x82", -1}, // continuation missing before the NUL
        {"\xf0\x9f\x98\x80", 4},
        {"\xf0\x9f\x98", -1},
        {"\x80", -1}, // stray continuation
        {"\xbf\x41", -1},
        {"\xf8\x88\x80\x80\x80", -1}, // lead byte 0xF8 and above
        {"\xff", -1},
        {"\xc0\x80", 2}, // overlong forms are not this function's concern
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(std::string(r.in)));
        EXPECT_EQ(utf8_char_len(r.in), r.len);
    }
    EXPECT_EQ(utf8_char_len(nullptr), 0);
}

TEST(Utf8ToUtf16, Table)
{
    struct row {
        const char *label;
        std::string in;
        u16s out;
    };
    const row rows[] = {
        {"ascii and euro", "A\xe2\x82\xac", {0x41, 0x20AC}},
        {"two-byte", "\xc3\xa9t\xc3\xa9", {0xE9, 0x74, 0xE9}},
        {"astral pair", "\xf0\x9f\x98\x80", {0xD83D, 0xDE00}},
        {"highest code point", "\xf4\x8f\xbf\xbf", {0xDBFF, 0xDFFF}},
        {"above U+10FFFF", "\xf4\x90\x80\x80", {0xFFFD}},
        {"overlong 2-byte", "\xc0\x80", {0xFFFD}},
        {"overlong 3-byte", "\xe0\x80\xaf", {0xFFFD}},
        {"encoded surrogate", "\xed\xa0\x80", {0xFFFD}},
        {"bad continuation keeps next byte", "\xc3\x28", {0xFFFD, 0x28}},
        {"stray continuation",
         "\x80"
         "A",
         {0xFFFD, 0x41}},
        {"lead 0xF8",
         "\xf8"
         "A",
         {0xFFFD, 0x41}},
        {"truncated at end", "A\xe2\x82", {0x41, 0xFFFD}},
        {"embedded NUL", std::string("a\0b", 3), {0x61, 0x00, 0x62}},
        {"empty", "", {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        EXPECT_EQ(utf8_to_utf16(r.in.data(), r.in.size(), nullptr, 0), r.out.size());
        u16s dst(r.out.size() + 2, 0x5555);
        const size_t n = utf8_to_utf16(r.in.data(), r.in.size(), dst.data(), dst.size());
        ASSERT_EQ(n, r.out.size());
        dst.resize(n);
        EXPECT_EQ(dst, r.out);
    }
}

TEST(Utf8ToUtf16, DestinationLimits)
{
    const std::string smile_a = "\xf0\x9f\x98\x80"
                                "A";
    u16s one(1, 0);
    // The pair does not fit in one unit and is skipped whole; "A" still does.
    EXPECT_EQ(utf8_to_utf16(smile_a.data(), smile_a.size(), one.data(), 1), 1u);
    EXPECT_EQ(one[0], 0x41);

    const std::string abc = "ABC\xf0\x9f\x98\x80";
    u16s two(2, 0);
    EXPECT_EQ(utf8_to_utf16(abc.data(), abc.size(), two.data(), 2), 2u);
    EXPECT_EQ(two, (u16s{0x41, 0x42}));

    u16s four(4, 0);
    EXPECT_EQ(utf8_to_utf16(abc.data(), abc.size(), four.data(), 4), 3u) << "pair needs two free units";
    EXPECT_EQ(utf8_to_utf16(abc.data(), abc.size(), four.data(), 0), 0u);
}

TEST(Utf16beToUtf8, Table)
{
    struct row {
        const char *label;
        std::vector<uint8_t> in;
        std::string out;
    };
    const row rows[] = {
        {"ascii and euro", {0x00, 0x41, 0x20, 0xAC}, "A\xe2\x82\xac"},
        {"two-byte", {0x00, 0xE9}, "\xc3\xa9"},
        {"pair", {0xD8, 0x3D, 0xDE, 0x00}, "\xf0\x9f\x98\x80"},
        {"lone low surrogate",
         {0xDC, 0x00, 0x00, 0x41},
         "\xed\xb0\x80"
         "A"},
        {"high surrogate then text", {0xD8, 0x3D, 0x00, 0x41}, ""},
        {"high surrogate at end", {0x00, 0x41, 0xD8, 0x3D}, ""},
        {"two highs", {0xD8, 0x3D, 0xD8, 0x3D}, ""},
        {"empty", {}, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        std::vector<char> dst(16, 'x');
        const size_t n = utf16be_to_utf8(r.in.data(), r.in.size() / 2, dst.data(), dst.size());
        EXPECT_EQ(n, r.out.size());
        EXPECT_EQ(std::string(dst.data(), n), r.out);
        EXPECT_EQ(dst[n], '\0');
    }
}

TEST(Utf16beToUtf8, TruncatesKeepingRoomForNul)
{
    const std::vector<uint8_t> in = {0x00, 0x41, 0x20, 0xAC, 0x00, 0x42}; // "A€B"
    struct row {
        size_t size;
        std::string out;
    };
    const row rows[] = {
        {1, ""},
        {2, "A"},
        {3, "A\xe2"},
        {4, "A\xe2\x82"},
        {5, "A\xe2\x82\xac"},
        {6, "A\xe2\x82\xac"
            "B"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.size);
        auto dst = std::make_unique<char[]>(r.size);
        const size_t n = utf16be_to_utf8(in.data(), in.size() / 2, dst.get(), r.size);
        EXPECT_EQ(n, r.out.size());
        EXPECT_EQ(std::string(dst.get(), n), r.out);
        EXPECT_EQ(dst[n], '\0');
    }
    EXPECT_EQ(utf16be_to_utf8(in.data(), 3, nullptr, 8), 0u);
}

TEST(Gsm7ToUcs2, DefaultAlphabetAndEscape)
{
    u16s out;
    // "hello" as a phone packs it.
    const uint8_t hello[] = {0xE8, 0x32, 0x9B, 0xFD, 0x06};
    std::vector<uint8_t> dst(2 * 5);
    ASSERT_EQ(gsm_7bit_to_ucs2(hello, 9, dst.data(), 5, 0, 0, 0), 5);
    EXPECT_EQ(be_units(dst, 5), (u16s{'h', 'e', 'l', 'l', 'o'}));

    ASSERT_EQ(decode7({0x1B, 0x65}, 1, &out), 1);
    EXPECT_EQ(out, (u16s{0x20AC}));
    ASSERT_EQ(decode7({0x00, 0x02, 0x11, 0x1B, 0x3C, 0x1B, 0x2F, 0x7F, 0x10}, 8, &out), 7);
    EXPECT_EQ(out, (u16s{'@', '$', '_', '[', '\\', 0xE0, 0x394}));
    // The escape only applies to the septet right after it.
    ASSERT_EQ(decode7({0x1B, 0x14, 0x14}, 3, &out), 2);
    EXPECT_EQ(out, (u16s{'^', 0x39B}));
}

TEST(Gsm7ToUcs2, NationalLanguages)
{
    struct row {
        const char *label;
        unsigned ls, ss;
        std::vector<uint8_t> septets;
        u16s out;
    };
    const row rows[] = {
        {"turkish locking", 1, 0, {0x07, 0x0B, 0x40, 0x60, 0x04}, {0x131, 0x11E, 0x130, 0xE7, 0x20AC}},
        {"turkish single", 0, 1, {0x1B, 0x47, 0x1B, 0x73, 0x1B, 0x65}, {0x11E, 0x15F, 0x20AC}},
        {"spanish locking is default", 2, 0, {0x04, 0x7F}, {0xE8, 0xE0}},
        {"spanish single", 0, 2, {0x1B, 0x41, 0x1B, 0x75, 0x1B, 0x09}, {0xC1, 0xFA, 0xE7}},
        {"portuguese locking", 3, 0, {0x15, 0x18, 0x24, 0x60}, {0x221E, 0x20AC, 0xBA, '~'}},
        {"portuguese single", 0, 3, {0x1B, 0x5B, 0x1B, 0x12}, {0xC3, 0x3A6}},
        {"hindi locking", 6, 0, {0x15, 0x50, 0x60, 0x41, 0x61}, {0x915, 0x93E, 0x950, 0x92D, 'a'}},
        {"hindi single digits", 0, 6, {0x1B, 0x1C, 0x1B, 0x25, 0x1B, 0x19}, {0x966, 0x96F, 0x964}},
        {"bengali locking", 4, 0, {0x15, 0x0C}, {0x995, ' '}},
        {"tamil locking", 11, 0, {0x15, 0x16}, {0xB95, ' '}},
        {"urdu locking", 13, 0, {0x00, 0x01, 0x20}, {0x627, 0x622, ' '}},
        {"urdu single", 0, 13, {0x1B, 0x1C, 0x1B, 0x19}, {0x6F0, 0x600}},
        {"language 14 and above is default", 14, 99, {0x07, 0x1B, 0x41}, {0xEC, 'A'}},
        {"single-shift reserved shows the default character", 0, 0, {0x1B, 0x41}, {'A'}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.label);
        u16s out;
        ASSERT_EQ(decode7(r.septets, r.septets.size() + 1, &out, 0, r.ls, r.ss), static_cast<int>(r.out.size()));
        EXPECT_EQ(out, r.out);
    }
}

TEST(Gsm7Tables, Shape)
{
    for (unsigned lang = 0; lang < GSM7_LANG_COUNT; lang++) {
        SCOPED_TRACE(lang);
        EXPECT_EQ(LUT_GSM7_LS16[lang][0x1B], 0x1B);
        EXPECT_EQ(LUT_GSM7_LS16[lang][0x0A], 0x0A);
        EXPECT_EQ(LUT_GSM7_LS16[lang][0x0D], 0x0D);
        EXPECT_EQ(LUT_GSM7_LS16[lang][0x20], ' ');
        EXPECT_EQ(LUT_GSM7_SS16[lang][0x65], 0x20AC);
        EXPECT_EQ(LUT_GSM7_SS16[lang][0x0A], 0x0C);
        EXPECT_NE(LUT_GSM7_SS16[lang][0x1B], 0x1B) << "an escape must not chain into another escape";
        for (unsigned c = 0; c < 26; c++)
            EXPECT_EQ(LUT_GSM7_LS16[lang][0x61 + c], 'a' + c);
        for (unsigned s = 0; s < 128; s++) {
            EXPECT_NE(LUT_GSM7_LS16[lang][s], 0) << s;
            EXPECT_NE(LUT_GSM7_SS16[lang][s], 0) << s;
        }
    }
    EXPECT_EQ(0, std::memcmp(LUT_GSM7_LS16[2], LUT_GSM7_LS16[0], sizeof LUT_GSM7_LS16[0]));
}

TEST(Gsm7ToUcs2, FillBitsAfterHeader)
{
    // A 6-byte concatenation header leaves 1 fill bit before the first septet.
    u16s out;
    ASSERT_EQ(decode7({'H', 'i', 0x1B, 0x65}, 4, &out, 1), 3);
    EXPECT_EQ(out, (u16s{'H', 'i', 0x20AC}));
    for (unsigned fill = 0; fill < 7; fill++) {
        SCOPED_TRACE(fill);
        ASSERT_EQ(decode7({0x41, 0x62, 0x33}, 4, &out, fill), 3);
        EXPECT_EQ(out, (u16s{'A', 'b', '3'}));
    }
}

TEST(Gsm7ToUcs2, DestinationSize)
{
    const std::vector<uint8_t> hi = {'H', 'E', 'L', 'L', 'O', ' ', 'W'};
    u16s out;
    // Seven septets end inside the last nibble: seven units of room suffice.
    EXPECT_EQ(decode7(hi, 7, &out), 7);
    EXPECT_EQ(decode7(hi, 6, &out), -1);
    EXPECT_EQ(decode7(hi, 1, &out), -1);
    EXPECT_EQ(decode7(hi, 0, &out), -1);
    // Eight septets fill 14 nibbles exactly.
    EXPECT_EQ(decode7({1, 2, 3, 4, 5, 6, 7, 8}, 8, &out), 8);

    // Fewer than two nibbles: a single 0 unit and result 0.
    uint8_t dst[2] = {0xAA, 0xAA};
    const uint8_t one = 0x41;
    EXPECT_EQ(gsm_7bit_to_ucs2(&one, 1, dst, 1, 0, 0, 0), 0);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], 0);
    EXPECT_EQ(gsm_7bit_to_ucs2(&one, 0, nullptr, 0, 0, 0, 0), 0);
}

// Random inputs of random lengths into exactly sized heap buffers: under
// ASan any read or write past a length given is fatal.
TEST(ConverterFuzz, NeverLeavesGivenLengths)
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

        for (size_t i = 0; i < len; i++) {
            const int cl = utf8_char_len(text + i);
            ASSERT_GE(cl, -1);
            ASSERT_LE(cl, 4);
        }

        const size_t need = utf8_to_utf16(text, len, nullptr, 0);
        ASSERT_LE(need, 2 * len);
        const size_t room = rnd(need + 2);
        auto u16 = std::make_unique<uint16_t[]>(room);
        const size_t got = utf8_to_utf16(text, len, room ? u16.get() : nullptr, room);
        if (room) {
            ASSERT_LE(got, std::min(room, need));
        }
        if (room >= need) {
            ASSERT_EQ(got, need);
        }

        const size_t units = len / 2;
        const size_t out_size = rnd(4 * units + 2) + 1;
        auto out = std::make_unique<char[]>(out_size);
        const size_t w = utf16be_to_utf8(src.get(), units, out.get(), out_size);
        ASSERT_LT(w, out_size);
        ASSERT_EQ(out[w], '\0');

        const size_t dst_units = rnd(2 * len + 2);
        auto ucs = std::make_unique<uint8_t[]>(2 * dst_units);
        const int g = gsm_7bit_to_ucs2(src.get(), rnd(2 * len + 1), ucs.get(), dst_units, static_cast<unsigned>(rnd(8)),
                                       static_cast<unsigned>(rnd(16)), static_cast<unsigned>(rnd(16)));
        ASSERT_GE(g, -1);
        ASSERT_LE(g, static_cast<int>(dst_units));
    }
}

// Valid UTF-16 (pairs kept whole) survives UTF-8 and back unchanged.
TEST(ConverterFuzz, Utf16RoundTrip)
{
    std::mt19937 rng(7);
    for (int iter = 0; iter < 3000; iter++) {
        u16s units;
        const size_t n = rng() % 24;
        while (units.size() < n) {
            const uint32_t r = rng();
            switch (r % 4) {
            case 0:
                units.push_back(static_cast<uint16_t>(r >> 8 & 0x7F));
                break;
            case 1:
                units.push_back(static_cast<uint16_t>(0x80 + (r >> 8) % 0x780));
                break;
            case 2: {
                const auto u = static_cast<uint16_t>(0x800 + (r >> 8) % 0xF800);
                if (u < 0xD800 || u > 0xDFFF)
                    units.push_back(u);
                break;
            }
            default:
                units.push_back(static_cast<uint16_t>(0xD800 + (r >> 8) % 0x400));
                units.push_back(static_cast<uint16_t>(0xDC00 + (r >> 20) % 0x400));
            }
        }
        std::vector<uint8_t> be;
        for (uint16_t u : units) {
            be.push_back(static_cast<uint8_t>(u >> 8));
            be.push_back(static_cast<uint8_t>(u));
        }
        const size_t size = 3 * units.size() + 1;
        auto utf8 = std::make_unique<char[]>(size);
        const size_t len = utf16be_to_utf8(be.data(), units.size(), utf8.get(), size);
        ASSERT_LT(len, size);
        ASSERT_EQ(utf8[len], '\0');
        auto back = std::make_unique<uint16_t[]>(units.size());
        ASSERT_EQ(utf8_to_utf16(utf8.get(), len, back.get(), units.size()), units.size());
        ASSERT_EQ(u16s(back.get(), back.get() + units.size()), units);
    }
}

} // namespace
