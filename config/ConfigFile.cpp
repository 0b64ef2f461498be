// SPDX-License-Identifier: Apache-2.0
#include "config/ConfigFile.h"

#include "base/Diagnostics.h"
#include "base/Files.h"
#include "base/Handles.h"
#include "base/Text.h"
#include "storage/Layout.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr mode_t kConfigurationMode = 0555;

Path besides(const char* path, const char* end) {
    Path whole;
    formatText(whole.text, "%s%s", path, end);
    return whole;
}

void reportRemoval() {
    char reason[128];
    logError("remove error: %s\n", strerror_r(errno, reason, sizeof reason));
}

/** Removes what is in the way, if anything. */
bool clearAway(const char* path) {
    if (std::remove(path) == 0 || errno == ENOENT)
        return true;
    reportRemoval();
    return false;
}

/** Writes a file that is not there yet, synced. False with errno set and nothing left. */
bool writeNew(const char* path, const char* text, size_t length) {
    FileDescriptor file = openFile(path, O_WRONLY | O_CREAT | O_EXCL, kConfigurationMode);
    if (!file.valid())
        return false;
    if (writeAll(file.get(), text, length) && fsync(file.get()) == 0)
        return true;
    int error = errno;
    (void)unlink(path);
    errno = error;
    return false;
}

/** The file as it is; null when it cannot be read. */
Text readOwn(const char* path, size_t* size) {
    FileDescriptor file = openConfiguration(path, Configuration::Own, size);
    Text text = file.valid() ? allocateText(*size + 1) : nullptr;
    bool whole = text != nullptr && read(file.get(), text.get(), *size) == static_cast<ssize_t>(*size);
    return whole ? std::move(text) : nullptr;
}

/** Replaces the file where there is no room for a second one beside it. False with errno set. */
bool writeInPlace(const char* path, const char* text, size_t length) {
    size_t oldLength = 0;
    Text old = readOwn(path, &oldLength);
    if (!clearAway(path))
        return false;
    if (writeNew(path, text, length))
        return true;
    int error = errno;
    if (old == nullptr || !writeNew(path, old.get(), oldLength))
        logError("there is no room for %s any more, and none is left\n", path);
    errno = error;
    return false;
}

/** Whether the file has another name: to remove this one makes no room. */
bool linkedElsewhere(const char* path) {
    struct stat info;
    int error = errno;
    bool linked = lstat(path, &info) == 0 && info.st_nlink > 1;
    errno = error;
    return linked;
}

/** Gives the file another name, which needs no room, on a file system that has such names. */
bool linkAs(const char* path, const char* other) {
    Path draft = draftOf(other);
    bool linked = clearAway(draft.text) && link(path, draft.text) == 0;
    bool named = linked && std::rename(draft.text, other) == 0;
    if (linked)
        (void)unlink(draft.text); // it is still there where both are this file already
    return named && syncFolderOf(path);
}

bool takeDraft(const char* draft, const char* path) {
    if (std::rename(draft, path) == 0)
        return true;
    reportRemoval(); // of the old file, by the new one
    (void)unlink(draft);
    return false;
}

} // namespace

const char* fallbackConfiguration() {
    const char* fallback = std::getenv(kDefaultConfigurationVariable);
    if (fallback != nullptr && pathExists(fallback))
        return fallback;
    return "system/etc/log_service/log_default.cfg";
}

FileDescriptor openConfiguration(const char* path, Configuration whose, size_t* size) {
    FileDescriptor file = whose == Configuration::Own ? openOwnFile(path, O_RDONLY)
                                                      : openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat info;
    if (!file.valid() || fstat(file.get(), &info) != 0)
        return FileDescriptor();
    *size = static_cast<size_t>(info.st_size);
    if (S_ISREG(info.st_mode) && info.st_size <= kMaxConfigurationSize)
        return file;
    file = FileDescriptor();
    errno = S_ISREG(info.st_mode) ? EFBIG : S_ISDIR(info.st_mode) ? EISDIR : EPERM;
    return file;
}

bool replaceConfiguration(const char* path, const char* text, size_t length) {
    CancelGuard guard;
    Path draft = draftOf(path);
    (void)clearAway(draft.text); // what stays in the way makes the next step fail
    bool written = writeNew(draft.text, text, length);
    if (written && !takeDraft(draft.text, path))
        return false;
    if (!written && lackOfRoom(errno) && !linkedElsewhere(path))
        written = writeInPlace(path, text, length);
    if (written && syncFolderOf(path))
        return true;
    logError("write error \n");
    logErrno();
    return false;
}

void keepRejected(const char* path) {
    CancelGuard guard;
    struct stat info;
    if (lstat(path, &info) != 0 || S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && info.st_size == 0))
        return;
    Path kept = besides(path, ".rejected");
    size_t size = 0;
    Text old = readOwn(path, &size);
    bool copied =
        old != nullptr && (replaceConfiguration(kept.text, old.get(), size) || linkAs(path, kept.text));
    if (copied || (old == nullptr && std::rename(path, kept.text) == 0 && syncFolderOf(path)))
        logError("%s could not be used whole, it is kept as %s\n", path, kept.text);
    else
        logError("%s could not be used whole, and cannot be kept as %s\n", path, kept.text);
}

Path setAside(const char* path) {
    return besides(path, ".unsaved");
}

void discardSetAside(const char* path) {
    (void)unlink(setAside(path).text); // there is none but after an earlier version
}

} // namespace vnlog
