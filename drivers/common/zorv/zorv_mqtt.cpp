/* SPDX-License-Identifier: BSD-3-Clause
 * Agent reports of the zorv1 family, carried over MQTT.
 *
 * Every report is one JSON object published with QoS 0 on the agent's topic
 * (default "zorv1/agent/report") of its broker (default 127.0.0.1:1883):
 *
 *   {"kind": 3, "kind_name": "ZORV1_MSG_DEV_ADD_ERR", "error": 1,
 *    "error_name": "ZORV1_ERR_DEV_PARSE", "device": "net_zorv1_0" | null,
 *    "iface": "ifc0" | null, "queues": 4, "time": "2024-05-01T10:00:00.123Z",
 *    "host": "dpu-host"}
 *
 * A kind or error without a name is sent with a null name.
 *
 * The reporters are the port's control thread and the transport's event
 * threads, and none of them may wait for the network: a dead or unreachable
 * broker must never stall a probe. So the client lives on its own threads.
 * The first report starts a short-lived starter thread that creates the
 * client, resolves the broker and begins a non-blocking connect; the
 * library's network thread (mosquitto_loop_start) then owns the connection
 * and reconnects by itself, with a back-off of 1 to 4 seconds, whenever it
 * is refused or lost.
 *
 * A report is handed over only to a broker that has accepted the
 * connection; otherwise the call fails at once with -ENOTCONN and the caller
 * counts it. The one exception is the start-up window: the reports made
 * while the very first connection attempt is still in flight wait for it,
 * at most ZORV1_MQTT_FIRST_WAIT_MS (200 ms) after the client was started,
 * so that a report made right at start-up reaches a broker that is up. A
 * broker that refuses the connection ends that wait at once. QoS 0 gives no
 * delivery receipt: a report handed over in the instant between the
 * broker's death and the network thread noticing it is lost without an
 * error, as any QoS 0 message would be.
 *
 * At process exit (or unload) the client says DISCONNECT and is freed;
 * reports made after that fail with -ESHUTDOWN.
 *
 * Configuration, read when a client starts: a file named by
 * ZORV1_MQTT_CONFIG (lines "key value" or "key = value", '#' comments) and
 * environment variables, which win over the file:
 *   broker     ZORV1_MQTT_BROKER     "host[:port]" or "[v6addr]:port"
 *   topic      ZORV1_MQTT_TOPIC      topic of the reports
 *   client_id  ZORV1_MQTT_CLIENT_ID  MQTT client id (default: a random one)
 *   username   ZORV1_MQTT_USERNAME   user name for the broker
 *   password   ZORV1_MQTT_PASSWORD   its password
 *   cafile     ZORV1_MQTT_CAFILE     CA certificates (PEM): the connection
 *                                    uses TLS and verifies the broker's
 *                                    certificate and host name
 *   certfile   ZORV1_MQTT_CERTFILE   client certificate (PEM), with TLS
 *   keyfile    ZORV1_MQTT_KEYFILE    its private key (PEM)
 * A configuration that cannot be used (unreadable file, unknown key, a
 * client certificate without key or CA, files the TLS library refuses) is
 * logged once and the agent stays down: reports fail until the client is
 * restarted, rather than go to a broker nobody asked for in clear text.
 *
 * Why the broker cannot be reached (refused connection, bad credentials,
 * a TLS failure) is logged once, and again only when the reason changes or
 * after a connection succeeded; the retries in between are silent.
 */
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <mosquitto.h>

#include "zorv1_logs.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv_mqtt_internal.h"

