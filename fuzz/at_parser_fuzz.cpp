// Feeds a modem's byte stream to the response parser in chunks, the way the
// channel's receive path does, and checks what comes out of it.
// Byte 0: bits 0..3 the command in flight (its token), bit 4 drop the token
// after the first complete answer (the answer's owner is gone), bit 5 short
// chunks (1..8 bytes instead of 1..256). Byte 1 seeds the chunk sizes. The
// rest is the stream.
// Checked: the response, the URCs and what stays in the history never add up
// to more bytes than arrived; a response is only there with a result code;
// every URC has bytes and the URC walk ends; no crash or sanitizer report.
#include "comm/parser_manager.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_input.h"

namespace
{

constexpr std::string_view commands[16] = {
    "",
    "AT+CSQ\r",
    "AT+COPS?\r",
    "AT+CMGL=4\r",
    "AT+CUSD=1,\"*100#\",15\r",
    "AT+QFUPL=\"UFS:a.bin\",10\r",
    "AT+CMGS=23\r",
    "ATI\r",
    "AT+QENG=\"servingcell\"\r",
    "AT+QCFG=\"band\"\r",
    "AT\r",
    "AT+CPIN?\r",
    "AT+QNWPREFCFG=\"lte_band\"\r",
    "AT+CGDCONT?\r",
    "at+creg?\r",
    "AT+QABCDEFGHIJKLMNOPQ?\r", // a token too long to keep
};

struct tally {
    uint64_t in = 0;      // bytes received
    uint64_t out = 0;     // bytes handed out as responses and URCs
    uint64_t dropped = 0; // bytes of histories dropped for their size
};

void take_output(parser &p, uint32_t status, tally &t)
{
    const uint32_t answer = status & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT);
    if (answer) {
        FUZZ_CHECK(p.result_id() != ATS_NONE);
        FUZZ_CHECK((p.result_id() == ATS_PROMPT) == ((status & PARSER_STATUS_PROMPT) != 0));
        FUZZ_CHECK(p.get_len() > 0);
        FUZZ_CHECK(parser::ats_id_find(std::string_view(p.get_data(), p.get_len())) != ATS_NONE);
    } else if (!(status & PARSER_STATUS_FAILURE)) {
        FUZZ_CHECK(p.result_id() == ATS_NONE);
        FUZZ_CHECK(p.get_len() == 0);
    }
    t.out += p.get_len();

    FUZZ_CHECK(((status & PARSER_STATUS_URC) != 0) == !p.urc_done());
    uint32_t count = 0;
    while (!p.urc_done()) {
        FUZZ_CHECK(p.urc_len() > 0);
        t.out += p.urc_len();
        p.urc_next();
        FUZZ_CHECK(++count <= t.in);
    }
    FUZZ_CHECK(p.urc_len() == 0);
    p.urc_flush();
    p.flush();
    FUZZ_CHECK(t.out + p.get_hlen() + t.dropped <= t.in);
}

uint32_t work(parser &p, tally &t)
{
    if (p.get_hlen() > parser::hist_limit)
        t.dropped += p.get_hlen();
    return p.work();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const uint8_t mode = data[0];
    fuzz::chooser pick(data[1]);
    const uint32_t max_chunk = (mode & 0x20) ? 8 : 256;
    std::string_view token = commands[mode & 0x0F];
    data += 2;
    size -= 2;

    auto p = parser::create();
    if (!p)
        return 0;
    tally t;
    size_t pos = 0;
    while (pos < size) {
        const size_t n = std::min<size_t>(pick.size(max_chunk), size - pos);
        p->pre_sanitize();
        FUZZ_CHECK(p->hist_add(data + pos, static_cast<uint32_t>(n)) == n);
        t.in += n;
        pos += n;
        p->sanitize();
        FUZZ_CHECK(std::string_view(p->get_hdata(), p->get_hlen()).find('\0') == std::string_view::npos);
        p->set_req_token(token);
        const uint32_t status = work(*p, t);
        if ((mode & 0x10) && (status & PARSER_STATUS_COMPLETE))
            token = {};
        take_output(*p, status, t);
    }
    // Nobody waits any more: every complete answer left comes out.
    p->set_req_token(std::string_view());
    for (int i = 0; i < 16; i++) {
        const uint32_t status = work(*p, t);
        take_output(*p, status, t);
        if (!(status & PARSER_STATUS_COMPLETE))
            break;
    }
    return 0;
}
