#include "core/sim_config.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "util/log.h"
#include "util/ujson.h"

namespace fs = std::filesystem;

namespace {

std::string log_lines(const std::string &out)
{
    static const std::regex where(R"(^\[[^\]:]+:\d+\] )", std::regex::multiline);
    return std::regex_replace(out, where, "");
}

const char *sw1 = "/sys/class/gpio/sim_sel/value";
const char *sw2 = "/sys/class/gpio/sim_sel2/value";

class SimConfig : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/wwan-sim-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root = tmpl;
        setenv("WWANCTL_ROOT", root.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("WWANCTL_ROOT");
        log_level(0);
        fs::remove_all(root);
    }
    void write(const std::string &rel, const std::string &text)
    {
        fs::create_directories(fs::path(root + rel).parent_path());
        std::ofstream(root + rel) << text;
    }
    std::string read(const std::string &rel)
    {
        std::ifstream in(root + rel);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool exists(const std::string &rel) { return fs::exists(root + rel); }
    // The factory data, one slot text per line.
    void factory(const std::vector<std::string> &texts)
    {
        std::string all;
        for (auto &t : texts)
            all += t + "\n";
        write("/etc/mnfinfo/sim_cfg", all);
    }
    std::unique_ptr<sim_config> create(uint32_t modem, uint32_t &count)
    {
        testing::internal::CaptureStdout();
        auto cfg = sim_config_create(modem, count);
        last_log = log_lines(testing::internal::GetCapturedStdout());
        return cfg;
    }
    std::string root;
    std::string last_log;
};

// Slot text of the factory: control type, modem, type, switch-1, switch-2,
// presence.
sim_slot slot(uint32_t control, uint32_t type, uint32_t s1, uint32_t s2, uint32_t presence)
{
    return {type, control, s1, s2, presence};
}

void expect_slots(const sim_config &cfg, const std::vector<sim_slot> &want)
{
    for (size_t i = 0; i < sim_config::max_slots; i++) {
        SCOPED_TRACE("slot " + std::to_string(i + 1));
        sim_slot w = i < want.size() ? want[i] : sim_slot{};
        const sim_slot &s = cfg.slots()[i];
        EXPECT_EQ(s.type, w.type);
        EXPECT_EQ(s.control_type, w.control_type);
        EXPECT_EQ(s.switch1_state, w.switch1_state);
        EXPECT_EQ(s.switch2_state, w.switch2_state);
        EXPECT_EQ(s.presence, w.presence);
    }
}

const char *mixed_error = "error: Modem[%d] Invalid sim slot control type combination. Something is wrong with mnf_info!\n";

std::string mixed(int modem)
{
    char buf[160];
    std::snprintf(buf, sizeof(buf), mixed_error, modem);
    return buf;
}

TEST_F(SimConfig, SlotsOfTheRequestedModemFromTheFactoryData)
{
    const struct {
        const char *what;
        std::vector<std::string> texts; // empty: no factory file at all
        uint32_t modem;
        std::vector<sim_slot> slots;
        uint32_t kind;
        std::string log;
    } cases[] = {
        {"first answer N/A", {"N/A", "212101"}, 1, {}, 0, ""},
        {"no factory data", {}, 1, {}, 0, ""},
        {"two slots on switch 1",
         {"211101", "211200", "121000"},
         1,
         {slot(2, 1, 1, 0, 1), slot(2, 1, 2, 0, 0)},
         2,
         ""},
        {"the secondary modem's slots", {"211101", "121000", "N/A"}, 2, {slot(1, 1, 0, 0, 0)}, 1, ""},
        {"four slots on two switches",
         {"211111", "211211", "211121", "211221"},
         1,
         {slot(2, 1, 1, 1, 1), slot(2, 1, 2, 1, 1), slot(2, 1, 1, 2, 1), slot(2, 1, 2, 2, 1)},
         2,
         ""},
        {"characters outside 0 to 2 read as 0", {"21912x", "2A1201"}, 1, {slot(2, 0, 1, 2, 0)}, 2, ""},
        {"short texts are not slots", {"21120", "", "211101"}, 1, {slot(2, 1, 1, 0, 1)}, 2, ""},
        {"nothing after N/A", {"211101", "N/A", "211201"}, 1, {slot(2, 1, 1, 0, 1)}, 2, ""},
        {"at most four slots",
         {"211101", "211201", "211111", "211211", "211121"},
         1,
         {slot(2, 1, 1, 0, 1), slot(2, 1, 2, 0, 1), slot(2, 1, 1, 1, 1), slot(2, 1, 2, 1, 1)},
         2,
         ""},
        {"control types 1 and 2 mixed", {"111101", "211201"}, 1, {slot(1, 1, 1, 0, 1), slot(2, 1, 2, 0, 1)}, 2,
         mixed(1)},
        {"control type 0 wins", {"211101", "011201"}, 1, {slot(2, 1, 1, 0, 1), slot(0, 1, 2, 0, 1)}, 0, mixed(1)},
        {"other modems' types do not mix in", {"221101", "111201", "021000"}, 2,
         {slot(2, 1, 1, 0, 1), slot(0, 1, 0, 0, 0)}, 0, mixed(2)},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root + "/etc");
        if (!c.texts.empty())
            factory(c.texts);
        uint32_t count = 1; // the slots add to the caller's count
        auto cfg = create(c.modem, count);
        ASSERT_NE(cfg, nullptr);
        EXPECT_EQ(count, 1 + c.slots.size());
        expect_slots(*cfg, c.slots);
        EXPECT_EQ(cfg->control_kind(), c.kind);
        EXPECT_EQ(last_log, c.log);
    }
}

