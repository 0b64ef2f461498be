#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "sources/AndroidFormat.h"
#include "storage/StorageFormat.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr mode_t kConfigurationMode = 0555;

char letter(bool on) {
    return on ? 'y' : 'n';
}

Path configurationBackup(const char* path) {
    Path backup;
    formatPath(backup.text, "%s.unsaved", path);
    return backup;
}

/**
 * Removes the file before it is written anew, keeping it as the backup until that has succeeded. An older
 * backup is of before a save that failed, and the better one.
 */
bool setAside(const char* path, const char* backup) {
    struct stat info;
    bool worthKeeping = stat(path, &info) == 0 && S_ISREG(info.st_mode) && access(backup, F_OK) != 0;
    if (worthKeeping && std::rename(path, backup) == 0)
        return true;
    return std::remove(path) == 0;
}

/** Writes one formatted piece, whole, however long it is. */
[[gnu::format(printf, 2, 3)]] bool writePiece(int fd, const char* format, ...) {
    char usual[512] = {};
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(usual, sizeof usual, format, args);
    va_end(args);
    bool written = false;
    if (length >= 0 && static_cast<size_t>(length) < sizeof usual) {
        written = writeAll(fd, usual, static_cast<size_t>(length));
    } else if (length >= 0) {
        size_t size = static_cast<size_t>(length) + 1;
        Text whole = allocateText(size);
        if (whole != nullptr && std::vsnprintf(whole.get(), size, format, again) == length)
            written = writeAll(fd, whole.get(), size - 1);
    }
    va_end(again);
    return written;
}

} // namespace

int LogService::logConfigSave() {
    std::lock_guard<std::mutex> lock(mCommandLock);
    return saveConfiguration();
}

/** logConfigSave for callers that hold mCommandLock. Not to be cut in the middle by a cancellation. */
int LogService::saveConfiguration() {
    CancelGuard guard;
    Path backup = configurationBackup(mCfgPath);
    if (access(mCfgPath, F_OK) == 0 && !setAside(mCfgPath, backup.text)) {
        char text[128];
        logError("remove error: %s\n", strerror_r(errno, text, sizeof text));
    }
    FileDescriptor file = openFile(mCfgPath, O_WRONLY | O_CREAT, kConfigurationMode);
    if (!file.valid())
        return -1;
    if (!writeConfiguration(file.get())) {
        logError("write error \n");
        return -1;
    }
    fsync(file.get());
    (void)unlink(backup.text); // there is none after a first save
    return 0;
}

/** Undoes a save that was cut off: takes back the settings from before it. */
void LogService::restoreConfiguration() {
    Path backup = configurationBackup(mCfgPath);
    if (access(backup.text, F_OK) != 0)
        return;
    logError("the last save of %s was cut off, the settings from before it are used\n", mCfgPath);
    if (std::rename(backup.text, mCfgPath) != 0)
        logErrno();
}

bool LogService::writeConfiguration(int fd) {
    if (!writeGeneralSettings(fd))
        return false;
    std::lock_guard<std::mutex> lock(mFilterLock);
    if (!writeModules(fd) || !writePiece(fd, "\n"))
        return false;
    const char* format = formattostring(mLogFormat->printFormat);
    return writePiece(fd, "ALOG_FORMAT=%s\n", format != nullptr ? format : "brief") && writePiece(fd, "\n");
}

bool LogService::writeGeneralSettings(int fd) {
    return writePiece(fd,
                      "UART_OUTPUT=%c\nNAND_FILE_OUTPUT=%c\nSAVE_FLUSH_SWITCH=%c\nSTORAGE_PATH=%s\n"
                      "STORAGE_FULL=%c\nMAX_LOG_SIZE=%u\nLOG_SECTION_SIZE=%zu\nLOG_DELETE_SIZE=%zu\n"
                      "KLOG_OUTPUT=%c\nKLOG_LEVEL=%d\nALOG_OUTPUT=%c\nALOG_LEVEL=%s\n",
                      letter(mKLogToUart || mALogToUart), letter(mKLogToFile || mALogToFile),
                      letter(mFlushSwitch), mSavePath != nullptr ? mSavePath : "", letter(mStorageFull),
                      static_cast<unsigned>(mMaxLogSize), static_cast<size_t>(mLogSectionSize / 1024),
                      static_cast<size_t>(mLogDeleteSize / 1024), letter(mKLogOutput), mKLogLevel.load(),
                      letter(mALogOutput), mALogLevel);
}

/** The module line without its end; mFilterLock is held. */
bool LogService::writeModules(int fd) {
    const AndroidLogFilterRule_t* rule = mLogFormat->rules;
    if (rule == nullptr) {
        bool none = mLogFormat->globalPriority == ANDROID_LOG_SILENT;
        return writePiece(fd, "ALOG_MODULE=%s", none ? "NONE_MODULE" : "ALL_MODULE");
    }
    bool written = writePiece(fd, "ALOG_MODULE=");
    for (; written && rule != nullptr; rule = rule->next)
        written = writePiece(fd, "%s:%c%s", rule->tag, filterPriToChar(rule->priority),
                             rule->next != nullptr ? "+" : "");
    return written;
}

void LogService::showLogCfg() {
    CancelGuard guard;
    struct stat info;
    if (stat(mCfgPath, &info) != 0) {
        logError("showLogCfg fail to stat!\n");
        logErrno();
        return;
    }
    FileDescriptor file = openFile(mCfgPath, O_RDONLY);
    if (!file.valid()) {
        logError("showLogCfg fail to open!\n");
        logErrno();
        return;
    }
    size_t size = static_cast<size_t>(info.st_size);
    Text text = allocateText(size + 1);
    if (text == nullptr) {
        logError("showLogCfg fail to malloc cfg buf!\n");
        logErrno();
        return;
    }
    ssize_t length = read(file.get(), text.get(), size);
    if (length < 0 || static_cast<size_t>(length) < size) {
        logError("fail to read log file!\n");
        logErrno();
        return;
    }
    puts("\n\ncurrent log cfg:");
    puts(text.get());
    fflush(stdout); // the Android reader writes to the same descriptor without stdio
}

} // namespace vnlog
