#include "drivers/generic/generic_sys.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_info.h"
#include "core/sim_config.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/generic_net.h"
#include "drivers/generic/generic_pdp.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

// The first line of the answer is the revision text ("EC25ECGAR06A07M4G").
int get_firmware(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GMR\r");
    std::string_view firmware = first_line(answer(mdm)).substr(0, 63);
    if (!answer_ok(mdm) || firmware.empty())
        return ACT_STATUS_INVALID_RESPONSE;
    reply_text(json, "firmware", firmware);
    cache_text(mdm, "firmware", firmware);
    return ACT_STATUS_OK;
}

int get_imei(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GSN\r");
    unsigned long long imei;
    if (!answer_ok(mdm) || scan(answer(mdm), "\r\n%llu\r\n", &imei) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    char digits[24];
    std::snprintf(digits, sizeof(digits), "%llu", imei);
    json->add_string("imei", digits);
    return ACT_STATUS_OK;
}

// Answered from what identification already learnt; the modem is not asked.
// Status 1 while the maker, the model or the firmware is still unknown.
int get_id_info(modem *mdm, int, ujson *json, request *)
{
    const modem_info *info = mdm->info();
    const char *manuf = info ? info->vendor : nullptr;
    const char *model = info && info->model[0] ? modem_info_model_name(info) : nullptr;
    const char *firmware = cached_text(mdm, "firmware");
    if (!manuf || !model || !firmware)
        return 1;

    char raw[128];
    std::snprintf(raw, sizeof(raw), "\r\n%s\r\n%s\r\nRevision: %s\r\n\r\nOK\r\n", manuf, model, firmware);
    json->add_string("manuf", manuf);
    json->add_string("model", model);
    json->add_string("firmware", firmware);
    json->add_string("raw", raw);
    return ACT_STATUS_OK;
}

int get_sn(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GSN\r");
    char serial[32];
    if (!answer_ok(mdm) || scan(answer(mdm), "\r\n%31s\r\n", serial) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_string("serial", serial);
    cache_text(mdm, "serial_num", serial);
    return ACT_STATUS_OK;
}

namespace
{

// Facility passwords: PINs are 4 to 8 digits, personalisation keys up to 16.
constexpr size_t password_max = 16;
// A USSD string as the network accepts it from the handset.
constexpr size_t ussd_request_max = 160;

// A query whose unreadable answer is still answered: the raw text under
// "response" and "<key>_id" 0, so a caller can see what the modem said.
int query_enum_or_raw(modem *mdm, int type, ujson *json, request *req, const char *command, const char *pattern,
                      const char *key, vocab_str_fn str)
{
    if (type == 0)
        return set_command(req, command);
    int value;
    if (answer_ok(mdm) && scan(answer(mdm), pattern, &value) == 1 && value >= 0) {
        reply_enum(json, key, static_cast<uint32_t>(value) + 1, str);
        return ACT_STATUS_OK;
    }
    char id_key[32];
    std::snprintf(id_key, sizeof(id_key), "%s_id", key);
    json->add_int(id_key, 0);
    reply_raw(json, mdm);
    return ACT_STATUS_OK;
}

} // namespace

// "+GCAP: +CGSM,+FCLASS,+DS": one entry per listed set, then what the
// model's row says it can do.
int get_capabilities(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GCAP\r");
    std::string_view list = line_value(answer(mdm), "+GCAP: ");
    if (!answer_ok(mdm) || list.empty())
        return ACT_STATUS_INVALID_RESPONSE;

    void *array = json->open_array("cap_list");
    while (!list.empty()) {
        size_t comma = list.find(',');
        std::string_view item = list.substr(0, comma);
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
        while (item.starts_with(' '))
            item.remove_prefix(1);
        while (item.ends_with(' '))
            item.remove_suffix(1);
        if (item.empty())
            continue;
        uint32_t id = cap_set_enum(item);
        void *entry = json->open_table(nullptr);
        json->add_int("id", static_cast<int32_t>(id));
        // A set the vocabulary does not know keeps the modem's own name.
        reply_text(json, "name", id ? std::string_view(cap_set_str(id)) : item);
        json->close_table(entry);
    }
    json->close_array(array);

    const modem_info *info = mdm->info();
    if (info && info->model[0])
        modem_info_fill_blob(*json, *info);
    return ACT_STATUS_OK;
}

int set_func(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t func = args.keyword("func", phone_func_arg_enum);
    bool reset = args.flag("reset");
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+CFUN=%u,%d\r", func - 1, reset ? 1 : 0);
}

int get_func(modem *mdm, int type, ujson *json, request *req)
{
    return query_enum_or_raw(mdm, type, json, req, "AT+CFUN?\r", "\r\n+CFUN: %d", "func", phone_func_str);
}

int set_err_msg_fmt(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+CMEE=%u\r", "format", err_msg_fmt_arg_enum);
}

int get_err_msg_fmt(modem *mdm, int type, ujson *json, request *req)
{
    return query_enum_or_raw(mdm, type, json, req, "AT+CMEE?\r", "\r\n+CMEE: %d", "format", err_msg_fmt_str);
}

int set_clip_mode(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+CLIP=%u\r", "mode", clip_mode_arg_enum);
}

// "+CLIP: <n>,<m>": the presentation setting and the network's provisioning.
int get_clip_mode(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CLIP?\r");
    int mode, state;
    if (!answer_ok(mdm) || scan(answer(mdm), "\r\n+CLIP: %d,%d", &mode, &state) != 2 || mode < 0 || state < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "mode", static_cast<uint32_t>(mode) + 1, clip_mode_str);
    reply_enum(json, "state", static_cast<uint32_t>(state) + 1, clip_stat_str);
    return ACT_STATUS_OK;
}

int set_crc_fmt(modem *mdm, int type, ujson *json, request *req)
{
    return set_keyword(mdm, type, json, req, "AT+CRC=%u\r", "format", cell_rc_arg_enum);
}

int get_crc_fmt(modem *mdm, int type, ujson *json, request *req)
{
    return query_enum(mdm, type, json, req, "AT+CRC?\r", "\r\n+CRC: %d", "format", cell_rc_str);
}

// An answer without a readable +CPAS still completes, with status 0.
int get_mod_status(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CPAS\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    int pas;
    uint32_t id = scan(answer(mdm), "\r\n+CPAS: %d", &pas) == 1 && pas >= 0 ? static_cast<uint32_t>(pas) + 1 : 0;
    reply_enum(json, "status", id, mod_act_stat_str);
    return ACT_STATUS_OK;
}

// The facility goes into the command as the vocabulary's own code, so only
// known codes reach the modem.
int set_fac_lock(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t facility = args.keyword("facility", facility_id);
    uint32_t state = args.keyword("state", fac_lock_state_id);
    const char *pass = args.text("pass", password_max);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+CLCK=\"%s\",%u,\"%s\"\r", facility_str(facility), state - 1, pass);
}

int get_fac_lock(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0) {
        act_args args(json);
        uint32_t facility = args.keyword("facility", facility_id);
        if (!args.ok())
            return args.status();
        return set_commandf(req, "AT+CLCK=\"%s\",2\r", facility_str(facility));
    }
    int status;
    if (!answer_ok(mdm) || scan(answer(mdm), "\r\n+CLCK: %d", &status) != 1 || status < 0)
        return ACT_STATUS_INVALID_RESPONSE;
    reply_enum(json, "state", static_cast<uint32_t>(status) + 1, fac_lock_state_str);
    return ACT_STATUS_OK;
}

