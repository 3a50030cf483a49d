#include "util/converter.h"

#include "util/gsm7_tables.h"

namespace
{

constexpr uint16_t replacement_char = 0xFFFD;

// Lead byte forms of 1- to 4-byte UTF-8 sequences: (mask, value).
constexpr struct {
    uint8_t mask;
    uint8_t value;
} utf8_leading_bytes[] = {{0x80, 0x00}, {0xE0, 0xC0}, {0xF0, 0xE0}, {0xF8, 0xF0}};

bool is_continuation(uint8_t b)
{
    return (b & 0xC0) == 0x80;
}

size_t utf8_needed(uint32_t cp)
{
    return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
}

// Decodes one sequence starting at src[*pos], advancing *pos past the bytes
// it accepted. A bad continuation byte is left for the next call.
uint32_t decode_utf8(const uint8_t *src, size_t src_len, size_t *pos)
{
    const uint8_t lead = src[(*pos)++];
    size_t len = 0;
    for (size_t k = 0; k < 4; k++) {
        if ((lead & utf8_leading_bytes[k].mask) == utf8_leading_bytes[k].value) {
            len = k + 1;
            break;
        }
    }
    if (len == 0)
        return replacement_char;
    uint32_t cp = lead & static_cast<uint8_t>(~utf8_leading_bytes[len - 1].mask);
    for (size_t j = 1; j < len; j++) {
        if (*pos >= src_len || !is_continuation(src[*pos]))
            return replacement_char;
        cp = (cp << 6) | (src[(*pos)++] & 0x3F);
    }
    if (utf8_needed(cp) != len || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
        return replacement_char;
    return cp;
}

size_t encode_utf8(uint32_t cp, uint8_t out[4])
{
    if (cp < 0x80) {
        out[0] = static_cast<uint8_t>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<uint8_t>(0xC0 | (cp >> 6));
        out[1] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<uint8_t>(0xE0 | (cp >> 12));
        out[1] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<uint8_t>(0xF0 | (cp >> 18));
    out[1] = static_cast<uint8_t>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
    return 4;
}

uint16_t be_unit(const uint8_t *p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

constexpr uint8_t gsm7_escape = 0x1B;

// Characters reached through the escape in the default extension table, with
// the septet that follows the escape.
constexpr struct {
    uint16_t ucs;
    uint8_t code;
} ext_alpha[] = {{0x000C, 0x0A}, {'^', 0x14}, {'{', 0x28}, {'}', 0x29}, {'\\', 0x2F},
                 {'[', 0x3C},    {'~', 0x3D}, {']', 0x3E}, {'|', 0x40}, {0x20AC, 0x65}};

// Septet of a code point in the default alphabet, or -1. The escape position
// holds no character: U+001B has no code.
int default_septet(uint32_t cp)
{
    if (cp == gsm7_escape)
        return -1;
    const uint16_t *def_alpha = LUT_GSM7_LS16[0];
    for (int i = 0; i < 128; i++)
        if (def_alpha[i] == cp)
            return i;
    return -1;
}

int extension_septet(uint32_t cp)
{
    for (const auto &e : ext_alpha)
        if (e.ucs == cp)
            return e.code;
    return -1;
}

} // namespace

int utf8_char_len(const char *s)
{
    if (!s || *s == '\0')
        return 0;
    const auto *p = reinterpret_cast<const uint8_t *>(s);
    int len;
    if (p[0] < 0x80)
        return 1;
    else if ((p[0] & 0xE0) == 0xC0)
        len = 2;
    else if ((p[0] & 0xF0) == 0xE0)
        len = 3;
    else if ((p[0] & 0xF8) == 0xF0)
        len = 4;
    else
        return -1;
    // A NUL is no continuation byte, so this never runs past the terminator.
    for (int i = 1; i < len; i++)
        if (!is_continuation(p[i]))
            return -1;
    return len;
}

size_t utf8_to_utf16(const char *src, size_t src_len, uint16_t *dst, size_t dst_units)
{
    if (!src)
        return 0;
    const auto *s = reinterpret_cast<const uint8_t *>(src);
    size_t pos = 0;
    size_t n = 0;
    while (pos < src_len) {
        const uint32_t cp = decode_utf8(s, src_len, &pos);
        if (cp >= 0x10000) {
            if (!dst) {
                n += 2;
            } else if (dst_units - n >= 2) {
                dst[n++] = static_cast<uint16_t>(0xD800 | ((cp - 0x10000) >> 10));
                dst[n++] = static_cast<uint16_t>(0xDC00 | ((cp - 0x10000) & 0x3FF));
            }
        } else if (!dst) {
            n++;
        } else if (n < dst_units) {
            dst[n++] = static_cast<uint16_t>(cp);
        }
    }
    return n;
}

size_t utf16be_to_utf8(const uint8_t *src, size_t src_units, char *dst, size_t dst_size)
{
    if (!dst || dst_size == 0)
        return 0;
    if (!src)
        src_units = 0;
    size_t o = 0;
    for (size_t i = 0; i < src_units; i++) {
        uint32_t cp = be_unit(src + 2 * i);
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            const uint32_t lo = i + 1 < src_units ? be_unit(src + 2 * (i + 1)) : 0;
            if (lo < 0xDC00 || lo > 0xDFFF) {
                dst[0] = '\0';
                return 0;
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
            i++;
        }
        uint8_t bytes[4];
        const size_t len = encode_utf8(cp, bytes);
        for (size_t k = 0; k < len; k++) {
            if (dst_size - o < 2) {
                dst[o] = '\0';
                return o;
            }
            dst[o++] = static_cast<char>(bytes[k]);
        }
    }
    dst[o] = '\0';
    return o;
}

int gsm_7bit_to_ucs2(const uint8_t *src, size_t nibbles, uint8_t *dst, size_t dst_units, unsigned fill_bits,
                     unsigned locking_lang, unsigned single_lang)
{
    if (nibbles < 2) {
        if (dst && dst_units > 0)
            dst[0] = dst[1] = 0;
        return 0;
    }
    if (!src || !dst)
        return -1;
    const uint16_t *ls = LUT_GSM7_LS16[locking_lang < GSM7_LANG_COUNT ? locking_lang : 0];
    const uint16_t *ss = LUT_GSM7_SS16[single_lang < GSM7_LANG_COUNT ? single_lang : 0];

    size_t n = 0;
    unsigned septet = 0;
    unsigned nbits = 0;
    unsigned skip = fill_bits;
    bool escaped = false;
    for (size_t i = 0; i < nibbles; i++) {
        const unsigned nibble = (i & 1) ? src[i / 2] >> 4 : src[i / 2] & 0x0F;
        for (unsigned b = 0; b < 4; b++) {
            if (skip) {
                skip--;
                continue;
            }
            septet |= ((nibble >> b) & 1u) << nbits;
            if (++nbits < 7)
                continue;
            const uint16_t ucs = escaped ? ss[septet] : ls[septet];
            septet = 0;
            nbits = 0;
            if (ucs == 0x1B) {
                escaped = true;
                continue;
            }
            escaped = false;
            if (n >= dst_units)
                return -1;
            dst[2 * n] = static_cast<uint8_t>(ucs >> 8);
            dst[2 * n + 1] = static_cast<uint8_t>(ucs & 0xFF);
            n++;
        }
        if (i + 1 < nibbles && n >= dst_units)
            return -1;
    }
    return static_cast<int>(n);
}

char code_to_digit(uint8_t code)
{
    static constexpr char digits[] = "0123456789*#ABC";
    return code < 15 ? digits[code] : '\0';
}

size_t utf8_to_unpacked_gsm7(const char *src, size_t src_len, uint8_t *dst, size_t dst_size, size_t *unmapped)
{
    size_t missing = 0;
    size_t n = 0;
    if (src) {
        const auto *s = reinterpret_cast<const uint8_t *>(src);
        size_t pos = 0;
        while (pos < src_len) {
            const uint32_t cp = decode_utf8(s, src_len, &pos);
            uint8_t septets[2];
            size_t len = 1;
            if (const int d = default_septet(cp); d >= 0) {
                septets[0] = static_cast<uint8_t>(d);
            } else if (const int e = extension_septet(cp); e >= 0) {
                septets[0] = gsm7_escape;
                septets[1] = static_cast<uint8_t>(e);
                len = 2;
            } else {
                septets[0] = '?';
                missing++;
            }
            if (!dst) {
                n += len;
            } else if (dst_size - n >= len) {
                for (size_t k = 0; k < len; k++)
                    dst[n++] = septets[k];
            }
        }
    }
    if (unmapped)
        *unmapped = missing;
    return n;
}
