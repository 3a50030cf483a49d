// A modem record as driver functions see it, for the drivers' unit tests:
// identity, model row, value cache and the answer being parsed, and a record
// of what the driver asked of the modem (events, follow-up requests, the
// awaited URC, data interface actions).
#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_driver.h"
#include "core/sim_config.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

// A bus message as JSON text ("(null)" when it cannot be printed).
inline std::string json_text(blob_attr *msg)
{
    char *text = blobmsg_format_json(msg, true);
    std::string out = text ? text : "(null)";
    std::free(text);
    return out;
}

class recording_modem : public modem
{
  public:
    struct event {
        uint32_t id;
        bool forced;
        int32_t number; // the value of a number event
        std::unique_ptr<ujson> data;
    };

    void new_event(uint32_t id, const void *data) override { record(id, data, false); }
    void force_event(uint32_t id, const void *data) override { record(id, data, true); }
    void set_last_active_urc(const char *name) override { awaited = name ? name : ""; }
    int refresh(uint32_t action, const ujson *args) override
    {
        refreshed.push_back(action);
        refresh_args.push_back(args ? json_text(args->get_blobmsg()) : "");
        return 0;
    }
    int interface_action(int action) override
    {
        iface_actions.push_back(action);
        return iface_result;
    }
    const char *object_name() const override { return "gsm.modem0"; }
    int broadcast(const char *name, const ujson &payload) override
    {
        broadcasts.emplace_back(name, json_text(payload.get_blobmsg()));
        return 0;
    }
    int call_service(const char *object, const char *method, const ujson &args, ujson &answer,
                     uint32_t timeout_ms) override
    {
        return service ? service(object, method, args, answer, timeout_ms) : no_service;
    }

    // Events whose value is a table, as they are registered.
    // clang-format off
    std::vector<uint32_t> data_events = {EVT_SERVICE_DATA, EVT_CLIP, EVT_SND_SMS, EVT_RING, EVT_NO_CARRIER, EVT_FOTA_STATE,
                                         EVT_FILE_UPLOAD, EVT_EMM_ERROR, EVT_ESM_ERROR, EVT_BAND_CHANGE};
    // clang-format on
    std::vector<event> events;
    std::vector<uint32_t> refreshed;
    std::vector<std::string> refresh_args; // each refresh's arguments as JSON ("" for none)
    std::vector<int> iface_actions;
    int iface_result = 0;
    std::string awaited;
    // Each bus event sent: its name and its payload as JSON.
    std::vector<std::pair<std::string, std::string>> broadcasts;
    // Stands in for the services on the bus; none when empty.
    std::function<int(const char *object, const char *method, const ujson &args, ujson &answer, uint32_t timeout_ms)>
        service;

  private:
    void record(uint32_t id, const void *data, bool forced)
    {
        event &e = events.emplace_back(event{id, forced, 0, nullptr});
        if (data && std::count(data_events.begin(), data_events.end(), id))
            e.data = static_cast<const ujson *>(data)->clone();
        else if (data)
            e.number = *static_cast<const int32_t *>(data);
    }
};

// A modem with the board's SIM slot wiring, read from the factory file under
// WWANCTL_ROOT by wire(); records the functionality the radio is set back to.
struct slot_modem : recording_modem {
    const sim_config *sim_cfg() const override { return cfg.get(); }
    uint32_t sim_slot_count() const override { return count; }
    int refresh(uint32_t action, const ujson *args) override
    {
        if (action == ACT_SET_FUNC && args)
            func = args->get_string("func");
        return recording_modem::refresh(action, args);
    }
    void wire() { cfg = sim_config_create(1, count); }
    std::unique_ptr<sim_config> cfg;
    uint32_t count = 0;
    std::string func;
};

// Build and parse one action at a time against a recording modem.
class driver_test : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        mdm.set_identity("1-1.2", "2C7C:0125");
        mdm.set_cache(cache.get());
    }
    void TearDown() override
    {
        std::free(req.command);
        std::free(req.extra);
    }

    // Build phase with args (may be null): the status; the command in command().
    int build(act_func fn, ujson *args = nullptr)
    {
        std::free(req.command);
        req.command = nullptr;
        req.length = 0;
        return fn(&mdm, 0, args, &req);
    }
    std::string command() const { return req.command ? std::string(req.command, req.length) : std::string(); }
    // Parse phase over a captured answer, and a URC handler over a captured
    // line, each into a fresh reply.
    int parse(act_func fn, const std::string &answer) { return fn(&mdm, 1, fresh_reply(answer), &req); }
    int urc(urc_func fn, const std::string &line) { return fn(&mdm, fresh_reply(line)); }
    ujson *fresh_reply(const std::string &text)
    {
        response = text;
        mdm.set_response(response.data(), response.size());
        reply = ujson::create();
        return reply.get();
    }
    // A reply value; "<none>" or -999 when the key is absent.
    std::string field(const char *key) const { return reply->exists(key) ? reply->get_string(key) : "<none>"; }
    int32_t number(const char *key) const { return reply->exists(key) ? reply->get_int(key) : -999; }
    std::string cached(const char *key) const
    {
        const cache_item *item = cache->get_item(key);
        return item && item->text() ? item->text() : "<none>";
    }
    // Bus arguments written as JSON.
    static std::unique_ptr<ujson> json_of(const std::string &text)
    {
        auto json = ujson::create();
        EXPECT_TRUE(blobmsg_add_json_from_string(json->buffer(), text.c_str())) << text;
        return json;
    }
    static std::string as_json(const ujson &json) { return json_text(json.get_blobmsg()); }
    // "<status>[ <command>]" of a build from JSON arguments; "<status> <reply>"
    // of a parse, then " <event>=<value>" per event raised; run() does either.
    std::string built(act_func fn, const std::string &json)
    {
        int status = build(fn, json_of(json).get());
        return std::to_string(status) + (command().empty() ? "" : " " + command());
    }
    std::string parsed(act_func fn, const std::string &answer)
    {
        mdm.events.clear();
        int status = parse(fn, answer);
        return std::to_string(status) + " " + as_json(*reply) + (mdm.events.empty() ? "" : " " + raised());
    }
    enum step { BUILD, PARSE };
    std::string run(step s, act_func fn, const std::string &text) { return s ? parsed(fn, text) : built(fn, text); }
    // The events raised: "<event>=<value>" each ("!" after a forced one),
    // then "<bus event>=<payload>" per broadcast.
    std::string raised() const
    {
        std::string out;
        for (const auto &e : mdm.events)
            out += (out.empty() ? "" : " ") + std::to_string(e.id) + "=" +
                   (e.data ? as_json(*e.data) : std::to_string(e.number)) + (e.forced ? "!" : "");
        for (const auto &[name, payload] : mdm.broadcasts)
            out += (out.empty() ? "" : " ") + name + "=" + payload;
        return out;
    }

    recording_modem mdm;
    std::unique_ptr<cache_manager> cache = cache_manager::create();
    std::unique_ptr<ujson> reply = ujson::create();
    request req;
    std::string response;
};
