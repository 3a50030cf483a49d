#include "core/modem_driver.h"

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "core/modem.h"
#include "util/log.h"

constinit modem_driver_registry g_drivers;

namespace
{

// The crash guard's jump target; guarded calls never overlap.
sigjmp_buf g_jump_buffer;

void segfault_sigaction(int, siginfo_t *, void *)
{
    siglongjmp(g_jump_buffer, 1);
}

void install_guard()
{
    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    sa.sa_sigaction = segfault_sigaction;
    // No-defer: after jumping out of the handler the signal can fire again.
    sa.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSEGV, &sa, nullptr);
    sigaction(SIGILL, &sa, nullptr);
}

void remove_guard()
{
    signal(SIGSEGV, SIG_DFL);
    signal(SIGILL, SIG_DFL);
}

const char *modem_id(const modem *mdm)
{
    return mdm ? mdm->id() : "";
}

const char *modem_name(const modem *mdm)
{
    return mdm ? mdm->vid_pid() : "";
}

} // namespace

int modem_driver_registry::add(modem_driver *driver)
{
    if (count_ >= max_drivers) {
        LOG_ERROR("[MODEM_DRIVER] Not enough memory for additional modem driver!\n");
        return 1;
    }

    const modem_driver *parent = driver->parent ? by_id(driver->parent) : nullptr;
    if (parent) {
        LOG_DEBUG("[MODEM_DRIVER] Found parent compatible driver: %s\n", parent->name);
        std::memcpy(driver->funcs, parent->funcs, sizeof(driver->funcs));
        // Pushing at the head copies the parent's list in reverse order.
        driver->urc_count = parent->urc_count;
        for (const urc_entry *e = parent->urcs; e; e = e->next)
            driver->urcs = new urc_entry{e->name, e->handler, driver->urcs};
    }

    if (driver->probe(driver) != 0) {
        LOG_ERROR("[MODEM_DRIVER] Failed to probe %s driver!\n", driver->name);
        return 1;
    }

    drivers_[count_++] = driver;
    return 0;
}

modem_driver *modem_driver_registry::by_id(std::string_view compatible) const
{
    for (modem_driver *const *d = drivers_; *d; d++) {
        std::string_view c((*d)->compatible);
        if (c.size() == compatible.size() && strncasecmp(c.data(), compatible.data(), c.size()) == 0)
            return *d;
    }
    return nullptr;
}

modem_driver *modem_driver_registry::find(std::string_view vendor, std::string_view model,
                                          std::string_view variant) const
{
    char key[32];
    auto lookup = [&](int n) { return by_id(std::string_view(key, std::min<size_t>(n, sizeof(key) - 1))); };
    auto v = [](std::string_view s) { return static_cast<int>(std::min<size_t>(s.size(), 64)); };

    if (!variant.empty()) {
        int n = snprintf(key, sizeof(key), "%.*s,%.*s,%.*s", v(vendor), vendor.data(), v(model), model.data(),
                         v(variant), variant.data());
        if (modem_driver *d = lookup(n))
            return d;
    }
    if (!model.empty()) {
        int n = snprintf(key, sizeof(key), "%.*s,%.*s", v(vendor), vendor.data(), v(model), model.data());
        if (modem_driver *d = lookup(n))
            return d;
    }
    int n = snprintf(key, sizeof(key), "%.*s", v(vendor), vendor.data());
    if (modem_driver *d = lookup(n))
        return d;
    return by_id("generic");
}

unsigned modem_driver_registry::get_num() const
{
    unsigned n = 0;
    while (drivers_[n])
        n++;
    return n;
}

void modem_driver_registry::list() const
{
    LOG_DEBUG("[MODEM_DRIVER] List of drivers:\n");
    for (modem_driver *const *d = drivers_; *d; d++)
        LOG_DEBUG("[MODEM_DRIVER] \t%s = %s\n", (*d)->compatible, (*d)->name);
}

void modem_driver_registry::cleanup()
{
    for (modem_driver *const *d = drivers_; *d; d++) {
        urc_entry *e = (*d)->urcs;
        while (e) {
            urc_entry *next = e->next;
            delete e;
            e = next;
        }
        (*d)->urcs = nullptr;
        (*d)->urc_count = 0;
    }
}

int modem_driver_register(modem_driver *driver)
{
    return g_drivers.add(driver);
}

modem_driver *modem_driver_by_id(std::string_view compatible)
{
    return g_drivers.by_id(compatible);
}

modem_driver *modem_driver_find(std::string_view vendor, std::string_view model, std::string_view variant)
{
    return g_drivers.find(vendor, model, variant);
}

void modem_driver_list()
{
    g_drivers.list();
}

modem_driver *const *modem_driver_get_all()
{
    return g_drivers.get_all();
}

unsigned modem_driver_get_num()
{
    return g_drivers.get_num();
}

void modem_driver_cleanup()
{
    g_drivers.cleanup();
}

