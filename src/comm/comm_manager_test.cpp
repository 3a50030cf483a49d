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
    for (size_t pos = 0; (pos = transcript.find(" in  \"", pos)) != std::string::npos;) {
        size_t end = transcript.find('\n', pos + 6);
        in += transcript.substr(pos + 6, end - pos - 7);
        pos = end;
    }
    return in;
}

const std::string csq_answer = "\r\n+CSQ: 22,99\r\n\r\nOK\r\n", gsn_answer = "\r\n866758041234564\r\n\r\nOK\r\n",
                  creg_answer = "\r\n+CREG: 0,1\r\n\r\nOK\r\n",
                  ati_answer = "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n";

// The modem the driver functions below report to, and the URCs they saw as
// "<handler>:<text>".
test_modem *g_modem = nullptr;
std::vector<std::string> g_urcs;

int note_urc(const char *handler)
{
    g_urcs.push_back(std::string(handler) + ":" + g_modem->last_response);
    return 0;
}

// What the channel counted for the last upload when its answer came.
struct upload_record {
    uint64_t written = 0;
    uint16_t checksum = 0;
    int calls = 0;
} g_upload;

modem_driver g_driver = {"Test AT", "test", nullptr, nullptr};

class CommManager : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        modem_driver_urc_override(&g_driver, "+CREG", [](modem *, ujson *) { return note_urc("creg"); });
        modem_driver_urc_override(&g_driver, "+CUSD", [](modem *, ujson *) { return note_urc("cusd"); });
        modem_driver_urc_override(&g_driver, "+QFUPL", [](modem *, ujson *) { return note_urc("qfupl"); });
        modem_driver_urc_override(&g_driver, "+QIND", [](modem *, ujson *) { return 6; });
        // "AT+GSN": the IMEI is the first line of the answer.
        modem_driver_override(&g_driver, ACT_GET_IMEI, [](modem *, int type, ujson *json, request *) {
            const std::string &r = g_modem->last_response;
            if (type)
                json->add_string("imei", r.substr(2, 15).c_str());
            return 0;
        });
        modem_driver_override(&g_driver, ACT_GET_FUNC, [](modem *, int, ujson *, request *) { return 0; });
        modem_driver_override(&g_driver, ACT_GET_IMSI, [](modem *, int, ujson *, request *) { return 5; });
        modem_driver_override(&g_driver, ACT_UPLOAD_FILE, [](modem *, int type, ujson *, request *req) {
            if (type)
                g_upload = {req->source.written, req->source.checksum, g_upload.calls + 1};
            return 0;
        });
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
    }

    void TearDown() override
    {
        g_modem = nullptr;
        mdm.reset();
        sim.reset();
        uloop_done();
    }

    // For tests that loop over rows, each on a fresh channel.
    void restart()
    {
        TearDown();
        std::remove((root.path() + "/sim.log").c_str()); // the next simulator's transcript starts empty
        SetUp();
    }

    // Starts the simulator (the scenario text is written to a file first when
    // given, control run on it), then the channel, and waits for its set-up.
    void open_channel(const std::string &text = {}, cmm_timing timing = fast_timing(), bool boot = false,
                      const char *control = nullptr)
    {
        modem_sim::options opt{text.empty() ? "ec25" : root.path() + "/test.scn", boot, root.path() + "/dev/ttyUSB2"};
        std::ofstream(root.path() + "/test.scn") << text;
        sim = std::make_unique<modem_sim>(root.path(), opt);
        ASSERT_FALSE(sim->pty().empty());
        if (control)
            sim->control(control);
        mdm = std::make_unique<test_modem>("/dev/ttyUSB2", &g_driver);
        g_modem = mdm.get();
        mdm->cmm = comm_manager::create(timing);
        ASSERT_EQ(mdm->cmm->init(mdm.get(), 1), 0);
        ASSERT_TRUE(run_until(8000, [&] { return mdm->ready == 1; }));
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

    // With the modem stopped (SIGSTOP) mid-write: the channel stays blocked
    // on the write, the request expires as the watcher would expire it, and
    // the modem resumes.
    void expire_while_stalled(request *req);

    // Queues a command and returns its answer once finished.
    std::string answer(const std::string &command, int timeout_ms = 5000)
    {
        size_t n = mdm->finished.size();
        mdm->queue(command);
        return wait_finished(n + 1, timeout_ms) ? mdm->replies.back().response : "(no answer)";
    }

    temp_root root;
    std::unique_ptr<modem_sim> sim;
    std::unique_ptr<test_modem> mdm;
};

