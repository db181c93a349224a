/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's transport with a real peer: ports of the driver are
 * served as vhost-user sockets, DPDK's virtio-user attaches to them in the
 * same process, and packets go both ways through the ports' bursts.
 * Covers socket naming and registration, connection binding and link,
 * contents, transmit checksum and TSO offloads with and without the peer's
 * virtio offload features, the firmware MTU, held transmit mbufs, queue
 * pairs, disconnect, reconnect and close while connected. The card's
 * transmit offload routines are also driven on their own, over header
 * layouts, chains cut anywhere and requests the frame does not support.
 */
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_tcp.h>
#include <rte_udp.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"
#include "zorv_test_ethdev.h"
#include "zorv_test_harness.h"

/* The vhost library and virtio-user narrate every message at INFO; keep warnings. */
std::vector<std::string> zorv_test::ExtraEalArgs()
{
	return {"--log-level=lib.vhost.*:warning", "--log-level=pmd.net.virtio.*:warning"};
}

namespace {

using zorv_test::LinkUp;
using zorv_test::SendAll;
using zorv_test::StartPort;
using zorv_test::WaitFor;
using Bytes = std::vector<uint8_t>;

constexpr uint64_t kGuestCsum = 1ULL << 1;
constexpr uint64_t kGuestTso4 = 1ULL << 7;
constexpr uint64_t kGuestTso6 = 1ULL << 8;
constexpr uint64_t kHostCsum = 1ULL << 0;
constexpr uint64_t kPortTxOffloads = RTE_ETH_TX_OFFLOAD_IPV4_CKSUM | RTE_ETH_TX_OFFLOAD_UDP_CKSUM |
				     RTE_ETH_TX_OFFLOAD_TCP_CKSUM | RTE_ETH_TX_OFFLOAD_TCP_TSO |
				     RTE_ETH_TX_OFFLOAD_MULTI_SEGS;

/* ---- Files ---- */

/* A directory of this process for sockets (short: it ends up in sun_path). */
const std::string &TestDir()
{
	static const struct Dir {
		std::string path = "/tmp/zcard_" + std::to_string(getpid());
		Dir() { std::filesystem::create_directories(path); }
		~Dir()
		{
			std::error_code ec;
			std::filesystem::remove_all(path, ec);
		}
	} dir;
	return dir.path;
}

bool IsSocket(const std::string &path)
{
	struct stat st;
	return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool Exists(const std::string &path)
{
	struct stat st;
	return lstat(path.c_str(), &st) == 0;
}

/* A unix socket bound at path; listening when listen_too, else left stale on close. */
int BindSocket(const std::string &path, bool listen_too)
{
	int fd = socket(AF_UNIX, SOCK_STREAM, 0);
	struct sockaddr_un un = {};
	un.sun_family = AF_UNIX;
	snprintf(un.sun_path, sizeof(un.sun_path), "%s", path.c_str());
	if (bind(fd, reinterpret_cast<struct sockaddr *>(&un), sizeof(un)) != 0 ||
	    (listen_too && listen(fd, 4) != 0)) {
		close(fd);
		return -1;
	}
	return fd;
}

/* ---- Frames and the test's own checksums ---- */

struct FrameShape {
	bool v6 = false;
	bool tcp = false;
	uint32_t payload = 100;
	uint8_t seed = 1;
	std::optional<uint16_t> vlan;
	bool qinq = false;    /* an outer 802.1ad tag in front of vlan */
	uint8_t ip_opts = 0;  /* bytes of IPv4 options (multiple of 4) */
	uint16_t v6_ext = 0;  /* bytes of an IPv6 hop-by-hop header (multiple of 8, <= 2048) */
	uint8_t tcp_opts = 0; /* bytes of TCP options (multiple of 4) */
	uint8_t pad = 0;      /* Ethernet padding after the IP packet */
	uint8_t tcp_flags = RTE_TCP_ACK_FLAG | RTE_TCP_PSH_FLAG;
};

uint16_t L2Len(const FrameShape &s)
{
	return 14 + (s.vlan ? 4 : 0) + (s.vlan && s.qinq ? 4 : 0);
}
uint16_t L3Len(const FrameShape &s)
{
	return s.v6 ? 40 + s.v6_ext : 20 + s.ip_opts;
}
uint16_t L4Len(const FrameShape &s)
{
	return s.tcp ? 20 + s.tcp_opts : 8;
}
uint16_t HdrLen(const FrameShape &s)
{
	return L2Len(s) + L3Len(s) + L4Len(s);
}

void Put16(Bytes &f, size_t off, uint16_t v)
{
	f[off] = v >> 8;
	f[off + 1] = v & 0xff;
}
void Put32(Bytes &f, size_t off, uint32_t v)
{
	for (int i = 0; i < 4; i++)
		f[off + i] = (v >> (24 - 8 * i)) & 0xff;
}
uint16_t Get16(const Bytes &f, size_t off)
{
	return static_cast<uint16_t>(f[off] << 8 | f[off + 1]);
}
uint32_t Get32(const Bytes &f, size_t off)
{
	return static_cast<uint32_t>(f[off]) << 24 | f[off + 1] << 16 | f[off + 2] << 8 | f[off + 3];
}

uint32_t Sum(const uint8_t *p, size_t n, uint32_t acc = 0)
{
	for (size_t i = 0; i + 1 < n; i += 2)
		acc += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
	if (n & 1)
		acc += static_cast<uint32_t>(p[n - 1] << 8);
	return acc;
}
uint16_t Fold(uint32_t acc)
{
	while (acc >> 16)
		acc = (acc & 0xffff) + (acc >> 16);
	return static_cast<uint16_t>(acc);
}

/* Offset of the L4 checksum field. */
size_t L4CksumOff(const FrameShape &s)
{
	return L2Len(s) + L3Len(s) + (s.tcp ? 16 : 6);
}

/* Sum of the pseudo-header (with the L4 length). */
uint32_t PseudoSum(const Bytes &f, const FrameShape &s, uint32_t l4_len)
{
	size_t l3 = L2Len(s);
	uint32_t acc = s.v6 ? Sum(&f[l3 + 8], 32) : Sum(&f[l3 + 12], 8);
	acc += s.tcp ? IPPROTO_TCP : IPPROTO_UDP;
	acc += l4_len >> 16;
	acc += l4_len & 0xffff;
	return acc;
}

/* Write correct IPv4 header and L4 checksums into a frame. */
void FillChecksums(Bytes &f, const FrameShape &s)
{
	size_t l3 = L2Len(s);
	size_t l4 = l3 + L3Len(s);
	if (!s.v6) {
		Put16(f, l3 + 10, 0);
		Put16(f, l3 + 10, static_cast<uint16_t>(~Fold(Sum(&f[l3], L3Len(s)))));
	}
	Put16(f, L4CksumOff(s), 0);
	uint32_t l4_len = static_cast<uint32_t>(f.size() - l4 - s.pad);
	uint16_t ck = static_cast<uint16_t>(~Fold(Sum(&f[l4], l4_len, PseudoSum(f, s, l4_len))));
	if (!s.tcp && ck == 0)
		ck = 0xffff;
	Put16(f, L4CksumOff(s), ck);
}

/* A frame with correct checksums. */
Bytes BuildFrame(const FrameShape &s)
{
	Bytes f(HdrLen(s) + s.payload);
	f.insert(f.end(), s.pad, 0xee); /* padding that a checksum must not cover */
	const uint8_t dst[6] = {0x02, 0, 0, 0, 0, 0x02};
	const uint8_t src[6] = {0x02, 0, 0, 0, 0, 0x01};
	memcpy(&f[0], dst, 6);
	memcpy(&f[6], src, 6);
	size_t off = 12;
	if (s.vlan && s.qinq) {
		Put16(f, off, RTE_ETHER_TYPE_QINQ);
		Put16(f, off + 2, 0x0fed);
		off += 4;
	}
	if (s.vlan) {
		Put16(f, off, RTE_ETHER_TYPE_VLAN);
		Put16(f, off + 2, *s.vlan);
		off += 4;
	}
	Put16(f, off, s.v6 ? RTE_ETHER_TYPE_IPV6 : RTE_ETHER_TYPE_IPV4);
	size_t l3 = off + 2;
	uint8_t proto = s.tcp ? IPPROTO_TCP : IPPROTO_UDP;
	uint32_t l4_len = L4Len(s) + s.payload;
	if (s.v6) {
		f[l3] = 0x60;
		Put16(f, l3 + 4, static_cast<uint16_t>(s.v6_ext + l4_len));
		f[l3 + 6] = s.v6_ext != 0 ? static_cast<uint8_t>(IPPROTO_HOPOPTS) : proto;
		f[l3 + 7] = 64;
		for (int i = 0; i < 16; i++) {
			f[l3 + 8 + i] = static_cast<uint8_t>(0x20 + i);
			f[l3 + 24 + i] = static_cast<uint8_t>(0x40 + i);
		}
		if (s.v6_ext != 0) {
			/* Next header, length in 8-byte units past the first, then PadN options. */
			size_t e = l3 + 40;
			f[e] = proto;
			f[e + 1] = static_cast<uint8_t>(s.v6_ext / 8 - 1);
			for (size_t o = e + 2; o < e + s.v6_ext;) {
				size_t n = std::min<size_t>(e + s.v6_ext - o - 2, 255);
				f[o] = 1;
				f[o + 1] = static_cast<uint8_t>(n);
				std::fill(f.begin() + o + 2, f.begin() + o + 2 + n, 0);
				o += n + 2;
			}
		}
	} else {
		f[l3] = static_cast<uint8_t>(0x40 | L3Len(s) / 4);
		Put16(f, l3 + 2, static_cast<uint16_t>(L3Len(s) + l4_len));
		Put16(f, l3 + 4, 0x1000 + s.seed);
		f[l3 + 8] = 64;
		f[l3 + 9] = proto;
		Put32(f, l3 + 12, 0x0a000001);
		Put32(f, l3 + 16, 0x0a000002);
		for (size_t i = 0; i < s.ip_opts; i++)
			f[l3 + 20 + i] = 1; /* no-operation */
	}
	size_t l4 = l3 + L3Len(s);
	Put16(f, l4, 1000 + s.seed);
	Put16(f, l4 + 2, 2000);
	if (s.tcp) {
		Put32(f, l4 + 4, 0x10000000u + s.seed);
		Put32(f, l4 + 8, 0x20000000u);
		f[l4 + 12] = static_cast<uint8_t>((L4Len(s) / 4) << 4);
		f[l4 + 13] = s.tcp_flags;
		Put16(f, l4 + 14, 0xffff);
		for (size_t i = 0; i < s.tcp_opts; i++)
			f[l4 + 20 + i] = 1; /* no-operation */
	} else {
		Put16(f, l4 + 4, static_cast<uint16_t>(l4_len));
	}
	for (uint32_t i = 0; i < s.payload; i++)
		f[HdrLen(s) + i] = static_cast<uint8_t>(s.seed * 7 + i);
	FillChecksums(f, s);
	return f;
}

/* The segments a TSO request of frame f (mss) must turn into on the wire. */
std::vector<Bytes> ExpectedSegments(const Bytes &f, const FrameShape &s, uint32_t mss)
{
	std::vector<Bytes> out;
	size_t hdr = HdrLen(s);
	size_t l3 = L2Len(s);
	size_t l4 = l3 + L3Len(s);
	uint32_t payload = static_cast<uint32_t>(f.size() - hdr);
	uint32_t nseg = (payload + mss - 1) / mss;
	for (uint32_t i = 0; i < nseg; i++) {
		uint32_t len = std::min(mss, payload - i * mss);
		Bytes g(f.begin(), f.begin() + hdr);
		g.insert(g.end(), f.begin() + hdr + i * mss, f.begin() + hdr + i * mss + len);
		if (s.v6) {
			Put16(g, l3 + 4, static_cast<uint16_t>(s.v6_ext + L4Len(s) + len));
		} else {
			Put16(g, l3 + 2, static_cast<uint16_t>(L3Len(s) + L4Len(s) + len));
			Put16(g, l3 + 4, static_cast<uint16_t>(Get16(f, l3 + 4) + i));
		}
		Put32(g, l4 + 4, Get32(f, l4 + 4) + i * mss);
		uint8_t flags = f[l4 + 13];
		if (i != nseg - 1)
			flags &= ~(RTE_TCP_FIN_FLAG | RTE_TCP_PSH_FLAG);
		if (i != 0)
			flags &= ~RTE_TCP_CWR_FLAG;
		g[l4 + 13] = flags;
		FillChecksums(g, s);
		out.push_back(std::move(g));
	}
	return out;
}

/* An mbuf (chain of seg-byte segments when seg is non-zero) holding f. */
struct rte_mbuf *ToMbuf(struct rte_mempool *pool, const Bytes &f, uint32_t seg = 0)
{
	if (seg == 0)
		seg = static_cast<uint32_t>(f.size());
	struct rte_mbuf *head = nullptr;
	struct rte_mbuf *last = nullptr;
	for (size_t off = 0; off < f.size(); off += seg) {
		struct rte_mbuf *m = rte_pktmbuf_alloc(pool);
		if (m == nullptr) {
			rte_pktmbuf_free(head);
			ADD_FAILURE() << "out of mbufs";
			return nullptr;
		}
		uint16_t n = static_cast<uint16_t>(std::min<size_t>(seg, f.size() - off));
		memcpy(rte_pktmbuf_append(m, n), &f[off], n);
		if (head == nullptr) {
			head = m;
		} else {
			last->next = m;
			head->nb_segs++;
			head->pkt_len += n;
		}
		last = m;
	}
	return head;
}

Bytes FromMbuf(const struct rte_mbuf *m)
{
	Bytes b(m->pkt_len);
	const void *p = rte_pktmbuf_read(m, 0, m->pkt_len, b.data());
	if (p != b.data())
		memcpy(b.data(), p, m->pkt_len);
	return b;
}

/* An mbuf chain holding f, cut at the given ascending offsets. */
struct rte_mbuf *ToChain(struct rte_mempool *pool, const Bytes &f, std::vector<uint32_t> cuts)
{
	cuts.push_back(static_cast<uint32_t>(f.size()));
	struct rte_mbuf *head = nullptr;
	struct rte_mbuf *last = nullptr;
	uint32_t from = 0;
	for (uint32_t to : cuts) {
		struct rte_mbuf *m = rte_pktmbuf_alloc(pool);
		if (m == nullptr || to < from || to > f.size()) {
			rte_pktmbuf_free(m);
			rte_pktmbuf_free(head);
			ADD_FAILURE() << "cannot build the chain";
			return nullptr;
		}
		uint16_t n = static_cast<uint16_t>(to - from);
		char *dst = rte_pktmbuf_append(m, n);
		if (dst == nullptr) {
			rte_pktmbuf_free(m);
			rte_pktmbuf_free(head);
			ADD_FAILURE() << "a piece of " << n << " bytes does not fit an mbuf";
			return nullptr;
		}
		memcpy(dst, f.data() + from, n);
		if (head == nullptr) {
			head = m;
		} else {
			last->next = m;
			head->nb_segs++;
			head->pkt_len += n;
		}
		last = m;
		from = to;
	}
	return head;
}

/* Ask for the offloads of s by the mbuf's flags and lengths alone. */
void RequestOffloads(struct rte_mbuf *m, const FrameShape &s)
{
	m->l2_len = L2Len(s);
	m->l3_len = L3Len(s);
	m->l4_len = L4Len(s);
	m->ol_flags |= s.v6 ? RTE_MBUF_F_TX_IPV6 : RTE_MBUF_F_TX_IPV4 | RTE_MBUF_F_TX_IP_CKSUM;
	m->ol_flags |= s.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM;
}

/* Spoil the checksum fields of frame f of shape s. */
void SpoilChecksums(Bytes &f, const FrameShape &s)
{
	Put16(f, L4CksumOff(s), 0x1234);
	if (!s.v6)
		Put16(f, L2Len(s) + 10, 0xabcd);
}

/* Fill what follows the data of every segment of a chain with pat. */
void FillTailroom(struct rte_mbuf *m, uint8_t pat)
{
	for (; m != nullptr; m = m->next)
		memset(rte_pktmbuf_mtod_offset(m, uint8_t *, m->data_len), pat,
		       rte_pktmbuf_tailroom(m));
}

/* Where the first byte after the data of a segment differs from pat, if anywhere. */
::testing::AssertionResult TailroomIntact(const struct rte_mbuf *m, uint8_t pat)
{
	for (int i = 0; m != nullptr; m = m->next, i++) {
		const uint8_t *p = rte_pktmbuf_mtod_offset(m, const uint8_t *, m->data_len);
		for (uint16_t k = 0; k < rte_pktmbuf_tailroom(m); k++)
			if (p[k] != pat)
				return ::testing::AssertionFailure()
				       << "segment " << i << " (" << m->data_len
				       << " bytes of data) was written at data + " << k;
	}
	return ::testing::AssertionSuccess();
}

/* Take one more reference on every segment, so that the chain outlives its transmission. */
void KeepRef(struct rte_mbuf *m)
{
	for (; m != nullptr; m = m->next)
		rte_mbuf_refcnt_update(m, 1);
}

/* Ask for the checksums of s in software-offload form and spoil the fields. */
void RequestChecksums(struct rte_mbuf *m, const FrameShape &s)
{
	m->l2_len = L2Len(s);
	m->l3_len = L3Len(s);
	m->l4_len = L4Len(s);
	m->ol_flags |= s.v6 ? RTE_MBUF_F_TX_IPV6 : RTE_MBUF_F_TX_IPV4 | RTE_MBUF_F_TX_IP_CKSUM;
	m->ol_flags |= s.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM;
	uint8_t *p = rte_pktmbuf_mtod(m, uint8_t *);
	p[L4CksumOff(s)] = 0x12;
	p[L4CksumOff(s) + 1] = 0x34;
	if (!s.v6) {
		p[L2Len(s) + 10] = 0xab;
		p[L2Len(s) + 11] = 0xcd;
	}
}

/*
 * What a virtio receiver does with a frame that came with NEEDS_CSUM: sum
 * from the start of L4 to the end (the field holds the pseudo-header sum)
 * and store the complement.
 */
void CompletePartialChecksum(Bytes &f, const FrameShape &s)
{
	size_t l4 = L2Len(s) + L3Len(s);
	uint16_t ck = static_cast<uint16_t>(~Fold(Sum(&f[l4], f.size() - l4)));
	if (!s.tcp && ck == 0)
		ck = 0xffff;
	Put16(f, L4CksumOff(s), ck);
}

/* Equal frames, or where the first difference lies. */
::testing::AssertionResult SameFrame(const Bytes &got, const Bytes &want)
{
	if (got == want)
		return ::testing::AssertionSuccess();
	auto r = ::testing::AssertionFailure();
	r << "got " << got.size() << " bytes, want " << want.size();
	for (size_t i = 0; i < std::min(got.size(), want.size()); i++) {
		if (got[i] != want[i]) {
			char diff[96];
			snprintf(diff, sizeof(diff), "; first difference at byte %zu: got 0x%02x want 0x%02x",
				 i, got[i], want[i]);
			r << diff;
			break;
		}
	}
	return r;
}

/* ---- Ports ---- */

struct rte_eth_dev_data *DevData(uint16_t port)
{
	return rte_eth_devices[port].data;
}

struct zorv1_internal *Internal(uint16_t port)
{
	return static_cast<struct zorv1_internal *>(DevData(port)->dev_private);
}

std::vector<struct rte_mbuf *> ReceiveN(uint16_t port, uint16_t q, size_t n, int ms = 3000)
{
	std::vector<struct rte_mbuf *> got;
	struct rte_mbuf *burst[64];
	WaitFor(
		[&] {
			uint16_t k = rte_eth_rx_burst(port, q, burst, 64);
			got.insert(got.end(), burst, burst + k);
			return got.size() >= n;
		},
		ms);
	return got;
}

std::vector<Bytes> ReceiveFrames(uint16_t port, uint16_t q, size_t n, int ms = 3000)
{
	std::vector<Bytes> frames;
	for (struct rte_mbuf *m : ReceiveN(port, q, n, ms)) {
		frames.push_back(FromMbuf(m));
		rte_pktmbuf_free(m);
	}
	return frames;
}

/* Nothing more arrives for a short while. */
size_t Drain(uint16_t port, uint16_t q, int ms = 100)
{
	size_t n = 0;
	struct rte_mbuf *burst[64];
	auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
	while (std::chrono::steady_clock::now() < end) {
		uint16_t k = rte_eth_rx_burst(port, q, burst, 64);
		rte_pktmbuf_free_bulk(burst, k);
		n += k;
	}
	return n;
}

int g_seq; /* unique names of ports and sockets */

/*
 * The peer lives in this process: when a test closes the card's side first,
 * virtio-user's next message goes to a closed socket, which must fail with
 * EPIPE rather than end the process.
 */
[[maybe_unused]] const bool g_sigpipe_ignored = [] {
	signal(SIGPIPE, SIG_IGN);
	return true;
}();

/* ---- Socket naming and registration ---- */

class ScopedEnv {
public:
	ScopedEnv(const char *name, const char *value) : name_(name)
	{
		if (const char *old = getenv(name))
			old_ = old;
		if (value != nullptr)
			setenv(name, value, 1);
		else
			unsetenv(name);
	}
	~ScopedEnv()
	{
		if (old_)
			setenv(name_.c_str(), old_->c_str(), 1);
		else
			unsetenv(name_.c_str());
	}

private:
	std::string name_;
	std::optional<std::string> old_;
};

TEST(CardSocket, NameWithoutSlashIsServedInTheDirectoryFromTheEnvironment)
{
	char buf[128];
	{
		ScopedEnv env(ZORV_CARD_SOCK_DIR_ENV, "/run/somewhere");
		ASSERT_EQ(zorv_card_socket_path("vnet3", buf, sizeof(buf)), 0);
		EXPECT_STREQ(buf, "/run/somewhere/vnet3");
	}
	{
		ScopedEnv env(ZORV_CARD_SOCK_DIR_ENV, nullptr);
		ASSERT_EQ(zorv_card_socket_path("vnet3", buf, sizeof(buf)), 0);
		EXPECT_STREQ(buf, "/var/run/zorv1/vnet3");
	}
	{
		ScopedEnv env(ZORV_CARD_SOCK_DIR_ENV, "");
		ASSERT_EQ(zorv_card_socket_path("vnet3", buf, sizeof(buf)), 0);
		EXPECT_STREQ(buf, "/var/run/zorv1/vnet3");
	}
}

TEST(CardSocket, NameWithSlashIsTheSocketPath)
{
	char buf[128];
	ASSERT_EQ(zorv_card_socket_path("/tmp/x/vnet.sock", buf, sizeof(buf)), 0);
	EXPECT_STREQ(buf, "/tmp/x/vnet.sock");
	ASSERT_EQ(zorv_card_socket_path("rel/vnet.sock", buf, sizeof(buf)), 0);
	EXPECT_STREQ(buf, "rel/vnet.sock");
}

TEST(CardSocket, RefusesEmptyNamesAndPathsLongerThanASocketAddress)
{
	char buf[256];
	EXPECT_NE(zorv_card_socket_path("", buf, sizeof(buf)), 0);
	EXPECT_NE(zorv_card_socket_path(nullptr, buf, sizeof(buf)), 0);
	std::string longpath = "/tmp/" + std::string(110, 'a');
	EXPECT_NE(zorv_card_socket_path(longpath.c_str(), buf, sizeof(buf)), 0);
	EXPECT_NE(zorv_card_socket_path("/tmp/abc", buf, 5), 0) << "buffer too small";
}

class CardRegister : public ::testing::Test {
protected:
	void SetUp() override
	{
		start_regist_fail_ = g_dpdk_cp_stat.vhost_regist_fail;
		ifaces_ = zorv_card_iface_count();
	}
	void TearDown() override { EXPECT_EQ(zorv_card_iface_count(), ifaces_); }
	uint32_t start_regist_fail_ = 0;
	uint32_t ifaces_ = 0;
};

TEST_F(CardRegister, CreatesTheSocketDirectoryAndServesTheName)
{
	std::string dir = TestDir() + "/d" + std::to_string(++g_seq) + "/sub";
	ScopedEnv env(ZORV_CARD_SOCK_DIR_ENV, dir.c_str());
	char name[] = "regname";

	ASSERT_EQ(zorv1_dpu_vdev_protocol_register(name), 0);
	EXPECT_TRUE(IsSocket(dir + "/regname"));
	uint32_t sfi = zorv_card_iface_sfi(name);
	EXPECT_GE(sfi, static_cast<uint32_t>(ZORV_CARD_SFI_MIN));
	EXPECT_LE(sfi, static_cast<uint32_t>(ZORV_CARD_MAX_IFACES));
	EXPECT_EQ(zorv_card_iface_vid(name), -1);

	EXPECT_NE(zorv1_dpu_vdev_protocol_register(name), 0) << "registered twice";
	EXPECT_EQ(g_dpdk_cp_stat.vhost_regist_fail, start_regist_fail_ + 1);
	EXPECT_EQ(zorv_card_iface_sfi(name), sfi) << "the failed attempt changed nothing";

	ASSERT_EQ(zorv1_dpu_vdev_protocol_unregister(name), 0);
	EXPECT_FALSE(Exists(dir + "/regname"));
	EXPECT_EQ(zorv_card_iface_sfi(name), INVALID_SFI);
	EXPECT_NE(zorv1_dpu_vdev_protocol_unregister(name), 0) << "not registered any more";
}

TEST_F(CardRegister, EachRegisteredInterfaceHasItsOwnSfi)
{
	std::string a = TestDir() + "/ra" + std::to_string(++g_seq);
	std::string b = TestDir() + "/rb" + std::to_string(g_seq);
	ASSERT_EQ(zorv1_dpu_vdev_protocol_register(a.data()), 0);
	ASSERT_EQ(zorv1_dpu_vdev_protocol_register(b.data()), 0);
	EXPECT_NE(zorv_card_iface_sfi(a.c_str()), zorv_card_iface_sfi(b.c_str()));
	EXPECT_NE(zorv_card_iface_sfi(a.c_str()), INVALID_SFI);
	EXPECT_NE(zorv_card_iface_sfi(b.c_str()), INVALID_SFI);
	EXPECT_EQ(zorv1_dpu_vdev_protocol_unregister(a.data()), 0);
	EXPECT_EQ(zorv1_dpu_vdev_protocol_unregister(b.data()), 0);
}

TEST_F(CardRegister, ReplacesAStaleSocketButNotALiveOneOrAFile)
{
	std::string stale = TestDir() + "/stale" + std::to_string(++g_seq);
	int fd = BindSocket(stale, false);
	ASSERT_GE(fd, 0);
	close(fd); /* the file stays, nobody listens */
	ASSERT_TRUE(IsSocket(stale));
	ASSERT_EQ(zorv1_dpu_vdev_protocol_register(stale.data()), 0);
	EXPECT_TRUE(IsSocket(stale));
	EXPECT_EQ(zorv1_dpu_vdev_protocol_unregister(stale.data()), 0);

	std::string live = TestDir() + "/live" + std::to_string(g_seq);
	int lfd = BindSocket(live, true);
	ASSERT_GE(lfd, 0);
	EXPECT_NE(zorv1_dpu_vdev_protocol_register(live.data()), 0);
	EXPECT_TRUE(IsSocket(live)) << "another server's socket was removed";
	close(lfd);
	unlink(live.c_str());

	std::string file = TestDir() + "/file" + std::to_string(g_seq);
	FILE *f = fopen(file.c_str(), "w");
	ASSERT_NE(f, nullptr);
	fclose(f);
	EXPECT_NE(zorv1_dpu_vdev_protocol_register(file.data()), 0);
	EXPECT_TRUE(Exists(file)) << "a regular file was removed";
	unlink(file.c_str());
}

TEST(CardIfname, AConnectionIdWithoutAConnectionHasNoName)
{
	char buf[64] = "garbage";
	EXPECT_NE(zorv_get_ifname(1000, buf, sizeof(buf)), 0);
	EXPECT_STREQ(buf, "");
	EXPECT_NE(zorv_get_ifname(-1, buf, sizeof(buf)), 0);
	EXPECT_NE(zorv_get_ifname(0, nullptr, 16), 0);
}

TEST(CardSetDevPort, AcceptsFunctionsOneTo8191Only)
{
	zorv_test::FakePort port;
	ASSERT_TRUE(port);
	EXPECT_EQ(zorv_set_dev_port(port.dev(), 1), 0);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(1), port.port_id());
	EXPECT_EQ(zorv_set_dev_port(port.dev(), 8191), 0);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(8191), port.port_id());
	EXPECT_NE(zorv_set_dev_port(port.dev(), 0), 0);
	EXPECT_NE(zorv_set_dev_port(port.dev(), 8192), 0);
	EXPECT_NE(zorv_set_dev_port(port.dev(), INVALID_SFI), 0);
	EXPECT_NE(zorv_set_dev_port(nullptr, 5), 0);
	zorv1_dev_sfi_unmap_port(1);
	zorv1_dev_sfi_unmap_port(8191);
}

