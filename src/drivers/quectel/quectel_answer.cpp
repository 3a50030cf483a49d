#include "drivers/quectel/quectel_answer.h"

#include "ubus/vocab_table.h"

#include <charconv>

namespace quectel
{

namespace
{

bool blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

} // namespace

std::string_view trim(std::string_view text)
{
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

// Every byte counts: a C string comparison would stop at a zero byte and
// take texts that differ behind it for equal.
bool equal_nocase(std::string_view a, std::string_view b)
{
    return vocab_ieq(a, b);
}

bool starts_nocase(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && equal_nocase(text.substr(0, prefix.size()), prefix);
}

bool tagged(std::string_view line, std::string_view tag, std::string_view *rest)
{
    line = trim(line);
    if (line.size() <= tag.size() || line[tag.size()] != ':' || !starts_nocase(line, tag))
        return false;
    if (rest)
        *rest = trim(line.substr(tag.size() + 1));
    return true;
}

fields fields_of(std::string_view rest)
{
    fields out;
    size_t start = 0;
    bool quoted = false;
    for (size_t i = 0; i <= rest.size(); i++) {
        if (i < rest.size() && rest[i] == '"')
            quoted = !quoted;
        if (i < rest.size() && (rest[i] != ',' || quoted))
            continue;
        std::string_view f = trim(rest.substr(start, i - start));
        if (f.size() >= 2 && f.front() == '"' && f.back() == '"')
            f = f.substr(1, f.size() - 2);
        out.push_back(f);
        start = i + 1;
    }
    return out;
}

fields tagged_fields(std::string_view text, std::string_view tag)
{
    fields out;
    bool seen = false;
    for_each_tagged(text, tag, [&](const fields &f) {
        if (!seen)
            out = f;
        seen = true;
    });
    return out;
}

fields item_values(std::string_view text, std::string_view tag, std::string_view item)
{
    fields out;
    bool seen = false;
    for_each_tagged(text, tag, [&](const fields &f) {
        if (seen || !equal_nocase(f[0], item))
            return;
        seen = true;
        out.assign(f.begin() + 1, f.end());
    });
    return out;
}

std::string_view field_at(const fields &f, size_t i)
{
    return i < f.size() ? f[i] : std::string_view();
}

bool has_value(std::string_view field)
{
    return !field.empty() && field != "-";
}

bool parse_number(std::string_view field, int base, int64_t lo, int64_t hi, int64_t &out)
{
    if (base < 2 || base > 36)
        return false;
    bool negative = false;
    if (base == 10 && !field.empty() && (field.front() == '-' || field.front() == '+')) {
        negative = field.front() == '-';
        field.remove_prefix(1);
    }
    // An unsigned read takes no sign of its own: "--1" and "+-1" fail.
    uint64_t magnitude = 0;
    const char *end = field.data() + field.size();
    auto [stop, ec] = std::from_chars(field.data(), end, magnitude, base);
    if (field.empty() || ec != std::errc() || stop != end)
        return false;
    constexpr uint64_t int64_limit = uint64_t{1} << 63;
    if (magnitude > (negative ? int64_limit : int64_limit - 1))
        return false;
    int64_t v = negative ? static_cast<int64_t>(~magnitude + 1) : static_cast<int64_t>(magnitude);
    if (v < lo || v > hi)
        return false;
    out = v;
    return true;
}

int cme_error(std::string_view text)
{
    int code = -1;
    bool seen = false;
    for_each_tagged(text, "+CME ERROR", [&](const fields &f) {
        if (!seen && !to_number(f[0], code))
            code = -1;
        seen = true;
    });
    return code;
}

} // namespace quectel
