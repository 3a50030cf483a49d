// The rows of the modem information table. Band lists come from the modules'
// public datasheets; a family's other capabilities are set once per family.
#include "core/modem_info.h"

#include "ubus/vocab.h"

#include <iterator>

namespace
{

using namespace band_mask;

// IMS states (ims_state_str) and modem functions (modem_func_str).
constexpr uint32_t ims_auto = 1;
constexpr uint32_t ims_disabled = 3;
constexpr uint32_t func_full = 0;

constexpr uint64_t bit(uint32_t n)
{
    return uint64_t{1} << n;
}

constexpr uint64_t gsm_quad = gsm({850, 900, 1800, 1900});
constexpr uint64_t gsm_eu = gsm({900, 1800});

// What a model family shares; the bands come per variant.
struct family {
    uint32_t features;
    uint32_t default_ims;
    uint32_t pdp_ctx_max;
    uint32_t cmd_timeout;
    bool reboot_needed;
    bool lpwa;              // Cat-M1 in the LTE mask, NB-IoT in the NB mask
    const modem_nmea *nmea; // GNSS_SYSTEM_COUNT entries; null without a receiver
};

// Network modes a modem can be set to follow from its radio families.
constexpr uint64_t service_modes(const modem_band_masks &b, bool lpwa)
{
    const bool g = b.gsm, w = b.wcdma, l = b.lte && !lpwa, n = b.nsa_5g || b.sa_5g;
    uint64_t modes = bit(NET_MODE_AUTO);
    if (g)
        modes |= bit(NET_MODE_2G);
    if (w)
        modes |= bit(NET_MODE_3G);
    if (l)
        modes |= bit(NET_MODE_4G);
    if (n)
        modes |= bit(NET_MODE_5G);
    if (g && w)
        modes |= bit(NET_MODE_2G_3G);
    if (g && l)
        modes |= bit(NET_MODE_2G_4G);
    if (w && l)
        modes |= bit(NET_MODE_3G_4G);
    if (w && n)
        modes |= bit(NET_MODE_3G_5G);
    if (l && n)
        modes |= bit(NET_MODE_4G_5G);
    if (lpwa && b.lte)
        modes |= bit(NET_MODE_CAT_M1);
    if (lpwa && b.lte_nb)
        modes |= bit(NET_MODE_CAT_NB);
    return modes;
}

constexpr modem_info row(const char *vendor, const char *model, const char *variant, const char *fw_suffix,
                         const char *sn_suffix, const char *usb_ids, uint32_t type, const family &f,
                         const modem_band_masks &bands)
{
    modem_info r{
        .vendor = vendor,
        .model = model,
        .variant = variant,
        .fw_suffix = fw_suffix,
        .sn_suffix = sn_suffix,
        .usb_ids = usb_ids,
        .type = type,
        .default_func = func_full,
        .cmd_timeout = f.cmd_timeout,
        .settle_ms = 500,
        .bands = bands,
        .service_modes = service_modes(bands, f.lpwa),
        .nmea = {},
        .features = f.features,
        .default_ims = f.default_ims,
        .pdp_ctx_max = f.pdp_ctx_max,
        .reboot_needed = f.reboot_needed,
    };
    for (size_t i = 0; f.nmea && i < GNSS_SYSTEM_COUNT; i++)
        r.nmea[i] = f.nmea[i];
    // USSD and circuit-switched data need a 2G or 3G radio.
    if (!bands.gsm && !bands.wcdma)
        r.features = (r.features & ~MODEM_FEATURE_CSD) | MODEM_FEATURE_NO_USSD;
    return r;
}

// The fallback: no model, no ids, nothing beyond the default timings.
constexpr modem_info unknown_row()
{
    modem_info r{};
    r.vendor = "Unknown";
    r.model = r.variant = r.fw_suffix = r.sn_suffix = r.usb_ids = "";
    r.default_func = func_full;
    r.cmd_timeout = 10;
    r.settle_ms = 500;
    return r;
}

constexpr modem_band_masks bands_2g3g4g(uint64_t g, uint64_t w, uint64_t l)
{
    return {g, w, l, 0, 0, 0};
}

// NR bands below n79 sit on the same bits in the NSA and SA families.
constexpr modem_band_masks bands_5g(uint64_t w, uint64_t l, uint64_t nsa, uint64_t sa)
{
    return {0, w, l, 0, nsa, sa};
}

// NMEA output of the vendor's Qualcomm LTE receivers: per-system sentence
// masks (GPS GGA..VTG, GLONASS GSV/GSA/GNS, Galileo GSV, BeiDou GSA/GSV).
constexpr modem_nmea nmea_qc_lte[GNSS_SYSTEM_COUNT] = {
    {GPS_SENTENCE_GGA | GPS_SENTENCE_RMC | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_VTG,
     GPS_PREFIX_GP | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_GNS, GPS_PREFIX_GL | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV, GPS_PREFIX_GA},
    {GPS_SENTENCE_GSA | GPS_SENTENCE_GSV, GPS_PREFIX_PQ},
    {GPS_SENTENCE_GSV, GPS_PREFIX_PQ},
};

constexpr modem_nmea nmea_qc_5g[GNSS_SYSTEM_COUNT] = {
    {GPS_SENTENCE_GGA | GPS_SENTENCE_RMC | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_VTG,
     GPS_PREFIX_GP | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_GNS, GPS_PREFIX_GL | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GA},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GB},
    {GPS_SENTENCE_GSV, GPS_PREFIX_GQ},
};

