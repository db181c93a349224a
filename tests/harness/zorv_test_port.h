/* SPDX-License-Identifier: BSD-3-Clause
 * Ports and mbufs for tests.
 *
 * FakePort: a real ethdev port (rte_eth_dev_allocate) with a zero-filled
 * struct zorv1_internal as dev_private, zeroed rx/tx queue pointer arrays of
 * the given sizes, one zeroed MAC address, and an empty operations table
 * (every ethdev API call on it answers -ENOTSUP instead of crashing). By
 * default it is marked attached (rte_eth_dev_probing_finish), so that
 * rte_eth_dev_is_valid_port() accepts it. Destruction releases it with
 * rte_eth_dev_release_port(), which frees dev_private, the queue pointer
 * arrays and mac_addrs (all rte_malloc'ed); queue records a test hangs in
 * the arrays stay the test's. At most RTE_MAX_ETHPORTS (32) ports exist at
 * once in a process.
 *
 *   zorv_test::FakePort port({.nb_rx_queues = 2, .nb_tx_queues = 2});
 *   port.internal()->vid = 7;
 *   port.data()->rx_queues[0] = &my_rxq;
 *
 * Mbufs: SharedMbufPool() is one pool for the whole binary that is never
 * freed (safe for mbufs that outlive a test, e.g. ones the fake transport
 * holds); MbufPool is a scoped pool of its own. MakeFrame() builds an
 * Ethernet frame of an exact total length with a given destination.
 */
#ifndef ZORV_TEST_PORT_H
#define ZORV_TEST_PORT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <ethdev_driver.h>
#include <rte_ether.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>

#include "zorv1_vhost.h"

namespace zorv_test {

class FakePort {
public:
	struct Options {
		std::string name;          /* empty: a unique "zorv_test_port<N>" */
		uint16_t nb_rx_queues = 0; /* size of data->rx_queues, all NULL */
		uint16_t nb_tx_queues = 0; /* size of data->tx_queues, all NULL */
		bool attach = true;        /* rte_eth_dev_probing_finish() */
	};

	FakePort() : FakePort(Options{}) {}
	explicit FakePort(const Options &opt);
	explicit FakePort(const char *name) : FakePort(Options{.name = name}) {}
	~FakePort();
	FakePort(FakePort &&other) noexcept;
	FakePort &operator=(FakePort &&other) noexcept;
	FakePort(const FakePort &) = delete;
	FakePort &operator=(const FakePort &) = delete;

	/* False if allocation failed (a failure was already added). */
	explicit operator bool() const { return dev_ != nullptr; }

	struct rte_eth_dev *dev() const { return dev_; }
	struct rte_eth_dev_data *data() const { return dev_->data; }
	uint16_t port_id() const { return dev_->data->port_id; }
	const char *name() const { return dev_->data->name; }
	/* dev_private (NULL once something cleared it, e.g. close). */
	struct zorv1_internal *internal() const
	{
		return static_cast<struct zorv1_internal *>(dev_->data->dev_private);
	}

	/* Release now (what the destructor does); idempotent. */
	void Release();
	/* Give up ownership: the port stays allocated (e.g. released by the code under test). */
	struct rte_eth_dev *Detach();

private:
	struct rte_eth_dev *dev_ = nullptr;
};

/* An mbuf pool of `n` mbufs with the default data room, on any socket. */
class MbufPool {
public:
	explicit MbufPool(unsigned n = 1023, uint16_t data_room = RTE_MBUF_DEFAULT_BUF_SIZE);
	~MbufPool();
	MbufPool(const MbufPool &) = delete;
	MbufPool &operator=(const MbufPool &) = delete;
	struct rte_mempool *get() const { return pool_; }
	operator struct rte_mempool *() const { return pool_; }
	/* Mbufs currently allocated from the pool. */
	unsigned InUse() const;

private:
	struct rte_mempool *pool_ = nullptr;
};

/* One pool of 8191 mbufs for the whole binary, created on first use. */
struct rte_mempool *SharedMbufPool();

struct MbufFree {
	void operator()(struct rte_mbuf *m) const { rte_pktmbuf_free(m); }
};
using MbufPtr = std::unique_ptr<struct rte_mbuf, MbufFree>;

/* Addresses commonly used in frames. */
inline constexpr struct rte_ether_addr kBroadcastMac = {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
inline constexpr struct rte_ether_addr kMulticastMac = {{0x01, 0x00, 0x5e, 0x00, 0x00, 0x01}};
inline constexpr struct rte_ether_addr kUnicastMac = {{0x02, 0x00, 0x00, 0x00, 0x00, 0x02}};
inline constexpr struct rte_ether_addr kSourceMac = {{0x02, 0x00, 0x00, 0x00, 0x00, 0x01}};

/*
 * A single-segment frame of exactly `len` bytes (pkt_len == data_len ==
 * len): destination `dst`, source kSourceMac, then, when vlan_tci is given,
 * an 802.1Q tag (0x8100, tci) counted in len, then ethertype 0x0800 and a
 * payload of bytes 0, 1, 2, ... len must hold the header (14, or 18 with a
 * tag). Returns NULL (and adds a failure) when it cannot be built.
 */
struct rte_mbuf *MakeFrame(struct rte_mempool *pool, uint16_t len, const struct rte_ether_addr &dst,
			   std::optional<uint16_t> vlan_tci = std::nullopt);

/* Ask the transmit side to insert a VLAN tag (RTE_MBUF_F_TX_VLAN + vlan_tci). */
void RequestVlanInsert(struct rte_mbuf *m, uint16_t tci);

} // namespace zorv_test

#endif /* ZORV_TEST_PORT_H */
