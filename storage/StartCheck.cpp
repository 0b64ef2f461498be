#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "storage/StorageFormat.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

/** Whether the name's last dot begins ".txt". */
bool namedText(const char* name) {
    const char* dot = std::strrchr(name, '.');
    return dot != nullptr && std::strcmp(dot, ".txt") == 0;
}

} // namespace

int LogService::init_Log_Storage() {
    if (access(mLogServiceDir, F_OK) != 0 && mkdir(mLogServiceDir, kFolderMode) != 0) {
        logError("fail to create log_service storage! \n");
        logErrno();
        return -1;
    }
    uint32_t size = 0;
    if (access(mCurrentDir, F_OK) != 0) {
        if (!createCurrentFolder())
            return -9;
    } else if (checkDirEmpty(mCurrentDir) == 0) {
        int result = closePreviousRun(&size);
        if (result == 0)
            result = archivePreviousRun();
        if (result != 0)
            return result;
    }
    return trimAtStart(size);
}

/** Compresses what the previous run left uncompressed; stores the size of all its files. 0, or -2 to -5. */
int LogService::closePreviousRun(uint32_t* size) {
    bool anyCompressed = false;
    int result = compressTexts(mCurrentDir, size, &anyCompressed);
    if (result != 0 || !anyCompressed)
        return result;
    int counted = getFolderSize(mCurrentDir); // the listing may or may not have shown what was made meanwhile
    if (counted == -1) {
        logError("init_Log_Storage getFolderSize fail!\n");
        return -5;
    }
    *size = static_cast<uint32_t>(counted);
    return 0;
}

/**
 * Compresses the text files of a run's folder and adds up the sizes of its other entries. 0, or -2 to -4.
 */
int LogService::compressTexts(const char* run, uint32_t* size, bool* anyCompressed) {
    *size = 0;
    Folder folder(run);
    if (!folder.valid()) {
        logError("fail to open [%s] dir error!\n", run);
        logErrno();
        return -2;
    }
    while (const dirent* entry = folder.next()) {
        Path path;
        bool whole = formatPath(path.text, "%s/%s", run, entry->d_name);
        bool text =
            namedText(entry->d_name) && entryType(run, entry->d_name, entry->d_type) == EntryType::File;
        if (text && whole && shellSafe(path.text)) {
            int result = compressPreviousFile(run, path.text);
            if (result != 0)
                return result;
            *anyCompressed = true;
        } else { // also a stray file whose name the shell would take apart: it goes along as it is
            *size += getFileSize(path.text);
        }
    }
    return 0;
}

/** Compresses one file of a run, in place of the stale result of an interrupted attempt. 0, -3 or -4. */
int LogService::compressPreviousFile(const char* run, const char* path) {
    Path archive;
    formatPath(archive.text, "%s.gz", path);
    if (access(archive.text, F_OK) == 0) {
        logDebug("[%s] exists and needs to be deleted\n", archive.text);
        if (std::remove(archive.text) != 0) {
            char text[128];
            logError("init_Log_Storage [%s] remove error: %s\n", archive.text,
                     strerror_r(errno, text, sizeof text));
            return -3;
        }
    }
    if (!compressed(path, archive.text)) {
        logError("init_Log_Storage fail to Compress [%s] log!\n", path);
        return -4;
    }
    syncArchive(run, archive.text);
    return 0;
}

/** Moves the previous run's folder to the next free number and makes a new one. 0, or -6 to -8. */
int LogService::archivePreviousRun() {
    uint32_t number = mHeadFolderNum;
    Path target;
    for (int retries = 10; retries >= 0; --retries) {
        target = lastFolder(mLastDirPrefix, ++number);
        if (access(target.text, F_OK) != 0) {
            logDebug("backup dest folder(%s) not exists, backup here\n", target.text);
            break;
        }
        logError("backup dest folder(%s) exists, try a new folder !\n", target.text);
        if (repairLogDatFile() != 0) {
            logError("Fatal error log storage file information is completely damaged\n");
            return -6;
        }
        number = std::max(number, mHeadFolderNum); // a stray file of that name is not counted by the repair
        logDebug("Try to fix the log data ,try (%d) times \n", retries);
    }
    if (!moveCurrentAside(target.text, number))
        return -7;
    return createCurrentFolder() ? 0 : -8;
}

/** Deletes until the archived runs, the `size` bytes just added to them and a section fit. 0, -10 or -11. */
int LogService::trimAtStart(uint32_t size) {
    for (int pass = 0; !withinBound(mLogSectionSize + size); ++pass) {
        if (pass == kDeletionPasses) {
            logError("Fatal error attempt to fix the failure\n");
            return -11;
        }
        int result = deleteLogSection();
        if (result == 0)
            continue;
        logError("fail to delete log section ret=[%d] !\n", result);
        if (repairLogDatFile() != 0) {
            logError("Fatal error log storage file information is completely damaged\n");
            return -10;
        }
        size = 0; // the rebuilt total has them already
    }
    mTotalLogSize += size;
    logDebug("total size is [%zd] \n", static_cast<ssize_t>(mTotalLogSize));
    return 0;
}

} // namespace vnlog
