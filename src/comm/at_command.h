// Checks of the text that bus callers and local clients hand over for the
// modem. Whatever reaches the AT port passes here first, so that no caller
// can end a command line early, start a second command, end or cancel an
// SMS text, or leave a quoted string open.
#pragma once

#include <cstddef>
#include <string_view>

// The longest command line the daemon writes (bytes, line end included).
// Modems keep far shorter command-line buffers; anything longer is a mistake
// or an attack, and is refused before it is queued.
constexpr size_t at_command_max = 4096;

enum class at_check {
    ok,
    not_at,  // does not begin with "AT" (any case)
    invalid, // control characters, open quotes or too long
};

// A raw command as the exec method takes it: one command line beginning with
// "AT", optionally ended by CR, LF or CR LF, with balanced double quotes and
// none of CR, LF, NUL, ESC or Ctrl-Z inside. The one two-part form is an SMS:
// "AT+CMGS=..." CR, then the PDU or text (no CR, LF, NUL or ESC), then Ctrl-Z.
at_check at_check_command(std::string_view cmd);

// text begins with prefix (upper case), compared without regard to case.
bool at_has_prefix(std::string_view text, std::string_view prefix);

// An argument that is placed into a command (PIN, APN, number, ...): at most
// max_len bytes, no control character listed above and no double quote.
bool at_check_arg(std::string_view arg, size_t max_len);
