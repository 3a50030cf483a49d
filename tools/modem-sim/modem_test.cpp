#include "modem.h"

#include "control.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace modem_sim {
namespace {

const char small_scenario[] = R"(model Test
set echo 1
set verbose 1
set cmee 1
set csq 20
set mr 254
set sim present

boot
  delay 500
  urc RDY
  delay 100
  urc +QIND: SMS DONE

fota
  delay 100
  urc +QIND: "FOTA","START"
  delay 100
  urc +QIND: "FOTA","END",0
  boot

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
on ATV0
  set verbose 0
  ok
on ATV1
  set verbose 1
  ok
on AT+CMEE=[012]
  set cmee $1
  ok
on AT+CSQ
  line +CSQ: {csq},99
  ok
on AT+CREG?
  line +CREG: 0,1
  ok
on ATI
  line Quectel
  line EC25
  line Revision: EC25EFAR06A06M4G
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
  line +CMGS: {mr}
  add mr 1 256
  ok
on AT+SLOW
  delay 200
  line first
  delay 300
  line second
  ok
on AT+CHUNK
  line 0123456789
  split 5 40
  ok
on AT+QPOWD
  ok
  powerdown
on AT+RESET
  ok
  boot
on AT+LATEURC
  ok
  delay 50
  urc +CUSD: 0,"done",15
on AT+LONG=*
  ok
)";

class ModemTest : public ::testing::Test {
protected:
	void load(const std::string &text, bool boot = false)
	{
		Scenario sc;
		ParseError err;
		ASSERT_TRUE(parse_scenario(text, &sc, &err)) << err.line << ": " << err.message;
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(now_, boot);
	}

	void SetUp() override { load(small_scenario); }

	// Sends bytes and returns what comes back at once.
	std::string send(std::string_view bytes)
	{
		modem_->receive(bytes, now_);
		return modem_->take_output();
	}

	// Lets time run to `until`, waking the modem whenever it asked to; returns
	// every piece of output with the time it appeared.
	std::vector<std::pair<Ms, std::string>> run_until(Ms until)
	{
		std::vector<std::pair<Ms, std::string>> got;
		for (;;) {
			Ms due = modem_->next_deadline();
			if (due < 0 || due > until)
				break;
			now_ = std::max(now_, due);
			modem_->advance(now_);
			std::string out = modem_->take_output();
			if (!out.empty())
				got.emplace_back(now_, out);
		}
		now_ = until;
		modem_->advance(now_);
		std::string out = modem_->take_output();
		if (!out.empty())
			got.emplace_back(now_, out);
		return got;
	}

	std::string all_until(Ms until)
	{
		std::string s;
		for (auto &p : run_until(until))
			s += p.second;
		return s;
	}

	std::unique_ptr<Modem> modem_;
	Ms now_ = 1000;
};

// ------------------------------------------------------------- framing

TEST_F(ModemTest, EchoIsOnByDefaultAndAte0TurnsItOff)
{
	EXPECT_EQ(send("AT\r"), "AT\r\r\nOK\r\n");
	EXPECT_EQ(send("ATE0\r"), "ATE0\r\r\nOK\r\n"); // the line itself is echoed as typed
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, InformationLinesAreFramedLikeAQuectelModem)
{
	send("ATE0\r");
	EXPECT_EQ(send("ATI\r"), "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n");
	EXPECT_EQ(send("AT+CSQ\r"), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, Atv0GivesNumericResultCodes)
{
	send("ATE0\r");
	EXPECT_EQ(send("ATV0\r"), "0\r"); // the new mode already applies to its own result
	EXPECT_EQ(send("AT+CSQ\r"), "+CSQ: 20,99\r\n0\r");
	EXPECT_EQ(send("AT+NOSUCH\r"), "4\r");
	EXPECT_EQ(send("ATV1\r"), "\r\nOK\r\n");
	EXPECT_EQ(send("AT+NOSUCH\r"), "\r\nERROR\r\n");
}

TEST_F(ModemTest, UnknownCommandAnswersError)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+QBOGUS=1\r"), "\r\nERROR\r\n");
	EXPECT_EQ(send("AT!\r"), "\r\nERROR\r\n"); // not even a command
}

TEST_F(ModemTest, CmeErrorFollowsCmee)
{
	send("ATE0\r");
	modem_->set_var("sim", "absent");
	EXPECT_EQ(send("AT+CPIN?\r"), "\r\n+CME ERROR: 10\r\n");
	send("AT+CMEE=2\r");
	EXPECT_EQ(send("AT+CPIN?\r"), "\r\n+CME ERROR: SIM not inserted\r\n");
	send("AT+CMEE=0\r");
	EXPECT_EQ(send("AT+CPIN?\r"), "\r\nERROR\r\n");
	send("AT+CMEE=1\r");
	send("ATV0\r");
	EXPECT_EQ(send("AT+CPIN?\r"), "+CME ERROR: 10\r\n");
}

TEST_F(ModemTest, WhenConditionsChooseTheAnswer)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CPIN?\r"), "\r\n+CPIN: READY\r\n\r\nOK\r\n");
	modem_->set_var("sim", "absent");
	EXPECT_EQ(send("AT+CPIN?\r"), "\r\n+CME ERROR: 10\r\n");
}

TEST_F(ModemTest, CommandsOnOneLineGiveOneFinalResult)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CSQ;+CREG?\r"), "\r\n+CSQ: 20,99\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n");
	// The first failing command ends the line; the rest is not run.
	EXPECT_EQ(send("AT+CSQ;+BOGUS;+CREG?\r"), "\r\n+CSQ: 20,99\r\n\r\nERROR\r\n");
	// ATE1 has no rule in this scenario: the line stops there and V0 is not run.
	EXPECT_EQ(send("ATE1V0\r"), "\r\nERROR\r\n");
	EXPECT_EQ(modem_->var("verbose"), "1");
}

TEST_F(ModemTest, SeveralLinesInOneWriteAreAnsweredInOrder)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CSQ\rAT+CREG?\r"), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, DaemonSetUpHandshakeIsAnswered)
{
	// Ctrl-Z and CR, then "+++" and the set-up command, each written separately.
	EXPECT_EQ(send("\x1a\r"), "\r");
	EXPECT_EQ(send("+++"), "+++");
	std::string out = send("ATE0V1\r");
	EXPECT_EQ(out, "ATE0V1\r\r\nOK\r\n");
	EXPECT_EQ(modem_->var("echo"), "0");
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, BackspaceEditsTheLine)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CSX\bQ\r"), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
}

// ------------------------------------------------------------ timing

TEST_F(ModemTest, DelaysHoldBackTheRestOfTheAnswer)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+SLOW\r"), "");
	auto got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].first, 1200);
	EXPECT_EQ(got[0].second, "\r\nfirst\r\n");
	EXPECT_EQ(got[1].first, 1500);
	EXPECT_EQ(got[1].second, "second\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, SplitSendsTheAnswerInTwoPieces)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CHUNK\r"), "\r\n012");
	auto got = run_until(now_ + 100);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first, 1040);
	EXPECT_EQ(got[0].second, "3456789\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, InputWaitsUntilTheAnswerInProgressIsOut)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+SLOW\rAT\r"), "");
	EXPECT_EQ(all_until(now_ + 1000), "\r\nfirst\r\nsecond\r\n\r\nOK\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, UrcAfterTheFinalResult)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+LATEURC\r"), "\r\nOK\r\n");
	auto got = run_until(now_ + 100);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first, 1050);
	EXPECT_EQ(got[0].second, "\r\n+CUSD: 0,\"done\",15\r\n");
}

TEST_F(ModemTest, LatencyDelaysEveryAnswer)
{
	load(std::string("latency 30\n") + small_scenario);
	EXPECT_EQ(send("AT\r"), "AT\r"); // echo comes at once
	auto got = run_until(now_ + 100);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first, 1030);
	EXPECT_EQ(got[0].second, "\r\nOK\r\n");
}

TEST_F(ModemTest, PeriodicUrcsWaitForAnIdleLine)
{
	load("every 1s +CREG: 1\non AT\n  ok\n");
	auto got = run_until(now_ + 2500);
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].first, 2000);
	EXPECT_EQ(got[0].second, "\r\n+CREG: 1\r\n");
	EXPECT_EQ(got[1].first, 3000);
	// Half a command typed: the URC is not cut into it.
	EXPECT_EQ(send("A"), "A");
	EXPECT_EQ(all_until(4200), "");
	EXPECT_EQ(send("T\r"), "T\r\r\nOK\r\n");
	EXPECT_EQ(all_until(5000), "\r\n+CREG: 1\r\n");
}

