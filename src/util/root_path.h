// Every filesystem path the daemon and its tools touch goes through here, so
// that tests and demos can run unprivileged inside a temporary tree.
#pragma once

#include <string>
#include <string_view>

// The root from WWANCTL_ROOT, or the empty text when it is unset.
std::string_view wwan_root();

// path (absolute) placed under the root; unchanged when no root is set.
std::string wwan_path(std::string_view path);
