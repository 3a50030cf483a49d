#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_eg25_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EG25 AT", "quectel,eg25", "quectel",
             quectel_ec2x_probe)
