// SPDX-License-Identifier: Apache-2.0
#include "storage/Store.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/FileSteps.h"
#include "storage/Layout.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

/** Whether a folder is the outer one or lies inside it, by way of links as well. */
bool liesIn(const char* outerFolder, const char* folder) {
    Text inner(realpath(folder, nullptr)), outer(realpath(outerFolder, nullptr));
    size_t length = outer != nullptr ? std::strlen(outer.get()) : 0;
    return inner != nullptr && length > 0 && std::strncmp(inner.get(), outer.get(), length) == 0 &&
           (inner.get()[length] == '/' || inner.get()[length] == '\0');
}

void reportSync(const char* path) {
    logError("fail to sync [%s]\n", path);
    logErrno();
}

} // namespace

/** What of a batch is still to be moved, and how that went so far. */
struct Store::Batch {
    uint32_t left;
    uint32_t moved = 0;
    int error = 0; ///< errno of the step that failed
};

Store::Store(StorageState& state, Mutex<StorageLock>& lock, Ring& ring, FileWork& files,
             const platform::SystemRoot& systemRoot)
    : mState(state), mLock(lock), mRing(ring), mFiles(files), mNumbers(state),
      mRetention(state, mNumbers, files), mRecovery(state, mNumbers, mRetention, files),
      mRootChange(state, systemRoot, mRecovery), mFolders(state, files), mSections(files), mRuns(systemRoot) {
}

Store::~Store() {
    closeSection();
    LockGuard<StorageLock> lock(mLock);
    mRoot.release();
    std::free(std::exchange(mState.mSavePath, nullptr));
    std::free(std::exchange(mState.mConfiguredPath, nullptr));
}

SaveResult Store::save(uint32_t count) {
    LockGuard<StorageLock> lock(mLock);
    mRuns.watchClock(mState.mLogServiceDir);
    Batch batch{count};
    SaveStatus status = append(&batch);
    while (status != SaveStatus::Saved && lackOfRoom(batch.error) && findRoom()) {
        batch.error = 0;
        status = append(&batch);
    }
    if (status == SaveStatus::CutFailed && mRootChanged)
        status = SaveStatus::RootMoved;
    else if (status != SaveStatus::Saved && lackOfRoom(batch.error))
        status = SaveStatus::MediumFull;
    mRootChanged = mRootChanged && mState.mLogFd >= 0;
    return {status, batch.moved};
}

/** Does something about a medium that has no room. False when nothing can be done. */
bool Store::findRoom() {
    if (!mRootChanged) {
        const Path oldest = oldestRun();
        bool freed = mRoot.isAt(mState.mSavePath) && mRetention.freeOldest();
        trimRuns(oldest);
        return freed;
    }
    syncAndClose(); // it is the old root that is full: what is left goes to the new one
    return true;
}

SaveStatus Store::append(Batch* batch) {
    leaveLostSection();
    errno = 0;
    if (!resumeCut()) {
        batch->error = errno;
        return SaveStatus::CutFailed;
    }
    if (mState.mLogFd < 0 && !openSection()) {
        batch->error = errno;
        logError("fail to save log,because fd is abnormal\n");
        logErrno(batch->error);
        return SaveStatus::CutFailed;
    }
    if (mState.mCurLogSize + batch->left > mOpenSize)
        return appendAndCut(batch);
    return move(batch, batch->left) ? SaveStatus::Saved : SaveStatus::WriteFailed;
}

/** Fills the section up, ends it, and puts the rest of the batch into the next one. */
SaveStatus Store::appendAndCut(Batch* batch) {
    // A file that is over-full already takes the whole batch, so that no batch is cut twice.
    bool overFull = mState.mCurLogSize > mOpenSize;
    uint32_t room = overFull ? batch->left : mOpenSize - mState.mCurLogSize;
    if (!move(batch, std::min(room, batch->left)))
        return SaveStatus::WriteFailed; // a section is not ended before it is full
    errno = 0;
    if (mRootChanged) { // the section stays where it is, for the next start there
        (void)syncText(); // reported there
        closeText();
        logError("fail to Compress log files %d log!\n", static_cast<int>(mState.mSliceNum));
        return SaveStatus::CutFailed;
    }
    closeText();
    mCompressPending = true;
    if (!finishSection() || !keepBound()) {
        batch->error = errno;
        return SaveStatus::CutFailed;
    }
    if (!openNext()) { // the root was claimed for the end of the one before
        batch->error = errno;
        logError("fail to open log file !\n");
        logErrno(batch->error);
        return SaveStatus::CutFailed;
    }
    return move(batch, batch->left) ? SaveStatus::Saved : SaveStatus::WriteFailed;
}

