// Broken configuration and trees: the daemon logs what is wrong, leaves the
// modem concerned out and keeps serving.
#include "tests/e2e/e2e_harness.h"
#include "tests/support/process_test_support.h"

namespace e2e {
namespace {

class BadInput : public DaemonTest
{
  protected:
    // Nothing was ever written to the modem behind sim.
    static void expect_untouched(modem_sim &sim)
    {
        EXPECT_EQ(sim.transcript().find(" in  "), std::string::npos) << sim.transcript();
    }
};

TEST_F(BadInput, UnreadableBoardFileRefusesTheModem)
{
    usb_device dev;
    modem_sim &sim = plug_ec25(dev);
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true)");
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    ASSERT_TRUE(wait_log("error: [MODEM_MANAGER] Unable to load " + (*root / "/etc/board.json") + " file!"));
    // Refused when it was found: nothing will come of it later.
    EXPECT_FALSE(bus->wait_until(settle_ms, [&] { return !bus->objects("gsm.modem*").empty(); }));
    EXPECT_EQ(num_modems(), 0);
    expect_untouched(sim);

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(BadInput, BrokenDescriptionsAndMissingPortsLeaveOnlyTheGoodModem)
{
    usb_device good;
    plug_ec25(good);
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})");

    // Each device has a working modem behind the port its description would
    // name, so only the daemon's checks keep it out.
    struct broken {
        usb_device dev;
        const char *description;
        std::string error;
    };
    const std::string devices = *root / "/sys/bus/usb/devices/";
    std::vector<broken> cases = {
        {{"2", "1", "2c7c", "0306", {{1, "ttyUSB5"}, {2, "ttyUSB6"}}},
         R"({"desc":"EG06","boudrate":115200,"control":2,)",
         "error: [MODEM_MANAGER] Unable to load " + (*root / "/lib/network/wwan/2c7c:0306") + " file!"},
        {{"3", "1", "2c7c", "0121", {{1, "ttyUSB8"}, {2, "ttyUSB9"}}},
         R"({"desc":"EC21","boudrate":115200,"control":3,"gps":1,"gps_optional":true})",
         "error: [MODEM_MANAGER] Failed to get cmd serial port name for `3-1 [2c7c:0121]` modem in `" + devices +
             "3-1:1.3` dir!"},
        {{"4", "1", "2c7c", "0296", {{1, "ttyUSB11"}, {2, "ttyUSB12"}}},
         R"({"desc":"BG96","boudrate":115200,"control":2,"gps":4,"gps_optional":false})",
         "error: [MODEM_MANAGER] Failed to get gps serial port name for `4-1 [2c7c:0296]` modem in `" + devices +
             "4-1:1.4` dir!"},
        {{"5", "1", "2c7c", "0800", {{1, "ttyUSB14"}, {2, "ttyUSB15"}}},
         R"({"desc":"RM500Q","boudrate":115200,"control":2,"gps":1,"data":4})",
         "error: [MODEM_MANAGER] Failed to get data serial port name for `5-1 [2c7c:0800]` modem in `" + devices +
             "5-1:1.4` dir!"},
    };
    std::vector<modem_sim *> untouched;
    for (const broken &c : cases) {
        add_usb_device(*root, c.dev);
        add_description(*root, c.dev.usb_ids(), c.description);
        untouched.push_back(&start_sim(c.dev.ttys.at(2)));
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    ASSERT_NE(wait_modem("gsm.modem0"), 0u);
    for (const broken &c : cases)
        EXPECT_TRUE(wait_log(c.error)) << c.error;
    expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
    EXPECT_EQ(bus->objects("gsm.modem*"), std::vector<std::string>{"gsm.modem0"});
    EXPECT_EQ(num_modems(), 1);
    for (modem_sim *sim : untouched)
        expect_untouched(*sim);

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(BadInput, AnnouncedModemWhosePortCannotBeOpenedIsLeftOut)
{
    write_board(*root, R"({"modems":[]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_EQ(bus->send_event("hotplug.modem_added", R"({"usb_id":"6-1","cmd_port":"/dev/ttyUSB40",)"
                                                     R"("gps_port":"","data_port":"","vidpid":"2c7c:0125",)"
                                                     R"("boudrate":115200})"),
              0);
    usb_device dev{"6", "1", "2c7c", "0125", {}};
    ASSERT_TRUE(bus->wait_until(start_ms, [&] {
        return log->has_any(modem_forms("error: [MODEM_MANAGER] Unable to initialize ", dev, " modem!"));
    }));
    EXPECT_TRUE(log->has("error: [CMM] Failed to open modem at `" + (*root / "/dev/ttyUSB40") + "` path!"));
    EXPECT_TRUE(log->has_any(modem_forms("error: [MODEM] Failed to initialize comm manager for ", dev, " modem!")));
    EXPECT_TRUE(log->has_any(modem_forms("error: [MODEM_MANAGER] Failed to initialize ", dev, " modem!")));
    EXPECT_EQ(num_modems(), 0);
    EXPECT_TRUE(bus->objects("gsm.modem*").empty());
    // Its removal finds nothing to remove (checked once a later call was
    // answered, so the event has been handled).
    ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"id":"6-1"})"), 0);
    ASSERT_NO_FATAL_FAILURE(expect_serving());
    EXPECT_TRUE(bus->events_of("gsm.modem_gone").empty());
    EXPECT_FALSE(log->has("debug: [MODEM_MANAGER] Removing modem 6-1..."));
    expect_clean_exit();
}

TEST_F(BadInput, WithoutTheBusTheDaemonEndsWithStatus1)
{
    plug_ec25(usb_device{});
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})");
    test_support::stop_process(broker);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    EXPECT_EQ(daemon->wait_exit(start_ms), 1);
    EXPECT_EQ(log->count_containing("Unable to initialize modem manager!"), 1u) << log->text();
    exit_checked = true;
}

} // namespace
} // namespace e2e
