/* SPDX-License-Identifier: BSD-3-Clause
 * The emulated card's transport with a real peer: ports of the driver are
 * served as vhost-user sockets, DPDK's virtio-user attaches to them in the
 * same process, and packets go both ways through the ports' bursts.
 * Covers socket naming and registration, connection binding and link,
 * contents, transmit checksum and TSO offloads with and without the peer's
 * virtio offload features, the firmware MTU, held transmit mbufs, queue
 * pairs, disconnect, reconnect and close while connected.
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
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"
#include "zorv_test_harness.h"

/* The vhost library and virtio-user narrate every message at INFO; keep warnings. */
std::vector<std::string> zorv_test::ExtraEalArgs()
{
	return {"--log-level=lib.vhost.*:warning", "--log-level=pmd.net.virtio.*:warning"};
}

namespace {

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

bool WaitFor(const std::function<bool()> &cond, int ms = 5000)
{
	auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
	while (std::chrono::steady_clock::now() < end) {
		if (cond())
			return true;
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	return cond();
}

/* ---- Frames and the test's own checksums ---- */

struct FrameShape {
	bool v6 = false;
	bool tcp = false;
	uint32_t payload = 100;
	uint8_t seed = 1;
	std::optional<uint16_t> vlan;
	uint8_t tcp_flags = RTE_TCP_ACK_FLAG | RTE_TCP_PSH_FLAG;
};

uint16_t L2Len(const FrameShape &s)
{
	return s.vlan ? 18 : 14;
}
uint16_t L3Len(const FrameShape &s)
{
	return s.v6 ? 40 : 20;
}
uint16_t L4Len(const FrameShape &s)
{
	return s.tcp ? 20 : 8;
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
		Put16(f, l3 + 10, static_cast<uint16_t>(~Fold(Sum(&f[l3], 20))));
	}
	Put16(f, L4CksumOff(s), 0);
	uint32_t l4_len = static_cast<uint32_t>(f.size() - l4);
	uint16_t ck = static_cast<uint16_t>(~Fold(Sum(&f[l4], l4_len, PseudoSum(f, s, l4_len))));
	if (!s.tcp && ck == 0)
		ck = 0xffff;
	Put16(f, L4CksumOff(s), ck);
}

/* A frame with correct checksums. */
Bytes BuildFrame(const FrameShape &s)
{
	Bytes f(HdrLen(s) + s.payload);
	const uint8_t dst[6] = {0x02, 0, 0, 0, 0, 0x02};
	const uint8_t src[6] = {0x02, 0, 0, 0, 0, 0x01};
	memcpy(&f[0], dst, 6);
	memcpy(&f[6], src, 6);
	size_t off = 12;
	if (s.vlan) {
		Put16(f, off, RTE_ETHER_TYPE_VLAN);
		Put16(f, off + 2, *s.vlan);
		off += 4;
	}
	Put16(f, off, s.v6 ? RTE_ETHER_TYPE_IPV6 : RTE_ETHER_TYPE_IPV4);
	size_t l3 = off + 2;
	uint32_t l4_len = L4Len(s) + s.payload;
	if (s.v6) {
		f[l3] = 0x60;
		Put16(f, l3 + 4, static_cast<uint16_t>(l4_len));
		f[l3 + 6] = s.tcp ? IPPROTO_TCP : IPPROTO_UDP;
		f[l3 + 7] = 64;
		for (int i = 0; i < 16; i++) {
			f[l3 + 8 + i] = static_cast<uint8_t>(0x20 + i);
			f[l3 + 24 + i] = static_cast<uint8_t>(0x40 + i);
		}
	} else {
		f[l3] = 0x45;
		Put16(f, l3 + 2, static_cast<uint16_t>(20 + l4_len));
		Put16(f, l3 + 4, 0x1000 + s.seed);
		f[l3 + 8] = 64;
		f[l3 + 9] = s.tcp ? IPPROTO_TCP : IPPROTO_UDP;
		Put32(f, l3 + 12, 0x0a000001);
		Put32(f, l3 + 16, 0x0a000002);
	}
	size_t l4 = l3 + L3Len(s);
	Put16(f, l4, 1000 + s.seed);
	Put16(f, l4 + 2, 2000);
	if (s.tcp) {
		Put32(f, l4 + 4, 0x10000000u + s.seed);
		Put32(f, l4 + 8, 0x20000000u);
		f[l4 + 12] = 5 << 4;
		f[l4 + 13] = s.tcp_flags;
		Put16(f, l4 + 14, 0xffff);
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
			Put16(g, l3 + 4, static_cast<uint16_t>(L4Len(s) + len));
		} else {
			Put16(g, l3 + 2, static_cast<uint16_t>(20 + L4Len(s) + len));
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
			r << "; first difference at byte " << i << ": got 0x" << std::hex
			  << int(got[i]) << " want 0x" << int(want[i]) << std::dec;
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

bool LinkUp(uint16_t port)
{
	struct rte_eth_link link = {};
	return rte_eth_link_get_nowait(port, &link) == 0 && link.link_status == RTE_ETH_LINK_UP;
}

int StartPort(uint16_t port, uint16_t queues, struct rte_mempool *pool, uint64_t rx_offloads,
	      uint64_t tx_offloads, uint16_t nb_desc)
{
	struct rte_eth_conf conf = {};
	conf.rxmode.offloads = rx_offloads;
	conf.txmode.offloads = tx_offloads;
	int ret = rte_eth_dev_configure(port, queues, queues, &conf);
	for (uint16_t q = 0; ret == 0 && q < queues; q++) {
		ret = rte_eth_rx_queue_setup(port, q, nb_desc, rte_socket_id(), nullptr, pool);
		if (ret == 0)
			ret = rte_eth_tx_queue_setup(port, q, nb_desc, rte_socket_id(), nullptr);
	}
	return ret == 0 ? rte_eth_dev_start(port) : ret;
}

/* Send all of pkts (retrying what the queue did not take) within a time limit. */
uint16_t SendAll(uint16_t port, uint16_t q, struct rte_mbuf **pkts, uint16_t n)
{
	uint16_t sent = 0;
	WaitFor([&] {
		sent += rte_eth_tx_burst(port, q, pkts + sent, n - sent);
		return sent == n;
	});
	return sent;
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

/* ---- A port of the driver with a virtio-user peer ---- */

/* Peer set-up; the defaults are a plain peer with one queue pair. */
struct RigOptions {
	uint16_t port_queues = 1;
	uint16_t peer_queues = 1;
	uint64_t peer_rx_offloads = 0;
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
		ASSERT_EQ(StartPort(peer_, opt_.peer_queues, peer_pool_->get(), opt_.peer_rx_offloads, 0,
				    1024),
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
	EXPECT_EQ(f & kHostCsum, 0u) << "the peer must not offload its checksums to the port";
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

} // namespace
