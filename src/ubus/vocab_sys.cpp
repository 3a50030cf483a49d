// System and configuration vocabularies: functionality, error reports,
// capabilities, USB and firmware update states, modem function and state.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

// +CFUN <fun> = number - 1; 5 and 6 are manufacturer states left out.
constexpr vocab_entry phone_func[] = {
    {nullptr, nullptr},
    {"Minimum functionality", "minimum"},
    {"Full functionality", "full"},
    {"Transmit RF circuits disabled", "disable_tx"},
    {"Receive RF circuits disabled", "disable_rx"},
    {"RF circuits disabled", "disable_rf"},
    {nullptr, nullptr},
    {nullptr, nullptr},
    {"Offline mode", "offline"},
};
constexpr vocab_def phone_func_v = make_vocab(phone_func, "Unknown");

constexpr vocab_entry err_msg_fmt[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Numeric", "numeric"},
    {"Verbose", "verbose"},
};
constexpr vocab_def err_msg_fmt_v = make_vocab(err_msg_fmt, "Unknown");

constexpr vocab_entry cap_set[] = {
    {nullptr, nullptr},
    {"+CGSM", nullptr},
    {"+FCLASS", nullptr},
    {"+DS", nullptr},
    {"+MS", nullptr},
    {"+ES", nullptr},
    {"+MV18S", nullptr},
};
constexpr vocab_def cap_set_v = make_vocab(cap_set, "Unknown");

constexpr vocab_entry mod_act_stat[] = {
    {nullptr, nullptr},
    {"Ready", nullptr},
    {"Unavailable", nullptr},
    {"Unknown", nullptr},
    {"Ringing", nullptr},
    {"Call in progress", nullptr},
    {"Asleep", nullptr},
};
constexpr vocab_def mod_act_stat_v = make_vocab(mod_act_stat, "Unknown");

constexpr vocab_entry usbnet_mode[] = {
    {nullptr, nullptr},
    {"QMI", "rmnet"},
    {"ECM", nullptr},
    {"MBIM", nullptr},
    {"RNDIS", nullptr},
};
constexpr vocab_def usbnet_mode_v = make_vocab(usbnet_mode, "Unknown");

constexpr vocab_entry ue_usage[] = {
    {nullptr, nullptr},
    {"Voice centric", "voice"},
    {"Data centric", "data"},
};
constexpr vocab_def ue_usage_v = make_vocab(ue_usage, "Unknown");

// Vendor +QIND "FOTA" state texts.
constexpr vocab_entry fota_state[] = {
    {"UNKNOWN", nullptr},
    {"FTPSTART", nullptr},
    {"HTTPSTART", nullptr},
    {"FILESTART", nullptr},
    {"DOWNLOADING", nullptr},
    {"FTPEND", nullptr},
    {"HTTPEND", nullptr},
    {"FILEEND", nullptr},
    {"START", nullptr},
    {"UPDATING", nullptr},
    {"END", nullptr},
};
constexpr vocab_def fota_state_v = make_vocab(fota_state, "UNKNOWN");

constexpr vocab_entry time_mode[] = {
    {nullptr, nullptr},
    {"NITZ", "nitz"},
    {"GMT", "utc"},
    {"Local", "local"},
};
constexpr vocab_def time_mode_v = make_vocab(time_mode, "Unknown");

constexpr vocab_entry storage_type[] = {
    {nullptr, nullptr},
    {"UFS", nullptr},
    {"RAM", nullptr},
    {"SD", nullptr},
};
constexpr vocab_def storage_type_v = make_vocab(storage_type, "Unknown");

constexpr vocab_entry urc_ind[] = {
    {nullptr, nullptr},
    {"All", "all"},
    {"Signal quality", "csq"},
    {"SMS storage full", "smsfull"},
    {"Ring", "ring"},
    {"Incoming SMS", "smsincoming"},
    {"Access technology", "act"},
    {"Call information", "ccinfo"},
};
constexpr vocab_def urc_ind_v = make_vocab(urc_ind, "Unknown");

constexpr vocab_entry cefs_restore_state[] = {
    {nullptr, nullptr},
    {"Restored", nullptr},
    {"Failed", nullptr},
};
constexpr vocab_def cefs_restore_state_v = make_vocab(cefs_restore_state, "Unknown");

constexpr vocab_entry qabfota_state[] = {
    {nullptr, nullptr},
    {"Idle", nullptr},
    {"Updating", nullptr},
    {"Succeeded", nullptr},
    {"Failed", nullptr},
};
constexpr vocab_def qabfota_state_v = make_vocab(qabfota_state, "Unknown");

