/* SPDX-License-Identifier: BSD-3-Clause
 * Registration with the virtual-device bus, probe and remove of net_zorv1,
 * driven the way DPDK drives them: through rte_vdev_init/rte_vdev_uninit,
 * with the fake family services behind the driver.
 *
 * The secondary-process probe needs a primary process that runs on
 * hugepages, which the in-process EAL of the unit tests (--no-huge) cannot
 * be. That test reserves a few hugepages and runs this same binary twice
 * more, as a primary and as a secondary DPDK process (ChildRoleEnvironment
 * below), and checks what the secondary reports.
 */
#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_dev.h>
#include <rte_eal.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>

#include <ethdev_driver.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zorv_fake::FakeEnv;
using zorv_fake::MqttMsg;
using zorv_test::CountLines;
using zorv_test::HasLogLine;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

namespace {

constexpr const char *kProbe = "rte_pmd_zorv1_dpu_vdev_probe";
constexpr const char *kRemove = "rte_pmd_zorv1_dpu_vdev_remove";

/* ---------------------------------------------------------------- helpers */

using zorv_test::CounterDelta;
using zorv_test::Idx;

using Changes = zorv_test::CpChanges;

/* Uninitialises the vdev at scope end if a test left it behind. */
class VdevGuard {
public:
	explicit VdevGuard(std::string name) : name_(std::move(name)) {}
	~VdevGuard() { (void)rte_vdev_uninit(name_.c_str()); }
	VdevGuard(const VdevGuard &) = delete;
	VdevGuard &operator=(const VdevGuard &) = delete;

private:
	std::string name_;
};

struct rte_eth_dev *PortNamed(const char *name)
{
	return rte_eth_dev_allocated(name);
}

struct zorv1_internal *InternalOf(struct rte_eth_dev *dev)
{
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

/* numa_node of the vdev bus device `name`, or -100 if the bus has none. */
int BusNumaNodeOf(const char *name)
{
	struct rte_dev_iterator it;
	struct rte_device *d;
	RTE_DEV_FOREACH(d, "bus=vdev", &it)
	{
		if (std::strcmp(rte_dev_name(d), name) == 0)
			return rte_dev_numa_node(d);
	}
	return -100;
}

/* Lines of the probe's timing message; each gives its printed field. */
std::vector<std::string> TimingFields(const LogCapture &cap)
{
	const std::string head = "[offload_smartnic] rte_pmd_zorv1_dpu_vdev_probe-";
	const std::string mid = ": zorv1 dev port probe=";
	const std::string tail = "(us)\n";
	std::vector<std::string> out;
	for (auto &line : cap.Lines()) {
		if (line.rfind(head, 0) != 0)
			continue;
		size_t pos = head.size();
		size_t digits = 0;
		while (pos < line.size() && std::isdigit(static_cast<unsigned char>(line[pos]))) {
			pos++;
			digits++;
		}
		if (digits == 0 || line.compare(pos, mid.size(), mid) != 0)
			continue;
		pos += mid.size();
		if (line.size() < pos + tail.size() ||
		    line.compare(line.size() - tail.size(), tail.size(), tail) != 0)
			continue;
		out.push_back(line.substr(pos, line.size() - tail.size() - pos));
	}
	return out;
}

/* "%-6lu": the number, left-aligned in at least six columns. */
::testing::AssertionResult IsLeftAlignedMicros(const std::string &field, uint64_t *value)
{
	size_t digits = 0;
	while (digits < field.size() && std::isdigit(static_cast<unsigned char>(field[digits])))
		digits++;
	if (digits == 0)
		return ::testing::AssertionFailure() << "no number in \"" << field << "\"";
	if (field.size() != std::max<size_t>(6, digits) ||
	    field.find_first_not_of(' ', digits) != std::string::npos)
		return ::testing::AssertionFailure() << "\"" << field << "\" is not %-6lu";
	*value = std::stoull(field.substr(0, digits));
	return ::testing::AssertionSuccess();
}

/* Lines captured at ERR on the control log type. */
int ErrLines(const LogCapture &cap)
{
	int n = 0;
	for (auto &e : cap.Entries())
		n += (e.level == RTE_LOG_ERR && e.logtype == zorv1_vdev_logtype_cfg) ? 1 : 0;
	return n;
}

class ProbeTest : public FakeEnv {};

} // namespace

/* ------------------------------------------------------------ registration */

TEST_F(ProbeTest, DriverRegisteredUnderItsNameProbesNetZorv1Devices)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=66560"), 0);

	uint16_t port_id;
	ASSERT_EQ(rte_eth_dev_get_port_by_name("net_zorv1_x", &port_id), 0);
	struct rte_eth_dev_info info {};
	ASSERT_EQ(rte_eth_dev_info_get(port_id, &info), 0);
	EXPECT_STREQ(info.driver_name, "net_zorv1");
	EXPECT_EQ(PortNamed("net_zorv1_x")->dev_ops, &zorv1_dpu_dev_ops);

	EXPECT_EQ(rte_vdev_uninit("net_zorv1_x"), 0);
	EXPECT_NE(rte_eth_dev_get_port_by_name("net_zorv1_x", &port_id), 0);
}

