#include "core/modem_driver.h"

MODEM_DRIVER(meiglink_slm828g_driver, MODEM_DRIVER_PRIO_MODEL, "Meiglink SLM828G AT", "meiglink,slm828g", "meiglink",
             modem_driver_probe_none)
