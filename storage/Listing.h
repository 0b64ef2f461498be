// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "storage/Layout.h"

#include <cstdint>
#include <sys/stat.h>

/* The one walk through a store: whoever looks at what is stored uses it. No link is followed. */
namespace vnlog {

enum class EntryType { Folder, File, Other };

/** One entry of a folder. `name` is valid until the next one is read. */
struct StoredEntry {
    const char* name = nullptr;
    EntryType type = EntryType::Other; ///< links are Other
    NameKind kind = NameKind::Foreign; ///< by the name alone
    uint32_t number = 0; ///< of a run or a section

    /** Whether it is a numbered section, compressed or not. */
    bool isSection() const {
        return type == EntryType::File && (kind == NameKind::Archive || kind == NameKind::PlainText);
    }
    bool isRun() const { return type == EntryType::Folder && kind == NameKind::Run; }
};

/** Lists the entries of the log folder or of one run, in no order. */
class Listing {
  public:
    explicit Listing(const char* folder);
    /** Lists what the descriptor, which it takes, is open on; paths are names alone then. */
    explicit Listing(FileDescriptor folder);

    /** False, with errno set, when the folder cannot be opened. */
    [[nodiscard]] bool valid() const { return mFolder.valid(); }
    /** Stores the next entry. False at the end and after an error, see failed(). */
    [[nodiscard]] bool next(StoredEntry* entry);
    /** Whether the listing ended in an error, so that entries may be missing. */
    [[nodiscard]] bool failed() const { return mFolder.failed(); }
    /** Path of an entry; false when it was cut. */
    bool path(const StoredEntry& entry, Path* path) const;
    /** Examines an entry. False with errno set. */
    bool examine(const StoredEntry& entry, struct stat* info) const;

  private:
    const char* mPath;
    Folder mFolder;
};

/** Bytes of the blocks that a file takes on its medium. */
inline uint64_t bytesOnMedium(const struct stat& info) {
    return static_cast<uint64_t>(info.st_blocks) * 512; // stat's unit, whatever the file system's is
}

/** What a run's folder holds. */
struct RunContent {
    uint32_t bytes = 0; ///< of all entries directly inside, modulo 2^32
    uint64_t onMedium = 0; ///< bytes of the blocks that they and the folder take
    uint32_t archives = 0; ///< finished sections
    uint32_t archiveBytes = 0;
    uint32_t oldestArchive = kNoNumber;
    uint32_t oldestSection = kNoNumber; ///< finished or still a text
    bool text = false; ///< there is a section that is not compressed, or a log of the older form
    bool older = false; ///< there is a log of the older form
    bool draft = false;

    bool holdsSection() const { return oldestSection != kNoNumber; }
};

/** With names alone all bytes stay 0, and no file is examined, which takes ten times as long. */
enum class Look { Names, Sizes };
/** Looks into a run's folder. False with errno set when it cannot be listed to its end. */
[[nodiscard]] bool lookIntoRun(const char* run, RunContent* content, Look look);

/** What the archived runs amount to. */
struct RunTotals {
    uint32_t count = 0;
    uint32_t bytes = 0; ///< of the entries directly inside each that holds a section, modulo 2^32
    uint64_t onMedium = 0; ///< bytes of the blocks that those take
    uint32_t newest = 0;
    uint32_t oldestHolding = kNoNumber; ///< the oldest run that holds a section, kNoNumber when none does
    uint32_t oldestSection = kNoNumber; ///< the oldest section in that
};

/**
 * Adds up the archived runs of a log folder; one that this user may not list adds nothing. False with errno
 * set when the log folder cannot be listed to its end, or a run cannot for a reason that may pass.
 */
[[nodiscard]] bool countRuns(const char* logs, RunTotals* totals);

/** Stores the lowest number from `least` on that a run has. False: there is none, or it cannot be told. */
bool nextRun(const char* logs, uint32_t least, uint32_t* number);

/**
 * Tells whether runs or sections have come to a log folder or have gone from it. The kernel watches the runs,
 * so that a look takes the same time for any number of them. One thread at a time.
 */
class StoreWatch {
  public:
    /** Takes what is there now for known. Lists the log folder when runs have come or gone. */
    void note(const char* logs);
    /** Whether it has changed since then, by ourselves as well; true, too, where the kernel cannot tell. */
    [[nodiscard]] bool changed(const char* logs) const;
    /** Ends the watch. */
    void forget() { mEvents = FileDescriptor(); }

  private:
    void watchRuns(const char* logs);
    [[nodiscard]] bool told() const;

    FileDescriptor mEvents; ///< of all runs, or none
    uint64_t mLogs = 0, mCurrent = 0; ///< stamps of the log folder and the current run
};

} // namespace vnlog
