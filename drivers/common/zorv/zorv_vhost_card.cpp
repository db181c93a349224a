/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's transport on DPDK's vhost library.
 *
 * Control side: an interface table (one slot per registered interface,
 * slot + 1 = the sfi its connections are bound to) under the card's own
 * mutex, and the vhost callbacks that turn connection events into the
 * port's connection entry points. Data side: the dequeue and enqueue
 * bursts, which find their connection in a table indexed by vid without a
 * lock; a connection is published there (atomic flag, release) before its
 * port can open its gates, and torn down only after the port has closed
 * and drained them.
 *
 * Lock order: the device manager's mutex may be held when the card's mutex
 * is taken (close unregisters under it), never the other way round; the
 * card never holds its own mutex while it calls the port or the vhost
 * library.
 */
#include <dirent.h>
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include <ethdev_driver.h>
#include <rte_byteorder.h>
#include <rte_errno.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>
#include <rte_net.h>
#include <rte_ring.h>
#include <rte_tcp.h>
#include <rte_udp.h>
#include <rte_vhost.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_flow.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"

namespace {

/* ---- Records and constants ---- */

/* Feature bits the data path looks at. */
constexpr uint64_t F_GUEST_CSUM = 1ULL << 1;
constexpr uint64_t F_GUEST_TSO4 = 1ULL << 7;
constexpr uint64_t F_GUEST_TSO6 = 1ULL << 8;

static_assert((ZORV_CARD_VIRTIO_FEATURES & (1ULL << 0)) == 0,
	      "the peer must not hand the port partially checksummed frames");
static_assert(ZORV_CARD_MAX_IFACES <= ZORV_CARD_SFI_MAX, "every slot needs an sfi");

constexpr size_t SOCK_PATH_MAX = sizeof(((struct sockaddr_un *)nullptr)->sun_path);

/* Virtqueues tracked per connection (the vhost library's limit). */
constexpr unsigned int MAX_VRINGS = 256;

/* Offload requests the card acts on before the copy. */
constexpr uint64_t TX_OFFLOAD_MASK = RTE_MBUF_F_TX_IP_CKSUM | RTE_MBUF_F_TX_L4_MASK |
				     RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_UDP_SEG;

/*
 * Longest L3 header the mbuf's 9-bit l3_len describes: the vhost library
 * takes the peer's checksum start from it. Longer ones (IPv6 extension
 * headers) are handled here instead of by the peer.
 */
constexpr uint32_t MBUF_L3_LEN_MAX = (1u << 9) - 1;

/* Pool of the segments: built, copied to the guest and freed in one call. */
constexpr unsigned int SEG_POOL_SIZE = 2047;
constexpr unsigned int SEG_POOL_CACHE = 32;
constexpr const char *SEG_POOL_NAME = "zorv_card_seg";

/* One registered interface. */
struct card_iface {
	bool used;                  /* slot taken */
	bool closing;               /* unregister in progress: no new connection */
	int vid;                    /* live connection, or -1 */
	char name[SOCK_PATH_MAX];   /* interface name as registered */
	char path[SOCK_PATH_MAX];   /* socket path */
};

/* Transmitted mbufs held for one queue until its next burst. */
struct card_txq_hold {
	struct rte_mbuf **next_pkts;  /* where a continuing call of the burst starts */
	uint16_t nb_held;             /* entries used in held */
	struct rte_mbuf *held[ZORV_CARD_TX_HOLD];
} __rte_cache_aligned;

/*
 * One connection, indexed by its connection id: the vid the port knows.
 * That is the vhost library's device id, unless a port still holds that id
 * from an earlier connection (a port keeps its last vid, and the library
 * reuses the lowest free id); then the connection gets the lowest id that
 * no port holds, so that the port's lookups by vid find the right port.
 */
struct card_conn {
	std::atomic<bool> used;                 /* id taken, from pick to release */
	std::atomic<bool> live;                 /* published to the data path */
	std::atomic<uint16_t> nr_vring;         /* virtqueues the peer set up */
	std::atomic<struct zorv1_internal *> internal; /* port the connection serves */
	int dev = -1;                           /* vhost device id */
	int slot = -1;                          /* interface slot */
	uint32_t sfi = INVALID_SFI;             /* bound hardware function */
	std::atomic<uint64_t> features;         /* negotiated virtio features */
	uint16_t nb_txq;                        /* entries of txq */
	struct card_txq_hold *txq;              /* per queue pair */
	bool ready_reported;                    /* queues reported ready to the port */
};

/* One vhost device (socket connection), indexed by the library's device id. */
struct card_dev {
	std::array<uint64_t, MAX_VRINGS / 64> vring_on; /* enabled virtqueues */
	int conn = -1;                                  /* connection id, or -1 */
};

pthread_mutex_t card_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<card_iface, ZORV_CARD_MAX_IFACES> ifaces; /* under card_mutex */
std::array<card_conn, RTE_MAX_VHOST_DEVICE> conns;
std::array<card_dev, RTE_MAX_VHOST_DEVICE> devs; /* vhost event thread */
std::atomic<struct rte_mempool *> seg_pool{nullptr};

/*
 * Set while this thread is inside zorv1_dpu_vdev_protocol_unregister. The
 * port's close unregisters with the device manager's mutex held, after it
 * has stopped the port (gates closed and drained); the vhost library then
 * destroys a live connection in this very thread, where the port's
 * connection entry points, which take that mutex, must not be called.
 */
thread_local int t_unregistering;

class card_lock {
public:
	card_lock() { pthread_mutex_lock(&card_mutex); }
	~card_lock() { pthread_mutex_unlock(&card_mutex); }
	card_lock(const card_lock &) = delete;
	card_lock &operator=(const card_lock &) = delete;
};

/* ---- Helpers ---- */

/* Slot of a registered interface by name or socket path; card_mutex held. */
int find_iface_locked(const char *name, const char *path)
{
	for (size_t i = 0; i < ifaces.size(); i++) {
		const card_iface &f = ifaces[i];
		if (!f.used)
			continue;
		if ((name != nullptr && strcmp(f.name, name) == 0) ||
		    (path != nullptr && strcmp(f.path, path) == 0))
			return static_cast<int>(i);
	}
	return -1;
}

card_dev *dev_of(int dev)
{
	if (dev < 0 || dev >= RTE_MAX_VHOST_DEVICE)
		return nullptr;
	return &devs[dev];
}

/* The connection of a vhost device, or NULL. */
card_conn *conn_of_dev(int dev)
{
	card_dev *d = dev_of(dev);
	if (d == nullptr || d->conn < 0)
		return nullptr;
	card_conn *c = &conns[d->conn];
	return c->live.load(std::memory_order_acquire) ? c : nullptr;
}

/* The live connection of vid, for the data path. */
inline card_conn *live_conn(int vid)
{
	if (unlikely(static_cast<unsigned int>(vid) >= RTE_MAX_VHOST_DEVICE))
		return nullptr;
	card_conn *c = &conns[vid];
	return c->live.load(std::memory_order_acquire) ? c : nullptr;
}

bool vring_is_on(const card_conn *c, unsigned int v)
{
	return v < MAX_VRINGS && (devs[c->dev].vring_on[v / 64] >> (v % 64) & 1) != 0;
}

void hold_release(struct card_txq_hold *h)
{
	if (h->nb_held != 0)
		rte_pktmbuf_free_bulk(h->held, h->nb_held);
	h->nb_held = 0;
	h->next_pkts = nullptr;
}

uint32_t conn_held(const card_conn *c)
{
	uint32_t n = 0;
	for (uint16_t q = 0; q < c->nb_txq; q++)
		n += c->txq[q].nb_held;
	return n;
}

/* Forget a connection on the card's side; the port no longer uses it. */
void conn_release(int vid, card_conn *c)
{
	c->live.store(false, std::memory_order_release);
	if (c->txq != nullptr) {
		for (uint16_t q = 0; q < c->nb_txq; q++)
			hold_release(&c->txq[q]);
		rte_free(c->txq);
	}
	c->txq = nullptr;
	c->nb_txq = 0;
	c->internal.store(nullptr, std::memory_order_relaxed);
	c->ready_reported = false;
	c->features.store(0, std::memory_order_relaxed);
	if (c->dev >= 0 && devs[c->dev].conn == vid)
		devs[c->dev].conn = -1;
	c->dev = -1;

	{
		card_lock lock;
		if (c->slot >= 0 && ifaces[c->slot].used && ifaces[c->slot].vid == vid)
			ifaces[c->slot].vid = -1;
	}
	c->slot = -1;
	c->sfi = INVALID_SFI;
	c->used.store(false, std::memory_order_release);
}

int mkdir_p(const char *dir)
{
	char tmp[SOCK_PATH_MAX];
	if (snprintf(tmp, sizeof(tmp), "%s", dir) >= static_cast<int>(sizeof(tmp)))
		return -ENAMETOOLONG;
	for (char *p = tmp + 1; *p != '\0'; p++) {
		if (*p != '/')
			continue;
		*p = '\0';
		if (mkdir(tmp, 0755) != 0 && errno != EEXIST)
			return -errno;
		*p = '/';
	}
	if (mkdir(tmp, 0755) != 0 && errno != EEXIST)
		return -errno;
	return 0;
}

/* True when a process accepts connections on the socket. */
bool socket_served(const char *path)
{
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (fd < 0)
		return false;
	struct sockaddr_un un = {};
	un.sun_family = AF_UNIX;
	snprintf(un.sun_path, sizeof(un.sun_path), "%s", path);
	int ret = connect(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof(un));
	bool served = ret == 0 || errno == EAGAIN || errno == EINPROGRESS;
	close(fd);
	return served;
}

/* Remove a socket left behind by a process that is gone. */
int remove_stale_socket(const char *path)
{
	struct stat st;
	if (lstat(path, &st) != 0)
		return errno == ENOENT ? 0 : -errno;
	if (!S_ISSOCK(st.st_mode)) {
		ZORV1_VDEV_LOG(ERR, "%s exists and is not a socket\n", path);
		return -EEXIST;
	}
	if (socket_served(path)) {
		ZORV1_VDEV_LOG(ERR, "%s is served by another process\n", path);
		return -EADDRINUSE;
	}
	if (unlink(path) != 0 && errno != ENOENT)
		return -errno;
	ZORV1_VDEV_LOG(INFO, "removed stale socket %s\n", path);
	return 0;
}

/*
 * Ready when every virtqueue that a queue of the port uses is enabled:
 * port receive queue i reads the peer's transmit virtqueue 2i+1, port
 * transmit queue i writes its receive virtqueue 2i. A peer with fewer queue
 * pairs than the port is ready once its own pairs are.
 */
bool conn_queues_ready(int vid, const card_conn *c)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_vid(vid);
	if (dev == nullptr || dev->data == nullptr)
		return false;
	uint16_t pairs = rte_vhost_get_vring_num(c->dev) / ZORV1_QNUM;
	uint16_t nb_rx = std::min(dev->data->nb_rx_queues, pairs);
	uint16_t nb_tx = std::min(dev->data->nb_tx_queues, pairs);
	if (nb_rx == 0 && nb_tx == 0)
		return false;
	for (uint16_t i = 0; i < nb_rx; i++)
		if (!vring_is_on(c, i * ZORV1_QNUM + ZORV1_TXQ))
			return false;
	for (uint16_t i = 0; i < nb_tx; i++)
		if (!vring_is_on(c, i * ZORV1_QNUM + ZORV1_RXQ))
			return false;
	return true;
}

