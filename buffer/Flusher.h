// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/Ring.h"

#include <cstdint>

namespace vnlog {

enum class SaveStatus {
    Saved,
    WriteFailed, ///< a write failed; `moved` bytes had gone before it
    CutFailed, ///< the section could not be ended or the next one not opened
    MediumFull, ///< either, because the medium has no room and nothing is left to be deleted
    RootMoved, ///< the same, because the root was changed while the section was open: worth another try at
               ///< once
};

/** What became of a batch. */
struct SaveResult {
    SaveStatus status;
    uint32_t moved = 0; ///< bytes that left the ring
};

/** Where the flush thread puts the batches. */
class BatchTarget {
  public:
    /** Moves `count` bytes out of the ring. Reports its failures. */
    virtual SaveResult save(uint32_t count) = 0;
    /** Brings what save has moved to the medium, name and all. False, reported, when that fails. */
    virtual bool sync() = 0;
    /** Syncs and closes what save has left open. */
    virtual void closeSection() = 0;

  protected:
    ~BatchTarget() = default;
};

/** How often the ring was written out, or that or a sync failed; modulo 2^32. */
struct FlushCounts {
    uint32_t flushes, failures;
};

/**
 * The flush thread's work: decides when the ring is drained, and how long to wait after a failure, from one
 * second doubling to sixty.
 */
class Flusher {
  public:
    Flusher(const RingState& state, Ring& ring, BatchTarget& target)
        : mState(state), mRing(ring), mTarget(target) {}

    /** Runs until the thread is to end; what is left in the ring then is reported, and dropped unless it
     * outlives the process. Ends as well, reported, when waiting is not possible; what is left stays then. */
    void run();
    /** Any thread. */
    FlushCounts counts() const { return {mFlushes, mFailures}; }
    /** Whether the last sync failed. Any thread. */
    bool syncFails() const { return mSyncFails; }
    /** The target is another medium: what is known of its syncs does not hold any more. Any thread. */
    void beginAfresh() {
        mSyncFails = false;
        mAfresh = true;
    }
    /** For how many seconds a step of the target has lasted; 0 without one. Any thread. */
    uint32_t busySeconds() const;

  private:
    static constexpr unsigned kFirstPauseSeconds = 1;

    enum class Drain { Idle, Done, Again, Failed, Full };

    void drainUntilDone();
    Drain drain(bool retry, const DrainStart& start);
    Drain save(const DrainStart& start);
    Drain finish(const DrainStart& start, Drain done);
    bool syncDue(const DrainStart& start) const;
    SyncOutcome trySync();

    const RingState& mState;
    Ring& mRing;
    BatchTarget& mTarget;
    int64_t mNextSync = 0; ///< monotonic clock in milliseconds before which none is tried
    unsigned mSyncPause = kFirstPauseSeconds; ///< after the next one that fails
    bool mSyncOwed = false; ///< wanted by a request that no drain has served yet
    std::atomic<uint32_t> mFlushes{0}, mFailures{0};
    std::atomic<uint32_t> mBusySince{0}; ///< monotonic clock in seconds, 0 when it is not
    Flag mSyncFails{false}, mAfresh{false};
};

} // namespace vnlog
