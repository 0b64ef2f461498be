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
    writeError = writesUntilError = shortWrite = writeDelayUs = interruptedReads = selects = 0;
    freeBytes = failAllocationsFrom = -1;
    threadsUntilError = semaphoresUntilError = entriesUntilError = -1;
    allocations = 0;
    skipPauses = false;
    recordCalls(false);
    std::lock_guard<std::mutex> lock(mMutex);
    mCalls.clear();
    mPauses.clear();
}

std::vector<long> Faults::pauses() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPauses;
}

void Faults::recordCalls(bool on) {
    std::lock_guard<std::mutex> lock(mMutex);
    mRecording = on;
}

std::vector<std::string> Faults::calls() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls;
}

void Faults::addCall(const std::string& call) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mRecording)
        mCalls.push_back(call);
}

void Faults::addPause(long seconds) {
    std::lock_guard<std::mutex> lock(mMutex);
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

// The linker asks for this of names that a shared library refers to as well.
#pragma GCC visibility push(default)
extern "C" {

ssize_t __real_write(int fd, const void* bytes, size_t length);
ssize_t __wrap_write(int fd, const void* bytes, size_t length) {
    if (!isRegular(fd))
        return __real_write(fd, bytes, length);
    if (faults.writeDelayUs > 0)
        usleep(static_cast<useconds_t>(faults.writeDelayUs));
    if (faults.writeError != 0 && spent(faults.writesUntilError)) {
        errno = faults.writeError;
        return -1;
    }
    if (int limit = faults.shortWrite.exchange(0))
        length = static_cast<size_t>(limit) < length ? static_cast<size_t>(limit) : length;
    return __real_write(fd, bytes, length);
}

ssize_t __real_read(int fd, void* bytes, size_t length);
ssize_t __wrap_read(int fd, void* bytes, size_t length) {
    if (faults.interruptedReads > 0 && !isRegular(fd) && faults.interruptedReads-- > 0) {
        errno = EINTR;
        return -1;
    }
    return __real_read(fd, bytes, length);
}

int __real_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* limit);
int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
    ++faults.selects;
    return __real_select(count, read, write, except, limit);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    faults.addCall("fsync " + nameOf(fd));
    return __real_fsync(fd);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    faults.addCall("rename " + lastName(from) + " " + lastName(to));
    return __real_rename(from, to);
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
    faults.addCall("unlink " + lastName(path));
    return __real_unlink(path);
}

// With 64-bit file offsets the headers turn readdir into readdir64 where the two differ.
dirent* __real_readdir(DIR* folder);
dirent* __wrap_readdir(DIR* folder) {
    if (!spent(faults.entriesUntilError))
        return __real_readdir(folder);
    errno = EIO;
    return nullptr;
}

dirent64* __real_readdir64(DIR* folder);
dirent64* __wrap_readdir64(DIR* folder) {
    if (!spent(faults.entriesUntilError))
        return __real_readdir64(folder);
    errno = EIO;
    return nullptr;
}

int __real_sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* end);
int __wrap_sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* end) {
    timespec now{};
    clock_gettime(clock, &now);
    faults.addPause(end->tv_sec - now.tv_sec + (end->tv_nsec - now.tv_nsec + 999999999) / 1000000000);
    if (!faults.skipPauses)
        return __real_sem_clockwait(semaphore, clock, end);
    errno = ETIMEDOUT;
    return -1;
}

int __real_statvfs(const char* path, struct statvfs* info);
int __wrap_statvfs(const char* path, struct statvfs* info) {
    return answerStatvfs(__real_statvfs(path, info), info);
}

int __real_statvfs64(const char* path, struct statvfs* info);
int __wrap_statvfs64(const char* path, struct statvfs* info) {
    return answerStatvfs(__real_statvfs64(path, info), info);
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* argument) {
    return spent(faults.threadsUntilError) ? EAGAIN : __real_pthread_create(thread, attr, body, argument);
}

int __real_sem_init(sem_t* semaphore, int shared, unsigned value);
int __wrap_sem_init(sem_t* semaphore, int shared, unsigned value) {
    if (spent(faults.semaphoresUntilError)) {
        errno = ENOSPC;
        return -1;
    }
    return __real_sem_init(semaphore, shared, value);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) {
    countAllocation();
    return __real_malloc(size);
}

// operator new, whose name tells the width of its argument
#if __SIZEOF_SIZE_T__ == 8
#define WRAPPED_NEW(prefix) __##prefix##__Znwm
#else
#define WRAPPED_NEW(prefix) __##prefix##__Znwj
#endif
void* WRAPPED_NEW(real)(size_t size);
void* WRAPPED_NEW(wrap)(size_t size) {
    countAllocation();
    return WRAPPED_NEW(real)(size);
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
    countAllocation();
    if (faults.failAllocationsFrom >= 0 && count * size >= static_cast<size_t>(faults.failAllocationsFrom)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, size);
}
}
#pragma GCC visibility pop
