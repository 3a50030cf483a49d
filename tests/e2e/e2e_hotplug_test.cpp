// Modems that come and go while the daemon runs, announced by the package's
// USB hot-plug script as the router's hotplug service runs it: the kernel's
// variables in its environment, `ubus` on its PATH (a shim in the root that
// runs the in-tree CLI), sysfs and the description files under the root.
#include "tests/e2e/e2e_harness.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace e2e
{
namespace
{

namespace fs = std::filesystem;

const std::string package_files = std::string(WWANCTL_SOURCE_DIR) + "/openwrt/wwanctl/files";
const std::string ec25 = "2c7c/125/318";

// The kernel's variables for one USB event, as hotplug-call passes them: an
// interface event of interface n of usb_id (configuration 1) or, with n < 0,
// a device event.
using hotplug_env = std::map<std::string, std::string>;
hotplug_env usb_event(const std::string &action, const std::string &usb_id, int n, const std::string &product)
{
    std::string name = n < 0 ? usb_id : usb_id + ":1." + std::to_string(n);
    hotplug_env env = {{"ACTION", action},
                       {"SUBSYSTEM", "usb"},
                       {"DEVTYPE", n < 0 ? "usb_device" : "usb_interface"},
                       {"DEVPATH", "/devices/platform/soc/1e1c0000.xhci/usb1/" + usb_id + (n < 0 ? "" : "/" + name)},
                       {"DEVICENAME", name},
                       {"PRODUCT", product},
                       {"TYPE", "0/0/0"},
                       {"SEQNUM", "1042"}};
    if (n < 0)
        env.insert({{"BUSNUM", "001"}, {"DEVNUM", "003"}});
    else
        env["INTERFACE"] = "255/0/0";
    return env;
}

class Hotplug : public DaemonTest
{
  protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DaemonTest::SetUp());
        ASSERT_EQ(access(WWAN_BUS, X_OK), 0) << WWAN_BUS << " is not built";
        root->write("/bin/ubus", std::string("#!/bin/sh\nexec ") + WWAN_BUS + " \"$@\"\n");
        ASSERT_EQ(chmod((*root / "/bin/ubus").c_str(), 0755), 0);
        for (const char *ids : {"2c7c:0125", "2c7c:0801"}) {
            std::ifstream in(package_files + "/wwan/" + ids);
            root->write(std::string("/lib/network/wwan/") + ids, std::string(std::istreambuf_iterator<char>(in), {}));
        }
        ASSERT_TRUE(bus->listen("hotplug.*"));
    }

    // Runs argv with exactly env (plus PATH and WWANCTL_ROOT), stderr to
    // hotplug.err in the root; its exit status.
    int run(const std::vector<std::string> &argv, const hotplug_env &env)
    {
        std::vector<std::string> cmd = {"/usr/bin/env", "-i", "PATH=" + (*root / "/bin") + ":/usr/bin:/bin",
                                        "WWANCTL_ROOT=" + root->path()};
        for (const auto &[k, v] : env)
            cmd.push_back(k + "=" + v);
        cmd.insert(cmd.end(), argv.begin(), argv.end());
        return spawn(cmd, "/dev/null", *root / "/hotplug.err")->stop(0, call_ms);
    }

    int run_script(const hotplug_env &env) { return run({"/bin/sh", package_files + "/wwanctl.hotplug"}, env); }

    // The hot-plug events one run of the script sent: a marker another
    // client sends after it arrives after everything the script sent.
    std::vector<bus_event> events_of_run(const hotplug_env &env)
    {
        size_t before = bus->events().size();
        EXPECT_EQ(run_script(env), 0) << root->read("/hotplug.err");
        EXPECT_EQ(run({*root / "/bin/ubus", "send", "hotplug.marker", "{}"}, {}), 0);
        std::vector<bus_event> out;
        EXPECT_TRUE(wait_until(call_ms, [&] {
            out.assign(bus->events().begin() + static_cast<std::ptrdiff_t>(before), bus->events().end());
            return !out.empty() && out.back().type == "hotplug.marker";
        })) << "the marker did not arrive";
        if (!out.empty())
            out.pop_back();
        return out;
    }

    void clear_usb_tree()
    {
        root->remove("/sys/bus/usb/devices");
        fs::create_directories(*root / "/sys/bus/usb/devices");
    }

    // The messages among all that name gsm.modem2 ("object_name").
    static std::vector<bus_message> naming(const std::vector<bus_event> &all)
    {
        std::vector<bus_message> out;
        for (const bus_event &e : all)
            if (e.data.text("object_name") == "gsm.modem2")
                out.push_back(e.data);
        return out;
    }
};

