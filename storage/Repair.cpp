#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "storage/ProcessorTime.h"
#include "storage/StorageFormat.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr uint32_t kNothingFound = kMaxBookkeepingNumber;

/**
 * Calls `visit` with path and number of every archived run under the log folder. False with errno set when
 * that cannot be listed to its end.
 */
template <typename Visit>
bool forEachArchivedRun(const char* logs, const NamePatterns& patterns, const Visit& visit) {
    Folder folder(logs);
    if (!folder.valid())
        return false;
    while (const dirent* entry = folder.next()) {
        uint32_t number;
        if (!patterns.isLastFolder(entry->d_name, &number) ||
            entryType(logs, entry->d_name, entry->d_type) != EntryType::Folder)
            continue;
        Path path;
        formatPath(path.text, "%s/%s", logs, entry->d_name);
        visit(path.text, number);
    }
    return !folder.failed();
}

} // namespace

/** Whether an archived run holds finished sections, and whether texts that are to become such. */
struct LogService::RunContent {
    bool section = false;
    bool text = false;
};

/** What the names of the archived runs tell. */
struct LogService::ArchivedRuns {
    uint32_t count = 0;
    uint32_t total = 0;
    uint32_t tail = kNothingFound;
    uint32_t head = 0;
};

int LogService::repairLogDatFile() {
    ProcessorTime time;
    NamePatterns patterns;
    if (!patterns.valid())
        return -1;
    ArchivedRuns runs;
    if (!countArchivedRuns(patterns, &runs)) {
        logError("Failed to open storage folder.Please check !\n");
        logErrno();
        return -2;
    }
    uint32_t oldest = 1;
    bool search = true;
    Path searched;
    if (runs.count > 0) {
        formatPath(searched.text, "%s/last_%u", mLogServiceDir, runs.tail);
    } else {
        runs.tail = 0;
        formatPath(searched.text, "%s", mCurrentDir);
        search = checkDirEmpty(mCurrentDir) == 0;
    }
    if (search && !oldestSection(patterns, searched.text, &oldest)) {
        logError("Failed to open min_dir folder.Please check !\n");
        logErrno();
        return -3;
    }
    if (runs.tail == kNothingFound || oldest == kNothingFound) {
        logError("file number search failed! \n");
        return -4;
    }

    logDebug("repairLogDatFile total_size:%zu\nhead:%u\ntail:%u\nold_file:%u\n",
             static_cast<size_t>(runs.total), runs.head, runs.tail, oldest);
    mHeadFolderNum = runs.head;
    mTotalLogSize = runs.total;
    mTailFolderNum = runs.tail;
    mOldestFileNum = oldest;
    if (logStorageDataSave() != 0) {
        logError("[repairLogDatFile] storage data failed to save !\n");
        return -5;
    }
    logDebug("[repairLogDatFile] startup time is %f ms\n", time.milliseconds());
    return 0;
}

/** Counts the archived runs. False with errno set when the log folder cannot be listed. */
bool LogService::countArchivedRuns(const NamePatterns& patterns, ArchivedRuns* runs) {
    return forEachArchivedRun(mLogServiceDir, patterns, [&](const char* path, uint32_t number) {
        int size = getFolderSize(path);
        ++runs->count;
        runs->total += size == -1 ? 0 : static_cast<uint32_t>(size);
        runs->tail = std::min(runs->tail, number);
        runs->head = std::max(runs->head, number);
    });
}

/** Finds the lowest section number in a folder. False with errno set when it cannot be listed. */
bool LogService::oldestSection(const NamePatterns& patterns, const char* path, uint32_t* oldest) {
    Folder folder(path);
    if (!folder.valid())
        return false;
    *oldest = kNothingFound;
    while (const dirent* entry = folder.next()) {
        uint32_t number;
        if (patterns.isSection(entry->d_name, &number) &&
            entryType(path, entry->d_name, entry->d_type) == EntryType::File)
            *oldest = std::min(*oldest, number);
    }
    return !folder.failed();
}

