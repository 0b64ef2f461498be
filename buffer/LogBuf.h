// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Mutex.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

namespace vnlog {

/** Capacity of the ring buffer in bytes. */
constexpr uint32_t kLogBufSize = 131072;
/** With at most this many bytes used, the flush thread leaves them where they are unless asked. */
constexpr uint32_t kFlushThreshold = 32768;

/** The role of LogBuf::mutex. */
struct RingLock {
    static LockRole role;
};

/**
 * The ring buffer between the log sources (producers) and the flush thread (the only consumer).
 *
 * The used bytes are the `size` - `free_size` bytes from `read_pos` on, running over the end of the data area
 * to index 0 where needed. Equal positions mean empty or full; `free_size` tells which. `mutex` guards the
 * positions and the data area and is never held while waiting for a semaphore; `free_size` changes only under
 * it but may be read without.
 */
struct LogBuf {
    char* buf VNLOG_PT_GUARDED_BY(RingLock::role); ///< data area of `size` bytes, in the ring's memory
    uint32_t size; ///< capacity in bytes
    uint32_t read_pos VNLOG_GUARDED_BY(RingLock::role); ///< index of the oldest byte not yet written out
    uint32_t last_pos; ///< index of the last byte of the data area
    uint32_t write_pos VNLOG_GUARDED_BY(RingLock::role); ///< index where the next byte is stored
    std::atomic<uint32_t> free_size; ///< free bytes
    pthread_mutex_t mutex;
    sem_t sem_read; ///< wakes the flush thread, which waits while there is nothing to do
    sem_t sem_write; ///< wakes a writer that waits for space; posted by every drain
};

} // namespace vnlog
