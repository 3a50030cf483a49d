// Quectel band configuration. The LTE/3G modules keep their bands in
// AT+QCFG="band" as hexadecimal masks, the 5G modules in the colon lists of
// AT+QNWPREFCFG. The setters take "bands" (an array of band names of one
// family, "<FAMILY>_ANY" standing for every band the model supports) and
// refuse with status 2 names of another family, unknown names, bands the
// model does not list and an empty list. get_bands replies one array of band
// names per family ("gsm", "wcdma", "lte", "lte_nb", "nsa_5g", "5g") and the
// modem's own fields as text.
#pragma once

#include "core/modem_driver.h"

// Installs the AT+QCFG="band" actions of the EC2x/EG2x/EG9x family (GSM,
// WCDMA, LTE setters, default bands, band report).
int quectel_band_probe(modem_driver *driver);

// EC2x/EG2x/EG9x: AT+QCFG="band",<bandval>,<ltebandval>,<tdsbandval>.
int gsm_band_set(modem *mdm, int type, ujson *json, request *req);
int wcdma_band_set(modem *mdm, int type, ujson *json, request *req);
int lte_band_set(modem *mdm, int type, ujson *json, request *req);
int set_default_bands(modem *mdm, int type, ujson *json, request *req);
int get_bands(modem *mdm, int type, ujson *json, request *req);

// Cat-1 (EC200A, EG915Q): two fields, <bandval>,<ltebandval>.
int gsm_band_set_cat1(modem *mdm, int type, ujson *json, request *req);
int wcdma_band_set_cat1(modem *mdm, int type, ujson *json, request *req);
int lte_band_set_cat1(modem *mdm, int type, ujson *json, request *req);
int set_default_bands_cat1(modem *mdm, int type, ujson *json, request *req);
int get_bands_cat1(modem *mdm, int type, ujson *json, request *req);

// LPWA (BG95, BG96): <gsmbandval>,<catm1bandval>,<catnb1bandval>; the "lte"
// family stands for Cat-M1, "lte_nb" for NB-IoT.
int gsm_band_set_lpwa(modem *mdm, int type, ujson *json, request *req);
int lte_band_set_lpwa(modem *mdm, int type, ujson *json, request *req);
int lte_nb_band_set_lpwa(modem *mdm, int type, ujson *json, request *req);
int set_default_bands_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_bands_lpwa(modem *mdm, int type, ujson *json, request *req);

// 5G on Qualcomm (RG50xQ, RG520N, RM520N): AT+QNWPREFCFG "gw_band",
// "lte_band", "nsa_nr5g_band" and "nr5g_band"; no GSM.
int wcdma_band_set_nr(modem *mdm, int type, ujson *json, request *req);
int lte_band_set_nr(modem *mdm, int type, ujson *json, request *req);
int nsa_5g_band_set_nr(modem *mdm, int type, ujson *json, request *req);
int sa_5g_band_set_nr(modem *mdm, int type, ujson *json, request *req);
int set_default_bands_nr(modem *mdm, int type, ujson *json, request *req);
int get_bands_nr(modem *mdm, int type, ujson *json, request *req);

// 5G on UNISOC (RG500U): one "nr5g_band" list serves NSA and SA, so either
// setter replaces it and the report shows it for both; WCDMA and LTE as the
// Qualcomm 5G modules.
int nsa_5g_band_set_unisoc_nr(modem *mdm, int type, ujson *json, request *req);
int sa_5g_band_set_unisoc_nr(modem *mdm, int type, ujson *json, request *req);
int set_default_bands_unisoc_nr(modem *mdm, int type, ujson *json, request *req);
int get_bands_unisoc_nr(modem *mdm, int type, ujson *json, request *req);
