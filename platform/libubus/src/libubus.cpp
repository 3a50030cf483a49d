// Bus client: connection set-up, the socket reader and message dispatch.
#include "libubus_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "wwan/ubox.h"

#include <new>

namespace {

const char *const status_text[] = {
	"Success",
	"Invalid command",
	"Invalid argument",
	"Method not found",
	"Not found",
	"No response",
	"Permission denied",
	"Request timed out",
	"Operation not supported",
	"Unknown error",
	"Connection failed",
	"Out of memory",
	"Parsing message data failed",
	"System error",
};

constexpr size_t read_chunk = 65536;

// Reads what is available into the reader: >0 bytes, 0 EOF, -1 nothing
// available, -2 error.
ssize_t read_some(struct ubus_context *ctx)
{
	ubus_ctx_priv *p = ctx->priv;
	uint8_t *buf = p->rx.space(read_chunk);
	struct iovec iov = {buf, read_chunk};
	union {
		struct cmsghdr h;
		char buf[CMSG_SPACE(sizeof(int))];
	} cbuf;
	struct msghdr mh;
	memset(&mh, 0, sizeof(mh));
	mh.msg_iov = &iov;
	mh.msg_iovlen = 1;
	mh.msg_control = &cbuf;
	mh.msg_controllen = sizeof(cbuf);

	ssize_t n;
	do {
		n = recvmsg(ctx->sock.fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
	} while (n < 0 && errno == EINTR);
	if (n < 0)
		return (errno == EAGAIN || errno == EWOULDBLOCK) ? -1 : -2;

	int fd = ubus_wire::take_passed_fd(&mh);
	if (n == 0) {
		if (fd >= 0)
			close(fd);
		return 0;
	}
	p->rx.commit(n, fd);
	return n;
}

void dispatch(struct ubus_context *ctx, std::vector<uint8_t> &bytes, int fd)
{
	ubus_wire::msg m;
	if (!ubus_wire::decode(bytes.data(), bytes.size(), &m) || m.version != 0) {
		if (fd >= 0)
			close(fd);
		return;
	}
	switch (m.type) {
	case UBUS_MSG_STATUS:
	case UBUS_MSG_DATA:
		ubus_process_req_msg(ctx, m, fd);
		return;
	case UBUS_MSG_INVOKE:
	case UBUS_MSG_UNSUBSCRIBE:
	case UBUS_MSG_NOTIFY:
		if (ctx->stack_depth > 0 || !ctx->priv->pending.empty()) {
			ctx->priv->pending.push_back({std::move(bytes), fd});
			if (ctx->stack_depth == 0 && ctx->sock.registered)
				uloop_timeout_set(&ctx->pending_timer, 1);
			return;
		}
		ubus_process_obj_msg(ctx, m, fd);
		return;
	case UBUS_MSG_MONITOR:
		if (ctx->monitor_cb)
			ctx->monitor_cb(ctx, m.seq, m.top);
		break;
	default:
		break;
	}
	if (fd >= 0)
		close(fd);
}

// Dispatches every complete buffered message. Each is copied out first: a
// handler may make a synchronous call that reads into the same buffer.
bool process_buffered(struct ubus_context *ctx)
{
	for (;;) {
		uint8_t *p;
		size_t len;
		int fd;
		switch (ctx->priv->rx.next(&p, &len, &fd)) {
		case ubus_wire::reader::none:
			return true;
		case ubus_wire::reader::invalid:
			return false;
		case ubus_wire::reader::message: {
			std::vector<uint8_t> bytes(p, p + len);
			dispatch(ctx, bytes, fd);
			if (!ctx->priv)
				return true;
			break;
		}
		}
	}
}

void connection_lost(struct ubus_context *ctx)
{
	ctx->sock.eof = true;
	ubus_fail_requests(ctx, UBUS_STATUS_TIMEOUT);
	int fd = ctx->sock.fd;
	if (ctx->connection_lost)
		ctx->connection_lost(ctx);
	if (ctx->sock.fd == fd && ctx->sock.registered)
		uloop_fd_delete(&ctx->sock);
}

void handle_data(struct uloop_fd *u, unsigned int)
{
	struct ubus_context *ctx = container_of(u, struct ubus_context, sock);
	for (;;) {
		ssize_t n = read_some(ctx);
		if (n > 0 && !process_buffered(ctx))
			n = -2;
		if (n == 0 || n == -2) {
			connection_lost(ctx);
			return;
		}
		// A short read drained the socket; the loop calls again when more
		// arrives. After a hang-up (the loop has dropped the fd) read on
		// to the end instead.
		bool hung_up = ctx->sock.eof || ctx->sock.error;
		if (n < 0 && hung_up) {
			connection_lost(ctx);
			return;
		}
		if (n < 0 || (!hung_up && (size_t)n < read_chunk))
			return;
	}
}

void process_pending(struct uloop_timeout *t)
{
	struct ubus_context *ctx = container_of(t, struct ubus_context, pending_timer);
	while (ctx->stack_depth == 0 && ctx->priv && !ctx->priv->pending.empty()) {
		ubus_pending_msg pm = std::move(ctx->priv->pending.front());
		ctx->priv->pending.pop_front();
		ubus_wire::msg m;
		if (ubus_wire::decode(pm.bytes.data(), pm.bytes.size(), &m))
			ubus_process_obj_msg(ctx, m, pm.fd);
		else if (pm.fd >= 0)
			close(pm.fd);
	}
}

void default_connection_lost(struct ubus_context *ctx)
{
	// uloop unregisters a hung-up fd itself (and marks it with error)
	// before the callback runs; the socket was in the loop either way.
	if (ctx->sock.registered || ctx->sock.error)
		uloop_end();
}

void drop_pending(ubus_ctx_priv *p)
{
	for (auto &pm : p->pending)
		if (pm.fd >= 0)
			close(pm.fd);
	p->pending.clear();
}

bool read_full(int fd, void *buf, size_t len)
{
	auto *p = static_cast<uint8_t *>(buf);
	while (len) {
		ssize_t n = read(fd, p, len);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		p += n;
		len -= n;
	}
	return true;
}

} // namespace

int ubus_send_msg(struct ubus_context *ctx, uint32_t seq, struct blob_attr *msg,
		  int cmd, uint32_t peer, int fd)
{
	uint8_t hdr[ubus_wire::hdr_len] = {
		0, (uint8_t)cmd, (uint8_t)(seq >> 8), (uint8_t)seq,
		(uint8_t)(peer >> 24), (uint8_t)(peer >> 16), (uint8_t)(peer >> 8), (uint8_t)peer,
	};
	struct iovec iov[2] = {
		{hdr, sizeof(hdr)},
		{msg, blob_raw_len(msg)},
	};
	union {
		struct cmsghdr h;
		char buf[CMSG_SPACE(sizeof(int))];
	} cbuf;
	struct msghdr mh;
	memset(&mh, 0, sizeof(mh));
	mh.msg_iov = iov;
	mh.msg_iovlen = 2;
	if (fd >= 0) {
		memset(&cbuf, 0, sizeof(cbuf));
		mh.msg_control = &cbuf;
		mh.msg_controllen = CMSG_SPACE(sizeof(int));
		struct cmsghdr *c = CMSG_FIRSTHDR(&mh);
		c->cmsg_level = SOL_SOCKET;
		c->cmsg_type = SCM_RIGHTS;
		c->cmsg_len = CMSG_LEN(sizeof(int));
		memcpy(CMSG_DATA(c), &fd, sizeof(int));
	}

	int ret = 0;
	size_t left = iov[0].iov_len + iov[1].iov_len;
	while (left) {
		ssize_t n = sendmsg(ctx->sock.fd, &mh, MSG_NOSIGNAL);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			if (errno == EAGAIN || errno == EWOULDBLOCK) {
				struct pollfd pfd = {ctx->sock.fd, POLLOUT, 0};
				poll(&pfd, 1, 1000);
				continue;
			}
			ctx->sock.eof = true;
			ret = -1;
			break;
		}
		left -= n;
		mh.msg_control = nullptr;
		mh.msg_controllen = 0;
		while (n > 0 && mh.msg_iovlen) {
			if ((size_t)n >= mh.msg_iov->iov_len) {
				n -= mh.msg_iov->iov_len;
				mh.msg_iov++;
				mh.msg_iovlen--;
			} else {
				mh.msg_iov->iov_base = (char *)mh.msg_iov->iov_base + n;
				mh.msg_iov->iov_len -= n;
				n = 0;
			}
		}
	}
	if (fd >= 0)
		close(fd);
	return ret;
}

