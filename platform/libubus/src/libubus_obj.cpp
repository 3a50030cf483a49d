// Bus client: local objects, incoming calls, subscribers, events, lookup.
#include "libubus_internal.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace {

int watch_cb(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
	     const char *method, struct blob_attr *msg)
{
	auto *sub = container_of(obj, struct ubus_subscriber, obj);
	if (sub->cb)
		return sub->cb(ctx, obj, req, method, msg);
	return 0;
}

int event_cb(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *,
	     const char *method, struct blob_attr *msg)
{
	auto *ev = container_of(obj, struct ubus_event_handler, obj);
	if (ev->cb)
		ev->cb(ctx, ev, method, msg);
	return 0;
}

// Subscribers and event handlers are anonymous objects with one wildcard
// method; the method table tells them apart.
const struct ubus_method watch_method = {nullptr, watch_cb, 0, 0, nullptr, 0};
const struct ubus_method event_method = {nullptr, event_cb, 0, 0, nullptr, 0};

void process_invoke(struct ubus_context *ctx, struct ubus_object *obj, const ubus_wire::msg &m, int fd)
{
	struct ubus_request_data req;
	memset(&req, 0, sizeof(req));
	req.object = obj ? obj->id : (m.attr[UBUS_ATTR_OBJID] ? ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJID]) : 0);
	req.peer = m.peer;
	req.seq = m.seq;
	req.fd = -1;
	req.req_fd = fd;
	if (m.attr[UBUS_ATTR_USER])
		req.acl.user = ubus_wire::get_str(m.attr[UBUS_ATTR_USER]);
	if (m.attr[UBUS_ATTR_GROUP])
		req.acl.group = ubus_wire::get_str(m.attr[UBUS_ATTR_GROUP]);
	if (obj)
		req.acl.object = obj->name;
	bool no_reply = m.attr[UBUS_ATTR_NO_REPLY] && blob_get_int8(m.attr[UBUS_ATTR_NO_REPLY]);

	int ret;
	if (!obj) {
		ret = UBUS_STATUS_NOT_FOUND;
	} else if (!m.attr[UBUS_ATTR_METHOD]) {
		ret = UBUS_STATUS_INVALID_ARGUMENT;
	} else {
		const char *method = ubus_wire::get_str(m.attr[UBUS_ATTR_METHOD]);
		int i;
		for (i = 0; i < obj->n_methods; i++) {
			if (!obj->methods[i].name || !strcmp(obj->methods[i].name, method))
				break;
		}
		if (i == obj->n_methods) {
			ret = UBUS_STATUS_METHOD_NOT_FOUND;
		} else if (!m.attr[UBUS_ATTR_DATA]) {
			ret = UBUS_STATUS_INVALID_ARGUMENT;
		} else {
			ret = obj->methods[i].handler(ctx, obj, &req, method, m.attr[UBUS_ATTR_DATA]);
			if (req.req_fd >= 0)
				close(req.req_fd);
			req.req_fd = -1;
			if (req.deferred || no_reply)
				return;
		}
	}
	if (req.req_fd >= 0)
		close(req.req_fd);
	if (!no_reply && ctx->priv)
		ubus_complete_deferred_request(ctx, &req, ret);
}

void add_object_cb(struct ubus_request *req, int, struct blob_attr *top)
{
	auto *obj = static_cast<struct ubus_object *>(req->priv);
	ubus_wire::msg m{};
	ubus_wire::for_each_child(top, [&](struct blob_attr *a) {
		unsigned id = blob_id(a);
		if ((id == UBUS_ATTR_OBJID || id == UBUS_ATTR_OBJTYPE) &&
		    blob_check_type(blob_data(a), blob_len(a), BLOB_ATTR_INT32))
			m.attr[id] = a;
	});
	if (!m.attr[UBUS_ATTR_OBJID])
		return;
	obj->id = ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJID]);
	if (m.attr[UBUS_ATTR_OBJTYPE] && obj->type)
		obj->type->id = ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJTYPE]);
	obj->avl.key = &obj->id;
	list_add_tail(&obj->avl.list, &req->ctx->objects.list_head);
	req->ctx->objects.count++;
}

void remove_object_cb(struct ubus_request *req, int, struct blob_attr *top)
{
	auto *obj = static_cast<struct ubus_object *>(req->priv);
	ubus_wire::for_each_child(top, [&](struct blob_attr *a) {
		if (blob_id(a) == UBUS_ATTR_OBJTYPE && obj->type)
			obj->type->id = 0;
	});
}