/*
 * Tell the port when its queues become ready. A virtqueue that goes off is
 * only noted, and the port told again once all are back: the vhost library
 * calls vring_state_changed with the device's virtqueue locks held, so the
 * port's queue destroy, which waits for the bursts to leave its queues,
 * would wait for a burst spinning on one of those locks. The bursts need no
 * draining here: the library refuses a disabled virtqueue on its own, and
 * the card frees nothing of a queue before the connection is destroyed
 * (whose teardown drains the port's gates from a context without the locks).
 */
void conn_update_ready(int vid, card_conn *c, bool enable)
{
	bool ready = conn_queues_ready(vid, c);
	if (ready && !c->ready_reported) {
		c->ready_reported = true;
		zorv1_dpu_dev_queue_setup(vid);
	} else if (!ready && c->ready_reported) {
		c->ready_reported = false;
		ZORV1_VDEV_LOG(INFO, "vid %d: a queue of the port went off\n", vid);
	} else if (enable) {
		g_dpdk_cp_stat.queue_setup_ignore++;
	} else {
		g_dpdk_cp_stat.queue_destroy_ignore++;
	}
}

/* ---- Transmit offloads ---- */

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

/* ---- Peers that stall ---- */

/*
 * The vhost library serves every socket of the process from one event
 * thread, with blocking reads and writes on each connection, and its
 * unregister waits for that thread to leave a callback of the socket's
 * connections. A peer that sends a header and holds back the payload, or
 * never reads the replies to its requests, would hold that thread (every
 * other socket's peers, and the close of its port) for as long as it likes.
 * Each accepted connection's socket therefore gets receive and send
 * timeouts: a message that does not arrive whole, or a reply that cannot be
 * sent, within PEER_STALL_MS fails, and the library drops a peer whose
 * message failed (a reply that failed is dropped instead).
 */
