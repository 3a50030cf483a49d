// Driver analysis (-a): every registered driver, and for every action whether
// it supports it and through which drivers of its chain it was overridden.
#pragma once

#include <cstdio>

#include "core/modem_driver.h"

void analysis_run(const modem_driver_registry &registry = g_drivers, FILE *out = stdout);
