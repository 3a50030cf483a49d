// Quectel system actions: identity, SIM counters and slots, URC routing,
// USB and IMS configuration, temperature and carrier profiles (MBN).
//
// The functions live in namespace quectel because several share their name
// with the generic driver's (get_firmware, get_sn).
#pragma once

#include "core/modem_driver.h"

// Installs the EC2x-family implementations below on driver and withdraws
// the actions Quectel firmware has no command for.
int quectel_sys_probe(modem_driver *driver);

namespace quectel
{

// AT+QGMR: "firmware" (cached as "firmware"); 5 while the application
// part still reads "00.000" right after boot.
int get_firmware(modem *mdm, int type, ujson *json, request *req);
// AT+EGMR=0,5: "serial" (cached as "serial_num").
int get_sn(modem *mdm, int type, ujson *json, request *req);
// AT+QCCID: "iccid" without its filler F (cached as "iccid").
int get_iccid(modem *mdm, int type, ujson *json, request *req);
// AT+QPINC?: "pin_count", "puk_count", "pin2_count", "puk2_count".
int get_pin_count(modem *mdm, int type, ujson *json, request *req);

// AT+QURCCFG="urcport": the port URCs are printed on ("port").
int set_urc_cfg(modem *mdm, int type, ujson *json, request *req);
int get_urc_cfg(modem *mdm, int type, ujson *json, request *req);
// AT+QINDCFG: one +QIND indication on or off ("urc", "enabled").
int set_urc_ind_cfg(modem *mdm, int type, ujson *json, request *req);
int get_urc_ind_cfg(modem *mdm, int type, ujson *json, request *req);

// AT+QCFG="dhcppktfltr" ("disabled").
int set_dhcp_pkt_fltr(modem *mdm, int type, ujson *json, request *req);
int get_dhcp_pkt_fltr(modem *mdm, int type, ujson *json, request *req);
// AT+QCFG="usbnet" ("mode"), applied after a restart.
int set_usbnet_cfg(modem *mdm, int type, ujson *json, request *req);
int get_usbnet_cfg(modem *mdm, int type, ujson *json, request *req);
// AT+QCFG="nat" read as the modem prints it ("mode_raw"); nr family only.
int get_nat_cfg_nr(modem *mdm, int type, ujson *json, request *req);

// AT+QCFG="ims": IMS ("state", "apply" restarts the modem) and VoLTE.
int set_ims_state(modem *mdm, int type, ujson *json, request *req);
int get_ims_state(modem *mdm, int type, ujson *json, request *req);
int set_volte_state(modem *mdm, int type, ujson *json, request *req);
int get_volte_state(modem *mdm, int type, ujson *json, request *req);
// AT+CIREG?: registered with IMS for voice ("ready").
int get_volte_ready(modem *mdm, int type, ujson *json, request *req);

// AT+QSIMDET: SIM hot-plug detection ("enabled", "insert_level").
int get_qsimdet(modem *mdm, int type, ujson *json, request *req);
int set_qsimdet(modem *mdm, int type, ujson *json, request *req);
// AT+QCFG="sim/recovery" ("recovery_count", "detect_period", "detect_count").
int set_sim_soft_hotplug(modem *mdm, int type, ujson *json, request *req);
int get_sim_soft_hotplug(modem *mdm, int type, ujson *json, request *req);

// The active SIM slot ("index"): by the board's selector lines when it has
// them, else by the modem's own dual-SIM interface (AT+QDSIM).
int quectel_set_sim_slot(modem *mdm, int type, ujson *json, request *req);
int quectel_get_sim_slot(modem *mdm, int type, ujson *json, request *req);
// nr family: the modem's own slots through AT+QUIMSLOT.
int quectel_set_sim_slot_nr(modem *mdm, int type, ujson *json, request *req);
int quectel_get_sim_slot_nr(modem *mdm, int type, ujson *json, request *req);

// AT+QTEMP: "sensors" (name -> degrees Celsius) and the headline
// "temperature". Reads both the EC2x one-line and the RM5xx per-sensor
// layouts.
int get_temperature(modem *mdm, int type, ujson *json, request *req);

// AT+QPRTPARA?: the NV backup state, as the modem prints it ("response").
int get_flash_state(modem *mdm, int type, ujson *json, request *req);

// Carrier profiles, AT+QMBNCFG (quectel_mbn.cpp).
int get_mbn_list(modem *mdm, int type, ujson *json, request *req);
int mbn_deactivate(modem *mdm, int type, ujson *json, request *req);
int set_mbn_select(modem *mdm, int type, ujson *json, request *req);
int set_mbn_auto_sel(modem *mdm, int type, ujson *json, request *req);
int get_mbn_auto_sel(modem *mdm, int type, ujson *json, request *req);

} // namespace quectel
