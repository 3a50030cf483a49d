#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_eg915q_na_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EG915Q-NA AT", "quectel,eg915q,na", "quectel",
             quectel_cat1_probe)
