/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: checking an rte_flow rule and compiling it into the form the
 * receive classifier runs (zorv_flow::rule_def).
 *
 * Pattern: items are stacked from the lowest layer up. Each item is given
 * the header position it matches (outer ETH, VLAN, VLAN, L3, L4, VXLAN, then
 * the same for the frame inside the tunnel). Lower layers may be left out at
 * the bottom of the stack (a pattern starting with IPV4 matches the outer
 * IPv4 header of any frame); a gap in the middle is refused. ETH without a
 * VLAN item matches tagged and untagged frames alike; the L3 item matches
 * the header after all the tags.
 *
 * spec/last/mask: header fields compare (frame & mask) with (spec & mask).
 * A field whose last is neither 0 nor equal to spec is a range: the masked
 * field, read as a big-endian number, must lie within spec..last.
 *
 * Everything the engine cannot do is refused with the error type of the
 * offending object, that object as the cause and a message naming it.
 */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <ethdev_driver.h>
#include <rte_byteorder.h>
#include <rte_flow.h>
#include <rte_flow_driver.h>
#include <rte_malloc.h>

#include "zorv_flow_internal.h"

namespace zorv_flow {

namespace {

/* A header field: offset and length in the header. */
struct field {
	uint8_t off;
	uint8_t size;
};

constexpr field ETH_FIELDS[] = {{0, 6}, {6, 6}, {12, 2}};
constexpr field VLAN_FIELDS[] = {{0, 2}, {2, 2}};
constexpr field IPV4_FIELDS[] = {{0, 1}, {1, 1}, {2, 2},  {4, 2},  {6, 2},
				 {8, 1}, {9, 1}, {10, 2}, {12, 4}, {16, 4}};
constexpr field IPV6_FIELDS[] = {{0, 4}, {4, 2}, {6, 1}, {7, 1}, {8, 16}, {24, 16}};
constexpr field UDP_FIELDS[] = {{0, 2}, {2, 2}, {4, 2}, {6, 2}};
constexpr field TCP_FIELDS[] = {{0, 2},  {2, 2},  {4, 4},  {8, 4}, {12, 1},
				{13, 1}, {14, 2}, {16, 2}, {18, 2}};
constexpr field VXLAN_FIELDS[] = {{0, 1}, {1, 3}, {4, 3}, {7, 1}};

/* Default masks of the items (DPDK defines its own for C only). */
constexpr uint8_t ETH_DEFAULT_MASK[14] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
					  0xff, 0xff, 0xff, 0xff, 0xff, 0x00, 0x00};
constexpr uint8_t VLAN_DEFAULT_MASK[4] = {0x0f, 0xff, 0x00, 0x00};
constexpr uint8_t IPV4_DEFAULT_MASK[20] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
					   0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr uint8_t IPV6_DEFAULT_MASK[40] = {
	0,    0,    0,    0,    0,    0,    0,    0,    0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
	0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
	0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr uint8_t L4_PORTS_DEFAULT_MASK[20] = {0xff, 0xff, 0xff, 0xff};
constexpr uint8_t VXLAN_DEFAULT_MASK[8] = {0, 0, 0, 0, 0xff, 0xff, 0xff, 0};

/* What the engine knows of an item type. */
struct item_desc {
	uint8_t kind;
	uint8_t hdr_len;            /* header bytes at the start of the item struct */
	const field *fields;
	uint8_t nb_fields;
	const uint8_t *default_mask; /* hdr_len bytes */
};

template <size_t N>
constexpr item_desc desc(uint8_t kind, uint8_t len, const field (&f)[N], const uint8_t *mask)
{
	return item_desc{kind, len, f, static_cast<uint8_t>(N), mask};
}

const item_desc *describe(enum rte_flow_item_type type)
{
	static constexpr item_desc eth = desc(K_ETH, 14, ETH_FIELDS, ETH_DEFAULT_MASK);
	static constexpr item_desc vlan = desc(K_VLAN, 4, VLAN_FIELDS, VLAN_DEFAULT_MASK);
	static constexpr item_desc ipv4 = desc(K_IPV4, 20, IPV4_FIELDS, IPV4_DEFAULT_MASK);
	static constexpr item_desc ipv6 = desc(K_IPV6, 40, IPV6_FIELDS, IPV6_DEFAULT_MASK);
	static constexpr item_desc udp = desc(K_UDP, 8, UDP_FIELDS, L4_PORTS_DEFAULT_MASK);
	static constexpr item_desc tcp = desc(K_TCP, 20, TCP_FIELDS, L4_PORTS_DEFAULT_MASK);
	static constexpr item_desc vxlan = desc(K_VXLAN, 8, VXLAN_FIELDS, VXLAN_DEFAULT_MASK);

	switch (type) {
	case RTE_FLOW_ITEM_TYPE_ETH: return &eth;
	case RTE_FLOW_ITEM_TYPE_VLAN: return &vlan;
	case RTE_FLOW_ITEM_TYPE_IPV4: return &ipv4;
	case RTE_FLOW_ITEM_TYPE_IPV6: return &ipv6;
	case RTE_FLOW_ITEM_TYPE_UDP: return &udp;
	case RTE_FLOW_ITEM_TYPE_TCP: return &tcp;
	case RTE_FLOW_ITEM_TYPE_VXLAN: return &vxlan;
	default: return nullptr;
	}
}

static_assert(sizeof(struct rte_flow_item_eth) >= 14 + 4);
static_assert(offsetof(struct rte_flow_item_vlan, inner_type) == 2);
static_assert(sizeof(struct rte_flow_item_ipv4) == 20);
static_assert(offsetof(struct rte_flow_item_ipv6, hdr) == 0 && sizeof(struct rte_ipv6_hdr) == 40);
static_assert(sizeof(struct rte_flow_item_udp) == 8);
static_assert(sizeof(struct rte_flow_item_tcp) == 20);
static_assert(sizeof(struct rte_flow_item_vxlan) == 8);

bool all_zero(const uint8_t *p, unsigned n)
{
	for (unsigned i = 0; i < n; i++)
		if (p[i] != 0)
			return false;
	return true;
}

/* The layer an item of kind k takes after the layer prev (-1: first item), or -1. */
int next_layer(int prev, uint8_t prev_kind, uint8_t k)
{
	switch (k) {
	case K_ETH:
		if (prev < 0)
			return L_ETH;
		return prev == L_VXLAN ? L_IETH : -1;
	case K_VLAN:
		switch (prev) {
		case -1:
		case L_ETH: return L_VLAN0;
		case L_VLAN0: return L_VLAN1;
		case L_IETH: return L_IVLAN0;
		case L_IVLAN0: return L_IVLAN1;
		default: return -1;
		}
	case K_IPV4:
	case K_IPV6:
		switch (prev) {
		case -1:
		case L_ETH:
		case L_VLAN0:
		case L_VLAN1: return L_L3;
		case L_IETH:
		case L_IVLAN0:
		case L_IVLAN1: return L_IL3;
		default: return -1;
		}
	case K_UDP:
	case K_TCP:
		if (prev < 0 || prev == L_L3)
			return L_L4;
		return prev == L_IL3 ? L_IL4 : -1;
	case K_VXLAN:
		if (prev < 0)
			return L_VXLAN;
		return prev == L_L4 && prev_kind == K_UDP ? L_VXLAN : -1;
	default:
		return -1;
	}
}

const char *order_msg(uint8_t k)
{
	switch (k) {
	case K_ETH: return "ETH item must come first or right after VXLAN";
	case K_VLAN: return "VLAN item must follow ETH or VLAN (at most two VLAN items per frame)";
	case K_IPV4: return "IPV4 item must follow ETH or VLAN (no gap between layers)";
	case K_IPV6: return "IPV6 item must follow ETH or VLAN (no gap between layers)";
	case K_UDP: return "UDP item must follow IPV4 or IPV6 (no gap between layers)";
	case K_TCP: return "TCP item must follow IPV4 or IPV6 (no gap between layers)";
	case K_VXLAN: return "VXLAN item must follow UDP";
	default: return "pattern item out of protocol order";
	}
}

/* Bits of the flag words that follow the header in the ETH, VLAN and IPv6 items. */
constexpr uint32_t ETH_HAS_VLAN = 1u << 0;
constexpr uint32_t VLAN_HAS_MORE = 1u << 0;
constexpr uint32_t V6_HOP = 1u << 0, V6_ROUTE = 1u << 1, V6_FRAG = 1u << 2, V6_AUTH = 1u << 3,
		   V6_ESP = 1u << 4, V6_DEST = 1u << 5, V6_MOBIL = 1u << 6, V6_HIP = 1u << 7,
		   V6_SHIM6 = 1u << 8;
/* Any reserved bit set. */
constexpr uint32_t RESERVED = 1u << 31;

/* The item's flag bits in the layout above, read through DPDK's bit-fields. */
uint32_t item_flag_bits(uint8_t kind, const void *p)
{
	if (p == nullptr)
		return 0;
	switch (kind) {
	case K_ETH: {
		const auto *e = static_cast<const struct rte_flow_item_eth *>(p);
		return (e->has_vlan ? ETH_HAS_VLAN : 0) | (e->reserved ? RESERVED : 0);
	}
	case K_VLAN: {
		const auto *v = static_cast<const struct rte_flow_item_vlan *>(p);
		return (v->has_more_vlan ? VLAN_HAS_MORE : 0) | (v->reserved ? RESERVED : 0);
	}
	case K_IPV6: {
		const auto *s = static_cast<const struct rte_flow_item_ipv6 *>(p);
		return (s->has_hop_ext ? V6_HOP : 0) | (s->has_route_ext ? V6_ROUTE : 0) |
		       (s->has_frag_ext ? V6_FRAG : 0) | (s->has_auth_ext ? V6_AUTH : 0) |
		       (s->has_esp_ext ? V6_ESP : 0) | (s->has_dest_ext ? V6_DEST : 0) |
		       (s->has_mobil_ext ? V6_MOBIL : 0) | (s->has_hip_ext ? V6_HIP : 0) |
		       (s->has_shim6_ext ? V6_SHIM6 : 0) | (s->reserved ? RESERVED : 0);
	}
	default:
		return 0;
	}
}

/*
 * Turn the exact part into word compares. A word never reads past the
 * header's length, which the parser has checked to be in the frame.
 */
void build_words(struct item *it, unsigned hdr_len)
{
	const unsigned size = hdr_len >= 8 ? 8 : 4;
	unsigned b = 0;

	while (b < hdr_len) {
		if (it->mask[b] == 0) {
			b++;
			continue;
		}
		unsigned off = std::min(b, hdr_len - size);
		struct word &w = it->words[it->nb_words++];
		w.off = static_cast<uint8_t>(off);
		w.size = static_cast<uint8_t>(size);
		w.mask = 0;
		w.val = 0;
		memcpy(&w.mask, &it->mask[off], size);
		memcpy(&w.val, &it->val[off], size);
		b = off + size;
	}
}

int item_error(struct rte_flow_error *error, int code, enum rte_flow_error_type type,
	       const void *cause, const char *msg)
{
	return rte_flow_error_set(error, code, type, cause, msg);
}

/* Compile one data item into it. */
int compile_item(const struct rte_flow_item *in, const item_desc *d, struct item *it,
		 struct rte_flow_error *error)
{
	const auto *spec = static_cast<const uint8_t *>(in->spec);
	const auto *last = static_cast<const uint8_t *>(in->last);
	const auto *mask = static_cast<const uint8_t *>(in->mask);

	if (spec == nullptr) {
		if (mask != nullptr || last != nullptr)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_SPEC, in,
					  "mask or last given without spec");
		return 0; /* any header of this kind */
	}
	const uint8_t *m = mask != nullptr ? mask : d->default_mask;

	for (unsigned f = 0; f < d->nb_fields; f++) {
		const field &fd = d->fields[f];
		const uint8_t *fm = m + fd.off;
		if (all_zero(fm, fd.size))
			continue;
		bool ranged = last != nullptr && !all_zero(last + fd.off, fd.size) &&
			      memcmp(last + fd.off, spec + fd.off, fd.size) != 0;
		if (!ranged) {
			for (unsigned b = 0; b < fd.size; b++) {
				it->mask[fd.off + b] = fm[b];
				it->val[fd.off + b] = spec[fd.off + b] & fm[b];
			}
			continue;
		}
		if (it->nb_ranges >= RANGES_MAX)
			return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM_LAST, in,
					  "too many ranged fields in one item");
		struct range &r = it->ranges[it->nb_ranges];
		r.off = fd.off;
		r.size = fd.size;
		for (unsigned b = 0; b < fd.size; b++) {
			r.mask[b] = fm[b];
			r.lo[b] = spec[fd.off + b] & fm[b];
			r.hi[b] = last[fd.off + b] & fm[b];
		}
		if (memcmp(r.hi, r.lo, fd.size) < 0)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_LAST, in,
					  "last is below spec in a ranged field");
		it->nb_ranges++;
	}
	build_words(it, d->hdr_len);

	/* Flag bits after the header: only with an explicit mask. */
	uint32_t fmask = mask != nullptr ? item_flag_bits(d->kind, mask) : 0;
	uint32_t fspec = item_flag_bits(d->kind, spec) & fmask;
	switch (d->kind) {
	case K_ETH:
		if (fmask & ~ETH_HAS_VLAN)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_MASK, in,
					  "reserved bits of the ETH item must be zero");
		if (fmask & ETH_HAS_VLAN) {
			it->prop_mask |= P_VLAN;
			it->prop_val |= (fspec & ETH_HAS_VLAN) ? P_VLAN : 0;
		}
		break;
	case K_VLAN:
		if (fmask & ~VLAN_HAS_MORE)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_MASK, in,
					  "reserved bits of the VLAN item must be zero");
		if (fmask & VLAN_HAS_MORE) {
			uint16_t bit = (it->layer == L_VLAN0 || it->layer == L_IVLAN0) ? P_MORE_VLAN0
										: P_MORE_VLAN1;
			it->prop_mask |= bit;
			it->prop_val |= (fspec & VLAN_HAS_MORE) ? bit : 0;
		}
		break;
	case K_IPV6: {
		if (fmask & (V6_ESP | V6_MOBIL | V6_HIP | V6_SHIM6))
			return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM_MASK, in,
					  "IPv6 ESP, mobility, HIP and shim6 extension flags not supported");
		if (fmask & RESERVED)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_MASK, in,
					  "reserved bits of the IPV6 item must be zero");
		constexpr struct {
			uint32_t bit;
			uint16_t prop;
		} map[] = {{V6_HOP, P_V6_HOP},   {V6_ROUTE, P_V6_ROUTE}, {V6_FRAG, P_V6_FRAG},
			   {V6_AUTH, P_V6_AUTH}, {V6_DEST, P_V6_DEST}};
		for (const auto &e : map) {
			if (fmask & e.bit) {
				it->prop_mask |= e.prop;
				it->prop_val |= (fspec & e.bit) ? e.prop : 0;
			}
		}
		break;
	}
	default:
		break;
	}
	return 0;
}

