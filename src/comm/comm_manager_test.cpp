// The command channel against the simulated modem over a real pseudo-terminal.
#include "comm/comm_manager.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <string>

#include "wwan/ubox.h"

#include "comm/cmm_test_support.h"
#include "core/modem_driver.h"
#include "util/log.h"
#include "util/ujson.h"

using namespace cmm_test;

namespace
{

// What the modem received, from the simulator's transcript: the quoted text
// of its "in" lines, escapes kept ("\\r", "\\x00").
std::string modem_input(const std::string &transcript)
{
    std::string in;
    size_t pos = 0;
    while ((pos = transcript.find(" in  \"", pos)) != std::string::npos) {
        size_t start = pos + 6;
        size_t end = transcript.find('\n', start);
        in += transcript.substr(start, end - start - 1);
        pos = end;
    }
    return in;
}

// The modem the driver functions below report to.
test_modem *g_modem = nullptr;
std::vector<std::string> g_urcs; // "<handler>:<text>"

int urc_creg(modem *, ujson *)
{
    g_urcs.push_back("creg:" + g_modem->last_response);
    return 0;
}

int urc_cusd(modem *, ujson *)
{
    g_urcs.push_back("cusd:" + g_modem->last_response);
    return 0;
}

int urc_upload(modem *, ujson *)
{
    g_urcs.push_back("qfupl:" + g_modem->last_response);
    return 0;
}

int urc_failing(modem *, ujson *)
{
    return 6;
}

// Parse phase of "AT+GSN": the IMEI is the first line of the answer.
int get_imei(modem *, int type, ujson *json, request *)
{
    if (!type)
        return 0;
    const std::string &r = g_modem->last_response;
    if (r.size() < 17 || r.compare(r.size() - 6, 6, "\r\nOK\r\n") != 0)
        return 5;
    json->add_string("imei", r.substr(2, 15).c_str());
    return 0;
}

// An action that reads nothing and reports nothing.
int silent_ok(modem *, int, ujson *, request *)
{
    return 0;
}

int always_invalid(modem *, int, ujson *, request *)
{
    return 5;
}

// What the channel counted for the last upload when its answer came.
struct upload_record {
    uint64_t written = 0;
    uint16_t checksum = 0;
    int calls = 0;
} g_upload;

int record_upload(modem *, int type, ujson *, request *req)
{
    if (type) {
        g_upload.written = req->source.written;
        g_upload.checksum = req->source.checksum;
        g_upload.calls++;
    }
    return 0;
}

modem_driver g_driver = {"Test AT", "test", nullptr, nullptr};

class CommManager : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        modem_driver_urc_override(&g_driver, "+CREG", urc_creg);
        modem_driver_urc_override(&g_driver, "+CUSD", urc_cusd);
        modem_driver_urc_override(&g_driver, "+QFUPL", urc_upload);
        modem_driver_urc_override(&g_driver, "+QIND", urc_failing);
        modem_driver_override(&g_driver, ACT_GET_IMEI, get_imei);
        modem_driver_override(&g_driver, ACT_GET_FUNC, silent_ok);
        modem_driver_override(&g_driver, ACT_GET_IMSI, always_invalid);
        modem_driver_override(&g_driver, ACT_UPLOAD_FILE, record_upload);
    }

    static void TearDownTestSuite()
    {
        while (urc_entry *e = g_driver.urcs) {
            g_driver.urcs = e->next;
            delete e;
        }
        g_driver.urc_count = 0;
    }

    void SetUp() override
    {
        if (sim_executable().empty())
            GTEST_SKIP() << "wwan-modem-sim is not built";
        ASSERT_EQ(uloop_init(), 0);
        g_urcs.clear();
        g_upload = {};
        // CMM_TEST_DEBUG=1 shows the channel's debug log of every exchange.
        if (const char *d = getenv("CMM_TEST_DEBUG"))
            log_level(static_cast<uint32_t>(atoi(d)));
    }

    void TearDown() override
    {
        g_modem = nullptr;
        mdm.reset();
        sim.reset();
        uloop_done();
    }

    // Starts the simulator (scenario text is written to a file first when
    // given) without starting the channel.
    void start_sim(const std::string &scenario_text = {}, bool boot = false)
    {
        modem_sim::options opt;
        opt.boot = boot;
        opt.link = root.path() + "/dev/ttyUSB2";
        if (!scenario_text.empty()) {
            opt.scenario = root.path() + "/test.scn";
            std::ofstream(opt.scenario) << scenario_text;
        }
        sim = std::make_unique<modem_sim>(root.path(), opt);
        ASSERT_FALSE(sim->pty().empty());
        mdm = std::make_unique<test_modem>("/dev/ttyUSB2", &g_driver);
        g_modem = mdm.get();
    }

    // Starts the simulator and the channel and waits for the set-up.
    void open_channel(const std::string &scenario_text = {}, cmm_timing timing = fast_timing())
    {
        ASSERT_NO_FATAL_FAILURE(start_sim(scenario_text));
        mdm->cmm = comm_manager::create(timing);
        ASSERT_TRUE(mdm->cmm);
        ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
        ASSERT_TRUE(run_until(5000, [&] { return mdm->ready == 1; }));
    }

    // Runs until n requests have been finished.
    bool wait_finished(size_t n, int timeout_ms = 5000)
    {
        return run_until(timeout_ms, [&] { return mdm->finished.size() >= n; });
    }

    // Lets the loop run for a while, for checks that nothing happens.
    void idle(int ms)
    {
        run_until(ms, [] { return false; });
    }

    temp_root root;
    std::unique_ptr<modem_sim> sim;
    std::unique_ptr<test_modem> mdm;
};

