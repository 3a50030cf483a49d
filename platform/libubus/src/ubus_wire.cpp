#include "ubus_wire.h"

#include <string.h>
#include <unistd.h>

namespace ubus_wire {

namespace {

// Wire type of each message attribute; checked like blob_check_type.
const int attr_type[UBUS_ATTR_MAX] = {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_INT32,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT32,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT32,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT8,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_STRING,
	BLOB_ATTR_STRING,
};

uint32_t load_be32(const uint8_t *p)
{
	return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

} // namespace

size_t frame_len(const uint8_t *p)
{
	size_t raw = load_be32(p + hdr_len) & BLOB_ATTR_LEN_MASK;
	size_t pad = (raw + 3) & ~(size_t)3;
	if (raw < sizeof(struct blob_attr) || pad > UBUS_MAX_MSGLEN)
		return 0;
	return hdr_len + raw;
}

bool decode(uint8_t *p, size_t len, msg *m)
{
	memset(m, 0, sizeof(*m));
	m->fd = -1;
	if (len < min_len || frame_len(p) != len)
		return false;
	m->version = p[0];
	m->type = p[1];
	m->seq = (uint16_t)(p[2] << 8 | p[3]);
	m->peer = load_be32(p + 4);
	m->top = reinterpret_cast<struct blob_attr *>(p + hdr_len);
	for_each_child(m->top, [m](struct blob_attr *a) {
		unsigned id = blob_id(a);
		if (id >= UBUS_ATTR_MAX || blob_is_extended(a))
			return;
		if (!blob_check_type(blob_data(a), blob_len(a), attr_type[id]))
			return;
		m->attr[id] = a;
	});
	return true;
}

uint32_t get_u32(const struct blob_attr *attr)
{
	return load_be32(static_cast<const uint8_t *>(blob_data(attr)));
}

const char *get_str(const struct blob_attr *attr)
{
	return static_cast<const char *>(blob_data(attr));
}

void encode(std::vector<uint8_t> &out, uint8_t type, uint16_t seq, uint32_t peer,
	    const struct blob_attr *top)
{
	static const uint8_t empty_top[4] = {0, 0, 0, 4};
	const uint8_t *body = top ? reinterpret_cast<const uint8_t *>(top) : empty_top;
	size_t body_len = top ? blob_raw_len(top) : sizeof(empty_top);
	const uint8_t hdr[hdr_len] = {
		0, type, (uint8_t)(seq >> 8), (uint8_t)seq,
		(uint8_t)(peer >> 24), (uint8_t)(peer >> 16), (uint8_t)(peer >> 8), (uint8_t)peer,
	};
	out.insert(out.end(), hdr, hdr + hdr_len);
	out.insert(out.end(), body, body + body_len);
}

reader::~reader()
{
	for (auto &f : fds_)
		close(f.fd);
}

uint8_t *reader::space(size_t n)
{
	if (start_ == end_) {
		consumed_ += start_;
		start_ = end_ = 0;
	}
	if (buf_.size() - end_ < n) {
		if (start_ > 0) {
			memmove(buf_.data(), buf_.data() + start_, end_ - start_);
			consumed_ += start_;
			end_ -= start_;
			start_ = 0;
		}
		if (buf_.size() - end_ < n)
			buf_.resize(end_ + n);
	}
	return buf_.data() + end_;
}

void reader::commit(size_t n, int fd)
{
	if (fd >= 0)
		fds_.push_back({consumed_ + end_, consumed_ + end_ + n, fd});
	end_ += n;
}

reader::result reader::next(uint8_t **p, size_t *len, int *fd)
{
	*fd = -1;
	size_t avail = end_ - start_;
	if (avail < min_len)
		return none;
	uint8_t *m = buf_.data() + start_;
	size_t total = frame_len(m);
	if (!total)
		return invalid;
	if (avail < total) {
		// Make room for the rest of a large message in one go.
		if (buf_.size() - start_ < total)
			space(total - avail);
		return none;
	}
	uint64_t first = consumed_ + start_;
	while (!fds_.empty()) {
		const chunk_fd &f = fds_.front();
		if (first < f.begin)
			break;
		if (first < f.end && first + total < f.end)
			break;	// a later message of that read takes it
		if (first < f.end && *fd < 0)
			*fd = f.fd;
		else
			close(f.fd);
		fds_.pop_front();
	}
	if (start_ % 4) {
		scratch_.assign(m, m + total);
		m = scratch_.data();
	}
	start_ += total;
	*p = m;
	*len = total;
	return message;
}

int take_passed_fd(struct msghdr *mh)
{
	int fd = -1;
	for (struct cmsghdr *cm = CMSG_FIRSTHDR(mh); cm; cm = CMSG_NXTHDR(mh, cm)) {
		if (cm->cmsg_level != SOL_SOCKET || cm->cmsg_type != SCM_RIGHTS)
			continue;
		int nfds = (cm->cmsg_len - CMSG_LEN(0)) / sizeof(int);
		for (int i = 0; i < nfds; i++) {
			int f;
			memcpy(&f, CMSG_DATA(cm) + i * sizeof(int), sizeof(int));
			if (fd < 0)
				fd = f;
			else
				close(f);
		}
	}
	return fd;
}

} // namespace ubus_wire
