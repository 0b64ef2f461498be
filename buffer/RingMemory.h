// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "buffer/LogBuf.h"
#include "buffer/Losses.h"

#include <cstdint>
#include <sys/types.h>

namespace vnlog {

/** A write to a section that has been begun; it counts as long as `read` is the ring's read word. */
struct WriteMark {
    uint64_t device;
    uint64_t inode;
    uint64_t offset; ///< length of the section before
    uint32_t bytes;
    uint32_t read; ///< the read word at the beginning
    uint32_t check; ///< over all of the above
    uint32_t unused;
};
static_assert(sizeof(WriteMark) == 40);

/** What lies in front of the data area, in the byte order of the device. */
struct RingHeader {
    char magic[8];
    uint32_t version;
    uint32_t capacity; ///< bytes of the data area
    std::atomic<uint32_t> write; ///< where the next byte is stored, as a word with a check in it
    std::atomic<uint32_t> read; ///< where the oldest byte lies, likewise
    LossBook losses;
    uint32_t unused;
    WriteMark mark;
};
static_assert(sizeof(RingHeader) == 128);

/**
 * The memory of the ring: a header and the data area. It lies in a memory file when it has a folder for one,
 * so that what is buffered outlives the process, and in private memory otherwise. Each change takes effect
 * with the store of one word: a kill at any moment leaves the state before it or the one after.
 *
 * Positions are bytes modulo kRound, so that equal ones mean empty and those a data area apart mean full.
 */
class RingMemory {
  public:
    static constexpr uint32_t kRound = 2 * kLogBufSize;

    RingMemory() = default;
    ~RingMemory() { close(); }
    RingMemory(const RingMemory&) = delete;
    RingMemory& operator=(const RingMemory&) = delete;

    /**
     * Maps `folder`/ring, kept as it is or made anew, and locks it against other services. Without a folder,
     * or where that is not possible, which is reported, takes private memory. False with errno set when there
     * is none.
     */
    [[nodiscard]] bool open(const char* folder);
    /** Gives it back; what a memory file holds stays there. */
    void close();

    bool isOpen() const { return mHeader != nullptr; }
    /** Whether it outlives the process. */
    bool persistent() const { return mFile >= 0; }
    /** Whether it came from an earlier use. */
    bool resumed() const { return mResumed; }

    // --- of open memory; the ring's lock is held or nobody else is there, for the mark the consumer alone

    char* data() const { return reinterpret_cast<char*>(mHeader + 1); }
    LossBook* losses() const { return &mHeader->losses; }
    uint32_t readPosition() const;
    uint32_t writePosition() const;
    uint32_t used() const { return (writePosition() - readPosition()) % kRound; }
    /** Which of the told counts is in force. */
    uint32_t side() const;

    /** The bytes up to `position` are there, and the told counts of `side` are in force. */
    void publishWrite(uint32_t position, uint32_t side);
    /** The bytes before `position` are written out. */
    void publishRead(uint32_t position);
    /** Notes that the `bytes` oldest ones are about to be written to the end of `fd`, a file of this length.
     */
    void markWrite(int fd, off_t length, uint32_t bytes);
    /** That is over. */
    void clearMark() { mHeader->mark.check = ~markCheck(); }
    /** The write that was under way when the memory was left; null when there is none. */
    const WriteMark* mark() const;

  private:
    bool openFile(const char* folder);
    bool map(const char* path, int fd);
    bool whole() const;
    void begin();
    uint32_t markCheck() const;

    RingHeader* mHeader = nullptr;
    int mFile = -1; ///< keeps the lock; -1 for private memory
    bool mResumed = false;
};

} // namespace vnlog
