// The modem manager in-process on a real broker with simulated modems: which
// modems it refuses, how it names them, and what its watcher does with
// requests that expire.
#include "core/modem_manager.h"

#include "wwan/ubox.h"
#include <libubus.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"

#include "comm/cmm_test_support.h"
#include "comm/request.h"
#include "core/modem_instance.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace cmm_test;

namespace
{

TEST(RequestExpiry, ExecutionTimeCountsFromTheWriteQueueTimeFromQueueing)
{
    request req;
    req.timeout = 10000;
    req.timeout2 = 10000;
    req.queued_time = 100000;
    EXPECT_EQ(check_request_expiry(req, 110000), request_expiry::none); // on the millisecond: not yet
    EXPECT_EQ(check_request_expiry(req, 110001), request_expiry::queue);

    req.sent = 1;
    req.sent_time = 105000;
    EXPECT_EQ(check_request_expiry(req, 111000), request_expiry::none); // the write restarted the clock
    EXPECT_EQ(check_request_expiry(req, 115001), request_expiry::execution);

    // A local client's 300 ms is not rounded away to nothing.
    req.timeout = 300;
    EXPECT_EQ(check_request_expiry(req, 105300), request_expiry::none);
    EXPECT_EQ(check_request_expiry(req, 105301), request_expiry::execution);
    req.sent = 0;
    req.timeout2 = 300;
    EXPECT_EQ(check_request_expiry(req, 100300), request_expiry::none);
    EXPECT_EQ(check_request_expiry(req, 100301), request_expiry::queue);
}

struct event_log {
    ubus_event_handler ev{}; // first: the handler gets back to the log
    std::vector<std::string> seen;
};

struct call_result {
    ubus_request req{};
    bool done = false;
    int status = -1;
    std::string reply;
};

class ModemManager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (access(WWAN_BUSD, X_OK) != 0 || sim_executable().empty())
            GTEST_SKIP() << "wwan-busd or wwan-modem-sim is not built";
        if (getenv("MODEM_TEST_DEBUG"))
            log_level(1);
        setenv("WWANCTL_ROOT", root.path().c_str(), 1);
        std::filesystem::create_directories(root.path() + "/sys/bus/usb/devices");
        std::filesystem::create_directories(root.path() + "/var/run/ubus");
        std::filesystem::create_directories(root.path() + "/etc");
        board(R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true},{"usb_id":"1-2","builtin":true}],
                  "blocked_modems":["1-9"]})");
        std::string sock = root.path() + "/var/run/ubus/ubus.sock";
        broker = test_support::start_broker(WWAN_BUSD, sock);
        ASSERT_GT(broker, 0);

        mgr = modem_manager::mdm_create(fast_timing());
        ASSERT_TRUE(mgr);
        ASSERT_EQ(mgr->start(false), 0);
        client = ubus_connect(sock.c_str());
        ASSERT_TRUE(client);
        ubus_add_uloop(client);
        events.ev.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
            reinterpret_cast<event_log *>(ev)->seen.push_back(std::string(type) + " " + json_text(msg));
        };
        ASSERT_EQ(ubus_register_event_handler(client, &events.ev, "gsm.*"), 0);
    }

    void TearDown() override
    {
        mgr.reset();
        if (client)
            ubus_free(client);
        sims.clear();
        test_support::stop_process(broker);
        uloop_done();
        unsetenv("WWANCTL_ROOT");
        log_level(0);
    }

    void board(const char *json) { std::ofstream(root.path() + "/etc/board.json") << json; }

    // A simulated modem at /dev/<tty> under the root, and what the USB scan
    // would report for it.
    modem_descriptor plug(const char *usb_id, const char *tty)
    {
        modem_sim::options opt;
        opt.link = root.path() + "/dev/" + tty;
        sims.push_back(std::make_unique<modem_sim>(root.path(), opt));
        EXPECT_FALSE(sims.back()->pty().empty());
        modem_descriptor d;
        d.usb_id = usb_id;
        d.usb_ids = "2c7c:0125";
        d.baudrate = 115200;
        d.cmd_port = std::string("/dev/") + tty;
        return d;
    }

    bool on_bus(const char *name)
    {
        uint32_t id;
        return ubus_lookup_id(client, name, &id) == 0;
    }

    void call_async(const char *object, const char *method, const char *json, call_result &r)
    {
        uint32_t id = 0;
        ASSERT_EQ(ubus_lookup_id(client, object, &id), 0) << object;
        blob_buf b = {};
        blob_buf_init(&b, 0);
        if (json) {
            ASSERT_TRUE(blobmsg_add_json_from_string(&b, json));
        }
        ASSERT_EQ(ubus_invoke_async(client, id, method, b.head, &r.req), 0);
        blob_buf_free(&b);
        r.req.data_cb = [](ubus_request *rq, int, blob_attr *msg) {
            static_cast<call_result *>(rq->priv)->reply = json_text(msg);
        };
        r.req.complete_cb = [](ubus_request *rq, int ret) {
            auto *res = static_cast<call_result *>(rq->priv);
            res->status = ret;
            res->done = true;
        };
        r.req.priv = &r;
        ubus_complete_request_async(client, &r.req);
    }

    int events_named(const std::string &name)
    {
        int n = 0;
        for (const auto &e : events.seen)
            n += e.rfind(name + " ", 0) == 0;
        return n;
    }

    temp_root root;
    pid_t broker = -1;
    std::unique_ptr<modem_manager> mgr;
    ubus_context *client = nullptr;
    event_log events;
    std::vector<std::unique_ptr<modem_sim>> sims;
};