void push_signature(struct blob_buf *b, const struct ubus_object_type *type)
{
	void *sig = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
	for (int i = 0; i < type->n_methods; i++) {
		const struct ubus_method *m = &type->methods[i];
		void *t = blobmsg_open_table(b, m->name);
		for (int j = 0; j < m->n_policy; j++) {
			if (m->mask && !(m->mask & (1UL << j)))
				continue;
			blobmsg_add_u32(b, m->policy[j].name, m->policy[j].type);
		}
		blobmsg_close_table(b, t);
	}
	blob_nest_end(b, sig);
}

int simple_request(struct ubus_context *ctx, int cmd, struct blob_buf *b, uint32_t peer,
		   ubus_data_handler_t raw_cb, void *priv)
{
	struct ubus_request req;
	if (ubus_start_request(ctx, &req, b->head, cmd, peer) < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	req.raw_data_cb = raw_cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, 0);
}

struct lookup_priv {
	ubus_lookup_handler_t cb;
	void *priv;
};

void lookup_cb(struct ubus_request *req, int, struct blob_attr *top)
{
	ubus_wire::msg m{};
	ubus_wire::for_each_child(top, [&](struct blob_attr *a) {
		unsigned id = blob_id(a);
		int type = id == UBUS_ATTR_OBJPATH ? BLOB_ATTR_STRING
			 : id == UBUS_ATTR_SIGNATURE ? BLOB_ATTR_NESTED
			 : (id == UBUS_ATTR_OBJID || id == UBUS_ATTR_OBJTYPE) ? BLOB_ATTR_INT32 : -1;
		if (type >= 0 && blob_check_type(blob_data(a), blob_len(a), type))
			m.attr[id] = a;
	});
	if (!m.attr[UBUS_ATTR_OBJID] || !m.attr[UBUS_ATTR_OBJPATH] || !m.attr[UBUS_ATTR_OBJTYPE])
		return;
	auto *lp = static_cast<lookup_priv *>(req->priv);
	struct ubus_object_data obj;
	obj.id = ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJID]);
	obj.type_id = ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJTYPE]);
	obj.path = ubus_wire::get_str(m.attr[UBUS_ATTR_OBJPATH]);
	obj.signature = m.attr[UBUS_ATTR_SIGNATURE];
	if (lp->cb)
		lp->cb(req->ctx, &obj, lp->priv);
}

void lookup_id_cb(struct ubus_request *req, int, struct blob_attr *top)
{
	ubus_wire::for_each_child(top, [&](struct blob_attr *a) {
		if (blob_id(a) == UBUS_ATTR_OBJID && blob_check_type(blob_data(a), blob_len(a), BLOB_ATTR_INT32))
			*static_cast<uint32_t *>(req->priv) = ubus_wire::get_u32(a);
	});
}

int register_pattern(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern)
{
	struct blob_buf *b = &ctx->priv->b2;
	blob_buf_init(b, 0);
	blobmsg_add_u32(b, "object", ev->obj.id);
	if (pattern)
		blobmsg_add_string(b, "pattern", pattern);
	return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", b->head, nullptr, nullptr, 0);
}

int subscription(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id, int cmd)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, obj->obj.id);
	blob_put_int32(b, UBUS_ATTR_TARGET, id);
	return simple_request(ctx, cmd, b, 0, nullptr, nullptr);
}

} // namespace

struct ubus_object *ubus_find_object(struct ubus_context *ctx, uint32_t id)
{
	struct ubus_object *obj;
	list_for_each_entry(obj, &ctx->objects.list_head, avl.list) {
		if (obj->id == id)
			return obj;
	}
	return nullptr;
}

void ubus_drop_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct ubus_object *cur;
	list_for_each_entry(cur, &ctx->objects.list_head, avl.list) {
		if (cur == obj) {
			list_del_init(&obj->avl.list);
			ctx->objects.count--;
			break;
		}
	}
	obj->id = 0;
	if (!ctx->priv)
		return;
	auto &evs = ctx->priv->events;
	evs.erase(std::remove_if(evs.begin(), evs.end(),
				 [obj](const ubus_event_reg &r) { return &r.ev->obj == obj; }),
		  evs.end());
}

