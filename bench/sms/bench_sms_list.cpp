// bench_sms_list: CPU time the generic driver spends on a full message
// listing: the answer to AT+CMGL=4 of a module store holding 255 PDUs, as
// the daemon receives it, read into the reply's "messages" (list parsing,
// PDU decoding, joining of concatenated parts, the reply).
//
//   bench_sms_list [-r ROUNDS]
//
// The store is the simulated module's: 115 single messages (GSM 7-bit and
// UCS-2, from 20 senders) and 35 messages of 4 parts each, delivered over
// several hours so parts and messages interleave in the listing.
#include <getopt.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "wwan/ubox.h"

#include "comm/request.h"
#include "core/modem.h"
#include "drivers/generic/generic_helpers.h"
#include "drivers/generic/generic_sms.h"
#include "sms_store.h"
#include "util/cache_manager.h"
#include "util/ujson.h"

namespace
{

double cpu_ms()
{
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

// The AT+CMGL=4 answer of a full module store, as the modem sends it.
std::string full_listing()
{
    using namespace modem_sim;
    Vars vars = {{"cmgf", "0"},         {"cnmi", "2,1,0,0,0"}, {"sms_mem1", "ME"},
                 {"sms_mem2", "ME"},    {"sms_mem3", "ME"},    {"sms_me_total", "255"},
                 {"smsc", "+491710760000"}};
    SmsStore store;
    std::vector<std::string> urcs;
    std::string why;
    const std::string body = "Ihr Paket kommt morgen zwischen 10 und 14 Uhr. Bitte halten Sie den Abholschein bereit, "
                             "falls niemand zu Hause ist. Sendungsnummer 00340434161094042557. ";
    std::time_t t = 1716000000;
    for (int i = 0, long_left = 35; i < 150; i++, t += 97) {
        std::string sender = "+4917" + std::to_string(10000000 + i % 20);
        std::string text = (i % 4 == 1 && long_left-- > 0) ? body + body + body + body.substr(0, 90)
                           : i % 3 == 0                   ? "Treffen um " + std::to_string(i % 24) + " Uhr? Grüße ☕"
                                                          : "Code " + std::to_string(100000 + i) + " gilt 10 Minuten";
        if (!store.deliver_text(sender, text, scts_of(t), vars, &urcs, &why)) {
            std::fprintf(stderr, "bench_sms_list: %s\n", why.c_str());
            std::exit(1);
        }
    }
    SmsAnswer a = store.command("AT+CMGL=4", vars);
    std::string out;
    for (const std::string &line : a.lines)
        out += "\r\n" + line;
    return out + "\r\n\r\nOK\r\n";
}

} // namespace

int main(int argc, char **argv)
{
    int rounds = 200;
    for (int opt; (opt = getopt(argc, argv, "r:")) != -1;)
        rounds = opt == 'r' ? std::atoi(optarg) : 0;
    if (rounds < 1) {
        std::fprintf(stderr, "usage: bench_sms_list [-r ROUNDS]\n");
        return 2;
    }
    const std::string listing = full_listing();
    size_t parts = 0;
    for (size_t at = 0; (at = listing.find("+CMGL: ", at)) != std::string::npos; at++)
        parts++;

    modem mdm;
    auto cache = cache_manager::create();
    mdm.set_cache(cache.get());
    cache_int(&mdm, "sms_mode", 1);

    std::vector<double> ms;
    size_t messages = 0;
    for (int r = 0; r < rounds; r++) {
        auto args = ujson::create();
        args->add_int("index", -1);
        request req;
        if (read_sms(&mdm, 0, args.get(), &req) != 0) {
            std::fprintf(stderr, "bench_sms_list: the listing could not be asked for\n");
            return 1;
        }
        auto reply = ujson::create();
        mdm.set_response(listing.data(), listing.size());
        double t0 = cpu_ms();
        int status = read_sms(&mdm, 1, reply.get(), &req);
        ms.push_back(cpu_ms() - t0);
        std::free(req.command);
        std::free(req.extra);
        if (status != 0) {
            std::fprintf(stderr, "bench_sms_list: read_sms answered %d\n", status);
            return 1;
        }
        char *json = blobmsg_format_json(reply->get_blobmsg(), true);
        messages = 0;
        for (const char *at = json; at && (at = std::strstr(at, "\"index\":")); at++)
            messages++;
        std::free(json);
    }
    std::sort(ms.begin(), ms.end());
    std::printf("AT+CMGL=4 of %zu PDUs (%zu bytes) into %zu messages, %d rounds: CPU median %.2f ms, p95 %.2f ms\n",
                parts, listing.size(), messages, rounds, ms[ms.size() / 2], ms[ms.size() * 95 / 100]);
    return 0;
}
