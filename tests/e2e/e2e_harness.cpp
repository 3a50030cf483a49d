#include "tests/e2e/e2e_harness.h"

#include <sstream>

#include "wwan/ubox.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>

#include "tests/support/process_test_support.h"

namespace e2e {

namespace {

std::string to_upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return s;
}

} // namespace

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1))
        n++;
    return n;
}

void expect_exec(bus_client &bus, const std::string &path, const std::string &command, const std::string &response)
{
    SCOPED_TRACE(path + " exec " + command);
    call_result r = bus.call(path, "exec", R"({"command":")" + command + R"(","timeout":10})");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply.text("request"), command + "\r") << r.reply.json();
    EXPECT_EQ(r.reply.text("response"), response) << r.reply.json();
}

void expect_timeout_reply(const call_result &r, const std::string &command)
{
    EXPECT_TRUE(r.done);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.reply.text("request"), command + "\r") << r.reply.json();
    EXPECT_EQ(r.reply.text("response"), "") << r.reply.json();
    EXPECT_EQ(r.reply.number("errno"), 8) << r.reply.json();
    EXPECT_EQ(r.reply.text("error"), "Request timeout expired") << r.reply.json();
}

bool wait_idle(bus_client &bus, const std::string &path, int timeout_ms)
{
    return bus.wait_until(timeout_ms, [&] {
        call_result r = bus.call(path, "info", "{}", 5000);
        return r.status == 0 && r.reply.number("request_count") == 0;
    });
}

int64_t sim_stat(modem_sim &sim, const std::string &name)
{
    std::istringstream in(sim.control("stats"));
    std::string key;
    int64_t value = -1;
    while (in >> key) {
        if (key == name) {
            in >> value;
            return value;
        }
        in.ignore(1 << 20, '\n');
    }
    return -1;
}

std::string modem_func_text(int64_t func)
{
    switch (func) {
    case 0:
        return "Modem full mode";
    case 1:
        return "Modem data-only mode";
    case 2:
        return "Modem dynamic mode";
    case 3:
        return "Modem low power mode";
    case 4:
        return "Modem auto VoLTE mode";
    default:
        return "Unknown mode";
    }
}

// --- fixture -----------------------------------------------------------------------------

void DaemonTest::SetUp()
{
    for (const char *exe : {WWANCTL_EXE, WWAN_BUSD, WWAN_MODEM_SIM})
        ASSERT_EQ(access(exe, X_OK), 0) << exe << " is not built";
    root = std::make_unique<temp_root>();
    ASSERT_FALSE(root->path().empty());
    make_dirs(*root / "/var/run/ubus");
    make_dirs(*root / "/sys/bus/usb/devices");
    make_dirs(*root / "/tmp");
    bus_socket = *root / "/var/run/ubus/ubus.sock";
    log = std::make_unique<daemon_log>(*root / "/wwanctl.log");

    broker = test_support::start_broker(WWAN_BUSD, bus_socket);
    ASSERT_GT(broker, 0);
    ASSERT_EQ(uloop_init(), 0);
    bus = std::make_unique<bus_client>(bus_socket);
    ASSERT_TRUE(bus->connected()) << "broker did not start";
    ASSERT_TRUE(bus->listen("gsm.*"));
}

void DaemonTest::TearDown()
{
    if (HasFailure())
        std::cerr << diagnostics();
    if (daemon && daemon->running() && !exit_checked)
        daemon->stop(SIGKILL);
    daemon.reset();
    sims.clear();
    bus.reset();
    test_support::stop_process(broker);
    uloop_done();
    root.reset();
}

std::string DaemonTest::diagnostics() const
{
    std::string out;
    if (!root)
        return out;
    std::string text = read_file(*root / "/wwanctl.log");
    // The end of the log is what explains a failure; keep the report short.
    if (text.size() > 12000)
        text = "...\n" + text.substr(text.size() - 12000);
    out += "---- wwanctl stdout (" + root->path() + ") ----\n" + text;
    std::string err = read_file(*root / "/wwanctl.err");
    if (!err.empty())
        out += "---- wwanctl stderr ----\n" + err.substr(0, 8000);
    return out + "----\n";
}

modem_sim &DaemonTest::start_sim(const std::string &tty, const std::string &scenario)
{
    sims.push_back(std::make_unique<modem_sim>(*root, tty, scenario));
    EXPECT_TRUE(sims.back()->ready()) << "simulator on " << tty << " did not start";
    return *sims.back();
}

