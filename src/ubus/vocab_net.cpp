// Network vocabularies: modes, registration, operator selection, cells.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

constexpr vocab_entry net_mode[] = {
    {nullptr, nullptr},
    {"Auto", "default"},
    {"No service", nullptr},
    {"2G", "2g"},
    {"GSM", "gsm"},
    {"GPRS", nullptr},
    {"EDGE", nullptr},
    {"3G", "3g"},
    {"WCDMA", "wcdma"},
    {"TDSCDMA", nullptr},
    {"CDMA", nullptr},
    {"EVDO", nullptr},
    {"CDMA-EVDO", nullptr},
    {"HSDPA", nullptr},
    {"HSUPA", nullptr},
    {"HSPA+", nullptr},
    {"EHRPD", nullptr},
    {"HDR", nullptr},
    {"UMTS", "umts"},
    {"HSDPA+HSUPA", nullptr},
    {"4G", "4g"},
    {"LTE", "lte"},
    {"5G", "5g"},
    {"NR5G", "nr5g"},
    {"5G-NSA", nullptr},
    {"5G-SA", nullptr},
    {"CAT-M1", nullptr},
    {"CAT-NB", nullptr},
    {"eMTC", nullptr},
    {"NBIoT", nullptr},
    {"2G_3G", "2g_3g"},
    {"GSM_WCDMA", "gsm_wcdma"},
    {"2G_4G", "2g_4g"},
    {"GSM_LTE", "gsm_lte"},
    {"3G_4G", "3g_4g"},
    {"WCDMA_LTE", "wcdma_lte"},
    {"3G_5G", "3g_5g"},
    {"WCDMA_NR5G", "wcdma_nr5g"},
    {"4G_5G", "4g_5g"},
    {"LTE_NR5G", "lte_nr5g"},
};
constexpr vocab_def net_mode_v = make_vocab(net_mode, "Unknown", "default");

constexpr vocab_entry rat_priority[] = {
    {nullptr, nullptr},
    {"Auto", "auto"},
    {"LTE > NR5G > WCDMA", "lte_nr5g_wcdma"},
    {"LTE > WCDMA > NR5G", "lte_wcdma_nr5g"},
    {"NR5G > LTE > WCDMA", "nr5g_lte_wcdma"},
    {"NR5G > WCDMA > LTE", "nr5g_wcdma_lte"},
    {"WCDMA > LTE > NR5G", "wcdma_lte_nr5g"},
    {"WCDMA > NR5G > LTE", "wcdma_nr5g_lte"},
};
constexpr vocab_def rat_priority_v = make_vocab(rat_priority, "Unknown");

constexpr vocab_entry net_reg_mode[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Enabled", "enable"},
    {"Enabled (with location information)", "enable_loc"},
};
constexpr vocab_def net_reg_mode_v = make_vocab(net_reg_mode, "Unknown", "default");

// The 3GPP <stat> numbers as they are; 4 is "unknown" there too.
constexpr vocab_entry net_reg_stat[] = {
    {"Not registered", nullptr},
    {"Registered, home", nullptr},
    {"Searching", nullptr},
    {"Denied", nullptr},
    {nullptr, nullptr},
    {"Roaming", nullptr},
    {"SMS only, home network", nullptr},
    {"SMS only, roaming", nullptr},
    {"Emergency services only", nullptr},
};
constexpr vocab_def net_reg_stat_v = make_vocab(net_reg_stat, "Unknown");

// TS 27.007 <AcT> names; <AcT> 9 (E-UTRAN NB-S1) is deliberately not mapped.
constexpr vocab_entry net_reg_act[] = {
    {nullptr, nullptr},
    {"GSM", nullptr},
    {"GSM Compact", nullptr},
    {"UTRAN", nullptr},
    {"GSM w/EGPRS", nullptr},
    {"UTRAN w/HSDPA", nullptr},
    {"UTRAN w/HSUPA", nullptr},
    {"UTRAN w/HSDPA and HSUPA", nullptr},
    {"E-UTRAN", nullptr},
    {"EC-GSM-IoT", nullptr},
    {"E-UTRAN connected to 5GCN", nullptr},
    {"NR connected to 5GCN", nullptr},
    {"NG-RAN", nullptr},
    {"E-UTRAN-NR dual connectivity", nullptr},
};
constexpr vocab_def net_reg_act_v = make_vocab(net_reg_act, "Unknown");

constexpr vocab_entry gprs_attach[] = {
    {nullptr, nullptr},
    {"Manual", "manual"},
    {"Auto", "auto"},
};
constexpr vocab_def gprs_attach_v = make_vocab(gprs_attach, "Unknown");

constexpr vocab_entry roaming_svc[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Enabled", "enable"},
    {"Auto", "auto"},
};
constexpr vocab_def roaming_svc_v = make_vocab(roaming_svc, "Unknown");

