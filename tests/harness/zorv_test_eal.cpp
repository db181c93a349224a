/* SPDX-License-Identifier: BSD-3-Clause
 * EAL start-up once per test binary, and main().
 */
#include "zorv_test_eal.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

#include <gmock/gmock.h>

#include <rte_eal.h>
#include <rte_errno.h>

namespace zorv_test {

namespace {

bool g_eal_ready;

std::vector<std::function<void()>> &PerTestHooks()
{
	static std::vector<std::function<void()>> hooks;
	return hooks;
}

/* Runs the registered per-test hooks before each test's fixture is built. */
class PerTestListener : public ::testing::EmptyTestEventListener {
	void OnTestStart(const ::testing::TestInfo &) override
	{
		if (!g_eal_ready)
			return;
		for (auto &cb : PerTestHooks())
			cb();
	}
};

std::string PrefixFor(const std::string &argv0)
{
	std::string base = std::filesystem::path(argv0).filename().string();
	if (base.empty())
		base = "zorv_test";
	/* The prefix ends up in a unix socket path: keep it short. */
	if (base.size() > 40)
		base.resize(40);
	return base + "_" + std::to_string(getpid());
}

} // namespace

std::vector<std::string> EalArgs(const std::string &argv0)
{
	std::vector<std::string> args = {
		argv0,
		"-l", "0-1",
		"--no-huge",
		"--no-pci",
		"-m", "256",
		"--no-telemetry",
		"--file-prefix=" + PrefixFor(argv0),
		"--log-level=lib.eal:warning",
	};
	if (const char *env = std::getenv("ZORV_TEST_EAL_ARGS")) {
		std::istringstream words(env);
		std::string w;
		while (words >> w)
			args.push_back(w);
	}
	if (ExtraEalArgs != nullptr) {
		for (auto &a : ExtraEalArgs())
			args.push_back(a);
	}
	/*
	 * A later --telemetry does not undo --no-telemetry, so a binary that asks
	 * for telemetry gets the default argument taken out instead.
	 */
	if (std::find(args.begin() + 1, args.end(), "--telemetry") != args.end()) {
		std::erase(args, std::string("--no-telemetry"));
		std::erase(args, std::string("--telemetry"));
	}
	return args;
}

bool EalReady()
{
	return g_eal_ready;
}

void OnEachTestStart(std::function<void()> cb)
{
	PerTestHooks().push_back(std::move(cb));
}

void EalEnvironment::SetUp()
{
	std::vector<std::string> args = EalArgs(argv0_);
	std::vector<char *> argv;
	for (auto &a : args)
		argv.push_back(a.data());
	argv.push_back(nullptr);

	int ret = rte_eal_init(static_cast<int>(args.size()), argv.data());
	if (ret < 0) {
		std::string line;
		for (auto &a : args)
			line += a + " ";
		GTEST_FAIL() << "rte_eal_init failed: " << rte_strerror(rte_errno)
			     << "\n  args: " << line;
	}
	runtime_dir_ = rte_eal_get_runtime_dir();
	g_eal_ready = true;
}

void EalEnvironment::TearDown()
{
	if (!g_eal_ready)
		return;
	g_eal_ready = false;
	rte_eal_cleanup();
	/* The prefix carries our pid, so this directory is ours alone. */
	if (!runtime_dir_.empty() && runtime_dir_.find(std::to_string(getpid())) != std::string::npos) {
		std::error_code ec;
		std::filesystem::remove_all(runtime_dir_, ec);
	}
}

} // namespace zorv_test

int main(int argc, char **argv)
{
	::testing::InitGoogleMock(&argc, argv);
	::testing::AddGlobalTestEnvironment(new zorv_test::EalEnvironment(argv[0]));
	::testing::UnitTest::GetInstance()->listeners().Append(new zorv_test::PerTestListener());
	return RUN_ALL_TESTS();
}
