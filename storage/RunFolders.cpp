#include "storage/RunFolders.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <sys/stat.h>

namespace vnlog {

bool RunFolders::makeLogFolder() {
    if (pathExists(mState.mLogServiceDir) || mkdir(mState.mLogServiceDir, kFolderMode) == 0)
        return true;
    logError("fail to create log_service storage! \n");
    logErrno();
    return false;
}

bool RunFolders::makeCurrent() {
    if (mkdir(mState.mCurrentDir, kFolderMode) == 0)
        return true;
    logError("fail to create current log storage !\n");
    logErrno();
    return false;
}

bool RunFolders::numberFree(uint32_t number) {
    Path run = runFolder(mState.mLastDirPrefix, number);
    if (pathExists(run.text)) {
        logError("backup dest folder(%s) exists, try a new folder !\n", run.text);
        return false;
    }
    logDebug("backup dest folder(%s) not exists, backup here\n", run.text);
    return true;
}

bool RunFolders::archiveCurrent(uint32_t number) {
    if (!mFiles.moveFolder(mState.mCurrentDir, runFolder(mState.mLastDirPrefix, number).text)) {
        logError("fail to back up last log !\n");
        return false;
    }
    mState.mHeadFolderNum = number;
    if (!pathExists(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text))
        mState.mTailFolderNum = number;
    return true;
}

void syncArchive(const char* run, const char* archive) {
    if (syncPath(archive) && syncPath(run))
        return;
    logError("fail to sync [%s]\n", archive);
    logErrno();
}

} // namespace vnlog
