#include "modem.h"

#include "control.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace modem_sim
{
namespace
{

using namespace std::string_literals;

// A small modem; a row may append settings (a later 'set' wins) and rules.
const std::string small_scenario = R"(set echo 0
set verbose 1
set cmee 1
set csq 20
set mr 254
set sim present
set call none
keep pin_left
boot
  delay 500
  urc RDY
  delay 100
  urc +QIND: SMS DONE
powerdown
  delay 50
  urc POWERED DOWN
next +CREG: 1
next RING
on AT
  ok
on ATE0
  set echo 0
  ok
on ATV[01]
  set verbose $1
  ok
on AT+CMEE=[012]
  set cmee $1
  ok
on AT+SET=*,*
  set $1 $2
  ok
on AT+GET=*
  line {$1}
  ok
on AT+CSQ
  line +CSQ: {csq},99
  ok
on AT+CREG?
  line +CREG: 0,1
  ok
on AT+CPIN?
  when sim = absent
  cme 10
on AT+CPIN?
  line +CPIN: READY
  ok
on AT+CMGS=*
  prompt ok
  delay 100
  line +CMGS: {mr},{text}
  add mr 1 256
  ok
on AT+SLOW
  delay 200
  line first
  delay 300
  line second
  ok
on AT+QPOWD
  ok
  powerdown
on AT+LONG=*
  ok
on AT+RING
  set call ringing
  ok
  do ring
on AT+CHUP
  set call none
  cancel ring
  ok
action ring
  if call != ringing
    stop
  urc RING
  after 3s ring
    do ring
)";

class ModemTest : public ::testing::Test
{
  protected:
    void load(const std::string &extra = "")
    {
        Scenario sc;
        ParseError err;
        ASSERT_TRUE(parse_scenario(small_scenario + extra, &sc, &err)) << err.line << ": " << err.message;
        modem_ = std::make_unique<Modem>(std::move(sc));
        modem_->start(now_, false);
    }

    std::string send(std::string_view bytes)
    {
        modem_->receive(bytes, now_);
        return modem_->take_output();
    }

    // Plays steps from a fresh modem: bytes to send, "ctl <command>" for the
    // operator or "+<ms>" to let the clock run to that time after the start.
    // Returns every output as "@<ms> <bytes>", with the operator's replies
    // other than "OK" in brackets.
    std::string play(const std::string &extra, const std::vector<std::string> &steps)
    {
        load(extra);
        const Ms t0 = now_;
        std::string got;
        Ms last = -1;
        auto collect = [&](const std::string &reply = "") {
            std::string out = modem_->take_output() + reply;
            if (out.empty())
                return;
            if (now_ != last)
                got += "@" + std::to_string(now_ - t0) + " ";
            last = now_;
            got += out;
        };
        for (const std::string &st : steps) {
            if (st.size() > 1 && st[0] == '+' && isdigit(static_cast<unsigned char>(st[1]))) {
                const Ms until = t0 + std::stol(st.substr(1));
                for (Ms due; (due = modem_->next_deadline()) >= 0 && due <= until;) {
                    now_ = std::max(now_, due);
                    modem_->advance(now_);
                    collect();
                }
                now_ = until;
                modem_->advance(now_);
            } else if (st.rfind("ctl ", 0) == 0) {
                ControlReply r = run_control(*modem_, st.substr(4), now_);
                EXPECT_FALSE(r.quit) << st;
                collect(r.text == "OK\n" ? "" : "[" + r.text + "]");
            } else {
                modem_->receive(st, now_);
            }
            collect();
        }
        return got;
    }

    std::unique_ptr<Modem> modem_;
    Ms now_ = 1000;
};

TEST_F(ModemTest, Exchanges)
{
    const char call_in[] = "action call_in\n  set number $1\n  urc RING\n  after 3s ring\n    urc RING\n";
    const std::string hung_up = "[ERROR the line is hung up\n]";
    const struct {
        const char *name, *extra;
        std::vector<std::string> steps;
        std::string timeline;
    } rows[] = {
        // clang-format off
        // Line handling.
        {"echo, ATE0", "", {"ctl echo on", "AT\r", "ATE0\r", "AT\r"}, "@0 AT\r\r\nOK\r\nATE0\r\r\nOK\r\n\r\nOK\r\n"},
        {"commands on one line, the first failing one ends it", "", {"AT+CSQ;+BOGUS;+CREG?\r", "ATQ0V0\r", "AT\r"},
         "@0 \r\n+CSQ: 20,99\r\n\r\nERROR\r\n\r\nERROR\r\n\r\nOK\r\n"},
        {"ATV0 numbers results, its own already", "", {"ATV0\r", "AT+CSQ\r", "AT+NOSUCH\r", "ATV1\r", "AT!\r"},
         "@0 0\r+CSQ: 20,99\r\n0\r4\r\r\nOK\r\n\r\nERROR\r\n"},
        {"set-up", "set echo 1\n", {"\x1a\r", "+++", "ATE0V1\r", "AT\r"}, "@0 \r+++ATE0V1\r\r\nOK\r\n\r\nOK\r\n"},
        {"backspace edits the line", "", {"AT+CSX\bQ\r"}, "@0 \r\n+CSQ: 20,99\r\n\r\nOK\r\n"},
        {"when picks the rule; CME errors follow AT+CMEE and ATV", "", {"AT+CPIN?\r", "AT+SET=sim,absent\r", "AT+CPIN?\r", "AT+CMEE=2\r", "AT+CPIN?\r", "AT+CMEE=0\r", "AT+CPIN?\r", "AT+CMEE=1\r", "ATV0\r", "AT+CPIN?\r"},
         "@0 \r\n+CPIN: READY\r\n\r\nOK\r\n\r\nOK\r\n\r\n+CME ERROR: 10\r\n\r\nOK\r\n\r\n+CME ERROR: SIM not inserted\r\n\r\nOK\r\n\r\nERROR\r\n\r\nOK\r\n0\r+CME ERROR: 10\r\n"},
        // The prompt.
        {"text after the prompt, in one write or not; the reference wraps", "", {"AT+CMGS=5\r", "00\x1a", "+200", "AT+CMGS=5\r01\x1a", "+400", "AT+CMGS=5\r02\x1a\r", "+600"},
         "@0 \r\n> @100 \r\n+CMGS: 254,00\r\n\r\nOK\r\n@200 \r\n> @300 \r\n+CMGS: 255,01\r\n\r\nOK\r\n@400 \r\n> @500 \r\n+CMGS: 0,02\r\n\r\nOK\r\n"},
        {"text is echoed", "set echo 1\n", {"AT+CMGS=2\r", "AB", "+1000"}, "@0 AT+CMGS=2\r\r\n> AB"},
        {"a CR asks for more text; command lines are text", "", {"AT+CMGS=9\r", "AT+QPOWD\r", "AT+RESET\x1a", "+200"},
         "@0 \r\n> \r\n> @100 \r\n+CMGS: 254,AT+QPOWD\rAT+RESET\r\n\r\nOK\r\n"},
        {"ESC cancels: nothing sent, the reference unused", "", {"AT+CMGS=3\r", "ctl mode", "0011\x1b", "+1000", "AT+GET=mr\r"},
         "@0 \r\n> [prompt\nOK\n]\r\nOK\r\n@1000 \r\n254\r\n\r\nOK\r\n"},
        {"ESC gets the answer the prompt names", "on AT+PE\n  prompt error\n  ok\non AT+PN\n  prompt\n  ok\n", {"AT+PE\r", "x\x1b", "AT+PN\r", "x\x1b", "ATV0\r", "AT+PE\r", "x\x1b", "AT+CMGS=1\r", "x\x1b", "+1000"},
         "@0 \r\n> \r\nERROR\r\n\r\n> 0\r\r\n> 4\r\r\n> 0\r"},
        {"an absurd reference does not overflow", "", {"AT+SET=mr,123456789012345678901234567890\r", "AT+CMGS=1\r0\x1a", "+200", "AT+GET=mr\r"},
         "@0 \r\nOK\r\n\r\n> @100 \r\n+CMGS: 123456789012345678901234567890,0\r\n\r\nOK\r\n@200 \r\n79\r\n\r\nOK\r\n"},
        // Data mode after CONNECT: bytes are the file's, not echoed, not lines; each one restarts the silence timer.
        {"upload bytes are data", "set echo 1\nset ufs_total 100\non AT+QFUPL=*\n  ufs\n", {"AT+QFUPL=\"a\",5,1\r", "AT", "+900", "\r\x1a", "+1800", "Z", "+2000", "AT\r"},
         "@0 AT+QFUPL=\"a\",5,1\r\r\nCONNECT\r\n@1800 \r\n+QFUPL: 5,164e\r\n\r\nOK\r\n@2000 AT\r\r\nOK\r\n"},
        {"silence ends an upload", "set ufs_total 100\non AT+QFUPL=*\n  ufs\n", {"AT+QFUPL=\"a\",5,1\r", "AB", "+2000", "AT\r"},
         "@0 \r\nCONNECT\r\n@1000 \r\n+CME ERROR: 421\r\n@2000 \r\nOK\r\n"},
        // Time.
        {"delays hold input", "", {"AT+SLOW\rAT\r", "+1000"}, "@200 \r\nfirst\r\n@500 second\r\n\r\nOK\r\n\r\nOK\r\n"},
        {"split sends the answer in two pieces", "on AT+CHUNK\n  line 0123456789\n  split 5 40\n  ok\n", {"AT+CHUNK\r", "+100"},
         "@0 \r\n012@40 3456789\r\n\r\nOK\r\n"},
        {"latency: answer, not echo", "set echo 1\nlatency 30\n", {"AT\r", "+100"}, "@0 AT\r@30 \r\nOK\r\n"},
        {"slowness adds to the latency, after a prompt too, until 0", "latency 30\n", {"ctl slow 400ms", "AT\r", "+1000", "AT+CMGS=2\r00\x1a", "+3000", "ctl slow 0", "AT\r", "+4000"},
         "@430 \r\nOK\r\n@1430 \r\n> @1960 \r\n+CMGS: 254,00\r\n\r\nOK\r\n@3030 \r\nOK\r\n"},
        {"periodic URCs wait for an idle line", "set echo 1\nevery 1s +CREG: 1\n", {"+2500", "A", "+3200", "T\r", "+4000"},
         "@1000 \r\n+CREG: 1\r\n@2000 \r\n+CREG: 1\r\n@2500 A@3200 T\r\r\nOK\r\n@4000 \r\n+CREG: 1\r\n"},
        {"an injected URC waits for the answer in progress", "", {"AT+SLOW\r", "ctl urc +CREG: 5", "+1000"},
         "@200 \r\nfirst\r\n@500 second\r\n\r\nOK\r\n\r\n+CREG: 5\r\n"},
        {"next cycles", "", {"ctl next", "ctl next", "ctl next"}, "@0 \r\n+CREG: 1\r\n\r\nRING\r\n\r\n+CREG: 1\r\n"},
        {"after runs its block later", "on AT+CUSD=1,\"*\"\n  ok\n  after 1s\n    urc +CUSD: 0,\"answer to $1\",15\n", {"AT+CUSD=1,\"*100#\"\r", "+3000"},
         "@0 \r\nOK\r\n@1000 \r\n+CUSD: 0,\"answer to *100#\",15\r\n"},
        {"a timer repeats until cancelled", "", {"AT+RING\r", "+7000", "AT+CHUP\r", "+20000"},
         "@0 \r\nOK\r\n\r\nRING\r\n@3000 \r\nRING\r\n@6000 \r\nRING\r\n@7000 \r\nOK\r\n"},
        {"a named timer started again replaces the pending one", "on AT+NAMED\n  ok\n  after 500 named\n    urc FIRST\n  after 800 named\n    urc SECOND\n", {"AT+NAMED\r", "+2000"},
         "@0 \r\nOK\r\n@800 \r\nSECOND\r\n"},
        // Modes; each reset drops the pending timers.
        {"boot: silent, input dropped, timers gone", "", {"AT+RING\r", "ctl boot", "AT\r", "+1000", "AT\r", "+20000"},
         "@0 \r\nOK\r\n\r\nRING\r\n@500 \r\nRDY\r\n@600 \r\n+QIND: SMS DONE\r\n@1000 \r\nOK\r\n"},
        {"a command restarts the modem", "on AT+RESET\n  ok\n  boot\n", {"AT+RESET\r", "+1000"},
         "@0 \r\nOK\r\n@500 \r\nRDY\r\n@600 \r\n+QIND: SMS DONE\r\n"},
        {"powered down by command: deaf until booted", "", {"AT+RING\r", "AT+QPOWD\r", "AT\r", "+1000", "ctl boot", "+2000", "AT\r", "+20000"},
         "@0 \r\nOK\r\n\r\nRING\r\n\r\nOK\r\n@50 \r\nPOWERED DOWN\r\n@1500 \r\nRDY\r\n@1600 \r\n+QIND: SMS DONE\r\n@2000 \r\nOK\r\n"},
        {"firmware update: only its URCs, then a boot", "fota\n  delay 100\n  urc +QIND: \"FOTA\",\"START\"\n  delay 100\n  urc +QIND: \"FOTA\",\"END\",0\n  boot\n", {"AT+RING\r", "ctl fota", "AT\r", "+150", "AT\r", "+1000", "AT\r", "+20000"},
         "@0 \r\nOK\r\n\r\nRING\r\n@100 \r\n+QIND: \"FOTA\",\"START\"\r\n@200 \r\n+QIND: \"FOTA\",\"END\",0\r\n@700 \r\nRDY\r\n@800 \r\n+QIND: SMS DONE\r\n@1000 \r\nOK\r\n"},
        {"the operator's mode changes", "", {"ctl hang", "ctl mode", "AT\r", "ctl unhang", "AT\r", "ctl powerdown", "ctl mode", "+100", "ctl boot", "ctl mode", "+1000", "ctl mode"},
         "@0 [hung\nOK\n]\r\nOK\r\n[off\nOK\n]@50 \r\nPOWERED DOWN\r\n@100 [booting\nOK\n]@600 \r\nRDY\r\n@700 \r\n+QIND: SMS DONE\r\n@1000 [normal\nOK\n]"},
        {"hang drops the answer in progress", "", {"AT+SLOW\r", "AT+RING\r", "ctl hang", "AT\r", "+5000", "ctl unhang", "AT\r", "+20000"},
         "@5000 \r\nOK\r\n"},
        {"held: everything answered in order on release", "set echo 1\n", {"ctl hold", "AT+CSQ\rATE0\r", "AT+SLOW\rAT+CREG?\r", "+10000", "ctl release", "+11000"},
         "@10000 AT+CSQ\r\r\n+CSQ: 20,99\r\n\r\nOK\r\nATE0\r\r\nOK\r\n@10200 \r\nfirst\r\n@10500 second\r\n\r\nOK\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n"},
        {"hold freezes an answer in progress", "", {"AT+SLOW\r", "+250", "ctl hold", "+5250", "ctl release"},
         "@200 \r\nfirst\r\n@5250 second\r\n\r\nOK\r\n"},
        {"hold keeps the text at a prompt", "", {"AT+CMGS=2\r", "ctl hold", "0102\x1a", "+1000", "ctl release", "+1200"},
         "@0 \r\n> @1100 \r\n+CMGS: 254,0102\r\n\r\nOK\r\n"},
        {"held: no URCs, periodic ones not caught up; hold only from normal", "every 1s +CREG: 1\n", {"ctl hold", "ctl mode", "ctl hold", "ctl urc +CMTI: \"SM\",1", "+3500", "ctl release", "+4600", "ctl hang", "ctl hold"},
         "@0 [held\nOK\n][ERROR not normal but held\n]@3500 \r\n+CMTI: \"SM\",1\r\n@4000 \r\n+CREG: 1\r\n@4600 [ERROR not normal but hung\n]"},
        {"a hung-up line is final", "", {"ctl hangup", "ctl mode", "ctl urc RING", "ctl raw x", "ctl next", "ctl hang", "ctl hold", "ctl release", "ctl slow 1", "ctl boot", "ctl fota", "ctl powerdown", "ctl hangup", "AT\r", "+5000", "ctl get csq"},
         "@0 [hungup\nOK\n]" + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + hung_up + "@5000 [20\nOK\n]"},
        // Variables across a boot: the scenario's come back, kept ones and the operator's stay, a rule's later change
        // to those wins.
        {"boot resets settings but not kept or operator values", "", {"ATV0\r", "AT+SET=pin_left,1\r", "AT+SET=mr,7\r", "ctl set csq 5", "ctl boot", "+1000", "AT+CSQ;+GET=pin_left;+GET=mr\r", "ctl set pin_left 3", "AT+SET=pin_left,2\r", "ctl boot", "+2000", "AT+GET=pin_left\r"},
         "@0 0\r0\r0\r@500 \r\nRDY\r\n@600 \r\n+QIND: SMS DONE\r\n@1000 \r\n+CSQ: 5,99\r\n\r\n1\r\n\r\n254\r\n\r\nOK\r\n\r\nOK\r\n@1500 \r\nRDY\r\n@1600 \r\n+QIND: SMS DONE\r\n@2000 \r\n2\r\n\r\nOK\r\n"},
        // Conditions, blocks and actions.
        {"on lines in a row share a rule; unknown answers the rest", "on AT+GMR\non AT+CGMR\n  line rev\n  ok\nunknown\n  cme 4\n", {"AT+GMR\r", "AT+CGMR\r", "AT+X\r"},
         "@0 \r\nrev\r\n\r\nOK\r\n\r\nrev\r\n\r\nOK\r\n\r\n+CME ERROR: 4\r\n"},
        {"nested blocks; stop ends the rule", "on AT+T=[01],[01]\n  set a $1\n  if a = 1\n    if $2 = 1\n      line both\n      ok\n      stop\n    line only a\n  line end\n  ok\n", {"AT+T=1,1\r", "AT+T=1,0\r", "AT+T=0,1\r"},
         "@0 \r\nboth\r\n\r\nOK\r\n\r\nonly a\r\nend\r\n\r\nOK\r\n\r\nend\r\n\r\nOK\r\n"},
        {"captures name variables", "set apn1 internet\non AT+APN=[1-3],\"*\"\n  set apn$1 $2\n  add n$1 1\n  ok\non AT+APN?\n  do show 1\n  do show 2\n  do show 3\n  ok\naction show\n  if apn$1 !=\n    line +APN: $1,\"{apn$1}\",{n$1}\n", {"AT+APN=3,\"ims\"\r", "AT+APN=3,\"ims\"\r", "AT+APN?\r"},
         "@0 \r\nOK\r\n\r\nOK\r\n\r\n+APN: 1,\"internet\",\r\n+APN: 3,\"ims\",2\r\n\r\nOK\r\n"},
        {"an action runs inside the answer; its stop ends only the action", "on AT+GO=*\n  ok\n  do note $1 two\n  urc after\non AT+LOOP\n  do loop\n  ok\naction note\n  urc +NOTE: $1,$2\n  if $1 = quiet\n    stop\n  urc +LOUD\naction loop\n  do loop\n", {"AT+GO=quiet\r", "AT+GO=x\r", "AT+LOOP\r"},
         "@0 \r\nOK\r\n\r\n+NOTE: quiet,two\r\n\r\nafter\r\n\r\nOK\r\n\r\n+NOTE: x,two\r\n\r\n+LOUD\r\n\r\nafter\r\n\r\nOK\r\n"},
        {"an operator's action changes the world while the modem is hung", "action call_in\n  set number $1\n  urc RING\n", {"ctl do call_in +4917", "ctl hang", "ctl do call_in +4930", "+1000", "ctl unhang", "AT+GET=number\r"},
         "@0 \r\nRING\r\n@1000 \r\n+4930\r\n\r\nOK\r\n"},
        // Operator commands.
        {"urc and raw are expanded, urc framed", "", {"ctl urc +CSQ: {csq},99", "ctl raw \\r\\nRDY\\r\\n"},
         "@0 \r\n+CSQ: 20,99\r\n\r\nRDY\r\n"},
        {"do runs an action with its arguments", call_in, {"ctl actions", "ctl do call_in  +4917 ", "ctl timers", "+3000", "ctl timers", "AT+GET=number\r", "ctl do call_out"},
         "@0 [call_in\nring\nOK\n]\r\nRING\r\n[ring\nOK\n]@3000 \r\nRING\r\n\r\n+4917\r\n\r\nOK\r\n[ERROR the scenario has no action 'call_out' (try actions)\n]"},
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(play(r.extra, r.steps), r.timeline);
    }
}

TEST_F(ModemTest, IfComparesTextsNumbersPatternsAndSets)
{
    const struct {
        const char *cond, *x;
        bool yes;
    } rows[] = {
        // clang-format off
        {"x = abc", "abc", true},
        {"x = abc", "abcd", false},
        {"x = ", "", true},
        {"x != {y}", "eight", true},
        {"x < 10", "10", false},
        {"x <= 10", "10", true},
        {"x > 2", "10", true}, // numbers, not texts: "10" sorts before "2"
        {"x >= -2", "-1", true}, // and "-1" sorts before "-2"
        {"x < 10", "9", true},
        {"x ~ +49*", "+4917012", true},
        {"x ~ +49*", "0170", false},
        {"x in 1:3:7", "3:7", true},
        {"x in 1:3:7", "2", false},
        {"x in 0xff", "0x80", true},
        {"x = in", "in", true}, // a word after "=" is a value
        // clang-format on
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.cond) + " with x=" + r.x);
        load(std::string("set y seven\non AT+IF\n  if ") + r.cond + "\n    line yes\n  else\n    line no\n  ok\n");
        modem_->set_var("x", r.x);
        EXPECT_EQ(send("AT+IF\r"), r.yes ? "\r\nyes\r\n\r\nOK\r\n" : "\r\nno\r\n\r\nOK\r\n");
    }
}

