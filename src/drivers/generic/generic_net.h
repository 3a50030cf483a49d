// Network registration (+CREG, +CGREG, +CEREG, +C5GREG), operator selection
// (+COPS) and the operator scan (+COPS=?) of the generic driver. The readers
// take an access-technology map so vendor drivers can reuse them with their
// own <AcT> numbering.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/modem_driver.h"

class cache_manager;

// <AcT> of a registration or +COPS answer -> access technology id
// (net_reg_act_str).
using act_map_fn = uint32_t (*)(int32_t act);

// 0..8 -> 1..9, 9 (E-UTRAN NB-S1) -> 0, 10..13 -> themselves, else 0.
uint32_t generic_get_act(int32_t act);

// Registration report types, also the index of their command texts.
enum net_reg_type : int {
    NET_REG_CS = 0,   // +CREG
    NET_REG_GPRS = 1, // +CGREG
    NET_REG_EPS = 2,  // +CEREG
    NET_REG_5GS = 3,  // +C5GREG
};

// What one registration answer or URC says.
struct net_reg_report {
    uint32_t mode_id = 0; // net_reg_mode: <n> + 1, 0 when <n> is absent (URC form)
    uint32_t status = 4;  // <stat> 0..8, 4 for anything else or an unusable SIM
    uint32_t area = 0;    // LAC (CS, GPRS) or TAC (EPS, 5GS)
    uint64_t cell = 0;
    uint32_t act_id = 0; // through the access-technology map
    bool has_area = false;
    bool has_cell = false;
    bool has_act = false;
};

// Reads the last line of text that starts with the type's report prefix.
// Location fields are read only from a read answer with <n> 2, or from a URC
// that carries them, and only while the status is neither 0 nor 4. Without a
// usable SIM the status is 4. False when not even <stat> could be read.
bool net_reg_parse(std::string_view text, int regtype, bool sim_usable, act_map_fn act_map, net_reg_report *out);

// The answer of a single registration read into the reply: "mode_id"/"mode",
// "max_mode_id"/"max_mode", "status_id"/"status", and "reg_lac" or "reg_tac",
// "reg_ci", "act_id"/"act" when read; "response" when <n> or the technology
// is unknown. 5 when unreadable.
int get_net_reg_stat_parse(modem *mdm, ujson *json, int regtype, uint32_t max_mode, act_map_fn act_map);

// The read of one report type. Parse phase 1 requires a final OK; phase 2
// does not, so a URC text can be read the same way.
int get_net_reg_stat_common(modem *mdm, int type, ujson *json, request *req, int regtype, uint32_t max_mode,
                            act_map_fn act_map);
// Sets a report type's <n> from the argument "mode" (net_reg_mode_arg_enum).
int set_net_reg_stat_common(modem *mdm, int type, ujson *json, request *req, int regtype);

// All four reports in one request. The reply has one table per report the
// modem answered ("c5greg", "cereg", "cgreg", "creg") and the registration
// that counts (5GS over EPS over GPRS over CS, registered over not):
// "status_id", "reg_stat_str", "act_id", "reg_act", "reg_act_str", "reg_tac"
// or "reg_lac", "reg_ci". The same goes to the cache, and the service mode
// event follows from it. 5 when no report could be read.
int generic_get_net_reg_stat_all(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map);

// Caches the area code as "reg_tac" when the TAC is valid (neither 0 nor all
// ones), else as "reg_lac" when the LAC is, and drops the other key (both
// when neither is valid).
void generic_fill_reg_lac_reg_tac(cache_manager *cache, uint32_t lac, uint32_t tac);

// +COPS=? with the data interfaces taken down around it unless the argument
// "block_ifup" is true. Reply "operators": "oper_name", "short_name",
// "oper_num", "state_id"/"state", "act_id".
int generic_scan_op(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map);
// Keeps a scan reply under "operator_scan" and its time under "last_scan".
void generic_cache_operator_scan(modem *mdm, const ujson *scan);

int set_net_reg_stat(modem *mdm, int type, ujson *json, request *req);
int get_net_reg_stat(modem *mdm, int type, ujson *json, request *req);
int set_net_greg_stat(modem *mdm, int type, ujson *json, request *req);
int get_net_greg_stat(modem *mdm, int type, ujson *json, request *req);
int set_net_ereg_stat(modem *mdm, int type, ujson *json, request *req);
int get_net_ereg_stat(modem *mdm, int type, ujson *json, request *req);
int set_net_5greg_stat(modem *mdm, int type, ujson *json, request *req);
int get_net_5greg_stat(modem *mdm, int type, ujson *json, request *req);
int get_net_reg_stat_all(modem *mdm, int type, ujson *json, request *req);
int scan_op(modem *mdm, int type, ujson *json, request *req);
int get_op_slc(modem *mdm, int type, ujson *json, request *req);
int set_op_slc(modem *mdm, int type, ujson *json, request *req);

// The operator selection read with a vendor's access-technology map.
int get_op_slc_common(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map);
// A registration URC of one type, read with act_map and raised as event.
int urc_net_reg(modem *mdm, ujson *json, int regtype, uint32_t event, act_map_fn act_map);

int urc_creg(modem *mdm, ujson *json);
int urc_cgreg(modem *mdm, ujson *json);
int urc_cereg(modem *mdm, ujson *json);
int urc_c5greg(modem *mdm, ujson *json);

// Installs the actions and URC handlers above on a driver.
void generic_net_install(modem_driver *driver);
