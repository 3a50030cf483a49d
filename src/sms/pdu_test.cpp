#include "sms/pdu.h"

#include "util/converter.h"
#include "util/gsm7_tables.h"
#include "util/root_test_support.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

pdu_raw rec_of(std::string_view hex, uint16_t index = 0)
{
    pdu_raw r;
    r.index = index;
    r.length = static_cast<uint16_t>(hex.size());
    hex.copy(r.text, std::min(hex.size(), pdu_text_size - 1));
    return r;
}

std::string hex2(unsigned v)
{
    return {"0123456789ABCDEF"[(v >> 4) & 0xF], "0123456789ABCDEF"[v & 0xF]};
}

// Septets packed LSB first after fill bits, as hex.
std::string pack7(const std::vector<uint8_t> &septets, unsigned fill)
{
    std::string out;
    unsigned acc = 0, bits = fill;
    for (uint8_t s : septets)
        for (acc |= unsigned{s} << bits, bits += 7; bits >= 8; bits -= 8, acc >>= 8)
            out += hex2(acc);
    return bits ? out + hex2(acc) : out;
}

std::string utf8_of(uint16_t ucs)
{
    const uint8_t be[2] = {static_cast<uint8_t>(ucs >> 8), static_cast<uint8_t>(ucs)};
    char out[8];
    return {out, utf16be_to_utf8(be, 1, out, sizeof out)};
}

constexpr const char *scts_0 = "42201121000000";    // 2024-02-11 12:00:00, zone 0
constexpr const char *oa_intl = "0B919471615243F8"; // +49171625348

// An SMS-DELIVER without service-centre address.
std::string deliver(std::string_view dcs, unsigned udl, std::string_view ud, bool udhi = false,
                    std::string_view oa = oa_intl, std::string_view scts = scts_0)
{
    return std::string("00") + (udhi ? "44" : "04") + std::string(oa) + "00" + std::string(dcs) + std::string(scts) +
           hex2(udl) + std::string(ud);
}

// Part seq of total of an ASCII message with an 8-bit (or 16-bit) reference,
// received at the given minute past noon.
pdu_raw part(unsigned ref, unsigned total, unsigned seq, unsigned minute, std::string_view text, uint16_t index,
             bool wide = false, std::string_view oa = oa_intl)
{
    std::vector<uint8_t> septets(text.begin(), text.end());
    const std::string udh =
        wide ? "06080412" + hex2(ref) + hex2(total) + hex2(seq) : "050003" + hex2(ref) + hex2(total) + hex2(seq);
    const std::string scts = "42201121" + hex2((minute % 10) << 4 | minute / 10) + "0000";
    return rec_of(deliver("00", septets.size() + (wide ? 8 : 7), udh + pack7(septets, wide ? 0 : 1), true, oa, scts),
                  index);
}

// The SMS-DELIVER a recipient lists for an SMS-SUBMIT of pdu_encode: message
// reference and validity period dropped, a time stamp added.
std::string to_deliver(const std::string &submit)
{
    const size_t da_end = 10 + 2 * ((std::stoul(submit.substr(6, 2), nullptr, 16) + 1) / 2);
    return deliver(submit.substr(da_end + 2, 2), std::stoul(submit.substr(da_end + 6, 2), nullptr, 16),
                   submit.substr(da_end + 8), submit.substr(2, 2) == "51", submit.substr(6, da_end - 6));
}

// The longest PDU the network sends (a full SMSC field, a 20-digit sender,
// 160 septets) and the longest text (Bengali through the locking-shift
// header: 155 letters of 3 UTF-8 bytes) are decoded whole.
TEST(PduDecodeDeliver, LongestPduAndText)
{
    const std::string sca = "0B91" + std::string(20, '9');
    const std::string oa = "1491" + std::string(20, '1');
    pdu_raw longest = rec_of(sca + deliver("00", 160, std::string(280, '0'), false, oa).substr(2));
    ASSERT_EQ(longest.length, 350);
    ASSERT_EQ(pdu_decode_sms_deliver(longest), PDU_OK);
    EXPECT_EQ(std::string(longest.text), std::string(160, '@'));
    EXPECT_EQ(std::string(longest.sender), "+" + std::string(20, '1'));

    const std::vector<uint8_t> letters(155, 0x02);
    pdu_raw bengali = rec_of(deliver("00", 160, "03250104" + pack7(letters, 3), true));
    ASSERT_EQ(pdu_decode_sms_deliver(bengali), PDU_OK);
    std::string expected;
    for (int i = 0; i < 155; i++)
        expected += utf8_of(LUT_GSM7_LS16[4][0x02]);
    EXPECT_EQ(expected.size(), 465u);
    EXPECT_EQ(std::string(bengali.text), expected);
}

