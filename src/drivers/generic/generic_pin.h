// SIM and PIN actions of the generic driver: IMSI, PIN/PUK entry, PIN state
// and its unsolicited report.
#pragma once

#include <string_view>

#include "core/modem_driver.h"

int generic_pin_probe(modem_driver *driver);

int get_imsi(modem *mdm, int type, ujson *json, request *req);
int set_pin_code(modem *mdm, int type, ujson *json, request *req);
int set_puk_code(modem *mdm, int type, ujson *json, request *req);
int get_pin_state(modem *mdm, int type, ujson *json, request *req);
int urc_cpin(modem *mdm, ujson *json);

// The PIN state (pin_state_id) of a +CPIN answer text ("READY", "SIM PIN",
// ...); 0 for a text that is not one.
uint32_t cpin_state(std::string_view text);