constexpr vocab_entry op_slc_mode[] = {
    {nullptr, nullptr},
    {"Automatic", "auto"},
    {"Manual", "manual"},
    {"Deregister", "deregister"},
    {"Set format only", "format"},
    {"Manual/automatic", "manual_auto"},
};
constexpr vocab_def op_slc_mode_v = make_vocab(op_slc_mode, "Unknown", "default");

constexpr vocab_entry op_slc_fmt[] = {
    {nullptr, nullptr},
    {"Long alphanumeric", "long"},
    {"Short alphanumeric", "short"},
    {"Numeric", "numeric"},
};
constexpr vocab_def op_slc_fmt_v = make_vocab(op_slc_fmt, "Unknown", "default");

constexpr vocab_entry op_slc_stat[] = {
    {nullptr, nullptr},
    {"Unknown", nullptr},
    {"Available", nullptr},
    {"Current", nullptr},
    {"Forbidden", nullptr},
};
constexpr vocab_def op_slc_stat_v = make_vocab(op_slc_stat, "Unknown");

constexpr vocab_entry ps_att_state[] = {
    {nullptr, nullptr},
    {"Detached", "detach"},
    {"Attached", "attach"},
};
constexpr vocab_def ps_att_state_v = make_vocab(ps_att_state, "Unknown");

constexpr vocab_entry net_cat[] = {
    {nullptr, nullptr},
    {"CAT-M1", "catm1"},
    {"NB-IoT", "nbiot"},
    {"CAT-M1 and NB-IoT", "catm1_nbiot"},
};
constexpr vocab_def net_cat_v = make_vocab(net_cat, "Unknown");

constexpr vocab_entry ue_state[] = {
    {nullptr, nullptr},
    {"Searching", nullptr},       // SEARCH
    {"Limited service", nullptr}, // LIMSRV
    {"Idle", nullptr},            // NOCONN
    {"Connected", nullptr},       // CONNECT
};
constexpr vocab_def ue_state_v = make_vocab(ue_state, "Unknown");

constexpr vocab_entry pcell_state[] = {
    {nullptr, nullptr},
    {"Not registered", nullptr},
    {"Registered, home", nullptr},
    {"Searching", nullptr},
    {"Denied", nullptr},
    {"Unknown", nullptr},
    {"Roaming", nullptr},
};
constexpr vocab_def pcell_state_v = make_vocab(pcell_state, "Unknown");

constexpr vocab_entry scell_state[] = {
    {nullptr, nullptr},
    {"Deconfigured", nullptr},
    {"Configured, deactivated", nullptr},
    {"Configured, activated", nullptr},
};
constexpr vocab_def scell_state_v = make_vocab(scell_state, "Unknown");

constexpr vocab_entry bandwidth[] = {
    {nullptr, nullptr},
    {"1.4 MHz", nullptr},
    {"3 MHz", nullptr},
    {"5 MHz", nullptr},
    {"10 MHz", nullptr},
    {"15 MHz", nullptr},
    {"20 MHz", nullptr},
};
constexpr vocab_def bandwidth_v = make_vocab(bandwidth, "Unknown");

constexpr vocab_entry bandwidth_5g[] = {
    {nullptr, nullptr},
    {"5 MHz", nullptr},
    {"10 MHz", nullptr},
    {"15 MHz", nullptr},
    {"20 MHz", nullptr},
    {"25 MHz", nullptr},
    {"30 MHz", nullptr},
    {"40 MHz", nullptr},
    {"50 MHz", nullptr},
    {"60 MHz", nullptr},
    {"70 MHz", nullptr},
    {"80 MHz", nullptr},
    {"90 MHz", nullptr},
    {"100 MHz", nullptr},
    {"200 MHz", nullptr},
    {"400 MHz", nullptr},
    {"35 MHz", nullptr},
    {"45 MHz", nullptr},
};
constexpr vocab_def bandwidth_5g_v = make_vocab(bandwidth_5g, "Unknown");

constexpr vocab_entry net_data_state[] = {
    {nullptr, nullptr},
    {"Disconnected", nullptr},
    {"Connected", nullptr},
};
constexpr vocab_def net_data_state_v = make_vocab(net_data_state, "Unknown");

constexpr vocab_entry disable_nr5g_mode[] = {
    {nullptr, nullptr},
    {"None disabled", "none"},
    {"SA disabled", "sa"},
    {"NSA disabled", "nsa"},
};
constexpr vocab_def disable_nr5g_mode_v = make_vocab(disable_nr5g_mode, "Unknown");

} // namespace
// clang-format on