/* UDP destination port the item pins exactly (full mask, no range), or -1. */
int exact_udp_dport(const struct item *udp)
{
	if (udp->mask[2] != 0xff || udp->mask[3] != 0xff)
		return -1;
	for (unsigned r = 0; r < udp->nb_ranges; r++)
		if (udp->ranges[r].off == 2)
			return -1;
	return (udp->val[2] << 8) | udp->val[3];
}

int compile_pattern(struct zorv_flow_ctx *ctx, const struct rte_flow_item pattern[],
		    struct rule_def *def, struct rte_flow_error *error)
{
	int prev = -1;
	uint8_t prev_kind = K_NONE;
	const struct item *udp_item = nullptr;

	for (const struct rte_flow_item *in = pattern; in->type != RTE_FLOW_ITEM_TYPE_END; in++) {
		if (in->type == RTE_FLOW_ITEM_TYPE_VOID)
			continue;
		const item_desc *d = describe(in->type);
		if (d == nullptr)
			return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, in,
					  item_unsupported_msg(in->type));
		int layer = next_layer(prev, prev_kind, d->kind);
		if (layer < 0)
			return item_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM, in,
					  order_msg(d->kind));
		if (def->nb_items >= ITEMS_MAX)
			return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, in,
					  "too many pattern items");
		struct item *it = &def->items[def->nb_items];
		it->layer = static_cast<uint8_t>(layer);
		it->kind = d->kind;
		int ret = compile_item(in, d, it, error);
		if (ret < 0)
			return ret;

		if (d->kind == K_VXLAN) {
			if (ctx->nb_vxlan_ports == 0)
				return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, in,
						  "VXLAN needs a UDP port announced with rte_eth_dev_udp_tunnel_port_add");
			int dport = udp_item != nullptr ? exact_udp_dport(udp_item) : -1;
			if (dport >= 0) {
				bool known = false;
				for (unsigned i = 0; i < ctx->nb_vxlan_ports; i++)
					known |= ctx->vxlan_ports[i] == dport;
				if (!known)
					return item_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, in,
							  "UDP destination port of VXLAN is not an announced VXLAN port");
			}
		}
		if (layer >= L_VXLAN)
			def->needs_vxlan = true;
		udp_item = d->kind == K_UDP && layer == L_L4 ? it : udp_item;
		prev = layer;
		prev_kind = d->kind;
		def->nb_items++;
	}
	return 0;
}

