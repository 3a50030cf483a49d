/* Socket creation helper: Unix, TCP and UDP, client or listening server. */
#ifndef LIBUBOX_USOCK_H
#define LIBUBOX_USOCK_H

#define USOCK_TCP 0
#define USOCK_UDP 1

#define USOCK_SERVER		0x0100
#define USOCK_NOCLOEXEC		0x0200
#define USOCK_NONBLOCK		0x0400
#define USOCK_NUMERIC		0x0800
#define USOCK_IPV6ONLY		0x2000
#define USOCK_IPV4ONLY		0x4000
#define USOCK_UNIX		0x8000

/* Returns the socket fd, or -1 with errno set. For USOCK_UNIX, host is the
 * socket path and service is ignored. */
int usock(int type, const char *host, const char *service);

/* Waits up to msecs for a (non-blocking) connect to finish: 0, -ETIMEDOUT or
 * the socket error. */
int usock_wait_ready(int fd, int msecs);

#endif
