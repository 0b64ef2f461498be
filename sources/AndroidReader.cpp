#include "sources/AndroidReader.h"

#include "base/Diagnostics.h"
#include "base/Handles.h"
#include "base/Semaphores.h"
#include "base/Text.h"
#include "sources/Merge.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/select.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr long kMergeDelayUs = 5000;
constexpr long kFinishDelayUs = 20000; // in which what is on its way from a writer to the device arrives

/** What becomes of the pass after one read. */
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

/** Reads one entry of a ready device into the node. What is no entry ends the process. */
ReadResult readEntry(const log_device_t* device, log_entry_node_t* node) {
    *node->entry() = {}; // a read may be shorter than the header
    ssize_t length = read(device->fd, node->buffer, kEntrySize);
    if (length < 0) {
        if (errno == EINTR)
            return ReadResult::Interrupted;
        if (errno == EAGAIN)
            return ReadResult::WouldBlock;
        logError("logcat read");
        logErrno();
        endProcess(kExitReadError);
    }
    if (length == 0) {
        logError("read: Unexpected EOF!\n");
        endProcess(kExitReadError);
    }
    ssize_t payload = length - static_cast<ssize_t>(sizeof(logger_entry));
    if (payload != static_cast<ssize_t>(node->entry()->length)) {
        logError("read: unexpected length. Expected %d, got %zd\n", node->entry()->length, payload);
        endProcess(kExitReadError);
    }
    node->buffer[length] = '\0';
    return ReadResult::Read;
}

/** Whether a device is open and every descriptor fits select's set; one that does not is reported. */
bool selectable(const log_device_t* list) {
    bool open = false;
    for (const log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd >= FD_SETSIZE) {
            logError("log device '%s' has the descriptor %d, select takes less than %d\n", device->path,
                     device->fd, FD_SETSIZE);
            return false;
        }
        open = open || device->fd >= 0;
    }
    return open;
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
    log_device_t* list = makeDevice(platform::kMainDevice, 'm');
    mState.mALogDevCount = 1;
    if (list != nullptr && access(devicePlace(mSystemRoot, platform::kSystemDevice).text, R_OK) == 0) {
        list->next = makeDevice(platform::kSystemDevice, 's');
        mState.mALogDevCount = list->next != nullptr ? 2 : 1;
    }
    return list;
}

/** Opens every device of the list. False when there is none, or, reported, when one cannot be opened. */
bool AndroidReader::openDevices(log_device_t* list) {
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        Path place = devicePlace(mSystemRoot, device->path);
        device->fd = platform::openLogger(place.text, platform::LoggerAccess::Read).release();
        if (device->fd < 0) {
            char text[128];
            logError("Unable to open log device '%s': %s\n", device->path,
                     strerror_r(errno, text, sizeof text));
            return false;
        }
    }
    return list != nullptr;
}

void AndroidReader::setupOutput() {
    mState.mALogOutFd = STDOUT_FILENO;
}

void AndroidReader::readLines(log_device_t* list) {
    if (!selectable(list))
        return;
    Merge merge(list);
    bool asleep = false;
    uint32_t finishBytes = 0;
    while (mState.mLogcatThreadRunning) {
        Pass pass{mFinish.made(), asleep};
        if (!readPass(list, merge, &pass))
            continue;
        if (!mState.mALogOutput && !waitOrReport(&mState.mALogSem, " readLogLines sem_wait failed\n"))
            return;
        finishBytes += pass.finishing ? pass.bytes : 0;
        bool last = pass.finishing && (pass.quiet || finishBytes >= FinishRequest::kMostBytes);
        printReady(merge, pass.quiet || last || merge.full());
        if (last && !pass.quiet)
            FinishRequest::reportRest("logcat");
        if (last)
            return;
        asleep = pass.quiet;
    }
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

/** Waits, then reads at most one entry from every ready device. False when the cycle is to be begun anew. */
bool AndroidReader::readPass(log_device_t* list, Merge& merge, Pass* pass) {
    fd_set ready;
    if (waitForData(list, pass, &ready) < 0 || !mState.mLogcatThreadRunning)
        return false;
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd < 0 || !FD_ISSET(device->fd, &ready))
            continue;
        EntryNode node(new (std::nothrow) log_entry_node_t);
        if (node == nullptr)
            break; // the entry stays in the driver until there is memory
        ReadResult result = readEntry(device, node.get());
        if (result == ReadResult::Interrupted)
            return false;
        if (result == ReadResult::WouldBlock)
            break;
        pass->bytes += static_cast<uint32_t>(sizeof(logger_entry)) + node->entry()->length;
        merge.add(device, std::move(node));
    }
    return true;
}

/** Outputs what is known to be the oldest; with `everything` all that is queued. */
void AndroidReader::printReady(Merge& merge, bool everything) {
    while (log_device_t* device = merge.next(everything)) {
        printFirst(device);
        merge.done();
        mFinish.step();
    }
}

void AndroidReader::printFirst(log_device_t* device) {
    announce(device);
    mLine.process(device, device->queue->entry());
    skipFirst(device);
}

void AndroidReader::skipFirst(log_device_t* device) {
    announce(device);
    dequeue(device);
}

void AndroidReader::announce(log_device_t* device) {
    if (device->printed)
        return;
    device->printed = true;
    if (mState.mALogDevCount <= 1)
        return;
    char banner[1024];
    formatText(banner, "--------- beginning of %s\n", device->path);
    if (!writeAll(mState.mALogOutFd, banner, std::strlen(banner))) {
        logError("output error");
        logErrno();
        endProcess(kExitOutputError);
    }
}

bool AndroidReader::clear() {
    Path path = devicePlace(mSystemRoot, platform::kMainDevice);
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
