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

// ---- USB scan ---------------------------------------------------------------

// One device directory of the USB tree with its serial interfaces: ports
// "1 2" are ttyUSB1 under interface 1 and ttyUSB2 under 2, "0:tty/ttyACM0" an
// entry of its own; the attribute file omit is left out.
struct fake_device {
    std::string usb_id, ids, ports, omit = "";
};

void add(const temp_root &root, const fake_device &d)
{
    const std::string dir = "/sys/bus/usb/devices/" + d.usb_id;
    const size_t dash = d.usb_id.find('-');
    const std::map<std::string, std::string> attrs = {{"busnum", d.usb_id.substr(0, dash)},
                                                      {"devpath", d.usb_id.substr(dash + 1)},
                                                      {"idVendor", d.ids.substr(0, 4)},
                                                      {"idProduct", d.ids.substr(5)}};
    for (auto &[name, value] : attrs)
        if (name != d.omit)
            root.write(dir + "/" + name, value + "\r\nsecond line\n"); // the value is the first line
    std::istringstream ports(d.ports);
    for (std::string port; ports >> port;) {
        const size_t colon = port.find(':');
        const std::string iface = dir + ":1." + port.substr(0, colon);
        root.write(iface + "/driver/module", ""); // entries other than the port
        root.write(iface + "/uevent", "");
        root.write(iface + "/" + (colon == std::string::npos ? "ttyUSB" + port : port.substr(colon + 1)) + "/dev", "");
    }
}

// "<usb_id> <ids> <baud> <cmd> <gps> <data>"
std::string text(const modem_descriptor &d)
{
    return d.usb_id + " " + d.usb_ids + " " + std::to_string(d.baudrate) + " " + d.cmd_port + " " + d.gps_port + " " +
           d.data_port;
}

TEST(UsbScan, FindsModemsAndSkipsBadEntries)
{
    const std::string ec25 = R"({"desc":"EC25","boudrate":115200,"control":2,"gps":1,"data":3})";
    const std::string ec25_1_1 = "1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB3";
    const struct {
        const char *what;
        std::vector<fake_device> devices;
        std::string description;        // of the first device's ids
        std::vector<std::string> found; // sorted by usb_id
    } cases[] = {
        {"ports by interface number", {{"1-1", "2c7c:0125", "0 1 2 3"}}, ec25, {ec25_1_1}},
        {"a device without a description file is ignored",
         {{"1-0", "1d6b:0002", "0 1 2 3"}, {"2-1.3", "0bda:8153", "0 1 2 3"}},
         "",
         {}},
        {"a missing attribute file skips the entry",
         {{"1-1", "2c7c:0125", "0 1 2 3", "busnum"}, {"1-2", "2c7c:0125", "0 1 2 3", "idProduct"}},
         ec25,
         {}},
        {"missing GNSS port skips the modem", {{"1-1", "2c7c:0125", ""}}, ec25, {}},
        {"optional GNSS port may be missing (boolean flag)",
         {{"1-1", "2c7c:0125", "2 3"}},
         R"({"boudrate":115200,"control":2,"gps":1,"gps_optional":true,"data":3})",
         {"1-1 2c7c:0125 115200 /dev/ttyUSB2  /dev/ttyUSB3"}},
        {"optional GNSS port may be missing (numeric flag)",
         {{"1-1", "2c7c:0125", "2"}},
         R"({"boudrate":9600,"control":2,"gps":1,"gps_optional":1})",
         {"1-1 2c7c:0125 9600 /dev/ttyUSB2  "}},
        {"missing data port skips the modem", {{"3-1.2", "2c7c:0125", "1 2"}}, ec25, {}},
        {"data wins over data_secondary",
         {{"1-1", "2c7c:0125", "0 1 2 3"}},
         R"({"boudrate":115200,"control":2,"gps":1,"data":3,"data_secondary":0})",
         {ec25_1_1}},
        {"data_secondary is the data port when data is absent",
         {{"1-1", "2c7c:0125", "0 1 2 3"}},
         R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":0})",
         {"1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB0"}},
        {"a missing data_secondary port leaves the data port empty",
         {{"1-1", "2c7c:0125", "1 2"}},
         R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":4})",
         {"1-1 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 "}},
        {"serial_control selects a built-in UART",
         {{"1-1", "1e2d:00b3", "1"}},
         R"({"boudrate":921600,"control":2,"gps":1,"serial_control":1})",
         {"1-1 1e2d:00b3 921600 /dev/ttyS1 /dev/ttyUSB1 "}},
        {"missing command port skips the modem", {{"1-1", "2c7c:0125", "1 3"}}, ec25, {}},
        {"malformed description file", {{"1-1", "2c7c:0125", "0 1 2 3"}}, R"({"boudrate":115200,"control":2,)", {}},
        {"an ACM port under the interface's tty class directory",
         {{"2-1", "1bc7:1201", "0:tty/ttyACM0 6:tty/ttyACM3"}},
         R"({"boudrate":115200,"control":0,"gps":6})",
         {"2-1 1bc7:1201 115200 /dev/ttyACM0 /dev/ttyACM3 "}},
        {"one bad modem does not stop the scan",
         {{"1-1", "2c7c:0125", ""}, {"1-2", "2c7c:0125", "0 1 2 3"}},
         ec25,
         {"1-2 2c7c:0125 115200 /dev/ttyUSB2 /dev/ttyUSB1 /dev/ttyUSB3"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        temp_root root;
        root.write("/sys/bus/usb/devices/.keep", "");
        for (auto &d : c.devices)
            add(root, d);
        if (!c.description.empty())
            root.write("/lib/network/wwan/" + c.devices[0].ids, c.description);

        std::vector<modem_descriptor> found;
        testing::internal::CaptureStdout();
        EXPECT_EQ(scan_usb_subsystem(found), 0);
        testing::internal::GetCapturedStdout();
        std::vector<std::string> texts;
        for (const auto &d : found)
            texts.push_back(text(d));
        std::sort(texts.begin(), texts.end());
        EXPECT_EQ(texts, c.found);
    }

    temp_root root; // no device tree at all
    std::vector<modem_descriptor> found;
    testing::internal::CaptureStdout();
    EXPECT_EQ(scan_usb_subsystem(found), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(found.empty());
}

// ---- board file -------------------------------------------------------------

class BoardFile : public testing::Test
{
  protected:
    void set_board(const char *text)
    {
        root.remove("/etc/board.json");
        if (text)
            root.write("/etc/board.json", text);
    }
    temp_root root;
};

const char *two_builtin = R"({"model":{"id":"rut"},"modems":[
    {"usb_id":"1-1","builtin":true,"primary":true},
    {"usb_id":"1-2","builtin":true,"primary":false},
    {"usb_id":"3-1","builtin":false}]})";

