// SPDX-License-Identifier: Apache-2.0
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
    NotSaved = -6, ///< log_storage.dat could not be written
};

/** Settles where the stored log is at a start, and prepares what lies there for a single step. */
class RootChange {
  public:
    RootChange(StorageState& state, const platform::SystemRoot& systemRoot, Recovery& recovery)
        : mState(state), mSystemRoot(systemRoot), mRecovery(recovery) {}

    /**
     * Makes sure that mSavePath is a root, the default one where the configured cannot be used, and derives
     * all paths from it. A configured one that may come to be usable is kept in mConfiguredPath. False,
     * reported, when there is none; the paths are unchanged then.
     */
    [[nodiscard]] bool resolve() VNLOG_REQUIRES(StorageLock::role);
    /** Takes over what an earlier use of the root has left, see Recovery::takeOver. */
    [[nodiscard]] RootStatus prepare() VNLOG_REQUIRES(StorageLock::role);
    /** Gives the root in force another path that leads to it. False with errno set: nothing is changed. */
    [[nodiscard]] bool rename(const char* root) VNLOG_REQUIRES(StorageLock::role);

  private:
    void takeDefault() VNLOG_REQUIRES(StorageLock::role);
    StorageState& mState;
    const platform::SystemRoot& mSystemRoot;
    Recovery& mRecovery;
};

/** A root that is prepared beside the one in force, with numbers of its own: a failure changes only what lies
 * under it. Used once. */
class RootTrial {
  public:
    /** Keeps the bound of the state in force. */
    RootTrial(const StorageState& inForce, FileWork& files);
    ~RootTrial();
    RootTrial(const RootTrial&) = delete;
    RootTrial& operator=(const RootTrial&) = delete;

    /** Takes over what lies under `root`, a usable one that is locked, and saves its numbers, with its oldest
     * sections making room where there is none. */
    [[nodiscard]] RootStatus prepare(const char* root) VNLOG_REQUIRES(StorageLock::role);
    /** Puts the prepared root in force. */
    void apply(StorageState* inForce, Bookkeeping* numbers) VNLOG_REQUIRES(StorageLock::role);

    /** Recovery::takeArchived. */
    uint32_t takeArchived() { return mRecovery.takeArchived(); }

  private:
    bool save() VNLOG_REQUIRES(StorageLock::role);

    StorageState mState;
    Bookkeeping mNumbers;
    Retention mRetention;
    Recovery mRecovery;
};

} // namespace vnlog
