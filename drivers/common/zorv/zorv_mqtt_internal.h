/* SPDX-License-Identifier: BSD-3-Clause
 * Internals of the agent report service, for the family's tests and tools.
 */
#ifndef ZORV_MQTT_INTERNAL_H
#define ZORV_MQTT_INTERNAL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Broker used when ZORV1_MQTT_BROKER ("host[:port]", "[v6addr]:port") is unset. */
#define ZORV1_MQTT_DEFAULT_HOST "127.0.0.1"
#define ZORV1_MQTT_DEFAULT_PORT 1883
/* Topic used when ZORV1_MQTT_TOPIC is unset or not a valid publish topic. */
#define ZORV1_MQTT_DEFAULT_TOPIC "zorv1/agent/report"
/*
 * How long the calls made while the client's very first connection attempt
 * is still in flight may wait for it. Later calls never wait.
 */
#define ZORV1_MQTT_FIRST_WAIT_MS 200
/* Reconnect back-off of the network thread, in seconds. */
#define ZORV1_MQTT_RECONNECT_MIN_S 1
#define ZORV1_MQTT_RECONNECT_MAX_S 4
#define ZORV1_MQTT_KEEPALIVE_S 10

/*
 * Write the JSON text of one report into buf (NUL-terminated). Returns the
 * length of the full text; a result >= len means buf was too small and the
 * text was cut.
 */
size_t zorv1_mqtt_format_report(char *buf, size_t len, int msg_type, int err_code,
				const char *dev_name, const char *iface_name, int queues);

/* Name of a message kind / error code, or NULL for a value with no name. */
const char *zorv1_mqtt_kind_name(int msg_type);
const char *zorv1_mqtt_error_name(int err_code);

/* 1 while the client holds a connection accepted by the broker. */
int zorv1_mqtt_connected(void);

/*
 * Disconnect and free the client; bounded (a connected client gets 500 ms
 * to say goodbye). The next report starts a new client that reads
 * ZORV1_MQTT_BROKER / ZORV1_MQTT_TOPIC again. At process exit or unload
 * the service does the same by itself and then refuses further reports
 * (-ESHUTDOWN).
 */
void zorv1_mqtt_shutdown(void);

#ifdef __cplusplus
}

#include <string>

namespace zorv_mqtt {

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

/*
 * The configuration a client starts with: the file named by
 * ZORV1_MQTT_CONFIG, then the environment (zorv_mqtt_config.cpp). False,
 * with why, when it cannot be used.
 */
bool load_config(agent_config &c, std::string &why);

/* The JSON text of one report (zorv_mqtt_report.cpp). */
std::string report_json(int msg_type, int err_code, const char *dev_name, const char *iface_name,
			int queues);

} // namespace zorv_mqtt
#endif

#endif /* ZORV_MQTT_INTERNAL_H */
