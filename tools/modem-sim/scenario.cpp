#include "scenario.h"

#include "sms_pdu.h"

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

bool name_char(char c)
{
	return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
}

// A variable name; with `captures`, "$1".."$9" may stand inside it.
bool valid_var_name(std::string_view s, bool captures = false)
{
	if (s.empty())
		return false;
	for (size_t i = 0; i < s.size(); i++) {
		if (name_char(s[i]))
			continue;
		if (captures && s[i] == '$' && i + 1 < s.size() && s[i + 1] >= '1' && s[i + 1] <= '9') {
			i++;
			continue;
		}
		return false;
	}
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

// "<var> <cmp> <value>" of 'when' and 'if'.
bool parse_condition(std::string_view s, Condition *c, std::string *bad)
{
	s = trim(s);
	size_t end = 0;
	while (end < s.size() && (name_char(s[end]) || s[end] == '$'))
		end++;
	if (!valid_var_name(s.substr(0, end), true)) {
		*bad = "bad variable name";
		return false;
	}
	c->var = std::string(s.substr(0, end));
	s = trim(s.substr(end));
	static const struct {
		const char *text;
		Cmp cmp;
	} ops[] = {
		{"!=", Cmp::ne}, {"<=", Cmp::le}, {">=", Cmp::ge}, {"=", Cmp::eq},
		{"<", Cmp::lt},  {">", Cmp::gt},  {"~", Cmp::match},
	};
	if (s.substr(0, 2) == "in" && (s.size() == 2 || is_blank(s[2]))) {
		c->cmp = Cmp::within;
		c->value = std::string(trim(s.substr(2)));
		return true;
	}
	for (const auto &op : ops) {
		std::string_view t = op.text;
		if (s.substr(0, t.size()) == t) {
			c->cmp = op.cmp;
			c->value = std::string(trim(s.substr(t.size())));
			return true;
		}
	}
	*bad = "a condition is <var> =, !=, <, <=, >, >=, ~ or in <value>";
	return false;
}

size_t indent_of(std::string_view raw_line)
{
	size_t n = 0;
	while (n < raw_line.size() && is_blank(raw_line[n]))
		n++;
	return n;
}

constexpr int max_include_depth = 8;

class Parser {
public:
	Parser(Scenario *sc, ParseError *err, std::string dir, int depth)
		: sc_(sc), err_(err), dir_(std::move(dir)), depth_(depth)
	{
	}

	// Parses one file's text into the scenario.
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
		return end_body();
	}

	// Defaults and checks over the whole scenario, once every file is read.
	bool finish()
	{
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
		for (const Rule &r : sc_->rules)
			if (!check_calls(r.body))
				return false;
		for (const auto *b : {&sc_->boot_block, &sc_->fota_block, &sc_->powerdown_block, &sc_->unknown_block})
			if (!check_calls(*b))
				return false;
		for (const auto &a : sc_->actions)
			if (!check_calls(a.second))
				return false;
		return true;
	}

private:
	bool fail(int line_no, std::string msg)
	{
		err_->line = line_no;
		err_->message = std::move(msg);
		return false;
	}

	// Every 'do' names an action of the scenario, wherever it is defined.
	bool check_calls(const std::vector<Stmt> &body)
	{
		for (const Stmt &s : body) {
			if (s.op == Op::do_ && sc_->actions.find(s.text) == sc_->actions.end())
				return fail(s.line_no, quoted(s.text, "is no action of the scenario"));
			if (!check_calls(s.block) || !check_calls(s.otherwise))
				return false;
		}
		return true;
	}

	bool check_text(std::string_view text, int line_no)
	{
		std::string out, bad;
		if (!expand_text(text, {}, [](std::string_view) { return std::string(); }, &out, &bad))
			return fail(line_no, bad);
		return true;
	}

	// A rule or block has ended: an 'if', 'else' or 'after' left without its
	// indented block is a mistake.
	bool end_body()
	{
		if (opener_)
			return fail(opener_line_, "an indented block must follow");
		levels_.clear();
		body_ = nullptr;
		return true;
	}

	void open(std::vector<Stmt> *body, bool in_action = false)
	{
		body_ = body;
		in_action_ = in_action;
		levels_.clear();
	}

	bool handle(std::string_view raw_line, int line_no)
	{
		std::string_view line = trim(raw_line);
		if (line.empty() || line.front() == '#')
			return true;
		if (is_blank(raw_line.front()))
			return statement(line, indent_of(raw_line), line_no);

		if (!end_body())
			return false;
		std::string_view rest = line;
		std::string_view word = next_word(&rest);
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
			open(&sc_->rules.back().body);
			return true;
		}
		open_rule_ = false;
		if (word == "boot" || word == "fota" || word == "powerdown" || word == "unknown") {
			if (!rest.empty())
				return fail(line_no, quoted(word, "takes no argument"));
			std::vector<Stmt> *b = word == "boot" ? &sc_->boot_block
					       : word == "fota" ? &sc_->fota_block
					       : word == "powerdown" ? &sc_->powerdown_block
					       : &sc_->unknown_block;
			b->clear();
			open(b);
			return true;
		}
		if (word == "action") {
			if (!valid_var_name(rest))
				return fail(line_no, "'action' needs a name");
			std::vector<Stmt> &b = sc_->actions[std::string(rest)];
			b.clear(); // a later definition replaces an earlier one
			open(&b, true);
			return true;
		}
		if (word == "keep") {
			if (rest.empty())
				return fail(line_no, "'keep' needs variable names");
			while (!rest.empty()) {
				std::string_view name = next_word(&rest);
				if (!valid_var_name(name))
					return fail(line_no, "bad variable name");
				sc_->keep.emplace_back(name);
			}
			return true;
		}
		if (word == "include")
			return include(rest, line_no);
		if (word == "message") {
			SeedSms m;
			m.mem = std::string(next_word(&rest));
			long stat = 0;
			std::string bytes;
			if ((m.mem != "SM" && m.mem != "ME") || !parse_number(next_word(&rest), &stat) || stat > 3 ||
			    !from_hex(rest, &bytes) || smsc_field_size(bytes) == 0)
				return fail(line_no, "'message' needs SM or ME, a status 0-3 and a PDU in hex");
			m.stat = static_cast<int>(stat);
			m.pdu = std::string(rest);
			sc_->messages.push_back(std::move(m));
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

	bool include(std::string_view name, int line_no)
	{
		if (name.empty())
			return fail(line_no, "'include' needs a file name");
		if (dir_.empty())
			return fail(line_no, "'include' works only in a scenario file");
		if (depth_ >= max_include_depth)
			return fail(line_no, "includes nested too deeply");
		std::string path = name.front() == '/' ? std::string(name) : dir_ + "/" + std::string(name);
		std::ifstream in(path, std::ios::binary);
		if (!in)
			return fail(line_no, "cannot open '" + path + "'");
		std::ostringstream ss;
		ss << in.rdbuf();
		size_t slash = path.rfind('/');
		Parser sub(sc_, err_, path.substr(0, slash), depth_ + 1);
		if (!sub.run(ss.str())) {
			if (err_->file.empty())
				err_->file = path;
			return false;
		}
		return true;
	}

	// Places a statement by its indentation: deeper than the one before only
	// right after an 'if', 'else' or 'after', which it then belongs to.
	bool place(size_t indent, int line_no)
	{
		if (levels_.empty()) {
			levels_.push_back({indent, body_});
			return true;
		}
		if (indent > levels_.back().indent) {
			if (!opener_)
				return fail(line_no, "indented deeper than the line before");
			levels_.push_back({indent, opener_});
			opener_ = nullptr;
			return true;
		}
		if (opener_)
			return fail(opener_line_, "an indented block must follow");
		while (indent < levels_.back().indent) {
			levels_.pop_back();
			if (levels_.empty())
				return fail(line_no, "indentation matches no line above");
		}
		if (indent != levels_.back().indent)
			return fail(line_no, "indentation matches no line above");
		return true;
	}

	bool statement(std::string_view line, size_t indent, int line_no)
	{
		if (!body_)
			return fail(line_no, "indented line outside a rule or block");
		if (!place(indent, line_no))
			return false;
		std::vector<Stmt> *body = levels_.back().body;
		bool top = levels_.size() == 1;
		std::string_view rest = line;
		std::string_view word = next_word(&rest);
		Stmt s;
		s.line_no = line_no;

		if (word == "when") {
			if (!open_rule_ || !body->empty() || !top)
				return fail(line_no, "'when' belongs right after the 'on' lines");
			Condition c;
			std::string bad;
			if (!parse_condition(rest, &c, &bad))
				return fail(line_no, "'when': " + bad);
			if (!check_text(c.value, line_no))
				return false;
			sc_->rules.back().when.push_back(std::move(c));
			return true;
		}
		if (word == "else") {
			if (!rest.empty())
				return fail(line_no, quoted(word, "takes no argument"));
			if (body->empty() || body->back().op != Op::if_ || body->back().has_else)
				return fail(line_no, "'else' must follow the block of an 'if'");
			body->back().has_else = true;
			opener_ = &body->back().otherwise;
			opener_line_ = line_no;
			return true;
		}

		struct Simple {
			const char *word;
			Op op;
		};
		static const Simple simple[] = {
			{"ok", Op::ok},     {"error", Op::error},         {"boot", Op::boot},
			{"fota", Op::fota}, {"powerdown", Op::powerdown}, {"hang", Op::hang},
			{"stop", Op::stop},
		};
		for (const Simple &sm : simple) {
			if (word == sm.word) {
				if (!rest.empty())
					return fail(line_no, quoted(word, "takes no argument"));
				s.op = sm.op;
				body->push_back(std::move(s));
				return true;
			}
		}

		bool opens = false;
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
			if (!valid_var_name(s.text, true))
				return fail(line_no, "bad variable name");
			if (!check_text(rest, line_no))
				return false;
			s.value = std::string(rest);
		} else if (word == "add") {
			s.op = Op::add;
			s.text = std::string(next_word(&rest));
			if (!valid_var_name(s.text, true))
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
			// The text after the prompt resumes the rule: only its own
			// statements can wait for it.
			if (!top || in_action_)
				return fail(line_no, "'prompt' belongs at the top of a rule or block");
			s.text = std::string(rest);
		} else if (word == "if") {
			s.op = Op::if_;
			std::string bad;
			if (!parse_condition(rest, &s.cond, &bad))
				return fail(line_no, "'if': " + bad);
			if (!check_text(s.cond.value, line_no))
				return false;
			opens = true;
		} else if (word == "after") {
			s.op = Op::after;
			if (!parse_duration(next_word(&rest), &s.num) || s.num <= 0)
				return fail(line_no, "'after' needs a duration above 0");
			if (!rest.empty() && !valid_var_name(rest))
				return fail(line_no, "bad timer name");
			s.text = std::string(rest);
			opens = true;
		} else if (word == "cancel") {
			s.op = Op::cancel;
			if (!valid_var_name(rest))
				return fail(line_no, "'cancel' needs a timer name");
			s.text = std::string(rest);
		} else if (word == "sms") {
			s.op = Op::sms;
			if (!rest.empty() && rest != "send")
				return fail(line_no, "'sms' takes 'send' or nothing");
			s.text = std::string(rest);
		} else if (word == "ufs") {
			s.op = Op::ufs;
			if (!rest.empty())
				return fail(line_no, "'ufs' takes nothing");
		} else if (word == "do") {
			s.op = Op::do_;
			s.text = std::string(next_word(&rest));
			if (!valid_var_name(s.text))
				return fail(line_no, "'do' needs an action name");
			if (!check_text(rest, line_no))
				return false;
			s.value = std::string(rest);
		} else {
			return fail(line_no, "unknown statement '" + std::string(word) + "'");
		}
		body->push_back(std::move(s));
		if (opens) {
			opener_ = &body->back().block;
			opener_line_ = line_no;
		}
		return true;
	}

	struct Level {
		size_t indent;
		std::vector<Stmt> *body;
	};

	Scenario *sc_;
	ParseError *err_;
	std::string dir_; // directory of the file being read; empty for plain text
	int depth_;
	std::vector<Stmt> *body_ = nullptr; // the rule's or block's own statements
	bool in_action_ = false;
	bool open_rule_ = false;
	std::vector<Level> levels_;          // nested blocks, outermost first
	std::vector<Stmt> *opener_ = nullptr; // block the next deeper line opens
	int opener_line_ = 0;
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
	Parser p(&sc, err, std::string(), 0);
	if (!p.run(text) || !p.finish())
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
	Scenario sc;
	ParseError pe;
	size_t slash = path.rfind('/');
	Parser p(&sc, &pe, slash == std::string::npos ? std::string(".") : path.substr(0, slash), 0);
	if (!p.run(ss.str()) || !p.finish()) {
		*err = (pe.file.empty() ? path : pe.file) + ":" + std::to_string(pe.line) + ": " + pe.message;
		return false;
	}
	*out = std::move(sc);
	return true;
}

