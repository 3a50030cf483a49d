// GSM 7-bit national language tables of 3GPP TS 23.038 (Annex A), as UCS-2
// code points indexed by language identifier and septet value.
#pragma once

#include <cstdint>

// Language identifiers: 0 default, 1 Turkish, 2 Spanish, 3 Portuguese,
// 4 Bengali, 5 Gujarati, 6 Hindi, 7 Kannada, 8 Malayalam, 9 Oriya,
// 10 Punjabi, 11 Tamil, 12 Telugu, 13 Urdu.
constexpr unsigned GSM7_LANG_COUNT = 14;

// Locking-shift tables. Position 0x1B holds 0x1B (escape to the single-shift
// table). Reserved positions hold a blank.
extern const uint16_t LUT_GSM7_LS16[GSM7_LANG_COUNT][128];

// Single-shift tables. A position the language leaves undefined holds the
// default alphabet's character, as TS 23.038 asks a receiver to display;
// 0x1B (reserved for a further extension) holds a blank.
extern const uint16_t LUT_GSM7_SS16[GSM7_LANG_COUNT][128];
