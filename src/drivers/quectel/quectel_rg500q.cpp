#include "drivers/quectel/quectel.h"

int quectel_rg500q_probe(modem_driver *driver)
{
    return quectel_nr_probe(driver);
}

MODEM_DRIVER(quectel_rg500q_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel RG500Q AT", "quectel,rg500q", "quectel",
             quectel_rg500q_probe)
