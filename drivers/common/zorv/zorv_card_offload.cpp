/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's software transmit offloads: pure functions over one
 * frame. zorv_card_tx_prepare decides what a frame's offload requests need
 * for a peer with given virtio features and fills the checksums the peer
 * does not take; zorv_card_tx_segments cuts a TSO frame into segments. The
 * card's bursts use both on transmit, and on receive for the frames a peer
 * left to it (zorv_card_burst.cpp). The frame is parsed, never trusted: see
 * "Transmit offloads" in zorv_vhost_card.h.
 */
#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <algorithm>

#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>
#include <rte_net.h>
#include <rte_tcp.h>
#include <rte_udp.h>

#include "zorv_card_internal.h"
#include "zorv_vhost_card.h"

using namespace zorv_card;

namespace {

/*
 * Longest L3 header the mbuf's 9-bit l3_len describes: the vhost library
 * takes the peer's checksum start from it. Longer ones (IPv6 extension
 * headers) are handled here instead of by the peer.
 */
constexpr uint32_t MBUF_L3_LEN_MAX = (1u << 9) - 1;

/*
 * Headers of a frame as the card parsed them; the lengths of the mbuf are
 * not trusted (the port may have inserted a VLAN tag after they were set).
 */
struct pkt_hdrs {
	uint16_t l2, l3, l4; /* lengths */
	uint32_t l4_total;   /* L4 header and payload, per the IP header */
	bool v4, v6, tcp, udp;
};

/* What the card does with a frame's offload requests. */
enum tx_plan_kind {
	PLAN_NONE,      /* nothing the card acts on is requested */
	PLAN_CKSUM,     /* checksums filled here or left to the peer; one frame */
	PLAN_PEER_TSO,  /* the peer segments it (GUEST_TSO4/6) */
	PLAN_SEGMENT,   /* the card segments it */
};

struct tx_plan {
	tx_plan_kind kind;
	bool ip_cksum;   /* fill the IPv4 header checksum */
	bool l4_cksum;   /* fill the L4 checksum (complete or as a peer's start value) */
	bool peer_csum;  /* the peer completes the L4 checksum (GUEST_CSUM) */
	uint32_t nseg;   /* segments, for PLAN_SEGMENT */
};

void parse_hdrs(const struct rte_mbuf *m, pkt_hdrs *h)
{
	struct rte_net_hdr_lens hl = {};
	uint32_t pt = rte_net_get_ptype(m, &hl, RTE_PTYPE_L2_MASK | RTE_PTYPE_L3_MASK |
						  RTE_PTYPE_L4_MASK);
	h->l2 = hl.l2_len;
	h->l3 = hl.l3_len;
	h->l4 = hl.l4_len;
	h->l4_total = 0;
	h->v4 = RTE_ETH_IS_IPV4_HDR(pt) != 0;
	h->v6 = RTE_ETH_IS_IPV6_HDR(pt) != 0;
	/* Fragments have L4_FRAG here: their L4 header is not parsed. */
	h->tcp = (pt & RTE_PTYPE_L4_MASK) == RTE_PTYPE_L4_TCP;
	h->udp = (pt & RTE_PTYPE_L4_MASK) == RTE_PTYPE_L4_UDP;
}

/* Copy len bytes at offset off of a chain into dst; false when the chain is shorter. */
bool copy_out(const struct rte_mbuf *m, uint32_t off, uint32_t len, uint8_t *dst)
{
	while (m != nullptr && off >= m->data_len) {
		off -= m->data_len;
		m = m->next;
	}
	while (len != 0 && m != nullptr) {
		uint32_t n = std::min<uint32_t>(len, m->data_len - off);
		memcpy(dst, rte_pktmbuf_mtod_offset(m, const uint8_t *, off), n);
		dst += n;
		len -= n;
		off = 0;
		m = m->next;
	}
	return len == 0;
}

/* Write len bytes of src at offset off of a chain, wherever its segments cut them. */
void copy_in(struct rte_mbuf *m, uint32_t off, uint32_t len, const uint8_t *src)
{
	while (m != nullptr && off >= m->data_len) {
		off -= m->data_len;
		m = m->next;
	}
	while (len != 0 && m != nullptr) {
		uint32_t n = std::min<uint32_t>(len, m->data_len - off);
		memcpy(rte_pktmbuf_mtod_offset(m, uint8_t *, off), src, n);
		src += n;
		len -= n;
		off = 0;
		m = m->next;
	}
}

/*
 * Ones' complement sum of len bytes at offset off of a chain. Each piece is
 * folded before a piece that starts at an odd offset is byte-swapped, so
 * that segments of odd length keep their carries.
 */
uint16_t chain_sum(const struct rte_mbuf *m, uint32_t off, uint32_t len)
{
	uint32_t sum = 0;
	bool odd = false;

	while (m != nullptr && off >= m->data_len) {
		off -= m->data_len;
		m = m->next;
	}
	while (len != 0 && m != nullptr) {
		uint32_t n = std::min<uint32_t>(len, m->data_len - off);
		uint16_t piece = rte_raw_cksum(rte_pktmbuf_mtod_offset(m, const uint8_t *, off), n);
		sum += odd ? rte_bswap16(piece) : piece;
		sum = (sum & 0xffff) + (sum >> 16);
		odd ^= (n & 1) != 0;
		len -= n;
		off = 0;
		m = m->next;
	}
	sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<uint16_t>(sum);
}

/*
 * L4 length the IP header gives, when it agrees with the frame: it covers
 * the parsed L4 header and ends within the frame (Ethernet padding may
 * follow). 0 when it does not.
 */
uint32_t ip_l4_total(const struct rte_mbuf *m, const pkt_hdrs *h)
{
	uint8_t b[4];
	uint32_t ip_len;
	if (h->v4) {
		if (!copy_out(m, h->l2 + 2, 2, b)) /* total_length */
			return 0;
		ip_len = static_cast<uint32_t>(b[0] << 8 | b[1]);
	} else {
		if (!copy_out(m, h->l2 + 4, 2, b)) /* payload_len */
			return 0;
		ip_len = sizeof(struct rte_ipv6_hdr) + static_cast<uint32_t>(b[0] << 8 | b[1]);
	}
	if (ip_len < static_cast<uint32_t>(h->l3) + h->l4 || h->l2 + ip_len > m->pkt_len)
		return 0;
	return ip_len - h->l3;
}

/*
 * Decide what to do with the offload requests of m for a peer with the
 * given virtio features, without changing m. -EINVAL when a request does not
 * fit the frame: a request on a frame of another kind (IP checksum on a
 * frame that is not IPv4, TCP or UDP checksum on a frame without that
 * header, a fragment), a TCP header shorter than 20 bytes, headers that
 * reach past the frame, an IP length that disagrees with it, a TSO request
 * with MSS 0, or segmentation beyond the card's limits.
 */
int tx_plan_of(uint64_t features, const struct rte_mbuf *m, pkt_hdrs *h, tx_plan *p)
{
	uint64_t ol = m->ol_flags;
	uint64_t l4 = ol & RTE_MBUF_F_TX_L4_MASK;
	bool want_ip = (ol & RTE_MBUF_F_TX_IP_CKSUM) != 0;
	bool want_tso = (ol & RTE_MBUF_F_TX_TCP_SEG) != 0;
	bool want_tcp = want_tso || l4 == RTE_MBUF_F_TX_TCP_CKSUM;
	bool want_udp = !want_tcp && l4 == RTE_MBUF_F_TX_UDP_CKSUM;

	*p = tx_plan{};
	*h = pkt_hdrs{};
	/* SCTP checksums and UDP segmentation are not offered: nothing to do. */
	if (!want_ip && !want_tcp && !want_udp)
		return 0;

	parse_hdrs(m, h);
	if (!h->v4 && !h->v6)
		return -EINVAL;
	if (want_ip && !h->v4)
		return -EINVAL;
	if (static_cast<uint32_t>(h->l2) + h->l3 > m->pkt_len)
		return -EINVAL;
	if ((want_tcp && !h->tcp) || (want_udp && !h->udp))
		return -EINVAL;
	/* TCP's data offset counts 32-bit words; below 5 there is no TCP header. */
	if (want_tcp && h->l4 < sizeof(struct rte_tcp_hdr))
		return -EINVAL;
	uint32_t hdr_len = static_cast<uint32_t>(h->l2) + h->l3 + h->l4;
	if ((want_tcp || want_udp) && hdr_len > m->pkt_len)
		return -EINVAL;

	p->kind = PLAN_CKSUM;
	p->ip_cksum = h->v4 && (want_ip || want_tso);
	p->l4_cksum = want_tcp || want_udp;
	bool peer_fits = h->l3 <= MBUF_L3_LEN_MAX;
	p->peer_csum = (features & F_GUEST_CSUM) != 0 && peer_fits;

	uint32_t mss = m->tso_segsz;
	if (want_tso && mss == 0)
		return -EINVAL;
	if (want_tso && m->pkt_len - hdr_len > mss) {
		uint64_t need = F_GUEST_CSUM | (h->v4 ? F_GUEST_TSO4 : F_GUEST_TSO6);
		if ((features & need) == need && peer_fits && m->pkt_len - h->l2 <= UINT16_MAX) {
			p->kind = PLAN_PEER_TSO;
			return 0;
		}
		/* Segments must fit the IP length field and the card's limits. */
		uint32_t payload = m->pkt_len - hdr_len;
		uint32_t nseg = payload / mss + (payload % mss != 0);
		if (hdr_len > ZORV_CARD_TSO_HDR_MAX || h->l3 + h->l4 + mss > UINT16_MAX ||
		    nseg > ZORV_CARD_TSO_SEGS_MAX)
			return -EINVAL;
		p->kind = PLAN_SEGMENT;
		p->ip_cksum = false;
		p->l4_cksum = false;
		p->nseg = nseg;
		return 0;
	}

	/* One frame: the L4 checksum covers what the IP header says. */
	if (p->l4_cksum) {
		h->l4_total = ip_l4_total(m, h);
		if (h->l4_total == 0)
			return -EINVAL;
	}
	return 0;
}

/* Fill the IPv4 header checksum of a frame whose header starts at l2. */
void ipv4_cksum(struct rte_mbuf *m, const pkt_hdrs *h)
{
	union {
		struct rte_ipv4_hdr ip;
		uint8_t b[0xf * RTE_IPV4_IHL_MULTIPLIER]; /* the longest IHL */
	} u = {}; /* copy_out fills h->l3 bytes; zeroed so -O3 sees it initialised */
	uint32_t ck_off = h->l2 + offsetof(struct rte_ipv4_hdr, hdr_checksum);

	copy_out(m, h->l2, h->l3, u.b);
	u.ip.hdr_checksum = 0;
	uint16_t ck = rte_ipv4_cksum(&u.ip);
	copy_in(m, ck_off, sizeof(ck), reinterpret_cast<const uint8_t *>(&ck));
}

/* How l4_cksum fills the L4 checksum field. */
enum l4_fill {
	L4_FULL,         /* the complete checksum */
	L4_PSEUDO,       /* pseudo-header sum with the length: a virtio receiver completes it */
	L4_PSEUDO_NOLEN, /* pseudo-header sum without the length, for a TSO request */
};

/*
 * Fill the L4 checksum field of a frame; h->l4_total is the L4 length (not
 * used for L4_PSEUDO_NOLEN). The headers may lie in any segments.
 */
void l4_cksum(struct rte_mbuf *m, const pkt_hdrs *h, l4_fill fill)
{
	uint32_t l4_off = h->l2 + h->l3;
	uint32_t ck_off = l4_off + (h->tcp ? offsetof(struct rte_tcp_hdr, cksum)
					   : offsetof(struct rte_udp_hdr, dgram_cksum));
	uint64_t phdr_flags = fill == L4_PSEUDO_NOLEN ? RTE_MBUF_F_TX_TCP_SEG : 0;
	uint8_t proto = h->tcp ? IPPROTO_TCP : IPPROTO_UDP;
	uint32_t sum;

	/* The pseudo-header: addresses from the frame, protocol and length as parsed. */
	if (h->v4) {
		struct rte_ipv4_hdr ip;
		copy_out(m, h->l2, sizeof(ip), reinterpret_cast<uint8_t *>(&ip));
		ip.version_ihl = RTE_IPV4_VHL_DEF; /* so that the length below is the L4 length */
		ip.total_length = rte_cpu_to_be_16(
			static_cast<uint16_t>(sizeof(ip) + (fill == L4_PSEUDO_NOLEN ? 0 : h->l4_total)));
		sum = rte_ipv4_phdr_cksum(&ip, phdr_flags);
	} else {
		struct rte_ipv6_hdr ip6;
		copy_out(m, h->l2, sizeof(ip6), reinterpret_cast<uint8_t *>(&ip6));
		ip6.payload_len = rte_cpu_to_be_16(
			static_cast<uint16_t>(fill == L4_PSEUDO_NOLEN ? 0 : h->l4_total));
		ip6.proto = proto;
		sum = rte_ipv6_phdr_cksum(&ip6, phdr_flags);
	}

	uint16_t ck = 0;
	if (fill != L4_FULL) {
		ck = static_cast<uint16_t>(sum);
	} else {
		copy_in(m, ck_off, sizeof(ck), reinterpret_cast<const uint8_t *>(&ck));
		sum += chain_sum(m, l4_off, h->l4_total);
		sum = (sum & 0xffff) + (sum >> 16);
		sum = (sum & 0xffff) + (sum >> 16);
		ck = static_cast<uint16_t>(~sum);
		if (ck == 0 && h->udp)
			ck = 0xffff; /* zero means "no checksum" for UDP */
	}
	copy_in(m, ck_off, sizeof(ck), reinterpret_cast<const uint8_t *>(&ck));
}

/*
 * One segment of a TSO packet: its headers (hdr, all in the first mbuf),
 * then payload [off, off + len) of m. 0, -ENOMEM when the pool is empty, or
 * -ENOSPC when the pool's mbufs cannot hold the headers or the chain.
 */
int seg_build(struct rte_mempool *pool, const struct rte_mbuf *m, const uint8_t *hdr,
	      const pkt_hdrs *h, uint32_t idx, uint32_t off, uint32_t len, bool last,
	      struct rte_mbuf **out)
{
	uint16_t hdr_len = h->l2 + h->l3 + h->l4;
	struct rte_mbuf *seg = rte_pktmbuf_alloc(pool);
	if (seg == nullptr)
		return -ENOMEM;
	if (rte_pktmbuf_tailroom(seg) < hdr_len) {
		rte_pktmbuf_free(seg);
		return -ENOSPC;
	}

