#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "sources/AndroidFormat.h"
#include "sources/AndroidReader.h"
#include "storage/StorageFormat.h"

#include <cerrno>
#include <cstring>
#include <log/log_read.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr size_t kLineSize = 512;

static_assert(sizeof(::logger_entry) == kLibraryHeaderSize, "the parser's header");

/**
 * Turns the driver's header in front of the payload into the library's, which begins in the node's headroom.
 * The driver's is gone afterwards.
 */
::logger_entry* asLibraryEntry(logger_entry* entry, char label) {
    const logger_entry own = *entry;
    ::logger_entry header{};
    header.len = own.length;
    header.hdr_size = sizeof header;
    header.pid = own.pid;
    header.tid = static_cast<uint32_t>(own.tid);
    header.sec = static_cast<uint32_t>(own.seconds);
    header.nsec = static_cast<uint32_t>(own.nanoseconds);
    header.lid = label == 's' ? LOG_ID_SYSTEM : LOG_ID_MAIN;
    char* start = reinterpret_cast<char*>(entry) - (sizeof header - sizeof own);
    std::memcpy(start, &header, sizeof header);
    return reinterpret_cast<::logger_entry*>(start);
}

/** Repeats the write as long as a signal interrupts it; what it wrote may be short. */
ssize_t writeOnce(int fd, const char* bytes, size_t length) {
    ssize_t written;
    do
        written = write(fd, bytes, length);
    while (written < 0 && errno == EINTR);
    return written;
}

/**
 * Whether the entry is a report of this service. A report about a line that could not be stored must not be
 * made about such a report: each would be the cause of the next.
 */
bool isOwnReport(const AndroidLogEntry& entry) {
    return entry.pid == getpid() && std::strcmp(entry.tag, "LogService") == 0;
}

} // namespace

void LogService::processBuffer(log_device_t* dev, logger_entry* entry) {
    // The library takes any byte for a priority; one that is none cannot be judged.
    auto priority = static_cast<unsigned char>(*reinterpret_cast<const char*>(entry + 1));
    if (entry->length == 0 || priority > ANDROID_LOG_SILENT)
        return;
    AndroidLogEntry parsed{};
    {
        CancelGuard guard; // the library may report what it finds
        if (android_log_processLogBuffer(asLibraryEntry(entry, dev->label), &parsed) < 0)
            return;
    }
    if (androidLogShouldPrintLine(mLogFormat, parsed.tag, parsed.priority) == 0)
        return;
    bool formatted = false;
    // A line that was not stored is reported there and is no reason to end.
    (void)routeLine(mLogFormat, mALogOutFd, &parsed, &formatted);
    if (!formatted) {
        logError("output error");
        endProcess(kExitOutputError);
    }
}

int LogService::androidLogPrintLogLine(AndroidLogFormat_t* format, int fd, const AndroidLogEntry_t* entry) {
    bool formatted = false;
    return routeLine(format, fd, entry, &formatted);
}

/** androidLogPrintLogLine that tells a line that could not be formatted from one that was refused. */
int LogService::routeLine(AndroidLogFormat_t* format, int fd, const AndroidLogEntry_t* entry,
                          bool* formatted) {
    char usual[kLineSize];
    size_t length = 0;
    char* line = formatLine(format, usual, entry, &length);
    *formatted = line != nullptr;
    if (line == nullptr)
        return -1;
    Text longer(line != usual ? line : nullptr); // also released when the thread is cancelled below
    int result = 0;
    if (mALogToUart) {
        result = writeToConsole(fd, line, length, *entry);
        if (result != static_cast<int>(length))
            return result;
    }
    return mALogToFile ? storeAndroidLine(line, length, *entry, result) : result;
}

/** The line that the library makes of the entry, in `usual` or in memory of its own; null without memory. */
char* LogService::formatLine(AndroidLogFormat_t* format, char* usual, const AndroidLogEntry_t* entry,
                             size_t* length) {
    CancelGuard guard;
    std::lock_guard<std::mutex> lock(mFilterLock);
    return android_log_formatLogLine(format, usual, kLineSize, entry, length);
}

/** Writes the line to the console: its length, 0 for a failure, or the bytes of a short write; both reported.
 */
int LogService::writeToConsole(int fd, const char* line, size_t length, const AndroidLogEntry& entry) {
    ssize_t written = writeOnce(fd, line, length);
    if (written == static_cast<ssize_t>(length))
        return static_cast<int>(length);
    if (written < 0) {
        if (!isOwnReport(entry))
            logError("+++ LOG: write failed (errno=%d)\n", errno);
        return 0;
    }
    if (!isOwnReport(entry))
        logError("+++ LOG: write partial (%d of %d)\n", static_cast<int>(written), static_cast<int>(length));
    return static_cast<int>(written);
}

/** Puts the line into the ring buffer when its priority is stored; `result` is what came of it before. */
int LogService::storeAndroidLine(const char* line, size_t length, const AndroidLogEntry& entry, int result) {
    if (!mFlushThreadRunning) {
        if (!isOwnReport(entry))
            logDebug("write log buf skip, LOGBUF thread not start\n");
        return 0;
    }
    if (entry.priority < mALogFileMinPri)
        return result;
    result = logBufWrite(line, static_cast<uint32_t>(length));
    if (result != static_cast<int>(length) && !isOwnReport(entry))
        logError("write log buf error\n");
    return result;
}

int LogService::clearAndroidLog() {
    Path path;
    formatPath(path.text, "%s/dev/log_main", mSystemRoot);
    FileDescriptor device = platform::openLogger(path.text, platform::LoggerAccess::Write);
    if (!device.valid()) {
        char text[128];
        logError("Unable to open log device '%s': %s\n", "log_main", strerror_r(errno, text, sizeof text));
        return -1;
    }
    if (clearLog(device.get()) < 0) {
        logError("ioctl clearLog");
        logErrno();
        return -1;
    }
    return 0;
}

int LogService::clearLog(int fd) {
    return platform::controlLogger(fd, platform::kRequestFlush);
}

int LogService::getLogSize(int fd) {
    return platform::controlLogger(fd, platform::kRequestSize);
}

int LogService::getLogReadableSize(int fd) {
    return platform::controlLogger(fd, platform::kRequestReadable);
}

} // namespace vnlog
