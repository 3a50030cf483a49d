// The broker on a Unix socket, driven by uloop: accepts clients, frames their
// byte streams into messages for the core and queues the core's answers.
//
// Memory a client can make the broker hold is bounded: an incomplete message
// takes only as much as has arrived (never what its header announces), all
// incomplete messages together at most max_held bytes (a client whose bytes
// would go beyond is dropped), and unsent answers max_queue bytes per client.
// When accept() runs out of descriptors the listening socket is left alone
// for accept_backoff_ms, or until a client goes, instead of being polled.
#pragma once

#include "broker.h"

#include "wwan/ubox.h"

#include <deque>
#include <memory>
#include <string>

namespace ubusd {

class server : private transport {
public:
	// A client whose unsent answers exceed this is dropped.
	static constexpr size_t default_max_queue = 1024 * 1024;
	// Bytes of incomplete messages held for all clients together.
	static constexpr size_t default_max_held = 8 * 1024 * 1024;
	static constexpr int accept_backoff_ms = 1000;

	server();
	~server() override;
	server(const server &) = delete;
	server &operator=(const server &) = delete;

	// Binds and listens on path (an old socket file is replaced), mode 0666.
	// 0, or -1 with errno set.
	int listen(const std::string &path);
	// Serves a connected stream socket as a client (fd now belongs to the
	// server); returns the client id.
	uint32_t adopt(int fd);
	// Closes every client and the listening socket; unlinks the socket file.
	void close_all();

	void set_max_queue(size_t bytes) { max_queue_ = bytes; }
	void set_max_held(size_t bytes) { max_held_ = bytes; }
	void set_owner(uid_t uid, gid_t gid) { core_.set_owner(uid, gid); }
	void set_acl(acl_table acl) { core_.set_acl(std::move(acl)); }
	size_t client_count() const { return conns_.size(); }
	// Bytes allocated for incomplete messages right now.
	size_t held() const { return held_; }
	bool accepting() const { return accepting_; }
	const broker &core() const { return core_; }

private:
	// uloop hands back the uloop_fd; this finds the owner from it.
	struct watch {
		struct uloop_fd ufd = {};
		void *owner = nullptr;
	};
	struct timer {
		struct uloop_timeout t = {};
		server *owner = nullptr;
	};
	struct out_msg {
		std::vector<uint8_t> bytes;
		size_t off;
		int fd;
	};
	struct conn {
		watch w;
		struct uloop_fd &ufd = w.ufd;
		server *srv = nullptr;
		uint32_t id = 0;
		// The start of one incomplete message, and the descriptor that
		// came with it.
		std::vector<uint8_t> rx;
		int rx_fd = -1;
		std::deque<out_msg> tx;
		size_t tx_bytes = 0;
		bool doomed = false;
	};

	void send(uint32_t client, const uint8_t *msg, size_t len, int fd) override;
	static void accept_cb(struct uloop_fd *u, unsigned int events);
	static void conn_cb(struct uloop_fd *u, unsigned int events);
	static void resume_cb(struct uloop_timeout *t);
	void pause_accepting();
	void resume_accepting();
	void read_conn(conn &c);
	bool consume(conn &c, uint8_t *p, size_t n, int fd);
	bool deliver(conn &c, uint8_t *msg, size_t len, int fd);
	bool hold(conn &c, size_t size, size_t total);
	void release(conn &c);
	bool flush(conn &c);
	void drop(uint32_t id);
	void drop_doomed();

	broker core_;
	watch listen_w_;
	struct uloop_fd &listen_fd_ = listen_w_.ufd;
	timer resume_;
	bool accepting_ = false;
	std::string path_;
	size_t max_queue_ = default_max_queue;
	size_t max_held_ = default_max_held;
	size_t held_ = 0;
	// One read's bytes, for whichever client is being read.
	std::vector<uint8_t> rbuf_;
	std::vector<uint8_t> scratch_;
	std::unordered_map<uint32_t, std::unique_ptr<conn>> conns_;
	std::vector<uint32_t> doomed_;
};

} // namespace ubusd
