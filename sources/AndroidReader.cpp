// SPDX-License-Identifier: Apache-2.0
#include "sources/AndroidReader.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"
#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/select.h>
#include <unistd.h>

namespace vnlog {

namespace {

/** Entries after which the next device has its turn, and then what is known to be the oldest is output; the
 * last batch may exceed it. */
constexpr uint32_t kMostPerPass = 32;
constexpr long kMergeDelayUs = 5000;
constexpr long kFinishDelayUs = 20000; // in which what is on its way from a writer to the device arrives

/** What came of one read. */
enum class ReadResult { Read, Interrupted, WouldBlock };

/** The device's place on this machine. */
Path devicePlace(const platform::SystemRoot& systemRoot, const char* path) {
    Path whole;
    formatText(whole.text, "%s%s", systemRoot.path, path);
    return whole;
}

log_device_t* makeDevice(const char* path, char label) {
    auto* device = new (std::nothrow) log_device_t{};
    if (device == nullptr)
        return nullptr;
    device->label = label;
    device->path = strdup(path);
    if (device->path != nullptr)
        return device;
    delete device;
    return nullptr;
}

void releaseDevices(log_device_t* list) {
    while (list != nullptr) {
        log_device_t* next = list->next;
        closeDescriptor(list->fd);
        while (list->queue != nullptr)
            dequeue(list);
        std::free(list->path);
        delete list;
        list = next;
    }
}

void cleanUpDevices(void* list) {
    logcat_cleanup(static_cast<log_device_t*>(list));
}

/** Reads a device; `length` becomes the bytes. A failure that no retry mends ends the process. */
ReadResult readOnce(int fd, char* bytes, size_t size, size_t* length) {
    ssize_t count = read(fd, bytes, size);
    if (count < 0) {
        if (errno == EINTR)
            return ReadResult::Interrupted;
        if (errno == EAGAIN)
            return ReadResult::WouldBlock;
        logError("logcat read");
        logErrno();
        endProcess(kExitReadError);
    }
    if (count == 0) {
        logError("read: Unexpected EOF!\n");
        endProcess(kExitReadError);
    }
    *length = static_cast<size_t>(count);
    return ReadResult::Read;
}

/**
 * Length of the first entry in the bytes that a device has returned. Anything else than one whole entry, or
 * several of a device that returns batches, ends the process.
 */
size_t firstEntry(const log_device_t* device, const char* bytes, size_t length) {
    logger_entry header{};
    std::memcpy(&header, bytes, std::min(length, sizeof header));
    size_t whole = sizeof header + header.length;
    if (whole <= kEntrySize && (whole == length || (device->batches && whole < length)))
        return whole;
    logError("read: unexpected length. Expected %d, got %zd\n", header.length,
             static_cast<ssize_t>(length) - static_cast<ssize_t>(sizeof header));
    endProcess(kExitReadError);
}

/**
 * Makes the devices such that one read after the other finds out when there is no more. False when none is
 * open or, reported, when a descriptor does not fit select's set.
 */
bool makeReadable(const log_device_t* list) {
    bool open = false;
    for (const log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd >= FD_SETSIZE) {
            logError("log device '%s' has the descriptor %d, select takes less than %d\n", device->path,
                     device->fd, FD_SETSIZE);
            return false;
        }
        if (device->fd < 0)
            continue;
        open = true;
        (void)fcntl(device->fd, F_SETFL, fcntl(device->fd, F_GETFL) | O_NONBLOCK); // fails for no open device
    }
    return open;
}

/** Whether an entry was written at this time of the wall clock or later. */
bool isSince(const logger_entry& entry, const timespec& time) {
    auto seconds = static_cast<int32_t>(time.tv_sec);
    return entry.seconds != seconds ? entry.seconds - seconds > 0 : entry.nanoseconds >= time.tv_nsec;
}

bool isReady(const log_device_t* device, const fd_set& ready) {
    return device->fd >= 0 && FD_ISSET(device->fd, &ready);
}

} // namespace

/** One cycle of reading, and what it is to go by. */
struct AndroidReader::Pass {
    bool finishing; ///< the reader is to end once nothing is readable
    bool asleep; ///< it waits until there is something
    bool quiet = false; ///< no device was ready
    uint32_t bytes = 0; ///< that were read
};

