#include "buffer/Flusher.h"

#include "base/Diagnostics.h"

#include <algorithm>
#include <utility>

namespace vnlog {

namespace {

constexpr unsigned kFirstPauseSeconds = 1;
constexpr unsigned kLongestPauseSeconds = 60;

} // namespace

void Flusher::run() {
    while (mState.mFlushThreadRunning) {
        if (!mRing.waitForWork())
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
        case Drain::NotSynced: // writing works, so that the writers may wait
        case Drain::Failed:
        case Drain::Full:
            ++mFailures;
            mRing.requestsFailed(start.requests);
            if (drained != Drain::NotSynced)
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
    if (!retry && !mSyncOwed && !mRing.drainWanted())
        return Drain::Idle;
    Drain outcome = save(start);
    if (outcome == Drain::Failed || outcome == Drain::Full)
        logError("error: failed to save log,please check it\n");
    return outcome;
}

Flusher::Drain Flusher::save(const DrainStart& start) {
    SaveResult result = mTarget.save(start.used);
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

/** What was buffered is in the section; syncs that if it is wanted. One sync that fails is not repeated: what
 * the medium has lost by that, it does not tell a second time. */
Flusher::Drain Flusher::finish(const DrainStart& start, Drain done) {
    bool owed = std::exchange(mSyncOwed, false);
    SyncOutcome sync = !owed ? SyncOutcome::NotTried : mTarget.sync() ? SyncOutcome::Done : SyncOutcome::Failed;
    mRing.finishDrain(start, sync);
    return sync == SyncOutcome::Failed ? Drain::NotSynced : done;
}

} // namespace vnlog
