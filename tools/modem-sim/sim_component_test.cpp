// Runs wwan-modem-sim as its own process and talks to it the way the daemon
// does: through the pseudo-terminal (opened by its symlink, with the daemon's
// terminal settings) and through the control socket.
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

long long mono_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads from fd until `needle` shows up or `timeout_ms` passes; returns all read.
std::string read_until(int fd, const std::string &needle, int timeout_ms)
{
	std::string got;
	long long end = mono_ms() + timeout_ms;
	while (needle.empty() || got.find(needle) == std::string::npos) {
		long long left = end - mono_ms();
		if (left <= 0)
			break;
		pollfd p{fd, POLLIN, 0};
		if (poll(&p, 1, static_cast<int>(left)) <= 0)
			continue;
		char buf[512];
		ssize_t n = read(fd, buf, sizeof buf);
		if (n > 0)
			got.append(buf, static_cast<size_t>(n));
		else if (n == 0 || (errno != EAGAIN && errno != EINTR))
			break;
	}
	return got;
}

const char chunk_scenario[] = R"(model Chunky
set echo 0
on AT+CHUNK
  line +CHUNK: 0123456789
  split 7 300
  ok
)";

class SimProcess : public ::testing::Test {
protected:
	void SetUp() override
	{
		char tmpl[] = "/tmp/modem-sim-test.XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		dir_ = tmpl;
		link_ = dir_ + "/ttyUSB2";
		control_ = dir_ + "/control.sock";
		transcript_ = dir_ + "/transcript.log";
	}

	void TearDown() override
	{
		if (tty_ >= 0)
			close(tty_);
		if (pid_ > 0) {
			kill(pid_, SIGKILL);
			waitpid(pid_, nullptr, 0);
		}
		if (out_ >= 0)
			close(out_);
		std::error_code ec;
		fs::remove_all(dir_, ec);
	}

	void start(const std::vector<std::string> &extra = {"--no-boot"}, const std::string &scenario = "")
	{
		std::vector<std::string> args = {MODEM_SIM_EXE,
						 "--scenario",
						 scenario.empty() ? std::string(MODEM_SIM_SCENARIO_DIR) + "/ec25.scn" : scenario,
						 "--link",
						 link_,
						 "--control",
						 control_,
						 "--transcript",
						 transcript_};
		args.insert(args.end(), extra.begin(), extra.end());
		int pipefd[2];
		ASSERT_EQ(pipe(pipefd), 0);
		pid_ = fork();
		ASSERT_GE(pid_, 0);
		if (pid_ == 0) {
			// Never outlive the test, even when it crashes.
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			dup2(pipefd[1], STDOUT_FILENO);
			close(pipefd[0]);
			close(pipefd[1]);
			int devnull = open("/dev/null", O_RDONLY);
			dup2(devnull, STDIN_FILENO);
			std::vector<char *> argv;
			for (auto &a : args)
				argv.push_back(const_cast<char *>(a.c_str()));
			argv.push_back(nullptr);
			execv(argv[0], argv.data());
			_exit(127);
		}
		close(pipefd[1]);
		out_ = pipefd[0];
		first_line_ = read_until(out_, "\n", 5000);
		ASSERT_FALSE(first_line_.empty()) << "the simulator printed no terminal path";
		first_line_.pop_back();
	}

