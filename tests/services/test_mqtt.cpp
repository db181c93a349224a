/* SPDX-License-Identifier: BSD-3-Clause
 * Agent reports over MQTT, against a real mosquitto broker started by the
 * test on a free loopback port, with a libmosquitto subscriber.
 */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>
#include <mosquitto.h>

#include "zorv1_logs.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv_mqtt_internal.h"
#include "zorv_test_harness.h"

namespace {

/* The test's own clients need the library set up. */
[[maybe_unused]] const int g_mosquitto_ready = mosquitto_lib_init();

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/* A report that is not delivered must come back this fast. */
constexpr auto kFastFail = milliseconds(50);

int FreeLoopbackPort()
{
	int fd = socket(AF_INET, SOCK_STREAM, 0);
	if (fd < 0)
		return -1;
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	a.sin_port = 0;
	socklen_t len = sizeof(a);
	int port = -1;
	if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 &&
	    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
		port = ntohs(a.sin_port);
	close(fd);
	return port;
}

bool PortAccepts(int port)
{
	int fd = socket(AF_INET, SOCK_STREAM, 0);
	if (fd < 0)
		return false;
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	a.sin_port = htons(static_cast<uint16_t>(port));
	bool ok = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0;
	close(fd);
	return ok;
}

/* A mosquitto broker child process listening on 127.0.0.1:<port>. */
class Broker {
public:
	/* log: file for the broker's verbose log, or empty for none. */
	explicit Broker(int port, std::string log = "") : port_(port), log_(std::move(log)) {}
	~Broker() { Stop(); }
	Broker(const Broker &) = delete;
	Broker &operator=(const Broker &) = delete;

	::testing::AssertionResult Start()
	{
		const char *bin = access("/usr/sbin/mosquitto", X_OK) == 0 ? "/usr/sbin/mosquitto"
									     : "mosquitto";
		std::string port = std::to_string(port_);
		pid_ = fork();
		if (pid_ < 0)
			return ::testing::AssertionFailure() << "fork: " << strerror(errno);
		if (pid_ == 0) {
			int out = log_.empty() ? open("/dev/null", O_RDWR)
					       : open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
			if (out >= 0) {
				dup2(out, STDOUT_FILENO);
				dup2(out, STDERR_FILENO);
			}
			/* Without a configuration file mosquitto listens on loopback only. */
			if (log_.empty())
				execlp(bin, bin, "-p", port.c_str(), static_cast<char *>(nullptr));
			else
				execlp(bin, bin, "-v", "-p", port.c_str(), static_cast<char *>(nullptr));
			_exit(127);
		}
		auto deadline = Clock::now() + std::chrono::seconds(5);
		while (Clock::now() < deadline) {
			int status;
			if (waitpid(pid_, &status, WNOHANG) == pid_) {
				pid_ = -1;
				return ::testing::AssertionFailure()
				       << "mosquitto exited at start, status " << status;
			}
			if (PortAccepts(port_))
				return ::testing::AssertionSuccess();
			std::this_thread::sleep_for(milliseconds(20));
		}
		Stop();
		return ::testing::AssertionFailure() << "mosquitto did not listen on " << port_;
	}

	void Stop()
	{
		if (pid_ <= 0)
			return;
		kill(pid_, SIGTERM);
		auto deadline = Clock::now() + std::chrono::seconds(3);
		int status;
		while (waitpid(pid_, &status, WNOHANG) == 0) {
			if (Clock::now() >= deadline) {
				kill(pid_, SIGKILL);
				waitpid(pid_, &status, 0);
				break;
			}
			std::this_thread::sleep_for(milliseconds(10));
		}
		pid_ = -1;
	}

	int port() const { return port_; }

private:
	int port_;
	std::string log_;
	pid_t pid_ = -1;
};

/* A subscriber that keeps every message of one topic. */
class Subscriber {
public:
	Subscriber() = default;
	~Subscriber()
	{
		if (mosq_ == nullptr)
			return;
		mosquitto_disconnect(mosq_);
		mosquitto_loop_stop(mosq_, false);
		mosquitto_destroy(mosq_);
	}
	Subscriber(const Subscriber &) = delete;
	Subscriber &operator=(const Subscriber &) = delete;