// 0 is a real value here: the full mode.
constexpr vocab_entry modem_func[] = {
    {"Modem full mode", nullptr},
    {"Modem data-only mode", nullptr},
    {"Modem dynamic mode", nullptr},
    {"Modem low power mode", nullptr},
    {"Modem auto VoLTE mode", nullptr},
};
constexpr vocab_def modem_func_v = make_vocab(modem_func, "Unknown mode");

constexpr vocab_entry modem_state[] = {
    {nullptr, nullptr},
    {"Idle", nullptr},
    {"Sending SMS", nullptr},
    {"Connecting to operator", nullptr},
    {"Scanning operators", nullptr},
    {"Executing command", nullptr},
    {"FOTA state", nullptr},
};
constexpr vocab_def modem_state_v = make_vocab(modem_state, "Unknown");

} // namespace
// clang-format on

const char *phone_func_str(uint32_t f)
{
    return vocab_str(phone_func_v, f);
}
const char *phone_func_arg_str(uint32_t f)
{
    return vocab_arg_str(phone_func_v, f);
}
uint32_t phone_func_arg_enum(std::string_view a)
{
    return vocab_arg_enum(phone_func_v, a);
}

const char *err_msg_fmt_str(uint32_t f)
{
    return vocab_str(err_msg_fmt_v, f);
}
const char *err_msg_fmt_arg_str(uint32_t f)
{
    return vocab_arg_str(err_msg_fmt_v, f);
}
uint32_t err_msg_fmt_arg_enum(std::string_view a)
{
    return vocab_arg_enum(err_msg_fmt_v, a);
}

uint32_t m2m_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}
const char *m2m_state_arg_str(uint32_t s)
{
    return vocab_arg_str(vocab_disabled_enabled, s);
}
uint32_t frouting_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}
const char *frouting_state_arg_str(uint32_t s)
{
    return vocab_arg_str(vocab_disabled_enabled, s);
}

uint32_t cap_set_enum(std::string_view t)
{
    return vocab_enum(cap_set_v, t);
}
const char *cap_set_str(uint32_t c)
{
    return vocab_str(cap_set_v, c);
}

const char *mod_act_stat_str(uint32_t p)
{
    return vocab_str(mod_act_stat_v, p);
}

uint32_t usbnet_mode_id_enum(std::string_view t)
{
    return vocab_enum(usbnet_mode_v, t);
}
const char *usbnet_mode_id_str(uint32_t m)
{
    return vocab_str(usbnet_mode_v, m);
}
uint32_t nat_mode_id_enum(std::string_view t)
{
    return vocab_enum(vocab_disabled_enabled, t);
}
const char *nat_mode_id_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
uint32_t sec_boot_mode_id_enum(std::string_view t)
{
    return vocab_enum(vocab_disabled_enabled, t);
}
const char *sec_boot_mode_id_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
uint32_t ue_usage_id_enum(std::string_view t)
{
    return vocab_enum(ue_usage_v, t);
}
const char *ue_usage_id_str(uint32_t u)
{
    return vocab_str(ue_usage_v, u);
}

uint32_t fota_state_enum(std::string_view t)
{
    for (uint32_t id = 1; id < fota_state_v.n; id++) {
        const std::string_view name = fota_state[id].text;
        if (t.size() >= name.size() && vocab_ieq(t.substr(0, name.size()), name))
            return id;
    }
    return 0;
}
const char *fota_state_str(uint32_t s)
{
    return vocab_str(fota_state_v, s);
}

uint32_t time_mode_enum(std::string_view t)
{
    return vocab_enum(time_mode_v, t);
}
const char *time_mode_str(uint32_t m)
{
    return vocab_str(time_mode_v, m);
}

uint32_t storage_type_enum(std::string_view t)
{
    return vocab_enum(storage_type_v, t);
}
const char *storage_type_str(uint32_t t)
{
    return vocab_str(storage_type_v, t);
}

uint32_t urc_ind_arg_enum(std::string_view a)
{
    return vocab_arg_enum(urc_ind_v, a);
}
const char *urc_ind_arg_str(uint32_t i)
{
    return vocab_arg_str(urc_ind_v, i);
}

const char *cefs_restore_state_str(uint32_t s)
{
    return vocab_str(cefs_restore_state_v, s);
}
const char *qabfota_state_str(uint32_t s)
{
    return vocab_str(qabfota_state_v, s);
}
const char *modem_func_str(uint32_t f)
{
    return vocab_str(modem_func_v, f);
}
const char *modem_state_str(uint32_t s)
{
    return vocab_str(modem_state_v, s);
}
