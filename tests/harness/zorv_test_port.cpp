/* SPDX-License-Identifier: BSD-3-Clause
 * Ports and mbufs for tests.
 */
#include "zorv_test_port.h"

#include <atomic>
#include <cstring>

#include <gtest/gtest.h>

#include <rte_byteorder.h>
#include <rte_errno.h>
#include <rte_lcore.h>
#include <rte_malloc.h>

namespace zorv_test {

namespace {

std::atomic<unsigned> g_port_seq;
std::atomic<unsigned> g_pool_seq;

/* Every slot NULL: the ethdev API answers -ENOTSUP for a fake port. */
const struct eth_dev_ops kNoOps = {};

} // namespace

FakePort::FakePort(const Options &opt)
{
	std::string name = opt.name;
	if (name.empty())
		name = "zorv_test_port" + std::to_string(g_port_seq++);

	struct rte_eth_dev *dev = rte_eth_dev_allocate(name.c_str());
	if (dev == nullptr) {
		ADD_FAILURE() << "rte_eth_dev_allocate(" << name << ") failed";
		return;
	}
	struct rte_eth_dev_data *data = dev->data;
	data->dev_private = rte_zmalloc_socket(name.c_str(), sizeof(struct zorv1_internal),
					       RTE_CACHE_LINE_SIZE, SOCKET_ID_ANY);
	data->mac_addrs = static_cast<struct rte_ether_addr *>(
		rte_zmalloc(nullptr, sizeof(struct rte_ether_addr), 0));
	if (opt.nb_rx_queues > 0)
		data->rx_queues = static_cast<void **>(
			rte_zmalloc(nullptr, sizeof(void *) * opt.nb_rx_queues, RTE_CACHE_LINE_SIZE));
	if (opt.nb_tx_queues > 0)
		data->tx_queues = static_cast<void **>(
			rte_zmalloc(nullptr, sizeof(void *) * opt.nb_tx_queues, RTE_CACHE_LINE_SIZE));
	data->nb_rx_queues = opt.nb_rx_queues;
	data->nb_tx_queues = opt.nb_tx_queues;
	dev->dev_ops = &kNoOps;
	dev_ = dev;
	if (data->dev_private == nullptr || data->mac_addrs == nullptr ||
	    (opt.nb_rx_queues > 0 && data->rx_queues == nullptr) ||
	    (opt.nb_tx_queues > 0 && data->tx_queues == nullptr)) {
		ADD_FAILURE() << "out of DPDK memory for fake port " << name;
		Release();
		return;
	}
	if (opt.attach)
		rte_eth_dev_probing_finish(dev);
}

FakePort::~FakePort()
{
	Release();
}

FakePort::FakePort(FakePort &&other) noexcept : dev_(other.dev_)
{
	other.dev_ = nullptr;
}

FakePort &FakePort::operator=(FakePort &&other) noexcept
{
	if (this != &other) {
		Release();
		dev_ = other.dev_;
		other.dev_ = nullptr;
	}
	return *this;
}

void FakePort::Release()
{
	if (dev_ == nullptr)
		return;
	rte_eth_dev_release_port(dev_);
	dev_ = nullptr;
}

struct rte_eth_dev *FakePort::Detach()
{
	struct rte_eth_dev *dev = dev_;
	dev_ = nullptr;
	return dev;
}

MbufPool::MbufPool(unsigned n, uint16_t data_room)
{
	std::string name = "zorv_tpool" + std::to_string(g_pool_seq++);
	pool_ = rte_pktmbuf_pool_create(name.c_str(), n, 0, 0, data_room, SOCKET_ID_ANY);
	if (pool_ == nullptr)
		ADD_FAILURE() << "rte_pktmbuf_pool_create(" << name << ") failed: "
			      << rte_strerror(rte_errno);
}

MbufPool::~MbufPool()
{
	rte_mempool_free(pool_);
}

unsigned MbufPool::InUse() const
{
	return pool_ == nullptr ? 0 : rte_mempool_in_use_count(pool_);
}

struct rte_mempool *SharedMbufPool()
{
	/* Never freed: mbufs held by fakes across tests may point into it. */
	static struct rte_mempool *pool = [] {
		struct rte_mempool *p = rte_pktmbuf_pool_create("zorv_tpool_shared", 8191, 0, 0,
								RTE_MBUF_DEFAULT_BUF_SIZE,
								SOCKET_ID_ANY);
		if (p == nullptr)
			ADD_FAILURE() << "shared mbuf pool: " << rte_strerror(rte_errno);
		return p;
	}();
	return pool;
}

struct rte_mbuf *MakeFrame(struct rte_mempool *pool, uint16_t len, const struct rte_ether_addr &dst,
			   std::optional<uint16_t> vlan_tci)
{
	const uint16_t head = sizeof(struct rte_ether_hdr) + (vlan_tci ? sizeof(struct rte_vlan_hdr) : 0);
	if (pool == nullptr || len < head) {
		ADD_FAILURE() << "MakeFrame: no pool or length " << len << " below header " << head;
		return nullptr;
	}
	struct rte_mbuf *m = rte_pktmbuf_alloc(pool);
	if (m == nullptr) {
		ADD_FAILURE() << "MakeFrame: pool empty";
		return nullptr;
	}
	char *p = rte_pktmbuf_append(m, len);
	if (p == nullptr) {
		ADD_FAILURE() << "MakeFrame: " << len << " bytes do not fit one segment";
		rte_pktmbuf_free(m);
		return nullptr;
	}
	auto *eth = reinterpret_cast<struct rte_ether_hdr *>(p);
	rte_ether_addr_copy(&dst, &eth->dst_addr);
	rte_ether_addr_copy(&kSourceMac, &eth->src_addr);
	if (vlan_tci) {
		eth->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_VLAN);
		auto *vh = reinterpret_cast<struct rte_vlan_hdr *>(eth + 1);
		vh->vlan_tci = rte_cpu_to_be_16(*vlan_tci);
		vh->eth_proto = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4);
	} else {
		eth->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4);
	}
	for (uint16_t i = head; i < len; i++)
		p[i] = static_cast<char>(i - head);
	return m;
}

void RequestVlanInsert(struct rte_mbuf *m, uint16_t tci)
{
	m->ol_flags |= RTE_MBUF_F_TX_VLAN;
	m->vlan_tci = tci;
}

} // namespace zorv_test
