#include "util/log.h"

uint32_t g_log_level = 0;

void log_level(uint32_t level)
{
    g_log_level = level;
}
