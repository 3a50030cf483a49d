#include "drivers/quectel/quectel_net.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/generic_net.h"
#include "drivers/quectel/quectel_answer.h"
#include "drivers/quectel/quectel.h"
#include "ubus/vocab.h"
#include "util/converter.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace quectel;

namespace
{

// --- reply values ------------------------------------------------------------

void put_int(ujson *json, const char *key, std::string_view f)
{
    int32_t v;
    if (to_number(f, v))
        json->add_int(key, v);
}

void put_text(ujson *json, const char *key, std::string_view f)
{
    if (has_value(f))
        reply_text(json, key, f);
}

// A hexadecimal identity (cell id) as printed and as a number.
void put_hex_id(ujson *json, const char *key, std::string_view f)
{
    int64_t v;
    if (!to_number(f, v, 16))
        return;
    reply_text(json, key, f);
    std::string dec = std::string(key) + "_dec";
    json->add_long(dec.c_str(), v);
}

// A hexadecimal area code (LAC, TAC) as a number.
void put_hex_number(ujson *json, const char *key, std::string_view f)
{
    int64_t v;
    if (to_number(f, v, 16))
        json->add_long(key, v);
}

// A channel bandwidth by the modem's index, through its vocabulary.
void put_bandwidth(ujson *json, const char *key, std::string_view f, bool nr)
{
    int64_t idx;
    if (to_number(f, idx) && idx >= 0 && idx <= (nr ? 16 : 5))
        reply_enum(json, key, static_cast<uint32_t>(idx) + 1, nr ? bandwidth_5G_str : bandwidth_str);
}

// "LTE BAND 3" -> "B3", "NR5G BAND 78" -> "n78"; other names ("WCDMA 2100",
// "WCDMA_I_2100", "GSM 1800") as printed.
std::string band_name(std::string_view band)
{
    band = trim(band);
    std::string name;
    if (starts_nocase(band, "LTE BAND"))
        name.append("B").append(trim(band.substr(8)));
    else if (starts_nocase(band, "NR5G BAND"))
        name.append("n").append(trim(band.substr(9)));
    else
        name = band;
    return name;
}

// --- system modes ---------------------------------------------------------------------

struct mode_name {
    const char *text;
    uint32_t mode;
};

// Access technologies AT+QNWINFO prints (after "FDD "/"TDD "), and the
// network mode each is.
constexpr mode_name qnwinfo_acts[] = {
    {"NONE", NET_MODE_NO_SERVICE}, {"GSM", NET_MODE_GSM},          {"GPRS", NET_MODE_GPRS},
    {"EDGE", NET_MODE_EDGE},       {"WCDMA", NET_MODE_WCDMA},      {"HSDPA", NET_MODE_HSDPA},
    {"HSUPA", NET_MODE_HSUPA},     {"HSPA+", NET_MODE_HSPA_PLUS},  {"HSDPA&HSUPA", NET_MODE_HSDPA_HSUPA},
    {"TDSCDMA", NET_MODE_TDSCDMA}, {"TD-SCDMA", NET_MODE_TDSCDMA}, {"LTE", NET_MODE_LTE},
    {"NR5G", NET_MODE_NR5G},       {"CAT-M1", NET_MODE_CAT_M1},    {"CAT-NB1", NET_MODE_CAT_NB},
    {"eMTC", NET_MODE_EMTC},       {"NBIoT", NET_MODE_NBIOT},      {"CDMA", NET_MODE_CDMA},
    {"EVDO", NET_MODE_EVDO},       {"HDR", NET_MODE_HDR},          {"EHRPD", NET_MODE_EHRPD},
};

uint32_t act_mode(std::string_view act)
{
    act = trim(act);
    if (starts_nocase(act, "FDD ") || starts_nocase(act, "TDD "))
        act.remove_prefix(4);
    for (const auto &m : qnwinfo_acts)
        if (equal_nocase(act, m.text))
            return m.mode;
    return NET_MODE_UNKNOWN;
}

// --- +QCSQ --------------------------------------------------------------------------------

// What one +QCSQ value is: its reply key, the event it raises (0 none) and
// how the printed number becomes its unit.
enum class conv { level, fifth_db, raw };
struct qcsq_slot {
    const char *key;
    uint32_t event;
    conv how;
    const char *label; // as the debug log names it
    const char *unit;
};
constexpr qcsq_slot q_rssi{"rssi", EVT_RSSI, conv::level, "RSSI Signal  ", "dBm"};
constexpr qcsq_slot q_rscp{"rscp", EVT_RSCP, conv::level, "RSCP Signal  ", "dBm"};
constexpr qcsq_slot q_ecio{"ecio", EVT_ECIO, conv::level, "EC/IO Signal ", "dB"};
constexpr qcsq_slot q_rsrp{"rsrp", EVT_RSRP, conv::level, "RSRP Signal  ", "dBm"};
constexpr qcsq_slot q_sinr{"sinr", EVT_SINR, conv::fifth_db, "SINR Signal  ", "dB"};
constexpr qcsq_slot q_rsrq{"rsrq", EVT_RSRQ, conv::level, "RSRQ Signal  ", "dB"};
// The NR SINR scale of AT+QCSQ is not known: it goes out as printed.
constexpr qcsq_slot q_sa_sinr{"sinr_raw", 0, conv::raw, "SINR raw     ", ""};
constexpr qcsq_slot q_nr_rsrp{"nr_rsrp", 0, conv::level, "NR RSRP      ", "dBm"};
constexpr qcsq_slot q_nr_sinr{"nr_sinr_raw", 0, conv::raw, "NR SINR raw  ", ""};
constexpr qcsq_slot q_nr_rsrq{"nr_rsrq", 0, conv::level, "NR RSRQ      ", "dB"};

constexpr const qcsq_slot *layout_gsm[] = {&q_rssi};
constexpr const qcsq_slot *layout_wcdma[] = {&q_rssi, &q_rscp, &q_ecio};
constexpr const qcsq_slot *layout_lte[] = {&q_rssi, &q_rsrp, &q_sinr, &q_rsrq};
constexpr const qcsq_slot *layout_sa[] = {&q_rsrp, &q_sa_sinr, &q_rsrq};
constexpr const qcsq_slot *layout_nsa[] = {&q_rssi, &q_rsrp, &q_sinr, &q_rsrq, &q_nr_rsrp, &q_nr_sinr, &q_nr_rsrq};

struct qcsq_mode {
    const char *text;
    uint32_t mode;
    // The values the mode prints; without a layout of its own the count of
    // values tells it (1 GSM, 3 WCDMA/TD-SCDMA, 4 LTE and the IoT modes).
    const qcsq_slot *const *layout;
    size_t slots;
};
constexpr qcsq_mode qcsq_modes[] = {
    {"NOSERVICE", NET_MODE_NO_SERVICE, nullptr, 0},
    {"GSM", NET_MODE_GSM, nullptr, 0},
    {"WCDMA", NET_MODE_WCDMA, nullptr, 0},
    {"TDSCDMA", NET_MODE_TDSCDMA, nullptr, 0},
    {"LTE", NET_MODE_LTE, nullptr, 0},
    {"NR5G", NET_MODE_NR5G, nullptr, 0},
    {"NR5G-SA", NET_MODE_5G_SA, layout_sa, std::size(layout_sa)},
    {"NR5G-NSA", NET_MODE_5G_NSA, layout_nsa, std::size(layout_nsa)},
    {"CAT-M1", NET_MODE_CAT_M1, nullptr, 0},
    {"CAT-NB1", NET_MODE_CAT_NB, nullptr, 0},
    {"eMTC", NET_MODE_EMTC, nullptr, 0},
    {"NBIoT", NET_MODE_NBIOT, nullptr, 0},
    {"HDR", NET_MODE_HDR, nullptr, 0},
    {"CDMA", NET_MODE_CDMA, nullptr, 0},
};

// The printed number in its unit; false for no value. 0 is "none" on every
// value; levels come as magnitudes on some firmware and are made negative;
// LTE SINR comes in 1/5 dB from -20 dB; RSRP -140 and below is the
// placeholder of a missing measurement.
bool qcsq_value(const qcsq_slot &slot, int64_t printed, int32_t &out)
{
    if (printed == 0)
        return false;
    switch (slot.how) {
    case conv::fifth_db:
        out = static_cast<int32_t>(printed / 5 - 20);
        return true;
    case conv::raw:
        out = static_cast<int32_t>(printed);
        return true;
    case conv::level:
        out = static_cast<int32_t>(printed > 0 ? -printed : printed);
        return !(slot.event == EVT_RSRP && out <= -140);
    }
    return false;
}

} // namespace

