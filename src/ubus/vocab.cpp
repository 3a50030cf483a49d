// Event and asynchronous call names.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

// clang-format off
namespace {

// Ids 19, 20 and 25 are not events; 17 and 18 share one name.
constexpr vocab_entry evt_names[] = {
    {nullptr, nullptr},
    {"pin_state", nullptr},
    {"service_mode", nullptr},
    {"clip_value", nullptr},
    {"ring", nullptr},
    {"no_carrier", nullptr},
    {"snd_sms", nullptr},
    {"rssi_value", nullptr},
    {"rscp_value", nullptr},
    {"ecio_value", nullptr},
    {"rsrp_value", nullptr},
    {"sinr_value", nullptr},
    {"rsrq_value", nullptr},
    {"ber_value", nullptr},
    {"sms_index", nullptr},
    {"service_data_value", nullptr},
    {"fota_state", nullptr},
    {"network_state", nullptr},
    {"network_state", nullptr},
    {nullptr, nullptr},
    {nullptr, nullptr},
    {"sim_status", nullptr},
    {"file_upload", nullptr},
    {"emm_error", nullptr},
    {"esm_error", nullptr},
    {nullptr, nullptr},
    {"net_data_state", nullptr},
    {"operator", nullptr},
    {"sim_change", nullptr},
    {"modem_state", nullptr},
    {"act", nullptr},
    {"band_change", nullptr},
};
constexpr vocab_def evt_names_v = make_vocab(evt_names, "");

} // namespace
// clang-format on

const char *evt_name_str(uint32_t id)
{
    return vocab_str(evt_names_v, id);
}

const char *async_name_str(uint32_t id)
{
    return id == 0 ? "Sending SMS" : "";
}