constexpr uint64_t RSS_V4 = RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_FRAG_IPV4 |
			    RTE_ETH_RSS_NONFRAG_IPV4_OTHER;
constexpr uint64_t RSS_V6 = RTE_ETH_RSS_IPV6 | RTE_ETH_RSS_FRAG_IPV6 |
			    RTE_ETH_RSS_NONFRAG_IPV6_OTHER | RTE_ETH_RSS_IPV6_EX;
constexpr uint64_t RSS_SUPPORTED = RSS_V4 | RSS_V6 | RTE_ETH_RSS_TCP | RTE_ETH_RSS_UDP |
				   RTE_ETH_RSS_L3_SRC_ONLY | RTE_ETH_RSS_L3_DST_ONLY |
				   RTE_ETH_RSS_L4_SRC_ONLY | RTE_ETH_RSS_L4_DST_ONLY;

/* The usual 40-byte Toeplitz key, used when a rule brings none. */
constexpr uint8_t DEFAULT_RSS_KEY[RSS_KEY_LEN] = {
	0x6d, 0x5a, 0x56, 0xda, 0x25, 0x5b, 0x0e, 0xc2, 0x41, 0x67, 0x25, 0x3d, 0x43, 0xa3,
	0x8f, 0xb0, 0xd0, 0xca, 0x2b, 0xcb, 0xae, 0x7b, 0x30, 0xb4, 0x77, 0xcb, 0x2d, 0xa3,
	0x80, 0x30, 0xf2, 0x0c, 0x6a, 0x42, 0xb7, 0x3b, 0xbe, 0xac, 0x01, 0xfa};