constexpr long PEER_STALL_MS = 50;

/* True for a connected (not listening) unix socket whose own address is path. */
bool accepted_on(int fd, const char *path)
{
	struct stat st;
	if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode))
		return false;
	struct sockaddr_un un = {};
	socklen_t len = sizeof(un);
	if (getsockname(fd, reinterpret_cast<struct sockaddr *>(&un), &len) != 0 ||
	    un.sun_family != AF_UNIX || len <= offsetof(struct sockaddr_un, sun_path))
		return false;
	size_t plen = len - offsetof(struct sockaddr_un, sun_path);
	if (strnlen(un.sun_path, plen) != strlen(path) || strncmp(un.sun_path, path, plen) != 0)
		return false;
	int listening = 0;
	socklen_t olen = sizeof(listening);
	return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &olen) == 0 && listening == 0;
}

/* What is done to the connections accepted on a socket path. */
enum class peer_io { BOUND, CUT };

/*
 * Act on every connection accepted on path: BOUND gives it the stall
 * timeouts (from the library's new-connection callback, which runs on the
 * event thread between accept() and the moment the library starts reading
 * the socket; connections accepted earlier have them already and setting
 * them again changes nothing); CUT shuts it down, which wakes the event
 * thread out of any read or write on it and makes the library drop it.
 * Returns the number of connections found, or negative errno.
 */
