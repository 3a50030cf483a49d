// usock(): one call to get a connected or listening socket.
#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

void set_flags(int fd, int type)
{
	if (type & USOCK_NONBLOCK)
		fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
	if (!(type & USOCK_NOCLOEXEC))
		fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

int sock_type(int type)
{
	return (type & 0xff) == USOCK_UDP ? SOCK_DGRAM : SOCK_STREAM;
}

// Binds and listens, or connects; a non-blocking connect in progress counts
// as success. Closes the fd on failure.
int open_addr(int type, const struct sockaddr *sa, socklen_t len, int family)
{
	int fd = socket(family, sock_type(type), 0);
	if (fd < 0)
		return -1;
	set_flags(fd, type);
	if (type & USOCK_SERVER) {
		const int yes = 1;
		if (family != AF_UNIX)
			setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
		if (family == AF_INET6 && (type & USOCK_IPV6ONLY))
			setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof(yes));
		if (bind(fd, sa, len) < 0 ||
		    (sock_type(type) == SOCK_STREAM && listen(fd, SOMAXCONN) < 0))
			goto fail;
	} else if (connect(fd, sa, len) < 0 && errno != EINPROGRESS) {
		goto fail;
	}
	return fd;
fail:
	int saved = errno;
	close(fd);
	errno = saved;
	return -1;
}

int open_unix(int type, const char *path)
{
	struct sockaddr_un sun;
	memset(&sun, 0, sizeof(sun));
	if (!path || strlen(path) >= sizeof(sun.sun_path)) {
		errno = EINVAL;
		return -1;
	}
	sun.sun_family = AF_UNIX;
	strcpy(sun.sun_path, path);
	return open_addr(type, (struct sockaddr *)&sun, sizeof(sun), AF_UNIX);
}

int open_inet(int type, const char *host, const char *service)
{
	struct addrinfo hints, *result = nullptr;
	memset(&hints, 0, sizeof(hints));
	hints.ai_family = (type & USOCK_IPV6ONLY) ? AF_INET6 : (type & USOCK_IPV4ONLY) ? AF_INET : AF_UNSPEC;
	hints.ai_socktype = sock_type(type);
	hints.ai_flags = AI_ADDRCONFIG | ((type & USOCK_SERVER) ? AI_PASSIVE : 0) |
			 ((type & USOCK_NUMERIC) ? AI_NUMERICHOST : 0);
	if (getaddrinfo(host, service, &hints, &result) != 0) {
		errno = EINVAL;
		return -1;
	}
	int fd = -1;
	for (struct addrinfo *rp = result; rp && fd < 0; rp = rp->ai_next)
		fd = open_addr(type, rp->ai_addr, rp->ai_addrlen, rp->ai_family);
	freeaddrinfo(result);
	return fd;
}

} // namespace

int usock(int type, const char *host, const char *service)
{
	if (type & USOCK_UNIX)
		return open_unix(type, host);
	return open_inet(type, host, service);
}

int usock_wait_ready(int fd, int msecs)
{
	struct pollfd pfd = {fd, POLLOUT, 0};
	int res = poll(&pfd, 1, msecs);
	if (res < 0)
		return errno;
	if (res == 0)
		return -ETIMEDOUT;
	int err = 0;
	socklen_t len = sizeof(err);
	if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0)
		return errno;
	return err;
}
