/* SPDX-License-Identifier: BSD-3-Clause
 * When a connection's queues are ready, and telling its port: the
 * virtqueues the peer has enabled (recorded by the vhost library's
 * vring-state callback), and the readiness check that reports them to the
 * port on the EAL interrupt thread, away from the library's virtqueue locks.
 */
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <atomic>

#include <ethdev_driver.h>
#include <rte_alarm.h>
#include <rte_cycles.h>
#include <rte_vhost.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_card_internal.h"
#include "zorv_dev_mgr_internal.h"

namespace zorv_card {

namespace {

bool vring_is_on(int dev, unsigned int v)
{
	return dev >= 0 && dev < RTE_MAX_VHOST_DEVICE && v < MAX_VRINGS &&
	       (devs[dev].vring_on[v / 64].load(std::memory_order_relaxed) >> (v % 64) & 1) != 0;
}

} // namespace

/*
 * Ready when every virtqueue that a queue of the port uses is enabled:
 * port receive queue i reads the peer's transmit virtqueue 2i+1, port
 * transmit queue i writes its receive virtqueue 2i. A peer with fewer queue
 * pairs than the port is ready once its own pairs are.
 */
bool conn_queues_ready(int vid, int vdev)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_vid(vid);
	if (dev == nullptr || dev->data == nullptr)
		return false;
	uint16_t pairs = rte_vhost_get_vring_num(vdev) / ZORV1_QNUM;
	uint16_t nb_rx = std::min(dev->data->nb_rx_queues, pairs);
	uint16_t nb_tx = std::min(dev->data->nb_tx_queues, pairs);
	if (nb_rx == 0 && nb_tx == 0)
		return false;
	for (uint16_t i = 0; i < nb_rx; i++)
		if (!vring_is_on(vdev, i * ZORV1_QNUM + ZORV1_TXQ))
			return false;
	for (uint16_t i = 0; i < nb_tx; i++)
		if (!vring_is_on(vdev, i * ZORV1_QNUM + ZORV1_RXQ))
			return false;
	return true;
}

/*
 * Tell the port when its queues become ready. A virtqueue that goes off is
 * only noted, and the port told again once all are back: the port's queue
 * destroy waits for the bursts to leave its queues, and a burst may be
 * spinning on a virtqueue lock of the device. The bursts need no draining
 * here: the library refuses a disabled virtqueue on its own, and the card
 * frees nothing of a queue before the connection is destroyed (whose
 * teardown drains the port's gates). Runs without the virtqueue locks (see
 * card_vring_state_changed).
 */
void conn_update_ready(int vid, card_conn *c, int vdev, bool enable)
{
	bool ready = conn_queues_ready(vid, vdev);
	if (ready && !c->ready_reported.exchange(true)) {
		zorv1_dpu_dev_queue_setup(vid);
	} else if (!ready && c->ready_reported.exchange(false)) {
		ZORV1_VDEV_LOG(INFO, "vid %d: a queue of the port went off\n", vid);
	} else if (enable) {
		g_dpdk_cp_stat.queue_setup_ignore++;
	} else {
		g_dpdk_cp_stat.queue_destroy_ignore++;
	}
}

/* Slot of the interface a readiness check is running for, or -1. */
int check_running_slot = -1; /* under card_mutex */

/*
 * A connection's virtqueues changed: look at its readiness on the EAL
 * interrupt thread (an alarm due at once). The vhost library reports the
 * change with every virtqueue lock of the device held; the port's queue
 * setup takes the family mutex, and a family module holding that mutex may
 * be waiting for a burst that spins on one of those locks (the device-wide
 * transmit disable drains every transmit queue under it). Changes that come
 * while a check is pending are looked at by that check.
 */
void ready_check(void *arg)
{
	auto packed = reinterpret_cast<uintptr_t>(arg);
	int vid = static_cast<int>(packed & 0xffff);
	uint32_t gen = static_cast<uint32_t>(packed >> 16);
	card_conn *c = &conns[vid];

	int vdev;
	c->check_pending = false;
	{
		card_lock lock;
		if (!c->live.load(std::memory_order_acquire) || c->gen.load() != gen ||
		    c->slot < 0 || !ifaces[c->slot].used || ifaces[c->slot].closing)
			return;
		/* An interface being closed waits for this check to end. */
		check_running_slot = c->slot;
		vdev = c->dev;
	}
	conn_update_ready(vid, c, vdev, c->last_enable.load());
	card_lock lock;
	check_running_slot = -1;
}

void schedule_ready_check(int vid, card_conn *c)
{
	if (c->check_pending.exchange(true))
		return;
	uintptr_t packed = static_cast<uintptr_t>(vid) |
			   static_cast<uintptr_t>(c->gen.load()) << 16;
	int ret = rte_eal_alarm_set(1, ready_check, reinterpret_cast<void *>(packed));
	if (ret != 0) {
		c->check_pending = false;
		ZORV1_VDEV_LOG(ERR, "vid %d: readiness check not scheduled: %s\n", vid,
			       strerror(-ret));
	}
}

/* Wait until no readiness check runs for the interface of slot. */
void wait_ready_checks(int slot)
{
	for (;;) {
		{
			card_lock lock;
			if (check_running_slot != slot)
				return;
		}
		rte_delay_us_sleep(100);
	}
}

} // namespace zorv_card
