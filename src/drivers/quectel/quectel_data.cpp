#include "drivers/quectel/quectel_data.h"

#include <arpa/inet.h>

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/quectel/quectel_answer.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

using namespace quectel;

namespace
{

// Context ids of the module's stack: the test form gives (1-16).
constexpr int32_t cid_min = 1;
constexpr int32_t cid_max = 16;
// APN: 63 bytes on EC2x-class firmware.
constexpr size_t apn_max = 63;
// User name and password: no limit is documented for EC2x firmware; the
// APN's width bounds them (longer ones the modem refuses itself).
constexpr size_t cred_max = 63;
// The longest IPv6 text form.
constexpr size_t dns_max = INET6_ADDRSTRLEN - 1;

// GNSS error codes that are states rather than failures.
constexpr int cme_session_ongoing = 504;
constexpr int cme_session_inactive = 505;
constexpr int cme_no_fix = 516;

bool to_double(std::string_view text, double *out)
{
    char buf[32];
    if (text.empty() || text.size() >= sizeof(buf))
        return false;
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    char *end;
    double v = std::strtod(buf, &end);
    if (*end != '\0' || !std::isfinite(v))
        return false;
    *out = v;
    return true;
}

// --- NMEA sentence configuration -----------------------------------------------------

// The sentences one satellite system can output, by the bit its
// configuration item gives each.
struct nmea_bit {
    const char *type; // nmea_type text
    uint32_t bit;
};

struct nmea_system {
    const char *item; // the AT+QGPSCFG item
    nmea_bit bits[5];
    size_t n;
    int max; // the item's range is 0..max
};

// Indexed by nmea_sata id (1 GPS .. 4 BeiDou).
constexpr nmea_system nmea_systems[] = {
    {},
    {"gpsnmeatype", {{"GGA", 1}, {"RMC", 2}, {"GSV", 4}, {"GSA", 8}, {"VTG", 16}}, 5, 31},
    {"glonassnmeatype", {{"GSV", 1}, {"GSA", 2}, {"GNS", 4}}, 3, 7},
    {"galileonmeatype", {{"GSV", 1}}, 1, 1},
    {"beidounmeatype", {{"GSA", 1}, {"GSV", 2}}, 2, 3},
};

// The bit of a sentence type on a system; 0 when the system cannot output it.
uint32_t nmea_bit_of(const nmea_system &sys, uint32_t type_id)
{
    for (size_t i = 0; i < sys.n; i++)
        if (nmea_type_enum(sys.bits[i].type) == type_id)
            return sys.bits[i].bit;
    return 0;
}

// What get_nmea's parse needs to know of its build.
struct nmea_query {
    uint32_t satellite;
};

// --- GNSS position --------------------------------------------------------------------

// ddmm.mmmm (or dddmm.mmmm) with its hemisphere letter, into signed degrees.
bool from_nmea_angle(std::string_view text, char positive, char negative, double *out)
{
    if (text.size() < 2)
        return false;
    char hemi = static_cast<char>(std::toupper(static_cast<unsigned char>(text.back())));
    if (hemi != positive && hemi != negative)
        return false;
    double raw;
    if (!to_double(text.substr(0, text.size() - 1), &raw) || raw < 0)
        return false;
    double degrees = std::floor(raw / 100);
    double minutes = raw - degrees * 100;
    if (minutes >= 60)
        return false;
    *out = (degrees + minutes / 60) * (hemi == negative ? -1 : 1);
    return true;
}

bool read_angle(std::string_view f, char positive, char negative, double limit, double *out)
{
    char last = f.empty() ? '\0' : f.back();
    bool ok = (last >= '0' && last <= '9') ? to_double(f, out) : from_nmea_angle(f, positive, negative, out);
    return ok && std::fabs(*out) <= limit;
}

bool two_digits(std::string_view s, size_t at, int *out)
{
    if (s.size() < at + 2 || s[at] < '0' || s[at] > '9' || s[at + 1] < '0' || s[at + 1] > '9')
        return false;
    *out = (s[at] - '0') * 10 + (s[at + 1] - '0');
    return true;
}

// hhmmss[.sss] and ddmmyy into "20yy-mm-ddThh:mm:ssZ"; empty when either is
// unreadable.
std::string iso_time(std::string_view time, std::string_view date)
{
    int hh, mi, ss, dd, mo, yy;
    if (!two_digits(time, 0, &hh) || !two_digits(time, 2, &mi) || !two_digits(time, 4, &ss) ||
        !two_digits(date, 0, &dd) || !two_digits(date, 2, &mo) || !two_digits(date, 4, &yy) || date.size() != 6)
        return {};
    if (hh > 23 || mi > 59 || ss > 60 || dd < 1 || dd > 31 || mo < 1 || mo > 12)
        return {};
    char out[64];
    std::snprintf(out, sizeof(out), "%04d-%02d-%02dT%02d:%02d:%02dZ", 2000 + yy, mo, dd, hh, mi, ss);
    return out;
}

void add_position(ujson *json, const gnss_position &pos, bool running)
{
    void *table = json->open_table("position");
    json->add_bool("running", running);
    reply_enum(json, "fix", pos.status == gnss_position::result::fixed ? static_cast<uint32_t>(pos.fix.value_or(0)) : 1,
               gnss_fix_str);
    if (pos.latitude)
        json->add_double("latitude", *pos.latitude);
    if (pos.longitude)
        json->add_double("longitude", *pos.longitude);
    if (pos.altitude)
        json->add_double("altitude", *pos.altitude);
    if (pos.hdop)
        json->add_double("hdop", *pos.hdop);
    if (pos.course)
        json->add_double("course", *pos.course);
    if (pos.speed)
        json->add_double("speed", *pos.speed);
    if (pos.satellites)
        json->add_int("satellites", *pos.satellites);
    if (!pos.utc.empty())
        json->add_string("utc", pos.utc.c_str());
    json->close_table(table);
}

} // namespace

