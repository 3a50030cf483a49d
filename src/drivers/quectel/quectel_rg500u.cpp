#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_rg500u_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RG500U AT", "quectel,rg500u", "quectel",
             quectel_unisoc_nr_probe)
