/* SPDX-License-Identifier: BSD-3-Clause
 * Device-argument strings through the bus: every input is the argument
 * string of one net_zorv1 device (as after "--vdev net_zorv1_fz,"), probed
 * with rte_vdev_init() and, when the bus kept the device, removed again with
 * rte_vdev_uninit(). The family services are the fakes, so no socket is
 * served; a port that is only probed is never installed in the device
 * manager's table (that happens at configure).
 *
 * Besides crashes and sanitizer reports, an input fails when:
 *  - the outcome differs from what the arguments ask for, as worked out
 *    here from the same key-value list: a port exactly when iface is given
 *    once with a value and queues, if given once, converts (strtoul, base
 *    0, cut to 16 bits) to at most 1024; its queue count and interface
 *    name; probe's result (0 for a queue count above 1024, else -1);
 *  - the DPDK heap does not return to its size before the input (the
 *    port's private area, MAC address, interface name and command buffers
 *    come from rte_malloc, which LeakSanitizer does not see);
 *  - a port was created and a failure was reported, or no port was created
 *    and not exactly one failure was reported;
 *  - a created port does not look as creation leaves it (queue counts within
 *    1024, interface name taken from the arguments, MAC 44:56:44:45:56:xx,
 *    never connected, unbound, link down, the port's operations);
 *  - anything was installed in the device manager or registered with the
 *    transport, the port outlived its removal, or a fake reported misuse.
 */
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_kvargs.h>

#include <ethdev_driver.h>

#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_fuzz_env.h"

using zorv_fake::fakes;
using zorv_fuzz::Fail;

