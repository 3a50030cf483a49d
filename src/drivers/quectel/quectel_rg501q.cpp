#include "drivers/quectel/quectel.h"

// The RG501Q is served by the RG500Q's probe.
MODEM_DRIVER(quectel_rg501q_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RG501Q AT", "quectel,rg501q", "quectel",
             quectel_rg500q_probe)
