/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's transport, internal header.
 *
 * Without the card, each registered interface is served as a vhost-user
 * socket in server mode by DPDK's vhost library; the virtio peer (a VM,
 * DPDK's virtio-user, ...) is the host side of the card's function.
 *
 * Where it lives: zorv_vhost_card.cpp (interfaces, vhost callbacks, the
 * connection table), zorv_card_socket.cpp (socket paths and the
 * connections accepted on a socket), zorv_card_burst.cpp (the bursts:
 * dequeue, enqueue, receive offloads, the hold of sent mbufs),
 * zorv_card_offload.cpp (the software transmit offloads, pure functions),
 * zorv_card_internal.h (what they share).
 *
 * Socket of an interface:
 *   - an interface name that contains '/' is itself the socket path;
 *   - any other name <ifc> is served at <dir>/<ifc>, where <dir> is the
 *     value of the environment variable ZORV1_VHOST_DIR, or /var/run/zorv1
 *     when it is unset or empty. The directory is created if missing.
 *   The path must fit a unix socket address (107 bytes).
 *
 * Hardware function (sfi) of a connection: every registered interface owns
 * one slot of the card's interface table for as long as it is registered,
 * and its connections are bound to sfi = slot + 1 (1..ZORV_CARD_MAX_IFACES).
 *
 * Virtio features offered to the peer (ZORV_CARD_VIRTIO_FEATURES):
 *   receive side of the peer: GUEST_CSUM, GUEST_TSO4, GUEST_TSO6 and
 *     MRG_RXBUF, so that the port's transmit checksum and TSO offloads can
 *     be handed to the peer in the virtio-net header. When a peer did not
 *     negotiate them, the card computes the checksums and segments TSO
 *     packets itself before the copy (see "Transmit offloads").
 *   transmit side of the peer: CSUM, HOST_TSO4 and HOST_TSO6, so that a
 *     guest kernel keeps its checksum and TSO offloads. The port advertises
 *     no receive offload, so every frame it delivers must be complete: the
 *     card completes a checksum the peer left partial and cuts a large TCP
 *     frame into segments of the peer's gso_size, with the same code as its
 *     transmit offloads (see "Receive offloads"). Every frame is within the
 *     firmware MTU of the port's virtual port. No HOST_UFO: UDP is not
 *     segmented.
 *   and MQ, CTRL_VQ, CTRL_RX, ANY_LAYOUT, INDIRECT_DESC, VERSION_1,
 *   RING_PACKED, IN_ORDER and the vhost-user protocol features.
 *
 * Connection ids (the vid the port knows): the vhost library's device id,
 * unless a port still holds that id from an earlier connection (a port keeps
 * its last vid, and the library reuses the lowest free device id); then the
 * connection gets the lowest id that no port holds, so that the port's
 * lookups by vid always find the connection's own port. Ids are 0..1023.
 *
 * Connection events to the port: a new device is announced with
 * zorv1_dpu_vdev_new_conn and bound with zorv1_set_internal_sfi; once every
 * virtqueue the port's queues use is enabled (of the pairs the peer has),
 * zorv1_dpu_dev_queue_setup; a destroyed device with
 * zorv1_dpu_vdev_destroy_conn. A virtqueue that goes off later is noted
 * but not reported with zorv1_dpu_dev_queue_destroy: the vhost library
 * reports it with the device's virtqueue locks held, and the port's queue
 * destroy waits for bursts that may be spinning on those locks. The library
 * itself refuses a disabled virtqueue to the bursts.
 *
 * Unregistering: the port's close frees its flow resources and then, with
 * the device manager's mutex held, unregisters its interface. The vhost
 * library's unregister waits for its event thread to leave every callback
 * of the socket's connections, and those callbacks reach the port through
 * entry points that take the same mutex: done under the mutex, a peer's
 * message at that moment would hold the close for ever. So the card lets go
 * of the interface when the flow engine frees the port's resources
 * (zorv_card_iface_release), before the mutex is taken: it marks the
 * interface closing, waits for a readiness check of it still running, shuts
 * down every connection accepted on the socket (so that no peer can keep
 * the event thread inside one of its messages) and unregisters the socket.
 * A connection still live then is dropped by the card alone, without the
 * port's connection entry points; the port is going away with it. The
 * unregister under the mutex then only frees the interface's slot (or does
 * all of this itself for a caller that did not release first).
 *
 * Readiness: the vhost library reports a virtqueue that comes or goes with
 * every virtqueue lock of the device held. The card then only notes it and
 * looks at the connection's readiness on the EAL interrupt thread (an
 * alarm due at once), where reporting it to the port, which takes the
 * device manager's mutex, cannot wait for a family module that holds the
 * mutex and waits for a burst spinning on one of those locks.
 *
 * Peers that stall: the vhost library serves every socket of the process
 * from one event thread with blocking reads and writes. Each accepted
 * connection gets a receive and a send timeout of 50 ms (set from the
 * library's new-connection callback): a message that does not arrive whole
 * within it makes the library drop the peer, and a reply the peer does not
 * read within it is lost. A stalling peer thus holds the event thread, and
 * with it the other sockets' peers, for at most 50 ms per message.
 *   A connection the library ends while its peer still holds it open (such
 *   a stall, a message it cannot take, garbage) is a peer cut off: counted
 *   per interface and in total (peers_cut), and logged, once for a run of
 *   such connections until a peer gets as far as a device again. A peer
 *   that closes its end itself is not counted.
 *
 * Memory tables: a peer sends a new memory table (SET_MEM_TABLE) while its
 * device runs when a guest boots or its memory is hot-plugged. The vhost
 * library applies it with every virtqueue lock held and without destroying
 * the device; the card's bursts reach the virtqueues only through the
 * library, which takes the same locks (a dequeue finds a locked virtqueue
 * empty, an enqueue waits until the table is applied), and keep no guest
 * address between calls. A table change therefore costs the bursts at most
 * the time the library takes to map it, and the card needs no callback for
 * it. A change of features on a running device (dirty-page logging) comes
 * through features_changed, so the library does not destroy the device for
 * it either.
 *
 * Transmit offloads: the card parses each frame that requests an offload
 * (RTE_MBUF_F_TX_IP_CKSUM, TCP/UDP checksum, TCP_SEG) and acts on what it
 * finds, not on the mbuf's l2_len/l3_len/l4_len or its IPV4/IPV6 flags: the
 * port may have inserted a VLAN tag after they were set, and a length the
 * frame does not back must not steer a write. VLAN and QinQ tags, IPv4
 * options and IPv6 extension headers are parsed; headers may lie across the
 * segments of a chain. What the peer negotiated is handed to it in the
 * virtio-net header (checksums as a pseudo-header start value, TSO as one
 * large frame), unless the IP header with its extension headers is longer
 * than the mbuf's l3_len can describe (511 bytes). The rest is done here:
 * the IPv4 header checksum, the complete L4 checksum over the length the IP
 * header gives, and TSO segmentation into frames of tso_segsz payload
 * bytes, each with its own IPv4 id, lengths, sequence number and
 * checksums; FIN and PSH stay on the last segment, CWR on the first.
 *   A request the frame does not support is not carried out and the frame
 *   goes as it is, like a NIC that is handed a malformed descriptor: no
 *   checksum is written, nothing is segmented, the offload flags are
 *   cleared, and enqueue_vhost_len_fail counts it. That is: an IP checksum
 *   on a frame that is not IPv4; a TCP or UDP checksum or TSO on a frame
 *   without that header (other protocols, fragments); a TCP header shorter
 *   than 20 bytes (data offset below 5); headers that reach past the frame;
 *   an IP length (IPv4 total length, IPv6 payload length) shorter than the
 *   headers or longer than the frame, for a frame that goes as one; a TSO
 *   request with tso_segsz 0; and, when the card segments, headers longer
 *   than ZORV_CARD_TSO_HDR_MAX, a segment longer than the IP length field
 *   holds, or more than ZORV_CARD_TSO_SEGS_MAX segments. A TSO request whose
 *   payload fits one segment goes as one frame with its checksums. SCTP
 *   checksums and UDP segmentation are not offered; such requests are
 *   cleared.
 *
 * Receive offloads: a frame the peer sent with a partial checksum or as a
 * large TCP frame (marked by the vhost library with RX_L4_CKSUM_NONE or
 * RX_LRO) is completed or segmented before the port sees it; the segments
 * come from the receive queue's mbuf pool. Segments that do not fit the
 * port's burst wait in the queue's ring, after the MTU check and the flow
 * classifier, together with the frames behind them in the same burst, so
 * that every flow keeps its order; the next burst takes them first. A
 * request the frame does not support is left undone (the frame goes as it
 * is); a segmentation without mbufs drops the frame. Counters,
 * totals over every port in /zorv1/cp_stats: rx_csum_completed,
 * rx_gso_frames, rx_gso_segments, rx_offload_bad, rx_offload_nombuf,
 * rx_ring_full.
 *
 * One peer per socket: while a peer is connected to an interface's socket,
 * another connection on it is refused at once (the vhost library closes
 * it), counted per interface and in total, and the first such refusal
 * while that peer is on is logged; the connected peer keeps its traffic.
 * Once its connection is closed the next peer may connect.
 *
 * MTU: once the firmware holds an MTU for the port's virtual port, it
 * holds both ways. A frame from the peer longer than MTU + 14 (+ 4 when
 * tagged) is dropped before the port sees it; one the port transmits is
 * taken from the port and dropped before the copy (a TSO packet when one of
 * its segments, headers included, exceeds the MTU). The firmware counts
 * each direction (zorv_fw.h). A virtual port without an MTU has no limit.
 *
 * Transmitted mbufs: the virtio copy leaves accepted mbufs with the card,
 * which keeps them readable until the port's transmit burst has returned
 * (the burst reads them after its last enqueue) and frees them at the start
 * of the next burst on the same queue, or when the connection goes away or
 * the interface is unregistered.
 */
#ifndef ZORV_VHOST_CARD_H
#define ZORV_VHOST_CARD_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Environment variable naming the socket directory, and its default. */
#define ZORV_CARD_SOCK_DIR_ENV "ZORV1_VHOST_DIR"
#define ZORV_CARD_SOCK_DIR_DEFAULT "/var/run/zorv1"

/* Interfaces registered at once; interface slot i is bound to sfi i + 1. */
#define ZORV_CARD_MAX_IFACES 1024

/* Hardware function indices the card accepts. */
#define ZORV_CARD_SFI_MIN 1
#define ZORV_CARD_SFI_MAX 8191

/*
 * Transmitted mbufs the card holds per queue until the next burst; a burst
 * that offers more is accepted up to this many (the rest stays with the
 * caller, as for a full virtqueue).
 */
#define ZORV_CARD_TX_HOLD 512

/* Longest headers (L2 + L3 + L4) the card segments a TSO packet behind. */
#define ZORV_CARD_TSO_HDR_MAX 256

/* Segments the card makes of one TSO packet at most (64 KB at MSS 256). */
#define ZORV_CARD_TSO_SEGS_MAX 256

/* Results of zorv_card_tx_prepare. */
#define ZORV_CARD_TX_AS_IS 0   /* one frame: offloads done or handed to the peer */
#define ZORV_CARD_TX_SEGMENT 1 /* the card segments it: zorv_card_tx_segments */

/* Virtio feature bits offered to the peer (see above). */
#define ZORV_CARD_VIRTIO_FEATURES                                            \
	((1ULL << 0) /* VIRTIO_NET_F_CSUM */ |                               \
	 (1ULL << 1) /* VIRTIO_NET_F_GUEST_CSUM */ |                         \
	 (1ULL << 7) /* VIRTIO_NET_F_GUEST_TSO4 */ |                         \
	 (1ULL << 8) /* VIRTIO_NET_F_GUEST_TSO6 */ |                         \
	 (1ULL << 11) /* VIRTIO_NET_F_HOST_TSO4 */ |                         \
	 (1ULL << 12) /* VIRTIO_NET_F_HOST_TSO6 */ |                         \
	 (1ULL << 15) /* VIRTIO_NET_F_MRG_RXBUF */ |                         \
	 (1ULL << 17) /* VIRTIO_NET_F_CTRL_VQ */ |                           \
	 (1ULL << 18) /* VIRTIO_NET_F_CTRL_RX */ |                           \
	 (1ULL << 22) /* VIRTIO_NET_F_MQ */ |                                \
	 (1ULL << 27) /* VIRTIO_F_ANY_LAYOUT */ |                            \
	 (1ULL << 28) /* VIRTIO_RING_F_INDIRECT_DESC */ |                    \
	 (1ULL << 30) /* VHOST_USER_F_PROTOCOL_FEATURES */ |                 \
	 (1ULL << 32) /* VIRTIO_F_VERSION_1 */ |                             \
	 (1ULL << 34) /* VIRTIO_F_RING_PACKED */ |                           \
	 (1ULL << 35) /* VIRTIO_F_IN_ORDER */)

/*
 * Socket path an interface is (or would be) served at. 0 on success, -1
 * when the name is empty or the path does not fit len or a socket address.
 */
int zorv_card_socket_path(const char *iface, char *buf, size_t len);

/* sfi of a registered interface, or 0xFFFFFFFF when it is not registered. */
uint32_t zorv_card_iface_sfi(const char *iface);

/* vid of the interface's live connection, or -1. */
int zorv_card_iface_vid(const char *iface);

/* Virtio features negotiated by a live connection; 0 for none. */
uint64_t zorv_card_conn_features(int vid);

/* Transmitted mbufs the card still holds for a live connection. */
uint32_t zorv_card_conn_held_mbufs(int vid);

/* Number of registered interfaces. */
uint32_t zorv_card_iface_count(void);

/* What the card did with the offload requests of frames from its peers. */
struct zorv_card_rx_stats {
	uint64_t csum_completed; /* L4 checksums completed */
	uint64_t gso_frames;     /* large TCP frames segmented */
	uint64_t gso_segments;   /* frames made of them */
	uint64_t offload_bad;    /* requests the frame did not support: sent as is */
	uint64_t nombuf;         /* large frames dropped: no mbufs for the segments */
	uint64_t ring_full;      /* segments dropped: the queue's ring was full */
};

/* The card's receive offload counters since start (all peers). */
void zorv_card_get_rx_stats(struct zorv_card_rx_stats *st);

/*
 * Connections refused on the socket of a registered interface because a
 * peer was already connected (0 for an unknown interface; the count starts
 * again when the interface is registered again), and over every interface
 * since the process started.
 */
uint64_t zorv_card_iface_peers_refused(const char *iface);
uint64_t zorv_card_peers_refused_total(void);

/*
 * Peers the card cut off on the socket of a registered interface (0 for an
 * unknown interface; the count starts again when the interface is
 * registered again), and over every interface since the process started: a
 * connection ended by the card while its peer still held it open (a message
 * that did not arrive whole or could not be taken, replies not read).
 */
uint64_t zorv_card_iface_peers_cut(const char *iface);
uint64_t zorv_card_peers_cut_total(void);

/*
 * Stop serving a registered interface ahead of its unregister (the port's
 * close, through the flow engine's release of the port's resources, before
 * it takes the family mutex): peers are cut off and the socket goes; the
 * unregister then only frees the interface's slot. -1 for an interface
 * that is not registered or was released already.
 */
int zorv_card_iface_release(const char *iface);

struct rte_mbuf;
struct rte_mempool;

/*
 * Carry out the transmit offload requests of m for a peer that negotiated
 * the given virtio features, as the card's transmit burst does:
 *   ZORV_CARD_TX_AS_IS    m goes as one frame. The checksums the peer does
 *                         not take are filled in; what it takes stays
 *                         requested in m's flags, with the parsed header
 *                         lengths in l2_len/l3_len/l4_len and the
 *                         pseudo-header sum in the L4 checksum field.
 *   ZORV_CARD_TX_SEGMENT  m must be segmented by zorv_card_tx_segments; m
 *                         is unchanged.
 *   -EINVAL               the request does not fit the frame (see above):
 *                         m's bytes are unchanged, its offload flags cleared,
 *                         and it goes as it is.
 */
int zorv_card_tx_prepare(uint64_t features, struct rte_mbuf *m);

/*
 * Segment the TSO packet m (for which zorv_card_tx_prepare returned
 * ZORV_CARD_TX_SEGMENT) into new mbufs from pool, stored in segs[0..n);
 * returns n, and the caller frees them; m is not changed. Negative errno:
 * -EINVAL when m is not a packet the card segments, -E2BIG when it needs
 * more than max segments, -ENOMEM when the pool ran out, -ENOSPC when the
 * pool's mbufs cannot hold the headers; then no segment is left allocated.
 */
int zorv_card_tx_segments(struct rte_mempool *pool, const struct rte_mbuf *m,
			  struct rte_mbuf **segs, uint32_t max);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_VHOST_CARD_H */