	::testing::AssertionResult Connect(int port, const std::string &topic)
	{
		mosq_ = mosquitto_new(nullptr, true, this);
		if (mosq_ == nullptr)
			return ::testing::AssertionFailure() << "mosquitto_new";
		mosquitto_message_callback_set(mosq_, OnMessage);
		mosquitto_subscribe_callback_set(mosq_, OnSubscribe);
		int rc = mosquitto_connect(mosq_, "127.0.0.1", port, 10);
		if (rc != MOSQ_ERR_SUCCESS)
			return ::testing::AssertionFailure() << "connect: " << mosquitto_strerror(rc);
		rc = mosquitto_subscribe(mosq_, nullptr, topic.c_str(), 0);
		if (rc != MOSQ_ERR_SUCCESS)
			return ::testing::AssertionFailure() << "subscribe: " << mosquitto_strerror(rc);
		rc = mosquitto_loop_start(mosq_);
		if (rc != MOSQ_ERR_SUCCESS)
			return ::testing::AssertionFailure() << "loop_start: " << mosquitto_strerror(rc);
		std::unique_lock<std::mutex> lk(mu_);
		if (!cv_.wait_for(lk, std::chrono::seconds(5), [this] { return subscribed_; }))
			return ::testing::AssertionFailure() << "no SUBACK";
		return ::testing::AssertionSuccess();
	}

	std::optional<std::string> Next(milliseconds timeout = milliseconds(3000))
	{
		std::unique_lock<std::mutex> lk(mu_);
		if (!cv_.wait_for(lk, timeout, [this] { return !messages_.empty(); }))
			return std::nullopt;
		std::string m = std::move(messages_.front());
		messages_.pop_front();
		return m;
	}

	size_t Pending()
	{
		std::lock_guard<std::mutex> lk(mu_);
		return messages_.size();
	}

private:
	static void OnMessage(struct mosquitto *, void *obj, const struct mosquitto_message *msg)
	{
		auto *self = static_cast<Subscriber *>(obj);
		{
			std::lock_guard<std::mutex> lk(self->mu_);
			self->messages_.emplace_back(static_cast<const char *>(msg->payload),
						     static_cast<size_t>(msg->payloadlen));
		}
		self->cv_.notify_all();
	}
	static void OnSubscribe(struct mosquitto *, void *obj, int, int, const int *)
	{
		auto *self = static_cast<Subscriber *>(obj);
		{
			std::lock_guard<std::mutex> lk(self->mu_);
			self->subscribed_ = true;
		}
		self->cv_.notify_all();
	}

