#include "ubus/vocab.h"

#include <cctype>
#include <string>

#include <gtest/gtest.h>

namespace
{

std::string upper(const char *s)
{
    std::string out(s);
    for (auto &c : out)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return out;
}

TEST(NetMode, FullTable)
{
    struct row {
        uint32_t id;
        const char *text;
        const char *arg; // nullptr: no keyword of its own
    };
    const row rows[] = {
        {1, "Auto", "default"},
        {2, "No service", nullptr},
        {3, "2G", "2g"},
        {4, "GSM", "gsm"},
        {5, "GPRS", nullptr},
        {6, "EDGE", nullptr},
        {7, "3G", "3g"},
        {8, "WCDMA", "wcdma"},
        {9, "TDSCDMA", nullptr},
        {10, "CDMA", nullptr},
        {11, "EVDO", nullptr},
        {12, "CDMA-EVDO", nullptr},
        {13, "HSDPA", nullptr},
        {14, "HSUPA", nullptr},
        {15, "HSPA+", nullptr},
        {16, "EHRPD", nullptr},
        {17, "HDR", nullptr},
        {18, "UMTS", "umts"},
        {19, "HSDPA+HSUPA", nullptr},
        {20, "4G", "4g"},
        {21, "LTE", "lte"},
        {22, "5G", "5g"},
        {23, "NR5G", "nr5g"},
        {24, "5G-NSA", nullptr},
        {25, "5G-SA", nullptr},
        {26, "CAT-M1", nullptr},
        {27, "CAT-NB", nullptr},
        {28, "eMTC", nullptr},
        {29, "NBIoT", nullptr},
        {30, "2G_3G", "2g_3g"},
        {31, "GSM_WCDMA", "gsm_wcdma"},
        {32, "2G_4G", "2g_4g"},
        {33, "GSM_LTE", "gsm_lte"},
        {34, "3G_4G", "3g_4g"},
        {35, "WCDMA_LTE", "wcdma_lte"},
        {36, "3G_5G", "3g_5g"},
        {37, "WCDMA_NR5G", "wcdma_nr5g"},
        {38, "4G_5G", "4g_5g"},
        {39, "LTE_NR5G", "lte_nr5g"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        EXPECT_STREQ(net_mode_str(r.id), r.text);
        EXPECT_STREQ(net_mode_arg_str(r.id), r.arg ? r.arg : "default");
        if (r.arg) {
            EXPECT_EQ(net_mode_arg_enum(r.arg), r.id);
        }
        // Display texts are not keywords, except where they coincide.
        if (!r.arg || std::string(r.arg) != r.text) {
            EXPECT_EQ(net_mode_arg_enum(r.text), 0u);
        }
    }
    for (uint32_t id : {0u, 40u, 1000u}) {
        EXPECT_STREQ(net_mode_str(id), "Unknown");
        EXPECT_STREQ(net_mode_arg_str(id), "default");
    }
}

TEST(NetMode, Keywords)
{
    EXPECT_EQ(net_mode_arg_enum("default"), NET_MODE_AUTO);
    EXPECT_EQ(net_mode_arg_enum("auto"), NET_MODE_AUTO);
    EXPECT_STREQ(net_mode_arg_str(NET_MODE_AUTO), "default");
    EXPECT_EQ(net_mode_arg_enum("LTE"), 0u);
    EXPECT_EQ(net_mode_arg_enum("lte "), 0u);
    EXPECT_EQ(net_mode_arg_enum(""), 0u);
    EXPECT_EQ(net_mode_arg_enum("Auto"), 0u);
}

// Every argument vocabulary: keywords round-trip, comparison is exact, and
// numbers without a keyword print the vocabulary's fall-back.
TEST(ArgVocabularies, KeywordsRoundTripExactly)
{
    struct vocab {
        const char *label;
        const char *(*arg_str)(uint32_t);
        uint32_t (*arg_enum)(std::string_view);
        uint32_t max;
        const char *fallback;
    };
    const vocab vocabs[] = {
        {"net_mode", net_mode_arg_str, net_mode_arg_enum, 39, "default"},
        {"rat_priority", rat_priority_arg_str, rat_priority_arg_enum, 7, "unknown"},
        {"net_reg_mode", net_reg_mode_arg_str, net_reg_mode_arg_enum, 3, "default"},
        {"signal_query_cfg", signal_query_cfg_arg_str, signal_query_cfg_arg_enum, 2, "unknown"},
        {"gprs_attach", gprs_attach_arg_str, gprs_attach_arg_enum, 2, "unknown"},
        {"mbn_auto_sel", mbn_auto_sel_arg_str, mbn_auto_sel_arg_enum, 2, "unknown"},
        {"roaming_svc", roaming_svc_arg_str, roaming_svc_arg_enum, 3, "unknown"},
        {"op_slc_mode", op_slc_mode_arg_str, op_slc_mode_arg_enum, 5, "default"},
        {"op_slc_fmt", op_slc_fmt_arg_str, op_slc_fmt_arg_enum, 3, "default"},
        {"sms_mode", sms_mode_arg_str, sms_mode_arg_enum, 2, "unknown"},
        {"msg_storage", msg_storage_arg_str, msg_storage_arg_enum, 6, "unknown"},
        {"clip_mode", clip_mode_arg_str, clip_mode_arg_enum, 2, "unknown"},
        {"cell_rc", cell_rc_arg_str, cell_rc_arg_enum, 2, "unknown"},
        {"phone_func", phone_func_arg_str, phone_func_arg_enum, 8, "unknown"},
        {"err_msg_fmt", err_msg_fmt_arg_str, err_msg_fmt_arg_enum, 3, "unknown"},
        {"m2m", m2m_state_arg_str, m2m_arg_enum, 2, "unknown"},
        {"frouting", frouting_state_arg_str, frouting_arg_enum, 2, "unknown"},
        {"urc_ind", urc_ind_arg_str, urc_ind_arg_enum, 7, "unknown"},
        {"nmea_sata", nmea_sata_arg_str, nmea_sata_arg_enum, 4, "unknown"},
    };
    for (const auto &v : vocabs) {
        SCOPED_TRACE(v.label);
        int keywords = 0;
        for (uint32_t id = 1; id <= v.max; id++) {
            const char *key = v.arg_str(id);
            ASSERT_NE(key, nullptr);
            if (std::string(key) == v.fallback)
                continue;
            keywords++;
            EXPECT_EQ(v.arg_enum(key), id) << key;
            const std::string up = upper(key);
            if (up != key) {
                EXPECT_EQ(v.arg_enum(up), 0u) << up;
            }
        }
        EXPECT_GT(keywords, 0);
        EXPECT_STREQ(v.arg_str(0), v.fallback);
        EXPECT_STREQ(v.arg_str(v.max + 1), v.fallback);
        EXPECT_EQ(v.arg_enum(""), 0u);
        EXPECT_EQ(v.arg_enum("no such keyword"), 0u);
    }
}

// Every (enum, str) vocabulary: display texts parse back to their number in
// any case, and unknown text parses to 0.
TEST(EnumVocabularies, TextsRoundTripIgnoringCase)
{
    struct vocab {
        const char *label;
        const char *(*str)(uint32_t);
        uint32_t (*enum_fn)(std::string_view);
        uint32_t max;
    };
    const vocab vocabs[] = {
        {"ps_att_state", ps_att_state_str, ps_att_state_enum, 2},
        {"net_cat", net_cat_str, net_cat_enum, 3},
        {"disable_nr5g_mode", disable_nr5g_mode_str, disable_nr5g_mode_enum, 3},
        {"polarity_id", polarity_id_str, polarity_id_enum, 2},
        {"urc_lte_sms_format", urc_lte_sms_format_str, urc_lte_sms_format_enum, 3},
        {"call_direction_id", call_direction_id_str, call_direction_id_enum, 2},
        {"call_state_id", call_state_id_str, call_state_id_enum, 6},
        {"call_mode_id", call_mode_id_str, call_mode_id_enum, 10},
        {"call_type_id", call_type_id_str, call_type_id_enum, 7},
        {"ring_type_id", ring_type_id_str, ring_type_id_enum, 7},
        {"ussd_mode", ussd_mode_str, ussd_mode_enum, 3},
        {"ims_state", ims_state_str, ims_state_enum, 3},
        {"volte_state", volte_state_str, volte_state_enum, 2},
        {"pdp_type_id", pdp_type_id_str, pdp_type_id_enum, 5},
        {"pdp_data_comp_id", pdp_data_comp_id_str, pdp_data_comp_id_enum, 4},
        {"pdp_hdr_comp_id", pdp_hdr_comp_id_str, pdp_hdr_comp_id_enum, 5},
        {"pdp_ipv4_addr_alloc_id", pdp_ipv4_addr_alloc_id_str, pdp_ipv4_addr_alloc_id_enum, 2},
        {"pdp_req_id", pdp_req_id_str, pdp_req_id_enum, 5},
        {"apn_auth", apn_auth_str, apn_auth_enum, 4},
        {"pdp_ctx_state", pdp_ctx_state_str, pdp_ctx_state_enum, 2},
        {"pdp_call_mode", pdp_call_mode_str, pdp_call_mode_enum, 3},
        {"ipv6_ndp_state", ipv6_ndp_state_str, ipv6_ndp_state_enum, 2},
        {"cap_set", cap_set_str, cap_set_enum, 6},
        {"usbnet_mode_id", usbnet_mode_id_str, usbnet_mode_id_enum, 4},
        {"nat_mode_id", nat_mode_id_str, nat_mode_id_enum, 2},
        {"sec_boot_mode_id", sec_boot_mode_id_str, sec_boot_mode_id_enum, 2},
        {"ue_usage_id", ue_usage_id_str, ue_usage_id_enum, 2},
        {"fota_state", fota_state_str, fota_state_enum, 10},
        {"time_mode", time_mode_str, time_mode_enum, 3},
        {"storage_type", storage_type_str, storage_type_enum, 3},
        {"nmea_type", nmea_type_str, nmea_type_enum, 6},
        {"gnss_mode", gnss_mode_str, gnss_mode_enum, 4},
        {"gnss_accuracy", gnss_accuracy_str, gnss_accuracy_enum, 3},
        {"nmea_output_port", nmea_output_port_str, nmea_output_port_enum, 3},
        {"gnss_operation_mode", gnss_operation_mode_str, gnss_operation_mode_enum, 7},
        {"dpo_mode", dpo_mode_str, dpo_mode_enum, 3},
    };
    for (const auto &v : vocabs) {
        SCOPED_TRACE(v.label);
        const std::string unknown = v.str(0);
        for (uint32_t id = 1; id <= v.max; id++) {
            const char *text = v.str(id);
            SCOPED_TRACE(text);
            EXPECT_NE(text, unknown) << "number " << id << " has no text";
            EXPECT_EQ(v.enum_fn(text), id);
            EXPECT_EQ(v.enum_fn(upper(text)), id);
        }
        EXPECT_EQ(v.str(v.max + 1), unknown);
        EXPECT_EQ(v.enum_fn(""), 0u);
        EXPECT_EQ(v.enum_fn("no such text"), 0u);
    }
}

TEST(PinState, Texts)
{
    const char *const texts[] = {
        "Unknown",
        "OK",
        "Not ready",
        "Unknown",
        "Required PIN",
        "Required PUK",
        "Required network personalization password",
        "Required network personalization unlocking password",
        "Required network subset personalization password",
        "Required network subset personalization unlocking password",
        "SIM not inserted",
        "Unknown",
        "Unknown",
        "SIM failure",
        "SIM busy",
        "PUK",
        "Unknown",
    };
    for (uint32_t s = 0; s < std::size(texts); s++) {
        SCOPED_TRACE(s);
        EXPECT_STREQ(pin_state_str(s), texts[s]);
    }
    EXPECT_STREQ(pin_state_str(99), "Unknown");
}

TEST(SimState, FromPinState)
{
    for (uint32_t pin = 0; pin <= 20; pin++) {
        SCOPED_TRACE(pin);
        uint32_t want = SIM_STATE_UNKNOWN;
        if (pin == 2 || pin == 10 || pin == 13)
            want = SIM_STATE_UNUSABLE;
        else if ((pin >= 4 && pin <= 9) || pin == 1 || pin == 14 || pin == 15)
            want = SIM_STATE_PRESENT;
        EXPECT_EQ(sim_state_enum(pin), want);
    }
    EXPECT_EQ(sim_state_enum(UINT32_MAX), SIM_STATE_UNKNOWN);
}

TEST(NetReg, StatusModeAndTechnology)
{
    const char *const stat[] = {"Not registered",
                                "Registered, home",
                                "Searching",
                                "Denied",
                                "Unknown",
                                "Roaming",
                                "SMS only, home network",
                                "SMS only, roaming",
                                "Emergency services only",
                                "Unknown"};
    for (uint32_t s = 0; s < std::size(stat); s++) {
        SCOPED_TRACE(s);
        EXPECT_STREQ(net_reg_stat_str(s), stat[s]);
    }

    EXPECT_STREQ(net_reg_mode_str(0), "Unknown");
    EXPECT_STREQ(net_reg_mode_str(1), "Disabled");
    EXPECT_STREQ(net_reg_mode_str(2), "Enabled");
    EXPECT_STREQ(net_reg_mode_str(3), "Enabled (with location information)");
    EXPECT_EQ(net_reg_mode_arg_enum("disable"), 1u);
    EXPECT_EQ(net_reg_mode_arg_enum("enable"), 2u);
    EXPECT_EQ(net_reg_mode_arg_enum("enable_loc"), 3u);
    EXPECT_EQ(net_reg_mode_arg_enum("default"), 1u);
    EXPECT_EQ(net_reg_mode_arg_enum("Enable"), 0u);

    EXPECT_STREQ(net_reg_act_str(8), "E-UTRAN");
    EXPECT_STREQ(net_reg_act_str(1), "GSM");
    EXPECT_STREQ(net_reg_act_str(13), "E-UTRAN-NR dual connectivity");
    EXPECT_STREQ(net_reg_act_str(0), "Unknown");
    EXPECT_STREQ(net_reg_act_str(14), "Unknown");
}

TEST(OperatorSelection, Formats)
{
    EXPECT_STREQ(op_slc_fmt_arg_str(1), "long");
    EXPECT_STREQ(op_slc_fmt_arg_str(2), "short");
    EXPECT_STREQ(op_slc_fmt_arg_str(3), "numeric");
    EXPECT_STREQ(op_slc_fmt_arg_str(0), "default");
    EXPECT_STREQ(op_slc_fmt_arg_str(4), "default");
    EXPECT_EQ(op_slc_fmt_arg_enum("long"), 1u);
    EXPECT_EQ(op_slc_fmt_arg_enum("default"), 0u);
    // "Set format only" is +COPS mode 3, the fourth number.
    EXPECT_EQ(op_slc_mode_arg_enum("format"), 4u);
}

TEST(Sms, StateAndMode)
{
    const char *const texts[] = {"unread", "read", "unsent", "sent", "all", "unknown"};
    for (uint32_t s = 0; s < std::size(texts); s++) {
        SCOPED_TRACE(s);
        EXPECT_STREQ(sms_state_str(s), texts[s]);
    }
    EXPECT_STREQ(sms_state_str(100), "unknown");
    EXPECT_EQ(sms_state_enum("REC UNREAD"), 0u);
    EXPECT_EQ(sms_state_enum("rec read"), 1u);
    EXPECT_EQ(sms_state_enum("STO UNSENT"), 2u);
    EXPECT_EQ(sms_state_enum("sent"), 3u);
    EXPECT_EQ(sms_state_enum("ALL"), 4u);
    // Unknown text is 0 like in every vocabulary, though 0 reads "unread".
    EXPECT_EQ(sms_state_enum("REC"), 0u);
    EXPECT_EQ(sms_state_enum("junk"), 0u);

    EXPECT_EQ(sms_mode_arg_enum("pdu"), 1u);
    EXPECT_EQ(sms_mode_arg_enum("text"), 2u);
    EXPECT_EQ(msg_storage_arg_enum("SM"), 1u);
    EXPECT_EQ(msg_storage_arg_enum("sm"), 0u);
}

TEST(UrcLteSmsFormat, Enum)
{
    struct row {
        const char *text;
        uint32_t id;
    };
    const row rows[] = {
        {"cdma", 1}, {"CDMA", 1}, {"0", 1}, {"gsm", 2}, {"Gsm", 2}, {"1", 2},
        {"lte", 3},  {"LTE", 3},  {"2", 3}, {"3", 0},   {"", 0},    {"lte2", 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        EXPECT_EQ(urc_lte_sms_format_enum(r.text), r.id);
    }
}

TEST(CapSet, Enum)
{
    const char *const caps[] = {"+CGSM", "+FCLASS", "+DS", "+MS", "+ES", "+MV18S"};
    for (uint32_t i = 0; i < std::size(caps); i++) {
        EXPECT_EQ(cap_set_enum(caps[i]), i + 1);
        EXPECT_STREQ(cap_set_str(i + 1), caps[i]);
    }
    EXPECT_EQ(cap_set_enum("CGSM"), 0u);
}

TEST(FotaState, PrefixMatchInIdOrder)
{
    struct row {
        const char *text;
        uint32_t id;
    };
    const row rows[] = {
        {"FTPSTART", 1}, {"HTTPSTART", 2}, {"FILESTART", 3}, {"DOWNLOADING", 4}, {"FTPEND", 5},  {"HTTPEND", 6},
        {"FILEEND", 7},  {"START", 8},     {"UPDATING", 9},  {"END", 10},        {"httpend", 6}, {"Updating", 9},
        {"ENDING", 10},  {"STARTED", 8},   {"FTP", 0},       {"UPDATE", 0},      {"", 0},        {"REBOOT", 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        EXPECT_EQ(fota_state_enum(r.text), r.id);
    }
    EXPECT_STREQ(fota_state_str(0), "UNKNOWN");
    EXPECT_STREQ(fota_state_str(6), "HTTPEND");
    EXPECT_STREQ(fota_state_str(11), "UNKNOWN");
}

TEST(ModemFuncAndState, Texts)
{
    const char *const func[] = {"Modem full mode",      "Modem data-only mode",  "Modem dynamic mode",
                                "Modem low power mode", "Modem auto VoLTE mode", "Unknown mode"};
    for (uint32_t f = 0; f < std::size(func); f++)
        EXPECT_STREQ(modem_func_str(f), func[f]);
    EXPECT_STREQ(modem_func_str(99), "Unknown mode");

    const char *const state[] = {
        "Unknown",           "Idle",       "Sending SMS", "Connecting to operator", "Scanning operators",
        "Executing command", "FOTA state", "Unknown"};
    for (uint32_t s = 0; s < std::size(state); s++)
        EXPECT_STREQ(modem_state_str(s), state[s]);
}

TEST(EventNames, Table)
{
    const char *const names[] = {
        "",
        "pin_state",
        "service_mode",
        "clip_value",
        "ring",
        "no_carrier",
        "snd_sms",
        "rssi_value",
        "rscp_value",
        "ecio_value",
        "rsrp_value",
        "sinr_value",
        "rsrq_value",
        "ber_value",
        "sms_index",
        "service_data_value",
        "fota_state",
        "network_state",
        "network_state",
        "",
        "",
        "sim_status",
        "file_upload",
        "emm_error",
        "esm_error",
        "",
        "net_data_state",
        "operator",
        "sim_change",
        "modem_state",
        "act",
        "band_change",
        "",
    };
    for (uint32_t id = 0; id < std::size(names); id++) {
        SCOPED_TRACE(id);
        EXPECT_STREQ(evt_name_str(id), names[id]);
    }
    EXPECT_STREQ(evt_name_str(UINT32_MAX), "");
    EXPECT_STREQ(async_name_str(0), "Sending SMS");
    EXPECT_STREQ(async_name_str(1), "");
}

TEST(Causes, Texts)
{
    EXPECT_STREQ(emm_cause_str(7), "EPS services not allowed");
    EXPECT_STREQ(emm_cause_str(15), "No suitable cells in tracking area");
    EXPECT_STREQ(esm_cause_str(27), "Missing or unknown APN");
    EXPECT_STREQ(esm_cause_str(33), "Requested service option not subscribed");
    EXPECT_STREQ(mm5g_cause_str(27), "N1 mode not allowed");
    EXPECT_STREQ(mm5g_cause_str(62), "No network slices available");
    for (uint32_t c : {0u, 1u, 200u}) {
        EXPECT_STREQ(emm_cause_str(c), "Unknown");
        EXPECT_STREQ(esm_cause_str(c), "Unknown");
        EXPECT_STREQ(mm5g_cause_str(c), "Unknown");
    }
}

TEST(FacilityLock, KeywordsAndTexts)
{
    EXPECT_STREQ(facility_str(facility_id("SC")), "SC");
    EXPECT_STREQ(facility_str(facility_id("AB")), "AB");
    EXPECT_EQ(facility_id("sc"), 0u);
    EXPECT_STREQ(facility_str(0), "Unknown");
    EXPECT_EQ(fac_lock_state_id("lock"), 2u);
    EXPECT_EQ(fac_lock_state_id("unlock"), 1u);
    EXPECT_STREQ(fac_lock_state_str(2), "Locked");
    EXPECT_EQ(fac_lock_state_id("Lock"), 0u);
}

} // namespace
