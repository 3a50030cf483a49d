#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_eg12_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EG12 AT", "quectel,eg12", "quectel",
             quectel_ltea_probe)
