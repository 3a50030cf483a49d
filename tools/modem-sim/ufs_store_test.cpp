// The simulator's file store: the module's checksum, uploads taken by their size or ended by silence, and what
// the file commands answer for names, patterns, storages, space and firmware packages.
#include "ufs_store.h"

#include <gtest/gtest.h>

namespace modem_sim
{
namespace
{

const Vars vars = {{"ufs_total", "1000"}, {"ufs_ram_total", "100"}};

// The answer as the modem would frame its lines: "<line>|...|<final>".
std::string text(const UfsAnswer &a)
{
    std::string s;
    for (const std::string &l : a.lines)
        s += l + "|";
    const char *finals[] = {"none", "OK", "ERROR", "CME ", "CONNECT"};
    s += finals[static_cast<int>(a.final)];
    if (a.final == UfsAnswer::Final::cme)
        s += std::to_string(a.code);
    return a.fota ? s + "+fota" : s;
}

// Uploads data under name through the store's two steps.
void put(UfsStore &st, const std::string &name, const std::string &data)
{
    ASSERT_EQ(text(st.command("AT+QFUPL=\"" + name + "\"," + std::to_string(data.size()), vars)), "CONNECT");
    ASSERT_EQ(st.feed(data), data.size());
    ASSERT_TRUE(st.upload_complete());
    st.finish_upload();
}

// An odd last byte counts as the high byte: "\x12\x34\x56" is 0x1234 ^ 0x5600.
TEST(UfsStore, ChecksumIsTheXorOfBigEndianPairs)
{
    const struct {
        std::string data;
        uint16_t sum;
    } rows[] = {
        // clang-format off
        {"", 0},
        {"\x12", 0x1200},
        {"\x12\x34\x12\x34", 0},
        {"\x12\x34\x56", 0x4434},
        {std::string("\0\xff", 2), 0x00ff},
        // clang-format on
    };
    for (const auto &r : rows)
        EXPECT_EQ(UfsStore::checksum(r.data), r.sum) << testing::PrintToString(r.data);
}

TEST(UfsStore, UploadsTakeExactlyTheirSizeOrEndInSilence)
{
    UfsStore st;
    ASSERT_EQ(text(st.command("AT+QFUPL=\"a.bin\",5,10", vars)), "CONNECT");
    EXPECT_EQ(st.upload_timeout_ms(), 10000);
    EXPECT_EQ(st.feed(std::string("\r\n", 2)), 2u);
    EXPECT_FALSE(st.upload_complete());
    // Bytes beyond the size are not the file's: they stay with the modem.
    EXPECT_EQ(st.feed(std::string("\x1a\0\rAT", 5)), 3u);
    ASSERT_TRUE(st.upload_complete());
    EXPECT_EQ(text(st.finish_upload()), "+QFUPL: 5,1a0a|OK"); // 0x0d0a ^ 0x1a00 ^ 0x0d00
    EXPECT_FALSE(st.uploading());
    EXPECT_EQ(st.list(), std::vector<std::string>{"UFS a.bin 5 1a0a"});
    ASSERT_NE(st.file("UFS", "a.bin"), nullptr);
    EXPECT_EQ(*st.file("UFS", "a.bin"), std::string("\r\n\x1a\0\r", 5));

    ASSERT_EQ(text(st.command("AT+QFUPL=\"RAM:x\",4", vars)), "CONNECT");
    EXPECT_EQ(st.upload_timeout_ms(), 5000); // the default
    st.feed("ab");
    EXPECT_EQ(text(st.abort_upload()), "CME 421");
    EXPECT_FALSE(st.uploading());
    EXPECT_EQ(st.file("RAM", "x"), nullptr);
}

TEST(UfsStore, CommandsAnswerByWhatIsStored)
{
    UfsStore st;
    put(st, "one.bin", "12345");
    put(st, "two.txt", "ab");
    put(st, "update.bin", "pkg");
    put(st, "RAM:r", "xyz");
    // 10 of 1000 taken; no SD card; an upload needs its size and no acknowledged mode; a pattern that matches
    // nothing lists nothing, one missing file by name is an error; "*" empties UFS only.
    const struct {
        const char *cmd;
        const char *answer;
    } rows[] = {
        // clang-format off
        {"AT+QFUPL=\"big\",991", "CME 420"},
        {"AT+QFUPL=\"one.bin\",1", "CME 407"},
        {"AT+QFUPL=\"a/b\",1", "CME 406"},
        {"AT+QFUPL=\"..\",1", "CME 406"},
        {"AT+QFUPL=\"\",1", "CME 406"},
        {"AT+QFUPL=\"SD:x\",1", "CME 400"},
        {"AT+QFUPL=\"x\"", "CME 425"},
        {"AT+QFUPL=\"x\",0", "CME 425"},
        {"AT+QFUPL=\"x\",1,0", "CME 425"},
        {"AT+QFUPL=\"x\",1,5,1", "CME 425"},
        {"AT+QFUPL=x,1", "ERROR"},
        {"AT+QFUPL=\"x,1", "ERROR"},
        {"AT+QFLST=\"*.bin\"", "+QFLST: \"one.bin\",5|+QFLST: \"update.bin\",3|OK"},
        {"AT+QFLST=\"UFS:two.txt\"", "+QFLST: \"two.txt\",2|OK"},
        {"AT+QFLST=\"RAM:*\"", "+QFLST: \"RAM:r\",3|OK"},
        {"AT+QFLST=\"*.zip\"", "OK"},
        {"AT+QFLST=\"none\"", "CME 405"},
        {"AT+QFLDS", "+QFLDS: 990,1000|OK"},
        {"AT+QFLDS=\"RAM\"", "+QFLDS: 97,100|OK"},
        {"AT+QFLDS=\"SD\"", "CME 400"},
        {"AT+QFOTADL=\"/data/ufs/update.bin\"", "OK+fota"},
        {"AT+QFOTADL=\"/data/ufs/other.bin\"", "CME 405"},
        {"AT+QFOTADL=\"http://example.com/a.bin\"", "CME 400"},
        {"AT+QFOTADL=/data/ufs/update.bin", "ERROR"},
        {"AT+QFDEL=\"none\"", "CME 405"},
        {"AT+QFDEL=\"one.bin\"", "OK"},
        {"AT+QFLDS=\"UFS\"", "+QFLDS: 995,1000|OK"},
        {"AT+QFDEL=\"*\"", "OK"},
        {"AT+QFLST", "OK"},
        {"AT+QFLST=\"RAM:*\"", "+QFLST: \"RAM:r\",3|OK"},
        {"AT+CSQ", "none"},
        // clang-format on
    };
    for (const auto &r : rows) {
        EXPECT_EQ(text(st.command(r.cmd, vars)), r.answer) << r.cmd;
        EXPECT_FALSE(st.uploading()) << r.cmd;
    }
}

} // namespace
} // namespace modem_sim
