#pragma once

#include "base/Handles.h"

#include <cstddef>
#include <sys/un.h>

/* Local packet sockets, over which the stand-ins for driver and binder are reached. */
namespace vnlog::platform {

constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

/** Connects to the socket at `path`. Not valid, with errno set, when that fails. */
[[nodiscard]] FileDescriptor connectPacketSocket(const char* path);

/**
 * Makes a socket at `path` with this file mode and listens on it, without blocking. A socket that nobody
 * listens on any more is replaced; one that is in use fails with EADDRINUSE, anything else with EEXIST.
 */
[[nodiscard]] FileDescriptor listenPacketSocket(const char* path, mode_t mode);

/** The path of the socket that `fd` is connected to. False with errno set when it has none. */
[[nodiscard]] bool peerPath(int fd, char (&path)[kMaxSocketPath + 1]);

} // namespace vnlog::platform