TEST_F(ModemManager, NamesModemsByTheBoardAndRefusesDuplicatesAndBlockedOnes)
{
    ASSERT_EQ(mgr->new_modem(plug("1-2", "ttyUSB2")), 0); // builtin, not primary
    ASSERT_EQ(mgr->new_modem(plug("3-1", "ttyUSB6")), 0); // external
    ASSERT_TRUE(run_until(10000, [&] { return on_bus("gsm.modem1") && on_bus("gsm.modem2"); }));
    EXPECT_FALSE(on_bus("gsm.modem0"));

    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr->new_modem(plug("1-2", "ttyUSB7")), 1);
    EXPECT_EQ(mgr->new_modem(plug("1-9", "ttyUSB8")), 1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("[MODEM_MANAGER] Modem `1-2 [2c7c:0125]` already exists and is registered!"), std::string::npos);
    EXPECT_NE(log.find("[MODEM_MANAGER] Modem `1-9 [2c7c:0125]` is on the black list! Skipping..."), std::string::npos);
    EXPECT_EQ(mgr->modem_count(), 2u);

    // Without a board nothing says whether a modem is blocked.
    std::filesystem::remove(root.path() + "/etc/board.json");
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr->new_modem(plug("4-1", "ttyUSB9")), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Unable to load"), std::string::npos);

    call_result info;
    call_async("gsm", "info", nullptr, info);
    ASSERT_TRUE(run_until(3000, [&] { return info.done; }));
    EXPECT_EQ(info.reply, R"({"mdm_stats":{"num_modems":2,"blocked_modems":1}})");

    // Removing one frees its name for the next external modem.
    EXPECT_EQ(mgr->remove_modem("3-1"), 0);
    EXPECT_EQ(mgr->remove_modem("3-1"), 1);
    ASSERT_TRUE(run_until(3000, [&] { return events_named("gsm.modem_gone") == 1; }));
    board(R"({"modems":[]})");
    ASSERT_EQ(mgr->new_modem(plug("5-1", "ttyUSB10")), 0);
    ASSERT_TRUE(run_until(10000, [&] { return on_bus("gsm.modem2"); }));
}

TEST_F(ModemManager, WatcherAnswersExpiredRequestsAndDeclaresAHangAfterFifteen)
{
    ASSERT_EQ(mgr->new_modem(plug("1-1", "ttyUSB2")), 0);
    ASSERT_TRUE(run_until(10000, [&] { return on_bus("gsm.modem0"); }));
    sims.back()->control("hang");

    std::vector<std::unique_ptr<call_result>> calls;
    for (int i = 0; i < 16; i++) {
        calls.push_back(std::make_unique<call_result>());
        call_async("gsm.modem0", "exec", R"({"command":"AT+CSQ","timeout":1})", *calls.back());
    }
    // Let the first command go out; nothing has expired yet.
    run_until(300, [] { return false; });
    mgr->watch(time(nullptr), request_clock_ms());
    EXPECT_EQ(events_named("gsm.modem.hang"), 0);

    mgr->watch(time(nullptr) + 5, request_clock_ms() + 5000);
    ASSERT_TRUE(run_until(3000, [&] {
        for (auto &c : calls)
            if (!c->done)
                return false;
        return events_named("gsm.modem.hang") == 1;
    }));
    for (auto &c : calls) {
        EXPECT_EQ(c->status, 0);
        EXPECT_EQ(c->reply, R"({"request":"AT+CSQ\r","response":"","errno":8,"error":"Request timeout expired"})");
    }

    // Hung: the next runs probe it; once it answers the state is left. What
    // was written into the hung modem is lost and has to expire first.
    sims.back()->control("unhang");
    mgr->watch(time(nullptr) + 20, request_clock_ms() + 20000);
    std::string last;
    ASSERT_TRUE(run_until(8000, [&] {
        mgr->watch(time(nullptr), request_clock_ms());
        call_result info;
        call_async("gsm.modem0", "info", nullptr, info);
        if (!run_until(2000, [&] { return info.done; }))
            ubus_abort_request(client, &info.req);
        last = info.reply;
        return last.find("\"ping_state\":0") != std::string::npos;
    })) << last;
    call_result exec;
    call_async("gsm.modem0", "exec", R"({"command":"AT"})", exec);
    ASSERT_TRUE(run_until(3000, [&] { return exec.done; }));
    EXPECT_EQ(exec.reply, R"({"request":"AT\r","response":"\r\nOK\r\n"})");
}

} // namespace
