// wwan-bus: command-line bus client with the verbs, output and exit codes of
// the stock ubus tool.
#include <libubus.h>
#include "wwan/ubox.h"

#include "util/root_path.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// Replies nested deeper than this are not printed: a broker or object can
// send anything, and printing walks every level.
constexpr int max_depth = 32;

struct blob_buf b;
int timeout = 30;
bool timeout_given;
bool simple_output;
int verbose;

std::string default_socket()
{
	return wwan_path(wwan_ubus_socket);
}

const char *type_name(int type)
{
	switch (type) {
	case BLOBMSG_TYPE_STRING:
		return "String";
	case BLOBMSG_TYPE_INT32:
		return "Integer";
	case BLOBMSG_TYPE_BOOL:
		return "Boolean";
	case BLOBMSG_TYPE_ARRAY:
		return "Array";
	case BLOBMSG_TYPE_TABLE:
		return "Table";
	default:
		return "(unknown)";
	}
}

// Calls fn for each attribute in [p, p + len) that lies wholly inside; the
// walk ends at the first that does not.
template <class F>
void for_each_within(const void *p, size_t len, F &&fn)
{
	auto *pos = static_cast<const uint8_t *>(p);
	while (len >= sizeof(struct blob_attr)) {
		auto *a = reinterpret_cast<const struct blob_attr *>(pos);
		size_t pad = blob_pad_len(a);
		if (blob_raw_len(a) < sizeof(struct blob_attr) || pad > len)
			return;
		fn(a);
		pos += pad;
		len -= pad;
	}
}

// A named blobmsg attribute of type, consistent within its own length.
bool named(const struct blob_attr *a, int type)
{
	return blob_is_extended(a) && blobmsg_type(a) == type && blobmsg_check_attr(a, true);
}

// Whether the members [p, p + len) nest no deeper than max_depth - depth
// more levels; members that are not valid attributes are not entered (the
// formatter skips them).
bool depth_ok(const void *p, size_t len, int depth)
{
	bool ok = true;
	for_each_within(p, len, [&](const struct blob_attr *a) {
		if (!ok || !blob_is_extended(a) || !blobmsg_check_attr(a, false))
			return;
		if (blobmsg_type(a) != BLOBMSG_TYPE_ARRAY && blobmsg_type(a) != BLOBMSG_TYPE_TABLE)
			return;
		ok = depth < max_depth && depth_ok(blobmsg_data(a), blobmsg_data_len(a), depth + 1);
	});
	return ok;
}

bool printable(const struct blob_attr *msg)
{
	return depth_ok(blob_data(msg), blob_len(msg), 0);
}

// Methods are named tables of named INT32 argument types; entries of any
// other shape are left out.
void print_signature(const struct blob_attr *sig)
{
	for_each_within(blob_data(sig), blob_len(sig), [](const struct blob_attr *method) {
		if (!named(method, BLOBMSG_TYPE_TABLE))
			return;
		std::string s = "{";
		bool first = true;
		for_each_within(blobmsg_data(method), blobmsg_data_len(method), [&](const struct blob_attr *arg) {
			if (!named(arg, BLOBMSG_TYPE_INT32))
				return;
			if (!first)
				s += ",";
			first = false;
			s += "\"";
			s += blobmsg_name(arg);
			s += "\":\"";
			s += type_name(blobmsg_get_u32(const_cast<struct blob_attr *>(arg)));
			s += "\"";
		});
		s += "}";
		printf("\t\"%s\":%s\n", blobmsg_name(method), s.c_str());
	});
}

void receive_list_result(struct ubus_context *, struct ubus_object_data *obj, void *)
{
	if (simple_output || !verbose) {
		printf("%s\n", obj->path);
		return;
	}
	printf("'%s' @%08x\n", obj->path, obj->id);
	if (obj->signature)
		print_signature(obj->signature);
}

int cli_list(struct ubus_context *ctx, int argc, char **argv)
{
	if (argc > 1)
		return -2;
	return ubus_lookup(ctx, argc ? argv[0] : nullptr, receive_list_result, nullptr);
}

bool reply_refused;

