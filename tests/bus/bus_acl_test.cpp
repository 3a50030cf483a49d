// Access lists across processes: the broker runs as root with an ACL
// directory, the test peer publishes "test" and "test.other", and a forked
// child switches to nobody/nogroup before it connects.
#include "bus_fixture.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace bus_test {
namespace {

// What nobody may do; the two files after it grant everything but are not
// to be trusted (owned by nobody; writable by the group).
const char *nobody_acl = R"({
	"user": "nobody",
	"access": {"test": {"methods": ["echo", "whoami"]}},
	"publish": ["nobody.*"],
	"subscribe": ["test"],
	"listen": ["peer.*"],
	"send": ["nobody.*"]
})";
const char *everything_acl = R"({
	"user": "nobody",
	"access": {"*": {"methods": ["*"]}},
	"publish": ["*"], "subscribe": ["*"], "listen": ["*"], "send": ["*"]
})";

class BusAcl : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (geteuid() != 0)
			GTEST_SKIP() << "switching to another user needs root";
		struct passwd *pw = getpwnam("nobody");
		struct group *gr = getgrnam("nogroup");
		if (!pw || !gr)
			GTEST_SKIP() << "no nobody/nogroup on this system";
		uid = pw->pw_uid;
		gid = gr->gr_gid;
		// nobody must reach the socket.
		ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
		acl_dir = dir.path() + "/acl.d";
		ASSERT_EQ(mkdir(acl_dir.c_str(), 0755), 0);
		write_acl("nobody.json", nobody_acl, 0644);
		write_acl("everything.json", everything_acl, 0644);
		ASSERT_EQ(chown((acl_dir + "/everything.json").c_str(), uid, gid), 0);
		write_acl("writable.json", everything_acl, 0664);

		sock = dir.path() + "/ubus.sock";
		broker = start_broker(sock, {"-A", acl_dir});
		ASSERT_TRUE(broker);
		peer = start_peer(sock);
		ASSERT_TRUE(peer);
		ctx = ubus_connect(sock.c_str());
		ASSERT_NE(ctx, nullptr);
		ASSERT_EQ(ubus_lookup_id(ctx, "test", &test_id), 0);
		ASSERT_EQ(ubus_lookup_id(ctx, "test.other", &other_id), 0);
	}

	void TearDown() override
	{
		if (ctx)
			ubus_free(ctx);
		uloop_done();
		if (peer && peer->running()) {
			EXPECT_EQ(peer->stop(SIGTERM), 0);
		}
		if (broker && broker->running()) {
			EXPECT_EQ(broker->stop(SIGTERM), 0);
		}
	}

	void write_acl(const std::string &name, const char *text, mode_t mode)
	{
		std::string path = acl_dir + "/" + name;
		std::ofstream(path) << text;
		ASSERT_EQ(chmod(path.c_str(), mode), 0);
	}

	// Runs fn in a child as nobody:nogroup with its own bus connection and
	// returns what it reported.
	std::string as_nobody(const std::function<std::string(struct ubus_context *)> &fn)
	{
		int p[2];
		if (pipe(p) < 0)
			return "pipe failed";
		pid_t pid = fork();
		if (pid == 0) {
			close(p[0]);
			std::string r;
			if (setgroups(0, nullptr) || setgid(gid) || setuid(uid)) {
				r = "cannot switch user";
			} else if (struct ubus_context *c = ubus_connect(sock.c_str())) {
				r = fn(c);
				ubus_free(c);
			} else {
				r = "cannot connect";
			}
			ssize_t n = write(p[1], r.data(), r.size());
			_exit(n == (ssize_t)r.size() ? 0 : 1);
		}
		close(p[1]);
		std::string r;
		char buf[1024];
		ssize_t n;
		while ((n = read(p[0], buf, sizeof(buf))) > 0)
			r.append(buf, n);
		close(p[0]);
		int st;
		waitpid(pid, &st, 0);
		return r;
	}

	temp_dir dir;
	std::string sock, acl_dir;
	uid_t uid = 0;
	gid_t gid = 0;
	std::unique_ptr<process> broker, peer;
	struct ubus_context *ctx = nullptr;
	uint32_t test_id = 0, other_id = 0;
};

