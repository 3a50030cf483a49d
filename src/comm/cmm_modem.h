// What the command channel needs of the modem it serves. The modem instance
// implements this; the channel never sees more of it, so the channel builds
// and tests below the modem, the bus objects and the drivers' own code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wwan/ubox.h"

class modem;
class parser;
class ujson;
struct modem_driver;
struct request;
struct ubus_context;
struct ubus_request_data;

class cmm_modem
{
  public:
    virtual ~cmm_modem() = default;

    // The modem's name in log lines: "`id [vid_pid]`".
    virtual const char *id() const = 0;
    virtual const char *vid_pid() const = 0;

    // The AT port ("/dev/ttyUSB2"; placed under the root by the channel) and
    // its speed.
    virtual const char *tty_path() const = 0;
    virtual uint32_t baud_rate() const = 0;
    // The bus object name "gsm.modem<N>"; the local AT socket is named after N.
    virtual const char *object_name() const = 0;

    // What driver functions and URC handlers are called with.
    virtual modem *driver_modem() = 0;
    virtual const modem_driver *driver() const = 0;
    virtual parser &response_parser() = 0;
    virtual ubus_context *bus() = 0;

    // The request queue, in arrival order. Requests from local AT clients are
    // appended here by the channel itself.
    virtual list_head *request_list() = 0;
    // The head of the queue, or null.
    virtual request *get_request() = 0;
    // The channel is done with req (answered, or failed = 1 when its answer
    // could not be read or delivered): take it off the queue and release it.
    // A deferred bus call or a callback still waiting on a failed request is
    // the modem's to answer.
    virtual void finish_request(request *req, int failed) = 0;
    // An answer nobody waits for any more arrived for the URC the modem was
    // awaiting: drop the awaited prefix and what was kept for that answer.
    virtual void release_pending_request() = 0;

    // Set-up succeeded: the channel is open for requests.
    virtual void tty_ready() = 0;
    // 31 writes in a row failed.
    virtual void trigger_hang() = 0;
    // Bytes arrived: remember when, and restart the count of silent rounds.
    virtual void input_received() = 0;

    // Raises a state change as an event: event ids 15 (data is a ujson) and
    // 29 (data is an int32_t). The data is copied before the call returns.
    virtual void new_event(uint32_t event, const void *data) = 0;

    // The URC prefix an action waits for ("+CUSD: "), or null.
    virtual const char *last_active_urc() const = 0;
    // The text driver functions and URC handlers read. It points into the
    // parser and stays valid until the parser is flushed or fed again.
    virtual void set_last_response(const char *data, size_t len) = 0;

    // Answers a deferred bus call with an error: adds "errno" and "error"
    // for status to reply and sends it. The caller completes the call.
    virtual void notify_error(ubus_request_data *req, int status, ujson &reply) = 0;
};
