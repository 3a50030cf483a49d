#include "drivers/generic/generic_sms.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "comm/request.h"
#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/sms_limit.h"
#include "sms/pdu.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

// Message formats as cached under "sms_mode" (sms_mode_str ids).
constexpr int32_t mode_pdu = 1;
constexpr int32_t mode_text = 2;

// A destination number: "+" and up to 22 digits, as TS 23.040 addresses go
// (20 digits) with room for the longer national plans modems accept.
constexpr size_t number_max = 23;
// Storage indices as 27.005 lists them.
constexpr int32_t index_max = 65535;
// A concatenated message has at most 255 parts.
constexpr int32_t parts_max = 255;
// A text-mode message goes out as one SMS of the default alphabet.
constexpr uint32_t text_mode_capacity = 160;

constexpr char ctrl_z = 0x1A;
constexpr char esc = 0x1B;

void cache_mode(modem *mdm, int32_t mode)
{
    cache_int(mdm, "sms_mode", mode);
    cache_text(mdm, "sms_mode_str", sms_mode_str(static_cast<uint32_t>(mode)));
}

// ---- storage ----------------------------------------------------------------------

struct storage_use {
    uint32_t storage; // msg_storage id
    int used;
    int total;
};

// "mem1".."mem3" and whether the storage new messages go to has no room left.
void reply_storages(ujson *json, const storage_use (&mem)[3])
{
    static const char *const names[] = {"mem1", "mem2", "mem3"};
    for (size_t i = 0; i < 3; i++) {
        void *t = json->open_table(names[i]);
        reply_enum(json, "storage", mem[i].storage, msg_storage_str);
        json->add_int("used", mem[i].used);
        json->add_int("total", mem[i].total);
        json->close_table(t);
    }
    json->add_bool("full", mem[2].total > 0 && mem[2].used >= mem[2].total);
}

// The SIM's storage, then the module's own, which stays selected: it is where
// modules keep messages by default, and not every module knows the combined
// "MT" storage.
constexpr const char *full_storage_command = "AT+CPMS=\"SM\",\"SM\",\"SM\"\rAT+CPMS=\"ME\",\"ME\",\"ME\"\r";

// The answers of the two selections: the SIM's use, then the module's, which
// also receives new messages from now on.
int parse_full_storage(modem *mdm, ujson *json)
{
    int sim[6], all[6];
    std::string_view text = from_line(answer(mdm), "+CPMS: ");
    if (scan(text, "\r\n+CPMS: %d,%d,%d,%d,%d,%d\r\n\r\nOK\r\n\r\n+CPMS: %d,%d,%d,%d,%d,%d", &sim[0], &sim[1],
             &sim[2], &sim[3], &sim[4], &sim[5], &all[0], &all[1], &all[2], &all[3], &all[4], &all[5]) != 12)
        return ACT_STATUS_INVALID_RESPONSE;
    const storage_use mem[3] = {
        {msg_storage_arg_enum("SM"), sim[0], sim[1]},
        {msg_storage_arg_enum("ME"), all[0], all[1]},
        {msg_storage_arg_enum("ME"), all[4], all[5]},
    };
    reply_storages(json, mem);
    return ACT_STATUS_OK;
}

// ---- sending ----------------------------------------------------------------------

// What the send's parse needs of its build.
struct send_ctx {
    uint8_t validate;  // only asked whether the text fits
    uint8_t enforced;  // the sending limit is in force
    uint32_t sim;      // SIM slot the limit counts for
    uint32_t used;     // PDUs needed ("sms_used")
    uint32_t cur_chars; // characters in the last PDU
    uint32_t max_chars; // characters a PDU can carry
    char number[29];
};

// Digits with an optional leading "+": nothing else may stand between the
// quotes of a text-mode send or in a PDU address.
bool valid_number(std::string_view number)
{
    if (!number.empty() && number[0] == '+')
        number.remove_prefix(1);
    if (number.empty())
        return false;
    for (char c : number) {
        if (c < '0' || c > '9')
            return false;
    }
    return true;
}

uint32_t utf8_chars(std::string_view text)
{
    uint32_t n = 0;
    for (unsigned char c : text)
        n += (c & 0xC0) != 0x80;
    return n;
}

