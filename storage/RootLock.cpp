// SPDX-License-Identifier: Apache-2.0
#include "storage/RootLock.h"

#include "base/Diagnostics.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/file.h>
#include <sys/stat.h>

namespace vnlog {

namespace {

/** The process that has the lock on the folder, from the kernel's list; 0 when that does not tell. */
int holderOf(int folder) {
    struct stat info;
    Stream locks = openForReading("/proc/locks");
    if (locks == nullptr || fstat(folder, &info) != 0)
        return 0;
    char line[256];
    while (std::fgets(line, sizeof line, locks.get()) != nullptr) {
        char holder[16], place[64];
        // 1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF
        if (std::sscanf(line, "%*s FLOCK %*s %*s %15s %63s", holder, place) != 2)
            continue;
        const char* inode = std::strrchr(place, ':');
        if (inode != nullptr && std::strtoull(inode + 1, nullptr, 10) == info.st_ino)
            return static_cast<int>(std::strtol(holder, nullptr, 10));
    }
    return 0;
}

} // namespace

RootLock::Status RootLock::take(const char* root) {
    if (isAt(root))
        return Status::Held; // a second lock of its own would be refused like anybody else's
    FileDescriptor folder = openFile(root, O_RDONLY | O_DIRECTORY);
    if (!folder.valid()) {
        int error = errno;
        char reason[128];
        logError("the storage root [%s] cannot be opened: %s\n", root,
                 strerror_r(error, reason, sizeof reason));
        errno = error;
        return Status::NoRoot;
    }
    if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            logError("[%s] is in use by the log service of process %d\n", root, holderOf(folder.get()));
            return Status::Taken;
        }
        logError("[%s] cannot be locked against another service\n", root);
        logErrno();
    }
    release();
    mRoot = std::move(folder);
    return Status::Held;
}

void RootLock::release() {
    if (mRoot.valid())
        (void)flock(mRoot.get(), LOCK_UN); // a child of the host that has the descriptor, too, would keep it
    mRoot = FileDescriptor();
}

bool RootLock::isAt(const char* root) const {
    struct stat here, locked;
    return held() && stat(root, &here) == 0 && fstat(mRoot.get(), &locked) == 0 &&
           here.st_dev == locked.st_dev && here.st_ino == locked.st_ino;
}

int RootLock::holderAt(const char* root) {
    FileDescriptor folder = openFile(root, O_RDONLY | O_DIRECTORY);
    int holder = folder.valid() ? holderOf(folder.get()) : 0;
    // A folder of another file system may have the same number: only one that is locked refuses.
    bool locked = holder != 0 && flock(folder.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return locked ? holder : 0;
}

} // namespace vnlog
