// SMS of the generic driver: the new-message report.
#pragma once

#include "core/modem_driver.h"

int generic_sms_probe(modem_driver *driver);

int urc_cmti(modem *mdm, ujson *json);