namespace {

constexpr const char *kDevName = "net_zorv1_fz";
constexpr uint8_t kMacPrefix[5] = {0x44, 0x56, 0x44, 0x45, 0x56};

uint64_t g_heap_baseline;

/* What probe must make of an argument string. */
struct Expected {
	bool port = false;              /* a port is created */
	std::optional<int> ret;         /* probe's result when refused; nullopt: 0 or -1 */
	std::string iface;              /* when port */
	uint16_t queues = 1;            /* when port */
};

int KeepValue(const char *key, const char *value, void *opaque)
{
	(void)key;
	*static_cast<std::optional<std::string> *>(opaque) =
		value != nullptr ? std::optional<std::string>(value) : std::nullopt;
	return 0;
}

Expected Expect(const std::string &args)
{
	static const char *const keys[] = {"iface", "queues", nullptr};
	Expected e;
	struct rte_kvargs *kv = rte_kvargs_parse(args.c_str(), keys);

	e.ret = -1;
	if (kv == nullptr)
		return e;
	std::optional<std::string> iface, queues;
	bool iface_ok = rte_kvargs_count(kv, "iface") == 1;
	if (iface_ok)
		rte_kvargs_process(kv, "iface", KeepValue, &iface);
	bool queues_once = rte_kvargs_count(kv, "queues") == 1;
	if (queues_once)
		rte_kvargs_process(kv, "queues", KeepValue, &queues);
	rte_kvargs_free(kv);

	if (!iface_ok || !iface)
		return e;
	if (queues_once) {
		if (!queues)
			return e;
		errno = 0;
		unsigned long v = std::strtoul(queues->c_str(), nullptr, 0);
		auto q = static_cast<uint16_t>(v);
		if (q == UINT16_MAX) {
			/* The driver does not clear errno first: a stale ERANGE may also refuse it. */
			e.ret = errno == ERANGE ? std::optional<int>(-1) : std::nullopt;
			return e;
		}
		if (q > 1024) {
			e.ret = 0;
			return e;
		}
		e.queues = q;
	}
	e.port = true;
	e.ret = 0;
	e.iface = *iface;
	return e;
}

void CheckCreatedPort(const std::string &args, const Expected &want, int ret,
		      const struct rte_eth_dev *dev)
{
	auto &f = fakes();
	const struct rte_eth_dev_data *data = dev->data;
	auto *internal = static_cast<const struct zorv1_internal *>(data->dev_private);

	if (ret != 0)
		Fail("probe of \"%s\" returned %d but a port exists", args.c_str(), ret);
	if (!f.mqtt.msgs.empty())
		Fail("port created from \"%s\" and a failure reported (kind %d err %d)",
		     args.c_str(), f.mqtt.msgs[0].kind, f.mqtt.msgs[0].err);
	if (internal == nullptr || internal->iface_name == nullptr)
		Fail("port from \"%s\" has no interface name", args.c_str());
	if (!want.port)
		Fail("\"%s\" should have been refused, yet a port exists", args.c_str());
	if (want.iface != internal->iface_name)
		Fail("interface name \"%s\", the arguments \"%s\" give \"%s\"", internal->iface_name,
		     args.c_str(), want.iface.c_str());
	if (internal->max_queues != want.queues || data->nb_rx_queues != internal->max_queues ||
	    data->nb_tx_queues != internal->max_queues)
		Fail("port from \"%s\": max_queues %u, %u rx, %u tx", args.c_str(),
		     internal->max_queues, data->nb_rx_queues, data->nb_tx_queues);
	if (internal->vid != -1 || internal->sfi != INVALID_SFI || internal->started != 0)
		Fail("new port from \"%s\": vid %d sfi %u started %d", args.c_str(), internal->vid,
		     internal->sfi, internal->started);
	if (data->mac_addrs == nullptr ||
	    std::memcmp(data->mac_addrs->addr_bytes, kMacPrefix, sizeof(kMacPrefix)) != 0 ||
	    data->mac_addrs->addr_bytes[5] != static_cast<uint8_t>(data->port_id))
		Fail("port from \"%s\" has a wrong MAC address", args.c_str());
	if (data->dev_link.link_status != RTE_ETH_LINK_DOWN || dev->dev_ops != &zorv1_dpu_dev_ops ||
	    dev->rx_pkt_burst != eth_vhost_rx || dev->tx_pkt_burst != eth_vhost_tx)
		Fail("port from \"%s\" lacks its link template, operations or bursts", args.c_str());
	if (internal->cmd.in_mem == nullptr || internal->cmd.out_mem == nullptr)
		Fail("port from \"%s\" lacks its command buffers", args.c_str());
	if (f.flow.inits.size() != 1 || f.diag.installs.size() != 1)
		Fail("port from \"%s\": %zu flow inits, %zu diagnostics installs", args.c_str(),
		     f.flow.inits.size(), f.diag.installs.size());
}

void CheckRefused(const std::string &args, const Expected &want, int ret)
{
	auto &f = fakes();

	if (want.port)
		Fail("no port from \"%s\" (probe %d), expected iface \"%s\" with %u queues",
		     args.c_str(), ret, want.iface.c_str(), want.queues);
	if (want.ret && ret != *want.ret)
		Fail("\"%s\" refused with %d, expected %d", args.c_str(), ret, *want.ret);

	if (f.mqtt.msgs.size() != 1)
		Fail("no port from \"%s\" (probe %d) but %zu failure reports", args.c_str(), ret,
		     f.mqtt.msgs.size());
	const zorv_fake::MqttMsg &m = f.mqtt.msgs[0];
	/* Argument failures are ADD_ERR / DEV_PARSE; creation reports its own. */
	bool parse = m.kind == ZORV1_MSG_DEV_ADD_ERR && m.err == ZORV1_ERR_DEV_PARSE;
	bool create = m.kind == ZORV1_MSG_DEV_VHOST_ERR;
	if (!parse && !create)
		Fail("\"%s\" refused with report kind %d err %d", args.c_str(), m.kind, m.err);
	/* Only a queue count above 1024 is refused while the bus sees success. */
	if (ret == 0 && !parse)
		Fail("\"%s\": probe returned 0 without a port, report kind %d", args.c_str(), m.kind);
	if (!m.dev_name || *m.dev_name != kDevName)
		Fail("\"%s\": report names device \"%s\"", args.c_str(),
		     m.dev_name ? m.dev_name->c_str() : "(null)");
}

int ProbeAndRemove(const std::string &args)
{
	auto &f = fakes();
	f.Reset();
	Expected want = Expect(args);

	int ret = rte_vdev_init(kDevName, args.c_str());
	struct rte_eth_dev *dev = rte_eth_dev_allocated(kDevName);
	if (dev != nullptr)
		CheckCreatedPort(args, want, ret, dev);
	else
		CheckRefused(args, want, ret);

	/* The bus keeps a device whose probe returned 0, with or without a port. */
	if (ret == 0 && rte_vdev_uninit(kDevName) != 0)
		Fail("\"%s\": the device could not be removed", args.c_str());
	if (rte_eth_dev_allocated(kDevName) != nullptr)
		Fail("\"%s\": the port outlived its removal", args.c_str());
	if (!f.dev.installs.empty() || !f.transport.registers.empty())
		Fail("\"%s\": probe or remove installed or registered the port", args.c_str());
	for (auto *slot : f.dev.slots)
		if (slot != nullptr)
			Fail("\"%s\": the device manager's table is not empty", args.c_str());
	zorv_fuzz::CheckFakes(args.c_str());
	return dev != nullptr ? 1 : 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	zorv_fuzz::StartEal("probe");
	/* The ethdev layer sets up its shared data with the first port: do that before the baseline. */
	if (ProbeAndRemove("iface=zorv_fz_warmup,queues=4") != 1)
		Fail("the warm-up port was not created");
	g_heap_baseline = zorv_fuzz::HeapAllocated();
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	/* The input is one C string: it ends at its first NUL. */
	std::string args(reinterpret_cast<const char *>(data), size);
	args.resize(std::strlen(args.c_str()));

	ProbeAndRemove(args);
	zorv_fuzz::CheckHeap(g_heap_baseline, args.c_str());
	return 0;
}
