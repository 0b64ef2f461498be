// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

namespace vnlog {

/** The workers' threads. A handle means something only while the worker's flag is set. */
struct WorkerState {
    pthread_t mFlushThread{};
    pthread_t mKLogThread{};
    pthread_t mLogcatThread{};
};

} // namespace vnlog
