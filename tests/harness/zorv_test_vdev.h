/* SPDX-License-Identifier: BSD-3-Clause
 * A port made by the driver's own probe on the vdev bus, for tests that go
 * through DPDK's ethdev API: rte_vdev_init("<prefix><n>", "iface=..,queues=..")
 * at construction, rte_vdev_uninit (the driver's remove closes the port) at
 * scope end. Needs the driver linked into the test binary.
 */
#ifndef ZORV_TEST_VDEV_H
#define ZORV_TEST_VDEV_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>

#include "zorv1_vhost.h"
#include "zorv_test_port.h"

namespace zorv_test {

class VdevPort {
public:
	VdevPort(const std::string &prefix, const std::string &iface, unsigned queues)
		: iface_(iface)
	{
		static unsigned seq;
		name_ = prefix + std::to_string(seq++);
		const std::string args = "iface=" + iface + ",queues=" + std::to_string(queues);
		if (rte_vdev_init(name_.c_str(), args.c_str()) != 0) {
			ADD_FAILURE() << "rte_vdev_init(" << name_ << ", " << args << ") failed";
			return;
		}
		live_ = true;
		if (rte_eth_dev_get_port_by_name(name_.c_str(), &port_id_) != 0)
			ADD_FAILURE() << "no ethdev port named " << name_;
		else
			ok_ = true;
	}
	~VdevPort() { Remove(); }
	VdevPort(const VdevPort &) = delete;
	VdevPort &operator=(const VdevPort &) = delete;

	/* Remove the bus device (the driver's remove closes the port). */
	void Remove()
	{
		if (live_)
			rte_vdev_uninit(name_.c_str());
		live_ = false;
		ok_ = false;
	}

	explicit operator bool() const { return ok_; }
	uint16_t id() const { return port_id_; }
	const std::string &name() const { return name_; }
	const std::string &iface() const { return iface_; }
	struct rte_eth_dev *dev() const { return &rte_eth_devices[port_id_]; }
	struct zorv1_internal *internal() const
	{
		return static_cast<struct zorv1_internal *>(dev()->data->dev_private);
	}
	struct zorv1_vdev_rxq *rxq(uint16_t q) const
	{
		return static_cast<struct zorv1_vdev_rxq *>(dev()->data->rx_queues[q]);
	}
	struct zorv1_vdev_txq *txq(uint16_t q) const
	{
		return static_cast<struct zorv1_vdev_txq *>(dev()->data->tx_queues[q]);
	}

	/* Configure n queue pairs and set up those listed (all when empty). */
	void Setup(uint16_t n, std::initializer_list<uint16_t> only = {})
	{
		struct rte_eth_conf conf {};
		ASSERT_EQ(rte_eth_dev_configure(port_id_, n, n, &conf), 0);
		std::vector<uint16_t> qs(only);
		if (qs.empty())
			for (uint16_t q = 0; q < n; q++)
				qs.push_back(q);
		for (uint16_t q : qs) {
			ASSERT_EQ(rte_eth_rx_queue_setup(port_id_, q, 0, rte_socket_id(), nullptr,
							 zorv_test::SharedMbufPool()),
				  0);
			ASSERT_EQ(rte_eth_tx_queue_setup(port_id_, q, 0, rte_socket_id(), nullptr), 0);
		}
	}

private:
	std::string iface_;
	std::string name_;
	uint16_t port_id_ = RTE_MAX_ETHPORTS;
	bool live_ = false;
	bool ok_ = false;
};

} // namespace zorv_test

#endif /* ZORV_TEST_VDEV_H */