const char *net_mode_str(uint32_t m)
{
    return vocab_str(net_mode_v, m);
}
const char *net_mode_arg_str(uint32_t m)
{
    return vocab_arg_str(net_mode_v, m);
}
uint32_t net_mode_arg_enum(std::string_view a)
{
    return a == "auto" ? NET_MODE_AUTO : vocab_arg_enum(net_mode_v, a);
}

const char *rat_priority_str(uint32_t p)
{
    return vocab_str(rat_priority_v, p);
}
const char *rat_priority_arg_str(uint32_t p)
{
    return vocab_arg_str(rat_priority_v, p);
}
uint32_t rat_priority_arg_enum(std::string_view a)
{
    return vocab_arg_enum(rat_priority_v, a);
}

const char *net_reg_mode_str(uint32_t m)
{
    return vocab_str(net_reg_mode_v, m);
}
const char *net_reg_mode_arg_str(uint32_t m)
{
    return vocab_arg_str(net_reg_mode_v, m);
}
// "default" restores the 3GPP default <n> = 0.
uint32_t net_reg_mode_arg_enum(std::string_view a)
{
    return a == "default" ? 1 : vocab_arg_enum(net_reg_mode_v, a);
}

const char *net_reg_stat_str(uint32_t s)
{
    return vocab_str(net_reg_stat_v, s);
}
const char *net_reg_act_str(uint32_t a)
{
    return vocab_str(net_reg_act_v, a);
}

const char *signal_query_cfg_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
const char *signal_query_cfg_arg_str(uint32_t m)
{
    return vocab_arg_str(vocab_disabled_enabled, m);
}
uint32_t signal_query_cfg_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}

const char *gprs_attach_str(uint32_t m)
{
    return vocab_str(gprs_attach_v, m);
}
const char *gprs_attach_arg_str(uint32_t m)
{
    return vocab_arg_str(gprs_attach_v, m);
}
uint32_t gprs_attach_arg_enum(std::string_view a)
{
    return vocab_arg_enum(gprs_attach_v, a);
}

const char *mbn_auto_sel_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
const char *mbn_auto_sel_arg_str(uint32_t m)
{
    return vocab_arg_str(vocab_disabled_enabled, m);
}
uint32_t mbn_auto_sel_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}

const char *roaming_svc_str(uint32_t m)
{
    return vocab_str(roaming_svc_v, m);
}
const char *roaming_svc_arg_str(uint32_t m)
{
    return vocab_arg_str(roaming_svc_v, m);
}
uint32_t roaming_svc_arg_enum(std::string_view a)
{
    return vocab_arg_enum(roaming_svc_v, a);
}

const char *op_slc_mode_str(uint32_t m)
{
    return vocab_str(op_slc_mode_v, m);
}
const char *op_slc_mode_arg_str(uint32_t m)
{
    return vocab_arg_str(op_slc_mode_v, m);
}
uint32_t op_slc_mode_arg_enum(std::string_view a)
{
    return vocab_arg_enum(op_slc_mode_v, a);
}

const char *op_slc_fmt_str(uint32_t f)
{
    return vocab_str(op_slc_fmt_v, f);
}
const char *op_slc_fmt_arg_str(uint32_t f)
{
    return vocab_arg_str(op_slc_fmt_v, f);
}
uint32_t op_slc_fmt_arg_enum(std::string_view a)
{
    return vocab_arg_enum(op_slc_fmt_v, a);
}

const char *op_slc_stat_str(uint32_t s)
{
    return vocab_str(op_slc_stat_v, s);
}

uint32_t ps_att_state_enum(std::string_view t)
{
    return vocab_enum(ps_att_state_v, t);
}
const char *ps_att_state_str(uint32_t s)
{
    return vocab_str(ps_att_state_v, s);
}

uint32_t net_cat_enum(std::string_view t)
{
    return vocab_enum(net_cat_v, t);
}
const char *net_cat_str(uint32_t c)
{
    return vocab_str(net_cat_v, c);
}

const char *ue_state_str(uint32_t s)
{
    return vocab_str(ue_state_v, s);
}
const char *pcell_state_str(uint32_t s)
{
    return vocab_str(pcell_state_v, s);
}
const char *scell_state_str(uint32_t s)
{
    return vocab_str(scell_state_v, s);
}
const char *bandwidth_str(uint32_t b)
{
    return vocab_str(bandwidth_v, b);
}
const char *bandwidth_5G_str(uint32_t b)
{
    return vocab_str(bandwidth_5g_v, b);
}
const char *net_data_state_str(uint32_t s)
{
    return vocab_str(net_data_state_v, s);
}

uint32_t disable_nr5g_mode_enum(std::string_view t)
{
    return vocab_enum(disable_nr5g_mode_v, t);
}
const char *disable_nr5g_mode_str(uint32_t m)
{
    return vocab_str(disable_nr5g_mode_v, m);
}
