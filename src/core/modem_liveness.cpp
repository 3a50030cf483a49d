// Liveness of a modem: the probe, the hang watchdog and the reports of a
// modem that stopped answering or powered down.
#include <cstring>
#include <ctime>

#include "core/modem_instance.h"
#include "ubus/modem_api.h"
#include "ubus/ubus.h"
#include "util/log.h"
#include "util/ujson.h"

namespace
{
constexpr char probe[] = "AT\r";
constexpr char probe_ok[] = "\r\nOK\r\n";
} // namespace

// A hung modem is probed too, when it shows signs of life or after a long
// silence: the hang state is left only when a probe is answered with OK. Its
// probe waits in the queue behind whatever is in flight.
void modem_instance::ping()
{
    if (fota() || ping_state_ == MODEM_PING_OUTSTANDING || probe_queued_)
        return;
    if (is_busy() && ping_state_ == MODEM_PING_ANSWERING) {
        // Traffic cancels the watchdog; a modem that stays silent is hung.
        uloop_timeout_set(&hang_timer_.timeout, hang_watchdog_ms);
        return;
    }
    if (new_internal_request(ACT_AT_COMMAND, on_ping_recv, this, probe, sizeof(probe) - 1, query_timeout_ms, nullptr)) {
        LOG_ERROR("[MODEM] Failed to create new internal request for `%s [%s]` modem!\n", id(), vid_pid());
        return;
    }
    probe_queued_ = true;
    last_probe_ = time(nullptr);
    if (ping_state_ == MODEM_PING_ANSWERING)
        ping_state_ = MODEM_PING_OUTSTANDING;
}

void modem_instance::on_ping_recv(modem *mdm, uint32_t, ujson *reply, void *)
{
    modem_instance &self = of(mdm);
    self.probe_queued_ = false;
    // No answer, or the watcher's time-out result.
    if (!reply || !reply->exists("response") || reply->exists("errno")) {
        if (self.ping_state_ != MODEM_PING_HUNG)
            self.trigger_hang();
        return;
    }
    // Anything but a plain OK keeps the probe outstanding, which holds off
    // further probes.
    if (std::strcmp(reply->get_string("response"), probe_ok) != 0)
        return;
    if (self.ping_state_ == MODEM_PING_HUNG)
        LOG_DEBUG("[MODEM] Modem `%s [%s]` is responsive again\n", self.id(), self.vid_pid());
    self.ping_state_ = MODEM_PING_ANSWERING;
}

void modem_instance::trigger_hang()
{
    ping_state_ = MODEM_PING_HUNG;
    LOG_ERROR("[MODEM] Modem `%s [%s]` is not responsive!\n", id(), vid_pid());
    auto payload = ujson::create();
    if (payload)
        fill_stats(*payload);
    if (!payload || ubus_broadcast_event(*this, "gsm.modem.hang", payload.get(), false)) {
        LOG_ERROR("[MODEM] Failed to send hang event for `%s [%s]` modem!\n", id(), vid_pid());
        ping_state_ = MODEM_PING_ANSWERING;
        ping();
    }
}

void modem_instance::__hang_cb(uloop_timeout *t)
{
    owned_timeout<modem_instance>::of(t)->trigger_hang();
}

void modem_instance::input_received()
{
    last_activity_ = time(nullptr);
    // Time-outs count only while the modem says nothing at all.
    timeout_count_ = 0;
    uloop_timeout_cancel(&hang_timer_.timeout);
    // A hung modem that speaks again is asked whether it is back.
    if (ping_state_ == MODEM_PING_HUNG)
        ping();
}

void modem_instance::tty_ready()
{
    LOG_DEBUG("[MODEM] Modem `%s [%s]` command port is ready\n", id(), vid_pid());
    // What was queued during the set-up waits for a wake-up.
    if (get_request())
        cmm_->ping();
}

void modem_instance::power_down()
{
    LOG_DEBUG("[MODEM] Modem `%s [%s]` is Powering down!\n", id(), vid_pid());
    auto payload = ujson::create();
    if (payload) {
        payload->add_string("usb_id", id());
        payload->add_string("ubus_obj", object_name());
    }
    if (!payload || ubus_broadcast_event(*this, "gsm.modem.powerdown", payload.get(), false))
        LOG_ERROR("[MODEM] Failed to send power down event for `%s [%s]` modem!\n", id(), vid_pid());
}