modem_sim &DaemonTest::plug_ec25(const usb_device &dev)
{
    return plug(dev, ec25_description, "ec25");
}

modem_sim &DaemonTest::plug(const usb_device &dev, const char *description, const std::string &scenario)
{
    add_usb_device(*root, dev);
    add_description(*root, dev.usb_ids(), description);
    return start_sim(dev.ttys.at(2), scenario);
}

void DaemonTest::spawn_daemon()
{
    daemon = std::make_unique<child_process>(std::vector<std::string>{WWANCTL_EXE, "-D"}, root->path(),
                                             *root / "/wwanctl.log", *root / "/wwanctl.err");
    ASSERT_TRUE(daemon->started());
}

void DaemonTest::start_daemon()
{
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    ASSERT_TRUE(bus->wait_until(start_ms, [&] { return bus->object_id("gsm") || !daemon->running(); }));
    ASSERT_TRUE(daemon->running()) << "wwanctl ended at start";
    ASSERT_TRUE(bus->object_id("gsm"));
    // The object is added before the event handlers are registered; an
    // answered call means the event loop runs, so both are in place and
    // hot-plug events sent from now on are seen.
    ASSERT_EQ(bus->call("gsm", "info").status, 0);
}

void DaemonTest::expect_serving()
{
    ASSERT_TRUE(daemon && daemon->running()) << "wwanctl is not running";
    call_result r = bus->call("gsm", "info");
    EXPECT_EQ(r.status, 0) << "gsm info";
    EXPECT_TRUE(r.reply.table("mdm_stats")) << r.reply.json();
}

void DaemonTest::expect_clean_exit()
{
    ASSERT_TRUE(daemon);
    exit_checked = true;
    EXPECT_EQ(daemon->stop(SIGTERM), 0) << "wwanctl exit status on SIGTERM";
}

uint32_t DaemonTest::wait_modem(const std::string &path, int timeout_ms)
{
    std::optional<uint32_t> id;
    bus->wait_until(timeout_ms, [&] { return (id = bus->object_id(path)).has_value() || !daemon->running(); });
    EXPECT_TRUE(id.has_value()) << path << " did not appear";
    return id.value_or(0);
}

std::optional<int64_t> DaemonTest::num_modems()
{
    call_result r = bus->call("gsm", "info");
    if (r.status != 0)
        return std::nullopt;
    auto stats = r.reply.table("mdm_stats");
    return stats ? stats->number("num_modems") : std::nullopt;
}

bool DaemonTest::wait_log(const std::string &message, int timeout_ms)
{
    return bus->wait_until(timeout_ms, [&] { return log->has(message); });
}

std::vector<std::string> DaemonTest::modem_forms(const std::string &before, const usb_device &dev,
                                                 const std::string &after)
{
    std::vector<std::string> out;
    for (const std::string &ids : {dev.usb_ids(), to_upper(dev.usb_ids())})
        out.push_back(before + "`" + dev.usb_id() + " [" + ids + "]`" + after);
    return out;
}

modem_sim &ServedModemTest::serve(const usb_device &dev, const char *description, const std::string &scenario)
{
    modem_sim &sim = description ? plug(dev, description, scenario) : plug_ec25(dev);
    write_board(*root, R"({"modems":[{"usb_id":"1-1","builtin":true,"primary":true}]})");
    start_daemon();
    EXPECT_NE(wait_modem(modem0), 0u);
    EXPECT_TRUE(wait_idle(*bus, modem0));
    EXPECT_TRUE(bus->subscribe(modem0));
    return sim;
}

bus_message ServedModemTest::ok(const std::string &method, const std::string &json)
{
    call_result r = bus->call(modem0, method, json);
    EXPECT_TRUE(r.done) << method;
    EXPECT_EQ(r.status, 0) << method;
    EXPECT_FALSE(r.reply.has("errno")) << method << " " << json << ": " << r.reply.json();
    return r.reply;
}

int64_t ServedModemTest::call_errno(const std::string &method, const std::string &json)
{
    call_result r = bus->call(modem0, method, json);
    EXPECT_TRUE(r.done) << method;
    return r.reply.number("errno").value_or(0);
}

bool ServedModemTest::notified(const std::string &name, const std::function<bool(const bus_message &)> &pred)
{
    return bus->wait_until(call_ms, [&] {
        for (const bus_event &e : bus->notifications_of(name))
            if (pred(e.data))
                return true;
        return false;
    });
}

} // namespace e2e
