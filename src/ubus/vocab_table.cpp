#include "ubus/vocab_table.h"

namespace
{

const vocab_entry *member(const vocab_def &v, uint32_t id)
{
    return id < v.n && v.entries[id].text ? &v.entries[id] : nullptr;
}

char lower(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool vocab_ieq(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); i++)
        if (lower(a[i]) != lower(b[i]))
            return false;
    return true;
}

const char *vocab_str(const vocab_def &v, uint32_t id)
{
    const vocab_entry *e = member(v, id);
    return e ? e->text : v.unknown_text;
}

const char *vocab_arg_str(const vocab_def &v, uint32_t id)
{
    const vocab_entry *e = member(v, id);
    return e && e->key ? e->key : v.unknown_key;
}

uint32_t vocab_arg_enum(const vocab_def &v, std::string_view key)
{
    for (uint32_t i = 0; i < v.n; i++)
        if (v.entries[i].text && v.entries[i].key && key == v.entries[i].key)
            return i;
    return 0;
}

bool vocab_find(const vocab_def &v, std::string_view text, uint32_t *id)
{
    for (uint32_t i = 0; i < v.n; i++) {
        const vocab_entry &e = v.entries[i];
        if (e.text && (vocab_ieq(text, e.text) || (e.key && vocab_ieq(text, e.key)))) {
            *id = i;
            return true;
        }
    }
    return false;
}

uint32_t vocab_enum(const vocab_def &v, std::string_view text)
{
    uint32_t id = 0;
    return vocab_find(v, text, &id) ? id : 0;
}

// clang-format off
namespace {

constexpr vocab_entry disabled_enabled[] = {
    {nullptr, nullptr},
    {"Disabled", "disable"},
    {"Enabled", "enable"},
};

} // namespace
// clang-format on

constinit const vocab_def vocab_disabled_enabled = make_vocab(disabled_enabled, "Unknown");
