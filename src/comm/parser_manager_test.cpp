#include "comm/parser_manager.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace
{

using strings = std::vector<std::string>;

std::string esc(std::string_view s)
{
    std::string out;
    for (unsigned char c : s) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02X", c);
        out += c == '\r' ? "\\r" : c == '\n' ? "\\n" : (c < 0x20 || c >= 0x7f) ? hex : std::string(1, c);
    }
    return out;
}

// \r \n \" \\ \0 \xHH
std::string unesc(std::string_view s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
        } else if (char e = s[++i]; e == 'x' && i + 2 < s.size()) {
            out += static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += e == 'r' ? '\r' : e == 'n' ? '\n' : e == '0' ? '\0' : e;
        }
    }
    return out;
}

// What the comm manager's receive path does with every chunk read.
uint32_t feed_chunk(parser &p, std::string_view bytes, const char *cmd)
{
    p.pre_sanitize();
    p.hist_add(bytes.data(), static_cast<uint32_t>(bytes.size()));
    p.sanitize();
    p.set_req_token(cmd);
    return p.work();
}

strings take_urcs(parser &p)
{
    strings urcs;
    for (; !p.urc_done(); p.urc_next())
        urcs.emplace_back(p.urc_get(), p.urc_len());
    p.urc_flush();
    return urcs;
}

// --- Transcripts (format in testdata/README) ------------------------------------

struct block {
    char kind; // '>' command, '+' next part of it, '~' nothing in flight
    std::string text;
    strings chunks;   // as captured
    std::string want; // "urc <bytes>" lines, then the "complete|prompt <bytes>" line
};

std::vector<block> load(const std::filesystem::path &file, std::string *source)
{
    std::vector<block> t;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        std::string arg = line.size() > 2 ? unesc(line.substr(line.find(' ') + 1)) : "";
        char kind = line.rfind(">> ", 0) == 0 ? '+' : line[0];
        if (kind == '#' && source->empty())
            *source = arg;
        else if (kind == '>' || kind == '+' || kind == '~')
            t.push_back({kind, arg, {}, ""});
        else if (!t.empty() && kind == '<')
            t.back().chunks.push_back(arg);
        else if (!t.empty() && (kind == '=' || kind == 'u'))
            t.back().want += (kind == 'u' ? "urc " : "") + esc(arg) + "\n";
    }
    return t;
}

// Runs the blocks, each cut as planned, through the receive path; per block
// the URCs handed out and the response it ended with, as in want.
strings run(const std::vector<block> &t, const std::vector<strings> &plan)
{
    auto p = parser::create();
    strings out(t.size());
    std::string cmd;
    bool in_flight = false, prompt = false;
    for (size_t i = 0; i < t.size(); i++) {
        if (t[i].kind == '>' || (t[i].kind == '+' && !prompt))
            cmd = t[i].text; // after a final result the next answer belongs to the part
        in_flight |= t[i].kind == '>';
        bool more_parts = i + 1 < t.size() && t[i + 1].kind == '+';
        for (const auto &chunk : plan[i]) {
            uint32_t st = feed_chunk(*p, chunk, in_flight ? cmd.c_str() : nullptr);
            for (const auto &u : take_urcs(*p))
                out[i] += "urc " + esc(u) + "\n";
            if (!(st & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT)))
                continue;
            prompt = st & PARSER_STATUS_PROMPT;
            out[i] += std::string(in_flight ? "" : "stray ") + (prompt ? "prompt " : "complete ") +
                      esc({p->get_data(), p->get_len()}) + "\n";
            if (in_flight && !more_parts) {
                p->flush();
                in_flight = false;
            }
        }
    }
    return out;
}

