/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine of the zorv1 family: per-port flow resources, VXLAN ports,
 * the rte_flow operations and the rule tables the receive classifier reads.
 *
 * Every change of the rule set (create, destroy, flush, a new VXLAN port)
 * builds a new immutable table under the context's lock, publishes it with
 * one atomic store, waits until no receive queue still classifies with the
 * previous one (zorv_flow::sync_readers) and only then frees that table and
 * the rules taken out. Rules are kept across port stop and start; they go
 * with flush, destroy or the port's close.
 */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <new>

#include <ethdev_driver.h>
#include <rte_flow.h>
#include <rte_flow_driver.h>
#include <rte_hash.h>
#include <rte_hash_crc.h>
#include <rte_malloc.h>

#include "zorv1_common.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_flow.h"
#include "zorv_flow_internal.h"
#include "zorv_fw.h"
#include "zorv_mutex_guard.h"

static_assert(zorv_flow::READERS_MAX >= RTE_MAX_QUEUES_PER_PORT,
	      "a reader slot for every receive queue a port can have");

namespace zorv_flow {

namespace {

struct zorv1_internal *internal_of(struct rte_eth_dev *dev)
{
	if (dev == NULL || dev->data == NULL)
		return NULL;
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

int no_ctx(struct rte_flow_error *error)
{
	return rte_flow_error_set(error, ENODEV, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
				  "port has no flow context");
}

bool rule_before(const struct rte_flow *a, const struct rte_flow *b)
{
	if (a->def.group != b->def.group)
		return a->def.group < b->def.group;
	if (a->def.priority != b->def.priority)
		return a->def.priority < b->def.priority;
	return a->seq < b->seq;
}

/*
 * The tuple a rule belongs in, written to tp, and its key (the masked
 * values, nb_words x 8 bytes); false when the rule compares a range or no
 * field at all, or needs more key words than a tuple holds.
 */
bool rule_tuple(const struct rule_def *def, struct tuple *tp, uint64_t *key)
{
	*tp = tuple{};
	for (unsigned i = 0; i < def->nb_items; i++) {
		const struct item &it = def->items[i];
		if (it.nb_ranges != 0 || tp->nb_words + it.nb_words > KEY_WORDS_MAX)
			return false;
		tp->conds[tp->nb_conds++] = {it.layer, it.kind, it.prop_mask, it.prop_val};
		tp->sig_mask |= sig_kind(it.layer, 0xf) | sig_props(it.layer, it.prop_mask);
		tp->sig_val |= sig_kind(it.layer, it.kind) | sig_props(it.layer, it.prop_val);
		for (unsigned w = 0; w < it.nb_words; w++) {
			tp->words[tp->nb_words] = {it.layer, it.words[w].off, it.words[w].size,
						   it.words[w].mask};
			key[tp->nb_words++] = it.words[w].val;
		}
	}
	/* Key lengths of 16-byte multiples have rte_hash's vector compares. */
	tp->key_words = static_cast<uint8_t>((tp->nb_words + 1u) & ~1u);
	return tp->nb_words != 0;
}

bool same_tuple(const struct tuple &a, const struct tuple &b)
{
	if (a.nb_conds != b.nb_conds || a.nb_words != b.nb_words)
		return false;
	for (unsigned i = 0; i < a.nb_conds; i++)
		if (a.conds[i].layer != b.conds[i].layer || a.conds[i].kind != b.conds[i].kind ||
		    a.conds[i].prop_mask != b.conds[i].prop_mask ||
		    a.conds[i].prop_val != b.conds[i].prop_val)
			return false;
	for (unsigned i = 0; i < a.nb_words; i++)
		if (a.words[i].layer != b.words[i].layer || a.words[i].off != b.words[i].off ||
		    a.words[i].size != b.words[i].size || a.words[i].mask != b.words[i].mask)
			return false;
	return true;
}

/* Tuples with at most this many rules are scanned rather than looked up. */
constexpr uint32_t SCAN_MAX = 4;
constexpr uint32_t NO_TUPLE = UINT32_MAX;

/* Per-rule scratch of a build: its tuple and key. */
struct rule_key {
	uint32_t k;     /* index in table.rules */
	uint32_t tuple; /* index in table.tuples */
	uint64_t key[KEY_WORDS_MAX];
};

/*
 * Sort the rules of the tuples into their exact-match tables: rules with the
 * same key share one candidate list. -ENOMEM when a table cannot be made.
 */
int build_tuples(struct zorv_flow_ctx *ctx, struct table *t, struct rule_key *rk, uint32_t nrk)
{
	static std::atomic<uint32_t> serial;
	std::sort(rk, rk + nrk, [](const rule_key &a, const rule_key &b) {
		if (a.tuple != b.tuple)
			return a.tuple < b.tuple;
		int c = memcmp(a.key, b.key, sizeof(a.key));
		return c != 0 ? c < 0 : a.k < b.k;
	});
	uint32_t pos = 0;
	for (uint32_t i = 0; i < nrk;) {
		struct tuple &tp = t->tuples[rk[i].tuple];
		uint32_t end = i;
		while (end < nrk && rk[end].tuple == rk[i].tuple)
			end++;
		char name[RTE_HASH_NAMESIZE];
		snprintf(name, sizeof(name), "zflow_%u", serial.fetch_add(1));
		struct rte_hash_parameters hp = {};
		hp.name = name;
		hp.entries = std::max<uint32_t>(end - i, 8);
		hp.key_len = tp.key_words * 8u;
		hp.hash_func = rte_hash_crc;
		hp.socket_id = ctx->socket;
		tp.h = rte_hash_create(&hp);
		if (tp.h == nullptr)
			return -ENOMEM;
		/* About 16 filter bits per key: few false passes with two bits each. */
		const uint32_t bits = rte_align32pow2(std::max<uint32_t>((end - i) * 16, 512));
		tp.filter = static_cast<uint64_t *>(
			rte_zmalloc_socket("zorv_flow_filter", bits / 8, RTE_CACHE_LINE_SIZE, ctx->socket));
		if (tp.filter == nullptr)
			return -ENOMEM;
		tp.filter_mask = bits - 1;
		while (i < end) {
			uint32_t same = i + 1;
			while (same < end && memcmp(rk[same].key, rk[i].key, sizeof(rk[i].key)) == 0)
				same++;
			uint32_t *list = &t->cands[pos];
			list[0] = same - i;
			for (uint32_t j = i; j < same; j++)
				list[1 + j - i] = rk[j].k;
			pos += 1 + same - i;
			if (rte_hash_add_key_data(tp.h, rk[i].key, list) < 0)
				return -ENOMEM;
			filter_set(&tp, rte_hash_crc(rk[i].key, hp.key_len, 0));
			i = same;
		}
	}
	return 0;
}

} // namespace

void free_table(const struct table *t)
{
	if (t == nullptr)
		return;
	for (uint32_t i = 0; i < t->nb_tuples; i++) {
		rte_hash_free(t->tuples[i].h);
		rte_free(t->tuples[i].filter);
	}
	rte_free(const_cast<struct table *>(t));
}

namespace {

/* Build the table of every rule on ctx->rules; NULL (and 0) when there is none. */
int build_table(struct zorv_flow_ctx *ctx, struct table **out)
{
	*out = nullptr;
	const uint32_t n = ctx->nb_rules;
	if (n == 0)
		return 0;

	/* Groups and tuples: at most one per rule; candidate lists: 2 words per rule. */
	size_t size = RTE_ALIGN_CEIL(sizeof(struct table), 8) + sizeof(struct group) * n +
		      sizeof(struct rte_flow *) * n + sizeof(int32_t) * n;
	size = RTE_ALIGN_CEIL(size, 8) + sizeof(struct tuple) * n + sizeof(uint32_t) * n +
	       sizeof(uint32_t) * 2 * n;
	/* Not zeroed: every part is written below before it is read. */
	auto *mem = static_cast<uint8_t *>(
		rte_malloc_socket("zorv_flow_table", size, RTE_CACHE_LINE_SIZE, ctx->socket));
	if (mem == nullptr)
		return -ENOMEM;
	/* Scratch of the build: each rule's key, and the rules per tuple. */
	auto *rk = static_cast<struct rule_key *>(rte_malloc_socket(
		"zorv_flow_keys", (sizeof(struct rule_key) + sizeof(uint32_t)) * n, 0, ctx->socket));
	if (rk == nullptr) {
		rte_free(mem);
		return -ENOMEM;
	}
	auto *tcount = reinterpret_cast<uint32_t *>(rk + n);
	auto *t = new (mem) table{};
	/* The pointers first, where the alignment of the start holds for them. */
	uint8_t *p = mem + RTE_ALIGN_CEIL(sizeof(struct table), 8);
	t->rules = reinterpret_cast<struct rte_flow **>(p);
	p += sizeof(struct rte_flow *) * n;
	t->groups = reinterpret_cast<struct group *>(p);
	p += sizeof(struct group) * n;
	t->jump = reinterpret_cast<int32_t *>(p);
	p += sizeof(int32_t) * n;
	p = mem + RTE_ALIGN_CEIL(static_cast<size_t>(p - mem), 8);
	t->tuples = reinterpret_cast<struct tuple *>(p);
	p += sizeof(struct tuple) * n;
	t->rest = reinterpret_cast<uint32_t *>(p);
	p += sizeof(uint32_t) * n;
	t->cands = reinterpret_cast<uint32_t *>(p);

	uint32_t i = 0;
	struct rte_flow *r;
	bool vxlan = false;
	TAILQ_FOREACH(r, &ctx->rules, next) {
		t->rules[i++] = r;
		vxlan |= r->def.needs_vxlan || (r->def.act.fate == F_RSS && r->def.act.rss_level == 2);
	}
	t->nb_rules = n;
	std::sort(t->rules, t->rules + n, rule_before);

	t->group0 = -1;
	for (i = 0; i < n; i++) {
		uint32_t gid = t->rules[i]->def.group;
		if (t->nb_groups == 0 || t->groups[t->nb_groups - 1].id != gid) {
			if (gid == 0)
				t->group0 = static_cast<int32_t>(t->nb_groups);
			t->groups[t->nb_groups++] = group{gid, i, 0, 0, 0, 0, 0};
		}
		t->groups[t->nb_groups - 1].count++;
	}
	for (i = 0; i < n; i++) {
		const struct actions &a = t->rules[i]->def.act;
		t->jump[i] = -1;
		if (a.fate != F_JUMP)
			continue;
		for (uint32_t g = 0; g < t->nb_groups; g++)
			if (t->groups[g].id == a.jump_group)
				t->jump[i] = static_cast<int32_t>(g);
	}

	/*
	 * Tuples of each group, and the rules that stay to be scanned: those no
	 * tuple can hold and those of tuples too small to be worth a lookup.
	 */
	uint32_t nrk = 0, nrest = 0;
	for (uint32_t g = 0; g < t->nb_groups; g++) {
		struct group &gr = t->groups[g];
		const uint32_t first_rk = nrk;
		gr.first_tuple = t->nb_tuples;
		gr.first_rest = nrest;
		for (uint32_t k = gr.first; k < gr.first + gr.count; k++) {
			struct tuple tp;
			struct rule_key &e = rk[nrk++];
			memset(e.key, 0, sizeof(e.key));
			e.k = k;
			e.tuple = NO_TUPLE;
			if (!rule_tuple(&t->rules[k]->def, &tp, e.key))
				continue;
			uint32_t ti = gr.first_tuple;
			while (ti < t->nb_tuples && !same_tuple(t->tuples[ti], tp))
				ti++;
			if (ti == t->nb_tuples) {
				t->tuples[t->nb_tuples++] = tp;
				tcount[ti] = 0;
			}
			tcount[ti]++;
			e.tuple = ti;
		}
		/* Keep the tuples with more than SCAN_MAX rules; tcount becomes the new index. */
		uint32_t w = gr.first_tuple;
		for (uint32_t ti = gr.first_tuple; ti < t->nb_tuples; ti++) {
			if (tcount[ti] <= SCAN_MAX) {
				tcount[ti] = NO_TUPLE;
				continue;
			}
			t->tuples[w] = t->tuples[ti];
			tcount[ti] = w++;
		}
		t->nb_tuples = w;
		uint32_t kept = first_rk;
		for (uint32_t j = first_rk; j < nrk; j++) {
			const uint32_t nt = rk[j].tuple == NO_TUPLE ? NO_TUPLE : tcount[rk[j].tuple];
			if (nt == NO_TUPLE) {
				t->rest[nrest++] = rk[j].k;
				continue;
			}
			rk[j].tuple = nt;
			rk[kept++] = rk[j];
		}
		nrk = kept;
		gr.nb_tuples = t->nb_tuples - gr.first_tuple;
		gr.nb_rest = nrest - gr.first_rest;
	}
	int ret = build_tuples(ctx, t, rk, nrk);
	rte_free(rk);
	if (ret < 0) {
		free_table(t);
		return ret;
	}

	t->nb_vxlan = ctx->nb_vxlan_ports;
	for (i = 0; i < ctx->nb_vxlan_ports; i++)
		t->vxlan_ports[i] = rte_cpu_to_be_16(ctx->vxlan_ports[i]);
	t->parse_vxlan = vxlan && ctx->nb_vxlan_ports != 0;
	*out = t;
	return 0;
}

/* Make t the table of the port and free the previous one after a grace period. */
void publish(struct zorv_flow_ctx *ctx, struct table *t)
{
	const struct table *old = ctx->table.exchange(t, std::memory_order_seq_cst);
	if (t != nullptr)
		__atomic_fetch_or(&ctx->priv->flags, ZORV_FLOW_F_RULES, __ATOMIC_RELEASE);
	else
		__atomic_fetch_and(&ctx->priv->flags, ~ZORV_FLOW_F_RULES, __ATOMIC_RELEASE);
	sync_readers(ctx);
	free_table(old);
}

/* Rebuild from ctx->rules and publish; -ENOMEM leaves the current table. */
int republish(struct zorv_flow_ctx *ctx)
{
	struct table *t;
	int ret = build_table(ctx, &t);
	if (ret < 0)
		return ret;
	publish(ctx, t);
	return 0;
}

void free_rule(struct rte_flow *r)
{
	release_rule_def(&r->def);
	r->~rte_flow();
	rte_free(r);
}

struct rte_flow *find_rule(struct zorv_flow_ctx *ctx, const struct rte_flow *flow)
{
	struct rte_flow *r;
	TAILQ_FOREACH(r, &ctx->rules, next)
		if (r == flow)
			return r;
	return nullptr;
}

/* Take every rule off (ctx->lock held): publish no table, then free them. */
void flush_locked(struct zorv_flow_ctx *ctx)
{
	publish(ctx, nullptr);
	struct rte_flow *r;
	while ((r = TAILQ_FIRST(&ctx->rules)) != nullptr) {
		TAILQ_REMOVE(&ctx->rules, r, next);
		free_rule(r);
	}
	ctx->nb_rules = 0;
}

/* ---- rte_flow operations ---- */

int flow_validate(struct rte_eth_dev *dev, const struct rte_flow_attr *attr,
		  const struct rte_flow_item pattern[], const struct rte_flow_action actions[],
		  struct rte_flow_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	struct rule_def *def = static_cast<struct rule_def *>(
		rte_malloc("zorv_flow_def", sizeof(struct rule_def), 0));
	if (def == nullptr)
		return rte_flow_error_set(error, ENOMEM, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
					  "no memory to check the rule");
	int ret = compile_rule(ctx, dev, attr, pattern, actions, def, false, error);
	rte_free(def);
	return ret;
}

struct rte_flow *flow_create(struct rte_eth_dev *dev, const struct rte_flow_attr *attr,
			     const struct rte_flow_item pattern[],
			     const struct rte_flow_action actions[], struct rte_flow_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr) {
		no_ctx(error);
		return nullptr;
	}

