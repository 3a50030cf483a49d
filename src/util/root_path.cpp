#include "util/root_path.h"

#include <cstdlib>

std::string_view wwan_root()
{
    const char *root = std::getenv("WWANCTL_ROOT");
    if (!root)
        return {};
    std::string_view r(root);
    while (r.size() > 1 && r.back() == '/')
        r.remove_suffix(1);
    return r == "/" ? std::string_view{} : r;
}

std::string wwan_path(std::string_view path)
{
    std::string out(wwan_root());
    out += path;
    return out;
}

bool is_port_path(std::string_view path)
{
    if (path.size() > wwan_port_path_max || !path.starts_with("/dev/"))
        return false;
    for (char c : path)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return false;
    std::string_view rest = path.substr(5);
    while (true) {
        size_t slash = rest.find('/');
        std::string_view part = rest.substr(0, slash);
        if (part.empty() || part == "." || part == "..")
            return false;
        if (slash == std::string_view::npos)
            return true;
        rest.remove_prefix(slash + 1);
    }
}
