// Quectel packet data through the module's own stack (AT+QICSGP, AT+QIACT,
// AT+QIDNSCFG) and the GNSS engine (AT+QGPS, AT+QGPSCFG, AT+QGPSLOC).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/modem_driver.h"

// Installs the actions below on driver.
void quectel_data_probe(modem_driver *driver);

int set_apn_auth(modem *mdm, int type, ujson *json, request *req);
int get_apn_auth(modem *mdm, int type, ujson *json, request *req);
int set_pdp_ctx_state(modem *mdm, int type, ujson *json, request *req);
int get_attached_pdp_ctx_list(modem *mdm, int type, ujson *json, request *req);
int set_dns_addr(modem *mdm, int type, ujson *json, request *req);

int gnss_start(modem *mdm, int type, ujson *json, request *req);
int gnss_stop(modem *mdm, int type, ujson *json, request *req);
int set_nmea_outport(modem *mdm, int type, ujson *json, request *req);
int set_nmea(modem *mdm, int type, ujson *json, request *req);
// The NMEA sentences of one satellite system, and the current position
// under "position" (read in the same request).
int get_nmea(modem *mdm, int type, ujson *json, request *req);
int set_dpo_mode(modem *mdm, int type, ujson *json, request *req);
int get_dpo_mode(modem *mdm, int type, ujson *json, request *req);

// Fix kinds, numbered as NMEA numbers them (GSA): 1 none, 2 2D, 3 3D.
const char *gnss_fix_str(uint32_t fix);

// A position as AT+QGPSLOC reports it. Fields the modem left empty (or
// printed as "-") stay unset.
struct gnss_position {
    enum class result { fixed, no_fix, invalid };
    result status = result::invalid;
    std::optional<double> latitude;  // degrees, north positive
    std::optional<double> longitude; // degrees, east positive
    std::optional<double> altitude;  // metres
    std::optional<double> hdop;
    std::optional<int> fix; // 2 or 3
    std::optional<double> course;
    std::optional<double> speed; // km/h
    std::optional<int> satellites;
    std::string utc; // "YYYY-MM-DDThh:mm:ssZ", empty without time and date
};

// Reads an AT+QGPSLOC answer: the signed-degree form (mode 2) and the
// ddmm.mmmm[N|S] form (modes 0 and 1). +CME ERROR: 516 is "no fix yet";
// anything else unreadable is invalid.
gnss_position parse_qgpsloc(std::string_view text);
