// The simulator's message store: what only it decides (storage switches, status filters, index reuse, a full
// store, delete flags, message references, indications by AT+CNMI). Plain storing, listing, sending and reading
// through the daemon are the end-to-end SMS tests' matter.
#include "sms_store.h"

#include <gtest/gtest.h>

namespace modem_sim
{
namespace
{

// The widely published SMS-DELIVER example: "hellohello" from 27838890001 through the SMSC +27381000015;
// 28 TPDU octets. class2 is the same with DCS 12 (message class 2).
const std::string deliver_pdu = "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37";
const std::string class2_pdu = "07917283010010F5040BC87238880900F10012993092516195800AE8329BFD4697D9EC37";
// The widely published SMS-SUBMIT example: "hellohello" to +46708251358; 23 TPDU octets.
const std::string submit_pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";
// The two parts of "hiya" to the same number, 16-bit reference 0x1234, packed by hand.
const std::string part1_pdu = "0051000B916407281553F80000AA0A06080412340201E834";
const std::string part2_pdu = "0051000B916407281553F80000AA0A06080412340202F930";

class SmsStoreTest : public ::testing::Test
{
  protected:
    Vars vars_ = {{"cmgf", "0"},          {"cnmi", "2,1,0,0,0"},   {"mr", "41"},
                  {"sms_mem1", "ME"},     {"sms_mem2", "ME"},      {"sms_mem3", "ME"},
                  {"sms_sm_total", "50"}, {"sms_me_total", "255"}, {"smsc", "+491710760000"}};
    SmsStore store_;

    static std::string shown(const SmsAnswer &a)
    {
        std::string out;
        for (const std::string &l : a.lines)
            out += l + "\n";
        const char *finals[] = {"(prompt)", "OK", "ERROR", "+CMS ERROR: "};
        out += finals[static_cast<int>(a.final)];
        return a.final == SmsAnswer::Final::cms ? out + std::to_string(a.code) : out;
    }

