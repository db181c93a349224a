/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine internals: the per-port flow context, compiled rules, rule
 * tables, meters, and the entry points the engine's sources share (and its
 * tests drive with a chosen time).
 *
 * Ownership:
 *   - zorv_flow_ctx (zorv_flow_priv.ctx) owns every rule, meter, meter
 *     profile and policy of the port, on control-side lists guarded by
 *     ctx->lock.
 *   - The published table (ctx->table) holds pointers to rules, read by the
 *     data path. A rule leaves the lists at once when it is destroyed but is
 *     freed only after the next grace period (zorv_flow::sync_readers()).
 *   - A rule holds a reference on its meter; a meter on its profile and its
 *     policy. Objects with references cannot be deleted (EBUSY).
 */
#ifndef ZORV_FLOW_INTERNAL_H
#define ZORV_FLOW_INTERNAL_H

#include <pthread.h>
#include <stdint.h>
#include <sys/queue.h>

#include <atomic>

#include <rte_flow.h>
#include <rte_meter.h>
#include <rte_mtr.h>
#include <rte_pause.h>

#include "zorv1_common.h"
#include "zorv_flow.h"

struct rte_eth_dev;
struct rte_flow_error;
struct rte_mtr_error;

namespace zorv_flow {

/* Header positions a frame is parsed into; a pattern item matches one. */
enum layer : uint8_t {
	L_ETH = 0,
	L_VLAN0,
	L_VLAN1,
	L_L3,
	L_L4,
	L_VXLAN,
	L_IETH, /* inner frame of a VXLAN tunnel */
	L_IVLAN0,
	L_IVLAN1,
	L_IL3,
	L_IL4,
	L_MAX,
};

/* Protocol found at a layer (0: nothing there). */
enum kind : uint8_t {
	K_NONE = 0,
	K_ETH,
	K_VLAN,
	K_IPV4,
	K_IPV6,
	K_UDP,
	K_TCP,
	K_VXLAN,
};

/* Frame properties a pattern can ask for besides header bytes. */
enum prop : uint16_t {
	P_VLAN = 1u << 0,       /* at least one VLAN tag (ETH has_vlan) */
	P_MORE_VLAN0 = 1u << 1, /* a tag after the first one (VLAN#0 has_more_vlan) */
	P_MORE_VLAN1 = 1u << 2, /* a tag after the second one */
	P_V6_HOP = 1u << 3,     /* IPv6 extension headers present */
	P_V6_ROUTE = 1u << 4,
	P_V6_FRAG = 1u << 5,
	P_V6_AUTH = 1u << 6,
	P_V6_DEST = 1u << 7,
};

/* Longest header an item compares (IPv6). */
constexpr unsigned HDR_MAX = 40;
/* Ranges (spec..last) one item can hold. */
constexpr unsigned RANGES_MAX = 6;
/* Pattern items of a rule, VOID excluded. */
constexpr unsigned ITEMS_MAX = 12;
/* Bytes of a frame the parser looks at. */
constexpr unsigned PARSE_WINDOW = 256;
/* RSS key length (Toeplitz). */
constexpr unsigned RSS_KEY_LEN = 40;

/* One field compared as a range of big-endian values. */
struct range {
	uint8_t off;  /* offset in the header */
	uint8_t size; /* field length, 1..16 */
	uint8_t mask[16];
	uint8_t lo[16]; /* spec & mask */
	uint8_t hi[16]; /* last & mask */
};

/* Up to 8 header bytes compared at once: (load(hdr + off) & mask) == val. */
struct word {
	uint8_t off;  /* offset in the header */
	uint8_t size; /* 8, or 4 for the 4-byte VLAN tag */
	uint64_t mask;
	uint64_t val;
};

/* Words an item can need (HDR_MAX / 8). */
constexpr unsigned WORDS_MAX = HDR_MAX / 8;

/* A compiled pattern item. */
struct item {
	uint8_t layer;      /* enum layer */
	uint8_t kind;       /* enum kind the layer must hold */
	uint8_t nb_ranges;
	uint16_t prop_mask; /* enum prop bits looked at, prop_val their values */
	uint16_t prop_val;
	uint8_t nb_words;
	uint8_t mask[HDR_MAX]; /* exact part: (hdr & mask) == val */
	uint8_t val[HDR_MAX];
	struct word words[WORDS_MAX]; /* the exact part, as the classifier runs it */
	struct range ranges[RANGES_MAX];
};

/* What a matching rule does with the frame at the end. */
enum fate : uint8_t {
	F_DEFAULT = 0, /* no fate action: the frame stays where it was received */
	F_DROP,
	F_QUEUE,
	F_RSS,
	F_JUMP,
	F_PASSTHRU, /* non-terminating: the next rules of the group still apply */
};

struct meter;

/* Compiled actions of a rule. */
struct actions {
	uint8_t fate;        /* enum fate */
	bool mark;           /* MARK: hash.fdir.hi = mark_id, FDIR | FDIR_ID */
	bool flag;           /* FLAG: FDIR */
	bool count;          /* COUNT */
	bool count_after_meter; /* COUNT listed after METER: a meter drop is not counted */
	uint32_t mark_id;
	uint32_t count_id;
	uint16_t queue;      /* QUEUE */
	uint32_t jump_group; /* JUMP */
	struct meter *meter; /* METER (referenced) */
	uint32_t meter_id;
	/* RSS */
	uint8_t rss_level;   /* 0/1 outermost headers, 2 the VXLAN inner frame */
	uint64_t rss_types;  /* RTE_ETH_RSS_* taken into the hash */
	uint16_t rss_queue_num; /* 0: every receive queue of the port */
	uint16_t *rss_queues;   /* rss_queue_num entries (owned by the rule) */
	uint8_t rss_key[RSS_KEY_LEN];
};

/* A rule as compiled from attributes, pattern and actions. */
struct rule_def {
	uint32_t group;
	uint32_t priority;
	uint8_t nb_items;
	bool needs_vxlan; /* pattern looks into a VXLAN tunnel */
	struct item items[ITEMS_MAX];
	struct actions act;
};

} // namespace zorv_flow

