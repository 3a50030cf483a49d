// wwanctl: owns every cellular modem of the router and serves them on the bus.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <getopt.h>

#include "core/analysis.h"
#include "core/modem_driver.h"
#include "core/modem_manager.h"
#include "util/log.h"

#ifndef WWANCTL_CHANNEL
#define WWANCTL_CHANNEL "canary"
#endif
#ifndef WWANCTL_REVISION
#define WWANCTL_REVISION "807dd7cb552"
#endif

namespace {

constexpr const char *prog_name = "wwanctl";

uint8_t g_compress = 0;
uint8_t g_analyze = 0;

const struct option long_options[] = {
    {"compress", no_argument, nullptr, 'c'},
    {"debug", no_argument, nullptr, 'D'},
    {"help", no_argument, nullptr, 'h'},
    {"analyze", no_argument, nullptr, 'a'},
    {nullptr, 0, nullptr, 0},
};

void usage()
{
    fprintf(stderr,
            "Usage: %s [options]\n"
            "Options:\n"
            "  -c | --compress    Enable log compressing\n"
            "  -D | --debug       Enable debugging output\n"
            "  -a | --analyze     Run driver analysis\n"
            "  -h | --help        Print this message\n\n",
            prog_name);
}

void out(const char *text)
{
    fputs(text, stdout);
    fflush(stdout);
}

void banner()
{
    printf("%s init\n", prog_name);
    fflush(stdout);
    printf("%s %s build git#%s\n", prog_name, WWANCTL_CHANNEL, WWANCTL_REVISION);
    fflush(stdout);
    out("\n");
    out("AT traffic support:  ");
    out("yes\n");
    out("Baseband feature support: ");
    out("no\n");
    out("\n");
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    log_level(0);

    int opt;
    while ((opt = getopt_long(argc, argv, "cDha", long_options, nullptr)) != -1) {
        switch (opt) {
        case 'c':
            g_compress = 1;
            break;
        case 'D':
            log_level(1);
            break;
        case 'h':
            usage();
            return 0;
        case 'a':
            g_analyze = 1;
            break;
        default:
            return 1;
        }
    }

    banner();
    modem_driver_list();

    if (g_analyze) {
        analysis_run();
        modem_driver_cleanup();
        return 0;
    }

    srand(static_cast<unsigned>(time(nullptr)));

    std::unique_ptr<modem_manager> mgr = modem_manager::mdm_create();
    if (!mgr) {
        out("Unable to create modem manager instance!\n");
        modem_driver_cleanup();
        return 1;
    }
    printf("%s running\n", prog_name);
    fflush(stdout);
    if (g_compress)
        LOG_DEBUG("Compressed AT logging is enabled!\n");

    if (mgr->init(g_compress != 0)) {
        out("Unable to initialize modem manager!\n");
        // The process is ending; the manager is left as it is.
        (void)mgr.release();
        modem_driver_cleanup();
        return 1;
    }
    mgr.reset();
    modem_driver_cleanup();
    return 0;
}
