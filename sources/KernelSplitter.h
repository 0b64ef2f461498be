// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace vnlog {

/** One line of the kernel's log, without its priority prefix. The text is valid until the next call. */
struct KernelLine {
    const char* text;
    uint32_t length; ///< bytes with the newline
    int priority; ///< 7 for a line that states none
    uint32_t prefix; ///< bytes of the priority prefix, which stands before the text
};

// For those who split the kernel's text: bytes held at a time, and at most, for a line that does not fit
// that.
constexpr uint32_t kKernelTextSize = 8192;
constexpr uint32_t kLongestKernelLine = 65536;

/**
 * Splits what is read from the kernel's log into lines, in the reader's own buffer: nothing is copied but the
 * unfinished end of a chunk, and nothing allocated but for a line that is longer than the buffer, which grows
 * until that line is over. What is longer than the longest line, or finds no memory, goes on in lines of its
 * own, with the priority of its beginning.
 */
class KernelSplitter {
  public:
    /** `*buffer`, from malloc, has room for `size` bytes; it is replaced when it grows. */
    KernelSplitter(char** buffer, uint32_t size, uint32_t longestLine)
        : mBuffer(*buffer), mUsualSize(size), mSize(size), mLongestLine(longestLine) {}

    /** Where the next chunk is to be read to, and how many bytes it may have. */
    char* chunk() { return mBuffer + mLength; }
    uint32_t room() const { return mSize - 1 - mLength; } // a newline fits in any case
    /** Takes over the `length` bytes that were read there. Zero bytes are left out. */
    void add(uint32_t length);
    /** Once next has returned false, and nothing more comes: ends the line that has begun, if any. */
    void end() {
        if (mLength > 0)
            mBuffer[mLength++] = '\n';
    }
    /** Stores the next line; an empty one has the length 1. False when more must be read first. */
    bool next(KernelLine* line);

  private:
    void takeLine(const char* start, const char* end, KernelLine* line);
    bool resize(uint32_t size);

    char*& mBuffer;
    const uint32_t mUsualSize;
    uint32_t mSize; ///< of the buffer
    const uint32_t mLongestLine; ///< size up to which the buffer grows
    uint32_t mStart = 0; ///< of the text that is not split yet
    uint32_t mLength = 0; ///< bytes in the buffer
    bool mWithin = false; ///< the text goes on with a line of which a part has been passed on
    int mPriority = 0; ///< of the last line
};

} // namespace vnlog
