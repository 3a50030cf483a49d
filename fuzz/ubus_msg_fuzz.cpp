// The bus wire decoder on both sides: a byte stream split into messages by
// the receive reader, in random chunks, then handed to the client's message
// handling or to the broker core.
// Byte 0: bit 0 set: the broker receives (bit 1 picks the unprivileged
// client as sender); clear: the client receives. Byte 1 seeds the chunk
// sizes. The rest is the stream.
// The client has one object with methods and an outstanding call and
// notification, so answers and invocations reach real handlers. In the
// broker, peer and object ids 16..31 stand for the ids the broker handed out
// so far (clients, then objects), so mutations can name registered objects;
// the broker's own objects (1 events, 2 access lists, 3 monitor) stay.
// Checked: the reader hands out whole, aligned messages no longer than what
// arrived; everything the client and the broker send decodes as a message;
// no crash, leak or sanitizer report.
#include "broker.h"
#include "libubus_internal.h"
#include "ubus_wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "fuzz_input.h"

namespace
{

// Splits the stream; fn(copy of the message) for each one until the stream
// turns invalid (the connection would be dropped).
template <class F> void read_stream(fuzz::input &in, F &&fn)
{
    ubus_wire::reader rx;
    size_t out = 0;
    bool valid = true;
    in.pick.chunks(in.size, 512, [&](size_t pos, size_t n) {
        if (!valid)
            return;
        std::memcpy(rx.space(n), in.data + pos, n);
        rx.commit(n);
        uint8_t *p;
        size_t len;
        int fd;
        for (ubus_wire::reader::result r; valid && (r = rx.next(&p, &len, &fd)) != ubus_wire::reader::none;) {
            if (!(valid = r != ubus_wire::reader::invalid))
                break;
            FUZZ_CHECK(fd == -1 && len >= ubus_wire::min_len && len == ubus_wire::frame_len(p));
            FUZZ_CHECK(reinterpret_cast<uintptr_t>(p) % 4 == 0);
            FUZZ_CHECK((out += len) <= pos + n);
            std::vector<uint8_t> copy(p, p + len);
            fn(copy);
        }
    });
}

// A sent message: one whole frame that decodes (a copy of it, into m).
void check_sent(const uint8_t *msg, size_t len, std::vector<uint8_t> &copy, ubus_wire::msg &m)
{
    FUZZ_CHECK(len >= ubus_wire::min_len && ubus_wire::frame_len(msg) == len);
    copy.assign(msg, msg + len);
    FUZZ_CHECK(ubus_wire::decode(copy.data(), copy.size(), &m));
}

// --- client -------------------------------------------------------------------

enum { ARG_NAME, ARG_COUNT, ARG_LIST, ARG_TABLE, ARG_MAX };
const blobmsg_policy method_args[ARG_MAX] = {
    {"name", BLOBMSG_TYPE_STRING},
    {"count", BLOBMSG_TYPE_INT32},
    {"list", BLOBMSG_TYPE_ARRAY},
    {"table", BLOBMSG_TYPE_TABLE},
};

// Reads a message's arguments as the daemon's methods do.
void read_args(blob_attr *msg)
{
    blob_attr *tb[ARG_MAX];
    blobmsg_parse(method_args, ARG_MAX, tb, blob_data(msg), blob_len(msg));
    if (tb[ARG_NAME])
        (void)std::strlen(blobmsg_get_string(tb[ARG_NAME]));
    if (tb[ARG_COUNT])
        (void)blobmsg_get_u32(tb[ARG_COUNT]);
    for (int i : {ARG_LIST, ARG_TABLE}) {
        blob_attr *cur;
        size_t rem;
        if (tb[i] && blobmsg_check_attr_list(tb[i], BLOBMSG_TYPE_UNSPEC))
            blobmsg_for_each_attr(cur, tb[i], rem)(void) blobmsg_type(cur);
    }
}

// Answers with its arguments.
int echo_method(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
    read_args(msg);
    ubus_send_reply(ctx, req, msg);
    return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
    UBUS_METHOD("echo", echo_method, method_args),
    UBUS_METHOD_NOARG("refuse", [](ubus_context *, ubus_object *, ubus_request_data *, const char *,
                                   blob_attr *) { return int(UBUS_STATUS_PERMISSION_DENIED); }),
};

void client(fuzz::input &in)
{
    // fd[1] is the peer end of the client's socket: everything it sent.
    static int fd[2] = {-1, -1};
    if (fd[0] < 0 && (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd) != 0 || fcntl(fd[1], F_SETFL, O_NONBLOCK)))
        return;
    ubus_context ctx = {};
    ctx.sock.fd = fd[0];
    ctx.local_id = 0x5a5a;
    INIT_LIST_HEAD(&ctx.requests);
    INIT_LIST_HEAD(&ctx.pending);
    INIT_LIST_HEAD(&ctx.objects.list_head);
    ctx.priv = new ubus_ctx_priv;
    ubus_object obj = {};
    obj.name = "fuzz";
    obj.id = 0x100;
    obj.methods = methods;
    obj.n_methods = static_cast<int>(std::size(methods));
    obj.subscribe_cb = [](ubus_context *, ubus_object *) {};
    list_add(&obj.avl.list, &ctx.objects.list_head);

