// What each Quectel family does differently from the base driver (the
// EC2x/EG2x/EG9x behaviour), as tables of action overrides. A null function
// withdraws an action the family has no command for. The model drivers name
// their family's probe.
#include "drivers/quectel/quectel.h"

#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_net.h"
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
    {ACT_GET_SIGNAL_QRY, nullptr}, // no AT+QCSQ known on these platforms
};

// LPWA (BG95, BG96): GSM, eMTC and NB-IoT, no WCDMA.
constexpr action_override lpwa[] = {
    {ACT_SET_GSM_BAND, gsm_band_set_lpwa},
    {ACT_SET_WCDMA_BAND, nullptr},
    {ACT_SET_LTE_BAND, lte_band_set_lpwa},
    {ACT_SET_LTE_NB_BAND, lte_nb_band_set_lpwa},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_lpwa},
    {ACT_GET_BANDS, get_bands_lpwa},
    {ACT_SET_NET_MODE, set_net_mode_lpwa},
    {ACT_GET_NET_MODE_TECH, get_net_mode_tech_lpwa},
    {ACT_SET_CFG_SIGNAL_QRY, nullptr}, // the +QIND "csq" report is an EC2x one
    {ACT_GET_CFG_SIGNAL_QRY, nullptr},
    {ACT_GET_NET_REG_STAT, get_net_reg_stat_lpwa},
    {ACT_GET_NET_GREG_STAT, get_net_greg_stat_lpwa},
    {ACT_GET_NET_EREG_STAT, get_net_ereg_stat_lpwa},
    {ACT_GET_NET_REG_STAT_ALL, get_net_reg_stat_all_lpwa},
    {ACT_GET_OPER_SELECTION, get_op_slc_lpwa},
    {ACT_OPERATOR_SCAN, scan_op_lpwa},
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
    {ACT_GET_CELL_INFO, get_cell_info_nr},
    {ACT_GET_CA_INFO, get_ca_info_nr},
    {ACT_SET_NET_MODE, set_net_mode_nr},
    {ACT_GET_NET_MODE_TECH, get_net_mode_tech_nr},
    {ACT_SET_ROAMING_SVC, set_roaming_svc_nr},
    {ACT_GET_ROAMING_SVC, get_roaming_svc_nr},
    {ACT_SET_URC_CAUSE_SUPPORT, set_urc_cause_support_nr},
    {ACT_GET_URC_CAUSE_SUPPORT, get_urc_cause_support_nr},
    {ACT_SET_NR5G_DISABLE_MODE, set_nr5g_disable_mode_nr},
    {ACT_GET_NR5G_DISABLE_MODE, get_nr5g_disable_mode_nr},
    {ACT_SET_CFG_SIGNAL_QRY, nullptr},
    {ACT_GET_CFG_SIGNAL_QRY, nullptr},
};

// 5G on UNISOC UDX710 (RG500U): AT+QNWPREFCFG with one NR band list.
constexpr action_override unisoc_nr[] = {
    {ACT_SET_5G_NSA_BAND, nsa_5g_band_set_unisoc_nr},
    {ACT_SET_5G_SA_BAND, sa_5g_band_set_unisoc_nr},
    {ACT_SET_DEFAULT_BANDS, set_default_bands_unisoc_nr},
    {ACT_GET_BANDS, get_bands_unisoc_nr},
    {ACT_GET_NAT_CFG, nullptr}, // known on the Qualcomm modules only
    {ACT_GET_CELL_INFO, get_cell_info},
    {ACT_GET_NET_MODE_TECH, get_net_mode_tech_unisoc_nr},
    {ACT_SET_ROAMING_SVC, nullptr}, // its roam_pref takes 0-3, meaning not known
    {ACT_GET_ROAMING_SVC, nullptr},
    {ACT_GET_SIGNAL_QRY, nullptr},  // no AT+QCSQ known on this platform
    {ACT_SET_URC_CAUSE_SUPPORT, nullptr},
    {ACT_GET_URC_CAUSE_SUPPORT, nullptr},
    {ACT_SET_NR5G_DISABLE_MODE, nullptr},
    {ACT_GET_NR5G_DISABLE_MODE, nullptr},
};

} // namespace

// The Linux-based Qualcomm modules print the +QFUPL checksum in hexadecimal,
// as the firmware-update tools for them read it.
int quectel_ec2x_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "+QFUPL", urc_qfupl_hex);
    return 0;
}

int quectel_ltea_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "+QFUPL", urc_qfupl_hex);
    return 0;
}

int quectel_cat1_probe(modem_driver *driver)
{
    return install(driver, cat1);
}

int quectel_lpwa_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "+CREG", urc_creg_lpwa);
    modem_driver_urc_override(driver, "+CGREG", urc_cgreg_lpwa);
    modem_driver_urc_override(driver, "+CEREG", urc_cereg_lpwa);
    return install(driver, lpwa);
}

int quectel_nr_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "+QFUPL", urc_qfupl_hex);
    modem_driver_urc_override(driver, "+QNETRC", urc_qnetrc);
    return install(driver, nr);
}

int quectel_unisoc_nr_probe(modem_driver *driver)
{
    // Everything of the Qualcomm 5G family but its own NR band list.
    install(driver, nr);
    return install(driver, unisoc_nr);
}
