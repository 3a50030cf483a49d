#include "util/event_handler.h"

#include "util/cache_manager.h"
#include "util/services_test_support.h"

#include <cstring>
#include <fcntl.h>
#include <vector>

namespace
{

using namespace services_test;

// Records notifications as `name=value` (`name!=` when hotplug too), the value
// being the payload without its "modem_id" and, when keyed by the name, bare.
class test_modem final : public evt_modem
{
  public:
    const char *id() const override { return "1-1"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    cache_manager *cache() override { return cache_.get(); }
    int notify_event(const char *name, ujson &payload, bool hotplug) override
    {
        std::string text = json_text(payload), tail = R"(,"modem_id":"1-1"})", key = "{\"" + std::string(name) + "\":";
        if (text.ends_with(tail))
            text = text.substr(0, text.size() - tail.size()) + "}";
        if (text.starts_with(key))
            text = text.substr(key.size(), text.size() - key.size() - 1);
        log += std::string(" ") + name + (hotplug ? "!=" : "=") + text;
        return 0;
    }

    std::unique_ptr<cache_manager> cache_ = cache_manager::create();
    std::string log;
};

// Logs `cb<id>=<value>/<cached value>`: the cache is updated first.
void record_cb(evt_modem &mdm, uint32_t id, void *value)
{
    const cache_item *item = mdm.cache()->get_item("pin_state");
    static_cast<test_modem &>(mdm).log += " cb" + std::to_string(id) + "=" +
                                          std::to_string(*static_cast<int32_t *>(value)) + "/" +
                                          std::to_string(item ? item->get<int32_t>() : -1);
}

const evt_desc test_events[] = {
    {1, "pin_state", CACHE_DATA_INT32, record_cb}, {6, "snd_sms", CACHE_DATA_UJSON, nullptr},
    {7, "rssi_value", CACHE_DATA_INT32, nullptr},  {901, "t_text", CACHE_DATA_STRING, nullptr},
    {902, "t_double", CACHE_DATA_DOUBLE, nullptr}, {903, "t_u32", CACHE_DATA_UINT32, nullptr},
    {904, "t_i64", CACHE_DATA_INT64, nullptr},     {905, "t_flag", CACHE_DATA_BOOL, nullptr},
};

// PUSH/FORCE (always notify) the text arg in the event's kind: the result;
// nothing is sent or cached from inside a push. RUN: what was sent since the
// last RUN. CACHED: the cached value of arg. DESTROY: "closed" when both pipe
// ends are. REG registers arg under id (null: unregisters): the name found.
enum op { INIT, PUSH, FORCE, RUN, CACHED, DESTROY, REG };

struct step {
    op what;
    uint32_t id;
    const char *arg;
    const char *expect;
};

class EventManager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
        for (const evt_desc &d : test_events)
            ASSERT_EQ(event_register(d), 0);
    }

    void TearDown() override
    {
        mgr.reset();
        uloop_done();
    }

    // Pushes a copy that dies right after the push: ASan reports a kept pointer.
    int push(const step &s)
    {
        const char *a = s.arg ? s.arg : "";
        int64_t n = std::strtoll(a, nullptr, 0);
        double d = std::strtod(a, nullptr);
        uint32_t type = event_find(s.id) ? event_find(s.id)->type : 0;
        auto json = type == CACHE_DATA_UJSON ? from_json(a) : nullptr;
        const char *p = type == CACHE_DATA_STRING   ? a
                        : type == CACHE_DATA_DOUBLE ? reinterpret_cast<const char *>(&d)
                                                    : reinterpret_cast<const char *>(&n);
        std::vector<char> bytes(p, p + (type == CACHE_DATA_STRING ? std::strlen(a) + 1 : 8));
        const void *v = !s.arg ? nullptr : json ? static_cast<void *>(json.get()) : bytes.data();
        return mgr->push(*mdm, s.id, v, s.what == FORCE);
    }

