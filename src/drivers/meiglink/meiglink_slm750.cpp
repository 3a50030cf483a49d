#include "core/modem_driver.h"

MODEM_DRIVER(meiglink_slm750_driver, MODEM_DRIVER_PRIO_MODEL, "Meiglink SLM750 AT", "meiglink,slm750", "meiglink",
             modem_driver_probe_none)
