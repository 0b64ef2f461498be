// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>

/** What Supervision needs of the system: those of this process (platform/supervisor), or of a test. */
struct Supervisor {
    bool listens;
    int64_t watchdog; ///< ends the process without a sign of life for so long, in ms; 0: never
    std::function<int64_t()> clock; ///< of the monotonic clock, in ms
    std::function<int(const std::string&)> notify; ///< 0 or the error number; must not wait
};

/**
 * What logserviced tells the service manager that has started it: that it is ready, how it is, that it is
 * alive, that it stops. Does nothing where none listens. On the host's own thread.
 *
 * The service is ready when it stores or is not to store anything; after 30 seconds in any case, so that a
 * broken medium does not hold up what waits for it. Signs of life are given as long as the service answers. A
 * command that keeps it from telling all may take an hour, which is the time that a client has for one. Such
 * an answer takes a second: the service manager is to wait at least 5 seconds for each sign of life.
 *
 * What the manager could not be told is reported once; a report that comes soon tells it again.
 */
class Supervision {
  public:
    explicit Supervision(Supervisor supervisor);

    /** The service is about to start, which may take long over a store that has to be mended. */
    void starting();
    /** Milliseconds until the next report is due, 0 when it is; -1: there is none. */
    int64_t untilReport() const;
    /** Reports the service's answer to STATUS; when it has none, why (`text`). */
    void report(bool answered, const std::string& text);
    /** The service is about to stop. */
    void stopping();

  private:
    bool giveSignOfLife(int64_t now, bool answeredWhole);
    bool tellStatus(const std::string& status);
    bool beReady(int64_t now, bool stores);
    int64_t untilNext(int64_t now, bool toldAll) const;
    bool send(const std::string& assignments);

    const Supervisor mSupervisor;
    const int64_t mWatchdog; ///< between two signs of life, in ms; 0 for none
    const int64_t mBegin; ///< times of the clock, in ms
    int64_t mNext;
    int64_t mWholeAnswer; ///< when the service has answered without a command in its way
    bool mReady = false; ///< the manager knows
    bool mFailed = false; ///< the manager could not be told something; that was reported
    std::string mStatus; ///< what the manager was told last
};