	uint8_t *p = rte_pktmbuf_mtod(seg, uint8_t *);
	memcpy(p, hdr, hdr_len);
	seg->data_len = hdr_len;
	seg->pkt_len = hdr_len;

	struct rte_mbuf *cur = seg;
	uint32_t src = off;
	uint32_t left = len;
	while (left != 0) {
		uint16_t room = rte_pktmbuf_tailroom(cur);
		if (room == 0) {
			struct rte_mbuf *n = seg->nb_segs < UINT16_MAX ? rte_pktmbuf_alloc(pool)
								       : nullptr;
			int err = seg->nb_segs < UINT16_MAX ? -ENOMEM : -ENOSPC;
			if (n != nullptr && rte_pktmbuf_tailroom(n) == 0) {
				rte_pktmbuf_free(n);
				n = nullptr;
				err = -ENOSPC;
			}
			if (n == nullptr) {
				rte_pktmbuf_free(seg);
				return err;
			}
			cur->next = n;
			cur = n;
			seg->nb_segs++;
			room = rte_pktmbuf_tailroom(cur);
		}
		uint32_t chunk = std::min<uint32_t>(room, left);
		copy_out(m, src, chunk, rte_pktmbuf_mtod_offset(cur, uint8_t *, cur->data_len));
		cur->data_len += chunk;
		seg->pkt_len += chunk;
		src += chunk;
		left -= chunk;
	}

