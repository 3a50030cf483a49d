// SIM, PIN and facility lock vocabularies.
#include "ubus/vocab.h"
#include "ubus/vocab_table.h"

#include <iterator>

// clang-format off
namespace {

constexpr vocab_entry pin_state[] = {
    {nullptr, nullptr},
    {"OK", nullptr},
    {"Not ready", nullptr},
    {nullptr, nullptr},
    {"Required PIN", nullptr},
    {"Required PUK", nullptr},
    {"Required network personalization password", nullptr},
    {"Required network personalization unlocking password", nullptr},
    {"Required network subset personalization password", nullptr},
    {"Required network subset personalization unlocking password", nullptr},
    {"SIM not inserted", nullptr},
    {nullptr, nullptr},
    {nullptr, nullptr},
    {"SIM failure", nullptr},
    {"SIM busy", nullptr},
    {"PUK", nullptr},
};
constexpr vocab_def pin_state_v = make_vocab(pin_state, "Unknown");

// SIM state by PIN state 0..15.
constexpr uint8_t sim_by_pin[] = {
    SIM_STATE_UNKNOWN, SIM_STATE_PRESENT,  SIM_STATE_UNUSABLE, SIM_STATE_UNKNOWN,
    SIM_STATE_PRESENT, SIM_STATE_PRESENT,  SIM_STATE_PRESENT,  SIM_STATE_PRESENT,
    SIM_STATE_PRESENT, SIM_STATE_PRESENT,  SIM_STATE_UNUSABLE, SIM_STATE_UNKNOWN,
    SIM_STATE_UNKNOWN, SIM_STATE_UNUSABLE, SIM_STATE_PRESENT,  SIM_STATE_PRESENT,
};

constexpr vocab_entry sim_stat[] = {
    {nullptr, nullptr},
    {"Removed", nullptr},
    {"Inserted", nullptr},
    {"Unknown", nullptr},
};
constexpr vocab_def sim_stat_v = make_vocab(sim_stat, "Unknown");

constexpr vocab_entry fac_lock_state[] = {
    {nullptr, nullptr},
    {"Unlocked", "unlock"},
    {"Locked", "lock"},
};
constexpr vocab_def fac_lock_state_v = make_vocab(fac_lock_state, "Unknown");

// TS 27.007 +CLCK / +CPWD facilities.
constexpr vocab_entry facility[] = {
    {nullptr, nullptr},
    {"SC", "SC"}, // SIM PIN1
    {"P2", "P2"}, // SIM PIN2
    {"PS", "PS"}, // phone locked to SIM
    {"PF", "PF"}, // phone locked to the first SIM
    {"PN", "PN"}, // network personalisation
    {"PU", "PU"}, // network subset personalisation
    {"PP", "PP"}, // service provider personalisation
    {"PC", "PC"}, // corporate personalisation
    {"FD", "FD"}, // fixed dialling
    {"AO", "AO"}, // barr all outgoing calls
    {"OI", "OI"}, // barr outgoing international calls
    {"OX", "OX"}, // barr outgoing international calls except to home country
    {"AI", "AI"}, // barr all incoming calls
    {"IR", "IR"}, // barr incoming calls when roaming
    {"AB", "AB"}, // all barring services
    {"AG", "AG"}, // all outgoing barring services
    {"AC", "AC"}, // all incoming barring services
    {"CS", "CS"}, // keypad lock
};
constexpr vocab_def facility_v = make_vocab(facility, "Unknown");

constexpr vocab_entry polarity[] = {
    {nullptr, nullptr},
    {"Low", "low"},
    {"High", "high"},
};
constexpr vocab_def polarity_v = make_vocab(polarity, "Unknown");

} // namespace
// clang-format on

const char *pin_state_str(uint32_t s)
{
    return vocab_str(pin_state_v, s);
}

uint32_t sim_state_enum(uint32_t pin_state)
{
    return pin_state < std::size(sim_by_pin) ? sim_by_pin[pin_state] : uint32_t{SIM_STATE_UNKNOWN};
}

const char *sim_stat_str(uint32_t s)
{
    return vocab_str(sim_stat_v, s);
}

uint32_t fac_lock_state_id(std::string_view k)
{
    return vocab_arg_enum(fac_lock_state_v, k);
}
const char *fac_lock_state_str(uint32_t s)
{
    return vocab_str(fac_lock_state_v, s);
}

uint32_t facility_id(std::string_view k)
{
    return vocab_arg_enum(facility_v, k);
}
const char *facility_str(uint32_t f)
{
    return vocab_str(facility_v, f);
}

uint32_t polarity_id_enum(std::string_view t)
{
    return vocab_enum(polarity_v, t);
}
const char *polarity_id_str(uint32_t p)
{
    return vocab_str(polarity_v, p);
}