std::string resolve_name(std::string_view name, const std::vector<std::string> &captures)
{
	if (name.find('$') == std::string_view::npos)
		return std::string(name);
	std::string out;
	for (size_t i = 0; i < name.size(); i++) {
		if (name[i] == '$' && i + 1 < name.size() && name[i + 1] >= '1' && name[i + 1] <= '9') {
			size_t n = static_cast<size_t>(name[i + 1] - '1');
			if (n < captures.size())
				out += captures[n];
			i++;
		} else {
			out += name[i];
		}
	}
	return out;
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
			std::string_view name = end == std::string_view::npos ? std::string_view()
										: text.substr(i + 1, end - i - 1);
			if (!valid_var_name(name, true)) {
				*bad = "bad {variable} reference";
				return false;
			}
			*out += lookup(resolve_name(name, captures));
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

namespace {

// The digits of a hex mask, "0x" taken off; false if there are none or a
// character is no hex digit.
bool hex_digits(std::string_view s, std::string_view *digits)
{
	if (s.size() >= 2 && s[0] == '0' && lower(s[1]) == 'x')
		s.remove_prefix(2);
	for (char c : s)
		if (hex_digit(c) < 0)
			return false;
	*digits = s;
	return !s.empty();
}

bool same_item(std::string_view a, std::string_view b)
{
	if (a.size() != b.size())
		return false;
	for (size_t i = 0; i < a.size(); i++)
		if (lower(a[i]) != lower(b[i]))
			return false;
	return true;
}

} // namespace

bool contained_in(std::string_view part, std::string_view whole)
{
	if (whole.size() >= 2 && whole[0] == '0' && lower(whole[1]) == 'x') {
		std::string_view p, w;
		if (!hex_digits(part, &p) || !hex_digits(whole, &w))
			return false;
		// From the lowest digit up; digits beyond the whole's length must be 0.
		for (size_t i = 0; i < p.size(); i++) {
			int pd = hex_digit(p[p.size() - 1 - i]);
			int wd = i < w.size() ? hex_digit(w[w.size() - 1 - i]) : 0;
			if (pd & ~wd)
				return false;
		}
		return true;
	}
	while (!part.empty()) {
		size_t colon = part.find(':');
		std::string_view item = part.substr(0, colon);
		part = colon == std::string_view::npos ? std::string_view() : part.substr(colon + 1);
		bool found = false;
		std::string_view rest = whole;
		for (;;) {
			size_t c = rest.find(':');
			if (same_item(item, rest.substr(0, c))) {
				found = true;
				break;
			}
			if (c == std::string_view::npos)
				break;
			rest.remove_prefix(c + 1);
		}
		if (!found || item.empty())
			return false;
		if (colon != std::string_view::npos && part.empty())
			return false; // a trailing ':' leaves an empty item
	}
	return true;
}

std::string quoted(std::string_view bytes, bool utf8)
{
	static const char hex[] = "0123456789abcdef";
	std::string out = "\"";
	for (char ch : bytes) {
		unsigned char c = static_cast<unsigned char>(ch);
		if (c == '\r')
			out += "\\r";
		else if (c == '\n')
			out += "\\n";
		else if (c == '"' || c == '\\')
			out += {'\\', ch};
		else if (c < 0x20 || c == 0x7f || (c > 0x7f && !utf8))
			out += {'\\', 'x', hex[c >> 4], hex[c & 15]};
		else
			out += ch;
	}
	return out + "\"";
}

} // namespace modem_sim