TEST_F(ProbeTest, AliasEthZorv1ReachesTheSameDriver)
{
	VdevGuard g("eth_zorv1_y");
	ASSERT_EQ(rte_vdev_init("eth_zorv1_y", "iface=vhost_alias"), 0);

	uint16_t port_id;
	ASSERT_EQ(rte_eth_dev_get_port_by_name("eth_zorv1_y", &port_id), 0);
	struct rte_eth_dev_info info {};
	ASSERT_EQ(rte_eth_dev_info_get(port_id, &info), 0);
	EXPECT_STREQ(info.driver_name, "net_zorv1");
	EXPECT_STREQ(InternalOf(PortNamed("eth_zorv1_y"))->iface_name, "vhost_alias");

	EXPECT_EQ(rte_vdev_uninit("eth_zorv1_y"), 0);
	EXPECT_EQ(PortNamed("eth_zorv1_y"), nullptr);
}

TEST_F(ProbeTest, OtherPrefixesAreNotThisDriversDevices)
{
	/* The bus finds no driver: probe is never called. */
	EXPECT_NE(rte_vdev_init("net_zorv2_z", "iface=vhost0"), 0);
	EXPECT_THAT(f.Names(), IsEmpty());
}

namespace {

/* The bytes of a local data symbol of this executable, read from memory. */
struct ElfSymbols {
	std::map<std::string, std::vector<Elf64_Sym>> syms;

	bool Load(std::string *why)
	{
		std::ifstream in("/proc/self/exe", std::ios::binary);
		std::vector<char> img((std::istreambuf_iterator<char>(in)),
				      std::istreambuf_iterator<char>());
		if (img.size() < sizeof(Elf64_Ehdr)) {
			*why = "cannot read /proc/self/exe";
			return false;
		}
		const auto *eh = reinterpret_cast<const Elf64_Ehdr *>(img.data());
		if (std::memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 || eh->e_ident[EI_CLASS] != ELFCLASS64) {
			*why = "not a 64-bit ELF file";
			return false;
		}
		const auto *sh = reinterpret_cast<const Elf64_Shdr *>(img.data() + eh->e_shoff);
		for (unsigned i = 0; i < eh->e_shnum; i++) {
			if (sh[i].sh_type != SHT_SYMTAB)
				continue;
			const char *strtab = img.data() + sh[sh[i].sh_link].sh_offset;
			const auto *sym = reinterpret_cast<const Elf64_Sym *>(img.data() + sh[i].sh_offset);
			size_t n = sh[i].sh_size / sizeof(Elf64_Sym);
			for (size_t k = 0; k < n; k++)
				syms[strtab + sym[k].st_name].push_back(sym[k]);
		}
		if (syms.empty()) {
			*why = "the executable has no symbol table";
			return false;
		}
		return true;
	}
};

} // namespace

/*
 * DPDK's tooling (pmdinfogen) reads a driver's name and parameter string
 * from two data symbols that the registration leaves in the object: it
 * looks for symbols whose names start with "this_pmd_name" and then for
 * "__<driver name>_param_string_export". They are local, so they are looked
 * up in this executable's symbol table and read in place.
 */
namespace {

struct MetadataSymbols {
	ElfSymbols elf;
	const Elf64_Sym *anchor = nullptr;
	uintptr_t bias = 0;

	bool Load(std::string *why)
	{
		if (!elf.Load(why))
			return false;
		anchor = One("g_dpdk_cp_stat");
		if (anchor == nullptr) {
			*why = "no symbol g_dpdk_cp_stat";
			return false;
		}
		bias = reinterpret_cast<uintptr_t>(&g_dpdk_cp_stat) - anchor->st_value;
		return true;
	}
	const Elf64_Sym *One(const std::string &name) const
	{
		auto it = elf.syms.find(name);
		if (it == elf.syms.end() || it->second.size() != 1)
			return nullptr;
		return &it->second[0];
	}
	/* The symbol under its own name or under C++'s name for a file-local one. */
	const Elf64_Sym *Either(const std::string &name) const
	{
		const Elf64_Sym *s = One(name);
		return s != nullptr ? s : One("_ZL" + std::to_string(name.size()) + name);
	}
	const char *Text(const Elf64_Sym *s) const
	{
		return reinterpret_cast<const char *>(bias + s->st_value);
	}
	std::string Like(const std::string &part) const
	{
		std::string out;
		for (auto &[name, list] : elf.syms) {
			if (name.find(part) != std::string::npos)
				out += " " + name + " (x" + std::to_string(list.size()) + ")";
		}
		return out.empty() ? std::string(" none") : out;
	}
};

} // namespace

TEST(Registration, MetadataSymbolsCarryTheDriverNameAndParameterString)
{
	MetadataSymbols m;
	std::string why;
	ASSERT_TRUE(m.Load(&why)) << why;
	const Elf64_Sym *pmd_name = m.Either("this_pmd_name0");
	const Elf64_Sym *params = m.Either("__net_zorv1_param_string_export");
	ASSERT_NE(pmd_name, nullptr) << m.Like("pmd_name");
	ASSERT_NE(params, nullptr) << m.Like("param_string");
	EXPECT_EQ(ELF64_ST_TYPE(pmd_name->st_info), STT_OBJECT);
	EXPECT_EQ(ELF64_ST_TYPE(params->st_info), STT_OBJECT);
	EXPECT_STREQ(m.Text(pmd_name), "net_zorv1");
	EXPECT_GE(pmd_name->st_size, sizeof("net_zorv1"));
	/* With its one trailing blank. */
	EXPECT_STREQ(m.Text(params), "iface=<ifc> queues=<int> ");
	EXPECT_GE(params->st_size, sizeof("iface=<ifc> queues=<int> "));
}

