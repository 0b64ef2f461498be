// SPDX-License-Identifier: Apache-2.0
#include "reader/SectionText.h"

#include "base/Text.h"
#include "storage/Archive.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <libdeflate.h>
#include <unistd.h>

namespace vnlog {

namespace {

constexpr size_t kWhole =
    1048576; ///< archives of that size, and members with that much text, are decoded whole
constexpr size_t kPiece = 65536; ///< bytes of everything else that are read and decoded at a time
constexpr int kGzipWindow = 15 + 16; ///< the largest window; 16 asks zlib for gzip's header and trailer

} // namespace

void SectionText::InflateEnd::operator()(z_stream* stream) const {
    (void)inflateEnd(stream);
}

SectionText::~SectionText() {
    libdeflate_free_decompressor(mFast);
}

void SectionText::close() {
    mArchive = FileDescriptor();
    mPlain = FileDescriptor();
    mStream = nullptr;
    mSource = Source::None;
}

bool SectionText::open(int run, uint32_t name, const StoredSection& section) {
    close();
    mRun = name;
    mNumber = section.number;
    mState = TextState::Whole;
    mFinding.clear();
    if (!openFiles(run, section))
        return false;
    if (mArchive.valid() && mPlain.valid())
        settlePair();
    return rewind();
}

bool SectionText::rewind() {
    mState = TextState::Whole;
    mFinding.clear();
    mStream = nullptr;
    mAtText = mPlain.valid();
    struct stat info {};
    if (mPlain.valid() && (fstat(mPlain.get(), &info) != 0 || lseek(mPlain.get(), 0, SEEK_SET) < 0))
        return failed(errno);
    mPlainLeft = static_cast<uint64_t>(info.st_size);
    mSource = Source::Plain;
    return !mArchive.valid() || beginArchive();
}

/** Opens what there is of the two files now. */
bool SectionText::openFiles(int run, const StoredSection& section) {
    int error = ENOENT;
    if (section.text) {
        mPlain = openStored(run, textName(mNumber).text);
        error = mPlain.valid() ? 0 : errno;
    }
    mAtText = section.text && (error != ENOENT || !section.archive);
    if (section.archive || error == ENOENT) {
        mArchive = openStored(run, archiveName(mNumber).text);
        if (!mArchive.valid() && !mPlain.valid() && errno != ENOENT) {
            error = errno;
            mAtText = false;
        }
    }
    return mPlain.valid() || mArchive.valid() || failed(error);
}

/** Drops the form that says nothing more than the other. */
void SectionText::settlePair() {
    const PairKind kind = comparePair(mArchive.get(), mPlain.get());
    if (kind == PairKind::Covers)
        mPlain = FileDescriptor();
    else if (kind != PairKind::Different)
        mArchive = FileDescriptor();
}

bool SectionText::getMemory() {
    if (mIn == nullptr)
        mIn = allocateText(kWhole);
    if (mOut == nullptr)
        mOut = allocateText(kWhole);
    if (mFast == nullptr)
        mFast = libdeflate_alloc_decompressor();
    return mIn != nullptr && mOut != nullptr && mFast != nullptr;
}

bool SectionText::beginArchive() {
    struct stat info {};
    mAtText = false;
    if (fstat(mArchive.get(), &info) != 0 || lseek(mArchive.get(), 0, SEEK_SET) < 0)
        return failed(errno);
    if (!getMemory())
        return failed(ENOMEM);
    mAnyMember = false;
    mAt = mInSize = 0;
    if (info.st_size > static_cast<off_t>(kWhole))
        return beginStream(0);
    mSource = Source::Members;
    return readPiece(mArchive.get(), mIn.get(), kWhole, &mInSize) || failed(errno);
}

bool SectionText::read(std::string_view* piece) {
    for (;;) {
        Step step = Step::End;
        switch (mSource) {
        case Source::Members:
            step = readMember(piece);
            break;
        case Source::Inflated:
            step = readStream(piece);
            break;
        case Source::Plain:
            step = readPlain(piece);
            break;
        case Source::None:
            break;
        }
        if (step != Step::Again)
            return step == Step::Piece;
    }
}

/** Decodes a member of an archive that is in memory. Whatever is odd about one is left to the stream. */
SectionText::Step SectionText::readMember(std::string_view* piece) {
    const char* rest = mIn.get() + mAt;
    const size_t left = mInSize - mAt;
    if (mAnyMember && std::all_of(rest, rest + left, [](char byte) { return byte == '\0'; }))
        return endArchive();
    size_t taken = 0, length = 0;
    if (libdeflate_gzip_decompress_ex(mFast, rest, left, mOut.get(), kWhole, &taken, &length) !=
        LIBDEFLATE_SUCCESS)
        return beginStream(mAt) ? Step::Again : Step::End;
    mAt += taken;
    mAnyMember = true;
    *piece = std::string_view(mOut.get(), length);
    return length > 0 ? Step::Piece : Step::Again;
}

/** Goes on with zlib at a member. */
bool SectionText::beginStream(size_t from) {
    mZlib = z_stream{};
    if (inflateInit2(&mZlib, kGzipWindow) != Z_OK)
        return failed(ENOMEM);
    mStream.reset(&mZlib);
    if (lseek(mArchive.get(), static_cast<off_t>(from), SEEK_SET) < 0)
        return failed(errno);
    mSource = Source::Inflated;
    mTaken = mMemberEnd = from;
    mBetween = mAnyMember;
    return true;
}

SectionText::Step SectionText::readStream(std::string_view* piece) {
    if (mZlib.avail_in == 0) {
        size_t count = 0;
        if (!readPiece(mArchive.get(), mIn.get(), kPiece, &count)) {
            (void)failed(errno);
            return Step::End;
        }
        if (count == 0)
            return mBetween ? endArchive() : damaged(mTaken);
        mTaken += count;
        mZlib.next_in = reinterpret_cast<Bytef*>(mIn.get());
        mZlib.avail_in = static_cast<uInt>(count);
    }
    return mBetween ? passEnd() : inflatePiece(piece);
}

/** Passes over zeros behind a member; anything else must be another one. */
SectionText::Step SectionText::passEnd() {
    const uint64_t at = mTaken - mZlib.avail_in;
    while (mZlib.avail_in > 0 && *mZlib.next_in == 0) {
        ++mZlib.next_in;
        --mZlib.avail_in;
    }
    if (mZlib.avail_in == 0)
        return Step::Again;
    if (at > mMemberEnd || mTaken - mZlib.avail_in > at)
        return damaged(mMemberEnd);
    mBetween = false;
    return Step::Again;
}

SectionText::Step SectionText::inflatePiece(std::string_view* piece) {
    mZlib.next_out = reinterpret_cast<Bytef*>(mOut.get());
    mZlib.avail_out = kPiece;
    const int result = inflate(&mZlib, Z_NO_FLUSH);
    const uint64_t at = mTaken - mZlib.avail_in;
    *piece = std::string_view(mOut.get(), kPiece - mZlib.avail_out);
    if (result == Z_STREAM_END) {
        (void)inflateReset(&mZlib);
        mMemberEnd = at;
        mBetween = true;
    } else if (result == Z_MEM_ERROR) {
        (void)failed(ENOMEM);
    } else if (result != Z_OK && result != Z_BUF_ERROR) {
        (void)damaged(at);
    }
    return piece->empty() ? Step::Again : Step::Piece;
}

/** Goes on with a text that is another than its archive, if there is one. */
SectionText::Step SectionText::endArchive() {
    mAtText = mPlain.valid();
    mSource = mAtText ? Source::Plain : Source::None;
    return Step::Again;
}

SectionText::Step SectionText::readPlain(std::string_view* piece) {
    if (mOut == nullptr)
        mOut = allocateText(kWhole);
    size_t count = 0;
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(kPiece, mPlainLeft));
    if (mOut == nullptr || !readPiece(mPlain.get(), mOut.get(), wanted, &count)) {
        (void)failed(errno);
        return Step::End;
    }
    mPlainLeft -= count;
    if (count < wanted)
        mPlainLeft = 0; // it was cut back meanwhile
    *piece = std::string_view(mOut.get(), count);
    return count > 0 ? Step::Piece : Step::End;
}

