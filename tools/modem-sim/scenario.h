// A scenario describes one simulated modem model: its initial settings, how it
// answers each AT command, what it prints when it boots, powers down or updates
// its firmware, and which unsolicited result codes it emits on its own.
// The text format is described in docs/modem-sim.md.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace modem_sim {

enum class Op {
	line,      // information text line, framed by the current ATV mode
	ok,        // final result codes
	error,
	cme,       // +CME ERROR: <n>, shown as ERROR / number / text by AT+CMEE
	cms,       // +CMS ERROR: <n>, likewise
	result,    // any other final result code ("NO CARRIER", "BUSY", ...)
	raw,       // bytes sent exactly as written
	urc,       // an unsolicited line inside a response or a block
	delay,     // pause the output here
	split,     // pause after the first N bytes of the response
	set,       // change a variable
	add,       // add to a numeric variable, optionally modulo
	prompt,    // "\r\n> ", then collect text up to Ctrl-Z
	boot,      // restart the modem (runs the boot block)
	fota,      // enter firmware update (runs the fota block)
	powerdown, // power down (runs the powerdown block)
	hang,      // stop answering
};

struct Stmt {
	Op op = Op::ok;
	std::string text;  // text of line/urc/result/raw, variable of set/add, ESC answer of prompt
	std::string value; // value of set
	long num = 0;      // code of cme/cms, ms of delay, byte offset of split, amount of add
	long num2 = 0;     // ms of split, modulus of add (0: none)
	int line_no = 0;
};

struct Condition {
	std::string var;
	bool equal = true;
	std::string value;
};

struct Rule {
	std::vector<std::string> patterns; // any one matches
	std::vector<Condition> when;       // all must hold
	std::vector<Stmt> body;
	int line_no = 0;
};

struct Periodic {
	long interval_ms = 0;
	std::string text;
};

struct Scenario {
	std::string model;
	std::vector<std::pair<std::string, std::string>> initial; // in file order
	std::vector<Rule> rules;                                   // first match wins
	std::vector<Stmt> boot_block;
	std::vector<Stmt> fota_block;
	std::vector<Stmt> powerdown_block;
	std::vector<Stmt> unknown_block; // answer to commands no rule matches
	std::vector<Periodic> periodic;
	std::vector<std::string> next_urcs; // sent one after another by "next"/SIGUSR1
	long latency_ms = 0;                // delay before every answer
};

struct ParseError {
	int line = 0;
	std::string message;
};

// Parses scenario text. On failure returns false and fills *err.
[[nodiscard]] bool parse_scenario(std::string_view text, Scenario *out, ParseError *err);

// Reads and parses a scenario file; *err gets "path:line: message" on failure.
[[nodiscard]] bool load_scenario(const std::string &path, Scenario *out, std::string *err);

// "250", "250ms" or "3s"; a plain number is milliseconds.
[[nodiscard]] bool parse_duration(std::string_view s, long *ms);

// Matches an AT command against a pattern, ignoring case. '*' matches any run of
// characters (possibly empty, shortest first) and "[...]" one character of a set
// such as "[012]" or "[0-8]"; what they matched becomes *captures, in order.
[[nodiscard]] bool match_pattern(std::string_view pattern, std::string_view text,
				 std::vector<std::string> *captures);

// Expands a text of the scenario: escapes (\r \n \t \e \z \\ \{ \$ \" \xHH),
// variables ({name}) and captures ($1..$9). Returns false on a bad escape or an
// unterminated {name}; *bad gets a description.
using VarLookup = std::function<std::string(std::string_view name)>;
[[nodiscard]] bool expand_text(std::string_view text, const std::vector<std::string> &captures,
			       const VarLookup &lookup, std::string *out, std::string *bad);

} // namespace modem_sim