	struct mosquitto *mosq_ = nullptr;
	std::mutex mu_;
	std::condition_variable cv_;
	std::deque<std::string> messages_;
	bool subscribed_ = false;
};

struct JsonDeleter {
	void operator()(json_t *j) const { json_decref(j); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

JsonPtr Parse(const std::string &text)
{
	json_error_t err;
	JsonPtr j(json_loadb(text.data(), text.size(), 0, &err));
	EXPECT_NE(j, nullptr) << "not JSON (" << err.text << "): " << text;
	return j;
}

std::string HostName()
{
	char host[HOST_NAME_MAX + 1] = {};
	gethostname(host, sizeof(host) - 1);
	return host;
}

/* "YYYY-MM-DDTHH:MM:SS.mmmZ" */
bool IsIsoUtcMillis(const std::string &s)
{
	const std::string shape = "dddd-dd-ddTdd:dd:dd.dddZ";
	if (s.size() != shape.size())
		return false;
	for (size_t i = 0; i < s.size(); i++) {
		if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(s[i])) : s[i] != shape[i])
			return false;
	}
	return true;
}

/* Checks every field of a report against what was sent. */
void ExpectReport(json_t *j, int kind, const char *kind_name, int error, const char *error_name,
		  const char *device, const char *iface, int queues)
{
	ASSERT_TRUE(json_is_object(j));
	EXPECT_EQ(json_object_size(j), 9u) << "unexpected members: " << json_dumps(j, 0);

	json_t *v = json_object_get(j, "kind");
	ASSERT_TRUE(json_is_integer(v));
	EXPECT_EQ(json_integer_value(v), kind);
	v = json_object_get(j, "kind_name");
	if (kind_name == nullptr) {
		EXPECT_TRUE(json_is_null(v));
	} else {
		ASSERT_TRUE(json_is_string(v));
		EXPECT_STREQ(json_string_value(v), kind_name);
	}
	v = json_object_get(j, "error");
	ASSERT_TRUE(json_is_integer(v));
	EXPECT_EQ(json_integer_value(v), error);
	v = json_object_get(j, "error_name");
	if (error_name == nullptr) {
		EXPECT_TRUE(json_is_null(v));
	} else {
		ASSERT_TRUE(json_is_string(v));
		EXPECT_STREQ(json_string_value(v), error_name);
	}
	v = json_object_get(j, "device");
	if (device == nullptr) {
		EXPECT_TRUE(json_is_null(v));
	} else {
		ASSERT_TRUE(json_is_string(v));
		EXPECT_EQ(std::string(json_string_value(v)), device);
	}
	v = json_object_get(j, "iface");
	if (iface == nullptr) {
		EXPECT_TRUE(json_is_null(v));
	} else {
		ASSERT_TRUE(json_is_string(v));
		EXPECT_EQ(std::string(json_string_value(v)), iface);
	}
	v = json_object_get(j, "queues");
	ASSERT_TRUE(json_is_integer(v));
	EXPECT_EQ(json_integer_value(v), queues);
	v = json_object_get(j, "host");
	ASSERT_TRUE(json_is_string(v));
	EXPECT_EQ(json_string_value(v), HostName());

	v = json_object_get(j, "time");
	ASSERT_TRUE(json_is_string(v));
	std::string when = json_string_value(v);
	ASSERT_TRUE(IsIsoUtcMillis(when)) << when;
	struct tm tm = {};
	ASSERT_NE(strptime(when.c_str(), "%Y-%m-%dT%H:%M:%S", &tm), nullptr);
	time_t t = timegm(&tm);
	EXPECT_LE(std::llabs(static_cast<long long>(t - time(nullptr))), 5) << when;
}

/* Every test starts the agent afresh so that it reads its settings again. */
class MqttAgent : public ::testing::Test {
protected:
	void SetUp() override
	{
		zorv1_mqtt_shutdown();
		topic_ = "zorv1/test/" + std::to_string(getpid()) + "/" +
			 ::testing::UnitTest::GetInstance()->current_test_info()->name();
		setenv("ZORV1_MQTT_TOPIC", topic_.c_str(), 1);
	}
	void TearDown() override
	{
		auto t0 = Clock::now();
		zorv1_mqtt_shutdown();
		EXPECT_LT(Clock::now() - t0, milliseconds(1500)) << "shutdown hung";
		unsetenv("ZORV1_MQTT_BROKER");
		unsetenv("ZORV1_MQTT_TOPIC");
	}
	static void UseBroker(int port)
	{
		setenv("ZORV1_MQTT_BROKER", ("127.0.0.1:" + std::to_string(port)).c_str(), 1);
	}
	/* One report, timed. */
	static int TimedSend(Clock::duration &took, int kind = ZORV1_MSG_QUE_SETUP_ERR,
			     int err = ZORV1_ERR_CACHE_RING)
	{
		auto t0 = Clock::now();
		int rc = zorv1_mqtt_send_msg(kind, err, "net_zorv1_0", "ifc0", 2);
		took = Clock::now() - t0;
		return rc;
	}

	std::string topic_;
};

TEST(MqttReport, FormatCarriesEveryFieldAndEscapesStrings)
{
	const char *dev = "net_\"zorv1\"\\0\n\t\x01";
	const char *iface = "if c/0\xc3\xa9";
	char buf[1024];

	size_t n = zorv1_mqtt_format_report(buf, sizeof(buf), ZORV1_MSG_DEV_ADD_ERR,
					    ZORV1_ERR_DEV_PARSE, dev, iface, 1024);
	ASSERT_LT(n, sizeof(buf));
	EXPECT_EQ(strlen(buf), n);
	EXPECT_NE(strstr(buf, R"("device": "net_\"zorv1\"\\0\n\t\u0001")"), nullptr) << buf;
	JsonPtr j = Parse(buf);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), 3, "ZORV1_MSG_DEV_ADD_ERR", 1, "ZORV1_ERR_DEV_PARSE", dev, iface,
		     1024);
}