int for_each_accepted(const char *path, peer_io what)
{
	DIR *dir = opendir("/proc/self/fd");
	if (dir == nullptr)
		return -errno;
	const struct timeval tv = {.tv_sec = 0, .tv_usec = PEER_STALL_MS * 1000};
	int found = 0;
	for (struct dirent *e = readdir(dir); e != nullptr; e = readdir(dir)) {
		char *end = nullptr;
		long n = strtol(e->d_name, &end, 10);
		if (end == e->d_name || *end != '\0' || n < 0 || n == dirfd(dir))
			continue;
		int fd = static_cast<int>(n);
		if (!accepted_on(fd, path))
			continue;
		found++;
		if (what == peer_io::CUT) {
			shutdown(fd, SHUT_RDWR);
			continue;
		}
		if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
		    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0)
			ZORV1_VDEV_LOG(WARNING, "cannot bound the peer's stalls on %s (fd %d): %s\n",
				       path, fd, strerror(errno));
	}
	closedir(dir);
	return found;
}

/* True while the interface of slot is being unregistered (or is gone). */
bool iface_closing(int slot)
{
	if (slot < 0 || slot >= static_cast<int>(ifaces.size()))
		return true;
	card_lock lock;
	return !ifaces[slot].used || ifaces[slot].closing;
}

/* ---- vhost callbacks ---- */

int card_new_connection(int dev)
{
	card_dev *d = dev_of(dev);
	if (d != nullptr) {
		d->vring_on.fill(0);
		d->conn = -1;
	}
	char path[PATH_MAX] = "";
	if (rte_vhost_get_ifname(dev, path, sizeof(path)) == 0 && for_each_accepted(path, peer_io::BOUND) <= 0)
		ZORV1_VDEV_LOG(WARNING, "vhost device %d: its socket on %s was not found\n", dev, path);
	return 0;
}

void card_destroy_connection(int dev)
{
	card_dev *d = dev_of(dev);
	if (d != nullptr)
		d->vring_on.fill(0);
}

/*
 * Connection id for a new connection of interface name on vhost device dev:
 * an id that no live connection uses and that no port holds, other than the
 * interface's own port; dev itself when it qualifies.
 */
int pick_conn_id(int dev, const char *name)
{
	auto usable = [name](int id) {
		if (conns[id].used.load(std::memory_order_acquire))
			return false;
		struct rte_eth_dev *eth = zorv1_dev_get_ethdev_by_vid(id);
		if (eth == nullptr || eth->data == nullptr)
			return true;
		auto *in = static_cast<const struct zorv1_internal *>(eth->data->dev_private);
		return in == nullptr || (in->iface_name != nullptr && strcmp(in->iface_name, name) == 0);
	};
	if (usable(dev))
		return dev;
	for (int id = 0; id < RTE_MAX_VHOST_DEVICE; id++)
		if (usable(id))
			return id;
	return -1;
}

