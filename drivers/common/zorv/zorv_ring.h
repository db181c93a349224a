/* SPDX-License-Identifier: BSD-3-Clause
 * Ring manager internals: size of the id table and the rings' names.
 */
#ifndef ZORV_RING_H
#define ZORV_RING_H

/* Rings that can exist at once; local ids are 0..ZORV1_RING_MAX-1. */
#define ZORV1_RING_MAX 4096

/* Name of the ring with a given local id (unique while the id is in use). */
#define ZORV1_RING_NAME_FMT "zorv1_ring_%d"

#endif /* ZORV_RING_H */
