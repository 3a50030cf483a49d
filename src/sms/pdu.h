// SMS PDU codec (3GPP TS 23.040, alphabets of TS 23.038): the SMS-DELIVER
// PDUs a modem lists in PDU mode become whole messages, concatenated parts
// joined; a destination number and a UTF-8 text become the SMS-SUBMIT PDUs
// that AT+CMGS sends. Pure computation over memory, except the file the
// encoder writes for very long texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t pdu_hex_max = 1024;   // longest hexadecimal PDU accepted
constexpr size_t pdu_text_size = 341;  // text area: the PDU's hex on input, its UTF-8 text after decoding
constexpr size_t pdu_sender_size = 25; // sender: at most 24 bytes and the NUL

// One PDU as the modem listed it. The decoder rewrites it in place.
struct pdu_raw {
    uint16_t hash = 0;     // djb2 hash of the hexadecimal text (16 bits), set by the list reader
    uint8_t decoded = 0;   // decoded already; not decoded again
    uint8_t duplicate = 0; // repeats an earlier part with the same text: skipped (and deleted by the reader)
    uint8_t ambiguous = 0; // shares sender, reference, total and sequence with a part of another text
    int8_t cluster = 0;    // separation label; -1 marks the parts of the message being built
    uint16_t index = 0;    // storage index in the modem's message store
    uint16_t status = 0;   // status as listed by the modem
    uint8_t udhl = 0;      // user data header length
    uint8_t iei = 0;       // last information element identifier of the header
    uint8_t iei_len = 0;   // and its length
    uint8_t ref = 0;       // concatenation reference; 0 and part 1 of 1 without concatenation
    uint8_t seq = 1;
    uint8_t total = 1;
    uint16_t length = 0; // input: hex characters in text; decoded: text bytes + 1
    char sender[pdu_sender_size] = {};
    int64_t time = 0; // service-centre time stamp, seconds since the epoch (UTC)
    char text[pdu_text_size] = {};
};

// One whole message built from its parts.
struct sms_message {
    uint16_t index = 0;  // storage index of the first part
    uint16_t status = 0;
    uint8_t ref = 0;
    uint8_t total = 1;
    uint8_t udhl = 0; // header fields of the first part
    uint8_t iei = 0;
    uint8_t iei_len = 0;
    std::vector<uint8_t> parts; // sequence numbers present
    std::vector<uint16_t> pdus; // storage indices of every part used (for deleting them)
    int64_t time = 0;           // receive time of the first part
    std::string text;           // joined UTF-8 text
    bool missing = false;       // a part was absent and replaced by the placeholder
    char sender[pdu_sender_size] = {};
};

// Decodes one SMS-DELIVER in place. 0, or a distinct negative code per rule
// broken (the pdu_error codes).
int pdu_decode_sms_deliver(pdu_raw &rec);

// Builds messages from the raw records. Every record is decoded first; one
// that fails is logged and removed from raw. index < 0: every message, newest
// first, into out (replaced), returning their number. index >= 0: only the
// message holding the part stored at index, as one message; with single that
// part alone, nothing joined. strip chooses the placeholder of absent parts
// (0 " <part_missing> ", 1 nothing). -1 on failure, with out left empty.
int pdu_decode(std::vector<sms_message> &out, std::vector<pdu_raw> &raw, int index, bool single, int strip);

// One SMS-SUBMIT ready for AT+CMGS.
struct pdu_submit {
    std::string hex;        // the whole PDU in upper-case hex, starting with "00" (no SMSC)
    uint32_t chars = 0;     // characters this part carries
    uint32_t capacity = 0;  // characters a part of this message can carry (160/153 or 70/67)
    uint8_t udl = 0;        // TP-User-Data-Length
    uint32_t tpdu_len = 0;  // octets after the SMSC field: the number given to AT+CMGS
};

// Encodes text for number ("+" then digits, or digits) as SMS-SUBMIT PDUs in
// out (replaced). 0, or -1 with out empty (a non-digit in the number, more
// than 256 parts, no memory).
int pdu_encode(std::string_view number, std::string_view text, std::vector<pdu_submit> &out);
