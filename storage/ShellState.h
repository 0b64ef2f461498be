// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Mutex.h"

namespace vnlog {

/** The role of the lock on the text of the latest command that nobody waits for; a leaf lock. */
struct NotwaitLock {
    static LockRole role;
};

struct ShellState {
    char mNotwaitCmd[128] VNLOG_GUARDED_BY(NotwaitLock::role) = {}; ///< latest command of shellexecNotwait
};

} // namespace vnlog
