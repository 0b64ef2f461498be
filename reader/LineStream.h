// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/Record.h"
#include "reader/RunHistory.h"
#include "reader/StoreFolder.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace vnlog {

/** Which part of a store is looked at. */
struct Scope {
    std::vector<uint32_t>
        runs; ///< ascending, kCurrentRun behind all others; those that are not there are passed over
    int64_t since = INT64_MIN; ///< ns since the epoch: lines dated earlier need not come
    int64_t until = INT64_MAX; ///< nor later ones; those without a time come always
    bool fields =
        true; ///< lines are taken apart and dated; otherwise bytes, place and end alone are filled in
};

/** What became of the sections of a scope so far. */
struct StreamCounts {
    uint32_t opened = 0; ///< sections whose text was read
    uint32_t damaged = 0; ///< of them, those that could not be read to their end
    uint32_t vanished = 0; ///< sections that were deleted before they could be read
    uint32_t unreadable = 0; ///< for want of permission or for an error of the system
};

/**
 * The lines of a store, one after the other, in either direction. Lines that are cut between two sections
 * come whole. A text beside its archive is read as the service would settle the two. Where something cannot
 * be read, a record of the source Reader says so at that place. The run that is under way is for all
 * beginnings the one that was at the first. A run's last line may have no newline
 * (Record::ended). Needs less than 6 MiB whatever the sections hold; of a line of more than 256 KiB the
 * pieces come as lines. One thread at a time.
 */
class LineStream {
  public:
    /** All must outlive the stream. */
    LineStream(const StoreFolder& folder, const RunHistory& history);
    ~LineStream();
    LineStream(const LineStream&) = delete;
    LineStream& operator=(const LineStream&) = delete;

    /** Goes to the beginning of a scope. */
    void begin(const Scope& scope);
    /** Goes to the end of a scope; next() then gives the lines in reverse. */
    void beginBackward(const Scope& scope);
    /** Goes to a line of a scope, forward from there on. */
    void beginAt(const Scope& scope, const LinePlace& place);
    /** False when no line is left. */
    [[nodiscard]] bool next(Record* record);
    const StreamCounts& counts() const;

  private:
    class Work;
    std::unique_ptr<Work> mWork;
};

} // namespace vnlog