// --------------------------------------------------------- SMS prompt

TEST_F(ModemTest, CmgsPromptThenPduThenResult)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+CMGS=23\r"), "\r\n> ");
	EXPECT_TRUE(modem_->in_text_entry());
	EXPECT_EQ(send("0011000B916407281553F80000AA0AE8329BFD4697D9EC37"), "");
	EXPECT_EQ(send("\x1a"), "");
	EXPECT_EQ(all_until(now_ + 200), "\r\n+CMGS: 254\r\n\r\nOK\r\n");
	EXPECT_EQ(modem_->var("text"), "0011000B916407281553F80000AA0AE8329BFD4697D9EC37");
	// The message reference counts on and wraps at 256.
	send("AT+CMGS=5\r");
	send("00\x1a");
	EXPECT_EQ(all_until(now_ + 200), "\r\n+CMGS: 255\r\n\r\nOK\r\n");
	send("AT+CMGS=5\r");
	send("00\x1a");
	EXPECT_EQ(all_until(now_ + 200), "\r\n+CMGS: 0\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, MessageReferenceSurvivesAnAbsurdValue)
{
	send("ATE0\r");
	modem_->set_var("mr", "123456789012345678901234567890");
	send("AT+CMGS=5\r");
	send("00\x1a");
	all_until(now_ + 200);
	long mr = std::stol(modem_->var("mr"));
	EXPECT_GE(mr, 0);
	EXPECT_LT(mr, 256);
}

TEST_F(ModemTest, CmgsTextIsEchoedWhileEchoIsOn)
{
	EXPECT_EQ(send("AT+CMGS=2\r"), "AT+CMGS=2\r\r\n> ");
	EXPECT_EQ(send("AB"), "AB");
}

TEST_F(ModemTest, CmgsWrittenInOneGoStillWorks)
{
	send("ATE0\r");
	// A whole multi-part request in a single write, final CR included.
	EXPECT_EQ(send("AT+CMGS=2\r0102\x1a\r"), "\r\n> ");
	EXPECT_EQ(all_until(now_ + 200), "\r\n+CMGS: 254\r\n\r\nOK\r\n");
	EXPECT_EQ(modem_->var("text"), "0102");
	EXPECT_FALSE(modem_->in_text_entry());
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, EscCancelsTheMessage)
{
	send("ATE0\r");
	send("AT+CMGS=23\r");
	EXPECT_EQ(send("0011\x1b"), "\r\nOK\r\n");
	EXPECT_FALSE(modem_->in_text_entry());
	EXPECT_EQ(all_until(now_ + 500), ""); // no +CMGS follows
	EXPECT_EQ(modem_->var("mr"), "254");
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, LineBreakInTextAsksForTheNextLine)
{
	send("ATE0\r");
	send("AT+CMGS=\"+4917012345\"\r");
	EXPECT_EQ(send("line one\r"), "\r\n> ");
	send("line two\x1a");
	all_until(now_ + 200);
	EXPECT_EQ(modem_->var("text"), "line one\rline two");
}

TEST_F(ModemTest, EscGetsTheAnswerThePromptNames)
{
	struct Case {
		const char *prompt;
		const char *verbose;
		const char *answer;
	} cases[] = {
		{"prompt", "1", ""},
		{"prompt ok", "1", "\r\nOK\r\n"},
		{"prompt error", "1", "\r\nERROR\r\n"},
		{"prompt ok", "0", "0\r"},
		{"prompt error", "0", "4\r"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(std::string(c.prompt) + " verbose " + c.verbose);
		load(std::string("set echo 0\nset verbose ") + c.verbose + "\non AT\n  ok\non AT+CMGS=*\n  " + c.prompt +
		     "\n  line +CMGS: 1\n  ok\n");
		send("AT+CMGS=3\r");
		EXPECT_EQ(send("0011\x1b"), c.answer);
		EXPECT_EQ(all_until(now_ + 1000), "");
		EXPECT_FALSE(modem_->in_text_entry());
		EXPECT_NE(send("AT\r"), "");
	}
}

// ------------------------------------------------------ long lines

TEST_F(ModemTest, OverlongLineIsRefusedAndTheModemCarriesOn)
{
	send("ATE0\r");
	const std::string head = "AT+LONG=";
	struct Case {
		size_t length;   // of the line, CR excluded
		size_t erase;    // backspaces typed after it
		const char *answer;
	} cases[] = {
		{max_command_line, 0, "\r\nOK\r\n"},
		{max_command_line + 1, 0, "\r\nERROR\r\n"},
		{64 * 1024, 0, "\r\nERROR\r\n"},
		{256 * 1024, 0, "\r\nERROR\r\n"},
		// Typed too far, then taken back within the limit.
		{max_command_line + 10, 10, "\r\nOK\r\n"},
		{max_command_line + 10, 9, "\r\nERROR\r\n"},
	};
	uint64_t refused = 0;
	for (const Case &c : cases) {
		SCOPED_TRACE(std::to_string(c.length) + " - " + std::to_string(c.erase));
		std::string line = head + std::string(c.length - head.size(), '7') + std::string(c.erase, '\b') + "\r";
		EXPECT_EQ(send(line), c.answer);
		if (std::string(c.answer).find("ERROR") != std::string::npos)
			refused++;
		EXPECT_EQ(modem_->stats().lines_too_long, refused);
		EXPECT_EQ(send("AT+CSQ\r"), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
	}
}

TEST_F(ModemTest, ManyLinesInOneWriteAreAllAnswered)
{
	send("ATE0\r");
	const size_t n = 64 * 1024 / 3;
	std::string lines;
	for (size_t i = 0; i < n; i++)
		lines += i % 2 ? "AT\r" : "AT+CSQ\r";
	std::string want;
	for (size_t i = 0; i < n; i++)
		want += i % 2 ? "\r\nOK\r\n" : "\r\n+CSQ: 20,99\r\n\r\nOK\r\n";
	uint64_t before = modem_->stats().lines_executed;
	EXPECT_EQ(send(lines), want);
	EXPECT_EQ(modem_->stats().lines_executed - before, n);
	EXPECT_EQ(modem_->pending_input(), 0u);
}

// ------------------------------------------------------ statistics

TEST_F(ModemTest, StatsKeepTheLastLinesAndCutLongOnes)
{
	send("ATE0\r");
	for (int i = 0; i < 20; i++)
		send("AT+LONG=" + std::to_string(i) + "\r");
	std::string big = "AT+LONG=" + std::string(100000, '9') + "\r";
	send(big);
	const LineStats &st = modem_->stats();
	ASSERT_GE(st.recent.size(), 2u);
	EXPECT_LE(st.recent.size(), 10u);
	EXPECT_EQ(st.recent[st.recent.size() - 2].bytes, "AT+LONG=19\r");
	const LineStats::Entry &last = st.recent.back();
	EXPECT_EQ(last.length, big.size());
	EXPECT_LT(last.bytes.size(), 1000u);
	EXPECT_EQ(big.compare(0, last.bytes.size(), last.bytes), 0);
}

// ------------------------------------------------------ modes

TEST_F(ModemTest, BootIsSilentThenSendsItsUrcs)
{
	load(small_scenario, true);
	EXPECT_EQ(modem_->mode(), Mode::booting);
	EXPECT_EQ(send("AT\r"), ""); // nobody home yet
	auto got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].first, 1500);
	EXPECT_EQ(got[0].second, "\r\nRDY\r\n");
	EXPECT_EQ(got[1].first, 1600);
	EXPECT_EQ(got[1].second, "\r\n+QIND: SMS DONE\r\n");
	EXPECT_EQ(modem_->mode(), Mode::normal);
	EXPECT_EQ(send("AT\r"), "AT\r\r\nOK\r\n"); // the AT sent while booting was dropped
}

TEST_F(ModemTest, RebootRestoresScenarioSettingsButKeepsOperatorOnes)
{
	send("ATE0\r");
	send("ATV0\r");
	modem_->set_var("csq", "5");
	modem_->reboot(now_);
	all_until(now_ + 1000);
	EXPECT_EQ(modem_->var("echo"), "1");
	EXPECT_EQ(modem_->var("verbose"), "1");
	EXPECT_EQ(modem_->var("csq"), "5");
}

TEST_F(ModemTest, CommandCanRestartTheModem)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+RESET\r"), "\r\nOK\r\n");
	EXPECT_EQ(modem_->mode(), Mode::booting);
	EXPECT_EQ(all_until(now_ + 1000), "\r\nRDY\r\n\r\n+QIND: SMS DONE\r\n");
	EXPECT_EQ(send("AT\r"), "AT\r\r\nOK\r\n");
}