/* ---- The card's transmit offload routines on their own ---- */

using zorv_test::MbufPtr;

constexpr uint64_t kNoFeatures = 0;
constexpr uint64_t kOffloadFlags = RTE_MBUF_F_TX_IP_CKSUM | RTE_MBUF_F_TX_L4_MASK |
				   RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_IPV4 | RTE_MBUF_F_TX_IPV6;

std::string Describe(const FrameShape &s)
{
	std::string d = s.v6 ? "v6" : "v4";
	d += s.tcp ? " tcp" : " udp";
	if (s.vlan)
		d += s.qinq ? " qinq" : " vlan";
	if (s.ip_opts != 0)
		d += " ip_opts " + std::to_string(s.ip_opts);
	if (s.v6_ext != 0)
		d += " v6_ext " + std::to_string(s.v6_ext);
	if (s.tcp_opts != 0)
		d += " tcp_opts " + std::to_string(s.tcp_opts);
	if (s.pad != 0)
		d += " pad " + std::to_string(s.pad);
	return d + " payload " + std::to_string(s.payload);
}

/* Shapes over the header layouts the card parses. */
std::vector<FrameShape> LayoutShapes(bool tcp_only)
{
	std::vector<FrameShape> out;
	for (bool v6 : {false, true}) {
		for (bool tcp : {false, true}) {
			if (tcp_only && !tcp)
				continue;
			for (int layout = 0; layout < 5; layout++) {
				FrameShape s;
				s.v6 = v6;
				s.tcp = tcp;
				s.payload = 200 + 37 * layout;
				s.seed = static_cast<uint8_t>(out.size());
				if (layout == 1)
					s.vlan = 0x0123;
				if (layout == 2) {
					s.vlan = 0x0456;
					s.qinq = true;
				}
				if (layout == 3) {
					s.ip_opts = v6 ? 0 : 12;
					s.v6_ext = v6 ? 16 : 0;
				}
				if (layout == 4 && tcp)
					s.tcp_opts = 12;
				out.push_back(s);
			}
		}
	}
	return out;
}

