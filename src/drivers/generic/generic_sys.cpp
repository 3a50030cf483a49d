#include "drivers/generic/generic_sys.h"

#include <cstdio>

#include "core/modem.h"
#include "core/modem_info.h"
#include "drivers/generic/generic_helpers.h"
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

int generic_sys_probe(modem_driver *driver)
{
    modem_driver_override(driver, ACT_GET_FIRMWARE, get_firmware);
    modem_driver_override(driver, ACT_GET_IMEI, get_imei);
    modem_driver_override(driver, ACT_GET_ID_INFO, get_id_info);
    modem_driver_override(driver, ACT_GET_SN, get_sn);
    return 0;
}
