// wwan-modem-sim: a simulated cellular modem on a pseudo-terminal.
#include "scenario.h"
#include "simulator.h"

#include <getopt.h>
#include <stdio.h>
#include <sys/stat.h>

#include <exception>
#include <string>

#ifndef MODEM_SIM_SCENARIO_DIR
#define MODEM_SIM_SCENARIO_DIR "scenarios"
#endif

namespace {

void usage(FILE *f, const char *prog)
{
	fprintf(f,
		"Usage: %s [options]\n"
		"Plays a cellular modem on a pseudo-terminal; prints the terminal's path first.\n"
		"\n"
		"  -s, --scenario FILE|NAME  scenario file, or a name in %s (default: ec25)\n"
		"  -l, --link PATH           also make PATH a symlink to the terminal\n"
		"  -c, --control PATH        accept operator commands on this Unix socket\n"
		"  -i, --stdin-control       accept operator commands on standard input\n"
		"  -t, --transcript FILE     append every byte in and out, with times, to FILE\n"
		"  -n, --no-boot             start ready, without the boot sequence\n"
		"  -h, --help                show this help\n"
		"\n"
		"Operator commands: urc <text>, raw <text>, next, hang, unhang, hold, release,\n"
		"slow <duration>, hangup, boot, fota, powerdown, echo on|off, set <var> <value>,\n"
		"get <var>, vars, mode, stats, help, quit.\n"
		"SIGUSR1 sends the scenario's next URC; SIGINT and SIGTERM stop the simulator.\n",
		prog, MODEM_SIM_SCENARIO_DIR);
}

std::string resolve_scenario(const std::string &arg)
{
	struct stat st;
	if (arg.find('/') != std::string::npos || stat(arg.c_str(), &st) == 0)
		return arg;
	return std::string(MODEM_SIM_SCENARIO_DIR) + "/" + arg + ".scn";
}

} // namespace

int main(int argc, char **argv)
{
	static const option long_opts[] = {
		{"scenario", required_argument, nullptr, 's'},
		{"link", required_argument, nullptr, 'l'},
		{"control", required_argument, nullptr, 'c'},
		{"stdin-control", no_argument, nullptr, 'i'},
		{"transcript", required_argument, nullptr, 't'},
		{"no-boot", no_argument, nullptr, 'n'},
		{"help", no_argument, nullptr, 'h'},
		{nullptr, 0, nullptr, 0},
	};
	modem_sim::Options opt;
	int ch;
	while ((ch = getopt_long(argc, argv, "s:l:c:it:nh", long_opts, nullptr)) != -1) {
		switch (ch) {
		case 's': opt.scenario = optarg; break;
		case 'l': opt.link = optarg; break;
		case 'c': opt.control = optarg; break;
		case 'i': opt.stdin_control = true; break;
		case 't': opt.transcript = optarg; break;
		case 'n': opt.boot = false; break;
		case 'h': usage(stdout, argv[0]); return 0;
		default: usage(stderr, argv[0]); return 2;
		}
	}
	if (optind < argc) {
		usage(stderr, argv[0]);
		return 2;
	}

	// Nothing below throws on purpose; an allocation failure ends the run cleanly.
	try {
		modem_sim::Scenario sc;
		std::string err;
		if (!modem_sim::load_scenario(resolve_scenario(opt.scenario), &sc, &err)) {
			fprintf(stderr, "wwan-modem-sim: %s\n", err.c_str());
			return 1;
		}
		return modem_sim::run_simulator(opt, std::move(sc));
	} catch (const std::exception &e) {
		fprintf(stderr, "wwan-modem-sim: %s\n", e.what());
		return 1;
	}
}