// Which selector files exist, what the factory says, and what setting one
// slot does to them.
struct set_case {
    const char *what;
    std::vector<std::string> texts;
    uint32_t slot;
    bool sw1_exists, sw2_exists;
    int sw1_ret, sw2_ret;
    const char *sw1_after, *sw2_after; // file content afterwards
};

TEST_F(SimConfig, SettingTheSwitches)
{
    const set_case cases[] = {
        {"slot 0", {"211111"}, 0, true, true, 2, 2, "x", "x"},
        {"slot 5", {"211111"}, 5, true, true, 2, 2, "x", "x"},
        {"high lines", {"212221"}, 1, true, true, 0, 0, "1", "1"},
        {"low lines", {"211111"}, 1, true, true, 0, 0, "0", "0"},
        {"second slot", {"211101", "211221"}, 2, true, true, 0, 0, "1", "1"},
        {"switch 1 needs control type 2; switch 2 does not", {"111121"}, 1, true, true, 1, 0, "x", "1"},
        {"unused lines are left alone", {"211001"}, 1, true, true, 1, 1, "x", "x"},
        {"a slot the factory did not list", {"211101"}, 3, true, true, 1, 1, "x", "x"},
        {"missing line files", {"211211"}, 1, false, false, 1, 1, nullptr, nullptr},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root + "/sys");
        factory(c.texts);
        uint32_t count = 0;
        auto cfg = create(1, count);
        ASSERT_NE(cfg, nullptr);
        if (c.sw1_exists)
            write(sw1, "x");
        if (c.sw2_exists)
            write(sw2, "x");

        bool done1 = false, done2 = false;
        EXPECT_EQ(cfg->set_sw1_value(c.slot, done1), c.sw1_ret);
        EXPECT_EQ(cfg->set_sw2_value(c.slot, done2), c.sw2_ret);
        EXPECT_EQ(done1, c.sw1_ret == 0);
        EXPECT_EQ(done2, c.sw2_ret == 0);
        // one character written over the start of the file
        if (c.sw1_after)
            EXPECT_EQ(read(sw1), c.sw1_after);
        else
            EXPECT_FALSE(exists(sw1));
        if (c.sw2_after)
            EXPECT_EQ(read(sw2), c.sw2_after);
        else
            EXPECT_FALSE(exists(sw2));
    }
}

TEST_F(SimConfig, AnUnwritableLineFails)
{
    factory({"212201"});
    uint32_t count = 0;
    auto cfg = create(1, count);
    fs::create_directories(root + sw1); // a directory cannot be opened for writing
    log_level(1);
    bool done = false;
    testing::internal::CaptureStdout();
    EXPECT_EQ(cfg->set_sw1_value(1, done), 1);
    std::string log = log_lines(testing::internal::GetCapturedStdout());
    EXPECT_FALSE(done);
    EXPECT_EQ(log, "debug: Failed to open '" + root + sw1 + "'. Is a directory\n");
}

TEST_F(SimConfig, ReadingSwitchOne)
{
    const struct {
        const char *content; // null: no file
        int ret;
        uint32_t state;
        std::string log;
    } cases[] = {
        {"0\n", 0, SIM_SWITCH_LOW, ""},
        {"1\n", 0, SIM_SWITCH_HIGH, ""},
        {"10\n", 0, SIM_SWITCH_HIGH, ""},
        {"2\n", 1, 0, "debug: Failed to parse sim state!\n"},
        {"", 1, 0, "debug: Failed to parse sim state!\n"},
        {nullptr, 1, 0, ""},
    };
    auto cfg = sim_config_create_placeholder();
    ASSERT_NE(cfg, nullptr);
    log_level(1);
    for (auto &c : cases) {
        SCOPED_TRACE(c.content ? c.content : "no file");
        fs::remove_all(root + "/sys");
        if (c.content)
            write(sw1, c.content);
        uint32_t state = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(cfg->get_sw1_value(state), c.ret);
        EXPECT_EQ(log_lines(testing::internal::GetCapturedStdout()), c.log);
        EXPECT_EQ(state, c.state);
    }
}

