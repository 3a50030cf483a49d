#include "drivers/generic/generic_net.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "comm/request.h"
#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "ubus/vocab.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

// The generic driver reports up to <n> 2 (with location).
constexpr uint32_t generic_max_mode = 3;

struct reg_texts {
    const char *query;
    const char *set;     // one %u: the AT value of <n>
    const char *prefix;  // the information line
    const char *head;    // <n>,<stat> of a read answer, or <stat> of a URC
    const char *located; // area, cell and technology of a read answer
    const char *urc_loc; // the same in a URC, which has no <n>
    const char *table;   // reply table of the all-read
};

constexpr reg_texts reg_text[4] = {
    {"AT+CREG?\r", "AT+CREG=%u\r", "+CREG: ", "\r\n+CREG: %d,%d", "\r\n+CREG: %*d,%*d,\"%X\",\"%llx\",%d",
     "\r\n+CREG: %*d,\"%X\",\"%llx\",%d", "creg"},
    {"AT+CGREG?\r", "AT+CGREG=%u\r", "+CGREG: ", "\r\n+CGREG: %d,%d", "\r\n+CGREG: %*d,%*d,\"%X\",\"%llx\",%d",
     "\r\n+CGREG: %*d,\"%X\",\"%llx\",%d", "cgreg"},
    {"AT+CEREG?\r", "AT+CEREG=%u\r", "+CEREG: ", "\r\n+CEREG: %d,%d", "\r\n+CEREG: %*d,%*d,\"%X\",\"%llx\",%d",
     "\r\n+CEREG: %*d,\"%X\",\"%llx\",%d", "cereg"},
    {"AT+C5GREG?\r", "AT+C5GREG=%u\r", "+C5GREG: ", "\r\n+C5GREG: %d,%d", "\r\n+C5GREG: %*d,%*d,\"%X\",\"%llx\",%d",
     "\r\n+C5GREG: %*d,\"%X\",\"%llx\",%d", "c5greg"},
};

constexpr const char reg_all_query[] = "AT+C5GREG?\rAT+CEREG?\rAT+CGREG?\rAT+CREG?\r";

bool valid_type(int regtype)
{
    return regtype >= NET_REG_CS && regtype <= NET_REG_5GS;
}

// The last line opening with prefix: a URC of the same name may precede the
// solicited line inside one answer.
std::string_view report_line(std::string_view text, std::string_view prefix)
{
    std::string_view found;
    for (std::string_view at = from_line(text, prefix); !at.empty(); at = from_line(text, prefix)) {
        found = at;
        text = at.substr(at.starts_with("\r\n") ? 3 : 1);
    }
    return found;
}

// The line alone, for the raw "response" of one report.
std::string_view line_only(std::string_view line)
{
    size_t end = line.find("\r\n", 2);
    return end == std::string_view::npos ? line : line.substr(0, end + 2);
}

// The cached PIN state says a SIM is there and usable.
bool sim_usable(const modem *mdm)
{
    int32_t pin = cached_int(mdm, "pin_state", 0);
    return pin > 0 && sim_state_enum(static_cast<uint32_t>(pin)) == SIM_STATE_PRESENT;
}

std::string decimal(uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(value));
    return text;
}

bool valid_area(uint32_t area)
{
    return area != 0 && area != UINT32_MAX;
}

void reply_report(ujson *json, int regtype, uint32_t max_mode, const net_reg_report &r, std::string_view raw)
{
    reply_enum(json, "mode", r.mode_id, net_reg_mode_str);
    reply_enum(json, "max_mode", max_mode, net_reg_mode_str);
    reply_enum(json, "status", r.status, net_reg_stat_str);
    bool raw_added = r.mode_id == 0;
    if (raw_added)
        reply_text(json, "response", raw);
    if (r.has_area)
        reply_text(json, regtype < NET_REG_EPS ? "reg_lac" : "reg_tac", decimal(r.area));
    if (r.has_cell)
        reply_text(json, "reg_ci", decimal(r.cell));
    if (r.has_act) {
        reply_enum(json, "act", r.act_id, net_reg_act_str);
        if (r.act_id == 0 && !raw_added)
            reply_text(json, "response", raw);
    }
}