namespace {

/* Names of the message kinds, indexed by value; 1 and 2 have none. */
constexpr const char *kind_names[] = {
	"ZORV1_MSG_DEV_NONE",
	nullptr,
	nullptr,
	"ZORV1_MSG_DEV_ADD_ERR",
	"ZORV1_MSG_DEV_DEL_ERR",
	"ZORV1_MSG_DEV_VHOST_ERR",
	"ZORV1_MSG_DEV_START_ERR",
	"ZORV1_MSG_DEV_STOP_ERR",
	"ZORV1_MSG_QUE_SETUP_ERR",
	"ZORV1_MSG_QUE_DESTROY_ERR",
	"ZORV1_MSG_DEV_END",
};
static_assert(sizeof(kind_names) / sizeof(kind_names[0]) == ZORV1_MSG_DEV_END + 1);

/* Names of the error codes, indexed by value. */
constexpr const char *error_names[] = {
	"ZORV1_ERR_NONE",
	"ZORV1_ERR_DEV_PARSE",
	"ZORV1_ERR_AGENT_THD",
	"ZORV1_ERR_SO_LOAD",
	"ZORV1_ERR_DEV_CHECK",
	"ZORV1_ERR_MEM_ALLOC",
	"ZORV1_ERR_MTU_SET",
	"ZORV1_ERR_INTR_INSTALL",
	"ZORV1_ERR_INTR_UPADTE",
	"ZORV1_ERR_DEV_INSTALL",
	"ZORV1_ERR_DEV_NULL",
	"ZORV1_ERR_DEV_OPS_NULL",
	"ZORV1_ERR_VHOST_REG",
	"ZORV1_ERR_CACHE_RING",
	"ZORV1_ERR_QUEUE_INIT",
};
static_assert(sizeof(error_names) / sizeof(error_names[0]) == ZORV1_ERR_QUEUE_INIT + 1);

/* How long shutdown lets a connected client say goodbye to the broker. */
constexpr auto disconnect_grace = std::chrono::milliseconds(500);

void json_string(std::string &out, const char *s)
{
	if (s == nullptr) {
		out += "null";
		return;
	}
	out += '"';
	for (; *s != '\0'; s++) {
		unsigned char c = static_cast<unsigned char>(*s);
		switch (c) {
		case '"': out += "\\\""; break;
		case '\\': out += "\\\\"; break;
		case '\b': out += "\\b"; break;
		case '\f': out += "\\f"; break;
		case '\n': out += "\\n"; break;
		case '\r': out += "\\r"; break;
		case '\t': out += "\\t"; break;
		default:
			if (c < 0x20) {
				char esc[8];
				snprintf(esc, sizeof(esc), "\\u%04x", c);
				out += esc;
			} else {
				out += static_cast<char>(c);
			}
		}
	}
	out += '"';
}

void iso8601_now(char *buf, size_t len)
{
	struct timespec ts;
	struct tm tm;

	clock_gettime(CLOCK_REALTIME, &ts);
	gmtime_r(&ts.tv_sec, &tm);
	size_t n = strftime(buf, len, "%Y-%m-%dT%H:%M:%S", &tm);
	snprintf(buf + n, len - n, ".%03ldZ", ts.tv_nsec / 1000000L);
}

std::string report_json(int msg_type, int err_code, const char *dev_name,
			const char *iface_name, int queues)
{
	char host[HOST_NAME_MAX + 1];
	char when[40];
	std::string out;

	if (gethostname(host, sizeof(host)) != 0)
		host[0] = '\0';
	host[sizeof(host) - 1] = '\0';
	iso8601_now(when, sizeof(when));

	out.reserve(256);
	out += "{\"kind\": ";
	out += std::to_string(msg_type);
	out += ", \"kind_name\": ";
	json_string(out, zorv1_mqtt_kind_name(msg_type));
	out += ", \"error\": ";
	out += std::to_string(err_code);
	out += ", \"error_name\": ";
	json_string(out, zorv1_mqtt_error_name(err_code));
	out += ", \"device\": ";
	json_string(out, dev_name);
	out += ", \"iface\": ";
	json_string(out, iface_name);
	out += ", \"queues\": ";
	out += std::to_string(queues);
	out += ", \"time\": ";
	json_string(out, when);
	out += ", \"host\": ";
	json_string(out, host);
	out += '}';
	return out;
}

/*
 * "host", "host:port", "[v6addr]" or "[v6addr]:port"; a bare IPv6 address
 * (more than one colon) is taken whole as the host.
 */
bool parse_broker(const char *text, std::string &host, int &port)
{
	std::string s(text);
	std::string port_text;
	bool has_port = false;

	if (!s.empty() && s[0] == '[') {
		size_t close = s.find(']');
		if (close == std::string::npos)
			return false;
		host = s.substr(1, close - 1);
		if (close + 1 < s.size()) {
			if (s[close + 1] != ':')
				return false;
			has_port = true;
			port_text = s.substr(close + 2);
		}
	} else {
		size_t colon = s.find(':');
		if (colon != std::string::npos && s.find(':', colon + 1) == std::string::npos) {
			host = s.substr(0, colon);
			has_port = true;
			port_text = s.substr(colon + 1);
		} else {
			host = s;
		}
	}
	if (host.empty())
		return false;
	port = ZORV1_MQTT_DEFAULT_PORT;
	if (has_port) {
		char *end = nullptr;
		errno = 0;
		long p = strtol(port_text.c_str(), &end, 10);
		if (port_text.empty() || errno != 0 || *end != '\0' || p < 1 || p > 65535)
			return false;
		port = static_cast<int>(p);
	}
	return true;
}

/* What a client is started with. */
struct agent_config {
	std::string host = ZORV1_MQTT_DEFAULT_HOST;
	int port = ZORV1_MQTT_DEFAULT_PORT;
	std::string topic = ZORV1_MQTT_DEFAULT_TOPIC;
	std::string client_id; /* empty: the library makes one up */
	std::string username;  /* empty: no authentication */
	std::string password;
	std::string cafile; /* set: TLS */
	std::string certfile;
	std::string keyfile;
};

constexpr struct {
	const char *key;
	const char *env;
} config_keys[] = {
	{"broker", "ZORV1_MQTT_BROKER"},       {"topic", "ZORV1_MQTT_TOPIC"},
	{"client_id", "ZORV1_MQTT_CLIENT_ID"}, {"username", "ZORV1_MQTT_USERNAME"},
	{"password", "ZORV1_MQTT_PASSWORD"},   {"cafile", "ZORV1_MQTT_CAFILE"},
	{"certfile", "ZORV1_MQTT_CERTFILE"},   {"keyfile", "ZORV1_MQTT_KEYFILE"},
};

std::string trim(const std::string &t)
{
	size_t b = t.find_first_not_of(" \t\r");
	if (b == std::string::npos)
		return "";
	size_t e = t.find_last_not_of(" \t\r");
	return t.substr(b, e - b + 1);
}

/*
 * Set one setting; an empty value leaves the default. Bad broker and topic
 * values are logged and the default kept, as they always were.
 */
bool config_set(agent_config &c, const std::string &key, const std::string &value,
		std::string &why)
{
	if (value.empty())
		return true;
	if (key == "broker") {
		std::string host;
		int port;
		if (parse_broker(value.c_str(), host, port)) {
			c.host = host;
			c.port = port;
		} else {
			ZORV1_VDEV_LOG(ERR, "Bad ZORV1_MQTT_BROKER \"%s\", using %s:%d\n",
				       value.c_str(), ZORV1_MQTT_DEFAULT_HOST, ZORV1_MQTT_DEFAULT_PORT);
		}
	} else if (key == "topic") {
		if (mosquitto_pub_topic_check(value.c_str()) == MOSQ_ERR_SUCCESS)
			c.topic = value;
		else
			ZORV1_VDEV_LOG(ERR, "Bad ZORV1_MQTT_TOPIC \"%s\", using %s\n", value.c_str(),
				       ZORV1_MQTT_DEFAULT_TOPIC);
	} else if (key == "client_id") {
		c.client_id = value;
	} else if (key == "username") {
		c.username = value;
	} else if (key == "password") {
		c.password = value;
	} else if (key == "cafile") {
		c.cafile = value;
	} else if (key == "certfile") {
		c.certfile = value;
	} else if (key == "keyfile") {
		c.keyfile = value;
	} else {
		why = "unknown key \"" + key + "\"";
		return false;
	}
	return true;
}

/* The file of ZORV1_MQTT_CONFIG, then the environment. False with why. */
bool load_config(agent_config &c, std::string &why)
{
	const char *path = getenv("ZORV1_MQTT_CONFIG");
	if (path != nullptr && path[0] != '\0') {
		FILE *f = fopen(path, "re");
		if (f == nullptr) {
			why = std::string(path) + ": " + strerror(errno);
			return false;
		}
		char line[1024];
		int n = 0;
		bool ok = true;
		while (ok && fgets(line, sizeof(line), f) != nullptr) {
			n++;
			std::string t(line);
			if (!t.empty() && t.back() == '\n')
				t.pop_back();
			size_t hash = t.find('#');
			if (hash != std::string::npos)
				t.erase(hash);
			t = trim(t);
			if (t.empty())
				continue;
			size_t sep = t.find_first_of(" \t=");
			std::string key = trim(t.substr(0, sep));
			std::string value = sep == std::string::npos ? "" : trim(t.substr(sep));
			if (!value.empty() && value[0] == '=')
				value = trim(value.substr(1));
			std::string bad;
			if (!config_set(c, key, value, bad)) {
				why = std::string(path) + ":" + std::to_string(n) + ": " + bad;
				ok = false;
			}
		}
		fclose(f);
		if (!ok)
			return false;
	}
	for (const auto &k : config_keys) {
		const char *v = getenv(k.env);
		if (v != nullptr && !config_set(c, k.key, v, why))
			return false;
	}
	if (c.cafile.empty() && (!c.certfile.empty() || !c.keyfile.empty())) {
		why = "a client certificate needs TLS: no cafile";
		return false;
	}
	if (c.certfile.empty() != c.keyfile.empty()) {
		why = "certfile and keyfile go together";
		return false;
	}
	if (c.username.empty() && !c.password.empty()) {
		why = "a password without a username";
		return false;
	}
	return true;
}

enum class agent_state { idle, starting, running, stopping };

class mqtt_agent {
public:
	mqtt_agent() = default;
	mqtt_agent(const mqtt_agent &) = delete;
	mqtt_agent &operator=(const mqtt_agent &) = delete;

