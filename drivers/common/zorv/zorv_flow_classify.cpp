/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: the receive classifier of the emulated card.
 *
 * A frame is parsed once (its first 256 bytes) into header positions: outer
 * Ethernet, up to two VLAN tags, IPv4 or IPv6 (with its extension headers
 * walked), UDP or TCP, and, when the UDP destination port is an announced
 * VXLAN port, the VXLAN header and the same positions of the inner frame.
 * The rules of group 0 are tried in priority order (then creation order),
 * but only those that can match: each group's rules are sorted into tuples
 * (same fields, same masks) with one exact-match table (rte_hash) each, so a
 * frame costs one lookup per tuple of the group rather than one compare per
 * rule; rules with ranges are always tried;
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
#include <rte_hash.h>
#include <rte_hash_crc.h>
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
	uint64_t sig;      /* kinds and properties in one word (zorv_flow_internal.h) */
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
	f->sig = 0;
	if (f->d == nullptr)
		return;
	parse_level(f, t, 0, 0);
	uint64_t sig = sig_props(L_ETH, f->props[0]) | sig_props(L_IETH, f->props[1]);
	for (unsigned l = 0; l < L_MAX; l++)
		sig |= sig_kind(l, f->kind[l]);
	f->sig = sig;
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

/*
 * Whether the frame has the protocols and properties the tuple asks for.
 * Rules are still checked one by one afterwards, so a tuple whose items ask
 * for contradicting properties may let a frame through here.
 */
inline bool tuple_applies(const struct tuple &tp, const struct frame *f)
{
	return (f->sig & tp.sig_mask) == tp.sig_val;
}

/* The frame's masked fields as the tuple's key (padding words zero). */
inline void tuple_key(const struct tuple *tp, const struct frame *f, uint64_t *key)
{
	for (unsigned w = 0; w < tp->nb_words; w++) {
		const struct tuple_word &tw = tp->words[w];
		const uint8_t *h = f->d + f->off[tw.layer] + tw.off;
		uint64_t v = 0;
		if (tw.size == 8)
			memcpy(&v, h, 8);
		else
			memcpy(&v, h, 4);
		key[w] = v & tw.mask;
	}
	for (unsigned w = tp->nb_words; w < tp->key_words; w++)
		key[w] = 0;
}

/* Several ascending lists one after the other: put them in rule order. */
inline void sort_cands(uint32_t *cands, unsigned nc)
{
	for (unsigned i = 1; i < nc; i++) {
		uint32_t v = cands[i];
		unsigned j = i;
		for (; j > 0 && cands[j - 1] > v; j--)
			cands[j] = cands[j - 1];
		cands[j] = v;
	}
}

/*
 * The rules of group g that can match the frame, ascending, into cands: for
 * each tuple whose protocols and properties the frame has, the candidate
 * list stored under the frame's masked fields, and the rules outside the
 * tuples. Returns their number, or -1 when more than CANDS_MAX (the caller
 * then tries every rule of the group). Every rule that matches the frame is
 * among them; the caller still checks each one.
 */
int group_candidates(const struct table *t, const struct group &g, const struct frame *f,
		     uint32_t *cands)
{
	unsigned nc = 0;
	unsigned lists = 0;

	for (uint32_t ti = g.first_tuple; ti < g.first_tuple + g.nb_tuples; ti++) {
		const struct tuple &tp = t->tuples[ti];
		if (!tuple_applies(tp, f))
			continue;
		uint64_t key[KEY_WORDS_MAX];
		tuple_key(&tp, f, key);
		const uint32_t hash = rte_hash_crc(key, tp.key_words * 8u, 0);
		void *data;
		if (!filter_test(tp, hash) || rte_hash_lookup_with_hash_data(tp.h, key, hash, &data) < 0)
			continue;
		const auto *list = static_cast<const uint32_t *>(data);
		if (nc + list[0] > CANDS_MAX)
			return -1;
		memcpy(&cands[nc], &list[1], sizeof(uint32_t) * list[0]);
		nc += list[0];
		lists++;
	}
	if (g.nb_rest != 0) {
		if (nc + g.nb_rest > CANDS_MAX)
			return -1;
		memcpy(&cands[nc], &t->rest[g.first_rest], sizeof(uint32_t) * g.nb_rest);
		nc += g.nb_rest;
		lists++;
	}
	if (lists > 1)
		sort_cands(cands, nc);
	return static_cast<int>(nc);
}

/* Frames classified together: the first group's lookups go in bulk. */
constexpr unsigned SUB_BURST = 32;
static_assert(SUB_BURST <= RTE_HASH_LOOKUP_BULK_MAX);

/*
 * group_candidates() for cnt frames at once, one bulk lookup per tuple:
 * ncand[i] is the number of frame i's candidates in cands[i], or -1.
 */
