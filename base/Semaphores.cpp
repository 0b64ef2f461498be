// SPDX-License-Identifier: Apache-2.0
#include "base/Semaphores.h"

#include "base/Diagnostics.h"

#include <cerrno>

namespace vnlog {

bool waitOrReport(sem_t* semaphore, const char* report) {
    while (sem_wait(semaphore) < 0) {
        if (errno == EINTR)
            continue;
        logError("%s", report);
        logErrno();
        return false;
    }
    return true;
}

void postOrReport(sem_t* semaphore, const char* report) {
    if (sem_post(semaphore) < 0) {
        logError("%s", report);
        logErrno();
    }
}

void post(sem_t* semaphore) {
    (void)sem_post(semaphore);
}

} // namespace vnlog
