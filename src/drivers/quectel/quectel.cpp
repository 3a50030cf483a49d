#include "drivers/quectel/quectel.h"

#include "core/modem.h"

namespace
{

// The modem announces it is switching itself off.
int urc_power(modem *mdm, ujson *)
{
    mdm->power_down();
    return 0;
}

} // namespace

int quectel_driver_probe(modem_driver *driver)
{
    modem_driver_urc_override(driver, "POWERED DOWN", urc_power);
    return 0;
}

MODEM_DRIVER(quectel_driver, MODEM_DRIVER_PRIO_VENDOR, "Quectel AT", "quectel", "generic", quectel_driver_probe)