int action_error(struct rte_flow_error *error, int code, enum rte_flow_error_type type,
		 const void *cause, const char *msg)
{
	return rte_flow_error_set(error, code, type, cause, msg);
}

int compile_rss(const struct rte_flow_action *a, uint16_t nb_rxq, struct actions *act,
		const uint16_t **queues, struct rte_flow_error *error)
{
	const auto *rss = static_cast<const struct rte_flow_action_rss *>(a->conf);

	if (rss == nullptr)
		return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, a,
				    "RSS needs a configuration");
	if (rss->func != RTE_ETH_HASH_FUNCTION_DEFAULT && rss->func != RTE_ETH_HASH_FUNCTION_TOEPLITZ)
		return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS hash function not supported (Toeplitz only)");
	if (rss->level > 2)
		return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS level above 2 (the VXLAN inner frame) not supported");
	if (rss->types & ~RSS_SUPPORTED)
		return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS hash types other than IPv4, IPv6, TCP and UDP not supported");
	if (rss->key_len != 0 && rss->key_len != RSS_KEY_LEN)
		return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS key must be 40 bytes long");
	if (rss->key_len != 0 && rss->key == nullptr)
		return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS key length given without a key");
	if (rss->queue_num > nb_rxq)
		return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS lists more queues than the port has");
	if (rss->queue_num != 0 && rss->queue == nullptr)
		return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
				    "RSS queue count given without a queue list");
	for (uint32_t i = 0; i < rss->queue_num; i++)
		if (rss->queue[i] >= nb_rxq)
			return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, rss,
					    "RSS queue index beyond the port's receive queues");
	act->fate = F_RSS;
	act->rss_level = static_cast<uint8_t>(rss->level);
	act->rss_types = rss->types != 0 ? rss->types : RSS_V4 | RSS_V6 | RTE_ETH_RSS_TCP |
								 RTE_ETH_RSS_UDP;
	act->rss_queue_num = static_cast<uint16_t>(rss->queue_num);
	memcpy(act->rss_key, rss->key_len != 0 ? rss->key : DEFAULT_RSS_KEY, RSS_KEY_LEN);
	*queues = rss->queue;
	return 0;
}

