// The bus layer on a real broker: a modem double with a test driver record
// serves `gsm.modem0`, a manager double serves `gsm`, and a second connection
// of this process calls them as any client would.
#include "ubus/ubus.h"

#include "wwan/blobmsg_depth.h"
#include "wwan/ubox.h"
#include <libubus.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"

#include "comm/request.h"
#include "core/modem.h"
#include "core/modem_driver.h"
#include "ubus/modem_api.h"
#include "util/log.h"
#include "util/ujson.h"

namespace {

std::string json_text(blob_attr *attr)
{
    char *j = attr ? blobmsg_format_json(attr, true) : nullptr;
    std::string s = j ? j : "";
    std::free(j);
    return s;
}

bool run_until(int timeout_ms, const std::function<bool()> &pred)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        uloop_run_timeout(5);
    }
    return true;
}

// ---- the test driver ----

// What the driver's functions saw, in call order: "<action>/<type>".
std::vector<std::string> g_invocations;
// The extra data the last build made (malloc'd, as drivers make it).
void *g_extra;
uint32_t g_id_status = ACT_STATUS_OK;

void set_command(request *req, const std::string &text)
{
    req->command = strdup(text.c_str());
    req->length = static_cast<uint32_t>(text.size());
    g_extra = std::malloc(1);
    req->extra = g_extra;
}

void record(uint32_t action, int type)
{
    g_invocations.push_back(std::string(act_type_id_str[action]) + "/" + std::to_string(type));
}

int act_firmware(modem *, int type, ujson *, request *req)
{
    record(ACT_GET_FIRMWARE, type);
    set_command(req, "AT+CGMR");
    return ACT_STATUS_OK;
}

// Accepts only the 3GPP functionality levels 0 and 1.
int act_set_func(modem *, int type, ujson *json, request *req)
{
    record(ACT_SET_FUNC, type);
    const char *func = json ? json->get_string("func") : nullptr;
    if (!func || (std::strcmp(func, "0") && std::strcmp(func, "1")))
        return ACT_STATUS_INVALID_ARGS;
    set_command(req, std::string("AT+CFUN=") + func + (json->exists("reset") && json->get_bool("reset") ? ",1" : ""));
    return ACT_STATUS_OK;
}

// Writes the argument object it was given into the command, so the tests see
// what the dispatch copied.
template <uint32_t action> int act_echo(modem *, int type, ujson *json, request *req)
{
    record(action, type);
    set_command(req, std::string("AT+ECHO=") + (json ? json_text(json->get_blobmsg()) : "-"));
    return ACT_STATUS_OK;
}

int act_id_info(modem *, int type, ujson *json, request *)
{
    record(ACT_GET_ID_INFO, type);
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
    g_test_driver.funcs[ACT_GET_ID_INFO] = act_id_info;
}

// ---- doubles ----

class test_modem : public ubus_modem
{
  public:
    struct queued {
        uint32_t action;
        std::string command;
        uint32_t timeout_ms;
        void *extra;
    };
    struct pushed {
        uint32_t id;
        std::string args;
        uint32_t timeout;
        uint32_t action;
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
    int new_request(uint32_t action, ubus_request_data *, const char *command, uint32_t length, uint32_t timeout_ms,
                    void *extra, request_source * = nullptr) override
    {
        if (fail_queue)
            return 1;
        queue.push_back({action, std::string(command, length), timeout_ms, extra});
        // A queued request owns its extra data.
        extras.emplace_back(extra, &std::free);
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
        pushes.push_back({call_id, json_text(args.get_blobmsg()), timeout, action});
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
    int fail_queue = 0;
    uint32_t func = 0;
    std::vector<queued> queue;
    std::vector<pushed> pushes;
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
    void dump_log_buffer() override { dumps++; }
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
    int dumps = 0;
    std::vector<std::string> calls;
};

struct call_result {
    bool done = false;
    int status = -1;
    std::string reply;
};

// The "hotplug.gsm" service in a child process (the daemon's call to it is
// synchronous): every message of its "call" method is written to a pipe as
// one JSON line.
class hotplug_service
{
  public:
    explicit hotplug_service(const std::string &sock)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC))
            return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(fds[0]);
            report_fd_ = fds[1];
            _exit(serve(sock));
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~hotplug_service()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0)
            close(out_);
    }
    hotplug_service(const hotplug_service &) = delete;
    hotplug_service &operator=(const hotplug_service &) = delete;

    // The next line within timeout_ms, or the empty text.
    std::string line(int timeout_ms) { return test_support::read_line(out_, buf_, timeout_ms); }

  private:
    static inline int report_fd_ = -1;

    static void report(const std::string &text)
    {
        std::string l = text + "\n";
        (void)!write(report_fd_, l.data(), l.size());
    }
    static int call_cb(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *msg)
    {
        report(json_text(msg));
        return 0;
    }
    static int serve(const std::string &sock)
    {
        static const ubus_method methods[] = {UBUS_METHOD_NOARG("call", call_cb)};
        static ubus_object_type type = UBUS_OBJECT_TYPE("hotplug.gsm", methods);
        static ubus_object obj;
        obj.name = "hotplug.gsm";
        obj.type = &type;
        obj.methods = methods;
        obj.n_methods = 1;
        uloop_init();
        ubus_context *ctx = ubus_connect(sock.c_str());
        if (!ctx || ubus_add_object(ctx, &obj))
            return 1;
        ubus_add_uloop(ctx);
        report("ready");
        uloop_run();
        return 0;
    }

    pid_t pid_ = -1;
    int out_ = -1;
    std::string buf_;
};

