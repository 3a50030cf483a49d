// The modem instance on the simulated EC25 over a real pty and a real
// broker; the modem manager is a double.
#include "core/modem_instance.h"

#include "wwan/ubox.h"
#include <libubus.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"

#include "comm/cmm_test_support.h"
#include "core/modem_driver.h"
#include "core/modem_info.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace cmm_test;

namespace
{

class test_manager : public ubus_manager
{
  public:
    ubus_context *bus() override { return ctx; }
    ubus_manager_object &bus_object() override { return object; }
    void fill_stats(ujson &) override {}
    void dump_log_buffer() override {}
    int attach(const char *) override { return 1; }
    int deattach(const char *) override { return 1; }
    std::string get_free_name(ubus_modem &) override { return free_name; }

    ubus_context *ctx = nullptr;
    ubus_manager_object object;
    std::string free_name = "gsm.modem0";
};

struct event_log {
    ubus_event_handler handler{};
    std::vector<std::string> seen; // "<type> <json>"
};

struct notify_log {
    ubus_subscriber sub{};
    std::vector<std::string> seen; // "<type> <json>"
};

struct call_result {
    bool done = false;
    int status = -1;
    std::string reply;
};

class ModemInstance : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (access(WWAN_BUSD, X_OK) != 0 || sim_executable().empty())
            GTEST_SKIP() << "wwan-busd or wwan-modem-sim is not built";
        if (getenv("MODEM_TEST_DEBUG"))
            log_level(1);
        sock = root.path() + "/ubus.sock";
        start_broker();
        ASSERT_GT(broker, 0);
        ASSERT_EQ(uloop_init(), 0);
        server = ubus_connect(sock.c_str());
        client = ubus_connect(sock.c_str());
        ASSERT_TRUE(server && client);
        ubus_add_uloop(server);
        ubus_add_uloop(client);
        mgr.ctx = server;
        ASSERT_EQ(ubus_init(mgr), 0);

        events.handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
            reinterpret_cast<event_log *>(ev)->seen.push_back(std::string(type) + " " + json_text(msg));
        };
        ASSERT_EQ(ubus_register_event_handler(client, &events.handler, "gsm.*"), 0);

        notes.sub.cb = [](ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *msg) {
            auto *log = reinterpret_cast<notify_log *>(container_of(obj, ubus_subscriber, obj));
            log->seen.push_back(std::string(method) + " " + json_text(msg));
            return 0;
        };
        ASSERT_EQ(ubus_register_subscriber(client, &notes.sub), 0);
        uint32_t gsm_id = 0;
        ASSERT_EQ(ubus_lookup_id(client, "gsm", &gsm_id), 0);
        ASSERT_EQ(ubus_subscribe(client, &notes.sub, gsm_id), 0);
        ASSERT_TRUE(run_until(2000, [&] { return mgr.object.obj.has_subscribers; }));
    }

    void TearDown() override
    {
        mdm.reset();
        sim.reset();
        if (client) {
            ubus_unregister_event_handler(client, &events.handler);
            ubus_unregister_subscriber(client, &notes.sub);
            ubus_free(client);
        }
        if (server) {
            if (mgr.object.obj.id)
                ubus_remove_object(server, &mgr.object.obj);
            ubus_free(server);
        }
        ubus_cleanup();
        test_support::stop_process(broker);
        uloop_done();
        log_level(0);
    }

    void start_broker() { broker = test_support::start_broker(WWAN_BUSD, sock); }

    void start_sim(const char *control = nullptr)
    {
        modem_sim::options opt;
        opt.link = root.path() + "/dev/ttyUSB2";
        sim = std::make_unique<modem_sim>(root.path(), opt);
        ASSERT_FALSE(sim->pty().empty());
        if (control)
            sim->control(control);
    }

    // A modem on the simulator, initialised; identification not started.
    void create_modem(const char *vid_pid = "2C7C:0125")
    {
        mdm = modem_instance::modem_create(fast_timing());
        ASSERT_TRUE(mdm);
        ASSERT_EQ(mdm->init("1-1.2", vid_pid, "/dev/ttyUSB2", nullptr, nullptr, 115200, server, &mgr, false), 0);
    }

    // Identification through to the live modem.
    void go_live(const char *vid_pid = "2C7C:0125")
    {
        ASSERT_NO_FATAL_FAILURE(start_sim());
        ASSERT_NO_FATAL_FAILURE(create_modem(vid_pid));
        ASSERT_EQ(mdm->driver_init(), 0);
        ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
        ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &modem_id), 0);
    }

    std::string cached(const char *key)
    {
        const cache_item *item = mdm->cache()->get_item(key);
        return item && item->text() ? item->text() : "<none>";
    }

    bool saw_event(const std::string &prefix)
    {
        for (const auto &e : events.seen)
            if (e.rfind(prefix, 0) == 0)
                return true;
        return false;
    }

    // Starts a call; the result fills in as the loop runs.
    void call_async(const char *method, const char *json, call_result &r, ubus_request &req)
    {
        blob_buf b = {};
        blob_buf_init(&b, 0);
        if (json) {
            EXPECT_TRUE(blobmsg_add_json_from_string(&b, json)) << json;
        }
        ASSERT_EQ(ubus_invoke_async(client, modem_id, method, b.head, &req), 0);
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
        blob_buf_free(&b);
    }

    call_result call(const char *method, const char *json = nullptr)
    {
        call_result r;
        ubus_request req = {};
        call_async(method, json, r, req);
        if (!run_until(8000, [&] { return r.done; }))
            ubus_abort_request(client, &req);
        return r;
    }

    temp_root root;
    std::string sock;
    pid_t broker = -1;
    ubus_context *server = nullptr;
    ubus_context *client = nullptr;
    test_manager mgr;
    event_log events;
    notify_log notes;
    std::unique_ptr<modem_sim> sim;
    std::unique_ptr<modem_instance> mdm;
    uint32_t modem_id = 0;
};

