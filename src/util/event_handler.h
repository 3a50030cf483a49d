// Event manager of one modem: turns state changes into bus notifications, one
// at a time on the event loop, and only when the value really changed.
//
// A producer pushes an event (a registered id and a value); a byte written to
// a pipe wakes the loop on its next turn; the worker stores the value in the
// modem's cache under the event's name and, when the cache reports a change or
// the push asked to notify always, sends the notification and then calls the
// event's callback. The notification carries the value under the event's name
// (a structured value as its own members) and "modem_id". Producers (URC
// handlers inside response parsing) thus never send bus messages themselves.
#pragma once

#include "wwan/ubox.h"

#include <array>
#include <cstdint>
#include <memory>

class cache_manager;
class ujson;

// What the event manager needs from a modem.
class evt_modem
{
  public:
    virtual ~evt_modem() = default;

    // Log lines name a modem as "`id [vid_pid]`".
    virtual const char *id() const = 0;
    virtual const char *vid_pid() const = 0;
    virtual cache_manager *cache() = 0;
    // Sends payload as the notification `name` to the subscribers of the
    // modem's bus object, without waiting; with hotplug set the hotplug
    // service is called as well. 0 when sent.
    virtual int notify_event(const char *name, ujson &payload, bool hotplug) = 0;

    // What event callbacks ask of the modem; the defaults do nothing.
    // The command channel is paused (firmware update).
    virtual bool paused() const { return false; }
    // Queues the modem's own request for action, built by its driver from
    // args (may be null). 0 when queued or skipped (paused, no such
    // function); else the action's status, or 1 when it cannot be queued.
    virtual int refresh(uint32_t, const ujson *) { return 1; }
    // Pushes an event that is notified even when its value is unchanged.
    virtual void force_event(uint32_t, const void *) {}
    // Broadcasts the bus event `name` with payload. 0 when sent.
    virtual int broadcast(const char *, const ujson &) { return 1; }
};

// Called after a change has been published. value points to the event's
// bytes (the number, the text), or is the ujson of a CACHE_DATA_UJSON event.
using evt_cb = void (*)(evt_modem &mdm, uint32_t id, void *value);

struct evt_desc {
    uint32_t id;
    const char *name; // notification name and cache key; a static text
    uint32_t type;    // cache data type of the value
    evt_cb cb;        // may be null
};

// Process-wide event kinds, registered once at start-up. A second
// registration of an id replaces the first. 0, or 1 when out of memory.
int event_register(const evt_desc &desc);
void event_unregister(uint32_t id);
const evt_desc *event_find(uint32_t id);

class evtmgr
{
  public:
    // No pipe and an empty queue; null when the allocation fails.
    static std::unique_ptr<evtmgr> create();

    // Stops watching and closes the pipe; queued events are dropped.
    ~evtmgr();
    evtmgr(const evtmgr &) = delete;
    evtmgr &operator=(const evtmgr &) = delete;

    // Opens the dispatcher pipe and watches it. 0, or 1 when it fails.
    int init(evt_modem &mdm);
    // Queues a copy of value (for CACHE_DATA_UJSON a ujson, queued as its
    // clone; for text a C string; else the type's bytes) for the event `id`.
    // always_notify sends the notification even when the value did not
    // change. 0, or 1 when the id is unknown, value is null or the event
    // cannot be queued.
    int push(evt_modem &mdm, uint32_t id, const void *value, bool always_notify);
    // Adds a table "evtmgr_stats" with "recv_pipe_fd" and "send_pipe_fd".
    void fill_stats(ujson &json) const;

    int recv_fd() const { return watch_.fd; }
    int send_fd() const { return send_fd_; }

  private:
    struct item;
    struct pipe_watch : uloop_fd {
        evtmgr *owner;
    };

    evtmgr();
    static void __worker_cb(uloop_fd *fd, unsigned int events);
    static void evt_handle(item &it);
    void drop(item *it);

    pipe_watch watch_;
    int send_fd_ = -1;
    item *head_ = nullptr;
    item *tail_ = nullptr;
};

// The 16 bytes of an IPv6 address as "%02X:" groups: upper-case hex, each
// byte followed by a colon. Empty for null.
std::array<char, 49> convert_ipv6(const uint8_t *addr);