/* Cut points over the headers of s: inside L2, L3, the L4 header and its checksum field. */
std::vector<std::vector<uint32_t>> HeaderCuts(const FrameShape &s)
{
	uint32_t l3 = L2Len(s);
	uint32_t l4 = l3 + L3Len(s);
	uint32_t ck = static_cast<uint32_t>(L4CksumOff(s));
	return {{}, {5}, {l3 + 7}, {l4}, {ck + 1}, {l4 + 1, ck, HdrLen(s) + 3u}};
}

class CardTxOffload : public ::testing::Test {
protected:
	void TearDown() override { EXPECT_EQ(pool_.InUse(), 0u) << "mbufs leaked"; }

	zorv_test::MbufPool pool_{1023};
};

TEST_F(CardTxOffload, ChecksumsAreFilledBehindEveryHeaderLayoutAndAnyCut)
{
	for (const FrameShape &s : LayoutShapes(false)) {
		Bytes want = BuildFrame(s);
		for (const auto &cuts : HeaderCuts(s)) {
			Bytes f = want;
			SpoilChecksums(f, s);
			MbufPtr m(ToChain(pool_, f, cuts));
			ASSERT_TRUE(m);
			RequestOffloads(m.get(), s);
			EXPECT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_AS_IS)
				<< Describe(s);
			EXPECT_TRUE(SameFrame(FromMbuf(m.get()), want))
				<< Describe(s) << ", " << cuts.size() << " cuts";
			EXPECT_EQ(m->ol_flags & kOffloadFlags, 0u) << "nothing left for the peer";
		}
	}
}

TEST_F(CardTxOffload, AChecksumCoversTheIpLengthNotTheEthernetPadding)
{
	for (bool tcp : {false, true}) {
		FrameShape s;
		s.tcp = tcp;
		s.payload = 2;
		s.pad = static_cast<uint8_t>(60 - HdrLen(s) - s.payload);
		Bytes want = BuildFrame(s);
		ASSERT_EQ(want.size(), 60u);
		Bytes f = want;
		SpoilChecksums(f, s);
		MbufPtr m(ToChain(pool_, f, {}));
		RequestOffloads(m.get(), s);
		EXPECT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_AS_IS);
		EXPECT_TRUE(SameFrame(FromMbuf(m.get()), want)) << (tcp ? "tcp" : "udp");
	}
}

TEST_F(CardTxOffload, TheFrameDecidesTheHeaderLengthsNotTheMbuf)
{
	FrameShape s;
	s.tcp = true;
	s.vlan = 0x0042;
	s.ip_opts = 8;
	s.tcp_opts = 4;
	Bytes want = BuildFrame(s);
	for (uint16_t wrong : {0, 1, 7, 127}) {
		Bytes f = want;
		SpoilChecksums(f, s);
		MbufPtr m(ToChain(pool_, f, {}));
		RequestOffloads(m.get(), s);
		m->l2_len = wrong;
		m->l3_len = wrong;
		m->l4_len = wrong & 0xff;
		EXPECT_EQ(zorv_card_tx_prepare(kGuestCsum, m.get()), ZORV_CARD_TX_AS_IS);
		EXPECT_EQ(m->l2_len, L2Len(s));
		EXPECT_EQ(m->l3_len, L3Len(s));
		EXPECT_EQ(m->l4_len, L4Len(s));
		EXPECT_EQ(m->ol_flags & kOffloadFlags, RTE_MBUF_F_TX_TCP_CKSUM | RTE_MBUF_F_TX_IPV4);
		/* The peer completes the checksum from the pseudo-header sum. */
		Bytes got = FromMbuf(m.get());
		size_t l4 = L2Len(s) + L3Len(s);
		EXPECT_EQ(Get16(got, L4CksumOff(s)), Fold(PseudoSum(got, s, got.size() - l4)));
		CompletePartialChecksum(got, s);
		EXPECT_TRUE(SameFrame(got, want)) << "mbuf lengths " << wrong;
	}
}

TEST_F(CardTxOffload, APeerWithGuestCsumIsHandedTheL4ChecksumsOfEveryLayout)
{
	for (const FrameShape &s : LayoutShapes(false)) {
		Bytes want = BuildFrame(s);
		Bytes f = want;
		SpoilChecksums(f, s);
		MbufPtr m(ToChain(pool_, f, {static_cast<uint32_t>(L4CksumOff(s)) + 1}));
		RequestOffloads(m.get(), s);
		ASSERT_EQ(zorv_card_tx_prepare(kGuestCsum, m.get()), ZORV_CARD_TX_AS_IS);
		uint64_t want_flags = (s.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM) |
				      (s.v6 ? RTE_MBUF_F_TX_IPV6 : RTE_MBUF_F_TX_IPV4);
		EXPECT_EQ(m->ol_flags & kOffloadFlags, want_flags) << Describe(s);
		EXPECT_EQ(m->l2_len + m->l3_len, L2Len(s) + L3Len(s)) << "csum_start";
		Bytes got = FromMbuf(m.get());
		CompletePartialChecksum(got, s);
		EXPECT_TRUE(SameFrame(got, want)) << Describe(s);
	}
}

/*
 * The peer finds the L4 header through the mbuf's l3_len, 9 bits wide:
 * behind longer IPv6 extension headers the card fills the checksum itself.
 */
TEST_F(CardTxOffload, ChecksumsBehindExtensionHeadersTooLongForTheMbufAreFilledHere)
{
	for (bool tcp : {false, true}) {
		FrameShape s;
		s.v6 = true;
		s.tcp = tcp;
		s.v6_ext = 600;
		ASSERT_GT(L3Len(s), 511);
		Bytes want = BuildFrame(s);
		Bytes f = want;
		SpoilChecksums(f, s);
		MbufPtr m(ToChain(pool_, f, {}));
		RequestOffloads(m.get(), s);
		EXPECT_EQ(zorv_card_tx_prepare(kGuestCsum | kGuestTso6, m.get()), ZORV_CARD_TX_AS_IS);
		EXPECT_EQ(m->ol_flags & kOffloadFlags, 0u) << "nothing left for the peer";
		EXPECT_TRUE(SameFrame(FromMbuf(m.get()), want)) << (tcp ? "tcp" : "udp");
	}
}

/* A request the frame does not support: the frame goes as it is. */
struct Malformed {
	const char *what;
	FrameShape shape;
	std::function<void(Bytes &, const FrameShape &)> frame; /* spoil the frame */
	std::function<void(struct rte_mbuf *)> mbuf;            /* change the request */
	uint64_t features = kNoFeatures;
};