void ubus_poll_data(struct ubus_context *ctx, int timeout)
{
	// Messages already read (by an outer dispatch loop) come first.
	if (!process_buffered(ctx)) {
		ctx->sock.eof = true;
		return;
	}
	if (ctx->sock.eof)
		return;
	struct pollfd pfd = {ctx->sock.fd, POLLIN, 0};
	int r = poll(&pfd, 1, timeout);
	if (r <= 0)
		return;
	ssize_t n = read_some(ctx);
	if (n == 0 || n == -2 || (n > 0 && !process_buffered(ctx)))
		ctx->sock.eof = true;
}

int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
	struct {
		uint8_t hdr[ubus_wire::hdr_len];
		uint32_t top;
	} hello;

	if (!path)
		path = UBUS_UNIX_SOCKET;
	if (ctx->sock.registered)
		uloop_fd_delete(&ctx->sock);
	if (ctx->sock.fd >= 0)
		close(ctx->sock.fd);
	ctx->sock.eof = false;
	ctx->sock.error = false;
	ctx->sock.fd = usock(USOCK_UNIX, path, nullptr);
	if (ctx->sock.fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;

	ubus_ctx_priv *p = ctx->priv;
	p->rx.~reader();
	new (&p->rx) ubus_wire::reader();
	drop_pending(p);

	int ret = UBUS_STATUS_CONNECTION_FAILED;
	if (!read_full(ctx->sock.fd, &hello, sizeof(hello)))
		goto out_close;
	if (hello.hdr[0] != 0 || hello.hdr[1] != UBUS_MSG_HELLO)
		goto out_close;
	{
		size_t total = ubus_wire::frame_len(hello.hdr);
		if (!total)
			goto out_close;
		std::vector<uint8_t> rest(total - sizeof(hello));
		if (!rest.empty() && !read_full(ctx->sock.fd, rest.data(), rest.size()))
			goto out_close;
	}
	// The id is kept in wire byte order, as the reference client does.
	memcpy(&ctx->local_id, hello.hdr + 4, sizeof(ctx->local_id));
	if (ctx->local_id <= 1)
		goto out_close;

	fcntl(ctx->sock.fd, F_SETFD, fcntl(ctx->sock.fd, F_GETFD) | FD_CLOEXEC);
	ubus_refresh_state(ctx);
	return UBUS_STATUS_OK;

out_close:
	close(ctx->sock.fd);
	ctx->sock.fd = -1;
	return ret;
}

