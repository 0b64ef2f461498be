#include "sources/KernelSplitter.h"

#include <algorithm>
#include <climits>
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
    char* text = mBuffer + mStart;
    uint32_t left = mLength - mStart;
    char* end = static_cast<char*>(std::memchr(text, '\n', left));
    if (end == nullptr) {
        std::memmove(mBuffer, text, left);
        mStart = 0;
        mLength = left;
        if (left < mSize)
            return false;
        text = mBuffer;
        end = mBuffer + left;
        *end = '\n';
        mLength = 0;
    } else {
        mStart += static_cast<uint32_t>(end + 1 - text);
    }
    const char* start = text;
    line->priority = takePriority(&start, end);
    line->text = start;
    line->length = static_cast<uint32_t>(end + 1 - start);
    return true;
}

} // namespace vnlog
