#include "drivers/generic/modem_band.h"

#include <cstring>
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

const family_case families[] = {
    {"gsm", modem_gsm_band_str, modem_gsm_band_ret_str, modem_info_gsm_band_val, modem_info_gsm_band_ret_val, 4,
     "GSM_NONE", "GSM_ANY", "GSM_UNKNOWN"},
    {"wcdma", modem_wcdma_band_str, modem_wcdma_band_ret_str, modem_info_wcdma_band_val, modem_info_wcdma_band_ret_val,
     13, "WCDMA_NONE", "WCDMA_ANY", "WCDMA_UNKNOWN"},
    {"lte", modem_lte_band_str, modem_lte_band_ret_str, modem_info_lte_band_val, modem_info_lte_band_ret_val, 36,
     "LTE_NONE", "LTE_ANY", "LTE_UNKNOWN"},
    {"lte_nb", modem_lte_nb_band_str, modem_lte_nb_band_ret_str, modem_info_lte_nb_band_val,
     modem_info_lte_nb_band_ret_val, 36, "LTE_NB_NONE", "LTE_NB_ANY", "LTE_NB_UNKNOWN"},
    {"nsa_5g", modem_nsa_5g_band_str, modem_nsa_5g_band_ret_str, modem_info_nsa_5g_band_val,
     modem_info_nsa_5g_band_ret_val, 33, "NSA_5G_NONE", "NSA_5G_ANY", "NSA_5G_UNKNOWN"},
    {"5g", modem_5g_band_str, modem_5g_band_ret_str, modem_info_5g_band_val, modem_info_5g_band_ret_val, 28, "5G_NONE",
     "5G_ANY", "5G_UNKNOWN"},
};

std::string flip_case(const char *s)
{
    std::string out(s);
    for (size_t i = 0; i < out.size(); i += 2)
        if (out[i] >= 'A' && out[i] <= 'Z')
            out[i] = static_cast<char>(out[i] - 'A' + 'a');
    return out;
}

TEST(ModemBand, SpotValues)
{
    EXPECT_EQ(modem_info_lte_band_val("LTE_B3"), 8u);
    EXPECT_EQ(modem_info_lte_band_val("LTE_B66"), uint64_t{1} << 32);
    EXPECT_EQ(modem_info_lte_band_val("LTE_B85"), uint64_t{1} << 36);
    EXPECT_EQ(modem_info_5g_band_val("5G_N28"), 16384u);
    EXPECT_EQ(modem_info_wcdma_band_val("WCDMA_2100"), 2048u);
    EXPECT_EQ(modem_info_gsm_band_val("GSM_900"), 4u);
    EXPECT_EQ(modem_info_nsa_5g_band_val("NSA_5G_N262"), uint64_t{1} << 33);
    EXPECT_EQ(modem_info_lte_nb_band_val("LTE_NB20"), uint64_t{1} << 14);
    EXPECT_STREQ(modem_5g_band_str(16384), "5G_N28");
    EXPECT_STREQ(modem_lte_band_str(uint64_t{1} << 32), "LTE_B66");
}

TEST(ModemBand, UnknownValueIsOneAboveLastBand)
{
    EXPECT_EQ(modem_info_gsm_band_val("nope"), 17u);
    EXPECT_EQ(modem_info_wcdma_band_val("nope"), 8193u);
    EXPECT_EQ(modem_info_lte_band_val("nope"), (uint64_t{1} << 36) + 1);
    EXPECT_EQ(modem_info_lte_nb_band_val("nope"), (uint64_t{1} << 36) + 1);
    EXPECT_EQ(modem_info_nsa_5g_band_val("nope"), (uint64_t{1} << 33) + 1);
    EXPECT_EQ(modem_info_5g_band_val("nope"), (uint64_t{1} << 28) + 1);
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
        EXPECT_STREQ(f.str(uint64_t{1} << (f.n_bands + 1)), f.unknown);
        EXPECT_STREQ(f.str(6), f.unknown);
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

TEST(ModemBand, DisplayText)
{
    char buf[32];
    EXPECT_STREQ(modem_lte_band_ret_str(8, buf, sizeof buf), "LTE B3");
    EXPECT_STREQ(modem_gsm_band_ret_str(4, buf, sizeof buf), "GSM 900");
    EXPECT_STREQ(modem_nsa_5g_band_ret_str(0, buf, sizeof buf), "NSA 5G NONE");
    EXPECT_STREQ(modem_lte_band_ret_str(10, buf, sizeof buf), "LTE UNKNOWN");
    EXPECT_EQ(modem_info_lte_band_ret_val("lte b3"), 8u);
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

TEST(ModemBand, AtBandNumbers)
{
    struct row {
        const char *(*str)(uint64_t);
        uint64_t value;
        const char *num;
    };
    const row rows[] = {
        {wcdma_band_str, 4, "6"},
        {wcdma_band_str, 16, "5"},
        {wcdma_band_str, 32, "19"},
        {wcdma_band_str, 64, "8"},
        {wcdma_band_str, 256, "4"},
        {wcdma_band_str, 512, "3"},
        {wcdma_band_str, 1024, "2"},
        {wcdma_band_str, 2048, "1"},
        {wcdma_band_str, 2, ""},
        {wcdma_band_str, 8, ""},
        {wcdma_band_str, 128, ""},
        {wcdma_band_str, 4096, ""},
        {wcdma_band_str, 8192, ""},
        {wcdma_band_str, 1, ""},
        {wcdma_band_str, 0, ""},
        {lte_band_str, 8, "3"},
        {lte_band_str, uint64_t{1} << 32, "66"},
        {lte_band_str, uint64_t{1} << 17, ""}, // B27
        {lte_band_str, uint64_t{1} << 21, ""}, // B31
        {lte_band_str, uint64_t{1} << 34, ""}, // B72
        {lte_band_str, uint64_t{1} << 35, ""}, // B73
        {lte_band_str, uint64_t{1} << 36, ""}, // B85
        {lte_band_str, uint64_t{1} << 33, "71"},
        {lte_band_str, 10, ""},
        {nsa_5g_band_str, uint64_t{1} << 27, "78"},
        {nsa_5g_band_str, uint64_t{1} << 31, ""}, // n260
        {nsa_5g_band_str, uint64_t{1} << 33, "262"},
        {sa_5g_band_str, 16384, "28"},
        {sa_5g_band_str, uint64_t{1} << 28, "79"},
        {sa_5g_band_str, uint64_t{1} << 29, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.value << " -> " << r.num);
        EXPECT_STREQ(r.str(r.value), r.num);
    }
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

TEST(ModemBand, AtNumberToValue)
{
    EXPECT_EQ(wcdma_band_val("1"), 2048u);
    EXPECT_EQ(wcdma_band_val("19"), 32u);
    EXPECT_EQ(lte_band_val("66"), uint64_t{1} << 32);
    EXPECT_EQ(nsa_5g_band_val("78"), uint64_t{1} << 27);
    EXPECT_EQ(sa_5g_band_val("28"), 16384u);
    // Unnumbered texts fall to the family's unknown value.
    EXPECT_EQ(wcdma_band_val("7"), 8193u);
    EXPECT_EQ(lte_band_val("27"), (uint64_t{1} << 36) + 1);
    EXPECT_EQ(sa_5g_band_val("260"), (uint64_t{1} << 28) + 1);
    // The empty text matches the first value tried without a number: "any".
    EXPECT_EQ(wcdma_band_val(""), 1u);
    EXPECT_EQ(lte_band_val(""), 1u);
}

} // namespace