void ubus_process_obj_msg(struct ubus_context *ctx, const ubus_wire::msg &m, int fd)
{
	struct ubus_object *obj = nullptr;
	if (m.attr[UBUS_ATTR_OBJID])
		obj = ubus_find_object(ctx, ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJID]));

	switch (m.type) {
	case UBUS_MSG_INVOKE:
		process_invoke(ctx, obj, m, fd);
		return;
	case UBUS_MSG_UNSUBSCRIBE:
		if (obj && obj->methods == &watch_method && m.attr[UBUS_ATTR_TARGET]) {
			auto *sub = container_of(obj, struct ubus_subscriber, obj);
			if (sub->remove_cb)
				sub->remove_cb(ctx, sub, ubus_wire::get_u32(m.attr[UBUS_ATTR_TARGET]));
		}
		break;
	case UBUS_MSG_NOTIFY:
		if (obj && m.attr[UBUS_ATTR_ACTIVE]) {
			obj->has_subscribers = blob_get_int8(m.attr[UBUS_ATTR_ACTIVE]);
			if (obj->subscribe_cb)
				obj->subscribe_cb(ctx, obj);
		}
		break;
	default:
		break;
	}
	if (fd >= 0)
		close(fd);
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	if (obj->name && obj->type) {
		blob_put_string(b, UBUS_ATTR_OBJPATH, obj->name);
		if (obj->type->id)
			blob_put_int32(b, UBUS_ATTR_OBJTYPE, obj->type->id);
		else
			push_signature(b, obj->type);
	}
	obj->id = 0;
	int ret = simple_request(ctx, UBUS_MSG_ADD_OBJECT, b, 0, add_object_cb, obj);
	if (ret) {
		if (obj->id)
			ubus_drop_object(ctx, obj);
		return ret;
	}
	if (!obj->id)
		return UBUS_STATUS_NO_DATA;
	return 0;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, obj->id);
	int ret = simple_request(ctx, UBUS_MSG_REMOVE_OBJECT, b, 0, remove_object_cb, obj);
	// Forget the object whatever the broker says: the caller is about to
	// free it, and a reconnect must not publish it again.
	ubus_drop_object(ctx, obj);
	return ret;
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	if (path)
		blob_put_string(b, UBUS_ATTR_OBJPATH, path);
	lookup_priv lp = {cb, priv};
	return simple_request(ctx, UBUS_MSG_LOOKUP, b, 0, lookup_cb, &lp);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	if (path)
		blob_put_string(b, UBUS_ATTR_OBJPATH, path);
	return simple_request(ctx, UBUS_MSG_LOOKUP, b, 0, lookup_id_cb, id);
}

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *s)
{
	s->obj.methods = &watch_method;
	s->obj.n_methods = 1;
	INIT_LIST_HEAD(&s->list);
	return ubus_add_object(ctx, &s->obj);
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id)
{
	return subscription(ctx, obj, id, UBUS_MSG_SUBSCRIBE);
}

int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id)
{
	return subscription(ctx, obj, id, UBUS_MSG_UNSUBSCRIBE);
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
				const char *pattern)
{
	struct ubus_object *obj = &ev->obj;
	if (!obj->id) {
		if (!!obj->name ^ !!obj->type)
			return UBUS_STATUS_INVALID_ARGUMENT;
		if (!obj->methods) {
			obj->methods = &event_method;
			obj->n_methods = 1;
		}
		int ret = ubus_add_object(ctx, obj);
		if (ret)
			return ret;
	}
	int ret = register_pattern(ctx, ev, pattern);
	if (!ret && pattern)
		ctx->priv->events.push_back({ev, pattern});
	return ret;
}

int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev)
{
	return ubus_remove_object(ctx, &ev->obj);
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
	blob_put_string(b, UBUS_ATTR_METHOD, "send");
	void *s = blob_nest_start(b, UBUS_ATTR_DATA);
	blobmsg_add_string(b, "id", id);
	blobmsg_add_field(b, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : nullptr,
			  data ? blob_len(data) : 0);
	blob_nest_end(b, s);
	return simple_request(ctx, UBUS_MSG_INVOKE, b, UBUS_SYSTEM_OBJECT_EVENT, nullptr, nullptr);
}

void ubus_refresh_state(struct ubus_context *ctx)
{
	// Take the objects off the list, forget every type id (the signatures
	// must be sent again), then publish each object anew.
	std::vector<struct ubus_object *> objs;
	struct ubus_object *obj, *tmp;
	list_for_each_entry_safe(obj, tmp, &ctx->objects.list_head, avl.list) {
		objs.push_back(obj);
		list_del_init(&obj->avl.list);
		if (obj->type)
			obj->type->id = 0;
	}
	ctx->objects.count = 0;
	for (auto *o : objs)
		ubus_add_object(ctx, o);

	// Event patterns are bound to the handler's object id, which changed.
	std::vector<ubus_event_reg> evs;
	evs.swap(ctx->priv->events);
	for (auto &r : evs) {
		if (r.ev->obj.id && !register_pattern(ctx, r.ev, r.pattern.c_str()))
			ctx->priv->events.push_back(r);
	}
}