// A scenario of the EC25 answers this test needs, plus test-only rules.
std::string scenario(const std::string &extra_rules)
{
    return "model Test modem\n"
           "set echo 1\nset verbose 1\nset cmee 1\nset imei 866758041234564\nset csq 22\nset mr 41\n"
           "set cmgf 0\n" +
           extra_rules +
           "on ATE0\n  set echo 0\n  ok\n"
           "on ATE1\n  set echo 1\n  ok\n"
           "on ATV0\n  set verbose 0\n  ok\n"
           "on ATV1\n  set verbose 1\n  ok\n"
           "on AT\n  ok\n"
           "on ATI\n  line Quectel\n  line EC25\n  line Revision: EC25EFAR06A06M4G\n  ok\n"
           "on AT+GSN\n  line {imei}\n  ok\n"
           "on AT+CSQ\n  line +CSQ: {csq},99\n  ok\n"
           "on AT+CREG?\n  line +CREG: 0,1\n  ok\n"
           "on AT+CMEE?\n  line +CMEE: {cmee}\n  ok\n"
           "on AT+CSCS?\n  line +CSCS: \"GSM\"\n  ok\n"
           "on AT+CMGS=[0-9]*\n  prompt ok\n  delay 30\n  line +CMGS: {mr}\n  add mr 1 256\n  ok\n";
}

} // namespace

TEST(BaudToSpeed, KnownRatesMapToTheirConstantsOthersHangUp)
{
    EXPECT_EQ(baud_to_speed(115200), static_cast<speed_t>(B115200));
    EXPECT_EQ(baud_to_speed(9600), static_cast<speed_t>(B9600));
    EXPECT_EQ(baud_to_speed(4000000), static_cast<speed_t>(B4000000));
    EXPECT_EQ(baud_to_speed(12345), static_cast<speed_t>(B0));
    EXPECT_EQ(baud_to_speed(0), static_cast<speed_t>(B0));
}

// --- set-up handshake -----------------------------------------------------------

TEST_F(CommManager, SetupTurnsEchoOffAndOpensTheChannel)
{
    ASSERT_NO_FATAL_FAILURE(open_channel());
    EXPECT_FALSE(mdm->cmm->fota());
    EXPECT_FALSE(mdm->cmm->setup_running());
    EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    ASSERT_EQ(mdm->replies.size(), 1u);
    EXPECT_EQ(mdm->replies[0].response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, SetupSwitchesANumericModemToVerbose)
{
    ASSERT_NO_FATAL_FAILURE(start_sim(scenario("")));
    sim->control("set verbose 0");
    mdm->cmm = comm_manager::create(fast_timing());
    ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
    ASSERT_TRUE(run_until(5000, [&] { return mdm->ready == 1; }));
    EXPECT_EQ(sim->control("get verbose"), "1\nOK\n");
    mdm->queue("AT");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\nOK\r\n");
}

TEST_F(CommManager, SetupAsksAgainAfterTheModemRebooted)
{
    // The modem is still booting: the first "ATE0V1" is lost, "RDY" arrives.
    ASSERT_NO_FATAL_FAILURE(start_sim({}, true));
    mdm->cmm = comm_manager::create(fast_timing());
    ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
    ASSERT_TRUE(run_until(8000, [&] { return mdm->ready == 1; }));
    EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
    EXPECT_GE(count(modem_input(sim->transcript()), "ATE0V1"), 2u);
    EXPECT_NE(sim->transcript().find("RDY"), std::string::npos);
    EXPECT_FALSE(mdm->cmm->fota());
}

TEST_F(CommManager, SetupAsksAgainAtOnceWhenTheModemRejectsIt)
{
    // Not ready yet: the first "ATE0V1" gets "+CME ERROR: 4". With the
    // periodic repeat off, only the immediate retry can get "OK".
    ASSERT_NO_FATAL_FAILURE(
        open_channel(scenario("set first 1\non ATE0\n  when first = 1\n  set first 0\n  cme 4\n"), [] {
            cmm_timing t = fast_timing();
            t.repeat_every = 0;
            return t;
        }()));
    EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
}

TEST_F(CommManager, SetupNotesAFirmwareUpdate)
{
    ASSERT_NO_FATAL_FAILURE(start_sim());
    sim->control("fota");
    mdm->cmm = comm_manager::create(fast_timing());
    ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
    ASSERT_TRUE(run_until(8000, [&] { return mdm->ready == 1; }));
    EXPECT_TRUE(mdm->cmm->fota());
}

TEST_F(CommManager, SetupOfASilentModemOpensTheChannelAfterNinetyEmptyReads)
{
    ASSERT_NO_FATAL_FAILURE(start_sim());
    sim->control("hang");
    mdm->cmm = comm_manager::create(fast_timing());
    ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
    ASSERT_TRUE(run_until(8000, [&] { return mdm->ready == 1; }));
    // The first try, then one every ten empty reads up to the 80th.
    EXPECT_EQ(count(modem_input(sim->transcript()), "ATE0V1"), 9u);
    EXPECT_FALSE(mdm->cmm->setup_running());
}

TEST_F(CommManager, ReInitRunsTheSetUpAgainOnTheOpenPort)
{
    ASSERT_NO_FATAL_FAILURE(open_channel());
    sim->control("echo on");
    ASSERT_EQ(mdm->cmm->re_init(), 0);
    EXPECT_TRUE(mdm->cmm->setup_running());
    ASSERT_TRUE(run_until(5000, [&] { return mdm->ready == 2; }));
    EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, InitFailsForAMissingPort)
{
    mdm = std::make_unique<test_modem>("/dev/ttyUSB9", &g_driver);
    mdm->cmm = comm_manager::create();
    testing::internal::CaptureStdout();
    EXPECT_EQ(mdm->cmm->init(mdm.get(), 0), 1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(mdm->cmm->tty_fd(), -1);
    // Reported as the operation behind init, under the root.
    EXPECT_EQ(out.rfind("[__init:", 0), 0u) << out;
    EXPECT_NE(out.find("] error: [CMM] Failed to open modem at `" + root.path() + "/dev/ttyUSB9` path!\n"),
              std::string::npos)
        << out;
}

// --- queue and dispatch ---------------------------------------------------------

TEST_F(CommManager, QueuedRequestsAreAnsweredOneAtATimeInOrder)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CSQ");
    mdm->queue("AT+CREG?");
    mdm->queue("ATI");
    ASSERT_TRUE(wait_finished(3));
    ASSERT_EQ(mdm->replies.size(), 3u);
    EXPECT_EQ(mdm->replies[0].response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_EQ(mdm->replies[1].response, "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
    EXPECT_EQ(mdm->replies[2].response, "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n");
    for (const auto &f : mdm->finished)
        EXPECT_EQ(f.failed, 0);
    EXPECT_FALSE(mdm->cmm->busy());

    // The modem saw each command only after the previous answer.
    std::string t = sim->transcript();
    size_t creg_in = t.find("in  \"AT+CREG?");
    size_t csq_out = t.find("+CSQ: 22,99");
    ASSERT_NE(creg_in, std::string::npos);
    EXPECT_LT(csq_out, creg_in);
}

TEST_F(CommManager, EchoingModemGetsEchoOffAndTheCommandAgain)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("echo on");
    request *req = mdm->queue("AT+CSQ");
    uint64_t number = req->number;
    ASSERT_TRUE(wait_finished(1));
    idle(100);
    EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
    std::string input = modem_input(sim->transcript());
    EXPECT_EQ(count(input, "ATE0\\r"), 1u) << input;
    EXPECT_EQ(count(input, "AT+CSQ\\r"), 2u) << input;
    // Answered once, with its own answer and not the one to "ATE0".
    ASSERT_EQ(mdm->finished.size(), 1u);
    EXPECT_EQ(mdm->finished[0].number, number);
    EXPECT_EQ(mdm->finished[0].failed, 0);
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");

    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.back().response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, SmsCommandLineGoesFirstAndThePduAfterThePrompt)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    const std::string pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
    mdm->queue("AT+CMGS=23\r" + pdu + "\x1a", ACT_SEND_SMS);
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->finished[0].failed, 0);
    ASSERT_EQ(mdm->replies.size(), 1u);
    EXPECT_NE(mdm->replies[0].response.find("\r\n+CMGS: 41\r\n\r\nOK\r\n"), std::string::npos);
    EXPECT_EQ(sim->control("get text"), pdu + "\nOK\n");
    ASSERT_EQ(mdm->events.size(), 1u);
    EXPECT_EQ(mdm->events[0].event, 29u);
    EXPECT_EQ(mdm->events[0].value, 2);
}

