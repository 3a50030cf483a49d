// The simulated module's file storages: "UFS" (the module's flash, the
// directory /data/ufs/ of its own system) and "RAM", each a map of file names
// to bytes with a capacity, and the commands that list, delete, measure and
// upload files (AT+QFLST, AT+QFDEL, AT+QFLDS, AT+QFUPL) and that start a
// firmware update from a stored package (AT+QFOTADL).
//
// Capacities are the modem's variables, so that the scenario gives them:
//   ufs_total, ufs_ram_total   bytes; 0 or unset: no such storage
// The files outlive boots, as the module's flash keeps them.
//
// An upload runs in two steps: the command answers CONNECT and opens the
// upload; the modem then hands every byte it reads to feed() (no echo, no
// line handling) until the announced size arrived, and answers with
// finish_upload(), or with abort_upload() when the host stayed silent for the
// upload's time-out.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace modem_sim {

using Vars = std::map<std::string, std::string, std::less<>>;

// Error codes of the module's file commands (+CME ERROR).
enum UfsError {
	ufs_invalid_input = 400,
	ufs_no_such_file = 405,
	ufs_bad_name = 406,
	ufs_exists = 407,
	ufs_no_space = 420,
	ufs_timeout = 421,
	ufs_bad_parameter = 425,
};

struct UfsAnswer {
	enum class Final { none, ok, error, cme, connect };
	Final final = Final::none;
	int code = 0;                   // of Final::cme
	std::vector<std::string> lines; // information lines
	bool fota = false;              // AT+QFOTADL accepted: the update starts after OK
};

class UfsStore {
public:
	// Answers a file command; Final::none for a command it does not know.
	// Final::connect opens an upload.
	UfsAnswer command(std::string_view cmd, const Vars &vars);

	bool uploading() const { return upload_.active; }
	// The upload's time-out: the host's silence that ends it.
	int64_t upload_timeout_ms() const { return upload_.timeout_ms; }
	// Takes bytes of the upload; how many it took (never more than are
	// missing). Once the last one arrived, finish_upload() answers.
	size_t feed(std::string_view bytes);
	bool upload_complete() const { return upload_.active && upload_.data.size() == upload_.size; }
	// Stores the file: "+QFUPL: <size>,<checksum>" and OK.
	UfsAnswer finish_upload();
	// The host went silent: what arrived is dropped, +CME ERROR: 421.
	UfsAnswer abort_upload();

	// Operator view: one line per file, "<storage> <name> <size> <checksum>".
	std::vector<std::string> list() const;
	// A file's bytes, null when there is none.
	const std::string *file(std::string_view storage, std::string_view name) const;

	// The module's 16-bit checksum of a file: XOR of big-endian byte pairs,
	// an odd last byte paired with 0.
	static uint16_t checksum(std::string_view data);

private:
	struct Upload {
		bool active = false;
		std::string storage, name;
		size_t size = 0;
		int64_t timeout_ms = 0;
		std::string data;
	};

	UfsAnswer list_files(std::string_view arg);
	UfsAnswer delete_file(std::string_view arg);
	UfsAnswer space(std::string_view arg, const Vars &vars);
	UfsAnswer upload(std::string_view arg, const Vars &vars);
	UfsAnswer fota(std::string_view arg);
	size_t used(const std::string &storage) const;

	std::map<std::string, std::map<std::string, std::string>> files_; // storage -> name -> bytes
	Upload upload_;
};

} // namespace modem_sim
