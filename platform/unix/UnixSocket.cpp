// SPDX-License-Identifier: Apache-2.0
#include "platform/unix/UnixSocket.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog::platform {

namespace {

/** False with errno set for a path that does not fit. */
bool makeAddress(const char* path, sockaddr_un* address) {
    size_t length = std::strlen(path);
    if (length > kMaxSocketPath) {
        errno = ENAMETOOLONG;
        return false;
    }
    *address = {};
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path, length);
    return true;
}

const sockaddr* generic(const sockaddr_un* address) {
    return reinterpret_cast<const sockaddr*>(address);
}

FileDescriptor makeSocket(int flags) {
    return FileDescriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

/** Removes what stands in the way if it is a socket without a listener. */
bool clearTheWay(const char* path) {
    struct stat info;
    if (lstat(path, &info) != 0)
        return true;
    if (!S_ISSOCK(info.st_mode)) {
        errno = EEXIST;
        return false;
    }
    bool inUse = connectPacketSocket(path, SOCK_NONBLOCK).valid() || errno == EAGAIN;
    if (inUse)
        errno = EADDRINUSE;
    return !inUse && errno == ECONNREFUSED && unlink(path) == 0;
}

} // namespace

FileDescriptor connectPacketSocket(const char* path, int flags) {
    CancelGuard guard;
    sockaddr_un address;
    if (!makeAddress(path, &address))
        return FileDescriptor();
    FileDescriptor made = makeSocket(flags);
    if (made.valid() && connect(made.get(), generic(&address), sizeof address) != 0)
        return FileDescriptor();
    return made;
}

FileDescriptor listenPacketSocket(const char* path, mode_t mode) {
    constexpr int kBacklog = 16;
    CancelGuard guard;
    sockaddr_un address;
    if (!makeAddress(path, &address) || !clearTheWay(path))
        return FileDescriptor();
    FileDescriptor made = makeSocket(SOCK_NONBLOCK);
    // The mode is set before anybody can connect: that takes the listen below.
    if (!made.valid() || bind(made.get(), generic(&address), sizeof address) != 0 || chmod(path, mode) != 0 ||
        listen(made.get(), kBacklog) != 0)
        return FileDescriptor();
    return made;
}

bool lacksResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

bool peerPath(int fd, char (&path)[kMaxSocketPath + 1]) {
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;
    std::memcpy(path, address.sun_path, kMaxSocketPath);
    path[kMaxSocketPath] = '\0';
    return path[0] != '\0';
}

} // namespace vnlog::platform
