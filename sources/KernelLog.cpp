#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "service/Semaphores.h"
#include "storage/StorageFormat.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kKernelLog[] = "/proc/kmsg";
constexpr uint32_t kTextSize = 127; // bytes of kernel text held at a time; one more ends a cut line
constexpr int kNoPrefixPriority = 7; // of a line that does not state one
constexpr int kReadPlace = 2011; // part of the message's fixed text
constexpr long kEndOfFilePause = 100000000; // nanoseconds

/** What the kernel reader holds, as its cancellation handler finds it. */
struct CleanupRecord {
    char** logBuffer;
    int* fd;
};

/**
 * Opens the kernel log under the system root. Without waiting, so that a FIFO that nobody writes to does not
 * hold the caller up where it cannot be cancelled.
 */
FileDescriptor openKernelLog(const char* systemRoot) {
    Path path;
    formatPath(path.text, "%s%s", systemRoot, kKernelLog);
    FileDescriptor file = openFile(path.text, O_RDONLY | O_NONBLOCK);
    if (!file.valid()) {
        char text[128];
        logError("Unable to open log device '%s': %s\n", kKernelLog, strerror_r(errno, text, sizeof text));
    }
    return file;
}

/** Reads the priority from the line's prefix and steps over it. */
int takePriority(const char** line, const char* end) {
    const char* next = *line;
    if (next == end || *next != '<')
        return kNoPrefixPriority;
    *line = ++next;
    if (next == end)
        return kNoPrefixPriority;
    long long priority = 0;
    for (; next != end && *next >= '0' && *next <= '9'; ++next) {
        if (priority <= INT_MAX)
            priority = priority * 10 + (*next - '0');
    }
    if (next != end && *next == '>')
        ++next;
    *line = next;
    return priority > INT_MAX ? INT_MAX : static_cast<int>(priority);
}

void pauseAtEndOfFile() {
    timespec pause{0, kEndOfFilePause};
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr); // a signal only makes it shorter
}

} // namespace

void LogService::kernelLog_cleanup(void* record) {
    const auto* held = static_cast<const CleanupRecord*>(record);
    logDebug("%s log_buffer addr=%p fd=%d\n", "kernelLog_cleanup", static_cast<void*>(*held->logBuffer),
             *held->fd);
    std::free(*held->logBuffer);
    closeDescriptor(*held->fd);
}

void* LogService::kernelLogReader(void* service) {
    auto& self = *static_cast<LogService*>(service);
    FileDescriptor file = openKernelLog(self.mSystemRoot);
    if (!file.valid())
        return nullptr;
    int flags = fcntl(file.get(), F_GETFL);
    (void)fcntl(file.get(), F_SETFL, flags & ~O_NONBLOCK); // reads are meant to wait
    char* log_buffer = allocateText(kTextSize + 1).release();
    if (log_buffer == nullptr) {
        logError("fail to malloc log_buffer!\n");
        logErrno();
        return nullptr;
    }
    int fd = file.release();
    CleanupRecord record{&log_buffer, &fd};
    int cleanUp = 0;
    pthread_cleanup_push(kernelLog_cleanup, &record);
    cleanUp = self.readKernelLog(fd, log_buffer) ? 0 : 1;
    pthread_cleanup_pop(cleanUp);
    if (cleanUp == 0) {
        std::free(log_buffer);
        closeDescriptor(fd);
    }
    return nullptr;
}

/** Reads and stores lines until the thread is to end. False when its wait for output failed. */
bool LogService::readKernelLog(int fd, char* buffer) {
    uint32_t kept = 0; // bytes of an unfinished line at the start of the buffer
    while (mKLogThreadRunning) {
        ssize_t length = read(fd, buffer + kept, kTextSize - kept);
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
        if (!mKLogOutput && !waitOrReport(&mKLogSem, "kernelLogReader sem_wait failed\n"))
            return false;
        // Nothing that is stored holds a zero byte.
        char* end = std::remove(buffer + kept, buffer + kept + length, '\0');
        kept = storeKernelLines(buffer, static_cast<uint32_t>(end - buffer));
    }
    return true;
}

/** Stores the whole lines of the text; moves the rest to its start and returns how long that is. */
uint32_t LogService::storeKernelLines(char* buffer, uint32_t length) {
    char* next = buffer;
    uint32_t left = length;
    while (mKLogThreadRunning && left > 0) {
        char* end = static_cast<char*>(std::memchr(next, '\n', left));
        if (end == nullptr) {
            std::memmove(buffer, next, left);
            if (left < kTextSize)
                return left;
            buffer[left] = '\n'; // a line that fills the buffer is stored as it is; its rest follows
            storeKernelLine(buffer, buffer + left);
            return 0;
        }
        storeKernelLine(next, end);
        left -= static_cast<uint32_t>(end + 1 - next);
        next = end + 1;
    }
    return 0;
}

/** Stores the line up to its newline at `end` if its priority passes: text and newline in one record. */
void LogService::storeKernelLine(const char* line, const char* end) {
    int priority = takePriority(&line, end);
    if (line == end || priority > mKLogLevel || !mKLogToFile)
        return;
    if (logBufWrite(line, static_cast<uint32_t>(end + 1 - line)) < 0)
        logError("kernelLogReader logBufWrite failed\n");
}

int LogService::clearKernelLog() {
    FileDescriptor file = openKernelLog(mSystemRoot);
    if (!file.valid())
        return -1;
    char dropped[128];
    ssize_t length;
    do
        length = read(file.get(), dropped, sizeof dropped);
    while (length > 0);
    return 0;
}

} // namespace vnlog
