#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_ec20_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EC20 AT", "quectel,ec20", "quectel",
             quectel_ec2x_probe)
