#include "ubus/ubus.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "comm/request.h"
#include "core/modem_driver.h"
#include "ubus/modem_api.h"
#include "util/log.h"
#include "util/ujson.h"

namespace {

// The per-modem methods in libubus's own layout, shared by every modem
// object; grown one element at a time so the order is the registration order.
ubus_method *g_methods = nullptr;
int g_method_count = 0;

// A catalogue method with the full parse policy of its row (the registry
// lists only the published part of it).
struct catalogue_entry {
    const ubus_catalogue_row *row;
    blobmsg_policy policy[ubus_catalogue_row::max_args];
    int n_policy;
};
// What serves a registered method: a core method's own handler, or the
// catalogue entry (owned) taken through the table handler.
struct method_slot {
    ubus_handler_t handler;
    catalogue_entry *entry;
};
// Parallel to g_methods, whose handlers are all modem_method_cb.
method_slot *g_slots = nullptr;

int modem_method_cb(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg);

// Grows both arrays by one; the registry is left as it was on failure.
int append_method(const ubus_method &m, method_slot slot)
{
    size_t n = static_cast<size_t>(g_method_count) + 1;
    auto *slots = static_cast<method_slot *>(std::realloc(g_slots, sizeof(*g_slots) * n));
    if (!slots)
        return 1;
    g_slots = slots;
    auto *methods = static_cast<ubus_method *>(std::realloc(g_methods, sizeof(*g_methods) * n));
    if (!methods)
        return 1;
    g_methods = methods;
    g_methods[g_method_count] = m;
    g_methods[g_method_count].handler = modem_method_cb;
    g_slots[g_method_count] = slot;
    g_method_count++;
    return 0;
}

// The first method registered under name (as the bus looks methods up), or -1.
int find_method(const char *name)
{
    for (int i = 0; name && i < g_method_count; i++) {
        if (!std::strcmp(g_methods[i].name, name))
            return i;
    }
    return -1;
}

const catalogue_entry *find_entry(const char *method)
{
    int i = find_method(method);
    return i < 0 ? nullptr : g_slots[i].entry;
}

// Arguments nested deeper than WWAN_BLOBMSG_MAX_DEPTH are refused before a
// handler, a debug line or a driver reads them. The formatter and the
// converters are bounded on their own; refusing here keeps every method,
// present and future, from ever seeing such a message.
bool args_too_deep(const char *method, blob_attr *msg)
{
    if (!msg || wwan_blobmsg_check_depth(msg, true))
        return false;
    LOG_DEBUG("Ubus call: %s refused: arguments nested deeper than %d levels\n", method ? method : "",
              WWAN_BLOBMSG_MAX_DEPTH);
    return true;
}

// The bus handler of the `gsm` object's method H, behind the depth check.
template <ubus_handler_t H>
int depth_checked(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
{
    if (args_too_deep(method, msg))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return H(ctx, obj, req, method, msg);
}

// The bus status for a table handler whose allocation failed.
constexpr int no_memory_status = UBUS_STATUS_UNKNOWN_ERROR;

// Handlers get from the ubus_object back to the record that holds it.
static_assert(std::is_standard_layout_v<ubus_modem_object> && offsetof(ubus_modem_object, obj) == 0);
static_assert(std::is_standard_layout_v<ubus_manager_object> && offsetof(ubus_manager_object, obj) == 0);

ubus_manager &manager_of(ubus_object *obj)
{
    return *reinterpret_cast<ubus_manager_object *>(obj)->mgr;
}

blob_attr *payload_of(const ujson *data, blob_buf &empty)
{
    if (data)
        return data->get_blobmsg();
    blob_buf_init(&empty, 0);
    return empty.head;
}

// ---- the daemon object `gsm` ----

int gsm_info(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *, blob_attr *)
{
    auto reply = ujson::create();
    if (!reply)
        return no_memory_status;
    manager_of(obj).fill_stats(*reply);
    return ubus_send_reply(ctx, req, reply->get_blobmsg()) ? no_memory_status : UBUS_STATUS_OK;
}

int gsm_dump_log(ubus_context *, ubus_object *obj, ubus_request_data *, const char *, blob_attr *)
{
    manager_of(obj).dump_log_buffer();
    return UBUS_STATUS_OK;
}

const blobmsg_policy debug_policy[] = {{"enabled", BLOBMSG_TYPE_INT8}};

int gsm_enable_debug(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *msg)
{
    blob_attr *tb[1] = {};
    if (msg)
        blobmsg_parse(debug_policy, 1, tb, blob_data(msg), blob_len(msg));
    if (!tb[0])
        return UBUS_STATUS_INVALID_ARGUMENT;
    log_level(blobmsg_get_u8(tb[0]) ? 1 : 0);
    return UBUS_STATUS_OK;
}

const blobmsg_policy usbid_policy[] = {{"usbid", BLOBMSG_TYPE_STRING}};

int gsm_attach_detach(ubus_object *obj, blob_attr *msg, bool attach)
{
    blob_attr *tb[1] = {};
    if (msg)
        blobmsg_parse(usbid_policy, 1, tb, blob_data(msg), blob_len(msg));
    if (!tb[0])
        return UBUS_STATUS_INVALID_ARGUMENT;
    const char *usb_id = blobmsg_get_string(tb[0]);
    if (!usb_id)
        return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_manager &mgr = manager_of(obj);
    int ret = attach ? mgr.attach(usb_id) : mgr.deattach(usb_id);
    return ret ? UBUS_STATUS_NO_DATA : UBUS_STATUS_OK;
}

int gsm_attach(ubus_context *, ubus_object *obj, ubus_request_data *, const char *, blob_attr *msg)
{
    return gsm_attach_detach(obj, msg, true);
}

int gsm_deattach(ubus_context *, ubus_object *obj, ubus_request_data *, const char *, blob_attr *msg)
{
    return gsm_attach_detach(obj, msg, false);
}

const ubus_method g_obj_methods[] = {
    UBUS_METHOD_NOARG("info", depth_checked<gsm_info>),
    UBUS_METHOD_NOARG("dump_log", depth_checked<gsm_dump_log>),
    UBUS_METHOD("enable_debug", depth_checked<gsm_enable_debug>, debug_policy),
    UBUS_METHOD("attach", depth_checked<gsm_attach>, usbid_policy),
    UBUS_METHOD("deattach", depth_checked<gsm_deattach>, usbid_policy),
};

ubus_object_type g_obj_type = UBUS_OBJECT_TYPE("gsm", g_obj_methods);

// ---- the catalogue ----

uint32_t kind_of(enum blobmsg_type type)
{
    switch (type) {
    case BLOBMSG_TYPE_STRING:
        return UBUS_ARG_TEXT;
    case BLOBMSG_TYPE_INT32:
        return UBUS_ARG_U32;
    case BLOBMSG_TYPE_BOOL:
        return UBUS_ARG_BOOL;
    case BLOBMSG_TYPE_ARRAY:
        return UBUS_ARG_TEXT_ARRAY;
    default:
        return UINT32_MAX; // copied by no kind: skipped
    }
}

// A catalogue method: the generic or the argument path with its row.
int catalogue_call(ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg,
                   const catalogue_entry &e)
{
    const ubus_catalogue_row &row = *e.row;
    if (e.n_policy == 0)
        return ubus_handle_generic_request(obj, req, method, row.action, nullptr, row.timeout);

    ubus_arg_desc descs[ubus_catalogue_row::max_args + 1] = {};
    for (int i = 0; i < e.n_policy; i++)
        descs[i] = {row.args[i].name, kind_of(row.args[i].type), row.args[i].optional ? 1u : 0u};
    return ubus_handle_arg_request(obj, req, method, msg, e.policy, e.n_policy, descs, row.action, row.timeout);
}

// Where every modem method is entered: refuses arguments that nest too deep,
// then runs the method's own handler or its catalogue row.
int modem_method_cb(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg)
{
    if (args_too_deep(method, msg))
        return UBUS_STATUS_INVALID_ARGUMENT;
    int i = find_method(method);
    if (i < 0)
        return UBUS_STATUS_METHOD_NOT_FOUND;
    const method_slot &slot = g_slots[i];
    if (slot.entry)
        return catalogue_call(obj, req, method, msg, *slot.entry);
    return slot.handler(ctx, obj, req, method, msg);
}

} // namespace

// ---- registry ----

int ubus_register_method(const char *name, ubus_handler_t handler, const blobmsg_policy *policy, int n_policy)
{
    if (append_method({name, handler, 0, 0, policy, n_policy}, {handler, nullptr})) {
        LOG_ERROR("[MODEM_UBUS] Failed to register ubus method due to memory allocation error!\n");
        return 1;
    }
    return 0;
}

std::span<const ubus_method> ubus_methods()
{
    return {g_methods, static_cast<size_t>(g_method_count)};
}

int ubus_register_catalogue(std::span<const ubus_catalogue_row> rows)
{
    int failed = 0;
    for (const ubus_catalogue_row &row : rows) {
        auto *e = new (std::nothrow) catalogue_entry{&row, {}, 0};
        if (e) {
            while (e->n_policy < ubus_catalogue_row::max_args && row.args[e->n_policy].name) {
                e->policy[e->n_policy] = {row.args[e->n_policy].name, row.args[e->n_policy].type};
                e->n_policy++;
            }
        }
        int published = !e ? 0 : row.published < 0 ? e->n_policy : row.published;
        const blobmsg_policy *listed = published ? e->policy : nullptr;
        if (!e || append_method({row.name, nullptr, 0, 0, listed, published}, {nullptr, e})) {
            LOG_ERROR("[MODEM_UBUS] Failed to register ubus method due to memory allocation error!\n");
            delete e;
            failed = 1;
        }
    }
    return failed;
}

const ubus_catalogue_row *ubus_catalogue_find(const char *method)
{
    const catalogue_entry *e = find_entry(method);
    return e ? e->row : nullptr;
}

void ubus_cleanup()
{
    for (int i = 0; i < g_method_count; i++)
        delete g_slots[i].entry;
    std::free(g_slots);
    std::free(g_methods);
    g_slots = nullptr;
    g_methods = nullptr;
    g_method_count = 0;
}

int ubus_init(ubus_manager &mgr)
{
    ubus_manager_object &o = mgr.bus_object();
    o.mgr = &mgr;
    o.obj.name = "gsm";
    g_obj_type.id = 0; // a new connection registers the type anew
    o.obj.type = &g_obj_type;
    o.obj.methods = g_obj_methods;
    o.obj.n_methods = static_cast<int>(std::size(g_obj_methods));
    if (ubus_add_object(mgr.bus(), &o.obj)) {
        LOG_ERROR("[MODEM_UBUS] Failed to add `%s` ubus object!\n", o.obj.name);
        return 1;
    }
    ubus_core_init();
    ubus_sys_init();
    ubus_net_init();
    ubus_band_init();
    ubus_sim_init();
    ubus_sms_init();
    ubus_call_init();
    return 0;
}

// ---- modem objects ----

int ubus_init_modem(ubus_manager &mgr, ubus_modem &mdm)
{
    ubus_modem_object &o = mdm.bus_object();
    std::string name = mgr.get_free_name(mdm);
    if (name.empty() || !(o.name = strdup(name.c_str()))) {
        LOG_ERROR("[MODEM_UBUS] Failed to allocate ubus object name for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        return 1;
    }
    o.mdm = &mdm;
    o.type = {o.name, 0, g_methods, g_method_count};
    o.obj.name = o.name;
    o.obj.type = &o.type;
    o.obj.methods = g_methods;
    o.obj.n_methods = g_method_count;
    if (ubus_add_object(mdm.bus(), &o.obj)) {
        LOG_ERROR("[MODEM_UBUS] Failed to add `%s` ubus object for `%s [%s]` modem!\n", o.name, mdm.id(),
                  mdm.vid_pid());
        std::free(o.name);
        o.name = nullptr;
        o.obj.name = nullptr;
        o.type.name = nullptr;
        return 1;
    }
    return 0;
}

ubus_modem &ubus_modem_of(ubus_object *obj)
{
    return *reinterpret_cast<ubus_modem_object *>(obj)->mdm;
}

// ---- dispatch ----

int ubus_handle_generic_request(ubus_object *obj, ubus_request_data *req, const char *method, uint32_t action,
                                ujson *args, uint32_t timeout)
{
    if (method)
        LOG_DEBUG("Ubus call: %s\n", method);
    ubus_modem &mdm = ubus_modem_of(obj);
    if (mdm.paused())
        return UBUS_STATUS_CONNECTION_FAILED;
    if (!modem_driver_check_func(mdm.driver(), action))
        return UBUS_STATUS_NOT_SUPPORTED;

    request scratch{};
    int status = modem_driver_invoke_func(mdm.driver(), mdm.driver_modem(), action, 0, args, &scratch);
    int ret = UBUS_STATUS_OK;
    if (status != ACT_STATUS_OK) {
        // Nothing is queued: the build's extra data has no other owner.
        std::free(scratch.extra);
        auto reply = ujson::create();
        if (reply)
            mdm.notify_error(req, status, *reply);
        else
            ret = no_memory_status;
    } else if (mdm.new_request(action, req, scratch.command, scratch.length, (timeout + 1) * 1000, scratch.extra,
                               &scratch.source)) {
        LOG_ERROR("[MODEM_UBUS] Failed to create new request for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
        std::free(scratch.extra);
        ret = UBUS_STATUS_NO_DATA;
    }
    std::free(scratch.command);
    return ret;
}

int ubus_handle_arg(blob_attr *msg, const blobmsg_policy *policy, int n_policy, const ubus_arg_desc *descs,
                    std::unique_ptr<ujson> &out)
{
    blob_attr *tb[ubus_catalogue_row::max_args] = {};
    if (n_policy > ubus_catalogue_row::max_args)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (msg)
        blobmsg_parse(policy, n_policy, tb, blob_data(msg), blob_len(msg));

    auto args = ujson::create();
    if (!args)
        return UBUS_STATUS_UNKNOWN_ERROR;
    for (int i = 0; i < n_policy && descs[i].name; i++) {
        const ubus_arg_desc &d = descs[i];
        blob_attr *attr = tb[i];
        if (!attr) {
            if (d.optional)
                continue;
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        switch (d.kind) {
        case UBUS_ARG_TEXT:
            args->add_string(d.name, blobmsg_get_string(attr));
            break;
        case UBUS_ARG_U32:
            args->add_int(d.name, static_cast<int32_t>(blobmsg_get_u32(attr)));
            break;
        case UBUS_ARG_BOOL:
            args->add_bool(d.name, *static_cast<const uint8_t *>(blobmsg_data(attr)) != 0);
            break;
        case UBUS_ARG_TEXT_ARRAY: {
            if (blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY || blobmsg_check_array(attr, BLOBMSG_TYPE_STRING) < 0)
                return UBUS_STATUS_INVALID_ARGUMENT;
            void *cookie = args->open_array(d.name);
            if (!cookie)
                return UBUS_STATUS_UNKNOWN_ERROR;
            blob_attr *cur;
            size_t rem;
            blobmsg_for_each_attr(cur, attr, rem) args->add_string(nullptr, blobmsg_get_string(cur));
            args->close_array(cookie);
            break;
        }
        default:
            break;
        }
    }
    out = std::move(args);
    return UBUS_STATUS_OK;
}

int ubus_handle_arg_request(ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg,
                            const blobmsg_policy *policy, int n_policy, const ubus_arg_desc *descs, uint32_t action,
                            uint32_t timeout)
{
    std::unique_ptr<ujson> args;
    int ret = ubus_handle_arg(msg, policy, n_policy, descs, args);
    if (ret)
        return ret;

    if (g_log_level) {
        char *json = msg ? blobmsg_format_json(msg, true) : nullptr;
        LOG_DEBUG("Ubus call: %s %s\n", method ? method : "", json ? json : "");
        std::free(json);
    }
    if (args->exists("timeout"))
        timeout = static_cast<uint32_t>(args->get_int("timeout"));
    if (args->exists("async") && args->get_bool("async")) {
        // The only asynchronous method is the SMS send, call kind 0.
        ubus_modem_of(obj).async_push(0, *args, timeout, action);
        return UBUS_STATUS_OK;
    }
    return ubus_handle_generic_request(obj, req, nullptr, action, args.get(), timeout);
}

// ---- events ----

std::unique_ptr<ujson> ubus_fill_event_data(ubus_modem &mdm, const char *event, const ujson *data)
{
    auto env = ujson::create();
    if (!env) {
        LOG_ERROR("uJson memory allocation error!\n");
        return nullptr;
    }
    const char *name = mdm.bus_object().name;
    void *cookie = env->open_array("env");
    auto line = [&](const char *fmt, const char *value) {
        char *text = nullptr;
        if (asprintf(&text, fmt, value ? value : "") >= 0) {
            env->add_string(nullptr, text);
            std::free(text);
        }
    };
    line("OBJECT_NAME=%s", name);
    line("MODEM_ID=%s", mdm.id());
    line("EVENT_NAME=%s", event);
    if (data) {
        char *json = blobmsg_format_json(data->get_blobmsg(), true);
        if (json) {
            line("DATA=%s", json);
            std::free(json);
        }
    }
    env->close_array(cookie);
    return env;
}

int ubus_call_hotplug(ubus_modem &mdm, ujson &env)
{
    uint32_t id = 0;
    int ret = ubus_lookup_id(mdm.bus(), "hotplug.gsm", &id);
    if (ret)
        return ret; // no hotplug handler installed
    ret = ubus_invoke(mdm.bus(), id, "call", env.get_blobmsg(), nullptr, nullptr, 1000);
    if (ret)
        LOG_ERROR("[MODEM_UBUS] Failed to invoke ubus hotplug.d gsm method for `%s [%s]` modem!\n", mdm.id(),
                  mdm.vid_pid());
    return ret;
}

int ubus_broadcast_event(ubus_modem &mdm, const char *event, const ujson *data, bool hotplug)
{
    auto env = ubus_fill_event_data(mdm, event, data);
    if (!env)
        return 1;
    blob_buf empty{};
    if (ubus_send_event(mdm.bus(), event, payload_of(data, empty)))
        LOG_ERROR("[MODEM_UBUS] Failed to send ubus event for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
    blob_buf_free(&empty);
    if (hotplug)
        ubus_call_hotplug(mdm, *env);
    return 0;
}

int ubus_notify_event(ubus_modem &mdm, ubus_object *obj, const char *event, const ujson *data, int timeout,
                      bool hotplug)
{
    auto env = ubus_fill_event_data(mdm, event, data);
    if (!env)
        return 1;
    blob_buf empty{};
    if (ubus_notify(mdm.bus(), obj, event, payload_of(data, empty), timeout))
        LOG_ERROR("[MODEM_UBUS] Failed to send ubus notify for `%s [%s]` modem!\n", mdm.id(), mdm.vid_pid());
    blob_buf_free(&empty);
    if (hotplug)
        ubus_call_hotplug(mdm, *env);
    return 0;
}
