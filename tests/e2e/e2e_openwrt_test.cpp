// The package's USB hot-plug script as the router's hotplug service runs it:
// the kernel's variables in its environment, `ubus` on its PATH (here a shim
// in the root that runs the in-tree CLI), sysfs and the description files
// under the root. First what it announces for each kind of event, then a
// modem that it announces and withdraws while the daemon runs.
#include "tests/e2e/e2e_harness.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

namespace e2e {
namespace {

namespace fs = std::filesystem;

const std::string package_files = std::string(WWANCTL_SOURCE_DIR) + "/openwrt/wwanctl/files";

// The kernel's variables for one USB event, as hotplug-call passes them.
using hotplug_env = std::map<std::string, std::string>;

// An interface event of device usb_id, interface n (configuration 1).
hotplug_env interface_event(const std::string &action, const std::string &usb_id, int n, const std::string &product)
{
    std::string name = usb_id + ":1." + std::to_string(n);
    return {{"ACTION", action},
            {"SUBSYSTEM", "usb"},
            {"DEVTYPE", "usb_interface"},
            {"DEVPATH", "/devices/platform/soc/1e1c0000.xhci/usb1/" + usb_id + "/" + name},
            {"DEVICENAME", name},
            {"PRODUCT", product},
            {"TYPE", "0/0/0"},
            {"INTERFACE", "255/0/0"},
            {"SEQNUM", "1042"}};
}

hotplug_env device_event(const std::string &action, const std::string &usb_id, const std::string &product)
{
    return {{"ACTION", action},
            {"SUBSYSTEM", "usb"},
            {"DEVTYPE", "usb_device"},
            {"DEVPATH", "/devices/platform/soc/1e1c0000.xhci/usb1/" + usb_id},
            {"DEVICENAME", usb_id},
            {"PRODUCT", product},
            {"TYPE", "0/0/0"},
            {"BUSNUM", "001"},
            {"DEVNUM", "003"},
            {"SEQNUM", "1040"}};
}

class OpenwrtHotplug : public DaemonTest
{
  protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(DaemonTest::SetUp());
        ASSERT_EQ(access(WWAN_BUS, X_OK), 0) << WWAN_BUS << " is not built";
        // `ubus` of the router: the in-tree CLI, which finds the broker's
        // socket under WWANCTL_ROOT.
        write_file(*root / "/bin/ubus", std::string("#!/bin/sh\nexec ") + WWAN_BUS + " \"$@\"\n");
        ASSERT_EQ(chmod((*root / "/bin/ubus").c_str(), 0755), 0);
        make_dirs(*root / "/lib/network/wwan");
        for (const char *ids : {"2c7c:0125", "2c7c:0801"})
            fs::copy_file(package_files + "/wwan/" + ids, *root / (std::string("/lib/network/wwan/") + ids),
                          fs::copy_options::overwrite_existing);
        ASSERT_TRUE(bus->listen("hotplug.*"));
    }

