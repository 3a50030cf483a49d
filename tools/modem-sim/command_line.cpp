#include "command_line.h"

#include <cctype>

namespace modem_sim {

namespace {

bool is_alpha(char c)
{
	return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

bool is_digit(char c)
{
	return c >= '0' && c <= '9';
}

// Characters that open an extended-syntax command.
bool is_extended(char c)
{
	return c == '+' || c == '^' || c == '$' || c == '#' || c == '*' || c == '%';
}

size_t skip_digits(std::string_view s, size_t i)
{
	while (i < s.size() && is_digit(s[i]))
		i++;
	return i;
}

} // namespace

size_t find_at_prefix(std::string_view line)
{
	for (size_t i = 0; i + 1 < line.size(); i++) {
		if ((line[i] == 'A' || line[i] == 'a') && (line[i + 1] == 'T' || line[i + 1] == 't'))
			return i;
	}
	return std::string_view::npos;
}

bool split_command_line(std::string_view s, std::vector<std::string> *out)
{
	out->clear();
	size_t i = 0;
	while (i < s.size()) {
		char c = s[i];
		if (c == ' ' || c == ';') {
			i++;
			continue;
		}
		size_t start = i;
		if (is_extended(c)) {
			bool quoted = false;
			while (i < s.size() && (quoted || s[i] != ';')) {
				if (s[i] == '"')
					quoted = !quoted;
				i++;
			}
			size_t end = i;
			while (end > start && s[end - 1] == ' ')
				end--;
			out->push_back("AT" + std::string(s.substr(start, end - start)));
			continue;
		}
		if (c == 'D' || c == 'd') {
			out->push_back("AT" + std::string(s.substr(start)));
			return true;
		}
		if (c == '&') {
			if (i + 1 >= s.size() || !is_alpha(s[i + 1]))
				return false;
			i = skip_digits(s, i + 2);
		} else if (c == 'S' || c == 's') {
			i = skip_digits(s, i + 1);
			if (i < s.size() && s[i] == '?') {
				i++;
			} else if (i < s.size() && s[i] == '=') {
				i = skip_digits(s, i + 1);
			}
		} else if (is_alpha(c)) {
			i = skip_digits(s, i + 1);
		} else {
			return false;
		}
		out->push_back("AT" + std::string(s.substr(start, i - start)));
	}
	if (out->empty())
		out->push_back("AT");
	return true;
}

} // namespace modem_sim