int card_new_device(int dev)
{
	card_dev *d = dev_of(dev);
	char path[PATH_MAX] = "";

	if (d == nullptr || rte_vhost_get_ifname(dev, path, sizeof(path)) != 0) {
		g_dpdk_cp_stat.add_device_null++;
		ZORV1_VDEV_LOG(ERR, "new vhost device %d without a socket\n", dev);
		return -1;
	}
	if (conn_of_dev(dev) != nullptr) {
		ZORV1_VDEV_LOG(WARNING, "vhost device %d is already connected\n", dev);
		return 0;
	}

	char name[SOCK_PATH_MAX];
	int slot;
	{
		card_lock lock;
		slot = find_iface_locked(nullptr, path);
		if (slot < 0 || ifaces[slot].closing) {
			g_dpdk_cp_stat.add_device_null++;
			ZORV1_VDEV_LOG(ERR, "new vhost device %d on %s: interface not registered\n",
				       dev, path);
			return -1;
		}
		memcpy(name, ifaces[slot].name, sizeof(name));
	}

	int vid = pick_conn_id(dev, name);
	if (vid < 0) {
		g_dpdk_cp_stat.add_device_install_err++;
		ZORV1_VDEV_LOG(ERR, "no connection id left for %s\n", name);
		return -1;
	}
	card_conn *c = &conns[vid];
	c->used.store(true, std::memory_order_relaxed);

	uint64_t features = 0;
	rte_vhost_get_negotiated_features(dev, &features);
	uint16_t nr_vring = rte_vhost_get_vring_num(dev);
	/*
	 * The card polls every virtqueue, so the peer need not kick it: without
	 * this a virtio peer makes a system call (an eventfd write) per burst.
	 */
	for (uint16_t i = 0; i < nr_vring; i++)
		rte_vhost_enable_guest_notification(dev, i, 0);
	uint16_t nb_txq = std::max<uint16_t>(nr_vring / ZORV1_QNUM, 1);
	auto *txq = static_cast<struct card_txq_hold *>(
		rte_zmalloc_socket("zorv_card_txq", sizeof(struct card_txq_hold) * nb_txq,
				   RTE_CACHE_LINE_SIZE, rte_socket_id()));
	if (txq == nullptr) {
		g_dpdk_cp_stat.add_device_install_err++;
		ZORV1_VDEV_LOG(ERR, "no memory for %u queues of %s\n", nb_txq, name);
		c->used.store(false, std::memory_order_release);
		return -1;
	}
	{
		card_lock lock;
		ifaces[slot].vid = vid;
	}

	c->dev = dev;
	c->slot = slot;
	c->sfi = static_cast<uint32_t>(slot) + ZORV_CARD_SFI_MIN;
	c->features.store(features, std::memory_order_relaxed);
	c->nb_txq = nb_txq;
	c->txq = txq;
	c->ready_reported = false;
	c->internal.store(nullptr, std::memory_order_relaxed);
	c->nr_vring.store(nr_vring, std::memory_order_relaxed);
	d->conn = vid;
	c->live.store(true, std::memory_order_release);

	if (zorv1_dpu_vdev_new_conn(vid) != 0) {
		/* The port reported the unknown interface. */
		g_dpdk_cp_stat.add_device_null++;
		conn_release(vid, c);
		return -1;
	}

	/* The port the data path may serve for this vid: the one of this interface. */
	struct rte_eth_dev *eth = zorv1_dev_get_ethdev_by_vid(vid);
	auto *internal = eth != nullptr && eth->data != nullptr
				 ? static_cast<struct zorv1_internal *>(eth->data->dev_private)
				 : nullptr;
	if (internal != nullptr && internal->iface_name != nullptr &&
	    strcmp(internal->iface_name, name) == 0)
		c->internal.store(internal, std::memory_order_release);
	else
		ZORV1_VDEV_LOG(ERR, "vid %d (%s) is not the connection of port %s\n", vid, name,
			       internal != nullptr && internal->iface_name != nullptr
				       ? internal->iface_name
				       : "(none)");

	zorv1_set_internal_sfi(vid, c->sfi);
	g_dpdk_cp_stat.add_device_success++;
	ZORV1_VDEV_LOG(INFO,
		       "%s connected: vid %d (vhost device %d) sfi %u features 0x%" PRIx64
		       " vrings %u\n",
		       name, vid, dev, c->sfi, features, nr_vring);

	if (conn_queues_ready(vid, c)) {
		c->ready_reported = true;
		zorv1_dpu_dev_queue_setup(vid);
	} else {
		g_dpdk_cp_stat.add_device_vq_no_ready++;
	}
	return 0;
}

void card_destroy_device(int dev)
{
	card_conn *c = conn_of_dev(dev);
	if (c == nullptr) {
		g_dpdk_cp_stat.del_device_null++;
		return;
	}
	int vid = devs[dev].conn;

	if (t_unregistering != 0 || iface_closing(c->slot)) {
		/*
		 * The port is being closed: stopped, its gates drained. When the
		 * close cut the peer off, the library drops it on the event
		 * thread while the closing thread holds the device manager's
		 * mutex and waits for this callback: the port is not called.
		 */
		zorv1_dev_sfi_unmap_port(c->sfi);
		ZORV1_VDEV_LOG(INFO, "vid %d dropped with its interface\n", vid);
	} else {
		/* Closes and drains the port's gates before it returns. */
		zorv1_dpu_vdev_destroy_conn(vid);
	}
	conn_release(vid, c);
	g_dpdk_cp_stat.del_device_suc++;
	ZORV1_VDEV_LOG(INFO, "vid %d (vhost device %d) disconnected\n", vid, dev);
}

