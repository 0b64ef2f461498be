// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <chrono>
#include <cstddef>
#include <sys/un.h>

/* Local packet sockets, over which the stand-ins for driver and binder are reached. */
namespace vnlog::platform {

constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

/** A client that keeps silent for so long gives way to another one that there is no room for otherwise. */
constexpr std::chrono::seconds kPatience{5};
/** How long a listener pauses when a connection cannot be accepted for want of descriptors or memory. */
constexpr std::chrono::milliseconds kAcceptPause{100};

/**
 * Connects to the socket at `path`. `flags` are those of the socket; with SOCK_NONBLOCK a listener whose
 * queue is full is not waited for. Not valid, with errno set, when that fails; EAGAIN for the full queue.
 */
[[nodiscard]] FileDescriptor connectPacketSocket(const char* path, int flags = 0);

/**
 * Makes a socket at `path` with this file mode and listens on it, without blocking. A socket that nobody
 * listens on any more is replaced; one that is in use fails with EADDRINUSE, anything else with EEXIST.
 * Never waits for whoever listens there.
 */
[[nodiscard]] FileDescriptor listenPacketSocket(const char* path, mode_t mode);

/** Whether `error` of an accept says that descriptors or memory are wanting: the next one fails alike. */
[[nodiscard]] bool lacksResources(int error);

/** The path of the socket that `fd` is connected to. False with errno set when it has none. */
[[nodiscard]] bool peerPath(int fd, char (&path)[kMaxSocketPath + 1]);

} // namespace vnlog::platform
