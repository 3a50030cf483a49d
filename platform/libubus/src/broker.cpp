#include "broker.h"

#include "wwan/ubox.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace ubusd {

namespace {

constexpr uint32_t system_max = UBUS_SYSTEM_OBJECT_MAX;

bool has(const ubus_wire::msg &m, int attr)
{
	return m.attr[attr] != nullptr;
}

uint32_t u32(const ubus_wire::msg &m, int attr)
{
	return ubus_wire::get_u32(m.attr[attr]);
}

// Looks up the named blobmsg members of a DATA attribute with exact types.
struct blobmsg_field {
	const char *name;
	int type;
	struct blob_attr *value;
};

void find_fields(const struct blob_attr *data, blobmsg_field *f, size_t n)
{
	if (!data)
		return;
	ubus_wire::for_each_child(data, [&](struct blob_attr *a) {
		if (!blob_is_extended(a) || !blobmsg_check_attr(a, false))
			return;
		for (size_t i = 0; i < n; i++) {
			if (!f[i].value && blobmsg_type(a) == f[i].type && !strcmp(blobmsg_name(a), f[i].name))
				f[i].value = a;
		}
	});
}

void erase_value(std::vector<uint32_t> &v, uint32_t x)
{
	auto it = std::find(v.begin(), v.end(), x);
	if (it != v.end())
		v.erase(it);
}

// The members of a container's payload [p, p + len): every one fits, none
// is shorter than its header, and together they fill the payload exactly.
template <class F>
bool each_member(const uint8_t *p, size_t len, F &&fn)
{
	while (len) {
		if (len < sizeof(struct blob_attr))
			return false;
		auto *a = reinterpret_cast<const struct blob_attr *>(p);
		size_t raw = blob_raw_len(a), pad = blob_pad_len(a);
		if (raw < sizeof(struct blob_attr) || pad > len)
			return false;
		if (!fn(a))
			return false;
		p += pad;
		len -= pad;
	}
	return true;
}

// A named blobmsg attribute of the given type, valid within its own length.
bool named(const struct blob_attr *a, int type)
{
	return blob_is_extended(a) && blobmsg_type(a) == type && blobmsg_check_attr(a, true);
}

} // namespace

// Two fixed levels: nothing deeper is ever looked at.
bool valid_signature(const struct blob_attr *sig)
{
	return each_member(static_cast<const uint8_t *>(blob_data(sig)), blob_len(sig), [](const struct blob_attr *method) {
		if (!named(method, BLOBMSG_TYPE_TABLE))
			return false;
		return each_member(static_cast<const uint8_t *>(blobmsg_data(method)), blobmsg_data_len(method),
				   [](const struct blob_attr *arg) { return named(arg, BLOBMSG_TYPE_INT32); });
	});
}

bool event_match(const std::string &pattern, const char *name)
{
	if (!pattern.empty() && pattern.back() == '*')
		return !strncmp(name, pattern.data(), pattern.size() - 1);
	return pattern == name;
}

broker::broker(transport &out) : out_(out), rng_(std::random_device{}())
{
}

broker::~broker()
{
	blob_buf_free(&b_);
	blob_buf_free(&ev_);
}

// Random 32-bit ids >= 1024, unique in their table. Client ids must not read
// back as 0 or 1 when a client takes them in the wrong byte order.
uint32_t broker::new_id(const auto &table, bool client_id)
{
	for (;;) {
		uint32_t id = rng_();
		if (id < system_max || table.count(id))
			continue;
		if (client_id && (id == 0x01000000u || (id & 0xfeffffffu) == 0))
			continue;
		return id;
	}
}

void broker::send(uint32_t client, uint8_t type, uint16_t seq, uint32_t peer,
		  const struct blob_attr *top, int fd)
{
	frame_.clear();
	ubus_wire::encode(frame_, type, seq, peer, top);
	if (monitors_ && type != UBUS_MSG_MONITOR)
		monitor(client, true, frame_.data(), frame_.size());
	out_.send(client, frame_.data(), frame_.size(), fd);
}

