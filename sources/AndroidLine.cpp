// SPDX-License-Identifier: Apache-2.0
#include "sources/AndroidLine.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Text.h"

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

Fate AndroidLine::process(const log_device_t* device, logger_entry* entry) {
    // The library takes any byte for a priority; one that is none cannot be judged.
    auto priority = static_cast<unsigned char>(*reinterpret_cast<const char*>(entry + 1));
    if (entry->length == 0 || priority > ANDROID_LOG_SILENT)
        return Fate::Refused;
    AndroidLogEntry parsed{};
    {
        CancelGuard guard; // the library may report what it finds
        if (android_log_processLogBuffer(asLibraryEntry(entry, device->label), &parsed) < 0)
            return Fate::Refused;
    }
    if (parsed.priority < mFilter.priorityFor(mFilterState.mLogFormat, parsed.tag))
        return Fate::Filtered;
    // A line that was not stored is reported there and is no reason to end.
    LineResult result = route(mFilterState.mLogFormat, mState.mALogOutFd, parsed);
    if (!result.formatted) {
        logError("output error");
        endProcess(kExitOutputError);
    }
    return result.fate;
}

int AndroidLine::print(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry) {
    return route(format, fd, entry).result;
}

/** Formats the entry and passes the line on: to the store whatever the console does. */
AndroidLine::LineResult AndroidLine::route(AndroidLogFormat_t* format, int fd, const AndroidLogEntry& entry) {
    char usual[kLineSize];
    size_t length = 0;
    char* line = mFilter.formatLine(format, usual, sizeof usual, entry, &length);
    if (line == nullptr)
        return {false, -1, Fate::Refused};
    Text longer(line != usual ? line : nullptr); // also released when the thread is cancelled below
    bool shown = mState.mALogToUart && showLine(fd, line, length);
    return store(line, static_cast<uint32_t>(length), entry, shown ? static_cast<int>(length) : 0);
}

/** Whether the console has the line. */
bool AndroidLine::showLine(int fd, const char* line, size_t length) {
    Shown shown = mConsole.show(fd, line, length, &mPatience);
    mCounts.show(shown);
    return shown == Shown::Whole;
}

/** Stores the line if it is to be stored; `shown` is the result otherwise. */
AndroidLine::LineResult AndroidLine::store(const char* line, uint32_t length, const AndroidLogEntry& entry,
                                           int shown) {
    const LineResult notStored{true, shown, Fate::Filtered};
    if (entry.priority < mState.mALogFileMinPri)
        return mState.mALogToFile && !mSink.inService() ? skip(entry, Fate::Filtered) : notStored;
    switch (mSink.wish(mState.mALogToFile, line, length)) {
    case Wish::NotStored:
        return notStored;
    case Wish::Missed:
        return {true, shown, Fate::Refused};
    case Wish::Stored:
        break;
    }
    return put(line, length, entry);
}

/** A line that nobody takes. */
AndroidLine::LineResult AndroidLine::skip(const AndroidLogEntry& entry, Fate fate) {
    if (!isOwnReport(entry))
        logDebug("write log buf skip, LOGBUF thread not start\n");
    return {true, 0, fate};
}

AndroidLine::LineResult AndroidLine::put(const char* line, uint32_t length, const AndroidLogEntry& entry) {
    if (!mSink.inService()) {
        mSink.miss(line, length);
        return skip(entry, Fate::Refused);
    }
    if (mSink.put(line, length, entry.priority))
        return {true, static_cast<int>(length), Fate::Stored};
    if (!isOwnReport(entry) && mReports.due())
        logError("write log buf error\n");
    return {true, -1, Fate::Refused};
}

void AndroidLine::announce(const char* device) {
    char banner[1024];
    formatText(banner, "--------- beginning of %s\n", device);
    bool given = mConsole.error() != 0; // up before: it is not tried again
    if (mConsole.show(mState.mALogOutFd, banner, std::strlen(banner), &mPatience) != Shown::Closed || given)
        return;
    errno = mConsole.error();
    logError("output error");
    logErrno();
    endProcess(kExitOutputError);
}

void AndroidLine::lost(uint32_t entries) {
    if (mState.mALogToFile && entries > 0)
        mSink.lost(Loss::Unread, entries);
}

} // namespace vnlog
