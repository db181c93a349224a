/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine of the zorv1 family, for the emulated card.
 *
 * A port gets a vNIC id and a flow context when it is created. The card
 * has no flow classifier or meters to program, so every rte_flow and
 * rte_mtr operation fails with ENOTSUP and a message saying so; nothing is
 * reported as done that was not done.
 */
#include <errno.h>

#include <ethdev_driver.h>
#include <rte_flow.h>
#include <rte_flow_driver.h>
#include <rte_malloc.h>
#include <rte_mtr.h>
#include <rte_mtr_driver.h>

#include "zorv1_common.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_flow.h"
#include "zorv_fw.h"

namespace {

constexpr const char ZORV_FLOW_NOTSUP[] = "flow rules are not supported by the zorv1 card";
constexpr const char ZORV_MTR_NOTSUP[] = "meters are not supported by the zorv1 card";

struct zorv1_internal *internal_of(struct rte_eth_dev *dev)
{
	if (dev == NULL || dev->data == NULL)
		return NULL;
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

struct zorv_flow_ctx *ctx_of(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = internal_of(dev);

	if (internal == NULL)
		return NULL;
	return static_cast<struct zorv_flow_ctx *>(internal->comm.flow_data.ctx);
}

/* ---- rte_flow: nothing can be offloaded ---- */

int flow_notsup(struct rte_flow_error *error)
{
	return rte_flow_error_set(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, NULL,
				  ZORV_FLOW_NOTSUP);
}

int zorv_flow_validate(struct rte_eth_dev *, const struct rte_flow_attr *,
		       const struct rte_flow_item[], const struct rte_flow_action[],
		       struct rte_flow_error *error)
{
	return flow_notsup(error);
}

struct rte_flow *zorv_flow_create(struct rte_eth_dev *, const struct rte_flow_attr *,
				  const struct rte_flow_item[], const struct rte_flow_action[],
				  struct rte_flow_error *error)
{
	flow_notsup(error);
	return NULL;
}

int zorv_flow_destroy(struct rte_eth_dev *, struct rte_flow *, struct rte_flow_error *error)
{
	return flow_notsup(error);
}

int zorv_flow_flush(struct rte_eth_dev *, struct rte_flow_error *error)
{
	return flow_notsup(error);
}

int zorv_flow_query(struct rte_eth_dev *, struct rte_flow *, const struct rte_flow_action *,
		    void *, struct rte_flow_error *error)
{
	return flow_notsup(error);
}

int zorv_flow_isolate(struct rte_eth_dev *, int, struct rte_flow_error *error)
{
	return flow_notsup(error);
}

const struct rte_flow_ops zorv_flow_ops = {
	.validate = zorv_flow_validate,
	.create = zorv_flow_create,
	.destroy = zorv_flow_destroy,
	.flush = zorv_flow_flush,
	.query = zorv_flow_query,
	.isolate = zorv_flow_isolate,
};

/* ---- rte_mtr: no meters ---- */

int mtr_notsup(struct rte_mtr_error *error)
{
	return -rte_mtr_error_set(error, ENOTSUP, RTE_MTR_ERROR_TYPE_UNSPECIFIED, NULL,
				  ZORV_MTR_NOTSUP);
}

int zorv_mtr_capabilities_get(struct rte_eth_dev *, struct rte_mtr_capabilities *,
			      struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_profile_add(struct rte_eth_dev *, uint32_t, struct rte_mtr_meter_profile *,
			 struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_id_op(struct rte_eth_dev *, uint32_t, struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_create(struct rte_eth_dev *, uint32_t, struct rte_mtr_params *, int,
		    struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_profile_update(struct rte_eth_dev *, uint32_t, uint32_t,
			    struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_stats_update(struct rte_eth_dev *, uint32_t, uint64_t,
			  struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_stats_read(struct rte_eth_dev *, uint32_t, struct rte_mtr_stats *, uint64_t *,
			int, struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_policy_validate(struct rte_eth_dev *, struct rte_mtr_meter_policy_params *,
			     struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

int zorv_mtr_policy_add(struct rte_eth_dev *, uint32_t, struct rte_mtr_meter_policy_params *,
			struct rte_mtr_error *error)
{
	return mtr_notsup(error);
}

const struct rte_mtr_ops zorv_mtr_ops = {
	.capabilities_get = zorv_mtr_capabilities_get,
	.meter_profile_add = zorv_mtr_profile_add,
	.meter_profile_delete = zorv_mtr_id_op,
	.create = zorv_mtr_create,
	.destroy = zorv_mtr_id_op,
	.meter_enable = zorv_mtr_id_op,
	.meter_disable = zorv_mtr_id_op,
	.meter_profile_update = zorv_mtr_profile_update,
	.stats_update = zorv_mtr_stats_update,
	.stats_read = zorv_mtr_stats_read,
	.meter_policy_validate = zorv_mtr_policy_validate,
	.meter_policy_add = zorv_mtr_policy_add,
	.meter_policy_delete = zorv_mtr_id_op,
	.meter_policy_update = zorv_mtr_profile_update,
};

} // namespace

extern "C" {

/*
 * Give the port its vNIC id (ethdev port id + 1, unique among live ports)
 * with a fresh firmware state, and, when enable is non-zero, a flow context.
 * A second call keeps the existing context. 0 on success, -EINVAL without a
 * port record, -ENOMEM when the context cannot be allocated (the port keeps
 * its vNIC id and works without a context).
 */
int zorv_flow_resource_init(struct rte_eth_dev *dev, int enable)
{
	struct zorv1_internal *internal = internal_of(dev);

	if (internal == NULL) {
		ZORV1_VDEV_LOG(ERR, "flow init without a port record\n");
		return -EINVAL;
	}

	struct zorv_flow_priv *priv = &internal->comm.flow_data;
	uint16_t port_id = dev->data->port_id;
	uint32_t vnic = zorv_flow_vnic_of_port(port_id);

	if (priv->ctx != NULL)
		return 0;
	priv->priv_port = vnic;
	zorv_fw_vport_reset(static_cast<uint16_t>(vnic));
	if (enable == 0)
		return 0;

	auto *ctx = static_cast<struct zorv_flow_ctx *>(rte_zmalloc_socket(
		"zorv_flow_ctx", sizeof(struct zorv_flow_ctx), RTE_CACHE_LINE_SIZE,
		dev->data->numa_node));
	if (ctx == NULL) {
		ZORV1_VDEV_LOG(ERR, "no memory for the flow context of port %u\n", port_id);
		return -ENOMEM;
	}
	ctx->port_id = port_id;
	priv->ctx = ctx;
	priv->flags |= ZORV_FLOW_F_ACTIVE;
	return 0;
}

/*
 * Free the port's flow context. Freeing a port that has none (never
 * enabled, failed init, or already freed) is not an error: 0. -EINVAL only
 * without a port record.
 */
int zorv_flow_resource_free(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = internal_of(dev);

	if (internal == NULL)
		return -EINVAL;

	struct zorv_flow_priv *priv = &internal->comm.flow_data;
	rte_free(priv->ctx);
	priv->ctx = NULL;
	priv->flags &= ~ZORV_FLOW_F_ACTIVE;
	return 0;
}

/*
 * Remember a VXLAN UDP port the application uses. 0 when recorded (or
 * already known); -EINVAL for a missing argument, port 0 or another tunnel
 * type; -ENODEV without a flow context; -ENOSPC when the port already has
 * ZORV_FLOW_MAX_VXLAN_PORTS.
 */
int zorv_dev_udp_tunnel_port_add(struct rte_eth_dev *dev, struct rte_eth_udp_tunnel *tunnel)
{
	if (dev == NULL || tunnel == NULL || tunnel->udp_port == 0)
		return -EINVAL;
	if (tunnel->prot_type != RTE_ETH_TUNNEL_TYPE_VXLAN) {
		ZORV1_VDEV_LOG(ERR, "port %u: tunnel type %u not supported\n",
			       dev->data != NULL ? dev->data->port_id : 0, tunnel->prot_type);
		return -EINVAL;
	}

	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == NULL)
		return -ENODEV;
	for (uint16_t i = 0; i < ctx->nb_vxlan_ports; i++) {
		if (ctx->vxlan_ports[i] == tunnel->udp_port)
			return 0;
	}
	if (ctx->nb_vxlan_ports >= ZORV_FLOW_MAX_VXLAN_PORTS) {
		ZORV1_VDEV_LOG(ERR, "port %u: no room for vxlan udp port %u\n", ctx->port_id,
			       tunnel->udp_port);
		return -ENOSPC;
	}
	ctx->vxlan_ports[ctx->nb_vxlan_ports++] = tunnel->udp_port;
	ZORV1_VDEV_LOG(INFO, "port %u: vxlan udp port %u added\n", ctx->port_id,
		       tunnel->udp_port);
	return 0;
}

int zorv_dev_flow_ops_get(struct rte_eth_dev *dev, const struct rte_flow_ops **ops)
{
	(void)dev;
	if (ops == NULL)
		return -EINVAL;
	*ops = &zorv_flow_ops;
	return 0;
}

/* ops is a struct rte_mtr_ops **; the table is never written through it. */
int zorv_mtr_ops_get(struct rte_eth_dev *dev, void *ops)
{
	(void)dev;
	if (ops == NULL)
		return -EINVAL;
	*static_cast<struct rte_mtr_ops **>(ops) = const_cast<struct rte_mtr_ops *>(&zorv_mtr_ops);
	return 0;
}

int zorv_flow_get_vxlan_ports(struct rte_eth_dev *dev, uint16_t *ports, int max)
{
	if (dev == NULL || (ports == NULL && max > 0) || max < 0)
		return -EINVAL;

	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == NULL)
		return 0;
	for (int i = 0; i < ctx->nb_vxlan_ports && i < max; i++)
		ports[i] = ctx->vxlan_ports[i];
	return ctx->nb_vxlan_ports;
}

} // extern "C"