void broker::send_status(uint32_t client, const ubus_wire::msg &m, int status)
{
	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_STATUS, status);
	send(client, UBUS_MSG_STATUS, m.seq, m.peer, b_.head);
}

void broker::set_owner(uid_t uid, gid_t gid)
{
	owner_uid_ = uid;
	owner_gid_ = gid;
}

void broker::set_acl(acl_table acl)
{
	acl_ = std::move(acl);
	acl_seq_++;
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
	blobmsg_add_u32(&b, "sequence", acl_seq_);
	blob_nest_end(&b, d);
	deliver_event(0, "ubus.acl.sequence", static_cast<const struct blob_attr *>(blob_data(b.head)));
	blob_buf_free(&b);
}

bool broker::trusted(const client &cl) const
{
	return cl.cred.uid == 0 || cl.cred.uid == owner_uid_;
}

bool broker::allowed(const client &cl, acl_op op, const char *name, const char *method) const
{
	return trusted(cl) || acl_.allows(cl.cred, op, name, method);
}

uint32_t broker::connect(const credentials &cred)
{
	uint32_t id = new_id(clients_, true);
	client &cl = clients_[id];
	cl.id = id;
	cl.cred = cred;
	return id;
}

void broker::hello(uint32_t client)
{
	send(client, UBUS_MSG_HELLO, 0, client, nullptr);
}

void broker::disconnect(uint32_t id)
{
	auto it = clients_.find(id);
	if (it == clients_.end())
		return;
	std::vector<uint32_t> objs = it->second.objects;
	for (uint32_t o : objs)
		free_object(o);
	it = clients_.find(id);
	if (it->second.monitor)
		monitors_--;
	clients_.erase(it);
}

void broker::receive(uint32_t id, uint8_t *msg, size_t len, int fd)
{
	auto it = clients_.find(id);
	ubus_wire::msg m;
	if (it == clients_.end() || !ubus_wire::decode(msg, len, &m)) {
		if (fd >= 0)
			close(fd);
		return;
	}
	if (monitors_)
		monitor(id, false, msg, len);

	client &cl = it->second;
	int status;
	if (m.type == UBUS_MSG_STATUS || m.type == UBUS_MSG_DATA) {
		forward_reply(cl, msg, len, m, fd);
		status = -1;
	} else {
		status = handle(cl, m, fd);
	}
	if (fd >= 0)
		close(fd);
	if (status >= 0)
		send_status(id, m, status);
}

// Returns the STATUS to answer with, or -1 when the handler answered (or
// forwarded) itself.
int broker::handle(client &cl, ubus_wire::msg &m, int &fd)
{
	switch (m.type) {
	case UBUS_MSG_PING:
		send(cl.id, UBUS_MSG_DATA, m.seq, m.peer, m.top);
		return UBUS_STATUS_OK;
	case UBUS_MSG_LOOKUP:
		return lookup(cl, m);
	case UBUS_MSG_INVOKE:
		return invoke(cl, m, fd);
	case UBUS_MSG_ADD_OBJECT:
		return add_object(cl, m);
	case UBUS_MSG_REMOVE_OBJECT:
		return remove_object(cl, m);
	case UBUS_MSG_SUBSCRIBE:
		return subscribe(cl, m);
	case UBUS_MSG_UNSUBSCRIBE:
		return unsubscribe(cl, m);
	case UBUS_MSG_NOTIFY:
		return notify(cl, m);
	default:
		return UBUS_STATUS_INVALID_COMMAND;
	}
}

