#include "drivers/generic/generic_sms.h"

#include <libubus.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "drivers/generic/sms_limit.h"
#include "drivers/generic/testdata_answers.h"

namespace
{

// The sending-limit service as the tests set it up: what "check" answers,
// what each "inc" answers, and every call made.
struct fake_limit_service {
    int check_status = 0;
    std::string check_answer = R"({"max":10,"current":0})";
    std::vector<int> inc_status;       // per call, 0 once the list runs out
    std::vector<std::string> inc_answer; // per call, {} once the list runs out
    std::vector<std::string> calls;    // "<method> <sim> <modem> <timeout>"
};

fake_limit_service g_service;

int fake_transport(ubus_context *, const char *method, uint32_t sim, const char *modem, uint32_t timeout_ms,
                   ujson &answer)
{
    std::string m = method;
    size_t n = std::count_if(g_service.calls.begin(), g_service.calls.end(),
                             [&](const std::string &c) { return c.starts_with(m + " "); });
    g_service.calls.push_back(m + " " + std::to_string(sim) + " " + modem + " " + std::to_string(timeout_ms));
    int status = m == "check" ? g_service.check_status : n < g_service.inc_status.size() ? g_service.inc_status[n] : 0;
    std::string text = m == "check" ? g_service.check_answer : n < g_service.inc_answer.size() ? g_service.inc_answer[n] : "{}";
    if (status == 0)
        blobmsg_add_json_from_string(answer.buffer(), text.c_str());
    return status;
}

std::unique_ptr<ujson> json_of(const std::string &text)
{
    auto json = ujson::create();
    EXPECT_TRUE(blobmsg_add_json_from_string(json->buffer(), text.c_str())) << text;
    return json;
}

class GenericSmsTest : public driver_case_test
{
  protected:
    static constexpr named_fn fns[] = {
        {"set_sms_mode", set_sms_mode, nullptr},
        {"get_sms_mode", get_sms_mode, nullptr},
        {"set_msg_storage", set_msg_storage, nullptr},
        {"get_msg_storage", get_msg_storage, nullptr},
        {"get_full_msg_storage", get_full_msg_storage, nullptr},
        {"set_sms_evt_rep_cfg", set_sms_evt_rep_cfg, nullptr},
        {"get_sms_evt_rep_cfg", get_sms_evt_rep_cfg, nullptr},
        {"send_sms", send_sms, nullptr},
        {"read_sms", read_sms, nullptr},
        {"delete_sms", delete_sms, nullptr},
        {"delete_pdus", delete_pdus, nullptr},
        {"urc_cmti", nullptr, urc_cmti},
    };

    void SetUp() override
    {
        driver_case_test::SetUp();
        // Message times are shown in local time: the tests read them in UTC.
        setenv("TZ", "UTC", 1);
        tzset();
        g_service = {};
        sms_lim_set_transport(fake_transport);
    }
    void TearDown() override
    {
        sms_lim_set_transport(nullptr);
        driver_case_test::TearDown();
    }

