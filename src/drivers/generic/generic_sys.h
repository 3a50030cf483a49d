// System actions of the generic driver: identity and capabilities, phone
// functionality, error and call reporting formats, facility locks and
// passwords, time zone updates, SIM slot selection and USSD.
#pragma once

#include "core/modem_driver.h"

int generic_sys_probe(modem_driver *driver);

int get_firmware(modem *mdm, int type, ujson *json, request *req);
int get_imei(modem *mdm, int type, ujson *json, request *req);
int get_id_info(modem *mdm, int type, ujson *json, request *req);
int get_sn(modem *mdm, int type, ujson *json, request *req);
int get_capabilities(modem *mdm, int type, ujson *json, request *req);

int set_func(modem *mdm, int type, ujson *json, request *req);
int get_func(modem *mdm, int type, ujson *json, request *req);
int set_err_msg_fmt(modem *mdm, int type, ujson *json, request *req);
int get_err_msg_fmt(modem *mdm, int type, ujson *json, request *req);
int set_clip_mode(modem *mdm, int type, ujson *json, request *req);
int get_clip_mode(modem *mdm, int type, ujson *json, request *req);
int set_crc_fmt(modem *mdm, int type, ujson *json, request *req);
int get_crc_fmt(modem *mdm, int type, ujson *json, request *req);
int get_mod_status(modem *mdm, int type, ujson *json, request *req);

int set_fac_lock(modem *mdm, int type, ujson *json, request *req);
int get_fac_lock(modem *mdm, int type, ujson *json, request *req);
int set_new_pass(modem *mdm, int type, ujson *json, request *req);
int set_auto_tz_update(modem *mdm, int type, ujson *json, request *req);
int get_auto_tz_update(modem *mdm, int type, ujson *json, request *req);

// The active SIM slot, switched by the board's selector lines with the
// radio off.
int set_io_sim_slot(modem *mdm, int type, ujson *json, request *req);
int get_io_sim_slot(modem *mdm, int type, ujson *json, request *req);
int change_sim_slot(modem *mdm, int type, ujson *json, request *req);

// USSD: the request is acknowledged at once; the network's answer arrives
// later as +CUSD and is raised as service data.
int set_ussd(modem *mdm, int type, ujson *json, request *req);
int urc_cusd(modem *mdm, ujson *json);
