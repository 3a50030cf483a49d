// Packet data vocabularies: PDP context parameters, authentication, calls.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

constexpr vocab_entry pdp_type[] = {
    {nullptr, nullptr},
    {"IP", "ipv4"},
    {"IPV6", nullptr},
    {"IPV4V6", nullptr},
    {"PPP", nullptr},
    {"Non-IP", nullptr},
};
constexpr vocab_def pdp_type_v = make_vocab(pdp_type, "Unknown");

constexpr vocab_entry data_comp[] = {
    {nullptr, nullptr},
    {"Off", nullptr},
    {"On", nullptr},
    {"V.42bis", "v42bis"},
    {"V.44", "v44"},
};
constexpr vocab_def data_comp_v = make_vocab(data_comp, "Unknown");

constexpr vocab_entry hdr_comp[] = {
    {nullptr, nullptr},
    {"Off", nullptr},
    {"On", nullptr},
    {"RFC1144", nullptr},
    {"RFC2507", nullptr},
    {"RFC3095", nullptr},
};
constexpr vocab_def hdr_comp_v = make_vocab(hdr_comp, "Unknown");

constexpr vocab_entry ipv4_alloc[] = {
    {nullptr, nullptr},
    {"NAS", nullptr},
    {"DHCP", nullptr},
};
constexpr vocab_def ipv4_alloc_v = make_vocab(ipv4_alloc, "Unknown");

constexpr vocab_entry pdp_req[] = {
    {nullptr, nullptr},
    {"New or handover", "auto"},
    {"Emergency", nullptr},
    {"New", nullptr},
    {"Handover", nullptr},
    {"Emergency handover", "emergency_handover"},
};
constexpr vocab_def pdp_req_v = make_vocab(pdp_req, "Unknown");

constexpr vocab_entry apn_auth[] = {
    {nullptr, nullptr},
    {"None", nullptr},
    {"PAP", nullptr},
    {"CHAP", nullptr},
    {"PAP/CHAP", "pap_chap"},
};
constexpr vocab_def apn_auth_v = make_vocab(apn_auth, "Unknown");

constexpr vocab_entry pdp_ctx_state[] = {
    {nullptr, nullptr},
    {"Deactivated", "deactivate"},
    {"Activated", "activate"},
};
constexpr vocab_def pdp_ctx_state_v = make_vocab(pdp_ctx_state, "Unknown");

constexpr vocab_entry pdp_call_mode[] = {
    {nullptr, nullptr},
    {"Disconnect", nullptr},
    {"Connect", nullptr},
    {"Auto connect", "auto_connect"},
};
constexpr vocab_def pdp_call_mode_v = make_vocab(pdp_call_mode, "Unknown");

constexpr vocab_entry pdp_call_state[] = {
    {nullptr, nullptr},
    {"Disconnected", nullptr},
    {"Ready", nullptr},
    {"Connected", nullptr},
};
constexpr vocab_def pdp_call_state_v = make_vocab(pdp_call_state, "Unknown");

} // namespace
// clang-format on

uint32_t pdp_type_id_enum(std::string_view t)
{
    return vocab_enum(pdp_type_v, t);
}
const char *pdp_type_id_str(uint32_t t)
{
    return vocab_str(pdp_type_v, t);
}

uint32_t pdp_data_comp_id_enum(std::string_view t)
{
    return vocab_enum(data_comp_v, t);
}
const char *pdp_data_comp_id_str(uint32_t c)
{
    return vocab_str(data_comp_v, c);
}
uint32_t pdp_hdr_comp_id_enum(std::string_view t)
{
    return vocab_enum(hdr_comp_v, t);
}
const char *pdp_hdr_comp_id_str(uint32_t c)
{
    return vocab_str(hdr_comp_v, c);
}
uint32_t pdp_ipv4_addr_alloc_id_enum(std::string_view t)
{
    return vocab_enum(ipv4_alloc_v, t);
}
const char *pdp_ipv4_addr_alloc_id_str(uint32_t a)
{
    return vocab_str(ipv4_alloc_v, a);
}
uint32_t pdp_req_id_enum(std::string_view t)
{
    return vocab_enum(pdp_req_v, t);
}
const char *pdp_req_id_str(uint32_t r)
{
    return vocab_str(pdp_req_v, r);
}

uint32_t apn_auth_enum(std::string_view t)
{
    return vocab_enum(apn_auth_v, t);
}
const char *apn_auth_str(uint32_t a)
{
    return vocab_str(apn_auth_v, a);
}

uint32_t pdp_ctx_state_enum(std::string_view t)
{
    return vocab_enum(pdp_ctx_state_v, t);
}
const char *pdp_ctx_state_str(uint32_t s)
{
    return vocab_str(pdp_ctx_state_v, s);
}

uint32_t pdp_call_mode_enum(std::string_view t)
{
    return vocab_enum(pdp_call_mode_v, t);
}
const char *pdp_call_mode_str(uint32_t m)
{
    return vocab_str(pdp_call_mode_v, m);
}
const char *pdp_call_state_str(uint32_t s)
{
    return vocab_str(pdp_call_state_v, s);
}

uint32_t ipv6_ndp_state_enum(std::string_view t)
{
    return vocab_enum(vocab_disabled_enabled, t);
}
const char *ipv6_ndp_state_str(uint32_t s)
{
    return vocab_str(vocab_disabled_enabled, s);
}
