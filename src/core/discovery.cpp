#include "core/discovery.h"

#include "wwan/ubox.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <unistd.h>

#include "util/log.h"
#include "util/root_path.h"
#include "util/ujson.h"

namespace {

constexpr const char *usb_devices_dir = "/sys/bus/usb/devices";
constexpr const char *board_file = "/etc/board.json";
constexpr size_t usb_id_max = 49;
constexpr size_t port_path_max = 261;
constexpr int first_free_number = 2;
constexpr int last_free_number = 11;

// Owns an open directory.
struct dir_closer {
    void operator()(DIR *d) const { closedir(d); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

std::string cut(std::string s, size_t max)
{
    if (s.size() > max)
        s.resize(max);
    return s;
}

// A flag of a JSON file: a boolean, or a number that is non-zero.
std::optional<bool> flag_of(blob_attr *attr)
{
    if (!attr)
        return std::nullopt;
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_BOOL:
        return blobmsg_get_bool(attr);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_get_u32(attr) != 0;
    case BLOBMSG_TYPE_INT64:
        return blobmsg_get_u64(attr) != 0;
    default:
        return std::nullopt;
    }
}

template <size_t N>
void parse_root(const ujson &file, const blobmsg_policy (&policy)[N], blob_attr *(&tb)[N])
{
    blob_attr *root = file.get_blobmsg();
    blobmsg_parse(policy, static_cast<int>(N), tb, blob_data(root), static_cast<unsigned int>(blob_len(root)));
}

// ---- description files ------------------------------------------------------

enum {
    DESC_BAUDRATE,
    DESC_CONTROL,
    DESC_SERIAL_CONTROL,
    DESC_GPS,
    DESC_GPS_OPTIONAL,
    DESC_DATA,
    DESC_DATA_SECONDARY,
    __DESC_MAX
};
const blobmsg_policy desc_policy[__DESC_MAX] = {
    {"boudrate", BLOBMSG_TYPE_INT32}, // spelled so in every description file
    {"control", BLOBMSG_TYPE_INT32},
    {"serial_control", BLOBMSG_TYPE_INT32},
    {"gps", BLOBMSG_TYPE_INT32},
    {"gps_optional", BLOBMSG_TYPE_UNSPEC},
    {"data", BLOBMSG_TYPE_INT32},
    {"data_secondary", BLOBMSG_TYPE_INT32},
};

// Ports of a model, as interface numbers of the USB device.
struct model_description {
    int baudrate = 0;
    int control = 0;
    int serial_control = 0; // a built-in UART instead of the control interface
    int gps = 0;
    bool gps_optional = false;
    int data = -1;
    int data_secondary = -1;
};

int int_or(blob_attr *attr, int fallback)
{
    return attr ? static_cast<int>(blobmsg_get_u32(attr)) : fallback;
}

std::optional<model_description> load_description(const std::string &path)
{
    auto file = ujson::create_file(path.c_str());
    if (!file) {
        LOG_ERROR("[MODEM_MANAGER] Unable to load %s file!\n", path.c_str());
        return std::nullopt;
    }
    blob_attr *tb[__DESC_MAX];
    parse_root(*file, desc_policy, tb);
    model_description d;
    d.baudrate = int_or(tb[DESC_BAUDRATE], 0);
    d.control = int_or(tb[DESC_CONTROL], 0);
    d.serial_control = int_or(tb[DESC_SERIAL_CONTROL], 0);
    d.gps = int_or(tb[DESC_GPS], 0);
    d.gps_optional = flag_of(tb[DESC_GPS_OPTIONAL]).value_or(false);
    d.data = int_or(tb[DESC_DATA], -1);
    d.data_secondary = int_or(tb[DESC_DATA_SECONDARY], -1);
    return d;
}

std::string interface_dir(const std::string &usb_id, int interface)
{
    char sub[96];
    std::snprintf(sub, sizeof(sub), "/%s:1.%d", usb_id.c_str(), interface);
    return wwan_path(usb_devices_dir) + sub;
}

// One device directory of the USB tree; nullopt when it is not a supported
// modem or one of its ports is missing.
std::optional<modem_descriptor> examine_device(const std::string &dir)
{
    std::optional<std::string> vid, pid, devpath, busnum;
    if (!(vid = get_dir_value(dir, "idVendor")) || !(pid = get_dir_value(dir, "idProduct")) ||
        !(devpath = get_dir_value(dir, "devpath")) || !(busnum = get_dir_value(dir, "busnum")))
        return std::nullopt;

    std::string desc_path = wwan_path("/lib/network/wwan/" + *vid + ":" + *pid);
    if (access(desc_path.c_str(), F_OK) != 0)
        return std::nullopt;
    auto desc = load_description(desc_path);
    if (!desc)
        return std::nullopt;

    modem_descriptor m;
    m.usb_id = cut(*busnum + "-" + *devpath, usb_id_max);
    m.usb_ids = *vid + ":" + *pid;
    m.baudrate = desc->baudrate;
    const char *id = m.usb_id.c_str();
    const char *ids = m.usb_ids.c_str();

    std::string gps_dir = interface_dir(m.usb_id, desc->gps);
    if (auto port = get_serial_port_name(gps_dir)) {
        m.gps_port = cut(*port, port_path_max);
    } else if (!desc->gps_optional) {
        LOG_ERROR("[MODEM_MANAGER] Failed to get gps serial port name for `%s [%s]` modem in `%s` dir!\n", id, ids,
                  gps_dir.c_str());
        return std::nullopt;
    }

    // Only a missing "data" port disqualifies the modem; a missing secondary
    // one (used when "data" is not given) leaves the data port empty.
    if (desc->data != -1 || desc->data_secondary != -1) {
        std::string data_dir = interface_dir(m.usb_id, desc->data != -1 ? desc->data : desc->data_secondary);
        if (auto port = get_serial_port_name(data_dir)) {
            m.data_port = cut(*port, port_path_max);
        } else if (desc->data != -1) {
            LOG_ERROR("[MODEM_MANAGER] Failed to get data serial port name for `%s [%s]` modem in `%s` dir!\n", id,
                      ids, data_dir.c_str());
            return std::nullopt;
        }
    }

    if (desc->serial_control) {
        m.cmd_port = "/dev/ttyS" + std::to_string(desc->serial_control);
    } else {
        std::string cmd_dir = interface_dir(m.usb_id, desc->control);
        auto port = get_serial_port_name(cmd_dir);
        if (!port) {
            LOG_ERROR("[MODEM_MANAGER] Failed to get cmd serial port name for `%s [%s]` modem in `%s` dir!\n", id,
                      ids, cmd_dir.c_str());
            return std::nullopt;
        }
        m.cmd_port = cut(*port, port_path_max);
    }
    return m;
}

bool is_tty_name(const char *name)
{
    return std::strncmp(name, "tty", 3) == 0;
}

// ---- board file -------------------------------------------------------------

enum { BOARD_MODEMS, BOARD_BLOCKED, __BOARD_MAX };
const blobmsg_policy board_policy[__BOARD_MAX] = {
    {"modems", BLOBMSG_TYPE_ARRAY},
    {"blocked_modems", BLOBMSG_TYPE_ARRAY},
};

enum { ENTRY_USB_ID, ENTRY_BUILTIN, ENTRY_PRIMARY, __ENTRY_MAX };
const blobmsg_policy entry_policy[__ENTRY_MAX] = {
    {"usb_id", BLOBMSG_TYPE_STRING},
    {"builtin", BLOBMSG_TYPE_UNSPEC},
    {"primary", BLOBMSG_TYPE_UNSPEC},
};

struct board_entry {
    std::string usb_id;
    bool builtin = false;
    std::optional<bool> primary;
};

std::unique_ptr<ujson> load_board()
{
    std::string path = wwan_path(board_file);
    auto file = ujson::create_file(path.c_str());
    if (!file)
        LOG_ERROR("[MODEM_MANAGER] Unable to load %s file!\n", path.c_str());
    return file;
}

// The board's "modems" entries; nullopt (logged) when the array or an entry
// cannot be read.
std::optional<std::vector<board_entry>> board_modems(ujson &file)
{
    blob_attr *tb[__BOARD_MAX];
    parse_root(file, board_policy, tb);
    if (!tb[BOARD_MODEMS]) {
        LOG_ERROR("[MODEM_MANAGER] Array `%s` does not exist!\n", "modems");
        return std::nullopt;
    }

    std::vector<board_entry> entries;
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, tb[BOARD_MODEMS], rem) {
        blob_attr *f[__ENTRY_MAX] = {};
        if (blobmsg_type(cur) == BLOBMSG_TYPE_TABLE)
            blobmsg_parse(entry_policy, __ENTRY_MAX, f, blobmsg_data(cur), blobmsg_data_len(cur));
        if (!f[ENTRY_USB_ID]) {
            LOG_ERROR("[MODEM_MANAGER] Failed to read modem board.json info!\n");
            return std::nullopt;
        }
        board_entry e;
        e.usb_id = blobmsg_get_string(f[ENTRY_USB_ID]);
        e.builtin = flag_of(f[ENTRY_BUILTIN]).value_or(false);
        e.primary = flag_of(f[ENTRY_PRIMARY]);
        entries.push_back(std::move(e));
    }
    return entries;
}

size_t count_builtin(const std::vector<board_entry> &entries)
{
    return static_cast<size_t>(std::count_if(entries.begin(), entries.end(), [](auto &e) { return e.builtin; }));
}

} // namespace

