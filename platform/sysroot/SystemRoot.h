// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace vnlog::platform {

/** Longest system root in characters: with it every path that the service derives still fits, in either
 * layout.
 */
constexpr size_t kMaxSystemRoot = 80;

/** The environment variable that names the system root. */
constexpr char kSystemRootVariable[] = "VNLOG_SYSROOT";

// The places of a device, without the system root.
constexpr char kDefaultRoot[] = "/media/flash/nvm"; ///< storage root when no other is configured
constexpr char kMainDevice[] = "/dev/log_main";
constexpr char kSystemDevice[] = "/dev/log_system";

/** The folder for what a service keeps as long as the machine runs: its ring memory, and on an ordinary
 * machine its sockets. */
constexpr char kRunFolder[] = "/run/vnlog";

/** The fixed places that depend on the layout; each goes behind the system root. */
struct Places {
    const char* storageRoot; ///< the default one, and the home of log.cfg
    const char* mainDevice;
    const char* systemDevice;
    const char* socketFolder; ///< where the stand-in's services are published
};

constexpr Places kDevicePlaces{kDefaultRoot, kMainDevice, kSystemDevice, "/dev"};
constexpr Places kMachinePlaces{"/var/log/vnlog", "/run/vnlog/log_main", "/run/vnlog/log_system", kRunFolder};

/** The directory that stands before the service's fixed absolute paths, and which paths those are. */
struct SystemRoot {
    char path[128] = {}; ///< the empty text without one
    /**
     * The layout is that of an ordinary machine with the service's package installed: there is a folder
     * /var/log/vnlog, and neither /media/flash/nvm nor /dev/log_main. Else it is a device's.
     */
    bool onMachine = false;

    /**
     * Takes the value of the variable without trailing slashes, and looks which layout is there. Returns
     * false when the value is longer than kMaxSystemRoot; `path` then holds its beginning and must not be
     * used for files. Takes no memory.
     */
    [[nodiscard]] bool read();

    const Places& places() const { return onMachine ? kMachinePlaces : kDevicePlaces; }
    /** Whether stand-ins take the place of logger devices that are missing. */
    bool takesStandIns() const { return path[0] != '\0' || onMachine; }
};

} // namespace vnlog::platform
