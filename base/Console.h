// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "base/Mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace vnlog {

/** The role of the lock on the console: one text at a time. Nothing is taken in it, and nothing reported. */
struct ConsoleLock {
    static LockRole role;
};

/** How long the console may keep its caller waiting, in all, for whatever is shown with the same object. */
class Patience {
  public:
    explicit Patience(int milliseconds = 10) : mLeftMs(milliseconds) {}

  private:
    friend class Console;
    bool mFresh = true; ///< nothing has been shown with it yet
    int mLeftMs;
};

/** What became of a text. */
enum class Shown {
    Whole, ///< the console has it, or has begun to take it and gets the rest before anything else
    Dropped, ///< it does not take any more for now; the lines are counted
    Closed, ///< it takes nothing any more
};

/**
 * The console, which is a descriptor of the host's: shows texts to whoever reads there, and waits for nobody.
 * What the console does not take in the caller's patience is dropped by whole lines, and it says how many
 * before the next text that it takes. A descriptor that cannot be written to any more is given up, reported
 * once, until retry() or until another file is behind its number. The host's descriptor keeps its settings,
 * and the host gets no SIGPIPE. Any thread.
 */
class Console {
  public:
    /** Shows a text of whole lines on the descriptor. A regular file is written to however long that takes.
     */
    Shown show(int fd, const char* text, size_t length, Patience* patience) VNLOG_EXCLUDES(ConsoleLock::role);
    /** Tries anew with a descriptor that was given up; without effect on any other. */
    void retry() VNLOG_EXCLUDES(ConsoleLock::role);
    /** Closes what was opened for showing: whoever waits for the end of a pipe does not wait for this object.
     */
    void release() VNLOG_EXCLUDES(ConsoleLock::role);
    /** The errno for which the descriptor was given up; 0 when it was not. */
    int error() const { return mError; }
    /** The errno of the last write, which may have been one that is tried again; 0 when that worked, or was
     * only put off. */
    int lastFailure() const { return mLastFailure; }

  private:
    /** How a descriptor is written to without waiting. */
    enum class Way {
        None, ///< it has not been looked at
        Plain, ///< a file: it does not make anybody wait
        Socket,
        Reopened, ///< through a descriptor of our own that does not block
        Polled, ///< where that is not to be had: in pieces that fit when there is room at all
    };

    Shown showLocked(int fd, const char* text, size_t length, Patience* patience)
        VNLOG_REQUIRES(ConsoleLock::role);
    void look(int fd) VNLOG_REQUIRES(ConsoleLock::role);
    void choose(int fd, mode_t type) VNLOG_REQUIRES(ConsoleLock::role);
    size_t write(const char* text, size_t length, Patience* patience) VNLOG_REQUIRES(ConsoleLock::role);
    ssize_t writePiece(const char* text, size_t length) VNLOG_REQUIRES(ConsoleLock::role);
    bool begin(const char* text, size_t length, Patience* patience) VNLOG_REQUIRES(ConsoleLock::role);
    bool tellMissed(Patience* patience) VNLOG_REQUIRES(ConsoleLock::role);
    void keepRest(const char* text, size_t length) VNLOG_REQUIRES(ConsoleLock::role);
    void miss(const char* text, size_t length) VNLOG_REQUIRES(ConsoleLock::role);
    void dropRest() VNLOG_REQUIRES(ConsoleLock::role);
    void fail(int error) VNLOG_REQUIRES(ConsoleLock::role);
    bool room(Patience* patience) VNLOG_REQUIRES(ConsoleLock::role);

    Mutex<ConsoleLock> mLock;
    Way mWay VNLOG_GUARDED_BY(ConsoleLock::role) = Way::None;
    int mFd VNLOG_GUARDED_BY(ConsoleLock::role) = -1; ///< what is written to
    FileDescriptor mOwn VNLOG_GUARDED_BY(ConsoleLock::role);
    int mShownOn VNLOG_GUARDED_BY(ConsoleLock::role) = -1; ///< the host's descriptor, and the file behind it
    dev_t mDevice VNLOG_GUARDED_BY(ConsoleLock::role) = 0;
    ino_t mInode VNLOG_GUARDED_BY(ConsoleLock::role) = 0;
    size_t mPiece VNLOG_GUARDED_BY(ConsoleLock::role) = 0; ///< bytes of one write at most
    uint32_t mMissed VNLOG_GUARDED_BY(ConsoleLock::role) = 0; ///< lines not shown that it has not said
    char mRest[8192] VNLOG_GUARDED_BY(ConsoleLock::role); ///< of a text that has been taken in part
    size_t mRestLength VNLOG_GUARDED_BY(ConsoleLock::role) = 0;
    std::atomic<int> mError{0};
    std::atomic<int> mLastFailure{0};
    int mUnsaid VNLOG_GUARDED_BY(ConsoleLock::role) = 0; ///< a failure that is to be reported
    bool mStuck VNLOG_GUARDED_BY(ConsoleLock::role) = false; ///< it was waited for in vain
};

} // namespace vnlog
