#include "simulator.h"

#include "control.h"
#include "modem.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace modem_sim {

namespace {

constexpr size_t max_pending_output = 1 << 20;
constexpr size_t max_control_line = 8192;

int g_signal_pipe[2] = {-1, -1};

void on_signal(int sig)
{
	int saved = errno;
	unsigned char b = static_cast<unsigned char>(sig);
	ssize_t n = write(g_signal_pipe[1], &b, 1);
	(void)n;
	errno = saved;
}

Ms now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<Ms>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void set_nonblock(int fd)
{
	int fl = fcntl(fd, F_GETFL);
	if (fl >= 0)
		fcntl(fd, F_SETFL, fl | O_NONBLOCK);
	fcntl(fd, F_SETFD, FD_CLOEXEC);
}

class Fd {
public:
	Fd() = default;
	explicit Fd(int fd) : fd_(fd) {}
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;
	Fd(Fd &&o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
	Fd &operator=(Fd &&o) noexcept
	{
		if (this != &o) {
			reset();
			fd_ = o.fd_;
			o.fd_ = -1;
		}
		return *this;
	}
	~Fd() { reset(); }
	void reset()
	{
		if (fd_ >= 0)
			close(fd_);
		fd_ = -1;
	}
	int get() const { return fd_; }

private:
	int fd_ = -1;
};

// Every byte in and out, one line per read or write, with wall-clock time and
// the time since start.
class Transcript {
public:
	bool open(const std::string &path, Ms start)
	{
		f_ = fopen(path.c_str(), "a");
		start_ = start;
		return f_ != nullptr;
	}
	~Transcript()
	{
		if (f_)
			fclose(f_);
	}
	void log(const char *dir, const char *data, size_t n, Ms now)
	{
		if (!f_)
			return;
		stamp(now);
		fprintf(f_, "%s \"", dir);
		for (size_t i = 0; i < n; i++) {
			unsigned char c = static_cast<unsigned char>(data[i]);
			if (c == '\r')
				fputs("\\r", f_);
			else if (c == '\n')
				fputs("\\n", f_);
			else if (c == '"' || c == '\\')
				fprintf(f_, "\\%c", c);
			else if (c < 0x20 || c >= 0x7f)
				fprintf(f_, "\\x%02x", c);
			else
				fputc(c, f_);
		}
		fputs("\"\n", f_);
		fflush(f_);
	}
	void note(const std::string &what, Ms now)
	{
		if (!f_)
			return;
		stamp(now);
		fprintf(f_, "--  %s\n", what.c_str());
		fflush(f_);
	}

private:
	// Wall-clock time, then the time since start.
	void stamp(Ms now)
	{
		timespec ts;
		clock_gettime(CLOCK_REALTIME, &ts);
		tm t;
		localtime_r(&ts.tv_sec, &t);
		Ms rel = now - start_;
		fprintf(f_, "%02d:%02d:%02d.%03ld +%lld.%03lld ", t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000000,
			static_cast<long long>(rel / 1000), static_cast<long long>(rel % 1000));
	}

	FILE *f_ = nullptr;
	Ms start_ = 0;
};

struct ControlClient {
	Fd fd;
	std::string in;
};

class Simulator {
public:
	Simulator(const Options &opt, Scenario sc) : opt_(opt), modem_(std::move(sc)) {}
	~Simulator() { cleanup(); }

