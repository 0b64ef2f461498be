#include "sources/AndroidLine.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"

#include <cerrno>
#include <cstring>
#include <log/log_read.h>
#include <unistd.h>

namespace vnlog {

namespace {

/** Bytes of a line on the stack: the largest entry on one line, with its prefix. Of a longer one, which has
 * many lines, the library allocates. */
constexpr size_t kLineSize = kEntrySize + 512;

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
    return entry.pid == getpid() && std::strcmp(entry.tag, kDiagnosticsTag) == 0;
}

} // namespace

void endProcess(int status) {
    _exit(status);
}

void AndroidLine::process(const log_device_t* device, logger_entry* entry) {
    // The library takes any byte for a priority; one that is none cannot be judged.
    auto priority = static_cast<unsigned char>(*reinterpret_cast<const char*>(entry + 1));
    if (entry->length == 0 || priority > ANDROID_LOG_SILENT)
        return;
    AndroidLogEntry parsed{};
    {
        CancelGuard guard; // the library may report what it finds
        if (android_log_processLogBuffer(asLibraryEntry(entry, device->label), &parsed) < 0)
            return;
    }
    if (parsed.priority < mFilter.priorityFor(mFilterState.mLogFormat, parsed.tag))
        return;
    // A line that was not stored is reported there and is no reason to end.
    if (!route(mFilterState.mLogFormat, mState.mALogOutFd, parsed).formatted) {
        logError("output error");
        endProcess(kExitOutputError);
    }
}

int AndroidLine::print(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry) {
    return route(format, fd, entry).result;
}

/** Formats the entry and passes the line on. */
AndroidLine::LineResult AndroidLine::route(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry) {
    char usual[kLineSize];
    size_t length = 0;
    char* line = mFilter.formatLine(format, usual, sizeof usual, entry, &length);
    if (line == nullptr)
        return {false, -1};
    Text longer(line != usual ? line : nullptr); // also released when the thread is cancelled below
    int result = 0;
    if (mState.mALogToUart) {
        result = showLine(fd, line, length, entry);
        if (result != static_cast<int>(length))
            return {true, result};
    }
    return {true, isForFile(line, length, entry) ? storeLine(line, length, entry, result) : result};
}

/** Whether the line goes to the file; one that a full storage keeps out is counted as lost. */
bool AndroidLine::isForFile(const char* line, size_t length, const AndroidLogEntry& entry) {
    if (entry.priority < mState.mALogFileMinPri)
        return mState.mALogToFile;
    return mSink.wants(mState.mALogToFile, line, static_cast<uint32_t>(length));
}

/** Writes the line to the console: its length, 0 for a failure, or the bytes of a short write; both reported.
 */
int AndroidLine::showLine(int fd, const char* line, size_t length, const AndroidLogEntry& entry) {
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

/** Puts the line into the sink when its priority is stored; `result` is what came of it before. */
int AndroidLine::storeLine(const char* line, size_t length, const AndroidLogEntry& entry, int result) {
    if (!mSink.inService()) {
        if (entry.priority >= mState.mALogFileMinPri)
            (void)mSink.leaveOut(line, static_cast<uint32_t>(length)); // it may be counted there
        if (!isOwnReport(entry))
            logDebug("write log buf skip, LOGBUF thread not start\n");
        return 0;
    }
    if (entry.priority < mState.mALogFileMinPri)
        return result;
    if (mSink.put(line, static_cast<uint32_t>(length), entry.priority))
        return static_cast<int>(length);
    if (!isOwnReport(entry))
        logError("write log buf error\n");
    return -1;
}

} // namespace vnlog
