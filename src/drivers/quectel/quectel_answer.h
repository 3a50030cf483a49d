// Reading Quectel answers: the lines tagged "+XXX:", their fields and the
// numbers in them, one way for every Quectel action.
//
// Firmware differs in details the readers here absorb: the tag in any case,
// a blank after its colon or none, stray blanks around fields, quoted or
// bare texts, commas inside quotes. "" and "-" are left as they are; the
// caller treats them as "no value" (has_value) and leaves its key out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <vector>

class modem;
class ujson;

namespace quectel
{

using fields = std::vector<std::string_view>;

// text without blanks (space, tab) and stray CRs at either end.
std::string_view trim(std::string_view text);
bool equal_nocase(std::string_view a, std::string_view b);
bool starts_nocase(std::string_view text, std::string_view prefix);

// Whether line carries tag ("+QENG", matched in any case) right before a
// colon; blanks in front of the tag are allowed. rest (when given) is what
// follows the colon, trimmed.
bool tagged(std::string_view line, std::string_view tag, std::string_view *rest = nullptr);

// The fields of what follows a tag's colon: split at the commas outside
// double quotes, blanks trimmed, enclosing quotes removed (what they enclose
// kept as printed). Always one field at least: "" gives {""}.
fields fields_of(std::string_view rest);
// Calls fn(fields) for every line of text (lines end in "\r\n") tagged
// tag, with the fields of what follows the colon.
template <class F> void for_each_tagged(std::string_view text, std::string_view tag, F &&fn)
{
    while (!text.empty()) {
        size_t end = text.find("\r\n");
        std::string_view rest;
        if (tagged(text.substr(0, end), tag, &rest)) {
            const fields f = fields_of(rest);
            fn(f);
        }
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 2);
    }
}
// The fields of the first line tagged tag; none without such a line.
fields tagged_fields(std::string_view text, std::string_view tag);
// The fields after the item of the first line tagged tag whose first field
// is item (any case): for +QCFG: "band",0x3,... the values after "band".
// None without such a line.
fields item_values(std::string_view text, std::string_view tag, std::string_view item);
// Field i of f; "" past the end (a missing field has no value).
std::string_view field_at(const fields &f, size_t i);
// Neither "" nor "-".
bool has_value(std::string_view field);

// The whole field as a number in base (a sign only in base 10; no blanks,
// no "0x"), within lo..hi. False for anything else, "" and "-" included.
bool parse_number(std::string_view field, int base, int64_t lo, int64_t hi, int64_t &out);

// parse_number into out, within the range of its type.
template <class T> bool to_number(std::string_view field, T &out, int base = 10)
{
    static_assert(std::is_integral_v<T> && (std::is_signed_v<T> || sizeof(T) < sizeof(int64_t)));
    int64_t v;
    if (!parse_number(field, base, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), v))
        return false;
    out = static_cast<T>(v);
    return true;
}
// A decimal number within lo..hi.
template <class T>
bool to_number(std::string_view field, T &out, std::type_identity_t<T> lo, std::type_identity_t<T> hi)
{
    static_assert(std::is_integral_v<T> && (std::is_signed_v<T> || sizeof(T) < sizeof(int64_t)));
    int64_t v;
    if (!parse_number(field, 10, lo, hi, v))
        return false;
    out = static_cast<T>(v);
    return true;
}

// The code of the answer's "+CME ERROR: <n>" line; -1 without one, or when
// the error is given as text.
int cme_error(std::string_view text);

// The parse of a setting the modem applies at its next restart: on OK
// "restart" true and 0, else 5.
int restart_result(modem *mdm, ujson *json);

} // namespace quectel
