// The simulator's PDU builder and reader: byte-exact messages the network would deliver, where long texts are cut,
// and what a host's SMS-SUBMIT may hold.
#include "sms_pdu.h"

#include <gtest/gtest.h>

namespace modem_sim
{
namespace
{

// A whole PDU (SMSC field first) taken apart: "<address> <text> <ref> <seq>/<total>", or the reason it is not one.
std::string parsed(const std::string &hex, Tpdu *out = nullptr)
{
    std::string bytes, why;
    Tpdu t;
    if (!from_hex(hex, &bytes) || smsc_field_size(bytes) == 0)
        return "bad hex";
    if (!parse_tpdu(std::string_view(bytes).substr(smsc_field_size(bytes)), &t, &why))
        return why;
    if (out)
        *out = t;
    return t.address + " " + t.text + " " + std::to_string(t.ref) + " " + std::to_string(t.seq) + "/" +
           std::to_string(t.total);
}

TEST(SmsDeliverEncoding, SinglePartsByteForByteOrRefused)
{
    struct Case {
        const char *sender, *text, *time;
        const char *hex; // nullptr: refused
    } cases[] = {
        // The euro sign is escape 1B then 65, packed by hand: 9B 32. International number +12345: 05 91 21 43 F5.
        {"+12345", "\xE2\x82\xAC", "24/05/17,14:23:05+08", "000405912143F5000042507141325080029B32"},
        // Not GSM: UCS-2, U+1F600 as the surrogate pair D83D DE00.
        {"+12345", "a\xF0\x9F\x98\x80", "24/05/17,14:23:05+08", "000405912143F5000842507141325080060061D83DDE00"},
        // Alphanumeric sender (type D0, 13 semi-octets); a negative zone sets bit 3 of the zone octet.
        {"Telekom", "Hi", "24/01/02,03:04:05-08", "00040DD0D432BBBC7EB70100004210203040508802C834"},
        // A national number with an odd digit count; "@" is septet 00.
        {"0301234", "@", "24/05/17,14:23:05+08", "00040781301032F40000425071413250800100"},
        // Refused: no digits, a letter among them, a twelve-letter or non-GSM name, a time stamp without or with a
        // bad zone, or more than a time stamp.
        // clang-format off
        {"", "x", "24/05/17,14:23:05+08", nullptr},
        {"+12a", "x", "24/05/17,14:23:05+08", nullptr},
        {"+", "x", "24/05/17,14:23:05+08", nullptr},
        {"TwelveLetter", "x", "24/05/17,14:23:05+08", nullptr},
        {"\xD0\xB6", "x", "24/05/17,14:23:05+08", nullptr},
        {"+12345", "x", "24/05/17,14:23:05", nullptr},
        {"+12345", "x", "24/05/17,14:23:05*08", nullptr},
        {"+12345", "x", "24/05/17 14:23:05+08x", nullptr},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.sender) + " " + c.time);
        Scts t;
        std::vector<std::string> pdus;
        std::string why;
        bool ok = parse_scts(c.time, &t) && encode_deliver("", c.sender, c.text, t, 0, &pdus, &why);
        ASSERT_EQ(ok, c.hex != nullptr) << why;
        if (!ok)
            continue;
        ASSERT_EQ(pdus, std::vector<std::string>{c.hex});
        Tpdu back;
        EXPECT_EQ(parsed(pdus[0], &back), std::string(c.sender) + " " + c.text + " -1 1/1");
        EXPECT_EQ(format_scts(back.scts), c.time);
    }
}

