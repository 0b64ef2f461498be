// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/Supervisor.h"

namespace vnlog::platform {

bool supervised() {
    return false;
}

int64_t watchdogTime() {
    return 0;
}

int notifySupervisor(const std::string&) {
    return 0;
}

} // namespace vnlog::platform
