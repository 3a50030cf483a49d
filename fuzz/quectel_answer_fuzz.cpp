// The Quectel answer reader on arbitrary answers: tagged lines, fields,
// items, numbers and the +CME ERROR code.
// Byte 0 chooses the tag and item looked for and the number base; the rest
// is the answer text.
// Checked: every view handed out lies inside the text it came from; trimmed
// texts have no blank at either end; fields are never fewer than one nor
// more than the commas allow; the case-blind comparisons agree with a plain
// lower-case comparison; a number read back from its printed form is the
// same and within its range.
#include "drivers/quectel/quectel_answer.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_input.h"

namespace
{

using fuzz::inside;
using fuzz::lower;

struct probe {
    std::string_view tag;
    std::string_view item;
};

constexpr probe probes[] = {
    {"+QCFG", "band"},
    {"+QNWPREFCFG", "lte_band"},
    {"+QENG", "servingcell"},
    {"+CME ERROR", ""},
    {"+QCFG", "usbnet"},
    {"+CSQ", ""},
    {"+QGMR", ""},
    {"+QNWINFO", ""},
};
constexpr int bases[] = {10, 16, 2, 36};

bool blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

void check_fields(const quectel::fields &f, std::string_view rest)
{
    FUZZ_CHECK(!f.empty() && f.size() <= static_cast<size_t>(std::count(rest.begin(), rest.end(), ',')) + 1);
    for (std::string_view field : f)
        FUZZ_CHECK(inside(field, rest));
}

void check_number(std::string_view field, int base)
{
    int64_t v;
    constexpr int64_t lo = -1000000, hi = INT64_MAX;
    if (!quectel::parse_number(field, base, lo, hi, v))
        return;
    char buf[80];
    auto [end, ec] = std::to_chars(buf, buf + sizeof(buf), v, base);
    int64_t back;
    FUZZ_CHECK(v >= lo && v <= hi && ec == std::errc());
    FUZZ_CHECK(quectel::parse_number(std::string_view(buf, static_cast<size_t>(end - buf)), base, lo, hi, back));
    FUZZ_CHECK(back == v);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto in = fuzz::split(data, size, false);
    if (!in)
        return 0;
    const probe &pr = probes[in->mode % std::size(probes)];
    const int base = bases[(in->mode >> 3) % std::size(bases)];
    const std::string_view text = in->text();

    std::string_view t = quectel::trim(text);
    FUZZ_CHECK(inside(t, text) && (t.empty() || (!blank(t.front()) && !blank(t.back()))));

    // Each line on its own, as the line walk cuts them.
    for (std::string_view walk = text; !walk.empty();) {
        const size_t end = walk.find("\r\n");
        std::string_view line = walk.substr(0, end);
        std::string_view rest;
        if (quectel::tagged(line, pr.tag, &rest)) {
            FUZZ_CHECK(inside(rest, line) && quectel::starts_nocase(quectel::trim(line), pr.tag));
            check_fields(quectel::fields_of(rest), rest);
        }
        if (end == std::string_view::npos)
            break;
        walk.remove_prefix(end + 2);
    }

    size_t lines = 0;
    quectel::for_each_tagged(text, pr.tag, [&](const quectel::fields &f) {
        FUZZ_CHECK(!f.empty());
        for (std::string_view field : f) {
            FUZZ_CHECK(inside(field, text));
            check_number(field, base);
        }
        lines++;
    });
    const quectel::fields first = quectel::tagged_fields(text, pr.tag);
    FUZZ_CHECK(lines == 0 ? first.empty() : !first.empty());
    for (std::string_view v : pr.item.empty() ? quectel::fields{} : quectel::item_values(text, pr.tag, pr.item))
        FUZZ_CHECK(inside(v, text));
    // Without an error line there is no code.
    size_t errors = 0;
    quectel::for_each_tagged(text, "+CME ERROR", [&](const quectel::fields &) { errors++; });
    if (!errors)
        FUZZ_CHECK(quectel::cme_error(text) == -1);

    // Split the text in two and compare the halves both ways.
    const std::string_view a = text.substr(0, text.size() / 2), b = text.substr(text.size() / 2);
    FUZZ_CHECK(quectel::equal_nocase(a, b) == (lower(a) == lower(b)));
    FUZZ_CHECK(quectel::starts_nocase(b, a) == (b.size() >= a.size() && lower(b.substr(0, a.size())) == lower(a)));
    check_number(t, base);
    return 0;
}
