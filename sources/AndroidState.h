// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"

#include <cstdint>
#include <semaphore.h>

namespace vnlog {

/** Switches of Android's log, and what its reader has found. */
struct AndroidState {
    int32_t mALogOutFd = -1; ///< the console; the reader sets it
    int32_t mALogDevCount = 0; ///< devices in the reader's list
    std::atomic<int32_t> mALogFileMinPri{0}; ///< lowest priority that is stored
    Flag mALogOutput{false}; ///< Android's log is read
    Flag mALogToUart{false}; ///< its lines are shown on the console
    Flag mALogToFile{false}; ///< its lines are stored
    sem_t mALogSem; ///< wakes the Android reader when its output is switched on
    Flag mLogcatThreadRunning{false}; ///< started and not stopped yet; it may have ended by itself
};

} // namespace vnlog