TEST(Registration, MetadataSymbolsHaveTheNamesDpdkToolingLooksFor)
{
	MetadataSymbols m;
	std::string why;
	ASSERT_TRUE(m.Load(&why)) << why;
	/* Exact, unmangled names: a C++ file-local name (_ZL...) is not found. */
	EXPECT_NE(m.One("this_pmd_name0"), nullptr)
		<< "no symbol this_pmd_name0; symbols like it:" << m.Like("this_pmd_name");
	EXPECT_NE(m.One("__net_zorv1_param_string_export"), nullptr)
		<< "no symbol __net_zorv1_param_string_export; symbols like it:"
		<< m.Like("param_string_export");
}

/* ------------------------------------------------------------ arguments */

TEST_F(ProbeTest, IfaceAloneCreatesOnePortWithOneQueuePair)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	CounterDelta delta;

	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0"), 0);

	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 1);
	EXPECT_EQ(dev->data->nb_tx_queues, 1);
	EXPECT_EQ(InternalOf(dev)->max_queues, 1);
	EXPECT_STREQ(InternalOf(dev)->iface_name, "vhost0");
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, kProbe, "Initializing zorv1_dpu_dev for net_zorv1_x\n"));
	EXPECT_EQ(ErrLines(cap), 0) << cap.Text();
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(ProbeTest, ProbeFixesUpAnUnsetNumaNode)
{
	{
		/* Refused before the fix-up: the bus's own value stays visible. */
		VdevGuard g("net_zorv1_x");
		ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1025"), 0);
		EXPECT_EQ(BusNumaNodeOf("net_zorv1_x"), SOCKET_ID_ANY);
	}
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	ASSERT_NE(dev->device, nullptr);
	EXPECT_EQ(BusNumaNodeOf("net_zorv1_x"), static_cast<int>(rte_socket_id()));
	EXPECT_EQ(dev->device->numa_node, static_cast<int>(rte_socket_id()));
	EXPECT_EQ(dev->data->numa_node, static_cast<int>(rte_socket_id()));
}

TEST_F(ProbeTest, QueuesZeroCreatesAPortWithoutQueues)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=0"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 0);
	EXPECT_EQ(dev->data->nb_tx_queues, 0);
	EXPECT_EQ(InternalOf(dev)->max_queues, 0);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ProbeTest, QueuesAtTheLimitOf1024AreAccepted)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1024"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 1024);
	EXPECT_EQ(dev->data->nb_tx_queues, 1024);
	EXPECT_EQ(InternalOf(dev)->max_queues, 1024);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ProbeTest, QueuesGivenInHexOrOctalAreConverted)
{
	{
		VdevGuard g("net_zorv1_x");
		ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=0x10"), 0);
		ASSERT_NE(PortNamed("net_zorv1_x"), nullptr);
		EXPECT_EQ(InternalOf(PortNamed("net_zorv1_x"))->max_queues, 16);
	}
	{
		VdevGuard g("net_zorv1_x");
		ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=010"), 0);
		ASSERT_NE(PortNamed("net_zorv1_x"), nullptr);
		EXPECT_EQ(InternalOf(PortNamed("net_zorv1_x"))->max_queues, 8);
	}
}

TEST_F(ProbeTest, QueuesAboveTheLimitAreReportedWhileProbeSucceedsWithoutAPort)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1025"), 0);

	uint16_t port_id;
	EXPECT_NE(rte_eth_dev_get_port_by_name("net_zorv1_x", &port_id), 0);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", "vhost0", 1025}));
	EXPECT_EQ(CountLines(cap, kProbe, "Initializing zorv1_dpu_dev for net_zorv1_x\n"), 0);
	EXPECT_EQ(ErrLines(cap), 0) << cap.Text();
	EXPECT_EQ(f.Count("zorv_flow_resource_init"), 0u);
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(ProbeTest, Queues66560WrapsTo1024AndIsAccepted)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=66560"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 1024);
	EXPECT_EQ(InternalOf(dev)->max_queues, 1024);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ProbeTest, Queues65536WrapsToZeroAndIsAccepted)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=65536"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 0);
	EXPECT_EQ(dev->data->nb_tx_queues, 0);
	EXPECT_EQ(InternalOf(dev)->max_queues, 0);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ProbeTest, QueuesMinusOneBecomes65535AndIsRefusedByTheRangeCheck)
{
	VdevGuard g("net_zorv1_x");
	errno = 0; /* the handler does not clear it itself */
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=-1"), 0);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", "vhost0", 65535}));
}

TEST_F(ProbeTest, QueuesTooLargeForUnsignedLongFailTheHandler)
{
	VdevGuard g("net_zorv1_x");
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=99999999999999999999999"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", "vhost0", 65535}));
}

TEST_F(ProbeTest, QueuesWithoutValueFailTheHandler)
{
	VdevGuard g("net_zorv1_x");
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", "vhost0", 0}));
}

TEST_F(ProbeTest, RepeatedIfaceIsAParseError)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=a,iface=b"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", std::nullopt, 0}));
	EXPECT_EQ(ErrLines(cap), 0) << cap.Text();
}

TEST_F(ProbeTest, MissingIfaceIsAParseError)
{
	VdevGuard g("net_zorv1_x");
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "queues=2"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", std::nullopt, 0}));
}

