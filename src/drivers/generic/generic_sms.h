// SMS of the generic driver: message format, storage, new-message
// indication, sending (metered by the sending limit), reading, deleting, and
// the new-message report.
#pragma once

#include "core/modem_driver.h"

int generic_sms_probe(modem_driver *driver);

int set_sms_mode(modem *mdm, int type, ujson *json, request *req);
int get_sms_mode(modem *mdm, int type, ujson *json, request *req);
int set_msg_storage(modem *mdm, int type, ujson *json, request *req);
int get_msg_storage(modem *mdm, int type, ujson *json, request *req);
int get_full_msg_storage(modem *mdm, int type, ujson *json, request *req);
int set_sms_evt_rep_cfg(modem *mdm, int type, ujson *json, request *req);
int get_sms_evt_rep_cfg(modem *mdm, int type, ujson *json, request *req);
int send_sms(modem *mdm, int type, ujson *json, request *req);
int read_sms(modem *mdm, int type, ujson *json, request *req);
int delete_sms(modem *mdm, int type, ujson *json, request *req);
int delete_pdus(modem *mdm, int type, ujson *json, request *req);

int urc_cmti(modem *mdm, ujson *json);
