#include "broker_server.h"

#include <libubox/usock.h>

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

server::server() : core_(*this)
{
	listen_fd_.fd = -1;
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
		return -1;
	}
	return 0;
}

void server::close_all()
{
	while (!conns_.empty())
		drop(conns_.begin()->first);
	if (listen_fd_.fd >= 0) {
		uloop_fd_delete(&listen_fd_);
		close(listen_fd_.fd);
		listen_fd_.fd = -1;
		unlink(path_.c_str());
	}
}

void server::accept_cb(struct uloop_fd *u, unsigned int)
{
	server *srv = static_cast<server *>(reinterpret_cast<watch *>(u)->owner);
	for (;;) {
		int fd = accept4(u->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
		if (fd < 0)
			return;
		auto c = std::make_unique<conn>();
		c->srv = srv;
		c->w.owner = c.get();
		c->ufd.fd = fd;
		c->ufd.cb = conn_cb;
		conn *cp = c.get();
		cp->id = srv->core_.connect(peer_credentials(fd));
		srv->conns_[cp->id] = std::move(c);
		uloop_fd_add(&cp->ufd, conn_flags);
		srv->core_.hello(cp->id);
		srv->drop_doomed();
	}
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
		uint8_t *buf = c.rx.space(read_chunk);
		struct iovec iov = {buf, read_chunk};
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
		int fd = ubus_wire::take_passed_fd(&mh);
		if (n <= 0) {
			if (fd >= 0)
				close(fd);
			drop(id);
			return;
		}
		c.rx.commit(n, fd);
		budget -= std::min(budget, (size_t)n);

		for (;;) {
			uint8_t *p;
			size_t len;
			int mfd;
			auto r = c.rx.next(&p, &len, &mfd);
			if (r == ubus_wire::reader::none)
				break;
			if (r == ubus_wire::reader::invalid) {
				// Too long, or shorter than its own header: the stream
				// cannot be resynchronised.
				drop(id);
				return;
			}
			core_.receive(id, p, len, mfd);
			if (c.doomed)
				return;
		}
		if ((size_t)n < read_chunk)
			break;
	}
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
	for (auto &m : c->tx)
		if (m.fd >= 0)
			close(m.fd);
	core_.disconnect(id);
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
