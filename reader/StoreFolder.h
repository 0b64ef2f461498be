// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"
#include "base/Text.h"
#include "reader/Record.h"

#include <cstdint>
#include <string>
#include <vector>

/* What lies in a store, live or copied, whoever it belongs to. Nothing is changed. */
namespace vnlog {

/** A section, by the files that it has. */
struct StoredSection {
    uint32_t number = 0; ///< 0: a log of the form before there were sections
    bool archive = false;
    bool text = false;
};

/** A store's log folder. One thread at a time. */
class StoreFolder {
  public:
    /**
     * Finds the log folder: `path` is it, or the root that holds it (log_service), or a folder that holds
     * runs. False with errno set, ENOENT when there is none.
     */
    [[nodiscard]] bool open(const char* path);
    /** Path of the log folder. */
    const std::string& logs() const { return mLogs; }
    /** Path of the folder in which log_storage.dat and log.cfg lie beside the log folder, if they do. */
    const std::string& root() const { return mRoot; }

    /** The numbers of the archived runs that are there now, ascending; `current` tells whether there is one
     * under way. False with errno set. */
    [[nodiscard]] bool listRuns(std::vector<uint32_t>* runs, bool* current) const;
    /** Path of a run's folder. */
    std::string runPath(uint32_t run) const;
    /** Its sections that are there now, ascending. False with errno set. */
    [[nodiscard]] bool listSections(uint32_t run, std::vector<StoredSection>* sections) const;
    /** Opens a run's folder, which may be no link. It goes on to be that run's when the run is archived. Not
     * valid with errno set. */
    [[nodiscard]] FileDescriptor openRun(uint32_t run) const;

  private:
    std::string mLogs, mRoot;
};

/** The sections in a run's folder, as of StoreFolder. */
[[nodiscard]] bool listSections(int run, std::vector<StoredSection>* sections);

/** Opens an entry of a folder for reading: a regular file of any owner, no link, without waiting. Not valid
 * with errno set, EPERM for what is no such file. */
[[nodiscard]] FileDescriptor openStored(int folder, const char* name);

/** Names of a section's two files, in its run's folder. */
Path textName(uint32_t section);
Path archiveName(uint32_t section);

/** A section's file as users are told of it: last_3/log_2.txt.gz. */
Path shownName(uint32_t run, const Path& name);

} // namespace vnlog
