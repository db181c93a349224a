/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: rte_mtr meters of the emulated card.
 *
 * Meters run DPDK's rte_meter token buckets in byte mode, colour-blind:
 * srTCM (RFC 2697) and trTCM (RFC 2698) profiles, and the pass-through
 * profile (no metering: every frame green). The bytes metered are the
 * frame's bytes as received (Ethernet header included, no FCS). A rule
 * hooks a meter with the METER action; the meter's policy says, per colour,
 * whether the frame is dropped (action list DROP) or goes on with the rule's
 * other actions (no action, VOID only or an empty list). Every metered
 * frame counts in its colour's packets and bytes; a dropped frame counts in
 * the dropped ones too.
 *
 * Objects live on the port's flow context under its lock. A meter's bucket
 * state, profile, policy and counters are also changed by the receive
 * queues, under the meter's own spinlock. A profile or policy in use by a
 * meter, and a meter in use by a rule, cannot be deleted (EBUSY).
 */
#include <errno.h>
#include <string.h>

#include <new>

#include <ethdev_driver.h>
#include <rte_malloc.h>
#include <rte_meter.h>
#include <rte_mtr.h>
#include <rte_mtr_driver.h>

#include "zorv1_common.h"
#include "zorv_flow.h"
#include "zorv_flow_internal.h"
#include "zorv_mutex_guard.h"

namespace zorv_flow {

namespace {

/* Objects of each kind a port can hold. */
constexpr uint32_t METERS_MAX = 1024;
/* Highest rate a meter accepts: 100 Gbit/s in bytes per second. */
constexpr uint64_t METER_RATE_MAX = 12500000000ULL;

constexpr uint64_t STATS_ALL = RTE_MTR_STATS_N_PKTS_GREEN | RTE_MTR_STATS_N_PKTS_YELLOW |
			       RTE_MTR_STATS_N_PKTS_RED | RTE_MTR_STATS_N_PKTS_DROPPED |
			       RTE_MTR_STATS_N_BYTES_GREEN | RTE_MTR_STATS_N_BYTES_YELLOW |
			       RTE_MTR_STATS_N_BYTES_RED | RTE_MTR_STATS_N_BYTES_DROPPED;

int mtr_error(struct rte_mtr_error *error, int code, enum rte_mtr_error_type type,
	      const void *cause, const char *msg)
{
	return -rte_mtr_error_set(error, code, type, cause, msg);
}

int no_ctx(struct rte_mtr_error *error)
{
	return mtr_error(error, ENODEV, RTE_MTR_ERROR_TYPE_UNSPECIFIED, nullptr,
			 "port has no flow context");
}

struct profile *profile_find(struct zorv_flow_ctx *ctx, uint32_t id)
{
	struct profile *p;
	TAILQ_FOREACH(p, &ctx->profiles, next)
		if (p->id == id)
			return p;
	return nullptr;
}

struct policy *policy_find(struct zorv_flow_ctx *ctx, uint32_t id)
{
	struct policy *p;
	TAILQ_FOREACH(p, &ctx->policies, next)
		if (p->id == id)
			return p;
	return nullptr;
}

uint32_t count_meters(struct zorv_flow_ctx *ctx)
{
	uint32_t n = 0;
	struct meter *m;
	TAILQ_FOREACH(m, &ctx->meters, next)
		n++;
	return n;
}

/* Start the meter's buckets full for its profile (m->lock held or not yet shared). */
void meter_config(struct meter *m)
{
	switch (m->prof->alg) {
	case RTE_MTR_SRTCM_RFC2697:
		rte_meter_srtcm_config(&m->sr, &m->prof->sr);
		break;
	case RTE_MTR_TRTCM_RFC2698:
		rte_meter_trtcm_config(&m->tr, &m->prof->tr);
		break;
	default:
		break;
	}
}

/* Compile a profile; 0 or a negative errno with error set. */
int profile_compile(struct rte_mtr_meter_profile *in, struct profile *p,
		    struct rte_mtr_error *error)
{
	if (in->packet_mode)
		return mtr_error(error, ENOTSUP, RTE_MTR_ERROR_TYPE_METER_PROFILE_PACKET_MODE, in,
				 "packet mode not supported: meters count bytes");
	p->alg = in->alg;
	p->params = *in;
	switch (in->alg) {
	case RTE_MTR_NONE:
		return 0;
	case RTE_MTR_SRTCM_RFC2697: {
		struct rte_meter_srtcm_params sp = {in->srtcm_rfc2697.cir, in->srtcm_rfc2697.cbs,
						    in->srtcm_rfc2697.ebs};
		if (sp.cir > METER_RATE_MAX)
			return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
					 "CIR above the meters' maximum rate");
		if (rte_meter_srtcm_profile_config(&p->sr, &sp) != 0)
			return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
					 "invalid srTCM profile: CIR must be non-zero and CBS or EBS too");
		return 0;
	}
	case RTE_MTR_TRTCM_RFC2698: {
		struct rte_meter_trtcm_params tp = {in->trtcm_rfc2698.cir, in->trtcm_rfc2698.pir,
						    in->trtcm_rfc2698.cbs, in->trtcm_rfc2698.pbs};
		if (tp.pir > METER_RATE_MAX)
			return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
					 "PIR above the meters' maximum rate");
		if (rte_meter_trtcm_profile_config(&p->tr, &tp) != 0)
			return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
					 "invalid trTCM profile: CIR, PIR, CBS, PBS non-zero and PIR >= CIR");
		return 0;
	}
	case RTE_MTR_TRTCM_RFC4115:
		return mtr_error(error, ENOTSUP, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
				 "trTCM RFC 4115 not supported (srTCM RFC 2697 and trTCM RFC 2698 are)");
	default:
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, in,
				 "unknown metering algorithm");
	}
}

