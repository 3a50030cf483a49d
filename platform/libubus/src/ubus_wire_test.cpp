#include "ubus_wire.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <random>

namespace {

using bytes = std::vector<uint8_t>;

// Wire captures from a reference broker and client.
const bytes hello = {0x00, 0x00, 0x00, 0x00, 0x2a, 0xfc, 0xe2, 0xa8, 0x00, 0x00, 0x00, 0x04};
const bytes add_reply_data = {0x00, 0x02, 0x00, 0x11, 0x00, 0x00, 0x00, 0x00,
			      0x00, 0x00, 0x00, 0x0c, 0x03, 0x00, 0x00, 0x08, 0x99, 0x3e, 0xf3, 0x53};
const bytes event_delivery = {
	0x00, 0x05, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x28,
	0x03, 0x00, 0x00, 0x08, 0x22, 0xdc, 0x04, 0xaf,
	0x04, 0x00, 0x00, 0x0b, 0x72, 0x61, 0x77, 0x2e, 0x65, 0x76, 0x00, 0x00,
	0x07, 0x00, 0x00, 0x10, 0x83, 0x00, 0x00, 0x0a, 0x00, 0x01, 0x6b, 0x00, 0x76, 0x00, 0x00, 0x00};

bytes with_top_len(uint32_t raw)
{
	return {0, 1, 0, 1, 0, 0, 0, 0, (uint8_t)(raw >> 24), (uint8_t)(raw >> 16), (uint8_t)(raw >> 8), (uint8_t)raw};
}

TEST(Frame, LengthComesFromTheTopAttribute)
{
	EXPECT_EQ(ubus_wire::frame_len(hello.data()), 12u);
	EXPECT_EQ(ubus_wire::frame_len(event_delivery.data()), event_delivery.size());
	// The extended bit and the id do not count.
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(0xff000010).data()), 8u + 16);
}

TEST(Frame, RejectsShortTopAndMessagesOverTheLimit)
{
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(3).data()), 0u);
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(0).data()), 0u);
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(UBUS_MAX_MSGLEN).data()), 8u + UBUS_MAX_MSGLEN);
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(UBUS_MAX_MSGLEN - 3).data()), 8u + UBUS_MAX_MSGLEN - 3)
		<< "padded length is exactly the limit";
	EXPECT_EQ(ubus_wire::frame_len(with_top_len(UBUS_MAX_MSGLEN + 1).data()), 0u);
}

TEST(Decode, HeaderFieldsAreBigEndian)
{
	bytes m = hello;
	ubus_wire::msg d;
	ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d));
	EXPECT_EQ(d.type, UBUS_MSG_HELLO);
	EXPECT_EQ(d.seq, 0);
	EXPECT_EQ(d.peer, 0x2afce2a8u);

	bytes a = add_reply_data;
	ASSERT_TRUE(ubus_wire::decode(a.data(), a.size(), &d));
	EXPECT_EQ(d.type, UBUS_MSG_DATA);
	EXPECT_EQ(d.seq, 0x11);
	ASSERT_NE(d.attr[UBUS_ATTR_OBJID], nullptr);
	EXPECT_EQ(ubus_wire::get_u32(d.attr[UBUS_ATTR_OBJID]), 0x993ef353u);
}

TEST(Decode, EventDeliveryCarriesObjectMethodAndData)
{
	bytes m = event_delivery;
	ubus_wire::msg d;
	ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d));
	EXPECT_EQ(d.type, UBUS_MSG_INVOKE);
	EXPECT_EQ(d.seq, 3);
	EXPECT_EQ(d.peer, 0u);
	EXPECT_EQ(ubus_wire::get_u32(d.attr[UBUS_ATTR_OBJID]), 0x22dc04afu);
	EXPECT_STREQ(ubus_wire::get_str(d.attr[UBUS_ATTR_METHOD]), "raw.ev");
	ASSERT_NE(d.attr[UBUS_ATTR_DATA], nullptr);
	EXPECT_EQ(blob_len(d.attr[UBUS_ATTR_DATA]), 12u);
}