int compile_actions(struct zorv_flow_ctx *ctx, struct rte_eth_dev *dev, uint32_t group,
		    const struct rte_flow_action actions[], struct rule_def *def, bool take,
		    struct rte_flow_error *error)
{
	struct actions *act = &def->act;
	uint16_t nb_rxq = dev->data->nb_rx_queues;
	bool have_fate = false;
	bool have_meter = false;
	const uint16_t *rss_queues = nullptr;
	struct meter *mtr = nullptr;

	for (const struct rte_flow_action *a = actions; a->type != RTE_FLOW_ACTION_TYPE_END; a++) {
		switch (a->type) {
		case RTE_FLOW_ACTION_TYPE_VOID:
			continue;
		case RTE_FLOW_ACTION_TYPE_DROP:
		case RTE_FLOW_ACTION_TYPE_QUEUE:
		case RTE_FLOW_ACTION_TYPE_RSS:
		case RTE_FLOW_ACTION_TYPE_JUMP:
		case RTE_FLOW_ACTION_TYPE_PASSTHRU:
			if (have_fate)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
						    "only one of DROP, QUEUE, RSS, JUMP, PASSTHRU per rule");
			have_fate = true;
			break;
		default:
			break;
		}

		switch (a->type) {
		case RTE_FLOW_ACTION_TYPE_DROP:
			act->fate = F_DROP;
			break;
		case RTE_FLOW_ACTION_TYPE_PASSTHRU:
			act->fate = F_PASSTHRU;
			break;
		case RTE_FLOW_ACTION_TYPE_QUEUE: {
			const auto *q = static_cast<const struct rte_flow_action_queue *>(a->conf);
			if (q == nullptr)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, a,
						    "QUEUE needs a configuration");
			if (q->index >= nb_rxq)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, q,
						    "QUEUE index beyond the port's receive queues");
			act->fate = F_QUEUE;
			act->queue = q->index;
			break;
		}
		case RTE_FLOW_ACTION_TYPE_RSS: {
			int ret = compile_rss(a, nb_rxq, act, &rss_queues, error);
			if (ret < 0)
				return ret;
			break;
		}
		case RTE_FLOW_ACTION_TYPE_JUMP: {
			const auto *j = static_cast<const struct rte_flow_action_jump *>(a->conf);
			if (j == nullptr)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, a,
						    "JUMP needs a configuration");
			if (j->group <= group)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF, j,
						    "JUMP must go to a higher group than the rule's own");
			act->fate = F_JUMP;
			act->jump_group = j->group;
			break;
		}
		case RTE_FLOW_ACTION_TYPE_MARK: {
			const auto *mk = static_cast<const struct rte_flow_action_mark *>(a->conf);
			if (mk == nullptr)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, a,
						    "MARK needs a configuration");
			if (act->mark)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
						    "only one MARK per rule");
			act->mark = true;
			act->mark_id = mk->id;
			break;
		}
		case RTE_FLOW_ACTION_TYPE_FLAG:
			if (act->flag)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
						    "only one FLAG per rule");
			act->flag = true;
			break;
		case RTE_FLOW_ACTION_TYPE_COUNT: {
			const auto *c = static_cast<const struct rte_flow_action_count *>(a->conf);
			if (act->count)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
						    "only one COUNT per rule");
			act->count = true;
			act->count_id = c != nullptr ? c->id : 0;
			act->count_after_meter = have_meter;
			break;
		}
		case RTE_FLOW_ACTION_TYPE_METER: {
			const auto *mc = static_cast<const struct rte_flow_action_meter *>(a->conf);
			if (mc == nullptr)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, a,
						    "METER needs a configuration");
			if (have_meter)
				return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
						    "only one METER per rule (no meter chaining)");
			mtr = meter_find(ctx, mc->mtr_id);
			if (mtr == nullptr)
				return action_error(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF, mc,
						    "METER names no meter of the port");
			if (!mtr->shared && mtr->refcnt != 0)
				return action_error(error, EBUSY, RTE_FLOW_ERROR_TYPE_ACTION_CONF, mc,
						    "meter is not shared and another rule uses it");
			have_meter = true;
			act->meter_id = mc->mtr_id;
			break;
		}
		default:
			return action_error(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION, a,
					    action_unsupported_msg(a->type));
		}
	}

	if (!take)
		return 0;
	if (act->fate == F_RSS && act->rss_queue_num != 0) {
		act->rss_queues = static_cast<uint16_t *>(rte_malloc_socket(
			"zorv_flow_rss", sizeof(uint16_t) * act->rss_queue_num, 0, ctx->socket));
		if (act->rss_queues == nullptr)
			return rte_flow_error_set(error, ENOMEM, RTE_FLOW_ERROR_TYPE_UNSPECIFIED,
						  nullptr, "no memory for the RSS queue list");
		memcpy(act->rss_queues, rss_queues, sizeof(uint16_t) * act->rss_queue_num);
	}
	if (mtr != nullptr) {
		mtr->refcnt++;
		act->meter = mtr;
	}
	return 0;
}