/* Compile a policy's action lists into per-colour drop decisions. */
int policy_compile(struct rte_mtr_meter_policy_params *in, bool drop[RTE_COLORS],
		   struct rte_mtr_error *error)
{
	static constexpr enum rte_mtr_error_type types[RTE_COLORS] = {
		RTE_MTR_ERROR_TYPE_POLICER_ACTION_GREEN, RTE_MTR_ERROR_TYPE_POLICER_ACTION_YELLOW,
		RTE_MTR_ERROR_TYPE_POLICER_ACTION_RED};

	if (in == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_POLICY, nullptr,
				 "policy missing");
	for (int c = 0; c < RTE_COLORS; c++) {
		drop[c] = false;
		const struct rte_flow_action *a = in->actions[c];
		for (; a != nullptr && a->type != RTE_FLOW_ACTION_TYPE_END; a++) {
			switch (a->type) {
			case RTE_FLOW_ACTION_TYPE_VOID:
				break;
			case RTE_FLOW_ACTION_TYPE_DROP:
				drop[c] = true;
				break;
			default:
				return mtr_error(error, ENOTSUP, types[c], a,
						 action_unsupported_msg(a->type));
			}
		}
	}
	return 0;
}

/* ---- rte_mtr operations ---- */

int mtr_capabilities_get(struct rte_eth_dev *dev, struct rte_mtr_capabilities *cap,
			 struct rte_mtr_error *error)
{
	if (ctx_of(dev) == nullptr)
		return no_ctx(error);
	if (cap == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_UNSPECIFIED, nullptr,
				 "no capability record");
	memset(cap, 0, sizeof(*cap));
	cap->n_max = METERS_MAX;
	cap->n_shared_max = METERS_MAX;
	cap->identical = 1;
	cap->shared_identical = 1;
	cap->shared_n_flows_per_mtr_max = UINT32_MAX;
	cap->chaining_n_mtrs_per_flow_max = 1;
	cap->meter_srtcm_rfc2697_n_max = METERS_MAX;
	cap->meter_trtcm_rfc2698_n_max = METERS_MAX;
	cap->meter_rate_max = METER_RATE_MAX;
	cap->meter_policy_n_max = METERS_MAX;
	cap->srtcm_rfc2697_byte_mode_supported = 1;
	cap->trtcm_rfc2698_byte_mode_supported = 1;
	cap->stats_mask = STATS_ALL;
	return 0;
}

int mtr_profile_add(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_meter_profile *in,
		    struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);
	if (in == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE, nullptr,
				 "profile missing");

	zorv_mutex_guard guard(ctx->lock);
	if (profile_find(ctx, id) != nullptr)
		return mtr_error(error, EEXIST, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, nullptr,
				 "meter profile id already in use");
	struct profile tmp;
	memset(&tmp, 0, sizeof(tmp));
	int ret = profile_compile(in, &tmp, error);
	if (ret < 0)
		return ret;
	auto *p = static_cast<struct profile *>(
		rte_zmalloc_socket("zorv_mtr_profile", sizeof(struct profile), 0, ctx->socket));
	if (p == nullptr)
		return mtr_error(error, ENOMEM, RTE_MTR_ERROR_TYPE_UNSPECIFIED, nullptr,
				 "no memory for the profile");
	*p = tmp;
	p->id = id;
	TAILQ_INSERT_TAIL(&ctx->profiles, p, next);
	return 0;
}

int mtr_profile_delete(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	struct profile *p = profile_find(ctx, id);
	if (p == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, nullptr,
				 "no meter profile with this id");
	if (p->refcnt != 0)
		return mtr_error(error, EBUSY, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, nullptr,
				 "meter profile is used by a meter");
	TAILQ_REMOVE(&ctx->profiles, p, next);
	rte_free(p);
	return 0;
}