constexpr modem_nmea nmea_unisoc[GNSS_SYSTEM_COUNT] = {
    {GPS_SENTENCE_GGA | GPS_SENTENCE_RMC | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_VTG | GPS_SENTENCE_GLL,
     GPS_PREFIX_GP | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GL},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GA},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GB},
    {},
};

// One selector per system: GPS as a mask, the others as combined choices.
constexpr modem_nmea nmea_meiglink[GNSS_SYSTEM_COUNT] = {
    {GPS_SENTENCE_GGA | GPS_SENTENCE_RMC | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_VTG | GPS_SENTENCE_GLL,
     GPS_PREFIX_GP | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_GNS | GPS_SENTENCE_GSV_GSA | GPS_SENTENCE_GSV_GNS |
         GPS_SENTENCE_GSA_GNS | GPS_SENTENCE_GSV_GSA_GNS,
     GPS_PREFIX_GL},
    {},
    {GPS_SENTENCE_GSA | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA_GSV, GPS_PREFIX_BD},
    {},
};

constexpr modem_nmea nmea_telit[GNSS_SYSTEM_COUNT] = {
    {GPS_SENTENCE_GGA | GPS_SENTENCE_RMC | GPS_SENTENCE_GSV | GPS_SENTENCE_GSA | GPS_SENTENCE_VTG | GPS_SENTENCE_GLL |
         GPS_SENTENCE_GNS,
     GPS_PREFIX_GP | GPS_PREFIX_GN},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GL},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GA},
    {GPS_SENTENCE_GSV | GPS_SENTENCE_GSA, GPS_PREFIX_GB},
    {},
};

constexpr uint32_t base_features = MODEM_FEATURE_IPV6 | MODEM_FEATURE_MULTI_APN | MODEM_FEATURE_OPERATOR_SCAN;

// EC2x / EG2x-G (MDM9x07): QMI and ECM data, IMS following the carrier
// profile, DHCP packet filter, GNSS DPO, DFOTA.
constexpr family quectel_ec2x = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_DPO | MODEM_FEATURE_RMNET | MODEM_FEATURE_ECM |
                MODEM_FEATURE_AUTO_IMS | MODEM_FEATURE_DHCP_FILTER | MODEM_FEATURE_CSD | MODEM_FEATURE_MOBILE_DFOTA,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nmea_qc_lte,
};