	// Opens the terminal the way the daemon does: read-write, no controlling
	// terminal, non-blocking, raw 8N1, pending input discarded.
	void open_tty()
	{
		tty_ = open(link_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
		ASSERT_GE(tty_, 0) << strerror(errno);
		termios tio;
		ASSERT_EQ(tcgetattr(tty_, &tio), 0);
		tio.c_iflag = 0;
		tio.c_oflag = 0;
		tio.c_lflag = 0;
		tio.c_cflag = CS8 | CREAD | HUPCL | CLOCAL;
		cfsetospeed(&tio, B115200);
		cfsetispeed(&tio, B115200);
		tcflush(tty_, TCIFLUSH);
		ASSERT_EQ(tcsetattr(tty_, TCSANOW, &tio), 0);
	}

	void write_tty(const std::string &bytes)
	{
		ASSERT_EQ(write(tty_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
	}

	// Writes all of `bytes` through the non-blocking terminal, reading what
	// comes back meanwhile (a modem with echo on answers while we write);
	// then reads on until `until` or the time-out.
	std::string write_reading(const std::string &bytes, const std::string &until, int timeout_ms)
	{
		std::string got;
		size_t done = 0;
		long long end = mono_ms() + timeout_ms;
		while (mono_ms() < end && (done < bytes.size() || got.find(until) == std::string::npos)) {
			pollfd p{tty_, static_cast<short>(POLLIN | (done < bytes.size() ? POLLOUT : 0)), 0};
			if (poll(&p, 1, 100) <= 0)
				continue;
			if (p.revents & POLLIN) {
				char buf[4096];
				ssize_t n = read(tty_, buf, sizeof buf);
				if (n > 0)
					got.append(buf, static_cast<size_t>(n));
			}
			if ((p.revents & POLLOUT) && done < bytes.size()) {
				ssize_t n = write(tty_, bytes.data() + done, bytes.size() - done);
				if (n > 0)
					done += static_cast<size_t>(n);
			}
		}
		EXPECT_EQ(done, bytes.size());
		return got;
	}

	std::string ask(const std::string &cmd, const std::string &until = "\r\nOK\r\n", int timeout_ms = 2000)
	{
		write_tty(cmd);
		return read_until(tty_, until, timeout_ms);
	}

	// Sends one control command and returns the reply.
	std::string control(const std::string &line)
	{
		int s = socket(AF_UNIX, SOCK_STREAM, 0);
		EXPECT_GE(s, 0);
		sockaddr_un addr{};
		addr.sun_family = AF_UNIX;
		strncpy(addr.sun_path, control_.c_str(), sizeof addr.sun_path - 1);
		if (connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
			close(s);
			ADD_FAILURE() << "connect: " << strerror(errno);
			return "";
		}
		std::string msg = line + "\n";
		EXPECT_EQ(write(s, msg.data(), msg.size()), static_cast<ssize_t>(msg.size()));
		// A reply ends with a line "OK" or "ERROR <reason>".
		std::string reply;
		long long end = mono_ms() + 2000;
		while (mono_ms() < end) {
			reply += read_until(s, "\n", 500);
			size_t last = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
			std::string tail = last == std::string::npos ? reply : reply.substr(last + 1);
			if (!reply.empty() && reply.back() == '\n' && (tail == "OK\n" || tail.rfind("ERROR", 0) == 0))
				break;
		}
		close(s);
		return reply;
	}

	// Waits for the process to end; returns its exit status or -1.
	int wait_exit(int timeout_ms)
	{
		long long end = mono_ms() + timeout_ms;
		while (mono_ms() < end) {
			int status;
			pid_t r = waitpid(pid_, &status, WNOHANG);
			if (r == pid_) {
				pid_ = -1;
				return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
			}
			usleep(10000);
		}
		return -1;
	}

	std::string dir_, link_, control_, transcript_, first_line_;
	pid_t pid_ = -1;
	int out_ = -1;
	int tty_ = -1;
};

TEST_F(SimProcess, PrintsTheTerminalAndLinksIt)
{
	start();
	EXPECT_EQ(first_line_.rfind("/dev/pts/", 0), 0u);
	EXPECT_EQ(fs::read_symlink(link_).string(), first_line_);
	struct stat st;
	ASSERT_EQ(stat(control_.c_str(), &st), 0);
	EXPECT_TRUE(S_ISSOCK(st.st_mode));
}

TEST_F(SimProcess, EchoThenEchoOff)
{
	start();
	open_tty();
	EXPECT_EQ(ask("AT\r"), "AT\r\r\nOK\r\n");
	EXPECT_EQ(ask("ATE0\r"), "ATE0\r\r\nOK\r\n");
	EXPECT_EQ(ask("AT+CSQ\r"), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
}

TEST_F(SimProcess, DaemonSetUpSequence)
{
	start();
	open_tty();
	write_tty("\x1a\r");
	usleep(100000);
	write_tty("+++");
	usleep(100000);
	std::string got = ask("ATE0V1\r");
	EXPECT_NE(got.find("\r\nOK\r\n"), std::string::npos) << got;
	EXPECT_EQ(ask("AT+GMR\r"), "\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n");
}

TEST_F(SimProcess, NumericResultCodes)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("ATV0\r", "0\r"), "0\r");
	EXPECT_EQ(ask("AT+NOSUCH\r", "4\r"), "4\r");
	EXPECT_EQ(ask("AT+CSQ\r", "0\r"), "+CSQ: 22,99\r\n0\r");
}

TEST_F(SimProcess, UnknownCommandIsError)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+XYZZY\r", "\r\nERROR\r\n"), "\r\nERROR\r\n");
}

TEST_F(SimProcess, ChunkedAnswerArrivesSplitButComplete)
{
	std::string scn = dir_ + "/chunk.scn";
	std::ofstream(scn) << chunk_scenario;
	start({"--no-boot"}, scn);
	open_tty();
	write_tty("AT+CHUNK\r");
	// The first seven bytes...
	EXPECT_EQ(read_until(tty_, "+CHUN", 1000), "\r\n+CHUN");
	// ...nothing more during the pause...
	EXPECT_EQ(read_until(tty_, "", 150), "");
	// ...then the rest.
	EXPECT_EQ(read_until(tty_, "\r\nOK\r\n", 1000), "K: 0123456789\r\n\r\nOK\r\n");
}

TEST_F(SimProcess, CmgsPromptFlow)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+CMGS=23\r", "> "), "\r\n> ");
	write_tty("0011000B916407281553F80000AA0AE8329BFD4697D9EC37");
	write_tty("\x1a");
	EXPECT_EQ(read_until(tty_, "\r\nOK\r\n", 2000), "\r\n+CMGS: 41\r\n\r\nOK\r\n");
	// ESC cancels.
	EXPECT_EQ(ask("AT+CMGS=23\r", "> "), "\r\n> ");
	EXPECT_EQ(ask("0011\x1b"), "\r\nOK\r\n");
	EXPECT_EQ(ask("AT\r"), "\r\nOK\r\n");
}