// The EC25 answers these tests need, plus test-only rules.
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

// What the modem manager's watcher does with an expired request.
void expire(test_modem &m, request *req)
{
    clean_request(req, 1);
    m.cmm->clear_busy();
}

void CommManager::expire_while_stalled(request *req)
{
    idle(200);
    EXPECT_TRUE(mdm->cmm->writing());
    expire(*mdm, req);
    sim->signal(SIGCONT);
}

} // namespace

// --- set-up handshake -----------------------------------------------------------

// Whatever state the modem is in, the set-up ends with the channel open and
// echo off; a modem still booting or refusing is asked again, one that
// stays silent is given up on after ninety empty reads.
TEST_F(CommManager, SetupEndsWithEchoOffAndVerboseResultCodes)
{
    const struct {
        const char *what;
        std::string scenario;
        const char *control; // before the channel starts
        bool boot;
        bool repeat; // the periodic repeat of the set-up
        bool fota;
        size_t min_setups, exact_setups; // "ATE0V1" written; 0: no exact count
    } rows[] = {
        // clang-format off
        {"echoing numeric modem", scenario(""), "set verbose 0", false, true, false, 1, 0},
        {"modem still booting", "", nullptr, true, true, false, 2, 0},
        {"modem refusing the first", scenario("set first 1\non ATE0\n  when first = 1\n  set first 0\n  cme 4\n"), nullptr, false, false, false, 2, 0},
        {"firmware update", "", "fota", false, true, true, 1, 0},
        {"silent modem: first try, then every tenth empty read", "", "hang", false, true, false, 9, 9},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        cmm_timing t = fast_timing();
        t.repeat_every = r.repeat ? t.repeat_every : 0;
        ASSERT_NO_FATAL_FAILURE(open_channel(r.scenario, t, r.boot, r.control));
        EXPECT_EQ(mdm->cmm->fota(), r.fota);
        EXPECT_FALSE(mdm->cmm->setup_running());
        size_t setups = count(modem_input(sim->transcript()), "ATE0V1");
        EXPECT_GE(setups, r.min_setups);
        if (r.exact_setups) {
            EXPECT_EQ(setups, r.exact_setups);
        } else if (!r.fota) {
            EXPECT_EQ(sim->control("get echo"), "0\nOK\n");
            EXPECT_EQ(sim->control("get verbose"), "1\nOK\n");
        }
        restart();
    }
}

// --- queue and dispatch ---------------------------------------------------------

