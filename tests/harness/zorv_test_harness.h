/* SPDX-License-Identifier: BSD-3-Clause
 * The unit-test harness in one include: EAL start-up (main comes from the
 * zorv_test_harness library), log capture, fake ports and mbufs.
 */
#ifndef ZORV_TEST_HARNESS_H
#define ZORV_TEST_HARNESS_H

#include "zorv_test_eal.h"
#include "zorv_test_log.h"
#include "zorv_test_port.h"

#endif /* ZORV_TEST_HARNESS_H */