// Every captured transcript: as captured, one chunk per block, one byte at a
// time (rounds -3..-1), then each block cut in three at random places.
TEST(TranscriptTest, SameResultsHoweverTheBytesAreChunked)
{
    size_t files = 0;
    for (const auto &file :
         std::filesystem::directory_iterator(std::string(WWANCTL_SOURCE_DIR) + "/src/comm/testdata")) {
        if (file.path().extension() != ".txt")
            continue;
        SCOPED_TRACE(file.path().filename());
        files++;
        std::string source;
        std::vector<block> t = load(file.path(), &source);
        ASSERT_FALSE(t.empty());
        ASSERT_FALSE(source.empty()) << "the first comment names where the traffic came from";
        strings want;
        for (const auto &b : t)
            want.push_back(b.want);
        std::mt19937 rng(20261123);
        for (int round = -3; round < 200; round++) {
            std::vector<strings> plan;
            std::string how;
            for (const auto &b : t) {
                std::string all;
                for (const auto &c : b.chunks)
                    all += c;
                size_t x = rng() % (all.size() + 1), y = rng() % (all.size() + 1);
                if (x > y)
                    std::swap(x, y);
                plan.push_back(round == -3   ? b.chunks
                               : round == -2 ? strings{all}
                                             : strings{all.substr(0, x), all.substr(x, y - x), all.substr(y)});
                if (round == -1)
                    plan.back().assign(all.size(), "");
                for (size_t k = 0; round == -1 && k < all.size(); k++)
                    plan.back()[k] = all.substr(k, 1);
                for (const auto &c : plan.back())
                    how += esc(c) + "|";
            }
            ASSERT_EQ(run(t, plan), want) << "round " << round << ": " << how;
        }
    }
    EXPECT_GE(files, 13u);
}

// --- Result codes and token -------------------------------------------------------

TEST(AtsIdFindTest, FindsTheCodeThatEndsAResponse)
{
    struct row {
        const char *what;
        std::string text;
        uint32_t id, pos, len;
        int numeric;
    };
    // clang-format off
    const row rows[] = {
        {"verbose OK after data", "\r\n+CSQ: 20,99\r\n\r\nOK\r\n", ATS_OK, 15, 6, 0},
        {"lower id wins over an earlier code", "\r\nERROR\r\n\r\nOK\r\n", ATS_OK, 9, 6, 0},
        {"error number runs to its line end", "\r\n+CME ERROR: 10\r\n", ATS_CME_ERROR, 0, 18, 0},
        {"error text runs to its line end", "x\r\n+CMS ERROR: SMSC address unknown\r\nrest", ATS_CMS_ERROR, 1, 36, 0},
        {"error without its line end is not final yet", "\r\n+CME ERROR: 1", ATS_NONE, 15, 0, 1},
        {"prompt", "\r\n> ", ATS_PROMPT, 0, 4, 0},
        {"CONNECT matches without a line end", "\r\nCONNECT 150000000\r\n", ATS_CONNECT, 0, 9, 0},
        {"time-out text starts at its line feed", "AT\r\n?Time out\r\n", ATS_TIME_OUT, 3, 12, 0},
        {"numeric anywhere skips the CRLF", "+CSQ: 20,99\r\n0\r", ATS_OK, 13, 2, 1},
        {"numeric CONNECT anywhere is a bare 1", "\r\n1", ATS_CONNECT, 2, 1, 1},
        {"numeric at the start", "0\r", ATS_OK, 0, 2, 1},
        {"numeric digit not at the start", "x0\r", ATS_NONE, 3, 0, 1},
        {"bare CME form anywhere runs to the next CRLF", "\n+CME ERROR: 30\r\n", ATS_CME_ERROR, 1, 16, 1},
        {"nothing", "\r\n+CREG: 1\r\n", ATS_NONE, 12, 0, 1},
        {"empty text", "", ATS_NONE, 0, 0, 1},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        uint32_t pos = 99, len = 99;
        int numeric = 99;
        EXPECT_EQ(parser::ats_id_find(r.text, &pos, &len, &numeric), r.id);
        EXPECT_EQ(pos, r.pos);
        EXPECT_EQ(len, r.len);
        EXPECT_EQ(numeric, r.numeric);
    }
    int numeric = 99;
    EXPECT_EQ(parser::ats_id_find(std::string_view(), nullptr, nullptr, &numeric), ATS_NONE);
    EXPECT_EQ(numeric, 0) << "no text at all";
}

TEST(TokenTest, TakenFromTheCommandName)
{
    // clang-format off
    const std::pair<const char *, const char *> rows[] = {
        {"AT+CSQ\r", "CSQ"},
        {"AT+COPS=?\r", "COPS"},
        {"at+cgdcont?\r", "CGDCONT"},
        {"AT^SYSINFO\r", "SYSINFO"},
        {"ATI\r", ""},
        {"ATE0\r", "0"},
        {"AT\r", "AT"},
        {"AT+ABCDEFGHIJKLMNO=1\r", "ABCDEFGHIJKLMNO"},
        {"AT+ABCDEFGHIJKLMNOP=1\r", ""},
    };
    // clang-format on
    auto p = parser::create();
    for (const auto &[cmd, token] : rows) {
        SCOPED_TRACE(cmd);
        p->set_req_token("AT+OLD\r");
        p->set_req_token(cmd);
        EXPECT_STREQ(p->get_req_token(), token);
    }
    p->set_req_token("AT+CSQ\r");
    p->set_req_token(nullptr);
    EXPECT_STREQ(p->get_req_token(), "CSQ") << "no command keeps the token";
}

