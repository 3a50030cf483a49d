// Logging: one line per statement on standard output, flushed at once, in the
// form "[function:line] level: message". Debug lines only while the level is on.
#pragma once

#include <cstdint>
#include <cstdio>

extern uint32_t g_log_level;

// Stores the level; non-zero switches debug output on.
void log_level(uint32_t level);

#define WWAN_LOG_AT(level_text, fmt, ...)                                                  \
    do {                                                                                   \
        std::printf("[%s:%d] " level_text ": " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__); \
        std::fflush(stdout);                                                               \
    } while (0)

#define LOG_DEBUG(fmt, ...)                                           \
    do {                                                              \
        if (g_log_level)                                              \
            WWAN_LOG_AT("debug", fmt __VA_OPT__(, ) __VA_ARGS__);     \
    } while (0)

#define LOG_WARNING(fmt, ...) WWAN_LOG_AT("warning", fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR(fmt, ...) WWAN_LOG_AT("error", fmt __VA_OPT__(, ) __VA_ARGS__)