const std::string added_1_1 = R"({"usb_id":"1-1","vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB2",)"
                              R"("gps_port":"/dev/ttyUSB1","data_port":"","data_secondary":"","boudrate":115200})";
const std::string added_hub = R"({"usb_id":"2-1.4","vidpid":"2c7c:0801","cmd_port":"/dev/ttyACM1",)"
                              R"("gps_port":"/dev/ttyACM0","data_port":"","data_secondary":"","boudrate":115200})";

TEST_F(Hotplug, ScriptAnnouncesServedModemsOnly)
{
    usb_device bound; // 1-1: ttyUSB1 on the NMEA interface, ttyUSB2 on AT
    usb_device unbound;
    unbound.ttys = {{0, "ttyUSB0"}};
    usb_device hub_acm{"2", "1.4", "2c7c", "0801", {{1, "tty/ttyACM0"}, {2, "tty/ttyACM1"}, {3, "tty/ttyACM2"}}};
    hotplug_env no_name = usb_event("bind", "1-1", 2, ec25);
    no_name.erase("DEVICENAME");
    struct row {
        const char *what;
        hotplug_env env;
        usb_device dev;   // laid out in sysfs first unless removed
        const char *type; // the event sent, or null for none
        std::string json; // its payload
    };
    // clang-format off
    const row rows[] = {
        {"the AT interface bound", usb_event("bind", "1-1", 2, ec25), bound, "hotplug.modem_added", added_1_1},
        {"the AT interface added with its port", usb_event("add", "1-1", 2, ec25), bound, "hotplug.modem_added", added_1_1},
        {"DEVICENAME missing: the name from DEVPATH", no_name, bound, "hotplug.modem_added", added_1_1},
        {"behind a hub, ACM ports", usb_event("bind", "2-1.4", 2, "2c7c/801/504"), hub_acm, "hotplug.modem_added", added_hub},
        {"the AT interface added before its port", usb_event("add", "1-1", 2, ec25), unbound, nullptr, ""},
        {"another interface of the modem", usb_event("bind", "1-1", 1, ec25), bound, nullptr, ""},
        {"the device added", usb_event("add", "1-1", -1, ec25), bound, nullptr, ""},
        {"a device without a description", usb_event("bind", "1-1", 2, "2c7c/6005/318"), bound, nullptr, ""},
        {"a USB hub", usb_event("add", "1-1", -1, "1d6b/2/515"), bound, nullptr, ""},
        {"a malformed PRODUCT", usb_event("bind", "1-1", 2, "2c7c"), bound, nullptr, ""},
        {"the device removed", usb_event("remove", "1-1", -1, ec25), bound, "hotplug.modem_removed", R"({"id":"1-1"})"},
        {"an interface removed", usb_event("remove", "1-1", 2, ec25), bound, nullptr, ""},
        {"another device removed", usb_event("remove", "1-2", -1, "1d6b/2/515"), bound, nullptr, ""},
        {"the AT interface unbound", usb_event("unbind", "1-1", 2, ec25), bound, nullptr, ""},
    };
    // clang-format on
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        clear_usb_tree();
        if (r.env.at("ACTION") != "remove")
            add_usb_device(*root, r.dev);
        std::vector<bus_event> sent = events_of_run(r.env);
        ASSERT_EQ(sent.size(), r.type ? 1u : 0u);
        if (r.type) {
            EXPECT_EQ(sent[0].type, r.type);
            EXPECT_EQ(sent[0].data.json(), r.json);
        }
    }
}

