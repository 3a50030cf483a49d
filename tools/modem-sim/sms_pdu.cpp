#include "sms_pdu.h"

#include "util/converter.h"
#include "util/gsm7_tables.h"

#include <algorithm>
#include <cstdio>
#include <unordered_map>

namespace modem_sim {

namespace {

constexpr uint8_t esc_septet = 0x1B;
constexpr size_t max_address_digits = 20;
constexpr size_t max_alnum_septets = 11; // ten octets of address value

// The default alphabet and its extension table, looked up backwards.
struct ReverseTables {
	std::unordered_map<uint16_t, uint8_t> base;
	std::unordered_map<uint16_t, uint8_t> ext;
};

const ReverseTables &reverse_tables()
{
	static const ReverseTables r = [] {
		ReverseTables t;
		for (uint8_t s = 0; s < 128; s++) {
			if (s == esc_septet)
				continue;
			t.base.emplace(LUT_GSM7_LS16[0][s], s);
			// The single-shift table repeats the default alphabet where it
			// defines nothing; only the differing positions are extensions.
			if (LUT_GSM7_SS16[0][s] != LUT_GSM7_LS16[0][s])
				t.ext.emplace(LUT_GSM7_SS16[0][s], s);
		}
		return t;
	}();
	return r;
}

std::vector<uint16_t> utf16_of(std::string_view utf8)
{
	std::vector<uint16_t> u(utf8_to_utf16(utf8.data(), utf8.size(), nullptr, 0));
	utf8_to_utf16(utf8.data(), utf8.size(), u.data(), u.size());
	return u;
}

bool is_high_surrogate(uint16_t u)
{
	return u >= 0xD800 && u <= 0xDBFF;
}

bool all_digits(std::string_view s)
{
	return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Semi-octets, low nibble first, an odd count padded with F.
std::string bcd(std::string_view digits)
{
	std::string out;
	for (size_t i = 0; i < digits.size(); i += 2) {
		unsigned lo = static_cast<unsigned>(digits[i] - '0');
		unsigned hi = i + 1 < digits.size() ? static_cast<unsigned>(digits[i + 1] - '0') : 0xF;
		out += static_cast<char>(lo | hi << 4);
	}
	return out;
}

// Septets packed LSB first after `fill` zero bits.
std::string pack_septets(const uint8_t *s, size_t n, unsigned fill)
{
	size_t pos = fill;
	std::string out((pos + 7 * n + 7) / 8, '\0');
	for (size_t k = 0; k < n; k++)
		for (unsigned b = 0; b < 7; b++, pos++)
			if (s[k] >> b & 1)
				out[pos / 8] = static_cast<char>(out[pos / 8] | 1 << (pos % 8));
	return out;
}

bool utf16be_text(const uint8_t *be, size_t units, std::string *out)
{
	std::string buf(3 * units + 1, '\0');
	size_t n = utf16be_to_utf8(be, units, buf.data(), buf.size());
	if (n == 0 && units > 0)
		return false; // a high surrogate without its low half
	buf.resize(n);
	*out = std::move(buf);
	return true;
}

bool gsm7_text(const uint8_t *src, size_t septets, unsigned fill, unsigned lock, unsigned single, std::string *out)
{
	size_t nibbles = (fill + 7 * septets + 3) / 4;
	std::vector<uint8_t> ucs2(2 * (septets + 2));
	int units = gsm_7bit_to_ucs2(src, nibbles, ucs2.data(), septets + 2, fill, lock, single);
	return units >= 0 && utf16be_text(ucs2.data(), static_cast<size_t>(units), out);
}

// OA/DA: length in semi-octets, type of address, value.
bool encode_address(std::string_view addr, std::string *out, std::string *why)
{
	bool intl = !addr.empty() && addr.front() == '+';
	std::string_view digits = intl ? addr.substr(1) : addr;
	if (all_digits(digits) && digits.size() <= max_address_digits) {
		*out += static_cast<char>(digits.size());
		*out += static_cast<char>(intl ? 0x91 : 0x81);
		*out += bcd(digits);
		return true;
	}
	std::vector<uint8_t> septets;
	if (intl || !gsm7_septets(addr, &septets) || septets.empty() || septets.size() > max_alnum_septets) {
		*why = "a sender is +digits, up to 20 digits, or a name of 1 to 11 GSM characters";
		return false;
	}
	*out += static_cast<char>((septets.size() * 7 + 3) / 4);
	*out += static_cast<char>(0xD0);
	*out += pack_septets(septets.data(), septets.size(), 0);
	return true;
}

std::string decode_address(std::string_view v, size_t digits, uint8_t toa)
{
	const uint8_t *p = reinterpret_cast<const uint8_t *>(v.data());
	if ((toa >> 4 & 7) == 5) {
		std::string text;
		if (!gsm7_text(p, digits * 4 / 7, 0, 0, 0, &text))
			return "?";
		return text;
	}
	static const char nibble_char[] = "0123456789*#abc";
	std::string out = (toa >> 4 & 7) == 1 ? "+" : "";
	for (size_t i = 0; i < digits; i++) {
		unsigned n = i % 2 ? p[i / 2] >> 4 : p[i / 2] & 0xF;
		if (n == 0xF)
			break;
		out += nibble_char[n];
	}
	return out;
}

// Alphabet and message class of a data coding scheme (TS 23.038 clause 4).
bool dcs_alphabet(uint8_t dcs, Alphabet *a, int *msg_class)
{
	unsigned code = 0;
	switch (dcs >> 4) {
	case 0x0: case 0x1: case 0x2: case 0x3: // general data coding
	case 0x4: case 0x5: case 0x6: case 0x7: // the same, marked for automatic deletion
		if (dcs & 0x20)
			return false; // compressed
		code = dcs >> 2 & 3;
		if (dcs & 0x10)
			*msg_class = dcs & 3;
		break;
	case 0xC: case 0xD: code = 0; break; // message waiting indication
	case 0xE: code = 2; break;
	case 0xF:
		code = dcs & 0x04 ? 1 : 0;
		*msg_class = dcs & 3;
		break;
	default: return false;
	}
	if (code == 3)
		return false;
	*a = code == 0 ? Alphabet::gsm7 : code == 1 ? Alphabet::data8 : Alphabet::ucs2;
	return true;
}

uint8_t swapped(int v)
{
	return static_cast<uint8_t>((v % 10) << 4 | (v / 10 % 10));
}

std::string encode_scts(const Scts &t)
{
	std::string out;
	for (int v : {t.year, t.month, t.day, t.hour, t.minute, t.second})
		out += static_cast<char>(swapped(v));
	int q = t.zone < 0 ? -t.zone : t.zone;
	out += static_cast<char>(swapped(q) | (t.zone < 0 ? 0x08 : 0));
	return out;
}

Scts decode_scts(const uint8_t *p)
{
	auto v = [&](int i) { return (p[i] & 0xF) * 10 + (p[i] >> 4); };
	Scts t{v(0), v(1), v(2), v(3), v(4), v(5), (p[6] & 7) * 10 + (p[6] >> 4)};
	if (p[6] & 0x08)
		t.zone = -t.zone;
	return t;
}

bool fail(std::string *why, std::string text)
{
	*why = std::move(text);
	return false;
}

} // namespace

const char *alphabet_name(Alphabet a)
{
	switch (a) {
	case Alphabet::gsm7: return "GSM7";
	case Alphabet::data8: return "8BIT";
	case Alphabet::ucs2: return "UCS2";
	}
	return "?";
}

bool parse_scts(std::string_view text, Scts *out)
{
	std::string s(text);
	Scts t;
	char sign = 0;
	int used = -1;
	if (std::sscanf(s.c_str(), "%2d/%2d/%2d,%2d:%2d:%2d%c%2d%n", &t.year, &t.month, &t.day, &t.hour, &t.minute,
			&t.second, &sign, &t.zone, &used) != 8 ||
	    used != static_cast<int>(s.size()) || (sign != '+' && sign != '-'))
		return false;
	if (sign == '-')
		t.zone = -t.zone;
	*out = t;
	return true;
}

std::string format_scts(const Scts &t)
{
	char buf[32];
	std::snprintf(buf, sizeof buf, "%02d/%02d/%02d,%02d:%02d:%02d%c%02d", t.year % 100, t.month, t.day, t.hour,
		      t.minute, t.second, t.zone < 0 ? '-' : '+', t.zone < 0 ? -t.zone : t.zone);
	return buf;
}

Scts scts_of(std::time_t now)
{
	std::tm tm{};
	localtime_r(&now, &tm);
	return {tm.tm_year % 100, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
		static_cast<int>(tm.tm_gmtoff / 900)};
}

std::string to_hex(std::string_view bytes)
{
	static const char digits[] = "0123456789ABCDEF";
	std::string out;
	out.reserve(2 * bytes.size());
	for (char c : bytes) {
		out += digits[static_cast<uint8_t>(c) >> 4];
		out += digits[static_cast<uint8_t>(c) & 0xF];
	}
	return out;
}

bool from_hex(std::string_view hex, std::string *bytes)
{
	auto value = [](char c) {
		if (c >= '0' && c <= '9')
			return c - '0';
		if (c >= 'A' && c <= 'F')
			return c - 'A' + 10;
		if (c >= 'a' && c <= 'f')
			return c - 'a' + 10;
		return -1;
	};
	if (hex.size() % 2)
		return false;
	std::string out;
	for (size_t i = 0; i < hex.size(); i += 2) {
		int hi = value(hex[i]), lo = value(hex[i + 1]);
		if (hi < 0 || lo < 0)
			return false;
		out += static_cast<char>(hi << 4 | lo);
	}
	*bytes = std::move(out);
	return true;
}

size_t smsc_field_size(std::string_view pdu)
{
	if (pdu.empty())
		return 0;
	size_t n = static_cast<uint8_t>(pdu[0]) + 1u;
	return n <= pdu.size() ? n : 0;
}

bool parse_tpdu(std::string_view p, Tpdu *out, std::string *why)
{
	const uint8_t *b = reinterpret_cast<const uint8_t *>(p.data());
	size_t i = 0;
	auto ends = [&](size_t n) { return p.size() - i < n; };
	Tpdu t;
	if (ends(1))
		return fail(why, "empty TPDU");
	t.first = b[i++];
	if ((t.first & 3) > 1)
		return fail(why, "neither SMS-DELIVER nor SMS-SUBMIT");
	t.submit = (t.first & 3) == 1;
	if (t.submit && ends(1))
		return fail(why, "ends before the message reference");
	if (t.submit)
		t.mr = b[i++];
	if (ends(2))
		return fail(why, "ends before the address");
	size_t digits = b[i++];
	t.toa = b[i++];
	if (digits > max_address_digits || ends((digits + 1) / 2))
		return fail(why, "bad address length " + std::to_string(digits));
	t.address = decode_address(p.substr(i, (digits + 1) / 2), digits, t.toa);
	i += (digits + 1) / 2;
	if (ends(2))
		return fail(why, "ends before the data coding scheme");
	t.pid = b[i++];
	t.dcs = b[i++];
	if (!dcs_alphabet(t.dcs, &t.alphabet, &t.msg_class))
		return fail(why, "data coding scheme " + to_hex(p.substr(i - 1, 1)) + " not supported");
	// DELIVER: time stamp. SUBMIT: validity period, by the format in bits 4..3.
	unsigned vpf = t.first >> 3 & 3;
	size_t skip = !t.submit ? 7 : vpf == 0 ? 0 : vpf == 2 ? 1 : 7;
	if (ends(skip + 1))
		return fail(why, t.submit ? "ends in the validity period" : "ends in the time stamp");
	if (!t.submit)
		t.scts = decode_scts(b + i);
	i += skip;
	size_t udl = b[i++];
	size_t ud_size = t.alphabet == Alphabet::gsm7 ? (udl * 7 + 7) / 8 : udl;
	if (p.size() - i != ud_size)
		return fail(why, "user data length " + std::to_string(udl) + " does not match the " +
					 std::to_string(p.size() - i) + " octets that follow");
	const uint8_t *ud = b + i;
	size_t hdr = 0;
	unsigned lock = 0, single = 0;
	if (t.first & 0x40) {
		hdr = ud_size ? ud[0] + 1u : 0;
		if (hdr == 0 || hdr > ud_size)
			return fail(why, "user data header longer than the user data");
		for (size_t k = 1; k + 2 <= hdr;) {
			uint8_t iei = ud[k], len = ud[k + 1];
			const uint8_t *v = ud + k + 2;
			k += 2 + len;
			if (k > hdr)
				return fail(why, "information element runs past the header");
			if (iei == 0x00 || iei == 0x08) {
				bool wide = iei == 0x08;
				if (len != (wide ? 4 : 3))
					return fail(why, "bad concatenation element");
				t.ref = wide ? v[0] << 8 | v[1] : v[0];
				t.total = v[wide ? 2 : 1];
				t.seq = v[wide ? 3 : 2];
				if (t.seq == 0 || t.seq > t.total)
					return fail(why, "part " + std::to_string(t.seq) + " of " + std::to_string(t.total));
			} else if ((iei == 0x24 || iei == 0x25) && len == 1) {
				(iei == 0x24 ? single : lock) = v[0];
			}
		}
	}
	size_t body = ud_size - hdr;
	switch (t.alphabet) {
	case Alphabet::gsm7: {
		size_t hdr_septets = (hdr * 8 + 6) / 7;
		if (hdr_septets > udl)
			return fail(why, "user data header longer than the user data");
		unsigned fill = static_cast<unsigned>(hdr_septets * 7 - hdr * 8);
		if (!gsm7_text(ud + hdr, udl - hdr_septets, fill, lock, single, &t.text))
			return fail(why, "bad GSM 7-bit text");
		break;
	}
	case Alphabet::ucs2:
		if (body % 2 || !utf16be_text(ud + hdr, body / 2, &t.text))
			return fail(why, "bad UCS-2 text");
		break;
	case Alphabet::data8:
		t.text = to_hex(p.substr(i + hdr));
		break;
	}
	*out = std::move(t);
	return true;
}

bool gsm7_septets(std::string_view utf8, std::vector<uint8_t> *out)
{
	const ReverseTables &r = reverse_tables();
	std::vector<uint8_t> s;
	for (uint16_t u : utf16_of(utf8)) {
		if (auto it = r.base.find(u); it != r.base.end()) {
			s.push_back(it->second);
		} else if (auto ext = r.ext.find(u); ext != r.ext.end()) {
			s.push_back(esc_septet);
			s.push_back(ext->second);
		} else {
			return false;
		}
	}
	*out = std::move(s);
	return true;
}

bool encode_deliver(std::string_view smsc, std::string_view sender, std::string_view text, const Scts &t,
		    uint8_t ref, std::vector<std::string> *pdus, std::string *why)
{
	std::string head;
	if (smsc.empty()) {
		head = std::string(1, '\0');
	} else {
		bool intl = smsc.front() == '+';
		std::string_view digits = intl ? smsc.substr(1) : smsc;
		if (!all_digits(digits) || digits.size() > max_address_digits)
			return fail(why, "the service centre is +digits or digits");
		std::string value = bcd(digits);
		head += static_cast<char>(value.size() + 1);
		head += static_cast<char>(intl ? 0x91 : 0x81);
		head += value;
	}
	std::string oa;
	if (!encode_address(sender, &oa, why))
		return false;

	std::vector<uint8_t> septets;
	std::vector<uint16_t> units;
	bool gsm = gsm7_septets(text, &septets);
	if (!gsm)
		units = utf16_of(text);
	size_t n = gsm ? septets.size() : units.size();
	size_t single_max = gsm ? 160 : 70, part_max = gsm ? 153 : 67;
	std::vector<std::pair<size_t, size_t>> cuts;
	if (n <= single_max) {
		cuts.emplace_back(0, n);
	} else {
		for (size_t from = 0; from < n;) {
			size_t to = std::min(n, from + part_max);
			// An escape pair or a surrogate pair stays whole.
			if (to < n && (gsm ? septets[to - 1] == esc_septet : is_high_surrogate(units[to - 1])))
				to--;
			cuts.emplace_back(from, to);
			from = to;
		}
	}
	if (cuts.size() > 255)
		return fail(why, "the text needs more than 255 parts");

	bool multi = cuts.size() > 1;
	std::vector<std::string> out;
	for (size_t k = 0; k < cuts.size(); k++) {
		auto [from, to] = cuts[k];
		std::string p = head;
		p += static_cast<char>(multi ? 0x44 : 0x04); // DELIVER, no more messages waiting, UDH indicator
		p += oa;
		p += '\0'; // protocol identifier
		p += static_cast<char>(gsm ? 0x00 : 0x08);
		p += encode_scts(t);
		std::string udh;
		if (multi)
			udh = {0x05, 0x00, 0x03, static_cast<char>(ref), static_cast<char>(cuts.size()),
			       static_cast<char>(k + 1)};
		if (gsm) {
			// A six-octet header and one fill bit take seven septets.
			p += static_cast<char>(to - from + (multi ? 7 : 0));
			p += udh;
			p += pack_septets(septets.data() + from, to - from, multi ? 1 : 0);
		} else {
			p += static_cast<char>(2 * (to - from) + udh.size());
			p += udh;
			for (size_t u = from; u < to; u++) {
				p += static_cast<char>(units[u] >> 8);
				p += static_cast<char>(units[u] & 0xFF);
			}
		}
		out.push_back(to_hex(p));
	}
	*pdus = std::move(out);
	return true;
}

} // namespace modem_sim
