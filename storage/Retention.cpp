// SPDX-License-Identifier: Apache-2.0
#include "storage/Retention.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/ProcessorTime.h"
#include "storage/Layout.h"
#include "storage/Listing.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

namespace vnlog {

namespace {

constexpr uint32_t kProbes = 16; ///< numbers that are tried before a run is listed for its oldest section
constexpr uint64_t kSpareBlocks = 16384; ///< bytes for the bookkeeping and growing folders

bool isFile(const char* path) {
    struct stat info;
    return lstat(path, &info) == 0 && S_ISREG(info.st_mode);
}

/** Whether the run, which a link is not, has this section, compressed or not. */
bool holdsSection(const char* run, uint32_t number) {
    struct stat info;
    bool isRun = lstat(run, &info) == 0 && S_ISDIR(info.st_mode);
    return isRun && (isFile(sectionArchive(run, number).text) || isFile(sectionText(run, number).text));
}

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

uint64_t Retention::stored() const {
    return uint64_t{mState.mTotalLogSize} + mState.mCurrentTotalSize;
}

/** A text and its archive are on the medium at a time, so that a section counts twice there. */
bool Retention::fits() const {
    return bytesFit() &&
           mNumbers.onMedium() + 2 * uint64_t{mState.mLogSectionSize} + kSpareBlocks <= 2 * bound();
}

bool Retention::bytesFit() const {
    return stored() + mState.mLogSectionSize <= bound();
}

uint64_t Retention::bound() const {
    return static_cast<uint64_t>(std::max(mState.mMaxLogSize, 0)) << 20;
}

DeleteStatus Retention::deleteOldest() {
    ProcessorTime time;
    DeleteStatus result = deleteSome();
    if (result == DeleteStatus::Done && !saveDeleted())
        result = DeleteStatus::NotSaved;
    if (result == DeleteStatus::Done)
        logDebug(" deleteLogSection startup time is %f ms\n", time.milliseconds());
    return result;
}

/** Deletes that much, but leaves the numbers unsaved. */
DeleteStatus Retention::deleteSome() {
    uint32_t deleted = 0;
    bool lastGone = false;
    const uint64_t before = mNumbers.onMedium();
    // Of sections that are smaller than their blocks, no more go than those blocks ask for.
    auto freed = [&] { return std::max<uint64_t>(deleted, (before - mNumbers.onMedium()) / 2); };
    while (freed() < mState.mLogDeleteSize && !lastGone) {
        DeleteStatus result = deleteStep(&deleted, &lastGone);
        if (result != DeleteStatus::Done)
            return result;
        mUnsaved =
            mUnsaved || !lastGone; // the current run's last section changes nothing that the file holds
        logDebug("Delete [%zu] logs,At least delete[%zu] ,totalLogSize[%zu] ,CurrentTotalSize[%zu]\n",
                 static_cast<size_t>(deleted), static_cast<size_t>(mState.mLogDeleteSize),
                 static_cast<size_t>(mState.mTotalLogSize), static_cast<size_t>(mState.mCurrentTotalSize));
    }
    return DeleteStatus::Done;
}

/** Once for all deletions: after a crash in between the folders tell. Keeps errno. */
bool Retention::saveDeleted() {
    int error = errno;
    mUnsaved = mUnsaved && !mNumbers.save();
    if (mUnsaved)
        logError("[%s] storage data failed to save !\n", "deleteLogSection");
    errno = error;
    return !mUnsaved;
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
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    RunContent content; // an emptied run that stays, or what is no run, is in nobody's way
    if (holdsSection(run.text, mState.mOldestFileNum) ||
        (lookIntoRun(run.text, &content, Look::Names) && content.holdsSection()))
        return deleteFromRun(kNewest, deleted);
    return deleteFromCurrent(deleted, lastGone);
}

/** Deletes the oldest section of the oldest archived run, and the run's folder when that was its last. */
DeleteStatus Retention::deleteFromRun(const RunReports& reports, uint32_t* deleted) {
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    Path section = sectionArchive(run.text, mState.mOldestFileNum);
    if (!holdsSection(run.text, mState.mOldestFileNum)) {
        logError(reports.missingReport, section.text);
        return reports.missing;
    }
    uint32_t size = 0;
    bool gone = removeCounted(section.text, &size) &&
                removeCounted(sectionText(run.text, mState.mOldestFileNum).text, &size);
    mState.mTotalLogSize -= std::min(size, mState.mTotalLogSize);
    if (!gone) {
        reportRemoval(reports.sectionNumber, section.text);
        return reports.sectionStays;
    }
    ++mDeletions;
    *deleted += size;
    uint32_t oldest = mState.mOldestFileNum + 1;
    while (oldest < mState.mOldestFileNum + kProbes && !holdsSection(run.text, oldest))
        ++oldest;
    RunContent left;
    if (!holdsSection(run.text, oldest) && lookIntoRun(run.text, &left, Look::Names)) {
        if (!left.holdsSection())
            return removeEmptiedRun(reports);
        oldest = left.oldestSection;
    }
    mState.mOldestFileNum = oldest;
    return DeleteStatus::Done;
}

/** Removes the folder of the oldest archived run after its last section, and finds the next oldest. */
DeleteStatus Retention::removeEmptiedRun(const RunReports& reports) {
    Path run = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    bool hadMore = folderState(run.text) == FolderState::NotEmpty;
    if (hadMore)
        logError("[%s] Not empty!\n", run.text);
    if (!removeWhole(run.text)) {
        reportRemoval(hadMore ? reports.hadMoreNumber : reports.runNumber, run.text);
        return hadMore ? reports.hadMore : reports.runStays;
    }
    if (hadMore)
        return reports.hadMore; // what else lay there was counted, too: the caller counts anew
    mState.mOldestFileNum = 1;
    if (mState.mTailFolderNum < mState.mHeadFolderNum)
        ++mState.mTailFolderNum;
    findOldest();
    return DeleteStatus::Done;
}

/** Makes the numbers name the oldest section where they do not: runs and sections may be missing. */
void Retention::findOldest() {
    if (holdsSection(runFolder(mState.mLastDirPrefix, mState.mTailFolderNum).text, mState.mOldestFileNum))
        return;
    RunContent content;
    for (uint32_t run = mState.mTailFolderNum; nextRun(mState.mLogServiceDir, run, &run); ++run) {
        if (!lookIntoRun(runFolder(mState.mLastDirPrefix, run).text, &content, Look::Names) ||
            !content.holdsSection())
            continue;
        mState.mTailFolderNum = run;
        mState.mOldestFileNum = content.oldestSection;
        return;
    }
    mState.mTailFolderNum = mState.mHeadFolderNum;
    if (lookIntoRun(mState.mCurrentDir, &content, Look::Names) && content.archives > 0)
        mState.mOldestFileNum = content.oldestArchive;
}

/** Deletes the oldest finished section of the running service; `lastGone` tells that it was the last one. */
DeleteStatus Retention::deleteFromCurrent(uint32_t* deleted, bool* lastGone) {
    if (mState.mTotalLogSize != 0) {
        logError("Fatal error statistics failed!\n");
        return DeleteStatus::TotalNotZero;
    }
    Path section = sectionArchive(mState.mCurrentDir, mState.mOldestFileNum);
    if (!isFile(section.text)) {
        logError("[%s] log size less than 0!\n", section.text);
        return DeleteStatus::CurrentSectionMissing;
    }
    uint32_t size = 0;
    if (!removeCounted(section.text, &size)) {
        reportRemoval(2849, section.text);
        return DeleteStatus::CurrentSectionStays;
    }
    ++mDeletions;
    *deleted += size;
    mState.mCurrentTotalSize -= std::min(size, mState.mCurrentTotalSize);
    uint32_t next = mState.mOldestFileNum + 1;
    RunContent left;
    if (!isFile(sectionArchive(mState.mCurrentDir, next).text) &&
        lookIntoRun(mState.mCurrentDir, &left, Look::Names))
        next = left.oldestArchive;
    *lastGone = next == kNoNumber;
    if (!*lastGone)
        mState.mOldestFileNum = next;
    return DeleteStatus::Done;
}

/** Removes a file, if there is one, and adds its size. False when it stays, also in spite of a success. */
bool Retention::removeCounted(const char* path, uint32_t* size) {
    struct stat info;
    if (lstat(path, &info) != 0 || !S_ISREG(info.st_mode))
        return true;
    errno = 0;
    if (!mFiles.removeFile(path) || nameTaken(path)) {
        noteResistance();
        return false;
    }
    *size += static_cast<uint32_t>(info.st_size);
    mNumbers.takeOffMedium(bytesOnMedium(info));
    return true;
}

/** Keeps apart what the system says why it stays, and what it says is not there. */
void Retention::noteResistance() {
    bool told = errno != 0 && errno != ENOENT;
    mError = told ? errno : mError;
    mResisted = mResisted || !told;
}

bool Retention::removeWhole(const char* run) {
    RunContent content;
    (void)lookIntoRun(
        run, &content,
        Look::Sizes); // what cannot be listed is not taken off the sum: stock is taken now and then
    errno = 0;
    if (!mFiles.removeTree(run) || nameTaken(run)) {
        noteResistance();
        return false;
    }
    mNumbers.takeOffMedium(content.onMedium);
    return true;
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

BoundStatus Retention::makeRoom(Occasion occasion) {
    const char* caller = occasion == Occasion::Cut ? "[saveLogSection] " : "";
    BoundStatus status = BoundStatus::Held;
    mError = 0;
    mResisted = false;
    for (bool stuck = false; status == BoundStatus::Held && !fits();) {
        (void)removeDamaged();
        bool freed = false;
        if (!pass(occasion, &freed)) {
            logError("%sFatal error log storage file information is completely damaged\n", caller);
            status = BoundStatus::NotCounted;
        } else if (!freed && stuck) { // the pass before has repaired the numbers, and it did not help
            if (bytesFit())
                break; // blocks that no deletion frees are nobody's fault
            logError("%sFatal error attempt to fix the failure\n", caller);
            errno = mError;
            status = mResisted && mError == 0 ? BoundStatus::Contradiction : BoundStatus::NotDeleted;
        }
        stuck = !freed;
    }
    (void)saveDeleted(); // reported there; the room is made all the same
    return status;
}

bool Retention::freeOldest() {
    bool freed = removeDamaged();
    for (int tries = 0; !freed && tries < 2; ++tries) // the first one may only repair the numbers
        (void)pass(Occasion::Cut, &freed); // what is free is free, counted or not
    (void)saveDeleted(); // reported there
    return freed;
}

/** One deletion, and a repair when that fails. False with errno set when the store cannot be counted. */
bool Retention::pass(Occasion occasion, bool* freed) {
    uint64_t before = stored() + mNumbers.onMedium();
    DeleteStatus result = deleteSome();
    *freed = stored() + mNumbers.onMedium() < before;
    if (result == DeleteStatus::Done)
        return true;
    if (occasion == Occasion::Start)
        logError("fail to delete log section ret=[%d] !\n", static_cast<int>(result));
    else
        logError("fail to delete log section !\n");
    mMender.mendAll(nullptr);
    return mNumbers.takeStock();
}

/** Removes what was set aside as damaged: of all that is stored it tells least. Whether there was any. */
bool Retention::removeDamaged() {
    Path damaged = damagedFolder(mState.mLogServiceDir);
    if (!nameTaken(damaged.text) || !mFiles.removeTree(damaged.text))
        return false;
    logError("[%s] is removed for want of room\n", damaged.text);
    return !nameTaken(damaged.text);
}

} // namespace vnlog
