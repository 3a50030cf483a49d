#include "control.h"

#include <gtest/gtest.h>

#include <memory>

namespace modem_sim {
namespace {

class ControlTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		Scenario sc;
		ParseError err;
		ASSERT_TRUE(parse_scenario("set echo 0\n"
					   "set csq 20\n"
					   "next RING\n"
					   "boot\n"
					   "  urc RDY\n"
					   "on AT\n"
					   "  ok\n"
					   "on AT+CSQ\n"
					   "  line +CSQ: {csq},99\n"
					   "  ok\n"
					   "on AT+CMGS=*\n"
					   "  prompt ok\n"
					   "  ok\n"
					   "action call_in\n"
					   "  set number $1\n"
					   "  urc RING\n"
					   "  after 3s ring\n"
					   "    urc RING\n",
					   &sc, &err));
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(0, false);
	}

	ControlReply ctl(const std::string &line) { return run_control(*modem_, line, now_); }

	std::string send(const std::string &bytes)
	{
		modem_->receive(bytes, now_);
		return modem_->take_output();
	}

	// Moves the clock on and returns what the modem sent meanwhile.
	std::string wait(Ms ms)
	{
		std::string out;
		for (Ms end = now_ + ms; now_ < end;) {
			Ms due = modem_->next_deadline();
			now_ = due < 0 || due > end ? end : std::max(now_, due);
			modem_->advance(now_);
			out += modem_->take_output();
		}
		return out;
	}

	Ms now_ = 0;

	std::unique_ptr<Modem> modem_;
};

