// The local AT socket "/dev/modem<N>": clients type AT commands and get the
// answers and the modem's URCs, as on the tty itself.
#include "comm/comm_manager.h"

#include <cerrno>
#include <fcntl.h>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wwan/ubox.h"

#include "comm/at_command.h"
#include "comm/cmm_internal.h"
#include "comm/cmm_modem.h"
#include "comm/request.h"
#include "ubus/modem_api.h"
#include "util/log.h"
#include "util/root_path.h"

using namespace cmm_detail;

namespace
{

constexpr uint32_t avp_timeout = 300;

} // namespace

int comm_manager::avp_init()
{
    if (!modem_)
        return 1;
    // Already serving: a second live start of the modem keeps its clients.
    if (aux_fd_.ufd.fd >= 0)
        return 0;
    const char *object = modem_->object_name();
    char name[32];
    snprintf(name, sizeof(name), "/dev/modem%s", std::strlen(object) > 9 ? object + 9 : "");
    std::string path = wwan_path(name);
    LOG_DEBUG("[AVP] Auxiliary virtual port: %s for `%s [%s]` modem\n", path.c_str(), modem_->id(), modem_->vid_pid());

    unlink(path.c_str());
    // Socket mode 0660; the process's own mask is restored at once.
    mode_t old_mask = umask(0117);
    aux_fd_.ufd.fd = usock(USOCK_UNIX | USOCK_SERVER | USOCK_NONBLOCK, path.c_str(), nullptr);
    umask(old_mask);
    if (aux_fd_.ufd.fd < 0) {
        LOG_ERROR("[AVP] Failed to open modem aux at `%s` path!\n", path.c_str());
        aux_fd_.ufd.fd = -1;
        return 1;
    }
    uloop_fd_add(&aux_fd_.ufd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    if (spare_fd_ < 0)
        spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return 0;
}

void comm_manager::avp_sock_handle(uloop_fd *u, unsigned int)
{
    guarded([u] { owned_fd<comm_manager>::of(u)->avp_accept(); });
}

// A client that cannot be served for want of a descriptor is told so: the
// descriptor kept in reserve takes it long enough to send the error line.
bool comm_manager::avp_refuse()
{
    if (spare_fd_ < 0)
        return false;
    close_fd(spare_fd_);
    int fd = accept4(aux_fd_.ufd.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        ssize_t s = send(fd, avp_error.data(), avp_error.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        (void)s;
        close(fd);
    }
    spare_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return fd >= 0;
}

// Edge-triggered: take every client that is waiting. Out of descriptors, the
// waiting clients are refused with the error line; what is still waiting
// after that (no descriptor even in reserve) is looked at again after a
// pause, or as soon as a client leaves.
void comm_manager::avp_accept()
{
    for (;;) {
        int fd = accept4(aux_fd_.ufd.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            int err = errno;
            if (err == EINTR || err == ECONNABORTED)
                continue;
            if (err != EAGAIN && err != EWOULDBLOCK)
                LOG_ERROR("[AVP] Failed to accept (errno = %d) new AVP client for `%s [%s]` modem!\n", err,
                          modem_->id(), modem_->vid_pid());
            if ((err == EMFILE || err == ENFILE) && avp_refuse())
                continue;
            if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
                accept_retry_.timeout.cb = accept_retry_cb;
                uloop_timeout_set(&accept_retry_.timeout, static_cast<int>(accept_retry_ms));
            }
            return;
        }
        std::unique_ptr<avp_client> client(new (std::nothrow) avp_client());
        if (!client) {
            LOG_ERROR("[AVP] Failed to allocate memory for `%s [%s]` modem AVP client!\n", modem_->id(),
                      modem_->vid_pid());
            close(fd);
            continue;
        }
        client->cmm = this;
        client->watch.owner = client.get();
        client->watch.ufd.fd = fd;
        client->watch.ufd.cb = aux_cb;
        uloop_fd_add(&client->watch.ufd, ULOOP_READ | ULOOP_EDGE_TRIGGER);
        aux_clients_.push_back(std::move(client));
        LOG_DEBUG("[AVP] New AVP client (fd = %d) in `%s [%s]` modem\n", fd, modem_->id(), modem_->vid_pid());
    }
}

void comm_manager::accept_retry_cb(uloop_timeout *t)
{
    guarded([t] { owned_timeout<comm_manager>::of(t)->avp_accept(); });
}

void comm_manager::aux_cb(uloop_fd *u, unsigned int)
{
    avp_client *client = owned_fd<avp_client>::of(u);
    // Edge-triggered: a hang-up that came with the last bytes is not reported again.
    guarded([client, u] {
        if (client->cmm->aux_receive(client) && u->eof)
            client->cmm->close_aux(client);
    });
}

// Lines end at CR or LF (and a PDU at its Ctrl-Z); what is left without an
// end once the client has nothing more to send is a line too, since one
// write of a client is one command. Everything waiting is read, as the
// socket is watched edge-triggered.
bool comm_manager::aux_receive(avp_client *client)
{
    LOG_DEBUG("[AVP] New request (Auxiliary) for `%s [%s]` modem\n", modem_->id(), modem_->vid_pid());
    char buf[read_size];
    for (;;) {
        ssize_t r = recv(client->watch.ufd.fd, buf, sizeof(buf), 0);
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            close_aux(client);
            return false;
        }
        for (ssize_t i = 0; i < r; i++) {
            char c = buf[i];
            bool end = c == '\r' || c == '\n' || (c == ctrl_z && !client->partial.empty());
            if (!end) {
                if (client->discarding)
                    continue;
                if (client->line.size() >= at_command_max) {
                    // Refused once; the rest of the line goes with it.
                    LOG_WARNING("[AVP] Line over %zu bytes refused for `%s [%s]` modem\n", at_command_max,
                                modem_->id(), modem_->vid_pid());
                    client->line.clear();
                    client->partial.clear();
                    client->discarding = true;
                    if (!avp_send(client, avp_error.data(), avp_error.size()))
                        return false;
                    continue;
                }
                client->line += c;
                continue;
            }
            if (c == ctrl_z)
                client->line += c;
            bool skip = client->discarding;
            client->discarding = false;
            std::string line = std::move(client->line);
            client->line.clear();
            if (!skip && !avp_line(client, line))
                return false;
        }
    }
    if (!client->line.empty() && !client->discarding) {
        std::string line = std::move(client->line);
        client->line.clear();
        return avp_line(client, line);
    }
    return true;
}

