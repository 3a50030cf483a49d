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
    uint16_t index = 0; // storage index of the first part
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

// Why pdu_decode_sms_deliver refused a PDU; one code per rule.
enum pdu_error : int {
    PDU_OK = 0,
    PDU_ERR_HEX_LENGTH = -1,    // no hex, an odd count, or more than pdu_hex_max characters
    PDU_ERR_HEX_SHORT = -2,     // the length says more than the text area holds
    PDU_ERR_HEX_DIGIT = -3,     // a character that is no hex digit
    PDU_ERR_SCA_SHORT = -4,     // service-centre address runs past the end
    PDU_ERR_FO_SHORT = -5,      // nothing after the service-centre address
    PDU_ERR_MTI = -6,           // not an SMS-DELIVER
    PDU_ERR_OA_LENGTH = -7,     // originating address of 23 digits or more
    PDU_ERR_OA_SHORT = -8,      // originating address runs past the end
    PDU_ERR_DCS_SHORT = -9,     // protocol identifier or data coding missing
    PDU_ERR_DCS_GROUP = -10,    // coding group other than 0, 1, 4, 5, 15
    PDU_ERR_DCS_ALPHABET = -11, // reserved alphabet 3
    PDU_ERR_SCTS_SHORT = -12,   // time stamp runs past the end
    PDU_ERR_UDL_SHORT = -13,    // no user data length
    PDU_ERR_UD_SHORT = -14,     // user data shorter than its length says
    PDU_ERR_UDH_LENGTH = -15,   // header longer than the user data
    PDU_ERR_UDH_IE = -16,       // an information element runs past the header
    PDU_ERR_UDH_CONCAT8 = -17,  // 8-bit reference concatenation not 3 bytes long
    PDU_ERR_UDH_CONCAT16 = -18, // 16-bit reference concatenation not 4 bytes long
    PDU_ERR_UDH_SHIFT = -19,    // national language shift not 1 byte long
    PDU_ERR_UD_EMPTY = -20,     // nothing left after the header
    PDU_ERR_GSM7 = -21,         // septets that do not fit the text
    PDU_ERR_UCS2 = -22,         // a high surrogate without its low one
};

// Decodes one SMS-DELIVER in place. 0 (also for a record decoded already),
// or the pdu_error of the first rule broken; the record is then unusable.
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
    std::string hex;       // the whole PDU in upper-case hex, starting with "00" (no SMSC)
    uint32_t chars = 0;    // characters this part carries, counted in septets (an extension character
                           // takes two) or in UTF-16 units (a surrogate pair takes two)
    uint32_t capacity = 0; // the same a part of this message can carry (160/153 or 70/67)
    uint8_t udl = 0;       // TP-User-Data-Length
    uint32_t tpdu_len = 0; // octets after the SMSC field: the number given to AT+CMGS
};

// Encodes text for number ("+" then digits, or digits) as SMS-SUBMIT PDUs in
// out (replaced). 0, or -1 with out empty (no digit or a non-digit in the
// number, more than 256 parts, no memory). A text of more than 10 parts also
// leaves its tail, from byte 10 x the part limit (153 septets or 134 octets)
// on, in "/tmp/sms_<number>".
int pdu_encode(std::string_view number, std::string_view text, std::vector<pdu_submit> &out);
