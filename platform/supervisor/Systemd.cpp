// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/Supervisor.h"

#include <cstdint>
#include <cstdlib>
#include <systemd/sd-daemon.h>

namespace vnlog::platform {

bool supervised() {
    return std::getenv("NOTIFY_SOCKET") != nullptr;
}

int64_t watchdogTime() {
    uint64_t microseconds = 0;
    return sd_watchdog_enabled(0, &microseconds) > 0 ? static_cast<int64_t>(microseconds / 1000) : 0;
}

int notifySupervisor(const std::string& assignments) {
    int result = sd_notify(0, assignments.c_str());
    return result < 0 ? -result : 0;
}

} // namespace vnlog::platform
