#include "sms_store.h"

#include "scenario.h"
#include "util/converter.h"

#include <algorithm>
#include <cctype>

namespace modem_sim {

namespace {

// Error codes of 3GPP TS 27.005 clause 3.2.5 that the store answers.
constexpr int cms_not_allowed = 302;  // a value this module does not take; the other mode's form of a command
constexpr int cms_bad_pdu_param = 304; // PDU mode: bad <stat>, <length>, or a PDU that is not a fitting SUBMIT
constexpr int cms_bad_text_param = 305; // text mode: bad <stat>, number or text
constexpr int cms_not_supported = 303; // writing in text mode
constexpr int cms_memory_full = 322;  // writing into a full storage
constexpr int cms_bad_index = 321;    // index outside the storage
constexpr int max_capacity = 1000;    // whatever a variable says
constexpr int max_tpdu = 164;         // longest SMS-SUBMIT TPDU: 27.005 AT+CMGS <length>

const char *const storage_names[] = {"SM", "ME"};
const char *const stat_names[] = {"REC UNREAD", "REC READ", "STO UNSENT", "STO SENT"};

struct Arg {
	std::string text;
	bool quoted = false;
	bool empty() const { return text.empty() && !quoted; }
};

// Splits "a,"b,c",d" at the commas outside quotes.
std::vector<Arg> split_args(std::string_view s)
{
	std::vector<Arg> out(1);
	bool in_quotes = false;
	for (char c : s) {
		if (c == '"') {
			in_quotes = !in_quotes;
			out.back().quoted = true;
		} else if (c == ',' && !in_quotes) {
			out.emplace_back();
		} else if (in_quotes || c != ' ') {
			out.back().text += c;
		}
	}
	return out;
}

bool number_of(const Arg &a, int *v)
{
	if (a.quoted || a.text.empty() || a.text.size() > 6 ||
	    !std::all_of(a.text.begin(), a.text.end(), [](char c) { return c >= '0' && c <= '9'; }))
		return false;
	*v = std::stoi(a.text);
	return true;
}

std::string upper(std::string_view s)
{
	std::string out(s);
	for (char &c : out)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	return out;
}

std::string var_of(const Vars &vars, std::string_view name)
{
	auto it = vars.find(name);
	return it == vars.end() ? std::string() : it->second;
}

SmsAnswer final_ok(std::vector<std::string> lines = {})
{
	SmsAnswer a;
	a.final = SmsAnswer::Final::ok;
	a.lines = std::move(lines);
	return a;
}

SmsAnswer final_error()
{
	SmsAnswer a;
	a.final = SmsAnswer::Final::error;
	return a;
}

SmsAnswer cms(int code)
{
	SmsAnswer a;
	a.final = SmsAnswer::Final::cms;
	a.code = code;
	return a;
}

bool text_mode(const Vars &vars)
{
	return var_of(vars, "cmgf") == "1";
}

// The five values of AT+CNMI from the variable, missing ones 0.
std::vector<int> cnmi_values(const Vars &vars)
{
	std::vector<int> v(5, 0);
	std::vector<Arg> args = split_args(var_of(vars, "cnmi"));
	for (size_t i = 0; i < v.size() && i < args.size(); i++)
		(void)number_of(args[i], &v[i]);
	return v;
}

// A stored PDU taken apart; false for one that is not a DELIVER or SUBMIT.
bool decode(const std::string &hex, Tpdu *t)
{
	std::string bytes, why;
	size_t smsc = 0;
	return from_hex(hex, &bytes) && (smsc = smsc_field_size(bytes)) > 0 &&
	       parse_tpdu(std::string_view(bytes).substr(smsc), t, &why);
}

// TPDU octets of a PDU: what <length> counts.
size_t tpdu_length(const std::string &hex)
{
	std::string bytes;
	if (!from_hex(hex, &bytes))
		return hex.size() / 2;
	return bytes.size() - smsc_field_size(bytes);
}

// Text shown to the operator: one quoted line.
std::string shown(std::string_view text)
{
	return quoted(text, true);
}

// "+CMGL: " / "+CMGR: " header and text of a message in text mode.
std::string text_header(const std::string &prefix, const StoredSms &m, const Tpdu &t, bool ok)
{
	std::string scts = ok && !t.submit ? "\"" + format_scts(t.scts) + "\"" : std::string();
	return prefix + "\"" + stat_names[m.stat] + "\",\"" + (ok ? t.address : std::string()) + "\",," + scts;
}

} // namespace

std::string SentSms::text() const
{
	std::string out;
	for (const auto &p : parts)
		out += p.second;
	return out;
}

int SmsStore::capacity(std::string_view mem, const Vars &vars) const
{
	if (std::find(std::begin(storage_names), std::end(storage_names), mem) == std::end(storage_names))
		return 0;
	std::string v = var_of(vars, "sms_" + std::string(mem == "SM" ? "sm" : "me") + "_total");
	int n = 0;
	if (!number_of(Arg{v}, &n))
		return 0;
	return std::min(n, max_capacity);
}

std::map<int, StoredSms> &SmsStore::slots(std::string_view mem)
{
	auto it = mems_.find(mem);
	if (it == mems_.end())
		it = mems_.emplace(std::string(mem), std::map<int, StoredSms>()).first;
	return it->second;
}

const std::map<int, StoredSms> &SmsStore::messages(std::string_view mem) const
{
	static const std::map<int, StoredSms> none;
	auto it = mems_.find(mem);
	return it == mems_.end() ? none : it->second;
}

SmsAnswer SmsStore::command(std::string_view cmd, Vars &vars)
{
	// "AT+NAME", then "?", "=?", "=<args>" or nothing.
	if (cmd.size() < 3 || upper(cmd.substr(0, 2)) != "AT")
		return final_error();
	cmd.remove_prefix(2);
	size_t end = cmd.find_first_of("=?");
	std::string name = upper(cmd.substr(0, end));
	std::string_view rest = end == std::string_view::npos ? std::string_view() : cmd.substr(end);
	bool query = rest == "?", test = rest == "=?";
	bool set = !query && !test && !rest.empty();
	if (set && rest.front() != '=')
		return final_error();
	std::string_view args = set ? rest.substr(1) : std::string_view();

	if (name == "+CPMS")
		return cpms(args, query, test, vars);
	if (name == "+CNMI")
		return cnmi(args, query, test, vars);
	if (query)
		return final_error();
	if (name == "+CMGL")
		return cmgl(args, test, vars);
	if (name == "+CMGR")
		return test ? final_ok() : cmgr(args, vars);
	if (name == "+CMGD")
		return cmgd(args, test, vars);
	if (name == "+CMGS") {
		if (test)
			return final_ok();
		// A <length> too short for any SUBMIT still gets the prompt: the
		// PDU that follows is refused.
		std::vector<Arg> a = split_args(args);
		int n = 0;
		if (!text_mode(vars))
			return a.size() == 1 && number_of(a[0], &n) && n >= 1 && n <= max_tpdu
				       ? SmsAnswer()
				       : cms(cms_bad_pdu_param);
		std::string_view da = a[0].text;
		if (!da.empty() && da.front() == '+')
			da.remove_prefix(1);
		bool number = a[0].quoted && !da.empty() && da.size() <= 20 &&
			      std::all_of(da.begin(), da.end(), [](char c) { return c >= '0' && c <= '9'; });
		int toda = 0;
		if (!number || a.size() > 2 || (a.size() == 2 && !number_of(a[1], &toda)))
			return cms(cms_bad_text_param);
		return SmsAnswer(); // the prompt follows
	}
	if (name == "+CMGW") {
		// AT+CMGW=<length>[,<stat>] in PDU mode; the PDU follows the prompt.
		std::vector<Arg> a = split_args(args);
		int n = 0, stat = sto_unsent;
		if (test)
			return final_ok();
		if (text_mode(vars))
			return cms(cms_not_supported);
		if (a.size() > 2 || !number_of(a[0], &n) || n < 1 || n > max_tpdu ||
		    (a.size() == 2 && (!number_of(a[1], &stat) || stat > sto_sent)))
			return cms(cms_bad_pdu_param);
		return SmsAnswer();
	}
	return final_error();
}

SmsAnswer SmsStore::cpms(std::string_view args, bool query, bool test, Vars &vars)
{
	std::string names;
	for (const char *m : storage_names)
		if (capacity(m, vars) > 0)
			names += std::string(names.empty() ? "" : ",") + "\"" + m + "\"";
	if (test)
		return final_ok({"+CPMS: (" + names + "),(" + names + "),(" + names + ")"});
	auto counts = [&](const std::string &mem) {
		return std::to_string(messages(mem).size()) + "," + std::to_string(capacity(mem, vars));
	};
	const std::string mem_vars[] = {"sms_mem1", "sms_mem2", "sms_mem3"};
	if (query) {
		std::string line = "+CPMS: ";
		for (size_t i = 0; i < 3; i++) {
			std::string mem = var_of(vars, mem_vars[i]);
			line += (i ? ",\"" : "\"") + mem + "\"," + counts(mem);
		}
		return final_ok({line});
	}
	std::vector<Arg> a = split_args(args);
	if (args.empty() || a.size() > 3)
		return final_error();
	for (const Arg &m : a)
		if (capacity(upper(m.text), vars) == 0)
			return cms(cms_not_allowed);
	for (size_t i = 0; i < a.size(); i++)
		vars[mem_vars[i]] = upper(a[i].text);
	std::string line = "+CPMS: ";
	for (size_t i = 0; i < 3; i++)
		line += (i ? "," : "") + counts(var_of(vars, mem_vars[i]));
	return final_ok({line});
}

SmsAnswer SmsStore::cnmi(std::string_view args, bool query, bool test, Vars &vars)
{
	// What an EC25 takes: <mode> 0-2, <mt> 0-3, <bm> 0 or 2, <ds> 0-2, <bfr> 0-1.
	static const std::vector<std::vector<int>> allowed = {{0, 1, 2}, {0, 1, 2, 3}, {0, 2}, {0, 1, 2}, {0, 1}};
	if (test)
		return final_ok({"+CNMI: (0-2),(0-3),(0,2),(0-2),(0,1)"});
	std::vector<int> v = cnmi_values(vars);
	if (query)
		return final_ok({"+CNMI: " + var_of(vars, "cnmi")});
	std::vector<Arg> a = split_args(args);
	if (args.empty() || a.size() > v.size())
		return final_error();
	for (size_t i = 0; i < a.size(); i++) {
		if (a[i].empty())
			continue; // left out: keeps its setting
		if (!number_of(a[i], &v[i]))
			return final_error();
		if (std::find(allowed[i].begin(), allowed[i].end(), v[i]) == allowed[i].end())
			return cms(cms_not_allowed);
	}
	std::string text;
	for (size_t i = 0; i < v.size(); i++)
		text += (i ? "," : "") + std::to_string(v[i]);
	vars["cnmi"] = text;
	return final_ok();
}

SmsAnswer SmsStore::cmgl(std::string_view args, bool test, const Vars &vars)
{
	bool text = text_mode(vars);
	if (test)
		return final_ok({text ? "+CMGL: (\"REC UNREAD\",\"REC READ\",\"STO UNSENT\",\"STO SENT\",\"ALL\")"
				      : "+CMGL: (0-4)"});
	// The status asked for; 4 ("ALL") lists every message. Without one: unread.
	std::vector<Arg> a = split_args(args);
	int stat = 0;
	if (a.size() != 1)
		return cms(text ? cms_bad_text_param : cms_bad_pdu_param);
	if (!a[0].empty() && a[0].quoted != text)
		return cms(cms_not_allowed);
	if (text && !a[0].empty()) {
		std::string s = upper(a[0].text);
		auto it = std::find(std::begin(stat_names), std::end(stat_names), s);
		if (s != "ALL" && it == std::end(stat_names))
			return cms(cms_bad_text_param);
		stat = s == "ALL" ? 4 : static_cast<int>(it - std::begin(stat_names));
	} else if (!text && !a[0].empty() && (!number_of(a[0], &stat) || stat > 4)) {
		return cms(cms_bad_pdu_param);
	}
	std::vector<std::string> lines;
	for (auto &[index, m] : slots(var_of(vars, "sms_mem1"))) {
		if (stat != 4 && m.stat != stat)
			continue;
		std::string head = "+CMGL: " + std::to_string(index) + ",";
		if (text) {
			Tpdu t;
			bool ok = decode(m.pdu, &t);
			lines.push_back(text_header(head, m, t, ok));
			lines.push_back(ok ? t.text : std::string());
		} else {
			lines.push_back(head + std::to_string(m.stat) + ",," + std::to_string(tpdu_length(m.pdu)));
			lines.push_back(m.pdu);
		}
		if (m.stat == rec_unread)
			m.stat = rec_read;
	}
	return final_ok(std::move(lines));
}

SmsAnswer SmsStore::cmgr(std::string_view args, const Vars &vars)
{
	std::vector<Arg> a = split_args(args);
	int index = 0;
	if (a.size() != 1 || !number_of(a[0], &index))
		return final_error();
	std::string mem = var_of(vars, "sms_mem1");
	if (index >= capacity(mem, vars))
		return cms(cms_bad_index);
	auto &s = slots(mem);
	auto it = s.find(index);
	if (it == s.end())
		return final_ok(); // an empty index: the EC25 answers OK and nothing else
	StoredSms &m = it->second;
	std::vector<std::string> lines;
	if (text_mode(vars)) {
		Tpdu t;
		bool ok = decode(m.pdu, &t);
		lines = {text_header("+CMGR: ", m, t, ok), ok ? t.text : std::string()};
	} else {
		lines = {"+CMGR: " + std::to_string(m.stat) + ",," + std::to_string(tpdu_length(m.pdu)), m.pdu};
	}
	if (m.stat == rec_unread)
		m.stat = rec_read;
	return final_ok(std::move(lines));
}

SmsAnswer SmsStore::cmgd(std::string_view args, bool test, const Vars &vars)
{
	std::string mem = var_of(vars, "sms_mem1");
	auto &s = slots(mem);
	if (test) {
		std::string used;
		for (const auto &kv : s)
			used += (used.empty() ? "" : ",") + std::to_string(kv.first);
		return final_ok({"+CMGD: (" + used + "),(0-4)"});
	}
	// <delflag> 1: every read message; 2: and the sent ones; 3: and the
	// unsent ones; 4: all. <index> is then ignored.
	std::vector<Arg> a = split_args(args);
	int index = 0, flag = 0;
	if (a.empty() || a.size() > 2 || !number_of(a[0], &index) || (a.size() == 2 && !number_of(a[1], &flag)))
		return final_error();
	if (flag > 4)
		return cms(cms_not_allowed);
	if (flag == 0) {
		if (index >= capacity(mem, vars))
			return cms(cms_bad_index);
		s.erase(index); // an empty index is no error
		return final_ok();
	}
	for (auto it = s.begin(); it != s.end();) {
		int st = it->second.stat;
		bool gone = flag == 4 || st == rec_read || (flag >= 2 && st == sto_sent) || (flag >= 3 && st == sto_unsent);
		it = gone ? s.erase(it) : std::next(it);
	}
	return final_ok();
}

SmsAnswer SmsStore::send(std::string_view cmd, std::string_view text, Vars &vars)
{
	bool write = upper(cmd.substr(0, 7)) == "AT+CMGW";
	std::vector<Arg> a = split_args(cmd.substr(std::min(cmd.size(), cmd.find('=') + 1)));
	Tpdu t;
	if (!text_mode(vars)) {
		// The hex PDU: SMSC field, then a TPDU of <length> octets: a SUBMIT
		// to send, a SUBMIT or DELIVER to write.
		std::string bytes, why;
		int length = 0;
		size_t smsc = 0;
		if (!number_of(a[0], &length) || !from_hex(text, &bytes) || (smsc = smsc_field_size(bytes)) == 0 ||
		    bytes.size() - smsc != static_cast<size_t>(length) ||
		    !parse_tpdu(std::string_view(bytes).substr(smsc), &t, &why) || (!t.submit && !write))
			return cms(cms_bad_pdu_param);
		if (write) {
			int stat = sto_unsent;
			if (a.size() == 2)
				(void)number_of(a[1], &stat);
			int index = store(var_of(vars, "sms_mem2"), stat, to_hex(bytes), vars);
			return index < 0 ? cms(cms_memory_full) : final_ok({"+CMGW: " + std::to_string(index)});
		}
	} else {
		t.submit = true;
		t.address = a[0].text;
		t.text = std::string(text);
		std::vector<uint8_t> septets;
		bool gsm = gsm7_septets(text, &septets);
		t.alphabet = gsm ? Alphabet::gsm7 : Alphabet::ucs2;
		// One message: 160 septets, or 70 UCS-2 characters.
		if (gsm ? septets.size() > 160 : utf8_to_utf16(text.data(), text.size(), nullptr, 0) > 70)
			return cms(cms_bad_text_param);
	}
	int mr = 0;
	(void)number_of(Arg{var_of(vars, "mr")}, &mr);
	mr %= 256;
	record(t, mr);
	vars["mr"] = std::to_string((mr + 1) % 256);
	return final_ok({"+CMGS: " + std::to_string(mr)});
}

void SmsStore::record(const Tpdu &t, int mr)
{
	if (t.ref >= 0) {
		for (auto it = sent_.rbegin(); it != sent_.rend(); ++it) {
			if (!it->complete() && it->number == t.address && it->ref == t.ref && it->total == t.total &&
			    !it->parts.count(t.seq)) {
				it->parts[t.seq] = t.text;
				it->mrs.push_back(mr);
				return;
			}
		}
	}
	SentSms s;
	s.number = t.address;
	s.alphabet = t.alphabet;
	s.ref = t.ref;
	s.total = t.ref >= 0 ? t.total : 1;
	s.parts[t.ref >= 0 ? t.seq : 1] = t.text;
	s.mrs.push_back(mr);
	sent_.push_back(std::move(s));
}

int SmsStore::store(std::string_view mem, int stat, std::string pdu, const Vars &vars)
{
	int cap = capacity(mem, vars);
	auto &s = slots(mem);
	int index = 0;
	for (const auto &kv : s) {
		if (kv.first != index)
			break;
		index++;
	}
	if (index >= cap)
		return -1;
	s[index] = StoredSms{stat, std::move(pdu)};
	return index;
}

bool SmsStore::deliver(const std::vector<std::string> &pdus, const Vars &vars, std::vector<std::string> *urcs,
		       std::string *why)
{
	// <mt> 1: stored and indicated by +CMTI. 2: class 2 likewise, the others
	// go to the host in +CMT and are not stored. 3: class 3 in +CMT, the
	// others as 1. <mode> 0 keeps indications in the module: none are sent
	// (and nothing bypasses the storage).
	std::vector<int> cnmi = cnmi_values(vars);
	int mode = cnmi[0], mt = cnmi[1];
	std::string mem = var_of(vars, "sms_mem3");
	std::vector<bool> direct;
	std::vector<Tpdu> decoded(pdus.size());
	std::vector<bool> ok;
	size_t to_store = 0;
	for (size_t i = 0; i < pdus.size(); i++) {
		ok.push_back(decode(pdus[i], &decoded[i]));
		int cls = ok.back() ? decoded[i].msg_class : -1;
		direct.push_back(mode != 0 && ((mt == 2 && cls != 2) || (mt == 3 && cls == 3)));
		to_store += !direct.back();
	}
	int cap = capacity(mem, vars);
	if (cap == 0) {
		*why = "no storage '" + mem + "' to receive in";
		return false;
	}
	if (messages(mem).size() + to_store > static_cast<size_t>(cap)) {
		*why = "storage " + mem + " is full";
		return false;
	}
	for (size_t i = 0; i < pdus.size(); i++) {
		if (direct[i]) {
			if (!text_mode(vars))
				urcs->push_back("+CMT: ," + std::to_string(tpdu_length(pdus[i])) + "\r\n" + pdus[i]);
			else
				urcs->push_back("+CMT: \"" + decoded[i].address + "\",,\"" + format_scts(decoded[i].scts) +
						"\"\r\n" + decoded[i].text);
			continue;
		}
		int index = store(mem, rec_unread, pdus[i], vars);
		if (mode != 0 && mt != 0)
			urcs->push_back("+CMTI: \"" + mem + "\"," + std::to_string(index));
	}
	return true;
}

bool SmsStore::deliver_text(std::string_view sender, std::string_view text, const Scts &t, const Vars &vars,
			    std::vector<std::string> *urcs, std::string *why)
{
	std::vector<std::string> pdus;
	if (!encode_deliver(var_of(vars, "smsc"), sender, text, t, next_ref_, &pdus, why))
		return false;
	if (pdus.size() > 1)
		next_ref_++;
	return deliver(pdus, vars, urcs, why);
}

int SmsStore::fill(std::string_view mem, const Vars &vars)
{
	const Scts t{24, 5, 17, 9, 0, 0, 8};
	int n = 0;
	for (;;) {
		std::vector<std::string> pdu;
		std::string why;
		if (static_cast<int>(messages(mem).size()) >= capacity(mem, vars) ||
		    !encode_deliver(var_of(vars, "smsc"), "+491701234567", "Filler " + std::to_string(n + 1), t, 0,
				    &pdu, &why))
			return n;
		store(mem, rec_read, pdu[0], vars);
		n++;
	}
}

void SmsStore::clear()
{
	mems_.clear();
	sent_.clear();
}

std::string SmsStore::list_text(const Vars &vars) const
{
	std::string out;
	for (const char *mem : storage_names) {
		int cap = capacity(mem, vars);
		if (cap == 0)
			continue;
		const auto &s = messages(mem);
		out += std::string(mem) + " " + std::to_string(s.size()) + "/" + std::to_string(cap) + "\n";
		for (const auto &[index, m] : s) {
			Tpdu t;
			bool ok = decode(m.pdu, &t);
			out += std::to_string(index) + " " + std::to_string(m.stat) + " " +
			       std::to_string(tpdu_length(m.pdu)) + " " + (ok ? t.address : "?") + " " +
			       shown(ok ? t.text : "(not a PDU the simulator can read)");
			if (ok && t.ref >= 0)
				out += " part " + std::to_string(t.seq) + "/" + std::to_string(t.total) + " ref " +
				       std::to_string(t.ref);
			out += "\n";
		}
	}
	return out;
}

std::string SmsStore::sent_text() const
{
	std::string out;
	for (const SentSms &s : sent_) {
		out += s.number + " " + std::to_string(s.parts.size()) + "/" + std::to_string(s.total) + " " +
		       alphabet_name(s.alphabet) + " " + shown(s.text()) + (s.complete() ? "" : " incomplete") + "\n";
	}
	return out;
}

} // namespace modem_sim
