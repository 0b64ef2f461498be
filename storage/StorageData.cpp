#include "config/CfgText.h"
#include "platform/sysroot/SystemRoot.h"
#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "storage/StorageFormat.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

/** The significant lines of log_storage.dat; null, reported and with errno set, when they cannot be read. */
Text readStorageData(FILE* file) {
    if (std::fseek(file, 0, SEEK_END) != 0) {
        logError("[logStorageDataParse] error seeking to end of file !\n");
        return nullptr;
    }
    long size = std::ftell(file);
    if (size < 0) {
        logError("[logStorageDataParse] error getting file size !\n");
        return nullptr;
    }
    std::rewind(file);
    size_t capacity = static_cast<size_t>(size) + 1;
    Text text = allocateText(capacity);
    if (text == nullptr)
        logError("[logStorageDataParse] fail to calloc cfg buf!\n");
    else
        readSignificantLines(file, text.get(), capacity);
    return text;
}

} // namespace

int LogService::logGetSavePath() {
    if (mSavePath == nullptr) {
        logError("mSavePath(null) is NULL\n");
        useDefaultRoot();
    } else {
        Folder folder(usableRoot(mSavePath) ? mSavePath : "");
        if (!folder.valid()) {
            logError("STORAGE_PATH(%s) can not open\n", mSavePath);
            useDefaultRoot();
        } else if (folder.close() != 0) {
            logError("Failed to close the directory [%s]", mSavePath);
            logErrno();
            return -1;
        }
    }
    if (mSavePath == nullptr || !usableRoot(mSavePath))
        return -1; // only a system root can make the default unusable
    formatPath(mLogServiceDir, "%s%s", mSavePath, kLogServiceSuffix);
    formatPath(mLastDirPrefix, "%s%s", mSavePath, kLastPrefixSuffix);
    formatPath(mCurrentDir, "%s%s", mSavePath, kCurrentSuffix);
    formatPath(mCurrentLogFile, "%s%s", mSavePath, kCurrentFileSuffix);
    formatPath(mStorageDataFile, "%s%s", mSavePath, kStorageDataSuffix);
    return 0;
}

/** Takes the default root untested: with it the service at least says where it failed. */
void LogService::useDefaultRoot() {
    Path root;
    formatPath(root.text, "%s%s", mSystemRoot, kDefaultRoot);
    logDebug("Use default STORAGE_PATH: %s\n", root.text);
    std::free(mSavePath);
    mSavePath = strdup(root.text);
}

/** The bookkeeping numbers of a root without archived runs. */
void LogService::resetNumbers() {
    mTailFolderNum = 0;
    mHeadFolderNum = 0;
    mTotalLogSize = 0;
    mOldestFileNum = 1;
}

int LogService::logStorageDataSave() {
    char text[256];
    formatPath(text, "TOTAL_LOG_SIZE=%zu\nHEAD_FOLDER_NUM=%u\nTAIL_FOLDER_NUM=%u\nOLDEST_FILE_NUM=%u\n",
               static_cast<size_t>(mTotalLogSize), mHeadFolderNum, mTailFolderNum, mOldestFileNum);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
    FileDescriptor file = openFile(mStorageDataFile, kFlags, kBookkeepingMode);
    Path anew = {}; // where the file is read-only to the service, one beside it takes its place
    if (!file.valid() && errno == EACCES) {
        formatPath(anew.text, "%s.new", mStorageDataFile);
        (void)unlink(anew.text); // of an attempt that was cut off
        file = openFile(anew.text, kFlags, kBookkeepingMode);
    }
    if (!file.valid())
        return -1;
    if (!writeAll(file.get(), text, std::strlen(text))) {
        logError("logStorageDataSave write failed \n");
        logErrno();
        return -1;
    }
    fsync(file.get());
    return anew.text[0] == '\0' || rename(anew.text, mStorageDataFile) == 0 ? 0 : -1;
}

int LogService::logStorageDataParse() {
    Stream file = openForReading(mStorageDataFile);
    if (file == nullptr) {
        logError("[logStorageDataParse] fail to open storage data file !\n");
        logErrno();
        return -1;
    }
    Text text = readStorageData(file.get());
    if (text == nullptr) {
        logErrno();
        return -1;
    }
    struct Number {
        const char* key;
        const char* name;
        int minimum;
        uint32_t LogService::*member;
    };
    const Number numbers[] = {
        {"TOTAL_LOG_SIZE=", "TOTAL_LOG_SIZE", 0, &LogService::mTotalLogSize},
        {"HEAD_FOLDER_NUM=", "HEAD_FOLDER_NUM", 0, &LogService::mHeadFolderNum},
        {"TAIL_FOLDER_NUM=", "TAIL_FOLDER_NUM", 0, &LogService::mTailFolderNum},
        {"OLDEST_FILE_NUM=", "OLDEST_FILE_NUM", 1, &LogService::mOldestFileNum},
    };
    for (const Number& number : numbers) {
        int value = 0;
        if (getCfgInt(text.get(), number.key, &value, number.minimum, kMaxBookkeepingNumber, -1) != 0) {
            logError("fail to parse %s,(%s) not found\n", mStorageDataFile, number.name);
            return -1;
        }
        this->*number.member = static_cast<uint32_t>(value);
    }
    logDebug("read %s: total %u, head %u, tail %u, oldest %u\n", mStorageDataFile, mTotalLogSize,
             mHeadFolderNum, mTailFolderNum, mOldestFileNum);
    return 1;
}

} // namespace vnlog
