// What each Quectel family does differently from the base driver (the
// EC2x/EG2x/EG9x behaviour), as tables of action overrides. A null function
// withdraws an action the family has no command for. The model drivers name
// their family's probe.
#include "drivers/quectel/quectel.h"

#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_sys.h"

namespace
{

struct action_override {
    uint32_t action;
    act_func func;
};

template <size_t N> int install(modem_driver *driver, const action_override (&table)[N])
{
    for (const action_override &o : table)
        modem_driver_override(driver, o.action, o.func);
    return 0;
}

// Cat-1 on ASR/UNISOC (EC200A, EG915Q): a two-field band answer.
constexpr action_override cat1[] = {
    {ACT_SET_GSM_BAND, gsm_band_set_cat1},
    {ACT_SET_WCDMA_BAND, wcdma_band_set_cat1},
    {ACT_SET_LTE_BAND, lte_band_set_cat1},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_cat1},
    {ACT_GET_BANDS, get_bands_cat1},
};

// LPWA (BG95, BG96): GSM, eMTC and NB-IoT, no WCDMA.
constexpr action_override lpwa[] = {
    {ACT_SET_GSM_BAND, gsm_band_set_lpwa},
    {ACT_SET_WCDMA_BAND, nullptr},
    {ACT_SET_LTE_BAND, lte_band_set_lpwa},
    {ACT_SET_LTE_NB_BAND, lte_nb_band_set_lpwa},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_lpwa},
    {ACT_GET_BANDS, get_bands_lpwa},
};

// 5G on Qualcomm SDX55/SDX6x (RG50xQ, RM5xxQ, RG520N, RM520N): AT+QNWPREFCFG
// in place of AT+QCFG="band"/"nwscanmode"; no GSM.
constexpr action_override nr[] = {
    {ACT_SET_GSM_BAND, nullptr},
    {ACT_SET_WCDMA_BAND, wcdma_band_set_nr},
    {ACT_SET_LTE_BAND, lte_band_set_nr},
    {ACT_SET_5G_NSA_BAND, nsa_5g_band_set_nr},
    {ACT_SET_5G_SA_BAND, sa_5g_band_set_nr},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_nr},
    {ACT_GET_BANDS, get_bands_nr},
    {ACT_SET_SIM_SLOT, quectel::quectel_set_sim_slot_nr},
    {ACT_GET_SIM_SLOT, quectel::quectel_get_sim_slot_nr},
    {ACT_GET_NAT_CFG, quectel::get_nat_cfg_nr},
};

// 5G on UNISOC UDX710 (RG500U): AT+QNWPREFCFG with one NR band list.
constexpr action_override unisoc_nr[] = {
    {ACT_SET_5G_NSA_BAND, nsa_5g_band_set_unisoc_nr},
    {ACT_SET_5G_SA_BAND, sa_5g_band_set_unisoc_nr},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_unisoc_nr},
    {ACT_GET_BANDS, get_bands_unisoc_nr},
    {ACT_GET_NAT_CFG, nullptr}, // known on the Qualcomm modules only
};

} // namespace

int quectel_ltea_probe(modem_driver *)
{
    return 0;
}

int quectel_cat1_probe(modem_driver *driver)
{
    return install(driver, cat1);
}

int quectel_lpwa_probe(modem_driver *driver)
{
    return install(driver, lpwa);
}

int quectel_nr_probe(modem_driver *driver)
{
    return install(driver, nr);
}

int quectel_unisoc_nr_probe(modem_driver *driver)
{
    // Everything of the Qualcomm 5G family but its own NR band list.
    install(driver, nr);
    return install(driver, unisoc_nr);
}