TEST_F(ModemInstance, IdentifiesInStepsAndChoosesTheDriverEachTime)
{
    ASSERT_NO_FATAL_FAILURE(start_sim());
    ASSERT_NO_FATAL_FAILURE(create_modem());
    ASSERT_EQ(mdm->driver_init(), 0);
    // By USB ids: the first row with 2C7C:0125 is EC25-EC.
    EXPECT_EQ(mdm->info(), &g_midata[1]);
    EXPECT_STREQ(mdm->driver()->compatible, "quectel,ec25");
    EXPECT_FALSE(mdm->live());

    // By firmware text EC25EFAR06A06M4G: EC25-E, and its variant driver.
    ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
    EXPECT_STREQ(modem_info_name(mdm->info()), "Quectel EC25-E");
    EXPECT_STREQ(mdm->driver()->name, "Quectel EC25-E AT");
    EXPECT_STREQ(mdm->driver()->parent, "quectel,ec25");
    EXPECT_EQ(cached("firmware"), "EC25EFAR06A06M4G");
    EXPECT_EQ(count(sim->transcript(), "AT+QGMR"), 1u);
}

TEST_F(ModemInstance, UnknownUsbIdsStartGenericThenFirmwareIdentifies)
{
    ASSERT_NO_FATAL_FAILURE(start_sim());
    ASSERT_NO_FATAL_FAILURE(create_modem("1234:5678"));
    ASSERT_EQ(mdm->driver_init(), 0);
    EXPECT_EQ(mdm->info(), &g_midata[0]);
    EXPECT_STREQ(mdm->driver()->name, "Generic AT");
    ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
    EXPECT_STREQ(mdm->driver()->name, "Quectel EC25-E AT");
}