TEST(Decode, WronglySizedUnknownAndExtendedAttributesCountAsAbsent)
{
	// STATUS with 2 bytes, METHOD without NUL, id 14, and an extended
	// OBJID; then a good OBJPATH.
	bytes m = {0, 1, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0x2c,
		   0x01, 0x00, 0x00, 0x06, 0x00, 0x01, 0x00, 0x00,
		   0x04, 0x00, 0x00, 0x06, 'a', 'b', 0x00, 0x00,
		   0x0e, 0x00, 0x00, 0x08, 0, 0, 0, 1,
		   0x83, 0x00, 0x00, 0x08, 0, 0, 0, 1,
		   0x02, 0x00, 0x00, 0x06, 'p', 0, 0, 0};
	ubus_wire::msg d;
	ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d));
	EXPECT_EQ(d.attr[UBUS_ATTR_STATUS], nullptr);
	EXPECT_EQ(d.attr[UBUS_ATTR_METHOD], nullptr);
	EXPECT_EQ(d.attr[UBUS_ATTR_OBJID], nullptr);
	ASSERT_NE(d.attr[UBUS_ATTR_OBJPATH], nullptr);
	EXPECT_STREQ(ubus_wire::get_str(d.attr[UBUS_ATTR_OBJPATH]), "p");
}

TEST(Decode, ChildOverrunningTheTopEndsTheWalk)
{
	// OBJID fine, then a child claiming 64 bytes in a 12-byte top.
	bytes m = {0, 1, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0x14,
		   0x03, 0x00, 0x00, 0x08, 0, 0, 0x04, 0x00,
		   0x01, 0x00, 0x00, 0x40, 0, 0, 0, 0};
	ubus_wire::msg d;
	ASSERT_TRUE(ubus_wire::decode(m.data(), m.size(), &d));
	EXPECT_NE(d.attr[UBUS_ATTR_OBJID], nullptr);
	EXPECT_EQ(d.attr[UBUS_ATTR_STATUS], nullptr);
	EXPECT_FALSE(ubus_wire::decode(m.data(), m.size() - 4, &d)) << "frame shorter than announced";
}

TEST(Encode, RoundTripsThroughDecode)
{
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_ATTR_OBJID, 0x993ef353);
	bytes out;
	ubus_wire::encode(out, UBUS_MSG_DATA, 0x11, 0, b.head);
	EXPECT_EQ(out, add_reply_data);
	out.clear();
	ubus_wire::encode(out, UBUS_MSG_HELLO, 0, 0x2afce2a8, nullptr);
	EXPECT_EQ(out, hello);
	blob_buf_free(&b);
}

// Feeds the stream in pieces of the given sizes and collects the messages.
std::vector<bytes> split(const bytes &stream, const std::vector<size_t> &pieces)
{
	ubus_wire::reader r;
	std::vector<bytes> got;
	size_t pos = 0, i = 0;
	while (pos < stream.size()) {
		size_t n = std::min(pieces[i++ % pieces.size()], stream.size() - pos);
		memcpy(r.space(n), stream.data() + pos, n);
		r.commit(n);
		pos += n;
		uint8_t *p;
		size_t len;
		int fd;
		while (r.next(&p, &len, &fd) == ubus_wire::reader::message) {
			EXPECT_EQ((uintptr_t)p % 4, 0u) << "messages are handed out aligned";
			got.emplace_back(p, p + len);
		}
	}
	return got;
}

