#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_eg06_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EG06 AT", "quectel,eg06", "quectel",
             quectel_ltea_probe)
MODEM_DRIVER(quectel_eg06_a_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EG06-A AT", "quectel,eg06,a", "quectel,eg06",
             modem_driver_probe_none)
