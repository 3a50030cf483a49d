#include "core/discovery.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/log.h"

namespace fs = std::filesystem;

namespace {

// Log output without the "[function:line] " part, which moves with the code.
std::string log_lines(const std::string &out)
{
    static const std::regex where(R"(^\[[^\]:]+:\d+\] )", std::regex::multiline);
    return std::regex_replace(out, where, "");
}

class TempRoot : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/wwan-disc-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("WWANCTL_ROOT", root.c_str(), 1);
        fs::create_directories(root + "/sys/bus/usb/devices");
        fs::create_directories(root + "/lib/network/wwan");
        fs::create_directories(root + "/etc");
    }
    void TearDown() override
    {
        unsetenv("WWANCTL_ROOT");
        log_level(0);
        fs::remove_all(root);
    }
    void write(const std::string &rel, const std::string &text)
    {
        fs::create_directories(fs::path(root + rel).parent_path());
        std::ofstream(root + rel) << text;
    }
    // "%R" in expected log text stands for the root.
    std::string with_root(std::string text)
    {
        for (size_t p; (p = text.find("%R")) != std::string::npos;)
            text.replace(p, 2, root);
        return text;
    }
    std::string root;
};

// ---- USB scan ---------------------------------------------------------------

// One device directory of the USB tree with its serial interfaces.
struct fake_device {
    std::string busnum, devpath, vid, pid;
    std::map<int, std::string> ttys; // interface number -> entry under it
    std::vector<std::string> omit;   // attribute files left out
};

const char *ec25_desc = R"({"desc":"EC25","boudrate":115200,"control":2,"gps":1,"data":3})";

struct scan_case {
    const char *what;
    std::vector<fake_device> devices;
    std::map<std::string, std::string> descriptions; // "vid:pid" -> file text
    std::vector<modem_descriptor> expect;            // sorted by usb_id
    std::string log;
};

class UsbScan : public TempRoot {
protected:
    void add(const fake_device &d)
    {
        std::string usb_id = d.busnum + "-" + d.devpath;
        std::string dir = "/sys/bus/usb/devices/" + usb_id;
        std::map<std::string, std::string> attrs = {
            {"busnum", d.busnum}, {"devpath", d.devpath}, {"idVendor", d.vid}, {"idProduct", d.pid}};
        for (auto &[name, value] : attrs)
            if (std::find(d.omit.begin(), d.omit.end(), name) == d.omit.end())
                write(dir + "/" + name, value + "\n");
        for (auto &[iface, tty] : d.ttys)
            fs::create_directories(root + "/sys/bus/usb/devices/" + usb_id + ":1." + std::to_string(iface) + "/" +
                                   tty);
    }
};
modem_descriptor desc(std::string id, std::string ids, int baud, std::string cmd, std::string gps, std::string data)
{
    return {std::move(id), std::move(ids), baud, std::move(cmd), std::move(gps), std::move(data)};
}

const std::map<int, std::string> four_ports = {{0, "ttyUSB0"}, {1, "ttyUSB1"}, {2, "ttyUSB2"}, {3, "ttyUSB3"}};

