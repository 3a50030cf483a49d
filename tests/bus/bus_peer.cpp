// Test peer: publishes the object "test" through an
// automatically reconnecting bus connection, listens to "peer.*" events, and
// prints "ready" once its objects are published.
#include <libubus.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace
{

struct ubus_auto_conn conn;
struct blob_buf b;
std::vector<std::string> events_seen;
struct ubus_request_data deferred_req;
struct uloop_timeout defer_timer;
bool have_deferred;

enum { TYPED_NUM, TYPED_NAME, __TYPED_MAX };
const struct blobmsg_policy typed_policy[] = {
    {"num", BLOBMSG_TYPE_INT32},
    {"name", BLOBMSG_TYPE_STRING},
};

int echo_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
            struct blob_attr *msg)
{
    ubus_send_reply(ctx, req, msg);
    return 0;
}

int typed_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
             struct blob_attr *msg)
{
    struct blob_attr *tb[__TYPED_MAX];
    blobmsg_parse(typed_policy, __TYPED_MAX, tb, blob_data(msg), blob_len(msg));
    if (!tb[TYPED_NUM] || !tb[TYPED_NAME])
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "num", blobmsg_get_u32(tb[TYPED_NUM]) * 2);
    blobmsg_add_string(&b, "name", blobmsg_get_string(tb[TYPED_NAME]));
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

int whoami_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *)
{
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "user", req->acl.user ? req->acl.user : "");
    blobmsg_add_string(&b, "object", req->acl.object ? req->acl.object : "");
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

void defer_done(struct uloop_timeout *)
{
    blob_buf_init(&b, 0);
    blobmsg_add_u8(&b, "deferred", true);
    ubus_send_reply(&conn.ctx, &deferred_req, b.head);
    ubus_complete_deferred_request(&conn.ctx, &deferred_req, 0);
    have_deferred = false;
}

int defer_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
             struct blob_attr *)
{
    if (have_deferred)
        return UBUS_STATUS_UNKNOWN_ERROR;
    ubus_defer_request(ctx, req, &deferred_req);
    have_deferred = true;
    defer_timer.cb = defer_done;
    uloop_timeout_set(&defer_timer, 50);
    return 0;
}

int silent_cb(struct ubus_context *, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *)
{
    // Never answered: the caller's time-out is what is being tested.
    req->deferred = true;
    return 0;
}

int fail_cb(struct ubus_context *, struct ubus_object *, struct ubus_request_data *, const char *, struct blob_attr *)
{
    return UBUS_STATUS_NOT_SUPPORTED;
}

struct ubus_object test_obj;

int notify_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *msg)
{
    int rc = ubus_notify(ctx, &test_obj, "ping", msg, 2000);
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "rc", rc);
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

int state_cb(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req, const char *,
             struct blob_attr *)
{
    blob_buf_init(&b, 0);
    blobmsg_add_u8(&b, "has_subscribers", obj->has_subscribers);
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

int event_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *, const char *,
             struct blob_attr *msg)
{
    return ubus_send_event(ctx, "test.event", msg);
}

int events_cb(struct ubus_context *ctx, struct ubus_object *, struct ubus_request_data *req, const char *,
              struct blob_attr *)
{
    blob_buf_init(&b, 0);
    void *a = blobmsg_open_array(&b, "events");
    for (auto &e : events_seen)
        blobmsg_add_string(&b, nullptr, e.c_str());
    blobmsg_close_array(&b, a);
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

const struct ubus_method test_methods[] = {
    UBUS_METHOD_NOARG("echo", echo_cb),     UBUS_METHOD("typed", typed_cb, typed_policy),
    UBUS_METHOD_NOARG("whoami", whoami_cb), UBUS_METHOD_NOARG("defer", defer_cb),
    UBUS_METHOD_NOARG("silent", silent_cb), UBUS_METHOD_NOARG("fail", fail_cb),
    UBUS_METHOD_NOARG("notify", notify_cb), UBUS_METHOD_NOARG("state", state_cb),
    UBUS_METHOD_NOARG("event", event_cb),   UBUS_METHOD_NOARG("events", events_cb),
};

struct ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);

void on_event(struct ubus_context *, struct ubus_event_handler *, const char *type, struct blob_attr *)
{
    events_seen.push_back(type);
}

struct ubus_event_handler listener;

void announce_ready(struct uloop_timeout *)
{
    printf("ready\n");
    fflush(stdout);
}

void connected(struct ubus_context *ctx)
{
    test_obj.name = "test";
    test_obj.type = &test_type;
    test_obj.methods = test_methods;
    test_obj.n_methods = ARRAY_SIZE(test_methods);
    listener.cb = on_event;
    if (ubus_add_object(ctx, &test_obj) || ubus_register_event_handler(ctx, &listener, "peer.*")) {
        fprintf(stderr, "peer: publishing failed\n");
        exit(1);
    }
    // Announced from inside the loop: a SIGTERM sent after "ready" must find
    // uloop_run() already running, or the loop would clear it on entry.
    static struct uloop_timeout ready_timer;
    ready_timer.cb = announce_ready;
    uloop_timeout_set(&ready_timer, 0);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
        return 1;
    }
    uloop_init();
    conn.path = argv[1];
    conn.cb = connected;
    ubus_auto_connect(&conn);
    uloop_run();
    ubus_auto_shutdown(&conn);
    uloop_done();
    blob_buf_free(&b);
    return 0;
}