int set_new_pass(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    uint32_t facility = args.keyword("facility", facility_id);
    const char *old_pass = args.text("old_pass", password_max);
    const char *new_pass = args.text("new_pass", password_max);
    if (!args.ok())
        return args.status();
    return set_commandf(req, "AT+CPWD=\"%s\",\"%s\",\"%s\"\r", facility_str(facility), old_pass, new_pass);
}

// The modem applies the setting after its next restart.
int set_auto_tz_update(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0) {
        if (!answer_ok(mdm))
            return ACT_STATUS_INVALID_RESPONSE;
        json->add_bool("restart", true);
        return ACT_STATUS_OK;
    }
    act_args args(json);
    if (!args.has("enabled"))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+CTZU=%d\r", args.flag("enabled") ? 1 : 0);
}

// Vendors add modes beside 0 and 1 (Quectel's 3: local time); any of
// them means updates are on.
int get_auto_tz_update(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CTZU?\r");
    int mode;
    if (!answer_ok(mdm) || scan(answer(mdm), "\r\n+CTZU: %d", &mode) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_bool("enabled", mode != 0);
    return ACT_STATUS_OK;
}

// --- SIM slots ----------------------------------------------------------------------

namespace
{

uint32_t slot_count(const modem *mdm)
{
    return mdm->sim_cfg() ? std::min(mdm->sim_slot_count(), sim_config::max_slots) : 0;
}

// The slot the selector lines pick now. A modem without slot wiring has
// only its one slot. False when the lines cannot be read or pick no slot.
bool current_slot(const modem *mdm, uint32_t &slot)
{
    const sim_config *cfg = mdm->sim_cfg();
    if (!cfg || slot_count(mdm) == 0 || cfg->control_kind() == 0) {
        slot = 1;
        return true;
    }
    uint32_t sw1;
    return cfg->get_sw1_value(sw1) == 0 && cfg->get_current_sim_slot(sw1, slot) == 0;
}

// Drives the selector lines to slot. False when a line the slot uses could
// not be set; a slot that uses neither line is selected as it is.
bool select_slot(const sim_config &cfg, uint32_t slot)
{
    const sim_slot &s = cfg.slots()[slot - 1];
    bool done1 = false, done2 = false;
    int sw1 = cfg.set_sw1_value(slot, done1);
    int sw2 = cfg.set_sw2_value(slot, done2);
    // Switch 1 is only driven for slots of control type 2.
    bool uses_sw1 = s.control_type == 2 && s.switch1_state != SIM_SWITCH_UNUSED;
    bool uses_sw2 = s.switch2_state != SIM_SWITCH_UNUSED;
    return (!uses_sw1 || sw1 == 0) && (!uses_sw2 || sw2 == 0);
}

// Turns the radio off; the parse phase switches to slot, kept in extra.
int start_slot_switch(request *req, uint32_t slot)
{
    int status = set_command(req, "AT+CFUN=0\r");
    return status == ACT_STATUS_OK ? set_extra(req, slot) : status;
}

void radio_on(modem *mdm)
{
    auto args = ujson::create();
    if (!args) {
        LOG_ERROR("[MODEM_DRIVER] uJson memory allocation error!\n");
        return;
    }
    args->add_string("func", phone_func_arg_str(2));
    if (mdm->refresh(ACT_SET_FUNC, args.get()) != 0)
        LOG_ERROR("[MODEM_DRIVER] Failed to turn the radio back on for `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
}

// With the radio off: the lines are switched, the radio comes back on and
// the new slot is announced.
int finish_slot_switch(modem *mdm, ujson *json, request *req)
{
    const uint32_t *target = get_extra<uint32_t>(req);
    if (!target)
        return ACT_STATUS_INVALID_RESPONSE;
    uint32_t slot = *target;
    // The radio did not go off: nothing was switched.
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    const sim_config *cfg = mdm->sim_cfg();
    bool selected = !cfg || select_slot(*cfg, slot);
    radio_on(mdm);
    if (!selected) {
        LOG_ERROR("[MODEM_DRIVER] Failed to select SIM slot %u for `%s [%s]` modem!\n", slot, mdm->id(),
                  mdm->vid_pid());
        return 1;
    }
    int32_t number = static_cast<int32_t>(slot);
    mdm->new_event(EVT_SIM_CHANGE, &number);
    json->add_int("index", number);
    return ACT_STATUS_OK;
}

} // namespace

int set_io_sim_slot(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return finish_slot_switch(mdm, json, req);
    act_args args(json);
    int32_t index = args.number("index", 1, static_cast<int32_t>(slot_count(mdm)));
    if (!args.ok())
        return args.status();
    return start_slot_switch(req, static_cast<uint32_t>(index));
}

// The modem is only asked to prove it answers; the slot is the board's.
int get_io_sim_slot(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    uint32_t slot;
    if (!current_slot(mdm, slot)) {
        LOG_ERROR("[MODEM_DRIVER] Failed to read the SIM slot of `%s [%s]` modem!\n", mdm->id(), mdm->vid_pid());
        return 1;
    }
    json->add_int("index", static_cast<int32_t>(slot));
    return ACT_STATUS_OK;
}

// The next slot after the current one, from the last back to the first.
// Unreadable lines count as slot 1.
int change_sim_slot(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return finish_slot_switch(mdm, json, req);
    uint32_t count = slot_count(mdm);
    if (count == 0)
        return ACT_STATUS_NOT_SUPPORTED;
    uint32_t slot;
    if (!current_slot(mdm, slot) || slot > count)
        slot = 1;
    return start_slot_switch(req, slot % count + 1);
}

// --- USSD ---------------------------------------------------------------------------

namespace
{

// What the answer to a USSD command means for the awaited +CUSD.
enum class ussd_wait : uint8_t { await, release };

} // namespace

// No argument: "AT+CUSD". A request without a mode is sent with result
// presentation enabled, since its answer is what the caller wants.
int set_ussd(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0) {
        if (!answer_ok(mdm))
            return ACT_STATUS_INVALID_RESPONSE;
        if (const ussd_wait *wait = get_extra<ussd_wait>(req)) {
            bool await = *wait == ussd_wait::await;
            mdm->set_last_active_urc(await ? "+CUSD" : nullptr);
        }
        return ACT_STATUS_OK;
    }

    act_args args(json);
    uint32_t mode = args.opt_keyword("mode", ussd_mode_enum);
    bool has_request = args.has("request");
    const char *text = args.opt_text("request", ussd_request_max);
    bool has_dcs = args.has("coding_scheme");
    int32_t dcs = args.opt_number("coding_scheme", 0, 255, 0);
    if (!args.ok() || (has_request && !*text) || (has_dcs && !has_request))
        return ACT_STATUS_INVALID_ARGS;
    if (!mode && !has_request)
        return set_command(req, "AT+CUSD\r");

    constexpr uint32_t enable = 2; // <n> 1
    if (!mode)
        mode = enable;
    int status;
    if (!has_request)
        status = set_commandf(req, "AT+CUSD=%u\r", mode - 1);
    else if (!has_dcs)
        status = set_commandf(req, "AT+CUSD=%u,\"%s\"\r", mode - 1, text);
    else
        status = set_commandf(req, "AT+CUSD=%u,\"%s\",%d\r", mode - 1, text, dcs);
    if (status != ACT_STATUS_OK)
        return status;

    // An enabled request waits for the network's +CUSD; disabling or
    // cancelling ends any wait. Plain enabling leaves it as it is.
    if (mode == enable && !has_request)
        return ACT_STATUS_OK;
    return set_extra(req, mode == enable ? ussd_wait::await : ussd_wait::release);
}

// "+CUSD: <m>[,<str>[,<dcs>]]", or the error the network's answer turned
// into. <m> is passed on as the 3GPP number ("state_id": 0 done, 1 more
// input wanted, 2 released by the network, ...).
int urc_cusd(modem *mdm, ujson *json)
{
    mdm->set_last_active_urc(nullptr);
    std::string_view text = answer(mdm);
    std::string_view line = text.starts_with("\r\n") ? text.substr(2) : text;
    if (line.starts_with("+CME") || line.starts_with("+CMS")) {
        reply_text(json, "response", line.substr(0, line.find("\r\n")));
    } else {
        int state = 0, dcs = 0;
        char data[257];
        int fields = scan(text, "\r\n+CUSD: %d,\"%256[^\"]\",%d", &state, data, &dcs);
        if (fields < 1)
            return ACT_STATUS_INVALID_URC;
        json->add_int("state_id", state);
        if (fields >= 2)
            json->add_string("response", data);
        if (fields == 3)
            json->add_int("coding_scheme", dcs);
    }
    mdm->new_event(EVT_SERVICE_DATA, json);
    return ACT_STATUS_OK;
}

int generic_sys_probe(modem_driver *driver)
{
    static constexpr struct {
        uint32_t action;
        act_func func;
    } actions[] = {
        {ACT_GET_FIRMWARE, get_firmware},
        {ACT_GET_IMEI, get_imei},
        {ACT_GET_ID_INFO, get_id_info},
        {ACT_GET_CAPABILITIES, get_capabilities},
        {ACT_SET_FUNC, set_func},
        {ACT_GET_FUNC, get_func},
        {ACT_SET_ERR_MSG_FMT, set_err_msg_fmt},
        {ACT_GET_ERR_MSG_FMT, get_err_msg_fmt},
        {ACT_SET_CLIP_MODE, set_clip_mode},
        {ACT_GET_CLIP_MODE, get_clip_mode},
        {ACT_SET_CRC_FMT, set_crc_fmt},
        {ACT_GET_CRC_FMT, get_crc_fmt},
        {ACT_GET_SN, get_sn},
        {ACT_GET_MOD_STATUS, get_mod_status},
        {ACT_SET_FAC_LOCK, set_fac_lock},
        {ACT_GET_FAC_LOCK, get_fac_lock},
        {ACT_SET_SIM_SLOT, set_io_sim_slot},
        {ACT_GET_SIM_SLOT, get_io_sim_slot},
        {ACT_CHANGE_SIM_SLOT, change_sim_slot},
        {ACT_SET_USSD, set_ussd},
        {ACT_SET_NEW_PASS, set_new_pass},
        {ACT_SET_AUTO_TZ_UPDATE, set_auto_tz_update},
        {ACT_GET_AUTO_TZ_UPDATE, get_auto_tz_update},
    };
    for (const auto &a : actions)
        modem_driver_override(driver, a.action, a.func);
    modem_driver_urc_override(driver, "+CUSD", urc_cusd);
    // Registration reports, operator selection and scan, and their URCs.
    generic_net_install(driver);
    // Packet data contexts, addresses and attach.
    generic_pdp_install(driver);
    return 0;
}