// Which registration counts when several reports disagree: the one with the
// better service, then the newer network generation.
int status_rank(uint32_t status)
{
    switch (status) {
    case 1:
    case 5:
        return 5; // registered
    case 6:
    case 7:
        return 4; // SMS only
    case 8:
        return 3; // emergency services only
    case 2:
        return 2; // searching
    case 3:
        return 1; // denied
    case 0:
        return 0;
    default:
        return -1; // unknown
    }
}

int report_rank(int regtype, uint32_t status)
{
    return status_rank(status) * 4 + regtype;
}

bool has_service(uint32_t status)
{
    return status == 1 || status == 5 || status == 6 || status == 7;
}

// The network mode a registration gives. Without normal service (not
// registered, searching, denied, unknown, emergency calls only) it is "No
// service". Otherwise the technology decides: the GSM ids give GSM (EDGE for
// EGPRS), every UTRAN id WCDMA, E-UTRAN (also on the 5G core) LTE, and NR
// (EN-DC included) 5G, the NR mode for which the service mode handler keeps
// the RSRP, SINR and RSRQ values. Without a technology an EPS or 5GS
// registration still tells LTE or 5G; a CS or GPRS one tells nothing (0: no
// event).
uint32_t service_mode(int regtype, const net_reg_report &r)
{
    if (!has_service(r.status))
        return NET_MODE_NO_SERVICE;
    switch (r.has_act ? r.act_id : 0) {
    case 1:
    case 2:
    case 9:
        return NET_MODE_GSM;
    case 4:
        return NET_MODE_EDGE;
    case 3:
    case 5:
    case 6:
    case 7:
        return NET_MODE_WCDMA;
    case 8:
    case 10:
        return NET_MODE_LTE;
    case 11:
    case 12:
    case 13:
        return NET_MODE_5G;
    default:
        break;
    }
    if (regtype == NET_REG_EPS)
        return NET_MODE_LTE;
    if (regtype == NET_REG_5GS)
        return NET_MODE_5G;
    return NET_MODE_UNKNOWN;
}

// The registration keys other modules read, from the report that counts,
// and the service mode that follows. "reg_type" names the report they came
// from, so a later URC knows whether it replaces them.
void cache_registration(modem *mdm, int regtype, const net_reg_report &r)
{
    cache_int(mdm, "reg_stat", static_cast<int32_t>(r.status));
    cache_text(mdm, "reg_stat_str", net_reg_stat_str(r.status));
    if (r.has_act) {
        cache_int(mdm, "reg_act", static_cast<int32_t>(r.act_id));
        cache_text(mdm, "reg_act_str", net_reg_act_str(r.act_id));
    } else {
        cache_drop(mdm, "reg_act");
        cache_drop(mdm, "reg_act_str");
    }
    uint32_t area = r.has_area ? r.area : 0;
    generic_fill_reg_lac_reg_tac(mdm->cache(), regtype < NET_REG_EPS ? area : 0, regtype < NET_REG_EPS ? 0 : area);
    if (r.has_cell)
        cache_text(mdm, "reg_ci", decimal(r.cell));
    else
        cache_drop(mdm, "reg_ci");
    cache_int(mdm, "reg_type", regtype);

    if (int32_t mode = static_cast<int32_t>(service_mode(regtype, r)))
        mdm->new_event(EVT_SERVICE_MODE, &mode);
}

// A URC changes one report. It replaces the cached registration when it ranks
// at least as high and says all the keys need (location with service);
// when the report that counted got worse, or a better one came without its
// location, the four reports are read again.
void note_report(modem *mdm, int regtype, const net_reg_report &r)
{
    int32_t cur_type = cached_int(mdm, "reg_type", -1);
    int cur_rank =
        valid_type(cur_type) ? report_rank(cur_type, static_cast<uint32_t>(cached_int(mdm, "reg_stat", 4))) : INT_MIN;
    int rank = report_rank(regtype, r.status);
    bool complete = r.has_area || status_rank(r.status) < 3;
    if (rank >= cur_rank && complete)
        cache_registration(mdm, regtype, r);
    else if (regtype == cur_type || rank > cur_rank)
        update_registration(mdm);
}

// The answer of one read into the reply; the report for the caller.
int net_reg_answer(modem *mdm, ujson *json, int regtype, uint32_t max_mode, act_map_fn act_map, net_reg_report *out)
{
    std::string_view text = answer(mdm);
    if (!net_reg_parse(text, regtype, sim_usable(mdm), act_map, out))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_report(json, regtype, max_mode, *out, text);
    return ACT_STATUS_OK;
}

} // namespace

