/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: the receive classifier of the emulated card.
 *
 * A frame is parsed once (its first 256 bytes) into header positions: outer
 * Ethernet, up to two VLAN tags, IPv4 or IPv6 (with its extension headers
 * walked), UDP or TCP, and, when the UDP destination port is an announced
 * VXLAN port, the VXLAN header and the same positions of the inner frame.
 * The rules of group 0 are tried in priority order (then creation order);
 * the first matching rule that terminates decides. PASSTHRU rules apply
 * their MARK, FLAG, COUNT and METER and let the next rules run; JUMP goes on
 * with the target group (always a higher one, so walks end). A frame that
 * no terminating rule takes stays on the queue it arrived on.
 *
 * RSS: Toeplitz (rte_softrss) over the IPv4/IPv6 addresses and, for TCP and
 * UDP frames whose type is requested, the ports, at the outer headers (level
 * 0 and 1) or the VXLAN inner frame (level 2; a frame without one uses its
 * outer headers). The queue is list[hash % list length]; the hash is left
 * in hash.rss with RTE_MBUF_F_RX_RSS_HASH. A frame the requested types do
 * not cover hashes to 0, the first queue of the list.
 */
#include <string.h>

#include <algorithm>

#include <ethdev_driver.h>
#include <rte_byteorder.h>
#include <rte_cycles.h>
#include <rte_mbuf.h>
#include <rte_pause.h>
#include <rte_ring.h>
#include <rte_thash.h>

#include "zorv1_vhost.h"
#include "zorv_flow_internal.h"

