// SPDX-License-Identifier: Apache-2.0
#include "base/Console.h"

#include "base/Clock.h"
#include "base/Diagnostics.h"
#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vnlog {

namespace {

/** Pieces that a pipe or a terminal takes at once when it has room at all. */
constexpr size_t kPipePiece = PIPE_BUF;
constexpr size_t kTerminalPiece = 64;

/** Keeps a write to a pipe that nobody reads from signalling the host, which may not expect that. */
class NoPipeSignal {
  public:
    NoPipeSignal() {
        sigset_t pending;
        sigpending(&pending);
        mPending = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&mPipe);
        sigaddset(&mPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &mPipe, &mEarlier);
    }
    ~NoPipeSignal() {
        int error = errno;
        timespec now{};
        if (!mPending && error == EPIPE) // not one that was there already: it is somebody else's
            (void)sigtimedwait(&mPipe, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &mEarlier, nullptr);
        errno = error;
    }
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

  private:
    sigset_t mPipe, mEarlier;
    bool mPending;
};

uint32_t linesIn(const char* text, size_t length) {
    return static_cast<uint32_t>(std::count(text, text + length, '\n'));
}

/** Whether a write that failed so may work later. */
bool mayHaveRoom(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

} // namespace

Shown Console::show(int fd, const char* text, size_t length, Patience* patience) {
    CancelGuard guard; // it does not last, and a text is not to be cut in the middle
    Shown shown;
    int unsaid;
    {
        LockGuard<ConsoleLock> lock(mLock);
        shown = showLocked(fd, text, length, patience);
        unsaid = std::exchange(mUnsaid, 0);
    }
    if (unsaid != 0) // without the lock: the report may itself be shown here
        logError("+++ LOG: write failed (errno=%d)\n", unsaid);
    return shown;
}

Shown Console::showLocked(int fd, const char* text, size_t length, Patience* patience) {
    if (patience->mFresh || mWay == Way::None || fd != mShownOn)
        look(fd);
    patience->mFresh = false;
    if (mError == 0 && tellMissed(patience) && begin(text, length, patience))
        return Shown::Whole;
    miss(text, length);
    return mError != 0 ? Shown::Closed : Shown::Dropped;
}

void Console::retry() {
    LockGuard<ConsoleLock> lock(mLock);
    if (mError == 0)
        return;
    mWay = Way::None;
    mError = mLastFailure = 0;
}

void Console::release() {
    LockGuard<ConsoleLock> lock(mLock);
    mOwn = FileDescriptor();
    mWay = Way::None;
}

/** Finds out what is behind the descriptor now, and how to write to it. */
void Console::look(int fd) {
    struct stat info {};
    bool there = fstat(fd, &info) == 0;
    bool same = fd == mShownOn && info.st_dev == mDevice && info.st_ino == mInode;
    if (same && (mWay != Way::None || mError != 0))
        return;
    if (!same) { // nobody is there who has the beginning
        dropRest();
        mError = mLastFailure = 0;
        mStuck = false;
    }
    mShownOn = fd;
    mDevice = info.st_dev;
    mInode = info.st_ino;
    choose(fd, there ? info.st_mode & S_IFMT : S_IFREG); // of a closed one the write tells
}

void Console::choose(int fd, mode_t type) {
    mOwn = FileDescriptor();
    mFd = fd;
    mPiece = SIZE_MAX;
    mWay = type == S_IFSOCK ? Way::Socket : Way::Plain;
    if (type != S_IFIFO && type != S_IFCHR)
        return;
    // The descriptor itself must not be told not to block: the host and others share it.
    Path place;
    formatText(place.text, "/proc/self/fd/%d", fd);
    mOwn = openFile(place.text, O_WRONLY | O_NONBLOCK | O_NOCTTY);
    mWay = mOwn.valid() ? Way::Reopened : Way::Polled;
    if (mOwn.valid())
        mFd = mOwn.get();
    else
        mPiece = type == S_IFIFO ? kPipePiece : kTerminalPiece;
}

/** Says how many lines were not shown, after the rest of the last text that was. False when it takes nothing
 * now. */
bool Console::tellMissed(Patience* patience) {
    if (mRestLength > 0) {
        size_t written = write(mRest, mRestLength, patience);
        mRestLength -= written;
        std::memmove(mRest, mRest + written, mRestLength);
        if (mRestLength > 0)
            return false;
    }
    if (mMissed == 0)
        return true;
    char notice[64];
    formatText(notice, "--------- %u lines not shown\n", mMissed);
    if (!begin(notice, std::strlen(notice), patience))
        return false;
    mMissed = 0;
    return mRestLength == 0;
}

/** Writes a text, or its beginning and keeps the rest. False when not a byte of it is taken. */
bool Console::begin(const char* text, size_t length, Patience* patience) {
    size_t written = write(text, length, patience);
    if (written == 0 && length > 0)
        return false;
    keepRest(text + written, length - written);
    return true;
}

/** What does not fit is dropped by whole lines. */
void Console::keepRest(const char* text, size_t length) {
    mRestLength = std::min(length, sizeof mRest);
    if (mRestLength < length) {
        while (mRestLength > 0 && text[mRestLength - 1] != '\n')
            --mRestLength;
        miss(text + mRestLength, length - mRestLength);
    }
    std::memcpy(mRest, text, mRestLength);
}

void Console::miss(const char* text, size_t length) {
    mMissed += linesIn(text, length);
}

void Console::dropRest() {
    miss(mRest, mRestLength);
    mRestLength = 0;
}

/** Keeps the reason, for one report as long as it stays the same. */
void Console::fail(int error) {
    if (mLastFailure.exchange(error) != error)
        mUnsaid = error;
}

/** Writes what is taken, and tells how much that is. Gives the descriptor up when it fails for good. */
size_t Console::write(const char* text, size_t length, Patience* patience) {
    size_t written = 0;
    while (written < length) {
        if (mWay == Way::Polled && !room(patience))
            break;
        ssize_t count = writePiece(text + written, std::min(length - written, mPiece));
        if (count > 0) {
            written += static_cast<size_t>(count);
            mStuck = false;
            mLastFailure = 0;
        } else if (count == 0 || mayHaveRoom(errno)) {
            fail(count == 0 ? ENOSPC : errno);
            break;
        } else if (errno == EAGAIN) {
            if (!room(patience))
                break;
        } else if (errno != EINTR) {
            fail(errno);
            mError = errno;
            dropRest();
            break;
        }
    }
    return written;
}

ssize_t Console::writePiece(const char* text, size_t length) {
    if (mWay == Way::Socket)
        return send(mFd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (mWay == Way::Plain)
        return ::write(mFd, text, length);
    NoPipeSignal guard;
    return ::write(mFd, text, length);
}

/** Waits as long as the patience lasts until more is taken; once that was in vain, nobody waits any more
 * until then. */
bool Console::room(Patience* patience) {
    pollfd watched{mFd, POLLOUT, 0};
    int64_t before = steadyMilliseconds();
    int ready = poll(&watched, 1, mStuck ? 0 : patience->mLeftMs);
    int64_t waited = std::min<int64_t>(steadyMilliseconds() - before, patience->mLeftMs);
    patience->mLeftMs -= static_cast<int>(waited);
    mStuck = ready == 0;
    return ready > 0 || (ready < 0 && errno == EINTR && patience->mLeftMs > 0);
}

} // namespace vnlog