	int send(const std::string &json);
	void shutdown();
	/* Shut down for good: later reports fail without starting a client. */
	void close();
	bool connected() const { return connected_.load(); }

private:
	bool start_locked();
	void wait_first_attempt(std::chrono::steady_clock::time_point deadline);
	void attempt_done();
	static int starter_retry(mqtt_agent *self, struct mosquitto *mosq);
	static void *starter_main(void *arg);
	static void on_connect(struct mosquitto *mosq, void *obj, int rc);
	static void on_disconnect(struct mosquitto *mosq, void *obj, int rc);
	static void on_log(struct mosquitto *mosq, void *obj, int level, const char *text);
	bool setup_client(struct mosquitto *mosq);
	void why_down(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
	void forget_why();

	/* Guards the life of the client: state, handle, starter and settings. */
	std::mutex life_mu_;
	agent_state state_ = agent_state::idle;
	struct mosquitto *mosq_ = nullptr;
	pthread_t starter_{};
	bool starter_joinable_ = false;
	bool closed_ = false;
	/* Settings of the current client; fixed from start to shutdown. */
	agent_config cfg_;
	std::chrono::steady_clock::time_point first_deadline_{};
	/* The configuration cannot be used: logged, no client until shutdown. */
	bool setup_failed_ = false;

	/* Why the broker is out of reach, as last logged; the library's last error. */
	std::mutex why_mu_;
	std::string why_;
	std::string lib_error_;

	/* Connection events from the network thread; never held while logging. */
	std::mutex ev_mu_;
	std::condition_variable ev_cv_;
	std::atomic<bool> connected_{false};
	/* The first connection attempt of the client has not ended yet. */
	std::atomic<bool> first_pending_{false};
};

/*
 * Never destroyed: a report made by another module's exit path after the
 * unload below still finds a valid (closed) agent.
 */
mqtt_agent &agent()
{
	static mqtt_agent *const the_agent = new mqtt_agent();
	return *the_agent;
}

void mqtt_agent::attempt_done()
{
	{
		std::lock_guard<std::mutex> lk(ev_mu_);
		first_pending_ = false;
	}
	ev_cv_.notify_all();
}

/* Log why the broker is out of reach, unless that is what was said last. */
void mqtt_agent::why_down(const char *fmt, ...)
{
	char text[512];
	va_list ap;

	va_start(ap, fmt);
	vsnprintf(text, sizeof(text), fmt, ap);
	va_end(ap);
	{
		std::lock_guard<std::mutex> lk(why_mu_);
		if (why_ == text)
			return;
		why_ = text;
	}
	ZORV1_VDEV_LOG(WARNING, "Agent broker %s:%d: %s; reports fail until it is reached\n",
		       cfg_.host.c_str(), cfg_.port, text);
}

void mqtt_agent::forget_why()
{
	std::lock_guard<std::mutex> lk(why_mu_);
	why_.clear();
	lib_error_.clear();
}

/* The library's own account of a failure (OpenSSL's, for TLS). */
void mqtt_agent::on_log(struct mosquitto *, void *obj, int level, const char *text)
{
	auto *self = static_cast<mqtt_agent *>(obj);

	if ((level & MOSQ_LOG_ERR) == 0 || text == nullptr)
		return;
	std::lock_guard<std::mutex> lk(self->why_mu_);
	self->lib_error_ = text;
}

void mqtt_agent::on_connect(struct mosquitto *, void *obj, int rc)
{
	auto *self = static_cast<mqtt_agent *>(obj);

	if (rc == 0) {
		{
			std::lock_guard<std::mutex> lk(self->ev_mu_);
			self->connected_ = true;
		}
		self->forget_why();
		ZORV1_VDEV_LOG(INFO, "Agent connected to broker %s:%d\n", self->cfg_.host.c_str(),
			       self->cfg_.port);
	} else {
		self->why_down("refused the connection%s%s: %s",
			       self->cfg_.username.empty() ? "" : " of user ",
			       self->cfg_.username.c_str(), mosquitto_connack_string(rc));
	}
	self->attempt_done();
}

void mqtt_agent::on_disconnect(struct mosquitto *, void *obj, int rc)
{
	auto *self = static_cast<mqtt_agent *>(obj);
	bool was;

	{
		std::lock_guard<std::mutex> lk(self->ev_mu_);
		was = self->connected_.exchange(false);
	}
	if (was && rc != 0) {
		ZORV1_VDEV_LOG(WARNING, "Agent lost broker %s:%d: %s\n", self->cfg_.host.c_str(),
			       self->cfg_.port, mosquitto_strerror(rc));
	} else if (!was && rc != 0 && rc != MOSQ_ERR_CONN_REFUSED) {
		/* A connection that never got as far as the broker's answer (TLS). */
		std::string lib;
		{
			std::lock_guard<std::mutex> lk(self->why_mu_);
			lib = self->lib_error_;
		}
		self->why_down("connection failed: %s%s%s", mosquitto_strerror(rc),
			       lib.empty() ? "" : " ", lib.c_str());
	}
	self->attempt_done();
}

/* Identity, credentials and TLS of a new client. False (logged) when refused. */
bool mqtt_agent::setup_client(struct mosquitto *mosq)
{
	const agent_config &c = cfg_;
	int rc;

	if (!c.username.empty()) {
		rc = mosquitto_username_pw_set(mosq, c.username.c_str(),
					       c.password.empty() ? nullptr : c.password.c_str());
		if (rc != MOSQ_ERR_SUCCESS) {
			ZORV1_VDEV_LOG(ERR, "Agent credentials not usable: %s\n",
				       mosquitto_strerror(rc));
			return false;
		}
	}
	if (c.cafile.empty())
		return true;
	rc = mosquitto_tls_set(mosq, c.cafile.c_str(), nullptr,
			       c.certfile.empty() ? nullptr : c.certfile.c_str(),
			       c.keyfile.empty() ? nullptr : c.keyfile.c_str(), nullptr);
	if (rc == MOSQ_ERR_SUCCESS)
		rc = mosquitto_tls_opts_set(mosq, 1 /* verify the broker */, nullptr, nullptr);
	if (rc != MOSQ_ERR_SUCCESS) {
		ZORV1_VDEV_LOG(ERR,
			       "Agent TLS settings (cafile %s, certfile %s, keyfile %s) not usable: %s\n",
			       c.cafile.c_str(), c.certfile.empty() ? "none" : c.certfile.c_str(),
			       c.keyfile.empty() ? "none" : c.keyfile.c_str(),
			       rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc));
		return false;
	}
	return true;
}

/*
 * Retry a refused first connect with back-off (ZORV1_MQTT_RECONNECT_MIN_S
 * doubling up to _MAX_S), looking every 100 ms whether the agent is being
 * stopped. Returns MOSQ_ERR_SUCCESS once a connect is under way, or an error
 * when the agent stops first.
 */
int mqtt_agent::starter_retry(mqtt_agent *self, struct mosquitto *mosq)
{
	unsigned int delay_ms = ZORV1_MQTT_RECONNECT_MIN_S * 1000;

	for (;;) {
		for (unsigned int waited = 0; waited < delay_ms; waited += 100) {
			usleep(100 * 1000);
			std::lock_guard<std::mutex> lk(self->life_mu_);
			if (self->state_ != agent_state::running)
				return MOSQ_ERR_INVAL;
		}
		if (mosquitto_reconnect_async(mosq) == MOSQ_ERR_SUCCESS)
			return MOSQ_ERR_SUCCESS;
		delay_ms = std::min(delay_ms * 2, (unsigned int)ZORV1_MQTT_RECONNECT_MAX_S * 1000);
	}
}

void *mqtt_agent::starter_main(void *arg)
{
	auto *self = static_cast<mqtt_agent *>(arg);
	struct mosquitto *mosq;
	int rc;

	mosquitto_lib_init();
	mosq = mosquitto_new(self->cfg_.client_id.empty() ? nullptr : self->cfg_.client_id.c_str(),
			     true, self);
	if (mosq == nullptr) {
		ZORV1_VDEV_LOG(ERR, "Agent client creation failed: %s\n", strerror(errno));
		goto err_lib;
	}
	if (!self->setup_client(mosq)) {
		std::lock_guard<std::mutex> lk(self->life_mu_);
		self->setup_failed_ = true;
		mosquitto_destroy(mosq);
		goto err_lib;
	}
	mosquitto_connect_callback_set(mosq, on_connect);
	mosquitto_disconnect_callback_set(mosq, on_disconnect);
	mosquitto_log_callback_set(mosq, on_log);
	mosquitto_reconnect_delay_set(mosq, ZORV1_MQTT_RECONNECT_MIN_S, ZORV1_MQTT_RECONNECT_MAX_S,
				      true);

	/*
	 * Published before the network thread exists, so that a report woken
	 * by the first connection finds the client. No report publishes before
	 * that connection is up.
	 */
	{
		std::lock_guard<std::mutex> lk(self->life_mu_);
		self->mosq_ = mosq;
		if (self->state_ == agent_state::starting)
			self->state_ = agent_state::running;
	}

	/* Resolves the broker and starts a non-blocking connect. */
	rc = mosquitto_connect_async(mosq, self->cfg_.host.c_str(), self->cfg_.port,
				     ZORV1_MQTT_KEEPALIVE_S);
	if (rc != MOSQ_ERR_SUCCESS) {
		std::string lib;
		{
			/* A TLS handshake fails in here, with OpenSSL's reason logged. */
			std::lock_guard<std::mutex> lk(self->why_mu_);
			lib = self->lib_error_;
		}
		self->why_down("not reachable (%s%s%s), retrying in background",
			       rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc),
			       lib.empty() ? "" : ": ", lib.c_str());
		self->attempt_done();
		/*
		 * libmosquitto's network thread only reconnects a client whose
		 * connect once got under way: a connect refused at once has to be
		 * retried here, with the same back-off, until the broker takes it.
		 * Reports meanwhile fail (not connected) and are counted by their
		 * callers; the wait is cut short when the agent is stopped.
		 */
		rc = starter_retry(self, mosq);
		if (rc != MOSQ_ERR_SUCCESS)
			goto err_client;
	}
	rc = mosquitto_loop_start(mosq);
	if (rc != MOSQ_ERR_SUCCESS) {
		ZORV1_VDEV_LOG(ERR, "Agent network thread not started: %s\n", mosquitto_strerror(rc));
		goto err_client;
	}
	return nullptr;

err_client:
	{
		std::lock_guard<std::mutex> lk(self->life_mu_);
		self->mosq_ = nullptr;
	}
	mosquitto_destroy(mosq);
err_lib:
	mosquitto_lib_cleanup();
	self->attempt_done();
	{
		/* Left for the next report to try again. */
		std::lock_guard<std::mutex> lk(self->life_mu_);
		if (self->state_ == agent_state::starting || self->state_ == agent_state::running)
			self->state_ = agent_state::idle;
	}
	return nullptr;
}

