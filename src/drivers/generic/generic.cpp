#include "drivers/generic/generic.h"

// The generic actions and URC handlers are installed here as their modules
// (system, PIN, SMS, calls) land; a driver with no actions yet still answers
// raw AT commands.
int generic_driver_probe(modem_driver *)
{
    return 0;
}

MODEM_DRIVER(generic_driver, MODEM_DRIVER_PRIO_GENERIC, "Generic AT", "generic", nullptr, generic_driver_probe)