/** Moves up to `wanted` buffered bytes into the open section. The ring reports a failed write. */
bool Store::move(Batch* batch, uint32_t wanted) {
    TakeResult taken = mRing.take(mState.mLogFd, wanted);
    batch->moved += taken.count;
    batch->left -= taken.count;
    mState.mCurLogSize += taken.count;
    batch->error = taken.error;
    return taken.count == wanted; // less also when a stop comes in between
}

/** Gives an open section up whose file is not in its place any more: nobody would find its text. */
void Store::leaveLostSection() {
    struct stat open, there;
    if (mState.mLogFd < 0 || mOpenText.text[0] == '\0' || fstat(mState.mLogFd, &open) != 0)
        return;
    if (lstat(mOpenText.text, &there) == 0 && open.st_dev == there.st_dev && open.st_ino == there.st_ino)
        return;
    logError("[%s] is gone; storing goes on in a new section\n", mOpenText.text);
    closeText();
    mRootChanged = false;
}

/**
 * Sees to it that the root is there, is nobody else's, and has its folders; another folder that has come to
 * its place is taken over with what it holds.
 */
bool Store::claimRoot() {
    if (mState.mSavePath == nullptr)
        return true; // the folder is given by hand
    if (!mRoot.isAt(mState.mSavePath)) {
        bool hadOther = mRoot.held();
        if (mRoot.take(mState.mSavePath) != RootLock::Status::Held)
            return false;
        if (hadOther)
            logError("[%s] is another folder than before\n", mState.mSavePath);
        mTakeOverPending = mTakeOverPending || hadOther;
    }
    if (!mTakeOverPending)
        return mFolders.makeMissing();
    mTakeOverPending = mRootChange.prepare() != RootStatus::Ready;
    if (!mTakeOverPending && mRuns.begun())
        mRuns.begin(mState.mLogServiceDir, mState.mHeadFolderNum, mRecovery.takeArchived(), mState.mSavePath);
    return !mTakeOverPending;
}

/**
 * Opens the active section. A file that exists already, of a save that failed or from before a change of the
 * root, is continued at its end.
 */
bool Store::openSection() {
    if (!claimRoot())
        return false;
    lookAgain();
    return openNext();
}

/** Does so under a root that has just been claimed and looked at. */
bool Store::openNext() {
    FileDescriptor file = openText();
    off_t end = file.valid() ? lseek(file.get(), 0, SEEK_END) : -1;
    if (end < 0)
        return false;
    mOpenText = sectionText(mState.mCurrentDir, mState.mSliceNum);
    mState.mCurLogSize = static_cast<uint32_t>(end);
    mOpenSize = mState.mLogSectionSize;
    mState.mLogFd = file.release();
    mWatch.note(mState.mLogServiceDir);
    return true;
}

/** Opens the text of the section, under the next free number where the names of this one are taken. */
FileDescriptor Store::openText() {
    constexpr int kFlags = O_WRONLY | O_CREAT;
    if (nameTaken(sectionArchive(mState.mCurrentDir, mState.mSliceNum).text))
        mState.mSliceNum = freeSection(mState.mCurrentDir, mState.mSliceNum + 1);
    FileDescriptor file =
        openOwnFile(sectionText(mState.mCurrentDir, mState.mSliceNum).text, kFlags, kSectionMode);
    int error = errno;
    bool taken = !file.valid() && !lackOfRoom(error) && !mayPass(error) &&
                 nameTaken(sectionText(mState.mCurrentDir, mState.mSliceNum).text);
    errno = error;
    if (!taken)
        return file;
    // What has the name is nothing of ours.
    mState.mSliceNum = freeSection(mState.mCurrentDir, mState.mSliceNum + 1);
    return openOwnFile(sectionText(mState.mCurrentDir, mState.mSliceNum).text, kFlags, kSectionMode);
}

/** Counts anew when somebody else has changed the store. */
void Store::lookAgain() {
    if (mWatch.changed(mState.mLogServiceDir))
        (void)mNumbers.takeStock(); // reported there; the sums from before are the next best
}

/**
 * Ends a cut that failed before anything more is written: the section would grow past its size, or the store
 * past its bound, with every try.
 */
