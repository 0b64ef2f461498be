#pragma once

#include "base/Handles.h"

#include <cstddef>
#include <sys/stat.h>
#include <zlib.h>

/* The gzip form of a text, written and compared. Any thread that is not cancelled meanwhile. */
namespace vnlog {

/**
 * Writes archives, one after the other, with memory that it gets for the first one and keeps: 332 KiB, and a
 * piece of text of 256 KiB at most, as large as the largest so far. One thread at a time.
 */
class Compressor {
  public:
    ~Compressor() { (void)deflateEnd(&mStream); } // one that was never begun is refused and holds nothing

    /**
     * Compresses what `text` holds from where it stands to its end into `archive`, as one gzip member that
     * carries `name` and, from `info` of the text, its time of change. Both are open descriptors and stay
     * open; nothing is synced. False with errno set, ENOMEM for memory; a part may have been written then.
     */
    [[nodiscard]] bool write(int text, const struct stat& info, int archive, const char* name);

  private:
    bool getMemory(size_t textSize);
    bool deflateText(int text, int archive);

    z_stream mStream{};
    Text mIn, mOut;
    size_t mInSize = 0; ///< bytes of text that are taken at a time
};

/** What an archive is to a text. All but Damaged and Unreadable imply that the archive is whole. */
enum class PairKind {
    Damaged, ///< no whole gzip file: cut off, altered, empty, or with something else behind its last member
    Covers, ///< its content begins with the text, which may be cut short or end in zeros
    Continued, ///< the text begins with its whole content and goes on
    Different, ///< neither
    Unreadable, ///< one of the two cannot be opened as a file of ours or read, or no memory: see errno
};

/** Reads both files as far as that matters and tells what they are to each other, with 100 KiB of memory. */
[[nodiscard]] PairKind comparePair(const char* archive, const char* text);

/** Whether the archive is whole and its content is the text, no more and no less. */
[[nodiscard]] bool archiveHolds(const char* archive, const char* text);

} // namespace vnlog
