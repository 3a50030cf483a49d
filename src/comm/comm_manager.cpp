#include "comm/comm_manager.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <new>
#include <string>
#include <string_view>

#include "wwan/ubox.h"
#include <libubus.h>

#include "comm/at_command.h"
#include "comm/at_log.h"
#include "comm/cmm_internal.h"
#include "comm/cmm_modem.h"
#include "comm/parser_manager.h"
#include "comm/request.h"
#include "core/modem_driver.h"
#include "util/log.h"
#include "util/root_path.h"
#include "util/ubuffer.h"
#include "util/ujson.h"

using namespace cmm_detail;

namespace
{

// Messages of the set-up start carry the name of the operation behind init.
#define CMM_LOG_ERROR_AS(func, fmt, ...)                                                                               \
    do {                                                                                                               \
        std::printf("[%s:%d] error: " fmt, func, __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                 \
        std::fflush(stdout);                                                                                           \
    } while (0)

bool contains(std::string_view text, std::string_view what)
{
    return text.find(what) != std::string_view::npos;
}

// The command as text from offset off: commands built for the modem carry a
// counted zero byte, SMS commands none at all.
std::string command_part(const request *req, uint32_t off)
{
    if (!req->command || off > req->length)
        return {};
    return std::string(req->command + off, strnlen(req->command + off, req->length - off));
}

std::string command_text(const request *req)
{
    return command_part(req, 0);
}

std::string_view parsed_text(const parser &p)
{
    const char *data = p.get_data();
    return data ? std::string_view(data, p.get_len()) : std::string_view("");
}

} // namespace

// --- life cycle -------------------------------------------------------------

comm_manager::comm_manager(const cmm_timing &timing) : timing_(timing)
{
    main_fd_.owner = setup_fd_.owner = queue_fd_.owner = aux_fd_.owner = dispatch_.owner = resync_timer_.owner =
        accept_retry_.owner = this;
    main_fd_.ufd.fd = -1;
    main_fd_.ufd.cb = ufd_cb;
    setup_fd_.ufd.fd = -1;
    setup_fd_.ufd.cb = setup_cb;
    queue_fd_.ufd.fd = -1;
    queue_fd_.ufd.cb = queue_cb;
    dispatch_.timeout.cb = nullptr;
    aux_fd_.ufd.fd = -1;
    aux_fd_.ufd.cb = avp_sock_handle;
}

std::unique_ptr<comm_manager> comm_manager::create(const cmm_timing &timing)
{
    std::unique_ptr<comm_manager> cmm(new (std::nothrow) comm_manager(timing));
    if (!cmm)
        return nullptr;
    cmm->log_ = ubuffer::create();
    if (!cmm->log_)
        return nullptr;
    return cmm;
}

comm_manager::~comm_manager()
{
    if (setup_thread_.joinable()) {
        setup_stop_ = true;
        setup_thread_.join();
    }
    uloop_fd_delete(&main_fd_.ufd);
    uloop_fd_delete(&setup_fd_.ufd);
    uloop_fd_delete(&queue_fd_.ufd);
    uloop_timeout_cancel(&dispatch_.timeout);
    uloop_timeout_cancel(&resync_timer_.timeout);
    uloop_timeout_cancel(&accept_retry_.timeout);
    close_fd(main_fd_.ufd.fd);
    close_fd(spare_fd_);

    if (queue_pipe_[0] >= 0 || queue_pipe_[1] >= 0) {
        LOG_DEBUG("[CMM] Closing dispatcher pipe %d / %d\n", queue_pipe_[0], queue_pipe_[1]);
        close_fd(queue_pipe_[0]);
        close_fd(queue_pipe_[1]);
    }
    close_setup_pipe();

    while (!aux_clients_.empty())
        close_aux(aux_clients_.back().get());
    if (aux_fd_.ufd.fd >= 0) {
        LOG_DEBUG("[CMM] Closing aux pipe %d\n", aux_fd_.ufd.fd);
        uloop_fd_delete(&aux_fd_.ufd);
        close_fd(aux_fd_.ufd.fd);
    }
}

void comm_manager::close_setup_pipe()
{
    if (setup_pipe_[0] < 0 && setup_pipe_[1] < 0)
        return;
    LOG_DEBUG("[CMM] Closing setup pipe %d / %d\n", setup_pipe_[0], setup_pipe_[1]);
    uloop_fd_delete(&setup_fd_.ufd);
    close_fd(setup_pipe_[0]);
    close_fd(setup_pipe_[1]);
    setup_fd_.ufd.fd = -1;
}

int comm_manager::init(cmm_modem *modem, int keep_log)
{
    modem_ = modem;
    if (!keep_log)
        log_.reset();

    // Only a terminal under /dev is a modem port: anything else named by a
    // description or a hot-plug event is never opened, let alone written.
    std::string path = wwan_path(modem_->tty_path());
    struct stat st{};
    if (is_port_path(modem_->tty_path()) && stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode))
        main_fd_.ufd.fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (main_fd_.ufd.fd >= 0 && (fstat(main_fd_.ufd.fd, &st) != 0 || !S_ISCHR(st.st_mode) || !isatty(main_fd_.ufd.fd)))
        close_fd(main_fd_.ufd.fd);
    if (main_fd_.ufd.fd < 0) {
        CMM_LOG_ERROR_AS("__init", "[CMM] Failed to open modem at `%s` path!\n", path.c_str());
        return 1;
    }
    if (tty_setup()) {
        CMM_LOG_ERROR_AS("__init", "[CMM] Failed to set-up tty for `%s [%s]` modem!\n", modem_->id(),
                         modem_->vid_pid());
        close_fd(main_fd_.ufd.fd);
        return 1;
    }
    return 0;
}

