// The description files the package installs in /lib/network/wwan: one for
// every USB id of the model table (or a reason why not), each naming the
// models behind its ids, each read by the daemon's USB scan as the ports of
// a real device.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/discovery.h"
#include "core/modem_info.h"
#include "util/root_test_support.h"
#include "util/ujson.h"
#include "wwan/ubox.h"

namespace fs = std::filesystem;

namespace
{

const fs::path package_dir = fs::path(WWANCTL_SOURCE_DIR) / "openwrt/wwanctl/files/wwan";

// USB ids of the model table without a description file: the port layout of
// these platforms is not confirmed, and a wrong "control" would put AT
// commands on a diagnostic port.
const std::set<std::string> not_shipped = {
    "2c7c:6005",                                        // EC200A (ASR platform)
    "2c7c:6007",                                        // EG915Q
    "2c7c:0900",                                        // RG500U (Unisoc platform)
    "05c6:f601",                                        // Meiglink SLM750
    "2dee:4d57", "2dee:4d58",                           // Meiglink SLM770
    "2dee:4d22",                                        // Meiglink SLM828G
    "1bc7:1070", "1bc7:1071", "1bc7:1072", "1bc7:1073", // Telit FN990
};

struct layout_case {
    const char *what;
    std::map<int, std::string> ttys; // interface -> tty
    const char *cmd, *gps;           // null: no modem found
};

// Interfaces of the Qualcomm-based modules: 0 DM, 1 NMEA, 2 AT, 3 PPP.
// clang-format off
const layout_case layouts[] = {
    {"all", {{0, "ttyUSB0"}, {1, "ttyUSB1"}, {2, "ttyUSB2"}, {3, "ttyUSB3"}}, "/dev/ttyUSB2", "/dev/ttyUSB1"},
    {"a composition without the NMEA port", {{0, "ttyUSB0"}, {2, "ttyUSB1"}, {3, "ttyUSB2"}}, "/dev/ttyUSB1", ""},
    {"the AT port not bound yet", {{0, "ttyUSB0"}, {1, "ttyUSB1"}}, nullptr, nullptr},
};
// clang-format on

TEST(PackageDescriptions, CoverTheModelTableAndAreFoundOnTheirPorts)
{
    // USB ids of the table (rows 1 on) -> the models that show them.
    std::map<std::string, std::set<std::string>> models;
    for (size_t i = 1; i < MODEM_INFO_ROWS; i++) {
        std::string ids = g_midata[i].usb_ids;
        std::transform(ids.begin(), ids.end(), ids.begin(), [](unsigned char c) { return std::tolower(c); });
        models[ids].insert(g_midata[i].model);
    }
    std::set<std::string> files;
    for (const auto &e : fs::directory_iterator(package_dir))
        files.insert(e.path().filename().string());
    for (const auto &[ids, names] : models)
        EXPECT_NE(files.count(ids), not_shipped.count(ids)) << ids << ": a description or a reason, not both";
    for (const std::string &ids : not_shipped)
        EXPECT_TRUE(models.count(ids)) << ids << " is not in the table";

    for (const std::string &ids : files) {
        SCOPED_TRACE(ids);
        temp_root root;
        std::ifstream in(package_dir / ids);
        const std::string text(std::istreambuf_iterator<char>(in), {});
        root.write("/lib/network/wwan/" + ids, text);
        // sysfs gives ids in lower case; the description names every model
        // behind the ids and nothing else.
        ASSERT_TRUE(models.count(ids)) << "no model of the table shows these ids";
        // The "desc" text, read as the daemon reads it.
        auto file = ujson::create_file((package_dir / ids).c_str());
        ASSERT_TRUE(file);
        const blobmsg_policy policy[] = {{"desc", BLOBMSG_TYPE_STRING}};
        blob_attr *tb[1] = {};
        blobmsg_parse(policy, 1, tb, blob_data(file->get_blobmsg()), blob_len(file->get_blobmsg()));
        ASSERT_TRUE(tb[0]);
        const std::string value = blobmsg_get_string(tb[0]);
        std::set<std::string> named;
        std::stringstream parts(value);
        for (std::string part; std::getline(parts, part, '/');)
            named.insert(part);
        EXPECT_EQ(named, models[ids]) << "desc \"" << value << "\"";

        for (const layout_case &c : layouts) {
            SCOPED_TRACE(c.what);
            root.remove("/sys");
            const std::string dir = "/sys/bus/usb/devices/1-1";
            root.write(dir + "/idVendor", ids.substr(0, 4) + "\n");
            root.write(dir + "/idProduct", ids.substr(5) + "\n");
            root.write(dir + "/devpath", "1\n");
            root.write(dir + "/busnum", "1\n");
            for (const auto &[iface, tty] : c.ttys)
                fs::create_directories(root / (dir + ":1." + std::to_string(iface) + "/" + tty));
            std::vector<modem_descriptor> found;
            ASSERT_EQ(scan_usb_subsystem(found), 0);
            ASSERT_EQ(found.size(), c.cmd ? 1u : 0u);
            if (!c.cmd)
                continue;
            EXPECT_EQ(found[0].usb_id, "1-1");
            EXPECT_EQ(found[0].usb_ids, ids);
            EXPECT_EQ(found[0].baudrate, 115200);
            EXPECT_EQ(found[0].cmd_port, c.cmd);
            EXPECT_EQ(found[0].gps_port, c.gps);
            EXPECT_EQ(found[0].data_port, "");
        }
    }
}

} // namespace
