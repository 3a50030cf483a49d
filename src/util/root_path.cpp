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