TEST_F(ModemTest, HungModemAnswersNothingUntilUnhung)
{
	send("ATE0\r");
	modem_->hang(now_);
	EXPECT_EQ(send("AT\r"), "");
	EXPECT_EQ(all_until(now_ + 5000), "");
	modem_->unhang(now_);
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, HangDropsAnAnswerInProgress)
{
	send("ATE0\r");
	send("AT+SLOW\r");
	modem_->hang(now_);
	EXPECT_EQ(all_until(now_ + 2000), "");
}

TEST_F(ModemTest, HeldModemAnswersEverythingOnRelease)
{
	// Echo on: the echo is held back as well and comes with each answer.
	modem_->hold(now_);
	EXPECT_EQ(modem_->mode(), Mode::held);
	EXPECT_EQ(send("AT+CSQ\rATE0\r"), "");
	EXPECT_EQ(send("AT+SLOW\rAT+CREG?\r"), "");
	EXPECT_EQ(all_until(now_ + 10000), "");
	EXPECT_EQ(modem_->stats().lines_executed, 0u);
	EXPECT_EQ(modem_->pending_input(), 29u);
	modem_->release(now_);
	EXPECT_EQ(modem_->mode(), Mode::normal);
	// Each line's full answer, then the next line's, with the rules' own delays.
	EXPECT_EQ(modem_->take_output(), "AT+CSQ\r\r\n+CSQ: 20,99\r\n\r\nOK\r\nATE0\r\r\nOK\r\n");
	auto got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].first, 10000 + 1000 + 200);
	EXPECT_EQ(got[0].second, "\r\nfirst\r\n");
	EXPECT_EQ(got[1].second, "second\r\n\r\nOK\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, HoldFreezesAnAnswerInProgress)
{
	send("ATE0\r");
	send("AT+SLOW\r");
	EXPECT_EQ(all_until(now_ + 250), "\r\nfirst\r\n");
	modem_->hold(now_);
	EXPECT_EQ(modem_->next_deadline(), -1);
	EXPECT_EQ(all_until(now_ + 5000), "");
	modem_->release(now_);
	EXPECT_EQ(modem_->take_output(), "second\r\n\r\nOK\r\n");
}

TEST_F(ModemTest, HeldModemSendsNoUrcs)
{
	load("set echo 0\nevery 1s +CREG: 1\non AT\n  ok\n");
	modem_->hold(now_);
	modem_->inject_urc("+CMTI: \"SM\",1", now_);
	EXPECT_EQ(all_until(now_ + 3500), "");
	modem_->release(now_);
	// The injected URC was made before the stall; periodic ones are not caught up.
	EXPECT_EQ(modem_->take_output(), "\r\n+CMTI: \"SM\",1\r\n");
	auto got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].second, "\r\n+CREG: 1\r\n");
}

TEST_F(ModemTest, HoldAtThePromptKeepsTheText)
{
	send("ATE0\r");
	send("AT+CMGS=2\r");
	modem_->hold(now_);
	EXPECT_EQ(send("0102\x1a"), "");
	EXPECT_EQ(all_until(now_ + 1000), "");
	modem_->release(now_);
	EXPECT_EQ(all_until(now_ + 200), "\r\n+CMGS: 254\r\n\r\nOK\r\n");
	EXPECT_EQ(modem_->var("text"), "0102");
}

TEST_F(ModemTest, HeldInputIsBoundedAndDroppedByAModeChange)
{
	send("ATE0\r");
	modem_->hold(now_);
	send(std::string(max_pending_input + 1000, 'A'));
	EXPECT_EQ(modem_->pending_input(), max_pending_input);
	EXPECT_EQ(modem_->stats().bytes_received, 5u + max_pending_input + 1000);
	modem_->hang(now_); // a hang (like a boot) ends the stall and drops what it kept
	EXPECT_EQ(modem_->pending_input(), 0u);
	modem_->unhang(now_);
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
}

TEST_F(ModemTest, SlownessDelaysEveryAnswerUntilSetToZero)
{
	load(std::string("latency 30\n") + small_scenario);
	send("ATE0\r");
	all_until(now_ + 100);
	modem_->set_slowness(400);
	Ms t0 = now_;
	EXPECT_EQ(send("AT\r"), "");
	auto got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first - t0, 430);
	EXPECT_EQ(got[0].second, "\r\nOK\r\n");
	// The answer after a prompt waits too, before the rule's own delay.
	t0 = now_;
	EXPECT_EQ(send("AT+CMGS=2\r"), "");
	EXPECT_EQ(all_until(now_ + 430), "\r\n> ");
	send("00\x1a");
	got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first - t0, 430 + 430 + 100);
	modem_->set_slowness(0);
	t0 = now_;
	send("AT\r");
	got = run_until(now_ + 1000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first - t0, 30);
}

TEST_F(ModemTest, HungUpModemIsGoneForGood)
{
	send("ATE0\r");
	send("AT+SLOW\r");
	modem_->hang_up();
	EXPECT_EQ(modem_->mode(), Mode::hungup);
	EXPECT_EQ(modem_->next_deadline(), -1);
	send("AT\r");
	modem_->inject_urc("RING", now_);
	modem_->reboot(now_);
	modem_->hold(now_);
	modem_->power_down(now_);
	EXPECT_EQ(modem_->mode(), Mode::hungup);
	EXPECT_EQ(all_until(now_ + 5000), "");
}

TEST_F(ModemTest, PowerDownOnCommand)
{
	send("ATE0\r");
	EXPECT_EQ(send("AT+QPOWD\r"), "\r\nOK\r\n");
	EXPECT_EQ(modem_->mode(), Mode::off);
	EXPECT_EQ(all_until(now_ + 100), "\r\nPOWERED DOWN\r\n");
	EXPECT_EQ(send("AT\r"), "");
	EXPECT_EQ(all_until(now_ + 1000), "");
	modem_->unhang(now_); // only a boot brings it back
	EXPECT_EQ(modem_->mode(), Mode::off);
	modem_->reboot(now_);
	EXPECT_EQ(all_until(now_ + 1000), "\r\nRDY\r\n\r\n+QIND: SMS DONE\r\n");
	EXPECT_EQ(modem_->mode(), Mode::normal);
}

TEST_F(ModemTest, FotaAnswersNothingAndEndsWithABoot)
{
	send("ATE0\r");
	modem_->start_fota(now_);
	EXPECT_EQ(modem_->mode(), Mode::fota);
	EXPECT_EQ(send("AT\r"), "");
	auto got = run_until(now_ + 150);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].second, "\r\n+QIND: \"FOTA\",\"START\"\r\n");
	EXPECT_EQ(send("ATI\r"), "");
	EXPECT_EQ(all_until(now_ + 1000), "\r\n+QIND: \"FOTA\",\"END\",0\r\n\r\nRDY\r\n\r\n+QIND: SMS DONE\r\n");
	EXPECT_EQ(modem_->mode(), Mode::normal);
}

TEST_F(ModemTest, NextUrcCyclesThroughTheList)
{
	send("ATE0\r");
	EXPECT_TRUE(modem_->send_next_urc(now_));
	EXPECT_EQ(modem_->take_output(), "\r\n+CREG: 1\r\n");
	EXPECT_TRUE(modem_->send_next_urc(now_));
	EXPECT_EQ(modem_->take_output(), "\r\nRING\r\n");
	EXPECT_TRUE(modem_->send_next_urc(now_));
	EXPECT_EQ(modem_->take_output(), "\r\n+CREG: 1\r\n");
}

TEST_F(ModemTest, InjectedUrcWaitsForTheAnswerInProgress)
{
	send("ATE0\r");
	send("AT+SLOW\r");
	modem_->inject_urc("+CREG: 5", now_);
	EXPECT_EQ(all_until(now_ + 1000), "\r\nfirst\r\nsecond\r\n\r\nOK\r\n\r\n+CREG: 5\r\n");
}

// ------------------------------------------------- conditions, actions, timers