int card_vring_state_changed(int dev, uint16_t queue, int enable)
{
	card_dev *d = dev_of(dev);
	g_dpdk_cp_stat.vring_state_chg++;
	if (d == nullptr || queue >= MAX_VRINGS) {
		g_dpdk_cp_stat.vring_state_fail++;
		return 0;
	}
	uint64_t bit = 1ULL << (queue % 64);
	if (enable)
		d->vring_on[queue / 64] |= bit;
	else
		d->vring_on[queue / 64] &= ~bit;

	/* Before the device is running, new_device looks at the states. */
	card_conn *c = conn_of_dev(dev);
	if (c == nullptr) {
		g_dpdk_cp_stat.vhost_vring_state_null++;
		return 0;
	}
	uint16_t nr_vring = rte_vhost_get_vring_num(dev);
	if (nr_vring / ZORV1_QNUM > c->nb_txq)
		ZORV1_VDEV_LOG(WARNING, "vid %d grew to %u virtqueues; transmit uses the first %u pairs\n",
			       d->conn, nr_vring, c->nb_txq);
	c->nr_vring.store(nr_vring, std::memory_order_relaxed);
	conn_update_ready(d->conn, c, enable != 0);
	return 0;
}

/*
 * Features of a running device changed (dirty-page logging switched on or
 * off for a live migration). Without this callback the vhost library would
 * destroy the device, with its virtqueue locks held, to re-create it.
 */
int card_features_changed(int dev, uint64_t features)
{
	card_conn *c = conn_of_dev(dev);
	if (c != nullptr)
		c->features.store(features, std::memory_order_relaxed);
	return 0;
}

const struct rte_vhost_device_ops card_ops = {
	.new_device = card_new_device,
	.destroy_device = card_destroy_device,
	.vring_state_changed = card_vring_state_changed,
	.features_changed = card_features_changed,
	.new_connection = card_new_connection,
	.destroy_connection = card_destroy_connection,
	.guest_notified = nullptr,
	.reserved = {nullptr},
};

/*
 * Serve the socket of interface slot with the vhost library. NULL on
 * success, else why not; on failure nothing stays registered.
 */
const char *serve_socket(int slot, const char *path)
{
	const char *why;
	uint64_t features = 0;

	if (remove_stale_socket(path) != 0) {
		g_dpdk_cp_stat.vhost_regist_fail++;
		return "socket path in use";
	}
	if (rte_vhost_driver_register(path, RTE_VHOST_USER_NET_COMPLIANT_OL_FLAGS) != 0) {
		g_dpdk_cp_stat.vhost_regist_fail++;
		return "rte_vhost_driver_register failed";
	}
	/*
	 * Narrow the vhost library's own virtio-net feature set rather than
	 * replace it: replacing it would switch its built-in net backend off.
	 */
	if (rte_vhost_driver_get_features(path, &features) != 0 ||
	    rte_vhost_driver_disable_features(path, features & ~ZORV_CARD_VIRTIO_FEATURES) != 0 ||
	    rte_vhost_driver_enable_features(path, features & ZORV_CARD_VIRTIO_FEATURES) != 0) {
		g_dpdk_cp_stat.vhost_regist_fail++;
		why = "cannot set the virtio features";
		goto unregister;
	}
	if (rte_vhost_driver_callback_register(path, &card_ops) != 0) {
		g_dpdk_cp_stat.vhost_callback_null++;
		why = "rte_vhost_driver_callback_register failed";
		goto unregister;
	}
	{
		card_lock lock;
		ifaces[slot].closing = false; /* connections may come from now on */
	}
	if (rte_vhost_driver_start(path) != 0) {
		g_dpdk_cp_stat.vhost_driver_start_err++;
		why = "rte_vhost_driver_start failed";
		goto unregister;
	}
	return nullptr;

unregister:
	{
		card_lock lock;
		ifaces[slot].closing = true;
	}
	t_unregistering++;
	rte_vhost_driver_unregister(path);
	t_unregistering--;
	unlink(path);
	return why;
}