TEST(Reader, ReassemblesMessagesAcrossEveryChunkSize)
{
	// An unpadded 13-byte message puts the next one at an odd offset.
	bytes odd = {0, 1, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0x05, 0xee};
	bytes stream;
	const std::vector<bytes> msgs = {hello, event_delivery, odd, add_reply_data, event_delivery};
	for (auto &m : msgs)
		stream.insert(stream.end(), m.begin(), m.end());
	for (size_t chunk = 1; chunk <= stream.size(); chunk++) {
		SCOPED_TRACE(chunk);
		EXPECT_EQ(split(stream, {chunk}), msgs);
	}
	EXPECT_EQ(split(stream, {1, 7, 3, 50, 2}), msgs);
}

TEST(Reader, InvalidHeaderPoisonsTheStream)
{
	ubus_wire::reader r;
	bytes bad = with_top_len(2);
	memcpy(r.space(bad.size()), bad.data(), bad.size());
	r.commit(bad.size());
	uint8_t *p;
	size_t len;
	int fd;
	EXPECT_EQ(r.next(&p, &len, &fd), ubus_wire::reader::invalid);
}

TEST(Reader, FdBelongsToTheLastMessageStartingInItsRead)
{
	int fds[2];
	ASSERT_EQ(pipe(fds), 0);
	ubus_wire::reader r;
	// First read: hello + the start of a DATA message; second read, with
	// an fd: the DATA's rest plus a whole event delivery.
	bytes first = hello;
	first.insert(first.end(), add_reply_data.begin(), add_reply_data.begin() + 6);
	bytes second(add_reply_data.begin() + 6, add_reply_data.end());
	second.insert(second.end(), event_delivery.begin(), event_delivery.end());
	memcpy(r.space(first.size()), first.data(), first.size());
	r.commit(first.size());
	memcpy(r.space(second.size()), second.data(), second.size());
	r.commit(second.size(), fds[0]);

	uint8_t *p;
	size_t len;
	int fd;
	ASSERT_EQ(r.next(&p, &len, &fd), ubus_wire::reader::message);
	EXPECT_EQ(fd, -1);
	ASSERT_EQ(r.next(&p, &len, &fd), ubus_wire::reader::message);
	EXPECT_EQ(fd, -1) << "began before the fd's read";
	ASSERT_EQ(r.next(&p, &len, &fd), ubus_wire::reader::message);
	EXPECT_EQ(fd, fds[0]);
	close(fds[0]);
	close(fds[1]);
}

TEST(Reader, FdsOfDiscardedReadsAreClosed)
{
	int fds[2];
	ASSERT_EQ(pipe(fds), 0);
	{
		ubus_wire::reader r;
		memcpy(r.space(6), hello.data(), 6);
		r.commit(6, fds[0]);
	}
	EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
	close(fds[1]);
}

TEST(Reader, RandomBytesNeverOverrunOrLeak)
{
	std::mt19937 rng(1234);
	for (int iter = 0; iter < 2000; iter++) {
		ubus_wire::reader r;
		size_t total = rng() % 300;
		bytes stream(total);
		for (auto &c : stream)
			c = rng();
		// Keep the announced lengths small most of the time so that
		// whole messages come out too.
		for (size_t i = 8; i + 4 <= total; i += 4 + rng() % 24)
			if (rng() % 2)
				stream[i] = 0, stream[i + 1] = 0, stream[i + 2] = 0;
		size_t pos = 0;
		bool dead = false;
		while (pos < total && !dead) {
			size_t n = std::min<size_t>(1 + rng() % 40, total - pos);
			memcpy(r.space(n), stream.data() + pos, n);
			r.commit(n);
			pos += n;
			uint8_t *p;
			size_t len;
			int fd;
			for (;;) {
				auto res = r.next(&p, &len, &fd);
				if (res == ubus_wire::reader::invalid)
					dead = true;
				if (res != ubus_wire::reader::message)
					break;
				ubus_wire::msg m;
				ASSERT_TRUE(ubus_wire::decode(p, len, &m));
				for (auto *a : m.attr) {
					if (a) {
						ASSERT_LE((uint8_t *)a + blob_raw_len(a), p + len);
					}
				}
			}
		}
	}
}

} // namespace
