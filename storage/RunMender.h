// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "storage/FileWork.h"
#include "storage/Listing.h"
#include "storage/SectionFiles.h"
#include "storage/StorageState.h"

namespace vnlog {

/** Frees room on the medium for those who find none. */
class RoomMaker {
  public:
    /** Deletes something that may go. False when there is nothing more, or nothing can be deleted. */
    virtual bool freeOldest() VNLOG_REQUIRES(StorageLock::role) = 0;

  protected:
    ~RoomMaker() = default;
};

/**
 * Puts runs in order: afterwards each archived one holds a section, as far as that can be had.
 * docs/on-disk-format.md has a row for each state that is mended. Failures are reported; what is left is
 * tried again the next time. `room` is asked where the medium has none, unless it is null.
 */
class RunMender {
  public:
    RunMender(StorageState& state, FileWork& files) : mState(state), mSections(files) {}

    /** Mends every archived run. */
    void mendAll(RoomMaker* room) VNLOG_REQUIRES(StorageLock::role);
    /**
     * Ends the texts of one run, gives a log of the older form a number, and removes archives that were not
     * finished. A text that cannot be compressed stays. False with errno set, reported, when the folder
     * cannot be listed.
     */
    [[nodiscard]] bool closeTexts(const char* run, RoomMaker* room) VNLOG_REQUIRES(StorageLock::role);

  private:
    void mend(const char* run, RoomMaker* room) VNLOG_REQUIRES(StorageLock::role);
    void closeText(const char* run, const StoredEntry& entry, const char* text, RoomMaker* room)
        VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    SectionFiles mSections;
};

} // namespace vnlog