std::optional<std::string> get_dir_value(std::string_view directory, std::string_view attribute)
{
    std::string dir(directory);
    dir_ptr d(opendir(dir.c_str()));
    if (!d) {
        LOG_ERROR("[MODEM_MANAGER] Cannot open %s directory!\n", dir.c_str());
        return std::nullopt;
    }
    std::string path = dir + "/" + std::string(attribute);
    FILE *f = std::fopen(path.c_str(), "r");
    if (!f)
        return std::nullopt;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n = getline(&line, &cap, f);
    std::fclose(f);
    std::optional<std::string> value;
    if (n >= 0)
        value.emplace(line, std::strcspn(line, "\r\n"));
    std::free(line);
    return value;
}

// A 32-bit readdir() fails with EOVERFLOW where the file system's directory
// cookies exceed 32 bits, and the listing looks empty.
static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");

// sysfs shows a USB serial port as a "ttyUSB<n>" entry of the interface and
// an ACM port as "tty/ttyACM<n>"; both count.
std::optional<std::string> get_serial_port_name(std::string_view interface_dir)
{
    std::string dir(interface_dir);
    dir_ptr d(opendir(dir.c_str()));
    if (!d) {
        LOG_DEBUG("[MODEM_MANAGER] Cannot open %s directory!\n", dir.c_str());
        return std::nullopt;
    }
    while (dirent *e = readdir(d.get())) {
        if (!is_tty_name(e->d_name))
            continue;
        if (e->d_name[3] != '\0')
            return std::string("/dev/") + e->d_name;
        if (auto inner = get_serial_port_name(dir + "/tty"))
            return inner;
    }
    return std::nullopt;
}

