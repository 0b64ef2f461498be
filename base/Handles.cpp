// SPDX-License-Identifier: Apache-2.0
#include "base/Handles.h"

#include "base/Text.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace vnlog {

void closeDescriptor(int fd) {
    if (fd < 0)
        return;
    CancelGuard guard;
    close(fd);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        closeDescriptor(mFd);
        mFd = other.release();
    }
    return *this;
}

int FileDescriptor::release() {
    int fd = mFd;
    mFd = -1;
    return fd;
}

FileDescriptor openFile(const char* path, int flags, mode_t mode) {
    CancelGuard guard;
    int fd;
    do
        fd = open(path, flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return FileDescriptor(fd);
}

FileDescriptor openOwnFile(const char* path, int flags, mode_t mode) {
    FileDescriptor file = openFile(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
    struct stat info;
    if (!file.valid() || fstat(file.get(), &info) != 0)
        return FileDescriptor();
    if (S_ISREG(info.st_mode) && (info.st_uid == geteuid() || info.st_uid == 0))
        return file;
    file = FileDescriptor();
    errno = EPERM;
    return file;
}

bool writeAll(int fd, const void* bytes, size_t length) {
    const char* next = static_cast<const char*>(bytes);
    while (length > 0) {
        ssize_t written = write(fd, next, length);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (written == 0) { // no progress and no error: going on would never end
            errno = EIO;
            return false;
        }
        next += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

bool readPiece(int fd, void* bytes, size_t size, size_t* count) {
    for (*count = 0; *count < size;) {
        ssize_t length = read(fd, static_cast<char*>(bytes) + *count, size - *count);
        if (length < 0 && errno != EINTR)
            return false;
        if (length == 0)
            break;
        *count += length > 0 ? static_cast<size_t>(length) : 0;
    }
    return true;
}

bool syncPath(const char* path) {
    FileDescriptor file = openFile(path, O_RDONLY);
    return file.valid() && fsync(file.get()) == 0;
}

bool syncFolderOf(const char* path) {
    Path folder;
    formatText(folder.text, "%s", path);
    char* slash = std::strrchr(folder.text, '/');
    if (slash == nullptr)
        return syncPath(".");
    slash[slash == folder.text ? 1 : 0] = '\0';
    return syncPath(folder.text);
}

void StreamCloser::operator()(FILE* stream) const {
    CancelGuard guard;
    fclose(stream);
}

Stream openForReading(const char* path) {
    CancelGuard guard;
    return Stream(fopen(path, "re"));
}

Folder::Folder(const char* path, Links links)
    : Folder(openFile(path, O_RDONLY | O_DIRECTORY | (links == Links::Refused ? O_NOFOLLOW : 0))) {}

Folder::Folder(FileDescriptor folder) {
    CancelGuard guard;
    mListing = folder.valid() ? fdopendir(folder.get()) : nullptr;
    if (mListing != nullptr)
        (void)folder.release(); // the listing's from here on
}

const dirent* Folder::next() {
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(mListing);
        if (entry == nullptr) {
            mFailed = errno != 0;
            return nullptr;
        }
        const char* name = entry->d_name;
        bool self = name[0] == '.' && name[1] == '\0';
        bool parent = name[0] == '.' && name[1] == '.' && name[2] == '\0';
        if (!self && !parent)
            return entry;
    }
}

bool Folder::examine(const char* name, Links links, struct stat* info) const {
    return fstatat(dirfd(mListing), name, info, links == Links::Refused ? AT_SYMLINK_NOFOLLOW : 0) == 0;
}

int Folder::close() {
    if (mListing == nullptr)
        return 0;
    CancelGuard guard;
    DIR* listing = mListing;
    mListing = nullptr;
    return closedir(listing);
}

Text allocateText(size_t size) {
    return Text(static_cast<char*>(std::calloc(size, 1)));
}

} // namespace vnlog