const char *gnss_fix_str(uint32_t fix)
{
    switch (fix) {
    case 1:
        return "No fix";
    case 2:
        return "2D";
    case 3:
        return "3D";
    default:
        return "Unknown";
    }
}

// +QGPSLOC: <UTC>,<latitude>,<longitude>,<hdop>,<altitude>,<fix>,<cog>,
// <spkm>,<spkn>,<date>,<nsat>. Position, fix and the time are required;
// the others are left out when empty.
gnss_position parse_qgpsloc(std::string_view text)
{
    gnss_position pos;
    if (cme_error(text) == cme_no_fix) {
        pos.status = gnss_position::result::no_fix;
        return pos;
    }
    fields f = tagged_fields(text, "+QGPSLOC");
    if (f.size() < 10)
        return pos;

    double lat, lon;
    int fix;
    if (!read_angle(f[1], 'N', 'S', 90, &lat) || !read_angle(f[2], 'E', 'W', 180, &lon) || !to_number(f[5], fix, 2, 3))
        return pos;
    pos.latitude = lat;
    pos.longitude = lon;
    pos.fix = fix;

    double v;
    if (has_value(f[3]) && to_double(f[3], &v) && v >= 0)
        pos.hdop = v;
    if (has_value(f[4]) && to_double(f[4], &v))
        pos.altitude = v;
    // Course as the modem prints it.
    if (has_value(f[6]) && to_double(f[6], &v) && v >= 0)
        pos.course = v;
    if (has_value(f[7]) && to_double(f[7], &v) && v >= 0)
        pos.speed = v;
    int n;
    if (to_number(field_at(f, 10), n, 0, INT_MAX))
        pos.satellites = n;
    pos.utc = iso_time(f[0], f[9]);
    pos.status = gnss_position::result::fixed;
    return pos;
}