TEST_F(ProbeTest, IfaceWithoutValueFailsItsHandler)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", std::nullopt, 0}));
	/* The list itself parsed. */
	EXPECT_EQ(CountLines(cap, kProbe, "kvlist is NULL.\n"), 0);
}

TEST_F(ProbeTest, RepeatedQueuesFallBackSilentlyToOneQueue)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=2,queues=4"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->data->nb_rx_queues, 1);
	EXPECT_EQ(dev->data->nb_tx_queues, 1);
	EXPECT_EQ(InternalOf(dev)->max_queues, 1);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ProbeTest, UnknownKeyFailsTheArgumentParsing)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	CounterDelta delta;
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,foo=1"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, kProbe, "kvlist is NULL.\n"));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE,
						     "net_zorv1_x", std::nullopt, 0}));
	EXPECT_EQ(CountLines(cap, kProbe, "Initializing zorv1_dpu_dev for net_zorv1_x\n"), 0);
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(ProbeTest, BadSyntaxFailsTheArgumentParsing)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap;
	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1=2"), -1);
	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, kProbe, "kvlist is NULL.\n"));
	ASSERT_EQ(f.mqtt.msgs.size(), 1u);
	EXPECT_EQ(f.mqtt.msgs[0].kind, ZORV1_MSG_DEV_ADD_ERR);
	EXPECT_EQ(f.mqtt.msgs[0].err, ZORV1_ERR_DEV_PARSE);
}

TEST_F(ProbeTest, FailedCreationFailsProbeAndLeavesTheReportToCreation)
{
	VdevGuard g("net_zorv1_x");
	zorv_test::FakePort taken("zorv_probe_taken");
	f.dev.by_name = [&](const char *name) -> struct rte_eth_dev * {
		return std::strcmp(name, "net_zorv1_x") == 0 ? taken.dev() : nullptr;
	};
	LogCapture cap;

	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=3"), -1);

	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, kProbe, "Initializing zorv1_dpu_dev for net_zorv1_x\n"));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, kProbe, "Failed to create net_zorv1_x\n"));
	/* Only creation's own report; probe adds none. */
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_CHECK,
						     "net_zorv1_x", "vhost0", 3}));
}

TEST_F(ProbeTest, UnsentReportIsCountedAndLoggedAndLeavesTheResult)
{
	VdevGuard g("net_zorv1_x");
	f.mqtt.send_result = -1;
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1025"), 0);

	EXPECT_EQ(f.mqtt.msgs.size(), 1u);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, kProbe, "Send msg failed, net_zorv1_x-vhost0-3-1\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
}

TEST_F(ProbeTest, UnsentReportOfAParseFailureLeavesMinusOne)
{
	VdevGuard g("net_zorv1_x");
	f.mqtt.send_result = 1;
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,foo=1"), -1);

	EXPECT_EQ(f.mqtt.msgs.size(), 1u);
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
	int send_failed_lines = 0;
	for (auto &line : cap.Lines())
		send_failed_lines += line.find("Send msg failed, net_zorv1_x-") != std::string::npos &&
				     line.find("-3-1\n") != std::string::npos;
	EXPECT_EQ(send_failed_lines, 1) << cap.Text();
}

TEST_F(ProbeTest, TimingLineIsWrittenOnEveryPath)
{
	struct Case {
		const char *args;
		int ret;
	};
	const Case cases[] = {
		{"iface=vhost0,queues=2", 0},   /* success */
		{"iface=vhost0,foo=1", -1},     /* list cannot be parsed */
		{"iface=a,iface=b", -1},        /* repeated iface */
		{"iface=vhost0,queues=1025", 0}, /* above the limit */
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.args);
		zorv_fake::fakes().Reset();
		VdevGuard g("net_zorv1_x");
		LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

		EXPECT_EQ(rte_vdev_init("net_zorv1_x", c.args), c.ret);

		auto fields = TimingFields(cap);
		ASSERT_EQ(fields.size(), 1u) << cap.Text();
		uint64_t printed = 0;
		ASSERT_TRUE(IsLeftAlignedMicros(fields[0], &printed));
		/* The value printed is the elapsed time the utility computed. */
		bool seen = false;
		for (auto &t : f.util.calc_times)
			seen |= t.result == printed && t.end >= t.start;
		EXPECT_TRUE(seen) << "printed " << printed;
		EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_DEBUG, kProbe, "zorv1 dev port probe=" + fields[0] + "(us)\n"));
	}
}

TEST_F(ProbeTest, TimingLineIsDebugOnly)
{
	VdevGuard g("net_zorv1_x");
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0"), 0);
	EXPECT_THAT(TimingFields(cap), IsEmpty());
}

/* ------------------------------------------------------------ remove */

TEST_F(ProbeTest, RemoveClosesAndReleasesThePort)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=2"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	f.calls.clear();
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_uninit("net_zorv1_x"), 0);

	EXPECT_EQ(PortNamed("net_zorv1_x"), nullptr);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, kRemove, "Un-Initializing zorv1_dpu_dev for net_zorv1_x\n"));
	/* Close ran: it frees the flow resources of the very port. */
	EXPECT_THAT(f.flow.frees, ElementsAre(dev));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::eth_dev_stop), 1},
					    {Idx(&dpdk_cp_stat::eth_dev_close), 1}}));
}

