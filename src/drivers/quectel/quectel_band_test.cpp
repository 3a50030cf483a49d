#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_band_text.h"

#include <cstring>
#include <string_view>
#include <vector>

#include "core/modem_info.h"
#include "drivers/generic/driver_test_support.h"

namespace
{

const modem_info *row_of(std::string_view model, std::string_view variant)
{
    for (const modem_info &row : g_midata)
        if (model == row.model && variant == row.variant)
            return &row;
    return nullptr;
}

class QuectelBandTest : public driver_test
{
  protected:
    // "MODEL VARIANT" (variant may be empty); null for no row.
    void as(const char *model, const char *remembered)
    {
        std::string m = model ? model : "";
        mdm.set_info(model ? row_of(m.substr(0, m.find(' ')), m.substr(m.find(' ') + 1)) : nullptr);
        ASSERT_TRUE(!model || mdm.info()) << model;
        cache->remove_item_name("qcfg_band");
        if (remembered)
            cache->update_item("qcfg_band", CACHE_DATA_STRING, remembered, std::strlen(remembered) + 1);
    }
    // The list "key:A,B" as {"key":["A","B"]}; "" as {}.
    static std::unique_ptr<ujson> list(const std::string &spec)
    {
        auto json = ujson::create();
        if (spec.empty())
            return json;
        const size_t colon = spec.find(':');
        void *a = json->open_array(spec.substr(0, colon).c_str());
        for (size_t at = colon + 1; at < spec.size() && at != std::string::npos;) {
            size_t comma = spec.find(',', at);
            json->add_string(nullptr, spec.substr(at, comma - at).c_str());
            at = comma == std::string::npos ? comma : comma + 1;
        }
        json->close_array(a);
        return json;
    }
    // "<status>[ <command>]" of a build from a list.
    std::string built_from(act_func fn, const std::string &spec)
    {
        const int status = build(fn, list(spec).get());
        return std::to_string(status) + (command().empty() ? "" : " " + command());
    }
};

// The command each family's setter writes for the bands asked, the reads,
// refused lists and the defaults.
TEST_F(QuectelBandTest, CommandsFromBandLists)
{
    const std::string nr = "1:3:5:7:8:20:28:38:40:41:75:76:77:78";
    // clang-format off
    const struct { act_func fn; const char *model, *remembered; std::string list, expect; } rows[] = {
        // EC2x: LTE bit n-1 = band n; GSM/WCDMA and TD-SCDMA fields untouched
        // (0 keeps a field; nothing remembered for TD-SCDMA writes 0); any case.
        {lte_band_set, "EC25 EU", nullptr, "bands:LTE_B3,lte_b20", "0 AT+QCFG=\"band\",0,0x80004,0\r"},
        {lte_band_set, "EC25 AF", nullptr, "bands:LTE_B66,LTE_B71", "0 AT+QCFG=\"band\",0,0x420000000000000000,0\r"},
        {lte_band_set, "EG25 G", "0xbff,0x1e00b0e18df,0x20", "bands:LTE_B28", "0 AT+QCFG=\"band\",0,0x8000000,0x20\r"},
        // GSM and WCDMA share one field: the other half comes from what was
        // read last, unknown bits (0x800) included, else from the model row.
        {gsm_band_set, "EG25 G", "0xbff,0x1e00b0e18df,0x0", "bands:GSM_1800", "0 AT+QCFG=\"band\",0xbf2,0,0x0\r"},
        {gsm_band_set, "EC25 EU", nullptr, "bands:GSM_900", "0 AT+QCFG=\"band\",0x91,0,0\r"},
        {wcdma_band_set, "EG25 G", "0xbff,0x1e00b0e18df,0x0", "bands:WCDMA_2100", "0 AT+QCFG=\"band\",0x81f,0,0x0\r"},
        // Cat-1: two fields, no "no change" value: the other field as remembered
        // (the forum's EC200T read), else as the model row has it.
        {lte_band_set_cat1, "EC200A EU", "0x93,0x1a0080800c5", "bands:LTE_B3", "0 AT+QCFG=\"band\",0x93,0x4\r"},
        {lte_band_set_cat1, "EC200A EU", nullptr, "bands:LTE_B1", "0 AT+QCFG=\"band\",0xd3,0x1\r"},
        {gsm_band_set_cat1, "EC200A EU", "0x93,0x1a0080800c5", "bands:GSM_1800", "0 AT+QCFG=\"band\",0x92,0x1a0080800c5\r"},
        // LPWA: GSM, Cat-M1 ("lte") and NB-IoT ("lte_nb") fields.
        {lte_band_set_lpwa, "BG96 ", "0xf,0x8000000,0x80000", "bands:LTE_B3", "0 AT+QCFG=\"band\",0xf,0x4,0x80000\r"},
        {lte_nb_band_set_lpwa, "BG96 ", "0xf,0x8000000,0x80000", "bands:LTE_NB20,LTE_NB28", "0 AT+QCFG=\"band\",0xf,0x8000000,0x8080000\r"},
        {gsm_band_set_lpwa, "BG96 ", "0xf,0x8000000,0x80000", "bands:GSM_850,GSM_1900", "0 AT+QCFG=\"band\",0xc,0x8000000,0x80000\r"},
        // 5G: decimal band numbers in ascending order, one list per family.
        {lte_band_set_nr, "RM520N GL", nullptr, "bands:LTE_B20,LTE_B1,LTE_B7,LTE_B3", "0 AT+QNWPREFCFG=\"lte_band\",1:3:7:20\r"},
        {wcdma_band_set_nr, "RM520N GL", nullptr, "bands:WCDMA_900,WCDMA_2100,WCDMA_J850", "0 AT+QNWPREFCFG=\"gw_band\",1:8:19\r"},
        {sa_5g_band_set_nr, "RG520N EU", nullptr, "bands:5G_N78,5G_N41,5G_N78", "0 AT+QNWPREFCFG=\"nr5g_band\",41:78\r"},
        // UNISOC: one NR list.
        {sa_5g_band_set_unisoc_nr, "RG500U EA", nullptr, "bands:5G_N41,5G_N1", "0 AT+QNWPREFCFG=\"nr5g_band\",1:41\r"},
        {get_bands, "EC25 EU", nullptr, "", "0 AT+QCFG=\"band\"\r"},
        {get_bands_nr, "RM520N GL", nullptr, "", "0 AT+QNWPREFCFG=\"gw_band\";+QNWPREFCFG=\"lte_band\";+QNWPREFCFG=\"nsa_nr5g_band\";+QNWPREFCFG=\"nr5g_band\"\r"},
        // Refused lists: status 2 and no command.
        {lte_band_set, "EC25 EU", nullptr, "bands:", "2"},
        {lte_band_set, "EC25 EU", nullptr, "", "2"},
        {gsm_band_set, "EC25 EU", nullptr, "bands:LTE_B3", "2"},            // another family's band
        {sa_5g_band_set_nr, "RM520N GL", nullptr, "bands:NSA_5G_N78", "2"}, // NSA name for SA
        {lte_band_set, "EC25 EU", nullptr, "bands:LTE_B3,LTE_B99", "2"},    // unknown name
        {gsm_band_set, "EC25 EU", nullptr, "bands:GSM_NONE", "2"},
        {lte_band_set, "EC25 EU", nullptr, "bands:LTE_B3,LTE_B66", "2"},      // a band the model lacks
        {gsm_band_set_lpwa, "BG95 M4", nullptr, "bands:GSM_900", "2"},        // a family the model lacks
        {nsa_5g_band_set_nr, "RM520N GL", nullptr, "bands:NSA_5G_N257", "2"}, // mmWave on a sub-6 module
        {wcdma_band_set, "EG25 G", nullptr, "bands:WCDMA_J850", "2"},         // B19: no bit in the field
        {lte_band_set, "EC25 EU", nullptr, "bands:LTE_B3\"", "2"},
        {lte_band_set, nullptr, nullptr, "bands:LTE_B3", "2"}, // no model row
        {lte_band_set, " ", nullptr, "bands:LTE_ANY", "2"},    // the unknown model
        // Defaults: the model's bands of every family not skipped.
        {set_default_bands, "EC25 EU", nullptr, "", "0 AT+QCFG=\"band\",0x93,0x1a0080800c5,0\r"},
        {set_default_bands, "EC25 EU", nullptr, "skip:gsm,WCDMA", "0 AT+QCFG=\"band\",0,0x1a0080800c5,0\r"},
        {set_default_bands, "EG25 G", "0x801,0x1e00b0e18df,0x0", "skip:lte", "0 AT+QCFG=\"band\",0xbff,0,0x0\r"},
        {set_default_bands_cat1, "EC200A EU", "0x1,0x4", "skip:lte", "0 AT+QCFG=\"band\",0xd3,0x4\r"},
        {set_default_bands_lpwa, "BG96 ", "0x1,0x4,0x8", "skip:lte,lte_nb", "0 AT+QCFG=\"band\",0xf,0x4,0x8\r"},
        // UNISOC: NSA and SA share one list.
        {set_default_bands_unisoc_nr, "RG500U EA", nullptr, "", "0 AT+QNWPREFCFG=\"gw_band\",1:5:8;+QNWPREFCFG=\"lte_band\",1:3:5:7:8:20:28:34:38:39:40:41;" "+QNWPREFCFG=\"nr5g_band\",1:3:5:8:28:41:77:78\r"},
        {set_default_bands_nr, "RG520N EU", nullptr, "skip:wcdma,lte", "0 AT+QNWPREFCFG=\"nsa_nr5g_band\"," + nr + ";+QNWPREFCFG=\"nr5g_band\"," + nr + "\r"},
        {set_default_bands_nr, "RG520N EU", nullptr, "skip:wcdma,lte,5g", "0 AT+QNWPREFCFG=\"nsa_nr5g_band\"," + nr + "\r"},
        // A family the model lacks is left out instead of written empty.
        {set_default_bands_nr, "RG255C GL", nullptr, "skip:lte,sa_5g", "2"},
        {set_default_bands, "EC25 EU", nullptr, "skip:gsm,wcdma,lte", "2"},
        {set_default_bands, nullptr, nullptr, "", "2"},
    };
    // clang-format on
    for (const auto &row : rows) {
        as(row.model, row.remembered);
        EXPECT_EQ(built_from(row.fn, row.list), row.expect) << row.list;
    }
    as("EC25 EU", nullptr);
    EXPECT_EQ(built(lte_band_set, R"({"bands":"LTE_B3"})"), "2") << "a text for the list";
}

// After a write the modem's answer decides; a QCFG write makes the
// remembered fields stale, so they are read again (not when a restart follows).
TEST_F(QuectelBandTest, WriteResultsRereadOrRestart)
{
    // rereads: of the bands
    // clang-format off
    const struct { act_func fn; const char *bands, *answer; int status; size_t rereads; } rows[] = {
        {lte_band_set, "bands:LTE_B3", "\r\nOK\r\n", 0, 1},
        {lte_band_set, "bands:LTE_B3", "\r\nERROR\r\n", 5, 0},
        {gsm_band_set, "bands:GSM_900", "0\r", 0, 1},
        {lte_band_set_nr, "bands:LTE_B3", "\r\nOK\r\n", 0, 0},
        {lte_band_set_nr, "bands:LTE_B3", "\r\n+CME ERROR: 3\r\n", 5, 0},
        {set_default_bands, "", "\r\nOK\r\n", 0, 1},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        as(row.fn == lte_band_set_nr ? "RM520N GL" : "EC25 EU", "0x93,0x1,0x0");
        mdm.refreshed.clear();
        ASSERT_EQ(build(row.fn, list(row.bands).get()), 0);
        EXPECT_EQ(parsed(row.fn, row.answer), std::to_string(row.status) + " {}");
        EXPECT_EQ(mdm.refreshed, std::vector<uint32_t>(row.rereads, ACT_GET_BANDS));
        EXPECT_EQ(cached("qcfg_band") == "<none>", row.rereads > 0);
    }

    // The test modem has no bus, so the restart request cannot go out.
    as("EC25 EU", nullptr);
    auto with_reboot = ujson::create();
    with_reboot->add_bool("reboot", true);
    mdm.refreshed.clear();
    ASSERT_EQ(build(set_default_bands, with_reboot.get()), 0);
    EXPECT_EQ(parse(set_default_bands, "\r\nOK\r\n"), 0);
    EXPECT_EQ(as_json(*reply), R"({"reboot":false})");
    EXPECT_TRUE(mdm.refreshed.empty());
}

// Band reports: names per family decoded from each field, the fields as the
// modem printed them, and (QCFG) the fields remembered for the next set.
TEST_F(QuectelBandTest, ReportsDecodeEveryFamily)
{
    // clang-format off
    const struct { const char *what; act_func fn; const char *answer; int status; const char *reply; const char *remembered; } rows[] = {
        // EG25-G EG25GGBR07A08M2G
        {"ec2x", get_bands, "\r\n+QCFG: \"band\",0xbff,0x1e00b0e18df,0x0\r\n\r\nOK\r\n", 0, R"({"bandval":"0xbff","gsm":["GSM_850","GSM_900","GSM_1800","GSM_1900"],)" R"("wcdma":["WCDMA_800","WCDMA_850","WCDMA_900","WCDMA_1700","WCDMA_1900","WCDMA_2100"],)" R"("ltebandval":"0x1e00b0e18df","lte":["LTE_B1","LTE_B2","LTE_B3","LTE_B4","LTE_B5","LTE_B7","LTE_B8",)" R"("LTE_B12","LTE_B13","LTE_B18","LTE_B19","LTE_B20","LTE_B25","LTE_B26","LTE_B28","LTE_B38","LTE_B39",)" R"("LTE_B40","LTE_B41"],"tdsbandval":"0x0"})", "0xbff,0x1e00b0e18df,0x0"},
        // "-" is no value: its keys are left out, never read as 0.
        {"ec2x, no LTE value", get_bands, "\r\n+QCFG: \"band\",0x1,-,0x0\r\n\r\nOK\r\n", 0, R"({"bandval":"0x1","gsm":["GSM_900"],"wcdma":[],"tdsbandval":"0x0"})", "0x1,,0x0"},
        // EC200T, Quectel forum thread on AT+QCFG="band"
        {"cat1", get_bands_cat1, "\r\n+QCFG: \"band\",0x93,0x1a0080800c5\r\n\r\nOK\r\n", 0, R"({"bandval":"0x93","gsm":["GSM_900","GSM_1800"],"wcdma":["WCDMA_900","WCDMA_2100"],)" R"("ltebandval":"0x1a0080800c5","lte":["LTE_B1","LTE_B3","LTE_B7","LTE_B8","LTE_B20","LTE_B28",)" R"("LTE_B38","LTE_B40","LTE_B41"]})", "0x93,0x1a0080800c5"},
        // BG96 field layout from peer driver notes (GSM, Cat-M1, NB-IoT).
        {"lpwa", get_bands_lpwa, "\r\n+QCFG: \"band\",0xf,0x80084,0x80084\r\n\r\nOK\r\n", 0, R"({"gsmbandval":"0xf","gsm":["GSM_850","GSM_900","GSM_1800","GSM_1900"],"catm1bandval":"0x80084",)" R"("lte":["LTE_B3","LTE_B8","LTE_B20"],"catnb1bandval":"0x80084",)" R"("lte_nb":["LTE_NB3","LTE_NB8","LTE_NB20"]})", "0xf,0x80084,0x80084"},
        {"qcfg error", get_bands, "\r\n+CME ERROR: 4\r\n", 5, "{}", "<none>"},
        {"another qcfg item only", get_bands, "\r\n+QCFG: \"nwscanmode\",0\r\n\r\nOK\r\n", 5, "{}", "<none>"},
        {"not hexadecimal", get_bands, "\r\n+QCFG: \"band\",0xbff,0xZZ,0x0\r\n\r\nOK\r\n", 5, "{}", "<none>"},
        {"no field at all", get_bands, "\r\n+QCFG: \"band\"\r\n\r\nOK\r\n", 5, "{}", "<none>"},
        // RG520N/RM520N AT manual example of the four lists.
        {"nr", get_bands_nr, "\r\n+QNWPREFCFG: \"gw_band\",1:8\r\n+QNWPREFCFG: \"lte_band\",1:3:8\r\n" "+QNWPREFCFG: \"nsa_nr5g_band\",78\r\n+QNWPREFCFG: \"nr5g_band\",78\r\n\r\nOK\r\n", 0, R"({"gw_band":"1:8","wcdma":["WCDMA_900","WCDMA_2100"],"lte_band":"1:3:8","lte":["LTE_B1","LTE_B3","LTE_B8"],)" R"("nsa_nr5g_band":"78","nsa_5g":["NSA_5G_N78"],"nr5g_band":"78","5g":["5G_N78"]})", "<none>"},
        // RM520N-GL reads of two lists, with a band number no family lists
        // added and the blank the manual's own examples print after the comma.
        {"nr, partial", get_bands_nr, "\r\n+QNWPREFCFG: \"lte_band\",1:3:7:20:250\r\n+QNWPREFCFG:\"nsa_nr5g_band\", 78\r\n\r\nOK\r\n", 0, R"({"lte_band":"1:3:7:20:250","lte":["LTE_B1","LTE_B3","LTE_B7","LTE_B20"],)" R"("nsa_nr5g_band":"78","nsa_5g":["NSA_5G_N78"]})", "<none>"},
        {"nr, no list", get_bands_nr, "\r\nOK\r\n", 5, "{}", "<none>"},
        // RG500U/RM500U layout: one NR list (test form from a user's band
        // tool report; the values are made up), shown for both NR families.
        {"unisoc", get_bands_unisoc_nr, "\r\n+QNWPREFCFG: \"nr5g_band\",1:28:41:78\r\n\r\nOK\r\n", 0, R"({"nr5g_band":"1:28:41:78","5g":["5G_N1","5G_N28","5G_N41","5G_N78"],)" R"("nsa_5g":["NSA_5G_N1","NSA_5G_N28","NSA_5G_N41","NSA_5G_N78"]})", "<none>"},
    };
    // clang-format on
    for (const auto &row : rows) {
        as("EC25 EU", nullptr);
        EXPECT_EQ(parse(row.fn, row.answer), row.status) << row.what;
        if (row.status == 0) {
            EXPECT_EQ(as_json(*reply), row.reply) << row.what;
        }
        EXPECT_EQ(cached("qcfg_band"), row.remembered) << row.what;
    }
}

} // namespace

