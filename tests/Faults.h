// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <climits>
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
    using Number = std::atomic<int>;
    Number writeError{0}; ///< errno of every write to a regular file while set
    Number writesUntilError{0}; ///< with writeError: writes that still work
    std::atomic<bool> sectionsOnly{false}; ///< writeError does not meet the settings
    Number writeErrors{INT_MAX}; ///< with writeError: how many fail
    Number shortWrite{0}; ///< bytes that the next write takes at most, once
    Number writeDelayUs{0}; ///< a slow medium
    Number clockStep{0}; ///< seconds by which the wall clock was set
    std::atomic<bool> unwatched{false}; ///< the kernel watches no folders
    std::atomic<bool> archivesWait{false}; ///< one whose syncs of archives last as long as this is set
    // How many still work until one fails, -1 for all:
    Number threadsUntilError{-1}, semaphoresUntilError{-1}; ///< that are to be made
    Number objectRefused{0}; ///< which of those made by new from now on finds no memory, 0 for none; then 0
    Number stepsUntilError{-1}; ///< fsync, rename and unlink together
    Number entriesUntilError{-1}; ///< entries that are listed, over all folders
    Number interruptedReads{0}; ///< reads of sockets and pipes that a signal interrupts
    Number wholeReads{0}; ///< with interruptedReads: those that work before
    Number interruption{0}; ///< with interruptedReads: their errno, 0 for EINTR
    Number reads{0}, selects{0}; ///< count the calls
    std::atomic<uint32_t> allocations{0}; ///< of all threads but the test's own
    std::atomic<int64_t> freeBytes{-1}; ///< what the file system answers, -1 for the truth
    std::atomic<size_t> failAllocationsFrom{SIZE_MAX}; ///< smallest size in bytes that is refused
    std::atomic<bool> skipPauses{false}; ///< timed waits end at once

    void disarm();
    /// Seconds that timed waits were to last, oldest first.
    std::vector<long> pauses() { return locked(mPauses); }
    /// While on: "fsync F", "rename F G" and "unlink F" in the order of the calls, F without its folders.
    /// Switching it on begins anew.
    void recordCalls(bool on);
    std::vector<std::string> calls() { return locked(mCalls); }

    // For the wrappers.
    void addCall(const std::string& call);
    void addPause(long seconds);

  private:
    using Lock = std::lock_guard<std::mutex>;
    template <typename Value> Value locked(const Value& value) {
        Lock lock(mMutex);
        return value;
    }

    std::mutex mMutex;
    bool mRecording = false;
    std::vector<std::string> mCalls;
    std::vector<long> mPauses;
};

extern Faults faults;
