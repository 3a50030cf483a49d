// The description files the package installs in /lib/network/wwan: one for
// every USB id of the model table (or a reason why not), each naming the
// models behind its ids, each read by the daemon's USB scan as the ports of
// a real device.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "core/discovery.h"
#include "core/modem_info.h"
#include "util/ujson.h"

namespace fs = std::filesystem;

namespace {

const fs::path package_dir = fs::path(WWANCTL_SOURCE_DIR) / "openwrt/wwanctl/files/wwan";

// USB ids of the model table without a description file: the port layout of
// these platforms is not confirmed, and a wrong "control" would put AT
// commands on a diagnostic port.
const std::map<std::string, std::string> not_shipped = {
    {"2c7c:6005", "EC200A (ASR platform)"},
    {"2c7c:6007", "EG915Q"},
    {"2c7c:0900", "RG500U (Unisoc platform)"},
    {"05c6:f601", "Meiglink SLM750"},
    {"2dee:4d57", "Meiglink SLM770"},
    {"2dee:4d58", "Meiglink SLM770"},
    {"2dee:4d22", "Meiglink SLM828G"},
    {"1bc7:1070", "Telit FN990"},
    {"1bc7:1071", "Telit FN990"},
    {"1bc7:1072", "Telit FN990"},
    {"1bc7:1073", "Telit FN990"},
};

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// USB ids of the table (rows 1 on) -> the models that show them.
std::map<std::string, std::set<std::string>> table_models()
{
    std::map<std::string, std::set<std::string>> out;
    for (size_t i = 1; i < MODEM_INFO_ROWS; i++)
        out[lower(g_midata[i].usb_ids)].insert(g_midata[i].model);
    return out;
}

std::vector<std::string> shipped()
{
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(package_dir))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The "desc" text of a description file, read as the daemon reads it.
std::string desc_of(const std::string &name)
{
    auto file = ujson::create_file((package_dir / name).c_str());
    if (!file)
        return "<unreadable>";
    const blobmsg_policy policy[] = {{"desc", BLOBMSG_TYPE_STRING}};
    blob_attr *tb[1] = {};
    blob_attr *root = file->get_blobmsg();
    blobmsg_parse(policy, 1, tb, blob_data(root), blob_len(root));
    return tb[0] ? blobmsg_get_string(tb[0]) : "<no desc>";
}

TEST(PackageDescriptions, CoverTheModelTable)
{
    auto models = table_models();
    std::vector<std::string> files = shipped();
    ASSERT_FALSE(files.empty());
    for (const std::string &f : files) {
        SCOPED_TRACE(f);
        EXPECT_EQ(f, lower(f)) << "sysfs gives ids in lower case";
        EXPECT_TRUE(models.count(f)) << "no model of the table shows these ids";
        EXPECT_FALSE(not_shipped.count(f)) << "listed as not shipped";
    }
    for (const auto &[ids, names] : models) {
        bool has_file = std::binary_search(files.begin(), files.end(), ids);
        EXPECT_TRUE(has_file || not_shipped.count(ids)) << ids << " has neither a description nor a reason";
    }
    for (const auto &[ids, why] : not_shipped)
        EXPECT_TRUE(models.count(ids)) << ids << " (" << why << ") is not in the table";
}

TEST(PackageDescriptions, NameTheModelsBehindTheirIds)
{
    auto models = table_models();
    for (const std::string &f : shipped()) {
        SCOPED_TRACE(f);
        std::string desc = desc_of(f);
        std::set<std::string> named;
        std::stringstream in(desc);
        for (std::string part; std::getline(in, part, '/');)
            named.insert(part);
        // Every model behind the ids and nothing else, in the table's order
        // of appearance or any other.
        EXPECT_EQ(named, models[f]) << "desc \"" << desc << "\"";
    }
}

// ---- the daemon's scan over a device of each shipped model ------------------

class PackageScan : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/wwan-pkg-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("WWANCTL_ROOT", root.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("WWANCTL_ROOT");
        fs::remove_all(root);
    }
    void write(const std::string &rel, const std::string &text)
    {
        fs::create_directories(fs::path(root + rel).parent_path());
        std::ofstream(root + rel) << text;
    }
    // Device 1-1 with the ids of the file name and a tty per interface.
    void plug(const std::string &ids, const std::map<int, std::string> &ttys)
    {
        std::string dir = "/sys/bus/usb/devices/1-1";
        write(dir + "/idVendor", ids.substr(0, 4) + "\n");
        write(dir + "/idProduct", ids.substr(5) + "\n");
        write(dir + "/devpath", "1\n");
        write(dir + "/busnum", "1\n");
        for (const auto &[iface, tty] : ttys)
            fs::create_directories(root + dir + ":1." + std::to_string(iface) + "/" + tty);
        fs::create_directories(root + "/lib/network/wwan");
        fs::copy_file(package_dir / ids, root + "/lib/network/wwan/" + ids);
    }
    std::string root;
};

struct layout_case {
    const char *what;
    std::map<int, std::string> ttys;
    bool found;
    const char *cmd, *gps;
};

TEST_F(PackageScan, FindsEachShippedModelOnItsPorts)
{
    // Interfaces of the Qualcomm-based modules: 0 DM, 1 NMEA, 2 AT, 3 PPP.
    const layout_case cases[] = {
        {"all serial interfaces",
         {{0, "ttyUSB0"}, {1, "ttyUSB1"}, {2, "ttyUSB2"}, {3, "ttyUSB3"}},
         true,
         "/dev/ttyUSB2",
         "/dev/ttyUSB1"},
        {"a composition without the NMEA port", {{0, "ttyUSB0"}, {2, "ttyUSB1"}, {3, "ttyUSB2"}}, true, "/dev/ttyUSB1",
         ""},
        {"the AT port not bound yet", {{0, "ttyUSB0"}, {1, "ttyUSB1"}}, false, "", ""},
    };
    for (const std::string &ids : shipped()) {
        for (const layout_case &c : cases) {
            SCOPED_TRACE(ids + ": " + c.what);
            fs::remove_all(root);
            fs::create_directories(root);
            plug(ids, c.ttys);
            std::vector<modem_descriptor> found;
            ASSERT_EQ(scan_usb_subsystem(found), 0);
            if (!c.found) {
                EXPECT_TRUE(found.empty());
                continue;
            }
            ASSERT_EQ(found.size(), 1u);
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