TEST_F(CommManager, TwoCommandLinesAreWrittenOneAfterTheOther)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CSQ\rAT+CREG?\r");
    ASSERT_TRUE(wait_finished(1));
    const std::string &r = mdm->replies.at(0).response;
    EXPECT_NE(r.find("+CREG: 0,1"), std::string::npos) << r;
    std::string t = sim->transcript();
    EXPECT_LT(t.find("+CSQ: 22,99"), t.find("in  \"AT+CREG?"));
}

// A port that takes no bytes, or that hung up: every command is answered as
// failed at once, none stays queued, and the 31st failed write in a row
// declares the modem hung.
TEST_F(CommManager, FailedWritesAnswerTheirRequestsAndThirtyOneDeclareTheModemHung)
{
    for (const bool unplug : {false, true}) {
        SCOPED_TRACE(unplug ? "terminal hung up" : "port refuses writes");
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
        if (unplug) {
            sim.reset(); // the terminal hangs up, as an unplugged modem's does
        } else {
            int ro = open("/dev/null", O_RDONLY | O_CLOEXEC);
            ASSERT_GE(ro, 0);
            ASSERT_GE(dup2(ro, mdm->cmm->tty_fd()), 0);
            close(ro);
        }
        testing::internal::CaptureStdout();
        mdm->queue("AT+CSQ");
        bool first = wait_finished(1);
        for (int i = 0; i < 30; i++)
            mdm->queue("AT+CSQ");
        bool all = wait_finished(31);
        idle(100);
        std::string log = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(first && all) << mdm->finished.size() << " finished";
        for (const auto &f : mdm->finished)
            EXPECT_EQ(f.failed, 1);
        EXPECT_EQ(mdm->queued(), 0u);
        EXPECT_EQ(mdm->hangs, 1);
        EXPECT_FALSE(mdm->cmm->busy());
        EXPECT_NE(log.find("[CMM] Failed to send command (0/8 bytes transferred)"), std::string::npos);
        if (unplug) {
            // Reported once, not read again and again.
            EXPECT_EQ(count(log, "port hung up!"), 1u) << log;
            EXPECT_LE(count(log, "modem read"), 2u) << log;
        }
        TearDown();
        SetUp();
    }
}

TEST_F(CommManager, WriteFailureCountRestartsAfterTheHangCall)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    int ro = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(dup2(ro, mdm->cmm->tty_fd()), 0);
    close(ro);
    for (int i = 0; i < 30; i++)
        mdm->cmm->write("AT\r", 3);
    EXPECT_EQ(mdm->hangs, 0);
    mdm->cmm->write("AT\r", 3);
    EXPECT_EQ(mdm->hangs, 1);
    for (int i = 0; i < 30; i++)
        mdm->cmm->write("AT\r", 3);
    EXPECT_EQ(mdm->hangs, 1);
    mdm->cmm->write("AT\r", 3);
    EXPECT_EQ(mdm->hangs, 2);
}

TEST_F(CommManager, PausedChannelHoldsRequestsUntilResumed)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->cmm->set_paused(true);
    mdm->queue("AT+CSQ");
    idle(150);
    EXPECT_TRUE(mdm->finished.empty());
    EXPECT_EQ(count(modem_input(sim->transcript()), "AT+CSQ"), 0u);
    mdm->cmm->set_paused(false);
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

// --- URCs -----------------------------------------------------------------------

TEST_F(CommManager, UrcReachesItsDriverHandler)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("urc +CREG: 5");
    ASSERT_TRUE(run_until(3000, [&] { return !g_urcs.empty(); }));
    EXPECT_EQ(g_urcs[0], "creg:\r\n+CREG: 5\r\n");
}

