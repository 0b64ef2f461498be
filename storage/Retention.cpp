#include "storage/Retention.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/ProcessorTime.h"
#include "storage/Layout.h"

#include <sys/types.h>

namespace vnlog {

namespace {

/** Deletions after which a bound that still does not hold counts as a failure. */
constexpr int kDeletionPasses = 10;

void reportRemoval(int number, const char* path) {
    logError("[%d] %s deletion failed.\n", number, path);
}

} // namespace

/** Results and message numbers that tell the failures in an older archived run from those in the newest. */
struct Retention::RunReports {
    DeleteStatus missing;
    const char* missingReport;
    DeleteStatus sectionStays;
    int sectionNumber;
    DeleteStatus runStays;
    int runNumber;
    DeleteStatus hadMore;
    int hadMoreNumber;
};

bool Retention::withinBound(uint32_t more) const {
    return mState.mTotalLogSize + more <= static_cast<uint32_t>(mState.mMaxLogSize) << 20;
}

DeleteStatus Retention::deleteOldest() {
    ProcessorTime time;
    uint32_t deleted = 0;
    bool lastGone = false;
    while (deleted < mState.mLogDeleteSize) {
        DeleteStatus result = deleteStep(&deleted, &lastGone);
        if (result != DeleteStatus::Done)
            return result;
        if (lastGone)
            break; // nothing that the file holds has changed
        if (!mNumbers.save()) {
            logError("[%s] storage data failed to save !\n", "deleteLogSection");
            return DeleteStatus::NotSaved;
        }
        logDebug("Delete [%zu] logs,At least delete[%zu] ,totalLogSize[%zu] ,CurrentTotalSize[%zu]\n",
                 static_cast<size_t>(deleted), static_cast<size_t>(mState.mLogDeleteSize),
                 static_cast<size_t>(mState.mTotalLogSize), static_cast<size_t>(mState.mCurrentTotalSize));
    }
    logDebug(" deleteLogSection startup time is %f ms\n", time.milliseconds());
    return DeleteStatus::Done;
}

/** Deletes the oldest section, wherever that is; `lastGone` tells that no finished one is left. */
DeleteStatus Retention::deleteStep(uint32_t* deleted, bool* lastGone) {
    static constexpr RunReports kOlder = {
        DeleteStatus::OlderSectionMissing, "[%s] The file does not exist.\n",
        DeleteStatus::OlderSectionStays,   2762,
        DeleteStatus::OlderRunStays,       2777,
        DeleteStatus::OlderRunHadMore,     2784};
    static constexpr RunReports kNewest = {
        DeleteStatus::NewestSectionMissing, "[%s] log file does not exist!\n",
        DeleteStatus::NewestSectionStays,   2806,
        DeleteStatus::NewestRunStays,       2821,
        DeleteStatus::NewestRunHadMore,     2827};
    if (mState.mTailFolderNum < mState.mHeadFolderNum)
        return deleteFromRun(kOlder, deleted);
    if (mState.mTailFolderNum > mState.mHeadFolderNum) {
        logError("the oldest folder %u is newer than the newest %u\n", mState.mTailFolderNum,
                 mState.mHeadFolderNum);
        return DeleteStatus::TailPastHead;
    }
    if (pathExists(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text))
        return deleteFromRun(kNewest, deleted);
    return deleteFromCurrent(deleted, lastGone);
}

/** Deletes the oldest section of the oldest archived run, and the run's folder when that was its last. */
DeleteStatus Retention::deleteFromRun(const RunReports& reports, uint32_t* deleted) {
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    Path section = sectionArchive(run.text, mState.mOldestFileNum);
    if (!pathExists(section.text)) {
        logError(reports.missingReport, section.text);
        return reports.missing;
    }
    uint32_t size = fileSize(section.text);
    if (!mFiles.removeFile(section.text)) {
        reportRemoval(reports.sectionNumber, section.text);
        return reports.sectionStays;
    }
    mState.mTotalLogSize -= size;

    uint32_t oldest = mState.mOldestFileNum + 1;
    if (!pathExists(sectionArchive(run.text, oldest).text)) {
        DeleteStatus result = removeEmptiedRun(reports);
        if (result != DeleteStatus::Done)
            return result;
        oldest = 1;
    }
    *deleted += size;
    mState.mOldestFileNum = oldest;
    return DeleteStatus::Done;
}

/** Removes the folder of the oldest archived run after its last numbered section. */
DeleteStatus Retention::removeEmptiedRun(const RunReports& reports) {
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    bool hadMore = folderState(run.text) == FolderState::NotEmpty;
    if (hadMore)
        logError("[%s] Not empty!\n", run.text);
    if (!mFiles.removeTree(run.text)) {
        reportRemoval(hadMore ? reports.hadMoreNumber : reports.runNumber, run.text);
        return hadMore ? reports.hadMore : reports.runStays;
    }
    if (hadMore)
        return reports.hadMore; // what else lay there was counted, too: the caller counts anew
    if (mState.mTailFolderNum < mState.mHeadFolderNum)
        ++mState.mTailFolderNum;
    return DeleteStatus::Done;
}

/** Deletes the oldest finished section of the running service; `lastGone` tells that it was the last one. */
DeleteStatus Retention::deleteFromCurrent(uint32_t* deleted, bool* lastGone) {
    if (mState.mTotalLogSize != 0) {
        logError("Fatal error statistics failed!\n");
        return DeleteStatus::TotalNotZero;
    }
    Path section = sectionArchive(mState.mCurrentDir, mState.mOldestFileNum);
    if (!pathExists(section.text)) {
        logError("[%s] log size less than 0!\n", section.text);
        return DeleteStatus::CurrentSectionMissing;
    }
    uint32_t size = fileSize(section.text);
    *deleted += size;
    if (!mFiles.removeFile(section.text)) {
        reportRemoval(2849, section.text);
        return DeleteStatus::CurrentSectionStays;
    }
    mState.mCurrentTotalSize -= size;
    *lastGone = mState.mOldestFileNum == mState.mSliceNum - 1;
    if (!*lastGone)
        ++mState.mOldestFileNum;
    return DeleteStatus::Done;
}

bool Retention::deleteAll() {
    Path runs, current;
    formatText(runs.text, "%s_", mState.mLastDirPrefix);
    formatText(current.text, "%s/", mState.mCurrentDir);
    if (!mFiles.removeAll(runs.text))
        logError("[deleteAllLog] failed to delete the last_folder log !\n");
    if (!mFiles.removeAll(current.text))
        logError("[deleteAllLog] failed to delete the current_folder log !\n");
    mNumbers.reset();
    if (mNumbers.save())
        return true;
    logError("[deleteAllLog] storage data failed to save !\n");
    return false;
}

BoundStatus Retention::makeRoomForSection() {
    for (int pass = 0; !withinBound(mState.mCurrentTotalSize + mState.mLogSectionSize); ++pass) {
        if (pass == kDeletionPasses) {
            logError("[saveLogSection] Fatal error attempt to fix the failure\n");
            return BoundStatus::PassesSpent;
        }
        if (deleteOldest() == DeleteStatus::Done)
            continue;
        logError("fail to delete log section !\n");
        if (mNumbers.rebuild() != RebuildStatus::Done) {
            logError("[saveLogSection] Fatal error log storage file information is completely damaged\n");
            return BoundStatus::NumbersLost;
        }
    }
    return BoundStatus::Held;
}

BoundStatus Retention::makeRoomAtStart(uint32_t uncounted) {
    for (int pass = 0; !withinBound(mState.mLogSectionSize + uncounted); ++pass) {
        if (pass == kDeletionPasses) {
            logError("Fatal error attempt to fix the failure\n");
            return BoundStatus::PassesSpent;
        }
        DeleteStatus result = deleteOldest();
        if (result == DeleteStatus::Done)
            continue;
        logError("fail to delete log section ret=[%d] !\n", static_cast<int>(result));
        if (mNumbers.rebuild() != RebuildStatus::Done) {
            logError("Fatal error log storage file information is completely damaged\n");
            return BoundStatus::NumbersLost;
        }
        uncounted = 0; // the rebuilt total has them already
    }
    mState.mTotalLogSize += uncounted;
    logDebug("total size is [%zd] \n", static_cast<ssize_t>(mState.mTotalLogSize));
    return BoundStatus::Held;
}

} // namespace vnlog
