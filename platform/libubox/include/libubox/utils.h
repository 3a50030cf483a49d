/* Small helpers shared by the libubox-compatible headers. */
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

#endif