TEST_F(ModemTest, IfChoosesTheBlockByItsComparison)
{
	struct Case {
		const char *cond;
		const char *x;
		bool yes;
	} cases[] = {
		{"x = abc", "abc", true},      {"x = abc", "abcd", false},   {"x != abc", "abc", false},
		{"x = ", "", true},            {"x = {y}", "seven", true},   {"x != {y}", "eight", true},
		{"x < 10", "9", true},         {"x < 10", "10", false},      {"x <= 10", "10", true},
		{"x > 2", "10", true}, // numbers, not texts: "10" sorts before "2"
		{"x >= 3", "-1", false},       {"x > -2", "-1", true},       {"x = 0", "0", true},
		{"x ~ +49*", "+4917012", true}, {"x ~ +49*", "0170", false}, {"x ~ [0-2]", "2", true},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(std::string(c.cond) + " with x=" + c.x);
		load(std::string("set echo 0\nset y seven\non AT+IF\n  if ") + c.cond +
		     "\n    line yes\n  else\n    line no\n  ok\n");
		modem_->set_var("x", c.x);
		EXPECT_EQ(send("AT+IF\r"), c.yes ? "\r\nyes\r\n\r\nOK\r\n" : "\r\nno\r\n\r\nOK\r\n");
	}
}

TEST_F(ModemTest, NestedBlocksAndStop)
{
	load("set echo 0\n"
	     "on AT+T=[01],[01]\n"
	     "  set a $1\n"
	     "  set b $2\n"
	     "  if a = 1\n"
	     "    if b = 1\n"
	     "      line both\n"
	     "      ok\n"
	     "      stop\n"
	     "    line only a\n"
	     "  line end\n"
	     "  ok\n");
	struct Case {
		const char *cmd;
		const char *answer;
	} cases[] = {
		{"AT+T=1,1\r", "\r\nboth\r\n\r\nOK\r\n"}, // stop skips the rest of the rule
		{"AT+T=1,0\r", "\r\nonly a\r\nend\r\n\r\nOK\r\n"},
		{"AT+T=0,1\r", "\r\nend\r\n\r\nOK\r\n"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.cmd);
		EXPECT_EQ(send(c.cmd), c.answer);
	}
}

TEST_F(ModemTest, CapturesNameVariables)
{
	load("set echo 0\n"
	     "set apn1 internet\n"
	     "on AT+APN=[1-3],\"*\"\n"
	     "  set apn$1 $2\n"
	     "  ok\n"
	     "on AT+APN?\n"
	     "  do show 1\n"
	     "  do show 2\n"
	     "  do show 3\n"
	     "  ok\n"
	     "on AT+COUNT=[1-3]\n"
	     "  add n$1 1\n"
	     "  ok\n"
	     "action show\n"
	     "  if apn$1 !=\n"
	     "    line +APN: $1,\"{apn$1}\"\n");
	EXPECT_EQ(send("AT+APN?\r"), "\r\n+APN: 1,\"internet\"\r\n\r\nOK\r\n");
	EXPECT_EQ(send("AT+APN=3,\"ims\"\r"), "\r\nOK\r\n");
	EXPECT_EQ(send("AT+APN?\r"), "\r\n+APN: 1,\"internet\"\r\n+APN: 3,\"ims\"\r\n\r\nOK\r\n");
	send("AT+COUNT=2\r");
	send("AT+COUNT=2\r");
	EXPECT_EQ(modem_->var("n2"), "2");
	EXPECT_EQ(modem_->var("n1"), "");
}

TEST_F(ModemTest, ActionsRunInsideTheAnswerAndStopEndsOnlyTheAction)
{
	load("set echo 0\n"
	     "on AT+GO=*\n"
	     "  ok\n"
	     "  do note $1 two\n"
	     "  urc after\n"
	     "on AT+LOOP\n"
	     "  do loop\n"
	     "  ok\n"
	     "action note\n"
	     "  urc +NOTE: $1,$2\n"
	     "  if $1 = quiet\n"
	     "    stop\n"
	     "  urc +LOUD\n"
	     "action loop\n"
	     "  add depth 1\n"
	     "  do loop\n");
	EXPECT_EQ(send("AT+GO=quiet\r"), "\r\nOK\r\n\r\n+NOTE: quiet,two\r\n\r\nafter\r\n");
	EXPECT_EQ(send("AT+GO=x\r"), "\r\nOK\r\n\r\n+NOTE: x,two\r\n\r\n+LOUD\r\n\r\nafter\r\n");
	// An action that calls itself ends instead of running away.
	EXPECT_EQ(send("AT+LOOP\r"), "\r\nOK\r\n");
	EXPECT_GT(std::stol(modem_->var("depth")), 1);
}

TEST_F(ModemTest, ActionsRunByTheOperatorChangeStateAndSendUrcs)
{
	load("set echo 0\n"
	     "set call none\n"
	     "on AT+CLCC\n"
	     "  if call = ringing\n"
	     "    line +CLCC: 1,1,4,0,0,\"{number}\",145\n"
	     "  ok\n"
	     "action call_in\n"
	     "  set call ringing\n"
	     "  set number $1\n"
	     "  urc RING\n");
	EXPECT_TRUE(modem_->run_action("call_in", "+491701234567", now_));
	EXPECT_EQ(modem_->take_output(), "\r\nRING\r\n");
	EXPECT_EQ(send("AT+CLCC\r"), "\r\n+CLCC: 1,1,4,0,0,\"+491701234567\",145\r\n\r\nOK\r\n");
	EXPECT_FALSE(modem_->run_action("nothing", "", now_));
	// A hung modem sends nothing, but the world changes all the same.
	modem_->hang(now_);
	EXPECT_TRUE(modem_->run_action("call_in", "+4930", now_));
	EXPECT_EQ(all_until(now_ + 1000), "");
	EXPECT_EQ(modem_->var("number"), "+4930");
}

const char timer_scenario[] = R"(set echo 0
set call none
boot
  urc RDY
on AT+CUSD=1,"*"
  ok
  after 1s
    urc +CUSD: 0,"answer to $1",15
on AT+RING
  set call ringing
  ok
  do ring
on AT+CHUP
  set call none
  cancel ring
  ok
on AT+NAMED
  ok
  after 500 named
    urc FIRST
  after 800 named
    urc SECOND
action ring
  if call != ringing
    stop
  urc RING
  after 3s ring
    do ring
)";

TEST_F(ModemTest, AfterRunsItsBlockLaterOnTheClock)
{
	load(timer_scenario);
	EXPECT_EQ(send("AT+CUSD=1,\"*100#\"\r"), "\r\nOK\r\n");
	auto got = run_until(now_ + 3000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first, 2000);
	EXPECT_EQ(got[0].second, "\r\n+CUSD: 0,\"answer to *100#\",15\r\n");
}

TEST_F(ModemTest, RepeatingTimerUntilCancelled)
{
	load(timer_scenario);
	EXPECT_EQ(send("AT+RING\r"), "\r\nOK\r\n\r\nRING\r\n");
	auto got = run_until(now_ + 7000); // rings at +3s and +6s
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].first, 4000);
	EXPECT_EQ(got[1].first, 7000);
	EXPECT_EQ(modem_->timers(), std::vector<std::string>{"ring"});
	EXPECT_EQ(send("AT+CHUP\r"), "\r\nOK\r\n");
	EXPECT_TRUE(modem_->timers().empty());
	EXPECT_EQ(all_until(now_ + 10000), "");
}

TEST_F(ModemTest, ANamedTimerStartedAgainReplacesThePendingOne)
{
	load(timer_scenario);
	send("AT+NAMED\r");
	auto got = run_until(now_ + 2000);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_EQ(got[0].first, 1800);
	EXPECT_EQ(got[0].second, "\r\nSECOND\r\n");
}

TEST_F(ModemTest, ResetsDropPendingTimers)
{
	struct Case {
		const char *name;
		void (*act)(Modem &, Ms);
		const char *output; // what follows within ten seconds
	} cases[] = {
		{"boot", [](Modem &m, Ms now) { m.reboot(now); }, "\r\nRDY\r\n"},
		{"hang", [](Modem &m, Ms now) { m.hang(now); }, ""},
		{"powerdown", [](Modem &m, Ms now) { m.power_down(now); }, "\r\nPOWERED DOWN\r\n"},
		{"fota", [](Modem &m, Ms now) { m.start_fota(now); }, ""}, // no fota block: no URCs
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		load(timer_scenario);
		send("AT+RING\r");
		send("AT+CUSD=1,\"*100#\"\r");
		ASSERT_EQ(modem_->timers().size(), 2u);
		c.act(*modem_, now_);
		EXPECT_TRUE(modem_->timers().empty());
		EXPECT_EQ(modem_->take_output() + all_until(now_ + 10000), c.output);
	}
}

