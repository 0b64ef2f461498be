#pragma once

#include "platform/sysroot/SystemRoot.h"
#include "storage/Bookkeeping.h"
#include "storage/Recovery.h"

namespace vnlog {

enum class RootStatus {
    Ready = 0,
    NoLogFolder = -1,
    NotArchived = -2, ///< the run found there could not be listed or moved aside
    NoNewCurrent = -3, ///< it was moved, but no new folder could be made
    NoCurrent = -4,
    AboveBound = -5, ///< what is above the bound could not be deleted, or not be counted
};

/** Settles where the stored log is, and prepares a root that is taken while the service runs. */
class RootChange {
  public:
    RootChange(StorageState& state, const platform::SystemRoot& systemRoot, Bookkeeping& numbers,
               Recovery& recovery)
        : mState(state), mSystemRoot(systemRoot), mNumbers(numbers), mRecovery(recovery) {}

    /**
     * Makes sure that mSavePath is a root, the default one where the configured cannot be used, and derives
     * all paths from it. False, reported, when there is none; the paths are unchanged then.
     */
    [[nodiscard]] bool resolve() VNLOG_REQUIRES(StorageLock::role);
    /** Takes over what an earlier use of the root has left, see Recovery::takeOver. */
    [[nodiscard]] RootStatus prepare() VNLOG_REQUIRES(StorageLock::role);
    /** Makes `root`, a usable folder, the one that is used, with all paths; its numbers are those of an empty
     * store until it is prepared. False, reported, when there is no memory: nothing is changed. */
    [[nodiscard]] bool move(const char* root) VNLOG_REQUIRES(StorageLock::role);

  private:
    void takeDefault() VNLOG_REQUIRES(StorageLock::role);
    StorageState& mState;
    const platform::SystemRoot& mSystemRoot;
    Bookkeeping& mNumbers;
    Recovery& mRecovery;
};

} // namespace vnlog