class BusApi : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { fill_test_driver(); }

    void SetUp() override
    {
        if (access(WWAN_BUSD, X_OK) != 0)
            GTEST_SKIP() << "wwan-busd is not built";
        char tmpl[] = "/tmp/wwan-bus-api-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        sock = dir + "/ubus.sock";
        start_broker();
        ASSERT_GT(broker, 0);
        if (with_hotplug) {
            hotplug = std::make_unique<hotplug_service>(sock);
            ASSERT_EQ(hotplug->line(5000), "ready");
        }
        ASSERT_EQ(uloop_init(), 0);

        server = ubus_connect(sock.c_str());
        client = ubus_connect(sock.c_str());
        ASSERT_TRUE(server && client);
        ubus_add_uloop(server);
        ubus_add_uloop(client);
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
        if (server) {
            if (mdm.object.name)
                ubus_remove_object(server, &mdm.object.obj);
            ubus_free(server);
        }
        if (client)
            ubus_free(client);
        ubus_cleanup();
        hotplug.reset();
        test_support::stop_process(broker);
        uloop_done();
        if (!dir.empty())
            std::filesystem::remove_all(dir);
        log_level(0);
    }

    void start_broker() { broker = test_support::start_broker(WWAN_BUSD, sock); }

    call_result call_on(uint32_t obj, const char *method, const char *json = nullptr)
    {
        blob_buf b = {};
        blob_buf_init(&b, 0);
        if (json) {
            EXPECT_TRUE(blobmsg_add_json_from_string(&b, json)) << json;
        }
        call_result r = call_msg(obj, method, b.head);
        blob_buf_free(&b);
        return r;
    }
    call_result call_msg(uint32_t obj, const char *method, blob_attr *msg)
    {
        call_result r;
        ubus_request req = {};
        if (ubus_invoke_async(client, obj, method, msg, &req) == 0) {
            req.data_cb = [](ubus_request *rq, int, blob_attr *msg) {
                static_cast<call_result *>(rq->priv)->reply = json_text(msg);
            };
            req.complete_cb = [](ubus_request *rq, int ret) {
                auto *res = static_cast<call_result *>(rq->priv);
                res->status = ret;
                res->done = true;
            };
            req.priv = &r;
            ubus_complete_request_async(client, &req);
            if (!run_until(5000, [&] { return r.done; }))
                ubus_abort_request(client, &req);
        }
        return r;
    }
    call_result call(const char *method, const char *json = nullptr) { return call_on(modem_id, method, json); }
    // The members of json and a member "extra" of `levels` nested tables.
    call_result call_nested(uint32_t obj, const char *method, const char *json, int levels)
    {
        blob_buf b = {};
        blob_buf_init(&b, 0);
        EXPECT_TRUE(blobmsg_add_json_from_string(&b, json)) << json;
        std::vector<void *> open;
        for (int i = 0; i < levels; i++)
            open.push_back(blobmsg_open_table(&b, i ? "n" : "extra"));
        for (auto it = open.rbegin(); it != open.rend(); ++it)
            blobmsg_close_table(&b, *it);
        call_result r = call_msg(obj, method, b.head);
        blob_buf_free(&b);
        return r;
    }

    bool with_hotplug = false;
    std::string dir, sock;
    pid_t broker = -1;
    std::unique_ptr<hotplug_service> hotplug;
    ubus_context *server = nullptr;
    ubus_context *client = nullptr;
    test_manager mgr;
    test_modem mdm;
    uint32_t modem_id = 0, gsm_id = 0;
};