	zorv_mutex_guard guard(ctx->lock);
	void *mem = rte_zmalloc_socket("zorv_flow_rule", sizeof(struct rte_flow),
				       RTE_CACHE_LINE_SIZE, ctx->socket);
	if (mem == nullptr) {
		rte_flow_error_set(error, ENOMEM, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
				   "no memory for the rule");
		return nullptr;
	}
	auto *r = new (mem) rte_flow{};
	if (compile_rule(ctx, dev, attr, pattern, actions, &r->def, true, error) < 0) {
		r->~rte_flow();
		rte_free(mem);
		return nullptr;
	}
	r->ctx = ctx;
	r->seq = ctx->next_seq++;
	TAILQ_INSERT_TAIL(&ctx->rules, r, next);
	ctx->nb_rules++;
	if (republish(ctx) < 0) {
		TAILQ_REMOVE(&ctx->rules, r, next);
		ctx->nb_rules--;
		free_rule(r);
		rte_flow_error_set(error, ENOMEM, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
				   "no memory for the rule table");
		return nullptr;
	}
	ZORV1_VDEV_LOG(DEBUG, "port %u: flow rule %p created in group %u priority %u\n",
		       ctx->port_id, static_cast<void *>(r), r->def.group, r->def.priority);
	return r;
}

int flow_destroy(struct rte_eth_dev *dev, struct rte_flow *flow, struct rte_flow_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	struct rte_flow *r = find_rule(ctx, flow);
	if (r == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_HANDLE, flow,
					  "no such flow rule on this port");
	TAILQ_REMOVE(&ctx->rules, r, next);
	ctx->nb_rules--;
	struct table *t;
	if (build_table(ctx, &t) < 0) {
		TAILQ_INSERT_TAIL(&ctx->rules, r, next);
		ctx->nb_rules++;
		return rte_flow_error_set(error, ENOMEM, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
					  "no memory for the rule table");
	}
	publish(ctx, t);
	free_rule(r);
	ZORV1_VDEV_LOG(DEBUG, "port %u: flow rule %p destroyed\n", ctx->port_id,
		       static_cast<void *>(flow));
	return 0;
}

int flow_flush(struct rte_eth_dev *dev, struct rte_flow_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	flush_locked(ctx);
	return 0;
}

int flow_query(struct rte_eth_dev *dev, struct rte_flow *flow, const struct rte_flow_action *action,
	       void *data, struct rte_flow_error *error)
{
	struct zorv_flow_ctx *ctx = ctx_of(dev);
	if (ctx == nullptr)
		return no_ctx(error);

	zorv_mutex_guard guard(ctx->lock);
	struct rte_flow *r = find_rule(ctx, flow);
	if (r == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_HANDLE, flow,
					  "no such flow rule on this port");
	if (action == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION, nullptr,
					  "no action to query");
	if (action->type != RTE_FLOW_ACTION_TYPE_COUNT)
		return rte_flow_error_set(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, action,
					  "only COUNT can be queried");
	if (!r->def.act.count)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION, action,
					  "the rule has no COUNT action");
	auto *q = static_cast<struct rte_flow_query_count *>(data);
	if (q == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
					  "no query record");
	if (q->reset) {
		q->hits = r->hits.exchange(0, std::memory_order_relaxed);
		q->bytes = r->bytes.exchange(0, std::memory_order_relaxed);
	} else {
		q->hits = r->hits.load(std::memory_order_relaxed);
		q->bytes = r->bytes.load(std::memory_order_relaxed);
	}
	q->hits_set = 1;
	q->bytes_set = 1;
	return 0;
}

int flow_isolate(struct rte_eth_dev *, int, struct rte_flow_error *error)
{
	return rte_flow_error_set(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_UNSPECIFIED, nullptr,
				  "isolated mode is not supported: unmatched traffic always reaches the port");
}

const struct rte_flow_ops flow_ops = {
	.validate = flow_validate,
	.create = flow_create,
	.destroy = flow_destroy,
	.flush = flow_flush,
	.query = flow_query,
	.isolate = flow_isolate,
};

} // namespace

