#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_ec21_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EC21 AT", "quectel,ec21", "quectel",
             quectel_ec2x_probe)
