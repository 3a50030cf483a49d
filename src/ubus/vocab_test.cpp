// The vocabularies between bus keywords, modem texts and reply texts.
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

// clang-format off
#define ARG(stem, max, fallback) {#stem, stem##_arg_str, stem##_arg_enum, max, fallback}
#define TXT(stem, max) {#stem, stem##_str, stem##_enum, max}
// clang-format on

// Bus keywords round-trip, compare exactly, and numbers without a keyword
// print the vocabulary's fall-back.
TEST(Vocabularies, KeywordsRoundTripExactly)
{
    const struct {
        const char *label;
        const char *(*arg_str)(uint32_t);
        uint32_t (*arg_enum)(std::string_view);
        uint32_t max;
        const char *fallback;
    } vocabs[] = {ARG(net_mode, 39, "default"),
                  ARG(rat_priority, 7, "unknown"),
                  ARG(net_reg_mode, 3, "default"),
                  ARG(signal_query_cfg, 2, "unknown"),
                  ARG(gprs_attach, 2, "unknown"),
                  ARG(mbn_auto_sel, 2, "unknown"),
                  ARG(roaming_svc, 3, "unknown"),
                  ARG(op_slc_mode, 5, "default"),
                  ARG(op_slc_fmt, 3, "default"),
                  ARG(sms_mode, 2, "unknown"),
                  ARG(msg_storage, 6, "unknown"),
                  ARG(clip_mode, 2, "unknown"),
                  ARG(cell_rc, 2, "unknown"),
                  ARG(phone_func, 8, "unknown"),
                  ARG(err_msg_fmt, 3, "unknown"),
                  ARG(urc_ind, 7, "unknown"),
                  ARG(nmea_sata, 4, "unknown"),
                  {"m2m", m2m_state_arg_str, m2m_arg_enum, 2, "unknown"},
                  {"frouting", frouting_state_arg_str, frouting_arg_enum, 2, "unknown"}};
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
            if (upper(key) != key) {
                EXPECT_EQ(v.arg_enum(upper(key)), 0u) << key;
            }
        }
        EXPECT_GT(keywords, 0);
        EXPECT_STREQ(v.arg_str(0), v.fallback);
        EXPECT_STREQ(v.arg_str(v.max + 1), v.fallback);
        EXPECT_EQ(v.arg_enum(""), 0u);
        EXPECT_EQ(v.arg_enum("no such keyword"), 0u);
    }
}

// Modem texts parse back to their number in any case; unknown text is 0.
TEST(Vocabularies, TextsRoundTripIgnoringCase)
{
    const struct {
        const char *label;
        const char *(*str)(uint32_t);
        uint32_t (*enum_fn)(std::string_view);
        uint32_t max;
    } vocabs[] = {TXT(ps_att_state, 2),
                  TXT(net_cat, 3),
                  TXT(disable_nr5g_mode, 3),
                  TXT(polarity_id, 2),
                  TXT(urc_lte_sms_format, 3),
                  TXT(call_direction_id, 2),
                  TXT(call_state_id, 6),
                  TXT(call_mode_id, 10),
                  TXT(call_type_id, 7),
                  TXT(ring_type_id, 7),
                  TXT(ussd_mode, 3),
                  TXT(ims_state, 3),
                  TXT(volte_state, 2),
                  TXT(pdp_type_id, 5),
                  TXT(pdp_data_comp_id, 4),
                  TXT(pdp_hdr_comp_id, 5),
                  TXT(pdp_ipv4_addr_alloc_id, 2),
                  TXT(pdp_req_id, 5),
                  TXT(apn_auth, 4),
                  TXT(pdp_ctx_state, 2),
                  TXT(pdp_call_mode, 3),
                  TXT(ipv6_ndp_state, 2),
                  TXT(cap_set, 6),
                  TXT(usbnet_mode_id, 4),
                  TXT(nat_mode_id, 2),
                  TXT(sec_boot_mode_id, 2),
                  TXT(ue_usage_id, 2),
                  TXT(fota_state, 10),
                  TXT(time_mode, 3),
                  TXT(storage_type, 3),
                  TXT(nmea_type, 6),
                  TXT(gnss_mode, 4),
                  TXT(gnss_accuracy, 3),
                  TXT(nmea_output_port, 3),
                  TXT(gnss_operation_mode, 7),
                  TXT(dpo_mode, 3)};
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

// Parses whose rules go beyond the round trip.
TEST(Vocabularies, SpecialParses)
{
    const struct {
        const char *what;
        uint32_t got, want;
    } rows[] = {
        {"auto is a second keyword for Auto", net_mode_arg_enum("auto"), NET_MODE_AUTO},
        {"display text is no keyword", net_mode_arg_enum("LTE"), 0},
        {"default registration mode", net_reg_mode_arg_enum("default"), 1},
        {"set format only is +COPS mode 3", op_slc_mode_arg_enum("format"), 4},
        {"stored SMS state", sms_state_enum("STO UNSENT"), 2},
        {"SMS state ignores case", sms_state_enum("rec read"), 1},
        {"partial SMS state", sms_state_enum("REC"), 0},
        {"storage keyword is exact", msg_storage_arg_enum("sm"), 0},
        {"LTE SMS format by number", urc_lte_sms_format_enum("2"), 3},
        {"no LTE SMS format 3", urc_lte_sms_format_enum("3"), 0},
        {"capability needs its plus", cap_set_enum("CGSM"), 0},
        {"FOTA state by prefix", fota_state_enum("ENDING"), 10},
        {"FOTA state in id order", fota_state_enum("STARTED"), 8},
        {"FOTA state prefix of a state", fota_state_enum("FTP"), 0},
        {"facility is exact", facility_id("sc"), 0},
        {"lock keyword", fac_lock_state_id("lock"), 2},
        {"SIM needs PIN: present", sim_state_enum(4), SIM_STATE_PRESENT},
        {"SIM not ready: unusable", sim_state_enum(2), SIM_STATE_UNUSABLE},
        {"SIM state 3 is unknown", sim_state_enum(3), SIM_STATE_UNKNOWN},
        {"SIM state out of range", sim_state_enum(UINT32_MAX), SIM_STATE_UNKNOWN},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(r.got, r.want);
    }
}

// Reply texts of the vocabularies without a parse of their own.
TEST(Vocabularies, ReplyTexts)
{
    const struct {
        const char *got, *want;
    } rows[] = {
        {act_status_str(0), "OK"},
        {act_status_str(2), "Invalid arguments"},
        {act_status_str(8), "Request timeout expired"},
        {act_status_str(10), "Unknown error"},
        {pin_state_str(5), "Required PUK"},
        {pin_state_str(10), "SIM not inserted"},
        {pin_state_str(16), "Unknown"},
        {net_reg_stat_str(5), "Roaming"},
        {net_reg_stat_str(9), "Unknown"},
        {net_reg_act_str(13), "E-UTRAN-NR dual connectivity"},
        {net_mode_str(40), "Unknown"},
        {modem_func_str(4), "Modem auto VoLTE mode"},
        {modem_state_str(6), "FOTA state"},
        {evt_name_str(1), "pin_state"},
        {evt_name_str(31), "band_change"},
        {evt_name_str(32), ""},
        {async_name_str(0), "Sending SMS"},
        {emm_cause_str(15), "No suitable cells in tracking area"},
        {mm5g_cause_str(62), "No network slices available"},
        {sms_state_str(100), "unknown"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.want);
        EXPECT_STREQ(r.got, r.want);
    }
}

} // namespace
