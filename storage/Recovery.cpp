// SPDX-License-Identifier: Apache-2.0
#include "storage/Recovery.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Listing.h"

#include <algorithm>
#include <cerrno>

namespace vnlog {

namespace {

constexpr int kNumberRetries = 10; ///< counted down in the report of a taken number

} // namespace

Recovery::Recovery(StorageState& state, Bookkeeping& numbers, Retention& retention, FileWork& files)
    : mState(state), mNumbers(numbers), mRetention(retention), mFiles(files), mFolders(state, files),
      mMender(state, files) {}

bool Recovery::prepare() {
    readNumbers();
    PrepareStatus result = takeOver();
    if (result == PrepareStatus::Contradiction) {
        logError("error: init_Log_Storage failed, ret=%d,try to delete all the logs\n",
                 static_cast<int>(result));
        result = setAside() ? takeOver() : result;
    }
    if (result == PrepareStatus::Ready)
        return true;
    logError("error: failed to init log storage, ret=%d. please check it\n", static_cast<int>(result));
    logError("log save thread will not start!\n");
    return false;
}

/** Reads the bookkeeping file; what it does not tell, the folders do. */
void Recovery::readNumbers() {
    bool read = false;
    if (nameTaken(mState.mStorageDataFile))
        read = mNumbers.parse();
    else
        logError("[%s] the stored data does not exist!\n", mState.mStorageDataFile);
    if (!read)
        mNumbers.reset();
}

PrepareStatus Recovery::takeOver() {
    if (!mFolders.makeLogFolder())
        return PrepareStatus::NoLogFolder;
    if (!mNumbers.takeStock()) // for the deletions that the mending may need
        return PrepareStatus::NotCounted;
    mMender.mendAll(&mRetention);
    return closePreviousRun();
}

PrepareStatus Recovery::closePreviousRun() {
    for (;;) {
        errno = 0;
        PrepareStatus result = tryToClose();
        if (result == PrepareStatus::Ready || !lackOfRoom(errno) || !mRetention.freeOldest())
            return result;
    }
}

PrepareStatus Recovery::tryToClose() {
    if (!mFolders.makeLogFolder())
        return PrepareStatus::NoLogFolder;
    PrepareStatus result = closeCurrent();
    if (result != PrepareStatus::Ready)
        return result;
    // Whatever the steps before have left in the numbers ends here.
    return mNumbers.takeStock() ? keepBound() : PrepareStatus::NotCounted;
}

/** Compresses what the previous run left as text, archives it, and makes an empty folder for this one. */
PrepareStatus Recovery::closeCurrent() {
    switch (ownFolder(mState.mCurrentDir)) {
    case OwnFolder::Missing:
        return mFolders.makeCurrent() ? PrepareStatus::Ready : PrepareStatus::NoCurrent;
    case OwnFolder::Refused:
        return PrepareStatus::CurrentUnreadable;
    case OwnFolder::Ours:
        break;
    }
    FolderState content = folderState(mState.mCurrentDir);
    if (content == FolderState::Empty)
        return PrepareStatus::Ready;
    if (content == FolderState::Unreadable || !mMender.closeTexts(mState.mCurrentDir, &mRetention))
        return PrepareStatus::CurrentUnreadable;
    return archiveCurrent();
}

/** Moves the previous run's folder to the next free number and makes a new one. */
PrepareStatus Recovery::archiveCurrent() {
    uint32_t number = 0;
    if (!chooseNumber(&number))
        return PrepareStatus::NotCounted;
    if (!mFolders.archiveCurrent(number))
        return PrepareStatus::NotArchived;
    mArchived = number;
    return mFolders.makeCurrent() ? PrepareStatus::Ready : PrepareStatus::NoNewCurrent;
}

/** Chooses a number above those of all runs that nothing else has. False when the runs cannot be counted. */
bool Recovery::chooseNumber(uint32_t* number) {
    RunTotals runs;
    bool renumbered = false;
    int retries = kNumberRetries;
    for (*number = mState.mHeadFolderNum + 1;; ++*number) {
        if (*number >= kNoNumber) {
            if (renumbered || !mFolders.renumber() || !countRuns(mState.mLogServiceDir, &runs))
                return false;
            renumbered = true;
            *number = runs.newest + 1;
        }
        if (mFolders.numberFree(*number))
            return true;
        // Below a newer run no number is right, free or not.
        if (!countRuns(mState.mLogServiceDir, &runs))
            return false;
        *number = std::max(*number, runs.newest);
        logDebug("Try to fix the log data ,try (%d) times \n", retries);
        retries = std::max(retries - 1, 0);
    }
}

/** Deletes until the archived runs and a section fit. */
PrepareStatus Recovery::keepBound() {
    switch (mRetention.makeRoom(Occasion::Start)) {
    case BoundStatus::Held:
        logDebug("total size is [%zd] \n", static_cast<ssize_t>(mState.mTotalLogSize));
        return PrepareStatus::Ready;
    case BoundStatus::NotDeleted:
        return PrepareStatus::NotDeleted;
    case BoundStatus::NotCounted:
        return PrepareStatus::NotCounted;
    case BoundStatus::Contradiction:
        break;
    }
    return PrepareStatus::Contradiction;
}

/** Moves the whole store aside, in the place of one that was before, so that an empty one can be begun. */
bool Recovery::setAside() {
    Path damaged = damagedFolder(mState.mLogServiceDir);
    logError("[%s] contradicts itself and is moved to [%s]\n", mState.mLogServiceDir, damaged.text);
    if (!mFiles.removeTree(damaged.text) || !mFiles.moveFolder(mState.mLogServiceDir, damaged.text) ||
        !syncFolderOf(damaged.text))
        return false;
    mNumbers.reset();
    return true;
}

} // namespace vnlog
