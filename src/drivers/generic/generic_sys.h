// System actions of the generic driver: firmware, IMEI, identity, serial.
#pragma once

#include "core/modem_driver.h"

int generic_sys_probe(modem_driver *driver);

int get_firmware(modem *mdm, int type, ujson *json, request *req);
int get_imei(modem *mdm, int type, ujson *json, request *req);
int get_id_info(modem *mdm, int type, ujson *json, request *req);
int get_sn(modem *mdm, int type, ujson *json, request *req);