// ---- generic path ----

TEST_F(BusApi, UnimplementedActionIsNotSupportedWithoutBody)
{
    call_result r = call("get_imsi");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, UBUS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_TRUE(g_invocations.empty());
}

TEST_F(BusApi, DriverRejectionIsAnErrorReplyWithStatusZero)
{
    call_result r = call("set_func", R"({"func":"7"})");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"errno":2,"error":"Invalid arguments"})");
    EXPECT_TRUE(mdm.queue.empty());
}

TEST_F(BusApi, BuiltCommandIsQueuedWithOneSecondMore)
{
    call_result r = call("get_firmware");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(mdm.queue.size(), 1u);
    EXPECT_EQ(mdm.queue[0].action, ACT_GET_FIRMWARE);
    EXPECT_EQ(mdm.queue[0].command, "AT+CGMR");
    EXPECT_EQ(mdm.queue[0].timeout_ms, 11000u);
    EXPECT_EQ(mdm.queue[0].extra, g_extra);
    EXPECT_EQ(g_invocations, std::vector<std::string>{"ACT_GET_FIRMWARE/0"});

    // Methods without arguments get no argument object, whatever is sent.
    EXPECT_EQ(call("get_clip_mode", R"({"mode":"1"})").status, 0);
    EXPECT_EQ(call("get_func").status, 0);
    ASSERT_EQ(mdm.queue.size(), 3u);
    EXPECT_EQ(mdm.queue[1].command, "AT+ECHO=-");
    EXPECT_EQ(mdm.queue[1].timeout_ms, 21000u);
    EXPECT_EQ(mdm.queue[2].timeout_ms, 16000u);
}

TEST_F(BusApi, QueueFailureIsNoData)
{
    mdm.fail_queue = 1;
    testing::internal::CaptureStdout();
    call_result r = call("get_firmware");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(r.status, UBUS_STATUS_NO_DATA);
    EXPECT_NE(out.find("error: [MODEM_UBUS] Failed to create new request for `1-1 [1234:5678]` modem!"),
              std::string::npos)
        << out;
}

TEST_F(BusApi, NetModeAliasReachesTheSameAction)
{
    EXPECT_EQ(call("get_net_mode").status, 0);
    EXPECT_EQ(call("get_net_mode_tech").status, 0);
    ASSERT_EQ(mdm.queue.size(), 2u);
    EXPECT_EQ(mdm.queue[0].action, ACT_GET_NET_MODE_TECH);
    EXPECT_EQ(mdm.queue[1].action, ACT_GET_NET_MODE_TECH);
    EXPECT_EQ(mdm.queue[0].command, mdm.queue[1].command);
}

// ---- argument path ----