// One "AT+CMGS=<TPDU length>" and its PDU ended by Ctrl-Z per part; the
// channel writes each after the modem's prompt.
int send_pdu(request *req, send_ctx &ctx, std::string_view text, const sms_lim_state &lim)
{
    std::vector<pdu_submit> parts;
    if (pdu_encode(ctx.number, text, parts) != 0 || parts.empty())
        return 1;
    if (lim.enforced && static_cast<int64_t>(parts.size()) > lim.budget)
        return ACT_STATUS_SMS_LIMIT;
    ctx.used = static_cast<uint32_t>(parts.size());
    ctx.cur_chars = parts.back().chars;
    ctx.max_chars = parts.back().capacity;
    if (ctx.validate)
        return set_command(req, "AT\r");

    std::string command;
    for (const pdu_submit &p : parts) {
        command += "AT+CMGS=" + std::to_string(p.tpdu_len) + "\r";
        command += p.hex;
        command += ctrl_z;
    }
    command += '\r';
    return set_command(req, command);
}

int send_text(request *req, send_ctx &ctx, std::string_view text)
{
    if (text.find(ctrl_z) != std::string_view::npos || text.find(esc) != std::string_view::npos)
        return ACT_STATUS_INVALID_ARGS;
    ctx.used = 1;
    ctx.cur_chars = utf8_chars(text);
    ctx.max_chars = text_mode_capacity;
    if (ctx.validate)
        return set_command(req, "AT\r");
    return set_commandf(req, "AT+CMGS=\"%s\"\r%.*s%c", ctx.number, static_cast<int>(text.size()), text.data(), ctrl_z);
}

int build_send(modem *mdm, ujson *json, request *req)
{
    act_args args(json);
    const char *number = args.text("number", number_max);
    const char *text = args.has("text") ? json->get_string("text") : nullptr;
    bool validate = args.flag("validate");
    if (!args.ok() || !text || !valid_number(number))
        return ACT_STATUS_INVALID_ARGS;

    int32_t mode = cached_int(mdm, "sms_mode", 0);
    if (mode != mode_pdu && mode != mode_text)
        return ACT_STATUS_NOT_SUPPORTED;

    int32_t sim = cached_int(mdm, "sim", INT32_MIN);
    if (sim == INT32_MIN) {
        LOG_DEBUG("Failed to get current SIM. Defaulting to 1\n");
        sim = 1;
    }
    sms_lim_state lim = sms_lim_budget(mdm, static_cast<uint32_t>(sim));
    if (lim.enforced && lim.budget < 1)
        return ACT_STATUS_SMS_LIMIT;

    send_ctx ctx = {};
    ctx.validate = validate;
    ctx.enforced = lim.enforced;
    ctx.sim = static_cast<uint32_t>(sim);
    std::snprintf(ctx.number, sizeof(ctx.number), "%s", number);
    int status = mode == mode_pdu ? send_pdu(req, ctx, text, lim) : send_text(req, ctx, text);
    return status == ACT_STATUS_OK ? set_extra(req, ctx) : status;
}

// Sent: the limit counts every PDU (best effort), the caller hears of it in
// the reply or, for an asynchronous send, through the event.
int parse_send(modem *mdm, ujson *json, request *req)
{
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    const auto *ctx = get_extra<send_ctx>(req);
    if (!ctx)
        return 1;
    if (ctx->validate) {
        json->add_bool("valid", true);
        json->add_int("sms_used", static_cast<int32_t>(ctx->used));
        json->add_int("cur_chars", static_cast<int32_t>(ctx->cur_chars));
        json->add_int("max_chars", static_cast<int32_t>(ctx->max_chars));
        return ACT_STATUS_OK;
    }
    if (ctx->enforced && sms_lim_inc(mdm, ctx->sim, ctx->used))
        LOG_DEBUG("Failed to increase sms limit counter\n");
    json->add_int("sms_used", static_cast<int32_t>(ctx->used));

    if (auto data = ujson::create()) {
        data->add_int("sms_used", static_cast<int32_t>(ctx->used));
        data->add_string("number", ctx->number);
        mdm->force_event(EVT_SND_SMS, data.get());
    }
    std::printf("SMS was sent to: %s\n", ctx->number);
    std::fflush(stdout);
    return ACT_STATUS_OK;
}

// ---- reading ----------------------------------------------------------------------

struct read_ctx {
    int32_t index; // negative: every message
    uint8_t single;
    uint8_t strip;
};

