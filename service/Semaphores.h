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

} // namespace vnlog
