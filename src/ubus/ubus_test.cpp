// The bus layer on a real broker: a modem double with a test driver record
// serves `gsm.modem0`, a manager double serves `gsm`, and a second connection
// of this process calls them as any client would.
#include "ubus/ubus.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"
#include <libubus.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_driver.h"
#include "ubus/bus_test_support.h"
#include "ubus/modem_api.h"
#include "util/ujson.h"

namespace
{

using namespace bus_test;

// ---- the test driver ----

// The actions the driver's functions were asked for, in call order.
std::vector<uint32_t> g_invocations;
// The extra data the last build made (malloc'd, as drivers make it).
void *g_extra;
uint32_t g_id_status = ACT_STATUS_OK;

int set_command(request *req, const std::string &text)
{
    req->command = strdup(text.c_str());
    req->length = static_cast<uint32_t>(text.size());
    g_extra = std::malloc(1);
    req->extra = g_extra;
    return ACT_STATUS_OK;
}

int act_firmware(modem *, int, ujson *, request *req)
{
    g_invocations.push_back(ACT_GET_FIRMWARE);
    return set_command(req, "AT+CGMR");
}

// Accepts only the 3GPP functionality levels 0 and 1.
int act_set_func(modem *, int, ujson *json, request *req)
{
    g_invocations.push_back(ACT_SET_FUNC);
    const char *func = json ? json->get_string("func") : nullptr;
    if (!func || (std::strcmp(func, "0") && std::strcmp(func, "1")))
        return ACT_STATUS_INVALID_ARGS;
    return set_command(req, std::string("AT+CFUN=") + func + (json->get_bool("reset") ? ",1" : ""));
}

// Writes its action and the argument object it was given into the command,
// so the tests see where the dispatch went and what it copied.
template <uint32_t action> int act_echo(modem *, int, ujson *json, request *req)
{
    g_invocations.push_back(action);
    return set_command(req,
                       std::string(act_type_id_str[action] + 4) + "=" + (json ? json_text(json->get_blobmsg()) : "-"));
}

int act_id_info(modem *, int, ujson *json, request *)
{
    g_invocations.push_back(ACT_GET_ID_INFO);
    if (g_id_status != ACT_STATUS_OK)
        return static_cast<int>(g_id_status);
    json->add_string("manufacturer", "Test");
    json->add_string("raw", "Test\r\nModel T1\r\nRevision: T1R01");
    return ACT_STATUS_OK;
}

modem_driver g_test_driver = {"Test", "test", nullptr, nullptr};
modem_driver g_bare_driver = {"Bare", "bare", nullptr, nullptr};

void fill_test_driver()
{
    g_test_driver.funcs[ACT_GET_FIRMWARE] = act_firmware;
    g_test_driver.funcs[ACT_SET_FUNC] = act_set_func;
    g_test_driver.funcs[ACT_GET_ID_INFO] = act_id_info;
    g_test_driver.funcs[ACT_GET_FUNC] = act_echo<ACT_GET_FUNC>;
    g_test_driver.funcs[ACT_GET_CLIP_MODE] = act_echo<ACT_GET_CLIP_MODE>;
    g_test_driver.funcs[ACT_GET_NET_MODE_TECH] = act_echo<ACT_GET_NET_MODE_TECH>;
    g_test_driver.funcs[ACT_SET_PDP_CTX_STATE] = act_echo<ACT_SET_PDP_CTX_STATE>;
    g_test_driver.funcs[ACT_SET_PDP_CTX] = act_echo<ACT_SET_PDP_CTX>;
    g_test_driver.funcs[ACT_SET_LTE_BAND] = act_echo<ACT_SET_LTE_BAND>;
    g_test_driver.funcs[ACT_SET_DEFAULT_BANDS] = act_echo<ACT_SET_DEFAULT_BANDS>;
    g_test_driver.funcs[ACT_SEND_SMS] = act_echo<ACT_SEND_SMS>;
    g_test_driver.funcs[ACT_READ_SMS] = act_echo<ACT_READ_SMS>;
    g_test_driver.funcs[ACT_GET_MSG_STORAGE_LOC] = act_echo<ACT_GET_MSG_STORAGE_LOC>;
    g_test_driver.funcs[ACT_SET_URC_IND_CFG] = act_echo<ACT_SET_URC_IND_CFG>;
}

// ---- doubles ----

class test_modem : public ubus_modem
{
  public:
    struct queued {
        std::string command;
        uint32_t timeout_ms;
        void *extra;
    };

