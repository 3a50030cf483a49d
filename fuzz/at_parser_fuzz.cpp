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
        FUZZ_CHECK(p.result_id() != ATS_NONE && p.get_len() > 0);
        FUZZ_CHECK((p.result_id() == ATS_PROMPT) == ((status & PARSER_STATUS_PROMPT) != 0));
        FUZZ_CHECK(parser::ats_id_find(std::string_view(p.get_data(), p.get_len())) != ATS_NONE);
    } else if (!(status & PARSER_STATUS_FAILURE)) {
        FUZZ_CHECK(p.result_id() == ATS_NONE && p.get_len() == 0);
    }
    t.out += p.get_len();

    FUZZ_CHECK(((status & PARSER_STATUS_URC) != 0) == !p.urc_done());
    for (uint32_t count = 0; !p.urc_done(); p.urc_next()) {
        FUZZ_CHECK(p.urc_len() > 0 && ++count <= t.in);
        t.out += p.urc_len();
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
    auto in = fuzz::split(data, size, true);
    auto p = in ? parser::create() : nullptr;
    if (!p)
        return 0;
    std::string_view token = commands[in->mode & 0x0F];
    tally t;
    in->pick.chunks(in->size, (in->mode & 0x20) ? 8 : 256, [&](size_t pos, size_t n) {
        p->pre_sanitize();
        FUZZ_CHECK(p->hist_add(in->data + pos, static_cast<uint32_t>(n)) == n);
        t.in += n;
        p->sanitize();
        FUZZ_CHECK(std::string_view(p->get_hdata(), p->get_hlen()).find('\0') == std::string_view::npos);
        p->set_req_token(token);
        const uint32_t status = work(*p, t);
        if ((in->mode & 0x10) && (status & PARSER_STATUS_COMPLETE))
            token = {};
        take_output(*p, status, t);
    });
    // Nobody waits any more: every complete answer left comes out.
    p->set_req_token(std::string_view());
    for (uint32_t i = 0, status = PARSER_STATUS_COMPLETE; i < 16 && (status & PARSER_STATUS_COMPLETE); i++)
        take_output(*p, status = work(*p, t), t);
    return 0;
}
