// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/Bookkeeping.h"
#include "storage/RunMender.h"

#include <atomic>
#include <cstdint>

namespace vnlog {

enum class DeleteStatus {
    Done = 0,
    // In a run older than the newest:
    OlderSectionMissing = -1,
    OlderSectionStays = -2,
    OlderRunStays = -3,
    OlderRunHadMore = -4, ///< the run held more than sections and was removed whole, or tried to be
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

/** When room is made; the reports differ. */
enum class Occasion { Start, Cut };

enum class BoundStatus {
    Held, ///< or only blocks are above it that no deletion frees
    NotDeleted, ///< nothing more could be deleted; errno tells why, if the system did
    NotCounted, ///< the folders cannot be listed; errno tells why
    Contradiction, ///< the folders name sections that are not there, also after a repair
};

/**
 * Deletes stored sections, oldest first, and keeps the bound that way: on their bytes, and at twice that on
 * the blocks that the store takes on the medium. What is deleted is looked up. Every failure is reported.
 */
class Retention final : public RoomMaker {
  public:
    Retention(StorageState& state, Bookkeeping& numbers, FileWork& files)
        : mState(state), mNumbers(numbers), mFiles(files), mMender(state, files) {}

    /**
     * Deletes mLogDeleteSize bytes at least, or twice that in blocks, or all that is finished. After a
     * failure the numbers may be ahead of their file; stock is to be taken then.
     */
    [[nodiscard]] DeleteStatus deleteOldest() VNLOG_REQUIRES(StorageLock::role);
    /** Sections that have been deleted one by one; any thread. */
    uint32_t deletions() const { return mDeletions; }
    /** Deletes every stored log and resets the numbers. False when those could not be saved. */
    bool deleteAll() VNLOG_REQUIRES(StorageLock::role);

    /** Deletes until all that is finished and one more full section fit. */
    [[nodiscard]] BoundStatus makeRoom(Occasion occasion) VNLOG_REQUIRES(StorageLock::role);
    /**
     * Frees room on the medium: what was set aside as damaged goes first, then the oldest sections,
     * mLogDeleteSize bytes at a time. False when nothing is left to delete, or nothing can be.
     */
    [[nodiscard]] bool freeOldest() override VNLOG_REQUIRES(StorageLock::role);

  private:
    struct RunReports;

    DeleteStatus deleteSome() VNLOG_REQUIRES(StorageLock::role);
    bool saveDeleted() VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus deleteStep(uint32_t* deleted, bool* lastGone) VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus deleteFromRun(const RunReports& reports, uint32_t* deleted)
        VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus removeEmptiedRun(const RunReports& reports) VNLOG_REQUIRES(StorageLock::role);
    DeleteStatus deleteFromCurrent(uint32_t* deleted, bool* lastGone) VNLOG_REQUIRES(StorageLock::role);
    bool removeCounted(const char* path, uint32_t* size);
    bool removeWhole(const char* run);
    void noteResistance();
    void findOldest() VNLOG_REQUIRES(StorageLock::role);
    uint64_t bound() const;
    bool bytesFit() const VNLOG_REQUIRES(StorageLock::role);
    bool fits() const VNLOG_REQUIRES(StorageLock::role);
    uint64_t stored() const VNLOG_REQUIRES(StorageLock::role);
    bool removeDamaged() VNLOG_REQUIRES(StorageLock::role);
    bool pass(Occasion occasion, bool* freed) VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    Bookkeeping& mNumbers;
    FileWork& mFiles;
    RunMender mMender;
    std::atomic<uint32_t> mDeletions{0};
    bool mUnsaved = false; ///< deletions have changed the numbers since they were saved
    int mError = 0; ///< of the last removal that the system refused
    bool mResisted = false; ///< what is listed could not be removed although the system did not refuse
};

} // namespace vnlog
