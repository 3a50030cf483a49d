/* Binary attribute containers: a 32-bit big-endian header (extended flag,
 * 7-bit id, 24-bit length including the header) followed by the payload,
 * padded to 4 bytes. blob_buf builds nested attribute trees in one buffer. */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <errno.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "utils.h"

#define BLOB_COOKIE		0x01234567

enum {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_BINARY,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT16,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT64,
	BLOB_ATTR_DOUBLE,
	BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK	0x7f000000
#define BLOB_ATTR_ID_SHIFT	24
#define BLOB_ATTR_LEN_MASK	0x00ffffff
#define BLOB_ATTR_ALIGN		4
#define BLOB_ATTR_EXTENDED	0x80000000

struct blob_attr {
	uint32_t id_len;	/* big-endian on the wire and in memory */
	char data[];
} __packed;

struct blob_attr_info {
	unsigned int type;
	unsigned int minlen;	/* raw length bounds, 0 = no bound */
	unsigned int maxlen;
	bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

struct blob_buf {
	struct blob_attr *head;	/* innermost open container */
	bool (*grow)(struct blob_buf *buf, int minlen);
	int buflen;
	void *buf;
};

static inline void *blob_data(const struct blob_attr *attr)
{
	return (void *) attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
	return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
	return !!(attr->id_len & cpu_to_be32(BLOB_ATTR_EXTENDED));
}

/* Header plus payload, without trailing padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
	return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* Payload length; a corrupt length below the header size reads as 0. */
static inline size_t blob_len(const struct blob_attr *attr)
{
	size_t raw = blob_raw_len(attr);
	return raw < sizeof(struct blob_attr) ? 0 : raw - sizeof(struct blob_attr);
}

static inline size_t blob_pad_len(const struct blob_attr *attr)
{
	return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t) (BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
	return *(const uint8_t *) attr->data;
}

static inline bool blob_get_bool(const struct blob_attr *attr)
{
	return *(const uint8_t *) attr->data != 0;
}

/* Payloads are only 4-byte aligned, so values are copied out. */
static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
	uint16_t v;

	memcpy(&v, attr->data, sizeof(v));
	return be16_to_cpu(v);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
	uint32_t v;

	memcpy(&v, attr->data, sizeof(v));
	return be32_to_cpu(v);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
	uint64_t v;

	memcpy(&v, attr->data, sizeof(v));
	return be64_to_cpu(v);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
	return (int8_t) blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
	return (int16_t) blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
	return (int32_t) blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
	return (int64_t) blob_get_u64(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
	return attr->data;
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
	return (struct blob_attr *) ((char *) attr + blob_pad_len(attr));
}

void blob_fill_pad(struct blob_attr *attr);
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);
bool blob_attr_equal(const struct blob_attr *a1, const struct blob_attr *a2);
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);
bool blob_buf_grow(struct blob_buf *buf, int required);
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);
bool blob_check_type(const void *ptr, unsigned int len, int type);
int blob_parse(struct blob_attr *attr, struct blob_attr **data,
	       const struct blob_attr_info *info, int max);
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
			 const struct blob_attr_info *info, int max);
struct blob_attr *blob_memdup(struct blob_attr *attr);
struct blob_attr *blob_put_raw(struct blob_buf *buf, const void *ptr, unsigned int len);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
	return blob_put(buf, id, str, strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val)
{
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val)
{
	val = cpu_to_be16(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
	val = cpu_to_be32(val);
	return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val)
{
	val = cpu_to_be64(val);
	return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8	blob_put_u8
#define blob_put_int16	blob_put_u16
#define blob_put_int32	blob_put_u32
#define blob_put_int64	blob_put_u64

/* Walks the attributes in [attr, attr + rem); stops at the first element
 * whose padded length is below a header or beyond what remains. `rem` may
 * be declared int or size_t by the caller. */
#define __blob_for_each_attr(pos, attr, rem) \
	for (pos = (struct blob_attr *) (attr); \
	     (size_t) (rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t) (rem) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem) \
	for (rem = (attr) ? blob_len(attr) : 0, \
	     pos = (struct blob_attr *) ((attr) ? blob_data(attr) : NULL); \
	     (size_t) (rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t) (rem) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

/* As above, but trusts at most attr_len bytes of the outer attribute. */
#define blob_for_each_attr_len(pos, attr, attr_len, rem) \
	for (rem = (attr) ? ((attr_len) < blob_raw_len(attr) ? \
			     ((attr_len) > sizeof(struct blob_attr) ? \
			      (attr_len) - sizeof(struct blob_attr) : 0) : \
			     blob_len(attr)) : 0, \
	     pos = (struct blob_attr *) ((attr) ? blob_data(attr) : NULL); \
	     (size_t) (rem) >= sizeof(struct blob_attr) && \
	     blob_pad_len(pos) <= (size_t) (rem) && \
	     blob_pad_len(pos) >= sizeof(struct blob_attr); \
	     rem -= blob_pad_len(pos), pos = blob_next(pos))

#endif