struct zorv_flow_ctx *ctx_of(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = internal_of(dev);
	if (internal == NULL)
		return NULL;
	return static_cast<struct zorv_flow_ctx *>(internal->comm.flow_data.ctx);
}

} // namespace zorv_flow

extern "C" {

/*
 * Give the port its vNIC id (ethdev port id + 1, unique among live ports)
 * with a fresh firmware state, and, when enable is non-zero, a flow context.
 * A second call keeps the existing context. 0 on success, -EINVAL without a
 * port record, -ENOMEM when the context cannot be allocated (the port keeps
 * its vNIC id and works without flow rules).
 */
int zorv_flow_resource_init(struct rte_eth_dev *dev, int enable)
{
	struct zorv1_internal *internal = zorv_flow::internal_of(dev);

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

	void *mem = rte_zmalloc_socket("zorv_flow_ctx", sizeof(struct zorv_flow_ctx),
				       RTE_CACHE_LINE_SIZE, dev->data->numa_node);
	if (mem == NULL) {
		ZORV1_VDEV_LOG(ERR, "no memory for the flow context of port %u\n", port_id);
		return -ENOMEM;
	}
	auto *ctx = new (mem) zorv_flow_ctx{};
	pthread_mutex_init(&ctx->lock, NULL);
	ctx->priv = priv;
	ctx->port_id = port_id;
	ctx->socket = dev->data->numa_node;
	TAILQ_INIT(&ctx->rules);
	TAILQ_INIT(&ctx->meters);
	TAILQ_INIT(&ctx->profiles);
	TAILQ_INIT(&ctx->policies);
	priv->ctx = ctx;
	__atomic_fetch_or(&priv->flags, ZORV_FLOW_F_ACTIVE, __ATOMIC_RELEASE);
	return 0;
}

/*
 * Freeing the port's flow resources is the first thing the port's close
 * does with the family before it takes the family mutex to unregister its
 * interface: the card lets go of the interface here (zorv_vhost_card.h,
 * "Unregistering"). A build of the flow engine without the card (its own
 * tests) has nothing to let go of.
 */
extern "C" __attribute__((weak)) int zorv_card_iface_release(const char *iface)
{
	(void)iface;
	return -1;
}

/*
 * Free the port's flow context with every rule, meter, profile and policy.
 * The port's receive queues are stopped by then (close stops the port
 * first). Freeing a port that has none is not an error: 0. -EINVAL only
 * without a port record.
 */
int zorv_flow_resource_free(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = zorv_flow::internal_of(dev);

	if (internal == NULL)
		return -EINVAL;
	if (internal->iface_name != NULL)
		zorv_card_iface_release(internal->iface_name);

	struct zorv_flow_priv *priv = &internal->comm.flow_data;
	auto *ctx = static_cast<struct zorv_flow_ctx *>(priv->ctx);
	if (ctx != NULL) {
		pthread_mutex_lock(&ctx->lock);
		zorv_flow::flush_locked(ctx);
		zorv_flow::mtr_free_all(ctx);
		pthread_mutex_unlock(&ctx->lock);
		pthread_mutex_destroy(&ctx->lock);
		ctx->~zorv_flow_ctx();
		rte_free(ctx);
	}
	priv->ctx = NULL;
	__atomic_fetch_and(&priv->flags, ~(ZORV_FLOW_F_ACTIVE | ZORV_FLOW_F_RULES),
			   __ATOMIC_RELEASE);
	return 0;
}

/*
 * Announce a VXLAN UDP port: frames to it are parsed as VXLAN and pattern
 * items can look inside. 0 when recorded (or already known); -EINVAL for a
 * missing argument, port 0 or another tunnel type; -ENODEV without a flow
 * context; -ENOSPC when the port already has ZORV_FLOW_MAX_VXLAN_PORTS;
 * -ENOMEM when the rule table could not be rebuilt (the port is not added).
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

	struct zorv_flow_ctx *ctx = zorv_flow::ctx_of(dev);
	if (ctx == NULL)
		return -ENODEV;
	zorv_mutex_guard guard(ctx->lock);
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
	if (zorv_flow::republish(ctx) < 0) {
		ctx->nb_vxlan_ports--;
		return -ENOMEM;
	}
	ZORV1_VDEV_LOG(INFO, "port %u: vxlan udp port %u added\n", ctx->port_id,
		       tunnel->udp_port);
	return 0;
}

int zorv_dev_flow_ops_get(struct rte_eth_dev *dev, const struct rte_flow_ops **ops)
{
	(void)dev;
	if (ops == NULL)
		return -EINVAL;
	*ops = &zorv_flow::flow_ops;
	return 0;
}

int zorv_flow_get_vxlan_ports(struct rte_eth_dev *dev, uint16_t *ports, int max)
{
	if (dev == NULL || (ports == NULL && max > 0) || max < 0)
		return -EINVAL;

	struct zorv_flow_ctx *ctx = zorv_flow::ctx_of(dev);
	if (ctx == NULL)
		return 0;
	zorv_mutex_guard guard(ctx->lock);
	for (int i = 0; i < ctx->nb_vxlan_ports && i < max; i++)
		ports[i] = ctx->vxlan_ports[i];
	return ctx->nb_vxlan_ports;
}

int zorv_flow_stats_get(struct rte_eth_dev *dev, struct zorv_flow_stats *stats)
{
	if (dev == NULL || stats == NULL)
		return -EINVAL;
	struct zorv_flow_ctx *ctx = zorv_flow::ctx_of(dev);
	if (ctx == NULL)
		return -ENODEV;
	stats->classified = ctx->st_classified.load(std::memory_order_relaxed);
	stats->dropped = ctx->st_dropped.load(std::memory_order_relaxed);
	stats->steered = ctx->st_steered.load(std::memory_order_relaxed);
	stats->ring_full = ctx->st_ring_full.load(std::memory_order_relaxed);
	stats->no_queue = ctx->st_no_queue.load(std::memory_order_relaxed);
	return 0;
}

} // extern "C"
