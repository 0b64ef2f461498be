// SPDX-License-Identifier: Apache-2.0
#include "sources/Merge.h"

#include <new>
#include <utility>

namespace vnlog {

namespace {

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

EntryPool::~EntryPool() {
    while (mFree != nullptr)
        take();
}

bool EntryPool::reserve(uint32_t nodes) {
    while (mCount < nodes) {
        EntryNode node(new (std::nothrow) log_entry_node_t);
        if (node == nullptr)
            return false;
        give(std::move(node));
    }
    return true;
}

EntryNode EntryPool::take() {
    EntryNode node(mFree);
    mFree = std::exchange(node->next, nullptr);
    --mCount;
    return node;
}

void EntryPool::give(EntryNode node) {
    node->next = mFree;
    mFree = node.release();
    ++mCount;
}

void enqueue(log_device_t* device, EntryNode node) {
    log_entry_node_t** link = &device->queue;
    if (device->queue != nullptr && !isEarlier(*node->entry(), *device->newest->entry()))
        link = &device->newest->next; // as nearly always: the way there would lead through all that wait
    while (*link != nullptr && !isEarlier(*node->entry(), *(*link)->entry()))
        link = &(*link)->next;
    node->next = *link;
    if (node->next == nullptr)
        device->newest = node.get();
    *link = node.release();
    ++device->queued;
}

EntryNode dequeue(log_device_t* device) {
    EntryNode node(device->queue);
    device->queue = node->next;
    --device->queued;
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

log_device_t* nextDevice(log_device_t* list, bool everything) {
    log_device_t* oldest = oldestDevice(list);
    uint32_t queued = 0;
    for (const log_device_t* device = list; device != nullptr; device = device->next)
        queued += device->queued;
    bool mayWait = !everything && queued <= kMostQueued;
    bool waits = oldest != nullptr && mayWait && oldest->queue->next == nullptr;
    return waits ? nullptr : oldest;
}

} // namespace vnlog
