// SPDX-License-Identifier: Apache-2.0
#include "storage/FileSteps.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace vnlog {

namespace {

/** Makes the draft and brings its bytes to the medium. */
bool writeDraft(const char* text, const char* path, const std::function<bool(const Draft&)>& fill) {
    FileDescriptor from = openOwnFile(text, O_RDONLY);
    struct stat info;
    if (!from.valid() || fstat(from.get(), &info) != 0)
        return false;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL;
    mode_t mode = info.st_mode & kSectionMode;
    FileDescriptor file = openFile(path, kFlags, mode);
    if (!file.valid() && errno == EEXIST && unlink(path) == 0) // of a compression that was cut off
        file = openFile(path, kFlags, mode);
    if (!file.valid())
        return false;
    (void)fchmod(file.get(), mode); // whatever the umask; a file system without modes refuses
    return fill({text, path, from.get(), file.get(), info}) && fsync(file.get()) == 0;
}

bool before(const timespec& one, const timespec& other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

/** A comparison of a tree with its copy. */
class CopyCheck {
  public:
    CopyCheck(const struct stat& copy, timespec since, timespec made)
        : mCopy(copy), mSince(since), mMade(made) {}

    bool folder(int parent, const char* name, int copyParent, const char* copyName) {
        Folder source(openEntry(parent, name, O_RDONLY | O_DIRECTORY));
        if (!source.valid())
            return errno == ENOENT;
        FileDescriptor copy = openEntry(copyParent, copyName, O_RDONLY | O_DIRECTORY);
        bool holds = copy.valid();
        while (const dirent* found = holds ? source.next() : nullptr)
            holds = entry(source, found->d_name, copy.get());
        return holds && !source.failed();
    }

  private:
    bool entry(const Folder& source, const char* name, int copy) {
        struct stat info, there;
        if (!source.examine(name, Links::Refused, &info))
            return errno == ENOENT;
        if (S_ISDIR(info.st_mode))
            return same(info, mCopy) || folder(source.descriptor(), name, copy, name);
        if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode))
            return true;
        if (fstatat(copy, name, &there, AT_SYMLINK_NOFOLLOW) != 0) {
            bool vanished = !source.examine(name, Links::Refused, &info);
            errno = ENOENT;
            return vanished || !before(info.st_ctim, mMade);
        }
        errno = EEXIST;
        if ((there.st_mode & S_IFMT) != (info.st_mode & S_IFMT))
            return false;
        errno = EIO;
        return !before(info.st_ctim, mSince) || there.st_size >= info.st_size || S_ISLNK(info.st_mode);
    }

    const struct stat mCopy;
    const timespec mSince;
    const timespec mMade;
};

} // namespace

FileDescriptor openEntry(int folder, const char* name, int flags, mode_t mode) {
    int fd;
    do
        fd = openat(folder, name, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return FileDescriptor(fd);
}

bool same(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

void addUpTree(int parent, const char* name, CopyTotals* totals) {
    Folder folder(openEntry(parent, name, O_RDONLY | O_DIRECTORY));
    struct stat info;
    while (const dirent* entry = folder.valid() ? folder.next() : nullptr) {
        if (!folder.examine(entry->d_name, Links::Refused, &info))
            continue;
        if (S_ISDIR(info.st_mode))
            addUpTree(folder.descriptor(), entry->d_name, totals);
        if (!S_ISREG(info.st_mode))
            continue;
        ++totals->files;
        totals->bytes += static_cast<uint64_t>(info.st_size);
    }
}

void addUpCopied(int parent, const char* name, int copyParent, const char* copyName, CopyTotals* totals) {
    Folder source(openEntry(parent, name, O_RDONLY | O_DIRECTORY));
    FileDescriptor copy = openEntry(copyParent, copyName, O_RDONLY | O_DIRECTORY);
    struct stat info;
    while (const dirent* entry = source.valid() && copy.valid() ? source.next() : nullptr) {
        if (fstatat(copy.get(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(info.st_mode))
            addUpCopied(source.descriptor(), entry->d_name, copy.get(), entry->d_name, totals);
        if (!S_ISREG(info.st_mode))
            continue;
        ++totals->files;
        totals->bytes += static_cast<uint64_t>(info.st_size);
    }
}

bool copyHolds(const char* from, const char* copy, timespec since, timespec made) {
    struct stat info;
    return lstat(copy, &info) == 0 && CopyCheck(info, since, made).folder(AT_FDCWD, from, AT_FDCWD, copy);
}

const char* lastName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool reported(bool done, const char* what, const char* path) {
    char reason[128];
    if (!done)
        logError("fail to %s [%s]: %s\n", what, path, strerror_r(errno, reason, sizeof reason));
    return done;
}

bool compressByDraft(const char* text, const std::function<bool(const Draft&)>& fill) {
    Path archive = archiveOf(text);
    Path draft = draftOf(archive.text);
    bool done = writeDraft(text, draft.text, fill) && rename(draft.text, archive.text) == 0 &&
                syncFolderOf(archive.text) && unlink(text) == 0;
    if (!done) {
        int error = errno;
        (void)unlink(draft.text);
        errno = error;
    }
    return reported(done, "compress", text);
}

bool canMove(const char* from, const char* to) {
    struct stat info;
    if (lstat(to, &info) == 0) {
        errno = EEXIST;
        return false;
    }
    if (errno != ENOENT || lstat(from, &info) != 0)
        return false;
    errno = ENOTDIR;
    return S_ISDIR(info.st_mode);
}

bool isNoLink(const char* path) {
    struct stat info;
    if (lstat(path, &info) != 0)
        return false;
    errno = ELOOP;
    return !S_ISLNK(info.st_mode);
}

} // namespace vnlog
