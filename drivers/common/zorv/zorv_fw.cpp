/* SPDX-License-Identifier: BSD-3-Clause
 * Firmware command channel of the emulated card.
 *
 * The card keeps an MTU per virtual port and per MAC port; its data path
 * reads them for every frame, so they are atomics read without a lock.
 * Commands come from the control thread.
 */
#include <errno.h>

#include <array>
#include <atomic>

#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"
#include "zorv_fw.h"

namespace {

constexpr size_t ZORV_FW_VPORTS = UINT16_MAX + 1;

std::array<std::atomic<uint32_t>, ZORV_FW_VPORTS> vport_mtu{};
std::array<std::atomic<uint64_t>, ZORV_FW_VPORTS> vport_mtu_drops{};
std::array<std::atomic<uint64_t>, ZORV_FW_VPORTS> vport_tx_mtu_drops{};
std::atomic<uint64_t> mtu_drops_total[2]; /* received, transmitted */
std::array<std::atomic<uint32_t>, ZORV_FW_MAC_PORTS> macport_mtu{};

const char *iface_of(const struct zorv1_internal *internal)
{
	return internal->iface_name != NULL ? internal->iface_name : "";
}

} // namespace

extern "C" {

/*
 * E_CMD_OP_MTU_SET_VPORT sets the MTU of the virtual port svport_id (the
 * port's vNIC; dvport_id only addresses the command on the real firmware and
 * is not used by the emulated card). E_CMD_OP_MTU_SET_MACPORT sets the MTU
 * of MAC port svport_id. 0 on success; -EINVAL for a missing argument, an
 * unknown operation, a MAC port that does not exist or an MTU outside
 * ZORV_FW_MTU_MIN..ZORV_FW_MTU_MAX, in which case nothing changes.
 */
int zorv1_fw_set_dev_mtu(struct zorv1_internal *internal, enum e_cmd_mtu_op_type op,
			 struct zorv_cmd_mtu_set_info *info)
{
	if (internal == NULL || info == NULL) {
		ZORV1_SNIC_LOG(ERR, "mtu command without %s\n",
			       internal == NULL ? "port" : "arguments");
		return -EINVAL;
	}
	if (info->mtu < ZORV_FW_MTU_MIN || info->mtu > ZORV_FW_MTU_MAX) {
		ZORV1_SNIC_LOG(ERR, "%s: mtu %u out of range %u..%u\n", iface_of(internal),
			       info->mtu, ZORV_FW_MTU_MIN, ZORV_FW_MTU_MAX);
		return -EINVAL;
	}

	switch (op) {
	case E_CMD_OP_MTU_SET_VPORT:
		vport_mtu[info->svport_id].store(info->mtu, std::memory_order_relaxed);
		ZORV1_VDEV_LOG(INFO, "%s: vport %u mtu %u applied\n", iface_of(internal),
			       info->svport_id, info->mtu);
		return 0;
	case E_CMD_OP_MTU_SET_MACPORT:
		if (info->svport_id >= ZORV_FW_MAC_PORTS) {
			ZORV1_SNIC_LOG(ERR, "%s: no mac port %u\n", iface_of(internal),
				       info->svport_id);
			return -EINVAL;
		}
		macport_mtu[info->svport_id].store(info->mtu, std::memory_order_relaxed);
		ZORV1_VDEV_LOG(INFO, "%s: mac port %u mtu %u applied\n", iface_of(internal),
			       info->svport_id, info->mtu);
		return 0;
	}
	ZORV1_SNIC_LOG(ERR, "%s: unknown mtu operation %d\n", iface_of(internal),
		       static_cast<int>(op));
	return -EINVAL;
}

uint32_t zorv_fw_get_vport_mtu(uint16_t vport)
{
	return vport_mtu[vport].load(std::memory_order_relaxed);
}

uint32_t zorv_fw_get_macport_mtu(uint16_t macport)
{
	if (macport >= ZORV_FW_MAC_PORTS)
		return 0;
	return macport_mtu[macport].load(std::memory_order_relaxed);
}

void zorv_fw_count_mtu_drop(uint16_t vport)
{
	vport_mtu_drops[vport].fetch_add(1, std::memory_order_relaxed);
	mtu_drops_total[0].fetch_add(1, std::memory_order_relaxed);
}

uint64_t zorv_fw_get_mtu_drops(uint16_t vport)
{
	return vport_mtu_drops[vport].load(std::memory_order_relaxed);
}

void zorv_fw_count_tx_mtu_drop(uint16_t vport)
{
	vport_tx_mtu_drops[vport].fetch_add(1, std::memory_order_relaxed);
	mtu_drops_total[1].fetch_add(1, std::memory_order_relaxed);
}

uint64_t zorv_fw_get_tx_mtu_drops(uint16_t vport)
{
	return vport_tx_mtu_drops[vport].load(std::memory_order_relaxed);
}

uint64_t zorv_fw_mtu_drops_total(int tx)
{
	return mtu_drops_total[tx != 0 ? 1 : 0].load(std::memory_order_relaxed);
}

void zorv_fw_vport_reset(uint16_t vport)
{
	vport_mtu[vport].store(0, std::memory_order_relaxed);
	vport_mtu_drops[vport].store(0, std::memory_order_relaxed);
	vport_tx_mtu_drops[vport].store(0, std::memory_order_relaxed);
}

} // extern "C"
