#include "wwan/ubox.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// blobmsg value types mapped to the blob-level checks applied to their data.
constexpr int value_check[BLOBMSG_TYPE_LAST + 1] = {
	/* UNSPEC */ BLOB_ATTR_UNSPEC,
	/* ARRAY */ BLOB_ATTR_NESTED,
	/* TABLE */ BLOB_ATTR_NESTED,
	/* STRING */ BLOB_ATTR_STRING,
	/* INT64 */ BLOB_ATTR_INT64,
	/* INT32 */ BLOB_ATTR_INT32,
	/* INT16 */ BLOB_ATTR_INT16,
	/* INT8 */ BLOB_ATTR_INT8,
	/* DOUBLE */ BLOB_ATTR_DOUBLE,
};

bool is_integer_type(unsigned int id)
{
	return id == BLOBMSG_TYPE_INT8 || id == BLOBMSG_TYPE_INT16 ||
	       id == BLOBMSG_TYPE_INT32 || id == BLOBMSG_TYPE_INT64;
}

bool policy_accepts(int policy_type, unsigned int id)
{
	if (policy_type == BLOBMSG_TYPE_UNSPEC)
		return true;
	if (policy_type == BLOBMSG_CAST_INT64)
		return is_integer_type(id);
	return static_cast<unsigned int>(policy_type) == id;
}

// Name header validity of an extended attribute whose payload is `payload`
// bytes long.
bool check_name(const blob_attr *attr, size_t payload, bool need_name)
{
	if (!blob_is_extended(attr))
		return !need_name;
	if (payload < sizeof(blobmsg_hdr))
		return false;
	auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
	uint16_t namelen = blobmsg_namelen(hdr);
	if (need_name && !namelen)
		return false;
	if (static_cast<size_t>(blobmsg_hdrlen(namelen)) > payload)
		return false;
	return hdr->name[namelen] == 0;
}

// Appends an extended attribute with its name header and room for `payload`
// value bytes, which are left for the caller to fill.
blob_attr *new_field(blob_buf *buf, int type, const char *name, size_t payload, void **data)
{
	if (!name)
		name = "";
	size_t namelen = std::strlen(name);
	if (namelen > UINT16_MAX)
		return nullptr;
	int hdrlen = blobmsg_hdrlen(static_cast<unsigned int>(namelen));
	if (payload > BLOB_ATTR_LEN_MASK)
		return nullptr;
	blob_attr *attr = blob_new(buf, type, hdrlen + static_cast<int>(payload));
	if (!attr)
		return nullptr;
	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	auto *hdr = static_cast<blobmsg_hdr *>(blob_data(attr));
	uint16_t be_len = cpu_to_be16(static_cast<uint16_t>(namelen));
	std::memcpy(&hdr->namelen, &be_len, sizeof(be_len));
	std::memcpy(hdr->name, name, namelen);
	// NUL and padding up to the value
	std::memset(hdr->name + namelen, 0, static_cast<size_t>(hdrlen) - sizeof(blobmsg_hdr) - namelen);
	*data = blobmsg_data(attr);
	return attr;
}

}  // namespace

extern "C" {

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len)
{
	if (!attr || len < sizeof(blob_attr))
		return false;
	size_t raw = blob_raw_len(attr);
	if (raw < sizeof(blob_attr) || raw > len)
		return false;
	if (!check_name(attr, blob_len(attr), name))
		return false;
	unsigned int id = blob_id(attr);
	if (id > BLOBMSG_TYPE_LAST)
		return false;
	if (id == BLOBMSG_TYPE_ARRAY || id == BLOBMSG_TYPE_TABLE)
		return true;
	return blob_check_type(blobmsg_data(attr), static_cast<unsigned int>(blobmsg_data_len(attr)),
			       value_check[id]);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name)
{
	return attr && blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const blob_attr *attr, int type, size_t len)
{
	if (type > BLOBMSG_TYPE_LAST || type < 0)
		return -1;
	if (!blobmsg_check_attr_len(attr, false, len))
		return -1;
	bool need_name;
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_TABLE:
		need_name = true;
		break;
	case BLOBMSG_TYPE_ARRAY:
		need_name = false;
		break;
	default:
		return -1;
	}
	int count = 0;
	blob_attr *pos;
	size_t rem;
	blobmsg_for_each_attr(pos, attr, rem) {
		if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(pos) != type)
			return -1;
		if (!blobmsg_check_attr_len(pos, need_name, rem))
			return -1;
		count++;
	}
	return count;
}

