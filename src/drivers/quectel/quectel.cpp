#include "drivers/quectel/quectel.h"

#include <cstring>

#include "core/modem.h"
#include "drivers/quectel/quectel_answer.h"
#include "drivers/quectel/quectel_band.h"
#include "drivers/quectel/quectel_data.h"
#include "drivers/quectel/quectel_file.h"
#include "drivers/quectel/quectel_sys.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/quectel/quectel_net.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{

// Generic actions Quectel firmware has no command for: they answer
// "Functionality not supported" instead of sending a command that fails.
constexpr uint32_t withdrawn[] = {
    ACT_SET_UE_USAGE_CFG,   ACT_GET_UE_USAGE_CFG,   ACT_SET_M2M_STATE,      ACT_GET_M2M_STATE,
    ACT_GET_MTU_INFO,       ACT_SET_MTU_INFO,       ACT_GET_RAT_PRIORITY,   ACT_SET_RAT_PRIORITY,
    ACT_GET_FROUTING_STATE, ACT_SET_FROUTING_STATE, ACT_GET_USSD_TEXT_MODE, ACT_SET_USSD_TEXT_MODE,
};

// The URC line without the line break in front of it, so that patterns
// starting with the URC's own name match.
std::string_view urc_line(const modem *mdm)
{
    std::string_view text = answer(mdm);
    while (!text.empty() && (text.front() == '\r' || text.front() == '\n'))
        text.remove_prefix(1);
    return text;
}

// The firmware update state: the first state whose name begins the reported
// text, else 0 ("UNKNOWN").
uint32_t fota_state_of(std::string_view text)
{
    for (uint32_t id = 1; id <= 10; id++)
        if (quectel::starts_nocase(text, fota_state_str(id)))
            return id;
    return 0;
}

// +QIND: "FOTA",<state>[,<percent or error>]: reported to the listeners of
// the daemon's "gsm.fota_state" bus event and raised as the modem's event.
int qind_fota(modem *mdm, std::string_view line, ujson *json)
{
    char text[16] = {};
    int value = 0;
    int n = scan(line, "+QIND: \"FOTA\",\"%15[^,\r\"]\",%d\r\n", text, &value);
    if (n < 1)
        return ACT_STATUS_INVALID_URC;
    uint32_t id = fota_state_of(text);
    const char *state = fota_state_str(id);
    switch (id) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 8:
        LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` URC Event: FOTA State => %s\n", mdm->id(), mdm->vid_pid(), state);
        break;
    case 4:
    case 9:
        if (n < 2)
            return ACT_STATUS_INVALID_URC;
        json->add_int("percent", value);
        LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` URC Event: FOTA State => %s %d%%\n", mdm->id(), mdm->vid_pid(),
                  state, value);
        break;
    default:
        if (n < 2)
            return ACT_STATUS_INVALID_URC;
        json->add_int("error", value);
        LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` URC Event: FOTA State => %s %d\n", mdm->id(), mdm->vid_pid(), state,
                  value);
        break;
    }
    json->add_int("state_id", static_cast<int32_t>(id));
    json->add_string("state", state);

    auto event = json->clone();
    if (!event) {
        LOG_ERROR("[QUECTEL_DRIVER] Failed to allocate memory for `%s [%s]` fota event ujson!\n", mdm->id(),
                  mdm->vid_pid());
    } else {
        event->add_string("modem_id", mdm->id());
        if (mdm->broadcast("gsm.fota_state", *event))
            LOG_ERROR("[QUECTEL_DRIVER] Failed to send 'gsm.fota_state' ubus event for `%s [%s]` modem!\n", mdm->id(),
                      mdm->vid_pid());
    }
    mdm->new_event(EVT_FOTA_STATE, json);
    return ACT_STATUS_OK;
}

// +QIND: "csq",<rssi>,<ber>: the +CSQ coding, the level as 2 * index - 113 dBm.
// Index 99 (or anything past 31) means the level is not known: no level is
// reported rather than a made-up one.
int qind_csq(modem *mdm, std::string_view line, ujson *json)
{
    int index = 0;
    int32_t ber = 0;
    if (scan(line, "\r\n+QIND: \"csq\",%d,%d\r\n", &index, &ber) != 2)
        return ACT_STATUS_INVALID_URC;
    if (index >= 0 && index <= 31) {
        int32_t rssi = index * 2 - 113;
        json->add_int("rssi", rssi);
        LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` URC Event: RSSI Signal  => %d dBm\n", mdm->id(), mdm->vid_pid(),
                  rssi);
        mdm->new_event(EVT_RSSI, &rssi);
    }
    json->add_int("ber", ber);
    LOG_DEBUG("[QUECTEL_DRIVER] Modem `%s [%s]` URC Event: BER Signal  => %d\n", mdm->id(), mdm->vid_pid(), ber);
    mdm->new_event(EVT_BER, &ber);
    return ACT_STATUS_OK;
}

// +EMM ERROR / +ESM ERROR: the network's reject cause, by number and text.
int raise_cause(modem *mdm, uint32_t event, int cause, const char *(*text)(uint32_t))
{
    auto data = ujson::create();
    if (!data) {
        LOG_ERROR("[QUECTEL_COMMON] uJson memory allocation error!\n");
        return ACT_STATUS_NO_MEMORY;
    }
    notify_emm_esm_errors(mdm, event, cause, *data, text);
    return ACT_STATUS_OK;
}

} // namespace

