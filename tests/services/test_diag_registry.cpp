/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics registry: installing tables, and the telemetry handlers
 * called directly (their replies are read through the telemetry socket in
 * test_diag_registry_telemetry).
 */
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <rte_telemetry.h>

#include "test_diag_registry_fake.h"
#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_logs.h"
#include "zorv_diag_registry.h"
#include "zorv_test_harness.h"

namespace {

struct TelDataFree {
	void operator()(struct rte_tel_data *d) const { rte_tel_data_free(d); }
};
using TelData = std::unique_ptr<struct rte_tel_data, TelDataFree>;

TelData NewData()
{
	TelData d(rte_tel_data_alloc());
	EXPECT_NE(d, nullptr);
	return d;
}

using Handler = int (*)(const char *, const char *, struct rte_tel_data *);

int Call(Handler h, const char *params)
{
	TelData d = NewData();
	return h("/zorv1/x", params, d.get());
}

class DiagRegistry : public ::testing::Test {
protected:
	void SetUp() override
	{
		diag_fake::Reset();
		for (int t = 0; t < ZORV1_MAX_DEV_TYPE; t++)
			ASSERT_EQ(zorv1_diag_ops_get(static_cast<zorv1_diag_type>(t)), nullptr)
				<< "a table is left installed for type " << t;
	}
	void TearDown() override
	{
		EXPECT_TRUE(diag_fake::TheWorld().record_problems.empty())
			<< diag_fake::TheWorld().record_problems.front();
	}

	static diag_fake::Port &AddPort(const std::string &name, int type, int qnum)
	{
		diag_fake::Port &p = diag_fake::TheWorld().ports[name];
		p.type = type;
		p.qnum = qnum;
		return p;
	}
	static std::vector<diag_fake::Call> &Calls() { return diag_fake::TheWorld().calls; }
};

TEST_F(DiagRegistry, InstallRejectsABadTypeOrNoTable)
{
	const zorv1_diag_ops *ops = diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV);

	EXPECT_EQ(zorv1_diag_ops_install(ZORV1_MAX_DEV_TYPE, ops), -EINVAL);
	EXPECT_EQ(zorv1_diag_ops_install(static_cast<zorv1_diag_type>(-1), ops), -EINVAL);
	EXPECT_EQ(zorv1_diag_ops_install(static_cast<zorv1_diag_type>(1000), ops), -EINVAL);
	EXPECT_EQ(zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, nullptr), -EINVAL);
	for (int t = 0; t < ZORV1_MAX_DEV_TYPE; t++)
		EXPECT_EQ(zorv1_diag_ops_get(static_cast<zorv1_diag_type>(t)), nullptr);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_MAX_DEV_TYPE), nullptr);
}

TEST_F(DiagRegistry, ReinstallingTheSameTableIsANoOpAndAnotherReplacesIt)
{
	const zorv1_diag_ops *a = diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV);
	const zorv1_diag_ops *b = diag_fake::TableWithoutQnum(ZORV1_DIAG_DPU_VDEV);
	zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, a), 0);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), a);
	/* Every port creation installs the same table again. */
	for (int i = 0; i < 3; i++)
		EXPECT_EQ(zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, a), 0);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), a);
	EXPECT_EQ(zorv_test::CountLines(cap, "zorv1_diag_ops_install",
					"Diagnostics table of dpu_vdev replaced\n"),
		  0);

	EXPECT_EQ(zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, b), 0);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), b);
	EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_INFO, "zorv1_diag_ops_install",
					    "Diagnostics table of dpu_vdev replaced\n"));
	/* Other types are untouched. */
	for (int t = 1; t < ZORV1_MAX_DEV_TYPE; t++)
		EXPECT_EQ(zorv1_diag_ops_get(static_cast<zorv1_diag_type>(t)), nullptr);

	/* Only the table in place can be taken out. */
	EXPECT_EQ(zorv1_diag_ops_uninstall(ZORV1_DIAG_DPU_VDEV, a), -ENOENT);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), b);
	EXPECT_EQ(zorv1_diag_ops_uninstall(ZORV1_DIAG_DPU_VDEV, b), 0);
	EXPECT_EQ(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), nullptr);
	EXPECT_EQ(zorv1_diag_ops_uninstall(ZORV1_MAX_DEV_TYPE, b), -EINVAL);
}

TEST_F(DiagRegistry, TypeNames)
{
	EXPECT_STREQ(zorv1_diag_type_name(ZORV1_DIAG_DPU_VDEV), "dpu_vdev");
	EXPECT_STREQ(zorv1_diag_type_name(ZORV1_DIAG_DPU_PCI), "dpu_pci");
	EXPECT_STREQ(zorv1_diag_type_name(ZORV1_DIAG_SNIC_VDEV), "snic_vdev");
	EXPECT_STREQ(zorv1_diag_type_name(ZORV1_DIAG_SNIC_PCI), "snic_pci");
	EXPECT_EQ(zorv1_diag_type_name(ZORV1_MAX_DEV_TYPE), nullptr);
}

TEST_F(DiagRegistry, CommandsFailWhenNoTableKnowsThePort)
{
	EXPECT_EQ(Call(zorv1_diag_tel_qnum, "net_zorv1_0"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_port_info, "net_zorv1_0"), -EINVAL);

	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	AddPort("net_zorv1_0", ZORV1_DIAG_DPU_VDEV, 4);
	EXPECT_EQ(Call(zorv1_diag_tel_qnum, "net_zorv1_1"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_port_info, "net_zorv1_1"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_queue_info, "net_zorv1_1,0"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_queue_stats, "net_zorv1_1,0"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_ring_info, "net_zorv1_1,0"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_qnum, "net_zorv1_0"), 0);
}