// LTE-A categories 6 to 12 (EG06, EG060K, EG12).
constexpr family quectel_lte_a = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_DPO | MODEM_FEATURE_RMNET | MODEM_FEATURE_ECM |
                MODEM_FEATURE_DYNAMIC_MTU | MODEM_FEATURE_AUTO_IMS | MODEM_FEATURE_DHCP_FILTER |
                MODEM_FEATURE_MOBILE_DFOTA,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nmea_qc_lte,
};

// Cat-1/Cat-4 on non-Qualcomm platforms: ECM data only, no GNSS.
constexpr family quectel_cat1 = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_ECM | MODEM_FEATURE_MOBILE_DFOTA |
                MODEM_FEATURE_AUTO_3G_BANDS,
    .default_ims = ims_auto,
    .pdp_ctx_max = 8,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nullptr,
};

// LPWA: slow network scans, reconnect on weak coverage.
constexpr family quectel_bg96 = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_DPO | MODEM_FEATURE_RMNET |
                MODEM_FEATURE_EXTENDED_TIMEOUT | MODEM_FEATURE_MOBILE_DFOTA | MODEM_FEATURE_LOW_SIGNAL_RECONNECT,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 30,
    .reboot_needed = true,
    .lpwa = true,
    .nmea = nmea_qc_lte,
};

// GNSS and the LTE radio share one receive chain on the BG95: never both.
constexpr family quectel_bg95 = {
    .features = base_features | MODEM_FEATURE_DPO | MODEM_FEATURE_EXTENDED_TIMEOUT | MODEM_FEATURE_WWAN_GNSS_CONFLICT |
                MODEM_FEATURE_MOBILE_DFOTA | MODEM_FEATURE_LOW_SIGNAL_RECONNECT,
    .default_ims = ims_disabled,
    .pdp_ctx_max = 16,
    .cmd_timeout = 30,
    .reboot_needed = true,
    .lpwa = true,
    .nmea = nmea_qc_lte,
};

// 5G on Qualcomm SDX55/SDX6x: band and mode changes apply at once.
constexpr family quectel_5g = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_RMNET | MODEM_FEATURE_ECM |
                MODEM_FEATURE_DYNAMIC_MTU | MODEM_FEATURE_AUTO_IMS | MODEM_FEATURE_MOBILE_DFOTA |
                MODEM_FEATURE_FRAMED_ROUTING | MODEM_FEATURE_AUTO_5G_MODE,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 10,
    .reboot_needed = false,
    .lpwa = false,
    .nmea = nmea_qc_5g,
};

constexpr family quectel_5g_unisoc = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_ECM | MODEM_FEATURE_DYNAMIC_MTU |
                MODEM_FEATURE_MOBILE_DFOTA | MODEM_FEATURE_AUTO_3G_BANDS | MODEM_FEATURE_AUTO_5G_MODE,
    .default_ims = ims_auto,
    .pdp_ctx_max = 8,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nmea_unisoc,
};

// 5G RedCap: standalone only, so no automatic NSA/SA switching.
constexpr family quectel_redcap = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_RMNET | MODEM_FEATURE_ECM |
                MODEM_FEATURE_DYNAMIC_MTU | MODEM_FEATURE_AUTO_IMS | MODEM_FEATURE_MOBILE_DFOTA | MODEM_FEATURE_RED_CAP,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 10,
    .reboot_needed = false,
    .lpwa = false,
    .nmea = nmea_qc_5g,
};

constexpr family meiglink = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_RMNET | MODEM_FEATURE_ECM,
    .default_ims = ims_auto,
    .pdp_ctx_max = 8,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nmea_meiglink,
};

constexpr family telit_5g = {
    .features = base_features | MODEM_FEATURE_VOLTE | MODEM_FEATURE_RMNET | MODEM_FEATURE_DYNAMIC_MTU |
                MODEM_FEATURE_AUTO_IMS | MODEM_FEATURE_AUTO_5G_MODE,
    .default_ims = ims_auto,
    .pdp_ctx_max = 16,
    .cmd_timeout = 10,
    .reboot_needed = true,
    .lpwa = false,
    .nmea = nmea_telit,
};