int qcsq_report(modem *mdm, std::string_view text, ujson *reply, const char *origin)
{
    fields f = tagged_fields(text, "+QCSQ");
    const qcsq_mode *mode = nullptr;
    for (const auto &m : qcsq_modes)
        if (!f.empty() && equal_nocase(f[0], m.text))
            mode = &m;
    if (!mode)
        return ACT_STATUS_INVALID_URC;
    LOG_DEBUG("[QUECTEL_COMMON] Modem `%s [%s]` %s: Network Mode => %s\n", mdm->id(), mdm->vid_pid(), origin,
              mode->text);
    if (reply)
        reply_enum(reply, "mode", mode->mode, net_mode_str);

    // The values read, up to the first field that is not a number.
    int64_t values[7] = {};
    size_t count = 0;
    while (count < std::size(values) && count + 1 < f.size() && to_number(f[count + 1], values[count]))
        count++;

    const qcsq_slot *const *layout = mode->layout;
    size_t slots = mode->slots;
    if (!layout) {
        switch (count) {
        case 1:
            layout = layout_gsm, slots = std::size(layout_gsm);
            break;
        case 3:
            layout = layout_wcdma, slots = std::size(layout_wcdma);
            break;
        case 4:
            layout = layout_lte, slots = std::size(layout_lte);
            break;
        default: // no service: no values
            break;
        }
    }
    for (size_t i = 0; i < slots && i < count; i++) {
        const qcsq_slot &slot = *layout[i];
        int32_t value;
        if (!qcsq_value(slot, values[i], value))
            continue;
        LOG_DEBUG("[QUECTEL_COMMON] Modem `%s [%s]` %s: %s=> %d %s\n", mdm->id(), mdm->vid_pid(), origin, slot.label,
                  value, slot.unit);
        if (reply)
            reply->add_int(slot.key, value);
        if (slot.event)
            mdm->new_event(slot.event, &value);
    }
    return ACT_STATUS_OK;
}

int get_signal_query(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCSQ\r");
    if (!answer_ok(mdm) || qcsq_report(mdm, answer(mdm), json, "Signal Query") != ACT_STATUS_OK)
        return ACT_STATUS_INVALID_RESPONSE;
    return ACT_STATUS_OK;
}

// The +QIND "csq" report is switched by AT+QINDCFG and kept over restarts;
// it has no threshold nor interval, so only 0 (none) is taken for those.
int set_signal_query_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", signal_query_cfg_arg_enum);
    args.opt_number("change_threshold", 0, 0, 0);
    args.opt_number("report_interval", 0, 0, 0);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+QINDCFG=\"csq\",%u,1\r", mode - 1);
}

int get_signal_query_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QINDCFG=\"csq\"\r");
    int64_t on;
    fields v = item_values(answer(mdm), "+QINDCFG", "csq");
    if (!answer_ok(mdm) || !to_number(field_at(v, 0), on) || on < 0 || on > 1)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(on) + 1, signal_query_cfg_str);
    return ACT_STATUS_OK;
}

// --- AT+QNWINFO -------------------------------------------------------------------------

namespace
{

// The lines of a QNWINFO answer; false when it says "No Service".
bool nw_info_lines(std::string_view text, std::vector<fields> &lines)
{
    bool service = true;
    for_each_tagged(text, "+QNWINFO", [&](const fields &f) {
        if (f.size() == 1 && equal_nocase(f[0], "No Service"))
            service = false;
        else if (f.size() >= 2)
            lines.push_back(f);
    });
    return service;
}

} // namespace

int get_nw_info(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QNWINFO\r");
    std::vector<fields> lines;
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    bool service = nw_info_lines(answer(mdm), lines);
    if (service && lines.empty())
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("no_service", !service);
    void *list = json->open_array("list");
    for (const fields &f : lines) {
        void *entry = json->open_table(nullptr);
        put_text(json, "act", f[0]);
        reply_enum(json, "mode", act_mode(f[0]), net_mode_str);
        put_text(json, "oper", field_at(f, 1));
        if (has_value(field_at(f, 2)))
            reply_text(json, "band", band_name(f[2]));
        put_int(json, "channel", field_at(f, 3));
        json->close_table(entry);
    }
    json->close_array(list);
    return ACT_STATUS_OK;
}

