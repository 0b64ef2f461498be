#pragma once

#include <cstdint>

namespace vnlog {

/** One line of the kernel's log, without its priority prefix. The text is valid until the next call. */
struct KernelLine {
    const char* text;
    uint32_t
        length; ///< bytes with the newline, which a line longer than the buffer has in its last part only
    int priority; ///< 7 for a line that states none
    bool continued; ///< the rest of the line before, or a further part of it, which had no newline
};

/**
 * Splits what is read from the kernel's log into lines, in the reader's own buffer: nothing is allocated or
 * copied but the unfinished end of a chunk. A line that is longer than the buffer comes in parts.
 */
class KernelSplitter {
  public:
    /** `buffer` has room for `size` bytes. */
    KernelSplitter(char* buffer, uint32_t size) : mBuffer(buffer), mSize(size) {}

    /** Where the next chunk is to be read to, and how many bytes it may have. */
    char* chunk() { return mBuffer + mLength; }
    uint32_t room() const { return mSize - mLength; }
    /** Takes over the `length` bytes that were read there. Zero bytes are left out. */
    void add(uint32_t length);
    /** Once next has returned false: whether a line has begun without its newline; there is room for one
     * then. */
    bool unfinished() const { return mLength > 0 || mWithin; }
    /** Stores the next line; an empty one has the length 1. False when more must be read first. */
    bool next(KernelLine* line);

  private:
    void takeLine(const char* start, const char* end, const char* newline, KernelLine* line);

    char* const mBuffer;
    const uint32_t mSize;
    uint32_t mStart = 0; ///< of the text that is not split yet
    uint32_t mLength = 0; ///< bytes in the buffer
    bool mWithin = false; ///< the text goes on with a line of which a part has been passed on
    int mPriority = 0; ///< of that line
};

} // namespace vnlog