int mtr_policy_validate(struct rte_eth_dev *dev, struct rte_mtr_meter_policy_params *in,
			struct rte_mtr_error *error)
{
	if (ctx_of(dev) == nullptr)
		return no_ctx(error);
	bool drop[RTE_COLORS];
	return policy_compile(in, drop, error);
}

int mtr_policy_add(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_meter_policy_params *in,
		   struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	if (policy_find(ctx, id) != nullptr)
		return mtr_error(error, EEXIST, RTE_MTR_ERROR_TYPE_METER_POLICY_ID, nullptr,
				 "meter policy id already in use");
	bool drop[RTE_COLORS];
	int ret = policy_compile(in, drop, error);
	if (ret < 0)
		return ret;
	auto *p = static_cast<struct policy *>(
		rte_zmalloc_socket("zorv_mtr_policy", sizeof(struct policy), 0, ctx->socket));
	if (p == nullptr)
		return mtr_error(error, ENOMEM, RTE_MTR_ERROR_TYPE_UNSPECIFIED, nullptr,
				 "no memory for the policy");
	p->id = id;
	memcpy(p->drop, drop, sizeof(drop));
	TAILQ_INSERT_TAIL(&ctx->policies, p, next);
	return 0;
}

int mtr_policy_delete(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	struct policy *p = policy_find(ctx, id);
	if (p == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_POLICY_ID, nullptr,
				 "no meter policy with this id");
	if (p->refcnt != 0)
		return mtr_error(error, EBUSY, RTE_MTR_ERROR_TYPE_METER_POLICY_ID, nullptr,
				 "meter policy is used by a meter");
	TAILQ_REMOVE(&ctx->policies, p, next);
	rte_free(p);
	return 0;
}

bool all_green(const enum rte_color *table, unsigned n)
{
	if (table == nullptr)
		return true;
	for (unsigned i = 0; i < n; i++)
		if (table[i] != RTE_COLOR_GREEN)
			return false;
	return true;
}

int mtr_create(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_params *params, int shared,
	       struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);
	if (params == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_MTR_PARAMS, nullptr,
				 "meter parameters missing");
	if (params->use_prev_mtr_color)
		return mtr_error(error, ENOTSUP, RTE_MTR_ERROR_TYPE_MTR_PARAMS, params,
				 "meter chaining (use_prev_mtr_color) not supported");
	if (!all_green(params->dscp_table, 64) || !all_green(params->vlan_table, 16))
		return mtr_error(error, ENOTSUP, RTE_MTR_ERROR_TYPE_MTR_PARAMS, params,
				 "colour-aware metering not supported (input colour tables must be all green)");
	if (params->stats_mask & ~STATS_ALL)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_STATS_MASK, params,
				 "unknown statistics counters in stats_mask");

	zorv_mutex_guard guard(ctx->lock);
	if (meter_find(ctx, id) != nullptr)
		return mtr_error(error, EEXIST, RTE_MTR_ERROR_TYPE_MTR_ID, nullptr,
				 "meter id already in use");
	if (count_meters(ctx) >= METERS_MAX)
		return mtr_error(error, ENOSPC, RTE_MTR_ERROR_TYPE_MTR_ID, nullptr,
				 "the port has the most meters it can hold");
	struct profile *prof = profile_find(ctx, params->meter_profile_id);
	if (prof == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, nullptr,
				 "no meter profile with this id");
	struct policy *pol = policy_find(ctx, params->meter_policy_id);
	if (pol == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_POLICY_ID, nullptr,
				 "no meter policy with this id");

	void *mem = rte_zmalloc_socket("zorv_mtr", sizeof(struct meter), RTE_CACHE_LINE_SIZE,
				       ctx->socket);
	if (mem == nullptr)
		return mtr_error(error, ENOMEM, RTE_MTR_ERROR_TYPE_UNSPECIFIED, nullptr,
				 "no memory for the meter");
	auto *m = new (mem) meter{};
	m->id = id;
	m->shared = shared;
	m->prof = prof;
	m->pol = pol;
	m->enabled = params->meter_enable != 0;
	m->stats_mask = params->stats_mask;
	meter_config(m);
	prof->refcnt++;
	pol->refcnt++;
	TAILQ_INSERT_TAIL(&ctx->meters, m, next);
	return 0;
}

/* Find a meter for an operation on it, or set the error. */
struct meter *meter_get(struct zorv_flow_ctx *ctx, uint32_t id, struct rte_mtr_error *error,
			int *ret)
{
	struct meter *m = meter_find(ctx, id);
	if (m == nullptr)
		*ret = mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_MTR_ID, nullptr,
				 "no meter with this id");
	return m;
}

void meter_free(struct zorv_flow_ctx *ctx, struct meter *m)
{
	TAILQ_REMOVE(&ctx->meters, m, next);
	m->prof->refcnt--;
	m->pol->refcnt--;
	m->~meter();
	rte_free(m);
}