TEST(PduDecodeDeliver, Examples)
{
    struct row {
        const char *hex, *sender, *text;
        int64_t time;
        const char *concat = "0 1/1"; // reference, sequence/total, last element of the header
    };
    constexpr int64_t noon = 1707652800;
    // clang-format off
    const row rows[] = {
        // Tutorial "SMS and the PDU format" (Lars Pettersson); year 99 reads 2099, zone +2 h.
        {"07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37", "27838890001", "hellohello",
         4078473419},
        // Developer's Home SMS tutorial, received PDU; international sender; zone byte 08 reads -0.
        {"07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07", "+31641600986",
         "How are you?", 1030390661},
        // The rest built by hand: alphanumeric senders of 4 and 7 characters (no fill '@').
        {"000407D049B7F90D00004220112100000002E834", "Info", "hi", noon},
        {"00040DD049B7F93D6D4E0100004220112100000002E834", "InfoSMS", "hi", noon},
        // "*#12ABC" semi-octets, zone -6 h (bit 3 of the zone), DCS group 15 with 7-bit text.
        {"00040781BA21DCFE00F24220112100004A02E834", "*#12ABC", "hi", noon + 6 * 3600},
        // UCS-2 "Жж" and U+1F600 as a surrogate pair; a lone low surrogate passes as its 3 bytes.
        {"0004038121F30008422011210000000804160436D83DDE00", "123", "Жж\xF0\x9F\x98\x80", noon},
        {"00040481214300084220112100000002DC00", "1234", "\xED\xB0\x80", noon},
        // 8-bit data (DCS group 4) is not shown; UDL 0 is an empty text.
        {"0004038121F300444220112100000002C0DE", "123", " <encoding_not_supported> ", noon},
        {"0004038121F300004220112100000000", "123", "", noon},
        // Headers: a 16-bit reference keeps its low byte; sequence 0 or above the total is no
        // concatenation; other elements are skipped, before or after the concatenation.
        {"0044038121F300084220112100000009060804123403020041", "123", "A", noon, "52 2/3 8"},
        {"0044038121F3000842201121000000080500033403000041", "123", "A", noon, "0 1/1 0"},
        {"0044038121F3000842201121000000080500033403040041", "123", "A", noon, "0 1/1 0"},
        {"0044038121F30008422011210000000D0A0A0300000000033403020041", "123", "A", noon, "52 2/3 0"},
        {"0044038121F30008422011210000000A07000334030270000041", "123", "A", noon, "52 2/3 112"},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.hex);
        pdu_raw rec = rec_of(r.hex);
        ASSERT_EQ(pdu_decode_sms_deliver(rec), PDU_OK);
        EXPECT_STREQ(rec.sender, r.sender);
        EXPECT_EQ(std::string(rec.text, rec.length - 1u), r.text);
        EXPECT_EQ(rec.time, r.time);
        EXPECT_EQ(rec.decoded, 1);
        std::string concat = std::to_string(rec.ref) + " " + std::to_string(rec.seq) + "/" + std::to_string(rec.total);
        if (rec.udhl)
            concat += " " + std::to_string(rec.iei);
        EXPECT_EQ(concat, r.concat);
    }
}