TEST_F(CardTxOffload, RequestsTheFrameDoesNotSupportLeaveItAsItIs)
{
	FrameShape tcp4;
	tcp4.tcp = true;
	FrameShape udp4;
	FrameShape tcp6 = tcp4;
	tcp6.v6 = true;
	FrameShape udp6 = udp4;
	udp6.v6 = true;
	FrameShape big = tcp4;
	big.payload = 1000;
	FrameShape huge = tcp4;
	huge.payload = 65600;
	FrameShape long6 = tcp6;
	long6.v6_ext = 200;
	long6.tcp_opts = 40;
	long6.payload = 3000;
	FrameShape ext6 = tcp6;
	ext6.v6_ext = 512;
	ext6.payload = 3000;
	auto l3 = [](const FrameShape &s) { return static_cast<size_t>(L2Len(s)); };
	auto l4 = [](const FrameShape &s) { return static_cast<size_t>(L2Len(s) + L3Len(s)); };
	auto tso = [](uint16_t mss) {
		return [mss](struct rte_mbuf *m) {
			m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
			m->tso_segsz = mss;
		};
	};
	auto flags = [](uint64_t set, uint64_t clear) {
		return [set, clear](struct rte_mbuf *m) {
			m->ol_flags = (m->ol_flags & ~clear) | set;
		};
	};

	std::vector<Malformed> cases = {
		{"tcp data offset 0", tcp4, [&](Bytes &f, const FrameShape &s) { f[l4(s) + 12] = 0; }},
		{"tcp data offset 4", tcp6, [&](Bytes &f, const FrameShape &s) { f[l4(s) + 12] = 0x40; }},
		{"tcp data offset 4, tso", big,
		 [&](Bytes &f, const FrameShape &s) { f[l4(s) + 12] = 0x40; }, tso(300)},
		{"tcp options past the frame", tcp4,
		 [&](Bytes &f, const FrameShape &s) { f.resize(l4(s) + 20); f[l4(s) + 12] = 0xf0; }},
		{"udp header cut short", udp4, [&](Bytes &f, const FrameShape &s) { f.resize(l4(s) + 4); }},
		{"ipv4 total length past the frame", udp4,
		 [&](Bytes &f, const FrameShape &s) { Put16(f, l3(s) + 2, Get16(f, l3(s) + 2) + 1); }},
		{"ipv4 total length short of the headers", tcp4,
		 [&](Bytes &f, const FrameShape &s) { Put16(f, l3(s) + 2, 39); }},
		{"ipv4 options past the frame", udp4,
		 [&](Bytes &f, const FrameShape &s) { f[l3(s)] = 0x4f; f.resize(l3(s) + 40); },
		 flags(0, RTE_MBUF_F_TX_L4_MASK)},
		{"ipv6 payload length past the frame", tcp6,
		 [&](Bytes &f, const FrameShape &s) { Put16(f, l3(s) + 4, Get16(f, l3(s) + 4) + 2); }},
		{"ipv6 payload length 0", udp6, [&](Bytes &f, const FrameShape &s) { Put16(f, l3(s) + 4, 0); }},
		{"tcp checksum of a udp frame", udp4, nullptr,
		 flags(RTE_MBUF_F_TX_TCP_CKSUM, RTE_MBUF_F_TX_L4_MASK)},
		{"udp checksum of a tcp frame", tcp6, nullptr,
		 flags(RTE_MBUF_F_TX_UDP_CKSUM, RTE_MBUF_F_TX_L4_MASK)},
		{"ipv4 checksum of an ipv6 frame", udp6, nullptr, flags(RTE_MBUF_F_TX_IP_CKSUM, 0)},
		{"ipv4 checksum of an arp frame", udp4,
		 [&](Bytes &f, const FrameShape &) { Put16(f, 12, RTE_ETHER_TYPE_ARP); }},
		{"udp checksum of a fragment", udp4,
		 [&](Bytes &f, const FrameShape &s) { f[l3(s) + 6] = 0x20; }},
		{"tso with mss 0", big, nullptr, tso(0)},
		{"tso with mss 0 on a short frame", tcp4, nullptr, tso(0)},
		{"tso into more segments than the card makes", big, nullptr, tso(3)},
		{"tso segments longer than ip allows", huge, nullptr, tso(65500)},
		{"tso headers longer than the card segments behind", long6, nullptr, tso(1000)},
		{"tso behind extension headers too long for the peer and the card", ext6, nullptr,
		 tso(1000), kGuestCsum | kGuestTso4 | kGuestTso6},
	};
	for (const Malformed &c : cases) {
		Bytes f = BuildFrame(c.shape);
		if (c.frame)
			c.frame(f, c.shape);
		uint32_t piece = f.size() > 2000 ? 2000 : 0;
		MbufPtr m(piece != 0 ? ToMbuf(pool_, f, piece) : ToChain(pool_, f, {}));
		ASSERT_TRUE(m) << c.what;
		RequestOffloads(m.get(), c.shape);
		if (c.mbuf)
			c.mbuf(m.get());
		EXPECT_EQ(zorv_card_tx_prepare(c.features, m.get()), -EINVAL) << c.what;
		EXPECT_TRUE(SameFrame(FromMbuf(m.get()), f)) << c.what;
		EXPECT_EQ(m->ol_flags & kOffloadFlags, 0u) << c.what << ": the request stays";
		struct rte_mbuf *seg = nullptr;
		EXPECT_EQ(zorv_card_tx_segments(pool_, m.get(), &seg, 1), -EINVAL) << c.what;
	}
}

TEST_F(CardTxOffload, OtherRequestsOfAFrameWithoutL4HeadersAreCarriedOut)
{
	/* An IPv4 fragment: its header checksum is all there is to fill. */
	FrameShape s;
	Bytes want = BuildFrame(s);
	size_t l3 = L2Len(s);
	want[l3 + 6] = 0x20;
	Put16(want, l3 + 10, 0);
	Put16(want, l3 + 10, static_cast<uint16_t>(~Fold(Sum(&want[l3], 20))));
	Bytes f = want;
	Put16(f, l3 + 10, 0x5555);
	MbufPtr m(ToChain(pool_, f, {static_cast<uint32_t>(l3) + 11}));
	RequestOffloads(m.get(), s);
	m->ol_flags &= ~RTE_MBUF_F_TX_L4_MASK;
	EXPECT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_AS_IS);
	EXPECT_TRUE(SameFrame(FromMbuf(m.get()), want));

	/* Requests the port does not offer are dropped without touching the frame. */
	FrameShape u;
	Bytes g = BuildFrame(u);
	MbufPtr n(ToChain(pool_, g, {}));
	n->ol_flags = RTE_MBUF_F_TX_SCTP_CKSUM | RTE_MBUF_F_TX_UDP_SEG | RTE_MBUF_F_TX_IPV4;
	EXPECT_EQ(zorv_card_tx_prepare(kNoFeatures, n.get()), ZORV_CARD_TX_AS_IS);
	EXPECT_TRUE(SameFrame(FromMbuf(n.get()), g));
	EXPECT_EQ(n->ol_flags & (kOffloadFlags | RTE_MBUF_F_TX_UDP_SEG), 0u);
}

/* Segment m into a vector; the segments are freed when the test's pool checks. */
std::vector<Bytes> Segment(struct rte_mempool *pool, const struct rte_mbuf *m, int *ret)
{
	std::vector<struct rte_mbuf *> segs(ZORV_CARD_TSO_SEGS_MAX);
	*ret = zorv_card_tx_segments(pool, m, segs.data(), static_cast<uint32_t>(segs.size()));
	std::vector<Bytes> out;
	for (int i = 0; i < *ret; i++) {
		out.push_back(FromMbuf(segs[i]));
		rte_pktmbuf_free(segs[i]);
	}
	return out;
}

TEST_F(CardTxOffload, TsoIsSegmentedBehindEveryHeaderLayoutAndAnyCut)
{
	for (FrameShape s : LayoutShapes(true)) {
		s.payload = 2500 + s.seed;
		s.tcp_flags = RTE_TCP_ACK_FLAG | RTE_TCP_PSH_FLAG | RTE_TCP_FIN_FLAG | RTE_TCP_CWR_FLAG;
		Bytes f = BuildFrame(s);
		const uint32_t mss = 1000;
		std::vector<Bytes> want = ExpectedSegments(f, s, mss);
		ASSERT_EQ(want.size(), 3u);
		for (auto cuts : HeaderCuts(s)) {
			cuts.push_back(HdrLen(s) + 999); /* and one in the payload */
			MbufPtr m(ToChain(pool_, f, cuts));
			ASSERT_TRUE(m);
			RequestOffloads(m.get(), s);
			m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
			m->tso_segsz = mss;
			ASSERT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_SEGMENT)
				<< Describe(s);
			EXPECT_TRUE(SameFrame(FromMbuf(m.get()), f)) << "prepare changed the frame";
			int ret = 0;
			std::vector<Bytes> got = Segment(pool_, m.get(), &ret);
			ASSERT_EQ(ret, 3) << Describe(s);
			for (size_t i = 0; i < want.size(); i++)
				EXPECT_TRUE(SameFrame(got[i], want[i]))
					<< Describe(s) << " segment " << i << ", " << cuts.size() << " cuts";
			EXPECT_TRUE(SameFrame(FromMbuf(m.get()), f)) << "segmenting changed the frame";
		}
	}
}

TEST_F(CardTxOffload, ATsoRequestThatFitsOneSegmentGoesAsOneChecksummedFrame)
{
	for (bool v6 : {false, true}) {
		FrameShape s;
		s.v6 = v6;
		s.tcp = true;
		s.payload = 700;
		Bytes want = BuildFrame(s);
		for (uint16_t mss : {700, 701, 65535}) {
			Bytes f = want;
			SpoilChecksums(f, s);
			MbufPtr m(ToChain(pool_, f, {}));
			RequestOffloads(m.get(), s);
			m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
			m->tso_segsz = mss;
			EXPECT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_AS_IS);
			EXPECT_TRUE(SameFrame(FromMbuf(m.get()), want)) << "mss " << mss;
			EXPECT_EQ(m->ol_flags & kOffloadFlags, 0u);
		}
	}
}

TEST_F(CardTxOffload, APeerWithTsoIsHandedTheLargeFrameUnlessItExceedsIpsLength)
{
	const uint64_t tso = kGuestCsum | kGuestTso4 | kGuestTso6;
	for (bool v6 : {false, true}) {
		FrameShape s;
		s.v6 = v6;
		s.tcp = true;
		s.payload = 5000;
		Bytes want = BuildFrame(s);
		Bytes f = want;
		SpoilChecksums(f, s);
		MbufPtr m(ToMbuf(pool_, f, 1500));
		RequestOffloads(m.get(), s);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
		m->tso_segsz = 1400;
		EXPECT_EQ(zorv_card_tx_prepare(v6 ? kGuestTso4 | kGuestCsum : kGuestTso6 | kGuestCsum,
					       m.get()),
			  ZORV_CARD_TX_SEGMENT)
			<< "TSO of the other family only";
		ASSERT_EQ(zorv_card_tx_prepare(tso, m.get()), ZORV_CARD_TX_AS_IS);
		EXPECT_EQ(m->ol_flags & kOffloadFlags,
			  RTE_MBUF_F_TX_TCP_SEG | RTE_MBUF_F_TX_TCP_CKSUM |
				  (v6 ? RTE_MBUF_F_TX_IPV6 : RTE_MBUF_F_TX_IPV4));
		EXPECT_EQ(m->tso_segsz, 1400);
		EXPECT_EQ(m->l2_len + m->l3_len + m->l4_len, HdrLen(s));
		Bytes got = FromMbuf(m.get());
		EXPECT_EQ(Get16(got, L4CksumOff(s)), Fold(PseudoSum(got, s, 0)));
		Put16(got, L4CksumOff(s), Get16(want, L4CksumOff(s)));
		EXPECT_TRUE(SameFrame(got, want)) << "only the checksums change";
	}

	/* Beyond 64 KB of IP packet the peer cannot take it whole: the card segments. */
	FrameShape s;
	s.tcp = true;
	s.payload = 70000;
	MbufPtr m(ToMbuf(pool_, BuildFrame(s), 2000));
	RequestOffloads(m.get(), s);
	m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
	m->tso_segsz = 1448;
	EXPECT_EQ(zorv_card_tx_prepare(tso, m.get()), ZORV_CARD_TX_SEGMENT);
}

TEST_F(CardTxOffload, SegmentingReportsWhatStopsItAndLeavesNothingAllocated)
{
	FrameShape s;
	s.tcp = true;
	s.payload = 1000;
	Bytes f = BuildFrame(s);
	MbufPtr m(ToChain(pool_, f, {}));
	RequestOffloads(m.get(), s);
	m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
	m->tso_segsz = 100;
	ASSERT_EQ(zorv_card_tx_prepare(kNoFeatures, m.get()), ZORV_CARD_TX_SEGMENT);
	std::vector<Bytes> want = ExpectedSegments(f, s, 100);
	ASSERT_EQ(want.size(), 10u);

	struct rte_mbuf *segs[16];
	unsigned before = pool_.InUse();
	EXPECT_EQ(zorv_card_tx_segments(pool_, m.get(), segs, 9), -E2BIG);
	EXPECT_EQ(zorv_card_tx_segments(nullptr, m.get(), segs, 16), -EINVAL);
	{
		zorv_test::MbufPool few(7);
		EXPECT_EQ(zorv_card_tx_segments(few, m.get(), segs, 16), -ENOMEM);
		EXPECT_EQ(few.InUse(), 0u);
	}
	{
		/* Room for 40 bytes: not the 54 bytes of headers. */
		zorv_test::MbufPool tiny(63, RTE_PKTMBUF_HEADROOM + 40);
		EXPECT_EQ(zorv_card_tx_segments(tiny, m.get(), segs, 16), -ENOSPC);
		EXPECT_EQ(tiny.InUse(), 0u);
	}
	{
		/* Room for 64 bytes: the segments become chains. */
		zorv_test::MbufPool small(127, RTE_PKTMBUF_HEADROOM + 64);
		ASSERT_EQ(zorv_card_tx_segments(small, m.get(), segs, 16), 10);
		for (int i = 0; i < 10; i++) {
			EXPECT_EQ(segs[i]->nb_segs, 3) << "54 + 10, 64, 26 bytes";
			EXPECT_TRUE(SameFrame(FromMbuf(segs[i]), want[i])) << "segment " << i;
			rte_pktmbuf_free(segs[i]);
		}
	}
	EXPECT_EQ(pool_.InUse(), before);

	/* Not a TSO packet: nothing to segment. */
	m->ol_flags &= ~RTE_MBUF_F_TX_TCP_SEG;
	EXPECT_EQ(zorv_card_tx_segments(pool_, m.get(), segs, 16), -EINVAL);
}

/* ---- A port of the driver with a virtio-user peer ---- */

/* Peer set-up; the defaults are a plain peer with one queue pair. */
struct RigOptions {
	uint16_t port_queues = 1;
	uint16_t peer_queues = 1;
	uint64_t peer_rx_offloads = 0;
	uint64_t peer_tx_offloads = 0;
	bool iface_by_name = false; /* iface without '/', served in the socket directory */
};

/* One port of the driver, its pools, and a virtio-user peer on its socket. */
class Rig {
public:
	using Options = RigOptions;

