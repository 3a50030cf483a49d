#include "drivers/generic/generic_call.h"

#include <charconv>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "ubus/vocab.h"
#include "util/ujson.h"

namespace
{

// Longest number dialled; what fits a 27.007 dial string for a voice call.
constexpr size_t number_max = 40;

// The type-of-number vocabulary id of a type of address (145 international,
// 129 unknown): bits 6..4, plus one.
uint32_t number_type(int toa)
{
    return (static_cast<uint32_t>(toa) >> 4 & 7) + 1;
}

bool to_int(std::string_view text, int *value)
{
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return ec == std::errc() && end == text.data() + text.size();
}

// The text of a URC after its prefix ("+CLIP: "), up to its line end; false
// when the line is another.
bool urc_text(const modem *mdm, std::string_view prefix, std::string_view *text)
{
    std::string_view line = first_line(answer(mdm));
    if (!line.starts_with(prefix))
        return false;
    *text = line.substr(prefix.size());
    return true;
}

// Rings repeat every few seconds and calls end alike each time: each report
// is notified, whether or not its value changed since the last one.
// Ring and call end are table events: the ring carries its type, the end
// nothing.
void raise_forced(modem *mdm, uint32_t event, const ujson &data)
{
    mdm->force_event(event, &data);
}

void raise_ring(modem *mdm, uint32_t ring)
{
    if (auto data = ujson::create()) {
        reply_enum(data.get(), "ring_type", ring, ring_type_id_str);
        raise_forced(mdm, EVT_RING, *data);
    }
}

} // namespace

// Only digits, '+', '*' and '#' are dialled: anything else (the ';' that
// would end the dial string, modifiers) is refused.
int send_voice_call(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    std::string_view number = args.text("number", number_max);
    if (!args.ok() || number.empty() || number.find_first_not_of("0123456789+*#") != std::string_view::npos)
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "ATD%s;\r", number.data());
}

int accept_voice_call(modem *mdm, int type, ujson *, request *req)
{
    return simple_command(mdm, type, req, "ATA\r");
}

int reject_voice_call(modem *mdm, int type, ujson *, request *req)
{
    return simple_command(mdm, type, req, "AT+CHUP\r");
}

// +CLCC: <id>,<dir>,<stat>,<mode>,<mpty>[,<number>,<type>[,<alpha>]] per
// call, one "list" element each; the number and the name are captured
// with their closing quote.
int get_incoming_voice_calls(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CLCC\r");
    if (!answer_ok(mdm))
        return ACT_STATUS_INVALID_RESPONSE;

    void *list = json->open_array("list");
    for_each_line(answer(mdm), "+CLCC: ", [json](std::string_view line) {
        int id, dir, stat, mode, mpty, toa;
        char number[64];
        char alpha[128];
        int n = scan(line, "+CLCC: %d,%d,%d,%d,%d,\"%63[^,\r],%d,\"%127[^,\r]", &id, &dir, &stat, &mode, &mpty, number,
                     &toa, alpha);
        if (n < 5 || dir < 0 || stat < 0 || mode < 0)
            return;
        void *row = json->open_table(nullptr);
        reply_enum(json, "direction", static_cast<uint32_t>(dir) + 1, call_direction_id_str);
        reply_enum(json, "state", static_cast<uint32_t>(stat) + 1, call_state_id_str);
        reply_enum(json, "mode", static_cast<uint32_t>(mode) + 1, call_mode_id_str);
        json->add_bool("multiparty", mpty != 0);
        if (n >= 6)
            reply_text(json, "number", unquote(number));
        if (n >= 7)
            reply_enum(json, "type", number_type(toa), call_type_id_str);
        if (n >= 8)
            reply_text(json, "alpha", unquote(alpha));
        json->close_table(row);
    });
    json->close_array(list);
    return ACT_STATUS_OK;
}

// +CLIP: <number>,<type>[,<subaddr>,<satype>[,<alpha>[,<CLI validity>]]]
// comes with every RING of an incoming call; each one is notified.
int urc_clip(modem *mdm, ujson *json)
{
    std::string_view text;
    if (!urc_text(mdm, "+CLIP: ", &text))
        return ACT_STATUS_INVALID_URC;
    std::string_view f[6];
    size_t n = split_fields(text, f, 6);
    int toa;
    if (n < 2 || !to_int(f[1], &toa))
        return ACT_STATUS_INVALID_URC;

    reply_text(json, "number", f[0]);
    reply_enum(json, "type", number_type(toa), call_type_id_str);
    if (n >= 5 && !f[4].empty())
        reply_text(json, "alpha", f[4]);
    int validity;
    if (n >= 6 && to_int(f[5], &validity) && validity >= 0)
        reply_enum(json, "validity", static_cast<uint32_t>(validity) + 1, cli_valid_id_str);
    mdm->force_event(EVT_CLIP, json);
    return ACT_STATUS_OK;
}

// +CRING: <type>, the type possibly followed by its details ("GPRS IP,...",
// "ASYNC,<priority>"). A type this daemon does not know still rings, as
// type 0.
int urc_cring(modem *mdm, ujson *)
{
    std::string_view text;
    if (!urc_text(mdm, "+CRING: ", &text))
        return ACT_STATUS_INVALID_URC;
    text = text.substr(0, text.find(','));
    if (text.empty())
        return ACT_STATUS_INVALID_URC;
    uint32_t ring = ring_type_id_enum(text);
    if (!ring)
        ring = ring_type_id_enum(text.substr(0, text.find(' ')));
    raise_ring(mdm, ring);
    return ACT_STATUS_OK;
}

// A bare RING is an incoming voice call.
int urc_ring(modem *mdm, ujson *)
{
    raise_ring(mdm, ring_type_id_enum("VOICE"));
    return ACT_STATUS_OK;
}

// The event carries no information of its own: an empty table.
int urc_no_carrier(modem *mdm, ujson *)
{
    if (auto data = ujson::create())
        raise_forced(mdm, EVT_NO_CARRIER, *data);
    return ACT_STATUS_OK;
}

int generic_call_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_SEND_VCALL, send_voice_call);
    modem_driver_override(driver, ACT_ACCEPT_VCALL, accept_voice_call);
    modem_driver_override(driver, ACT_REJECT_VCALL, reject_voice_call);
    modem_driver_override(driver, ACT_GET_INC_VCALLS, get_incoming_voice_calls);
    modem_driver_urc_override(driver, "+CLIP", urc_clip);
    modem_driver_urc_override(driver, "+CRING", urc_cring);
    modem_driver_urc_override(driver, "RING", urc_ring);
    modem_driver_urc_override(driver, "NO CARRIER", urc_no_carrier);
    return 0;
}