TEST_F(SimProcess, UrcThroughTheControlSocket)
{
	start();
	open_tty();
	EXPECT_EQ(control("urc +CREG: 5"), "OK\n");
	EXPECT_EQ(read_until(tty_, "\r\n+CREG: 5\r\n", 1000), "\r\n+CREG: 5\r\n");
	EXPECT_EQ(control("bogus"), "ERROR unknown command 'bogus' (try help)\n");
}

// An operator action starts a timer; the process wakes up for it on its own.
TEST_F(SimProcess, ActionThroughTheControlSocketAndItsTimer)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+CLIP=1\r"), "\r\nOK\r\n");
	EXPECT_EQ(control("do call_in +491701234567"), "OK\n");
	const std::string ring = "\r\nRING\r\n\r\n+CLIP: \"+491701234567\",145,,,,0\r\n";
	EXPECT_EQ(read_until(tty_, ring, 1000), ring);
	EXPECT_EQ(read_until(tty_, ring, 4000), ring); // three seconds later
	EXPECT_EQ(ask("ATA\r"), "\r\nOK\r\n");
	EXPECT_EQ(control("do nothing"), "ERROR the scenario has no action 'nothing' (try actions)\n");
}

TEST_F(SimProcess, Sigusr1SendsTheNextUrc)
{
	start();
	open_tty();
	kill(pid_, SIGUSR1);
	EXPECT_EQ(read_until(tty_, "\r\n+CREG: 1\r\n", 1000), "\r\n+CREG: 1\r\n");
	kill(pid_, SIGUSR1);
	EXPECT_EQ(read_until(tty_, "\r\n+CEREG: 1\r\n", 1000), "\r\n+CEREG: 1\r\n");
}

TEST_F(SimProcess, HungModemAnswersNothing)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(control("hang"), "OK\n");
	write_tty("AT\r");
	EXPECT_EQ(read_until(tty_, "", 400), "");
	EXPECT_EQ(control("unhang"), "OK\n");
	EXPECT_EQ(ask("AT\r"), "\r\nOK\r\n");
}

TEST_F(SimProcess, HeldModemAnswersOnRelease)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(control("hold"), "OK\n");
	write_tty("AT+CSQ\rAT+GMR\r");
	EXPECT_EQ(read_until(tty_, "", 400), "");
	EXPECT_EQ(control("mode"), "held\nOK\n");
	std::string stats = control("stats");
	EXPECT_NE(stats.find("executed 1\n"), std::string::npos) << stats;
	EXPECT_NE(stats.find("pending 14\n"), std::string::npos) << stats;
	EXPECT_EQ(control("release"), "OK\n");
	EXPECT_EQ(read_until(tty_, "G\r\n\r\nOK\r\n", 2000),
		  "\r\n+CSQ: 22,99\r\n\r\nOK\r\n\r\nEC25EFAR06A06M4G\r\n\r\nOK\r\n");
}

