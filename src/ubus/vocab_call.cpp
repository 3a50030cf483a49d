// Voice call, caller identification, USSD and IMS/VoLTE vocabularies.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

constexpr vocab_entry clip_stat[] = {
    {nullptr, nullptr},
    {"Not provisioned", nullptr},
    {"Provisioned", nullptr},
    {"Unknown", nullptr},
};
constexpr vocab_def clip_stat_v = make_vocab(clip_stat, "Unknown");

constexpr vocab_entry call_direction[] = {
    {nullptr, nullptr},
    {"Outgoing", "MO"},
    {"Incoming", "MT"},
};
constexpr vocab_def call_direction_v = make_vocab(call_direction, "Unknown");

constexpr vocab_entry call_state[] = {
    {nullptr, nullptr},
    {"Active", nullptr},
    {"Held", nullptr},
    {"Dialing", nullptr},
    {"Alerting", nullptr},
    {"Incoming", nullptr},
    {"Waiting", nullptr},
};
constexpr vocab_def call_state_v = make_vocab(call_state, "Unknown");

constexpr vocab_entry call_mode[] = {
    {nullptr, nullptr},
    {"Voice", nullptr},
    {"Data", nullptr},
    {"Fax", nullptr},
    {"Voice followed by data, voice mode", nullptr},
    {"Alternating voice/data, voice mode", nullptr},
    {"Alternating voice/fax, voice mode", nullptr},
    {"Voice followed by data, data mode", nullptr},
    {"Alternating voice/data, data mode", nullptr},
    {"Alternating voice/fax, fax mode", nullptr},
    {"Unknown mode", nullptr},
};
constexpr vocab_def call_mode_v = make_vocab(call_mode, "Unknown");

// Type of number (bits 6..4 of the type of address).
constexpr vocab_entry call_type[] = {
    {nullptr, nullptr},
    {"Unknown type", nullptr},
    {"International", nullptr},
    {"National", nullptr},
    {"Network specific", nullptr},
    {"Dedicated access", nullptr},
    {"Alphanumeric", nullptr},
    {"Abbreviated", nullptr},
};
constexpr vocab_def call_type_v = make_vocab(call_type, "Unknown");

constexpr vocab_entry ring_type[] = {
    {nullptr, nullptr},
    {"VOICE", nullptr},
    {"FAX", nullptr},
    {"ASYNC", nullptr},
    {"SYNC", nullptr},
    {"REL ASYNC", nullptr},
    {"REL SYNC", nullptr},
    {"GPRS", nullptr},
};
constexpr vocab_def ring_type_v = make_vocab(ring_type, "Unknown");

constexpr vocab_entry cli_valid[] = {
    {nullptr, nullptr},
    {"Valid", nullptr},
    {"Withheld", nullptr},
    {"Not available", nullptr},
    {"Payphone", nullptr},
    {"Other", nullptr},
};
constexpr vocab_def cli_valid_v = make_vocab(cli_valid, "Unknown");

constexpr vocab_entry ussd_mode[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Enabled", "enable"},
    {"Cancel", "cancel"},
};
constexpr vocab_def ussd_mode_v = make_vocab(ussd_mode, "Unknown");

constexpr vocab_entry voice_domain[] = {
    {nullptr, nullptr},
    {"CS only", nullptr},
    {"IMS PS only", nullptr},
    {"CS preferred", nullptr},
    {"IMS PS preferred", nullptr},
};
constexpr vocab_def voice_domain_v = make_vocab(voice_domain, "Unknown");

constexpr vocab_entry ims_state[] = {
    {nullptr, nullptr},
    {"Auto", "auto"},
    {"Enabled", "enable"},
    {"Disabled", "disable"},
};
constexpr vocab_def ims_state_v = make_vocab(ims_state, "Unknown");

} // namespace
// clang-format on

const char *clip_mode_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
const char *clip_mode_arg_str(uint32_t m)
{
    return vocab_arg_str(vocab_disabled_enabled, m);
}
uint32_t clip_mode_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}

const char *clip_stat_str(uint32_t s)
{
    return vocab_str(clip_stat_v, s);
}

const char *cell_rc_str(uint32_t m)
{
    return vocab_str(vocab_disabled_enabled, m);
}
const char *cell_rc_arg_str(uint32_t m)
{
    return vocab_arg_str(vocab_disabled_enabled, m);
}
uint32_t cell_rc_arg_enum(std::string_view a)
{
    return vocab_arg_enum(vocab_disabled_enabled, a);
}

uint32_t call_direction_id_enum(std::string_view t)
{
    return vocab_enum(call_direction_v, t);
}
const char *call_direction_id_str(uint32_t d)
{
    return vocab_str(call_direction_v, d);
}
uint32_t call_state_id_enum(std::string_view t)
{
    return vocab_enum(call_state_v, t);
}
const char *call_state_id_str(uint32_t s)
{
    return vocab_str(call_state_v, s);
}
uint32_t call_mode_id_enum(std::string_view t)
{
    return vocab_enum(call_mode_v, t);
}
const char *call_mode_id_str(uint32_t m)
{
    return vocab_str(call_mode_v, m);
}
uint32_t call_type_id_enum(std::string_view t)
{
    return vocab_enum(call_type_v, t);
}
const char *call_type_id_str(uint32_t t)
{
    return vocab_str(call_type_v, t);
}

uint32_t ring_type_id_enum(std::string_view t)
{
    return vocab_enum(ring_type_v, t);
}
const char *ring_type_id_str(uint32_t t)
{
    return vocab_str(ring_type_v, t);
}

const char *cli_valid_id_str(uint32_t v)
{
    return vocab_str(cli_valid_v, v);
}

uint32_t ussd_mode_enum(std::string_view t)
{
    return vocab_enum(ussd_mode_v, t);
}
const char *ussd_mode_str(uint32_t m)
{
    return vocab_str(ussd_mode_v, m);
}

const char *urc_voice_domain_str(uint32_t d)
{
    return vocab_str(voice_domain_v, d);
}

uint32_t ims_state_enum(std::string_view t)
{
    return vocab_enum(ims_state_v, t);
}
const char *ims_state_str(uint32_t s)
{
    return vocab_str(ims_state_v, s);
}

uint32_t volte_state_enum(std::string_view t)
{
    return vocab_enum(vocab_disabled_enabled, t);
}
const char *volte_state_str(uint32_t s)
{
    return vocab_str(vocab_disabled_enabled, s);
}