// Requests go out one at a time, in order, each after the previous answer;
// an SMS command line goes first and its PDU after the prompt. The driver's
// parse phase fills the reply; its error is reported with the exchange,
// through the bus error completion for a bus call.
TEST_F(CommManager, QueuedRequestsAreAnsweredInOrderWithTheDriverResult)
{
    const std::string pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
    const struct {
        std::string command;
        uint32_t action;
        std::string response, json; // json "": not compared
    } rows[] = {
        // clang-format off
        {"AT+CSQ", 0, csq_answer, ""},
        {"AT+CREG?", 0, creg_answer, ""},
        {"ATI", 0, ati_answer, ""},
        {"AT+GSN", ACT_GET_IMEI, "", R"({"imei":"866758041234564"})"},
        {"AT+CSQ", ACT_GET_FUNC, "", R"({"status_id":0,"status":"OK"})"},
        {"AT+CSQ", ACT_GET_IMSI, csq_answer, R"({"request":"AT+CSQ\r","response":"\r\n+CSQ: 22,99\r\n\r\nOK\r\n","errno":5,"error":"Invalid response"})"},
        {"AT+CSQ\rAT+CREG?\r", 0, csq_answer + creg_answer, ""}, // two command lines, written one after the other
        {"AT+CMGS=23\r" + pdu + "\x1a", ACT_SEND_SMS, "\r\n> \r\n+CMGS: 41\r\n\r\nOK\r\n", ""},
        // clang-format on
    };
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    for (const auto &r : rows)
        mdm->queue(r.command, r.action);
    ASSERT_TRUE(wait_finished(std::size(rows)));
    ASSERT_EQ(mdm->replies.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); i++) {
        SCOPED_TRACE(rows[i].command);
        EXPECT_EQ(mdm->finished[i].failed, 0);
        EXPECT_EQ(mdm->replies[i].response, rows[i].response);
        if (!rows[i].json.empty()) {
            EXPECT_EQ(mdm->replies[i].json, rows[i].json);
        }
    }
    EXPECT_FALSE(mdm->cmm->busy());
    EXPECT_EQ(sim->control("get text"), pdu + "\nOK\n");
    ASSERT_EQ(mdm->events.size(), 1u);
    EXPECT_EQ(mdm->events[0].event, 29u);
    EXPECT_EQ(mdm->events[0].value, 2);
    // The modem saw each command only after the previous answer.
    std::string t = sim->transcript();
    EXPECT_LT(t.find("+CSQ: 22,99"), t.find("in  \"AT+CREG?"));
    EXPECT_LT(t.rfind("+CSQ: 22,99"), t.rfind("in  \"AT+CREG?"));

    EXPECT_TRUE(mdm->bus_errors.empty());
    request *req = mdm->queue("AT+CSQ", ACT_GET_IMSI);
    req->callback = nullptr;
    req->has_req_data = true;
    ASSERT_TRUE(wait_finished(std::size(rows) + 1));
    EXPECT_EQ(mdm->finished.back().failed, 0);
    EXPECT_EQ(mdm->bus_errors, std::vector<int>{5});
}

// A port that takes no bytes, or that hung up: every command is answered as
// failed at once, none stays queued, and every 31st failed write in a row
// declares the modem hung.
TEST_F(CommManager, FailedWritesAnswerTheirRequestsAndThirtyOneDeclareTheModemHung)
{
    for (const bool unplug : {false, true}) {
        SCOPED_TRACE(unplug ? "terminal hung up" : "port refuses writes");
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
        int ro = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (unplug)
            sim.reset(); // the terminal hangs up, as an unplugged modem's does
        else
            ASSERT_GE(dup2(ro, mdm->cmm->tty_fd()), 0); // the port refuses writes
        close(ro);
        testing::internal::CaptureStdout();
        for (int i = 0; i < 31; i++)
            mdm->queue("AT+CSQ");
        bool all = wait_finished(31);
        idle(100);
        std::string log = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(all) << mdm->finished.size() << " finished";
        for (const auto &f : mdm->finished)
            EXPECT_EQ(f.failed, 1);
        EXPECT_EQ(mdm->get_request(), nullptr);
        EXPECT_EQ(mdm->hangs, 1);
        EXPECT_FALSE(mdm->cmm->busy());
        if (unplug) {
            EXPECT_EQ(count(log, "port hung up!"), 1u) << "reported once, not read again and again: " << log;
            EXPECT_LE(count(log, "modem read"), 2u) << log;
        } else {
            for (int i = 0; i < 30; i++)
                mdm->cmm->write("AT\r", 3);
            EXPECT_EQ(mdm->hangs, 1) << "the count restarts after the hang call";
            mdm->cmm->write("AT\r", 3);
            EXPECT_EQ(mdm->hangs, 2);
        }
        restart();
    }
}

// A paused channel (firmware update) writes nothing until resumed.
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
    EXPECT_EQ(mdm->replies.at(0).response, csq_answer);
}

// --- URCs -----------------------------------------------------------------------

