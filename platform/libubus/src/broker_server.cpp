#include "broker_server.h"

#include "wwan/ubox.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ubusd {

namespace {

constexpr size_t read_chunk = 65536;
// Hung-up clients stay registered until their last bytes are read and the
// end of the stream is seen; only then is the client dropped.
constexpr unsigned int conn_flags = ULOOP_READ | ULOOP_ERROR_CB;
// Bytes read from one client per callback, so a busy client cannot starve
// the others; level-triggered polling brings us back.
constexpr size_t read_budget = 4 * read_chunk;

credentials peer_credentials(int fd)
{
	credentials c;
	struct ucred uc;
	socklen_t len = sizeof(uc);
	if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &uc, &len) < 0)
		return c;
	c.uid = uc.uid;
	c.gid = uc.gid;
	char buf[4096];
	struct passwd pw, *pwr = nullptr;
	if (!getpwuid_r(uc.uid, &pw, buf, sizeof(buf), &pwr) && pwr)
		c.user = pwr->pw_name;
	struct group gr, *grr = nullptr;
	if (!getgrgid_r(uc.gid, &gr, buf, sizeof(buf), &grr) && grr)
		c.group = grr->gr_name;
	return c;
}

// Writes from msg.off on; true when the whole message went out.
bool write_msg(int sock, std::vector<uint8_t> &bytes, size_t &off, int &fd)
{
	while (off < bytes.size()) {
		struct iovec iov = {bytes.data() + off, bytes.size() - off};
		struct msghdr mh;
		memset(&mh, 0, sizeof(mh));
		mh.msg_iov = &iov;
		mh.msg_iovlen = 1;
		union {
			struct cmsghdr h;
			char buf[CMSG_SPACE(sizeof(int))];
		} cbuf;
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
		ssize_t n = sendmsg(sock, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			return false;
		}
		if (fd >= 0) {
			close(fd);
			fd = -1;
		}
		off += n;
	}
	return true;
}

} // namespace

server::server() : core_(*this), rbuf_(read_chunk)
{
	listen_fd_.fd = -1;
	resume_.owner = this;
	resume_.t.cb = resume_cb;
}

server::~server()
{
	close_all();
}

int server::listen(const std::string &path)
{
	unlink(path.c_str());
	int fd = usock(USOCK_UNIX | USOCK_SERVER | USOCK_NONBLOCK, path.c_str(), nullptr);
	if (fd < 0)
		return -1;
	chmod(path.c_str(), 0666);
	path_ = path;
	listen_fd_.fd = fd;
	listen_fd_.cb = accept_cb;
	listen_w_.owner = this;
	if (uloop_fd_add(&listen_fd_, ULOOP_READ) < 0) {
		close(fd);
		listen_fd_.fd = -1;
		return -1;
	}
	accepting_ = true;
	return 0;
}

void server::close_all()
{
	uloop_timeout_cancel(&resume_.t);
	accepting_ = false;
	if (listen_fd_.fd >= 0) {
		uloop_fd_delete(&listen_fd_);
		close(listen_fd_.fd);
		listen_fd_.fd = -1;
		unlink(path_.c_str());
	}
	while (!conns_.empty())
		drop(conns_.begin()->first);
}

