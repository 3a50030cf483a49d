#include "drivers/generic/modem_band.h"

#include <bit>
#include <iterator>

// clang-format off
namespace {

constexpr modem_band_def gsm_list[] = {
    {"GSM_850", ""}, {"GSM_900", ""}, {"GSM_1800", ""}, {"GSM_1900", ""},
};

constexpr modem_band_def wcdma_list[] = {
    {"WCDMA_700", ""}, {"WCDMA_800", "6"}, {"WCDMA_J800", ""},
    {"WCDMA_850", "5"}, {"WCDMA_J850", "19"}, {"WCDMA_900", "8"},
    {"WCDMA_1500", ""}, {"WCDMA_1700", "4"}, {"WCDMA_1800", "3"},
    {"WCDMA_1900", "2"}, {"WCDMA_2100", "1"}, {"WCDMA_2600", ""},
    {"WCDMA_3500", ""},
};

constexpr modem_band_def lte_list[] = {
    {"LTE_B1", "1"}, {"LTE_B2", "2"}, {"LTE_B3", "3"},
    {"LTE_B4", "4"}, {"LTE_B5", "5"}, {"LTE_B7", "7"},
    {"LTE_B8", "8"}, {"LTE_B12", "12"}, {"LTE_B13", "13"},
    {"LTE_B14", "14"}, {"LTE_B17", "17"}, {"LTE_B18", "18"},
    {"LTE_B19", "19"}, {"LTE_B20", "20"}, {"LTE_B25", "25"},
    {"LTE_B26", "26"}, {"LTE_B27", ""}, {"LTE_B28", "28"},
    {"LTE_B29", "29"}, {"LTE_B30", "30"}, {"LTE_B31", ""},
    {"LTE_B32", "32"}, {"LTE_B34", "34"}, {"LTE_B38", "38"},
    {"LTE_B39", "39"}, {"LTE_B40", "40"}, {"LTE_B41", "41"},
    {"LTE_B42", "42"}, {"LTE_B43", "43"}, {"LTE_B46", "46"},
    {"LTE_B48", "48"}, {"LTE_B66", "66"}, {"LTE_B71", "71"},
    {"LTE_B72", ""}, {"LTE_B73", ""}, {"LTE_B85", ""},
};

// Same bands as LTE; NB-IoT has no AT band numbers of its own here.
constexpr modem_band_def lte_nb_list[] = {
    {"LTE_NB1", ""}, {"LTE_NB2", ""}, {"LTE_NB3", ""},
    {"LTE_NB4", ""}, {"LTE_NB5", ""}, {"LTE_NB7", ""},
    {"LTE_NB8", ""}, {"LTE_NB12", ""}, {"LTE_NB13", ""},
    {"LTE_NB14", ""}, {"LTE_NB17", ""}, {"LTE_NB18", ""},
    {"LTE_NB19", ""}, {"LTE_NB20", ""}, {"LTE_NB25", ""},
    {"LTE_NB26", ""}, {"LTE_NB27", ""}, {"LTE_NB28", ""},
    {"LTE_NB29", ""}, {"LTE_NB30", ""}, {"LTE_NB31", ""},
    {"LTE_NB32", ""}, {"LTE_NB34", ""}, {"LTE_NB38", ""},
    {"LTE_NB39", ""}, {"LTE_NB40", ""}, {"LTE_NB41", ""},
    {"LTE_NB42", ""}, {"LTE_NB43", ""}, {"LTE_NB46", ""},
    {"LTE_NB48", ""}, {"LTE_NB66", ""}, {"LTE_NB71", ""},
    {"LTE_NB72", ""}, {"LTE_NB73", ""}, {"LTE_NB85", ""},
};

constexpr modem_band_def nsa_5g_list[] = {
    {"NSA_5G_N1", "1"}, {"NSA_5G_N2", "2"}, {"NSA_5G_N3", "3"},
    {"NSA_5G_N5", "5"}, {"NSA_5G_N7", "7"}, {"NSA_5G_N8", "8"},
    {"NSA_5G_N12", "12"}, {"NSA_5G_N13", "13"}, {"NSA_5G_N14", "14"},
    {"NSA_5G_N18", "18"}, {"NSA_5G_N20", "20"}, {"NSA_5G_N25", "25"},
    {"NSA_5G_N26", "26"}, {"NSA_5G_N28", "28"}, {"NSA_5G_N29", "29"},
    {"NSA_5G_N30", "30"}, {"NSA_5G_N38", "38"}, {"NSA_5G_N40", "40"},
    {"NSA_5G_N41", "41"}, {"NSA_5G_N48", "48"}, {"NSA_5G_N66", "66"},
    {"NSA_5G_N70", "70"}, {"NSA_5G_N71", "71"}, {"NSA_5G_N75", "75"},
    {"NSA_5G_N76", "76"}, {"NSA_5G_N77", "77"}, {"NSA_5G_N78", "78"},
    {"NSA_5G_N79", "79"}, {"NSA_5G_N257", "257"}, {"NSA_5G_N258", "258"},
    {"NSA_5G_N260", ""}, {"NSA_5G_N261", "261"}, {"NSA_5G_N262", "262"},
};

constexpr modem_band_def sa_5g_list[] = {
    {"5G_N1", "1"}, {"5G_N2", "2"}, {"5G_N3", "3"},
    {"5G_N5", "5"}, {"5G_N7", "7"}, {"5G_N8", "8"},
    {"5G_N12", "12"}, {"5G_N13", "13"}, {"5G_N14", "14"},
    {"5G_N18", "18"}, {"5G_N20", "20"}, {"5G_N25", "25"},
    {"5G_N26", "26"}, {"5G_N28", "28"}, {"5G_N29", "29"},
    {"5G_N30", "30"}, {"5G_N38", "38"}, {"5G_N40", "40"},
    {"5G_N41", "41"}, {"5G_N48", "48"}, {"5G_N66", "66"},
    {"5G_N70", "70"}, {"5G_N71", "71"}, {"5G_N75", "75"},
    {"5G_N76", "76"}, {"5G_N77", "77"}, {"5G_N78", "78"},
    {"5G_N79", "79"},
};
// clang-format on

// Every value fits below bit 63, so 2^n + 1 never overflows.
static_assert(std::size(lte_list) < 63 && std::size(nsa_5g_list) < 63);

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Compares text with name ignoring case; with blanks set, an underscore of
// the name stands for a blank (the display form).
bool band_text_eq(std::string_view text, std::string_view name, bool blanks)
{
    if (text.size() != name.size())
        return false;
    for (size_t i = 0; i < text.size(); i++) {
        char n = (blanks && name[i] == '_') ? ' ' : name[i];
        if (lower(text[i]) != lower(n))
            return false;
    }
    return true;
}

// Index of a one-bit value into the band list (1-based), 0 when the value is
// not exactly one listed band.
size_t band_index(const modem_band_family &fam, uint64_t value)
{
    if (!std::has_single_bit(value) || value == 1)
        return 0;
    size_t k = static_cast<size_t>(std::countr_zero(value));
    return k <= fam.n_bands ? k : 0;
}

enum class band_form { name, display, at_num };

// The search shared by every _val function: values 1, 2, 4, ... up to the
// last band, never 0 ("none"); no match gives the unknown value.
uint64_t band_search(const modem_band_family &fam, std::string_view text, band_form form)
{
    uint64_t value = 1;
    for (size_t i = 0; i <= fam.n_bands; i++, value <<= 1) {
        bool eq = form == band_form::at_num
                      ? band_text_eq(text, modem_band_at_num(fam, value), false)
                      : band_text_eq(text, modem_band_name(fam, value), form == band_form::display);
        if (eq)
            return value;
    }
    return modem_band_unknown(fam);
}

} // namespace

