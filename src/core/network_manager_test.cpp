#include "core/network_manager.h"

#include "wwan/ubox.h"
#include <libubus.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <memory>
#include <poll.h>
#include <sstream>
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

// The interface service, run in a child process (a synchronous call cannot
// be served by the caller's own connection). Each call is reported as a line
// ("dump", "down wan") on a pipe before it is answered.
int g_report = -1;
const service_setup *g_setup;

void report(const std::string &line)
{
    std::string l = line + "\n";
    (void)!write(g_report, l.data(), l.size());
}

int dump_cb(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
    report("dump");
    blob_buf b{};
    blob_buf_init(&b, 0);
    blobmsg_add_json_from_string(&b, g_setup->dump);
    ubus_send_reply(ctx, req, b.head);
    blob_buf_free(&b);
    return g_setup->dump_status;
}

int updown_cb(ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *)
{
    std::string name = obj->name + std::strlen(iface_prefix);
    report(std::string(method) + " " + name);
    auto &f = g_setup->failing;
    return std::find(f.begin(), f.end(), name) != f.end() ? UBUS_STATUS_UNKNOWN_ERROR : 0;
}

struct served_object {
    std::string name;
    ubus_object_type type{};
    ubus_object obj{};
};

int serve(const std::string &socket)
{
    static const ubus_method dump_methods[] = {UBUS_METHOD_NOARG("dump", dump_cb)};
    static const ubus_method iface_methods[] = {UBUS_METHOD_NOARG("up", updown_cb),
                                                UBUS_METHOD_NOARG("down", updown_cb)};
    ubus_context *ctx = ubus_connect(socket.c_str());
    std::list<served_object> objects;
    auto publish = [&](std::string name, const ubus_method *methods, int n) {
        auto &o = objects.emplace_back();
        o.name = std::move(name);
        o.type = {o.name.c_str(), 0, methods, n};
        o.obj.name = o.name.c_str();
        o.obj.type = &o.type;
        o.obj.methods = methods;
        o.obj.n_methods = n;
        return ubus_add_object(ctx, &o.obj) == 0;
    };
    if (!ctx || (g_setup->dump && !publish("network.interface", dump_methods, 1)))
        return 1;
    for (const std::string &name : g_setup->objects)
        if (!publish(iface_prefix + name, iface_methods, 2))
            return 1;
    report("ready");
    for (pollfd p = {ctx->sock.fd, POLLIN, 0}; poll(&p, 1, -1) >= 0;)
        ubus_handle_event(ctx);
    return 1;
}

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

// Down takes the modem's interfaces that are up and records them; up brings
// back a recorded list. Failures accumulate; a failed dump stops at once.
// up: the recorded list for going up, blank-separated; null: going down.
// The result is "<ret> <calls>".
TEST(NetworkInterfaces, DownAndUp)
{
    if (access(WWAN_BUSD, X_OK) != 0)
        GTEST_SKIP() << "wwan-busd is not built";
    const lines all = {"mob1s1a1", "lan", "mob1s1a1_4", "mob1s2a1", "mob2s1a1", "mob1s1a1x"};
    const lines abc = {"a", "b", "c"};
    const struct {
        const char *what;
        service_setup setup;
        const char *modem, *up, *result;
    } cases[] = {
        // clang-format off
        {"the modem's up interfaces", {mixed_dump, 0, all}, "1-1", nullptr, "0 dump,down mob1s1a1,down mob1s1a1_4"},
        {"nothing of the modem up", {mixed_dump, 0, all}, "3-1", nullptr, "0 dump"},
        {"an interface without object", {three_up, 0, {"a", "c"}}, "1-1", nullptr, "2 dump,down a,down c"},
        {"a call that fails", {three_up, 0, abc, {"b"}}, "1-1", nullptr, "1 dump,down a,down b,down c"},
        {"both", {three_up, 0, {"a", "b"}, {"a"}}, "1-1", nullptr, "3 dump,down a,down b"},
        {"no interface service", {nullptr, 0, abc}, "1-1", nullptr, "1 "},
        {"dump answers with an error", {three_up, UBUS_STATUS_UNKNOWN_ERROR, abc}, "1-1", nullptr, "1 dump"},
        {"up again", {nullptr, 0, all}, "1-1", "mob1s1a1 mob1s1a1_4", "0 up mob1s1a1,up mob1s1a1_4"},
        {"nothing to bring up", {nullptr, 0, all}, "1-1", "", "0 "},
        {"interface removed before up", {nullptr, 0, {"mob1s1a1_4"}}, "1-1", "mob1s1a1 mob1s1a1_4", "2 up mob1s1a1_4"},
        {"up that fails", {nullptr, 0, abc, {"a"}}, "1-1", "a b", "1 up a,up b"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        temp_root root;
        std::string sock = root.path() + "/ubus.sock";
        pid_t broker = test_support::start_broker(WWAN_BUSD, sock);
        int pipe_fds[2];
        ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
        g_setup = &c.setup;
        pid_t service = fork();
        if (service == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            g_report = pipe_fds[1];
            _exit(serve(sock));
        }
        close(pipe_fds[1]);
        std::string buf, calls;
        EXPECT_EQ(test_support::read_line(pipe_fds[0], buf, 5000), "ready");
        ubus_context *ctx = ubus_connect(sock.c_str());
        ASSERT_NE(ctx, nullptr);
        op_scan_storage list(c.modem);
        std::istringstream up(c.up ? c.up : "");
        for (std::string name; up >> name;)
            list.add(name);
        const int ret = modem_interface_action(ctx, list, c.up ? IFACE_ACTION_UP : IFACE_ACTION_DOWN);
        for (std::string l; !(l = test_support::read_line(pipe_fds[0], buf, 0)).empty();)
            calls += (calls.empty() ? "" : ",") + l;
        EXPECT_EQ(std::to_string(ret) + " " + calls, c.result);
        ubus_free(ctx);
        kill(service, SIGKILL); // its loop never looks for a stop request
        waitpid(service, nullptr, 0);
        close(pipe_fds[0]);
        test_support::stop_process(broker);
    }
}

} // namespace
