// Builds a request record from arbitrary command text and walks its parts as
// the channel writes them, each part answered by a final result or a prompt.
// Byte 0: bit 0 an SMS send (no line end is added), bit 1 a caller block in
// extra (freed with the request). Byte 1 seeds the answer kinds. The rest is
// the command.
// Checked: the normalised command keeps the text and ends in a line end (or
// Ctrl-Z) unless it is an SMS; the parts lie inside the command, follow one
// another and the walk ends; the awaited token's offset stays in the command.
#include "comm/parser_manager.h"
#include "comm/request.h"
#include "ubus/modem_api.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_input.h"

namespace
{

constexpr uint32_t complete = PARSER_STATUS_COMPLETE;
constexpr uint32_t prompt = PARSER_STATUS_PROMPT;

bool line_end(char c)
{
    return c == '\r' || c == 0x1A;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto in = fuzz::split(data, size, true);
    if (!in)
        return 0;
    const bool sms = in->mode & 0x01;
    void *extra = (in->mode & 0x02) ? std::malloc(16) : nullptr;
    const char *text = in->text().data();
    const auto length = static_cast<uint32_t>(in->size);

    request *req = create_request(sms ? ACT_SEND_SMS : ACT_AT_COMMAND, nullptr, nullptr, text, length, 1000, extra);
    if (!length) {
        FUZZ_CHECK(req == nullptr);
        std::free(extra);
        return 0;
    }
    FUZZ_CHECK(req != nullptr && req->extra == extra);
    const uint32_t len = req->length;
    const char *cmd = req->command;

    // The text is kept up to the line end handling: at most the trailing
    // "\n" and a written-out "\r" (two characters become one) change.
    FUZZ_CHECK(len <= length + 2);
    const uint32_t kept = length >= 3 ? length - 3 : 0;
    FUZZ_CHECK(std::memcmp(cmd, text, std::min(kept, len)) == 0);
    if (sms)
        FUZZ_CHECK(len <= length);
    else
        FUZZ_CHECK(len >= 1 && (line_end(cmd[len - 1]) || (len >= 2 && cmd[len - 1] == '\0' && cmd[len - 2] == '\r')));
    FUZZ_CHECK(req->first_line_end <= len);
    FUZZ_CHECK(req->ext_len == 0 || (req->ext_len < len && line_end(cmd[req->ext_len - 1])));

    // The first write is the first part, or everything for a one-part command.
    uint32_t written = req->ext_len ? req->ext_len : len;
    uint32_t parts = 1;
    while (req->ext_len) {
        const uint32_t status = (in->pick.next() & 1) ? complete : prompt;
        const uint32_t from = req->ext_len;
        FUZZ_CHECK(from == written); // parts follow one another
        const uint32_t n = get_extended_length(req, status);
        FUZZ_CHECK(n >= 1 && from + n <= len);
        // The part ends at the stop character the answer asks for, or runs
        // to the end of the command.
        const char last = cmd[from + n - 1];
        FUZZ_CHECK(from + n == len || last == (status == complete ? '\r' : 0x1A));
        (void)at_token(std::string_view(cmd + from, n));
        set_extended_next(req, status);
        written += n;
        FUZZ_CHECK(req->ext_len == 0 || req->ext_len > from);
        FUZZ_CHECK(req->token_offset <= len && (status != complete || req->token_offset == from));
        FUZZ_CHECK(++parts <= len);
    }
    FUZZ_CHECK(written <= len);
    // With every part answered nothing is left to write.
    FUZZ_CHECK(get_extended_length(req, complete) <= len);
    clean_request(req, 1);
    return 0;
}
