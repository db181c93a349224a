/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's bursts: what the port's receive and transmit bursts
 * call. Dequeue takes the frames the classifier steered to the queue's ring
 * first, then the peer's frames from its virtqueue, completes what the peer
 * left to the card (checksums, large TCP frames), applies the firmware MTU
 * and the flow classifier. Enqueue carries out the port's transmit offloads
 * and copies frames into the peer's virtqueue, and holds the mbufs it took
 * until the next burst on the queue (the port's burst reads them after its
 * last enqueue). A connection is found in the card's table by vid, without
 * a lock (zorv_card_internal.h).
 */
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <atomic>

#include <ethdev_driver.h>
#include <rte_ether.h>
#include <rte_mbuf.h>
#include <rte_ring.h>
#include <rte_vhost.h>

#include "zorv1_ethdev.h"
#include "zorv1_vhost.h"
#include "zorv_card_internal.h"
#include "zorv_flow.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"

using namespace zorv_card;

namespace {

/*
 * Segment a TSO packet here and copy the segments to the guest. False when
 * nothing was delivered and the packet may be offered again (no mbufs for
 * the segments, or a full virtqueue); once the first segments are in, the
 * packet counts as sent and later losses are counted.
 */
bool tx_segment(int dev, uint16_t vq, const struct rte_mbuf *m)
{
	struct rte_mempool *pool = seg_pool.load(std::memory_order_acquire);
	struct rte_mbuf *segs[ZORV_CARD_TSO_SEGS_MAX];

	int n = pool != nullptr ? zorv_card_tx_segments(pool, m, segs, ZORV_CARD_TSO_SEGS_MAX)
				: -ENOMEM;
	if (n == -ENOMEM)
		return false;
	if (n <= 0) {
		/* Planned for segmentation but not segmentable: dropped. */
		g_dpdk_cp_stat.enqueue_vhost_len_fail++;
		return true;
	}
	uint32_t sent = 0;
	while (sent < static_cast<uint32_t>(n)) {
		uint16_t k = rte_vhost_enqueue_burst(dev, vq, &segs[sent], n - sent);
		if (k == 0)
			break;
		sent += k;
	}
	rte_pktmbuf_free_bulk(segs, n);
	if (sent == 0)
		return false;
	if (sent < static_cast<uint32_t>(n))
		g_dpdk_cp_stat.enqueue_vhost_len_fail++; /* packet cut short */
	return true;
}

/* Copy pkts to the guest; returns how many, from the front, were accepted. */
uint16_t tx_copy(const card_conn *c, uint16_t vq, struct rte_mbuf **pkts, uint16_t n)
{
	int dev = c->dev;
	uint64_t features = c->features.load(std::memory_order_relaxed);
	uint16_t done = 0;

	while (done < n) {
		uint16_t run = done;
		bool segment = false;
		for (; run < n; run++) {
			if ((pkts[run]->ol_flags & TX_OFFLOAD_MASK) == 0)
				continue;
			int ret = zorv_card_tx_prepare(features, pkts[run]);
			if (ret == ZORV_CARD_TX_SEGMENT) {
				segment = true;
				break;
			}
			if (ret < 0)
				g_dpdk_cp_stat.enqueue_vhost_len_fail++; /* goes as it is */
		}
		if (run > done) {
			uint16_t want = run - done;
			uint16_t sent = rte_vhost_enqueue_burst(dev, vq, &pkts[done], want);
			done += sent;
			if (sent < want)
				return done;
		}
		if (segment) {
			if (!tx_segment(dev, vq, pkts[done]))
				return done;
			done++;
		}
	}
	return done;
}

/* Frames within the MTU of the port's virtual port stay; the others are dropped. */
uint16_t mtu_filter(struct rte_mbuf **pkts, uint16_t n, uint32_t mtu, uint16_t vport)
{
	uint16_t kept = 0;
	for (uint16_t i = 0; i < n; i++) {
		struct rte_mbuf *m = pkts[i];
		uint32_t limit = mtu + ZORV_FW_ETH_HDR_LEN;
		if (m->data_len >= sizeof(struct rte_ether_hdr)) {
			uint16_t et = rte_pktmbuf_mtod(m, const struct rte_ether_hdr *)->ether_type;
			if (et == rte_cpu_to_be_16(RTE_ETHER_TYPE_VLAN) ||
			    et == rte_cpu_to_be_16(RTE_ETHER_TYPE_QINQ))
				limit += ZORV_FW_VLAN_TAG_LEN;
		}
		if (m->pkt_len > limit) {
			zorv_fw_count_mtu_drop(vport);
			rte_pktmbuf_free(m);
			continue;
		}
		pkts[kept++] = m;
	}
	return kept;
}

/*
 * Whether a frame the port transmits exceeds the MTU. A TSO packet is
 * judged by the IP packets the peer or the card makes of it (headers and
 * one segment of payload), any other frame by its length against the MTU
 * plus the Ethernet header and, for a tagged frame, one tag.
 */
bool tx_over_mtu(const struct rte_mbuf *m, uint32_t mtu)
{
	if ((m->ol_flags & RTE_MBUF_F_TX_TCP_SEG) != 0 && m->tso_segsz != 0)
		return static_cast<uint32_t>(m->l3_len) + m->l4_len + m->tso_segsz > mtu;
	uint32_t limit = mtu + ZORV_FW_ETH_HDR_LEN;
	if (m->data_len >= sizeof(struct rte_ether_hdr)) {
		uint16_t et = rte_pktmbuf_mtod(m, const struct rte_ether_hdr *)->ether_type;
		if (et == rte_cpu_to_be_16(RTE_ETHER_TYPE_VLAN) ||
		    et == rte_cpu_to_be_16(RTE_ETHER_TYPE_QINQ))
			limit += ZORV_FW_VLAN_TAG_LEN;
	}
	return m->pkt_len > limit;
}

/*
 * tx_copy for a port with an MTU. A frame over it is taken from the port
 * like a sent one (the application must not send it again) and held with
 * them until the next burst, since the port's burst still reads it, but it
 * never reaches the peer: the firmware counts it as a transmit MTU drop.
 */
uint16_t tx_copy_mtu(const card_conn *c, uint16_t vq, struct rte_mbuf **pkts, uint16_t n,
		     uint32_t mtu, uint16_t vport)
{
	uint16_t done = 0;

	while (done < n) {
		uint16_t run = done;
		while (run < n && !tx_over_mtu(pkts[run], mtu))
			run++;
		if (run > done) {
			uint16_t want = run - done;
			uint16_t sent = tx_copy(c, vq, &pkts[done], want);
			done += sent;
			if (sent < want)
				return done;
		}
		if (done < n) {
			zorv_fw_count_tx_mtu_drop(vport);
			done++;
		}
	}
	return done;
}


/* ---- Receive offloads ---- */

/*
 * What the card did with the offload requests of the frames its peers sent
 * (process-wide; in /zorv1/cp_stats after the driver's counters).
 */
struct card_rx_stats {
	std::atomic<uint64_t> csum_completed; /* L4 checksums the card completed */
	std::atomic<uint64_t> gso_frames;     /* large frames the card segmented */
	std::atomic<uint64_t> gso_segments;   /* frames made of them */
	std::atomic<uint64_t> offload_bad;    /* requests the frame did not support: sent as is */
	std::atomic<uint64_t> nombuf;         /* large frames dropped: no mbufs for the segments */
	std::atomic<uint64_t> ring_full;      /* segments dropped: the queue's ring was full */
};
card_rx_stats rx_stats;

inline void count(std::atomic<uint64_t> &c, uint64_t n = 1)
{
	c.fetch_add(n, std::memory_order_relaxed);
}

/* The request a frame from the peer carries, as the vhost library marks it. */
inline bool rx_wants_offload(const struct rte_mbuf *m)
{
	return (m->ol_flags & RTE_MBUF_F_RX_LRO) != 0 ||
	       (m->ol_flags & RTE_MBUF_F_RX_L4_CKSUM_MASK) == RTE_MBUF_F_RX_L4_CKSUM_NONE;
}

/*
 * Carry out what the peer left to the card for one frame: the port
 * advertises no receive offload, so every frame it delivers is complete. A
 * frame whose L4 checksum the peer left partial (NEEDS_CSUM) gets its
 * complete checksum; a large TCP frame (GSO) is cut into segments of its
 * gso_size from the queue's pool, each with its own headers and checksums,
 * and freed. The card's transmit offload code does both. Returns the frames
 * to deliver in out[] (m itself, or its segments), 0 when m was dropped.
 */
int rx_offload_one(struct rte_mbuf *m, struct rte_mempool *pool, struct rte_mbuf **out)
{
	bool gso = (m->ol_flags & RTE_MBUF_F_RX_LRO) != 0;
	uint32_t l4 = m->packet_type & RTE_PTYPE_L4_MASK;
	uint64_t want = l4 == RTE_PTYPE_L4_UDP ? RTE_MBUF_F_TX_UDP_CKSUM : RTE_MBUF_F_TX_TCP_CKSUM;
	if (gso && l4 == RTE_PTYPE_L4_TCP)
		want |= RTE_MBUF_F_TX_TCP_SEG;
	m->ol_flags = want;
	out[0] = m;

	int ret = zorv_card_tx_prepare(0, m);
	if (ret == ZORV_CARD_TX_SEGMENT) {
		int n = zorv_card_tx_segments(pool, m, out, ZORV_CARD_TSO_SEGS_MAX);
		if (n <= 0) {
			if (n == -ENOMEM)
				count(rx_stats.nombuf);
			else
				count(rx_stats.offload_bad);
			rte_pktmbuf_free(m);
			return 0;
		}
		rte_pktmbuf_free(m);
		count(rx_stats.gso_frames);
		count(rx_stats.gso_segments, static_cast<uint64_t>(n));
		return n;
	}
	if (ret < 0)
		count(rx_stats.offload_bad); /* goes as it is */
	else
		count(rx_stats.csum_completed);
	m->ol_flags = 0;
	return 1;
}

/*
 * Complete the offload requests of n frames just dequeued into pkts, which
 * has room for room frames. Segments that do not fit go, in order, to the
 * queue's ring after the MTU check and the flow classifier (the ring holds
 * frames already classified), and so does every frame behind them in this
 * burst, so that a flow keeps its order. Returns the frames left in pkts.
 */
uint16_t rx_offloads(struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts, uint16_t n,
		     uint16_t room, uint32_t mtu, uint16_t vport)
{
	struct rte_mbuf *keep[RX_CHUNK_MAX];
	struct rte_mbuf *spill[ZORV_CARD_TSO_SEGS_MAX + RX_CHUNK_MAX];
	struct rte_mbuf *segs[ZORV_CARD_TSO_SEGS_MAX];
	uint16_t nkeep = 0;
	uint32_t nspill = 0;

	room = std::min<uint16_t>(room, RX_CHUNK_MAX);
	for (uint16_t i = 0; i < n; i++) {
		int k = 1;
		segs[0] = pkts[i];
		if (rx_wants_offload(pkts[i]))
			k = rx_offload_one(pkts[i], rxq->mb_pool, segs);
		for (int j = 0; j < k; j++) {
			if (nspill == 0 && nkeep < room)
				keep[nkeep++] = segs[j];
			else if (nspill < RTE_DIM(spill))
				spill[nspill++] = segs[j];
			else
				rte_pktmbuf_free(segs[j]); /* cannot happen: room for one GSO frame */
		}
		if (nspill > ZORV_CARD_TSO_SEGS_MAX)
			break;
	}
	memcpy(pkts, keep, sizeof(keep[0]) * nkeep);
	if (nspill == 0)
		return nkeep;

	uint32_t left = nspill;
	if (mtu != 0)
		left = mtu_filter(spill, static_cast<uint16_t>(left), mtu, vport);
	struct zorv_flow_priv *flow = &rxq->internal->comm.flow_data;
	if (left != 0 && zorv_flow_active(flow))
		left = zorv_flow_rx_dispatch(flow, rxq, spill, static_cast<uint16_t>(left));
	struct rte_ring *ring = zorv1_get_ring_by_local_id(rxq->local_id);
	uint32_t done = ring == nullptr ? 0
					: rte_ring_enqueue_burst(ring, reinterpret_cast<void *const *>(spill),
								 left, nullptr);
	if (done < left) {
		count(rx_stats.ring_full, left - done);
		rte_pktmbuf_free_bulk(&spill[done], left - done);
	}
	return nkeep;
}

} // namespace