namespace zorv_flow {

namespace {

/* A frame's header positions. */
struct frame {
	const uint8_t *d;
	uint32_t len;
	uint8_t kind[L_MAX];
	uint16_t off[L_MAX];
	uint16_t props[2]; /* enum prop, outer and inner frame */
};

inline uint16_t be16_at(const uint8_t *p)
{
	return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t be32_at(const uint8_t *p)
{
	return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
	       (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

constexpr uint16_t ETYPE_IPV4 = 0x0800;
constexpr uint16_t ETYPE_IPV6 = 0x86dd;
constexpr uint16_t ETYPE_VLAN = 0x8100;
constexpr uint16_t ETYPE_QINQ = 0x88a8;
constexpr uint16_t ETYPE_QINQ_OLD = 0x9100;
constexpr uint8_t PROTO_TCP = 6;
constexpr uint8_t PROTO_UDP = 17;
constexpr unsigned V6_EXT_MAX = 8;

/* Parse one frame level (outer: base L_ETH, inner: base L_IETH) from off. */
void parse_level(struct frame *f, const struct table *t, uint32_t off, unsigned lvl)
{
	const unsigned base = lvl == 0 ? L_ETH : L_IETH;
	const uint8_t *d = f->d;

	if (off + 14 > f->len)
		return;
	f->kind[base + 0] = K_ETH;
	f->off[base + 0] = static_cast<uint16_t>(off);
	uint16_t type = be16_at(d + off + 12);
	off += 14;

	unsigned nv = 0;
	while (type == ETYPE_VLAN || type == ETYPE_QINQ || type == ETYPE_QINQ_OLD) {
		if (off + 4 > f->len)
			return;
		if (nv < 2) {
			f->kind[base + 1 + nv] = K_VLAN;
			f->off[base + 1 + nv] = static_cast<uint16_t>(off);
		}
		nv++;
		type = be16_at(d + off + 2);
		off += 4;
	}
	uint16_t props = 0;
	props |= nv > 0 ? P_VLAN : 0;
	props |= nv > 1 ? P_MORE_VLAN0 : 0;
	props |= nv > 2 ? P_MORE_VLAN1 : 0;

	const unsigned l3 = base + 3, l4 = base + 4;
	uint32_t l4off;
	uint8_t proto;
	if (type == ETYPE_IPV4) {
		if (off + 20 > f->len || (d[off] >> 4) != 4)
			goto done;
		unsigned ihl = (d[off] & 0x0f) * 4u;
		if (ihl < 20)
			goto done;
		f->kind[l3] = K_IPV4;
		f->off[l3] = static_cast<uint16_t>(off);
		if ((be16_at(d + off + 6) & 0x1fff) != 0)
			goto done; /* a later fragment carries no L4 header */
		proto = d[off + 9];
		l4off = off + ihl;
	} else if (type == ETYPE_IPV6) {
		if (off + 40 > f->len || (d[off] >> 4) != 6)
			goto done;
		f->kind[l3] = K_IPV6;
		f->off[l3] = static_cast<uint16_t>(off);
		proto = d[off + 6];
		l4off = off + 40;
		for (unsigned n = 0; n < V6_EXT_MAX; n++) {
			uint32_t hl;
			if (proto == 0 || proto == 43 || proto == 60) {
				if (l4off + 2 > f->len)
					goto done;
				props |= proto == 0 ? P_V6_HOP : proto == 43 ? P_V6_ROUTE : P_V6_DEST;
				hl = (d[l4off + 1] + 1u) * 8u;
			} else if (proto == 44) {
				if (l4off + 8 > f->len)
					goto done;
				props |= P_V6_FRAG;
				hl = 8;
				if ((be16_at(d + l4off + 2) & 0xfff8) != 0) {
					proto = 59; /* later fragment: no L4 header */
					break;
				}
			} else if (proto == 51) {
				if (l4off + 2 > f->len)
					goto done;
				props |= P_V6_AUTH;
				hl = (d[l4off + 1] + 2u) * 4u;
			} else {
				break;
			}
			proto = d[l4off];
			l4off += hl;
		}
	} else {
		goto done;
	}

	if (proto == PROTO_UDP) {
		if (l4off + 8 > f->len)
			goto done;
		f->kind[l4] = K_UDP;
		f->off[l4] = static_cast<uint16_t>(l4off);
		if (lvl != 0 || !t->parse_vxlan)
			goto done;
		uint16_t dport;
		memcpy(&dport, d + l4off + 2, 2);
		for (unsigned i = 0; i < t->nb_vxlan; i++) {
			if (t->vxlan_ports[i] != dport)
				continue;
			if (l4off + 16 > f->len)
				break;
			f->kind[L_VXLAN] = K_VXLAN;
			f->off[L_VXLAN] = static_cast<uint16_t>(l4off + 8);
			parse_level(f, t, l4off + 16, 1);
			break;
		}
	} else if (proto == PROTO_TCP) {
		if (l4off + 20 > f->len)
			goto done;
		f->kind[l4] = K_TCP;
		f->off[l4] = static_cast<uint16_t>(l4off);
	}
done:
	f->props[lvl] = props;
}

void parse_frame(struct rte_mbuf *m, const struct table *t, struct frame *f, uint8_t *buf)
{
	memset(f->kind, 0, sizeof(f->kind));
	f->props[0] = f->props[1] = 0;
	f->len = std::min<uint32_t>(rte_pktmbuf_pkt_len(m), PARSE_WINDOW);
	f->d = static_cast<const uint8_t *>(rte_pktmbuf_read(m, 0, f->len, buf));
	if (f->d == nullptr)
		return;
	parse_level(f, t, 0, 0);
}

bool match_item(const struct frame *f, const struct item *it)
{
	if (f->kind[it->layer] != it->kind)
		return false;
	uint16_t props = f->props[it->layer >= L_IETH ? 1 : 0];
	if ((props & it->prop_mask) != it->prop_val)
		return false;
	const uint8_t *h = f->d + f->off[it->layer];
	for (unsigned i = 0; i < it->nb_words; i++) {
		const struct word &w = it->words[i];
		uint64_t v = 0;
		if (w.size == 8)
			memcpy(&v, h + w.off, 8);
		else
			memcpy(&v, h + w.off, 4);
		if ((v & w.mask) != w.val)
			return false;
	}
	for (unsigned r = 0; r < it->nb_ranges; r++) {
		const struct range &rg = it->ranges[r];
		uint8_t v[16];
		for (unsigned b = 0; b < rg.size; b++)
			v[b] = h[rg.off + b] & rg.mask[b];
		if (memcmp(v, rg.lo, rg.size) < 0 || memcmp(v, rg.hi, rg.size) > 0)
			return false;
	}
	return true;
}

bool match_rule(const struct frame *f, const struct rule_def *def)
{
	for (unsigned i = 0; i < def->nb_items; i++)
		if (!match_item(f, &def->items[i]))
			return false;
	return true;
}

constexpr uint64_t RSS_V4_ANY = RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_FRAG_IPV4 |
				RTE_ETH_RSS_NONFRAG_IPV4_OTHER | RTE_ETH_RSS_NONFRAG_IPV4_TCP |
				RTE_ETH_RSS_NONFRAG_IPV4_UDP;
constexpr uint64_t RSS_V6_ANY = RTE_ETH_RSS_IPV6 | RTE_ETH_RSS_FRAG_IPV6 |
				RTE_ETH_RSS_NONFRAG_IPV6_OTHER | RTE_ETH_RSS_IPV6_EX |
				RTE_ETH_RSS_NONFRAG_IPV6_TCP | RTE_ETH_RSS_NONFRAG_IPV6_UDP |
				RTE_ETH_RSS_IPV6_TCP_EX | RTE_ETH_RSS_IPV6_UDP_EX;
constexpr uint64_t RSS_V4_TCP = RTE_ETH_RSS_NONFRAG_IPV4_TCP;
constexpr uint64_t RSS_V4_UDP = RTE_ETH_RSS_NONFRAG_IPV4_UDP;
constexpr uint64_t RSS_V6_TCP = RTE_ETH_RSS_NONFRAG_IPV6_TCP | RTE_ETH_RSS_IPV6_TCP_EX;
constexpr uint64_t RSS_V6_UDP = RTE_ETH_RSS_NONFRAG_IPV6_UDP | RTE_ETH_RSS_IPV6_UDP_EX;

/* Toeplitz hash of the frame's addresses (and ports) as the rule asks. */
uint32_t rss_hash(const struct frame *f, const struct actions *a)
{
	unsigned l3 = L_L3;
	if (a->rss_level == 2 && f->kind[L_IL3] != K_NONE)
		l3 = L_IL3;
	const unsigned l4 = l3 + 1;
	const uint64_t types = a->rss_types;
	uint32_t w[9];
	unsigned naddr;

	if (f->kind[l3] == K_IPV4 && (types & RSS_V4_ANY)) {
		naddr = 1;
	} else if (f->kind[l3] == K_IPV6 && (types & RSS_V6_ANY)) {
		naddr = 4;
	} else {
		return 0;
	}
	const uint8_t *h = f->d + f->off[l3];
	const uint8_t *src = h + (naddr == 1 ? 12 : 8);
	const uint8_t *dst = src + 4 * naddr;
	bool src_only = (types & RTE_ETH_RSS_L3_SRC_ONLY) && !(types & RTE_ETH_RSS_L3_DST_ONLY);
	bool dst_only = (types & RTE_ETH_RSS_L3_DST_ONLY) && !(types & RTE_ETH_RSS_L3_SRC_ONLY);
	for (unsigned i = 0; i < naddr; i++) {
		w[i] = dst_only ? 0 : be32_at(src + 4 * i);
		w[naddr + i] = src_only ? 0 : be32_at(dst + 4 * i);
	}
	unsigned len = 2 * naddr;

	bool ports = false;
	if (f->kind[l4] == K_TCP)
		ports = (types & (naddr == 1 ? RSS_V4_TCP : RSS_V6_TCP)) != 0;
	else if (f->kind[l4] == K_UDP)
		ports = (types & (naddr == 1 ? RSS_V4_UDP : RSS_V6_UDP)) != 0;
	if (ports) {
		const uint8_t *p = f->d + f->off[l4];
		bool sp_only = (types & RTE_ETH_RSS_L4_SRC_ONLY) && !(types & RTE_ETH_RSS_L4_DST_ONLY);
		bool dp_only = (types & RTE_ETH_RSS_L4_DST_ONLY) && !(types & RTE_ETH_RSS_L4_SRC_ONLY);
		uint32_t sport = dp_only ? 0 : be16_at(p);
		uint32_t dport = sp_only ? 0 : be16_at(p + 2);
		w[len++] = (sport << 16) | dport;
	}
	return rte_softrss(w, len, a->rss_key);
}

} // namespace

int meter_frame(struct meter *m, uint32_t len, uint64_t now)
{
	m->lock.lock();
	enum rte_color c = RTE_COLOR_GREEN;
	if (m->enabled) {
		switch (m->prof->alg) {
		case RTE_MTR_SRTCM_RFC2697:
			/* Queues read the TSC at different moments: never go back in time. */
			now = std::max(now, m->sr.time);
			c = rte_meter_srtcm_color_blind_check(&m->sr, &m->prof->sr, now, len);
			break;
		case RTE_MTR_TRTCM_RFC2698:
			now = std::max({now, m->tr.time_tc, m->tr.time_tp});
			c = rte_meter_trtcm_color_blind_check(&m->tr, &m->prof->tr, now, len);
			break;
		default:
			break;
		}
	}
	/* Every metered frame counts in its colour; a dropped one also in dropped. */
	m->stats.n_pkts[c]++;
	m->stats.n_bytes[c] += len;
	bool drop = m->pol->drop[c];
	if (drop) {
		m->stats.n_pkts_dropped++;
		m->stats.n_bytes_dropped += len;
	}
	m->lock.unlock();
	return drop ? -1 : static_cast<int>(c);
}

uint16_t classify_at(struct zorv_flow_ctx *ctx, uint16_t nb_rx_queues, struct rte_mbuf **pkts,
		     uint16_t n, uint16_t this_queue, uint16_t *verdicts, uint64_t now)
{
	uint16_t moved = 0;

	for (uint16_t i = 0; i < n; i++)
		verdicts[i] = this_queue;
	if (this_queue >= READERS_MAX || n == 0)
		return 0;

	/* Enter the reader slot before looking at the table (see zorv_flow.h). */
	struct reader &rd = ctx->readers[this_queue];
	uint64_t seq = rd.seq.load(std::memory_order_relaxed);
	rd.seq.store(seq + 1, std::memory_order_seq_cst);
	const struct table *t = ctx->table.load(std::memory_order_seq_cst);
	if (t == nullptr || t->group0 < 0) {
		rd.seq.store(seq + 2, std::memory_order_release);
		return 0;
	}

	uint64_t dropped = 0;
	uint8_t buf[PARSE_WINDOW];
	for (uint16_t i = 0; i < n; i++) {
		struct rte_mbuf *m = pkts[i];
		struct frame f;
		parse_frame(m, t, &f, buf);
		if (f.d == nullptr)
			continue;
		const uint32_t len = rte_pktmbuf_pkt_len(m);
		uint16_t verdict = this_queue;
		bool mark = false, flag = false, rss = false;
		uint32_t mark_id = 0, hash = 0;
		int32_t gi = t->group0;

		while (gi >= 0) {
			const struct group &g = t->groups[gi];
			int32_t next = -1;
			bool done = false;
			for (uint32_t k = g.first; k < g.first + g.count && !done; k++) {
				struct rte_flow *r = t->rules[k];
				const struct actions &a = r->def.act;
				if (!match_rule(&f, &r->def))
					continue;
				if (a.count && !a.count_after_meter) {
					r->hits.fetch_add(1, std::memory_order_relaxed);
					r->bytes.fetch_add(len, std::memory_order_relaxed);
				}
				if (a.meter != nullptr && meter_frame(a.meter, len, now) < 0) {
					verdict = ZORV_FLOW_VERDICT_DROP;
					done = true;
					break;
				}
				if (a.count && a.count_after_meter) {
					r->hits.fetch_add(1, std::memory_order_relaxed);
					r->bytes.fetch_add(len, std::memory_order_relaxed);
				}
				if (a.mark) {
					mark = true;
					mark_id = a.mark_id;
				}
				flag |= a.flag;
				switch (a.fate) {
				case F_PASSTHRU:
					continue;
				case F_DROP:
					verdict = ZORV_FLOW_VERDICT_DROP;
					break;
				case F_QUEUE:
					verdict = a.queue < nb_rx_queues ? a.queue : this_queue;
					break;
				case F_RSS: {
					uint16_t nq = a.rss_queue_num != 0 ? a.rss_queue_num : nb_rx_queues;
					if (nq == 0)
						break;
					hash = rss_hash(&f, &a);
					rss = true;
					uint16_t q = a.rss_queue_num != 0 ? a.rss_queues[hash % nq]
									 : static_cast<uint16_t>(hash % nq);
					verdict = q < nb_rx_queues ? q : this_queue;
					break;
				}
				case F_JUMP:
					next = t->jump[k];
					break;
				default:
					break;
				}
				done = true;
			}
			gi = next;
		}

		if (verdict == ZORV_FLOW_VERDICT_DROP) {
			dropped++;
		} else {
			if (mark) {
				m->hash.fdir.hi = mark_id;
				m->ol_flags |= RTE_MBUF_F_RX_FDIR | RTE_MBUF_F_RX_FDIR_ID;
			} else if (flag) {
				m->ol_flags |= RTE_MBUF_F_RX_FDIR;
			}
			if (rss) {
				m->hash.rss = hash;
				m->ol_flags |= RTE_MBUF_F_RX_RSS_HASH;
			}
		}
		verdicts[i] = verdict;
		moved += verdict != this_queue;
	}
	rd.seq.store(seq + 2, std::memory_order_release);

	ctx->st_classified.fetch_add(n, std::memory_order_relaxed);
	if (dropped != 0)
		ctx->st_dropped.fetch_add(dropped, std::memory_order_relaxed);
	return moved;
}

void sync_readers(struct zorv_flow_ctx *ctx)
{
	for (unsigned i = 0; i < READERS_MAX; i++) {
		uint64_t s = ctx->readers[i].seq.load(std::memory_order_seq_cst);
		if ((s & 1) == 0)
			continue;
		while (ctx->readers[i].seq.load(std::memory_order_acquire) == s)
			rte_pause();
	}
}

} // namespace zorv_flow

extern "C" {

uint16_t zorv_flow_classify(struct zorv_flow_priv *p, uint16_t nb_rx_queues,
			    struct rte_mbuf **pkts, uint16_t n, uint16_t this_queue,
			    uint16_t *verdicts)
{
	auto *ctx = static_cast<struct zorv_flow_ctx *>(p->ctx);

	if (unlikely(ctx == nullptr)) {
		for (uint16_t i = 0; i < n; i++)
			verdicts[i] = this_queue;
		return 0;
	}
	return zorv_flow::classify_at(ctx, nb_rx_queues, pkts, n, this_queue, verdicts,
				      rte_rdtsc());
}

uint16_t zorv_flow_rx_dispatch(struct zorv_flow_priv *p, struct zorv1_vdev_rxq *rxq,
			       struct rte_mbuf **pkts, uint16_t n)
{
	auto *ctx = static_cast<struct zorv_flow_ctx *>(p->ctx);
	if (unlikely(ctx == nullptr))
		return n;

	struct rte_eth_dev_data *data = rte_eth_devices[rxq->port].data;
	const uint16_t nb_rxq = data->nb_rx_queues;
	const uint16_t this_queue = static_cast<uint16_t>(rxq->virtqueue_id / ZORV1_QNUM);
	uint16_t verdicts[ZORV_FLOW_BURST_MAX];
	uint16_t kept = 0;
	uint64_t steered = 0, ring_full = 0, no_queue = 0;

	for (uint16_t off = 0; off < n; off += ZORV_FLOW_BURST_MAX) {
		uint16_t c = std::min<uint16_t>(n - off, ZORV_FLOW_BURST_MAX);
		uint16_t moved = zorv_flow_classify(p, nb_rxq, pkts + off, c, this_queue, verdicts);
		if (moved == 0) {
			if (kept != off)
				memmove(pkts + kept, pkts + off, sizeof(pkts[0]) * c);
			kept += c;
			continue;
		}
		for (uint16_t i = 0; i < c;) {
			struct rte_mbuf *m = pkts[off + i];
			uint16_t v = verdicts[i];
			if (v == this_queue) {
				pkts[kept++] = m;
				i++;
				continue;
			}
			if (v == ZORV_FLOW_VERDICT_DROP) {
				rte_pktmbuf_free(m);
				i++;
				continue;
			}
			/* A run of frames for the same queue goes in one enqueue. */
			uint16_t run = 1;
			while (i + run < c && verdicts[i + run] == v)
				run++;
			auto *target = static_cast<struct zorv1_vdev_rxq *>(data->rx_queues[v]);
			struct rte_ring *ring =
				target != nullptr ? zorv1_get_ring_by_local_id(target->local_id) : nullptr;
			if (ring == nullptr) {
				for (uint16_t j = 0; j < run; j++)
					pkts[kept++] = pkts[off + i + j];
				no_queue += run;
			} else {
				unsigned done = rte_ring_enqueue_burst(
					ring, reinterpret_cast<void *const *>(pkts + off + i), run, nullptr);
				steered += done;
				for (uint16_t j = static_cast<uint16_t>(done); j < run; j++)
					rte_pktmbuf_free(pkts[off + i + j]);
				ring_full += run - done;
			}
			i += run;
		}
	}
	if (steered != 0)
		ctx->st_steered.fetch_add(steered, std::memory_order_relaxed);
	if (ring_full != 0)
		ctx->st_ring_full.fetch_add(ring_full, std::memory_order_relaxed);
	if (no_queue != 0)
		ctx->st_no_queue.fetch_add(no_queue, std::memory_order_relaxed);
	return kept;
}

} // extern "C"
