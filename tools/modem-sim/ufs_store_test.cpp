// The simulator's file store, command by command.
#include "ufs_store.h"

#include <gtest/gtest.h>

namespace modem_sim {
namespace {

Vars vars(long ufs = 1000, long ram = 100)
{
	return {{"ufs_total", std::to_string(ufs)}, {"ufs_ram_total", std::to_string(ram)}};
}

// The answer as the modem would frame its lines: "<line>|...|<final>".
std::string text(const UfsAnswer &a)
{
	std::string s;
	for (const std::string &l : a.lines)
		s += l + "|";
	switch (a.final) {
	case UfsAnswer::Final::none: s += "none"; break;
	case UfsAnswer::Final::ok: s += "OK"; break;
	case UfsAnswer::Final::error: s += "ERROR"; break;
	case UfsAnswer::Final::cme: s += "CME " + std::to_string(a.code); break;
	case UfsAnswer::Final::connect: s += "CONNECT"; break;
	}
	if (a.fota)
		s += "+fota";
	return s;
}

// Uploads data under name through the store's two steps.
void put(UfsStore &st, const std::string &name, const std::string &data)
{
	ASSERT_EQ(text(st.command("AT+QFUPL=\"" + name + "\"," + std::to_string(data.size()), vars())), "CONNECT");
	ASSERT_EQ(st.feed(data), data.size());
	ASSERT_TRUE(st.upload_complete());
	st.finish_upload();
}

TEST(UfsStore, ChecksumIsTheXorOfBigEndianPairs)
{
	const struct {
		std::string data;
		uint16_t sum;
	} rows[] = {
		{"", 0},
		{"\x12", 0x1200},             // odd last byte: the high byte
		{"\x12\x34", 0x1234},
		{"\x12\x34\x12\x34", 0},
		{"\x12\x34\x56", 0x4434},     // 0x1234 ^ 0x5600
		{std::string("\0\xff", 2), 0x00ff},
	};
	for (const auto &r : rows)
		EXPECT_EQ(UfsStore::checksum(r.data), r.sum) << testing::PrintToString(r.data);
}

TEST(UfsStore, UploadTakesExactlyTheSizeInPiecesAndReportsSizeAndChecksum)
{
	UfsStore st;
	ASSERT_EQ(text(st.command("AT+QFUPL=\"a.bin\",5,10", vars())), "CONNECT");
	EXPECT_TRUE(st.uploading());
	EXPECT_EQ(st.upload_timeout_ms(), 10000);
	EXPECT_EQ(st.feed(std::string("\r\n", 2)), 2u);
	EXPECT_FALSE(st.upload_complete());
	// Bytes beyond the size are not the file's: they stay with the modem.
	EXPECT_EQ(st.feed(std::string("\x1a\0\rAT", 5)), 3u);
	ASSERT_TRUE(st.upload_complete());
	EXPECT_EQ(text(st.finish_upload()), "+QFUPL: 5,1a0a|OK"); // 0x0d0a ^ 0x1a00 ^ 0x0d00
	EXPECT_FALSE(st.uploading());
	ASSERT_NE(st.file("UFS", "a.bin"), nullptr);
	EXPECT_EQ(*st.file("UFS", "a.bin"), std::string("\r\n\x1a\0\r", 5));
	EXPECT_EQ(st.list(), std::vector<std::string>{"UFS a.bin 5 1a0a"});
}

TEST(UfsStore, SilenceEndsTheUploadWithAnErrorAndStoresNothing)
{
	UfsStore st;
	ASSERT_EQ(text(st.command("AT+QFUPL=\"RAM:x\",4", vars())), "CONNECT");
	EXPECT_EQ(st.upload_timeout_ms(), 5000); // the default
	st.feed("ab");
	EXPECT_EQ(text(st.abort_upload()), "CME 421");
	EXPECT_FALSE(st.uploading());
	EXPECT_EQ(st.file("RAM", "x"), nullptr);
}

TEST(UfsStore, UploadRefusals)
{
	const struct {
		const char *cmd;
		const char *answer;
	} rows[] = {
		{"AT+QFUPL=\"big\",901", "CME 420"},       // 100 of 1000 taken below
		{"AT+QFUPL=\"have\",1", "CME 407"},        // exists
		{"AT+QFUPL=\"a/b\",1", "CME 406"},
		{"AT+QFUPL=\"..\",1", "CME 406"},
		{"AT+QFUPL=\"\",1", "CME 406"},
		{"AT+QFUPL=\"SD:x\",1", "CME 400"},        // no SD card
		{"AT+QFUPL=\"x\"", "CME 425"},             // the size is needed
		{"AT+QFUPL=\"x\",0", "CME 425"},
		{"AT+QFUPL=\"x\",1,0", "CME 425"},
		{"AT+QFUPL=\"x\",1,5,1", "CME 425"},       // acknowledged mode
		{"AT+QFUPL=x,1", "ERROR"},
		{"AT+QFUPL=\"x,1", "ERROR"},
	};
	for (const auto &r : rows) {
		UfsStore st;
		put(st, "have", std::string(100, 'h'));
		EXPECT_EQ(text(st.command(r.cmd, vars())), r.answer) << r.cmd;
		EXPECT_FALSE(st.uploading()) << r.cmd;
	}
}

TEST(UfsStore, ListDeleteAndSpace)
{
	UfsStore st;
	put(st, "one.bin", "12345");
	put(st, "two.txt", "ab");
	put(st, "RAM:r", "xyz");
	const struct {
		const char *cmd;
		const char *answer;
	} rows[] = {
		{"AT+QFLST", "+QFLST: \"one.bin\",5|+QFLST: \"two.txt\",2|OK"},
		{"AT+QFLST=\"*\"", "+QFLST: \"one.bin\",5|+QFLST: \"two.txt\",2|OK"},
		{"AT+QFLST=\"*.bin\"", "+QFLST: \"one.bin\",5|OK"},
		{"AT+QFLST=\"UFS:two.txt\"", "+QFLST: \"two.txt\",2|OK"},
		{"AT+QFLST=\"RAM:*\"", "+QFLST: \"RAM:r\",3|OK"},
		{"AT+QFLST=\"*.zip\"", "OK"},          // a pattern that matches nothing
		{"AT+QFLST=\"none\"", "CME 405"},      // one file by name that is not there
		{"AT+QFLDS=\"UFS\"", "+QFLDS: 993,1000|OK"},
		{"AT+QFLDS", "+QFLDS: 993,1000|OK"},
		{"AT+QFLDS=\"RAM\"", "+QFLDS: 97,100|OK"},
		{"AT+QFLDS=\"SD\"", "CME 400"},
		{"AT+QFDEL=\"none\"", "CME 405"},
		{"AT+QFDEL=\"one.bin\"", "OK"},
		{"AT+QFLST", "+QFLST: \"two.txt\",2|OK"},
		{"AT+QFLDS=\"UFS\"", "+QFLDS: 998,1000|OK"},
		{"AT+QFDEL=\"*\"", "OK"},
		{"AT+QFLST", "OK"},
		{"AT+QFLST=\"RAM:*\"", "+QFLST: \"RAM:r\",3|OK"}, // "*" empties UFS only
		{"AT+CSQ", "none"},
	};
	for (const auto &r : rows)
		EXPECT_EQ(text(st.command(r.cmd, vars())), r.answer) << r.cmd;
}

TEST(UfsStore, FirmwareUpdateNeedsTheStoredPackage)
{
	UfsStore st;
	put(st, "update.bin", "pkg");
	const struct {
		const char *cmd;
		const char *answer;
	} rows[] = {
		{"AT+QFOTADL=\"/data/ufs/update.bin\"", "OK+fota"},
		{"AT+QFOTADL=\"/data/ufs/other.bin\"", "CME 405"},
		{"AT+QFOTADL=\"http://example.com/a.bin\"", "CME 400"},
		{"AT+QFOTADL=/data/ufs/update.bin", "ERROR"},
	};
	for (const auto &r : rows)
		EXPECT_EQ(text(st.command(r.cmd, vars())), r.answer) << r.cmd;
}

} // namespace
} // namespace modem_sim
