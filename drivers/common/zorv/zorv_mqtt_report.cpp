/* SPDX-License-Identifier: BSD-3-Clause
 * What an agent report of the zorv1 family says: one JSON object per
 * report, published by the agent (zorv_mqtt.cpp):
 *
 *   {"kind": 3, "kind_name": "ZORV1_MSG_DEV_ADD_ERR", "error": 1,
 *    "error_name": "ZORV1_ERR_DEV_PARSE", "device": "net_zorv1_0" | null,
 *    "iface": "ifc0" | null, "queues": 4, "time": "2024-05-01T10:00:00.123Z",
 *    "host": "dpu-host"}
 *
 * A kind or error without a name is sent with a null name.
 */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "zorv1_vdev_mqtt.h"
#include "zorv_mqtt_internal.h"

using namespace zorv_mqtt;

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

} // namespace

namespace zorv_mqtt {

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

} // namespace zorv_mqtt

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

} // extern "C"