int broker::lookup(client &cl, const ubus_wire::msg &m)
{
	std::string path;
	bool prefix = false, all = !has(m, UBUS_ATTR_OBJPATH);
	if (!all) {
		path = ubus_wire::get_str(m.attr[UBUS_ATTR_OBJPATH]);
		if (path.empty())
			return UBUS_STATUS_INVALID_ARGUMENT;
		if (path.back() == '*') {
			prefix = true;
			path.pop_back();
		}
	}
	auto it = all || prefix ? paths_.lower_bound(path) : paths_.find(path);
	bool found = false;
	for (; it != paths_.end(); ++it) {
		if (!all && (prefix ? it->first.compare(0, path.size(), path) != 0 : it->first != path))
			break;
		const object &o = objects_.at(it->second);
		auto t = types_.find(o.type);
		if (!o.type || t == types_.end())
			continue;
		// An object hidden by the access lists still counts as found.
		found = true;
		blob_buf_init(&b_, 0);
		blob_put_string(&b_, UBUS_ATTR_OBJPATH, o.path.c_str());
		blob_put_int32(&b_, UBUS_ATTR_OBJID, o.id);
		blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, o.type);
		if (put_signature(cl, o, t->second))
			send(cl.id, UBUS_MSG_DATA, m.seq, m.peer, b_.head);
		if (!all && !prefix)
			break;
	}
	// Listing everything succeeds even on an empty bus.
	return found || all ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND;
}

// Appends the object's SIGNATURE to b_: whole for a trusted client, else
// only the methods the access lists let it call. False when every method is
// denied (an object without methods is shown).
bool broker::put_signature(const client &cl, const object &o, const obj_type &t)
{
	if (trusted(cl)) {
		blob_put_raw(&b_, t.signature.data(), t.signature.size());
		return true;
	}
	const auto *sig = reinterpret_cast<const struct blob_attr *>(t.signature.data());
	void *nest = blob_nest_start(&b_, UBUS_ATTR_SIGNATURE);
	int methods = 0, shown = 0;
	ubus_wire::for_each_child(sig, [&](struct blob_attr *method) {
		methods++;
		if (!allowed(cl, acl_op::access, o.path.c_str(), blobmsg_name(method)))
			return;
		blob_put_raw(&b_, method, blob_pad_len(method));
		shown++;
	});
	blob_nest_end(&b_, nest);
	return shown || !methods;
}

int broker::add_object(client &cl, const ubus_wire::msg &m)
{
	const char *path = has(m, UBUS_ATTR_OBJPATH) ? ubus_wire::get_str(m.attr[UBUS_ATTR_OBJPATH]) : nullptr;
	if (path && (!*path || paths_.count(path) || !allowed(cl, acl_op::publish, path)))
		return UBUS_STATUS_INVALID_ARGUMENT;

	uint32_t type = 0;
	bool new_type = false;
	if (has(m, UBUS_ATTR_SIGNATURE)) {
		if (!valid_signature(m.attr[UBUS_ATTR_SIGNATURE]))
			return UBUS_STATUS_INVALID_ARGUMENT;
		type = new_id(types_, false);
		const struct blob_attr *sig = m.attr[UBUS_ATTR_SIGNATURE];
		auto *p = reinterpret_cast<const uint8_t *>(sig);
		// Stored padded, so that lookups can append it as it is.
		std::vector<uint8_t> copy(p, p + blob_raw_len(sig));
		copy.resize(blob_pad_len(sig), 0);
		types_[type] = obj_type{type, 1, std::move(copy)};
		new_type = true;
	} else if (has(m, UBUS_ATTR_OBJTYPE)) {
		auto t = types_.find(u32(m, UBUS_ATTR_OBJTYPE));
		if (t != types_.end()) {
			type = t->first;
			t->second.refs++;
		}
	}

	uint32_t id = new_id(objects_, false);
	object &o = objects_[id];
	o.id = id;
	o.client = cl.id;
	o.type = type;
	cl.objects.push_back(id);
	if (path) {
		o.path = path;
		paths_[o.path] = id;
		object_event("ubus.object.add", o);
	}

	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_OBJID, id);
	if (new_type)
		blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, type);
	send(cl.id, UBUS_MSG_DATA, m.seq, m.peer, b_.head);
	return UBUS_STATUS_OK;
}