	int run()
	{
		start_ = now_ms();
		if (!open_pty() || !install_signals())
			return 1;
		if (!opt_.transcript.empty() && !transcript_.open(opt_.transcript, start_)) {
			fprintf(stderr, "wwan-modem-sim: cannot open transcript %s: %s\n", opt_.transcript.c_str(),
				strerror(errno));
			return 1;
		}
		if (!opt_.control.empty() && !open_control())
			return 1;
		if (!opt_.link.empty() && !make_link())
			return 1;

		printf("%s\n", slave_path_.c_str());
		fflush(stdout);
		if (opt_.stdin_control && isatty(STDIN_FILENO))
			fprintf(stderr, "wwan-modem-sim: %s on %s; type 'help' for commands\n",
				modem_.scenario().model.c_str(), slave_path_.c_str());

		modem_.start(now_ms(), opt_.boot);
		transcript_.note(std::string("start, scenario ") + opt_.scenario, now_ms());
		collect_output();
		loop();
		transcript_.note("stop", now_ms());
		return 0;
	}

private:
	bool open_pty()
	{
		master_ = Fd(posix_openpt(O_RDWR | O_NOCTTY));
		if (master_.get() < 0 || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0) {
			fprintf(stderr, "wwan-modem-sim: cannot open a pseudo-terminal: %s\n", strerror(errno));
			return false;
		}
		char name[256];
		if (ptsname_r(master_.get(), name, sizeof name) != 0) {
			fprintf(stderr, "wwan-modem-sim: ptsname: %s\n", strerror(errno));
			return false;
		}
		slave_path_ = name;
		set_nonblock(master_.get());
		// Our own slave descriptor keeps the pty alive while the host has it
		// closed; without it the master reports a hang-up after every close.
		hold_slave_ = Fd(open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
		if (hold_slave_.get() < 0) {
			fprintf(stderr, "wwan-modem-sim: cannot open %s: %s\n", name, strerror(errno));
			return false;
		}
		termios tio;
		if (tcgetattr(hold_slave_.get(), &tio) == 0) {
			cfmakeraw(&tio);
			tcsetattr(hold_slave_.get(), TCSANOW, &tio);
		}
		return true;
	}

	bool install_signals()
	{
		if (pipe(g_signal_pipe) != 0)
			return false;
		set_nonblock(g_signal_pipe[0]);
		set_nonblock(g_signal_pipe[1]);
		struct sigaction sa;
		memset(&sa, 0, sizeof sa);
		sa.sa_handler = on_signal;
		sigemptyset(&sa.sa_mask);
		sigaction(SIGINT, &sa, nullptr);
		sigaction(SIGTERM, &sa, nullptr);
		sigaction(SIGUSR1, &sa, nullptr);
		signal(SIGPIPE, SIG_IGN);
		return true;
	}

	bool open_control()
	{
		sockaddr_un addr;
		memset(&addr, 0, sizeof addr);
		addr.sun_family = AF_UNIX;
		if (opt_.control.size() >= sizeof addr.sun_path) {
			fprintf(stderr, "wwan-modem-sim: control socket path too long\n");
			return false;
		}
		memcpy(addr.sun_path, opt_.control.c_str(), opt_.control.size());
		struct stat st;
		if (lstat(opt_.control.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
			unlink(opt_.control.c_str());
		listen_ = Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
		if (listen_.get() < 0 || bind(listen_.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
		    listen(listen_.get(), 8) != 0) {
			fprintf(stderr, "wwan-modem-sim: cannot listen on %s: %s\n", opt_.control.c_str(), strerror(errno));
			return false;
		}
		set_nonblock(listen_.get());
		control_bound_ = true;
		return true;
	}

	bool make_link()
	{
		struct stat st;
		if (lstat(opt_.link.c_str(), &st) == 0) {
			if (!S_ISLNK(st.st_mode)) {
				fprintf(stderr, "wwan-modem-sim: %s exists and is not a symlink\n", opt_.link.c_str());
				return false;
			}
			unlink(opt_.link.c_str());
		}
		if (symlink(slave_path_.c_str(), opt_.link.c_str()) != 0) {
			fprintf(stderr, "wwan-modem-sim: cannot link %s: %s\n", opt_.link.c_str(), strerror(errno));
			return false;
		}
		link_made_ = true;
		return true;
	}

	void cleanup()
	{
		if (link_made_) {
			char target[256];
			ssize_t n = readlink(opt_.link.c_str(), target, sizeof target - 1);
			if (n >= 0) {
				target[n] = 0;
				if (slave_path_ == target)
					unlink(opt_.link.c_str());
			}
			link_made_ = false;
		}
		if (control_bound_) {
			unlink(opt_.control.c_str());
			control_bound_ = false;
		}
		for (int &fd : g_signal_pipe) {
			if (fd >= 0)
				close(fd);
			fd = -1;
		}
	}

	void loop()
	{
		while (!quit_) {
			std::vector<pollfd> fds;
			// After a hang-up the slot stays, with -1, which poll skips.
			fds.push_back({master_.get(), static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT)), 0});
			fds.push_back({g_signal_pipe[0], POLLIN, 0});
			size_t first_client = fds.size();
			if (listen_.get() >= 0) {
				fds.push_back({listen_.get(), POLLIN, 0});
				first_client = fds.size();
				for (const auto &c : clients_)
					fds.push_back({c->fd.get(), POLLIN, 0});
			}
			size_t stdin_index = fds.size();
			if (stdin_open_ && opt_.stdin_control)
				fds.push_back({STDIN_FILENO, POLLIN, 0});

			Ms deadline = modem_.next_deadline();
			int timeout = -1;
			if (deadline >= 0) {
				Ms wait = deadline - now_ms();
				timeout = wait < 0 ? 0 : static_cast<int>(std::min<Ms>(wait, 3600 * 1000));
			}
			if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
				fprintf(stderr, "wwan-modem-sim: poll: %s\n", strerror(errno));
				return;
			}

			if (fds[1].revents & POLLIN)
				handle_signals();
			if (fds[0].revents & POLLIN)
				read_host();
			if (listen_.get() >= 0) {
				// Clients first: accepting changes the list the indices refer to.
				for (size_t i = clients_.size(); i-- > 0;) {
					if (fds[first_client + i].revents & (POLLIN | POLLHUP | POLLERR))
						read_client(i);
				}
				if (fds[first_client - 1].revents & POLLIN)
					accept_client();
			}
			if (stdin_index < fds.size() && (fds[stdin_index].revents & (POLLIN | POLLHUP)))
				read_stdin();

			if (modem_.mode() == Mode::hungup && master_.get() >= 0)
				hang_up_line();
			modem_.advance(now_ms());
			collect_output();
		}
	}

	// Closing the master side (and our own slave descriptor) hangs the
	// terminal up for every program that has it open; its node in /dev/pts
	// goes away, the symlink stays and now leads nowhere.
	void hang_up_line()
	{
		hold_slave_.reset();
		master_.reset();
		out_.clear();
		transcript_.note("line hung up", now_ms());
	}

	void handle_signals()
	{
		unsigned char sigs[64];
		ssize_t n;
		while ((n = read(g_signal_pipe[0], sigs, sizeof sigs)) > 0) {
			for (ssize_t i = 0; i < n; i++) {
				if (sigs[i] == SIGUSR1) {
					modem_.send_next_urc(now_ms());
					transcript_.note("SIGUSR1: next URC", now_ms());
				} else {
					transcript_.note("signal " + std::to_string(sigs[i]), now_ms());
					quit_ = true;
				}
			}
		}
	}

	void read_host()
	{
		char buf[4096];
		while (master_.get() >= 0) {
			ssize_t n = read(master_.get(), buf, sizeof buf);
			if (n <= 0)
				return;
			Ms now = now_ms();
			transcript_.log("in ", buf, static_cast<size_t>(n), now);
			modem_.receive(std::string_view(buf, static_cast<size_t>(n)), now);
		}
	}

	void collect_output()
	{
		std::string more = modem_.take_output();
		if (master_.get() < 0)
			return;
		if (!more.empty()) {
			out_ += more;
			if (out_.size() > max_pending_output) {
				// Nobody reads the port: keep the newest bytes, like an overrun UART.
				out_.erase(0, out_.size() - max_pending_output);
			}
		}
		while (!out_.empty()) {
			ssize_t n = write(master_.get(), out_.data(), out_.size());
			if (n <= 0)
				return;
			transcript_.log("out", out_.data(), static_cast<size_t>(n), now_ms());
			out_.erase(0, static_cast<size_t>(n));
		}
	}

	void accept_client()
	{
		int fd = accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
		if (fd < 0)
			return;
		auto c = std::make_unique<ControlClient>();
		c->fd = Fd(fd);
		clients_.push_back(std::move(c));
	}

	// Runs complete lines of `in`; returns the replies.
	std::string run_lines(std::string *in, bool *closed)
	{
		std::string replies;
		size_t nl;
		while ((nl = in->find('\n')) != std::string::npos) {
			std::string line = in->substr(0, nl);
			in->erase(0, nl + 1);
			if (line.find_first_not_of(" \t\r") == std::string::npos)
				continue;
			Ms now = now_ms();
			transcript_.note("control: " + line, now);
			ControlReply r = run_control(modem_, line, now);
			replies += r.text;
			if (r.quit) {
				quit_ = true;
				*closed = true;
			}
		}
		if (in->size() > max_control_line) {
			in->clear();
			replies += "ERROR line too long\n";
		}
		return replies;
	}

	void read_client(size_t i)
	{
		ControlClient &c = *clients_[i];
		char buf[1024];
		bool closed = false;
		ssize_t n = read(c.fd.get(), buf, sizeof buf);
		if (n <= 0) {
			if (n < 0 && errno == EAGAIN)
				return;
			closed = true;
		} else {
			c.in.append(buf, static_cast<size_t>(n));
		}
		std::string replies = run_lines(&c.in, &closed);
		if (!replies.empty()) {
			ssize_t w = send(c.fd.get(), replies.data(), replies.size(), MSG_NOSIGNAL);
			(void)w; // a client that does not read its replies loses them
		}
		if (closed && n <= 0)
			clients_.erase(clients_.begin() + static_cast<long>(i));
	}

	void read_stdin()
	{
		char buf[1024];
		ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
		if (n <= 0) {
			stdin_open_ = false; // end of input: keep running, the socket may still drive us
			return;
		}
		stdin_in_.append(buf, static_cast<size_t>(n));
		bool closed = false;
		std::string replies = run_lines(&stdin_in_, &closed);
		fputs(replies.c_str(), stdout);
		fflush(stdout);
	}

	Options opt_;
	Modem modem_;
	Transcript transcript_;
	Ms start_ = 0;
	Fd master_;
	Fd hold_slave_;
	Fd listen_;
	std::string slave_path_;
	std::vector<std::unique_ptr<ControlClient>> clients_;
	std::string out_;
	std::string stdin_in_;
	bool stdin_open_ = true;
	bool quit_ = false;
	bool link_made_ = false;
	bool control_bound_ = false;
};

} // namespace

int run_simulator(const Options &opt, Scenario sc)
{
	Simulator sim(opt, std::move(sc));
	return sim.run();
}

} // namespace modem_sim