// The technology in use is what AT+QNWINFO reports: an LTE and an NR line
// together are NSA, an NR line alone SA.
int get_net_mode_type(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QNWINFO\r");
    std::vector<fields> lines;
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    uint32_t mode = NET_MODE_NO_SERVICE;
    if (nw_info_lines(answer(mdm), lines)) {
        if (lines.empty())
            return ACT_STATUS_INVALID_RESPONSE;
        bool lte = false, nr = false;
        for (const fields &f : lines) {
            uint32_t m = act_mode(f[0]);
            lte |= m == NET_MODE_LTE;
            nr |= m == NET_MODE_NR5G;
        }
        mode = nr ? (lte ? NET_MODE_5G_NSA : NET_MODE_5G_SA) : act_mode(lines[0][0]);
    }
    reply_enum(json, "mode", mode, net_mode_str);
    return ACT_STATUS_OK;
}

// --- AT+QENG="servingcell" ---------------------------------------------------------------------

namespace
{

// How a family prints the LTE SINR of the serving cell.
enum class lte_sinr { db, twice_minus_20 };

struct ue_state_name {
    const char *text;
    uint32_t id;
};
constexpr ue_state_name ue_states[] = {{"SEARCH", 1}, {"LIMSRV", 2}, {"NOCONN", 3}, {"CONNECT", 4}};

void put_scs(ujson *json, std::string_view f)
{
    int64_t idx;
    if (to_number(f, idx) && idx >= 0 && idx <= 4)
        json->add_int("scs", 15 << idx);
}

// "<band>" of QENG LTE/NR lines is the band number.
void put_band(ujson *json, std::string_view f, const char *prefix)
{
    int64_t band;
    if (to_number(f, band))
        reply_text(json, "band", prefix + std::to_string(band));
}

// The cell's identity where a layout starts with mcc, mnc, LAC, cellID
// (GSM and WCDMA).
void put_lac_cell(ujson *json, const fields &f)
{
    put_text(json, "mcc", field_at(f, 0));
    put_text(json, "mnc", field_at(f, 1));
    put_hex_number(json, "lac", field_at(f, 2));
    put_hex_id(json, "cell_id", field_at(f, 3));
}

// The cell's identity where a layout starts with duplex, mcc, mnc, cellID,
// pcid (LTE and NR SA).
void put_duplex_cell(ujson *json, const fields &f)
{
    put_text(json, "duplex", field_at(f, 0));
    put_text(json, "mcc", field_at(f, 1));
    put_text(json, "mnc", field_at(f, 2));
    put_hex_id(json, "cell_id", field_at(f, 3));
    put_int(json, "pci", field_at(f, 4));
}

void gsm_cell(ujson *json, const fields &f)
{
    // mcc, mnc, LAC, cellID, BSIC, arfcn, band, rxlev, txp, rla, drx, c1, c2,
    // gprs, tch, ts, ta, maio, hsn, rxlevsub, rxlevfull, rxqualsub, rxqualfull
    put_lac_cell(json, f);
    put_int(json, "bsic", field_at(f, 4));
    put_int(json, "arfcn", field_at(f, 5));
    int64_t band;
    if (to_number(field_at(f, 6), band) && (band == 0 || band == 1))
        reply_text(json, "band", band == 0 ? "DCS1800" : "PCS1900");
    // Described as 0..63, printed in dBm in the examples: kept as printed.
    put_int(json, "rxlev_raw", field_at(f, 7));
    put_int(json, "ta", field_at(f, 16));
    int64_t full;
    if (to_number(field_at(f, 20), full) && full >= 0 && full <= 63)
        json->add_int("rxlev_full", static_cast<int32_t>(full - 111));
    put_int(json, "rxqual_full", field_at(f, 22));
}

void wcdma_cell(ujson *json, const fields &f)
{
    // mcc, mnc, LAC, cellID, uarfcn, psc, rac, rscp, ecio, phych, SF, slot,
    // speech_code, comMod
    put_lac_cell(json, f);
    put_int(json, "uarfcn", field_at(f, 4));
    put_int(json, "psc", field_at(f, 5));
    put_int(json, "rac", field_at(f, 6));
    put_int(json, "rscp", field_at(f, 7));
    put_int(json, "ecio", field_at(f, 8));
}

void lte_sinr_of(ujson *json, std::string_view f, lte_sinr scale)
{
    int64_t raw;
    if (!to_number(f, raw))
        return;
    if (scale == lte_sinr::db) {
        json->add_int("sinr", static_cast<int32_t>(raw));
        return;
    }
    json->add_int("sinr_raw", static_cast<int32_t>(raw));
    json->add_int("sinr", static_cast<int32_t>(2 * raw - 20));
}

void lte_cell(ujson *json, const fields &f, lte_sinr scale)
{
    // is_tdd, mcc, mnc, cellID, pcid, earfcn, band, ul_bw, dl_bw, tac, rsrp,
    // rsrq, rssi, sinr, then srxlev (15 values) or cqi, tx_power, srxlev (17)
    put_duplex_cell(json, f);
    put_int(json, "earfcn", field_at(f, 5));
    put_band(json, field_at(f, 6), "B");
    put_bandwidth(json, "ul_bandwidth", field_at(f, 7), false);
    put_bandwidth(json, "dl_bandwidth", field_at(f, 8), false);
    put_hex_number(json, "tac", field_at(f, 9));
    put_int(json, "rsrp", field_at(f, 10));
    put_int(json, "rsrq", field_at(f, 11));
    put_int(json, "rssi", field_at(f, 12));
    lte_sinr_of(json, field_at(f, 13), scale);
    if (f.size() >= 17) {
        put_int(json, "cqi", field_at(f, 14));
        int64_t tx;
        if (to_number(field_at(f, 15), tx))
            json->add_double("tx_power", static_cast<double>(tx) / 10);
        put_int(json, "srxlev", field_at(f, 16));
    } else {
        put_int(json, "srxlev", field_at(f, 14));
    }
}

void nr_sa_cell(ujson *json, const fields &f)
{
    // duplex, mcc, mnc, cellID, pcid, tac, arfcn, band, dl_bw, rsrp, rsrq,
    // sinr, scs, srxlev
    put_duplex_cell(json, f);
    put_hex_number(json, "tac", field_at(f, 5));
    put_int(json, "nrarfcn", field_at(f, 6));
    put_band(json, field_at(f, 7), "n");
    put_bandwidth(json, "dl_bandwidth", field_at(f, 8), true);
    put_int(json, "rsrp", field_at(f, 9));
    put_int(json, "rsrq", field_at(f, 10));
    put_int(json, "sinr", field_at(f, 11));
    put_scs(json, field_at(f, 12));
    put_int(json, "srxlev", field_at(f, 13));
}

void nr_nsa_cell(ujson *json, const fields &f)
{
    // mcc, mnc, pcid, rsrp, sinr, rsrq, then arfcn, band, dl_bw, scs (absent
    // on early firmware)
    put_text(json, "mcc", field_at(f, 0));
    put_text(json, "mnc", field_at(f, 1));
    put_int(json, "pci", field_at(f, 2));
    put_int(json, "rsrp", field_at(f, 3));
    // dB on current firmware, 0.1 dB on early RM500Q firmware that the model
    // does not tell apart: kept as printed.
    put_int(json, "sinr_raw", field_at(f, 4));
    put_int(json, "rsrq", field_at(f, 5));
    put_int(json, "nrarfcn", field_at(f, 6));
    put_band(json, field_at(f, 7), "n");
    put_bandwidth(json, "dl_bandwidth", field_at(f, 8), true);
    put_scs(json, field_at(f, 9));
}

// One RAT's serving cell: f starts at the RAT name. False for a RAT this
// reader does not know.
bool serving_cell(ujson *json, const fields &f, lte_sinr scale)
{
    fields rest(f.begin() + 1, f.end());
    std::string_view rat = f[0];
    void *cell = json->open_table(nullptr);
    reply_text(json, "rat", rat);
    bool known = true;
    if (equal_nocase(rat, "GSM"))
        gsm_cell(json, rest);
    else if (equal_nocase(rat, "WCDMA"))
        wcdma_cell(json, rest);
    else if (equal_nocase(rat, "LTE") || equal_nocase(rat, "CAT-M") || equal_nocase(rat, "eMTC") ||
             equal_nocase(rat, "CAT-NB"))
        lte_cell(json, rest, scale);
    else if (equal_nocase(rat, "NR5G-SA"))
        nr_sa_cell(json, rest);
    else if (equal_nocase(rat, "NR5G-NSA"))
        nr_nsa_cell(json, rest);
    else
        known = false;
    json->close_table(cell);
    return known;
}

int cell_info(modem *mdm, int type, ujson *json, request *req, lte_sinr scale)
{
    if (type == 0)
        return set_command(req, "AT+QENG=\"servingcell\"\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    bool seen = false;
    uint32_t state = 0;
    std::vector<fields> cells;
    for_each_tagged(answer(mdm), "+QENG", [&](const fields &f) {
        if (equal_nocase(f[0], "servingcell")) {
            seen = true;
            for (const auto &s : ue_states)
                if (equal_nocase(field_at(f, 1), s.text))
                    state = s.id;
            if (f.size() > 2)
                cells.emplace_back(f.begin() + 2, f.end());
        } else if (f.size() > 1) {
            cells.push_back(f);
        }
    });
    if (!seen)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "state", state, ue_state_str);
    void *list = json->open_array("cells");
    for (const fields &f : cells)
        serving_cell(json, f, scale);
    json->close_array(list);
    return ACT_STATUS_OK;
}

} // namespace