// djb2 over the PDU's hexadecimal text, kept to 16 bits: a cheap identity
// of the PDU stored with its record.
uint16_t pdu_hash(std::string_view hex)
{
    uint16_t hash = 5381;
    for (unsigned char c : hex)
        hash = static_cast<uint16_t>(hash * 33 + c);
    return hash;
}

bool is_hex(std::string_view text)
{
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

// The listing's records: a "+CMGL: <index>,<stat>,..." or "+CMGR: <stat>,..."
// header, then the PDU line. Anything else is passed over without losing the
// header it follows (a report that came in between), and a header whose PDU
// is missing or torn yields nothing, so one bad entry costs only itself. A
// header glued to the end of a torn line still starts its own entry.
std::vector<pdu_raw> read_listing(std::string_view text, int32_t index)
{
    std::vector<pdu_raw> raw;
    bool have_header = false;
    uint16_t at = 0, stat = 0;

    auto take = [&](std::string_view line) {
        if (line.size() <= 3)
            return;
        unsigned short a = 0, s = 0;
        if (line.starts_with("+CMGL: ")) {
            have_header = scan(line, "+CMGL: %hu,%hu", &a, &s) == 2;
            at = a;
            stat = s;
        } else if (line.starts_with("+CMGR: ")) {
            have_header = index >= 0 && scan(line, "+CMGR: %hu", &s) == 1;
            at = static_cast<uint16_t>(index);
            stat = s;
        } else if (have_header && is_hex(line)) {
            have_header = false;
            if (line.size() >= pdu_text_size) {
                LOG_ERROR("PDU at %u is longer than %zu characters: skipped\n", at, pdu_text_size - 1);
                return;
            }
            pdu_raw &r = raw.emplace_back();
            r.index = at;
            r.status = stat;
            r.length = static_cast<uint16_t>(line.size());
            std::memcpy(r.text, line.data(), line.size());
            r.hash = pdu_hash(line);
        }
    };

    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        while (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        // A header inside the line begins a new one.
        for (size_t cut; (cut = std::min(line.find("+CMGL: ", 1), line.find("+CMGR: ", 1))) != std::string_view::npos;) {
            take(line.substr(0, cut));
            line.remove_prefix(cut);
        }
        take(line);
    }
    return raw;
}

void reply_message(ujson *json, const sms_message &m)
{
    void *t = json->open_table(nullptr);
    json->add_int("index", m.index);
    json->add_string("sender", m.sender);
    char when[32] = "";
    time_t time = static_cast<time_t>(m.time);
    if (ctime_r(&time, when))
        when[std::strcspn(when, "\n")] = '\0';
    json->add_string("timestamp", when);
    json->add_long("date", m.time);
    json->add_string("text", m.text.c_str());
    json->add_int("udhl", m.udhl);
    json->add_int("iei_tp", m.iei);
    json->add_int("iei_len", m.iei_len);
    json->add_int("ref_id", m.ref);
    json->add_int("n_parts", m.total);
    void *parts = json->open_array("parts");
    for (uint8_t seq : m.parts)
        json->add_int(nullptr, seq);
    json->close_array(parts);
    reply_enum(json, "stat", m.status, sms_state_str);
    json->add_bool("missing", m.missing);
    json->add_int("n_ind", static_cast<int32_t>(m.pdus.size()));
    void *pdus = json->open_array("pdus");
    for (uint16_t i : m.pdus)
        json->add_int(nullptr, i);
    json->close_array(pdus);
    json->close_table(t);
}

int parse_read(modem *mdm, ujson *json, request *req)
{
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    const auto *ctx = get_extra<read_ctx>(req);
    if (!ctx)
        return 1;

    std::vector<pdu_raw> raw = read_listing(answer(mdm), ctx->index);
    std::vector<sms_message> messages;
    if (ctx->index >= 0) {
        bool found = false;
        for (const pdu_raw &r : raw)
            found |= r.index == ctx->index;
        if (!found)
            return ACT_STATUS_INVALID_ARGS;
    }
    if (!raw.empty() && pdu_decode(messages, raw, ctx->index, ctx->single, ctx->strip) < 0) {
        LOG_DEBUG("pdu_decode error!\n");
        return 1;
    }

    // A part stored twice is read once; the copy goes from the modem.
    for (const pdu_raw &r : raw) {
        if (!r.duplicate)
            continue;
        auto args = ujson::create();
        bool queued = args && args->add_int("index", r.index) == 0 && args->add_bool("single", true) == 0 &&
                      mdm->refresh(ACT_DELETE_SMS, args.get()) == 0;
        if (!queued)
            LOG_ERROR("Failed to delete pdu at:%d\n", r.index);
    }

    void *list = json->open_array("messages");
    for (const sms_message &m : messages)
        reply_message(json, m);
    json->close_array(list);
    return ACT_STATUS_OK;
}

} // namespace