void receive_call_result_data(struct ubus_request *, int, struct blob_attr *msg)
{
	if (!msg)
		return;
	if (!printable(msg)) {
		reply_refused = true;
		return;
	}
	char *str = blobmsg_format_json_indent(msg, true, simple_output ? -1 : 0);
	if (str)
		printf("%s\n", str);
	free(str);
}

int cli_call(struct ubus_context *ctx, int argc, char **argv)
{
	if (argc < 2 || argc > 3)
		return -2;
	blob_buf_init(&b, 0);
	if (argc == 3 && !blobmsg_add_json_from_string(&b, argv[2]))
		return UBUS_STATUS_PARSE_ERROR;

	uint32_t id;
	int ret = ubus_lookup_id(ctx, argv[0], &id);
	if (ret)
		return ret;
	ret = ubus_invoke(ctx, id, argv[1], b.head, receive_call_result_data, nullptr, timeout * 1000);
	if (!ret && reply_refused)
		ret = UBUS_STATUS_PARSE_ERROR;
	if (ret && !simple_output && !isatty(fileno(stderr))) {
		// Scripts get the whole command line in the message.
		fprintf(stderr, "Command failed: ubus call");
		for (int i = 0; i < argc; i++)
			fprintf(stderr, " %s", argv[i]);
		fprintf(stderr, " (%s)\n", ubus_strerror(ret));
		return -ret;
	}
	return ret;
}

void end_cb(struct uloop_timeout *)
{
	uloop_end();
}

// listen and subscribe run until interrupted, or for -t seconds if given.
void run_listener(struct ubus_context *ctx)
{
	struct uloop_timeout t = {};
	t.cb = end_cb;
	uloop_init();
	ubus_add_uloop(ctx);
	if (timeout_given)
		uloop_timeout_set(&t, timeout * 1000);
	uloop_run();
	uloop_timeout_cancel(&t);
	uloop_done();
}

void receive_event(struct ubus_context *, struct ubus_event_handler *, const char *type,
		   struct blob_attr *msg)
{
	if (!printable(msg))
		return;
	char *str = blobmsg_format_json(msg, true);
	printf("{ \"%s\": %s }\n", type, str ? str : "");
	fflush(stdout);
	free(str);
}

int cli_listen(struct ubus_context *ctx, int argc, char **argv)
{
	struct ubus_event_handler ev = {};
	ev.cb = receive_event;
	const char *fallback[] = {"*"};
	if (argc == 0) {
		argv = const_cast<char **>(fallback);
		argc = 1;
	}
	for (int i = 0; i < argc; i++) {
		int ret = ubus_register_event_handler(ctx, &ev, argv[i]);
		if (ret) {
			if (!simple_output)
				fprintf(stderr, "Error while registering for event '%s': %s\n", argv[i],
					ubus_strerror(ret));
			return -1;
		}
	}
	run_listener(ctx);
	return 0;
}

int receive_request(struct ubus_context *, struct ubus_object *, struct ubus_request_data *,
		    const char *method, struct blob_attr *msg)
{
	if (!printable(msg))
		return UBUS_STATUS_PARSE_ERROR;
	char *str = blobmsg_format_json(msg, true);
	printf("{ \"%s\": %s }\n", method, str ? str : "");
	fflush(stdout);
	free(str);
	return 0;
}

int cli_subscribe(struct ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1)
		return -2;
	struct ubus_subscriber sub = {};
	sub.cb = receive_request;
	int ret = ubus_register_subscriber(ctx, &sub);
	int i = 0;
	for (; !ret && i < argc; i++) {
		uint32_t id;
		ret = ubus_lookup_id(ctx, argv[i], &id);
		if (!ret)
			ret = ubus_subscribe(ctx, &sub, id);
		if (ret)
			break;
	}
	if (ret) {
		if (!simple_output)
			fprintf(stderr, "Error while registering for event '%s': %s\n",
				argv[i < argc ? i : 0], ubus_strerror(ret));
		return -1;
	}
	run_listener(ctx);
	return 0;
}

int cli_send(struct ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1 || argc > 2)
		return -2;
	blob_buf_init(&b, 0);
	if (argc == 2 && !blobmsg_add_json_from_string(&b, argv[1]))
		return UBUS_STATUS_PARSE_ERROR;
	return ubus_send_event(ctx, argv[0], b.head);
}

struct wait_data {
	struct uloop_timeout timeout;
	struct ubus_event_handler ev;
	std::vector<std::string> pending;
};

