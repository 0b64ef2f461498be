// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Console.h"
#include "base/Flag.h"
#include "base/Mutex.h"

#include <cstdint>

namespace vnlog {

/** The role of the lock on the counts of a source. Nothing is taken in it. */
struct CountLock {
    static LockRole role;
};

/** What has become of a line, by what the store has of it. */
enum class Fate {
    Filtered, ///< the settings do not want it stored
    Stored, ///< the ring has it
    Refused, ///< it was to be stored, and was not taken or could not be made a line
};

/**
 * A source's lines since the service was built; for Android's log these are entries, whatever number of lines
 * an entry makes. At any moment read = queued + filtered + stored + refused.
 */
struct SourceTotals {
    uint64_t read = 0;
    uint64_t queued = 0; ///< read, and nothing has become of them yet
    uint64_t filtered = 0;
    uint64_t stored = 0;
    uint64_t refused = 0;
    uint64_t shown = 0; ///< on the console
    uint64_t notShown = 0; ///< the console did not take them
};

/** Counts on the source's thread, and tells any other. */
class SourceCounts {
  public:
    /** The source is read as long as this is in scope. What is not settled at its end never will be. */
    class Run {
      public:
        explicit Run(SourceCounts& counts) : mCounts(counts) { mCounts.mReading = true; }
        ~Run() { mCounts.endRun(); }
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;

      private:
        SourceCounts& mCounts;
    };
    bool reading() const { return mReading; }
    /** Lines were read. */
    void take(uint32_t lines) VNLOG_EXCLUDES(CountLock::role) {
        LockGuard<CountLock> lock(mLock);
        mTotals.read += lines;
        mTotals.queued += lines;
    }
    /** One of them has met its fate. */
    void settle(Fate fate) VNLOG_EXCLUDES(CountLock::role) {
        LockGuard<CountLock> lock(mLock);
        --mTotals.queued;
        ++(fate == Fate::Stored    ? mTotals.stored
           : fate == Fate::Refused ? mTotals.refused
                                   : mTotals.filtered);
    }
    /** One was offered to the console. */
    void show(Shown shown) VNLOG_EXCLUDES(CountLock::role) {
        LockGuard<CountLock> lock(mLock);
        ++(shown == Shown::Whole ? mTotals.shown : mTotals.notShown);
    }
    SourceTotals totals() const VNLOG_EXCLUDES(CountLock::role) {
        LockGuard<CountLock> lock(mLock);
        return mTotals;
    }

  private:
    void endRun() VNLOG_EXCLUDES(CountLock::role) {
        mReading = false;
        LockGuard<CountLock> lock(mLock);
        mTotals.refused += mTotals.queued;
        mTotals.queued = 0;
    }

    Flag mReading{false};
    mutable Mutex<CountLock> mLock;
    SourceTotals mTotals VNLOG_GUARDED_BY(CountLock::role);
};

} // namespace vnlog
