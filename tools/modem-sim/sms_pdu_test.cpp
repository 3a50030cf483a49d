#include "sms_pdu.h"

#include <gtest/gtest.h>

namespace modem_sim {
namespace {

const Scts may17{24, 5, 17, 14, 23, 5, 8}; // "42507141325080"

// A whole PDU (SMSC field first) taken apart.
Tpdu parsed(const std::string &hex, std::string *why = nullptr)
{
	std::string bytes, err;
	Tpdu t;
	bool ok = from_hex(hex, &bytes) && smsc_field_size(bytes) > 0 &&
		  parse_tpdu(std::string_view(bytes).substr(smsc_field_size(bytes)), &t, &err);
	if (why)
		*why = ok ? "" : err.empty() ? "bad hex" : err;
	return t;
}

TEST(SmsDeliverEncoding, SinglePartsByteForByte)
{
	struct Case {
		const char *smsc, *sender, *text;
		Scts t;
		const char *hex;
	} cases[] = {
		// The widely published SMS-DELIVER example "hellohello" (SMSC
		// +27381000015, 99/03/29 15:16:59 +02:00), except its type of
		// address C8: a plain number is sent here as 81 (unknown type).
		{"+27381000015", "27838890001", "hellohello", {99, 3, 29, 15, 16, 59, 8},
		 "07917283010010F5040B817238880900F10000993092516195800AE8329BFD4697D9EC37"},
		// TS 23.038 extension table: the euro sign is escape 1B then 65,
		// packed by hand: 9B 32. International number +12345: 05 91 21 43 F5.
		{"", "+12345", "\xE2\x82\xAC", may17, "000405912143F5000042507141325080029B32"},
		// Not GSM: UCS-2, U+1F600 as the surrogate pair D83D DE00.
		{"", "+12345", "a\xF0\x9F\x98\x80", may17, "000405912143F5000842507141325080060061D83DDE00"},
		// Alphanumeric sender (type D0, 13 semi-octets), "Telekom" packed by hand;
		// a negative zone sets bit 3 of the zone octet.
		{"", "Telekom", "Hi", {24, 1, 2, 3, 4, 5, -8}, "00040DD0D432BBBC7EB70100004210203040508802C834"},
		// A national number with an odd digit count; "@" is septet 00.
		{"", "0301234", "@", may17, "00040781301032F40000425071413250800100"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.text);
		std::vector<std::string> pdus;
		std::string why;
		ASSERT_TRUE(encode_deliver(c.smsc, c.sender, c.text, c.t, 0, &pdus, &why)) << why;
		ASSERT_EQ(pdus.size(), 1u);
		EXPECT_EQ(pdus[0], c.hex);
		Tpdu t = parsed(pdus[0], &why);
		EXPECT_EQ(why, "");
		EXPECT_EQ(t.text, c.text);
		EXPECT_EQ(t.address, c.sender);
		EXPECT_EQ(format_scts(t.scts), format_scts(c.t));
	}
}

TEST(SmsDeliverEncoding, RefusedSenders)
{
	for (const char *sender : {"", "+12a", "TwelveLetter", "+", "\xD0\xB6"}) {
		std::vector<std::string> pdus;
		std::string why;
		EXPECT_FALSE(encode_deliver("", sender, "x", may17, 0, &pdus, &why)) << sender;
	}
}

TEST(SmsDeliverEncoding, LongTextsSplitWithoutBreakingPairs)
{
	std::string zhe; // Cyrillic, outside the GSM alphabet
	for (int i = 0; i < 66; i++)
		zhe += "\xD0\xB6";
	struct Case {
		std::string text;
		std::vector<const char *> udl; // per part, hex
	} cases[] = {
		{std::string(160, 'a'), {"A0"}},
		{std::string(161, 'a'), {"A0", "0F"}}, // 153 + 7, 8 + 7
		// The escape pair of the euro sign would straddle septet 153: the
		// first part ends one early.
		{std::string(152, 'a') + "\xE2\x82\xAC" + std::string(10, 'b'), {"9F", "13"}},
		// 70 UCS-2 characters fit; 66 then a surrogate pair would cut the
		// pair at unit 67: the first part keeps 66 (132 octets + 6).
		{zhe + "\xD0\xB6\xD0\xB6\xD0\xB6\xD0\xB6", {"8C"}},
		{zhe + "\xF0\x9F\x98\x80xyz", {"8A", "10"}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.text.size());
		std::vector<std::string> pdus;
		std::string why;
		ASSERT_TRUE(encode_deliver("", "+12345", c.text, may17, 0x7B, &pdus, &why)) << why;
		ASSERT_EQ(pdus.size(), c.udl.size());
		std::string joined;
		for (size_t k = 0; k < pdus.size(); k++) {
			// SMSC 00, first octet, OA, PID, DCS and time stamp are 32 hex digits.
			EXPECT_EQ(pdus[k].substr(2, 2), pdus.size() > 1 ? "44" : "04");
			EXPECT_EQ(pdus[k].substr(32, 2), c.udl[k]);
			Tpdu t = parsed(pdus[k], &why);
			EXPECT_EQ(why, "");
			if (pdus.size() > 1) {
				EXPECT_EQ(pdus[k].substr(34, 12), "0500037B0" + std::to_string(pdus.size()) + "0" +
									  std::to_string(k + 1));
				EXPECT_EQ(t.ref, 0x7B);
				EXPECT_EQ(t.seq, static_cast<int>(k + 1));
			}
			joined += t.text;
		}
		EXPECT_EQ(joined, c.text);
	}
}

TEST(SmsTpduParsing, SubmitsAndWhatIsRefused)
{
	struct Case {
		const char *hex; // SMSC field first
		const char *error; // empty: parsed
		const char *address, *text;
		int ref, seq, total;
	} cases[] = {
		// The widely published SMS-SUBMIT example: "hellohello" to +46708251358.
		{"0011000B916407281553F80000AA0AE8329BFD4697D9EC37", "", "+46708251358", "hellohello", -1, 1, 1},
		// Part 1 of 2 with a 16-bit reference 0x1234 (7 header octets: no
		// fill), "hi" packed by hand: E8 34.
		{"0051000B916407281553F80000AA0A06080412340201E834", "", "+46708251358", "hi", 0x1234, 1, 2},
		{"0011000B916407281553F80000AA0BE8329BFD4697D9EC37", "does not match", "", "", 0, 0, 0},
		{"0012000B916407281553F80000AA0AE8329BFD4697D9EC37", "neither", "", "", 0, 0, 0},
		{"0011000B916407281553F8000CAA0AE8329BFD4697D9EC37", "not supported", "", "", 0, 0, 0},
		{"0051000B916407281553F80000AA0A06080412340200E834", "part 0 of 2", "", "", 0, 0, 0},
		{"0051000B916407281553F80000AA0A06080312340201E834", "concatenation", "", "", 0, 0, 0},
		{"0011000B9164", "address", "", "", 0, 0, 0},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.hex);
		std::string why;
		Tpdu t = parsed(c.hex, &why);
		if (*c.error) {
			EXPECT_NE(why.find(c.error), std::string::npos) << why;
			continue;
		}
		EXPECT_EQ(why, "");
		EXPECT_TRUE(t.submit);
		EXPECT_EQ(t.address, c.address);
		EXPECT_EQ(t.text, c.text);
		EXPECT_EQ(t.ref, c.ref);
		EXPECT_EQ(t.seq, c.seq);
		EXPECT_EQ(t.total, c.total);
	}
}

TEST(SmsGsm7, ExtensionCharactersTakeAnEscape)
{
	// TS 23.038 default extension table.
	const char *ext = "\f^{}\\[~]|\xE2\x82\xAC";
	const uint8_t codes[] = {0x0A, 0x14, 0x28, 0x29, 0x2F, 0x3C, 0x3D, 0x3E, 0x40, 0x65};
	std::vector<uint8_t> s;
	ASSERT_TRUE(gsm7_septets(ext, &s));
	ASSERT_EQ(s.size(), 2 * std::size(codes));
	for (size_t i = 0; i < std::size(codes); i++) {
		EXPECT_EQ(s[2 * i], 0x1B);
		EXPECT_EQ(s[2 * i + 1], codes[i]);
	}
	EXPECT_TRUE(gsm7_septets("@\xC2\xA3$\xC3\x9F\n", &s)); // @ £ $ ß LF
	EXPECT_EQ(s, (std::vector<uint8_t>{0x00, 0x01, 0x02, 0x1E, 0x0A}));
	EXPECT_FALSE(gsm7_septets("\x1B", &s)); // ESC is no character of the text
	EXPECT_FALSE(gsm7_septets("`", &s));
}

TEST(SmsScts, TextForm)
{
	Scts t;
	ASSERT_TRUE(parse_scts("24/05/17,14:23:05-08", &t));
	EXPECT_EQ(t.zone, -8);
	EXPECT_EQ(format_scts(t), "24/05/17,14:23:05-08");
	for (const char *bad : {"", "24/05/17,14:23:05", "24/05/17,14:23:05*08", "24/05/17 14:23:05+08x"})
		EXPECT_FALSE(parse_scts(bad, &t)) << bad;
}

} // namespace
} // namespace modem_sim
