/* SPDX-License-Identifier: BSD-3-Clause
 * Device manager of the zorv1 family.
 *
 * The table holds one slot per port id (a port is installed at slot = its
 * ethdev port id), guarded for install, uninstall and walks by one
 * family-wide, non-recursive mutex. Slots are atomic pointers so that the
 * few readers that do not hold the mutex (the enable-all scan of the
 * transmit gates, zorv1_dev_get_ethdev) read a whole pointer, never a torn
 * one. Beside the table live the emulated card's sfi -> port map and the
 * hash of transmit queues onto the card's PCI queues.
 */
#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <array>
#include <atomic>

#include <ethdev_driver.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_mutex_guard.h"

namespace {

std::array<std::atomic<struct rte_eth_dev *>, ZORV1_DEV_MAX> dev_table{};

/*
 * Plain (non-recursive) mutex: a thread that locks it twice deadlocks. The
 * driver never nests it, and the lookups below that take it must not be
 * called while it is held.
 */
pthread_mutex_t dev_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Finaliser of a 32-bit multiplicative hash: every input bit reaches every output bit. */
constexpr uint32_t mix32(uint32_t h)
{
	h ^= h >> 16;
	h *= 0x85ebca6bu;
	h ^= h >> 13;
	h *= 0xc2b2ae35u;
	h ^= h >> 16;
	return h;
}

/*
 * A connection's queues start at a hashed PCI queue and take consecutive
 * ones from there, so that the queues of one connection never share a PCI
 * queue while there are enough of them, and connections spread evenly.
 */
constexpr uint32_t pci_idx(int vid, int queue)
{
	return (mix32(static_cast<uint32_t>(vid)) + static_cast<uint32_t>(queue)) %
	       ZORV_CARD_PCI_QUEUES;
}

static_assert(pci_idx(7, 0) < ZORV_CARD_PCI_QUEUES);
static_assert(pci_idx(7, 1) == (pci_idx(7, 0) + 1) % ZORV_CARD_PCI_QUEUES);

/*
 * The card's sfi -> port map: open addressing over atomic 64-bit words, so
 * that the data path reads it without a lock while the control path
 * changes it under map_mutex. A word is empty (0), a tombstone (1) or an
 * entry: bit 63 set, sfi in bits 16..47, port id in bits 0..15.
 */
constexpr uint64_t SFI_EMPTY = 0;
constexpr uint64_t SFI_TOMBSTONE = 1;
constexpr uint64_t SFI_VALID = 1ull << 63;
static_assert((ZORV_SFI_MAP_SIZE & (ZORV_SFI_MAP_SIZE - 1)) == 0,
	      "the sfi map size must be a power of two");

std::array<std::atomic<uint64_t>, ZORV_SFI_MAP_SIZE> sfi_map{};
pthread_mutex_t sfi_map_mutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t sfi_map_count; /* live entries; written under sfi_map_mutex */

constexpr uint64_t sfi_entry(uint32_t sfi, uint16_t port_id)
{
	return SFI_VALID | (static_cast<uint64_t>(sfi) << 16) | port_id;
}

constexpr bool sfi_entry_is(uint64_t e, uint32_t sfi)
{
	return (e & SFI_VALID) != 0 && static_cast<uint32_t>(e >> 16) == sfi;
}

constexpr uint32_t sfi_bucket(uint32_t sfi, uint32_t step)
{
	return (mix32(sfi) + step) & (ZORV_SFI_MAP_SIZE - 1);
}

/* Bucket holding sfi, or -1; caller holds sfi_map_mutex. */
int sfi_map_find_locked(uint32_t sfi)
{
	for (uint32_t step = 0; step < ZORV_SFI_MAP_SIZE; step++) {
		uint32_t b = sfi_bucket(sfi, step);
		uint64_t e = sfi_map[b].load(std::memory_order_relaxed);

		if (e == SFI_EMPTY)
			return -1;
		if (sfi_entry_is(e, sfi))
			return static_cast<int>(b);
	}
	return -1;
}

} // namespace

