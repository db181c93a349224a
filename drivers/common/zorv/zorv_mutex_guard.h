/* SPDX-License-Identifier: BSD-3-Clause
 * Scoped holder of a pthread mutex for the family's services (C++ only).
 */
#ifndef ZORV_MUTEX_GUARD_H
#define ZORV_MUTEX_GUARD_H

#include <pthread.h>

/* Locks on construction, unlocks when the scope ends. Not copyable. */
class zorv_mutex_guard {
public:
	explicit zorv_mutex_guard(pthread_mutex_t &m) : m_(m) { pthread_mutex_lock(&m_); }
	~zorv_mutex_guard() { pthread_mutex_unlock(&m_); }
	zorv_mutex_guard(const zorv_mutex_guard &) = delete;
	zorv_mutex_guard &operator=(const zorv_mutex_guard &) = delete;

private:
	pthread_mutex_t &m_;
};

#endif /* ZORV_MUTEX_GUARD_H */
