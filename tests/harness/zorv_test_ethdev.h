/* SPDX-License-Identifier: BSD-3-Clause
 * Ethdev helpers for the tests that run real ports (the driver with the
 * real card, and DPDK's virtio-user as the peer) in one process: waiting for
 * a condition, the link state and its events, bringing a port up, sending
 * everything.
 */
#ifndef ZORV_TEST_ETHDEV_H
#define ZORV_TEST_ETHDEV_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>

namespace zorv_test {

/* Polls cond every 2 ms for up to ms milliseconds; its last answer. */
inline bool WaitFor(const std::function<bool()> &cond, int ms = 5000)
{
	auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
	while (std::chrono::steady_clock::now() < end) {
		if (cond())
			return true;
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	return cond();
}

inline bool LinkUp(uint16_t port)
{
	struct rte_eth_link link = {};
	return rte_eth_link_get_nowait(port, &link) == 0 && link.link_status == RTE_ETH_LINK_UP;
}

/* Configure `queues` queue pairs of nb_desc descriptors, then start; 0 or the failure. */
inline int StartPort(uint16_t port, uint16_t queues, struct rte_mempool *pool,
		     uint64_t rx_offloads = 0, uint64_t tx_offloads = 0, uint16_t nb_desc = 1024)
{
	struct rte_eth_conf conf = {};
	conf.rxmode.offloads = rx_offloads;
	conf.txmode.offloads = tx_offloads;
	int ret = rte_eth_dev_configure(port, queues, queues, &conf);
	for (uint16_t q = 0; ret == 0 && q < queues; q++) {
		ret = rte_eth_rx_queue_setup(port, q, nb_desc, rte_socket_id(), nullptr, pool);
		if (ret == 0)
			ret = rte_eth_tx_queue_setup(port, q, nb_desc, rte_socket_id(), nullptr);
	}
	return ret == 0 ? rte_eth_dev_start(port) : ret;
}

/* Send all of pkts (retrying what the queue did not take) within a time limit. */
inline uint16_t SendAll(uint16_t port, uint16_t q, struct rte_mbuf **pkts, uint16_t n)
{
	uint16_t sent = 0;
	WaitFor([&] {
		sent += rte_eth_tx_burst(port, q, pkts + sent, n - sent);
		return sent == n;
	});
	return sent;
}

/* Link-state callbacks seen on one port (the thread, and the port's link
 * status when the callback ran); unregistered at scope end. */
class LscWatch {
public:
	struct Event {
		std::thread::id thread;
		uint8_t link_status;
	};

	explicit LscWatch(uint16_t port_id) : port_id_(port_id)
	{
		EXPECT_EQ(rte_eth_dev_callback_register(port_id_, RTE_ETH_EVENT_INTR_LSC, &LscWatch::Cb,
							this),
			  0);
	}
	~LscWatch()
	{
		rte_eth_dev_callback_unregister(port_id_, RTE_ETH_EVENT_INTR_LSC, &LscWatch::Cb, this);
	}
	LscWatch(const LscWatch &) = delete;
	LscWatch &operator=(const LscWatch &) = delete;

	std::vector<Event> events() const
	{
		std::lock_guard<std::mutex> lk(mu_);
		return events_;
	}
	size_t count() const { return events().size(); }

private:
	static int Cb(uint16_t port_id, enum rte_eth_event_type type, void *arg, void *ret_param)
	{
		(void)ret_param;
		auto *self = static_cast<LscWatch *>(arg);
		EXPECT_EQ(type, RTE_ETH_EVENT_INTR_LSC);
		EXPECT_EQ(port_id, self->port_id_);
		std::lock_guard<std::mutex> lk(self->mu_);
		self->events_.push_back({std::this_thread::get_id(),
					 static_cast<uint8_t>(rte_eth_devices[port_id].data->dev_link.link_status)});
		return 0;
	}

	uint16_t port_id_;
	mutable std::mutex mu_;
	std::vector<Event> events_;
};

} // namespace zorv_test

#endif /* ZORV_TEST_ETHDEV_H */
