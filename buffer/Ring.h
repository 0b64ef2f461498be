// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/FlushRequests.h"
#include "buffer/Losses.h"
#include "buffer/RingMemory.h"
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
    TooLong, ///< the record can never fit; reported and counted as lost
    Closed, ///< the ring was closed while the writer waited; counted as lost
    Refused, ///< there is no space, and draining fails; counted as lost
    StorageFull, ///< there is no space, and the medium has no room; the caller counts that
    WaitFailed, ///< reported and counted as lost
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

/** What came of the sync that may end a drain; one that failed is not repeated. */
enum class SyncOutcome { NotTried, Done, Failed };

/** What a drain has to do. */
struct DrainStart {
    uint32_t requests; ///< the last request that it serves
    uint32_t used; ///< bytes in the ring
    bool sync; ///< a request since the last drain wants the section synced, or the flush interval is over
    bool waitedFor; ///< somebody waits for that sync
    int64_t time; ///< milliseconds of the monotonic clock
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

    /**
     * Makes a record; there is none yet. Its memory is opened as RingMemory::open does, unless it is still
     * open; a memory file's content is kept, but for an end that is no whole line. False, reported and with
     * everything released, when something is not to be had.
     */
    [[nodiscard]] bool create(const char* folder = nullptr);
    /**
     * Lets nobody in any more, turns waiting writers away, waits until the last has left, frees the record.
     * What is buffered is counted as lost, unless it outlives the process. The memory stays open, for those
     * counts.
     */
    void release();
    /** Closes the memory of a ring without a record; lost lines can be counted all the time. */
    void closeMemory();
    /** Whether what is buffered outlives the process. Not while memory is opened or closed. */
    bool persistent() const { return mMemory.persistent(); }
    /** Whether the memory came from an earlier process. */
    bool resumed() const { return mMemory.resumed(); }
    /** Wall clock since when draining has failed, in seconds since the epoch modulo 2^32; 0 when it does not.
     */
    uint32_t failingSince() const { return mDrainFailing ? mFailingSince.load() : 0; }
    /** Lines lost on their way into the store. Each record is put behind lines about those untold. */
    Losses& losses() { return mLosses; }

    // --- what a start finds in the memory; there is a record, nobody puts or takes yet

    /** Whether the process before ended while it wrote to a section. */
    bool interrupted() const { return mMemory.isOpen() && mMemory.mark() != nullptr; }
    /**
     * Whether `fd` is that section. What it holds of the oldest bytes is freed then, so that it is not
     * written twice; a section that went on otherwise is reported and nothing is freed.
     */
    bool freeWritten(int fd);
    /** Puts a line behind what an earlier process has left, and the lines about losses, as far as there is
     * space; the next record brings the rest. Asks for a flush with sync if there was something. */
    void announce();

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
    /**
     * Asks for everything buffered to be written out, with `sync` also for the section to be brought to its
     * medium after that. Returns the request's number. Any thread; without a record nothing happens, and the
     * number is 0.
     */
    uint32_t requestFlush(bool sync = false);
    /** Asks for a flush with sync like that, unless one is asked for that has not begun; while draining fails
     * it hurries nobody. Any thread. */
    void flushUrgent();
    /**
     * Waits up to `ms` milliseconds for a request. Done: all that was buffered when it was made is in a
     * section, synced if that was asked for. Failed: a drain or a sync for it has failed; it may be tried
     * again. NotInService: there is no ring or no flush thread. Any thread, not cancelled inside.
     */
    FlushOutcome awaitFlush(uint32_t ticket, unsigned ms) const;
    /** Bytes that the last release threw away; 0 from the next record on. */
    uint32_t droppedBytes() const { return mDroppedBytes; }
    /** What is buffered at the release is to be thrown away as lost to a full storage. */
    void giveUp() { mGivenUp = true; }

    /** Lets the consumer look at its flag; there is a record. False with errno set when that is not possible.
     */
    [[nodiscard]] bool wakeConsumer();

    // --- for the flush thread; there is a ring buffer

