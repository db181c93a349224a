/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's control side on DPDK's vhost library: the interface
 * table (one slot per registered interface, slot + 1 = the sfi its
 * connections are bound to) under the card's own mutex, serving and
 * releasing the sockets, the vhost device callbacks that turn connection
 * events into the port's connection entry points, and the connection table
 * (zorv_card_internal.h) that the card's bursts (zorv_card_burst.cpp) read
 * without a lock: a connection is published there (atomic flag, release)
 * before its port can open its gates, and torn down only after the port
 * has closed and drained them. Elsewhere: who may be on a socket
 * (zorv_card_peers.cpp), when a connection's queues are ready
 * (zorv_card_ready.cpp), the socket system calls (zorv_card_socket.cpp),
 * the software transmit offloads (zorv_card_offload.cpp).
 *
 * Lock order: the device manager's mutex may be held when the card's mutex
 * is taken (close unregisters under it), never the other way round; the
 * card never holds its own mutex while it calls the port or the vhost
 * library.
 */
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include <ethdev_driver.h>
#include <rte_alarm.h>
#include <rte_cycles.h>
#include <rte_errno.h>
#include <rte_malloc.h>
#include <rte_mempool.h>
#include <rte_vhost.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_card_internal.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_vhost_card.h"

namespace zorv_card {

std::array<card_conn, RTE_MAX_VHOST_DEVICE> conns;
std::array<card_dev, RTE_MAX_VHOST_DEVICE> devs;
std::atomic<struct rte_mempool *> seg_pool{nullptr};

pthread_mutex_t card_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<card_iface, ZORV_CARD_MAX_IFACES> ifaces;
std::atomic<uint64_t> peers_refused_total{0};
std::atomic<uint64_t> peers_cut_total{0};

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

} // namespace zorv_card

using namespace zorv_card;

namespace {

/* ---- Records and constants ---- */

static_assert((ZORV_CARD_VIRTIO_FEATURES & (1ULL << 14)) == 0,
	      "the card does not segment UDP: the peer must not send UFO frames");

static_assert(ZORV_CARD_MAX_IFACES <= ZORV_CARD_SFI_MAX, "every slot needs an sfi");

/* Pool of the segments: built, copied to the guest and freed in one call. */
constexpr unsigned int SEG_POOL_SIZE = 2047;
constexpr unsigned int SEG_POOL_CACHE = 32;
constexpr const char *SEG_POOL_NAME = "zorv_card_seg";

/*
 * Set while this thread is inside zorv1_dpu_vdev_protocol_unregister. The
 * port's close unregisters with the device manager's mutex held, after it
 * has stopped the port (gates closed and drained); the vhost library then
 * destroys a live connection in this very thread, where the port's
 * connection entry points, which take that mutex, must not be called.
 */
thread_local int t_unregistering;

/* ---- Helpers ---- */

/* The connection of a vhost device, or NULL. */
card_conn *conn_of_dev(int dev)
{
	card_dev *d = dev_of(dev);
	if (d == nullptr || d->conn < 0)
		return nullptr;
	card_conn *c = &conns[d->conn];
	return c->live.load(std::memory_order_acquire) ? c : nullptr;
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
	c->gen.fetch_add(1);
	c->features.store(0, std::memory_order_relaxed);
	c->rx_offloads = false;
	if (c->dev >= 0 && devs[c->dev].conn == vid)
		devs[c->dev].conn = -1;

	{
		/* Under the card's mutex: a readiness check reads them under it. */
		card_lock lock;
		if (c->slot >= 0 && ifaces[c->slot].used && ifaces[c->slot].vid == vid)
			ifaces[c->slot].vid = -1;
		c->dev = -1;
		c->slot = -1;
	}
	c->sfi = INVALID_SFI;
	c->used.store(false, std::memory_order_release);
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
		ifaces[slot].cut_logged = false;
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
		c->dev = dev;
		c->slot = slot;
	}
	c->sfi = static_cast<uint32_t>(slot) + ZORV_CARD_SFI_MIN;
	c->features.store(features, std::memory_order_relaxed);
	c->rx_offloads = peer_offloads(features);
	c->nb_txq = nb_txq;
	c->txq = txq;
	c->ready_reported = false;
	c->gen.fetch_add(1);
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

