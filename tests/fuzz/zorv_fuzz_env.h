/* SPDX-License-Identifier: BSD-3-Clause
 * What every fuzz target of the zorv1 family shares: EAL started once per
 * process, the DPDK heap's allocated bytes (LeakSanitizer does not see
 * rte_malloc), and a check that the fake services reported no misuse.
 *
 * A fuzz target links the driver objects, the fakes (tests/fakes) and this
 * file; libFuzzer supplies main(). Failures abort() so that libFuzzer
 * records the input that caused them.
 */
#ifndef ZORV_FUZZ_ENV_H
#define ZORV_FUZZ_ENV_H

#include <cstddef>
#include <cstdint>

namespace zorv_fuzz {

/*
 * Start EAL: one lcore, no hugepages, no PCI, no telemetry, a file prefix
 * of its own (zorv_fz_<tag>_<pid>, removed at exit) and the log quiet
 * (critical only; ZORV_FUZZ_LOG=1 keeps the default levels). Aborts when
 * EAL cannot start.
 */
void StartEal(const char *tag);

/* Bytes allocated from the DPDK heap, all sockets together. */
uint64_t HeapAllocated();

/* Abort, with the byte counts, when the DPDK heap holds more or less than `baseline`. */
void CheckHeap(uint64_t baseline, const char *what);

/*
 * Abort when the fakes added a failure (misuse of the device manager's
 * mutex, a ring destroyed twice, ...) or left the mutex held.
 */
void CheckFakes(const char *what);

/* Print a message and abort: an oracle of a target found a wrong result. */
[[noreturn]] void Fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace zorv_fuzz

#endif /* ZORV_FUZZ_ENV_H */
