#include "comm/parser_manager.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "util/log.h"

namespace {

constexpr uint32_t npos = UINT32_MAX;

struct ats_text {
    std::string_view verbose;
    std::string_view numeric_any;   // found anywhere; its leading CRLF is not part of the code
    std::string_view numeric_start; // found only at the very start of the text
};

// Indexed by id - 1.
constexpr ats_text ats_table[] = {
    {"\r\nOK\r\n", "\r\n0\r", "0\r"},
    {"\r\nBUSY\r\n", "\r\n7\r", "7\r"},
    {"\r\nTIMEOUT\r\n", {}, {}},
    {"\n?Time out\r\n", {}, {}},
    {"\r\n+CME ERROR: ", {}, "+CME ERROR: "},
    {"\r\n+CMEE ERROR: ", {}, "+CMEE ERROR: "},
    {"\r\n+CMS ERROR: ", {}, "+CMS ERROR: "},
    {"\r\nNO ANSWER\r\n", "\r\n8\r", "8\r"},
    {"\r\nNO DIALTONE\r\n", "\r\n6\r", "6\r"},
    {"\r\nNO CARRIER\r\n", "\r\n3\r", "3\r"},
    {"\r\nCONNECT", "\r\n1", "1"},
    {"\r\n> ", {}, {}},
    {"\r\nERROR\r\n", "\r\n4\r", "4\r"},
};
constexpr uint32_t ats_count = sizeof(ats_table) / sizeof(ats_table[0]);

// Error codes carry their number or text up to the end of the line.
constexpr bool runs_to_line_end(uint32_t id)
{
    return id == ATS_CME_ERROR || id == ATS_CMEE_ERROR || id == ATS_CMS_ERROR;
}

constexpr uint32_t longest_code()
{
    size_t n = 0;
    for (const auto &e : ats_table)
        n = std::max({n, e.verbose.size(), e.numeric_any.size()});
    return static_cast<uint32_t>(n);
}
// A code that starts this close to the end of the text may still be arriving.
constexpr uint32_t code_tail = longest_code() - 1;

constexpr std::string_view cusd_head = "\r\n+CUSD: ";
constexpr std::string_view powered_down = "\r\nPOWERED DOWN\r\n";
constexpr uint32_t cusd_text_max = 256;
constexpr uint32_t cusd_digits_max = 10;
constexpr uint32_t special_tail = static_cast<uint32_t>(std::max(cusd_head.size(), powered_down.size()) - 1);

constexpr std::string_view qfupl = "+QFUPL";
constexpr uint32_t qfupl_tail = static_cast<uint32_t>(qfupl.size() - 1);

bool starts_with(std::string_view t, uint32_t at, std::string_view p)
{
    return at <= t.size() && t.size() - at >= p.size() && std::memcmp(t.data() + at, p.data(), p.size()) == 0;
}

// First CRLF that lies wholly before end, searching from from.
uint32_t find_crlf(std::string_view t, uint32_t from, uint32_t end)
{
    end = std::min<uint32_t>(end, static_cast<uint32_t>(t.size()));
    while (from + 1 < end) {
        auto *r = static_cast<const char *>(std::memchr(t.data() + from, '\r', end - 1 - from));
        if (!r)
            return npos;
        auto i = static_cast<uint32_t>(r - t.data());
        if (t[i + 1] == '\n')
            return i;
        from = i + 1;
    }
    return npos;
}

bool contains(std::string_view t, uint32_t start, uint32_t end, std::string_view p)
{
    return t.substr(start, end - start).find(p) != std::string_view::npos;
}

char upper(char c)
{
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

enum class shape { none, partial, full };

// "\r\n+CUSD: <m>,\"<text of up to 256 characters>\",<dcs>\r\n" at s; the
// text may hold line breaks. partial: the bytes so far could still become one.
shape match_cusd(std::string_view t, uint32_t s, uint32_t *len)
{
    const auto n = static_cast<uint32_t>(t.size());
    uint32_t i = s;
    auto literal = [&](std::string_view lit) {
        for (char c : lit) {
            if (i == n)
                return shape::partial;
            if (t[i] != c)
                return shape::none;
            i++;
        }
        return shape::full;
    };
    auto number = [&]() {
        uint32_t digits = 0;
        while (i < n && t[i] >= '0' && t[i] <= '9') {
            if (++digits > cusd_digits_max)
                return shape::none;
            i++;
        }
        if (i == n)
            return shape::partial;
        return digits ? shape::full : shape::none;
    };
    shape r;
    if ((r = literal(cusd_head)) != shape::full || (r = number()) != shape::full || (r = literal(",\"")) != shape::full)
        return r;
    for (uint32_t chars = 0; i < n && t[i] != '"'; i++)
        if (++chars > cusd_text_max)
            return shape::none;
    if ((r = literal("\",")) != shape::full || (r = number()) != shape::full || (r = literal("\r\n")) != shape::full)
        return r;
    *len = i - s;
    return shape::full;
}

shape match_powered_down(std::string_view t, uint32_t s)
{
    size_t avail = std::min(t.size() - s, powered_down.size());
    if (std::memcmp(t.data() + s, powered_down.data(), avail) != 0)
        return shape::none;
    return avail == powered_down.size() ? shape::full : shape::partial;
}

// A line in front of the response is a URC when it opens with an extended
// syntax character (after its leading CRLF, if any) or names RING or +QFUPL.
bool is_urc_line(std::string_view t, uint32_t p, uint32_t q)
{
    if (is_spec_at_char(t[p]))
        return true;
    if (q - p > 2 && t[p] == '\r' && t[p + 1] == '\n' && is_spec_at_char(t[p + 2]))
        return true;
    return contains(t, p, q, "RING") || contains(t, p, q, qfupl);
}

// Where a response whose first line starts at s begins: at the CRLF before
// that line.
uint32_t line_start(uint32_t s)
{
    return s >= 2 ? s - 2 : 0;
}

} // namespace

bool is_spec_at_char(char c)
{
    return c == '+' || c == '^' || c == '*' || c == '#' || c == '$';
}

std::unique_ptr<parser> parser::create()
{
    std::unique_ptr<parser> p(new (std::nothrow) parser());
    if (!p)
        return nullptr;
    p->content_ = ubuffer::create();
    p->urc_ = ubuffer::create();
    p->hist_ = ubuffer::create();
    p->preview_ = ubuffer::create();
    if (!p->content_ || !p->urc_ || !p->hist_ || !p->preview_)
        return nullptr;
    return p;
}

const char *parser::text(const ubuffer &b)
{
    return b.buffer() ? reinterpret_cast<const char *>(b.buffer()) : "";
}

std::string_view parser::hist_view() const
{
    return {text(*hist_), hist_->len()};
}

bool parser::append(ubuffer &b, const void *src, uint32_t n)
{
    if (n == 0)
        return true;
    if (b.append(src, n) == n)
        return true;
    LOG_ERROR("[PARSER] Memory (ptr: %p) append error!\n", static_cast<void *>(&b));
    return false;
}

void parser::set_req_token(const char *cmd)
{
    if (cmd)
        set_req_token(std::string_view(cmd));
}

std::string at_token(std::string_view cmd)
{
    // Skip "AT" and the prefix character; stop before parameters or the line end.
    size_t start = cmd.size() < 4 ? 0 : 3;
    size_t n = 0;
    while (start + n < cmd.size()) {
        char c = cmd[start + n];
        if (c == '?' || c == '=' || c == '\r' || c == '\0')
            break;
        n++;
    }
    std::string token;
    if (n < parser::token_size)
        for (size_t i = 0; i < n; i++)
            token += upper(cmd[start + i]);
    return token;
}

void parser::set_req_token(std::string_view cmd)
{
    char old[token_size];
    std::memcpy(old, token_, token_size);
    std::memset(token_, 0, token_size);
    std::string token = at_token(cmd);
    std::memcpy(token_, token.data(), token.size());

    // Lines were classified against the old token.
    if (std::memcmp(old, token_, token_size) != 0)
        reset_lines();
}

uint32_t parser::hist_add(const void *bytes, uint32_t n)
{
    if (n == 0)
        return 0;
    return append(*hist_, bytes, n) ? n : 0;
}

int parser::sanitize()
{
    uint8_t *b = hist_->buffer();
    uint32_t len = hist_->len();
    uint32_t first = npos;
    for (uint32_t i = clean_from_; i < len;) {
        auto *z = static_cast<uint8_t *>(std::memchr(b + i, 0, len - i));
        if (!z)
            break;
        *z = '?';
        i = static_cast<uint32_t>(z - b);
        first = std::min(first, i);
        i++;
    }
    clean_from_ = len;
    // '?' belongs to a result code ("\n?Time out\r\n"): look again from there.
    if (first != npos)
        code_from_ = std::min(code_from_, first > code_tail ? first - code_tail : 0);
    return 1;
}

parser::code_match parser::find_code(std::string_view t, uint32_t from, uint32_t *pending)
{
    const auto size = static_cast<uint32_t>(t.size());
    code_match verbose, numeric;
    uint32_t pend = npos;

    // Every verbose and numeric-anywhere text starts with CRLF, except the
    // time-out text that starts with its line feed. Walking the line feeds in
    // order, the first position seen for an id is its first occurrence.
    for (uint32_t i = from; i < size;) {
        auto *nl = static_cast<const char *>(std::memchr(t.data() + i, '\n', size - i));
        if (!nl)
            break;
        auto n = static_cast<uint32_t>(nl - t.data());
        i = n + 1;
        if (n >= from + 1 && t[n - 1] == '\r') {
            uint32_t s = n - 1;
            for (uint32_t id = 1; id <= ats_count && (!verbose.id || id < verbose.id); id++) {
                const auto &v = ats_table[id - 1].verbose;
                if (v[0] != '\r' || !starts_with(t, s, v))
                    continue;
                uint32_t len = static_cast<uint32_t>(v.size());
                if (runs_to_line_end(id)) {
                    uint32_t c = find_crlf(t, s + 2, size);
                    if (c == npos) {
                        pend = std::min(pend, s);
                        continue;
                    }
                    len = c + 2 - s;
                }
                verbose = {id, s, len, 0, false};
                break;
            }
            for (uint32_t id = 1; id <= ats_count && (!numeric.id || id < numeric.id); id++) {
                const auto &na = ats_table[id - 1].numeric_any;
                if (!na.empty() && starts_with(t, s, na)) {
                    numeric = {id, s + 2, static_cast<uint32_t>(na.size() - 2), 1, false};
                    break;
                }
            }
        }
        if (n >= from && (!verbose.id || ATS_TIME_OUT < verbose.id) && starts_with(t, n, ats_table[ATS_TIME_OUT - 1].verbose))
            verbose = {ATS_TIME_OUT, n, static_cast<uint32_t>(ats_table[ATS_TIME_OUT - 1].verbose.size()), 0, false};
        if (verbose.id == ATS_OK)
            break; // nothing ranks higher
    }
    if (pending)
        *pending = pend;
    if (verbose.id)
        return verbose;
    if (numeric.id)
        return numeric;

    for (uint32_t id = 1; id <= ats_count; id++) {
        const auto &ns = ats_table[id - 1].numeric_start;
        if (ns.empty())
            continue;
        if (!runs_to_line_end(id)) {
            if (starts_with(t, 0, ns))
                return {id, 0, static_cast<uint32_t>(ns.size()), 1, true};
            continue;
        }
        size_t f = t.find(ns, from);
        if (f == std::string_view::npos)
            continue;
        auto s = static_cast<uint32_t>(f);
        uint32_t c = find_crlf(t, s, size);
        if (c == npos) {
            if (pending)
                *pending = std::min(*pending, s);
            continue;
        }
        return {id, s, c + 2 - s, 1, true};
    }
    return {};
}

uint32_t parser::ats_id_find(std::string_view text, uint32_t *pos, uint32_t *len, int *numeric)
{
    code_match m;
    if (text.data()) {
        m = find_code(text, 0, nullptr);
        if (!m.id) {
            m.pos = static_cast<uint32_t>(text.size());
            m.numeric = 1;
        }
    }
    if (pos)
        *pos = m.pos;
    if (len)
        *len = m.len;
    if (numeric)
        *numeric = m.numeric;
    return m.id;
}

// The result code of the history, searching only where one could have
// appeared since the last look.
parser::code_match parser::next_code()
{
    // The text of a USSD report that is still arriving is not searched: its
    // lines may look like result codes ("1 Top up" reads as numeric CONNECT).
    auto t = hist_view().substr(0, cusd_hold_);
    uint32_t pend = npos;
    code_match m = find_code(t, code_from_, &pend);
    if (!m.id) {
        auto size = static_cast<uint32_t>(t.size());
        uint32_t tail = size > code_tail ? size - code_tail : 0;
        code_from_ = std::min(pend, std::max(code_from_, tail));
    }
    return m;
}

int parser::pre_sanitize()
{
    int cut = 0;
    for (code_match m = next_code(); m.id; m = next_code()) {
        cut_hist(m.pos, m.len);
        cut = 1;
    }
    return cut ? 0 : 1;
}

void parser::take_special_urcs()
{
    for (;;) {
        auto t = hist_view();
        auto size = static_cast<uint32_t>(t.size());
        uint32_t partial = npos, hold = npos, found = npos, found_len = 0;
        bool power = false;

        for (uint32_t i = spec_from_; i < size && found == npos;) {
            auto *nl = static_cast<const char *>(std::memchr(t.data() + i, '\n', size - i));
            if (!nl)
                break;
            auto n = static_cast<uint32_t>(nl - t.data());
            i = n + 1;
            if (n < spec_from_ + 1 || t[n - 1] != '\r' || n + 1 >= size)
                continue;
            uint32_t s = n - 1;
            shape r = shape::none;
            if (t[n + 1] == '+') {
                r = match_cusd(t, s, &found_len);
            } else if (t[n + 1] == 'P') {
                r = match_powered_down(t, s);
                power = r == shape::full;
            }
            if (r == shape::full) {
                found = s;
            } else if (r == shape::partial) {
                partial = std::min(partial, s);
                if (t[n + 1] == '+')
                    hold = std::min(hold, s);
            }
        }

        if (found == npos) {
            uint32_t tail = size > special_tail ? size - special_tail : 0;
            spec_from_ = std::min(partial, std::max(spec_from_, tail));
            cusd_hold_ = hold;
            return;
        }

        if (power)
            found_len = static_cast<uint32_t>(powered_down.size());
        status_ |= urc_add(t.data() + found, found_len) ? PARSER_STATUS_URC : PARSER_STATUS_FAILURE;
        cut_hist(found, found_len);
    }
}

bool parser::has_qfupl()
{
    if (qfupl_at_ != npos)
        return true;
    auto t = hist_view();
    size_t f = t.find(qfupl, qfupl_from_);
    if (f != std::string_view::npos) {
        qfupl_at_ = qfupl_from_ = static_cast<uint32_t>(f);
        return true;
    }
    auto size = static_cast<uint32_t>(t.size());
    qfupl_from_ = std::max(qfupl_from_, size > qfupl_tail ? size - qfupl_tail : 0);
    return false;
}

void parser::classify_line(uint32_t start, uint32_t end, uint32_t token_len)
{
    auto t = hist_view();
    if (start == end)
        return; // blank lines neither open nor close a response
    if (is_spec_at_char(t[start])) {
        bool token_line = token_len && end - start >= token_len + 2 && t[start + 1 + token_len] == ':';
        for (uint32_t i = 0; token_line && i < token_len; i++)
            token_line = upper(t[start + 1 + i]) == token_[i];
        if (token_line) {
            if (first_token_ == npos)
                first_token_ = start;
        } else {
            plain_start_ = npos;
        }
        return;
    }
    if (contains(t, start, end, "RING") || contains(t, start, end, qfupl)) {
        plain_start_ = npos;
        return;
    }
    if (plain_start_ == npos)
        plain_start_ = start;
}

// Classifies every line ended by a CRLF at or before end. Lines run between
// CRLFs; the first one from the start of the history.
void parser::scan_lines(uint32_t end)
{
    if (line_pos_ > end + 2)
        reset_lines();
    auto t = hist_view();
    auto token_len = static_cast<uint32_t>(std::strlen(token_));
    uint32_t limit = end > UINT32_MAX - 2 ? UINT32_MAX : end + 2;
    for (;;) {
        uint32_t c = find_crlf(t, line_pos_, limit);
        if (c == npos)
            break;
        classify_line(line_pos_, c, token_len);
        line_pos_ = c + 2;
    }
}

// Moves the URC lines in front of end into the URC buffer; returns how many
// bytes in front were dealt with.
uint32_t parser::scan_front(uint32_t end)
{
    auto t = hist_view();
    uint32_t p = 0;
    while (end - p > 4) {
        uint32_t unused;
        // A USSD report whose text is still arriving stays, with what follows.
        if (starts_with(t, p, cusd_head) && match_cusd(t, p, &unused) == shape::partial)
            break;
        uint32_t q;
        if (starts_with(t, p, "\r\n\r\n")) {
            q = p + 2;
        } else {
            uint32_t c = find_crlf(t, starts_with(t, p, "\r\n") ? p + 2 : p, end);
            q = c == npos ? end : c + 2;
        }
        if (is_urc_line(t, p, q))
            status_ |= urc_add(t.data() + p, q - p) ? PARSER_STATUS_URC : PARSER_STATUS_FAILURE;
        p = q;
    }
    return p;
}

uint32_t parser::work()
{
    status_ = 0;
    result_id_ = ATS_NONE;

    if (hist_->len() > hist_limit) {
        preview_->flush();
        append(*preview_, hist_->buffer(), preview_len);
        rst_cnt_++;
        hist_->flush();
        reset_scan();
        clean_from_ = 0;
    }

    take_special_urcs();

    code_match m = next_code();
    // The lines before the result code (or all complete lines) are weighed.
    uint32_t end;
    if (m.id)
        end = (m.numeric && !m.at_start) ? m.pos - 2 : m.pos;
    else
        end = hist_->len();
    scan_lines(end);

    uint32_t ds;
    if (has_qfupl())
        ds = m.id ? m.pos : line_pos_; // upload report lines are URCs, never data
    else if (first_token_ != npos)
        ds = line_start(first_token_);
    else if (plain_start_ != npos)
        ds = line_start(plain_start_);
    else
        ds = m.id ? m.pos : line_pos_;

    if (!m.id) {
        if (token_[0])
            status_ |= PARSER_STATUS_INCOMPLETE;
        cut_hist(0, scan_front(ds));
        return status_;
    }

    uint32_t rc_end = m.pos + m.len;
    if (!append(*content_, hist_->buffer() + ds, rc_end - ds))
        status_ |= PARSER_STATUS_FAILURE;
    cut_hist(ds, rc_end - ds);
    result_id_ = m.id;
    status_ |= m.id == ATS_PROMPT ? PARSER_STATUS_PROMPT : PARSER_STATUS_COMPLETE;
    // What is left is short: look at all of it afresh next time.
    reset_scan();
    cut_hist(0, scan_front(ds));
    return status_;
}

void parser::cut_hist(uint32_t pos, uint32_t n)
{
    n = hist_->cut(pos, n);
    if (!n)
        return;

    // Marks past the cut move down with the bytes; a mark inside it lands on
    // the seam. Texts that could now run across the seam are looked for again.
    auto shift = [&](uint32_t &v) {
        if (v != npos && v > pos)
            v = v >= pos + n ? v - n : pos;
    };
    auto rewind = [&](uint32_t &v, uint32_t tail) {
        shift(v);
        if (pos > 0)
            v = std::min(v, pos > tail ? pos - tail : 0);
    };
    shift(clean_from_);
    shift(cusd_hold_);
    rewind(code_from_, code_tail);
    rewind(spec_from_, special_tail);
    if (qfupl_at_ != npos && qfupl_at_ + qfupl.size() > pos) {
        if (qfupl_at_ >= pos + n) {
            qfupl_at_ -= n;
            qfupl_from_ = qfupl_at_;
        } else {
            qfupl_at_ = npos;
        }
    }
    if (qfupl_at_ == npos)
        rewind(qfupl_from_, qfupl_tail);

    if (pos == 0 && line_pos_ >= n) {
        // Whole lines gone from the front: what is left keeps its class.
        line_pos_ -= n;
        first_token_ = first_token_ == npos || first_token_ < n ? npos : first_token_ - n;
        plain_start_ = plain_start_ == npos || plain_start_ < n ? npos : plain_start_ - n;
    } else if (pos < line_pos_) {
        reset_lines();
    }
}

void parser::reset_lines()
{
    line_pos_ = 0;
    first_token_ = npos;
    plain_start_ = npos;
}

void parser::reset_scan()
{
    code_from_ = 0;
    spec_from_ = 0;
    cusd_hold_ = npos;
    qfupl_from_ = 0;
    qfupl_at_ = npos;
    reset_lines();
}

void parser::flush()
{
    content_->flush();
    status_ = 0;
    result_id_ = ATS_NONE;
}

uint32_t parser::urc_add(const void *bytes, uint32_t n)
{
    if (n == 0 || !append(*urc_, bytes, n))
        return 0;
    try {
        urc_lens_.push_back(n);
    } catch (const std::bad_alloc &) {
        urc_->cut(urc_->len() - n, n);
        LOG_ERROR("[PARSER] Memory (ptr: %p) append error!\n", static_cast<void *>(urc_.get()));
        return 0;
    }
    return n;
}

void parser::urc_next()
{
    if (urc_done())
        return;
    urc_pos_ += urc_lens_[urc_index_++];
}

void parser::urc_flush()
{
    urc_->flush();
    urc_lens_.clear();
    urc_pos_ = 0;
    urc_index_ = 0;
}

parser_stats parser::stats() const
{
    return {content_->grow_cnt(),
            content_->len(),
            content_->cap(),
            urc_->grow_cnt(),
            urc_->len(),
            urc_->cap(),
            hist_->grow_cnt(),
            hist_->len(),
            hist_->cap(),
            rst_cnt_,
            {text(*preview_), preview_->len()}};
}
