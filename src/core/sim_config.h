// SIM slot configuration of a built-in modem: which of up to four slots are
// wired to it and how the two GPIO selector lines switch between them. The
// wiring is factory data from the manufacturing-information library; the
// selector lines are "/sys/class/gpio/sim_sel/value" (switch 1) and
// "/sys/class/gpio/sim_sel2/value" (switch 2).
#pragma once

#include <array>
#include <cstdint>
#include <memory>

class ujson;

// States of a selector line as the factory data gives them for one slot.
enum sim_switch_state : uint32_t {
    SIM_SWITCH_UNUSED = 0, // the slot does not use this line
    SIM_SWITCH_LOW = 1,    // file value "0"
    SIM_SWITCH_HIGH = 2,   // file value "1"
};

// One slot as the factory data describes it. Values other than the line
// states are passed through as read (0 to 2).
struct sim_slot {
    uint32_t type = 0;
    uint32_t control_type = 0;
    uint32_t switch1_state = 0;
    uint32_t switch2_state = 0;
    uint32_t presence = 0;
};

class sim_config {
public:
    static constexpr uint32_t max_slots = 4;

    // Slot 1 to 4: drives switch 1 to the slot's state. 2 for a slot number
    // out of range; 1 unless the slot is switched by control type 2 with a
    // switch-1 state and the line exists, or when the write fails; 0 after
    // the write, with done set.
    [[nodiscard]] int set_sw1_value(uint32_t slot, bool &done) const;
    // The same for switch 2. Unlike switch 1 the slot's control type is not
    // consulted; the factory data relies on that.
    [[nodiscard]] int set_sw2_value(uint32_t slot, bool &done) const;
    // The state of switch 1 (SIM_SWITCH_LOW or SIM_SWITCH_HIGH); 1 when the
    // line cannot be read or holds something else.
    [[nodiscard]] int get_sw1_value(uint32_t &state) const;
    // The slot (1 to 4) selected by switch-1 state sw1_state: the first
    // slot that uses switch 1 alone, else the first that also matches the
    // state read from switch 2. 1 when no slot matches.
    [[nodiscard]] int get_current_sim_slot(uint32_t sw1_state, uint32_t &slot) const;
    // Array "sim_config_list" with one table per slot, slot_count of them.
    void fill_stats(ujson &out, uint32_t slot_count) const;

    // 0 when no slot was found or any slot has control type 0; else 2 when
    // any slot has control type 2; else 1.
    uint32_t control_kind() const { return control_kind_; }
    const std::array<sim_slot, max_slots> &slots() const { return slots_; }

private:
    friend std::unique_ptr<sim_config> sim_config_create(uint32_t modem_number, uint32_t &slot_count);
    friend std::unique_ptr<sim_config> sim_config_create_placeholder();
    sim_config() = default;

    uint32_t control_kind_ = 0;
    std::array<sim_slot, max_slots> slots_{};
};

// The configuration of built-in modem modem_number (1 primary, 2 secondary)
// from the factory data; slot_count grows by one per slot found. Null when
// the object cannot be allocated.
std::unique_ptr<sim_config> sim_config_create(uint32_t modem_number, uint32_t &slot_count);
// An empty configuration for a modem that is not built in.
std::unique_ptr<sim_config> sim_config_create_placeholder();
