/* SPDX-License-Identifier: BSD-3-Clause
 * Reports from the driver family to the management agent.
 */
#ifndef ZORV1_VDEV_MQTT_H
#define ZORV1_VDEV_MQTT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Message kinds. 1 and 2 are not defined. */
enum {
	ZORV1_MSG_DEV_NONE = 0,
	ZORV1_MSG_DEV_ADD_ERR = 3,
	ZORV1_MSG_DEV_DEL_ERR = 4,
	ZORV1_MSG_DEV_VHOST_ERR = 5,
	ZORV1_MSG_DEV_START_ERR = 6,
	ZORV1_MSG_DEV_STOP_ERR = 7,
	ZORV1_MSG_QUE_SETUP_ERR = 8,
	ZORV1_MSG_QUE_DESTROY_ERR = 9,
	ZORV1_MSG_DEV_END = 10,
};

/* Error codes carried by a message. */
enum {
	ZORV1_ERR_NONE = 0,
	ZORV1_ERR_DEV_PARSE = 1,
	ZORV1_ERR_AGENT_THD = 2,
	ZORV1_ERR_SO_LOAD = 3,
	ZORV1_ERR_DEV_CHECK = 4,
	ZORV1_ERR_MEM_ALLOC = 5,
	ZORV1_ERR_MTU_SET = 6,
	ZORV1_ERR_INTR_INSTALL = 7,
	ZORV1_ERR_INTR_UPADTE = 8,
	ZORV1_ERR_DEV_INSTALL = 9,
	ZORV1_ERR_DEV_NULL = 10,
	ZORV1_ERR_DEV_OPS_NULL = 11,
	ZORV1_ERR_VHOST_REG = 12,
	ZORV1_ERR_CACHE_RING = 13,
	ZORV1_ERR_QUEUE_INIT = 14,
};

/*
 * Send one report. dev_name may be NULL when there is no port. Never blocks;
 * returns non-zero when the report could not be handed to the agent.
 */
int zorv1_mqtt_send_msg(int msg_type, int err_code, const char *dev_name,
			const char *iface_name, int queues);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_VDEV_MQTT_H */