TEST_F(ModemTest, KeptVariablesSurviveABoot)
{
	load("keep pin_left\nset pin_left 3\nset creg_n 0\n"
	     "on AT+WRONG\n  add pin_left -1\n  set creg_n 2\n  ok\n");
	send("AT+WRONG\r");
	send("AT+WRONG\r");
	modem_->reboot(now_);
	all_until(now_ + 1000);
	EXPECT_EQ(modem_->var("pin_left"), "1"); // on the SIM
	EXPECT_EQ(modem_->var("creg_n"), "0");   // a setting of the modem
	// The operator's value is taken, and later changes still win over it.
	modem_->set_var("pin_left", "3");
	send("AT+WRONG\r");
	modem_->reboot(now_);
	all_until(now_ + 1000);
	EXPECT_EQ(modem_->var("pin_left"), "2");
}

// ------------------------------------------ the shipped EC25 scenario

class Ec25Test : public ModemTest {
protected:
	void SetUp() override
	{
		Scenario sc;
		std::string err;
		ASSERT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/ec25.scn", &sc,
					  &err))
			<< err;
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(now_, false);
		send("ATE0V1\r");
		all_until(now_ + 100);
	}

	std::string ask(const std::string &cmd)
	{
		std::string out = send(cmd);
		return out + all_until(now_ + 3000);
	}
};

TEST_F(Ec25Test, IdentificationAnswers)
{
	struct Case {
		const char *cmd;
		const char *answer;
	} cases[] = {
		{"ATI\r", "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n"},
		{"AT+GMR\r", "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n"},
		{"AT+QGMR\r", "\r\nEC25EFAR06A06M4G_01.001.01.001\r\n\r\nOK\r\n"},
		{"AT+GSN\r", "\r\n866758041234564\r\n\r\nOK\r\n"},
		{"AT+CGSN\r", "\r\n866758041234564\r\n\r\nOK\r\n"},
		{"AT+CIMI\r", "\r\n262011234567890\r\n\r\nOK\r\n"},
		{"AT+QCCID\r", "\r\n+QCCID: 8949020000012345670\r\n\r\nOK\r\n"},
		{"AT+CFUN?\rAT+CPIN?\r", "\r\n+CFUN: 1\r\n\r\nOK\r\n\r\n+CPIN: READY\r\n\r\nOK\r\n"},
		{"AT+CMEE?\r", "\r\n+CMEE: 1\r\n\r\nOK\r\n"},
		{"AT+CSCS?\r", "\r\n+CSCS: \"GSM\"\r\n\r\nOK\r\n"},
		{"AT+CSQ\r", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n"},
		{"AT+CEREG?\r", "\r\n+CEREG: 0,1\r\n\r\nOK\r\n"},
		{"AT+COPS?\r", "\r\n+COPS: 0,0,\"Telekom.de\",7\r\n\r\nOK\r\n"},
		{"AT+QCFG=\"band\"\r", "\r\n+QCFG: \"band\",0xd3,0x1a0000800d5,0x0\r\n\r\nOK\r\n"},
		{"AT+C5GREG?\r", "\r\nERROR\r\n"}, // an LTE modem has no 5G registration
		{"AT+CPMS?", ""},                   // no CR, no answer
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.cmd);
		EXPECT_EQ(ask(c.cmd), c.answer);
	}
}

TEST_F(Ec25Test, RegistrationReportsFollowTheirMode)
{
	EXPECT_EQ(ask("AT+CEREG=2\r"), "\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CEREG?\r"), "\r\n+CEREG: 2,1,\"1A2B\",\"01A2B3C4\",7\r\n\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CEREG=3\r"), "\r\nERROR\r\n");
	EXPECT_EQ(ask("AT+COPS=3,2\r"), "\r\nOK\r\n");
	EXPECT_EQ(ask("AT+COPS?\r"), "\r\n+COPS: 0,2,\"26201\",7\r\n\r\nOK\r\n");
}

TEST_F(Ec25Test, SmsFormatAndStoredMessages)
{
	EXPECT_EQ(ask("AT+CMGF?\r"), "\r\n+CMGF: 0\r\n\r\nOK\r\n");
	std::string list = ask("AT+CMGL=4\r");
	EXPECT_EQ(list.rfind("\r\n+CMGL: 0,1,,45\r\n0791947101670000040C91", 0), 0u);
	EXPECT_NE(list.find("\r\n+CMGL: 1,1,,37\r\n"), std::string::npos);
	EXPECT_EQ(ask("AT+CMGF=1\r"), "\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CMGF?\r"), "\r\n+CMGF: 1\r\n\r\nOK\r\n");
	// In text mode the PDU listing is refused and the text listing works.
	EXPECT_EQ(ask("AT+CMGL=4\r"), "\r\n+CMS ERROR: 302\r\n");
	EXPECT_NE(ask("AT+CMGL=\"ALL\"\r").find("Hello from the simulated EC25\r\n"), std::string::npos);
	EXPECT_EQ(ask("AT+CMGF=2\r"), "\r\nERROR\r\n");
}

TEST_F(Ec25Test, SimRemovedByTheOperator)
{
	modem_->set_var("sim", "absent");
	EXPECT_EQ(ask("AT+CPIN?\r"), "\r\n+CME ERROR: 10\r\n");
	EXPECT_EQ(ask("AT+CIMI\r"), "\r\n+CME ERROR: 10\r\n");
	EXPECT_EQ(ask("AT+CMGS=23\r"), "\r\n+CMS ERROR: 310\r\n");
	EXPECT_EQ(ask("AT+CMGL=4\r"), "\r\n+CMS ERROR: 310\r\n");
}

TEST_F(Ec25Test, OperatorScanArrivesInPieces)
{
	send("AT+COPS=?\r");
	auto got = run_until(now_ + 4000);
	ASSERT_EQ(got.size(), 3u);
	std::string all = got[0].second + got[1].second + got[2].second;
	EXPECT_EQ(got[0].second.size(), 64u);
	EXPECT_EQ(all, "\r\n+COPS: (2,\"Telekom.de\",\"TDG\",\"26201\",7),(1,\"Vodafone.de\",\"Vodafone\",\"26202\",7),"
		       "(3,\"o2 - de\",\"o2 - de\",\"26203\",7),,(0,1,2,3,4),(0,1,2)\r\n\r\nOK\r\n");
	EXPECT_GE(got[0].first - 1000, 2000);
	EXPECT_GE(got[2].first - got[0].first, 1000); // a few seconds in all
}

TEST_F(Ec25Test, CommandLinesAtTheSmsPromptAreText)
{
	EXPECT_EQ(ask("AT+CMGS=23\r"), "\r\n> ");
	uint64_t executed = modem_->stats().lines_executed;
	EXPECT_STREQ(modem_->state_name(), "prompt");
	// Each line gets a new prompt; none of them runs.
	EXPECT_EQ(ask("AT+CFUN=0\r"), "\r\n> ");
	EXPECT_EQ(ask("AT+QPOWD\r"), "\r\n> ");
	EXPECT_EQ(modem_->stats().lines_executed, executed);
	EXPECT_EQ(modem_->var("cfun"), "1");
	EXPECT_EQ(modem_->mode(), Mode::normal);
	// Quectel answers ESC at the prompt with OK and sends nothing.
	EXPECT_EQ(ask("\x1b"), "\r\nOK\r\n");
	EXPECT_EQ(modem_->var("mr"), "41");
	EXPECT_EQ(ask("AT+CFUN?\r"), "\r\n+CFUN: 1\r\n\r\nOK\r\n");
}

TEST_F(Ec25Test, CtrlZEndsTheTextAndSends)
{
	EXPECT_EQ(ask("AT+CMGS=23\r"), "\r\n> ");
	EXPECT_EQ(ask("AT+CFUN=0\r"), "\r\n> ");
	// The line became part of the PDU, which is then no PDU at all.
	EXPECT_EQ(ask("0011\x1a"), "\r\n+CMS ERROR: 304\r\n");
	EXPECT_EQ(modem_->var("text"), "AT+CFUN=0\r0011");
	EXPECT_EQ(modem_->var("cfun"), "1");
	EXPECT_STREQ(modem_->state_name(), "normal");
}

