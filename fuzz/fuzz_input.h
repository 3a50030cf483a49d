// Helpers shared by the fuzz targets: a small deterministic generator for
// chunk sizes and choices, so one input always replays the same way, and a
// check that aborts (libFuzzer then keeps the input) when an invariant fails.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

  private:
    uint32_t state_;
};

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