const modem_band_family g_gsm_bands = {"GSM_NONE", "GSM_ANY", "GSM_UNKNOWN", gsm_list, std::size(gsm_list)};
const modem_band_family g_wcdma_bands = {"WCDMA_NONE", "WCDMA_ANY", "WCDMA_UNKNOWN", wcdma_list, std::size(wcdma_list)};
const modem_band_family g_lte_bands = {"LTE_NONE", "LTE_ANY", "LTE_UNKNOWN", lte_list, std::size(lte_list)};
const modem_band_family g_lte_nb_bands = {"LTE_NB_NONE", "LTE_NB_ANY", "LTE_NB_UNKNOWN", lte_nb_list,
                                          std::size(lte_nb_list)};
const modem_band_family g_nsa_5g_bands = {"NSA_5G_NONE", "NSA_5G_ANY", "NSA_5G_UNKNOWN", nsa_5g_list,
                                          std::size(nsa_5g_list)};
const modem_band_family g_5g_bands = {"5G_NONE", "5G_ANY", "5G_UNKNOWN", sa_5g_list, std::size(sa_5g_list)};

uint64_t modem_band_unknown(const modem_band_family &fam)
{
    return (uint64_t{1} << fam.n_bands) + 1;
}

const char *modem_band_name(const modem_band_family &fam, uint64_t value)
{
    if (value == 0)
        return fam.none_name;
    if (value == 1)
        return fam.any_name;
    size_t k = band_index(fam, value);
    return k ? fam.bands[k - 1].name : fam.unknown_name;
}