// A URC reaches its driver handler wherever it comes: idle, in front of an
// answer, in the same read as a final OK; an error line goes to the handler
// of the URC the modem waits for. The answer stays the modem's alone.
TEST_F(CommManager, UrcsReachTheirHandlersAndStayOutOfAnswers)
{
    const struct {
        const char *what;
        std::string rules;
        const char *awaited; // the URC the modem waits for
        std::string command; // queued first, and once more after the URCs
        std::vector<std::string> controls;
        std::vector<std::string> urcs;
        std::string response;
    } rows[] = {
        // clang-format off
        {"idle, after a failing handler", "", nullptr, "", {"urc +QIND: SMS DONE", "urc +CREG: 5"}, {"creg:\r\n+CREG: 5\r\n"}, ""},
        {"in front of an answer, split across reads", "on AT+CSQ\n  urc +CREG: 2\n  line +CSQ: 22,99\n  split 12 40\n  ok\n", nullptr, "AT+CSQ", {}, {"creg:\r\n+CREG: 2\r\n"}, csq_answer},
        {"error line while a USSD answer is awaited", "on AT+CSQ\n  urc +CME ERROR: 30\n  line +CSQ: 22,99\n  ok\n", "+CUSD: ", "AT+CSQ", {}, {"cusd:\r\n+CME ERROR: 30\r\n"}, csq_answer},
        {"error report after a final OK in the same read", "on AT+CUSD=1,*\n  ok\n  urc +CME ERROR: 100\n", "+CUSD: ", "AT+CUSD=1,\"*100#\",15", {}, {"cusd:\r\n+CME ERROR: 100\r\n"}, "\r\nOK\r\n"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario(r.rules)));
        if (r.awaited)
            mdm->awaited = r.awaited;
        if (!r.command.empty()) {
            EXPECT_EQ(answer(r.command), r.response);
        }
        for (const auto &c : r.controls)
            sim->control(c);
        run_until(3000, [&] { return g_urcs.size() >= r.urcs.size(); });
        idle(50);
        EXPECT_EQ(g_urcs, r.urcs);
        if (!r.command.empty() && !r.awaited) {
            EXPECT_EQ(answer(r.command), r.response);
        }
        restart();
    }
}

// --- bad input ------------------------------------------------------------------

TEST_F(CommManager, BadTrafficDoesNotSpoilTheNextAnswers)
{
    std::string flood = "on AT+FLOOD\n";
    for (int i = 0; i < 70; i++)
        flood += "  line +FLOOD: " + std::string(1000, 'a' + i % 26) + "\n";
    const struct {
        const char *what;
        std::string rules;
        const char *raw;                            // sent between commands
        std::vector<std::string> commands, answers; // "": not compared
    } rows[] = {
        // clang-format off
        {"garbage between commands", "", "\\x00\\x01\\xffgarbage\\x00\\r\\n\\r\\nOK\\r\\nmore\\x00", {"AT+CSQ"}, {""}},
        {"a stale copy of an answer behind the real one", "set dup 1\non AT+CSQ\n  when dup = 1\n  set dup 0\n  line +CSQ: 22,99\n  ok\n  raw \"\\r\\n+CSQ: 11,99\\r\\n\\r\\nOK\\r\\n\"\n", nullptr, {"AT+CSQ", "AT+CSQ"}, {csq_answer, csq_answer}},
        {"NUL bytes inside an answer", "on AT+CSQ\n  raw \"\\r\\n+CSQ: 2\\x002,99\\r\\n\\r\\nOK\\r\\n\"\n", nullptr, {"AT+CSQ"}, {"\r\n+CSQ: 2?2,99\r\n\r\nOK\r\n"}},
        {"seventy kilobytes without a result code", flood + "  delay 50\n  ok\n", nullptr, {"AT+FLOOD", "AT+CSQ"}, {"", csq_answer}},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario(r.rules)));
        if (r.raw) {
            sim->control(std::string("raw ") + r.raw);
            ASSERT_TRUE(run_until(3000, [&] { return mdm->inputs >= 1; }));
            idle(50);
        }
        for (size_t i = 0; i < r.commands.size(); i++) {
            std::string got = answer(r.commands[i]);
            EXPECT_LT(got.size(), 70000u);
            if (!r.answers[i].empty()) {
                EXPECT_EQ(got, r.answers[i]);
            }
        }
        if (r.raw) {
            EXPECT_NE(mdm->replies.at(0).response.find(csq_answer), std::string::npos);
        }
        EXPECT_EQ(mdm->finished.size(), r.commands.size());
        restart();
    }
}

// --- time-outs and resynchronisation ---------------------------------------------

