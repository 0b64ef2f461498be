#pragma once

#include "reader/Record.h"

#include <functional>
#include <memory>
#include <string>

namespace vnlog {

/**
 * The lines of a live store as they are written: through cuts, archived runs and changes of the root, none
 * missed and none twice. Lines come within 100 ms of being in the section. One thread.
 */
class Follower {
  public:
    /** Asked now and then which log folder is written to; empty keeps the one from before. */
    using Locate = std::function<std::string()>;

    explicit Follower(Locate locate);
    ~Follower();
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /**
     * Begins behind the line `after` (its section 0: at the beginning of the run under way). Whoever has held
     * a line back that had no newline yet gives the line before it, with number 0 where that is none, and
     * gets it whole; of one that was shown, what was stored of it by now does not come again. A store that
     * is not there yet is waited for. False with errno set: the run or the section is gone.
     */
    [[nodiscard]] bool begin(const LinePlace& after);
    /** Waits for the next line, at most so long (-1: for ever), or until `wakeUp` can be read (-1: none). */
    [[nodiscard]] bool next(Record* record, int timeoutMs, int wakeUp);

  private:
    class Work;
    std::unique_ptr<Work> mWork;
};

} // namespace vnlog
