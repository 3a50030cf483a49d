// The modem instance on the simulated EC25 over a real pty and a real
// broker; the modem manager is a double.
#include "core/modem_instance.h"

#include "wwan/ubox.h"
#include <libubus.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"

#include "comm/cmm_test_support.h"
#include "core/modem_driver.h"
#include "core/modem_info.h"
#include "ubus/modem_api.h"
#include "ubus/bus_test_support.h"
#include "ubus/ubus.h"
#include "util/cache_manager.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace cmm_test;
using bus_test::call_result;

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
    std::string get_free_name(ubus_modem &) override { return "gsm.modem0"; }

    ubus_context *ctx = nullptr;
    ubus_manager_object object;
};

struct event_log {
    ubus_event_handler handler{};
    std::vector<std::string> seen; // "<type> <json>"
};

class ModemInstance : public bus_test::fixture
{
  protected:
    void SetUp() override
    {
        if (sim_executable().empty())
            GTEST_SKIP() << "wwan-modem-sim is not built";
        ASSERT_NO_FATAL_FAILURE(fixture::SetUp());
        if (IsSkipped())
            return;
        if (getenv("MODEM_TEST_DEBUG"))
            log_level(1);
        for (const char *dir : {"/dev", "/tmp"})
            std::filesystem::create_directories(root / dir);
        mgr.ctx = server;
        ASSERT_EQ(ubus_init(mgr), 0);
        events.handler.cb = [](ubus_context *, ubus_event_handler *ev, const char *type, blob_attr *msg) {
            reinterpret_cast<event_log *>(ev)->seen.push_back(std::string(type) + " " + json_text(msg));
        };
        ASSERT_EQ(ubus_register_event_handler(client, &events.handler, "gsm.*"), 0);
    }

    void TearDown() override
    {
        mdm.reset();
        sim.reset();
        if (client)
            ubus_unregister_event_handler(client, &events.handler);
        if (server && mgr.object.obj.id)
            ubus_remove_object(server, &mgr.object.obj);
        fixture::TearDown();
    }

    // A modem on the simulator, initialised; identification not started.
    void create_modem(const char *control = nullptr, const char *vid_pid = "2C7C:0125")
    {
        modem_sim::options opt;
        opt.link = root.path() + "/dev/ttyUSB2";
        sim = std::make_unique<modem_sim>(root.path(), opt);
        ASSERT_FALSE(sim->pty().empty());
        if (control)
            sim->control(control);
        mdm = modem_instance::modem_create(fast_timing());
        ASSERT_TRUE(mdm);
        ASSERT_EQ(mdm->init("1-1.2", vid_pid, "/dev/ttyUSB2", nullptr, nullptr, 115200, server, &mgr, false), 0);
    }

    // Identification through to the live modem.
    void go_live(const char *control = nullptr)
    {
        ASSERT_NO_FATAL_FAILURE(create_modem(control));
        ASSERT_EQ(mdm->driver_init(), 0);
        ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
        ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &modem_id), 0);
    }

    void wait_idle()
    {
        ASSERT_TRUE(run_until(5000, [&] { return !mdm->get_request_count() && !mdm->is_busy(); }));
    }

    std::string cached(const char *key)
    {
        const cache_item *item = mdm->cache()->get_item(key);
        return item && item->text() ? item->text() : "<none>";
    }

    // The first event of that type, "" when none came.
    std::string event(const std::string &type)
    {
        for (const auto &e : events.seen)
            if (e.rfind(type + " ", 0) == 0)
                return e;
        return "";
    }

    call_result call(const char *method, const char *json = nullptr) { return fixture::call(modem_id, method, json); }

    // A hanging modem busy with an exec the caller of r waits for.
    void hang_busy(call_result &r)
    {
        ASSERT_NO_FATAL_FAILURE(go_live());
        ASSERT_NO_FATAL_FAILURE(wait_idle());
        sim->control("hang");
        call_async(modem_id, "exec", R"({"command":"AT+CSQ","timeout":60})", r);
        ASSERT_TRUE(run_until(3000, [&] { return mdm->get_request_count() == 1 && mdm->is_busy(); }));
    }

    test_manager mgr;
    event_log events;
    std::unique_ptr<modem_sim> sim;
    std::unique_ptr<modem_instance> mdm;
    uint32_t modem_id = 0;
};

