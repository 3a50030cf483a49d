#include "events/events.h"

#include <string>
#include <utility>
#include <vector>

#include "events/async.h"
#include "ubus/modem_api.h"
#include "util/async_handler.h"
#include "util/cache_manager.h"
#include "util/event_handler.h"
#include "util/services_test_support.h"

namespace
{

// A modem as the callbacks see it: a cache, and a record of the requests
// queued, the events forced and the broadcasts sent.
class test_modem final : public evt_modem
{
  public:
    const char *id() const override { return "1-1.2"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    cache_manager *cache() override { return cache_.get(); }
    int notify_event(const char *, ujson &, bool) override { return 0; }
    bool paused() const override { return is_paused; }
    int refresh(uint32_t action, const ujson *args) override
    {
        if (is_paused)
            return 0;
        std::string arg = args && args->exists("format") ? args->get_string("format") : "";
        refreshed.emplace_back(action, arg);
        return action == failing_action ? 1 : 0;
    }
    void force_event(uint32_t id, const void *) override { forced.push_back(id); }
    int broadcast(const char *name, const ujson &payload) override
    {
        broadcasts.emplace_back(name, std::to_string(payload.get_int("sim")) + "/" + payload.get_string("id"));
        return 0;
    }

    void put(const char *key) { cache_->update_item(key, CACHE_DATA_STRING, "x", 2); }
    bool has(const char *key) const { return cache_->get_item(key) != nullptr; }
    std::string text(const char *key) const
    {
        const cache_item *item = cache_->get_item(key);
        return item && item->text() ? item->text() : "<none>";
    }

    bool is_paused = false;
    uint32_t failing_action = 0;
    std::vector<std::pair<uint32_t, std::string>> refreshed;
    std::vector<uint32_t> forced;
    std::vector<std::pair<std::string, std::string>> broadcasts;

  private:
    std::unique_ptr<cache_manager> cache_ = cache_manager::create();
};

class EventsTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { ASSERT_EQ(events_init(), 0); }
};

// What each event leaves in the cache (of the keys put there before, and the
// text under its name + "_str") and which requests and events it sets off.
TEST_F(EventsTest, EventsDropStaleKeysAndAskForWhatTheyMadeStale)
{
    using reqs = std::vector<std::pair<uint32_t, std::string>>;
    using keys = std::vector<const char *>;
    const reqs pin_ok = {{ACT_GET_PIN_COUNT, ""}, {ACT_GET_IMSI, ""}, {ACT_GET_SMS_MODE, ""}, {ACT_GET_ICCID, ""}};
    const keys sim = {"iccid", "op_format", "operator", "sim_pin1", "operator_scan"};
    const keys secrets = {"iccid", "sim_pin1", "sim_puk1", "operator_scan"};
    const keys band = {"rssi_value", "ber_value", "band_str", "band_id", "reg_lac"};
    const keys sig = {"rssi_value", "rscp_value", "ecio_value", "rsrp_value",
                      "sinr_value", "rsrq_value", "ber_value",  "reg_lac"};
    const keys lte = {"rssi_value", "rsrp_value", "sinr_value", "rsrq_value", "ber_value", "reg_lac"};
    const keys umts = {"rssi_value", "rscp_value", "ecio_value", "ber_value", "reg_lac"};
    const struct {
        const char *what;
        keys put;
        uint32_t id, value;
        const char *data; // a JSON argument instead of the number
        uint32_t failing;
        bool paused;
        keys kept;
        reqs refreshed;
        std::vector<uint32_t> forced;
        std::string broadcast;
        const char *text; // null: none expected
    } rows[] = {
        // clang-format off
        {"PIN ok: the SIM is read again", sim, EVT_PIN_STATE, 1, nullptr, 0, false, {"sim_pin1", "operator_scan"}, pin_ok, {EVT_OPERATOR}, "", nullptr},
        {"PIN ok: the chain stops at a failed request", {}, EVT_PIN_STATE, 1, nullptr, ACT_GET_IMSI, false, {}, {pin_ok[0], pin_ok[1]}, {}, "", nullptr},
        {"PIN ok while paused", {}, EVT_PIN_STATE, 1, nullptr, 0, true, {}, {}, {EVT_OPERATOR}, "", nullptr},
        {"PIN not ready", secrets, EVT_PIN_STATE, 2, nullptr, 0, false, {}, {}, {}, "", "Not ready"},
        {"PIN: no SIM", secrets, EVT_PIN_STATE, 10, nullptr, 0, false, {}, {}, {}, "", "SIM not inserted"},
        {"PIN: SIM failure", secrets, EVT_PIN_STATE, 13, nullptr, 0, false, {}, {}, {}, "", "SIM failure"},
        {"PIN required", secrets, EVT_PIN_STATE, 4, nullptr, 0, false, {"sim_pin1", "sim_puk1", "operator_scan"}, {}, {}, "", "Required PIN"},
        {"PIN state unknown", secrets, EVT_PIN_STATE, 99, nullptr, 0, false, {"sim_pin1", "sim_puk1", "operator_scan"}, {}, {}, "", "Unknown"},
        {"PIN state 0", secrets, EVT_PIN_STATE, 0, nullptr, 0, false, {"sim_pin1", "sim_puk1", "operator_scan"}, {}, {}, "", "Unknown"},
        {"LTE", sig, EVT_SERVICE_MODE, 21, nullptr, 0, false, lte, {}, {}, "", "LTE"},
        {"5G", sig, EVT_SERVICE_MODE, 22, nullptr, 0, false, lte, {}, {}, "", "5G"},
        {"no service", sig, EVT_SERVICE_MODE, 2, nullptr, 0, false, {}, {}, {}, "", "No service"},
        {"mode unknown", sig, EVT_SERVICE_MODE, 0, nullptr, 0, false, {}, {}, {}, "", "Unknown"},
        {"GSM", sig, EVT_SERVICE_MODE, 4, nullptr, 0, false, {"rssi_value", "ber_value", "reg_lac"}, {}, {}, "", "GSM"},
        {"WCDMA", sig, EVT_SERVICE_MODE, 8, nullptr, 0, false, umts, {}, {}, "", "WCDMA"},
        {"2G/3G", sig, EVT_SERVICE_MODE, 30, nullptr, 0, false, umts, {}, {}, "", "2G_3G"},
        {"operator: long format, then read", {}, EVT_OPERATOR, 0, nullptr, 0, false, {}, {{ACT_SET_OPER_SELECTION, "long"}, {ACT_GET_OPER_SELECTION, ""}}, {}, "", nullptr},
        {"operator: long format refused", {}, EVT_OPERATOR, 0, nullptr, ACT_SET_OPER_SELECTION, false, {}, {{ACT_SET_OPER_SELECTION, "long"}}, {}, "", nullptr},
        {"SIM change", {"operator_scan"}, EVT_SIM_CHANGE, 2, nullptr, 0, false, {}, {}, {}, "sim.changed 2/1-1.2", nullptr},
        {"service data names its keys", {"response", "state_id", "coding_scheme", "imsi"}, EVT_SERVICE_DATA, 0, R"({"response":"Guthaben: 12,34 EUR","state_id":1})", 0, false, {"coding_scheme", "imsi"}, {}, {}, "", nullptr},
        {"SIM status is a number", {"coding_scheme", "imsi"}, EVT_SIM_STATUS, 1, nullptr, 0, false, {"coding_scheme", "imsi"}, {}, {}, "", nullptr},
        {"band change", band, EVT_BAND_CHANGE, 0, "{}", 0, false, {"reg_lac"}, {}, {}, "", nullptr},
        {"registration", {}, EVT_NETWORK_STATE, 1, nullptr, 0, false, {}, {{ACT_GET_VOLTE_READY, ""}}, {}, "", nullptr},
        {"packet registration", {}, EVT_NETWORK_STATE_PS, 5, nullptr, 0, false, {}, {{ACT_GET_VOLTE_READY, ""}}, {}, "", nullptr},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        test_modem m;
        m.failing_action = r.failing;
        m.is_paused = r.paused;
        for (const char *k : r.put)
            m.put(k);
        uint32_t value = r.value;
        auto data = r.data ? services_test::from_json(r.data) : nullptr;
        event_find(r.id)->cb(m, r.id, data ? static_cast<void *>(data.get()) : &value);
        keys kept;
        for (const char *k : r.put)
            if (m.has(k))
                kept.push_back(k);
        EXPECT_EQ(kept, r.kept);
        EXPECT_EQ(m.refreshed, r.refreshed);
        EXPECT_EQ(m.forced, r.forced);
        std::string sent;
        for (const auto &[name, payload] : m.broadcasts)
            sent += name + " " + payload;
        EXPECT_EQ(sent, r.broadcast);
        if (r.text) {
            EXPECT_EQ(m.text((std::string(event_find(r.id)->name) + "_str").c_str()), r.text);
        }
    }
}

// ---- asynchronous calls -------------------------------------------------------------

// A modem that records which pushed calls reached the driver's build.
struct async_test_modem final : async_modem {
    const char *id() const override { return "1-1.2"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    bool check_func(uint32_t) const override { return true; }
    int invoke_func(uint32_t, ujson *args, async_command &) override
    {
        built.push_back(services_test::json_text(*args));
        return ACT_STATUS_NOT_SUPPORTED; // nothing to queue
    }
    int new_internal_request(uint32_t, async_request_cb, void *, const char *, uint32_t, uint32_t, void *) override
    {
        return 1;
    }
    std::vector<std::string> built;
};

// The SMS send is call 0; a call without a recipient or a text never reaches
// the driver.
TEST(AsyncCalls, SmsSendNeedsANumberOrAText)
{
    ASSERT_EQ(uloop_init() | async_init(), 0);
    ASSERT_NE(async_find(0), nullptr);
    async_test_modem mdm;
    auto mgr = asyncmgr::create();
    ASSERT_EQ(mgr->init(mdm), 0);
    const char *args[] = {R"({"number":"1","async":true})", R"({"text":"hi"})", R"({"validate":true})"};
    for (const char *a : args)
        ASSERT_EQ(mgr->push(mdm, 0, services_test::from_json(a).get(), 160, ACT_SEND_SMS), 0);
    testing::internal::CaptureStdout();
    services_test::run_loop();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mdm.built, (std::vector<std::string>{args[0], args[1]}));
    mgr.reset();
    uloop_done();
}

} // namespace
