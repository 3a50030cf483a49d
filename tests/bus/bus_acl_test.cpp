// Access lists across processes: the broker runs as root with an ACL
// directory, and a forked child switches to nobody/nogroup before it
// connects: the broker must judge it by the credentials of its socket. The
// rules themselves are tested in-process (broker_test).
#include "bus_fixture.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace bus_test
{
namespace
{

class BusAcl : public BusFixture
{
  protected:
    void SetUp() override
    {
        struct passwd *pw = getpwnam("nobody");
        struct group *gr = getgrnam("nogroup");
        if (geteuid() != 0 || !pw || !gr)
            GTEST_SKIP() << "switching to nobody/nogroup needs root and both names";
        uid = pw->pw_uid;
        gid = gr->gr_gid;
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0) << "nobody must reach the socket";
        acl = dir.path() + "/acl.d";
        ASSERT_EQ(mkdir(acl.c_str(), 0755), 0);
        std::ofstream(acl + "/nobody.json") << R"({"user": "nobody", "access": {"test": {"methods": ["whoami"]}}})";
        broker_args = {"-A", acl};
        BusFixture::SetUp();
    }

    // Calls test.<method> as nobody:nogroup from a child with its own bus
    // connection: "<status> <reply>".
    std::string call_as_nobody(const char *method)
    {
        int p[2];
        if (pipe(p) < 0)
            return "pipe failed";
        pid_t pid = fork();
        if (pid == 0) {
            std::string r = "cannot switch user or connect";
            struct ubus_context *c = nullptr;
            if (!setgroups(0, nullptr) && !setgid(gid) && !setuid(uid) && (c = ubus_connect(sock.c_str()))) {
                blob_buf_init(&b, 0);
                int st = ubus_invoke(
                    c, test_id, method, b.head,
                    [](struct ubus_request *req, int, struct blob_attr *msg) {
                        *static_cast<std::string *>(req->priv) = json_of(msg);
                    },
                    &r, 3000);
                r = std::to_string(st) + " " + (st ? "" : r);
                ubus_free(c);
            }
            _exit(write(p[1], r.data(), r.size()) == (ssize_t)r.size() ? 0 : 1);
        }
        close(p[1]);
        char buf[256];
        ssize_t n = read(p[0], buf, sizeof(buf));
        close(p[0]);
        waitpid(pid, nullptr, 0);
        return std::string(buf, n > 0 ? n : 0);
    }

    std::string acl;
    uid_t uid = 0;
    gid_t gid = 0;
};

TEST_F(BusAcl, TheCallersSocketCredentialsDecideAndReloadsTakeEffect)
{
    EXPECT_EQ(call_as_nobody("whoami"), R"(0 {"user":"nobody","object":"test"})");
    EXPECT_EQ(call_as_nobody("echo"), "6 ");
    blob_buf_init(&b, 0);
    EXPECT_EQ(ubus_invoke(ctx, test_id, "echo", b.head, nullptr, nullptr, 3000), 0) << "root is not restricted";

    // SIGHUP reloads the directory.
    ASSERT_EQ(unlink((acl + "/nobody.json").c_str()), 0);
    kill(broker->pid(), SIGHUP);
    EXPECT_TRUE(wait_until(3000, [&] { return call_as_nobody("whoami") == "6 "; }));
}

} // namespace
} // namespace bus_test
