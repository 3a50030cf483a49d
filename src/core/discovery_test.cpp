#include "core/discovery.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/root_test_support.h"

namespace
{

class Discovery : public testing::Test
{
  protected:
    // One device directory of the USB tree, "<usb_id> <ids> <ports> [attr]":
    // ports "1,2" are ttyUSB1 under interface 1 and ttyUSB2 under 2,
    // "0:tty/ttyACM0" an entry of its own, "-" none; attr "-busnum" leaves
    // that attribute file out, "busnum=" leaves it empty.
    void add_device(const std::string &desc)
    {
        std::istringstream in(desc);
        std::string usb_id, ids, ports, attr;
        in >> usb_id >> ids >> ports >> attr;
        const std::string dir = "/sys/bus/usb/devices/" + usb_id;
        const size_t dash = usb_id.find('-');
        const std::map<std::string, std::string> attrs = {{"busnum", usb_id.substr(0, dash)},
                                                          {"devpath", usb_id.substr(dash + 1)},
                                                          {"idVendor", ids.substr(0, 4)},
                                                          {"idProduct", ids.substr(5)}};
        for (auto &[name, value] : attrs) {
            if (attr == name + "=")
                root.write(dir + "/" + name, "");
            else if (attr != "-" + name)
                root.write(dir + "/" + name, value + "\r\nsecond line\n"); // the value is the first line
        }
        std::replace(ports.begin(), ports.end(), ',', ' ');
        std::istringstream list(ports == "-" ? "" : ports);
        for (std::string port; list >> port;) {
            const size_t colon = port.find(':');
            const std::string iface = dir + ":1." + port.substr(0, colon);
            root.write(iface + "/driver/module", ""); // entries other than the port
            root.write(iface + "/uevent", "");
            root.write(iface + "/" + (colon == std::string::npos ? "ttyUSB" + port : port.substr(colon + 1)) + "/dev",
                       "");
        }
    }

