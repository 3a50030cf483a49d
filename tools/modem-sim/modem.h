// The simulated modem: a command interpreter driven by a scenario. It has no I/O
// and no clock of its own: the caller feeds it received bytes and the current
// time, collects the bytes it wants to send, and asks when it next needs to run.
#pragma once

#include "scenario.h"
#include "sms_store.h"
#include "ufs_store.h"

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace modem_sim {

using Ms = int64_t; // milliseconds on a monotonic clock

enum class Mode {
	booting, // silent until the boot block has run
	normal,
	hung,    // swallows everything, answers nothing
	held,    // stalled: keeps what it reads and sends nothing until released
	fota,    // firmware update: only the fota block's URCs
	off,     // powered down: silent until the next boot
	hungup,  // the line is gone (the simulator closed its terminal); final
};

const char *mode_name(Mode m);

// Longest command line the modem takes, CR excluded. A longer line is thrown
// away and answered with ERROR when its CR arrives.
constexpr size_t max_command_line = 1024;

// Input not yet interpreted (held, or behind an answer in progress); beyond
// this it is lost, like the bytes of an overrun UART.
constexpr size_t max_pending_input = 1 << 20;

// What the modem has read, for tests that check what reached it.
struct LineStats {
	struct Entry {
		std::string bytes; // the start of the line as the modem took it, terminator included
		size_t length = 0; // its full length
	};
	uint64_t bytes_received = 0; // every byte the host wrote, in any mode
	uint64_t lines_executed = 0; // command lines run (with an AT prefix)
	uint64_t lines_too_long = 0; // command lines refused for their length
	uint64_t texts = 0;          // texts ended by Ctrl-Z or ESC after a prompt
	std::deque<Entry> recent;    // the last few lines and texts, oldest first
};

class Modem {
public:
	explicit Modem(Scenario sc);

	// Starts the modem at `now`, through the boot block or directly ready.
	void start(Ms now, bool run_boot);

	// Bytes written by the host.
	void receive(std::string_view bytes, Ms now);

	// Runs everything that is due at `now`.
	void advance(Ms now);

	// Bytes produced since the last call.
	std::string take_output();

	// When advance() must run next; -1 when nothing is scheduled.
	Ms next_deadline() const;

	Mode mode() const { return mode_; }
	bool in_text_entry() const { return text_entry_; }
	// The mode's name, or "prompt" while a normal modem waits for text.
	const char *state_name() const;
	const LineStats &stats() const { return stats_; }
	// Bytes read but not yet interpreted (held, or waiting behind an answer).
	size_t pending_input() const { return input_.size() - input_pos_; }
	// The line being typed, not yet ended by CR.
	const std::string &partial_line() const { return line_; }
	Ms slowness() const { return slow_ms_; }
	const Scenario &scenario() const { return sc_; }
	SmsStore &sms() { return sms_; }
	UfsStore &ufs() { return ufs_; }

	// Operator actions. The mode changes take effect at once and drop any
	// output still waiting, as a reset or a crash of a real modem would.
	void inject_urc(std::string_view text, Ms now);
	void inject_raw(std::string_view bytes, Ms now);
	bool send_next_urc(Ms now); // false when the scenario lists none
	void hang(Ms now);
	void unhang(Ms now);
	// Stall: the bytes read from now on, and the rest of an answer in
	// progress, wait for release(), which answers them in order.
	void hold(Ms now);
	void release(Ms now);
	// Extra pause before every answer that starts from now on (0 ends it).
	void set_slowness(Ms ms) { slow_ms_ = ms; }
	// The line is gone for good: nothing is read or sent any more.
	void hang_up();
	void reboot(Ms now);
	void start_fota(Ms now);
	void power_down(Ms now);
	// Runs a named action of the scenario with arguments (words, as $1..$9):
	// a change of the outside world. Its variables change in any mode; what it
	// sends goes out only while the modem is up (normal, or held until release).
	// False when the scenario has no such action.
	bool run_action(std::string_view name, std::string_view args, Ms now);
	// Names of the pending timers ("after" blocks), soonest first; unnamed ones as "-".
	std::vector<std::string> timers() const;

	// A variable set by the operator keeps its value across reboots (it models
	// the outside world, such as a SIM card pulled out).
	void set_var(const std::string &name, const std::string &value);
	std::string var(std::string_view name) const;
	const std::map<std::string, std::string, std::less<>> &vars() const { return vars_; }

private:
	enum class ItemKind { info, block_end, final_result, raw, urc, delay, prompt, action };
	enum class Final { ok, error, cme, cms, text };
	enum class Action { set_normal, boot, fota, powerdown, hang };

	struct Item {
		ItemKind kind;
		std::string text;
		long num = 0;
		Final final = Final::ok;
		Action action = Action::set_normal;

		static Item of(ItemKind k, std::string text = std::string(), long num = 0)
		{
			return {k, std::move(text), num};
		}
		static Item result(Final f, long num = 0, std::string text = std::string())
		{
			return {ItemKind::final_result, std::move(text), num, f};
		}
		static Item act(Action a) { return {ItemKind::action, std::string(), 0, Final::ok, a}; }
	};

	struct Response {
		std::vector<Item> items;
		std::vector<std::pair<long, long>> splits; // byte offset, pause
	};

	enum class Outcome { done, prompt, stop };

	// A block of 'after', due at a time.
	struct Timer {
		Ms due = 0;
		uint64_t seq = 0; // order among timers due at the same time
		std::string name;
		const std::vector<Stmt> *body = nullptr;
		std::vector<std::string> captures;
	};

	struct Continuation {
		const std::vector<Stmt> *body = nullptr;
		size_t next = 0;
		std::vector<std::string> captures;
		std::string esc_answer;
		std::string command;
	};

	struct Piece {
		enum Kind { bytes, wait, run_action } kind;
		std::string data;
		Ms ms = 0;
		Action action = Action::set_normal;
	};

	void reset_vars();
	bool flag(std::string_view name, bool dflt) const;
	std::string expand(const std::string &text, const std::vector<std::string> &caps) const;

	void consume_input();
	void take_upload_bytes();
	void add_ufs_answer(const UfsAnswer &a, Response *r);
	void note_line(const std::string &bytes, size_t length);
	void add_answer_delay(Response *r) const;
	void handle_command_byte(char c);
	void handle_text_byte(char c);
	void execute_line(const std::string &line);
	const Rule *find_rule(const std::string &cmd, std::vector<std::string> *caps) const;
	Outcome run(const std::vector<Stmt> &body, size_t from, const std::vector<std::string> &caps, Response *r,
		    int depth = 0);
	bool holds(const Condition &c, const std::vector<std::string> &caps) const;
	void fire_timers(Ms now);
	void cancel_timer(const std::string &name);

	void render(const Response &r);
	std::string final_text(const Item &it, bool verbose) const;
	void apply(Action a);
	void run_block(const std::vector<Stmt> &block, bool ready_at_end);
	void drop_pending();
	void enter_mode(Mode m);

	Scenario sc_;
	Mode mode_ = Mode::off;
	std::map<std::string, std::string, std::less<>> vars_;
	std::map<std::string, std::string, std::less<>> overrides_;

	std::string input_;     // received; interpreted up to input_pos_
	size_t input_pos_ = 0;
	std::string line_;      // command line being typed
	size_t line_length_ = 0; // its length as typed, beyond max_command_line too
	bool text_entry_ = false;
	std::string entry_;     // text after a prompt
	Continuation cont_;

	std::deque<Piece> queue_;
	Ms wait_due_ = -1;
	std::string out_;

	std::vector<Ms> periodic_due_;
	size_t next_urc_ = 0;

	std::vector<Timer> timers_;
	uint64_t timer_seq_ = 0;
	Ms now_ = 0; // time of the call being handled, the base of 'after'

	Ms slow_ms_ = 0;
	LineStats stats_;

	SmsStore sms_;
	UfsStore ufs_;
	Ms upload_due_ = -1; // an upload ends with an error when no byte came by then
	std::string command_; // the command being answered, for the message store
};

} // namespace modem_sim
