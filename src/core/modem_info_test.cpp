#include "core/modem_info.h"

#include "drivers/generic/modem_band.h"

#include "util/ujson.h"

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

size_t row_of(const modem_info *info)
{
    return static_cast<size_t>(info - g_midata);
}

modem_info custom_row(const char *model, const char *variant, const char *sn_suffix = "", uint32_t type = 1)
{
    modem_info row{};
    row.vendor = "Vendor";
    row.model = model;
    row.variant = variant;
    row.fw_suffix = "";
    row.sn_suffix = sn_suffix;
    row.usb_ids = "1234:5678";
    row.type = type;
    return row;
}

// Identification in three steps. 'u' by USB ids: the first row with them,
// case-blind, whole text; row 0 has none and is never a match. 'f' by firmware
// text: the longest key of any row wins; no match keeps the row. 's' by serial
// number: for the Meiglink types the variant and suffix start after three
// characters.
TEST(ModemInfoIdentify, UsbIdsFirmwareAndSerial)
{
    const struct {
        char how;
        const char *text;
        uint32_t type;
        size_t start, row;
    } cases[] = {
        // clang-format off
        {'u', "2C7C:0125", 0, 40, 1}, // EC25-EC, not EG25-G (row 34) with the same ids
        {'u', "2c7c:0125", 0, 40, 1},
        {'u', "05c6:9215", 0, 40, 15},
        {'u', "2DEE:4D58", 0, 40, 65},
        {'u', "2C7C:9999", 0, 40, 0},
        {'u', "2C7C:012", 0, 40, 0},
        {'u', "2C7C:01250", 0, 40, 0},
        {'u', "", 0, 40, 0},
        {'f', "EC25ECGAR06A03M4G", 0, 1, 1},   // EC25EC over EC25E
        {'f', "EC25EFAR06A06M4G", 0, 1, 2},    // only EC25E
        {'f', "EC25EUXGAR08A04M1G", 0, 1, 4},  // EC25EUX over EC25EU and EC25E
        {'f', "EC25AFFAR07A08M4G", 0, 1, 10},  // EC25 + AF + FA (8) over EC25AFF (7)
        {'f', "EC25AFFDR07A09M4G", 0, 1, 9},   // EC25AFF
        {'f', "EC25AFAR05A04M4G", 0, 1, 12},   // EC25 + A + FA
        {'f', "EC25AUTLFAR02A02M4G", 0, 1, 5}, // AUTL over AUT, AU
        {'f', "ec25ecgar06a03m4g", 0, 1, 1},   // case does not matter
        {'f', "EG25GGBR07A08M2G", 0, 1, 34},   // EG25-G shares the EC25 ids
        {'f', "BG96MAR02A07M1G", 0, 0, 35},    // a model without variant
        {'f', "EC21EUGAR06A05M4G", 0, 1, 20},  // any model, not only the current one
        {'f', "SLM828GNA06", 0, 70, 75},       // plain pattern for any other type
        {'f', "", 0, 7, 7},
        {'f', "EC25", 0, 7, 7},
        {'f', "EG91EXGAR08A05M1G", 0, 7, 7},
        // The SLM828G is keyed with a dash and an underscore.
        {'f', "SLM828G-NA06_V1.0.3", MODEM_TYPE_SLM828G, 70, 75},
        {'f', "slm828g-la12_v2", MODEM_TYPE_SLM828G, 70, 71},
        {'f', "SLM828G-EU12", MODEM_TYPE_SLM828G, 70, 70},
        {'f', "SLM828GNA06", MODEM_TYPE_SLM828G, 70, 70},
        {'f', "EC25ECGAR06A03M4G", MODEM_TYPE_SLM828G, 70, 70},
        {'s', "XYZVJ10C123456", MODEM_TYPE_SLM750, 50, 52},
        {'s', "xyzvj13b000001", MODEM_TYPE_SLM750, 50, 54},
        {'s', "XYZVAU0001", MODEM_TYPE_SLM750, 50, 58}, // VAU over VA
        {'s', "XYZVA10001", MODEM_TYPE_SLM750, 50, 59},
        {'s', "XYZVE00001", MODEM_TYPE_SLM750, 59, 50},
        {'s', "VJ10C123456", MODEM_TYPE_SLM750, 50, 50}, // not shifted past the key
        {'s', "XYZVJ99", MODEM_TYPE_SLM750, 55, 55},     // no VJ row without suffix
        {'s', "XYZACE1234", MODEM_TYPE_SLM770, 60, 63},
        {'s', "XYZAEU1234", MODEM_TYPE_SLM770, 65, 64}, // the 4D57 row comes first
        {'s', "XYZACA1234", MODEM_TYPE_SLM750, 67, 67}, // rows of another type are not searched
        {'s', "EUX0001", 3, 1, 4},                      // other types compare from the start
        {'s', "XYZVJ10C", 0, 50, 50},                   // type 0: never
        {'s', "ABC", MODEM_TYPE_SLM750, 50, 50},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.how << " " << c.text << " type " << c.type);
        const modem_info *info = &g_midata[c.start];
        if (c.how == 'u')
            modem_info_identify(info, c.text);
        else if (c.how == 'f')
            modem_info_identify_ex(info, c.text, c.type);
        else
            modem_info_identify_serial(info, c.text, c.type);
        EXPECT_EQ(row_of(info), c.row);
    }
}