int get_cell_info(modem *mdm, int type, ujson *json, request *req)
{
    return cell_info(mdm, type, json, req, lte_sinr::db);
}

int get_cell_info_nr(modem *mdm, int type, ujson *json, request *req)
{
    return cell_info(mdm, type, json, req, lte_sinr::twice_minus_20);
}

// --- AT+QENG="neighbourcell" --------------------------------------------------------------

namespace
{

// The scale of neighbour SINR and WCDMA RSCP/Ec/No is not known (some are
// printed in tenths): they go out as printed, as "<key>_raw".
void neighbour(ujson *json, const fields &f, bool lte_serving)
{
    std::string_view tag = f[0];
    std::string_view rat = f[1];
    fields v(f.begin() + 2, f.end());
    void *cell = json->open_table(nullptr);
    if (starts_nocase(tag, "neighbourcell "))
        reply_text(json, "type", trim(tag.substr(14)));
    reply_text(json, "rat", rat);
    if (equal_nocase(rat, "LTE") && starts_nocase(tag, "neighbourcell ")) {
        // earfcn, pcid, rsrq, rsrp, rssi, sinr, srxlev, ...: RSRQ first
        put_int(json, "earfcn", field_at(v, 0));
        put_int(json, "pci", field_at(v, 1));
        put_int(json, "rsrq", field_at(v, 2));
        put_int(json, "rsrp", field_at(v, 3));
        put_int(json, "rssi", field_at(v, 4));
        put_int(json, "sinr_raw", field_at(v, 5));
        put_int(json, "srxlev", field_at(v, 6));
    } else if (equal_nocase(rat, "LTE")) {
        // seen from WCDMA: earfcn, pcid, rsrp, rsrq, s_rxlev
        put_int(json, "earfcn", field_at(v, 0));
        put_int(json, "pci", field_at(v, 1));
        put_int(json, "rsrp", field_at(v, 2));
        put_int(json, "rsrq", field_at(v, 3));
        put_int(json, "srxlev", field_at(v, 4));
    } else if (equal_nocase(rat, "WCDMA") && lte_serving) {
        // uarfcn, cell_resel_priority, thresh_Xhigh, thresh_Xlow, psc,
        // cpich_rscp, cpich_ecno, srxlev
        put_int(json, "uarfcn", field_at(v, 0));
        put_int(json, "psc", field_at(v, 4));
        put_int(json, "rscp_raw", field_at(v, 5));
        put_int(json, "ecno_raw", field_at(v, 6));
        put_int(json, "srxlev", field_at(v, 7));
    } else if (equal_nocase(rat, "WCDMA")) {
        // uarfcn, srxqual, psc, rscp, ecno, set, rank, srxlev
        put_int(json, "uarfcn", field_at(v, 0));
        put_int(json, "psc", field_at(v, 2));
        put_int(json, "rscp_raw", field_at(v, 3));
        put_int(json, "ecno_raw", field_at(v, 4));
        put_int(json, "srxlev", field_at(v, 7));
    } else if (equal_nocase(rat, "GSM") && v.size() >= 11) {
        // seen from GSM: mcc, mnc, LAC, cellID, BSIC, arfcn, rxlev, c1, c2, c31, c32
        put_lac_cell(json, v);
        put_int(json, "bsic", field_at(v, 4));
        put_int(json, "arfcn", field_at(v, 5));
        put_int(json, "rxlev_raw", field_at(v, 6));
    } else if (equal_nocase(rat, "GSM") && v.size() >= 9) {
        // seen from LTE: arfcn, priority, thresh high, thresh low,
        // ncc_permitted, band, bsic, rssi, srxlev
        put_int(json, "arfcn", field_at(v, 0));
        put_int(json, "bsic", field_at(v, 6));
        put_int(json, "rssi", field_at(v, 7));
        put_int(json, "srxlev", field_at(v, 8));
    } else if (equal_nocase(rat, "GSM")) {
        // seen from WCDMA: BSIC, rssi, rxlev, rank
        put_int(json, "bsic", field_at(v, 0));
        put_int(json, "rssi", field_at(v, 1));
        put_int(json, "rxlev_raw", field_at(v, 2));
    }
    json->close_table(cell);
}

} // namespace

