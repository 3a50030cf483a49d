// Bus client: requests and their replies — invoke, notify, deferred replies.
#include "libubus_internal.h"

#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

int64_t now_ms()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

void set_req_status(struct ubus_request *req, int ret)
{
	if (!list_empty(&req->list))
		list_del_init(&req->list);
	req->status_msg = true;
	req->status_code = ret;
	if (req->blocked)
		return;
	// Each completion callback runs once; it may free the request.
	struct ubus_notify_request *nreq =
		req->notify ? container_of(req, struct ubus_notify_request, req) : nullptr;
	ubus_notify_complete_handler_t ncb = nreq ? nreq->complete_cb : nullptr;
	if (nreq)
		nreq->complete_cb = nullptr;
	ubus_complete_handler_t cb = req->complete_cb;
	req->complete_cb = nullptr;
	if (cb)
		cb(req, ret);
	if (ncb)
		ncb(nreq, 0, ret);
}

int find_notify_id(struct ubus_notify_request *n, uint32_t peer)
{
	uint32_t pending = n->pending;
	for (int i = 0; pending; i++, pending >>= 1) {
		if ((pending & 1) && peer == n->id[i])
			return i;
	}
	return -1;
}

struct ubus_request *find_request(struct ubus_context *ctx, uint16_t seq, uint32_t peer, int *id)
{
	struct ubus_request *req;
	list_for_each_entry(req, &ctx->requests, list) {
		if (req->seq != seq)
			continue;
		if (req->notify) {
			auto *nreq = container_of(req, struct ubus_notify_request, req);
			if (!nreq->pending)
				continue;
			*id = find_notify_id(nreq, peer);
			if (*id < 0)
				continue;
		} else if (req->peer != peer) {
			continue;
		}
		return req;
	}
	return nullptr;
}

// The broker's answer lists the subscribers (index 1..16); each of them then
// answers with its own status.
void process_notify_status(struct ubus_request *req, int id, const ubus_wire::msg &m)
{
	auto *nreq = container_of(req, struct ubus_notify_request, req);
	nreq->pending &= ~(1u << id);
	if (!id) {
		if (m.attr[UBUS_ATTR_SUBSCRIBERS]) {
			int idx = 1;
			ubus_wire::for_each_child(m.attr[UBUS_ATTR_SUBSCRIBERS], [&](struct blob_attr *cur) {
				if (idx > UBUS_MAX_NOTIFY_PEERS ||
				    !blob_check_type(blob_data(cur), blob_len(cur), BLOB_ATTR_INT32))
					return;
				nreq->pending |= 1u << idx;
				nreq->id[idx] = ubus_wire::get_u32(cur);
				idx++;
			});
		}
	} else {
		int ret = m.attr[UBUS_ATTR_STATUS] ? (int)ubus_wire::get_u32(m.attr[UBUS_ATTR_STATUS])
						   : UBUS_STATUS_INVALID_ARGUMENT;
		if (nreq->status_cb)
			nreq->status_cb(nreq, id, ret);
	}
	if (!nreq->pending)
		set_req_status(req, 0);
}

} // namespace

int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req,
		       struct blob_attr *msg, int cmd, uint32_t peer)
{
	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->list);
	INIT_LIST_HEAD(&req->pending);
	req->ctx = ctx;
	req->peer = peer;
	req->seq = ++ctx->request_seq;
	req->fd = -1;
	return ubus_send_msg(ctx, req->seq, msg, cmd, peer, -1);
}

void ubus_process_req_msg(struct ubus_context *ctx, const ubus_wire::msg &m, int fd)
{
	int id = -1;
	struct ubus_request *req = find_request(ctx, m.seq, m.peer, &id);
	if (!req) {
		if (fd >= 0)
			close(fd);
		return;
	}
	if (m.type == UBUS_MSG_STATUS) {
		if (fd >= 0) {
			if (req->fd_cb)
				req->fd_cb(req, fd);
			else
				close(fd);
		}
		if (id >= 0) {
			process_notify_status(req, id, m);
			return;
		}
		int ret = m.attr[UBUS_ATTR_STATUS] ? (int)ubus_wire::get_u32(m.attr[UBUS_ATTR_STATUS])
						   : UBUS_STATUS_INVALID_ARGUMENT;
		set_req_status(req, ret);
		return;
	}
	if (fd >= 0)
		close(fd);
	if (req->cancelled)
		return;
	if (req->raw_data_cb)
		req->raw_data_cb(req, m.type, m.top);
	if (req->notify) {
		auto *nreq = container_of(req, struct ubus_notify_request, req);
		if (nreq->data_cb && m.attr[UBUS_ATTR_DATA])
			nreq->data_cb(nreq, m.type, m.attr[UBUS_ATTR_DATA]);
	} else if (req->data_cb && m.attr[UBUS_ATTR_DATA]) {
		req->data_cb(req, m.type, m.attr[UBUS_ATTR_DATA]);
	}
}