TEST_F(Ec25Test, EscCancelsInTextModeToo)
{
	EXPECT_EQ(ask("AT+CMGF=1\r"), "\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CMGS=\"+4917012345\"\r"), "\r\n> ");
	EXPECT_EQ(ask("Hello\x1b"), "\r\nOK\r\n");
	EXPECT_EQ(modem_->var("mr"), "41");
}

TEST_F(Ec25Test, PinEntryUnlocksTheSim)
{
	modem_->set_var("cpin", "SIM PIN");
	EXPECT_EQ(ask("AT+CPIN?\r"), "\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n");
	std::string out = ask("AT+CPIN=\"1234\"\r");
	EXPECT_EQ(out.rfind("\r\nOK\r\n\r\n+CPIN: READY\r\n", 0), 0u);
	EXPECT_EQ(ask("AT+CPIN?\r"), "\r\n+CPIN: READY\r\n\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CPIN=\"1234\"\r"), "\r\n+CME ERROR: 3\r\n");
}

// Exchanges with the EC25 state model. Each step sends a command line (or
// runs an operator action, "do name args"), lets the clock run for `wait`
// milliseconds and expects exactly the bytes that came meanwhile.
struct Step {
	const char *input;
	Ms wait;
	const char *output;
};

class Ec25StateTest : public Ec25Test {
protected:
	void play(const std::vector<Step> &steps)
	{
		for (const Step &st : steps) {
			SCOPED_TRACE(st.input);
			std::string in = st.input;
			std::string out;
			if (in.rfind("ctl ", 0) == 0) {
				std::string reply = run_control(*modem_, in.substr(4), now_).text;
				ASSERT_EQ(reply.substr(reply.size() - 3), "OK\n") << reply;
				out = modem_->take_output();
			} else if (in.rfind("do ", 0) == 0) {
				std::string rest = in.substr(3);
				size_t sp = rest.find(' ');
				ASSERT_TRUE(modem_->run_action(rest.substr(0, sp),
							       sp == std::string::npos ? "" : rest.substr(sp + 1), now_));
				out = modem_->take_output();
			} else {
				out = send(in + "\r");
			}
			out += all_until(now_ + st.wait);
			EXPECT_EQ(out, st.output);
		}
	}
};

TEST_F(Ec25StateTest, ThreeWrongPinsAskForThePukWhichSetsANewPin)
{
	play({
		{"AT+CLCK=\"SC\",1,\"1234\"", 100, "\r\nOK\r\n"},
		{"AT+CLCK=\"SC\",2", 100, "\r\n+CLCK: 1\r\n\r\nOK\r\n"},
	});
	modem_->reboot(now_);
	all_until(now_ + 3000);
	play({
		{"ATE0", 100, "ATE0\r\r\nOK\r\n"},
		{"AT+CPIN?", 100, "\r\n+CPIN: SIM PIN\r\n\r\nOK\r\n"},
		{"AT+CREG?", 100, "\r\n+CREG: 0,0\r\n\r\nOK\r\n"}, // no registration without the PIN
		{"AT+CPIN=\"1111\"", 100, "\r\n+CME ERROR: 16\r\n"},
		{"AT+QPINC=\"SC\"", 100, "\r\n+QPINC: \"SC\",2,10\r\n\r\nOK\r\n"},
		{"AT+CPIN=\"2222\"", 100, "\r\n+CME ERROR: 16\r\n"},
		{"AT+CPIN=\"3333\"", 100, "\r\n+CME ERROR: 16\r\n\r\n+CPIN: SIM PUK\r\n"},
		{"AT+CPIN?", 100, "\r\n+CPIN: SIM PUK\r\n\r\nOK\r\n"},
		{"AT+CPIN=\"1234\"", 100, "\r\n+CME ERROR: 12\r\n"}, // the right PIN is too late
		{"AT+CPIN=\"87654321\",\"4321\"", 100, "\r\n+CME ERROR: 16\r\n"},
		{"AT+QPINC=\"SC\"", 100, "\r\n+QPINC: \"SC\",0,9\r\n\r\nOK\r\n"},
		{"AT+CMEE=2", 100, "\r\nOK\r\n"},
		{"AT+CPIN=\"12345678\",\"4321\"", 1500,
		 "\r\nOK\r\n\r\n+CPIN: READY\r\n\r\n+QUSIM: 1\r\n\r\n+QIND: SMS DONE\r\n"},
		{"AT+CREG?", 100, "\r\n+CREG: 0,1\r\n\r\nOK\r\n"},
		{"AT+QPINC=\"SC\"", 100, "\r\n+QPINC: \"SC\",3,10\r\n\r\nOK\r\n"},
		{"AT+CLCK=\"SC\",0,\"1234\"", 100, "\r\n+CME ERROR: incorrect password\r\n"},
		{"AT+CLCK=\"SC\",0,\"4321\"", 100, "\r\nOK\r\n"},
		{"AT+CPWD=\"SC\",\"4321\",\"5678\"", 100, "\r\n+CME ERROR: operation not allowed\r\n"}, // lock off
	});
}

TEST_F(Ec25StateTest, PinChangeAndTheSimComingAndGoing)
{
	play({
		{"AT+CLCK=\"SC\",1,\"1234\"", 100, "\r\nOK\r\n"},
		{"AT+CPWD=\"SC\",\"0000\",\"5678\"", 100, "\r\n+CME ERROR: 16\r\n"},
		{"AT+CPWD=\"SC\",\"1234\",\"5678\"", 100, "\r\nOK\r\n"},
		{"AT+QPINC=\"SC\"", 100, "\r\n+QPINC: \"SC\",3,10\r\n\r\nOK\r\n"}, // the right PIN resets the count
		{"AT+CREG=1", 100, "\r\nOK\r\n"},
		{"do sim_out", 100, "\r\n+CPIN: NOT READY\r\n\r\n+CREG: 0\r\n"},
		{"AT+CPIN?", 100, "\r\n+CME ERROR: 10\r\n"},
		{"AT+CLCK=\"SC\",2", 100, "\r\n+CME ERROR: 10\r\n"},
		{"do sim_in", 100, "\r\n+CPIN: SIM PIN\r\n"}, // the lock is on
		{"AT+CPIN=\"5678\"", 1500,
		 "\r\nOK\r\n\r\n+CPIN: READY\r\n\r\n+QUSIM: 1\r\n\r\n+QIND: SMS DONE\r\n\r\n+CREG: 1\r\n"},
	});
}

TEST_F(Ec25StateTest, RadioOffDeregistersAndRadioOnRegistersAgain)
{
	play({
		{"AT+CREG=2;+CEREG=1", 100, "\r\nOK\r\n"},
		{"AT+CFUN=0", 100, "\r\nOK\r\n\r\n+CREG: 0\r\n\r\n+CEREG: 0\r\n"},
		{"AT+CREG?;+CGREG?", 100, "\r\n+CREG: 2,0\r\n\r\n+CGREG: 0,0\r\n\r\nOK\r\n"},
		{"AT+CPIN?", 100, "\r\n+CPIN: READY\r\n\r\nOK\r\n"}, // the SIM is still there
		{"AT+CSQ", 100, "\r\n+CSQ: 99,99\r\n\r\nOK\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0\r\n\r\nOK\r\n"},
		{"AT+CGACT?", 100, "\r\n+CGACT: 1,0\r\n+CGACT: 2,0\r\n\r\nOK\r\n"},
		{"AT+CFUN=1", 2500,
		 "\r\nOK\r\n\r\n+CREG: 2\r\n\r\n+CEREG: 2\r\n\r\n+CREG: 1,\"1A2B\",\"01A2B3C4\",7\r\n\r\n+CEREG: 1\r\n"},
		{"AT+CFUN?;+CEREG?", 100, "\r\n+CFUN: 1\r\n\r\n+CEREG: 1,1\r\n\r\nOK\r\n"},
		{"AT+CGACT?", 100, "\r\n+CGACT: 1,1\r\n+CGACT: 2,0\r\n\r\nOK\r\n"}, // the default bearer is back
		{"AT+CFUN=4", 100, "\r\nOK\r\n\r\n+CREG: 0\r\n\r\n+CEREG: 0\r\n"},
	});
}