int broker::remove_object(client &cl, const ubus_wire::msg &m)
{
	if (!has(m, UBUS_ATTR_OBJID))
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto it = objects_.find(u32(m, UBUS_ATTR_OBJID));
	if (it == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	if (it->second.client != cl.id)
		return UBUS_STATUS_PERMISSION_DENIED;

	uint32_t id = it->first, type = it->second.type;
	auto t = types_.find(type);
	bool last_user = type && t != types_.end() && t->second.refs == 1;
	free_object(id);

	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_OBJID, id);
	if (last_user)
		blob_put_int32(&b_, UBUS_ATTR_OBJTYPE, type);
	send(cl.id, UBUS_MSG_DATA, m.seq, m.peer, b_.head);
	return UBUS_STATUS_OK;
}

void broker::free_object(uint32_t id)
{
	auto it = objects_.find(id);
	if (it == objects_.end())
		return;
	object &o = it->second;

	// What it watched may lose its last subscriber.
	for (uint32_t t : std::vector<uint32_t>(o.targets)) {
		auto target = objects_.find(t);
		if (target != objects_.end())
			drop_subscription(target->second, id);
	}
	o.targets.clear();

	// Its subscribers learn that it is gone.
	for (uint32_t s : std::vector<uint32_t>(o.subscribers)) {
		auto sub = objects_.find(s);
		if (sub == objects_.end())
			continue;
		erase_value(sub->second.targets, id);
		blob_buf_init(&b_, 0);
		blob_put_int32(&b_, UBUS_ATTR_OBJID, s);
		blob_put_int32(&b_, UBUS_ATTR_TARGET, id);
		send(sub->second.client, UBUS_MSG_UNSUBSCRIBE, 0, 0, b_.head);
	}
	o.subscribers.clear();

	auto cl = clients_.find(o.client);
	if (cl != clients_.end())
		erase_value(cl->second.objects, id);
	auto t = types_.find(o.type);
	if (o.type && t != types_.end() && --t->second.refs == 0)
		types_.erase(t);

	object gone = std::move(o);
	objects_.erase(it);
	if (!gone.path.empty()) {
		paths_.erase(gone.path);
		object_event("ubus.object.remove", gone);
	}
}

int broker::invoke(client &cl, const ubus_wire::msg &m, int &fd)
{
	if (!has(m, UBUS_ATTR_METHOD) || !has(m, UBUS_ATTR_OBJID))
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t id = u32(m, UBUS_ATTR_OBJID);
	const char *method = ubus_wire::get_str(m.attr[UBUS_ATTR_METHOD]);

	switch (id) {
	case UBUS_SYSTEM_OBJECT_EVENT:
		return event_call(cl, m, method);
	case UBUS_SYSTEM_OBJECT_ACL:
		if (strcmp(method, "query"))
			return UBUS_STATUS_INVALID_COMMAND;
		return acl_query(cl, m);
	case UBUS_SYSTEM_OBJECT_MONITOR:
		// Every message passes through a monitor: root only.
		if (!((cl.cred.uid == 0 && cl.cred.gid == 0) ||
		      (cl.cred.uid == owner_uid_ && cl.cred.gid == owner_gid_)))
			return UBUS_STATUS_PERMISSION_DENIED;
		if (!strcmp(method, "add") || !strcmp(method, "remove")) {
			bool on = method[0] == 'a';
			if (on != cl.monitor)
				monitors_ += on ? 1 : -1;
			cl.monitor = on;
			return UBUS_STATUS_OK;
		}
		return UBUS_STATUS_METHOD_NOT_FOUND;
	default:
		break;
	}

	auto it = objects_.find(id);
	if (it == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	// Objects without a path (event handlers, subscribers) are not listed.
	if (!it->second.path.empty() && !allowed(cl, acl_op::access, it->second.path.c_str(), method))
		return UBUS_STATUS_PERMISSION_DENIED;

	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_OBJID, id);
	blob_put_string(&b_, UBUS_ATTR_METHOD, method);
	if (!cl.cred.user.empty())
		blob_put_string(&b_, UBUS_ATTR_USER, cl.cred.user.c_str());
	if (!cl.cred.group.empty())
		blob_put_string(&b_, UBUS_ATTR_GROUP, cl.cred.group.c_str());
	if (has(m, UBUS_ATTR_DATA))
		blob_put_raw(&b_, m.attr[UBUS_ATTR_DATA], blob_pad_len(m.attr[UBUS_ATTR_DATA]));
	send(it->second.client, UBUS_MSG_INVOKE, m.seq, cl.id, b_.head, fd);
	fd = -1;
	return -1;
}