/* Called with life_mu_ held and the state idle. */
bool mqtt_agent::start_locked()
{
	if (starter_joinable_) {
		/* A starter that gave up; it has nothing left to do but return. */
		pthread_join(starter_, nullptr);
		starter_joinable_ = false;
	}

	if (setup_failed_)
		return false; /* said once when it failed */
	cfg_ = agent_config{};
	std::string why;
	if (!load_config(cfg_, why)) {
		ZORV1_VDEV_LOG(ERR, "Agent configuration not usable (%s); no reports are sent\n",
			       why.c_str());
		setup_failed_ = true;
		return false;
	}
	forget_why();

	connected_ = false;
	first_pending_ = true;
	first_deadline_ = std::chrono::steady_clock::now() +
			  std::chrono::milliseconds(ZORV1_MQTT_FIRST_WAIT_MS);
	state_ = agent_state::starting;

	int rc = pthread_create(&starter_, nullptr, starter_main, this);
	if (rc != 0) {
		ZORV1_VDEV_LOG(ERR, "Agent starter thread not created: %s\n", strerror(rc));
		first_pending_ = false;
		state_ = agent_state::idle;
		return false;
	}
	starter_joinable_ = true;
	return true;
}

void mqtt_agent::wait_first_attempt(std::chrono::steady_clock::time_point deadline)
{
	if (connected_ || !first_pending_ || std::chrono::steady_clock::now() >= deadline)
		return;
	std::unique_lock<std::mutex> lk(ev_mu_);
	ev_cv_.wait_until(lk, deadline, [this] { return connected_ || !first_pending_; });
}

