#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_bg95_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel BG95 AT", "quectel,bg95", "quectel",
             quectel_lpwa_probe)
MODEM_DRIVER(quectel_bg95_m4_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel BG95-M4 AT", "quectel,bg95,m4", "quectel,bg95",
             modem_driver_probe_none)
