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

#include <cctype>
#include <cstddef>
#include <cstdint>
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
    FUZZ_CHECK(quectel::parse_hex(printed, back));
    FUZZ_CHECK(back == m);
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
    size_t entries = 1;
    for (char c : text)
        entries += c == ':';
    FUZZ_CHECK(numbers.size() <= entries);
    std::string printed;
    for (unsigned n : numbers) {
        if (!printed.empty())
            printed += ':';
        printed += std::to_string(n);
        // Every number was an entry of the list, blanks aside.
        bool found = false;
        std::string_view rest = text;
        while (!found) {
            size_t colon = rest.find(':');
            unsigned v;
            found = quectel::to_number(quectel::trim(rest.substr(0, colon)), v) && v == n;
            if (colon == std::string_view::npos)
                break;
            rest.remove_prefix(colon + 1);
        }
        FUZZ_CHECK(found);
    }
    FUZZ_CHECK(quectel::band_numbers(printed) == numbers);
}

void check_search(const modem_band_family &fam, std::string_view text)
{
    const uint64_t unknown = modem_band_unknown(fam);
    const std::string want = lower(text);

    const uint64_t by_name = modem_band_name_val(fam, text);
    FUZZ_CHECK(by_name != 0);
    if (by_name != unknown)
        FUZZ_CHECK(lower(modem_band_name(fam, by_name)) == want);

    const uint64_t by_display = modem_band_ret_val(fam, text);
    FUZZ_CHECK(by_display != 0);
    if (by_display != unknown) {
        char buf[64];
        FUZZ_CHECK(lower(modem_band_ret_str(fam, by_display, buf, sizeof(buf))) == want);
    }

    const uint64_t by_number = modem_band_at_val(fam, text);
    FUZZ_CHECK(by_number != 0);
    if (by_number != unknown)
        FUZZ_CHECK(lower(modem_band_at_num(fam, by_number)) == want);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const modem_band_family &fam = *families[data[0] % std::size(families)];
    std::string_view text(reinterpret_cast<const char *>(data + 1), size - 1);
    check_hex(text);
    check_list(text);
    check_search(fam, text);
    return 0;
}
