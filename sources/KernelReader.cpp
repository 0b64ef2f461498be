// SPDX-License-Identifier: Apache-2.0
#include "sources/KernelReader.h"

#include "base/Diagnostics.h"
#include "base/Semaphores.h"
#include "base/Text.h"
#include "sources/KernelSplitter.h"

#include <algorithm>
#include <android/log.h>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kKernelLog[] = "/proc/kmsg";
constexpr uint32_t kHeldSize = 127; // and while the output is off, which are stored when it comes on again
constexpr int kReadPlace = 2011; // part of the message's fixed text
constexpr int kEndOfFilePauseMs = 100;
constexpr int kForever = -1;

/** How much a line of this level matters, as an Android priority. */
int rankOf(int level) {
    constexpr int kCritical = 2, kError = 3;
    if (level <= kCritical)
        return ANDROID_LOG_FATAL;
    return level == kError ? ANDROID_LOG_ERROR : 0;
}

/** What the reader holds, as its cancellation handler finds it. */
struct CleanupRecord {
    char** logBuffer;
    int* fd;
};

} // namespace

/**
 * Opens the kernel log under the system root. Neither this nor a read waits: a FIFO that nobody writes to
 * would hold the caller up where it cannot be cancelled, and a reader where it does not hear of a request.
 */
FileDescriptor KernelReader::open() {
    Path path;
    formatText(path.text, "%s%s", mSystemRoot.path, kKernelLog);
    FileDescriptor file = openFile(path.text, O_RDONLY | O_NONBLOCK);
    if (!file.valid()) {
        char text[128];
        logError("Unable to open log device '%s': %s\n", kKernelLog, strerror_r(errno, text, sizeof text));
    }
    return file;
}

void KernelReader::cleanUp(void* record) {
    const auto* held = static_cast<const CleanupRecord*>(record);
    logDebug("%s log_buffer addr=%p fd=%d\n", "kernelLog_cleanup", static_cast<void*>(*held->logBuffer),
             *held->fd);
    std::free(*held->logBuffer);
    closeDescriptor(*held->fd);
}

void KernelReader::run() {
    FileDescriptor file = open();
    if (!file.valid())
        return;
    char* log_buffer = allocateText(kKernelTextSize).release();
    if (log_buffer == nullptr) {
        logError("fail to malloc log_buffer!\n");
        logErrno();
        return;
    }
    int fd = file.release();
    CleanupRecord record{&log_buffer, &fd};
    int cleanUpNow = 0;
    pthread_cleanup_push(cleanUp, &record);
    cleanUpNow = readLines(fd, &log_buffer) ? 0 : 1;
    pthread_cleanup_pop(cleanUpNow);
    if (cleanUpNow == 0) { // the handler and its report are for early ends
        std::free(log_buffer);
        closeDescriptor(fd);
    }
}

/** Reads and stores lines until the thread is to end. False when its wait for output failed. */
bool KernelReader::readLines(int fd, char** buffer) {
    KernelSplitter splitter(buffer, kKernelTextSize, kLongestKernelLine);
    SourceCounts::Run run(mCounts);
    uint32_t finishBytes = 0;
    while (mState.mKLogThreadRunning) {
        bool finishing = mFinish.made();
        uint32_t most = mState.mKLogOutput ? splitter.room() : std::min(splitter.room(), kHeldSize);
        ssize_t length = read(fd, splitter.chunk(), most);
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0 && errno != EAGAIN) {
            char text[128];
            logError("kernelLogReader read error line=%d errno:%s \n", kReadPlace,
                     strerror_r(errno, text, sizeof text));
            return true;
        }
        if (length <= 0) {
            if (finishing) {
                splitter.end();
                storeLines(splitter);
                return true;
            }
            awaitText(length < 0 ? fd : -1, length < 0 ? kForever : kEndOfFilePauseMs);
            continue;
        }
        if (!mState.mKLogOutput && !waitOrReport(&mState.mKLogSem, "kernelLogReader sem_wait failed\n"))
            return false;
        splitter.add(static_cast<uint32_t>(length));
        storeLines(splitter);
        finishBytes += finishing ? static_cast<uint32_t>(length) : 0;
        if (finishBytes >= FinishRequest::kMostBytes) {
            FinishRequest::reportRest("kernelLogReader");
            return true;
        }
    }
    return true;
}

/** Waits until there is text in `fd`, the reader is to finish, or the time is up. */
void KernelReader::awaitText(int fd, int timeoutMs) const {
    pollfd watched[] = {{fd, POLLIN, 0}, {mFinish.wakeUp(), POLLIN, 0}};
    (void)poll(watched, 2, timeoutMs); // the read that follows tells what there is
}

void KernelReader::storeLines(KernelSplitter& splitter) {
    KernelLine line;
    while (mState.mKLogThreadRunning && splitter.next(&line)) {
        mCounts.take(1);
        mCounts.settle(store(line));
        mFinish.step();
    }
}

/** Puts a line into the sink if it is to be stored. */
Fate KernelReader::store(const KernelLine& line) {
    if (line.length <= 1 || line.priority > mState.mKLogLevel)
        return Fate::Filtered;
    const uint32_t prefix = mState.mKLogPrefix ? line.prefix : 0;
    const char* text = line.text - prefix;
    const uint32_t length = line.length + prefix;
    switch (mSink.wish(mState.mKLogToFile, text, length)) {
    case Wish::NotStored:
        return Fate::Filtered;
    case Wish::Missed:
        return Fate::Refused;
    case Wish::Stored:
        break;
    }
    if (mSink.put(text, length, rankOf(line.priority)))
        return Fate::Stored;
    if (mReports.due())
        logError("kernelLogReader logBufWrite failed\n");
    return Fate::Refused;
}

bool KernelReader::clear() {
    FileDescriptor file = open();
    if (!file.valid())
        return false;
    char dropped[128];
    ssize_t length;
    do
        length = read(file.get(), dropped, sizeof dropped);
    while (length > 0);
    return true;
}

} // namespace vnlog
