// What the modem's unsolicited changes set off: the process-wide event
// registrations and their callbacks. A callback keeps the modem's value cache
// coherent with what the modem just reported and queues the modem's own
// requests that re-read what the change made stale; it never answers a bus
// caller.
#pragma once

#include <cstdint>
#include <initializer_list>

class evt_modem;
class ujson;

// Registers every event kind, in a fixed order. 0, or 1 when one failed.
int events_init();

// The groups events_init registers, in its order.
int evt_net_init();
int evt_pin_init();
int evt_sys_init();
int evt_op_init();
int evt_sim_init();

// Queues the modem's own request for action, built from args (may be null).
// True when the callback's chain may go on: queued, or skipped because the
// channel is paused or the driver lacks the action. False after an error
// (the modem logs it).
bool evt_refresh(evt_modem &mdm, uint32_t action, const ujson *args = nullptr);

// Stores text under the event's name followed by "_str".
void evt_cache_text(evt_modem &mdm, const char *event_name, const char *text);
// Drops each of the cached keys.
void evt_drop(evt_modem &mdm, std::initializer_list<const char *> keys);
