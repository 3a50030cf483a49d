#include "util/event_handler.h"

#include "util/cache_manager.h"
#include "util/services_test_support.h"
#include "util/ujson.h"

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using namespace services_test;

struct notification {
    std::string name;
    std::string payload;
    bool hotplug;
};

class test_modem final : public evt_modem
{
  public:
    const char *id() const override { return "1-1"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    cache_manager *cache() override { return cache_.get(); }
    int notify_event(const char *name, ujson &payload, bool hotplug) override
    {
        sent.push_back({name, json_text(payload), hotplug});
        return 0;
    }

    std::unique_ptr<cache_manager> cache_ = cache_manager::create();
    std::vector<notification> sent;
};

// "id:value:cached value:notifications sent so far", per callback.
std::vector<std::string> g_callbacks;

void record_cb(evt_modem &mdm, uint32_t id, void *value)
{
    const cache_item *item = mdm.cache()->get_item("pin_state");
    g_callbacks.push_back(std::to_string(id) + ":" + std::to_string(*static_cast<int32_t *>(value)) + ":" +
                          std::to_string(item ? item->get<int32_t>() : -1) + ":" +
                          std::to_string(static_cast<test_modem &>(mdm).sent.size()));
}

const evt_desc test_events[] = {
    {1, "pin_state", CACHE_DATA_INT32, record_cb}, {6, "snd_sms", CACHE_DATA_UJSON, nullptr},
    {7, "rssi_value", CACHE_DATA_INT32, nullptr},  {901, "t_text", CACHE_DATA_STRING, nullptr},
    {902, "t_double", CACHE_DATA_DOUBLE, nullptr}, {903, "t_u32", CACHE_DATA_UINT32, nullptr},
    {904, "t_i64", CACHE_DATA_INT64, nullptr},     {905, "t_flag", CACHE_DATA_BOOL, nullptr},
};

class EventManager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
        for (const evt_desc &d : test_events)
            ASSERT_EQ(event_register(d), 0);
        g_callbacks.clear();
        mgr = evtmgr::create();
        ASSERT_TRUE(mgr);
        ASSERT_TRUE(mdm.cache());
    }

    void TearDown() override
    {
        mgr.reset();
        for (const evt_desc &d : test_events)
            event_unregister(d.id);
        uloop_done();
    }

    test_modem mdm;
    std::unique_ptr<evtmgr> mgr;
};

TEST_F(EventManager, DeliversOnTheLoopInOrderOnce)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    int32_t rssi = -70, pin = 1;
    char text[] = "LTE";
    ASSERT_EQ(mgr->push(mdm, 7, &rssi, false), 0);
    ASSERT_EQ(mgr->push(mdm, 901, text, false), 0);
    ASSERT_EQ(mgr->push(mdm, 1, &pin, false), 0);
    text[0] = rssi = pin = 0; // the events hold their own copies
    EXPECT_TRUE(mdm.sent.empty()) << "nothing is sent from inside push";
    EXPECT_EQ(mdm.cache()->item_count(), 0);

    run_loop();
    ASSERT_EQ(mdm.sent.size(), 3u);
    EXPECT_EQ(mdm.sent[0].name, "rssi_value");
    EXPECT_EQ(mdm.sent[1].name, "t_text");
    EXPECT_EQ(mdm.sent[2].name, "pin_state");
    EXPECT_EQ(mdm.cache()->get_item("rssi_value")->get<int32_t>(), -70);
    EXPECT_STREQ(mdm.cache()->get_item("t_text")->text(), "LTE");

    run_loop();
    EXPECT_EQ(mdm.sent.size(), 3u);
}

TEST_F(EventManager, SendsOnlyOnChangeUnlessAlwaysNotify)
{
    struct row {
        const char *what;
        uint32_t id;
        const void *first;
        const void *second;
        bool always;
        size_t sent;
    };
    const int32_t a = -70, b = -65;
    const row rows[] = {
        {"same number", 7, &a, &a, false, 1},
        {"same number, always", 7, &a, &a, true, 2},
        {"new number", 7, &a, &b, false, 2},
        {"same text", 901, "LTE", "LTE", false, 1},
        {"longer text", 901, "LTE", "LTE-A", false, 2},
    };
    ASSERT_EQ(mgr->init(mdm), 0);
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        test_modem fresh;
        ASSERT_EQ(mgr->push(fresh, r.id, r.first, false), 0);
        ASSERT_EQ(mgr->push(fresh, r.id, r.second, r.always), 0);
        run_loop();
        EXPECT_EQ(fresh.sent.size(), r.sent);
    }
}

