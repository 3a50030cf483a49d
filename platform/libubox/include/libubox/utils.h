/* Small helpers shared by the libubox-compatible headers: array size,
 * container_of, packing, bits and byte order. */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <stddef.h>
#include <stdint.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#ifndef container_of
#define container_of(ptr, type, member) \
	((type *)((char *)(ptr) - offsetof(type, member)))
#endif

#ifndef container_of_safe
#define container_of_safe(ptr, type, member) \
	((ptr) ? container_of(ptr, type, member) : NULL)
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif

#ifndef BIT
#define BIT(x) (1UL << (x))
#endif

/* Byte order. Each macro evaluates its argument once. */
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
#define cpu_to_be16(x)	((uint16_t) (x))
#define cpu_to_be32(x)	((uint32_t) (x))
#define cpu_to_be64(x)	((uint64_t) (x))
#define cpu_to_le16(x)	__builtin_bswap16((uint16_t) (x))
#define cpu_to_le32(x)	__builtin_bswap32((uint32_t) (x))
#define cpu_to_le64(x)	__builtin_bswap64((uint64_t) (x))
#else
#define cpu_to_be16(x)	__builtin_bswap16((uint16_t) (x))
#define cpu_to_be32(x)	__builtin_bswap32((uint32_t) (x))
#define cpu_to_be64(x)	__builtin_bswap64((uint64_t) (x))
#define cpu_to_le16(x)	((uint16_t) (x))
#define cpu_to_le32(x)	((uint32_t) (x))
#define cpu_to_le64(x)	((uint64_t) (x))
#endif

#define be16_to_cpu(x)	cpu_to_be16(x)
#define be32_to_cpu(x)	cpu_to_be32(x)
#define be64_to_cpu(x)	cpu_to_be64(x)
#define le16_to_cpu(x)	cpu_to_le16(x)
#define le32_to_cpu(x)	cpu_to_le32(x)
#define le64_to_cpu(x)	cpu_to_le64(x)

#endif
