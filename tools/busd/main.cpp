// wwan-busd: a ubusd-compatible bus broker for hosts without one.
#include "broker_server.h"

#include <libubox/uloop.h>
#include <ubus_common.h>

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

namespace {

// The socket path under $WWANCTL_ROOT, as every other path of the system.
std::string default_socket()
{
	const char *root = getenv("WWANCTL_ROOT");
	std::string r = root ? root : "";
	while (!r.empty() && r.back() == '/')
		r.pop_back();
	return r + UBUS_UNIX_SOCKET;
}

void mkdir_parents(const std::string &path)
{
	for (size_t pos = 1; (pos = path.find('/', pos)) != std::string::npos; pos++)
		mkdir(path.substr(0, pos).c_str(), 0755);
}

int usage(const char *prog)
{
	fprintf(stderr,
		"Usage: %s [<options>]\n"
		"Options:\n"
		" -s <socket>:\t\tSet the unix domain socket to listen on\n"
		"\n", prog);
	return 1;
}

} // namespace

int main(int argc, char **argv)
{
	std::string path = default_socket();
	int ch;
	while ((ch = getopt(argc, argv, "s:A:")) != -1) {
		switch (ch) {
		case 's':
			path = optarg;
			break;
		case 'A':
			// Access lists are not supported; accepted for compatibility.
			break;
		default:
			return usage(argv[0]);
		}
	}

	uloop_init();
	mkdir_parents(path);
	int ret = 0;
	{
		ubusd::server srv;
		if (srv.listen(path) < 0) {
			fprintf(stderr, "Failed to bind socket %s: %s\n", path.c_str(), strerror(errno));
			ret = 1;
		} else {
			uloop_run();
		}
	}
	uloop_done();
	return ret;
}