TEST_F(CommManager, UrcInFrontOfAnAnswerIsSplitOffIt)
{
    ASSERT_NO_FATAL_FAILURE(
        open_channel(scenario("on AT+CSQ\n  urc +CREG: 2\n  line +CSQ: 22,99\n  split 12 40\n  ok\n")));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    ASSERT_EQ(g_urcs.size(), 1u);
    EXPECT_EQ(g_urcs[0], "creg:\r\n+CREG: 2\r\n");
}

TEST_F(CommManager, ErrorLineGoesToTheAwaitedUrcHandler)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("on AT+CSQ\n  urc +CME ERROR: 30\n  line +CSQ: 22,99\n  ok\n")));
    mdm->awaited = "+CUSD: ";
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    ASSERT_EQ(g_urcs.size(), 1u);
    EXPECT_EQ(g_urcs[0], "cusd:\r\n+CME ERROR: 30\r\n");
}

TEST_F(CommManager, NetworkRefusingAnAwaitedUssdAnswerRaisesItsEvent)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->awaited = "+CUSD: ";
    sim->control("raw \\r\\n+CME ERROR: unknown network message\\r\\n");
    ASSERT_TRUE(run_until(3000, [&] { return !mdm->events.empty(); }));
    EXPECT_EQ(mdm->events[0].event, 15u);
    EXPECT_EQ(mdm->events[0].response, "Unknown network message");
    EXPECT_EQ(mdm->released, 1);
    // Nothing of it is left to spoil the next answer.
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, FailingUrcHandlerDoesNotStopTheChannel)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("urc +QIND: SMS DONE");
    sim->control("urc +CREG: 1");
    ASSERT_TRUE(run_until(3000, [&] { return !g_urcs.empty(); }));
    EXPECT_EQ(g_urcs[0], "creg:\r\n+CREG: 1\r\n");
}

// --- completion -----------------------------------------------------------------

TEST_F(CommManager, DriverParsesTheAnswerIntoTheReply)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+GSN", ACT_GET_IMEI);
    ASSERT_TRUE(wait_finished(1));
    const reply_record &r = mdm->replies.at(0);
    EXPECT_EQ(r.json, "{\"imei\":\"866758041234564\"}");
    EXPECT_FALSE(r.has_errno);
}

TEST_F(CommManager, DriverErrorIsReportedWithTheExchange)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CSQ", ACT_GET_IMSI);
    ASSERT_TRUE(wait_finished(1));
    const reply_record &r = mdm->replies.at(0);
    EXPECT_TRUE(r.has_errno);
    EXPECT_EQ(r.err, 5);
    EXPECT_EQ(r.request, "AT+CSQ\r");
    EXPECT_EQ(r.response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_NE(r.json.find("\"error\":\"Invalid response\""), std::string::npos) << r.json;
    EXPECT_EQ(mdm->finished.at(0).failed, 0);
}

TEST_F(CommManager, EmptyReplyCarriesTheStatus)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CSQ", ACT_GET_FUNC);
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).json, "{\"status_id\":0,\"status\":\"OK\"}");
}

TEST_F(CommManager, BusRequestWithAnErrorUsesTheErrorCompletion)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    request *req = mdm->queue("AT+CSQ", ACT_GET_IMSI);
    req->callback = nullptr;
    req->has_req_data = true;
    ASSERT_TRUE(wait_finished(1));
    ASSERT_EQ(mdm->bus_errors.size(), 1u);
    EXPECT_EQ(mdm->bus_errors[0], 5);
}

TEST_F(CommManager, TrafficLogRecordsBothDirections)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    ASSERT_EQ(mdm->cmm->dump_log_buffer(), 0);
    std::string log;
    std::string cmd = "cat " + root.path() + "/tmp/gsm_1-1.2_*.log";
    if (FILE *f = popen(cmd.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
            log.append(buf, n);
        pclose(f);
    }
    EXPECT_NE(log.find(" Sent: AT+CSQ\\r"), std::string::npos) << log;
    EXPECT_NE(log.find(" Received: \\r\\n+CSQ: 22,99\\r\\n\\r\\nOK\\r\\n"), std::string::npos) << log;
}

// --- bad input ------------------------------------------------------------------

TEST_F(CommManager, GarbageBetweenCommandsDoesNotSpoilTheNextAnswer)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("raw \\x00\\x01\\xffgarbage\\x00\\r\\n\\r\\nOK\\r\\nmore\\x00");
    ASSERT_TRUE(run_until(3000, [&] { return mdm->inputs >= 1; }));
    idle(50);
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_NE(mdm->replies.at(0).response.find("\r\n+CSQ: 22,99\r\n\r\nOK\r\n"), std::string::npos)
        << mdm->replies.at(0).response;
    EXPECT_EQ(mdm->finished.size(), 1u);
}

TEST_F(CommManager, SecondAnswerInTheSameChunkIsNotTakenForTheNextCommand)
{
    // A stale copy of an answer right behind the real one.
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("set dup 1\n"
                                                  "on AT+CSQ\n  when dup = 1\n  set dup 0\n  line +CSQ: 22,99\n  ok\n"
                                                  "  raw \"\\r\\n+CSQ: 11,99\\r\\n\\r\\nOK\\r\\n\"\n")));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_EQ(mdm->replies.at(1).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, NulBytesInsideAnAnswerReadAsQuestionMarks)
{
    ASSERT_NO_FATAL_FAILURE(
        open_channel(scenario("on AT+CSQ\n  raw \"\\r\\n+CSQ: 2\\x002,99\\r\\n\\r\\nOK\\r\\n\"\n")));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 2?2,99\r\n\r\nOK\r\n");
}

TEST_F(CommManager, SeventyKilobytesWithoutAResultAreDroppedAndTheChannelGoesOn)
{
    std::string rule = "on AT+FLOOD\n";
    for (int i = 0; i < 70; i++)
        rule += "  line +FLOOD: " + std::string(1000, 'a' + i % 26) + "\n";
    rule += "  delay 50\n  ok\n";
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario(rule)));
    mdm->queue("AT+FLOOD");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(mdm->finished.size(), 1u);
    EXPECT_LT(mdm->replies.at(0).response.size(), 70000u);
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.at(1).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_EQ(mdm->finished.size(), 2u);
}

