#pragma once

#include "storage/Bookkeeping.h"
#include "storage/FileWork.h"

#include <cstdint>

namespace vnlog {

enum class DeleteStatus {
    Done = 0,
    // In a run older than the newest:
    OlderSectionMissing = -1,
    OlderSectionStays = -2,
    OlderRunStays = -3,
    OlderRunHadMore = -4, ///< the run held more than its numbered sections and was removed whole
    // In the newest archived run:
    NewestSectionMissing = -5,
    NewestSectionStays = -6,
    NewestRunStays = -7,
    NewestRunHadMore = -8,
    // In the current run:
    TotalNotZero = -9, ///< no archived run is left, but the total says otherwise
    CurrentSectionMissing = -10,
    CurrentSectionStays = -11,
    NotSaved = -12,
    TailPastHead = -13, ///< the numbers cannot be right
};

enum class BoundStatus {
    Held,
    PassesSpent, ///< as many deletions as are tried did not suffice
    NumbersLost, ///< a deletion failed, and so did the rebuild of the numbers after it
};

/**
 * Deletes stored sections, oldest first, and keeps the bound that way. Every failure is reported; after one
 * the numbers may be ahead of their file, and a rebuild tells.
 */
class Retention {
  public:
    Retention(StorageState& state, Bookkeeping& numbers, FileWork& files)
        : mState(state), mNumbers(numbers), mFiles(files) {}

    /** Whether the archived runs and `more` bytes stay within the bound; all sums are modulo 2^32. */
    bool withinBound(uint32_t more) const VNLOG_REQUIRES(StorageLock::role);
    /** Deletes mLogDeleteSize bytes at least, or all that is finished. */
    [[nodiscard]] DeleteStatus deleteOldest() VNLOG_REQUIRES(StorageLock::role);
    /** Deletes every stored log and resets the numbers. False when those could not be saved. */
    bool deleteAll() VNLOG_REQUIRES(StorageLock::role);

    /** Deletes until the archived runs, the finished sections and one more full section fit. */
    [[nodiscard]] BoundStatus makeRoomForSection() VNLOG_REQUIRES(StorageLock::role);
    /**
     * At start: deletes until the archived runs and a full section fit, together with the `uncounted` bytes
     * of a run that the total does not hold yet; then counts those.
     */
    [[nodiscard]] BoundStatus makeRoomAtStart(uint32_t uncounted) VNLOG_REQUIRES(StorageLock::role);

  private:
    struct RunReports;

    DeleteStatus deleteStep(uint32_t* deleted, bool* lastGone) VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus deleteFromRun(const RunReports& reports, uint32_t* deleted)
        VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus removeEmptiedRun(const RunReports& reports) VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus deleteFromCurrent(uint32_t* deleted, bool* lastGone) VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    Bookkeeping& mNumbers;
    FileWork& mFiles;
};

} // namespace vnlog
