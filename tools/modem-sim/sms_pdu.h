// The network's side of SMS PDUs (3GPP TS 23.040, alphabets of TS 23.038):
// encoding the SMS-DELIVERs a network hands to the module, and taking apart
// the SMS-SUBMITs the host sends and the DELIVERs the module stores. Written
// for the simulator on its own, so that it can check the daemon's codec
// rather than agree with it.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace modem_sim {

enum class Alphabet { gsm7, data8, ucs2 };

// "GSM7", "8BIT", "UCS2".
const char *alphabet_name(Alphabet a);

// Service-centre time stamp: the centre's local time and its zone.
struct Scts {
	int year = 0; // two digits
	int month = 1;
	int day = 1;
	int hour = 0;
	int minute = 0;
	int second = 0;
	int zone = 0; // quarter hours east of UTC
};

// "yy/MM/dd,hh:mm:ss+zz" (zone in quarter hours), as text mode shows it.
[[nodiscard]] bool parse_scts(std::string_view text, Scts *out);
std::string format_scts(const Scts &t);
// The host's clock, in its local zone.
Scts scts_of(std::time_t t);

std::string to_hex(std::string_view bytes);
// Even length, hex digits only (either case).
[[nodiscard]] bool from_hex(std::string_view hex, std::string *bytes);

// A TPDU taken apart.
struct Tpdu {
	bool submit = false; // SMS-SUBMIT; else SMS-DELIVER
	uint8_t first = 0;   // first octet
	uint8_t mr = 0;      // message reference of a SUBMIT
	std::string address; // OA of a DELIVER, DA of a SUBMIT: "+digits", digits or alphanumeric text
	uint8_t toa = 0;
	uint8_t pid = 0;
	uint8_t dcs = 0;
	int msg_class = -1; // 0..3 when the DCS gives one
	Alphabet alphabet = Alphabet::gsm7;
	Scts scts;          // of a DELIVER
	int ref = -1;       // concatenation reference (8 or 16 bits); -1: a single message
	int total = 1;
	int seq = 1;
	std::string text;   // UTF-8; 8-bit data in hex
};

// Takes apart an SMS-DELIVER or SMS-SUBMIT TPDU (no SMSC field). The user
// data must end exactly where the TPDU ends.
[[nodiscard]] bool parse_tpdu(std::string_view tpdu, Tpdu *out, std::string *why);

// Octets of the SMSC field that starts a PDU as AT+CMGL lists it and AT+CMGS
// takes it (its length octet + 1); 0 when the PDU is too short for it.
size_t smsc_field_size(std::string_view pdu);

// Septets of a UTF-8 text when every character is in the GSM default
// alphabet or its extension table (an extension character as escape and code).
[[nodiscard]] bool gsm7_septets(std::string_view utf8, std::vector<uint8_t> *out);

// Encodes text from sender as SMS-DELIVERs, each in hex with an SMSC field
// first (smsc "+digits"; empty: none). GSM 7-bit when the text allows it,
// else UCS-2; a text longer than one message becomes concatenated parts with
// the 8-bit reference ref. sender: "+digits" (international), digits, or an
// alphanumeric name of at most 11 GSM characters.
[[nodiscard]] bool encode_deliver(std::string_view smsc, std::string_view sender, std::string_view text,
				  const Scts &t, uint8_t ref, std::vector<std::string> *pdus, std::string *why);

} // namespace modem_sim
