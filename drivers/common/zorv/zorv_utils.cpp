/* SPDX-License-Identifier: BSD-3-Clause
 * Utilities of the zorv1 family: elapsed time of TSC readings, packet hex
 * dumps, and the per-thread time-stamp counter.
 */
#include <stdio.h>
#include <string.h>

#include <rte_cycles.h>
#include <rte_log.h>

#include "zorv1_logs.h"
#include "zorv1_rxtx.h"
#include "zorv1_vhost.h"

/* Bytes shown on one line of a packet dump. */
#define ZORV1_DUMP_LINE_BYTES 16

extern "C" {

__thread uint32_t g_timestap_cnt = 0;

/*
 * Microseconds from tsc_start to tsc_end. Whole seconds and the remainder
 * are scaled apart so that long intervals do not overflow 64 bits.
 */
uint64_t zorv1_calculate_time(uint64_t tsc_end, uint64_t tsc_start)
{
	uint64_t hz = rte_get_tsc_hz();

	if (tsc_end < tsc_start || hz == 0)
		return 0;

	uint64_t cycles = tsc_end - tsc_start;
	return (cycles / hz) * 1000000u + (cycles % hz) * 1000000u / hz;
}

/*
 * Hex dump at DEBUG: a header line with the title and the length, then the
 * bytes 16 per line, each line led by the offset of its first byte. Dumps
 * titled "vdev rx" / "vdev tx" go to the receive / transmit log types,
 * anything else to the control-path type.
 */
void zorv1_dump_pkt(const char *title, const uint8_t *data, uint32_t len)
{
	int type = zorv1_vdev_logtype_cfg;

	if (title != NULL && strcmp(title, "vdev rx") == 0)
		type = zorv1_vdev_logtype_rx;
	else if (title != NULL && strcmp(title, "vdev tx") == 0)
		type = zorv1_vdev_logtype_tx;
	if (!rte_log_can_log(static_cast<uint32_t>(type), RTE_LOG_DEBUG))
		return;

	if (data == NULL)
		len = 0;
	ZORV1_LOG_TYPE(type, DEBUG, "%s: %u bytes\n", title != NULL ? title : "", len);

	for (uint32_t off = 0; off < len; off += ZORV1_DUMP_LINE_BYTES) {
		char line[ZORV1_DUMP_LINE_BYTES * 3 + 1];
		uint32_t n = RTE_MIN(len - off, (uint32_t)ZORV1_DUMP_LINE_BYTES);
		size_t pos = 0;

		for (uint32_t i = 0; i < n; i++)
			pos += snprintf(line + pos, sizeof(line) - pos, " %02x", data[off + i]);
		line[pos] = '\0';
		ZORV1_LOG_TYPE(type, DEBUG, "%08x:%s\n", off, line);
	}
}

} // extern "C"
