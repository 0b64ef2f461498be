#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "storage/StorageFormat.h"

#include <algorithm>
#include <unistd.h>

namespace vnlog {

/** Whether the stored logs and `more` bytes stay within the bound; all sums are unsigned 32-bit. */
bool LogService::withinBound(uint32_t more) const {
    return mTotalLogSize + more <= static_cast<uint32_t>(mMaxLogSize) << 20;
}

int LogService::saveLogSection(unsigned int count) {
    if (resumeCut() != 0)
        return -1;
    if (mLogFd < 0 && !openSection()) {
        logError("fail to save log,because fd is abnormal\n");
        logErrno();
        return -1;
    }
    if (mCurLogSize + count <= mLogSectionSize) {
        mCurLogSize += moveIntoSection(count);
        return 0;
    }

    // A file that is over-full already takes the whole batch, so that no batch is cut twice.
    uint32_t room = mCurLogSize <= mLogSectionSize ? mLogSectionSize - mCurLogSize : count;
    uint32_t first = moveIntoSection(std::min<uint32_t>(room, count));
    closeDescriptor(mLogFd);
    mLogFd = -1;
    mCompressPending = true;
    if (finishSection() != 0 || keepBound() != 0)
        return -1;
    if (!openSection()) {
        logError("fail to open log file !\n");
        logErrno();
        return -1;
    }
    mCurLogSize += moveIntoSection(count - first);
    return 0;
}

/**
 * Opens the active section. A file that exists already, of a save that failed or from before a change of the
 * root, is continued at its end.
 */
bool LogService::openSection() {
    FileDescriptor file =
        openFile(sectionText(mCurrentDir, mSliceNum).text, O_WRONLY | O_CREAT, kSectionMode);
    if (!file.valid())
        return false;
    off_t end = lseek(file.get(), 0, SEEK_END);
    if (end < 0)
        return false;
    mCurLogSize = static_cast<uint32_t>(end);
    mLogFd = file.release();
    return true;
}

/** Writes up to `wanted` buffered bytes into the open section. Returns how many went there. */
uint32_t LogService::moveIntoSection(uint32_t wanted) {
    int moved = logBufRead2File(mLogFd, wanted);
    return moved < 0 ? 0 : static_cast<uint32_t>(moved); // a failed write is reported and retried elsewhere
}

/**
 * Ends a cut that failed before anything more is written: the section would grow past its size, or the store
 * past its bound, with every try. 0 or -1.
 */
int LogService::resumeCut() {
    // After a change of the root the section is not there any more; it stays as it is where it was.
    if (mCompressPending && access(sectionText(mCurrentDir, mSliceNum).text, F_OK) == 0 &&
        finishSection() != 0)
        return -1;
    mCompressPending = false;
    return mBoundPending ? keepBound() : 0;
}

/**
 * Runs gzip on a text. What counts is that the archive has taken the text's place: gzip also reports mere
 * warnings, and in a process that ignores SIGCHLD no result is to be had at all.
 */
bool LogService::compressed(const char* text, const char* archive) {
    return shellexecute("gzip %s", text) == 0 || (access(text, F_OK) != 0 && access(archive, F_OK) == 0);
}

/** Compresses the closed section, counts it and goes on to the next number. 0 or -1. */
int LogService::finishSection() {
    Path text = sectionText(mCurrentDir, mSliceNum);
    Path archive = sectionArchive(mCurrentDir, mSliceNum);
    if (access(text.text, F_OK) == 0)
        (void)unlink(archive.text); // of a gzip that was killed; with it in place gzip would refuse
    if (!compressed(text.text, archive.text)) {
        logError("fail to Compress log files %d log!\n", static_cast<int>(mSliceNum));
        return -1;
    }
    mCompressPending = false;
    syncArchive(mCurrentDir, archive.text);
    mCurrentTotalSize += getFileSize(archive.text);
    bool pointed = pointOldestAtFinishedSection();
    ++mSliceNum; // in any case: the number is taken by the finished section
    return pointed ? 0 : -1;
}

/**
 * Brings a compressed section and its folder to the medium: gzip has removed the text without waiting until
 * what replaces it is safe there.
 */
void LogService::syncArchive(const char* folder, const char* archive) {
    if (syncPath(archive) && syncPath(folder))
        return;
    logError("fail to sync [%s]\n", archive);
    logErrno();
}

/** Makes the section just finished the oldest one when nothing older survives. False when that is not saved.
 */
bool LogService::pointOldestAtFinishedSection() {
    bool olderSurvives = mTailFolderNum != mHeadFolderNum ||
                         access(lastFolder(mLastDirPrefix, mTailFolderNum).text, F_OK) == 0 ||
                         access(sectionArchive(mCurrentDir, mOldestFileNum).text, F_OK) == 0;
    if (olderSurvives)
        return true;
    mOldestFileNum = mSliceNum;
    if (logStorageDataSave() == 0)
        return true;
    logError("[saveLogSection] storage data failed to save !\n");
    return false;
}

/** Deletes until another full section fits. 0, or -1: to be tried again before more is written. */
int LogService::keepBound() {
    mBoundPending = !boundRestored();
    return mBoundPending ? -1 : 0;
}

bool LogService::boundRestored() {
    for (int pass = 0; !withinBound(mCurrentTotalSize + mLogSectionSize); ++pass) {
        if (pass == kDeletionPasses) {
            logError("[saveLogSection] Fatal error attempt to fix the failure\n");
            return false;
        }
        if (deleteLogSection() == 0)
            continue;
        logError("fail to delete log section !\n");
        if (repairLogDatFile() != 0) {
            logError("[saveLogSection] Fatal error log storage file information is completely damaged\n");
            return false;
        }
    }
    return true;
}

} // namespace vnlog
