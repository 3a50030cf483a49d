#include "scenario.h"

#include <cctype>
#include <fstream>
#include <sstream>

namespace modem_sim {

namespace {

// "'word' what", for error messages. Built by appending: g++ 12 reports a
// false -Wrestrict overlap for "'" + std::string(...) at -O3.
std::string quoted(std::string_view word, std::string_view what)
{
	std::string out;
	out.reserve(word.size() + what.size() + 3);
	out += '\'';
	out += word;
	out += "' ";
	out += what;
	return out;
}

char lower(char c)
{
	return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool is_blank(char c)
{
	return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s)
{
	while (!s.empty() && (is_blank(s.front()) || s.front() == '\r'))
		s.remove_prefix(1);
	while (!s.empty() && (is_blank(s.back()) || s.back() == '\r'))
		s.remove_suffix(1);
	return s;
}

// Splits "word rest" into the word and the trimmed rest.
std::string_view next_word(std::string_view *s)
{
	*s = trim(*s);
	size_t end = 0;
	while (end < s->size() && !is_blank((*s)[end]))
		end++;
	std::string_view word = s->substr(0, end);
	*s = trim(s->substr(end));
	return word;
}

bool parse_number(std::string_view s, long *out)
{
	if (s.empty() || s.size() > 12)
		return false;
	long v = 0;
	for (char c : s) {
		if (c < '0' || c > '9')
			return false;
		v = v * 10 + (c - '0');
	}
	*out = v;
	return true;
}

} // namespace

bool parse_duration(std::string_view s, long *ms)
{
	long scale = 1;
	if (s.size() > 2 && s.substr(s.size() - 2) == "ms") {
		s.remove_suffix(2);
	} else if (s.size() > 1 && s.back() == 's') {
		s.remove_suffix(1);
		scale = 1000;
	}
	long v;
	if (!parse_number(s, &v))
		return false;
	*ms = v * scale;
	return true;
}

namespace {

bool valid_var_name(std::string_view s)
{
	if (s.empty())
		return false;
	for (char c : s)
		if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-')
			return false;
	return true;
}

int hex_digit(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	c = lower(c);
	if (c >= 'a' && c <= 'f')
		return c - 'a' + 10;
	return -1;
}

class Parser {
public:
	Parser(Scenario *sc, ParseError *err) : sc_(sc), err_(err) {}

	bool run(std::string_view text)
	{
		int line_no = 0;
		while (!text.empty()) {
			size_t nl = text.find('\n');
			std::string_view line = text.substr(0, nl);
			text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
			line_no++;
			if (!handle(line, line_no))
				return false;
		}
		if (sc_->unknown_block.empty()) {
			Stmt s;
			s.op = Op::error;
			sc_->unknown_block.push_back(s);
		}
		if (sc_->powerdown_block.empty()) {
			Stmt s;
			s.op = Op::urc;
			s.text = "POWERED DOWN";
			sc_->powerdown_block.push_back(s);
		}
		return true;
	}

private:
	bool fail(int line_no, std::string msg)
	{
		err_->line = line_no;
		err_->message = std::move(msg);
		return false;
	}

	bool check_text(std::string_view text, int line_no)
	{
		std::string out, bad;
		if (!expand_text(text, {}, [](std::string_view) { return std::string(); }, &out, &bad))
			return fail(line_no, bad);
		return true;
	}

	bool handle(std::string_view raw_line, int line_no)
	{
		std::string_view line = trim(raw_line);
		if (line.empty() || line.front() == '#')
			return true;
		if (is_blank(raw_line.front()))
			return statement(line, line_no);

		std::string_view rest = line;
		std::string_view word = next_word(&rest);
		body_ = nullptr;
		if (word == "on") {
			if (rest.empty())
				return fail(line_no, "'on' needs a command pattern");
			// Consecutive 'on' lines share one rule.
			if (!open_rule_ || !sc_->rules.back().body.empty() || !sc_->rules.back().when.empty()) {
				Rule r;
				r.line_no = line_no;
				sc_->rules.push_back(std::move(r));
			}
			sc_->rules.back().patterns.emplace_back(rest);
			open_rule_ = true;
			body_ = &sc_->rules.back().body;
			return true;
		}
		open_rule_ = false;
		if (word == "boot" || word == "fota" || word == "powerdown" || word == "unknown") {
			if (!rest.empty())
				return fail(line_no, quoted(word, "takes no argument"));
			body_ = word == "boot" ? &sc_->boot_block
				: word == "fota" ? &sc_->fota_block
				: word == "powerdown" ? &sc_->powerdown_block
				: &sc_->unknown_block;
			body_->clear();
			return true;
		}
		if (word == "model") {
			sc_->model = std::string(rest);
			return true;
		}
		if (word == "set") {
			std::string_view name = next_word(&rest);
			if (!valid_var_name(name))
				return fail(line_no, "bad variable name");
			if (!check_text(rest, line_no))
				return false;
			for (auto &kv : sc_->initial) {
				if (kv.first == name) {
					kv.second = std::string(rest);
					return true;
				}
			}
			sc_->initial.emplace_back(std::string(name), std::string(rest));
			return true;
		}
		if (word == "latency") {
			if (!parse_duration(rest, &sc_->latency_ms))
				return fail(line_no, "bad duration");
			return true;
		}
		if (word == "every") {
			Periodic p;
			if (!parse_duration(next_word(&rest), &p.interval_ms) || p.interval_ms <= 0)
				return fail(line_no, "bad interval");
			if (rest.empty())
				return fail(line_no, "'every' needs a URC text");
			if (!check_text(rest, line_no))
				return false;
			p.text = std::string(rest);
			sc_->periodic.push_back(std::move(p));
			return true;
		}
		if (word == "next") {
			if (rest.empty())
				return fail(line_no, "'next' needs a URC text");
			if (!check_text(rest, line_no))
				return false;
			sc_->next_urcs.emplace_back(rest);
			return true;
		}
		return fail(line_no, "unknown keyword '" + std::string(word) + "'");
	}

