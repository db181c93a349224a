/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics registry of the zorv1 family.
 *
 * Each device type installs one operations table; the registry answers the
 * family's telemetry commands from them. A port belongs to the first type
 * (in enumeration order) whose table knows its name. Operations append one
 * element into a record the registry allocates zeroed with room for exactly
 * one element of the record's union.
 */
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <ethdev_driver.h>
#include <rte_telemetry.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_diag_registry.h"
#include "zorv_fw.h"
#include "zorv_vhost_card.h"

namespace {

std::array<std::atomic<const zorv1_diag_ops *>, ZORV1_MAX_DEV_TYPE> g_diag_tables{};

constexpr const char *type_names[ZORV1_MAX_DEV_TYPE] = {
	"dpu_vdev",
	"dpu_pci",
	"snic_vdev",
	"snic_pci",
};

bool valid_type(int type)
{
	return type >= 0 && type < ZORV1_MAX_DEV_TYPE;
}

/* Types whose records are the virtual-device members of the unions. */
bool vdev_type(int type)
{
	return type == ZORV1_DIAG_DPU_VDEV || type == ZORV1_DIAG_SNIC_VDEV;
}

/* ---- control-plane counters ---- */

struct cp_counter {
	const char *name;
	size_t offset;
};

#define ZORV1_CP(field) cp_counter{#field, offsetof(struct dpdk_cp_stat, field)}

constexpr std::array cp_counters = {
	ZORV1_CP(set_owner_fail),
	ZORV1_CP(set_owner_suc),
	ZORV1_CP(cache_start_flag_err),
	ZORV1_CP(enqueue_dev_null),
	ZORV1_CP(enqueue_queue_fail),
	ZORV1_CP(enqueue_vhost_len_fail),
	ZORV1_CP(enqueue_fail),
	ZORV1_CP(dequeue_dev_null),
	ZORV1_CP(dequeue_queue_fail),
	ZORV1_CP(dequeue_rarp_null),
	ZORV1_CP(dequeue_pmd),
	ZORV1_CP(pre_msg_path_fail),
	ZORV1_CP(post_msg_path_fail),
	ZORV1_CP(new_conn_err),
	ZORV1_CP(new_conn),
	ZORV1_CP(del_conn_err),
	ZORV1_CP(del_conn),
	ZORV1_CP(vring_state_fail),
	ZORV1_CP(vring_state_chg),
	ZORV1_CP(del_device_null),
	ZORV1_CP(del_device_suc),
	ZORV1_CP(add_device_null),
	ZORV1_CP(add_device_vq_no_ready),
	ZORV1_CP(add_device_install_err),
	ZORV1_CP(queue_setup_ignore),
	ZORV1_CP(queue_destroy_ignore),
	ZORV1_CP(add_device_success),
	ZORV1_CP(vhost_setup_fail),
	ZORV1_CP(eth_dev_configure),
	ZORV1_CP(vhost_list_null),
	ZORV1_CP(vhost_vring_state_null),
	ZORV1_CP(vhost_regist_fail),
	ZORV1_CP(vhost_vsocket_null),
	ZORV1_CP(vhost_callback_null),
	ZORV1_CP(vhost_driver_start_err),
	ZORV1_CP(vhost_driver_setup),
	ZORV1_CP(close_dev_null),
	ZORV1_CP(eth_dev_close),
	ZORV1_CP(eth_dev_stop),
	ZORV1_CP(flow_start_fail),
	ZORV1_CP(flow_close_fail),
	ZORV1_CP(start_dev_intr),
	ZORV1_CP(eth_dev_start),
	ZORV1_CP(send_msg_fail),
	ZORV1_CP(get_ethdev_fail),
};

#undef ZORV1_CP

static_assert(cp_counters.size() == 45);
static_assert(sizeof(struct dpdk_cp_stat) == cp_counters.size() * sizeof(uint32_t),
	      "every control-plane counter is listed");

/* ---- records ---- */

struct free_deleter {
	void operator()(void *p) const { free(p); }
};

/* A list record zeroed with room for one element of its union. */
template <typename Record, typename Element>
std::unique_ptr<Record, free_deleter> alloc_record()
{
	return std::unique_ptr<Record, free_deleter>(
		static_cast<Record *>(calloc(1, sizeof(Record) + sizeof(Element))));
}

/* Interface names and socket paths: a unix socket address at most. */
constexpr size_t SOCK_NAME_MAX = 108;

/* ---- parameters ---- */

struct port_params {
	char name[RTE_ETH_NAME_MAX_LEN];
	int qid;
};

/* "<name>" or "<name>,<qid>" (want_qid); the qid is a decimal >= 0. */
bool parse_params(const char *params, bool want_qid, port_params &out)
{
	if (params == nullptr || params[0] == '\0')
		return false;

	const char *comma = strchr(params, ',');
	size_t name_len = comma != nullptr ? static_cast<size_t>(comma - params) : strlen(params);

	if (name_len == 0 || name_len >= sizeof(out.name))
		return false;
	memcpy(out.name, params, name_len);
	out.name[name_len] = '\0';
	out.qid = -1;

	if (!want_qid)
		return comma == nullptr;
	if (comma == nullptr || comma[1] < '0' || comma[1] > '9')
		return false;

	char *end = nullptr;
	errno = 0;
	long qid = strtol(comma + 1, &end, 10);
	if (errno != 0 || *end != '\0' || qid < 0 || qid > INT32_MAX)
		return false;
	out.qid = static_cast<int>(qid);
	return true;
}

/*
 * The first type whose table knows the port: its qid count answers, or, for
 * a table without one, its port information does.
 */
int find_owner(char *name, int &type, const zorv1_diag_ops *&ops)
{
	for (int t = 0; t < ZORV1_MAX_DEV_TYPE; t++) {
		const zorv1_diag_ops *o = g_diag_tables[t].load();

		if (o == nullptr)
			continue;
		if (o->get_qnum_by_name != nullptr) {
			if (o->get_qnum_by_name(name) < 0)
				continue;
		} else if (o->get_port_info != nullptr) {
			auto rec = alloc_record<zorv1_diag_port_info, zorv1_port_info_data>();
			if (rec == nullptr)
				return -ENOMEM;
			if (o->get_port_info(name, rec.get()) != 0)
				continue;
		} else {
			continue;
		}
		type = t;
		ops = o;
		return 0;
	}
	return -ENODEV;
}

void add_head(struct rte_tel_data *d, const port_params &p, int type)
{
	rte_tel_data_add_dict_string(d, "name", p.name);
	rte_tel_data_add_dict_string(d, "type", type_names[type]);
}

void add_qid(struct rte_tel_data *d, int qid)
{
	rte_tel_data_add_dict_int(d, "qid", qid);
	rte_tel_data_add_dict_int(d, "queue", qid / ZORV1_QNUM);
	rte_tel_data_add_dict_string(d, "direction", (qid & 1) != 0 ? "tx" : "rx");
}

void add_vdev_stats(struct rte_tel_data *d, const zorv1_vdev_diag_stats &s)
{
	rte_tel_data_add_dict_u64(d, "valid", s.valid);
	if (s.valid == 0)
		return;
	rte_tel_data_add_dict_u64(d, "pkts", s.pkts);
	rte_tel_data_add_dict_u64(d, "bytes", s.bytes);
	rte_tel_data_add_dict_u64(d, "missed_pkts", s.missed_pkts);
	rte_tel_data_add_dict_u64(d, "pkt_undersize", s.pkt_undersize);
	rte_tel_data_add_dict_u64(d, "pkt_64", s.pkt_64);
	rte_tel_data_add_dict_u64(d, "pkt_65_to_127", s.pkt_65_to_127);
	rte_tel_data_add_dict_u64(d, "pkt_128_to_255", s.pkt_128_to_255);
	rte_tel_data_add_dict_u64(d, "pkt_256_to_511", s.pkt_256_to_511);
	rte_tel_data_add_dict_u64(d, "pkt_512_to_1023", s.pkt_512_to_1023);
	rte_tel_data_add_dict_u64(d, "pkt_1024_to_1522", s.pkt_1024_to_1522);
	rte_tel_data_add_dict_u64(d, "pkt_1523_to_max", s.pkt_1523_to_max);
	rte_tel_data_add_dict_u64(d, "broadcast_pkt", s.broadcast_pkt);
	rte_tel_data_add_dict_u64(d, "multicast_pkt", s.multicast_pkt);
	rte_tel_data_add_dict_u64(d, "unicast_pkt", s.unicast_pkt);
}

int add_pci_stats(struct rte_tel_data *d, const zorv1_pci_diag_stats &s, bool tx)
{
	struct rte_tel_data *bins = rte_tel_data_alloc();

	if (bins == nullptr)
		return -ENOMEM;
	rte_tel_data_add_dict_u64(d, "packets", s.packets);
	rte_tel_data_add_dict_u64(d, "bytes", s.bytes);
	rte_tel_data_add_dict_u64(d, "errors", s.errors);
	rte_tel_data_add_dict_u64(d, "multicast", s.multicast);
	rte_tel_data_add_dict_u64(d, "broadcast", s.broadcast);
	rte_tel_data_start_array(bins, RTE_TEL_U64_VAL);
	for (uint64_t bin : s.size_bins)
		rte_tel_data_add_array_u64(bins, bin);
	/* Handed over: telemetry frees it once the reply is written. */
	if (rte_tel_data_add_dict_container(d, "size_bins", bins, 0) != 0)
		rte_tel_data_free(bins);
	if (tx) {
		const zorv1_tx_stats &t = s.tx_stats;
		rte_tel_data_add_dict_u64(d, "cleanup", t.cleanup);
		rte_tel_data_add_dict_u64(d, "no_free_desc", t.no_free_desc);
		rte_tel_data_add_dict_u64(d, "notify", t.notify);
		rte_tel_data_add_dict_u64(d, "send_err", t.send_err);
		rte_tel_data_add_dict_u64(d, "hdl_drop", t.hdl_drop);
		rte_tel_data_add_dict_u64(d, "pp_total_tx_pkts", t.pp_total_tx_pkts);
	} else {
		const zorv1_rx_stats &r = s.rx_stats;
		rte_tel_data_add_dict_u64(d, "refill", r.refill);
		rte_tel_data_add_dict_u64(d, "vlan_strip", r.vlan_strip);
		rte_tel_data_add_dict_u64(d, "refill_failed", r.refill_failed);
		rte_tel_data_add_dict_u64(d, "pktmbuf_alloc_failed", r.pktmbuf_alloc_failed);
		rte_tel_data_add_dict_u64(d, "notify", r.notify);
		rte_tel_data_add_dict_u64(d, "no_used_desc", r.no_used_desc);
		rte_tel_data_add_dict_u64(d, "no_mbuf_cookie", r.no_mbuf_cookie);
		rte_tel_data_add_dict_u64(d, "pp_total_rx_pkts", r.pp_total_rx_pkts);
		rte_tel_data_add_dict_u64(d, "pp_passthrough", r.pp_passthrough);
		rte_tel_data_add_dict_u64(d, "pp_enqueue", r.pp_enqueue);
		rte_tel_data_add_dict_u64(d, "pp_drop", r.pp_drop);
		rte_tel_data_add_dict_u64(d, "pp_retry", r.pp_retry);
		rte_tel_data_add_dict_u64(d, "pp_retry_failed", r.pp_retry_failed);
	}
	return 0;
}

void add_vdev_qinfo(struct rte_tel_data *d, const zorv1_diag_vdev_qinfo &q, bool tx)
{
	rte_tel_data_add_dict_int(d, "valid", q.valid);
	if (q.valid == 0)
		return;
	rte_tel_data_add_dict_int(d, "vid", q.vid);
	rte_tel_data_add_dict_int(d, "allow_queuing", q.allow_queuing);
	rte_tel_data_add_dict_int(d, "while_queuing", q.while_queuing);
	rte_tel_data_add_dict_int(d, "port", q.port);
	rte_tel_data_add_dict_int(d, "virtqueue_id", q.virtqueue_id);
	if (tx) {
		rte_tel_data_add_dict_u64(d, "pci_qid", q.pci_qid);
	} else {
		rte_tel_data_add_dict_int(d, "nb_rx_desc", q.nb_rx_desc);
		rte_tel_data_add_dict_int(d, "local_id", q.local_id);
	}
}

void add_pci_qinfo(struct rte_tel_data *d, const zorv1_diag_pci_qinfo &q)
{
	rte_tel_data_add_dict_int(d, "vq_used_cons_idx", q.vq_used_cons_idx);
	rte_tel_data_add_dict_int(d, "vq_nentries", q.vq_nentries);
	rte_tel_data_add_dict_int(d, "vq_free_cnt", q.vq_free_cnt);
	rte_tel_data_add_dict_int(d, "vq_avail_idx", q.vq_avail_idx);
	rte_tel_data_add_dict_int(d, "vq_free_thresh", q.vq_free_thresh);
	rte_tel_data_add_dict_int(d, "vq_desc_head_idx", q.vq_desc_head_idx);
	rte_tel_data_add_dict_int(d, "vq_desc_tail_idx", q.vq_desc_tail_idx);
	rte_tel_data_add_dict_int(d, "vq_queue_index", q.vq_queue_index);
	rte_tel_data_add_dict_u64(d, "vq_ring_size", q.vq_ring_size);
	rte_tel_data_add_dict_int(d, "mbuf_addr_offset", q.mbuf_addr_offset);
}

/* A fixed-size name field may lack its NUL; never read past it. */
std::string field_string(const char *field, size_t len)
{
	return std::string(field, strnlen(field, len));
}

/* ---- registration ---- */

struct tel_command {
	const char *cmd;
	telemetry_cb fn;
	const char *help;
};

constexpr tel_command tel_commands[] = {
	{"/zorv1/ports", zorv1_diag_tel_ports, "Names of the zorv1 ports. No parameters"},
	{"/zorv1/port_info", zorv1_diag_tel_port_info,
	 "Port record of a zorv1 port. Parameters: port name"},
	{"/zorv1/qnum", zorv1_diag_tel_qnum,
	 "Queue id count (2 x queues) of a zorv1 port. Parameters: port name"},
	{"/zorv1/queue_info", zorv1_diag_tel_queue_info,
	 "Queue record of a zorv1 port. Parameters: port name, qid (2 x queue + 1 for tx)"},
	{"/zorv1/queue_stats", zorv1_diag_tel_queue_stats,
	 "Queue counters of a zorv1 port. Parameters: port name, qid (2 x queue + 1 for tx)"},
	{"/zorv1/ring_info", zorv1_diag_tel_ring_info,
	 "Receive ring behind a qid of a zorv1 port. Parameters: port name, qid"},
	{"/zorv1/cp_stats", zorv1_diag_tel_cp_stats,
	 "Control-plane counters of the zorv1 driver and the card's drop, refusal and offload "
	 "totals. No parameters"},
	{"/zorv1/card", zorv1_diag_tel_card,
	 "The card's side of a zorv1 port: peer, MTU and its drops. Parameters: port name"},
};

/* Telemetry accepts commands before EAL start-up. */
__attribute__((constructor)) void zorv1_diag_register_telemetry(void)
{
	for (const tel_command &c : tel_commands) {
		int rc = rte_telemetry_register_cmd(c.cmd, c.fn, c.help);
		if (rc != 0)
			ZORV1_VDEV_LOG(ERR, "Telemetry command %s not registered: %d\n", c.cmd, rc);
	}
}

} // namespace

