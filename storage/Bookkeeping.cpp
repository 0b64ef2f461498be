// SPDX-License-Identifier: Apache-2.0
#include "storage/Bookkeeping.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/KeyValue.h"
#include "base/ProcessorTime.h"
#include "storage/Listing.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

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

constexpr size_t kLongestFile = 65536; ///< what is longer is not ours

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
Text readBookkeeping(FileDescriptor own) {
    Stream file(own.valid() ? fdopen(own.get(), "r") : nullptr);
    if (file == nullptr) {
        logError("[logStorageDataParse] fail to open storage data file !\n");
        logErrno();
        return nullptr;
    }
    (void)own.release(); // the stream's from here on
    size_t size = 0;
    if (!sizeOf(file.get(), &size))
        return nullptr;
    size = std::min(size, kLongestFile);
    Text text = readSignificantLines(file.get(), size);
    if (text == nullptr) {
        logError("[logStorageDataParse] fail to calloc cfg buf!\n");
        logErrno();
    }
    return text;
}

/** Writes a file anew, synced. False with errno set: nothing of it is left. */
bool writeWhole(const char* path, const char* text, size_t length) {
    (void)unlink(path); // of an attempt that was cut off
    FileDescriptor file = openOwnFile(path, O_WRONLY | O_CREAT | O_EXCL, kBookkeepingMode);
    if (!file.valid())
        return false;
    bool written = writeAll(file.get(), text, length);
    if (!written) {
        logError("logStorageDataSave write failed \n");
        logErrno();
    }
    if (written && fsync(file.get()) == 0)
        return true;
    int error = errno;
    (void)unlink(path);
    errno = error;
    return false;
}

} // namespace

bool Bookkeeping::save() {
    char text[256] = {};
    size_t length = 0;
    for (const Number& number : kNumbers)
        length += static_cast<size_t>(
            std::snprintf(text + length, sizeof text - length, "%s%u\n", number.key, mState.*number.member));
    Path draft = draftOf(mState.mStorageDataFile);
    if (writeWhole(draft.text, text, length))
        return rename(draft.text, mState.mStorageDataFile) == 0;
    // The numbers can be had from the folders again: no room for both files, or something odd in the draft's
    // place, is no reason to go without.
    return (lackOfRoom(errno) || errno == EEXIST) && writeWhole(mState.mStorageDataFile, text, length);
}

bool Bookkeeping::parse() {
    return parse(openOwnFile(mState.mStorageDataFile, O_RDONLY));
}

bool Bookkeeping::parse(FileDescriptor file) {
    Text text = readBookkeeping(std::move(file));
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
    return mAsRead = true;
}

void Bookkeeping::reset() {
    mAsRead = false;
    mState.mTailFolderNum = 0;
    mState.mHeadFolderNum = 0;
    mState.mTotalLogSize = 0;
    mState.mOldestFileNum = 1;
}

/** What the folders say. */
struct Bookkeeping::Stock {
    RunTotals runs;
    RunContent current; ///< empty where there is none

    uint32_t tail() const { return runs.oldestHolding != kNoNumber ? runs.oldestHolding : runs.newest; }
    /** kNoNumber when no section is finished anywhere. */
    uint32_t oldest() const {
        return runs.oldestSection != kNoNumber ? runs.oldestSection : current.oldestArchive;
    }
};

/** Looks into the folders. Done, or which of them cannot be told, with errno set. */
RebuildStatus Bookkeeping::look(Stock* stock) {
    if (!countRuns(mState.mLogServiceDir, &stock->runs))
        return RebuildStatus::NoLogFolder;
    bool known = lookIntoRun(mState.mCurrentDir, &stock->current, Look::Sizes) || errno == ENOENT ||
                 errno == ENOTDIR || errno == ELOOP; // without a folder there is nothing in it
    return known ? RebuildStatus::Done : RebuildStatus::NoRunFolder;
}

RebuildStatus Bookkeeping::rebuild() {
    ProcessorTime time;
    Stock stock;
    RebuildStatus looked = look(&stock);
    if (looked != RebuildStatus::Done) {
        logError(looked == RebuildStatus::NoLogFolder ? "Failed to open storage folder.Please check !\n"
                                                      : "Failed to open min_dir folder.Please check !\n");
        logErrno();
        return looked;
    }
    if (stock.oldest() == kNoNumber && (stock.runs.count > 0 || stock.current.holdsSection())) {
        logError("file number search failed! \n");
        return RebuildStatus::NothingFound;
    }
    take(stock, 0);
    logDebug("repairLogDatFile total_size:%zu\nhead:%u\ntail:%u\nold_file:%u\n",
             static_cast<size_t>(mState.mTotalLogSize), mState.mHeadFolderNum, mState.mTailFolderNum,
             mState.mOldestFileNum);
    if (!save()) {
        logError("[repairLogDatFile] storage data failed to save !\n");
        return RebuildStatus::NotSaved;
    }
    logDebug("[repairLogDatFile] startup time is %f ms\n", time.milliseconds());
    return RebuildStatus::Done;
}

/** Sets the numbers; `lastRun` is the newest one's when there is no run. */
void Bookkeeping::take(const Stock& stock, uint32_t lastRun) {
    bool anyRun = stock.runs.count > 0;
    mState.mHeadFolderNum = anyRun ? stock.runs.newest : lastRun;
    mState.mTailFolderNum = anyRun ? stock.tail() : lastRun;
    mState.mTotalLogSize = stock.runs.bytes;
    mState.mOldestFileNum = stock.oldest() == kNoNumber ? 1 : stock.oldest();
}

bool Bookkeeping::takeStock() {
    bool differs = false;
    if (!recount(&differs))
        return false;
    if (differs && !save()) { // the next start takes stock again
        logError("[%s] failed to save !\n", mState.mStorageDataFile);
        logErrno();
    }
    return true;
}

bool Bookkeeping::recount(bool* differs) {
    Stock stock;
    if (look(&stock) != RebuildStatus::Done) {
        logError("[%s] cannot be counted\n", mState.mLogServiceDir);
        logErrno();
        return false;
    }
    mState.mCurrentTotalSize = stock.current.archiveBytes;
    mOnMedium = stock.runs.onMedium + stock.current.onMedium;
    bool asRead = std::exchange(mAsRead, false);
    *differs = !matches(stock);
    if (!*differs)
        return true;
    if (asRead)
        logError("the storage data contradicts the folders and is rebuilt\n");
    take(stock, mState.mHeadFolderNum); // the next run is to have a higher number than the last one had
    return true;
}

/** An oldest number that names nothing is right as long as no section is finished. */
bool Bookkeeping::matches(const Stock& stock) {
    bool anyRun = stock.runs.count > 0;
    return mState.mTotalLogSize == stock.runs.bytes &&
           mState.mHeadFolderNum == (anyRun ? stock.runs.newest : mState.mTailFolderNum) &&
           mState.mTailFolderNum == (anyRun ? stock.tail() : mState.mHeadFolderNum) &&
           (stock.oldest() == kNoNumber || mState.mOldestFileNum == stock.oldest());
}

} // namespace vnlog