TEST_F(BusApi, MissingOrWronglyTypedRequiredArgumentIsInvalid)
{
    for (const char *args : {"{}", R"({"func":1})", R"({"reset":true})"}) {
        SCOPED_TRACE(args);
        EXPECT_EQ(call("set_func", args).status, UBUS_STATUS_INVALID_ARGUMENT);
    }
    // An int32 argument given as text.
    EXPECT_EQ(call("set_pdp_ctx_state", R"({"cid":"1","state":"1"})").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_TRUE(g_invocations.empty());
}

TEST_F(BusApi, ArgumentsAreCopiedByKind)
{
    EXPECT_EQ(call("set_func", R"({"func":"1","reset":true})").status, 0);
    // Optional arguments left out stay out; arguments not in the policy are
    // ignored.
    EXPECT_EQ(call("set_pdp_ctx", R"({"cid":3,"apn":"internet","bogus":"x"})").status, 0);
    EXPECT_EQ(call("set_urc_ind_cfg", R"({"urc":"csq","enabled":false,"urc_mask":4294967295})").status, 0);
    ASSERT_EQ(mdm.queue.size(), 3u);
    EXPECT_EQ(mdm.queue[0].command, "AT+CFUN=1,1");
    EXPECT_EQ(mdm.queue[1].command, R"(AT+ECHO={"cid":3,"apn":"internet"})");
    // A value past int32 is not an int32 on the wire: the optional mask is absent.
    EXPECT_EQ(mdm.queue[2].command, R"(AT+ECHO={"urc":"csq","enabled":false})");
}

TEST_F(BusApi, ArrayArgumentsMustHoldTextsOnly)
{
    EXPECT_EQ(call("set_lte_band", R"({"bands":["LTE_B3",7]})").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call("set_lte_band", R"({"bands":"LTE_B3"})").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_EQ(call("set_lte_band", R"({"bands":["LTE_B1","LTE_B3"]})").status, 0);
    EXPECT_EQ(call("set_default_bands", "{}").status, 0);
    EXPECT_EQ(call("set_default_bands", R"({"skip":[],"reboot":true})").status, 0);
    ASSERT_EQ(mdm.queue.size(), 3u);
    EXPECT_EQ(mdm.queue[0].command, R"(AT+ECHO={"bands":["LTE_B1","LTE_B3"]})");
    EXPECT_EQ(mdm.queue[1].command, "AT+ECHO={}");
    EXPECT_EQ(mdm.queue[2].command, R"(AT+ECHO={"reboot":true,"skip":[]})");
}

TEST_F(BusApi, TimeoutArgumentReplacesTheNominalOne)
{
    EXPECT_EQ(call("set_pdp_ctx_state", R"({"cid":1,"state":"1","timeout":60})").status, 0);
    EXPECT_EQ(call("set_pdp_ctx_state", R"({"cid":1,"state":"1"})").status, 0);
    // Not in set_func's policy: ignored.
    EXPECT_EQ(call("set_func", R"({"func":"0","timeout":60})").status, 0);
    ASSERT_EQ(mdm.queue.size(), 3u);
    EXPECT_EQ(mdm.queue[0].timeout_ms, 61000u);
    EXPECT_EQ(mdm.queue[1].timeout_ms, 151000u);
    EXPECT_EQ(mdm.queue[2].timeout_ms, 16000u);
}

TEST_F(BusApi, AsyncSendGoesToTheAsyncManager)
{
    call_result r = call("send_sms", R"({"number":"+37060000000","text":"hi","async":true})");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, "");
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_TRUE(g_invocations.empty());
    ASSERT_EQ(mdm.pushes.size(), 1u);
    EXPECT_EQ(mdm.pushes[0].id, 0u);
    EXPECT_EQ(mdm.pushes[0].timeout, 160u);
    EXPECT_EQ(mdm.pushes[0].action, ACT_SEND_SMS);
    EXPECT_EQ(mdm.pushes[0].args, R"({"number":"+37060000000","text":"hi","async":true})");

    // false behaves as absent; other methods do not know `async`.
    EXPECT_EQ(call("send_sms", R"({"number":"1","text":"x","async":false})").status, 0);
    EXPECT_EQ(call("set_func", R"({"func":"1","async":true})").status, 0);
    EXPECT_EQ(mdm.pushes.size(), 1u);
    ASSERT_EQ(mdm.queue.size(), 2u);
    EXPECT_EQ(mdm.queue[0].timeout_ms, 161000u);
    EXPECT_EQ(mdm.queue[1].action, ACT_SET_FUNC);
}

TEST_F(BusApi, UnpublishedOptionalArgumentsAreAccepted)
{
    EXPECT_EQ(call("read_sms", R"({"index":3,"strip":true})").status, 0);
    EXPECT_EQ(call("get_msg_storage", R"({"full":true})").status, 0);
    EXPECT_EQ(call("get_msg_storage").status, 0);
    EXPECT_EQ(call("read_sms", "{}").status, UBUS_STATUS_INVALID_ARGUMENT);
    ASSERT_EQ(mdm.queue.size(), 3u);
    EXPECT_EQ(mdm.queue[0].command, R"(AT+ECHO={"index":3,"strip":true})");
    EXPECT_EQ(mdm.queue[1].command, R"(AT+ECHO={"full":true})");
    EXPECT_EQ(mdm.queue[2].command, "AT+ECHO={}");
}

// ---- paused channel ----

TEST_F(BusApi, PausedChannelRefusesEverythingThatGoesToTheModem)
{
    mdm.is_paused = true;
    EXPECT_EQ(call("get_firmware").status, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(call("set_func", R"({"func":"1"})").status, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(call("get_imsi").status, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(call("exec", R"({"command":"AT"})").status, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_EQ(call("exec").status, UBUS_STATUS_CONNECTION_FAILED);
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_TRUE(g_invocations.empty());
    // What the modem instance answers itself still works.
    EXPECT_EQ(call("info").status, 0);
}

// ---- core methods ----

TEST_F(BusApi, ExecQueuesAtCommandsWithTheirOwnTimeout)
{
    EXPECT_EQ(call("exec", R"({"command":"at+cgmi"})").status, 0);
    EXPECT_EQ(call("exec", R"({"command":"AT+CSQ","timeout":30})").status, 0);
    ASSERT_EQ(mdm.queue.size(), 2u);
    EXPECT_EQ(mdm.queue[0].action, ACT_AT_COMMAND);
    EXPECT_EQ(mdm.queue[0].command, "at+cgmi");
    EXPECT_EQ(mdm.queue[0].timeout_ms, 10000u);
    EXPECT_EQ(mdm.queue[0].extra, nullptr);
    EXPECT_EQ(mdm.queue[1].timeout_ms, 30000u);

    EXPECT_EQ(call("exec", R"({"command":"+CGMI"})").status, UBUS_STATUS_INVALID_COMMAND);
    EXPECT_EQ(call("exec", R"({"timeout":5})").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(mdm.queue.size(), 2u);
}

TEST_F(BusApi, ExecIdentificationIsAnsweredByTheDriver)
{
    for (const char *cmd : {R"({"command":"ati"})", R"({"command":"ATI1"})"}) {
        SCOPED_TRACE(cmd);
        call_result r = call("exec", cmd);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.reply, R"({"request":"ATI\r","response":"Test\r\nModel T1\r\nRevision: T1R01"})");
    }
    EXPECT_TRUE(mdm.queue.empty());
    EXPECT_EQ(g_invocations, (std::vector<std::string>{"ACT_GET_ID_INFO/1", "ACT_GET_ID_INFO/1"}));

    g_id_status = ACT_STATUS_INVALID_RESPONSE;
    call_result r = call("exec", R"({"command":"ATI"})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"errno":5,"error":"Invalid response"})");

    mdm.drv = &g_bare_driver;
    EXPECT_EQ(call("exec", R"({"command":"ATI"})").status, UBUS_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(call("get_id_info").status, UBUS_STATUS_NOT_SUPPORTED);
}

TEST_F(BusApi, IdInfoAndStatisticsNeverQueue)
{
    call_result r = call("get_id_info");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"manufacturer":"Test","raw":"Test\r\nModel T1\r\nRevision: T1R01"})");
    g_id_status = ACT_STATUS_NOT_SUPPORTED;
    r = call("get_id_info");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"errno":7,"error":"Functionality not supported"})");
    r = call("info");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"queued":0})");
    EXPECT_TRUE(mdm.queue.empty());
}

