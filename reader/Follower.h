// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "reader/LineStream.h"
#include "reader/Record.h"
#include "reader/StoreFolder.h"

#include <functional>
#include <memory>
#include <string>

namespace vnlog {

/**
 * The lines of a live store as they are written: through cuts, archived runs and changes of the root, none
 * missed and none twice. Lines come within 100 ms of being in the section. What was deleted before it could
 * be read, or cannot be read, is told by a record of the source Reader at its place. A run that is under way
 * when it is reached is kCurrentRun to its end; Record::story tells it from others of that name. One thread.
 */
class Follower {
  public:
    /** Asked now and then, behind begin(), which log folder is written to; empty keeps the one from before.
     */
    using Locate = std::function<std::string()>;

    explicit Follower(Locate locate);
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /**
     * Begins behind the line `after` of a store's run, which has its newline; section and line 0: at the
     * beginning of the run under way, which is waited for where there is none. All that comes behind it is
     * held from here on: that the run is archived or the section deleted loses nothing of that. False with
     * errno set, ENOENT: the store, the run or the section is gone.
     */
    [[nodiscard]] bool begin(const StoreFolder& store, const LinePlace& after);
    /** Whether no run was begun in the store since the one that is read. */
    [[nodiscard]] bool inPresentRun() const;
    /** Waits for the next line, at most so long (-1: for ever), or until `wakeUp` can be read (-1: none). */
    [[nodiscard]] bool next(Record* record, int timeoutMs, int wakeUp);
    /** Of the sections since begin(). */
    const StreamCounts& counts() const;

  private:
    class Work;
    std::unique_ptr<Work> mWork;
};

} // namespace vnlog