    const char *id() const override { return "1-1"; }
    const char *vid_pid() const override { return "1234:5678"; }
    ubus_context *bus() override { return ctx; }
    ubus_modem_object &bus_object() override { return object; }
    bool paused() const override { return is_paused; }
    const modem_driver *driver() const override { return drv; }
    modem *driver_modem() override { return &core; }

    // Records the request; the call is not deferred, so the caller sees
    // status 0 without a body.
    int new_request(uint32_t, ubus_request_data *, const char *command, uint32_t length, uint32_t timeout_ms,
                    void *extra, request_source * = nullptr) override
    {
        if (fail_queue)
            return 1;
        queue.push_back({std::string(command, length), timeout_ms, extra});
        extras.emplace_back(extra, &std::free); // a queued request owns its extra data
        return 0;
    }
    void notify_error(ubus_request_data *req, int status, ujson &reply) override
    {
        reply.add_int("errno", status);
        reply.add_string("error", act_status_str(static_cast<uint32_t>(status)));
        ubus_send_reply(ctx, req, reply.get_blobmsg());
    }
    int async_push(uint32_t call_id, const ujson &args, uint32_t timeout, uint32_t action) override
    {
        pushes.push_back(std::to_string(call_id) + " " + json_text(args.get_blobmsg()) + " " + std::to_string(timeout) +
                         " " + act_type_id_str[action]);
        return 0;
    }
    void fill_stats(ujson &out) override { out.add_int("queued", static_cast<int32_t>(queue.size())); }
    void set_modem_func(uint32_t f) override { func = f; }
    uint32_t default_modem_func() const override { return 1; }

    ubus_context *ctx = nullptr;
    ubus_modem_object object;
    modem core;
    const modem_driver *drv = &g_test_driver;
    bool is_paused = false;
    bool fail_queue = false;
    uint32_t func = 0;
    std::vector<queued> queue;
    std::vector<std::string> pushes; // "<call id> <args> <timeout> <action>"
    std::vector<std::unique_ptr<void, decltype(&std::free)>> extras;
};

class test_manager : public ubus_manager
{
  public:
    ubus_context *bus() override { return ctx; }
    ubus_manager_object &bus_object() override { return object; }
    void fill_stats(ujson &out) override
    {
        void *t = out.open_table("mdm_stats");
        out.add_int("num_modems", 1);
        out.add_int("blocked_modems", 0);
        out.close_table(t);
    }
    void dump_log_buffer() override { calls.push_back("dump"); }
    int attach(const char *usb_id) override { return record("attach", usb_id); }
    int deattach(const char *usb_id) override { return record("deattach", usb_id); }
    std::string get_free_name(ubus_modem &) override { return free_name; }

    int record(const char *what, const char *usb_id)
    {
        if (std::strcmp(usb_id, "1-1"))
            return 1;
        calls.push_back(std::string(what) + " " + usb_id);
        return 0;
    }

