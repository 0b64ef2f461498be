// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "reader/SectionText.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace vnlog {

/** Which file or folder something is, whatever its path. */
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }
};
/** Of what a descriptor is open on, of no file when there is none. */
FileIdentity identityOf(int fd);

/** Reads the text of a run that may still be written to, section after section. One thread. */
class RunTail {
  public:
    /** Takes a run's open folder, in front of its first section. */
    void open(uint32_t run, FileDescriptor folder);
    [[nodiscard]] bool isOpen() const { return mFolder.valid(); }
    uint32_t run() const { return mRun; }
    int folder() const { return mFolder.get(); }
    /** The section that is read, 0 before the first. */
    uint32_t section() const { return mSection; }

    /**
     * Stores the number of the section behind the one that is read, which may have the same when its text was
     * replaced. False: there is none yet. When there is one, the present one does not grow any more.
     */
    [[nodiscard]] bool findNext(uint32_t* section) const;
    /** Goes to a section, at its beginning. False, with nothing to read in it: it is gone or unreadable. */
    [[nodiscard]] bool enter(uint32_t section);
    /**
     * The next bytes of the section, valid until the next call. False: there are none now, or state() tells
     * why they cannot be read; of a text they may come when they are asked for again. What is cut back and
     * written again behind a position that was read does not come again.
     */
    [[nodiscard]] bool read(std::string_view* piece);

    /** What is wrong with the section, as of SectionText. */
    TextState state() const;
    const std::string& finding() const { return mFinding.empty() ? mArchive.finding() : mFinding; }
    /** The section's archive, where that is read, otherwise -1. */
    int archive() const { return mArchive.archive(); }
    /** When it was changed last, in ms since the epoch. */
    int64_t modified() const;

  private:
    [[nodiscard]] bool replaced() const;
    void failed(int error);

    uint32_t mRun = 0, mSection = 0;
    bool mInSection = false;
    FileDescriptor mFolder;
    FileDescriptor mPlain; ///< the section's text; stays when the archive takes its place
    off_t mOffset = 0; ///< in that
    std::string mFinding; ///< why it cannot be read, empty when it can
    SectionText mArchive; ///< what is read where there is no text
    Text mBuffer;
};

} // namespace vnlog
