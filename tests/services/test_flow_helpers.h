/* SPDX-License-Identifier: BSD-3-Clause
 * Helpers of the flow engine's tests: a port with the engine's operations
 * and a flow context, frames built layer by layer, and rule builders.
 *
 *   FlowPort port(4);                       // 4 receive queues
 *   RuleBuilder r;
 *   r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec4, &mask4)
 *    .Queue(2);
 *   struct rte_flow *f = port.Create(r);
 *   auto m = Frame().Eth().Ipv4("10.0.0.1", "10.0.0.2").Udp(1, 2).Build();
 *   EXPECT_EQ(port.Verdict(m.get()), 2);
 */
#ifndef ZORV_TEST_FLOW_HELPERS_H
#define ZORV_TEST_FLOW_HELPERS_H

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_byteorder.h>
#include <rte_errno.h>
#include <rte_flow.h>
#include <rte_flow_driver.h>
#include <rte_mbuf.h>
#include <rte_mtr.h>
#include <rte_mtr_driver.h>

#include "zorv1_common.h"
#include "zorv1_vhost.h"
#include "zorv_flow.h"
#include "zorv_flow_internal.h"
#include "zorv_test_harness.h"

namespace flow_test {

/* The three flow-engine slots, as a port of the family fills them. */
inline const struct eth_dev_ops kFlowEngineOps = {
	.udp_tunnel_port_add = zorv_dev_udp_tunnel_port_add,
	.flow_ops_get = zorv_dev_flow_ops_get,
	.mtr_ops_get = zorv_mtr_ops_get,
};

/* A frame built from the lowest layer up; ethertypes and protocols are filled in. */
class Frame {
public:
	Frame &Eth(const struct rte_ether_addr &dst = zorv_test::kUnicastMac,
		   const struct rte_ether_addr &src = zorv_test::kSourceMac)
	{
		size_t o = Grow(14);
		memcpy(&b_[o], dst.addr_bytes, 6);
		memcpy(&b_[o + 6], src.addr_bytes, 6);
		type_at_ = o + 12;
		return *this;
	}
	Frame &Vlan(uint16_t tci, uint16_t tpid = RTE_ETHER_TYPE_VLAN)
	{
		SetType(tpid);
		size_t o = Grow(4);
		Put16(o, tci);
		type_at_ = o + 2;
		return *this;
	}
	/* An ethertype for what follows (e.g. ARP), without a header. */
	Frame &Type(uint16_t t)
	{
		SetType(t);
		return *this;
	}
	Frame &Ipv4(const char *src, const char *dst, uint8_t tos = 0, uint8_t ttl = 64,
		    uint16_t frag = 0)
	{
		SetType(RTE_ETHER_TYPE_IPV4);
		size_t o = Grow(20);
		b_[o] = 0x45;
		b_[o + 1] = tos;
		Put16(o + 4, 0x1234);
		Put16(o + 6, frag);
		b_[o + 8] = ttl;
		inet_pton(AF_INET, src, &b_[o + 12]);
		inet_pton(AF_INET, dst, &b_[o + 16]);
		proto_at_ = o + 9;
		return *this;
	}
	/* IPv6 with optional extension headers (next-header values) before the L4. */
	Frame &Ipv6(const char *src, const char *dst, std::vector<uint8_t> ext = {},
		    uint8_t hop_limit = 64)
	{
		SetType(RTE_ETHER_TYPE_IPV6);
		size_t o = Grow(40);
		b_[o] = 0x60;
		b_[o + 7] = hop_limit;
		inet_pton(AF_INET6, src, &b_[o + 8]);
		inet_pton(AF_INET6, dst, &b_[o + 24]);
		proto_at_ = o + 6;
		for (uint8_t nh : ext) {
			b_[proto_at_] = nh;
			size_t e = Grow(8); /* every extension header 8 bytes long */
			b_[e + 1] = 0; /* length field 0: 8 bytes (AH counts (0 + 2) * 4) */
			proto_at_ = e;
		}
		return *this;
	}
	Frame &Udp(uint16_t sport, uint16_t dport)
	{
		SetProto(17);
		size_t o = Grow(8);
		Put16(o, sport);
		Put16(o + 2, dport);
		return *this;
	}
	Frame &Tcp(uint16_t sport, uint16_t dport, uint8_t flags = 0x02)
	{
		SetProto(6);
		size_t o = Grow(20);
		Put16(o, sport);
		Put16(o + 2, dport);
		b_[o + 12] = 0x50;
		b_[o + 13] = flags;
		return *this;
	}
	/* VXLAN header (after a Udp(…, vxlan port)); an inner Eth() follows. */
	Frame &Vxlan(uint32_t vni, uint8_t flags = 0x08)
	{
		size_t o = Grow(8);
		b_[o] = flags;
		b_[o + 4] = static_cast<uint8_t>(vni >> 16);
		b_[o + 5] = static_cast<uint8_t>(vni >> 8);
		b_[o + 6] = static_cast<uint8_t>(vni);
		type_at_ = SIZE_MAX;
		proto_at_ = SIZE_MAX;
		return *this;
	}
	Frame &Payload(size_t n)
	{
		size_t o = Grow(n);
		for (size_t i = 0; i < n; i++)
			b_[o + i] = static_cast<uint8_t>(i);
		return *this;
	}
	/* Pad to a total length. */
	Frame &PadTo(size_t len)
	{
		if (b_.size() < len)
			Payload(len - b_.size());
		return *this;
	}
	const std::vector<uint8_t> &Bytes() const { return b_; }