TEST_F(Ec25StateTest, TheNetworkChangesUnderTheModem)
{
	play({
		{"do network_lost", 100, ""}, // report modes are 0 after boot
		{"AT+CREG=2;+CGREG=1;+CEREG=2", 100, "\r\nOK\r\n"},
		{"AT+CREG?", 100, "\r\n+CREG: 2,2\r\n\r\nOK\r\n"},
		{"do network_back", 100,
		 "\r\n+CREG: 1,\"1A2B\",\"01A2B3C4\",7\r\n\r\n+CGREG: 1\r\n\r\n+CEREG: 1,\"1A2B\",\"01A2B3C4\",7\r\n"},
		{"do roaming", 100,
		 "\r\n+CREG: 5,\"1A2B\",\"01A2B3C4\",7\r\n\r\n+CGREG: 5\r\n\r\n+CEREG: 5,\"1A2B\",\"01A2B3C4\",7\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0,0,\"A1\",7\r\n\r\nOK\r\n"},
		{"do denied", 100, "\r\n+CREG: 3\r\n\r\n+CGREG: 3\r\n\r\n+CEREG: 3\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0\r\n\r\nOK\r\n"},
		{"do denied", 100, ""}, // no change, no URC
		{"do network_back", 100,
		 "\r\n+CREG: 1,\"1A2B\",\"01A2B3C4\",7\r\n\r\n+CGREG: 1\r\n\r\n+CEREG: 1,\"1A2B\",\"01A2B3C4\",7\r\n"},
	});
}

TEST_F(Ec25StateTest, OperatorSelection)
{
	play({
		{"AT+CREG=1", 100, "\r\nOK\r\n"},
		{"AT+COPS=1,2,\"26202\"", 1100, "\r\nOK\r\n\r\n+CREG: 5\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 1,0,\"Vodafone.de\",7\r\n\r\nOK\r\n"},
		{"AT+COPS=3,1;+COPS?", 100, "\r\n+COPS: 1,1,\"Vodafone\",7\r\n\r\nOK\r\n"},
		{"AT+COPS=1,2,\"26203\"", 1100, "\r\n+CME ERROR: 30\r\n"}, // forbidden
		{"AT+COPS=1,2,\"99999\"", 1100, "\r\n+CME ERROR: 30\r\n"},
		{"AT+COPS=0", 100, "\r\nOK\r\n\r\n+CREG: 1\r\n"},
		{"AT+COPS=3,2;+COPS?", 100, "\r\n+COPS: 0,2,\"26201\",7\r\n\r\nOK\r\n"},
		{"AT+COPS=2", 100, "\r\nOK\r\n\r\n+CREG: 0\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 2\r\n\r\nOK\r\n"},
		{"AT+COPS=0,0", 100, "\r\nOK\r\n\r\n+CREG: 1\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0,0,\"Telekom.de\",7\r\n\r\nOK\r\n"},
	});
}

TEST_F(Ec25StateTest, PdpContextsDefinedActivatedAndRemoved)
{
	const char *v6 = "0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0";
	std::string listing = std::string("\r\n+CGDCONT: 1,\"IPV4V6\",\"internet.telekom\",\"") + v6 +
			      "\",0,0,0,0\r\n+CGDCONT: 2,\"IPV4V6\",\"ims\",\"" + v6 +
			      "\",0,0,0,0\r\n+CGDCONT: 3,\"IP\",\"m2m.example\",\"0.0.0.0\",0,0,0,0\r\n\r\nOK\r\n";
	play({
		{"AT+CGDCONT=3,\"IP\",\"m2m.example\"", 100, "\r\nOK\r\n"},
		{"AT+CGDCONT?", 100, listing.c_str()},
		{"AT+CGDCONT=3,\"X25\",\"old\"", 100, "\r\n+CME ERROR: 3\r\n"},
		{"AT+CGACT=1,3", 100, "\r\nOK\r\n"},
		{"AT+CGACT?", 100, "\r\n+CGACT: 1,1\r\n+CGACT: 2,0\r\n+CGACT: 3,1\r\n\r\nOK\r\n"},
		{"AT+CGPADDR=3", 100, "\r\n+CGPADDR: 3,\"10.68.12.36\"\r\n\r\nOK\r\n"},
		{"AT+CGPADDR", 100,
		 "\r\n+CGPADDR: 1,\"10.68.12.34\",\"38.1.4.128.112.5.0.0.0.0.0.0.0.0.0.1\"\r\n"
		 "+CGPADDR: 2,\"0.0.0.0\",\"0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0\"\r\n+CGPADDR: 3,\"10.68.12.36\"\r\n\r\nOK\r\n"},
		{"AT+CGCONTRDP=3", 100,
		 "\r\n+CGCONTRDP: 3,7,\"m2m.example\",\"10.68.12.36.255.255.255.0\",\"10.68.12.33\",\"10.74.210.210\","
		 "\"10.74.210.211\"\r\n\r\nOK\r\n"},
		{"AT+CGDCONT=3", 100, "\r\n+CME ERROR: 3\r\n"}, // active
		{"AT+CGACT=0,3;+CGDCONT=3", 100, "\r\nOK\r\n"},
		{"AT+CGPADDR=3;+CGACT?", 100, "\r\n+CGACT: 1,1\r\n+CGACT: 2,0\r\n\r\nOK\r\n"},
		{"AT+CGATT=0", 100, "\r\nOK\r\n"},
		{"AT+CGATT?;+CGACT?;+CGREG?", 100,
		 "\r\n+CGATT: 0\r\n\r\n+CGACT: 1,0\r\n+CGACT: 2,0\r\n\r\n+CGREG: 0,0\r\n\r\nOK\r\n"},
		{"AT+CREG?", 100, "\r\n+CREG: 0,1\r\n\r\nOK\r\n"}, // still registered for calls and SMS
		{"AT+CGACT=1,2", 1100, "\r\n+CME ERROR: 30\r\n"},
		{"AT+CGATT=1", 100, "\r\nOK\r\n"},
		{"AT+CGATT?;+CGACT?", 100, "\r\n+CGATT: 1\r\n\r\n+CGACT: 1,1\r\n+CGACT: 2,0\r\n\r\nOK\r\n"},
	});
}

TEST_F(Ec25StateTest, IncomingCallRingsUntilAnswered)
{
	play({
		{"ATA", 100, "\r\nNO CARRIER\r\n"}, // nothing to answer
		{"AT+CLIP=1", 100, "\r\nOK\r\n"},
		{"AT+CLIP?", 100, "\r\n+CLIP: 1,1\r\n\r\nOK\r\n"},
		{"do call_in +491701234567", 100, "\r\nRING\r\n\r\n+CLIP: \"+491701234567\",145,,,,0\r\n"},
		{"AT+CLCC", 100, "\r\n+CLCC: 1,1,4,0,0,\"+491701234567\",145\r\n\r\nOK\r\n"},
		{"AT+CPAS", 2800, "\r\n+CPAS: 3\r\n\r\nOK\r\n\r\nRING\r\n\r\n+CLIP: \"+491701234567\",145,,,,0\r\n"},
		{"ATA", 100, "\r\nOK\r\n"},
		{"AT+CLCC;+CPAS", 6000, "\r\n+CLCC: 1,1,0,0,0,\"+491701234567\",145\r\n\r\n+CPAS: 4\r\n\r\nOK\r\n"},
		{"do call_end", 100, "\r\nNO CARRIER\r\n"},
		{"AT+CLCC;+CPAS", 100, "\r\n+CPAS: 0\r\n\r\nOK\r\n"},
		{"AT+CRC=1;+CLIP=0", 100, "\r\nOK\r\n"},
		{"do call_in 01701234567", 3100, "\r\n+CRING: VOICE\r\n\r\n+CRING: VOICE\r\n"},
		{"AT+CLCC", 100, "\r\n+CLCC: 1,1,4,0,0,\"01701234567\",129\r\n\r\nOK\r\n"},
		{"AT+CHUP", 6000, "\r\nOK\r\n"}, // and no more rings
	});
}

TEST_F(Ec25StateTest, DialledCall)
{
	play({
		{"ATD+491609876543;", 100, "\r\nOK\r\n"},
		{"AT+CLCC", 100, "\r\n+CLCC: 1,0,0,0,0,\"+491609876543\",145\r\n\r\nOK\r\n"},
		{"do call_in +4930123", 100, ""}, // busy: the second call is not offered
		{"ATH", 100, "\r\nOK\r\n"},
		{"AT+CFUN=4", 100, "\r\nOK\r\n"},
		{"ATD0301234;", 100, "\r\nNO CARRIER\r\n"},
	});
}

