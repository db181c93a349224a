/* SPDX-License-Identifier: BSD-3-Clause
 * The five diagnostics operations of the port (zorv1_vdev_diag_ops) with
 * arbitrary port names and queue ids.
 *
 * One port is set up once: 4 queues allowed, configured with 3 receive and
 * 4 transmit queues, receive queues 0-2 and transmit queues 0-2 set up
 * (transmit queue 3 never is), connected as vid 3 and bound to sfi 12, with
 * distinct counters in every queue. A second port is created but never
 * configured, so the device manager does not know it. The port's queue
 * pointer arrays are replaced by exact-size copies so that a read past the
 * queue counts is reported by AddressSanitizer.
 *
 * Input: byte 0 the operation, byte 1 how the name is made (the port's
 * name, the unconfigured port's name, the remaining bytes, the port's name
 * with the remaining bytes appended, or the port's name cut short), bytes
 * 2-5 the qid (any int, little endian), byte 6 the element the list
 * records are filled at; the remaining bytes feed the name. Records are
 * zeroed and exactly as large as the element asked for.
 *
 * Every result is checked against the port: -1 and an untouched record for
 * any name but the port's own; for the port, the qid count, the ring of
 * receive queue qid / 2, and one appended element per list call, valid
 * exactly when qid names a queue that is set up (qid / 2 truncated toward
 * zero, the lowest bit the direction, as the diagnostics number queues).
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include <ethdev_driver.h>

#include "zorv1_diag.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_fuzz_env.h"

using zorv_fake::fakes;
using zorv_fuzz::Fail;

namespace {

constexpr const char *kPort = "net_zorv1_fzdiag";
constexpr const char *kIdlePort = "net_zorv1_fzidle";
constexpr uint16_t kRxQueues = 3;
constexpr uint16_t kTxQueues = 4;
constexpr uint16_t kSetUpTx = 3; /* transmit queue 3 is configured, never set up */
constexpr int kVid = 3;
constexpr uint32_t kSfi = 12;
constexpr uint32_t kCapacity = 8; /* elements the list records may be filled at */

struct Port {
	struct rte_eth_dev *dev = nullptr;
	struct zorv1_internal *internal = nullptr;
	/* Exact-size copies of the queue pointer arrays, and the ethdev's own. */
	std::vector<void *> rxq, txq;
	void **ethdev_rxq = nullptr, **ethdev_txq = nullptr;
} g_port;

uint64_t g_heap_baseline;

void RestoreQueueArrays()
{
	if (g_port.dev != nullptr) {
		g_port.dev->data->rx_queues = g_port.ethdev_rxq;
		g_port.dev->data->tx_queues = g_port.ethdev_txq;
	}
}

