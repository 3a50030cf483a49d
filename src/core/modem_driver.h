// Driver registry. A driver is a static record: display name, the identity it
// answers to, the driver it inherits from, one function slot per action and a
// list of handlers for unsolicited result codes. Registration copies the
// parent's tables and lets the driver's probe override entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ubus/modem_api.h"

class modem;
class ujson;
struct request;

// An action runs twice: build phase (type 0) composes the AT command into the
// request, parse phase (type non-zero) reads the answer into the ujson reply.
using act_func = int (*)(modem *mdm, int type, ujson *json, request *req);
using urc_func = int (*)(modem *mdm, ujson *json);

struct urc_entry {
    std::string name;
    urc_func handler;
    urc_entry *next;
};

struct modem_driver {
    const char *name;
    const char *compatible;
    const char *parent;
    int (*probe)(modem_driver *driver);

    act_func funcs[__ACT_TYPE_MAX] = {};
    urc_entry *urcs = nullptr;
    uint32_t urc_count = 0;
};

// The fixed table of registered drivers, filled from the front.
class modem_driver_registry
{
  public:
    static constexpr unsigned max_drivers = 64;

    // 0 on success, 1 when the table is full or the probe fails.
    int add(modem_driver *driver);
    modem_driver *by_id(std::string_view compatible) const;
    // Tries "vendor,model,variant", "vendor,model", "vendor", then "generic".
    modem_driver *find(std::string_view vendor, std::string_view model, std::string_view variant) const;
    modem_driver *const *get_all() const { return drivers_; }
    unsigned get_num() const;
    void list() const;
    // Releases what registration allocated; the records stay registered.
    void cleanup();

  private:
    modem_driver *drivers_[max_drivers + 1] = {};
    unsigned count_ = 0;
};

extern constinit modem_driver_registry g_drivers;

int modem_driver_register(modem_driver *driver);
modem_driver *modem_driver_by_id(std::string_view compatible);
modem_driver *modem_driver_find(std::string_view vendor, std::string_view model, std::string_view variant);
void modem_driver_list();
modem_driver *const *modem_driver_get_all();
unsigned modem_driver_get_num();
void modem_driver_cleanup();

void modem_driver_override(modem_driver *driver, uint32_t action, act_func func);
void modem_driver_urc_override(modem_driver *driver, std::string_view name, urc_func handler);
// Handler for a received URC line, found by the name before ": " or the line end.
urc_func modem_driver_urc_method(const modem_driver *driver, const char *line, size_t length);
int modem_driver_check_func(const modem_driver *driver, uint32_t action);

// Calls a driver function under the crash guard: a SIGSEGV/SIGILL inside it
// is logged and yields status 4 instead of killing the daemon. Guarded calls
// are made from the event-loop thread only and never nest.
int modem_driver_invoke_func(const modem_driver *driver, modem *mdm, uint32_t action, int type, ujson *json,
                             request *req);
int modem_driver_invoke_func_unsafe(const modem_driver *driver, modem *mdm, uint32_t action, int type, ujson *json,
                                    request *req);
int modem_driver_invoke_urc_cb(const modem_driver *driver, modem *mdm, ujson *json, urc_func handler);

// Asks the platform's modem-control service ("mctl") to restart the modem,
// without waiting for it. 0 when the call went out, 1 otherwise.
int modem_invoke_mctl_reboot(modem *mdm);

// Final result tests shared by all drivers.
int is_response_valid(const char *response, size_t length);
int is_response_invalid(const char *response, size_t length);

// Constructor priorities: parents always register before their children.
#define MODEM_DRIVER_PRIO_GENERIC 101
#define MODEM_DRIVER_PRIO_VENDOR 102
#define MODEM_DRIVER_PRIO_MODEL 103
#define MODEM_DRIVER_PRIO_VARIANT 104

void modem_driver_early_register(modem_driver *driver);

// Probe of a driver that inherits everything from its parent so far.
int modem_driver_probe_none(modem_driver *driver);

// Declares a driver record and the constructor that registers it before main.
#define MODEM_DRIVER(ident, prio, display, compat, parent_compat, probe_fn)                                            \
    constinit modem_driver ident = {display, compat, parent_compat, probe_fn};                                         \
    __attribute__((constructor(prio))) static void ident##_init()                                                      \
    {                                                                                                                  \
        modem_driver_early_register(&ident);                                                                           \
    }