    ubus_context *ctx = nullptr;
    ubus_manager_object object;
    std::string free_name = "gsm.modem0";
    std::vector<std::string> calls;
};

class BusApi : public fixture
{
  protected:
    static void SetUpTestSuite() { fill_test_driver(); }

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(fixture::SetUp());
        if (IsSkipped())
            return;
        mgr.ctx = server;
        mdm.ctx = server;
        ASSERT_EQ(ubus_init(mgr), 0);
        ASSERT_EQ(ubus_init_modem(mgr, mdm), 0);
        ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &modem_id), 0);
        ASSERT_EQ(ubus_lookup_id(client, "gsm", &gsm_id), 0);
        g_invocations.clear();
        g_id_status = ACT_STATUS_OK;
    }
    void TearDown() override
    {
        if (server && mdm.object.name)
            ubus_remove_object(server, &mdm.object.obj);
        fixture::TearDown();
    }

    call_result call_on(uint32_t obj, const char *method, const char *json = nullptr, int levels = 0)
    {
        return fixture::call(obj, method, json, levels, 5000);
    }
    call_result call(const char *method, const char *json = nullptr) { return call_on(modem_id, method, json); }

    // The call's status, reply and what it queued; a refused call never
    // reaches the driver.
    std::string outcome(const std::string &method, const char *args)
    {
        mdm.queue.clear();
        g_invocations.clear();
        const bool gsm = method.rfind("gsm ", 0) == 0;
        call_result res = call_on(gsm ? gsm_id : modem_id, method.substr(gsm ? 4 : 0).c_str(), args);
        EXPECT_TRUE(res.done);
        if (res.status != 0) {
            EXPECT_TRUE(g_invocations.empty());
        }
        std::string out = std::to_string(res.status) + (res.reply.empty() ? "" : " " + res.reply);
        for (const auto &q : mdm.queue) {
            out += " -> " + q.command + " @" + std::to_string(q.timeout_ms);
            EXPECT_EQ(q.extra, method == "exec" ? nullptr : g_extra);
        }
        return out;
    }

    test_manager mgr;
    test_modem mdm;
    uint32_t modem_id = 0, gsm_id = 0;
};

// ---- the methods ----