TEST(PduDecodeDeliver, BadInputIsRefused)
{
    const std::string tp = std::string("0004") + oa_intl;                     // up to the protocol identifier
    const std::string gsm = tp + "0000" + scts_0, ucs = tp + "0008" + scts_0; // up to the UDL
    const std::string hdr = std::string("0044") + oa_intl + "0008" + scts_0;  // UCS-2 with a header
    struct row {
        std::string hex;
        int rc;
        size_t length = 0; // the length field when it is not the hex's
    };
    const row rows[] = {
        {"", PDU_ERR_HEX_LENGTH},
        {"000", PDU_ERR_HEX_LENGTH},
        {"00", PDU_ERR_HEX_LENGTH, 1026},
        {"00", PDU_ERR_HEX_SHORT, 482}, // more than the text area holds
        {"0G", PDU_ERR_HEX_DIGIT},
        {"0004", PDU_ERR_HEX_DIGIT, 6}, // the NUL after the text
        {"07", PDU_ERR_SCA_SHORT},
        {"00", PDU_ERR_FO_SHORT},
        {"0001", PDU_ERR_MTI}, // SMS-SUBMIT
        {"0006", PDU_ERR_MTI}, // SMS-STATUS-REPORT
        {"0004", PDU_ERR_OA_SHORT},
        {"00041791", PDU_ERR_OA_LENGTH},
        {"00040B91947161", PDU_ERR_OA_SHORT},
        {tp + "00", PDU_ERR_DCS_SHORT},
        {tp + "0020", PDU_ERR_DCS_GROUP}, // compressed
        {tp + "00C0", PDU_ERR_DCS_GROUP}, // message waiting, discard
        {tp + "000C", PDU_ERR_DCS_ALPHABET},
        {tp + "0000422011210000", PDU_ERR_SCTS_SHORT}, // one octet short
        {gsm, PDU_ERR_UDL_SHORT},
        {gsm + "05E8329B", PDU_ERR_UD_SHORT},
        {ucs + "03D83D", PDU_ERR_UD_SHORT},
        {hdr + "020500", PDU_ERR_UDH_LENGTH},
        {hdr + "050400040101", PDU_ERR_UDH_IE},
        {hdr + "0704000201010041", PDU_ERR_UDH_CONCAT8},
        {hdr + "080508031234020041", PDU_ERR_UDH_CONCAT16},
        {hdr + "0704250201010041", PDU_ERR_UDH_SHIFT},
        {hdr + "06050003010201", PDU_ERR_UD_EMPTY},
        {std::string("0044") + oa_intl + "0000" + scts_0 + "06050003010201", PDU_ERR_UD_EMPTY}, // 7-bit
        {ucs + "02D83D", PDU_ERR_UCS2},     // lone high surrogate at the end
        {ucs + "04D83D0041", PDU_ERR_UCS2}, // followed by no low surrogate
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.hex);
        pdu_raw rec = rec_of(r.hex);
        rec.length = static_cast<uint16_t>(r.length ? r.length : r.hex.size());
        EXPECT_EQ(pdu_decode_sms_deliver(rec), r.rc);
        EXPECT_EQ(rec.decoded, 0);
    }
}

// Every septet of every national locking-shift and single-shift table, sent
// after the language-shift element (header lengths 3 and 6 cover two fills).
TEST(PduDecodeDeliver, NationalLanguageTables)
{
    for (unsigned lang = 0; lang < GSM7_LANG_COUNT; lang++) {
        for (int single = 0; single < 2; single++) {
            std::vector<uint8_t> septets;
            std::string expected, got;
            for (uint8_t s = 0; s < 128; s++) {
                if (s == 0x1B)
                    continue;
                if (single)
                    septets.push_back(0x1B);
                septets.push_back(s);
                expected += utf8_of(single ? LUT_GSM7_SS16[lang][s] : LUT_GSM7_LS16[lang][s]);
            }
            const std::string udh = single ? "062401" + hex2(lang) + "250100" : "032501" + hex2(lang);
            for (size_t at = 0; at < septets.size(); at += 64) {
                const std::vector<uint8_t> chunk(septets.begin() + at,
                                                 septets.begin() + std::min(at + 64, septets.size()));
                pdu_raw rec =
                    rec_of(deliver("00", chunk.size() + (single ? 8 : 5), udh + pack7(chunk, single ? 0 : 3), true));
                ASSERT_EQ(pdu_decode_sms_deliver(rec), PDU_OK) << lang;
                got.append(rec.text, rec.length - 1u);
            }
            EXPECT_EQ(got, expected) << "language " << lang << (single ? " single" : " locking");
        }
    }
}