TEST_F(ModemInstance, LiveStartRegistersQueriesAndAnnounces)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    EXPECT_STREQ(mdm->object_name(), "gsm.modem0");
    EXPECT_EQ(mdm->bus_object().obj.id, modem_id);

    // The start-up queries the driver supports: IMEI, then serial number
    // (Quectel's own, AT+EGMR=0,5).
    ASSERT_TRUE(run_until(8000, [&] { return cached("serial_num") != "<none>" && cached("imei") != "<none>"; }));
    EXPECT_EQ(cached("imei"), "866758041234564");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
    EXPECT_EQ(count(sim->transcript(), "AT+GSN"), 1u);
    EXPECT_EQ(count(sim->transcript(), "AT+EGMR=0,5"), 1u);

    ASSERT_TRUE(run_until(5000, [&] { return !notes.seen.empty(); }));
    EXPECT_EQ(notes.seen[0], "gsm.new_modem {\"object_name\":\"gsm.modem0\",\"object_id\":" +
                                 std::to_string(static_cast<int32_t>(modem_id)) + "}");
}

TEST_F(ModemInstance, UnreadableImeiIsAskedForAgainThreeTimes)
{
    ASSERT_NO_FATAL_FAILURE(start_sim("set imei NOT-A-NUMBER"));
    ASSERT_NO_FATAL_FAILURE(create_modem());
    ASSERT_EQ(mdm->driver_init(), 0);
    ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
    // Asked once and then three times more; the serial number has its own query.
    ASSERT_TRUE(run_until(8000, [&] { return count(sim->transcript(), "AT+GSN") >= 4; }));
    ASSERT_TRUE(run_until(3000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    EXPECT_EQ(count(sim->transcript(), "AT+GSN"), 4u);
    EXPECT_EQ(cached("imei"), "<none>");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
}

TEST_F(ModemInstance, CacheUpkeepDropsAnOldOperatorScan)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto scan = ujson::create();
    ASSERT_TRUE(scan);
    scan->add_string("operator", "Test");
    ASSERT_EQ(mdm->cache()->update_item("operator_scan", CACHE_DATA_UJSON, scan.get(), 0), CACHE_ITEM_CHANGED);
    std::string old = std::to_string(time(nullptr) - 901);
    ASSERT_EQ(
        mdm->cache()->update_item("last_scan", CACHE_DATA_STRING, old.c_str(), static_cast<uint32_t>(old.size() + 1)),
        CACHE_ITEM_CHANGED);
    // The first upkeep runs 10 s after going live (announcing it took up to 2 s).
    EXPECT_FALSE(run_until(5000, [&] { return !mdm->cache()->get_item("operator_scan"); }));
    EXPECT_TRUE(run_until(7000, [&] { return !mdm->cache()->get_item("operator_scan"); }));
    EXPECT_NE(mdm->cache()->get_item("last_scan"), nullptr);
}

TEST_F(ModemInstance, CacheUpkeepKeepsARecentOperatorScan)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto scan = ujson::create();
    ASSERT_TRUE(scan);
    ASSERT_EQ(mdm->cache()->update_item("operator_scan", CACHE_DATA_UJSON, scan.get(), 0), CACHE_ITEM_CHANGED);
    std::string now = std::to_string(time(nullptr));
    ASSERT_EQ(
        mdm->cache()->update_item("last_scan", CACHE_DATA_STRING, now.c_str(), static_cast<uint32_t>(now.size() + 1)),
        CACHE_ITEM_CHANGED);
    EXPECT_FALSE(run_until(11000, [&] { return !mdm->cache()->get_item("operator_scan"); }));
}

TEST_F(ModemInstance, IdInfoAndAtiAreAnsweredFromIdentification)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    call_result r = call("get_id_info");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"manuf":"Quectel","model":"EC25-E","firmware":"EC25EFAR06A06M4G",)"
                       R"("raw":"\r\nQuectel\r\nEC25-E\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n"})");

    r = call("exec", R"({"command":"ATI"})");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.reply,
              R"({"request":"ATI\r","response":"\r\nQuectel\r\nEC25-E\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n"})");
    EXPECT_EQ(count(sim->transcript(), "ATI"), 0u);
}