    temp_root root;
};

// "<usb_id> <ids> <baud> <cmd> <gps> <data>"
std::string text(const modem_descriptor &d)
{
    return d.usb_id + " " + d.usb_ids + " " + std::to_string(d.baudrate) + " " + d.cmd_port + " " + d.gps_port + " " +
           d.data_port;
}

const char *ec25 = R"({"desc":"EC25","boudrate":115200,"control":2,"gps":1,"data":3})";
const char *ec25_1_1 = "1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB3";

TEST_F(Discovery, UsbScanFindsModemsAndSkipsBadEntries)
{
    // description: of the first device's ids; found: sorted by usb_id.
    const struct {
        const char *what;
        std::vector<std::string> devices;
        std::string description;
        std::vector<std::string> found;
    } cases[] = {
        // clang-format off
        {"ports by interface number", {"1-1 2c7c:0125 0,1,2,3"}, ec25, {ec25_1_1}},
        {"a device without a description file is ignored", {"1-0 1d6b:0002 0,1,2,3", "2-1.3 0bda:8153 0,1,2,3"}, "", {}},
        {"a missing attribute file skips the entry", {"1-1 2c7c:0125 0,1,2,3 -busnum", "1-2 2c7c:0125 0,1,2,3 -idProduct"}, ec25, {}},
        {"an empty attribute file skips the entry", {"1-1 2c7c:0125 0,1,2,3 devpath="}, ec25, {}},
        {"missing GNSS port skips the modem", {"1-1 2c7c:0125 -"}, ec25, {}},
        {"optional GNSS port (boolean flag)", {"1-1 2c7c:0125 2,3"}, R"({"boudrate":115200,"control":2,"gps":1,"gps_optional":true,"data":3})", {"1-1 2c7c:0125 115200 /dev/ttyUSB2  /dev/ttyUSB3"}},
        {"optional GNSS port (numeric flag)", {"1-1 2c7c:0125 2"}, R"({"boudrate":9600,"control":2,"gps":1,"gps_optional":1})", {"1-1 2c7c:0125 9600 /dev/ttyUSB2  "}},
        {"missing data port skips the modem", {"3-1.2 2c7c:0125 1,2"}, ec25, {}},
        {"data wins over data_secondary", {"1-1 2c7c:0125 0,1,2,3"}, R"({"boudrate":115200,"control":2,"gps":1,"data":3,"data_secondary":0})", {ec25_1_1}},
        {"data_secondary when data is absent", {"1-1 2c7c:0125 0,1,2,3"}, R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":0})", {"1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB0"}},
        {"a missing data_secondary port leaves data empty", {"1-1 2c7c:0125 1,2"}, R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":4})", {"1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 "}},
        {"serial_control selects a built-in UART", {"1-1 1e2d:00b3 1"}, R"({"boudrate":921600,"control":2,"gps":1,"serial_control":1})", {"1-1 1e2d:00b3 921600 /dev/ttyS1 /dev/ttyUSB1 "}},
        {"missing command port skips the modem", {"1-1 2c7c:0125 1,3"}, ec25, {}},
        {"malformed description file", {"1-1 2c7c:0125 0,1,2,3"}, R"({"boudrate":115200,"control":2,)", {}},
        {"ACM ports under the tty class directory", {"2-1 1bc7:1201 0:tty/ttyACM0,6:tty/ttyACM3"}, R"({"boudrate":115200,"control":0,"gps":6})", {"2-1 1bc7:1201 115200 /dev/ttyACM0 /dev/ttyACM3 "}},
        {"one bad modem does not stop the scan", {"1-1 2c7c:0125 -", "1-2 2c7c:0125 0,1,2,3"}, ec25, {"1-2 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB3"}},
        {"no device tree at all", {}, "", {}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        root.remove("/sys");
        root.remove("/lib");
        if (!c.devices.empty())
            root.write("/sys/bus/usb/devices/.keep", "");
        for (auto &d : c.devices)
            add_device(d);
        if (!c.description.empty())
            root.write("/lib/network/wwan/" + c.devices[0].substr(c.devices[0].find(' ') + 1, 9), c.description);

        std::vector<modem_descriptor> found;
        testing::internal::CaptureStdout();
        EXPECT_EQ(scan_usb_subsystem(found), c.devices.empty() ? -1 : 0);
        testing::internal::GetCapturedStdout();
        std::vector<std::string> texts;
        for (const auto &d : found)
            texts.push_back(text(d));
        std::sort(texts.begin(), texts.end());
        EXPECT_EQ(texts, c.found);
    }
}

const char *two_builtin = R"({"model":{"id":"rut"},"modems":[{"usb_id":"1-1","builtin":true,"primary":true},)"
                          R"({"usb_id":"1-2","builtin":true,"primary":false},{"usb_id":"3-1","builtin":false}]})";
const char *blocking = R"({"modems":[{"usb_id":"1-1","builtin":true}],"blocked_modems":["1-1.4",7,"2-1"]})";

// What the board file says of a modem, as "<ret><builtin><primary> <verdict>
// <blocked> <single>": the flags lookup, the one-reading verdict on a new
// modem (with the flags it sets), the blocked list and whether the board has
// exactly one builtin modem. Without a "modems" array a modem is external.
std::string board_answers(const char *usb_id)
{
    board_modem flags{true, true}, served{true, true};
    testing::internal::CaptureStdout();
    const int ret = handle_board_json_modem_primary(usb_id, flags);
    std::string out = std::to_string(ret) + std::to_string(flags.builtin) + std::to_string(flags.primary) + " ";
    switch (check_board(usb_id, "2c7c:0125", served)) {
    case board_verdict::serve:
        out += "serve" + std::to_string(served.builtin) + std::to_string(served.primary);
        break;
    case board_verdict::blocked:
        out += "blocked";
        break;
    case board_verdict::unreadable:
        out += "unreadable";
        break;
    }
    out += is_modem_blocked(usb_id, "2c7c:0125") ? " blocked" : " free";
    out += is_single_builtin_modem() ? " single" : " several";
    testing::internal::GetCapturedStdout();
    return out;
}

TEST_F(Discovery, BoardFile)
{
    const struct {
        const char *what, *board, *usb_id; // board null: no file
        const char *answers;
    } cases[] = {
        // clang-format off
        {"builtin primary", two_builtin, "1-1", "011 serve11 free several"},
        {"builtin secondary", two_builtin, "1-2", "010 serve10 free several"},
        {"listed external", two_builtin, "3-1", "000 serve00 free several"},
        {"not listed", two_builtin, "1-1.4", "000 serve00 free several"},
        {"flags as numbers", R"({"modems":[{"usb_id":"2-1","builtin":1,"primary":0},{"usb_id":"1-1","builtin":1}]})", "2-1", "010 serve10 free several"},
        {"the only builtin modem is primary", R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"2-1","builtin":false}]})", "1-1", "011 serve11 free single"},
        {"unless it says otherwise", R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":false}]})", "1-1", "010 serve10 free single"},
        {"two builtin modems without primary", R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"1-2","builtin":true}]})", "1-1", "010 serve10 free several"},
        {"only an external modem", R"({"modems":[{"usb_id":"2-1"}]})", "2-1", "000 serve00 free several"},
        {"no board file", nullptr, "1-1", "100 unreadable free several"},
        {"malformed board file", R"({"modems":[)", "1-1", "100 unreadable free several"},
        {"no modem list", R"({"blocked_modems":[]})", "1-1", "100 serve00 free several"},
        {"an entry without usb_id", R"({"modems":[{"usb_id":"1-1","builtin":true},{"builtin":true}]})", "1-1", "100 serve00 free several"},
        {"an entry that is no table", R"({"modems":["1-1"]})", "1-1", "100 serve00 free several"},
        {"blocked", blocking, "1-1.4", "000 blocked blocked single"},
        {"last of the blocked list", blocking, "2-1", "000 blocked blocked single"},
        {"a prefix of a blocked id is not blocked", blocking, "1-1", "011 serve11 free single"},
        {"no blocked array", R"({"modems":[]})", "1-1.4", "000 serve00 free several"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        root.remove("/etc/board.json");
        if (c.board)
            root.write("/etc/board.json", c.board);
        EXPECT_EQ(board_answers(c.usb_id), c.answers);
    }
}