const char *modem_band_at_num(const modem_band_family &fam, uint64_t value)
{
    size_t k = band_index(fam, value);
    return k ? fam.bands[k - 1].at_num : "";
}

char *modem_band_format(std::string_view name, char *buf, size_t size)
{
    if (!buf || size == 0)
        return buf;
    size_t n = name.size() < size - 1 ? name.size() : size - 1;
    for (size_t i = 0; i < n; i++)
        buf[i] = name[i] == '_' ? ' ' : name[i];
    buf[n] = '\0';
    return buf;
}

char *modem_band_ret_str(const modem_band_family &fam, uint64_t value, char *buf, size_t size)
{
    return modem_band_format(modem_band_name(fam, value), buf, size);
}

uint64_t modem_band_name_val(const modem_band_family &fam, std::string_view name)
{
    return band_search(fam, name, band_form::name);
}

uint64_t modem_band_ret_val(const modem_band_family &fam, std::string_view text)
{
    return band_search(fam, text, band_form::display);
}

uint64_t modem_band_at_val(const modem_band_family &fam, std::string_view num)
{
    return band_search(fam, num, band_form::at_num);
}

const char *modem_gsm_band_str(uint64_t v)
{
    return modem_band_name(g_gsm_bands, v);
}
const char *modem_wcdma_band_str(uint64_t v)
{
    return modem_band_name(g_wcdma_bands, v);
}
const char *modem_lte_band_str(uint64_t v)
{
    return modem_band_name(g_lte_bands, v);
}
const char *modem_lte_nb_band_str(uint64_t v)
{
    return modem_band_name(g_lte_nb_bands, v);
}
const char *modem_nsa_5g_band_str(uint64_t v)
{
    return modem_band_name(g_nsa_5g_bands, v);
}
const char *modem_5g_band_str(uint64_t v)
{
    return modem_band_name(g_5g_bands, v);
}

char *modem_gsm_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_gsm_bands, v, b, n);
}
char *modem_wcdma_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_wcdma_bands, v, b, n);
}
char *modem_lte_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_lte_bands, v, b, n);
}
char *modem_lte_nb_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_lte_nb_bands, v, b, n);
}
char *modem_nsa_5g_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_nsa_5g_bands, v, b, n);
}
char *modem_5g_band_ret_str(uint64_t v, char *b, size_t n)
{
    return modem_band_ret_str(g_5g_bands, v, b, n);
}

uint64_t modem_info_gsm_band_val(std::string_view s)
{
    return modem_band_name_val(g_gsm_bands, s);
}
uint64_t modem_info_wcdma_band_val(std::string_view s)
{
    return modem_band_name_val(g_wcdma_bands, s);
}
uint64_t modem_info_lte_band_val(std::string_view s)
{
    return modem_band_name_val(g_lte_bands, s);
}
uint64_t modem_info_lte_nb_band_val(std::string_view s)
{
    return modem_band_name_val(g_lte_nb_bands, s);
}
uint64_t modem_info_nsa_5g_band_val(std::string_view s)
{
    return modem_band_name_val(g_nsa_5g_bands, s);
}
uint64_t modem_info_5g_band_val(std::string_view s)
{
    return modem_band_name_val(g_5g_bands, s);
}

uint64_t modem_info_gsm_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_gsm_bands, s);
}
uint64_t modem_info_wcdma_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_wcdma_bands, s);
}
uint64_t modem_info_lte_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_lte_bands, s);
}
uint64_t modem_info_lte_nb_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_lte_nb_bands, s);
}
uint64_t modem_info_nsa_5g_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_nsa_5g_bands, s);
}
uint64_t modem_info_5g_band_ret_val(std::string_view s)
{
    return modem_band_ret_val(g_5g_bands, s);
}

const char *wcdma_band_str(uint64_t v)
{
    return modem_band_at_num(g_wcdma_bands, v);
}
const char *lte_band_str(uint64_t v)
{
    return modem_band_at_num(g_lte_bands, v);
}
const char *nsa_5g_band_str(uint64_t v)
{
    return modem_band_at_num(g_nsa_5g_bands, v);
}
const char *sa_5g_band_str(uint64_t v)
{
    return modem_band_at_num(g_5g_bands, v);
}

uint64_t wcdma_band_val(std::string_view s)
{
    return modem_band_at_val(g_wcdma_bands, s);
}
uint64_t lte_band_val(std::string_view s)
{
    return modem_band_at_val(g_lte_bands, s);
}
uint64_t nsa_5g_band_val(std::string_view s)
{
    return modem_band_at_val(g_nsa_5g_bands, s);
}
uint64_t sa_5g_band_val(std::string_view s)
{
    return modem_band_at_val(g_5g_bands, s);
}
