#include "comm/request.h"

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ubus/modem_api.h"

namespace
{

request_ptr make(const std::string &cmd, uint32_t action = ACT_AT_COMMAND)
{
    return request_ptr(create_request(action, nullptr, nullptr, cmd.data(), cmd.size(), 10000, nullptr));
}

constexpr uint32_t at = ACT_AT_COMMAND, sms = ACT_SEND_SMS, complete = 2, prompt = 8;

// The line end a command is written with, where its first write stops and
// where the first answer's line ends.
TEST(RequestTest, LineEndAndFirstPart)
{
    const std::string z(1, '\x1a');
    const struct {
        std::string in;
        uint32_t action;
        std::string out; // "": as given
        uint32_t ext_len, first_line_end;
    } rows[] = {
        {"AT+CSQ", at, std::string("AT+CSQ\r\0", 8), 0, 0}, // the counted zero byte is written too
        {"AT+CSQ\r", at, "", 0, 0},
        {"ATZ\\r", at, "ATZ\r", 0, 0},
        {"ATZ\\r\n", at, "ATZ\r", 0, 0},
        {"\n", at, std::string("\r\0", 2), 0, 0},
        {"AT+CFUN?\rAT+CPIN?\r", at, "", 9, 9},
        {"AT+CMGS=5\r0011" + z, at, "", 10, 10},
        {"AT+CMGS=5\r0011" + z + "AT\r", at, "", 10, 15}, // a Ctrl-Z ends the first line
        {"AT+CMGS=5\r0011" + z + "\r", at, "", 10, 10},   // too little after it
        {"AT+CMGS=18\r0001000B911326880736F40000A900" + z, sms, "", 11, 11},
        {"hello\\r", sms, "", 0, 0}, // SMS text is kept exactly
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.in));
        auto req = make(r.in, r.action);
        ASSERT_TRUE(req);
        EXPECT_EQ(std::string(req->command, req->length), r.out.empty() ? r.in : r.out);
        EXPECT_EQ(req->ext_len, r.ext_len);
        EXPECT_EQ(req->first_line_end, r.first_line_end);
    }
    EXPECT_EQ(create_request(ACT_AT_COMMAND, nullptr, nullptr, "AT", 0, 1, nullptr), nullptr);
}

// Each answer (or the SMS prompt) releases the next part: its length, and
// after it the answer's token offset and where the next part starts.
TEST(RequestTest, PartsAdvanceOnTheirAnswer)
{
    const struct {
        std::string cmd;
        uint32_t action, status;
        std::vector<std::array<uint32_t, 3>> steps; // part length, token offset, next part
    } rows[] = {
        {"AT+CMGS=5\r00110A\x1a", sms, prompt, {{7, 0, 0}}}, // the PDU runs to and includes Ctrl-Z
        {"AT+CFUN?\rAT+CPIN?\rAT+CSQ\r", at, complete, {{9, 9, 18}, {7, 18, 0}}},
        {"AT+A\rAT+B", at, prompt, {{6, 0, 0}}}, // no Ctrl-Z: the part runs to the end
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.cmd));
        auto req = make(r.cmd, r.action);
        for (const auto &[len, token_offset, ext_len] : r.steps) {
            EXPECT_EQ(get_extended_length(req.get(), r.status), len);
            set_extended_next(req.get(), r.status);
            EXPECT_EQ(req->token_offset, token_offset);
            EXPECT_EQ(req->ext_len, ext_len);
        }
    }
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
    clean_request(b,
                  1); // frees the extra data (ASan would report a leak otherwise)
    EXPECT_TRUE(list_empty(&queue));
    clean_request(nullptr, 1);
}

} // namespace