	/* The frame in one mbuf of the shared pool (NULL and a failure if impossible). */
	zorv_test::MbufPtr Build(struct rte_mempool *pool = zorv_test::SharedMbufPool()) const
	{
		struct rte_mbuf *m = rte_pktmbuf_alloc(pool);
		if (m == nullptr) {
			ADD_FAILURE() << "mbuf pool empty";
			return nullptr;
		}
		char *p = rte_pktmbuf_append(m, static_cast<uint16_t>(b_.size()));
		if (p == nullptr) {
			ADD_FAILURE() << "frame of " << b_.size() << " bytes does not fit";
			rte_pktmbuf_free(m);
			return nullptr;
		}
		if (!b_.empty()) /* an empty frame has no data to copy from */
			memcpy(p, b_.data(), b_.size());
		return zorv_test::MbufPtr(m);
	}

private:
	/*
	 * Not inlined: at -O3 GCC 12 follows the growth of the vector through
	 * the chained calls and warns of overflows that cannot happen.
	 */
	__attribute__((noinline)) size_t Grow(size_t n)
	{
		size_t o = b_.size();
		b_.resize(o + n, 0);
		return o;
	}
	void Put16(size_t o, uint16_t v)
	{
		b_[o] = static_cast<uint8_t>(v >> 8);
		b_[o + 1] = static_cast<uint8_t>(v);
	}
	void SetType(uint16_t t)
	{
		if (type_at_ != SIZE_MAX)
			Put16(type_at_, t);
		type_at_ = SIZE_MAX;
	}
	void SetProto(uint8_t p)
	{
		if (proto_at_ != SIZE_MAX)
			b_[proto_at_] = p;
		proto_at_ = SIZE_MAX;
	}

	std::vector<uint8_t> b_;
	size_t type_at_ = SIZE_MAX;
	size_t proto_at_ = SIZE_MAX;
};

/* Attributes, pattern and actions of one rule, with storage for their configurations. */
class RuleBuilder {
public:
	RuleBuilder() { attr_.ingress = 1; }

	RuleBuilder &Group(uint32_t g)
	{
		attr_.group = g;
		return *this;
	}
	RuleBuilder &Priority(uint32_t p)
	{
		attr_.priority = p;
		return *this;
	}
	struct rte_flow_attr &Attr() { return attr_; }

