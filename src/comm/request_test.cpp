#include "comm/request.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "ubus/modem_api.h"

namespace
{

request_ptr make(const std::string &cmd, uint32_t action = ACT_AT_COMMAND)
{
    return request_ptr(create_request(action, nullptr, nullptr, cmd.data(), cmd.size(), 10000, nullptr));
}

std::string command(const request &r)
{
    return std::string(r.command, r.length);
}

constexpr uint32_t complete = 2, prompt = 8;

TEST(RequestTest, NormalisesTheLineEnd)
{
    const struct {
        std::string in, out;
        uint32_t ext_len;
    } cases[] = {
        {"AT+CSQ", std::string("AT+CSQ\r\0", 8), 0}, // the counted zero byte is written too
        {"AT+CSQ\n", std::string("AT+CSQ\r\0", 8), 0},
        {"AT+CSQ\r", "AT+CSQ\r", 0},
        {"ATZ\\r", "ATZ\r", 0},
        {"ATZ\\r\n", "ATZ\r", 0},
        {"AT+CMGS=5\r0011\x1a", "AT+CMGS=5\r0011\x1a", 10},
        {"AT+CFUN?\rAT+CPIN?\r", "AT+CFUN?\rAT+CPIN?\r", 9},
        {"\n", std::string("\r\0", 2), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.in));
        auto r = make(c.in);
        ASSERT_TRUE(r);
        EXPECT_EQ(command(*r), c.out);
        EXPECT_EQ(r->ext_len, c.ext_len);
    }
    EXPECT_EQ(create_request(ACT_AT_COMMAND, nullptr, nullptr, "AT", 0, 1, nullptr), nullptr);
}

TEST(RequestTest, SmsTextIsKeptExactly)
{
    std::string pdu = "AT+CMGS=18\r0001000B911326880736F40000A900\x1a";
    auto r = make(pdu, ACT_SEND_SMS);
    EXPECT_EQ(command(*r), pdu);
    auto t = make("hello\\r", ACT_SEND_SMS);
    EXPECT_EQ(command(*t), "hello\\r");
}

TEST(RequestTest, FirstLineEnd)
{
    EXPECT_EQ(make("AT+CSQ")->first_line_end, 0u);
    EXPECT_EQ(make("AT+CFUN?\rAT+CPIN?\r")->first_line_end, 9u);
    // A Ctrl-Z before the next carriage return extends it, when at least
    // three characters remain from it.
    EXPECT_EQ(make("AT+CMGS=5\r0011\x1a"
                   "AT\r")
                  ->first_line_end,
              15u);
    EXPECT_EQ(make("AT+CMGS=5\r0011\x1a\r")->first_line_end, 10u);
}

TEST(RequestTest, TwoPartSmsIsWrittenLineThenPdu)
{
    std::string cmd = "AT+CMGS=5\r00110A\x1a";
    auto r = make(cmd, ACT_SEND_SMS);
    ASSERT_EQ(r->ext_len, 10u); // first write: "AT+CMGS=5\r"
    // The modem's prompt: the PDU part runs to and includes Ctrl-Z.
    EXPECT_EQ(get_extended_length(r.get(), prompt), 7u);
    set_extended_next(r.get(), prompt);
    EXPECT_EQ(r->ext_len, 0u); // nothing left
    EXPECT_EQ(r->token_offset, 0u);
}

TEST(RequestTest, ChainedCommandsAdvancePartByPart)
{
    auto r = make("AT+CFUN?\rAT+CPIN?\rAT+CSQ\r");
    ASSERT_EQ(r->ext_len, 9u);
    EXPECT_EQ(get_extended_length(r.get(), complete), 9u); // "AT+CPIN?\r"
    set_extended_next(r.get(), complete);
    EXPECT_EQ(r->token_offset, 9u); // the next answer belongs to AT+CPIN?
    EXPECT_EQ(r->ext_len, 18u);
    EXPECT_EQ(get_extended_length(r.get(), complete), 7u); // "AT+CSQ\r"
    set_extended_next(r.get(), complete);
    EXPECT_EQ(r->token_offset, 18u);
    EXPECT_EQ(r->ext_len, 0u);

    // Without a matching stop the part runs to the end of the command.
    auto s = make("AT+A\rAT+B");
    EXPECT_EQ(get_extended_length(s.get(), prompt), 6u);
}

TEST(RequestTest, CleanUnlinksFromItsQueue)
{
    struct list_head queue;
    INIT_LIST_HEAD(&queue);
    request *a = create_request(ACT_AT_COMMAND, nullptr, nullptr, "AT", 2, 1, nullptr);
    request *b = create_request(ACT_AT_COMMAND, nullptr, nullptr, "ATI", 3, 1, std::malloc(16));
    list_add_tail(&a->list, &queue);
    list_add_tail(&b->list, &queue);
    clean_request(a, 0);
    EXPECT_EQ(queue.next, &b->list);
    clean_request(b, 1); // frees the extra data (ASan would report a leak otherwise)
    EXPECT_TRUE(list_empty(&queue));
    clean_request(nullptr, 1);
}

} // namespace