    // A command and its answer; the body is what the host types when the command prompts.
    struct Step {
        std::string cmd, answer, body = {};
    };
    void play(std::initializer_list<Step> steps)
    {
        for (const Step &s : steps) {
            SCOPED_TRACE(s.cmd + " " + s.body);
            SmsAnswer a = store_.command(s.cmd, vars_);
            if (a.final == SmsAnswer::Final::none && !s.body.empty())
                a = store_.send(s.cmd, s.body, vars_);
            EXPECT_EQ(shown(a), s.answer);
        }
    }
};

TEST_F(SmsStoreTest, CommandsFollowStoragesStatusesAndModes)
{
    ASSERT_EQ(store_.store("ME", rec_unread, deliver_pdu, vars_), 0);
    ASSERT_EQ(store_.store("ME", rec_read, deliver_pdu, vars_), 1);
    vars_["mr"] = "255";
    // The SIM holds nothing; AT+CMGL lists unread by default, and listing has read them; index 7 is empty; what
    // AT+CNMI leaves out stays. Sending: the length given is the TPDU's (with or without an SMSC; odd, not hex or
    // not a SUBMIT refused), the reference wraps after 255; parts sent apart are joined, the same part again is a
    // message of its own.
    play({
        // clang-format off
        {"AT+CPMS=\"SM\"", "+CPMS: 0,50,2,255,2,255\nOK"},
        {"AT+CMGL=4", "OK"},
        {"AT+CPMS=\"ME\",\"BM\"", "+CMS ERROR: 302"},
        {"AT+CPMS=\"ME\"", "+CPMS: 2,255,2,255,2,255\nOK"},
        {"AT+CMGL=0", "+CMGL: 0,0,,28\n" + deliver_pdu + "\nOK"},
        {"AT+CMGL", "OK"},
        {"AT+CMGL=5", "+CMS ERROR: 304"},
        {"AT+CMGL=\"ALL\"", "+CMS ERROR: 302"},
        {"AT+CMGR=7", "OK"},
        {"AT+CMGR=255", "+CMS ERROR: 321"},
        {"AT+CMGD=255", "+CMS ERROR: 321"},
        {"AT+CMGD=0", "OK"},
        {"AT+CMGD=0,5", "+CMS ERROR: 302"},
        {"AT+CNMI=1,,2", "OK"},
        {"AT+CNMI?", "+CNMI: 1,1,2,0,0\nOK"},
        {"AT+CNMI=3", "+CMS ERROR: 302"},
        {"AT+CMGS=0", "+CMS ERROR: 304"},
        {"AT+CMGS=165", "+CMS ERROR: 304"},
        {"AT+CMGS=23", "+CMGS: 255\nOK", submit_pdu},
        {"AT+CMGS=23", "+CMGS: 0\nOK", "0791947101670000" + submit_pdu.substr(2)},
        {"AT+CMGS=24", "+CMS ERROR: 304", submit_pdu},
        {"AT+CMGS=23", "+CMS ERROR: 304", submit_pdu.substr(1)},
        {"AT+CMGS=23", "+CMS ERROR: 304", "0G" + submit_pdu.substr(2)},
        {"AT+CMGS=28", "+CMS ERROR: 304", deliver_pdu},
        {"AT+CMGS=23", "+CMGS: 1\nOK", part1_pdu},
        {"AT+CMGS=23", "+CMGS: 2\nOK", part1_pdu},
        {"AT+CMGS=23", "+CMGS: 3\nOK", part2_pdu},
        // clang-format on
    });
    ASSERT_EQ(store_.sent().size(), 4u);
    EXPECT_EQ(store_.sent()[3].mrs, (std::vector<int>{2, 3}));
    vars_["cmgf"] = "1";
    play({
        // clang-format off
        {"AT+CMGL=\"REC UNREAD\"", "OK"},
        {"AT+CMGL=\"ALL\"", "+CMGL: 1,\"REC READ\",\"27838890001\",,\"99/03/29,15:16:59+08\"\nhellohello\nOK"},
        {"AT+CMGS=\"+49 170\"", "+CMS ERROR: 305"},
        {"AT+CMGS=\"+491701234567\",145", "+CMGS: 4\nOK", "\xF0\x9F\x98\x80"},
        {"AT+CMGS=\"+491701234567\"", "+CMS ERROR: 305", std::string(161, 'a')},
        // clang-format on
    });
    EXPECT_EQ(store_.sent_text(), "+46708251358 1/1 GSM7 \"hellohello\"\n+46708251358 1/1 GSM7 \"hellohello\"\n"
                                  "+46708251358 1/2 GSM7 \"hi\" incomplete\n+46708251358 2/2 GSM7 \"hiya\"\n"
                                  "+491701234567 1/1 UCS2 \"\xF0\x9F\x98\x80\"\n");
}

TEST_F(SmsStoreTest, DeleteFlagsGoByStatus)
{
    for (int stat = 0; stat < 4; stat++)
        ASSERT_EQ(store_.store("ME", stat, deliver_pdu, vars_), stat);
    // <delflag> 1 read, 2 also sent, 3 also unsent, 4 all; the index is then not looked at.
    const std::pair<const char *, std::vector<int>> cases[] = {
        {"AT+CMGD=0,1", {0, 2, 3}}, {"AT+CMGD=0,2", {0, 2}}, {"AT+CMGD=9,3", {0}}, {"AT+CMGD=1,4", {}}};
    for (const auto &[cmd, left] : cases) {
        EXPECT_EQ(shown(store_.command(cmd, vars_)), "OK");
        std::vector<int> kept;
        for (const auto &kv : store_.messages("ME"))
            kept.push_back(kv.first);
        EXPECT_EQ(kept, left) << cmd;
    }
}

TEST_F(SmsStoreTest, IndicationsFollowCnmi)
{
    // <mt> 2 passes all but class 2 straight to the host, 3 class 3 only; <mode> 0 sends nothing.
    struct Case {
        const char *cnmi, *cmgf;
        std::string pdu, urc;
        size_t stored;
    } cases[] = {
        {"0,1,0,0,0", "0", deliver_pdu, "", 1},
        {"2,3,0,0,0", "0", deliver_pdu, "+CMTI: \"ME\",0", 1},
        {"2,2,0,0,0", "0", class2_pdu, "+CMTI: \"ME\",0", 1},
        {"2,2,0,0,0", "0", deliver_pdu, "+CMT: ,28\r\n" + deliver_pdu, 0},
        {"2,2,0,0,0", "1", deliver_pdu, "+CMT: \"27838890001\",,\"99/03/29,15:16:59+08\"\r\nhellohello", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.urc);
        store_.clear();
        vars_["cnmi"] = c.cnmi;
        vars_["cmgf"] = c.cmgf;
        std::vector<std::string> urcs;
        std::string why;
        ASSERT_TRUE(store_.deliver({c.pdu}, vars_, &urcs, &why)) << why;
        EXPECT_EQ(urcs, c.urc.empty() ? std::vector<std::string>() : std::vector<std::string>{c.urc});
        EXPECT_EQ(store_.messages("ME").size(), c.stored);
    }
}

TEST_F(SmsStoreTest, FullStorageRefusesDeliveriesWholeAndFreedIndexesAreReused)
{
    vars_["sms_me_total"] = "3";
    EXPECT_EQ(store_.fill("ME", vars_), 3);
    play({
        // clang-format off
        {"AT+CPMS?", "+CPMS: \"ME\",3,3,\"ME\",3,3,\"ME\",3,3\nOK"},
        {"AT+CMGW=23", "+CMS ERROR: 322", submit_pdu},
        {"AT+CMGD=1", "OK"},
        // clang-format on
    });
    // One free index, a text of two parts: nothing is stored.
    std::vector<std::string> urcs;
    std::string why;
    EXPECT_FALSE(store_.deliver_text("+4917", std::string(200, 'x'), {}, vars_, &urcs, &why));
    EXPECT_EQ(why, "storage ME is full");
    EXPECT_EQ(store_.messages("ME").size(), 2u);
    ASSERT_TRUE(store_.deliver_text("+4917", "x", {}, vars_, &urcs, &why)) << why;
    EXPECT_EQ(urcs, std::vector<std::string>{"+CMTI: \"ME\",1"}); // the lowest free index
    // Written into <mem2> with the status given (default 2, STO UNSENT); listed by that status alone.
    play({
        // clang-format off
        {"AT+CMGD=0", "OK"},
        {"AT+CMGW=23,3", "+CMGW: 0\nOK", submit_pdu},
        {"AT+CMGL=3", "+CMGL: 0,3,,23\n" + submit_pdu + "\nOK"},
        {"AT+CMGW=23,4", "+CMS ERROR: 304", submit_pdu},
        // clang-format on
    });
    vars_["cmgf"] = "1";
    play({{"AT+CMGW=\"+4917\"", "+CMS ERROR: 303"}});
}

} // namespace
} // namespace modem_sim