// The texts of the band settings on their own, as EC25 (AT+QCFG="band") and
// RM520N-GL (AT+QNWPREFCFG) print them, and the spellings firmware varies in.
TEST(QuectelBandText, HexMasksReadAndPrintBack)
{
    // clang-format off
    const struct { const char *text; bool ok; uint64_t high, low; const char *printed; } rows[] = {
        {"0x93", true, 0, 0x93, "0x93"}, // EC25 GSM/WCDMA field
        {"0x2000000000480800D5", true, 0x20, 0x00000000480800D5, "0x2000000000480800d5"},        // EC25EU LTE, B66 above bit 64
        {"1a", true, 0, 0x1a, "0x1a"},   // no "0x"
        {"0X000f", true, 0, 0xf, "0xf"}, // leading zeros, capital X
        {"0", true, 0, 0, "0x0"},
        {"0xffffffffffffffffffffffffffffffff", true, ~uint64_t{0}, ~uint64_t{0}, "0xffffffffffffffffffffffffffffffff"},
        {"0x1ffffffffffffffffffffffffffffffff", false, 0, 0, ""}, // 129 bits
        {"0x", false, 0, 0, ""},
        {"", false, 0, 0, ""},
        {"0x12g", false, 0, 0, ""},
        {" 0x1", false, 0, 0, ""},
    };
    // clang-format on
    for (const auto &r : rows) {
        quectel::wide_mask m;
        ASSERT_EQ(quectel::parse_hex(r.text, m), r.ok) << r.text;
        if (!r.ok)
            continue;
        EXPECT_EQ(m.w[1], r.high) << r.text;
        EXPECT_EQ(m.w[0], r.low) << r.text;
        EXPECT_EQ(quectel::hex_text(m), r.printed) << r.text;
    }
}

TEST(QuectelBandText, BandNumberListsKeepOrderAndSkipWhatIsNoNumber)
{
    // clang-format off
    const struct { const char *list; std::vector<unsigned> numbers; } rows[] = {
        {"1:3:7:20:28", {1, 3, 7, 20, 28}}, // RM520N-GL lte_band
        {"41:78:77", {41, 78, 77}},         // list order, not sorted
        {" 1 : 3 ", {1, 3}},                // blanks around entries
        {"1::3:x:-2:+4", {1, 3, 4}},        // empty, text and negative entries
        {"0", {0}},
        {"", {}},
        {"4294967296:5", {5}}, // beyond unsigned
    };
    // clang-format on
    for (const auto &r : rows)
        EXPECT_EQ(quectel::band_numbers(r.list), r.numbers) << r.list;
}
