// Quectel drivers: the vendor base driver and the model drivers built on it.
#pragma once

#include <cstdint>

#include "core/modem_driver.h"

int quectel_driver_probe(modem_driver *driver);

// Family probes: what a family does differently from the base driver.
int quectel_ec2x_probe(modem_driver *driver);      // EC20, EC21, EC25, EG25
int quectel_ltea_probe(modem_driver *driver);      // EG06, EG12, EG060K
int quectel_cat1_probe(modem_driver *driver);      // EC200A, EG915Q
int quectel_lpwa_probe(modem_driver *driver);      // BG95, BG96
int quectel_nr_probe(modem_driver *driver);        // RG500Q, RG501Q, RG520N, RM520N
int quectel_unisoc_nr_probe(modem_driver *driver); // RG500U
// The RG500Q's probe, which the RG501Q driver shares.
int quectel_rg500q_probe(modem_driver *driver);

// Unsolicited reports of every Quectel modem. Each returns an action status:
// 0, 6 (or 5) for a line it cannot read, 3 without memory.
//
// +QIND: firmware update progress ("FOTA") and signal changes ("csq").
int urc_qind(modem *mdm, ujson *json);
// +QCSQ: the serving system and its signal values; the model drivers whose
// firmware sends it install urc_qcsq_common.
int urc_qcsq(modem *mdm, ujson *json);
int urc_qcsq_common(modem *mdm, ujson *json);
// +EMM ERROR / +ESM ERROR: the network's reject causes.
int urc_emm(modem *mdm, ujson *json);
int urc_esm(modem *mdm, ujson *json);
// Raises event with data holding the cause as "cause_id" and its text (by
// text) as "cause".
void notify_emm_esm_errors(modem *mdm, uint32_t event, int cause, ujson &data, const char *(*text)(uint32_t));
// +QFUPL: <size>,<checksum> at the end of an upload: a decimal checksum, or
// a hexadecimal one as the firmware of several models prints it.
// The last report is also kept in the cache under these keys.
int urc_qfupl(modem *mdm, ujson *json);
inline constexpr const char *qfupl_size_key = "upload_size";
inline constexpr const char *qfupl_checksum_key = "upload_checksum";
int urc_qfupl_hex(modem *mdm, ujson *json);
// +EGMR: the serial number, cached as "serial_num".
int urc_egmr(modem *mdm, ujson *json);
// POWERED DOWN: the modem switched itself off.
int urc_power(modem *mdm, ujson *json);
