// The sending limit: an outside service on the bus ("sms_limit") keeps, per
// SIM and modem, how many SMS may still be sent. Sending asks it for the
// budget first and counts every PDU sent afterwards. It fails closed: only a
// service that says it does not meter (not supported) lifts the limit.
#pragma once

#include <cstdint>

class modem;
class ujson;

// What the send action works with: how many PDUs may still go, and whether
// that number binds at all.
struct sms_lim_state {
    int32_t budget;
    bool enforced;
};

// The budget as the "check" answer gives it: the call's status and its
// answer (only read on success: "max" - "current", both required).
sms_lim_state sms_lim_decide(int status, const ujson &answer);

// Asks the service (1000 ms) for the budget of sim on the modem.
sms_lim_state sms_lim_budget(modem *mdm, uint32_t sim);

// Counts sent PDUs, one "inc" call (5000 ms) each, stopping early when the
// service answers that the limit is reached. 0, or 1 when a call failed.
int sms_lim_inc(modem *mdm, uint32_t sim, uint32_t count);
