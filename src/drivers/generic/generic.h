// The generic 3GPP TS 27.007 / 27.005 driver that every vendor driver inherits.
#pragma once

#include "core/modem_driver.h"

int generic_driver_probe(modem_driver *driver);
