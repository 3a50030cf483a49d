// Modem instance: one per attached modem. It is named in every log line as
// "`id [vid_pid]`": its USB device id and its USB vendor:product text.
#pragma once

#include <algorithm>
#include <cstring>
#include <string_view>

class modem
{
  public:
    const char *id() const { return id_; }
    const char *vid_pid() const { return vid_pid_; }

    // Copies the identity, cut to 15 and 9 characters.
    void set_identity(std::string_view id, std::string_view vid_pid)
    {
        copy_text(id_, sizeof(id_), id);
        copy_text(vid_pid_, sizeof(vid_pid_), vid_pid);
    }

  private:
    static void copy_text(char *dst, size_t size, std::string_view src)
    {
        size_t n = std::min(size - 1, src.size());
        std::memcpy(dst, src.data(), n);
        std::memset(dst + n, 0, size - n);
    }

    char id_[16] = {};
    char vid_pid_[10] = {};
};
