// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/Flusher.h"
#include "buffer/Ring.h"
#include "storage/Layout.h"
#include "storage/Listing.h"
#include "storage/Recovery.h"
#include "storage/RootChange.h"
#include "storage/RootLock.h"
#include "storage/RunList.h"
#include "storage/SectionFiles.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace vnlog {

enum class RootChangeStatus {
    Done,
    Unchanged, ///< it is there already
    Taken, ///< another service has the root
    NotPrepared, ///< it cannot be put in order, or nothing can be written there
};

enum class CopyStatus {
    Done,
    NoFolder, ///< the target is no folder, is not there, or its path cannot be used
    Inside, ///< the copy would lie in the store, or be it
    NoRoom, ///< its medium lacks the bytes, as seen beforehand or while they were written
    Partial, ///< something was not copied for another reason
};

/** What has happened since the object was made. */
struct StoreCounts {
    uint32_t cuts; ///< sections that were finished
    uint32_t deletions; ///< sections that were deleted for the bound or for room
};

/** How much is stored, and where it ends. */
struct StoreExtent {
    uint64_t bytes; ///< of all sections, the open one included
    uint64_t bound; ///< in bytes
    uint32_t runs; ///< archived ones
    uint32_t oldestRun, newestRun; ///< numbers of the archived runs; 0 without any
    uint32_t sections; ///< of the current run, the open one included
    uint64_t freeBytes; ///< of the medium, for this user
};

/**
 * The stored log: appends batches from the ring to the active section, cuts and compresses that when it is
 * full, keeps the bound, changes the root, and puts in order what a start finds. Operations take the storage
 * lock unless they say otherwise; every failure is reported.
 */
class Store final : public BatchTarget {
  public:
    /** All must outlive the store. `lock` is the one that guards `state`. */
    Store(StorageState& state, Mutex<StorageLock>& lock, Ring& ring, FileWork& files,
          const platform::SystemRoot& systemRoot);
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // --- the flush thread

    /** Moves `count` buffered bytes into the active section; cuts, compresses and thins where it is full. */
    SaveResult save(uint32_t count) override VNLOG_EXCLUDES(StorageLock::role);
    /** Syncs the active section, if there is one; a finished one is on its medium. */
    bool sync() override VNLOG_EXCLUDES(StorageLock::role);
    /** Syncs and closes the open section file, if any. */
    void closeSection() override VNLOG_EXCLUDES(StorageLock::role);

    // --- start, in this order

    /** RootChange::resolve. */
    [[nodiscard]] bool resolveRoot() VNLOG_EXCLUDES(StorageLock::role);
    /** Begins a run, which numbers its sections from 1; forgets what the one before has left open. */
    void beginRun() VNLOG_EXCLUDES(StorageLock::role);
    /** Frees those of the ring's bytes that a process that was killed has written to its section. */
    void settleRing() VNLOG_EXCLUDES(StorageLock::role);
    /**
     * Locks the root against other services and puts in order what is found there, see Recovery::prepare.
     * False: nothing can be stored. Without the storage lock: it may last, and nobody else changes the store
     * yet.
     */
    [[nodiscard]] bool prepare();
    /** Bookkeeping::save, with the oldest sections making room where there is none. */
    [[nodiscard]] bool saveNumbers() VNLOG_EXCLUDES(StorageLock::role);

    // --- stop

    /** Leaves the root to other services until something is stored again. */
    void leaveRoot() VNLOG_EXCLUDES(StorageLock::role);

    // --- commands

    /**
     * Moves the store to `root`, a folder that can be opened; a root that is waited for is so no more then.
     * The section that is open stays where it is; the flush thread finds that out at its next cut and goes on
     * under the new root. A failure, which is reported, and told in `reason` unless that is null, leaves all
     * as it was but for what lies under `root`.
     */
    [[nodiscard]] RootChangeStatus changeRoot(const char* root, std::string* reason = nullptr)
        VNLOG_EXCLUDES(StorageLock::role);
    /** The configured root that is to be used as soon as it can be opened, null when none is. Valid until the
     * next change of the root; for the holder of the command lock. */
    const char* awaitedRoot() const;
    /** The root in force; likewise. */
    const char* root() const;
    /** Its log folder; likewise. */
    const char* logFolder() const;
    /**
     * Changes the limits of StorageState: the bound in MiB, which is kept at once, or with the next cut where
     * one is pending or nothing is stored, and the size of a section in bytes, from the next section on. The
     * least amount deleted at a time follows where it would not fit them any more. False, reported, when the
     * stored log stays above the bound for now.
     */
    [[nodiscard]] bool setLimits(int32_t maxMiB, uint32_t sectionBytes) VNLOG_EXCLUDES(StorageLock::role);
    /** Whether a folder is the log folder or lies inside it, by way of links as well. */
    bool contains(const char* folder) const;
    /** Whether the path of `target` is one that copyTo takes. These three need no lock: only commands, which
     * call them, change the root. */
    bool copyTargetUsable(const char* target) const;
    /**
     * Copies the log folder `logs` into the folder `target`; the flush thread goes on meanwhile. Done: the
     * medium has it. Else `reason` tells why, and what was begun is left. `totals` tells what of the log
     * folder the copy has, 0 where nothing was begun.
     */
    [[nodiscard]] CopyStatus copyTo(const char* logs, const char* target, CopyTotals* totals,
                                    std::string* reason);
    /** Opens the current run's log of the older form, read-only; -1 when there is none. */
    int openOlderText() VNLOG_EXCLUDES(StorageLock::role);

