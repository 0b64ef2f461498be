// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sources/LogDevice.h"

#include <cstdint>
#include <memory>

namespace vnlog {

using EntryNode = std::unique_ptr<log_entry_node_t>;

/**
 * Keeps the nodes of entries that have been output for those that come: none is allocated as long as no more
 * are in use than ever before. One thread at a time.
 */
class EntryPool {
  public:
    EntryPool() = default;
    ~EntryPool();
    EntryPool(const EntryPool&) = delete;
    EntryPool& operator=(const EntryPool&) = delete;

    /** Sees to it that so many nodes can be taken. False without memory. */
    [[nodiscard]] bool reserve(uint32_t nodes);
    /** A node with any content, which has been reserved. */
    EntryNode take();
    void give(EntryNode node);

  private:
    log_entry_node_t* mFree = nullptr;
    uint32_t mCount = 0; ///< of the free ones
};

/** Queues the entry behind every one of its device that is not later. */
void enqueue(log_device_t* device, EntryNode node);
/** Takes the first entry off a device's queue, which is not empty. */
EntryNode dequeue(log_device_t* device);
/** The device whose first queued entry is the oldest, the first in the list of equal ones; null without
 * entries. */
log_device_t* oldestDevice(log_device_t* list);

/** Entries that may wait in all queues: one that waits for its device must not hold back a flood of another.
 */
constexpr uint32_t kMostQueued = 128;

/**
 * Merges the queues of all devices by time: the device whose first entry is to be output now, or null. An
 * entry waits until a later one of its own device has come, so that an earlier one of another device can
 * still overtake it, unless nothing more is coming for now (`everything`) or too many wait.
 */
log_device_t* nextDevice(log_device_t* list, bool everything);

} // namespace vnlog
