// Modems that come and go while the daemon runs: the hot-plug events and
// the `gsm` object's attach and deattach.
#include "tests/e2e/e2e_harness.h"

namespace e2e {
namespace {

const char *const empty_board = R"({"modems":[],"blocked_modems":[]})";

// The hot-plug service's announcement of an EC25 whose AT port is ttyUSB5.
const char *const added_2_1 = R"({"usb_id":"2-1","cmd_port":"/dev/ttyUSB5","gps_port":"/dev/ttyUSB4",)"
                              R"("data_port":"","vidpid":"2c7c:0125","boudrate":115200})";

class Hotplug : public DaemonTest
{
  protected:
    size_t new_modem_notes(const std::string &object)
    {
        size_t n = 0;
        for (const bus_event &e : bus->notifications_of("gsm.new_modem"))
            n += e.data.text("object_name") == object;
        return n;
    }

    // Waits for the n-th "gsm.modem_gone" of usb_id and checks its payload.
    // With vanish the object must then leave the bus (unless it is created
    // again at once).
    void expect_gone(const std::string &usb_id, const std::string &object, uint32_t id, size_t n = 1,
                     bool vanish = true)
    {
        auto gone_of = [&] {
            std::vector<bus_event> out;
            for (const bus_event &e : bus->events_of("gsm.modem_gone"))
                if (e.data.text("modem_id") == usb_id)
                    out.push_back(e);
            return out;
        };
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return gone_of().size() >= n; })) << "no gsm.modem_gone";
        bus_message gone = gone_of()[n - 1].data;
        EXPECT_EQ(gone.text("object_name"), object) << gone.json();
        EXPECT_EQ(static_cast<uint32_t>(gone.number("object_id").value_or(0)), id) << gone.json();
        if (vanish) {
            EXPECT_TRUE(bus->wait_until(call_ms, [&] { return !bus->object_id(object); })) << object << " stays";
        }
    }
};

TEST_F(Hotplug, AddedModemIsServedUntilRemoved)
{
    write_board(*root, empty_board);
    start_sim("ttyUSB5");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_TRUE(bus->subscribe("gsm"));
    EXPECT_EQ(num_modems(), 0);

    ASSERT_EQ(bus->send_event("hotplug.modem_added", added_2_1), 0);
    uint32_t id = wait_modem("gsm.modem2");
    ASSERT_NE(id, 0u);
    ASSERT_TRUE(bus->wait_until(call_ms, [&] { return new_modem_notes("gsm.modem2") == 1; }));
    bus_message note = bus->notifications_of("gsm.new_modem").front().data;
    EXPECT_EQ(static_cast<uint32_t>(note.number("object_id").value_or(0)), id) << note.json();
    expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
    EXPECT_EQ(bus->call("gsm.modem2", "info").reply.text("modem_id"), "2-1");

    {
        SCOPED_TRACE("the same modem announced twice");
        ASSERT_EQ(bus->send_event("hotplug.modem_added", added_2_1), 0);
        usb_device dev{"2", "1", "2c7c", "0125", {}};
        ASSERT_TRUE(bus->wait_until(call_ms, [&] {
            return log->has_any(modem_forms("error: [MODEM_MANAGER] Modem ", dev, " already exists and is registered!"));
        })) << "duplicate not refused";
        EXPECT_EQ(bus->objects("gsm.modem*"), std::vector<std::string>{"gsm.modem2"});
        EXPECT_EQ(bus->object_id("gsm.modem2"), id);
        EXPECT_EQ(num_modems(), 1);
    }

    {
        SCOPED_TRACE("malformed and unknown payloads");
        const std::string added_error = "error: [MODEM_MANAGER] Unable to parse modem added arguments!";
        const std::string removed_error = "error: [MODEM_MANAGER] Unable to parse modem removed arguments!";
        ASSERT_EQ(bus->send_event("hotplug.modem_added", R"({"vidpid":"2c7c:0125","cmd_port":"/dev/ttyUSB5"})"), 0);
        ASSERT_TRUE(wait_log(added_error));
        ASSERT_EQ(bus->send_event("hotplug.modem_added",
                                  R"({"usb_id":7,"cmd_port":"/dev/ttyUSB5","vidpid":"2c7c:0125","boudrate":115200})"),
                  0);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return log->count(added_error) == 2; }));
        ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"usb_id":"2-1"})"), 0);
        ASSERT_TRUE(wait_log(removed_error));
        ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"id":"9-9"})"), 0);
        // The modem is untouched by all of them.
        expect_exec(*bus, "gsm.modem2", "AT", "\r\nOK\r\n");
        EXPECT_EQ(bus->object_id("gsm.modem2"), id);
        EXPECT_TRUE(bus->events_of("gsm.modem_gone").empty());
        EXPECT_EQ(num_modems(), 1);
    }

    {
        SCOPED_TRACE("removal");
        ASSERT_EQ(bus->send_event("hotplug.modem_removed", R"({"id":"2-1"})"), 0);
        ASSERT_NO_FATAL_FAILURE(expect_gone("2-1", "gsm.modem2", id));
        EXPECT_TRUE(log->has("debug: [MODEM_MANAGER] Removing modem 2-1..."));
        EXPECT_EQ(num_modems(), 0);
    }

    {
        SCOPED_TRACE("plugged in again");
        ASSERT_EQ(bus->send_event("hotplug.modem_added", added_2_1), 0);
        ASSERT_NE(wait_modem("gsm.modem2"), 0u);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return new_modem_notes("gsm.modem2") == 2; }));
        expect_exec(*bus, "gsm.modem2", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        EXPECT_EQ(num_modems(), 1);
    }

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