void modem_driver_early_register(modem_driver *driver)
{
    LOG_DEBUG("[EARLY] Loading %s driver...\n", driver->name);
    if (modem_driver_register(driver))
        LOG_ERROR("Failed to register %s driver!\n", driver->name);
}

int modem_driver_probe_none(modem_driver *)
{
    return 0;
}

void modem_driver_override(modem_driver *driver, uint32_t action, act_func func)
{
    driver->funcs[action] = func;
}

void modem_driver_urc_override(modem_driver *driver, std::string_view name, urc_func handler)
{
    for (urc_entry *e = driver->urcs; e; e = e->next) {
        if (e->name == name) {
            e->handler = handler;
            return;
        }
    }
    driver->urcs = new urc_entry{std::string(name), handler, driver->urcs};
    driver->urc_count++;
}

urc_func modem_driver_urc_method(const modem_driver *driver, const char *line, size_t length)
{
    if (length == 0)
        return nullptr;

    size_t start = (length > 2 && line[0] == '\r' && line[1] == '\n') ? 2 : 0;
    size_t i = start;
    for (; i + 1 < length; i++) {
        if ((line[i] == ':' && line[i + 1] == ' ') || (line[i] == '\r' && line[i + 1] == '\n'))
            break;
    }
    if (i + 1 >= length || i == 0 || i > 63)
        return nullptr;

    std::string_view name(line + start, i - start);
    for (const urc_entry *e = driver->urcs; e; e = e->next) {
        if (e->name == name)
            return e->handler;
    }
    return nullptr;
}

int modem_driver_check_func(const modem_driver *driver, uint32_t action)
{
    return driver->funcs[action] != nullptr;
}

int modem_driver_invoke_func_unsafe(const modem_driver *driver, modem *mdm, uint32_t action, int type, ujson *json,
                                    request *req)
{
    return driver->funcs[action](mdm, type, json, req);
}

int modem_driver_invoke_func(const modem_driver *driver, modem *mdm, uint32_t action, int type, ujson *json,
                             request *req)
{
    // volatile: these are read again after a jump back from the handler.
    volatile int status = 1;
    install_guard();
    if (sigsetjmp(g_jump_buffer, 1) == 0) {
        status = driver->funcs[action](mdm, type, json, req);
    } else {
        LOG_ERROR("[MODEM_DRIVER] Uncaught exception:\n\n"
                  "Recovered from fatal error in driver subsystem!\n"
                  "-----------------------------------------------\n"
                  "Driver name: %s\n"
                  "Modem:     %s [%s]\n"
                  "Action:    %d\n"
                  "Type:      %d\n"
                  "uJson ptr: %p\n"
                  "Data ptr:  %p\n"
                  "-----------------------------------------------\n",
                  driver->name, modem_id(mdm), modem_name(mdm), static_cast<int>(action), type,
                  static_cast<void *>(json), static_cast<void *>(req));
        status = ACT_STATUS_FATAL;
    }
    remove_guard();
    return status;
}

int modem_driver_invoke_urc_cb(const modem_driver *driver, modem *mdm, ujson *json, urc_func handler)
{
    volatile int status = 1;
    install_guard();
    if (sigsetjmp(g_jump_buffer, 1) == 0) {
        status = handler(mdm, json);
    } else {
        LOG_ERROR("[MODEM_DRIVER] Uncaught exception:\n\n"
                  "Recovered from fatal error in driver subsystem!\n"
                  "-----------------------------------------------\n"
                  "Driver name: %s\n"
                  "Modem:       %s [%s]\n"
                  "URC ptr:     %p\n"
                  "uJson ptr:   %p\n"
                  "-----------------------------------------------\n",
                  driver->name, modem_id(mdm), modem_name(mdm), reinterpret_cast<void *>(handler),
                  static_cast<void *>(json));
        status = ACT_STATUS_FATAL;
    }
    remove_guard();
    return status;
}

int is_response_valid(const char *response, size_t length)
{
    if (length < 2)
        return 0;
    if (length >= 6 && std::memcmp(response + length - 6, "\r\nOK\r\n", 6) == 0)
        return 1;
    return std::memcmp(response + length - 2, "0\r", 2) == 0;
}

int is_response_invalid(const char *response, size_t length)
{
    // The textual error pattern carries NULs at its 2nd and 8th bytes and is
    // compared as a C string, so it stops matching after "\r\0": a real
    // "\r\nERROR\r\n" ending never counts, only the numeric form "4\r" does.
    // Callers rely on exactly that.
    static const char error_pattern[9] = {'\r', '\0', 'E', 'R', 'R', 'O', 'R', '\0', '\n'};
    if (length >= 9 && std::strncmp(response + length - 9, error_pattern, sizeof(error_pattern)) == 0)
        return 1;
    if (length < 2)
        return 0;
    return std::memcmp(response + length - 2, "4\r", 2) == 0;
}