    // --- status, any thread

    StoreCounts counts() const { return {mCuts, mRetention.deletions()}; }
    /** Lists the log folder. False, with nothing found, while a step of the store lasts, as on a medium that
     * hangs. */
    [[nodiscard]] bool extent(StoreExtent* found) VNLOG_EXCLUDES(StorageLock::role);

    // --- single steps, for whoever drives the store by hand

    [[nodiscard]] bool parseNumbers() VNLOG_EXCLUDES(StorageLock::role);
    [[nodiscard]] RebuildStatus rebuildNumbers() VNLOG_EXCLUDES(StorageLock::role);
    [[nodiscard]] DeleteStatus deleteOldest() VNLOG_EXCLUDES(StorageLock::role);
    [[nodiscard]] bool deleteAll() VNLOG_EXCLUDES(StorageLock::role);
    [[nodiscard]] RootStatus prepareRoot() VNLOG_EXCLUDES(StorageLock::role);
    [[nodiscard]] PrepareStatus closePreviousRun() VNLOG_EXCLUDES(StorageLock::role);

  private:
    struct Batch;

    SaveStatus append(Batch* batch) VNLOG_REQUIRES(StorageLock::role);
    SaveStatus appendAndCut(Batch* batch) VNLOG_REQUIRES(StorageLock::role);
    bool move(Batch* batch, uint32_t wanted) VNLOG_REQUIRES(StorageLock::role);
    void leaveLostSection() VNLOG_REQUIRES(StorageLock::role);
    bool claimRoot() VNLOG_REQUIRES(StorageLock::role);
    bool openSection() VNLOG_REQUIRES(StorageLock::role);
    bool openNext() VNLOG_REQUIRES(StorageLock::role);
    FileDescriptor openText() VNLOG_REQUIRES(StorageLock::role);
    bool resumeCut() VNLOG_REQUIRES(StorageLock::role);
    bool finishSection() VNLOG_REQUIRES(StorageLock::role);
    bool pointOldestAtFinishedSection() VNLOG_REQUIRES(StorageLock::role);
    bool keepBound() VNLOG_REQUIRES(StorageLock::role);
    Path oldestRun() const VNLOG_REQUIRES(StorageLock::role);
    void trimRuns(const Path& oldest) VNLOG_REQUIRES(StorageLock::role);
    bool findRoom() VNLOG_REQUIRES(StorageLock::role);
    void countFinished() VNLOG_REQUIRES(StorageLock::role);
    bool syncText() VNLOG_REQUIRES(StorageLock::role);
    bool syncClosedText() VNLOG_REQUIRES(StorageLock::role);
    void closeText() VNLOG_REQUIRES(StorageLock::role);
    void syncAndClose() VNLOG_REQUIRES(StorageLock::role);
    RootChangeStatus prepareAndMove(const char* root, std::string* reason) VNLOG_REQUIRES(StorageLock::role);
    RootChangeStatus renameRoot(const char* root) VNLOG_REQUIRES(StorageLock::role);
    void moveLock(RootLock* taken) VNLOG_REQUIRES(StorageLock::role);
    void lookAgain() VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    Mutex<StorageLock>& mLock;
    Ring& mRing;
    FileWork& mFiles;
    Bookkeeping mNumbers;
    Retention mRetention;
    Recovery mRecovery;
    RootChange mRootChange;
    RunFolders mFolders;
    SectionFiles mSections;
    RunList mRuns VNLOG_GUARDED_BY(StorageLock::role);
    RootLock mRoot VNLOG_GUARDED_BY(StorageLock::role);
    /// Held as long as the section is open that lies under the root before the present one.
    RootLock mEarlierRoot VNLOG_GUARDED_BY(StorageLock::role);
    Path mOpenText VNLOG_GUARDED_BY(StorageLock::role) = {}; ///< of the open section
    uint32_t mOpenSize VNLOG_GUARDED_BY(StorageLock::role) = 0; ///< size in bytes at which that is cut
    /// Noted after changes of ours; any other tells that somebody else was there.
    StoreWatch mWatch VNLOG_GUARDED_BY(StorageLock::role);
    /// The root was changed while a section was open.
    bool mRootChanged VNLOG_GUARDED_BY(StorageLock::role) = false;
    /// What lies under the root has not been put in order yet.
    bool mTakeOverPending VNLOG_GUARDED_BY(StorageLock::role) = false;
    /// The section is closed but not compressed.
    bool mCompressPending VNLOG_GUARDED_BY(StorageLock::role) = false;
    /// A try to compress the section failed.
    bool mFinishRetried VNLOG_GUARDED_BY(StorageLock::role) = false;
    std::atomic<uint32_t> mCuts{0};
    /// The bound did not hold after the last cut.
    bool mBoundPending VNLOG_GUARDED_BY(StorageLock::role) = false;
};

} // namespace vnlog
