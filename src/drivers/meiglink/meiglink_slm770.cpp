#include "core/modem_driver.h"

MODEM_DRIVER(meiglink_slm770_driver, MODEM_DRIVER_PRIO_MODEL, "Meiglink SLM770 AT", "meiglink,slm770", "meiglink",
             modem_driver_probe_none)
