// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>

struct libdeflate_compressor;

/* The gzip form of a text, written and compared. Any thread that is not cancelled meanwhile. */
namespace vnlog {

/** Bytes of text in a member of an archive, but for the last; an ordinary section is shorter. */
constexpr uint32_t kMemberText = 262144;

class SectionSummary;

/**
 * Writes archives, one after the other, with memory that it gets for the first one and keeps: 1.2 MiB of
 * addresses, of which sections of 64 KiB make it touch 0.4 MiB and those of 256 KiB 0.65 MiB. One thread at a
 * time.
 */
class Compressor {
  public:
    Compressor() = default;
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    /**
     * Compresses what `text` holds from where it stands to its end into `archive`, as one gzip member for
     * each 256 KiB, which is one for a section; each carries `name`, of at most 255 characters, and from
     * `info` of the text its time of change. `summary`, which has begun, is given all of the text, and the
     * first member carries its facts; null leaves them out. Both are open descriptors and stay open; nothing
     * is synced. False with errno set, ENOMEM for memory; a part may have been written then.
     */
    [[nodiscard]] bool write(int text, const struct stat& info, int archive, const char* name,
                             SectionSummary* summary);

  private:
    bool getMemory();
    bool sumUp(int text, size_t first, SectionSummary* summary, std::string* facts);
    bool writeMember(size_t length, uint32_t time, int archive, const char* name, const std::string& facts);

    libdeflate_compressor* mState = nullptr;
    Text mIn, mOut;
    size_t mOutSize = 0;
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
/** The same for two descriptors, from where they stand. */
[[nodiscard]] PairKind comparePair(int archive, int text);

/** Whether the archive is whole and its content is the text, no more and no less. */
[[nodiscard]] bool archiveHolds(const char* archive, const char* text);

} // namespace vnlog