TEST_F(ModemInstance, ExecOfARawCommandGoesThroughTheChannel)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    call_result r = call("exec", R"({"command":"AT+GMM"})");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply, R"({"request":"AT+GMM\r","response":"\r\nEC25\r\n\r\nOK\r\n"})");
    EXPECT_EQ(count(sim->transcript(), "AT+GMM"), 1u);

    r = call("get_firmware");
    ASSERT_TRUE(r.done);
    EXPECT_EQ(r.reply, R"({"firmware":"EC25EFAR06A06M4G","firmware_full":"EC25EFAR06A06M4G_01.001.01.001"})");
}

TEST_F(ModemInstance, QueuedBusCallIsAnsweredWhenTheModemGoes)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    sim->control("hang");
    call_result r;
    ubus_request req = {};
    call_async("exec", R"({"command":"AT+CSQ"})", r, req);
    ASSERT_TRUE(run_until(3000, [&] { return mdm->get_request_count() == 1 && mdm->is_busy(); }));
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_EXECUTING));
    EXPECT_FALSE(r.done);
    mdm.reset();
    ASSERT_TRUE(run_until(3000, [&] { return r.done; }));
    EXPECT_EQ(r.reply, R"({"errno":1,"error":"Unknown error"})");
}

TEST_F(ModemInstance, BusyModemIsDeclaredHungByTheWatchdog)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    sim->control("hang");
    call_result r;
    ubus_request req = {};
    call_async("exec", R"({"command":"AT+CSQ","timeout":60})", r, req);
    ASSERT_TRUE(run_until(3000, [&] { return mdm->is_busy(); }));

    mdm->ping();
    // Busy: no probe, only the watchdog.
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    EXPECT_FALSE(run_until(4000, [&] { return saw_event("gsm.modem.hang"); }));
    ASSERT_TRUE(run_until(3000, [&] { return saw_event("gsm.modem.hang"); }));
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    std::string hang;
    for (const auto &e : events.seen)
        if (e.rfind("gsm.modem.hang", 0) == 0)
            hang = e;
    EXPECT_NE(hang.find("\"modem_id\":\"1-1.2\""), std::string::npos) << hang;
    EXPECT_NE(hang.find("\"ping_state\":2"), std::string::npos) << hang;
    EXPECT_NE(hang.find("\"comm_stats\""), std::string::npos) << hang;

    // Hung and still busy: one probe waits behind the command, no second
    // watchdog, and no second probe while the first is queued.
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 2u);
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 2u);
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    mdm.reset();
    ASSERT_TRUE(run_until(3000, [&] { return r.done; }));
}

TEST_F(ModemInstance, TrafficClearsTheWatchdogOfABusyModem)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    sim->control("hang");
    call_result r;
    ubus_request req = {};
    call_async("exec", R"({"command":"AT+CSQ","timeout":60})", r, req);
    ASSERT_TRUE(run_until(3000, [&] { return mdm->is_busy(); }));

    mdm->ping();
    run_until(2000, [] { return false; });
    sim->control("urc +CREG: 1");
    EXPECT_FALSE(run_until(5000, [&] { return saw_event("gsm.modem.hang"); }));
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    mdm.reset();
    ASSERT_TRUE(run_until(3000, [&] { return r.done; }));
}

TEST_F(ModemInstance, ProbeAnsweredOkLeavesTheHangState)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    mdm->ping();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_OUTSTANDING));
    // A second probe is not sent while one is outstanding.
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 1u);

    // Declared hung (as the manager's watcher would) before the answer came.
    mdm->trigger_hang();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    ASSERT_TRUE(run_until(3000, [&] { return mdm->ping_state() == MODEM_PING_ANSWERING; }));
    EXPECT_TRUE(saw_event("gsm.modem.hang"));
}

