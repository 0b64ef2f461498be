#include "service/Diagnostics.h"
#include "service/LogService.h"
#include "storage/ProcessorTime.h"
#include "storage/StorageFormat.h"

#include <unistd.h>

namespace vnlog {

/** Results and message numbers that tell the failures in an older archived run from those in the newest. */
struct LogService::LastFolderPlace {
    int missing;
    const char* missingReport;
    int fileRemoval;
    int fileRemovalNumber;
    int folderRemoval;
    int folderRemovalNumber;
    int notEmpty;
    int notEmptyNumber;
};

namespace {

void reportRemoval(int number, const char* path) {
    logError("[%d] %s deletion failed.\n", number, path);
}

} // namespace

int LogService::deleteLogSection() {
    static constexpr LastFolderPlace kOlder = {-1,  "[%s] The file does not exist.\n", -2, 2762, -3, 2777, -4,
                                               2784};
    static constexpr LastFolderPlace kNewest = {
        -5, "[%s] log file does not exist!\n", -6, 2806, -7, 2821, -8, 2827};
    ProcessorTime time;
    uint32_t deleted = 0;
    while (deleted < mLogDeleteSize) {
        int result;
        bool lastGone = false;
        if (mTailFolderNum < mHeadFolderNum) {
            result = deleteFromLast(kOlder, &deleted);
        } else if (mTailFolderNum > mHeadFolderNum) {
            logError("the oldest folder %u is newer than the newest %u\n", mTailFolderNum, mHeadFolderNum);
            return -13; // so that the caller rebuilds the numbers
        } else if (access(lastFolder(mLastDirPrefix, mTailFolderNum).text, F_OK) == 0) {
            result = deleteFromLast(kNewest, &deleted);
        } else {
            result = deleteFromCurrent(&deleted, &lastGone);
        }
        if (result != 0)
            return result;
        if (lastGone)
            break;
        if (logStorageDataSave() != 0) {
            logError("[%s] storage data failed to save !\n", "deleteLogSection");
            return -12;
        }
        logDebug("Delete [%zu] logs,At least delete[%zu] ,totalLogSize[%zu] ,CurrentTotalSize[%zu]\n",
                 static_cast<size_t>(deleted), static_cast<size_t>(mLogDeleteSize),
                 static_cast<size_t>(mTotalLogSize), static_cast<size_t>(mCurrentTotalSize));
    }
    logDebug(" deleteLogSection startup time is %f ms\n", time.milliseconds());
    return 0;
}

/** Deletes the oldest section of the oldest archived run, and the run's folder when that was its last. */
int LogService::deleteFromLast(const LastFolderPlace& place, uint32_t* deleted) {
    Path section = lastArchive(mLastDirPrefix, mTailFolderNum, mOldestFileNum);
    if (access(section.text, F_OK) != 0) {
        logError(place.missingReport, section.text);
        return place.missing;
    }
    uint32_t size = getFileSize(section.text);
    if (shellexecute("rm -f %s", section.text) != 0) {
        reportRemoval(place.fileRemovalNumber, section.text);
        return place.fileRemoval;
    }
    mTotalLogSize -= size;

    uint32_t oldest = mOldestFileNum + 1;
    if (access(lastArchive(mLastDirPrefix, mTailFolderNum, oldest).text, F_OK) != 0) {
        int result = removeEmptiedRun(place);
        if (result != 0)
            return result;
        oldest = 1;
    }
    *deleted += size;
    mOldestFileNum = oldest;
    return 0;
}

/** Removes the folder of the oldest archived run after its last numbered section. */
int LogService::removeEmptiedRun(const LastFolderPlace& place) {
    Path folder = lastFolder(mLastDirPrefix, mTailFolderNum);
    bool strays = checkDirEmpty(folder.text) == 0;
    if (strays)
        logError("[%s] Not empty!\n", folder.text);
    if (shellexecute("rm -rf %s", folder.text) != 0) {
        reportRemoval(strays ? place.notEmptyNumber : place.folderRemovalNumber, folder.text);
        return strays ? place.notEmpty : place.folderRemoval;
    }
    if (strays)
        return place.notEmpty; // what else lay there was counted, too: the caller counts anew
    if (mTailFolderNum < mHeadFolderNum)
        ++mTailFolderNum;
    return 0;
}

/** Deletes the oldest finished section of the running service; `lastGone` tells that it was the last one. */
int LogService::deleteFromCurrent(uint32_t* deleted, bool* lastGone) {
    if (mTotalLogSize != 0) {
        logError("Fatal error statistics failed!\n");
        return -9;
    }
    Path section = sectionArchive(mCurrentDir, mOldestFileNum);
    if (access(section.text, F_OK) != 0) {
        logError("[%s] log size less than 0!\n", section.text);
        return -10;
    }
    uint32_t size = getFileSize(section.text);
    *deleted += size;
    if (shellexecute("rm -f %s", section.text) != 0) {
        reportRemoval(2849, section.text);
        return -11;
    }
    mCurrentTotalSize -= size;
    *lastGone = mOldestFileNum == mSliceNum - 1;
    if (!*lastGone)
        ++mOldestFileNum;
    return 0;
}

int LogService::deleteAllLog() {
    if (shellexecute("rm -rf %s_*", mLastDirPrefix) != 0)
        logError("[deleteAllLog] failed to delete the last_folder log !\n");
    if (shellexecute("rm -rf %s/*", mCurrentDir) != 0)
        logError("[deleteAllLog] failed to delete the current_folder log !\n");
    resetNumbers();
    if (logStorageDataSave() == 0)
        return 0;
    logError("[deleteAllLog] storage data failed to save !\n");
    return -1;
}

} // namespace vnlog
