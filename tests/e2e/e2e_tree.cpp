#include "tests/e2e/e2e_tree.h"

#include <ftw.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace e2e {

const char *const ec25_description = R"({"desc":"EC25","boudrate":115200,"control":2,"gps":1,"gps_optional":true})";

namespace {

int remove_entry(const char *path, const struct stat *, int, FTW *)
{
    return remove(path);
}

} // namespace

temp_root::temp_root()
{
    char tmpl[] = "/tmp/wwan-e2e-XXXXXX";
    if (mkdtemp(tmpl))
        path_ = tmpl;
}

temp_root::~temp_root()
{
    // WWAN_E2E_KEEP=1 leaves the tree (logs, transcripts) for a post-mortem.
    const char *keep = getenv("WWAN_E2E_KEEP");
    if (!path_.empty() && !(keep && *keep == '1'))
        nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void make_dirs(const std::string &path)
{
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        mkdir(path.substr(0, pos).c_str(), 0755);
    }
}

void write_file(const std::string &path, const std::string &text)
{
    make_dirs(path.substr(0, path.rfind('/')));
    std::ofstream(path, std::ios::trunc) << text;
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void add_usb_device(const temp_root &root, const usb_device &dev)
{
    std::string devices = root / "/sys/bus/usb/devices/";
    std::string dir = devices + dev.usb_id();
    write_file(dir + "/idVendor", dev.vid + "\n");
    write_file(dir + "/idProduct", dev.pid + "\n");
    write_file(dir + "/devpath", dev.devpath + "\n");
    write_file(dir + "/busnum", dev.busnum + "\n");
    for (const auto &[interface, tty] : dev.ttys) {
        std::string iface = devices + dev.usb_id() + ":1." + std::to_string(interface);
        write_file(iface + "/bInterfaceNumber", std::to_string(interface) + "\n");
        make_dirs(iface + "/" + tty);
    }
}

void add_description(const temp_root &root, const std::string &vid_pid, const std::string &text)
{
    write_file(root / ("/lib/network/wwan/" + vid_pid), text);
}

void write_board(const temp_root &root, const std::string &text)
{
    write_file(root / "/etc/board.json", text);
}

} // namespace e2e
