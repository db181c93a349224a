/* SPDX-License-Identifier: BSD-3-Clause
 * Agent reports of the zorv1 family, carried over MQTT.
 *
 * What a report says is zorv_mqtt_report.cpp's; where it goes and with
 * which credentials, zorv_mqtt_config.cpp's. This file is the client.
 *
 * The reporters are the port's control thread and the transport's event
 * threads, and none of them may wait for the network: a dead or unreachable
 * broker must never stall a probe. So the client lives on a network thread
 * of its own, started by the first report. It creates the client, resolves
 * the broker and begins a non-blocking connect, then drives the connection
 * with mosquitto_loop() for as long as the agent runs. Whenever a connection
 * attempt fails or an accepted connection is lost, the thread waits (1 s,
 * doubling up to 4 s, back to 1 s after a connection succeeded) and starts a
 * new non-blocking connect. The library's own loop thread is not used: it
 * gives up for good on a TLS handshake that fails after the connect returned
 * (a broker certificate the CA does not vouch for), silently, and its
 * reconnects block in connect().
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
 * Configuration (zorv_mqtt_config.cpp) is read when a client starts. A
 * configuration that cannot be used is logged once and the agent stays
 * down: reports fail until the client is restarted, rather than go to a
 * broker nobody asked for in clear text.
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

using namespace zorv_mqtt;

namespace {

/* How long shutdown lets a connected client say goodbye to the broker. */
constexpr auto disconnect_grace = std::chrono::milliseconds(500);
/* How long one turn of the network loop may wait for the socket. */
constexpr int loop_timeout_ms = 250;

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
	bool stopped();
	bool stopping();
	bool back_off(unsigned int delay_ms);
	void begin_attempt();
	void attempt_failed(int rc, int err);
	void run(struct mosquitto *mosq);
	static void *net_main(void *arg);
	static void on_connect(struct mosquitto *mosq, void *obj, int rc);
	static void on_disconnect(struct mosquitto *mosq, void *obj, int rc);
	static void on_log(struct mosquitto *mosq, void *obj, int level, const char *text);
	bool setup_client(struct mosquitto *mosq);
	std::string failure_text(int rc, int err);
	void why_down(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
	void forget_why();

	/* Guards the life of the client: state, handle, network thread and settings. */
	std::mutex life_mu_;
	agent_state state_ = agent_state::idle;
	struct mosquitto *mosq_ = nullptr;
	pthread_t net_{};
	bool net_joinable_ = false;
	bool closed_ = false;
	/* Settings of the current client; fixed from start to shutdown. */
	agent_config cfg_;
	std::chrono::steady_clock::time_point first_deadline_{};
	/* The configuration cannot be used: logged, no client until shutdown. */
	bool setup_failed_ = false;

	/*
	 * Why the broker is out of reach, as last logged; the library's first
	 * error of the current attempt (OpenSSL's reason, for TLS); whether a
	 * callback already said why the current attempt failed.
	 */
	std::mutex why_mu_;
	std::string why_;
	std::string lib_error_;
	bool explained_ = false;

	/* Connection events from the network thread; never held while logging. */
	std::mutex ev_mu_;
	std::condition_variable ev_cv_;
	std::atomic<bool> connected_{false};
	/* Connections the broker accepted, over the client's life. */
	std::atomic<unsigned int> accepted_{0};
	/* The first connection attempt of the client has not ended yet. */
	std::atomic<bool> first_pending_{false};
	/* Shutdown has begun: the network thread sends the goodbye, then ends. */
	std::atomic<bool> leaving_{false};
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
		explained_ = true;
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

/* A new connection attempt: nothing said about it yet. */
void mqtt_agent::begin_attempt()
{
	std::lock_guard<std::mutex> lk(why_mu_);
	lib_error_.clear();
	explained_ = false;
}

/* The library's result (and errno) of a failure, with its own first error. */
std::string mqtt_agent::failure_text(int rc, int err)
{
	std::string text = rc == MOSQ_ERR_ERRNO ? strerror(err) : mosquitto_strerror(rc);
	std::lock_guard<std::mutex> lk(why_mu_);
	if (!lib_error_.empty()) {
		text += ": ";
		text += lib_error_;
	}
	return text;
}

/* The library's own account of a failure (OpenSSL's, for TLS). */
void mqtt_agent::on_log(struct mosquitto *, void *obj, int level, const char *text)
{
	auto *self = static_cast<mqtt_agent *>(obj);

	if ((level & MOSQ_LOG_ERR) == 0 || text == nullptr)
		return;
	std::lock_guard<std::mutex> lk(self->why_mu_);
	if (self->lib_error_.empty())
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
		self->accepted_++;
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
	int err = errno;
	bool was;

	{
		std::lock_guard<std::mutex> lk(self->ev_mu_);
		was = self->connected_.exchange(false);
	}
	if (was && rc != 0) {
		std::lock_guard<std::mutex> lk(self->why_mu_);
		self->explained_ = true;
	}
	if (was && rc != 0) {
		ZORV1_VDEV_LOG(WARNING, "Agent lost broker %s:%d: %s\n", self->cfg_.host.c_str(),
			       self->cfg_.port, mosquitto_strerror(rc));
	} else if (!was && rc != 0 && rc != MOSQ_ERR_CONN_REFUSED) {
		/* A connection that never got as far as the broker's answer. */
		self->why_down("connection failed: %s", self->failure_text(rc, err).c_str());
	}
	self->attempt_done();
}

/*
 * An attempt ended without a connection, or a connection ended: say why,
 * unless a callback already did (a refusal, a lost connection). A TLS
 * handshake that fails on the network thread returns here with no
 * callback at all.
 */
void mqtt_agent::attempt_failed(int rc, int err)
{
	bool said;

	{
		std::lock_guard<std::mutex> lk(why_mu_);
		said = explained_;
	}
	if (!said && !connected_)
		why_down("connection failed: %s", failure_text(rc, err).c_str());
	attempt_done();
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

/* The agent is being shut down: past the goodbye (stopped) or before it. */
bool mqtt_agent::stopped()
{
	std::lock_guard<std::mutex> lk(life_mu_);
	return state_ != agent_state::running;
}

bool mqtt_agent::stopping()
{
	return leaving_ || stopped();
}

/* Wait delay_ms, looking every 100 ms whether the agent stops; false if it does. */
bool mqtt_agent::back_off(unsigned int delay_ms)
{
	for (unsigned int waited = 0; waited < delay_ms; waited += 100) {
		usleep(100 * 1000);
		if (stopping())
			return false;
	}
	return !stopping();
}

/*
 * The network thread's life with one client: connect, drive the connection
 * until it ends, wait, connect again; until the agent stops.
 */
void mqtt_agent::run(struct mosquitto *mosq)
{
	const unsigned int min_ms = ZORV1_MQTT_RECONNECT_MIN_S * 1000;
	const unsigned int max_ms = ZORV1_MQTT_RECONNECT_MAX_S * 1000;
	unsigned int delay_ms = min_ms;
	int rc;

	begin_attempt();
	/* Resolves the broker and starts a non-blocking connect. */
	rc = mosquitto_connect_async(mosq, cfg_.host.c_str(), cfg_.port, ZORV1_MQTT_KEEPALIVE_S);
	for (;;) {
		unsigned int accepted = accepted_;

		/* Leaving, the loop still sends the goodbye until the socket closes. */
		while (rc == MOSQ_ERR_SUCCESS && !stopped())
			rc = mosquitto_loop(mosq, loop_timeout_ms, 1);
		int err = errno;
		if (stopping())
			return;
		attempt_failed(rc, err);
		if (accepted_ != accepted)
			delay_ms = min_ms;
		if (!back_off(delay_ms))
			return;
		delay_ms = std::min(delay_ms * 2, max_ms);
		begin_attempt();
		rc = mosquitto_reconnect_async(mosq);
	}
}

void *mqtt_agent::net_main(void *arg)
{
	auto *self = static_cast<mqtt_agent *>(arg);
	struct mosquitto *mosq;

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
	/* Reports publish from other threads while this one drives the socket. */
	mosquitto_threaded_set(mosq, true);
	mosquitto_connect_callback_set(mosq, on_connect);
	mosquitto_disconnect_callback_set(mosq, on_disconnect);
	mosquitto_log_callback_set(mosq, on_log);

	/*
	 * Published before the first connect, so that a report woken by the
	 * first connection finds the client. No report publishes before that
	 * connection is up. Shutdown frees the client after this thread ended.
	 */
	{
		std::lock_guard<std::mutex> lk(self->life_mu_);
		self->mosq_ = mosq;
		if (self->state_ == agent_state::starting)
			self->state_ = agent_state::running;
	}
	self->run(mosq);
	self->attempt_done();
	return nullptr;

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
	if (net_joinable_) {
		/* A network thread that gave up; it has nothing left to do but return. */
		pthread_join(net_, nullptr);
		net_joinable_ = false;
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
	leaving_ = false;
	first_pending_ = true;
	first_deadline_ = std::chrono::steady_clock::now() +
			  std::chrono::milliseconds(ZORV1_MQTT_FIRST_WAIT_MS);
	state_ = agent_state::starting;

	int rc = pthread_create(&net_, nullptr, net_main, this);
	if (rc != 0) {
		ZORV1_VDEV_LOG(ERR, "Agent network thread not created: %s\n", strerror(rc));
		first_pending_ = false;
		state_ = agent_state::idle;
		return false;
	}
	pthread_setname_np(net_, "zorv1-agent");
	net_joinable_ = true;
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
		if (state_ == agent_state::idle && !net_joinable_) {
			setup_failed_ = false; /* the next client reads the configuration again */
			return;
		}
		join = net_joinable_;
		net_joinable_ = false;
		mosq = mosq_;
	}

	leaving_ = true;
	if (mosq != nullptr && connected_) {
		/* Wakes the network thread, which sends the goodbye. */
		mosquitto_disconnect(mosq);
		std::unique_lock<std::mutex> lk(ev_mu_);
		ev_cv_.wait_for(lk, disconnect_grace, [this] { return !connected_; });
	}
	{
		std::lock_guard<std::mutex> lk(life_mu_);
		state_ = agent_state::stopping;
	}
	/* The network thread looks at the state at least every loop_timeout_ms. */
	if (join)
		pthread_join(net_, nullptr);
	{
		std::lock_guard<std::mutex> lk(life_mu_);
		mosq = mosq_;
		mosq_ = nullptr;
	}
	if (mosq != nullptr) {
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