// "path:method,method path:..." as LOOKUP shows it.
std::string listing(struct ubus_context *c)
{
	std::string r;
	ubus_lookup(c, nullptr, [](struct ubus_context *, struct ubus_object_data *o, void *priv) {
		std::string &s = *static_cast<std::string *>(priv);
		s += s.empty() ? "" : " ";
		s += std::string(o->path) + ":";
		struct blob_attr *m;
		size_t rem;
		bool first = true;
		blob_for_each_attr(m, o->signature, rem) {
			s += first ? "" : ",";
			s += blobmsg_name(m);
			first = false;
		}
	}, &r);
	return r;
}

int call(struct ubus_context *c, uint32_t id, const char *method, std::string *reply = nullptr)
{
	struct blob_buf b = {};
	blob_buf_init(&b, 0);
	int r = ubus_invoke(c, id, method, b.head, [](struct ubus_request *req, int, struct blob_attr *msg) {
		if (req->priv)
			*static_cast<std::string *>(req->priv) = json_of(msg);
	}, reply, 3000);
	blob_buf_free(&b);
	return r;
}

TEST_F(BusAcl, NobodySeesAndCallsOnlyWhatItsFileGrants)
{
	uint32_t test = test_id, other = other_id;
	std::string r = as_nobody([&](struct ubus_context *c) {
		std::string out = "list=" + listing(c);
		uint32_t id = 0;
		out += " lookup_other=" + std::to_string(ubus_lookup_id(c, "test.other", &id)) +
		       (id ? "(id)" : "(no id)");
		std::string who;
		out += " echo=" + std::to_string(call(c, test, "echo"));
		out += " whoami=" + std::to_string(call(c, test, "whoami", &who)) + who;
		out += " typed=" + std::to_string(call(c, test, "typed"));
		out += " other.echo=" + std::to_string(call(c, other, "echo"));
		return out;
	});
	EXPECT_EQ(r, "list=test:echo,whoami lookup_other=0(no id) echo=0 whoami=0{\"user\":\"nobody\",\"object\":\"test\"}"
		     " typed=6 other.echo=6");
	EXPECT_EQ(call(ctx, other_id, "echo"), 0) << "root is not restricted";
}

TEST_F(BusAcl, WithoutAccessListsNobodyGetsNothingAndReloadsTakeEffect)
{
	// SIGHUP reloads; the reload is announced to listeners.
	struct ubus_event_handler ev = {};
	static int reloads;
	ev.cb = [](struct ubus_context *, struct ubus_event_handler *, const char *, struct blob_attr *) { reloads++; };
	ASSERT_EQ(ubus_register_event_handler(ctx, &ev, "ubus.acl.sequence"), 0);
	ubus_add_uloop(ctx);
	ASSERT_EQ(unlink((acl_dir + "/nobody.json").c_str()), 0);
	kill(broker->pid(), SIGHUP);
	ASSERT_TRUE(wait_until(3000, [] { return reloads == 1; }));

	uint32_t test = test_id;
	std::string r = as_nobody([&](struct ubus_context *c) {
		std::string out = "list=" + listing(c);
		out += " echo=" + std::to_string(call(c, test, "echo"));
		static const struct ubus_method methods[] = {{"m", nullptr, 0, 0, nullptr, 0}};
		static struct ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
		struct ubus_object o = {};
		o.name = "nobody.obj";
		o.type = &type;
		o.methods = methods;
		o.n_methods = 1;
		out += " publish=" + std::to_string(ubus_add_object(c, &o));
		struct ubus_event_handler h = {};
		out += " listen=" + std::to_string(ubus_register_event_handler(c, &h, "peer.x"));
		return out;
	});
	EXPECT_EQ(r, "list= echo=6 publish=2 listen=6");
}

} // namespace
} // namespace bus_test
