// SPDX-License-Identifier: Apache-2.0
#include "reader/RunTail.h"

#include "base/Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace vnlog {

namespace {

constexpr size_t kPiece = 65536;

} // namespace

FileIdentity identityOf(int fd) {
    struct stat info {};
    return fd >= 0 && fstat(fd, &info) == 0 ? FileIdentity{info.st_dev, info.st_ino} : FileIdentity();
}

void RunTail::open(uint32_t run, FileDescriptor folder) {
    mRun = run;
    mFolder = std::move(folder);
    mInSection = false;
    mSection = 0;
    mPlain = FileDescriptor();
    mFinding.clear();
    mArchive.close();
}

bool RunTail::findNext(uint32_t* section) const {
    std::vector<StoredSection> sections;
    if (!mFolder.valid() || !listSections(mFolder.get(), &sections))
        return false;
    const auto next = std::find_if(sections.begin(), sections.end(), [&](const StoredSection& s) {
        return !mInSection || s.number > mSection;
    });
    if (next == sections.end() && !replaced())
        return false;
    *section = next != sections.end() && !replaced() ? next->number : mSection;
    return true;
}

/** Whether another text has the name of the one that is read. */
bool RunTail::replaced() const {
    if (!mInSection || !mPlain.valid())
        return false;
    const FileDescriptor there = openStored(mFolder.get(), textName(mSection).text);
    return there.valid() && identityOf(there.get()) != identityOf(mPlain.get());
}

bool RunTail::enter(uint32_t section) {
    mSection = section;
    mInSection = true;
    mOffset = 0;
    mFinding.clear();
    mArchive.close();
    mPlain = openStored(mFolder.get(), textName(section).text);
    const int error = errno;
    if (mPlain.valid() || mArchive.open(mFolder.get(), mRun, {section, true, false}))
        return true;
    if (error != ENOENT)
        failed(error);
    return false;
}

void RunTail::failed(int error) {
    mFinding = std::string(shownName(mRun, textName(mSection)).text) + " cannot be read: " + errorText(error);
}

TextState RunTail::state() const {
    if (!mFinding.empty())
        return TextState::Unreadable;
    return mInSection && !mPlain.valid() ? mArchive.state() : TextState::Whole;
}

bool RunTail::read(std::string_view* piece) {
    if (!mPlain.valid())
        return mInSection && mArchive.read(piece);
    if (mBuffer == nullptr)
        mBuffer = allocateText(kPiece);
    ssize_t count = -1;
    errno = ENOMEM;
    do
        count = mBuffer != nullptr ? pread(mPlain.get(), mBuffer.get(), kPiece, mOffset) : -1;
    while (count < 0 && errno == EINTR);
    if (count < 0)
        failed(errno);
    else
        mFinding.clear();
    if (count <= 0)
        return false;
    mOffset += count;
    *piece = std::string_view(mBuffer.get(), static_cast<size_t>(count));
    return true;
}

int64_t RunTail::modified() const {
    struct stat info {};
    if (!mPlain.valid())
        return mArchive.modified();
    return fstat(mPlain.get(), &info) == 0 ? int64_t{info.st_mtime} * 1000 : 0;
}

} // namespace vnlog
