#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_rg520n_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RG520N AT", "quectel,rg520n", "quectel",
             quectel_nr_probe)
MODEM_DRIVER(quectel_rm520n_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RM520N AT", "quectel,rm520n", "quectel",
             quectel_nr_probe)