void logcat_cleanup(log_device_t* list) {
    logDebug("%s logcat_cleanup dev=%p\n", "logcat_cleanup", static_cast<void*>(list));
    releaseDevices(list);
}

void AndroidReader::run() {
    log_device_t* list = makeDeviceList();
    bool opened = false;
    pthread_cleanup_push(cleanUpDevices, list);
    setupOutput();
    opened = openDevices(list);
    if (opened)
        readLines(list);
    pthread_cleanup_pop(opened ? 0 : 1);
    if (opened) // the handler and its report are for early ends
        releaseDevices(list);
}

/** The main device, and the system device where it can be read. */
log_device_t* AndroidReader::makeDeviceList() {
    log_device_t* list = makeDevice(mSystemRoot.places().mainDevice, 'm');
    mState.mALogDevCount = 1;
    if (list != nullptr &&
        access(devicePlace(mSystemRoot, mSystemRoot.places().systemDevice).text, R_OK) == 0) {
        list->next = makeDevice(mSystemRoot.places().systemDevice, 's');
        mState.mALogDevCount = list->next != nullptr ? 2 : 1;
    }
    return list;
}

/** Opens every device of the list. False when there is none, or, reported, when one cannot be opened. */
bool AndroidReader::openDevices(log_device_t* list) {
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        Path place = devicePlace(mSystemRoot, device->path);
        device->fd = platform::openLogger(place.text, platform::LoggerAccess::ReadBatches).release();
        if (device->fd < 0) {
            char text[128];
            logError("Unable to open log device '%s': %s\n", device->path,
                     strerror_r(errno, text, sizeof text));
            return false;
        }
        device->batches = platform::isStandIn(device->fd);
    }
    return list != nullptr;
}

void AndroidReader::setupOutput() {
    mState.mALogOutFd = STDOUT_FILENO;
}

void AndroidReader::readLines(log_device_t* list) {
    if (!makeReadable(list))
        return;
    SourceCounts::Run run(mLine.counts());
    bool asleep = false;
    uint32_t finishBytes = 0;
    while (mState.mLogcatThreadRunning) {
        Pass pass{mFinish.made(), asleep};
        if (!readPass(list, &pass))
            continue;
        if (!mState.mALogOutput && !awaitOutput(list))
            return;
        finishBytes += pass.finishing ? pass.bytes : 0;
        bool last = pass.finishing && (pass.quiet || finishBytes >= FinishRequest::kMostBytes);
        printReady(list, pass.quiet || last);
        if (last && !pass.quiet)
            FinishRequest::reportRest("logcat");
        if (last)
            return;
        asleep = pass.quiet;
    }
}

/** Waits until the output may have been switched on. False, reported, when that is not possible. */
bool AndroidReader::awaitOutput(log_device_t* list) {
    if (!waitOrReport(&mState.mALogSem, " readLogLines sem_wait failed\n"))
        return false;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    mOnSince = now;
    for (log_device_t* device = list; device != nullptr; device = device->next)
        device->unwanted = true;
    return true;
}

/** The driver has dropped entries in front of this one; of those from when the output was off nobody misses
 * any. */
void AndroidReader::tellLost(log_device_t* device, const logger_entry& entry) {
    constexpr uint32_t kMostTold = 65535; // with more, the rest comes with the next entry
    if (!device->unwanted)
        mLine.lost(entry.padding);
    else if (entry.padding < kMostTold && isSince(entry, mOnSince))
        device->unwanted = false;
}

/**
 * Waits for data: for a short time, or when asleep until there is some or the reader is to finish. Less than
 * 0 when it was interrupted; `ready` and `quiet` tell what there is.
 */
int AndroidReader::waitForData(const log_device_t* list, Pass* pass, fd_set* ready) const {
    FD_ZERO(ready);
    int wakeUp = pass->finishing || mFinish.wakeUp() >= FD_SETSIZE ? -1 : mFinish.wakeUp();
    if (wakeUp >= 0)
        FD_SET(wakeUp, ready);
    int largest = wakeUp;
    for (const log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd >= 0)
            FD_SET(device->fd, ready);
        largest = std::max(largest, device->fd);
    }
    timeval delay{0, pass->finishing ? kFinishDelayUs : kMergeDelayUs};
    bool sleeps = pass->asleep && !pass->finishing;
    int count = select(largest + 1, ready, nullptr, nullptr, sleeps ? nullptr : &delay);
    pass->quiet = count == (wakeUp >= 0 && count > 0 && FD_ISSET(wakeUp, ready) ? 1 : 0);
    return count;
}