/* The pool of TSO segments, created with the first interface. */
int seg_pool_get(void)
{
	if (seg_pool.load(std::memory_order_acquire) != nullptr)
		return 0;
	struct rte_mempool *mp = rte_mempool_lookup(SEG_POOL_NAME);
	if (mp == nullptr)
		mp = rte_pktmbuf_pool_create(SEG_POOL_NAME, SEG_POOL_SIZE, SEG_POOL_CACHE, 0,
					     RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
	if (mp == nullptr) {
		ZORV1_VDEV_LOG(ERR, "cannot create the segment pool: %s\n", rte_strerror(rte_errno));
		return -ENOMEM;
	}
	seg_pool.store(mp, std::memory_order_release);
	return 0;
}

/* Free the segment pool once no interface is left; card_mutex held. */
void seg_pool_put_locked(void)
{
	for (const card_iface &f : ifaces)
		if (f.used)
			return;
	struct rte_mempool *mp = seg_pool.load(std::memory_order_acquire);
	if (mp != nullptr && rte_mempool_full(mp)) {
		seg_pool.store(nullptr, std::memory_order_release);
		rte_mempool_free(mp);
	}
}

} // namespace

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
	int vid = internal->vid;
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
		nb += mtu != 0 ? mtu_filter(&pkts[nb], got, mtu, vport) : got;
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
	int vid = internal->vid;
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
	uint16_t sent = n != 0 ? tx_copy(c, vq, pkts, n) : 0;
	memcpy(&hold->held[hold->nb_held], pkts, sizeof(pkts[0]) * sent);
	hold->nb_held += sent;
	if (sent == count)
		hold->next_pkts = pkts + count;
	else
		g_dpdk_cp_stat.enqueue_fail++;
	return sent;
}

/* ---- Transmit offloads ---- */

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

/* ---- Interface registration ---- */

int zorv_card_socket_path(const char *iface, char *buf, size_t len)
{
	if (iface == nullptr || iface[0] == '\0' || buf == nullptr || len == 0)
		return -1;
	int n;
	if (strchr(iface, '/') != nullptr) {
		n = snprintf(buf, len, "%s", iface);
	} else {
		const char *dir = getenv(ZORV_CARD_SOCK_DIR_ENV);
		if (dir == nullptr || dir[0] == '\0')
			dir = ZORV_CARD_SOCK_DIR_DEFAULT;
		n = snprintf(buf, len, "%s/%s", dir, iface);
	}
	if (n < 0 || static_cast<size_t>(n) >= len || static_cast<size_t>(n) >= SOCK_PATH_MAX)
		return -1;
	return 0;
}

int zorv1_dpu_vdev_protocol_register(char *iface)
{
	char path[SOCK_PATH_MAX];

	if (zorv_card_socket_path(iface, path, sizeof(path)) != 0) {
		g_dpdk_cp_stat.vhost_regist_fail++;
		ZORV1_VDEV_LOG(ERR, "no socket path for interface %s\n", iface != nullptr ? iface : "");
		return -1;
	}
	if (strchr(iface, '/') == nullptr) {
		char dir[SOCK_PATH_MAX];
		snprintf(dir, sizeof(dir), "%s", path);
		*strrchr(dir, '/') = '\0';
		int ret = mkdir_p(dir);
		if (ret != 0) {
			g_dpdk_cp_stat.vhost_regist_fail++;
			ZORV1_VDEV_LOG(ERR, "cannot create socket directory %s: %s\n", dir,
				       strerror(-ret));
			return -1;
		}
	}

	int slot = -1;
	{
		card_lock lock;
		if (find_iface_locked(iface, path) >= 0) {
			g_dpdk_cp_stat.vhost_regist_fail++;
			ZORV1_VDEV_LOG(ERR, "interface %s (%s) is already registered\n", iface, path);
			return -1;
		}
		for (size_t i = 0; i < ifaces.size(); i++) {
			if (!ifaces[i].used) {
				slot = static_cast<int>(i);
				break;
			}
		}
		if (slot < 0) {
			g_dpdk_cp_stat.vhost_regist_fail++;
			ZORV1_VDEV_LOG(ERR, "no room for interface %s: %d registered\n", iface,
				       ZORV_CARD_MAX_IFACES);
			return -1;
		}
		if (seg_pool_get() != 0) {
			g_dpdk_cp_stat.vhost_regist_fail++;
			return -1;
		}
		card_iface &f = ifaces[slot];
		f.used = true;
		f.closing = true; /* until served */
		f.vid = -1;
		snprintf(f.name, sizeof(f.name), "%s", iface);
		snprintf(f.path, sizeof(f.path), "%s", path);
	}

	const char *why = serve_socket(slot, path);
	if (why != nullptr) {
		ZORV1_VDEV_LOG(ERR, "cannot serve interface %s at %s: %s\n", iface, path, why);
		card_lock lock;
		ifaces[slot] = card_iface{};
		seg_pool_put_locked();
		return -1;
	}
	ZORV1_VDEV_LOG(INFO, "interface %s served at %s, sfi %d\n", iface, path,
		       slot + ZORV_CARD_SFI_MIN);
	return 0;
}

