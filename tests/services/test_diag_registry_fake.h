/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics tables of the registry's tests: one table per device type,
 * answering from ports the test describes, and recording every call and
 * how the record handed to it looked.
 */
#ifndef TEST_DIAG_REGISTRY_FAKE_H
#define TEST_DIAG_REGISTRY_FAKE_H

#include <map>
#include <string>
#include <vector>

#include "zorv1_diag.h"

namespace diag_fake {

/* A port as one device type's table knows it. */
struct Port {
	int type = ZORV1_DIAG_DPU_VDEV;
	int qnum = 0;
	union zorv1_port_info_data info {};
	/* Elements by qid; a qid that is missing appends an element with valid 0. */
	std::map<int, union zorv1_diag_queue_info_data> qinfo;
	std::map<int, union zorv1_diag_stats_data> stats;
	/* Rings by qid; a missing qid fails. */
	std::map<int, struct zorv1_vnet_diag_ring_info> rings;
};

struct Call {
	std::string op; /* qnum, port_info, queue_info, queue_stats, ring_info */
	int type;
	std::string name;
	int qid; /* -1 for the operations without one */
};

/* The ports, keyed by name, and what the tables saw. */
struct World {
	std::map<std::string, Port> ports;
	std::vector<Call> calls;
	/* Problems found in the records the registry handed over. */
	std::vector<std::string> record_problems;
};

World &TheWorld();
/* Forget ports and calls. */
void Reset();

/* Every slot filled (get_pci_desc left empty, as a virtual port does). */
const struct zorv1_diag_ops *FullTable(enum zorv1_diag_type type);
/* The same without get_qnum_by_name. */
const struct zorv1_diag_ops *TableWithoutQnum(enum zorv1_diag_type type);

/* Installs tables for a scope and takes them out again. */
class Installed {
public:
	Installed(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops);
	~Installed();
	Installed(const Installed &) = delete;
	Installed &operator=(const Installed &) = delete;

private:
	enum zorv1_diag_type type_;
	const struct zorv1_diag_ops *ops_;
	const struct zorv1_diag_ops *previous_;
};

} // namespace diag_fake

#endif /* TEST_DIAG_REGISTRY_FAKE_H */