bool Store::resumeCut() {
    if (mCompressPending)
        return finishSection() && keepBound();
    if (!mBoundPending)
        return true;
    if (!claimRoot())
        return false;
    lookAgain();
    return keepBound();
}

/** Compresses the closed section, counts it and goes on to the next number. */
bool Store::finishSection() {
    if (!claimRoot())
        return false;
    lookAgain();
    if (!pathExists(sectionText(mState.mCurrentDir, mState.mSliceNum).text)) {
        logError("[%s] is gone\n", sectionText(mState.mCurrentDir, mState.mSliceNum).text);
        mCompressPending = false;
        return true;
    }
    if (!mSections.finish(mState.mCurrentDir, &mState.mSliceNum, mRuns.origin())) {
        logError("fail to Compress log files %d log!\n", static_cast<int>(mState.mSliceNum));
        mWatch.forget(); // how far it came is found out by the next try
        mFinishRetried = true;
        return false;
    }
    mCompressPending = false;
    ++mCuts;
    mBoundPending = true; // until it is known to hold
    countFinished();
    bool pointed = pointOldestAtFinishedSection();
    ++mState.mSliceNum; // in any case: the number is taken by the finished section
    return pointed;
}

/** Adds the archive that was just made, unless a try before may have been counted. */
void Store::countFinished() {
    struct stat info;
    if (mFinishRetried) {
        (void)mNumbers.takeStock(); // reported there
    } else if (lstat(sectionArchive(mState.mCurrentDir, mState.mSliceNum).text, &info) == 0) {
        mState.mCurrentTotalSize += static_cast<uint32_t>(info.st_size);
        mNumbers.addOnMedium(bytesOnMedium(info));
    }
    mFinishRetried = false;
}

/** Makes the section just finished the oldest one when nothing older survives. False: not saved. */
bool Store::pointOldestAtFinishedSection() {
    RunContent content;
    bool olderSurvives =
        mState.mTailFolderNum != mState.mHeadFolderNum || mState.mTotalLogSize != 0 ||
        pathExists(sectionArchive(mState.mCurrentDir, mState.mOldestFileNum).text) ||
        (lookIntoRun(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text, &content, Look::Names) &&
         content.holdsSection());
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
    const Path oldest = oldestRun();
    mBoundPending = mRetention.makeRoom(Occasion::Cut) != BoundStatus::Held;
    trimRuns(oldest);
    return !mBoundPending;
}

/** The folder of the oldest archived run, empty without one. */
Path Store::oldestRun() const {
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    return nameTaken(run.text) ? run : Path{};
}

/** Takes the runs off the list that have been deleted, if the one that was the oldest is gone. */
void Store::trimRuns(const Path& oldest) {
    if (oldest.text[0] != '\0' && !nameTaken(oldest.text))
        mRuns.trim(mState.mLogServiceDir);
}

void Store::closeSection() {
    LockGuard<StorageLock> lock(mLock);
    syncAndClose();
    (void)syncClosedText(); // reported there
}

bool Store::sync() {
    LockGuard<StorageLock> lock(mLock);
    return mState.mLogFd >= 0 ? syncText() : syncClosedText();
}

/** Brings a section that is closed but not compressed to the medium: it may stay the only form for long. */
bool Store::syncClosedText() {
    if (!mCompressPending)
        return true;
    Path text = sectionText(mState.mCurrentDir, mState.mSliceNum);
    if (syncPath(text.text) && syncFolderOf(text.text))
        return true;
    reportSync(text.text);
    return false;
}

/** Closes the open text, and with that leaves the root before the present one. */
void Store::closeText() {
    closeDescriptor(mState.mLogFd);
    mState.mLogFd = -1;
    mOpenText = {};
    mEarlierRoot.release();
}

/** Brings the open text to the medium, name and all. */
bool Store::syncText() {
    if (fsync(mState.mLogFd) == 0 && (mOpenText.text[0] == '\0' || syncFolderOf(mOpenText.text)))
        return true;
    reportSync(mOpenText.text);
    return false;
}

void Store::syncAndClose() {
    if (mState.mLogFd == -1)
        return;
    (void)syncText(); // reported there
    closeText();
    mRootChanged = false;
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
    mRootChanged = mCompressPending = mBoundPending = mTakeOverPending = mFinishRetried = false;
    mWatch.forget();
    mRuns.forget();
}

