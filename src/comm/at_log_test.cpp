#include "comm/at_log.h"

#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "util/root_test_support.h"
#include "util/ubuffer.h"

namespace
{

class AtLogTest : public testing::Test
{
  protected:
    void SetUp() override { root.write("/tmp/.keep", ""); }
    std::set<std::string> files()
    {
        std::set<std::string> out;
        for (const auto &e : std::filesystem::directory_iterator(root / "/tmp"))
            if (e.path().filename().string()[0] != '.')
                out.insert(e.path().filename());
        return out;
    }
    temp_root root;
};

TEST_F(AtLogTest, RecordsShowLineEndsAndDropNuls)
{
    auto log = ubuffer::create();
    fill_log_buffer(*log, 0, "\r\nOK\r\n", 6);
    fill_log_buffer(*log, 1, "AT+CSQ\r\0", 8);
    std::string text(reinterpret_cast<char *>(log->buffer()), log->len());
    // "[YYYY-mm-dd HH:MM:SS] Received: \r\nOK\r\n" with visible backslashes
    ASSERT_EQ(text.size(), (21 + 11 + 10 + 1) + (21 + 7 + 8 + 1)) << text;
    EXPECT_EQ(text[0], '[');
    EXPECT_EQ(text.substr(20, 22), "] Received: \\r\\nOK\\r\\n");
    EXPECT_EQ(text.substr(43 + 20), "] Sent: AT+CSQ\\r\n");
}

TEST_F(AtLogTest, ReportsWhenTheDumpSizeIsReached)
{
    auto log = ubuffer::create();
    std::string chunk(1000, 'a');
    int records = 0;
    while (!fill_log_buffer(*log, 0, chunk.data(), chunk.size()))
        records++;
    EXPECT_GE(log->len(), at_log_dump_size);
    EXPECT_EQ(records, 31);
}

TEST_F(AtLogTest, DumpWritesTheBufferAndKeepsThreeNewestPerModem)
{
    for (const char *old :
         {"gsm_1-1_202601010000.log", "gsm_1-1_202601010001.log", "gsm_1-1_202601010002.log",
          "gsm_1-1_202601010003.log", "gsm_1-2_202601010000.log", "gsm_1-10_202601010000.log", "other.txt"})
        root.write(std::string("/tmp/") + old, "x");

    auto log = ubuffer::create();
    fill_log_buffer(*log, 1, "AT\r", 3);
    ASSERT_EQ(dump_log_buffer(*log, "1-1", "1-1", "2C7C:0125"), 0);
    EXPECT_EQ(log->len(), 0u);

    std::set<std::string> left = files();
    std::string fresh;
    for (const auto &f : left)
        if (f.rfind("gsm_1-1_2", 0) == 0 && f > "gsm_1-1_202601010003.log")
            fresh = f;
    ASSERT_FALSE(fresh.empty());
    EXPECT_NE(root.read("/tmp/" + fresh).find("] Sent: AT\\r\n"), std::string::npos);

    EXPECT_EQ(left, (std::set<std::string>{"gsm_1-1_202601010002.log", "gsm_1-1_202601010003.log", fresh,
                                           "gsm_1-2_202601010000.log", "gsm_1-10_202601010000.log", "other.txt"}));

    // An empty buffer writes nothing; a failed write keeps the records.
    EXPECT_EQ(dump_log_buffer(*log, "1-1", "1-1", "2C7C:0125"), 0);
    EXPECT_EQ(files(), left);
    root.remove("/tmp");
    fill_log_buffer(*log, 0, "OK", 2);
    uint32_t len = log->len();
    testing::internal::CaptureStdout();
    EXPECT_NE(dump_log_buffer(*log, "1-1", "1-1", "2C7C:0125"), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(log->len(), len);
}

TEST(AtLogNames, OnlyModemLogsAreRotated)
{
    for (const char *name : {"gsm_1-1_202601010000.log", "gsm_x.log.old"})
        EXPECT_TRUE(filter_log_name(name)) << name;
    for (const char *name : {"gsm.log", "xgsm_1.log", "gsm_1.txt"})
        EXPECT_FALSE(filter_log_name(name)) << name;
}

} // namespace