// What the modem manager's watcher does with an expired request.
void expire(test_modem &m, request *req)
{
    clean_request(req, 1);
    m.cmm->clear_busy();
}

TEST_F(CommManager, UnansweredRequestStaysInFlightUntilExpired)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("hang");
    request *req = mdm->queue("AT+CSQ");
    idle(300);
    EXPECT_TRUE(mdm->finished.empty());
    EXPECT_EQ(mdm->queued(), 1u);
    EXPECT_TRUE(mdm->cmm->busy());
    EXPECT_EQ(count(modem_input(sim->transcript()), "AT+CSQ"), 1u);

    expire(*mdm, req);
    sim->control("unhang");
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1));
    idle(100);
    ASSERT_EQ(mdm->finished.size(), 1u);
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

// The answer to a dropped command arrives after the next command was
// queued: it is never handed to that command, however late it comes.
TEST_F(CommManager, LateAnswerOfADroppedCommandIsNeverTakenForTheNextOne)
{
    const struct {
        const char *what;
        const char *slow_rule; // answers after the test dropped it
        std::string slow, next, next_answer;
    } rows[] = {
        {"info line and OK", "on AT+SLOW\n  delay 400\n  line +CSQ: 5,99\n  ok\n", "AT+SLOW", "AT+CSQ",
         "\r\n+CSQ: 22,99\r\n\r\nOK\r\n"},
        {"same command again", "on AT+SLOW\n  delay 400\n  line +SLOW: 1\n  ok\n", "AT+SLOW", "AT+GSN",
         "\r\n866758041234564\r\n\r\nOK\r\n"},
        {"error only", "on AT+SLOW\n  delay 400\n  error\n", "AT+SLOW", "AT+CREG?", "\r\n+CREG: 0,1\r\n\r\nOK\r\n"},
        {"plain text", "on AT+SLOW\n  delay 400\n  line 123456\n  ok\n", "AT+SLOW", "AT+GSN",
         "\r\n866758041234564\r\n\r\nOK\r\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario(r.slow_rule)));
        request *req = mdm->queue(r.slow);
        idle(100);
        ASSERT_TRUE(mdm->cmm->busy());
        expire(*mdm, req);
        EXPECT_TRUE(mdm->cmm->resyncing());
        mdm->queue(r.next);
        ASSERT_TRUE(wait_finished(1, 5000));
        EXPECT_EQ(mdm->replies.at(0).response, r.next_answer);
        EXPECT_FALSE(mdm->cmm->resyncing());
        // And the one after it too.
        mdm->queue(r.next);
        ASSERT_TRUE(wait_finished(2, 5000));
        EXPECT_EQ(mdm->replies.at(1).response, r.next_answer);
        TearDown();
        SetUp();
    }
}

// A modem that stays silent: probes go out one at a time with another token
// each, and nothing else is written until one is answered.
TEST_F(CommManager, SilentModemGetsOnlyProbesUntilItAnswersOne)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    sim->control("hang");
    request *req = mdm->queue("AT+CSQ");
    idle(100);
    expire(*mdm, req);
    mdm->queue("AT+GSN");
    idle(800);
    std::string in = modem_input(sim->transcript());
    EXPECT_EQ(count(in, "AT+GSN"), 0u) << in;
    EXPECT_GE(count(in, "AT+CMEE?"), 1u) << in;
    EXPECT_GE(count(in, "AT+CSCS?"), 1u) << in;
    EXPECT_EQ(count(in, "AT+CSQ"), 1u) << "a probe repeated the dropped command's token: " << in;
    sim->control("unhang");
    ASSERT_TRUE(wait_finished(1, 6000));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n866758041234564\r\n\r\nOK\r\n");
}

// A modem that stalls and then catches up answers the dropped command and
// every probe in one burst, in order: none of those answers reaches the
// command queued meanwhile.
TEST_F(CommManager, ModemCatchingUpInABurstAnswersTheNextCommandItself)
{
    // Answers spaced a little, so that the burst is still arriving when the
    // channel would write the next command if it trusted the first probe answer.
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("latency 30\n")));
    ASSERT_EQ(sim->control("hold"), "OK\n");
    request *req = mdm->queue("AT+CSQ");
    idle(100);
    expire(*mdm, req);
    mdm->queue("AT+GSN");
    idle(1500); // several probes, all held
    ASSERT_GE(count(modem_input(sim->transcript()), "AT+CMEE?") + count(modem_input(sim->transcript()), "AT+CSCS?"),
              3u);
    ASSERT_EQ(sim->control("release"), "OK\n");
    ASSERT_TRUE(wait_finished(1, 8000));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n866758041234564\r\n\r\nOK\r\n");
    mdm->queue("AT+CREG?");
    ASSERT_TRUE(wait_finished(2, 5000));
    EXPECT_EQ(mdm->replies.at(1).response, "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
}

// "AT+CMGS=5" on its own leaves the modem at its prompt; when it expires the
// prompt is cancelled before anything else is written.
TEST_F(CommManager, CommandExpiringAtAPromptIsCancelledWithEsc)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    request *req = mdm->queue("AT+CMGS=5");
    idle(200);
    expire(*mdm, req);
    mdm->queue("AT+GSN");
    ASSERT_TRUE(wait_finished(1, 5000));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n866758041234564\r\n\r\nOK\r\n");
    std::string in = modem_input(sim->transcript());
    size_t esc = in.find("\\x1b");
    ASSERT_NE(esc, std::string::npos) << in;
    EXPECT_LT(esc, in.find("AT+GSN")) << in;
}

// A command longer than the terminal takes at once is finished when the port
// is writable again, and the modem sees it whole.
TEST_F(CommManager, LongCommandIsWrittenWholeAcrossPartialWrites)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("on AT+LONG=*\n  line +LONG: 1\n  ok\n")));
    std::string cmd = "AT+LONG=" + std::string(60000, '7');
    mdm->queue(cmd);
    ASSERT_TRUE(wait_finished(1, 10000));
    EXPECT_EQ(mdm->finished.at(0).failed, 0);
    std::string in = modem_input(sim->transcript());
    EXPECT_NE(in.find(cmd + "\\r"), std::string::npos) << "the modem did not get the command whole";
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.at(1).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

