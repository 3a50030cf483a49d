// The band texts: Quectel AT+QCFG="band" hexadecimal masks and
// AT+QNWPREFCFG band number lists, and the band tables' name, display text
// and AT number searches.
// Byte 0 chooses the band family of the table searches (modulo 6); the rest
// is the text, given to every reader.
// Checked: a mask that parses prints back to the same value, and its printed
// form is the canonical spelling of the text; every listed number is one of
// the list's entries and the list printed back reads the same; a search
// result is the unknown value or a band whose name (display text, number)
// equals the text in any case, and never "none".
#include "drivers/generic/modem_band.h"
#include "drivers/quectel/quectel_answer.h"
#include "drivers/quectel/quectel_band_text.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "fuzz_input.h"

namespace
{

using fuzz::lower;

const modem_band_family *const families[] = {&g_gsm_bands,    &g_wcdma_bands,  &g_lte_bands,
                                             &g_lte_nb_bands, &g_nsa_5g_bands, &g_5g_bands};

void check_hex(std::string_view text)
{
    quectel::wide_mask m;
    if (!quectel::parse_hex(text, m))
        return;
    const std::string printed = quectel::hex_text(m);
    quectel::wide_mask back;
    FUZZ_CHECK(quectel::parse_hex(printed, back) && back == m);
    // The printed form is the text without its "0x" and leading zeros.
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits.remove_prefix(2);
    while (digits.size() > 1 && digits[0] == '0')
        digits.remove_prefix(1);
    FUZZ_CHECK(printed == "0x" + lower(digits));
}

void check_list(std::string_view text)
{
    const std::vector<unsigned> numbers = quectel::band_numbers(text);
    // The list's entries that are numbers, blanks aside, and how many there are.
    std::vector<unsigned> entries;
    size_t count = 0;
    for (std::string_view rest = text;; count++) {
        const size_t colon = rest.find(':');
        if (unsigned v; quectel::to_number(quectel::trim(rest.substr(0, colon)), v))
            entries.push_back(v);
        if (colon == std::string_view::npos)
            break;
        rest.remove_prefix(colon + 1);
    }
    FUZZ_CHECK(numbers.size() <= count + 1);
    std::string printed;
    for (unsigned n : numbers) {
        printed += (printed.empty() ? "" : ":") + std::to_string(n);
        FUZZ_CHECK(std::find(entries.begin(), entries.end(), n) != entries.end());
    }
    FUZZ_CHECK(quectel::band_numbers(printed) == numbers);
}

void check_search(const modem_band_family &fam, std::string_view text)
{
    const uint64_t unknown = modem_band_unknown(fam);
    const std::string want = lower(text);

    char buf[64];
    // Each search and how the band it found prints in that search's terms.
    const std::pair<uint64_t, std::function<const char *(uint64_t)>> searches[] = {
        {modem_band_name_val(fam, text), [&](uint64_t v) { return modem_band_name(fam, v); }},
        {modem_band_ret_val(fam, text), [&](uint64_t v) { return modem_band_ret_str(fam, v, buf, sizeof(buf)); }},
        {modem_band_at_val(fam, text), [&](uint64_t v) { return modem_band_at_num(fam, v); }},
    };
    for (const auto &[found, print] : searches)
        FUZZ_CHECK(found != 0 && (found == unknown || lower(print(found)) == want));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (auto in = fuzz::split(data, size, false)) {
        check_hex(in->text());
        check_list(in->text());
        check_search(*families[in->mode % std::size(families)], in->text());
    }
    return 0;
}
