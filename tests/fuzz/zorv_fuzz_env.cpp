/* SPDX-License-Identifier: BSD-3-Clause
 * EAL start-up, heap accounting and fake checks for the fuzz targets.
 */
#include "zorv_fuzz_env.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_log.h>
#include <rte_malloc.h>
#include <rte_memory.h>

#include "zorv_fakes.h"
#include "zorv_test_eal.h"

/*
 * The fakes register their reset with the unit-test harness, which a fuzz
 * target does not link (it brings its own main()). Keep the hooks here; the
 * targets reset the fakes themselves where they need to.
 */
namespace zorv_test {

void OnEachTestStart(std::function<void()> cb)
{
	static std::vector<std::function<void()>> hooks;
	hooks.push_back(std::move(cb));
}

} // namespace zorv_test

namespace zorv_fuzz {

namespace {

std::string g_runtime_dir;

void RemoveRuntimeDir()
{
	/* The prefix carries our pid: the directory is ours alone. */
	if (!g_runtime_dir.empty() &&
	    g_runtime_dir.find(std::to_string(getpid())) != std::string::npos) {
		std::error_code ec;
		std::filesystem::remove_all(g_runtime_dir, ec);
	}
}

} // namespace

void Fail(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	std::fprintf(stderr, "zorv_fuzz: ");
	std::vfprintf(stderr, fmt, ap);
	std::fprintf(stderr, "\n");
	va_end(ap);
	std::abort();
}

void StartEal(const char *tag)
{
	std::string prefix = std::string("--file-prefix=zorv_fz_") + tag + "_" +
			     std::to_string(getpid());
	std::vector<std::string> args = {
		"zorv_fuzz", "-l", "0", "--no-huge", "--no-pci", "-m", "128",
		"--no-telemetry", prefix, "--log-level=lib.eal:error",
	};
	std::vector<char *> argv;
	for (auto &a : args)
		argv.push_back(a.data());
	argv.push_back(nullptr);

	if (rte_eal_init(static_cast<int>(args.size()), argv.data()) < 0)
		Fail("rte_eal_init failed: %s", rte_strerror(rte_errno));
	g_runtime_dir = rte_eal_get_runtime_dir();
	std::atexit(RemoveRuntimeDir);

	const char *verbose = std::getenv("ZORV_FUZZ_LOG");
	if (verbose == nullptr || std::string(verbose) != "1") {
		/* Refused arguments are logged at WARNING/ERR: thousands per second. */
		rte_log_set_global_level(RTE_LOG_CRIT);
		rte_log_set_level_pattern("*", RTE_LOG_CRIT);
	}
}

uint64_t HeapAllocated()
{
	uint64_t total = 0;
	for (unsigned int i = 0; i < rte_socket_count(); i++) {
		struct rte_malloc_socket_stats st = {};
		if (rte_malloc_get_socket_stats(rte_socket_id_by_idx(i), &st) == 0)
			total += st.heap_allocsz_bytes;
	}
	return total;
}

void CheckHeap(uint64_t baseline, const char *what)
{
	uint64_t now = HeapAllocated();
	if (now != baseline)
		Fail("%s: the DPDK heap holds %llu bytes, %lld more than before", what,
		     static_cast<unsigned long long>(now),
		     static_cast<long long>(now) - static_cast<long long>(baseline));
}

void CheckFakes(const char *what)
{
	const ::testing::TestResult &r = ::testing::UnitTest::GetInstance()->ad_hoc_test_result();
	if (r.Failed()) {
		for (int i = 0; i < r.total_part_count(); i++) {
			const ::testing::TestPartResult &p = r.GetTestPartResult(i);
			if (p.failed())
				std::fprintf(stderr, "zorv_fuzz: fake reported: %s\n", p.message());
		}
		Fail("%s: the fake services reported a failure", what);
	}
	if (zorv_fake::fakes().MutexHeldByAnyone())
		Fail("%s: the device manager mutex is still held", what);
}

} // namespace zorv_fuzz
