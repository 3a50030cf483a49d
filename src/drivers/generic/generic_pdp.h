// Packet data of the generic driver: PDP context definitions, addresses,
// activation states, DNS servers and the packet domain attach state.
#pragma once

#include "core/modem_driver.h"

// Installs the packet data actions on driver.
void generic_pdp_install(modem_driver *driver);

int set_pdp_ctx(modem *mdm, int type, ujson *json, request *req);
int get_pdp_ctx(modem *mdm, int type, ujson *json, request *req);
int get_pdp_addr(modem *mdm, int type, ujson *json, request *req);
int get_pdp_addr_list(modem *mdm, int type, ujson *json, request *req);
int set_ps_att_state(modem *mdm, int type, ujson *json, request *req);
int get_ps_att_state(modem *mdm, int type, ujson *json, request *req);
int get_act_pdp_ctx_list(modem *mdm, int type, ujson *json, request *req);
int get_dns_addr(modem *mdm, int type, ujson *json, request *req);
