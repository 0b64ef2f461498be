// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/SettingsState.h"

#include <string>

namespace vnlog {

/** Who knows how the service is. */
class StatusSource {
  public:
    /**
     * The status as lines "key=value", each with its newline; a key is "group.name". The line "works=y" or
     * "works=n" tells whether all that is switched on works.
     */
    virtual std::string status() VNLOG_REQUIRES(CommandLock::role) = 0;
    /** What can be told of it while a command lasts, which is a problem. Any thread. */
    virtual std::string statusMeanwhile() = 0;
    /** Something may have changed about storing: notes since when. */
    virtual void look() VNLOG_REQUIRES(CommandLock::role) = 0;

  protected:
    ~StatusSource() = default;
};

} // namespace vnlog