    void cache_int(const char *key, int32_t value) { cache->update_item(key, CACHE_DATA_INT32, &value, sizeof(value)); }
};

TEST_F(GenericSmsTest, CommandsFromArguments)
{
    run_cases("sms_commands.txt", fns);
}

TEST_F(GenericSmsTest, AnswersIntoReplies)
{
    run_cases("ec25_sms.txt", fns);
}

TEST_F(GenericSmsTest, ListingsIntoMessages)
{
    cache_int("sms_mode", 1);
    run_cases("sms_listing.txt", fns);
}

// ---- format ------------------------------------------------------------------------------

TEST_F(GenericSmsTest, FormatIsCachedWhenSetAndWhenRead)
{
    struct {
        const char *what;
        bool build; // a set built from args, else a query parsed from answer
        const char *input;
        const char *mode;
        const char *text;
    } rows[] = {
        {"set text", true, R"({"mode":"text"})", "2", "Text"},
        {"set pdu", true, R"({"mode":"pdu"})", "1", "PDU"},
        // EC25 answer
        {"read text", false, "\r\n+CMGF: 1\r\n\r\nOK\r\n", "2", "Text"},
        {"read other", false, "\r\n+CMGF: 7\r\n\r\nOK\r\n", "0", "Unknown"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        cache->remove_item_name("sms_mode");
        cache->remove_item_name("sms_mode_str");
        if (r.build)
            ASSERT_EQ(build(set_sms_mode, json_of(r.input).get()), ACT_STATUS_OK);
        else
            ASSERT_EQ(parse(get_sms_mode, r.input), ACT_STATUS_OK);
        const cache_item *mode = cache->get_item("sms_mode");
        ASSERT_TRUE(mode);
        EXPECT_EQ(std::to_string(mode->get<int32_t>()), r.mode);
        EXPECT_EQ(cached("sms_mode_str"), r.text);
    }

    // A refused set and an answer in error leave the format as it was.
    EXPECT_EQ(build(set_sms_mode, json_of(R"({"mode":"fax"})").get()), ACT_STATUS_INVALID_ARGS);
    EXPECT_EQ(parse(get_sms_mode, "\r\nERROR\r\n"), ACT_STATUS_INVALID_RESPONSE);
    EXPECT_EQ(cached("sms_mode_str"), "Unknown");
}

// ---- reading ----------------------------------------------------------------------

TEST_F(GenericSmsTest, ReadingOutsidePduModeBuildsNothing)
{
    for (int32_t mode : {0, 2}) {
        SCOPED_TRACE(mode);
        if (mode)
            cache_int("sms_mode", mode);
        EXPECT_EQ(build(read_sms, json_of(R"({"index":-1})").get()), ACT_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(command(), "");
    }
}

// Part 2 of a two-part message stored twice with the same text (built to TS
// 23.040 for this test, as in sms_listing.txt): the older copy is deleted
// from the modem, the message is read once.
TEST_F(GenericSmsTest, RepeatedPartIsDeletedFromTheModem)
{
    const std::string listing =
        "\r\n+CMGL: 1,1,,45\r\n07911326040000F0440B917360000000F10000423050015103801D050003420201A061391DF47697416F33888E2"
        "E83DC6F7A990502\r\n"
        "+CMGL: 2,1,,37\r\n07911326040000F0440B917360000000F100004230500151138014050003420202C26E32081E96D341F4FBDB05\r\n"
        "+CMGL: 3,1,,37\r\n07911326040000F0440B917360000000F100004230500151048014050003420202C26E32081E96D341F4FBDB05\r\n"
        "\r\nOK\r\n";
    for (int result : {0, 1}) {
        SCOPED_TRACE(result);
        cache_int("sms_mode", 1);
        mdm.refreshed.clear();
        mdm.refresh_args.clear();
        mdm.refresh_result = result;
        ASSERT_EQ(build(read_sms, json_of(R"({"index":-1})").get()), ACT_STATUS_OK);
        testing::internal::CaptureStdout();
        ASSERT_EQ(parse(read_sms, listing), ACT_STATUS_OK);
        std::string log = testing::internal::GetCapturedStdout();

        EXPECT_EQ(mdm.refreshed, std::vector<uint32_t>{ACT_DELETE_SMS});
        EXPECT_EQ(mdm.refresh_args, std::vector<std::string>{R"({"index":2,"single":true})"});
        // A delete that cannot be queued is logged; the reading goes on.
        EXPECT_EQ(log.find("Failed to delete pdu at:2") != std::string::npos, result != 0) << log;
        ASSERT_TRUE(reply->select_array("messages"));
        EXPECT_STREQ(reply->get_string("text"), "Part one of the note, and part two.");
        EXPECT_FALSE(reply->next_item());
    }
}

TEST_F(GenericSmsTest, PduHashIsSixteenBitDjb2)
{
    // djb2: 5381, then hash * 33 + byte, modulo 2^16
    struct {
        const char *hex;
        uint16_t hash;
    } rows[] = {
        {"", 5381},
        {"0", (5381 * 33 + '0') & 0xFFFF},
        {"07", ((((5381 * 33 + '0') & 0xFFFF) * 33) + '7') & 0xFFFF},
    };
    for (const auto &r : rows)
        EXPECT_EQ(sms_pdu_hash(r.hex), r.hash) << r.hex;
    EXPECT_NE(sms_pdu_hash("0791"), sms_pdu_hash("0719"));
}

// ---- sending ------------------------------------------------------------------------

constexpr char ctrl_z = 0x1A;

// "hello" to +12345 as one SMS-SUBMIT: TS 23.040 fields as the encoder
// writes them (no SMSC, relative validity, GSM 7-bit "hello" = E8329BFD06,
// the well-known packing example).
const std::string hello_pdu = "0011000591" "2143F5" "0000FF05E8329BFD06";

std::string long_text(size_t n)
{
    std::string text;
    for (size_t i = 0; i < n; i++)
        text += static_cast<char>('a' + i % 26);
    return text;
}

TEST_F(GenericSmsTest, SendBuildsAfterTheLimitAllowsIt)
{
    const std::string n23 = "+3706000000000000000001";
    struct row {
        const char *what;
        int32_t mode;   // cached "sms_mode", 0 for none
        int check_status;
        const char *check_answer;
        std::string args;
        int status;
        std::string command; // expected, "" when nothing may be built
    } rows[] = {
        {"pdu mode", 1, 0, R"({"max":5,"current":4})", R"({"number":"+12345","text":"hello"})", 0,
         "AT+CMGS=16\r" + hello_pdu + ctrl_z + "\r"},
        {"text mode", 2, 0, R"({"max":5,"current":4})", R"({"number":"+12345","text":"hello"})", 0,
         std::string("AT+CMGS=\"+12345\"\rhello") + ctrl_z},
        {"text mode keeps line breaks and quotes", 2, 0, R"({"max":5,"current":0})",
         R"({"number":"12345","text":"a\r\n\"b\""})", 0, std::string("AT+CMGS=\"12345\"\ra\r\n\"b\"") + ctrl_z},
        {"validate sends a bare AT", 1, 0, R"({"max":5,"current":0})",
         R"({"number":"+12345","text":"hello","validate":true})", 0, "AT\r"},
        {"23 characters", 2, 0, R"({"max":5,"current":0})", R"({"number":")" + n23 + R"(","text":"x"})", 0,
         "AT+CMGS=\"" + n23 + "\"\rx" + ctrl_z},
        {"24 characters", 2, 0, R"({"max":5,"current":0})", R"({"number":")" + n23 + R"(1","text":"x"})", 2, ""},
        {"number breaks out of the quotes", 2, 0, R"({"max":5,"current":0})",
         R"({"number":"1\";ATD2","text":"x"})", 2, ""},
        {"number with a command", 2, 0, R"({"max":5,"current":0})", R"({"number":"1\rATD2","text":"x"})", 2, ""},
        {"letters in the number", 1, 0, R"({"max":5,"current":0})", R"({"number":"12a45","text":"x"})", 2, ""},
        {"plus inside the number", 2, 0, R"({"max":5,"current":0})", R"({"number":"12+45","text":"x"})", 2, ""},
        {"only a plus", 2, 0, R"({"max":5,"current":0})", R"({"number":"+","text":"x"})", 2, ""},
        {"no number", 2, 0, R"({"max":5,"current":0})", R"({"text":"x"})", 2, ""},
        {"no text", 2, 0, R"({"max":5,"current":0})", R"({"number":"123"})", 2, ""},
        {"text mode: Ctrl-Z would end the text", 2, 0, R"({"max":5,"current":0})",
         R"({"number":"123","text":"a\u001aAT+CFUN=0"})", 2, ""},
        {"text mode: ESC would cancel it", 2, 0, R"({"max":5,"current":0})", R"({"number":"123","text":"a\u001b"})",
         2, ""},
        {"format unknown", 0, 0, R"({"max":5,"current":0})", R"({"number":"123","text":"x"})", 7, ""},
        {"no service on the bus", 1, sms_lim_no_service, "{}", R"({"number":"123","text":"x"})", 9, ""},
        {"check failed", 1, UBUS_STATUS_TIMEOUT, "{}", R"({"number":"123","text":"x"})", 9, ""},
        {"budget used up", 2, 0, R"({"max":5,"current":5})", R"({"number":"123","text":"x"})", 9, ""},
        {"three PDUs, budget of two", 1, 0, R"({"max":2,"current":0})",
         R"({"number":"123","text":")" + long_text(307) + R"("})", 9, ""},
        {"three PDUs, budget of two, validate", 1, 0, R"({"max":2,"current":0})",
         R"({"number":"123","text":")" + long_text(307) + R"(","validate":true})", 9, ""},
        {"two PDUs, budget of two, validate", 1, 0, R"({"max":2,"current":0})",
         R"({"number":"123","text":")" + long_text(161) + R"(","validate":true})", 0, "AT\r"},
        {"not metered", 2, UBUS_STATUS_NOT_SUPPORTED, "{}", R"({"number":"123","text":"x"})", 0,
         std::string("AT+CMGS=\"123\"\rx") + ctrl_z},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        cache->remove_item_name("sms_mode");
        if (r.mode)
            cache_int("sms_mode", r.mode);
        g_service = {};
        g_service.check_status = r.check_status;
        g_service.check_answer = r.check_answer;
        std::free(req.extra);
        req.extra = nullptr;