int urc_net_reg(modem *mdm, ujson *json, int regtype, uint32_t event, act_map_fn act_map)
{
    net_reg_report r;
    if (net_reg_answer(mdm, json, regtype, generic_max_mode, act_map, &r) != ACT_STATUS_OK)
        return ACT_STATUS_INVALID_URC;
    LOG_DEBUG("Modem `%s [%s]` URC Event: NET State: %s (%d)\n", mdm->id(), mdm->vid_pid(), net_reg_stat_str(r.status),
              static_cast<int>(r.status));
    int32_t status = static_cast<int32_t>(r.status);
    mdm->new_event(event, &status);
    note_report(mdm, regtype, r);
    return ACT_STATUS_OK;
}

namespace
{

// --- operators ------------------------------------------------------------------------

// Build-phase facts the parse phase needs.
struct scan_state {
    bool iface_down;
};

enum slc_form : int {
    SLC_MODE,        // AT+COPS=<mode>
    SLC_MODE_FORMAT, // AT+COPS=<mode>,<format>
    SLC_OPERATOR,    // AT+COPS=<mode>,2,"<oper>"
    SLC_FORMAT,      // AT+COPS=3,<format>
};

struct slc_state {
    slc_form form;
    int32_t format_id; // 0 when none was given
};

// Longest operator text accepted: a numeric code has 5 or 6 digits, and the
// read answer keeps names up to this length.
constexpr size_t operator_max = 32;

// <mode> 0..4, <format> 0..2, <stat> 0..3 of +COPS as vocabulary ids.
uint32_t cops_id(int value, int highest)
{
    return value >= 0 && value <= highest ? static_cast<uint32_t>(value) + 1 : 0;
}

int scan_build(modem *mdm, ujson *json, request *req)
{
    if (!req)
        return ACT_STATUS_INVALID_ARGS;
    act_args args(json);
    scan_state state{false};
    if (!args.flag("block_ifup")) {
        // An interface that could not be found is no reason to give up;
        // a failed call is: what went down comes back up.
        if ((mdm->interface_action(2) & ~2) != 0) {
            mdm->interface_action(1);
            return 1;
        }
        state.iface_down = true;
    }
    int status = set_command(req, "AT+COPS=?\r");
    if (status == ACT_STATUS_OK)
        status = set_extra(req, state);
    if (status != ACT_STATUS_OK && state.iface_down)
        mdm->interface_action(1);
    return status;
}

// +COPS: (2,"Telekom.de","TDG","26201",7),(1,...),,(0,1,2,3,4),(0,1,2)
int scan_parse(modem *mdm, ujson *json, act_map_fn act_map)
{
    std::string_view text = answer(mdm);
    if (!answer_ok(mdm) || from_line(text, "+COPS: ").empty())
        return ACT_STATUS_INVALID_RESPONSE;
    void *list = json->open_array("operators");
    for (size_t at = text.find('('); at != std::string_view::npos;) {
        size_t next = text.find('(', at + 1);
        std::string_view piece = text.substr(at + 1, next == std::string_view::npos ? next : next - at - 1);
        at = next;
        // The trailing lists of supported modes and formats are short.
        if (piece.size() < 16)
            continue;
        int stat = -1, act = -1;
        char name[128], short_name[64], number[16];
        if (scan(piece, "%d,\"%127[^\"]\",\"%63[^\"]\",\"%15[^\"]\",%d", &stat, name, short_name, number, &act) < 4)
            continue;
        void *op = json->open_table(nullptr);
        json->add_string("oper_name", name);
        json->add_string("short_name", short_name);
        json->add_int("oper_num", static_cast<int32_t>(std::strtol(number, nullptr, 10)));
        reply_enum(json, "state", cops_id(stat, 3), op_slc_stat_str);
        json->add_int("act_id", static_cast<int32_t>(act_map(act)));
        json->close_table(op);
    }
    json->close_array(list);
    return ACT_STATUS_OK;
}

} // namespace

// --- registration ----------------------------------------------------------------------

uint32_t generic_get_act(int32_t act)
{
    if (act >= 0 && act <= 8)
        return static_cast<uint32_t>(act) + 1;
    if (act >= 10 && act <= 13)
        return static_cast<uint32_t>(act);
    return 0;
}

