#include "drivers/generic/generic_sms.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "drivers/generic/sms_limit.h"
#include "drivers/generic/testdata_answers.h"

namespace
{

// The sending-limit service: "check" answers check_answer;
// "inc" answers inc_status, and that the limit is reached at call reached_at
// (from 1). Every call is recorded as "<method> <sim> <modem> <timeout>".
// clang-format off
struct { const char *check_answer; int inc_status; size_t reached_at; std::vector<std::string> calls; } g_service;
// clang-format on

int fake_service(const char *object, const char *method, const ujson &args, ujson &answer, uint32_t ms)
{
    if (std::string(object) != "sms_limit")
        return modem::no_service;
    g_service.calls.push_back(std::string(method) + " " + std::to_string(args.get_int("sim")) + " " +
                              args.get_string("modem") + " " + std::to_string(ms));
    if (std::string(method) == "check") {
        blobmsg_add_json_from_string(answer.buffer(), g_service.check_answer);
        return 0;
    }
    if (g_service.calls.size() == g_service.reached_at)
        answer.add_string("limit", "reached");
    return g_service.inc_status;
}

// A text of n default-alphabet characters: 161 take two PDUs, 307 three.
std::string text_of(size_t n)
{
    return R"({"number":"+12345","text":")" + std::string(n, 'a') + "\"";
}

constexpr char ctrl_z = 0x1A;

class GenericSmsTest : public driver_case_test
{
  protected:
    // clang-format off
    static constexpr named_fn fns[] = {
        ACTION(set_sms_mode), ACTION(get_sms_mode), ACTION(set_msg_storage), ACTION(get_msg_storage),
        ACTION(get_full_msg_storage), ACTION(set_sms_evt_rep_cfg), ACTION(get_sms_evt_rep_cfg), ACTION(send_sms),
        ACTION(read_sms), ACTION(delete_sms), ACTION(delete_pdus), REPORT(urc_cmti)};
    // clang-format on

    void SetUp() override
    {
        driver_case_test::SetUp();
        setenv("TZ", "UTC", 1); // message times are shown in local time
        tzset();
        mdm.service = fake_service;
    }
    void set_mode(int32_t mode) { cache->update_item("sms_mode", CACHE_DATA_INT32, &mode, sizeof(mode)); }
    int build_send(int32_t mode, const char *check_answer, const std::string &args)
    {
        set_mode(mode);
        g_service = {check_answer, 0, 0, {}};
        std::free(req.extra);
        req.extra = nullptr;
        return build(send_sms, json_of(args).get());
    }
};

TEST_F(GenericSmsTest, CommandsAndAnswers)
{
    run_cases("sms_commands.txt", fns);
    EXPECT_EQ(cached("sms_mode_str"), "PDU") << "a built set is the format from then on";
    run_cases("ec25_sms.txt", fns);
}

// The listing's repeated part is deleted from the modem, once, by its index.
TEST_F(GenericSmsTest, ListingsIntoMessages)
{
    set_mode(1);
    run_cases("sms_listing.txt", fns);
    EXPECT_EQ(mdm.refresh_args, std::vector<std::string>{R"({"index":2,"single":true})"});
    EXPECT_EQ(mdm.refreshed, std::vector<uint32_t>{ACT_DELETE_SMS});
    set_mode(2);
    EXPECT_EQ(build(read_sms, json_of(R"({"index":-1})").get()), ACT_STATUS_NOT_SUPPORTED);
}

