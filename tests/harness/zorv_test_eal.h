/* SPDX-License-Identifier: BSD-3-Clause
 * EAL start-up for the unit-test binaries.
 *
 * Every binary that links zorv_test_harness gets main() from it: main()
 * initialises GoogleTest/GoogleMock and registers EalEnvironment, which
 * starts EAL once for the whole binary (EAL cannot be started twice in a
 * process) and cleans it up after the last test. Test files contain only
 * TEST/TEST_F.
 *
 * EAL arguments used:
 *   <binary> -l 0-1 --no-huge --no-pci -m 256 --no-telemetry
 *            --file-prefix=<binary name>_<pid> --log-level=lib.eal:warning
 * followed by
 *   - the words of the environment variable ZORV_TEST_EAL_ARGS
 *     (split on blanks), then
 *   - whatever the binary adds through the weak hook below.
 *
 * A binary that needs extra EAL arguments defines, in any of its sources:
 *
 *   std::vector<std::string> zorv_test::ExtraEalArgs()
 *   {
 *           return {"--vdev=net_null0"};
 *   }
 *
 * A binary that passes "--telemetry" (either way) runs with telemetry on.
 *
 * Per-test hooks: OnEachTestStart() registers a callback that runs before
 * every test of the binary (the fakes use it to reset their recorder), after
 * EAL is up.
 */
#ifndef ZORV_TEST_EAL_H
#define ZORV_TEST_EAL_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace zorv_test {

/* Optional, defined by a test binary that needs more EAL arguments. */
[[gnu::weak]] std::vector<std::string> ExtraEalArgs();

/* The argument vector EalEnvironment passes to rte_eal_init (argv[0] first). */
std::vector<std::string> EalArgs(const std::string &argv0);

/* True once rte_eal_init succeeded in this process. */
bool EalReady();

/* Run cb before every test (registration is allowed at static-init time). */
void OnEachTestStart(std::function<void()> cb);

class EalEnvironment : public ::testing::Environment {
public:
	explicit EalEnvironment(std::string argv0) : argv0_(std::move(argv0)) {}
	void SetUp() override;
	void TearDown() override;

private:
	std::string argv0_;
	std::string runtime_dir_;
};

} // namespace zorv_test

#endif /* ZORV_TEST_EAL_H */