// The access-list entries that concern the caller's published objects, so
// that it can check its own callers.
int broker::acl_query(client &cl, const ubus_wire::msg &m)
{
	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_ACL);
	void *d = blob_nest_start(&b_, UBUS_ATTR_DATA);
	blobmsg_add_u32(&b_, "seq", acl_seq_);
	void *a = blobmsg_open_array(&b_, "acl");
	for (uint32_t id : cl.objects) {
		const object &o = objects_.at(id);
		if (!o.path.empty())
			acl_.describe(&b_, o.path);
	}
	blobmsg_close_array(&b_, a);
	blob_nest_end(&b_, d);
	send(cl.id, UBUS_MSG_DATA, m.seq, m.peer, b_.head);
	return UBUS_STATUS_OK;
}

int broker::event_call(client &cl, const ubus_wire::msg &m, const char *method)
{
	const struct blob_attr *data = m.attr[UBUS_ATTR_DATA];
	if (!strcmp(method, "register")) {
		blobmsg_field f[] = {{"object", BLOBMSG_TYPE_INT32, nullptr}, {"pattern", BLOBMSG_TYPE_STRING, nullptr}};
		find_fields(data, f, 2);
		if (!f[0].value || !f[1].value)
			return UBUS_STATUS_INVALID_ARGUMENT;
		uint32_t id = blobmsg_get_u32(f[0].value);
		const char *pattern = blobmsg_get_string(f[1].value);
		if (id < system_max)
			return UBUS_STATUS_PERMISSION_DENIED;
		auto it = objects_.find(id);
		if (it == objects_.end())
			return UBUS_STATUS_NOT_FOUND;
		if (it->second.client != cl.id || !*pattern || !allowed(cl, acl_op::listen, pattern))
			return UBUS_STATUS_PERMISSION_DENIED;
		it->second.patterns.emplace_back(pattern);
		return UBUS_STATUS_OK;
	}
	if (!strcmp(method, "send")) {
		blobmsg_field f[] = {{"id", BLOBMSG_TYPE_STRING, nullptr}, {"data", BLOBMSG_TYPE_TABLE, nullptr}};
		find_fields(data, f, 2);
		if (!f[0].value || !f[1].value)
			return UBUS_STATUS_INVALID_ARGUMENT;
		const char *name = blobmsg_get_string(f[0].value);
		if (!strncmp(name, "ubus.", 5) || !allowed(cl, acl_op::send, name))
			return UBUS_STATUS_PERMISSION_DENIED;
		// The payload goes out as DATA holding the table's members.
		blob_buf_init(&ev_, 0);
		blob_put(&ev_, UBUS_ATTR_DATA, blobmsg_data(f[1].value), blobmsg_data_len(f[1].value));
		std::vector<uint8_t> payload(reinterpret_cast<uint8_t *>(blob_data(ev_.head)),
					     reinterpret_cast<uint8_t *>(blob_data(ev_.head)) + blob_len(ev_.head));
		std::string ev_name = name;
		deliver_event(cl.id, ev_name.c_str(), reinterpret_cast<const struct blob_attr *>(payload.data()));
		return UBUS_STATUS_OK;
	}
	return UBUS_STATUS_INVALID_COMMAND;
}

