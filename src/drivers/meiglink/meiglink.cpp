#include "core/modem_driver.h"

MODEM_DRIVER(meiglink_driver, MODEM_DRIVER_PRIO_VENDOR, "Meiglink AT", "meiglink", "generic", modem_driver_probe_none)