// A dropped command's answer comes late, or the modem stays silent and then
// answers everything at once: until a probe is answered only probes go out,
// each with another token, and no late answer reaches the next command.
TEST_F(CommManager, LateAnswersOfADroppedCommandAreNeverTakenForTheNextOne)
{
    const struct {
        const char *what, *rules, *control, *release; // rules of the scenario; control before the command
        std::string dropped;
        std::string next, next_answer;
        size_t probes; // at least, before the release
    } rows[] = {
        // clang-format off
        {"info line and OK", "on AT+SLOW\n  delay 400\n  line +CSQ: 5,99\n  ok\n", nullptr, nullptr, "AT+SLOW", "AT+CSQ", csq_answer, 0},
        {"error only", "on AT+SLOW\n  delay 400\n  error\n", nullptr, nullptr, "AT+SLOW", "AT+CREG?", creg_answer, 0},
        {"silent modem", "", "hang", "unhang", "AT+CSQ", "AT+GSN", gsn_answer, 2},
        // Answers spaced so the burst is still arriving when the channel would
        // write the next command if it trusted the first probe answer.
        {"held answers released in a burst", "latency 30\n", "hold", "release", "AT+CSQ", "AT+GSN", gsn_answer, 3},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario(r.rules)));
        if (r.control) {
            ASSERT_EQ(sim->control(r.control), "OK\n");
        }
        request *req = mdm->queue(r.dropped);
        idle(100);
        ASSERT_TRUE(mdm->cmm->busy());
        expire(*mdm, req);
        EXPECT_TRUE(mdm->cmm->resyncing());
        mdm->queue(r.next);
        if (r.release) {
            idle(r.probes * 500);
            std::string in = modem_input(sim->transcript());
            EXPECT_EQ(count(in, r.next), 0u) << in;
            EXPECT_GE(count(in, "AT+CMEE?"), 1u) << in;
            EXPECT_GE(count(in, "AT+CSCS?"), 1u) << in;
            EXPECT_GE(count(in, "AT+CMEE?") + count(in, "AT+CSCS?"), r.probes) << in;
            EXPECT_EQ(count(in, r.dropped), 1u) << "a probe repeated the dropped command's token: " << in;
            ASSERT_EQ(sim->control(r.release), "OK\n");
        }
        ASSERT_TRUE(wait_finished(1, 8000));
        EXPECT_EQ(mdm->replies.at(0).response, r.next_answer);
        EXPECT_FALSE(mdm->cmm->resyncing());
        EXPECT_EQ(answer(r.next), r.next_answer) << "and the one after it too";
        restart();
    }
}

// A command longer than the port takes at once goes out whole; when it
// expires half-written, backspaces erase the fragment before the probe.
TEST_F(CommManager, LongCommandIsWrittenWholeOrItsFragmentErased)
{
    const std::string cmd = "AT+LONG=" + std::string(60000, '7');
    for (const bool stall : {false, true}) {
        SCOPED_TRACE(stall ? "modem stops reading" : "modem reads");
        ASSERT_NO_FATAL_FAILURE(open_channel(scenario("on AT+LONG=*\n  line +LONG: 1\n  ok\n")));
        if (stall)
            sim->signal(SIGSTOP);
        request *req = mdm->queue(cmd);
        if (stall) {
            expire_while_stalled(req);
        } else {
            ASSERT_TRUE(wait_finished(1, 10000));
        }
        EXPECT_EQ(answer("AT+CSQ", 8000), csq_answer);
        std::string in = modem_input(sim->transcript());
        size_t erased = in.find("\\x08");
        if (stall) {
            ASSERT_NE(erased, std::string::npos) << "no backspace erased the fragment";
            EXPECT_LT(erased, in.find("AT+CMEE?")) << "the probe went out before the fragment was erased";
        } else {
            EXPECT_EQ(mdm->finished.at(0).failed, 0);
            EXPECT_NE(in.find(cmd + "\\r"), std::string::npos) << "the modem did not get the command whole";
        }
        restart();
    }
}

