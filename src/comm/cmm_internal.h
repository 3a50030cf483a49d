// Pieces shared by the sources of the command channel; not for other users.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "comm/comm_manager.h"
#include "util/log.h"

// A local client of the AT socket. uloop holds a pointer to its watch, so it
// stays where it was allocated until it is closed.
struct avp_client {
    owned_fd<avp_client> watch;
    comm_manager *cmm = nullptr;
    std::string partial; // "AT+CMGS=..." waiting for its PDU; empty when none
    std::string line;    // bytes of a line still arriving
    bool discarding = false; // the rest of an over-long line is thrown away
};

namespace cmm_detail
{

constexpr char ctrl_z = 0x1A;

inline int64_t now_seconds()
{
    return static_cast<int64_t>(time(nullptr));
}

inline int64_t now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

inline void close_fd(int &fd)
{
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// Callbacks are entered from the event loop: nothing may escape them.
template <typename F> void guarded(F &&f) noexcept
{
    try {
        f();
    } catch (...) {
        LOG_ERROR("[CMM] Memory allocation error!\n");
    }
}

} // namespace cmm_detail