TEST_F(EventManager, PayloadCarriesTheValueInItsKind)
{
    auto sms = from_json(R"({"sms_used":2,"number":"+37060000000"})");
    const double dbl = 2.25;
    const uint32_t u32 = 0xFFFFFFFF;
    const int64_t i64 = int64_t{1} << 40;
    const uint8_t flag = 1;
    const int32_t pin = 10;
    struct row {
        uint32_t id;
        const void *value;
        const char *payload;
        bool hotplug;
    };
    const row rows[] = {
        {901, "WCDMA", R"({"t_text":"WCDMA","modem_id":"1-1"})", false},
        {902, &dbl, R"({"t_double":2.250000,"modem_id":"1-1"})", false},
        {903, &u32, R"({"t_u32":-1,"modem_id":"1-1"})", false},
        {904, &i64, R"({"t_i64":1099511627776,"modem_id":"1-1"})", false},
        {905, &flag, R"({"t_flag":true,"modem_id":"1-1"})", false},
        {6, sms.get(), R"({"sms_used":2,"number":"+37060000000","modem_id":"1-1"})", true},
        {1, &pin, R"({"pin_state":10,"modem_id":"1-1"})", true},
    };
    ASSERT_EQ(mgr->init(mdm), 0);
    for (const row &r : rows)
        ASSERT_EQ(mgr->push(mdm, r.id, r.value, false), 0) << r.id;
    run_loop();
    ASSERT_EQ(mdm.sent.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
        SCOPED_TRACE(rows[i].id);
        EXPECT_EQ(mdm.sent[i].payload, rows[i].payload);
        EXPECT_EQ(mdm.sent[i].hotplug, rows[i].hotplug);
    }
    const cache_item *cached = mdm.cache()->get_item("snd_sms");
    ASSERT_TRUE(cached && cached->json());
    EXPECT_EQ(json_text(*cached->json()), R"({"sms_used":2,"number":"+37060000000"})");
}

TEST_F(EventManager, CallbackFollowsEachPublishedChange)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    const int32_t ok = 1, not_ready = 2;
    ASSERT_EQ(mgr->push(mdm, 1, &ok, false), 0);
    ASSERT_EQ(mgr->push(mdm, 1, &ok, false), 0); // unchanged: no callback
    ASSERT_EQ(mgr->push(mdm, 1, &ok, true), 0);  // forced
    ASSERT_EQ(mgr->push(mdm, 1, &not_ready, false), 0);
    run_loop();
    // after the cache update and the notification, never for an unchanged value
    EXPECT_EQ(g_callbacks, (std::vector<std::string>{"1:1:1:1", "1:1:1:2", "1:2:2:3"}));
}

TEST_F(EventManager, RefusedPushesQueueNothing)
{
    int32_t v = 3;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr->push(mdm, 4242, &v, false), 1);
    EXPECT_EQ(mgr->push(mdm, 7, nullptr, false), 1);
    EXPECT_EQ(mgr->push(mdm, 7, &v, false), 1) << "no pipe yet";
    testing::internal::GetCapturedStdout();

    // the refused event is not left behind for a later wake-up
    ASSERT_EQ(mgr->init(mdm), 0);
    ASSERT_EQ(mgr->push(mdm, 901, "x", false), 0);
    run_loop();
    ASSERT_EQ(mdm.sent.size(), 1u);
    EXPECT_EQ(mdm.sent[0].name, "t_text");
    EXPECT_EQ(mdm.cache()->get_item("rssi_value"), nullptr);
}

TEST_F(EventManager, DestroyClosesThePipeAndDropsQueuedEvents)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    int r = mgr->recv_fd(), w = mgr->send_fd();
    int32_t rssi = -70;
    ASSERT_EQ(mgr->push(mdm, 7, &rssi, false), 0);
    mgr.reset(); // drops the queued event
    EXPECT_EQ(fcntl(r, F_GETFD), -1);
    EXPECT_EQ(fcntl(w, F_GETFD), -1);
    run_loop();
    EXPECT_TRUE(mdm.sent.empty());
}

TEST_F(EventManager, PushedEventsKeepTheirRegistration)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    ASSERT_EQ(event_register({950, "before", CACHE_DATA_STRING, nullptr}), 0);
    ASSERT_EQ(mgr->push(mdm, 950, "v", false), 0);
    ASSERT_EQ(event_register({950, "after", CACHE_DATA_STRING, nullptr}), 0);
    ASSERT_NE(event_find(950), nullptr);
    EXPECT_STREQ(event_find(950)->name, "after") << "a second registration replaces the first";
    run_loop();
    ASSERT_EQ(mdm.sent.size(), 1u);
    EXPECT_EQ(mdm.sent[0].name, "before");

    event_unregister(950);
    EXPECT_EQ(event_find(950), nullptr);
    EXPECT_EQ(mgr->push(mdm, 950, "v", false), 1);
    EXPECT_NE(event_find(7), nullptr) << "others stay registered";
}

TEST(EventIpv6, HexGroupsEachFollowedByAColon)
{
    struct row {
        uint8_t addr[16];
        const char *text;
    };
    const row rows[] = {
        {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01},
         "20:01:0D:B8:00:00:00:00:00:00:00:00:00:00:00:01:"},
        {{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x1a, 0x2b, 0xff, 0xfe, 0x3c, 0x4d, 0x5e},
         "FE:80:00:00:00:00:00:00:02:1A:2B:FF:FE:3C:4D:5E:"},
    };
    for (const row &r : rows)
        EXPECT_STREQ(convert_ipv6(r.addr).data(), r.text);
    EXPECT_STREQ(convert_ipv6(nullptr).data(), "");
}

} // namespace
