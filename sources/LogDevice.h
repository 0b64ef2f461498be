// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/logger/LoggerDevice.h"

#include <cstdint>

namespace vnlog {

/** One entry as the logger driver returns it; the payload follows. */
using logger_entry = platform::LoggerHeader;

/** Bytes of the largest entry; a read of a device without batches asks for so many. */
constexpr uint32_t kEntrySize = platform::kMaxLoggerEntry;

/** Size of the header that the log library's parser wants in front of the payload. */
constexpr uint32_t kLibraryHeaderSize = 28;

/** One queued entry. */
struct log_entry_node_t {
    /**
     * Room in front of the entry: the library's header is longer than the driver's and ends where that one
     * ends, so that the payload stays where it was read to.
     */
    alignas(4) char headroom[kLibraryHeaderSize - sizeof(logger_entry)];
    /** The entry as read, with a zero byte behind its payload. */
    char buffer[kEntrySize + 1];
    log_entry_node_t* next = nullptr; ///< the next later one of the same device

    logger_entry* entry() { return reinterpret_cast<logger_entry*>(buffer); }
};

/** One logger device of the reader's list. */
struct log_device_t {
    char* path; ///< without the system root; owned
    int32_t fd = -1;
    bool printed = false; ///< the first entry has been handed to output
    char label; ///< 'm' or 's'
    log_entry_node_t* queue = nullptr; ///< oldest entry first; owned
    log_device_t* next = nullptr;
    bool batches = false; ///< a read returns several entries one behind the other, see kMostBatched
    log_entry_node_t* newest = nullptr; ///< the last of the queue while that is not empty
    uint32_t queued = 0; ///< entries in the queue
    bool unwanted =
        false; ///< what comes for now is from when the output was off: nobody misses what is missing
};

} // namespace vnlog
