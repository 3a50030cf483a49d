// Parser throughput on a busy session: long operator scans and SMS listings
// with URCs arriving in between, read from the tty in 64 to 512 byte chunks,
// each chunk handled as the comm manager does (pre_sanitize, hist_add,
// sanitize, set_req_token, work; URCs taken and flushed; a finished response
// read and flushed).
//
//   parser_bench [seconds [messages in each SMS listing]]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "comm/parser_manager.h"

namespace {

struct exchange {
    std::string command; // empty: unsolicited bytes while nothing is in flight
    std::string bytes;
};

std::string cmgl_listing(int messages)
{
    static const char *const pdus[] = {
        "07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07",
        "07919451020000040D91947116325476F8000052113112050080124279DA7D06B5D3EC3588FE76A7CF683A",
        "07919451020000040D91945109214365F700005211311215008021C337B90C8AC966B49A0D54C6C3D3F2F21C9476836230503BEDAED3CB73",
    };
    static const int lengths[] = {30, 36, 49};
    std::string s;
    for (int i = 0; i < messages; i++)
        s += "\r\n+CMGL: " + std::to_string(i) + ",1,," + std::to_string(lengths[i % 3]) + "\r\n" + pdus[i % 3];
    return s + "\r\n\r\nOK\r\n";
}

std::string cops_scan(int operators)
{
    static const char *const ops[] = {"(2,\"Vodafone.de\",\"Vodafone\",\"26202\",7)", "(1,\"Telekom.de\",\"TDG\",\"26201\",7)",
                                      "(1,\"o2 - de\",\"o2 - de\",\"26203\",7)", "(3,\"1&1\",\"1&1\",\"26223\",7)"};
    std::string s = "\r\n+COPS: ";
    for (int i = 0; i < operators; i++)
        s += std::string(ops[i % 4]) + ",";
    return s + ",(0,1,2,3,4),(0,1,2)\r\n\r\nOK\r\n";
}

std::vector<exchange> session(int listing)
{
    std::vector<exchange> ex;
    for (int round = 0; round < 20; round++) {
        ex.push_back({"AT+CSQ\r", "\r\n+CSQ: " + std::to_string(10 + round) + ",99\r\n\r\nOK\r\n"});
        ex.push_back({"", "\r\n+QIND: \"csq\"," + std::to_string(10 + round) + ",99\r\n"});
        ex.push_back({"AT+COPS=?\r", "\r\n+CREG: 2\r\n\r\n+QIND: \"csq\",18,99\r\n" + cops_scan(24)});
        ex.push_back({"", "\r\n+CREG: 1\r\n\r\n+CEREG: 1,\"0FA1\",\"0C1B2D03\",7\r\n"});
        ex.push_back({"AT+CMGL=4\r", "\r\n+CMTI: \"SM\",7\r\n" + cmgl_listing(listing)});
        ex.push_back({"AT+QENG=\"servingcell\"\r",
                      "\r\n+QENG: \"servingcell\",\"NOCONN\"\r\n+QENG: \"LTE\",\"FDD\",222,01,1A2D003,21,1650,3,5,5,DB4,"
                      "-98,-11,-66,13,9,230,-\r\n\r\nOK\r\n"});
        ex.push_back({"", "\r\nRING\r\n\r\n+CLIP: \"+4917612345678\",145,,,,0\r\n"});
        ex.push_back({"AT+CPIN?\r", "\r\n+CME ERROR: 10\r\n"});
    }
    return ex;
}

struct chunk {
    const exchange *ex;
    size_t off, len;
};

} // namespace

int main(int argc, char **argv)
{
    double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    int listing = argc > 2 ? std::atoi(argv[2]) : 60;
    auto ex = session(listing);

    std::mt19937 rng(42);
    std::uniform_int_distribution<size_t> size(64, 512);
    std::vector<chunk> chunks;
    size_t session_bytes = 0, commands = 0;
    for (const auto &e : ex) {
        for (size_t off = 0; off < e.bytes.size();) {
            size_t n = std::min(size(rng), e.bytes.size() - off);
            chunks.push_back({&e, off, n});
            off += n;
        }
        session_bytes += e.bytes.size();
        commands += !e.command.empty();
    }

    auto p = parser::create();
    if (!p)
        return 1;
    size_t fed = 0, responses = 0, urcs = 0, checksum = 0, passes = 0;
    auto start = std::chrono::steady_clock::now();
    std::chrono::duration<double> elapsed{};
    do {
        for (const chunk &c : chunks) {
            const char *cmd = c.ex->command.empty() ? nullptr : c.ex->command.c_str();
            p->pre_sanitize();
            p->hist_add(c.ex->bytes.data() + c.off, static_cast<uint32_t>(c.len));
            p->sanitize();
            p->set_req_token(cmd);
            uint32_t st = p->work();
            if (st & PARSER_STATUS_URC) {
                for (; !p->urc_done(); p->urc_next()) {
                    checksum += static_cast<unsigned char>(p->urc_get()[0]) + p->urc_len();
                    urcs++;
                }
                p->urc_flush();
            }
            if (cmd && (st & PARSER_STATUS_COMPLETE)) {
                checksum += p->get_len() + static_cast<unsigned char>(p->get_data()[p->get_len() - 1]);
                responses++;
                p->flush();
            }
            fed += c.len;
        }
        passes++;
        elapsed = std::chrono::steady_clock::now() - start;
    } while (elapsed.count() < seconds);

    if (responses != commands * passes) {
        std::fprintf(stderr, "parser_bench: %zu responses for %zu commands\n", responses, commands * passes);
        return 1;
    }
    double mb = static_cast<double>(fed) / 1e6;
    std::printf("session: %zu bytes, %zu commands, %zu chunks of 64-512 bytes\n", session_bytes, commands, chunks.size());
    std::printf("passes: %zu, responses: %zu, URCs: %zu (checksum %zu)\n", passes, responses, urcs, checksum);
    std::printf("throughput: %.1f MB/s (%.1f MB in %.2f s)\n", mb / elapsed.count(), mb, elapsed.count());
    return 0;
}
