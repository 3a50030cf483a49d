#include "comm/cmm_test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "wwan/ubox.h"

#include "util/ujson.h"

namespace cmm_test
{

namespace
{

// One line from fd; false when none came within timeout_ms of a byte.
bool read_line(int fd, std::string *line, int timeout_ms)
{
    line->clear();
    pollfd p = {fd, POLLIN, 0};
    for (char c; ::poll(&p, 1, timeout_ms) > 0 && ::read(fd, &c, 1) == 1;) {
        if (c == '\n')
            return true;
        *line += c;
    }
    return false;
}

int connect_unix(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

temp_root::temp_root()
{
    char tmpl[] = "/tmp/cmm-test-XXXXXX";
    path_ = mkdtemp(tmpl) ? tmpl : "";
    std::filesystem::create_directories(path_ + "/dev");
    setenv("WWANCTL_ROOT", path_.c_str(), 1);
}

temp_root::~temp_root()
{
    unsetenv("WWANCTL_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

// --- simulator
// ----------------------------------------------------------------

std::string sim_executable()
{
    if (const char *exe = getenv("WWAN_MODEM_SIM"))
        return access(exe, X_OK) == 0 ? exe : "";
#ifdef MODEM_SIM_EXE
    if (access(MODEM_SIM_EXE, X_OK) == 0)
        return MODEM_SIM_EXE;
#endif
    return {};
}

modem_sim::modem_sim(const std::string &dir, const options &opt)
    : control_path_(dir + "/sim.sock"), transcript_path_(dir + "/sim.log")
{
    std::string exe = sim_executable();
    std::vector<std::string> args = {exe, "-s", opt.scenario, "-c", control_path_, "-t", transcript_path_};
    if (!opt.boot)
        args.push_back("-n");
    if (!opt.link.empty())
        args.insert(args.end(), {"-l", opt.link});
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int out[2];
    if (exe.empty() || pipe2(out, O_CLOEXEC) < 0)
        return;
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG,
              SIGTERM); // the simulator must not outlive a test that crashed
        dup2(out[1], STDOUT_FILENO);
        execv(exe.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    // The path is printed once the control socket is bound.
    if (std::string line; pid_ > 0 && read_line(out[0], &line, 5000))
        pty_ = line;
    close(out[0]);
}

void modem_sim::signal(int sig)
{
    if (pid_ > 0)
        kill(pid_, sig);
}

modem_sim::~modem_sim()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 500; i++, usleep(10000))
        if (waitpid(pid_, nullptr, WNOHANG) == pid_)
            return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::string modem_sim::control(const std::string &command)
{
    int fd = connect_unix(control_path_);
    if (fd < 0)
        return "ERROR no control socket";
    std::string msg = command + "\n", reply, line;
    if (::write(fd, msg.data(), msg.size()) == static_cast<ssize_t>(msg.size()))
        while (read_line(fd, &line, 5000)) {
            reply += line + "\n";
            if (line == "OK" || line.rfind("ERROR", 0) == 0)
                break;
        }
    close(fd);
    return reply;
}

std::string modem_sim::transcript() const
{
    std::ifstream f(transcript_path_);
    return {std::istreambuf_iterator<char>(f), {}};
}

// --- modem double
// -------------------------------------------------------------

test_modem::test_modem(std::string tty, const modem_driver *driver)
    : tty_(std::move(tty)), driver_(driver), parser_(parser::create())
{
    mdm_.set_identity("1-1.2", "2C7C:0125");
    INIT_LIST_HEAD(&queue_);
}

test_modem::~test_modem()
{
    cmm.reset(); // the channel goes first: it may still point at queued requests
    while (!list_empty(&queue_))
        clean_request(list_first_entry(&queue_, request, list), 1);
}

request *test_modem::queue(std::string_view command, uint32_t action, uint32_t timeout)
{
    request *req =
        create_request(action, reply_cb, this, command.data(), static_cast<uint32_t>(command.size()), timeout, nullptr);
    if (req)
        list_add_tail(&req->list, &queue_);
    if (req && cmm)
        cmm->ping();
    return req;
}

void test_modem::finish_request(request *req, int failed)
{
    finished.push_back({std::string(req->command, strnlen(req->command, req->length)), req->action, failed});
    clean_request(req, 1);
}

void test_modem::new_event(uint32_t event, const void *data)
{
    events.push_back({event, event == 29 ? *static_cast<const int32_t *>(data) : 0});
}

void test_modem::reply_cb(modem *, uint32_t, ujson *reply, void *ctx)
{
    const char *response = reply->exists("response") ? reply->get_string("response") : "";
    static_cast<test_modem *>(ctx)->replies.push_back({response, json_text(reply->get_blobmsg())});
}

bool run_until(int timeout_ms, const std::function<bool()> &pred)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (; !pred(); uloop_run_timeout(5))
        if (std::chrono::steady_clock::now() >= until)
            return false;
    return true;
}

// --- local AT socket client
// ---------------------------------------------------

avp_peer::avp_peer(const std::string &path) : fd_(connect_unix(path))
{
    if (fd_ >= 0)
        fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
}

avp_peer::~avp_peer()
{
    if (fd_ >= 0)
        close(fd_);
}

bool avp_peer::send(std::string_view text)
{
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

void avp_peer::poll()
{
    char buf[4096];
    for (ssize_t r; (r = ::recv(fd_, buf, sizeof(buf), 0)) > 0;)
        in_.append(buf, static_cast<size_t>(r));
}

cmm_timing fast_timing()
{
    cmm_timing t;
    t.settle_ms = t.escape_guard_ms = t.round_ms = t.dispatch_ms = 20;
    t.resync_ms = 300;
    t.resync_quiet_ms = 50;
    return t;
}

std::string json_text(blob_attr *msg)
{
    std::unique_ptr<char, decltype(&std::free)> s(msg ? blobmsg_format_json(msg, true) : nullptr, &std::free);
    return s ? s.get() : "";
}

size_t count(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1))
        n++;
    return n;
}

} // namespace cmm_test
