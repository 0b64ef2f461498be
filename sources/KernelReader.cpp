#include "sources/KernelReader.h"

#include "base/Diagnostics.h"
#include "base/Semaphores.h"
#include "base/Text.h"
#include "sources/KernelSplitter.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kKernelLog[] = "/proc/kmsg";
constexpr uint32_t kTextSize = 127; // bytes of kernel text held at a time; one more ends a cut line
constexpr int kReadPlace = 2011; // part of the message's fixed text
constexpr long kEndOfFilePause = 100000000; // nanoseconds

/** What the reader holds, as its cancellation handler finds it. */
struct CleanupRecord {
    char** logBuffer;
    int* fd;
};

void pauseAtEndOfFile() {
    timespec pause{0, kEndOfFilePause};
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal only makes it shorter
}

} // namespace

/**
 * Opens the kernel log under the system root. Without waiting, so that a FIFO that nobody writes to does not
 * hold the caller up where it cannot be cancelled.
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
    int flags = fcntl(file.get(), F_GETFL);
    (void)fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK); // reads are meant to wait
    char* log_buffer = allocateText(kTextSize + 1).release();
    if (log_buffer == nullptr) {
        logError("fail to malloc log_buffer!\n");
        logErrno();
        return;
    }
    int fd = file.release();
    CleanupRecord record{&log_buffer, &fd};
    int cleanUpNow = 0;
    pthread_cleanup_push(cleanUp, &record);
    cleanUpNow = readLines(fd, log_buffer) ? 0 : 1;
    pthread_cleanup_pop(cleanUpNow);
    if (cleanUpNow == 0) { // the handler and its report are for early ends
        std::free(log_buffer);
        closeDescriptor(fd);
    }
}

/** Reads and stores lines until the thread is to end. False when its wait for output failed. */
bool KernelReader::readLines(int fd, char* buffer) {
    KernelSplitter splitter(buffer, kTextSize);
    while (mState.mKLogThreadRunning) {
        ssize_t length = read(fd, splitter.chunk(), splitter.room());
        if (length < 0) {
            if (errno == EINTR)
                continue;
            char text[128];
            logError("kernelLogReader read error line=%d errno:%s \n", kReadPlace,
                     strerror_r(errno, text, sizeof text));
            return true;
        }
        if (length == 0) {
            pauseAtEndOfFile();
            continue;
        }
        if (!mState.mKLogOutput && !waitOrReport(&mState.mKLogSem, "kernelLogReader sem_wait failed\n"))
            return false;
        splitter.add(static_cast<uint32_t>(length));
        KernelLine line;
        while (mState.mKLogThreadRunning && splitter.next(&line)) {
            if (line.length > 1 && line.priority <= mState.mKLogLevel && mState.mKLogToFile &&
                !mSink.put(line.text, line.length))
                logError("kernelLogReader logBufWrite failed\n");
        }
    }
    return true;
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