// --- work -----------------------------------------------------------------------

TEST(WorkTest, SplitsTheHistoryIntoResponseUrcsAndRest)
{
    struct row {
        const char *what, *cmd;
        std::string in;
        uint32_t status;
        std::string data;
        strings urcs;
        std::string left;
    };
    const uint32_t done = PARSER_STATUS_COMPLETE, urc = PARSER_STATUS_URC, waits = PARSER_STATUS_INCOMPLETE;
    // A USSD report whose text of n characters has a line break after 128.
    auto ussd = [](size_t n) {
        return "\r\n+CUSD: 0,\"" + std::string(128, 'a') + "\r\n" + std::string(n - 130, 'a') + "\",15\r\n";
    };
    // clang-format off
    const row rows[] = {
        {"whole answer", "AT+CSQ\r", "\r\n+CSQ: 20,99\r\n\r\nOK\r\n", done, "\r\n+CSQ: 20,99\r\n\r\nOK\r\n", {}, ""},
        {"URC while the answer is awaited", "AT+CSQ\r", "\r\n+CREG: 1\r\n", waits | urc, "", {"\r\n+CREG: 1\r\n"}, ""},
        {"answer still arriving", "AT+CSQ\r", "\r\n+CSQ: 20,99\r\n", waits, "", {}, "\r\n+CSQ: 20,99\r\n"},
        {"nothing awaited without a token", "ATI\r", "\r\nQuectel\r\n", 0, "", {}, "\r\nQuectel\r\n"},
        {"prompt", "AT+CMGS=23\r", "\r\n> ", PARSER_STATUS_PROMPT, "\r\n> ", {}, ""},
        {"token lines and the plain lines between them", "AT+CMGL=4\r", "\r\n+CMTI: \"SM\",1\r\n\r\n+CMGL: 0,1,,3\r\n000000\r\n+CMGL: 1,1,,3\r\n000000\r\n\r\nOK\r\n", done | urc, "\r\n+CMGL: 0,1,,3\r\n000000\r\n+CMGL: 1,1,,3\r\n000000\r\n\r\nOK\r\n", {"\r\n+CMTI: \"SM\",1\r\n"}, ""},
        {"token compared without case", "AT+CSQ\r", "\r\n+csq: 1,2\r\n\r\nOK\r\n", done, "\r\n+csq: 1,2\r\n\r\nOK\r\n", {}, ""},
        {"a URC inside the answer stays in it", "AT+CSQ\r", "\r\n+CSQ: 20,99\r\n\r\n+CREG: 1\r\n\r\nOK\r\n", done, "\r\n+CSQ: 20,99\r\n\r\n+CREG: 1\r\n\r\nOK\r\n", {}, ""},
        {"plain answer starts after the last URC", "AT+CGSN\r", "\r\n+CREG: 5\r\n\r\n867698041234567\r\n\r\nOK\r\n", done | urc, "\r\n867698041234567\r\n\r\nOK\r\n", {"\r\n+CREG: 5\r\n"}, ""},
        {"plain lines before the token line are dropped", "AT+CPIN?\r", "\r\nRDY\r\n\r\n+CPIN: READY\r\n\r\nOK\r\n", done, "\r\n+CPIN: READY\r\n\r\nOK\r\n", {}, ""},
        {"RING ends a plain answer's lead-in", "AT+CGMR\r", "\r\nRING\r\n\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n", done | urc, "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n", {"\r\nRING\r\n"}, ""},
        {"bytes after the result code stay", "AT+CSQ\r", "\r\n+CSQ: 1,2\r\n\r\nOK\r\n\r\n+CRE", done, "\r\n+CSQ: 1,2\r\n\r\nOK\r\n", {}, "\r\n+CRE"},
        {"upload report is a URC, not data", "AT+QFUPL=\"a\",3\r", "\r\n+QFUPL: 3,6162\r\n\r\nOK\r\n", done | urc, "\r\nOK\r\n", {"\r\n+QFUPL: 3,6162\r\n"}, ""},
        {"four bytes or less in front stay", "AT+CSQ\r", "\r\n\r\n\r\n+CSQ: 1,2\r\n\r\nOK\r\n", done, "\r\n+CSQ: 1,2\r\n\r\nOK\r\n", {}, "\r\n\r\n"},
        {"special URCs come before line URCs", "AT+CSQ\r", "\r\n+CREG: 1\r\n\r\n+CUSD: 1,\"Menu\r\n1 Top up\",15\r\n", waits | urc, "", {"\r\n+CUSD: 1,\"Menu\r\n1 Top up\",15\r\n", "\r\n+CREG: 1\r\n"}, ""},
        {"USSD without text is a plain URC line", "AT+CSQ\r", "\r\n+CUSD: 2\r\n", waits | urc, "", {"\r\n+CUSD: 2\r\n"}, ""},
        {"USSD text over 256 characters is not one URC", "AT+CSQ\r", "\r\n+CUSD: 0,\"" + std::string(257, 'a') + "\r\n", waits | urc, "", {"\r\n+CUSD: 0,\"" + std::string(257, 'a') + "\r\n"}, ""},
        {"USSD text of 256 characters with a line break is one URC", "AT+CSQ\r", ussd(256), waits | urc, "", {ussd(256)}, ""},
        {"USSD text of 257 characters is read line by line", "AT+CSQ\r", ussd(257), waits | urc, "", {"\r\n+CUSD: 0,\"" + std::string(128, 'a')}, ussd(257).substr(140)},
        {"USSD text that may still close waits", "AT+CSQ\r", "\r\n+CUSD: 0,\"" + std::string(254, 'a') + "\r\n", waits, "", {}, "\r\n+CUSD: 0,\"" + std::string(254, 'a') + "\r\n"},
        {"POWERED DOWN is one URC and the next keeps its line break", "AT+CSQ\r", "\r\nPOWERED DOWN\r\n\r\n+CREG: 0\r\n", waits | urc, "", {"\r\nPOWERED DOWN\r\n", "\r\n+CREG: 0\r\n"}, ""},
        {"idle URC after a query is delivered without a token", nullptr, "\r\n+CREG: 5\r\n", urc, "", {"\r\n+CREG: 5\r\n"}, ""},
    };
    // clang-format on
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        auto p = parser::create();
        EXPECT_EQ(feed_chunk(*p, r.in, r.cmd), r.status);
        EXPECT_EQ(p->done(), (r.status & done) != 0);
        EXPECT_EQ(esc({p->get_data(), p->get_len()}), esc(r.data));
        EXPECT_EQ(take_urcs(*p), r.urcs);
        EXPECT_EQ(esc({p->get_hdata(), p->get_hlen()}), esc(r.left));
    }
}

