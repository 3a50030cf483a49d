// Port paths from descriptions and hot-plug events.
#include "util/root_path.h"

#include <gtest/gtest.h>

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