	if (conn_queues_ready(vid, dev) && !c->ready_reported.exchange(true)) {
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
		drop_waiting_frames(vid, c);
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
		d->vring_on[queue / 64].fetch_or(bit, std::memory_order_relaxed);
	else
		d->vring_on[queue / 64].fetch_and(~bit, std::memory_order_relaxed);

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
	c->last_enable = enable != 0;
	schedule_ready_check(d->conn, c);
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
	if (c != nullptr) {
		c->features.store(features, std::memory_order_relaxed);
		c->rx_offloads = peer_offloads(features);
	}
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

/* ---- Interface registration ---- */

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

/*
 * Stop serving the interface of slot (whose socket is at path): the peers
 * are cut off, the vhost library lets the socket go, and what the card held
 * for the interface's connections is dropped. The slot stays taken.
 */
static void release_iface(int slot, const char *iface, const char *path)
{
	{
		card_lock lock;
		ifaces[slot].closing = true;
	}
	/* A readiness check that got in before the flag ends first. */
	wait_ready_checks(slot);

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
	for (card_dev &d : devs) {
		if (d.peer_fd >= 0 && d.peer_slot == slot)
			close(take_peer_end_locked(&d));
	}
	ifaces[slot].released = true;
}

/*
 * The port's close unregisters its interface with the family mutex held,
 * and the vhost library's unregister waits for its event thread to leave
 * the socket's callbacks, callbacks that take that mutex to reach the
 * port. So the close lets the card go of the interface earlier, when it
 * frees the port's flow resources, without the mutex (see zorv_flow.cpp);
 * the unregister then only frees the interface's slot.
 */
int zorv_card_iface_release(const char *iface)
{
	char path[SOCK_PATH_MAX];
	char name[SOCK_PATH_MAX];
	int slot;

	if (iface == nullptr)
		return -1;
	{
		card_lock lock;
		slot = find_iface_locked(iface, nullptr);
		if (slot < 0 || ifaces[slot].released)
			return -1;
		memcpy(path, ifaces[slot].path, sizeof(path));
		memcpy(name, ifaces[slot].name, sizeof(name));
	}
	release_iface(slot, name, path);
	return 0;
}

int zorv1_dpu_vdev_protocol_unregister(char *iface)
{
	char path[SOCK_PATH_MAX];
	int slot;
	bool released;

	if (iface == nullptr)
		return -1;
	{
		card_lock lock;
		slot = find_iface_locked(iface, nullptr);
		if (slot < 0) {
			ZORV1_VDEV_LOG(ERR, "interface %s is not registered\n", iface);
			return -1;
		}
		released = ifaces[slot].released;
		memcpy(path, ifaces[slot].path, sizeof(path));
	}
	if (!released)
		release_iface(slot, iface, path);

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

uint64_t zorv_card_iface_peers_refused(const char *iface)
{
	card_lock lock;
	int slot = find_iface_locked(iface, nullptr);
	return slot >= 0 ? ifaces[slot].peers_refused : 0;
}

uint64_t zorv_card_peers_refused_total(void)
{
	return peers_refused_total.load(std::memory_order_relaxed);
}

uint64_t zorv_card_iface_peers_cut(const char *iface)
{
	card_lock lock;
	int slot = find_iface_locked(iface, nullptr);
	return slot >= 0 ? ifaces[slot].peers_cut : 0;
}

uint64_t zorv_card_peers_cut_total(void)
{
	return peers_cut_total.load(std::memory_order_relaxed);
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
