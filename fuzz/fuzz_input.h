// Helpers shared by the fuzz targets: the input split into its mode byte,
// a small deterministic generator for chunk sizes and choices (so one input
// always replays the same way) and the rest, and a check that aborts
// (libFuzzer then keeps the input) when an invariant fails.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace fuzz
{

// xorshift32 seeded from an input byte; never zero.
class chooser
{
  public:
    explicit chooser(uint8_t seed) : state_(0x9E3779B9u ^ (static_cast<uint32_t>(seed) * 0x01000193u)) {}
    uint32_t next()
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    // 1..max
    uint32_t size(uint32_t max) { return 1 + next() % max; }
    // Cuts size bytes into chunks of 1..max bytes; fn(offset, length) each.
    template <class F> void chunks(size_t size, uint32_t max, F &&fn)
    {
        for (size_t pos = 0, n; pos < size; pos += n)
            fn(pos, n = std::min<size_t>(this->size(max), size - pos));
    }

  private:
    uint32_t state_;
};

// An input: byte 0 the mode; with a seed, byte 1 seeds the chooser; the rest.
struct input {
    uint8_t mode;
    chooser pick;
    const uint8_t *data;
    size_t size;
    std::string_view text() const { return {reinterpret_cast<const char *>(data), size}; }
};

// Nothing when the input is shorter than its leading bytes.
inline std::optional<input> split(const uint8_t *data, size_t size, bool seeded)
{
    const size_t head = seeded ? 2 : 1;
    if (size < head)
        return std::nullopt;
    return input{data[0], chooser(seeded ? data[1] : 0), data + head, size - head};
}

// Whether part lies inside whole (an empty part anywhere).
inline bool inside(std::string_view part, std::string_view whole)
{
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

// s in lower case (ASCII), for case-blind comparisons done independently.
inline std::string lower(std::string_view s)
{
    std::string out(s);
    for (char &c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

[[noreturn]] inline void fail(const char *what, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
    std::abort();
}

} // namespace fuzz

#define FUZZ_CHECK(cond)                                                                                               \
    do {                                                                                                               \
        if (!(cond))                                                                                                   \
            ::fuzz::fail(#cond, __FILE__, __LINE__);                                                                   \
    } while (0)
