#include "sources/Merge.h"

namespace vnlog {

namespace {

constexpr uint32_t kMaxQueued = 512;

/** Difference of two time stamps' parts, in the 32 bits that they have. */
int32_t difference(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

/** Whether entry `a` was made before entry `b`. */
bool isEarlier(const logger_entry& a, const logger_entry& b) {
    int32_t seconds = difference(a.seconds, b.seconds);
    return seconds < 0 || (seconds == 0 && difference(a.nanoseconds, b.nanoseconds) < 0);
}

} // namespace

void enqueue(log_device_t* device, EntryNode node) {
    log_entry_node_t** link = &device->queue;
    while (*link != nullptr && !isEarlier(*node->entry(), *(*link)->entry()))
        link = &(*link)->next;
    node->next = *link;
    *link = node.release();
}

EntryNode dequeue(log_device_t* device) {
    EntryNode node(device->queue);
    device->queue = node->next;
    return node;
}

log_device_t* oldestDevice(log_device_t* list) {
    log_device_t* oldest = nullptr;
    for (log_device_t* device = list; device != nullptr; device = device->next) {
        if (device->queue != nullptr &&
            (oldest == nullptr || isEarlier(*device->queue->entry(), *oldest->queue->entry())))
            oldest = device;
    }
    return oldest;
}

void Merge::add(log_device_t* device, EntryNode node) {
    enqueue(device, std::move(node));
    ++mQueued;
}

bool Merge::full() const {
    return mQueued > kMaxQueued;
}

log_device_t* Merge::next(bool everything) const {
    log_device_t* oldest = oldestDevice(mList);
    bool waits = oldest != nullptr && !everything && oldest->queue->next == nullptr;
    return waits ? nullptr : oldest;
}

} // namespace vnlog