int mqtt_agent::send(const std::string &json)
{
	std::chrono::steady_clock::time_point deadline;
	int rc;

	{
		std::lock_guard<std::mutex> lk(life_mu_);
		if (closed_)
			return -ESHUTDOWN;
		if (state_ == agent_state::idle && !start_locked())
			return -EAGAIN;
		if (state_ == agent_state::stopping)
			return -ENOTCONN;
		deadline = first_deadline_;
	}

	wait_first_attempt(deadline);

	std::lock_guard<std::mutex> lk(life_mu_);
	if (state_ != agent_state::running || mosq_ == nullptr || !connected_)
		return -ENOTCONN;
	/* Threaded client: this only queues the packet for the network thread. */
	rc = mosquitto_publish(mosq_, nullptr, cfg_.topic.c_str(), static_cast<int>(json.size()),
			       json.data(), 0, false);
	switch (rc) {
	case MOSQ_ERR_SUCCESS:
		return 0;
	case MOSQ_ERR_NO_CONN:
	case MOSQ_ERR_CONN_LOST:
		return -ENOTCONN;
	case MOSQ_ERR_NOMEM:
		return -ENOMEM;
	case MOSQ_ERR_PAYLOAD_SIZE:
	case MOSQ_ERR_OVERSIZE_PACKET:
		return -EMSGSIZE;
	default:
		return -EIO;
	}
}

