#include "storage/Store.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace vnlog {

/** What of a batch is still to be moved, and how that went so far. */
struct Store::Batch {
    uint32_t left;
    uint32_t moved = 0;
    bool writeFailed = false;
};

Store::Store(StorageState& state, Mutex<StorageLock>& lock, Ring& ring, FileWork& files,
             const platform::SystemRoot& systemRoot)
    : mState(state), mLock(lock), mRing(ring), mFiles(files), mNumbers(state),
      mRetention(state, mNumbers, files), mRootChange(state, systemRoot, mNumbers, mRetention, files),
      mRecovery(state, mNumbers, mRetention, files) {}

Store::~Store() {
    closeSection();
    LockGuard<StorageLock> lock(mLock);
    std::free(mState.mSavePath);
    mState.mSavePath = nullptr;
}

SaveResult Store::save(uint32_t count) {
    LockGuard<StorageLock> lock(mLock);
    Batch batch{count};
    bool saved = append(&batch);
    bool rootMoved = mRootChanged && !saved;
    mRootChanged = mRootChanged && saved; // the cut that it makes fail is over
    if (!saved)
        return {rootMoved ? SaveStatus::RootMoved : SaveStatus::CutFailed, batch.moved};
    return {batch.writeFailed ? SaveStatus::WriteFailed : SaveStatus::Saved, batch.moved};
}

bool Store::append(Batch* batch) {
    if (!resumeCut())
        return false;
    if (mState.mLogFd < 0 && !openSection()) {
        logError("fail to save log,because fd is abnormal\n");
        logErrno();
        return false;
    }
    if (mState.mCurLogSize + batch->left > mState.mLogSectionSize)
        return appendAndCut(batch);
    mState.mCurLogSize += move(batch, batch->left);
    return true;
}

/** Fills the section up, ends it, and puts the rest of the batch into the next one. */
bool Store::appendAndCut(Batch* batch) {
    // A file that is over-full already takes the whole batch, so that no batch is cut twice.
    bool overFull = mState.mCurLogSize > mState.mLogSectionSize;
    uint32_t room = overFull ? batch->left : mState.mLogSectionSize - mState.mCurLogSize;
    (void)move(batch, std::min(room, batch->left)); // the next section begins its count anew
    closeDescriptor(mState.mLogFd);
    mState.mLogFd = -1;
    mCompressPending = true;
    if (!finishSection() || !keepBound())
        return false;
    if (!openSection()) {
        logError("fail to open log file !\n");
        logErrno();
        return false;
    }
    mState.mCurLogSize += move(batch, batch->left);
    return true;
}

/** Moves up to `wanted` buffered bytes into the open section. The ring reports a failed write; the flusher
 * tries again. */
uint32_t Store::move(Batch* batch, uint32_t wanted) {
    TakeResult taken = mRing.take(mState.mLogFd, wanted);
    batch->writeFailed = batch->writeFailed || taken.status == TakeStatus::WriteFailed;
    batch->moved += taken.count;
    batch->left -= taken.count;
    return taken.count;
}

/**
 * Opens the active section. A file that exists already, of a save that failed or from before a change of the
 * root, is continued at its end.
 */
bool Store::openSection() {
    FileDescriptor file =
        openFile(sectionText(mState.mCurrentDir, mState.mSliceNum).text, O_WRONLY | O_CREAT, kSectionMode);
    if (!file.valid())
        return false;
    off_t end = lseek(file.get(), 0, SEEK_END);
    if (end < 0)
        return false;
    mState.mCurLogSize = static_cast<uint32_t>(end);
    mState.mLogFd = file.release();
    return true;
}

/**
 * Ends a cut that failed before anything more is written: the section would grow past its size, or the store
 * past its bound, with every try.
 */
bool Store::resumeCut() {
    // After a change of the root the closed section lies under the old one and stays uncompressed.
    if (mCompressPending && pathExists(sectionText(mState.mCurrentDir, mState.mSliceNum).text) &&
        !finishSection())
        return false;
    mCompressPending = false;
    return !mBoundPending || keepBound();
}