bool net_reg_parse(std::string_view text, int regtype, bool sim_usable, act_map_fn act_map, net_reg_report *out)
{
    if (!valid_type(regtype) || !out)
        return false;
    const reg_texts &t = reg_text[regtype];
    std::string_view line = report_line(text, t.prefix);
    int n = -1, stat = -1;
    int read = line.empty() ? 0 : scan(line, t.head, &n, &stat);
    if (read == 0)
        return false;
    // A URC carries no <n>: its first value is the status.
    bool urc_form = read == 1;
    if (urc_form) {
        stat = n;
        n = -1;
    }
    net_reg_report r;
    r.mode_id = n >= 0 && n <= 2 ? static_cast<uint32_t>(n) + 1 : 0;
    r.status = sim_usable && stat >= 0 && stat <= 8 ? static_cast<uint32_t>(stat) : 4;
    if ((urc_form || r.mode_id == 3) && r.status != 0 && r.status != 4) {
        unsigned int area = 0;
        unsigned long long cell = 0;
        int act = -1;
        int fields = scan(line, urc_form ? t.urc_loc : t.located, &area, &cell, &act);
        r.has_area = fields >= 1;
        r.has_cell = fields >= 2;
        r.has_act = fields >= 3;
        r.area = area;
        r.cell = cell;
        r.act_id = r.has_act && act_map ? act_map(act) : 0;
    }
    *out = r;
    return true;
}

int get_net_reg_stat_parse(modem *mdm, ujson *json, int regtype, uint32_t max_mode, act_map_fn act_map)
{
    net_reg_report r;
    return net_reg_answer(mdm, json, regtype, max_mode, act_map, &r);
}

int get_net_reg_stat_common(modem *mdm, int type, ujson *json, request *req, int regtype, uint32_t max_mode,
                            act_map_fn act_map)
{
    if (!valid_type(regtype))
        return ACT_STATUS_INVALID_ARGS;
    if (type == 0)
        return set_command(req, reg_text[regtype].query);
    if (type == 1 && !answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    return get_net_reg_stat_parse(mdm, json, regtype, max_mode, act_map);
}

int set_net_reg_stat_common(modem *mdm, int type, ujson *json, request *req, int regtype)
{
    if (!valid_type(regtype))
        return ACT_STATUS_INVALID_ARGS;
    return set_keyword(mdm, type, json, req, reg_text[regtype].set, "mode", net_reg_mode_arg_enum);
}

int generic_get_net_reg_stat_all(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map)
{
    if (type == 0)
        return set_command(req, reg_all_query);
    // The four answers arrive one after the other in one text; a report the
    // modem does not know (an LTE-only modem and +C5GREG) is an error there
    // and simply has no line.
    std::string_view text = answer(mdm);
    bool usable = sim_usable(mdm);
    net_reg_report reports[4];
    bool read[4] = {};
    int best = -1;
    for (int t = NET_REG_5GS; t >= NET_REG_CS; t--) {
        read[t] = net_reg_parse(text, t, usable, act_map, &reports[t]);
        if (read[t] && (best < 0 || report_rank(t, reports[t].status) > report_rank(best, reports[best].status)))
            best = t;
    }
    if (best < 0)
        return ACT_STATUS_INVALID_RESPONSE;

    for (int t = NET_REG_5GS; t >= NET_REG_CS; t--) {
        if (!read[t])
            continue;
        void *table = json->open_table(reg_text[t].table);
        reply_report(json, t, generic_max_mode, reports[t], line_only(report_line(text, reg_text[t].prefix)));
        json->close_table(table);
    }

    const net_reg_report &r = reports[best];
    json->add_int("status_id", static_cast<int32_t>(r.status));
    json->add_string("reg_stat_str", net_reg_stat_str(r.status));
    if (r.has_act) {
        json->add_int("act_id", static_cast<int32_t>(r.act_id));
        json->add_int("reg_act", static_cast<int32_t>(r.act_id));
        json->add_string("reg_act_str", net_reg_act_str(r.act_id));
    }
    if (r.has_area && valid_area(r.area))
        reply_text(json, best < NET_REG_EPS ? "reg_lac" : "reg_tac", decimal(r.area));
    if (r.has_cell)
        reply_text(json, "reg_ci", decimal(r.cell));
    cache_registration(mdm, best, r);
    return ACT_STATUS_OK;
}

void generic_fill_reg_lac_reg_tac(cache_manager *cache, uint32_t lac, uint32_t tac)
{
    if (!cache)
        return;
    auto store = [cache](const char *key, const char *other, uint32_t value) {
        std::string text = decimal(value);
        cache->update_item(key, CACHE_DATA_STRING, text.c_str(), static_cast<uint32_t>(text.size() + 1));
        cache->remove_item_name(other);
    };
    if (valid_area(tac)) {
        store("reg_tac", "reg_lac", tac);
    } else if (valid_area(lac)) {
        store("reg_lac", "reg_tac", lac);
    } else {
        cache->remove_item_name("reg_lac");
        cache->remove_item_name("reg_tac");
    }
}

int set_net_reg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return set_net_reg_stat_common(mdm, type, json, req, NET_REG_CS);
}
int get_net_reg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_CS, generic_max_mode, generic_get_act);
}
int set_net_greg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return set_net_reg_stat_common(mdm, type, json, req, NET_REG_GPRS);
}
int get_net_greg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_GPRS, generic_max_mode, generic_get_act);
}
int set_net_ereg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return set_net_reg_stat_common(mdm, type, json, req, NET_REG_EPS);
}
int get_net_ereg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_EPS, generic_max_mode, generic_get_act);
}
int set_net_5greg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return set_net_reg_stat_common(mdm, type, json, req, NET_REG_5GS);
}
int get_net_5greg_stat(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_5GS, generic_max_mode, generic_get_act);
}
int get_net_reg_stat_all(modem *mdm, int type, ujson *json, request *req)
{
    return generic_get_net_reg_stat_all(mdm, type, json, req, generic_get_act);
}

