/* SPDX-License-Identifier: BSD-3-Clause
 * Who may be on an interface's socket: one peer at a time (a second
 * connection while a peer is on is refused, counted and logged once), and
 * the peers the card cuts off (a connection the vhost library ends while
 * its peer still holds it open: counted, and logged once for a run of
 * them). Both come from the vhost library's new- and destroy-connection
 * callbacks, on its event thread.
 */
#include <inttypes.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include <rte_vhost.h>

#include "zorv1_logs.h"
#include "zorv_card_internal.h"

namespace zorv_card {

namespace {

/*
 * Record dev as the peer on the socket at path unless another peer is on
 * and not known to be gone. 0 recorded, 1 another peer is on, -1 the socket
 * is not an interface's.
 */
int claim_socket(const char *path, int dev, bool other_gone)
{
	card_lock lock;
	int slot = find_iface_locked(nullptr, path);
	if (slot < 0)
		return -1;
	card_iface &f = ifaces[slot];
	if (f.peer_dev >= 0 && f.peer_dev != dev && !other_gone)
		return 1;
	if (f.peer_dev != dev)
		f.refusal_logged = false;
	f.peer_dev = dev;
	return 0;
}

/*
 * A socket serves one peer at a time: a second connection while a peer is
 * on would take the port over and leave the first peer's link up with its
 * traffic stopped. It is refused (the vhost library closes it) and counted;
 * the first refusal while a peer is on is logged. True when refused.
 *
 * The vhost library accepts a new connection before it reads the end of
 * an old one that was closed at about the same time: a peer that leaves
 * and comes back at once would be refused by its own ghost. So before a
 * refusal the card looks whether the connected peer's socket is still
 * open; if not, the new connection takes its place.
 */
bool refuse_second_peer(int dev)
{
	char path[PATH_MAX] = "";
	if (rte_vhost_get_ifname(dev, path, sizeof(path)) != 0)
		return false;
	if (claim_socket(path, dev, false) != 1)
		return false; /* an unknown socket is refused by new_device */

	/* System calls: not under the card's mutex. */
	int open = for_each_accepted(path, peer_io::COUNT_OPEN);
	if (claim_socket(path, dev, open >= 0 && open <= 1) != 1)
		return false;

	char name[SOCK_PATH_MAX];
	int peer;
	{
		card_lock lock;
		int slot = find_iface_locked(nullptr, path);
		if (slot < 0)
			return true;
		card_iface &f = ifaces[slot];
		f.peers_refused++;
		peers_refused_total.fetch_add(1, std::memory_order_relaxed);
		if (f.refusal_logged)
			return true;
		f.refusal_logged = true;
		peer = f.peer_dev;
		memcpy(name, f.name, sizeof(name));
	}
	ZORV1_VDEV_LOG(WARNING,
		       "%s: a peer is connected (vhost device %d); further connections are refused "
		       "and counted until it leaves\n",
		       name, peer);
	return true;
}

/* The peer's socket connection is gone: the next one may connect. */
void peer_left(int dev)
{
	card_lock lock;
	for (card_iface &f : ifaces) {
		if (f.used && f.peer_dev == dev) {
			f.peer_dev = -1;
			f.refusal_logged = false;
		}
	}
}

/*
 * Keep a second descriptor of a new connection's socket (see card_dev).
 * The connections of the other devices are told apart by their inodes.
 */
void keep_peer_end(card_dev *d, const char *path)
{
	std::array<unsigned long, RTE_MAX_VHOST_DEVICE> taken;
	unsigned int nb = 0;
	int old;
	{
		card_lock lock;
		old = take_peer_end_locked(d); /* a connection ended with no callback */
		for (const card_dev &o : devs) {
			if (o.peer_fd >= 0)
				taken[nb++] = o.peer_ino;
		}
	}
	if (old >= 0)
		close(old);
	unsigned long ino = 0;
	int fd = dup_new_peer(path, taken.data(), nb, &ino);
	if (fd < 0)
		return;
	card_lock lock;
	int slot = find_iface_locked(nullptr, path);
	if (slot < 0 || ifaces[slot].closing) {
		close(fd);
		return;
	}
	d->peer_fd = fd;
	d->peer_ino = ino;
	d->peer_slot = slot;
}

/*
 * The library ended a connection: if its peer still held it open, the card
 * cut the peer off. Counted every time; logged once for a run of cut
 * connections on an interface, until a peer gets as far as a device.
 */
void note_end_of_peer(card_dev *d)
{
	int fd, slot;
	{
		card_lock lock;
		slot = d->peer_slot;
		fd = take_peer_end_locked(d);
	}
	if (fd < 0)
		return;
	bool held = peer_holds(fd);
	close(fd);
	if (!held)
		return;

	char name[SOCK_PATH_MAX];
	uint64_t cut;
	{
		card_lock lock;
		if (!ifaces[slot].used || ifaces[slot].closing)
			return; /* the port's close ended it */
		card_iface &f = ifaces[slot];
		f.peers_cut++;
		peers_cut_total.fetch_add(1, std::memory_order_relaxed);
		if (f.cut_logged)
			return;
		f.cut_logged = true;
		cut = f.peers_cut;
		memcpy(name, f.name, sizeof(name));
	}
	ZORV1_VDEV_LOG(WARNING,
		       "%s: peer cut off (%" PRIu64 " so far): a vhost-user message it sent was "
		       "incomplete, stalled or not acceptable, or it did not read the replies; "
		       "further cut-offs are counted only until a peer connects\n",
		       name, cut);
}

} // namespace

/* Take a device's second descriptor of its peer's socket; card_mutex held. */
int take_peer_end_locked(card_dev *d)
{
	int fd = d->peer_fd;
	d->peer_fd = -1;
	d->peer_ino = 0;
	d->peer_slot = -1;
	return fd;
}

int card_new_connection(int dev)
{
	if (refuse_second_peer(dev))
		return -1;
	card_dev *d = dev_of(dev);
	if (d != nullptr) {
		for (auto &w : d->vring_on)
			w.store(0, std::memory_order_relaxed);
		d->conn = -1;
	}
	char path[PATH_MAX] = "";
	if (rte_vhost_get_ifname(dev, path, sizeof(path)) != 0)
		return 0;
	if (for_each_accepted(path, peer_io::BOUND) <= 0)
		ZORV1_VDEV_LOG(WARNING, "vhost device %d: its socket on %s was not found\n", dev, path);
	else if (d != nullptr)
		keep_peer_end(d, path);
	return 0;
}

void card_destroy_connection(int dev)
{
	card_dev *d = dev_of(dev);
	if (d != nullptr) {
		for (auto &w : d->vring_on)
			w.store(0, std::memory_order_relaxed);
		note_end_of_peer(d);
	}
	peer_left(dev);
}

} // namespace zorv_card
