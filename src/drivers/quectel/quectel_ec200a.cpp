#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_ec200a_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EC200A AT", "quectel,ec200a", "quectel",
             quectel_cat1_probe)
