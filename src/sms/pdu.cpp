#include "sms/pdu.h"

#include "util/converter.h"
#include "util/log.h"
#include "util/root_path.h"

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <random>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PDU_POISON 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define PDU_POISON 1
#endif
#ifdef PDU_POISON
#include <sanitizer/asan_interface.h>
#endif

namespace
{

// Placeholders for absent parts, by strip mode.
constexpr std::string_view mpts[] = {" <part_missing> ", ""};

constexpr std::string_view not_supported = " <encoding_not_supported> ";

// Information elements of the user data header (TS 23.040 9.2.3.24).
constexpr uint8_t iei_concat8 = 0x00;
constexpr uint8_t iei_concat16 = 0x08;
constexpr uint8_t iei_single_shift = 0x24;
constexpr uint8_t iei_locking_shift = 0x25;

constexpr unsigned ton_international = 1;
constexpr unsigned ton_alphanumeric = 5;

enum alphabet : unsigned { alpha_gsm7 = 0, alpha_8bit = 1, alpha_ucs2 = 2 };

// Part sizes of the encoder.
constexpr size_t gsm7_single = 160, gsm7_multi = 153;
constexpr size_t ucs2_single = 140, ucs2_multi = 134; // octets
constexpr size_t max_parts = 256;
constexpr size_t file_parts = 10; // parts beyond these also go to the overflow file

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// Two semi-octet digits, the first in the low nibble.
int semi_octet(uint8_t b)
{
    return (b & 0x0F) * 10 + (b >> 4);
}

// Days from 1970-01-01 to a proleptic Gregorian date; any field values give
// some number (no undefined arithmetic for garbage time stamps).
int64_t days_from_civil(int64_t y, int64_t m, int64_t d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// TP-SCTS: local time of the service centre and its zone in quarter hours.
int64_t scts_time(const uint8_t *s)
{
    const int64_t days = days_from_civil(2000 + semi_octet(s[0]), semi_octet(s[1]), semi_octet(s[2]));
    const int64_t local = days * 86400 + semi_octet(s[3]) * 3600 + semi_octet(s[4]) * 60 + semi_octet(s[5]);
    int zone = (s[6] & 0x07) * 10 + (s[6] >> 4);
    if (s[6] & 0x08)
        zone = -zone;
    return local - int64_t{zone} * 900;
}

void decode_address(const uint8_t *a, unsigned digits, unsigned toa, char *out)
{
    const unsigned ton = (toa >> 4) & 0x07;
    if (ton == ton_alphanumeric) {
        // Packed GSM 7-bit text; the digit count tells the semi-octets in
        // use, so the fill bits of the last octet give no extra '@'.
        uint8_t ucs[2 * 24];
        const int n = gsm_7bit_to_ucs2(a, digits, ucs, 24, 0, 0, 0);
        utf16be_to_utf8(ucs, n > 0 ? static_cast<size_t>(n) : 0, out, pdu_sender_size);
        return;
    }
    size_t o = 0;
    if (ton == ton_international)
        out[o++] = '+';
    for (unsigned i = 0; i < digits; i++) {
        const uint8_t nibble = (i & 1) ? a[i / 2] >> 4 : a[i / 2] & 0x0F;
        const char c = code_to_digit(nibble);
        if (!c)
            break;
        out[o++] = c;
    }
    out[o] = '\0';
}

struct udh_fields {
    unsigned locking = 0;
    unsigned single = 0;
};

int parse_udh(pdu_raw &rec, const uint8_t *h, size_t len, udh_fields &f)
{
    size_t p = 0;
    while (len - p >= 2) {
        const uint8_t iei = h[p];
        const uint8_t ie_len = h[p + 1];
        p += 2;
        if (ie_len > len - p)
            return PDU_ERR_UDH_IE;
        rec.iei = iei;
        rec.iei_len = ie_len;
        const uint8_t *v = h + p;
        switch (iei) {
        case iei_concat8:
            if (ie_len != 3)
                return PDU_ERR_UDH_CONCAT8;
            rec.ref = v[0];
            rec.total = v[1];
            rec.seq = v[2];
            break;
        case iei_concat16:
            if (ie_len != 4)
                return PDU_ERR_UDH_CONCAT16;
            // Only the low byte is kept, so that parts with an 8-bit and a
            // 16-bit reference of one message still meet.
            rec.ref = v[1];
            rec.total = v[2];
            rec.seq = v[3];
            break;
        case iei_single_shift:
        case iei_locking_shift:
            if (ie_len != 1)
                return PDU_ERR_UDH_SHIFT;
            (iei == iei_single_shift ? f.single : f.locking) = v[0];
            break;
        default:
            break;
        }
        p += ie_len;
    }
    if (rec.seq == 0 || rec.seq > rec.total) {
        rec.ref = 0;
        rec.seq = 1;
        rec.total = 1;
    }
    return PDU_OK;
}

// Under AddressSanitizer the unused tail of a scratch buffer is poisoned,
// so that a read past the PDU's own bytes is reported, not silently served.
struct poison_tail {
    const uint8_t *tail;
    size_t size;
    poison_tail(const uint8_t *p, size_t size) : tail(p), size(size)
    {
#ifdef PDU_POISON
        ASAN_POISON_MEMORY_REGION(tail, size);
#endif
    }
    ~poison_tail()
    {
#ifdef PDU_POISON
        ASAN_UNPOISON_MEMORY_REGION(tail, size);
#endif
    }
    poison_tail(const poison_tail &) = delete;
    poison_tail &operator=(const poison_tail &) = delete;
};

std::string_view text_of(const pdu_raw &r)
{
    const size_t len = r.length ? std::min<size_t>(r.length - 1u, pdu_text_size - 1) : 0;
    return {r.text, len};
}

int compare_sender(const pdu_raw &a, const pdu_raw &b)
{
    return std::strncmp(a.sender, b.sender, pdu_sender_size);
}

// Sender, reference, total, sequence, then newest first.
bool cmp_sms_deliver(const pdu_raw &a, const pdu_raw &b)
{
    if (const int c = compare_sender(a, b))
        return c < 0;
    if (a.ref != b.ref)
        return a.ref < b.ref;
    if (a.total != b.total)
        return a.total < b.total;
    if (a.seq != b.seq)
        return a.seq < b.seq;
    return a.time > b.time;
}

bool cmp_sms_deliver_time(const pdu_raw &a, const pdu_raw &b)
{
    return a.time > b.time;
}

bool cmp_sms_deliver_clust(const pdu_raw &a, const pdu_raw &b)
{
    if (a.cluster != b.cluster)
        return a.cluster < b.cluster;
    if (a.seq != b.seq)
        return a.seq < b.seq;
    return a.time > b.time;
}

bool cmp_decoded(const sms_message &a, const sms_message &b)
{
    if (a.time != b.time)
        return a.time > b.time;
    return a.index < b.index;
}

// b continues the message a belongs to.
bool same_message(const pdu_raw &a, const pdu_raw &b)
{
    return b.total != 1 && a.ref == b.ref && a.total == b.total && compare_sender(a, b) == 0;
}

size_t run_end(const std::vector<pdu_raw> &raw, size_t first)
{
    size_t e = first + 1;
    while (e < raw.size() && same_message(raw[e - 1], raw[e]))
        e++;
    return e;
}

void take_header(sms_message &m, const pdu_raw &r)
{
    m.index = r.index;
    m.status = r.status;
    m.ref = r.ref;
    m.total = r.total;
    m.udhl = r.udhl;
    m.iei = r.iei;
    m.iei_len = r.iei_len;
    m.time = r.time;
    std::memcpy(m.sender, r.sender, pdu_sender_size);
    m.sender[pdu_sender_size - 1] = '\0';
}

// Joins a run sorted by sequence number into m. A record repeating a part
// already taken is compared with the record before it (duplicates aside, so
// one copy always stays): the same text makes it a duplicate, another text
// makes both ambiguous. Returns whether any was.
bool walk_run(pdu_raw *run, size_t n, std::string_view placeholder, sms_message &m)
{
    std::vector<std::string_view> pieces;
    pieces.reserve(run[0].total);
    m.parts.clear();
    m.pdus.clear();
    m.missing = false;
    bool ambiguous = false;
    unsigned expected = 1;
    pdu_raw *prev = nullptr;
    for (size_t i = 0; i < n; i++) {
        pdu_raw &r = run[i];
        if (r.duplicate)
            continue;
        if (r.seq < expected && prev) {
            if (text_of(*prev) == text_of(r)) {
                r.duplicate = 1;
                continue;
            }
            r.ambiguous = prev->ambiguous = 1;
            ambiguous = true;
            prev = &r;
            continue;
        }
        prev = &r;
        for (; expected < r.seq; expected++) {
            pieces.push_back(placeholder);
            m.missing = true;
        }
        pieces.push_back(text_of(r));
        m.parts.push_back(r.seq);
        m.pdus.push_back(r.index);
        expected = r.seq + 1u;
    }
    for (; expected <= run[0].total; expected++) {
        pieces.push_back(placeholder);
        m.missing = true;
    }
    size_t len = 0;
    for (auto p : pieces)
        len += p.size();
    m.text.clear();
    m.text.reserve(len);
    for (auto p : pieces)
        m.text += p;
    return ambiguous;
}

// Tells apart two or more messages of one sender that share a reference by
// receive time (k-means on the time stamps, a sequence number at most once
// per cluster). Duplicates go to the front of the run and are left out; the
// cluster holding the part stored at index (index < 0: the newest record)
// follows them, labelled -1, then the other clusters. Returns the size of
// that cluster with *skipped the duplicates before it, or 0 when it cannot
// be told apart.
size_t fix_fake_dublicates(pdu_raw *run, size_t n, int index, size_t *skipped)
{
    pdu_raw *const end = run + n;
    pdu_raw *const rest = std::partition(run, end, [](const pdu_raw &r) { return r.duplicate != 0; });
    *skipped = static_cast<size_t>(rest - run);
    const size_t m = static_cast<size_t>(end - rest);
    if (m == 0)
        return 0;

    unsigned per_seq[256] = {};
    unsigned k = 0;
    for (pdu_raw *r = rest; r != end; r++)
        k = std::max(k, ++per_seq[r->seq]);
    if (k < 2)
        return m;
    if (k > INT8_MAX)
        return 0;

    std::sort(rest, end, cmp_sms_deliver_time);
    std::vector<int64_t> centre(k), sum(k);
    std::vector<size_t> count(k);
    std::vector<std::bitset<256>> holds(k);
    for (unsigned j = 0; j < k; j++)
        centre[j] = rest[j * m / k].time;
    for (pdu_raw *r = rest; r != end; r++)
        r->cluster = INT8_MIN;

    for (int round = 0; round < 10; round++) {
        bool changed = false;
        std::fill(sum.begin(), sum.end(), 0);
        std::fill(count.begin(), count.end(), 0);
        for (auto &h : holds)
            h.reset();
        for (pdu_raw *r = rest; r != end; r++) {
            int best = -1;
            int64_t best_d = 0;
            for (unsigned j = 0; j < k; j++) {
                if (holds[j][r->seq])
                    continue;
                const int64_t d = r->time > centre[j] ? r->time - centre[j] : centre[j] - r->time;
                if (best < 0 || d < best_d) {
                    best = static_cast<int>(j);
                    best_d = d;
                }
            }
            // k is the largest count of one sequence number: a cluster is
            // always free.
            holds[best].set(r->seq);
            changed |= r->cluster != best;
            r->cluster = static_cast<int8_t>(best);
            sum[best] += r->time;
            count[best]++;
        }
        for (unsigned j = 0; j < k; j++)
            if (count[j])
                centre[j] = sum[j] / static_cast<int64_t>(count[j]);
        if (!changed)
            break;
    }

    int8_t chosen = rest->cluster;
    if (index >= 0) {
        const pdu_raw *hit = std::find_if(rest, end, [index](const pdu_raw &r) { return r.index == index; });
        if (hit == end)
            return 0;
        chosen = hit->cluster;
    }
    size_t kept = 0;
    for (pdu_raw *r = rest; r != end; r++) {
        if (r->cluster == chosen) {
            r->cluster = -1;
            kept++;
        }
    }
    std::sort(rest, end, cmp_sms_deliver_clust);
    return kept;
}

// Builds the message of the run at raw[*pos] (ending at e), separating
// ambiguous parts; *pos moves past the records used. Returns whether a
// separation was needed.
bool build_message(std::vector<pdu_raw> &raw, size_t *pos, size_t e, int index, std::string_view placeholder,
                   sms_message &m)
{
    pdu_raw *run = raw.data() + *pos;
    const size_t n = e - *pos;
    if (!walk_run(run, n, placeholder, m)) {
        take_header(m, run[0]);
        *pos = e;
        return false;
    }
    size_t skipped = 0;
    const size_t kept = fix_fake_dublicates(run, n, index, &skipped);
    if (kept == 0) {
        LOG_ERROR("Failed to seperate ambiguous PDUs\n");
        std::sort(run, run + n, cmp_sms_deliver);
        walk_run(run, n, placeholder, m);
        take_header(m, run[0]);
        *pos = e;
        return true;
    }
    walk_run(run + skipped, kept, placeholder, m);
    take_header(m, run[skipped]);
    *pos += skipped + kept;
    return true;
}

void write_overflow(std::string_view number, std::string_view text, size_t offset)
{
    const std::string path = wwan_path("/tmp/sms_" + std::string(number));
    std::FILE *f = std::fopen(path.c_str(), "w");
    if (!f) {
        LOG_ERROR("Failed to open %s\n", path.c_str());
        return;
    }
    if (offset < text.size())
        std::fwrite(text.data() + offset, 1, text.size() - offset, f);
    std::fclose(f);
}

void put_hex(std::string &out, uint8_t b)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    out += digits[b >> 4];
    out += digits[b & 0x0F];
}

// Septets packed LSB first after fill zero bits.
void put_septets(std::string &out, const uint8_t *s, size_t n, unsigned fill)
{
    unsigned acc = 0;
    unsigned bits = fill;
    for (size_t i = 0; i < n; i++) {
        acc |= unsigned{s[i]} << bits;
        bits += 7;
        while (bits >= 8) {
            put_hex(out, static_cast<uint8_t>(acc & 0xFF));
            acc >>= 8;
            bits -= 8;
        }
    }
    if (bits)
        put_hex(out, static_cast<uint8_t>(acc & 0xFF));
}

uint8_t random_reference()
{
    static std::minstd_rand engine = [] {
        std::minstd_rand::result_type seed = static_cast<std::minstd_rand::result_type>(std::time(nullptr));
        try {
            seed ^= std::random_device{}();
        } catch (...) {
        }
        return std::minstd_rand(seed);
    }();
    return static_cast<uint8_t>(engine() >> 8);
}

} // namespace

