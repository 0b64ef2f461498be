// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <semaphore.h>

namespace vnlog {

/**
 * Waits for a post, going on after signals. A cancellation point. False when the wait is not possible: the
 * text `report` and the system's error are logged then.
 */
[[nodiscard]] bool waitOrReport(sem_t* semaphore, const char* report);

/** Posts; a failure is logged likewise and needs no other answer. */
void postOrReport(sem_t* semaphore, const char* report);

/** Posts where a failure needs no answer at all: it means that the count overflows, so nobody is waiting. */
void post(sem_t* semaphore);

} // namespace vnlog
