/* SPDX-License-Identifier: BSD-3-Clause
 * Small helpers of the P4 side of the family.
 */
#ifndef ZORV_P4_UTILS_H
#define ZORV_P4_UTILS_H

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A short pause between polls of the card: 10 microseconds. */
static inline void zorv_p4_delay(void)
{
	usleep(10);
}

/*
 * Bytes to dump for a packet of actual_len bytes: whole 16-byte lines for
 * 1..112 bytes; anything else falls back to 96.
 */
static inline int zorv_p4_hex_dump_length_get(uint32_t actual_len)
{
	for (uint32_t i = 0; i < 7; i++) {
		if (actual_len > 16 * i && actual_len <= 16 * (i + 1))
			return (int)(16 * (i + 1));
	}
	return 96;
}

/* Ones'-complement checksum over host-order 16-bit words (RFC 1071). */
static inline uint16_t zorv_p4_chksum(void *buffer, int len)
{
	const uint8_t *p = (const uint8_t *)buffer;
	uint32_t sum = 0;
	uint16_t word;

	while (len > 1) {
		memcpy(&word, p, sizeof(word)); /* buffers need not be aligned */
		sum += word;
		p += 2;
		len -= 2;
	}
	if (len == 1)
		sum += *p;
	sum = (sum & 0xFFFF) + (sum >> 16);
	sum = sum + (sum >> 16);
	return (uint16_t)~sum;
}

#ifdef __cplusplus
}
#endif

#endif /* ZORV_P4_UTILS_H */