void broker::deliver_event(uint32_t sender, const char *name, const struct blob_attr *data)
{
	std::vector<std::pair<uint32_t, uint32_t>> targets;	// client, object
	for (const auto &[id, o] : objects_) {
		if (o.patterns.empty() || (sender && o.client == sender))
			continue;
		for (const auto &p : o.patterns) {
			if (event_match(p, name)) {
				targets.emplace_back(o.client, id);
				break;
			}
		}
	}
	for (auto [client, obj] : targets) {
		blob_buf_init(&b_, 0);
		blob_put_int32(&b_, UBUS_ATTR_OBJID, obj);
		blob_put_string(&b_, UBUS_ATTR_METHOD, name);
		blob_put_raw(&b_, data, blob_pad_len(data));
		send(client, UBUS_MSG_INVOKE, ++event_seq_, 0, b_.head);
	}
}

void broker::object_event(const char *name, const object &o)
{
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	void *d = blob_nest_start(&b, UBUS_ATTR_DATA);
	blobmsg_add_u32(&b, "id", o.id);
	blobmsg_add_string(&b, "path", o.path.c_str());
	blob_nest_end(&b, d);
	deliver_event(0, name, static_cast<const struct blob_attr *>(blob_data(b.head)));
	blob_buf_free(&b);
}

void broker::active_changed(object &target)
{
	blob_buf_init(&b_, 0);
	blob_put_int32(&b_, UBUS_ATTR_OBJID, target.id);
	blob_put_int8(&b_, UBUS_ATTR_ACTIVE, !target.subscribers.empty());
	send(target.client, UBUS_MSG_NOTIFY, ++target.notify_seq, 0, b_.head);
}

void broker::drop_subscription(object &target, uint32_t sub)
{
	auto it = std::find(target.subscribers.begin(), target.subscribers.end(), sub);
	if (it == target.subscribers.end())
		return;
	target.subscribers.erase(it);
	if (target.subscribers.empty())
		active_changed(target);
}