// By USB ids first (unknown ids: the generic driver), then by the firmware
// text EC25EFAR06A06M4G: EC25-E and its variant driver.
TEST_F(ModemInstance, IdentifiesByUsbIdsThenByFirmware)
{
    const struct {
        const char *vid_pid;
        size_t row;
        const char *driver;
    } rows[] = {{"2C7C:0125", 1, "Quectel EC25 AT"}, {"1234:5678", 0, "Generic AT"}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.vid_pid);
        ASSERT_NO_FATAL_FAILURE(create_modem(nullptr, r.vid_pid));
        ASSERT_EQ(mdm->driver_init(), 0);
        EXPECT_EQ(mdm->info(), &g_midata[r.row]);
        EXPECT_STREQ(mdm->driver()->name, r.driver);
        EXPECT_FALSE(mdm->live());
        ASSERT_TRUE(run_until(8000, [&] { return mdm->live(); }));
        EXPECT_STREQ(modem_info_name(mdm->info()), "Quectel EC25-E");
        EXPECT_STREQ(mdm->driver()->name, "Quectel EC25-E AT");
        EXPECT_EQ(cached("firmware"), "EC25EFAR06A06M4G");
        EXPECT_EQ(count(sim->transcript(), "AT+QGMR"), 1u);
        mdm.reset();
        sim.reset();
    }
}

// Going live: the start-up queries, and the methods answered from
// identification or through the channel. Announcing the modem and its going
// away run in the end-to-end hot-plug tests.
TEST_F(ModemInstance, LiveModemAnswersFromIdentificationAndThroughTheChannel)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    EXPECT_STREQ(mdm->object_name(), "gsm.modem0");
    // IMEI, then Quectel's own serial number query.
    ASSERT_TRUE(run_until(8000, [&] { return cached("serial_num") != "<none>" && cached("imei") != "<none>"; }));
    EXPECT_EQ(cached("imei"), "866758041234564");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
    EXPECT_EQ(count(sim->transcript(), "AT+GSN"), 1u);
    EXPECT_EQ(count(sim->transcript(), "AT+EGMR=0,5"), 1u);

    const std::string ati = R"(\r\nQuectel\r\nEC25-E\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n)";
    const struct {
        const char *method, *args;
        std::string reply;
    } rows[] = {
        // clang-format off
        {"get_id_info", nullptr, R"({"manuf":"Quectel","model":"EC25-E","firmware":"EC25EFAR06A06M4G","raw":")" + ati + "\"}"},
        {"exec", R"({"command":"ATI"})", R"({"request":"ATI\r","response":")" + ati + "\"}"},
        {"exec", R"({"command":"AT+GMM"})", R"({"request":"AT+GMM\r","response":"\r\nEC25\r\n\r\nOK\r\n"})"},
        {"get_firmware", nullptr, R"({"firmware":"EC25EFAR06A06M4G","firmware_full":"EC25EFAR06A06M4G_01.001.01.001"})"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.method);
        call_result res = call(r.method, r.args);
        EXPECT_EQ(res.status, 0);
        EXPECT_EQ(res.reply, r.reply);
    }
    EXPECT_EQ(count(sim->transcript(), "ATI"), 0u);
    EXPECT_EQ(count(sim->transcript(), "AT+GMM"), 1u);
}

TEST_F(ModemInstance, UnreadableImeiIsAskedForAgainThreeTimes)
{
    ASSERT_NO_FATAL_FAILURE(go_live("set imei NOT-A-NUMBER"));
    ASSERT_TRUE(run_until(8000, [&] { return count(sim->transcript(), "AT+GSN") >= 4; }));
    ASSERT_NO_FATAL_FAILURE(wait_idle());
    EXPECT_EQ(count(sim->transcript(), "AT+GSN"), 4u);
    EXPECT_EQ(cached("imei"), "<none>");
    EXPECT_EQ(cached("serial_num"), "MPY22GB0A2345");
}

// The first upkeep runs 10 s after going live (announcing it took up to 2 s):
// an operator scan older than 15 minutes goes, a recent one stays.
TEST_F(ModemInstance, CacheUpkeepDropsOnlyAnOldOperatorScan)
{
    for (int age : {901, 0}) {
        SCOPED_TRACE(age);
        ASSERT_NO_FATAL_FAILURE(go_live());
        auto scan = ujson::create();
        ASSERT_EQ(mdm->cache()->update_item("operator_scan", CACHE_DATA_UJSON, scan.get(), 0), CACHE_ITEM_CHANGED);
        std::string when = std::to_string(time(nullptr) - age);
        ASSERT_EQ(mdm->cache()->update_item("last_scan", CACHE_DATA_STRING, when.c_str(),
                                            static_cast<uint32_t>(when.size() + 1)),
                  CACHE_ITEM_CHANGED);
        auto dropped = [&] { return !mdm->cache()->get_item("operator_scan"); };
        EXPECT_FALSE(run_until(5000, dropped));
        EXPECT_EQ(run_until(7000, dropped), age != 0);
        EXPECT_NE(mdm->cache()->get_item("last_scan"), nullptr);
        mdm.reset();
        sim.reset();
    }
}

