#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_rg255c_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RG255C AT", "quectel,rg255c", "quectel",
             modem_driver_probe_none)
