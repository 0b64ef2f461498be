#include "Faults.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

Faults faults;

void Faults::disarm() {
    for (Number* number : {&writeError, &writesUntilError, &syncError, &shortWrite, &writeDelayUs,
                           &interruptedReads, &wholeReads, &interruption, &reads, &selects})
        *number = 0;
    threadsUntilError = semaphoresUntilError = entriesUntilError = writeErrors = stepsUntilError = -1;
    freeBytes = failAllocationsFrom = -1;
    allocations = 0;
    skipPauses = mRecording = false;
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
    char path[4096];
    ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return length > 0 ? lastName(std::string(path, static_cast<size_t>(length))) : "?";
}

/** Counts down; true when the call is to fail. -1 means never. */
bool spent(std::atomic<int>& left) {
    int now = left;
    while (now >= 0 && !left.compare_exchange_weak(now, now > 0 ? now - 1 : 0)) {
    }
    return now == 0;
}

bool stepFails() {
    bool fails = faults.stepsUntilError == 0;
    if (faults.stepsUntilError >= 0)
        --faults.stepsUntilError;
    return fails;
}

template <typename Result> Result failed(int error, Result result) {
    errno = error;
    return result;
}

void countAllocation() {
    if (gettid() != getpid())
        ++faults.allocations;
}

bool isRegular(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

template <typename Info> int answerStatvfs(int result, Info* info) {
    if (result == 0 && faults.freeBytes >= 0) {
        info->f_bsize = 1;
        info->f_bfree = static_cast<decltype(info->f_bfree)>(faults.freeBytes.load());
    }
    return result;
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
    if (faults.writeError != 0 && spent(faults.writesUntilError) && !spent(faults.writeErrors))
        return failed(faults.writeError, -1);
    if (int limit = faults.shortWrite.exchange(0))
        length = static_cast<size_t>(limit) < length ? static_cast<size_t>(limit) : length;
    return REAL(write)(fd, bytes, length);
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

WRAP(int, fsync, (int fd)) {
    faults.addCall("fsync " + nameOf(fd));
    int error = faults.syncError != 0 ? faults.syncError.load() : stepFails() ? EIO : 0;
    return error != 0 ? failed(error, -1) : REAL(fsync)(fd);
}

WRAP(int, rename, (const char* from, const char* to)) {
    faults.addCall("rename " + lastName(from) + " " + lastName(to));
    return stepFails() ? failed(EIO, -1) : REAL(rename)(from, to);
}

WRAP(int, unlink, (const char* path)) {
    faults.addCall("unlink " + lastName(path));
    return stepFails() ? failed(EIO, -1) : REAL(unlink)(path);
}

// With 64-bit file offsets the headers turn some names into their 64-bit ones where the two differ.
WRAP(dirent*, readdir, (DIR * folder)) {
    return spent(faults.entriesUntilError) ? failed<dirent*>(EIO, nullptr) : REAL(readdir)(folder);
}
WRAP(dirent64*, readdir64, (DIR * folder)) {
    return spent(faults.entriesUntilError) ? failed<dirent64*>(EIO, nullptr) : REAL(readdir64)(folder);
}
WRAP(int, statvfs, (const char* path, struct statvfs* info)) {
    return answerStatvfs(REAL(statvfs)(path, info), info);
}
WRAP(int, statvfs64, (const char* path, struct statvfs64* info)) {
    return answerStatvfs(REAL(statvfs64)(path, info), info);
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
    return spent(faults.threadsUntilError) ? EAGAIN : REAL(pthread_create)(thread, attr, body, argument);
}

WRAP(int, sem_init, (sem_t * semaphore, int shared, unsigned value)) {
    return spent(faults.semaphoresUntilError) ? failed(ENOSPC, -1) : REAL(sem_init)(semaphore, shared, value);
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
    return REAL_NAMED(OPERATOR_NEW)(size);
}

WRAP(void*, calloc, (size_t count, size_t size)) {
    countAllocation();
    bool refused =
        faults.failAllocationsFrom >= 0 && count * size >= static_cast<size_t>(faults.failAllocationsFrom);
    return refused ? failed<void*>(ENOMEM, nullptr) : REAL(calloc)(count, size);
}
}
#pragma GCC visibility pop