extern "C" {

void zorv1_dev_mutex_lock(void)
{
	pthread_mutex_lock(&dev_mutex);
}

void zorv1_dev_mutex_unlock(void)
{
	pthread_mutex_unlock(&dev_mutex);
}

/* Called with the mutex held. */
int zorv1_dev_install(uint16_t port_id, struct rte_eth_dev *dev)
{
	if (dev == NULL || port_id >= ZORV1_DEV_MAX) {
		ZORV1_VDEV_LOG(ERR, "cannot install port %u (dev %p)\n", port_id,
			       static_cast<void *>(dev));
		return -EINVAL;
	}
	if (dev_table[port_id].load(std::memory_order_relaxed) != NULL) {
		ZORV1_VDEV_LOG(ERR, "port %u is already installed\n", port_id);
		return -EEXIST;
	}
	dev_table[port_id].store(dev, std::memory_order_release);
	return 0;
}

/* Called with the mutex held. */
int zorv1_dev_uninstall(uint16_t port_id)
{
	if (port_id >= ZORV1_DEV_MAX)
		return -EINVAL;
	if (dev_table[port_id].exchange(NULL, std::memory_order_acq_rel) == NULL)
		return -ENOENT;
	return 0;
}

struct rte_eth_dev *zorv1_dev_get_ethdev(uint16_t port_id)
{
	if (port_id >= ZORV1_DEV_MAX)
		return NULL;
	return dev_table[port_id].load(std::memory_order_acquire);
}

struct rte_eth_dev *zorv1_dev_get_ethdev_internal(int slot)
{
	if (slot < 0 || slot >= ZORV1_DEV_MAX)
		return NULL;
	return dev_table[slot].load(std::memory_order_acquire);
}

/* Takes the mutex: never call it with the mutex held. */
struct rte_eth_dev *zorv1_dev_get_ethdev_by_sfi(uint32_t sfi)
{
	if (sfi == INVALID_SFI)
		return NULL;

	zorv_mutex_guard guard(dev_mutex);
	for (auto &slot : dev_table) {
		struct rte_eth_dev *dev = slot.load(std::memory_order_acquire);

		if (dev == NULL || dev->data == NULL || dev->data->dev_private == NULL)
			continue;
		auto *internal = static_cast<struct zorv1_internal *>(dev->data->dev_private);
		if (__atomic_load_n(&internal->sfi, __ATOMIC_RELAXED) == sfi)
			return dev;
	}
	return NULL;
}

/* Takes the mutex: never call it with the mutex held. */
struct rte_eth_dev *zorv1_vdev_get_ethdev_by_name(const char *name)
{
	if (name == NULL)
		return NULL;

	zorv_mutex_guard guard(dev_mutex);
	for (auto &slot : dev_table) {
		struct rte_eth_dev *dev = slot.load(std::memory_order_acquire);

		if (dev == NULL || dev->data == NULL)
			continue;
		if (strcmp(dev->data->name, name) == 0)
			return dev;
	}
	return NULL;
}

/*
 * Remove the function's entry. A lone tombstone in front of an empty bucket
 * is not needed by any probe, so trailing tombstones are turned back into
 * empty buckets and the map does not silt up over many connections.
 */
void zorv1_dev_sfi_unmap_port(uint32_t sfi)
{
	if (sfi == INVALID_SFI)
		return;

	zorv_mutex_guard guard(sfi_map_mutex);
	int b = sfi_map_find_locked(sfi);
	if (b >= 0) {
		uint32_t at = static_cast<uint32_t>(b);
		uint32_t next = (at + 1) & (ZORV_SFI_MAP_SIZE - 1);

		if (sfi_map[next].load(std::memory_order_relaxed) == SFI_EMPTY) {
			sfi_map[at].store(SFI_EMPTY, std::memory_order_release);
			for (uint32_t prev = (at - 1) & (ZORV_SFI_MAP_SIZE - 1);
			     sfi_map[prev].load(std::memory_order_relaxed) == SFI_TOMBSTONE;
			     prev = (prev - 1) & (ZORV_SFI_MAP_SIZE - 1))
				sfi_map[prev].store(SFI_EMPTY, std::memory_order_release);
		} else {
			sfi_map[at].store(SFI_TOMBSTONE, std::memory_order_release);
		}
		sfi_map_count--;
	}
}

int zorv_dev_sfi_map_port(uint32_t sfi, uint16_t port_id)
{
	if (sfi == INVALID_SFI)
		return -EINVAL;

	zorv_mutex_guard guard(sfi_map_mutex);
	int b = sfi_map_find_locked(sfi);
	if (b >= 0) {
		sfi_map[b].store(sfi_entry(sfi, port_id), std::memory_order_release);
		return 0;
	}
	for (uint32_t step = 0; step < ZORV_SFI_MAP_SIZE; step++) {
		uint32_t at = sfi_bucket(sfi, step);
		uint64_t e = sfi_map[at].load(std::memory_order_relaxed);

		if (e == SFI_EMPTY || e == SFI_TOMBSTONE) {
			sfi_map[at].store(sfi_entry(sfi, port_id), std::memory_order_release);
			sfi_map_count++;
			return 0;
		}
	}
	ZORV1_VDEV_LOG(ERR, "sfi map full, sfi %u port %u\n", sfi, port_id);
	return -ENOSPC;
}

int zorv_dev_sfi_lookup_port(uint32_t sfi)
{
	if (sfi == INVALID_SFI)
		return -1;
	for (uint32_t step = 0; step < ZORV_SFI_MAP_SIZE; step++) {
		uint64_t e = sfi_map[sfi_bucket(sfi, step)].load(std::memory_order_acquire);

		if (e == SFI_EMPTY)
			return -1;
		if (sfi_entry_is(e, sfi))
			return static_cast<int>(e & 0xffff);
	}
	return -1;
}

uint32_t zorv_dev_sfi_mapped_count(void)
{
	zorv_mutex_guard guard(sfi_map_mutex);
	return sfi_map_count;
}

/* Called with the mutex held (the PCI hash refresh of every port). */
uint32_t zorv1_pci_get_idx_by_hash(int vid, int queue)
{
	return pci_idx(vid, queue);
}

/*
 * The variant for callers that do not hold the device manager's mutex (a new
 * connection): it takes the mutex around the same computation, so that a
 * refresh of every port's PCI queues, which runs under the mutex, is never
 * interleaved with a single connection's assignment.
 */
uint32_t zorv1_pci_get_idx_by_hash_locked(int vid, int queue)
{
	zorv_mutex_guard guard(dev_mutex);
	return pci_idx(vid, queue);
}

} // extern "C"