void mqtt_agent::shutdown()
{
	struct mosquitto *mosq;
	bool join;

	{
		std::lock_guard<std::mutex> lk(life_mu_);
		if (state_ == agent_state::idle && !starter_joinable_) {
			setup_failed_ = false; /* the next client reads the configuration again */
			return;
		}
		state_ = agent_state::stopping;
		join = starter_joinable_;
		starter_joinable_ = false;
	}
	if (join)
		pthread_join(starter_, nullptr);
	{
		std::lock_guard<std::mutex> lk(life_mu_);
		mosq = mosq_;
		mosq_ = nullptr;
	}

	if (mosq != nullptr) {
		bool was = connected_;

		mosquitto_disconnect(mosq);
		if (was) {
			std::unique_lock<std::mutex> lk(ev_mu_);
			ev_cv_.wait_for(lk, disconnect_grace, [this] { return !connected_; });
		}
		/*
		 * After the disconnect the network thread is leaving or waiting
		 * to reconnect; forcing keeps a connect stuck on an unreachable
		 * broker from holding up the unload.
		 */
		mosquitto_loop_stop(mosq, true);
		mosquitto_destroy(mosq);
		mosquitto_lib_cleanup();
	}

	connected_ = false;
	first_pending_ = false;
	std::lock_guard<std::mutex> lk(life_mu_);
	state_ = agent_state::idle;
	setup_failed_ = false; /* the next client reads the configuration again */
}

