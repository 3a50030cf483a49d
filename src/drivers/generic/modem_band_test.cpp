#include "drivers/generic/modem_band.h"

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using str_fn = const char *(*)(uint64_t);
using val_fn = uint64_t (*)(std::string_view);
using ret_fn = char *(*)(uint64_t, char *, size_t);

struct family_case {
    const char *label;
    str_fn str;
    ret_fn ret_str;
    val_fn val;
    val_fn ret_val;
    size_t n_bands;
    const char *none, *any, *unknown;
};

// clang-format off
const family_case families[] = {
    {"gsm", modem_gsm_band_str, modem_gsm_band_ret_str, modem_info_gsm_band_val, modem_info_gsm_band_ret_val, 4, "GSM_NONE", "GSM_ANY", "GSM_UNKNOWN"},
    {"wcdma", modem_wcdma_band_str, modem_wcdma_band_ret_str, modem_info_wcdma_band_val, modem_info_wcdma_band_ret_val, 13, "WCDMA_NONE", "WCDMA_ANY", "WCDMA_UNKNOWN"},
    {"lte", modem_lte_band_str, modem_lte_band_ret_str, modem_info_lte_band_val, modem_info_lte_band_ret_val, 36, "LTE_NONE", "LTE_ANY", "LTE_UNKNOWN"},
    {"lte_nb", modem_lte_nb_band_str, modem_lte_nb_band_ret_str, modem_info_lte_nb_band_val, modem_info_lte_nb_band_ret_val, 36, "LTE_NB_NONE", "LTE_NB_ANY", "LTE_NB_UNKNOWN"},
    {"nsa_5g", modem_nsa_5g_band_str, modem_nsa_5g_band_ret_str, modem_info_nsa_5g_band_val, modem_info_nsa_5g_band_ret_val, 33, "NSA_5G_NONE", "NSA_5G_ANY", "NSA_5G_UNKNOWN"},
    {"5g", modem_5g_band_str, modem_5g_band_ret_str, modem_info_5g_band_val, modem_info_5g_band_ret_val, 28, "5G_NONE", "5G_ANY", "5G_UNKNOWN"},
};
// clang-format on

std::string flip_case(const char *s)
{
    std::string out(s);
    for (size_t i = 0; i < out.size(); i += 2)
        if (out[i] >= 'A' && out[i] <= 'Z')
            out[i] = static_cast<char>(out[i] - 'A' + 'a');
    return out;
}

// Every band and "any" survive name -> value -> name and display -> value in
// every family; "none" and anything that is not one listed bit do not.
TEST(ModemBand, RoundTripEveryFamily)
{
    for (const auto &f : families) {
        SCOPED_TRACE(f.label);
        const uint64_t unknown = (uint64_t{1} << f.n_bands) + 1;
        EXPECT_STREQ(f.str(0), f.none);
        EXPECT_STREQ(f.str(1), f.any);
        EXPECT_STREQ(f.str(unknown), f.unknown);
        EXPECT_STREQ(f.str(~uint64_t{0}), f.unknown);
        EXPECT_EQ(f.val(f.none), unknown);
        EXPECT_EQ(f.val(f.unknown), unknown);
        EXPECT_EQ(f.val(""), unknown);

        std::vector<std::string> seen;
        for (size_t k = 0; k <= f.n_bands; k++) {
            const uint64_t v = uint64_t{1} << k;
            const char *name = f.str(v);
            SCOPED_TRACE(name);
            ASSERT_STRNE(name, f.unknown);
            for (const auto &s : seen)
                EXPECT_NE(s, name);
            seen.emplace_back(name);
            EXPECT_EQ(f.val(name), v);
            EXPECT_EQ(f.val(flip_case(name)), v);

            char disp[32];
            ASSERT_EQ(f.ret_str(v, disp, sizeof disp), disp);
            EXPECT_EQ(std::strchr(disp, '_'), nullptr);
            EXPECT_EQ(std::strlen(disp), std::strlen(name));
            EXPECT_EQ(f.ret_val(disp), v);
            EXPECT_EQ(f.ret_val(flip_case(disp)), v);
            if (std::strchr(name, '_')) {
                EXPECT_EQ(f.val(disp), unknown) << "display text must not pass as a name";
                EXPECT_EQ(f.ret_val(name), unknown) << "name must not pass as display text";
            }
        }
    }
}

// The display buffer is never overrun; the canaries after it stay intact.
TEST(ModemBand, DisplayTextTruncatesToBuffer)
{
    for (size_t size : {0u, 1u, 2u, 6u, 7u, 12u}) {
        SCOPED_TRACE(size);
        std::vector<char> buf(size + 4, '#');
        char *out = modem_nsa_5g_band_ret_str(uint64_t{1} << 29, buf.data(), size);
        EXPECT_EQ(out, buf.data());
        if (size > 0) {
            std::string want = std::string("NSA 5G N257").substr(0, size - 1);
            EXPECT_EQ(std::string(buf.data()), want);
        }
        for (size_t i = size; i < buf.size(); i++)
            EXPECT_EQ(buf[i], '#');
    }
    EXPECT_EQ(modem_lte_band_ret_str(8, nullptr, 10), nullptr);
}

// The 3GPP band numbers AT commands use, both ways; bands without one give ""
// and their texts the family's unknown value.
TEST(ModemBand, AtBandNumbers)
{
    // clang-format off
    // Each row: "<value>=<number>" pairs; an empty number: the value has none.
    const struct { const char *(*str)(uint64_t); uint64_t (*val)(std::string_view); const char *pairs; } rows[] = {
        {wcdma_band_str, wcdma_band_val, "4=6 32=19 64=8 1024=2 2048=1 2= 8192= 1="},
        {lte_band_str, lte_band_val, "8=3 0x100000000=66 0x200000000=71 0x20000= 0x1000000000= 10="}, // B27, B85, two bands
        {nsa_5g_band_str, nsa_5g_band_val, "0x8000000=78 0x80000000= 0x200000000=262"}, // n260 has none
        {sa_5g_band_str, sa_5g_band_val, "16384=28 0x10000000=79 0x20000000="},
    };
    // clang-format on
    for (const auto &r : rows) {
        std::istringstream pairs(r.pairs);
        for (std::string pair; pairs >> pair;) {
            SCOPED_TRACE(pair);
            const uint64_t value = std::stoull(pair, nullptr, 0);
            const std::string num = pair.substr(pair.find('=') + 1);
            EXPECT_EQ(r.str(value), num);
            EXPECT_EQ(num.empty() ? value : r.val(num), value);
        }
    }
    EXPECT_EQ(wcdma_band_val("7"), 8193u);
    EXPECT_EQ(lte_band_val("27"), (uint64_t{1} << 36) + 1);
    EXPECT_EQ(sa_5g_band_val("260"), (uint64_t{1} << 28) + 1);
    // The empty text matches the first value tried without a number: "any".
    EXPECT_EQ(lte_band_val(""), 1u);
}

// Every numbered LTE band gives its own number, which is the name's suffix.
TEST(ModemBand, LteNumbersMatchNames)
{
    for (size_t k = 1; k <= g_lte_bands.n_bands; k++) {
        const uint64_t v = uint64_t{1} << k;
        const std::string num = lte_band_str(v);
        if (num.empty())
            continue;
        EXPECT_EQ("LTE_B" + num, modem_lte_band_str(v));
        EXPECT_EQ(lte_band_val(num), v);
    }
}

} // namespace
