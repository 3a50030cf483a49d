// The daemon as a real process for end-to-end tests: a temporary root laid out
// like a router's filesystem, the broker, simulated modems and wwanctl as
// child processes, a bus client of the test's own, and the daemon's log.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "src/util/root_test_support.h"
#include "tests/bus/bus_harness.h"
#include "tests/e2e/e2e_bus.h"

namespace e2e
{

using bus_test::process;
using bus_test::wait_until;

// argv as a child process (with the test's environment, WWANCTL_ROOT
// included), its stdout and stderr appended to out_file and err_file.
std::unique_ptr<process> spawn(const std::vector<std::string> &argv, const std::string &out_file,
                               const std::string &err_file);

// wwan-modem-sim on a pty linked at $ROOT/dev/<tty>, with its control socket
// and transcript in the root.
class modem_sim
{
  public:
    // scenario: a name under tools/modem-sim/scenarios.
    modem_sim(const temp_root &root, const std::string &tty, const std::string &scenario);
    bool ready() const { return ready_; }
    // Runs an operator command; its reply ends with "OK" or "ERROR ...".
    std::string control(const std::string &command);
    // A number of its `stats` ("received 2"); -1 when absent.
    int64_t stat(const std::string &name);
    // Everything it sent and received so far.
    std::string transcript() const;
    // Ends it without a chance to clean up, as a modem pulled out would.
    void kill_hard() { proc_->stop(SIGKILL); }

  private:
    const temp_root &root_;
    std::string tty_;
    std::unique_ptr<process> proc_;
    bool ready_ = false;
};

// One entry of /sys/bus/usb/devices: the device directory with its attribute
// files and, per interface, the directory "<usb id>:1.<n>/<tty>".
struct usb_device {
    std::string busnum = "1";
    std::string devpath = "1";
    std::string vid = "2c7c";
    std::string pid = "0125";
    std::map<int, std::string> ttys = {{1, "ttyUSB1"}, {2, "ttyUSB2"}};

    std::string usb_id() const { return busnum + "-" + devpath; }
};

void add_usb_device(const temp_root &root, const usb_device &dev);

// The description files: AT port on interface 2, optional GNSS on 1.
std::string description(const std::string &model);

constexpr const char *board_1_1 = R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})";

// Occurrences of what in text.
size_t count_of(const std::string &text, const std::string &what);

// exec of command on the modem object path answers request "<command>\r"
// with exactly response.
void expect_exec(bus_client &bus, const std::string &path, const std::string &command, const std::string &response);

// The watcher's answer to an expired request for command.
void expect_timeout_reply(const call_result &r, const std::string &command);

// Waits until the modem's queue is empty ("request_count" of its info).
bool wait_idle(bus_client &bus, const std::string &path, int timeout_ms = call_ms);

// One root with the broker running in it, the test's bus client, and the
// daemon and simulators started on demand. A daemon still running when the
// test ends must serve `gsm info` and leave with status 0 on SIGTERM.
class DaemonTest : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // A device in the USB tree with its description file, and a simulator
    // behind its AT port.
    modem_sim &plug(const usb_device &dev, const std::string &model = "EC25", const std::string &scenario = "ec25");
    modem_sim &start_sim(const std::string &tty, const std::string &scenario = "ec25");

    // Starts wwanctl -D and waits until it serves its `gsm` object.
    void start_daemon();
    // Waits for the modem object path to be on the bus; its id.
    uint32_t wait_modem(const std::string &path, int timeout_ms = modem_ms);
    // `gsm info`'s "mdm_stats" "num_modems".
    std::optional<int64_t> num_modems();
    // Lines of the daemon's log that contain part.
    size_t logged(const std::string &part) const { return count_of(root->read("/wwanctl.log"), part); }
    bool wait_log(const std::string &part, size_t n = 1);

    std::unique_ptr<temp_root> root;
    std::string bus_socket;
    pid_t broker = -1;
    std::unique_ptr<bus_client> bus;
    std::unique_ptr<process> daemon;
    std::vector<std::unique_ptr<modem_sim>> sims;
};

// One modem served on the bus, with the test subscribed to its object.
class ServedModemTest : public DaemonTest
{
  protected:
    static constexpr const char *modem0 = "gsm.modem0";

    // Plugs the modem at USB 1-1, starts the daemon and waits until
    // gsm.modem0 is idle.
    modem_sim &serve(const usb_device &dev = usb_device{}, const std::string &model = "EC25",
                     const std::string &scenario = "ec25");
    // A call the modem answers without an error.
    bus_message ok(const std::string &method, const std::string &json = "{}");
    // The errno a call answers with (0 when it answers without one).
    int64_t call_errno(const std::string &method, const std::string &json);
    // Waits for a notification `name` whose value pred accepts.
    bool notified(const std::string &name, const std::function<bool(const bus_message &)> &pred);
};

} // namespace e2e
