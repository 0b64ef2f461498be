#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

/*
 * Faults at the seam between the service's objects and the system: the linker sends their calls here first.
 * Everything passes through until a test arms a fault; the fixture disarms all of them before and after a
 * test.
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
    std::atomic<int> entriesUntilError{-1}; ///< folder entries that can still be listed, over all listings
    std::atomic<int> interruptedReads{0}; ///< reads of sockets and pipes that a signal interrupts first
    std::atomic<int> selects{0}; ///< counts the calls

    /// Seconds that timed waits were to last, oldest first; with skipPauses they end at once.
    std::vector<long> pauses();
    std::atomic<bool> skipPauses{false};

    /// While on: "fsync F", "rename F G" and "unlink F" in the order of the calls, F without its folders.
    void recordCalls(bool on);
    std::vector<std::string> calls();

    void disarm();

    // For the wrappers.
    void addCall(const std::string& call);
    void addPause(long seconds);

  private:
    std::mutex mMutex;
    bool mRecording = false;
    std::vector<std::string> mCalls;
    std::vector<long> mPauses;
};

extern Faults faults;