TEST_F(ControlTest, UrcIsFramedAndExpanded)
{
	EXPECT_EQ(ctl("urc +CSQ: {csq},99").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\n+CSQ: 20,99\r\n");
	EXPECT_EQ(ctl("raw \\r\\nRDY\\r\\n").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nRDY\r\n");
}

TEST_F(ControlTest, BadInputIsAnErrorNotAnAction)
{
	for (const char *line : {"", "frobnicate", "urc", "urc bad \\q", "echo maybe", "set", "get", "unhang", "release",
				 "slow", "slow soon", "slow -5"}) {
		SCOPED_TRACE(line);
		ControlReply r = ctl(line);
		EXPECT_EQ(r.text.rfind("ERROR ", 0), 0u);
		EXPECT_FALSE(r.quit);
	}
	EXPECT_EQ(modem_->take_output(), "");
	EXPECT_EQ(modem_->mode(), Mode::normal);
}

TEST_F(ControlTest, DoRunsAnActionWithItsArguments)
{
	EXPECT_EQ(ctl("actions").text, "call_in\nOK\n");
	EXPECT_EQ(ctl("do call_in  +491701234567 ").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nRING\r\n");
	EXPECT_EQ(modem_->var("number"), "+491701234567");
	EXPECT_EQ(ctl("timers").text, "ring\nOK\n");
	EXPECT_EQ(wait(3000), "\r\nRING\r\n");
	EXPECT_EQ(ctl("timers").text, "OK\n");
	EXPECT_EQ(ctl("do").text.rfind("ERROR ", 0), 0u);
	EXPECT_EQ(ctl("do call_out").text, "ERROR the scenario has no action 'call_out' (try actions)\n");
}

TEST_F(ControlTest, SetGetAndEcho)
{
	EXPECT_EQ(ctl("set csq 7").text, "OK\n");
	EXPECT_EQ(ctl("get csq").text, "7\nOK\n");
	EXPECT_EQ(send("AT+CSQ\r"), "\r\n+CSQ: 7,99\r\n\r\nOK\r\n");
	EXPECT_EQ(ctl("echo on").text, "OK\n");
	EXPECT_EQ(send("AT\r"), "AT\r\r\nOK\r\n");
	EXPECT_NE(ctl("vars").text.find("csq=7\n"), std::string::npos);
}

TEST_F(ControlTest, ModeCommands)
{
	EXPECT_EQ(ctl("hang").text, "OK\n");
	EXPECT_EQ(ctl("mode").text, "hung\nOK\n");
	EXPECT_EQ(send("AT\r"), "");
	EXPECT_EQ(ctl("unhang").text, "OK\n");
	EXPECT_EQ(send("AT\r"), "\r\nOK\r\n");
	EXPECT_EQ(ctl("powerdown").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nPOWERED DOWN\r\n");
	EXPECT_EQ(ctl("mode").text, "off\nOK\n");
	EXPECT_EQ(ctl("boot").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nRDY\r\n");
	EXPECT_EQ(ctl("mode").text, "normal\nOK\n");
}

TEST_F(ControlTest, HoldAndRelease)
{
	EXPECT_EQ(ctl("hold").text, "OK\n");
	EXPECT_EQ(ctl("mode").text, "held\nOK\n");
	EXPECT_EQ(ctl("hold").text, "ERROR not normal but held\n");
	EXPECT_EQ(send("AT+CSQ\rAT\r"), "");
	EXPECT_EQ(ctl("urc RING").text, "OK\n");
	EXPECT_EQ(wait(5000), "");
	EXPECT_EQ(ctl("release").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nRING\r\n\r\n+CSQ: 20,99\r\n\r\nOK\r\n\r\nOK\r\n");
	EXPECT_EQ(ctl("mode").text, "normal\nOK\n");
	EXPECT_EQ(ctl("hang").text, "OK\n");
	EXPECT_EQ(ctl("hold").text, "ERROR not normal but hung\n");
}

TEST_F(ControlTest, SlowTakesADuration)
{
	struct Case {
		const char *cmd;
		Ms delay;
	} cases[] = {{"slow 250", 250}, {"slow 2s", 2000}, {"slow 40ms", 40}, {"slow 0", 0}};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.cmd);
		EXPECT_EQ(ctl(c.cmd).text, "OK\n");
		Ms t0 = now_;
		std::string out = send("AT\r");
		while (out.empty() && now_ - t0 <= c.delay)
			out = wait(1);
		EXPECT_EQ(out, "\r\nOK\r\n");
		EXPECT_EQ(now_ - t0, c.delay);
	}
}

TEST_F(ControlTest, PromptIsAMode)
{
	EXPECT_EQ(send("AT+CMGS=1\r"), "\r\n> ");
	EXPECT_EQ(ctl("mode").text, "prompt\nOK\n");
	EXPECT_EQ(send("\x1b"), "\r\nOK\r\n");
	EXPECT_EQ(ctl("mode").text, "normal\nOK\n");
}

TEST_F(ControlTest, StatsShowCountsAndRecentLines)
{
	send("AT\r");
	send("\x1a\r");
	send("AT+CMGS=1\r");
	send("say \"hi\"\\\x1b");
	send("AT" + std::string(2000, 'Z') + "\r");
	send("AT+C");
	EXPECT_EQ(ctl("slow 3s").text, "OK\n");
	std::string want = "received " + std::to_string(3 + 2 + 10 + 10 + 2003 + 4) +
			   "\n"
			   "executed 2\n"
			   "too_long 1\n"
			   "texts 1\n"
			   "pending 0\n"
			   "slow 3000\n"
			   "line \"AT\\r\"\n"
			   "line \"\\r\"\n"
			   "line \"AT+CMGS=1\\r\"\n"
			   "line \"say \\\"hi\\\"\\\\\\x1b\"\n";
	std::string text = ctl("stats").text;
	EXPECT_EQ(text.substr(0, want.size()), want);
	// The over-long line is shown cut, with its length.
	std::string rest = text.substr(std::min(want.size(), text.size()));
	EXPECT_EQ(rest.rfind("line \"AT" + std::string(20, 'Z'), 0), 0u) << rest;
	EXPECT_NE(rest.find("Z\" ... 2003 bytes\ntyping \"AT+C\"\nOK\n"), std::string::npos) << rest;
}

TEST_F(ControlTest, HangupIsFinal)
{
	EXPECT_EQ(ctl("hangup").text, "OK\n");
	EXPECT_EQ(ctl("mode").text, "hungup\nOK\n");
	for (const char *line : {"urc RING", "raw x", "next", "hang", "hold", "release", "slow 1", "boot", "fota",
				 "powerdown", "hangup"}) {
		SCOPED_TRACE(line);
		EXPECT_EQ(ctl(line).text, "ERROR the line is hung up\n");
	}
	EXPECT_EQ(send("AT\r"), "");
	EXPECT_EQ(wait(5000), "");
	EXPECT_EQ(ctl("mode").text, "hungup\nOK\n");
	EXPECT_EQ(ctl("stats").text.rfind("received 3\n", 0), 0u);
	EXPECT_EQ(ctl("get csq").text, "20\nOK\n");
	EXPECT_TRUE(ctl("quit").quit);
}

TEST_F(ControlTest, NextAndQuit)
{
	EXPECT_EQ(ctl("next").text, "OK\n");
	EXPECT_EQ(modem_->take_output(), "\r\nRING\r\n");
	ControlReply r = ctl("quit");
	EXPECT_EQ(r.text, "OK\n");
	EXPECT_TRUE(r.quit);
}

} // namespace
} // namespace modem_sim