	/* Create, configure and start the port, then attach the peer. */
	void Open(const Options &opt)
	{
		opt_ = opt;
		int n = ++g_seq;
		if (opt_.iface_by_name) {
			iface_ = "cn" + std::to_string(n);
			sock_ = TestDir() + "/" + iface_;
			env_.emplace(ZORV_CARD_SOCK_DIR_ENV, TestDir().c_str());
		} else {
			iface_ = sock_ = TestDir() + "/c" + std::to_string(n) + ".sock";
		}
		port_name_ = "net_zorv1_card" + std::to_string(n);
		port_pool_.emplace(2047);
		peer_pool_.emplace(4095);
		tx_pool_.emplace(2047);
		ifaces_ = zorv_card_iface_count();

		std::string args = "iface=" + iface_ + ",queues=" + std::to_string(opt_.port_queues);
		ASSERT_EQ(rte_vdev_init(port_name_.c_str(), args.c_str()), 0);
		port_open_ = true;
		ASSERT_EQ(rte_eth_dev_get_port_by_name(port_name_.c_str(), &port_), 0);
		ASSERT_EQ(StartPort(port_, opt_.port_queues, port_pool_->get(), 0, kPortTxOffloads, 1024),
			  0);
		ASSERT_TRUE(IsSocket(sock_)) << "configure serves the interface at " << sock_;
		EXPECT_EQ(Internal(port_)->sfi, INVALID_SFI);
		EXPECT_FALSE(LinkUp(port_));
		ASSERT_NO_FATAL_FAILURE(AttachPeer());
	}

	/* Detach the peer, close the port, and check that nothing leaked. */
	void Finish()
	{
		if (!port_pool_)
			return;
		DetachPeer();
		ClosePort();
		EXPECT_EQ(port_pool_->InUse(), 0u) << "mbufs of the port's receive pool leaked";
		EXPECT_EQ(peer_pool_->InUse(), 0u) << "mbufs of the peer's receive pool leaked";
		EXPECT_EQ(tx_pool_->InUse(), 0u) << "transmitted mbufs leaked";
		EXPECT_EQ(zorv_card_iface_count(), ifaces_);
	}

	void AttachPeer()
	{
		peer_name_ = "net_virtio_user" + std::to_string(++g_seq);
		std::string args = "path=" + sock_ + ",queues=" + std::to_string(opt_.peer_queues) +
				   ",queue_size=1024";
		ASSERT_EQ(rte_vdev_init(peer_name_.c_str(), args.c_str()), 0);
		peer_open_ = true;
		ASSERT_EQ(rte_eth_dev_get_port_by_name(peer_name_.c_str(), &peer_), 0);
		ASSERT_EQ(StartPort(peer_, opt_.peer_queues, peer_pool_->get(), opt_.peer_rx_offloads,
				    opt_.peer_tx_offloads, 1024),
			  0);
		ASSERT_TRUE(WaitFor([&] { return LinkUp(port_); })) << "link of the port stays down";
		vid_ = zorv_card_iface_vid(iface_.c_str());
		ASSERT_GE(vid_, 0);
	}

	void DetachPeer()
	{
		if (!peer_open_)
			return;
		peer_open_ = false;
		rte_eth_dev_stop(peer_);
		EXPECT_EQ(rte_vdev_uninit(peer_name_.c_str()), 0);
	}

	void ClosePort()
	{
		if (!port_open_)
			return;
		port_open_ = false;
		rte_eth_dev_stop(port_);
		EXPECT_EQ(rte_vdev_uninit(port_name_.c_str()), 0);
		EXPECT_FALSE(Exists(sock_)) << "closing the port leaves its socket";
	}

	/* Send frames from the port, receive them at the peer. */
	std::vector<Bytes> PortToPeer(std::vector<struct rte_mbuf *> pkts, size_t expect,
				      uint16_t q = 0)
	{
		uint16_t n = static_cast<uint16_t>(pkts.size());
		EXPECT_EQ(SendAll(port_, q, pkts.data(), n), n);
		return ReceiveFrames(peer_, q, expect);
	}

	/* Send frames from the peer, receive them at the port. */
	std::vector<Bytes> PeerToPort(const std::vector<Bytes> &frames, size_t expect, uint16_t q = 0)
	{
		std::vector<struct rte_mbuf *> pkts;
		for (const Bytes &f : frames)
			pkts.push_back(ToMbuf(tx_pool_->get(), f));
		uint16_t n = static_cast<uint16_t>(pkts.size());
		EXPECT_EQ(SendAll(peer_, q, pkts.data(), n), n);
		return ReceiveFrames(port_, q, expect);
	}

	Options opt_;
	std::optional<ScopedEnv> env_;
	std::string iface_, sock_, port_name_, peer_name_;
	std::optional<zorv_test::MbufPool> port_pool_, peer_pool_, tx_pool_;
	uint16_t port_ = 0, peer_ = 0;
	bool port_open_ = false, peer_open_ = false;
	int vid_ = -1;
	uint32_t ifaces_ = 0;
};

class CardPeer : public ::testing::Test, public Rig {
protected:
	virtual Options Opts() const { return {}; }
	void SetUp() override { Open(Opts()); }
	void TearDown() override { Finish(); }
};

TEST_F(CardPeer, ConnectionBindsTheInterfaceSfiAndBringsTheLinkUp)
{
	struct zorv1_internal *in = Internal(port_);
	EXPECT_EQ(in->vid, vid_);
	EXPECT_EQ(in->sfi, zorv_card_iface_sfi(iface_.c_str()));
	EXPECT_EQ(zorv_dev_sfi_lookup_port(in->sfi), port_) << "sfi mapped to the port";

	char name[4096];
	EXPECT_EQ(zorv_get_ifname(vid_, name, sizeof(name)), 0);
	EXPECT_EQ(std::string(name), iface_);

	uint64_t f = zorv_card_conn_features(vid_);
	EXPECT_NE(f & (1ULL << 32), 0u) << "VERSION_1";
	EXPECT_EQ(f & kHostCsum, 0u) << "a peer without transmit offloads sends complete frames";
	EXPECT_EQ(f & kGuestCsum, 0u) << "a peer without receive offloads does not take partial checksums";
}

TEST_F(CardPeer, FramesArriveUnchangedBothWays)
{
	std::vector<Bytes> sent;
	std::vector<struct rte_mbuf *> pkts;
	for (uint8_t i = 0; i < 40; i++) {
		FrameShape s;
		s.tcp = i % 2;
		s.v6 = i % 3 == 0;
		s.payload = 20 + i * 37;
		s.seed = i;
		sent.push_back(BuildFrame(s));
		pkts.push_back(ToMbuf(tx_pool_->get(), sent.back()));
	}
	std::vector<Bytes> got = PortToPeer(pkts, sent.size());
	ASSERT_EQ(got.size(), sent.size());
	for (size_t i = 0; i < sent.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], sent[i])) << "frame " << i << " port -> peer";

	got = PeerToPort(sent, sent.size());
	ASSERT_EQ(got.size(), sent.size());
	for (size_t i = 0; i < sent.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], sent[i])) << "frame " << i << " peer -> port";

	struct rte_eth_stats st = {};
	ASSERT_EQ(rte_eth_stats_get(port_, &st), 0);
	uint64_t bytes = 0;
	for (const Bytes &f : sent)
		bytes += f.size();
	EXPECT_EQ(st.opackets, sent.size());
	EXPECT_EQ(st.obytes, bytes);
	EXPECT_EQ(st.ipackets, sent.size());
	EXPECT_EQ(st.ibytes, bytes);
}

TEST_F(CardPeer, ChecksumRequestsAreComputedWhenThePeerTakesOnlyCompleteFrames)
{
	std::vector<FrameShape> shapes;
	for (bool v6 : {false, true})
		for (bool tcp : {false, true})
			for (uint32_t payload : {1u, 57u, 1400u}) {
				FrameShape s;
				s.v6 = v6;
				s.tcp = tcp;
				s.payload = payload;
				s.seed = static_cast<uint8_t>(shapes.size());
				shapes.push_back(s);
			}
	FrameShape tagged;
	tagged.tcp = true;
	tagged.vlan = 0x0123;
	tagged.payload = 300;
	shapes.push_back(tagged);

	std::vector<Bytes> want;
	std::vector<struct rte_mbuf *> pkts;
	for (size_t i = 0; i < shapes.size(); i++) {
		want.push_back(BuildFrame(shapes[i]));
		/* Every third one as a chain of 3 segments after the headers. */
		uint32_t seg = i % 3 == 2 ? HdrLen(shapes[i]) + 7 : 0;
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), want.back(), seg);
		ASSERT_NE(m, nullptr);
		RequestChecksums(m, shapes[i]);
		pkts.push_back(m);
	}
	std::vector<Bytes> got = PortToPeer(pkts, want.size());
	ASSERT_EQ(got.size(), want.size());
	for (size_t i = 0; i < want.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], want[i])) << "frame " << i << (shapes[i].v6 ? " v6" : " v4")
					   << (shapes[i].tcp ? " tcp" : " udp") << " payload "
					   << shapes[i].payload;
}

TEST_F(CardPeer, VlanInsertedByThePortKeepsChecksumsRight)
{
	FrameShape s;
	s.tcp = true;
	s.payload = 200;
	Bytes untagged = BuildFrame(s);
	struct rte_mbuf *m = ToMbuf(tx_pool_->get(), untagged);
	ASSERT_NE(m, nullptr);
	RequestChecksums(m, s); /* l2_len 14: the tag comes later, from the port */
	m->ol_flags |= RTE_MBUF_F_TX_VLAN;
	m->vlan_tci = 0x0456;

	std::vector<Bytes> got = PortToPeer({m}, 1);
	ASSERT_EQ(got.size(), 1u);
	FrameShape ts = s;
	ts.vlan = 0x0456;
	EXPECT_TRUE(SameFrame(got[0], BuildFrame(ts)));
}

TEST_F(CardPeer, TsoPacketsAreSegmentedWhenThePeerCannotTakeThem)
{
	for (bool v6 : {false, true}) {
		FrameShape s;
		s.v6 = v6;
		s.tcp = true;
		s.payload = 4000;
		s.tcp_flags = RTE_TCP_ACK_FLAG | RTE_TCP_PSH_FLAG | RTE_TCP_FIN_FLAG | RTE_TCP_CWR_FLAG;
		Bytes f = BuildFrame(s);
		const uint32_t mss = 1100;
		/* Multi-segment source: headers and payload split over 1 KB pieces. */
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), f, 1024);
		ASSERT_NE(m, nullptr);
		RequestChecksums(m, s);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
		m->tso_segsz = mss;

		std::vector<Bytes> want = ExpectedSegments(f, s, mss);
		ASSERT_EQ(want.size(), 4u);
		std::vector<Bytes> got = PortToPeer({m}, want.size());
		ASSERT_EQ(got.size(), want.size()) << (v6 ? "v6" : "v4");
		for (size_t i = 0; i < want.size(); i++)
			EXPECT_TRUE(SameFrame(got[i], want[i])) << (v6 ? "v6" : "v4") << " segment " << i;
		EXPECT_EQ(Drain(peer_, 0), 0u) << "more than the segments arrived";
	}
	struct rte_eth_stats st = {};
	ASSERT_EQ(rte_eth_stats_get(port_, &st), 0);
	EXPECT_EQ(st.opackets, 2u) << "a TSO packet counts once at the port";
	struct rte_mempool *segs = rte_mempool_lookup("zorv_card_seg");
	ASSERT_NE(segs, nullptr);
	EXPECT_EQ(rte_mempool_in_use_count(segs), 0u) << "segments are freed once copied";
}

/*
 * A TCP header must be at least 20 bytes long (data offset 5). A frame
 * whose data offset is below that cannot be checksummed: it goes as it is,
 * and nothing is written outside its data, even when its first segment
 * ends with the IP header.
 */
TEST_F(CardPeer, AChecksumRequestOnATcpHeaderShorterThan20BytesSendsTheFrameAsItIs)
{
	for (uint8_t doff : {0, 4}) {
		for (bool split : {false, true}) {
			FrameShape s;
			s.tcp = true;
			s.payload = 100;
			Bytes f = BuildFrame(s);
			f[L2Len(s) + L3Len(s) + 12] = static_cast<uint8_t>(doff << 4);
			std::vector<uint32_t> cuts;
			if (split)
				cuts.push_back(L2Len(s) + L3Len(s));
			struct rte_mbuf *m = ToChain(tx_pool_->get(), f, cuts);
			ASSERT_NE(m, nullptr);
			RequestOffloads(m, s);
			FillTailroom(m, 0xa5);
			KeepRef(m);
			uint32_t refused = g_dpdk_cp_stat.enqueue_vhost_len_fail;

			std::vector<Bytes> got = PortToPeer({m}, 1);
			EXPECT_TRUE(TailroomIntact(m, 0xa5)) << "data offset " << int(doff)
							     << (split ? " split" : "");
			rte_pktmbuf_free(m);
			ASSERT_EQ(got.size(), 1u);
			EXPECT_TRUE(SameFrame(got[0], f)) << "data offset " << int(doff)
							  << (split ? " split" : "");
			EXPECT_EQ(g_dpdk_cp_stat.enqueue_vhost_len_fail, refused + 1)
				<< "the refused request is counted";
		}
	}
}

/* The same for a TSO request: no segmentation behind a TCP header that is not there. */
TEST_F(CardPeer, ATsoRequestOnATcpHeaderShorterThan20BytesSendsOneUnchangedFrame)
{
	for (uint8_t doff : {0, 4}) {
		FrameShape s;
		s.tcp = true;
		s.payload = 1000;
		Bytes f = BuildFrame(s);
		f[L2Len(s) + L3Len(s) + 12] = static_cast<uint8_t>(doff << 4);
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), f);
		ASSERT_NE(m, nullptr);
		RequestOffloads(m, s);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
		m->tso_segsz = 300;

		std::vector<Bytes> got = PortToPeer({m}, 1);
		ASSERT_EQ(got.size(), 1u);
		EXPECT_TRUE(SameFrame(got[0], f)) << "data offset " << int(doff);
		EXPECT_EQ(Drain(peer_, 0), 0u) << "the frame was segmented";
	}
}

