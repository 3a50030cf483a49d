// State and helpers shared by the parts of the bus client.
#pragma once

#include "libubus.h"
#include "ubus_wire.h"

#include <deque>
#include <string>
#include <vector>

struct ubus_pending_msg {
	std::vector<uint8_t> bytes;
	int fd;
};

struct ubus_event_reg {
	struct ubus_event_handler *ev;
	std::string pattern;
};

struct ubus_ctx_priv {
	ubus_wire::reader rx;
	// Object messages (INVOKE, NOTIFY, UNSUBSCRIBE) that arrived while a
	// synchronous call was waiting; run later from ctx->pending_timer.
	std::deque<ubus_pending_msg> pending;
	// Event patterns, registered again after a reconnect.
	std::vector<ubus_event_reg> events;
	// Scratch message builder; every use finishes sending before the next.
	struct blob_buf b = {};
	struct blob_buf b2 = {};
};

// Sends one message; consumes fd (if >= 0). 0, or -1 when the connection is
// gone (ctx->sock.eof is then set).
int ubus_send_msg(struct ubus_context *ctx, uint32_t seq, struct blob_attr *msg,
		  int cmd, uint32_t peer, int fd);

// Sends a request message and prepares req for completion.
int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req,
		       struct blob_attr *msg, int cmd, uint32_t peer);

// Handles DATA/STATUS answering one of our requests.
void ubus_process_req_msg(struct ubus_context *ctx, const ubus_wire::msg &m, int fd);

// Handles INVOKE/NOTIFY/UNSUBSCRIBE for a local object.
void ubus_process_obj_msg(struct ubus_context *ctx, const ubus_wire::msg &m, int fd);

// Reads and dispatches what arrives within timeout ms (-1: wait).
void ubus_poll_data(struct ubus_context *ctx, int timeout);

// Finishes every asynchronous request with status (connection gone).
void ubus_fail_requests(struct ubus_context *ctx, int status);

// Re-adds objects and event patterns on a fresh connection.
void ubus_refresh_state(struct ubus_context *ctx);

struct ubus_object *ubus_find_object(struct ubus_context *ctx, uint32_t id);
void ubus_drop_object(struct ubus_context *ctx, struct ubus_object *obj);
