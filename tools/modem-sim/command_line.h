// Splitting of one AT command line into its elementary commands, the way a
// modem's command interpreter reads "ATE0V1" or "AT+CSQ;+CREG?".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace modem_sim {

// Position of the "AT" prefix (either case) that starts a command line; bytes in
// front of it (line noise, "+++") are ignored like a real modem does.
// npos when the line holds no command.
size_t find_at_prefix(std::string_view line);

// Splits the text after "AT" into commands, each returned with "AT" in front:
// basic ones ("E0", "V1", "&F", "S0=0", "I"), extended ones up to the next ';'
// outside quotes ("+CSQ", "+COPS=1,0,\"a;b\""), and a dial command, which takes
// the rest of the line. An empty text gives the single command "AT".
// Returns false on bytes that start no command.
[[nodiscard]] bool split_command_line(std::string_view body, std::vector<std::string> *out);

} // namespace modem_sim