/* A flow rule: the rte_flow handle given to the application. */
struct rte_flow {
	TAILQ_ENTRY(rte_flow) next;       /* ctx->rules, in creation order */
	struct zorv_flow_ctx *ctx;        /* owner */
	uint64_t seq;                     /* creation order: ties of priority */
	std::atomic<uint64_t> hits;       /* COUNT */
	std::atomic<uint64_t> bytes;
	struct zorv_flow::rule_def def;   /* immutable once created */
};

namespace zorv_flow {

/* Meter profile. */
struct profile {
	TAILQ_ENTRY(profile) next;
	uint32_t id;
	uint32_t refcnt; /* meters using it */
	enum rte_mtr_algorithm alg;
	struct rte_mtr_meter_profile params; /* as given */
	union {
		struct rte_meter_srtcm_profile sr;
		struct rte_meter_trtcm_profile tr;
	};
};

/* Meter policy: per colour, drop or let the frame go on. */
struct policy {
	TAILQ_ENTRY(policy) next;
	uint32_t id;
	uint32_t refcnt; /* meters using it */
	bool drop[RTE_COLORS];
};

/*
 * Spinlock of a meter: a test-and-set flag, so that thread checkers see the
 * ordering it gives. Held for a token-bucket update or a control change.
 */
class spinlock {
public:
	void lock()
	{
		while (flag_.test_and_set(std::memory_order_acquire))
			rte_pause();
	}
	void unlock() { flag_.clear(std::memory_order_release); }

private:
	std::atomic_flag flag_; /* clear when constructed (C++20) */
};

/* Meter (MTR object). Data-path state is changed under lock only. */
struct meter {
	TAILQ_ENTRY(meter) next;
	uint32_t id;
	uint32_t refcnt; /* rules using it (control side) */
	int shared;
	class spinlock lock;
	/* below: under lock */
	struct profile *prof;
	struct policy *pol;
	bool enabled;
	uint64_t stats_mask;
	union {
		struct rte_meter_srtcm sr;
		struct rte_meter_trtcm tr;
	};
	struct rte_mtr_stats stats;
};

/* Key words one tuple can hold (8 bytes each); wider rules are scanned. */
constexpr unsigned KEY_WORDS_MAX = 8;
/* Candidate rules a frame collects in one group; beyond, the group is scanned. */
constexpr unsigned CANDS_MAX = 32;

/*
 * A tuple of a group: the rules whose patterns look at the same header
 * fields with the same masks (and ask for the same protocols and frame
 * properties) and compare no range. They differ only in the values, so one
 * exact-match table finds, for a frame, the only rules of the tuple that can
 * match it: those whose values equal the frame's masked fields.
 */
struct tuple_cond {
	uint8_t layer;      /* enum layer */
	uint8_t kind;       /* enum kind the layer must hold */
	uint16_t prop_mask; /* enum prop bits looked at, prop_val their values */
	uint16_t prop_val;
};

struct tuple_word {
	uint8_t layer; /* enum layer */
	uint8_t off;   /* offset in the header */
	uint8_t size;  /* bytes read: 8, or 4 */
	uint64_t mask;
};

/*
 * What a frame holds, in one word: the kind found at each layer (4 bits
 * each) and the frame properties of the outer and inner frame (8 bits
 * each). A tuple applies to a frame when (sig & sig_mask) == sig_val.
 */
constexpr unsigned SIG_PROPS_SHIFT = 4 * L_MAX;
static_assert(SIG_PROPS_SHIFT + 16 <= 64 && K_VXLAN < 16, "a frame's signature fits a word");

inline uint64_t sig_kind(unsigned layer, uint64_t kind)
{
	return kind << (4 * layer);
}

inline uint64_t sig_props(unsigned layer, uint64_t props)
{
	return (props & 0xff) << (SIG_PROPS_SHIFT + (layer >= L_IETH ? 8 : 0));
}

struct tuple {
	uint64_t sig_mask; /* the frame signature bits the tuple looks at */
	uint64_t sig_val;  /* and their values */
	uint8_t nb_conds;
	uint8_t nb_words;
	uint8_t key_words; /* nb_words rounded up to even: keys of 16, 32, 48 or 64 bytes */
	struct tuple_cond conds[ITEMS_MAX];
	struct tuple_word words[KEY_WORDS_MAX];
	/*
	 * Masked values (nb_words x 8 bytes) -> candidate list: the number of
	 * rules, then their indexes in table.rules, ascending.
	 */
	struct rte_hash *h;
	/*
	 * Two bits per key, chosen by the key's hash, set for every key of the
	 * table: a frame whose bits are not both set has no entry, and most
	 * frames that match no rule are turned away without a table lookup.
	 */
	uint64_t *filter;
	uint32_t filter_mask; /* bits in filter - 1 (a power of two - 1) */
};

/* The filter's two bits of a hash. */
inline bool filter_test(const struct tuple &tp, uint32_t hash)
{
	const uint32_t b1 = hash & tp.filter_mask;
	const uint32_t b2 = ((hash >> 16) | (hash << 16)) * 0x9e3779b1u >> 7 & tp.filter_mask;
	return (tp.filter[b1 / 64] >> (b1 % 64) & 1) != 0 && (tp.filter[b2 / 64] >> (b2 % 64) & 1) != 0;
}

inline void filter_set(struct tuple *tp, uint32_t hash)
{
	const uint32_t b1 = hash & tp->filter_mask;
	const uint32_t b2 = ((hash >> 16) | (hash << 16)) * 0x9e3779b1u >> 7 & tp->filter_mask;
	tp->filter[b1 / 64] |= 1ULL << (b1 % 64);
	tp->filter[b2 / 64] |= 1ULL << (b2 % 64);
}

/*
 * A group of the table: rules[first .. first + count), best priority first;
 * its tuples tuples[first_tuple ..] and the rules no tuple holds (ranges,
 * no compared field), rest[first_rest ..], ascending.
 */
struct group {
	uint32_t id;
	uint32_t first;
	uint32_t count;
	uint32_t first_tuple;
	uint32_t nb_tuples;
	uint32_t first_rest;
	uint32_t nb_rest;
};

/* Immutable rule table, read by the data path. One allocation. */
struct table {
	uint32_t nb_rules;
	uint32_t nb_groups;
	int32_t group0;  /* index of group 0 in groups, or -1 */
	uint16_t nb_vxlan;
	uint16_t vxlan_ports[ZORV_FLOW_MAX_VXLAN_PORTS]; /* network byte order */
	bool parse_vxlan; /* some rule looks into VXLAN */
	struct group *groups;     /* nb_groups, sorted by id */
	struct rte_flow **rules;  /* nb_rules, by group, priority, creation */
	int32_t *jump;            /* per rule: index of the JUMP target group, or -1 */
	uint32_t nb_tuples;
	struct tuple *tuples;     /* nb_tuples, by group */
	uint32_t *rest;           /* per group, the rules outside its tuples */
	uint32_t *cands;          /* the tuples' candidate lists */
};

/* Reader slot of one receive queue: odd while a burst uses the table. */
struct alignas(64) reader {
	std::atomic<uint64_t> seq;
};

/* Receive queues that can classify (a port has at most this many). */
constexpr unsigned READERS_MAX = 1024;

} // namespace zorv_flow

