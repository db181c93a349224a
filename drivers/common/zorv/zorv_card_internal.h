/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's shared records: the connection table that its control
 * side (zorv_vhost_card.cpp: interfaces, sockets, vhost callbacks) fills and
 * its bursts (zorv_card_burst.cpp) read without a lock, the feature bits
 * both look at, the interface table, and what the card's files call of each
 * other. Internal to the card.
 */
#ifndef ZORV_CARD_INTERNAL_H
#define ZORV_CARD_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <pthread.h>
#include <sys/un.h>

#include <array>
#include <atomic>

#include <rte_branch_prediction.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>
#include <rte_vhost.h>

#include "zorv1_vhost.h"
#include "zorv_vhost_card.h"

namespace zorv_card {

/* Longest socket path: a unix socket address. */
constexpr size_t SOCK_PATH_MAX = sizeof(((struct sockaddr_un *)nullptr)->sun_path);

/* Feature bits the data path looks at. */
constexpr uint64_t F_CSUM = 1ULL << 0;
constexpr uint64_t F_GUEST_CSUM = 1ULL << 1;
constexpr uint64_t F_HOST_TSO4 = 1ULL << 11;
constexpr uint64_t F_HOST_TSO6 = 1ULL << 12;
constexpr uint64_t F_GUEST_TSO4 = 1ULL << 7;
constexpr uint64_t F_GUEST_TSO6 = 1ULL << 8;

/* Virtqueues tracked per connection (the vhost library's limit). */
constexpr unsigned int MAX_VRINGS = 256;

/* Frames the port's receive burst asks the transport for at a time, at most. */
constexpr uint16_t RX_CHUNK_MAX = 32;

/* Offload requests the card acts on before the copy. */
constexpr uint64_t TX_OFFLOAD_MASK = RTE_MBUF_F_TX_IP_CKSUM | RTE_MBUF_F_TX_L4_MASK |
				     RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_UDP_SEG;

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
	bool rx_offloads;                       /* the peer may send checksum/GSO requests */
	uint16_t nb_txq;                        /* entries of txq */
	struct card_txq_hold *txq;              /* per queue pair */
	std::atomic<bool> ready_reported;       /* queues reported ready to the port */
	std::atomic<uint32_t> gen;              /* changes at every connect and release */
	std::atomic<bool> check_pending;        /* a readiness check is scheduled */
	std::atomic<bool> last_enable;          /* what the last virtqueue change was */
};

/* One vhost device (socket connection), indexed by the library's device id. */
struct card_dev {
	std::array<std::atomic<uint64_t>, MAX_VRINGS / 64> vring_on; /* enabled virtqueues */
	int conn = -1;                                  /* connection id, or -1 */
	/*
	 * A second descriptor of the connection's socket, so that when the
	 * library ends the connection the card can tell whether the peer had
	 * hung up; -1 when not known. Its inode tells it from the others, its
	 * interface slot says whose it is. Under the card's mutex: the close
	 * of the interface drops it too (the library's unregister ends the
	 * connections without the destroy-connection callback).
	 */
	int peer_fd = -1;
	unsigned long peer_ino = 0;
	int peer_slot = -1;
};

/* Indexed by connection id (conns) and by vhost device id (devs). */
extern std::array<card_conn, RTE_MAX_VHOST_DEVICE> conns;
extern std::array<card_dev, RTE_MAX_VHOST_DEVICE> devs; /* vhost event thread */
/* Mbufs of the TSO segments the card makes; created with the first interface. */
extern std::atomic<struct rte_mempool *> seg_pool;

/* True when the peer negotiated sending frames with offload requests. */
inline bool peer_offloads(uint64_t features)
{
	return (features & (F_CSUM | F_HOST_TSO4 | F_HOST_TSO6)) != 0;
}

/* The live connection of vid, for the data path. */
inline card_conn *live_conn(int vid)
{
	if (unlikely(static_cast<unsigned int>(vid) >= RTE_MAX_VHOST_DEVICE))
		return nullptr;
	card_conn *c = &conns[vid];
	return c->live.load(std::memory_order_acquire) ? c : nullptr;
}

/* Free the transmitted mbufs a queue holds. */
inline void hold_release(struct card_txq_hold *h)
{
	if (h->nb_held != 0)
		rte_pktmbuf_free_bulk(h->held, h->nb_held);
	h->nb_held = 0;
	h->next_pkts = nullptr;
}

