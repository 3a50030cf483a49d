// The package's bus access list as the broker reads it: non-root peers in
// the "wwan" group may watch the modems (events, notifications, the daemon's
// statistics) and nothing more; the hot-plug events and the modem objects
// stay root's unless the router's owner adds a file granting them.
#ifdef WWANCTL_BROKER_ACL

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "broker_acl.h"
#include "util/root_test_support.h"

namespace fs = std::filesystem;

namespace
{

const fs::path acl_file = fs::path(WWANCTL_SOURCE_DIR) / "openwrt/wwanctl/files/wwanctl.acl.json";

const ubusd::credentials watcher{1000, 1000, "status", "wwan"};
const ubusd::credentials stranger{1001, 1001, "guest", "users"};
const ubusd::credentials wwan_user_other_group{1002, 1002, "wwan", "users"};

// What the router's owner might add: the wwan group may read one modem
// method.
const char *const owner_grant = R"({"group":"wwan","access":{"gsm.modem*":{"methods":["get_signal"]}}})";

struct acl_case {
    const char *what;
    const ubusd::credentials *who;
    ubusd::acl_op op;
    const char *name;
    const char *method;
    bool allowed;
    bool allowed_with_owner_grant;
};

using ubusd::acl_op;

// clang-format off
const acl_case cases[] = {
    // Watching.
    {"daemon events", &watcher, acl_op::listen, "gsm.*", nullptr, true, true},
    {"one daemon event", &watcher, acl_op::listen, "gsm.modem.hang", nullptr, true, true},
    {"SIM change", &watcher, acl_op::listen, "sim.changed", nullptr, true, true},
    {"modem notifications", &watcher, acl_op::subscribe, "gsm.modem0", nullptr, true, true},
    {"daemon notifications", &watcher, acl_op::subscribe, "gsm", nullptr, true, true},
    {"daemon statistics", &watcher, acl_op::access, "gsm", "info", true, true},
    // Root's alone.
    {"hot-plug events heard", &watcher, acl_op::listen, "hotplug.modem_added", nullptr, false, false},
    {"every event heard", &watcher, acl_op::listen, "*", nullptr, false, false},
    {"a modem announced", &watcher, acl_op::send, "hotplug.modem_added", nullptr, false, false},
    {"a modem withdrawn", &watcher, acl_op::send, "hotplug.modem_removed", nullptr, false, false},
    {"a daemon event forged", &watcher, acl_op::send, "gsm.new_modem", nullptr, false, false},
    {"a modem object published", &watcher, acl_op::publish, "gsm.modem0", nullptr, false, false},
    {"the daemon object published", &watcher, acl_op::publish, "gsm", nullptr, false, false},
    {"modems attached", &watcher, acl_op::access, "gsm", "attach", false, false},
    {"modems detached", &watcher, acl_op::access, "gsm", "deattach", false, false},
    {"raw AT", &watcher, acl_op::access, "gsm.modem0", "exec", false, false},
    {"modem identity", &watcher, acl_op::access, "gsm.modem0", "info", false, false},
    {"modem signal", &watcher, acl_op::access, "gsm.modem2", "get_signal", false, true},
    {"a daemon method through a modem grant", &watcher, acl_op::access, "gsm", "get_signal", false, false},
    // Outside the group nothing at all.
    {"stranger: events", &stranger, acl_op::listen, "gsm.*", nullptr, false, false},
    {"stranger: notifications", &stranger, acl_op::subscribe, "gsm.modem0", nullptr, false, false},
    {"stranger: statistics", &stranger, acl_op::access, "gsm", "info", false, false},
    {"stranger: modem signal", &stranger, acl_op::access, "gsm.modem0", "get_signal", false, false},
    {"a user named like the group", &wwan_user_other_group, acl_op::listen, "gsm.*", nullptr, false, false},
};
// clang-format on

TEST(PackageAcl, GrantsWatchingOnlyUnlessTheOwnerGrantsMore)
{
    temp_root root;
    std::ifstream in(acl_file);
    // Installed as the package installs it: 0644.
    root.write("/wwanctl.json", std::string(std::istreambuf_iterator<char>(in), {}));
    for (bool granted : {false, true}) {
        SCOPED_TRACE(granted ? "with the owner's grant" : "as installed");
        if (granted)
            root.write("/zz-owner.json", owner_grant);
        for (const char *file : {"/wwanctl.json", "/zz-owner.json"})
            if (root.exists(file))
                chmod((root / file).c_str(), 0644);
        std::vector<std::string> notes;
        ubusd::acl_table acl = ubusd::acl_table::load(root.path(), getuid(), &notes);
        EXPECT_EQ(notes, std::vector<std::string>{});
        ASSERT_EQ(acl.size(), granted ? 2u : 1u) << "the files are not read as access lists";
        for (const acl_case &c : cases) {
            SCOPED_TRACE(c.what);
            EXPECT_EQ(acl.allows(*c.who, c.op, c.name, c.method), granted ? c.allowed_with_owner_grant : c.allowed);
        }
    }
}

} // namespace

#endif