// What one call answers and what it queues, as "<status>[ <reply>][ ->
// <command> @<timeout ms>]" (statuses: 1 invalid command, 2 invalid argument,
// 5 no data, 8 not supported, 10 connection failed): the nominal time-out plus one second, arguments
// copied by kind, refusals before the driver. "gsm <method>" calls the daemon
// object.
TEST_F(BusApi, CallsAnswerAndQueue)
{
    const struct {
        const char *method, *args, *outcome;
    } rows[] = {
        // clang-format off
        {"get_imsi", nullptr, "8"},
        {"set_func", R"({"func":"7"})", R"(0 {"errno":2,"error":"Invalid arguments"})"},
        {"get_firmware", nullptr, "0 -> AT+CGMR @11000"},
        // Methods without arguments get no argument object, whatever is sent.
        {"get_clip_mode", R"({"mode":"1"})", "0 -> GET_CLIP_MODE=- @21000"},
        {"get_func", nullptr, "0 -> GET_FUNC=- @16000"},
        {"get_net_mode", nullptr, "0 -> GET_NET_MODE_TECH=- @11000"},
        {"get_net_mode_tech", nullptr, "0 -> GET_NET_MODE_TECH=- @11000"},
        {"set_func", "{}", "2"},
        {"set_func", R"({"func":1})", "2"},
        {"set_func", R"({"reset":true})", "2"},
        {"set_pdp_ctx_state", R"({"cid":"1","state":"1"})", "2"},
        {"set_func", R"({"func":"1","reset":true})", "0 -> AT+CFUN=1,1 @16000"},
        // Optional arguments left out stay out; unknown ones are ignored.
        {"set_pdp_ctx", R"({"cid":3,"apn":"internet","bogus":"x"})", R"(0 -> SET_PDP_CTX={"cid":3,"apn":"internet"} @11000)"},
        // A value past int32 is no int32 on the wire: the optional mask is absent.
        {"set_urc_ind_cfg", R"({"urc":"csq","enabled":false,"urc_mask":4294967295})", R"(0 -> SET_URC_IND_CFG={"urc":"csq","enabled":false} @11000)"},
        {"set_lte_band", R"({"bands":["LTE_B3",7]})", "2"},
        {"set_lte_band", R"({"bands":"LTE_B3"})", "2"},
        {"set_lte_band", R"({"bands":["LTE_B1","LTE_B3"]})", R"(0 -> SET_LTE_BAND={"bands":["LTE_B1","LTE_B3"]} @11000)"},
        {"set_default_bands", "{}", "0 -> SET_DEFAULT_BANDS={} @11000"},
        {"set_default_bands", R"({"skip":[],"reboot":true})", R"(0 -> SET_DEFAULT_BANDS={"reboot":true,"skip":[]} @11000)"},
        {"set_pdp_ctx_state", R"({"cid":1,"state":"1","timeout":60})", R"(0 -> SET_PDP_CTX_STATE={"cid":1,"state":"1","timeout":60} @61000)"},
        {"set_pdp_ctx_state", R"({"cid":1,"state":"1"})", R"(0 -> SET_PDP_CTX_STATE={"cid":1,"state":"1"} @151000)"},
        {"set_func", R"({"func":"0","timeout":60})", "0 -> AT+CFUN=0 @16000"},
        // Accepted though not published.
        {"read_sms", R"({"index":3,"strip":true})", R"(0 -> READ_SMS={"index":3,"strip":true} @11000)"},
        {"read_sms", "{}", "2"},
        {"get_msg_storage", R"({"full":true})", R"(0 -> GET_MSG_STORAGE_LOC={"full":true} @11000)"},
        {"get_msg_storage", nullptr, "0 -> GET_MSG_STORAGE_LOC={} @11000"},
        // Core methods.
        {"exec", R"({"command":"at+cgmi"})", "0 -> at+cgmi @10000"},
        {"exec", R"({"command":"AT+CSQ","timeout":30})", "0 -> AT+CSQ @30000"},
        {"exec", R"({"command":"+CGMI"})", "1"},
        {"exec", R"({"timeout":5})", "2"},
        {"exec", R"({"command":"ati"})", R"(0 {"request":"ATI\r","response":"Test\r\nModel T1\r\nRevision: T1R01"})"},
        {"exec", R"({"command":"ATI1"})", R"(0 {"request":"ATI\r","response":"Test\r\nModel T1\r\nRevision: T1R01"})"},
        // Sending in the background goes to the async manager; false behaves
        // as absent; other methods do not know `async`.
        {"send_sms", R"({"number":"+37060000000","text":"hi","async":true})", "0"},
        {"send_sms", R"({"number":"1","text":"x","async":false})", R"(0 -> SEND_SMS={"number":"1","text":"x","async":false} @161000)"},
        {"set_func", R"({"func":"1","async":true})", "0 -> AT+CFUN=1 @16000"},
        {"get_id_info", nullptr, R"(0 {"manufacturer":"Test","raw":"Test\r\nModel T1\r\nRevision: T1R01"})"},
        {"info", nullptr, R"(0 {"queued":0})"},
        {"update_modem_func", R"({"state_id":99})", R"(0 {"status":"OK","status_id":0})"},
        {"update_modem_func", "{}", "2"},
        {"get_default_modem_func", nullptr, R"(0 {"id":1,"type":"Modem data-only mode"})"},
        // The daemon object.
        {"gsm info", nullptr, R"(0 {"mdm_stats":{"num_modems":1,"blocked_modems":0}})"},
        {"gsm dump_log", nullptr, "0"},
        {"gsm enable_debug", nullptr, "2"},
        {"gsm enable_debug", R"({"enabled":true})", "0"},
        {"gsm attach", R"({"usbid":"9-9"})", "5"},
        {"gsm deattach", R"({"usbid":"9-9"})", "5"},
        {"gsm attach", nullptr, "2"},
        {"gsm attach", R"({"usbid":11})", "2"},
        {"gsm attach", R"({"usbid":"1-1"})", "0"},
        {"gsm deattach", R"({"usbid":"1-1"})", "0"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.method << " " << (r.args ? r.args : ""));
        EXPECT_EQ(outcome(r.method, r.args), r.outcome);
    }
    EXPECT_EQ(mdm.func, 99u);
    EXPECT_EQ(mdm.pushes,
              std::vector<std::string>{R"(0 {"number":"+37060000000","text":"hi","async":true} 160 ACT_SEND_SMS)"});
    EXPECT_EQ(mgr.calls, (std::vector<std::string>{"dump", "attach 1-1", "deattach 1-1"}));
    EXPECT_EQ(g_log_level, 1u);
    EXPECT_EQ(call_on(gsm_id, "enable_debug", R"({"enabled":false})").status, 0);
    EXPECT_EQ(g_log_level, 0u);
}

