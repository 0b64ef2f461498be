// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "reader/StoreFolder.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <zlib.h>

struct libdeflate_decompressor;

/* The text of one section, whichever form it has. */
namespace vnlog {

enum class TextState : uint8_t {
    Whole, ///< nothing is wrong so far
    Damaged, ///< what is damaged, and all behind it, is left out
    Vanished, ///< it was deleted before it could be opened
    Unreadable, ///< for want of permission or for an error of the system
};

/**
 * Reads sections, one after the other, in pieces, with memory that it keeps: 2 MiB of addresses, of which as
 * much is touched as the largest archive and its text take. A text beside its archive is read as the service
 * would settle the two. One thread at a time.
 */
class SectionText {
  public:
    SectionText() = default;
    ~SectionText();
    SectionText(const SectionText&) = delete;
    SectionText& operator=(const SectionText&) = delete;

    /** Goes to the beginning of a section of the run whose folder is open as `run`, known by number `name`. A
     * text that has become an archive since it was listed is read as one. False: see state(). */
    [[nodiscard]] bool open(int run, uint32_t name, const StoredSection& section);
    /** Goes back to the beginning of the section that is open, which may have been deleted since. False: see
     * state(). */
    [[nodiscard]] bool rewind();
    /** The next bytes, valid until the next call; never none. False at the end: see state(). */
    [[nodiscard]] bool read(std::string_view* piece);
    void close();

    TextState state() const { return mState; }
    /** What is wrong, as a sentence that a remark has; empty while it is Whole. */
    const std::string& finding() const { return mFinding; }
    /** The archive, where one is read, -1 otherwise. */
    int archive() const { return mArchive.get(); }
    /** Of the section that was opened last. */
    uint32_t number() const { return mNumber; }
    /** When the section was changed last, in ms since the epoch. */
    int64_t modified() const;

  private:
    struct InflateEnd {
        void operator()(z_stream* stream) const;
    };
    enum class Step { Piece, End, Again };

    bool openFiles(int run, const StoredSection& section);
    void settlePair();
    bool beginArchive();
    bool getMemory();
    Step readMember(std::string_view* piece);
    bool beginStream(size_t from);
    Step readStream(std::string_view* piece);
    Step passEnd();
    Step inflatePiece(std::string_view* piece);
    Step readPlain(std::string_view* piece);
    Step endArchive();
    Step damaged(uint64_t bytes);
    bool failed(int error);
    std::string shown() const;

    FileDescriptor mArchive, mPlain;
    uint32_t mRun = 0, mNumber = 0;
    bool mAtText = false; ///< the text is what is looked at, and not the archive
    TextState mState = TextState::Whole;
    std::string mFinding;
    enum class Source : uint8_t { None, Members, Inflated, Plain } mSource = Source::None;
    uint64_t mPlainLeft = 0; ///< of the size that the plain text had

    Text mIn, mOut;
    libdeflate_decompressor* mFast = nullptr;
    size_t mInSize = 0, mAt = 0; ///< of an archive that is in memory whole
    bool mAnyMember = false;

    z_stream mZlib{};
    std::unique_ptr<z_stream, InflateEnd> mStream; ///< mZlib, while it is begun
    uint64_t mTaken = 0; ///< bytes of the archive that the stream was given
    uint64_t mMemberEnd = 0; ///< of the last member that it has decoded
    bool mBetween = false; ///< it stands behind that
};

} // namespace vnlog
