// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Mutex.h"

#include <cstdint>

namespace vnlog {

/** The role of the lock on commands: one command, configuration save or stop at a time. */
struct CommandLock {
    static LockRole role;
};

/** Settings that only the start and commands look at. */
struct SettingsState {
    char* mModuleCfg VNLOG_GUARDED_BY(CommandLock::role) =
        nullptr; ///< ALOG_MODULE, from parsing until the filter is built
    char* mFormatCfg VNLOG_GUARDED_BY(CommandLock::role) = nullptr; ///< ALOG_FORMAT, likewise
    int32_t mOldKLogLevel VNLOG_GUARDED_BY(CommandLock::role) = 7; ///< the kernel level from before muting
    char mALogLevel[4] VNLOG_GUARDED_BY(CommandLock::role) = {}; ///< ALOG_LEVEL; its first letter counts
    char mCfgPath[128] = {}; ///< the service's own log.cfg; fixed from start on
};

} // namespace vnlog
