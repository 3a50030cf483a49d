#include "control.h"

#include <ctime>

namespace modem_sim {

namespace {

const char help_text[] =
	"urc <text>         send an unsolicited line (\\r\\n framed; escapes allowed)\n"
	"raw <text>         send bytes as they are (escapes allowed)\n"
	"next               send the scenario's next URC (also SIGUSR1)\n"
	"hang | unhang      stop answering / answer again\n"
	"hold | release     read but send nothing / answer everything read meanwhile\n"
	"slow <duration>    pause before every answer from now on (slow 0 ends it)\n"
	"hangup             close the terminal: the host sees a hang-up\n"
	"boot               restart: silence, then the boot URCs\n"
	"fota               firmware update: only FOTA URCs, then boot\n"
	"powerdown          POWERED DOWN, then silent until boot\n"
	"do <action> [args] run an action of the scenario (a change of the world)\n"
	"actions            list the scenario's actions\n"
	"timers             show the pending 'after' timers, soonest first\n"
	"echo on|off        same as ATE1 / ATE0\n"
	"set <var> <value>  change a variable (kept across boots)\n"
	"get <var>          show a variable\n"
	"vars               show all variables\n"
	"mode               show the modem's mode\n"
	"stats              show what the modem has read\n"
	"sms deliver <sender> <text>  the network delivers a text (\\n \\t \\\\ \\xHH \\u{HEX} escapes)\n"
	"sms pdu <hex>      the network delivers an SMS-DELIVER PDU (SMSC field first), as is\n"
	"sms list | sent    the stored messages / the messages the host sent\n"
	"sms fill <SM|ME>   fill a storage up; sms clear: empty them all, forget the sent\n"
	"ufs list           the stored files: storage, name, size, checksum\n"
	"quit               stop the simulator\n";

std::string_view trim(std::string_view s)
{
	while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
		s.remove_prefix(1);
	while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
		s.remove_suffix(1);
	return s;
}

ControlReply ok(std::string body = std::string())
{
	return {body + "OK\n"};
}

ControlReply fail(const std::string &why)
{
	return {"ERROR " + why + "\n"};
}

// The operator's text of "sms deliver": \n \r \t \\ \xHH (a byte) and
// \u{HEX} (a character, as UTF-8) stand for what they name.
bool unescape(std::string_view in, std::string *out, std::string *bad)
{
	auto hex_value = [](std::string_view digits, unsigned long *v) {
		if (digits.empty() || digits.size() > 6 || digits.find_first_not_of("0123456789abcdefABCDEF") !=
								   std::string_view::npos)
			return false;
		*v = std::stoul(std::string(digits), nullptr, 16);
		return true;
	};
	for (size_t i = 0; i < in.size(); i++) {
		if (in[i] != '\\' || i + 1 == in.size()) {
			*out += in[i];
			continue;
		}
		char c = in[++i];
		unsigned long v = 0;
		size_t close = c == 'u' && i + 1 < in.size() && in[i + 1] == '{' ? in.find('}', i) : std::string_view::npos;
		if (c == 'n' || c == 'r' || c == 't' || c == '\\') {
			*out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : '\\';
		} else if (c == 'x' && in.substr(i + 1, 2).size() == 2 && hex_value(in.substr(i + 1, 2), &v)) {
			*out += static_cast<char>(v);
			i += 2;
		} else if (close != std::string_view::npos && hex_value(in.substr(i + 2, close - i - 2), &v) &&
			   v <= 0x10FFFF && (v < 0xD800 || v > 0xDFFF)) {
			int extra = v < 0x80 ? 0 : v < 0x800 ? 1 : v < 0x10000 ? 2 : 3;
			static const unsigned lead[] = {0x00, 0xC0, 0xE0, 0xF0};
			*out += static_cast<char>(lead[extra] | v >> (6 * extra));
			for (int k = extra - 1; k >= 0; k--)
				*out += static_cast<char>(0x80 | (v >> (6 * k) & 0x3F));
			i = close;
		} else {
			*bad = std::string("bad escape \\") + c;
			return false;
		}
	}
	return true;
}

// sms deliver|pdu|list|sent|fill|clear.
ControlReply sms_command(Modem &modem, std::string_view arg, Ms now)
{
	size_t sp = arg.find(' ');
	std::string_view sub = arg.substr(0, sp);
	std::string_view rest = sp == std::string_view::npos ? std::string_view() : trim(arg.substr(sp + 1));
	SmsStore &store = modem.sms();
	const Vars &vars = modem.vars();
	std::vector<std::string> urcs;
	std::string why;
	if (sub == "list")
		return ok(store.list_text(vars));
	if (sub == "sent")
		return ok(store.sent_text());
	if (sub == "clear") {
		store.clear();
		return ok();
	}
	if (sub == "fill") {
		if (store.capacity(rest, vars) == 0)
			return fail("sms fill SM|ME (a storage of the scenario)");
		return ok("stored " + std::to_string(store.fill(rest, vars)) + "\n");
	}
	if (sub == "deliver") {
		size_t s2 = rest.find(' ');
		std::string text;
		if (rest.empty() || s2 == std::string_view::npos)
			return fail("sms deliver <sender> <text>");
		if (!unescape(trim(rest.substr(s2 + 1)), &text, &why))
			return fail(why);
		Scts t = scts_of(std::time(nullptr));
		if (!modem.var("sms_time").empty() && !parse_scts(modem.var("sms_time"), &t))
			return fail("sms_time is not yy/MM/dd,hh:mm:ss+zz");
		if (!store.deliver_text(rest.substr(0, s2), text, t, vars, &urcs, &why))
			return fail(why);
	} else if (sub == "pdu") {
		std::string bytes;
		if (!from_hex(rest, &bytes) || smsc_field_size(bytes) == 0)
			return fail("sms pdu <hex>, the SMSC field first");
		if (!store.deliver({std::string(rest)}, vars, &urcs, &why))
			return fail(why);
	} else {
		return fail("sms deliver|pdu|list|sent|fill|clear");
	}
	// The module tells the host only while it is up.
	if (modem.mode() == Mode::normal || modem.mode() == Mode::held)
		for (const std::string &u : urcs)
			modem.inject_urc(u, now);
	return ok();
}

std::string stats_text(const Modem &modem)
{
	const LineStats &st = modem.stats();
	std::string out = "received " + std::to_string(st.bytes_received) + "\n" +
			  "executed " + std::to_string(st.lines_executed) + "\n" +
			  "too_long " + std::to_string(st.lines_too_long) + "\n" +
			  "texts " + std::to_string(st.texts) + "\n" +
			  "pending " + std::to_string(modem.pending_input()) + "\n" +
			  "slow " + std::to_string(modem.slowness()) + "\n";
	for (const LineStats::Entry &e : st.recent) {
		out += "line " + quoted(e.bytes);
		if (e.length > e.bytes.size())
			out += " ... " + std::to_string(e.length) + " bytes";
		out += "\n";
	}
	if (!modem.partial_line().empty())
		out += "typing " + quoted(modem.partial_line()) + "\n";
	return out;
}

// Commands that act on the line, refused once it is hung up.
bool needs_line(std::string_view cmd)
{
	for (const char *c : {"urc", "raw", "next", "hang", "unhang", "hold", "release", "slow", "boot", "fota",
			      "powerdown", "hangup"})
		if (cmd == c)
			return true;
	return false;
}

} // namespace

ControlReply run_control(Modem &modem, std::string_view line, Ms now)
{
	line = trim(line);
	size_t sp = line.find(' ');
	std::string_view cmd = line.substr(0, sp);
	std::string_view arg = sp == std::string_view::npos ? std::string_view() : trim(line.substr(sp + 1));

	if (cmd.empty())
		return fail("empty command");
	if (cmd == "help")
		return ok(help_text);
	if (cmd == "quit" || cmd == "exit") {
		ControlReply r = ok();
		r.quit = true;
		return r;
	}
	if (modem.mode() == Mode::hungup && needs_line(cmd))
		return fail("the line is hung up");
	if (cmd == "urc" || cmd == "raw") {
		if (arg.empty())
			return fail(std::string(cmd) + " needs a text");
		std::string text, bad;
		if (!expand_text(arg, {}, [&](std::string_view n) { return modem.var(n); }, &text, &bad))
			return fail(bad);
		if (cmd == "urc")
			modem.inject_urc(text, now);
		else
			modem.inject_raw(text, now);
		return ok();
	}
	if (cmd == "next")
		return modem.send_next_urc(now) ? ok() : fail("the scenario lists no URCs for 'next'");
	if (cmd == "hang") {
		modem.hang(now);
		return ok();
	}
	if (cmd == "unhang") {
		if (modem.mode() != Mode::hung)
			return fail(std::string("not hung but ") + mode_name(modem.mode()));
		modem.unhang(now);
		return ok();
	}
	if (cmd == "hold") {
		if (modem.mode() != Mode::normal)
			return fail(std::string("not normal but ") + mode_name(modem.mode()));
		modem.hold(now);
		return ok();
	}
	if (cmd == "release") {
		if (modem.mode() != Mode::held)
			return fail(std::string("not held but ") + mode_name(modem.mode()));
		modem.release(now);
		return ok();
	}
	if (cmd == "slow") {
		long ms;
		if (!parse_duration(arg, &ms))
			return fail("slow <duration>, such as 500ms, 3s or 0");
		modem.set_slowness(ms);
		return ok();
	}
	if (cmd == "hangup") {
		modem.hang_up();
		return ok();
	}
	if (cmd == "boot") {
		modem.reboot(now);
		return ok();
	}
	if (cmd == "fota") {
		modem.start_fota(now);
		return ok();
	}
	if (cmd == "powerdown") {
		modem.power_down(now);
		return ok();
	}
	if (cmd == "do") {
		size_t s2 = arg.find(' ');
		std::string_view name = arg.substr(0, s2);
		std::string_view args = s2 == std::string_view::npos ? std::string_view() : trim(arg.substr(s2 + 1));
		if (name.empty())
			return fail("do <action> [arguments]");
		if (!modem.run_action(name, args, now))
			return fail("the scenario has no action '" + std::string(name) + "' (try actions)");
		return ok();
	}
	if (cmd == "actions") {
		std::string body;
		for (const auto &kv : modem.scenario().actions)
			body += kv.first + "\n";
		return ok(body);
	}
	if (cmd == "timers") {
		std::string body;
		for (const std::string &t : modem.timers())
			body += t + "\n";
		return ok(body);
	}
	if (cmd == "echo") {
		if (arg != "on" && arg != "off")
			return fail("echo on|off");
		modem.set_var("echo", arg == "on" ? "1" : "0");
		return ok();
	}
	if (cmd == "set") {
		size_t s2 = arg.find(' ');
		std::string_view name = arg.substr(0, s2);
		std::string_view value = s2 == std::string_view::npos ? std::string_view() : trim(arg.substr(s2 + 1));
		if (name.empty())
			return fail("set <var> <value>");
		modem.set_var(std::string(name), std::string(value));
		return ok();
	}
	if (cmd == "get") {
		if (arg.empty())
			return fail("get <var>");
		return ok(modem.var(arg) + "\n");
	}
	if (cmd == "vars") {
		std::string body;
		for (const auto &kv : modem.vars())
			body += kv.first + "=" + kv.second + "\n";
		return ok(body);
	}
	if (cmd == "mode")
		return ok(std::string(modem.state_name()) + "\n");
	if (cmd == "stats")
		return ok(stats_text(modem));
	if (cmd == "sms")
		return sms_command(modem, arg, now);
	if (cmd == "ufs") {
		if (arg != "list")
			return fail("ufs list");
		std::string body;
		for (const std::string &line : modem.ufs().list())
			body += line + "\n";
		return ok(body);
	}
	return fail("unknown command '" + std::string(cmd) + "' (try help)");
}

} // namespace modem_sim