TEST_F(SimProcess, SlowAnswerOutlastsTheCallersWait)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(control("slow 800ms"), "OK\n");
	write_tty("AT+CSQ\r");
	EXPECT_EQ(read_until(tty_, "", 400), "");
	EXPECT_EQ(read_until(tty_, "\r\nOK\r\n", 2000), "\r\n+CSQ: 22,99\r\n\r\nOK\r\n");
	EXPECT_EQ(control("slow 0"), "OK\n");
	EXPECT_EQ(ask("AT\r"), "\r\nOK\r\n");
}

TEST_F(SimProcess, HangupLooksLikeAModemThatDied)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(control("hangup"), "OK\n");
	pollfd p{tty_, POLLIN, 0};
	ASSERT_EQ(poll(&p, 1, 2000), 1);
	EXPECT_TRUE(p.revents & POLLHUP) << p.revents;
	char buf[16];
	EXPECT_EQ(read(tty_, buf, sizeof buf), 0);
	errno = 0;
	EXPECT_EQ(write(tty_, "AT\r", 3), -1);
	EXPECT_EQ(errno, EIO);
	// The simulator itself lives on, and the link stays.
	EXPECT_EQ(control("mode"), "hungup\nOK\n");
	EXPECT_EQ(control("urc RING"), "ERROR the line is hung up\n");
	kill(pid_, SIGUSR1);
	EXPECT_EQ(fs::read_symlink(link_).string(), first_line_);
	EXPECT_EQ(control("quit"), "OK\n");
	EXPECT_EQ(wait_exit(2000), 0);
	EXPECT_FALSE(fs::exists(fs::symlink_status(link_)));
}

TEST_F(SimProcess, CommandLinesAtTheSmsPromptAreNotRun)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+CMGS=23\r", "> "), "\r\n> ");
	EXPECT_EQ(ask("AT+CFUN=0\r", "> "), "\r\n> ");
	EXPECT_EQ(control("mode"), "prompt\nOK\n");
	EXPECT_EQ(ask("\x1b"), "\r\nOK\r\n");
	std::string stats = control("stats");
	EXPECT_NE(stats.find("executed 2\n"), std::string::npos) << stats;
	EXPECT_NE(stats.find("line \"AT+CFUN=0\\r\\x1b\"\n"), std::string::npos) << stats;
	EXPECT_EQ(ask("AT+CFUN?\r"), "\r\n+CFUN: 1\r\n\r\nOK\r\n");
}

TEST_F(SimProcess, OverlongLinesAreRefused)
{
	start();
	open_tty();
	// Echo on: the simulator echoes while the line is still being written.
	for (size_t size : {64 * 1024, 512 * 1024}) {
		SCOPED_TRACE(size);
		std::string line = "AT+QCFG=\"" + std::string(size, 'x') + "\"\r";
		EXPECT_EQ(write_reading(line, "\r\nERROR\r\n", 20000), line + "\r\nERROR\r\n");
		EXPECT_EQ(ask("AT\r"), "AT\r\r\nOK\r\n");
	}
	std::string stats = control("stats");
	EXPECT_NE(stats.find("too_long 2\n"), std::string::npos) << stats;
}

TEST_F(SimProcess, BootSendsRdyAfterSilence)
{
	start({}); // with the boot sequence
	open_tty();
	long long t0 = mono_ms();
	std::string got = read_until(tty_, "+QIND: PB DONE\r\n", 3000);
	EXPECT_GE(mono_ms() - t0, 600);
	EXPECT_EQ(got, "\r\nRDY\r\n\r\n+CFUN: 1\r\n\r\n+CPIN: READY\r\n\r\n+QUSIM: 1\r\n"
		       "\r\n+QIND: SMS DONE\r\n\r\n+QIND: PB DONE\r\n");
	EXPECT_EQ(ask("AT\r"), "AT\r\r\nOK\r\n");
	// And again on request.
	EXPECT_EQ(control("boot"), "OK\n");
	EXPECT_NE(read_until(tty_, "\r\nRDY\r\n", 2000).find("\r\nRDY\r\n"), std::string::npos);
}

TEST_F(SimProcess, PoweredDownThenSilent)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(ask("AT+QPOWD=1\r"), "\r\nOK\r\n");
	EXPECT_EQ(read_until(tty_, "POWERED DOWN\r\n", 2000), "\r\nPOWERED DOWN\r\n");
	write_tty("AT\r");
	EXPECT_EQ(read_until(tty_, "", 300), "");
	EXPECT_EQ(control("mode"), "off\nOK\n");
}

