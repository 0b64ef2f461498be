// SPDX-License-Identifier: Apache-2.0
#include "storage/RunFolders.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Listing.h"

#include <cerrno>
#include <sys/stat.h>

namespace vnlog {

namespace {

/** Makes a folder and brings its name to the medium. False, reported, with errno set. */
bool makeFolder(const char* path, const char* report) {
    if (mkdir(path, kFolderMode) == 0 && syncFolderOf(path))
        return true;
    int error = errno;
    logError("%s", report);
    logErrno(error);
    logError("[%s] cannot be made\n", path);
    errno = error;
    return false;
}

} // namespace

bool RunFolders::makeLogFolder() {
    OwnFolder found = ownFolder(mState.mLogServiceDir);
    return found == OwnFolder::Ours ||
           (found == OwnFolder::Missing &&
            makeFolder(mState.mLogServiceDir, "fail to create log_service storage! \n"));
}

bool RunFolders::makeCurrent() {
    return makeFolder(mState.mCurrentDir, "fail to create current log storage !\n");
}

bool RunFolders::makeMissing() {
    if (!makeLogFolder())
        return false;
    OwnFolder current = ownFolder(mState.mCurrentDir);
    return current == OwnFolder::Ours || (current == OwnFolder::Missing && makeCurrent());
}

bool RunFolders::numberFree(uint32_t number) {
    Path run = runFolder(mState.mLastDirPrefix, number);
    if (nameTaken(run.text)) {
        logError("backup dest folder(%s) exists, try a new folder !\n", run.text);
        return false;
    }
    logDebug("backup dest folder(%s) not exists, backup here\n", run.text);
    return true;
}

bool RunFolders::archiveCurrent(uint32_t number) {
    Path run = runFolder(mState.mLastDirPrefix, number);
    if (!mFiles.moveFolder(mState.mCurrentDir, run.text) || !syncFolderOf(run.text)) {
        int error = errno;
        logError("fail to back up last log !\n");
        errno = error;
        return false;
    }
    mState.mHeadFolderNum = number;
    if (!pathExists(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text))
        mState.mTailFolderNum = number;
    return true;
}

bool RunFolders::renumber() {
    logError("the numbers of the runs are near their end: the runs are numbered anew\n");
    uint32_t least = 1; // a run 0 keeps its number
    uint32_t free = 1;
    for (uint32_t run; nextRun(mState.mLogServiceDir, least, &run); least = run + 1) {
        while (free < run && nameTaken(runFolder(mState.mLastDirPrefix, free).text))
            ++free;
        if (free < run && !moveRun(run, free))
            return false;
    }
    return true;
}

bool RunFolders::moveRun(uint32_t from, uint32_t to) {
    Path run = runFolder(mState.mLastDirPrefix, to);
    return mFiles.moveFolder(runFolder(mState.mLastDirPrefix, from).text, run.text) && syncFolderOf(run.text);
}

} // namespace vnlog
