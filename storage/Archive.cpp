#include "storage/Archive.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace vnlog {

namespace {

constexpr size_t kPiece = 16384; ///< bytes that are decoded and compared at a time
constexpr size_t kLargestPiece = 262144; ///< of text that is compressed at a time, an ordinary section whole
constexpr size_t kOutput = 65536; ///< bytes that are written at a time
constexpr int kGzipWindow = 15 + 16; ///< the largest window; 16 asks zlib for gzip's header and trailer
constexpr int kLevel = 6;
constexpr int kMemoryLevel = 8;
constexpr int kUnix = 3; ///< the system, in a member's header

struct InflateEnd {
    void operator()(z_stream* stream) const { (void)inflateEnd(stream); }
};

Bytef* asBytes(const char* text) {
    return reinterpret_cast<Bytef*>(
        const_cast<char*>(text)); // zlib only reads what it takes as input or name
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

PairKind compare(const char* archive, const char* text, bool* equal) {
    FileDescriptor packed = openOwnFile(archive, O_RDONLY);
    FileDescriptor plain = packed.valid() ? openOwnFile(text, O_RDONLY) : FileDescriptor();
    Text buffer = plain.valid() ? allocateText(kPiece) : nullptr;
    if (buffer == nullptr)
        return PairKind::Unreadable;
    TextSide side(plain.get(), buffer.get());
    return decode(packed.get(), &side, equal);
}

} // namespace

bool Compressor::write(int text, const struct stat& info, int archive, const char* name) {
    if (!getMemory(static_cast<size_t>(std::clamp<off_t>(info.st_size, 0, kLargestPiece - 1))))
        return outOfMemory();
    (void)deflateReset(&mStream); // also ends a text that failed on its way
    gz_header header{};
    header.name = asBytes(name);
    bool fits = info.st_mtime > 0 && static_cast<uint64_t>(info.st_mtime) <= UINT32_MAX;
    header.time = fits ? static_cast<uLong>(info.st_mtime) : 0; // 0 says that none is known
    header.os = kUnix;
    (void)deflateSetHeader(&mStream, &header); // at the beginning of a gzip member it has nothing to refuse
    return deflateText(text, archive);
}

/** Sees to the state, and to buffers with which the end of such a text shows at its first piece. */
bool Compressor::getMemory(size_t textSize) {
    if (mOut == nullptr)
        mOut = allocateText(kOutput);
    if (mInSize <= textSize) {
        mIn = nullptr; // two at a time are not needed
        mIn = allocateText(textSize + 1);
        mInSize = mIn != nullptr ? textSize + 1 : 0;
    }
    return mIn != nullptr && mOut != nullptr &&
           (mStream.state != nullptr || deflateInit2(&mStream, kLevel, Z_DEFLATED, kGzipWindow, kMemoryLevel,
                                                     Z_DEFAULT_STRATEGY) == Z_OK);
}

bool Compressor::deflateText(int text, int archive) {
    mStream.avail_in = mStream.avail_out = 0;
    bool all = false;
    for (int result = Z_OK; result == Z_OK;) {
        if (mStream.avail_in == 0 && !all) {
            size_t count = 0;
            if (!readPiece(text, mIn.get(), mInSize, &count))
                return false;
            all = count < mInSize;
            mStream.next_in = asBytes(mIn.get());
            mStream.avail_in = static_cast<uInt>(count);
        }
        if (mStream.avail_out == 0) {
            mStream.next_out = asBytes(mOut.get());
            mStream.avail_out = kOutput;
        }
        result = deflate(&mStream, all ? Z_FINISH : Z_NO_FLUSH);
        bool due = mStream.avail_out == 0 || result == Z_STREAM_END;
        if (due && !writeAll(archive, mOut.get(), kOutput - mStream.avail_out))
            return false;
        if (result == Z_STREAM_END)
            return true;
    }
    errno = EIO; // it has refused what it is bound to take
    return false;
}

PairKind comparePair(const char* archive, const char* text) {
    bool equal = false;
    return compare(archive, text, &equal);
}

bool archiveHolds(const char* archive, const char* text) {
    bool equal = false;
    return compare(archive, text, &equal) == PairKind::Covers && equal;
}

} // namespace vnlog
