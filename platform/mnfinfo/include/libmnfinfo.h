/* Manufacturing information: factory data written to the device at
 * production. Only the SIM slot wiring is offered here.
 *
 * This build serves it from "/etc/mnfinfo/sim_cfg" (under $WWANCTL_ROOT when
 * that is set), one slot text per line, the first line being slot 1. */
#ifndef __LIBMNFINFO_H
#define __LIBMNFINFO_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies the SIM slot wiring text of slot `index` (counted from 1) into buf,
 * NUL-terminated and cut to len - 1 characters. A slot text is six digits:
 * control type, modem number, slot type, switch-1 state, switch-2 state,
 * presence. Past the last slot, and when the device holds no SIM wiring at
 * all, the text is "N/A".
 *
 * Returns 0, or -1 with errno EINVAL for index < 1, a null buf or len 0. */
int lmnfinfo_get_sim_cfg(int index, char *buf, size_t len);

#ifdef __cplusplus
}
#endif

#endif