void Store::settleRing() {
    LockGuard<StorageLock> lock(mLock);
    if (!mRing.interrupted())
        return;
    Listing listing(mState.mCurrentDir);
    StoredEntry entry;
    while (listing.valid() && listing.next(&entry)) {
        Path path;
        if (entry.kind != NameKind::PlainText || !entry.isSection() || !listing.path(entry, &path))
            continue;
        FileDescriptor text = openOwnFile(path.text, O_RDONLY);
        if (text.valid() && mRing.freeWritten(text.get()))
            return;
    }
    logError("[%s] does not show how much of the last batch it holds, which is stored once more\n",
             mState.mCurrentDir);
}

bool Store::prepare() VNLOG_UNCHECKED {
    bool free = mRoot.take(mState.mSavePath) != RootLock::Status::Taken;
    if (free && mRecovery.prepare()) { // without a root it says where it fails
        if (!mRuns.begun()) // else a step after this one failed
            mRuns.begin(mState.mLogServiceDir, mState.mHeadFolderNum, mRecovery.takeArchived());
        mWatch.note(mState.mLogServiceDir);
        return true;
    }
    mRoot.release();
    logError("nothing is stored under [%s] for now\n", mState.mSavePath);
    return false;
}

void Store::leaveRoot() {
    LockGuard<StorageLock> lock(mLock);
    mRuns.end(mState.mLogServiceDir, kRunStopped);
    mWatch.forget();
    mRoot.release();
}

bool Store::saveNumbers() {
    LockGuard<StorageLock> lock(mLock);
    bool saved = mNumbers.save();
    while (!saved && lackOfRoom(errno) && findRoom())
        saved = mNumbers.save();
    return saved;
}

RootChangeStatus Store::changeRoot(const char* root, std::string* reason) {
    LockGuard<StorageLock> lock(mLock);
    bool there = mState.mSavePath != nullptr && std::strcmp(root, mState.mSavePath) == 0;
    std::string unheard;
    RootChangeStatus status =
        there ? RootChangeStatus::Unchanged : prepareAndMove(root, reason != nullptr ? reason : &unheard);
    if (status == RootChangeStatus::Done || status == RootChangeStatus::Unchanged)
        std::free(std::exchange(mState.mConfiguredPath, nullptr)); // which `root` may be
    return status;
}

RootChangeStatus Store::prepareAndMove(const char* root, std::string* reason) {
    if (mRoot.isAt(root))
        return renameRoot(root);
    const bool back = mEarlierRoot.isAt(root); // where the open section is: it is closed off with its run
    RootLock taken;
    RootLock::Status locked = back ? RootLock::Status::Held : taken.take(root);
    if (locked == RootLock::Status::Taken) {
        *reason = lastErrorHere();
        return RootChangeStatus::Taken;
    }
    if (back)
        syncText();
    RootTrial trial(mState, mFiles);
    RootStatus result = locked == RootLock::Status::Held ? trial.prepare(root) : RootStatus::NoLogFolder;
    if (result != RootStatus::Ready) {
        *reason = lastErrorHere();
        logError("error: failed to init log storage, ret=%d\n", static_cast<int>(result));
        leaveLostSection(); // its run may have been closed off before the step that failed
        return RootChangeStatus::NotPrepared;
    }
    logDebug("STORAGE_PATH changed (%s ==> %s)\n", mState.mSavePath, root);
    Path before;
    formatText(before.text, "%s", mState.mSavePath);
    mRuns.end(mState.mLogServiceDir, kRunMoved);
    trial.apply(&mState, &mNumbers);
    if (mRuns.begun())
        mRuns.begin(mState.mLogServiceDir, mState.mHeadFolderNum, trial.takeArchived(), before.text);
    moveLock(back ? &mEarlierRoot : &taken);
    mBoundPending = mCompressPending = mFinishRetried = false; // a section that was cut stays where it is
    mTakeOverPending = false;
    mWatch.note(mState.mLogServiceDir);
    return RootChangeStatus::Done;
}

/** Goes on in the same folder, which has another path. */
RootChangeStatus Store::renameRoot(const char* root) {
    if (!mRootChange.rename(root))
        return RootChangeStatus::NotPrepared;
    if (mState.mLogFd >= 0 && !mRootChanged)
        mOpenText = sectionText(mState.mCurrentDir, mState.mSliceNum);
    lookAgain();
    return RootChangeStatus::Done;
}

