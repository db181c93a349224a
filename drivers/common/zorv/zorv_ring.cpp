/* SPDX-License-Identifier: BSD-3-Clause
 * Ring manager of the zorv1 family.
 *
 * Every receive queue owns a ring of mbuf pointers that the emulated card's
 * classifier fills from the transport's threads while the queue's receive
 * burst empties it: many producers, one consumer. Rings are known across the
 * family by a small local id, an index into the table below. Create and
 * destroy run on the control thread under the table's own mutex; lookups
 * come from any thread and read an atomic pointer without a lock.
 *
 * Destroying a ring does not wait for its users: whoever destroys it must
 * first make sure that nobody still uses it (the port closes the queue's
 * gate and waits for the bursts before it releases a queue).
 */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>

#include <array>
#include <atomic>

#include <rte_errno.h>
#include <rte_lcore.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_mutex_guard.h"
#include "zorv_ring.h"

namespace {

std::array<std::atomic<struct rte_ring *>, ZORV1_RING_MAX> ring_table{};
pthread_mutex_t ring_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Free every mbuf left in a ring; the ring has no other user any more. */
void ring_drain(struct rte_ring *r)
{
	void *objs[32];
	unsigned int n;

	while ((n = rte_ring_dequeue_burst(r, objs, RTE_DIM(objs), NULL)) != 0) {
		for (unsigned int i = 0; i < n; i++)
			rte_pktmbuf_free(static_cast<struct rte_mbuf *>(objs[i]));
	}
}

} // namespace

extern "C" {

/*
 * A ring holding exactly `size` mbufs (any size, not only powers of two),
 * on the calling thread's socket. The lowest free id is used, so ids of
 * destroyed rings are handed out again.
 */
int zorv1_ring_create(uint32_t size)
{
	if (size == 0 || size > RTE_RING_SZ_MASK) {
		ZORV1_VDEV_LOG(ERR, "invalid ring size %u\n", size);
		return -1;
	}

	zorv_mutex_guard guard(ring_mutex);
	int id = -1;
	for (int i = 0; i < ZORV1_RING_MAX; i++) {
		if (ring_table[i].load(std::memory_order_relaxed) == NULL) {
			id = i;
			break;
		}
	}
	if (id < 0) {
		ZORV1_VDEV_LOG(ERR, "no free ring id, %d rings in use\n", ZORV1_RING_MAX);
		return -1;
	}

	char name[RTE_RING_NAMESIZE];
	snprintf(name, sizeof(name), ZORV1_RING_NAME_FMT, id);
	struct rte_ring *r = rte_ring_create(name, size, static_cast<int>(rte_socket_id()),
					     RING_F_SC_DEQ | RING_F_EXACT_SZ);
	if (r == NULL) {
		ZORV1_VDEV_LOG(ERR, "create ring %s of %u entries failed: %s\n", name, size,
			       rte_strerror(rte_errno));
		return -1;
	}
	ring_table[id].store(r, std::memory_order_release);
	return id;
}

void zorv1_ring_destroy(int local_id)
{
	if (local_id < 0 || local_id >= ZORV1_RING_MAX)
		return;

	zorv_mutex_guard guard(ring_mutex);
	struct rte_ring *r = ring_table[local_id].exchange(NULL, std::memory_order_acq_rel);
	if (r != NULL) {
		ring_drain(r);
		rte_ring_free(r);
	}
}

struct rte_ring *zorv1_get_ring_by_local_id(int local_id)
{
	if (local_id < 0 || local_id >= ZORV1_RING_MAX)
		return NULL;
	return ring_table[local_id].load(std::memory_order_acquire);
}

} // extern "C"
