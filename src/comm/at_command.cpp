#include "comm/at_command.h"

namespace
{

constexpr char ctrl_z = 0x1A;
constexpr char esc = 0x1B;

bool breaks_line(char c)
{
    return c == '\r' || c == '\n' || c == '\0' || c == esc || c == ctrl_z;
}

// One line: no control character, quotes closed.
bool clean_line(std::string_view line)
{
    bool quoted = false;
    for (char c : line) {
        if (breaks_line(c))
            return false;
        if (c == '"')
            quoted = !quoted;
    }
    return !quoted;
}

} // namespace

bool at_has_prefix(std::string_view text, std::string_view prefix)
{
    if (text.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); i++) {
        char c = text[i];
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
        if (c != prefix[i])
            return false;
    }
    return true;
}

at_check at_check_command(std::string_view cmd)
{
    if (!at_has_prefix(cmd, "AT"))
        return at_check::not_at;
    if (cmd.size() > at_command_max)
        return at_check::invalid;

    // The SMS form: command line, CR, text, Ctrl-Z (a line end may follow).
    size_t cr = cmd.find('\r');
    if (at_has_prefix(cmd, "AT+CMGS=") && cr != std::string_view::npos && cr + 1 < cmd.size() &&
        cmd[cr + 1] != '\n') {
        std::string_view text = cmd.substr(cr + 1);
        if (text.ends_with("\r"))
            text.remove_suffix(1);
        if (text.size() < 2 || text.back() != ctrl_z)
            return at_check::invalid;
        text.remove_suffix(1);
        for (char c : text)
            if (breaks_line(c))
                return at_check::invalid;
        return clean_line(cmd.substr(0, cr)) ? at_check::ok : at_check::invalid;
    }

    if (cmd.ends_with("\r\n"))
        cmd.remove_suffix(2);
    else if (cmd.ends_with("\r") || cmd.ends_with("\n"))
        cmd.remove_suffix(1);
    return clean_line(cmd) ? at_check::ok : at_check::invalid;
}

bool at_check_arg(std::string_view arg, size_t max_len)
{
    if (arg.size() > max_len)
        return false;
    for (char c : arg)
        if (breaks_line(c) || c == '"')
            return false;
    return true;
}
