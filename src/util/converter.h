// Allocation-free conversions between UTF-8, UTF-16 and packed GSM 7-bit
// text, over caller-owned buffers whose sizes are always given. Nothing is
// read or written outside the lengths passed in.
#pragma once

#include <cstddef>
#include <cstdint>

// Length in bytes of the UTF-8 character at s (which must be NUL-terminated
// or followed by enough bytes): 0 for a null pointer or NUL, 1 for ASCII,
// 2..4 for a lead byte followed by its continuation bytes, -1 otherwise.
// Overlong forms are not detected.
int utf8_char_len(const char *s);

// Decodes src_len bytes of UTF-8 into UTF-16 units in host byte order.
// Invalid sequences, overlong forms, surrogates and values above U+10FFFF
// become U+FFFD. With dst null only counts the units the text needs. With
// dst writes at most dst_units units; a surrogate pair that does not fit is
// skipped whole. Returns the units counted or written.
size_t utf8_to_utf16(const char *src, size_t src_len, uint16_t *dst, size_t dst_units);

// Encodes src_units big-endian UTF-16 units (2 * src_units bytes) as
// NUL-terminated UTF-8 into dst of dst_size bytes, truncating when room runs
// out. Returns the bytes written without the NUL; 0 when a high surrogate is
// not followed by a low one.
size_t utf16be_to_utf8(const uint8_t *src, size_t src_units, char *dst, size_t dst_size);

// Unpacks nibbles 4-bit units of packed GSM 7-bit septets (after skipping
// fill_bits bits) into big-endian UCS-2 units in dst (2 * dst_units bytes),
// through the locking-shift table of locking_lang and, after an escape, the
// single-shift table of single_lang (languages of 14 and above mean 0).
// Returns the units written, or -1 when dst fills up before the input ends.
int gsm_7bit_to_ucs2(const uint8_t *src, size_t nibbles, uint8_t *dst, size_t dst_units, unsigned fill_bits,
                     unsigned locking_lang, unsigned single_lang);

// Character of a semi-octet address digit: '0'..'9', then '*', '#', 'A',
// 'B', 'C' for 10..14; '\0' for the filler 0xF and anything larger.
char code_to_digit(uint8_t code);

// Converts src_len bytes of UTF-8 into unpacked GSM 7-bit septets, one per
// byte: a character of the default alphabet as its code, one of the default
// extension table as the escape 0x1B followed by its code, anything else
// (invalid sequences included) as '?'. With dst null only counts the septets
// the text needs; with dst writes at most dst_size of them, never half an
// escape pair. Returns the septets counted or written; *unmapped (when not
// null) receives the number of characters that had no code.
size_t utf8_to_unpacked_gsm7(const char *src, size_t src_len, uint8_t *dst, size_t dst_size, size_t *unmapped);