TEST_F(ProbeTest, RemoveOfADeviceWithoutPortOnlyLogs)
{
	VdevGuard g("net_zorv1_x");
	/* Probe succeeds without creating a port: the device stays on the bus. */
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0,queues=1025"), 0);
	ASSERT_EQ(PortNamed("net_zorv1_x"), nullptr);
	f.calls.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_uninit("net_zorv1_x"), 0);

	std::vector<std::string> zorv_lines;
	for (auto &line : cap.Lines()) {
		if (line.rfind("[offload_smartnic]", 0) == 0)
			zorv_lines.push_back(line);
	}
	ASSERT_EQ(zorv_lines.size(), 1u) << cap.Text();
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, kRemove, "Un-Initializing zorv1_dpu_dev for net_zorv1_x\n"));
	EXPECT_THAT(f.Names(), IsEmpty());
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(ProbeTest, RemoveAfterThePortWasReleasedElsewhereOnlyLogs)
{
	VdevGuard g("net_zorv1_x");
	ASSERT_EQ(rte_vdev_init("net_zorv1_x", "iface=vhost0"), 0);
	struct rte_eth_dev *dev = PortNamed("net_zorv1_x");
	ASSERT_NE(dev, nullptr);
	/* Tear the port down behind the bus's back, as close + release would. */
	ASSERT_EQ(eth_dev_close(dev), 0);
	ASSERT_EQ(rte_eth_dev_release_port(dev), 0);
	f.calls.clear();
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(rte_vdev_uninit("net_zorv1_x"), 0);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, kRemove, "Un-Initializing zorv1_dpu_dev for net_zorv1_x\n"));
	EXPECT_EQ(cap.Lines().size(), 1u) << cap.Text();
	EXPECT_THAT(f.Names(), IsEmpty());
	EXPECT_THAT(delta.Get(), IsEmpty());
}

/* ------------------------------------------------------------ handlers */

TEST(ArgumentHandlers, IfaceHandlerKeepsThePointerItself)
{
	const char *out = nullptr;
	const char value[] = "vhost7";
	EXPECT_EQ(open_iface("iface", value, &out), 0);
	EXPECT_EQ(out, value);
	EXPECT_EQ(open_iface("iface", nullptr, &out), -1);
	EXPECT_EQ(out, value);
}

TEST(ArgumentHandlers, IntHandlerWrapsToSixteenBits)
{
	uint16_t q = 7;
	errno = 0;
	EXPECT_EQ(open_int("queues", "66560", &q), 0);
	EXPECT_EQ(q, 1024);
	EXPECT_EQ(open_int("queues", "65536", &q), 0);
	EXPECT_EQ(q, 0);
	EXPECT_EQ(open_int("queues", "0x20", &q), 0);
	EXPECT_EQ(q, 32);
	EXPECT_EQ(open_int("queues", "017", &q), 0);
	EXPECT_EQ(q, 15);
	EXPECT_EQ(open_int("queues", "-1", &q), 0);
	EXPECT_EQ(q, 65535);
}

TEST(ArgumentHandlers, IntHandlerRefusesMissingValueOrTarget)
{
	uint16_t q = 7;
	EXPECT_EQ(open_int("queues", nullptr, &q), -EINVAL);
	EXPECT_EQ(q, 7);
	EXPECT_EQ(open_int("queues", "3", nullptr), -EINVAL);
}

TEST(ArgumentHandlers, IntHandlerFailsOnlyOnAnOverflowOfTheConversion)
{
	uint16_t q = 0;
	errno = 0;
	EXPECT_EQ(open_int("queues", "99999999999999999999999", &q), -1);
	EXPECT_EQ(q, 65535);
	/* errno is not cleared first: an ERANGE left from before counts. */
	errno = ERANGE;
	EXPECT_EQ(open_int("queues", "65535", &q), -1);
	errno = 0;
	EXPECT_EQ(open_int("queues", "65535", &q), 0);
	/* ERANGE with a value other than 65535 is no failure. */
	errno = ERANGE;
	EXPECT_EQ(open_int("queues", "12", &q), 0);
	EXPECT_EQ(q, 12);
	errno = 0;
}

/* ------------------------------------------------------------ secondary process */

