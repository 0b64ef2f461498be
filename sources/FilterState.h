// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Mutex.h"

#include <atomic>
#include <cstdint>
#include <log/logprint.h>

namespace vnlog {

/** The role of the lock on rules, module mode and line format of Android's log. */
struct FilterLock {
    static LockRole role;
};

struct FilterState {
    /// The log library's record; owned, for the object's life, and set by the start.
    AndroidLogFormat_t* mLogFormat VNLOG_PT_GUARDED_BY(FilterLock::role) = nullptr;
    std::atomic<int32_t> mModuleMode{
        0}; ///< kModeAll (0), kModeNone (1) or kModeListed (2); changes under the lock
};

} // namespace vnlog
