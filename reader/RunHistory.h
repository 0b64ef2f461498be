// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "lines/LineClock.h"
#include "reader/Record.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/* What the list of runs tells of a store's runs. */
namespace vnlog {

/** One run, as far as it is told; what is not is empty or 0. */
struct RunStory {
    uint32_t number = 0; ///< in the list of runs
    int64_t start = 0, end = 0; ///< seconds since the epoch
    bool zoneKnown = false;
    int32_t zone = 0; ///< seconds by which local time is ahead of UTC
    std::vector<ClockPoint> points; ///< to the second; late by the time for which the device was suspended
    std::string boot, version, build;
    bool continued = false; ///< under this root it began with a later section: it was moved here
    std::string how; ///< "stopped", "moved", "no_end"; empty for unknown, and for the run under way
    uint32_t steps = 0; ///< of the wall clock
};

class RunHistory {
  public:
    /** Reads <logs>/runs.txt, of which at most the newest 1 MiB and 8192 runs; a file that is missing or
     * damaged tells less. */
    void read(const std::string& logs);
    /** Takes the text of a list instead. */
    void parse(std::string_view list);
    /** Of last_<run>, or kCurrentRun. Null when nothing is told. */
    const RunStory* find(uint32_t run) const;

  private:
    std::map<uint32_t, RunStory> mStories;
};

} // namespace vnlog
