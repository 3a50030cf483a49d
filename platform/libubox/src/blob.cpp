#include "wwan/ubox.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Positions inside a blob_buf are kept as offsets while the buffer may move;
// nest cookies are those offsets biased by BLOB_COOKIE so they are never 0.
uintptr_t attr_to_offset(const blob_buf *buf, const blob_attr *attr)
{
	return reinterpret_cast<uintptr_t>(attr) - reinterpret_cast<uintptr_t>(buf->buf) + BLOB_COOKIE;
}

blob_attr *offset_to_attr(const blob_buf *buf, uintptr_t offset)
{
	return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + (offset - BLOB_COOKIE));
}

void set_header(blob_attr *attr, unsigned int id, unsigned int raw_len)
{
	uint32_t word = ((id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK) | (raw_len & BLOB_ATTR_LEN_MASK);
	attr->id_len = cpu_to_be32(word);
}

bool default_grow(blob_buf *buf, int minlen)
{
	size_t delta = (static_cast<size_t>(minlen) / 256 + 1) * 256;
	size_t old_len = static_cast<size_t>(buf->buflen);
	void *p = std::realloc(buf->buf, old_len + delta);
	if (!p)
		return false;
	std::memset(static_cast<char *>(p) + old_len, 0, delta);
	buf->buf = p;
	buf->buflen = static_cast<int>(old_len + delta);
	return true;
}

// Places a fresh attribute at buffer offset `offset` (biased), growing the
// storage as needed. The parent's length is not touched.
blob_attr *add_at(blob_buf *buf, uintptr_t offset, int id, size_t payload)
{
	size_t start = offset - BLOB_COOKIE;
	size_t end = start + sizeof(blob_attr) + payload;
	if (payload > BLOB_ATTR_LEN_MASK || end > BLOB_ATTR_LEN_MASK)
		return nullptr;
	if (end > static_cast<size_t>(buf->buflen) &&
	    !blob_buf_grow(buf, static_cast<int>(end - static_cast<size_t>(buf->buflen))))
		return nullptr;
	blob_attr *attr = offset_to_attr(buf, offset);
	set_header(attr, static_cast<unsigned int>(id), static_cast<unsigned int>(sizeof(blob_attr) + payload));
	blob_fill_pad(attr);
	return attr;
}

int parse_one(blob_attr *attr, size_t avail, blob_attr **data, const blob_attr_info *info, int max)
{
	if (avail < sizeof(blob_attr))
		return 0;
	int id = static_cast<int>(blob_id(attr));
	if (id >= max)
		return 0;
	size_t raw = blob_raw_len(attr);
	if (raw > avail || raw < sizeof(blob_attr))
		return 0;
	if (info) {
		const blob_attr_info &rule = info[id];
		if (rule.type < BLOB_ATTR_LAST &&
		    !blob_check_type(blob_data(attr), static_cast<unsigned int>(blob_len(attr)), static_cast<int>(rule.type)))
			return 0;
		if (rule.minlen && raw < rule.minlen)
			return 0;
		if (rule.maxlen && raw > rule.maxlen)
			return 0;
		if (rule.validate && !rule.validate(&rule, attr))
			return 0;
	}
	int fresh = data[id] ? 0 : 1;
	data[id] = attr;  // duplicates: the last one wins
	return fresh;
}

}  // namespace