TEST(MqttReport, FormatUsesNullForMissingNamesAndUnnamedValues)
{
	char buf[1024];

	zorv1_mqtt_format_report(buf, sizeof(buf), 1, 99, nullptr, nullptr, 0);
	JsonPtr j = Parse(buf);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), 1, nullptr, 99, nullptr, nullptr, nullptr, 0);

	zorv1_mqtt_format_report(buf, sizeof(buf), ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL,
				 nullptr, "ifc9", 0);
	j = Parse(buf);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), 5, "ZORV1_MSG_DEV_VHOST_ERR", 10, "ZORV1_ERR_DEV_NULL", nullptr,
		     "ifc9", 0);
}

TEST(MqttReport, FormatCutsToTheBufferAndReportsTheFullLength)
{
	char big[1024];
	char small[16];

	size_t full = zorv1_mqtt_format_report(big, sizeof(big), 3, 1, "d", "i", 1);
	size_t n = zorv1_mqtt_format_report(small, sizeof(small), 3, 1, "d", "i", 1);
	EXPECT_EQ(n, full);
	EXPECT_EQ(strlen(small), sizeof(small) - 1);
	EXPECT_EQ(std::string(small), std::string(big).substr(0, sizeof(small) - 1));
}

TEST(MqttReport, EveryDefinedKindAndErrorHasItsName)
{
	EXPECT_STREQ(zorv1_mqtt_kind_name(ZORV1_MSG_DEV_NONE), "ZORV1_MSG_DEV_NONE");
	EXPECT_EQ(zorv1_mqtt_kind_name(1), nullptr);
	EXPECT_EQ(zorv1_mqtt_kind_name(2), nullptr);
	EXPECT_STREQ(zorv1_mqtt_kind_name(ZORV1_MSG_QUE_SETUP_ERR), "ZORV1_MSG_QUE_SETUP_ERR");
	EXPECT_STREQ(zorv1_mqtt_kind_name(ZORV1_MSG_DEV_END), "ZORV1_MSG_DEV_END");
	EXPECT_EQ(zorv1_mqtt_kind_name(11), nullptr);
	EXPECT_EQ(zorv1_mqtt_kind_name(-1), nullptr);
	EXPECT_STREQ(zorv1_mqtt_error_name(ZORV1_ERR_NONE), "ZORV1_ERR_NONE");
	EXPECT_STREQ(zorv1_mqtt_error_name(ZORV1_ERR_INTR_UPADTE), "ZORV1_ERR_INTR_UPADTE");
	EXPECT_STREQ(zorv1_mqtt_error_name(ZORV1_ERR_QUEUE_INIT), "ZORV1_ERR_QUEUE_INIT");
	EXPECT_EQ(zorv1_mqtt_error_name(15), nullptr);
}

TEST_F(MqttAgent, ReportWithoutBrokerFailsFastAndNeverBlocks)
{
	int port = FreeLoopbackPort();
	ASSERT_GT(port, 0);
	UseBroker(port);

	/*
	 * The first report may wait for the first connection attempt, but a
	 * refused connection ends that wait well before its bound.
	 */
	Clock::duration took;
	EXPECT_NE(TimedSend(took), 0);
	EXPECT_LT(took, milliseconds(ZORV1_MQTT_FIRST_WAIT_MS * 3 / 4));
	EXPECT_EQ(zorv1_mqtt_connected(), 0);

	for (int i = 0; i < 20; i++) {
		EXPECT_NE(TimedSend(took), 0);
		EXPECT_LT(took, kFastFail) << "report " << i;
	}
}

TEST_F(MqttAgent, FailedReportIsLoggedAtErr)
{
	int port = FreeLoopbackPort();
	ASSERT_GT(port, 0);
	UseBroker(port);
	Clock::duration took;
	EXPECT_NE(TimedSend(took), 0); /* starts the client */

	zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_MTU_SET, "net_zorv1_3", "ifc3",
				      1),
		  -ENOTCONN);
	const std::string lead = "Agent report not sent (Transport endpoint is not connected): ";
	int found = 0;
	for (const auto &e : cap.Entries()) {
		size_t at = e.text.find(lead);
		if (at == std::string::npos)
			continue;
		found++;
		EXPECT_EQ(e.level, RTE_LOG_ERR);
		EXPECT_TRUE(zorv_test::MatchesZorvLine(e.text, "zorv1_mqtt_send_msg",
						       e.text.substr(at)));
		std::string json = e.text.substr(at + lead.size());
		ASSERT_FALSE(json.empty());
		ASSERT_EQ(json.back(), '\n');
		json.pop_back();
		JsonPtr j = Parse(json);
		ASSERT_NE(j, nullptr);
		ExpectReport(j.get(), 3, "ZORV1_MSG_DEV_ADD_ERR", 6, "ZORV1_ERR_MTU_SET",
			     "net_zorv1_3", "ifc3", 1);
	}
	EXPECT_EQ(found, 1) << cap.Text();
}