        EXPECT_EQ(build(send_sms, json_of(r.args).get()), r.status);
        EXPECT_EQ(command(), r.command);
        EXPECT_EQ(req.extra != nullptr, r.status == 0) << "the context travels only with a command";
    }
}

TEST_F(GenericSmsTest, SendAsksTheLimitForTheCurrentSim)
{
    auto args = json_of(R"({"number":"123","text":"x"})");
    cache_int("sms_mode", 2);
    ASSERT_EQ(build(send_sms, args.get()), ACT_STATUS_OK);
    cache_int("sim", 2);
    mdm.bus_name = "gsm.modem1";
    ASSERT_EQ(build(send_sms, args.get()), ACT_STATUS_OK);
    EXPECT_EQ(g_service.calls, (std::vector<std::string>{"check 1 gsm.modem0 1000", "check 2 gsm.modem1 1000"}));
}

TEST_F(GenericSmsTest, MultiPartSendHasOnePromptedCommandPerPdu)
{
    cache_int("sms_mode", 1);
    ASSERT_EQ(build(send_sms, json_of(R"({"number":"+12345","text":")" + long_text(161) + R"("})").get()),
              ACT_STATUS_OK);
    std::string cmd = command();
    std::vector<std::string> parts;
    for (size_t at = 0, end; (end = cmd.find(ctrl_z, at)) != std::string::npos; at = end + 1)
        parts.push_back(cmd.substr(at, end - at));
    ASSERT_EQ(parts.size(), 2u) << cmd;
    EXPECT_TRUE(cmd.ends_with(std::string(1, ctrl_z) + "\r"));
    for (const std::string &p : parts) {
        size_t cr = p.find('\r');
        ASSERT_NE(cr, std::string::npos) << p;
        ASSERT_TRUE(p.starts_with("AT+CMGS=")) << p;
        std::string hex = p.substr(cr + 1);
        // The number given to AT+CMGS counts the octets after the SMSC field.
        EXPECT_EQ(std::stoul(p.substr(8, cr - 8)), (hex.size() - 2) / 2) << p;
        // Multi-part SMS-SUBMIT (UDH indicator) with a concatenation header.
        EXPECT_TRUE(hex.starts_with("0051")) << hex;
    }
}