int blobmsg_check_array(const blob_attr *attr, int type)
{
	if (!attr)
		return -1;
	return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool blobmsg_check_attr_list_len(const blob_attr *attr, int type, size_t len)
{
	return blobmsg_check_array_len(attr, type, len) >= 0;
}

bool blobmsg_check_attr_list(const blob_attr *attr, int type)
{
	return blobmsg_check_array(attr, type) >= 0;
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
	if (policy_len > 0)
		std::memset(tb, 0, sizeof(*tb) * static_cast<size_t>(policy_len));
	if (!data || !len)
		return -EINVAL;

	blob_attr *attr;
	size_t rem = len;
	__blob_for_each_attr(attr, data, rem) {
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		if (!blob_is_extended(attr))
			continue;
		auto *hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
		size_t namelen = blobmsg_namelen(hdr);
		unsigned int id = blob_id(attr);
		for (int i = 0; i < policy_len; i++) {
			const char *want = policy[i].name;
			if (!want || tb[i] || !policy_accepts(policy[i].type, id))
				continue;
			// first occurrence wins; one attribute may fill several slots
			if (std::strlen(want) == namelen && std::memcmp(want, hdr->name, namelen) == 0)
				tb[i] = attr;
		}
	}
	return 0;
}

int blobmsg_parse_array(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
	if (policy_len > 0)
		std::memset(tb, 0, sizeof(*tb) * static_cast<size_t>(policy_len));
	if (!data || !len)
		return -EINVAL;

	int slot = 0;
	blob_attr *attr;
	size_t rem = len;
	__blob_for_each_attr(attr, data, rem) {
		if (slot >= policy_len)
			break;
		// a mismatching element is skipped; the slot waits for the next one
		if (!policy_accepts(policy[slot].type, blob_id(attr)))
			continue;
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		tb[slot++] = attr;
	}
	return 0;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
	void *dest;
	if (!new_field(buf, type, name, len, &dest))
		return -1;
	if (len)
		std::memcpy(dest, data, len);
	return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array)
{
	if (!buf->head)
		return nullptr;
	if (!name)
		name = "";
	uintptr_t parent = reinterpret_cast<uintptr_t>(buf->head) - reinterpret_cast<uintptr_t>(buf->buf) + BLOB_COOKIE;
	void *data;
	blob_attr *child = new_field(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0, &data);
	if (!child)
		return nullptr;
	// The parent counted the child's header and name header; nest end adds
	// the child's payload (name header included), so take the name back out.
	blob_set_raw_len(buf->head, static_cast<unsigned int>(
		blob_pad_len(buf->head) - static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned int>(std::strlen(name))))));
	buf->head = child;
	return reinterpret_cast<void *>(parent);
}

void *blobmsg_alloc_string_buffer(blob_buf *buf, const char *name, unsigned int maxlen)
{
	void *data;
	blob_attr *attr = new_field(buf, BLOBMSG_TYPE_STRING, name, static_cast<size_t>(maxlen) + 1, &data);
	if (!attr)
		return nullptr;
	// Park the attribute just past the parent's end, uncounted, with only its
	// name header; blobmsg_add_string_buffer commits it.
	blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) - blob_pad_len(attr)));
	blob_set_raw_len(attr, static_cast<unsigned int>(blob_raw_len(attr) - maxlen - 1));
	return data;
}

void *blobmsg_realloc_string_buffer(blob_buf *buf, unsigned int maxlen)
{
	blob_attr *attr = blob_next(buf->head);
	size_t data_off = static_cast<size_t>(static_cast<char *>(blobmsg_data(attr)) - static_cast<char *>(buf->buf));
	size_t need = data_off + maxlen + 1;
	if (need > static_cast<size_t>(buf->buflen)) {
		if (!blob_buf_grow(buf, static_cast<int>(need - static_cast<size_t>(buf->buflen))))
			return nullptr;
		attr = blob_next(buf->head);
	}
	return blobmsg_data(attr);
}

void blobmsg_add_string_buffer(blob_buf *buf)
{
	blob_attr *attr = blob_next(buf->head);
	char *data = static_cast<char *>(blobmsg_data(attr));
	size_t room = static_cast<size_t>(static_cast<char *>(buf->buf) + buf->buflen - data);
	size_t len = strnlen(data, room ? room - 1 : 0);
	data[len] = 0;
	blob_set_raw_len(attr, static_cast<unsigned int>(blob_raw_len(attr) + len + 1));
	blob_fill_pad(attr);
	blob_set_raw_len(buf->head, static_cast<unsigned int>(blob_pad_len(buf->head) + blob_pad_len(attr)));
}

int blobmsg_vprintf(blob_buf *buf, const char *name, const char *format, va_list arg)
{
	va_list measure;
	va_copy(measure, arg);
	int len = std::vsnprintf(nullptr, 0, format, measure);
	va_end(measure);
	if (len < 0)
		return -1;
	char *dest = static_cast<char *>(blobmsg_alloc_string_buffer(buf, name, static_cast<unsigned int>(len)));
	if (!dest)
		return -1;
	len = std::vsnprintf(dest, static_cast<size_t>(len) + 1, format, arg);
	if (len < 0)
		return -1;
	blobmsg_add_string_buffer(buf);
	return len;
}

int blobmsg_printf(blob_buf *buf, const char *name, const char *format, ...)
{
	va_list ap;
	va_start(ap, format);
	int ret = blobmsg_vprintf(buf, name, format, ap);
	va_end(ap);
	return ret;
}

}  // extern "C"
