// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/SettingsState.h"

namespace vnlog {

/** What the command that switches storing sets going where the storage was full. */
class StoringSwitch {
  public:
    /**
     * Storing is switched on: begins it again if it was given up. False, reported and with nothing changed,
     * when that is not possible yet.
     */
    [[nodiscard]] virtual bool switchOn() VNLOG_REQUIRES(CommandLock::role) = 0;
    /** Whether the storage could not be used so far; a switch-on has it tried once more. */
    virtual bool awaitsStorage() const VNLOG_REQUIRES(CommandLock::role) = 0;
    /** Storing is switched off: where it was given up, it is not to come back by itself. */
    virtual void switchOff() VNLOG_REQUIRES(CommandLock::role) = 0;

  protected:
    ~StoringSwitch() = default;
};

} // namespace vnlog