/** Compresses the closed section, counts it and goes on to the next number. */
bool Store::finishSection() {
    Path text = sectionText(mState.mCurrentDir, mState.mSliceNum);
    Path archive = sectionArchive(mState.mCurrentDir, mState.mSliceNum);
    if (pathExists(text.text))
        (void)unlink(
            archive.text); // of a compression that was cut off; with it in place the next would refuse
    if (!mFiles.compress(text.text)) {
        logError("fail to Compress log files %d log!\n", static_cast<int>(mState.mSliceNum));
        return false;
    }
    mCompressPending = false;
    syncArchive(mState.mCurrentDir, archive.text);
    mState.mCurrentTotalSize += fileSize(archive.text);
    bool pointed = pointOldestAtFinishedSection();
    ++mState.mSliceNum; // in any case: the number is taken by the finished section
    return pointed;
}

/** Makes the section just finished the oldest one when nothing older survives. False when that is not saved.
 */
bool Store::pointOldestAtFinishedSection() {
    bool olderSurvives = mState.mTailFolderNum != mState.mHeadFolderNum ||
                         pathExists(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text) ||
                         pathExists(sectionArchive(mState.mCurrentDir, mState.mOldestFileNum).text);
    if (olderSurvives)
        return true;
    mState.mOldestFileNum = mState.mSliceNum;
    if (mNumbers.save())
        return true;
    logError("[saveLogSection] storage data failed to save !\n");
    return false;
}

/** Deletes until another full section fits. False: to be tried again before more is written. */
bool Store::keepBound() {
    mBoundPending = mRetention.makeRoomForSection() != BoundStatus::Held;
    return !mBoundPending;
}

void Store::closeSection() {
    LockGuard<StorageLock> lock(mLock);
    syncAndClose();
}

void Store::syncAndClose() {
    if (mState.mLogFd == -1)
        return;
    fsync(mState.mLogFd);
    closeDescriptor(mState.mLogFd);
    mState.mLogFd = -1;
}

bool Store::resolveRoot() {
    LockGuard<StorageLock> lock(mLock);
    return mRootChange.resolve();
}

void Store::beginRun() {
    LockGuard<StorageLock> lock(mLock);
    syncAndClose();
    mState.mSliceNum = 1;
    mState.mCurLogSize = 0;
    mState.mCurrentTotalSize = 0;
    mRootChanged = mCompressPending = mBoundPending = false;
}

bool Store::openNumbers() VNLOG_UNCHECKED {
    return mRecovery.openNumbers();
}

bool Store::prepare() VNLOG_UNCHECKED {
    return mRecovery.prepare();
}

bool Store::saveNumbers() {
    LockGuard<StorageLock> lock(mLock);
    return mNumbers.save();
}

void Store::changeRoot(const char* root) {
    if (isRoot(root))
        return;
    LockGuard<StorageLock> lock(mLock);
    mRootChanged = mRootChanged || mState.mLogFd >= 0;
    mBoundPending = false;
    mRootChange.take(root);
}

// The next two are for commands, which alone change what they read.

bool Store::isRoot(const char* root) const VNLOG_UNCHECKED {
    return mState.mSavePath != nullptr && std::strcmp(root, mState.mSavePath) == 0;
}

const char* Store::logFolder() const VNLOG_UNCHECKED {
    return mState.mLogServiceDir;
}

bool Store::copyTargetUsable(const char* target) const {
    return shellSafe(target) && mFiles.copyFits(logFolder(), target);
}

bool Store::copyTo(const char* target) {
    return mFiles.copyTree(logFolder(), target);
}

int Store::openOlderText() {
    Path text;
    {
        LockGuard<StorageLock> lock(mLock);
        formatText(text.text, "%s", mState.mCurrentLogFile);
    }
    return openFile(text.text, O_RDONLY).release();
}

bool Store::parseNumbers() {
    LockGuard<StorageLock> lock(mLock);
    return mNumbers.parse();
}

RebuildStatus Store::rebuildNumbers() {
    LockGuard<StorageLock> lock(mLock);
    return mNumbers.rebuild();
}

DeleteStatus Store::deleteOldest() {
    LockGuard<StorageLock> lock(mLock);
    return mRetention.deleteOldest();
}

bool Store::deleteAll() {
    LockGuard<StorageLock> lock(mLock);
    return mRetention.deleteAll();
}

RootStatus Store::prepareRoot() {
    LockGuard<StorageLock> lock(mLock);
    return mRootChange.prepare();
}

PrepareStatus Store::closePreviousRun() {
    LockGuard<StorageLock> lock(mLock);
    return mRecovery.closePreviousRun();
}

} // namespace vnlog