TEST_F(BusApi, ModemFunctionMethods)
{
    call_result r = call("update_modem_func", R"({"state_id":99})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"status":"OK","status_id":0})");
    EXPECT_EQ(mdm.func, 99u);
    EXPECT_EQ(call("update_modem_func", "{}").status, UBUS_STATUS_INVALID_ARGUMENT);
    r = call("get_default_modem_func");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"id":1,"type":"Modem data-only mode"})");
    EXPECT_TRUE(mdm.queue.empty());
}

TEST_F(BusApi, CallsAreLoggedOnlyWithDebugOn)
{
    testing::internal::CaptureStdout();
    call("get_firmware");
    log_level(1);
    call("get_firmware");
    call("set_func", R"({"func":"1"})");
    log_level(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("Ubus call: get_firmware"), out.rfind("Ubus call: get_firmware")) << out;
    EXPECT_NE(out.find("debug: Ubus call: get_firmware\n"), std::string::npos) << out;
    EXPECT_NE(out.find(R"(debug: Ubus call: set_func {"func":"1"})"), std::string::npos) << out;
    // The argument path's generic step does not log a second line.
    EXPECT_EQ(out.find("Ubus call: \n"), std::string::npos) << out;
}

// ---- nesting limit ----

TEST_F(BusApi, ArgumentsNestedBeyondTheLimitAreRefusedBeforeAnyHandler)
{
    struct row {
        const char *what;
        bool gsm; // the `gsm` object rather than the modem
        const char *method;
        const char *args;
        bool queues; // accepted at the limit, it reaches the modem's queue
    } rows[] = {
        {"core method", false, "exec", R"({"command":"AT"})", true},
        {"core method without arguments", false, "info", "{}", false},
        {"catalogue argument path", false, "set_func", R"({"func":"1"})", true},
        {"catalogue generic path", false, "get_firmware", "{}", true},
        {"daemon object", true, "info", "{}", false},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        uint32_t obj = r.gsm ? gsm_id : modem_id;
        mdm.queue.clear();
        g_invocations.clear();
        EXPECT_EQ(call_nested(obj, r.method, r.args, WWAN_BLOBMSG_MAX_DEPTH + 1).status, UBUS_STATUS_INVALID_ARGUMENT);
        EXPECT_TRUE(mdm.queue.empty());
        EXPECT_TRUE(g_invocations.empty());

        call_result at_limit = call_nested(obj, r.method, r.args, WWAN_BLOBMSG_MAX_DEPTH);
        EXPECT_EQ(at_limit.status, 0);
        EXPECT_EQ(mdm.queue.size(), r.queues ? 1u : 0u);
    }
}

