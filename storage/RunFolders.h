// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/FileWork.h"
#include "storage/StorageState.h"

#include <cstdint>

namespace vnlog {

/**
 * Makes the folders of the store and archives the current run. What it makes is on the medium, name and all,
 * when an operation returns. Every failure is reported and leaves errno.
 */
class RunFolders {
  public:
    RunFolders(StorageState& state, FileWork& files) : mState(state), mFiles(files) {}

    /** Makes the log folder unless it is there. False as well when what is there is not to be used. */
    [[nodiscard]] bool makeLogFolder() VNLOG_REQUIRES(StorageLock::role);
    /** Makes the current run's folder, which is not there. */
    [[nodiscard]] bool makeCurrent() VNLOG_REQUIRES(StorageLock::role);
    /** Makes what is missing of the two. */
    [[nodiscard]] bool makeMissing() VNLOG_REQUIRES(StorageLock::role);
    /** Whether nothing has the name of the run of this number; reported either way. */
    bool numberFree(uint32_t number) VNLOG_REQUIRES(StorageLock::role);
    /** Makes the current run's folder the archived run `number`, the newest one. */
    [[nodiscard]] bool archiveCurrent(uint32_t number) VNLOG_REQUIRES(StorageLock::role);
    /**
     * Gives the archived runs numbers from 1 on, in their order; numbers that anything else has are left out.
     * False when a run could not be moved: the order holds all the same.
     */
    [[nodiscard]] bool renumber() VNLOG_REQUIRES(StorageLock::role);

  private:
    bool moveRun(uint32_t from, uint32_t to) VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    FileWork& mFiles;
};

} // namespace vnlog