TEST_F(ModemInstance, AHungIdleModemIsProbedAndRecoversOnOk)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    // Start-up may have sent a bare "AT" of its own (the SIM slot query).
    size_t before = count(sim->transcript(), "\"AT\\r\"");
    mdm->trigger_hang();
    mdm->ping();
    // One probe at a time, and the state stays hung while it waits.
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 1u);
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    ASSERT_TRUE(run_until(3000, [&] { return mdm->ping_state() == MODEM_PING_ANSWERING; }));
    EXPECT_EQ(count(sim->transcript(), "\"AT\\r\""), before + 1) << sim->transcript();
}

TEST_F(ModemInstance, ProbeAnsweredOtherwiseStaysOutstanding)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    size_t before = count(sim->transcript(), "\"AT\\r\"");
    // Numeric result codes, as after a modem reset: the probe reads "0\r".
    sim->control("set verbose 0");
    mdm->ping();
    ASSERT_TRUE(run_until(3000, [&] { return mdm->get_request_count() == 0 && !mdm->is_busy(); }));
    EXPECT_EQ(count(sim->transcript(), "\"AT\\r\""), before + 1) << sim->transcript();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_OUTSTANDING));
    // And no further probe is sent.
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 0u);
    EXPECT_FALSE(saw_event("gsm.modem.hang"));
}

// A platform service on the bus with one method that records its calls.
struct fake_service {
    ubus_object obj{}; // first: the handler gets back to the record
    ubus_object_type type{};
    ubus_method method{};
    std::vector<std::string> calls; // "<method> <json>"
    ubus_context *ctx = nullptr;     // where it is registered, until it goes

    fake_service(const char *name, const char *method_name)
    {
        method.name = method_name;
        method.handler = [](ubus_context *, ubus_object *o, ubus_request_data *, const char *m, blob_attr *msg) {
            reinterpret_cast<fake_service *>(o)->calls.push_back(std::string(m) + " " + json_text(msg));
            return 0;
        };
        type.name = name;
        type.methods = &method;
        type.n_methods = 1;
        obj.name = name;
        obj.type = &type;
        obj.methods = &method;
        obj.n_methods = 1;
    }
    fake_service(const fake_service &) = delete;
    fake_service &operator=(const fake_service &) = delete;
    // Leaves the bus with the test, also when an assertion ends it early.
    ~fake_service()
    {
        if (ctx && obj.id)
            ubus_remove_object(ctx, &obj);
    }
    int add_to(ubus_context *c)
    {
        int rc = ubus_add_object(c, &obj);
        if (rc == 0)
            ctx = c;
        return rc;
    }
};

TEST_F(ModemInstance, RebootIsAskedOfTheModemControlServiceWithoutWaiting)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    // No service on the bus: nothing is sent.
    EXPECT_EQ(modem_invoke_mctl_reboot(mdm.get()), 1);

    fake_service mctl("mctl", "reboot");
    ASSERT_EQ(mctl.add_to(client), 0);
    EXPECT_EQ(modem_invoke_mctl_reboot(mdm.get()), 0);
    ASSERT_TRUE(run_until(3000, [&] { return !mctl.calls.empty(); }));
    EXPECT_EQ(mctl.calls[0], R"(reboot {"id":"1-1.2"})");

    modem bare;
    EXPECT_EQ(modem_invoke_mctl_reboot(&bare), 1);
}

TEST_F(ModemInstance, NewModemReachesHotplugScripts)
{
    // The call waits up to a second for an answer, which this process can only
    // give afterwards: the daemon logs a failed call, the script still runs.
    fake_service hotplug("hotplug.gsm", "call");
    ASSERT_EQ(hotplug.add_to(client), 0);
    ASSERT_NO_FATAL_FAILURE(go_live());
    ASSERT_TRUE(run_until(3000, [&] { return !hotplug.calls.empty(); }));
    EXPECT_EQ(hotplug.calls[0], R"(call {"env":["OBJECT_NAME=gsm.modem0","MODEM_ID=1-1.2","EVENT_NAME=gsm.new_modem",)"
                                R"("DATA={\"object_name\":\"gsm.modem0\",\"object_id\":)" +
                                    std::to_string(static_cast<int32_t>(modem_id)) + "}\"]}");
}

TEST_F(ModemInstance, PoweredDownLineIsBroadcast)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    // The Quectel drivers hand the line to the modem.
    sim->control("powerdown");
    ASSERT_TRUE(run_until(5000, [&] { return saw_event("gsm.modem.powerdown"); }));
    EXPECT_TRUE(saw_event(R"(gsm.modem.powerdown {"usb_id":"1-1.2","ubus_obj":"gsm.modem0"})"));
}