TEST_F(BoardFile, FlagsOfAModem)
{
    const struct {
        const char *what, *board, *usb_id; // board null: no file
        int ret;
        board_modem expect;
    } cases[] = {
        {"builtin primary", two_builtin, "1-1", 0, {true, true}},
        {"builtin secondary", two_builtin, "1-2", 0, {true, false}},
        {"listed external", two_builtin, "3-1", 0, {false, false}},
        {"not listed", two_builtin, "1-1.4", 0, {false, false}},
        {"flags as numbers",
         R"({"modems":[{"usb_id":"2-1","builtin":1,"primary":0},{"usb_id":"1-1","builtin":1}]})",
         "2-1",
         0,
         {true, false}},
        {"the only builtin modem is primary",
         R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"2-1"}]})",
         "1-1",
         0,
         {true, true}},
        {"unless it says otherwise",
         R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":false}]})",
         "1-1",
         0,
         {true, false}},
        {"two builtin modems without primary",
         R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"1-2","builtin":true}]})",
         "1-1",
         0,
         {true, false}},
        {"no board file", nullptr, "1-1", 1, {}},
        {"malformed board file", R"({"modems":[)", "1-1", 1, {}},
        {"no modem list", R"({"model":{"id":"rut"}})", "1-1", 1, {}},
        {"an entry without usb_id", R"({"modems":[{"usb_id":"1-1","builtin":true},{"builtin":true}]})", "1-1", 1, {}},
        {"an entry that is no table", R"({"modems":["1-1"]})", "1-1", 1, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_board(c.board);
        board_modem flags{true, true};
        testing::internal::CaptureStdout();
        EXPECT_EQ(handle_board_json_modem_primary(c.usb_id, flags), c.ret);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(flags.builtin, c.expect.builtin);
        EXPECT_EQ(flags.primary, c.expect.primary);
    }
}

