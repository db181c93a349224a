/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine of the zorv1 family: what the emulated card and the other
 * family modules use of it.
 *
 * The card classifies the frames of a port's receive queues in software
 * against the port's rte_flow rules (ingress only): patterns over ETH, VLAN,
 * IPV4, IPV6, UDP, TCP and VXLAN, actions DROP, QUEUE, RSS, MARK, FLAG,
 * COUNT, METER, JUMP and PASSTHRU, and rte_mtr meters (srTCM RFC 2697,
 * trTCM RFC 2698, byte mode). The rules live behind zorv_flow_priv.ctx.
 *
 * Receive path of the card, per burst of a queue:
 *
 *     if (zorv_flow_active(&internal->comm.flow_data))
 *             n = zorv_flow_rx_dispatch(&internal->comm.flow_data, rxq, pkts, n);
 *
 * With no rule installed this costs the one load and compare of
 * zorv_flow_active(). zorv_flow_rx_dispatch() classifies every frame once,
 * moves the frames that go to other receive queues of the port into those
 * queues' rings (where the queues' own bursts pick them up before their
 * transport), frees the dropped ones and leaves the frames for this queue at
 * the front of pkts, in their order. zorv_flow_classify() is the same
 * classification without the moving, for a caller that places the frames
 * itself.
 *
 * Rule changes and data path: rules are changed on control threads while
 * the queues' threads classify. A change builds a new immutable rule table,
 * publishes it with one atomic store and frees the table it replaces (and
 * the rules it dropped) only after every queue that was classifying with it
 * has finished its burst. Each receive queue has a reader slot in the port's
 * flow context; a burst marks its slot busy (odd sequence number) while it
 * uses the table, and the control thread waits for busy slots to move on.
 * A receive queue is polled by one thread at a time, as DPDK requires, so a
 * slot never has two users. The data path takes no lock, except a meter's
 * spinlock around its token-bucket update when a METER rule matches (a
 * meter is shared by every queue of the port).
 */
#ifndef ZORV_FLOW_H
#define ZORV_FLOW_H

#include <stdbool.h>
#include <stdint.h>

#include "zorv1_common.h"

#ifdef __cplusplus
extern "C" {
#endif

struct rte_eth_dev;
struct rte_mbuf;
struct zorv1_vdev_rxq;

/* VXLAN UDP ports a port can announce. */
#define ZORV_FLOW_MAX_VXLAN_PORTS 4

/* zorv_flow_priv.flags: the port has a flow context. */
#define ZORV_FLOW_F_ACTIVE 0x1u
/* zorv_flow_priv.flags: a rule table is installed; the receive path classifies. */
#define ZORV_FLOW_F_RULES 0x2u

/* Verdict of a frame that a rule drops (any other verdict is a queue index). */
#define ZORV_FLOW_VERDICT_DROP UINT16_MAX

/* Frames classified per call of the engine's inner loop. */
#define ZORV_FLOW_BURST_MAX 64

/* Counters of a port's receive classification. */
struct zorv_flow_stats {
	uint64_t classified;  /* frames looked at with a rule table installed */
	uint64_t dropped;     /* frames dropped by DROP or a meter's policy */
	uint64_t steered;     /* frames moved to another receive queue */
	uint64_t ring_full;   /* frames freed because the target queue's ring was full */
	uint64_t no_queue;    /* frames kept because the target queue had no ring */
};

/* vNIC id of an ethdev port: 0 is never used, so a zeroed record has none. */
static inline uint32_t zorv_flow_vnic_of_port(uint16_t port_id)
{
	return (uint32_t)port_id + 1;
}

/* True when the port has rules: the receive path must classify. One load. */
static inline bool zorv_flow_active(const struct zorv_flow_priv *p)
{
	return (__atomic_load_n(&p->flags, __ATOMIC_RELAXED) & ZORV_FLOW_F_RULES) != 0;
}

/*
 * Classify n frames received on queue this_queue of a port that has
 * nb_rx_queues receive queues. verdicts[i] receives, for pkts[i], the queue
 * the frame goes to (this_queue to keep it) or ZORV_FLOW_VERDICT_DROP.
 * MARK, FLAG and RSS results are written into the mbufs; counters and
 * meters are updated. Returns how many verdicts differ from this_queue.
 * Data path: one thread per this_queue at a time; no allocation.
 */
uint16_t zorv_flow_classify(struct zorv_flow_priv *p, uint16_t nb_rx_queues,
			    struct rte_mbuf **pkts, uint16_t n, uint16_t this_queue,
			    uint16_t *verdicts);

/*
 * Classify n frames that receive queue rxq has just taken from the
 * transport, move the ones steered to other queues of its port into those
 * queues' rings, free the dropped ones, and compact the frames for rxq at
 * the front of pkts (order kept). Returns the number of frames left in pkts.
 * A target queue that has no ring keeps the frame on rxq; a full target ring
 * drops it. Data path.
 */
uint16_t zorv_flow_rx_dispatch(struct zorv_flow_priv *p, struct zorv1_vdev_rxq *rxq,
			       struct rte_mbuf **pkts, uint16_t n);

/* Copy the port's classification counters; -EINVAL for bad arguments, -ENODEV without a context. */
int zorv_flow_stats_get(struct rte_eth_dev *dev, struct zorv_flow_stats *stats);

/*
 * Copy up to max announced VXLAN UDP ports of the port into ports; returns
 * how many the port has (0 without a flow context), -EINVAL for a bad
 * argument. Control path.
 */
int zorv_flow_get_vxlan_ports(struct rte_eth_dev *dev, uint16_t *ports, int max);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_FLOW_H */