extern "C" {

int zorv1_diag_ops_install(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops)
{
	if (!valid_type(type) || ops == nullptr)
		return -EINVAL;

	const zorv1_diag_ops *old = g_diag_tables[type].exchange(ops);
	if (old != ops && old != nullptr)
		ZORV1_VDEV_LOG(INFO, "Diagnostics table of %s replaced\n", type_names[type]);
	return 0;
}

int zorv1_diag_ops_uninstall(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops)
{
	if (!valid_type(type))
		return -EINVAL;
	const zorv1_diag_ops *expected = ops;
	return g_diag_tables[type].compare_exchange_strong(expected, nullptr) ? 0 : -ENOENT;
}

const struct zorv1_diag_ops *zorv1_diag_ops_get(enum zorv1_diag_type type)
{
	return valid_type(type) ? g_diag_tables[type].load() : nullptr;
}

const char *zorv1_diag_type_name(enum zorv1_diag_type type)
{
	return valid_type(type) ? type_names[type] : nullptr;
}

int zorv1_diag_tel_ports(const char *, const char *params, struct rte_tel_data *d)
{
	std::vector<std::string> names;

	if (params != nullptr && params[0] != '\0')
		return -EINVAL;

	zorv1_dev_mutex_lock();
	for (int slot = 0; slot < ZORV1_DEV_MAX; slot++) {
		struct rte_eth_dev *dev = zorv1_dev_get_ethdev_internal(slot);
		if (dev != nullptr && dev->data != nullptr)
			names.emplace_back(dev->data->name);
	}
	zorv1_dev_mutex_unlock();

	rte_tel_data_start_array(d, RTE_TEL_STRING_VAL);
	for (const std::string &n : names)
		rte_tel_data_add_array_string(d, n.c_str());
	return 0;
}

int zorv1_diag_tel_port_info(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	const zorv1_diag_ops *ops;
	int type;

	if (!parse_params(params, false, p) || find_owner(p.name, type, ops) != 0 ||
	    ops->get_port_info == nullptr)
		return -EINVAL;

	auto rec = alloc_record<zorv1_diag_port_info, zorv1_port_info_data>();
	if (rec == nullptr)
		return -ENOMEM;
	if (ops->get_port_info(p.name, rec.get()) != 0 || rec->num != 1)
		return -EIO;

	const zorv1_port_info_data &e = rec->info[0];
	rte_tel_data_start_dict(d);
	rte_tel_data_add_dict_string(d, "type", type_names[type]);
	switch (type) {
	case ZORV1_DIAG_DPU_VDEV: {
		const zorv1_vdev_dpu_port_data &v = e.dpu_vdev_port_info;
		rte_tel_data_add_dict_u64(d, "portid", v.portid);
		/* The record is unsigned; a never-connected port has vid -1. */
		rte_tel_data_add_dict_int(d, "vid", static_cast<int32_t>(v.vid));
		rte_tel_data_add_dict_u64(d, "sfi", v.sfi);
		rte_tel_data_add_dict_int(d, "start_flag", v.start_flag);
		rte_tel_data_add_dict_string(d, "name", field_string(v.name, sizeof(v.name)).c_str());
		break;
	}
	case ZORV1_DIAG_SNIC_VDEV: {
		const zorv1_vdev_snic_port_data &v = e.snic_vdev_port_info;
		rte_tel_data_add_dict_u64(d, "portid", v.portid);
		rte_tel_data_add_dict_u64(d, "sfi", v.sfi);
		rte_tel_data_add_dict_string(d, "name", field_string(v.name, sizeof(v.name)).c_str());
		break;
	}
	default: {
		const zorv1_pci_dpu_port_data &v = e.dpu_pci_port_info;
		rte_tel_data_add_dict_u64(d, "portid", v.portid);
		rte_tel_data_add_dict_string(d, "name", field_string(v.name, sizeof(v.name)).c_str());
		break;
	}
	}
	return 0;
}

int zorv1_diag_tel_qnum(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	const zorv1_diag_ops *ops;
	int type;

	if (!parse_params(params, false, p) || find_owner(p.name, type, ops) != 0 ||
	    ops->get_qnum_by_name == nullptr)
		return -EINVAL;

	int qnum = ops->get_qnum_by_name(p.name);
	if (qnum < 0)
		return -EIO;
	rte_tel_data_start_dict(d);
	add_head(d, p, type);
	rte_tel_data_add_dict_int(d, "qnum", qnum);
	return 0;
}

int zorv1_diag_tel_queue_info(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	const zorv1_diag_ops *ops;
	int type;

	if (!parse_params(params, true, p) || find_owner(p.name, type, ops) != 0 ||
	    ops->get_queue_info == nullptr)
		return -EINVAL;

	auto rec = alloc_record<zorv1_diag_queue_info, zorv1_diag_queue_info_data>();
	if (rec == nullptr)
		return -ENOMEM;
	if (ops->get_queue_info(p.name, p.qid, rec.get()) != 0 || rec->num != 1)
		return -EIO;

	bool tx = (p.qid & 1) != 0;
	rte_tel_data_start_dict(d);
	add_head(d, p, type);
	add_qid(d, p.qid);
	if (vdev_type(type))
		add_vdev_qinfo(d, rec->info[0].vdev_qinfo, tx);
	else
		add_pci_qinfo(d, rec->info[0].pci_qinfo);
	return 0;
}

int zorv1_diag_tel_queue_stats(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	const zorv1_diag_ops *ops;
	int type;

	if (!parse_params(params, true, p) || find_owner(p.name, type, ops) != 0 ||
	    ops->get_queue_stats == nullptr)
		return -EINVAL;

	auto rec = alloc_record<zorv1_diag_stats, zorv1_diag_stats_data>();
	if (rec == nullptr)
		return -ENOMEM;
	if (ops->get_queue_stats(p.name, p.qid, rec.get()) != 0 || rec->num != 1)
		return -EIO;

	bool tx = (p.qid & 1) != 0;
	rte_tel_data_start_dict(d);
	add_head(d, p, type);
	add_qid(d, p.qid);
	if (vdev_type(type)) {
		add_vdev_stats(d, rec->stats[0].vdev_stats);
		return 0;
	}
	return add_pci_stats(d, rec->stats[0].pci_stats, tx);
}

int zorv1_diag_tel_ring_info(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	const zorv1_diag_ops *ops;
	int type;

	if (!parse_params(params, true, p) || find_owner(p.name, type, ops) != 0 ||
	    ops->get_ring_info == nullptr)
		return -EINVAL;

	zorv1_vnet_diag_ring_info r{};
	if (ops->get_ring_info(p.name, p.qid, &r) != 0)
		return -EIO;

	rte_tel_data_start_dict(d);
	add_head(d, p, type);
	rte_tel_data_add_dict_int(d, "vid", r.vid);
	rte_tel_data_add_dict_int(d, "qid", r.qid);
	rte_tel_data_add_dict_int(d, "local_id", r.local_id);
	rte_tel_data_add_dict_string(d, "ring", field_string(r.name, sizeof(r.name)).c_str());
	rte_tel_data_add_dict_int(d, "flags", r.flags);
	rte_tel_data_add_dict_u64(d, "size", r.size);
	rte_tel_data_add_dict_u64(d, "capacity", r.capacity);
	rte_tel_data_add_dict_u64(d, "ct", r.ct);
	rte_tel_data_add_dict_u64(d, "ch", r.ch);
	rte_tel_data_add_dict_u64(d, "pt", r.pt);
	rte_tel_data_add_dict_u64(d, "ph", r.ph);
	rte_tel_data_add_dict_u64(d, "used", r.used);
	rte_tel_data_add_dict_u64(d, "avail", r.avail);
	return 0;
}

int zorv1_diag_tel_cp_stats(const char *, const char *params, struct rte_tel_data *d)
{
	const auto *base = reinterpret_cast<const unsigned char *>(&g_dpdk_cp_stat);

	if (params != nullptr && params[0] != '\0')
		return -EINVAL;

	rte_tel_data_start_dict(d);
	for (const cp_counter &c : cp_counters) {
		/* Written by other threads without a lock; read each word once. */
		const auto *word = reinterpret_cast<const uint32_t *>(base + c.offset);
		rte_tel_data_add_dict_u64(d, c.name, __atomic_load_n(word, __ATOMIC_RELAXED));
	}
	/* The card's own counters, over every port, after the driver's. */
	rte_tel_data_add_dict_u64(d, "rx_mtu_drops", zorv_fw_mtu_drops_total(0));
	rte_tel_data_add_dict_u64(d, "tx_mtu_drops", zorv_fw_mtu_drops_total(1));
	rte_tel_data_add_dict_u64(d, "peers_refused", zorv_card_peers_refused_total());
	rte_tel_data_add_dict_u64(d, "peers_cut", zorv_card_peers_cut_total());
	struct zorv_card_rx_stats rx;
	zorv_card_get_rx_stats(&rx);
	rte_tel_data_add_dict_u64(d, "rx_csum_completed", rx.csum_completed);
	rte_tel_data_add_dict_u64(d, "rx_gso_frames", rx.gso_frames);
	rte_tel_data_add_dict_u64(d, "rx_gso_segments", rx.gso_segments);
	rte_tel_data_add_dict_u64(d, "rx_offload_bad", rx.offload_bad);
	rte_tel_data_add_dict_u64(d, "rx_offload_nombuf", rx.nombuf);
	rte_tel_data_add_dict_u64(d, "rx_ring_full", rx.ring_full);
	return 0;
}

int zorv1_diag_tel_card(const char *, const char *params, struct rte_tel_data *d)
{
	port_params p;
	char iface[SOCK_NAME_MAX] = "";
	uint16_t port_id = 0;
	uint16_t vport = 0;
	bool found = false;

	if (!parse_params(params, false, p))
		return -EINVAL;
	/* What the port's record says, read while the port cannot be closed. */
	zorv1_dev_mutex_lock();
	for (int slot = 0; slot < ZORV1_DEV_MAX && !found; slot++) {
		struct rte_eth_dev *dev = zorv1_dev_get_ethdev_internal(slot);
		if (dev == nullptr || dev->data == nullptr || strcmp(dev->data->name, p.name) != 0)
			continue;
		auto *in = static_cast<const struct zorv1_internal *>(dev->data->dev_private);
		if (in == nullptr || in->iface_name == nullptr)
			break;
		snprintf(iface, sizeof(iface), "%s", in->iface_name);
		port_id = dev->data->port_id;
		vport = static_cast<uint16_t>(in->comm.flow_data.priv_port);
		found = true;
	}
	zorv1_dev_mutex_unlock();
	if (!found)
		return -EINVAL;

	char path[SOCK_NAME_MAX] = "";
	zorv_card_socket_path(iface, path, sizeof(path));
	rte_tel_data_start_dict(d);
	rte_tel_data_add_dict_string(d, "name", p.name);
	rte_tel_data_add_dict_u64(d, "portid", port_id);
	rte_tel_data_add_dict_string(d, "iface", iface);
	rte_tel_data_add_dict_string(d, "socket", path);
	rte_tel_data_add_dict_u64(d, "sfi", zorv_card_iface_sfi(iface));
	rte_tel_data_add_dict_int(d, "vid", zorv_card_iface_vid(iface));
	rte_tel_data_add_dict_u64(d, "peers_refused", zorv_card_iface_peers_refused(iface));
	rte_tel_data_add_dict_u64(d, "peers_cut", zorv_card_iface_peers_cut(iface));
	rte_tel_data_add_dict_u64(d, "vport", vport);
	/* 0: no MTU set on the virtual port, frames of any length pass. */
	rte_tel_data_add_dict_u64(d, "mtu", zorv_fw_get_vport_mtu(vport));
	rte_tel_data_add_dict_u64(d, "mtu_min", ZORV_FW_MTU_MIN);
	rte_tel_data_add_dict_u64(d, "mtu_max", ZORV_FW_MTU_MAX);
	rte_tel_data_add_dict_u64(d, "rx_mtu_drops", zorv_fw_get_mtu_drops(vport));
	rte_tel_data_add_dict_u64(d, "tx_mtu_drops", zorv_fw_get_tx_mtu_drops(vport));
	return 0;
}

} // extern "C"