/*
 * Headers may be spread over the segments of a chain, also with a cut
 * inside a checksum field: the checksums are computed and written where
 * their bytes are.
 */
TEST_F(CardPeer, ChecksumsAreWrittenWhereverTheSegmentsOfAChainCutTheHeaders)
{
	for (bool v6 : {false, true}) {
		for (bool tcp : {false, true}) {
			FrameShape s;
			s.v6 = v6;
			s.tcp = tcp;
			s.payload = 301;
			Bytes want = BuildFrame(s);
			uint32_t l3 = L2Len(s);
			uint32_t l4 = l3 + L3Len(s);
			uint32_t ck = static_cast<uint32_t>(L4CksumOff(s));
			std::vector<std::vector<uint32_t>> splits = {
				{7},                /* inside the Ethernet header */
				{l3 + 11},          /* inside the IPv4 checksum or the IPv6 header */
				{l4},               /* right after the IP header */
				{ck + 1},           /* inside the L4 checksum field */
				{l3 + 3, l4 + 1, ck, ck + 2}, /* several pieces, one empty of payload */
			};
			for (const auto &cuts : splits) {
				Bytes f = want;
				SpoilChecksums(f, s);
				struct rte_mbuf *m = ToChain(tx_pool_->get(), f, cuts);
				ASSERT_NE(m, nullptr);
				RequestOffloads(m, s);
				FillTailroom(m, 0x5a);
				KeepRef(m);
				std::vector<Bytes> got = PortToPeer({m}, 1);
				EXPECT_TRUE(TailroomIntact(m, 0x5a));
				rte_pktmbuf_free(m);
				ASSERT_EQ(got.size(), 1u);
				EXPECT_TRUE(SameFrame(got[0], want))
					<< (v6 ? "v6" : "v4") << (tcp ? " tcp" : " udp") << " first cut at "
					<< cuts[0];
			}
		}
	}
}

/*
 * One burst mixing frames whose requests are carried out, a frame whose
 * request is refused and a TSO packet the card segments: everything arrives
 * in order, the refused frame as it was sent.
 */
TEST_F(CardPeer, ABurstKeepsItsOrderAcrossRefusedRequestsAndSegmentedPackets)
{
	FrameShape a;
	a.tcp = true;
	a.vlan = 0x0111;
	a.qinq = true;
	a.ip_opts = 8;
	FrameShape b;
	b.v6 = true;
	b.v6_ext = 24;
	b.payload = 80;
	FrameShape t;
	t.v6 = true;
	t.tcp = true;
	t.v6_ext = 16;
	t.tcp_opts = 12;
	t.payload = 2500;

	Bytes fa = BuildFrame(a);
	Bytes fb = BuildFrame(b);
	Bytes ft = BuildFrame(t);
	Bytes bad = BuildFrame(a);
	bad[L2Len(a) + L3Len(a) + 12] = 0x30; /* data offset 3 */
	struct Item {
		Bytes frame;
		FrameShape shape;
		bool spoil, tso;
	};
	std::vector<Item> items = {
		{fa, a, true, false}, {bad, a, false, false}, {ft, t, true, true}, {fb, b, true, false}};
	std::vector<struct rte_mbuf *> pkts;
	for (Item &it : items) {
		if (it.spoil)
			SpoilChecksums(it.frame, it.shape);
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), it.frame, 1000);
		ASSERT_NE(m, nullptr);
		RequestOffloads(m, it.shape);
		if (it.tso) {
			m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
			m->tso_segsz = 1000;
		}
		pkts.push_back(m);
	}
	std::vector<Bytes> want = {fa, bad};
	for (Bytes &g : ExpectedSegments(ft, t, 1000))
		want.push_back(std::move(g));
	want.push_back(fb);
	uint32_t refused = g_dpdk_cp_stat.enqueue_vhost_len_fail;

	std::vector<Bytes> got = PortToPeer(pkts, want.size());
	ASSERT_EQ(got.size(), want.size());
	for (size_t i = 0; i < want.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], want[i])) << "frame " << i;
	EXPECT_EQ(Drain(peer_, 0), 0u);
	EXPECT_EQ(g_dpdk_cp_stat.enqueue_vhost_len_fail, refused + 1);
	struct rte_eth_stats st = {};
	ASSERT_EQ(rte_eth_stats_get(port_, &st), 0);
	EXPECT_EQ(st.opackets, 4u);
}

TEST_F(CardPeer, AcceptedMbufsAreHeldUntilTheNextBurstOnTheQueue)
{
	std::vector<struct rte_mbuf *> pkts;
	std::vector<Bytes> sent;
	for (int i = 0; i < 512; i++) {
		FrameShape s;
		s.payload = 60 + i % 200;
		s.seed = static_cast<uint8_t>(i);
		sent.push_back(BuildFrame(s));
		pkts.push_back(ToMbuf(tx_pool_->get(), sent.back()));
	}
	ASSERT_EQ(rte_eth_tx_burst(port_, 0, pkts.data(), 512), 512) << "one burst of 512";
	EXPECT_EQ(zorv_card_conn_held_mbufs(vid_), 512u);
	EXPECT_EQ(tx_pool_->InUse(), 512u) << "sent mbufs must stay readable until the next burst";

	std::vector<Bytes> got = ReceiveFrames(peer_, 0, 512);
	ASSERT_EQ(got.size(), 512u);
	for (size_t i = 0; i < got.size(); i++)
		ASSERT_TRUE(SameFrame(got[i], sent[i])) << "frame " << i;

	FrameShape s;
	struct rte_mbuf *more[3];
	for (auto &m : more)
		m = ToMbuf(tx_pool_->get(), BuildFrame(s));
	ASSERT_EQ(rte_eth_tx_burst(port_, 0, more, 3), 3);
	EXPECT_EQ(zorv_card_conn_held_mbufs(vid_), 3u) << "the previous burst was freed";
	EXPECT_EQ(tx_pool_->InUse(), 3u);
	EXPECT_EQ(ReceiveFrames(peer_, 0, 3).size(), 3u);

	struct rte_eth_stats st = {};
	ASSERT_EQ(rte_eth_stats_get(port_, &st), 0);
	EXPECT_EQ(st.opackets, 515u);
	EXPECT_EQ(st.oerrors, 0u);
}

TEST_F(CardPeer, ABurstBeyondTheHoldIsCutAndTheRestGoesWithTheRetry)
{
	std::vector<struct rte_mbuf *> pkts;
	for (int i = 0; i < 600; i++) {
		FrameShape s;
		s.seed = static_cast<uint8_t>(i);
		pkts.push_back(ToMbuf(tx_pool_->get(), BuildFrame(s)));
	}
	uint16_t first = rte_eth_tx_burst(port_, 0, pkts.data(), 600);
	EXPECT_EQ(first, ZORV_CARD_TX_HOLD);
	EXPECT_EQ(zorv_card_conn_held_mbufs(vid_), first);
	uint16_t second = rte_eth_tx_burst(port_, 0, pkts.data() + first, 600 - first);
	EXPECT_EQ(first + second, 600);
	EXPECT_EQ(zorv_card_conn_held_mbufs(vid_), second);
	EXPECT_EQ(ReceiveFrames(peer_, 0, 600).size(), 600u);
}

TEST_F(CardPeer, FramesOverTheFirmwareMtuAreDroppedAndCounted)
{
	uint16_t vport = static_cast<uint16_t>(Internal(port_)->comm.flow_data.priv_port);
	zorv_fw_vport_reset(vport);
	ASSERT_EQ(rte_eth_dev_set_mtu(port_, 1000), 0);
	ASSERT_EQ(zorv_fw_get_vport_mtu(vport), 1000u);

	auto frame = [](uint16_t len, bool tagged) {
		FrameShape s;
		if (tagged)
			s.vlan = 7;
		s.payload = len - HdrLen(s);
		return BuildFrame(s);
	};
	std::vector<Bytes> frames = {frame(1014, false), frame(1015, false), frame(1018, true),
				     frame(1019, true), frame(64, false)};
	std::vector<Bytes> got = PeerToPort(frames, 3);
	EXPECT_EQ(Drain(port_, 0), 0u);
	ASSERT_EQ(got.size(), 3u);
	EXPECT_TRUE(SameFrame(got[0], frames[0]));
	EXPECT_TRUE(SameFrame(got[1], frames[2]));
	EXPECT_TRUE(SameFrame(got[2], frames[4]));
	EXPECT_EQ(zorv_fw_get_mtu_drops(vport), 2u);
	zorv_fw_vport_reset(vport);
}

TEST_F(CardPeer, FramesThePortTransmitsOverTheFirmwareMtuAreTakenDroppedAndCounted)
{
	uint16_t vport = static_cast<uint16_t>(Internal(port_)->comm.flow_data.priv_port);
	zorv_fw_vport_reset(vport);
	ASSERT_EQ(rte_eth_dev_set_mtu(port_, 1000), 0);
	const uint64_t rx_total = zorv_fw_mtu_drops_total(0);
	const uint64_t tx_total = zorv_fw_mtu_drops_total(1);

	auto frame = [](uint16_t len, bool tagged) {
		FrameShape s;
		if (tagged)
			s.vlan = 7;
		s.payload = len - HdrLen(s);
		return BuildFrame(s);
	};
	std::vector<Bytes> frames = {frame(1014, false), frame(1015, false), frame(1018, true),
				     frame(1019, true), frame(64, false)};
	std::vector<struct rte_mbuf *> pkts;
	for (const Bytes &f : frames)
		pkts.push_back(ToMbuf(tx_pool_->get(), f));
	/* Every frame is taken from the port; only those within the MTU arrive. */
	std::vector<Bytes> got = PortToPeer(pkts, 3);
	EXPECT_EQ(Drain(peer_, 0), 0u);
	ASSERT_EQ(got.size(), 3u);
	EXPECT_TRUE(SameFrame(got[0], frames[0]));
	EXPECT_TRUE(SameFrame(got[1], frames[2]));
	EXPECT_TRUE(SameFrame(got[2], frames[4]));
	EXPECT_EQ(zorv_fw_get_tx_mtu_drops(vport), 2u);
	EXPECT_EQ(zorv_fw_get_mtu_drops(vport), 0u) << "nothing was received";
	EXPECT_EQ(zorv_fw_mtu_drops_total(1), tx_total + 2);
	EXPECT_EQ(zorv_fw_mtu_drops_total(0), rx_total);

	/* A TSO packet is judged by its segments: IP header + TCP header + MSS. */
	FrameShape s;
	s.tcp = true;
	s.payload = 3000;
	Bytes big = BuildFrame(s);
	for (uint16_t mss : {960, 961}) {
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), big, 1024);
		ASSERT_NE(m, nullptr);
		RequestChecksums(m, s);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
		m->tso_segsz = mss;
		std::vector<Bytes> want = mss == 960 ? ExpectedSegments(big, s, mss) : std::vector<Bytes>{};
		got = PortToPeer({m}, want.size());
		EXPECT_EQ(Drain(peer_, 0), 0u) << "mss " << mss;
		ASSERT_EQ(got.size(), want.size()) << "mss " << mss;
		for (size_t i = 0; i < want.size(); i++)
			EXPECT_TRUE(SameFrame(got[i], want[i])) << "segment " << i;
	}
	EXPECT_EQ(zorv_fw_get_tx_mtu_drops(vport), 3u);

	/* Without an MTU nothing is dropped. */
	zorv_fw_vport_reset(vport);
	got = PortToPeer({ToMbuf(tx_pool_->get(), frames[1])}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], frames[1]));
	EXPECT_EQ(zorv_fw_get_tx_mtu_drops(vport), 0u);
	EXPECT_EQ(zorv_fw_mtu_drops_total(1), tx_total + 3);
}

/* Log entries at WARNING of the card's refusal of a second peer. */
size_t RefusalLines(const zorv_test::LogCapture &cap)
{
	size_t n = 0;
	for (const auto &e : cap.Entries())
		if (e.level == RTE_LOG_WARNING &&
		    e.text.find("a peer is connected") != std::string::npos)
			n++;
	return n;
}

