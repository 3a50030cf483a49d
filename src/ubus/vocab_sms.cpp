// SMS vocabularies: message format, storage, status and LTE SMS format.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

constexpr vocab_entry sms_mode[] = {
    {nullptr, nullptr},
    {"PDU", "pdu"},
    {"Text", "text"},
};
constexpr vocab_def sms_mode_v = make_vocab(sms_mode, "Unknown");

constexpr vocab_entry msg_storage[] = {
    {nullptr, nullptr},
    {"SIM", "SM"},
    {"Mobile equipment", "ME"},
    {"SIM and mobile equipment", "MT"},
    {"Broadcast messages", "BM"},
    {"Status reports", "SR"},
    {"Terminal adaptor", "TA"},
};
constexpr vocab_def msg_storage_v = make_vocab(msg_storage, "Unknown");

// TS 27.005 <stat>: the number is the PDU mode value, the key the text mode one.
constexpr vocab_entry sms_state[] = {
    {"unread", "REC UNREAD"},
    {"read", "REC READ"},
    {"unsent", "STO UNSENT"},
    {"sent", "STO SENT"},
    {"all", "ALL"},
};
constexpr vocab_def sms_state_v = make_vocab(sms_state, "unknown");

constexpr vocab_entry urc_lte_sms_format[] = {
    {nullptr, nullptr},
    {"CDMA", "0"},
    {"GSM", "1"},
    {"LTE", "2"},
};
constexpr vocab_def urc_lte_sms_format_v = make_vocab(urc_lte_sms_format, "Unknown");

} // namespace
// clang-format on

const char *sms_mode_str(uint32_t m)
{
    return vocab_str(sms_mode_v, m);
}
const char *sms_mode_arg_str(uint32_t m)
{
    return vocab_arg_str(sms_mode_v, m);
}
uint32_t sms_mode_arg_enum(std::string_view a)
{
    return vocab_arg_enum(sms_mode_v, a);
}

const char *msg_storage_str(uint32_t m)
{
    return vocab_str(msg_storage_v, m);
}
const char *msg_storage_arg_str(uint32_t m)
{
    return vocab_arg_str(msg_storage_v, m);
}
uint32_t msg_storage_arg_enum(std::string_view a)
{
    return vocab_arg_enum(msg_storage_v, a);
}

const char *sms_state_str(uint32_t s)
{
    return vocab_str(sms_state_v, s);
}

uint32_t sms_state_enum(std::string_view t)
{
    return vocab_enum(sms_state_v, t);
}

uint32_t urc_lte_sms_format_enum(std::string_view t)
{
    return vocab_enum(urc_lte_sms_format_v, t);
}
const char *urc_lte_sms_format_str(uint32_t f)
{
    return vocab_str(urc_lte_sms_format_v, f);
}