int urc_qind(modem *mdm, ujson *json)
{
    if (!json) {
        LOG_ERROR("[QUECTEL_DRIVER] uJson memory allocation error!\n");
        return ACT_STATUS_NO_MEMORY;
    }
    std::string_view line = urc_line(mdm);
    char name[32] = {};
    if (scan(line, "+QIND: %31[^,\r,]", name) != 1)
        return ACT_STATUS_INVALID_URC;
    if (quectel::starts_nocase(name, "\"FOTA\""))
        return qind_fota(mdm, line, json);
    if (quectel::starts_nocase(name, "\"csq\""))
        return qind_csq(mdm, line, json);
    return ACT_STATUS_INVALID_URC;
}

// The system mode and its values, read as AT+QCSQ answers are.
int urc_qcsq_common(modem *mdm, ujson *)
{
    return qcsq_report(mdm, urc_line(mdm), nullptr, "URC Event");
}

int urc_qcsq(modem *mdm, ujson *json)
{
    return urc_qcsq_common(mdm, json);
}

void notify_emm_esm_errors(modem *mdm, uint32_t event, int cause, ujson &data, const char *(*text)(uint32_t))
{
    data.add_int("cause_id", cause);
    data.add_string("cause", text(static_cast<uint32_t>(cause)));
    mdm->new_event(event, &data);
}

int urc_emm(modem *mdm, ujson *)
{
    std::string_view line = urc_line(mdm);
    int cause = 0;
    if (scan(line, "\r\n+EMM ERROR: %*d,%d", &cause) != 1 && scan(line, "\r\n+EMM ERROR: %d", &cause) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    return raise_cause(mdm, EVT_EMM_ERROR, cause, emm_cause_str);
}

int urc_esm(modem *mdm, ujson *)
{
    int cause = 0;
    if (scan(urc_line(mdm), "\r\n+ESM ERROR: %*d,%d", &cause) != 1)
        return ACT_STATUS_INVALID_RESPONSE;
    return raise_cause(mdm, EVT_ESM_ERROR, cause, esm_cause_str);
}

namespace
{

// +QFUPL: <size>,<checksum> after an upload, the checksum read with fmt.
int qfupl(modem *mdm, ujson *json, const char *fmt)
{
    if (!json) {
        LOG_ERROR("[QUECTEL_DRIVER] uJson memory allocation error!\n");
        return ACT_STATUS_NO_MEMORY;
    }
    int size = 0;
    int checksum = 0;
    if (scan(urc_line(mdm), fmt, &size, &checksum) != 2)
        return ACT_STATUS_INVALID_RESPONSE;
    // The report ends an upload: the upload's own answer is only its OK, and
    // it checks what the modem stored against what was sent with these.
    cache_int(mdm, qfupl_size_key, size);
    cache_int(mdm, qfupl_checksum_key, checksum);
    json->add_int("size", size);
    json->add_int("checksum", checksum);
    mdm->new_event(EVT_FILE_UPLOAD, json);
    return ACT_STATUS_OK;
}

} // namespace

int urc_qfupl(modem *mdm, ujson *json)
{
    return qfupl(mdm, json, "+QFUPL: %d,%d");
}

int urc_qfupl_hex(modem *mdm, ujson *json)
{
    return qfupl(mdm, json, "+QFUPL: %d,%x");
}

// +EGMR: "<serial number>", the answer to a serial number read that the
// modem also prints unsolicited.
int urc_egmr(modem *mdm, ujson *)
{
    char serial[32] = {};
    if (scan(urc_line(mdm), "\r\n+EGMR: \"%31s\"\r\n\r", serial) < 1)
        return ACT_STATUS_INVALID_RESPONSE;
    // %s stops at blanks only: the closing quote is part of the capture.
    cache_text(mdm, "serial_num", unquote(serial));
    return ACT_STATUS_OK;
}

// The modem announces it is switching itself off.
int urc_power(modem *mdm, ujson *)
{
    mdm->power_down();
    return ACT_STATUS_OK;
}

int quectel_driver_probe(modem_driver *driver)
{
    quectel_net_probe(driver);
    quectel_band_probe(driver);
    quectel_data_probe(driver);
    quectel_sys_probe(driver);
    quectel_file_probe(driver);

    for (uint32_t action : withdrawn)
        modem_driver_override(driver, action, nullptr);

    modem_driver_urc_override(driver, "+QCSQ", urc_qcsq);
    modem_driver_urc_override(driver, "+QIND", urc_qind);
    modem_driver_urc_override(driver, "+QFUPL", urc_qfupl);
    modem_driver_urc_override(driver, "+EMM ERROR", urc_emm);
    modem_driver_urc_override(driver, "+ESM ERROR", urc_esm);
    modem_driver_urc_override(driver, "+EGMR", urc_egmr);
    modem_driver_urc_override(driver, "POWERED DOWN", urc_power);
    return 0;
}

MODEM_DRIVER(quectel_driver, MODEM_DRIVER_PRIO_VENDOR, "Quectel AT", "quectel", "generic", quectel_driver_probe)
