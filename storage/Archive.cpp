#include "storage/Archive.h"

#include "base/Handles.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <sys/stat.h>
#include <zlib.h>

namespace vnlog {

namespace {

constexpr size_t kPiece = 16384; ///< bytes that are read, decoded or written at a time
constexpr int kGzipWindow = 15 + 16; ///< the largest window; 16 asks zlib for gzip's header and trailer
constexpr int kLevel = 6;
constexpr int kMemoryLevel = 8;
constexpr int kUnix = 3; ///< the system, in a member's header

/** zlib's state, which is released on every path. */
template <int (*End)(z_stream*)> struct Codec {
    z_stream stream{};
    Codec() = default;
    ~Codec() { (void)End(&stream); } // one that was never begun is refused and holds nothing
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;
};

Bytef* asBytes(const char* text) {
    return reinterpret_cast<Bytef*>(
        const_cast<char*>(text)); // zlib only reads what it takes as input or name
}

bool outOfMemory() {
    errno = ENOMEM;
    return false;
}

/** Compresses all input and writes what comes of it. */
bool deflateInput(z_stream* stream, int flush, char* out, int archive) {
    do {
        stream->next_out = asBytes(out);
        stream->avail_out = kPiece;
        (void)deflate(stream, flush); // with room for output it has nothing to refuse
        if (!writeAll(archive, out, kPiece - stream->avail_out))
            return false;
    } while (stream->avail_out == 0);
    return true;
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
    Codec<inflateEnd> codec;
    z_stream& stream = codec.stream;
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

bool writeArchive(int text, int archive, const char* name) {
    struct stat info;
    if (fstat(text, &info) != 0)
        return false;
    Text in = allocateText(kPiece), out = allocateText(kPiece);
    Codec<deflateEnd> codec;
    z_stream& stream = codec.stream;
    if (in == nullptr || out == nullptr ||
        deflateInit2(&stream, kLevel, Z_DEFLATED, kGzipWindow, kMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK)
        return outOfMemory();
    gz_header header{};
    header.name = asBytes(name);
    bool fits = info.st_mtime > 0 && static_cast<uint64_t>(info.st_mtime) <= UINT32_MAX;
    header.time = fits ? static_cast<uLong>(info.st_mtime) : 0; // 0 says that none is known
    header.os = kUnix;
    (void)deflateSetHeader(&stream, &header); // at the beginning of a gzip member it has nothing to refuse
    for (size_t count = kPiece; count == kPiece;) {
        if (!readPiece(text, in.get(), kPiece, &count))
            return false;
        stream.next_in = asBytes(in.get());
        stream.avail_in = static_cast<uInt>(count);
        if (!deflateInput(&stream, count == kPiece ? Z_NO_FLUSH : Z_FINISH, out.get(), archive))
            return false;
    }
    return true;
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
