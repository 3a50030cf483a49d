// Asynchronous call manager of one modem: hands work for the modem to the
// event loop for later. A caller pushes a call (a registered id and a value);
// a byte written to a pipe wakes the loop on its next turn; the worker lets
// the call's prepare callback turn the value into the driver's arguments, has
// the driver build the command for the call's action and queues it as an
// internal request of the modem, whose completion releases the call.
#pragma once

#include "wwan/ubox.h"

#include <cstdint>
#include <memory>
#include <string>

class modem;
class ujson;
class async_item;
class asyncmgr;

// What a driver's build phase composes: the command bytes and the driver's
// extra data for the request (malloc'd; the request owns it once queued).
struct async_command {
    std::string text;
    void *extra = nullptr;
};

// Completion of an internal request, as the request record calls it: the
// modem, the request's action, the reply and the context.
using async_request_cb = void (*)(modem *mdm, uint32_t action, ujson *reply, void *ctx);

// What the async manager needs from a modem.
class async_modem
{
  public:
    virtual ~async_modem() = default;

    // Log lines name a modem as "`id [vid_pid]`".
    virtual const char *id() const = 0;
    virtual const char *vid_pid() const = 0;
    // Whether the modem's driver implements the action.
    virtual bool check_func(uint32_t action) const = 0;
    // Runs the driver's build phase for the action (under the crash guard):
    // ACT_STATUS_OK with the command in cmd, or the action status (and
    // nothing in cmd to release).
    virtual int invoke_func(uint32_t action, ujson *args, async_command &cmd) = 0;
    // Queues the command as the modem's own request; cb(..., ctx) is called
    // once, when it completes or times out. The async manager gives the
    // call's time-out in milliseconds. 0, or 1 when it cannot be queued
    // (extra then stays the caller's).
    virtual int new_internal_request(uint32_t action, async_request_cb cb, void *ctx, const char *command,
                                     uint32_t length, uint32_t timeout, void *extra) = 0;
};

// Checks a pushed value and yields the driver's arguments, which must live as
// long as the item (its own json()), or null to drop the call.
using async_prepare_cb = ujson *(*)(async_item &item);

struct async_call {
    uint32_t id;      // 0 is the SMS send
    const char *name; // a static text
    uint32_t type;    // cache data type of the value
    async_prepare_cb prepare;
};

// Process-wide call kinds, registered once at start-up. A second registration
// of an id replaces the first. 0, or 1 when out of memory.
int async_register(const async_call &call);
void async_unregister(uint32_t id);
const async_call *async_find(uint32_t id);

class async_item
{
  public:
    ~async_item();
    async_item(const async_item &) = delete;
    async_item &operator=(const async_item &) = delete;

    async_modem &mdm() const { return *mdm_; }
    uint32_t id() const { return call_.id; }
    const async_call &call() const { return call_; }
    // The pushed bytes (text with its terminator), or null for a ujson call.
    const void *value() const { return bytes_.get(); }
    uint32_t size() const { return size_; }
    // The pushed ujson's clone, or null.
    ujson *json() const { return json_.get(); }
    uint32_t timeout() const { return timeout_; } // seconds
    uint32_t action() const { return action_; }

  private:
    friend class asyncmgr;
    friend void complete_async_call(modem *, uint32_t, ujson *, void *);
    async_item(async_modem &mdm, const async_call &call, uint32_t timeout, uint32_t action);

    async_modem *mdm_;
    async_call call_;
    std::unique_ptr<uint8_t[]> bytes_;
    std::unique_ptr<ujson> json_;
    uint32_t size_ = 0;
    uint32_t timeout_;
    uint32_t action_;
    // The manager, and the links in whichever of its lists holds the item:
    // the queue, then the calls waiting for their request.
    asyncmgr *owner_ = nullptr;
    async_item *prev_ = nullptr;
    async_item *next_ = nullptr;
};

// The completion given to requests made from an item (ctx): releases it.
void complete_async_call(modem *mdm, uint32_t action, ujson *reply, void *ctx);

class asyncmgr
{
  public:
    // No pipe and an empty queue; null when the allocation fails.
    static std::unique_ptr<asyncmgr> create();

    // Stops watching, closes the pipe and releases every call, queued or
    // waiting for its request: requests made from them must not complete
    // afterwards.
    ~asyncmgr();
    asyncmgr(const asyncmgr &) = delete;
    asyncmgr &operator=(const asyncmgr &) = delete;

    // Opens the dispatcher pipe and watches it. 0, or 1 when it fails.
    int init(async_modem &mdm);
    // Queues call `id` with a copy of value (for CACHE_DATA_UJSON a ujson,
    // queued as its clone; for text a C string; else the type's bytes), to
    // run `action` with a request time-out of `timeout` seconds. 0, or 1
    // when the id is unknown, value is null or the call cannot be queued.
    int push(async_modem &mdm, uint32_t id, const void *value, uint32_t timeout, uint32_t action);

    int recv_fd() const { return watch_.fd; }
    int send_fd() const { return send_fd_; }

  private:
    friend void complete_async_call(modem *, uint32_t, ujson *, void *);

    struct item_list {
        async_item *head = nullptr;
        async_item *tail = nullptr;

        void append(async_item *it);
        void unlink(async_item *it);
        void clear();
    };
    struct pipe_watch : uloop_fd {
        asyncmgr *owner;
    };

    asyncmgr();
    static void __worker_cb(uloop_fd *fd, unsigned int events);
    static void call_async(std::unique_ptr<async_item> item, ujson *args);

    pipe_watch watch_;
    int send_fd_ = -1;
    item_list queue_;
    item_list pending_;
};