extern "C" {

void blob_fill_pad(blob_attr *attr)
{
	size_t raw = blob_raw_len(attr);
	size_t pad = blob_pad_len(attr) - raw;
	if (pad)
		std::memset(reinterpret_cast<char *>(attr) + raw, 0, pad);
}

void blob_set_raw_len(blob_attr *attr, unsigned int len)
{
	uint32_t word = be32_to_cpu(attr->id_len);
	word = (word & ~static_cast<uint32_t>(BLOB_ATTR_LEN_MASK)) | (len & BLOB_ATTR_LEN_MASK);
	attr->id_len = cpu_to_be32(word);
}

bool blob_attr_equal(const blob_attr *a1, const blob_attr *a2)
{
	if (!a1 && !a2)
		return true;
	if (!a1 || !a2)
		return false;
	if (blob_pad_len(a1) != blob_pad_len(a2))
		return false;
	return std::memcmp(a1, a2, blob_pad_len(a1)) == 0;
}

bool blob_buf_grow(blob_buf *buf, int required)
{
	if (required <= 0)
		return true;
	if (static_cast<long>(buf->buflen) + required > BLOB_ATTR_LEN_MASK)
		return false;
	uintptr_t head = buf->head ? attr_to_offset(buf, buf->head) : 0;
	if (!buf->grow || !buf->grow(buf, required))
		return false;
	if (head)
		buf->head = offset_to_attr(buf, head);
	return true;
}

int blob_buf_init(blob_buf *buf, int id)
{
	if (!buf->grow)
		buf->grow = default_grow;
	buf->head = nullptr;
	blob_attr *top = add_at(buf, BLOB_COOKIE, id, 0);
	if (!top)
		return -ENOMEM;
	buf->head = top;
	return 0;
}

void blob_buf_free(blob_buf *buf)
{
	std::free(buf->buf);
	buf->buf = nullptr;
	buf->head = nullptr;
	buf->buflen = 0;
}

blob_attr *blob_new(blob_buf *buf, int id, int payload)
{
	if (!buf->head || payload < 0)
		return nullptr;
	uintptr_t at = attr_to_offset(buf, buf->head) + blob_pad_len(buf->head);
	blob_attr *attr = add_at(buf, at, id, static_cast<size_t>(payload));
	if (!attr)
		return nullptr;
	blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) + blob_pad_len(attr)));
	return attr;
}

void *blob_nest_start(blob_buf *buf, int id)
{
	if (!buf->head)
		return nullptr;
	uintptr_t parent = attr_to_offset(buf, buf->head);
	blob_attr *child = blob_new(buf, id, 0);
	if (!child)
		return nullptr;
	buf->head = child;
	return reinterpret_cast<void *>(parent);
}

void blob_nest_end(blob_buf *buf, void *cookie)
{
	blob_attr *parent = offset_to_attr(buf, reinterpret_cast<uintptr_t>(cookie));
	blob_set_raw_len(parent, static_cast<unsigned int>(blob_pad_len(parent) + blob_len(buf->head)));
	buf->head = parent;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len)
{
	blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
	if (!attr)
		return nullptr;
	if (len)
		std::memcpy(blob_data(attr), ptr, len);
	return attr;
}

blob_attr *blob_put_raw(blob_buf *buf, const void *ptr, unsigned int len)
{
	if (len < sizeof(blob_attr))
		return nullptr;
	blob_attr *attr = blob_new(buf, 0, static_cast<int>(len - sizeof(blob_attr)));
	if (!attr)
		return nullptr;
	std::memcpy(attr, ptr, len);
	return attr;
}

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
	const char *data = static_cast<const char *>(ptr);
	switch (type) {
	case BLOB_ATTR_INT8:
		return len == 1;
	case BLOB_ATTR_INT16:
		return len == 2;
	case BLOB_ATTR_INT32:
		return len == 4;
	case BLOB_ATTR_INT64:
		return len == 8;
	case BLOB_ATTR_DOUBLE:
		return len >= 8;
	case BLOB_ATTR_STRING:
		return len >= 1 && data[len - 1] == 0;
	default:
		return true;
	}
}

int blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max)
{
	if (max > 0)
		std::memset(data, 0, sizeof(*data) * static_cast<size_t>(max));
	int found = 0;
	blob_attr *pos;
	size_t rem;
	blob_for_each_attr(pos, attr, rem)
		found += parse_one(pos, rem, data, info, max);
	return found;
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data,
			 const blob_attr_info *info, int max)
{
	if (max > 0)
		std::memset(data, 0, sizeof(*data) * static_cast<size_t>(max));
	if (!attr || attr_len < sizeof(blob_attr) || blob_raw_len(attr) > attr_len)
		return 0;
	int found = 0;
	blob_attr *pos;
	size_t rem;
	blob_for_each_attr_len(pos, attr, attr_len, rem)
		found += parse_one(pos, rem, data, info, max);
	return found;
}

blob_attr *blob_memdup(blob_attr *attr)
{
	size_t size = blob_pad_len(attr);
	void *p = std::malloc(size ? size : 1);
	if (p)
		std::memcpy(p, attr, size);
	return static_cast<blob_attr *>(p);
}

}  // extern "C"