int zorv1_dpu_vdev_protocol_unregister(char *iface)
{
	char path[SOCK_PATH_MAX];
	int slot;

	if (iface == nullptr)
		return -1;
	{
		card_lock lock;
		slot = find_iface_locked(iface, nullptr);
		if (slot < 0) {
			ZORV1_VDEV_LOG(ERR, "interface %s is not registered\n", iface);
			return -1;
		}
		ifaces[slot].closing = true;
		memcpy(path, ifaces[slot].path, sizeof(path));
	}

	/*
	 * Cut the peers off first: the library's unregister waits for the
	 * event thread to leave any callback on this socket's connections,
	 * and a peer may keep it there (a message it never finishes, replies
	 * it never reads); shut down, they fail at once.
	 */
	for_each_accepted(path, peer_io::CUT);

	/* A live connection is destroyed in here, through card_destroy_device. */
	t_unregistering++;
	int ret = rte_vhost_driver_unregister(path);
	t_unregistering--;
	if (ret != 0)
		ZORV1_VDEV_LOG(WARNING, "rte_vhost_driver_unregister(%s) failed\n", path);

	if (unlink(path) != 0 && errno != ENOENT)
		ZORV1_VDEV_LOG(WARNING, "cannot remove %s: %s\n", path, strerror(errno));

	/* Nothing is left to the port of this interface; drop what the card holds. */
	for (int vid = 0; vid < RTE_MAX_VHOST_DEVICE; vid++) {
		card_conn *c = &conns[vid];
		if (c->live.load(std::memory_order_acquire) && c->slot == slot) {
			ZORV1_VDEV_LOG(WARNING, "vid %d of %s outlived its socket\n", vid, iface);
			zorv1_dev_sfi_unmap_port(c->sfi);
			conn_release(vid, c);
		}
	}

	card_lock lock;
	ifaces[slot] = card_iface{};
	seg_pool_put_locked();
	ZORV1_VDEV_LOG(INFO, "interface %s no longer served\n", iface);
	return 0;
}

/* ---- Names and functions ---- */

int zorv_get_ifname(int vid, char *buf, size_t len)
{
	char path[PATH_MAX] = "";

	if (buf == nullptr || len == 0)
		return -1;
	buf[0] = '\0';
	card_conn *c = live_conn(vid);
	if (c == nullptr || rte_vhost_get_ifname(c->dev, path, sizeof(path)) != 0)
		return -1;

	card_lock lock;
	int slot = find_iface_locked(nullptr, path);
	const char *name = slot >= 0 ? ifaces[slot].name : path;
	if (snprintf(buf, len, "%s", name) >= static_cast<int>(len))
		return -1;
	return slot >= 0 ? 0 : -1;
}

int zorv_set_dev_port(struct rte_eth_dev *dev, uint32_t sfi)
{
	if (dev == nullptr || dev->data == nullptr)
		return -EINVAL;
	if (sfi < ZORV_CARD_SFI_MIN || sfi > ZORV_CARD_SFI_MAX)
		return -EINVAL;
	return zorv_dev_sfi_map_port(sfi, dev->data->port_id);
}

/* ---- Inspection ---- */

uint32_t zorv_card_iface_sfi(const char *iface)
{
	card_lock lock;
	int slot = find_iface_locked(iface, nullptr);
	return slot >= 0 ? static_cast<uint32_t>(slot) + ZORV_CARD_SFI_MIN : INVALID_SFI;
}

int zorv_card_iface_vid(const char *iface)
{
	card_lock lock;
	int slot = find_iface_locked(iface, nullptr);
	return slot >= 0 ? ifaces[slot].vid : -1;
}

uint64_t zorv_card_conn_features(int vid)
{
	card_conn *c = live_conn(vid);
	return c != nullptr ? c->features.load(std::memory_order_relaxed) : 0;
}

uint32_t zorv_card_conn_held_mbufs(int vid)
{
	card_conn *c = live_conn(vid);
	return c != nullptr ? conn_held(c) : 0;
}

uint32_t zorv_card_iface_count(void)
{
	card_lock lock;
	uint32_t n = 0;
	for (const card_iface &f : ifaces)
		n += f.used ? 1 : 0;
	return n;
}

} // extern "C"