TEST_F(BusApi, DeepExecIsRefusedWithoutADebugLineOfItsArguments)
{
    log_level(1);
    testing::internal::CaptureStdout();
    // About 1 MB, as the attack sent it: formatting it for the debug line
    // overflowed the stack.
    call_result deep = call_nested(modem_id, "exec", R"({"command":"AT"})", 120000);
    call_result at_limit = call_nested(modem_id, "exec", R"({"command":"AT"})", WWAN_BLOBMSG_MAX_DEPTH);
    log_level(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(deep.status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(at_limit.status, 0);
    ASSERT_EQ(mdm.queue.size(), 1u);
    EXPECT_EQ(mdm.queue[0].command, "AT");

    std::string refusal = "debug: Ubus call: exec refused: arguments nested deeper than " +
                          std::to_string(WWAN_BLOBMSG_MAX_DEPTH) + " levels\n";
    EXPECT_NE(out.find(refusal), std::string::npos) << out;
    std::string extra = R"(debug: Ubus call: exec {"command":"AT","extra":{)";
    for (int i = 1; i < WWAN_BLOBMSG_MAX_DEPTH; i++)
        extra += R"("n":{)";
    extra += std::string(WWAN_BLOBMSG_MAX_DEPTH, '}') + "}\n";
    EXPECT_NE(out.find(extra), std::string::npos) << out;
    // the refusal and the call at the limit, nothing else
    size_t lines = 0;
    for (size_t p = out.find("Ubus call: exec"); p != std::string::npos; p = out.find("Ubus call: exec", p + 1))
        lines++;
    EXPECT_EQ(lines, 2u) << out;
}

// ---- the command-line client ----

struct cli_result {
    int code = -1;
    std::string out;
};

// Runs wwan-bus against the test broker while this process keeps serving its
// objects; out holds what it printed on both streams.
cli_result run_cli(const std::string &sock, const std::vector<std::string> &args)
{
    cli_result r;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK))
        return r;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        dup2(fds[1], STDERR_FILENO);
        std::vector<const char *> argv = {WWAN_BUS, "-s", sock.c_str()};
        for (const std::string &a : args)
            argv.push_back(a.c_str());
        argv.push_back(nullptr);
        execv(WWAN_BUS, const_cast<char *const *>(argv.data()));
        _exit(127);
    }
    close(fds[1]);
    int status = 0;
    bool ended = run_until(10000, [&] {
        char buf[4096];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof(buf))) > 0)
            r.out.append(buf, static_cast<size_t>(n));
        return waitpid(pid, &status, WNOHANG) == pid;
    });
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0)
        r.out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    r.code = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

