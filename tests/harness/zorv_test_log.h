/* SPDX-License-Identifier: BSD-3-Clause
 * Capture of DPDK's log stream in tests.
 *
 *   {
 *           zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
 *           zorv1_set_internal_sfi(1, 12);
 *           EXPECT_TRUE(zorv_test::HasLogLine(cap, "zorv1_set_internal_sfi",
 *                                             "set_internal_sfi,vid=1,sfi=12\n"));
 *   } // stream and level restored here
 *
 * While a LogCapture lives, everything rte_log() writes goes into it instead
 * of the normal log stream (set ZORV_TEST_LOG_ECHO=1 to also copy it to the
 * previous stream). DPDK 22.11 writes the formatted message as is: no level
 * or type prefix is added, so a line of the family reads exactly
 *   "[offload_smartnic] <func>-<line>: <message>"
 * Each message is kept with the level and log type it was logged at.
 *
 * Levels set through the capture (constructor or SetLevel) are restored when
 * the capture ends; the global level is raised as needed and restored too.
 * Captures nest. Threads that log must have finished before the capture ends.
 */
#ifndef ZORV_TEST_LOG_H
#define ZORV_TEST_LOG_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace zorv_test {

class LogCapture {
public:
	/* One message as rte_log() handed it to the stream. */
	struct Entry {
		int level;   /* RTE_LOG_ERR ... RTE_LOG_DEBUG */
		int logtype; /* the log type id */
		std::string text;
	};

	LogCapture();
	/* Capture and set logtype's level for the scope. */
	LogCapture(int logtype, uint32_t level);
	~LogCapture();
	LogCapture(const LogCapture &) = delete;
	LogCapture &operator=(const LogCapture &) = delete;

	/* Set a log type's level; the old one comes back at destruction. */
	void SetLevel(int logtype, uint32_t level);

	/* Everything captured so far, as one text. */
	std::string Text() const;
	/* The captured text split into lines; each keeps its '\n'. */
	std::vector<std::string> Lines() const;
	/* The messages with their level and type. */
	std::vector<Entry> Entries() const;
	/* Forget what was captured so far. */
	void Clear();

private:
	static ssize_t Write(void *cookie, const char *buf, size_t size);

	mutable std::mutex mu_;
	std::vector<Entry> entries_;
	FILE *stream_ = nullptr;
	FILE *previous_ = nullptr;
	bool echo_ = false;
	std::map<int, uint32_t> saved_levels_;
	uint32_t saved_global_;
	bool global_changed_ = false;
};

/*
 * True when `line` is "[offload_smartnic] <func>-<digits>: <msg>" exactly;
 * msg includes its trailing "\n" if the line has one.
 */
bool MatchesZorvLine(const std::string &line, const std::string &func, const std::string &msg);

/* The capture has such a line. On failure the message shows the capture. */
::testing::AssertionResult HasLogLine(const LogCapture &cap, const std::string &func,
				      const std::string &msg);
/* The same, and the message holding the line was logged at `level`. */
::testing::AssertionResult HasLogLineAt(const LogCapture &cap, int level, const std::string &func,
					const std::string &msg);
/* Number of captured lines matching func/msg as above. */
int CountLines(const LogCapture &cap, const std::string &func, const std::string &msg);
/* Number of captured lines equal to `line` (with its '\n'). */
int CountExactLines(const LogCapture &cap, const std::string &line);

} // namespace zorv_test

#endif /* ZORV_TEST_LOG_H */
