#include "tests/e2e/e2e_harness.h"

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <cstdlib>

#include "tests/support/process_test_support.h"
#include "wwan/ubox.h"

namespace e2e
{

std::unique_ptr<process> spawn(const std::vector<std::string> &argv, const std::string &out_file,
                               const std::string &err_file)
{
    std::vector<std::string> sh = {"/bin/sh", "-c",     R"(o=$1 e=$2; shift 2; exec "$@" >>"$o" 2>>"$e")",
                                   "sh",      out_file, err_file};
    sh.insert(sh.end(), argv.begin(), argv.end());
    return std::make_unique<process>(sh);
}

modem_sim::modem_sim(const temp_root &root, const std::string &tty, const std::string &scenario)
    : root_(root), tty_(tty)
{
    const std::string base = "/sim-" + tty;
    std::filesystem::create_directories(root / "/dev");
    proc_ = spawn({WWAN_MODEM_SIM, "-s", scenario, "-n", "-l", root / ("/dev/" + tty), "-c", root / (base + ".sock"),
                   "-t", root / (base + ".log")},
                  root / (base + ".out"), root / (base + ".err"));
    // Ready once it printed its terminal and answers on its control socket.
    ready_ = wait_until(10000,
                        [&] {
                            return !proc_->running() || (root.read(base + ".out").find('\n') != std::string::npos &&
                                                         control("mode").find("OK") != std::string::npos);
                        }) &&
             proc_->running();
}

std::string modem_sim::control(const std::string &command)
{
    int fd = usock(USOCK_UNIX, (root_ / ("/sim-" + tty_ + ".sock")).c_str(), nullptr);
    const std::string msg = command + "\n";
    std::string reply, buf, line = "-";
    const bool sent = fd >= 0 && write(fd, msg.data(), msg.size()) == static_cast<ssize_t>(msg.size());
    // Lines up to "OK" or "ERROR ..." (or until it stops answering).
    while (sent && line != "OK" && line.rfind("ERROR", 0) != 0 &&
           !((line = test_support::read_line(fd, buf, 5000)).empty() && buf.empty()))
        reply += line + "\n";
    if (fd >= 0)
        close(fd);
    return sent ? reply : "ERROR control socket";
}

int64_t modem_sim::stat(const std::string &name)
{
    const std::string stats = "\n" + control("stats");
    const size_t at = stats.find("\n" + name + " ");
    return at == std::string::npos ? -1 : std::strtoll(stats.c_str() + at + name.size() + 2, nullptr, 10);
}

std::string modem_sim::transcript() const
{
    return root_.read("/sim-" + tty_ + ".log");
}

void add_usb_device(const temp_root &root, const usb_device &dev)
{
    std::string dir = "/sys/bus/usb/devices/" + dev.usb_id();
    root.write(dir + "/idVendor", dev.vid + "\n");
    root.write(dir + "/idProduct", dev.pid + "\n");
    root.write(dir + "/devpath", dev.devpath + "\n");
    root.write(dir + "/busnum", dev.busnum + "\n");
    for (const auto &[interface, tty] : dev.ttys) {
        std::string iface = dir + ":1." + std::to_string(interface);
        root.write(iface + "/bInterfaceNumber", std::to_string(interface) + "\n");
        std::filesystem::create_directories(root / (iface + "/" + tty));
    }
}

std::string description(const std::string &model)
{
    return R"({"desc":")" + model + R"(","boudrate":115200,"control":2,"gps":1,"gps_optional":true})";
}

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
    return wait_until(timeout_ms, [&] {
        call_result r = bus.call(path, "info", "{}", 5000);
        return r.status == 0 && r.reply.number("request_count") == 0;
    });
}