int mtr_destroy(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	if (m->refcnt != 0)
		return mtr_error(error, EBUSY, RTE_MTR_ERROR_TYPE_MTR_ID, nullptr,
				 "meter is used by a flow rule");
	meter_free(ctx, m);
	return 0;
}

int mtr_set_enabled(struct rte_eth_dev *dev, uint32_t id, bool on, struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	m->lock.lock();
	m->enabled = on;
	m->lock.unlock();
	return 0;
}

int mtr_enable(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_error *error)
{
	return mtr_set_enabled(dev, id, true, error);
}

int mtr_disable(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_error *error)
{
	return mtr_set_enabled(dev, id, false, error);
}

int mtr_profile_update(struct rte_eth_dev *dev, uint32_t id, uint32_t profile_id,
		       struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	struct profile *p = profile_find(ctx, profile_id);
	if (p == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, nullptr,
				 "no meter profile with this id");
	m->lock.lock();
	struct profile *old = m->prof;
	m->prof = p;
	meter_config(m);
	m->lock.unlock();
	old->refcnt--;
	p->refcnt++;
	return 0;
}

int mtr_policy_update(struct rte_eth_dev *dev, uint32_t id, uint32_t policy_id,
		      struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	struct policy *p = policy_find(ctx, policy_id);
	if (p == nullptr)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_METER_POLICY_ID, nullptr,
				 "no meter policy with this id");
	m->lock.lock();
	struct policy *old = m->pol;
	m->pol = p;
	m->lock.unlock();
	old->refcnt--;
	p->refcnt++;
	return 0;
}

int mtr_stats_update(struct rte_eth_dev *dev, uint32_t id, uint64_t stats_mask,
		     struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);
	if (stats_mask & ~STATS_ALL)
		return mtr_error(error, EINVAL, RTE_MTR_ERROR_TYPE_STATS_MASK, nullptr,
				 "unknown statistics counters in stats_mask");

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	m->lock.lock();
	m->stats_mask = stats_mask;
	m->lock.unlock();
	return 0;
}

int mtr_stats_read(struct rte_eth_dev *dev, uint32_t id, struct rte_mtr_stats *stats,
		   uint64_t *stats_mask, int clear, struct rte_mtr_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	int ret = 0;
	struct meter *m = meter_get(ctx, id, error, &ret);
	if (m == nullptr)
		return ret;
	m->lock.lock();
	if (stats != nullptr)
		*stats = m->stats;
	if (stats_mask != nullptr)
		*stats_mask = m->stats_mask;
	if (clear)
		memset(&m->stats, 0, sizeof(m->stats));
	m->lock.unlock();
	return 0;
}

const struct rte_mtr_ops mtr_ops = {
	.capabilities_get = mtr_capabilities_get,
	.meter_profile_add = mtr_profile_add,
	.meter_profile_delete = mtr_profile_delete,
	.create = mtr_create,
	.destroy = mtr_destroy,
	.meter_enable = mtr_enable,
	.meter_disable = mtr_disable,
	.meter_profile_update = mtr_profile_update,
	.stats_update = mtr_stats_update,
	.stats_read = mtr_stats_read,
	.meter_policy_validate = mtr_policy_validate,
	.meter_policy_add = mtr_policy_add,
	.meter_policy_delete = mtr_policy_delete,
	.meter_policy_update = mtr_policy_update,
};

} // namespace

struct meter *meter_find(struct zorv_flow_ctx *ctx, uint32_t id)
{
	struct meter *m;
	TAILQ_FOREACH(m, &ctx->meters, next)
		if (m->id == id)
			return m;
	return nullptr;
}

void mtr_free_all(struct zorv_flow_ctx *ctx)
{
	struct meter *m;
	while ((m = TAILQ_FIRST(&ctx->meters)) != nullptr)
		meter_free(ctx, m);
	struct profile *p;
	while ((p = TAILQ_FIRST(&ctx->profiles)) != nullptr) {
		TAILQ_REMOVE(&ctx->profiles, p, next);
		rte_free(p);
	}
	struct policy *pl;
	while ((pl = TAILQ_FIRST(&ctx->policies)) != nullptr) {
		TAILQ_REMOVE(&ctx->policies, pl, next);
		rte_free(pl);
	}
}

} // namespace zorv_flow

extern "C" {

/* ops is a struct rte_mtr_ops **; the table is never written through it. */
int zorv_mtr_ops_get(struct rte_eth_dev *dev, void *ops)
{
	(void)dev;
	if (ops == NULL)
		return -EINVAL;
	*static_cast<struct rte_mtr_ops **>(ops) =
		const_cast<struct rte_mtr_ops *>(&zorv_flow::mtr_ops);
	return 0;
}

} // extern "C"
