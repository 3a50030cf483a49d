// The broker's routing core: clients, the object registry, types,
// subscriptions and events. It sees whole messages and hands whole messages
// to a transport, so tests can drive it without sockets.
#pragma once

#include "broker_acl.h"
#include "ubus_wire.h"

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace ubusd {

// Where the core's outgoing messages go.
class transport {
public:
	virtual ~transport() = default;
	// One framed message for a client; fd (>= 0) travels with it and now
	// belongs to the transport.
	virtual void send(uint32_t client, const uint8_t *msg, size_t len, int fd) = 0;
};

class broker {
public:
	explicit broker(transport &out);
	~broker();
	broker(const broker &) = delete;
	broker &operator=(const broker &) = delete;

	// Registers a client and returns its id; the transport then attaches
	// the id to its connection and calls hello().
	uint32_t connect(const credentials &cred);
	void hello(uint32_t client);
	// Forgets a client: its objects go (with their subscriptions and
	// events), its monitor registration too.
	void disconnect(uint32_t client);
	// Handles one complete message of len bytes (4-byte aligned); fd is
	// consumed. Messages from unknown clients are ignored.
	void receive(uint32_t client, uint8_t *msg, size_t len, int fd);

	// The broker's own user and group: trusted like root (an unprivileged
	// broker guards nothing from its own user). Root only by default.
	void set_owner(uid_t uid, gid_t gid);
	// Replaces the access lists; announced as "ubus.acl.sequence".
	void set_acl(acl_table acl);
	uint32_t acl_sequence() const { return acl_seq_; }

	size_t client_count() const { return clients_.size(); }
	size_t object_count() const { return objects_.size(); }
	size_t type_count() const { return types_.size(); }

private:
	struct client {
		uint32_t id;
		credentials cred;
		std::vector<uint32_t> objects;
		bool monitor = false;
		uint32_t monitor_seq = 0;
	};
	struct obj_type {
		uint32_t id;
		int refs;
		std::vector<uint8_t> signature;	// the SIGNATURE attribute, whole
	};
	struct object {
		uint32_t id;
		uint32_t client;
		std::string path;
		uint32_t type = 0;		// 0: no type (anonymous or unknown)
		uint16_t notify_seq = 0;
		std::vector<uint32_t> subscribers;	// subscriber objects
		std::vector<uint32_t> targets;		// objects this one watches
		std::vector<std::string> patterns;	// event patterns
	};

	uint32_t new_id(const auto &table, bool client_id);
	bool trusted(const client &cl) const;
	bool allowed(const client &cl, acl_op op, const char *name, const char *method = nullptr) const;
	void send(uint32_t client, uint8_t type, uint16_t seq, uint32_t peer, const struct blob_attr *top,
		  int fd = -1);
	void send_status(uint32_t client, const ubus_wire::msg &m, int status);

	int handle(client &cl, ubus_wire::msg &m, int &fd);
	int lookup(client &cl, const ubus_wire::msg &m);
	bool put_signature(const client &cl, const object &o, const obj_type &t);
	int acl_query(client &cl, const ubus_wire::msg &m);
	int add_object(client &cl, const ubus_wire::msg &m);
	int remove_object(client &cl, const ubus_wire::msg &m);
	int invoke(client &cl, const ubus_wire::msg &m, int &fd);
	int event_call(client &cl, const ubus_wire::msg &m, const char *method);
	int subscribe(client &cl, const ubus_wire::msg &m);
	int unsubscribe(client &cl, const ubus_wire::msg &m);
	int notify(client &cl, const ubus_wire::msg &m);
	void forward_reply(client &cl, uint8_t *msg, size_t len, const ubus_wire::msg &m, int &fd);

	void free_object(uint32_t id);
	void drop_subscription(object &target, uint32_t sub);
	void active_changed(object &target);
	// Delivers an event; sender 0 = the broker itself.
	void deliver_event(uint32_t sender, const char *name, const struct blob_attr *data);
	void object_event(const char *name, const object &o);
	void monitor(uint32_t client, bool sent, const uint8_t *msg, size_t len);

	transport &out_;
	std::mt19937 rng_;
	std::unordered_map<uint32_t, client> clients_;
	std::unordered_map<uint32_t, object> objects_;
	std::map<std::string, uint32_t> paths_;		// strcmp order for lookups
	std::unordered_map<uint32_t, obj_type> types_;
	uint16_t event_seq_ = 0;
	uid_t owner_uid_ = 0;
	gid_t owner_gid_ = 0;
	acl_table acl_;
	uint32_t acl_seq_ = 0;
	int monitors_ = 0;
	struct blob_buf b_ = {};
	struct blob_buf ev_ = {};
	std::vector<uint8_t> frame_;
};

// Event and access-list pattern match: a trailing '*' makes the rest a
// prefix.
bool event_match(const std::string &pattern, const char *name);

// What ADD_OBJECT accepts as SIGNATURE: a list of named tables (methods),
// each holding named INT32 attributes (argument name -> blobmsg type), every
// length consistent with its container and nothing left over.
bool valid_signature(const struct blob_attr *sig);

} // namespace ubusd