namespace zorv_card {

/*
 * Frames of a connection that went away and still wait in its port's
 * receive rings (segments that did not fit a burst, frames the classifier
 * steered) are dropped with it, once the port's receive gates are closed
 * and drained: no burst dequeues from those rings any more, and a later
 * connection starts afresh.
 */
void drop_waiting_frames(int vid, const card_conn *c)
{
	struct rte_eth_dev *eth = zorv1_dev_get_ethdev_by_vid(vid);
	if (eth == nullptr || eth->data == nullptr || eth->data->rx_queues == nullptr ||
	    eth->data->dev_private != c->internal.load(std::memory_order_acquire))
		return;
	for (uint16_t i = 0; i < eth->data->nb_rx_queues; i++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(eth->data->rx_queues[i]);
		if (rxq == nullptr || rte_atomic32_read(&rxq->allow_queuing) != 0 ||
		    rte_atomic32_read(&rxq->while_queuing) != 0)
			continue;
		struct rte_ring *ring = zorv1_get_ring_by_local_id(rxq->local_id);
		struct rte_mbuf *m[RX_CHUNK_MAX];
		unsigned int n;
		while (ring != nullptr &&
		       (n = rte_ring_dequeue_burst(ring, reinterpret_cast<void **>(m), RTE_DIM(m),
						   nullptr)) != 0)
			rte_pktmbuf_free_bulk(m, n);
	}
}

} // namespace zorv_card