TEST_F(SimProcess, FotaModeSendsOnlyFotaUrcs)
{
	start();
	open_tty();
	ask("ATE0\r");
	EXPECT_EQ(control("fota"), "OK\n");
	write_tty("AT\r");
	std::string got = read_until(tty_, "\"FOTA\",\"END\",0\r\n", 4000);
	EXPECT_EQ(got.rfind("\r\n+QIND: \"FOTA\",\"START\"\r\n", 0), 0u) << got;
	EXPECT_EQ(got.find("OK"), std::string::npos);
	EXPECT_NE(read_until(tty_, "\r\nRDY\r\n", 2000).find("RDY"), std::string::npos);
}

TEST_F(SimProcess, QuitCleansUp)
{
	start();
	EXPECT_EQ(control("quit"), "OK\n");
	EXPECT_EQ(wait_exit(2000), 0);
	EXPECT_FALSE(fs::exists(fs::symlink_status(link_)));
	EXPECT_FALSE(fs::exists(fs::symlink_status(control_)));
}

TEST_F(SimProcess, SigtermStopsCleanly)
{
	start();
	kill(pid_, SIGTERM);
	EXPECT_EQ(wait_exit(2000), 0);
	EXPECT_FALSE(fs::exists(fs::symlink_status(link_)));
}

TEST_F(SimProcess, TranscriptRecordsBothDirections)
{
	start();
	open_tty();
	ask("AT+CSQ\r");
	// A write is logged right after it is made, so the line may trail the bytes.
	std::string all;
	for (long long end = mono_ms() + 2000; mono_ms() < end; usleep(10000)) {
		std::ifstream in(transcript_);
		all.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
		if (all.find("OK\\r\\n\"") != std::string::npos)
			break;
	}
	EXPECT_NE(all.find(" in  \"AT+CSQ\\r\""), std::string::npos) << all;
	EXPECT_NE(all.find("\\r\\n+CSQ: 22,99\\r\\n\\r\\nOK\\r\\n\""), std::string::npos) << all;
}

// Each shipped Quectel family, started by its name as the daemon's tests do,
// tells itself apart by its identity and its band answer.
TEST_F(SimProcess, ShippedFamiliesStartByName)
{
	struct Case {
		const char *name;
		const char *ati;
		const char *band;
	} cases[] = {
		{"ec25", "\r\nQuectel\r\nEC25\r\nRevision: EC25EFAR06A06M4G\r\n\r\nOK\r\n",
		 "\r\n+QCFG: \"band\",0xd3,0x1a0000800d5,0x0\r\n\r\nOK\r\n"},
		{"rm520n", "\r\nQuectel\r\nRM520N-GL\r\nRevision: RM520NGLAAR01A07M4G\r\n\r\nOK\r\n", "\r\nERROR\r\n"},
		{"bg96", "\r\nQuectel\r\nBG96\r\nRevision: BG96MAR02A07M1G\r\n\r\nOK\r\n",
		 "\r\n+QCFG: \"band\",0xf,0x400b0e189f,0xa0e189f\r\n\r\nOK\r\n"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		start({"--no-boot"}, c.name);
		open_tty();
		ask("ATE0\r");
		EXPECT_EQ(ask("ATI\r"), c.ati);
		std::string band = c.band;
		EXPECT_EQ(ask("AT+QCFG=\"band\"\r", band.substr(band.rfind("\r\n", band.size() - 3))), band);
		// Next one: a new process on a new terminal.
		close(tty_);
		tty_ = -1;
		kill(pid_, SIGTERM);
		waitpid(pid_, nullptr, 0);
		pid_ = -1;
		close(out_);
		out_ = -1;
	}
}

TEST_F(SimProcess, BadScenarioIsRefused)
{
	std::string scn = dir_ + "/bad.scn";
	std::ofstream(scn) << "on AT\n  frobnicate\n";
	pid_ = fork();
	ASSERT_GE(pid_, 0);
	if (pid_ == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		int devnull = open("/dev/null", O_WRONLY);
		dup2(devnull, STDOUT_FILENO);
		dup2(devnull, STDERR_FILENO);
		execl(MODEM_SIM_EXE, MODEM_SIM_EXE, "--scenario", scn.c_str(), static_cast<char *>(nullptr));
		_exit(127);
	}
	EXPECT_EQ(wait_exit(2000), 1);
}

} // namespace