TEST_F(GenericSmsTest, SendIsBuiltOnlyWithinTheLimit)
{
    const char *room = R"({"max":2,"current":0})";
    const std::string n23 = "+3706000000000000000001";
    // mode: cached "sms_mode"; command: "" when nothing may be built
    // clang-format off
    struct { int32_t mode; const char *check_answer; std::string args; int status; std::string command; } rows[] = {
        // "hello" as one SMS-SUBMIT with the fields the encoder writes; E8329BFD06
        // is the well-known GSM 7-bit packing of "hello"
        {1, room, R"({"number":"+12345","text":"hello"})", 0, std::string("AT+CMGS=16\r00110005912143F50000FF05E8329BFD06") + ctrl_z + "\r"},
        {2, room, R"({"number":")" + n23 + R"(","text":"a\r\"b\""})", 0, "AT+CMGS=\"" + n23 + "\"\ra\r\"b\"" + ctrl_z},
        {1, room, R"({"number":"1","text":"\u001a","validate":true})", 0, "AT\r"},
        {0, room, R"({"number":"1","text":"x"})", 7, ""},
        // The limit fails closed on an answer without its numbers (no service, failing
        // and late services: the end-to-end SMS tests)
        {2, R"({"max":5})", R"({"number":"1","text":"x"})", 9, ""},
        {2, R"({"max":5,"current":6})", R"({"number":"1","text":"x"})", 9, ""},
        {1, room, text_of(161) + R"(,"validate":true})", 0, "AT\r"},
    };
    // clang-format on
    for (const auto &r : rows) {
        EXPECT_EQ(build_send(r.mode, r.check_answer, r.args), r.status) << r.args;
        EXPECT_EQ(command(), r.command) << r.args;
        EXPECT_EQ(req.extra != nullptr, r.status == 0) << r.args;
    }
    // The limit is asked for the current SIM (1 while none is known) and modem.
    EXPECT_EQ(g_service.calls, std::vector<std::string>{"check 1 gsm.modem0 1000"});
    int32_t sim = 2;
    cache->update_item("sim", CACHE_DATA_INT32, &sim, sizeof(sim));
    build_send(2, room, R"({"number":"1","text":"x"})");
    EXPECT_EQ(g_service.calls, std::vector<std::string>{"check 2 gsm.modem0 1000"});
    modem bare; // no bus: no service, and the limit holds
    EXPECT_TRUE(sms_lim_budget(&bare, 1).enforced);
}

TEST_F(GenericSmsTest, SendIsCountedAndReported)
{
    const std::string sent = "\r\n> \r\n+CMGS: 12\r\n\r\nOK\r\n"; // 27.005 3.5.1, as an EC25 answers
    // incs: "inc" calls made
    // clang-format off
    struct { std::string args; size_t reached_at; std::string answer; int status; std::string reply; size_t incs; } rows[] = {
        {text_of(161) + "}", 0, sent, 0, R"({"sms_used":2})", 2},
        {text_of(161) + "}", 1, sent, 0, R"({"sms_used":2})", 1},
        {text_of(161) + R"(,"validate":true})", 0, "\r\nOK\r\n", 0, R"({"valid":true,"sms_used":2,"cur_chars":8,"max_chars":153})", 0},
        {text_of(161) + "}", 0, "\r\n> \r\n+CMS ERROR: 330\r\n", 5, "{}", 0}, // 27.005 3.2.5
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.reply + " " + std::to_string(r.incs));
        mdm.events.clear();
        ASSERT_EQ(build_send(1, R"({"max":5,"current":0})", r.args), ACT_STATUS_OK);
        g_service.calls.clear();
        g_service.reached_at = r.reached_at;
        EXPECT_EQ(parse(send_sms, r.answer), r.status);
        EXPECT_EQ(g_service.calls, std::vector<std::string>(r.incs, "inc 1 gsm.modem0 5000"));
        EXPECT_EQ(as_json(*reply), r.reply);
        bool told = r.status == 0 && r.reply.find("valid") == std::string::npos;
        ASSERT_EQ(mdm.events.size(), told ? 1u : 0u);
        if (told) {
            EXPECT_TRUE(mdm.events[0].id == EVT_SND_SMS && mdm.events[0].forced);
            EXPECT_EQ(as_json(*mdm.events[0].data), R"({"sms_used":2,"number":"+12345"})");
        }
    }
}

} // namespace