void mqtt_agent::close()
{
	{
		std::lock_guard<std::mutex> lk(life_mu_);
		closed_ = true;
	}
	shutdown();
}

/* Disconnect cleanly when the process exits or the library is unloaded. */
__attribute__((destructor)) void zorv1_mqtt_unload(void)
{
	agent().close();
}

} // namespace

extern "C" {

const char *zorv1_mqtt_kind_name(int msg_type)
{
	if (msg_type < 0 || msg_type > ZORV1_MSG_DEV_END)
		return nullptr;
	return kind_names[msg_type];
}

const char *zorv1_mqtt_error_name(int err_code)
{
	if (err_code < 0 || err_code > ZORV1_ERR_QUEUE_INIT)
		return nullptr;
	return error_names[err_code];
}

size_t zorv1_mqtt_format_report(char *buf, size_t len, int msg_type, int err_code,
				const char *dev_name, const char *iface_name, int queues)
{
	std::string json = report_json(msg_type, err_code, dev_name, iface_name, queues);

	if (buf != nullptr && len > 0) {
		size_t n = json.size() < len ? json.size() : len - 1;
		memcpy(buf, json.data(), n);
		buf[n] = '\0';
	}
	return json.size();
}

int zorv1_mqtt_connected(void)
{
	return agent().connected() ? 1 : 0;
}

void zorv1_mqtt_shutdown(void)
{
	agent().shutdown();
}

int zorv1_mqtt_send_msg(int msg_type, int err_code, const char *dev_name, const char *iface_name,
			int queues)
{
	std::string json = report_json(msg_type, err_code, dev_name, iface_name, queues);
	int rc = agent().send(json);

	if (rc == 0)
		ZORV1_VDEV_LOG(INFO, "Agent report sent: %s\n", json.c_str());
	else
		ZORV1_VDEV_LOG(ERR, "Agent report not sent (%s): %s\n", strerror(-rc), json.c_str());
	return rc;
}

} // extern "C"