// --- packet data ------------------------------------------------------------------------

// AT+QICSGP=<cid>,<context_type>,"<apn>","<user>","<password>",<auth>.
// The context type is the pdp_type id itself (1 IPv4, 2 IPv6, 3 IPv4v6);
// PPP and non-IP contexts do not exist here.
int set_apn_auth(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);

    act_args args(json);
    int32_t cid = args.number("cid", cid_min, cid_max);
    uint32_t pdp = args.keyword("type", pdp_type_id_enum);
    const char *apn = args.text("apn", apn_max);
    const char *user = args.opt_text("username", cred_max);
    const char *pass = args.opt_text("passw", cred_max);
    uint32_t auth = args.keyword("auth_tp", apn_auth_enum);
    if (!args.ok())
        return args.status();
    if (pdp > 3)
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QICSGP=%d,%u,\"%s\",\"%s\",\"%s\",%u\r", cid, pdp, apn, user, pass, auth - 1);
}

// +QICSGP: <context_type>,"<apn>","<user>","<password>",<auth>. The
// password is not handed out: "passw_set" tells whether there is one. An
// unset context reads type 0 and empty texts: type and texts are left out.
int get_apn_auth(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        int32_t cid = args.number("index", cid_min, cid_max);
        if (!args.ok())
            return args.status();
        if (int st = set_extra(req, cid); st != 0)
            return st;
        return set_commandf(req, "AT+QICSGP=%d\r", cid);
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    fields f = tagged_fields(answer(mdm), "+QICSGP");
    int ctx_type, auth;
    if (f.size() < 5 || !to_number(f[0], ctx_type, 0, 3) || !to_number(f[4], auth, 0, 3))
        return ACT_STATUS_INVALID_RESPONSE;

    if (const int32_t *cid = get_extra<int32_t>(req))
        json->add_int("cid", *cid);
    if (ctx_type > 0)
        reply_enum(json, "type", static_cast<uint32_t>(ctx_type), pdp_type_id_str);
    if (!f[1].empty())
        reply_text(json, "apn", f[1]);
    if (!f[2].empty())
        reply_text(json, "username", f[2]);
    json->add_bool("passw_set", !f[3].empty());
    reply_enum(json, "auth_tp", static_cast<uint32_t>(auth) + 1, apn_auth_str);
    return ACT_STATUS_OK;
}

// Activation may take the network up to 150 s; "timeout" is the caller's
// wait for it, kept by the bus layer.
int set_pdp_ctx_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);

    act_args args(json);
    int32_t cid = args.number("cid", cid_min, cid_max);
    uint32_t state = args.keyword("state", pdp_ctx_state_enum);
    args.opt_number("timeout", 1, 3600, 150);
    if (!args.ok())
        return args.status();
    return set_commandf(req, state == 2 ? "AT+QIACT=%d\r" : "AT+QIDEACT=%d\r", cid);
}