void SetUp()
{
	if (rte_vdev_init(kPort, "iface=zorv_fz_diag,queues=4") != 0 ||
	    rte_vdev_init(kIdlePort, "iface=zorv_fz_idle,queues=2") != 0)
		Fail("the ports could not be created");
	uint16_t port_id;
	if (rte_eth_dev_get_port_by_name(kPort, &port_id) != 0)
		Fail("no port %s", kPort);

	struct rte_eth_conf conf = {};
	if (rte_eth_dev_configure(port_id, kRxQueues, kTxQueues, &conf) != 0)
		Fail("configure failed");
	struct rte_mempool *pool = rte_pktmbuf_pool_create("zorv_fz_diag", 255, 0, 0,
							   RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
	if (pool == nullptr)
		Fail("no mbuf pool");
	for (uint16_t q = 0; q < kRxQueues; q++)
		if (rte_eth_rx_queue_setup(port_id, q, 128, rte_socket_id(), nullptr, pool) != 0)
			Fail("rx queue %u setup failed", q);
	for (uint16_t q = 0; q < kSetUpTx; q++)
		if (rte_eth_tx_queue_setup(port_id, q, 128, rte_socket_id(), nullptr) != 0)
			Fail("tx queue %u setup failed", q);

	g_port.dev = &rte_eth_devices[port_id];
	struct rte_eth_dev_data *data = g_port.dev->data;
	g_port.internal = static_cast<struct zorv1_internal *>(data->dev_private);
	g_port.internal->vid = kVid;
	g_port.internal->sfi = kSfi;

	/* Distinct counters everywhere, so that a wrong queue or field shows. */
	for (uint16_t q = 0; q < kRxQueues; q++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(data->rx_queues[q]);
		rxq->stats.pkts = 1000 + q;
		rxq->stats.bytes = 64000 + q;
		rxq->stats.missed_pkts = 10 + q;
		for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
			rxq->stats.xstats[i] = 100 * (q + 1) + i;
	}
	for (uint16_t q = 0; q < kSetUpTx; q++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(data->tx_queues[q]);
		txq->stats.pkts = 2000 + q;
		txq->stats.bytes = 128000 + q;
		txq->stats.missed_pkts = 20 + q;
		for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
			txq->stats.xstats[i] = 1000 * (q + 1) + i;
		txq->pci_qid = 7 + q;
	}

	g_port.rxq.assign(data->rx_queues, data->rx_queues + kRxQueues);
	g_port.txq.assign(data->tx_queues, data->tx_queues + kTxQueues);
	g_port.ethdev_rxq = data->rx_queues;
	g_port.ethdev_txq = data->tx_queues;
	data->rx_queues = g_port.rxq.data();
	data->tx_queues = g_port.txq.data();
	std::atexit(RestoreQueueArrays);
}

/* The queue a diagnostics qid names, as the diagnostics number them. */
void *QueueOf(int qid, bool *is_tx)
{
	int index = qid / ZORV1_QNUM;
	*is_tx = (qid & 1) != 0;
	if (index < 0)
		return nullptr;
	if (*is_tx)
		return index < kTxQueues ? g_port.txq[index] : nullptr;
	return index < kRxQueues ? g_port.rxq[index] : nullptr;
}

bool AllZero(const void *p, size_t n)
{
	const auto *b = static_cast<const uint8_t *>(p);
	for (size_t i = 0; i < n; i++)
		if (b[i] != 0)
			return false;
	return true;
}

/* A zeroed list record with room for exactly `elems` elements. */
template <typename Head, typename Elem> Head *NewList(uint32_t elems)
{
	return static_cast<Head *>(std::calloc(1, sizeof(Head) + elems * sizeof(Elem)));
}

/* Everything but the element at `at` of a list record is still zero. */
template <typename Elem>
bool OthersZero(const void *elems, uint32_t count, uint32_t at)
{
	const auto *e = static_cast<const Elem *>(elems);
	for (uint32_t i = 0; i < count; i++)
		if (i != at && !AllZero(&e[i], sizeof(Elem)))
			return false;
	return true;
}

void CheckStats(const struct zorv1_vdev_diag_stats &e, const struct zorv1_vdev_stats &s, int qid)
{
	const uint64_t bins[ZORV1_XSTATS_MAX] = {
		e.pkt_undersize, e.pkt_64, e.pkt_65_to_127, e.pkt_128_to_255, e.pkt_256_to_511,
		e.pkt_512_to_1023, e.pkt_1024_to_1522, e.pkt_1523_to_max, e.broadcast_pkt,
		e.multicast_pkt, e.unicast_pkt,
	};
	if (e.valid != 1 || e.pkts != s.pkts || e.bytes != s.bytes || e.missed_pkts != s.missed_pkts)
		Fail("queue stats of qid %d: valid %lu pkts %lu bytes %lu missed %lu", qid,
		     (unsigned long)e.valid, (unsigned long)e.pkts, (unsigned long)e.bytes,
		     (unsigned long)e.missed_pkts);
	for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
		if (bins[i] != s.xstats[i])
			Fail("queue stats of qid %d: counter %d is %lu, the queue has %lu", qid, i,
			     (unsigned long)bins[i], (unsigned long)s.xstats[i]);
}

void RunQnum(char *name, bool known)
{
	int ret = zorv1_vdev_diag_ops.get_qnum_by_name(name);
	int want = known ? ZORV1_QNUM * std::max(kRxQueues, kTxQueues) : -1;
	if (ret != want)
		Fail("qnum of \"%s\": %d, expected %d", name, ret, want);
}

void RunRingInfo(char *name, bool known, int qid)
{
	auto *info = static_cast<struct zorv1_vnet_diag_ring_info *>(
		std::calloc(1, sizeof(struct zorv1_vnet_diag_ring_info)));
	int ret = zorv1_vdev_diag_ops.get_ring_info(name, qid, info);

	/* Both qids of a pair report the ring of the pair's receive queue. */
	int index = qid / ZORV1_QNUM;
	auto *rxq = known && index >= 0 && index < kRxQueues
			    ? static_cast<struct zorv1_vdev_rxq *>(g_port.rxq[index])
			    : nullptr;
	struct rte_ring *ring = rxq != nullptr ? zorv1_get_ring_by_local_id(rxq->local_id) : nullptr;
	if (ring == nullptr) {
		if (ret != -1 || !AllZero(info, sizeof(*info)))
			Fail("ring info of \"%s\" qid %d: %d, record touched: %d", name, qid, ret,
			     !AllZero(info, sizeof(*info)));
	} else if (ret != 0 || info->vid != kVid || info->qid != qid ||
		   info->local_id != rxq->local_id || std::strcmp(info->name, ring->name) != 0 ||
		   info->size != ring->size || info->capacity != ring->capacity ||
		   info->used != rte_ring_count(ring) || info->avail != rte_ring_free_count(ring)) {
		Fail("ring info of qid %d: ret %d vid %d qid %d local_id %d (queue's %d) name %.64s",
		     qid, ret, info->vid, info->qid, info->local_id, rxq->local_id, info->name);
	}
	std::free(info);
}

void RunPortInfo(char *name, bool known, uint32_t at)
{
	using Elem = union zorv1_port_info_data;
	auto *info = NewList<struct zorv1_diag_port_info, Elem>(at + 1);
	info->num = static_cast<int32_t>(at);
	int ret = zorv1_vdev_diag_ops.get_port_info(name, info);

	if (!known) {
		if (ret != -1 || info->num != static_cast<int32_t>(at) ||
		    !OthersZero<Elem>(info->info, at + 1, UINT32_MAX))
			Fail("port info of unknown \"%s\": %d, num %d", name, ret, info->num);
	} else {
		const struct zorv1_vdev_dpu_port_data &e = info->info[at].dpu_vdev_port_info;
		if (ret != 0 || info->num != static_cast<int32_t>(at + 1) ||
		    e.portid != g_port.dev->data->port_id || e.vid != static_cast<uint32_t>(kVid) ||
		    e.sfi != kSfi || e.start_flag != 0 || std::strcmp(e.name, kPort) != 0 ||
		    !OthersZero<Elem>(info->info, at + 1, at))
			Fail("port info at %u: ret %d num %d portid %u vid %u sfi %u name %.64s", at,
			     ret, info->num, e.portid, e.vid, e.sfi, e.name);
	}
	std::free(info);
}

void RunQueueStats(char *name, bool known, int qid, uint32_t at)
{
	using Elem = union zorv1_diag_stats_data;
	auto *stats = NewList<struct zorv1_diag_stats, Elem>(at + 1);
	stats->num = static_cast<int32_t>(at);
	int ret = zorv1_vdev_diag_ops.get_queue_stats(name, qid, stats);

	if (!known) {
		if (ret != -1 || stats->num != static_cast<int32_t>(at) ||
		    !OthersZero<Elem>(stats->stats, at + 1, UINT32_MAX))
			Fail("queue stats of unknown \"%s\": %d, num %d", name, ret, stats->num);
		std::free(stats);
		return;
	}
	if (ret != 0 || stats->num != static_cast<int32_t>(at + 1) ||
	    !OthersZero<Elem>(stats->stats, at + 1, at))
		Fail("queue stats of qid %d at %u: ret %d num %d", qid, at, ret, stats->num);
	const struct zorv1_vdev_diag_stats &e = stats->stats[at].vdev_stats;
	bool is_tx;
	void *q = QueueOf(qid, &is_tx);
	if (q == nullptr) {
		struct zorv1_vdev_diag_stats zero = {};
		if (std::memcmp(&e, &zero, sizeof(e)) != 0)
			Fail("queue stats of qid %d (no queue): element not empty", qid);
	} else if (is_tx) {
		CheckStats(e, static_cast<struct zorv1_vdev_txq *>(q)->stats, qid);
	} else {
		CheckStats(e, static_cast<struct zorv1_vdev_rxq *>(q)->stats, qid);
	}
	std::free(stats);
}

void RunQueueInfo(char *name, bool known, int qid, uint32_t at)
{
	using Elem = union zorv1_diag_queue_info_data;
	auto *info = NewList<struct zorv1_diag_queue_info, Elem>(at + 1);
	info->num = static_cast<int32_t>(at);
	int ret = zorv1_vdev_diag_ops.get_queue_info(name, qid, info);

	if (!known) {
		if (ret != -1 || info->num != static_cast<int32_t>(at) ||
		    !OthersZero<Elem>(info->info, at + 1, UINT32_MAX))
			Fail("queue info of unknown \"%s\": %d, num %d", name, ret, info->num);
		std::free(info);
		return;
	}
	if (ret != 0 || info->num != static_cast<int32_t>(at + 1) ||
	    !OthersZero<Elem>(info->info, at + 1, at))
		Fail("queue info of qid %d at %u: ret %d num %d", qid, at, ret, info->num);
	const struct zorv1_diag_vdev_qinfo &e = info->info[at].vdev_qinfo;
	bool is_tx;
	void *q = QueueOf(qid, &is_tx);
	if (q == nullptr) {
		if (!AllZero(&info->info[at], sizeof(Elem)))
			Fail("queue info of qid %d (no queue): element not empty", qid);
	} else if (is_tx) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(q);
		if (e.valid != 1 || e.vid != kVid || e.port != txq->port ||
		    e.virtqueue_id != txq->virtqueue_id || e.pci_qid != txq->pci_qid ||
		    e.nb_rx_desc != 0 || e.local_id != 0 || e.allow_queuing != 0 ||
		    e.while_queuing != 0)
			Fail("queue info of tx qid %d: valid %d vid %d port %u vq %u pci_qid %u "
			     "nb_rx_desc %u local_id %d",
			     qid, e.valid, e.vid, e.port, e.virtqueue_id, e.pci_qid, e.nb_rx_desc,
			     e.local_id);
	} else {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(q);
		if (e.valid != 1 || e.vid != kVid || e.port != rxq->port ||
		    e.virtqueue_id != rxq->virtqueue_id || e.nb_rx_desc != rxq->nb_rx_desc ||
		    e.local_id != rxq->local_id || e.pci_qid != 0 || e.allow_queuing != 0 ||
		    e.while_queuing != 0)
			Fail("queue info of rx qid %d: valid %d vid %d port %u vq %u nb_rx_desc %u "
			     "local_id %d pci_qid %u",
			     qid, e.valid, e.vid, e.port, e.virtqueue_id, e.nb_rx_desc, e.local_id,
			     e.pci_qid);
	}
	std::free(info);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	zorv_fuzz::StartEal("diag");
	fakes().Reset();
	SetUp();
	zorv_fuzz::CheckFakes("set-up");
	g_heap_baseline = zorv_fuzz::HeapAllocated();
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	uint8_t head[7] = {};
	std::memcpy(head, data, std::min(size, sizeof(head)));
	const uint8_t *rest = size > sizeof(head) ? data + sizeof(head) : nullptr;
	size_t rest_len = size > sizeof(head) ? size - sizeof(head) : 0;

	int op = head[0] % 5;
	int32_t qid;
	uint32_t q32 = static_cast<uint32_t>(head[2]) | static_cast<uint32_t>(head[3]) << 8 |
		       static_cast<uint32_t>(head[4]) << 16 | static_cast<uint32_t>(head[5]) << 24;
	std::memcpy(&qid, &q32, sizeof(qid));
	uint32_t at = head[6] % kCapacity;

	std::string tail(reinterpret_cast<const char *>(rest), rest_len);
	tail.resize(std::strlen(tail.c_str()));
	std::string name;
	switch (head[1] % 5) {
	case 0: name = kPort; break;
	case 1: name = kIdlePort; break;
	case 2: name = tail; break;
	case 3: name = std::string(kPort) + tail; break;
	default: name = std::string(kPort).substr(0, tail.size() % std::strlen(kPort)); break;
	}
	bool known = name == kPort;

	/* An exact-size heap copy: a read past the terminating NUL is reported. */
	std::vector<char> buf(name.begin(), name.end());
	buf.push_back('\0');
	char *cname = buf.data();

	switch (op) {
	case 0: RunQnum(cname, known); break;
	case 1: RunRingInfo(cname, known, qid); break;
	case 2: RunPortInfo(cname, known, at); break;
	case 3: RunQueueStats(cname, known, qid, at); break;
	default: RunQueueInfo(cname, known, qid, at); break;
	}

	/* The operations only read: nothing allocated, nothing in the fakes' way. */
	auto &f = fakes();
	f.calls.clear();
	f.dev.by_name_calls.clear();
	f.rings.lookups.clear();
	zorv_fuzz::CheckFakes(cname);
	zorv_fuzz::CheckHeap(g_heap_baseline, cname);
	return 0;
}