// "pdu" sends 0, "text" 1. The format is taken as set once the command is
// built: sending and reading follow it from then on.
int set_sms_mode(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mode = args.keyword("mode", sms_mode_arg_enum);
    if (!args.ok())
        return args.status();
    int status = set_commandf(req, "AT+CMGF=%u\r", mode - 1);
    if (status == ACT_STATUS_OK)
        cache_mode(mdm, static_cast<int32_t>(mode));
    return status;
}

// "+CMGF: <mode>". A value other than 0 or 1 is reported (and cached) as
// unknown, with the modem's raw answer.
int get_sms_mode(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CMGF?\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string_view value = line_value(answer(mdm), "+CMGF: ");
    int32_t mode = value == "0" ? mode_pdu : value == "1" ? mode_text : 0;
    reply_enum(json, "format", static_cast<uint32_t>(mode), sms_mode_str);
    if (mode == 0)
        reply_raw(json, mdm);
    cache_mode(mdm, mode);
    return ACT_STATUS_OK;
}

// The three memories (read and delete, write and send, receive) by their
// 27.005 names ("SM", "ME", "MT", ...).
int set_msg_storage(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t mem1 = args.keyword("mem1", msg_storage_arg_enum);
    uint32_t mem2 = args.keyword("mem2", msg_storage_arg_enum);
    uint32_t mem3 = args.keyword("mem3", msg_storage_arg_enum);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+CPMS=\"%s\",\"%s\",\"%s\"\r", msg_storage_arg_str(mem1), msg_storage_arg_str(mem2),
                        msg_storage_arg_str(mem3));
}

// "+CPMS: <mem1>,<used1>,<total1>,<mem2>,...". The query goes out without
// its "\r": the request adds the line end. With "full" the whole store is
// selected and counted instead (the answer tells which was sent).
int get_msg_storage(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        return set_command(req, args.flag("full") ? full_storage_command : "AT+CPMS?");
    }
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string_view text = from_line(answer(mdm), "+CPMS: ");
    if (!text.starts_with("\r\n+CPMS: \""))
        return parse_full_storage(mdm, json);
    char name[3][3];
    storage_use mem[3];
    if (scan(text, "\r\n+CPMS: \"%2[^\"]\",%d,%d,\"%2[^\"]\",%d,%d,\"%2[^\"]\",%d,%d", name[0], &mem[0].used,
             &mem[0].total, name[1], &mem[1].used, &mem[1].total, name[2], &mem[2].used, &mem[2].total) != 9)
        return ACT_STATUS_INVALID_RESPONSE;
    for (size_t i = 0; i < 3; i++)
        mem[i].storage = msg_storage_arg_enum(name[i]);
    reply_storages(json, mem);
    return ACT_STATUS_OK;
}

int get_full_msg_storage(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, full_storage_command);
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    return parse_full_storage(mdm, json);
}

// 27.005 ranges: <mode> 0-3, <mt> 0-3, <bm> 0-3, <ds> 0-2, <bfr> 0-1.
int set_sms_evt_rep_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    int32_t mode = args.number("mode", 0, 3);
    int32_t mt = args.number("mt", 0, 3);
    int32_t bm = args.number("bm", 0, 3);
    int32_t ds = args.number("ds", 0, 2);
    int32_t bfr = args.number("bfr", 0, 1);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+CNMI=%d,%d,%d,%d,%d\r", mode, mt, bm, ds, bfr);
}

int get_sms_evt_rep_cfg(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CNMI?\r");
    int v[5];
    if (!answer_ok(mdm) ||
        scan(from_line(answer(mdm), "+CNMI: "), "\r\n+CNMI: %d,%d,%d,%d,%d", &v[0], &v[1], &v[2], &v[3], &v[4]) != 5)
        return ACT_STATUS_INVALID_RESPONSE;
    static const char *const keys[] = {"mode", "mt", "bm", "ds", "bfr"};
    for (size_t i = 0; i < 5; i++)
        json->add_int(keys[i], v[i]);
    return ACT_STATUS_OK;
}

