// Quectel drivers: the vendor base driver and the model drivers built on it.
#pragma once

#include "core/modem_driver.h"

int quectel_driver_probe(modem_driver *driver);
// Shared by the RG500Q and RG501Q drivers.
int quectel_rg500q_probe(modem_driver *driver);