// A message as "text", "*" when a part was missing, "@" and the storage
// indices of its parts.
std::string describe(const sms_message &m)
{
    std::string s = m.text + (m.missing ? "*@" : "@");
    for (uint16_t i : m.pdus)
        s += std::to_string(i) + ",";
    s.pop_back();
    return s;
}

TEST(PduDecode, Messages)
{
    struct row {
        const char *name;
        std::vector<pdu_raw> raw;
        int index;
        bool single;
        int strip;
        std::vector<std::string> want; // newest first; none when -1 is expected
        int duplicates = 0;
    };
    // Two messages from one sender that share reference 7: x at noon, y half an hour later.
    const std::vector<pdu_raw> xy = {part(7, 2, 1, 0, "x1", 1), part(7, 2, 2, 1, "x2", 2), part(7, 2, 1, 30, "y1", 3),
                                     part(7, 2, 2, 31, "y2", 4)};
    std::vector<pdu_raw> six; // six such messages, nine minutes apart
    for (unsigned m = 0; m < 6; m++)
        for (unsigned s = 1; s <= 2; s++)
            six.push_back(part(9, 2, s, 9 * m + s, std::to_string(m) + std::to_string(s), 2 * m + s));
    // clang-format off
    const row rows[] = {
        {"8-bit and 16-bit references meet", {part(0x34, 2, 2, 1, "world", 5, true), part(0x34, 2, 1, 0, "Hello ", 4)},
         -1, false, 0, {"Hello world@4,5"}},
        {"absent middle part", {part(1, 3, 1, 0, "A", 1), part(1, 3, 3, 0, "C", 3)}, -1, false, 0,
         {"A <part_missing> C*@1,3"}},
        {"absent parts stripped", {part(1, 3, 2, 0, "B", 2)}, -1, false, 1, {"B*@2"}},
        {"repeated part counted once, the newest", {part(1, 2, 1, 0, "a", 1), part(1, 2, 1, 3, "a", 2),
         part(1, 2, 2, 0, "b", 3)}, -1, false, 0, {"ab@2,3"}, 1},
        {"ambiguous parts told apart by time", xy, -1, false, 0, {"y1y2@3,4", "x1x2@1,2"}},
        {"one message of ambiguous parts", xy, 2, false, 0, {"x1x2@1,2"}},
        {"one part by itself", xy, 2, true, 0, {"x2@2"}},
        {"no such index", xy, 9, false, 0, {}},
        {"the part asked for repeats another: not told apart", {xy[0], xy[1], xy[2], xy[3], part(7, 2, 1, 0, "x1", 5)},
         5, false, 0, {"y1y2@3,4"}, 1},
        {"four separations, then building stops", six, -1, false, 0, {"5152@11,12", "4142@9,10", "3132@7,8", "2122@5,6"}},
        {"broken records dropped, newest first", {rec_of("0001", 1), part(0, 1, 1, 5, "old", 2, false,
         "0B919471615243F9"), part(0, 1, 1, 9, "new", 3)}, -1, false, 0, {"new@3", "old@2"}},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<pdu_raw> raw = r.raw;
        std::vector<sms_message> out;
        EXPECT_EQ(pdu_decode(out, raw, r.index, r.single, r.strip), r.want.empty() ? -1 : int(r.want.size()));
        std::vector<std::string> got;
        for (const auto &m : out)
            got.push_back(describe(m));
        EXPECT_EQ(got, r.want);
        EXPECT_EQ(std::count_if(raw.begin(), raw.end(), [](const pdu_raw &p) { return p.duplicate; }), r.duplicates);
    }
}