/** Keeps the root before as long as its section is open, unless that one is the new root. */
void Store::moveLock(RootLock* taken) {
    if (taken == &mEarlierRoot) {
        mRoot.release();
        mRoot = std::move(mEarlierRoot);
        closeText();
        mRootChanged = false;
        return;
    }
    if (mState.mLogFd >= 0 && !mRootChanged) {
        mEarlierRoot = std::move(mRoot);
        mRootChanged = true;
    }
    mRoot.release();
    mRoot = std::move(*taken);
}

bool Store::setLimits(int32_t maxMiB, uint32_t sectionBytes) {
    LockGuard<StorageLock> lock(mLock);
    mState.mMaxLogSize = maxMiB;
    mState.mLogSectionSize = sectionBytes;
    uint32_t half = static_cast<uint32_t>(maxMiB) << 19; // of the bound
    mState.mLogDeleteSize = std::clamp(mState.mLogDeleteSize, sectionBytes, std::max(half, sectionBytes));
    if (mCompressPending || !mRoot.isAt(mState.mSavePath)) { // the next cut sees to it
        mBoundPending = true;
        return true;
    }
    lookAgain();
    bool held = keepBound();
    mWatch.note(mState.mLogServiceDir);
    return held;
}

// The next three are for commands, which alone change what they read.

const char* Store::awaitedRoot() const VNLOG_UNCHECKED {
    return mState.mConfiguredPath;
}

const char* Store::root() const VNLOG_UNCHECKED {
    return mState.mSavePath;
}

const char* Store::logFolder() const VNLOG_UNCHECKED {
    return mState.mLogServiceDir;
}

bool Store::contains(const char* folder) const {
    return liesIn(logFolder(), folder);
}

bool Store::copyTargetUsable(const char* target) const {
    return shellSafe(target) && mFiles.copyFits(logFolder(), target);
}

CopyStatus Store::copyTo(const char* logs, const char* target, CopyTotals* totals, std::string* reason) {
    *totals = {};
    auto failed = [&](CopyStatus status) {
        char text[128];
        *reason = strerror_r(errno, text, sizeof text);
        return status;
    };
    errno = ENAMETOOLONG;
    if (!copyTargetUsable(target) || !Folder(target).valid())
        return failed(CopyStatus::NoFolder);
    Path copy = entryPath(target, kLogFolder);
    errno = EINVAL;
    if (liesIn(logs, target) || liesIn(logs, copy.text))
        return failed(CopyStatus::Inside);
    CopyTotals stored, replaced;
    addUpTree(AT_FDCWD, logs, &stored);
    addUpTree(AT_FDCWD, copy.text, &replaced);
    errno = ENOSPC;
    if (stored.bytes > availableBytes(target) + replaced.bytes)
        return failed(CopyStatus::NoRoom);
    if (mFiles.copyTree(logs, target, totals))
        return CopyStatus::Done;
    return failed(lackOfRoom(errno) ? CopyStatus::NoRoom : CopyStatus::Partial);
}

bool Store::extent(StoreExtent* found) VNLOG_UNCHECKED {
    constexpr int kPatienceMs = 100;
    PatientLockGuard<StorageLock> lock(mLock, kPatienceMs);
    if (!lock.held())
        return false;
    StoreExtent extent{};
    const bool open = mState.mLogFd >= 0 && !mRootChanged; // else it is no part of this root
    extent.bytes =
        uint64_t{mState.mTotalLogSize} + mState.mCurrentTotalSize + (open ? mState.mCurLogSize : 0);
    extent.bound = static_cast<uint64_t>(std::max(mState.mMaxLogSize, 0)) << 20;
    Listing listing(mState.mLogServiceDir);
    StoredEntry entry;
    extent.oldestRun = kNoNumber;
    while (listing.valid() && listing.next(&entry)) {
        if (!entry.isRun())
            continue;
        ++extent.runs;
        extent.oldestRun = std::min(extent.oldestRun, entry.number);
        extent.newestRun = std::max(extent.newestRun, entry.number);
    }
    extent.oldestRun = extent.runs > 0 ? extent.oldestRun : 0;
    RunContent current;
    (void)lookIntoRun(mState.mCurrentDir, &current, Look::Names); // without a folder there are none
    extent.sections = current.archives + (open ? 1 : 0);
    extent.freeBytes = mState.mSavePath != nullptr ? availableBytes(mState.mSavePath) : 0;
    *found = extent;
    return true;
}

int Store::openOlderText() {
    Path text;
    {
        LockGuard<StorageLock> lock(mLock);
        formatText(text.text, "%s", mState.mCurrentLogFile);
    }
    return openOwnFile(text.text, O_RDONLY).release();
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