TEST_F(GenericSmsTest, SentMessagesAreCountedAndReported)
{
    struct row {
        const char *what;
        int32_t mode;
        int check_status;
        std::string args;
        std::vector<int> inc_status;
        std::vector<std::string> inc_answer;
        std::string answer;
        int status;
        std::string reply;
        size_t incs;       // "inc" calls made
        bool reported;     // event 6 and the stdout line
    } rows[] = {
        // 27.005 3.5.1 answer as an EC25 gives it
        {"one PDU", 1, 0, R"({"number":"+12345","text":"hello"})", {}, {}, "\r\n> \r\n+CMGS: 12\r\n\r\nOK\r\n", 0,
         R"({"sms_used":1})", 1, true},
        {"two PDUs", 1, 0, R"({"number":"+12345","text":")" + long_text(161) + R"("})", {}, {},
         "\r\n> \r\n+CMGS: 13\r\n\r\nOK\r\n", 0, R"({"sms_used":2})", 2, true},
        {"limit reached after the first", 1, 0, R"({"number":"+12345","text":")" + long_text(161) + R"("})", {},
         {R"({"limit":"reached"})"}, "\r\n> \r\n+CMGS: 13\r\n\r\nOK\r\n", 0, R"({"sms_used":2})", 1, true},
        {"counting fails", 1, 0, R"({"number":"+12345","text":")" + long_text(161) + R"("})",
         {UBUS_STATUS_TIMEOUT}, {}, "\r\n> \r\n+CMGS: 13\r\n\r\nOK\r\n", 0, R"({"sms_used":2})", 1, true},
        {"not metered", 2, UBUS_STATUS_NOT_SUPPORTED, R"({"number":"+12345","text":"hello"})", {}, {},
         "\r\n> \r\n+CMGS: 12\r\n\r\nOK\r\n", 0, R"({"sms_used":1})", 0, true},
        {"validate", 1, 0, R"({"number":"+12345","text":")" + long_text(161) + R"(","validate":true})", {}, {},
         "\r\nOK\r\n", 0, R"({"valid":true,"sms_used":2,"cur_chars":8,"max_chars":153})", 0, false},
        {"validate in text mode", 2, 0, R"({"number":"+12345","text":"h\u00e9llo","validate":true})", {}, {},
         "\r\nOK\r\n", 0, R"({"valid":true,"sms_used":1,"cur_chars":5,"max_chars":160})", 0, false},
        // 27.005 3.2.5: SMSC address unknown
        {"network refuses", 1, 0, R"({"number":"+12345","text":"hello"})", {}, {}, "\r\n> \r\n+CMS ERROR: 330\r\n",
         5, "{}", 0, false},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        cache_int("sms_mode", r.mode);
        g_service = {};
        g_service.check_status = r.check_status;
        g_service.inc_status = r.inc_status;
        g_service.inc_answer = r.inc_answer;
        mdm.events.clear();
        ASSERT_EQ(build(send_sms, json_of(r.args).get()), ACT_STATUS_OK);
        g_service.calls.clear();

        testing::internal::CaptureStdout();
        EXPECT_EQ(parse(send_sms, r.answer), r.status);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(as_json(*reply), r.reply);
        EXPECT_EQ(g_service.calls, std::vector<std::string>(r.incs, "inc 1 gsm.modem0 5000"));
        EXPECT_EQ(out.find("SMS was sent to: +12345\n") != std::string::npos, r.reported) << out;
        ASSERT_EQ(mdm.events.size(), r.reported ? 1u : 0u);
        if (r.reported) {
            EXPECT_EQ(mdm.events[0].id, static_cast<uint32_t>(EVT_SND_SMS));
            EXPECT_TRUE(mdm.events[0].forced) << "every send is reported, also a repeat of the last";
            EXPECT_EQ(as_json(*mdm.events[0].data),
                      R"({"sms_used":)" + std::string(r.reply.substr(12, 1)) + R"(,"number":"+12345"})");
        }
    }
}

