#include "drivers/quectel/quectel_band_text.h"

#include <cinttypes>
#include <cstdio>

#include "drivers/quectel/quectel_answer.h"

namespace quectel
{

std::string hex_text(const wide_mask &m)
{
    char buf[40];
    if (m.w[1])
        std::snprintf(buf, sizeof(buf), "0x%" PRIx64 "%016" PRIx64, m.w[1], m.w[0]);
    else
        std::snprintf(buf, sizeof(buf), "0x%" PRIx64, m.w[0]);
    return buf;
}

bool parse_hex(std::string_view text, wide_mask &out)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    while (text.size() > 1 && text.front() == '0')
        text.remove_prefix(1);
    if (text.empty() || text.size() > 32)
        return false;
    out = {};
    for (char c : text) {
        unsigned v;
        if (c >= '0' && c <= '9')
            v = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
            v = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            v = static_cast<unsigned>(c - 'A' + 10);
        else
            return false;
        out.w[1] = (out.w[1] << 4) | (out.w[0] >> 60);
        out.w[0] = (out.w[0] << 4) | v;
    }
    return true;
}

std::vector<unsigned> band_numbers(std::string_view list)
{
    std::vector<unsigned> numbers;
    while (!list.empty()) {
        size_t colon = list.find(':');
        unsigned number = 0;
        if (to_number(trim(list.substr(0, colon)), number))
            numbers.push_back(number);
        list.remove_prefix(colon == std::string_view::npos ? list.size() : colon + 1);
    }
    return numbers;
}

} // namespace quectel
