// SPDX-License-Identifier: Apache-2.0
#include "platform/supervisor/Supervisor.h"

#include "base/Handles.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

namespace vnlog::platform {

namespace {

constexpr char kSocketVariable[] = "NOTIFY_SOCKET";

/** The address of a socket with a path, or with an abstract name, which is written with an "@" in front. Its
 * length; 0 for anything else. */
socklen_t makeAddress(const char* place, sockaddr_un* address) {
    const size_t length = std::strlen(place);
    if ((place[0] != '/' && place[0] != '@') || length > sizeof address->sun_path)
        return 0;
    *address = {};
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, place, length);
    if (place[0] == '@')
        address->sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

} // namespace

bool supervised() {
    return std::getenv(kSocketVariable) != nullptr;
}

int64_t watchdogTime() {
    uint64_t microseconds = 0;
    return sd_watchdog_enabled(0, &microseconds) > 0 ? static_cast<int64_t>(microseconds / 1000) : 0;
}

// The library's own call waits for as long as the manager's queue is full.
int notifySupervisor(const std::string& assignments) {
    const char* place = std::getenv(kSocketVariable);
    sockaddr_un address;
    const socklen_t length = place != nullptr ? makeAddress(place, &address) : 0;
    if (length == 0)
        return EAFNOSUPPORT;
    FileDescriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool sent = sender.valid() && sendto(sender.get(), assignments.data(), assignments.size(),
                                               MSG_DONTWAIT | MSG_NOSIGNAL,
                                               reinterpret_cast<const sockaddr*>(&address), length) >= 0;
    return sent ? 0 : errno;
}

} // namespace vnlog::platform