// Keys are cut to 15 characters: rows whose keys agree in the first 15 are
// equal, and the earlier one wins even if the later matches in full.
TEST(ModemInfoIdentify, KeysAreCutTo15Characters)
{
    const modem_info fw_table[] = {
        custom_row("", ""),
        custom_row("ABCDEFGHIJKLMNOPQRS", ""),
        custom_row("ABCDEFGHIJKLMNO", "XYZ"),
        custom_row("ABCDEFGHIJ", "KLM"),
    };
    const struct {
        const char *firmware;
        ptrdiff_t row;
    } cases[] = {
        // clang-format off
        {"ABCDEFGHIJKLMNOXYZ", 1},
        {"ABCDEFGHIJKLMNOPQRS", 1},
        {"ABCDEFGHIJKLMNO", 1},
        {"ABCDEFGHIJKLMN", 3}, // 14 characters: only the shorter key fits
        {"ABCDEFGHIJKL", 0},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.firmware);
        const modem_info *info = &fw_table[0];
        modem_info_identify_ex(fw_table, info, c.firmware, 0);
        EXPECT_EQ(info - fw_table, c.row);
    }

    const modem_info sn_table[] = {
        custom_row("", ""),
        custom_row("M", "VARIANTNAME0123", "XYZ", MODEM_TYPE_SLM750),
        custom_row("M", "VARIANTNAME012", "", MODEM_TYPE_SLM750),
    };
    for (size_t row : {1, 2}) {
        std::string serial = "SN-VARIANTNAME012" + std::to_string(row + 2);
        const modem_info *info = &sn_table[0];
        modem_info_identify_serial(sn_table, info, serial.c_str(), MODEM_TYPE_SLM750);
        EXPECT_EQ(info, &sn_table[row]) << serial;
    }
}