int get_neigh_info(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QENG=\"neighbourcell\"\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::vector<fields> lines;
    bool lte_serving = false;
    for_each_tagged(answer(mdm), "+QENG", [&](const fields &f) {
        if (f.size() >= 2 && starts_nocase(f[0], "neighbourcell")) {
            lte_serving |= starts_nocase(f[0], "neighbourcell ");
            lines.push_back(f);
        }
    });
    void *list = json->open_array("cells");
    for (const fields &f : lines)
        neighbour(json, f, lte_serving);
    json->close_array(list);
    return ACT_STATUS_OK;
}

// --- AT+QCAINFO ------------------------------------------------------------------------------

namespace
{

// LTE bandwidth in resource blocks, by bandwidth index.
constexpr int64_t lte_rbs[] = {6, 15, 25, 50, 75, 100};

void ca_state(ujson *json, std::string_view f, bool primary)
{
    int64_t s;
    if (!to_number(f, s) || s < 0 || s > (primary ? 5 : 2))
        return;
    reply_enum(json, "state", static_cast<uint32_t>(s) + 1, primary ? pcell_state_str : scell_state_str);
}

void ca_lte(ujson *json, const fields &v, bool primary, bool rssnr_db)
{
    // freq, bandwidth (RBs), band, state, pcid, rsrp, rsrq, rssi, rssnr, then
    // on SCC lines ul_configured, ul_bandwidth, ul_earfcn
    int64_t rbs;
    if (to_number(field_at(v, 1), rbs))
        for (size_t i = 0; i < std::size(lte_rbs); i++)
            if (lte_rbs[i] == rbs)
                reply_enum(json, "bandwidth", static_cast<uint32_t>(i) + 1, bandwidth_str);
    ca_state(json, field_at(v, 3), primary);
    put_int(json, "pci", field_at(v, 4));
    put_int(json, "rsrp", field_at(v, 5));
    put_int(json, "rsrq", field_at(v, 6));
    put_int(json, "rssi", field_at(v, 7));
    put_int(json, rssnr_db ? "rssnr" : "rssnr_raw", field_at(v, 8));
    int64_t ul;
    if (!primary && to_number(field_at(v, 9), ul))
        json->add_bool("ul_configured", ul != 0);
    put_int(json, "ul_arfcn", field_at(v, 11));
}

void ca_nr(ujson *json, const fields &v)
{
    // freq, bandwidth index, band, pcid; or freq, bandwidth index, band,
    // state, pcid, ul_configured, ul_bandwidth, ul_arfcn[, rsrp, rsrq, snr]
    put_bandwidth(json, "bandwidth", field_at(v, 1), true);
    if (v.size() <= 4) {
        put_int(json, "pci", field_at(v, 3));
        return;
    }
    ca_state(json, field_at(v, 3), false);
    put_int(json, "pci", field_at(v, 4));
    int64_t ul;
    if (to_number(field_at(v, 5), ul))
        json->add_bool("ul_configured", ul != 0);
    put_bandwidth(json, "ul_bandwidth", field_at(v, 6), true);
    put_int(json, "ul_arfcn", field_at(v, 7));
    // The unit of the NR RSRP and RSRQ here is not given: kept as printed.
    put_int(json, "rsrp_raw", field_at(v, 8));
    put_int(json, "rsrq_raw", field_at(v, 9));
    int64_t snr; // in 0.01 dB
    if (to_number(field_at(v, 10), snr))
        json->add_double("snr", static_cast<double>(snr) / 100);
}

int ca_info(modem *mdm, int type, ujson *json, request *req, bool rssnr_db)
{
    if (type == 0)
        return set_command(req, "AT+QCAINFO\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::vector<fields> lines;
    for_each_tagged(answer(mdm), "+QCAINFO", [&](const fields &f) {
        if (f.size() >= 4 && (equal_nocase(f[0], "PCC") || equal_nocase(f[0], "SCC")))
            lines.push_back(f);
    });
    void *list = json->open_array("carriers");
    for (const fields &f : lines) {
        fields v(f.begin() + 1, f.end());
        bool primary = equal_nocase(f[0], "PCC");
        bool nr = starts_nocase(trim(v[2]), "NR5G");
        void *carrier = json->open_table(nullptr);
        reply_text(json, "role", primary ? "pcc" : "scc");
        reply_text(json, "rat", nr ? "NR5G" : "LTE");
        if (has_value(v[2]))
            reply_text(json, "band", band_name(v[2]));
        put_int(json, "arfcn", v[0]);
        if (nr)
            ca_nr(json, v);
        else
            ca_lte(json, v, primary, rssnr_db);
        json->close_table(carrier);
    }
    json->close_array(list);
    return ACT_STATUS_OK;
}

} // namespace

// The RSSNR scale of the LTE-A and older families is disputed: kept raw.
int get_ca_info(modem *mdm, int type, ujson *json, request *req)
{
    return ca_info(mdm, type, json, req, false);
}

int get_ca_info_nr(modem *mdm, int type, ujson *json, request *req)
{
    return ca_info(mdm, type, json, req, true);
}

// --- AT+QSPN -------------------------------------------------------------------------------

namespace
{

// A UCS-2 name as hexadecimal text ("004F0070") in UTF-8; false when it is
// not one.
bool ucs2_name(std::string_view hex, std::string &out)
{
    if (hex.size() % 4 != 0)
        return false;
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        uint8_t b;
        if (!to_number(hex.substr(i, 2), b, 16))
            return false;
        bytes.push_back(b);
    }
    std::vector<char> text(bytes.size() / 2 * 3 + 1);
    size_t n = utf16be_to_utf8(bytes.data(), bytes.size() / 2, text.data(), text.size());
    if (n == 0 && !bytes.empty())
        return false;
    out.assign(text.data(), n);
    return true;
}

} // namespace

