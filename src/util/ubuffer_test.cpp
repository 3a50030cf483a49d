#include "util/ubuffer.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

std::string content(const ubuffer &b)
{
    return std::string(reinterpret_cast<const char *>(b.buffer()), b.len());
}

// Growth takes at least a kilobyte, else what is needed (not the need minus
// the free space); content that exactly fills the storage does not grow it
// and still has its terminator (ASan catches an overrun). Copy replaces the
// content without writing a terminator.
TEST(UbufferTest, GrowthAndTerminator)
{
    struct row {
        const char *what;
        std::vector<std::pair<char, uint32_t>> steps; // 'a'ppend or 'c'opy n bytes
        uint32_t cap, grows;
    };
    const row rows[] = {
        {"one byte takes a kilobyte", {{'a', 1}}, 1024, 1},
        {"more than a kilobyte takes what is needed", {{'a', 3000}}, 3000, 1},
        {"second growth adds the need", {{'a', 3000}, {'a', 2}}, 4024, 2},
        {"exactly full does not grow", {{'a', 1000}, {'a', 24}}, 1024, 1},
        {"full again after a growth", {{'a', 1000}, {'a', 24}, {'a', 1024}}, 2048, 2},
        {"copy over longer content", {{'a', 16}, {'c', 10}}, 1024, 1},
        {"copy grows by what is needed", {{'c', 1500}}, 1500, 1},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto b = ubuffer::create();
        std::string want;
        char fill = 'A';
        for (const auto &[op, n] : r.steps) {
            std::string data(n, fill++);
            EXPECT_EQ(op == 'a' ? b->append(data.data(), n) : b->copy(data.data(), n), n);
            want = op == 'a' ? want + data : data + want.substr(std::min<size_t>(n, want.size()));
        }
        EXPECT_EQ(b->cap(), r.cap);
        EXPECT_EQ(b->grow_cnt(), r.grows);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(b->buffer()), want.size()), want);
        if (r.steps.back().first == 'a') {
            EXPECT_EQ(b->len(), want.size());
            EXPECT_EQ(b->buffer()[b->len()], 0);
        } else {
            EXPECT_EQ(b->len(), r.steps.back().second);
        }
    }
}

TEST(UbufferTest, CutRemovesAStretchAndKeepsTheTerminator)
{
    struct Case {
        uint32_t pos, n, removed;
        const char *left;
    } cases[] = {
        {8, 5, 2, "abcdefgh"},    // clipped at the end
        {10, 3, 0, "abcdefghij"}, // position equal to len
        {11, 3, 0, "abcdefghij"}, // position beyond len
        {0, 0, 0, "abcdefghij"},  // nothing asked
        {0, 3, 3, "defghij"},     {4, 2, 2, "abcdghij"}, {0, 100, 10, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "cut(" << c.pos << ", " << c.n << ")");
        auto b = ubuffer::create();
        b->append("abcdefghij", 10);
        EXPECT_EQ(b->cut(c.pos, c.n), c.removed);
        EXPECT_EQ(content(*b), c.left);
        EXPECT_EQ(b->buffer()[b->len()], 0);
    }
}

TEST(UbufferTest, FlushZeroesStorageAndKeepsIt)
{
    auto b = ubuffer::create();
    b->append("hello", 5);
    uint8_t *storage = b->buffer();
    b->flush();
    EXPECT_EQ(b->len(), 0u);
    EXPECT_EQ(b->cap(), 1024u);
    EXPECT_EQ(b->buffer(), storage);
    for (uint32_t i = 0; i < b->cap(); i++)
        ASSERT_EQ(b->buffer()[i], 0) << "at " << i;
}

TEST(UbufferTest, AppendingFromInsideTheBufferIsFatal)
{
    auto b = ubuffer::create();
    b->append("abcdef", 6);
    EXPECT_DEATH(b->append(b->buffer() + 1, 2), "");
}

} // namespace
