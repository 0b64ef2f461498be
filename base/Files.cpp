#include "base/Files.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"

#include <algorithm>
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
        int64_t size = folder.entrySize(entry->d_name);
        if (size > 0)
            found += static_cast<uint32_t>(size);
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

bool pathExists(const char* path) {
    return access(path, F_OK) == 0;
}

} // namespace vnlog
