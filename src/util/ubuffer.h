// Growable byte buffer: the receive buffer of a modem channel, the AT traffic
// log and the parser's line assembly all live in one.
#pragma once

#include <cstdint>
#include <memory>

class ubuffer {
public:
    // Empty buffer with no storage; null when the allocation fails.
    static std::unique_ptr<ubuffer> create();

    ubuffer() = default;
    ~ubuffer();
    ubuffer(const ubuffer &) = delete;
    ubuffer &operator=(const ubuffer &) = delete;

    uint8_t *buffer() const { return data_; }
    uint32_t len() const { return len_; }
    uint32_t cap() const { return cap_; }
    uint32_t grow_cnt() const { return grow_cnt_; }

    // Zeroes the whole storage and empties the content; the storage is kept.
    void flush();
    // Makes the content exactly n bytes of src. No terminator is written:
    // bytes past n keep what they held. Returns n, or 0 when growing failed.
    uint32_t copy(const void *src, uint32_t n);
    // Adds n bytes at the end and keeps a 0 byte at index len. src must not
    // point into this buffer. Returns n, or 0 when growing failed.
    uint32_t append(const void *src, uint32_t n);
    // Removes up to n bytes at pos; returns how many were removed.
    uint32_t cut(uint32_t pos, uint32_t n);

private:
    int grow_buffer(uint32_t need);

    uint8_t *data_ = nullptr;
    uint32_t len_ = 0;
    uint32_t cap_ = 0;
    uint32_t grow_cnt_ = 0;
};
