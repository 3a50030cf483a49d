#include "comm/at_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "util/log.h"
#include "util/root_path.h"
#include "util/ubuffer.h"

namespace {

constexpr int logs_kept = 3;

std::string local_time(const char *fmt)
{
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    char buf[64];
    size_t n = strftime(buf, sizeof(buf), fmt, &tm);
    return std::string(buf, n);
}

void rotate_logs(const std::string &dir, const std::string &new_name)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            if (filter_log_name(e->d_name))
                names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());

    // Same modem: the name agrees up to the first digit of the time stamp
    // ("gsm_", the log name, "_", one digit; 11 more digits and ".log" follow).
    size_t prefix = new_name.size() > 15 ? new_name.size() - 15 : 0;
    int kept = 0;
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        if (it->compare(0, prefix, new_name, 0, prefix) != 0)
            continue;
        if (++kept <= logs_kept)
            continue;
        std::string path = dir + "/" + *it;
        if (unlink(path.c_str()) == 0)
            LOG_DEBUG("[CMM] Removed %s log file...\n", path.c_str());
        else
            LOG_ERROR("[CMM] Failed to remove %s log file (errno: %d)\n", path.c_str(), errno);
    }
}

} // namespace

std::string at_visible(const void *bytes, size_t n)
{
    const auto *p = static_cast<const char *>(bytes);
    std::string out;
    out.reserve(n + 16);
    for (size_t i = 0; i < n; i++) {
        switch (p[i]) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\0':
            break;
        default:
            out += p[i];
        }
    }
    return out;
}

bool fill_log_buffer(ubuffer &log, int sent, const void *bytes, size_t n)
{
    std::string record = local_time("[%Y-%m-%d %H:%M:%S]");
    record += sent ? " Sent: " : " Received: ";
    record += at_visible(bytes, n);
    record += '\n';
    log.append(record.data(), static_cast<uint32_t>(record.size()));
    return log.len() >= at_log_dump_size;
}

int dump_log_buffer(ubuffer &log, const char *log_name, const char *id, const char *vid_pid)
{
    if (log.len() == 0)
        return 0;

    std::string dir = wwan_path("/tmp");
    // At most 41 characters with the "/tmp/" in front, as on a router.
    char name[37];
    snprintf(name, sizeof(name), "gsm_%s_%s.log", log_name, local_time("%Y%m%d%H%M").c_str());
    std::string path = dir + "/" + name;

    int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) {
        LOG_ERROR("[CMM] Failed to open '%s'. %s\n", path.c_str(), strerror(errno));
        return 1;
    }
    ssize_t w = write(fd, log.buffer(), log.len());
    if (w < 0 || static_cast<size_t>(w) != log.len()) {
        LOG_ERROR("[CMM] Failed to write '%s'. %s\n", path.c_str(), strerror(errno));
        close(fd);
        return 1;
    }
    close(fd);
    LOG_DEBUG("[CMM] Logged %zu bytes of `%s [%s]` to modem log '%s'\n", static_cast<size_t>(log.len()), id,
              vid_pid, path.c_str());
    log.flush();
    rotate_logs(dir, name);
    return 0;
}

int filter_log_name(const char *name)
{
    return std::strncmp(name, "gsm_", 4) == 0 && std::strstr(name, ".log") != nullptr;
}

void dbg_print_at_ex(const void *bytes, size_t n, int force)
{
    if (!g_log_level && !force)
        return;
    time_t now = time(nullptr);
    char stamp[32];
    ctime_r(&now, stamp);
    stamp[strcspn(stamp, "\n")] = '\0';
    printf("%s %s\n", stamp, at_visible(bytes, n).c_str());
    fflush(stdout);
}