TEST_F(BusApi, CommandLineClientSeesThePublishedCatalogue)
{
    if (access(WWAN_BUS, X_OK) != 0)
        GTEST_SKIP() << "wwan-bus is not built";
    cli_result list = run_cli(sock, {"-v", "list", "gsm.modem0"});
    ASSERT_EQ(list.code, 0) << list.out;
    EXPECT_NE(list.out.find("\"read_sms\":{\"index\":\"Integer\"}"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("\"get_msg_storage\":{}"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("\"set_lte_band\":{\"bands\":\"Array\"}"), std::string::npos) << list.out;

    cli_result id = run_cli(sock, {"call", "gsm.modem0", "exec", R"({"command":"ATI"})"});
    EXPECT_EQ(id.code, 0);
    EXPECT_NE(id.out.find("\"request\": \"ATI\\r\""), std::string::npos) << id.out;
    cli_result unsupported = run_cli(sock, {"call", "gsm.modem0", "get_imsi"});
    EXPECT_NE(unsupported.code, 0);
    EXPECT_NE(unsupported.out.find("(Operation not supported)"), std::string::npos) << unsupported.out;
    cli_result read = run_cli(sock, {"call", "gsm.modem0", "read_sms", R"({"index":1,"single":true})"});
    EXPECT_EQ(read.code, 0);
    ASSERT_EQ(mdm.queue.size(), 1u);
    EXPECT_EQ(mdm.queue[0].command, R"(AT+ECHO={"index":1,"single":true})");
}

// ---- the daemon object ----

TEST_F(BusApi, GsmObjectMethods)
{
    call_result r = call_on(gsm_id, "info");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"mdm_stats":{"num_modems":1,"blocked_modems":0}})");
    EXPECT_EQ(call_on(gsm_id, "dump_log").status, 0);
    EXPECT_EQ(mgr.dumps, 1);

    EXPECT_EQ(call_on(gsm_id, "enable_debug").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_on(gsm_id, "enable_debug", R"({"enabled":true})").status, 0);
    EXPECT_EQ(g_log_level, 1u);
    EXPECT_EQ(call_on(gsm_id, "enable_debug", R"({"enabled":false})").status, 0);
    EXPECT_EQ(g_log_level, 0u);

    EXPECT_EQ(call_on(gsm_id, "attach", R"({"usbid":"9-9"})").status, UBUS_STATUS_NO_DATA);
    EXPECT_EQ(call_on(gsm_id, "deattach", R"({"usbid":"9-9"})").status, UBUS_STATUS_NO_DATA);
    EXPECT_EQ(call_on(gsm_id, "attach").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_on(gsm_id, "attach", R"({"usbid":11})").status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(call_on(gsm_id, "attach", R"({"usbid":"1-1"})").status, 0);
    EXPECT_EQ(call_on(gsm_id, "deattach", R"({"usbid":"1-1"})").status, 0);
    EXPECT_EQ(mgr.calls, (std::vector<std::string>{"attach 1-1", "deattach 1-1"}));
}

TEST_F(BusApi, ModemObjectNeedsAFreeName)
{
    test_modem second;
    second.ctx = server;
    mgr.free_name.clear();
    testing::internal::CaptureStdout();
    EXPECT_EQ(ubus_init_modem(mgr, second), 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[MODEM_UBUS] Failed to allocate ubus object name for `1-1 [1234:5678]` modem!"),
              std::string::npos)
        << out;
    EXPECT_EQ(second.object.name, nullptr);

    // A second object under a name already on the bus cannot be added.
    mgr.free_name = "gsm.modem0";
    testing::internal::CaptureStdout();
    EXPECT_EQ(ubus_init_modem(mgr, second), 1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("[MODEM_UBUS] Failed to add `gsm.modem0` ubus object for `1-1 [1234:5678]` modem!"),
              std::string::npos)
        << out;
    EXPECT_EQ(second.object.name, nullptr);

    mgr.free_name = "gsm.modem2";
    ASSERT_EQ(ubus_init_modem(mgr, second), 0);
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(client, "gsm.modem2", &id), 0);
    EXPECT_EQ(call_on(id, "get_firmware").status, 0);
    EXPECT_EQ(second.queue.size(), 1u);
    EXPECT_TRUE(mdm.queue.empty());
    ubus_remove_object(server, &second.object.obj);
}

// ---- events ----

struct event_log {
    ubus_event_handler handler{};
    std::vector<std::string> seen; // "<type> <json>"
};

event_log *listen(ubus_context *ctx, const char *pattern)
{
    auto *log = new event_log;
    log->handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
        reinterpret_cast<event_log *>(ev)->seen.push_back(std::string(type) + " " + json_text(msg));
    };
    if (ubus_register_event_handler(ctx, &log->handler, pattern)) {
        delete log;
        return nullptr;
    }
    return log;
}

std::unique_ptr<ujson> usb_payload()
{
    auto data = ujson::create();
    data->add_string("usb_id", "1-1");
    data->add_string("ubus_obj", "gsm.modem0");
    return data;
}

