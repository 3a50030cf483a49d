#include "libmnfinfo.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char *sim_cfg_file = "/etc/mnfinfo/sim_cfg";
constexpr const char *not_available = "N/A";

// The platform layer does not depend on the daemon's utilities, so the root
// is applied here the same way: a trailing slash or a bare "/" adds nothing.
std::string rooted(const char *path)
{
    std::string root;
    if (const char *r = std::getenv("WWANCTL_ROOT"))
        root = r;
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root + path;
}

void copy_out(const std::string &text, char *buf, size_t len)
{
    size_t n = text.size() < len - 1 ? text.size() : len - 1;
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
}

} // namespace

int lmnfinfo_get_sim_cfg(int index, char *buf, size_t len)
{
    if (index < 1 || !buf || len == 0) {
        errno = EINVAL;
        return -1;
    }

    std::string text = not_available;
    if (FILE *f = std::fopen(rooted(sim_cfg_file).c_str(), "r")) {
        char *line = nullptr;
        size_t cap = 0;
        for (int i = 1; getline(&line, &cap, f) >= 0; i++) {
            if (i == index) {
                line[std::strcspn(line, "\r\n")] = '\0';
                text = line;
                break;
            }
        }
        std::free(line);
        std::fclose(f);
    }
    copy_out(text, buf, len);
    return 0;
}