SectionText::Step SectionText::damaged(uint64_t bytes) {
    mState = TextState::Damaged;
    mFinding = shown() + " is damaged behind its first " + std::to_string(bytes) + " bytes";
    mSource = Source::None;
    return Step::End;
}

bool SectionText::failed(int error) {
    mSource = Source::None;
    mState = error == ENOENT ? TextState::Vanished : TextState::Unreadable;
    if (error == ENOENT)
        mFinding = shown() + " was deleted before it could be read";
    else
        mFinding = shown() + " cannot be read: " + errorText(error);
    return false;
}

std::string SectionText::shown() const {
    return shownName(mRun, mAtText ? textName(mNumber) : archiveName(mNumber)).text;
}

int64_t SectionText::modified() const {
    constexpr size_t kTimeAt = 4; // of a gzip header, which has the time of the text
    unsigned char header[8] = {};
    if (mArchive.valid() && pread(mArchive.get(), header, sizeof header, 0) == sizeof header) {
        uint32_t time = 0;
        for (size_t i = 0; i < 4; ++i)
            time |= static_cast<uint32_t>(header[kTimeAt + i]) << (8 * i);
        if (time != 0)
            return int64_t{time} * 1000;
    }
    struct stat info {};
    const int file = mArchive.valid() ? mArchive.get() : mPlain.get();
    return file >= 0 && fstat(file, &info) == 0 ? int64_t{info.st_mtime} * 1000 : 0;
}

} // namespace vnlog