// Busy: no probe, only the watchdog, which declares the hang; hung and still
// busy: one probe waits behind the command. The waiting caller is answered
// when the modem goes.
TEST_F(ModemInstance, BusyModemIsDeclaredHungByTheWatchdog)
{
    call_result r;
    ASSERT_NO_FATAL_FAILURE(hang_busy(r));
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_EXECUTING));
    mdm->ping();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    EXPECT_FALSE(run_until(4000, [&] { return !event("gsm.modem.hang").empty(); }));
    ASSERT_TRUE(run_until(3000, [&] { return !event("gsm.modem.hang").empty(); }));
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    const std::string hang = event("gsm.modem.hang");
    for (const char *part : {R"("modem_id":"1-1.2")", R"("ping_state":2)", R"("comm_stats")"})
        EXPECT_NE(hang.find(part), std::string::npos) << hang;

    mdm->ping();
    mdm->ping();
    EXPECT_EQ(mdm->get_request_count(), 2u);
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
    EXPECT_FALSE(r.done);
    mdm.reset();
    ASSERT_TRUE(run_until(3000, [&] { return r.done; }));
    EXPECT_EQ(r.reply, R"({"errno":1,"error":"Unknown error"})");
}

TEST_F(ModemInstance, TrafficClearsTheWatchdogOfABusyModem)
{
    call_result r;
    ASSERT_NO_FATAL_FAILURE(hang_busy(r));
    mdm->ping();
    run_until(2000, [] { return false; });
    sim->control("urc +CREG: 1");
    EXPECT_FALSE(run_until(5000, [&] { return !event("gsm.modem.hang").empty(); }));
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    mdm.reset(); // answers the caller before its request goes
    ASSERT_TRUE(run_until(3000, [&] { return r.done; }));
}

// An idle modem is probed with a bare AT, one probe at a time; a plain OK
// leaves the hang state (declared before or after the probe went out), any
// other answer keeps the probe outstanding.
TEST_F(ModemInstance, ProbeOfAnIdleModem)
{
    const struct {
        const char *what;
        bool hang_first, numeric;
        uint32_t waiting, after;
    } rows[] = {
        // clang-format off
        {"hung, then probed", true, false, MODEM_PING_HUNG, MODEM_PING_ANSWERING},
        {"probed, then declared hung", false, false, MODEM_PING_OUTSTANDING, MODEM_PING_ANSWERING},
        {"answered 0 after a reset", false, true, MODEM_PING_OUTSTANDING, MODEM_PING_OUTSTANDING},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(go_live());
        ASSERT_NO_FATAL_FAILURE(wait_idle());
        size_t before = count(sim->transcript(), "\"AT\\r\""); // start-up may send one of its own
        if (r.numeric)
            sim->control("set verbose 0");
        if (r.hang_first)
            mdm->trigger_hang();
        mdm->ping();
        mdm->ping();
        EXPECT_EQ(mdm->get_request_count(), 1u);
        EXPECT_EQ(mdm->ping_state(), r.waiting);
        if (!r.hang_first && !r.numeric) {
            mdm->trigger_hang();
            EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_HUNG));
        }
        ASSERT_NO_FATAL_FAILURE(wait_idle());
        EXPECT_EQ(mdm->ping_state(), r.after);
        EXPECT_EQ(count(sim->transcript(), "\"AT\\r\""), before + 1) << sim->transcript();
        EXPECT_EQ(event("gsm.modem.hang").empty(), r.numeric);
        mdm->ping(); // outstanding: no further probe; answering: a new one
        EXPECT_EQ(mdm->get_request_count(), r.numeric ? 0u : 1u);
        ASSERT_NO_FATAL_FAILURE(wait_idle());
        mdm.reset();
        sim.reset();
        events.seen.clear();
    }
}

std::vector<std::string> g_mctl_calls; // "<method> <json>"