    // A call to object 0x200 (seq 1) and a notification of our object (seq 2).
    blob_buf args = {};
    blob_buf_init(&args, 0);
    blobmsg_add_string(&args, "name", "x");
    ubus_request call;
    ubus_notify_request note;
    if (ubus_invoke_async(&ctx, 0x200, "get", args.head, &call) == 0) {
        call.data_cb = [](ubus_request *, int, blob_attr *msg) { read_args(msg); };
        ubus_complete_request_async(&ctx, &call);
    }
    if (ubus_notify_async(&ctx, &obj, "changed", args.head, &note) == 0)
        ubus_complete_request_async(&ctx, &note.req);

    read_stream(in, [&](std::vector<uint8_t> &bytes) {
        ubus_wire::msg m;
        if (!ubus_wire::decode(bytes.data(), bytes.size(), &m) || m.version != 0)
            return;
        if (m.type == UBUS_MSG_STATUS || m.type == UBUS_MSG_DATA)
            ubus_process_req_msg(&ctx, m, -1);
        else if (m.type == UBUS_MSG_INVOKE || m.type == UBUS_MSG_UNSUBSCRIBE || m.type == UBUS_MSG_NOTIFY)
            ubus_process_obj_msg(&ctx, m, -1);
    });

    // What the client answered is a run of well-formed messages.
    std::vector<uint8_t> sent;
    uint8_t buf[4096];
    for (ssize_t n; (n = read(fd[1], buf, sizeof(buf))) > 0;)
        sent.insert(sent.end(), buf, buf + n);
    std::vector<uint8_t> copy;
    ubus_wire::msg m;
    for (size_t pos = 0, len; pos < sent.size(); pos += len) {
        len = sent.size() - pos >= ubus_wire::min_len ? ubus_wire::frame_len(sent.data() + pos) : 0;
        FUZZ_CHECK(len && len <= sent.size() - pos);
        check_sent(sent.data() + pos, len, copy, m);
    }
    blob_buf_free(&args);
    blob_buf_free(&ctx.priv->b);
    blob_buf_free(&ctx.priv->b2);
    delete ctx.priv;
}

// --- broker -------------------------------------------------------------------

struct checking_transport : ubusd::transport {
    std::vector<uint32_t> ids; // clients and objects the broker named
    void send(uint32_t, const uint8_t *msg, size_t len, int fd) override
    {
        if (fd >= 0)
            close(fd);
        std::vector<uint8_t> copy;
        ubus_wire::msg m;
        check_sent(msg, len, copy, m);
        if (m.attr[UBUS_ATTR_OBJID] && ids.size() < 64)
            ids.push_back(ubus_wire::get_u32(m.attr[UBUS_ATTR_OBJID]));
    }
    // Ids 16..31 name what the broker handed out; the id at p rewritten.
    void name_known(uint8_t *p, uint32_t v) const
    {
        const uint32_t be = htonl(v >= 16 && v < 32 ? ids[(v - 16) % ids.size()] : v);
        std::memcpy(p, &be, sizeof(be));
    }
};

void broker(fuzz::input &in, bool guest)
{
    checking_transport out;
    ubusd::broker core(out);
    ubusd::credentials root, user;
    root.user = root.group = "root";
    user.uid = user.gid = 1000;
    user.user = user.group = "guest";
    const uint32_t a = core.connect(root), b = core.connect(user);
    core.hello(a);
    core.hello(b);
    out.ids.insert(out.ids.begin(), {a, b});

    read_stream(in, [&](std::vector<uint8_t> &bytes) {
        ubus_wire::msg m;
        if (ubus_wire::decode(bytes.data(), bytes.size(), &m)) {
            out.name_known(bytes.data() + 4, m.peer);
            for (int attr : {UBUS_ATTR_OBJID, UBUS_ATTR_TARGET})
                if (m.attr[attr])
                    out.name_known(static_cast<uint8_t *>(blob_data(m.attr[attr])), ubus_wire::get_u32(m.attr[attr]));
        }
        core.receive(guest ? b : a, bytes.data(), bytes.size(), -1);
    });
    core.disconnect(b);
    core.disconnect(a);
    FUZZ_CHECK(core.client_count() == 0 && core.object_count() == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto in = fuzz::split(data, size, true);
    if (in && (in->mode & 0x01))
        broker(*in, in->mode & 0x02);
    else if (in)
        client(*in);
    return 0;
}
