// The command channel of one modem: it owns the AT port, brings the modem
// into a known command state on a short-lived set-up thread, writes queued
// requests one at a time, hands what it reads to the response parser,
// delivers URCs to the driver, completes requests, and serves the same port
// to local clients through a Unix socket ("/dev/modem<N>"). Everything but
// the set-up thread runs on the uloop thread.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "wwan/ubox.h"

class cmm_modem;
class parser;
class ubuffer;
class ujson;
struct request;
struct avp_client;

// Waits and limits of the set-up handshake and the dispatcher. The defaults
// are what real modems need; tests shrink them.
struct cmm_timing {
    uint32_t settle_ms = 500;        // after Ctrl-Z/CR, and after draining
    uint32_t escape_guard_ms = 1000; // after "+++"
    uint32_t round_ms = 500;         // one round of waiting for "OK"
    uint32_t silent_rounds = 90;     // empty reads before the modem is opened anyway
    uint32_t repeat_every = 10;      // empty reads between repeats of "ATE0V1"
    uint32_t write_attempts = 11;    // tries for "+++" and "ATE0V1"
    uint32_t dispatch_ms = 1000;     // retry period of the pending queue
    uint32_t resync_ms = 3000;       // wait for the answer to a resynchronisation probe
    uint32_t resync_quiet_ms = 200;  // silence after that answer before the channel trusts it
};

// A uloop watch or timer that knows its owner; uloop hands callbacks the
// watch, which is the first member.
template <typename Owner> struct owned_fd {
    uloop_fd ufd = {};
    Owner *owner = nullptr;

    static Owner *of(uloop_fd *u) { return reinterpret_cast<owned_fd *>(u)->owner; }
};

template <typename Owner> struct owned_timeout {
    uloop_timeout timeout = {};
    Owner *owner = nullptr;

    static Owner *of(uloop_timeout *t) { return reinterpret_cast<owned_timeout *>(t)->owner; }
};

// termios speed constant for a baud rate; 0 (hang-up) for one it lacks.
speed_t baud_to_speed(uint32_t baud);

class comm_manager
{
  public:
    static constexpr uint32_t hang_write_failures = 31;
    static constexpr size_t read_size = 8192;
    static constexpr uint32_t accept_retry_ms = 1000;
    // Raw data after "CONNECT" goes out in chunks of this size.
    static constexpr size_t data_chunk = 4096;
    // Answer to a local AT client whose line was refused or whose command
    // expired before the modem answered it.
    static constexpr std::string_view avp_error = "\r\nERROR\r\n";

    // Null when the traffic log buffer cannot be allocated.
    static std::unique_ptr<comm_manager> create(const cmm_timing &timing = {});
    ~comm_manager();

    comm_manager(const comm_manager &) = delete;
    comm_manager &operator=(const comm_manager &) = delete;

    // Opens the modem's tty and starts the set-up. keep_log 0 drops the
    // traffic log. 0 on success, 1 on failure.
    [[nodiscard]] int init(cmm_modem *modem, int keep_log);
    // Runs the set-up again on the open tty (after a restart or a hang).
    [[nodiscard]] int re_init();
    // Opens the local AT socket "/dev/modem<N>".
    [[nodiscard]] int avp_init();

    // The only tty I/O: one write or read; the byte count, 0 on error.
    size_t write(const void *bytes, size_t n);
    size_t read(void *buf, size_t n);

    // A request was queued: wake the dispatcher on the next loop turn.
    void ping();

    // Adds the table "comm_stats".
    void fill_stats(ujson &json) const;
    // Writes the traffic log to its file; 0 on success or without a log.
    int dump_log_buffer();

    // A command is in flight.
    bool busy() const { return busy_; }
    // The modem manager's watcher is through the queue: the in-flight mark is
    // cleared (the dispatcher sets it again for a command still in flight).
    // When the command in flight, or the one being written, was dropped, the
    // channel resynchronises before it writes anything else.
    void clear_busy();
    // Nothing but resynchronisation probes go out until the modem has
    // answered one: what it still sends for a dropped command is not taken
    // for the next command's answer.
    bool resyncing() const { return resync_.active; }
    // A command is being written and the port takes no more bytes for now.
    bool writing() const { return out_.active; }
    // The modem manager dropped a request of a local AT client whose time-out
    // passed: the client gets the error line.
    void answer_expired(request *req);
    // While paused (firmware update) nothing is dispatched.
    bool paused() const { return paused_; }
    void set_paused(bool paused) { paused_ = paused; }
    // The last set-up saw the modem announce a firmware update.
    bool fota() const { return fota_.load(); }
    // A set-up is running.
    bool setup_running() const { return setup_started_ != 0; }
    int tty_fd() const { return main_fd_.ufd.fd; }

  private:
    explicit comm_manager(const cmm_timing &timing);

    // Set-up thread and the loop side that joins it.
    int tty_setup();
    void thd_tty_setup();
    bool tty_configure();
    bool handshake(ubuffer &text);
    void drain();
    ssize_t setup_write(const char *bytes, size_t n, const char *name);
    bool setup_sleep(uint32_t ms);
    void setup_done(char ack);
    void close_setup_pipe();