	uint8_t *l3 = p + h->l2;
	pkt_hdrs sh = *h;
	sh.l4_total = h->l4 + len;
	if (h->v4) {
		auto *ip = reinterpret_cast<struct rte_ipv4_hdr *>(l3);
		ip->total_length = rte_cpu_to_be_16(static_cast<uint16_t>(h->l3 + sh.l4_total));
		uint16_t id = static_cast<uint16_t>(rte_be_to_cpu_16(ip->packet_id) + idx);
		ip->packet_id = rte_cpu_to_be_16(id);
		ipv4_cksum(seg, &sh);
	} else {
		auto *ip6 = reinterpret_cast<struct rte_ipv6_hdr *>(l3);
		ip6->payload_len = rte_cpu_to_be_16(
			static_cast<uint16_t>(h->l3 - sizeof(struct rte_ipv6_hdr) + sh.l4_total));
	}
	auto *th = reinterpret_cast<struct rte_tcp_hdr *>(l3 + h->l3);
	uint32_t before = off - hdr_len; /* payload of the segments in front */
	th->sent_seq = rte_cpu_to_be_32(rte_be_to_cpu_32(th->sent_seq) + before);
	if (!last)
		th->tcp_flags &= ~(RTE_TCP_FIN_FLAG | RTE_TCP_PSH_FLAG);
	if (idx != 0)
		th->tcp_flags &= ~RTE_TCP_CWR_FLAG;
	l4_cksum(seg, &sh, L4_FULL);
	seg->l2_len = h->l2;
	seg->l3_len = h->l3;
	seg->l4_len = h->l4;
	*out = seg;
	return 0;
}

} // namespace