/* Messages "item type <NAME> not supported", built once from DPDK's names. */
struct type_messages {
	static constexpr int N = 256;
	char text[N][64];
	char unknown[64];

	type_messages(enum rte_flow_conv_op op, const char *what)
	{
		for (int t = 0; t < N; t++) {
			const char *name = nullptr;
			if (rte_flow_conv(op, &name, sizeof(name),
					  reinterpret_cast<const void *>(static_cast<intptr_t>(t)),
					  nullptr) > 0 && name != nullptr)
				snprintf(text[t], sizeof(text[t]), "%s type %s not supported", what, name);
			else
				snprintf(text[t], sizeof(text[t]), "%s type %d not supported", what, t);
		}
		snprintf(unknown, sizeof(unknown), "%s type (driver-private) not supported", what);
	}
	const char *get(int t) const { return t >= 0 && t < N ? text[t] : unknown; }
};

} // namespace

const char *item_unsupported_msg(enum rte_flow_item_type type)
{
	static const type_messages msgs(RTE_FLOW_CONV_OP_ITEM_NAME_PTR, "item");
	return msgs.get(static_cast<int>(type));
}

const char *action_unsupported_msg(enum rte_flow_action_type type)
{
	static const type_messages msgs(RTE_FLOW_CONV_OP_ACTION_NAME_PTR, "action");
	return msgs.get(static_cast<int>(type));
}