// "AT+CMGS=5" on its own leaves the modem at its prompt; when it expires the
// prompt is cancelled before anything else is written.
TEST_F(CommManager, CommandExpiringAtAPromptIsCancelledWithEsc)
{
    ASSERT_NO_FATAL_FAILURE(open_channel(scenario("")));
    request *req = mdm->queue("AT+CMGS=5");
    idle(200);
    expire(*mdm, req);
    EXPECT_EQ(answer("AT+GSN"), gsn_answer);
    std::string in = modem_input(sim->transcript());
    size_t esc = in.find("\\x1b");
    ASSERT_NE(esc, std::string::npos) << in;
    EXPECT_LT(esc, in.find("AT+GSN")) << in;
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

    bool wait_received(avp_peer &p, size_t size, int timeout_ms = 3000)
    {
        return run_until(timeout_ms, [&] {
            p.poll();
            return p.received().size() >= size;
        });
    }

    void TearDown() override
    {
        peer.reset();
        CommManager::TearDown();
    }

    std::unique_ptr<avp_peer> peer;
};

// Lines of a client: several in one write are each a command; "ati" is the
// identification; text not starting with AT is ignored; an SMS command waits
// for its PDU line. A line longer than the daemon takes, or one that would
// smuggle a second command or end an SMS, gets the error line and nothing
// reaches the modem; the client's next line is read as usual.
TEST_F(CommManagerAvp, LinesAreFramedBoundedAndChecked)
{
    const std::string error(comm_manager::avp_error), pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
    const struct {
        const char *what;
        std::string send, want;
        size_t commands;   // command lines the modem runs
        std::string first; // the first command finished, when checked
        uint32_t action = ACT_AT_COMMAND;
    } rows[] = {
        {"two lines in one write", "AT+CSQ\nAT+GSN\n", csq_answer + gsn_answer, 2, "AT+CSQ\r"},
        {"CR LF ends a line once", "AT+CSQ\r\nAT+GSN\r\n", csq_answer + gsn_answer, 2, ""},
        {"lower-case ati", "ati\n", ati_answer, 1, "ati\r", ACT_GET_ID_INFO},
        {"text not starting with AT", "hello\nAT+CSQ\\r", csq_answer, 1, ""},
        {"SMS command and its PDU", "AT+CMGS=23\n" + pdu + "\n", "\r\n> \r\n+CMGS: 41\r\n\r\nOK\r\n", 1,
         "AT+CMGS=23\r" + pdu + "\x1a\r"},
        {"over-long line", "AT+" + std::string(10000, 'X') + "\nAT+CSQ\n", error + csq_answer, 1, ""},
        {"over-long line without an end", "AT+" + std::string(20000, 'X'), error, 0, ""},
        {"escape inside", "AT+CSQ\x1b\nAT+GSN\n", error + gsn_answer, 1, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(open_avp(scenario("")));
        size_t before = count(modem_input(sim->transcript()), "\\r");
        ASSERT_TRUE(peer->send(r.send));
        wait_received(*peer, r.want.size());
        idle(100);
        peer->poll();
        EXPECT_EQ(peer->received(), r.want);
        EXPECT_EQ(count(modem_input(sim->transcript()), "\\r") - before, r.commands);
        if (!r.first.empty()) {
            ASSERT_FALSE(mdm->finished.empty());
            EXPECT_EQ(mdm->finished[0].command, r.first);
            EXPECT_EQ(mdm->finished[0].action, r.action);
        }
        restart();
    }
}

// Clients arriving while every descriptor is taken get the error line and
// are closed; the daemon goes on serving the next client.
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
    std::vector<int> fillers{dup(0)};
    ASSERT_GE(fillers[0], 0);
    rlimit tight{static_cast<rlim_t>(fillers[0] + 1), old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    for (int fd; (fd = dup(0)) >= 0;)
        fillers.push_back(fd);
    idle(200);
    for (int fd : fillers)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &old);
    testing::internal::GetCapturedStdout();
    for (auto &c : waiting) {
        c->poll();
        EXPECT_EQ(c->received(), comm_manager::avp_error);
    }
    avp_peer later(root.path() + "/dev/modem0");
    ASSERT_TRUE(later.send("AT+CSQ\n"));
    ASSERT_TRUE(wait_received(later, csq_answer.size()));
    EXPECT_EQ(later.received(), csq_answer);
}

// ---- raw data after CONNECT (file upload) -------------------------------------

namespace
{

// The module's checksum, written out independently of the channel's, in hex.
std::string module_checksum(const std::string &b)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < b.size(); i += 2)
        sum ^= (static_cast<uint8_t>(b[i]) * 256u) + (i + 1 < b.size() ? static_cast<uint8_t>(b[i + 1]) : 0u);
    char buf[8];
    snprintf(buf, sizeof(buf), "%x", sum);
    return buf;
}

