// Feeds arbitrary bytes to the SMS-DELIVER decoder and the message builder.
// The first byte chooses the mode: bit 0 single, bit 1 strip, bit 2 binary
// records, bits 3..7 the storage index asked for (0 means every message).
// Hex records are the lines of the rest; binary records are length-prefixed
// byte strings written out as hex, so mutations reach the PDU fields directly.
#include "sms/pdu.h"

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
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    const bool binary = mode & 0x04;
    std::vector<pdu_raw> raw;
    size_t pos = 1;
    while (pos < size && raw.size() < 64) {
        if (binary) {
            const size_t n = data[pos++];
            const size_t take = n < size - pos ? n : size - pos;
            add_record(raw, data + pos, take, true);
            pos += take;
        } else {
            size_t end = pos;
            while (end < size && data[end] != '\n')
                end++;
            add_record(raw, data + pos, end - pos, false);
            pos = end + 1;
        }
    }
    std::vector<sms_message> out;
    pdu_decode(out, raw, static_cast<int>(mode >> 3) - 1, mode & 0x01, (mode >> 1) & 0x01);
    return 0;
}
