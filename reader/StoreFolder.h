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

  private:
    std::string mLogs, mRoot;
};

} // namespace vnlog