TEST_F(UsbScan, FindsModemsAndSkipsBadEntries)
{
    const scan_case cases[] = {
        {"ports by interface number",
         {{"1", "1", "2c7c", "0125", four_ports, {}}},
         {{"2c7c:0125", ec25_desc}},
         {desc("1-1", "2c7c:0125", 115200, "/dev/ttyUSB2", "/dev/ttyUSB1", "/dev/ttyUSB3")},
         ""},
        {"a device without a description file is ignored silently",
         {{"1", "0", "1d6b", "0002", four_ports, {}}, {"2", "1.3", "0bda", "8153", four_ports, {}}},
         {{"2c7c:0125", ec25_desc}},
         {},
         ""},
        {"a missing attribute file skips the entry",
         {{"1", "1", "2c7c", "0125", four_ports, {"busnum"}}, {"1", "2", "2c7c", "0125", four_ports, {"idProduct"}}},
         {{"2c7c:0125", ec25_desc}},
         {},
         ""},
        {"missing GNSS port skips the modem, and is the first port checked",
         {{"1", "1", "2c7c", "0125", {}, {}}},
         {{"2c7c:0125", ec25_desc}},
         {},
         "error: [MODEM_MANAGER] Failed to get gps serial port name for `1-1 [2c7c:0125]` modem in "
         "`%R/sys/bus/usb/devices/1-1:1.1` dir!\n"},
        {"optional GNSS port may be missing (boolean flag)",
         {{"1", "1", "2c7c", "0125", {{2, "ttyUSB2"}, {3, "ttyUSB3"}}, {}}},
         {{"2c7c:0125", R"({"boudrate":115200,"control":2,"gps":1,"gps_optional":true,"data":3})"}},
         {desc("1-1", "2c7c:0125", 115200, "/dev/ttyUSB2", "", "/dev/ttyUSB3")},
         ""},
        {"optional GNSS port may be missing (numeric flag)",
         {{"1", "1", "2c7c", "0125", {{2, "ttyUSB2"}}, {}}},
         {{"2c7c:0125", R"({"boudrate":9600,"control":2,"gps":1,"gps_optional":1})"}},
         {desc("1-1", "2c7c:0125", 9600, "/dev/ttyUSB2", "", "")},
         ""},
        {"missing data port skips the modem",
         {{"3", "1.2", "2c7c", "0125", {{1, "ttyUSB1"}, {2, "ttyUSB2"}}, {}}},
         {{"2c7c:0125", ec25_desc}},
         {},
         "error: [MODEM_MANAGER] Failed to get data serial port name for `3-1.2 [2c7c:0125]` modem in "
         "`%R/sys/bus/usb/devices/3-1.2:1.3` dir!\n"},
        {"data wins over data_secondary",
         {{"1", "1", "2c7c", "0125", four_ports, {}}},
         {{"2c7c:0125", R"({"boudrate":115200,"control":2,"gps":1,"data":3,"data_secondary":0})"}},
         {desc("1-1", "2c7c:0125", 115200, "/dev/ttyUSB2", "/dev/ttyUSB1", "/dev/ttyUSB3")},
         ""},
        {"data_secondary is the data port when data is absent",
         {{"1", "1", "2c7c", "0125", four_ports, {}}},
         {{"2c7c:0125", R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":0})"}},
         {desc("1-1", "2c7c:0125", 115200, "/dev/ttyUSB2", "/dev/ttyUSB1", "/dev/ttyUSB0")},
         ""},
        {"a missing data_secondary port leaves the data port empty",
         {{"1", "1", "2c7c", "0125", {{1, "ttyUSB1"}, {2, "ttyUSB2"}}, {}}},
         {{"2c7c:0125", R"({"boudrate":115200,"control":2,"gps":1,"data_secondary":4})"}},
         {desc("1-1", "2c7c:0125", 115200, "/dev/ttyUSB2", "/dev/ttyUSB1", "")},
         ""},
        {"serial_control selects a built-in UART instead of the control interface",
         {{"1", "1", "1e2d", "00b3", {{1, "ttyUSB1"}}, {}}},
         {{"1e2d:00b3", R"({"boudrate":921600,"control":2,"gps":1,"serial_control":1})"}},
         {desc("1-1", "1e2d:00b3", 921600, "/dev/ttyS1", "/dev/ttyUSB1", "")},
         ""},
        {"missing command port skips the modem",
         {{"1", "1", "2c7c", "0125", {{1, "ttyUSB1"}, {3, "ttyUSB3"}}, {}}},
         {{"2c7c:0125", ec25_desc}},
         {},
         "error: [MODEM_MANAGER] Failed to get cmd serial port name for `1-1 [2c7c:0125]` modem in "
         "`%R/sys/bus/usb/devices/1-1:1.2` dir!\n"},
        {"malformed description file",
         {{"1", "1", "2c7c", "0125", four_ports, {}}},
         {{"2c7c:0125", R"({"boudrate":115200,"control":2,)"}},
         {},
         "error: [MODEM_MANAGER] Unable to load %R/lib/network/wwan/2c7c:0125 file!\n"},
        {"an ACM port under the interface's tty class directory",
         {{"2", "1", "1bc7", "1201", {{0, "tty/ttyACM0"}, {6, "tty/ttyACM3"}}, {}}},
         {{"1bc7:1201", R"({"boudrate":115200,"control":0,"gps":6})"}},
         {desc("2-1", "1bc7:1201", 115200, "/dev/ttyACM0", "/dev/ttyACM3", "")},
         ""},
        {"one bad modem does not stop the scan",
         {{"1", "1", "2c7c", "0125", {}, {}}, {"1", "2", "2c7c", "0125", four_ports, {}}},
         {{"2c7c:0125", ec25_desc}},
         {desc("1-2", "2c7c:0125", 115200, "/dev/ttyUSB2", "/dev/ttyUSB1", "/dev/ttyUSB3")},
         "error: [MODEM_MANAGER] Failed to get gps serial port name for `1-1 [2c7c:0125]` modem in "
         "`%R/sys/bus/usb/devices/1-1:1.1` dir!\n"},
    };
    for (const scan_case &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root + "/sys");
        fs::remove_all(root + "/lib");
        fs::create_directories(root + "/sys/bus/usb/devices");
        for (auto &d : c.devices)
            add(d);
        for (auto &[ids, text] : c.descriptions)
            write("/lib/network/wwan/" + ids, text);

        std::vector<modem_descriptor> found;
        testing::internal::CaptureStdout();
        int ret = scan_usb_subsystem(found);
        std::string log = log_lines(testing::internal::GetCapturedStdout());
        EXPECT_EQ(ret, 0);
        std::sort(found.begin(), found.end(), [](auto &a, auto &b) { return a.usb_id < b.usb_id; });
        ASSERT_EQ(found.size(), c.expect.size());
        for (size_t i = 0; i < found.size(); i++) {
            EXPECT_EQ(found[i].usb_id, c.expect[i].usb_id);
            EXPECT_EQ(found[i].usb_ids, c.expect[i].usb_ids);
            EXPECT_EQ(found[i].baudrate, c.expect[i].baudrate);
            EXPECT_EQ(found[i].cmd_port, c.expect[i].cmd_port);
            EXPECT_EQ(found[i].gps_port, c.expect[i].gps_port);
            EXPECT_EQ(found[i].data_port, c.expect[i].data_port);
        }
        EXPECT_EQ(log, with_root(c.log));
    }
}

