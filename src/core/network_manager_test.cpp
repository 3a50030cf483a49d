#include "core/network_manager.h"

#include "wwan/ubox.h"
#include <libubus.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process_test_support.h"
#include "util/root_test_support.h"

namespace
{

using lines = std::vector<std::string>;

constexpr const char *iface_prefix = "network.interface.";

struct service_setup {
    const char *dump;   // reply of "dump" as JSON; null: no "network.interface"
    int dump_status;    // status of "dump" after its reply
    lines objects;      // "network.interface.<name>" objects
    lines failing = {}; // those whose "up"/"down" answer an error
};

// The interface service in a child process (a synchronous call cannot be
// served by the caller's own connection). Each call is reported as a line
// ("dump", "down wan") on a pipe before it is answered.
class fake_service
{
  public:
    fake_service(const std::string &socket, const service_setup &setup)
    {
        int report[2];
        if (pipe2(report, O_CLOEXEC))
            return;
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(report[0]);
            report_fd = report[1];
            setup_ = &setup;
            _exit(serve(socket));
        }
        close(report[1]);
        report_ = report[0];
    }
    ~fake_service()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL); // its loop never looks for a stop request
            waitpid(pid_, nullptr, 0);
        }
        close(report_);
    }

    bool ready() { return test_support::read_line(report_, buf_, 5000) == "ready"; }
    // The calls reported since the last look, joined by commas.
    std::string calls()
    {
        std::string out;
        for (std::string l; !(l = test_support::read_line(report_, buf_, 0)).empty();)
            out += (out.empty() ? "" : ",") + l;
        return out;
    }

  private:
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

    static int serve(const std::string &socket)
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
        for (;;) {
            pollfd p = {ctx->sock.fd, POLLIN, 0};
            if (poll(&p, 1, -1) < 0)
                return 1;
            ubus_handle_event(ctx);
        }
    }

    pid_t pid_ = -1;
    int report_ = -1;
    std::string buf_;
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
const char *three_up = R"({"interface":[{"interface":"a","up":true,"modem":"1-1"},
    {"interface":"b","up":true,"modem":"1-1"},{"interface":"c","up":true,"modem":"1-1"}]})";

// Down takes the modem's interfaces that are up and remembers them; up
// brings back those still there (the service is started again without the
// removed ones). Failures accumulate; a failed dump stops at once.
TEST(NetworkInterfaces, DownAndUpAgain)
{
    if (access(WWAN_BUSD, X_OK) != 0)
        GTEST_SKIP() << "wwan-busd is not built";
    const lines all = {"mob1s1a1", "lan", "mob1s1a1_4", "mob1s2a1", "mob2s1a1", "mob1s1a1x"};
    const lines after_removal = {"mob1s1a1_4"};
    const lines abc = {"a", "b", "c"};
    const struct {
        const char *what;
        service_setup setup;
        const char *modem;
        int down_ret;
        const char *down_calls;
        const lines *up_objects = nullptr; // null: up is not tried
        int up_ret = 0;
        const char *up_calls = "";
    } cases[] = {
        {"the modem's up interfaces",
         {mixed_dump, 0, all},
         "1-1",
         0,
         "dump,down mob1s1a1,down mob1s1a1_4",
         &all,
         0,
         "up mob1s1a1,up mob1s1a1_4"},
        {"nothing of the modem up", {mixed_dump, 0, all}, "3-1", 0, "dump", &all, 0, ""},
        {"interface removed before up",
         {mixed_dump, 0, all},
         "1-1",
         0,
         "dump,down mob1s1a1,down mob1s1a1_4",
         &after_removal,
         IFACE_NOT_FOUND,
         "up mob1s1a1_4"},
        {"an interface without object", {three_up, 0, {"a", "c"}}, "1-1", IFACE_NOT_FOUND, "dump,down a,down c"},
        {"a call that fails", {three_up, 0, abc, {"b"}}, "1-1", IFACE_CALL_FAILED, "dump,down a,down b,down c"},
        {"both", {three_up, 0, {"a", "b"}, {"a"}}, "1-1", IFACE_CALL_FAILED | IFACE_NOT_FOUND, "dump,down a,down b"},
        {"no interface service", {nullptr, 0, abc}, "1-1", 1, ""},
        {"dump answers with an error", {three_up, UBUS_STATUS_UNKNOWN_ERROR, abc}, "1-1", 1, "dump"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        temp_root root;
        std::string sock = root.path() + "/ubus.sock";
        pid_t broker = test_support::start_broker(WWAN_BUSD, sock);
        auto service = std::make_unique<fake_service>(sock, c.setup);
        ASSERT_TRUE(service->ready());
        ubus_context *ctx = ubus_connect(sock.c_str());
        ASSERT_NE(ctx, nullptr);
        op_scan_storage list(c.modem);
        EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_DOWN), c.down_ret);
        EXPECT_EQ(service->calls(), c.down_calls);
        if (c.up_objects) {
            service.reset();
            uint32_t id;
            while (ubus_lookup_id(ctx, "network.interface.mob1s1a1_4", &id) == 0) {
            } // until the broker saw the service go
            service_setup again{nullptr, 0, *c.up_objects};
            service = std::make_unique<fake_service>(sock, again);
            ASSERT_TRUE(service->ready());
            EXPECT_EQ(modem_interface_action(ctx, list, IFACE_ACTION_UP), c.up_ret);
            EXPECT_EQ(service->calls(), c.up_calls);
        }
        service.reset();
        ubus_free(ctx);
        test_support::stop_process(broker);
    }
}

} // namespace
