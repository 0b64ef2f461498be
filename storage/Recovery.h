#pragma once

#include "storage/Bookkeeping.h"
#include "storage/FileWork.h"
#include "storage/Retention.h"
#include "storage/RunFolders.h"

#include <cstdint>

namespace vnlog {

enum class PrepareStatus {
    Ready = 0,
    NoLogFolder = -1,
    CurrentUnreadable = -2,
    StaleArchiveStays = -3,
    NotCompressed = -4,
    NotCounted = -5,
    NumbersLost = -6, ///< the next run's number was taken, and the numbers could not be rebuilt
    NotArchived = -7,
    NoNewCurrent = -8,
    NoCurrent = -9,
    BoundNumbersLost = -10, ///< a deletion failed, and so did the rebuild after it
    BoundNotHeld = -11, ///< the deletion passes are spent
};

/**
 * What a start does with the store that it finds, in this order:
 *   openNumbers   puts the archived runs in order, then reads the bookkeeping or rebuilds it
 *   prepare       compresses and archives the previous run, keeps the bound, counts once more
 * docs/on-disk-format.md has a row for each state that is mended here. Every failure is reported.
 */
class Recovery {
  public:
    Recovery(StorageState& state, Bookkeeping& numbers, Retention& retention, FileWork& files);

    /** False when the numbers of a file that is there can neither be read nor rebuilt: the service does not
     * start then. */
    [[nodiscard]] bool openNumbers() VNLOG_REQUIRES(StorageLock::role);
    /** Closes off the previous run, if need be after deleting all logs. False: nothing can be stored. */
    [[nodiscard]] bool prepare() VNLOG_REQUIRES(StorageLock::role);
    /** Closes off the previous run: one try. */
    [[nodiscard]] PrepareStatus closePreviousRun() VNLOG_REQUIRES(StorageLock::role);

  private:
    // openNumbers
    void mendArchivedRuns() VNLOG_REQUIRES(StorageLock::role);
    void mendArchivedRun(const char* run) VNLOG_REQUIRES(StorageLock::role);
    void recoverMissingNumbers() VNLOG_REQUIRES(StorageLock::role);
    bool recoverNumbers() VNLOG_REQUIRES(StorageLock::role);
    // closePreviousRun
    PrepareStatus compressPreviousRun(uint32_t* size) VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus compressTexts(const char* run, uint32_t* size, bool* anyCompressed);
    PrepareStatus compressText(const char* run, const char* text);
    PrepareStatus archivePreviousRun() VNLOG_REQUIRES(StorageLock::role);
    PrepareStatus keepBound(uint32_t size) VNLOG_REQUIRES(StorageLock::role);
    // prepare
    void countOnceMore() VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    Bookkeeping& mNumbers;
    Retention& mRetention;
    FileWork& mFiles;
    RunFolders mFolders;
};

} // namespace vnlog