// Band sets by region.
constexpr modem_band_masks ec25_e = bands_2g3g4g(gsm_eu, wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 38, 40, 41}));
constexpr modem_band_masks ec25_ec = bands_2g3g4g(gsm_eu, wcdma({1, 8}), lte({1, 3, 7, 8, 20, 28}));
constexpr modem_band_masks ec25_eu = bands_2g3g4g(gsm_eu, wcdma({1, 8}), lte({1, 3, 7, 8, 20, 28, 38, 40, 41}));
constexpr modem_band_masks ec25_autl = bands_2g3g4g(0, 0, lte({3, 7, 28}));
constexpr modem_band_masks ec25_aut = bands_2g3g4g(0, wcdma({1, 5}), lte({1, 3, 5, 7, 28}));
constexpr modem_band_masks ec25_aux =
    bands_2g3g4g(gsm_quad, wcdma({1, 2, 4, 5, 8}), lte({1, 2, 3, 4, 5, 7, 8, 28, 40}));
constexpr modem_band_masks ec25_af = bands_2g3g4g(0, wcdma({2, 4, 5}), lte({2, 4, 5, 12, 13, 14, 66, 71}));
constexpr modem_band_masks ec25_au = bands_2g3g4g(gsm_quad, wcdma({1, 2, 5, 8}), lte({1, 2, 3, 4, 5, 7, 8, 28, 40}));
constexpr modem_band_masks ec25_a = bands_2g3g4g(0, wcdma({2, 4, 5}), lte({2, 4, 12}));
constexpr modem_band_masks lte_verizon = bands_2g3g4g(0, 0, lte({4, 13}));
constexpr modem_band_masks ec25_j = bands_2g3g4g(0, wcdma({1, 6, 8, 19}), lte({1, 3, 8, 18, 19, 26, 41}));

constexpr modem_band_masks ec20_ce = bands_2g3g4g(gsm_eu, wcdma({1, 8}), lte({1, 3, 38, 39, 40, 41}));

constexpr modem_band_masks ec200a_eu = bands_2g3g4g(gsm_eu, wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 38, 40, 41}));
constexpr modem_band_masks ec200a_au =
    bands_2g3g4g(gsm_quad, wcdma({1, 2, 4, 5, 8}), lte({1, 2, 3, 4, 5, 7, 8, 28, 40, 66}));
constexpr modem_band_masks ec200a_cn = bands_2g3g4g(gsm_eu, 0, lte({1, 3, 5, 8, 34, 38, 39, 40, 41}));

constexpr modem_band_masks ec21_e = bands_2g3g4g(gsm_eu, wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20}));
constexpr modem_band_masks ec21_auv = bands_2g3g4g(0, wcdma({1, 5, 8}), lte({1, 3, 5, 8, 28}));
constexpr modem_band_masks ec21_j = bands_2g3g4g(0, 0, lte({1, 3, 8, 18, 19, 26}));

constexpr modem_band_masks lte_a_na =
    bands_2g3g4g(0, wcdma({2, 4, 5}), lte({2, 4, 5, 7, 12, 13, 14, 17, 25, 26, 29, 30, 41, 42, 43, 46, 48, 66, 71}));
constexpr modem_band_masks lte_a_ea =
    bands_2g3g4g(0, wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 32, 38, 40, 41, 42, 43}));
constexpr modem_band_masks eg06_e = bands_2g3g4g(0, wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 32, 38, 40, 41}));
constexpr modem_band_masks eg06_a = bands_2g3g4g(0, wcdma({2, 4, 5}), lte({2, 4, 5, 7, 12, 13, 25, 26, 29, 30, 66}));
constexpr modem_band_masks eg12_ea = bands_2g3g4g(
    0, wcdma({1, 2, 4, 5, 6, 8, 19}),
    lte({1, 2, 3, 4, 5, 7, 8, 12, 13, 18, 19, 20, 25, 26, 28, 29, 30, 32, 38, 39, 40, 41, 42, 43, 46, 48, 66}));