namespace {

constexpr const char *kRoleEnv = "ZORV_PROBE_CHILD_ROLE";
constexpr const char *kPrefixEnv = "ZORV_PROBE_CHILD_PREFIX";
constexpr const char *kHugeDirEnv = "ZORV_PROBE_CHILD_HUGEDIR";
constexpr const char *kSecondaryVdev = "net_zorv1_sec";
constexpr const char *kSecondaryFilter = "--gtest_filter=SecondaryProcessProbe.*";

void Fact(const std::string &key, const std::string &value)
{
	std::printf("FACT %s=%s\n", key.c_str(), value.c_str());
}

void Fact(const std::string &key, long long value)
{
	Fact(key, std::to_string(value));
}

int EalInitWith(std::vector<std::string> args)
{
	std::vector<char *> argv;
	for (auto &a : args)
		argv.push_back(a.data());
	argv.push_back(nullptr);
	return rte_eal_init(static_cast<int>(args.size()), argv.data());
}

/* A primary process on hugepages with one net_zorv1 port; lives until stdin closes. */
int RunPrimary(const std::string &prefix, const std::string &huge_dir)
{
	std::string vdev = std::string("--vdev=") + kSecondaryVdev + ",iface=vhost_sec,queues=2";
	int rc = EalInitWith({"zorv_probe_primary", "-l", "0", "--no-pci", "--no-telemetry",
			      "--proc-type=primary", "--file-prefix=" + prefix, "--huge-dir=" + huge_dir,
			      "--log-level=lib.eal:warning", vdev});
	if (rc < 0) {
		std::printf("PRIMARY-FAILED eal init\n");
		std::fflush(stdout);
		return 1;
	}
	uint16_t port_id;
	bool have_port = rte_eth_dev_get_port_by_name(kSecondaryVdev, &port_id) == 0;
	std::printf("READY %d\n", have_port ? 1 : 0);
	std::fflush(stdout);
	char c;
	while (read(STDIN_FILENO, &c, 1) > 0) {
	}
	(void)rte_vdev_uninit(kSecondaryVdev);
	rte_eal_cleanup();
	return 0;
}

int ProbeTimingLines(const LogCapture &cap)
{
	return static_cast<int>(TimingFields(cap).size());
}

/* A secondary process of the primary above: prints what its probe did. */
int RunSecondary(const std::string &prefix)
{
	auto &f = zorv_fake::fakes();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	int rc = EalInitWith({"zorv_probe_secondary", "-l", "1", "--no-pci", "--no-telemetry",
			      "--proc-type=secondary", "--file-prefix=" + prefix,
			      "--log-level=lib.eal:warning"});
	Fact("eal_init", rc >= 0 ? 1 : 0);
	if (rc < 0) {
		std::fflush(stdout);
		return 1;
	}
	Fact("secondary", rte_eal_process_type() == RTE_PROC_SECONDARY ? 1 : 0);
	uint16_t port_id = 0;
	bool found = rte_eth_dev_get_port_by_name(kSecondaryVdev, &port_id) == 0;
	Fact("port_found", found ? 1 : 0);
	if (found) {
		struct rte_eth_dev *dev = &rte_eth_devices[port_id];
		Fact("dev_ops_of_driver", dev->dev_ops == &zorv1_dpu_dev_ops ? 1 : 0);
		Fact("rx_burst_of_driver", dev->rx_pkt_burst == eth_vhost_rx ? 1 : 0);
		Fact("tx_burst_of_driver", dev->tx_pkt_burst == eth_vhost_tx ? 1 : 0);
		Fact("attached", dev->state == RTE_ETH_DEV_ATTACHED ? 1 : 0);
		Fact("device_name", dev->device != nullptr ? dev->device->name : "");
		Fact("device_numa", dev->device != nullptr ? dev->device->numa_node : -100);
		Fact("socket_id", static_cast<long long>(rte_socket_id()));
		struct rte_eth_dev_info info {};
		if (rte_eth_dev_info_get(port_id, &info) == 0) {
			Fact("driver_name", info.driver_name != nullptr ? info.driver_name : "");
			Fact("max_rx_queues", info.max_rx_queues);
		}
	}
	Fact("mqtt_msgs", static_cast<long long>(f.mqtt.msgs.size()));
	Fact("flow_inits", static_cast<long long>(f.flow.inits.size()));
	Fact("diag_installs", static_cast<long long>(f.diag.installs.size()));
	Fact("initializing_lines",
	     CountLines(cap, kProbe, std::string("Initializing zorv1_dpu_dev for ") + kSecondaryVdev + "\n"));
	Fact("kvlist_lines", CountLines(cap, kProbe, "kvlist is NULL.\n"));
	Fact("timing_lines", ProbeTimingLines(cap));

	/* A device that the primary never created: the attach fails. */
	cap.Clear();
	size_t msgs_before = f.mqtt.msgs.size();
	int ret = rte_vdev_init("net_zorv1_nope", "iface=vhost_nope");
	Fact("missing_probe_ret", ret);
	Fact("missing_failed_lines", HasLogLineAt(cap, RTE_LOG_ERR, kProbe, "Failed to probe net_zorv1_nope\n") ? 1 : 0);
	Fact("missing_mqtt_msgs", static_cast<long long>(f.mqtt.msgs.size() - msgs_before));
	Fact("missing_timing_lines", ProbeTimingLines(cap));
	uint16_t none;
	Fact("missing_port", rte_eth_dev_get_port_by_name("net_zorv1_nope", &none) == 0 ? 1 : 0);
	std::printf("DONE\n");
	std::fflush(stdout);
	rte_eal_cleanup();
	return 0;
}

/*
 * Registered before the harness's EAL environment, so its SetUp runs first:
 * in a child started by the secondary-process test it plays its role (with
 * its own EAL arguments) and ends the process; otherwise it does nothing.
 */
class ChildRoleEnvironment : public ::testing::Environment {
public:
	void SetUp() override
	{
		const char *role = std::getenv(kRoleEnv);
		if (role == nullptr)
			return;
		const char *prefix = std::getenv(kPrefixEnv);
		const char *huge_dir = std::getenv(kHugeDirEnv);
		int rc = 2;
		if (std::strcmp(role, "primary") == 0 && prefix != nullptr && huge_dir != nullptr)
			rc = RunPrimary(prefix, huge_dir);
		else if (std::strcmp(role, "secondary") == 0 && prefix != nullptr)
			rc = RunSecondary(prefix);
		std::fflush(stdout);
		std::fflush(stderr);
		_exit(rc);
	}
};

const bool g_child_role_registered = [] {
	::testing::AddGlobalTestEnvironment(new ChildRoleEnvironment());
	return true;
}();

std::string ReadSmallFile(const std::string &path)
{
	std::ifstream in(path);
	std::string s;
	std::getline(in, s);
	return s;
}

bool WriteSmallFile(const std::string &path, const std::string &value)
{
	std::ofstream out(path);
	out << value << "\n";
	out.close();
	return !out.fail();
}

constexpr const char *kNrHugepages = "/proc/sys/vm/nr_hugepages";
constexpr const char *kFreeHugepages = "/sys/kernel/mm/hugepages/hugepages-2048kB/free_hugepages";

/*
 * A few 2 MB hugepages and a private hugetlbfs mount for the children;
 * everything is given back at scope end (only the pages this test added).
 */
class HugepageReservation {
public:
	explicit HugepageReservation(long pages)
	{
		long nr = std::atol(ReadSmallFile(kNrHugepages).c_str());
		long free_pages = std::atol(ReadSmallFile(kFreeHugepages).c_str());
		if (free_pages < pages) {
			long want = nr + (pages - free_pages);
			if (!WriteSmallFile(kNrHugepages, std::to_string(want))) {
				why_ = "cannot write " + std::string(kNrHugepages);
				return;
			}
			added_ = std::atol(ReadSmallFile(kNrHugepages).c_str()) - nr;
			free_pages = std::atol(ReadSmallFile(kFreeHugepages).c_str());
			if (free_pages < pages) {
				why_ = "only " + std::to_string(free_pages) + " free 2 MB hugepages";
				return;
			}
		}
		char tmpl[] = "/tmp/zorv_probe_huge_XXXXXX";
		if (mkdtemp(tmpl) == nullptr) {
			why_ = "mkdtemp failed";
			return;
		}
		dir_ = tmpl;
		if (mount("nodev", dir_.c_str(), "hugetlbfs", 0, "pagesize=2M") != 0) {
			why_ = std::string("cannot mount hugetlbfs: ") + std::strerror(errno);
			return;
		}
		mounted_ = true;
	}
	~HugepageReservation()
	{
		if (mounted_)
			(void)umount2(dir_.c_str(), MNT_DETACH);
		if (!dir_.empty())
			(void)rmdir(dir_.c_str());
		if (added_ > 0) {
			long nr = std::atol(ReadSmallFile(kNrHugepages).c_str());
			(void)WriteSmallFile(kNrHugepages, std::to_string(std::max(0L, nr - added_)));
		}
	}
	HugepageReservation(const HugepageReservation &) = delete;
	HugepageReservation &operator=(const HugepageReservation &) = delete;