// The modem stops reading in the middle of a command: the write waits; when
// the request expires the fragment is erased before the probe, and the modem
// never runs the fragment as a command.
TEST_F(CommManager, FragmentOfACommandThatExpiredWhileWrittenIsErased)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("on AT+LONG=*\n  line +LONG: 1\n  ok\n")));
    sim->signal(SIGSTOP);
    request *req = mdm->queue("AT+LONG=" + std::string(60000, '7'));
    idle(200);
    EXPECT_TRUE(mdm->cmm->writing());
    expire(*mdm, req);
    EXPECT_TRUE(mdm->cmm->resyncing());
    sim->signal(SIGCONT);
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(1, 8000));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    std::string in = modem_input(sim->transcript());
    size_t erased = in.find("\\x08");
    ASSERT_NE(erased, std::string::npos) << "no backspace erased the fragment";
    EXPECT_LT(erased, in.find("AT+CMEE?")) << "the probe went out before the fragment was erased";
}

// With nothing in flight there is no token: a URC right after a query is a
// URC, and the next answer is the modem's answer alone.
TEST_F(CommManager, UrcAfterACompletedQueryIsDeliveredNotGluedToTheNextAnswer)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    mdm->queue("AT+CREG?");
    ASSERT_TRUE(wait_finished(1));
    sim->control("urc +CREG: 5");
    ASSERT_TRUE(run_until(3000, [&] { return !g_urcs.empty(); }));
    EXPECT_EQ(g_urcs.at(0), "creg:\r\n+CREG: 5\r\n");
    mdm->queue("AT+CREG?");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.at(1).response, "\r\n+CREG: 0,1\r\n\r\nOK\r\n");
}

// An error report in the same read as a final OK is a URC: it reaches the
// handler of the URC the modem waits for.
TEST_F(CommManager, ErrorReportAfterAFinalOkInTheSameReadIsAUrc)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("on AT+CUSD=1,*\n  ok\n  urc +CME ERROR: 100\n")));
    mdm->awaited = "+CUSD: ";
    mdm->queue("AT+CUSD=1,\"*100#\",15");
    ASSERT_TRUE(wait_finished(1));
    ASSERT_TRUE(run_until(2000, [&] { return !g_urcs.empty(); }));
    EXPECT_EQ(g_urcs.at(0), "cusd:\r\n+CME ERROR: 100\r\n");
}

// --- local AT socket ------------------------------------------------------------

class CommManagerAvp : public CommManager
{
  protected:
    void open_avp(const std::string &scenario_text)
    {
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario_text));
        ASSERT_EQ(mdm->cmm->avp_init(), 0);
        peer = std::make_unique<avp_peer>(root.path() + "/dev/modem0");
        ASSERT_TRUE(peer->connected());
    }

    bool wait_received(const std::string &what, int timeout_ms = 3000)
    {
        return run_until(timeout_ms, [&] {
            peer->poll();
            return peer->received().find(what) != std::string::npos;
        });
    }

    void TearDown() override
    {
        peer.reset();
        CommManager::TearDown();
    }

    std::unique_ptr<avp_peer> peer;
};

TEST_F(CommManagerAvp, LowerCaseAtiIsAnsweredAsIdentification)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
    ASSERT_TRUE(peer->send("ati\n"));
    ASSERT_TRUE(wait_received("OK\r\n"));
    EXPECT_EQ(peer->received(), "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n");
    ASSERT_EQ(mdm->finished.size(), 1u);
    EXPECT_EQ(mdm->finished[0].action, static_cast<uint32_t>(ACT_GET_ID_INFO));
    EXPECT_EQ(mdm->finished[0].command, "ati\r");
}

TEST_F(CommManagerAvp, TextNotStartingWithAtIsIgnored)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
    ASSERT_TRUE(peer->send("hello\n"));
    idle(100);
    EXPECT_EQ(mdm->queued(), 0u);
    ASSERT_TRUE(peer->send("AT+CSQ\\r"));
    ASSERT_TRUE(wait_received("OK\r\n"));
    EXPECT_EQ(peer->received(), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_EQ(mdm->finished.at(0).action, static_cast<uint32_t>(ACT_AT_COMMAND));
}

TEST_F(CommManagerAvp, SmsCommandWaitsForItsPdu)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
    const std::string pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
    ASSERT_TRUE(peer->send("AT+CMGS=23\n"));
    idle(100);
    EXPECT_EQ(mdm->queued(), 0u);
    ASSERT_TRUE(peer->send(pdu + "\n"));
    ASSERT_TRUE(wait_received("OK\r\n"));
    EXPECT_NE(peer->received().find("\r\n+CMGS: 41\r\n"), std::string::npos) << peer->received();
    EXPECT_EQ(sim->control("get text"), pdu + "\nOK\n");
    ASSERT_EQ(mdm->finished.size(), 1u);
    EXPECT_EQ(mdm->finished[0].command, "AT+CMGS=23\r" + pdu + "\x1a\r");
}

TEST_F(CommManagerAvp, UrcsAreForwardedToClients)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
    avp_peer second(root.path() + "/dev/modem0");
    idle(50);
    sim->control("urc +CREG: 5");
    sim->control("urc +QWHATEVER: 1");
    ASSERT_TRUE(wait_received("+QWHATEVER: 1\r\n"));
    EXPECT_EQ(peer->received(), "\r\n+CREG: 5\r\n\r\n+QWHATEVER: 1\r\n");
    second.poll();
    EXPECT_EQ(second.received(), peer->received());
}