constexpr modem_band_masks eg25_g =
    bands_2g3g4g(gsm_quad, wcdma({1, 2, 4, 5, 6, 8, 19}),
                 lte({1, 2, 3, 4, 5, 7, 8, 12, 13, 18, 19, 20, 25, 26, 28, 38, 39, 40, 41}));

constexpr modem_band_masks bg96 = {gsm_quad,
                                   0,
                                   lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 25, 26, 28, 39}),
                                   lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 26, 28}),
                                   0,
                                   0};
constexpr modem_band_masks bg95_m3 = {gsm_quad,
                                      0,
                                      lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 25, 26, 27, 28, 66, 85}),
                                      lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 25, 28, 66, 71, 85}),
                                      0,
                                      0};
constexpr modem_band_masks bg95_m4 = {0,
                                      0,
                                      lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 25, 26, 27, 28, 31, 66, 72, 73, 85}),
                                      lte({1, 2, 3, 4, 5, 8, 12, 13, 18, 19, 20, 25, 28, 31, 66, 72, 73, 85}),
                                      0,
                                      0};

constexpr modem_band_masks eg915q_na = bands_2g3g4g(0, 0, lte({2, 4, 5, 12, 13, 14, 17, 25, 26, 66, 71}));

constexpr uint64_t nr_eu[] = {nsa_5g({1, 3, 5, 7, 8, 20, 28, 38, 40, 41, 77, 78}),
                              sa_5g({1, 3, 5, 7, 8, 20, 28, 38, 40, 41, 77, 78})};
constexpr modem_band_masks rg500q_eu =
    bands_5g(wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 32, 38, 40, 41, 42, 43}), nr_eu[0], nr_eu[1]);
constexpr modem_band_masks rg500q_ea =
    bands_5g(wcdma({1, 2, 4, 5, 8, 19}), lte({1,  2,  3,  4,  5,  7,  8,  12, 13, 14, 17, 18, 19, 20, 25, 26,
                                              28, 29, 30, 32, 34, 38, 39, 40, 41, 42, 43, 46, 48, 66, 71}),
             nsa_5g({1, 2, 3, 5, 7, 8, 12, 20, 25, 28, 38, 40, 41, 48, 66, 71, 77, 78, 79}),
             sa_5g({1, 2, 3, 5, 7, 8, 12, 20, 25, 28, 38, 40, 41, 48, 66, 71, 77, 78, 79}));
constexpr modem_band_masks rg500u_ea =
    bands_5g(wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 34, 38, 39, 40, 41}), nsa_5g({1, 3, 5, 8, 28, 41, 77, 78}),
             sa_5g({1, 3, 5, 8, 28, 41, 77, 78}));
constexpr modem_band_masks rg500u_eb =
    bands_5g(wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 32, 38, 40, 41, 42, 43}),
             nsa_5g({1, 3, 7, 8, 20, 28, 38, 40, 41, 77, 78}), sa_5g({1, 3, 7, 8, 20, 28, 38, 40, 41, 77, 78}));
constexpr modem_band_masks rg520n_na =
    bands_5g(wcdma({2, 4, 5}), lte({2, 4, 5, 7, 12, 13, 14, 17, 25, 26, 29, 30, 38, 41, 42, 43, 46, 48, 66, 71}),
             nsa_5g({2, 5, 7, 12, 13, 14, 25, 26, 29, 30, 38, 41, 48, 66, 70, 71, 77, 78}),
             sa_5g({2, 5, 7, 12, 13, 14, 25, 26, 29, 30, 38, 41, 48, 66, 70, 71, 77, 78}));
