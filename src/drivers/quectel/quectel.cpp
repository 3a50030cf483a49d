#include "drivers/quectel/quectel.h"

int quectel_driver_probe(modem_driver *)
{
    return 0;
}

MODEM_DRIVER(quectel_driver, MODEM_DRIVER_PRIO_VENDOR, "Quectel AT", "quectel", "generic", quectel_driver_probe)