	bool statement(std::string_view line, int line_no)
	{
		if (!body_)
			return fail(line_no, "indented line outside a rule or block");
		std::string_view rest = line;
		std::string_view word = next_word(&rest);
		Stmt s;
		s.line_no = line_no;

		if (word == "when") {
			if (!open_rule_ || !body_->empty())
				return fail(line_no, "'when' belongs right after the 'on' lines");
			Condition c;
			size_t pos = rest.find("!=");
			size_t len = 2;
			if (pos == std::string_view::npos) {
				pos = rest.find('=');
				len = 1;
			} else {
				c.equal = false;
			}
			if (pos == std::string_view::npos)
				return fail(line_no, "'when' needs var = value or var != value");
			c.var = std::string(trim(rest.substr(0, pos)));
			c.value = std::string(trim(rest.substr(pos + len)));
			if (!valid_var_name(c.var))
				return fail(line_no, "bad variable name");
			sc_->rules.back().when.push_back(std::move(c));
			return true;
		}

		struct Simple {
			const char *word;
			Op op;
		};
		static const Simple simple[] = {
			{"ok", Op::ok},     {"error", Op::error},         {"boot", Op::boot},
			{"fota", Op::fota}, {"powerdown", Op::powerdown}, {"hang", Op::hang},
		};
		for (const Simple &sm : simple) {
			if (word == sm.word) {
				if (!rest.empty())
					return fail(line_no, quoted(word, "takes no argument"));
				s.op = sm.op;
				body_->push_back(std::move(s));
				return true;
			}
		}

		if (word == "line" || word == "urc" || word == "result" || word == "raw") {
			s.op = word == "line" ? Op::line : word == "urc" ? Op::urc : word == "result" ? Op::result : Op::raw;
			if (s.op == Op::raw) {
				if (rest.size() < 2 || rest.front() != '"' || rest.back() != '"')
					return fail(line_no, "'raw' needs a quoted text");
				rest = rest.substr(1, rest.size() - 2);
			}
			if ((s.op == Op::urc || s.op == Op::result) && rest.empty())
				return fail(line_no, quoted(word, "needs a text"));
			if (!check_text(rest, line_no))
				return false;
			s.text = std::string(rest);
		} else if (word == "cme" || word == "cms") {
			s.op = word == "cme" ? Op::cme : Op::cms;
			if (!parse_number(rest, &s.num))
				return fail(line_no, quoted(word, "needs an error number"));
		} else if (word == "delay") {
			s.op = Op::delay;
			if (!parse_duration(rest, &s.num))
				return fail(line_no, "bad duration");
		} else if (word == "split") {
			s.op = Op::split;
			if (!parse_number(next_word(&rest), &s.num) || s.num <= 0 || !parse_duration(rest, &s.num2))
				return fail(line_no, "'split' needs a byte count and a duration");
		} else if (word == "set") {
			s.op = Op::set;
			s.text = std::string(next_word(&rest));
			if (!valid_var_name(s.text))
				return fail(line_no, "bad variable name");
			if (!check_text(rest, line_no))
				return false;
			s.value = std::string(rest);
		} else if (word == "add") {
			s.op = Op::add;
			s.text = std::string(next_word(&rest));
			if (!valid_var_name(s.text))
				return fail(line_no, "bad variable name");
			std::string_view amount = next_word(&rest);
			bool neg = !amount.empty() && amount.front() == '-';
			if (neg)
				amount.remove_prefix(1);
			if (!parse_number(amount, &s.num))
				return fail(line_no, "'add' needs an amount");
			if (neg)
				s.num = -s.num;
			if (!rest.empty() && (!parse_number(rest, &s.num2) || s.num2 <= 0))
				return fail(line_no, "bad modulus");
		} else if (word == "prompt") {
			s.op = Op::prompt;
			if (!rest.empty() && rest != "ok" && rest != "error")
				return fail(line_no, "'prompt' takes 'ok', 'error' or nothing (the answer to ESC)");
			s.text = std::string(rest);
		} else {
			return fail(line_no, "unknown statement '" + std::string(word) + "'");
		}
		body_->push_back(std::move(s));
		return true;
	}

