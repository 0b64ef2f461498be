// SPDX-License-Identifier: Apache-2.0
#include "sources/KernelSplitter.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace vnlog {

namespace {

constexpr int kNoPrefixPriority = 7; // of a line that does not state one

/** Reads the priority from the line's prefix and steps over it. */
int takePriority(const char** line, const char* end) {
    const char* next = *line;
    if (next == end || *next != '<')
        return kNoPrefixPriority;
    *line = ++next;
    if (next == end)
        return kNoPrefixPriority;
    long long priority = 0;
    for (; next != end && *next >= '0' && *next <= '9'; ++next) {
        if (priority <= INT_MAX)
            priority = priority * 10 + (*next - '0');
    }
    if (next != end && *next == '>')
        ++next;
    *line = next;
    return static_cast<int>(std::min<long long>(priority, INT_MAX));
}

} // namespace

void KernelSplitter::add(uint32_t length) {
    char* end = std::remove(chunk(), chunk() + length, '\0');
    mLength = static_cast<uint32_t>(end - mBuffer);
}

bool KernelSplitter::next(KernelLine* line) {
    if (mWithin && mStart < mLength && mBuffer[mStart] == '\n') { // the part before was the whole line
        ++mStart;
        mWithin = false;
    }
    char* text = mBuffer + mStart;
    uint32_t left = mLength - mStart;
    char* newline = static_cast<char*>(std::memchr(text, '\n', left));
    if (newline != nullptr) {
        mStart += static_cast<uint32_t>(newline + 1 - text);
        takeLine(text, newline, line);
        mWithin = false;
        return true;
    }
    std::memmove(mBuffer, text, left);
    mStart = 0;
    mLength = left;
    if (left < mUsualSize / 2 && mSize > mUsualSize)
        (void)resize(mUsualSize); // the long line is over
    if (room() > 0 || (mSize < mLongestLine && resize(std::min(mSize * 2, mLongestLine))))
        return false;
    mLength = 0;
    mBuffer[left] = '\n';
    takeLine(mBuffer, mBuffer + left, line);
    mWithin = true;
    return true;
}

bool KernelSplitter::resize(uint32_t size) {
    void* resized = std::realloc(mBuffer, size);
    if (resized == nullptr)
        return false;
    mBuffer = static_cast<char*>(resized);
    mSize = size;
    return true;
}

/** Makes a line of the text before `newline`. */
void KernelSplitter::takeLine(const char* start, const char* newline, KernelLine* line) {
    const char* whole = start;
    if (!mWithin)
        mPriority = takePriority(&start, newline);
    line->priority = mPriority;
    line->prefix = static_cast<uint32_t>(start - whole);
    line->text = start;
    line->length = static_cast<uint32_t>(newline + 1 - start);
}

} // namespace vnlog
