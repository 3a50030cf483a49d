// The operator's commands to a running simulator, one per line, as they come
// from the control socket or from the terminal:
//   urc <text>, raw <text>, next, hang, unhang, hold, release, slow <duration>,
//   hangup, boot, fota, powerdown, do <action> [args], actions, timers,
//   echo on|off, set <var> <value>, get <var>, vars, mode, stats, help, quit.
// Every reply ends with a line "OK" or "ERROR <reason>".
#pragma once

#include "modem.h"

#include <string>
#include <string_view>

namespace modem_sim {

struct ControlReply {
	std::string text; // complete reply, each line ended by "\n"
	bool quit = false;
};

ControlReply run_control(Modem &modem, std::string_view line, Ms now);

} // namespace modem_sim
