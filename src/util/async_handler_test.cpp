#include "util/async_handler.h"

#include "ubus/modem_api.h"
#include "util/cache_manager.h"
#include "util/services_test_support.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace
{

using namespace services_test;

// A modem whose driver builds "AT+T=<action>\r"; it logs each build as
// `build<args>` and each request as `req<action>/<time-out>` (`req!` when
// command, length, completion or extra data are not the built ones).
class test_modem final : public async_modem
{
  public:
    const char *id() const override { return "1-1"; }
    const char *vid_pid() const override { return "2C7C:0125"; }
    bool check_func(uint32_t) const override { return !lacks; }
    int invoke_func(uint32_t action, ujson *args, async_command &cmd) override
    {
        log += " build" + json_text(*args);
        if (status != ACT_STATUS_OK)
            return status;
        cmd.text = "AT+T=" + std::to_string(action) + "\r";
        cmd.extra = last_extra = std::malloc(1);
        return ACT_STATUS_OK;
    }
    int new_internal_request(uint32_t action, async_request_cb cb, void *ctx, const char *command, uint32_t length,
                             uint32_t timeout, void *extra) override
    {
        bool same = std::string(command, length) == "AT+T=" + std::to_string(action) + "\r" &&
                    cb == &complete_async_call && extra == last_extra;
        log += (same ? " req" : " req!") + std::to_string(action) + "/" + std::to_string(timeout);
        // A queued request owns its extra data; one refused leaves it to the caller.
        if (!full) {
            queued_extras.emplace_back(extra, &std::free);
            waiting.push_back([=] { cb(nullptr, action, nullptr, ctx); });
        }
        return full;
    }

    bool lacks = false, full = false;
    int status = ACT_STATUS_OK;
    void *last_extra = nullptr;
    std::string log;
    std::vector<std::unique_ptr<void, decltype(&std::free)>> queued_extras;
    std::vector<std::function<void()>> waiting;
};

// Takes the value when it names a recipient or a text, as the SMS send does.
ujson *sms_prepare(async_item &item)
{
    ujson *args = item.json();
    return args && (args->exists("number") || args->exists("text")) ? args : nullptr;
}

// Logs a plain value as `seen<value>/<size>/<time-out>` and drops the call.
ujson *record_prepare(async_item &item)
{
    std::string value = item.call().type == CACHE_DATA_INT32
                            ? std::to_string(*static_cast<const int32_t *>(item.value()))
                            : static_cast<const char *>(item.value());
    static_cast<test_modem &>(item.mdm()).log +=
        " seen" + value + "/" + std::to_string(item.size()) + "/" + std::to_string(item.timeout());
    return nullptr;
}

const async_call test_calls[] = {
    {0, "Sending SMS", CACHE_DATA_UJSON, sms_prepare},
    {990, "text call", CACHE_DATA_STRING, record_prepare},
    {991, "number call", CACHE_DATA_INT32, record_prepare},
};

// PUSH call id with arg (JSON, text or a number by the call's kind), the
// time-out and action: the result. RUN: the modem's log since the last RUN;
// nothing runs from inside a push. DONE completes the request made n-th.
// MODEM: the driver "lacks" the action, "fails" its build, finds the queue
// "full", or "" works.
enum op { INIT, PUSH, RUN, DONE, MODEM, DESTROY };

struct step {
    op what;
    uint32_t id;
    const char *arg;
    uint32_t timeout;
    uint32_t action;
    const char *expect;
};

class AsyncManager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
        for (const async_call &c : test_calls)
            ASSERT_EQ(async_register(c), 0);
    }

    void TearDown() override
    {
        mgr.reset();
        uloop_done();
    }

    // Pushes a copy that dies right after the push: ASan reports a kept pointer.
    int push(const step &s)
    {
        uint32_t type = async_find(s.id) ? async_find(s.id)->type : CACHE_DATA_UJSON;
        auto json = s.arg && type == CACHE_DATA_UJSON ? from_json(s.arg) : nullptr;
        int32_t n = s.arg ? std::atoi(s.arg) : 0;
        const char *p = type == CACHE_DATA_STRING ? s.arg : reinterpret_cast<const char *>(&n);
        std::vector<char> bytes(p, p + (type == CACHE_DATA_STRING ? std::strlen(s.arg) + 1 : sizeof(n)));
        const void *v = !s.arg ? nullptr : json ? static_cast<void *>(json.get()) : bytes.data();
        return mgr->push(mdm, s.id, v, s.timeout, s.action);
    }

    std::string run(const step &s)
    {
        std::string out;
        switch (s.what) {
        case INIT:
            return std::to_string(mgr->init(mdm));
        case PUSH:
            out = std::to_string(push(s));
            return mdm.log.empty() ? out : out + mdm.log;
        case RUN:
            run_loop();
            out = mdm.log.empty() ? "" : mdm.log.substr(1);
            mdm.log.clear();
            return out;
        case DONE:
            mdm.waiting.at(s.id)();
            return "";
        case MODEM:
            mdm.lacks = !std::strcmp(s.arg, "lacks");
            mdm.status = std::strcmp(s.arg, "fails") ? ACT_STATUS_OK : ACT_STATUS_NOT_SUPPORTED;
            mdm.full = !std::strcmp(s.arg, "full");
            return "";
        case DESTROY:
            mgr.reset();
            return "";
        }
        return "?";
    }

    test_modem mdm;
    std::unique_ptr<asyncmgr> mgr = asyncmgr::create();
};

