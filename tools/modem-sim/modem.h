// The simulated modem: a command interpreter driven by a scenario. It has no I/O
// and no clock of its own: the caller feeds it received bytes and the current
// time, collects the bytes it wants to send, and asks when it next needs to run.
#pragma once

#include "scenario.h"

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
	fota,    // firmware update: only the fota block's URCs
	off,     // powered down: silent until the next boot
};

const char *mode_name(Mode m);

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
	const Scenario &scenario() const { return sc_; }

	// Operator actions. The mode changes take effect at once and drop any
	// output still waiting, as a reset or a crash of a real modem would.
	void inject_urc(std::string_view text, Ms now);
	void inject_raw(std::string_view bytes, Ms now);
	bool send_next_urc(Ms now); // false when the scenario lists none
	void hang(Ms now);
	void unhang(Ms now);
	void reboot(Ms now);
	void start_fota(Ms now);
	void power_down(Ms now);

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

	enum class Outcome { done, prompt };

	struct Continuation {
		const std::vector<Stmt> *body = nullptr;
		size_t next = 0;
		std::vector<std::string> captures;
		std::string esc_answer;
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
	void handle_command_byte(char c);
	void handle_text_byte(char c);
	void execute_line(const std::string &line);
	const Rule *find_rule(const std::string &cmd, std::vector<std::string> *caps) const;
	Outcome run(const std::vector<Stmt> &body, size_t from, const std::vector<std::string> &caps, Response *r);

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

	std::string input_;     // received, not yet interpreted
	std::string line_;      // command line being typed
	bool text_entry_ = false;
	std::string entry_;     // text after a prompt
	Continuation cont_;

	std::deque<Piece> queue_;
	Ms wait_due_ = -1;
	std::string out_;

	std::vector<Ms> periodic_due_;
	size_t next_urc_ = 0;
};

} // namespace modem_sim