int get_srvc_provider(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QSPN\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    fields f;
    for_each_tagged(answer(mdm), "+QSPN", [&](const fields &line) { f = line; });
    if (f.empty()) // not registered
        return ACT_STATUS_OK;
    int64_t alphabet = 0;
    if (f.size() < 5 || !to_number(f[3], alphabet))
        return ACT_STATUS_INVALID_RESPONSE;
    const char *keys[] = {"full_name", "short_name", "spn"};
    for (size_t i = 0; i < 3; i++) {
        if (!has_value(f[i]))
            continue;
        std::string name;
        if (alphabet != 1)
            name = f[i];
        else if (!ucs2_name(f[i], name))
            return ACT_STATUS_INVALID_RESPONSE;
        reply_text(json, keys[i], name);
    }
    put_text(json, "rplmn", f[4]);
    return ACT_STATUS_OK;
}

// --- network mode ----------------------------------------------------------------------------

namespace
{

struct scan_mode {
    uint32_t mode; // net_mode id
    int value;     // <scanmode>
};
// AT+QCFG="nwscanmode" <scanmode> by network mode; the first row of a value
// is how it reads back.
constexpr scan_mode scan_modes[] = {
    {NET_MODE_AUTO, 0}, {NET_MODE_GSM, 1}, {NET_MODE_2G, 1},        {NET_MODE_WCDMA, 2},
    {NET_MODE_LTE, 3},  {NET_MODE_4G, 3},  {NET_MODE_TDSCDMA, 4},   {NET_MODE_UMTS, 5},
    {NET_MODE_CDMA, 6}, {NET_MODE_HDR, 7}, {NET_MODE_CDMA_EVDO, 8},
};
// BG95/BG96 take auto, GSM and LTE (eMTC/NB-IoT) only.
constexpr scan_mode scan_modes_lpwa[] = {
    {NET_MODE_AUTO, 0}, {NET_MODE_GSM, 1}, {NET_MODE_2G, 1}, {NET_MODE_LTE, 3}, {NET_MODE_4G, 3},
};

template <size_t N> int set_scan_mode(modem *mdm, int type, ujson *json, request *req, const scan_mode (&table)[N])
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", net_mode_arg_enum);
    if (!args.ok())
        return args.status();
    for (const auto &m : table)
        if (m.mode == mode)
            return set_commandf(req, "AT+QCFG=\"nwscanmode\",%d\r", m.value);
    return ACT_STATUS_INVALID_ARGS;
}

template <size_t N> bool reply_scan_mode(ujson *json, std::string_view text, const scan_mode (&table)[N])
{
    int64_t value;
    if (!to_number(field_at(item_values(text, "+QCFG", "nwscanmode"), 0), value))
        return false;
    uint32_t mode = NET_MODE_UNKNOWN;
    for (const auto &m : table)
        if (m.value == value && mode == NET_MODE_UNKNOWN)
            mode = m.mode;
    reply_enum(json, "mode", mode, net_mode_str);
    return true;
}

// AT+QNWPREFCFG="mode_pref" lists: each RAT a bit.
enum rat_bits : unsigned { R_WCDMA = 1, R_LTE = 2, R_NR = 4, R_NR_SA = 8, R_NR_NSA = 16 };
struct pref_mode {
    uint32_t mode;
    unsigned rats; // 0: AUTO
};
// The first row of a RAT set is how it reads back.
constexpr pref_mode pref_modes[] = {
    {NET_MODE_AUTO, 0},
    {NET_MODE_WCDMA, R_WCDMA},
    {NET_MODE_3G, R_WCDMA},
    {NET_MODE_LTE, R_LTE},
    {NET_MODE_4G, R_LTE},
    {NET_MODE_NR5G, R_NR},
    {NET_MODE_5G, R_NR},
    {NET_MODE_WCDMA_LTE, R_WCDMA | R_LTE},
    {NET_MODE_3G_4G, R_WCDMA | R_LTE},
    {NET_MODE_WCDMA_NR5G, R_WCDMA | R_NR},
    {NET_MODE_3G_5G, R_WCDMA | R_NR},
    {NET_MODE_LTE_NR5G, R_LTE | R_NR},
    {NET_MODE_4G_5G, R_LTE | R_NR},
    {NET_MODE_5G_SA, R_NR_SA},
    {NET_MODE_5G_NSA, R_NR_NSA},
};

constexpr const char *rat_names[] = {"WCDMA", "LTE", "NR5G", "NR5G-SA", "NR5G-NSA"};

int get_mode_pref(modem *mdm, int type, ujson *json, request *req, bool unisoc)
{
    if (type == 0)
        return set_command(req, "AT+QNWPREFCFG=\"mode_pref\"\r");
    fields v = item_values(answer(mdm), "+QNWPREFCFG", "mode_pref");
    if (!answer_ok(mdm) || !has_value(field_at(v, 0)))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string_view list = v[0];
    unsigned rats = 0;
    bool known = true;
    if (!equal_nocase(list, "AUTO")) {
        while (!list.empty()) {
            size_t colon = list.find(':');
            std::string_view name = trim(list.substr(0, colon));
            unsigned bit = 0;
            for (size_t i = 0; i < std::size(rat_names); i++)
                if (equal_nocase(name, rat_names[i]) && (unisoc || i < 3))
                    bit = 1u << i;
            known &= bit != 0;
            rats |= bit;
            list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
        }
        // Every RAT the Qualcomm parts have is the same as AUTO.
        if (rats == (R_WCDMA | R_LTE | R_NR))
            rats = 0;
    }
    uint32_t mode = NET_MODE_UNKNOWN;
    for (const auto &m : pref_modes)
        if (known && m.rats == rats && mode == NET_MODE_UNKNOWN)
            mode = m.mode;
    reply_enum(json, "mode", mode, net_mode_str);
    if (mode == NET_MODE_UNKNOWN)
        reply_text(json, "mode_pref", v[0]);
    return ACT_STATUS_OK;
}

// BG95/BG96 scan order codes.
constexpr const char *lpwa_seq_names[] = {"Auto", "GSM", "eMTC", "NB-IoT"};

} // namespace

int set_net_mode(modem *mdm, int type, ujson *json, request *req)
{
    return set_scan_mode(mdm, type, json, req, scan_modes);
}

int get_net_mode_tech(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"nwscanmode\"\r");
    if (!answer_ok(mdm) || !reply_scan_mode(json, answer(mdm), scan_modes))
        return ACT_STATUS_INVALID_RESPONSE;
    return ACT_STATUS_OK;
}

