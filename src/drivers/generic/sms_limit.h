// The sending limit: an outside service on the bus ("sms_limit") keeps, per
// SIM and modem, how many SMS may still be sent. Sending asks it for the
// budget first and counts every PDU sent afterwards. It fails closed: only a
// service that says it does not meter (not supported) lifts the limit.
#pragma once

#include <cstdint>

struct ubus_context;
class ujson;

// What the send action works with: how many PDUs may still go, and whether
// that number binds at all.
struct sms_lim_state {
    int32_t budget;
    bool enforced;
};

// One synchronous call to the service's method with "sim" and "modem":
// 0 with the service's answer copied into answer, sms_lim_no_service when
// there is no such object on the bus (or no bus), else the bus status.
constexpr int sms_lim_no_service = -1;
using sms_lim_transport = int (*)(ubus_context *ctx, const char *method, uint32_t sim, const char *modem,
                                  uint32_t timeout_ms, ujson &answer);

// The bus transport is used unless another is set (the unit tests' service);
// null sets the bus transport again.
void sms_lim_set_transport(sms_lim_transport transport);

// The budget as the "check" answer gives it: the call's status and its
// answer (only read on success: "max" - "current", both required).
sms_lim_state sms_lim_decide(int status, const ujson &answer);

// Asks the service (1000 ms) for the budget of sim on the modem named modem.
sms_lim_state sms_lim_budget(ubus_context *ctx, uint32_t sim, const char *modem);

// Counts sent PDUs, one "inc" call (5000 ms) each, stopping early when the
// service answers that the limit is reached. 0, or 1 when a call failed.
int sms_lim_inc(ubus_context *ctx, uint32_t sim, const char *modem, uint32_t count);
