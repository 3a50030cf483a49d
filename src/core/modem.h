// Modem instance: one per attached modem. It is named in every log line as
// "`id [vid_pid]`": its USB device id and its USB vendor:product text.
//
// `modem` is what driver functions and URC handlers receive: the modem's
// identity, its row of the information table, its value cache and the answer
// being parsed. It is a plain record so the channel's and the bus layer's
// tests can hold one by value; the running instance (modem_instance.h)
// derives from it, owns the services and fills these fields.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

class cache_manager;
class sim_config;
class ujson;
struct ubus_context;
struct modem_info;

class modem
{
  public:
    const char *id() const { return id_; }
    const char *vid_pid() const { return vid_pid_; }

    // Copies the identity, cut to 15 and 9 characters.
    void set_identity(std::string_view id, std::string_view vid_pid)
    {
        copy_text(id_, sizeof(id_), id);
        copy_text(vid_pid_, sizeof(vid_pid_), vid_pid);
    }

    // The modem's row of the information table; null until identified.
    const modem_info *info() const { return info_; }
    void set_info(const modem_info *info) { info_ = info; }

    // The modem's value cache, or null for a record without services.
    cache_manager *cache() const { return cache_; }
    void set_cache(cache_manager *cache) { cache_ = cache; }

    // The answer a driver function parses or a URC handler reads. It points
    // into the parser and stays valid until the parser is flushed or fed.
    const char *response() const { return response_; }
    size_t response_len() const { return response_len_; }
    void set_response(const char *data, size_t len)
    {
        response_ = data;
        response_len_ = len;
    }

    // Operations drivers call on the modem. A bare record does nothing, has
    // no bus connection and no SIM slots, and refuses what it cannot do.
    virtual void power_down() {}
    virtual ubus_context *bus() { return nullptr; }
    // Calls method of the bus object named object with args and waits up to
    // timeout_ms; the answer's members are added to answer. 0, the bus
    // status, or no_service when the object is not on the bus (or there is
    // no bus).
    static constexpr int no_service = -1;
    virtual int call_service(const char *object, const char *method, const ujson &args, ujson &answer,
                             uint32_t timeout_ms);
    // The modem's bus object name ("gsm.modem0"); empty before it is on the bus.
    virtual const char *object_name() const { return ""; }
    // Sends the bus event named event with payload to every listener. 0, or
    // 1 when it could not go out (no bus, no memory).
    virtual int broadcast(const char *, const ujson &) { return 1; }
    // Raises a state change (an event id and its value; the value is copied
    // before the call returns). The forced form notifies even when the value
    // did not change.
    virtual void new_event(uint32_t, const void *) {}
    virtual void force_event(uint32_t, const void *) {}
    // The URC prefix whose arrival answers the last command ("+CUSD"), or
    // null when nothing is awaited.
    virtual void set_last_active_urc(const char *) {}
    // Queues the daemon's own request for action (built by the driver from
    // args, which may be null). 0 when queued or when the action has no
    // function; else the action's status or 1.
    virtual int refresh(uint32_t, const ujson *) { return 1; }
    // Takes the modem's data interfaces down (2) or brings the ones taken
    // down back up (1). 0, or the network manager's failure bits.
    virtual int interface_action(int) { return 1; }
    // The SIM slot wiring and the number of slots; null and 0 when none.
    virtual const sim_config *sim_cfg() const { return nullptr; }
    virtual uint32_t sim_slot_count() const { return 0; }
    // The command channel is paused (firmware update).
    virtual bool paused() const { return false; }

    modem() = default;
    virtual ~modem() = default;
    modem(const modem &) = delete;
    modem &operator=(const modem &) = delete;

  private:
    static void copy_text(char *dst, size_t size, std::string_view src)
    {
        size_t n = std::min(size - 1, src.size());
        std::memcpy(dst, src.data(), n);
        std::memset(dst + n, 0, size - n);
    }

    char id_[16] = {};
    char vid_pid_[10] = {};
    const modem_info *info_ = nullptr;
    cache_manager *cache_ = nullptr;
    const char *response_ = nullptr;
    size_t response_len_ = 0;
};
