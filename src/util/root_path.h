// Every filesystem path the daemon and its tools touch goes through here, so
// that tests and demos can run unprivileged inside a temporary tree.
#pragma once

#include <string>
#include <string_view>

// The root from WWANCTL_ROOT, or the empty text when it is unset.
std::string_view wwan_root();

// path (absolute) placed under the root; unchanged when no root is set.
std::string wwan_path(std::string_view path);

// The bus socket of the system's broker. The daemon and its tools place it
// under the root like every other path; the bus library has the same path
// built in for a null one.
constexpr std::string_view wwan_ubus_socket = "/var/run/ubus/ubus.sock";

// The longest port path a modem keeps ("/dev/ttyUSB2").
constexpr size_t wwan_port_path_max = 31;

// A modem port path as the daemon accepts it from descriptions and hot-plug
// events: under "/dev/", no "." or ".." component, no empty component, no
// control character, at most wwan_port_path_max bytes. Whether it is a
// terminal is checked when it is opened.
bool is_port_path(std::string_view path);
