// The filesystem a router shows the daemon, built in a temporary root: the
// USB device tree, the per-model description files and the board file.
#pragma once

#include <map>
#include <string>

namespace e2e {

// A directory under /tmp used as WWANCTL_ROOT; removed with its content.
class temp_root
{
  public:
    temp_root();
    ~temp_root();
    temp_root(const temp_root &) = delete;
    temp_root &operator=(const temp_root &) = delete;

    const std::string &path() const { return path_; }
    // path (absolute, as the daemon names it) inside the root.
    std::string operator/(const std::string &path) const { return path_ + path; }

  private:
    std::string path_;
};

// Writes text to path, creating the missing parent directories.
void write_file(const std::string &path, const std::string &text);
void make_dirs(const std::string &path);
std::string read_file(const std::string &path);

// One entry of /sys/bus/usb/devices: the device directory with its attribute
// files and, per interface, the directory "<usb id>:1.<n>/<tty>".
struct usb_device {
    std::string busnum = "1";
    std::string devpath = "1";
    std::string vid = "2c7c";
    std::string pid = "0125";
    std::map<int, std::string> ttys = {{1, "ttyUSB1"}, {2, "ttyUSB2"}};

    std::string usb_id() const { return busnum + "-" + devpath; }
    std::string usb_ids() const { return vid + ":" + pid; }
};

void add_usb_device(const temp_root &root, const usb_device &dev);
// The description file /lib/network/wwan/<vid>:<pid>.
void add_description(const temp_root &root, const std::string &vid_pid, const std::string &text);
void write_board(const temp_root &root, const std::string &text);

// The EC25's description: AT port on interface 2, optional GNSS on 1.
extern const char *const ec25_description;

} // namespace e2e
