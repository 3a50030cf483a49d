// Feeds arbitrary bytes to the SMS-DELIVER decoder and the message builder.
// The first byte chooses the mode: bit 0 single, bit 1 strip, bit 2 binary
// records, bits 3..7 the storage index asked for (0 means every message).
// Hex records are the lines of the rest; binary records are length-prefixed
// byte strings written out as hex, so mutations reach the PDU fields directly.
#include "sms/pdu.h"

#include "fuzz_input.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace
{

void add_record(std::vector<pdu_raw> &raw, const uint8_t *p, size_t n, bool binary)
{
    static constexpr char digits[] = "0123456789abcdef";
    pdu_raw r;
    r.index = static_cast<uint16_t>(raw.size());
    size_t len = 0;
    for (size_t i = 0; i < n && len + 2 < pdu_text_size; i++) {
        if (binary) {
            r.text[len++] = digits[p[i] >> 4];
            r.text[len++] = digits[p[i] & 0x0F];
        } else {
            r.text[len++] = static_cast<char>(p[i]);
        }
    }
    r.length = static_cast<uint16_t>(len);
    // The text area holds at most pdu_text_size - 1 characters; a length
    // beyond it must be refused, never followed.
    if (!binary && n >= pdu_text_size)
        r.length = static_cast<uint16_t>(n);
    pdu_raw single = r;
    pdu_decode_sms_deliver(single);
    raw.push_back(r);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto in = fuzz::split(data, size, false);
    if (!in)
        return 0;
    const bool binary = in->mode & 0x04;
    std::vector<pdu_raw> raw;
    const std::string_view rest = in->text();
    // Records: a length byte and that many bytes, or lines.
    for (size_t pos = 0; pos < rest.size() && raw.size() < 64;) {
        const size_t from = pos + binary;
        const size_t n = binary ? std::min<size_t>(in->data[pos], rest.size() - from)
                                : std::min(rest.find('\n', pos), rest.size()) - pos;
        add_record(raw, in->data + from, n, binary);
        pos = from + n + !binary;
    }
    std::vector<sms_message> out;
    pdu_decode(out, raw, static_cast<int>(in->mode >> 3) - 1, in->mode & 0x01, (in->mode >> 1) & 0x01);
    return 0;
}
