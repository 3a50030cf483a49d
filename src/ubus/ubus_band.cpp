// Band methods: one setter per radio access technology, the defaults and
// the current selection.
// One row per method in registration order: name, action, time-out in
// seconds, arguments.
#include "ubus/modem_api.h"
#include "ubus/ubus.h"

namespace {

const ubus_catalogue_row band_methods[] = {
    {"set_gsm_band", ACT_SET_GSM_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_wcdma_band", ACT_SET_WCDMA_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_lte_band", ACT_SET_LTE_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_lte_nb_band", ACT_SET_LTE_NB_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_5g_nsa_band", ACT_SET_5G_NSA_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_5g_sa_band", ACT_SET_5G_SA_BAND, 10, {{"bands", UBUS_ARRAY}}},
    {"set_default_bands", ACT_SET_DEFAULT_BANDS, 10, {{"reboot", UBUS_BOOL, UBUS_OPT}, {"skip", UBUS_ARRAY, UBUS_OPT}}},
    {"get_bands", ACT_GET_BANDS, 10},
};

} // namespace

int ubus_band_init()
{
    return ubus_register_catalogue(band_methods);
}
