// What the bus objects need of a modem and of the modem manager. The modem
// instance and the manager implement these; the bus layer never sees more of
// them, so it builds and tests below both (tests use doubles).
#pragma once

#include <libubus.h>

#include <cstdint>
#include <cstdlib>
#include <string>

class modem;
class ujson;
class ubus_modem;
class ubus_manager;
struct modem_driver;
struct request_source;

// A modem's bus object, held by the modem instance. The object comes first so
// a handler gets from the ubus_object it is given back to the whole record
// (and so to the modem). Neither copyable nor movable: libubus points into it.
struct ubus_modem_object {
    ubus_object obj{};
    ubus_object_type type{};
    char *name = nullptr; // "gsm.modem<N>", owned (malloc)
    ubus_modem *mdm = nullptr;

    ubus_modem_object() = default;
    ~ubus_modem_object() { std::free(name); }
    ubus_modem_object(const ubus_modem_object &) = delete;
    ubus_modem_object &operator=(const ubus_modem_object &) = delete;
};

// The daemon object `gsm`, held by the modem manager; same layout rule.
struct ubus_manager_object {
    ubus_object obj{};
    ubus_manager *mgr = nullptr;

    ubus_manager_object() = default;
    ubus_manager_object(const ubus_manager_object &) = delete;
    ubus_manager_object &operator=(const ubus_manager_object &) = delete;
};

class ubus_modem
{
  public:
    virtual ~ubus_modem() = default;

    // The modem's name in log lines: "`id [vid_pid]`".
    virtual const char *id() const = 0;
    virtual const char *vid_pid() const = 0;

    virtual ubus_context *bus() = 0;
    virtual ubus_modem_object &bus_object() = 0;

    // Set while the modem reports a firmware update: nothing may be sent.
    virtual bool paused() const = 0;

    // What driver functions are called with.
    virtual const modem_driver *driver() const = 0;
    virtual modem *driver_modem() = 0;

    // Queues a request for a bus caller: copies command (length bytes; the
    // caller keeps and frees it), defers req and completes it when the answer
    // comes or timeout_ms passes. extra goes to the request, and so does the
    // raw data source when one is given (left with the caller on failure).
    // 0, or 1 when it cannot be queued.
    virtual int new_request(uint32_t action, ubus_request_data *req, const char *command, uint32_t length,
                            uint32_t timeout_ms, void *extra, request_source *source = nullptr) = 0;

    // Answers a bus call with an error: adds "errno" and "error" for status
    // to reply and sends it.
    virtual void notify_error(ubus_request_data *req, int status, ujson &reply) = 0;

    // Hands the call to the modem's async manager: call kind id, a copy of
    // args, time-out in seconds, the action. 0, or 1 when it is dropped.
    virtual int async_push(uint32_t id, const ujson &args, uint32_t timeout, uint32_t action) = 0;

    // The modem's statistics for the `info` reply.
    virtual void fill_stats(ujson &out) = 0;

    // The modem function chosen by `update_modem_func`, and the default one
    // of the modem's model.
    virtual void set_modem_func(uint32_t func) = 0;
    virtual uint32_t default_modem_func() const = 0;
};

class ubus_manager
{
  public:
    virtual ~ubus_manager() = default;

    virtual ubus_context *bus() = 0;
    virtual ubus_manager_object &bus_object() = 0;

    // The manager's statistics for the `gsm` object's `info` reply.
    virtual void fill_stats(ujson &out) = 0;
    virtual void dump_log_buffer() = 0;
    // Attach or detach the modem with that USB id: 0, or 1 when it fails.
    virtual int attach(const char *usb_id) = 0;
    virtual int deattach(const char *usb_id) = 0;
    // The bus object name for the modem ("gsm.modem<N>"), or the empty text
    // when every name is taken.
    virtual std::string get_free_name(ubus_modem &mdm) = 0;
};
