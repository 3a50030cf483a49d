// bench_sms: how soon a message the network delivers is announced on the bus.
//
//   bench_sms notify -c CONTROL [-s SOCKET] [-o OBJECT] [-n MESSAGES]
//       MESSAGES times: asks the simulated modem behind the control socket
//       CONTROL to deliver a short message ("sms deliver"), and waits for
//       OBJECT's "sms_index" notification. Prints the median and the 95th
//       percentile of the time from the request to the notification. The
//       store is emptied (delete_sms) every 100 messages.
#include <libubus.h>

#include <getopt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "wwan/ubox.h"

#include "bench_common.h"
#include "util/root_path.h"

namespace
{

struct watcher {
    ubus_subscriber sub{};
    int seen = 0;
};

int on_notify(ubus_context *, ubus_object *obj, ubus_request_data *, const char *method, blob_attr *)
{
    if (!std::strcmp(method, "sms_index")) {
        auto *w = reinterpret_cast<watcher *>(container_of(obj, ubus_subscriber, obj));
        w->seen++;
        uloop_end();
    }
    return 0;
}

// One operator command on the simulator's control socket; its reply.
std::string control(const std::string &path, const std::string &command)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    std::string reply;
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0) {
        std::string line = command + "\n";
        if (write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
            char buf[256];
            ssize_t n;
            while (reply.find("OK\n") == std::string::npos && reply.find("ERROR") == std::string::npos &&
                   (n = read(fd, buf, sizeof buf)) > 0)
                reply.append(buf, static_cast<size_t>(n));
        }
    }
    if (fd >= 0)
        close(fd);
    return reply;
}

void delete_all(ubus_context *ctx, uint32_t id)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_json_from_string(&b, "{\"index\":0}");
    ubus_invoke(ctx, id, "delete_sms", b.head, nullptr, nullptr, 30000);
    blob_buf_free(&b);
}

int run_notify(ubus_context *ctx, const std::string &object, const std::string &ctl, int messages)
{
    uint32_t id;
    watcher w;
    w.sub.cb = on_notify;
    if (ubus_lookup_id(ctx, object.c_str(), &id) || ubus_register_subscriber(ctx, &w.sub) ||
        ubus_subscribe(ctx, &w.sub, id)) {
        std::fprintf(stderr, "bench_sms: cannot subscribe to %s\n", object.c_str());
        return 1;
    }
    delete_all(ctx, id);
    std::vector<double> ms;
    int lost = 0;
    for (int i = 0; i < messages; i++) {
        if (i % 100 == 99)
            delete_all(ctx, id);
        int before = w.seen;
        double t0 = bench::clock_ms();
        std::string reply = control(ctl, "sms deliver +4917000000" + std::to_string(i % 10) + " bench " +
                                             std::to_string(i));
        if (reply.find("OK") == std::string::npos) {
            std::fprintf(stderr, "bench_sms: the simulator refused the delivery: %s", reply.c_str());
            return 1;
        }
        while (w.seen == before && bench::clock_ms() - t0 < 5000)
            uloop_run_timeout(static_cast<int>(5000 - (bench::clock_ms() - t0)) + 1);
        if (w.seen == before)
            lost++;
        else
            ms.push_back(bench::clock_ms() - t0);
    }
    std::sort(ms.begin(), ms.end());
    if (ms.empty()) {
        std::fprintf(stderr, "bench_sms: no notification came\n");
        return 1;
    }
    std::printf("+CMTI to sms_index notification, %zu messages: median %.2f ms, p95 %.2f ms, max %.2f ms, "
                "%d not announced\n",
                ms.size(), bench::nearest_rank(ms, 0.5), bench::nearest_rank(ms, 0.95), ms.back(), lost);
    return lost ? 1 : 0;
}

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: bench_sms notify -c CONTROL [-s SOCKET] [-o OBJECT] [-n MESSAGES]\n");
    std::exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || std::strcmp(argv[1], "notify"))
        usage();
    std::string socket = wwan_path(wwan_ubus_socket);
    std::string object = "gsm.modem0";
    std::string ctl;
    int messages = 200;
    int opt;
    optind = 2;
    while ((opt = getopt(argc, argv, "s:o:c:n:")) != -1) {
        switch (opt) {
        case 's': socket = optarg; break;
        case 'o': object = optarg; break;
        case 'c': ctl = optarg; break;
        case 'n': messages = std::atoi(optarg); break;
        default: usage();
        }
    }
    if (ctl.empty() || messages < 1)
        usage();
    uloop_init();
    ubus_context *ctx = ubus_connect(socket.c_str());
    if (!ctx) {
        std::fprintf(stderr, "bench_sms: cannot connect to %s\n", socket.c_str());
        return 1;
    }
    ubus_add_uloop(ctx);
    int ret = run_notify(ctx, object, ctl, messages);
    ubus_free(ctx);
    uloop_done();
    return ret;
}