// Actions: 2 reads the IMEI, 29 sends an SMS, 66 reads the ICCID. A call
// stays with the manager until its request completes: ASan reports a call
// released twice or never.
TEST_F(AsyncManager, Steps)
{
    // clang-format off
    const step steps[] = {
        // refused pushes (unknown call, no value, no pipe yet) leave nothing behind for a later wake-up
        {PUSH, 77, R"({"number":"1"})", 10, ACT_SEND_SMS, "1"},
        {PUSH, 0, nullptr, 10, ACT_SEND_SMS, "1"},
        {PUSH, 0, R"({"number":"1"})", 10, ACT_SEND_SMS, "1"},
        {INIT, 0, nullptr, 0, 0, "0"},
        // plain values are copied with their size; a call its prepare drops reaches no driver
        {PUSH, 990, "+37060000000", 30, ACT_GET_IMEI, "0"},
        {PUSH, 991, "7", 5, ACT_GET_ICCID, "0"},
        {RUN, 0, nullptr, 0, 0, "seen+37060000000/13/30 seen7/4/5"},
        // calls become requests on the loop in push order, the time-out in milliseconds; one request per call
        {PUSH, 0, R"({"number":"+37060000000","text":"hi"})", 160, ACT_SEND_SMS, "0"},
        {PUSH, 0, R"({"text":"hi"})", 10, ACT_GET_IMEI, "0"},
        {RUN, 0, nullptr, 0, 0, R"(build{"number":"+37060000000","text":"hi"} req29/160000 build{"text":"hi"} req2/10000)"},
        {RUN, 0, nullptr, 0, 0, ""},
        {DONE, 1, nullptr, 0, 0, ""},
        {DONE, 0, nullptr, 0, 0, ""},
        // calls that cannot run are dropped
        {PUSH, 0, R"({"validate":true})", 10, ACT_SEND_SMS, "0"},
        {RUN, 0, nullptr, 0, 0, ""},
        {MODEM, 0, "lacks", 0, 0, ""},
        {PUSH, 0, R"({"number":"1"})", 10, ACT_SEND_SMS, "0"},
        {RUN, 0, nullptr, 0, 0, ""},
        {MODEM, 0, "fails", 0, 0, ""},
        {PUSH, 0, R"({"number":"2"})", 10, ACT_SEND_SMS, "0"},
        {RUN, 0, nullptr, 0, 0, R"(build{"number":"2"})"},
        {MODEM, 0, "full", 0, 0, ""},
        {PUSH, 0, R"({"number":"3"})", 10, ACT_SEND_SMS, "0"},
        {RUN, 0, nullptr, 0, 0, R"(build{"number":"3"} req29/10000)"},
        // destroying releases the calls waiting for their requests and the queued ones
        {MODEM, 0, "", 0, 0, ""},
        {PUSH, 0, R"({"number":"4"})", 10, ACT_GET_IMEI, "0"},
        {PUSH, 0, R"({"number":"5"})", 10, ACT_GET_ICCID, "0"},
        {RUN, 0, nullptr, 0, 0, R"(build{"number":"4"} req2/10000 build{"number":"5"} req66/10000)"},
        {PUSH, 0, R"({"number":"6"})", 10, ACT_SEND_SMS, "0"},
        {DESTROY, 0, nullptr, 0, 0, ""},
        {RUN, 0, nullptr, 0, 0, ""},
    };
    // clang-format on
    for (size_t i = 0; i < std::size(steps); i++) {
        SCOPED_TRACE("step " + std::to_string(i));
        EXPECT_EQ(run(steps[i]), steps[i].expect);
    }
}

} // namespace