TEST_F(Hotplug, ModemIsServedFromPlugToUnplugAndAgain)
{
    root->write("/etc/board.json", R"({"modems":[],"blocked_modems":[]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_TRUE(bus->subscribe("gsm"));
    start_sim("ttyUSB2");
    size_t plugged = 0, gone_seen = 0;
    auto gone = [&] { return naming(bus->events_of("gsm.modem_gone")); };
    // The n-th gsm.modem_gone names the object that had id, which then leaves.
    auto expect_gone = [&](uint32_t id) {
        ASSERT_TRUE(wait_until(call_ms, [&] { return gone().size() == gone_seen + 1; }));
        bus_message g = gone()[gone_seen++];
        EXPECT_EQ(g.text("modem_id"), "1-1") << g.json();
        EXPECT_EQ(static_cast<uint32_t>(g.number("object_id").value_or(0)), id) << g.json();
        EXPECT_TRUE(wait_until(call_ms, [&] { return !bus->object_id("gsm.modem2"); })) << "gsm.modem2 stays";
        EXPECT_EQ(num_modems(), 0);
    };
    // gsm.modem2 comes up, is announced and answers; its id.
    auto expect_served = [&]() -> uint32_t {
        uint32_t id = wait_modem("gsm.modem2");
        std::vector<bus_message> news;
        EXPECT_TRUE(wait_until(
            call_ms, [&] { return (news = naming(bus->notifications_of("gsm.new_modem"))).size() == plugged + 1; }));
        plugged++;
        EXPECT_EQ(static_cast<uint32_t>(news.empty() ? 0 : news.back().number("object_id").value_or(0)), id);
        expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        EXPECT_EQ(bus->call("gsm.modem2", "info").reply.text("modem_id"), "1-1");
        EXPECT_EQ(num_modems(), 1);
        return id;
    };
    for (int round = 1; round <= 2; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        // The device and its AT interface appear, then its serial driver binds.
        usb_device dev;
        dev.ttys = {{0, "ttyUSB0"}};
        add_usb_device(*root, dev);
        ASSERT_EQ(run_script(usb_event("add", "1-1", -1, ec25)), 0);
        ASSERT_EQ(run_script(usb_event("add", "1-1", 2, ec25)), 0);
        add_usb_device(*root, usb_device{});
        ASSERT_EQ(run_script(usb_event("bind", "1-1", 2, ec25)), 0);
        uint32_t id = expect_served();

        if (round == 1) {
            SCOPED_TRACE("payloads that are not a modem's");
            const char *const events[][2] = {
                {"hotplug.modem_added", R"({"vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB2"})"},
                {"hotplug.modem_added", R"({"usb_id":7,"cmd_port":"/dev/ttyUSB2","vidpid":"2c7c:0125"})"},
                {"hotplug.modem_added", R"({"usb_id":"7-1","cmd_port":"/etc/board.json","vidpid":"2c7c:0125"})"},
                {"hotplug.modem_added", R"({"usb_id":"7-1","cmd_port":"/dev/../etc/board.json","vidpid":"2c7c:0125"})"},
                {"hotplug.modem_added", R"({"usb_id":"7-1","cmd_port":"/dev/ttyUSB9","vidpid":"2c7c:0125"})"},
                {"hotplug.modem_added", R"({"usb_id":"7-1","cmd_port":"/dev/ttyUSB40","vidpid":"2c7c:0125"})"},
                {"hotplug.modem_removed", R"({"usb_id":"1-1"})"},
                {"hotplug.modem_removed", R"({"id":"9-9"})"},
            };
            std::string board = root->read("/etc/board.json");
            ASSERT_EQ(symlink((*root / "/etc/board.json").c_str(), (*root / "/dev/ttyUSB9").c_str()), 0);
            for (const auto &[type, json] : events)
                ASSERT_EQ(bus->send_event(type, json), 0);
            EXPECT_TRUE(wait_log("Unable to parse modem added arguments!", 2));
            EXPECT_TRUE(wait_log("Unable to parse modem removed arguments!"));
            EXPECT_TRUE(wait_log("[CMM] Failed to open modem at", 1));
            // The modem is untouched by all of them, the files named as ports too.
            expect_exec(*bus, "gsm.modem2", "AT", "\r\nOK\r\n");
            EXPECT_EQ(bus->objects("gsm.modem*"), std::vector<std::string>{"gsm.modem2"});
            EXPECT_EQ(bus->object_id("gsm.modem2"), id);
            EXPECT_TRUE(bus->events_of("gsm.modem_gone").empty());
            EXPECT_EQ(root->read("/etc/board.json"), board);

            // Detached and attached again by its USB id: from the USB tree;
            // attached while live: created afresh.
            EXPECT_EQ(bus->call("gsm", "deattach", R"({"usbid":"1-1"})").status, 0);
            ASSERT_NO_FATAL_FAILURE(expect_gone(id));
            EXPECT_EQ(bus->call("gsm", "attach", R"({"usbid":"1-1"})").status, 0);
            id = expect_served();
            EXPECT_EQ(bus->call("gsm", "attach", R"({"usbid":"1-1"})").status, 0);
            ASSERT_TRUE(wait_until(call_ms, [&] { return gone().size() == gone_seen + 1; }));
            gone_seen++;
            uint32_t fresh = expect_served();
            EXPECT_NE(fresh, id) << "the old object is still there";
            id = fresh;
        }

        // Unplugged: the interfaces go, then the device.
        clear_usb_tree();
        for (int n : {0, 1, 2, -1})
            ASSERT_EQ(run_script(usb_event("remove", "1-1", n, ec25)), 0);
        ASSERT_NO_FATAL_FAILURE(expect_gone(id));
    }
    EXPECT_EQ(logged("Removing modem 1-1..."), 4u); // detached, attached while live, unplugged twice
    EXPECT_EQ(root->read("/hotplug.err"), "");
}

} // namespace
} // namespace e2e
