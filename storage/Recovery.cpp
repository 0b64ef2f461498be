#include "storage/Recovery.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "storage/Listing.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

/** Taken numbers that are stepped over, with a rebuild each; the next one is used although it is taken. */
constexpr int kNumberRetries = 10;

} // namespace

Recovery::Recovery(StorageState& state, Bookkeeping& numbers, Retention& retention, FileWork& files)
    : mState(state), mNumbers(numbers), mRetention(retention), mFiles(files), mFolders(state, files) {}

// --- openNumbers

bool Recovery::openNumbers() {
    mendArchivedRuns();
    if (!pathExists(mState.mStorageDataFile)) {
        logError("[%s] the stored data does not exist!\n", mState.mStorageDataFile);
        if (pathExists(mState.mLogServiceDir))
            recoverMissingNumbers();
        return true;
    }
    if (!mNumbers.parse())
        return recoverNumbers();
    if (!mNumbers.matchesFolders()) {
        logError("the storage data contradicts the folders and is rebuilt\n");
        (void)recoverNumbers(); // reported there; what it cannot tell is found out by the deletions
    }
    return true;
}

/** Puts every archived run in order before the numbers are compared with them. */
void Recovery::mendArchivedRuns() {
    if (!pathExists(mState.mLogServiceDir))
        return;
    Listing listing(mState.mLogServiceDir);
    if (!listing.valid())
        return;
    StoredEntry entry;
    while (listing.next(&entry)) { // what is not listed now is so at the next start
        Path run;
        if (entry.kind == NameKind::Run && entry.type == EntryType::Folder && listing.path(entry, &run))
            mendArchivedRun(run.text);
    }
}

/**
 * Sees to it that an archived run holds at least one finished section: a search for the oldest section would
 * end in a run without. Compresses what a change of the root has left uncompressed; gives a log of the older
 * form a section's name; removes a run that a deletion has emptied, and moves one aside that holds nothing
 * but foreign files.
 */
void Recovery::mendArchivedRun(const char* run) {
    RunContent content;
    if (!lookIntoRun(run, &content))
        return; // what the listing did not show may be what matters
    if (content.text) {
        uint32_t size = 0;
        bool compressedAny = false;
        // A failure is reported there; what is left is tried again at the next start.
        (void)compressTexts(run, &size, &compressedAny);
        if (!lookIntoRun(run, &content))
            return;
    }
    if (content.archive || content.text)
        return;
    if (rename(olderArchive(run).text, sectionArchive(run, 1).text) == 0 || rmdir(run) == 0)
        return;
    logError("[%s] holds no section and is moved aside\n", run);
    if (rename(run, strayFolder(run).text) != 0)
        logErrno();
}

/** Rebuilds the missing numbers, or deletes everything when the stored logs cannot be trusted. */
void Recovery::recoverMissingNumbers() {
    if (mNumbers.rebuild() != RebuildStatus::Done) {
        logError("There may be risks if the attempt to parse out the stored data fails ."
                 "Try to delete all the logs\n");
        (void)mRetention.deleteAll(); // it reports its failures itself; the start goes on with what is left
        return;
    }
    Path oldestRun = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    bool olderForm = pathExists(mState.mCurrentLogFile) || pathExists(olderArchive(oldestRun.text).text);
    if (olderForm || !mRetention.withinBound(0)) {
        logError("Try to delete all the logs\n");
        (void)mRetention.deleteAll();
    }
}

/**
 * Rebuilds unreadable numbers. A run that was cut off in its first section leaves nothing that can be
 * counted; it is closed off first then.
 */
bool Recovery::recoverNumbers() {
    if (mNumbers.rebuild() == RebuildStatus::Done)
        return true;
    uint32_t size = 0;
    if (compressPreviousRun(&size) == PrepareStatus::Ready &&
        (mNumbers.rebuild() == RebuildStatus::Done || mNumbers.startAnew()))
        return true;
    logError("The storage data parsing failed and the attempt to recover failed\n");
    return false;
}

// --- closePreviousRun

PrepareStatus Recovery::closePreviousRun() {
    if (!mFolders.makeLogFolder())
        return PrepareStatus::NoLogFolder;
    uint32_t size = 0;
    if (!pathExists(mState.mCurrentDir)) {
        if (!mFolders.makeCurrent())
            return PrepareStatus::NoCurrent;
    } else if (folderState(mState.mCurrentDir) == FolderState::NotEmpty) {
        PrepareStatus result = compressPreviousRun(&size);
        if (result == PrepareStatus::Ready)
            result = archivePreviousRun();
        if (result != PrepareStatus::Ready)
            return result;
    }
    return keepBound(size);
}

