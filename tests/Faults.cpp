// SPDX-License-Identifier: Apache-2.0
#include "Faults.h"

#include "CutMedium.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

Faults faults;

void Faults::disarm() {
    for (Number* number : {&writeError, &writesUntilError, &shortWrite, &writeDelayUs, &clockStep,
                           &interruptedReads, &objectRefused, &wholeReads, &interruption, &reads, &selects})
        *number = 0;
    threadsUntilError = semaphoresUntilError = entriesUntilError = stepsUntilError = -1;
    writeErrors = INT_MAX;
    failAllocationsFrom = SIZE_MAX;
    freeBytes = -1;
    allocations = 0;
    skipPauses = sectionsOnly = unwatched = archivesWait = mRecording = false;
    mCalls.clear();
    mPauses.clear();
}

void Faults::recordCalls(bool on) {
    Lock lock(mMutex);
    mRecording = on;
    if (on)
        mCalls.clear();
}

void Faults::addCall(const std::string& call) {
    Lock lock(mMutex);
    if (mRecording)
        mCalls.push_back(call);
}

void Faults::addPause(long seconds) {
    Lock lock(mMutex);
    mPauses.push_back(seconds);
}

namespace {

std::string lastName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string nameOf(int fd) {
    return lastName(CutMedium::path(fd));
}

/** Counts down; true for the one call that is to fail. */
bool fails(std::atomic<int>& left) {
    return left >= 0 && left-- == 0;
}

template <typename Result> Result failed(int error, Result result) {
    errno = error;
    return result;
}

void countAllocation() {
    static thread_local const bool isOther = gettid() != getpid();
    if (isOther)
        ++faults.allocations;
}

bool isRegular(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

/** Tells the medium that records, if any, of a call that was successful. */
template <typename Result>
Result told(Result result, const char* what, const char* path, const char* target = "") {
    CutMedium* medium = CutMedium::recording;
    if (medium != nullptr && result >= 0)
        medium->changed(what, path, target);
    return result;
}
template <typename Result> Result told(Result result, const char* what, int fd) {
    return CutMedium::recording != nullptr ? told(result, what, CutMedium::path(fd).c_str()) : result;
}

} // namespace

/** Begins the wrapper of a function; the linker knows the function itself as REAL(function). */
#define WRAP(result, function, parameters)                                                                   \
    result __real_##function parameters;                                                                     \
    result __wrap_##function parameters
#define REAL(function) __real_##function

// The linker asks for this of names that a shared library refers to as well.
#pragma GCC visibility push(default)
extern "C" {

WRAP(ssize_t, write, (int fd, const void* bytes, size_t length)) {
    if (!isRegular(fd))
        return REAL(write)(fd, bytes, length);
    if (faults.writeDelayUs > 0)
        usleep(static_cast<useconds_t>(faults.writeDelayUs));
    bool meant = !faults.sectionsOnly || nameOf(fd).rfind("log_", 0) == 0;
    if (faults.writeError != 0 && meant && faults.writesUntilError-- <= 0 && faults.writeErrors-- > 0)
        return failed(faults.writeError, -1);
    if (int limit = faults.shortWrite.exchange(0))
        length = static_cast<size_t>(limit) < length ? static_cast<size_t>(limit) : length;
    return told(REAL(write)(fd, bytes, length), "write ", fd);
}

WRAP(ssize_t, read, (int fd, void* bytes, size_t length)) {
    ++faults.reads;
    if (faults.interruptedReads > 0 && !isRegular(fd) && faults.wholeReads-- <= 0 &&
        faults.interruptedReads-- > 0)
        return failed(faults.interruption != 0 ? faults.interruption.load() : EINTR, -1);
    return REAL(read)(fd, bytes, length);
}

WRAP(int, select, (int count, fd_set* read, fd_set* write, fd_set* except, timeval* limit)) {
    ++faults.selects;
    return REAL(select)(count, read, write, except, limit);
}

WRAP(int, inotify_init1, (int flags)) {
    return faults.unwatched ? failed(EMFILE, -1) : REAL(inotify_init1)(flags);
}

WRAP(int, fsync, (int fd)) {
    faults.addCall("fsync " + nameOf(fd));
    while (faults.archivesWait && nameOf(fd).find(".gz") != std::string::npos)
        usleep(1000);
    if (fails(faults.stepsUntilError))
        return failed(EIO, -1);
    if (CutMedium* medium = CutMedium::recording)
        return medium->synced(fd), 0;
    return REAL(fsync)(fd);
}

WRAP(int, rename, (const char* from, const char* to)) {
    faults.addCall("rename " + lastName(from) + " " + lastName(to));
    return fails(faults.stepsUntilError) ? failed(EIO, -1)
                                         : told(REAL(rename)(from, to), "rename ", from, to);
}

WRAP(int, unlink, (const char* path)) {
    faults.addCall("unlink " + lastName(path));
    return fails(faults.stepsUntilError) ? failed(EIO, -1) : told(REAL(unlink)(path), "unlink ", path);
}
WRAP(int, unlinkat, (int folder, const char* name, int flags)) {
    int result = REAL(unlinkat)(folder, name, flags);
    return folder == AT_FDCWD ? told(result, "unlink ", name) : told(result, "unlink in ", folder);
}
WRAP(int, remove, (const char* path)) {
    return told(REAL(remove)(path), "remove ", path);
}
WRAP(int, rmdir, (const char* path)) {
    return told(REAL(rmdir)(path), "rmdir ", path);
}
WRAP(int, mkdir, (const char* path, mode_t mode)) {
    return told(REAL(mkdir)(path, mode), "mkdir ", path);
}

// With 64-bit file offsets the headers turn these names into their 64-bit ones.
WRAP(int, open64, (const char* path, int flags, mode_t mode)) {
    int fd = REAL(open64)(path, flags, mode);
    return (flags & (O_CREAT | O_TRUNC)) != 0 ? told(fd, "open ", path) : fd;
}
WRAP(int, ftruncate64, (int fd, off64_t size)) {
    return told(REAL(ftruncate64)(fd, size), "truncate ", fd);
}
WRAP(dirent64*, readdir64, (DIR * folder)) {
    return fails(faults.entriesUntilError) ? failed<dirent64*>(EIO, nullptr) : REAL(readdir64)(folder);
}
WRAP(int, statvfs64, (const char* path, struct statvfs64* info)) {
    int result = REAL(statvfs64)(path, info);
    if (result == 0 && faults.freeBytes >= 0) {
        info->f_bsize = info->f_frsize = 1;
        info->f_bavail = info->f_bfree = static_cast<decltype(info->f_bfree)>(faults.freeBytes.load());
    }
    return result;
}

WRAP(int, clock_gettime, (clockid_t clock, timespec* now)) {
    int result = REAL(clock_gettime)(clock, now);
    now->tv_sec += clock == CLOCK_REALTIME ? faults.clockStep.load() : 0;
    return result;
}

WRAP(int, sem_clockwait, (sem_t * semaphore, clockid_t clock, const timespec* end)) {
    timespec now{};
    clock_gettime(clock, &now);
    faults.addPause(end->tv_sec - now.tv_sec + (end->tv_nsec - now.tv_nsec + 999999999) / 1000000000);
    if (!faults.skipPauses)
        return REAL(sem_clockwait)(semaphore, clock, end);
    usleep(1000); // what tries again and again is not to take the processor
    return failed(ETIMEDOUT, -1);
}

WRAP(int, pthread_create,
     (pthread_t * thread, const pthread_attr_t* attr, void* (*body)(void*), void* argument)) {
    return fails(faults.threadsUntilError) ? EAGAIN : REAL(pthread_create)(thread, attr, body, argument);
}

WRAP(int, sem_init, (sem_t * semaphore, int shared, unsigned value)) {
    return fails(faults.semaphoresUntilError) ? failed(ENOSPC, -1) : REAL(sem_init)(semaphore, shared, value);
}

WRAP(void*, malloc, (size_t size)) {
    countAllocation();
    return REAL(malloc)(size);
}

// operator new, whose name tells the width of its argument
#if __SIZEOF_SIZE_T__ == 8
#define OPERATOR_NEW _Znwm
#else
#define OPERATOR_NEW _Znwj
#endif
#define WRAP_NAMED(result, function, parameters) WRAP(result, function, parameters)
#define REAL_NAMED(function) REAL(function)
WRAP_NAMED(void*, OPERATOR_NEW, (size_t size)) {
    countAllocation();
    if (faults.objectRefused > 0 && --faults.objectRefused == 0)
        throw std::bad_alloc();
    return REAL_NAMED(OPERATOR_NEW)(size);
}

WRAP(void*, calloc, (size_t count, size_t size)) {
    countAllocation();
    bool refused = count * size >= faults.failAllocationsFrom;
    return refused ? failed<void*>(ENOMEM, nullptr) : REAL(calloc)(count, size);
}
}
#pragma GCC visibility pop