TEST_F(UsbScan, UnreadableDeviceTreeFailsTheScan)
{
    fs::remove_all(root + "/sys");
    std::vector<modem_descriptor> found;
    testing::internal::CaptureStdout();
    EXPECT_EQ(scan_usb_subsystem(found), -1);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              "error: [MODEM_MANAGER] Cannot open " + root + "/sys/bus/usb/devices directory!\n");
    EXPECT_TRUE(found.empty());
}

TEST_F(UsbScan, AttributeValueIsTheFirstLine)
{
    std::string dir = root + "/dev1";
    write("/dev1/product", "EG25-G\nsecond line\n");
    write("/dev1/empty", "");
    write("/dev1/crlf", "0125\r\n");
    EXPECT_EQ(get_dir_value(dir, "product"), "EG25-G");
    EXPECT_EQ(get_dir_value(dir, "crlf"), "0125");
    EXPECT_EQ(get_dir_value(dir, "empty"), std::nullopt);
    EXPECT_EQ(get_dir_value(dir, "missing"), std::nullopt);

    testing::internal::CaptureStdout();
    EXPECT_EQ(get_dir_value(root + "/nowhere", "idVendor"), std::nullopt);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              "error: [MODEM_MANAGER] Cannot open " + root + "/nowhere directory!\n");
}