TEST_F(MqttAgent, FirstReportAfterStartReachesALiveBroker)
{
	Broker broker(FreeLoopbackPort());
	ASSERT_TRUE(broker.Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(broker.port(), topic_));
	UseBroker(broker.port());

	/* No report before: this one starts the client and waits for its connection. */
	int rc = zorv1_mqtt_send_msg(ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_DEV_PARSE, "net_zorv1_0",
				     "ifc0", 4);
	EXPECT_EQ(rc, 0);
	auto msg = sub.Next();
	ASSERT_TRUE(msg.has_value()) << "report did not arrive";
	JsonPtr j = Parse(*msg);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), ZORV1_MSG_DEV_ADD_ERR, "ZORV1_MSG_DEV_ADD_ERR", ZORV1_ERR_DEV_PARSE,
		     "ZORV1_ERR_DEV_PARSE", "net_zorv1_0", "ifc0", 4);
}

TEST_F(MqttAgent, ReportsArriveAsOneJsonMessageEachAndAreLoggedAtInfo)
{
	Broker broker(FreeLoopbackPort());
	ASSERT_TRUE(broker.Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(broker.port(), topic_));
	UseBroker(broker.port());
	ASSERT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_NONE, ZORV1_ERR_NONE, nullptr, "warmup", 0), 0);
	ASSERT_TRUE(sub.Next().has_value());

	zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL, nullptr,
				      "ifc\"7\"", 0),
		  0);
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC, "net_zorv1_1",
				      "ifc1", 8),
		  0);

	auto m1 = sub.Next();
	auto m2 = sub.Next();
	ASSERT_TRUE(m1.has_value());
	ASSERT_TRUE(m2.has_value());
	JsonPtr j1 = Parse(*m1);
	JsonPtr j2 = Parse(*m2);
	ASSERT_NE(j1, nullptr);
	ASSERT_NE(j2, nullptr);
	ExpectReport(j1.get(), 5, "ZORV1_MSG_DEV_VHOST_ERR", 10, "ZORV1_ERR_DEV_NULL", nullptr,
		     "ifc\"7\"", 0);
	ExpectReport(j2.get(), 8, "ZORV1_MSG_QUE_SETUP_ERR", 5, "ZORV1_ERR_MEM_ALLOC",
		     "net_zorv1_1", "ifc1", 8);
	EXPECT_EQ(sub.Next(milliseconds(200)), std::nullopt) << "one message per report";

	/* The log shows exactly what went out. */
	EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_INFO, "zorv1_mqtt_send_msg",
					    "Agent report sent: " + *m1 + "\n"));
	EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_INFO, "zorv1_mqtt_send_msg",
					    "Agent report sent: " + *m2 + "\n"));
}

TEST_F(MqttAgent, ConcurrentReportersAllGetThrough)
{
	Broker broker(FreeLoopbackPort());
	ASSERT_TRUE(broker.Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(broker.port(), topic_));
	UseBroker(broker.port());
	ASSERT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_NONE, ZORV1_ERR_NONE, nullptr, "warmup", 0), 0);
	ASSERT_TRUE(sub.Next().has_value());

	constexpr int kThreads = 4;
	constexpr int kEach = 50;
	std::atomic<int> failures{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([t, &failures] {
			for (int i = 0; i < kEach; i++) {
				std::string dev = "net_zorv1_" + std::to_string(t);
				if (zorv1_mqtt_send_msg(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING,
							dev.c_str(), "ifc", i) != 0)
					failures++;
			}
		});
	}
	for (auto &th : threads)
		th.join();
	EXPECT_EQ(failures.load(), 0);

	std::set<std::pair<std::string, int>> seen;
	for (int n = 0; n < kThreads * kEach; n++) {
		auto m = sub.Next();
		ASSERT_TRUE(m.has_value()) << "only " << n << " reports arrived";
		JsonPtr j = Parse(*m);
		ASSERT_NE(j, nullptr);
		seen.emplace(json_string_value(json_object_get(j.get(), "device")),
			     static_cast<int>(json_integer_value(json_object_get(j.get(), "queues"))));
	}
	EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kEach)) << "every report once";
}