/** Compresses what the previous run left uncompressed; stores the size of all its files. */
PrepareStatus Recovery::compressPreviousRun(uint32_t* size) {
    bool anyCompressed = false;
    PrepareStatus result = compressTexts(mState.mCurrentDir, size, &anyCompressed);
    if (result != PrepareStatus::Ready || !anyCompressed)
        return result;
    // The listing may or may not have shown what was made meanwhile.
    if (folderSize(mState.mCurrentDir, size))
        return PrepareStatus::Ready;
    logError("init_Log_Storage getFolderSize fail!\n");
    return PrepareStatus::NotCounted;
}

/** Compresses the texts of a run and adds up the sizes of its other entries. */
PrepareStatus Recovery::compressTexts(const char* run, uint32_t* size, bool* anyCompressed) {
    *size = 0;
    Listing listing(run);
    if (!listing.valid()) {
        logError("fail to open [%s] dir error!\n", run);
        logErrno();
        return PrepareStatus::CurrentUnreadable;
    }
    StoredEntry entry;
    while (listing.next(&entry)) {
        Path path;
        bool workable =
            listing.path(entry, &path) && std::strlen(path.text) <= kLongestWorkPath && shellSafe(path.text);
        if (isText(entry.kind) && entry.type == EntryType::File && workable) {
            PrepareStatus result = compressText(run, path.text);
            if (result != PrepareStatus::Ready)
                return result;
            *anyCompressed = true;
        } else { // also a stray text that file work does not take: it goes along as it is
            *size += fileSize(path.text);
        }
    }
    return PrepareStatus::Ready;
}

/** Compresses one text of a run, in place of the stale result of an interrupted attempt. */
PrepareStatus Recovery::compressText(const char* run, const char* text) {
    Path archive = archiveOf(text);
    if (pathExists(archive.text)) {
        logDebug("[%s] exists and needs to be deleted\n", archive.text);
        if (std::remove(archive.text) != 0) {
            char reason[128];
            logError("init_Log_Storage [%s] remove error: %s\n", archive.text,
                     strerror_r(errno, reason, sizeof reason));
            return PrepareStatus::StaleArchiveStays;
        }
    }
    if (!mFiles.compress(text)) {
        logError("init_Log_Storage fail to Compress [%s] log!\n", text);
        return PrepareStatus::NotCompressed;
    }
    syncArchive(run, archive.text);
    return PrepareStatus::Ready;
}

/** Moves the previous run's folder to the next free number and makes a new one. */
PrepareStatus Recovery::archivePreviousRun() {
    uint32_t number = mState.mHeadFolderNum + 1;
    for (int retries = kNumberRetries; !mFolders.numberFree(number); --retries) {
        if (mNumbers.rebuild() != RebuildStatus::Done) {
            logError("Fatal error log storage file information is completely damaged\n");
            return PrepareStatus::NumbersLost;
        }
        logDebug("Try to fix the log data ,try (%d) times \n", retries);
        if (retries == 0)
            break;
        number = std::max(number, mState.mHeadFolderNum) +
                 1; // a stray file's number is not counted by the rebuild
    }
    if (!mFolders.archiveCurrent(number))
        return PrepareStatus::NotArchived;
    return mFolders.makeCurrent() ? PrepareStatus::Ready : PrepareStatus::NoNewCurrent;
}

/** Deletes until the archived runs, the `size` bytes just added to them and a section fit. */
PrepareStatus Recovery::keepBound(uint32_t size) {
    switch (mRetention.makeRoomAtStart(size)) {
    case BoundStatus::Held:
        return PrepareStatus::Ready;
    case BoundStatus::PassesSpent:
        return PrepareStatus::BoundNotHeld;
    case BoundStatus::NumbersLost:
        break;
    }
    return PrepareStatus::BoundNumbersLost;
}

// --- prepare

bool Recovery::prepare() {
    PrepareStatus result = closePreviousRun();
    if (result != PrepareStatus::Ready) {
        (void)mRetention.deleteAll(); // the second try shows whether it helped
        logError("error: init_Log_Storage failed, ret=%d,try to delete all the logs\n",
                 static_cast<int>(result));
        result = closePreviousRun();
    }
    if (result != PrepareStatus::Ready) {
        logError("error: failed to init log storage, ret=%d. please check it\n", static_cast<int>(result));
        logError("log save thread will not start!\n");
        return false;
    }
    countOnceMore();
    return true;
}

/** Whatever a start that was cut off has left in the numbers ends here. */
void Recovery::countOnceMore() {
    RunTotals runs;
    if (!countRuns(mState.mLogServiceDir, &runs) || runs.bytes == mState.mTotalLogSize)
        return;
    logError("the archived runs hold %u byte, not %u: the numbers are rebuilt\n", runs.bytes,
             mState.mTotalLogSize);
    if (mNumbers.rebuild() == RebuildStatus::Done)
        (void)keepBound(0); // reported there; a bound that does not hold yet is met by the next section
}

} // namespace vnlog