TEST(SanitizeTest, LeftoverCodesAreCutAndZeroBytesReadAsText)
{
    auto p = parser::create();
    const std::string left = "\r\nOK\r\n\r\n+CREG: 1\r\n\r\nERROR\r\n0\r";
    p->hist_add(left.data(), static_cast<uint32_t>(left.size()));
    EXPECT_EQ(p->pre_sanitize(), 0);
    EXPECT_EQ(esc({p->get_hdata(), p->get_hlen()}), esc("\r\n+CREG: 1\r\n"));
    EXPECT_EQ(p->pre_sanitize(), 1) << "nothing left to cut";

    const std::string zeros("2\0,99\r\n\n\0Time out\r\n", 19);
    p->hist_add(zeros.data(), static_cast<uint32_t>(zeros.size()));
    EXPECT_EQ(p->sanitize(), 1);
    EXPECT_EQ(std::string(p->get_hdata(), p->get_hlen()), "\r\n+CREG: 1\r\n2?,99\r\n\n?Time out\r\n");
    p->set_req_token("AT+CSQ\r");
    EXPECT_TRUE(p->work() & PARSER_STATUS_COMPLETE) << "a sanitized byte can complete a code";
    EXPECT_EQ(p->result_id(), ATS_TIME_OUT);
}

// --- Bad input ------------------------------------------------------------------