TEST_F(MqttAgent, BrokerLossFailsFastAndReconnectRecovers)
{
	int port = FreeLoopbackPort();
	ASSERT_GT(port, 0);
	auto broker = std::make_unique<Broker>(port);
	ASSERT_TRUE(broker->Start());
	UseBroker(port);
	ASSERT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_NONE, ZORV1_ERR_NONE, nullptr, "warmup", 0), 0);
	ASSERT_EQ(zorv1_mqtt_connected(), 1);

	broker->Stop();

	/* The network thread notices the loss; no report waits for it meanwhile. */
	Clock::duration took;
	auto deadline = Clock::now() + std::chrono::seconds(5);
	int rc = 0;
	while (Clock::now() < deadline) {
		rc = TimedSend(took);
		EXPECT_LT(took, kFastFail);
		if (rc != 0)
			break;
		std::this_thread::sleep_for(milliseconds(10));
	}
	ASSERT_NE(rc, 0) << "reports still succeed 5 s after the broker died";
	EXPECT_EQ(zorv1_mqtt_connected(), 0);
	for (int i = 0; i < 20; i++) {
		EXPECT_NE(TimedSend(took), 0);
		EXPECT_LT(took, kFastFail) << "report " << i;
	}

	/* Same port again: the client reconnects by itself. */
	broker = std::make_unique<Broker>(port);
	ASSERT_TRUE(broker->Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(port, topic_));
	deadline = Clock::now() + std::chrono::seconds(15);
	rc = -1;
	while (Clock::now() < deadline) {
		rc = TimedSend(took, ZORV1_MSG_DEV_START_ERR, ZORV1_ERR_QUEUE_INIT);
		EXPECT_LT(took, kFastFail);
		if (rc == 0)
			break;
		std::this_thread::sleep_for(milliseconds(100));
	}
	ASSERT_EQ(rc, 0) << "no reconnect within 15 s";
	auto msg = sub.Next();
	ASSERT_TRUE(msg.has_value());
	JsonPtr j = Parse(*msg);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), ZORV1_MSG_DEV_START_ERR, "ZORV1_MSG_DEV_START_ERR",
		     ZORV1_ERR_QUEUE_INIT, "ZORV1_ERR_QUEUE_INIT", "net_zorv1_0", "ifc0", 2);
}

TEST_F(MqttAgent, BrokerGivenByNameIsResolvedOffTheCallersThread)
{
	Broker broker(FreeLoopbackPort());
	ASSERT_TRUE(broker.Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(broker.port(), topic_));
	setenv("ZORV1_MQTT_BROKER", ("localhost:" + std::to_string(broker.port())).c_str(), 1);

	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_DEL_ERR, ZORV1_ERR_SO_LOAD, "net_zorv1_2", "ifc2",
				      1),
		  0);
	auto msg = sub.Next();
	ASSERT_TRUE(msg.has_value());
	JsonPtr j = Parse(*msg);
	ASSERT_NE(j, nullptr);
	ExpectReport(j.get(), 4, "ZORV1_MSG_DEV_DEL_ERR", 3, "ZORV1_ERR_SO_LOAD", "net_zorv1_2",
		     "ifc2", 1);
}

/*
 * A TLS endpoint that never completes a handshake: it takes each connection,
 * waits until the client's hello has arrived, lets 100 ms pass and answers
 * with bytes that are not TLS, then closes. The client's handshake thus
 * fails after its connect call has returned, on the agent's network thread.
 */