int broker::subscribe(client &cl, const ubus_wire::msg &m)
{
	if (!has(m, UBUS_ATTR_OBJID) || !has(m, UBUS_ATTR_TARGET))
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto sub = objects_.find(u32(m, UBUS_ATTR_OBJID));
	if (sub == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	if (sub->second.client != cl.id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t target_id = u32(m, UBUS_ATTR_TARGET);
	auto target = target_id < system_max ? objects_.end() : objects_.find(target_id);
	if (target == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	object &t = target->second;
	if (t.client == cl.id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (t.path.empty()) {
		const credentials &owner = clients_.at(t.client).cred;
		if (owner.user != cl.cred.user && owner.group != cl.cred.group)
			return UBUS_STATUS_NOT_FOUND;
	} else if (!allowed(cl, acl_op::subscribe, t.path.c_str())) {
		return UBUS_STATUS_NOT_FOUND;
	}
	t.subscribers.push_back(sub->first);
	sub->second.targets.push_back(target_id);
	if (t.subscribers.size() == 1)
		active_changed(t);
	return UBUS_STATUS_OK;
}

int broker::unsubscribe(client &cl, const ubus_wire::msg &m)
{
	if (!has(m, UBUS_ATTR_OBJID) || !has(m, UBUS_ATTR_TARGET))
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto sub = objects_.find(u32(m, UBUS_ATTR_OBJID));
	if (sub == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	if (sub->second.client != cl.id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto target = objects_.find(u32(m, UBUS_ATTR_TARGET));
	auto &targets = sub->second.targets;
	auto pos = target == objects_.end() ? targets.end() : std::find(targets.begin(), targets.end(), target->first);
	if (pos == targets.end())
		return UBUS_STATUS_NOT_FOUND;
	targets.erase(pos);
	drop_subscription(target->second, sub->first);
	return UBUS_STATUS_OK;
}

int broker::notify(client &cl, const ubus_wire::msg &m)
{
	if (!has(m, UBUS_ATTR_OBJID) || !has(m, UBUS_ATTR_METHOD))
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto it = objects_.find(u32(m, UBUS_ATTR_OBJID));
	if (it == objects_.end())
		return UBUS_STATUS_NOT_FOUND;
	if (it->second.client != cl.id)
		return UBUS_STATUS_PERMISSION_DENIED;
	bool no_reply = has(m, UBUS_ATTR_NO_REPLY) && blob_get_int8(m.attr[UBUS_ATTR_NO_REPLY]);
	std::vector<uint32_t> subs = it->second.subscribers;

	if (!no_reply) {
		blob_buf_init(&b_, 0);
		blob_put_int32(&b_, UBUS_ATTR_OBJID, it->first);
		void *s = blob_nest_start(&b_, UBUS_ATTR_SUBSCRIBERS);
		for (uint32_t sub : subs)
			blob_put_int32(&b_, 0, sub);
		blob_nest_end(&b_, s);
		blob_put_int32(&b_, UBUS_ATTR_STATUS, 0);
		send(cl.id, UBUS_MSG_STATUS, m.seq, m.peer, b_.head);
	}

	for (uint32_t sub : subs) {
		auto s = objects_.find(sub);
		if (s == objects_.end())
			continue;
		blob_buf_init(&b_, 0);
		if (no_reply)
			blob_put_int8(&b_, UBUS_ATTR_NO_REPLY, 1);
		blob_put_int32(&b_, UBUS_ATTR_OBJID, sub);
		blob_put_raw(&b_, m.attr[UBUS_ATTR_METHOD], blob_pad_len(m.attr[UBUS_ATTR_METHOD]));
		if (!cl.cred.user.empty())
			blob_put_string(&b_, UBUS_ATTR_USER, cl.cred.user.c_str());
		if (!cl.cred.group.empty())
			blob_put_string(&b_, UBUS_ATTR_GROUP, cl.cred.group.c_str());
		if (has(m, UBUS_ATTR_DATA))
			blob_put_raw(&b_, m.attr[UBUS_ATTR_DATA], blob_pad_len(m.attr[UBUS_ATTR_DATA]));
		send(s->second.client, UBUS_MSG_INVOKE, m.seq, cl.id, b_.head);
	}
	return -1;
}

// DATA/STATUS answering an INVOKE or NOTIFY: the header peer names the
// caller; it is rewritten to the answering object. Anything else is dropped.
void broker::forward_reply(client &cl, uint8_t *msg, size_t len, const ubus_wire::msg &m, int &fd)
{
	int needed = m.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
	if (!has(m, UBUS_ATTR_OBJID) || !has(m, needed))
		return;
	uint32_t obj = u32(m, UBUS_ATTR_OBJID);
	auto it = objects_.find(obj);
	if (it == objects_.end() || it->second.client != cl.id || !clients_.count(m.peer))
		return;
	msg[4] = obj >> 24;
	msg[5] = obj >> 16;
	msg[6] = obj >> 8;
	msg[7] = obj;
	if (monitors_)
		monitor(m.peer, true, msg, len);
	if (m.type == UBUS_MSG_STATUS) {
		out_.send(m.peer, msg, len, fd);
		fd = -1;
	} else {
		out_.send(m.peer, msg, len, -1);
	}
}

void broker::monitor(uint32_t client, bool sent, const uint8_t *msg, size_t len)
{
	ubus_wire::msg m;
	std::vector<uint8_t> copy(msg, msg + len);
	if (!ubus_wire::decode(copy.data(), copy.size(), &m))
		return;
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	blob_put_int32(&b, UBUS_MONITOR_CLIENT, client);
	blob_put_int32(&b, UBUS_MONITOR_PEER, m.peer);
	blob_put_int8(&b, UBUS_MONITOR_SEND, sent);
	blob_put_int32(&b, UBUS_MONITOR_SEQ, m.seq);
	blob_put_int32(&b, UBUS_MONITOR_TYPE, m.type);
	blob_put(&b, UBUS_MONITOR_DATA, blob_data(m.top), blob_len(m.top));
	std::vector<uint8_t> frame;
	for (auto &[id, cl] : clients_) {
		if (!cl.monitor)
			continue;
		frame.clear();
		ubus_wire::encode(frame, UBUS_MSG_MONITOR, ++cl.monitor_seq, id, b.head);
		out_.send(id, frame.data(), frame.size(), -1);
	}
	blob_buf_free(&b);
}

} // namespace ubusd
