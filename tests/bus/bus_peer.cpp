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
bool have_deferred;

void defer_done(struct uloop_timeout *)
{
    blob_buf_init(&b, 0);
    blobmsg_add_u8(&b, "deferred", true);
    ubus_send_reply(&conn.ctx, &deferred_req, b.head);
    ubus_complete_deferred_request(&conn.ctx, &deferred_req, 0);
    have_deferred = false;
}
struct uloop_timeout defer_timer;

enum { TYPED_NUM, TYPED_NAME, __TYPED_MAX };
const struct blobmsg_policy typed_policy[] = {
    {"num", BLOBMSG_TYPE_INT32},
    {"name", BLOBMSG_TYPE_STRING},
};

struct ubus_object test_obj;

// Every method: those answering with a message build it in b, sent once at the end.
int handle(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req, const char *method,
           struct blob_attr *msg)
{
    const std::string m = method;
    blob_buf_init(&b, 0);
    if (m == "echo") {
        ubus_send_reply(ctx, req, msg);
        return 0;
    } else if (m == "typed") {
        struct blob_attr *tb[__TYPED_MAX];
        blobmsg_parse(typed_policy, __TYPED_MAX, tb, blob_data(msg), blob_len(msg));
        if (!tb[TYPED_NUM] || !tb[TYPED_NAME])
            return UBUS_STATUS_INVALID_ARGUMENT;
        blobmsg_add_u32(&b, "num", blobmsg_get_u32(tb[TYPED_NUM]) * 2);
        blobmsg_add_string(&b, "name", blobmsg_get_string(tb[TYPED_NAME]));
    } else if (m == "whoami") {
        blobmsg_add_string(&b, "user", req->acl.user ? req->acl.user : "");
        blobmsg_add_string(&b, "object", req->acl.object ? req->acl.object : "");
    } else if (m == "defer") {
        if (have_deferred)
            return UBUS_STATUS_UNKNOWN_ERROR;
        ubus_defer_request(ctx, req, &deferred_req);
        have_deferred = true;
        defer_timer.cb = defer_done;
        uloop_timeout_set(&defer_timer, 50);
        return 0;
    } else if (m == "silent") {
        req->deferred = true; // never answered: the caller's time-out is what is being tested
        return 0;
    } else if (m == "fail") {
        return UBUS_STATUS_NOT_SUPPORTED;
    } else if (m == "notify") {
        blobmsg_add_u32(&b, "rc", ubus_notify(ctx, &test_obj, "ping", msg, 2000));
    } else if (m == "state") {
        blobmsg_add_u8(&b, "has_subscribers", obj->has_subscribers);
    } else if (m == "event") {
        return ubus_send_event(ctx, "test.event", msg);
    } else if (m == "events") {
        void *a = blobmsg_open_array(&b, "events");
        for (auto &e : events_seen)
            blobmsg_add_string(&b, nullptr, e.c_str());
        blobmsg_close_array(&b, a);
    }
    ubus_send_reply(ctx, req, b.head);
    return 0;
}

const struct ubus_method test_methods[] = {
    UBUS_METHOD_NOARG("echo", handle),   UBUS_METHOD("typed", handle, typed_policy),
    UBUS_METHOD_NOARG("whoami", handle), UBUS_METHOD_NOARG("defer", handle),
    UBUS_METHOD_NOARG("silent", handle), UBUS_METHOD_NOARG("fail", handle),
    UBUS_METHOD_NOARG("notify", handle), UBUS_METHOD_NOARG("state", handle),
    UBUS_METHOD_NOARG("event", handle),  UBUS_METHOD_NOARG("events", handle),
};

struct ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);

void on_event(struct ubus_context *, struct ubus_event_handler *, const char *type, struct blob_attr *)
{
    events_seen.push_back(type);
}

struct ubus_event_handler listener;

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
    ready_timer.cb = [](struct uloop_timeout *) { printf("ready\n"), fflush(stdout); };
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
