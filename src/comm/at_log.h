// AT traffic log: every byte written to and read from a modem, kept in
// memory and written in batches to files under /tmp, three newest per modem.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class ubuffer;

// Appends one record "[time] Sent: ..." or "[time] Received: ..." with line
// ends made visible. Returns true when the log reached its dump size.
bool fill_log_buffer(ubuffer &log, int sent, const void *bytes, size_t n);

// Writes the log to "/tmp/gsm_<log_name>_<minute>.log" (under the root),
// empties it, and removes all but the three newest files of this modem.
// id and vid_pid name the modem in messages. Returns 0 on success.
int dump_log_buffer(ubuffer &log, const char *log_name, const char *id, const char *vid_pid);

// 1 for a directory entry name that is a traffic log.
int filter_log_name(const char *name);

// Prints the bytes with a time stamp at debug level, or always with force.
void dbg_print_at_ex(const void *bytes, size_t n, int force);

// The bytes with "\n" and "\r" written as backslash sequences, NULs dropped.
std::string at_visible(const void *bytes, size_t n);

constexpr uint32_t at_log_dump_size = 32768;
