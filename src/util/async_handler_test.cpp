#include "util/async_handler.h"

#include "ubus/modem_api.h"
#include "util/cache_manager.h"
#include "util/services_test_support.h"
#include "util/ujson.h"

#include "wwan/ubox.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using namespace services_test;

struct queued_request {
    uint32_t action;
    async_request_cb cb;
    void *ctx;
    std::string command;
    uint32_t length;
    uint32_t timeout;
    void *extra;

    void complete() const { cb(nullptr, action, nullptr, ctx); }
};

// A modem whose driver builds "AT+T=<action>\r" for the supported actions.
class test_modem final : public async_modem
{
  public:
    const char *id() const override { return "1-1"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    bool check_func(uint32_t action) const override { return supported.count(action) != 0; }
    int invoke_func(uint32_t action, ujson *args, async_command &cmd) override
    {
        invoked.push_back(json_text(*args));
        if (status != ACT_STATUS_OK)
            return status;
        cmd.text = "AT+T=" + std::to_string(action) + "\r";
        cmd.extra = std::malloc(1);
        extras.push_back(cmd.extra);
        return ACT_STATUS_OK;
    }
    int new_internal_request(uint32_t action, async_request_cb cb, void *ctx, const char *command, uint32_t length,
                             uint32_t timeout, void *extra) override
    {
        requests.push_back({action, cb, ctx, std::string(command, length), length, timeout, extra});
        // A queued request owns its extra data; one refused leaves it to the caller.
        if (queue_result == 0)
            queued_extras.emplace_back(extra, &std::free);
        return queue_result;
    }

    std::set<uint32_t> supported = {ACT_SEND_SMS, ACT_GET_IMEI, ACT_GET_ICCID};
    int status = ACT_STATUS_OK;
    int queue_result = 0;
    std::vector<void *> extras;
    std::vector<std::unique_ptr<void, decltype(&std::free)>> queued_extras;
    std::vector<std::string> invoked;
    std::vector<queued_request> requests;
};

// Takes the value when it names a recipient or a text, as the SMS send does.
ujson *sms_prepare(async_item &item)
{
    ujson *args = item.json();
    return args && (args->exists("number") || args->exists("text")) ? args : nullptr;
}

// What a plain value looks like to the worker: "value/size/timeout".
std::vector<std::string> g_seen;

// Records the call and drops it.
ujson *record_prepare(async_item &item)
{
    std::string value = item.call().type == CACHE_DATA_INT32
                            ? std::to_string(*static_cast<const int32_t *>(item.value()))
                            : static_cast<const char *>(item.value());
    g_seen.push_back(value + "/" + std::to_string(item.size()) + "/" + std::to_string(item.timeout()));
    return nullptr;
}

const async_call test_calls[] = {
    {0, "Sending SMS", CACHE_DATA_UJSON, sms_prepare},
    {990, "text call", CACHE_DATA_STRING, record_prepare},
    {991, "number call", CACHE_DATA_INT32, record_prepare},
};

class AsyncManager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
        for (const async_call &c : test_calls)
            ASSERT_EQ(async_register(c), 0);
        g_seen.clear();
        mgr = asyncmgr::create();
        ASSERT_TRUE(mgr);
    }

    void TearDown() override
    {
        mgr.reset();
        for (const async_call &c : test_calls)
            async_unregister(c.id);
        uloop_done();
    }

    test_modem mdm;
    std::unique_ptr<asyncmgr> mgr;
};

