#include "drivers/generic/generic_pin.h"

#include <algorithm>

#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

constexpr struct {
    std::string_view text;
    uint32_t state;
} cpin_texts[] = {
    {"READY", PIN_STATE_OK},
    {"SIM PIN", PIN_STATE_PIN},
    {"SIM PUK", PIN_STATE_PUK},
    {"PH-NET PIN", PIN_STATE_PH_NET_PIN},
    {"PH-NET PUK", PIN_STATE_PH_NET_PUK},
    {"PH-NETSUB PIN", PIN_STATE_PH_NETSUB_PIN},
    {"PH-NETSUB PUK", PIN_STATE_PH_NETSUB_PUK},
    {"NOT INSERTED", PIN_STATE_NOT_INSERTED},
    {"SIM FAILURE", PIN_STATE_FAILURE},
    {"SIM BUSY", PIN_STATE_BUSY},
    {"NOT READY", PIN_STATE_NOT_READY},
};

// The SIM errors a +CPIN query can end in (3GPP TS 27.007 9.2.1), by number
// and by verbose text.
constexpr struct {
    int code;
    std::string_view text;
    uint32_t state;
} cme_sim_errors[] = {
    {10, "SIM not inserted", PIN_STATE_NOT_INSERTED},
    {11, "SIM PIN required", PIN_STATE_PIN},
    {12, "SIM PUK required", PIN_STATE_PUK},
    {13, "SIM failure", PIN_STATE_FAILURE},
    {14, "SIM busy", PIN_STATE_BUSY},
};

// Lengths of what the SIM accepts: PIN 4 to 8 digits, PUK 8.
constexpr size_t pin_min = 4;
constexpr size_t pin_max = 8;
constexpr size_t puk_len = 8;

bool all_digits(std::string_view text, size_t min, size_t max)
{
    return text.size() >= min && text.size() <= max &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A final ERROR, verbose or numeric ("4\r" with ATV0).
bool ends_in_error(std::string_view text)
{
    return text.ends_with("\r\nERROR\r\n") || text == "4\r" || text.ends_with("\n4\r") || text.ends_with("\r4\r");
}

// The PIN state a +CME error to +CPIN? stands for; 0 when it is no SIM error.
uint32_t cme_state(std::string_view error)
{
    for (const auto &e : cme_sim_errors) {
        if (error == e.text)
            return e.state;
        int code;
        if (scan(error, "%d", &code) == 1 && code == e.code)
            return e.state;
    }
    return PIN_STATE_UNKNOWN;
}

} // namespace

uint32_t cpin_state(std::string_view text)
{
    for (const auto &t : cpin_texts)
        if (text == t.text)
            return t.state;
    return PIN_STATE_UNKNOWN;
}

// The first line of the answer; dropped from the cache when there is none.
int get_imsi(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CIMI\r");
    std::string_view imsi = first_line(answer(mdm));
    if (!answer_ok(mdm) || imsi.empty()) {
        cache_drop(mdm, "imsi");
        return ACT_STATUS_INVALID_RESPONSE;
    }
    reply_text(json, "imsi", imsi);
    cache_text(mdm, "imsi", imsi);
    return ACT_STATUS_OK;
}

int set_pin_code(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    const char *code = args.text("code", pin_max);
    if (!args.ok() || !all_digits(code, pin_min, pin_max))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+CPIN=\"%s\"\r", code);
}

int set_puk_code(modem *mdm, int type, ujson *json, request *req)
{
    if (type != 0)
        return result_status(mdm);
    act_args args(json);
    const char *puk = args.text("puk", puk_len);
    const char *pin = args.text("pin", pin_max);
    if (!args.ok() || !all_digits(puk, puk_len, puk_len) || !all_digits(pin, pin_min, pin_max))
        return ACT_STATUS_INVALID_ARGS;
    return set_commandf(req, "AT+CPIN=\"%s\",\"%s\"\r", puk, pin);
}

// The functionality is asked first: with the radio and SIM off (+CFUN 0 or
// 7) the SIM cannot answer and +CPIN? ends in an error, which then means
// "Not ready", not a missing or broken SIM. With the SIM on, the errors
// that name a SIM condition give that condition.
int get_pin_state(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+CFUN?\rAT+CPIN?\r");

    std::string_view text = answer(mdm);
    int fun = -1;
    std::string_view fun_text = line_value(text, "+CFUN: ");
    bool sim_off = scan(fun_text, "%d", &fun) == 1 && (fun == 0 || fun == 7);

    uint32_t state = PIN_STATE_UNKNOWN;
    std::string_view cpin = line_value(text, "+CPIN: ");
    std::string_view error = line_value(text, "+CME ERROR: ");
    if (!cpin.empty() && answer_ok(mdm))
        state = cpin_state(cpin);
    else if (!error.empty() || ends_in_error(text))
        state = sim_off ? PIN_STATE_NOT_READY : cme_state(error);
    if (state == PIN_STATE_UNKNOWN)
        return ACT_STATUS_INVALID_RESPONSE;

    reply_enum(json, "pin_state", state, pin_state_str);
    int32_t value = static_cast<int32_t>(state);
    mdm->new_event(EVT_PIN_STATE, &value);
    return ACT_STATUS_OK;
}

int urc_cpin(modem *mdm, ujson *)
{
    std::string_view text = answer(mdm);
    int32_t state = static_cast<int32_t>(cpin_state(line_value(text, "+CPIN: ")));
    if (state == PIN_STATE_UNKNOWN)
        return ACT_STATUS_INVALID_URC;
    LOG_DEBUG("Modem `%s [%s]` URC Event: PIN State: %s (%d)\n", mdm->id(), mdm->vid_pid(),
              pin_state_str(static_cast<uint32_t>(state)), state);
    mdm->new_event(EVT_PIN_STATE, &state);
    update_registration(mdm);
    return ACT_STATUS_OK;
}

int generic_pin_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_GET_IMSI, get_imsi);
    modem_driver_override(driver, ACT_SET_PIN_CODE, set_pin_code);
    modem_driver_override(driver, ACT_GET_PIN_STATE, get_pin_state);
    modem_driver_override(driver, ACT_SET_PUK_CODE, set_puk_code);
    modem_driver_urc_override(driver, "+CPIN", urc_cpin);
    return 0;
}
