// The bus interface: the daemon object `gsm`, the registry of per-modem
// methods shared by every `gsm.modem<N>` object, the two dispatch paths from a
// method call to a driver action, and event publication.
//
// Driver build phase, as the dispatch calls it: the action is invoked with
// type 0, the argument object (null for a method without arguments) and a
// scratch request. On success it returns 0 with req->command set to a malloc'd
// command text, req->length to its length and req->extra to the word the
// request carries; the dispatch hands these to the modem's new_request and
// frees the command afterwards. Any other return is an action status, which
// the caller gets as an "errno"/"error" reply; nothing is queued then.
#pragma once

#include "wwan/ubox.h"
#include <libubus.h>

#include <cstdint>
#include <memory>
#include <span>

#include "ubus/ubus_modem.h"

class ujson;

// How an argument is copied into the argument object.
enum ubus_arg_kind : uint32_t {
    UBUS_ARG_TEXT = 0,
    UBUS_ARG_U32 = 1,
    UBUS_ARG_BOOL = 2,
    UBUS_ARG_TEXT_ARRAY = 3,
};

// Descriptor i describes the attribute parsed by policy entry i; a list ends
// at the first entry without a name.
struct ubus_arg_desc {
    const char *name;
    uint32_t kind;
    uint32_t optional; // 0 required, 1 may be absent
};

// One catalogue method: its name, action, nominal time-out (seconds; the
// request waits one more) and arguments. Argument i is parsed with blobmsg
// type `type` and copied by the kind that type implies; `published` is how
// many of them introspection lists (-1: all).
struct ubus_catalogue_arg {
    const char *name;
    enum blobmsg_type type;
    bool optional = false;
};

// Shorthands the catalogue tables are written in.
constexpr enum blobmsg_type UBUS_TEXT = BLOBMSG_TYPE_STRING;
constexpr enum blobmsg_type UBUS_INT32 = BLOBMSG_TYPE_INT32;
constexpr enum blobmsg_type UBUS_BOOL = BLOBMSG_TYPE_BOOL;
constexpr enum blobmsg_type UBUS_ARRAY = BLOBMSG_TYPE_ARRAY; // of texts
constexpr bool UBUS_OPT = true;

struct ubus_catalogue_row {
    static constexpr int max_args = 8;

    const char *name;
    uint32_t action;
    uint32_t timeout;
    ubus_catalogue_arg args[max_args] = {};
    int published = -1;
};

// Fills and adds the manager's `gsm` object and registers the per-modem
// methods, group by group. 0, or 1 when the object cannot be added.
int ubus_init(ubus_manager &mgr);
// Releases the method registry (at exit and between tests).
void ubus_cleanup();

// Appends one method to the registry. 0, or 1 without memory.
//
// Every registered method is entered through the registry's one bus handler,
// which answers UBUS_STATUS_INVALID_ARGUMENT, without running the method, to
// arguments nested deeper than WWAN_BLOBMSG_MAX_DEPTH (wwan/blobmsg_depth.h); the
// `gsm` object's methods are guarded the same way. So no handler, debug line
// or driver ever reads such a message.
int ubus_register_method(const char *name, ubus_handler_t handler, const blobmsg_policy *policy, int n_policy);
// The registry in libubus's layout; every handler in it is that entry point.
std::span<const ubus_method> ubus_methods();

// Registers a group's catalogue rows in order, all on the one table handler.
// 0, or 1 when any of them is missing.
int ubus_register_catalogue(std::span<const ubus_catalogue_row> rows);
// The row registered under a method name, or null.
const ubus_catalogue_row *ubus_catalogue_find(const char *method);

// The method groups, in registration order.
int ubus_core_init();
int ubus_sys_init();
int ubus_net_init();
int ubus_band_init();
int ubus_sim_init();
int ubus_sms_init();
int ubus_call_init();

// Names the modem's object and adds it to the bus. 0, or 1.
int ubus_init_modem(ubus_manager &mgr, ubus_modem &mdm);
// The modem behind one of its bus objects.
ubus_modem &ubus_modem_of(ubus_object *obj);

// The generic path: timeout in seconds; method (for the debug line) and args
// may be null. A bus status.
int ubus_handle_generic_request(ubus_object *obj, ubus_request_data *req, const char *method, uint32_t action,
                                ujson *args, uint32_t timeout);
// The argument path. A bus status.
int ubus_handle_arg_request(ubus_object *obj, ubus_request_data *req, const char *method, blob_attr *msg,
                            const blobmsg_policy *policy, int n_policy, const ubus_arg_desc *descs, uint32_t action,
                            uint32_t timeout);
// Parses msg and copies the described arguments into a new object (out, on
// 0). A bus status; at most ubus_catalogue_row::max_args policy entries.
int ubus_handle_arg(blob_attr *msg, const blobmsg_policy *policy, int n_policy, const ubus_arg_desc *descs,
                    std::unique_ptr<ujson> &out);

// The hotplug environment: {"env": ["OBJECT_NAME=..", "MODEM_ID=..",
// "EVENT_NAME=..", "DATA=<json>"]}; null without memory.
std::unique_ptr<ujson> ubus_fill_event_data(ubus_modem &mdm, const char *event, const ujson *data);
// A bus event named event with data as payload. 0, or 1.
int ubus_broadcast_event(ubus_modem &mdm, const char *event, const ujson *data, bool hotplug);
// A notification of type event to obj's subscribers; timeout in ms (-1: no
// wait). 0, or 1.
int ubus_notify_event(ubus_modem &mdm, ubus_object *obj, const char *event, const ujson *data, int timeout,
                      bool hotplug);
// Calls "hotplug.gsm" "call" with env; the look-up status when there is no
// such object.
int ubus_call_hotplug(ubus_modem &mdm, ujson &env);
