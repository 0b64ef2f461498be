#include "sources/AndroidReader.h"

#include "service/Diagnostics.h"
#include "service/Handles.h"
#include "service/LogService.h"
#include "service/Semaphores.h"
#include "sources/AndroidFormat.h"
#include "storage/StorageFormat.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/select.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr char kMainDevice[] = "/dev/log_main";
constexpr char kSystemDevice[] = "/dev/log_system";
constexpr long kMergeDelayUs = 5000;
/** With more entries queued, all are output: one that waits for its device must not hold back a flood of the
 * other. */
constexpr uint32_t kMaxQueued = 512;

using Node = std::unique_ptr<log_entry_node_t>;

/** What becomes of the process or the pass after one read. */
enum class ReadResult { Queued, Interrupted, WouldBlock };

/** Difference of two time stamps' parts, in the 32 bits that they have. */
int32_t difference(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

/** Whether entry `a` was made before entry `b`. */
bool isEarlier(const logger_entry& a, const logger_entry& b) {
    int32_t seconds = difference(a.seconds, b.seconds);
    return seconds < 0 || (seconds == 0 && difference(a.nanoseconds, b.nanoseconds) < 0);
}

/** The device's place on this machine. */
Path devicePlace(const char* systemRoot, const char* path) {
    Path whole;
    formatPath(whole.text, "%s%s", systemRoot, path);
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
        while (log_entry_node_t* node = list->queue) {
            list->queue = node->next;
            delete node;
        }
        std::free(list->path);
        delete list;
        list = next;
    }
}

void cleanUpDevices(void* list) {
    logcat_cleanup(static_cast<log_device_t*>(list));
}

/** Puts the node behind every entry of the device that is not later. */
void enqueue(log_device_t* device, Node node) {
    log_entry_node_t** link = &device->queue;
    while (*link != nullptr && !isEarlier(*node->entry(), *(*link)->entry()))
        link = &(*link)->next;
    node->next = *link;
    *link = node.release();
}

/** Reads one entry of a ready device into its queue. What is no entry ends the process. */
ReadResult readEntry(log_device_t* device) {
    Node node(new (std::nothrow) log_entry_node_t);
    if (node == nullptr)
        return ReadResult::WouldBlock; // it stays in the driver until there is memory
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
    enqueue(device, std::move(node));
    return ReadResult::Queued;
}

/** The largest descriptor of the list; -1, reported, when one does not fit select's set. */
int largestDescriptor(const log_device_t* list) {
    int largest = -1;
    for (const log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->fd >= FD_SETSIZE) {
            logError("log device '%s' has the descriptor %d, select takes less than %d\n", device->path,
                     device->fd, FD_SETSIZE);
            return -1;
        }
        largest = std::max(largest, device->fd);
    }
    return largest;
}

/** Waits for data, for a short time unless `asleep`. The result of select. */
int waitForData(const log_device_t* list, int largest, bool asleep, fd_set* ready) {
    FD_ZERO(ready);
    for (const log_device_t* device = list; device != nullptr; device = device->next)
        FD_SET(device->fd, ready);
    timeval delay{0, kMergeDelayUs};
    return select(largest + 1, ready, nullptr, nullptr, asleep ? nullptr : &delay);
}

/** Reads at most one entry from every ready device. False when the cycle is to be begun anew. */
bool readPass(log_device_t* list, const fd_set& ready, uint32_t* queued) {
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        if (!FD_ISSET(device->fd, &ready))
            continue;
        ReadResult result = readEntry(device);
        if (result == ReadResult::Interrupted)
            return false;
        if (result == ReadResult::WouldBlock)
            break;
        ++*queued;
    }
    return true;
}

} // namespace

void endProcess(int status) {
    _exit(status);
}

void logcat_cleanup(log_device_t* list) {
    logDebug("%s logcat_cleanup dev=%p\n", "logcat_cleanup", static_cast<void*>(list));
    releaseDevices(list);
}

void* LogService::logcat(void* service) {
    auto& self = *static_cast<LogService*>(service);
    log_device_t* list = self.makeDeviceList();
    bool opened = false;
    pthread_cleanup_push(cleanUpDevices, list);
    self.setupOutput();
    opened = self.openDevices(list);
    if (opened)
        self.readLogLines(list);
    pthread_cleanup_pop(opened ? 0 : 1);
    if (opened)
        releaseDevices(list);
    return nullptr;
}

/** The main device, and the system device where it can be read. */
log_device_t* LogService::makeDeviceList() {
    log_device_t* list = makeDevice(kMainDevice, 'm');
    mALogDevCount = 1;
    if (list != nullptr && access(devicePlace(mSystemRoot, kSystemDevice).text, R_OK) == 0) {
        list->next = makeDevice(kSystemDevice, 's');
        mALogDevCount = list->next != nullptr ? 2 : 1;
    }
    return list;
}

/** Opens every device of the list. False, reported, when there is none or one cannot be opened. */
bool LogService::openDevices(log_device_t* list) {
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

void LogService::setupOutput() {
    mALogOutFd = STDOUT_FILENO;
}

void LogService::readLogLines(log_device_t* list) {
    int largest = largestDescriptor(list);
    mALogQueued = 0;
    bool asleep = false;
    while (largest >= 0 && mLogcatThreadRunning) {
        fd_set ready;
        int count = waitForData(list, largest, asleep, &ready);
        if (count < 0)
            continue;
        if (!mLogcatThreadRunning)
            return;
        if (!readPass(list, ready, &mALogQueued))
            continue;
        if (!mALogOutput && !waitOrReport(&mALogSem, " readLogLines sem_wait failed\n"))
            return;
        printQueued(list, count == 0 || mALogQueued > kMaxQueued);
        asleep = count == 0;
    }
}

/** Outputs what is known to be the oldest; everything when nothing has come for a while. */
void LogService::printQueued(log_device_t* list, bool everything) {
    for (;;) {
        log_device_t* first;
        chooseFirst(list, &first);
        // The last entry of a device waits: an earlier one of the other device may still come.
        if (first == nullptr || (!everything && first->queue->next == nullptr))
            return;
        printNextEntry(first);
    }
}

void LogService::chooseFirst(log_device_t* list, log_device_t** first) {
    *first = nullptr;
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->queue != nullptr &&
            (*first == nullptr || isEarlier(*device->queue->entry(), *(*first)->queue->entry())))
            *first = device;
    }
}

void LogService::printNextEntry(log_device_t* dev) {
    maybePrintStart(dev);
    processBuffer(dev, dev->queue->entry());
    skipNextEntry(dev);
}

void LogService::skipNextEntry(log_device_t* dev) {
    maybePrintStart(dev);
    Node node(dev->queue);
    dev->queue = node->next;
    --mALogQueued;
}

void LogService::maybePrintStart(log_device_t* dev) {
    if (dev->printed)
        return;
    dev->printed = true;
    if (mALogDevCount <= 1)
        return;
    char banner[1024];
    formatPath(banner, "--------- beginning of %s\n", dev->path);
    if (!writeAll(mALogOutFd, banner, std::strlen(banner))) {
        logError("output error");
        logErrno();
        endProcess(kExitOutputError);
    }
}

} // namespace vnlog