TEST_F(Ec25StateTest, UssdAnswerComesAfterTheOk)
{
	send("AT+CUSD=1,\"*100#\",15\r");
	auto got = run_until(now_ + 2000);
	ASSERT_EQ(got.size(), 2u);
	EXPECT_EQ(got[0].second, "\r\nOK\r\n");
	EXPECT_EQ(got[1].first - got[0].first, 995); // a second after the command, OK after 5 ms latency
	EXPECT_EQ(got[1].second, "\r\n+CUSD: 0,\"Guthaben: 12,34 EUR\",15\r\n");
	play({
		{"AT+CUSD?", 100, "\r\n+CUSD: 1\r\n\r\nOK\r\n"},
		{"AT+CUSD=1,\"*135#\",15", 1100, "\r\nOK\r\n\r\n+CUSD: 4\r\n"}, // not a code of this network
		{"AT+CUSD=1,\"*100#\",15", 100, "\r\nOK\r\n"},
		{"AT+CUSD=2", 2000, "\r\nOK\r\n"}, // cancelled: no answer follows
		{"do network_lost", 100, ""},
		{"AT+CUSD=1,\"*100#\",15", 2000, "\r\n+CME ERROR: 30\r\n"},
	});
}

TEST_F(Ec25StateTest, SimpleSettings)
{
	play({
		{"AT+CTZU?", 100, "\r\n+CTZU: 1\r\n\r\nOK\r\n"},
		{"AT+CTZU=3;+CTZU?", 100, "\r\n+CTZU: 3\r\n\r\nOK\r\n"},
		{"AT+CTZU=2", 100, "\r\nERROR\r\n"},
		{"AT+CRC?", 100, "\r\n+CRC: 0\r\n\r\nOK\r\n"},
		{"AT+GCAP", 100, "\r\n+GCAP: +CGSM\r\n\r\nOK\r\n"},
		{"AT+CMEE=2;+CMEE?", 100, "\r\n+CMEE: 2\r\n\r\nOK\r\n"},
		{"AT+CPAS", 100, "\r\n+CPAS: 0\r\n\r\nOK\r\n"},
	});
}

TEST_F(Ec25StateTest, MessageStore)
{
	// The scenario's messages: two read, two parts from "Telekom", an unread UCS-2 one.
	std::string list = ask("AT+CMGL=4\r");
	for (const char *head : {"\r\n+CMGL: 0,1,,45\r\n", "\r\n+CMGL: 1,1,,37\r\n", "\r\n+CMGL: 2,1,,160\r\n",
				 "\r\n+CMGL: 3,1,,75\r\n", "\r\n+CMGL: 4,0,,122\r\n"})
		EXPECT_NE(list.find(head), std::string::npos) << head;
	play({
		{"ctl sms deliver Shop a\\u{1F600}\\n", 100, "\r\n+CMTI: \"ME\",5\r\n"},
		{"AT+CNMI=2,0", 100, "\r\nOK\r\n"},
		{"ctl sms pdu 00040B917238880900F10000993092516195800AE8329BFD4697D9EC37", 100, ""},
		{"AT+CPMS?", 100, "\r\n+CPMS: \"ME\",7,255,\"ME\",7,255,\"ME\",7,255\r\n\r\nOK\r\n"},
		{"AT+CMGR=6", 100, "\r\n+CMGR: 0,,28\r\n00040B917238880900F10000993092516195800AE8329BFD4697D9EC37\r\n\r\nOK\r\n"},
		{"AT+CMGS=23", 100, "\r\n> "},
		{"0011000B916407281553F80000AA0AE8329BFD4697D9EC37\x1a", 500, "\r\n+CMGS: 41\r\n\r\nOK\r\n"},
		{"AT+CPMS=\"SM\",\"SM\",\"SM\"", 100, "\r\n+CPMS: 0,50,0,50,0,50\r\n\r\nOK\r\n"},
		{"AT+CNMI=2,1", 100, "\r\nOK\r\n"},
		{"ctl sms fill SM", 100, ""},
		{"AT+CMGD=49", 100, "\r\nOK\r\n"},
		{"ctl sms deliver +4917 x", 100, "\r\n+CMTI: \"SM\",49\r\n"},
	});
	EXPECT_EQ(run_control(*modem_, "sms deliver +4917 x", now_).text, "ERROR storage SM is full\n");
	std::string stored = run_control(*modem_, "sms list", now_).text;
	EXPECT_NE(stored.find("\nME 7/255\n"), std::string::npos) << stored;
	EXPECT_NE(stored.find(" Shop \"a\xF0\x9F\x98\x80\\n\"\n"), std::string::npos) << stored;
	EXPECT_NE(stored.find(" Telekom \"Lieber Kunde,"), std::string::npos) << stored;
	EXPECT_EQ(run_control(*modem_, "sms sent", now_).text, "+46708251358 1/1 GSM7 \"hellohello\"\nOK\n");
	// Messages outlive a boot; the settings do not.
	modem_->reboot(now_);
	all_until(now_ + 3000);
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+CPMS?\r"), "\r\n+CPMS: \"ME\",7,255,\"ME\",7,255,\"ME\",7,255\r\n\r\nOK\r\n");
}

// ------------------------------------------ the shipped RM520N scenario

class Rm520nTest : public Ec25StateTest {
protected:
	void SetUp() override
	{
		Scenario sc;
		std::string err;
		ASSERT_TRUE(load_scenario(std::string(WWANCTL_SOURCE_DIR) + "/tools/modem-sim/scenarios/rm520n.scn", &sc,
					  &err))
			<< err;
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(now_, false);
		send("ATE0V1\r");
		all_until(now_ + 100);
	}
};

TEST_F(Rm520nTest, IdentityAndStandaloneRegistration)
{
	play({
		{"ATI", 100, "\r\nQuectel\r\nRM520N-GL\r\nRevision: RM520NGLAAR01A07M4G\r\n\r\nOK\r\n"},
		{"AT+GMR", 100, "\r\nRM520NGLAAR01A07M4G\r\n\r\nOK\r\n"},
		{"AT+C5GREG?", 100, "\r\n+C5GREG: 0,1\r\n\r\nOK\r\n"},
		{"AT+C5GREG=2;+C5GREG?", 100, "\r\n+C5GREG: 2,1,\"00A1B2\",\"0012345C7\",11,1,\"01\"\r\n\r\nOK\r\n"},
		{"AT+C5GREG=3", 100, "\r\nERROR\r\n"},
		{"AT+CEREG?;+CREG?", 100, "\r\n+CEREG: 0,0\r\n\r\n+CREG: 0,1\r\n\r\nOK\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0,0,\"Telekom.de\",11\r\n\r\nOK\r\n"},
		{"AT+CGATT?", 100, "\r\n+CGATT: 1\r\n\r\nOK\r\n"},
	});
}

TEST_F(Rm520nTest, C5gregUrcsFollowTheState)
{
	play({
		{"AT+C5GREG=2;+CEREG=2", 100, "\r\nOK\r\n"},
		{"AT+CFUN=0", 100, "\r\nOK\r\n\r\n+C5GREG: 0\r\n"}, // no +CEREG: EPS was not registered
		{"AT+CFUN=1", 2500,
		 "\r\nOK\r\n\r\n+C5GREG: 2\r\n\r\n+C5GREG: 1,\"00A1B2\",\"0012345C7\",11,1,\"01\"\r\n"},
		{"AT+C5GREG=1", 100, "\r\nOK\r\n"},
		{"do roaming", 100, "\r\n+C5GREG: 5\r\n"},
		{"AT+COPS?", 100, "\r\n+COPS: 0,0,\"A1\",11\r\n\r\nOK\r\n"},
	});
}

TEST_F(Rm520nTest, ScanListsEachRadio)
{
	send("AT+COPS=?\r");
	std::string all = all_until(now_ + 4000);
	EXPECT_EQ(all, "\r\n+COPS: (2,\"Telekom.de\",\"TDG\",\"26201\",11),(1,\"Telekom.de\",\"TDG\",\"26201\",7),"
		       "(1,\"Vodafone.de\",\"Vodafone\",\"26202\",11),(1,\"Vodafone.de\",\"Vodafone\",\"26202\",13),"
		       "(3,\"o2 - de\",\"o2 - de\",\"26203\",11),,(0,1,2,3,4),(0,1,2)\r\n\r\nOK\r\n");
}

} // namespace
} // namespace modem_sim