    /** Waits until there is something to do: at once when there is already, and no longer than until the
     * oldest byte has waited for the medium for RingState::mFlushInterval. False, reported, when waiting is
     * not possible. */
    [[nodiscard]] bool waitForWork(int64_t notBefore = 0);
    /** Takes the requests up that have come. */
    DrainStart beginDrain();
    /** Whether what is buffered is to be written out: more than the threshold, or less that is wanted or has
     * waited long enough. */
    bool drainWanted() const;
    /** All that a drain had to write is written. */
    void finishDrain(const DrainStart& drain, SyncOutcome sync);
    /** A drain or a sync for the requests up to this one failed. */
    void requestsFailed(uint32_t requests) { mRequests.failed(requests); }
    /** Waits `seconds`; a stop or a request after `seen` ends the wait, other posts do not. */
    void pause(unsigned seconds, uint32_t seen);
    /** Puts the writers on notice: those without space are refused from now on, those that wait get up. With
     * `mediumFull` they are told that. */
    void drainFailed(bool mediumFull);
    /** Ends that, and reports how many records were refused meanwhile. */
    void drainWorks();
    /** Says what the release will leave in the memory file, or throw away. */
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
    bool build(const char* folder);
    bool openMemory(const char* folder);
    void useMemory(LogBuf& buffer);
    void destroy(Built built);
    void cutUnfinishedLine();
    uint32_t equalBytes(int fd, off_t offset, uint32_t most) const;
    bool awaitWork(int64_t notBefore);
    bool oldestTime(int64_t* time) const;
    bool append(LogBuf& buffer, const char* bytes, uint32_t length) VNLOG_REQUIRES(RingLock::role);
    bool tryCopy(LogBuf& buffer, const void* bytes, uint32_t length);
    bool drainWanted(const LogBuf& buffer) const;
    void wakeForDrain(LogBuf& buffer);
    void reportWait(const LogBuf& buffer, uint32_t length);
    PutResult waitAndCopy(LogBuf& buffer, const void* bytes, uint32_t length);
    PutResult mediumIsFull(const LogBuf& buffer) const;
    void wakeWaiters();
    void reportRefused();
    void reportUnsaidWaits();
    void dropRest(Loss why);

    RingState& mState;
    Medium& mMedium;
    mutable std::atomic<uint32_t> mUsers{0}; ///< how many are inside; the top bit while the ring is closed
    mutable sem_t mIdle; ///< posted by whoever leaves a closed ring
    std::atomic<uint32_t> mWaiters{0};
    /// The consumer looks at the ring before it waits again, so nobody needs to wake it.
    Flag mConsumerAwake{false};
    bool mConsumerWorks = false; ///< the consumer has been woken and has not waited since; its own
    RingMemory mMemory; ///< the record's data area, and what tells of it to the next process
    Losses mLosses;
    /// What an earlier process has left is in front of what is put from now on, and no line tells that yet.
    uint32_t mAdopted VNLOG_GUARDED_BY(RingLock::role) = 0;
    int64_t mOldest VNLOG_GUARDED_BY(RingLock::role) = 0; ///< no byte has waited for the medium longer
    bool mUnsynced VNLOG_GUARDED_BY(RingLock::role) = false; ///< bytes were written and not synced
    Flag mGivenUp{false};
    std::atomic<uint32_t> mArmedInterval{0}; ///< the interval after which the consumer wakes by itself
    bool mOverdue = false; ///< it did so; its own
    FlushRequests mRequests;
    std::atomic<uint32_t> mRefusedRecords{0}; ///< since draining began to fail
    Flag mDrainFailing{false}; ///< the last drain failed
    std::atomic<uint32_t> mFailingSince{0};
    Flag mMediumFull{false}; ///< it did so for want of room
    std::atomic<uint32_t> mDroppedBytes{0};
    std::atomic<uint32_t> mLastWaitReport{0}; ///< milliseconds, modulo 2^32
    std::atomic<uint32_t> mUnreportedWaits{0};
};

} // namespace vnlog
