/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's software transmit offloads, zorv_card_tx_prepare and
 * zorv_card_tx_segments, with any frame, offload request, peer features and
 * mbuf chain.
 *
 * Input: 25 control bytes, then the frame (at most 65535 bytes are used).
 *   0      peer features: bit 0 GUEST_CSUM, bit 1 GUEST_TSO4, bit 2 GUEST_TSO6
 *   1      offload flags: bit 0 IP_CKSUM, bits 1-2 the L4 request (none,
 *          TCP, SCTP, UDP), bit 3 TCP_SEG, bit 4 IPV4, bit 5 IPV6, bit 6
 *          UDP_SEG, bit 7 VLAN (not the card's: it must stay as it is)
 *   2      bit 0: make the IP length field agree with the frame, less the
 *          padding of byte 3; bits 1-2: the room of the mbufs the segments
 *          are built in (2048, 2048, 300 or 64 bytes); bit 3: ask for the
 *          segments with one slot too few first
 *   3      Ethernet padding for bit 0 of byte 2
 *   4      the mbuf's l2_len; 5-6 l3_len (little endian); 7 l4_len;
 *   8-9    tso_segsz (little endian)
 *   10     pieces of the chain: 1 + value % 8
 *   11-24  seven cut points, 16 bits little endian each, taken modulo the
 *          frame length + 1 and sorted (empty pieces happen)
 *
 * Every piece of the chain is an external buffer malloc'ed at exactly its
 * length and attached to an mbuf without room of its own, so that
 * AddressSanitizer reports any access outside the frame's data. Segments are
 * built in pool mbufs whose rooms hold a pattern, which what lies around a
 * segment's data must keep.
 *
 * What the card must do is worked out here from the frame, independently of
 * the card's code: the headers are read by the rules of DPDK's packet type
 * parser (which the card uses) and the request judged by the card's
 * documented rules. Then:
 *   -EINVAL   the frame's bytes are unchanged, its offload flags cleared;
 *   AS_IS     only the checksum fields changed, and they verify: the IPv4
 *             header checksum, the complete L4 checksum, or, for a peer that
 *             completes it, the pseudo-header start value, which completed
 *             as a virtio receiver does gives a valid checksum; the flags
 *             and lengths left for the peer are the right ones (and the
 *             lengths untouched when nothing is left for it);
 *   SEGMENT   the frame is unchanged, and zorv_card_tx_segments builds the
 *             segments built here (headers, lengths, IPv4 id, sequence
 *             number, flags), whose checksums verify; -E2BIG and -ENOSPC
 *             exactly when they must, with nothing left allocated.
 * zorv_card_tx_segments is tried on every frame before the prepare and must
 * refuse (-EINVAL) the ones the card does not segment. Everything is freed
 * after each input; the pools and the DPDK heap are back where they were.
 */
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>
#include <rte_tcp.h>
#include <rte_udp.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_ethdev.h"
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_flow.h"
#include "zorv_fuzz_env.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"

using zorv_fuzz::Fail;

/*
 * The card's links into the port, the device manager and the firmware: the
 * transmit offload routines use none of them, so reaching one is a finding.
 */
extern "C" {

struct dpdk_cp_stat g_dpdk_cp_stat;

struct rte_eth_dev *zorv1_dev_get_ethdev_by_vid(int vid)
{
	Fail("zorv1_dev_get_ethdev_by_vid(%d) reached", vid);
}
void zorv1_dev_sfi_unmap_port(uint32_t sfi)
{
	Fail("zorv1_dev_sfi_unmap_port(%u) reached", sfi);
}
int zorv1_dpu_dev_queue_setup(int vid)
{
	Fail("zorv1_dpu_dev_queue_setup(%d) reached", vid);
}
int zorv1_dpu_vdev_new_conn(int vid)
{
	Fail("zorv1_dpu_vdev_new_conn(%d) reached", vid);
}
void zorv1_dpu_vdev_destroy_conn(int vid)
{
	Fail("zorv1_dpu_vdev_destroy_conn(%d) reached", vid);
}
void zorv1_set_internal_sfi(int vid, uint32_t sfi)
{
	Fail("zorv1_set_internal_sfi(%d, %u) reached", vid, sfi);
}
struct rte_ring *zorv1_get_ring_by_local_id(int local_id)
{
	Fail("zorv1_get_ring_by_local_id(%d) reached", local_id);
}
int zorv_dev_sfi_map_port(uint32_t sfi, uint16_t port_id)
{
	Fail("zorv_dev_sfi_map_port(%u, %u) reached", sfi, port_id);
}
uint32_t zorv_fw_get_vport_mtu(uint16_t vport)
{
	Fail("zorv_fw_get_vport_mtu(%u) reached", vport);
}
void zorv_fw_count_mtu_drop(uint16_t vport)
{
	Fail("zorv_fw_count_mtu_drop(%u) reached", vport);
}
void zorv_fw_count_tx_mtu_drop(uint16_t vport)
{
	Fail("zorv_fw_count_tx_mtu_drop(%u) reached", vport);
}
uint16_t zorv_flow_rx_dispatch(struct zorv_flow_priv *p, struct zorv1_vdev_rxq *rxq,
			       struct rte_mbuf **pkts, uint16_t n)
{
	(void)p;
	(void)rxq;
	(void)pkts;
	Fail("zorv_flow_rx_dispatch(%u packets) reached", n);
}

} // extern "C"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kGuestCsum = 1ULL << 1;
constexpr uint64_t kGuestTso4 = 1ULL << 7;
constexpr uint64_t kGuestTso6 = 1ULL << 8;
constexpr uint64_t kOffloads = RTE_MBUF_F_TX_IP_CKSUM | RTE_MBUF_F_TX_L4_MASK |
			       RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_UDP_SEG |
			       RTE_MBUF_F_TX_IPV4 | RTE_MBUF_F_TX_IPV6;
constexpr size_t kCtl = 25;
constexpr size_t kFrameMax = UINT16_MAX; /* one external buffer per piece */
constexpr uint8_t kPattern = 0xa5;
constexpr uint16_t kRooms[] = {2048, 300, 64};

struct rte_mempool *g_pieces;        /* mbufs without room: the frame's pieces attach */
struct rte_mempool *g_segs[3];       /* segment mbufs, one pool per room */
uint64_t g_heap_baseline;

/* ---- Bytes and sums ---- */

uint16_t Be16(const uint8_t *p)
{
	return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint32_t Be32(const uint8_t *p)
{
	return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
	       static_cast<uint32_t>(p[2]) << 8 | p[3];
}
void Put16(uint8_t *p, uint32_t v)
{
	p[0] = static_cast<uint8_t>(v >> 8);
	p[1] = static_cast<uint8_t>(v);
}
void Put32(uint8_t *p, uint32_t v)
{
	for (int i = 0; i < 4; i++)
		p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

/* Ones' complement sum of big-endian 16-bit words (an odd byte last, padded). */
uint32_t Sum(const uint8_t *p, size_t n, uint32_t acc = 0)
{
	for (size_t i = 0; i + 1 < n; i += 2) {
		acc += Be16(p + i);
		acc = (acc & 0xffff) + (acc >> 16);
	}
	if (n & 1)
		acc += static_cast<uint32_t>(p[n - 1] << 8);
	return acc;
}
uint16_t Fold(uint32_t acc)
{
	while (acc >> 16)
		acc = (acc & 0xffff) + (acc >> 16);
	return static_cast<uint16_t>(acc);
}

/* ---- The frame, read independently of the card ---- */

struct Hdrs {
	bool v4 = false, v6 = false, tcp = false, udp = false;
	uint32_t l2 = 0, l3 = 0, l4 = 0;
};

/*
 * The headers as DPDK's packet type parser finds them: one 802.1Q tag or
 * an 802.1ad pair, IPv4 with IHL 5-15, IPv6 with up to four hop-by-hop,
 * routing or destination option headers before the last one, no L4 behind
 * a fragment, a TCP header only when its 20 bytes are there, a UDP header
 * always 8 bytes.
 */
Hdrs Parse(const Bytes &f)
{
	Hdrs h;
	size_t n = f.size();
	if (n < 14)
		return h;
	uint32_t off = 14;
	uint16_t et = Be16(&f[12]);
	if (et == RTE_ETHER_TYPE_VLAN) {
		if (n < off + 4)
			return h;
		et = Be16(&f[off + 2]);
		off += 4;
	} else if (et == RTE_ETHER_TYPE_QINQ) {
		if (n < off + 8)
			return h;
		et = Be16(&f[off + 6]);
		off += 8;
	}
	h.l2 = off;

	uint8_t proto;
	if (et == RTE_ETHER_TYPE_IPV4) {
		if (n < off + 20)
			return h;
		uint8_t vihl = f[off];
		if (vihl < 0x45 || vihl > 0x4f)
			return h;
		h.v4 = true;
		h.l3 = (vihl & 0xf) * 4u;
		if ((Be16(&f[off + 6]) & 0x3fff) != 0)
			return h; /* a fragment */
		proto = f[off + 9];
	} else if (et == RTE_ETHER_TYPE_IPV6) {
		if (n < off + 40)
			return h;
		h.v6 = true;
		h.l3 = 40;
		proto = f[off + 6];
		auto ext = [](uint8_t p) {
			return p == IPPROTO_HOPOPTS || p == IPPROTO_ROUTING || p == IPPROTO_FRAGMENT ||
			       p == IPPROTO_ESP || p == IPPROTO_AH || p == IPPROTO_DSTOPTS;
		};
		if (ext(proto)) {
			uint32_t x = off + 40;
			int last = -1;
			for (int i = 0; i < 5 && last < 0; i++) {
				if (proto == IPPROTO_HOPOPTS || proto == IPPROTO_ROUTING ||
				    proto == IPPROTO_DSTOPTS) {
					if (n < x + 2)
						return h;
					proto = f[x];
					x += (f[x + 1] + 1u) * 8;
				} else if (proto == IPPROTO_FRAGMENT) {
					return h; /* a fragment, or cut short */
				} else if (proto == IPPROTO_NONE) {
					return h;
				} else {
					last = proto;
				}
			}
			if (last < 0)
				return h; /* too many extension headers */
			h.l3 = x - off;
			if (last == 0)
				return h;
		}
	} else {
		return h;
	}

	uint32_t l4 = h.l2 + h.l3;
	if (proto == IPPROTO_TCP) {
		if (n < l4 + 20)
			return h;
		h.tcp = true;
		h.l4 = (f[l4 + 12] & 0xf0u) >> 2;
	} else if (proto == IPPROTO_UDP) {
		h.udp = true;
		h.l4 = 8;
	}
	return h;
}

/* What the card must do with a request, by its documented rules. */
struct Expect {
	int ret = ZORV_CARD_TX_AS_IS;
	bool acts = false;     /* something requested: flags and lengths rewritten */
	bool ip_cksum = false; /* the IPv4 header checksum is filled */
	bool l4_full = false;  /* the complete L4 checksum is filled */
	bool l4_peer = false;  /* the pseudo-header sum with the length, for the peer */
	bool peer_tso = false; /* the pseudo-header sum without the length, TSO for the peer */
	uint32_t l4_total = 0; /* L4 length the IP header gives */
	uint32_t nseg = 0;
};

Expect Judge(const Hdrs &h, const Bytes &f, uint64_t ol, uint64_t features, uint32_t mss)
{
	Expect e;
	uint64_t l4req = ol & RTE_MBUF_F_TX_L4_MASK;
	bool want_ip = (ol & RTE_MBUF_F_TX_IP_CKSUM) != 0;
	bool want_tso = (ol & RTE_MBUF_F_TX_TCP_SEG) != 0;
	bool want_tcp = want_tso || l4req == RTE_MBUF_F_TX_TCP_CKSUM;
	bool want_udp = !want_tcp && l4req == RTE_MBUF_F_TX_UDP_CKSUM;
	size_t n = f.size();

	if (!want_ip && !want_tcp && !want_udp)
		return e;
	e.ret = -EINVAL;
	if ((!h.v4 && !h.v6) || (want_ip && !h.v4) || h.l2 + h.l3 > n)
		return e;
	if ((want_tcp && !h.tcp) || (want_udp && !h.udp) || (want_tcp && h.l4 < 20))
		return e;
	uint32_t hdr = h.l2 + h.l3 + h.l4;
	if ((want_tcp || want_udp) && hdr > n)
		return e;
	if (want_tso && mss == 0)
		return e;

	e.acts = true;
	e.ip_cksum = h.v4 && (want_ip || want_tso);
	/* The peer learns where L4 starts from the mbuf's 9-bit l3_len. */
	bool peer_fits = h.l3 < 512;
	if (want_tso && n - hdr > mss) {
		uint64_t need = kGuestCsum | (h.v4 ? kGuestTso4 : kGuestTso6);
		if ((features & need) == need && peer_fits && n - h.l2 <= UINT16_MAX) {
			e.ret = ZORV_CARD_TX_AS_IS;
			e.peer_tso = true;
			return e;
		}
		uint32_t nseg = static_cast<uint32_t>((n - hdr + mss - 1) / mss);
		if (hdr > ZORV_CARD_TSO_HDR_MAX || h.l3 + h.l4 + mss > UINT16_MAX ||
		    nseg > ZORV_CARD_TSO_SEGS_MAX)
			return e;
		e.ret = ZORV_CARD_TX_SEGMENT;
		e.acts = false;
		e.ip_cksum = false;
		e.nseg = nseg;
		return e;
	}
	if (want_tcp || want_udp) {
		uint32_t ip_len = h.v4 ? Be16(&f[h.l2 + 2]) : 40u + Be16(&f[h.l2 + 4]);
		if (ip_len < h.l3 + h.l4 || h.l2 + ip_len > n)
			return e;
		e.l4_total = ip_len - h.l3;
		e.l4_full = (features & kGuestCsum) == 0 || !peer_fits;
		e.l4_peer = !e.l4_full;
	}
	e.ret = ZORV_CARD_TX_AS_IS;
	return e;
}

/* Sum of the pseudo-header of frame f: addresses, protocol, the given length. */
uint32_t PseudoSum(const Bytes &f, const Hdrs &h, uint32_t len)
{
	uint32_t acc = h.v4 ? Sum(&f[h.l2 + 12], 8) : Sum(&f[h.l2 + 8], 32);
	acc += h.tcp ? IPPROTO_TCP : IPPROTO_UDP;
	acc += len >> 16;
	acc += len & 0xffff;
	return acc;
}

uint32_t L4CksumOff(const Hdrs &h)
{
	return h.l2 + h.l3 + (h.tcp ? 16 : 6);
}

/* The L4 checksum of a linear frame, verified by DPDK's own routines. */
bool L4Verifies(const Bytes &f, const Hdrs &h, uint32_t l4_total)
{
	const uint8_t *l4 = &f[h.l2 + h.l3];
	if (h.v4) {
		/* DPDK's check takes the L4 length from the header's total length. */
		const auto *ip = reinterpret_cast<const struct rte_ipv4_hdr *>(&f[h.l2]);
		if (rte_be_to_cpu_16(ip->total_length) != h.l3 + l4_total)
			return false;
		return rte_ipv4_udptcp_cksum_verify(ip, l4) == 0;
	}
	/* The upper-layer view of the IPv6 header, past its extension headers. */
	struct rte_ipv6_hdr ip6;
	memcpy(&ip6, &f[h.l2], sizeof(ip6));
	ip6.payload_len = rte_cpu_to_be_16(static_cast<uint16_t>(l4_total));
	ip6.proto = h.tcp ? IPPROTO_TCP : IPPROTO_UDP;
	return rte_ipv6_udptcp_cksum_verify(&ip6, l4) == 0;
}

/* ---- Mbufs ---- */

void FreeExt(void *addr, void *opaque)
{
	free(addr);
	free(opaque);
}

/* f as a chain of external buffers, each exactly as long as its piece. */
struct rte_mbuf *BuildChain(const Bytes &f, const std::vector<uint32_t> &cuts)
{
	struct rte_mbuf *head = nullptr;
	struct rte_mbuf *last = nullptr;
	uint32_t from = 0;
	for (size_t i = 0; i <= cuts.size(); i++) {
		uint32_t to = i < cuts.size() ? cuts[i] : static_cast<uint32_t>(f.size());
		uint32_t len = to - from;
		struct rte_mbuf *m = rte_pktmbuf_alloc(g_pieces);
		auto *buf = static_cast<uint8_t *>(malloc(len));
		auto *shinfo = static_cast<struct rte_mbuf_ext_shared_info *>(
			malloc(sizeof(struct rte_mbuf_ext_shared_info)));
		if (m == nullptr || (buf == nullptr && len != 0) || shinfo == nullptr)
			Fail("out of memory for a chain of %zu pieces", cuts.size() + 1);
		shinfo->free_cb = FreeExt;
		shinfo->fcb_opaque = shinfo;
		rte_mbuf_ext_refcnt_set(shinfo, 1);
		rte_pktmbuf_attach_extbuf(m, buf, 0, static_cast<uint16_t>(len), shinfo);
		if (len != 0)
			memcpy(buf, &f[from], len);
		m->data_len = static_cast<uint16_t>(len);
		if (head == nullptr) {
			head = m;
			head->pkt_len = len;
		} else {
			last->next = m;
			head->nb_segs++;
			head->pkt_len += len;
		}
		last = m;
		from = to;
	}
	return head;
}

/* The bytes of a chain, with a check that its counts add up. */
Bytes Linear(const struct rte_mbuf *m, const char *what)
{
	Bytes b;
	uint32_t segs = 0;
	for (const struct rte_mbuf *s = m; s != nullptr; s = s->next, segs++)
		b.insert(b.end(), rte_pktmbuf_mtod(s, const uint8_t *),
			 rte_pktmbuf_mtod(s, const uint8_t *) + s->data_len);
	if (b.size() != m->pkt_len || segs != m->nb_segs)
		Fail("%s: %zu bytes in %u mbufs, but pkt_len %u and nb_segs %u", what, b.size(), segs,
		     m->pkt_len, m->nb_segs);
	return b;
}

/* Byte ranges: offset and length. */
using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;

/* Where two frames of equal length differ outside the allowed byte ranges, or -1. */
long DiffOutside(const Bytes &a, const Bytes &b, const Ranges &ok)
{
	for (size_t i = 0; i < a.size(); i++) {
		if (a[i] == b[i])
			continue;
		bool allowed = false;
		for (const auto &r : ok)
			allowed |= i >= r.first && i < r.first + r.second;
		if (!allowed)
			return static_cast<long>(i);
	}
	return -1;
}

void FillPattern(struct rte_mempool *, void *, void *obj, unsigned)
{
	auto *m = static_cast<struct rte_mbuf *>(obj);
	memset(m->buf_addr, kPattern, m->buf_len);
}

/* Check the pattern around the data of every mbuf of a segment, then restore it. */
void CheckAndRefill(struct rte_mbuf *seg, uint32_t idx)
{
	for (struct rte_mbuf *s = seg; s != nullptr; s = s->next) {
		auto *buf = static_cast<uint8_t *>(s->buf_addr);
		uint32_t end = s->data_off + s->data_len;
		for (uint32_t i = 0; i < s->buf_len; i++)
			if ((i < s->data_off || i >= end) && buf[i] != kPattern)
				Fail("segment %u: byte %u of an mbuf written outside its data [%u, %u)",
				     idx, i, s->data_off, end);
		memset(buf, kPattern, s->buf_len);
	}
}

/* ---- Segments ---- */

/* The segments of TSO frame f at mss, built here from its bytes. */
std::vector<Bytes> ModelSegments(const Bytes &f, const Hdrs &h, uint32_t mss)
{
	uint32_t hdr = h.l2 + h.l3 + h.l4;
	uint32_t payload = static_cast<uint32_t>(f.size()) - hdr;
	uint32_t nseg = (payload + mss - 1) / mss;
	std::vector<Bytes> out;
	for (uint32_t i = 0; i < nseg; i++) {
		uint32_t len = std::min(mss, payload - i * mss);
		Bytes g(f.begin(), f.begin() + hdr);
		g.insert(g.end(), f.begin() + hdr + i * mss, f.begin() + hdr + i * mss + len);
		uint8_t *ip = &g[h.l2];
		if (h.v4) {
			Put16(ip + 2, h.l3 + h.l4 + len);
			Put16(ip + 4, Be16(ip + 4) + i);
			Put16(ip + 10, 0);
			Put16(ip + 10, static_cast<uint16_t>(~Fold(Sum(ip, h.l3))));
		} else {
			Put16(ip + 4, h.l3 - 40 + h.l4 + len);
		}
		uint8_t *th = ip + h.l3;
		Put32(th + 4, Be32(th + 4) + i * mss);
		if (i != nseg - 1)
			th[13] &= static_cast<uint8_t>(~(RTE_TCP_FIN_FLAG | RTE_TCP_PSH_FLAG));
		if (i != 0)
			th[13] &= static_cast<uint8_t>(~RTE_TCP_CWR_FLAG);
		Put16(th + 16, 0);
		uint32_t l4_total = h.l4 + len;
		Put16(th + 16, static_cast<uint16_t>(~Fold(Sum(th, l4_total, PseudoSum(g, h, l4_total)))));
		out.push_back(std::move(g));
	}
	return out;
}

/* Segment m (whose bytes are f) and check what comes out against the model. */
void CheckSegments(const struct rte_mbuf *m, const Bytes &f, const Hdrs &h, const Expect &e,
		   uint8_t mode)
{
	unsigned pick = (mode >> 1) & 3;
	struct rte_mempool *pool = g_segs[pick == 0 ? 0 : pick - 1];
	uint16_t room = kRooms[pick == 0 ? 0 : pick - 1];
	uint32_t hdr = h.l2 + h.l3 + h.l4;
	struct rte_mbuf *segs[ZORV_CARD_TSO_SEGS_MAX];

	if ((mode & 8) != 0 && e.nseg > 1) {
		int ret = zorv_card_tx_segments(pool, m, segs, e.nseg - 1);
		if (ret != -E2BIG)
			Fail("segments into %u slots of %u needed returned %d, not -E2BIG", e.nseg - 1,
			     e.nseg, ret);
		if (rte_mempool_in_use_count(pool) != 0)
			Fail("a refused segmentation left mbufs allocated");
	}
	int ret = zorv_card_tx_segments(pool, m, segs, ZORV_CARD_TSO_SEGS_MAX);
	if (hdr > room) {
		if (ret != -ENOSPC)
			Fail("headers of %u bytes in mbufs of %u: %d, not -ENOSPC", hdr, room, ret);
		if (rte_mempool_in_use_count(pool) != 0)
			Fail("a refused segmentation left mbufs allocated");
		return;
	}
	if (ret != static_cast<int>(e.nseg))
		Fail("segments returned %d, %u expected (headers %u, mss %u, %u bytes)", ret, e.nseg,
		     hdr, m->tso_segsz, m->pkt_len);

	std::vector<Bytes> want = ModelSegments(f, h, m->tso_segsz);
	for (uint32_t i = 0; i < e.nseg; i++) {
		Bytes got = Linear(segs[i], "a segment");
		if (got != want[i]) {
			long at = -1;
			for (size_t k = 0; k < std::min(got.size(), want[i].size()); k++)
				if (got[k] != want[i][k]) {
					at = static_cast<long>(k);
					break;
				}
			Fail("segment %u of %u: %zu bytes, %zu expected, first difference at %ld", i,
			     e.nseg, got.size(), want[i].size(), at);
		}
		if (h.v4 && Fold(Sum(&got[h.l2], h.l3)) != 0xffff)
			Fail("segment %u: the IPv4 header checksum does not verify", i);
		if (!L4Verifies(got, h, h.l4 + static_cast<uint32_t>(got.size()) - hdr))
			Fail("segment %u: the TCP checksum does not verify", i);
		CheckAndRefill(segs[i], i);
		rte_pktmbuf_free(segs[i]);
	}
	if (Linear(m, "the segmented frame") != f)
		Fail("segmenting changed the frame");
}

/* ---- One input ---- */

void RunOne(const uint8_t *ctl, Bytes f)
{
	uint64_t features = ((ctl[0] & 1) ? kGuestCsum : 0) | ((ctl[0] & 2) ? kGuestTso4 : 0) |
			    ((ctl[0] & 4) ? kGuestTso6 : 0);
	static constexpr uint64_t kL4[] = {RTE_MBUF_F_TX_L4_NO_CKSUM, RTE_MBUF_F_TX_TCP_CKSUM,
					   RTE_MBUF_F_TX_SCTP_CKSUM, RTE_MBUF_F_TX_UDP_CKSUM};
	uint64_t ol = ((ctl[1] & 1) ? RTE_MBUF_F_TX_IP_CKSUM : 0) | kL4[(ctl[1] >> 1) & 3] |
		      ((ctl[1] & 8) ? RTE_MBUF_F_TX_TCP_SEG : 0) |
		      ((ctl[1] & 16) ? RTE_MBUF_F_TX_IPV4 : 0) |
		      ((ctl[1] & 32) ? RTE_MBUF_F_TX_IPV6 : 0) |
		      ((ctl[1] & 64) ? RTE_MBUF_F_TX_UDP_SEG : 0) |
		      ((ctl[1] & 128) ? RTE_MBUF_F_TX_VLAN : 0);
	uint8_t mode = ctl[2];
	uint16_t mss = static_cast<uint16_t>(ctl[8] | ctl[9] << 8);

	if (f.size() > kFrameMax)
		f.resize(kFrameMax);
	Hdrs h = Parse(f);
	if ((mode & 1) != 0 && (h.v4 || h.v6)) {
		/* The IP length of the frame, less the padding asked for. */
		uint32_t room = static_cast<uint32_t>(f.size()) - h.l2;
		uint32_t ip_len = room - std::min<uint32_t>(ctl[3], room);
		if (h.v4 && ip_len >= 4)
			Put16(&f[h.l2 + 2], ip_len);
		if (h.v6 && ip_len >= 40 && room >= 6)
			Put16(&f[h.l2 + 4], ip_len - 40);
		h = Parse(f);
	}

	std::vector<uint32_t> cuts;
	for (unsigned i = 0; i < ctl[10] % 8u; i++)
		cuts.push_back((ctl[11 + 2 * i] | ctl[12 + 2 * i] << 8) % (f.size() + 1));
	std::sort(cuts.begin(), cuts.end());

	struct rte_mbuf *m = BuildChain(f, cuts);
	m->ol_flags |= ol;
	m->l2_len = ctl[4] & 0x7f;
	m->l3_len = (ctl[5] | ctl[6] << 8) & 0x1ff;
	m->l4_len = ctl[7];
	m->tso_segsz = mss;
	const uint64_t flags_in = m->ol_flags;
	const uint64_t lens_in = m->tx_offload;

	/* The card's own segmentation is the plan for a peer without offloads. */
	Expect own = Judge(h, f, ol, 0, mss);
	if (own.ret == ZORV_CARD_TX_SEGMENT) {
		CheckSegments(m, f, h, own, mode);
	} else {
		struct rte_mbuf *seg = nullptr;
		int ret = zorv_card_tx_segments(g_segs[0], m, &seg, 1);
		if (ret != -EINVAL)
			Fail("segments of a frame the card does not segment returned %d", ret);
	}
	if (Linear(m, "the frame") != f || m->ol_flags != flags_in || m->tx_offload != lens_in)
		Fail("zorv_card_tx_segments changed the frame");

	Expect e = Judge(h, f, ol, features, mss);
	int ret = zorv_card_tx_prepare(features, m);
	if (ret != e.ret)
		Fail("prepare returned %d, %d expected (features 0x%x, flags 0x%llx, %zu bytes, "
		     "l2 %u l3 %u l4 %u%s%s%s%s, mss %u)",
		     ret, e.ret, static_cast<unsigned>(ctl[0] & 7),
		     static_cast<unsigned long long>(ol), f.size(), h.l2, h.l3, h.l4, h.v4 ? " v4" : "",
		     h.v6 ? " v6" : "", h.tcp ? " tcp" : "", h.udp ? " udp" : "", mss);
	if ((m->ol_flags & ~kOffloads) != (flags_in & ~kOffloads))
		Fail("prepare changed flags that are not offload requests");

	Bytes out = Linear(m, "the prepared frame");
	if (ret == ZORV_CARD_TX_SEGMENT || ret < 0 || !e.acts) {
		if (out != f)
			Fail("prepare (%d) changed the frame", ret);
		uint64_t want = ret == ZORV_CARD_TX_SEGMENT ? flags_in : flags_in & ~kOffloads;
		if (m->ol_flags != want)
			Fail("prepare (%d) left flags 0x%llx, 0x%llx expected", ret,
			     static_cast<unsigned long long>(m->ol_flags),
			     static_cast<unsigned long long>(want));
		if (m->tx_offload != lens_in)
			Fail("prepare (%d) changed the mbuf's lengths", ret);
		rte_pktmbuf_free(m);
		return;
	}

	/* Done here or handed to the peer: only the checksum fields may change. */
	Ranges ok;
	if (e.ip_cksum)
		ok.emplace_back(h.l2 + 10, 2);
	bool l4 = e.l4_full || e.l4_peer || e.peer_tso;
	if (l4)
		ok.emplace_back(L4CksumOff(h), 2);
	long at = DiffOutside(out, f, ok);
	if (at >= 0)
		Fail("prepare changed byte %ld, outside the checksum fields", at);
	if (e.l4_peer || e.peer_tso) {
		if (m->l2_len != h.l2 || m->l3_len != h.l3 || m->l4_len != h.l4 || m->tso_segsz != mss)
			Fail("lengths for the peer: %u/%u/%u mss %u, %u/%u/%u mss %u expected",
			     static_cast<unsigned>(m->l2_len), static_cast<unsigned>(m->l3_len),
			     static_cast<unsigned>(m->l4_len), static_cast<unsigned>(m->tso_segsz),
			     h.l2, h.l3, h.l4, mss);
	} else if (m->tx_offload != lens_in) {
		Fail("the mbuf's lengths changed, though nothing was left for the peer");
	}

	uint64_t fam = h.v4 ? RTE_MBUF_F_TX_IPV4 : RTE_MBUF_F_TX_IPV6;
	uint64_t want_flags = 0;
	if (e.peer_tso)
		want_flags = RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_TCP_CKSUM | fam;
	else if (e.l4_peer)
		want_flags = (h.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM) | fam;
	if ((m->ol_flags & kOffloads) != want_flags)
		Fail("flags for the peer 0x%llx, 0x%llx expected",
		     static_cast<unsigned long long>(m->ol_flags & kOffloads),
		     static_cast<unsigned long long>(want_flags));

	if (e.ip_cksum && Fold(Sum(&out[h.l2], h.l3)) != 0xffff)
		Fail("the IPv4 header checksum does not verify");
	uint32_t ck_off = L4CksumOff(h);
	if (e.l4_full) {
		if (!L4Verifies(out, h, e.l4_total))
			Fail("the %s checksum does not verify", h.tcp ? "TCP" : "UDP");
		if (h.udp && Be16(&out[ck_off]) == 0)
			Fail("a computed UDP checksum of 0 must go as 0xffff");
	} else if (e.l4_peer) {
		uint16_t start = Fold(PseudoSum(out, h, e.l4_total));
		if (Be16(&out[ck_off]) != start)
			Fail("start value 0x%04x for the peer, 0x%04x expected", Be16(&out[ck_off]), start);
		/* What a virtio receiver does with it. */
		uint32_t l4_off = h.l2 + h.l3;
		Put16(&out[ck_off], static_cast<uint16_t>(~Fold(Sum(&out[l4_off], e.l4_total))));
		if (!L4Verifies(out, h, e.l4_total))
			Fail("the checksum completed from the start value does not verify");
	} else if (e.peer_tso && Be16(&out[ck_off]) != Fold(PseudoSum(out, h, 0))) {
		Fail("the TSO start value for the peer is not the pseudo-header sum without length");
	}
	rte_pktmbuf_free(m);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	zorv_fuzz::StartEal("cardtx");
	g_pieces = rte_pktmbuf_pool_create("zorv_fz_pieces", 63, 0, 0, 0, SOCKET_ID_ANY);
	for (size_t i = 0; i < 3; i++) {
		char name[32];
		snprintf(name, sizeof(name), "zorv_fz_segs%zu", i);
		g_segs[i] = rte_pktmbuf_pool_create(name, 4095, 0, 0,
						    RTE_PKTMBUF_HEADROOM + kRooms[i], SOCKET_ID_ANY);
		if (g_segs[i] != nullptr)
			rte_mempool_obj_iter(g_segs[i], FillPattern, nullptr);
	}
	if (g_pieces == nullptr || g_segs[0] == nullptr || g_segs[1] == nullptr ||
	    g_segs[2] == nullptr)
		Fail("no mbuf pools");
	g_heap_baseline = zorv_fuzz::HeapAllocated();
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < kCtl)
		return 0;
	RunOne(data, Bytes(data + kCtl, data + size));
	if (rte_mempool_in_use_count(g_pieces) != 0)
		Fail("%u mbufs of the frame's chain left allocated",
		     rte_mempool_in_use_count(g_pieces));
	for (struct rte_mempool *p : g_segs)
		if (rte_mempool_in_use_count(p) != 0)
			Fail("%u segment mbufs left allocated", rte_mempool_in_use_count(p));
	zorv_fuzz::CheckHeap(g_heap_baseline, "after one frame");
	return 0;
}
