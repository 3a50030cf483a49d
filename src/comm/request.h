// A request: one AT command (or a chain of parts written one after another)
// waiting in a modem's queue, with what must happen to its answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "wwan/ubox.h"
#include <libubus.h>

class modem;
class ujson;
struct avp_client;

// Called with the modem, the action id, the reply and the context once the
// answer is parsed.
using request_cb = void (*)(modem *mdm, uint32_t action, ujson *reply, void *ctx);

// Raw bytes a command sends after the modem's "CONNECT" (a file upload). They
// may hold any byte, so they bypass the line handling, and they are streamed
// from the open file in chunks as the port takes them, never held whole. The
// descriptor is closed with the request, whatever its fate.
struct request_source {
    int fd = -1;
    uint64_t size = 0;       // bytes to send
    uint64_t read = 0;       // bytes taken from fd so far
    uint64_t written = 0;    // bytes the port took so far
    uint16_t checksum = 0;   // XOR of the written bytes as big-endian 16-bit words
    uint32_t quiet_ms = 0;   // the modem leaves data mode after this much silence
    bool started = false;    // "CONNECT" came and the data went out (or is going)

    request_source() = default;
    request_source(int fd, uint64_t size, uint32_t quiet_ms) : fd(fd), size(size), quiet_ms(quiet_ms) {}
    request_source(const request_source &) = delete;
    request_source &operator=(const request_source &) = delete;
    request_source(request_source &&other) noexcept { *this = std::move(other); }
    request_source &operator=(request_source &&other) noexcept;
    ~request_source() { close(); }

    bool active() const { return fd >= 0; }
    // Counts n bytes the port took into written and the checksum.
    void sent(const void *bytes, size_t n);
    void close();
};

// The 16-bit XOR checksum of a modem file transfer, continued over bytes that
// start at offset (its parity says which half of a word the first byte is):
// big-endian words, an odd last byte is the high byte of a word.
uint16_t xor16_checksum(uint16_t sum, uint64_t offset, const void *bytes, size_t n);

struct request {
    char *command = nullptr; // owned; written as is, length bytes
    uint32_t length = 0;
    uint32_t action = 0;
    struct ubus_request_data req_data = {}; // the deferred bus call this answers
    bool has_req_data = false;
    request_cb callback = nullptr;
    void *context = nullptr;
    void *extra = nullptr; // caller data, released with free() when asked
    avp_client *avp = nullptr;
    bool from_avp = false;   // sent by a local AT client (kept when the client leaves)
    int64_t queued_time = 0; // milliseconds on request_clock_ms()
    int64_t sent_time = 0;
    uint32_t timeout = 0; // execution time-out, milliseconds
    uint32_t timeout2 = 0; // queue time-out, milliseconds
    // Before the first write: length of the first part; afterwards: offset
    // of the next part; 0 for a one-part command or when no part is left.
    uint32_t ext_len = 0;
    uint32_t first_line_end = 0;
    uint32_t token_offset = 0; // the part whose answer is awaited
    int sent = 0;
    uint64_t number = 0;
    uint64_t channel_seq = 0; // set by the channel when it writes the command
    request_source source;    // raw data after "CONNECT"; none for most commands
    struct list_head list = {nullptr, nullptr};
};

// Milliseconds on a clock that setting the time of day does not move (a
// router sets it from the network well after boot).
int64_t request_clock_ms();

// Normalises the command (line end handling) and works out where a
// multi-part command splits. Null for an empty command or without memory.
request *create_request(uint32_t action, request_cb callback, void *ctx, const char *command, uint32_t length,
                        uint32_t timeout, void *extra);

// Unlinks the request from its queue when linked and frees it; the extra
// data only when free_extra is set. Null is ignored.
void clean_request(request *req, int free_extra);

// Length of the part starting at the current offset: up to the next carriage
// return after a complete answer, up to the next Ctrl-Z after a prompt.
uint32_t get_extended_length(const request *req, uint32_t parser_status);
// Moves to the next part, or to none when this was the last.
void set_extended_next(request *req, uint32_t parser_status);

struct request_cleaner {
    void operator()(request *req) const { clean_request(req, 1); }
};
using request_ptr = std::unique_ptr<request, request_cleaner>;
