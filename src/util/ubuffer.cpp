#include "util/ubuffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

std::unique_ptr<ubuffer> ubuffer::create()
{
    return std::unique_ptr<ubuffer>(new (std::nothrow) ubuffer());
}

ubuffer::~ubuffer()
{
    if (cap_)
        std::free(data_);
}

// Grows the capacity by need, at least 1 KiB. The storage always holds one
// byte more than the capacity, so the terminator that append and cut keep at
// index len stays inside it even when the content fills the capacity.
int ubuffer::grow_buffer(uint32_t need)
{
    uint64_t increment = need < 1024 ? 1024 : need;
    uint64_t size = cap_ + increment + 1;
    if (size > UINT32_MAX)
        return 1;

    auto *grown = static_cast<uint8_t *>(std::realloc(data_, size));
    if (!grown)
        return 1;

    // Zero from len to the new end, the spare terminator byte included.
    std::memset(grown + len_, 0, size - len_);
    data_ = grown;
    cap_ += static_cast<uint32_t>(increment);
    grow_cnt_++;
    return 0;
}

void ubuffer::flush()
{
    if (cap_)
        std::memset(data_, 0, cap_);
    len_ = 0;
}

uint32_t ubuffer::copy(const void *src, uint32_t n)
{
    if (cap_ < n && grow_buffer(n))
        return 0;
    if (n)
        std::memcpy(data_, src, n);
    len_ = n;
    return n;
}

uint32_t ubuffer::append(const void *src, uint32_t n)
{
    if (static_cast<uint64_t>(len_) + n > cap_ && grow_buffer(n))
        return 0;
    if (!data_)
        return 0;
    if (n) {
        auto s = reinterpret_cast<uintptr_t>(src);
        auto d = reinterpret_cast<uintptr_t>(data_);
        if (s < d + cap_ + 1 && d < s + n)
            std::abort(); // appending from inside the buffer: a programming error
        std::memcpy(data_ + len_, src, n);
    }
    len_ += n;
    data_[len_] = 0;
    return n;
}

uint32_t ubuffer::cut(uint32_t pos, uint32_t n)
{
    if (n == 0 || pos > len_)
        return 0;
    uint32_t count = (static_cast<uint64_t>(pos) + n > len_) ? len_ - pos : n;
    if (count == 0)
        return 0;
    // Move the tail together with the terminator at index len.
    std::memmove(data_ + pos, data_ + pos + count, len_ - pos - count + 1);
    len_ -= count;
    return count;
}
