#include "modem.h"

#include "command_line.h"

#include <algorithm>

namespace modem_sim {

namespace {

constexpr char ctrl_z = 0x1a;
constexpr char esc = 0x1b;
constexpr char backspace = 0x08;
constexpr size_t max_entry = 16384;
constexpr size_t recent_lines = 8;
constexpr size_t recent_line_bytes = 200;

// ATV0 codes of the V.250 result codes.
int numeric_code(std::string_view verbose)
{
	static const struct {
		const char *text;
		int code;
	} codes[] = {
		{"OK", 0},          {"CONNECT", 1},     {"RING", 2},    {"NO CARRIER", 3},
		{"ERROR", 4},       {"NO DIALTONE", 6}, {"BUSY", 7},    {"NO ANSWER", 8},
	};
	for (const auto &c : codes)
		if (verbose == c.text)
			return c.code;
	return -1;
}

// Error texts of 3GPP TS 27.007 (+CME) and TS 27.005 (+CMS) for AT+CMEE=2.
const char *cme_text(long n)
{
	switch (n) {
	case 0: return "phone failure";
	case 1: return "no connection to phone";
	case 3: return "operation not allowed";
	case 4: return "operation not supported";
	case 5: return "PH-SIM PIN required";
	case 10: return "SIM not inserted";
	case 11: return "SIM PIN required";
	case 12: return "SIM PUK required";
	case 13: return "SIM failure";
	case 14: return "SIM busy";
	case 15: return "SIM wrong";
	case 16: return "incorrect password";
	case 17: return "SIM PIN2 required";
	case 18: return "SIM PUK2 required";
	case 20: return "memory full";
	case 21: return "invalid index";
	case 22: return "not found";
	case 23: return "memory failure";
	case 24: return "text string too long";
	case 25: return "invalid characters in text string";
	case 30: return "no network service";
	case 31: return "network timeout";
	case 32: return "network not allowed - emergency calls only";
	case 100: return "unknown";
	default: return nullptr;
	}
}

const char *cms_text(long n)
{
	switch (n) {
	case 300: return "ME failure";
	case 302: return "operation not allowed";
	case 303: return "operation not supported";
	case 304: return "invalid PDU mode parameter";
	case 305: return "invalid text mode parameter";
	case 310: return "SIM not inserted";
	case 311: return "SIM PIN required";
	case 313: return "SIM failure";
	case 314: return "SIM busy";
	case 316: return "SIM PUK required";
	case 320: return "memory failure";
	case 321: return "invalid memory index";
	case 322: return "memory full";
	case 330: return "SMSC address unknown";
	case 331: return "no network service";
	case 332: return "network timeout";
	case 500: return "unknown error";
	default: return nullptr;
	}
}

long to_long(const std::string &s)
{
	long v = 0;
	bool neg = false;
	size_t i = 0;
	if (!s.empty() && s[0] == '-') {
		neg = true;
		i = 1;
	}
	// At most 18 digits: a variable set by hand must not overflow.
	for (size_t end = i + 18; i < s.size() && i < end && s[i] >= '0' && s[i] <= '9'; i++)
		v = v * 10 + (s[i] - '0');
	return neg ? -v : v;
}

std::vector<std::string> words(std::string_view s)
{
	std::vector<std::string> out;
	size_t i = 0;
	while (i < s.size()) {
		while (i < s.size() && (s[i] == ' ' || s[i] == '\t'))
			i++;
		size_t start = i;
		while (i < s.size() && s[i] != ' ' && s[i] != '\t')
			i++;
		if (i > start)
			out.emplace_back(s.substr(start, i - start));
	}
	return out;
}

// How deep 'do' may nest: an action that calls itself stops there.
constexpr int max_action_depth = 16;

} // namespace

const char *mode_name(Mode m)
{
	switch (m) {
	case Mode::booting: return "booting";
	case Mode::normal: return "normal";
	case Mode::hung: return "hung";
	case Mode::held: return "held";
	case Mode::fota: return "fota";
	case Mode::off: return "off";
	case Mode::hungup: return "hungup";
	}
	return "?";
}

const char *Modem::state_name() const
{
	if (mode_ == Mode::normal && text_entry_)
		return "prompt";
	return mode_name(mode_);
}

Modem::Modem(Scenario sc) : sc_(std::move(sc))
{
	reset_vars();
	for (const SeedSms &m : sc_.messages)
		sms_.store(m.mem, m.stat, m.pdu, vars_); // one that does not fit is left out
}

void Modem::reset_vars()
{
	// Variables the scenario keeps (the SIM's, the network's) come through
	// with their latest value, whoever set it.
	std::vector<std::pair<std::string, std::string>> kept;
	for (const std::string &name : sc_.keep) {
		auto it = vars_.find(name);
		if (it != vars_.end())
			kept.emplace_back(*it);
	}
	vars_.clear();
	for (const auto &kv : sc_.initial)
		vars_[kv.first] = expand(kv.second, {});
	for (const auto &kv : overrides_)
		vars_[kv.first] = kv.second;
	for (auto &kv : kept)
		vars_[kv.first] = std::move(kv.second);
}

bool Modem::flag(std::string_view name, bool dflt) const
{
	auto it = vars_.find(name);
	if (it == vars_.end() || it->second.empty())
		return dflt;
	return it->second != "0";
}

std::string Modem::var(std::string_view name) const
{
	auto it = vars_.find(name);
	return it == vars_.end() ? std::string() : it->second;
}

void Modem::set_var(const std::string &name, const std::string &value)
{
	vars_[name] = value;
	overrides_[name] = value;
}

std::string Modem::expand(const std::string &text, const std::vector<std::string> &caps) const
{
	std::string out, bad;
	// The parser has checked every text, so expansion cannot fail here.
	(void)expand_text(text, caps, [this](std::string_view n) { return var(n); }, &out, &bad);
	return out;
}

void Modem::start(Ms now, bool run_boot)
{
	now_ = now;
	periodic_due_.clear();
	for (const Periodic &p : sc_.periodic)
		periodic_due_.push_back(now + p.interval_ms);
	if (run_boot) {
		apply(Action::boot);
	} else {
		reset_vars();
		enter_mode(Mode::normal);
	}
	advance(now);
}

void Modem::receive(std::string_view bytes, Ms now)
{
	now_ = now;
	stats_.bytes_received += bytes.size();
	if (mode_ == Mode::normal || mode_ == Mode::held) {
		size_t room = max_pending_input - std::min(max_pending_input, pending_input());
		input_.append(bytes.substr(0, room));
	}
	advance(now);
}

std::string Modem::take_output()
{
	std::string out;
	out.swap(out_);
	return out;
}

Ms Modem::next_deadline() const
{
	if (mode_ == Mode::hungup)
		return -1;
	Ms due = -1;
	// A held modem's answer waits for release, not for a time.
	if (!queue_.empty() && mode_ != Mode::held)
		due = queue_.front().kind == Piece::wait && wait_due_ >= 0 ? wait_due_ : 0;
	for (Ms d : periodic_due_)
		if (due < 0 || d < due)
			due = d;
	for (const Timer &t : timers_)
		if (due < 0 || t.due < due)
			due = t.due;
	if (upload_due_ >= 0 && (due < 0 || upload_due_ < due))
		due = upload_due_;
	return due;
}

void Modem::advance(Ms now)
{
	if (mode_ == Mode::hungup)
		return;
	now_ = now;
	fire_timers(now);
	if (mode_ == Mode::held) {
		// A stalled modem sends no URCs, not even late ones.
		for (size_t i = 0; i < periodic_due_.size(); i++)
			if (now >= periodic_due_[i])
				periodic_due_[i] = now + sc_.periodic[i].interval_ms;
		return;
	}
	// The host went silent in the middle of an upload: the module gives up.
	if (upload_due_ >= 0 && now >= upload_due_ && mode_ == Mode::normal && pending_input() == 0 && queue_.empty()) {
		upload_due_ = -1;
		if (ufs_.uploading()) {
			Response r;
			add_ufs_answer(ufs_.abort_upload(), &r);
			render(r);
		}
	}
	for (;;) {
		if (!queue_.empty()) {
			Piece &p = queue_.front();
			if (p.kind == Piece::bytes) {
				out_ += p.data;
				queue_.pop_front();
			} else if (p.kind == Piece::wait) {
				if (wait_due_ < 0)
					wait_due_ = now + p.ms;
				if (now < wait_due_)
					return;
				wait_due_ = -1;
				queue_.pop_front();
			} else {
				Action a = p.action;
				queue_.pop_front();
				apply(a);
			}
			continue;
		}
		bool queued = false;
		for (size_t i = 0; i < periodic_due_.size(); i++) {
			if (now < periodic_due_[i])
				continue;
			periodic_due_[i] = now + sc_.periodic[i].interval_ms;
			// A URC never cuts into a command line or a message being typed.
			if (mode_ == Mode::normal && !text_entry_ && line_.empty()) {
				Response r;
				r.items.push_back(Item::of(ItemKind::urc, expand(sc_.periodic[i].text, {})));
				render(r);
				queued = true;
			}
		}
		if (queued)
			continue;
		if (pending_input() == 0)
			return;
		consume_input();
		if (queue_.empty())
			return;
	}
}

void Modem::add_ufs_answer(const UfsAnswer &a, Response *r)
{
	for (const std::string &line : a.lines)
		r->items.push_back(Item::of(ItemKind::info, line));
	switch (a.final) {
	case UfsAnswer::Final::none: break;
	case UfsAnswer::Final::ok: r->items.push_back(Item::result(Final::ok)); break;
	case UfsAnswer::Final::error: r->items.push_back(Item::result(Final::error)); break;
	case UfsAnswer::Final::cme: r->items.push_back(Item::result(Final::cme, a.code)); break;
	case UfsAnswer::Final::connect: r->items.push_back(Item::result(Final::text, 0, "CONNECT")); break;
	}
	if (a.fota)
		r->items.push_back(Item::act(Action::fota));
}

// Raw bytes of an upload: taken as they come, none echoed, none a line.
void Modem::take_upload_bytes()
{
	size_t n = ufs_.feed(std::string_view(input_).substr(input_pos_));
	input_pos_ += n;
	upload_due_ = now_ + ufs_.upload_timeout_ms();
	if (!ufs_.upload_complete())
		return;
	upload_due_ = -1;
	Response r;
	add_answer_delay(&r);
	add_ufs_answer(ufs_.finish_upload(), &r);
	render(r);
}

void Modem::consume_input()
{
	while (input_pos_ < input_.size() && queue_.empty() && mode_ == Mode::normal) {
		if (ufs_.uploading()) {
			take_upload_bytes();
			continue;
		}
		char c = input_[input_pos_++];
		if (text_entry_)
			handle_text_byte(c);
		else
			handle_command_byte(c);
	}
	// Drop what was used only now and then: a write of many short lines would
	// otherwise move the rest of the buffer once per line.
	if (input_pos_ == input_.size() || (mode_ != Mode::normal && mode_ != Mode::held)) {
		input_.clear();
		input_pos_ = 0;
	} else if (input_pos_ >= 4096 && input_pos_ >= input_.size() / 2) {
		input_.erase(0, input_pos_);
		input_pos_ = 0;
	}
}

void Modem::note_line(const std::string &bytes, size_t length)
{
	stats_.recent.push_back({bytes.substr(0, recent_line_bytes), length});
	if (stats_.recent.size() > recent_lines)
		stats_.recent.pop_front();
}

void Modem::add_answer_delay(Response *r) const
{
	Ms ms = sc_.latency_ms + slow_ms_;
	if (ms > 0)
		r->items.push_back(Item::of(ItemKind::delay, "", ms));
}

void Modem::handle_command_byte(char c)
{
	if (c == ctrl_z || c == esc)
		return; // nothing to end or cancel outside text entry
	if (flag("echo", true))
		out_ += c;
	if (c == '\r') {
		std::string line;
		line.swap(line_);
		size_t length = line_length_;
		line_length_ = 0;
		note_line(line + '\r', length + 1);
		if (length <= max_command_line) {
			execute_line(line);
			return;
		}
		// The line overflowed the command buffer: the modem threw it away.
		stats_.lines_too_long++;
		Response r;
		add_answer_delay(&r);
		r.items.push_back(Item::result(Final::error));
		render(r);
	} else if (c == backspace) {
		// line_ keeps the first max_command_line bytes of what was typed.
		if (line_length_ > 0) {
			if (line_length_ == line_.size())
				line_.pop_back();
			line_length_--;
		}
	} else if (c != '\n' && c != '\0') {
		if (line_.size() < max_command_line)
			line_ += c;
		line_length_++;
	}
}

void Modem::handle_text_byte(char c)
{
	if (c == ctrl_z) {
		text_entry_ = false;
		stats_.texts++;
		note_line(entry_ + c, entry_.size() + 1);
		vars_["text"] = entry_;
		entry_.clear();
		Response r;
		add_answer_delay(&r);
		Continuation k = std::move(cont_);
		cont_ = Continuation();
		command_ = k.command;
		if (run(*k.body, k.next, k.captures, &r) == Outcome::prompt)
			text_entry_ = true;
		render(r);
		return;
	}
	if (c == esc) {
		text_entry_ = false;
		stats_.texts++;
		note_line(entry_ + c, entry_.size() + 1);
		entry_.clear();
		Response r;
		if (!cont_.esc_answer.empty())
			add_answer_delay(&r);
		if (cont_.esc_answer == "ok")
			r.items.push_back(Item::result(Final::ok));
		else if (cont_.esc_answer == "error")
			r.items.push_back(Item::result(Final::error));
		cont_ = Continuation();
		render(r);
		return;
	}
	if (c == '\r') {
		// A line break inside the text: the modem asks for the next line.
		entry_ += c;
		out_ += "\r\n> ";
		return;
	}
	if (c == '\n')
		return;
	if (flag("echo", true))
		out_ += c;
	if (c == backspace) {
		if (!entry_.empty())
			entry_.pop_back();
	} else if (entry_.size() < max_entry) {
		entry_ += c;
	}
}

bool Modem::holds(const Condition &c, const std::vector<std::string> &caps) const
{
	// "$1" alone compares the capture itself; in a longer name it names a variable.
	std::string have;
	if (c.var.size() == 2 && c.var[0] == '$') {
		size_t n = static_cast<size_t>(c.var[1] - '1');
		have = n < caps.size() ? caps[n] : std::string();
	} else {
		have = var(resolve_name(c.var, caps));
	}
	std::string want = expand(c.value, caps);
	switch (c.cmp) {
	case Cmp::eq: return have == want;
	case Cmp::ne: return have != want;
	case Cmp::lt: return to_long(have) < to_long(want);
	case Cmp::le: return to_long(have) <= to_long(want);
	case Cmp::gt: return to_long(have) > to_long(want);
	case Cmp::ge: return to_long(have) >= to_long(want);
	case Cmp::match: return match_pattern(want, have, nullptr);
	case Cmp::within: return contained_in(have, want);
	}
	return false;
}

const Rule *Modem::find_rule(const std::string &cmd, std::vector<std::string> *caps) const
{
	for (const Rule &rule : sc_.rules) {
		bool conditions = true;
		for (const Condition &c : rule.when) {
			if (!holds(c, {})) {
				conditions = false;
				break;
			}
		}
		if (!conditions)
			continue;
		for (const std::string &p : rule.patterns)
			if (match_pattern(p, cmd, caps))
				return &rule;
	}
	return nullptr;
}

void Modem::execute_line(const std::string &line)
{
	size_t at = find_at_prefix(line);
	if (at == std::string::npos)
		return; // an empty line or line noise gets no answer
	stats_.lines_executed++;
	Response r;
	add_answer_delay(&r);
	std::vector<std::string> cmds;
	if (!split_command_line(std::string_view(line).substr(at + 2), &cmds)) {
		r.items.push_back(Item::result(Final::error));
		render(r);
		return;
	}
	for (size_t i = 0; i < cmds.size(); i++) {
		std::vector<std::string> caps;
		const Rule *rule = find_rule(cmds[i], &caps);
		command_ = cmds[i];
		Response part;
		Outcome o = run(rule ? rule->body : sc_.unknown_block, 0, caps, &part);
		if (o == Outcome::prompt) {
			r.items.insert(r.items.end(), part.items.begin(), part.items.end());
			r.splits.insert(r.splits.end(), part.splits.begin(), part.splits.end());
			text_entry_ = true;
			break;
		}
		auto fin = std::find_if(part.items.begin(), part.items.end(),
					[](const Item &it) { return it.kind == ItemKind::final_result; });
		bool failed = fin != part.items.end() && fin->final != Final::ok;
		// Only the last command of a line, or the first that fails, shows its result.
		if (!failed && i + 1 < cmds.size() && fin != part.items.end())
			part.items.erase(fin);
		r.items.insert(r.items.end(), part.items.begin(), part.items.end());
		r.splits.insert(r.splits.end(), part.splits.begin(), part.splits.end());
		if (failed)
			break;
		r.items.push_back(Item::of(ItemKind::block_end));
	}
	render(r);
}

Modem::Outcome Modem::run(const std::vector<Stmt> &body, size_t from, const std::vector<std::string> &caps,
			  Response *r, int depth)
{
	for (size_t i = from; i < body.size(); i++) {
		const Stmt &s = body[i];
		switch (s.op) {
		case Op::line:
			r->items.push_back(Item::of(ItemKind::info, expand(s.text, caps)));
			break;
		case Op::ok:
			r->items.push_back(Item::result(Final::ok));
			break;
		case Op::error:
			r->items.push_back(Item::result(Final::error));
			break;
		case Op::cme:
			r->items.push_back(Item::result(Final::cme, s.num));
			break;
		case Op::cms:
			r->items.push_back(Item::result(Final::cms, s.num));
			break;
		case Op::result:
			r->items.push_back(Item::result(Final::text, 0, expand(s.text, caps)));
			break;
		case Op::raw:
			r->items.push_back(Item::of(ItemKind::raw, expand(s.text, caps)));
			break;
		case Op::urc:
			r->items.push_back(Item::of(ItemKind::urc, expand(s.text, caps)));
			break;
		case Op::delay:
			r->items.push_back(Item::of(ItemKind::delay, "", s.num));
			break;
		case Op::split:
			r->splits.emplace_back(s.num, s.num2);
			break;
		case Op::set:
			vars_[resolve_name(s.text, caps)] = expand(s.value, caps);
			break;
		case Op::add: {
			std::string name = resolve_name(s.text, caps);
			long v = to_long(var(name)) + s.num;
			if (s.num2 > 0)
				v = ((v % s.num2) + s.num2) % s.num2;
			vars_[name] = std::to_string(v);
			break;
		}
		case Op::if_: {
			Outcome o = run(holds(s.cond, caps) ? s.block : s.otherwise, 0, caps, r, depth);
			if (o != Outcome::done)
				return o;
			break;
		}
		case Op::after:
			if (!s.text.empty())
				cancel_timer(s.text); // a named timer started again replaces the pending one
			timers_.push_back({now_ + s.num, ++timer_seq_, s.text, &s.block, caps});
			break;
		case Op::cancel:
			cancel_timer(s.text);
			break;
		case Op::do_: {
			auto it = sc_.actions.find(s.text);
			// 'stop' inside the action ends the action, not the caller.
			if (it != sc_.actions.end() && depth < max_action_depth)
				run(it->second, 0, words(expand(s.value, caps)), r, depth + 1);
			break;
		}
		case Op::stop:
			return Outcome::stop;
		case Op::sms: {
			SmsAnswer a = s.text == "send" ? sms_.send(command_, var("text"), vars_)
						       : sms_.command(command_, vars_);
			for (std::string &line : a.lines)
				r->items.push_back(Item::of(ItemKind::info, std::move(line)));
			if (a.final == SmsAnswer::Final::ok)
				r->items.push_back(Item::result(Final::ok));
			else if (a.final == SmsAnswer::Final::error)
				r->items.push_back(Item::result(Final::error));
			else if (a.final == SmsAnswer::Final::cms)
				r->items.push_back(Item::result(Final::cms, a.code));
			// Once the store has answered, the rule is done.
			if (a.final != SmsAnswer::Final::none)
				return Outcome::stop;
			break;
		}
		case Op::ufs: {
			UfsAnswer a = ufs_.command(command_, vars_);
			add_ufs_answer(a, r);
			if (a.final == UfsAnswer::Final::connect)
				upload_due_ = now_ + ufs_.upload_timeout_ms();
			// Once the store has answered, the rule is done.
			if (a.final != UfsAnswer::Final::none)
				return Outcome::stop;
			break;
		}
		case Op::prompt:
			r->items.push_back(Item::of(ItemKind::prompt));
			cont_.body = &body;
			cont_.next = i + 1;
			cont_.captures = caps;
			cont_.esc_answer = s.text;
			cont_.command = command_;
			entry_.clear();
			return Outcome::prompt;
		case Op::boot:
			r->items.push_back(Item::act(Action::boot));
			break;
		case Op::fota:
			r->items.push_back(Item::act(Action::fota));
			break;
		case Op::powerdown:
			r->items.push_back(Item::act(Action::powerdown));
			break;
		case Op::hang:
			r->items.push_back(Item::act(Action::hang));
			break;
		}
	}
	return Outcome::done;
}

std::string Modem::final_text(const Item &it, bool verbose) const
{
	std::string text;
	bool extended = false;
	long cmee = to_long(var("cmee"));
	switch (it.final) {
	case Final::ok: text = "OK"; break;
	case Final::error: text = "ERROR"; break;
	case Final::text: text = it.text; break;
	case Final::cme:
	case Final::cms: {
		if (cmee == 0) {
			text = "ERROR";
			break;
		}
		const char *name = it.final == Final::cme ? cme_text(it.num) : cms_text(it.num);
		text = it.final == Final::cme ? "+CME ERROR: " : "+CMS ERROR: ";
		text += cmee == 2 && name ? name : std::to_string(it.num);
		extended = true;
		break;
	}
	}
	if (verbose)
		return "\r\n" + text + "\r\n";
	if (extended)
		return text + "\r\n";
	int code = numeric_code(text);
	return (code >= 0 ? std::to_string(code) : text) + "\r";
}

void Modem::render(const Response &r)
{
	bool verbose = flag("verbose", true);
	std::vector<Piece> pieces;
	std::string cur;
	bool block_open = false;
	auto flush = [&] {
		if (!cur.empty())
			pieces.push_back({Piece::bytes, std::move(cur)});
		cur.clear();
	};
	for (const Item &it : r.items) {
		switch (it.kind) {
		case ItemKind::info:
			if (verbose && !block_open)
				cur += "\r\n";
			block_open = true;
			cur += it.text + "\r\n";
			break;
		case ItemKind::block_end:
			block_open = false;
			break;
		case ItemKind::final_result:
			cur += final_text(it, verbose);
			block_open = false;
			break;
		case ItemKind::raw:
			cur += it.text;
			block_open = false;
			break;
		case ItemKind::urc:
			cur += verbose ? "\r\n" + it.text + "\r\n" : it.text + "\r\n";
			block_open = false;
			break;
		case ItemKind::prompt:
			cur += "\r\n> ";
			break;
		case ItemKind::delay:
			flush();
			pieces.push_back({Piece::wait, "", it.num});
			break;
		case ItemKind::action:
			flush();
			pieces.push_back({Piece::run_action, "", 0, it.action});
			break;
		}
	}
	flush();

	// Cut the bytes at each split offset and pause there.
	std::vector<std::pair<long, long>> splits = r.splits;
	std::sort(splits.begin(), splits.end());
	for (const auto &sp : splits) {
		long seen = 0;
		for (size_t i = 0; i < pieces.size(); i++) {
			if (pieces[i].kind != Piece::bytes)
				continue;
			long len = static_cast<long>(pieces[i].data.size());
			if (sp.first >= seen + len) {
				seen += len;
				continue;
			}
			long cut = sp.first - seen;
			Piece wait{Piece::wait, "", sp.second};
			if (cut == 0) {
				pieces.insert(pieces.begin() + static_cast<long>(i), wait);
			} else {
				Piece tail{Piece::bytes, pieces[i].data.substr(static_cast<size_t>(cut))};
				pieces[i].data.resize(static_cast<size_t>(cut));
				pieces.insert(pieces.begin() + static_cast<long>(i) + 1, wait);
				pieces.insert(pieces.begin() + static_cast<long>(i) + 2, tail);
			}
			break;
		}
	}
	for (Piece &p : pieces)
		queue_.push_back(std::move(p));
}

void Modem::cancel_timer(const std::string &name)
{
	timers_.erase(std::remove_if(timers_.begin(), timers_.end(), [&](const Timer &t) { return t.name == name; }),
		      timers_.end());
}

void Modem::fire_timers(Ms now)
{
	for (;;) {
		auto due = timers_.end();
		for (auto it = timers_.begin(); it != timers_.end(); ++it)
			if (it->due <= now && (due == timers_.end() || it->due < due->due ||
					       (it->due == due->due && it->seq < due->seq)))
				due = it;
		if (due == timers_.end())
			return;
		Timer t = std::move(*due);
		timers_.erase(due);
		// Counted from when the timer was due, so that a repeating one keeps its pace.
		Ms saved = now_;
		now_ = t.due;
		Response r;
		run(*t.body, 0, t.captures, &r);
		now_ = saved;
		if (mode_ != Mode::hung && mode_ != Mode::off && mode_ != Mode::hungup)
			render(r);
	}
}

std::vector<std::string> Modem::timers() const
{
	std::vector<const Timer *> order;
	for (const Timer &t : timers_)
		order.push_back(&t);
	std::sort(order.begin(), order.end(), [](const Timer *a, const Timer *b) {
		return a->due != b->due ? a->due < b->due : a->seq < b->seq;
	});
	std::vector<std::string> names;
	for (const Timer *t : order)
		names.push_back(t->name.empty() ? "-" : t->name);
	return names;
}

bool Modem::run_action(std::string_view name, std::string_view args, Ms now)
{
	auto it = sc_.actions.find(name);
	if (it == sc_.actions.end())
		return false;
	now_ = now;
	Response r;
	run(it->second, 0, words(args), &r, 1);
	if (mode_ == Mode::normal || mode_ == Mode::held)
		render(r);
	advance(now);
	return true;
}

void Modem::drop_pending()
{
	timers_.clear();
	queue_.clear();
	wait_due_ = -1;
	input_.clear();
	input_pos_ = 0;
	line_.clear();
	line_length_ = 0;
	text_entry_ = false;
	entry_.clear();
	cont_ = Continuation();
}

void Modem::enter_mode(Mode m)
{
	mode_ = m;
	if (m != Mode::normal && m != Mode::held) {
		if (ufs_.uploading())
			ufs_.abort_upload();
		upload_due_ = -1;
		input_.clear();
		input_pos_ = 0;
		line_.clear();
		line_length_ = 0;
	}
}

void Modem::run_block(const std::vector<Stmt> &block, bool ready_at_end)
{
	Response r;
	run(block, 0, {}, &r);
	// A prompt makes no sense in a block; end any text entry it opened.
	text_entry_ = false;
	cont_ = Continuation();
	if (ready_at_end)
		r.items.push_back(Item::act(Action::set_normal));
	render(r);
}

void Modem::apply(Action a)
{
	switch (a) {
	case Action::set_normal:
		enter_mode(Mode::normal);
		break;
	case Action::boot:
		drop_pending();
		reset_vars();
		enter_mode(Mode::booting);
		run_block(sc_.boot_block, true);
		break;
	case Action::fota:
		drop_pending();
		enter_mode(Mode::fota);
		run_block(sc_.fota_block, true);
		break;
	case Action::powerdown:
		drop_pending();
		enter_mode(Mode::off);
		run_block(sc_.powerdown_block, false); // silent until the next boot
		break;
	case Action::hang:
		drop_pending();
		enter_mode(Mode::hung);
		break;
	}
}

void Modem::inject_urc(std::string_view text, Ms now)
{
	now_ = now;
	if (mode_ == Mode::hungup)
		return;
	Response r;
	r.items.push_back(Item::of(ItemKind::urc, std::string(text)));
	render(r);
	advance(now);
}

void Modem::inject_raw(std::string_view bytes, Ms now)
{
	if (mode_ == Mode::hungup)
		return;
	queue_.push_back({Piece::bytes, std::string(bytes)});
	advance(now);
}

bool Modem::send_next_urc(Ms now)
{
	if (sc_.next_urcs.empty())
		return false;
	std::string text = expand(sc_.next_urcs[next_urc_ % sc_.next_urcs.size()], {});
	next_urc_++;
	inject_urc(text, now);
	return true;
}

void Modem::hang(Ms now)
{
	now_ = now;
	if (mode_ == Mode::hungup)
		return;
	apply(Action::hang);
	advance(now);
}

void Modem::unhang(Ms now)
{
	if (mode_ == Mode::hung) {
		enter_mode(Mode::normal);
		advance(now);
	}
}

void Modem::reboot(Ms now)
{
	now_ = now;
	if (mode_ == Mode::hungup)
		return;
	apply(Action::boot);
	advance(now);
}

void Modem::start_fota(Ms now)
{
	now_ = now;
	if (mode_ == Mode::hungup)
		return;
	apply(Action::fota);
	advance(now);
}

void Modem::power_down(Ms now)
{
	now_ = now;
	if (mode_ == Mode::hungup)
		return;
	apply(Action::powerdown);
	advance(now);
}

void Modem::hold(Ms now)
{
	if (mode_ == Mode::normal) {
		enter_mode(Mode::held);
		advance(now);
	}
}

void Modem::release(Ms now)
{
	if (mode_ == Mode::held) {
		enter_mode(Mode::normal);
		advance(now);
	}
}

void Modem::hang_up()
{
	drop_pending();
	enter_mode(Mode::hungup);
	periodic_due_.clear();
}

} // namespace modem_sim
