#pragma once

#include "storage/FileWork.h"
#include "storage/StorageState.h"

#include <cstdint>

namespace vnlog {

/** Makes the folders of the store and archives the current run. Every failure is reported. */
class RunFolders {
  public:
    RunFolders(StorageState& state, FileWork& files) : mState(state), mFiles(files) {}

    /** Makes the log folder unless it is there. */
    [[nodiscard]] bool makeLogFolder() VNLOG_REQUIRES(StorageLock::role);
    /** Makes the current run's folder, which is not there. */
    [[nodiscard]] bool makeCurrent() VNLOG_REQUIRES(StorageLock::role);
    /** Whether the run of this number has no folder yet; reported either way. */
    bool numberFree(uint32_t number) VNLOG_REQUIRES(StorageLock::role);
    /** Makes the current run's folder the archived run `number`, the newest one. */
    [[nodiscard]] bool archiveCurrent(uint32_t number) VNLOG_REQUIRES(StorageLock::role);

  private:
    StorageState& mState;
    FileWork& mFiles;
};

/**
 * Brings a finished section and its run's folder to the medium: what replaces a text must be safe there. A
 * failure is reported and needs no other answer.
 */
void syncArchive(const char* run, const char* archive);

} // namespace vnlog