	/* Item with copies of spec/last/mask (NULL stays NULL). */
	template <typename T = char>
	RuleBuilder &Item(enum rte_flow_item_type type, const T *spec = nullptr,
			  const T *mask = nullptr, const T *last = nullptr)
	{
		struct rte_flow_item it = {};
		it.type = type;
		it.spec = Keep(spec);
		it.mask = Keep(mask);
		it.last = Keep(last);
		items_.push_back(it);
		return *this;
	}
	template <typename T = char>
	RuleBuilder &Action(enum rte_flow_action_type type, const T *conf = nullptr)
	{
		struct rte_flow_action a = {};
		a.type = type;
		a.conf = Keep(conf);
		actions_.push_back(a);
		return *this;
	}
	RuleBuilder &Drop() { return Action(RTE_FLOW_ACTION_TYPE_DROP); }
	RuleBuilder &Passthru() { return Action(RTE_FLOW_ACTION_TYPE_PASSTHRU); }
	RuleBuilder &Flag() { return Action(RTE_FLOW_ACTION_TYPE_FLAG); }
	RuleBuilder &Queue(uint16_t q)
	{
		struct rte_flow_action_queue c = {q};
		return Action(RTE_FLOW_ACTION_TYPE_QUEUE, &c);
	}
	RuleBuilder &Mark(uint32_t id)
	{
		struct rte_flow_action_mark c = {id};
		return Action(RTE_FLOW_ACTION_TYPE_MARK, &c);
	}
	RuleBuilder &Count(uint32_t id = 0)
	{
		struct rte_flow_action_count c = {id};
		return Action(RTE_FLOW_ACTION_TYPE_COUNT, &c);
	}
	RuleBuilder &Jump(uint32_t group)
	{
		struct rte_flow_action_jump c = {group};
		return Action(RTE_FLOW_ACTION_TYPE_JUMP, &c);
	}
	RuleBuilder &Meter(uint32_t mtr_id)
	{
		struct rte_flow_action_meter c = {mtr_id};
		return Action(RTE_FLOW_ACTION_TYPE_METER, &c);
	}
	/* RSS over the given queues (empty: every queue), default key unless given. */
	RuleBuilder &Rss(std::vector<uint16_t> queues, uint64_t types = 0, uint32_t level = 0,
			 const uint8_t *key = nullptr, uint32_t key_len = 0,
			 enum rte_eth_hash_function func = RTE_ETH_HASH_FUNCTION_DEFAULT)
	{
		auto &q = lists_.emplace_back(queues.begin(), queues.end());
		struct rte_flow_action_rss c = {};
		c.func = func;
		c.level = level;
		c.types = types;
		c.key_len = key_len;
		c.key = key;
		c.queue_num = static_cast<uint32_t>(q.size());
		c.queue = q.empty() ? nullptr : q.data();
		return Action(RTE_FLOW_ACTION_TYPE_RSS, &c);
	}

	/* Pattern and actions, END-terminated; pointers stay valid while the builder lives. */
	const struct rte_flow_item *Pattern()
	{
		pattern_ = items_;
		pattern_.push_back(rte_flow_item{});
		return pattern_.data();
	}
	const struct rte_flow_action *Actions()
	{
		actions_end_ = actions_;
		actions_end_.push_back(rte_flow_action{});
		return actions_end_.data();
	}
	/* The index-th item / action given (for checking an error's cause). */
	const struct rte_flow_item *ItemAt(size_t i)
	{
		Pattern();
		return &pattern_[i];
	}
	const struct rte_flow_action *ActionAt(size_t i)
	{
		Actions();
		return &actions_end_[i];
	}

private:
	template <typename T> const void *Keep(const T *p)
	{
		if (p == nullptr)
			return nullptr;
		auto &s = store_.emplace_back(sizeof(T));
		memcpy(s.data(), p, sizeof(T));
		return s.data();
	}

	struct rte_flow_attr attr_ = {};
	std::vector<struct rte_flow_item> items_, pattern_;
	std::vector<struct rte_flow_action> actions_, actions_end_;
	std::deque<std::vector<uint8_t>> store_;
	std::deque<std::vector<uint16_t>> lists_;
};

/* A port with the flow engine's slots and a flow context. */
class FlowPort {
public:
	explicit FlowPort(uint16_t nb_rxq = 4)
	    : port_(zorv_test::FakePort::Options{.nb_rx_queues = nb_rxq, .nb_tx_queues = nb_rxq})
	{
		if (!port_)
			return;
		saved_ops_ = port_.dev()->dev_ops;
		port_.dev()->dev_ops = &kFlowEngineOps;
		port_.internal()->max_queues = nb_rxq;
		EXPECT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	}
	~FlowPort()
	{
		if (port_) {
			EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
			port_.dev()->dev_ops = saved_ops_;
		}
	}
	FlowPort(const FlowPort &) = delete;
	FlowPort &operator=(const FlowPort &) = delete;

