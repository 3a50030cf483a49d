// Byte-level helpers for the blob, blobmsg and JSON tests.
#ifndef LIBUBOX_BLOB_TEST_SUPPORT_H
#define LIBUBOX_BLOB_TEST_SUPPORT_H

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace blob_test
{

// "8500000c 00016e00 ..." -> bytes; whitespace is ignored.
inline std::vector<uint8_t> from_hex(const char *text)
{
    std::vector<uint8_t> out;
    int hi = -1;
    for (const char *p = text; *p; p++) {
        if (std::isspace(static_cast<unsigned char>(*p)))
            continue;
        int v = std::isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : std::tolower(*p) - 'a' + 10;
        if (hi < 0)
            hi = v;
        else
            out.push_back(static_cast<uint8_t>(hi << 4 | v)), hi = -1;
    }
    return out;
}

// Bytes as hex, in words of four bytes.
inline std::string to_hex(const void *data, size_t len)
{
    std::string out;
    char tmp[4];
    for (size_t i = 0; i < len; i++) {
        std::snprintf(tmp, sizeof(tmp), "%s%02x", i && i % 4 == 0 ? " " : "", static_cast<const uint8_t *>(data)[i]);
        out += tmp;
    }
    return out;
}

inline std::string to_hex(const std::vector<uint8_t> &v)
{
    return to_hex(v.data(), v.size());
}

// The same hex text, spaced as to_hex writes it.
inline std::string canon(const char *hex)
{
    return to_hex(from_hex(hex));
}

// Adds blobmsg members to b from space-separated tokens:
//   <t>[:name]=value   t is b (u8), h (u16), i (u32), l (u64), d (double) or s (string);
//   f<type>[:name]=raw a field of that blobmsg type holding raw verbatim (no NUL);
//   p=value            a plain INT32 attribute, not a blobmsg one;
//   {[:name] [[:name]  open a table or array; } or ] closes the innermost;
//   @<id><t>=value     a plain blob attribute: t is b, h, i, l or s as above, x for
//                      hex bytes, r for hex bytes that carry their own header;
//   @<id>{             opens a plain nested attribute.
// Without ":" a member has no name; ":" alone gives it an empty one.
inline void add(blob_buf *b, const std::string &tokens)
{
    std::vector<void *> open;
    for (size_t pos = 0, end; pos < tokens.size(); pos = end + 1) {
        end = std::min(tokens.find(' ', pos), tokens.size());
        std::string tok = tokens.substr(pos, end - pos), value;
        if (size_t eq = tok.find('='); eq != std::string::npos)
            value = tok.substr(eq + 1), tok.resize(eq);
        size_t colon = tok.find(':');
        std::string name_text = colon == std::string::npos ? "" : tok.substr(colon + 1);
        const char *name = colon == std::string::npos ? nullptr : name_text.c_str();
        uint64_t n = std::strtoull(value.c_str(), nullptr, 0);
        if (!tok.empty() && tok[0] == '@') {
            char *t;
            int id = static_cast<int>(std::strtol(tok.c_str() + 1, &t, 10));
            std::vector<uint8_t> raw = from_hex(value.c_str());
            if (*t == '{')
                open.push_back(blob_nest_start(b, id));
            else if (*t == 'x')
                blob_put(b, id, raw.empty() ? static_cast<const void *>("") : raw.data(), unsigned(raw.size()));
            else if (*t == 'r')
                blob_put_raw(b, raw.data(), static_cast<unsigned>(raw.size()));
            else if (*t == 'b')
                blob_put_u8(b, id, static_cast<uint8_t>(n));
            else if (*t == 'h')
                blob_put_u16(b, id, static_cast<uint16_t>(n));
            else if (*t == 'i')
                blob_put_u32(b, id, static_cast<uint32_t>(n));
            else if (*t == 'l')
                blob_put_u64(b, id, n);
            else
                blob_put_string(b, id, value.c_str());
            continue;
        }
        switch (tok.empty() ? ' ' : tok[0]) {
        case 'b':
            blobmsg_add_u8(b, name, static_cast<uint8_t>(n));
            break;
        case 'h':
            blobmsg_add_u16(b, name, static_cast<uint16_t>(n));
            break;
        case 'i':
            blobmsg_add_u32(b, name, static_cast<uint32_t>(n));
            break;
        case 'l':
            blobmsg_add_u64(b, name, n);
            break;
        case 'd':
            blobmsg_add_double(b, name, std::strtod(value.c_str(), nullptr));
            break;
        case 's':
            blobmsg_add_string(b, name, value.c_str());
            break;
        case 'p':
            blob_put_u32(b, BLOBMSG_TYPE_INT32, static_cast<uint32_t>(n));
            break;
        case 'f':
            blobmsg_add_field(b, std::atoi(tok.c_str() + 1), name, value.empty() ? nullptr : value.data(),
                              static_cast<unsigned>(value.size()));
            break;
        case '{':
        case '[':
            open.push_back(blobmsg_open_nested(b, name, tok[0] == '['));
            break;
        case '}':
        case ']':
            blob_nest_end(b, open.back()), open.pop_back();
            break;
        default:
            ADD_FAILURE() << "bad token " << tok;
        }
    }
}

// A blob_buf freed at the end of the scope.
struct scoped_buf {
    blob_buf b{};
    explicit scoped_buf(int id = 0) { EXPECT_EQ(blob_buf_init(&b, id), 0); }
    ~scoped_buf() { blob_buf_free(&b); }
    // the whole buffer, head included
    std::string hex() const { return to_hex(b.head, blob_pad_len(b.head)); }
    // the children only, as they go on the wire inside a container
    std::string children_hex() const { return to_hex(blob_data(b.head), blob_len(b.head)); }
    blob_attr *first() const { return static_cast<blob_attr *>(blob_data(b.head)); }
};

} // namespace blob_test

#endif
