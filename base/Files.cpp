// SPDX-License-Identifier: Apache-2.0
#include "base/Files.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace vnlog {

FolderState folderState(const char* path) {
    Folder folder(path);
    if (!folder.valid()) {
        logError("checkDirEmpty path(%s) can not open\n", path);
        return FolderState::Unreadable;
    }
    if (folder.next() != nullptr)
        return FolderState::NotEmpty;
    return folder.failed() ? FolderState::Unreadable : FolderState::Empty;
}

bool folderSize(const char* path, uint32_t* sum) {
    *sum = 0;
    Folder folder(path);
    uint32_t found = 0;
    while (const dirent* entry = folder.valid() ? folder.next() : nullptr) {
        struct stat info;
        if (folder.examine(entry->d_name, Links::Followed, &info))
            found += static_cast<uint32_t>(info.st_size);
    }
    if (!folder.valid() || folder.failed()) {
        logError("fail to getFolderSize path error!\n");
        logErrno();
        return false;
    }
    if (folder.close() != 0) {
        logError("Failed to close the directory [%s]", path);
        logErrno();
        return false;
    }
    *sum = found;
    return true;
}

uint32_t fileSize(const char* path) {
    struct stat info;
    return stat(path, &info) == 0 ? static_cast<uint32_t>(info.st_size) : 0;
}

uint32_t freeSpace(const char* path) {
    struct statvfs info;
    if (statvfs(path, &info) != 0) {
        logError("getFileFreeSpace statvfs error");
        return 0;
    }
    uint64_t limit = std::numeric_limits<uint32_t>::max();
    uint64_t blockSize = std::max<uint64_t>(info.f_bsize, 1);
    uint64_t blocks = std::min<uint64_t>(info.f_bfree, limit / blockSize + 1); // keeps the product in range
    return static_cast<uint32_t>(std::min(blocks * info.f_bsize, limit));
}

uint64_t availableBytes(const char* path) {
    struct statvfs info;
    if (statvfs(path, &info) != 0)
        return 0;
    return static_cast<uint64_t>(geteuid() == 0 ? info.f_bfree : info.f_bavail) * info.f_frsize;
}

OwnFolder ownFolder(const char* path) {
    struct stat info;
    int error = 0;
    if (lstat(path, &info) != 0)
        error = errno;
    else if (!S_ISDIR(info.st_mode))
        error = S_ISLNK(info.st_mode) ? ELOOP : ENOTDIR;
    else if (info.st_uid != geteuid() && info.st_uid != 0)
        error = EPERM;
    if (error == ENOENT)
        return OwnFolder::Missing;
    if (error == 0) {
        constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
        if ((info.st_mode & kOthersWrite) != 0 && info.st_uid == geteuid())
            (void)chmod(path, info.st_mode & 07777 &
                                  ~kOthersWrite); // on a medium without rights it changes nothing
        return OwnFolder::Ours;
    }
    char reason[128];
    logError("[%s] is not used as a folder of the store: %s\n", path,
             strerror_r(error, reason, sizeof reason));
    errno = error;
    return OwnFolder::Refused;
}

bool lackOfRoom(int error) {
    return error == ENOSPC || error == EDQUOT;
}

bool mayPass(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

bool nameTaken(const char* path) {
    struct stat info;
    return lstat(path, &info) == 0;
}

bool pathExists(const char* path) {
    return access(path, F_OK) == 0;
}

} // namespace vnlog
