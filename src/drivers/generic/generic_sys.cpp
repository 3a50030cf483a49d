#include "drivers/generic/generic_sys.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_info.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

namespace
{

// Build phase: an owned copy of a fixed command goes into the request.
int set_command(request *req, const char *command)
{
    if (!req)
        return ACT_STATUS_INVALID_ARGS;
    size_t len = std::strlen(command);
    char *copy = static_cast<char *>(std::malloc(len + 1));
    if (!copy)
        return ACT_STATUS_NO_MEMORY;
    std::memcpy(copy, command, len + 1);
    std::free(req->command);
    req->command = copy;
    req->length = static_cast<uint32_t>(len);
    return ACT_STATUS_OK;
}

// The answer as a terminated text, for the scan patterns.
std::string answer(const modem *mdm)
{
    if (!mdm->response())
        return {};
    return std::string(mdm->response(), mdm->response_len());
}

bool answer_valid(const modem *mdm)
{
    return mdm->response() && is_response_valid(mdm->response(), mdm->response_len());
}

void cache_text(modem *mdm, const char *key, const char *value)
{
    if (cache_manager *cache = mdm->cache())
        cache->update_item(key, CACHE_DATA_STRING, value, static_cast<uint32_t>(std::strlen(value) + 1));
}

} // namespace

// The first line of the answer is the revision text ("EC25ECGAR06A07M4G").
int get_firmware(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GMR\r");
    if (!answer_valid(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string text = answer(mdm);
    char firmware[64];
    if (std::sscanf(text.c_str(), "\r\n%63[^\r\n]\r\n", firmware) != 1 || std::strcmp(firmware, "OK") == 0)
        return ACT_STATUS_INVALID_RESPONSE;
    json->add_string("firmware", firmware);
    cache_text(mdm, "firmware", firmware);
    return ACT_STATUS_OK;
}

int get_imei(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return set_command(req, "AT+GSN\r");
    if (!answer_valid(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string text = answer(mdm);
    unsigned long long imei;
    if (std::sscanf(text.c_str(), "\r\n%llu\r\n", &imei) != 1)
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
    const cache_item *item = mdm->cache() ? mdm->cache()->get_item("firmware") : nullptr;
    const char *firmware = item ? item->text() : nullptr;
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
    if (!answer_valid(mdm))
        return ACT_STATUS_INVALID_RESPONSE;
    std::string text = answer(mdm);
    char serial[32];
    if (std::sscanf(text.c_str(), "\r\n%31s\r\n", serial) != 1)
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
