// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

namespace vnlog {

/** Why lines that should have been stored are not in the store. */
enum class Loss {
    Refused, ///< there was no space in the ring and draining failed
    StorageFull, ///< storing was given up because the medium was full
    TooLong, ///< longer than the ring
    Dropped, ///< buffered, and thrown away by a stop
    Unread, ///< the driver dropped them before they were read
};
constexpr uint32_t kLossReasons = 5;

/** What a reason is called in lines and reports. */
const char* lossText(Loss why);

/** Lines that a text is, or was part of: its newlines, at least one. */
uint32_t countLines(const char* text, uint32_t length);

/**
 * Counts of lost lines by reason, modulo 2^32, as they lie in the ring's memory. What has been told of them
 * is there twice: the one in force is chosen by a bit that changes together with the ring's content.
 */
struct LossBook {
    std::atomic<uint32_t> counted[kLossReasons];
    std::atomic<uint32_t> told[2][kLossReasons];
};
static_assert(sizeof(LossBook) == 60 && std::atomic<uint32_t>::is_always_lock_free);

/** Lines about losses, and what they tell. */
struct LossLines {
    uint32_t length = 0;
    uint32_t counts[kLossReasons] = {};
    char text[448];
};

/** How many lines were lost, and how many of them no line in the log tells of yet. */
class Losses {
  public:
    Losses() = default;
    Losses(const Losses&) = delete;
    Losses& operator=(const Losses&) = delete;

    /** Any thread, never waits. */
    void add(Loss why, uint32_t lines);
    /** Lines lost since the object began, modulo 2^32. Any thread. */
    uint32_t total(Loss why) const { return mTotal[static_cast<uint32_t>(why)]; }
    /** Those that no line tells of. With the ring's lock held, or while the memory is neither opened nor
     * closed. */
    uint32_t untold(Loss why) const;

    // --- for the ring

    /** Keeps the counts in `book` from now on, of which `side` is in force, and adds those from before. */
    void attach(LossBook* book, uint32_t side);
    /** Ends that, and with it the use of the book; with `keep` its untold ones are counted here. */
    void detach(bool keep);

    // With the ring's lock held:

    /** Makes a line for each reason that has untold lines. */
    void write(LossLines* lines) const;
    /** Prepares what they tell to be in force; returns the bit that makes it so. */
    uint32_t prepare(const LossLines& lines);
    /** That bit is in force. */
    void choose(uint32_t side) { mSide = side; }
    uint32_t side() const { return mSide; }

  private:
    void awaitAdders() const;

    std::atomic<uint32_t> mTotal[kLossReasons]{};
    std::atomic<uint32_t> mAdding{0}; ///< threads that may be writing to a book
    LossBook mOwn{}; ///< of which nothing is told
    std::atomic<LossBook*> mBook{&mOwn};
    std::atomic<uint32_t> mSide{0};
};

} // namespace vnlog
