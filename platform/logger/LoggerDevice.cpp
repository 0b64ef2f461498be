// SPDX-License-Identifier: Apache-2.0
#include "platform/logger/LoggerDevice.h"

#include "platform/logger/Protocol.h"
#include "platform/unix/UnixSocket.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vnlog::platform {

namespace {

FileDescriptor connectAs(const char* path, LoggerHello::Role role, unsigned request = 0) {
    FileDescriptor socket = connectPacketSocket(path);
    LoggerHello hello{kLoggerMagic, role, request};
    if (socket.valid() && send(socket.get(), &hello, sizeof hello, MSG_NOSIGNAL) != sizeof hello)
        return FileDescriptor();
    return socket;
}

bool reads(LoggerAccess access) {
    return access == LoggerAccess::Read || access == LoggerAccess::ReadBatches;
}

} // namespace

FileDescriptor openLogger(const char* path, LoggerAccess access) {
    CancelGuard guard;
    struct stat info;
    if (stat(path, &info) != 0)
        return FileDescriptor();
    if (!S_ISSOCK(info.st_mode))
        return openFile(path, reads(access) ? O_RDONLY : O_WRONLY);
    switch (access) {
    case LoggerAccess::Read:
        return connectAs(path, LoggerHello::Reader);
    case LoggerAccess::ReadBatches:
        return connectAs(path, LoggerHello::BatchReader);
    case LoggerAccess::Write:
        return connectAs(path, LoggerHello::Writer);
    case LoggerAccess::WriteLossless:
        break;
    }
    return connectAs(path, LoggerHello::LosslessWriter);
}

bool isStandIn(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode);
}

int controlLogger(int fd, unsigned request) {
    if (!isStandIn(fd))
        return ioctl(fd, request, nullptr);
    // A connection of its own, so that the answer never comes between entries.
    CancelGuard guard;
    char path[kMaxSocketPath + 1];
    if (!peerPath(fd, path))
        return -1;
    FileDescriptor control = connectAs(path, LoggerHello::Control, request);
    int32_t answer = -1;
    if (!control.valid() || recv(control.get(), &answer, sizeof answer, 0) != sizeof answer)
        return -1;
    if (answer < 0) {
        errno = EINVAL;
        return -1;
    }
    return answer;
}

} // namespace vnlog::platform
