// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "service/LogService.h"

#include <cstdint>
#include <string>

/**
 * What logserviced tells the service manager that has started it: that it is ready, how it is, that it is
 * alive, that it stops. Does nothing where none listens. On the host's own thread.
 *
 * The service is ready when it stores or is not to store anything; after 30 seconds in any case, so that a
 * broken medium does not hold up what waits for it. Signs of life are given as long as the service answers. A
 * command that keeps it from telling all may take an hour, which is the time that a client has for one. Such
 * an answer takes a second: the service manager is to wait at least 5 seconds for each sign of life.
 */
class Supervision {
  public:
    Supervision();

    /** The service is about to start, which may take long over a store that has to be mended. */
    void starting();
    /** Milliseconds until the next report is due, 0 when it is; -1: there is none. */
    int64_t untilReport() const;
    /** Asks the service how it is and reports that, if a report is due. Takes a second behind a command. */
    void report(vnlog::LogService& service);
    /** The service is about to stop. */
    void stopping();

  private:
    void beReady(bool stores);
    void giveSignOfLife(bool answeredWhole);
    void send(const std::string& assignments);

    bool mListens;
    bool mReady = false;
    bool mFailed = false; ///< the manager could not be told something; that was reported
    int64_t mWatchdog; ///< between two signs of life, in ms; 0 for none
    int64_t mBegin; ///< times of the monotonic clock, in ms
    int64_t mNext;
    int64_t mWholeAnswer; ///< when the service has answered without a command in its way
    std::string mStatus; ///< what the manager was told last
};