int set_net_mode_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", net_mode_arg_enum);
    if (!args.ok())
        return args.status();
    for (const auto &m : pref_modes) {
        if (m.mode != mode || m.rats > (R_WCDMA | R_LTE | R_NR))
            continue;
        std::string list;
        for (size_t i = 0; i < 3; i++)
            if (m.rats & (1u << i))
                list.append(list.empty() ? "" : ":").append(rat_names[i]);
        return set_commandf(req, "AT+QNWPREFCFG=\"mode_pref\",%s\r", m.rats ? list.c_str() : "AUTO");
    }
    return ACT_STATUS_INVALID_ARGS;
}

int get_net_mode_tech_nr(modem *mdm, int type, ujson *json, request *req)
{
    return get_mode_pref(mdm, type, json, req, false);
}

int get_net_mode_tech_unisoc_nr(modem *mdm, int type, ujson *json, request *req)
{
    return get_mode_pref(mdm, type, json, req, true);
}

int set_net_mode_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return set_scan_mode(mdm, type, json, req, scan_modes_lpwa);
}

int get_net_mode_tech_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"nwscanmode\";+QCFG=\"nwscanseq\"\r");
    if (!answer_ok(mdm) || !reply_scan_mode(json, answer(mdm), scan_modes_lpwa))
        return ACT_STATUS_INVALID_RESPONSE;
    // Two-digit codes in priority order; a leading zero may be lost.
    std::string_view printed = trim(field_at(item_values(answer(mdm), "+QCFG", "nwscanseq"), 0));
    if (printed.empty())
        return ACT_STATUS_OK;
    std::string seq(printed.size() % 2, '0');
    seq += printed;
    void *list = json->open_array("scan_seq");
    for (size_t i = 0; i < seq.size(); i += 2) {
        int64_t code;
        if (to_number(std::string_view(seq).substr(i, 2), code) && code >= 0 &&
            code < static_cast<int64_t>(std::size(lpwa_seq_names)))
            json->add_string(nullptr, lpwa_seq_names[code]);
    }
    json->close_array(list);
    return ACT_STATUS_OK;
}

// --- roaming and attach --------------------------------------------------------------------------

namespace
{

// roaming_svc id -> AT value, for AT+QCFG="roamservice" and (-1 where it
// has none) AT+QNWPREFCFG="roam_pref".
constexpr int roam_service[] = {-1, 1, 2, 255};
constexpr int roam_pref[] = {-1, 1, 255, -1};

template <size_t N> uint32_t roam_mode(int64_t value, const int (&table)[N])
{
    for (size_t i = 1; i < N; i++)
        if (table[i] == value)
            return static_cast<uint32_t>(i);
    return 0;
}

} // namespace

int set_roaming_svc(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", roaming_svc_arg_enum);
    if (!args.ok())
        return args.status();
    if (!args.has("effect"))
        return set_commandf(req, "AT+QCFG=\"roamservice\",%d\r", roam_service[mode]);
    return set_commandf(req, "AT+QCFG=\"roamservice\",%d,%d\r", roam_service[mode], args.flag("effect") ? 1 : 0);
}

int get_roaming_svc(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"roamservice\"\r");
    int64_t value;
    if (!answer_ok(mdm) || !to_number(field_at(item_values(answer(mdm), "+QCFG", "roamservice"), 0), value))
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", roam_mode(value, roam_service), roaming_svc_str);
    return ACT_STATUS_OK;
}

// roam_pref applies at once; there is no automatic mode, and "affiliate
// networks only" (3) has no roaming_svc name: it reads as unknown with the
// value under "roam_pref".
int set_roaming_svc_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", roaming_svc_arg_enum);
    if (!args.ok() || roam_pref[mode] < 0 || !args.flag("effect", true))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QNWPREFCFG=\"roam_pref\",%d\r", roam_pref[mode]);
}

int get_roaming_svc_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QNWPREFCFG=\"roam_pref\"\r");
    int64_t value;
    if (!answer_ok(mdm) || !to_number(field_at(item_values(answer(mdm), "+QNWPREFCFG", "roam_pref"), 0), value))
        return ACT_STATUS_INVALID_RESPONSE;
    uint32_t mode = roam_mode(value, roam_pref);
    reply_enum(json, "mode", mode, roaming_svc_str);
    if (mode == 0)
        json->add_int("roam_pref", static_cast<int32_t>(value));
    return ACT_STATUS_OK;
}

int set_gprs_attach_mode(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_keyword(mdm, type, json, req, "AT+QCFG=\"gprsattach\",%u\r", "mode", gprs_attach_arg_enum);
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("restart", true);
    return ACT_STATUS_OK;
}

int get_gprs_attach_mode(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QCFG=\"gprsattach\"\r");
    int64_t value;
    if (!answer_ok(mdm) || !to_number(field_at(item_values(answer(mdm), "+QCFG", "gprsattach"), 0), value) ||
        value < 0 || value > 1)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(value) + 1, gprs_attach_str);
    return ACT_STATUS_OK;
}

// --- AT+QLTS ---------------------------------------------------------------------------------------

int get_time(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t mode = args.opt_keyword("mode", time_mode_enum);
        if (!args.ok())
            return args.status();
        return mode ? set_commandf(req, "AT+QLTS=%u\r", mode - 1) : set_command(req, "AT+QLTS\r");
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    // "yyyy/MM/dd,hh:mm:ss±zz" then the DST hours, inside the quotes or after
    // them; "" before the network ever sent the time.
    std::string_view line = line_value(answer(mdm), "+QLTS:");
    line = trim(line);
    if (line.empty())
        return ACT_STATUS_INVALID_RESPONSE;
    std::string flat(line);
    std::erase(flat, '"');
    if (flat.empty()) {
        json->add_bool("synchronised", false);
        return ACT_STATUS_OK;
    }
    int y, mo, d, h, mi, s, tz, dst = 0;
    char sign;
    int n = std::sscanf(flat.c_str(), "%4d/%2d/%2d,%2d:%2d:%2d%c%d,%d", &y, &mo, &d, &h, &mi, &s, &sign, &tz, &dst);
    if (n < 8 || (sign != '+' && sign != '-'))
        return ACT_STATUS_INVALID_RESPONSE;
    if (sign == '-')
        tz = -tz;
    char iso[32];
    std::snprintf(iso, sizeof(iso), "%04d-%02d-%02dT%02d:%02d:%02d", y, mo, d, h, mi, s);
    json->add_bool("synchronised", true);
    json->add_string("time", iso);
    json->add_int("tz", tz);
    json->add_int("tz_minutes", tz * 15);
    if (n == 9)
        json->add_int("dst", dst);
    return ACT_STATUS_OK;
}

