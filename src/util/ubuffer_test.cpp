#include "util/ubuffer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

enum op { append, copy, cut, flush };
struct step {
    op what;
    uint32_t n, pos = 0;
};

// Growth takes at least a kilobyte, else what is needed (not the need minus
// the free space); content that exactly fills the storage does not grow it
// and keeps its terminator (ASan catches an overrun). Copy replaces the
// start without writing a terminator; cut is clipped at the end; flush
// zeroes the storage and keeps it.
TEST(Ubuffer, StepsKeepContentCapacityAndTerminator)
{
    struct row {
        const char *what;
        std::vector<step> steps;
        uint32_t cap, grows, len;
    };
    // clang-format off
    const row rows[] = {
        {"one byte takes a kilobyte", {{append, 1}}, 1024, 1, 1},
        {"more than a kilobyte takes what is needed", {{append, 3000}}, 3000, 1, 3000},
        {"second growth adds the need", {{append, 3000}, {append, 2}}, 4024, 2, 3002},
        {"exactly full does not grow", {{append, 1000}, {append, 24}}, 1024, 1, 1024},
        {"full again after a growth", {{append, 1000}, {append, 24}, {append, 1024}}, 2048, 2, 2048},
        {"copy over longer content", {{append, 16}, {copy, 10}}, 1024, 1, 10},
        {"copy grows by what is needed", {{copy, 1500}}, 1500, 1, 1500},
        {"cut in the middle", {{append, 10}, {cut, 2, 4}}, 1024, 1, 8},
        {"cut clipped at the end", {{append, 10}, {cut, 5, 8}}, 1024, 1, 8},
        {"cut at the end removes nothing", {{append, 10}, {cut, 3, 10}}, 1024, 1, 10},
        {"cut beyond the end removes nothing", {{append, 10}, {cut, 3, 11}}, 1024, 1, 10},
        {"cut everything", {{append, 10}, {cut, 100, 0}}, 1024, 1, 0},
        {"flush", {{append, 5}, {flush, 0}}, 1024, 1, 0},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto b = ubuffer::create();
        std::string want;
        char fill = 'A';
        for (const step &s : r.steps) {
            const std::string data(s.n, fill++);
            if (s.what == cut) {
                const uint32_t before = b->len(), removed = b->cut(s.pos, s.n);
                EXPECT_EQ(removed, before - b->len());
                want.erase(std::min<size_t>(s.pos, want.size()), s.n);
            } else if (s.what == flush) {
                b->flush();
                want.assign(b->cap(), '\0');
            } else {
                EXPECT_EQ(s.what == append ? b->append(data.data(), s.n) : b->copy(data.data(), s.n), s.n);
                want = s.what == append ? want + data : data + want.substr(std::min<size_t>(s.n, want.size()));
            }
        }
        EXPECT_EQ(b->cap(), r.cap);
        EXPECT_EQ(b->grow_cnt(), r.grows);
        EXPECT_EQ(b->len(), r.len);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(b->buffer()), want.size()), want);
        if (r.steps.back().what != copy) {
            EXPECT_EQ(b->buffer()[b->len()], 0);
        }
    }
}

TEST(Ubuffer, AppendingFromInsideTheBufferIsFatal)
{
    auto b = ubuffer::create();
    b->append("abcdef", 6);
    EXPECT_DEATH(b->append(b->buffer() + 1, 2), "");
}

} // namespace
