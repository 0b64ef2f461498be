#include "storage/Bookkeeping.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "base/ProcessorTime.h"
#include "storage/Listing.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

/** One line of the file. */
struct Number {
    const char* key; ///< with the "="
    int minimum;
    uint32_t StorageState::*member;
};

constexpr Number kNumbers[] = {
    {"TOTAL_LOG_SIZE=", 0, &StorageState::mTotalLogSize},
    {"HEAD_FOLDER_NUM=", 0, &StorageState::mHeadFolderNum},
    {"TAIL_FOLDER_NUM=", 0, &StorageState::mTailFolderNum},
    {"OLDEST_FILE_NUM=", 1, &StorageState::mOldestFileNum},
};

/** Says which step of reading the file's size failed. */
bool sizeFailed(const char* report) {
    logError("%s", report);
    logErrno();
    return false;
}

bool sizeOf(FILE* file, size_t* size) {
    if (std::fseek(file, 0, SEEK_END) != 0)
        return sizeFailed("[logStorageDataParse] error seeking to end of file !\n");
    long end = std::ftell(file);
    if (end < 0)
        return sizeFailed("[logStorageDataParse] error getting file size !\n");
    std::rewind(file);
    *size = static_cast<size_t>(end);
    return true;
}

/** The significant lines of the file; null, reported, when they cannot be read. */
Text readBookkeeping(const char* path) {
    Stream file = openForReading(path);
    if (file == nullptr) {
        logError("[logStorageDataParse] fail to open storage data file !\n");
        logErrno();
        return nullptr;
    }
    size_t size = 0;
    if (!sizeOf(file.get(), &size))
        return nullptr;
    Text text = readSignificantLines(file.get(), size);
    if (text == nullptr) {
        logError("[logStorageDataParse] fail to calloc cfg buf!\n");
        logErrno();
    }
    return text;
}

} // namespace

bool Bookkeeping::save() {
    char text[256] = {};
    size_t length = 0;
    for (const Number& number : kNumbers)
        length += static_cast<size_t>(
            std::snprintf(text + length, sizeof text - length, "%s%u\n", number.key, mState.*number.member));
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    FileDescriptor file = openFile(mState.mStorageDataFile, kFlags, kBookkeepingMode);
    Path draft = {}; // where the file is read-only to the service, one beside it takes its place
    if (!file.valid() && errno == EACCES) {
        draft = draftOf(mState.mStorageDataFile);
        (void)unlink(draft.text); // of an attempt that was cut off
        file = openFile(draft.text, kFlags, kBookkeepingMode);
    }
    if (!file.valid())
        return false;
    if (!writeAll(file.get(), text, length)) {
        logError("logStorageDataSave write failed \n");
        logErrno();
        return false;
    }
    fsync(file.get());
    return draft.text[0] == '\0' || rename(draft.text, mState.mStorageDataFile) == 0;
}

bool Bookkeeping::parse() {
    Text text = readBookkeeping(mState.mStorageDataFile);
    if (text == nullptr)
        return false;
    for (const Number& number : kNumbers) {
        int value = 0;
        if (!readNumber(text.get(), number.key, &value, number.minimum, kMaxBookkeepingNumber, -1)) {
            auto nameLength = static_cast<int>(std::strlen(number.key)) - 1;
            logError("fail to parse %s,(%.*s) not found\n", mState.mStorageDataFile, nameLength, number.key);
            return false;
        }
        mState.*number.member = static_cast<uint32_t>(value);
    }
    logDebug("read %s: total %u, head %u, tail %u, oldest %u\n", mState.mStorageDataFile,
             mState.mTotalLogSize, mState.mHeadFolderNum, mState.mTailFolderNum, mState.mOldestFileNum);
    return true;
}

void Bookkeeping::reset() {
    mState.mTailFolderNum = 0;
    mState.mHeadFolderNum = 0;
    mState.mTotalLogSize = 0;
    mState.mOldestFileNum = 1;
}

RebuildStatus Bookkeeping::rebuild() {
    ProcessorTime time;
    RunTotals runs;
    if (!countRuns(mState.mLogServiceDir, &runs)) {
        logError("Failed to open storage folder.Please check !\n");
        logErrno();
        return RebuildStatus::NoLogFolder;
    }
    uint32_t oldest = 1;
    uint32_t tail = runs.count > 0 ? runs.oldest : 0;
    bool search = runs.count > 0 || folderState(mState.mCurrentDir) == FolderState::NotEmpty;
    Path oldestRun = runFolderIn(mState.mLogServiceDir, tail);
    if (search && !oldestSection(runs.count > 0 ? oldestRun.text : mState.mCurrentDir, &oldest)) {
        logError("Failed to open min_dir folder.Please check !\n");
        logErrno();
        return RebuildStatus::NoRunFolder;
    }
    if (oldest == kNoNumber) {
        logError("file number search failed! \n");
        return RebuildStatus::NothingFound;
    }

    logDebug("repairLogDatFile total_size:%zu\nhead:%u\ntail:%u\nold_file:%u\n",
             static_cast<size_t>(runs.bytes), runs.newest, tail, oldest);
    mState.mHeadFolderNum = runs.newest;
    mState.mTotalLogSize = runs.bytes;
    mState.mTailFolderNum = tail;
    mState.mOldestFileNum = oldest;
    if (!save()) {
        logError("[repairLogDatFile] storage data failed to save !\n");
        return RebuildStatus::NotSaved;
    }
    logDebug("[repairLogDatFile] startup time is %f ms\n", time.milliseconds());
    return RebuildStatus::Done;
}

bool Bookkeeping::startAnew() {
    RunTotals runs;
    uint32_t oldest = 0;
    if (!countRuns(mState.mLogServiceDir, &runs) || runs.count > 0 ||
        !oldestSection(mState.mCurrentDir, &oldest) || oldest != kNoNumber)
        return false;
    reset();
    return save();
}

bool Bookkeeping::matchesFolders() {
    RunTotals runs;
    if (!countRuns(mState.mLogServiceDir, &runs))
        return true; // nothing to compare with
    if (runs.count == 0)
        return mState.mTailFolderNum == mState.mHeadFolderNum && mState.mTotalLogSize == 0;
    bool archivingWillTell = pathExists(runFolder(mState.mLastDirPrefix, mState.mHeadFolderNum + 1).text) &&
                             pathExists(mState.mCurrentDir) &&
                             folderState(mState.mCurrentDir) == FolderState::NotEmpty;
    if (archivingWillTell)
        return true;
    Path oldestRun = runFolder(mState.mLastDirPrefix, mState.mTailFolderNum);
    return runs.newest == mState.mHeadFolderNum && runs.oldest == mState.mTailFolderNum &&
           runs.bytes == mState.mTotalLogSize &&
           pathExists(sectionArchive(oldestRun.text, mState.mOldestFileNum).text);
}

} // namespace vnlog