constexpr modem_band_masks rg520n_eu = bands_5g(wcdma({1, 5, 8}), lte({1, 3, 5, 7, 8, 20, 28, 32, 38, 40, 41, 42, 43}),
                                                nsa_5g({1, 3, 5, 7, 8, 20, 28, 38, 40, 41, 75, 76, 77, 78}),
                                                sa_5g({1, 3, 5, 7, 8, 20, 28, 38, 40, 41, 75, 76, 77, 78}));
constexpr uint64_t nr_global[] = {
    nsa_5g({1, 2, 3, 5, 7, 8, 12, 13, 14, 18, 20, 25, 26, 28, 29, 30, 38, 40, 41, 48, 66, 70, 71, 75, 76, 77, 78, 79}),
    sa_5g({1, 2, 3, 5, 7, 8, 12, 13, 14, 18, 20, 25, 26, 28, 29, 30, 38, 40, 41, 48, 66, 70, 71, 75, 76, 77, 78, 79})};
constexpr uint64_t lte_global = lte({1,  2,  3,  4,  5,  7,  8,  12, 13, 14, 17, 18, 19, 20, 25, 26,
                                     28, 29, 30, 32, 34, 38, 39, 40, 41, 42, 43, 46, 48, 66, 71});
constexpr modem_band_masks nr_5g_global = bands_5g(wcdma({1, 2, 4, 5, 8, 19}), lte_global, nr_global[0], nr_global[1]);
constexpr modem_band_masks rg255c_gl = bands_5g(
    0, lte({1, 2, 3, 4, 5, 7, 8, 12, 13, 14, 17, 18, 19, 20, 25, 26, 28, 30, 34, 38, 39, 40, 41, 42, 43, 48, 66, 71}),
    0, sa_5g({1, 2, 3, 5, 7, 8, 12, 13, 14, 18, 20, 25, 26, 28, 30, 38, 40, 41, 48, 66, 70, 71, 75, 77, 78}));

constexpr modem_band_masks slm750_vj = bands_2g3g4g(0, wcdma({1, 6, 8, 19}), lte({1, 3, 8, 18, 19, 26, 41}));
constexpr modem_band_masks slm750_vsa = bands_2g3g4g(gsm_quad, wcdma({1, 2, 5, 8}), lte({1, 2, 3, 4, 5, 7, 8, 28}));
constexpr modem_band_masks slm750_vau = bands_2g3g4g(gsm_quad, wcdma({1, 2, 5, 8}), lte({1, 3, 5, 7, 8, 28, 40}));
constexpr modem_band_masks slm828g_la =
    bands_2g3g4g(0, wcdma({1, 2, 4, 5, 8}), lte({1, 2, 3, 4, 5, 7, 8, 28, 38, 40, 41, 66}));
constexpr modem_band_masks slm828g_na =
    bands_2g3g4g(0, wcdma({2, 4, 5}), lte({2, 4, 5, 7, 12, 13, 14, 17, 25, 26, 29, 30, 41, 46, 48, 66, 71}));

constexpr const char *Q = "Quectel";
constexpr const char *M = "Meiglink";
constexpr const char *T = "Telit";

} // namespace