class BrokenTlsEndpoint {
public:
	~BrokenTlsEndpoint()
	{
		stop_ = true;
		if (thread_.joinable())
			thread_.join();
		if (fd_ >= 0)
			close(fd_);
	}
	bool Start()
	{
		fd_ = socket(AF_INET, SOCK_STREAM, 0);
		sockaddr_in a{};
		a.sin_family = AF_INET;
		a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		socklen_t len = sizeof(a);
		if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0 ||
		    listen(fd_, 8) != 0 ||
		    getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
			return false;
		port_ = ntohs(a.sin_port);
		thread_ = std::thread([this] { Serve(); });
		return true;
	}
	int port() const { return port_; }
	int handshakes() const { return handshakes_; }

private:
	bool Readable(int fd, int ms)
	{
		pollfd p = {fd, POLLIN, 0};
		return poll(&p, 1, ms) == 1;
	}
	void Serve()
	{
		static const char not_tls[] = "HTTP/1.0 400 Bad Request\r\n\r\n";
		while (!stop_) {
			if (!Readable(fd_, 100))
				continue;
			int c = accept(fd_, nullptr, nullptr);
			if (c < 0)
				continue;
			char hello[512];
			if (Readable(c, 2000) && recv(c, hello, sizeof(hello), 0) > 0) {
				handshakes_++;
				std::this_thread::sleep_for(milliseconds(100));
				(void)!send(c, not_tls, sizeof(not_tls) - 1, MSG_NOSIGNAL);
			}
			close(c);
		}
	}

	int fd_ = -1;
	int port_ = 0;
	std::atomic<bool> stop_{false};
	std::atomic<int> handshakes_{0};
	std::thread thread_;
};

/* A CA certificate of the test's own, so that the agent starts TLS. */
std::string MakeCaFile(const std::string &dir)
{
	const std::string crt = dir + "/ca.crt";
	const std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=zorv1test"
				" -keyout " + dir + "/ca.key -out " + crt + " >/dev/null 2>&1";
	return system(cmd.c_str()) == 0 ? crt : std::string();
}

TEST_F(MqttAgent, TlsHandshakeFailingAfterTheConnectIsSaidOnceAndRetried)
{
	char dir_tmpl[] = "/tmp/zorv_mqtt_tlsXXXXXX";
	ASSERT_NE(mkdtemp(dir_tmpl), nullptr);
	const std::string dir = dir_tmpl;
	const std::string ca = MakeCaFile(dir);
	ASSERT_FALSE(ca.empty()) << "openssl could not make a CA certificate";
	BrokenTlsEndpoint ep;
	ASSERT_TRUE(ep.Start());
	UseBroker(ep.port());
	setenv("ZORV1_MQTT_CAFILE", ca.c_str(), 1);

	{
		zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		Clock::duration took;
		EXPECT_NE(TimedSend(took), 0); /* starts the client */

		/* The agent keeps trying (back-off 1 s, 2 s, ...). */
		auto deadline = Clock::now() + std::chrono::seconds(10);
		while (ep.handshakes() < 3 && Clock::now() < deadline)
			std::this_thread::sleep_for(milliseconds(50));
		EXPECT_GE(ep.handshakes(), 3) << "the agent stopped trying after a failed handshake";
		for (int i = 0; i < 5; i++) {
			EXPECT_EQ(TimedSend(took), -ENOTCONN);
			EXPECT_LT(took, kFastFail) << "report " << i;
		}
		zorv1_mqtt_shutdown(); /* its thread logs no more into the capture */

		const std::string why = "Agent broker 127.0.0.1:" + std::to_string(ep.port()) +
					": connection failed: " +
					mosquitto_strerror(MOSQ_ERR_TLS) + ": OpenSSL Error";
		int said = 0;
		for (const auto &e : cap.Entries()) {
			if (e.text.find(why) == std::string::npos)
				continue;
			said++;
			EXPECT_EQ(e.level, RTE_LOG_WARNING);
			EXPECT_NE(e.text.find("; reports fail until it is reached\n"), std::string::npos)
				<< e.text;
		}
		EXPECT_EQ(said, 1) << "want the reason once, with OpenSSL's words:\n" << cap.Text();
	}
	unsetenv("ZORV1_MQTT_CAFILE");
	system(("rm -rf " + dir).c_str());
}

TEST_F(MqttAgent, ShutdownWhileReconnectingDoesNotHang)
{
	int port = FreeLoopbackPort();
	ASSERT_GT(port, 0);
	UseBroker(port);
	Clock::duration took;
	EXPECT_NE(TimedSend(took), 0);
	/* Let the network thread enter its reconnect back-off. */
	std::this_thread::sleep_for(milliseconds(1200));
	auto t0 = Clock::now();
	zorv1_mqtt_shutdown();
	EXPECT_LT(Clock::now() - t0, milliseconds(500));
	/* A report after shutdown starts a new client. */
	EXPECT_NE(TimedSend(took), 0);
	EXPECT_LT(took, milliseconds(ZORV1_MQTT_FIRST_WAIT_MS + 50));
}