// One line of a client: a command, the first line of an SMS, or its PDU.
// False when the client was closed.
bool comm_manager::avp_line(avp_client *client, std::string_view line)
{
    if (line.empty())
        return true;
    if (client->partial.empty() && !at_has_prefix(line, "AT"))
        return true;
    if (line.ends_with("\\r"))
        line.remove_suffix(2);

    if (!client->partial.empty()) {
        // The PDU: the command line goes first, the PDU after the prompt.
        std::string_view pdu = line;
        if (pdu.ends_with(ctrl_z))
            pdu.remove_suffix(1);
        std::string cmd = std::move(client->partial);
        client->partial.clear();
        cmd.append(pdu);
        cmd += ctrl_z;
        if (pdu.empty() || at_check_command(cmd) != at_check::ok)
            return avp_send(client, avp_error.data(), avp_error.size());
        uint32_t first = static_cast<uint32_t>(cmd.find('\r') + 1);
        cmd += '\r';
        queue_avp_request(client, cmd.data(), cmd.size(), first);
        return true;
    }
    if (at_check_command(line) != at_check::ok) {
        LOG_WARNING("[AVP] Refused a command line for `%s [%s]` modem\n", modem_->id(), modem_->vid_pid());
        return avp_send(client, avp_error.data(), avp_error.size());
    }
    std::string cmd(line);
    cmd += '\r';
    if (at_has_prefix(cmd, "AT+CMGS=")) {
        LOG_DEBUG("[AVP] Partial message detected for `%s [%s]` modem\n", modem_->id(), modem_->vid_pid());
        client->partial = std::move(cmd);
        return true;
    }
    queue_avp_request(client, cmd.data(), cmd.size(), 0);
    return true;
}

void comm_manager::answer_expired(request *req)
{
    if (req->avp)
        avp_send(req->avp, avp_error.data(), avp_error.size());
}

void comm_manager::queue_avp_request(avp_client *client, const char *text, size_t len, uint32_t ext_len)
{
    uint32_t action = at_has_prefix(std::string_view(text, len), "ATI") ? ACT_GET_ID_INFO : ACT_AT_COMMAND;
    request *req = create_request(action, nullptr, nullptr, text, static_cast<uint32_t>(len), avp_timeout, nullptr);
    if (!req) {
        LOG_ERROR("[AVP] Failed to allocate memory for `%s [%s]` modem request!\n", modem_->id(), modem_->vid_pid());
        return;
    }
    if (ext_len)
        req->ext_len = ext_len;
    req->token_offset = 0;
    req->avp = client;
    req->from_avp = true;
    list_add_tail(&req->list, modem_->request_list());
    ping();
}

bool comm_manager::avp_send(avp_client *client, const char *bytes, size_t n)
{
    ssize_t s = send(client->watch.ufd.fd, bytes, n, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (s > 0)
        return true;
    close_aux(client);
    return false;
}

void comm_manager::avp_broadcast(const char *bytes, size_t n)
{
    for (size_t i = 0; i < aux_clients_.size();) {
        if (avp_send(aux_clients_[i].get(), bytes, n))
            i++;
    }
}

void comm_manager::close_aux(avp_client *client)
{
    uloop_fd_delete(&client->watch.ufd);
    close_fd(client->watch.ufd.fd);
    // Requests it sent are still answered, to nobody.
    if (modem_) {
        request *req;
        list_for_each_entry(req, modem_->request_list(), list)
        {
            if (req->avp == client)
                req->avp = nullptr;
        }
    }
    for (auto it = aux_clients_.begin(); it != aux_clients_.end(); ++it) {
        if (it->get() == client) {
            aux_clients_.erase(it);
            break;
        }
    }
    // A descriptor is free again for a client that could not be accepted.
    if (accept_retry_.timeout.pending)
        uloop_timeout_set(&accept_retry_.timeout, 0);
}