int comm_manager::re_init()
{
    if (!modem_ || main_fd_.ufd.fd < 0)
        return 1;
    // One set-up at a time; the running one will report.
    if (setup_running())
        return 0;
    // The set-up thread owns the tty until it reports.
    uloop_fd_delete(&main_fd_.ufd);
    if (tty_setup()) {
        setup_started_ = 0;
        LOG_ERROR("[CMM] Failed to set-up tty for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        return 1;
    }
    return 0;
}

// --- tty I/O ------------------------------------------------------------------

size_t comm_manager::read(void *buf, size_t n)
{
    errno = 0;
    ssize_t r = ::read(main_fd_.ufd.fd, buf, n);
    if (r > 0) {
        rx_total_ += static_cast<uint64_t>(r);
        if (static_cast<uint64_t>(r) > rx_highest_)
            rx_highest_ = static_cast<uint64_t>(r);
        read_failures_ = 0;
        return static_cast<size_t>(r);
    }
    if (r < 0 && errno != EAGAIN) {
        read_failures_++;
        LOG_ERROR("[CMM] An error occurred in `%s [%s]` modem read: errno %d\n", modem_->id(), modem_->vid_pid(),
                  errno);
    }
    return 0;
}

void comm_manager::log_traffic(int sent, const void *bytes, size_t n)
{
    if (log_ && fill_log_buffer(*log_, sent, bytes, n))
        dump_log_buffer();
}

int comm_manager::dump_log_buffer()
{
    if (!log_ || !modem_)
        return 0;
    return ::dump_log_buffer(*log_, modem_->id(), modem_->id(), modem_->vid_pid());
}

void comm_manager::fill_stats(ujson &json) const
{
    void *table = json.open_table("comm_stats");
    json.add_long("tty_tx", static_cast<int64_t>(tx_total_));
    json.add_long("tty_rx", static_cast<int64_t>(rx_total_));
    json.add_long("tx_highest", static_cast<int64_t>(tx_highest_));
    json.add_long("rx_highest", static_cast<int64_t>(rx_highest_));
    json.add_int("aux_fd_num", static_cast<int32_t>(aux_clients_.size()));
    json.add_int("log_len", log_ ? static_cast<int32_t>(log_->len()) : 0);
    json.add_int("log_cap", log_ ? static_cast<int32_t>(log_->cap()) : 0);
    json.add_int("recv_pipe_fd", queue_pipe_[0]);
    json.add_int("send_pipe_fd", queue_pipe_[1]);
    json.close_table(table);
}

// --- dispatch -----------------------------------------------------------------

void comm_manager::ping()
{
    ssize_t w = ::write(queue_pipe_[1], "1", 1);
    (void)w;
}

// Nothing goes out while a command is in flight or being written, while the
// channel resynchronises, while paused, or while a set-up owns the tty.
bool comm_manager::held() const
{
    return paused_ || busy_ || setup_running() || out_.active || resync_.active;
}

void comm_manager::arm_dispatcher()
{
    if (dispatch_.timeout.pending)
        return;
    dispatch_.timeout.cb = dispatch_cb;
    uloop_timeout_set(&dispatch_.timeout, static_cast<int>(timing_.dispatch_ms));
}

int comm_manager::common_write_handle(request *req)
{
    uint32_t len = req->ext_len ? req->ext_len : req->length;
    // A modem switching to data mode would take the counted zero byte after
    // the command line for the first byte of the data.
    if (req->source.active() && !req->ext_len && len >= 2 && req->command[len - 1] == '\0' &&
        req->command[len - 2] == '\r')
        len--;
    LOG_DEBUG("[CMM] Modem `%s [%s]` cmd len: %zu\n", modem_->id(), modem_->vid_pid(),
              static_cast<size_t>(req->length));
    dbg_print_at_ex(req->command, req->length, 0);
    LOG_DEBUG("[CMM] Modem `%s [%s]` len: %zu, writing:\n", modem_->id(), modem_->vid_pid(), static_cast<size_t>(len));
    dbg_print_at_ex(req->command, len, 0);

    // Whatever arrived before this command is not its answer.
    process_response(true);
    // Reading may have found the channel out of step.
    if (resync_.active)
        return 1;

    return start_write(req->command, len, req, false, 0) == write_result::failed ? 1 : 0;
}

// The head request goes out unless something holds the channel. A command
// whose write fails is answered as failed, and the next one is tried on the
// dispatcher's next turn.
void comm_manager::dispatch()
{
    check_in_flight();
    request *req = modem_->get_request();
    busy_ = req != nullptr;
    // Already written: its answer is awaited.
    if (!req || req->sent)
        return;
    if (out_.active || resync_.active) {
        busy_ = false;
        return;
    }
    if (common_write_handle(req)) {
        busy_ = false;
        if (out_.active)
            write_failed();
        arm_dispatcher();
    }
}

void comm_manager::queue_cb(uloop_fd *u, unsigned int)
{
    auto *cmm = owned_fd<comm_manager>::of(u);
    char c;
    ssize_t r = ::read(u->fd, &c, 1);
    (void)r;
    guarded([cmm] { cmm->on_queue(); });
}

void comm_manager::on_queue()
{
    if (held()) {
        LOG_DEBUG("[CMM] Modem `%s [%s]` is busy!\n", modem_->id(), modem_->vid_pid());
        if (!dispatch_.timeout.pending) {
            LOG_DEBUG("[CMM] Setting up pending queue dispatcher...\n");
            arm_dispatcher();
        }
        return;
    }
    if (!modem_->get_request()) {
        LOG_DEBUG("[CMM] No request available for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        return;
    }
    dispatch();
}

void comm_manager::dispatch_cb(uloop_timeout *t)
{
    guarded([t] { owned_timeout<comm_manager>::of(t)->on_dispatch(); });
}

void comm_manager::on_dispatch()
{
    if (held()) {
        LOG_DEBUG("[CMM] Modem `%s [%s]` is still busy!\n", modem_->id(), modem_->vid_pid());
        uloop_timeout_set(&dispatch_.timeout, static_cast<int>(timing_.dispatch_ms));
        return;
    }
    if (!modem_->get_request()) {
        dispatch_.timeout.cb = nullptr;
        return;
    }
    dispatch();
    uloop_timeout_set(&dispatch_.timeout, static_cast<int>(timing_.dispatch_ms));
}

void comm_manager::clear_busy()
{
    busy_ = false;
    check_in_flight();
    // A command being written whose request was dropped stops here; the
    // bytes already out are erased by the resynchronisation.
    if (out_.active && out_.req) {
        request *head = modem_->get_request();
        if (!head || head != out_.req || head->channel_seq != out_.seq) {
            size_t fragment = out_.next_part ? 0 : out_.pos;
            cancel_write();
            enter_resync({}, at_prompt_, fragment);
        }
    }
    // A command still in flight keeps the channel: the dispatcher marks it
    // busy again on its next turn.
    if (modem_->get_request())
        ping();
}

// --- output -------------------------------------------------------------------

ssize_t comm_manager::write_some(const void *bytes, size_t n)
{
    errno = 0;
    ssize_t w = ::write(main_fd_.ufd.fd, bytes, n);
    if (w >= 0) {
        tx_total_ += static_cast<uint64_t>(w);
        if (static_cast<uint64_t>(w) > tx_highest_)
            tx_highest_ = static_cast<uint64_t>(w);
        write_failures_ = 0;
        return w;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        return -1;
    int err = errno;
    LOG_WARNING("[CMM] Write to `%s [%s]` modem failed: errno %d\n", modem_->id(), modem_->vid_pid(), err);
    if (++write_failures_ >= hang_write_failures) {
        write_failures_ = 0;
        modem_->trigger_hang();
    }
    errno = err;
    return -1;
}

size_t comm_manager::write(const void *bytes, size_t n)
{
    ssize_t w = write_some(bytes, n);
    return w > 0 ? static_cast<size_t>(w) : 0;
}

void comm_manager::watch_tty(bool want_write)
{
    // A port that hung up is not watched again.
    if (main_fd_.ufd.fd < 0 || setup_running() || hung_up_)
        return;
    uloop_fd_add(&main_fd_.ufd, ULOOP_READ | ULOOP_ERROR_CB | (want_write ? ULOOP_WRITE : 0));
}

comm_manager::write_result comm_manager::start_write(const char *bytes, size_t n, request *req, bool next_part,
                                                     uint32_t status)
{
    out_.active = true;
    out_.bytes.assign(bytes, n);
    out_.pos = 0;
    out_.req = req;
    out_.seq = 0;
    out_.next_part = next_part;
    out_.status = status;
    if (req && !next_part)
        out_.seq = req->channel_seq = ++channel_seq_;
    else if (req)
        out_.seq = req->channel_seq;
    return pump_write();
}

comm_manager::write_result comm_manager::pump_write()
{
    for (;;) {
        if (out_.pos >= out_.bytes.size()) {
            if (!out_.data || out_.req->source.read >= out_.req->source.size)
                break;
            if (!refill_data())
                return write_result::failed;
        }
        ssize_t w = write_some(out_.bytes.data() + out_.pos, out_.bytes.size() - out_.pos);
        if (w > 0) {
            if (out_.data)
                out_.req->source.sent(out_.bytes.data() + out_.pos, static_cast<size_t>(w));
            out_.pos += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            watch_tty(true);
            return write_result::pending;
        }
        LOG_WARNING("[CMM] Failed to send command (%zu/%zu bytes transferred) to `%s [%s]` modem!\n", out_.pos,
                    out_.bytes.size(), modem_->id(), modem_->vid_pid());
        return write_result::failed;
    }
    written();
    return write_result::done;
}

// The whole command (or part, or probe) is out.
void comm_manager::written()
{
    pending_write done = std::move(out_);
    out_ = {};
    watch_tty(false);
    if (!done.data)
        log_traffic(1, done.bytes.data(), done.bytes.size());
    request *req = done.req;
    if (!req)
        return;
    if (done.data) {
        LOG_DEBUG("[CMM] Modem `%s [%s]` took %llu data bytes, checksum %04x\n", modem_->id(), modem_->vid_pid(),
                  static_cast<unsigned long long>(req->source.written), req->source.checksum);
        return;
    }
    if (done.next_part) {
        set_extended_next(req, done.status);
        // Ctrl-Z ends the text the modem was prompting for.
        if (!done.bytes.empty() && done.bytes.back() != '\r')
            at_prompt_ = false;
        return;
    }
    req->sent = 1;
    req->sent_time = request_clock_ms();
    in_flight_seq_ = req->channel_seq;
    at_prompt_ = false;
    in_flight_token_ = command_part(req, req->avp || req->token_offset > req->length ? 0 : req->token_offset);
}

// A write that failed part-way leaves a fragment of a command line in the
// modem; a write that failed at once leaves nothing.
void comm_manager::write_failed()
{
    pending_write failed = std::move(out_);
    out_ = {};
    watch_tty(false);
    request *req = failed.req;
    bool ours = req && req == modem_->get_request() && req->channel_seq == failed.seq;
    if (!req) {
        // A probe cut short: its fragment goes before the next one.
        resync_.preamble.append(failed.pos, '\b');
        return;
    }
    if (failed.pos || failed.next_part)
        enter_resync(in_flight_token_, at_prompt_, failed.next_part ? 0 : failed.pos);
    if (ours) {
        parser &p = modem_->response_parser();
        finish(req, 1, p);
    }
}

void comm_manager::cancel_write()
{
    out_ = {};
    watch_tty(false);
}

// --- the command in flight ----------------------------------------------------

request *comm_manager::in_flight()
{
    check_in_flight();
    if (!in_flight_seq_)
        return nullptr;
    return modem_->get_request();
}

// The modem manager drops a command whose time-out passed; whatever the modem
// still sends for it belongs to nobody.
void comm_manager::check_in_flight()
{
    if (!in_flight_seq_)
        return;
    request *head = modem_->get_request();
    if (head && head->sent && head->channel_seq == in_flight_seq_)
        return;
    std::string token = std::move(in_flight_token_);
    bool prompt = at_prompt_;
    in_flight_seq_ = 0;
    in_flight_token_.clear();
    at_prompt_ = false;
    // A later part being written goes with its request.
    if (out_.active && out_.next_part)
        cancel_write();
    enter_resync(std::move(token), prompt, 0);
}

// --- resynchronisation ----------------------------------------------------------
//
// A command whose answer did not come in time may still be answered later:
// modems answer commands strictly in order, so its answer comes before the
// answer to anything written after it. After dropping a command the channel
// therefore writes only a probe, a read command whose answer carries an
// information line of its own ("+CMEE: 1"), and hands nothing to a request
// until that line has arrived: every answer before it is stale and dropped.
// A probe's token is never the dropped command's, and a probe that is not
// answered in time is followed by one with another token, so the answer to
// the previous probe cannot be taken for the current one's. Once the probe
// is answered the channel still waits for a short silence: a modem that
// stalled and catches up sends the answers to everything it was given in one
// burst, and any answer after the probe's (an older probe's, when the tokens
// came round again) starts the round anew. A modem left at an SMS prompt
// gets ESC first; the fragment of a command line that could not be written
// whole is erased with backspaces (S5).

namespace
{

struct resync_probe {
    const char *command;
    const char *token;
};

// Read commands every 3GPP modem answers at once, with no unsolicited
// counterpart that a handler could take their lines for.
constexpr resync_probe resync_probes[] = {
    {"AT+CMEE?\r", "CMEE"},
    {"AT+CSCS?\r", "CSCS"},
    {"AT+CSQ\r", "CSQ"},
};
constexpr unsigned resync_probe_count = sizeof(resync_probes) / sizeof(resync_probes[0]);

bool has_info_line(std::string_view data, std::string_view token)
{
    for (size_t at = data.find("\r\n+"); at != std::string_view::npos; at = data.find("\r\n+", at + 1)) {
        std::string_view rest = data.substr(at + 3);
        if (rest.size() <= token.size() || rest[token.size()] != ':')
            continue;
        bool same = true;
        for (size_t i = 0; i < token.size() && same; i++) {
            char c = rest[i];
            if (c >= 'a' && c <= 'z')
                c = static_cast<char>(c - 'a' + 'A');
            same = c == token[i];
        }
        if (same)
            return true;
    }
    return false;
}

} // namespace

void comm_manager::enter_resync(std::string stale_token, bool at_prompt, size_t fragment)
{
    if (stale_token.empty() && in_flight_seq_)
        stale_token = in_flight_token_;
    stale_token = at_token(stale_token);
    if (!resync_.active) {
        LOG_DEBUG("[CMM] Modem `%s [%s]` is out of step, resynchronising\n", modem_->id(), modem_->vid_pid());
        resync_ = {};
        resync_.active = true;
        resync_.stale_token = std::move(stale_token);
    }
    if (at_prompt)
        resync_.preamble += '\x1b';
    else if (fragment)
        resync_.preamble.append(std::min(fragment, at_command_max), '\b');
    // The parser keeps nothing of the dropped command.
    modem_->response_parser().flush();
    // A modem cut off in the middle of raw data takes whatever comes next as
    // more data until its own time-out: nothing is written before that.
    if (data_mode_) {
        data_mode_ = false;
        LOG_DEBUG("[CMM] Modem `%s [%s]` left in data mode, waiting %u ms\n", modem_->id(), modem_->vid_pid(),
                  data_quiet_ms_);
        resync_timer_.timeout.cb = resync_cb;
        uloop_timeout_set(&resync_timer_.timeout, static_cast<int>(data_quiet_ms_ + timing_.resync_quiet_ms));
        return;
    }
    if (!resync_timer_.timeout.pending)
        send_probe();
}

void comm_manager::send_probe()
{
    int usable[resync_probe_count];
    unsigned n = 0;
    for (unsigned i = 0; i < resync_probe_count; i++)
        if (resync_.stale_token != resync_probes[i].token)
            usable[n++] = static_cast<int>(i);
    int choice = usable[resync_.attempt % n];
    resync_.probe = choice;
    resync_.confirming = false;
    // Once every probe went unanswered the modem is not listening: ask less often.
    uint32_t wait = resync_.attempt + 1 < n ? timing_.resync_ms : timing_.resync_ms * 3;
    resync_timer_.timeout.cb = resync_cb;
    uloop_timeout_set(&resync_timer_.timeout, static_cast<int>(wait));

    if (out_.active || main_fd_.ufd.fd < 0 || setup_running())
        return;
    std::string bytes = std::move(resync_.preamble);
    resync_.preamble.clear();
    bytes += resync_probes[choice].command;
    LOG_DEBUG("[CMM] Modem `%s [%s]` resynchronisation probe %u:\n", modem_->id(), modem_->vid_pid(),
              resync_.attempt + 1);
    dbg_print_at_ex(bytes.data(), bytes.size(), 0);
    if (start_write(bytes.data(), bytes.size(), nullptr, false, 0) == write_result::failed)
        write_failed();
}

void comm_manager::resync_cb(uloop_timeout *t)
{
    guarded([t] {
        comm_manager *cmm = owned_timeout<comm_manager>::of(t);
        if (!cmm->resync_.active)
            return;
        if (cmm->resync_.confirming) {
            cmm->resync_done();
            return;
        }
        cmm->resync_.attempt++;
        cmm->send_probe();
    });
}

void comm_manager::resync_done()
{
    LOG_DEBUG("[CMM] Modem `%s [%s]` is in step again\n", modem_->id(), modem_->vid_pid());
    resync_ = {};
    uloop_timeout_cancel(&resync_timer_.timeout);
    if (modem_->get_request())
        ping();
}

// Takes every complete answer out of the parser while resynchronising.
void comm_manager::resync_answer(parser &p)
{
    for (int i = 0; i < 64; i++) {
        uint32_t status = p.status();
        if (status & PARSER_STATUS_URC)
            handle_urcs(p);
        if (!(status & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT)))
            return;
        std::string_view data = parsed_text(p);
        bool probe = !resync_.confirming && resync_.probe >= 0 &&
                     has_info_line(data, resync_probes[resync_.probe].token);
        // A prompt swallows everything written after it: it is cancelled.
        bool prompt = status & PARSER_STATUS_PROMPT;
        if (probe) {
            resync_.confirming = true;
            resync_timer_.timeout.cb = resync_cb;
            uloop_timeout_set(&resync_timer_.timeout, static_cast<int>(timing_.resync_quiet_ms));
        } else {
            LOG_DEBUG("[CMM] Dropped a late answer on `%s [%s]` modem:\n", modem_->id(), modem_->vid_pid());
            dbg_print_at_ex(data.data(), data.size(), 0);
            if (resync_.confirming || prompt) {
                if (prompt)
                    resync_.preamble += '\x1b';
                resync_.attempt++;
                send_probe();
            }
        }
        p.flush();
        p.work();
    }
}

// --- receive path -------------------------------------------------------------

void comm_manager::ufd_cb(uloop_fd *u, unsigned int events)
{
    comm_manager *cmm = owned_fd<comm_manager>::of(u);
    if (events & ULOOP_WRITE)
        guarded([cmm] {
            if (cmm->out_.active && cmm->pump_write() == write_result::failed)
                cmm->write_failed();
        });
    if (events & ULOOP_READ)
        guarded([cmm] { cmm->process_response(false); });
    // A port that hung up (an unplugged USB modem) would report itself
    // readable forever. It is no longer watched; writes to it fail, which
    // answers each command as failed and ends in the modem's hang handling,
    // and the removal event ends the modem.
    if (u->error) {
        LOG_ERROR("[CMM] Modem `%s [%s]` port hung up!\n", cmm->modem_->id(), cmm->modem_->vid_pid());
        cmm->hung_up_ = true;
        uloop_fd_delete(u);
        guarded([cmm] {
            if (cmm->out_.active)
                cmm->write_failed();
        });
    }
}

// Reads one chunk and acts on it. With drain_only (just before a command is
// written) the chunk belongs to no request: URCs are delivered, anything
// else is dropped.
void comm_manager::process_response(bool drain_only)
{
    char buf[read_size];
    size_t n = read(buf, sizeof(buf));
    if (!n)
        return;

    modem_->input_received();
    LOG_DEBUG("[CMM] Modem `%s [%s]` received len: %zu\n", modem_->id(), modem_->vid_pid(), n);
    dbg_print_at_ex(buf, n, 0);
    log_traffic(0, buf, n);

    // The answer to the "ATE0" written against echo is nobody's answer.
    const char *data = buf;
    if (echo_off_sent_) {
        std::string_view chunk(data, n);
        size_t skip = chunk.starts_with("ATE0\r") ? 5 : 0;
        if (chunk.substr(skip).starts_with("\r\nOK\r\n")) {
            skip += 6;
            echo_off_sent_ = false;
        }
        data += skip;
        n -= skip;
        if (!n)
            return;
    }

    // Only a command that has been written can own an answer.
    request *req = in_flight();
    if (drain_only)
        req = nullptr;

    if (req && req->command) {
        size_t cmd_len = strnlen(req->command, req->length);
        if (cmd_len && n >= cmd_len && std::memcmp(data, req->command, cmd_len) == 0) {
            LOG_DEBUG("[CMM] Echo is active on `%s [%s]` modem, turning it off...\n", modem_->id(), modem_->vid_pid());
            if (write("ATE0\r", 5) == 5) {
                log_traffic(1, "ATE0\r", 5);
                echo_off_sent_ = true;
            }
            req->sent = 0;
            in_flight_seq_ = 0;
            if (common_write_handle(req)) {
                busy_ = false;
                if (out_.active)
                    write_failed();
                arm_dispatcher();
            }
            return;
        }
    }

    // The part whose answer is awaited, the probe's while resynchronising;
    // with nothing in flight there is no token, so URCs pass as URCs.
    std::string_view token;
    if (req)
        token = in_flight_token_;
    else if (resync_.active && resync_.probe >= 0)
        token = resync_probes[resync_.probe].command;

    parser &p = modem_->response_parser();
    p.pre_sanitize();
    p.hist_add(data, static_cast<uint32_t>(n));
    p.sanitize();
    p.set_req_token(token);
    uint32_t status = p.work();

    if (status & PARSER_STATUS_FAILURE) {
        LOG_ERROR("[CMM] Parser failure!\n");
        if (req)
            finish(req, 1, p);
        else
            p.flush();
        return;
    }
    if (!req && resync_.active) {
        resync_answer(p);
        return;
    }
    if (status & PARSER_STATUS_URC)
        handle_urcs(p);

    if (!req) {
        handle_unowned(p);
        return;
    }
    if (status & PARSER_STATUS_PROMPT)
        at_prompt_ = true;
    if (status & PARSER_STATUS_INCOMPLETE) {
        LOG_DEBUG("[CMM] Not full response received for `%s [%s]` modem! Expected token: %s\n", modem_->id(),
                  modem_->vid_pid(), p.get_req_token());
        return;
    }
    // "CONNECT" to a command with data: the data goes out, the answer after
    // it is the command's.
    if ((status & PARSER_STATUS_COMPLETE) && p.result_id() == ATS_CONNECT && req->source.active() &&
        !req->source.started) {
        start_data(req, p);
        return;
    }
    if (req->ext_len && (status & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT))) {
        write_next_part(req, status);
        return;
    }
    if (status & PARSER_STATUS_COMPLETE)
        complete_request(req, p);
}

void comm_manager::handle_urcs(parser &p)
{
    const modem_driver *driver = modem_->driver();
    while (!p.urc_done()) {
        const char *urc = p.urc_get();
        uint32_t len = p.urc_len();
        // Lines of a dropped command's answer, or of a probe's, are not URCs.
        if (resync_.active) {
            std::string_view line(urc, len);
            bool stale = !resync_.stale_token.empty() && has_info_line(line, resync_.stale_token);
            for (const resync_probe &probe : resync_probes)
                stale |= has_info_line(line, probe.token);
            if (stale) {
                p.urc_next();
                continue;
            }
        }
        LOG_DEBUG("[CMM] Parsed URC:\n");
        dbg_print_at_ex(urc, len, 0);
        avp_broadcast(urc, len);

        // An error answering an awaited URC reaches that URC's handler.
        const char *match = urc;
        size_t match_len = len;
        const char *awaited = modem_->last_active_urc();
        if (awaited && (std::strncmp(urc, "\r\n+CMS", 6) == 0 || std::strncmp(urc, "\r\n+CME", 6) == 0)) {
            match = awaited;
            match_len = std::strlen(awaited);
        }
        urc_func handler = driver ? modem_driver_urc_method(driver, match, match_len) : nullptr;
        if (handler) {
            modem_->set_last_response(urc, len);
            if (auto json = ujson::create()) {
                int status = modem_driver_invoke_urc_cb(driver, modem_->driver_modem(), json.get(), handler);
                if (status) {
                    LOG_ERROR("[CMM] An error (%d) occurred: %s while executing URC method for `%s [%s]` modem: \n",
                              status, act_status_str(static_cast<uint32_t>(status)), modem_->id(), modem_->vid_pid());
                    dbg_print_at_ex(urc, len, 1);
                }
            } else {
                LOG_ERROR("[CMM] uJson memory allocation error!\n");
            }
        }
        p.urc_next();
    }
    p.urc_flush();
}

// An error result with no command in flight is an unsolicited report (the
// network ending a USSD session, an SMS that failed): it goes to the URC
// handlers. True when the parsed answer was one.
bool comm_manager::deliver_error_urc(parser &p)
{
    std::string_view data = parsed_text(p);
    std::string_view line = data.starts_with("\r\n") ? data.substr(2) : data;
    if (!line.starts_with("+CME ERROR") && !line.starts_with("+CMS ERROR"))
        return false;
    if (line.find("\r\n") + 2 < line.size())
        return false; // more than the one line
    std::string urc = data.starts_with("\r\n") ? std::string(data) : "\r\n" + std::string(data);
    if (!p.urc_add(urc.data(), static_cast<uint32_t>(urc.size())))
        return false;
    handle_urcs(p);
    return true;
}

// An answer with no command in flight. The one that matters is the network
// refusing a USSD request whose answer was still awaited as a URC.
void comm_manager::handle_unowned(parser &p)
{
    if (p.status() & PARSER_STATUS_COMPLETE) {
        const char *awaited = modem_->last_active_urc();
        if (awaited && std::strcmp(awaited, "+CUSD: ") == 0 &&
            contains(parsed_text(p), "+CME ERROR: unknown network message")) {
            if (auto json = ujson::create()) {
                json->add_string("response", "Unknown network message");
                // 3GPP TS 27.007 +CUSD <m> 4: operation not supported.
                json->add_int("state_id", 4);
                modem_->new_event(EVT_SERVICE_DATA, json.get());
            } else {
                LOG_ERROR("[CMM] uJson memory allocation error!\n");
            }
            modem_->release_pending_request();
        } else {
            deliver_error_urc(p);
        }
    }
    p.flush();
    drop_stale_answers(p);
}

// Left in the parser, answers nobody waits for would be taken for the next
// command's: take out every complete one the history still holds. Error
// reports among them are URCs.
void comm_manager::drop_stale_answers(parser &p)
{
    // While out of step the next chunk's reading sorts them out.
    if (resync_.active)
        return;
    p.set_req_token(std::string_view());
    for (int i = 0; i < 16; i++) {
        uint32_t status = p.work();
        if (status & PARSER_STATUS_URC)
            handle_urcs(p);
        if (status & PARSER_STATUS_COMPLETE)
            deliver_error_urc(p);
        p.flush();
        if (!(status & PARSER_STATUS_COMPLETE))
            break;
    }
}

// Writes the part of a multi-part command that the modem now asks for.
void comm_manager::write_next_part(request *req, uint32_t status)
{
    uint32_t len = get_extended_length(req, status);
    const char *part = req->command + req->ext_len;
    LOG_DEBUG("[CMM] Modem `%s [%s]` len: %zu, writing second request part:\n", modem_->id(), modem_->vid_pid(),
              static_cast<size_t>(len));
    dbg_print_at_ex(part, len, 0);
    // The part's answer belongs to the part: its token is taken now.
    if (status & PARSER_STATUS_COMPLETE) {
        in_flight_token_ = command_part(req, req->ext_len);
    }
    // A part that cannot be written fails its request.
    if (start_write(part, len, req, true, status) == write_result::failed)
        write_failed();
}

// The modem said "CONNECT" and now takes exactly the source's bytes, raw.
void comm_manager::start_data(request *req, parser &p)
{
    LOG_DEBUG("[CMM] Modem `%s [%s]` takes %llu data bytes\n", modem_->id(), modem_->vid_pid(),
              static_cast<unsigned long long>(req->source.size));
    p.flush();
    req->source.started = true;
    data_mode_ = true;
    data_quiet_ms_ = req->source.quiet_ms;
    out_ = {};
    out_.active = true;
    out_.req = req;
    out_.seq = req->channel_seq;
    out_.next_part = true;
    out_.data = true;
    if (pump_write() == write_result::failed)
        write_failed();
}

// Reads the next chunk of the data into the pending output. A file that ends
// early or cannot be read fails the command like a failed write.
bool comm_manager::refill_data()
{
    request_source &src = out_.req->source;
    size_t want = static_cast<size_t>(std::min<uint64_t>(data_chunk, src.size - src.read));
    out_.bytes.resize(want);
    out_.pos = 0;
    size_t got = 0;
    while (got < want) {
        ssize_t r = ::read(src.fd, out_.bytes.data() + got, want - got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            LOG_ERROR("[CMM] Data for `%s [%s]` modem ended after %llu of %llu bytes (errno %d)\n", modem_->id(),
                      modem_->vid_pid(), static_cast<unsigned long long>(src.read + got),
                      static_cast<unsigned long long>(src.size), r < 0 ? errno : 0);
            out_.bytes.resize(got);
            return false;
        }
        got += static_cast<size_t>(r);
    }
    src.read += got;
    return true;
}

void comm_manager::complete_request(request *req, parser &p)
{
    auto reply = ujson::create();
    if (!reply) {
        LOG_ERROR("[CMM] uJson memory allocation error!\n");
        finish(req, 1, p);
        return;
    }

    int32_t state = 0;
    switch (req->action) {
    case ACT_SEND_SMS:
        state = 2;
        break;
    case ACT_SET_OPER_SELECTION:
        state = 3;
        break;
    case ACT_OPERATOR_SCAN:
        state = 4;
        break;
    default:
        break;
    }
    if (state)
        modem_->new_event(EVT_MODEM_STATE, &state);

    // The parsed text stays in the parser, zero-terminated, until the flush.
    std::string_view data = parsed_text(p);
    modem_->set_last_response(p.get_data(), p.get_len());
    LOG_DEBUG("[CMM] Parsed data:\n");
    dbg_print_at_ex(data.data(), data.size(), 0);

    const modem_driver *driver = modem_->driver();
    int status = 0;
    if (driver && modem_driver_check_func(driver, req->action)) {
        status = modem_driver_invoke_func(driver, modem_->driver_modem(), req->action, 1, reply.get(), req);
    } else {
        reply->add_string("request", command_text(req).c_str());
        reply->add_string("response", data.data());
    }

    if (req->avp) {
        const char *raw = reply->exists("raw") ? reply->get_string("raw") : nullptr;
        if (raw)
            avp_send(req->avp, raw, std::strlen(raw));
        else
            avp_send(req->avp, data.data(), data.size());
    }
    if (req->callback) {
        if (status) {
            reply->add_string("request", command_text(req).c_str());
            reply->add_string("response", data.data());
            reply->add_int("errno", status);
            reply->add_string("error", act_status_str(static_cast<uint32_t>(status)));
        }
        if (!reply->len()) {
            reply->add_int("status_id", status);
            reply->add_string("status", act_status_str(static_cast<uint32_t>(status)));
        }
        req->callback(modem_->driver_modem(), req->action, reply.get(), req->context);
    }
    if (req->has_req_data)
        handle_external(req, *reply, status, p);

    finish(req, 0, p);
}

void comm_manager::handle_external(request *req, ujson &reply, int status, parser &p)
{
    ubus_context *ctx = modem_->bus();
    if (status) {
        reply.add_string("request", command_text(req).c_str());
        reply.add_string("response", parsed_text(p).data());
        modem_->notify_error(&req->req_data, status, reply);
    } else {
        if (!reply.len()) {
            reply.add_int("status_id", status);
            reply.add_string("status", act_status_str(static_cast<uint32_t>(status)));
        }
        if (g_log_level) {
            char *json = blobmsg_format_json(reply.get_blobmsg(), true);
            LOG_DEBUG("Response to request (%llu): %s\n", static_cast<unsigned long long>(req->number),
                      json ? json : "");
            std::free(json);
        }
        if (ctx)
            ubus_send_reply(ctx, &req->req_data, reply.get_blobmsg());
    }
    if (ctx)
        ubus_complete_deferred_request(ctx, &req->req_data, 0);
    // Answered exactly once.
    req->has_req_data = false;
}

void comm_manager::finish(request *req, int failed, parser &p)
{
    p.flush();
    if (req->channel_seq && req->channel_seq == in_flight_seq_)
        data_mode_ = false;
    if (req->channel_seq && req->channel_seq == in_flight_seq_) {
        in_flight_seq_ = 0;
        in_flight_token_.clear();
        at_prompt_ = false;
    }
    if (out_.active && out_.req == req)
        cancel_write();
    modem_->finish_request(req, failed);
    // The next command is written only after this; what is complete now is stale.
    drop_stale_answers(p);
    busy_ = false;
    // Wake the dispatcher for the next request; with none queued there is
    // nothing to wake it for.
    if (modem_->get_request())
        ping();
}