int scan_usb_subsystem(std::vector<modem_descriptor> &found)
{
    std::string root = wwan_path(usb_devices_dir);
    dir_ptr d(opendir(root.c_str()));
    if (!d) {
        LOG_ERROR("[MODEM_MANAGER] Cannot open %s directory!\n", root.c_str());
        return -1;
    }
    while (dirent *e = readdir(d.get())) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0)
            continue;
        if (auto m = examine_device(root + "/" + e->d_name))
            found.push_back(std::move(*m));
    }
    return 0;
}

static int board_flags(ujson &file, std::string_view usb_id, board_modem &flags)
{
    flags = {};
    auto entries = board_modems(file);
    if (!entries)
        return 1;
    for (const board_entry &e : *entries) {
        if (e.usb_id != usb_id)
            continue;
        flags.builtin = e.builtin;
        flags.primary = e.primary.value_or(e.builtin && count_builtin(*entries) == 1);
        break;
    }
    return 0;
}

int handle_board_json_modem_primary(std::string_view usb_id, board_modem &flags)
{
    flags = {};
    auto file = load_board();
    return file ? board_flags(*file, usb_id, flags) : 1;
}

bool is_single_builtin_modem()
{
    auto file = load_board();
    auto entries = file ? board_modems(*file) : std::nullopt;
    return entries && count_builtin(*entries) == 1;
}

static bool blocked_in(ujson &file, std::string_view usb_id, std::string_view vid_pid)
{
    blob_attr *tb[__BOARD_MAX];
    parse_root(file, board_policy, tb);
    if (!tb[BOARD_BLOCKED]) {
        LOG_ERROR("[MODEM_MANAGER] Array `%s` does not exist!\n", "blocked_modems");
        return false;
    }
    blob_attr *cur;
    size_t rem;
    blobmsg_for_each_attr(cur, tb[BOARD_BLOCKED], rem) {
        if (blobmsg_type(cur) != BLOBMSG_TYPE_STRING || usb_id != blobmsg_get_string(cur))
            continue;
        std::string id(usb_id), ids(vid_pid);
        LOG_ERROR("[MODEM_MANAGER] Modem `%s [%s]` is on the black list! Skipping...\n", id.c_str(), ids.c_str());
        return true;
    }
    return false;
}

bool is_modem_blocked(std::string_view usb_id, std::string_view vid_pid)
{
    auto file = load_board();
    return file && blocked_in(*file, usb_id, vid_pid);
}

board_verdict check_board(std::string_view usb_id, std::string_view vid_pid, board_modem &flags)
{
    flags = {};
    auto file = load_board();
    if (!file)
        return board_verdict::unreadable;
    if (blocked_in(*file, usb_id, vid_pid))
        return board_verdict::blocked;
    // A board that does not list the modem makes it an external one.
    (void)board_flags(*file, usb_id, flags);
    return board_verdict::serve;
}

std::optional<std::string> get_free_name(std::span<const std::string_view> names_in_use, bool builtin, bool primary)
{
    if (builtin)
        return primary ? "gsm.modem0" : "gsm.modem1";
    for (int n = first_free_number; n <= last_free_number; n++) {
        std::string name = "gsm.modem" + std::to_string(n);
        if (std::find(names_in_use.begin(), names_in_use.end(), name) == names_in_use.end())
            return name;
    }
    return std::nullopt;
}