// +QIACT: <cid>,<state>,<context_type>[,"<address>"] per active context;
// none active answers a bare OK.
int get_attached_pdp_ctx_list(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QIACT?\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("list");
    for_each_tagged(answer(mdm), "+QIACT", [json](const fields &f) {
        int cid, state, ctx_type;
        if (f.size() < 2 || !to_number(f[0], cid) || !to_number(f[1], state, 0, 1))
            return;
        void *row = json->open_table(nullptr);
        json->add_int("cid", cid);
        reply_enum(json, "state", static_cast<uint32_t>(state) + 1, pdp_ctx_state_str);
        if (to_number(field_at(f, 2), ctx_type, 1, 3))
            reply_enum(json, "type", static_cast<uint32_t>(ctx_type), pdp_type_id_str);
        if (has_value(field_at(f, 3)))
            reply_text(json, "addr", f[3]);
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

// AT+QIDNSCFG=<cid>,"<pri>"[,"<sec>"]: numeric IPv4 or IPv6 addresses only.
int set_dns_addr(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);

    act_args args(json);
    int32_t cid = args.number("cid", cid_min, cid_max);
    const char *pri = args.text("pri_dns", dns_max);
    const char *sec = args.opt_text("sec_dns", dns_max);
    if (!args.ok())
        return args.status();
    auto is_address = [](const char *text) {
        unsigned char buf[sizeof(struct in6_addr)];
        return inet_pton(AF_INET, text, buf) == 1 || inet_pton(AF_INET6, text, buf) == 1;
    };
    if (!is_address(pri) || (args.has("sec_dns") && !is_address(sec)))
        return ACT_STATUS_INVALID_ARGS;
    if (args.has("sec_dns"))
        return set_commandf(req, "AT+QIDNSCFG=%d,\"%s\",\"%s\"\r", cid, pri, sec);
    return set_commandf(req, "AT+QIDNSCFG=%d,\"%s\"\r", cid, pri);
}

// --- GNSS -------------------------------------------------------------------------------

// AT+QGPS=<mode>[,<fixmaxtime>[,<fixmaxdist>[,<fixcount>[,<fixrate>]]]]:
// the parameters up to the last one given, those before it left empty when
// not given (the modem's defaults). Accuracy sets the largest distance a
// fix may be off: low 1000 m, medium 100 m, high 10 m. A session already
// running (CME 504) is what was asked for.
int gnss_start(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0) {
        if (!answer_ok(mdm) && cme_error(answer(mdm)) != cme_session_ongoing)
            return ACT_STATUS_INVALID_RESPONSE;
        json->add_bool("running", true);
        return ACT_STATUS_OK;
    }

    constexpr int32_t accuracy_m[] = {0, 1000, 100, 10};
    act_args args(json);
    uint32_t mode = args.opt_keyword("mode", gnss_mode_enum);
    int32_t values[4] = {
        args.opt_number("fix_max_time", 1, 255, 0),
        0,
        args.opt_number("fix_count", 0, 1000, 0),
        args.opt_number("fix_interval", 1, 65535, 0),
    };
    uint32_t acc = args.opt_keyword("accuracy", gnss_accuracy_enum);
    if (!args.ok() || mode > 4 || acc > 3)
        return ACT_STATUS_INVALID_ARGS;
    values[1] = accuracy_m[acc];
    const bool given[4] = {args.has("fix_max_time"), acc != 0, args.has("fix_count"), args.has("fix_interval")};

    char command[64];
    int len = std::snprintf(command, sizeof(command), "AT+QGPS=%u", mode ? mode : 1);
    int last = -1;
    for (int i = 0; i < 4; i++)
        if (given[i])
            last = i;
    for (int i = 0; i <= last; i++) {
        if (given[i])
            len += std::snprintf(command + len, sizeof(command) - len, ",%d", values[i]);
        else
            len += std::snprintf(command + len, sizeof(command) - len, ",");
    }
    std::snprintf(command + len, sizeof(command) - len, "\r");
    return set_command(req, command);
}

// A session that was not running (CME 505) is stopped as asked.
int gnss_stop(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QGPSEND\r");
    if (!answer_ok(mdm) && cme_error(answer(mdm)) != cme_session_inactive)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("running", false);
    return ACT_STATUS_OK;
}

int set_nmea_outport(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t port = args.keyword("port", nmea_output_port_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+QGPSCFG=\"outport\",\"%s\"\r", nmea_output_port_str(port));
}

// The sentence types go out as the system's bit mask; a type the system
// cannot output is refused. An empty list switches its output off.
int set_nmea(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t sat = args.keyword("satellite", nmea_sata_arg_enum);
    std::vector<std::string_view> types = args.texts("types", 16, 8);
    if (!args.ok() || sat >= std::size(nmea_systems))
        return ACT_STATUS_INVALID_ARGS;
    const nmea_system &sys = nmea_systems[sat];
    uint32_t mask = 0;
    for (std::string_view t : types) {
        uint32_t bit = nmea_bit_of(sys, nmea_type_enum(t));
        if (!bit)
            return ACT_STATUS_INVALID_ARGS;
        mask |= bit;
    }
    return set_commandf(req, "AT+QGPSCFG=\"%s\",%u\r", sys.item, mask);
}

// Two parts: the system's sentence mask, then the position (AT+QGPSLOC=2).
// The status is the mask's; the position is added when the engine answered
// with one, with "no fix yet" or with "not running", and left out when the
// modem has no GNSS to ask.
int get_nmea(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t sat = args.keyword("satellite", nmea_sata_arg_enum);
        if (!args.ok() || sat >= std::size(nmea_systems))
            return ACT_STATUS_INVALID_ARGS;
        if (int st = set_extra(req, nmea_query{sat}); st != 0)
            return st;
        return set_commandf(req, "AT+QGPSCFG=\"%s\"\rAT+QGPSLOC=2\r", nmea_systems[sat].item);
    }

    const nmea_query *q = get_extra<nmea_query>(req);
    if (!q || q->satellite == 0 || q->satellite >= std::size(nmea_systems))
        return ACT_STATUS_INVALID_RESPONSE;
    const nmea_system &sys = nmea_systems[q->satellite];

    std::string_view cfg, loc;
    split_parts(answer(mdm), &cfg, &loc);
    if (!cfg.ends_with("\r\nOK\r\n") && cfg != "OK\r\n" && !cfg.ends_with("\n0\r"))
        return ACT_STATUS_INVALID_RESPONSE;
    int mask;
    if (!to_number(field_at(item_values(cfg, "+QGPSCFG", sys.item), 0), mask, 0, sys.max))
        return ACT_STATUS_INVALID_RESPONSE;

    void *arr = json->open_array("types");
    for (size_t i = 0; i < sys.n; i++)
        if (static_cast<uint32_t>(mask) & sys.bits[i].bit)
            json->add_string(nullptr, sys.bits[i].type);
    json->close_array(arr);

    gnss_position pos = parse_qgpsloc(loc);
    if (pos.status != gnss_position::result::invalid)
        add_position(json, pos, true);
    else if (cme_error(loc) == cme_session_inactive)
        add_position(json, pos, false);
    return ACT_STATUS_OK;
}

