#include "util/ubuffer.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

std::string content(const ubuffer &b)
{
    return std::string(reinterpret_cast<const char *>(b.buffer()), b.len());
}

TEST(UbufferTest, StartsEmptyWithoutStorage)
{
    auto b = ubuffer::create();
    ASSERT_TRUE(b);
    EXPECT_EQ(b->buffer(), nullptr);
    EXPECT_EQ(b->len(), 0u);
    EXPECT_EQ(b->cap(), 0u);
    EXPECT_EQ(b->grow_cnt(), 0u);
    b->flush(); // no storage to touch
    EXPECT_EQ(b->len(), 0u);
    EXPECT_EQ(b->cut(0, 5), 0u);
}

TEST(UbufferTest, GrowthTakesAtLeastOneKilobyteOrWhatIsNeeded)
{
    auto b = ubuffer::create();
    EXPECT_EQ(b->append("x", 1), 1u);
    EXPECT_EQ(b->cap(), 1024u);
    EXPECT_EQ(b->len(), 1u);
    EXPECT_EQ(b->grow_cnt(), 1u);
    EXPECT_EQ(b->buffer()[1], 0);

    auto big = ubuffer::create();
    std::string data(3000, 'a');
    EXPECT_EQ(big->append(data.data(), 3000), 3000u);
    EXPECT_EQ(big->cap(), 3000u);
    EXPECT_EQ(big->grow_cnt(), 1u);

    // The second growth adds need (not need minus free space).
    EXPECT_EQ(big->append("bc", 2), 2u);
    EXPECT_EQ(big->cap(), 4024u);
    EXPECT_EQ(big->grow_cnt(), 2u);
    EXPECT_EQ(content(*big), data + "bc");
}

TEST(UbufferTest, AppendThatExactlyFillsCapacityDoesNotGrow)
{
    auto b = ubuffer::create();
    std::string first(1000, 'a'), rest(24, 'b');
    b->append(first.data(), 1000);
    b->append(rest.data(), 24);
    EXPECT_EQ(b->len(), 1024u);
    EXPECT_EQ(b->cap(), 1024u);
    EXPECT_EQ(b->grow_cnt(), 1u);
    EXPECT_EQ(b->buffer()[1024], 0);

    // After a second growth the content can again fill the capacity and the
    // terminator still fits (ASan would catch an overrun here).
    std::string more(1024, 'c');
    b->append(more.data(), 1024);
    EXPECT_EQ(b->cap(), 2048u);
    EXPECT_EQ(b->len(), 2048u);
    EXPECT_EQ(b->buffer()[2048], 0);
    EXPECT_EQ(b->cut(0, 2047), 2047u);
    EXPECT_EQ(content(*b), "c");
}

TEST(UbufferTest, CopyReplacesContentWithoutTerminator)
{
    auto b = ubuffer::create();
    b->append("abcdefghijklmnop", 16);
    EXPECT_EQ(b->copy("0123456789", 10), 10u);
    EXPECT_EQ(b->len(), 10u);
    EXPECT_EQ(std::memcmp(b->buffer(), "0123456789klmnop", 16), 0);

    auto fresh = ubuffer::create();
    std::string data(1500, 'z');
    EXPECT_EQ(fresh->copy(data.data(), 1500), 1500u);
    EXPECT_EQ(fresh->cap(), 1500u); // grown by n itself, not n - cap
    EXPECT_EQ(content(*fresh), data);
}

TEST(UbufferTest, CutRemovesAStretchAndKeepsTheTerminator)
{
    struct Case {
        uint32_t pos, n, removed;
        const char *left;
    } cases[] = {
        {8, 5, 2, "abcdefgh"},   // clipped at the end
        {10, 3, 0, "abcdefghij"}, // position equal to len
        {11, 3, 0, "abcdefghij"}, // position beyond len
        {0, 0, 0, "abcdefghij"},  // nothing asked
        {0, 3, 3, "defghij"},
        {4, 2, 2, "abcdghij"},
        {0, 100, 10, ""},
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
