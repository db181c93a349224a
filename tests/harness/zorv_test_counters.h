/* SPDX-License-Identifier: BSD-3-Clause
 * Snapshots for tests that check what an operation changed: the
 * control-plane counters (g_dpdk_cp_stat, defined by the driver, so only for
 * binaries that link it) and the allocations on DPDK's heaps.
 */
#ifndef ZORV_TEST_COUNTERS_H
#define ZORV_TEST_COUNTERS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include <rte_lcore.h>
#include <rte_malloc.h>

#include "zorv1_vhost.h"

namespace zorv_test {

/* The control-plane counters by name, to compare two snapshots. */
struct CpField {
	const char *name;
	size_t offset;
};
#define ZORV_CP(f) CpField{#f, offsetof(struct dpdk_cp_stat, f)}
inline const CpField kCpFields[] = {
	ZORV_CP(set_owner_fail), ZORV_CP(set_owner_suc), ZORV_CP(cache_start_flag_err),
	ZORV_CP(enqueue_dev_null), ZORV_CP(enqueue_queue_fail), ZORV_CP(enqueue_vhost_len_fail),
	ZORV_CP(enqueue_fail), ZORV_CP(dequeue_dev_null), ZORV_CP(dequeue_queue_fail),
	ZORV_CP(dequeue_rarp_null), ZORV_CP(dequeue_pmd), ZORV_CP(pre_msg_path_fail),
	ZORV_CP(post_msg_path_fail), ZORV_CP(new_conn_err), ZORV_CP(new_conn),
	ZORV_CP(del_conn_err), ZORV_CP(del_conn), ZORV_CP(vring_state_fail),
	ZORV_CP(vring_state_chg), ZORV_CP(del_device_null), ZORV_CP(del_device_suc),
	ZORV_CP(add_device_null), ZORV_CP(add_device_vq_no_ready), ZORV_CP(add_device_install_err),
	ZORV_CP(queue_setup_ignore), ZORV_CP(queue_destroy_ignore), ZORV_CP(add_device_success),
	ZORV_CP(vhost_setup_fail), ZORV_CP(eth_dev_configure), ZORV_CP(vhost_list_null),
	ZORV_CP(vhost_vring_state_null), ZORV_CP(vhost_regist_fail), ZORV_CP(vhost_vsocket_null),
	ZORV_CP(vhost_callback_null), ZORV_CP(vhost_driver_start_err), ZORV_CP(vhost_driver_setup),
	ZORV_CP(close_dev_null), ZORV_CP(eth_dev_close), ZORV_CP(eth_dev_stop),
	ZORV_CP(flow_start_fail), ZORV_CP(flow_close_fail), ZORV_CP(start_dev_intr),
	ZORV_CP(eth_dev_start), ZORV_CP(send_msg_fail), ZORV_CP(get_ethdev_fail),
};
#undef ZORV_CP
static_assert(sizeof(kCpFields) / sizeof(kCpFields[0]) == 45);

inline uint32_t CpValue(const struct dpdk_cp_stat &s, size_t offset)
{
	uint32_t v;
	std::memcpy(&v, reinterpret_cast<const char *>(&s) + offset, sizeof(v));
	return v;
}

/* Since `before`, the named counters moved by exactly these amounts, all others not at all. */
inline ::testing::AssertionResult CountersMoved(const struct dpdk_cp_stat &before,
					 const std::map<std::string, uint32_t> &expected)
{
	std::string diffs;
	for (const auto &field : kCpFields) {
		const uint32_t delta = CpValue(g_dpdk_cp_stat, field.offset) - CpValue(before, field.offset);
		auto it = expected.find(field.name);
		const uint32_t want = it == expected.end() ? 0 : it->second;
		if (delta != want)
			diffs += std::string(" ") + field.name + ": moved by " + std::to_string(delta) +
				 ", expected " + std::to_string(want) + ";";
	}
	if (diffs.empty())
		return ::testing::AssertionSuccess();
	return ::testing::AssertionFailure() << "control-plane counters:" << diffs;
}

/* The control-plane counters that moved since construction, by index in
 * the record (see Idx), and by how much. */
using CpChanges = std::map<size_t, uint32_t>;

class CounterDelta {
public:
	CounterDelta() : before_(g_dpdk_cp_stat) {}
	CpChanges Get() const
	{
		CpChanges out;
		for (size_t i = 0; i < sizeof(dpdk_cp_stat) / sizeof(uint32_t); i++) {
			const uint32_t was = CpValue(before_, i * sizeof(uint32_t));
			const uint32_t now = CpValue(g_dpdk_cp_stat, i * sizeof(uint32_t));
			if (was != now)
				out[i] = now - was;
		}
		return out;
	}

private:
	dpdk_cp_stat before_;
};

/* The index of a counter in the record, as CounterDelta reports it. */
inline size_t Idx(uint32_t dpdk_cp_stat::*m)
{
	static dpdk_cp_stat probe;
	return static_cast<size_t>(reinterpret_cast<const char *>(&(probe.*m)) -
				   reinterpret_cast<const char *>(&probe)) /
	       sizeof(uint32_t);
}

/* Allocations live on DPDK's heaps, over all sockets. */
struct HeapUse {
	size_t bytes = 0;
	unsigned count = 0;
	bool operator==(const HeapUse &) const = default;
};

inline std::ostream &operator<<(std::ostream &os, const HeapUse &h)
{
	return os << h.count << " allocations, " << h.bytes << " bytes";
}

inline HeapUse DpdkHeapUse()
{
	HeapUse use;
	for (unsigned i = 0; i < rte_socket_count(); i++) {
		struct rte_malloc_socket_stats st;
		if (rte_malloc_get_socket_stats(rte_socket_id_by_idx(i), &st) == 0) {
			use.bytes += st.heap_allocsz_bytes;
			use.count += st.alloc_count;
		}
	}
	return use;
}


} // namespace zorv_test

#endif /* ZORV_TEST_COUNTERS_H */