wait_data *waiting;

void wait_check_object(const char *path)
{
	auto &p = waiting->pending;
	for (auto it = p.begin(); it != p.end();)
		it = *it == path ? p.erase(it) : it + 1;
	if (p.empty())
		uloop_end();
}

void wait_event_cb(struct ubus_context *, struct ubus_event_handler *, const char *,
		   struct blob_attr *msg)
{
	static const struct blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
	struct blob_attr *attr;
	blobmsg_parse(&policy, 1, &attr, blob_data(msg), blob_len(msg));
	if (attr)
		wait_check_object(blobmsg_get_string(attr));
}

void wait_list_cb(struct ubus_context *, struct ubus_object_data *obj, void *)
{
	wait_check_object(obj->path);
}

int cli_wait_for(struct ubus_context *ctx, int argc, char **argv)
{
	if (argc < 1)
		return -2;
	wait_data data = {};
	data.timeout.cb = end_cb;
	data.ev.cb = wait_event_cb;
	data.pending.assign(argv, argv + argc);
	waiting = &data;

	uloop_init();
	ubus_add_uloop(ctx);
	int ret = ubus_register_event_handler(ctx, &data.ev, "ubus.object.add");
	if (ret)
		return ret;
	// A broker may answer the listing of an empty bus with "not found".
	ret = ubus_lookup(ctx, nullptr, wait_list_cb, nullptr);
	if (ret && ret != UBUS_STATUS_NOT_FOUND)
		return ret;
	if (!data.pending.empty()) {
		uloop_timeout_set(&data.timeout, timeout * 1000);
		uloop_run();
		uloop_timeout_cancel(&data.timeout);
	}
	uloop_done();
	return data.pending.empty() ? 0 : UBUS_STATUS_TIMEOUT;
}

int usage(const char *prog)
{
	fprintf(stderr,
		"Usage: %s [<options>] <command> [arguments...]\n"
		"Options:\n"
		" -s <socket>:\t\tSet the unix domain socket to connect to\n"
		" -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
		" -S:\t\t\tUse simplified output (for scripts)\n"
		" -v:\t\t\tMore verbose output\n"
		"\n"
		"Commands:\n"
		" - list [<path>]\t\t\tList objects\n"
		" - call <path> <method> [<message>]\tCall an object method\n"
		" - subscribe <path> [<path>...]\tSubscribe to object(s) notifications\n"
		" - listen [<path>...]\t\t\tListen for events\n"
		" - send <type> [<message>]\t\tSend an event\n"
		" - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
		"\n", prog);
	return 1;
}

struct command {
	const char *name;
	int (*cb)(struct ubus_context *ctx, int argc, char **argv);
};

const command commands[] = {
	{"list", cli_list},
	{"call", cli_call},
	{"subscribe", cli_subscribe},
	{"listen", cli_listen},
	{"send", cli_send},
	{"wait_for", cli_wait_for},
};

} // namespace

int main(int argc, char **argv)
{
	const char *progname = argv[0];
	std::string socket = default_socket();
	int ch;
	while ((ch = getopt(argc, argv, "vs:t:S")) != -1) {
		switch (ch) {
		case 's':
			socket = optarg;
			break;
		case 't':
			timeout = atoi(optarg);
			timeout_given = true;
			break;
		case 'S':
			simple_output = true;
			break;
		case 'v':
			verbose++;
			break;
		default:
			return usage(progname);
		}
	}
	argc -= optind;
	argv += optind;
	if (argc < 1)
		return usage(progname);
	const char *cmd = argv[0];

	struct ubus_context *ctx = ubus_connect(socket.c_str());
	if (!ctx) {
		if (!simple_output)
			fprintf(stderr, "Failed to connect to ubus\n");
		return -1;
	}
	argv++;
	argc--;

	int ret = -2;
	for (const auto &c : commands) {
		if (!strcmp(c.name, cmd)) {
			ret = c.cb(ctx, argc, argv);
			break;
		}
	}
	if (ret > 0 && !simple_output)
		fprintf(stderr, "Command failed: %s\n", ubus_strerror(ret));
	else if (ret == -2)
		usage(progname);

	ubus_free(ctx);
	blob_buf_free(&b);
	return ret;
}