TEST_F(UsbScan, SerialPortNameSkipsOtherEntries)
{
    fs::create_directories(root + "/if/driver");
    fs::create_directories(root + "/if/power");
    write("/if/uevent", "");
    EXPECT_EQ(get_serial_port_name(root + "/if"), std::nullopt);
    fs::create_directories(root + "/if/ttyUSB7");
    EXPECT_EQ(get_serial_port_name(root + "/if"), "/dev/ttyUSB7");

    log_level(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_serial_port_name(root + "/gone"), std::nullopt);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              "debug: [MODEM_MANAGER] Cannot open " + root + "/gone directory!\n");
}

// ---- board file -------------------------------------------------------------

struct board_case {
    const char *what;
    const char *board; // null: no file
    const char *usb_id;
    int ret;
    board_modem expect;
    std::string log;
};

class BoardFile : public TempRoot {
protected:
    void set_board(const char *text)
    {
        fs::remove(root + "/etc/board.json");
        if (text)
            write("/etc/board.json", text);
    }
};

const char *two_builtin = R"({"model":{"id":"rut"},"modems":[
    {"usb_id":"1-1","builtin":true,"primary":true},
    {"usb_id":"1-2","builtin":true,"primary":false},
    {"usb_id":"3-1","builtin":false}]})";

TEST_F(BoardFile, FlagsOfAModem)
{
    const board_case cases[] = {
        {"builtin primary", two_builtin, "1-1", 0, {true, true}, ""},
        {"builtin secondary", two_builtin, "1-2", 0, {true, false}, ""},
        {"listed external", two_builtin, "3-1", 0, {false, false}, ""},
        {"not listed", two_builtin, "1-1.4", 0, {false, false}, ""},
        {"flags as numbers", R"({"modems":[{"usb_id":"2-1","builtin":1,"primary":0},{"usb_id":"1-1","builtin":1}]})",
         "2-1", 0, {true, false}, ""},
        {"the only builtin modem is primary", R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"2-1"}]})",
         "1-1", 0, {true, true}, ""},
        {"unless it says otherwise", R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":false}]})", "1-1", 0,
         {true, false}, ""},
        {"two builtin modems without primary", R"({"modems":[{"usb_id":"1-1","builtin":true},
            {"usb_id":"1-2","builtin":true}]})",
         "1-1", 0, {true, false}, ""},
        {"no board file", nullptr, "1-1", 1, {}, "error: [MODEM_MANAGER] Unable to load %R/etc/board.json file!\n"},
        {"malformed board file", R"({"modems":[)", "1-1", 1, {},
         "error: [MODEM_MANAGER] Unable to load %R/etc/board.json file!\n"},
        {"no modem list", R"({"model":{"id":"rut"}})", "1-1", 1, {},
         "error: [MODEM_MANAGER] Array `modems` does not exist!\n"},
        {"an entry without usb_id", R"({"modems":[{"usb_id":"1-1","builtin":true},{"builtin":true}]})", "1-1", 1, {},
         "error: [MODEM_MANAGER] Failed to read modem board.json info!\n"},
        {"an entry that is no table", R"({"modems":["1-1"]})", "1-1", 1, {},
         "error: [MODEM_MANAGER] Failed to read modem board.json info!\n"},
    };
    for (const board_case &c : cases) {
        SCOPED_TRACE(c.what);
        set_board(c.board);
        board_modem flags{true, true};
        testing::internal::CaptureStdout();
        EXPECT_EQ(handle_board_json_modem_primary(c.usb_id, flags), c.ret);
        EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()), with_root(c.log));
        EXPECT_EQ(flags.builtin, c.expect.builtin);
        EXPECT_EQ(flags.primary, c.expect.primary);
    }
}

