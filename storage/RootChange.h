#pragma once

#include "platform/sysroot/SystemRoot.h"
#include "storage/Bookkeeping.h"
#include "storage/FileWork.h"
#include "storage/Retention.h"
#include "storage/RunFolders.h"

namespace vnlog {

enum class RootStatus {
    Ready = 0,
    NoLogFolder = -1,
    NotArchived = -2, ///< the run found there could not be moved aside
    NoNewCurrent = -3, ///< it was moved, but no new folder could be made
    NoCurrent = -4,
    RunStays = -5, ///< an archived run above the bound could not be removed
};

/** Settles where the stored log is, and prepares a root that is taken while the service runs. */
class RootChange {
  public:
    RootChange(StorageState& state, const platform::SystemRoot& systemRoot, Bookkeeping& numbers,
               const Retention& retention, FileWork& files);

    /**
     * Makes sure that mSavePath is a root, the default one where the configured cannot be used, and derives
     * all paths from it. False, reported, when there is none; the paths are unchanged then.
     */
    [[nodiscard]] bool resolve() VNLOG_REQUIRES(StorageLock::role);
    /** Archives what an earlier use of the root has left, and keeps the bound by whole runs. */
    [[nodiscard]] RootStatus prepare() VNLOG_REQUIRES(StorageLock::role);
    /** Takes `root`, a usable folder: resolves and prepares it and saves its numbers. Failures are reported.
     */
    void take(const char* root) VNLOG_REQUIRES(StorageLock::role);

  private:
    void takeDefault() VNLOG_REQUIRES(StorageLock::role);
    RootStatus archiveEarlierUse() VNLOG_REQUIRES(StorageLock::role);
    RootStatus removeRunsAboveBound() VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    const platform::SystemRoot& mSystemRoot;
    Bookkeeping& mNumbers;
    const Retention& mRetention;
    FileWork& mFiles;
    RunFolders mFolders;
};

} // namespace vnlog
