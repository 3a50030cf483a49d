// The daemon as a real process for end-to-end tests: a temporary root laid out
// like a router's filesystem, the broker, simulated modems and wwanctl as
// child processes, a bus client of the test's own, and the daemon's log.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/e2e_bus.h"
#include "tests/e2e/e2e_process.h"
#include "tests/e2e/e2e_tree.h"

namespace e2e {

// Occurrences of what in text.
size_t count_of(const std::string &text, const std::string &what);

// exec of command on the modem object path answers request "<command>\r"
// with exactly response.
void expect_exec(bus_client &bus, const std::string &path, const std::string &command, const std::string &response);

// The watcher's answer to an expired request for command.
void expect_timeout_reply(const call_result &r, const std::string &command);

// Waits until the modem's queue is empty ("request_count" of its info).
bool wait_idle(bus_client &bus, const std::string &path, int timeout_ms = call_ms);

// A number from the simulator's `stats` ("executed 2"); -1 when absent.
int64_t sim_stat(modem_sim &sim, const std::string &name);

// The text of a modem function number, as get_default_modem_func reports it.
std::string modem_func_text(int64_t func);

// One root with the broker running in it, the test's bus client, and the
// daemon and simulators started on demand. The daemon must still serve
// `gsm info` at the end of each test and leave with status 0 on SIGTERM.
class DaemonTest : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // An EC25 device in the USB tree with its description file, and a
    // simulator behind its AT port.
    modem_sim &plug_ec25(const usb_device &dev);
    // The same for another modem: its description file and scenario.
    modem_sim &plug(const usb_device &dev, const char *description, const std::string &scenario);
    modem_sim &start_sim(const std::string &tty, const std::string &scenario = "ec25");

    // Starts wwanctl -D and waits until it serves its `gsm` object.
    void start_daemon();
    // Starts it without waiting for anything.
    void spawn_daemon();
    // The daemon is alive and `gsm info` answers.
    void expect_serving();
    // SIGTERM ends it with status 0.
    void expect_clean_exit();

    // Waits for the modem object path to be on the bus; its id.
    uint32_t wait_modem(const std::string &path, int timeout_ms = modem_ms);
    // `gsm info`'s "mdm_stats" "num_modems".
    std::optional<int64_t> num_modems();
    // Waits for message in the daemon's log.
    bool wait_log(const std::string &message, int timeout_ms = start_ms);
    // A message naming a modem ("`<usb id> [<vid:pid>]`") between before and
    // after, in both cases of the vendor:product text (the daemon keeps it as
    // sysfs gives it or upper-cases it).
    static std::vector<std::string> modem_forms(const std::string &before, const usb_device &dev,
                                                const std::string &after);
    std::string diagnostics() const;

    std::unique_ptr<temp_root> root;
    std::string bus_socket;
    pid_t broker = -1;
    std::unique_ptr<bus_client> bus;
    std::unique_ptr<child_process> daemon;
    std::unique_ptr<daemon_log> log;
    std::vector<std::unique_ptr<modem_sim>> sims;
    bool exit_checked = false;
};

// One modem served on the bus, with the test subscribed to its object.
class ServedModemTest : public DaemonTest
{
  protected:
    static constexpr const char *modem0 = "gsm.modem0";

    // Plugs the modem (an EC25 unless description names another) at USB
    // 1-1, starts the daemon and waits until gsm.modem0 is idle.
    modem_sim &serve(const usb_device &dev = usb_device{}, const char *description = nullptr,
                     const std::string &scenario = "ec25");
    // A call the modem answers without an error.
    bus_message ok(const std::string &method, const std::string &json = "{}");
    // The errno a call answers with (0 when it answers without one).
    int64_t call_errno(const std::string &method, const std::string &json);
    // Waits for a notification `name` whose value pred accepts.
    bool notified(const std::string &name, const std::function<bool(const bus_message &)> &pred);
};

} // namespace e2e
