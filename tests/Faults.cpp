#include "Faults.h"

#include <cerrno>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

Faults faults;

namespace {

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
