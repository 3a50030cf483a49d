// The simulated module's SMS: message storages ("SM" on the SIM, "ME" in the
// module) holding PDUs with their indices and statuses, the AT commands of
// 3GPP TS 27.005 that select, list, read, delete and send messages, the
// messages the network delivers, and a record of what the host sent.
//
// The settings live in the modem's variables, so that the scenario gives
// their defaults, a boot resets them and the operator sees them:
//   cmgf                     0 PDU mode, 1 text mode
//   cnmi                     "<mode>,<mt>,<bm>,<ds>,<bfr>" of AT+CNMI
//   mr                       the next message reference AT+CMGS gives
//   sms_mem1..sms_mem3       storages for reading/deleting, sending/writing, receiving
//   sms_sm_total, sms_me_total  capacity of each storage; 0 or unset: no such storage
//   smsc                     the service centre put in front of delivered PDUs
// The messages themselves outlive boots, as the SIM and the module's flash keep them.
#pragma once

#include "sms_pdu.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace modem_sim {

using Vars = std::map<std::string, std::string, std::less<>>;

// Message status as 27.005 numbers it.
enum SmsStat { rec_unread = 0, rec_read = 1, sto_unsent = 2, sto_sent = 3 };

struct StoredSms {
	int stat = rec_unread;
	std::string pdu; // hex, SMSC field first, as AT+CMGL lists it
};

// What a command makes the module send.
struct SmsAnswer {
	enum class Final { none, ok, error, cms };
	Final final = Final::none;
	int code = 0;                   // of Final::cms
	std::vector<std::string> lines; // information lines
};

// One message the host sent, its parts joined as they arrive.
struct SentSms {
	std::string number;
	Alphabet alphabet = Alphabet::gsm7;
	int ref = -1; // concatenation reference; -1: a single part
	int total = 1;
	std::map<int, std::string> parts; // sequence number -> text
	std::vector<int> mrs;             // message references given, in order

	bool complete() const { return static_cast<int>(parts.size()) == total; }
	std::string text() const;
};

class SmsStore {
public:
	// Answers AT+CPMS, AT+CNMI, AT+CMGL, AT+CMGR, AT+CMGD, and AT+CMGS or
	// AT+CMGW before their prompt (Final::none when the text may follow).
	SmsAnswer command(std::string_view cmd, Vars &vars);
	// The text entered after the prompt of AT+CMGS (checked and sent) or
	// AT+CMGW (checked and stored in <mem2>).
	SmsAnswer send(std::string_view cmd, std::string_view text, Vars &vars);

	// Stores a PDU (hex, SMSC field first) at the lowest free index of mem;
	// the index, or -1 when there is no such storage or it is full.
	int store(std::string_view mem, int stat, std::string pdu, const Vars &vars);
	// The network delivers PDUs: stored in <mem3> (or passed straight to the
	// host, as +CNMI says) with the indications of +CNMI in *urcs. All or
	// nothing: false with *why when <mem3> has too little room.
	bool deliver(const std::vector<std::string> &pdus, const Vars &vars, std::vector<std::string> *urcs,
		     std::string *why);
	// Encodes a text from sender as DELIVERs and delivers them.
	bool deliver_text(std::string_view sender, std::string_view text, const Scts &t, const Vars &vars,
			  std::vector<std::string> *urcs, std::string *why);
	// Fills every free index of mem with read messages; how many.
	int fill(std::string_view mem, const Vars &vars);
	// Empties every storage and forgets what was sent.
	void clear();

	int capacity(std::string_view mem, const Vars &vars) const;
	const std::map<int, StoredSms> &messages(std::string_view mem) const;
	const std::vector<SentSms> &sent() const { return sent_; }

	// Operator views: per storage "<mem> <used>/<total>" then a line per
	// message; per message sent its number, parts, alphabet and text.
	std::string list_text(const Vars &vars) const;
	std::string sent_text() const;

private:
	std::map<int, StoredSms> &slots(std::string_view mem);
	SmsAnswer cpms(std::string_view args, bool query, bool test, Vars &vars);
	SmsAnswer cnmi(std::string_view args, bool query, bool test, Vars &vars);
	SmsAnswer cmgl(std::string_view args, bool test, const Vars &vars);
	SmsAnswer cmgr(std::string_view args, const Vars &vars);
	SmsAnswer cmgd(std::string_view args, bool test, const Vars &vars);
	void record(const Tpdu &t, int mr);

	std::map<std::string, std::map<int, StoredSms>, std::less<>> mems_;
	std::vector<SentSms> sent_;
	uint8_t next_ref_ = 1; // concatenation reference of the next long delivery
};

} // namespace modem_sim