void DaemonTest::SetUp()
{
    for (const char *exe : {WWANCTL_EXE, WWAN_BUSD, WWAN_MODEM_SIM})
        ASSERT_EQ(access(exe, X_OK), 0) << exe << " is not built";
    root = std::make_unique<temp_root>();
    for (const char *dir : {"/var/run/ubus", "/sys/bus/usb/devices", "/tmp"})
        std::filesystem::create_directories(*root / dir);
    bus_socket = *root / "/var/run/ubus/ubus.sock";
    broker = test_support::start_broker(WWAN_BUSD, bus_socket);
    ASSERT_GT(broker, 0);
    ASSERT_EQ(uloop_init(), 0);
    bus = std::make_unique<bus_client>(bus_socket);
    ASSERT_TRUE(bus->connected()) << "broker did not start";
    ASSERT_TRUE(bus->listen("gsm.*"));
}

void DaemonTest::TearDown()
{
    if (daemon && daemon->running() && !HasFailure()) {
        call_result r = bus->call("gsm", "info");
        EXPECT_EQ(r.status, 0) << "gsm info at the end";
        EXPECT_TRUE(r.reply.table("mdm_stats")) << r.reply.json();
        EXPECT_EQ(daemon->stop(SIGTERM, 15000), 0) << "wwanctl exit status on SIGTERM";
    }
    if (HasFailure()) {
        // The end of the log is what explains a failure.
        std::string log = root->read("/wwanctl.log");
        std::cerr << "---- wwanctl log (" << root->path() << ") ----\n"
                  << log.substr(log.size() > 12000 ? log.size() - 12000 : 0) << root->read("/wwanctl.err") << "----\n";
    }
    daemon.reset();
    sims.clear();
    bus.reset();
    test_support::stop_process(broker);
    uloop_done();
    root.reset();
}

modem_sim &DaemonTest::start_sim(const std::string &tty, const std::string &scenario)
{
    sims.push_back(std::make_unique<modem_sim>(*root, tty, scenario));
    EXPECT_TRUE(sims.back()->ready()) << "simulator on " << tty << " did not start";
    return *sims.back();
}

modem_sim &DaemonTest::plug(const usb_device &dev, const std::string &model, const std::string &scenario)
{
    add_usb_device(*root, dev);
    root->write("/lib/network/wwan/" + dev.vid + ":" + dev.pid, description(model));
    return start_sim(dev.ttys.at(2), scenario);
}

void DaemonTest::start_daemon()
{
    daemon = spawn({WWANCTL_EXE, "-D"}, *root / "/wwanctl.log", *root / "/wwanctl.err");
    ASSERT_TRUE(wait_until(start_ms, [&] { return bus->object_id("gsm") || !daemon->running(); }));
    ASSERT_TRUE(daemon->running()) << "wwanctl ended at start";
    // The object is added before the event handlers are registered; an
    // answered call means the event loop runs, so both are in place and
    // hot-plug events sent from now on are seen.
    ASSERT_EQ(bus->call("gsm", "info").status, 0);
}

uint32_t DaemonTest::wait_modem(const std::string &path, int timeout_ms)
{
    std::optional<uint32_t> id;
    wait_until(timeout_ms, [&] { return (id = bus->object_id(path)).has_value() || !daemon->running(); });
    EXPECT_TRUE(id.has_value()) << path << " did not appear";
    return id.value_or(0);
}

std::optional<int64_t> DaemonTest::num_modems()
{
    auto stats = bus->call("gsm", "info").reply.table("mdm_stats");
    return stats ? stats->number("num_modems") : std::nullopt;
}

bool DaemonTest::wait_log(const std::string &part, size_t n)
{
    return wait_until(start_ms, [&] { return logged(part) >= n; });
}

modem_sim &ServedModemTest::serve(const usb_device &dev, const std::string &model, const std::string &scenario)
{
    modem_sim &sim = plug(dev, model, scenario);
    root->write("/etc/board.json", board_1_1);
    start_daemon();
    EXPECT_NE(wait_modem(modem0), 0u);
    EXPECT_TRUE(wait_idle(*bus, modem0));
    EXPECT_TRUE(bus->subscribe(modem0));
    return sim;
}

bus_message ServedModemTest::ok(const std::string &method, const std::string &json)
{
    call_result r = bus->call(modem0, method, json);
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
    return wait_until(call_ms, [&] {
        for (const bus_event &e : bus->notifications_of(name))
            if (pred(e.data))
                return true;
        return false;
    });
}

} // namespace e2e
