#include "comm/comm_manager.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <string_view>

#include <libubox/blobmsg_json.h>
#include <libubus.h>

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

constexpr uint32_t evt_service_data = 15;
constexpr uint32_t evt_modem_state = 29;

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

// The command as text: commands built for the modem carry a counted zero
// byte, SMS commands none at all.
std::string command_text(const request *req)
{
    if (!req->command)
        return {};
    return std::string(req->command, strnlen(req->command, req->length));
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
    main_fd_.owner = setup_fd_.owner = queue_fd_.owner = aux_fd_.owner = dispatch_.owner = this;
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
    close_fd(main_fd_.ufd.fd);

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

    std::string path = wwan_path(modem_->tty_path());
    main_fd_.ufd.fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
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

size_t comm_manager::write(const void *bytes, size_t n)
{
    errno = 0;
    ssize_t w = ::write(main_fd_.ufd.fd, bytes, n);
    if (w >= 0) {
        tx_total_ += static_cast<uint64_t>(w);
        if (static_cast<uint64_t>(w) > tx_highest_)
            tx_highest_ = static_cast<uint64_t>(w);
        write_failures_ = 0;
        return static_cast<size_t>(w);
    }
    LOG_WARNING("[CMM] Write to `%s [%s]` modem failed: errno %d\n", modem_->id(), modem_->vid_pid(), errno);
    if (++write_failures_ >= hang_write_failures) {
        write_failures_ = 0;
        modem_->trigger_hang();
    }
    return 0;
}

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

// Nothing goes out while a command is in flight, while paused, or while a
// set-up owns the tty.
bool comm_manager::held() const
{
    return paused_ || busy_ || setup_running();
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
    LOG_DEBUG("[CMM] Modem `%s [%s]` cmd len: %zu\n", modem_->id(), modem_->vid_pid(),
              static_cast<size_t>(req->length));
    dbg_print_at_ex(req->command, req->length, 0);
    LOG_DEBUG("[CMM] Modem `%s [%s]` len: %zu, writing:\n", modem_->id(), modem_->vid_pid(), static_cast<size_t>(len));
    dbg_print_at_ex(req->command, len, 0);

    // Whatever arrived before this command is not its answer.
    process_response(true);

    size_t w = write(req->command, len);
    if (w == len) {
        log_traffic(1, req->command, len);
        req->sent = 1;
        req->sent_time = now_seconds();
        return 0;
    }
    LOG_WARNING("[CMM] Failed to send command (%zu/%zu bytes transferred) to `%s [%s]` modem!\n", w,
                static_cast<size_t>(len), modem_->id(), modem_->vid_pid());
    return 1;
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
    busy_ = true;
    request *req = modem_->get_request();
    if (!req) {
        LOG_DEBUG("[CMM] No request available for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        busy_ = false;
        return;
    }
    if (req->sent)
        return;
    if (common_write_handle(req)) {
        busy_ = false;
        arm_dispatcher();
    }
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
    busy_ = true;
    request *req = modem_->get_request();
    if (!req) {
        busy_ = false;
        dispatch_.timeout.cb = nullptr;
        return;
    }
    if (!req->sent && common_write_handle(req))
        busy_ = false;
    uloop_timeout_set(&dispatch_.timeout, static_cast<int>(timing_.dispatch_ms));
}

// --- receive path -------------------------------------------------------------

void comm_manager::ufd_cb(uloop_fd *u, unsigned int)
{
    comm_manager *cmm = owned_fd<comm_manager>::of(u);
    guarded([cmm] { cmm->process_response(false); });
    // A port that hung up (an unplugged USB modem) would report itself
    // readable forever. It is no longer watched; writes to it fail, which
    // ends in the modem's hang handling, and the removal event ends the modem.
    if (u->error) {
        LOG_ERROR("[CMM] Modem `%s [%s]` port hung up!\n", cmm->modem_->id(), cmm->modem_->vid_pid());
        uloop_fd_delete(u);
    }
}

// Reads one chunk and acts on it. With drain_only (just before a command is
// written) the chunk belongs to no request: URCs are delivered, anything
// else is dropped.
void comm_manager::process_response(bool drain_only)
{
    char buf[read_size] = {};
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
    request *req = drain_only ? nullptr : modem_->get_request();
    if (req && !req->sent)
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
            if (common_write_handle(req)) {
                busy_ = false;
                arm_dispatcher();
            }
            return;
        }
    }

    // The part whose answer is awaited (an SMS command has no terminator).
    std::string_view token;
    if (req && req->command) {
        uint32_t off = req->avp || req->token_offset > req->length ? 0 : req->token_offset;
        token = std::string_view(req->command + off, strnlen(req->command + off, req->length - off));
    }

    parser &p = modem_->response_parser();
    p.pre_sanitize();
    p.hist_add(data, static_cast<uint32_t>(n));
    p.sanitize();
    if (req)
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
    if (status & PARSER_STATUS_URC)
        handle_urcs(p);

    if (!req) {
        handle_unowned(p);
        return;
    }
    if (status & PARSER_STATUS_INCOMPLETE) {
        LOG_DEBUG("[CMM] Not full response received for `%s [%s]` modem! Expected token: %s\n", modem_->id(),
                  modem_->vid_pid(), p.get_req_token());
        return;
    }
    if (req->ext_len && (status & (PARSER_STATUS_COMPLETE | PARSER_STATUS_PROMPT))) {
        if (!write_next_part(req, status))
            finish(req, 1, p);
        return;
    }
    if (status & PARSER_STATUS_COMPLETE)
        complete_request(req, p);
}