// ---- the sending limit --------------------------------------------------------------------

TEST(SmsLimit, BudgetFailsClosed)
{
    struct {
        const char *what;
        int status;
        const char *answer;
        int32_t budget;
        bool enforced;
    } rows[] = {
        {"room left", 0, R"({"max":10,"current":3})", 7, true},
        {"used up", 0, R"({"max":10,"current":10})", 0, true},
        {"over", 0, R"({"max":10,"current":12})", -2, true},
        {"no such service", sms_lim_no_service, "{}", -1, true},
        {"call timed out", UBUS_STATUS_TIMEOUT, "{}", -1, true},
        {"call refused", UBUS_STATUS_INVALID_ARGUMENT, "{}", -1, true},
        {"not metered", UBUS_STATUS_NOT_SUPPORTED, "{}", -1, false},
        {"answer without current", 0, R"({"max":10})", -1, true},
        {"answer without max", 0, R"({"current":1})", -1, true},
        {"numbers as text", 0, R"({"max":"10","current":"1"})", -1, true},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto answer = json_of(r.answer);
        sms_lim_state s = sms_lim_decide(r.status, *answer);
        EXPECT_EQ(s.enforced, r.enforced);
        if (r.enforced) {
            EXPECT_EQ(s.budget, r.budget);
        }
    }
}

TEST(SmsLimit, NoBusMeansNoService)
{
    sms_lim_set_transport(nullptr);
    sms_lim_state s = sms_lim_budget(nullptr, 1, "gsm.modem0");
    EXPECT_TRUE(s.enforced);
    EXPECT_LT(s.budget, 1);
    EXPECT_EQ(sms_lim_inc(nullptr, 1, "gsm.modem0", 1), 1);
}

// ---- installation -------------------------------------------------------------------------

TEST_F(GenericSmsTest, ProbeInstallsTheElevenActionsAndTheReport)
{
    const uint32_t actions[] = {ACT_SET_SMS_MODE,        ACT_GET_SMS_MODE,         ACT_SET_MSG_STORAGE_LOC,
                                ACT_GET_MSG_STORAGE_LOC, ACT_GET_FULL_MSG_STORAGE_LOC, ACT_SET_SMS_EVT_REP_CFG,
                                ACT_GET_SMS_EVT_REP_CFG, ACT_SEND_SMS,             ACT_READ_SMS,
                                ACT_DELETE_SMS,          ACT_DELETE_PDUS};
    modem_driver drv = {"Test AT", "test", nullptr, nullptr};
    EXPECT_EQ(generic_sms_probe(&drv), 0);
    for (size_t i = 0; i < std::size(actions); i++)
        EXPECT_EQ(drv.funcs[actions[i]], fns[i].act) << fns[i].name;
    EXPECT_EQ(std::count_if(std::begin(drv.funcs), std::end(drv.funcs), [](act_func f) { return f; }), 11);
    const char cmti[] = "\r\n+CMTI: \"SM\",3\r\n";
    EXPECT_EQ(modem_driver_urc_method(&drv, cmti, sizeof(cmti) - 1), &urc_cmti);
    EXPECT_EQ(drv.urc_count, 1u);
    while (urc_entry *e = drv.urcs) {
        drv.urcs = e->next;
        delete e;
    }
}

} // namespace