int set_dpo_mode(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+QGPSCFG=\"dpoenable\",%u\r", "mode", dpo_mode_enum);
}

int get_dpo_mode(modem *mdm, int type, ujson *json, request *req)
{
    return query_enum(mdm, type, json, req, "AT+QGPSCFG=\"dpoenable\"\r", "\r\n+QGPSCFG: \"dpoenable\",%d", "mode",
                      dpo_mode_str);
}

void quectel_data_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_SET_APN_AUTH, set_apn_auth);
    modem_driver_override(driver, ACT_GET_APN_AUTH, get_apn_auth);
    modem_driver_override(driver, ACT_SET_PDP_CTX_STATE, set_pdp_ctx_state);
    modem_driver_override(driver, ACT_GET_ATTACHED_PDP_CTX_LIST, get_attached_pdp_ctx_list);
    modem_driver_override(driver, ACT_SET_DNS_ADDR, set_dns_addr);
    modem_driver_override(driver, ACT_GNSS_START, gnss_start);
    modem_driver_override(driver, ACT_GNSS_STOP, gnss_stop);
    modem_driver_override(driver, ACT_SET_NMEA_OUTPORT, set_nmea_outport);
    modem_driver_override(driver, ACT_SET_NMEA, set_nmea);
    modem_driver_override(driver, ACT_GET_NMEA, get_nmea);
    modem_driver_override(driver, ACT_SET_DPO_MODE, set_dpo_mode);
    modem_driver_override(driver, ACT_GET_DPO_MODE, get_dpo_mode);
}
