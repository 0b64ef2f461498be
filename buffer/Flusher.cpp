#include "buffer/Flusher.h"

#include "base/Diagnostics.h"

#include <algorithm>

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
        uint32_t requestsSeen = mRing.requests();
        Drain drained = drain(retry, requestsSeen);
        switch (drained) {
        case Drain::Idle:
        case Drain::Done:
            return;
        case Drain::Again: // what is left is offered at once; if that moves nothing, it has failed
            break;
        case Drain::Failed:
        case Drain::Full:
            mRing.drainFailed(drained == Drain::Full);
            mTarget.closeSection();
            mRing.pause(pause, requestsSeen);
            pause = std::min(pause * 2, kLongestPauseSeconds);
            break;
        }
        retry = true;
    }
}

/** Writes out everything buffered if there is enough of it or somebody wants it; always when `retry` is set.
 */
Flusher::Drain Flusher::drain(bool retry, uint32_t requestsSeen) {
    uint32_t used = mRing.used();
    if (used == 0) {
        mRing.drainWorks();
        mRing.forgetRequest(requestsSeen);
        return Drain::Idle;
    }
    if (!retry && !mRing.drainWanted())
        return Drain::Idle;

    SaveResult result = mTarget.save(used);
    if (!mState.mFlushThreadRunning)
        return Drain::Done; // a stop came in between; what it left is no failure of the storage
    Drain outcome = Drain::Failed;
    switch (result.status) {
    case SaveStatus::Saved:
        mRing.drainWorks();
        mRing.forgetRequest(requestsSeen);
        return Drain::Done;
    case SaveStatus::WriteFailed:
        if (result.moved > 0) {
            mRing.drainWorks();
            return Drain::Again;
        }
        break;
    case SaveStatus::RootMoved:
        outcome = Drain::Again; // the new root is as good as any: no pause
        break;
    case SaveStatus::MediumFull:
        outcome = Drain::Full;
        break;
    case SaveStatus::CutFailed:
        break;
    }
    logError("error: failed to save log,please check it\n");
    return outcome;
}

} // namespace vnlog