TEST_F(CommManagerAvp, ClientLeavingBeforeItsAnswerDoesNotBreakTheChannel)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("on AT+SLOW\n  delay 100\n  ok\n")));
    ASSERT_TRUE(peer->send("AT+SLOW\n"));
    ASSERT_TRUE(run_until(3000, [&] { return mdm->queued() == 1; }));
    peer.reset();
    ASSERT_TRUE(wait_finished(1));
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(mdm->replies.at(0).response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    // The client that left is gone from the channel's books.
    auto stats = ujson::create();
    mdm->cmm->fill_stats(*stats);
    char *json = blobmsg_format_json(stats->get_blobmsg(), true);
    ASSERT_NE(json, nullptr);
    EXPECT_NE(std::string(json).find("\"aux_fd_num\":0"), std::string::npos) << json;
    free(json);
}

// Lines of a client: several in one write are each a command; one longer
// than the daemon takes, or one that would smuggle a second command or end
// an SMS, gets the error line and nothing reaches the modem; the client's
// next line is read as usual.
TEST_F(CommManagerAvp, LinesAreFramedBoundedAndChecked)
{
    const std::string csq = "\r\n+CSQ: 22,99\r\n\r\nOK\r\n", gsn = "\r\n866758041234564\r\n\r\nOK\r\n";
    const std::string error(comm_manager::avp_error);
    const struct {
        const char *what;
        std::string send, want;
        size_t commands; // command lines the modem runs
    } rows[] = {
        {"two lines in one write", "AT+CSQ\nAT+GSN\n", csq + gsn, 2},
        {"CR LF ends a line once", "AT+CSQ\r\nAT+GSN\r\n", csq + gsn, 2},
        {"over-long line", "AT+" + std::string(10000, 'X') + "\nAT+CSQ\n", error + csq, 1},
        {"over-long line without an end", "AT+" + std::string(20000, 'X'), error, 0},
        {"escape inside", "AT+CSQ\x1b\nAT+GSN\n", error + gsn, 1},
        {"nul inside", std::string("AT+C\0SQ\nAT+GSN\n", 15), error + gsn, 1},
        {"open quote", "AT+COPS=1,0,\"x\nAT+GSN\n", error + gsn, 1},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
        size_t before = count(modem_input(sim->transcript()), "\\r");
        ASSERT_TRUE(peer->send(r.send));
        run_until(3000, [&] {
            peer->poll();
            return peer->received().size() >= r.want.size();
        });
        idle(100);
        peer->poll();
        EXPECT_EQ(peer->received(), r.want);
        EXPECT_EQ(count(modem_input(sim->transcript()), "\\r") - before, r.commands);
        TearDown();
        SetUp();
    }
}

// Out of descriptors, the clients waiting to be accepted are not left
// waiting: each gets the error line at once, and once descriptors are free
// again clients are served as usual.
TEST_F(CommManagerAvp, ClientsArrivingWhileOutOfDescriptorsAreRefusedWithTheErrorLine)
{
    ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    std::vector<std::unique_ptr<avp_peer>> waiting;
    for (int i = 0; i < 3; i++)
        waiting.push_back(std::make_unique<avp_peer>(root.path() + "/dev/modem0"));
    // The fillers stand for the other clients holding every descriptor left.
    testing::internal::CaptureStdout();
    std::vector<int> fillers;
    int first = dup(0);
    ASSERT_GE(first, 0);
    fillers.push_back(first);
    rlimit tight{static_cast<rlim_t>(first + 1), old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    for (int fd; (fd = dup(0)) >= 0;)
        fillers.push_back(fd);
    idle(200);
    for (int fd : fillers)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("Failed to accept (errno = 24)"), std::string::npos) << log;

    for (auto &c : waiting) {
        c->poll();
        EXPECT_EQ(c->received(), comm_manager::avp_error);
    }
    avp_peer later(root.path() + "/dev/modem0");
    ASSERT_TRUE(later.send("AT+CSQ\n"));
    ASSERT_TRUE(run_until(3000, [&] {
        later.poll();
        return later.received() == "\r\n+CSQ: 22,99\r\n\r\nOK\r\n";
    })) << later.received();
}

// ---- raw data after CONNECT (file upload) -------------------------------------

namespace
{

const char *const ufs_rules = "set ufs_total 1000000\nset ufs_ram_total 1000\n"
                              "on AT+QFUPL=*\n  ufs\n";

// A file of n bytes under the root, every byte value in turn (CR, LF,
// Ctrl-Z, NUL, ESC, "+++" included); its descriptor, open for reading.
int data_file(const temp_root &root, const std::string &name, size_t n, std::string *bytes)
{
    bytes->clear();
    for (size_t i = 0; i < n; i++)
        bytes->push_back(static_cast<char>((i * 7 + i / 256) & 0xff));
    std::string path = root.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << *bytes;
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

// The module's checksum, written out independently of the channel's.
uint16_t module_checksum(const std::string &b)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < b.size(); i += 2)
        sum ^= (static_cast<uint8_t>(b[i]) * 256u) + (i + 1 < b.size() ? static_cast<uint8_t>(b[i + 1]) : 0u);
    return static_cast<uint16_t>(sum);
}

std::string hex16(uint16_t v)
{
    char buf[8];
    snprintf(buf, sizeof(buf), "%x", v);
    return buf;
}

bool fd_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

} // namespace

TEST(XorChecksum, BigEndianWordsAcrossChunkBoundaries)
{
    const struct {
        std::string data;
        uint16_t sum;
    } rows[] = {
        {"", 0},
        {"\x01", 0x0100},
        {"\x01\x02", 0x0102},
        {"\x01\x02\x03", 0x0202},
        {std::string("\xff\xff\xff\xff", 4), 0},
        {std::string("\0\x1a\r\n", 4), 0x0d10},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.data));
        EXPECT_EQ(xor16_checksum(0, 0, r.data.data(), r.data.size()), r.sum);
        // Split at every point: the offset carries which half comes next.
        for (size_t cut = 0; cut <= r.data.size(); cut++) {
            uint16_t s = xor16_checksum(0, 0, r.data.data(), cut);
            s = xor16_checksum(s, cut, r.data.data() + cut, r.data.size() - cut);
            EXPECT_EQ(s, r.sum) << "cut at " << cut;
        }
    }
}