/** Puts every archived run in order before the numbers are compared with them. */
void LogService::mendInterruptedDeletion() {
    NamePatterns patterns;
    if (!patterns.valid() || access(mLogServiceDir, F_OK) != 0)
        return;
    (void)forEachArchivedRun(mLogServiceDir, patterns, // what is not listed now is so at the next start
                             [&](const char* path, uint32_t) { closeArchivedRun(patterns, path); });
}

/**
 * Sees to it that an archived run holds at least one finished section: a search for the oldest section would
 * end in a run without. Compresses what a change of the root has left uncompressed; gives a log of the older
 * form a section's name; removes a run that a deletion has emptied, and moves one aside that holds nothing
 * but foreign files.
 */
void LogService::closeArchivedRun(const NamePatterns& patterns, const char* path) {
    RunContent content;
    if (!lookInto(patterns, path, &content))
        return; // what the listing did not show may be what matters
    if (content.text) {
        uint32_t size = 0;
        bool compressedAny = false;
        // A failure is reported there; what is left is tried again at the next start.
        (void)compressTexts(path, &size, &compressedAny);
        if (!lookInto(patterns, path, &content))
            return;
    }
    if (content.section || content.text)
        return;
    Path older, aside;
    formatPath(older.text, "%s/log.txt.gz", path);
    formatPath(aside.text, "%s.stray", path);
    if (rename(older.text, sectionArchive(path, 1).text) == 0 || rmdir(path) == 0)
        return;
    logError("[%s] holds no section and is moved aside\n", path);
    if (rename(path, aside.text) != 0)
        logErrno();
}

/** What an archived run's folder holds. False when that cannot be told. */
bool LogService::lookInto(const NamePatterns& patterns, const char* path, RunContent* content) {
    *content = RunContent();
    Folder folder(path);
    if (!folder.valid())
        return false;
    while (const dirent* entry = folder.next()) {
        uint32_t number;
        content->section = content->section || patterns.isSection(entry->d_name, &number);
        content->text = content->text || patterns.isSectionText(entry->d_name) ||
                        std::strcmp(entry->d_name, "log.txt") == 0;
    }
    return !folder.failed();
}

/**
 * Whether the numbers say what the folders do. They do not when a deletion or a start was cut off before it
 * could save them. A folder that is newer than the newest known is left to the archiving, which finds it.
 */
bool LogService::numbersMatchDisk() {
    NamePatterns patterns;
    ArchivedRuns runs;
    if (!patterns.valid() || !countArchivedRuns(patterns, &runs))
        return true; // nothing to compare with
    if (runs.count == 0)
        return mTailFolderNum == mHeadFolderNum && mTotalLogSize == 0;
    bool archivingWillTell = access(lastFolder(mLastDirPrefix, mHeadFolderNum + 1).text, F_OK) == 0 &&
                             access(mCurrentDir, F_OK) == 0 && checkDirEmpty(mCurrentDir) == 0;
    if (archivingWillTell)
        return true;
    return runs.head == mHeadFolderNum && runs.tail == mTailFolderNum && runs.total == mTotalLogSize &&
           access(lastArchive(mLastDirPrefix, mTailFolderNum, mOldestFileNum).text, F_OK) == 0;
}

/** Starts the numbers anew where nothing is stored that they could tell of. False when there is something. */
bool LogService::startNumbersAnew() {
    NamePatterns patterns;
    ArchivedRuns runs;
    uint32_t oldest = kNothingFound;
    if (!patterns.valid() || !countArchivedRuns(patterns, &runs) || runs.count > 0 ||
        !oldestSection(patterns, mCurrentDir, &oldest) || oldest != kNothingFound)
        return false;
    resetNumbers();
    return logStorageDataSave() == 0;
}

/**
 * Counts the archived runs once more after the storage is prepared: whatever a start that was cut off has
 * left in the numbers ends here.
 */
void LogService::mendInterruptedArchiving() {
    NamePatterns patterns;
    ArchivedRuns runs;
    if (!patterns.valid() || !countArchivedRuns(patterns, &runs) || runs.total == mTotalLogSize)
        return;
    logError("the archived runs hold %u byte, not %u: the numbers are rebuilt\n", runs.total, mTotalLogSize);
    if (repairLogDatFile() == 0)
        (void)trimAtStart(0); // reported there; a bound that does not hold yet is met by the next section
}

} // namespace vnlog