    std::string run(const step &s)
    {
        std::string out;
        switch (s.what) {
        case INIT:
            return std::to_string(mgr->init(*mdm));
        case PUSH:
        case FORCE:
            out = std::to_string(push(s));
            return mdm->log.empty() && mdm->cache()->item_count() == cached ? out : out + " and sent or cached";
        case RUN:
            run_loop();
            out = mdm->log.empty() ? "" : mdm->log.substr(1);
            mdm->log.clear();
            cached = mdm->cache()->item_count();
            return out;
        case CACHED:
            return json_text(*mdm->cache()->get_item(s.arg)->json());
        case DESTROY: {
            int r = mgr->recv_fd(), w = mgr->send_fd();
            mgr.reset();
            return fcntl(r, F_GETFD) == -1 && fcntl(w, F_GETFD) == -1 ? "closed" : "open";
        }
        case REG:
            if (s.arg)
                EXPECT_EQ(event_register({s.id, s.arg, CACHE_DATA_STRING, nullptr}), 0);
            else
                event_unregister(s.id);
            return event_find(s.id) ? event_find(s.id)->name : "";
        }
        return "?";
    }

    std::unique_ptr<test_modem> mdm = std::make_unique<test_modem>();
    std::unique_ptr<evtmgr> mgr = evtmgr::create();
    int32_t cached = 0;
};

TEST_F(EventManager, Steps)
{
    // clang-format off
    const step steps[] = {
        // refused pushes (unknown id, no value, no pipe yet) leave nothing behind for a later wake-up
        {PUSH, 4242, "3", "1"},
        {PUSH, 7, nullptr, "1"},
        {PUSH, 7, "3", "1"},
        {INIT, 0, nullptr, "0"},
        {PUSH, 901, "x", "0"},
        {RUN, 0, nullptr, R"(t_text="x")"},
        // delivered on the loop in push order; sent only on change unless forced; the callback follows each notification
        {PUSH, 7, "-70", "0"},
        {PUSH, 901, "LTE", "0"},
        {PUSH, 1, "1", "0"},
        {PUSH, 1, "1", "0"},
        {FORCE, 1, "1", "0"},
        {PUSH, 1, "2", "0"},
        {RUN, 0, nullptr, R"(rssi_value=-70 t_text="LTE" pin_state!=1 cb1=1/1 pin_state!=1 cb1=1/1 pin_state!=2 cb1=2/2)"},
        {RUN, 0, nullptr, ""},
        // the payload carries the value in its kind, a structured value as its members
        {PUSH, 902, "2.25", "0"},
        {PUSH, 903, "0xFFFFFFFF", "0"},
        {PUSH, 904, "1099511627776", "0"},
        {PUSH, 905, "1", "0"},
        {PUSH, 6, R"({"sms_used":2,"number":"+37060000000"})", "0"},
        {RUN, 0, nullptr, R"(t_double=2.250000 t_u32=-1 t_i64=1099511627776 t_flag=true snd_sms!={"sms_used":2,"number":"+37060000000"})"},
        {CACHED, 0, "snd_sms", R"({"sms_used":2,"number":"+37060000000"})"},
        // a pushed event keeps the registration it was pushed under; a second one replaces the first
        {REG, 950, "before", "before"},
        {PUSH, 950, "v", "0"},
        {REG, 950, "after", "after"},
        {RUN, 0, nullptr, R"(before="v")"},
        {REG, 950, nullptr, ""},
        {PUSH, 950, "v", "1"},
        // destroying closes the pipe and drops what is queued; unregistering left the others
        {PUSH, 7, "-60", "0"},
        {DESTROY, 0, nullptr, "closed"},
        {RUN, 0, nullptr, ""},
    };
    // clang-format on
    for (size_t i = 0; i < std::size(steps); i++) {
        SCOPED_TRACE("step " + std::to_string(i));
        EXPECT_EQ(run(steps[i]), steps[i].expect);
    }
}

TEST(EventIpv6, HexGroupsEachFollowedByAColon)
{
    const uint8_t a[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    const uint8_t b[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x1a, 0x2b, 0xff, 0xfe, 0x3c, 0x4d, 0x5e};
    EXPECT_STREQ(convert_ipv6(a).data(), "20:01:0D:B8:00:00:00:00:00:00:00:00:00:00:00:01:");
    EXPECT_STREQ(convert_ipv6(b).data(), "FE:80:00:00:00:00:00:00:02:1A:2B:FF:FE:3C:4D:5E:");
    EXPECT_STREQ(convert_ipv6(nullptr).data(), "");
}

} // namespace