/* Transmitted mbufs a connection holds over all its queues. */
inline uint32_t conn_held(const card_conn *c)
{
	uint32_t n = 0;
	for (uint16_t q = 0; q < c->nb_txq; q++)
		n += c->txq[q].nb_held;
	return n;
}

/*
 * Drop the frames of a connection that went away which still wait in its
 * port's receive rings (zorv_card_burst.cpp).
 */
void drop_waiting_frames(int vid, const card_conn *c);

/* ---- Interfaces (zorv_vhost_card.cpp) ---- */

/* One registered interface. */
struct card_iface {
	bool used;                  /* slot taken */
	bool closing;               /* unregister in progress: no new connection */
	int vid;                    /* live connection, or -1 */
	char name[SOCK_PATH_MAX];   /* interface name as registered */
	char path[SOCK_PATH_MAX];   /* socket path */
	int peer_dev = -1;          /* vhost device of the peer on the socket, or -1 */
	bool refusal_logged;        /* a refusal was logged while that peer is on */
	uint64_t peers_refused;     /* connections refused while a peer was on */
	uint64_t peers_cut;         /* peers whose connection the card ended */
	bool cut_logged;            /* a cut was logged; no device since */
	bool released;              /* no longer served; the slot waits for unregister */
};

/* The interface table and its counters; ifaces under card_mutex. */
extern pthread_mutex_t card_mutex;
extern std::array<card_iface, ZORV_CARD_MAX_IFACES> ifaces;
extern std::atomic<uint64_t> peers_refused_total; /* over every interface, ever */
extern std::atomic<uint64_t> peers_cut_total;     /* over every interface, ever */

class card_lock {
public:
	card_lock() { pthread_mutex_lock(&card_mutex); }
	~card_lock() { pthread_mutex_unlock(&card_mutex); }
	card_lock(const card_lock &) = delete;
	card_lock &operator=(const card_lock &) = delete;
};

/* Slot of a registered interface by name or socket path; card_mutex held. */
int find_iface_locked(const char *name, const char *path);

/* The card's record of a vhost device, or NULL. */
card_dev *dev_of(int dev);

/* ---- Readiness (zorv_card_ready.cpp) ---- */

/* Every virtqueue that a queue of vid's port uses is enabled on vhost device vdev. */
bool conn_queues_ready(int vid, int vdev);

/* Look at the readiness of vid's connection on the EAL interrupt thread, soon. */
void schedule_ready_check(int vid, card_conn *c);

/* Wait until no readiness check runs for the interface of slot. */
void wait_ready_checks(int slot);

/* ---- Peers on a socket (zorv_card_peers.cpp) ---- */

/* The vhost library's connection callbacks: one peer per socket, and
 * the peers the card cuts off. */
int card_new_connection(int dev);
void card_destroy_connection(int dev);

/* Take a device's second descriptor of its peer's socket; card_mutex held. */
int take_peer_end_locked(card_dev *d);

/* ---- Sockets (zorv_card_socket.cpp) ---- */

/* What for_each_accepted does to the connections accepted on a socket. */
enum class peer_io {
	BOUND,      /* give them the stall timeouts (see zorv_card_socket.cpp) */
	CUT,        /* shut them down: the library drops them */
	COUNT_OPEN, /* only count those whose peer has not closed them */
};

/*
 * Act on every connection this process accepted on the socket at path;
 * the number of connections found (counted), or negative errno. BOUND is
 * for the library's new-connection callback, which runs on the event thread
 * between accept() and the first read of the socket.
 */
int for_each_accepted(const char *path, peer_io what);

/*
 * A descriptor (dup) of the one connection accepted on the socket at path
 * whose inode is not in taken[0..nb_taken); its inode in *ino. -1 when
 * there is not exactly one such connection.
 */
int dup_new_peer(const char *path, const unsigned long *taken, unsigned int nb_taken,
		 unsigned long *ino);

/* True while the peer of a connected socket has not hung up its end. */
bool peer_holds(int fd);

/* mkdir -p; 0 or negative errno. */
int mkdir_p(const char *dir);

/*
 * Make room for serving path: remove a socket that nobody serves any more;
 * -EEXIST for a file that is not a socket, -EADDRINUSE for a socket another
 * process serves. 0 when path is free.
 */
int remove_stale_socket(const char *path);

} // namespace zorv_card

#endif /* ZORV_CARD_INTERNAL_H */