// clang-format off
constexpr modem_info g_midata[] = {
    unknown_row(),

    row(Q, "EC25", "EC",   "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_ec),
    row(Q, "EC25", "E",    "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_e),
    row(Q, "EC25", "EU",   "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_eu),
    row(Q, "EC25", "EUX",  "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_eu),
    row(Q, "EC25", "AUTL", "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_autl),
    row(Q, "EC25", "AUT",  "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_aut),
    row(Q, "EC25", "AUX",  "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_aux),
    row(Q, "EC25", "AFX",  "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_af),
    row(Q, "EC25", "AFF",  "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_af),
    row(Q, "EC25", "AF",   "FA", "", "2C7C:0125", 3, quectel_ec2x, ec25_af),
    row(Q, "EC25", "AU",   "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_au),
    row(Q, "EC25", "A",    "FA", "", "2C7C:0125", 3, quectel_ec2x, ec25_a),
    row(Q, "EC25", "V",    "",   "", "2C7C:0125", 3, quectel_ec2x, lte_verizon),
    row(Q, "EC25", "J",    "",   "", "2C7C:0125", 3, quectel_ec2x, ec25_j),

    row(Q, "EC20", "CE", "", "", "05C6:9215", 21, quectel_ec2x, ec20_ce),

    row(Q, "EC200A", "EU", "", "", "2C7C:6005", 1, quectel_cat1, ec200a_eu),
    row(Q, "EC200A", "AU", "", "", "2C7C:6005", 1, quectel_cat1, ec200a_au),
    row(Q, "EC200A", "CN", "", "", "2C7C:6005", 1, quectel_cat1, ec200a_cn),

    row(Q, "EC21", "EC",  "", "", "2C7C:0121", 2, quectel_ec2x, ec25_ec),
    row(Q, "EC21", "EU",  "", "", "2C7C:0121", 2, quectel_ec2x, ec25_ec),
    row(Q, "EC21", "E",   "", "", "2C7C:0121", 2, quectel_ec2x, ec21_e),
    row(Q, "EC21", "AUV", "", "", "2C7C:0121", 2, quectel_ec2x, ec21_auv),
    row(Q, "EC21", "AUX", "", "", "2C7C:0121", 2, quectel_ec2x, ec25_aux),
    row(Q, "EC21", "AUT", "", "", "2C7C:0121", 2, quectel_ec2x, ec25_aut),
    row(Q, "EC21", "AU",  "", "", "2C7C:0121", 2, quectel_ec2x, ec25_au),
    row(Q, "EC21", "A",   "", "", "2C7C:0121", 2, quectel_ec2x, ec25_a),
    row(Q, "EC21", "V",   "", "", "2C7C:0121", 2, quectel_ec2x, lte_verizon),
    row(Q, "EC21", "J",   "", "", "2C7C:0121", 2, quectel_ec2x, ec21_j),

    row(Q, "EG060K", "NA", "", "", "2C7C:030B", 5, quectel_lte_a, lte_a_na),
    row(Q, "EG060K", "EA", "", "", "2C7C:030B", 5, quectel_lte_a, lte_a_ea),
    row(Q, "EG06",   "E",  "", "", "2C7C:0306", 4, quectel_lte_a, eg06_e),
    row(Q, "EG06",   "A",  "", "", "2C7C:0306", 4, quectel_lte_a, eg06_a),
    row(Q, "EG12",   "EA", "", "", "2C7C:0512", 6, quectel_lte_a, eg12_ea),
    row(Q, "EG25",   "G",  "", "", "2C7C:0125", 7, quectel_ec2x, eg25_g),

    row(Q, "BG96", "",   "", "", "2C7C:0296", 9, quectel_bg96, bg96),
    row(Q, "BG95", "M3", "", "", "2C7C:0700", 8, quectel_bg95, bg95_m3),
    row(Q, "BG95", "M4", "", "", "2C7C:0700", 8, quectel_bg95, bg95_m4),

    row(Q, "EG915Q", "NA", "", "", "2C7C:6007", 10, quectel_cat1, eg915q_na),

    row(Q, "RG500Q", "EU", "", "", "2C7C:0800", 11, quectel_5g,        rg500q_eu),
    row(Q, "RG500Q", "EA", "", "", "2C7C:0800", 11, quectel_5g,        rg500q_ea),
    row(Q, "RG500U", "EA", "", "", "2C7C:0900", 12, quectel_5g_unisoc, rg500u_ea),
    row(Q, "RG500U", "EB", "", "", "2C7C:0900", 12, quectel_5g_unisoc, rg500u_eb),
    row(Q, "RG501Q", "EU", "", "", "2C7C:0800", 16, quectel_5g,        rg500q_eu),
    row(Q, "RG501Q", "EA", "", "", "2C7C:0800", 16, quectel_5g,        rg500q_ea),
    row(Q, "RG520N", "NA", "", "", "2C7C:0801", 13, quectel_5g,        rg520n_na),
    row(Q, "RG520N", "EU", "", "", "2C7C:0801", 13, quectel_5g,        rg520n_eu),
    row(Q, "RG520N", "EB", "", "", "2C7C:0801", 13, quectel_5g,        rg520n_eu),
    row(Q, "RM520N", "GL", "", "", "2C7C:0801", 14, quectel_5g,        nr_5g_global),
    row(Q, "RG255C", "GL", "", "", "2C7C:0316", 15, quectel_redcap,    rg255c_gl),

    row(M, "SLM750", "VE",  "", "",    "05C6:F601", 17, meiglink, ec25_e),
    row(M, "SLM750", "VJ",  "", "02X", "05C6:F601", 17, meiglink, slm750_vj),
    row(M, "SLM750", "VJ",  "", "10C", "05C6:F601", 17, meiglink, slm750_vj),
    row(M, "SLM750", "VJ",  "", "10D", "05C6:F601", 17, meiglink, slm750_vj),
    row(M, "SLM750", "VJ",  "", "13B", "05C6:F601", 17, meiglink, slm750_vj),
    row(M, "SLM750", "VSA", "", "1E",  "05C6:F601", 17, meiglink, slm750_vsa),
    row(M, "SLM750", "VSA", "", "1N",  "05C6:F601", 17, meiglink, slm750_vsa),
    row(M, "SLM750", "VSA", "", "1W",  "05C6:F601", 17, meiglink, slm750_vsa),
    row(M, "SLM750", "VAU", "", "",    "05C6:F601", 17, meiglink, slm750_vau),
    row(M, "SLM750", "VA",  "", "",    "05C6:F601", 17, meiglink, ec25_a),

    row(M, "SLM770", "A", "", "CA", "2DEE:4D57", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CB", "2DEE:4D57", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CC", "2DEE:4D57", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CE", "2DEE:4D57", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "EU", "2DEE:4D57", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CA", "2DEE:4D58", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CB", "2DEE:4D58", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CC", "2DEE:4D58", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "CE", "2DEE:4D58", 20, meiglink, ec25_af),
    row(M, "SLM770", "A", "", "EU", "2DEE:4D58", 20, meiglink, ec25_af),

    row(M, "SLM828G", "EU12", "", "", "2DEE:4D22", 18, meiglink, lte_a_ea),
    row(M, "SLM828G", "LA12", "", "", "2DEE:4D22", 18, meiglink, slm828g_la),
    row(M, "SLM828G", "NA12", "", "", "2DEE:4D22", 18, meiglink, slm828g_na),
    row(M, "SLM828G", "EU06", "", "", "2DEE:4D22", 18, meiglink, lte_a_ea),
    row(M, "SLM828G", "LA06", "", "", "2DEE:4D22", 18, meiglink, slm828g_la),
    row(M, "SLM828G", "NA06", "", "", "2DEE:4D22", 18, meiglink, slm828g_na),

    row(T, "FN990", "A28", "", "", "1bc7:1070", 22, telit_5g, nr_5g_global),
    row(T, "FN990", "A28", "", "", "1bc7:1071", 22, telit_5g, nr_5g_global),
    row(T, "FN990", "A28", "", "", "1bc7:1072", 22, telit_5g, nr_5g_global),
    row(T, "FN990", "A28", "", "", "1bc7:1073", 22, telit_5g, nr_5g_global),
};
// clang-format on

static_assert(std::size(g_midata) == MODEM_INFO_ROWS);
static_assert(g_midata[1].type == 3 && g_midata[1].default_func == 0 && g_midata[1].cmd_timeout == 10 &&
                  g_midata[1].settle_ms == 500 && g_midata[1].bands.gsm == 12 && g_midata[1].bands.wcdma == 2112 &&
                  g_midata[1].bands.lte == 278730,
              "EC25-EC carries the reference numbers");
