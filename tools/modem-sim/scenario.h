// A scenario describes one simulated modem model: its initial settings, how it
// answers each AT command, what it prints when it boots, powers down or updates
// its firmware, and which unsolicited result codes it emits on its own.
// The text format is described in docs/modem-sim.md.
#pragma once

#include <functional>
#include <map>
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
	if_,       // run one of two indented blocks, by a condition
	after,     // run an indented block later (a timer, optionally named)
	cancel,    // drop the pending timer of that name
	do_,       // run a named action, with arguments as $1..$9
	stop,      // end the rule or action here
	sms,       // the message store answers the command ("send": the text after the prompt)
	ufs,       // the file store answers the command
};

// How a condition compares a variable with a value.
enum class Cmp {
	eq, ne,         // text equality
	lt, le, gt, ge, // whole numbers
	match,          // the value is a pattern, as in 'on' lines
	within,         // every element of the variable is one of the value's (see contained_in)
};

// "<var> <cmp> <value>". The variable's name may contain $1..$9 (replaced by
// the captures first); the value is a text, expanded when it is compared.
struct Condition {
	std::string var;
	Cmp cmp = Cmp::eq;
	std::string value;
};

struct Stmt {
	Op op = Op::ok;
	std::string text;  // text of line/urc/result/raw, variable of set/add, ESC answer of prompt,
			   // timer name of after/cancel, action name of do
	std::string value; // value of set, arguments of do
	long num = 0;      // code of cme/cms, ms of delay/after, byte offset of split, amount of add
	long num2 = 0;     // ms of split, modulus of add (0: none)
	int line_no = 0;
	Condition cond;              // of if
	std::vector<Stmt> block;     // of if (when it holds) and after
	std::vector<Stmt> otherwise; // of if, after 'else'
	bool has_else = false;
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

// A message in the store when the modem is created.
struct SeedSms {
	std::string mem;
	int stat = 0;
	std::string pdu; // hex, SMSC field first
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
	// Named blocks run by 'do' in a rule or block, or by the operator's "do".
	std::map<std::string, std::vector<Stmt>, std::less<>> actions;
	std::vector<std::string> keep; // variables that keep their value across boots
	std::vector<SeedSms> messages; // stored messages at start, in order
};

struct ParseError {
	std::string file; // the included file the error is in; empty: the main text
	int line = 0;
	std::string message;
};

// Parses scenario text. On failure returns false and fills *err. 'include'
// needs a file and is refused here.
[[nodiscard]] bool parse_scenario(std::string_view text, Scenario *out, ParseError *err);

// Reads and parses a scenario file, with the files it includes (relative to
// its own directory); *err gets "path:line: message" on failure.
[[nodiscard]] bool load_scenario(const std::string &path, Scenario *out, std::string *err);

// Replaces $1..$9 in a variable name by the captures ("pdp$1_apn" -> "pdp2_apn").
[[nodiscard]] std::string resolve_name(std::string_view name, const std::vector<std::string> &captures);

// "250", "250ms" or "3s"; a plain number is milliseconds.
[[nodiscard]] bool parse_duration(std::string_view s, long *ms);

// Matches an AT command against a pattern, ignoring case. '*' matches any run of
// characters (possibly empty, shortest first) and "[...]" one character of a set
// such as "[012]" or "[0-8]"; what they matched becomes *captures, in order.
[[nodiscard]] bool match_pattern(std::string_view pattern, std::string_view text,
				 std::vector<std::string> *captures);

// Expands a text of the scenario: escapes (\r \n \t \e \z \\ \{ \$ \" \xHH),
// variables ({name}, where the name may hold $1..$9) and captures ($1..$9).
// Returns false on a bad escape or an unterminated {name}; *bad gets a
// description.
using VarLookup = std::function<std::string(std::string_view name)>;
[[nodiscard]] bool expand_text(std::string_view text, const std::vector<std::string> &captures,
			       const VarLookup &lookup, std::string *out, std::string *bad);

// Whether every element of `part` is one of `whole`'s: hex masks ("0x" in
// front of `whole`; `part` with or without it, any length) bit by bit, else
// lists separated by ':' item by item, ignoring case. A mask or item that is
// not well formed is not contained; an empty list is contained in any list.
[[nodiscard]] bool contained_in(std::string_view part, std::string_view whole);

// Bytes as one quoted line for the operator: CR, LF, quote and backslash
// escaped, other control bytes as \xHH; bytes from 0x80 kept (UTF-8 text)
// or, for raw bytes, also as \xHH.
[[nodiscard]] std::string quoted(std::string_view bytes, bool utf8 = false);

} // namespace modem_sim
