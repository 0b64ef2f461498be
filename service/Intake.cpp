// SPDX-License-Identifier: Apache-2.0
#include "service/Intake.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "binder/Command.h"
#include "service/Lifecycle.h"

namespace vnlog {

bool Intake::inService() const {
    return mService.mFlushThreadRunning;
}

bool Intake::put(const char* line, uint32_t length, int rank) {
    if (!append(line, length))
        return false;
    if (rank >= mService.mFlushPriority && mService.mFlushPriority < ANDROID_LOG_SILENT)
        mRing.flushUrgent();
    return true;
}

void Intake::lost(Loss why, uint32_t lines) {
    LockGuard<LossLock> lock(mLossLock);
    if (!mGivenUp || mMissed)
        mRing.losses().add(why, lines);
}

bool Intake::append(const void* bytes, uint32_t length) {
    const char* text = static_cast<const char*>(bytes);
    if (leaveOut(text, length) != Wish::Stored)
        return false;
    PutResult result = mRing.put(bytes, length);
    if (result.status == PutStatus::Stored)
        return true;
    if (result.status == PutStatus::NotInService)
        miss(text, length); // storing may have been given up since the look before
    if (result.status != PutStatus::StorageFull)
        return false; // counted by the ring
    giveUpStoring(result); // outside the ring: this ends in a stop, which waits for all to leave it
    if (leaveOut(text, length) == Wish::Stored)
        lost(Loss::StorageFull, countLines(text, length)); // storing has come back already
    return false;
}

Wish Intake::leaveOut(const char* line, uint32_t length) {
    if (!mGivenUp)
        return Wish::Stored;
    LockGuard<LossLock> lock(mLossLock);
    if (mGivenUp && mMissed)
        mRing.losses().add(Loss::StorageFull, countLines(line, length));
    return !mGivenUp ? Wish::Stored : mMissed ? Wish::Missed : Wish::NotStored;
}

void Intake::miss(const char* line, uint32_t length) {
    if (leaveOut(line, length) == Wish::Stored && mUnprepared)
        lost(Loss::Refused, countLines(line, length));
}

void Intake::beginRun() {
    LockGuard<LossLock> lock(mLossLock);
    mUnprepared = mGivenUp = mMissed = mOwnSwitchOff = false;
    mService.mStorageFull = false;
}

/** False when somebody else is doing it, or has done it. */
bool Intake::beginGivingUp() {
    LockGuard<LossLock> lock(mLossLock);
    if (mGivenUp)
        return false;
    mGivenUp = mMissed = mOwnSwitchOff = true;
    mService.mStorageFull = true;
    return true;
}

/** Switches file output off and stops the flush thread. */
void Intake::giveUpStoring(const PutResult& full) {
    CancelGuard guard;
    if (!beginGivingUp())
        return;
    if (mService.logCMD(CMD_NAND_FILE_OUTPUT, kNo) < 0)
        logError("Failed to close the log storage \n");
    logError("Storage path space is insufficient,free space (%zd),need space (%zd)\n",
             static_cast<ssize_t>(full.freeBytes), static_cast<ssize_t>(full.usedBytes));
    if (!mLifecycle.stopStoring())
        logError("Failed to stop the service \n");
}

/*
 * Of two such commands since storing was given up, one is that of giving up; which of them came first does
 * not matter.
 */
bool Intake::forgo() {
    LockGuard<LossLock> lock(mLossLock);
    if (!mGivenUp)
        return false;
    if (mOwnSwitchOff) {
        mOwnSwitchOff = false;
        return false;
    }
    mMissed = false;
    mService.mStorageFull = false;
    return true;
}

void Intake::reportLost() {
    Losses& losses = mRing.losses();
    if (uint32_t lines = losses.untold(Loss::StorageFull))
        logError("%u lines were not stored while the storage was full\n", lines);
    for (Loss why : {Loss::Refused, Loss::TooLong, Loss::Dropped, Loss::Unread}) {
        if (uint32_t lines = losses.untold(why))
            logError("%u lines were not stored: %s\n", lines, lossText(why));
    }
}

void Intake::tellOlderLoss() {
    if (mRing.resumed() || mRing.losses().untold(Loss::StorageFull) > 0)
        return; // the number is known, and told
    constexpr char kLine[] = "--------- lines lost here: the storage was full until the restart\n";
    (void)mRing.put(kLine, sizeof kLine - 1); // into an empty ring
}

uint32_t Intake::resume() {
    LockGuard<LossLock> lock(mLossLock);
    uint32_t lost = mRing.losses().untold(Loss::StorageFull);
    mRing.announce();
    mService.mKLogToFile = true; // before lines are let in: a reader that saw it off asks once more then
    mService.mALogToFile = true;
    mService.mStorageFull = false;
    mGivenUp = mMissed = mOwnSwitchOff = false;
    return lost;
}

} // namespace vnlog