TEST(SmsDeliverEncoding, LongTextsSplitWithoutBreakingPairs)
{
    std::string zhe; // Cyrillic, outside the GSM alphabet
    for (int i = 0; i < 66; i++)
        zhe += "\xD0\xB6";
    // Per part: first octet, UDL and (when parted) the header, hex; then the reference and place read back.
    // 161 GSM characters are 153 + 7, 8 + 7. The escape pair of the euro sign would straddle septet 153: the
    // first part ends one early. 70 UCS-2 characters fit; 66 then a surrogate pair would cut the pair at unit 67:
    // the first part keeps 66 (132 octets + 6).
    struct Case {
        std::string text, parts;
    } cases[] = {
        {std::string(160, 'a'), "04A0 -1 1/1;"},
        {std::string(161, 'a'), "44A00500037B0201 123 1/2;440F0500037B0202 123 2/2;"},
        {std::string(152, 'a') + "\xE2\x82\xAC" + std::string(10, 'b'),
         "449F0500037B0201 123 1/2;44130500037B0202 123 2/2;"},
        {zhe + "\xD0\xB6\xD0\xB6\xD0\xB6\xD0\xB6", "048C -1 1/1;"},
        {zhe + "\xF0\x9F\x98\x80xyz", "448A0500037B0201 123 1/2;44100500037B0202 123 2/2;"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text.size());
        std::vector<std::string> pdus;
        std::string why, parts, joined;
        ASSERT_TRUE(encode_deliver("", "+12345", c.text, Scts{}, 0x7B, &pdus, &why)) << why;
        for (const std::string &pdu : pdus) {
            Tpdu t;
            parsed(pdu, &t);
            // SMSC 00, first octet, OA, PID, DCS and time stamp are 32 hex digits.
            parts += pdu.substr(2, 2) + pdu.substr(32, pdus.size() > 1 ? 14 : 2) + " " + std::to_string(t.ref) + " " +
                     std::to_string(t.seq) + "/" + std::to_string(t.total) + ";";
            joined += t.text;
        }
        EXPECT_EQ(parts, c.parts);
        EXPECT_EQ(joined, c.text);
    }
}

TEST(SmsTpduParsing, SubmitsAndWhatIsRefused)
{
    struct Case {
        const char *hex; // SMSC field first
        const char *expect;
    } cases[] = {
        // The widely published SMS-SUBMIT example; the first of two parts, 16-bit reference 0x1234 (7 header
        // octets: no fill), "hi" packed by hand: E8 34. Then a wrong length, type, DCS, part number, header type.
        {"0011000B916407281553F80000AA0AE8329BFD4697D9EC37", "+46708251358 hellohello -1 1/1"},
        {"0051000B916407281553F80000AA0A06080412340201E834", "+46708251358 hi 4660 1/2"},
        {"0011000B916407281553F80000AA0BE8329BFD4697D9EC37", "does not match"},
        {"0012000B916407281553F80000AA0AE8329BFD4697D9EC37", "neither"},
        {"0011000B916407281553F8000CAA0AE8329BFD4697D9EC37", "not supported"},
        {"0051000B916407281553F80000AA0A06080412340200E834", "part 0 of 2"},
        {"0051000B916407281553F80000AA0A06080312340201E834", "concatenation"},
        {"0011000B9164", "address"},
    };
    for (const Case &c : cases) {
        Tpdu t;
        std::string got = parsed(c.hex, &t);
        EXPECT_NE(got.find(c.expect), std::string::npos) << c.hex << ": " << got;
        EXPECT_EQ(t.submit, got.starts_with("+")) << c.hex;
    }
}

TEST(SmsGsm7, ExtensionCharactersTakeAnEscape)
{
    std::vector<uint8_t> s;
    ASSERT_TRUE(gsm7_septets("\f^{}\\[~]|\xE2\x82\xAC@\xC2\xA3$\xC3\x9F\n", &s)); // ... euro, then @ £ $ ß LF
    EXPECT_EQ(s, (std::vector<uint8_t>{0x1B, 0x0A, 0x1B, 0x14, 0x1B, 0x28, 0x1B, 0x29, 0x1B, 0x2F, 0x1B, 0x3C, 0x1B,
                                       0x3D, 0x1B, 0x3E, 0x1B, 0x40, 0x1B, 0x65, 0x00, 0x01, 0x02, 0x1E, 0x0A}));
    EXPECT_FALSE(gsm7_septets("\x1B", &s)); // ESC is no character of the text
    EXPECT_FALSE(gsm7_septets("`", &s));
}

} // namespace
} // namespace modem_sim
