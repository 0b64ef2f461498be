// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/Bookkeeping.h"
#include "storage/FileWork.h"
#include "storage/Retention.h"
#include "storage/RunFolders.h"
#include "storage/RunMender.h"

#include <cstdint>
#include <utility>

namespace vnlog {

enum class PrepareStatus {
    Ready = 0,
    NoLogFolder = -1,
    CurrentUnreadable = -2, ///< it cannot be listed, or is none of ours
    NotCounted = -5, ///< the runs cannot be listed, or there is no number for a new one
    NotArchived = -7,
    NoNewCurrent = -8,
    NoCurrent = -9,
    NotDeleted = -10, ///< the bound does not hold: a section cannot be deleted
    Contradiction = -11, ///< the bound does not hold: the folders name sections that are not there
};

/**
 * What a start or a change of the root does with the store that it finds: puts the archived runs in order,
 * compares the bookkeeping with the folders, compresses and archives the previous run, keeps the bound.
 * Deletes for that and for room on the medium only. docs/on-disk-format.md has a row for each state that is
 * mended here. Every failure is reported.
 */
class Recovery {
  public:
    Recovery(StorageState& state, Bookkeeping& numbers, Retention& retention, FileWork& files);

    /**
     * At start, and whenever that is tried again. False: nothing can be stored; errno tells why where the
     * system did. A store that contradicts itself is moved aside once, see damagedFolder.
     */
    [[nodiscard]] bool prepare() VNLOG_REQUIRES(StorageLock::role);
    /** Takes over what an earlier use of a root has left: mends, takes stock, closes its current run off. */
    [[nodiscard]] PrepareStatus takeOver() VNLOG_REQUIRES(StorageLock::role);
    /** Closes off the previous run, with the oldest sections making room where there is none. */
    [[nodiscard]] PrepareStatus closePreviousRun() VNLOG_REQUIRES(StorageLock::role);

    /** The number under which a run was archived since the last call, 0 for none. */
    uint32_t takeArchived() { return std::exchange(mArchived, 0); }

  private:
    void readNumbers() VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus tryToClose() VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus closeCurrent() VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus archiveCurrent() VNLOG_REQUIRES(StorageLock::role);
    bool chooseNumber(uint32_t* number) VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus keepBound() VNLOG_REQUIRES(StorageLock::role);
    bool setAside() VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    Bookkeeping& mNumbers;
    Retention& mRetention;
    FileWork& mFiles;
    RunFolders mFolders;
    RunMender mMender;
    uint32_t mArchived = 0;
};

} // namespace vnlog
