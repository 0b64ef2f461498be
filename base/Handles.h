// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/stat.h>

/*
 * The owning types for descriptors, streams and folders, and the calls that make and use them.
 *
 * Worker threads are ended by deferred cancellation, and close() and its like are cancellation points inside
 * destructors, which may not be left by unwinding. Every release here therefore runs with cancellation
 * disabled, and so does every call that creates something, so that nothing is lost between the kernel and its
 * owner. Code on a thread that can be cancelled uses no other type that closes files.
 */
namespace vnlog {

/** Keeps the calling thread from being cancelled while in scope; restores the earlier state. */
class CancelGuard {
  public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mEarlier); }
    ~CancelGuard() { pthread_setcancelstate(mEarlier, nullptr); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

  private:
    int mEarlier = PTHREAD_CANCEL_ENABLE;
};

/** Closes `fd` with cancellation disabled. Negative values are ignored. */
void closeDescriptor(int fd);

/** Owns one descriptor, or none (-1). */
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : mFd(fd) {}
    ~FileDescriptor() { closeDescriptor(mFd); }
    FileDescriptor(FileDescriptor&& other) noexcept : mFd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;

    [[nodiscard]] bool valid() const { return mFd >= 0; }
    [[nodiscard]] int get() const { return mFd; }
    /** Gives the descriptor away; the object then owns none. */
    int release();

  private:
    int mFd = -1;
};

/**
 * Opens `path` close-on-exec, resuming after a signal. With cancellation disabled: a call that may block for
 * long must be made non-blocking by `flags`. On failure the result is not valid and errno tells why.
 */
[[nodiscard]] FileDescriptor openFile(const char* path, int flags, mode_t mode = 0);

/**
 * openFile for a name in a folder that is ours: follows no link there, never waits, and takes only a regular
 * file of this process's user or of root. errno is ELOOP for a link, EPERM for anything else that is refused.
 */
[[nodiscard]] FileDescriptor openOwnFile(const char* path, int flags, mode_t mode = 0);

/**
 * Writes all `length` bytes, going on after signals and short writes.
 * Returns false, with errno set, as soon as a write fails; a part may have been written then.
 */
[[nodiscard]] bool writeAll(int fd, const void* bytes, size_t length);

/** Reads `size` bytes and stores how many came: fewer only at the end of the file. False with errno set. */
[[nodiscard]] bool readPiece(int fd, void* bytes, size_t size, size_t* count);

/** Syncs the file or folder `path` to its medium. Returns false with errno set when that fails. */
[[nodiscard]] bool syncPath(const char* path);
/** Syncs the folder that holds `path`, and with it the names there. Returns false with errno set. */
[[nodiscard]] bool syncFolderOf(const char* path);

/** What a link in the last place of a path means. */
enum class Links { Followed, Refused };

struct StreamCloser {
    void operator()(FILE* stream) const;
};
/** Owns a stdio stream. */
using Stream = std::unique_ptr<FILE, StreamCloser>;

/** Opens `path` for reading, close-on-exec. Null with errno set when it cannot be opened. */
[[nodiscard]] Stream openForReading(const char* path);

/** Owns an open folder listing. */
class Folder {
  public:
    explicit Folder(const char* path, Links links = Links::Followed);
    /** Lists what the descriptor, which it takes, is open on. */
    explicit Folder(FileDescriptor folder);
    ~Folder() { (void)close(); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] bool valid() const { return mListing != nullptr; }
    /** The descriptor of a valid listing. */
    [[nodiscard]] int descriptor() const { return dirfd(mListing); }
    /** The next entry other than "." and "..", or null at the end and after an error, see failed(). */
    [[nodiscard]] const dirent* next();
    /** Whether the listing ended in an error, so that entries may be missing. */
    [[nodiscard]] bool failed() const { return mFailed; }
    /** Examines the entry `name`. False with errno set. */
    [[nodiscard]] bool examine(const char* name, Links links, struct stat* info) const;
    /** Closes the listing. 0, or -1 with errno set; an object that is not open gives 0. */
    int close();

  private:
    DIR* mListing = nullptr;
    bool mFailed = false;
};

struct Freer {
    void operator()(void* memory) const { std::free(memory); }
};
/** Owns text or bytes from the C allocator. */
using Text = std::unique_ptr<char, Freer>;

/** A zero-filled buffer of `size` bytes, or null with errno set. */
[[nodiscard]] Text allocateText(size_t size);

} // namespace vnlog
