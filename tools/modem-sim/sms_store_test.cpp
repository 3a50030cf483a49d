#include "sms_store.h"

#include <gtest/gtest.h>

namespace modem_sim {
namespace {

// The widely published SMS-DELIVER example: "hellohello" from 27838890001
// through the SMSC +27381000015; 28 TPDU octets.
const std::string deliver_pdu = "07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37";
// The same with DCS 12: message class 2.
const std::string class2_pdu = "07917283010010F5040BC87238880900F10012993092516195800AE8329BFD4697D9EC37";
// The widely published SMS-SUBMIT example: "hellohello" to +46708251358; 23 TPDU octets.
const std::string submit_pdu = "0011000B916407281553F80000AA0AE8329BFD4697D9EC37";

class SmsStoreTest : public ::testing::Test {
protected:
	Vars vars_ = {{"cmgf", "0"},        {"cnmi", "2,1,0,0,0"},  {"mr", "41"},
		      {"sms_mem1", "ME"},   {"sms_mem2", "ME"},     {"sms_mem3", "ME"},
		      {"sms_sm_total", "50"}, {"sms_me_total", "255"}, {"smsc", "+491710760000"}};
	SmsStore store_;

	static std::string shown(const SmsAnswer &a)
	{
		std::string out;
		for (const std::string &l : a.lines)
			out += l + "\n";
		switch (a.final) {
		case SmsAnswer::Final::none: return out + "(prompt)";
		case SmsAnswer::Final::ok: return out + "OK";
		case SmsAnswer::Final::error: return out + "ERROR";
		case SmsAnswer::Final::cms: return out + "+CMS ERROR: " + std::to_string(a.code);
		}
		return out;
	}

	struct Exchange {
		std::string cmd, answer;
	};
	void play(const std::vector<Exchange> &steps)
	{
		for (const Exchange &e : steps)
			EXPECT_EQ(shown(store_.command(e.cmd, vars_)), e.answer) << e.cmd;
	}

