#pragma once

#include "base/Handles.h"
#include "storage/Layout.h"

#include <cstdint>

/* The one walk through a store: whoever looks at what is stored uses it. */
namespace vnlog {

enum class EntryType { Folder, File, Other };

/** One entry of a folder. `name` is valid until the next one is read. */
struct StoredEntry {
    const char* name = nullptr;
    EntryType type = EntryType::Other; ///< links are Other
    NameKind kind = NameKind::Foreign; ///< by the name alone
    uint32_t number = 0; ///< of a run or a section
};

/** Lists the entries of the log folder or of one run, in no order. */
class Listing {
  public:
    explicit Listing(const char* folder);

    /** False, with errno set, when the folder cannot be opened. */
    [[nodiscard]] bool valid() const { return mFolder.valid(); }
    /** Stores the next entry. False at the end and after an error, see failed(). */
    [[nodiscard]] bool next(StoredEntry* entry);
    /** Whether the listing ended in an error, so that entries may be missing. */
    [[nodiscard]] bool failed() const { return mFolder.failed(); }
    /** Path of an entry; false when it was cut. */
    bool path(const StoredEntry& entry, Path* path) const;

  private:
    const char* mPath;
    Folder mFolder;
};

/** Type of the entry `name` of `folder`, from the listing's `type`; lstat decides where that says nothing. */
EntryType entryType(const char* folder, const char* name, unsigned char type);

/** What the archived runs amount to. */
struct RunTotals {
    uint32_t count = 0;
    uint32_t bytes = 0; ///< of the entries directly inside each
    uint32_t oldest = kNoNumber;
    uint32_t newest = 0;
};

/** Adds up the archived runs of a log folder. False with errno set when it cannot be listed to its end. */
[[nodiscard]] bool countRuns(const char* logs, RunTotals* totals);

/**
 * Stores the lowest number of a finished section in the folder, kNoNumber when there is none.
 * False with errno set when it cannot be listed to its end.
 */
[[nodiscard]] bool oldestSection(const char* run, uint32_t* number);

/** What a run holds that is, or is to become, a finished section. */
struct RunContent {
    bool archive = false;
    bool text = false;
};

/** Looks into a run's folder. False when it cannot be listed to its end. */
[[nodiscard]] bool lookIntoRun(const char* run, RunContent* content);

} // namespace vnlog