int ubus_connect_ctx(struct ubus_context *ctx, const char *path)
{
	uloop_init();
	memset(ctx, 0, sizeof(*ctx));
	ctx->sock.fd = -1;
	ctx->sock.cb = handle_data;
	ctx->connection_lost = default_connection_lost;
	ctx->pending_timer.cb = process_pending;
	INIT_LIST_HEAD(&ctx->requests);
	INIT_LIST_HEAD(&ctx->pending);
	INIT_LIST_HEAD(&ctx->objects.list_head);
	ctx->priv = new (std::nothrow) ubus_ctx_priv;
	if (!ctx->priv)
		return -1;
	if (ubus_reconnect(ctx, path)) {
		delete ctx->priv;
		ctx->priv = nullptr;
		return -1;
	}
	return 0;
}

struct ubus_context *ubus_connect(const char *path)
{
	auto *ctx = static_cast<struct ubus_context *>(calloc(1, sizeof(struct ubus_context)));
	if (!ctx)
		return nullptr;
	if (ubus_connect_ctx(ctx, path)) {
		free(ctx);
		return nullptr;
	}
	return ctx;
}

void ubus_shutdown(struct ubus_context *ctx)
{
	if (!ctx)
		return;
	uloop_fd_delete(&ctx->sock);
	if (ctx->sock.fd >= 0)
		close(ctx->sock.fd);
	ctx->sock.fd = -1;
	uloop_timeout_cancel(&ctx->pending_timer);
	if (ctx->priv) {
		drop_pending(ctx->priv);
		blob_buf_free(&ctx->priv->b);
		blob_buf_free(&ctx->priv->b2);
		delete ctx->priv;
		ctx->priv = nullptr;
	}
}

void ubus_free(struct ubus_context *ctx)
{
	ubus_shutdown(ctx);
	free(ctx);
}

const char *ubus_strerror(int error)
{
	static char err[32];
	if (error >= 0 && error < (int)ARRAY_SIZE(status_text))
		return status_text[error];
	snprintf(err, sizeof(err), "Unknown error: %d", error);
	return err;
}

namespace {

void auto_reconnect_cb(struct uloop_timeout *timeout)
{
	auto *conn = container_of(timeout, struct ubus_auto_conn, timer);
	if (!ubus_reconnect(&conn->ctx, conn->path))
		ubus_add_uloop(&conn->ctx);
	else
		uloop_timeout_set(timeout, 1000);
}

void auto_disconnect_cb(struct ubus_context *ctx)
{
	auto *conn = container_of(ctx, struct ubus_auto_conn, ctx);
	conn->timer.cb = auto_reconnect_cb;
	uloop_timeout_set(&conn->timer, 1000);
}

void auto_connect_cb(struct uloop_timeout *timeout)
{
	auto *conn = container_of(timeout, struct ubus_auto_conn, timer);
	if (ubus_connect_ctx(&conn->ctx, conn->path)) {
		uloop_timeout_set(timeout, 1000);
		fprintf(stderr, "failed to connect to ubus\n");
		return;
	}
	conn->ctx.connection_lost = auto_disconnect_cb;
	if (conn->cb)
		conn->cb(&conn->ctx);
	ubus_add_uloop(&conn->ctx);
}

} // namespace

void ubus_auto_connect(struct ubus_auto_conn *conn)
{
	conn->timer.cb = auto_connect_cb;
	auto_connect_cb(&conn->timer);
}
