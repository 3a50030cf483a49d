// Texts of the Quectel band settings: the hexadecimal masks of
// AT+QCFG="band" and the colon lists of band numbers of AT+QNWPREFCFG.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quectel
{

// LTE masks of AT+QCFG="band" put band n on bit n - 1, so B66, B71 and B85
// lie beyond 64 bits.
struct wide_mask {
    uint64_t w[2] = {0, 0};

    void set(unsigned bit)
    {
        if (bit < 128)
            w[bit / 64] |= uint64_t{1} << (bit % 64);
    }
    bool empty() const { return !w[0] && !w[1]; }
    wide_mask operator|(const wide_mask &o) const { return {{w[0] | o.w[0], w[1] | o.w[1]}}; }
    wide_mask operator&(const wide_mask &o) const { return {{w[0] & o.w[0], w[1] & o.w[1]}}; }
    wide_mask operator~() const { return {{~w[0], ~w[1]}}; }
    bool operator==(const wide_mask &o) const = default;
};

// "0x" and lower-case digits without leading zeros, as the modem prints it.
std::string hex_text(const wide_mask &m);
// Hexadecimal with or without "0x"; false for anything else or more than 128 bits.
bool parse_hex(std::string_view text, wide_mask &out);

// The band numbers of a list such as "1:3:28:78", in list order. Entries
// that are not decimal numbers (blanks around one are allowed) are skipped.
std::vector<unsigned> band_numbers(std::string_view list);

} // namespace quectel
