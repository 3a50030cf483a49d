#include "core/network_manager.h"

#include "wwan/ubox.h"
#include <libubus.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"

namespace {

using lines = std::vector<std::string>;

constexpr const char *iface_prefix = "network.interface.";

struct service_setup {
    const char *dump;    // reply of "dump" as JSON; null: no "network.interface"
    int dump_status;     // status of "dump" after its reply
    lines objects;       // "network.interface.<name>" objects
    lines failing = {};  // those whose "up"/"down" answer an error
};

// The interface service in a child process (a synchronous call cannot be
// served by the caller's own connection). Each call is reported as a line
// ("dump", "down wan") on a pipe before it is answered; a name written to the
// command pipe removes that interface's object.
class fake_service {
public:
    fake_service(const std::string &socket, const service_setup &setup)
    {
        int report[2], command[2];
        if (pipe2(report, O_CLOEXEC) || pipe2(command, O_CLOEXEC))
            return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(report[0]);
            close(command[1]);
            report_fd = report[1];
            setup_ = &setup;
            _exit(serve(socket, command[0]));
        }
        close(report[1]);
        close(command[0]);
        report_ = report[0];
        command_ = command[1];
    }
    ~fake_service()
    {
        close(command_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(report_);
    }

    bool ready() { return next_line(5000) == "ready"; }
    // The calls reported since the last look.
    lines calls()
    {
        lines out;
        for (std::string l; !(l = next_line(0)).empty();)
            out.push_back(l);
        return out;
    }
    bool remove(const std::string &name)
    {
        std::string cmd = name + "\n";
        return write(command_, cmd.data(), cmd.size()) == static_cast<ssize_t>(cmd.size()) &&
               next_line(5000) == "removed " + name;
    }

private:
    std::string next_line(int timeout_ms) { return test_support::read_line(report_, buf_, timeout_ms); }

    // ---- the child's side ----
    struct served_object {
        std::string name;
        ubus_object_type type{};
        ubus_object obj{};
    };
    static inline int report_fd;
    static inline const service_setup *setup_;

    static void report(const std::string &line)
    {
        std::string l = line + "\n";
        (void)!write(report_fd, l.data(), l.size());
    }

    static int dump_cb(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
    {
        report("dump");
        blob_buf b{};
        blob_buf_init(&b, 0);
        blobmsg_add_json_from_string(&b, setup_->dump);
        ubus_send_reply(ctx, req, b.head);
        blob_buf_free(&b);
        return setup_->dump_status;
    }

    static int updown_cb(ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *)
    {
        std::string name = obj->name + std::strlen(iface_prefix);
        report(std::string(method) + " " + name);
        auto &f = setup_->failing;
        return std::find(f.begin(), f.end(), name) != f.end() ? UBUS_STATUS_UNKNOWN_ERROR : 0;
    }

    static int serve(const std::string &socket, int command_in)
    {
        static const ubus_method dump_methods[] = {UBUS_METHOD_NOARG("dump", dump_cb)};
        static const ubus_method iface_methods[] = {UBUS_METHOD_NOARG("up", updown_cb),
                                                    UBUS_METHOD_NOARG("down", updown_cb)};
        ubus_context *ctx = ubus_connect(socket.c_str());
        if (!ctx)
            return 1;
        std::vector<std::unique_ptr<served_object>> objects;
        auto publish = [&](std::string name, const ubus_method *methods, int n) {
            auto &o = objects.emplace_back(std::make_unique<served_object>());
            o->name = std::move(name);
            o->type = {o->name.c_str(), 0, methods, n};
            o->obj.name = o->name.c_str();
            o->obj.type = &o->type;
            o->obj.methods = methods;
            o->obj.n_methods = n;
            return ubus_add_object(ctx, &o->obj) == 0;
        };
        if (setup_->dump && !publish("network.interface", dump_methods, 1))
            return 1;
        for (const std::string &name : setup_->objects)
            if (!publish(iface_prefix + name, iface_methods, 2))
                return 1;
        report("ready");

        std::string pending;
        for (;;) {
            pollfd p[2] = {{ctx->sock.fd, POLLIN, 0}, {command_in, POLLIN, 0}};
            if (poll(p, 2, -1) < 0)
                return 1;
            if (p[0].revents)
                ubus_handle_event(ctx);
            if (!p[1].revents)
                continue;
            char tmp[256];
            ssize_t n = read(command_in, tmp, sizeof(tmp));
            if (n <= 0)
                return 0; // the test is done with us
            pending.append(tmp, static_cast<size_t>(n));
            for (size_t nl; (nl = pending.find('\n')) != std::string::npos; pending.erase(0, nl + 1)) {
                std::string name = pending.substr(0, nl);
                for (auto &o : objects)
                    if (o->name == iface_prefix + name)
                        ubus_remove_object(ctx, &o->obj);
                report("removed " + name);
            }
        }
    }

    pid_t pid_ = -1;
    int report_ = -1;
    int command_ = -1;
    std::string buf_;
};

// The broker (wwan-busd) on a socket in a temporary directory.
class NetworkInterfaces : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/wwan-net-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        sock = dir + "/ubus.sock";
        broker = test_support::start_broker(WWAN_BUSD, sock);
        int fd = usock(USOCK_UNIX, sock.c_str(), nullptr);
        ASSERT_GE(fd, 0) << "broker did not start";
        close(fd);
    }
    void TearDown() override
    {
        service.reset();
        if (ctx)
            ubus_free(ctx);
        ctx = nullptr;
        uloop_done();
        test_support::stop_process(broker);
        std::filesystem::remove_all(dir);
    }
    // The interface service first, then the daemon's connection.
    void start(const service_setup &setup)
    {
        service = std::make_unique<fake_service>(sock, setup);
        ASSERT_TRUE(service->ready());
        ctx = ubus_connect(sock.c_str());
        ASSERT_NE(ctx, nullptr);
    }