TEST(BadInputTest, HistoryOverTheLimitIsDroppedWithAPreview)
{
    // 70 KB of a listing whose final result code never comes, in tty-sized reads.
    std::string listing;
    for (int i = 0; listing.size() < 70 * 1024; i++)
        listing += "\r\n+CMGL: " + std::to_string(i) +
                   ",1,,30\r\n07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07";
    listing.resize(70 * 1024);
    auto p = parser::create();
    for (size_t off = 0; off < listing.size(); off += 8192) {
        EXPECT_EQ(p->stats().h_rst_cnt, 0u);
        EXPECT_EQ(feed_chunk(*p, listing.substr(off, 8192), "AT+CMGL=4\r"), PARSER_STATUS_INCOMPLETE);
    }
    auto s = p->stats();
    EXPECT_EQ(s.h_rst_cnt, 1u);
    EXPECT_EQ(s.h_rst_preview, listing.substr(0, 511));
    EXPECT_EQ(s.h_len, 0u) << "the read that went over the limit is dropped with the rest";

    EXPECT_EQ(feed_chunk(*p, "\r\n+CSQ: 1,2\r\n\r\nOK\r\n", "AT+CSQ\r"), PARSER_STATUS_COMPLETE);
    EXPECT_EQ(std::string(p->get_data(), p->get_len()), "\r\n+CSQ: 1,2\r\n\r\nOK\r\n");
}

TEST(BadInputTest, GarbageGoesOnceAUrcOrAnAnswerFollows)
{
    // clang-format off
    const std::string rows[] = {
        "\r\n\x7f\xfe\x01garbage\r\n",
        std::string("\r\n\0\0\0\r\n", 7),
        "\r",
        "\r\r\r\r\r\r",
        "\n\n\n\n\n",
        "+CREG: ",
    };
    // clang-format on
    for (const auto &junk : rows) {
        SCOPED_TRACE(esc(junk));
        auto p = parser::create();
        feed_chunk(*p, junk, "AT+CSQ\r");
        take_urcs(*p);
        EXPECT_TRUE(feed_chunk(*p, "\n\r\n+CREG: 1\r\n\r\n+CSQ: 1,2\r\n\r\nOK\r\n", "AT+CSQ\r") &
                    PARSER_STATUS_COMPLETE);
        EXPECT_EQ(esc({p->get_data(), p->get_len()}), esc("\r\n+CSQ: 1,2\r\n\r\nOK\r\n"));
    }
}

// Random bytes, mostly AT vocabulary, in random chunks: nothing may crash or
// leak (the sanitizer build checks), and what comes out must fit what went in.
TEST(BadInputTest, FuzzedTrafficKeepsTheParserConsistent)
{
    strings words; // AT vocabulary, a zero byte among it
    std::istringstream vocabulary("\r\n|\r|\n|OK|ERROR|+CME ERROR: |> |CONNECT|RING|+CREG: 1|+CSQ: |+CUSD: |0,\"|\",15|"
                                  "POWERED DOWN|+QFUPL|0|1|4|,|\0|?Time out|NO CARRIER"s);
    for (std::string word; std::getline(vocabulary, word, '|');)
        words.push_back(word);
    const char *const cmds[] = {"AT+CSQ\r", "AT+CUSD=1\r", "ATI\r", "AT+QFUPL=\"f\"\r", nullptr};
    std::mt19937 rng(7);
    for (int run = 0; run < 300; run++) {
        auto p = parser::create();
        for (int chunk = 0; chunk < 40; chunk++) {
            std::string bytes;
            for (int n = rng() % 13; n > 0; n--)
                bytes += rng() % 4 ? words[rng() % words.size()] : std::string(1, static_cast<char>(rng()));
            uint32_t hist_before = p->get_hlen(), content_before = p->get_len(), resets = p->stats().h_rst_cnt;
            uint32_t st = feed_chunk(*p, bytes, cmds[rng() % 5]);
            ASSERT_EQ(std::string(p->get_hdata(), p->get_hlen()).find('\0'), std::string::npos);

            bool finished = st & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT);
            ASSERT_EQ(finished, p->result_id() != ATS_NONE);
            ASSERT_EQ((st & PARSER_STATUS_PROMPT) != 0, p->result_id() == ATS_PROMPT);
            if (finished) {
                ASSERT_FALSE(st & PARSER_STATUS_INCOMPLETE);
                std::string added(p->get_data() + content_before, p->get_len() - content_before);
                ASSERT_NE(parser::ats_id_find(added), ATS_NONE) << esc(added);
            }
            std::string urcs;
            for (const auto &u : take_urcs(*p))
                urcs += u;
            ASSERT_EQ(!urcs.empty(), (st & PARSER_STATUS_URC) != 0);
            // Bytes leave the history only as content or URCs, or dropped.
            if (p->stats().h_rst_cnt == resets) {
                ASSERT_LE(p->get_len() - content_before + urcs.size(), hist_before + bytes.size() - p->get_hlen());
            }
            if (finished)
                p->flush();
        }
    }
}

} // namespace
