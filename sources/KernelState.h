// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"

#include <cstdint>
#include <semaphore.h>

namespace vnlog {

/** Switches and level of the kernel's log. */
struct KernelState {
    std::atomic<int32_t> mKLogLevel{7}; ///< kernel console level and highest level stored, 1 to 7
    Flag mKLogOutput{false}; ///< the kernel's log is read
    Flag mKLogToUart{false}; ///< the kernel prints on its console
    Flag mKLogToFile{false}; ///< its lines are stored
    Flag mKLogPstore{true}; ///< a start stores what the platform has kept of the kernel's last words
    Flag mKLogPrefix{false}; ///< stored lines keep the "<N>" that the kernel puts in front
    sem_t mKLogSem; ///< wakes the kernel reader when its output is switched on
    Flag mKLogThreadRunning{false}; ///< started and not stopped yet; it may have ended by itself
};

} // namespace vnlog