int pdu_decode_sms_deliver(pdu_raw &rec)
{
    if (rec.decoded)
        return PDU_OK;
    const size_t hex_len = rec.length;
    if (hex_len == 0 || hex_len % 2 || hex_len > pdu_hex_max)
        return PDU_ERR_HEX_LENGTH;
    if (hex_len >= pdu_text_size)
        return PDU_ERR_HEX_SHORT;
    uint8_t b[pdu_hex_max / 2];
    const size_t n = hex_len / 2;
    for (size_t i = 0; i < n; i++) {
        const int hi = hex_value(rec.text[2 * i]);
        const int lo = hex_value(rec.text[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return PDU_ERR_HEX_DIGIT;
        b[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    const poison_tail guard(b + n, sizeof b - n);

    // Service-centre address, then the TPDU.
    size_t pos = 1u + b[0];
    if (pos > n)
        return PDU_ERR_SCA_SHORT;
    if (pos >= n)
        return PDU_ERR_FO_SHORT;
    const uint8_t first = b[pos++];
    if ((first & 0x03) != 0)
        return PDU_ERR_MTI;
    const bool udhi = first & 0x40;

    if (n - pos < 2)
        return PDU_ERR_OA_SHORT;
    const unsigned digits = b[pos];
    const unsigned toa = b[pos + 1];
    if (digits >= 23)
        return PDU_ERR_OA_LENGTH;
    const size_t oa_bytes = (digits + 1) / 2;
    if (n - pos - 2 < oa_bytes)
        return PDU_ERR_OA_SHORT;
    decode_address(b + pos + 2, digits, toa, rec.sender);
    pos += 2 + oa_bytes;

    if (n - pos < 2)
        return PDU_ERR_DCS_SHORT;
    const uint8_t dcs = b[pos + 1];
    pos += 2;
    switch (dcs >> 4) {
    case 0x0:
    case 0x1:
    case 0x4:
    case 0x5:
    case 0xF:
        break;
    default:
        return PDU_ERR_DCS_GROUP;
    }
    const unsigned alpha = (dcs >> 2) & 0x03;
    if (alpha == 3)
        return PDU_ERR_DCS_ALPHABET;

    if (n - pos < 7)
        return PDU_ERR_SCTS_SHORT;
    rec.time = scts_time(b + pos);
    pos += 7;

    if (n - pos < 1)
        return PDU_ERR_UDL_SHORT;
    const size_t udl = b[pos++];
    rec.udhl = rec.iei = rec.iei_len = 0;
    rec.ref = 0;
    rec.seq = rec.total = 1;
    size_t written = 0;
    if (udl > 0) {
        // User data in 4-bit units (septets are 7/4 of them) and in octets.
        size_t nibbles = alpha == alpha_gsm7 ? (7 * udl + 3) / 4 : 2 * udl;
        const size_t ud_bytes = (nibbles + 1) / 2;
        if (n - pos < ud_bytes)
            return PDU_ERR_UD_SHORT;
        const uint8_t *ud = b + pos;
        size_t skip = 0;
        unsigned fill = 0;
        udh_fields f;
        if (udhi) {
            rec.udhl = ud[0];
            skip = 1u + ud[0];
            if (skip > ud_bytes)
                return PDU_ERR_UDH_LENGTH;
            if (const int rc = parse_udh(rec, ud + 1, ud[0], f))
                return rc;
            fill = alpha == alpha_gsm7 ? 6 - ud[0] % 7 : 0;
        }
        if (nibbles <= 2 * skip)
            return PDU_ERR_UD_EMPTY;
        nibbles -= 2 * skip;
        ud += skip;
        if (alpha == alpha_gsm7) {
            uint8_t ucs[2 * 256];
            const int units = gsm_7bit_to_ucs2(ud, nibbles, ucs, 256, fill, f.locking, f.single);
            if (units < 0)
                return PDU_ERR_GSM7;
            written = utf16be_to_utf8(ucs, static_cast<size_t>(units), rec.text, pdu_text_size);
        } else if (alpha == alpha_ucs2) {
            const size_t units = nibbles / 4;
            written = utf16be_to_utf8(ud, units, rec.text, pdu_text_size);
            if (units > 0 && written == 0)
                return PDU_ERR_UCS2;
        } else {
            written = not_supported.size();
            std::memcpy(rec.text, not_supported.data(), written);
        }
    }
    rec.text[written] = '\0';
    rec.length = static_cast<uint16_t>(written + 1);
    rec.decoded = 1;
    return PDU_OK;
}

int pdu_decode(std::vector<sms_message> &out, std::vector<pdu_raw> &raw, int index, bool single, int strip)
{
    out.clear();
    const std::string_view placeholder = mpts[strip ? 1 : 0];
    try {
        size_t kept = 0;
        for (size_t i = 0; i < raw.size(); i++) {
            if (pdu_decode_sms_deliver(raw[i]) != PDU_OK) {
                LOG_ERROR("PDU decoding error\n");
                continue;
            }
            if (kept != i)
                raw[kept] = raw[i];
            kept++;
        }
        raw.resize(kept);
        std::sort(raw.begin(), raw.end(), cmp_sms_deliver);

        if (index >= 0) {
            size_t at = 0;
            while (at < raw.size() && raw[at].index != index)
                at++;
            if (at == raw.size())
                return -1;
            sms_message m;
            if (single) {
                const pdu_raw &r = raw[at];
                take_header(m, r);
                m.text = text_of(r);
                m.parts.push_back(r.seq);
                m.pdus.push_back(r.index);
            } else {
                size_t pos = 0;
                size_t e = run_end(raw, pos);
                while (e <= at) {
                    pos = e;
                    e = run_end(raw, pos);
                }
                build_message(raw, &pos, e, index, placeholder, m);
            }
            out.push_back(std::move(m));
            return 1;
        }

        size_t runs = 0;
        for (size_t pos = 0; pos < raw.size(); pos = run_end(raw, pos))
            runs++;
        out.reserve(runs + 4);
        int separations = 0;
        for (size_t pos = 0; pos < raw.size();) {
            const size_t e = run_end(raw, pos);
            sms_message m;
            const bool separated = build_message(raw, &pos, e, -1, placeholder, m);
            out.push_back(std::move(m));
            if (separated && ++separations >= 4)
                break;
        }
        std::sort(out.begin(), out.end(), cmp_decoded);
        return static_cast<int>(out.size());
    } catch (const std::bad_alloc &) {
        out.clear();
        out.shrink_to_fit();
        return -1;
    }
}

int pdu_encode(std::string_view number, std::string_view text, std::vector<pdu_submit> &out)
{
    out.clear();
    try {
        // Destination address: swapped semi-octets, 0xF filler.
        const bool international = !number.empty() && number[0] == '+';
        const std::string_view digits = international ? number.substr(1) : number;
        if (digits.empty() || digits.size() > 0xFF)
            return -1;
        for (char c : digits)
            if (c < '0' || c > '9')
                return -1;
        std::string address;
        put_hex(address, static_cast<uint8_t>(digits.size()));
        put_hex(address, international ? 0x91 : 0x81);
        for (size_t i = 0; i < digits.size(); i += 2) {
            const unsigned lo = static_cast<unsigned>(digits[i] - '0');
            const unsigned hi = i + 1 < digits.size() ? static_cast<unsigned>(digits[i + 1] - '0') : 0xF;
            put_hex(address, static_cast<uint8_t>(hi << 4 | lo));
        }

        size_t unmapped = 0;
        const size_t septets = utf8_to_unpacked_gsm7(text.data(), text.size(), nullptr, 0, &unmapped);
        const bool gsm7 = unmapped == 0;
        std::vector<uint8_t> sep;
        std::vector<uint16_t> units;
        size_t total_len; // septets or octets
        if (gsm7) {
            sep.resize(septets);
            utf8_to_unpacked_gsm7(text.data(), text.size(), sep.data(), sep.size(), nullptr);
            total_len = septets;
        } else {
            units.resize(utf8_to_utf16(text.data(), text.size(), nullptr, 0));
            utf8_to_utf16(text.data(), text.size(), units.data(), units.size());
            total_len = 2 * units.size();
        }
        const size_t single_max = gsm7 ? gsm7_single : ucs2_single;
        const size_t part_max = gsm7 ? gsm7_multi : ucs2_multi;
        const bool multi = total_len > single_max;

        // Part boundaries: an escape pair or a surrogate pair stays whole.
        std::vector<size_t> cuts{0};
        if (multi) {
            size_t start = 0;
            while (start < total_len) {
                size_t end = std::min(start + part_max, total_len);
                if (end < total_len) {
                    if (gsm7 && sep[end - 1] == 0x1B)
                        end--;
                    else if (!gsm7 && units[end / 2 - 1] >= 0xD800 && units[end / 2 - 1] <= 0xDBFF)
                        end -= 2;
                }
                cuts.push_back(end);
                start = end;
                if (cuts.size() - 1 > max_parts)
                    return -1;
            }
        } else {
            cuts.push_back(total_len);
        }
        const size_t parts = cuts.size() - 1;
        if (parts > file_parts)
            write_overflow(number, text, file_parts * part_max);

        const uint8_t ref = multi ? random_reference() : 0;
        out.resize(parts);
        for (size_t p = 0; p < parts; p++) {
            const size_t len = cuts[p + 1] - cuts[p];
            pdu_submit &s = out[p];
            s.hex.reserve(2 * (14 + address.size() / 2 + 6 + 140));
            s.hex = "00";
            s.hex += multi ? "51" : "11";
            s.hex += "00";
            s.hex += address;
            s.hex += "00";
            s.hex += gsm7 ? "00" : "08";
            s.hex += "FF";
            s.udl = static_cast<uint8_t>(len + (multi ? (gsm7 ? 7 : 6) : 0));
            put_hex(s.hex, s.udl);
            if (multi) {
                s.hex += "050003";
                put_hex(s.hex, ref);
                put_hex(s.hex, static_cast<uint8_t>(parts));
                put_hex(s.hex, static_cast<uint8_t>(p + 1));
            }
            if (gsm7) {
                put_septets(s.hex, sep.data() + cuts[p], len, multi ? 1 : 0);
                s.chars = static_cast<uint32_t>(len);
                s.capacity = static_cast<uint32_t>(multi ? gsm7_multi : gsm7_single);
            } else {
                for (size_t u = cuts[p] / 2; u < cuts[p + 1] / 2; u++) {
                    put_hex(s.hex, static_cast<uint8_t>(units[u] >> 8));
                    put_hex(s.hex, static_cast<uint8_t>(units[u] & 0xFF));
                }
                s.chars = static_cast<uint32_t>(len / 2);
                s.capacity = static_cast<uint32_t>((multi ? ucs2_multi : ucs2_single) / 2);
            }
            s.tpdu_len = static_cast<uint32_t>((s.hex.size() - 2) / 2);
        }
        return 0;
    } catch (const std::bad_alloc &) {
        out.clear();
        out.shrink_to_fit();
        return -1;
    }
}