extern "C" {

/* ---- Bursts ---- */

uint16_t rte_zorv1_vhost_dequeue_burst(struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts,
				       uint16_t count)
{
	uint16_t nb = 0;

	if (unlikely(count == 0))
		return 0;

	/* Packets the card steered to this queue come first. */
	struct rte_ring *ring = zorv1_get_ring_by_local_id(rxq->local_id);
	if (ring != nullptr) {
		nb = static_cast<uint16_t>(rte_ring_dequeue_burst(
			ring, reinterpret_cast<void **>(pkts), count, nullptr));
		if (nb == count)
			return nb;
	}

	struct zorv1_internal *internal = rxq->internal;
	int vid = __atomic_load_n(&internal->vid, __ATOMIC_RELAXED); /* written by the event thread */
	card_conn *c = live_conn(vid);
	if (unlikely(c == nullptr || c->internal.load(std::memory_order_acquire) != internal)) {
		g_dpdk_cp_stat.dequeue_dev_null++;
		return nb;
	}
	uint16_t vq = static_cast<uint16_t>((rxq->virtqueue_id / ZORV1_QNUM) * ZORV1_QNUM + ZORV1_TXQ);
	if (vq >= c->nr_vring.load(std::memory_order_relaxed))
		return nb; /* the peer has fewer queue pairs than the port */

	uint16_t vport = static_cast<uint16_t>(internal->comm.flow_data.priv_port);
	uint32_t mtu = zorv_fw_get_vport_mtu(vport);
	/* Frames before this one came from the ring: the classifier steered them already. */
	const uint16_t from_peer = nb;
	while (nb < count) {
		uint16_t want = count - nb;
		uint16_t got = rte_vhost_dequeue_burst(c->dev, vq, rxq->mb_pool, &pkts[nb], want);
		uint16_t ready = got;
		if (c->rx_offloads)
			ready = rx_offloads(rxq, &pkts[nb], got, want, mtu, vport);
		nb += mtu != 0 ? mtu_filter(&pkts[nb], ready, mtu, vport) : ready;
		if (got < want)
			break;
	}
	/* With no flow rule installed this is one load and compare. */
	struct zorv_flow_priv *flow = &internal->comm.flow_data;
	if (nb > from_peer && zorv_flow_active(flow))
		nb = from_peer + zorv_flow_rx_dispatch(flow, rxq, &pkts[from_peer], nb - from_peer);
	return nb;
}

uint16_t rte_zorv1_vhost_enqueue_burst(struct zorv1_vdev_txq *txq, struct rte_mbuf **pkts,
				       uint16_t count)
{
	struct zorv1_internal *internal = txq->internal;
	int vid = __atomic_load_n(&internal->vid, __ATOMIC_RELAXED);
	card_conn *c = live_conn(vid);
	if (unlikely(c == nullptr || c->internal.load(std::memory_order_acquire) != internal)) {
		g_dpdk_cp_stat.enqueue_dev_null++;
		return 0;
	}
	uint16_t q = txq->virtqueue_id / ZORV1_QNUM;
	uint16_t vq = q * ZORV1_QNUM + ZORV1_RXQ;
	if (unlikely(q >= c->nb_txq)) {
		/* A peer with fewer queue pairs than the port is normal; more is not served. */
		if (vq < c->nr_vring.load(std::memory_order_relaxed))
			g_dpdk_cp_stat.enqueue_queue_fail++;
		return 0;
	}

	/*
	 * A call that does not continue where the previous one of a full chunk
	 * ended starts a new burst: the previous burst has returned and no
	 * longer reads what it sent.
	 */
	struct card_txq_hold *hold = &c->txq[q];
	if (pkts != hold->next_pkts)
		hold_release(hold);
	hold->next_pkts = nullptr;

	if (unlikely(count == 0 || vq >= c->nr_vring.load(std::memory_order_relaxed)))
		return 0;

	uint16_t n = std::min<uint16_t>(count, ZORV_CARD_TX_HOLD - hold->nb_held);
	uint16_t vport = static_cast<uint16_t>(internal->comm.flow_data.priv_port);
	uint32_t mtu = zorv_fw_get_vport_mtu(vport);
	uint16_t sent = n == 0 ? 0 : mtu != 0 ? tx_copy_mtu(c, vq, pkts, n, mtu, vport)
					    : tx_copy(c, vq, pkts, n);
	memcpy(&hold->held[hold->nb_held], pkts, sizeof(pkts[0]) * sent);
	hold->nb_held += sent;
	if (sent == count)
		hold->next_pkts = pkts + count;
	else
		g_dpdk_cp_stat.enqueue_fail++;
	return sent;
}

uint32_t zorv_card_conn_held_mbufs(int vid)
{
	card_conn *c = live_conn(vid);
	return c != nullptr ? conn_held(c) : 0;
}

void zorv_card_get_rx_stats(struct zorv_card_rx_stats *st)
{
	st->csum_completed = rx_stats.csum_completed.load(std::memory_order_relaxed);
	st->gso_frames = rx_stats.gso_frames.load(std::memory_order_relaxed);
	st->gso_segments = rx_stats.gso_segments.load(std::memory_order_relaxed);
	st->offload_bad = rx_stats.offload_bad.load(std::memory_order_relaxed);
	st->nombuf = rx_stats.nombuf.load(std::memory_order_relaxed);
	st->ring_full = rx_stats.ring_full.load(std::memory_order_relaxed);
}

} // extern "C"
