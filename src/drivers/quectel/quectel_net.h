// Quectel network and signal actions: serving system and signal (AT+QCSQ),
// network information (AT+QNWINFO, AT+QSPN, AT+QENG, AT+QCAINFO), network
// mode, roaming and attach configuration (AT+QCFG, AT+QNWPREFCFG), network
// time (AT+QLTS) and reject cause reports (AT+QNETRC).
//
// The plain names are the EC2x/EG2x/EG9x behaviour; a suffix names the
// model family a variant is for.
#pragma once

#include <string_view>

#include "core/modem_driver.h"

// Installs the plain actions below on a driver.
int quectel_net_probe(modem_driver *driver);

// Reads a +QCSQ line out of text: puts the system mode and its values into
// reply (when not null) and raises the signal events; the debug log names
// origin ("URC Event"). 0, or 6 when no known system mode could be read.
int qcsq_report(modem *mdm, std::string_view text, ujson *reply, const char *origin);

// AT+QCSQ: "mode_id"/"mode" and the values of the system mode ("rssi",
// "rscp", "ecio", "rsrp", "sinr", "rsrq"; NR values as "nr_*" or raw).
int get_signal_query(modem *mdm, int type, ujson *json, request *req);
// The +QIND "csq" report (AT+QINDCFG="csq"): "mode" on or off.
int set_signal_query_cfg(modem *mdm, int type, ujson *json, request *req);
int get_signal_query_cfg(modem *mdm, int type, ujson *json, request *req);

// AT+QNWINFO: "list" of {"act", "mode_id"/"mode", "oper", "band", "channel"},
// "no_service" true when the modem has none.
int get_nw_info(modem *mdm, int type, ujson *json, request *req);
// AT+QENG="servingcell": "state_id"/"state" and "cells", one per RAT.
int get_cell_info(modem *mdm, int type, ujson *json, request *req);
// RG50xQ/RM5x0N family: LTE SINR printed as 2x-20 dB.
int get_cell_info_nr(modem *mdm, int type, ujson *json, request *req);
// AT+QENG="neighbourcell": "cells" with "rat", "type" (intra/inter for LTE).
int get_neigh_info(modem *mdm, int type, ujson *json, request *req);
// AT+QCAINFO: "carriers" {"role", "rat", "band", "arfcn", "bandwidth", "pci",
// "state", signal}; LTE RSSNR kept raw.
int get_ca_info(modem *mdm, int type, ujson *json, request *req);
// 5G families: LTE RSSNR in dB.
int get_ca_info_nr(modem *mdm, int type, ujson *json, request *req);
// AT+QSPN: "full_name", "short_name", "spn", "rplmn".
int get_srvc_provider(modem *mdm, int type, ujson *json, request *req);

// AT+QCFG="nwscanmode": the configured mode (net_mode vocabulary); the mode
// in use from AT+QNWINFO.
int set_net_mode(modem *mdm, int type, ujson *json, request *req);
int get_net_mode_tech(modem *mdm, int type, ujson *json, request *req);
int get_net_mode_type(modem *mdm, int type, ujson *json, request *req);
// 5G families: AT+QNWPREFCFG="mode_pref".
int set_net_mode_nr(modem *mdm, int type, ujson *json, request *req);
int get_net_mode_tech_nr(modem *mdm, int type, ujson *json, request *req);
// RG500U (UNISOC): its mode_pref also reads NR5G-SA and NR5G-NSA.
int get_net_mode_tech_unisoc_nr(modem *mdm, int type, ujson *json, request *req);
// BG95/BG96: scan modes 0, 1 and 3 only; the scan order (AT+QCFG="nwscanseq")
// is read along, as "scan_seq".
int set_net_mode_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_net_mode_tech_lpwa(modem *mdm, int type, ujson *json, request *req);

// LPWA: the registration and operator reports number the radio their own way
// (<AcT> 8 LTE Cat-M1, 9 LTE Cat-NB1, where 3GPP has 8 for EC-GSM-IoT): both
// are E-UTRAN.
uint32_t quectel_lpwa_get_act(int32_t act);
int get_net_reg_stat_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_net_greg_stat_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_net_ereg_stat_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_net_reg_stat_all_lpwa(modem *mdm, int type, ujson *json, request *req);
int get_op_slc_lpwa(modem *mdm, int type, ujson *json, request *req);
int scan_op_lpwa(modem *mdm, int type, ujson *json, request *req);
int urc_creg_lpwa(modem *mdm, ujson *json);
int urc_cgreg_lpwa(modem *mdm, ujson *json);
int urc_cereg_lpwa(modem *mdm, ujson *json);

// AT+QCFG="roamservice" (roaming_svc vocabulary, optional "effect").
int set_roaming_svc(modem *mdm, int type, ujson *json, request *req);
int get_roaming_svc(modem *mdm, int type, ujson *json, request *req);
// 5G families: AT+QNWPREFCFG="roam_pref".
int set_roaming_svc_nr(modem *mdm, int type, ujson *json, request *req);
int get_roaming_svc_nr(modem *mdm, int type, ujson *json, request *req);

// AT+QCFG="gprsattach" (gprs_attach vocabulary); applies after a restart.
int set_gprs_attach_mode(modem *mdm, int type, ujson *json, request *req);
int get_gprs_attach_mode(modem *mdm, int type, ujson *json, request *req);

// AT+QLTS[=<mode>]: "time", "tz" (quarter hours), "tz_minutes", "dst".
int get_time(modem *mdm, int type, ujson *json, request *req);

// 5G families: AT+QNETRC, the EMM, ESM and 5GMM reject cause reports.
int set_urc_cause_support_nr(modem *mdm, int type, ujson *json, request *req);
int get_urc_cause_support_nr(modem *mdm, int type, ujson *json, request *req);
// The +QNETRC reports these switch on: EMM and 5GMM causes as the EMM error
// event, ESM causes as the ESM error event.
int urc_qnetrc(modem *mdm, ujson *json);

// RG50xQ/RM5x0N family: AT+QNWPREFCFG="nr5g_disable_mode".
int set_nr5g_disable_mode_nr(modem *mdm, int type, ujson *json, request *req);
int get_nr5g_disable_mode_nr(modem *mdm, int type, ujson *json, request *req);