void server::accept_cb(struct uloop_fd *u, unsigned int)
{
	server *srv = static_cast<server *>(reinterpret_cast<watch *>(u)->owner);
	for (;;) {
		int fd = accept4(u->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
		if (fd >= 0) {
			srv->adopt(fd);
			continue;
		}
		if (errno == EINTR || errno == ECONNABORTED)
			continue;
		if (errno != EAGAIN && errno != EWOULDBLOCK) {
			// Out of descriptors (or memory): the pending connection keeps
			// the socket readable, so polling it now would only spin.
			srv->pause_accepting();
		}
		return;
	}
}

uint32_t server::adopt(int fd)
{
	auto c = std::make_unique<conn>();
	c->srv = this;
	c->w.owner = c.get();
	c->ufd.fd = fd;
	c->ufd.cb = conn_cb;
	conn *cp = c.get();
	cp->id = core_.connect(peer_credentials(fd));
	conns_[cp->id] = std::move(c);
	uloop_fd_add(&cp->ufd, conn_flags);
	uint32_t id = cp->id;
	core_.hello(id);
	drop_doomed();
	return id;
}

void server::pause_accepting()
{
	if (!accepting_)
		return;
	uloop_fd_delete(&listen_fd_);
	accepting_ = false;
	uloop_timeout_set(&resume_.t, accept_backoff_ms);
}

void server::resume_accepting()
{
	if (accepting_ || listen_fd_.fd < 0)
		return;
	uloop_timeout_cancel(&resume_.t);
	if (uloop_fd_add(&listen_fd_, ULOOP_READ) == 0)
		accepting_ = true;
	else
		uloop_timeout_set(&resume_.t, accept_backoff_ms);
}

void server::resume_cb(struct uloop_timeout *t)
{
	reinterpret_cast<timer *>(t)->owner->resume_accepting();
}

void server::conn_cb(struct uloop_fd *u, unsigned int events)
{
	conn *c = static_cast<conn *>(reinterpret_cast<watch *>(u)->owner);
	server *srv = c->srv;
	uint32_t id = c->id;
	if (events & ULOOP_WRITE) {
		if (!srv->flush(*c)) {
			srv->drop(id);
			srv->drop_doomed();
			return;
		}
	}
	if ((events & ULOOP_READ) || u->eof || u->error)
		srv->read_conn(*c);
	srv->drop_doomed();
}

void server::read_conn(conn &c)
{
	uint32_t id = c.id;
	size_t budget = read_budget;
	while (budget) {
		struct iovec iov = {rbuf_.data(), read_chunk};
		union {
			struct cmsghdr h;
			char buf[CMSG_SPACE(sizeof(int) * 4)];
		} cbuf;
		struct msghdr mh;
		memset(&mh, 0, sizeof(mh));
		mh.msg_iov = &iov;
		mh.msg_iovlen = 1;
		mh.msg_control = &cbuf;
		mh.msg_controllen = sizeof(cbuf);
		ssize_t n = recvmsg(c.ufd.fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
			break;
		int fd = n >= 0 ? ubus_wire::take_passed_fd(&mh) : -1;
		if (n <= 0) {
			if (fd >= 0)
				close(fd);
			drop(id);
			return;
		}
		budget -= std::min(budget, (size_t)n);
		if (!consume(c, rbuf_.data(), n, fd))
			return;
		if ((size_t)n < read_chunk)
			break;
	}
}

// Frames the n bytes of one read. A message begun earlier is completed
// first; whole messages are handed on from where they lie; the start of an
// incomplete one is kept. A descriptor belongs to the last message starting
// in the read that brought it. False once the client is dropped or doomed.
bool server::consume(conn &c, uint8_t *p, size_t n, int fd)
{
	uint32_t id = c.id;
	auto fail = [&] {
		if (fd >= 0)
			close(fd);
		// Too long, shorter than its own header, or over the limit of
		// held bytes: the stream cannot go on.
		drop(id);
		return false;
	};
	size_t off = 0;
	while (!c.rx.empty()) {
		size_t have = c.rx.size();
		size_t need = have < ubus_wire::min_len ? ubus_wire::min_len : ubus_wire::frame_len(c.rx.data());
		if (!need)
			return fail();
		if (have == need) {
			std::vector<uint8_t> m;
			m.swap(c.rx);
			held_ -= m.capacity();
			int mfd = c.rx_fd;
			c.rx_fd = -1;
			if (!deliver(c, m.data(), m.size(), mfd)) {
				if (fd >= 0)
					close(fd);
				return false;
			}
			continue;
		}
		if (off == n)
			break;
		size_t take = std::min(need - have, n - off);
		if (!hold(c, have + take, need))
			return fail();
		c.rx.insert(c.rx.end(), p + off, p + off + take);
		off += take;
	}
	while (off < n) {
		uint8_t *m = p + off;
		size_t avail = n - off;
		size_t total = avail < ubus_wire::min_len ? ubus_wire::min_len : ubus_wire::frame_len(m);
		if (!total)
			return fail();
		if (avail < total) {
			if (!hold(c, avail, total))
				return fail();
			c.rx.assign(m, m + avail);
			c.rx_fd = fd;
			fd = -1;
			break;
		}
		int mfd = -1;
		if (off + total == n)
			std::swap(mfd, fd);
		off += total;
		if (!deliver(c, m, total, mfd)) {
			if (fd >= 0)
				close(fd);
			return false;
		}
	}
	if (fd >= 0)
		close(fd);
	return true;
}

bool server::deliver(conn &c, uint8_t *msg, size_t len, int fd)
{
	if (reinterpret_cast<uintptr_t>(msg) % 4) {
		// Only messages lying in the read buffer, so at most a read's size.
		scratch_.assign(msg, msg + len);
		msg = scratch_.data();
	}
	core_.receive(c.id, msg, len, fd);
	return !c.doomed;
}

// Room for size bytes of a message of total bytes: the buffer grows with
// what arrives (at most doubling, never beyond the message), within the
// limit for all clients.
bool server::hold(conn &c, size_t size, size_t total)
{
	size_t cap = c.rx.capacity();
	if (size <= cap)
		return true;
	size_t want = std::min(std::max(size, 2 * cap), total);
	if (held_ - cap + want > max_held_)
		return false;
	c.rx.reserve(want);
	held_ += c.rx.capacity() - cap;
	return true;
}

void server::release(conn &c)
{
	held_ -= c.rx.capacity();
	std::vector<uint8_t>().swap(c.rx);
	if (c.rx_fd >= 0)
		close(c.rx_fd);
	c.rx_fd = -1;
}

void server::send(uint32_t client, const uint8_t *msg, size_t len, int fd)
{
	auto it = conns_.find(client);
	if (it == conns_.end() || it->second->doomed) {
		if (fd >= 0)
			close(fd);
		return;
	}
	conn &c = *it->second;
	size_t off = 0;
	if (c.tx.empty() && fd < 0) {
		// Fast path: straight to the socket.
		ssize_t n = ::send(c.ufd.fd, msg, len, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n == (ssize_t)len)
			return;
		if (n > 0)
			off = n;
	}
	c.tx.push_back({std::vector<uint8_t>(msg, msg + len), off, fd});
	c.tx_bytes += len;
	if (c.tx_bytes > max_queue_) {
		// A client that does not read its answers is cut off.
		c.doomed = true;
		doomed_.push_back(client);
		return;
	}
	if (c.ufd.registered)
		uloop_fd_add(&c.ufd, conn_flags | ULOOP_WRITE);
}

bool server::flush(conn &c)
{
	while (!c.tx.empty()) {
		out_msg &m = c.tx.front();
		if (!write_msg(c.ufd.fd, m.bytes, m.off, m.fd))
			return errno == EAGAIN || errno == EWOULDBLOCK;
		c.tx_bytes -= m.bytes.size();
		c.tx.pop_front();
	}
	uloop_fd_add(&c.ufd, conn_flags);
	return true;
}

void server::drop(uint32_t id)
{
	auto it = conns_.find(id);
	if (it == conns_.end())
		return;
	std::unique_ptr<conn> c = std::move(it->second);
	conns_.erase(it);
	uloop_fd_delete(&c->ufd);
	close(c->ufd.fd);
	release(*c);
	for (auto &m : c->tx)
		if (m.fd >= 0)
			close(m.fd);
	core_.disconnect(id);
	// A descriptor is free again.
	resume_accepting();
}

void server::drop_doomed()
{
	while (!doomed_.empty()) {
		uint32_t id = doomed_.back();
		doomed_.pop_back();
		drop(id);
	}
}

} // namespace ubusd
