#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_eg060k_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EG060k AT", "quectel,eg060k", "quectel",
             quectel_ltea_probe)
