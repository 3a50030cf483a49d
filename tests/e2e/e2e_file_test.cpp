// Files on the modem through the real processes: a file of the router is
// uploaded through the AT channel byte for byte, listed, deleted, and a
// firmware update from an uploaded package reports its progress on the bus.
#include <fstream>
#include <string>

#include "tests/e2e/e2e_harness.h"

namespace e2e {
namespace {

using Files = ServedModemTest;

// Every byte value, over and over (CR, LF, Ctrl-Z, NUL, ESC, "+++" among them).
std::string every_byte(size_t n)
{
    std::string b;
    for (size_t i = 0; i < n; i++)
        b.push_back(static_cast<char>((i + i / 256) & 0xff));
    return b;
}

// The module's checksum, worked out here on its own.
int64_t module_checksum(const std::string &b)
{
    unsigned sum = 0;
    for (size_t i = 0; i < b.size(); i += 2)
        sum ^= static_cast<unsigned char>(b[i]) << 8 | (i + 1 < b.size() ? static_cast<unsigned char>(b[i + 1]) : 0);
    return sum;
}

TEST_F(Files, UploadListAndDeleteAFileOfEveryByteValue)
{
    modem_sim &sim = serve();
    ASSERT_FALSE(HasFatalFailure());
    const std::string data = every_byte(100 * 1024 + 3);
    std::ofstream(*root / "/tmp/blob.bin", std::ios::binary) << data;
    const int64_t sum = module_checksum(data);
    const std::string size = std::to_string(data.size());

    bus_message up = ok("upload_file", R"({"path":"/tmp/blob.bin","size":)" + size + R"(,"timeout":20})");
    EXPECT_EQ(up.text("name"), "blob.bin") << up.json();
    EXPECT_EQ(up.number("size"), static_cast<int64_t>(data.size()));
    EXPECT_EQ(up.number("checksum"), sum);
    char hex[8];
    snprintf(hex, sizeof(hex), "%x", static_cast<unsigned>(sum));
    EXPECT_NE(sim.control("ufs list").find("UFS blob.bin " + size + " " + hex + "\n"), std::string::npos)
        << sim.control("ufs list");

    bus_message list = ok("get_file_list");
    EXPECT_NE(list.json().find(R"({"name":"blob.bin","size":)" + size + "}"), std::string::npos) << list.json();
    bus_message space = ok("get_storage_space");
    EXPECT_EQ(space.number("total").value_or(0) - space.number("free").value_or(0),
              static_cast<int64_t>(data.size()))
        << space.json();

    // A size that is not the file's is refused before anything is sent.
    EXPECT_EQ(call_errno("upload_file", R"({"path":"/tmp/blob.bin","size":5})"), 2);
    EXPECT_EQ(call_errno("delete_file", R"({"path":"*"})"), 2);

    ok("delete_file", R"({"path":"blob.bin"})");
    EXPECT_NE(ok("get_file_list").json().find(R"("files":[])"), std::string::npos);
    EXPECT_NE(ok("get_file_list", R"({"path":"blob.bin"})").json().find(R"("files":[])"), std::string::npos);
    EXPECT_EQ(sim.control("ufs list"), "OK\n");
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Files, FirmwareUpdateFromAnUploadedPackageReportsItsProgress)
{
    serve();
    ASSERT_FALSE(HasFatalFailure());
    // Without the package the module refuses.
    EXPECT_NE(call_errno("dfota_upgrade", R"({"path":"update.bin"})"), 0);

    const std::string pkg = every_byte(4099);
    std::ofstream(*root / "/tmp/update.bin", std::ios::binary) << pkg;
    ok("upload_file", R"({"path":"/tmp/update.bin","size":4099})");
    ok("dfota_upgrade", R"({"path":"update.bin"})");

    auto states = [&] {
        std::string s;
        for (const bus_event &e : bus->events_of("gsm.fota_state")) {
            auto percent = e.data.number("percent");
            s += e.data.text("state").value_or("?") + (percent ? std::to_string(*percent) : "") + " ";
        }
        return s;
    };
    EXPECT_TRUE(bus->wait_until(15000, [&] { return states().find("END") != std::string::npos; })) << states();
    EXPECT_EQ(states(), "START UPDATING1 UPDATING50 UPDATING100 END ");
    for (const bus_event &e : bus->events_of("gsm.fota_state"))
        EXPECT_EQ(e.data.text("modem_id"), "1-1") << e.data.json();
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
