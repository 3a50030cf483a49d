// What every action is written with: checked arguments and command building
// for the build phase, scan helpers over the answer for the parse phase, and
// the reply and cache writers both phases share. An action then reads as its
// command and its parse:
//
//   int get_crc_fmt(modem *m, int type, ujson *j, request *r)
//   {
//       return query_enum(m, type, j, r, "AT+CRC?\r", "\r\n+CRC: %d", "format", cell_rc_str);
//   }
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>
#include <type_traits>

#include "core/modem_driver.h"

class modem;
class ujson;
struct request;

// Vocabulary conversions as the actions pass them.
using vocab_str_fn = const char *(*)(uint32_t);
using vocab_enum_fn = uint32_t (*)(std::string_view);

// --- build phase ----------------------------------------------------------------

// The caller's arguments, read with their checks. Every text that goes into
// a command passes at_check_arg here (no CR, LF, NUL, ESC, Ctrl-Z or double
// quote, at most its length), every number its range, every keyword its
// vocabulary. A failed read marks the set bad and returns a neutral value;
// the action then answers status() (2) and sends nothing.
class act_args
{
  public:
    explicit act_args(const ujson *json) : json_(json) {}

    bool has(const char *name) const;
    // A required text; "" when missing or refused.
    const char *text(const char *name, size_t max_len);
    // An optional text; "" when absent, "" and bad when refused.
    const char *opt_text(const char *name, size_t max_len);
    // A required number in lo..hi.
    int32_t number(const char *name, int32_t lo, int32_t hi);
    // An optional number in lo..hi, def when absent.
    int32_t opt_number(const char *name, int32_t lo, int32_t hi, int32_t def);
    bool flag(const char *name, bool def = false) const;
    // A required keyword through its argument vocabulary; the vocabulary id
    // (never 0: an unknown keyword is bad).
    uint32_t keyword(const char *name, vocab_enum_fn arg_enum);
    // An optional keyword; 0 when absent.
    uint32_t opt_keyword(const char *name, vocab_enum_fn arg_enum);
    // The texts of an array argument, each checked like text(); at most
    // max_items of them. Empty, and bad, when the array is missing (unless
    // optional), holds anything but texts, or is too long. The views point
    // into the caller's arguments.
    std::vector<std::string_view> texts(const char *name, size_t max_items, size_t max_len, bool optional = false);

    bool ok() const { return ok_; }
    // ACT_STATUS_OK, or ACT_STATUS_INVALID_ARGS after a failed read.
    int status() const { return ok_ ? ACT_STATUS_OK : ACT_STATUS_INVALID_ARGS; }

  private:
    const char *checked(const char *name, size_t max_len, bool required);

    const ujson *json_;
    bool ok_ = true;
};

// Stores an owned copy of the command in the request. 0, 2 without a
// request, 3 without memory.
int set_command(request *req, std::string_view command);
// The same for a formatted command: measured first, then written into an
// exactly sized buffer.
int set_commandf(request *req, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// What the parse phase needs from the build travels as the request's extra
// data, a copy of a plain record (freed by the request's owner; a previous
// one goes). 0, 2 without a request, 3 without memory.
int set_extra_bytes(request *req, const void *data, size_t size);
template <class T> int set_extra(request *req, const T &value)
{
    static_assert(std::is_trivially_copyable_v<T>);
    return set_extra_bytes(req, &value, sizeof(T));
}
// The record the build phase handed over, or null.
const void *extra_bytes(const request *req);
template <class T> const T *get_extra(const request *req)
{
    return static_cast<const T *>(extra_bytes(req));
}

// --- parse phase ------------------------------------------------------------------

// The answer being parsed (empty when none).
std::string_view answer(const modem *mdm);
// The answer ends in a final OK ("\r\nOK\r\n" or the numeric "0\r").
bool answer_ok(const modem *mdm);
// The parse status of an answer that is only its result: 0 on OK, else 5.
int result_status(const modem *mdm);
// sscanf over a text that need not be terminated; the count of fields read
// (0 when nothing matched, also for EOF).
int scan(std::string_view text, const char *fmt, ...) __attribute__((format(scanf, 2, 3)));
// The text from the first line that begins with prefix (after its "\r\n"),
// with that "\r\n" kept so "\r\n..." patterns apply; empty when absent.
std::string_view from_line(std::string_view text, std::string_view prefix);
// The first information line: the text after a leading "\r\n" (absent
// with ATV0) up to the next "\r\n"; empty when the answer starts with its
// final result.
std::string_view first_line(std::string_view text);
// The rest of the line after the first occurrence of prefix, up to the next
// CR and without trailing blanks; empty when absent. The prefix may stand
// anywhere: with ATV0 a second command's answer follows the first's "0\r".
std::string_view line_value(std::string_view text, std::string_view prefix);

// The answer of the first part of a two-part command ("AT+A\rAT+B\r"), up
// to and with its final result, and what the second part answered after it.
// Without a final result the whole text is the first part's.
void split_parts(std::string_view text, std::string_view *first, std::string_view *second);

// The text without its enclosing double quotes; either may be missing
// (a "%63[^,\r]" capture after a literal quote keeps only the closing one).
std::string_view unquote(std::string_view text);
// Calls fn(line) for every line of text that begins with prefix; the line
// runs from the prefix up to its "\r\n" (or the end of the text).
template <class F> void for_each_line(std::string_view text, std::string_view prefix, F &&fn)
{
    while (!text.empty()) {
        size_t end = text.find("\r\n");
        std::string_view line = text.substr(0, end);
        if (line.starts_with(prefix))
            fn(line);
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 2);
    }
}
// The comma-separated fields of a line (after its "+XXX: " prefix), each
// unquoted; at most max, the last one keeping the rest of the line. The
// number of fields stored.
size_t split_fields(std::string_view line, std::string_view *fields, size_t max);

// --- replies and cache ----------------------------------------------------------------

// An enumerated value twice: the number under "<key>_id", its text under key.
void reply_enum(ujson *json, const char *key, uint32_t id, vocab_str_fn str);
void reply_text(ujson *json, const char *key, std::string_view text);
// The raw answer under "response", for answers no pattern could read.
void reply_raw(ujson *json, const modem *mdm);

void cache_text(modem *mdm, const char *key, std::string_view text);
void cache_int(modem *mdm, const char *key, int32_t value);
void cache_drop(modem *mdm, const char *key);
// The cached text under key, or null.
const char *cached_text(const modem *mdm, const char *key);
// The cached 32-bit integer under key, or def.
int32_t cached_int(const modem *mdm, const char *key, int32_t def);

// What the modem reported (a PIN state, a new operator) may have changed its
// registration: the registration reports are read again.
void update_registration(modem *mdm);

// --- whole actions of the common shapes ----------------------------------------------------

// A fixed command whose answer is only its result: OK gives 0, else 5.
int simple_command(modem *mdm, int type, request *req, const char *command);
// A set with one keyword argument `arg`: fmt holds one %u for its AT value
// (the vocabulary id minus 1).
int set_keyword(modem *mdm, int type, ujson *json, request *req, const char *fmt, const char *arg,
                vocab_enum_fn arg_enum);
// A query whose answer holds one AT value read by pattern (one %d): the
// reply is "<key>_id" = value + 1 and key = its text. Unreadable: 5.
int query_enum(modem *mdm, int type, ujson *json, request *req, const char *command, const char *pattern,
               const char *key, vocab_str_fn str);
