#include "service/Intake.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "base/Text.h"
#include "binder/Command.h"
#include "service/Lifecycle.h"

#include <algorithm>
#include <cstring>

namespace vnlog {

bool Intake::inService() const {
    return mService.mFlushThreadRunning;
}

bool Intake::put(const char* line, uint32_t length, int rank) {
    if (!append(line, length))
        return false;
    if (rank >= mService.mFlushPriority && mService.mFlushPriority < ANDROID_LOG_SILENT)
        mRing.requestFlush();
    return true;
}

void Intake::lost(Loss, uint32_t lines) {
    addLost(lines);
}

bool Intake::append(const void* bytes, uint32_t length) {
    const char* text = static_cast<const char*>(bytes);
    if (leaveOut(text, length))
        return false;
    PutResult result = mRing.put(bytes, length);
    if (result.status == PutStatus::Stored)
        return true;
    if (result.status == PutStatus::StorageFull)
        giveUpStoring(result); // outside the ring: this ends in a stop, which waits for all to leave it
    (void)leaveOut(text, length); // it is the first one that is lost, or one that waited meanwhile
    return false;
}

bool Intake::leaveOut(const char* line, uint32_t length) {
    if (!mGivenUp)
        return false;
    LockGuard<LossLock> lock(mLossLock);
    if (mGivenUp && mMissed)
        mLost += static_cast<uint32_t>(std::count(line, line + length, '\n'));
    return mGivenUp;
}

void Intake::beginRun() {
    LockGuard<LossLock> lock(mLossLock);
    mGivenUp = mMissed = mOwnSwitchOff = false;
    mLost = 0;
    mService.mStorageFull = false;
}

void Intake::addLost(uint32_t lines) {
    LockGuard<LossLock> lock(mLossLock);
    mLost += lines;
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
    LockGuard<LossLock> lock(mLossLock);
    if (mLost > 0)
        logError("%u lines were not stored while the storage was full\n", mLost);
    mLost = 0;
}

void Intake::tellOlderLoss() {
    constexpr char kLine[] = "--------- lines lost here: the storage was full until the restart\n";
    (void)mRing.put(kLine, sizeof kLine - 1); // into an empty ring
}

uint32_t Intake::resume() {
    LockGuard<LossLock> lock(mLossLock);
    uint32_t lost = mLost;
    char line[80];
    formatText(line, "--------- %u lines lost here: the storage was full\n", lost);
    (void)mRing.put(line, static_cast<uint32_t>(std::strlen(line))); // into an empty ring
    mService.mKLogToFile = true; // before lines are let in: a reader that saw it off asks once more then
    mService.mALogToFile = true;
    mService.mStorageFull = false;
    mGivenUp = mMissed = mOwnSwitchOff = false;
    mLost = 0;
    return lost;
}

} // namespace vnlog
