// The simulator process: a pseudo-terminal that plays the modem, a control
// socket and optionally the terminal for the operator, a transcript of the
// traffic, all served by one poll loop.
#pragma once

#include "scenario.h"

#include <string>

namespace modem_sim {

struct Options {
	std::string scenario = "ec25";
	std::string link;       // symlink to the pty slave, if set
	std::string control;    // control socket path, if set
	std::string transcript; // traffic log path, if set
	bool stdin_control = false;
	bool boot = true;       // run the boot block at start
};

// Runs until SIGINT, SIGTERM or "quit". Returns the process exit status.
int run_simulator(const Options &opt, Scenario sc);

} // namespace modem_sim
