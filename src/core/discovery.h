// Discovery of modems for the modem manager: the USB device tree, the
// per-model description files, the board file and the bus object names.
//
// The board file "/etc/board.json" follows the board.json layout of OpenWrt:
// one JSON object whose built-in modems are the array "modems" of tables
// keyed by their USB id, plus the array "blocked_modems" of USB ids never to
// be served:
//
//   {
//     "model": { "id": "...", "name": "..." },
//     "modems": [
//       { "usb_id": "1-1", "builtin": true, "primary": true },
//       { "usb_id": "1-2", "builtin": true }
//     ],
//     "blocked_modems": [ "3-1.4" ]
//   }
//
// Flags may be JSON booleans or numbers (non-zero is set).
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// What the USB scan learns about one supported modem: everything the manager
// needs to create it. Port paths are device paths ("/dev/ttyUSB2"), not
// placed under the root; an absent port is empty.
struct modem_descriptor {
    std::string usb_id;  // "<busnum>-<devpath>", at most 49 characters
    std::string usb_ids; // "<idVendor>:<idProduct>" as sysfs gives them
    int baudrate = 0;
    std::string cmd_port; // each port path at most 261 characters
    std::string gps_port;
    std::string data_port;
};

// Scans "/sys/bus/usb/devices" and appends one descriptor per supported
// modem found (a device with a description file "/lib/network/wwan/vid:pid"
// whose ports are all present) in directory order. 0, or -1 when the
// directory cannot be opened. A bad entry is logged and skipped.
[[nodiscard]] int scan_usb_subsystem(std::vector<modem_descriptor> &found);

// The first tty under an interface directory (path as the system sees it),
// as "/dev/<name>"; nullopt when there is none or the directory cannot be
// opened.
std::optional<std::string> get_serial_port_name(std::string_view interface_dir);

// The first line of the attribute file "<directory>/<attribute>" (path as
// the system sees it), without its line end; nullopt when the directory or
// the file cannot be read.
std::optional<std::string> get_dir_value(std::string_view directory, std::string_view attribute);

// Board data of one modem.
struct board_modem {
    bool builtin = false;
    bool primary = false;
};

// The "builtin" and "primary" flags of the modem whose "usb_id" matches; both
// false when the board does not list it. The only built-in modem of a board
// is primary unless its entry says "primary": false. 0, or 1 when the board
// file, its "modems" array or one of its entries cannot be read.
[[nodiscard]] int handle_board_json_modem_primary(std::string_view usb_id, board_modem &flags);

// True when the board lists exactly one built-in modem.
bool is_single_builtin_modem();

// True (logged) when usb_id is in the board's "blocked_modems". A board file
// that cannot be loaded or has no such array blocks nothing.
bool is_modem_blocked(std::string_view usb_id, std::string_view vid_pid);

// What the board says of a new modem, from one reading of the file: serve
// it (flags as handle_board_json_modem_primary gives them), it is blocked
// (logged), or the file cannot be loaded (logged) - then nothing tells
// whether it is blocked, so it is not served.
enum class board_verdict { serve, blocked, unreadable };
board_verdict check_board(std::string_view usb_id, std::string_view vid_pid, board_modem &flags);

// The bus object name of a modem: "gsm.modem0" for the built-in primary
// modem, "gsm.modem1" for a built-in secondary one, otherwise the first of
// "gsm.modem2" to "gsm.modem11" not in names_in_use; nullopt when all ten
// are taken.
std::optional<std::string> get_free_name(std::span<const std::string_view> names_in_use, bool builtin, bool primary);