TEST_F(MqttAgent, ShutdownOfAConnectedClientDoesNotHang)
{
	Broker broker(FreeLoopbackPort());
	ASSERT_TRUE(broker.Start());
	UseBroker(broker.port());
	ASSERT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_NONE, ZORV1_ERR_NONE, nullptr, "warmup", 0), 0);
	auto t0 = Clock::now();
	zorv1_mqtt_shutdown();
	EXPECT_LT(Clock::now() - t0, milliseconds(500));
	EXPECT_EQ(zorv1_mqtt_connected(), 0);
}

/*
 * Run in a child process by the next test: one report, then the process
 * exits with the client connected.
 */
TEST(MqttExit, DISABLED_ReportThenExit)
{
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_STOP_ERR, ZORV1_ERR_NONE, "net_zorv1_9", "ifc9",
				      1),
		  0);
	EXPECT_EQ(zorv1_mqtt_connected(), 1);
}

std::string ReadFile(const std::string &path)
{
	std::string out;
	FILE *f = fopen(path.c_str(), "r");
	if (f == nullptr)
		return out;
	char buf[4096];
	size_t n;
	while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
		out.append(buf, n);
	fclose(f);
	return out;
}

TEST_F(MqttAgent, ProcessExitDisconnectsCleanlyAndDoesNotHang)
{
	char log_tmpl[] = "/tmp/zorv_mqtt_brokerXXXXXX";
	int log_fd = mkstemp(log_tmpl);
	ASSERT_GE(log_fd, 0);
	close(log_fd);
	const std::string log = log_tmpl;
	Broker broker(FreeLoopbackPort(), log);
	ASSERT_TRUE(broker.Start());
	Subscriber sub;
	ASSERT_TRUE(sub.Connect(broker.port(), topic_));
	UseBroker(broker.port());

	char out_tmpl[] = "/tmp/zorv_mqtt_childXXXXXX";
	int out_fd = mkstemp(out_tmpl);
	ASSERT_GE(out_fd, 0);
	const std::string child_out = out_tmpl;

	auto t0 = Clock::now();
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		dup2(out_fd, STDOUT_FILENO);
		dup2(out_fd, STDERR_FILENO);
		execl("/proc/self/exe", "test_mqtt", "--gtest_also_run_disabled_tests",
		      "--gtest_filter=MqttExit.DISABLED_ReportThenExit", static_cast<char *>(nullptr));
		_exit(127);
	}
	close(out_fd);
	int status = 0;
	pid_t done = 0;
	while ((done = waitpid(child, &status, WNOHANG)) == 0 &&
	       Clock::now() - t0 < std::chrono::seconds(20))
		std::this_thread::sleep_for(milliseconds(20));
	std::string child_text;
	if (done == 0) {
		kill(child, SIGKILL);
		waitpid(child, &status, 0);
	}
	child_text = ReadFile(child_out);
	unlink(child_out.c_str());
	ASSERT_NE(done, 0) << "the child did not exit within 20 s:\n" << child_text;
	ASSERT_TRUE(WIFEXITED(status)) << "status " << status << "\n" << child_text;
	EXPECT_EQ(WEXITSTATUS(status), 0) << child_text;

	auto msg = sub.Next();
	ASSERT_TRUE(msg.has_value());
	JsonPtr j = Parse(*msg);
	ASSERT_NE(j, nullptr);
	EXPECT_EQ(json_integer_value(json_object_get(j.get(), "kind")), ZORV1_MSG_DEV_STOP_ERR);

	/* The broker saw the reporting client say DISCONNECT, not drop the connection. */
	broker.Stop();
	std::string text = ReadFile(log);
	unlink(log.c_str());
	const std::string pub = "Received PUBLISH from ";
	size_t at = text.find(pub);
	ASSERT_NE(at, std::string::npos) << text;
	std::string id = text.substr(at + pub.size());
	id = id.substr(0, id.find(' '));
	ASSERT_FALSE(id.empty());
	EXPECT_NE(text.find("Received DISCONNECT from " + id + "\n"), std::string::npos) << text;
	EXPECT_NE(text.find("Client " + id + " disconnected."), std::string::npos) << text;
	EXPECT_EQ(text.find("Client " + id + " closed its connection"), std::string::npos) << text;
}

} // namespace