int record_mctl(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg)
{
    g_mctl_calls.push_back(std::string(method) + " " + json_text(msg));
    return 0;
}

TEST_F(ModemInstance, RebootIsAskedOfTheModemControlServiceWithoutWaiting)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    EXPECT_EQ(modem_invoke_mctl_reboot(mdm.get()), 1); // no service on the bus
    static const ubus_method methods[] = {UBUS_METHOD_NOARG("reboot", record_mctl)};
    static ubus_object_type type = UBUS_OBJECT_TYPE("mctl", methods);
    ubus_object mctl{};
    mctl.name = "mctl";
    mctl.type = &type;
    mctl.methods = methods;
    mctl.n_methods = 1;
    ASSERT_EQ(ubus_add_object(client, &mctl), 0);
    g_mctl_calls.clear();
    EXPECT_EQ(modem_invoke_mctl_reboot(mdm.get()), 0);
    EXPECT_TRUE(run_until(3000, [&] { return !g_mctl_calls.empty(); }));
    EXPECT_EQ(g_mctl_calls, std::vector<std::string>{R"(reboot {"id":"1-1.2"})"});
    ubus_remove_object(client, &mctl);
    modem bare;
    EXPECT_EQ(modem_invoke_mctl_reboot(&bare), 1);
}

TEST_F(ModemInstance, PoweredDownLineAndGoingAwayAreBroadcast)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    sim->control("powerdown");
    ASSERT_TRUE(run_until(5000, [&] { return !event("gsm.modem.powerdown").empty(); }));
    EXPECT_EQ(event("gsm.modem.powerdown"), R"(gsm.modem.powerdown {"usb_id":"1-1.2","ubus_obj":"gsm.modem0"})");
    mdm.reset(); // the modem goes: its bus object's end is broadcast
    ASSERT_TRUE(run_until(3000, [&] { return !event("gsm.modem_gone").empty(); }));
    EXPECT_EQ(event("gsm.modem_gone"), R"(gsm.modem_gone {"object_name":"gsm.modem0","object_id":)" +
                                           std::to_string(static_cast<int32_t>(modem_id)) + R"(,"modem_id":"1-1.2"})");
}

// A periodic query the generic driver does not have yet, installed for the
// tests; its deferred form hands the caller to a later answer.
int test_get_imsi(modem *, int type, ujson *, request *req)
{
    if (type != 0)
        return ACT_STATUS_OK;
    req->command = strdup("AT+CIMI\r");
    req->length = 8;
    return req->command ? ACT_STATUS_OK : ACT_STATUS_NO_MEMORY;
}

std::unique_ptr<pending_request> g_pending;

int test_deferred_imsi(modem *mdm, int type, ujson *json, request *req)
{
    if (type == 0)
        return test_get_imsi(mdm, type, json, req);
    g_pending = static_cast<modem_instance *>(mdm)->set_pending_request(nullptr);
    return g_pending ? ACT_STATUS_OK : ACT_STATUS_INVALID_RESPONSE;
}

TEST_F(ModemInstance, PeriodicWorkPollsEveryFiveSecondsExceptInFirmwareUpdate)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto *driver = const_cast<modem_driver *>(mdm->driver());
    act_func saved = driver->funcs[ACT_GET_IMSI];
    modem_driver_override(driver, ACT_GET_IMSI, test_get_imsi);
    bool polled = run_until(7000, [&] { return count(sim->transcript(), "AT+CIMI") == 1; });
    if (polled) {
        mdm->cmm()->set_paused(true);
        EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_FOTA));
        run_until(6000, [] { return false; });
        EXPECT_EQ(count(sim->transcript(), "AT+CIMI"), 1u);
        EXPECT_EQ(mdm->get_request_count(), 0u);
    }
    modem_driver_override(driver, ACT_GET_IMSI, saved);
    EXPECT_TRUE(polled);
}