// How an upload ends: the file stored, CONNECT refused, or the data cut short.
enum upload_end { stored, refused, cut };

} // namespace

// Every byte goes out raw after CONNECT, in pieces; the answer after it is
// the command's and the report an unsolicited line, both checked against
// what the modem counted. An error instead of CONNECT writes no data. Data
// that stops half-way (the file is shorter than announced, or the command
// expires while the modem does not read) fails the command, and the channel
// writes nothing until the modem has left data mode on its own time-out.
TEST_F(CommManager, UploadStreamsTheFileAfterConnect)
{
    const struct {
        const char *what, *name;
        size_t size, announced;
        bool stall;
        upload_end end;
    } rows[] = {
        {"one byte", "f0", 1, 1, false, stored},
        {"a page and a byte", "f1", 4097, 4097, false, stored},
        {"100 KiB and a byte", "f2", 100 * 1024 + 1, 100 * 1024 + 1, false, stored},
        {"larger than the RAM storage", "RAM:big", 5000, 5000, false, refused},
        {"file shorter than announced", "cut", 3000, 204800, false, cut},
        {"expired while the modem does not read", "cut", 204800, 204800, true, cut},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        ASSERT_NO_FATAL_FAILURE(
            open_channel(scenario("set ufs_total 1000000\nset ufs_ram_total 1000\non AT+QFUPL=*\n  ufs\n")));
        std::string bytes, n = std::to_string(r.announced), path = root.path() + "/data";
        for (size_t i = 0; i < r.size; i++) // every byte value in turn: CR, LF, Ctrl-Z, NUL, ESC, "+++" among them
            bytes.push_back(static_cast<char>((i * 7 + i / 256) & 0xff));
        std::ofstream(path, std::ios::binary) << bytes;
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        request *req = mdm->queue("AT+QFUPL=\"" + std::string(r.name) + "\"," + n + (r.end == cut ? ",1" : ",5"),
                                  ACT_UPLOAD_FILE, 10000);
        req->source = request_source(fd, r.announced, r.end == cut ? 1000 : 5000);
        if (r.stall) {
            ASSERT_TRUE(run_until(3000, [&] { return req->source.written > 0; }));
            sim->signal(SIGSTOP);
            expire_while_stalled(req);
        } else {
            ASSERT_TRUE(wait_finished(1, 10000));
            EXPECT_EQ(mdm->finished.at(0).failed, r.end == cut);
        }
        EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the file was left open";
        EXPECT_EQ(g_upload.calls, r.end != cut);
        std::string sum = module_checksum(bytes);
        if (r.end == stored) {
            EXPECT_EQ(mdm->last_response, "\r\nOK\r\n");
            ASSERT_EQ(g_urcs.size(), 1u);
            EXPECT_NE(g_urcs[0].find("+QFUPL: " + n + "," + sum), std::string::npos) << g_urcs[0];
            EXPECT_EQ(g_upload.written, r.size);
            EXPECT_EQ(g_upload.checksum, std::stoul(sum, nullptr, 16));
            EXPECT_NE(sim->control("ufs list").find("UFS " + std::string(r.name) + " " + n + " " + sum + "\n"),
                      std::string::npos);
        } else if (r.end == refused) {
            EXPECT_EQ(mdm->last_response, "\r\n+CME ERROR: 420\r\n");
            EXPECT_EQ(sim->control("stats").find("bytes_received: 5"), std::string::npos);
            EXPECT_EQ(modem_input(sim->transcript()).find("\\x00"), std::string::npos) << "data went out";
        } else {
            EXPECT_TRUE(mdm->cmm->resyncing());
            mdm->queue("AT+CSQ");
            idle(600);
            EXPECT_EQ(count(modem_input(sim->transcript()), "AT+CMEE?"), 0u) << "written while in data mode";
            ASSERT_TRUE(wait_finished(mdm->finished.size() + 1, 10000));
            EXPECT_EQ(mdm->replies.back().response, csq_answer);
            EXPECT_EQ(sim->control("ufs list"), "OK\n");
        }
        EXPECT_EQ(answer("AT+CSQ"), csq_answer);
        restart();
    }
}
