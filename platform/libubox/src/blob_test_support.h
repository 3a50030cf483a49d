// Hex helpers for byte-level blob tests.
#ifndef LIBUBOX_BLOB_TEST_UTIL_H
#define LIBUBOX_BLOB_TEST_UTIL_H

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace blob_test {

// "85 00 00 0c ..." -> bytes; whitespace is ignored.
inline std::vector<uint8_t> from_hex(const char *text)
{
	std::vector<uint8_t> out;
	int hi = -1;
	for (const char *p = text; *p; p++) {
		if (std::isspace(static_cast<unsigned char>(*p)))
			continue;
		int v = std::isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : std::tolower(*p) - 'a' + 10;
		if (hi < 0) {
			hi = v;
		} else {
			out.push_back(static_cast<uint8_t>(hi << 4 | v));
			hi = -1;
		}
	}
	return out;
}

inline std::string to_hex(const void *data, size_t len)
{
	std::string out;
	char tmp[4];
	for (size_t i = 0; i < len; i++) {
		std::snprintf(tmp, sizeof(tmp), "%s%02x", i ? " " : "", static_cast<const uint8_t *>(data)[i]);
		out += tmp;
	}
	return out;
}

inline std::string to_hex(const std::vector<uint8_t> &v)
{
	return to_hex(v.data(), v.size());
}

}  // namespace blob_test

#endif