// In PDU mode the text is encoded and may take several PDUs; in text mode it
// goes as it is, which refuses the characters that would end or cancel it.
// The sending limit decides first; "validate" only measures (the modem gets
// a bare "AT").
int send_sms(modem *mdm, int type, ujson *json, request *req)
{
    return type == 0 ? build_send(mdm, json, req) : parse_send(mdm, json, req);
}

// PDU mode only: a text-mode listing is not read as PDUs. "single" reads
// one stored PDU by itself; otherwise everything is listed and the messages
// built (all of them, or the one holding "index").
int read_sms(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return parse_read(mdm, json, req);
    if (cached_int(mdm, "sms_mode", 0) != mode_pdu)
        return ACT_STATUS_NOT_SUPPORTED;
    act_args args(json);
    read_ctx ctx = {};
    ctx.index = args.number("index", INT32_MIN, index_max);
    ctx.single = args.flag("single");
    ctx.strip = args.flag("strip");
    if (!args.ok() || (ctx.single && ctx.index < 0))
        return ACT_STATUS_INVALID_ARGS;
    int status = ctx.single ? set_commandf(req, "AT+CMGR=%d\r", ctx.index) : set_command(req, "AT+CMGL=4\r");
    return status == ACT_STATUS_OK ? set_extra(req, ctx) : status;
}

// One stored PDU with "single"; without it every stored message goes.
int delete_sms(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    if (!args.flag("single"))
        return set_command(req, "AT+CMGD=1,4\r");
    int32_t index = args.number("index", 0, index_max);
    return args.ok() ? set_commandf(req, "AT+CMGD=%d\r", index) : args.status();
}

// The parts of one message as read_sms lists them ("n_ind" and "pdus"), in
// one request.
int delete_pdus(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    int32_t n = args.number("n_ind", 1, parts_max);
    if (!args.ok() || !json->select_array("pdus"))
        return ACT_STATUS_INVALID_ARGS;
    std::string command;
    int32_t count = 0;
    bool ok = true;
    do {
        blob_attr *item = json->selection();
        int32_t index = json->get_int(nullptr);
        ok = blobmsg_type(item) == BLOBMSG_TYPE_INT32 && index >= 0 && index <= index_max && ++count <= n;
        if (ok)
            command += "AT+CMGD=" + std::to_string(index) + "\r";
    } while (ok && json->next_item());
    json->select_attr(nullptr);
    if (!ok || count != n)
        return ACT_STATUS_INVALID_ARGS;
    return set_command(req, command);
}

// +CMTI: <mem>,<index>: a message was stored. Each arrival is notified,
// also when it reuses the index of the previous one.
int urc_cmti(modem *mdm, ujson *)
{
    char storage[8];
    int32_t index;
    if (scan(answer(mdm), "\r\n+CMTI: \"%7[^\"]\",%d", storage, &index) != 2 || index < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    mdm->force_event(EVT_SMS_INDEX, &index);
    return ACT_STATUS_OK;
}

int generic_sms_probe(modem_driver *driver)
{
    static constexpr struct {
        uint32_t action;
        act_func func;
    } actions[] = {
        {ACT_SET_SMS_MODE, set_sms_mode},
        {ACT_GET_SMS_MODE, get_sms_mode},
        {ACT_SET_MSG_STORAGE_LOC, set_msg_storage},
        {ACT_GET_MSG_STORAGE_LOC, get_msg_storage},
        {ACT_GET_FULL_MSG_STORAGE_LOC, get_full_msg_storage},
        {ACT_SET_SMS_EVT_REP_CFG, set_sms_evt_rep_cfg},
        {ACT_GET_SMS_EVT_REP_CFG, get_sms_evt_rep_cfg},
        {ACT_SEND_SMS, send_sms},
        {ACT_READ_SMS, read_sms},
        {ACT_DELETE_SMS, delete_sms},
        {ACT_DELETE_PDUS, delete_pdus},
    };
    for (const auto &a : actions)
        modem_driver_override(driver, a.action, a.func);
    modem_driver_urc_override(driver, "+CMTI", urc_cmti);
    return 0;
}