	explicit operator bool() const { return static_cast<bool>(port_); }
	struct rte_eth_dev *dev() const { return port_.dev(); }
	uint16_t id() const { return port_.port_id(); }
	struct zorv_flow_priv *priv() const { return &port_.internal()->comm.flow_data; }
	struct zorv_flow_ctx *ctx() const { return static_cast<struct zorv_flow_ctx *>(priv()->ctx); }
	uint16_t nb_rxq() const { return port_.data()->nb_rx_queues; }
	zorv_test::FakePort &fake() { return port_; }

	/* rte_flow_create through the ethdev API; error kept in err. */
	struct rte_flow *Create(RuleBuilder &r)
	{
		memset(&err, 0, sizeof(err));
		return rte_flow_create(id(), &r.Attr(), r.Pattern(), r.Actions(), &err);
	}
	int Validate(RuleBuilder &r)
	{
		memset(&err, 0, sizeof(err));
		return rte_flow_validate(id(), &r.Attr(), r.Pattern(), r.Actions(), &err);
	}
	int Destroy(struct rte_flow *f)
	{
		memset(&err, 0, sizeof(err));
		return rte_flow_destroy(id(), f, &err);
	}
	int Flush()
	{
		memset(&err, 0, sizeof(err));
		return rte_flow_flush(id(), &err);
	}
	/* COUNT of a rule: {hits, bytes}; reset when asked. */
	std::pair<uint64_t, uint64_t> Count(struct rte_flow *f, bool reset = false)
	{
		struct rte_flow_query_count q = {};
		q.reset = reset ? 1 : 0;
		struct rte_flow_action a = {};
		a.type = RTE_FLOW_ACTION_TYPE_COUNT;
		memset(&err, 0, sizeof(err));
		int ret = rte_flow_query(id(), f, &a, &q, &err);
		EXPECT_EQ(ret, 0) << (err.message ? err.message : "");
		EXPECT_TRUE(q.hits_set && q.bytes_set);
		return {q.hits, q.bytes};
	}

	/* Verdict of one frame received on queue this_queue. */
	uint16_t Verdict(struct rte_mbuf *m, uint16_t this_queue = 0)
	{
		uint16_t v = 0xdead;
		zorv_flow_classify(priv(), nb_rxq(), &m, 1, this_queue, &v);
		return v;
	}
	/* Same, at a given TSC time (meters). */
	uint16_t VerdictAt(struct rte_mbuf *m, uint64_t now, uint16_t this_queue = 0)
	{
		uint16_t v = 0xdead;
		zorv_flow::classify_at(ctx(), nb_rxq(), &m, 1, this_queue, &v, now);
		return v;
	}
	/* Does the frame get the mark (or flag) a rule gives? 0 = no FDIR flag. */
	static bool HasMark(const struct rte_mbuf *m, uint32_t id)
	{
		return (m->ol_flags & RTE_MBUF_F_RX_FDIR) && (m->ol_flags & RTE_MBUF_F_RX_FDIR_ID) &&
		       m->hash.fdir.hi == id;
	}

	struct rte_flow_error err = {};

private:
	zorv_test::FakePort port_;
	const struct eth_dev_ops *saved_ops_ = nullptr;
};

/* "... not supported" style checks of a refused rule. */
inline void ExpectRefused(int ret, const struct rte_flow_error &err, int code,
			  enum rte_flow_error_type type, const void *cause, const char *msg_part)
{
	EXPECT_EQ(ret, -code);
	EXPECT_EQ(rte_errno, code);
	EXPECT_EQ(err.type, type);
	EXPECT_EQ(err.cause, cause);
	ASSERT_NE(err.message, nullptr);
	EXPECT_NE(std::string(err.message).find(msg_part), std::string::npos)
		<< "message: " << err.message << "\nexpected to contain: " << msg_part;
}

/* Byte arrays of addresses for specs. */
inline rte_be32_t Ip4(const char *s)
{
	rte_be32_t v;
	inet_pton(AF_INET, s, &v);
	return v;
}
inline void Ip6(const char *s, uint8_t out[16])
{
	inet_pton(AF_INET6, s, out);
}

} // namespace flow_test

#endif /* ZORV_TEST_FLOW_HELPERS_H */