// A periodic query the generic driver does not have yet, installed for the test.
int test_get_imsi(modem *, int type, ujson *, request *req)
{
    if (type != 0)
        return ACT_STATUS_OK;
    req->command = strdup("AT+CIMI\r");
    req->length = 8;
    return req->command ? ACT_STATUS_OK : ACT_STATUS_NO_MEMORY;
}

TEST_F(ModemInstance, PeriodicWorkPollsEveryFiveSecondsExceptInFirmwareUpdate)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto *driver = const_cast<modem_driver *>(mdm->driver());
    act_func saved = driver->funcs[ACT_GET_IMSI];
    modem_driver_override(driver, ACT_GET_IMSI, test_get_imsi);
    bool polled = run_until(7000, [&] { return count(sim->transcript(), "AT+CIMI") == 1; });
    if (polled) {
        // Held while the channel is paused for a firmware update.
        mdm->cmm()->set_paused(true);
        EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_FOTA));
        run_until(6000, [] { return false; });
        EXPECT_EQ(count(sim->transcript(), "AT+CIMI"), 1u);
        EXPECT_EQ(mdm->get_request_count(), 0u);
    }
    modem_driver_override(driver, ACT_GET_IMSI, saved);
    EXPECT_TRUE(polled);
}

// An action whose answer comes later (as a URC would bring it): its parse
// phase takes the caller off the request.
std::unique_ptr<pending_request> g_pending;

int test_deferred_imsi(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return test_get_imsi(mdm, type, json, req);
    g_pending = static_cast<modem_instance *>(mdm)->set_pending_request(nullptr);
    return g_pending ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

TEST_F(ModemInstance, PendingCallIsAnsweredOnceLaterOrWhenDropped)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto *driver = const_cast<modem_driver *>(mdm->driver());
    act_func saved = driver->funcs[ACT_GET_IMSI];
    modem_driver_override(driver, ACT_GET_IMSI, test_deferred_imsi);

    call_result first;
    ubus_request req1 = {};
    call_async("get_imsi", nullptr, first, req1);
    bool taken = run_until(5000, [&] { return g_pending != nullptr; });
    run_until(300, [] { return false; });
    EXPECT_FALSE(first.done); // the request finished, the caller still waits
    if (taken) {
        auto result = ujson::create();
        result->add_string("imsi", "246011234567890");
        mdm->finalize_pending_request(std::move(g_pending), *result);
        EXPECT_TRUE(run_until(3000, [&] { return first.done; }));
        EXPECT_EQ(first.reply, R"({"imsi":"246011234567890"})");
    }

    call_result second;
    ubus_request req2 = {};
    call_async("get_imsi", nullptr, second, req2);
    bool taken_again = run_until(5000, [&] { return g_pending != nullptr; });
    g_pending.reset(); // nobody answers: the record does
    EXPECT_TRUE(run_until(3000, [&] { return second.done; }));
    EXPECT_EQ(second.reply, R"({"errno":1,"error":"Unknown error"})");

    modem_driver_override(driver, ACT_GET_IMSI, saved);
    EXPECT_TRUE(taken);
    EXPECT_TRUE(taken_again);
}