// Without data the environment has no DATA line.
TEST_F(BusApi, EventDataWithoutPayload)
{
    auto env = ubus_fill_event_data(mdm, "pin_state", nullptr);
    ASSERT_TRUE(env);
    EXPECT_EQ(json_text(env->get_blobmsg()),
              R"({"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1","EVENT_NAME=pin_state"]})");
}

TEST_F(BusApi, BroadcastWithoutHotplugObjectIsQuiet)
{
    std::unique_ptr<event_log> log(listen(client, "gsm.*"));
    ASSERT_TRUE(log);
    auto data = usb_payload();
    testing::internal::CaptureStdout();
    int ret = ubus_broadcast_event(mdm, "gsm.modem.powerdown", data.get(), true);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ret, 0);
    EXPECT_EQ(out, "");
    ASSERT_TRUE(run_until(2000, [&] { return !log->seen.empty(); }));
    EXPECT_EQ(log->seen[0], R"(gsm.modem.powerdown {"usb_id":"1-1","ubus_obj":"gsm.modem0"})");
    ubus_unregister_event_handler(client, &log->handler);
}

TEST_F(BusApi, NotifyReachesSubscribers)
{
    struct sub_log {
        ubus_subscriber sub{};
        std::vector<std::string> seen;
    };
    auto log = std::make_unique<sub_log>();
    log->sub.cb = [](ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *msg) {
        auto *s = reinterpret_cast<sub_log *>(container_of(obj, ubus_subscriber, obj));
        s->seen.push_back(std::string(method) + " " + json_text(msg));
        return 0;
    };
    ASSERT_EQ(ubus_register_subscriber(client, &log->sub), 0);
    ASSERT_EQ(ubus_subscribe(client, &log->sub, modem_id), 0);
    ASSERT_TRUE(run_until(2000, [&] { return mdm.object.obj.has_subscribers; }));

    auto data = ujson::create();
    data->add_string("state", "READY");
    EXPECT_EQ(ubus_notify_event(mdm, &mdm.object.obj, "pin_state", data.get(), -1, true), 0);
    ASSERT_TRUE(run_until(2000, [&] { return !log->seen.empty(); }));
    EXPECT_EQ(log->seen[0], R"(pin_state {"state":"READY"})");
    ubus_unregister_subscriber(client, &log->sub);
}

class BusHotplug : public BusApi
{
  protected:
    void SetUp() override
    {
        with_hotplug = true;
        BusApi::SetUp();
    }
};

TEST_F(BusHotplug, BroadcastCallsHotplugWithTheEnvironment)
{
    std::unique_ptr<event_log> log(listen(client, "gsm.modem.hang"));
    ASSERT_TRUE(log);
    auto data = usb_payload();
    EXPECT_EQ(ubus_broadcast_event(mdm, "gsm.modem.hang", data.get(), true), 0);
    EXPECT_EQ(hotplug->line(5000),
              R"({"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1","EVENT_NAME=gsm.modem.hang",)"
              R"("DATA={\"usb_id\":\"1-1\",\"ubus_obj\":\"gsm.modem0\"}"]})");
    ASSERT_TRUE(run_until(2000, [&] { return !log->seen.empty(); }));
    EXPECT_EQ(log->seen[0], R"(gsm.modem.hang {"usb_id":"1-1","ubus_obj":"gsm.modem0"})");

    // Without the flag only the bus event goes out.
    EXPECT_EQ(ubus_broadcast_event(mdm, "gsm.modem.hang", nullptr, false), 0);
    ASSERT_TRUE(run_until(2000, [&] { return log->seen.size() == 2; }));
    EXPECT_EQ(log->seen[1], "gsm.modem.hang {}");
    EXPECT_EQ(hotplug->line(300), "");
    ubus_unregister_event_handler(client, &log->handler);
}

TEST_F(BusHotplug, NotifyCallsHotplugOnlyWhenAsked)
{
    auto data = ujson::create();
    data->add_string("state", "SIM PIN");
    EXPECT_EQ(ubus_notify_event(mdm, &mdm.object.obj, "signal", data.get(), -1, false), 0);
    EXPECT_EQ(hotplug->line(300), "");
    EXPECT_EQ(ubus_notify_event(mdm, &mdm.object.obj, "pin_state", data.get(), -1, true), 0);
    EXPECT_EQ(hotplug->line(5000),
              R"({"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1","EVENT_NAME=pin_state",)"
              R"("DATA={\"state\":\"SIM PIN\"}"]})");
}

} // namespace
