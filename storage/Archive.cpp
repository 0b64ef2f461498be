// SPDX-License-Identifier: Apache-2.0
#include "storage/Archive.h"

#include "storage/SectionFacts.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <libdeflate.h>
#include <new>
#include <unistd.h>
#include <zlib.h>

namespace vnlog {

namespace {

constexpr size_t kPiece = 16384; ///< bytes that are decoded and compared at a time
constexpr size_t kMemberRest =
    10 + 2 + kLargestFacts + NAME_MAX + 1 + 8; ///< bytes of a member around the compressed ones
constexpr int kGzipWindow = 15 + 16; ///< the largest window; 16 asks zlib for gzip's header and trailer
// Of libdeflate: a third of the time of gzip's level 6, in archives that are at most some 5 % larger.
constexpr int kLevel = 4;
constexpr char kUnix = 3; ///< the system, in a member's header

struct InflateEnd {
    void operator()(z_stream* stream) const { (void)inflateEnd(stream); }
};

Bytef* asBytes(const char* text) {
    return reinterpret_cast<Bytef*>(
        const_cast<char*>(text)); // zlib only reads what it takes as input or name
}

/** Puts the four bytes of a number as the format has them, and returns what follows. */
char* putNumber(char* to, uint32_t number) {
    for (int shift = 0; shift < 32; shift += 8)
        *to++ = static_cast<char>(number >> shift);
    return to;
}

bool outOfMemory() {
    errno = ENOMEM;
    return false;
}

/** How a text goes with a content that arrives in pieces. */
class TextSide {
  public:
    TextSide(int fd, char* buffer) : mFd(fd), mBuffer(buffer) {}

    /** Takes the next kPiece bytes of the content at most. False with errno set. */
    bool take(const char* content, size_t length) {
        size_t count = 0;
        if (mState == State::Ended || mState == State::Differs)
            return true;
        if (!readPiece(mFd, mBuffer, length, &count))
            return false;
        const char *begin = mBuffer, *end = begin + count;
        const char* other = mState == State::Same ? std::mismatch(begin, end, content).first : begin;
        if (!zeros(other, end))
            mState = State::Differs;
        else if (other != end)
            mState = State::Zeros;
        else if (count < length && mState == State::Same)
            mState = State::Ended;
        return true;
    }

    /** Tells what the two are when the content ends here, and whether they are equal. */
    PairKind finish(bool* equal) {
        if (mState == State::Differs)
            return PairKind::Different;
        bool rest = false, onlyZeros = true;
        for (size_t count = kPiece; count == kPiece; rest = rest || count > 0) {
            if (!readPiece(mFd, mBuffer, kPiece, &count))
                return PairKind::Unreadable;
            onlyZeros = onlyZeros && zeros(mBuffer, mBuffer + count);
        }
        *equal = mState == State::Same && !rest;
        if (onlyZeros)
            return PairKind::Covers;
        return mState == State::Same ? PairKind::Continued : PairKind::Different;
    }

  private:
    enum class State {
        Same, ///< as the content so far
        Zeros, ///< from where it is another it holds only zeros, so far
        Ended, ///< before the content, and the same until then
        Differs,
    };

    static bool zeros(const char* begin, const char* end) {
        return std::all_of(begin, end, [](char byte) { return byte == '\0'; });
    }

    int mFd;
    char* mBuffer;
    State mState = State::Same;
};

/** Decodes an archive member by member and hands its content to the text's side. */
PairKind decode(int archive, TextSide* text, bool* equal) {
    Text in = allocateText(kPiece), out = allocateText(kPiece);
    z_stream stream{};
    std::unique_ptr<z_stream, InflateEnd> end(&stream); // one that was never begun is refused
    if (in == nullptr || out == nullptr || inflateInit2(&stream, kGzipWindow) != Z_OK)
        return (outOfMemory(), PairKind::Unreadable);
    for (bool whole = false;;) {
        if (stream.avail_in == 0) {
            size_t count = 0;
            if (!readPiece(archive, in.get(), kPiece, &count))
                return PairKind::Unreadable;
            if (count == 0)
                return whole ? text->finish(equal) : PairKind::Damaged;
            stream.next_in = asBytes(in.get());
            stream.avail_in = static_cast<uInt>(count);
        }
        stream.next_out = asBytes(out.get());
        stream.avail_out = kPiece;
        int result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_MEM_ERROR)
            return (outOfMemory(), PairKind::Unreadable);
        if (result != Z_OK && result != Z_STREAM_END)
            return PairKind::Damaged;
        if (!text->take(out.get(), kPiece - stream.avail_out))
            return PairKind::Unreadable;
        whole = result == Z_STREAM_END;
        if (whole)
            (void)inflateReset(&stream); // what follows, if anything does, must be another member
    }
}

PairKind compareOpen(int archive, int text, bool* equal) {
    Text buffer = allocateText(kPiece);
    if (buffer == nullptr)
        return PairKind::Unreadable;
    TextSide side(text, buffer.get());
    return decode(archive, &side, equal);
}

PairKind compare(const char* archive, const char* text, bool* equal) {
    FileDescriptor packed = openOwnFile(archive, O_RDONLY);
    FileDescriptor plain = packed.valid() ? openOwnFile(text, O_RDONLY) : FileDescriptor();
    return plain.valid() ? compareOpen(packed.get(), plain.get(), equal) : PairKind::Unreadable;
}

} // namespace

