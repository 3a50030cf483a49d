// What the command channel's tests and benchmark run it against: the
// simulated modem as a child process on a real pseudo-terminal, a modem
// double that owns a real request queue and parser, and a temporary root.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "comm/cmm_modem.h"
#include "comm/comm_manager.h"
#include "comm/parser_manager.h"
#include "comm/request.h"
#include "core/modem.h"

struct blob_attr;

namespace cmm_test
{

// A fresh WWANCTL_ROOT with dev/ in it, removed on destruction (for the
// benchmark, which has no test framework).
class temp_root
{
  public:
    temp_root();
    ~temp_root();
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// wwan-modem-sim as a child process; stopped and reaped on destruction.
class modem_sim
{
  public:
    struct options {
        std::string scenario = "ec25"; // a name or a file
        bool boot = false;             // run the boot sequence first
        std::string link;              // symlink to the terminal
    };

    modem_sim(const std::string &dir, const options &opt);
    ~modem_sim();

    // The terminal's path, empty when the simulator did not start.
    const std::string &pty() const { return pty_; }
    // Runs an operator command; its reply, the last line "OK" or "ERROR ...".
    std::string control(const std::string &command);
    // Everything sent and received so far, as the simulator logged it.
    std::string transcript() const;
    // Sends a signal to the simulator (SIGSTOP: it stops reading, the
    // terminal fills up; SIGCONT: it goes on).
    void signal(int sig);

  private:
    pid_t pid_ = -1;
    std::string pty_, control_path_, transcript_path_;
};

// The simulator executable: $WWAN_MODEM_SIM, else the one of this build;
// empty when there is none.
std::string sim_executable();

// What a completion callback received, and what the channel finished.
struct reply_record {
    std::string response, json;
};
struct finished_record {
    std::string command;
    uint32_t action = 0;
    int failed = 0;
};
struct event_record {
    uint32_t event = 0;
    int32_t value = 0; // event 29 only
};

// The modem the channel serves in tests: a real queue, a real parser.
class test_modem : public cmm_modem
{
  public:
    test_modem(std::string tty, const modem_driver *driver);
    ~test_modem() override;

    // Queues an internal request whose answer lands in replies, and pings.
    request *queue(std::string_view command, uint32_t action = 0, uint32_t timeout = 10);

    // cmm_modem
    const char *id() const override { return mdm_.id(); }
    const char *vid_pid() const override { return mdm_.vid_pid(); }
    const char *tty_path() const override { return tty_.c_str(); }
    uint32_t baud_rate() const override { return 115200; }
    const char *object_name() const override { return "gsm.modem0"; }
    modem *driver_modem() override { return &mdm_; }
    const modem_driver *driver() const override { return driver_; }
    parser &response_parser() override { return *parser_; }
    ubus_context *bus() override { return nullptr; }
    list_head *request_list() override { return &queue_; }
    request *get_request() override { return list_empty(&queue_) ? nullptr : list_first_entry(&queue_, request, list); }
    void finish_request(request *req, int failed) override;
    void release_pending_request() override { awaited.clear(); }
    void tty_ready() override { ready++; }
    void trigger_hang() override { hangs++; }
    void input_received() override { inputs++; }
    void new_event(uint32_t event, const void *data) override;
    const char *last_active_urc() const override { return awaited.empty() ? nullptr : awaited.c_str(); }
    void set_last_response(const char *data, size_t len) override { last_response.assign(data, len); }
    void notify_error(ubus_request_data *, int status, ujson &) override { bus_errors.push_back(status); }

    std::unique_ptr<comm_manager> cmm;
    std::vector<reply_record> replies;
    std::vector<finished_record> finished;
    std::vector<event_record> events;
    std::vector<int> bus_errors;
    std::string last_response, awaited;
    int ready = 0, hangs = 0, inputs = 0;

  private:
    static void reply_cb(modem *mdm, uint32_t action, ujson *reply, void *ctx);

    modem mdm_;
    std::string tty_;
    const modem_driver *driver_;
    std::unique_ptr<parser> parser_;
    list_head queue_;
};

// Runs the event loop until pred holds or timeout_ms passed; pred's result.
bool run_until(int timeout_ms, const std::function<bool()> &pred);

// Handshake and dispatcher shrunk so a whole set-up takes well under a second.
cmm_timing fast_timing();

// A bus message as compact JSON; empty for none.
std::string json_text(blob_attr *msg);

// How often what occurs in text.
size_t count(const std::string &text, const std::string &what);

// A client of the local AT socket.
class avp_peer
{
  public:
    explicit avp_peer(const std::string &path);
    ~avp_peer();

    bool connected() const { return fd_ >= 0; }
    bool send(std::string_view text);
    // Appends whatever can be read now to received().
    void poll();
    const std::string &received() const { return in_; }

  private:
    int fd_ = -1;
    std::string in_;
};

} // namespace cmm_test