int compile_rule(struct zorv_flow_ctx *ctx, struct rte_eth_dev *dev,
		 const struct rte_flow_attr *attr, const struct rte_flow_item pattern[],
		 const struct rte_flow_action actions[], struct rule_def *def, bool take,
		 struct rte_flow_error *error)
{
	memset(def, 0, sizeof(*def));
	if (attr == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ATTR, nullptr,
					  "attributes missing");
	if (attr->transfer)
		return rte_flow_error_set(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ATTR_TRANSFER, attr,
					  "transfer rules are not supported");
	if (attr->egress)
		return rte_flow_error_set(error, ENOTSUP, RTE_FLOW_ERROR_TYPE_ATTR_EGRESS, attr,
					  "egress rules are not supported");
	if (!attr->ingress)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ATTR_INGRESS, attr,
					  "ingress must be set");
	if (attr->reserved != 0)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ATTR, attr,
					  "reserved attribute bits must be zero");
	if (pattern == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_NUM, nullptr,
					  "pattern missing");
	if (actions == nullptr)
		return rte_flow_error_set(error, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_NUM, nullptr,
					  "actions missing");
	def->group = attr->group;
	def->priority = attr->priority;

	int ret = compile_pattern(ctx, pattern, def, error);
	if (ret < 0)
		return ret;
	return compile_actions(ctx, dev, attr->group, actions, def, take, error);
}

void release_rule_def(struct rule_def *def)
{
	rte_free(def->act.rss_queues);
	def->act.rss_queues = nullptr;
	if (def->act.meter != nullptr) {
		def->act.meter->refcnt--;
		def->act.meter = nullptr;
	}
}

} // namespace zorv_flow
