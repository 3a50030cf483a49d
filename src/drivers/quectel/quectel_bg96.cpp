#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_bg96_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel BG96 AT", "quectel,bg96", "quectel",
             quectel_lpwa_probe)