TEST_F(ModemTest, OverlongLineIsRefusedAndTheModemCarriesOn)
{
    load();
    const std::string head = "AT+LONG=";
    const struct {
        size_t length; // of the line, CR excluded
        size_t erase;  // backspaces typed after it
        bool refused;
    } rows[] = {
        {max_command_line, 0, false},
        {max_command_line + 1, 0, true},
        {256 * 1024, 0, true},
        // Typed too far, then taken back within the limit.
        {max_command_line + 10, 10, false},
        {max_command_line + 10, 9, true},
    };
    uint64_t refused = 0;
    for (const auto &r : rows) {
        SCOPED_TRACE(std::to_string(r.length) + " - " + std::to_string(r.erase));
        std::string line = head + std::string(r.length - head.size(), '7') + std::string(r.erase, '\b') + "\r";
        EXPECT_EQ(send(line), r.refused ? "\r\nERROR\r\n" : "\r\nOK\r\n");
        refused += r.refused;
        EXPECT_EQ(modem_->stats().lines_too_long, refused);
        EXPECT_EQ(send("AT+CSQ\r"), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
    }
}

TEST_F(ModemTest, ManyLinesInOneWriteAreAllAnswered)
{
    load();
    const size_t n = 64 * 1024 / 3;
    std::string lines, want;
    for (size_t i = 0; i < n; i++) {
        lines += i % 2 ? "AT\r" : "AT+CSQ\r";
        want += i % 2 ? "\r\nOK\r\n" : "\r\n+CSQ: 20,99\r\n\r\nOK\r\n";
    }
    EXPECT_EQ(send(lines), want);
    EXPECT_EQ(modem_->stats().lines_executed, n);
    EXPECT_EQ(modem_->pending_input(), 0u);
}

TEST_F(ModemTest, HeldInputIsBoundedAndDroppedByAModeChange)
{
    load();
    modem_->hold(now_);
    send(std::string(max_pending_input + 1000, 'A'));
    EXPECT_EQ(modem_->pending_input(), max_pending_input);
    EXPECT_EQ(modem_->stats().bytes_received, max_pending_input + 1000);
    modem_->hang(now_); // a hang (like a boot) ends the stall and drops what it kept
    EXPECT_EQ(modem_->pending_input(), 0u);
    modem_->unhang(now_);
    EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, OperatorInputThatIsNoCommandChangesNothing)
{
    load();
    for (const char *line : {"", "frobnicate", "urc", "urc bad \\q", "echo maybe", "set", "get", "unhang", "release",
                             "slow", "slow soon", "slow -5", "do"}) {
        SCOPED_TRACE(line);
        ControlReply r = run_control(*modem_, line, now_);
        EXPECT_EQ(r.text.rfind("ERROR ", 0), 0u);
        EXPECT_FALSE(r.quit);
    }
    EXPECT_EQ(modem_->take_output(), "");
    EXPECT_STREQ(modem_->state_name(), "normal");
    EXPECT_TRUE(run_control(*modem_, "quit", now_).quit);
}

TEST_F(ModemTest, OperatorStatsShowCountsAndRecentLines)
{
    load();
    for (int i = 0; i < 12; i++)
        send("AT\r");
    for (const std::string &bytes :
         {"\x1a\r"s, "AT+CMGS=1\r"s, "say \"hi\"\\\x1b"s, "AT" + std::string(2000, 'Z') + "\r", "AT+C"s})
        send(bytes);
    modem_->set_slowness(3000);
    const std::string want = "received " + std::to_string(36 + 2 + 10 + 10 + 2003 + 4) +
                             "\nexecuted 13\ntoo_long 1\ntexts 1\npending 0\nslow 3000\n";
    const std::string text = run_control(*modem_, "stats", now_).text;
    EXPECT_EQ(text.substr(0, want.size()), want);
    // The last few lines only; the over-long one cut, with its length.
    EXPECT_NE(text.find("line \"\\r\"\nline \"AT+CMGS=1\\r\"\nline \"say \\\"hi\\\"\\\\\\x1b\"\nline \"AT" +
                        std::string(20, 'Z')),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Z\" ... 2003 bytes\ntyping \"AT+C\"\nOK\n"), std::string::npos) << text;
    EXPECT_LT(text.size(), 1500u);
    EXPECT_LE(modem_->stats().recent.size(), 10u);
}

} // namespace
} // namespace modem_sim
