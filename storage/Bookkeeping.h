#pragma once

#include "storage/StorageState.h"

namespace vnlog {

enum class RebuildStatus {
    Done = 0,
    NoLogFolder = -2, ///< the log folder cannot be listed
    NoRunFolder = -3, ///< the oldest run, or the current one, cannot be listed
    NothingFound = -4, ///< no finished section is left that the numbers could begin with
    NotSaved = -5, ///< they hold in memory only
};

/**
 * The four bookkeeping numbers and their file. They are a short cut to what the folders tell, never the
 * truth. Every failure is reported.
 */
class Bookkeeping {
  public:
    explicit Bookkeeping(StorageState& state) : mState(state) {}

    /** Writes the numbers to log_storage.dat and syncs it. */
    [[nodiscard]] bool save() VNLOG_REQUIRES(StorageLock::role);
    /** Reads them. False when the file or a number is missing or out of range; numbers before that are taken.
     */
    [[nodiscard]] bool parse() VNLOG_REQUIRES(StorageLock::role);
    /** The numbers of a root without archived runs. */
    void reset() VNLOG_REQUIRES(StorageLock::role);
    /** Sets them by what the folders hold, and saves them. NotSaved leaves the new numbers in memory; another
     * failure changes nothing. */
    [[nodiscard]] RebuildStatus rebuild() VNLOG_REQUIRES(StorageLock::role);
    /** Resets and saves them when no section is stored anywhere. False when there is one, or nothing is
     * known. */
    [[nodiscard]] bool startAnew() VNLOG_REQUIRES(StorageLock::role);
    /**
     * Whether the numbers say what the folders do. They do not when a deletion or a start was cut off before
     * it could save them. A run newer than the newest known is left to the archiving, which finds it.
     */
    [[nodiscard]] bool matchesFolders() VNLOG_REQUIRES(StorageLock::role);

  private:
    StorageState& mState;
};

} // namespace vnlog
