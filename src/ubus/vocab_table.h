// Table machinery shared by the vocabulary sources: one array per
// vocabulary, indexed by number, and four generic conversions over it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct vocab_entry {
    const char *text; // display text; null marks a number outside the vocabulary
    const char *key;  // bus keyword (or the modem's own text), null when none
};

struct vocab_def {
    const vocab_entry *entries; // entries[i] describes number i
    size_t n;
    const char *unknown_text; // what _str gives outside the vocabulary
    const char *unknown_key;  // what _arg_str gives outside the vocabulary
};

template <size_t N>
constexpr vocab_def make_vocab(const vocab_entry (&entries)[N], const char *unknown_text,
                               const char *unknown_key = "unknown")
{
    return {entries, N, unknown_text, unknown_key};
}

// Number to display text / bus keyword, with the vocabulary's fall-backs.
const char *vocab_str(const vocab_def &v, uint32_t id);
const char *vocab_arg_str(const vocab_def &v, uint32_t id);

// Bus keyword to number, exact and case-sensitive; 0 when not a keyword.
uint32_t vocab_arg_enum(const vocab_def &v, std::string_view key);

// Finds text among the display texts and keywords, ignoring case; false
// when absent (for vocabularies in which 0 is a real value).
bool vocab_find(const vocab_def &v, std::string_view text, uint32_t *id);

// vocab_find with 0 for an unknown text.
uint32_t vocab_enum(const vocab_def &v, std::string_view text);

// Sparse number -> text lists (network cause codes).
struct vocab_code {
    uint32_t code;
    const char *text;
};

template <size_t N> const char *vocab_code_str(const vocab_code (&codes)[N], uint32_t code, const char *unknown)
{
    for (const auto &c : codes)
        if (c.code == code)
            return c.text;
    return unknown;
}

bool vocab_ieq(std::string_view a, std::string_view b);

// The common on/off vocabulary: 1 "Disabled" ("disable"), 2 "Enabled" ("enable").
extern const vocab_def vocab_disabled_enabled;