void comm_manager::handle_urcs(parser &p)
{
    const modem_driver *driver = modem_->driver();
    while (!p.urc_done() && p.urc_len()) {
        const char *urc = p.urc_get();
        uint32_t len = p.urc_len();
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

// An answer with no command in flight. The one that matters is the network
// refusing a USSD request whose answer was still awaited as a URC.
void comm_manager::handle_unowned(parser &p)
{
    const char *awaited = modem_->last_active_urc();
    if (awaited && std::strcmp(awaited, "+CUSD: ") == 0 &&
        contains(parsed_text(p), "+CME ERROR: unknown network message")) {
        if (auto json = ujson::create()) {
            json->add_string("response", "Unknown network message");
            // 3GPP TS 27.007 +CUSD <m> 4: operation not supported.
            json->add_int("state_id", 4);
            modem_->new_event(evt_service_data, json.get());
        } else {
            LOG_ERROR("[CMM] uJson memory allocation error!\n");
        }
        modem_->release_pending_request();
    }
    p.flush();
    drop_stale_answers(p);
}

// Left in the parser, answers nobody waits for would be taken for the next
// command's: take out every complete one the history still holds.
void comm_manager::drop_stale_answers(parser &p)
{
    for (int i = 0; i < 16; i++) {
        uint32_t status = p.work();
        if (status & PARSER_STATUS_URC)
            handle_urcs(p);
        p.flush();
        if (!(status & PARSER_STATUS_COMPLETE))
            break;
    }
}

// Writes the part of a multi-part command that the modem now asks for.
bool comm_manager::write_next_part(request *req, uint32_t status)
{
    uint32_t len = get_extended_length(req, status);
    const char *part = req->command + req->ext_len;
    LOG_DEBUG("[CMM] Modem `%s [%s]` len: %zu, writing second request part:\n", modem_->id(), modem_->vid_pid(),
              static_cast<size_t>(len));
    dbg_print_at_ex(part, len, 0);
    size_t w = write(part, len);
    if (w != len) {
        LOG_WARNING("[CMM] Failed to send command (%zu/%zu bytes transferred) to `%s [%s]` modem!\n", w,
                    static_cast<size_t>(len), modem_->id(), modem_->vid_pid());
        return false;
    }
    log_traffic(1, part, len);
    set_extended_next(req, status);
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
        modem_->new_event(evt_modem_state, &state);

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
    modem_->finish_request(req, failed);
    // The next command is written only after this; what is complete now is stale.
    drop_stale_answers(p);
    busy_ = false;
    // Wake the dispatcher for the next request; with none queued there is
    // nothing to wake it for.
    if (modem_->get_request())
        ping();
}