TEST_F(ModemInstance, PendingCallIsAnsweredOnceLaterOrWhenDropped)
{
    ASSERT_NO_FATAL_FAILURE(go_live());
    auto *driver = const_cast<modem_driver *>(mdm->driver());
    act_func saved = driver->funcs[ACT_GET_IMSI];
    modem_driver_override(driver, ACT_GET_IMSI, test_deferred_imsi);
    for (bool answered : {true, false}) {
        SCOPED_TRACE(answered);
        call_result r;
        call_async(modem_id, "get_imsi", nullptr, r);
        bool taken = run_until(5000, [&] { return g_pending != nullptr; });
        EXPECT_TRUE(taken);
        run_until(300, [] { return false; });
        EXPECT_FALSE(r.done); // the request finished, the caller still waits
        if (taken && answered) {
            auto result = ujson::create();
            result->add_string("imsi", "246011234567890");
            mdm->finalize_pending_request(std::move(g_pending), *result);
        }
        g_pending.reset(); // nobody answers: the record does
        EXPECT_TRUE(run_until(3000, [&] { return r.done; }));
        EXPECT_EQ(r.reply, answered ? R"({"imsi":"246011234567890"})" : R"({"errno":1,"error":"Unknown error"})");
    }
    modem_driver_override(driver, ACT_GET_IMSI, saved);
}

TEST_F(ModemInstance, FirmwareUpdateAtStartRegistersAtOnceAndHoldsEverything)
{
    ASSERT_NO_FATAL_FAILURE(create_modem("fota"));
    ASSERT_TRUE(run_until(8000, [&] { return !mdm->cmm()->setup_running(); }));
    ASSERT_TRUE(mdm->cmm()->fota());
    ASSERT_EQ(mdm->driver_init(), 0);
    EXPECT_TRUE(mdm->paused());
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_FOTA));
    ASSERT_EQ(ubus_lookup_id(client, "gsm.modem0", &modem_id), 0);
    EXPECT_FALSE(mdm->live());
    // Paused: the bus refuses commands, and no probe is sent.
    EXPECT_EQ(call("exec", R"({"command":"AT"})").status, UBUS_STATUS_CONNECTION_FAILED);
    mdm->ping();
    EXPECT_EQ(mdm->ping_state(), static_cast<uint32_t>(MODEM_PING_ANSWERING));
    EXPECT_EQ(mdm->get_request_count(), 0u);
}

// --- without a modem behind it ----------------------------------------------------

TEST(ModemQueue, SequenceNumbersStateCleaningAndFailure)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    EXPECT_EQ(mdm->get_current_state(), static_cast<uint32_t>(MODEM_STATE_IDLE));
    EXPECT_EQ(mdm->info(), &g_midata[0]);
    const struct {
        uint32_t action, state;
    } rows[] = {{ACT_OPERATOR_SCAN, MODEM_STATE_SCANNING},
                {ACT_SEND_SMS, MODEM_STATE_SENDING_SMS},
                {ACT_AT_COMMAND, MODEM_STATE_EXECUTING}};
    for (const auto &r : rows)
        ASSERT_EQ(mdm->new_internal_request(r.action, nullptr, nullptr, "AT\r", 3, 10000, nullptr), 0);
    EXPECT_EQ(mdm->get_request_count(), 3u);
    for (uint32_t n = 1; n <= 3; n++) {
        SCOPED_TRACE(n);
        request *head = mdm->get_request();
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(head->number, n);
        EXPECT_EQ(mdm->get_current_state(), rows[n - 1].state);
        mdm->clean_request(head, 1);
    }
    EXPECT_EQ(mdm->get_request_count(), 0u);

    // A failed request reaches its callback without a response.
    static int calls;
    calls = 0;
    auto cb = [](modem *, uint32_t, ujson *reply, void *) { calls += reply->exists("response") ? 100 : 1; };
    ASSERT_EQ(mdm->new_internal_request(ACT_GET_IMEI, cb, nullptr, "AT+GSN\r", 7, 10000, nullptr), 0);
    EXPECT_EQ(mdm->get_request()->number, 4u);
    mdm->finish_request(mdm->get_request(), 1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(mdm->get_request_count(), 0u);
}

TEST(ModemQueue, LastActiveUrcAndPendingRequests)
{
    auto mdm = modem_instance::modem_create();
    ASSERT_TRUE(mdm);
    EXPECT_EQ(mdm->last_active_urc(), nullptr);
    mdm->set_last_active_urc("+CUSD");
    EXPECT_STREQ(mdm->last_active_urc(), "+CUSD: ");
    mdm->release_pending_request();
    EXPECT_EQ(mdm->last_active_urc(), nullptr);

    // Only a current bus call can wait for a later answer.
    EXPECT_EQ(mdm->set_pending_request(nullptr), nullptr);
    ASSERT_EQ(mdm->new_internal_request(ACT_SET_USSD, nullptr, nullptr, "AT+CUSD=1\r", 10, 10000, nullptr), 0);
    EXPECT_EQ(mdm->set_pending_request(nullptr), nullptr);
}

} // namespace