// Identification failures reach the caller; without identification the
// driver cannot answer it.
TEST_F(BusApi, ExecIdentificationWithoutAnIdentification)
{
    g_id_status = ACT_STATUS_INVALID_RESPONSE;
    EXPECT_EQ(call("exec", R"({"command":"ATI"})").reply, R"({"errno":5,"error":"Invalid response"})");
    g_id_status = ACT_STATUS_NOT_SUPPORTED;
    EXPECT_EQ(call("get_id_info").reply, R"({"errno":7,"error":"Functionality not supported"})");
    EXPECT_TRUE(mdm.queue.empty());

    mdm.drv = &g_bare_driver;
    EXPECT_EQ(call("exec", R"({"command":"ATI"})").status, UBUS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(call("get_id_info").status, UBUS_STATUS_NOT_SUPPORTED);
}

// ---- nesting limit ----

TEST_F(BusApi, ArgumentsNestedBeyondTheLimitAreRefusedBeforeAnyHandler)
{
    const struct {
        const char *what;
        bool gsm; // the `gsm` object rather than the modem
        const char *method, *args;
        bool queues; // accepted at the limit, it reaches the modem's queue
    } rows[] = {
        {"core method", false, "exec", R"({"command":"AT"})", true},
        {"core method without arguments", false, "info", "{}", false},
        {"catalogue argument path", false, "set_func", R"({"func":"1"})", true},
        {"catalogue generic path", false, "get_firmware", "{}", true},
        {"daemon object", true, "info", "{}", false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        uint32_t obj = r.gsm ? gsm_id : modem_id;
        mdm.queue.clear();
        g_invocations.clear();
        EXPECT_EQ(call_on(obj, r.method, r.args, WWAN_BLOBMSG_MAX_DEPTH + 1).status, UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_TRUE(mdm.queue.empty());
        EXPECT_TRUE(g_invocations.empty());
        EXPECT_EQ(call_on(obj, r.method, r.args, WWAN_BLOBMSG_MAX_DEPTH).status, 0);
        EXPECT_EQ(mdm.queue.size(), r.queues ? 1u : 0u);
    }
}

// About 1 MB deep, as an attack sent it: formatting it for the debug line
// overflowed the stack.
TEST_F(BusApi, DeepExecWithDebugOnIsRefusedWithoutFormattingIt)
{
    log_level(1);
    testing::internal::CaptureStdout();
    call_result deep = call_on(modem_id, "exec", R"({"command":"AT"})", 120000);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(deep.status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_NE(out.find("debug: Ubus call: exec refused: arguments nested deeper than " +
                       std::to_string(WWAN_BLOBMSG_MAX_DEPTH) + " levels\n"),
              std::string::npos)
        << out;
}

TEST_F(BusApi, ModemObjectNeedsAFreeName)
{
    test_modem second;
    second.ctx = server;
    for (const char *taken : {"", "gsm.modem0"}) { // none free; already on the bus
        SCOPED_TRACE(taken);
        mgr.free_name = taken;
        EXPECT_EQ(ubus_init_modem(mgr, second), 1);
        EXPECT_EQ(second.object.name, nullptr);
    }
    mgr.free_name = "gsm.modem2";
    ASSERT_EQ(ubus_init_modem(mgr, second), 0);
    uint32_t id;
    ASSERT_EQ(ubus_lookup_id(client, "gsm.modem2", &id), 0);
    EXPECT_EQ(call_on(id, "get_firmware").status, 0);
    EXPECT_EQ(second.queue.size(), 1u);
    EXPECT_TRUE(mdm.queue.empty());
    ubus_remove_object(server, &second.object.obj);
}

// ---- events ----

// Events and notifications themselves run in the end-to-end hot-plug tests.
TEST_F(BusApi, EventEnvironmentForHotplugScripts)
{
    auto data = ujson::create();
    data->add_string("state", "SIM PIN");
    EXPECT_EQ(json_text(ubus_fill_event_data(mdm, "pin_state", nullptr)->get_blobmsg()),
              R"({"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1","EVENT_NAME=pin_state"]})");
    EXPECT_EQ(json_text(ubus_fill_event_data(mdm, "pin_state", data.get())->get_blobmsg()),
              R"({"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1","EVENT_NAME=pin_state",)"
              R"("DATA={\"state\":\"SIM PIN\"}"]})");
}

} // namespace