	bool ok() const { return mounted_; }
	const std::string &why() const { return why_; }
	const std::string &dir() const { return dir_; }

private:
	long added_ = 0;
	std::string dir_;
	bool mounted_ = false;
	std::string why_;
};

/* This binary again, in a child role; stdout+stderr come back through a pipe. */
class Child {
public:
	Child(const std::string &role, const std::string &prefix, const std::string &huge_dir)
	{
		int in_pipe[2], out_pipe[2];
		if (pipe2(in_pipe, O_CLOEXEC) != 0 || pipe2(out_pipe, O_CLOEXEC) != 0)
			return;
		std::vector<std::string> env;
		for (char **e = environ; *e != nullptr; e++) {
			if (std::strncmp(*e, "ZORV_PROBE_CHILD_", 17) != 0)
				env.emplace_back(*e);
		}
		env.push_back(std::string(kRoleEnv) + "=" + role);
		env.push_back(std::string(kPrefixEnv) + "=" + prefix);
		env.push_back(std::string(kHugeDirEnv) + "=" + huge_dir);
		std::vector<char *> envp;
		for (auto &e : env)
			envp.push_back(e.data());
		envp.push_back(nullptr);
		std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
		std::string filter = kSecondaryFilter;
		char *argv[] = {self.data(), filter.data(), nullptr};

		pid_ = fork();
		if (pid_ == 0) {
			dup2(in_pipe[0], STDIN_FILENO);
			dup2(out_pipe[1], STDOUT_FILENO);
			dup2(out_pipe[1], STDERR_FILENO);
			execve(self.c_str(), argv, envp.data());
			_exit(127);
		}
		close(in_pipe[0]);
		close(out_pipe[1]);
		to_child_ = in_pipe[1];
		from_child_ = out_pipe[0];
		if (pid_ < 0) {
			CloseInput();
			close(from_child_);
			from_child_ = -1;
		}
	}
	~Child()
	{
		CloseInput();
		if (pid_ > 0 && !reaped_) {
			if (!Wait(std::chrono::seconds(20))) {
				kill(pid_, SIGKILL);
				Wait(std::chrono::seconds(5));
			}
		}
		if (from_child_ >= 0)
			close(from_child_);
	}
	Child(const Child &) = delete;
	Child &operator=(const Child &) = delete;

	bool started() const { return pid_ > 0; }

	/* Read output until `until` appears in it, EOF or the deadline. */
	bool ReadUntil(const std::string &until, std::chrono::seconds limit)
	{
		auto deadline = std::chrono::steady_clock::now() + limit;
		while (output_.find(until) == std::string::npos) {
			auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
				deadline - std::chrono::steady_clock::now());
			if (left.count() <= 0 || from_child_ < 0)
				return false;
			struct pollfd p = {from_child_, POLLIN, 0};
			if (poll(&p, 1, static_cast<int>(left.count())) <= 0)
				continue;
			char buf[4096];
			ssize_t n = read(from_child_, buf, sizeof(buf));
			if (n <= 0)
				return output_.find(until) != std::string::npos;
			output_.append(buf, static_cast<size_t>(n));
		}
		return true;
	}

