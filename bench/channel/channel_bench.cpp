// CPU time the command channel spends per AT command: requests go one at a
// time through the comm manager to the simulated modem on a pseudo-terminal
// and back through the parser. Only this process is measured (getrusage of
// the process), not the simulator.
//
//   bench_channel [commands per kind, default 2000]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "wwan/ubox.h"

#include "comm/cmm_test_support.h"
#include "comm/comm_manager.h"
#include "comm/request.h"
#include "core/modem_driver.h"
#include "ubus/modem_api.h"

using namespace cmm_test;

namespace
{

// The modem answers at once, so the loop never waits on a latency.
const char scenario_text[] = "model Bench modem\n"
                             "set echo 1\nset verbose 1\nset csq 22\n"
                             "on ATE0\n  set echo 0\n  ok\n"
                             "on AT\n  ok\n"
                             "on AT+CSQ\n  line +CSQ: {csq},99\n  ok\n";

double cpu_seconds()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double wall_seconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

struct result {
    double cpu_us;
    double wall_us;
    size_t failed;
};

// Sends n commands one after another, each queued once the previous one is
// answered, as the modem instance's traffic mostly is.
result run(test_modem &mdm, const char *command, int n)
{
    size_t done_before = mdm.finished.size();
    double cpu0 = cpu_seconds();
    double wall0 = wall_seconds();
    for (int i = 0; i < n; i++) {
        request *req = create_request(ACT_AT_COMMAND, nullptr, nullptr, command,
                                      static_cast<uint32_t>(std::strlen(command)), 10, nullptr);
        list_add_tail(&req->list, mdm.request_list());
        mdm.cmm->ping();
        size_t want = done_before + static_cast<size_t>(i) + 1;
        if (!run_until(5000, [&] { return mdm.finished.size() >= want; })) {
            std::fprintf(stderr, "bench_channel: no answer to %s after %d commands\n", command, i);
            std::exit(1);
        }
    }
    double cpu = cpu_seconds() - cpu0;
    double wall = wall_seconds() - wall0;
    size_t failed = 0;
    for (size_t i = done_before; i < mdm.finished.size(); i++)
        failed += mdm.finished[i].failed ? 1 : 0;
    return {cpu * 1e6 / n, wall * 1e6 / n, failed};
}

} // namespace

int main(int argc, char **argv)
{
    int n = argc > 1 ? std::atoi(argv[1]) : 2000;
    if (n <= 0 || sim_executable().empty()) {
        std::fprintf(stderr, "usage: bench_channel [commands per kind]; needs wwan-modem-sim built\n");
        return 2;
    }
    temp_root root;
    std::ofstream(root.path() + "/bench.scn") << scenario_text;
    modem_sim::options opt;
    opt.scenario = root.path() + "/bench.scn";
    opt.link = root.path() + "/dev/ttyUSB2";
    modem_sim sim(root.path(), opt);
    if (sim.pty().empty()) {
        std::fprintf(stderr, "bench_channel: the simulator did not start\n");
        return 1;
    }

    modem_driver driver = {"Bench AT", "bench", nullptr, nullptr};
    uloop_init();
    {
        test_modem mdm("/dev/ttyUSB2", &driver);
        // The handshake is not measured; shorten its waits.
        cmm_timing timing;
        timing.settle_ms = 20;
        timing.escape_guard_ms = 20;
        timing.round_ms = 20;
        mdm.cmm = comm_manager::create(timing);
        if (!mdm.cmm || mdm.cmm->init(&mdm, 0) || !run_until(10000, [&] { return mdm.ready == 1; })) {
            std::fprintf(stderr, "bench_channel: the channel did not open\n");
            return 1;
        }
        run(mdm, "AT", 50); // warm-up
        result at = run(mdm, "AT", n);
        result csq = run(mdm, "AT+CSQ", n);
        std::printf("%-8s %6d commands  %7.1f us CPU/command  %7.1f us wall/command  %zu failed\n", "AT", n, at.cpu_us,
                    at.wall_us, at.failed);
        std::printf("%-8s %6d commands  %7.1f us CPU/command  %7.1f us wall/command  %zu failed\n", "AT+CSQ", n,
                    csq.cpu_us, csq.wall_us, csq.failed);
    }
    uloop_done();
    return 0;
}
