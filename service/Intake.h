// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/Ring.h"
#include "sources/LineSink.h"

#include <cstdint>

namespace vnlog {

class Lifecycle;
class LogService;

/** The role of the lock on what was lost since storing was given up. Nothing but the ring's is taken in it.
 */
struct LossLock {
    static LockRole role;
};

/**
 * The one door into the ring for the readers' lines. Gives storing up when the medium has no room left; from
 * then on it takes nothing, and counts the lines that are lost by that, until storing is begun again.
 */
class Intake final : public LineSink {
  public:
    /** All must outlive the intake. */
    Intake(LogService& service, Ring& ring, Lifecycle& lifecycle)
        : mService(service), mRing(ring), mLifecycle(lifecycle) {}

    bool inService() const override;
    bool put(const char* line, uint32_t length, int rank) override;
    /** Counts lines as lost, unless storing was given up and is not wanted any more. */
    void lost(Loss why, uint32_t lines) override VNLOG_EXCLUDES(LossLock::role);
    Wish leaveOut(const char* line, uint32_t length) override VNLOG_EXCLUDES(LossLock::role);
    void miss(const char* line, uint32_t length) override VNLOG_EXCLUDES(LossLock::role);
    /** Appends one record. False, reported where the ring does, when it is not taken. */
    bool append(const void* bytes, uint32_t length);

    // --- for comeback and life cycle, with the command lock held

    /** A new run: nothing is given up. */
    void beginRun() VNLOG_EXCLUDES(LossLock::role);
    bool givenUp() const { return mGivenUp; }
    /** While the storage that a start found unusable is waited for, lines that are not taken are lost. */
    void awaitStorage(bool awaited) { mUnprepared = awaited; }
    /** Says how many lines were lost that no line in the store tells of yet: the service ends. */
    void reportLost();
    /** Begins a run's log with a line that tells that an earlier run has given storing up, unless it is known
     * how many lines that has lost. */
    void tellOlderLoss();
    /**
     * File output is switched off. True when that is the user's wish about a storing that was given up:
     * nobody waits for room any more, and what is not stored from now on is not lost.
     */
    bool forgo() VNLOG_EXCLUDES(LossLock::role);
    /**
     * Switches file output on and takes lines again, into a ring that is new and drained. The first is one
     * that tells how many were lost to the full storage, which is the result.
     */
    uint32_t resume() VNLOG_EXCLUDES(LossLock::role);

  private:
    void giveUpStoring(const PutResult& full);
    bool beginGivingUp() VNLOG_EXCLUDES(LossLock::role);

    LogService& mService;
    Ring& mRing;
    Lifecycle& mLifecycle;
    Mutex<LossLock> mLossLock;
    Flag mUnprepared{false};
    Flag mGivenUp{false}; ///< changes under the lock
    bool mMissed VNLOG_GUARDED_BY(LossLock::role) = false; ///< the user wants lines stored all the same
    bool mOwnSwitchOff VNLOG_GUARDED_BY(LossLock::role) = false; ///< the command of giving up is yet to come
};

} // namespace vnlog