// Each accepted text is also delivered and decoded again: every character of
// the default alphabet and its extension table, in one part and across parts.
TEST(PduEncode, PartsAndRoundTrip)
{
    std::string gsm;
    for (uint8_t s = 0; s < 128; s++)
        if (s != 0x1B)
            gsm += utf8_of(LUT_GSM7_LS16[0][s]);
    for (uint8_t code : {0x0A, 0x14, 0x28, 0x29, 0x2F, 0x3C, 0x3D, 0x3E, 0x40, 0x65})
        gsm += utf8_of(LUT_GSM7_SS16[0][code]);
    std::string zh70;
    for (int i = 0; i < 70; i++)
        zh70 += "ж";
    const std::string a160(160, 'a'), a152(152, 'a');
    struct row {
        const char *name;
        std::string number, text;
        const char *dcs; // none: refused
        std::vector<unsigned> udl;
        const char *hex = nullptr;
    };
    // clang-format off
    const row rows[] = {
        // Address +12345: type 0x91, length 5, bytes 21 43 F5.
        {"short text", "+12345", "hi", "00", {2}, "0011000591" "2143F5" "0000FF02E834"},
        {"national number", "12345", "hi", "00", {2}, "0011000581" "2143F5" "0000FF02E834"},
        {"160 septets in one part", "+12345", a160, "00", {160}},
        {"161 septets in two", "+12345", a160 + "a", "00", {160, 15}},
        {"escape pair moves whole", "+12345", a152 + "€" + std::string(10, 'a'), "00", {159, 19}},
        {"extension characters", "+12345", "{}", "00", {4}},
        {"70 UCS-2 characters in one part", "+12345", zh70, "08", {140}},
        {"71 in two", "+12345", zh70 + "ж", "08", {140, 14}},
        {"surrogate pair moves whole", "+12345", zh70.substr(0, 132) + "😀" + zh70.substr(0, 20), "08", {138, 30}},
        {"escape character is no GSM character", "+12345", "a\x1B", "08", {4}},
        {"letter in the number", "+1234a", "hi", nullptr, {}},
        {"no digits", "+", "hi", nullptr, {}},
        {"every GSM character", "+12345", gsm, "00", {147}},
        {"every GSM character, three times", "+12345", gsm + gsm + gsm, "00", {160, 160, 142}},
        {"UCS-2 across parts", "+12345", "Grüße 😀 Жж " + gsm + "😀😀", "08", {140, 140, 44}},
        {"257 parts", "+12345", std::string(153 * 256 + 1, 'a'), nullptr, {}},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<pdu_submit> out(1);
        ASSERT_EQ(pdu_encode(r.number, r.text, out), r.dcs ? 0 : -1);
        ASSERT_EQ(out.size(), r.udl.size());
        for (size_t i = 0; i < out.size(); i++) {
            EXPECT_EQ(out[i].udl, r.udl[i]);
            EXPECT_EQ(out[i].hex.substr(18, 2), r.dcs);
            EXPECT_EQ(out[i].tpdu_len * 2 + 2, out[i].hex.size());
            EXPECT_EQ(out[i].hex.substr(2, 2), out.size() > 1 ? "51" : "11");
        }
        EXPECT_TRUE(!r.hex || out[0].hex == r.hex) << out[0].hex;
        if (!r.dcs)
            continue;
        std::vector<pdu_raw> raw;
        for (const auto &s : out)
            raw.push_back(rec_of(to_deliver(s.hex), static_cast<uint16_t>(raw.size())));
        std::vector<sms_message> back;
        ASSERT_EQ(pdu_decode(back, raw, -1, false, 0), 1);
        EXPECT_EQ(back[0].text, r.text);
        EXPECT_EQ(back[0].sender, r.number);
    }
}

TEST(PduEncode, LongTextTailGoesToFile)
{
    temp_root root;
    std::string text;
    for (int i = 0; i < 153 * 11; i++)
        text += static_cast<char>('a' + i % 26);
    root.write("/tmp/.keep", "");
    std::vector<pdu_submit> out;
    EXPECT_EQ(pdu_encode("+4912345", text, out), 0);
    EXPECT_EQ(out.size(), 11u);
    EXPECT_EQ(root.read("/tmp/sms_+4912345"), text.substr(10 * 153));
}

} // namespace
