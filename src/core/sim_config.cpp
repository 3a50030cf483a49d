#include "core/sim_config.h"

#include <libmnfinfo.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>

#include "util/log.h"
#include "util/root_path.h"
#include "util/ujson.h"

namespace {

constexpr const char *sw1_file = "/sys/class/gpio/sim_sel/value";
constexpr const char *sw2_file = "/sys/class/gpio/sim_sel2/value";

// A slot text longer than any the factory writes is cut; only the first six
// characters matter.
constexpr size_t slot_text_size = 64;
// The library answers "N/A" past the last slot; the bound only guards
// against one that never does.
constexpr int max_slot_texts = 64;

// Positions in a slot text.
enum : size_t {
    TEXT_CONTROL_TYPE,
    TEXT_MODEM,
    TEXT_TYPE,
    TEXT_SWITCH1,
    TEXT_SWITCH2,
    TEXT_PRESENCE,
    TEXT_MIN_LEN,
};

uint32_t digit_value(char c)
{
    return c >= '0' && c <= '2' ? static_cast<uint32_t>(c - '0') : 0;
}

// The first character of a selector line; 1 on failure.
int read_line_state(const char *logical, char &value)
{
    std::string path = wwan_path(logical);
    if (access(path.c_str(), F_OK) != 0)
        return 1;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LOG_DEBUG("Failed to open '%s'. %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    char buf[4] = {};
    if (read(fd, buf, sizeof(buf)) < 0) {
        LOG_DEBUG("Failed to read '%s'. %s\n", path.c_str(), std::strerror(errno));
        close(fd);
        return 1;
    }
    close(fd);
    value = buf[0];
    return 0;
}

// Line state (SIM_SWITCH_LOW / SIM_SWITCH_HIGH) of a selector file.
int read_switch(const char *logical, uint32_t &state)
{
    char c;
    if (read_line_state(logical, c))
        return 1;
    if (c == '0') {
        state = SIM_SWITCH_LOW;
        return 0;
    }
    if (c == '1') {
        state = SIM_SWITCH_HIGH;
        return 0;
    }
    LOG_DEBUG("Failed to parse sim state!\n");
    return 1;
}

int write_switch(const char *logical, uint32_t state, bool &done)
{
    std::string path = wwan_path(logical);
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        LOG_DEBUG("Failed to open '%s'. %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    const char value = state == SIM_SWITCH_HIGH ? '1' : '0';
    ssize_t n = write(fd, &value, 1);
    if (n != 1) {
        LOG_DEBUG("Failed to write '%s'. %s\n", path.c_str(), std::strerror(n < 0 ? errno : EIO));
        close(fd);
        return 1;
    }
    close(fd);
    done = true;
    return 0;
}

bool line_exists(const char *logical)
{
    return access(wwan_path(logical).c_str(), F_OK) == 0;
}

} // namespace

int sim_config::set_sw1_value(uint32_t slot, bool &done) const
{
    if (slot < 1 || slot > max_slots)
        return 2;
    const sim_slot &s = slots_[slot - 1];
    if (s.control_type != 2 || s.switch1_state == SIM_SWITCH_UNUSED || !line_exists(sw1_file))
        return 1;
    return write_switch(sw1_file, s.switch1_state, done);
}

int sim_config::set_sw2_value(uint32_t slot, bool &done) const
{
    if (slot < 1 || slot > max_slots)
        return 2;
    const sim_slot &s = slots_[slot - 1];
    if (s.switch2_state == SIM_SWITCH_UNUSED || !line_exists(sw2_file))
        return 1;
    return write_switch(sw2_file, s.switch2_state, done);
}

int sim_config::get_sw1_value(uint32_t &state) const
{
    return read_switch(sw1_file, state);
}

int sim_config::get_current_sim_slot(uint32_t sw1_state, uint32_t &slot) const
{
    for (uint32_t i = 0; i < max_slots; i++) {
        if (slots_[i].switch1_state == sw1_state && slots_[i].switch2_state == SIM_SWITCH_UNUSED) {
            slot = i + 1;
            return 0;
        }
    }
    uint32_t sw2_state;
    if (read_switch(sw2_file, sw2_state))
        return 1;
    for (uint32_t i = 0; i < max_slots; i++) {
        if (slots_[i].switch1_state == sw1_state && slots_[i].switch2_state == sw2_state) {
            slot = i + 1;
            return 0;
        }
    }
    return 1;
}

// Each element is a table named "sim_slot" that also carries its number
// under "sim_slot", so readers find it both ways.
void sim_config::fill_stats(ujson &out, uint32_t slot_count) const
{
    if (slot_count > max_slots)
        slot_count = max_slots;
    void *list = out.open_array("sim_config_list");
    for (uint32_t i = 0; i < slot_count; i++) {
        const sim_slot &s = slots_[i];
        void *table = out.open_table("sim_slot");
        out.add_int("sim_slot", static_cast<int32_t>(i + 1));
        out.add_int("type", static_cast<int32_t>(s.type));
        out.add_int("control_type", static_cast<int32_t>(s.control_type));
        out.add_int("switch1_state", static_cast<int32_t>(s.switch1_state));
        out.add_int("switch2_state", static_cast<int32_t>(s.switch2_state));
        out.add_int("presence", static_cast<int32_t>(s.presence));
        out.close_table(table);
    }
    out.close_array(list);
}

std::unique_ptr<sim_config> sim_config_create(uint32_t modem_number, uint32_t &slot_count)
{
    std::unique_ptr<sim_config> cfg(new (std::nothrow) sim_config());
    if (!cfg) {
        // Without a level prefix, as the modem's report of the failure.
        std::printf("Failed to allocate memory for sim_config\n");
        std::fflush(stdout);
        return nullptr;
    }

    bool seen_control[3] = {};
    uint32_t found = 0;
    for (int index = 1; index <= max_slot_texts; index++) {
        char text[slot_text_size] = {};
        if (lmnfinfo_get_sim_cfg(index, text, sizeof(text)) != 0)
            break;
        std::string_view t(text);
        if (t.starts_with("N/A"))
            break;
        if (t.size() < TEXT_MIN_LEN)
            continue;
        if (digit_value(t[TEXT_MODEM]) != modem_number || found == sim_config::max_slots)
            continue;

        sim_slot &s = cfg->slots_[found++];
        s.control_type = digit_value(t[TEXT_CONTROL_TYPE]);
        s.type = digit_value(t[TEXT_TYPE]);
        s.switch1_state = digit_value(t[TEXT_SWITCH1]);
        s.switch2_state = digit_value(t[TEXT_SWITCH2]);
        s.presence = digit_value(t[TEXT_PRESENCE]);
        seen_control[s.control_type] = true;
        slot_count++;
    }

    if (seen_control[0] + seen_control[1] + seen_control[2] > 1)
        LOG_ERROR("Modem[%d] Invalid sim slot control type combination. Something is wrong with mnf_info!\n",
                  static_cast<int>(modem_number));

    if (seen_control[0])
        cfg->control_kind_ = 0;
    else if (seen_control[2])
        cfg->control_kind_ = 2;
    else if (seen_control[1])
        cfg->control_kind_ = 1;
    return cfg;
}

std::unique_ptr<sim_config> sim_config_create_placeholder()
{
    return std::unique_ptr<sim_config>(new (std::nothrow) sim_config());
}