TEST(RequestSource, ClosedWithTheRequestWhateverHappened)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    request *req = create_request(ACT_UPLOAD_FILE, nullptr, nullptr, "AT+QFUPL=\"a\",1,5", 16, 1000, nullptr);
    ASSERT_TRUE(req);
    req->source = request_source(p[0], 1, 5000);
    request_source moved = std::move(req->source);
    EXPECT_FALSE(req->source.active());
    req->source = std::move(moved);
    EXPECT_TRUE(fd_open(p[0]));
    clean_request(req, 1);
    EXPECT_FALSE(fd_open(p[0]));
    close(p[1]);
}

// Every byte goes out raw after CONNECT, in pieces; the answer after it is
// the command's, counted and checked against what the modem reports.
TEST_F(CommManager, UploadStreamsTheFileAfterConnectAndTheReportIsAnUnsolicitedLine)
{
    const size_t sizes[] = {1, 4097, 100 * 1024 + 1};
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario(ufs_rules)));
    for (size_t i = 0; i < std::size(sizes); i++) {
        size_t n = sizes[i];
        SCOPED_TRACE(n);
        std::string bytes, name = "f" + std::to_string(i);
        int fd = data_file(root, name, n, &bytes);
        ASSERT_GE(fd, 0);
        request *req = mdm->queue("AT+QFUPL=\"" + name + "\"," + std::to_string(n) + ",5", ACT_UPLOAD_FILE, 10000);
        req->source = request_source(fd, n, 5000);
        ASSERT_TRUE(wait_finished(i + 1, 10000));
        EXPECT_EQ(mdm->finished.back().failed, 0);
        EXPECT_FALSE(fd_open(fd));
        std::string sum = hex16(module_checksum(bytes));
        // The report reaches the URC handlers; the answer is the OK.
        EXPECT_EQ(mdm->last_response, "\r\nOK\r\n");
        ASSERT_EQ(g_urcs.size(), i + 1);
        EXPECT_NE(g_urcs.back().find("+QFUPL: " + std::to_string(n) + "," + sum), std::string::npos) << g_urcs.back();
        EXPECT_EQ(g_upload.calls, static_cast<int>(i + 1));
        EXPECT_EQ(g_upload.written, n);
        EXPECT_EQ(hex16(g_upload.checksum), sum);
        EXPECT_NE(sim->control("ufs list").find("UFS " + name + " " + std::to_string(n) + " " + sum + "\n"),
                  std::string::npos);
    }
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(std::size(sizes) + 1));
    EXPECT_EQ(mdm->replies.back().response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

// An error instead of CONNECT ends the command: no data is written, and
// the file is closed all the same.
TEST_F(CommManager, ErrorInsteadOfConnectWritesNoData)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario(ufs_rules)));
    const struct {
        const char *cmd;
        const char *answer;
    } rows[] = {
        {"AT+QFUPL=\"RAM:big\",5000,5", "\r\n+CME ERROR: 420\r\n"}, // larger than the RAM storage
        {"AT+QFUPL=\"a/b\",5000,5", "\r\n+CME ERROR: 406\r\n"},
    };
    for (size_t i = 0; i < std::size(rows); i++) {
        std::string bytes;
        int fd = data_file(root, "d", 5000, &bytes);
        request *req = mdm->queue(rows[i].cmd, ACT_UPLOAD_FILE, 10000);
        req->source = request_source(fd, 5000, 5000);
        ASSERT_TRUE(wait_finished(i + 1));
        EXPECT_EQ(mdm->last_response, rows[i].answer);
        EXPECT_FALSE(fd_open(fd));
    }
    EXPECT_EQ(sim->control("stats").find("bytes_received: 5"), std::string::npos);
    EXPECT_EQ(modem_input(sim->transcript()).find("\\x00"), std::string::npos) << "data went out";
    mdm->queue("AT+CSQ");
    ASSERT_TRUE(wait_finished(3));
    EXPECT_EQ(mdm->replies.back().response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

// Data that stops half-way (the file is shorter than announced, or the
// command expires while the modem does not read): the command fails, the
// channel writes nothing more until the modem has left data mode on its own
// time-out, and the next command gets its own answer.
TEST_F(CommManager, DataCutShortIsWaitedOutThenTheChannelResynchronises)
{
    const struct {
        const char *what;
        size_t file_size;
        bool stall; // the modem stops reading; the command expires
    } rows[] = {
        {"file shorter than announced", 3000, false},
        {"expired while the modem does not read", 200 * 1024, true},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario(ufs_rules)));
        std::string bytes;
        int fd = data_file(root, "cut", r.file_size, &bytes);
        request *req = mdm->queue("AT+QFUPL=\"cut\",204800,1", ACT_UPLOAD_FILE, 10000);
        req->source = request_source(fd, 204800, 1000);
        if (r.stall) {
            ASSERT_TRUE(run_until(3000, [&] { return req->source.written > 0; }));
            sim->signal(SIGSTOP);
            idle(200);
            EXPECT_TRUE(mdm->cmm->writing());
            expire(*mdm, req);
            EXPECT_FALSE(fd_open(fd));
            sim->signal(SIGCONT);
        } else {
            ASSERT_TRUE(wait_finished(1));
            EXPECT_EQ(mdm->finished.at(0).failed, 1);
            EXPECT_FALSE(fd_open(fd));
        }
        EXPECT_TRUE(mdm->cmm->resyncing());
        mdm->queue("AT+CSQ");
        idle(600);
        // Still in data mode: nothing was written to be taken for data.
        EXPECT_EQ(count(modem_input(sim->transcript()), "AT+CMEE?"), 0u);
        size_t done = mdm->finished.size();
        ASSERT_TRUE(wait_finished(done + 1, 10000));
        EXPECT_EQ(mdm->replies.back().response, "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        EXPECT_EQ(sim->control("ufs list"), "OK\n");
        EXPECT_EQ(g_upload.calls, 0);
        TearDown();
        SetUp();
    }
}