	Scenario *sc_;
	ParseError *err_;
	std::vector<Stmt> *body_ = nullptr;
	bool open_rule_ = false;
};

// "[0-8]", "[012]", "[a-z]": one character of the set, ignoring case.
bool in_class(std::string_view set, char c)
{
	for (size_t i = 0; i < set.size(); i++) {
		if (i + 2 < set.size() && set[i + 1] == '-') {
			if (lower(c) >= lower(set[i]) && lower(c) <= lower(set[i + 2]))
				return true;
			i += 2;
		} else if (lower(c) == lower(set[i])) {
			return true;
		}
	}
	return false;
}

bool match_from(std::string_view p, std::string_view t, std::vector<std::string> *caps)
{
	while (!p.empty()) {
		if (p.front() == '*') {
			// Shortest run first, so "AT+CMGR=*" and "*,*" split predictably.
			size_t mark = caps ? caps->size() : 0;
			for (size_t n = 0; n <= t.size(); n++) {
				if (caps)
					caps->emplace_back(t.substr(0, n));
				if (match_from(p.substr(1), t.substr(n), caps))
					return true;
				if (caps)
					caps->resize(mark);
			}
			return false;
		}
		if (p.front() == '[') {
			size_t close = p.find(']', 1);
			if (close != std::string_view::npos) {
				if (t.empty() || !in_class(p.substr(1, close - 1), t.front()))
					return false;
				if (caps)
					caps->emplace_back(1, t.front());
				p.remove_prefix(close + 1);
				t.remove_prefix(1);
				continue;
			}
		}
		if (t.empty() || lower(p.front()) != lower(t.front()))
			return false;
		p.remove_prefix(1);
		t.remove_prefix(1);
	}
	return t.empty();
}

} // namespace

bool parse_scenario(std::string_view text, Scenario *out, ParseError *err)
{
	Scenario sc;
	Parser p(&sc, err);
	if (!p.run(text))
		return false;
	*out = std::move(sc);
	return true;
}

bool load_scenario(const std::string &path, Scenario *out, std::string *err)
{
	std::ifstream in(path, std::ios::binary);
	if (!in) {
		*err = path + ": cannot open";
		return false;
	}
	std::ostringstream ss;
	ss << in.rdbuf();
	ParseError pe;
	if (!parse_scenario(ss.str(), out, &pe)) {
		*err = path + ":" + std::to_string(pe.line) + ": " + pe.message;
		return false;
	}
	return true;
}

bool match_pattern(std::string_view pattern, std::string_view text, std::vector<std::string> *captures)
{
	std::vector<std::string> caps;
	if (!match_from(pattern, text, &caps))
		return false;
	if (captures)
		*captures = std::move(caps);
	return true;
}

bool expand_text(std::string_view text, const std::vector<std::string> &captures, const VarLookup &lookup,
		 std::string *out, std::string *bad)
{
	out->clear();
	for (size_t i = 0; i < text.size(); i++) {
		char c = text[i];
		if (c == '\\') {
			if (++i >= text.size()) {
				*bad = "backslash at end of text";
				return false;
			}
			switch (text[i]) {
			case 'r': *out += '\r'; break;
			case 'n': *out += '\n'; break;
			case 't': *out += '\t'; break;
			case 'e': *out += '\x1b'; break;
			case 'z': *out += '\x1a'; break;
			case '\\': case '{': case '}': case '$': case '"': *out += text[i]; break;
			case 'x': {
				int hi = i + 1 < text.size() ? hex_digit(text[i + 1]) : -1;
				int lo = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
				if (hi < 0 || lo < 0) {
					*bad = "\\x needs two hex digits";
					return false;
				}
				*out += static_cast<char>(hi * 16 + lo);
				i += 2;
				break;
			}
			default:
				*bad = std::string("unknown escape \\") + text[i];
				return false;
			}
		} else if (c == '{') {
			size_t end = text.find('}', i);
			if (end == std::string_view::npos || !valid_var_name(text.substr(i + 1, end - i - 1))) {
				*bad = "bad {variable} reference";
				return false;
			}
			*out += lookup(text.substr(i + 1, end - i - 1));
			i = end;
		} else if (c == '$' && i + 1 < text.size() && text[i + 1] >= '1' && text[i + 1] <= '9') {
			size_t n = static_cast<size_t>(text[i + 1] - '1');
			if (n < captures.size())
				*out += captures[n];
			i++;
		} else {
			*out += c;
		}
	}
	return true;
}

} // namespace modem_sim
