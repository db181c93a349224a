/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics tables of the registry's tests.
 */
#include "test_diag_registry_fake.h"

#include <malloc.h>

#include <cstring>
#include <mutex>

#include <gtest/gtest.h>

#include "zorv_diag_registry.h"

namespace diag_fake {

namespace {

std::mutex g_mu;

Port *Find(int type, const char *name)
{
	auto it = TheWorld().ports.find(name);
	if (it == TheWorld().ports.end() || it->second.type != type)
		return nullptr;
	return &it->second;
}

void Record(const char *op, int type, const char *name, int qid)
{
	TheWorld().calls.push_back(Call{op, type, name, qid});
}

/*
 * The registry owns the record: a zeroed head and room for one element of
 * the union, however small the member a type fills.
 */
template <typename Record, typename Element>
void CheckRecord(const char *op, const Record *rec)
{
	auto &problems = TheWorld().record_problems;
	if (rec == nullptr) {
		problems.push_back(std::string(op) + ": NULL record");
		return;
	}
	if (rec->num != 0 || rec->dev_type != 0)
		problems.push_back(std::string(op) + ": head not zeroed");
	if (malloc_usable_size(const_cast<Record *>(rec)) < sizeof(Record) + sizeof(Element))
		problems.push_back(std::string(op) + ": no room for one union element");
	const auto *bytes = reinterpret_cast<const unsigned char *>(rec) + sizeof(Record);
	for (size_t i = 0; i < sizeof(Element); i++) {
		if (bytes[i] != 0) {
			problems.push_back(std::string(op) + ": element not zeroed");
			break;
		}
	}
}

template <int T>
int Qnum(char *name)
{
	std::lock_guard<std::mutex> lk(g_mu);
	Record("qnum", T, name, -1);
	Port *p = Find(T, name);
	return p != nullptr ? p->qnum : -1;
}

template <int T>
int PortInfo(char *name, struct zorv1_diag_port_info *info)
{
	std::lock_guard<std::mutex> lk(g_mu);
	Record("port_info", T, name, -1);
	CheckRecord<zorv1_diag_port_info, zorv1_port_info_data>("port_info", info);
	Port *p = Find(T, name);
	if (p == nullptr)
		return -1;
	info->info[info->num] = p->info;
	info->num++;
	return 0;
}

template <int T>
int QueueInfo(char *name, int qid, struct zorv1_diag_queue_info *info)
{
	std::lock_guard<std::mutex> lk(g_mu);
	Record("queue_info", T, name, qid);
	CheckRecord<zorv1_diag_queue_info, zorv1_diag_queue_info_data>("queue_info", info);
	Port *p = Find(T, name);
	if (p == nullptr)
		return -1;
	auto it = p->qinfo.find(qid);
	if (it != p->qinfo.end())
		info->info[info->num] = it->second;
	else
		info->info[info->num].vdev_qinfo.valid = 0;
	info->num++;
	return 0;
}

template <int T>
int QueueStats(char *name, int qid, struct zorv1_diag_stats *stats)
{
	std::lock_guard<std::mutex> lk(g_mu);
	Record("queue_stats", T, name, qid);
	CheckRecord<zorv1_diag_stats, zorv1_diag_stats_data>("queue_stats", stats);
	Port *p = Find(T, name);
	if (p == nullptr || stats == nullptr)
		return -1;
	auto it = p->stats.find(qid);
	if (it != p->stats.end())
		stats->stats[stats->num] = it->second;
	else
		stats->stats[stats->num].vdev_stats.valid = 0;
	stats->num++;
	return 0;
}

template <int T>
int RingInfo(char *name, int qid, struct zorv1_vnet_diag_ring_info *ring)
{
	std::lock_guard<std::mutex> lk(g_mu);
	Record("ring_info", T, name, qid);
	Port *p = Find(T, name);
	if (p == nullptr)
		return -1;
	auto it = p->rings.find(qid);
	if (it == p->rings.end())
		return -1;
	*ring = it->second;
	return 0;
}

template <int T>
constexpr struct zorv1_diag_ops kFull = {
	.get_qnum_by_name = Qnum<T>,
	.get_ring_info = RingInfo<T>,
	.get_port_info = PortInfo<T>,
	.get_queue_stats = QueueStats<T>,
	.get_queue_info = QueueInfo<T>,
	.get_pci_desc = nullptr,
};

template <int T>
constexpr struct zorv1_diag_ops kNoQnum = {
	.get_qnum_by_name = nullptr,
	.get_ring_info = RingInfo<T>,
	.get_port_info = PortInfo<T>,
	.get_queue_stats = QueueStats<T>,
	.get_queue_info = QueueInfo<T>,
	.get_pci_desc = nullptr,
};

constexpr const struct zorv1_diag_ops *kFullTables[] = {&kFull<0>, &kFull<1>, &kFull<2>,
							 &kFull<3>};
constexpr const struct zorv1_diag_ops *kNoQnumTables[] = {&kNoQnum<0>, &kNoQnum<1>,
							   &kNoQnum<2>, &kNoQnum<3>};

} // namespace

World &TheWorld()
{
	static World world;
	return world;
}

void Reset()
{
	std::lock_guard<std::mutex> lk(g_mu);
	TheWorld() = World{};
}

const struct zorv1_diag_ops *FullTable(enum zorv1_diag_type type)
{
	return kFullTables[type];
}

const struct zorv1_diag_ops *TableWithoutQnum(enum zorv1_diag_type type)
{
	return kNoQnumTables[type];
}

Installed::Installed(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops)
	: type_(type), ops_(ops), previous_(zorv1_diag_ops_get(type))
{
	EXPECT_EQ(zorv1_diag_ops_install(type, ops), 0);
}

Installed::~Installed()
{
	if (previous_ != nullptr)
		zorv1_diag_ops_install(type_, previous_);
	else
		zorv1_diag_ops_uninstall(type_, ops_);
}

} // namespace diag_fake
