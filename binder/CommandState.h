// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Flag.h"

namespace vnlog {

struct CommandState {
    Flag mServiceStarted{false}; ///< whether the service runs; commands are refused while it does not
};

} // namespace vnlog
