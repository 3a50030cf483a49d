// Control of a modem's network interfaces through the system's interface
// service on the bus ("network.interface"): around an operator scan the
// interfaces of the modem that are up are taken down, and the same ones are
// brought up again afterwards.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct blob_attr;
struct ubus_context;
struct ubus_request;

enum iface_action : int {
    IFACE_ACTION_NONE = 0, // names no method: every call fails
    IFACE_ACTION_UP = 1,
    IFACE_ACTION_DOWN = 2,
};

// The interfaces of one modem that an operator scan took down. Filled by
// going down and kept by the caller until the interfaces are up again; the
// destructor releases it.
class op_scan_storage {
public:
    explicit op_scan_storage(std::string_view modem) : modem_(modem) {}
    op_scan_storage(const op_scan_storage &) = delete;
    op_scan_storage &operator=(const op_scan_storage &) = delete;

    // The modem identifier compared with an interface's "modem" field.
    const std::string &modem() const { return modem_; }
    const std::vector<std::string> &interfaces() const { return interfaces_; }
    void add(std::string_view name) { interfaces_.emplace_back(name); }

private:
    std::string modem_;
    std::vector<std::string> interfaces_;
};

// Result bits of modem_interface_action.
enum : int {
    IFACE_CALL_FAILED = 1,
    IFACE_NOT_FOUND = 2,
};

// Going down first asks "network.interface" for its "dump" and records in
// list every interface of list.modem() that is up; both directions then call
// "up" or "down" on "network.interface.<name>" for each recorded name.
// 0 when every call succeeded; else IFACE_CALL_FAILED | IFACE_NOT_FOUND as
// they happened, or 1 when the dump failed.
[[nodiscard]] int modem_interface_action(ubus_context *ctx, op_scan_storage &list, iface_action action);

// Reply handler of the "dump" call (req->priv is the op_scan_storage).
void handle_dump(ubus_request *req, int type, blob_attr *msg);
