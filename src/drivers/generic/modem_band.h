// Band tables: every band of a radio access technology owns one bit of a
// 64-bit mask. Value 0 is the family's "none", 1 (bit 0) its "any", the k-th
// listed band 2^k, and one above the highest band value its "unknown".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// One band: its name and the band number AT commands use ("" when none).
struct modem_band_def {
    const char *name;
    const char *at_num;
};

// A band family: the names of its three special values and its bands in bit
// order (bit 1 upward).
struct modem_band_family {
    const char *none_name;
    const char *any_name;
    const char *unknown_name;
    const modem_band_def *bands;
    size_t n_bands;
};

extern const modem_band_family g_gsm_bands;
extern const modem_band_family g_wcdma_bands;
extern const modem_band_family g_lte_bands;
extern const modem_band_family g_lte_nb_bands;
extern const modem_band_family g_nsa_5g_bands;
extern const modem_band_family g_5g_bands;

// Generic conversions over a family.
uint64_t modem_band_unknown(const modem_band_family &fam);
const char *modem_band_name(const modem_band_family &fam, uint64_t value);
const char *modem_band_at_num(const modem_band_family &fam, uint64_t value);
char *modem_band_ret_str(const modem_band_family &fam, uint64_t value, char *buf, size_t size);
uint64_t modem_band_name_val(const modem_band_family &fam, std::string_view name);
uint64_t modem_band_ret_val(const modem_band_family &fam, std::string_view text);
uint64_t modem_band_at_val(const modem_band_family &fam, std::string_view num);

// Copies name into buf (size bytes, always NUL-terminated when size > 0) with
// every underscore replaced by a blank; returns buf.
char *modem_band_format(std::string_view name, char *buf, size_t size);

// Value to name; a value that is not exactly one listed band gives "..._UNKNOWN".
const char *modem_gsm_band_str(uint64_t value);
const char *modem_wcdma_band_str(uint64_t value);
const char *modem_lte_band_str(uint64_t value);
const char *modem_lte_nb_band_str(uint64_t value);
const char *modem_nsa_5g_band_str(uint64_t value);
const char *modem_5g_band_str(uint64_t value);

// Value to display text ("LTE B3") written into the caller's buffer; returns buf.
char *modem_gsm_band_ret_str(uint64_t value, char *buf, size_t size);
char *modem_wcdma_band_ret_str(uint64_t value, char *buf, size_t size);
char *modem_lte_band_ret_str(uint64_t value, char *buf, size_t size);
char *modem_lte_nb_band_ret_str(uint64_t value, char *buf, size_t size);
char *modem_nsa_5g_band_ret_str(uint64_t value, char *buf, size_t size);
char *modem_5g_band_ret_str(uint64_t value, char *buf, size_t size);

// Name to value, ignoring case; "none" is never matched, unrecognised names
// give the family's unknown value.
uint64_t modem_info_gsm_band_val(std::string_view name);
uint64_t modem_info_wcdma_band_val(std::string_view name);
uint64_t modem_info_lte_band_val(std::string_view name);
uint64_t modem_info_lte_nb_band_val(std::string_view name);
uint64_t modem_info_nsa_5g_band_val(std::string_view name);
uint64_t modem_info_5g_band_val(std::string_view name);

// Display text to value, same rules as the name search.
uint64_t modem_info_gsm_band_ret_val(std::string_view text);
uint64_t modem_info_wcdma_band_ret_val(std::string_view text);
uint64_t modem_info_lte_band_ret_val(std::string_view text);
uint64_t modem_info_lte_nb_band_ret_val(std::string_view text);
uint64_t modem_info_nsa_5g_band_ret_val(std::string_view text);
uint64_t modem_info_5g_band_ret_val(std::string_view text);

// Value to the band number of AT commands ("" when the band has none) and back.
const char *wcdma_band_str(uint64_t value);
const char *lte_band_str(uint64_t value);
const char *nsa_5g_band_str(uint64_t value);
const char *sa_5g_band_str(uint64_t value);
uint64_t wcdma_band_val(std::string_view num);
uint64_t lte_band_val(std::string_view num);
uint64_t nsa_5g_band_val(std::string_view num);
uint64_t sa_5g_band_val(std::string_view num);