void ubus_fail_requests(struct ubus_context *ctx, int status)
{
	for (;;) {
		struct ubus_request *req, *found = nullptr;
		list_for_each_entry(req, &ctx->requests, list) {
			if (!req->blocked) {
				found = req;
				break;
			}
		}
		if (!found)
			return;
		set_req_status(found, status);
	}
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req)
{
	if (!list_empty(&req->list))
		return;
	list_add(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context *, struct ubus_request *req)
{
	if (list_empty(&req->list))
		return;
	req->cancelled = true;
	list_del_init(&req->list);
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int req_timeout)
{
	ubus_complete_handler_t complete_cb = req->complete_cb;
	int64_t time_end = req_timeout ? now_ms() + req_timeout : 0;

	ubus_complete_request_async(ctx, req);
	req->complete_cb = nullptr;
	req->blocked = true;
	ctx->stack_depth++;
	while (!req->status_msg) {
		int timeout = -1;
		if (req_timeout) {
			int64_t left = time_end - now_ms();
			if (left <= 0) {
				set_req_status(req, UBUS_STATUS_TIMEOUT);
				break;
			}
			timeout = (int)left;
		}
		if (ctx->sock.eof || ctx->sock.fd < 0) {
			set_req_status(req, UBUS_STATUS_CONNECTION_FAILED);
			break;
		}
		ubus_poll_data(ctx, timeout);
	}
	ctx->stack_depth--;
	req->blocked = false;
	req->complete_cb = complete_cb;
	int status = req->status_code;
	if (complete_cb)
		complete_cb(req, status);

	// Object messages queued meanwhile run from the loop, or now when the
	// socket is not in a loop.
	if (ctx->stack_depth == 0 && ctx->priv && !ctx->priv->pending.empty()) {
		if (ctx->sock.registered)
			uloop_timeout_set(&ctx->pending_timer, 1);
		else
			ctx->pending_timer.cb(&ctx->pending_timer);
	}
	return status;
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
			 struct blob_attr *msg, struct ubus_request *req, int fd)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, obj);
	blob_put_string(b, UBUS_ATTR_METHOD, method);
	if (msg)
		blob_put(b, UBUS_ATTR_DATA, blob_data(msg), blob_len(msg));
	else
		blob_put(b, UBUS_ATTR_DATA, nullptr, 0);

	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->list);
	INIT_LIST_HEAD(&req->pending);
	req->ctx = ctx;
	req->peer = obj;
	req->seq = ++ctx->request_seq;
	req->fd = -1;
	if (ubus_send_msg(ctx, req->seq, b->head, UBUS_MSG_INVOKE, obj, fd) < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	return 0;
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
		   struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
		   int timeout, int fd)
{
	struct ubus_request req;
	int ret = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);
	if (ret)
		return ret;
	req.data_cb = cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, timeout);
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req,
		    struct blob_attr *msg)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, req->object);
	blob_put(b, UBUS_ATTR_DATA, blob_data(msg), blob_len(msg));
	if (ubus_send_msg(ctx, req->seq, b->head, UBUS_MSG_DATA, req->peer, -1) < 0)
		return UBUS_STATUS_NO_DATA;
	return 0;
}

void ubus_complete_deferred_request(struct ubus_context *ctx,
				    struct ubus_request_data *req, int ret)
{
	struct blob_buf *b = &ctx->priv->b;
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_STATUS, ret);
	blob_put_int32(b, UBUS_ATTR_OBJID, req->object);
	ubus_send_msg(ctx, req->seq, b->head, UBUS_MSG_STATUS, req->peer, req->fd);
	req->fd = -1;
}

namespace {

int notify_start(struct ubus_context *ctx, struct ubus_object *obj, const char *type,
		 struct blob_attr *msg, struct ubus_notify_request *req, bool reply)
{
	struct blob_buf *b = &ctx->priv->b;
	memset(req, 0, sizeof(*req));
	blob_buf_init(b, 0);
	blob_put_int32(b, UBUS_ATTR_OBJID, obj->id);
	blob_put_string(b, UBUS_ATTR_METHOD, type);
	if (!reply)
		blob_put_int8(b, UBUS_ATTR_NO_REPLY, true);
	if (msg)
		blob_put(b, UBUS_ATTR_DATA, blob_data(msg), blob_len(msg));
	if (ubus_start_request(ctx, &req->req, b->head, UBUS_MSG_NOTIFY, obj->id) < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	// Index 0 stands for the broker's own answer.
	req->pending = 1;
	req->id[0] = obj->id;
	req->req.notify = true;
	return 0;
}

} // namespace

int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj,
		      const char *type, struct blob_attr *msg,
		      struct ubus_notify_request *req)
{
	return notify_start(ctx, obj, type, msg, req, true);
}

int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj,
		const char *type, struct blob_attr *msg, int timeout)
{
	struct ubus_notify_request req;
	int ret = notify_start(ctx, obj, type, msg, &req, timeout >= 0);
	if (ret)
		return ret;
	if (timeout < 0)
		return 0;
	return ubus_complete_request(ctx, &req.req, timeout);
}
