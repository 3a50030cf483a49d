#include "core/modem_driver.h"

MODEM_DRIVER(telit_fn990_driver, MODEM_DRIVER_PRIO_VENDOR, "Telit FN990 AT", "telit,fn990", "generic",
             modem_driver_probe_none)
