// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "storage/StorageState.h"

#include <algorithm>
#include <cstdint>

namespace vnlog {

enum class RebuildStatus {
    Done = 0,
    NoLogFolder = -2, ///< the log folder or a run cannot be listed
    NoRunFolder = -3, ///< the current run cannot be listed
    NothingFound = -4, ///< no section is left that the numbers could begin with
    NotSaved = -5, ///< they hold in memory only
};

/**
 * The four bookkeeping numbers and their file. They are a short cut to what the folders tell, never the
 * truth. Every failure is reported.
 */
class Bookkeeping {
  public:
    explicit Bookkeeping(StorageState& state) : mState(state) {}

    /**
     * Writes the numbers beside log_storage.dat, syncs that and puts it in the file's place; where there is
     * no room for both, the old file goes first. False with errno set: the file may be gone then, never half
     * old.
     */
    [[nodiscard]] bool save() VNLOG_REQUIRES(StorageLock::role);
    /** Reads them. False when file or number is missing or out of range; numbers before that are taken. */
    [[nodiscard]] bool parse() VNLOG_REQUIRES(StorageLock::role);
    /** The same from an open file. */
    [[nodiscard]] bool parse(FileDescriptor file) VNLOG_REQUIRES(StorageLock::role);
    /** The numbers of a root without archived runs. */
    void reset() VNLOG_REQUIRES(StorageLock::role);
    /**
     * Sets them by what the folders hold, and saves them. NotSaved leaves the new numbers in memory; another
     * failure changes nothing.
     */
    [[nodiscard]] RebuildStatus rebuild() VNLOG_REQUIRES(StorageLock::role);
    /**
     * The same, but finding no section anywhere is no failure; also counts the finished sections of the
     * current run. Saves only what differs from before; a failure of that is reported. False, reported,
     * with errno set: the folders cannot be listed, nothing is changed.
     */
    [[nodiscard]] bool takeStock() VNLOG_REQUIRES(StorageLock::role);
    /** The same without saving anything; `differs` tells whether the numbers were other ones. */
    [[nodiscard]] bool recount(bool* differs) VNLOG_REQUIRES(StorageLock::role);
    /** Goes on with what others have counted for a state of their own. */
    void continueFrom(const Bookkeeping& other) {
        mOnMedium = other.mOnMedium;
        mAsRead = other.mAsRead;
    }
    /** Bytes that the store took on the medium when stock was last taken, with what came and went since. */
    uint64_t onMedium() const { return mOnMedium; }
    void addOnMedium(uint64_t bytes) { mOnMedium += bytes; }
    void takeOffMedium(uint64_t bytes) { mOnMedium -= std::min(bytes, mOnMedium); }

  private:
    struct Stock;

    RebuildStatus look(Stock* stock) VNLOG_REQUIRES(StorageLock::role);
    void take(const Stock& stock, uint32_t lastRun) VNLOG_REQUIRES(StorageLock::role);
    bool matches(const Stock& stock) VNLOG_REQUIRES(StorageLock::role);

    StorageState& mState;
    uint64_t mOnMedium = 0;
    bool mAsRead = false; ///< as the file tells them, which no stock has confirmed yet
};

} // namespace vnlog