	std::string send(const std::string &cmd, const std::string &text)
	{
		SmsAnswer a = store_.command(cmd, vars_);
		return a.final == SmsAnswer::Final::none ? shown(store_.send(cmd, text, vars_)) : shown(a);
	}
};

TEST_F(SmsStoreTest, StoragesListingReadingAndErrorCodes)
{
	ASSERT_EQ(store_.store("ME", rec_unread, deliver_pdu, vars_), 0);
	ASSERT_EQ(store_.store("ME", rec_read, deliver_pdu, vars_), 1);
	const std::string text_head = "\"27838890001\",,\"99/03/29,15:16:59+08\"\nhellohello\n";
	play({
		{"AT+CPMS?", "+CPMS: \"ME\",2,255,\"ME\",2,255,\"ME\",2,255\nOK"},
		{"AT+CPMS=?", "+CPMS: (\"SM\",\"ME\"),(\"SM\",\"ME\"),(\"SM\",\"ME\")\nOK"},
		{"AT+CPMS=\"SM\"", "+CPMS: 0,50,2,255,2,255\nOK"},
		{"AT+CMGL=4", "OK"}, // the SIM holds nothing
		{"AT+CPMS=\"ME\",\"BM\"", "+CMS ERROR: 302"},
		{"AT+CPMS=\"ME\"", "+CPMS: 2,255,2,255,2,255\nOK"},
		{"AT+CMGL=0", "+CMGL: 0,0,,28\n" + deliver_pdu + "\nOK"},
		{"AT+CMGL", "OK"}, // unread by default, and listing has read it
		{"AT+CMGL=4", "+CMGL: 0,1,,28\n" + deliver_pdu + "\n+CMGL: 1,1,,28\n" + deliver_pdu + "\nOK"},
		{"AT+CMGL=5", "+CMS ERROR: 304"},
		{"AT+CMGL=\"ALL\"", "+CMS ERROR: 302"},
		{"AT+CMGR=1", "+CMGR: 1,,28\n" + deliver_pdu + "\nOK"},
		{"AT+CMGR=7", "OK"}, // an empty index
		{"AT+CMGR=255", "+CMS ERROR: 321"},
		{"AT+CMGR=x", "ERROR"},
		{"AT+CMGD=255", "+CMS ERROR: 321"},
		{"AT+CMGD=0", "OK"},
		{"AT+CMGD=0", "OK"},
		{"AT+CMGD=?", "+CMGD: (1),(0-4)\nOK"},
		{"AT+CMGD=0,5", "+CMS ERROR: 302"},
		{"AT+CNMI?", "+CNMI: 2,1,0,0,0\nOK"},
		{"AT+CNMI=1,,2", "OK"},
		{"AT+CNMI?", "+CNMI: 1,1,2,0,0\nOK"},
		{"AT+CNMI=3", "+CMS ERROR: 302"},
		{"AT+CNMI=0,0,1", "+CMS ERROR: 302"},
		{"AT+CMGS=0", "+CMS ERROR: 304"},
		{"AT+CMGS=5", "(prompt)"},
		{"AT+CMGS=165", "+CMS ERROR: 304"},
	});
	vars_["cmgf"] = "1";
	play({
		{"AT+CMGL=\"REC UNREAD\"", "OK"},
		{"AT+CMGL=\"ALL\"", "+CMGL: 1,\"REC READ\"," + text_head + "OK"},
		{"AT+CMGL=4", "+CMS ERROR: 302"},
		{"AT+CMGL=\"NEW\"", "+CMS ERROR: 305"},
		{"AT+CMGR=1", "+CMGR: \"REC READ\"," + text_head + "OK"},
		{"AT+CMGS=\"+49 170\"", "+CMS ERROR: 305"},
		{"AT+CMGS=+49170", "+CMS ERROR: 305"},
	});
}

TEST_F(SmsStoreTest, DeleteFlagsGoByStatus)
{
	// <delflag> 1 read, 2 also sent, 3 also unsent, 4 all (27.005 AT+CMGD).
	struct Case {
		const char *cmd;
		std::vector<int> left;
	} cases[] = {
		{"AT+CMGD=0,1", {0, 2, 3}},
		{"AT+CMGD=0,2", {0, 2}},
		{"AT+CMGD=9,3", {0}},
		{"AT+CMGD=1,4", {}},
	};
	for (const Case &c : cases) {
		store_.clear();
		for (int stat = 0; stat < 4; stat++)
			ASSERT_EQ(store_.store("ME", stat, deliver_pdu, vars_), stat);
		EXPECT_EQ(shown(store_.command(c.cmd, vars_)), "OK");
		std::vector<int> left;
		for (const auto &kv : store_.messages("ME"))
			left.push_back(kv.first);
		EXPECT_EQ(left, c.left) << c.cmd;
	}
}

TEST_F(SmsStoreTest, SendingChecksLengthAndPdu)
{
	vars_["mr"] = "255";
	struct Case {
		std::string cmd, pdu, answer;
	} cases[] = {
		{"AT+CMGS=23", submit_pdu, "+CMGS: 255\nOK"},
		{"AT+CMGS=23", "0791947101670000" + submit_pdu.substr(2), "+CMGS: 0\nOK"}, // with an SMSC
		{"AT+CMGS=24", submit_pdu, "+CMS ERROR: 304"},
		{"AT+CMGS=22", submit_pdu, "+CMS ERROR: 304"},
		{"AT+CMGS=23", submit_pdu.substr(1), "+CMS ERROR: 304"},             // odd
		{"AT+CMGS=23", "0G" + submit_pdu.substr(2), "+CMS ERROR: 304"},      // not hex
		{"AT+CMGS=23", submit_pdu + "\r", "+CMS ERROR: 304"},                // a CR inside
		{"AT+CMGS=28", deliver_pdu, "+CMS ERROR: 304"},                      // not a SUBMIT
		{"AT+CMGS=23", "0011000B916407281553F80000AA0BE8329BFD4697D9EC37", "+CMS ERROR: 304"}, // UDL
	};
	for (const Case &c : cases)
		EXPECT_EQ(send(c.cmd, c.pdu), c.answer) << c.pdu;
	EXPECT_EQ(vars_["mr"], "1");
	EXPECT_EQ(store_.sent_text(), "+46708251358 1/1 GSM7 \"hellohello\"\n+46708251358 1/1 GSM7 \"hellohello\"\n");
}

TEST_F(SmsStoreTest, PartsSentApartAreJoined)
{
	// 16-bit reference 0x1234, parts "hi" and "ya", packed by hand.
	EXPECT_EQ(send("AT+CMGS=23", "0051000B916407281553F80000AA0A06080412340201E834"), "+CMGS: 41\nOK");
	EXPECT_EQ(store_.sent_text(), "+46708251358 1/2 GSM7 \"hi\" incomplete\n");
	// The same part again is a message of its own, which the last part completes.
	EXPECT_EQ(send("AT+CMGS=23", "0051000B916407281553F80000AA0A06080412340201E834"), "+CMGS: 42\nOK");
	EXPECT_EQ(send("AT+CMGS=23", "0051000B916407281553F80000AA0A06080412340202F930"), "+CMGS: 43\nOK");
	const char *both = "+46708251358 1/2 GSM7 \"hi\" incomplete\n+46708251358 2/2 GSM7 \"hiya\"\n";
	EXPECT_EQ(store_.sent_text(), both);
	ASSERT_EQ(store_.sent().size(), 2u);
	EXPECT_EQ(store_.sent()[1].mrs, (std::vector<int>{42, 43}));
	// Text mode: the text as typed; UCS-2 when it needs it.
	vars_["cmgf"] = "1";
	EXPECT_EQ(send("AT+CMGS=\"+491701234567\"", "Gr\xC3\xBC\xC3\x9F" "e"), "+CMGS: 44\nOK");
	EXPECT_EQ(send("AT+CMGS=\"+491701234567\",145", "\xF0\x9F\x98\x80"), "+CMGS: 45\nOK");
	EXPECT_EQ(send("AT+CMGS=\"+491701234567\"", std::string(161, 'a')), "+CMS ERROR: 305");
	EXPECT_EQ(store_.sent_text(), std::string(both) + "+491701234567 1/1 GSM7 \"Gr\xC3\xBC\xC3\x9F" "e\"\n"
							 "+491701234567 1/1 UCS2 \"\xF0\x9F\x98\x80\"\n");
}

TEST_F(SmsStoreTest, IndicationsFollowCnmi)
{
	// 27.005 AT+CNMI: <mt> 1 stores and indicates; 2 passes all but class 2
	// straight to the host; 3 passes class 3 only. <mode> 0 sends nothing.
	struct Case {
		const char *cnmi, *cmgf;
		std::string pdu, urc;
		size_t stored;
	} cases[] = {
		{"2,1,0,0,0", "0", deliver_pdu, "+CMTI: \"ME\",0", 1},
		{"1,1,0,0,0", "1", deliver_pdu, "+CMTI: \"ME\",0", 1},
		{"2,0,0,0,0", "0", deliver_pdu, "", 1},
		{"0,1,0,0,0", "0", deliver_pdu, "", 1},
		{"2,3,0,0,0", "0", deliver_pdu, "+CMTI: \"ME\",0", 1},
		{"2,2,0,0,0", "0", class2_pdu, "+CMTI: \"ME\",0", 1},
		{"2,2,0,0,0", "0", deliver_pdu, "+CMT: ,28\r\n" + deliver_pdu, 0},
		{"2,2,0,0,0", "1", deliver_pdu, "+CMT: \"27838890001\",,\"99/03/29,15:16:59+08\"\r\nhellohello", 0},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.cnmi);
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

TEST_F(SmsStoreTest, FullStorageRefusesDeliveriesWhole)
{
	vars_["sms_me_total"] = "3";
	EXPECT_EQ(store_.fill("ME", vars_), 3);
	EXPECT_EQ(shown(store_.command("AT+CPMS?", vars_)), "+CPMS: \"ME\",3,3,\"ME\",3,3,\"ME\",3,3\nOK");
	EXPECT_EQ(send("AT+CMGW=23", submit_pdu), "+CMS ERROR: 322");
	EXPECT_EQ(shown(store_.command("AT+CMGD=1", vars_)), "OK");
	// One free index, a text of two parts: nothing is stored.
	std::vector<std::string> urcs;
	std::string why;
	EXPECT_FALSE(store_.deliver_text("+4917", std::string(200, 'x'), {}, vars_, &urcs, &why));
	EXPECT_EQ(why, "storage ME is full");
	EXPECT_EQ(store_.messages("ME").size(), 2u);
	ASSERT_TRUE(store_.deliver_text("+4917", "x", {}, vars_, &urcs, &why)) << why;
	EXPECT_EQ(urcs, std::vector<std::string>{"+CMTI: \"ME\",1"}); // the lowest free index
	// Written into <mem2> with the status given (default 2, STO UNSENT).
	EXPECT_EQ(shown(store_.command("AT+CMGD=0", vars_)), "OK");
	EXPECT_EQ(send("AT+CMGW=23,3", submit_pdu), "+CMGW: 0\nOK");
	EXPECT_EQ(shown(store_.command("AT+CMGL=3", vars_)), "+CMGL: 0,3,,23\n" + submit_pdu + "\nOK");
	EXPECT_EQ(send("AT+CMGW=23,4", submit_pdu), "+CMS ERROR: 304");
	vars_["cmgf"] = "1";
	EXPECT_EQ(send("AT+CMGW=\"+4917\"", "x"), "+CMS ERROR: 303");
}

} // namespace
} // namespace modem_sim