void group_candidates_bulk(const struct table *t, const struct group &g, const struct frame *fr,
			   unsigned cnt, int *ncand, uint32_t (*cands)[CANDS_MAX])
{
	uint8_t lists[SUB_BURST] = {};
	uint64_t keys[SUB_BURST][KEY_WORDS_MAX];
	const void *kp[SUB_BURST];
	hash_sig_t sigs[SUB_BURST];
	void *data[SUB_BURST];
	uint8_t idx[SUB_BURST];

	for (unsigned i = 0; i < cnt; i++)
		ncand[i] = 0;
	for (uint32_t ti = g.first_tuple; ti < g.first_tuple + g.nb_tuples; ti++) {
		const struct tuple &tp = t->tuples[ti];
		unsigned m = 0;
		for (unsigned i = 0; i < cnt; i++) {
			if (fr[i].d == nullptr || ncand[i] < 0 || !tuple_applies(tp, &fr[i]))
				continue;
			tuple_key(&tp, &fr[i], keys[m]);
			const uint32_t hash = rte_hash_crc(keys[m], tp.key_words * 8u, 0);
			if (!filter_test(tp, hash))
				continue;
			sigs[m] = hash;
			kp[m] = keys[m];
			idx[m++] = static_cast<uint8_t>(i);
		}
		if (m == 0)
			continue;
		uint64_t hits = 0;
		if (rte_hash_lookup_with_hash_bulk_data(tp.h, kp, sigs, m, &hits, data) <= 0)
			continue;
		while (hits != 0) {
			unsigned j = static_cast<unsigned>(__builtin_ctzll(hits));
			hits &= hits - 1;
			const unsigned i = idx[j];
			const auto *list = static_cast<const uint32_t *>(data[j]);
			if (static_cast<unsigned>(ncand[i]) + list[0] > CANDS_MAX) {
				ncand[i] = -1;
				continue;
			}
			memcpy(&cands[i][ncand[i]], &list[1], sizeof(uint32_t) * list[0]);
			ncand[i] += static_cast<int>(list[0]);
			lists[i]++;
		}
	}
	for (unsigned i = 0; i < cnt; i++) {
		if (ncand[i] < 0)
			continue;
		if (g.nb_rest != 0) {
			if (static_cast<unsigned>(ncand[i]) + g.nb_rest > CANDS_MAX) {
				ncand[i] = -1;
				continue;
			}
			memcpy(&cands[i][ncand[i]], &t->rest[g.first_rest], sizeof(uint32_t) * g.nb_rest);
			ncand[i] += static_cast<int>(g.nb_rest);
			lists[i]++;
		}
		if (lists[i] > 1)
			sort_cands(cands[i], static_cast<unsigned>(ncand[i]));
	}
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

/*
 * COUNT of one burst: consecutive hits of the same rule are added to its
 * counters once, rather than with two atomic additions per frame.
 */
struct pending_counts {
	struct rte_flow *rule = nullptr;
	uint64_t hits = 0;
	uint64_t bytes = 0;

	void add(struct rte_flow *r, uint32_t len)
	{
		if (r != rule) {
			flush();
			rule = r;
		}
		hits++;
		bytes += len;
	}

	void flush()
	{
		if (hits != 0) {
			rule->hits.fetch_add(hits, std::memory_order_relaxed);
			rule->bytes.fetch_add(bytes, std::memory_order_relaxed);
		}
		rule = nullptr;
		hits = bytes = 0;
	}
};

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
	struct pending_counts counts;
	struct frame fr[SUB_BURST];
	uint8_t buf[SUB_BURST][PARSE_WINDOW];
	int ncand0[SUB_BURST];
	uint32_t cands0[SUB_BURST][CANDS_MAX];
	const struct group &g0 = t->groups[t->group0];
	for (uint16_t i = 0; i < n; i++) {
		const unsigned sub = i % SUB_BURST;
		if (sub == 0) {
			/* Parse the next frames, then look them up in the first group at once. */
			const unsigned cnt = std::min<unsigned>(SUB_BURST, n - i);
			for (unsigned j = 0; j < cnt; j++)
				parse_frame(pkts[i + j], t, &fr[j], buf[j]);
			group_candidates_bulk(t, g0, fr, cnt, ncand0, cands0);
		}
		struct rte_mbuf *m = pkts[i];
		const struct frame &f = fr[sub];
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
			uint32_t cands[CANDS_MAX];
			const uint32_t *cl = cands;
			int nc;
			if (gi == t->group0) {
				nc = ncand0[sub];
				cl = cands0[sub];
			} else {
				nc = group_candidates(t, g, &f, cands);
			}
			const uint32_t ntry = nc < 0 ? g.count : static_cast<uint32_t>(nc);
			for (uint32_t ci = 0; ci < ntry && !done; ci++) {
				const uint32_t k = nc < 0 ? g.first + ci : cl[ci];
				struct rte_flow *r = t->rules[k];
				const struct actions &a = r->def.act;
				if (!match_rule(&f, &r->def))
					continue;
				if (a.count && !a.count_after_meter) {
					counts.add(r, len);
				}
				if (a.meter != nullptr && meter_frame(a.meter, len, now) < 0) {
					verdict = ZORV_FLOW_VERDICT_DROP;
					done = true;
					break;
				}
				if (a.count && a.count_after_meter) {
					counts.add(r, len);
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
	/* While the table, and so the rule, is still ours. */
	counts.flush();
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