TEST_F(AsyncManager, CallsBecomeRequestsOnTheLoopInPushOrder)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    auto sms = from_json(R"({"number":"+37060000000","text":"hi"})");
    ASSERT_EQ(mgr->push(mdm, 0, sms.get(), 160, ACT_SEND_SMS), 0);
    sms->add_int("late", 1); // the call holds its own copy
    ASSERT_EQ(mgr->push(mdm, 0, sms.get(), 10, ACT_GET_IMEI), 0);
    sms.reset();
    EXPECT_TRUE(mdm.invoked.empty()) << "nothing runs from inside push";

    run_loop();
    EXPECT_EQ(mdm.invoked, (std::vector<std::string>{R"({"number":"+37060000000","text":"hi"})",
                                                     R"({"number":"+37060000000","text":"hi","late":1})"}));
    ASSERT_EQ(mdm.requests.size(), 2u);
    const queued_request &req = mdm.requests[0];
    EXPECT_EQ(req.action, static_cast<uint32_t>(ACT_SEND_SMS));
    EXPECT_EQ(req.command, "AT+T=" + std::to_string(ACT_SEND_SMS) + "\r");
    EXPECT_EQ(req.length, req.command.size());
    EXPECT_EQ(req.timeout, 160000u) << "seconds become milliseconds";
    EXPECT_EQ(req.extra, mdm.extras[0]);
    EXPECT_EQ(req.cb, &complete_async_call);
    EXPECT_EQ(mdm.requests[1].action, static_cast<uint32_t>(ACT_GET_IMEI));
    EXPECT_EQ(mdm.requests[1].timeout, 10000u);

    run_loop();
    EXPECT_EQ(mdm.requests.size(), 2u) << "one request per call";
    // each completion releases its call, in any order: ASan reports a leak
    // or a double free otherwise
    mdm.requests[1].complete();
    mdm.requests[0].complete();
}

TEST_F(AsyncManager, CallsThatCannotRunAreDropped)
{
    struct row {
        const char *what;
        const char *value;
        bool supported;
        int status;
        int queue_result;
        size_t invoked;
        size_t requests;
    };
    const row rows[] = {
        {"prepare refuses the value", R"({"validate":true})", true, 0, 0, 0, 0},
        {"driver lacks the action", R"({"number":"1"})", false, 0, 0, 0, 0},
        {"driver error", R"({"number":"1"})", true, ACT_STATUS_NOT_SUPPORTED, 0, 1, 0},
        {"request not queued", R"({"number":"1"})", true, 0, 1, 1, 1},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        test_modem m;
        if (!r.supported)
            m.supported.clear();
        m.status = r.status;
        m.queue_result = r.queue_result;
        auto local = asyncmgr::create();
        ASSERT_TRUE(local);
        ASSERT_EQ(local->init(m), 0);
        auto args = from_json(r.value);
        ASSERT_EQ(local->push(m, 0, args.get(), 10, ACT_SEND_SMS), 0);

        testing::internal::CaptureStdout();
        run_loop();
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(m.invoked.size(), r.invoked);
        EXPECT_EQ(m.requests.size(), r.requests);
    }
}

TEST_F(AsyncManager, RefusedPushesQueueNothing)
{
    auto sms = from_json(R"({"number":"1"})");
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr->push(mdm, 77, sms.get(), 10, ACT_SEND_SMS), 1);
    EXPECT_EQ(mgr->push(mdm, 0, nullptr, 10, ACT_SEND_SMS), 1);
    EXPECT_EQ(mgr->push(mdm, 0, sms.get(), 10, ACT_SEND_SMS), 1) << "no pipe yet";
    testing::internal::GetCapturedStdout();

    // the refused call is not left behind for a later wake-up; plain values
    // are copied with their size
    ASSERT_EQ(mgr->init(mdm), 0);
    char text[] = "+37060000000";
    int32_t index = 7;
    ASSERT_EQ(mgr->push(mdm, 990, text, 30, ACT_GET_IMEI), 0);
    ASSERT_EQ(mgr->push(mdm, 991, &index, 5, ACT_GET_ICCID), 0);
    text[0] = index = 0;
    run_loop();
    EXPECT_EQ(g_seen, (std::vector<std::string>{"+37060000000/13/30", "7/4/5"}));
    EXPECT_TRUE(mdm.requests.empty()) << "a call its prepare refuses reaches no driver";
}

TEST_F(AsyncManager, DestroyReleasesQueuedAndWaitingCalls)
{
    ASSERT_EQ(mgr->init(mdm), 0);
    auto sms = from_json(R"({"number":"1"})");
    ASSERT_EQ(mgr->push(mdm, 0, sms.get(), 10, ACT_SEND_SMS), 0);
    ASSERT_EQ(mgr->push(mdm, 0, sms.get(), 10, ACT_GET_IMEI), 0);
    run_loop();
    ASSERT_EQ(mdm.requests.size(), 2u);
    ASSERT_EQ(mgr->push(mdm, 0, sms.get(), 10, ACT_GET_ICCID), 0);
    // two calls wait for their requests and one is queued; the requests are
    // dropped with the modem, never completed: ASan reports what leaks
    mgr.reset();
    run_loop();
    EXPECT_EQ(mdm.requests.size(), 2u);
}

} // namespace