/** Waits, then reads from the ready devices. False when the cycle is to be begun anew. */
bool AndroidReader::readPass(log_device_t* list, Pass* pass) {
    fd_set ready;
    if (waitForData(list, pass, &ready) < 0 || !mState.mLogcatThreadRunning)
        return false;
    bool behind = false; // a device whose entries the others may be waiting for
    for (log_device_t* device = list; device != nullptr; device = device->next)
        behind = behind || (isReady(device, ready) && device->queued < kMostPerPass);
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        bool due = isReady(device, ready) && !(behind && device->queued >= kMostPerPass);
        if (due && !readDevice(device, pass))
            return false;
    }
    return pass->quiet || readSilent(list, pass);
}

/**
 * Reads once more from the devices of which no entry is known: one may have come while others were read, and
 * be earlier than what they have. Of the others, the last entry that is known holds later ones back. False
 * when that was interrupted.
 */
bool AndroidReader::readSilent(log_device_t* list, Pass* pass) {
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd >= 0 && device->queue == nullptr && !readDevice(device, pass))
            return false;
    }
    return true;
}

/** Reads what a device has, up to its most per pass. False when that was interrupted. */
bool AndroidReader::readDevice(log_device_t* device, Pass* pass) {
    size_t size = device->batches ? sizeof mBatch : kEntrySize;
    // What is read while the output is off is output when that comes on, what stays in the main device is
    // not.
    uint32_t most = mState.mALogOutput ? kMostPerPass : 1;
    for (uint32_t count = 0; count < most;) {
        if (!mPool.reserve(device->batches ? platform::kMostBatched : 1))
            return true; // the entries stay in the driver until there is memory
        size_t length;
        ReadResult result = readOnce(device->fd, mBatch, size, &length);
        if (result != ReadResult::Read)
            return result == ReadResult::WouldBlock;
        uint32_t entries = queueEntries(device, length);
        mLine.counts().take(entries);
        count += entries;
        pass->bytes += static_cast<uint32_t>(length);
    }
    return true;
}

/** Queues the entries that have been read, and tells how many. */
uint32_t AndroidReader::queueEntries(log_device_t* device, size_t length) {
    uint32_t count = 0;
    for (size_t start = 0; start < length; ++count) {
        size_t whole = firstEntry(device, mBatch + start, length - start);
        EntryNode node = mPool.take();
        std::memcpy(node->buffer, mBatch + start, whole);
        node->buffer[whole] = '\0';
        enqueue(device, std::move(node));
        start += whole;
    }
    return count;
}

/** Outputs what is known to be the oldest; with `everything` all that is queued. */
void AndroidReader::printReady(log_device_t* list, bool everything) {
    mLine.beginCycle();
    while (log_device_t* device = nextDevice(list, everything)) {
        printFirst(device);
        mFinish.step();
    }
    mLine.endCycle();
}

void AndroidReader::printFirst(log_device_t* device) {
    announce(device);
    logger_entry* entry = device->queue->entry();
    if (device->batches && (entry->padding > 0 || device->unwanted)) // in which the stand-in tells it
        tellLost(device, *entry);
    Fate fate = mLine.process(device, entry);
    mLine.counts().settle(fate);
    skipFirst(device);
}

void AndroidReader::skipFirst(log_device_t* device) {
    announce(device);
    mPool.give(dequeue(device));
}

void AndroidReader::announce(log_device_t* device) {
    if (device->printed)
        return;
    device->printed = true;
    if (mState.mALogDevCount > 1)
        mLine.announce(device->path);
}

bool AndroidReader::clear() {
    Path path = devicePlace(mSystemRoot, mSystemRoot.places().mainDevice);
    FileDescriptor device = platform::openLogger(path.text, platform::LoggerAccess::Write);
    if (!device.valid()) {
        char text[128];
        logError("Unable to open log device '%s': %s\n", "log_main", strerror_r(errno, text, sizeof text));
        return false;
    }
    if (platform::controlLogger(device.get(), platform::kRequestFlush) < 0) {
        logError("ioctl clearLog");
        logErrno();
        return false;
    }
    return true;
}

} // namespace vnlog