    // Dispatch.
    bool held() const;
    void dispatch();
    int common_write_handle(request *req);
    void arm_dispatcher();
    void on_queue();
    void on_dispatch();

    // Output. A command the port does not take at once is finished from
    // where it stopped when the port is writable again.
    enum class write_result { done, pending, failed };
    write_result start_write(const char *bytes, size_t n, request *req, bool next_part, uint32_t status);
    write_result pump_write();
    void written();
    void write_failed();
    void cancel_write();
    ssize_t write_some(const void *bytes, size_t n);
    void watch_tty(bool want_write);

    // The command in flight; null when none (or when it was dropped).
    request *in_flight();
    void check_in_flight();

    // Resynchronisation after a dropped command.
    void enter_resync(std::string stale_token, bool at_prompt, size_t fragment);
    void send_probe();
    void resync_done();
    void resync_answer(parser &p);
    static void resync_cb(uloop_timeout *t);

    // Receive path.
    void process_response(bool drain_only);
    void handle_urcs(parser &p);
    void handle_unowned(parser &p);
    bool deliver_error_urc(parser &p);
    void write_next_part(request *req, uint32_t status);
    void start_data(request *req, parser &p);
    bool refill_data();
    void complete_request(request *req, parser &p);
    void handle_external(request *req, ujson &reply, int status, parser &p);
    void finish(request *req, int failed, parser &p);
    void drop_stale_answers(parser &p);
    void log_traffic(int sent, const void *bytes, size_t n);

    // Local AT socket.
    void avp_accept();
    bool avp_refuse();
    bool aux_receive(avp_client *client); // false when the client was closed
    bool avp_line(avp_client *client, std::string_view line);
    void queue_avp_request(avp_client *client, const char *text, size_t len, uint32_t ext_len);
    bool avp_send(avp_client *client, const char *bytes, size_t n);
    void avp_broadcast(const char *bytes, size_t n);
    void close_aux(avp_client *client);

    static void ufd_cb(uloop_fd *u, unsigned int events);
    static void setup_cb(uloop_fd *u, unsigned int events);
    static void queue_cb(uloop_fd *u, unsigned int events);
    static void dispatch_cb(uloop_timeout *t);
    static void avp_sock_handle(uloop_fd *u, unsigned int events);
    static void accept_retry_cb(uloop_timeout *t);
    static void aux_cb(uloop_fd *u, unsigned int events);

    // Bytes on their way to the tty.
    struct pending_write {
        bool active = false;
        std::string bytes;
        size_t pos = 0;
        request *req = nullptr; // the request they belong to; null for the channel's own
        uint64_t seq = 0;       // the request's channel_seq while it is written
        bool next_part = false; // a later part of a multi-part command
        uint32_t status = 0;    // parser status that asked for that part
        bool data = false;      // raw data of req->source, refilled chunk by chunk
    };

    struct resync_state {
        bool active = false;
        unsigned attempt = 0;
        std::string stale_token; // token of the dropped command
        std::string preamble;    // written in front of the next probe
        int probe = -1;          // the probe whose answer ends it
        bool confirming = false; // answered; waiting for the quiet after it
    };

    const cmm_timing timing_;
    cmm_modem *modem_ = nullptr;
    owned_fd<comm_manager> main_fd_;
    bool busy_ = false;
    pending_write out_;
    uint64_t channel_seq_ = 0;
    uint64_t in_flight_seq_ = 0;   // channel_seq of the command in flight; 0 for none
    std::string in_flight_token_;  // its parser token
    bool at_prompt_ = false;       // the modem waits for the text of the command in flight
    bool hung_up_ = false;         // the port reported a hang-up and is no longer watched
    bool data_mode_ = false;       // the modem takes raw data for the command in flight
    uint32_t data_quiet_ms_ = 0;   // and leaves that mode after this much silence
    resync_state resync_;
    owned_timeout<comm_manager> resync_timer_;
    bool echo_off_sent_ = false; // "ATE0" written, its answer still to come
    bool paused_ = false;
    std::atomic<bool> fota_{false};
    uint32_t write_failures_ = 0;
    uint32_t read_failures_ = 0;

    owned_fd<comm_manager> setup_fd_;
    int setup_pipe_[2] = {-1, -1};
    int64_t setup_started_ = 0;
    std::thread setup_thread_;
    std::atomic<bool> setup_stop_{false};

    owned_fd<comm_manager> queue_fd_;
    owned_timeout<comm_manager> dispatch_;
    int queue_pipe_[2] = {-1, -1};

    owned_fd<comm_manager> aux_fd_;
    owned_timeout<comm_manager> accept_retry_; // accepting again after running out of descriptors
    int spare_fd_ = -1; // held in reserve to refuse a client when no descriptor is left
    std::vector<std::unique_ptr<avp_client>> aux_clients_;

    uint64_t rx_total_ = 0;
    uint64_t tx_total_ = 0;
    uint64_t rx_highest_ = 0;
    uint64_t tx_highest_ = 0;
    std::unique_ptr<ubuffer> log_;
};
