// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <cstdint>

/*
 * The logger driver as its users see it. A character device is the real driver; a socket at the device's path
 * is the stand-in (LoggerDriver.h) and is connected to. Either way a reader gets whole entries,
 * one per read unless it was opened for batches, and can wait with select.
 */
namespace vnlog::platform {

/** Header of an entry, as the driver lays it out before the payload. */
struct LoggerHeader {
    uint16_t length; ///< payload bytes
    /**
     * Of an entry that the stand-in returns to a reader of batches: how many it has lost since the entry
     * before; what is more than 65535 is told with the entry after. 0 for every other reader.
     */
    uint16_t padding;
    int32_t pid;
    int32_t tid;
    int32_t seconds; ///< time stamp since the epoch
    int32_t nanoseconds;
};
static_assert(sizeof(LoggerHeader) == 20, "the driver's version-1 header");

/** Largest entry, header and payload, in bytes. */
constexpr uint32_t kMaxLoggerEntry = 5120;
/** What a read of a connection that was opened for batches returns at most: entries, and bytes of them all.
 */
constexpr uint32_t kMostBatched = 32;
constexpr uint32_t kMaxLoggerBatch = 16384;

// Requests of the driver, without argument; the answer is the result.
constexpr unsigned kRequestSize = 0xAE01; ///< bytes that the device can hold
constexpr unsigned kRequestReadable = 0xAE02; ///< bytes that it holds
constexpr unsigned kRequestFlush = 0xAE04; ///< empties it for every reader; 0

enum class LoggerAccess {
    Read, ///< from the oldest entry held
    ReadBatches, ///< the same; the stand-in returns whole entries one behind the other, as many as it has
    Write, ///< entries that the device has no room for drop its oldest ones
    WriteLossless, ///< stand-in only, Write elsewhere: writing waits while a reader would lose an entry
};

/** Opens a device, with cancellation disabled. On failure the result is not valid and errno tells why. */
[[nodiscard]] FileDescriptor openLogger(const char* path, LoggerAccess access);

/** Whether the descriptor is connected to the stand-in, which takes whole entries with their header. */
bool isStandIn(int fd);

/** Issues one of the requests. Its answer, or -1 with errno set. */
int controlLogger(int fd, unsigned request);

} // namespace vnlog::platform
