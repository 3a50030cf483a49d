// Port paths from descriptions and hot-plug events; the bus socket under the root.
#include "util/root_path.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace
{

TEST(RootPath, OnlyPlainPathsUnderDevArePorts)
{
    const std::pair<std::string, bool> rows[] = {
        {"/dev/ttyUSB2", true},
        {"/dev/serial/by-id/usb-q", true},
        {"/dev/" + std::string(26, 'a'), true}, // 31 bytes
        {"/dev/" + std::string(27, 'a'), false},
        {"/etc/precious", false},
        {"/dev/../etc/precious", false},
        {"/dev/./ttyUSB2", false},
        {"/dev//ttyUSB2", false},
        {"/dev/ttyUSB2/", false},
        {"dev/ttyUSB2", false},
        {"/dev/tty\nUSB2", false},
        {std::string("/dev/tty\0USB2", 12), false},
        {"", false},
    };
    for (const auto &[path, ok] : rows)
        EXPECT_EQ(is_port_path(path), ok) << testing::PrintToString(path);
}

// Unset, empty or "/" is the real root; trailing slashes are trimmed.
TEST(RootPath, BusSocketFollowsTheRoot)
{
    const std::pair<const char *, const char *> rows[] = {
        {nullptr, "/var/run/ubus/ubus.sock"},
        {"", "/var/run/ubus/ubus.sock"},
        {"/", "/var/run/ubus/ubus.sock"},
        {"/tmp/r//", "/tmp/r/var/run/ubus/ubus.sock"},
    };
    const char *saved = std::getenv("WWANCTL_ROOT");
    const std::string keep = saved ? saved : "";
    for (const auto &[root, path] : rows) {
        root ? setenv("WWANCTL_ROOT", root, 1) : unsetenv("WWANCTL_ROOT");
        EXPECT_EQ(wwan_path(wwan_ubus_socket), path) << (root ? root : "(unset)");
    }
    saved ? setenv("WWANCTL_ROOT", keep.c_str(), 1) : unsetenv("WWANCTL_ROOT");
}

} // namespace
