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

} // namespace

Shown Console::show(int fd, const char* text, size_t length, Patience* patience) {
    CancelGuard guard; // it does not last, and a text is not to be cut in the middle
    Shown shown;
    bool givenUp;
    {
        LockGuard<ConsoleLock> lock(mLock);
        shown = showLocked(fd, text, length, patience);
        givenUp = std::exchange(mUnsaid, false);
    }
    if (givenUp) // without the lock: the report may itself be shown here
        logError("+++ LOG: write failed (errno=%d)\n", mError.load());
    return shown;
}

Shown Console::showLocked(int fd, const char* text, size_t length, Patience* patience) {
    if ((patience->mFresh || mWay == Way::None || fd != mShownOn) && !look(fd))
        return Shown::Closed;
    patience->mFresh = false;
    if (mError == 0 && tellMissed(patience) && begin(text, length, patience))
        return Shown::Whole;
    if (mError != 0)
        return Shown::Closed;
    miss(text, length);
    return Shown::Dropped;
}

void Console::retry() {
    LockGuard<ConsoleLock> lock(mLock);
    if (mError == 0)
        return;
    mError = 0;
    mWay = Way::None;
}

/** Finds out how to write to what is behind the descriptor now. False when it has been given up. */
bool Console::look(int fd) {
    struct stat info {};
    bool there = fstat(fd, &info) == 0;
    bool known =
        mWay != Way::None && fd == mShownOn && there && info.st_dev == mDevice && info.st_ino == mInode;
    if (known || (mError != 0 && !there))
        return mError == 0;
    mShownOn = fd;
    mDevice = info.st_dev;
    mInode = info.st_ino;
    mRestLength = 0; // nobody is there who has the beginning
    mError = 0;
    choose(fd, there ? info.st_mode & S_IFMT : S_IFREG); // of a closed one the write tells
    return true;
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

/** Writes what is taken, and tells how much that is. Gives the descriptor up when it fails. */
size_t Console::write(const char* text, size_t length, Patience* patience) {
    size_t written = 0;
    while (written < length) {
        if (mWay == Way::Polled && !room(patience))
            break;
        ssize_t count = writePiece(text + written, std::min(length - written, mPiece));
        if (count > 0) {
            written += static_cast<size_t>(count);
        } else if (count < 0 && errno == EAGAIN) {
            if (!room(patience))
                break;
        } else if (count == 0 || errno == ENOSPC || errno == EDQUOT || errno == EFBIG) {
            break; // a file may have room again
        } else if (errno != EINTR) {
            mError = errno;
            mUnsaid = true;
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

/** Waits as long as the patience lasts until more is taken. */
bool Console::room(Patience* patience) {
    pollfd watched{mFd, POLLOUT, 0};
    int64_t before = steadyMilliseconds();
    int ready = poll(&watched, 1, patience->mLeftMs);
    int64_t waited = std::min<int64_t>(steadyMilliseconds() - before, patience->mLeftMs);
    patience->mLeftMs -= static_cast<int>(waited);
    return ready > 0 || (ready < 0 && errno == EINTR && patience->mLeftMs > 0);
}

} // namespace vnlog