TEST_F(CardPeer, ASecondPeerIsRefusedWhileOneIsConnectedAndMayConnectOnceItLeaves)
{
	zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);
	const uint64_t total = zorv_card_peers_refused_total();
	const uint32_t new_conn = g_dpdk_cp_stat.new_conn;
	struct zorv1_internal *in = Internal(port_);
	const int vid = vid_;
	const uint32_t sfi = in->sfi;

	/* Two attempts: each refused and counted, the first one logged. */
	for (int i = 0; i < 2; i++) {
		std::string name = "net_virtio_user" + std::to_string(++g_seq);
		std::string args = "path=" + sock_ + ",queues=1,queue_size=1024";
		EXPECT_NE(rte_vdev_init(name.c_str(), args.c_str()), 0) << "attempt " << i;
		uint16_t id;
		if (rte_eth_dev_get_port_by_name(name.c_str(), &id) == 0)
			rte_vdev_uninit(name.c_str());
	}
	EXPECT_TRUE(WaitFor([&] { return zorv_card_iface_peers_refused(iface_.c_str()) == 2; }));
	EXPECT_EQ(zorv_card_peers_refused_total(), total + 2);
	EXPECT_EQ(RefusalLines(cap), 1u) << cap.Text();
	EXPECT_EQ(g_dpdk_cp_stat.new_conn, new_conn) << "the port never heard of them";

	/* The first peer keeps its port and its traffic both ways. */
	EXPECT_EQ(in->vid, vid);
	EXPECT_EQ(in->sfi, sfi);
	EXPECT_TRUE(LinkUp(port_));
	FrameShape s;
	Bytes f = BuildFrame(s);
	std::vector<Bytes> got = PortToPeer({ToMbuf(tx_pool_->get(), f)}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
	got = PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));

	/* Once it leaves, the next peer connects, and a further one is refused and logged again. */
	DetachPeer();
	ASSERT_TRUE(WaitFor([&] { return in->sfi == INVALID_SFI; }));
	ASSERT_NO_FATAL_FAILURE(AttachPeer());
	EXPECT_EQ(in->sfi, sfi);
	got = PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	std::string name = "net_virtio_user" + std::to_string(++g_seq);
	std::string args = "path=" + sock_ + ",queues=1,queue_size=1024";
	EXPECT_NE(rte_vdev_init(name.c_str(), args.c_str()), 0);
	EXPECT_TRUE(WaitFor([&] { return zorv_card_iface_peers_refused(iface_.c_str()) == 3; }));
	EXPECT_EQ(RefusalLines(cap), 2u);
	EXPECT_TRUE(LinkUp(port_));
}

/* A vhost-user client of the test's own that sends raw bytes and holds on. */
class RawPeer {
public:
	explicit RawPeer(const std::string &path)
	{
		fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
		struct sockaddr_un un = {};
		un.sun_family = AF_UNIX;
		snprintf(un.sun_path, sizeof(un.sun_path), "%s", path.c_str());
		if (fd_ >= 0 && connect(fd_, reinterpret_cast<struct sockaddr *>(&un), sizeof(un)) != 0) {
			close(fd_);
			fd_ = -1;
		}
	}
	~RawPeer() { Close(); }
	RawPeer(const RawPeer &) = delete;
	RawPeer &operator=(const RawPeer &) = delete;
	bool ok() const { return fd_ >= 0; }
	bool Send(const std::vector<uint8_t> &b)
	{
		return send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
	}
	void Close()
	{
		if (fd_ >= 0)
			close(fd_);
		fd_ = -1;
	}

private:
	int fd_ = -1;
};

/* A vhost-user message header: request, flags (version 1), payload size. */
std::vector<uint8_t> VhostHeader(uint32_t request, uint32_t size)
{
	std::vector<uint8_t> b(12);
	const uint32_t words[3] = {request, 1u, size};
	memcpy(b.data(), words, sizeof(words));
	return b;
}

/* Log entries at WARNING of the card cutting a peer off. */
size_t CutLines(const zorv_test::LogCapture &cap)
{
	size_t n = 0;
	for (const auto &e : cap.Entries())
		if (e.level == RTE_LOG_WARNING && e.text.find("peer cut off") != std::string::npos)
			n++;
	return n;
}

TEST_F(CardPeer, PeersThatStallOrSendGarbageAreCutOffCountedAndLoggedOncePerRun)
{
	DetachPeer();
	ASSERT_TRUE(WaitFor([&] { return !LinkUp(port_); }));
	zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);
	const uint64_t total = zorv_card_peers_cut_total();
	const char *iface = iface_.c_str();
	constexpr uint32_t kSetFeatures = 2;

	/* A header that announces a payload, and no payload: cut after the stall. */
	{
		RawPeer p(sock_);
		ASSERT_TRUE(p.ok());
		ASSERT_TRUE(p.Send(VhostHeader(kSetFeatures, 8)));
		EXPECT_TRUE(WaitFor([&] { return zorv_card_iface_peers_cut(iface) == 1; }));
	}
	/* Garbage: cut at once; counted, not logged again in the same run. */
	{
		RawPeer p(sock_);
		ASSERT_TRUE(p.ok());
		ASSERT_TRUE(p.Send(std::vector<uint8_t>(12, 0xff)));
		EXPECT_TRUE(WaitFor([&] { return zorv_card_iface_peers_cut(iface) == 2; }));
	}
	EXPECT_EQ(CutLines(cap), 1u) << cap.Text();

	/* A peer that hangs up by itself, mid-message even, is not cut off. */
	{
		RawPeer p(sock_);
		ASSERT_TRUE(p.ok());
		ASSERT_TRUE(p.Send(VhostHeader(kSetFeatures, 8)));
		p.Close();
	}
	std::this_thread::sleep_for(std::chrono::milliseconds(300));
	EXPECT_EQ(zorv_card_iface_peers_cut(iface), 2u);

	/* A good peer gets as far as a device: the next cut is logged again. */
	ASSERT_NO_FATAL_FAILURE(AttachPeer());
	DetachPeer();
	ASSERT_TRUE(WaitFor([&] { return !LinkUp(port_); }));
	{
		RawPeer p(sock_);
		ASSERT_TRUE(p.ok());
		ASSERT_TRUE(p.Send(VhostHeader(kSetFeatures, 8)));
		EXPECT_TRUE(WaitFor([&] { return zorv_card_iface_peers_cut(iface) == 3; }));
	}
	EXPECT_EQ(zorv_card_peers_cut_total(), total + 3);
	EXPECT_EQ(CutLines(cap), 2u) << cap.Text();

	/* The socket still serves a good peer. */
	ASSERT_NO_FATAL_FAILURE(AttachPeer());
	EXPECT_TRUE(LinkUp(port_));
	EXPECT_EQ(zorv_card_iface_peers_cut(iface), 3u) << "a good peer's end is not a cut";
}

TEST_F(CardPeer, DisconnectUnbindsThePortAndAReconnectServesItAgain)
{
	/* Leave transmitted mbufs with the card and received ones unread. */
	FrameShape s;
	struct rte_mbuf *m = ToMbuf(tx_pool_->get(), BuildFrame(s));
	ASSERT_EQ(rte_eth_tx_burst(port_, 0, &m, 1), 1);
	ASSERT_EQ(zorv_card_conn_held_mbufs(vid_), 1u);
	uint32_t del_conn = g_dpdk_cp_stat.del_conn;
	uint32_t del_suc = g_dpdk_cp_stat.del_device_suc;
	int old_vid = vid_;

	DetachPeer();
	struct zorv1_internal *in = Internal(port_);
	ASSERT_TRUE(WaitFor([&] { return in->sfi == INVALID_SFI; })) << "sfi still bound";
	EXPECT_TRUE(WaitFor([&] { return g_dpdk_cp_stat.del_device_suc == del_suc + 1; }));
	EXPECT_EQ(in->vid, old_vid) << "the port keeps its last vid";
	EXPECT_FALSE(LinkUp(port_));
	EXPECT_EQ(g_dpdk_cp_stat.del_conn, del_conn + 1);
	EXPECT_EQ(zorv_card_iface_vid(iface_.c_str()), -1);
	EXPECT_EQ(tx_pool_->InUse(), 0u) << "held mbufs freed with the connection";
	EXPECT_EQ(peer_pool_->InUse(), 0u);
	EXPECT_TRUE(IsSocket(sock_)) << "the interface is still served";
	EXPECT_EQ(rte_eth_tx_burst(port_, 0, &m, 0), 0);

	ASSERT_NO_FATAL_FAILURE(AttachPeer());
	EXPECT_EQ(in->vid, vid_);
	EXPECT_EQ(in->sfi, zorv_card_iface_sfi(iface_.c_str()));
	Bytes f = BuildFrame(s);
	std::vector<Bytes> got = PortToPeer({ToMbuf(tx_pool_->get(), f)}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
	got = PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
}

TEST_F(CardPeer, ClosingThePortWhileConnectedDropsTheConnectionAndItsMbufs)
{
	FrameShape s;
	struct rte_mbuf *pkts[4];
	for (auto &m : pkts)
		m = ToMbuf(tx_pool_->get(), BuildFrame(s));
	ASSERT_EQ(rte_eth_tx_burst(port_, 0, pkts, 4), 4);
	ASSERT_EQ(tx_pool_->InUse(), 4u);
	uint32_t del_suc = g_dpdk_cp_stat.del_device_suc;

	ClosePort(); /* stop, close: unregisters with the connection live */
	EXPECT_EQ(g_dpdk_cp_stat.del_device_suc, del_suc + 1);
	EXPECT_EQ(tx_pool_->InUse(), 0u);
	EXPECT_EQ(zorv_card_iface_sfi(iface_.c_str()), INVALID_SFI);
	EXPECT_EQ(zorv_card_iface_count(), ifaces_);
	Drain(peer_, 0);
}

/*
 * The vhost library's unregister waits for its event thread to leave the
 * socket's callbacks, and those reach the port through entry points that
 * take the family mutex. So the close lets go of its interface (peers cut
 * off, socket gone) before it takes the mutex to unregister: with the
 * mutex held elsewhere, the close gets that far and no further.
 */
TEST_F(CardPeer, TheCloseLetsGoOfTheInterfaceBeforeItTakesTheFamilyMutex)
{
	zorv1_dev_mutex_lock();
	std::atomic<bool> closed{false};
	std::thread closer([&] {
		ClosePort();
		closed = true;
	});
	EXPECT_TRUE(WaitFor([&] { return !Exists(sock_); }, 5000))
		<< "the socket is still served while the close waits for the mutex";
	EXPECT_TRUE(WaitFor([&] { return !LinkUp(port_); }, 5000));
	EXPECT_FALSE(closed.load()) << "the close did not wait for the mutex";
	zorv1_dev_mutex_unlock();
	EXPECT_TRUE(WaitFor([&] { return closed.load(); }, 10000));
	closer.join();
	EXPECT_EQ(zorv_card_iface_count(), ifaces_);
	DetachPeer();
}

/*
 * A port keeps the vid of its last connection, and the vhost library hands
 * out the lowest free device id: a new connection of another port may come
 * with the id a disconnected port still holds. It must reach its own port.
 */
TEST(CardTwoPorts, AConnectionReachesItsOwnPortWhenItsVidWasAnotherPorts)
{
	Rig a, b;
	ASSERT_NO_FATAL_FAILURE(a.Open({}));
	ASSERT_NO_FATAL_FAILURE(b.Open({}));
	struct zorv1_internal *ia = Internal(a.port_);
	struct zorv1_internal *ib = Internal(b.port_);
	EXPECT_NE(ia->vid, ib->vid);

	b.DetachPeer();
	ASSERT_TRUE(WaitFor([&] { return ib->sfi == INVALID_SFI; }));
	a.DetachPeer();
	ASSERT_TRUE(WaitFor([&] { return ia->sfi == INVALID_SFI; }));

	ASSERT_NO_FATAL_FAILURE(b.AttachPeer());
	EXPECT_EQ(ia->sfi, INVALID_SFI) << "the disconnected port was bound";
	EXPECT_EQ(ib->sfi, zorv_card_iface_sfi(b.iface_.c_str()));
	EXPECT_FALSE(LinkUp(a.port_));
	EXPECT_TRUE(LinkUp(b.port_));
	EXPECT_NE(ia->vid, ib->vid);
	EXPECT_EQ(ib->vid, b.vid_);

	FrameShape s;
	Bytes f = BuildFrame(s);
	std::vector<Bytes> got = b.PortToPeer({ToMbuf(b.tx_pool_->get(), f)}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
	got = b.PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));

	ASSERT_NO_FATAL_FAILURE(a.AttachPeer());
	EXPECT_EQ(ia->sfi, zorv_card_iface_sfi(a.iface_.c_str()));
	EXPECT_NE(ia->vid, ib->vid);
	got = a.PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
	EXPECT_EQ(Drain(b.port_, 0), 0u) << "a's traffic reached b";
	b.Finish();
	a.Finish();
}

/*
 * Polling threads keep sending and receiving while the peer goes away and
 * comes back: the port's gates keep them out of a connection being torn
 * down, and nothing leaks.
 */
TEST_F(CardPeer, BurstsRunningDuringDisconnectAndReconnect)
{
	std::atomic<bool> stop{false};
	std::atomic<uint64_t> sent{0};
	std::thread poller([&] {
		FrameShape s;
		Bytes f = BuildFrame(s);
		struct rte_mbuf *rx[32];
		while (!stop.load()) {
			struct rte_mbuf *tx[8];
			int n = 0;
			for (; n < 8; n++) {
				tx[n] = ToMbuf(tx_pool_->get(), f);
				if (tx[n] == nullptr)
					break;
			}
			uint16_t k = rte_eth_tx_burst(port_, 0, tx, static_cast<uint16_t>(n));
			sent += k;
			for (int i = k; i < n; i++)
				rte_pktmbuf_free(tx[i]);
			uint16_t r = rte_eth_rx_burst(port_, 0, rx, 32);
			rte_pktmbuf_free_bulk(rx, r);
		}
	});
	for (int round = 0; round < 3; round++) {
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
		/* The peer drains its ring now and then so that sends keep going. */
		Drain(peer_, 0, 20);
		DetachPeer();
		ASSERT_TRUE(WaitFor([&] { return Internal(port_)->sfi == INVALID_SFI; }));
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
		AttachPeer();
		if (HasFatalFailure())
			break;
	}
	stop = true;
	poller.join();
	EXPECT_GT(sent.load(), 0u);
}

