#include "core/sim_config.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include "wwan/ubox.h"

#include "util/root_test_support.h"
#include "util/ujson.h"

namespace
{

const char *sw1 = "/sys/class/gpio/sim_sel/value";
const char *sw2 = "/sys/class/gpio/sim_sel2/value";

class SimConfig : public testing::Test
{
  protected:
    // The factory data: slot texts (control type, modem, type, switch-1,
    // switch-2, presence) separated by blanks, one a line; null: no file.
    std::unique_ptr<sim_config> create(const char *factory, uint32_t modem, uint32_t &count)
    {
        root.remove("/etc");
        if (factory) {
            std::string lines = std::string(factory) + "\n";
            std::replace(lines.begin(), lines.end(), ' ', '\n');
            root.write("/etc/mnfinfo/sim_cfg", lines);
        }
        testing::internal::CaptureStdout();
        auto cfg = sim_config_create(modem, count);
        testing::internal::GetCapturedStdout();
        return cfg;
    }
    void set_file(const char *path, const char *content)
    {
        root.remove(path);
        if (content)
            root.write(path, content);
    }
    temp_root root;
};

// The slots as their factory texts without the modem digit, then the kind of
// control: "21101 21200 00000 00000 kind 2".
std::string slot_texts(const sim_config &cfg)
{
    std::string out;
    for (const sim_slot &s : cfg.slots())
        out += std::to_string(s.control_type) + std::to_string(s.type) + std::to_string(s.switch1_state) +
               std::to_string(s.switch2_state) + std::to_string(s.presence) + " ";
    return out + "kind " + std::to_string(cfg.control_kind());
}

TEST_F(SimConfig, SlotsOfTheRequestedModemFromTheFactoryData)
{
    const struct {
        const char *what, *factory;
        uint32_t modem;
        const char *slots;
    } cases[] = {
        // clang-format off
        {"first answer N/A", "N/A 212101", 1, "00000 00000 00000 00000 kind 0"},
        {"no factory data", nullptr, 1, "00000 00000 00000 00000 kind 0"},
        {"two slots on switch 1", "211101 211200 121000", 1, "21101 21200 00000 00000 kind 2"},
        {"the secondary modem's slots", "211101 121000 N/A", 2, "11000 00000 00000 00000 kind 1"},
        {"four slots on two switches", "211111 211211 211121 211221", 1, "21111 21211 21121 21221 kind 2"},
        {"characters outside 0 to 2 read as 0", "21912x 2A1201", 1, "20120 00000 00000 00000 kind 2"},
        {"short texts are not slots", "21120  211101", 1, "21101 00000 00000 00000 kind 2"},
        {"nothing after N/A", "211101 N/A 211201", 1, "21101 00000 00000 00000 kind 2"},
        {"at most four slots", "211101 211201 211111 211211 211121", 1, "21101 21201 21111 21211 kind 2"},
        {"control types 1 and 2 mixed", "111101 211201", 1, "11101 21201 00000 00000 kind 2"},
        {"control type 0 wins", "211101 011201", 1, "21101 01201 00000 00000 kind 0"},
        {"other modems' types do not mix in", "221101 111201 021000", 2, "21101 01000 00000 00000 kind 0"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        uint32_t count = 1; // the slots add to the caller's count
        auto cfg = create(c.factory, c.modem, count);
        ASSERT_NE(cfg, nullptr);
        EXPECT_EQ(slot_texts(*cfg), c.slots);
        size_t listed = 0; // the slots that are not all zero
        for (size_t at = 0; at < 24; at += 6)
            listed += std::string(c.slots, at, 5) != "00000";
        EXPECT_EQ(count, 1 + listed);
    }
}

// What setting one slot does to the selector files; lines: 'x' both files
// hold "x", '-' none exist, 'd' switch 1 is a directory. The result is
// "<switch-1 ret><switch-2 ret> <switch-1 file><switch-2 file>".
TEST_F(SimConfig, SettingTheSwitches)
{
    const struct {
        const char *what, *factory;
        uint32_t slot;
        char lines;
        const char *result;
    } cases[] = {
        // clang-format off
        {"slot 0", "211111", 0, 'x', "22 xx"},
        {"slot 5", "211111", 5, 'x', "22 xx"},
        {"high lines", "212221", 1, 'x', "00 11"},
        {"low lines", "211111", 1, 'x', "00 00"},
        {"second slot", "211101 211221", 2, 'x', "00 11"},
        {"switch 1 needs control type 2; switch 2 does not", "111121", 1, 'x', "10 x1"},
        {"unused lines are left alone", "211001", 1, 'x', "11 xx"},
        {"a slot the factory did not list", "211101", 3, 'x', "11 xx"},
        {"missing line files", "211211", 1, '-', "11 "},
        {"a line that cannot be opened for writing", "212201", 1, 'd', "11 "},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        root.remove("/sys");
        uint32_t count = 0;
        auto cfg = create(c.factory, 1, count);
        ASSERT_NE(cfg, nullptr);
        if (c.lines == 'x') {
            root.write(sw1, "x");
            root.write(sw2, "x");
        } else if (c.lines == 'd') {
            root.write(std::string(sw1) + "/x", "");
        }
        bool done1 = false, done2 = false;
        const int ret1 = cfg->set_sw1_value(c.slot, done1), ret2 = cfg->set_sw2_value(c.slot, done2);
        EXPECT_EQ(std::to_string(ret1) + std::to_string(ret2) + " " + root.read(sw1) + root.read(sw2), c.result);
        EXPECT_EQ(done1, ret1 == 0);
        EXPECT_EQ(done2, ret2 == 0);
        EXPECT_EQ(root.exists(sw1), c.lines != '-');
    }
}

// Reading switch 1, then the current slot from its state and switch 2 (a
// slot on switch 1 alone comes first): "<ret>:<state> <ret>:<slot>", the slot
// "-" when switch 1 was unreadable. Files null: missing.
TEST_F(SimConfig, CurrentSlot)
{
    const char *four = "211111 211121 211211 211221";
    const struct {
        const char *what, *factory, *sw1_file, *sw2_file;
        const char *result;
    } cases[] = {
        // clang-format off
        {"switch 1 alone, low", "211101 211201", "0\n", nullptr, "0:1 0:1"},
        {"switch 1 alone, high", "211101 211201", "1\n", nullptr, "0:2 0:2"},
        {"the first character counts", "211101 211201", "10\n", nullptr, "0:2 0:2"},
        {"no such switch state", "211101 211201", "2\n", nullptr, "1:0 -"},
        {"empty switch 1", "211101 211201", "", nullptr, "1:0 -"},
        {"no switch 1", "211101 211201", nullptr, nullptr, "1:0 -"},
        {"a slot on switch 1 alone comes first", "211111 211101", "0", "1", "0:1 0:2"},
        {"then switch 2 decides", four, "1", "1", "0:2 0:4"},
        {"switch 2 low", four, "1", "0", "0:2 0:3"},
        {"switch 2 unreadable", "211111 211121", "0", nullptr, "0:1 1:0"},
        {"no slot matches", "211111 211121", "1", "0", "0:2 1:0"},
        {"no slots", "N/A", "0", "0", "0:1 1:0"},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        set_file(sw1, c.sw1_file);
        set_file(sw2, c.sw2_file);
        uint32_t count = 0, state = 0, slot = 0;
        auto cfg = create(c.factory, 1, count);
        const int ret = cfg->get_sw1_value(state);
        std::string result = std::to_string(ret) + ":" + std::to_string(state) + " ";
        if (ret == 0) {
            const int ret2 = cfg->get_current_sim_slot(state, slot);
            result += std::to_string(ret2) + ":" + std::to_string(slot);
        }
        EXPECT_EQ(result + (ret ? "-" : ""), c.result);
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
    auto cfg = create("211121 212210 121000", 1, count);
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
    EXPECT_EQ(root.read(sw1) + root.read(sw2), "xx");
    out = ujson::create();
    placeholder->fill_stats(*out, 1);
    EXPECT_EQ(json_text(*out),
              R"({"sim_config_list":[)"
              R"({"sim_slot":1,"type":0,"control_type":0,"switch1_state":0,"switch2_state":0,"presence":0}]})");
}

} // namespace
