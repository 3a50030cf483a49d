// The set-up of the tty: terminal settings and the handshake that brings the
// modem into echo off, verbose results, run on a thread of its own; and the
// loop side that joins it and opens the channel.
#include "comm/comm_manager.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include <algorithm>

#include "comm/cmm_internal.h"
#include "comm/cmm_modem.h"
#include "util/log.h"
#include "util/ubuffer.h"

using namespace cmm_detail;

namespace
{

constexpr char ate0v1[] = "ATE0V1\r";
constexpr size_t ate0v1_len = sizeof(ate0v1) - 1;
constexpr size_t setup_read_size = 32;

// What the set-up looks for in the modem's answers.
constexpr std::string_view setup_ok = "\r\nOK\r\n";
constexpr std::string_view setup_fota = "+QIND: \"FOTA\"";
// Echo, numeric results, a fresh boot or a rejected command: ask again.
constexpr std::string_view setup_retry[] = {
    "+++", "\r\n+CME ERROR: 4\r\n", "\r\n4\r", "\r\nATE0V1\r\n", "\r\nRDY\r\n", "\r\nATE0\r",
};

bool contains(std::string_view text, std::string_view what)
{
    return text.find(what) != std::string_view::npos;
}

} // namespace

speed_t baud_to_speed(uint32_t baud)
{
    static const struct {
        uint32_t baud;
        speed_t speed;
    } speeds[] = {
        {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
        {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
        {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
        {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
        {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
        {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
    };
    for (const auto &s : speeds) {
        if (s.baud == baud)
            return s.speed;
    }
    return B0;
}

int comm_manager::tty_setup()
{
    setup_started_ = now_seconds();
    if (pipe2(setup_pipe_, O_CLOEXEC) < 0) {
        LOG_ERROR("[CMM] Failed to create set-up pipe for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        return 1;
    }
    setup_stop_ = false;
    try {
        setup_thread_ = std::thread(&comm_manager::thd_tty_setup, this);
    } catch (...) {
        LOG_ERROR("[CMM] Failed to create process thread for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        close_fd(setup_pipe_[0]);
        close_fd(setup_pipe_[1]);
        return 1;
    }
    setup_fd_.ufd.fd = setup_pipe_[0];
    uloop_fd_add(&setup_fd_.ufd, ULOOP_READ);
    return 0;
}

// Raw mode, 8N1, no flow control, at the modem's configured speed.
bool comm_manager::tty_configure()
{
    struct termios tio;
    if (tcgetattr(main_fd_.ufd.fd, &tio) < 0)
        return false;
    tio.c_iflag = 0;
    tio.c_oflag = 0;
    tio.c_cflag = 0;
    tio.c_lflag = 0;
    speed_t speed = baud_to_speed(modem_->baud_rate());
    cfsetospeed(&tio, speed);
    cfsetispeed(&tio, speed);
    tio.c_cflag |= CS8 | CREAD | HUPCL | CLOCAL;
    // Without OPOST, ICANON and ECHO these have no effect; kept as modems
    // have always been set up here.
    tio.c_oflag |= ONLCR | OCRNL | ONOCR;
    tio.c_lflag |= ECHOE | ECHOK | ECHOCTL | ECHOKE;
    tcflush(main_fd_.ufd.fd, TCIFLUSH);
    return tcsetattr(main_fd_.ufd.fd, TCSANOW, &tio) == 0;
}

// Sleeps in short slices so that destruction need not wait a whole round.
bool comm_manager::setup_sleep(uint32_t ms)
{
    int64_t until = now_ms() + ms;
    for (;;) {
        if (setup_stop_)
            return false;
        int64_t left = until - now_ms();
        if (left <= 0)
            return true;
        usleep(static_cast<useconds_t>(std::min<int64_t>(left, 50) * 1000));
    }
}

ssize_t comm_manager::setup_write(const char *bytes, size_t n, const char *name)
{
    ssize_t w = ::write(main_fd_.ufd.fd, bytes, n);
    LOG_DEBUG("[CMM] %s = %zd\n", name, w);
    return w;
}

void comm_manager::drain()
{
    char chunk[setup_read_size];
    for (;;) {
        ssize_t r = ::read(main_fd_.ufd.fd, chunk, sizeof(chunk));
        LOG_DEBUG("[CMM] read = %zd\n", r);
        if (r <= 0)
            return;
    }
}

// Brings the modem out of text entry and data mode and into echo off,
// verbose results. Returns false only when asked to stop.
bool comm_manager::handshake(ubuffer &text)
{
    setup_write(&ctrl_z, 1, "\\x1A");
    setup_write("\r", 1, "\\r");
    if (!setup_sleep(timing_.settle_ms))
        return false;
    drain();
    if (!setup_sleep(timing_.settle_ms))
        return false;

    for (uint32_t i = 0; i < timing_.write_attempts; i++) {
        if (setup_write("+++", 3, "+++") == 3)
            break;
    }
    if (!setup_sleep(timing_.escape_guard_ms))
        return false;

    uint32_t counter = 0;
    for (; counter < timing_.write_attempts; counter++) {
        if (setup_write(ate0v1, ate0v1_len, "ATE0V1\\r") == static_cast<ssize_t>(ate0v1_len))
            break;
    }

    for (;;) {
        char chunk[setup_read_size];
        ssize_t r = ::read(main_fd_.ufd.fd, chunk, sizeof(chunk));
        LOG_DEBUG("[CMM] read = %zd\n", r);
        if (r > 0) {
            text.append(chunk, static_cast<uint32_t>(r));
        } else {
            counter++;
            if (counter >= timing_.silent_rounds)
                return true;
            if (timing_.repeat_every && counter % timing_.repeat_every == 0)
                setup_write(ate0v1, ate0v1_len, "ATE0V1\\r");
        }

        std::string_view seen(reinterpret_cast<const char *>(text.buffer()), text.len());
        if (contains(seen, setup_ok)) {
            fota_ = false;
            return true;
        }
        if (contains(seen, setup_fota)) {
            fota_ = true;
            return true;
        }
        for (std::string_view retry : setup_retry) {
            if (contains(seen, retry)) {
                setup_write(ate0v1, ate0v1_len, "ATE0V1\\r");
                text.flush();
                break;
            }
        }
        if (!setup_sleep(timing_.round_ms))
            return false;
    }
}

void comm_manager::thd_tty_setup()
{
    char ack = '1';
    tty_configure();
    if (auto text = ubuffer::create()) {
        if (handshake(*text))
            drain();
        ack = '0';
    }
    ssize_t w = ::write(setup_pipe_[1], &ack, 1);
    (void)w;
    close_fd(setup_pipe_[1]);
}

void comm_manager::setup_cb(uloop_fd *u, unsigned int)
{
    auto *cmm = owned_fd<comm_manager>::of(u);
    char ack = 0;
    ssize_t r = ::read(u->fd, &ack, 1);
    if (r < 0 && errno == EAGAIN)
        return;
    if (cmm->setup_thread_.joinable())
        cmm->setup_thread_.join();
    if (r != 1) {
        cmm->close_setup_pipe();
        cmm->setup_started_ = 0;
        return;
    }
    uloop_fd_delete(u);
    close_fd(cmm->setup_pipe_[0]);
    close_fd(cmm->setup_pipe_[1]);
    u->fd = -1;
    guarded([cmm, ack] { cmm->setup_done(ack); });
}

void comm_manager::setup_done(char ack)
{
    LOG_DEBUG("[CMM] Received ACK from `%s [%s]` [%02X] modem set-up process\n", modem_->id(), modem_->vid_pid(),
              static_cast<unsigned>(static_cast<unsigned char>(ack)));
    if (ack != '0') {
        LOG_ERROR("[CMM] Failed to set-up tty in `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
        setup_started_ = 0;
        return;
    }
    if (queue_pipe_[0] < 0) {
        if (pipe2(queue_pipe_, O_CLOEXEC | O_NONBLOCK) < 0) {
            LOG_ERROR("[CMM] Failed to create dispatcher pipe for `%s [%s]` modem!\n", modem_->id(), modem_->vid_pid());
            queue_pipe_[0] = queue_pipe_[1] = -1;
            close_fd(main_fd_.ufd.fd);
            setup_started_ = 0;
            return;
        }
    }
    echo_off_sent_ = false;
    uloop_fd_add(&main_fd_.ufd, ULOOP_READ | ULOOP_ERROR_CB);
    queue_fd_.ufd.fd = queue_pipe_[0];
    uloop_fd_add(&queue_fd_.ufd, ULOOP_READ);
    setup_started_ = 0;
    modem_->tty_ready();
}
