// The broker on a Unix socket, driven by uloop: accepts clients, frames their
// byte streams into messages for the core and queues the core's answers.
#pragma once

#include "broker.h"

#include <libubox/uloop.h>

#include <deque>
#include <memory>
#include <string>

namespace ubusd {

class server : private transport {
public:
	// A client whose unsent answers exceed this is dropped.
	static constexpr size_t default_max_queue = 1024 * 1024;

	server();
	~server() override;
	server(const server &) = delete;
	server &operator=(const server &) = delete;

	// Binds and listens on path (an old socket file is replaced), mode 0666.
	// 0, or -1 with errno set.
	int listen(const std::string &path);
	// Closes every client and the listening socket; unlinks the socket file.
	void close_all();

	void set_max_queue(size_t bytes) { max_queue_ = bytes; }
	size_t client_count() const { return conns_.size(); }
	const broker &core() const { return core_; }

private:
	// uloop hands back the uloop_fd; this finds the owner from it.
	struct watch {
		struct uloop_fd ufd = {};
		void *owner = nullptr;
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
		ubus_wire::reader rx;
		std::deque<out_msg> tx;
		size_t tx_bytes = 0;
		bool doomed = false;
	};

	void send(uint32_t client, const uint8_t *msg, size_t len, int fd) override;
	static void accept_cb(struct uloop_fd *u, unsigned int events);
	static void conn_cb(struct uloop_fd *u, unsigned int events);
	void read_conn(conn &c);
	bool flush(conn &c);
	void drop(uint32_t id);
	void drop_doomed();

	broker core_;
	watch listen_w_;
	struct uloop_fd &listen_fd_ = listen_w_.ufd;
	std::string path_;
	size_t max_queue_ = default_max_queue;
	std::unordered_map<uint32_t, std::unique_ptr<conn>> conns_;
	std::vector<uint32_t> doomed_;
};

} // namespace ubusd
