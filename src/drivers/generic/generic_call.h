// Voice calls of the generic driver: dialling, answering, hanging up, the
// current call list, and the ring, caller id and call end reports.
#pragma once

#include "core/modem_driver.h"

int generic_call_probe(modem_driver *driver);

int send_voice_call(modem *mdm, int type, ujson *json, request *req);
int accept_voice_call(modem *mdm, int type, ujson *json, request *req);
int reject_voice_call(modem *mdm, int type, ujson *json, request *req);
int get_incoming_voice_calls(modem *mdm, int type, ujson *json, request *req);

int urc_clip(modem *mdm, ujson *json);
int urc_cring(modem *mdm, ujson *json);
int urc_ring(modem *mdm, ujson *json);
int urc_no_carrier(modem *mdm, ujson *json);
