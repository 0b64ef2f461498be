#include "service/Diagnostics.h"
#include "service/LogService.h"
#include "storage/StorageFormat.h"

#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr uint32_t kFolderNumbersTried = 10000;

} // namespace

int LogService::initLogStorage() {
    if (access(mLogServiceDir, F_OK) != 0 && mkdir(mLogServiceDir, kFolderMode) != 0) {
        logError("fail to create log_service storage! \n");
        logErrno();
        return -1;
    }
    if (access(mCurrentDir, F_OK) != 0) {
        if (!createCurrentFolder())
            return -4;
    } else if (checkDirEmpty(mCurrentDir) == 0) {
        int result = archiveEarlierUse();
        if (result != 0)
            return result;
    }
    return trimArchivedRuns();
}

/** Creates the folder of the running service; a failure is reported. */
bool LogService::createCurrentFolder() {
    if (mkdir(mCurrentDir, kFolderMode) == 0)
        return true;
    logError("fail to create current log storage !\n");
    logErrno();
    return false;
}

/** Keeps the files of an earlier use of this root as an archived run. 0, or the result of initLogStorage. */
int LogService::archiveEarlierUse() {
    if (shellexecute("gzip %s", mCurrentLogFile) != 0)
        logError("fail to gzip last log.txt !\n");
    mTotalLogSize += static_cast<uint32_t>(getFolderSize(mCurrentDir));
    uint32_t number = freeFolderNumber();
    if (!moveCurrentAside(lastFolder(mLastDirPrefix, number).text, number))
        return -2;
    return createCurrentFolder() ? 0 : -3;
}

/** The next number without a folder; when all are taken, the last one tried. */
uint32_t LogService::freeFolderNumber() {
    uint32_t number = mHeadFolderNum;
    for (uint32_t tried = 0; tried < kFolderNumbersTried; ++tried) {
        Path folder = lastFolder(mLastDirPrefix, ++number);
        if (access(folder.text, F_OK) != 0) {
            logDebug("backup dest folder(%s) not exists, backup here\n", folder.text);
            break;
        }
        logError("backup dest folder(%s) exists, try a new folder !\n", folder.text);
    }
    return number;
}

/** Makes the current folder the archived run `number`, the newest one. */
bool LogService::moveCurrentAside(const char* target, uint32_t number) {
    if (shellexecute("mv -f %s/ %s/", mCurrentDir, target) != 0) {
        logError("fail to back up last log !\n");
        return false;
    }
    mHeadFolderNum = number;
    if (access(lastFolder(mLastDirPrefix, mTailFolderNum).text, F_OK) != 0)
        mTailFolderNum = mHeadFolderNum;
    return true;
}

/** Removes whole archived runs, oldest first, until the bound holds or none is left. 0 or -5. */
int LogService::trimArchivedRuns() {
    for (uint32_t folder = mTailFolderNum; !withinBound(0);) {
        Path path = lastFolder(mLastDirPrefix, folder);
        uint32_t size = static_cast<uint32_t>(getFolderSize(path.text));
        if (shellexecute("rm -rf %s", path.text) != 0) {
            logError("fail to rm last log !\n");
            return -5;
        }
        mTotalLogSize -= size;
        if (++folder > mHeadFolderNum)
            return 0;
        mTailFolderNum = folder;
    }
    return 0;
}

} // namespace vnlog