TEST(ModemInfoValidateModel, FirstFourCharactersOfAnyModel)
{
    const struct {
        const char *text;
        bool ok;
    } cases[] = {
        {"EC25", true},  {"ec21-eu", true}, {"RM52xyz", true}, {"SLM8", true}, {"FN99", true}, {"BG95M3", true},
        {"EG91", true}, // EG915Q: only four characters count
        {"EG95", false}, {"EM05", false},   {"EC2", false},    {"FN9", false}, {"", false},    {"Unkn", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(modem_info_validate_model(c.text), c.ok);
    }
}

// Names of a row (cut to 31 characters) and of capability bits.
TEST(ModemInfoNames, RowsAndBits)
{
    modem_info long_row = custom_row("ABCDEFGHIJKLMNOPQRSTUVWXYZ", "0123456789");
    const std::string cut = std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ-0123456789").substr(0, 31);
    const struct {
        std::string got, want;
    } rows[] = {
        {modem_info_name(&g_midata[1]), "Quectel EC25-EC"},
        {modem_info_name(&g_midata[35]), "Quectel BG96"},
        {modem_info_name(&g_midata[75]), "Meiglink SLM828G-NA06"},
        {modem_info_name(&g_midata[0]), "Unknown"},
        {modem_info_name(nullptr), "Unknown"},
        {modem_info_model_name(&g_midata[1]), "EC25-EC"},
        {modem_info_model_name(&g_midata[0]), ""},
        {modem_info_name(&long_row), ("Vendor " + cut).substr(0, 31)},
        {modem_info_model_name(&long_row), cut},
        {modem_feature_str(1u << 8), "dynamic_mtu"},
        {modem_feature_str(1u << 20), "no_ussd"},
        {modem_feature_str(1u << 7), "feature_unknown"},
        {modem_feature_str(1u << 21), "feature_unknown"},
        {modem_feature_str(3), "feature_unknown"},
        {modem_gps_str(1u << 11), "GSV+GSA+GNS"},
        {modem_gps_str(1u << 12), "unknown"},
        {modem_gps_prefix_str(1u << 7), "BD"},
        {modem_gps_prefix_str(1u << 8), "unknown"},
    };
    for (const auto &r : rows)
        EXPECT_EQ(r.got, r.want);
    // Two buffers, reused by the next call.
    const char *first = modem_info_name(&g_midata[1]);
    EXPECT_NE(first, modem_info_model_name(&g_midata[1]));
    EXPECT_EQ(modem_info_name(&g_midata[79]), first);
}

std::string json(const ujson &j)
{
    char *s = blobmsg_format_json(j.get_blobmsg(), true);
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

// Reply fragments of a row's capabilities; "!" marks one that must be absent.
TEST(ModemInfoReply, CapabilitiesOfAModel)
{
    const struct {
        size_t row;
        const char *part;
    } rows[] = {
        // clang-format off
        {1, R"({"default_modem_func_id":0,"default_modem_func":"Modem full mode","command_timeout":10,)"},
        {1, R"("settle_time":500,"pdp_ctx_max":16,"features":["ipv6","volte","multi_apn",)"},
        {1, R"("dpo","rmnet","ecm",)"},
        {1, R"("default_ims_id":1,"default_ims":"Auto","service_mode_list":["Auto","2G","3G","4G","2G_3G",)"},
        {1, R"("band_list":{"gsm":["GSM_900","GSM_1800"],"wcdma":["WCDMA_900","WCDMA_2100"],"lte":["LTE_B1",)"},
        {1, R"("gps_satellites":{"gps":{"sentences":["GGA","RMC","GSV","GSA","VTG"],"prefix":["GP","GN"]},)"},
        {1, R"("galileo":{"sentences":["GSV"],"prefix":["GA"]},"beidou":{"sentences":["GSV","GSA"],"prefix":["PQ"]},)"},
        {1, R"("qzss":{"sentences":["GSV"],"prefix":["PQ"]}},"reboot_needed":true})"},
        {1, "!no_ussd"},
        {37, R"("service_mode_list":["Auto","CAT-M1","CAT-NB"])"}, // BG95-M4: Cat-M1 and NB-IoT only
        {37, R"("wwan_gnss_conflict","mobile_dfota","low_signal_reconnect","no_ussd"])"},
        {37, R"("lte_nb":["LTE_NB1",)"},
        {37, "!\"gsm\""},
        {16, R"("gps_satellites":{},)"}, // EC200A-EU has no receiver
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(modem_info_name(&g_midata[r.row]));
        auto j = ujson::create();
        ASSERT_TRUE(j);
        modem_info_fill_blob(*j, g_midata[r.row]);
        const std::string out = json(*j);
        const bool absent = r.part[0] == '!';
        EXPECT_EQ(out.find(r.part + absent) == std::string::npos, absent) << r.part << "\n" << out;
    }

    // Only the sentence and prefix bits that have names are listed.
    auto j = ujson::create();
    fill_gps_array(*j, "gps",
                   GPS_SENTENCE_GGA | GPS_SENTENCE_GSV | GPS_SENTENCE_GSV_GSA_GNS | (1u << 12) | (uint64_t{1} << 40),
                   GPS_PREFIX_GP | GPS_PREFIX_BD | (1u << 8));
    fill_gps_array(*j, "none", 0, 0);
    EXPECT_EQ(json(*j), R"({"gps":{"sentences":["GGA","GSV","GSV+GSA+GNS"],"prefix":["GP","BD"]},)"
                        R"("none":{"sentences":[],"prefix":[]}})");
}

// Every row names real bands, features and sentences, and its reported lists
// agree with its radios.
TEST(ModemInfoTable, RowsAreConsistent)
{
    const struct {
        uint64_t modem_band_masks::*mask;
        const char *(*name)(uint64_t);
        const char *unknown;
    } families[] = {
        // clang-format off
        {&modem_band_masks::gsm, modem_gsm_band_str, "GSM_UNKNOWN"},
        {&modem_band_masks::wcdma, modem_wcdma_band_str, "WCDMA_UNKNOWN"},
        {&modem_band_masks::lte, modem_lte_band_str, "LTE_UNKNOWN"},
        {&modem_band_masks::lte_nb, modem_lte_nb_band_str, "LTE_NB_UNKNOWN"},
        {&modem_band_masks::nsa_5g, modem_nsa_5g_band_str, "NSA_5G_UNKNOWN"},
        {&modem_band_masks::sa_5g, modem_5g_band_str, "5G_UNKNOWN"},
        {nullptr, [](uint64_t bit) { return modem_feature_str(static_cast<uint32_t>(bit)); }, "feature_unknown"},
        // clang-format on
    };
    for (size_t r = 1; r < MODEM_INFO_ROWS; r++) {
        const modem_info &row = g_midata[r];
        SCOPED_TRACE(testing::Message() << "row " << r << " " << modem_info_name(&row));
        ASSERT_TRUE(row.vendor && *row.model && row.variant && row.fw_suffix && row.sn_suffix && row.usb_ids);
        EXPECT_EQ(strlen(row.usb_ids), 9u);
        uint64_t bands = 0;
        for (const auto &f : families) {
            const uint64_t mask = f.mask ? row.bands.*f.mask : row.features;
            EXPECT_EQ(f.mask && (mask & 1), false) << "\"any\" is not a band";
            for (uint64_t bit = f.mask ? 2 : 1; bit && bit <= mask; bit <<= 1)
                EXPECT_TRUE(!(mask & bit) || strcmp(f.name(bit), f.unknown)) << f.name(bit);
            bands |= f.mask ? mask : 0;
        }
        EXPECT_NE(bands, 0u);
        EXPECT_EQ((row.features & MODEM_FEATURE_NO_USSD) != 0, !(row.bands.gsm || row.bands.wcdma));
        EXPECT_TRUE(!(row.features & MODEM_FEATURE_AUTO_5G_MODE) || (row.bands.nsa_5g && row.bands.sa_5g));
        EXPECT_TRUE(!(row.features & MODEM_FEATURE_VOLTE) || row.default_ims);
        for (const modem_nmea &nmea : row.nmea) {
            EXPECT_EQ(nmea.sentences >> 12 | nmea.prefixes >> 8, 0u);
            EXPECT_EQ(nmea.sentences != 0, nmea.prefixes != 0);
        }
        EXPECT_NE(row.service_modes & 2, 0u) << "Auto is always offered";
        EXPECT_TRUE(row.type && row.cmd_timeout && row.pdp_ctx_max);
    }
}

} // namespace