TEST_F(DiagRegistry, BadParametersAreRejectedBeforeAnyOperation)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	AddPort("net_zorv1_0", ZORV1_DIAG_DPU_VDEV, 4);
	const std::string too_long(RTE_ETH_NAME_MAX_LEN, 'n');

	for (Handler h : {zorv1_diag_tel_qnum, zorv1_diag_tel_port_info}) {
		EXPECT_EQ(Call(h, nullptr), -EINVAL);
		EXPECT_EQ(Call(h, ""), -EINVAL);
		EXPECT_EQ(Call(h, "net_zorv1_0,1"), -EINVAL);
		EXPECT_EQ(Call(h, too_long.c_str()), -EINVAL);
	}
	for (Handler h : {zorv1_diag_tel_queue_info, zorv1_diag_tel_queue_stats,
			  zorv1_diag_tel_ring_info}) {
		for (const char *bad : {"", "net_zorv1_0", "net_zorv1_0,", ",1", "net_zorv1_0,x",
					"net_zorv1_0,1x", "net_zorv1_0,-1", "net_zorv1_0, 1",
					"net_zorv1_0,+1", "net_zorv1_0,1,2", "net_zorv1_0,99999999999"})
			EXPECT_EQ(Call(h, bad), -EINVAL) << "params \"" << bad << "\"";
		EXPECT_EQ(Call(h, nullptr), -EINVAL);
		EXPECT_EQ(Call(h, (too_long + ",0").c_str()), -EINVAL);
	}
	EXPECT_EQ(Call(zorv1_diag_tel_ports, "x"), -EINVAL);
	EXPECT_EQ(Call(zorv1_diag_tel_cp_stats, "x"), -EINVAL);
	for (const auto &c : Calls())
		EXPECT_NE(c.op, "queue_info") << "an operation ran on bad parameters";
	for (const auto &c : Calls())
		EXPECT_NE(c.op, "ring_info") << "an operation ran on bad parameters";
}

TEST_F(DiagRegistry, QueueCommandsPassNameAndQidToThePortsTable)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Port &p = AddPort("net_zorv1_7", ZORV1_DIAG_DPU_VDEV, 8);
	p.rings[3].local_id = 9;

	EXPECT_EQ(Call(zorv1_diag_tel_queue_info, "net_zorv1_7,5"), 0);
	EXPECT_EQ(Call(zorv1_diag_tel_queue_stats, "net_zorv1_7,0"), 0);
	/* A qid beyond the queues is the table's business: it appends valid 0. */
	EXPECT_EQ(Call(zorv1_diag_tel_queue_info, "net_zorv1_7,100"), 0);
	EXPECT_EQ(Call(zorv1_diag_tel_ring_info, "net_zorv1_7,3"), 0);
	/* A qid without a ring fails in the table. */
	EXPECT_EQ(Call(zorv1_diag_tel_ring_info, "net_zorv1_7,4"), -EIO);

	std::vector<std::string> seen;
	for (const auto &c : Calls()) {
		EXPECT_EQ(c.name, "net_zorv1_7");
		EXPECT_EQ(c.type, ZORV1_DIAG_DPU_VDEV);
		if (c.op != "qnum")
			seen.push_back(c.op + ":" + std::to_string(c.qid));
	}
	EXPECT_EQ(seen, (std::vector<std::string>{"queue_info:5", "queue_stats:0", "queue_info:100",
						  "ring_info:3", "ring_info:4"}));
}

TEST_F(DiagRegistry, APortBelongsToTheFirstTypeThatKnowsIt)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Installed pci(ZORV1_DIAG_DPU_PCI, diag_fake::FullTable(ZORV1_DIAG_DPU_PCI));
	diag_fake::Installed snic(ZORV1_DIAG_SNIC_VDEV,
				  diag_fake::TableWithoutQnum(ZORV1_DIAG_SNIC_VDEV));
	AddPort("pci0", ZORV1_DIAG_DPU_PCI, 2);
	AddPort("snic0", ZORV1_DIAG_SNIC_VDEV, 2);

	EXPECT_EQ(Call(zorv1_diag_tel_queue_info, "pci0,1"), 0);
	ASSERT_FALSE(Calls().empty());
	EXPECT_EQ(Calls().back().op, "queue_info");
	EXPECT_EQ(Calls().back().type, ZORV1_DIAG_DPU_PCI);

	/* A table without a qid count is asked for the port's record instead. */
	Calls().clear();
	EXPECT_EQ(Call(zorv1_diag_tel_queue_info, "snic0,0"), 0);
	ASSERT_FALSE(Calls().empty());
	EXPECT_EQ(Calls().back().op, "queue_info");
	EXPECT_EQ(Calls().back().type, ZORV1_DIAG_SNIC_VDEV);
	/* ... but cannot answer a qid count. */
	EXPECT_EQ(Call(zorv1_diag_tel_qnum, "snic0"), -EINVAL);
}

TEST_F(DiagRegistry, PortsAndCountersAnswerWithoutParameters)
{
	EXPECT_EQ(Call(zorv1_diag_tel_ports, nullptr), 0);
	EXPECT_EQ(Call(zorv1_diag_tel_ports, ""), 0);
	EXPECT_EQ(Call(zorv1_diag_tel_cp_stats, nullptr), 0);
	EXPECT_EQ(Call(zorv1_diag_tel_cp_stats, ""), 0);
}

} // namespace
