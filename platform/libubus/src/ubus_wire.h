// Message framing shared by the bus client and the broker: splitting a byte
// stream into messages, decoding the header and the attribute table, and
// encoding a message for sending.
#pragma once

#include <sys/socket.h>

// ubusmsg.h includes libubox/blob.h; wwan/ubox.h gives it C linkage first.
#include "wwan/ubox.h"
#include "ubusmsg.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace ubus_wire {

constexpr size_t hdr_len = sizeof(struct ubus_msghdr);
constexpr size_t min_len = hdr_len + sizeof(struct blob_attr);

// Total wire length announced by the first min_len bytes at p, or 0 when the
// top attribute is shorter than its header or longer than UBUS_MAX_MSGLEN.
size_t frame_len(const uint8_t *p);

struct msg {
	uint8_t version;
	uint8_t type;
	uint16_t seq;
	uint32_t peer;
	struct blob_attr *top;
	struct blob_attr *attr[UBUS_ATTR_MAX];
	int fd;
};

// Decodes one complete, 4-byte aligned message of len bytes. Attributes of
// the wrong type or size count as absent; false if the frame is inconsistent.
bool decode(uint8_t *p, size_t len, msg *m);

// The payload of attr as int32/string; callers checked presence and type.
uint32_t get_u32(const struct blob_attr *attr);
const char *get_str(const struct blob_attr *attr);

// Appends header + top attribute (an empty one when top is null).
void encode(std::vector<uint8_t> &out, uint8_t type, uint16_t seq, uint32_t peer,
	    const struct blob_attr *top);

// Walks the children of a container the way blob_for_each_attr does; stops at
// the first child whose length does not fit.
template <class F>
void for_each_child(const struct blob_attr *attr, F &&fn)
{
	size_t rem = blob_len(attr);
	auto *pos = static_cast<const uint8_t *>(blob_data(attr));
	while (rem >= sizeof(struct blob_attr)) {
		auto *a = reinterpret_cast<const struct blob_attr *>(pos);
		size_t pad = blob_pad_len(a);
		if (pad < sizeof(struct blob_attr) || pad > rem)
			break;
		fn(const_cast<struct blob_attr *>(a));
		rem -= pad;
		pos += pad;
	}
}

// Receive side of a stream: bytes go in through space()/commit(), complete
// messages (and the fds that arrived with them) come out of next(). Messages
// are handed out 4-byte aligned. A read returning an fd ends with the data
// the fd was sent with, so the fd belongs to the last message starting in
// that read.
class reader {
public:
	reader() = default;
	reader(const reader &) = delete;
	reader &operator=(const reader &) = delete;
	~reader();

	// At least n writable bytes after the buffered data.
	uint8_t *space(size_t n);
	void commit(size_t n, int fd = -1);

	enum result { none, message, invalid };
	// On message, *p/*len describe it until the next call; *fd (or -1) is
	// owned by the caller.
	result next(uint8_t **p, size_t *len, int *fd);

	size_t buffered() const { return end_ - start_; }

private:
	std::vector<uint8_t> buf_;
	std::vector<uint8_t> scratch_;
	size_t start_ = 0;
	size_t end_ = 0;
	uint64_t consumed_ = 0;		// stream offset of buf_[start_]
	struct chunk_fd {
		uint64_t begin, end;	// stream offsets of the read that carried it
		int fd;
	};
	std::deque<chunk_fd> fds_;
};

// The first descriptor passed with a received message (SCM_RIGHTS), or -1;
// any further ones are closed.
int take_passed_fd(struct msghdr *mh);

} // namespace ubus_wire
