/* SPDX-License-Identifier: BSD-3-Clause
 * Capture of DPDK's log stream in tests.
 */
#include "zorv_test_log.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include <rte_log.h>

namespace zorv_test {

namespace {

constexpr const char kPrefix[] = "[offload_smartnic] ";

std::vector<std::string> SplitLines(const std::string &text)
{
	std::vector<std::string> lines;
	size_t pos = 0;
	while (pos < text.size()) {
		size_t nl = text.find('\n', pos);
		if (nl == std::string::npos) {
			lines.push_back(text.substr(pos));
			break;
		}
		lines.push_back(text.substr(pos, nl - pos + 1));
		pos = nl + 1;
	}
	return lines;
}

} // namespace

LogCapture::LogCapture()
{
	const char *echo = std::getenv("ZORV_TEST_LOG_ECHO");
	echo_ = echo != nullptr && echo[0] != '\0' && echo[0] != '0';
	saved_global_ = rte_log_get_global_level();

	cookie_io_functions_t io = {};
	io.write = &LogCapture::Write;
	stream_ = fopencookie(this, "w", io);
	if (stream_ == nullptr) {
		ADD_FAILURE() << "fopencookie failed: " << std::strerror(errno);
		return;
	}
	/* Fully buffered: rte_log() flushes once per message, so each message
	 * reaches Write() whole, while its level is still the current one. */
	setvbuf(stream_, nullptr, _IOFBF, 1 << 16);
	previous_ = rte_log_get_stream();
	rte_openlog_stream(stream_);
}

LogCapture::LogCapture(int logtype, uint32_t level) : LogCapture()
{
	SetLevel(logtype, level);
}

LogCapture::~LogCapture()
{
	for (auto &[type, level] : saved_levels_)
		rte_log_set_level(type, level);
	if (global_changed_)
		rte_log_set_global_level(saved_global_);
	if (stream_ != nullptr) {
		rte_openlog_stream(previous_);
		fclose(stream_);
	}
}

void LogCapture::SetLevel(int logtype, uint32_t level)
{
	int old = rte_log_get_level(logtype);
	if (old < 0) {
		ADD_FAILURE() << "log type " << logtype << " is not registered";
		return;
	}
	saved_levels_.try_emplace(logtype, static_cast<uint32_t>(old));
	if (rte_log_set_level(logtype, level) != 0)
		ADD_FAILURE() << "rte_log_set_level(" << logtype << ", " << level << ") failed";
	if (rte_log_get_global_level() < level) {
		global_changed_ = true;
		rte_log_set_global_level(level);
	}
}

ssize_t LogCapture::Write(void *cookie, const char *buf, size_t size)
{
	auto *self = static_cast<LogCapture *>(cookie);
	Entry e{rte_log_cur_msg_loglevel(), rte_log_cur_msg_logtype(), std::string(buf, size)};
	if (self->echo_ && self->previous_ != nullptr) {
		fwrite(buf, 1, size, self->previous_);
		fflush(self->previous_);
	}
	std::lock_guard<std::mutex> lock(self->mu_);
	self->entries_.push_back(std::move(e));
	return static_cast<ssize_t>(size);
}

std::string LogCapture::Text() const
{
	if (stream_ != nullptr)
		fflush(stream_);
	std::lock_guard<std::mutex> lock(mu_);
	std::string text;
	for (auto &e : entries_)
		text += e.text;
	return text;
}

std::vector<std::string> LogCapture::Lines() const
{
	return SplitLines(Text());
}

std::vector<LogCapture::Entry> LogCapture::Entries() const
{
	if (stream_ != nullptr)
		fflush(stream_);
	std::lock_guard<std::mutex> lock(mu_);
	return entries_;
}

void LogCapture::Clear()
{
	if (stream_ != nullptr)
		fflush(stream_);
	std::lock_guard<std::mutex> lock(mu_);
	entries_.clear();
}

bool MatchesZorvLine(const std::string &line, const std::string &func, const std::string &msg)
{
	const std::string head = std::string(kPrefix) + func + "-";
	if (line.compare(0, head.size(), head) != 0)
		return false;
	size_t pos = head.size();
	size_t digits = 0;
	while (pos < line.size() && std::isdigit(static_cast<unsigned char>(line[pos]))) {
		++pos;
		++digits;
	}
	if (digits == 0)
		return false;
	if (line.compare(pos, 2, ": ") != 0)
		return false;
	return line.compare(pos + 2, std::string::npos, msg) == 0;
}

int CountLines(const LogCapture &cap, const std::string &func, const std::string &msg)
{
	int n = 0;
	for (auto &line : cap.Lines())
		n += MatchesZorvLine(line, func, msg) ? 1 : 0;
	return n;
}

int CountExactLines(const LogCapture &cap, const std::string &line)
{
	int n = 0;
	for (auto &l : cap.Lines())
		n += l == line ? 1 : 0;
	return n;
}

::testing::AssertionResult HasLogLine(const LogCapture &cap, const std::string &func,
				      const std::string &msg)
{
	if (CountLines(cap, func, msg) > 0)
		return ::testing::AssertionSuccess();
	return ::testing::AssertionFailure()
	       << "no line \"" << kPrefix << func << "-<line>: " << msg << "\" in the log:\n"
	       << cap.Text();
}

::testing::AssertionResult HasLogLineAt(const LogCapture &cap, int level, const std::string &func,
					const std::string &msg)
{
	for (auto &e : cap.Entries()) {
		if (e.level != level)
			continue;
		for (auto &line : SplitLines(e.text)) {
			if (MatchesZorvLine(line, func, msg))
				return ::testing::AssertionSuccess();
		}
	}
	std::string dump;
	for (auto &e : cap.Entries())
		dump += "<level " + std::to_string(e.level) + "> " + e.text;
	return ::testing::AssertionFailure()
	       << "no line \"" << kPrefix << func << "-<line>: " << msg << "\" at level "
	       << level << " in the log:\n"
	       << dump;
}

} // namespace zorv_test