/* An interface given by name is served in the socket directory. */
class CardPeerByName : public CardPeer {
	Options Opts() const override
	{
		Options o;
		o.iface_by_name = true;
		return o;
	}
};

TEST_F(CardPeerByName, TheConnectionCarriesTheInterfaceNameNotThePath)
{
	char name[4096];
	ASSERT_EQ(zorv_get_ifname(vid_, name, sizeof(name)), 0);
	EXPECT_EQ(std::string(name), iface_);
	EXPECT_EQ(Internal(port_)->vid, vid_);
	FrameShape s;
	Bytes f = BuildFrame(s);
	std::vector<Bytes> got = PeerToPort({f}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));
}

/* A peer with fewer queue pairs than the port. */
class CardPeerFewerPairs : public CardPeer {
	Options Opts() const override
	{
		Options o;
		o.port_queues = 2;
		o.peer_queues = 1;
		return o;
	}
};

TEST_F(CardPeerFewerPairs, LinksUpOnThePeersPairsAndServesThem)
{
	EXPECT_TRUE(LinkUp(port_));
	FrameShape s;
	Bytes f = BuildFrame(s);
	std::vector<Bytes> got = PortToPeer({ToMbuf(tx_pool_->get(), f)}, 1);
	ASSERT_EQ(got.size(), 1u);
	EXPECT_TRUE(SameFrame(got[0], f));

	struct rte_mbuf *m = ToMbuf(tx_pool_->get(), f);
	EXPECT_EQ(rte_eth_tx_burst(port_, 1, &m, 1), 0) << "queue 1 has no peer queue";
	rte_pktmbuf_free(m);
	struct rte_mbuf *r[4];
	EXPECT_EQ(rte_eth_rx_burst(port_, 1, r, 4), 0);
}

/* Two queue pairs on both sides. */
class CardPeerTwoPairs : public CardPeer {
	Options Opts() const override
	{
		Options o;
		o.port_queues = 2;
		o.peer_queues = 2;
		return o;
	}
};

TEST_F(CardPeerTwoPairs, EachQueuePairCarriesItsOwnTraffic)
{
	for (uint16_t q = 0; q < 2; q++) {
		FrameShape s;
		s.seed = static_cast<uint8_t>(10 + q);
		Bytes f = BuildFrame(s);
		std::vector<Bytes> got = PortToPeer({ToMbuf(tx_pool_->get(), f)}, 1, q);
		ASSERT_EQ(got.size(), 1u) << "queue " << q;
		EXPECT_TRUE(SameFrame(got[0], f));
		got = PeerToPort({f}, 1, q);
		ASSERT_EQ(got.size(), 1u) << "queue " << q;
		EXPECT_TRUE(SameFrame(got[0], f));
	}
}

/* A peer that takes partial checksums and large TCP frames. */
class CardPeerOffload : public CardPeer {
	Options Opts() const override
	{
		Options o;
		o.peer_rx_offloads = RTE_ETH_RX_OFFLOAD_TCP_CKSUM | RTE_ETH_RX_OFFLOAD_UDP_CKSUM |
				     RTE_ETH_RX_OFFLOAD_TCP_LRO;
		return o;
	}
};

TEST_F(CardPeerOffload, ChecksumRequestsTravelInTheVirtioHeader)
{
	uint64_t f = zorv_card_conn_features(vid_);
	ASSERT_NE(f & kGuestCsum, 0u);

	std::vector<FrameShape> shapes;
	for (bool v6 : {false, true})
		for (bool tcp : {false, true}) {
			FrameShape s;
			s.v6 = v6;
			s.tcp = tcp;
			s.payload = 333;
			s.seed = static_cast<uint8_t>(shapes.size());
			shapes.push_back(s);
		}
	std::vector<struct rte_mbuf *> pkts;
	for (const FrameShape &s : shapes) {
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), BuildFrame(s));
		RequestChecksums(m, s);
		pkts.push_back(m);
	}
	EXPECT_EQ(SendAll(port_, 0, pkts.data(), static_cast<uint16_t>(pkts.size())), pkts.size());
	std::vector<struct rte_mbuf *> got = ReceiveN(peer_, 0, shapes.size());
	ASSERT_EQ(got.size(), shapes.size());
	for (size_t i = 0; i < shapes.size(); i++) {
		uint64_t l4 = got[i]->ol_flags & RTE_MBUF_F_RX_L4_CKSUM_MASK;
		EXPECT_TRUE(l4 == RTE_MBUF_F_RX_L4_CKSUM_NONE || l4 == RTE_MBUF_F_RX_L4_CKSUM_GOOD)
			<< "frame " << i << " L4 flags 0x" << std::hex << l4;
		Bytes b = FromMbuf(got[i]);
		if (l4 == RTE_MBUF_F_RX_L4_CKSUM_NONE)
			CompletePartialChecksum(b, shapes[i]);
		EXPECT_TRUE(SameFrame(b, BuildFrame(shapes[i]))) << "frame " << i;
		rte_pktmbuf_free(got[i]);
	}
}

TEST_F(CardPeerOffload, TsoPacketsReachThePeerWhole)
{
	uint64_t f = zorv_card_conn_features(vid_);
	ASSERT_EQ(f & (kGuestCsum | kGuestTso4 | kGuestTso6), kGuestCsum | kGuestTso4 | kGuestTso6);

	for (bool v6 : {false, true}) {
		FrameShape s;
		s.v6 = v6;
		s.tcp = true;
		s.payload = 6000;
		Bytes want = BuildFrame(s);
		struct rte_mbuf *m = ToMbuf(tx_pool_->get(), want, 2000);
		ASSERT_NE(m, nullptr);
		RequestChecksums(m, s);
		m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
		m->tso_segsz = 1400;

		ASSERT_EQ(SendAll(port_, 0, &m, 1), 1);
		std::vector<struct rte_mbuf *> got = ReceiveN(peer_, 0, 1);
		ASSERT_EQ(got.size(), 1u) << (v6 ? "v6" : "v4");
		EXPECT_NE(got[0]->ol_flags & RTE_MBUF_F_RX_LRO, 0u) << "arrives as one large frame";
		EXPECT_EQ(got[0]->tso_segsz, 1400u);
		EXPECT_EQ(got[0]->ol_flags & RTE_MBUF_F_RX_L4_CKSUM_MASK, RTE_MBUF_F_RX_L4_CKSUM_NONE)
			<< "the checksum is left to the peer";
		/*
		 * The peer segments the frame: its checksum field carries the
		 * pseudo-header sum without the length (DPDK's TSO convention, as
		 * the vhost library writes it), every other byte is the sender's.
		 */
		Bytes b = FromMbuf(got[0]);
		ASSERT_EQ(b.size(), want.size());
		EXPECT_EQ(Get16(b, L4CksumOff(s)), Fold(PseudoSum(b, s, 0)));
		Put16(b, L4CksumOff(s), Get16(want, L4CksumOff(s)));
		EXPECT_TRUE(SameFrame(b, want)) << (v6 ? "v6" : "v4");
		rte_pktmbuf_free(got[0]);
	}
}

/* A peer that leaves checksums and TCP segmentation to the card, as a guest kernel does. */
class CardPeerSendsOffloads : public CardPeer {
protected:
	Options Opts() const override
	{
		Options o;
		o.peer_tx_offloads = RTE_ETH_TX_OFFLOAD_TCP_CKSUM | RTE_ETH_TX_OFFLOAD_UDP_CKSUM |
				     RTE_ETH_TX_OFFLOAD_TCP_TSO;
		return o;
	}

	/* frames of shape s leave the peer asking for their L4 checksum (and TSO with mss). */
	void PeerSends(const std::vector<FrameShape> &shapes, uint32_t mss = 0)
	{
		std::vector<struct rte_mbuf *> pkts;
		for (const FrameShape &s : shapes) {
			Bytes f = BuildFrame(s);
			Put16(f, L4CksumOff(s), 0x1234); /* the peer never fills it */
			struct rte_mbuf *m = ToMbuf(tx_pool_->get(), f, 2000);
			ASSERT_NE(m, nullptr);
			m->l2_len = L2Len(s);
			m->l3_len = L3Len(s);
			m->l4_len = L4Len(s);
			m->ol_flags |= (s.v6 ? RTE_MBUF_F_TX_IPV6 : RTE_MBUF_F_TX_IPV4) |
				       (s.tcp ? RTE_MBUF_F_TX_TCP_CKSUM : RTE_MBUF_F_TX_UDP_CKSUM);
			if (mss != 0) {
				m->ol_flags |= RTE_MBUF_F_TX_TCP_SEG;
				m->tso_segsz = static_cast<uint16_t>(mss);
			}
			pkts.push_back(m);
		}
		uint16_t n = static_cast<uint16_t>(pkts.size());
		ASSERT_EQ(rte_eth_tx_prepare(peer_, 0, pkts.data(), n), n);
		ASSERT_EQ(SendAll(peer_, 0, pkts.data(), n), n);
	}

	static struct zorv_card_rx_stats Stats()
	{
		struct zorv_card_rx_stats st;
		zorv_card_get_rx_stats(&st);
		return st;
	}
};

TEST_F(CardPeerSendsOffloads, PartialChecksumsAreCompletedBeforeThePortSeesTheFrames)
{
	uint64_t f = zorv_card_conn_features(vid_);
	ASSERT_NE(f & kHostCsum, 0u) << "the peer negotiated CSUM";

	std::vector<FrameShape> shapes;
	for (bool v6 : {false, true})
		for (bool tcp : {false, true})
			for (uint32_t payload : {1u, 333u, 1400u}) {
				FrameShape s;
				s.v6 = v6;
				s.tcp = tcp;
				s.payload = payload;
				s.seed = static_cast<uint8_t>(shapes.size());
				shapes.push_back(s);
			}
	struct zorv_card_rx_stats before = Stats();
	ASSERT_NO_FATAL_FAILURE(PeerSends(shapes));
	std::vector<Bytes> got = ReceiveFrames(port_, 0, shapes.size());
	ASSERT_EQ(got.size(), shapes.size());
	for (size_t i = 0; i < shapes.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], BuildFrame(shapes[i])))
			<< "frame " << i << " " << Describe(shapes[i]);
	EXPECT_EQ(Stats().csum_completed - before.csum_completed, shapes.size());
	EXPECT_EQ(Stats().offload_bad, before.offload_bad);
}

TEST_F(CardPeerSendsOffloads, LargeTcpFramesArriveAsSegmentsOfThePeersSize)
{
	for (bool v6 : {false, true}) {
		FrameShape s;
		s.v6 = v6;
		s.tcp = true;
		s.payload = 6000;
		s.tcp_flags = RTE_TCP_ACK_FLAG | RTE_TCP_PSH_FLAG;
		std::vector<Bytes> want = ExpectedSegments(BuildFrame(s), s, 1400);
		ASSERT_EQ(want.size(), 5u);
		struct zorv_card_rx_stats before = Stats();
		ASSERT_NO_FATAL_FAILURE(PeerSends({s}, 1400));
		std::vector<Bytes> got = ReceiveFrames(port_, 0, want.size());
		ASSERT_EQ(got.size(), want.size()) << Describe(s);
		for (size_t i = 0; i < want.size(); i++)
			EXPECT_TRUE(SameFrame(got[i], want[i])) << Describe(s) << " segment " << i;
		EXPECT_EQ(Stats().gso_frames - before.gso_frames, 1u);
		EXPECT_EQ(Stats().gso_segments - before.gso_segments, 5u);
		EXPECT_EQ(Drain(port_, 0), 0u);
	}
}

TEST_F(CardPeerSendsOffloads, SegmentsBeyondOneBurstFollowInTheNextOneInOrder)
{
	FrameShape big;
	big.tcp = true;
	big.payload = 60000;
	FrameShape small = big;
	small.payload = 100;
	small.seed = 7;
	std::vector<Bytes> want = ExpectedSegments(BuildFrame(big), big, 1000);
	ASSERT_EQ(want.size(), 60u);
	want.push_back(BuildFrame(small));

	ASSERT_NO_FATAL_FAILURE(PeerSends({big}, 1000));
	ASSERT_NO_FATAL_FAILURE(PeerSends({small}));
	std::vector<Bytes> got = ReceiveFrames(port_, 0, want.size());
	ASSERT_EQ(got.size(), want.size());
	for (size_t i = 0; i < want.size(); i++)
		EXPECT_TRUE(SameFrame(got[i], want[i])) << "frame " << i;
}

TEST_F(CardPeerSendsOffloads, SegmentsStillWaitingAreDroppedWithTheConnection)
{
	FrameShape big;
	big.tcp = true;
	big.payload = 60000;
	ASSERT_NO_FATAL_FAILURE(PeerSends({big}, 1000));

	/* One burst of the port's own size: 32 segments, the other 28 wait. */
	struct rte_mbuf *burst[32];
	uint16_t n = 0;
	ASSERT_TRUE(WaitFor([&] { return (n = rte_eth_rx_burst(port_, 0, burst, 32)) != 0; }));
	EXPECT_EQ(n, 32);
	rte_pktmbuf_free_bulk(burst, n);
	EXPECT_EQ(port_pool_->InUse(), 28u) << "segments waiting for the next burst";

	DetachPeer();
	EXPECT_TRUE(WaitFor([&] { return port_pool_->InUse() == 0; }))
		<< port_pool_->InUse() << " mbufs of the port's pool outlived the connection";
}

} // namespace