TAILQ_HEAD(zorv_flow_rule_list, rte_flow);
TAILQ_HEAD(zorv_flow_meter_list, zorv_flow::meter);
TAILQ_HEAD(zorv_flow_profile_list, zorv_flow::profile);
TAILQ_HEAD(zorv_flow_policy_list, zorv_flow::policy);

/* Per-port flow context (zorv_flow_priv.ctx). */
struct zorv_flow_ctx {
	/* data path */
	std::atomic<const struct zorv_flow::table *> table; /* NULL: no rule */
	struct zorv_flow_priv *priv; /* the port's record (flags) */
	std::atomic<uint64_t> st_classified;
	std::atomic<uint64_t> st_dropped;
	std::atomic<uint64_t> st_steered;
	std::atomic<uint64_t> st_ring_full;
	std::atomic<uint64_t> st_no_queue;
	/* control path, under lock */
	pthread_mutex_t lock;
	uint16_t port_id;
	int socket;
	uint64_t next_seq;
	uint16_t nb_vxlan_ports;
	uint16_t vxlan_ports[ZORV_FLOW_MAX_VXLAN_PORTS]; /* host byte order */
	struct zorv_flow_rule_list rules;
	uint32_t nb_rules;
	struct zorv_flow_meter_list meters;
	struct zorv_flow_profile_list profiles;
	struct zorv_flow_policy_list policies;
	struct zorv_flow::reader readers[zorv_flow::READERS_MAX];
};

