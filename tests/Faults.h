#pragma once

#include <atomic>
#include <cstdint>

/*
 * Faults at the seam between the service's objects and the system: the linker sends their calls here first.
 * Everything passes through until a test arms a fault; each test runs in a process of its own.
 */
struct Faults {
    std::atomic<int> writeError{0}; ///< errno of every write to a regular file while set
    std::atomic<int> writesUntilError{0}; ///< with writeError: writes that still work
    std::atomic<int> shortWrite{0}; ///< bytes that the next write takes at most, once
    std::atomic<int> writeDelayUs{0}; ///< a slow medium
    std::atomic<int64_t> freeBytes{-1}; ///< what the file system answers, -1 for the truth
    std::atomic<int> threadsUntilError{-1}; ///< threads that can still be created, -1 for all
    std::atomic<int> semaphoresUntilError{-1};
    std::atomic<uint32_t> allocations{0}; ///< of all threads but the test's own
    std::atomic<int64_t> failAllocationsFrom{-1}; ///< smallest size in bytes that is refused
};

extern Faults faults;
