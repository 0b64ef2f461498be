// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Handles.h"

#include <sys/types.h>

namespace vnlog {

/**
 * An advisory lock on a storage root, so that two services never work on one store. The kernel releases it
 * with the process.
 */
class RootLock {
  public:
    enum class Status {
        Held,
        Taken, ///< another service has it; reported with its process
        NoRoot, ///< the root cannot be opened; reported, errno tells why
    };

    /** Locks the folder, in the place of the one held so far, which stays locked after a failure. A file
     * system that knows no locks is used all the same, reported. */
    [[nodiscard]] Status take(const char* root);
    void release();
    [[nodiscard]] bool held() const { return mRoot.valid(); }
    /** Whether the folder at `root` is the one that is locked, and not another that has come to its place. */
    [[nodiscard]] bool isAt(const char* root) const;
    /** The process of a service that has the root locked, 0 for none, without getting in its way. Not where
     * the kernel's list of locks cannot be read. */
    static int holderAt(const char* root);

  private:
    FileDescriptor mRoot;
};

} // namespace vnlog
