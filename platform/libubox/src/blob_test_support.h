// Byte-level helpers for the blob, blobmsg and JSON tests.
#ifndef LIBUBOX_BLOB_TEST_SUPPORT_H
#define LIBUBOX_BLOB_TEST_SUPPORT_H

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
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
