#include "ubus_wire.h"

#include <gtest/gtest.h>

#include "platform/libubox/src/blob_test_support.h"

#include <fcntl.h>
#include <unistd.h>

namespace
{

using bytes = std::vector<uint8_t>;

using blob_test::from_hex;

// Wire captures from a reference broker and client.
const bytes hello = from_hex("00000000 2afce2a8 00000004");
const bytes add_reply_data = from_hex("00020011 00000000 0000000c 03000008 993ef353");
const bytes event_delivery = from_hex(
    "00050003 00000000 00000028 03000008 22dc04af 0400000b 7261772e 65760000 07000010 8300000a 00016b00 76000000");

TEST(Frame, LengthComesFromTheTopAttributeWithinTheLimit)
{
    // top attribute -> frame length (0: refused); the extended bit and the id do not count; a padded length of
    // exactly the limit passes.
    const std::pair<uint32_t, size_t> rows[] = {
        {4, 12},
        {0xff000010, 8 + 16},
        {3, 0},
        {0, 0},
        {UBUS_MAX_MSGLEN, 8 + UBUS_MAX_MSGLEN},
        {UBUS_MAX_MSGLEN - 3, 8 + UBUS_MAX_MSGLEN - 3},
        {UBUS_MAX_MSGLEN + 1, 0},
    };
    for (auto [t, frame] : rows) {
        const uint8_t h[12] = {0, 1, 0, 1, 0, 0, 0, 0, uint8_t(t >> 24), uint8_t(t >> 16), uint8_t(t >> 8), uint8_t(t)};
        EXPECT_EQ(ubus_wire::frame_len(h), frame) << t;
    }
}

// Captured messages decode to their header fields and encode back to the same bytes (an empty top as null).
TEST(Decode, CapturedMessagesDecodeAndEncodeBackToTheSameBytes)
{
    struct row {
        bytes wire;
        uint8_t type;
        uint16_t seq;
        uint32_t peer;
    } rows[] = {
        {hello, UBUS_MSG_HELLO, 0, 0x2afce2a8},
        {add_reply_data, UBUS_MSG_DATA, 0x11, 0},
        {event_delivery, UBUS_MSG_INVOKE, 3, 0},
    };
    ubus_wire::msg d; // the event's attributes are checked after the loop
    for (row &r : rows) {
        ASSERT_TRUE(ubus_wire::decode(r.wire.data(), r.wire.size(), &d));
        EXPECT_EQ(d.type, r.type);
        EXPECT_EQ(d.seq, r.seq);
        EXPECT_EQ(d.peer, r.peer);
        bytes out;
        ubus_wire::encode(out, d.type, d.seq, d.peer, blob_len(d.top) ? d.top : nullptr);
        EXPECT_EQ(out, r.wire);
    }
    EXPECT_EQ(ubus_wire::get_u32(d.attr[UBUS_ATTR_OBJID]), 0x22dc04afu);
    EXPECT_STREQ(ubus_wire::get_str(d.attr[UBUS_ATTR_METHOD]), "raw.ev");
    ASSERT_NE(d.attr[UBUS_ATTR_DATA], nullptr);
    EXPECT_EQ(blob_len(d.attr[UBUS_ATTR_DATA]), 12u);
}

TEST(Decode, MalformedAttributesCountAsAbsent)
{
    // STATUS with 2 bytes, METHOD without NUL, id 14, an extended OBJID,
    // a good OBJPATH, then a child claiming 64 bytes in what is left.
    bytes m = from_hex("00010005 00000001 00000034 01000006 00010000 04000006 61620000 0e000008 00000001 83000008"
                       "00000001 02000006 70000000 05000040 00000000");
    ubus_wire::msg d;
    ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d));
    for (int a : {UBUS_ATTR_STATUS, UBUS_ATTR_METHOD, UBUS_ATTR_OBJID, UBUS_ATTR_OBJTYPE}) {
        EXPECT_EQ(d.attr[a], nullptr) << a;
    }
    ASSERT_NE(d.attr[UBUS_ATTR_OBJPATH], nullptr);
    EXPECT_STREQ(ubus_wire::get_str(d.attr[UBUS_ATTR_OBJPATH]), "p");
    EXPECT_FALSE(ubus_wire::decode(m.data(), m.size() - 4, &d)) << "frame shorter than announced";
}

// Feeds the stream in pieces of the given sizes and collects the messages;
// with fd, the last piece comes with it.
std::vector<bytes> split(const bytes &stream, const std::vector<size_t> &pieces, int fd = -1,
                         std::vector<int> *fds = nullptr)
{
    ubus_wire::reader r;
    std::vector<bytes> got;
    for (size_t pos = 0, i = 0; pos < stream.size();) {
        size_t n = std::min(pieces[i++ % pieces.size()], stream.size() - pos);
        memcpy(r.space(n), stream.data() + pos, n);
        pos += n;
        r.commit(n, pos == stream.size() ? fd : -1);
        uint8_t *p;
        size_t len;
        int got_fd;
        while (r.next(&p, &len, &got_fd) == ubus_wire::reader::message) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 4, 0u) << "messages are handed out aligned";
            got.emplace_back(p, p + len);
            if (fds)
                fds->push_back(got_fd);
        }
    }
    return got;
}

TEST(Reader, ReassemblesMessagesAcrossEveryChunkSize)
{
    // An unpadded 13-byte message puts the next one at an odd offset.
    const std::vector<bytes> msgs = {hello, event_delivery, from_hex("00010009 00000000 00000005 ee"), add_reply_data,
                                     event_delivery};
    bytes stream;
    for (auto &m : msgs)
        stream.insert(stream.end(), m.begin(), m.end());
    for (size_t chunk = 1; chunk <= stream.size(); chunk++) {
        SCOPED_TRACE(chunk);
        EXPECT_EQ(split(stream, {chunk}), msgs);
    }
    EXPECT_EQ(split(stream, {1, 7, 3, 50, 2}), msgs);
}

// An fd belongs to the last message that starts in the read it came with;
// fds of discarded reads are closed; a header that cannot frame is invalid.
TEST(Reader, FdGoesToTheLastMessageStartingInItsRead)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    bytes stream = hello;
    stream.insert(stream.end(), add_reply_data.begin(), add_reply_data.end());
    stream.insert(stream.end(), event_delivery.begin(), event_delivery.end());
    std::vector<int> fds;
    // hello and the DATA's first 6 bytes, then the rest with the fd
    EXPECT_EQ(split(stream, {hello.size() + 6, stream.size()}, p[0], &fds).size(), 3u);
    EXPECT_EQ(fds, (std::vector<int>{-1, -1, p[0]}));
    close(p[0]);
    {
        ubus_wire::reader r;
        memcpy(r.space(6), hello.data(), 6);
        r.commit(6, p[1]);
    }
    EXPECT_EQ(fcntl(p[1], F_GETFD), -1);

    ubus_wire::reader r;
    bytes bad = from_hex("00010001 00000000 00000002");
    memcpy(r.space(bad.size()), bad.data(), bad.size());
    r.commit(bad.size());
    uint8_t *msg;
    size_t len;
    int fd;
    EXPECT_EQ(r.next(&msg, &len, &fd), ubus_wire::reader::invalid);
}

} // namespace
