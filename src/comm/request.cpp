#include "comm/request.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <unistd.h>

#include "ubus/modem_api.h"
#include "util/log.h"

namespace {

constexpr char ctrl_z = 0x1A;
// Parser status flags that decide where the next part ends.
constexpr uint32_t status_complete = 2;
constexpr uint32_t status_prompt = 8;

// Offset just after the first carriage return, or after a Ctrl-Z that
// follows it before another carriage return; 0 when the scan runs out.
uint32_t find_first_line_end(const char *cmd, uint32_t len)
{
    uint32_t end = 0;
    uint32_t i = 0;
    for (; i + 3 <= len; i++) {
        if (cmd[i] == '\r') {
            end = i + 1;
            break;
        }
    }
    if (!end)
        return 0;
    for (i = end; i + 3 <= len; i++) {
        if (cmd[i] == ctrl_z)
            return i + 1;
        if (cmd[i] == '\r')
            break;
    }
    return end;
}

// The first part ends at a carriage return or Ctrl-Z with more than one byte
// after it; one only at the very end makes a one-part command.
uint32_t find_ext_len(const char *cmd, uint32_t len)
{
    for (uint32_t i = 0; i + 2 < len; i++) {
        if (cmd[i] == '\r' || cmd[i] == ctrl_z)
            return i + 1;
    }
    return 0;
}

} // namespace

request_source &request_source::operator=(request_source &&other) noexcept
{
    if (this != &other) {
        close();
        fd = other.fd;
        size = other.size;
        read = other.read;
        written = other.written;
        checksum = other.checksum;
        quiet_ms = other.quiet_ms;
        started = other.started;
        other.fd = -1;
    }
    return *this;
}

void request_source::sent(const void *bytes, size_t n)
{
    checksum = xor16_checksum(checksum, written, bytes, n);
    written += n;
}

void request_source::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

uint16_t xor16_checksum(uint16_t sum, uint64_t offset, const void *bytes, size_t n)
{
    const auto *b = static_cast<const unsigned char *>(bytes);
    for (size_t i = 0; i < n; i++, offset++)
        sum ^= static_cast<uint16_t>((offset & 1) ? b[i] : b[i] << 8);
    return sum;
}

int64_t request_clock_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

request *create_request(uint32_t action, request_cb callback, void *ctx, const char *command, uint32_t length,
                        uint32_t timeout, void *extra)
{
    if (length == 0 || !command)
        return nullptr;

    auto *req = new (std::nothrow) request();
    if (!req) {
        LOG_ERROR("[MODEM] Failed to allocate memory for request\n");
        return nullptr;
    }
    // Two spare bytes for the line end the normalisation may add.
    req->command = static_cast<char *>(std::malloc(length + 2));
    if (!req->command) {
        LOG_ERROR("[MODEM] Failed to allocate memory for request command\n");
        delete req;
        return nullptr;
    }
    std::memcpy(req->command, command, length);
    char *cmd = req->command;
    uint32_t len = length;

    if (cmd[len - 1] == '\n')
        len--;
    if (action != ACT_SEND_SMS) {
        if (len >= 2 && cmd[len - 2] == '\\' && cmd[len - 1] == 'r') {
            cmd[len - 2] = '\r';
            len--;
        }
        // The terminating zero is counted and written with the command.
        if (len == 0 || (cmd[len - 1] != '\r' && cmd[len - 1] != ctrl_z)) {
            cmd[len++] = '\r';
            cmd[len++] = '\0';
        }
    }
    req->length = len;
    req->first_line_end = find_first_line_end(cmd, len);
    req->ext_len = find_ext_len(cmd, len);
    req->action = action;
    req->callback = callback;
    req->context = ctx;
    req->extra = extra;
    req->timeout = timeout;
    req->timeout2 = timeout;
    req->queued_time = request_clock_ms();
    return req;
}

void clean_request(request *req, int free_extra)
{
    if (!req)
        return;
    std::free(req->command);
    if (req->list.next && req->list.prev)
        list_del(&req->list);
    if (free_extra)
        std::free(req->extra);
    delete req;
}

uint32_t get_extended_length(const request *req, uint32_t parser_status)
{
    uint32_t from = req->ext_len;
    char stop = 0;
    if (parser_status & status_complete)
        stop = '\r';
    else if (parser_status & status_prompt)
        stop = ctrl_z;
    if (stop) {
        for (uint32_t i = from; i < req->length; i++) {
            if (req->command[i] == stop)
                return i + 1 - from;
        }
    }
    return req->length > from ? req->length - from : 0;
}

void set_extended_next(request *req, uint32_t parser_status)
{
    uint32_t n = get_extended_length(req, parser_status);
    uint32_t o = req->ext_len;
    if (parser_status & status_complete)
        req->token_offset = o;
    req->ext_len = (o + n + 1 < req->length) ? o + n : 0;
}
