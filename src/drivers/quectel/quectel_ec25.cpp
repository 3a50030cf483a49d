#include "drivers/quectel/quectel.h"

MODEM_DRIVER(quectel_ec25_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EC25 AT", "quectel,ec25", "quectel",
             quectel_ec2x_probe)
MODEM_DRIVER(quectel_ec25_afd_driver, MODEM_DRIVER_PRIO_MODEL, "Quectel EC25 AF(D) AT", "quectel,ec25,af", "quectel",
             quectel_ec2x_probe)
MODEM_DRIVER(quectel_ec25_a_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-A AT", "quectel,ec25,a", "quectel,ec25",
             modem_driver_probe_none)
MODEM_DRIVER(quectel_ec25_af_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-AF AT", "quectel,ec25,af", "quectel,ec25",
             modem_driver_probe_none)
MODEM_DRIVER(quectel_ec25_aff_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-AFF AT", "quectel,ec25,aff",
             "quectel,ec25", modem_driver_probe_none)
MODEM_DRIVER(quectel_ec25_au_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-AU AT", "quectel,ec25,au", "quectel,ec25",
             modem_driver_probe_none)
MODEM_DRIVER(quectel_ec25_aux_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-AUX AT", "quectel,ec25,aux",
             "quectel,ec25", modem_driver_probe_none)
MODEM_DRIVER(quectel_ec25_e_driver, MODEM_DRIVER_PRIO_VARIANT, "Quectel EC25-E AT", "quectel,ec25,e", "quectel,ec25",
             modem_driver_probe_none)
