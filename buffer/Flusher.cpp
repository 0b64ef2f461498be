// SPDX-License-Identifier: Apache-2.0
#include "buffer/Flusher.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"

#include <algorithm>
#include <utility>

namespace vnlog {

namespace {

constexpr unsigned kLongestPauseSeconds = 60;

uint32_t now() {
    return static_cast<uint32_t>(secondsOf(CLOCK_MONOTONIC)) | 1U; // never 0
}

/** A step of the target, which may last. */
class Busy {
  public:
    explicit Busy(std::atomic<uint32_t>& since) : mSince(since) { mSince = now(); }
    ~Busy() { mSince = 0; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

  private:
    std::atomic<uint32_t>& mSince;
};

} // namespace

uint32_t Flusher::busySeconds() const {
    uint32_t since = mBusySince;
    return since != 0 ? now() - since : 0;
}

void Flusher::run() {
    while (mState.mFlushThreadRunning) {
        if (!mRing.waitForWork(mSyncOwed ? mNextSync : 0))
            return;
        drainUntilDone();
    }
    mRing.reportUnwritten();
    mTarget.closeSection();
}

/** Drains until there is nothing to do or the thread is to end, with a pause after each failure. */
void Flusher::drainUntilDone() {
    unsigned pause = kFirstPauseSeconds;
    bool retry = false;
    while (mState.mFlushThreadRunning) {
        DrainStart start = mRing.beginDrain();
        mSyncOwed = mSyncOwed || start.sync;
        Drain drained = drain(retry, start);
        switch (drained) {
        case Drain::Idle:
        case Drain::Done:
            return;
        case Drain::Again: // what is left is offered at once; if that moves nothing, it has failed
            break;
        case Drain::Failed:
        case Drain::Full:
            ++mFailures;
            mRing.requestsFailed(start.requests);
            mRing.drainFailed(drained == Drain::Full);
            mTarget.closeSection();
            mRing.pause(pause, start.requests);
            pause = std::min(pause * 2, kLongestPauseSeconds);
            break;
        }
        retry = true;
    }
}

/** Writes out everything buffered if there is enough of it or somebody wants it; always when `retry` is set.
 */
Flusher::Drain Flusher::drain(bool retry, const DrainStart& start) {
    if (start.used == 0)
        return finish(start, Drain::Idle);
    if (!retry && !syncDue(start) && !mRing.drainWanted())
        return Drain::Idle;
    Drain outcome = save(start);
    if (outcome == Drain::Failed || outcome == Drain::Full)
        logError("error: failed to save log,please check it\n");
    return outcome;
}

Flusher::Drain Flusher::save(const DrainStart& start) {
    SaveResult result;
    {
        Busy busy(mBusySince);
        result = mTarget.save(start.used);
    }
    if (!mState.mFlushThreadRunning)
        return Drain::Done; // a stop came in between; what it left is no failure of the storage
    switch (result.status) {
    case SaveStatus::Saved:
        ++mFlushes;
        return finish(start, Drain::Done);
    case SaveStatus::WriteFailed:
        if (result.moved == 0)
            break;
        mRing.drainWorks();
        return Drain::Again;
    case SaveStatus::RootMoved:
        logError("error: failed to save log,please check it\n");
        return Drain::Again; // the new root is as good as any: no pause
    case SaveStatus::MediumFull:
        return Drain::Full;
    case SaveStatus::CutFailed:
        break;
    }
    return Drain::Failed;
}

/** Whether a sync is owed, and has not been put off or is waited for. */
bool Flusher::syncDue(const DrainStart& start) const {
    return mSyncOwed && (start.waitedFor || start.time >= mNextSync);
}

/** What was buffered is in the section; syncs that if it is wanted. */
Flusher::Drain Flusher::finish(const DrainStart& start, Drain done) {
    if (mAfresh.exchange(false)) {
        mNextSync = 0;
        mSyncPause = kFirstPauseSeconds;
    }
    SyncOutcome sync = syncDue(start) ? trySync() : SyncOutcome::NotTried;
    mRing.finishDrain(start, sync);
    if (sync == SyncOutcome::Failed)
        mRing.requestsFailed(start.requests);
    return done;
}

/**
 * A sync that fails is not repeated: what the medium has lost by that, it does not tell a second time. One
 * that nobody waits for has its pause after that, in which writing goes on; each would be reported, and a
 * report can ask for the next.
 */
SyncOutcome Flusher::trySync() {
    mSyncOwed = false;
    {
        Busy busy(mBusySince);
        mSyncFails = !mTarget.sync();
    }
    if (!mSyncFails) {
        mSyncPause = kFirstPauseSeconds;
        mNextSync = 0;
        return SyncOutcome::Done;
    }
    ++mFailures;
    mNextSync = steadyMilliseconds() + int64_t{mSyncPause} * 1000;
    mSyncPause = std::min(mSyncPause * 2, kLongestPauseSeconds);
    return SyncOutcome::Failed;
}

} // namespace vnlog
