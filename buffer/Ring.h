#pragma once

#include "buffer/RingState.h"

#include <atomic>
#include <cstdint>
#include <semaphore.h>

namespace vnlog {

/** Where the buffered bytes go in the end, as far as a writer is told about it. */
class Medium {
  public:
    /** Free bytes there; 0 when it cannot tell. Any thread, no lock of the ring is held. */
    virtual uint32_t freeBytes() = 0;

  protected:
    ~Medium() = default;
};

enum class PutStatus {
    Stored,
    NotInService, ///< there is no ring or no flush thread, or the record is empty
    TooLong, ///< the record can never fit; reported
    Closed, ///< the ring was closed while the writer waited
    Refused, ///< there is no space, and draining fails; counted
    StorageFull, ///< there is no space, and the medium has no room
    WaitFailed, ///< reported
};

/** What became of a record. */
struct PutResult {
    PutStatus status;
    uint32_t freeBytes = 0; ///< with StorageFull: what the medium has
    uint32_t usedBytes = 0; ///< with StorageFull: what the ring holds
};

enum class TakeStatus { Taken, NotInService, WriteFailed };

/** What a drain took. */
struct TakeResult {
    TakeStatus status;
    uint32_t count = 0; ///< bytes freed; after a failed write those that could not be cut off the file again
    int error = 0; ///< errno of a failed write
};

/**
 * The ring buffer: many writers, one consumer, and a release that waits until the last writer has left. Its
 * mutex is held neither while anybody waits nor while a file is written.
 */
class Ring {
  public:
    /** Both must outlive the ring. The record that `state` points to is the one in use, whoever made it. */
    Ring(RingState& state, Medium& medium);
    ~Ring();
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    /** Makes an empty record; there is none yet. False, reported and with everything released, when something
     * is not to be had.
     */
    [[nodiscard]] bool create();
    /** Lets nobody in any more, turns waiting writers away, waits until the last has left, frees the record.
     */
    void release();

    /**
     * Appends one record, whole or not at all; waits while there is no space. Any thread, which may be
     * cancelled while it waits.
     */
    PutResult put(const void* bytes, uint32_t length);
    /**
     * Writes up to `wanted` of the oldest bytes to `fd`, a file, and frees them. After a write that fails,
     * reported, the file is cut back to where it was and nothing is freed; where that fails, what was written
     * is freed, so that it is not written twice. The consumer only; NotInService also for nothing wanted.
     */
    TakeResult take(int fd, uint32_t wanted);
    /** Bytes that are not yet written out; 0 without a record. Any thread, never waits. */
    uint32_t used() const;
    /** Asks for everything buffered to be written out. Any thread; without a record nothing happens. */
    void requestFlush();
    /** What the last stop of the consumer threw away of this record or of the one before, which is gone: its
     * bytes, and the lines that end in them. */
    uint32_t droppedBytes() const { return mDroppedBytes; }
    uint32_t droppedLines() const { return mDroppedLines; }

    /** Lets the consumer look at its flag; there is a record. False with errno set when that is not possible.
     */
    [[nodiscard]] bool wakeConsumer();

    // --- for the flush thread; there is a ring buffer

    /** Waits until there is something to do: at once when there is already. False, reported, when waiting is
     * not possible. */
    [[nodiscard]] bool waitForWork();
    /** How many flushes have been requested so far, modulo 2^32. */
    uint32_t requests() const { return mFlushRequests; }
    /** Whether what is buffered is to be written out: more than the threshold, or less that is wanted. */
    bool drainWanted() const;
    /** Clears a request that has been served, unless another has come since `seen` was read. */
    void forgetRequest(uint32_t seen);
    /** Waits `seconds`; a stop or a request after `seen` ends the wait, other posts do not. */
    void pause(unsigned seconds, uint32_t seen);
    /** Puts the writers on notice: those without space are refused from now on, those that wait get up. With
     * `mediumFull` they are told that. */
    void drainFailed(bool mediumFull);
    /** Ends that, and reports how many records were refused meanwhile. */
    void drainWorks();
    /** Says what a stop throws away, and counts it. */
    void reportUnwritten();

    // --- for tests: writers that wait for space, and everybody inside

    uint32_t waiting() const { return mWaiters; }
    uint32_t inside() const { return mUsers & ~kClosed; }
    uint32_t unsaidWaits() const { return mUnreportedWaits; }

  private:
    class Use;
    class Waiter;
    enum class Built { Record, WithMutex, WithReadSemaphore, Whole };

    /** Top bit of the users: the ring takes nobody in any more. The bits below count who is inside. */
    static constexpr uint32_t kClosed = 0x80000000U;

    LogBuf* enter() const;
    void leave() const;
    bool closed() const;
    void close();
    void reopen();
    bool build();
    void destroy(Built built);
    bool tryCopy(LogBuf& buffer, const void* bytes, uint32_t length);
    bool drainWanted(const LogBuf& buffer) const;
    void wakeForDrain(LogBuf& buffer);
    void reportWait(const LogBuf& buffer, uint32_t length);
    PutResult waitAndCopy(LogBuf& buffer, const void* bytes, uint32_t length);
    PutResult mediumIsFull(const LogBuf& buffer) const;
    void wakeWaiters();
    void reportRefused();
    void reportUnsaidWaits();
    void countDropped();

    RingState& mState;
    Medium& mMedium;
    mutable std::atomic<uint32_t> mUsers{0}; ///< how many are inside; the top bit while the ring is closed
    mutable sem_t mIdle; ///< posted by whoever leaves a closed ring
    std::atomic<uint32_t> mWaiters{0};
    /// The consumer looks at the ring before it waits again, so nobody needs to wake it.
    Flag mConsumerAwake{false};
    bool mConsumerWorks = false; ///< the consumer has been woken and has not waited since; its own
    std::atomic<uint32_t> mFlushRequests{0};
    std::atomic<uint32_t> mRefusedRecords{0}; ///< since draining began to fail
    Flag mDrainFailing{false}; ///< the last drain failed
    Flag mMediumFull{false}; ///< it did so for want of room
    std::atomic<uint32_t> mDroppedBytes{0};
    std::atomic<uint32_t> mDroppedLines{0};
    std::atomic<uint32_t> mLastWaitReport{0}; ///< milliseconds, modulo 2^32
    std::atomic<uint32_t> mUnreportedWaits{0};
};

} // namespace vnlog
