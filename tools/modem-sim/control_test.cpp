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
					   "  ok\n",
					   &sc, &err));
		modem_ = std::make_unique<Modem>(std::move(sc));
		modem_->start(0, false);
	}

	ControlReply ctl(const char *line) { return run_control(*modem_, line, 0); }

	std::string send(const char *bytes)
	{
		modem_->receive(bytes, 0);
		return modem_->take_output();
	}

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
	for (const char *line : {"", "frobnicate", "urc", "urc bad \\q", "echo maybe", "set", "get", "unhang"}) {
		SCOPED_TRACE(line);
		ControlReply r = ctl(line);
		EXPECT_EQ(r.text.rfind("ERROR ", 0), 0u);
		EXPECT_FALSE(r.quit);
	}
	EXPECT_EQ(modem_->take_output(), "");
	EXPECT_EQ(modem_->mode(), Mode::normal);
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
