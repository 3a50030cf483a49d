// Core methods of a modem object: the modem's own statistics, the
// identification record, the raw AT pass-through and the modem function.
// They talk to the modem and the driver registry directly, not through the
// catalogue.
#include "wwan/ubox.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <strings.h>

#include "comm/at_command.h"
#include "core/modem_driver.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "ubus/vocab.h"
#include "util/log.h"
#include "util/ujson.h"

namespace {

// A raw command waits this long unless the caller says otherwise; unlike the
// catalogue, no second is added.
constexpr uint32_t exec_default_timeout = 10;
// The longest a raw command may wait, in seconds (an operator scan or a
// firmware step takes minutes, nothing takes an hour).
constexpr int64_t exec_max_timeout = 3600;

void log_call(const char *method, blob_attr *msg)
{
    if (!g_log_level)
        return;
    char *json = msg ? blobmsg_format_json(msg, true) : nullptr;
    LOG_DEBUG("Ubus call: %s %s\n", method, json ? json : "");
    std::free(json);
}

int send(ubus_context *ctx, ubus_request_data *req, const ujson &reply)
{
    return ubus_send_reply(ctx, req, reply.get_blobmsg()) ? UBUS_STATUS_UNKNOWN_ERROR : UBUS_STATUS_OK;
}

// Runs the driver's identification from what is already known (flag 1) into
// result. A bus status; a failed action is answered through notify_error.
int identify(ubus_modem &mdm, ubus_request_data *req, ujson &result, ujson &error_reply, bool &failed)
{
    failed = false;
    if (!modem_driver_check_func(mdm.driver(), ACT_GET_ID_INFO))
        return UBUS_STATUS_NOT_SUPPORTED;
    int status = modem_driver_invoke_func(mdm.driver(), mdm.driver_modem(), ACT_GET_ID_INFO, 1, &result, nullptr);
    if (status != ACT_STATUS_OK) {
        mdm.notify_error(req, status, error_reply);
        failed = true;
    }
    return UBUS_STATUS_OK;
}

int info(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *)
{
    LOG_DEBUG("Ubus call: %s\n", "info");
    auto reply = ujson::create();
    if (!reply)
        return UBUS_STATUS_UNKNOWN_ERROR;
    ubus_modem_of(obj).fill_stats(*reply);
    return send(ctx, req, *reply);
}

int id_info(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *)
{
    auto result = ujson::create();
    auto error_reply = ujson::create();
    if (!result || !error_reply)
        return UBUS_STATUS_UNKNOWN_ERROR;
    bool failed;
    int ret = identify(ubus_modem_of(obj), req, *result, *error_reply, failed);
    if (ret || failed)
        return ret;
    return send(ctx, req, *result);
}

enum { EXEC_COMMAND, EXEC_TIMEOUT, __EXEC_MAX };
const blobmsg_policy exec_policy[] = {
    {"command", BLOBMSG_TYPE_STRING},
    {"timeout", BLOBMSG_TYPE_INT32},
};

int exec(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *msg)
{
    log_call("exec", msg);
    ubus_modem &mdm = ubus_modem_of(obj);
    if (mdm.paused())
        return UBUS_STATUS_CONNECTION_FAILED;

    blob_attr *tb[__EXEC_MAX] = {};
    if (msg)
        blobmsg_parse(exec_policy, __EXEC_MAX, tb, blob_data(msg), blob_len(msg));
    if (!tb[EXEC_COMMAND])
        return UBUS_STATUS_INVALID_ARGUMENT;
    // The string's bytes as sent, a NUL inside included.
    std::string_view command(blobmsg_get_string(tb[EXEC_COMMAND]),
                             blobmsg_data_len(tb[EXEC_COMMAND]) ? blobmsg_data_len(tb[EXEC_COMMAND]) - 1 : 0);
    int64_t timeout = tb[EXEC_TIMEOUT] ? static_cast<int32_t>(blobmsg_get_u32(tb[EXEC_TIMEOUT])) : exec_default_timeout;

    switch (at_check_command(command)) {
    case at_check::not_at:
        return UBUS_STATUS_INVALID_COMMAND;
    case at_check::invalid:
        return UBUS_STATUS_INVALID_ARGUMENT;
    case at_check::ok:
        break;
    }
    if (timeout < 1 || timeout > exec_max_timeout)
        return UBUS_STATUS_INVALID_ARGUMENT;

    // Identification is answered from what the daemon knows, so every client
    // sees the text the daemon itself uses; the modem is not asked.
    if (strncasecmp(command.data(), "ATI", 3) == 0) {
        auto result = ujson::create();
        auto reply = ujson::create();
        if (!result || !reply)
            return UBUS_STATUS_UNKNOWN_ERROR;
        bool failed;
        int ret = identify(mdm, req, *result, *reply, failed);
        if (ret || failed)
            return ret;
        reply->add_string("request", "ATI\r");
        reply->add_string("response", result->get_string("raw"));
        return send(ctx, req, *reply);
    }

    if (mdm.new_request(ACT_AT_COMMAND, req, command.data(), static_cast<uint32_t>(command.size()),
                        static_cast<uint32_t>(timeout * 1000), nullptr)) {
        LOG_ERROR("[MODEM_UBUS] Failed to create new request for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        return UBUS_STATUS_NO_DATA;
    }
    return UBUS_STATUS_OK;
}

const blobmsg_policy modem_func_policy[] = {{"state_id", BLOBMSG_TYPE_INT32}};

int update_modem_func(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *msg)
{
    log_call("update_modem_func", msg);
    blob_attr *tb[1] = {};
    if (msg)
        blobmsg_parse(modem_func_policy, 1, tb, blob_data(msg), blob_len(msg));
    if (!tb[0])
        return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_modem_of(obj).set_modem_func(blobmsg_get_u32(tb[0]));
    auto reply = ujson::create();
    if (!reply)
        return UBUS_STATUS_UNKNOWN_ERROR;
    reply->add_string("status", act_status_str(ACT_STATUS_OK));
    reply->add_int("status_id", ACT_STATUS_OK);
    return send(ctx, req, *reply);
}

int get_default_modem_func(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *,
                           blob_attr *)
{
    LOG_DEBUG("Ubus call: %s\n", "get_default_modem_func");
    auto reply = ujson::create();
    if (!reply)
        return UBUS_STATUS_UNKNOWN_ERROR;
    uint32_t func = ubus_modem_of(obj).default_modem_func();
    reply->add_int("id", static_cast<int32_t>(func));
    reply->add_string("type", modem_func_str(func));
    return send(ctx, req, *reply);
}

} // namespace

int ubus_core_init()
{
    int failed = 0;
    failed |= ubus_register_method("info", info, nullptr, 0);
    failed |= ubus_register_method("get_id_info", id_info, nullptr, 0);
    failed |= ubus_register_method("exec", exec, exec_policy, __EXEC_MAX);
    failed |= ubus_register_method("update_modem_func", update_modem_func, modem_func_policy, 1);
    failed |= ubus_register_method("get_default_modem_func", get_default_modem_func, nullptr, 0);
    return failed;
}