    std::string dir, sock;
    pid_t broker = -1;
    std::unique_ptr<fake_service> service;
    ubus_context *ctx = nullptr;
};

// A dump as the interface service gives it, with entries of other modems,
// interfaces that are down and entries lacking a field or of the wrong type.
const char *mixed_dump = R"({"interface":[
    {"interface":"mob1s1a1","up":true,"uptime":12,"modem":"1-1"},
    {"interface":"lan","up":true,"uptime":99},
    {"interface":"mob1s1a1_4","up":true,"modem":"1-1"},
    {"interface":"mob1s2a1","up":false,"modem":"1-1"},
    {"interface":"mob2s1a1","up":true,"modem":"2-1"},
    {"interface":"mob1s1a1x","up":true,"modem":"1-1.1"},
    {"interface":"noup","modem":"1-1"},
    {"up":true,"modem":"1-1"},
    {"interface":"numup","up":1,"modem":"1-1"},
    {"interface":7,"up":true,"modem":"1-1"},
    "mob1s1a1"]})";

const lines all_objects = {"mob1s1a1", "lan", "mob1s1a1_4", "mob1s2a1", "mob2s1a1", "mob1s1a1x"};

TEST_F(NetworkInterfaces, DownTakesTheModemsUpInterfacesAndUpRestoresThem)
{
    ASSERT_NO_FATAL_FAILURE(start({mixed_dump, 0, all_objects}));
    op_scan_storage list("1-1");
    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_DOWN), 0);
    EXPECT_EQ(service->calls(), (lines{"dump", "down mob1s1a1", "down mob1s1a1_4"}));

    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_UP), 0);
    EXPECT_EQ(service->calls(), (lines{"up mob1s1a1", "up mob1s1a1_4"}));
}

TEST_F(NetworkInterfaces, NothingOfTheModemUpMeansNoCalls)
{
    ASSERT_NO_FATAL_FAILURE(start({mixed_dump, 0, all_objects}));
    op_scan_storage list("3-1");
    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_DOWN), 0);
    EXPECT_EQ(service->calls(), (lines{"dump"}));
    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_UP), 0);
    EXPECT_EQ(service->calls(), lines{});
}

TEST_F(NetworkInterfaces, InterfaceRemovedBeforeUp)
{
    ASSERT_NO_FATAL_FAILURE(start({mixed_dump, 0, all_objects}));
    op_scan_storage list("1-1");
    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_DOWN), 0);
    service->calls();
    ASSERT_TRUE(service->remove("mob1s1a1"));
    EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_UP), IFACE_NOT_FOUND);
    EXPECT_EQ(service->calls(), (lines{"up mob1s1a1_4"}));
}

TEST_F(NetworkInterfaces, FailuresAccumulateAndAFailedDumpStopsAtOnce)
{
    const char *three_up = R"({"interface":[{"interface":"a","up":true,"modem":"1-1"},
        {"interface":"b","up":true,"modem":"1-1"},{"interface":"c","up":true,"modem":"1-1"}]})";
    const struct {
        const char *what;
        service_setup setup;
        int ret;
        lines calls;
    } cases[] = {
        {"an interface without object", {three_up, 0, {"a", "c"}}, IFACE_NOT_FOUND, {"dump", "down a", "down c"}},
        {"a call that fails", {three_up, 0, {"a", "b", "c"}, {"b"}}, IFACE_CALL_FAILED,
         {"dump", "down a", "down b", "down c"}},
        {"both", {three_up, 0, {"a", "b"}, {"a"}}, IFACE_CALL_FAILED | IFACE_NOT_FOUND, {"dump", "down a", "down b"}},
        {"no interface service", {nullptr, 0, {"a", "b", "c"}}, 1, {}},
        {"dump answers with an error", {three_up, UBUS_STATUS_UNKNOWN_ERROR, {"a", "b", "c"}}, 1, {"dump"}},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        ASSERT_NO_FATAL_FAILURE(start(c.setup));
        op_scan_storage list("1-1");
        EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_DOWN), c.ret);
        EXPECT_EQ(service->calls(), c.calls);
    }
}

} // namespace