TEST_F(BoardFile, SingleBuiltinAndBlockedModems)
{
    const struct {
        const char *board;
        bool single;
    } boards[] = {
        {R"({"modems":[{"usb_id":"1-1","builtin":true}]})", true},
        {R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"2-1","builtin":false}]})", true},
        {two_builtin, false},
        {R"({"modems":[{"usb_id":"2-1"}]})", false},
        {R"({"modems":[]})", false},
        {nullptr, false},
    };
    for (const auto &b : boards) {
        SCOPED_TRACE(b.board ? b.board : "no file");
        set_board(b.board);
        testing::internal::CaptureStdout();
        EXPECT_EQ(is_single_builtin_modem(), b.single);
        testing::internal::GetCapturedStdout();
    }

    const char *board = R"({"modems":[],"blocked_modems":["1-1.4",7,"2-1"]})";
    const struct {
        const char *what, *board, *usb_id;
        bool blocked;
    } cases[] = {
        {"listed", board, "1-1.4", true},
        {"last of the list", board, "2-1", true},
        {"a prefix of a listed id is not listed", board, "1-1", false},
        {"not listed", board, "3-1", false},
        {"no array", R"({"modems":[]})", "1-1.4", false},
        {"no board file", nullptr, "1-1.4", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_board(c.board);
        testing::internal::CaptureStdout();
        EXPECT_EQ(is_modem_blocked(c.usb_id, "2c7c:0125"), c.blocked);
        testing::internal::GetCapturedStdout();
    }
}

// One reading decides a new modem: served with its flags, blocked, or not
// decidable without a board file. Without a "modems" array it is external.
TEST_F(BoardFile, VerdictOnANewModem)
{
    const char *board = R"({"modems":[{"usb_id":"1-1","builtin":true}],"blocked_modems":["3-1"]})";
    const struct {
        const char *board, *usb_id;
        board_verdict verdict;
        bool builtin;
    } cases[] = {
        {board, "1-1", board_verdict::serve, true},
        {board, "2-1", board_verdict::serve, false},
        {board, "3-1", board_verdict::blocked, false},
        {R"({"blocked_modems":[]})", "1-1", board_verdict::serve, false},
        {nullptr, "1-1", board_verdict::unreadable, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.board ? c.board : "no file") << " " << c.usb_id);
        set_board(c.board);
        board_modem flags{!c.builtin, !c.builtin};
        testing::internal::CaptureStdout();
        EXPECT_EQ(check_board(c.usb_id, "2c7c:0125", flags), c.verdict);
        testing::internal::GetCapturedStdout();
        if (c.verdict == board_verdict::serve) {
            EXPECT_EQ(flags.builtin, c.builtin);
            EXPECT_EQ(flags.primary, c.builtin);
        }
    }
}

// ---- bus object names -------------------------------------------------------

TEST(FreeName, BuiltinModemsHaveFixedNamesOthersTakeTheFirstFree)
{
    auto taken = [](std::initializer_list<int> numbers) {
        std::vector<std::string> names;
        for (int n : numbers)
            names.push_back("gsm.modem" + std::to_string(n));
        return names;
    };
    const auto all = taken({2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    const struct {
        const char *what;
        std::vector<std::string> in_use;
        bool builtin, primary;
        std::optional<std::string> name;
    } cases[] = {
        {"builtin primary", {}, true, true, "gsm.modem0"},
        {"builtin primary even when its name is taken", taken({0, 1}), true, true, "gsm.modem0"},
        {"builtin secondary", taken({0}), true, false, "gsm.modem1"},
        {"external modem", {}, false, false, "gsm.modem2"},
        {"external modem flagged primary", {}, false, true, "gsm.modem2"},
        {"the builtin names are not counted", taken({0, 1}), false, false, "gsm.modem2"},
        {"first free number", taken({2, 3}), false, false, "gsm.modem4"},
        {"a hole is reused", taken({2, 4, 5}), false, false, "gsm.modem3"},
        {"the last name", taken({2, 3, 4, 5, 6, 7, 8, 9, 10}), false, false, "gsm.modem11"},
        {"names run out after gsm.modem11", all, false, false, std::nullopt},
        {"builtin modems still get theirs", all, true, false, "gsm.modem1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string_view> views(c.in_use.begin(), c.in_use.end());
        EXPECT_EQ(get_free_name(views, c.builtin, c.primary), c.name);
    }
}

} // namespace
