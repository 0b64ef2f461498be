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

} // namespace

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