TEST_F(ModemInstance, FirmwareUpdateAtStartRegistersAtOnceAndHoldsEverything)
{
    ASSERT_NO_FATAL_FAILURE(start_sim("fota"));
    ASSERT_NO_FATAL_FAILURE(create_modem());
    ASSERT_TRUE(run_until(8000, [&] { return !mdm->cmm()->setup_running(); }));
    ASSERT_TRUE(mdm->cmm()->fota());
    ASSERT_EQ(mdm->driver_init(), 0);
    EXPECT_TRUE(mdm->paused());
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_FOTA));
    ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &modem_id), 0);
    EXPECT_FALSE(mdm->live());
    EXPECT_EQ(mdm->get_request_count(), 0u);

    // Paused: the bus refuses commands, and no probe is sent.
    EXPECT_EQ(call("exec", R"({"command":"AT"})").status, UBUS_STATUS_CONNECTION_FAILED);
    mdm->ping();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    EXPECT_EQ(mdm->get_request_count(), 0u);
}

TEST_F(ModemInstance, DestroyAnnouncesTheModemGone)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    mdm.reset();
    ASSERT_TRUE(run_until(3000, [&] { return saw_event("gsm.modem_gone"); }));
    EXPECT_TRUE(saw_event("gsm.modem_gone {\"object_name\":\"gsm.modem0\",\"object_id\":" +
                          std::to_string(static_cast<int32_t>(modem_id)) + ",\"modem_id\":\"1-1.2\"}"));
    uint32_t id = 0;
    EXPECT_NE(ubus_lookup_id(client, "gsm.modem0", &id), 0);
}

// --- without a modem behind it ----------------------------------------------------

TEST(ModemQueue, SequenceNumbersStateAndCleaning)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_IDLE));
    EXPECT_EQ(mdm->info(), &g_midata[0]);

    ASSERT_EQ(mdm->new_internal_request(ACT_OPERATOR_SCAN, nullptr, nullptr, "AT+COPS=?\r", 10, 180000, nullptr), 0);
    ASSERT_EQ(mdm->new_internal_request(ACT_SEND_SMS, nullptr, nullptr, "AT+CMGS=20\r", 11, 10000, nullptr), 0);
    EXPECT_EQ(mdm->get_request_count(), 2u);
    request *head = mdm->get_request();
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->number, 1u);
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_SCANNING));

    mdm->clean_request(head, 1);
    head = mdm->get_request();
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->number, 2u);
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_SENDING_SMS));
    mdm->clean_request(head, 1);
    EXPECT_EQ(mdm->get_request_count(), 0u);
    ASSERT_EQ(mdm->new_internal_request(ACT_AT_COMMAND, nullptr, nullptr, "AT\r", 3, 10000, nullptr), 0);
    EXPECT_EQ(mdm->get_request()->number, 3u);
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_EXECUTING));
}

TEST(ModemQueue, FailedInternalRequestReachesItsCallbackWithoutResponse)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    static int calls;
    static bool had_response;
    calls = 0;
    had_response = true;
    auto cb = [](modem *, uint32_t, ujson *reply, void *) {
        calls++;
        had_response = reply->exists("response");
    };
    ASSERT_EQ(mdm->new_internal_request(ACT_GET_IMEI, cb, nullptr, "AT+GSN\r", 7, 10000, nullptr), 0);
    mdm->finish_request(mdm->get_request(), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(had_response);
    EXPECT_EQ(mdm->get_request_count(), 0u);
}

TEST(ModemQueue, LastActiveUrcIsNameColonBlank)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    EXPECT_EQ(mdm->last_active_urc(), nullptr);
    mdm->set_last_active_urc("+CUSD");
    EXPECT_STREQ(mdm->last_active_urc(), "+CUSD: ");
    mdm->release_pending_request();
    EXPECT_EQ(mdm->last_active_urc(), nullptr);
}

TEST(ModemQueue, PendingRequestNeedsACurrentBusCall)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    EXPECT_EQ(mdm->set_pending_request(nullptr), nullptr);
    ASSERT_EQ(mdm->new_internal_request(ACT_SET_USSD, nullptr, nullptr, "AT+CUSD=1\r", 10, 10000, nullptr), 0);
    // An internal request has no caller to answer later.
    EXPECT_EQ(mdm->set_pending_request(nullptr), nullptr);
}

} // namespace