    // Runs argv with exactly env (plus PATH and WWANCTL_ROOT), stderr to
    // hotplug.err in the root; its exit status.
    int run(std::vector<std::string> argv, const hotplug_env &env)
    {
        std::vector<std::string> vars = {"PATH=" + (*root / "/bin") + ":/usr/bin:/bin", "WWANCTL_ROOT=" + root->path()};
        for (const auto &[k, v] : env)
            vars.push_back(k + "=" + v);
        std::vector<char *> envp, args;
        for (std::string &v : vars)
            envp.push_back(v.data());
        envp.push_back(nullptr);
        for (std::string &a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        std::string err = *root / "/hotplug.err";
        pid_t pid = fork();
        if (pid == 0) {
            if (!freopen(err.c_str(), "a", stderr))
                _exit(126);
            execve(args[0], args.data(), envp.data());
            _exit(127);
        }
        int status = -1;
        if (pid < 0 || waitpid(pid, &status, 0) != pid)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    int run_script(const hotplug_env &env) { return run({"/bin/sh", package_files + "/wwanctl.hotplug"}, env); }

    // The hot-plug events one run of the script sent: a marker another
    // client sends after it arrives after everything the script sent.
    std::vector<bus_event> events_of_run(const hotplug_env &env)
    {
        size_t before = bus->events().size();
        EXPECT_EQ(run_script(env), 0) << read_file(*root / "/hotplug.err");
        EXPECT_EQ(run({*root / "/bin/ubus", "send", "hotplug.marker", "{}"}, {}), 0);
        std::vector<bus_event> out;
        bool marked = bus->wait_until(call_ms, [&] {
            out.clear();
            for (size_t i = before; i < bus->events().size(); i++) {
                if (bus->events()[i].type == "hotplug.marker")
                    return true;
                out.push_back(bus->events()[i]);
            }
            return false;
        });
        EXPECT_TRUE(marked) << "the marker did not arrive";
        return out;
    }
};

struct script_case {
    const char *what;
    hotplug_env env;
    usb_device dev; // laid out in sysfs first (no ttys: not bound yet)
    const char *type; // the event sent, or null for none
    const char *json; // its payload
};

TEST_F(OpenwrtHotplug, AnnouncesServedModemsOnly)
{
    const std::string ec25 = "2c7c/125/318";
    usb_device bound; // 1-1: ttyUSB1 on the NMEA interface, ttyUSB2 on AT
    usb_device unbound;
    unbound.ttys = {{0, "ttyUSB0"}};
    usb_device hub_acm{"2", "1.4", "2c7c", "0801", {{1, "tty/ttyACM0"}, {2, "tty/ttyACM1"}, {3, "tty/ttyACM2"}}};
    hotplug_env no_name = interface_event("bind", "1-1", 2, ec25);
    no_name.erase("DEVICENAME");

    const script_case cases[] = {
        {"the AT interface bound", interface_event("bind", "1-1", 2, ec25), bound, "hotplug.modem_added",
         R"({"usb_id":"1-1","vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB2","gps_port":"/dev/ttyUSB1",)"
         R"("data_port":"","data_secondary":"","boudrate":115200})"},
        {"the AT interface added with its port already there", interface_event("add", "1-1", 2, ec25), bound,
         "hotplug.modem_added",
         R"({"usb_id":"1-1","vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB2","gps_port":"/dev/ttyUSB1",)"
         R"("data_port":"","data_secondary":"","boudrate":115200})"},
        {"DEVICENAME missing: the name from DEVPATH", no_name, bound, "hotplug.modem_added",
         R"({"usb_id":"1-1","vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB2","gps_port":"/dev/ttyUSB1",)"
         R"("data_port":"","data_secondary":"","boudrate":115200})"},
        {"behind a hub, ACM ports", interface_event("bind", "2-1.4", 2, "2c7c/801/504"), hub_acm,
         "hotplug.modem_added",
         R"({"usb_id":"2-1.4","vidpid":"2c7c:0801","cmd_port":"/dev/ttyACM1","gps_port":"/dev/ttyACM0",)"
         R"("data_port":"","data_secondary":"","boudrate":115200})"},
        {"the AT interface added before its port", interface_event("add", "1-1", 2, ec25), unbound, nullptr, ""},
        {"another interface of the modem", interface_event("bind", "1-1", 1, ec25), bound, nullptr, ""},
        {"the device added", device_event("add", "1-1", ec25), bound, nullptr, ""},
        {"a device without a description", interface_event("bind", "1-1", 2, "2c7c/6005/318"), bound, nullptr, ""},
        {"a USB hub", device_event("add", "1-1", "1d6b/2/515"), bound, nullptr, ""},
        {"a malformed PRODUCT", interface_event("bind", "1-1", 2, "2c7c"), bound, nullptr, ""},
        {"the device removed", device_event("remove", "1-1", ec25), usb_device{}, "hotplug.modem_removed",
         R"({"id":"1-1"})"},
        {"an interface removed", interface_event("remove", "1-1", 2, ec25), usb_device{}, nullptr, ""},
        {"another device removed", device_event("remove", "1-2", "1d6b/2/515"), usb_device{}, nullptr, ""},
        {"the AT interface unbound", interface_event("unbind", "1-1", 2, ec25), bound, nullptr, ""},
    };
    for (const script_case &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(*root / "/sys/bus/usb/devices");
        make_dirs(*root / "/sys/bus/usb/devices");
        if (c.env.at("ACTION") != "remove")
            add_usb_device(*root, c.dev);
        std::vector<bus_event> sent = events_of_run(c.env);
        if (!c.type) {
            EXPECT_TRUE(sent.empty()) << sent.front().type << " " << sent.front().data.json();
            continue;
        }
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].type, c.type);
        EXPECT_EQ(sent[0].data.json(), c.json);
    }
}

TEST_F(OpenwrtHotplug, ModemComesAndGoes)
{
    write_board(*root, R"({"modems":[],"blocked_modems":[]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    start_sim("ttyUSB2");
    const std::string ec25 = "2c7c/125/318";

    for (int round = 1; round <= 2; round++) {
        SCOPED_TRACE("plugged in, round " + std::to_string(round));
        usb_device dev;
        dev.ttys = {{0, "ttyUSB0"}};
        add_usb_device(*root, dev);
        ASSERT_EQ(run_script(device_event("add", "1-1", ec25)), 0);
        // The AT interface appears, then its serial driver binds.
        ASSERT_EQ(run_script(interface_event("add", "1-1", 2, ec25)), 0);
        dev.ttys = {{0, "ttyUSB0"}, {1, "ttyUSB1"}, {2, "ttyUSB2"}};
        add_usb_device(*root, dev);
        ASSERT_EQ(run_script(interface_event("bind", "1-1", 2, ec25)), 0);

        uint32_t id = wait_modem("gsm.modem2");
        ASSERT_NE(id, 0u);
        expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        call_result info = bus->call("gsm.modem2", "info");
        EXPECT_EQ(info.reply.text("modem_id"), "1-1") << info.reply.json();
        EXPECT_EQ(num_modems(), 1);

        // Unplugged: the interfaces go, then the device.
        fs::remove_all(*root / "/sys/bus/usb/devices");
        make_dirs(*root / "/sys/bus/usb/devices");
        for (int n : {0, 1, 2})
            ASSERT_EQ(run_script(interface_event("remove", "1-1", n, ec25)), 0);
        ASSERT_EQ(run_script(device_event("remove", "1-1", ec25)), 0);
        EXPECT_TRUE(bus->wait_until(call_ms, [&] { return !bus->object_id("gsm.modem2"); })) << "gsm.modem2 stays";
        EXPECT_EQ(num_modems(), 0);
        EXPECT_TRUE(bus->wait_until(
            call_ms, [&] { return bus->events_of("gsm.modem_gone").size() == static_cast<size_t>(round); }))
            << "no gsm.modem_gone";
    }
    EXPECT_EQ(read_file(*root / "/hotplug.err"), "");
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
