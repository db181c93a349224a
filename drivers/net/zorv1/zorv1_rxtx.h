/* SPDX-License-Identifier: BSD-3-Clause
 * Receive time-stamp switch and the per-thread time-stamp counter.
 */
#ifndef ZORV1_RXTX_H
#define ZORV1_RXTX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One copy per module that includes this header; nothing here sets it. */
static int zorv_ts_flag = 0;

static inline int zorv1_get_ts_flag(void)
{
	return zorv_ts_flag;
}

/* Time-stamp log calls made by the current thread; defined by the utilities. */
extern __thread uint32_t g_timestap_cnt;

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_RXTX_H */