// --- 5G family switches ------------------------------------------------------------------------------

namespace
{

// AT+QNETRC <mode> bits: EMM, ESM and 5GMM cause reports.
constexpr int netrc_all = 1 | 2 | 4;

} // namespace

int set_urc_cause_support_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    if (!args.has("enabled"))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+QNETRC=%d\r", args.flag("enabled") ? netrc_all : 0);
}

int get_urc_cause_support_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QNETRC\r");
    int64_t mask = -1;
    for_each_tagged(answer(mdm), "+QNETRC", [&](const fields &f) {
        if (f.size() == 1)
            to_number(f[0], mask);
    });
    if (!answer_ok(mdm) || mask < 0 || mask > 7)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("enabled", mask != 0);
    json->add_bool("emm", mask & 1);
    json->add_bool("esm", mask & 2);
    json->add_bool("5gmm", mask & 4);
    return ACT_STATUS_OK;
}

// +QNETRC: "<kind>_cause",<cause>: a reject cause the network sent, raised
// as the EMM error (EMM, and 5GMM its 5G counterpart) or the ESM error.
// Cause 0 is "no cause".
int urc_qnetrc(modem *mdm, ujson *)
{
    fields f = tagged_fields(answer(mdm), "+QNETRC");
    int64_t cause;
    if (f.size() < 2 || !to_number(f[1], cause) || cause < 0 || cause > 255)
        return ACT_STATUS_INVALID_URC;
    uint32_t event = EVT_EMM_ERROR;
    const char *(*text)(uint32_t) = nullptr;
    if (equal_nocase(f[0], "emm_cause"))
        text = emm_cause_str;
    else if (equal_nocase(f[0], "5gmm_cause"))
        text = mm5g_cause_str;
    else if (equal_nocase(f[0], "esm_cause"))
        event = EVT_ESM_ERROR, text = esm_cause_str;
    if (!text)
        return ACT_STATUS_INVALID_URC;
    if (cause == 0)
        return ACT_STATUS_OK;
    auto data = ujson::create();
    if (!data) {
        LOG_ERROR("[QUECTEL_COMMON] uJson memory allocation error!\n");
        return ACT_STATUS_NO_MEMORY;
    }
    notify_emm_esm_errors(mdm, event, static_cast<int>(cause), *data, text);
    return ACT_STATUS_OK;
}

int set_nr5g_disable_mode_nr(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+QNWPREFCFG=\"nr5g_disable_mode\",%u\r", "mode",
                       disable_nr5g_mode_enum);
}

int get_nr5g_disable_mode_nr(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+QNWPREFCFG=\"nr5g_disable_mode\"\r");
    int64_t value;
    if (!answer_ok(mdm) ||
        !to_number(field_at(item_values(answer(mdm), "+QNWPREFCFG", "nr5g_disable_mode"), 0), value) || value < 0 ||
        value > 2)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(value) + 1, disable_nr5g_mode_str);
    return ACT_STATUS_OK;
}

// --- LPWA access technology ----------------------------------------------------------

uint32_t quectel_lpwa_get_act(int32_t act)
{
    constexpr uint32_t eutran = 8; // net_reg_act "E-UTRAN"
    if (act == 8 || act == 9)
        return eutran;
    return act == 0 ? 1 : 0; // GSM; no other radio on these modules
}

int get_net_reg_stat_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_CS, 3, quectel_lpwa_get_act);
}

int get_net_greg_stat_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_GPRS, 3, quectel_lpwa_get_act);
}

int get_net_ereg_stat_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return get_net_reg_stat_common(mdm, type, json, req, NET_REG_EPS, 3, quectel_lpwa_get_act);
}

int get_net_reg_stat_all_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return generic_get_net_reg_stat_all(mdm, type, json, req, quectel_lpwa_get_act);
}

int get_op_slc_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    return get_op_slc_common(mdm, type, json, req, quectel_lpwa_get_act);
}

int scan_op_lpwa(modem *mdm, int type, ujson *json, request *req)
{
    int status = generic_scan_op(mdm, type, json, req, quectel_lpwa_get_act);
    if (type != 0 && status == ACT_STATUS_OK)
        generic_cache_operator_scan(mdm, json);
    return status;
}

int urc_creg_lpwa(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_CS, EVT_NETWORK_STATE, quectel_lpwa_get_act);
}

int urc_cgreg_lpwa(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_GPRS, EVT_NETWORK_STATE_PS, quectel_lpwa_get_act);
}

int urc_cereg_lpwa(modem *mdm, ujson *json)
{
    return urc_net_reg(mdm, json, NET_REG_EPS, EVT_NETWORK_STATE_PS, quectel_lpwa_get_act);
}

int quectel_net_probe(modem_driver *driver)
{
    const std::pair<uint32_t, act_func> actions[] = {
        {ACT_GET_SIGNAL_QRY, get_signal_query},
        {ACT_SET_CFG_SIGNAL_QRY, set_signal_query_cfg},
        {ACT_GET_CFG_SIGNAL_QRY, get_signal_query_cfg},
        {ACT_GET_NETWORK_INFO, get_nw_info},
        {ACT_GET_CELL_INFO, get_cell_info},
        {ACT_GET_NEIGHBOUR_INFO, get_neigh_info},
        {ACT_GET_CA_INFO, get_ca_info},
        {ACT_GET_SERVICE_PROVIDER, get_srvc_provider},
        {ACT_SET_NET_MODE, set_net_mode},
        {ACT_GET_NET_MODE_TECH, get_net_mode_tech},
        {ACT_GET_NET_MODE_TYPE, get_net_mode_type},
        {ACT_SET_ROAMING_SVC, set_roaming_svc},
        {ACT_GET_ROAMING_SVC, get_roaming_svc},
        {ACT_SET_GPRS_ATTACH, set_gprs_attach_mode},
        {ACT_GET_GPRS_ATTACH, get_gprs_attach_mode},
        {ACT_GET_TIME, get_time},
        // Reject causes are reported by the 5G modules only (AT+QNETRC).
        {ACT_SET_URC_CAUSE_SUPPORT, nullptr},
        {ACT_GET_URC_CAUSE_SUPPORT, nullptr},
    };
    for (const auto &[action, fn] : actions)
        modem_driver_override(driver, action, fn);
    return 0;
}