int urc_creg(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_CS, EVT_NETWORK_STATE, generic_get_act);
}
int urc_cgreg(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_GPRS, EVT_NETWORK_STATE_PS, generic_get_act);
}
int urc_cereg(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_EPS, EVT_NETWORK_STATE_PS, generic_get_act);
}
int urc_c5greg(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_5GS, EVT_NETWORK_STATE_PS, generic_get_act);
}

// --- operator scan ----------------------------------------------------------------------

int generic_scan_op(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map)
{
    if (type == 0)
        return scan_build(mdm, json, req);
    int status = scan_parse(mdm, json, act_map);
    const auto *state = get_extra<scan_state>(req);
    if (state && state->iface_down)
        mdm->interface_action(1);
    return status;
}

void generic_cache_operator_scan(modem *mdm, const ujson *scan)
{
    cache_manager *cache = mdm->cache();
    if (!cache || !scan)
        return;
    cache->update_item("operator_scan", CACHE_DATA_UJSON, scan, static_cast<uint32_t>(scan->len()));
    char when[24];
    std::snprintf(when, sizeof(when), "%lld", static_cast<long long>(std::time(nullptr)));
    cache_text(mdm, "last_scan", when);
}

int scan_op(modem *mdm, int type, ujson *json, request *req)
{
    int status = generic_scan_op(mdm, type, json, req, generic_get_act);
    if (type != 0 && status == ACT_STATUS_OK)
        generic_cache_operator_scan(mdm, json);
    return status;
}

// --- operator selection -------------------------------------------------------------------

// +COPS: <mode>[,<format>,"<oper>"[,<AcT>]]
int get_op_slc(modem *mdm, int type, ujson *json, request *req)
{
    return get_op_slc_common(mdm, type, json, req, generic_get_act);
}

