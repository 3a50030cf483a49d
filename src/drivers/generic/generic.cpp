#include "drivers/generic/generic.h"

#include "drivers/generic/generic_call.h"
#include "drivers/generic/generic_pin.h"
#include "drivers/generic/generic_sms.h"
#include "drivers/generic/generic_sys.h"

// Each module installs its actions and URC handlers.
int generic_driver_probe(modem_driver *driver)
{
    return generic_sys_probe(driver) | generic_pin_probe(driver) | generic_sms_probe(driver) |
           generic_call_probe(driver);
}

MODEM_DRIVER(generic_driver, MODEM_DRIVER_PRIO_GENERIC, "Generic AT", "generic", nullptr, generic_driver_probe)