extern "C" {

int zorv_card_tx_prepare(uint64_t features, struct rte_mbuf *m)
{
	constexpr uint64_t clear = TX_OFFLOAD_MASK | RTE_MBUF_F_TX_IPV4 | RTE_MBUF_F_TX_IPV6;
	pkt_hdrs h;
	tx_plan p;

	int ret = tx_plan_of(features, m, &h, &p);
	if (ret < 0) {
		m->ol_flags &= ~clear;
		return ret;
	}
	if (p.kind == PLAN_SEGMENT)
		return ZORV_CARD_TX_SEGMENT;
	m->ol_flags &= ~clear;
	if (p.kind == PLAN_NONE)
		return ZORV_CARD_TX_AS_IS;

	if (p.ip_cksum)
		ipv4_cksum(m, &h);
	if (!p.l4_cksum)
		return ZORV_CARD_TX_AS_IS;
	if (p.kind != PLAN_PEER_TSO && !p.peer_csum) {
		l4_cksum(m, &h, L4_FULL);
		return ZORV_CARD_TX_AS_IS;
	}

	/* Handed to the peer: the vhost library describes it from these. */
	uint64_t fam = h.v4 ? RTE_MBUF_F_TX_IPV4 : RTE_MBUF_F_TX_IPV6;
	m->l2_len = h.l2;
	m->l3_len = h.l3;
	m->l4_len = h.l4;
	if (p.kind == PLAN_PEER_TSO) {
		l4_cksum(m, &h, L4_PSEUDO_NOLEN);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_TCP_CKSUM | fam;
	} else {
		l4_cksum(m, &h, L4_PSEUDO);
		m->ol_flags |= (h.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM) | fam;
	}
	return ZORV_CARD_TX_AS_IS;
}

int zorv_card_tx_segments(struct rte_mempool *pool, const struct rte_mbuf *m,
			  struct rte_mbuf **segs, uint32_t max)
{
	pkt_hdrs h;
	tx_plan p;

	if (pool == nullptr || m == nullptr || segs == nullptr)
		return -EINVAL;
	/* The plan for a peer without offloads is the card's own segmentation. */
	int ret = tx_plan_of(0, m, &h, &p);
	if (ret < 0)
		return ret;
	if (p.kind != PLAN_SEGMENT)
		return -EINVAL;
	if (p.nseg > max)
		return -E2BIG;

	uint8_t hdr[ZORV_CARD_TSO_HDR_MAX];
	uint32_t hdr_len = static_cast<uint32_t>(h.l2) + h.l3 + h.l4;
	copy_out(m, 0, hdr_len, hdr);
	uint32_t mss = m->tso_segsz;
	uint32_t payload = m->pkt_len - hdr_len;
	for (uint32_t i = 0; i < p.nseg; i++) {
		uint32_t len = std::min(mss, payload - i * mss);
		ret = seg_build(pool, m, hdr, &h, i, hdr_len + i * mss, len, i == p.nseg - 1,
				&segs[i]);
		if (ret != 0) {
			rte_pktmbuf_free_bulk(segs, i);
			return ret;
		}
	}
	return static_cast<int>(p.nseg);
}

} // extern "C"
