// Port paths from descriptions and hot-plug events.
#include "util/root_path.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace
{

TEST(IsPortPath, OnlyPlainPathsUnderDevPass)
{
    struct row {
        std::string path;
        bool ok;
    } rows[] = {
        {"/dev/ttyUSB2", true},
        {"/dev/ttyS1", true},
        {"/dev/serial/by-id/usb-q", true},
        {"/dev/" + std::string(26, 'a'), true}, // 31 bytes
        {"/dev/" + std::string(27, 'a'), false},
        {"/etc/precious", false},
        {"/dev/../etc/precious", false},
        {"/dev/./ttyUSB2", false},
        {"/dev//ttyUSB2", false},
        {"/dev/", false},
        {"/dev/ttyUSB2/", false},
        {"dev/ttyUSB2", false},
        {"/devices/ttyUSB2", false},
        {"/dev/tty\nUSB2", false},
        {std::string("/dev/tty\0USB2", 12), false},
        {"", false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.path));
        EXPECT_EQ(is_port_path(r.path), r.ok);
    }
}

} // namespace

namespace
{

// The bus socket follows the root like every other path.
TEST(BusSocket, PlacedUnderTheRoot)
{
    struct row {
        const char *root; // null: unset
        const char *path;
    } rows[] = {
        {nullptr, "/var/run/ubus/ubus.sock"},
        {"", "/var/run/ubus/ubus.sock"},
        {"/", "/var/run/ubus/ubus.sock"},
        {"/tmp/r", "/tmp/r/var/run/ubus/ubus.sock"},
        {"/tmp/r//", "/tmp/r/var/run/ubus/ubus.sock"},
    };
    const char *saved = std::getenv("WWANCTL_ROOT");
    std::string keep = saved ? saved : "";
    for (const auto &r : rows) {
        SCOPED_TRACE(r.root ? r.root : "(unset)");
        if (r.root)
            setenv("WWANCTL_ROOT", r.root, 1);
        else
            unsetenv("WWANCTL_ROOT");
        EXPECT_EQ(wwan_path(wwan_ubus_socket), r.path);
    }
    if (saved)
        setenv("WWANCTL_ROOT", keep.c_str(), 1);
    else
        unsetenv("WWANCTL_ROOT");
}

} // namespace