// Builtin modems have fixed bus names, others take the first free number;
// in_use lists the numbers of gsm.modemN names taken.
TEST_F(Discovery, FreeBusName)
{
    const struct {
        const char *what;
        std::vector<int> in_use;
        bool builtin, primary;
        std::optional<std::string> name;
    } cases[] = {
        // clang-format off
        {"builtin primary", {}, true, true, "gsm.modem0"},
        {"builtin primary even when its name is taken", {0, 1}, true, true, "gsm.modem0"},
        {"builtin secondary", {0}, true, false, "gsm.modem1"},
        {"external modem", {}, false, false, "gsm.modem2"},
        {"external modem flagged primary", {}, false, true, "gsm.modem2"},
        {"the builtin names are not counted", {0, 1}, false, false, "gsm.modem2"},
        {"first free number", {2, 3}, false, false, "gsm.modem4"},
        {"a hole is reused", {2, 4, 5}, false, false, "gsm.modem3"},
        {"the last name", {2, 3, 4, 5, 6, 7, 8, 9, 10}, false, false, "gsm.modem11"},
        {"names run out after gsm.modem11", {2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, false, false, std::nullopt},
        {"builtin modems still get theirs", {2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, true, false, "gsm.modem1"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string> names;
        for (int n : c.in_use)
            names.push_back("gsm.modem" + std::to_string(n));
        std::vector<std::string_view> views(names.begin(), names.end());
        EXPECT_EQ(get_free_name(views, c.builtin, c.primary), c.name);
    }
}

} // namespace