	void CloseInput()
	{
		if (to_child_ >= 0)
			close(to_child_);
		to_child_ = -1;
	}

	/* Reap the child; false if it is still running at the deadline. */
	bool Wait(std::chrono::seconds limit)
	{
		auto deadline = std::chrono::steady_clock::now() + limit;
		while (!reaped_) {
			pid_t r = waitpid(pid_, &status_, WNOHANG);
			if (r == pid_) {
				reaped_ = true;
				break;
			}
			if (r < 0 || std::chrono::steady_clock::now() > deadline)
				return false;
			usleep(20000);
		}
		return true;
	}

	int exit_code() const
	{
		return reaped_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
	}
	const std::string &output() const { return output_; }

	std::map<std::string, std::string> Facts() const
	{
		std::map<std::string, std::string> out;
		std::istringstream lines(output_);
		std::string line;
		while (std::getline(lines, line)) {
			if (line.rfind("FACT ", 0) != 0)
				continue;
			size_t eq = line.find('=');
			if (eq != std::string::npos)
				out[line.substr(5, eq - 5)] = line.substr(eq + 1);
		}
		return out;
	}

private:
	pid_t pid_ = -1;
	int to_child_ = -1;
	int from_child_ = -1;
	bool reaped_ = false;
	int status_ = 0;
	std::string output_;
};

} // namespace

TEST(SecondaryProcessProbe, AttachesToThePrimarysPortWithoutParsingOrReporting)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "the secondary-process probe needs a primary on hugepages, which needs root";
	HugepageReservation huge(64);
	if (!huge.ok())
		GTEST_SKIP() << "no hugepages for a primary process: " << huge.why();

	std::string runtime_root =
		std::filesystem::path(rte_eal_get_runtime_dir()).parent_path().string();
	std::string prefix = "zorv_probe_sec_" + std::to_string(getpid());
	struct RuntimeDirCleanup {
		std::string dir;
		~RuntimeDirCleanup()
		{
			std::error_code ec;
			std::filesystem::remove_all(dir, ec);
		}
	} cleanup{runtime_root + "/" + prefix};

	Child primary("primary", prefix, huge.dir());
	ASSERT_TRUE(primary.started());
	ASSERT_TRUE(primary.ReadUntil("READY", std::chrono::seconds(60)))
		<< "primary did not come up:\n" << primary.output();
	ASSERT_NE(primary.output().find("READY 1"), std::string::npos)
		<< "primary has no net_zorv1_sec port:\n" << primary.output();

	std::map<std::string, std::string> facts;
	{
		Child secondary("secondary", prefix, "");
		ASSERT_TRUE(secondary.started());
		secondary.CloseInput();
		bool done = secondary.ReadUntil("DONE", std::chrono::seconds(60));
		ASSERT_TRUE(secondary.Wait(std::chrono::seconds(30))) << secondary.output();
		ASSERT_TRUE(done) << "secondary output:\n" << secondary.output();
		EXPECT_EQ(secondary.exit_code(), 0) << secondary.output();
		facts = secondary.Facts();
		RecordProperty("secondary_output", secondary.output());
		if (HasFailure())
			std::printf("%s", secondary.output().c_str());
	}
	primary.CloseInput();
	EXPECT_TRUE(primary.Wait(std::chrono::seconds(30))) << primary.output();

	EXPECT_EQ(facts["eal_init"], "1");
	EXPECT_EQ(facts["secondary"], "1");
	ASSERT_EQ(facts["port_found"], "1");
	/* The port of the primary, wired to this driver's operations and bursts. */
	EXPECT_EQ(facts["dev_ops_of_driver"], "1");
	EXPECT_EQ(facts["rx_burst_of_driver"], "1");
	EXPECT_EQ(facts["tx_burst_of_driver"], "1");
	EXPECT_EQ(facts["attached"], "1");
	EXPECT_EQ(facts["device_name"], kSecondaryVdev);
	EXPECT_EQ(facts["driver_name"], "net_zorv1");
	EXPECT_EQ(facts["max_rx_queues"], "2");
	/* The unset numa node of the bus device was fixed up. */
	EXPECT_EQ(facts["device_numa"], facts["socket_id"]);
	EXPECT_NE(facts["device_numa"], std::to_string(SOCKET_ID_ANY));
	/* Nothing parsed, created or reported; still timed. */
	EXPECT_EQ(facts["initializing_lines"], "0");
	EXPECT_EQ(facts["kvlist_lines"], "0");
	EXPECT_EQ(facts["mqtt_msgs"], "0");
	EXPECT_EQ(facts["flow_inits"], "0");
	EXPECT_EQ(facts["diag_installs"], "0");
	EXPECT_EQ(facts["timing_lines"], "1");
	/* A device the primary does not have: the attach fails, unreported. */
	EXPECT_EQ(facts["missing_probe_ret"], "-1");
	EXPECT_EQ(facts["missing_failed_lines"], "1");
	EXPECT_EQ(facts["missing_mqtt_msgs"], "0");
	EXPECT_EQ(facts["missing_timing_lines"], "1");
	EXPECT_EQ(facts["missing_port"], "0");
}