Compressor::~Compressor() {
    libdeflate_free_compressor(mState);
}

bool Compressor::write(int text, const struct stat& info, int archive, const char* name,
                       SectionSummary* summary) {
    if (!getMemory())
        return outOfMemory();
    bool fits = info.st_mtime > 0 && static_cast<uint64_t>(info.st_mtime) <= UINT32_MAX;
    uint32_t time = fits ? static_cast<uint32_t>(info.st_mtime) : 0; // 0 says that none is known
    size_t count = 0;
    std::string facts;
    for (bool begun = false;; begun = true) {
        if (!readPiece(text, mIn.get(), kMemberText, &count))
            return false;
        if (count == 0 && begun)
            return true;
        if (!begun && summary != nullptr && !sumUp(text, count, summary, &facts))
            return false;
        if (!writeMember(count, time, archive, name, begun ? std::string() : facts))
            return false;
        if (count < kMemberText)
            return true;
    }
}

bool Compressor::getMemory() {
    if (mState == nullptr)
        mState = libdeflate_alloc_compressor(kLevel);
    if (mState != nullptr && mOut == nullptr) {
        mIn = allocateText(kMemberText);
        mOutSize = libdeflate_deflate_compress_bound(mState, kMemberText);
        mOut = mIn != nullptr ? allocateText(kMemberRest + mOutSize) : nullptr;
    }
    return mOut != nullptr;
}

/**
 * Sums the text up, of which the first piece has been read: the rest of one that has more is read for that
 * and left to be read again. Without the memory for it there are no facts. False with errno set.
 */
bool Compressor::sumUp(int text, size_t first, SectionSummary* summary, std::string* facts) {
    const off_t rest = lseek(text, 0, SEEK_CUR);
    try {
        summary->add({mIn.get(), first});
        for (size_t count = first; count == kMemberText;) {
            if (!readPiece(text, mOut.get(), kMemberText, &count))
                return false;
            summary->add({mOut.get(), count});
        }
        *facts = encodeFacts(summary->end());
    } catch (const std::bad_alloc&) {
        facts->clear();
    }
    return first < kMemberText || (rest >= 0 && lseek(text, rest, SEEK_SET) == rest);
}

/** Writes the member of the text that has been read. */
bool Compressor::writeMember(size_t length, uint32_t time, int archive, const char* name,
                             const std::string& facts) {
    constexpr char kNameFollows = 8, kExtraFollows = 4;
    constexpr char kStart[] = {'\x1f', '\x8b', 8}; // the format's mark, deflate
    char* next = std::copy_n(kStart, sizeof kStart, mOut.get());
    *next++ = facts.empty() ? kNameFollows : kNameFollows | kExtraFollows;
    next = putNumber(next, time);
    *next++ = 0; // nothing is said of the effort
    *next++ = kUnix;
    if (!facts.empty()) {
        *next++ = static_cast<char>(facts.size());
        *next++ = static_cast<char>(facts.size() >> 8);
        next = std::copy(facts.begin(), facts.end(), next);
    }
    next = std::copy_n(name, std::min<size_t>(std::strlen(name), NAME_MAX), next);
    *next++ = '\0';
    size_t packed = libdeflate_deflate_compress(mState, mIn.get(), length, next, mOutSize);
    if (packed == 0) { // it has refused what it is bound to take
        errno = EIO;
        return false;
    }
    next = putNumber(next + packed, libdeflate_crc32(0, mIn.get(), length));
    next = putNumber(next, static_cast<uint32_t>(length));
    return writeAll(archive, mOut.get(), static_cast<size_t>(next - mOut.get()));
}

PairKind comparePair(const char* archive, const char* text) {
    bool equal = false;
    return compare(archive, text, &equal);
}

PairKind comparePair(int archive, int text) {
    bool equal = false;
    return compareOpen(archive, text, &equal);
}

bool archiveHolds(const char* archive, const char* text) {
    bool equal = false;
    return compare(archive, text, &equal) == PairKind::Covers && equal;
}

} // namespace vnlog
