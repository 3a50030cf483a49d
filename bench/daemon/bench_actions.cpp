// bench_actions: the driver's actions through the bus, as services use them.
//
//   bench_actions ready -T START [-s SOCKET] [-o OBJECT] [-m METHOD] [-l LIMIT_S]
//       Calls OBJECT METHOD (default gsm.modem0 get_net_reg_stat_all) until it
//       answers with data and no "errno", and prints the milliseconds since
//       START: seconds of CLOCK_REALTIME with a fraction, as the shell's
//       $EPOCHREALTIME gives them.
//   bench_actions mixed [-s SOCKET] [-o OBJECT]... [-n CALLS]
//       CALLS calls that cycle through a fixed mix of methods (reads and sets
//       that leave the modem as it was) over the objects in turn, one at a
//       time; prints per method the calls, the answers carrying "errno" and
//       the median latency.
#include <libubus.h>

#include <getopt.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "wwan/ubox.h"

#include "bench_common.h"
#include "util/root_path.h"

namespace
{

constexpr int call_timeout_ms = 30000;

struct call_outcome {
    bool answered = false; // a data message came
    bool error = false;    // it carried "errno"
};

void reply_cb(ubus_request *req, int, blob_attr *msg)
{
    auto *out = static_cast<call_outcome *>(req->priv);
    out->answered = true;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, msg, rem) {
        if (!std::strcmp(blobmsg_name(cur), "errno"))
            out->error = true;
    }
}

// The method's status (0 for a reply), and what the reply said.
int call(ubus_context *ctx, const std::string &object, const char *method, const char *json, call_outcome &out)
{
    uint32_t id;
    if (ubus_lookup_id(ctx, object.c_str(), &id))
        return UBUS_STATUS_NOT_FOUND;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (!blobmsg_add_json_from_string(&b, json)) {
        blob_buf_free(&b);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    out = {};
    int ret = ubus_invoke(ctx, id, method, b.head, reply_cb, &out, call_timeout_ms);
    blob_buf_free(&b);
    return ret;
}

// Reads of every group and sets that write back what the modem has.
struct mixed_call {
    const char *method;
    const char *args;
};
const mixed_call mix[] = {
    {"get_net_reg_stat_all", "{}"},
    {"get_func", "{}"},
    {"get_pin_state", "{}"},
    {"get_operator_selection", "{}"},
    {"get_imsi", "{}"},
    {"get_firmware", "{}"},
    {"get_clip_mode", "{}"},
    {"set_crc_fmt", "{\"format\":\"disable\"}"},
    {"get_crc_fmt", "{}"},
    {"get_pdp_ctx_list", "{}"},
    {"get_pdp_addr_list", "{}"},
    {"get_active_pdp_ctx_list", "{}"},
    {"get_mod_status", "{}"},
    {"get_ps_att_state", "{}"},
    {"get_net_ereg_stat", "{}"},
    {"set_net_reg_stat", "{\"mode\":\"enable\"}"},
    {"get_error_msg_fmt", "{}"},
    {"get_fac_lock", "{\"facility\":\"SC\"}"},
    {"get_incoming_voice_calls", "{}"},
    {"get_auto_tz_update", "{}"},
};

int run_ready(ubus_context *ctx, const std::string &object, const char *method, double start_s, double limit_s)
{
    double start_ms = start_s * 1e3;
    timespec ts;
    for (;;) {
        call_outcome out;
        int ret = call(ctx, object, method, "{}", out);
        clock_gettime(CLOCK_REALTIME, &ts);
        double now = static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
        if (ret == 0 && out.answered && !out.error) {
            std::printf("ready %s %s %.1f ms\n", object.c_str(), method, now - start_ms);
            return 0;
        }
        if (now - start_ms > limit_s * 1e3) {
            std::fprintf(stderr, "bench_actions: %s %s did not answer within %.0f s (last status %d)\n",
                         object.c_str(), method, limit_s, ret);
            return 1;
        }
        // Poll often: the figure is only as fine as this step.
        timespec step = {0, 2 * 1000 * 1000};
        nanosleep(&step, nullptr);
    }
}

int run_mixed(ubus_context *ctx, const std::vector<std::string> &objects, int calls)
{
    struct tally {
        int calls = 0, errors = 0, failed = 0;
        std::vector<double> ms;
    };
    std::map<std::string, tally> by_method;
    int failed = 0;
    for (int i = 0; i < calls; i++) {
        const mixed_call &m = mix[static_cast<size_t>(i) % std::size(mix)];
        const std::string &object = objects[static_cast<size_t>(i) % objects.size()];
        call_outcome out;
        double t0 = bench::clock_ms();
        int ret = call(ctx, object, m.method, m.args, out);
        tally &t = by_method[m.method];
        t.ms.push_back(bench::clock_ms() - t0);
        t.calls++;
        if (ret != 0) {
            t.failed++;
            failed++;
        } else if (out.error) {
            t.errors++;
        }
    }
    std::printf("%-26s %6s %7s %7s %10s\n", "method", "calls", "errno", "failed", "median_ms");
    for (auto &[name, t] : by_method) {
        std::sort(t.ms.begin(), t.ms.end());
        std::printf("%-26s %6d %7d %7d %10.2f\n", name.c_str(), t.calls, t.errors, t.failed,
                    bench::nearest_rank(t.ms, 0.5));
    }
    return failed ? 1 : 0;
}

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: bench_actions ready -T START [-s SOCKET] [-o OBJECT] [-m METHOD] [-l LIMIT_S]\n"
                         "       bench_actions mixed [-s SOCKET] [-o OBJECT]... [-n CALLS]\n");
    std::exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        usage();
    std::string mode = argv[1];
    std::string socket = wwan_path(wwan_ubus_socket);
    std::vector<std::string> objects;
    const char *method = "get_net_reg_stat_all";
    double start_s = 0, limit_s = 60;
    int calls = 1000;
    int opt;
    optind = 2;
    while ((opt = getopt(argc, argv, "s:o:m:T:l:n:")) != -1) {
        switch (opt) {
        case 's': socket = optarg; break;
        case 'o': objects.emplace_back(optarg); break;
        case 'm': method = optarg; break;
        case 'T': start_s = std::atof(optarg); break;
        case 'l': limit_s = std::atof(optarg); break;
        case 'n': calls = std::atoi(optarg); break;
        default: usage();
        }
    }
    if (objects.empty())
        objects.emplace_back("gsm.modem0");
    ubus_context *ctx = ubus_connect(socket.c_str());
    if (!ctx) {
        std::fprintf(stderr, "bench_actions: cannot connect to %s\n", socket.c_str());
        return 1;
    }
    int ret;
    if (mode == "ready" && start_s > 0)
        ret = run_ready(ctx, objects.front(), method, start_s, limit_s);
    else if (mode == "mixed" && calls > 0)
        ret = run_mixed(ctx, objects, calls);
    else
        usage();
    ubus_free(ctx);
    return ret;
}