TEST_F(Hotplug, DeattachAndAttachByUsbId)
{
    usb_device dev;
    plug_ec25(dev);
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})");
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_TRUE(bus->subscribe("gsm"));
    uint32_t id = wait_modem("gsm.modem0");
    ASSERT_NE(id, 0u);
    expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");

    {
        SCOPED_TRACE("deattach");
        EXPECT_EQ(bus->call("gsm", "deattach", R"({"usbid":"1-1"})").status, 0);
        ASSERT_NO_FATAL_FAILURE(expect_gone("1-1", "gsm.modem0", id));
        EXPECT_TRUE(log->has("debug: [MODEM_MANAGER] Removing modem 1-1..."));
        EXPECT_EQ(num_modems(), 0);
    }

    {
        SCOPED_TRACE("attach brings it back from the USB tree");
        size_t notes = new_modem_notes("gsm.modem0");
        EXPECT_EQ(bus->call("gsm", "attach", R"({"usbid":"1-1"})").status, 0);
        id = wait_modem("gsm.modem0");
        ASSERT_NE(id, 0u);
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return new_modem_notes("gsm.modem0") == notes + 1; }));
        expect_exec(*bus, "gsm.modem0", "AT+CSQ", "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
        EXPECT_EQ(num_modems(), 1);
    }

    {
        SCOPED_TRACE("attach of a live modem creates it afresh");
        size_t notes = new_modem_notes("gsm.modem0");
        EXPECT_EQ(bus->call("gsm", "attach", R"({"usbid":"1-1"})").status, 0);
        ASSERT_NO_FATAL_FAILURE(expect_gone("1-1", "gsm.modem0", id, 2, false));
        uint32_t fresh = wait_modem("gsm.modem0");
        ASSERT_NE(fresh, 0u);
        EXPECT_NE(fresh, id) << "the old object is still there";
        ASSERT_TRUE(bus->wait_until(call_ms, [&] { return new_modem_notes("gsm.modem0") == notes + 1; }));
        expect_exec(*bus, "gsm.modem0", "AT", "\r\nOK\r\n");
    }

    {
        SCOPED_TRACE("unknown usb ids");
        EXPECT_EQ(bus->call("gsm", "attach", R"({"usbid":"7-7"})").status, UBUS_STATUS_NO_DATA);
        EXPECT_EQ(bus->call("gsm", "deattach", R"({"usbid":"7-7"})").status, UBUS_STATUS_NO_DATA);
        EXPECT_EQ(num_modems(), 1);
    }

    ASSERT_NO_FATAL_FAILURE(expect_serving());
    expect_clean_exit();
}

} // namespace
} // namespace e2e
