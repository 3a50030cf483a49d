#include "core/sim_config.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "util/log.h"
#include "util/root_test_support.h"
#include "util/ujson.h"

namespace
{

const char *sw1 = "/sys/class/gpio/sim_sel/value";
const char *sw2 = "/sys/class/gpio/sim_sel2/value";

class SimConfig : public testing::Test
{
  protected:
    void TearDown() override { log_level(0); }
    // The factory data, one slot text per line (control type, modem, type,
    // switch-1, switch-2, presence); none: no factory file.
    std::unique_ptr<sim_config> create(const std::vector<std::string> &texts, uint32_t modem, uint32_t &count)
    {
        root.remove("/etc");
        std::string all;
        for (auto &t : texts)
            all += t + "\n";
        if (!texts.empty())
            root.write("/etc/mnfinfo/sim_cfg", all);
        testing::internal::CaptureStdout();
        auto cfg = sim_config_create(modem, count);
        testing::internal::GetCapturedStdout();
        return cfg;
    }
    temp_root root;
};

// A slot as its factory text without the modem digit; all four slots.
std::vector<std::string> slot_texts(const sim_config &cfg)
{
    std::vector<std::string> out;
    for (const sim_slot &s : cfg.slots())
        out.push_back(std::to_string(s.control_type) + std::to_string(s.type) + std::to_string(s.switch1_state) +
                      std::to_string(s.switch2_state) + std::to_string(s.presence));
    return out;
}

TEST_F(SimConfig, SlotsOfTheRequestedModemFromTheFactoryData)
{
    const struct {
        const char *what;
        std::vector<std::string> texts;
        uint32_t modem;
        std::vector<std::string> slots; // the rest are all zero
        uint32_t kind;
    } cases[] = {
        {"first answer N/A", {"N/A", "212101"}, 1, {}, 0},
        {"no factory data", {}, 1, {}, 0},
        {"two slots on switch 1", {"211101", "211200", "121000"}, 1, {"21101", "21200"}, 2},
        {"the secondary modem's slots", {"211101", "121000", "N/A"}, 2, {"11000"}, 1},
        {"four slots on two switches",
         {"211111", "211211", "211121", "211221"},
         1,
         {"21111", "21211", "21121", "21221"},
         2},
        {"characters outside 0 to 2 read as 0", {"21912x", "2A1201"}, 1, {"20120"}, 2},
        {"short texts are not slots", {"21120", "", "211101"}, 1, {"21101"}, 2},
        {"nothing after N/A", {"211101", "N/A", "211201"}, 1, {"21101"}, 2},
        {"at most four slots",
         {"211101", "211201", "211111", "211211", "211121"},
         1,
         {"21101", "21201", "21111", "21211"},
         2},
        {"control types 1 and 2 mixed", {"111101", "211201"}, 1, {"11101", "21201"}, 2},
        {"control type 0 wins", {"211101", "011201"}, 1, {"21101", "01201"}, 0},
        {"other modems' types do not mix in", {"221101", "111201", "021000"}, 2, {"21101", "01000"}, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        uint32_t count = 1; // the slots add to the caller's count
        auto cfg = create(c.texts, c.modem, count);
        ASSERT_NE(cfg, nullptr);
        EXPECT_EQ(count, 1 + c.slots.size());
        std::vector<std::string> want = c.slots;
        want.resize(sim_config::max_slots, "00000");
        EXPECT_EQ(slot_texts(*cfg), want);
        EXPECT_EQ(cfg->control_kind(), c.kind);
    }
}

// Which selector files exist, what the factory says, and what setting one
// slot does to them.
TEST_F(SimConfig, SettingTheSwitches)
{
    const struct {
        const char *what;
        std::vector<std::string> texts;
        uint32_t slot;
        bool lines_exist;
        int sw1_ret, sw2_ret;
        const char *sw1_after, *sw2_after; // file content afterwards
    } cases[] = {
        {"slot 0", {"211111"}, 0, true, 2, 2, "x", "x"},
        {"slot 5", {"211111"}, 5, true, 2, 2, "x", "x"},
        {"high lines", {"212221"}, 1, true, 0, 0, "1", "1"},
        {"low lines", {"211111"}, 1, true, 0, 0, "0", "0"},
        {"second slot", {"211101", "211221"}, 2, true, 0, 0, "1", "1"},
        {"switch 1 needs control type 2; switch 2 does not", {"111121"}, 1, true, 1, 0, "x", "1"},
        {"unused lines are left alone", {"211001"}, 1, true, 1, 1, "x", "x"},
        {"a slot the factory did not list", {"211101"}, 3, true, 1, 1, "x", "x"},
        {"missing line files", {"211211"}, 1, false, 1, 1, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        root.remove("/sys");
        uint32_t count = 0;
        auto cfg = create(c.texts, 1, count);
        ASSERT_NE(cfg, nullptr);
        if (c.lines_exist) {
            root.write(sw1, "x");
            root.write(sw2, "x");
        }
        bool done1 = false, done2 = false;
        EXPECT_EQ(cfg->set_sw1_value(c.slot, done1), c.sw1_ret);
        EXPECT_EQ(cfg->set_sw2_value(c.slot, done2), c.sw2_ret);
        EXPECT_EQ(done1, c.sw1_ret == 0);
        EXPECT_EQ(done2, c.sw2_ret == 0);
        // one character written over the start of the file
        EXPECT_EQ(root.read(sw1), c.sw1_after);
        EXPECT_EQ(root.read(sw2), c.sw2_after);
        EXPECT_EQ(root.exists(sw1), c.lines_exist);
    }

    // A line that cannot be opened for writing.
    uint32_t count = 0;
    auto cfg = create({"212201"}, 1, count);
    root.remove("/sys");
    root.write(std::string(sw1) + "/x", "");
    bool done = false;
    EXPECT_EQ(cfg->set_sw1_value(1, done), 1);
    EXPECT_FALSE(done);
}

TEST_F(SimConfig, ReadingSwitchOne)
{
    const struct {
        const char *content; // null: no file
        int ret;
        uint32_t state;
    } cases[] = {
        {"0\n", 0, SIM_SWITCH_LOW},
        {"1\n", 0, SIM_SWITCH_HIGH},
        {"10\n", 0, SIM_SWITCH_HIGH},
        {"2\n", 1, 0},
        {"", 1, 0},
        {nullptr, 1, 0},
    };
    auto cfg = sim_config_create_placeholder();
    ASSERT_NE(cfg, nullptr);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.content ? c.content : "no file");
        root.remove("/sys");
        if (c.content)
            root.write(sw1, c.content);
        uint32_t state = 0;
        EXPECT_EQ(cfg->get_sw1_value(state), c.ret);
        EXPECT_EQ(state, c.state);
    }
}

TEST_F(SimConfig, CurrentSlot)
{
    const std::vector<std::string> four = {"211111", "211121", "211211", "211221"};
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
        {"then switch 2 decides", four, SIM_SWITCH_HIGH, "1", 0, 4},
        {"switch 2 low", four, SIM_SWITCH_HIGH, "0", 0, 3},
        {"switch 2 unreadable", {"211111", "211121"}, SIM_SWITCH_LOW, nullptr, 1, 0},
        {"no slot matches", {"211111", "211121"}, SIM_SWITCH_HIGH, "0", 1, 0},
        {"no slots", {"N/A"}, SIM_SWITCH_LOW, "0", 1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        root.remove("/sys");
        if (c.sw2_content)
            root.write(sw2, c.sw2_content);
        uint32_t count = 0;
        auto cfg = create(c.texts, 1, count);
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

// Every slot counted is listed; a modem that is not built in has a
// placeholder: its one slot all zero, and switches it never touches.
TEST_F(SimConfig, StatisticsAndThePlaceholder)
{
    uint32_t count = 0;
    auto cfg = create({"211121", "212210", "121000"}, 1, count);
    auto out = ujson::create();
    cfg->fill_stats(*out, count);
    EXPECT_EQ(json_text(*out),
              R"({"sim_config_list":[)"
              R"({"sim_slot":1,"type":1,"control_type":2,"switch1_state":1,"switch2_state":2,"presence":1},)"
              R"({"sim_slot":2,"type":2,"control_type":2,"switch1_state":2,"switch2_state":1,"presence":0}]})");

    root.write(sw1, "x");
    root.write(sw2, "x");
    auto placeholder = sim_config_create_placeholder();
    ASSERT_NE(placeholder, nullptr);
    EXPECT_EQ(placeholder->control_kind(), 0u);
    bool done = false;
    EXPECT_EQ(placeholder->set_sw1_value(1, done), 1);
    EXPECT_EQ(placeholder->set_sw2_value(1, done), 1);
    EXPECT_FALSE(done);
    EXPECT_EQ(root.read(sw1), "x");
    EXPECT_EQ(root.read(sw2), "x");
    out = ujson::create();
    placeholder->fill_stats(*out, 1);
    EXPECT_EQ(json_text(*out),
              R"({"sim_config_list":[)"
              R"({"sim_slot":1,"type":0,"control_type":0,"switch1_state":0,"switch2_state":0,"presence":0}]})");
}

} // namespace