TEST_F(SimConfig, CurrentSlot)
{
    const struct {
        const char *what;
        std::vector<std::string> texts;
        uint32_t sw1_state;
        const char *sw2_content; // null: no file
        int ret;
        uint32_t slot;
    } cases[] = {
        {"switch 1 alone", {"211101", "211201"}, SIM_SWITCH_HIGH, nullptr, 0, 2},
        {"switch 1 alone, low", {"211101", "211201"}, SIM_SWITCH_LOW, nullptr, 0, 1},
        {"a slot on switch 1 alone comes first", {"211111", "211101"}, SIM_SWITCH_LOW, "1", 0, 2},
        {"then switch 2 decides", {"211111", "211121", "211211", "211221"}, SIM_SWITCH_HIGH, "1", 0, 4},
        {"switch 2 low", {"211111", "211121", "211211", "211221"}, SIM_SWITCH_HIGH, "0", 0, 3},
        {"switch 2 unreadable", {"211111", "211121"}, SIM_SWITCH_LOW, nullptr, 1, 0},
        {"no slot matches", {"211111", "211121"}, SIM_SWITCH_HIGH, "0", 1, 0},
        {"no slots", {"N/A"}, SIM_SWITCH_LOW, "0", 1, 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root + "/sys");
        factory(c.texts);
        if (c.sw2_content)
            write(sw2, c.sw2_content);
        uint32_t count = 0;
        auto cfg = create(1, count);
        uint32_t slot = 0;
        EXPECT_EQ(cfg->get_current_sim_slot(c.sw1_state, slot), c.ret);
        EXPECT_EQ(slot, c.slot);
    }
}

std::string json_text(const ujson &j)
{
    char *s = blobmsg_format_json(j.get_blobmsg(), true);
    std::string out = s ? s : "(null)";
    std::free(s);
    return out;
}

TEST_F(SimConfig, StatisticsListEverySlot)
{
    factory({"211121", "212210", "121000"});
    uint32_t count = 0;
    auto cfg = create(1, count);
    auto out = ujson::create();
    cfg->fill_stats(*out, count);

    std::string text = json_text(*out);
    auto parsed = ujson::create();
    ASSERT_TRUE(blobmsg_add_json_from_string(parsed->buffer(), text.c_str())) << text;
    ASSERT_TRUE(parsed->select_array("sim_config_list")) << text;
    const uint32_t want[][6] = {{1, 1, 2, 1, 2, 1}, {2, 2, 2, 2, 1, 0}};
    for (size_t i = 0; i < 2; i++) {
        SCOPED_TRACE(text);
        auto slot = ujson::create_ex(parsed->selection());
        EXPECT_EQ(slot->get_int("sim_slot"), static_cast<int32_t>(want[i][0]));
        EXPECT_EQ(slot->get_int("type"), static_cast<int32_t>(want[i][1]));
        EXPECT_EQ(slot->get_int("control_type"), static_cast<int32_t>(want[i][2]));
        EXPECT_EQ(slot->get_int("switch1_state"), static_cast<int32_t>(want[i][3]));
        EXPECT_EQ(slot->get_int("switch2_state"), static_cast<int32_t>(want[i][4]));
        EXPECT_EQ(slot->get_int("presence"), static_cast<int32_t>(want[i][5]));
        EXPECT_EQ(parsed->next_item(), i == 0);
    }
}

TEST_F(SimConfig, PlaceholderHasNoSlots)
{
    write(sw1, "x");
    write(sw2, "x");
    auto cfg = sim_config_create_placeholder();
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(cfg->control_kind(), 0u);
    expect_slots(*cfg, {});
    bool done = false;
    EXPECT_EQ(cfg->set_sw1_value(1, done), 1);
    EXPECT_EQ(cfg->set_sw2_value(1, done), 1);
    EXPECT_FALSE(done);
    EXPECT_EQ(read(sw1), "x");

    // a modem that is not built in reports its one slot, all zero
    auto out = ujson::create();
    cfg->fill_stats(*out, 1);
    ASSERT_TRUE(out->select_array("sim_config_list"));
    auto only = ujson::create_ex(out->selection());
    EXPECT_EQ(only->get_int("sim_slot"), 1);
    for (const char *key : {"type", "control_type", "switch1_state", "switch2_state", "presence"}) {
        EXPECT_TRUE(only->exists(key)) << key;
        EXPECT_EQ(only->get_int(key), 0) << key;
    }
    EXPECT_FALSE(out->next_item());
}

} // namespace