namespace zorv_flow {

/* Flow context of a port, or NULL. */
struct zorv_flow_ctx *ctx_of(struct rte_eth_dev *dev);

/*
 * Compile attributes, pattern and actions into def. Checks everything,
 * including the port's queues, VXLAN ports and meters (ctx->lock held).
 * Takes a reference on the meter and allocates the RSS queue list only
 * when take is true (create); 0 or a negative errno with error set.
 */
int compile_rule(struct zorv_flow_ctx *ctx, struct rte_eth_dev *dev,
		 const struct rte_flow_attr *attr, const struct rte_flow_item pattern[],
		 const struct rte_flow_action actions[], struct rule_def *def, bool take,
		 struct rte_flow_error *error);

/* Drop what compile_rule(take = true) took. */
void release_rule_def(struct rule_def *def);

/* Classify with a given TSC time (meters); the body of zorv_flow_classify(). */
uint16_t classify_at(struct zorv_flow_ctx *ctx, uint16_t nb_rx_queues, struct rte_mbuf **pkts,
		     uint16_t n, uint16_t this_queue, uint16_t *verdicts, uint64_t now);

/* Meter a frame of len bytes at time now: its colour, or -1 to drop. */
int meter_frame(struct meter *m, uint32_t len, uint64_t now);

/* Find a meter by id (ctx->lock held). */
struct meter *meter_find(struct zorv_flow_ctx *ctx, uint32_t id);

/* Free every meter, profile and policy (no rule left; ctx->lock held). */
void mtr_free_all(struct zorv_flow_ctx *ctx);

/* Free a table and its tuples' hash tables (no reader may still use it). */
void free_table(const struct table *t);

/* Wait until no queue still classifies with a table published before. */
void sync_readers(struct zorv_flow_ctx *ctx);

/* Constant message "<what> type <NAME> not supported" for an item/action type. */
const char *item_unsupported_msg(enum rte_flow_item_type type);
const char *action_unsupported_msg(enum rte_flow_action_type type);

} // namespace zorv_flow

#endif /* ZORV_FLOW_INTERNAL_H */
