/* SPDX-License-Identifier: BSD-3-Clause
 * Where the agent sends its reports and how it authenticates.
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
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <mosquitto.h>

#include "zorv1_logs.h"
#include "zorv_mqtt_internal.h"

using namespace zorv_mqtt;

namespace {

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

} // namespace

namespace zorv_mqtt {

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

} // namespace zorv_mqtt