int get_op_slc_common(modem *mdm, int type, ujson *json, request *req, act_map_fn act_map)
{
    if (type == 0)
        return set_command(req, "AT+COPS?\r");
    std::string_view text = answer(mdm);
    if (text.find("+CME ERROR: no network service") != std::string_view::npos) {
        reply_enum(json, "mode", 0, op_slc_mode_str);
        return ACT_STATUS_OK;
    }
    int mode;
    if (!answer_ok(mdm) || scan(text, "\r\n+COPS: %d", &mode) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", cops_id(mode, 4), op_slc_mode_str);

    int format;
    if (scan(text, "\r\n+COPS: %*d, %d", &format) == 1) {
        uint32_t id = cops_id(format, 2);
        reply_enum(json, "format", id, op_slc_fmt_str);
        cache_int(mdm, "op_format", static_cast<int32_t>(id));
    }
    char name[operator_max + 1];
    if (scan(text, "\r\n+COPS: %*d, %*d,\"%32[^\"]\"", name) == 1) {
        json->add_string("operator", name);
        cache_text(mdm, "operator", name);
    } else {
        // Not registered: the operator read before no longer holds.
        cache_drop(mdm, "operator");
    }
    int act;
    if (scan(text, "\r\n+COPS: %*d, %*d,\"%*[^\"]\",%d", &act) == 1 && act < 14)
        reply_enum(json, "act", act_map(act), net_reg_act_str);
    return ACT_STATUS_OK;
}

// Arguments "mode", "format", "operator". An operator is always sent in the
// numeric format.
int set_op_slc(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t mode = args.opt_keyword("mode", op_slc_mode_arg_enum);
        uint32_t format = args.opt_keyword("format", op_slc_fmt_arg_enum);
        const char *oper = args.opt_text("operator", operator_max);
        if (!args.ok() || !req)
            return ACT_STATUS_INVALID_ARGS;
        slc_state state{SLC_MODE, static_cast<int32_t>(format)};
        int status;
        if (*oper) {
            if (!mode)
                return ACT_STATUS_INVALID_ARGS;
            state = {SLC_OPERATOR, static_cast<int32_t>(format ? format : 3)};
            status = set_commandf(req, "AT+COPS=%d,%d,\"%s\"\r", static_cast<int>(mode - 1), 2, oper);
        } else if (mode && format) {
            state.form = SLC_MODE_FORMAT;
            status = set_commandf(req, "AT+COPS=%d,%d\r", static_cast<int>(mode - 1), static_cast<int>(format - 1));
        } else if (mode) {
            status = set_commandf(req, "AT+COPS=%d\r", static_cast<int>(mode - 1));
        } else if (format) {
            state.form = SLC_FORMAT;
            status = set_commandf(req, "AT+COPS=%d,%d\r", 3, static_cast<int>(format - 1));
        } else {
            return ACT_STATUS_INVALID_ARGS;
        }
        return status == ACT_STATUS_OK ? set_extra(req, state) : status;
    }

    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    const auto *state = get_extra<slc_state>(req);
    if (!state)
        return ACT_STATUS_OK;
    if (state->format_id)
        cache_int(mdm, "op_format", state->format_id);
    if (state->form == SLC_OPERATOR) {
        cache_drop(mdm, "operator");
        update_registration(mdm);
    } else if (state->form == SLC_MODE) {
        // The event carries no value of its own; its handler reads the
        // operator again.
        int32_t none = 0;
        mdm->force_event(EVT_OPERATOR, &none);
    }
    return ACT_STATUS_OK;
}

void generic_net_install(modem_driver *driver)
{
    modem_driver_override(driver, ACT_SET_NET_REG_STAT, set_net_reg_stat);
    modem_driver_override(driver, ACT_GET_NET_REG_STAT, get_net_reg_stat);
    modem_driver_override(driver, ACT_GET_NET_GREG_STAT, get_net_greg_stat);
    modem_driver_override(driver, ACT_SET_NET_GREG_STAT, set_net_greg_stat);
    modem_driver_override(driver, ACT_GET_NET_EREG_STAT, get_net_ereg_stat);
    modem_driver_override(driver, ACT_SET_NET_EREG_STAT, set_net_ereg_stat);
    modem_driver_override(driver, ACT_GET_NET_5GREG_STAT, get_net_5greg_stat);
    modem_driver_override(driver, ACT_SET_NET_5GREG_STAT, set_net_5greg_stat);
    modem_driver_override(driver, ACT_GET_NET_REG_STAT_ALL, get_net_reg_stat_all);
    modem_driver_override(driver, ACT_GET_OPER_SELECTION, get_op_slc);
    modem_driver_override(driver, ACT_SET_OPER_SELECTION, set_op_slc);
    modem_driver_override(driver, ACT_OPERATOR_SCAN, scan_op);
    modem_driver_urc_override(driver, "+CREG", urc_creg);
    modem_driver_urc_override(driver, "+CGREG", urc_cgreg);
    modem_driver_urc_override(driver, "+CEREG", urc_cereg);
    modem_driver_urc_override(driver, "+C5GREG", urc_c5greg);
}