TEST_F(BoardFile, SingleBuiltinModem)
{
    const struct {
        const char *board;
        bool single;
    } cases[] = {
        {R"({"modems":[{"usb_id":"1-1","builtin":true}]})", true},
        {R"({"modems":[{"usb_id":"1-1","builtin":true},{"usb_id":"2-1","builtin":false}]})", true},
        {two_builtin, false},
        {R"({"modems":[{"usb_id":"2-1"}]})", false},
        {R"({"modems":[]})", false},
        {nullptr, false},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.board ? c.board : "no file");
        set_board(c.board);
        testing::internal::CaptureStdout();
        EXPECT_EQ(is_single_builtin_modem(), c.single);
        testing::internal::GetCapturedStdout();
    }
}

TEST_F(BoardFile, BlockedModems)
{
    const char *board = R"({"modems":[],"blocked_modems":["1-1.4",7,"2-1"]})";
    const struct {
        const char *what;
        const char *board;
        const char *usb_id;
        bool blocked;
        std::string log;
    } cases[] = {
        {"listed", board, "1-1.4", true,
         "error: [MODEM_MANAGER] Modem `1-1.4 [2c7c:0125]` is on the black list! Skipping...\n"},
        {"last of the list", board, "2-1", true,
         "error: [MODEM_MANAGER] Modem `2-1 [2c7c:0125]` is on the black list! Skipping...\n"},
        {"a prefix of a listed id is not listed", board, "1-1", false, ""},
        {"not listed", board, "3-1", false, ""},
        {"no array", R"({"modems":[]})", "1-1.4", false,
         "error: [MODEM_MANAGER] Array `blocked_modems` does not exist!\n"},
        {"no board file", nullptr, "1-1.4", false, "error: [MODEM_MANAGER] Unable to load %R/etc/board.json file!\n"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_board(c.board);
        testing::internal::CaptureStdout();
        EXPECT_EQ(is_modem_blocked(c.usb_id, "2c7c:0125"), c.blocked);
        EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()), with_root(c.log));
    }
}

TEST_F(BoardFile, OneReadingDecidesANewModem)
{
    set_board(R"({"modems":[{"usb_id":"1-1","builtin":true}],"blocked_modems":["3-1"]})");
    board_modem flags;
    EXPECT_EQ(check_board("1-1", "2c7c:0125", flags), board_verdict::serve);
    EXPECT_TRUE(flags.builtin && flags.primary);
    EXPECT_EQ(check_board("2-1", "2c7c:0125", flags), board_verdict::serve);
    EXPECT_FALSE(flags.builtin || flags.primary);
    testing::internal::CaptureStdout();
    EXPECT_EQ(check_board("3-1", "2c7c:0125", flags), board_verdict::blocked);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              "error: [MODEM_MANAGER] Modem `3-1 [2c7c:0125]` is on the black list! Skipping...\n");

    // No "modems" array: served as an external modem, the gap logged once.
    set_board(R"({"blocked_modems":[]})");
    testing::internal::CaptureStdout();
    EXPECT_EQ(check_board("1-1", "2c7c:0125", flags), board_verdict::serve);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              "error: [MODEM_MANAGER] Array `modems` does not exist!\n");

    set_board(nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(check_board("1-1", "2c7c:0125", flags), board_verdict::unreadable);
    EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()),
              with_root("error: [MODEM_MANAGER] Unable to load %R/etc/board.json file!\n"));
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
        {"names run out after gsm.modem11", taken({2, 3, 4, 5, 6, 7, 8, 9, 10, 11}), false, false, std::nullopt},
        {"builtin modems still get theirs", taken({2, 3, 4, 5, 6, 7, 8, 9, 10, 11}), true, false, "gsm.modem1"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<std::string_view> views(c.in_use.begin(), c.in_use.end());
        EXPECT_EQ(get_free_name(views, c.builtin, c.primary), c.name);
    }
}

} // namespace
