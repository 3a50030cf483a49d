// wwan-busd: a ubusd-compatible bus broker for hosts without one.
#include "broker_server.h"
#include "util/root_path.h"

#include "wwan/ubox.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

constexpr const char *default_acl_dir = "/usr/share/acl.d";

ubusd::server *srv;
std::string acl_dir;
int hup_pipe[2] = {-1, -1};
struct uloop_fd hup_fd;

void mkdir_parents(const std::string &path)
{
	for (size_t pos = 1; (pos = path.find('/', pos)) != std::string::npos; pos++)
		mkdir(path.substr(0, pos).c_str(), 0755);
}

void load_acl()
{
	std::vector<std::string> notes;
	ubusd::acl_table acl = ubusd::acl_table::load(acl_dir, geteuid(), &notes);
	for (const auto &n : notes)
		fprintf(stderr, "wwan-busd: ignoring access list %s\n", n.c_str());
	srv->set_acl(std::move(acl));
}

void on_sighup(int)
{
	int saved = errno;
	ssize_t n = write(hup_pipe[1], "h", 1);
	(void)n;
	errno = saved;
}

void hup_cb(struct uloop_fd *u, unsigned int)
{
	char buf[16];
	while (read(u->fd, buf, sizeof(buf)) > 0) {
	}
	load_acl();
}

// SIGHUP reloads the access lists, from the event loop.
void watch_sighup()
{
	if (pipe2(hup_pipe, O_CLOEXEC | O_NONBLOCK) < 0)
		return;
	hup_fd.fd = hup_pipe[0];
	hup_fd.cb = hup_cb;
	uloop_fd_add(&hup_fd, ULOOP_READ);
	struct sigaction sa = {};
	sa.sa_handler = on_sighup;
	sa.sa_flags = SA_RESTART;
	sigaction(SIGHUP, &sa, nullptr);
}

int usage(const char *prog)
{
	fprintf(stderr,
		"Usage: %s [<options>]\n"
		"Options:\n"
		" -s <socket>:\t\tSet the unix domain socket to listen on\n"
		" -A <path>:\t\tSet the path to ACL files\n"
		"\n", prog);
	return 1;
}

} // namespace

int main(int argc, char **argv)
{
	// Under $WWANCTL_ROOT, as every other path of the system.
	std::string path = wwan_path(wwan_ubus_socket);
	acl_dir = wwan_path(default_acl_dir);
	int ch;
	while ((ch = getopt(argc, argv, "s:A:")) != -1) {
		switch (ch) {
		case 's':
			path = optarg;
			break;
		case 'A':
			acl_dir = optarg;
			break;
		default:
			return usage(argv[0]);
		}
	}

	uloop_init();
	mkdir_parents(path);
	int ret = 0;
	{
		ubusd::server s;
		srv = &s;
		s.set_owner(geteuid(), getegid());
		load_acl();
		if (s.listen(path) < 0) {
			fprintf(stderr, "Failed to bind socket %s: %s\n", path.c_str(), strerror(errno));
			ret = 1;
		} else {
			watch_sighup();
			uloop_run();
		}
		signal(SIGHUP, SIG_DFL);
		if (hup_fd.fd >= 0 && hup_fd.registered)
			uloop_fd_delete(&hup_fd);
		srv = nullptr;
	}
	for (int fd : hup_pipe)
		if (fd >= 0)
			close(fd);
	uloop_done();
	return ret;
}
